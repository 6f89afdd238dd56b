// Where devices are mounted, as the kernel tells everybody. The daemon looks there, too.
#ifndef QUARRYCTL_MOUNTS_H
#define QUARRYCTL_MOUNTS_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

struct MountTable {
    bool is_known = false; // /proc/mounts could be read

    // Device name ("sdb1") to its mount points, oldest first.
    std::map<std::string, std::vector<std::string>> points;

    // Empty when the device is not mounted, or it is not known.
    const std::vector<std::string> &PointsOf(const std::string &name) const;
};

// A table from the text of /proc/mounts: lines "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0" with "\040" for a
// blank. What is not below /dev is left out.
MountTable parse_mounts(std::string_view text);

// Reads /proc/mounts. A device's other names are followed to its own: /dev/mapper/vault to dm-0.
MountTable read_mounts();

#endif
