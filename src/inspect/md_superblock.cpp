// The md superblock stands at one of four places, depending on the version of the metadata.
#include "inspect/md_superblock.h"

#include <cstdint>
#include <sys/types.h>
#include <unistd.h>

const unsigned char *md_superblock = nullptr;

static const size_t block_size = 4096;
static unsigned char block[block_size];

static const uint32_t md_magic = 0xA92B4EFC;

static uint32_t little_endian_word(const unsigned char *bytes)
{
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

// Magic number and a plausible version are enough: nothing of the superblock is used.
static bool is_superblock(const unsigned char *bytes)
{
    return little_endian_word(bytes) == md_magic && little_endian_word(bytes + 4) <= 1 &&
           little_endian_word(bytes + 8) <= 99;
}

// Reads one block at offset bytes; non-zero when all of it arrived.
static int read_block(int fd, off_t offset)
{
    if (lseek(fd, offset, SEEK_SET) != offset)
        return 0;
    if (read(fd, block, block_size) != static_cast<ssize_t>(block_size))
        return 0;
    md_superblock = block;
    return 1;
}

int ProbeMdSuperblock(int fd)
{
    const off_t size = lseek(fd, 0, SEEK_END);
    const off_t sectors = size / 512;
    off_t places[4];
    int count = 0;

    md_superblock = nullptr;
    if (size > 0x1FFFF) // 0.90: the last whole 64 KiB boundary less 64 KiB
        places[count++] = ((sectors & ~static_cast<off_t>(127)) - 128) * 512;
    // 1.0: this is a number of sectors, and it is used as a number of bytes on purpose. Members of
    // such arrays are recognised as long as they are active, through their array's slaves; looking
    // at the true place would change which devices may be mounted.
    if (size > 0x3FFF)
        places[count++] = (sectors - 16) & ~static_cast<off_t>(7);
    places[count++] = 0;    // 1.1
    places[count++] = 4096; // 1.2
    for (int i = 0; i < count; i++) {
        // A device that cannot be read here is not searched further: the next places would wait
        // for the same broken drive.
        if (!read_block(fd, places[i]))
            return 0;
        if (is_superblock(md_superblock))
            return 1;
    }
    return 0;
}
