// Reading the names in a directory, and holding descriptors.
#include "base/directory.h"

#include <algorithm>
#include <fcntl.h>

#include "base/descriptor.h"
#include "made_up_machine.h"

using DirectoryTest = MadeUpMachineTest;

static std::vector<std::string> names_in(Directory &directory)
{
    std::vector<std::string> names;
    while (const char *name = directory.NextName())
        names.emplace_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

// Each name comes once, the two dots included.
TEST_F(DirectoryTest, GivesEveryName)
{
    machine.Write("/sys/block/sda/size", "1");
    machine.MakeDirectory("/sys/block/sda/sda1");
    Directory directory(AT_FDCWD, "/sys/block/sda");
    ASSERT_TRUE(directory.IsOpen());
    EXPECT_EQ(names_in(directory), (std::vector<std::string>{".", "..", "sda1", "size"}));
    EXPECT_FALSE(directory.HasFailed());
}

// The end stays the end.
TEST_F(DirectoryTest, StaysAtItsEnd)
{
    Directory directory(AT_FDCWD, "/sys/block");
    names_in(directory);
    EXPECT_EQ(directory.NextName(), nullptr);
    EXPECT_EQ(directory.NextName(), nullptr);
}

// An ordinary directory costs four calls: open, two reads, close.
TEST_F(DirectoryTest, CostsFourCalls)
{
    for (int i = 0; i < 200; i++)
        machine.Write("/sys/block/sda/attribute" + std::to_string(i), "");
    machine.ForgetCalls();
    {
        Directory directory(AT_FDCWD, "/sys/block/sda");
        EXPECT_EQ(names_in(directory).size(), 202U);
    }
    EXPECT_EQ(machine.SystemCalls(), 4);
}

// A directory that does not fit into one reading is complete all the same.
TEST_F(DirectoryTest, ReadsAHugeDirectoryInPieces)
{
    for (int i = 0; i < 2000; i++)
        machine.Write("/sys/block/a-name-of-some-length-" + std::to_string(i), "");
    Directory directory(AT_FDCWD, "/sys/block");
    EXPECT_EQ(names_in(directory).size(), 2002U);
    EXPECT_GT(machine.Calls(Call::GETDENTS), 2);
}

// What is no directory is not open, errno says why, and it has no names.
TEST_F(DirectoryTest, SaysWhyItIsNotOpen)
{
    machine.Write("/sys/file", "");
    errno = 0;
    Directory missing(AT_FDCWD, "/sys/missing");
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    Directory file(AT_FDCWD, "/sys/file");
    EXPECT_EQ(errno, ENOTDIR);
    for (Directory *directory : {&missing, &file}) {
        EXPECT_FALSE(directory->IsOpen());
        EXPECT_EQ(directory->NextName(), nullptr);
        EXPECT_FALSE(directory->HasFailed());
        directory->Rewind();
        EXPECT_EQ(directory->NextName(), nullptr);
    }
}

// A list that breaks off can be told from one that ends.
TEST_F(DirectoryTest, TellsABreakFromTheEnd)
{
    Directory directory(AT_FDCWD, "/sys/block");
    machine.Script(Call::GETDENTS, {really, fails(EIO)});
    names_in(directory);
    EXPECT_TRUE(directory.HasFailed());
    directory.Rewind();
    EXPECT_EQ(names_in(directory).size(), 2U);
    EXPECT_FALSE(directory.HasFailed());
}

// A directory that is removed while it is read has no more names: that is its end.
TEST_F(DirectoryTest, RemovedDirectoryIsAtItsEnd)
{
    machine.MakeDirectory("/sys/block/sdb");
    Directory directory(AT_FDCWD, "/sys/block/sdb");
    machine.Remove("/sys/block/sdb");
    EXPECT_EQ(directory.NextName(), nullptr);
    EXPECT_FALSE(directory.HasFailed());
}

// After Rewind() the names come again, as they are then, also in the middle of a list.
TEST_F(DirectoryTest, RewindsToAFreshReading)
{
    machine.Write("/mnt/a", "");
    Directory directory(AT_FDCWD, "/mnt");
    ASSERT_NE(directory.NextName(), nullptr);
    machine.Remove("/mnt/a");
    machine.Write("/mnt/b", "");
    directory.Rewind();
    EXPECT_EQ(names_in(directory), (std::vector<std::string>{".", "..", "b"}));
}

// Files can be opened relative to it while it is read.
TEST_F(DirectoryTest, OpensRelativeToAnOther)
{
    machine.MakeDirectory("/proc/12/fd");
    Directory processes(AT_FDCWD, "/proc");
    EXPECT_TRUE(Directory(processes.Fd(), "12/fd").IsOpen());
    EXPECT_FALSE(Directory(processes.Fd(), "13/fd").IsOpen());
}

// Only the owner may leave the access time alone; another's folder is read in the ordinary way.
TEST_F(DirectoryTest, GivesUpNoatimeWhenItIsRefused)
{
    machine.Script(Call::OPEN, {fails(EPERM)});
    Directory directory(AT_FDCWD, "/mnt", O_NOATIME);
    ASSERT_TRUE(directory.IsOpen());
    EXPECT_EQ(machine.Calls(Call::OPEN), 2);
    EXPECT_EQ(fcntl(directory.Fd(), F_GETFL) & O_NOATIME, 0);

    // A refusal for another reason stands.
    machine.ForgetCalls();
    machine.Script(Call::OPEN, {fails(EPERM)});
    EXPECT_FALSE(Directory(AT_FDCWD, "/mnt").IsOpen());
    machine.Script(Call::OPEN, {fails(EACCES)});
    EXPECT_FALSE(Directory(AT_FDCWD, "/mnt", O_NOATIME).IsOpen());
    EXPECT_EQ(machine.Calls(Call::OPEN), 2);
}

// The folder of the daemon's own is read without a trace in its access time.
TEST_F(DirectoryTest, KeepsTheFlagsThatItIsGiven)
{
    Directory directory(AT_FDCWD, "/mnt", O_NOATIME);
    ASSERT_TRUE(directory.IsOpen());
    EXPECT_NE(fcntl(directory.Fd(), F_GETFL) & O_NOATIME, 0);
}

// A held descriptor is closed once, and the reason of an earlier failure survives that.
TEST_F(DirectoryTest, DescriptorClosesAndKeepsErrno)
{
    int fd;
    {
        Descriptor held(openat(AT_FDCWD, "/mnt", O_PATH | O_CLOEXEC));
        fd = held.Get();
        ASSERT_TRUE(held.IsOpen());
        errno = ENOSPC;
    }
    EXPECT_EQ(open_descriptors().count(fd), 0U);
    {
        Descriptor held(openat(AT_FDCWD, "/mnt", O_PATH | O_CLOEXEC));
        fd = held.Get();
        machine.Script(Call::CLOSE, {fails(EIO)});
        errno = ENOSPC;
    }
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
}

// A failed open() holds nothing and closes nothing.
TEST_F(DirectoryTest, DescriptorOfAFailedOpenClosesNothing)
{
    {
        Descriptor none(openat(AT_FDCWD, "/missing", O_RDONLY | O_CLOEXEC));
        EXPECT_FALSE(none.IsOpen());
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_EQ(machine.Calls(Call::CLOSE), 0);
}
