// The partition table of a drive, as one short description for each partition number.
#ifndef QUARRYD_INSPECT_PARTITION_TABLE_H
#define QUARRYD_INSPECT_PARTITION_TABLE_H

#include <cstdint>
#include <map>
#include <string>

// Reads an Apple partition map or a DOS master boot record. Owned by the drive's record.
class PartitionTable {
public:
    // path is the drive's device node, "/dev/sda". Nothing is opened yet.
    explicit PartitionTable(const std::string &path);
    PartitionTable(const PartitionTable &) = delete;
    PartitionTable &operator=(const PartitionTable &) = delete;

    // Replaces the entries by what the drive says now. Always 1: a drive that cannot be read has
    // no entries. Says on stderr when it cannot be opened, unless it merely holds no medium.
    int Read();

    std::map<int, std::string> entries; // partition number (from 1) to description

private:
    int ReadSector(uint64_t number);
    bool ReadAppleMap();
    bool ReadMasterBootRecord();
    uint64_t CountSectors() const;

    int fd_ = -1; // -1 whenever the drive is closed
    std::string path_;
    unsigned char sector_[512] = {}; // the sector last read
};

#endif
