// The made-up machine itself: what is tested on it must not reach the real one.
#include "made_up_machine.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/swap.h>
#include <unistd.h>

using MadeUp = MadeUpMachineTest;
using Deeds = std::vector<std::string>;

// Every call that takes a path goes into the folder; paths of the real machine cannot be seen.
TEST_F(MadeUp, AbsolutePathsLeadIntoItsFolder)
{
    struct stat status;
    EXPECT_EQ(stat("/etc/passwd", &status), -1);
    EXPECT_EQ(open("/proc/self/stat", O_RDONLY | O_CLOEXEC), -1);
    EXPECT_EQ(stat("/dev/zero", &status), -1);

    ASSERT_EQ(mkdir("/mnt/folder", 0700), 0);
    ASSERT_EQ(symlink("folder", "/mnt/link"), 0);
    EXPECT_TRUE(machine.Exists("/mnt/folder"));
    EXPECT_EQ(machine.LinkTarget("/mnt/link"), "folder");
    char target[16];
    EXPECT_EQ(readlink("/mnt/link", target, sizeof(target)), 6);
    EXPECT_EQ(unlink("/mnt/link"), 0);
    EXPECT_EQ(rmdir("/mnt/folder"), 0);
    EXPECT_FALSE(machine.Exists("/mnt/folder"));
    EXPECT_FALSE(machine.Exists("/mnt/link"));

    // Links are followed within it.
    machine.Write("/etc/file", "");
    machine.Link("/mnt/absolute", "/etc/file");
    EXPECT_EQ(stat("/mnt/absolute", &status), 0);
    machine.Link("/mnt/outside", "/etc/passwd");
    EXPECT_EQ(stat("/mnt/outside", &status), -1);
    EXPECT_EQ(open("/mnt/outside", O_RDONLY | O_CLOEXEC), -1);
}

// What hurts is written down and not done: the parent of the tests would feel it.
TEST_F(MadeUp, HarmIsWrittenDownAndNotDone)
{
    EXPECT_EQ(kill(getppid(), SIGCONT), -1); // no such process on this machine
    machine.AddProcess(getppid(), "parent", {});
    EXPECT_EQ(kill(getppid(), SIGCONT), 0);
    EXPECT_EQ(umount("/none"), 0);
    EXPECT_EQ(swapoff("/none"), 0);
    EXPECT_EQ(sleep(1000), 0U);
    const std::string kill_line = "kill " + std::to_string(getppid()) + " 18";
    EXPECT_EQ(machine.Deeds(),
              Deeds({kill_line, kill_line, "umount /none", "swapoff /none", "sleep 1000"}));
}

// A call that the machine does not know must not slip through to the real one.
TEST(MadeUpDeathTest, CallsWithoutAPlaceEndTheTests)
{
    EXPECT_DEATH(mount("/none", "/none", "none", 0, nullptr), "mount\\(\\) would reach the real");
    EXPECT_DEATH(umount2("/none", 0), "umount2\\(\\) would reach the real");
    EXPECT_DEATH(swapon("/none", 0), "swapon\\(\\) would reach the real");
    EXPECT_DEATH(system("true") == 0 ? abort() : void(), "system\\(\\) would reach the real");
}

// Answers are given in their order, and then the kernel's own.
TEST_F(MadeUp, AnswersComeInTheirOrder)
{
    machine.Script(Call::CHDIR, {fails(EACCES), really, returns(7)});
    machine.ForgetCalls();
    EXPECT_EQ(chdir("/mnt"), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(chdir("/mnt"), 0);
    EXPECT_EQ(chdir("/mnt"), 7);
    EXPECT_EQ(chdir("/none"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(machine.Calls(Call::CHDIR), 4);
    EXPECT_EQ(machine.SystemCalls(), 4);
}

// A refused path is refused by whatever name it is opened.
TEST_F(MadeUp, RefusedPathIsRefusedByAnyName)
{
    machine.Write("/sys/block/sda/size", "8");
    machine.Refuse("/sys/block/sda", EIO);
    EXPECT_EQ(open("/sys/block/sda", O_PATH | O_CLOEXEC), -1);
    EXPECT_EQ(errno, EIO);
    const int folder = open("/sys/block", O_PATH | O_CLOEXEC);
    EXPECT_EQ(openat(folder, "sda", O_PATH | O_CLOEXEC), -1);
    EXPECT_EQ(errno, EIO);
    const int size = openat(folder, "sda/size", O_PATH | O_CLOEXEC);
    EXPECT_GE(size, 0);
    close(size);
    close(folder);
}

// Each way to make a descriptor that would outlive an exec is noticed.
TEST(MadeUpMachineItself, NoticesWhatIsLeftOpenAtExec)
{
    MadeUpMachine machine;
    machine.Write("/mnt/file", "");
    close(open("/mnt/file", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(machine.Deeds(), Deeds());
    close(open("/mnt/file", O_RDONLY));
    int ends[2];
    ASSERT_EQ(pipe2(ends, 0), 0);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(machine.Deeds(), Deeds({"left open at exec: /mnt/file", "left open at exec: pipe",
                                      "left open at exec: pipe"}));
}
