// The kernel's tables of mounts and filesystem types.
#include "mount/mount_tables.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

#include "made_up_machine.h"

using namespace std::string_literals;

using MountTables = MadeUpMachineTest;
using Words = std::vector<std::string>;
using Names = std::list<std::string>;

// Fields end at blanks alone; what is missing is empty, and nothing is decoded.
TEST(MountLine, EndsItsFieldsAtBlanks)
{
    static const struct {
        const char *line;
        const char *device, *mountpoint, *fstype;
        Words options;
    } cases[] = {
        {"/dev/sdb1 /mnt/sdb1 ext4 rw,noatime 0 0",
         "/dev/sdb1",
         "/mnt/sdb1",
         "ext4",
         {"rw", "noatime"}},
        {"proc /proc proc rw 0 0", "proc", "/proc", "proc", {"rw"}},
        {"/dev/root / ext4 rw,,noatime 0 0", "/dev/root", "/", "ext4", {"rw", "", "noatime"}},
        {"   /dev/sdb1    /mnt/sdb1   ext4   rw   0 0", "/dev/sdb1", "/mnt/sdb1", "ext4", {"rw"}},
        {"//host/share /mnt/a\\040b cifs rw 0 0", "//host/share", "/mnt/a\\040b", "cifs", {"rw"}},
        {"/dev/sdb1\t/mnt/sdb1 ext4 rw 0", "/dev/sdb1\t/mnt/sdb1", "ext4", "rw", {"0"}},
        {"#/dev/sdb1 /mnt ext4 rw", "#/dev/sdb1", "/mnt", "ext4", {"rw"}},
        {"a b c ,", "a", "b", "c", {"", ""}},
        {"a b c", "a", "b", "c", {}}, // short lines, which the kernel does not write
        {"a b c ", "a", "b", "c", {}},
        {"a b", "a", "b", "", {}},
        {"a", "a", "", "", {}},
        {"   ", "", "", "", {}},
        {"", "", "", "", {}},
    };
    for (const auto &c : cases) {
        MountEntry entry;
        entry.options = {"left over"};
        EXPECT_TRUE(parse_mount_line(c.line, entry)) << c.line;
        EXPECT_EQ(entry.device, c.device) << c.line;
        EXPECT_EQ(entry.mountpoint, c.mountpoint) << c.line;
        EXPECT_EQ(entry.fstype, c.fstype) << c.line;
        EXPECT_EQ(entry.options, c.options) << c.line;
    }
}

// 511 characters of a line count: options behind them are lost. When even the first three fields do
// not fit there is no entry, for half a mount point is the name of another directory.
TEST(MountLine, CountsUpTo511Characters)
{
    const std::string head = "/dev/sdb1 /mnt/sdb1 ext4 ";
    MountEntry entry;
    for (size_t size : {510U, 511U, 512U, 513U, 5000U}) {
        EXPECT_TRUE(parse_mount_line(head + std::string(size - head.size(), 'o'), entry)) << size;
        ASSERT_EQ(entry.options.size(), 1U);
        EXPECT_EQ(entry.options[0].size(), std::min<size_t>(size, 511) - head.size()) << size;
    }
    for (size_t size : {511U, 512U, 5000U}) {
        const std::string tail = " ext4";
        const std::string mountpoint = "/" + std::string(size - 11 - tail.size(), 'm');
        const bool fits = size <= 511;
        EXPECT_EQ(parse_mount_line("/dev/sdb1 " + mountpoint + tail, entry), fits) << size;
        if (fits) {
            EXPECT_EQ(entry.mountpoint, mountpoint);
        }
    }
    EXPECT_FALSE(parse_mount_line(std::string(100000, 'd'), entry));
}

// "rw" and "ro" are never cut in two: an entry that says neither would be neither.
TEST(MountLine, KeepsReadWriteWholeOrNotAtAll)
{
    MountEntry entry;
    for (size_t kept : {0U, 1U, 2U, 3U}) { // characters of the options that fit
        const std::string head = "/dev/sdb1 /" + std::string(511 - 11 - 6 - kept, 'm') + " ext4 ";
        ASSERT_EQ(head.size(), 511 - kept);
        EXPECT_EQ(parse_mount_line(head + "rw,relatime 0 0", entry), kept >= 2) << kept;
        if (kept >= 2) {
            EXPECT_EQ(entry.options[0], "rw") << kept;
        }
    }
}

