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

static const char own[] = "/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid,nodev 0 0\n";
static const char bare[] = "/dev/sdb1 /mnt/sdb1 ext4 ro 0 0\n";
static const char his[] = "mine /mnt/sdb1 fuse ro,noexec,user_id=1000 0 0\n";

// A mount gets what it had before the remount, and nothing more.
TEST_F(Remounting, FlagsAreGivenToTheMountThatIsHeld)
{
    static const struct {
        const char *options;
        unsigned long more;
        Deeds deeds;
    } cases[] = {
        {"rw", 0, {}},
        {"rw,nosuid,nodev", 0, {"mount_setattr /mnt/sdb1 6"}},
        {"ro,noexec,nosymfollow", 0, {"mount_setattr /mnt/sdb1 2097160"}},
        {"rw,noexec", MS_NOSUID, {"mount_setattr /mnt/sdb1 10"}},
    };
    machine.MakeDirectory("/mnt/sdb1");
    for (const auto &c : cases) {
        const size_t before = machine.Deeds().size();
        machine.Write("/proc/mounts", std::string("/dev/sdb1 /mnt/sdb1 ext4 ") + c.options + "\n");
        const HeldMount held("/dev/sdb1", "/mnt/sdb1");
        EXPECT_EQ(held.OnTop(), TOP_IS_OWN);
        EXPECT_EQ(held.Name(), "/mnt/sdb1");
        machine.Write("/proc/mounts", bare);
        held.GiveFlagsBack(c.more);
        const Deeds deeds = machine.Deeds();
        EXPECT_EQ(Deeds(deeds.begin() + static_cast<std::ptrdiff_t>(before), deeds.end()), c.deeds)
            << c.options;
    }
    EXPECT_EQ(errors.Take(), "");
}

// A kernel without the call for it is asked by path, which keeps read-only what is.
TEST_F(Remounting, WithoutThatCallABindRemountGivesThem)
{
    machine.MakeDirectory("/mnt/sdb1");
    for (const char *mode : {"rw", "ro"}) {
        machine.Write("/proc/mounts", own);
        const HeldMount held("/dev/sdb1", "/mnt/sdb1");
        machine.Write("/proc/mounts", std::string("/dev/sdb1 /mnt/sdb1 ext4 ") + mode + "\n");
        machine.on_deed = [this](const std::string &deed) {
            if (deed.starts_with("mount "))
                machine.Write("/proc/mounts", own);
        };
        machine.Script(Call::MOUNT_SETATTR, {fails(ENOSYS)});
        held.GiveFlagsBack();
    }
    EXPECT_EQ(machine.Deeds("mount "),
              Deeds({"mount '' /mnt/sdb1 '' 4134", "mount '' /mnt/sdb1 '' 4135"}));
    EXPECT_EQ(errors.Take(), "");
}

// What cannot be opened is named: root alone can change what that name leads to.
TEST_F(Remounting, WhatCannotBeHeldInRootsFolderGetsThemByPath)
{
    machine.Write("/proc/mounts", own);
    const HeldMount held("/dev/sdb1", "/mnt/sdb1");
    EXPECT_EQ(held.OnTop(), TOP_IS_OWN);
    held.GiveFlagsBack();
    EXPECT_EQ(machine.Deeds(), Deeds({"mount '' /mnt/sdb1 '' 4134"}));
    machine.Write("/proc/mounts", "/dev/sdb1 /home/guest/stick ext4 rw 0 0\n");
    const HeldMount elsewhere("/dev/sdb1", "/home/guest/stick");
    EXPECT_EQ(elsewhere.OnTop(), TOP_IS_ANOTHERS);
}

// Each way of failing has its reason. That nothing is mounted there any more is no failure.
TEST_F(Remounting, FlagsThatCannotBeGivenAreALine)
{
    const std::string line = "Cannot protect /mnt/sdb1 again ";
    static const struct {
        std::string table;
        int error;
        const char *reason;
    } cases[] = {
        {bare, EPERM, "Operation not permitted\n"},
        {bare, EINVAL, ""},                     // nothing is mounted there, whatever the table says
        {bare, 0, "Device or resource busy\n"}, // another mount's then
        {std::string(bare) + "root /mnt/sdb1 tmpfs rw 0 0\n", 0, "Device or resource busy\n"},
        {"", 0, ""},
        {own, 0, ""},
    };
    machine.MakeDirectory("/mnt/sdb1");
    for (const auto &c : cases) {
        machine.Write("/proc/mounts", own);
        const HeldMount held("/dev/sdb1", "/mnt/sdb1");
        machine.Write("/proc/mounts", c.table);
        machine.Script(Call::MOUNT_SETATTR, {fails(EPERM)});
        machine.Script(Call::MOUNT, {c.error ? fails(c.error) : returns(0)});
        held.GiveFlagsBack();
        EXPECT_EQ(errors.Take(), *c.reason ? line + c.reason : "") << c.table;
        machine.Script(Call::MOUNT, {});
    }
}

