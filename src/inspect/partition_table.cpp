// Apple partition maps and DOS master boot records.
#include "inspect/partition_table.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "base/words.h"

static const uint64_t sector_size = 512;

// The kernel numbers at most 255 partitions on a drive. A map that claims many times that is
// garbled or hostile, and following it further would only hold the daemon up.
static const uint64_t apple_entries_limit = 4096;

PartitionTable::PartitionTable(const std::string &path) : path_(path)
{
}

int PartitionTable::Read()
{
    entries.clear();
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        if (errno != ENOMEDIUM)
            fprintf(stderr, "cannot open %s %s\n", path_.c_str(), strerror(errno));
        return 1;
    }
    if (path_.starts_with("/dev/")) {
        if (!ReadAppleMap())
            ReadMasterBootRecord();
    }
    close(fd_);
    fd_ = -1;
    return 1;
}

// Fills sector_; non-zero when the whole sector arrived.
int PartitionTable::ReadSector(uint64_t number)
{
    off_t position = lseek(fd_, static_cast<off_t>(number * sector_size), SEEK_SET);
    if (position < 0)
        position = 0;
    if (static_cast<uint64_t>(position) / sector_size != number)
        return 0;
    return read(fd_, sector_, sector_size) > 511;
}

uint64_t PartitionTable::CountSectors() const
{
    off_t size = lseek(fd_, 0, SEEK_END);
    return size < 0 ? 0 : static_cast<uint64_t>(size) / sector_size;
}

static uint64_t big_endian_word(const unsigned char *bytes)
{
    return static_cast<uint64_t>(bytes[0]) << 24 | static_cast<uint64_t>(bytes[1]) << 16 |
           static_cast<uint64_t>(bytes[2]) << 8 | static_cast<uint64_t>(bytes[3]);
}

// A field of 32 bytes, padded with NULs. No system writes control characters into a map.
static std::string padded_text(const unsigned char *field)
{
    const char *text = reinterpret_cast<const char *>(field);
    std::string result(text, strnlen(text, 32));
    mask_controls(result);
    return result;
}

static bool is_map_entry(const unsigned char *sector)
{
    return sector[0] == 'P' && sector[1] == 'M';
}

bool PartitionTable::ReadAppleMap()
{
    if (!ReadSector(1) || !is_map_entry(sector_))
        return false;
    const uint64_t count = big_endian_word(sector_ + 4);
    const uint64_t start = big_endian_word(sector_ + 8);
    if (count < 1)
        return false;
    entries.clear();
    // One entry short of the map's last, on purpose: clients know the entries by these numbers.
    const uint64_t sectors = CountSectors();
    uint64_t examined = std::min(count - 1, apple_entries_limit);
    examined = std::min(examined, sectors > start ? sectors - start : 0);
    for (uint64_t i = 0; i < examined; i++) {
        if (ReadSector(start + i) && is_map_entry(sector_))
            entries[static_cast<int>(i + 1)] =
                padded_text(sector_ + 16) + ", " + padded_text(sector_ + 48);
    }
    return true;
}

static std::string type_description(unsigned type)
{
    const char *text;
    switch (type) {
    case 0x01:
    case 0x04:
    case 0x06:
    case 0x0B:
    case 0x0C:
    case 0x0E:
        text = "DOS/Windows";
        break;
    case 0x05:
    case 0x0F:
        text = "extended";
        break;
    case 0x83:
        text = "Linux";
        break;
    case 0xFD:
        text = "RAID";
        break;
    default:
        return "meh"; // without the number: the text that clients know for "some other type"
    }
    char description[32];
    snprintf(description, sizeof(description), "#%02X %s", type, text);
    return description;
}

// Only the four slots of the record itself; logical partitions are not followed.
bool PartitionTable::ReadMasterBootRecord()
{
    if (!ReadSector(0) || sector_[510] != 0x55 || sector_[511] != 0xAA)
        return false;
    const unsigned char *slots = sector_ + 446;
    for (int i = 0; i < 4; i++) {
        const unsigned char status = slots[16 * i];
        if (status != 0x00 && status != 0x80)
            return false; // a boot sector that merely ends in the same two bytes
    }
    for (int i = 0; i < 4; i++) {
        const unsigned type = slots[16 * i + 4];
        if (type != 0)
            entries[i + 1] = type_description(type);
    }
    return true;
}
