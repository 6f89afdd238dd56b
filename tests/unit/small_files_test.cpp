// Small files, links and lines.
#include "base/small_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "base/descriptor.h"
#include "made_up_machine.h"

using namespace std::string_literals;

using SmallFiles = MadeUpMachineTest;

// An attribute's text ends before its trailing line ends and at the first NUL; blanks stay.
TEST_F(SmallFiles, TakesAnAttributeUpToItsLineEndsAndNul)
{
    static const struct {
        std::string content;
        std::string text;
    } cases[] = {
        {"", ""},
        {"\n", ""},
        {"\n\n\n", ""},
        {"128\n", "128"},
        {"128\n\n\n", "128"},
        {"128", "128"},
        {"\n128\n", "\n128"}, // a line end in front is text
        {"Ultra Fit  \n", "Ultra Fit  "},
        {"two\nlines\n", "two\nlines"},
        {"128\r\n", "128\r"},
        {"12\0"
         "8\n"s,
         "12"},
        {"\0"
         "128\n"s,
         ""},
        {"12\n\0\n"s, "12\n"}, // only the very last line ends were taken off
    };
    for (const auto &c : cases) {
        machine.Write("/sys/text", c.content);
        EXPECT_EQ(read_sysfs_text("/sys/text"), c.text) << c.content;
    }
}

// 1023 bytes are looked at, in one read.
TEST_F(SmallFiles, ReadsAtMost1023BytesOfAnAttribute)
{
    static const struct {
        size_t size;
        size_t length;
    } cases[] = {{1022, 1022}, {1023, 1023}, {1024, 1023}, {5000, 1023}};
    for (const auto &c : cases) {
        machine.Write("/sys/text", std::string(c.size, 'x'));
        machine.ForgetCalls();
        EXPECT_EQ(read_sysfs_text("/sys/text"), std::string(c.length, 'x')) << c.size;
        EXPECT_EQ(machine.Calls(Call::READ), 1);
    }
}

// What cannot be opened or read is empty: a missing file, a folder, an error half way.
TEST_F(SmallFiles, TakesWhatCannotBeReadForEmpty)
{
    EXPECT_EQ(read_sysfs_text("/sys/missing"), "");
    EXPECT_EQ(read_sysfs_text("/sys/block"), ""); // opens, but cannot be read
    machine.Write("/sys/text", "128\n");
    machine.Script(Call::READ, {fails(EIO)});
    EXPECT_EQ(read_sysfs_text("/sys/text"), "");
    EXPECT_EQ(read_sysfs_text("/sys/text"), "128");
}

// A path can be relative to an open folder.
TEST_F(SmallFiles, ReadsRelativeToAFolder)
{
    machine.Write("/sys/block/sda/sda1/size", "63\n");
    Descriptor folder(openat(AT_FDCWD, "/sys/block/sda", O_PATH | O_CLOEXEC));
    EXPECT_EQ(read_sysfs_text_at(folder.Get(), "sda1/size"), "63");
    EXPECT_EQ(read_sysfs_text_at(folder.Get(), "sda2/size"), "");
}

// A link's target is text; it need not lead anywhere. What is no link has none.
TEST_F(SmallFiles, ReadsALinkAsText)
{
    machine.Link("/sys/link", "../../devices/pci0000:00");
    machine.Write("/sys/file", "text");
    EXPECT_EQ(read_sysfs_link("/sys/link"), "../../devices/pci0000:00");
    EXPECT_EQ(read_sysfs_link("/sys/file"), "");
    EXPECT_EQ(read_sysfs_link("/sys/missing"), "");
}

// A target is cut at the limit that the caller names, 1023 bytes for sysfs.
TEST_F(SmallFiles, CutsALinkAtItsLimit)
{
    machine.Link("/sys/1022", std::string(1022, 'x'));
    machine.Link("/sys/1023", std::string(1023, 'x'));
    machine.Link("/sys/1024", std::string(1024, 'x'));
    machine.Link("/sys/3000", std::string(3000, 'x'));
    EXPECT_EQ(read_sysfs_link("/sys/1022").size(), 1022U);
    EXPECT_EQ(read_sysfs_link("/sys/1023").size(), 1023U);
    EXPECT_EQ(read_sysfs_link("/sys/1024").size(), 1023U);
    EXPECT_EQ(read_sysfs_link("/sys/3000").size(), 1023U);
    EXPECT_EQ(read_link_at(AT_FDCWD, "/sys/3000", 255).size(), 255U);
    EXPECT_EQ(read_link_at(AT_FDCWD, "/sys/3000", 1).size(), 1U);
    EXPECT_EQ(read_link_at(AT_FDCWD, "/sys/3000", 4096).size(), 3000U);
}

// No caller may ask for more than the kernel allows a path to be.
TEST_F(SmallFiles, LinkLimitBeyondAPathIsABug)
{
    EXPECT_DEATH(read_link_at(AT_FDCWD, "/sys/link", 4097), "limit <= sizeof\\(target\\)");
}

