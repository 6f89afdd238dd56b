// DOS master boot records and Apple partition maps, as drives and their enemies write them.
#include "inspect/partition_table.h"

#include <cstdint>
#include <fcntl.h>
#include <filesystem>

#include "made_up_machine.h"

using Entries = std::map<int, std::string>;

class PartitionTableTest : public MadeUpMachineTest {
protected:
    // What the drive /dev/sda says after one reading.
    static Entries Read()
    {
        PartitionTable table("/dev/sda");
        EXPECT_EQ(table.Read(), 1);
        return table.entries;
    }

    void WriteDrive(const std::string &bytes)
    {
        machine.Write("/dev/sda", bytes);
    }

    // A large drive that begins with these bytes; the rest of it are zeros that take no room.
    void WriteDrive(const std::string &bytes, uintmax_t size)
    {
        WriteDrive(bytes);
        std::filesystem::resize_file(machine.RealPath("/dev/sda"), size);
    }
};

struct Slot {
    unsigned char status;
    unsigned char type;
};

// Sector 0 with a master boot record.
static std::string boot_record(const std::vector<Slot> &slots)
{
    std::string sector(512, '\0');
    for (size_t i = 0; i < slots.size(); i++) {
        sector[446 + 16 * i] = static_cast<char>(slots[i].status);
        sector[446 + 16 * i + 4] = static_cast<char>(slots[i].type);
    }
    sector[510] = '\x55';
    sector[511] = '\xAA';
    return sector;
}

static void put_big_endian(std::string &sector, size_t offset, uint32_t value)
{
    for (size_t i = 0; i < 4; i++)
        sector[offset + i] = static_cast<char>(value >> (24 - 8 * i));
}

// One sector of an Apple map.
static std::string map_entry(uint32_t count, uint32_t start, const std::string &name,
                             const std::string &type)
{
    std::string sector(512, '\0');
    sector.replace(0, 2, "PM");
    put_big_endian(sector, 4, count);
    put_big_endian(sector, 8, start);
    sector.replace(16, name.size(), name);
    sector.replace(48, type.size(), type);
    return sector;
}

static const std::string blank_sector(512, '\0');

// Each type that is known has its words and its number; any other is "meh", without the number.
TEST_F(PartitionTableTest, DescribesEachTypeOfAMasterBootRecord)
{
    for (unsigned type = 1; type < 256; type++) {
        const char *words = nullptr;
        for (unsigned dos : {0x01U, 0x04U, 0x06U, 0x0BU, 0x0CU, 0x0EU})
            words = type == dos ? " DOS/Windows" : words;
        for (unsigned extended : {0x05U, 0x0FU})
            words = type == extended ? " extended" : words;
        words = type == 0x83 ? " Linux" : words;
        words = type == 0xFD ? " RAID" : words;
        char number[8];
        snprintf(number, sizeof(number), "#%02X", type);
        const std::string expected = words ? std::string(number) + words : "meh";

        WriteDrive(boot_record({{0, static_cast<unsigned char>(type)}}));
        EXPECT_EQ(Read(), Entries({{1, expected}})) << type;
    }
}

// A type is written as two digits, large letters among them.
TEST_F(PartitionTableTest, TypeNumbersAreTwoUpperCaseDigits)
{
    WriteDrive(boot_record({{0, 0x0b}, {0, 0xfd}}));
    EXPECT_EQ(Read(), Entries({{1, "#0B DOS/Windows"}, {2, "#FD RAID"}}));
}

// An ordinary drive with Linux beside something unknown.
TEST_F(PartitionTableTest, LinuxBesideAnUnknownType)
{
    WriteDrive(boot_record({{0x80, 0x83}, {0x00, 0x07}}));
    EXPECT_EQ(Read(), Entries({{1, "#83 Linux"}, {2, "meh"}}));
}

// An empty slot leaves a gap in the numbers.
TEST_F(PartitionTableTest, KeepsTheNumbersBesideEmptySlots)
{
    WriteDrive(boot_record({{0, 0}, {0, 0x83}, {0, 0}, {0, 0x05}}));
    EXPECT_EQ(Read(), Entries({{2, "#83 Linux"}, {4, "#05 extended"}}));
}

