// Drives and partitions as rows: for people, and for scripts.
#ifndef QUARRYCTL_LISTING_H
#define QUARRYCTL_LISTING_H

#include <string>
#include <vector>

#include "mounts.h"
#include "reply.h"
#include "table.h"

// A drive or partition with all that is known of it.
struct ListedDevice {
    Device device;
    std::string drive; // the name of the drive that it is a partition of; empty for a drive
    std::vector<std::string> mountpoints;

    bool operator==(const ListedDevice &) const = default;
};

// Each drive, and behind it its partitions.
std::vector<ListedDevice> listed_devices(const std::vector<Drive> &drives,
                                         const MountTable &mounts);

// The name of the device that "^LABEL" means to the daemon: it looks at the partitions in the order
// of their names, then at the drives. Empty when there is none.
std::string name_of_label(const std::vector<Drive> &drives, const std::string &label);

// The columns of a table of devices, and a device's row.
std::vector<Column> device_columns();
Row device_row(const ListedDevice &listed);

// Fields between tabs, for scripts: an empty one is "-" (and "-" itself is "\x2d"), so that a shell
// that takes tabs for blanks still counts them right. In this order, which stays:
//   name, drive, type, connection, label, size in bytes, model, place, raid, filesystem, mount
//   point
// "drive" is the drive that a partition belongs to. Of several mount points it is the oldest.
std::string plain_line(const ListedDevice &listed);

// The same for "enumerate":
//   name, drive, type, connection, label, model, place, path below /sys
std::string plain_enumeration(const std::vector<ConnectionGroup> &groups);

// "enumerate" for people: a table for each way of being connected, below a line that names it.
std::string enumeration_text(const std::vector<ConnectionGroup> &groups, const Style &style);

// Fields between tabs as above, with the line's end.
std::string join_plain(const std::vector<std::string> &fields);

#endif
