// Which drivers a mount tries, with what, and how it waits for the kernel's table.
#include "mount/mounting.h"

#include <cstdlib>
#include <cstring>
#include <sys/mount.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"

using Deeds = std::vector<std::string>;

// Every type that the kernel could know.
static const char all_types[] = "nodev\tproc\n\text4\n\text3\n\text2\n\tudf\n\txfs\n\thfsplus\n"
                                "\thfs\n\tiso9660\n\tvfat\n\tntfs\n\treiserfs\n\tbtrfs\n";

class TryDrivers : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        SetTypes(all_types);
        machine.on_exec = [](char *const *arguments) {
            if (strcmp(arguments[0], "sh") != 0)
                _exit(1); // no driver program mounts anything
        };
    }

    void SetTypes(const std::string &table)
    {
        machine.Write("/proc/filesystems", table);
        ReadProcFilesystems();
    }

    bool Try(const std::string &known, bool read_only)
    {
        candidate = "old";
        return try_drivers("sdb1", "/mnt/sdb1", known, read_only, !read_only, candidate);
    }

    // The candidates that are tried, in their order, when none of them mounts.
    std::string Tried(const std::string &known, bool read_only)
    {
        const size_t before = machine.Deeds().size();
        machine.Script(Call::MOUNT, std::vector<Answer>(20, fails(EINVAL)));
        EXPECT_FALSE(Try(known, read_only));
        const Deeds deeds = machine.Deeds();
        std::string tried;
        for (size_t index = before; index < deeds.size(); index++) {
            std::string word;
            if (deeds[index].starts_with("mount /dev/sdb1 /mnt/sdb1 "))
                word = deeds[index].substr(26, deeds[index].rfind(' ') - 26);
            else if (deeds[index].starts_with("execv /bin/ntfs-3g"))
                word = "*ntfs-3g";
            else if (deeds[index].starts_with("execv /sbin/mount.exfat"))
                word = "*mount.exfat";
            if (!word.empty())
                tried += (tried.empty() ? "" : " ") + word;
        }
        errors.Take();
        return tried;
    }

    std::string candidate;
};

static const char all_for_writing[] = "ext4 ext3 ext2 udf xfs hfsplus hfs iso9660 vfat *ntfs-3g "
                                      "*mount.exfat ntfs reiserfs btrfs";
static const char all_for_reading[] = "ext4 ext3 ext2 udf xfs hfsplus hfs iso9660 vfat "
                                      "*mount.exfat ntfs reiserfs btrfs";

// A filesystem that is not known walks all candidates, in their order; *ntfs-3g only writes.
TEST_F(TryDrivers, UnknownFilesystemTriesAll)
{
    for (const char *known : {"", " ", "zfs", "ext4 ", "hfsplus", "reiserfs"}) {
        EXPECT_EQ(Tried(known, false), all_for_writing) << known;
        EXPECT_EQ(Tried(known, true), all_for_reading) << known;
    }
}

// A known one tries its own alone, in whatever letters it is written.
TEST_F(TryDrivers, KnownFilesystemTriesItsOwn)
{
    static const struct {
        const char *known;
        const char *for_writing;
        const char *for_reading;
    } cases[] = {
        {"exfat", "*mount.exfat", "*mount.exfat"},
        {"ext2", "ext4 ext3 ext2", "ext4 ext3 ext2"},
        {"ext3", "ext4 ext3 ext2", "ext4 ext3 ext2"},
        {"ext4", "ext4 ext3 ext2", "ext4 ext3 ext2"},
        {"fat", "vfat", "vfat"},
        {"iso9660", "iso9660", "iso9660"},
        {"ntfs", "*ntfs-3g ntfs", "ntfs"},
        {"udf", "udf", "udf"},
        {"hfs", "hfs", "hfs"},
        {"hfs+", "hfsplus", "hfsplus"},
        {"btrfs", "btrfs", "btrfs"},
        {"xfs", "xfs", "xfs"},
        {"EXT4", "ext4 ext3 ext2", "ext4 ext3 ext2"},
        {"ExFAT", "*mount.exfat", "*mount.exfat"},
        {"NTFS", "*ntfs-3g ntfs", "ntfs"},
        {"HFS+", "hfsplus", "hfsplus"},
        {"ISO9660", "iso9660", "iso9660"},
        {"FAT", "vfat", "vfat"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Tried(c.known, false), c.for_writing) << c.known;
        EXPECT_EQ(Tried(c.known, true), c.for_reading) << c.known;
    }
}

