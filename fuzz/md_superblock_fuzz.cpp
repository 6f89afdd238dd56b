// The md superblock, on a device of any size that holds anything.
#include <algorithm>
#include <cstring>
#include <fcntl.h>

#include "harness.h"
#include "inspect/md_superblock.h"
#include "inspect/raid_members.h"
#include "machine_in_memory.h"

static const unsigned char magic[] = {0xFC, 0x4E, 0x2B, 0xA9};

// The places in the order of the metadata's versions; 1.0's is a number of sectors taken for bytes.
static off_t place_of(unsigned which, off_t size)
{
    const off_t sectors = size / 512;
    switch (which) {
    case 0:
        return size > 131071 ? (sectors / 128 - 1) * 65536 : -1;
    case 1:
        return size > 16383 ? (sectors - 16) / 8 * 8 : -1;
    default:
        return which == 2 ? 0 : 4096;
    }
}

void examine(Input &input)
{
    MemoryMachine machine;
    MemoryMachine::Node &device = machine.Device("/dev/sdb1", static_cast<off_t>(input.Number(5)));
    // Each piece is at one of the four places or a little off it; a magic number in front is given.
    while (!input.IsEmpty() && device.pieces.size() < 6) {
        const unsigned how = input.Byte();
        const off_t place = place_of(how & 3, device.size) + (how & 4 ? input.Byte() : 0);
        std::string bytes =
            how & 8 ? std::string(reinterpret_cast<const char *>(magic), sizeof(magic)) : "";
        for (unsigned count = how >> 4; count > 0; count--)
            bytes += static_cast<char>(input.Byte());
        const bool is_free =
            std::none_of(device.pieces.begin(), device.pieces.end(), [&](const auto &piece) {
                return piece.first < place + 32 && place < piece.first + 32;
            });
        if (place >= 0 && is_free)
            device.pieces[place] = bytes;
    }

    check_raid_participation("sdb1");
    const bool is_member = is_raid_member("sdb1");
    PROMISE(raid_text("sdb1") == (is_member ? "Inactive RAID" : ""));
    PROMISE(machine.reads <= 4);
    const auto byte_at = [&](off_t place) -> unsigned {
        for (const auto &[at, piece] : device.pieces) {
            if (place >= at && place < at + static_cast<off_t>(piece.size()))
                return static_cast<unsigned char>(piece[static_cast<size_t>(place - at)]);
        }
        return 0;
    };
    const auto word_at = [&](off_t place) {
        return byte_at(place) | byte_at(place + 1) << 8 | byte_at(place + 2) << 16 |
               byte_at(place + 3) << 24;
    };
    bool is_expected = false;
    for (unsigned which = 0; which < 4 && !is_expected; which++) {
        const off_t place = place_of(which, device.size);
        if (place < 0)
            continue;
        if (place + 4096 > device.size)
            break; // cut off there: not searched further
        is_expected =
            word_at(place) == 0xA92B4EFC && word_at(place + 4) <= 1 && word_at(place + 8) <= 99;
    }
    PROMISE(is_member == is_expected);
    PROMISE(!is_member || memcmp(md_superblock, magic, sizeof(magic)) == 0);
    PROMISE(said().empty());
}
