// Fills the records of drives and partitions from sysfs. No medium is touched.
#ifndef QUARRYD_REGISTRY_SYSFS_PROBE_H
#define QUARRYD_REGISTRY_SYSFS_PROBE_H

#include "registry/block_device.h"

// Sets sysfs_path, place, connection, type, model and capacity of a drive; label and filesystem
// are emptied, so that the next listing asks for them again. What cannot be read is empty, an
// unreadable size 0; a control character in the model becomes "_"; a name of no known kind keeps a
// capacity of all bits set and no connection. The slaves of an md array are remembered as active
// RAID members.
void probe_drive(BlockDevice &drive);

// Sets place, size and model of a partition and empties its label and filesystem. Without a parent
// the size stays unknown. The second form reads relative to the open directory of the parent in
// sysfs, which saves the kernel a walk of the whole path.
void probe_partition(PartitionDevice &partition);
void probe_partition(PartitionDevice &partition, int drive_directory_fd);

// Remembers the slaves of every md array in the registry as active RAID members.
void scan_raid_slaves();

#endif
