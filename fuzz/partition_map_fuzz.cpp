// Apple partition maps and master boot records, on a drive that holds anything.
#include <algorithm>
#include <map>

#include "harness.h"
#include "inspect/partition_table.h"
#include "machine_in_memory.h"

static const size_t most_reads = 4096 + 2; // a map is followed no further

using Entries = std::map<int, std::string>;

static unsigned byte_of(const std::string &sector, size_t place)
{
    return static_cast<unsigned char>(sector[place]);
}

static uint64_t word_of(const std::string &sector, size_t place)
{
    uint64_t word = 0;
    for (size_t i = 0; i < 4; i++)
        word = word * 256 + byte_of(sector, place + i);
    return word;
}

// What a drive holds, sector by sector; one that it has not whole is shorter.
class Sectors {
public:
    explicit Sectors(const MemoryMachine::Node &drive) : drive_(drive)
    {
    }

    std::string At(off_t number) const
    {
        std::string bytes(512, '\0');
        for (const auto &[at, piece] : drive_.pieces) {
            const off_t first = std::max(at, number * 512);
            const off_t last = std::min(at + static_cast<off_t>(piece.size()), number * 512 + 512);
            if (first < last)
                bytes.replace(static_cast<size_t>(first - number * 512),
                              static_cast<size_t>(last - first), piece,
                              static_cast<size_t>(first - at), static_cast<size_t>(last - first));
        }
        return bytes.substr(0, static_cast<size_t>(std::min<off_t>(
                                   512, std::max<off_t>(0, drive_.size - number * 512))));
    }

    // Those whose first bytes are not zeros, and maybe some more.
    std::vector<off_t> Filled() const
    {
        std::vector<off_t> numbers;
        for (const auto &[at, piece] : drive_.pieces) {
            numbers.push_back(at / 512);
            numbers.push_back((at + static_cast<off_t>(piece.size())) / 512);
        }
        return numbers;
    }

private:
    const MemoryMachine::Node &drive_;
};

static std::string type_by_hand(unsigned type)
{
    static const std::map<unsigned, const char *> texts = {
        {0x01, "#01 DOS/Windows"}, {0x04, "#04 DOS/Windows"}, {0x05, "#05 extended"},
        {0x06, "#06 DOS/Windows"}, {0x0B, "#0B DOS/Windows"}, {0x0C, "#0C DOS/Windows"},
        {0x0E, "#0E DOS/Windows"}, {0x0F, "#0F extended"},    {0x83, "#83 Linux"},
        {0xFD, "#FD RAID"}};
    return texts.contains(type) ? texts.at(type) : "meh";
}

static Entries record_by_hand(const std::string &sector)
{
    Entries entries;
    if (sector.size() < 512 || byte_of(sector, 510) != 0x55 || byte_of(sector, 511) != 0xAA)
        return entries;
    for (size_t slot : {446U, 462U, 478U, 494U}) {
        if ((byte_of(sector, slot) & 0x7F) != 0)
            return Entries();
        const int number = static_cast<int>(slot - 446) / 16 + 1;
        if (byte_of(sector, slot + 4) != 0)
            entries[number] = type_by_hand(byte_of(sector, slot + 4));
    }
    return entries;
}

static std::string map_text(const std::string &sector, size_t place)
{
    const std::string field = sector.substr(place, 32);
    return in_one_column(field.substr(0, field.find('\0')));
}

static bool is_map_sector(const std::string &sector)
{
    return sector.size() == 512 && sector.starts_with("PM");
}

// The map's first sector says how many there are, the last of which is left out, and where they
// are.
static Entries map_by_hand(const Sectors &sectors, const std::string &first)
{
    Entries entries;
    const off_t count = static_cast<off_t>(word_of(first, 4)) - 1;
    const off_t start = static_cast<off_t>(word_of(first, 8));
    for (off_t number : sectors.Filled()) {
        const off_t entry = number - start + 1;
        if (entry < 1 || entry > std::min<off_t>(count, 4096))
            continue;
        const std::string sector = sectors.At(number);
        if (is_map_sector(sector))
            entries[static_cast<int>(entry)] = map_text(sector, 16) + ", " + map_text(sector, 48);
    }
    return entries;
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
    const Sectors sectors(drive);
    const std::string second = sectors.At(1);
    if (is_map_sector(second) && word_of(second, 4) != 0)
        PROMISE(table.entries == map_by_hand(sectors, second));
    else
        PROMISE(table.entries == record_by_hand(sectors.At(0)));

    const Entries first = table.entries;
    PROMISE(table.Read() == 1 && table.entries == first);
    PROMISE(said().empty());
}