// A boot sector of a filesystem ends in the same two bytes; a status that no table has gives it
// away, in whichever slot.
TEST_F(PartitionTableTest, RefusesARecordWithAnImpossibleStatus)
{
    for (size_t slot = 0; slot < 4; slot++) {
        for (int status : {0x01, 0x7F, 0x81, 0xFF}) {
            std::vector<Slot> slots = {{0, 0x83}, {0x80, 0x83}, {0, 0x83}, {0, 0x83}};
            slots[slot].status = static_cast<unsigned char>(status);
            WriteDrive(boot_record(slots));
            EXPECT_EQ(Read(), Entries()) << slot << ' ' << status;
        }
    }
}

// Both bytes of the signature count.
TEST_F(PartitionTableTest, RefusesARecordWithoutItsSignature)
{
    std::string sector = boot_record({{0, 0x83}});
    sector[510] = '\x54';
    WriteDrive(sector);
    EXPECT_EQ(Read(), Entries());
    sector = boot_record({{0, 0x83}});
    sector[511] = '\x55';
    WriteDrive(sector);
    EXPECT_EQ(Read(), Entries());
}

// A drive shorter than a sector, or none, has no table; a whole first sector suffices.
TEST_F(PartitionTableTest, NeedsAWholeFirstSector)
{
    const std::string sector = boot_record({{0, 0x83}});
    for (size_t size : {0U, 1U, 510U, 511U}) {
        WriteDrive(sector.substr(0, size));
        EXPECT_EQ(Read(), Entries()) << size;
    }
    WriteDrive(sector);
    EXPECT_EQ(Read().size(), 1U);
    WriteDrive(sector + std::string(511, 'P')); // a second sector that is cut short
    EXPECT_EQ(Read().size(), 1U);
}

// The map counts its entries in the first one: with 3 blocks, 1 and 2 are looked at. One short of
// the last, on purpose.
TEST_F(PartitionTableTest, AppleMapStopsOneEntryShort)
{
    WriteDrive(blank_sector + map_entry(3, 1, "Apple", "Apple_partition_map") +
               map_entry(3, 1, "Macintosh", "Apple_HFS") + map_entry(3, 1, "", "Apple_Free"));
    EXPECT_EQ(Read(), Entries({{1, "Apple, Apple_partition_map"}, {2, "Macintosh, Apple_HFS"}}));
}

// A map of one block has no entry that is looked at, yet it is a map: no other table is asked.
TEST_F(PartitionTableTest, AppleMapOfOneBlockIsAMap)
{
    WriteDrive(boot_record({{0, 0x83}}) + map_entry(1, 1, "Apple", "Apple_partition_map"));
    EXPECT_EQ(Read(), Entries());
}

// Where a drive carries both, the map speaks.
TEST_F(PartitionTableTest, AppleMapComesBeforeAMasterBootRecord)
{
    WriteDrive(boot_record({{0, 0x83}}) + map_entry(2, 1, "Apple", "Apple_partition_map"));
    EXPECT_EQ(Read(), Entries({{1, "Apple, Apple_partition_map"}}));
}

// What is no map leaves the master boot record its turn.
TEST_F(PartitionTableTest, FallsBackToTheMasterBootRecord)
{
    const std::string record = boot_record({{0, 0x83}});
    std::string other = map_entry(2, 1, "Apple", "map");
    other.replace(0, 2, "pm");
    for (const std::string &second :
         {blank_sector, other, map_entry(0, 1, "Apple", "map"), std::string(512, 'P')}) {
        WriteDrive(record + second);
        EXPECT_EQ(Read(), Entries({{1, "#83 Linux"}}));
    }
}

// Entries that are none, or that cannot be read, leave gaps.
TEST_F(PartitionTableTest, AppleMapSkipsWhatIsNoEntry)
{
    WriteDrive(blank_sector + map_entry(5, 1, "one", "a") + blank_sector +
               map_entry(5, 1, "three", "c") + map_entry(5, 1, "four", "d"));
    EXPECT_EQ(Read(), Entries({{1, "one, a"}, {3, "three, c"}, {4, "four, d"}}));

    // The first sector is looked at twice: as the head of the map and as its first entry.
    machine.Script(Call::READ, {really, really, fails(EIO), fails(EIO)});
    EXPECT_EQ(Read(), Entries({{1, "one, a"}, {4, "four, d"}}));
}

