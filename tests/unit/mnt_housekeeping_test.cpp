// What the housekeeping takes away from /mnt, and what it leaves.
#include "mount/mnt_housekeeping.h"

#include <fcntl.h>
#include <filesystem>

#include "made_up_machine.h"
#include "mount/mount_tables.h"

class MntHousekeeping : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        machine.now = 2000000000;
    }

    void AddDirectory(const std::string &path, time_t age)
    {
        machine.MakeDirectory(path);
        machine.SetModified(path, machine.now - age);
    }

    void SetMounts(const std::string &table)
    {
        machine.Write("/proc/mounts", table);
        ReadProcMounts();
    }
};

// An empty directory has fifteen seconds from its last change.
TEST_F(MntHousekeeping, FreshDirectoryHasFifteenSeconds)
{
    static const struct {
        time_t age;
        bool stays;
    } cases[] = {{0, true}, {14, true}, {15, true}, {16, false}, {100000, false}, {-60, true}};
    for (const auto &c : cases) {
        AddDirectory("/mnt/sdb1", c.age);
        tidy_mnt();
        EXPECT_EQ(machine.Exists("/mnt/sdb1"), c.stays) << c.age;
        machine.Remove("/mnt/sdb1");
    }
}

// What somebody put something into stays, and so do files and hidden names.
TEST_F(MntHousekeeping, TakesOnlyEmptyVisibleDirectories)
{
    machine.Write("/mnt/full/file", "");
    machine.Write("/mnt/file", "");
    AddDirectory("/mnt/.hidden", 100);
    AddDirectory("/mnt/full/inner", 100);
    AddDirectory("/mnt/empty", 100);
    for (const char *path : {"/mnt/full", "/mnt/file"})
        machine.SetModified(path, machine.now - 100);
    machine.Link("/mnt/.dangling", "nowhere");
    tidy_mnt();
    EXPECT_FALSE(machine.Exists("/mnt/empty"));
    for (const char *path :
         {"/mnt/full/file", "/mnt/full/inner", "/mnt/file", "/mnt/.hidden", "/mnt/.dangling"})
        EXPECT_TRUE(machine.Exists(path)) << path;
    EXPECT_EQ(errors.Take(), "");
}

// The directory of a mounted device stays, wherever that is mounted.
TEST_F(MntHousekeeping, DirectoryOfAMountedDeviceStays)
{
    SetMounts("/dev/sdb1 /elsewhere ext4 rw 0 0\n"
              "server:/x /mnt/share nfs rw 0 0\n"
              "server:/y /mnt/two\\040words nfs rw 0 0\n");
    for (const char *path : {"/mnt/sdb1", "/mnt/sdb", "/mnt/sdb11", "/mnt/share", "/mnt/two words"})
        AddDirectory(path, 100);
    tidy_mnt();
    EXPECT_TRUE(machine.Exists("/mnt/sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/sdb"));
    EXPECT_FALSE(machine.Exists("/mnt/sdb11"));
    EXPECT_TRUE(machine.Exists("/mnt/share"));
    EXPECT_TRUE(machine.Exists("/mnt/two words"));
}

// A link that leads nowhere goes; one that leads somewhere stays, however it gets there.
TEST_F(MntHousekeeping, DanglingLinksGo)
{
    machine.MakeDirectory("/mnt/sdb1");
    machine.Write("/mnt/sdb1/file", "");
    machine.Write("/home/file", "");
    machine.Link("/mnt/^hop", "^one");
    machine.Link("/mnt/^one", "sdb1");
    machine.Link("/mnt/^file", "sdb1/file");
    machine.Link("/elsewhere/back", "../mnt/sdb1");
    machine.Link("/mnt/^loop", "^loop");
    machine.Link("/mnt/^ping", "^pong");
    machine.Link("/mnt/^pong", "^ping");
    static const struct {
        const char *target;
        bool stays;
    } cases[] = {
        {"sdb1", true},
        {"sdb1/", true},
        {"sdb1/.", true},
        {"sdb1/..", true},
        {"sdb1/../sdb1/file", true},
        {"^hop/", true},
        {"^hop/..", true},
        {"^file", true},
        {"./sdb1", true},
        {"/mnt/sdb1", true},
        {"//mnt//sdb1", true},
        {"../mnt/sdb1", true},
        {"../../../mnt/sdb1", true}, // above the root is the root
        {"sdb1/file", true},
        {"^hop", true},
        {"^hop/file", true},
        {"/home/file", true},
        {"../home/file", true},
        {"/elsewhere/back/file", true},
        {".", true},
        {"/", true},
        {"sdc1", false},
        {"/mnt/sdc1", false},
        {"/home/none", false},
        {"sdc1/../sdb1", false}, // no way leads through what is not there
        {"sdb1/file/x", false},
        {"sdb1/file/", false}, // only a directory may have a slash behind it
        {"sdb1/file//", false},
        {"sdb1/file/.", false},
        {"sdb1/file/..", false},
        {"sdb1/file/../file", false},
        {"^file/", false},
        {"^file/../sdb1", false},
        {"^hop/none", false},
        {"/elsewhere/back/none", false},
        {"^loop", false},
        {"^ping/x", false},
    };
    for (const auto &c : cases) {
        machine.Remove("/mnt/^link");
        machine.Link("/mnt/^link", c.target);
        tidy_mnt();
        EXPECT_EQ(machine.Exists("/mnt/^link"), c.stays) << c.target;
    }
    EXPECT_FALSE(machine.Exists("/mnt/^loop"));
    EXPECT_FALSE(machine.Exists("/mnt/^ping"));
    EXPECT_TRUE(machine.Exists("/mnt/^hop"));
}

