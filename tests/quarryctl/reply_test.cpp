// The daemon's replies: whole, in pieces, and from somebody who is no daemon.
#include <gtest/gtest.h>
#include <string>

#include "quarryctl/connection.h"
#include "quarryctl/reply.h"

static const std::string list_head =
    "OK- v3 drive list follows (dev,type,connection,label,capacity,model,place,raid,filesystem)\n";
static const std::string list_end = "OK  eom\n";

static Reply reply_of(const std::string &bytes)
{
    Reply reply;
    EXPECT_EQ(parse_reply(bytes, reply), REPLY_COMPLETE) << bytes;
    return reply;
}

static int parses_as_list(const std::string &rows, std::vector<Drive> &drives)
{
    return parse_list(reply_of(list_head + rows + list_end), drives);
}

// One line that begins "OK " or "ERR ", or lines "OK-" before it; what follows is left alone.
TEST(ParseReply, TakesEveryShapeOfReply)
{
    static const struct {
        const char *bytes;
        bool is_ok;
        std::vector<std::string> lines;
        const char *text;
    } cases[] = {
        {"OK refreshed\n", true, {}, "refreshed"},
        {"OK mount succeeded\n\n", true, {}, "mount succeeded"},
        {"OK- mount succeded\nOK warning: read only\n",
         true,
         {" mount succeded"},
         "warning: read only"},
        {"OK-\tlist - List\nOK \thelp - Help\n", true, {"\tlist - List"}, "\thelp - Help"},
        {"OK- list follows\nOK  eom\n", true, {" list follows"}, " eom"},
        {"OK-\nOK \n", true, {""}, ""},
        {"ERR mount failed\n", false, {}, "mount failed"},
        {"ERR \n", false, {}, ""},
        {"OK-one\nERR two\n", false, {"one"}, "two"},
        {"OK done\nOK- what follows is another's\n", true, {}, "done"},
    };
    for (const auto &c : cases) {
        const Reply reply = reply_of(c.bytes);
        EXPECT_EQ(reply.is_ok, c.is_ok) << c.bytes;
        EXPECT_EQ(reply.lines, c.lines) << c.bytes;
        EXPECT_EQ(reply.text, c.text) << c.bytes;
    }
}

// However few of its bytes have come, a reply is waited for to its end and never taken for garbled.
TEST(ParseReply, WaitsForTheEnd)
{
    const std::string whole = list_head + "OK- \tsdb\tx\n" + "OK-\nERR no\n";
    for (size_t length = 0; length < whole.size(); length++) {
        Reply reply;
        EXPECT_EQ(parse_reply(whole.substr(0, length), reply), REPLY_UNFINISHED) << length;
    }
}

// What no daemon says is told at the first byte that shows it.
TEST(ParseReply, KnowsWhatIsNoReply)
{
    using std::string_literals::operator""s;
    static const std::string cases[] = {
        "\n",
        "\r\n",
        "ok done\n",
        "OK\n",
        "ERR\n",
        "OKAY\n",
        "ERROR no\n",
        " OK done\n",
        "HTTP/1.1 400",
        "X",
        "OL",
        "ERX",
        "OK- one\nthe rest of a label\nOK  eom\n",
        "OK- one\n\nOK two\n",
        "\0OK done\n"s,
        "\xff\xfe\n",
        std::string(100000, 'x'),
    };
    for (const std::string &bytes : cases) {
        Reply reply;
        EXPECT_EQ(parse_reply(bytes, reply), REPLY_GARBLED) << bytes.substr(0, 80);
    }
}

// A reply that is not complete leaves what was there before.
TEST(ParseReply, FillsNothingBeforeTheEnd)
{
    Reply reply;
    reply.text = "before";
    parse_reply("OK- one\nOK two", reply);
    EXPECT_EQ(reply.text, "before");
    EXPECT_TRUE(reply.lines.empty());
}

