// Who holds a device: tables of mounts and of memory, and how it is told.
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "quarryctl/busy.h"
#include "quarryctl/busy_target.h"
#include "quarryctl/json_output.h"
#include "quarryctl/mapped_files.h"
#include "quarryctl/mount_info.h"

static MountInfo mount_of_line(const std::string &line)
{
    MountInfo mount;
    EXPECT_TRUE(parse_mount_info_line(line, mount)) << line;
    return mount;
}

static MountInfoTable table_of_lines(const std::vector<std::string> &lines)
{
    MountInfoTable table;
    for (const std::string &line : lines)
        table.push_back(mount_of_line(line));
    return table;
}

// Escapes are undone; the fields between the options and the "-" may be none or many.
TEST(MountInfo, IsReadFromALine)
{
    const MountInfo mount =
        mount_of_line("36 35 8:17 / /mnt/my\\040disk rw,nosuid shared:1 master:2 "
                      "- ext4 /dev/sdb1 rw,errors=continue");
    EXPECT_EQ(mount.id, 36);
    EXPECT_EQ(mount.parent, 35);
    EXPECT_EQ(mount.number, "8:17");
    EXPECT_EQ(mount.mountpoint, "/mnt/my disk");
    EXPECT_EQ(mount.options, "rw,nosuid");
    EXPECT_EQ(mount.fstype, "ext4");
    EXPECT_EQ(mount.source, "/dev/sdb1");
    EXPECT_EQ(mount.filesystem_options, "rw,errors=continue");
    EXPECT_EQ(mount_of_line("1 0 0:45 / / ro - tmpfs a\\134b rw").source, "a\\b");
}

TEST(MountInfo, ALineThatIsNoneMakesNoEntry)
{
    MountInfo mount;
    for (const char *line : {"", "x", "36", "36 x 8:17 / / rw - ext4 /dev/sdb1 rw",
                             "36 35 8:17 / /mnt rw shared:1", "36 35 8:17 / /mnt rw -"})
        EXPECT_FALSE(parse_mount_info_line(line, mount)) << line;
}

// The innermost mount counts, of two at one place the later; "/mnt/sdb1" is not the beginning of
// "/mnt/sdb10".
TEST(MountInfo, PathsLieOnTheInnermostMount)
{
    const MountInfoTable table = table_of_lines({
        "1 0 8:1 / / rw - ext4 /dev/sda1 rw",
        "2 1 8:17 / /mnt/sdb1 rw - ext4 /dev/sdb1 rw",
        "3 2 0:50 / /mnt/sdb1/inner rw - tmpfs x rw",
        "4 1 8:18 / /mnt/sdb2 rw - ext4 /dev/sdb2 rw",
        "5 4 8:33 / /mnt/sdb2 rw - ext4 /dev/sdc1 rw",
    });
    static const struct {
        const char *path;
        int id;
    } cases[] = {
        {"/", 1},
        {"/etc", 1},
        {"/mnt/sdb1", 2},
        {"/mnt/sdb1/file (deleted)", 2},
        {"/mnt/sdb10", 1},
        {"/mnt/sdb1/inner", 3},
        {"/mnt/sdb1/inner/x", 3},
        {"/mnt/sdb1/innermost", 2},
        {"/mnt/sdb2/x", 5},
    };
    for (const auto &c : cases) {
        const MountInfo *mount = mount_of_path(table, c.path);
        ASSERT_TRUE(mount) << c.path;
        EXPECT_EQ(mount->id, c.id) << c.path;
    }
    EXPECT_FALSE(mount_of_path({}, "/"));
}

// By number; by name where the filesystem has a number of its own or the device has lost its. A
// user's FUSE mount may call itself by any name.
TEST(BusyTarget, KnowsItsMounts)
{
    const BusyTarget known = {"sdb1", {"/dev/sdb1"}, "8:17", "/sys/block/sdb/sdb1"};
    const BusyTarget pulled = {"sdb1", {"/dev/sdb1"}, "", ""};
    const BusyTarget volume = {"dm-0", {"/dev/dm-0", "/dev/mapper/vault"}, "", ""};
    static const struct {
        const char *line;
        bool is_known, is_pulled, is_volume;
    } cases[] = {
        {"1 0 8:17 / /mnt/sdb1 rw - ext4 /dev/sdb1 rw", true, true, false},
        {"1 0 8:17 / /mnt/sdb1 rw - ext4 /dev/disk/by-label/X rw", true, false, false},
        {"1 0 8:33 / /mnt/sdb1 rw - ext4 /dev/sdb1 rw", false, true, false}, // an earlier sdb1
        {"1 0 0:45 / /mnt/sdb1 rw - btrfs /dev/sdb1 rw", true, true, false},
        {"1 0 0:45 / /x rw - fuse /dev/sdb1 rw,user_id=1000,group_id=0", false, false, false},
        {"1 0 0:45 / /x rw - fuse.sshfs /dev/sdb1 rw,user_id=0,group_id=0", true, true, false},
        {"1 0 0:45 / /x rw - btrfs /dev/mapper/vault rw", false, false, true},
        {"1 0 0:45 / /x rw - tmpfs sdb1 rw", false, false, false},
        {"1 0 8:18 / /mnt/sdb2 rw - ext4 /dev/sdb2 rw", false, false, false},
    };
    for (const auto &c : cases) {
        const MountInfo mount = mount_of_line(c.line);
        EXPECT_EQ(is_mount_of(mount, known), c.is_known) << c.line;
        EXPECT_EQ(is_mount_of(mount, pulled), c.is_pulled) << c.line;
        EXPECT_EQ(is_mount_of(mount, volume), c.is_volume) << c.line;
    }
}

