// The readers of the kernel's tables, in their order.
#include "mount/kernel_tables.h"

#include "inspect/proc_partitions.h"
#include "mount/mount_tables.h"

void read_kernel_tables()
{
    ReadFstab();
    ReadProcMounts();
    ReadProcFilesystems();
    ReadProcPartitions();
}