// The table is the kernel's, line for line, in its order.
TEST_F(MountTables, ReadsTheKernelsMounts)
{
    machine.Write("/proc/mounts", "/dev/sda1 / ext4 rw 0 0\n"
                                  "\n"
                                  "proc /proc proc rw 0 0\n"
                                  "/dev/sdb1 /mnt/sdb1 vfat ro 0 0"); // no line end
    ReadProcMounts();
    ASSERT_EQ(mount_list.size(), 3U);
    EXPECT_EQ(mount_list.front().mountpoint, "/");
    EXPECT_EQ(mount_list.back().device, "/dev/sdb1");
    EXPECT_EQ(mount_list.back().options, Words({"ro"}));
    machine.Write("/proc/mounts", "proc /proc proc rw 0 0\n");
    ReadProcMounts();
    EXPECT_EQ(mount_list.size(), 1U);
    EXPECT_EQ(errors.Take(), "");
}

// A line that is too long spoils no other.
TEST_F(MountTables, LongLineSpoilsNoOther)
{
    machine.Write("/proc/mounts", "/dev/sda1 / ext4 rw 0 0\n/dev/sdb1 /" + std::string(600, 'm') +
                                      " ext4 rw 0 0\noverlay /o overlay lowerdir=" +
                                      std::string(9000, 'l') + " 0 0\n/dev/sdc1 /c ext4 rw 0 0\n");
    ReadProcMounts();
    Words devices;
    for (const MountEntry &entry : mount_list)
        devices.push_back(entry.device);
    EXPECT_EQ(devices, Words({"/dev/sda1", "overlay", "/dev/sdc1"}));
}

// Ten thousand mounts, and bytes that no kernel writes.
TEST_F(MountTables, TakesHugeAndHostileTables)
{
    std::string table;
    for (int i = 0; i < 10000; i++)
        table += "/dev/sd" + std::to_string(i) + " /mnt/" + std::to_string(i) + " ext4 rw 0 0\n";
    machine.Write("/proc/mounts", table);
    ReadProcMounts();
    ReadFstab();
    EXPECT_EQ(mount_list.size(), 10000U);
    EXPECT_EQ(fstab_list.size(), 10000U);
    EXPECT_EQ(mount_list.back().device, "/dev/sd9999");

    machine.Write("/proc/mounts", "\0\0\0 \xFF\n\r\n \n/dev/sda1 / ext4 rw\n"s);
    ReadProcMounts();
    ReadFstab();
    EXPECT_EQ(mount_list.back().mountpoint, "/");
    EXPECT_EQ(fstab_list.back().mountpoint, "/");
}

// Without the kernel's table every device counts as not mounted.
TEST_F(MountTables, UnreadableMountsEmptyTheTable)
{
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n");
    ReadProcMounts();
    ASSERT_NE(FindMount("device", "/dev/sdb1"), nullptr);
    machine.Refuse("/proc/mounts", EACCES);
    ReadProcMounts();
    EXPECT_EQ(errors.Take(), "Cannot access /proc/mounts\n");
    EXPECT_EQ(mount_list.size(), 0U);
    EXPECT_EQ(FindMount("device", "/dev/sdb1"), nullptr);
}

// A table that breaks off is none: what is missing from it might be what is asked for.
TEST_F(MountTables, TableThatBreaksOffIsNone)
{
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n" + std::string(20000, '\n'));
    machine.Script(Call::READ, {really, fails(EIO)});
    ReadProcMounts();
    EXPECT_EQ(errors.Take(), "Cannot access /proc/mounts\n");
    EXPECT_EQ(mount_list.size(), 0U);

    ReadFstab();
    ASSERT_EQ(fstab_list.size(), 1U);
    machine.Script(Call::READ, {really, fails(EIO)});
    ReadFstab();
    EXPECT_EQ(errors.Take(), "Cannot access /etc/fstab\n");
    EXPECT_EQ(fstab_list.size(), 0U);
}

// The first of several mounts is found, which is the earliest; comparison is exact.
TEST_F(MountTables, FindsTheFirstExactMatch)
{
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n"
                                  "/dev/sdb1 /other ext4 rw 0 0\n"
                                  "tmpfs /other tmpfs rw 0 0\n");
    ReadProcMounts();
    static const struct {
        const char *category, *value, *found; // the mount point of what is found
    } cases[] = {
        {"device", "/dev/sdb1", "/mnt/sdb1"},  {"mountpoint", "/mnt/sdb1", "/mnt/sdb1"},
        {"mountpoint", "/other", "/other"},    {"device", "/dev/sdb", nullptr},
        {"device", "/dev/sdb11", nullptr},     {"device", "sdb1", nullptr},
        {"device", "/mnt/sdb1", nullptr},      {"device", "", nullptr},
        {"mountpoint", "/mnt/sdb1/", nullptr}, // slashes are not put in order
        {"mountpoint", "/mnt//sdb1", nullptr}, {"mountpoint", "/mnt", nullptr},
    };
    for (const auto &c : cases) {
        const MountEntry *entry = FindMount(c.category, c.value);
        ASSERT_EQ(entry != nullptr, c.found != nullptr) << c.value;
        if (entry) {
            EXPECT_EQ(entry->mountpoint, c.found);
        }
    }
    EXPECT_EQ(FindMount("mountpoint", "/other")->device, "/dev/sdb1");
    EXPECT_EQ(errors.Take(), "");
}

