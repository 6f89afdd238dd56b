// The devices that `busy` is asked about, and telling their mounts from all others.
#ifndef QUARRYCTL_BUSY_TARGET_H
#define QUARRYCTL_BUSY_TARGET_H

#include <string>
#include <vector>

#include "mount_info.h"

// A device, or a filesystem that is on none.
struct BusyTarget {
    std::string name;               // "sdb1"; without a device the source of the mount
    std::vector<std::string> paths; // of its nodes: "/dev/dm-0", "/dev/mapper/vault"; none without
    std::string number;             // "8:17"; "" when the kernel does not know the device any more
    std::string folder;             // in sysfs; "" likewise

    bool IsDevice() const
    {
        return !paths.empty();
    }
};

// Finds the device of a word: a name, a path, ^ and a label, or a mount point. A drive brings its
// partitions along. 0, with a line on stderr, when there is none.
int find_targets(const std::string &word, const MountInfoTable &table,
                 std::vector<BusyTarget> &targets);

// The device of that name as sysfs has it.
BusyTarget target_of(const std::string &name);

// Whether a mount shows this device.
bool is_mount_of(const MountInfo &mount, const BusyTarget &target);

// The path without "." and "..", going by the text alone.
std::string plain_path(const std::string &path);

#endif
