// Rows for people and for scripts: hostile text, wide characters, narrow terminals.
#include <gtest/gtest.h>
#include <string>

#include "quarryctl/json_output.h"
#include "quarryctl/listing.h"
#include "quarryctl/printable.h"
#include "quarryctl/table.h"

using std::string_literals::operator""s;

// Nothing that a terminal obeys or that shows nothing gets through; what is shown stands for one
// text only.
TEST(Printable, LeavesNothingToObey)
{
    static const struct {
        std::string text;
        const char *shown;
    } cases[] = {
        {"", ""},
        {"HOLIDAY 2024", "HOLIDAY 2024"},
        {"Öl, 写真, 🎉", "Öl, 写真, 🎉"},
        {"a\033[2Jb", "a\\x1b[2Jb"},
        {"a\tb\nc\rd\0e"s, "a\\x09b\\x0ac\\x0dd\\x00e"},
        {"\x7f", "\\x7f"},
        {"\xc2\x9b"
         "31m",
         "\\u009b31m"}, // a control character of two bytes
        {"\x9b"
         "31m",
         "\\x9b31m"},       // and of one
        {"a\\b", "a\\\\b"}, // not to be taken for an escape
        {"exe.\xe2\x80\xae"
         "gpj",
         "exe.\\u202egpj"},                               // turns the direction round
        {"\xe2\x81\xa6x\xe2\x81\xa9", "\\u2066x\\u2069"}, // isolates
        {"\xd8\x9c", "\\u061c"},                          // a direction mark
        {"a\xe2\x80\x8b"
         "b",
         "a\\u200bb"}, // has no width
        {"a\xe2\x80\xa8"
         "b",
         "a\\u2028b"}, // separates lines
        {"a\xc2\xad"
         "b",
         "a\\u00adb"},                       // soft hyphen
        {"\xef\xbb\xbf", "\\ufeff"},         // byte order mark
        {"\xf3\xa0\x81\x81", "\\U000e0041"}, // a tag
        {"M\xdcLLER", "M\\xdcLLER"},         // Latin-1
        {"\xc3", "\\xc3"},                   // cut off
        {"\xe2\x80", "\\xe2\\x80"},
        {"\xc0\xaf", "\\xc0\\xaf"},                   // more bytes than needed
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},          // half of a pair
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, // past the last character
        {"\xf8\x88\x80\x80\x80", "\\xf8\\x88\\x80\\x80\\x80"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(printable(c.text), c.shown) << c.shown;
}

// Every single byte and every pair of bytes comes out as valid text without a control character.
TEST(Printable, IsHarmlessForAllPairsOfBytes)
{
    for (int first = 0; first < 256; first++) {
        for (int second = 0; second < 256; second++) {
            const std::string text = {static_cast<char>(first), static_cast<char>(second)};
            const std::string shown = printable(text);
            for (const char c : shown)
                ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) << first << second;
            ASSERT_NE(shown.substr(0, 1), "\xc0") << first << second;
        }
    }
}

