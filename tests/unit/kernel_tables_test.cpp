// All of the kernel's tables at once.
#include "mount/kernel_tables.h"

#include "inspect/proc_partitions.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"

using KernelTables = MadeUpMachineTest;

// Every table is read again.
TEST_F(KernelTables, AreReadTogether)
{
    machine.Write("/proc/mounts", "/dev/sda1 / ext4 rw 0 0\n");
    machine.Write("/proc/filesystems", "\text4\n");
    machine.Write("/proc/partitions", "8 0 1 sda\n");
    read_kernel_tables();
    EXPECT_EQ(mount_list.size(), 1U);
    EXPECT_EQ(fstab_list.size(), 1U);
    EXPECT_EQ(filesystems_list.size(), 1U);
    EXPECT_EQ(proc_partitions.size(), 1U);
    EXPECT_EQ(errors.Take(), "");
}

// Each that is missing has its own line, in the order of their reading.
TEST_F(KernelTables, EachMissingOneIsTold)
{
    read_kernel_tables();
    EXPECT_EQ(errors.Take(), "WaRNING: cannot stat /etc/fstab\n"
                             "Cannot access /proc/mounts\n"
                             "Cannot read /proc/filesystems\n"
                             "Cannot open /proc/partitions\n");
}
