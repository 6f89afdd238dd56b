// Apple partition maps and master boot records, on a drive that holds anything.
#include <string_view>

#include "harness.h"
#include "inspect/partition_table.h"
#include "machine_in_memory.h"

static const size_t most_reads = 4096 + 2; // a map is followed no further

static bool is_type_text(const std::string &text)
{
    const size_t blank = text.find(' ');
    if (text == "meh")
        return true;
    if (text.size() < 5 || text[0] != '#' || blank != 3)
        return false;
    const std::string words = text.substr(4);
    return words == "DOS/Windows" || words == "extended" || words == "Linux" || words == "RAID";
}

static void check_record(const PartitionTable &table, const std::string &sector)
{
    PROMISE(sector.size() == 512 && static_cast<unsigned char>(sector[510]) == 0x55 &&
            static_cast<unsigned char>(sector[511]) == 0xAA);
    for (int i = 0; i < 4; i++) {
        const size_t slot = 446 + 16 * static_cast<size_t>(i);
        PROMISE((sector[slot] & 0x7F) == 0);
        PROMISE(table.entries.contains(i + 1) == (sector[slot + 4] != 0));
    }
    for (const auto &[number, text] : table.entries)
        PROMISE(number >= 1 && number <= 4 && is_type_text(text));
}

static void check_map(const PartitionTable &table)
{
    for (const auto &[number, text] : table.entries) {
        PROMISE(number >= 1 && number <= 4096);
        PROMISE(text.size() <= 32 + 2 + 32 && text.find(", ") != std::string::npos);
        PROMISE(text == in_one_column(text));
    }
}

void examine(Input &input)
{
    MemoryMachine machine;
    MemoryMachine::Node &drive = machine.Device("/dev/sda", 0);
    // The place of each piece is told in sectors, from the end of the one before.
    off_t place = 0;
    drive.size = static_cast<off_t>(input.Number(5)); // up to a terabyte
    while (!input.IsEmpty() && drive.pieces.size() < 8) {
        place +=
            static_cast<off_t>(input.Number(2)) * 512 + static_cast<off_t>(input.Number(1)) * 2;
        std::string bytes;
        for (uint64_t count = input.Number(1); count > 0 && !input.IsEmpty(); count--)
            bytes += static_cast<char>(input.Byte());
        drive.pieces[place] = bytes;
        place += static_cast<off_t>(bytes.size());
    }
    PartitionTable table("/dev/sda");
    PROMISE(table.Read() == 1);
    PROMISE(machine.reads <= most_reads);
    const auto sector = [&](off_t number) {
        std::string bytes(512, '\0');
        for (const auto &[at, piece] : drive.pieces) {
            for (size_t i = 0; i < piece.size(); i++) {
                const off_t offset = at + static_cast<off_t>(i) - number * 512;
                if (offset >= 0 && offset < 512)
                    bytes[static_cast<size_t>(offset)] = piece[i];
            }
        }
        return bytes.substr(0, static_cast<size_t>(std::min<off_t>(
                                   512, std::max<off_t>(0, drive.size - number * 512))));
    };
    const std::string second = sector(1);
    const bool is_map = second.size() == 512 && second.starts_with("PM") &&
                        second.substr(4, 4) != std::string(4, '\0');
    if (is_map)
        check_map(table);
    else if (!table.entries.empty())
        check_record(table, sector(0));

    const std::map<int, std::string> first = table.entries;
    PROMISE(table.Read() == 1 && table.entries == first);
    PROMISE(said().empty());
}