TEST(ParseList, ReadsDrivesAndPartitions)
{
    std::vector<Drive> drives;
    ASSERT_TRUE(parses_as_list(
        "OK- \tsdc\tHard Drive\tUSB\t\t67108864\tQEMU HARDDISK\t\t\t \n"
        "OK- \t\tsdc1\tPartition\tUSB\tHOLIDAY\t41943040\t#0C DOS/Windows\tMain\tActive RAID\tfat\n"
        "OK- \tvda\t\tUnassigned\t\t-1\t\tBoot\tInactive RAID\t\n",
        drives));
    ASSERT_EQ(drives.size(), 2U);
    Device drive = {"sdc", "Hard Drive", "USB", "", 67108864, "QEMU HARDDISK", "", "", "", ""};
    EXPECT_EQ(drives[0].device, drive);
    Device partition = {"sdc1", "Partition",   "USB", "HOLIDAY", 41943040, "#0C DOS/Windows",
                        "Main", "Active RAID", "fat", ""};
    ASSERT_EQ(drives[0].partitions.size(), 1U);
    EXPECT_EQ(drives[0].partitions[0], partition);
    // No connection, no size, nothing else.
    Device unknown = {"vda", "", "", "", size_unknown, "", "Boot", "Inactive RAID", "", ""};
    EXPECT_EQ(drives[1].device, unknown);
    EXPECT_TRUE(drives[1].partitions.empty());
}

TEST(ParseList, TakesAnEmptyListForOne)
{
    std::vector<Drive> drives(3);
    EXPECT_TRUE(parses_as_list("", drives));
    EXPECT_TRUE(drives.empty());
}

// A memory card tells its model itself, tabs and all: the other fields stay what they are.
TEST(ParseList, LeavesTabsToTheModel)
{
    std::vector<Drive> drives;
    ASSERT_TRUE(parses_as_list(
        "OK- \tmmcblk0\tHard Drive\tMMC/SD\tCARD\t512\ta\tb\t\tc\tMain\tActive RAID\tfat\n",
        drives));
    EXPECT_EQ(drives[0].device.model, "a\tb\t\tc");
    EXPECT_EQ(drives[0].device.label, "CARD");
    EXPECT_EQ(drives[0].device.place, "Main");
    EXPECT_EQ(drives[0].device.raid, "Active RAID");
    EXPECT_EQ(drives[0].device.filesystem, "fat");
}

TEST(ParseList, SizesAreNumbersOrNothing)
{
    static const struct {
        const char *text;
        int parses;
        long long size;
    } cases[] = {
        {"0", 1, 0},
        {"9223372036854775807", 1, 9223372036854775807},
        {"-1", 1, size_unknown},
        {"-2", 1, size_unknown}, // half of what a wild size can become; no size is negative
        {"9223372036854775808", 0, 0},
        {"", 0, 0},
        {" 1", 0, 0},
        {"1 ", 0, 0},
        {"1.5", 0, 0},
        {"0x10", 0, 0},
        {"many", 0, 0},
    };
    for (const auto &c : cases) {
        std::vector<Drive> drives;
        const std::string row = std::string("OK- \tsdb\tx\ty\tz\t") + c.text + "\tm\tp\tr\tf\n";
        ASSERT_EQ(parses_as_list(row, drives), c.parses) << c.text;
        EXPECT_EQ(c.parses ? drives[0].device.size : c.size, c.size) << c.text;
    }
}

TEST(ParseList, RefusesWhatIsNoList)
{
    static const char drive[] = "OK- \tsdb\tx\ty\tz\t1\tm\tp\tr\tf\n";
    const std::string cases[] = {
        "ERR no\n",
        "OK done\n",
        "OK  eom\n",
        "OK- list follows\nOK  eom\n",
        list_head + drive + "OK end\n",                                  // another end
        list_head + drive + "ERR no\n",                                  // refused in the middle
        list_head + "OK- \t\tsdb1\tx\ty\tz\t1\tm\tp\tr\tf\n" + list_end, // a partition of nothing
        list_head + "OK- \tsdb\tx\ty\tz\t1\tm\tp\tr\n" + list_end,       // a field too few
        list_head + "OK- \t\tx\ty\tz\t1\tm\tp\tr\tf\tg\n" + list_end,
        list_head + "OK-sdb\tx\ty\tz\t1\tm\tp\tr\tf\n" + list_end, // not where a row begins
        list_head + "OK-\n" + list_end,
        list_head + "OK- \t\n" + list_end,
        list_head + "OK- \t\t\t\t\t1\t\t\t\t\n" + list_end, // nameless
    };
    for (const std::string &bytes : cases) {
        std::vector<Drive> drives;
        EXPECT_FALSE(parse_list(reply_of(bytes), drives)) << bytes;
    }
}