// Why a link cannot be read is left in errno.
TEST_F(SmallFiles, LeavesTheReasonOfAnUnreadableLink)
{
    machine.Write("/sys/file", "text");
    read_link_at(AT_FDCWD, "/sys/missing", 10);
    EXPECT_EQ(errno, ENOENT);
    read_link_at(AT_FDCWD, "/sys/file", 10);
    EXPECT_EQ(errno, EINVAL);
}

// A program is a regular file with an execute bit, whoever's bit it is.
TEST_F(SmallFiles, KnowsAnExecutableFile)
{
    static const struct {
        mode_t mode;
        bool is_executable;
    } cases[] = {{0644, false}, {0666, false}, {0744, true},
                 {0654, true},  {0645, true},  {0111, true}};
    machine.Write("/sbin/hotplug", "");
    for (const auto &c : cases) {
        machine.SetMode("/sbin/hotplug", c.mode);
        EXPECT_EQ(is_executable_file("/sbin/hotplug"), c.is_executable) << c.mode;
    }
    EXPECT_FALSE(is_executable_file("/sbin"));
    EXPECT_FALSE(is_executable_file("/sbin/missing"));
    EXPECT_FALSE(is_executable_file(""));
    EXPECT_FALSE(is_executable_file("/dev/null"));
    machine.Link("/sbin/link", "/sbin/hotplug");
    EXPECT_TRUE(is_executable_file("/sbin/link"));
}

// A size attribute counts sectors of 512 bytes, in any notation of C; what is no number is 0.
TEST(SectorsToBytes, ReadsAnyNotationOfC)
{
    static const struct {
        const char *text;
        unsigned long long bytes;
    } cases[] = {
        {"0", 0},
        {"1", 512},
        {"976773168", 500107862016},
        {"0x10", 16 * 512},
        {"0X10", 16 * 512},
        {"010", 8 * 512}, // octal
        {"08", 0},        // no octal digit
        {"12 sectors", 12 * 512},
        {" 12", 12 * 512},
        {"", 0},
        {"large", 0},
        {"-1", ~0ULL << 9},
        {"36028797018963967", ~0ULL << 9},       // the largest size that fits
        {"99999999999999999999999", ~0ULL << 9}, // cut at the largest number
    };
    for (const auto &c : cases)
        EXPECT_EQ(sectors_to_bytes(c.text), c.bytes) << c.text;
}

// A whole file comes whole, however large, and byte for byte.
TEST_F(SmallFiles, ReadsAWholeFile)
{
    for (size_t size : {0U, 1U, 16383U, 16384U, 16385U, 100000U}) {
        std::string content(size, 'x');
        if (size > 1)
            content[size / 2] = '\0';
        machine.Write("/etc/file", content);
        std::string text = "what was there before";
        EXPECT_EQ(read_whole_file("/etc/file", text), 1);
        EXPECT_EQ(text, content);
    }
}

// A failure is told, and what came before it is kept.
TEST_F(SmallFiles, TellsWhenAFileBreaksOff)
{
    machine.Write("/etc/file", std::string(40000, 'x'));
    machine.Script(Call::READ, {really, fails(EIO)});
    std::string text;
    EXPECT_EQ(read_whole_file("/etc/file", text), 0);
    EXPECT_EQ(text, std::string(16384, 'x'));
    text = "old";
    EXPECT_EQ(read_whole_file("/etc/missing", text), 0);
    EXPECT_EQ(text, "");
    EXPECT_EQ(read_whole_file("/etc", text), 0); // a folder
}

// A FIFO at the place of a file, without anybody who writes to it, must not stop the daemon.
TEST_F(SmallFiles, NeverWaitsForTheWriterOfAFifo)
{
    ASSERT_EQ(mkfifo(machine.RealPath("/etc/fifo").c_str(), 0600), 0);
    std::string text;
    EXPECT_EQ(read_whole_file("/etc/fifo", text), 1);
    EXPECT_EQ(text, "");
}

static std::vector<std::string> lines_of(std::string_view text)
{
    std::vector<std::string> lines;
    LineReader reader(text);
    for (std::string_view line; reader.Next(line);)
        lines.emplace_back(line);
    return lines;
}

// A last line without a line end counts; the nothing behind a last line end does not.
TEST(LineReader, CountsALastLineWithoutEnd)
{
    using Lines = std::vector<std::string>;
    EXPECT_EQ(lines_of(""), Lines());
    EXPECT_EQ(lines_of("\n"), Lines({""}));
    EXPECT_EQ(lines_of("\n\n"), Lines({"", ""}));
    EXPECT_EQ(lines_of("a"), Lines({"a"}));
    EXPECT_EQ(lines_of("a\n"), Lines({"a"}));
    EXPECT_EQ(lines_of("a\n\nb"), Lines({"a", "", "b"}));
    EXPECT_EQ(lines_of("a\r\nb\r\n"), Lines({"a\r", "b\r"}));
    EXPECT_EQ(lines_of("a\0b\nc"s), Lines({"a\0b"s, "c"}));
}