TEST(BusyTarget, PathsAreTidiedAsTexts)
{
    static const struct {
        const char *path, *plain;
    } cases[] = {
        {"/", "/"},
        {"", "/"},
        {"/mnt/sdb1/", "/mnt/sdb1"},
        {"//mnt//./sdb1/.", "/mnt/sdb1"},
        {"/dev/disk/by-label/../../sdb1", "/dev/sdb1"},
        {"/../../mnt", "/mnt"},
        {"/dev/../mnt/...", "/mnt/..."},
    };
    for (const auto &c : cases)
        EXPECT_EQ(plain_path(c.path), c.plain) << c.path;
}

// Only files on the devices that are asked about, each once; the kernel counts in hexadecimal
// digits there.
TEST(MappedFiles, AreThoseOnTheDevices)
{
    const char maps[] = "55d0c0000000-55d0c0001000 r--p 00000000 08:11 131  /mnt/sdb1/prog\n"
                        "55d0c0001000-55d0c0002000 r-xp 00001000 08:11 131  /mnt/sdb1/prog\n"
                        "7f0000000000-7f0000001000 rw-p 00000000 00:00 0 \n"
                        "7f0000001000-7f0000002000 r--s 00000000 08:11 132  "
                        "/mnt/sdb1/two words (deleted)\n"
                        "7f0000002000-7f0000003000 r--s 00000000 08:11 133  /mnt/sdb1/a\\012b\n"
                        "7f0000003000-7f0000004000 r--s 00000000 08:17 134  /mnt/sdb7/other\n"
                        "7f0000004000-7f0000005000 r--s 00000000 103:100003 9  /mnt/nvme/big\n"
                        "7ffd00000000-7ffd00001000 rw-p 00000000 00:00 0  [stack]\n"
                        "nonsense\n"
                        "\n";
    const std::vector<MappedFile> expected = {
        {1, "/mnt/sdb1/prog"},
        {1, "/mnt/sdb1/two words (deleted)"},
        {1, "/mnt/sdb1/a\nb"},
        {2, "/mnt/nvme/big"},
    };
    EXPECT_EQ(mapped_files(maps, {"", "8:17", "259:1048579"}), expected);
    EXPECT_TRUE(mapped_files(maps, {}).empty());
    EXPECT_TRUE(mapped_files("", {"8:17"}).empty());
}

// A process that is gone has nothing mapped, and that is no error.
TEST(MappedFiles, OfAProcessThatIsGone)
{
    MappingReader reader({"8:17"});
    std::vector<MappedFile> files = {{0, "x"}};
    EXPECT_TRUE(reader.Read(0x7fffffff, files));
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(reader.Read(getpid(), files));
}

static Holder process(const char *kind, int pid, const std::string &what, bool by_rudeoff,
                      bool by_rudero)
{
    Holder holder;
    holder.kind = kind;
    holder.device = "sdb1";
    holder.pid = pid;
    holder.uid = 1000;
    holder.user = "joe";
    holder.command = "vi";
    holder.what = what;
    holder.is_ended_by_rudeoff = by_rudeoff;
    holder.is_ended_by_rudero = by_rudero;
    return holder;
}

static BusyReport hostile_report()
{
    BusyReport report;
    BusyDevice device;
    device.name = "sdb1";
    device.mounts.push_back({"/mnt/sdb1", "ext4", false});
    device.cleared = "/mnt/sdb1";
    report.devices.push_back(device);
    report.holders.push_back(process("file", 7, "/mnt/sdb1/\033[2J", true, true));
    report.holders.back().command = "a\tb\n";
    report.holders.push_back(process("bystander", 12, "/mnt/sdb10", true, false));
    Holder nested;
    nested.kind = "mount";
    nested.device = "sdb1";
    nested.what = "/mnt/sdb1/in";
    nested.more = "tmpfs";
    report.holders.push_back(nested);
    return report;
}