// A user's own FUSE mount can call itself /dev/sdb1; it is no mount of that device.
TEST_F(MountTables, MountsThatAnyUserCanMakeAreNoDevices)
{
    machine.Write("/proc/mounts", "/dev/sdb1 /home/guest/x fuse.sshfs rw,user_id=1000 0 0\n"
                                  "/dev/sdb1 /home/guest/y fuse rw,user_id=1000 0 0\n"
                                  "/dev/sdb1 /mnt/sdb1 fuseblk rw 0 0\n"
                                  "/dev/sdc1 /home/guest/z fuse.x rw 0 0\n");
    ReadProcMounts();
    EXPECT_EQ(FindMount("device", "/dev/sdb1")->mountpoint, "/mnt/sdb1");
    EXPECT_EQ(FindMount("device", "/dev/sdc1"), nullptr);
    EXPECT_NE(FindMount("mountpoint", "/home/guest/z"), nullptr);

    machine.Write("/proc/mounts", "/dev/sdb1 /a fuse.x rw,user_id=10 0 0\n"
                                  "/dev/sdb1 /b fuse rw,user_id=0,group_id=0 0 0\n");
    ReadProcMounts();
    EXPECT_EQ(FindMount("device", "/dev/sdb1")->mountpoint, "/b");
}

// A category that there is not is a line on stderr and no entry.
TEST_F(MountTables, UnknownCategoryIsTold)
{
    machine.Write("/proc/mounts", "x x x x 0 0\n");
    ReadProcMounts();
    EXPECT_EQ(FindMount("dev", "x"), nullptr);
    EXPECT_EQ(errors.Take(), "unknown category dev val x\n");
    EXPECT_EQ(FindMount("", ""), nullptr);
    EXPECT_EQ(errors.Take(), "unknown category  val \n");
    EXPECT_EQ(FindMount("Device", "x"), nullptr);
    EXPECT_EQ(FindMount("device ", "x"), nullptr);
}

// The second table: its separator is the tab as soon as the line has one anywhere.
TEST(FstabLine, SeparatesAtTabsIfThereAreAny)
{
    static const struct {
        const char *line;
        bool is_entry;
        const char *device, *mountpoint;
        Words fstypes, options;
    } cases[] = {
        {"/dev/sdb1 /mnt/sdb1 ext4 rw,noatime 0 0",
         true,
         "/dev/sdb1",
         "/mnt/sdb1",
         {"ext4"},
         {"rw", "noatime"}},
        {"/dev/sdb1\t/mnt/sdb1\text3,ext4\trw,,ro\t0\t0",
         true,
         "/dev/sdb1",
         "/mnt/sdb1",
         {"ext3", "ext4"},
         {"rw", "", "ro"}},
        {"/dev/sdb1\t\t/mnt/a b\t\text4\t\trw", true, "/dev/sdb1", "/mnt/a b", {"ext4"}, {"rw"}},
        {"/dev/sdb1 /mnt/sdb1 ext4 rw\t0 0", true, "/dev/sdb1 /mnt/sdb1 ext4 rw", "0 0", {}, {}},
        {"   /dev/sdb1   /mnt/sdb1", true, "/dev/sdb1", "/mnt/sdb1", {}, {}},
        {"  \t/dev/sdb1\t/mnt", true, "", "/dev/sdb1", {"/mnt"}, {}}, // blanks alone are skipped
        {"# a comment", true, "#", "a", {"comment"}, {}},
        {"/dev/sdb1 ", true, "/dev/sdb1", "", {}, {}},
        {"/dev/sdb1", false, "", "", {}, {}}, // no separator
        {"", false, "", "", {}, {}},
        {"     ", false, "", "", {}, {}},
        {"\t", true, "", "", {}, {}},
    };
    for (const auto &c : cases) {
        FstabEntry entry;
        ASSERT_EQ(parse_fstab_line(c.line, entry), c.is_entry) << c.line;
        EXPECT_EQ(entry.device, c.device) << c.line;
        EXPECT_EQ(entry.mountpoint, c.mountpoint) << c.line;
        EXPECT_EQ(entry.fstypes, c.fstypes) << c.line;
        EXPECT_EQ(entry.options, c.options) << c.line;
    }
    FstabEntry entry;
    entry.fstypes = entry.options = {"left over"};
    parse_fstab_line("a b c d", entry);
    EXPECT_EQ(entry.fstypes, Words({"c"}));
    EXPECT_EQ(entry.options, Words({"d"}));
}

