// The kernel's table of mounts as one process sees it, with the numbers that tell devices and
// mounts apart: /proc/PID/mountinfo. Reading it asks no filesystem anything.
#ifndef QUARRYCTL_MOUNT_INFO_H
#define QUARRYCTL_MOUNT_INFO_H

#include <string>
#include <string_view>
#include <vector>

// One line of the table. Texts are without the kernel's octal escapes.
struct MountInfo {
    int id = -1;        // of this mount, in all mount namespaces
    int parent = -1;    // id of the mount that it lies on
    std::string number; // of the filesystem's device: "8:17"; "0:45" when it is none
    std::string mountpoint;
    std::string options; // "rw,nosuid"
    std::string fstype;
    std::string source; // "/dev/sdb1"
    std::string filesystem_options;
};

using MountInfoTable = std::vector<MountInfo>; // in the kernel's order

// One line into an entry. 0 for a line that is none.
int parse_mount_info_line(std::string_view line, MountInfo &mount);

// The table of a process ("self", "4711"). Empty when it cannot be read.
MountInfoTable read_mount_info(const std::string &process);

// The mount that a path lies on, going by the text alone, or null. The path is absolute and without
// links in it.
const MountInfo *mount_of_path(const MountInfoTable &table, std::string_view path);

#endif