// The call of mount(2) and the line before it, to the letter; the first that mounts is the one.
TEST_F(TryDrivers, FirstThatMountsIsTheOne)
{
    EXPECT_TRUE(Try("ext4", false));
    EXPECT_EQ(candidate, "ext4");
    EXPECT_EQ(machine.Deeds(), Deeds({"mount /dev/sdb1 /mnt/sdb1 ext4 6"})); // nosuid, nodev
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sdb1 -> ext4 (known fs 'ext4')\n");

    machine.Script(Call::MOUNT, {fails(EINVAL), fails(EINVAL)});
    EXPECT_TRUE(Try(" ", true));
    EXPECT_EQ(candidate, "ext2");
    EXPECT_EQ(machine.Deeds(),
              Deeds({"mount /dev/sdb1 /mnt/sdb1 ext4 6", "mount /dev/sdb1 /mnt/sdb1 ext4 7",
                     "mount /dev/sdb1 /mnt/sdb1 ext3 7", "mount /dev/sdb1 /mnt/sdb1 ext2 7"}));
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sdb1 -> ext4 (known fs ' ')\n"
                             "Trying kernel driver /dev/sdb1 -> ext3 (known fs ' ')\n"
                             "Trying kernel driver /dev/sdb1 -> ext2 (known fs ' ')\n");
}

// "Not my filesystem" is no news; every other failure is a line, and the search goes on.
TEST_F(TryDrivers, FailuresAreToldAndTheSearchGoesOn)
{
    const std::string ext4 = "Trying kernel driver /dev/sdb1 -> ext4 (known fs 'ext2')\n";
    const std::string ext3 = "Trying kernel driver /dev/sdb1 -> ext3 (known fs 'ext2')\n";
    const std::string ext2 = "Trying kernel driver /dev/sdb1 -> ext2 (known fs 'ext2')\n";
    machine.Script(Call::MOUNT, {fails(EBUSY), fails(EINVAL), fails(EACCES)});
    EXPECT_FALSE(Try("ext2", false));
    EXPECT_EQ(candidate, "old");
    EXPECT_EQ(errors.Take(),
              ext4 + "Asked to mount sdb1 at /mnt/sdb1, as ext4 failed: Device or resource busy\n" +
                  ext3 + ext2 +
                  "Asked to mount sdb1 at /mnt/sdb1, as ext2 failed: Permission denied\n");
    for (int error : {EPERM, ENODEV, EIO, ENOENT, EROFS, ENOTBLK}) {
        machine.Script(Call::MOUNT, {fails(error)});
        EXPECT_TRUE(Try("ext2", false)) << error;
        EXPECT_EQ(candidate, "ext3") << error;
        EXPECT_EQ(errors.Take(), ext4 + "Asked to mount sdb1 at /mnt/sdb1, as ext4 failed: " +
                                     strerror(error) + "\n" + ext3);
    }
}

// A drive without a medium has one for nobody.
TEST_F(TryDrivers, MissingMediumEndsTheSearch)
{
    machine.Script(Call::MOUNT, {fails(EINVAL), fails(ENOMEDIUM)});
    EXPECT_FALSE(Try("", false));
    EXPECT_EQ(machine.Deeds(),
              Deeds({"mount /dev/sdb1 /mnt/sdb1 ext4 6", "mount /dev/sdb1 /mnt/sdb1 ext3 6"}));
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sdb1 -> ext4 (known fs '')\n"
                             "Trying kernel driver /dev/sdb1 -> ext3 (known fs '')\n"
                             "Asked to mount sdb1 at /mnt/sdb1, as ext3 failed: No medium found\n");
}