// It counts 511 characters, too; a tab behind them is not there.
TEST(FstabLine, CountsUpTo511Characters)
{
    FstabEntry entry;
    EXPECT_TRUE(parse_fstab_line("a " + std::string(600, 'm') + "\tx", entry));
    EXPECT_EQ(entry.device, "a");
    EXPECT_EQ(entry.mountpoint, std::string(509, 'm'));
    EXPECT_FALSE(parse_fstab_line(std::string(511, 'm') + " x", entry));
    EXPECT_TRUE(parse_fstab_line(std::string(510, 'm') + " x", entry));
}

// The second table comes from the kernel's mounts as well, with the time of that file.
TEST_F(MountTables, SecondTableIsReadFromTheMountsToo)
{
    machine.Write("/proc/mounts",
                  "/dev/sda1 / ext4 rw 0 0\nnothing\n\n/dev/sdb1 /mnt/sdb1 vfat ro");
    machine.Write("/etc/fstab", "/dev/sdz1 /z ext4 rw 0 0\n");
    machine.SetModified("/proc/mounts", 1234567);
    ReadFstab();
    ASSERT_EQ(fstab_list.size(), 2U);
    EXPECT_EQ(fstab_list.back().options, Words({"ro"}));
    EXPECT_EQ(fstab_mtime, 1234567);
    ReadFstab(); // the same time again keeps nobody from reading
    EXPECT_EQ(fstab_list.size(), 2U);
    EXPECT_EQ(machine.Opened("/proc/mounts"), 2);
    EXPECT_EQ(machine.Opened("/etc/fstab"), 0);
}

// Its messages name another file, and one is spelt oddly; both are meant.
TEST_F(MountTables, SecondTablesMessagesNameFstab)
{
    machine.Write("/proc/mounts", "/dev/sda1 / ext4 rw 0 0\n");
    ReadFstab();
    const time_t read_at = fstab_mtime;
    machine.Script(Call::STAT, {fails(ENOENT)});
    ReadFstab();
    EXPECT_EQ(errors.Take(), "WaRNING: cannot stat /etc/fstab\n");
    EXPECT_EQ(fstab_list.size(), 1U); // the table stays
    EXPECT_EQ(fstab_mtime, read_at);

    machine.Script(Call::OPEN, {fails(EACCES)});
    ReadFstab();
    EXPECT_EQ(errors.Take(), "Cannot access /etc/fstab\n");
    EXPECT_EQ(fstab_list.size(), 0U); // it is empty
}

// Look-ups in the second table are exact and take the first match, like those in the first.
TEST_F(MountTables, FindsInTheSecondTable)
{
    machine.Write("/proc/mounts",
                  "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n/dev/sdb1 /other ext4 rw 0 0\n");
    ReadFstab();
    EXPECT_EQ(FindFstab("device", "/dev/sdb1"), &fstab_list.front());
    EXPECT_EQ(FindFstab("mountpoint", "/other"), &fstab_list.back());
    EXPECT_EQ(FindFstab("mountpoint", "/other/"), nullptr);
    EXPECT_EQ(FindFstab("device", ""), nullptr);
    EXPECT_EQ(FindFstab("dev", "/dev/sdb1"), nullptr);
    EXPECT_EQ(errors.Take(), ""); // not a word about the category here
}

