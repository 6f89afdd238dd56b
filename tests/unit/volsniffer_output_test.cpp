// The label probe's answer: what a volume says of itself, made fit for the daemon to read.

#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "volsniffer/output.h"

static std::string harmless(const std::string &text, size_t limit)
{
    std::string buffer(limit + 1, '#');
    const size_t length = harmless_text(text, buffer.data(), limit);
    EXPECT_LE(length, limit);
    EXPECT_EQ(buffer[limit], '#');
    return buffer.substr(0, length);
}

static std::string answer_for(const VolumeFacts &facts, bool label_only)
{
    char answer[longest_answer];
    return {answer, answer_text(facts, label_only, answer)};
}

// The mount command chooses its drivers by these names; any other filesystem keeps its own.
TEST(DaemonFilesystemName, SpeaksTheDaemonsVocabulary)
{
    static const struct {
        const char *blkid;
        const char *daemon;
    } cases[] = {
        {"vfat", "fat"},
        {"msdos", "fat"},
        {"hfsplus", "hfs+"},
        {"hfsx", "hfs+"},
        {"hfs", "hfs"},
        {"ext2", "ext2"},
        {"ext3", "ext3"},
        {"ext4", "ext4"},
        {"ntfs", "ntfs"},
        {"exfat", "exfat"},
        {"udf", "udf"},
        {"iso9660", "iso9660"},
        {"btrfs", "btrfs"},
        {"xfs", "xfs"},
        {"swap", "swap"},
        {"reiserfs", "reiserfs"},
        {"crypto_LUKS", "crypto_LUKS"},
        {"VFAT", "VFAT"}, // libblkid writes it small
        {"", ""},
    };
    for (const auto &c : cases)
        EXPECT_STREQ(daemon_filesystem_name(c.blkid), c.daemon) << c.blkid;
}

// An ordinary label of any script passes untouched, blanks at its ends too.
TEST(HarmlessText, LeavesOrdinaryLabelsAlone)
{
    static const char *const labels[] = {
        "",
        "DATA",
        " two words ",
        "a:b",
        "..",
        "Fotos \xC3\xBC",
        "\xE5\x86\x99\xE7\x9C\x9F",
        "\xF0\x9F\x93\xB7",
        "\xC2\xA0",
        "\xE2\x80\x8D", // joins letters
        "\xED\x9F\xBF",
        "\xEE\x80\x80",
        "\xF4\x8F\xBF\xBF",
        "x\x7E",
    };
    for (const char *label : labels)
        EXPECT_EQ(harmless(label, 1000), label);
}

// What could leave /mnt, break a line or a column, or command a terminal becomes "_".
TEST(HarmlessText, ReplacesWhatIsHarmful)
{
    static const struct {
        const char *text;
        const char *harmless;
    } cases[] = {
        {"A/../../run/x", "A_.._.._run_x"},
        {"/", "_"},
        {"a\nfilesystem: ext4", "a_filesystem: ext4"},
        {"a\tb\rc", "a_b_c"},
        {"\x1B[2J", "_[2J"},
        {"\x01\x1F\x7F", "___"},
        {"\xC2\x85", "_"}, // next line, one of the upper controls
        {"\xC2\x9B", "_"}, // the terminal's one-character escape
        {"\xE2\x80\xA8"
         "a"
         "\xE2\x80\xA9",
         "_a_"}, // line and paragraph separator
        {"\xE2\x80\xAE"
         "fdp.exe",
         "_fdp.exe"}, // right-to-left override
        {"\xE2\x81\xA6"
         "x"
         "\xE2\x81\xA9",
         "_x_"},                               // isolate and its end
        {"a\u061Cb\u200Ec\u200Fd", "a_b_c_d"}, // marks of direction
    };
    for (const auto &c : cases)
        EXPECT_EQ(harmless(c.text, 1000), c.harmless) << c.harmless;
}

