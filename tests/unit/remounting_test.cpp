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
    put_flags_back("/mnt/sdb1", MS_NOSUID | MS_NODEV, false);
    put_flags_back("/mnt/sdb1", MS_NOSUID | MS_NODEV, true);
    put_flags_back("/other place", MS_NOEXEC, false);
    put_flags_back("/mnt/sdb1", 0, false);
    put_flags_back("/mnt/sdb1", 0, true);
    EXPECT_EQ(machine.Deeds(), Deeds({"mount '' /mnt/sdb1 '' 4134", "mount '' /mnt/sdb1 '' 4135",
                                      "mount '' /other place '' 4136"}));
    EXPECT_EQ(errors.Take(), "");
}

// That nothing is mounted there any more is no refusal.
TEST_F(Remounting, KernelsRefusalIsALine)
{
    machine.Script(Call::MOUNT, {fails(EPERM), fails(EINVAL)});
    put_flags_back("/mnt/sdb1", MS_NOSUID, false);
    EXPECT_EQ(errors.Take(), "Cannot protect /mnt/sdb1 again Operation not permitted\n");
    put_flags_back("/mnt/sdb1", MS_NOSUID, false);
    EXPECT_EQ(errors.Take(), "");
}

// Of a directory it is what is mounted there, under the name that the kernel's table gives it.
TEST_F(Remounting, DirectorysFlagsAreThoseOfItsMount)
{
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/a\\040b ext4 rw,nosuid 0 0\n"
                                  "/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid,nodev 0 0\n");
    ReadProcMounts();
    EXPECT_EQ(protecting_flags_of("/mnt/sdb1"), static_cast<unsigned long>(MS_NOSUID | MS_NODEV));
    EXPECT_EQ(protecting_flags_of("/mnt/a b"), static_cast<unsigned long>(MS_NOSUID));
    EXPECT_EQ(protecting_flags_of("/mnt/sdb"), 0UL);
    EXPECT_EQ(protecting_flags_of("/dev/sdb1"), 0UL);
}
