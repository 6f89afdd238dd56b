// The places where md keeps its superblock, on devices of every size.
#include "inspect/md_superblock.h"

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "base/descriptor.h"
#include "made_up_machine.h"

// The first three words of a superblock.
static std::string superblock(uint32_t magic, uint32_t major, uint32_t minor)
{
    std::string bytes;
    for (uint32_t word : {magic, major, minor}) {
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(word >> shift);
    }
    return bytes;
}

static const uint32_t md_magic = 0xA92B4EFC;

class MdSuperblock : public MadeUpMachineTest {
protected:
    void MakeDevice(uintmax_t size)
    {
        machine.Write("/dev/sda", "");
        std::filesystem::resize_file(machine.RealPath("/dev/sda"), size);
    }

    // Writes as far as the device reaches.
    void Put(off_t offset, const std::string &bytes)
    {
        const std::string place = machine.RealPath("/dev/sda");
        const off_t size = static_cast<off_t>(std::filesystem::file_size(place));
        std::fstream file(place, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(offset);
        const off_t room = offset < size ? size - offset : 0;
        file << bytes.substr(0, static_cast<size_t>(room));
    }

    static int Probe()
    {
        Descriptor device(open("/dev/sda", O_RDONLY | O_CLOEXEC));
        return ProbeMdSuperblock(device.Get());
    }
};

// Which places are looked at, for each size at which that changes. The second one, of metadata
// version 1.0, is a number of sectors that is used as a number of bytes, on purpose.
TEST_F(MdSuperblock, IsLookedForAtThePlacesOfTheSize)
{
    static const struct {
        uintmax_t size;
        std::vector<off_t> found; // a superblock here is found
        std::vector<off_t> missed;
    } cases[] = {
        {0, {}, {0}},
        {511, {}, {0}},
        {512, {}, {0}},
        {4095, {}, {0}},
        {4096, {0}, {16}},
        {8191, {0}, {4096}}, // one byte short of a second block
        {8192, {0, 4096}, {16}},
        {16383, {0, 4096}, {8, 16}},
        {16384, {0, 4096, 16}, {8, 24, 8192}},
        {131071, {0, 4096, 232}, {240, 65536, 0}},
        {131072, {0, 4096, 65536, 240}, {232, 122880}},
        {131073, {0, 4096, 65536, 240}, {232}},
        {196608, {0, 4096, 131072, 368}, {65536, 240}},
        {1 << 20, {0, 4096, 983040, 2032}, {65536, 1040384}},
        {(1 << 20) + 512, {0, 4096, 983040, 2032}, {983552}}, // whole 64 KiB only
        {(1 << 20) + 8 * 512, {0, 4096, 983040, 2040}, {2032}},
        {3ULL << 40, {0, 4096, (3LL << 40) - 65536, 6442450928}, {(3LL << 40) - 8192}},
    };
    for (const auto &c : cases) {
        for (off_t place : c.found) {
            MakeDevice(c.size);
            Put(place, superblock(md_magic, 1, 2));
            EXPECT_EQ(Probe(), 1) << "size " << c.size << " place " << place;
        }
        for (off_t place : c.missed) {
            if (std::find(c.found.begin(), c.found.end(), place) != c.found.end())
                continue;
            MakeDevice(c.size);
            Put(place, superblock(md_magic, 1, 2));
            EXPECT_EQ(Probe(), 0) << "size " << c.size << " place " << place;
        }
    }
}

// The order of the places: the last whole 64 KiB but one, the accidental one, the first two blocks.
TEST_F(MdSuperblock, TakesTheFirstOfSeveral)
{
    const off_t places[] = {65536, 240, 0, 4096};
    MakeDevice(131072);
    for (size_t i = 0; i < 4; i++)
        Put(places[i], superblock(md_magic, 0, static_cast<uint32_t>(10 + i)));
    for (size_t i = 0; i < 4; i++) {
        ASSERT_EQ(Probe(), 1);
        ASSERT_NE(md_superblock, nullptr);
        EXPECT_EQ(md_superblock[8], 10 + i);
        Put(places[i], std::string(12, '\0'));
    }
    EXPECT_EQ(Probe(), 0);
}

// A device of exactly 131072 bytes is found by its first block, after the two places before it.
TEST_F(MdSuperblock, FindsTheFirstBlockOf131072BytesInTheThirdRead)
{
    MakeDevice(131072);
    Put(0, superblock(md_magic, 1, 1));
    machine.ForgetCalls();
    EXPECT_EQ(Probe(), 1);
    EXPECT_EQ(machine.Calls(Call::READ), 3);
}

// The true place of version 1.0, 8 KiB before the end, is not looked at.
TEST_F(MdSuperblock, SectorNumberIsUsedAsByteOffsetOnPurpose)
{
    MakeDevice(1 << 20);
    Put((1 << 20) - 8192, superblock(md_magic, 1, 0));
    EXPECT_EQ(Probe(), 0);
    Put(2032, superblock(md_magic, 1, 0));
    EXPECT_EQ(Probe(), 1);
}

// The magic number and a plausible version make a superblock.
TEST_F(MdSuperblock, NeedsItsMagicAndAPlausibleVersion)
{
    static const struct {
        uint32_t magic, major, minor;
        int found;
    } cases[] = {
        {md_magic, 0, 0, 1},
        {md_magic, 0, 90, 1},
        {md_magic, 0, 99, 1},
        {md_magic, 1, 0, 1},
        {md_magic, 1, 99, 1},
        {md_magic, 2, 0, 0},
        {md_magic, 0xFFFFFFFF, 0, 0}, // no negative version
        {md_magic, 0, 100, 0},
        {md_magic, 0, 0xFFFFFFFF, 0},
        {md_magic, 0x01000000, 0, 0}, // every byte of a word counts
        {md_magic, 0, 0x00010000, 0},
        {0xFC4E2BA9, 0, 90, 0}, // the other byte order
        {md_magic + 1, 0, 90, 0},
        {md_magic & 0x00FFFFFF, 0, 90, 0},
        {0, 0, 0, 0},
    };
    for (const auto &c : cases) {
        MakeDevice(8192);
        Put(0, superblock(c.magic, c.major, c.minor));
        EXPECT_EQ(Probe(), c.found) << c.magic << ' ' << c.major << ' ' << c.minor;
    }
}

// A place that cannot be read ends the search, though a later one holds a superblock.
TEST_F(MdSuperblock, ReadErrorEndsTheSearch)
{
    MakeDevice(131072);
    Put(0, superblock(md_magic, 1, 1));
    static const Answer troubles[] = {fails(EIO), returns(0), returns(4095)};
    for (const Answer &trouble : troubles) {
        machine.Script(Call::READ, {trouble});
        EXPECT_EQ(Probe(), 0);
        EXPECT_EQ(md_superblock, nullptr);
        machine.Script(Call::READ, {really, trouble});
        EXPECT_EQ(Probe(), 0);
        EXPECT_NE(md_superblock, nullptr); // the block of the first place
        machine.Script(Call::READ, {});
        EXPECT_EQ(Probe(), 1);
    }
}

// So does a place that cannot be gone to. The first seek is for the size.
TEST_F(MdSuperblock, SeekErrorEndsTheSearch)
{
    MakeDevice(131072);
    Put(0, superblock(md_magic, 1, 1));
    machine.Script(Call::LSEEK, {really, fails(EINVAL)});
    EXPECT_EQ(Probe(), 0);
    machine.Script(Call::LSEEK, {really, really, returns(0)}); // it is elsewhere
    EXPECT_EQ(Probe(), 0);
    machine.Script(Call::LSEEK, {});
    EXPECT_EQ(Probe(), 1);
}

// A pipe has no size and no places.
TEST_F(MdSuperblock, PipeHasNone)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(ProbeMdSuperblock(ends[0]), 0);
    EXPECT_EQ(ProbeMdSuperblock(-1), 0);
    close(ends[0]);
    close(ends[1]);
}

// Each probe begins with nothing read, and the descriptor stays the caller's.
TEST_F(MdSuperblock, StartsAfreshAndLeavesTheDescriptorOpen)
{
    MakeDevice(8192);
    Put(4096, superblock(md_magic, 1, 2));
    Descriptor device(open("/dev/sda", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(ProbeMdSuperblock(device.Get()), 1);
    EXPECT_NE(md_superblock, nullptr);
    EXPECT_EQ(ProbeMdSuperblock(device.Get()), 1); // wherever the position was
    MakeDevice(0);
    EXPECT_EQ(ProbeMdSuperblock(device.Get()), 0);
    EXPECT_EQ(md_superblock, nullptr);
    EXPECT_EQ(errors.Take(), "");
}
