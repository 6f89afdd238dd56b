// The records of drives and partitions, and the maps that own them.
//
// A record lives in exactly one of the two maps under its device name, from its insertion to its
// removal. The map's hold is the record's first reference; each partition holds one more on its
// drive. Only registry/device_list erases and deletes records: everybody else borrows a pointer for
// one command or one pass of the loop.
#ifndef QUARRYD_REGISTRY_BLOCK_DEVICE_H
#define QUARRYD_REGISTRY_BLOCK_DEVICE_H

#include <map>
#include <string>

#include "inspect/partition_table.h"
#include "registry/connection_types.h"

// A whole drive.
class BlockDevice {
public:
    explicit BlockDevice(const std::string &name);
    virtual ~BlockDevice(); // says "BUG: ..." on stderr when somebody still holds the record
    BlockDevice(const BlockDevice &) = delete;
    BlockDevice &operator=(const BlockDevice &) = delete;

    void acquire();
    int release(); // the new count; at 0 the connection is forgotten. Never deletes.
    bool is_unreferenced() const;
    void set_connection(const ConnectionType *row);

    int refcount = 1;
    std::string device;     // kernel name: "sda", "sr0", "mmcblk0", "nvme0n1", "md0", "dm-0"
    std::string sysfs_path; // "/sys/block/" + device; empty until the drive is probed
    std::string model;
    std::string type;       // "Hard Drive", "CD-ROM", "Logical Volume", "Unknown" or ""
    std::string label;      // filesystem label; "" until the label probe has run
    std::string place;      // "Boot", "Main" or ""
    std::string filesystem; // "" means not probed yet, " " that the probe found none
    PartitionTable *partition_table = nullptr;  // owned; null when not read
    const ConnectionType *connection = nullptr; // a row of connection_types; null when unknown
    std::map<std::string, bool> partitions;     // names of the partitions whose parent this is
    unsigned long long capacity = ~0ULL;        // bytes; all bits set when unknown
    int scanned = 0;   // 1 once the main partition search has looked at the drive in vain
    int poll_mark = 0; // 1 while the current poll has not met the drive
};

// A partition of a drive. Of the drive's fields it uses device, model, label, place, filesystem,
// refcount, connection and poll_mark.
class PartitionDevice : public BlockDevice {
public:
    explicit PartitionDevice(const std::string &name);

    // Moves the partition to another drive (or to none): both drives' counts and name lists follow.
    void set_parent(BlockDevice *drive);

    BlockDevice *parent = nullptr; // holds a reference on it
    long long partition_size = -1; // bytes; -1 when unknown
    int scanned = 0;               // the partition's own: 1 once it was looked at in vain
};

extern std::map<std::string, BlockDevice *> blockdev_list;    // drives by name
extern std::map<std::string, PartitionDevice *> partdev_list; // partitions by name

// Whether the registry knows a drive or a partition of that name (without "/dev/").
bool device_exists(const char *name);

// The drive's or partition's record, or null.
BlockDevice *find_drive(const std::string &name);
PartitionDevice *find_partition(const std::string &name);

// The record of that name, drives first, or null.
BlockDevice *find_device(const std::string &name);

#endif