TEST(BusyTable, TellsWhoAndWhomItWouldCost)
{
    EXPECT_EQ(busy_table(hostile_report(), Style()),
              "sdb1 is mounted at /mnt/sdb1 (ext4, read-write).\n"
              "\n"
              "DEVICE  HOLDS      PID  USER  COMMAND     ENDED BY         WHAT\n"
              "sdb1    file         7  joe   a\\x09b\\x0a  rudeoff, rudero  /mnt/sdb1/\\x1b[2J\n"
              "sdb1    bystander   12  joe   vi          rudeoff          /mnt/sdb10\n"
              "sdb1    mount                                              /mnt/sdb1/in (tmpfs)\n"
              "\n"
              "rudeoff: quarryd ends the process when it clears the mount: for `quarryctl umount "
              "--force`,\n"
              "  when the device is pulled, and at its own end (not in the last two cases with "
              "--nfsx).\n"
              "rudero: also for `quarryctl remount --force ro`.\n"
              "bystander: does not hold the device, but uses a path whose beginning is the mount "
              "point's;\n"
              "  quarryd looks at no more than that.\n");
}

TEST(BusyTable, SaysWhenThereIsNothing)
{
    BusyReport report;
    report.devices.push_back({"sdb1", {}, "", false});
    EXPECT_EQ(busy_table(report, Style()), "sdb1 is not mounted.\nNothing holds it.\n");
    report.devices[0].is_active_unmounted = true;
    EXPECT_EQ(busy_table(report, Style()),
              "sdb1 is not mounted here, but its filesystem is in use: it was detached, or is "
              "mounted in a namespace that cannot be seen.\nNothing holds it.\n");
    report.devices[0].mounts = {{"/mnt/a b", "xfs", true}, {"/srv", "xfs", false}};
    report.unseen_processes = 1;
    EXPECT_EQ(busy_table(report, Style()), "sdb1 is mounted at /mnt/a b (xfs, read-only) and at "
                                           "/srv (xfs, read-write).\nNothing is seen to hold "
                                           "it.\n");
}

TEST(BusyGaps, AreToldOneByOne)
{
    BusyReport report;
    EXPECT_TRUE(busy_gaps(report).empty());
    report.unseen_processes = 2;
    report.is_list_partial = true;
    report.unread_memory = {4};
    const std::vector<std::string> expected = {
        "the kernel does not let this user see what 2 processes may hold",
        "other users' processes are hidden here; root sees them",
        "mapped files are not known of 1 process: the kernel did not tell in time",
    };
    EXPECT_EQ(busy_gaps(report), expected);
}

TEST(BusyLines, HaveOneFieldForEachThing)
{
    EXPECT_EQ(busy_lines(hostile_report()),
              "file\tsdb1\t7\tjoe\ta\\x09b\\x0a\trudeoff,rudero\t/mnt/sdb1/\\x1b[2J\t-\n"
              "bystander\tsdb1\t12\tjoe\tvi\trudeoff\t/mnt/sdb10\t-\n"
              "mount\tsdb1\t-\t-\t-\t-\t/mnt/sdb1/in\ttmpfs\n");
}

// Keys that programs rely on, and nothing but ASCII.
TEST(BusyJson, HasItsKeys)
{
    BusyReport report = hostile_report();
    report.holders.erase(report.holders.begin() + 1);
    report.unread_memory = {7};
    EXPECT_EQ(busy_json(report), R"({
  "devices": [
    {
      "name": "sdb1",
      "mounts": [
        {
          "mountpoint": "/mnt/sdb1",
          "fstype": "ext4",
          "read_only": false
        }
      ],
      "cleared": "/mnt/sdb1",
      "active_unmounted": false
    }
  ],
  "holders": [
    {
      "kind": "file",
      "device": "sdb1",
      "pid": 7,
      "uid": 1000,
      "user": "joe",
      "command": "a\tb\n",
      "what": "/mnt/sdb1/\u001b[2J",
      "more": null,
      "ended_by": [
        "rudeoff",
        "rudero"
      ]
    },
    {
      "kind": "mount",
      "device": "sdb1",
      "pid": null,
      "uid": null,
      "user": null,
      "command": null,
      "what": "/mnt/sdb1/in",
      "more": "tmpfs",
      "ended_by": []
    }
  ],
  "unseen_processes": 0,
  "unread_memory": [
    7
  ],
  "list_is_partial": false
}
)");
}