// What a user has put on the mount becomes nosuid and nodev, for the remount may have been his;
// root's is left alone.
TEST_F(Remounting, WhatAUserHasPutOnTheMountIsProtected)
{
    machine.MakeDirectory("/mnt/sdb1");
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n");
    const HeldMount held("/dev/sdb1", "/mnt/sdb1");
    machine.Write("/proc/mounts", std::string(own) + "root /mnt/sdb1 tmpfs rw 0 0\n");
    held.GiveFlagsBack();
    EXPECT_EQ(machine.Deeds(), Deeds());
    machine.Write("/proc/mounts", std::string(own) + his);
    held.GiveFlagsBack();
    EXPECT_EQ(machine.Deeds(), Deeds({"mount_setattr /mnt/sdb1 6"}));
    machine.Script(Call::MOUNT_SETATTR, {fails(ENOSYS)});
    held.GiveFlagsBack();
    EXPECT_EQ(machine.Deeds("mount "), Deeds({"mount '' /mnt/sdb1 '' 4143"}));
    EXPECT_EQ(errors.Take(), "");
    machine.Script(Call::MOUNT_SETATTR, {fails(EPERM)});
    machine.Script(Call::MOUNT, {fails(EPERM)});
    held.GiveFlagsBack();
    EXPECT_EQ(errors.Take(), "Cannot protect /mnt/sdb1 again Operation not permitted\n");
}

// A driver's mount gets both flags. Nothing is taken off by a path, which may lead to the drive's.
TEST_F(Remounting, FreshMountIsProtected)
{
    machine.MakeDirectory("/mnt/sdb1");
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 fuseblk ro,noexec 0 0\n");
    protect_fresh_mount("/dev/sdb1", "/mnt/sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({"mount_setattr /mnt/sdb1 14"}));
    machine.Write("/proc/mounts", "");
    protect_fresh_mount("/dev/sdb1", "/mnt/sdb1");
    machine.Write("/proc/mounts", std::string(own) + his);
    protect_fresh_mount("/dev/sdb1", "/mnt/sdb1");
    EXPECT_EQ(errors.Take(), "");
    machine.Write("/proc/mounts", std::string(bare) + his);
    protect_fresh_mount("/dev/sdb1", "/mnt/sdb1");
    EXPECT_EQ(errors.Take(), "Cannot protect /mnt/sdb1 again Device or resource busy\n");
    EXPECT_EQ(machine.Deeds().size(), 1U);
}

// A mount is on top when its line is the last of that directory, however long another one is.
TEST_F(Remounting, LastLineOfADirectoryIsOnTop)
{
    static const struct {
        std::string more;
        Top top;
    } cases[] = {
        {"", TOP_IS_OWN},
        {"mine /mnt/sdb fuse rw,user_id=1000 0 0\n", TOP_IS_OWN},
        {"mine /mnt/sdb1/inside fuse rw,user_id=1000 0 0\n", TOP_IS_OWN},
        {"/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid 0 0\n", TOP_IS_OWN},
        {"mine /mnt/sdb1 fuse rw,user_id=1000 0 0\n", TOP_IS_ANOTHERS},
        {"/dev/sdb1 /mnt/sdb1 fuse rw,user_id=1000 0 0\n", TOP_IS_ANOTHERS},
        {std::string(1000, 'm') + " /mnt/sdb1 fuse rw,user_id=1000 0 0\n", TOP_IS_ANOTHERS},
        {"tmpfs /mnt/sdb1 tmpfs rw 0 0\n", TOP_IS_ANOTHERS},
    };
    for (const auto &c : cases) {
        MountEntry top;
        machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid 0 0\n" + c.more);
        EXPECT_EQ(look_on_top("/dev/sdb1", "/mnt/sdb1", top), c.top) << c.more;
        EXPECT_EQ(top.options.size(), c.top == TOP_IS_OWN ? 2U : 0U) << c.more;
    }
    MountEntry top;
    EXPECT_EQ(look_on_top("/dev/sdb1", "/mnt/other", top), TOP_IS_NONE);
    machine.Remove("/proc/mounts");
    EXPECT_EQ(look_on_top("/dev/sdb1", "/mnt/sdb1", top), TOP_IS_ANOTHERS);
}

TEST_F(Remounting, TablesNameOfADirectoryIsWhereItsLinksLead)
{
    machine.MakeDirectory("/tmpfs/.mnt/a b");
    machine.Link("/link", "/tmpfs/.mnt");
    EXPECT_EQ(in_mount_table("/link/a b"), "/tmpfs/.mnt/a\\040b");
    EXPECT_EQ(in_mount_table("/none/a b"), "/none/a\\040b");
}