// A type that the kernel does not have gets its module; without that it is passed over, and a type
// of those that need no device does not count.
TEST_F(TryDrivers, MissingTypesAreLoaded)
{
    SetTypes("nodev\txfs\n\text2\n");
    machine.on_exec = [this](char *const *arguments) {
        if (strcmp(arguments[0], "sh") == 0 && strstr(arguments[2], "modprobe xfs"))
            machine.Write("/proc/filesystems", "\txfs\n");
    };
    EXPECT_TRUE(Try("xfs", false));
    EXPECT_EQ(machine.Deeds(), Deeds({"execl /bin/sh sh -c modprobe xfs; sleep 1.25",
                                      "mount /dev/sdb1 /mnt/sdb1 xfs 6"}));
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sdb1 -> xfs (known fs 'xfs')\n");
    EXPECT_TRUE(Try("xfs", false)); // it is there now
    errors.Take();
    EXPECT_EQ(machine.Deeds().size(), 3U);

    EXPECT_FALSE(Try("btrfs", false));
    EXPECT_EQ(machine.Deeds().back(), "execl /bin/sh sh -c modprobe btrfs; sleep 1.25");
    EXPECT_EQ(errors.Take(), "");
    EXPECT_FALSE(Try("udf", false));
    EXPECT_EQ(machine.Deeds().size(), 4U);
    EXPECT_EQ(errors.Take(), "Warning: Don't know how to modprobe for 'udf'\n");
}

// A driver program's line, and what it answers; whatever it made of the mount, set-user-id programs
// and device nodes of the drive do not work there.
TEST_F(TryDrivers, DriverProgramsAreTried)
{
    EXPECT_FALSE(Try("exfat", true));
    EXPECT_EQ(errors.Take(), "Trying FUSE driver *mount.exfat\n"
                             "Attempting FUSE driver mount.exfat\n"
                             "mount.exfat: failed status 1\n");
    EXPECT_EQ(machine.Deeds("mount"), Deeds());
    machine.on_exec = [](char *const *) {};
    size_t before = machine.Deeds().size();
    EXPECT_TRUE(Try("exfat", true));
    EXPECT_EQ(candidate, "*mount.exfat");
    Deeds deeds = machine.Deeds();
    deeds.erase(deeds.begin(), deeds.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_EQ(deeds, Deeds({"execl /bin/sh sh -c modprobe fuse",
                            "execv /sbin/mount.exfat /sbin/mount.exfat -o ro -o "
                            "locale=en_EN.UTF-8,gid=99,uid=99 /dev/sdb1 /mnt/sdb1"}));
    errors.Take();
    before = machine.Deeds().size();
    EXPECT_TRUE(Try("ntfs", false));
    EXPECT_EQ(candidate, "*ntfs-3g");
    deeds = machine.Deeds();
    deeds.erase(deeds.begin(), deeds.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_EQ(deeds, Deeds({"execl /bin/sh sh -c modprobe fuse",
                            "execv /bin/ntfs-3g /bin/ntfs-3g -o "
                            "locale=en_EN.UTF-8,gid=99,uid=99 /dev/sdb1 /mnt/sdb1"}));
    EXPECT_EQ(errors.Take(), "Trying FUSE driver *ntfs-3g\nAttempting FUSE driver ntfs-3g\n");
}

// Reading ntfs is the kernel's business alone, and not worth a line.
TEST_F(TryDrivers, NtfsForReadingIsTheKernels)
{
    EXPECT_TRUE(Try("ntfs", true));
    EXPECT_EQ(candidate, "ntfs");
    EXPECT_EQ(machine.Deeds(), Deeds({"mount /dev/sdb1 /mnt/sdb1 ntfs 7"}));
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sdb1 -> ntfs (known fs 'ntfs')\n");
}

class WaitForMount : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        machine.Write("/proc/mounts", "");
    }

    // The table shows the mount after so many seconds.
    void ShowAfter(int seconds)
    {
        machine.on_deed = [this, seconds, slept = 0](const std::string &deed) mutable {
            slept += deed == "sleep 1";
            if (slept == seconds)
                machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n");
        };
    }
};

