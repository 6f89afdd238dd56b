// The made-up machine itself: what is tested on it must not reach the real one.
#include "made_up_machine.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/quota.h>
#include <sys/stat.h>
#include <sys/swap.h>
#include <sys/wait.h>
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
    EXPECT_EQ(mount("/dev/none", "/none", "", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(mount(nullptr, "/none", "none", 0, "data"), 0);
    EXPECT_EQ(swapon("/none", 1), 0);
    EXPECT_EQ(swapoff("/none"), 0);
    char file[] = "/file";
    EXPECT_EQ(quotactl(QCMD(Q_QUOTAON, GRPQUOTA), "/dev/none", 2, file), 0);
    EXPECT_EQ(sleep(1000), 0U);
    const std::string kill_line = "kill " + std::to_string(getppid()) + " 18";
    EXPECT_EQ(machine.Deeds(),
              Deeds({kill_line, kill_line, "umount /none", "mount /dev/none /none '' 1",
                     "mount (null) /none none 0 data", "swapon /none 1", "swapoff /none",
                     "quotactl 80000201 /dev/none 2 /file", "sleep 1000"}));
}

// The same with what the kernel may say to it.
TEST_F(MadeUp, HarmCanBeToldToFail)
{
    for (Call call : {Call::MOUNT, Call::SWAPON, Call::QUOTACTL})
        machine.Script(call, {fails(EPERM)});
    EXPECT_EQ(mount("", "", "", 0, nullptr), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(swapon("/none", 0), -1);
    EXPECT_EQ(quotactl(0, "", 0, nullptr), -1);
    EXPECT_EQ(mount("", "", "", 0, nullptr), 0); // once only
    EXPECT_EQ(swapon("/none", 0), 0);
    EXPECT_EQ(quotactl(0, "", 0, nullptr), 0);
    EXPECT_EQ(machine.Calls(Call::MOUNT), 2);
}

// Runs this in a child and gives its wait status.
static int status_of_child(const std::function<void()> &run)
{
    const pid_t child = fork();
    if (child == 0) {
        run();
        _exit(99);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

// No program of the real machine is run, by whatever call; the test's own stand-in is.
TEST_F(MadeUp, OnlyProgramsOfTheMachineAreRun)
{
    char word[] = "true";
    char *const words[] = {word, nullptr};
    const std::function<void()> calls[] = {
        [] { execl("/bin/sh", "sh", "-c", "exit 9", static_cast<char *>(nullptr)); },
        [&] { execvp("true", words); },
        [&] { execv("/bin/true", words); },
    };
    for (const auto &call : calls)
        EXPECT_EQ(WEXITSTATUS(status_of_child(call)), 99); // nothing there
    EXPECT_EQ(machine.Deeds(),
              Deeds({"execl /bin/sh sh -c exit 9", "execvp true true", "execv /bin/true true"}));
    machine.on_exec = [](char *const *arguments) {
        if (std::string(arguments[0]) == "sh")
            _exit(5);
    };
    EXPECT_EQ(WEXITSTATUS(status_of_child(calls[0])), 5);
    EXPECT_EQ(status_of_child(calls[1]), 0);
    machine.on_exec = nullptr;
    machine.Link("/bin/true", "/bin/busy");
    machine.Write("/usr/bin/true", "#!/bin/sh\nexit 7\n");
    machine.SetMode("/usr/bin/true", 0755);
    EXPECT_EQ(WEXITSTATUS(status_of_child(calls[1])), 7);
}

// Links of the machine lead to places of the machine.
TEST_F(MadeUp, RealPathsAreThoseOfTheMachine)
{
    machine.Write("/tmpfs/.mnt/sda1/file", "");
    machine.Remove("/mnt");
    machine.Link("/mnt", "/tmpfs/.mnt");
    machine.Link("/tmpfs/.mnt/main", "sda1/../sda1/.");
    machine.Link("/loop", "loop");
    static const struct {
        const char *path, *resolved;
    } cases[] = {
        {"/", "/"},
        {"/mnt", "/tmpfs/.mnt"},
        {"/mnt/sda1/file", "/tmpfs/.mnt/sda1/file"},
        {"/mnt//main/../sda1/", "/tmpfs/.mnt/sda1"},
        {"/mnt/../../..", "/"},
    };
    for (const auto &c : cases) {
        char *resolved = realpath(c.path, nullptr);
        EXPECT_STREQ(resolved, c.resolved) << c.path;
        free(resolved);
    }
    EXPECT_EQ(realpath("/mnt/none/../sda1", nullptr), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(realpath("/loop/file", nullptr), nullptr);
    EXPECT_EQ(errno, ELOOP);
    machine.Script(Call::REALPATH, {fails(EIO)});
    EXPECT_EQ(realpath("/mnt", nullptr), nullptr);
    EXPECT_EQ(errno, EIO);
    struct stat status;
    EXPECT_EQ(lstat("/mnt", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(rename("/mnt/sda1/file", "/mnt/main/other"), 0);
    EXPECT_TRUE(machine.Exists("/tmpfs/.mnt/sda1/other"));
}

// Time that nobody can set passes as a test says, or really.
TEST_F(MadeUp, SteadyClockObeysTheTest)
{
    using clock = std::chrono::steady_clock;
    const clock::time_point before = clock::now();
    machine.steady_now = [] { return std::chrono::hours(1); };
    EXPECT_EQ(clock::now().time_since_epoch(), std::chrono::hours(1));
    machine.steady_now = nullptr;
    EXPECT_GE(clock::now(), before);
    EXPECT_LT(clock::now(), before + std::chrono::minutes(1));
}

// A call that the machine does not know must not slip through to the real one.
TEST(MadeUpDeathTest, CallsWithoutAPlaceEndTheTests)
{
    EXPECT_DEATH(killpg(1, 0), "killpg\\(\\) would reach the real");
    EXPECT_DEATH(chmod("/none", 0), "chmod\\(\\) would reach the real");
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