// A directory that goes in the first round takes the link to it along in the second.
TEST_F(MntHousekeeping, LinkGoesWithItsDirectory)
{
    AddDirectory("/mnt/sdb1", 100);
    machine.Link("/mnt/^DATA", "sdb1");
    tidy_mnt();
    EXPECT_FALSE(machine.Exists("/mnt/sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
}

// A link is no directory, though it leads to one.
TEST_F(MntHousekeeping, LinkToAnEmptyDirectoryStays)
{
    AddDirectory("/home/empty", 100);
    machine.Link("/mnt/link", "/home/empty");
    machine.SetModified("/mnt/link", machine.now - 100);
    tidy_mnt();
    EXPECT_TRUE(machine.Exists("/mnt/link"));
    EXPECT_TRUE(machine.Exists("/home/empty"));
}

// A filesystem that may never answer is not asked: the link to it stays, and no call goes there.
TEST_F(MntHousekeeping, AsksNothingOfWhatMayNeverAnswer)
{
    for (const char *fstype :
         {"fuse.silent", "fuseblk", "nfs", "nfs4", "cifs", "smb3", "9p", "ceph", "autofs"}) {
        SetMounts("/dev/sda1 / ext4 rw 0 0\nsilent /mnt/sdb1 " + std::string(fstype) + " rw 0 0\n");
        machine.Remove("/mnt/^DATA");
        machine.Remove("/mnt/^INSIDE");
        machine.Link("/mnt/^DATA", "sdb1");
        machine.Link("/mnt/^INSIDE", "sdb1/deep/inside");
        machine.Link("/mnt/^" + std::string(fstype), "^DATA/x");
        AddDirectory("/mnt/sdb1", 100);
        machine.ForgetCalls();
        tidy_mnt();
        EXPECT_TRUE(machine.Exists("/mnt/^DATA")) << fstype;
        EXPECT_TRUE(machine.Exists("/mnt/^INSIDE")) << fstype;
        EXPECT_TRUE(machine.Exists("/mnt/sdb1")) << fstype;
        EXPECT_EQ(machine.Calls(Call::STAT), 0) << fstype;
        EXPECT_EQ(machine.Calls(Call::RMDIR), 0) << fstype;
        machine.Remove("/mnt/^" + std::string(fstype));
    }
}

// Where /mnt itself is on such a filesystem, the housekeeping asks it anyway: links there are as
// good as anywhere. Another such mount is not asked, though it is of the same type.
TEST_F(MntHousekeeping, AsksTheFilesystemThatMntIsOn)
{
    machine.MakeDirectory("/mnt/sdb1");
    machine.MakeDirectory("/home/user");
    static const struct {
        const char *mounts;
        bool home_stays; // a dangling link through /home
    } cases[] = {
        {"host:/ / nfs rw 0 0\n", false},
        {"host:/ / 9p rw 0 0\nsilent /home fuse.silent rw 0 0\n", true},
        {"/dev/sda1 / ext4 rw 0 0\nhost:/mnt /mnt virtiofs rw 0 0\n", false},
        {"host:/ / nfs rw 0 0\nhost:/mnt /mnt nfs rw 0 0\n", true},
        {"host:/ / nfs rw 0 0\n/dev/sda2 /mnt ext4 rw 0 0\n", true},
        // Covered by another mount on the same place.
        {"auto / autofs rw 0 0\nhost:/ / nfs rw 0 0\n", false},
        // A neighbour with a similar name is not what /mnt is on.
        {"/dev/sda1 / ext4 rw 0 0\nhost:/ /mn nfs rw 0 0\nhost:/ /home nfs rw 0 0\n", true},
    };
    for (const auto &c : cases) {
        SetMounts(std::string(c.mounts) + "silent /mnt/sdb1 fuse.silent rw 0 0\n");
        for (const char *name : {"gone", "there", "silent", "home"})
            machine.Remove(std::string("/mnt/^") + name);
        machine.Link("/mnt/^gone", "sdc1");
        machine.Link("/mnt/^there", "file");
        machine.Write("/mnt/file", "");
        machine.Link("/mnt/^silent", "sdb1/none");
        machine.Link("/mnt/^home", "/home/none");
        tidy_mnt();
        EXPECT_FALSE(machine.Exists("/mnt/^gone")) << c.mounts;
        EXPECT_TRUE(machine.Exists("/mnt/^there")) << c.mounts;
        EXPECT_TRUE(machine.Exists("/mnt/^silent")) << c.mounts;
        EXPECT_EQ(machine.Exists("/mnt/^home"), c.home_stays) << c.mounts;
    }
}

// An ordinary filesystem below a silent one, and a neighbour with a similar name, are asked.
TEST_F(MntHousekeeping, AsksTheInnermostMount)
{
    SetMounts("silent /mnt/sdb1 fuse.silent rw 0 0\n/dev/sdc1 /mnt/sdb1/inner ext4 rw 0 0\n");
    machine.MakeDirectory("/mnt/sdb1/inner");
    machine.Link("/mnt/^none", "sdb1/inner/none");
    machine.Link("/mnt/^there", "sdb1/inner");
    machine.Link("/mnt/^neighbour", "sdb10");
    tidy_mnt();
    // The way to the inner one leads through the silent one: in doubt a link leads somewhere.
    EXPECT_TRUE(machine.Exists("/mnt/^none"));
    EXPECT_TRUE(machine.Exists("/mnt/^there"));
    EXPECT_FALSE(machine.Exists("/mnt/^neighbour"));
}

// /mnt itself cannot be gone to: nothing happens. Otherwise that is where the process is
// afterwards.
TEST_F(MntHousekeeping, WorksInsideOfMnt)
{
    tidy_mnt();
    EXPECT_EQ(std::filesystem::current_path(), machine.RealPath("/mnt"));
    machine.Script(Call::CHDIR, {fails(EACCES)});
    machine.ForgetCalls();
    tidy_mnt();
    EXPECT_EQ(machine.SystemCalls(), 1);
    EXPECT_EQ(errors.Take(), "");
}

// The folder's access time is left alone, for its drive may sleep.
TEST_F(MntHousekeeping, WakesNoDrive)
{
    tidy_mnt();
    EXPECT_NE(machine.OpenFlags(".") & O_NOATIME, 0);
}

// A folder with a hundred links and directories costs a few calls for each.
TEST_F(MntHousekeeping, CostsAFewCallsForEachEntry)
{
    for (int i = 0; i < 100; i++) {
        machine.Write("/mnt/sd" + std::to_string(i) + "/file", "");
        machine.Link("/mnt/^" + std::to_string(i), "sd" + std::to_string(i));
    }
    machine.ForgetCalls();
    tidy_mnt();
    EXPECT_LE(machine.SystemCalls(), 100 * 8 + 10);
}

// Forty links on the way are followed, as by the kernel; with one more the way is none.
TEST_F(MntHousekeeping, FollowsFortyLinks)
{
    machine.Write("/home/file", "");
    machine.Link("/home/link1", "file");
    for (int i = 2; i <= 40; i++)
        machine.Link("/home/link" + std::to_string(i), "link" + std::to_string(i - 1));
    machine.Link("/mnt/^forty", "/home/link39");
    machine.Link("/mnt/^more", "/home/link40");
    tidy_mnt();
    EXPECT_TRUE(machine.Exists("/mnt/^forty"));
    EXPECT_FALSE(machine.Exists("/mnt/^more"));
}

// What is no link counts for nothing on the way, however deep it goes.
TEST_F(MntHousekeeping, FollowsDeepPaths)
{
    std::string path = "/home";
    for (int i = 0; i < 100; i++)
        path += "/d";
    machine.MakeDirectory(path);
    machine.Link("/mnt/^deep", path);
    tidy_mnt();
    EXPECT_TRUE(machine.Exists("/mnt/^deep"));
}

// A link that goes round and grows on its way is given up soon, however long its target is.
TEST_F(MntHousekeeping, GivesUpOnEndlessLinks)
{
    std::string target = "^grow";
    while (target.size() < 4000)
        target += target.size() % 2 == 0 ? "/^grow" : "/./^grow";
    machine.Link("/mnt/^grow", target);
    machine.ForgetCalls();
    tidy_mnt();
    EXPECT_FALSE(machine.Exists("/mnt/^grow"));
    EXPECT_LE(machine.SystemCalls(), 200);
}
