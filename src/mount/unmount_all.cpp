// Unmounting everything at exit.
#include "mount/unmount_all.h"

#include <string>
#include <vector>

#include "inspect/proc_partitions.h"
#include "mount/mount_tables.h"
#include "mount/unmounting.h"
#include "registry/device_list.h"

void unmount_all()
{
    ReadFstab();
    ReadProcMounts();
    ReadProcFilesystems();
    ReadProcPartitions();
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