TEST(DisplayWidth, CountsColumns)
{
    static const struct {
        const char *text;
        size_t width;
    } cases[] = {
        {"", 0},     {"sdb1", 4}, {"Öl", 2}, {"e\xcc\x81", 1}, // an accent of its own
        {"写真", 4}, {"한국", 4}, {"ﾊﾝ", 2},                   // half as wide
        {"🎉", 2},    {"…", 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(display_width(c.text), c.width) << c.text;
}

// Cutting never splits a character, nor goes over the width by half of one.
TEST(FittingPart, CutsBetweenCharacters)
{
    static const struct {
        const char *text;
        size_t width;
        const char *part;
    } cases[] = {
        {"abc", 0, ""},    {"abc", 2, "ab"},  {"abc", 9, "abc"},   {"写真", 1, ""},
        {"写真", 2, "写"}, {"写真", 3, "写"}, {"写真", 4, "写真"}, {"e\xcc\x81x", 1, "e\xcc\x81"},
        {"Öl", 1, "Ö"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(fitting_part(c.text, c.width), c.part) << c.text << c.width;
}

// Sizes are cut, never rounded, as drives are sold by them.
TEST(SizeText, CutsAndNeverRounds)
{
    static const struct {
        long long bytes;
        const char *text;
    } cases[] = {
        {size_unknown, "?"},
        {0, "0 B"},
        {999, "999 B"},
        {1000, "1.0 kB"},
        {1999, "1.9 kB"},
        {999999, "999.9 kB"},
        {500107862016, "500.1 GB"},
        {9223372036854775807, "9.2 EB"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(size_text(c.bytes), c.text);
}

static std::vector<Column> three_columns()
{
    return {{.heading = "NAME"},
            {.heading = "SIZE", .is_right_aligned = true},
            {.heading = "LABEL", .least = 4}};
}

TEST(RenderTable, AlignsAndEndsLinesWithoutBlanks)
{
    const std::vector<Row> rows = {
        {.cells = {"sdb", "8.0 GB", ""}},
        {.cells = {"sdb1", "10 B", "写真"}, .indent = 2},
    };
    EXPECT_EQ(render_table(three_columns(), rows, {}), "NAME      SIZE  LABEL\n"
                                                       "sdb     8.0 GB\n"
                                                       "  sdb1    10 B  写真\n");
}

TEST(RenderTable, HasHeadingsForNoRows)
{
    EXPECT_EQ(render_table(three_columns(), {}, {}), "NAME  SIZE  LABEL\n");
}

TEST(RenderTable, LeavesEmptyColumnsOut)
{
    std::vector<Column> columns = three_columns();
    columns[1].is_hidden_empty = true;
    EXPECT_EQ(render_table(columns, {{.cells = {"a", "", "b"}}}, {}), "NAME  LABEL\n"
                                                                      "a     b\n");
    EXPECT_EQ(render_table(columns, {{.cells = {"a", "1", "b"}}}, {}), "NAME  SIZE  LABEL\n"
                                                                       "a        1  b\n");
}

// Of all widths down to none: no line is wider than the terminal, and what is cut says so.
TEST(RenderTable, FitsIntoAnyTerminal)
{
    const std::vector<Row> rows = {
        {.cells = {"nvme0n1", "1.0 TB", "写真とビデオ"}, .paint = PAINT_BOLD},
        {.cells = {"nvme0n1p1", "999.9 MB", "a long label with \033[2J in it"}, .indent = 2},
    };
    for (size_t width = 1; width < 80; width++) {
        const std::string text = render_table(three_columns(), rows, {.width = width});
        size_t count = 0;
        for (size_t start = 0; start < text.size(); count++) {
            const size_t end = text.find('\n', start);
            ASSERT_LE(display_width(text.substr(start, end - start)), width) << text;
            start = end + 1;
        }
        ASSERT_EQ(count, 3U) << width;
        if (width >= 27) { // there is room for all columns
            ASSERT_EQ(text.find("…") != std::string::npos, width < 54) << width << text;
        }
    }
    EXPECT_EQ(render_table(three_columns(), rows, {.width = 30}),
              "NAME             SIZE  LABEL\n"
              "nvme0n1        1.0 TB  写真と…\n"
              "  nvme0n1p1  999.9 MB  a long…\n");
}

// Colour goes around the text and takes no room; without it no escape sequence is there at all.
TEST(RenderTable, PaintsOnlyWhereAsked)
{
    const std::vector<Row> rows = {
        {.cells = {"a", "1", "x"}, .paint = PAINT_GREEN},
        {.cells = {"b", "2", ""}, .paint = PAINT_RED, .is_painted_whole = true},
    };
    EXPECT_EQ(render_table(three_columns(), rows, {.has_colour = true}),
              "\033[1mNAME\033[0m  \033[1mSIZE\033[0m  \033[1mLABEL\033[0m\n"
              "\033[32ma\033[0m        1  x\n"
              "\033[31mb\033[0m        \033[31m2\033[0m\n");
    EXPECT_EQ(render_table(three_columns(), rows, {}).find('\033'), std::string::npos);
}

// The samples that listings are made of below.
static std::vector<Drive> sample_drives()
{
    return {
        {{"sdc", "Hard Drive", "USB", "", 67108864, "QEMU HARDDISK", "", "", "", ""},
         {{"sdc1", "Partition", "USB", "MY DISK", 41943040, "meh", "Main", "", "fat", ""},
          {"sdc2", "Partition", "USB", "-", 512, "meh", "", "Active RAID", "", ""}}},
        {{"sr0", "CD-ROM", "", "", size_unknown, "", "", "", "", ""}, {}},
    };
}

static MountTable sample_mounts()
{
    return parse_mounts("proc /proc proc rw 0 0\n"
                        "/dev/sdc1 /mnt/sdc1 vfat rw 0 0\n"
                        "/dev/sdc1 /srv/my\\040files vfat rw 0 0\n");
}

TEST(PlainLine, CountsTheSameForAShell)
{
    std::string text;
    for (const ListedDevice &listed : listed_devices(sample_drives(), sample_mounts()))
        text += plain_line(listed);
    EXPECT_EQ(text, "sdc\t-\tHard Drive\tUSB\t-\t67108864\tQEMU HARDDISK\t-\t-\t-\t-\n"
                    "sdc1\tsdc\tPartition\tUSB\tMY DISK\t41943040\tmeh\tMain\t-\tfat\t/mnt/sdc1\n"
                    "sdc2\tsdc\tPartition\tUSB\t\\x2d\t512\tmeh\t-\tActive RAID\t-\t-\n"
                    "sr0\t-\tCD-ROM\t-\t-\t-\t-\t-\t-\t-\t-\n");
}

TEST(DeviceTable, ShowsPartitionsBelowTheirDrive)
{
    std::vector<Row> rows;
    for (const ListedDevice &listed : listed_devices(sample_drives(), sample_mounts()))
        rows.push_back(device_row(listed));
    EXPECT_EQ(render_table(device_columns(), rows, {}),
              "NAME    TYPE        CONNECTION     SIZE  FILESYSTEM  LABEL    MODEL          PLACE  "
              "RAID         MOUNTED ON\n"
              "sdc     Hard Drive  USB         67.1 MB                       QEMU HARDDISK\n"
              "  sdc1  Partition               41.9 MB  fat         MY DISK  meh            Main   "
              "       "
              "      /mnt/sdc1, /srv/my files\n"
              "  sdc2  Partition                 512 B              -        meh                   "
              "Active RAID\n"
              "sr0     CD-ROM                        ?\n");
}

TEST(DeviceTable, LeavesOutWhatModelsAreFilledUpWith)
{
    static const struct {
        const char *model;
        const char *shown;
    } cases[] = {
        {"QEMU HARDDISK   ", "QEMU HARDDISK"},
        {"QEMU NVMe Ctrl              flash               ", "QEMU NVMe Ctrl flash"},
        {" WD  10EZ", "WD 10EZ"},
        {"   ", ""},
    };
    for (const auto &c : cases) {
        const Device device = {"sda", "", "", "", 0, c.model, "", "", "", ""};
        EXPECT_EQ(device_row({device, "", {}}).cells[6], c.shown);
    }
}

static Device labelled(const std::string &name, const std::string &label)
{
    Device device;
    device.name = name;
    device.label = label;
    return device;
}

// The daemon asks all partitions in the order of their names before any drive.
TEST(NameOfLabel, FindsWhatTheDaemonFinds)
{
    const std::vector<Drive> drives = {
        {labelled("md0", "A"), {}},
        {labelled("sda", "B"), {labelled("sda2", "A"), labelled("sda10", "A")}},
        {labelled("sdb", "B"), {labelled("sdb1", "C")}},
    };
    EXPECT_EQ(name_of_label(drives, "A"), "sda10");
    EXPECT_EQ(name_of_label(drives, "B"), "sda");
    EXPECT_EQ(name_of_label(drives, "C"), "sdb1");
    EXPECT_EQ(name_of_label(drives, "D"), "");
    EXPECT_EQ(name_of_label({}, ""), "");
}

TEST(ParseMounts, ReadsOddLines)
{
    const MountTable table = parse_mounts("/dev/sdb1 /mnt/a\\040b\\134c ext4 rw 0 0\n"
                                          "/dev/sdb1\n"
                                          "\n"
                                          "/dev/sdb2 /x\\04 ext4\n" // cut off, so it is text
                                          "/dev/sdb2 /y\\777 ext4\n"
                                          "tmpfs /dev/shm tmpfs rw 0 0\n"
                                          "/dev/sdb3 /z"); // no end of line
    EXPECT_TRUE(table.is_known);
    EXPECT_EQ(table.points.size(), 3U);
    EXPECT_EQ(table.PointsOf("sdb1"), std::vector<std::string>{"/mnt/a b\\c"});
    EXPECT_EQ(table.PointsOf("sdb2"), (std::vector<std::string>{"/x\\04", "/y\\777"}));
    EXPECT_EQ(table.PointsOf("sdb3"), std::vector<std::string>{"/z"});
    EXPECT_TRUE(table.PointsOf("sdb4").empty());
}

TEST(ListJson, HasTheDocumentedKeys)
{
    const std::vector<Drive> all = sample_drives();
    const std::vector<Drive> drives = {{all[0].device, {all[0].partitions[0]}}, all[1]};
    EXPECT_EQ(list_json(drives, sample_mounts()), R"({
  "blockdevices": [
    {
      "name": "sdc",
      "path": "/dev/sdc",
      "type": "disk",
      "kind": "Hard Drive",
      "connection": "USB",
      "label": null,
      "size": 67108864,
      "model": "QEMU HARDDISK",
      "place": null,
      "raid": null,
      "fstype": null,
      "mountpoints": [],
      "children": [
        {
          "name": "sdc1",
          "path": "/dev/sdc1",
          "type": "part",
          "kind": "Partition",
          "connection": "USB",
          "label": "MY DISK",
          "size": 41943040,
          "model": "meh",
          "place": "Main",
          "raid": null,
          "fstype": "fat",
          "mountpoints": [
            "/mnt/sdc1",
            "/srv/my files"
          ]
        }
      ]
    },
    {
      "name": "sr0",
      "path": "/dev/sr0",
      "type": "rom",
      "kind": "CD-ROM",
      "connection": null,
      "label": null,
      "size": null,
      "model": null,
      "place": null,
      "raid": null,
      "fstype": null,
      "mountpoints": []
    }
  ]
}
)");
}

TEST(ListJson, IsAnArrayWithoutDrives)
{
    EXPECT_EQ(list_json({}, sample_mounts()), "{\n  \"blockdevices\": []\n}\n");
    EXPECT_EQ(enumeration_json({}), "{\n  \"blockdevices\": []\n}\n");
}

// Digits of ASCII alone, whatever a label holds: bytes that are no UTF-8 neither throw nor get out.
TEST(ListJson, KeepsHostileTextInItsString)
{
    Device device = labelled("sdb", "\"}\\\033[2J\n\x7f\xc2\x9b\xe2\x80\xae\xff写");
    device.size = 0;
    const std::string json = list_json({{device, {}}}, {});
    EXPECT_NE(json.find(R"("label": "\"}\\\u001b[2J\n\u007f\u009b\u202e\ufffd\u5199")"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"size\": 0,"), std::string::npos) << json;
    EXPECT_NE(json.find("\"mountpoints\": null"), std::string::npos) << json;
    for (const char c : json)
        ASSERT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7f)) << json;
}

static std::vector<ConnectionGroup> sample_groups()
{
    Device drive = labelled("sdc", "");
    drive.type = "Hard Drive";
    drive.connection = "USB";
    drive.sysfs_path = "/sys/block/sdc";
    Device partition = drive;
    partition.name = "sdc1";
    partition.label = "A\tB";
    partition.sysfs_path = "/sys/block/sdc/sdc1";
    return {{"USB", "USB storage devices", {{drive, {partition}}}}, {"MMC/SD", "cards", {}}};
}

TEST(Enumeration, HasAllThreeForms)
{
    EXPECT_EQ(enumeration_text(sample_groups(), {}),
              "USB: USB storage devices\n"
              "  NAME    TYPE        LABEL   MODEL  BELOW /sys\n"
              "  sdc     Hard Drive                 /sys/block/sdc\n"
              "    sdc1  Partition   A\\x09B         "
              "/sys/block/sdc/sdc1\n"
              "\n"
              "MMC/SD: cards\n"
              "  NAME  TYPE  LABEL  MODEL  BELOW /sys\n");
    EXPECT_EQ(plain_enumeration(sample_groups()),
              "sdc\t-\tHard Drive\tUSB\t-\t-\t-\t/sys/block/sdc\n"
              "sdc1\tsdc\tHard Drive\tUSB\tA\\x09B\t-\t-\t/sys/block/sdc/sdc1\n");
    EXPECT_EQ(enumeration_json(sample_groups()), R"({
  "blockdevices": [
    {
      "name": "sdc",
      "path": "/dev/sdc",
      "type": "disk",
      "kind": "Hard Drive",
      "connection": "USB",
      "label": null,
      "model": null,
      "place": null,
      "sysfs_path": "/sys/block/sdc",
      "children": [
        {
          "name": "sdc1",
          "path": "/dev/sdc1",
          "type": "part",
          "kind": "Hard Drive",
          "connection": "USB",
          "label": "A\tB",
          "model": null,
          "place": null,
          "sysfs_path": "/sys/block/sdc/sdc1"
        }
      ]
    }
  ]
}
)");
}
