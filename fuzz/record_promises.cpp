// The promises about records.
#include "record_promises.h"

#include <map>

#include "harness.h"
#include "registry/block_device.h"

void check_records()
{
    std::map<const BlockDevice *, int> holders;
    for (const auto &[name, partition] : partdev_list) {
        PROMISE(partition->device == name && partition->refcount == 1);
        const BlockDevice *drive = partition->parent;
        if (!drive)
            continue;
        PROMISE(find_drive(drive->device) == drive && drive->partitions.contains(name));
        holders[drive]++;
    }
    for (const auto &[name, drive] : blockdev_list) {
        PROMISE(drive->device == name && drive->refcount == 1 + holders[drive]);
        PROMISE(static_cast<int>(drive->partitions.size()) == holders[drive]);
        for (const auto &[partition, flag] : drive->partitions)
            PROMISE(find_partition(partition) && find_partition(partition)->parent == drive);
        PROMISE(!drive->connection || (drive->connection >= connection_types &&
                                       drive->connection < connection_types + CONNECTION_ROWS));
        PROMISE(drive->connection || drive->capacity == ~0ULL);
    }
}
