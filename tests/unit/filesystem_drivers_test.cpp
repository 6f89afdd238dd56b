// Modules that are loaded and driver programs that are run, and what becomes of them.
#include "mount/filesystem_drivers.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "made_up_machine.h"
#include "mount/mount_tables.h"

using Deeds = std::vector<std::string>;

class FilesystemDrivers : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        machine.Write("/proc/filesystems", "nodev\ttmpfs\n\text4\n");
    }

    // A program of the machine: a shell script.
    void AddProgram(const std::string &path, const std::string &script)
    {
        machine.Write(path, "#!/bin/sh\n" + script + "\n");
        machine.SetMode(path, 0755);
    }

    // From now on the shell's commands succeed and the drivers end like this.
    void DriversEnd(void (*end)())
    {
        machine.on_exec = [=](char *const *arguments) {
            if (strcmp(arguments[0], "sh") != 0)
                end();
        };
    }
};

// One command for each type that has one, by its exact name.
TEST_F(FilesystemDrivers, ModulesAreLoadedByTheirCommands)
{
    static const struct {
        const char *type;
        const char *command;
    } cases[] = {
        {"hfs", "modprobe hfs; sleep 1.25"},     {"hfsplus", "modprobe hfsplus; sleep 1.25"},
        {"vfat", "modprobe vfat; sleep 1.25"},   {"xfs", "modprobe xfs; sleep 1.25"},
        {"btrfs", "modprobe btrfs; sleep 1.25"},
    };
    machine.on_exec = [](char *const *) {};
    Deeds expected;
    for (const auto &c : cases) {
        load_fs_module(c.type);
        expected.push_back(std::string("execl /bin/sh sh -c ") + c.command);
    }
    EXPECT_EQ(machine.Deeds(), expected);
    EXPECT_EQ(errors.Take(), "");
}

// Every other type is a line; no command is run, but the kernel's types are read again.
TEST_F(FilesystemDrivers, TypesWithoutAModuleAreALine)
{
    machine.on_exec = [](char *const *) {};
    for (const char *type : {"reiserfs", "ext4", "ext3", "ext2", "udf", "iso9660", "ntfs", "XFS",
                             "xfs ", "hfs+", "*ntfs-3g", ""}) {
        filesystems_list.clear();
        load_fs_module(type);
        EXPECT_EQ(errors.Take(),
                  std::string("Warning: Don't know how to modprobe for '") + type + "'\n");
        EXPECT_TRUE(HaveFilesystem("ext4", 0)) << type;
    }
    EXPECT_EQ(machine.Deeds(), Deeds());
}

// What the module brought shows after the command has ended, however that ended.
TEST_F(FilesystemDrivers, TypesAreReadAgainAfterTheCommand)
{
    machine.on_exec = [this](char *const *) {
        machine.Write("/proc/filesystems", "\txfs\n");
        _exit(1);
    };
    load_fs_module("xfs");
    EXPECT_TRUE(HaveFilesystem("xfs", 0));
    EXPECT_FALSE(HaveFilesystem("ext4", 0));

    machine.Write("/proc/filesystems", "\tvfat\n");
    machine.Script(Call::FORK, {fails(EAGAIN)});
    load_fs_module("vfat");
    EXPECT_TRUE(HaveFilesystem("vfat", 0));
    EXPECT_EQ(errors.Take(), "");
}

// The whole way of a driver that succeeds: words in their order, one line, nobody is signalled.
TEST_F(FilesystemDrivers, DriversGetTheirWords)
{
    static const struct {
        const char *candidate;
        bool read_only;
        const char *deed, *line;
    } cases[] = {
        {"*ntfs-3g", false,
         "execv /bin/ntfs-3g /bin/ntfs-3g -o locale=en_EN.UTF-8,gid=99,uid=99 /dev/sdb1 /mnt/sdb1",
         "Attempting FUSE driver ntfs-3g\n"},
        {"*ntfs-3g", true,
         "execv /bin/ntfs-3g /bin/ntfs-3g -o ro -o locale=en_EN.UTF-8,gid=99,uid=99 /dev/sdb1 "
         "/mnt/sdb1",
         "Attempting FUSE driver ntfs-3g\n"},
        {"*mount.exfat", false,
         "execv /sbin/mount.exfat /sbin/mount.exfat -o locale=en_EN.UTF-8,gid=99,uid=99 /dev/sdb1 "
         "/mnt/sdb1",
         "Attempting FUSE driver mount.exfat\n"},
        {"*mount.exfat", true,
         "execv /sbin/mount.exfat /sbin/mount.exfat -o ro -o locale=en_EN.UTF-8,gid=99,uid=99 "
         "/dev/sdb1 /mnt/sdb1",
         "Attempting FUSE driver mount.exfat\n"},
    };
    DriversEnd([] {});
    Deeds expected;
    for (const auto &c : cases) {
        EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", c.candidate, c.read_only), 0) << c.deed;
        EXPECT_EQ(errors.Take(), c.line);
        expected.push_back("execl /bin/sh sh -c modprobe fuse");
        expected.push_back(c.deed);
    }
    EXPECT_EQ(machine.Deeds(), expected);
}

// Words are compared one by one, too: a blank in a path separates nothing.
TEST_F(FilesystemDrivers, PathsStayOneWord)
{
    machine.on_exec = [](char *const *arguments) {
        if (strcmp(arguments[0], "sh") == 0)
            return;
        if (strcmp(arguments[3], "/dev/a b") != 0 || strcmp(arguments[4], "/mnt/a; b") != 0 ||
            arguments[5])
            _exit(1);
    };
    EXPECT_EQ(mount_fuse("/dev/a b", "/mnt/a; b", "*ntfs-3g", false), 0);
}