// The map may begin elsewhere than its first entry: that is where the entries are counted from.
TEST_F(PartitionTableTest, AppleMapBeginsWhereItsFirstEntrySays)
{
    WriteDrive(blank_sector + map_entry(3, 3, "head", "h") + blank_sector +
               map_entry(9, 9, "one", "a") + map_entry(9, 9, "two", "b"));
    EXPECT_EQ(Read(), Entries({{1, "one, a"}, {2, "two, b"}}));
}

// Fields without a NUL end after 32 characters.
TEST_F(PartitionTableTest, AppleTextsHaveAtMost32Characters)
{
    const std::string name(32, 'n');
    const std::string type(32, 't');
    WriteDrive(blank_sector + map_entry(2, 1, name, type + "behind the field"));
    EXPECT_EQ(Read(), Entries({{1, name + ", " + type}}));
    WriteDrive(blank_sector + map_entry(2, 1, "", ""));
    EXPECT_EQ(Read(), Entries({{1, ", "}}));
}

// A name with a tab or a line end would make rows and columns of its own in a listing.
TEST_F(PartitionTableTest, AppleTextsCannotForgeRows)
{
    WriteDrive(blank_sector + map_entry(2, 1, "a\tb\nOK  eom", "\x1B[2J\x7F\xC3\xBC"));
    EXPECT_EQ(Read(), Entries({{1, "a_b_OK  eom, _[2J_\xC3\xBC"}}));
}

// A map that claims four billion entries on a small drive: those that cannot be on it need no read.
TEST_F(PartitionTableTest, HostileCountReadsNothingBehindTheDrive)
{
    WriteDrive(blank_sector + map_entry(0xFFFFFFFF, 1, "one", "a"), 64 * 512);
    machine.ForgetCalls();
    EXPECT_EQ(Read(), Entries({{1, "one, a"}}));
    EXPECT_LE(machine.Calls(Call::READ), 64);
}

// On a drive of two terabytes they all could be there; it is looked at in bounded time even so.
TEST_F(PartitionTableTest, HostileCountIsBoundedOnAHugeDrive)
{
    WriteDrive(blank_sector + map_entry(0xFFFFFFFF, 1, "one", "a"), 2ULL << 40);
    machine.ForgetCalls();
    EXPECT_EQ(Read(), Entries({{1, "one, a"}}));
    EXPECT_LE(machine.Calls(Call::READ), 5000);
}

