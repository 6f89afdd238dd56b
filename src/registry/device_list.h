// Keeps the registry in line with /sys/block. The only place where records are made and deleted.
#ifndef QUARRYD_REGISTRY_DEVICE_LIST_H
#define QUARRYD_REGISTRY_DEVICE_LIST_H

#include "registry/block_device.h"

// Whether the poll makes records of such a drive, and the daemon releases its mounts. False for
// loop devices and memory disks.
bool is_followed(const char *name);

// Creates records for what has appeared, refreshes every partition, and removes what has gone:
// partitions before drives, each unmounted first when it is still mounted (which may take seconds,
// see force_unmount()). A line on stderr for each. Does nothing when /sys/block cannot be opened.
void UpdateBlockDeviceList();

// Hotplug mode's look at the drives already known: probes each again, so that a medium that was put
// in shows its size. Creates and removes nothing.
void refresh_drives();

// Reads the drive's partition table anew and copies its descriptions into the models of the
// partitions "sda1", "sda2", ... that the registry knows.
void read_partition_table(BlockDevice &drive);

// Empties the registry at exit. A record that somebody still holds is reported on stderr and not
// deleted, so that its holder's pointer stays good.
void FreeBlockDeviceList();

#endif
