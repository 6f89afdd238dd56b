// What protects the machine from a drive, and how it comes back after a remount.
#include "mount/remounting.h"

#include <sys/mount.h>

#include "made_up_machine.h"

using Deeds = std::vector<std::string>;
using Remounting = MadeUpMachineTest;

static MountEntry entry_with(const std::string &options)
{
    MountEntry entry;
    EXPECT_TRUE(parse_mount_line("/dev/sdb1 /mnt/sdb1 ext4 " + options + " 0 0", entry));
    return entry;
}

// The flags by their words in the mount table, which are compared as a whole.
TEST_F(Remounting, ProtectionsAreThoseOfTheTable)
{
    static const struct {
        const char *options;
        unsigned long flags;
    } cases[] = {
        {"rw", 0},
        {"rw,nosuid", MS_NOSUID},
        {"rw,nodev", MS_NODEV},
        {"rw,noexec", MS_NOEXEC},
        {"rw,nosymfollow", 256},
        {"ro,nosuid,nodev,relatime", MS_NOSUID | MS_NODEV},
        {"nosymfollow,noexec,nodev,nosuid", 256 | MS_NOEXEC | MS_NODEV | MS_NOSUID},
        {"rw,suid,dev,exec", 0},
        {"rw,nosuids,nodevs,xnoexec,noatime,sync", 0},
        {"rw,NOSUID", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(protecting_flags(entry_with(c.options)), c.flags) << c.options;
    EXPECT_EQ(protecting_flags(MountEntry()), 0UL);
}

// One bind remount with those flags, which keeps read-only what is; nothing without a flag.
TEST_F(Remounting, FlagsComeBackByABindRemount)
{
    machine.Write("/proc/mounts", "");
    put_flags_back("/dev/sdb1", "/mnt/sdb1", MS_NOSUID | MS_NODEV, false);
    put_flags_back("/dev/sdb1", "/mnt/sdb1", MS_NOSUID | MS_NODEV, true);
    put_flags_back("/dev/sdb1", "/other\\040place", MS_NOEXEC, false);
    put_flags_back("/dev/sdb1", "/mnt/sdb1", 0, false);
    put_flags_back("/dev/sdb1", "/mnt/sdb1", 0, true);
    EXPECT_EQ(machine.Deeds(), Deeds({"mount '' /mnt/sdb1 '' 4134", "mount '' /mnt/sdb1 '' 4135",
                                      "mount '' /other place '' 4136"}));
    EXPECT_EQ(errors.Take(), "");
}

// That nothing is mounted there any more is no refusal; that nobody can tell is said.
TEST_F(Remounting, KernelsRefusalIsALine)
{
    machine.Write("/proc/mounts", "");
    machine.Script(Call::MOUNT, {fails(EPERM), fails(EINVAL)});
    put_flags_back("/dev/sdb1", "/mnt/sdb1", MS_NOSUID, false);
    EXPECT_EQ(errors.Take(), "Cannot protect /mnt/sdb1 again Operation not permitted\n");
    put_flags_back("/dev/sdb1", "/mnt/sdb1", MS_NOSUID, false);
    EXPECT_EQ(errors.Take(), "");
    machine.Remove("/proc/mounts");
    put_flags_back("/dev/sdb1", "/mnt/sdb1", MS_NOSUID, false);
    EXPECT_EQ(errors.Take(), "Cannot access /proc/mounts\n");
}

// What lies on the device's mount becomes nosuid and nodev; root's is left there.
TEST_F(Remounting, WhatLiesOnTheMountIsProtected)
{
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid,nodev 0 0\n"
                                  "mine /mnt/sdb1 fuse ro,noexec,user_id=1000 0 0\n");
    put_flags_back("/dev/sdb1", "/mnt/sdb1", MS_NOSUID | MS_NODEV, false);
    EXPECT_EQ(machine.Deeds(), Deeds({"mount '' /mnt/sdb1 '' 4134", "mount '' /mnt/sdb1 '' 4143"}));
    EXPECT_EQ(errors.Take(), "");
}

// A mount is on top when its line is the last of that directory, however long another one is.
TEST_F(Remounting, LastLineOfADirectoryIsOnTop)
{
    const std::string own = "/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid 0 0\n";
    static const struct {
        std::string more;
        bool is_on_top;
    } cases[] = {
        {"", true},
        {"mine /mnt/sdb fuse rw,user_id=1000 0 0\n", true},
        {"mine /mnt/sdb1/inside fuse rw,user_id=1000 0 0\n", true},
        {"/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid 0 0\n", true},
        {"mine /mnt/sdb1 fuse rw,user_id=1000 0 0\n", false},
        {"/dev/sdb1 /mnt/sdb1 fuse rw,user_id=1000 0 0\n", false},
        {std::string(1000, 'm') + " /mnt/sdb1 fuse rw,user_id=1000 0 0\n", false},
        {"tmpfs /mnt/sdb1 tmpfs rw 0 0\n", false},
    };
    MountEntry entry;
    for (const auto &c : cases) {
        machine.Write("/proc/mounts", own + c.more);
        EXPECT_EQ(find_on_top("/dev/sdb1", "/mnt/sdb1", entry), c.is_on_top) << c.more;
        EXPECT_EQ(is_covered("/dev/sdb1", "/mnt/sdb1"), !c.is_on_top) << c.more;
    }
    EXPECT_EQ(entry.options, std::vector<std::string>({"rw", "nosuid"}));
    EXPECT_FALSE(find_on_top("/dev/sdb1", "/mnt/other", entry));
    EXPECT_FALSE(is_covered("/dev/sdb1", "/mnt/other"));
    machine.Remove("/proc/mounts");
    EXPECT_FALSE(find_on_top("/dev/sdb1", "/mnt/sdb1", entry));
    EXPECT_TRUE(is_covered("/dev/sdb1", "/mnt/sdb1"));
}

TEST_F(Remounting, TablesNameOfADirectoryIsWhereItsLinksLead)
{
    machine.MakeDirectory("/tmpfs/.mnt/a b");
    machine.Link("/link", "/tmpfs/.mnt");
    EXPECT_EQ(in_mount_table("/link/a b"), "/tmpfs/.mnt/a\\040b");
    EXPECT_EQ(in_mount_table("/none/a b"), "/none/a\\040b");
}
