// Which drive the machine was booted from.
#include "core/boot_drive.h"

#include "base/daemon_state.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"

using BootDrive = MadeUpMachineTest;

// The first device node at "/" is the boot partition; its first three characters are the drive,
// whatever the bus, on purpose.
TEST_F(BootDrive, IsTheFirstThreeCharactersOfTheRootDevice)
{
    static const struct {
        const char *mounts;
        const char *drive, *partition;
    } cases[] = {
        {"/dev/sda1 / ext4 rw 0 0\n", "sda", "sda1"},
        {"/dev/sdaa1 / ext4 rw 0 0\n", "sda", "sdaa1"},
        {"/dev/nvme0n1p2 / ext4 rw 0 0\n", "nvm", "nvme0n1p2"},
        {"/dev/mmcblk0p2 / ext4 rw 0 0\n", "mmc", "mmcblk0p2"},
        {"/dev/mapper/root / ext4 rw 0 0\n", "map", "mapper/root"},
        {"/dev/md0 / ext4 rw 0 0\n", "md0", "md0"},
        {"/dev/sd / ext4 rw 0 0\n", "sd", "sd"}, // shorter than three
        {"rootfs / rootfs rw 0 0\n/dev/sda1 / ext4 rw 0 0\n", "sda", "sda1"},
        {"/dev/sdb1 /boot ext4 rw 0 0\n/dev/sda1 / ext4 rw 0 0\n", "sda", "sda1"},
        {"/dev/sda1 / ext4 rw 0 0\n/dev/sdb1 / ext4 rw 0 0\n", "sda", "sda1"},
    };
    for (const auto &c : cases) {
        machine.Write("/proc/mounts", c.mounts);
        ReadProcMounts();
        detect_boot_drive();
        EXPECT_EQ(boot_drive, c.drive) << c.mounts;
        EXPECT_EQ(boot_partition, c.partition) << c.mounts;
        EXPECT_EQ(errors.Take(), std::string("boot drive:     ") + c.drive +
                                     "\nboot partition: " + c.partition + "\n");
    }
}

// The client asks, too, and nothing is said then.
TEST_F(BootDrive, CanBeFoundSilently)
{
    static const struct {
        const char *device, *partition;
    } cases[] = {{"/dev/sda1", "sda1"}, {"/dev/root", ""}, {"", ""}};
    for (const auto &c : cases) {
        machine.Write("/proc/mounts",
                      c.device[0] ? c.device + std::string(" / ext4 rw 0 0\n") : "");
        ReadProcMounts();
        boot_partition = "old";
        EXPECT_EQ(find_boot_drive(), c.device);
        EXPECT_EQ(boot_partition, c.partition);
        EXPECT_EQ(errors.Take(), "");
    }
}

// Where "/" is no device node the boot drive is unknown, and what was known is forgotten.
TEST_F(BootDrive, IsUnknownWithoutADeviceNode)
{
    for (const char *mounts :
         {"", "overlay / overlay rw 0 0\n", "/dev / x rw 0 0\n", "/dev/sda1 /boot ext4 rw 0 0\n",
          "/dev/sda1 // ext4 rw 0 0\n", "/dev/ / ext4 rw 0 0\n"}) {
        boot_drive = "old";
        boot_partition = "old1";
        machine.Write("/proc/mounts", mounts);
        ReadProcMounts();
        detect_boot_drive();
        EXPECT_EQ(boot_drive + boot_partition, "") << mounts;
    }
}

// That it is unknown is told, once.
TEST_F(BootDrive, UnknownOneIsTold)
{
    detect_boot_drive();
    EXPECT_EQ(errors.Take(), "WARNING: Cannot determine boot drive\n");
}

// A kernel that names no device at all gets the answer that it deserves; a later mount at "/" does
// not count.
TEST_F(BootDrive, DevRootIsUseless)
{
    machine.Write("/proc/mounts", "/dev/root / ext4 rw 0 0\n/dev/sda1 / ext4 rw 0 0\n");
    ReadProcMounts();
    boot_drive = "old";
    detect_boot_drive();
    EXPECT_EQ(errors.Take(), "Ahahahah /dev/root. Good one. Completely useless.\n"
                             "WARNING: Cannot determine boot drive\n");
    EXPECT_EQ(boot_drive + boot_partition, "");
    machine.Write("/proc/mounts", "/dev/root1 / ext4 rw 0 0\n");
    ReadProcMounts();
    detect_boot_drive();
    EXPECT_EQ(boot_partition, "root1");
}