// A byte that is no UTF-8 is replaced on its own; what follows is read afresh.
TEST(HarmlessText, ReplacesEachByteThatIsNoUtf8)
{
    static const struct {
        const char *text;
        const char *harmless;
    } cases[] = {
        {"\xFC"
         "bung",
         "_bung"},         // Latin-1, as old FAT labels have it
        {"a\x80z", "a_z"}, // a continuation of nothing
        {"\xC3", "_"},     // cut short at the end
        {"\xE2\x82", "__"},
        {"\xE2\x82"
         "A",
         "__A"},
        {"\xC3\xC3\xBC", "_\xC3\xBC"},
        {"\xC0\xAF", "__"},      // a slash in two bytes
        {"\xE0\x80\xAF", "___"}, // and in three
        {"\xF0\x80\x80\xAF", "____"},
        {"\xED\xA0\x80", "___"},      // half of a surrogate pair
        {"\xF4\x90\x80\x80", "____"}, // past the last character
        {"\xF8\x88\x80\x80\x80", "_____"},
        {"\xFE\xFF", "__"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(harmless(c.text, 1000), c.harmless) << c.harmless;
}

// A NUL inside would end the daemon's text there.
TEST(HarmlessText, ReplacesNul)
{
    EXPECT_EQ(harmless(std::string("a\0b", 3), 10), "a_b");
}

// A text is cut between characters, never inside one.
TEST(HarmlessText, CutsAtWholeCharacters)
{
    EXPECT_EQ(harmless("abcdef", 6), "abcdef");
    EXPECT_EQ(harmless("abcdef", 5), "abcde");
    EXPECT_EQ(harmless("ab\xE2\x82\xAC", 5), "ab\xE2\x82\xAC");
    EXPECT_EQ(harmless("ab\xE2\x82\xAC", 4), "ab");
    EXPECT_EQ(harmless("abc", 0), "");
}

// The label stands alone in the first line, and each fact has a line of its own, the filesystem
// first.
TEST(AnswerText, PutsTheLabelFirstAndAFactALine)
{
    const VolumeFacts facts = {"DATA", "vfat", "1234-ABCD", "FAT32", "filesystem"};
    EXPECT_EQ(answer_for(facts, false), "DATA\n"
                                        "  filesystem: fat\n"
                                        "  uuid: 1234-ABCD\n"
                                        "  version: FAT32\n"
                                        "  usage: filesystem\n");
    EXPECT_EQ(answer_for(facts, true), "DATA\n");
}

// What is not known has no line; a blank device has an empty label and nothing more.
TEST(AnswerText, LeavesOutWhatIsNotKnown)
{
    EXPECT_EQ(answer_for({"", "ntfs", "", "", ""}, false), "\n  filesystem: ntfs\n");
    EXPECT_EQ(answer_for(VolumeFacts(), false), "\n");
}

// No label can pass for a line of facts, nor can a value.
TEST(AnswerText, KeepsHostileFactsInTheirLine)
{
    const VolumeFacts facts = {"A\n  filesystem: swap", "ext4", "a\nb", "", ""};
    EXPECT_EQ(answer_for(facts, false), "A_  filesystem: swap\n  filesystem: ext4\n  uuid: a_b\n");
}

// The daemon reads 4095 bytes, once: the facts must not be pushed out by a monstrous label.
TEST(AnswerText, FitsIntoOneReadWhateverTheFactsHold)
{
    const std::string endless(100000, 'x');
    VolumeFacts facts;
    set_text(facts.label, endless);
    set_text(facts.filesystem, endless);
    set_text(facts.uuid, endless);
    set_text(facts.version, endless);
    set_text(facts.usage, endless);
    const std::string answer = answer_for(facts, false);
    EXPECT_LE(answer.size(), longest_answer);
    EXPECT_NE(answer.find("\n  usage: x"), std::string::npos);
    EXPECT_EQ(answer.back(), '\n');
}

// Where a monstrous label is cut, no half of a character is left to become a "_".
TEST(AnswerText, CutsALabelAtAWholeCharacter)
{
    for (size_t before = 0; before < 4; before++) {
        std::string label(before, 'x');
        while (label.size() < 2 * longest_label)
            label += "\xF0\x9F\x93\xB7";
        VolumeFacts facts = {};
        set_text(facts.label, label);
        const std::string answer = answer_for(facts, true);
        EXPECT_EQ(answer.find('_'), std::string::npos) << before;
        EXPECT_GT(answer.size(), longest_label - 3) << before;
    }
}

// A text that is too long for its place is cut there, and always ended.
TEST(SetText, NeverLeavesItsPlace)
{
    struct {
        char text[4];
        char after;
    } place = {{'#', '#', '#', '#'}, '#'};
    for (const char *text : {"", "a", "abc", "abcd", "abcdefgh"}) {
        set_text(place.text, text);
        EXPECT_EQ(std::string(place.text), std::string(text).substr(0, 3));
        EXPECT_EQ(place.after, '#');
    }
}

// All of the answer is there at the first read from a pipe.
TEST(WriteAnswer, ArrivesInOnePiece)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const std::string answer(longest_answer, 'x');
    EXPECT_TRUE(write_answer(ends[1], answer));
    char buffer[longest_answer + 1];
    EXPECT_EQ(read(ends[0], buffer, sizeof buffer), static_cast<ssize_t>(answer.size()));
    close(ends[0]);
    close(ends[1]);
}

// A reader that is not there is a failure, not a success with nothing said.
TEST(WriteAnswer, ReportsAFailure)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    EXPECT_FALSE(write_answer(full, "DATA\n"));
    close(full);
}
