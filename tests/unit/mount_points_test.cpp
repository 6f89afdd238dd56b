// Mount points by names that lead nowhere else.
#include "mount/mount_points.h"

#include <cerrno>
#include <fcntl.h>

#include "made_up_machine.h"

using Deeds = std::vector<std::string>;
using MountPoints = MadeUpMachineTest;

TEST_F(MountPoints, FoldersThatAreRootsAreMntAndTheRoot)
{
    for (const char *path : {"/", "/boot", "/mnt", "/mnt/sdb1", "/mnt/my disk"})
        EXPECT_TRUE(is_in_roots_folder(path)) << path;
    for (const char *path :
         {"", "none", "/mnt/a/b", "/media/stick", "/home/guest/mnt/x", "/mntx/a"})
        EXPECT_FALSE(is_in_roots_folder(path)) << path;
}

// There the path is the name, and nothing else is asked; elsewhere the folder has to be there.
TEST_F(MountPoints, PathIsTheNameInAFolderOfRoots)
{
    EXPECT_EQ(unmount_at("/mnt/sdb1"), 0);
    EXPECT_EQ(unmount_at("/boot"), 0);
    EXPECT_EQ(machine.Calls(Call::OPEN), 0);
    EXPECT_EQ(unmount_at("/media/stick"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(unmount_at(""), -1);
    machine.MakeDirectory("/media/stick");
    EXPECT_EQ(unmount_at("/media/stick"), 0);
    EXPECT_EQ(machine.Deeds(),
              Deeds({"umount /mnt/sdb1", "umount /boot", "umount /media/stick 8"}));
    remove_mountpoint("/media/stick");
    EXPECT_FALSE(machine.Exists("/media/stick"));
}

// A link in the folder's place is not followed.
TEST_F(MountPoints, LinkInAFoldersPlaceLeadsNowhere)
{
    machine.MakeDirectory("/srv/stick");
    machine.MakeDirectory("/home/guest");
    machine.Link("/home/guest/way", "../../srv");
    EXPECT_EQ(unmount_at("/home/guest/way/stick"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    remove_mountpoint("/home/guest/way/stick");
    EXPECT_TRUE(machine.Exists("/srv/stick"));
    EXPECT_EQ(machine.Deeds(), Deeds());
}

// Where /proc shows descriptors, a directory that has gone from its place is no more there.
TEST_F(MountPoints, DirectoryIsThereWhileProcSaysSo)
{
    machine.MakeDirectory("/srv/stick");
    machine.MakeDirectory("/proc/self/fd");
    const HeldDirectory held("/srv/stick");
    const std::string name = "/proc/self/fd/" + std::to_string(held.Fd());
    EXPECT_EQ(machine.OpenFlags("/srv/stick"), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
    EXPECT_TRUE(held.IsThere());
    EXPECT_EQ(held.Name(), "/srv/stick");
    machine.Link(name, "/srv/stick");
    EXPECT_TRUE(held.IsThere());
    EXPECT_EQ(held.Name(), name);
    for (const char *place : {"/", "/srv/other", "/srv/stick (deleted)"}) {
        machine.Remove(name);
        machine.Link(name, place);
        EXPECT_FALSE(held.IsThere()) << place;
        EXPECT_EQ(errno, ELOOP);
    }
    const HeldDirectory none("/none");
    EXPECT_FALSE(none.IsOpen() || none.IsThere());
    EXPECT_EQ(errno, ENOENT);
}