// A map that claims to begin behind the drive, or at its very end, has no entries.
TEST_F(PartitionTableTest, HostileStartReadsNothingBehindTheDrive)
{
    for (uint32_t start : {64U, 65U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        WriteDrive(blank_sector + map_entry(0xFFFFFFFF, start, "one", "a"), 64 * 512);
        machine.ForgetCalls();
        EXPECT_EQ(Read(), Entries());
        EXPECT_LE(machine.Calls(Call::READ), 1) << start;
    }
}

// A map that claims to begin at sector 0 counts the boot sector among its entries.
TEST_F(PartitionTableTest, HostileStartAtTheBootSector)
{
    WriteDrive(blank_sector + map_entry(4, 0, "one", "a"), 64 * 512);
    EXPECT_EQ(Read(), Entries({{2, "one, a"}}));
}

// A map as large as the kernel can number is followed to its end.
TEST_F(PartitionTableTest, FollowsAMapOf255Entries)
{
    std::string drive = blank_sector;
    for (int i = 1; i <= 256; i++)
        drive += map_entry(256, 1, "p" + std::to_string(i), "t");
    WriteDrive(drive);
    const Entries entries = Read();
    EXPECT_EQ(entries.size(), 255U);
    EXPECT_EQ(entries.at(255), "p255, t");
}

// Nothing but zeros, nothing but ones, and noise.
TEST_F(PartitionTableTest, TakesGarbage)
{
    WriteDrive(std::string(4096, '\0'));
    EXPECT_EQ(Read(), Entries());
    WriteDrive(std::string(4096, '\xFF'));
    EXPECT_EQ(Read(), Entries());
    uint32_t state = 1;
    for (int round = 0; round < 200; round++) {
        std::string noise(4096, '\0');
        for (char &c : noise) {
            state = state * 1664525 + 1013904223;
            c = static_cast<char>(state >> 24);
        }
        noise.replace(510, 2, "\x55\xAA");
        noise.replace(512, 2, "PM");
        WriteDrive(noise);
        machine.ForgetCalls();
        Read();
        EXPECT_LE(machine.Calls(Call::READ), 16);
    }
}

// A drive that cannot be positioned counts as being at its beginning: its first sector can still
// be read there.
TEST_F(PartitionTableTest, FailedSeekCountsAsTheBeginning)
{
    WriteDrive(boot_record({{0, 0x83}}) + map_entry(2, 1, "Apple", "map"));
    machine.Script(Call::LSEEK, {fails(ESPIPE), fails(ESPIPE)});
    EXPECT_EQ(Read(), Entries({{1, "#83 Linux"}}));
}

// A drive that ends up elsewhere than asked is not read there.
TEST_F(PartitionTableTest, WrongPositionIsNotRead)
{
    WriteDrive(boot_record({{0, 0x83}}) + map_entry(2, 1, "Apple", "map"));
    machine.Script(Call::LSEEK, {returns(1024), returns(512)});
    machine.ForgetCalls();
    EXPECT_EQ(Read(), Entries());
    EXPECT_EQ(machine.Calls(Call::READ), 0);
}

// Read errors leave no entries and no words.
TEST_F(PartitionTableTest, ReadErrorsAreSilent)
{
    WriteDrive(boot_record({{0, 0x83}}) + blank_sector);
    machine.Script(Call::READ, {fails(EIO), fails(EIO)});
    EXPECT_EQ(Read(), Entries());
    machine.Script(Call::READ, {really, returns(511)});
    EXPECT_EQ(Read(), Entries());
    EXPECT_EQ(errors.Take(), "");
}

// A drive that cannot be opened is told of, in one line.
TEST_F(PartitionTableTest, SaysThatItCannotOpenADrive)
{
    EXPECT_EQ(Read(), Entries());
    EXPECT_EQ(errors.Take(), "cannot open /dev/sda No such file or directory\n");
    machine.Refuse("/dev/sda", EACCES);
    EXPECT_EQ(Read(), Entries());
    EXPECT_EQ(errors.Take(), "cannot open /dev/sda Permission denied\n");
}

// An optical drive without a disc is an everyday sight: no line.
TEST_F(PartitionTableTest, EmptyOpticalDriveIsSilent)
{
    machine.Refuse("/dev/sda", ENOMEDIUM);
    EXPECT_EQ(Read(), Entries());
    EXPECT_EQ(errors.Take(), "");
}

// Only device nodes have tables.
TEST_F(PartitionTableTest, ReadsDeviceNodesOnly)
{
    machine.Write("/etc/sda", boot_record({{0, 0x83}}));
    machine.Write("/devices", boot_record({{0, 0x83}}));
    for (const char *path : {"/etc/sda", "/devices"}) {
        PartitionTable table(path);
        EXPECT_EQ(table.Read(), 1);
        EXPECT_EQ(table.entries, Entries());
    }
    EXPECT_EQ(machine.Calls(Call::READ), 0);
    EXPECT_EQ(errors.Take(), "");
}

// A second reading replaces the first, also when the drive has gone.
TEST_F(PartitionTableTest, EachReadingReplacesTheOneBefore)
{
    WriteDrive(boot_record({{0, 0x83}, {0, 0x07}}));
    PartitionTable table("/dev/sda");
    EXPECT_EQ(table.entries, Entries()); // nothing is read before it is asked for
    table.Read();
    EXPECT_EQ(table.entries.size(), 2U);
    WriteDrive(boot_record({{0, 0x83}}));
    table.Read();
    EXPECT_EQ(table.entries.size(), 1U);
    machine.Remove("/dev/sda");
    table.Read();
    EXPECT_EQ(table.entries.size(), 0U);
}

// Only reading is asked for: a drive that somebody writes to is not disturbed.
TEST_F(PartitionTableTest, OpensForReadingOnly)
{
    WriteDrive(blank_sector);
    Read();
    EXPECT_EQ(machine.OpenFlags("/dev/sda") & O_ACCMODE, O_RDONLY);
}