// The kernel's side comes first; that it cannot be loaded is nobody's concern.
TEST_F(FilesystemDrivers, FuseModuleIsLoadedFirst)
{
    machine.on_exec = [](char *const *arguments) {
        if (strcmp(arguments[0], "sh") != 0)
            return;
        fputs("modprobe is asked\n", stderr);
        fflush(stderr);
        _exit(1);
    };
    EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*ntfs-3g", false), 0);
    EXPECT_EQ(errors.Take(), "modprobe is asked\nAttempting FUSE driver ntfs-3g\n");
}

// Anything else is no driver: nothing is run and nothing said.
TEST_F(FilesystemDrivers, OtherCandidatesAreNoDrivers)
{
    machine.on_exec = [](char *const *) {};
    for (const char *candidate :
         {"ntfs-3g", "mount.exfat", "*mount.exfat-fuse", "*NTFS-3G", "*", "", "ext4"})
        EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", candidate, false), -1) << candidate;
    EXPECT_EQ(machine.Deeds(), Deeds());
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
}

// Where mount.exfat is missing, mount.exfat-fuse is run under its own name.
TEST_F(FilesystemDrivers, SecondExfatDriverStandsIn)
{
    const std::string rest = " -o locale=en_EN.UTF-8,gid=99,uid=99 /dev/sdb1 /mnt/sdb1";
    const std::string first = "execv /sbin/mount.exfat /sbin/mount.exfat" + rest;
    const std::string second = "execv /sbin/mount.exfat-fuse /sbin/mount.exfat-fuse" + rest;
    AddProgram("/sbin/mount.exfat-fuse", "exit 0");
    EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*mount.exfat", false), 0);
    EXPECT_EQ(machine.Deeds("execv"), Deeds({first, second}));
    EXPECT_EQ(errors.Take(), "Attempting FUSE driver mount.exfat\n");

    // The first that can be executed is the one, also when it fails.
    AddProgram("/sbin/mount.exfat", "exit 5");
    EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*mount.exfat", false), -1);
    EXPECT_EQ(machine.Deeds("execv"), Deeds({first, second, first}));
    EXPECT_EQ(errors.Take(), "Attempting FUSE driver mount.exfat\nmount.exfat: failed status 5\n");
}

// A driver that is not there ends with status 1.
TEST_F(FilesystemDrivers, MissingDriverHasFailed)
{
    EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*ntfs-3g", false), -1);
    EXPECT_EQ(errors.Take(), "Attempting FUSE driver ntfs-3g\nntfs-3g: failed status 1\n");
    EXPECT_EQ(machine.Deeds("execv").size(), 1U);
    EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*mount.exfat", false), -1);
    EXPECT_EQ(errors.Take(), "Attempting FUSE driver mount.exfat\nmount.exfat: failed status 1\n");
    EXPECT_EQ(machine.Deeds("execv").size(), 3U);
}

// Any other end than a status of 0 is a failure, with its number; the driver's number gets a signal
// once more.
TEST_F(FilesystemDrivers, FailureHasItsStatus)
{
    static const struct {
        void (*end)();
        const char *status;
    } cases[] = {
        {[] { _exit(1); }, "1"},         {[] { _exit(21); }, "21"},
        {[] { _exit(255); }, "255"},     {[] { raise(SIGKILL); }, "137"},
        {[] { raise(SIGTERM); }, "143"},
    };
    for (const auto &c : cases) {
        const size_t before = machine.Deeds("kill ").size();
        DriversEnd(c.end);
        EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*ntfs-3g", true), -1) << c.status;
        EXPECT_EQ(errors.Take(), std::string("Attempting FUSE driver ntfs-3g\n"
                                             "ntfs-3g: failed status ") +
                                     c.status + "\n");
        const Deeds kills = machine.Deeds("kill ");
        ASSERT_EQ(kills.size(), before + 1) << c.status;
        EXPECT_TRUE(kills.back().ends_with(" 15")) << kills.back();
    }
}

TEST_F(FilesystemDrivers, DriverThatCannotBeForkedIsALine)
{
    DriversEnd([] {});
    for (const char *name : {"ntfs-3g", "mount.exfat"}) {
        machine.Script(Call::FORK, {really, fails(EAGAIN)}); // the shell's first
        EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", std::string("*") + name, false), -1);
        EXPECT_EQ(errors.Take(), std::string("Attempting FUSE driver ") + name + "\n" + name +
                                     ": failure to fork\n");
    }
    EXPECT_EQ(machine.Deeds("execv"), Deeds());
    EXPECT_EQ(machine.Deeds("kill"), Deeds());

    machine.Script(Call::FORK, {fails(EAGAIN)}); // the shell's alone
    EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*ntfs-3g", false), 0);
}

// Waiting goes on, every millisecond, until it has been for the driver.
TEST_F(FilesystemDrivers, WaitsUntilTheDriverHasEnded)
{
    DriversEnd([] {});
    machine.Script(Call::WAITPID, {really, fails(EINTR), returns(1), fails(EINTR)});
    EXPECT_EQ(mount_fuse("/dev/sdb1", "/mnt/sdb1", "*ntfs-3g", false), 0);
    EXPECT_EQ(machine.Deeds("usleep"), Deeds({"usleep 1000", "usleep 1000", "usleep 1000"}));
}