TEST(ParseEnumeration, ReadsGroups)
{
    std::vector<ConnectionGroup> groups;
    ASSERT_TRUE(parse_enumeration(
        reply_of("OK- list follows\n"
                 "OK-\tUSB\tUSB storage devices\n"
                 "OK-\t\t/dev/sdc\t/sys/block/sdc\ta\tmodel\tHard Drive\t\tUSB\t\n"
                 "OK-\t\t\t/dev/sdc1\t/sys/block/sdc/sdc1\t#83 Linux\tHard Drive\tDATA\tUSB\tMain\n"
                 "OK-\tRAID\tRAID disk array devices\n"
                 "OK  eom\n"),
        groups));
    ASSERT_EQ(groups.size(), 2U);
    EXPECT_EQ(groups[0].connection, "USB");
    EXPECT_EQ(groups[0].description, "USB storage devices");
    ASSERT_EQ(groups[0].drives.size(), 1U);
    const Device &drive = groups[0].drives[0].device;
    EXPECT_EQ(drive.name, "sdc");
    EXPECT_EQ(drive.sysfs_path, "/sys/block/sdc");
    EXPECT_EQ(drive.model, "a\tmodel");
    EXPECT_EQ(drive.type, "Hard Drive");
    EXPECT_EQ(drive.size, size_unknown);
    ASSERT_EQ(groups[0].drives[0].partitions.size(), 1U);
    const Device &partition = groups[0].drives[0].partitions[0];
    EXPECT_EQ(partition.name, "sdc1");
    EXPECT_EQ(partition.label, "DATA");
    EXPECT_EQ(partition.connection, "USB");
    EXPECT_EQ(partition.place, "Main");
    EXPECT_TRUE(groups[1].drives.empty());
}

TEST(ParseEnumeration, RefusesWhatIsNone)
{
    static const std::string head = "OK- list follows\n";
    const std::string cases[] = {
        list_head + list_end,
        head + "OK end\n",
        head + "OK-\tUSB\n" + list_end,                          // no description
        head + "OK-\t\t/dev/sdc\ts\tm\tt\tl\tc\tp\n" + list_end, // a drive of no group
        head + "OK-\tUSB\tx\nOK-\t\t\t/dev/sdc1\ts\tm\tt\tl\tc\tp\n" + list_end,  // of no drive
        head + "OK-\tUSB\tx\nOK-\t\tsdc\ts\tm\tt\tl\tc\tp\n" + list_end,          // no path
        head + "OK-\tUSB\tx\nOK-\t\t/dev/\ts\tm\tt\tl\tc\tp\n" + list_end,        // no name
        head + "OK-\tUSB\tx\nOK-\t\t/dev/sdc\ts\tm\tt\tl\tc\n" + list_end,        // a field too few
        head + "OK-\tUSB\tx\nOK-\t\t\t\t/dev/sdc\ts\tm\tt\tl\tc\tp\n" + list_end, // too deep
        head + "OK-\t\t\n" + list_end,
        head + "OK-USB\tx\n" + list_end,
    };
    for (const std::string &bytes : cases) {
        std::vector<ConnectionGroup> groups;
        EXPECT_FALSE(parse_enumeration(reply_of(bytes), groups)) << bytes;
    }
}

// Every word arrives as it was given, or the request is not sent at all.
TEST(RequestOf, QuotesWhatTheDaemonWouldTakeApart)
{
    static const struct {
        std::vector<std::string> words;
        const char *request; // null: it cannot be said
    } cases[] = {
        {{"list"}, "list"},
        {{"mount", "rw", "^my disk"}, "mount rw \"^my disk\""},
        {{"mount", "rw", ""}, "mount rw \"\""},
        {{"mount", "rw", "^a\"b"}, "mount rw ^a\"b"}, // a quote inside a word is a letter
        {{"mount", "rw", "^a\tb"}, "mount rw ^a\tb"},
        {{"mount", "rw", "\"a"}, nullptr},
        {{"mount", "rw", "^a \"b"}, nullptr},
        {{"umount", "sdb1\nrefresh"}, nullptr},
        {{"umount", "sdb1\r"}, nullptr},
    };
    for (const auto &c : cases) {
        std::string request;
        ASSERT_EQ(request_of(c.words, request), c.request != nullptr) << c.words.back();
        EXPECT_EQ(request, c.request ? c.request : request);
    }
}
