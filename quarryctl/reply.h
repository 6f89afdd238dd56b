// What the daemon's replies mean.
#ifndef QUARRYCTL_REPLY_H
#define QUARRYCTL_REPLY_H

#include <string>
#include <string_view>
#include <vector>

struct Reply {
    bool is_ok = false;
    std::vector<std::string> lines; // the continuation lines, less "OK-"; bytes as they came
    std::string text;               // the final line, less "OK " or "ERR "
};

enum ReplyState {
    REPLY_UNFINISHED, // so far nothing is wrong
    REPLY_COMPLETE,
    REPLY_GARBLED,
};

// Takes a reply apart. What stands behind its final line is left alone. The reply is filled when it
// is complete.
ReplyState parse_reply(std::string_view bytes, Reply &reply);

constexpr long long size_unknown = -1;

// A drive or partition as a listing describes it. Texts are what the daemon sent: anything may be
// in them. Empty means that there is none, or that it is not known.
struct Device {
    std::string name; // "sdb1"
    std::string type; // "Hard Drive", "CD-ROM", "Partition", ...
    std::string connection;
    std::string label;
    long long size = size_unknown; // bytes
    std::string model;
    std::string place;      // "Boot", "Main"
    std::string raid;       // "Active RAID", "Inactive RAID"; "enumerate" does not tell
    std::string filesystem; // "enumerate" does not tell
    std::string sysfs_path; // only "enumerate" tells

    bool operator==(const Device &) const = default;
};

struct Drive {
    Device device;
    std::vector<Device> partitions;

    bool operator==(const Drive &) const = default;
};

// The drives of a reply to "list", in its order. 0 when the reply is no such list.
int parse_list(const Reply &reply, std::vector<Drive> &drives);

// One way of being connected, and the drives that are.
struct ConnectionGroup {
    std::string connection;  // "USB"
    std::string description; // "USB storage devices"
    std::vector<Drive> drives;
};

// The groups of a reply to "enumerate", in its order. 0 when the reply is no such list.
int parse_enumeration(const Reply &reply, std::vector<ConnectionGroup> &groups);

#endif