// Found at any of the eleven looks; then nobody sleeps on, and the table is read once more.
TEST_F(WaitForMount, ElevenLooks)
{
    for (int seconds = 1; seconds <= 10; seconds++) {
        machine.Write("/proc/mounts", "/dev/sdb10 /mnt/sdb1 ext4 rw 0 0\n"); // a neighbour
        ShowAfter(seconds);
        machine.ForgetCalls();
        const size_t before = machine.Deeds().size();
        EXPECT_TRUE(wait_for_mount("sdb1", "ext4")) << seconds;
        EXPECT_EQ(machine.Deeds(), Deeds(before + static_cast<size_t>(seconds), "sleep 1"));
        EXPECT_EQ(machine.Opened("/proc/mounts"), seconds + 2) << seconds;
        EXPECT_NE(FindMount("device", "/dev/sdb1"), nullptr);
    }
    machine.ForgetCalls();
    const size_t before = machine.Deeds().size();
    EXPECT_TRUE(wait_for_mount("sdb1", "ext4")); // there from the start: no sleep
    EXPECT_EQ(machine.Deeds().size(), before);
    EXPECT_EQ(machine.Opened("/proc/mounts"), 2);
}

// Whatever a driver program has done: nosuid and nodev are added to what the table shows.
TEST_F(WaitForMount, WhatADriverProgramMountsIsProtected)
{
    static const struct {
        const char *options;
        unsigned long flags;
    } cases[] = {
        {"rw", 0},
        {"ro", MS_RDONLY},
        {"rw,nosuid,noexec", MS_NOEXEC},
    };
    for (const auto &c : cases) {
        const std::string line = "/dev/sdb1 /mnt/a\\040b fuseblk " + std::string(c.options);
        machine.Write("/proc/mounts", line + " 0 0\n");
        machine.on_deed = [&](const std::string &) {
            machine.Write("/proc/mounts", line + ",nosuid,nodev 0 0\n");
        };
        const size_t before = machine.Deeds().size();
        EXPECT_TRUE(wait_for_mount("sdb1", "*ntfs-3g"));
        ASSERT_EQ(machine.Deeds().size(), before + 1) << c.options;
        const unsigned long flags = MS_REMOUNT | MS_BIND | MS_NOSUID | MS_NODEV | c.flags;
        EXPECT_EQ(machine.Deeds().back(), "mount '' /mnt/a b '' " + std::to_string(flags));
        EXPECT_TRUE(wait_for_mount("sdb1", "ntfs"));
        EXPECT_EQ(machine.Deeds().size(), before + 1) << "the kernel's driver was told the flags";
    }
}

TEST_F(WaitForMount, NeverIsAFailure)
{
    EXPECT_FALSE(wait_for_mount("sdb1", "ext4"));
    EXPECT_EQ(machine.Deeds(), Deeds(11, "sleep 1"));
    EXPECT_EQ(machine.Opened("/proc/mounts"), 12);
}

// After the eleventh look it is too late, though the last reading shows the device.
TEST_F(WaitForMount, TwelfthLookIsTooLate)
{
    ShowAfter(11);
    EXPECT_FALSE(wait_for_mount("sdb1", "ext4"));
    EXPECT_NE(FindMount("device", "/dev/sdb1"), nullptr);
}

// A daemon that is asked to stop waits no longer, and the mount does not count as failed.
TEST_F(WaitForMount, StopEndsTheWait)
{
    machine.on_deed = [count = 0](const std::string &) mutable {
        if (++count == 3)
            terminate_requested = 1;
    };
    machine.ForgetCalls();
    EXPECT_TRUE(wait_for_mount("sdb1", "ext4"));
    EXPECT_EQ(machine.Deeds(), Deeds(3, "sleep 1"));
    EXPECT_EQ(machine.Opened("/proc/mounts"), 5);
    EXPECT_EQ(FindMount("device", "/dev/sdb1"), nullptr);

    EXPECT_TRUE(wait_for_mount("sdb1", "ext4")); // asked before
    EXPECT_EQ(machine.Deeds().size(), 3U);
}
