// Unmounting everything at exit.
#include "mount/unmount_all.h"

#include "mount/kernel_tables.h"
#include "mount/unmounting.h"
#include "registry/device_list.h"

void unmount_all()
{
    read_kernel_tables();
    UpdateBlockDeviceList();
    for (const auto &[name, drive] : blockdev_list) {
        if (drive->partitions.empty())
            release_vanished_device(name);
        for (const auto &[partition_name, flag] : drive->partitions) {
            if (find_partition(partition_name))
                release_vanished_device(partition_name);
        }
    }
}