// The first column decides between the two lists.
TEST_F(MountTables, SortsFilesystemTypes)
{
    machine.Write("/proc/filesystems", "nodev\tsysfs\n"
                                       "\text4\n"
                                       "nodev\tfuse\n"
                                       "\n"
                                       "no tab here\n"
                                       "\tvfat\tand more\n"
                                       "NODEV\tx\n"
                                       "nodev \ty\n"
                                       "\t\n"
                                       "\tlast");
    ReadProcFilesystems();
    EXPECT_EQ(filesystems_nodev_list, Names({"sysfs", "fuse"}));
    EXPECT_EQ(filesystems_list, Names({"ext4", "vfat\tand more", "x", "y", "", "last"}));

    static const struct {
        const char *name;
        int nodev;
        bool have;
    } cases[] = {
        {"fuse", 1, true},  {"fuse", 0, false}, {"ext4", 0, true},   {"ext4", 1, false},
        {"ext4", 2, true},  {"ext4", -1, true}, // only 1 is the other list
        {"fuse", 2, false}, {"ext", 0, false},  {"ext44", 0, false}, {"EXT4", 0, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(HaveFilesystem(c.name, c.nodev), c.have) << c.name << c.nodev;
}

// 127 characters of a line count, the column and the tab included.
TEST_F(MountTables, FilesystemLineCountsUpTo127Characters)
{
    for (size_t size : {126U, 127U, 128U, 1000U}) {
        machine.Write("/proc/filesystems", "\t" + std::string(size - 1, 'f') + "\nnodev\t" +
                                               std::string(size - 6, 'n') + "\n" +
                                               std::string(size, ' ') + "\tx\n");
        ReadProcFilesystems();
        const size_t length = std::min<size_t>(size, 127);
        EXPECT_EQ(filesystems_nodev_list, Names({std::string(length - 6, 'n')})) << size;
        EXPECT_EQ(filesystems_list.front(), std::string(length - 1, 'f')) << size;
        EXPECT_EQ(filesystems_list.size(), size <= 126 ? 2U : 1U) << size;
    }
}

// What was read before stays when the list cannot be read again.
TEST_F(MountTables, UnreadableFilesystemsKeepTheLists)
{
    machine.Write("/proc/filesystems", "nodev\tfuse\n\text4\n");
    ReadProcFilesystems();
    machine.Refuse("/proc/filesystems", EACCES);
    ReadProcFilesystems();
    EXPECT_EQ(errors.Take(), "Cannot read /proc/filesystems\n");
    EXPECT_TRUE(HaveFilesystem("fuse", 1));
    EXPECT_TRUE(HaveFilesystem("ext4", 0));
}

// Half a list of types is not put in the place of a whole one.
TEST_F(MountTables, FilesystemsThatBreakOffKeepTheLists)
{
    machine.Write("/proc/filesystems", "nodev\tfuse\n\text4\n");
    ReadProcFilesystems();
    machine.Write("/proc/filesystems", "\tvfat\n" + std::string(20000, '\n'));
    machine.Script(Call::READ, {really, fails(EIO)});
    ReadProcFilesystems();
    EXPECT_EQ(errors.Take(), "Cannot read /proc/filesystems\n");
    EXPECT_EQ(filesystems_nodev_list, Names({"fuse"}));
    EXPECT_EQ(filesystems_list, Names({"ext4"}));
}

// A reading leaves nothing of the one before, not even when there is nothing to read.
TEST_F(MountTables, ReplacesFilesystemLists)
{
    machine.Write("/proc/filesystems", "nodev\tfuse\n\text4\n");
    ReadProcFilesystems();
    machine.Write("/proc/filesystems", "");
    ReadProcFilesystems();
    EXPECT_EQ(filesystems_list.size() + filesystems_nodev_list.size(), 0U);
}

// Both lists for people; each line is out at once, though the stream would keep it.
TEST_F(MountTables, DumpsFilesystemsLineByLine)
{
    Printed output(stdout);
    DumpFilesystems(stdout);
    EXPECT_EQ(output.Take(), "filesystems\nfilesystems (nodev)\n");
    filesystems_list = {"ext4", "vfat"};
    filesystems_nodev_list = {"proc"};
    DumpFilesystems(stdout);
    EXPECT_EQ(output.Take(), "filesystems\n  ext4\n  vfat\nfilesystems (nodev)\n  proc\n");

    char buffer[1024];
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    FILE *stream = fdopen(ends[1], "w");
    DumpFilesystems(stream);
    const std::string all = "filesystems\n  ext4\n  vfat\nfilesystems (nodev)\n  proc\n";
    EXPECT_EQ(read(ends[0], buffer, sizeof(buffer)), static_cast<ssize_t>(all.size()));
    fclose(stream);
    close(ends[0]);
}

// An option is a whole word of the entry's, in the letters of the kernel.
TEST(MountOptions, AreWholeWords)
{
    MountEntry entry;
    entry.options = {"rw", "", "errors=remount-ro", "nosuid"};
    for (const char *option : {"rw", "nosuid", "errors=remount-ro", ""})
        EXPECT_TRUE(has_option(entry, option)) << option;
    for (const char *option : {"ro", "r", "rwx", "RW", "suid", "nosuid ", "errors", "remount-ro"})
        EXPECT_FALSE(has_option(entry, option)) << option;
    EXPECT_FALSE(has_option(MountEntry(), "rw"));
    EXPECT_FALSE(has_option(MountEntry(), ""));
}
