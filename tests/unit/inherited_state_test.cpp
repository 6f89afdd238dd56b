// What a careless parent left, and how children are made. Each case runs in a child of its own,
// since it changes what the whole process has.
#include "core/inherited_state.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/child_process.h"
#include "made_up_machine.h"

// Runs the case in a child; whether it found everything right.
static bool holds_in_a_child(const std::function<bool()> &is_right)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(is_right() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

static bool is_null(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

static bool has_action(int number, void (*action)(int))
{
    struct sigaction current;
    return sigaction(number, nullptr, &current) == 0 && current.sa_handler == action;
}

// Each of the three standard descriptors that is closed leads to /dev/null afterwards, for a drive
// that was opened there would be printed upon; those that are open stay as they are.
TEST(InheritedState, StandardDescriptorsAreOpen)
{
    for (int closed = 0; closed < 8; closed++) {
        EXPECT_TRUE(holds_in_a_child([=] {
            const int other = open("/", O_PATH | O_CLOEXEC);
            for (int fd = 0; fd < 3; fd++)
                dup2(other, fd);
            for (int fd = 0; fd < 3; fd++) {
                if (closed & (1 << fd))
                    close(fd);
            }
            const size_t before = open_descriptors().size();
            put_inherited_state_right();
            for (int fd = 0; fd < 3; fd++) {
                if (is_null(fd) != ((closed & (1 << fd)) != 0))
                    return false;
            }
            const size_t opened =
                static_cast<size_t>(__builtin_popcount(static_cast<unsigned>(closed)));
            return open_descriptors().size() == before + opened; // none of them stays beside
        })) << closed;
    }
}

// Children can be waited for, alarms ring, a broken pipe kills nobody, and no signal is held back.
TEST(InheritedState, SignalsAreAsTheDaemonNeedsThem)
{
    EXPECT_TRUE(holds_in_a_child([] {
        signal(SIGCHLD, SIG_IGN);
        signal(SIGALRM, SIG_IGN);
        signal(SIGPIPE, SIG_DFL);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        put_inherited_state_right();
        sigset_t blocked;
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        for (int number = 1; number < 32; number++) {
            if (sigismember(&blocked, number))
                return false;
        }
        return has_action(SIGCHLD, SIG_DFL) && has_action(SIGALRM, SIG_DFL) &&
               has_action(SIGPIPE, SIG_IGN);
    }));
}

// A line on stdout is out when it ends, also into a pipe.
TEST(InheritedState, LinesAreOutWhenTheyEnd)
{
    EXPECT_TRUE(holds_in_a_child([] {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) < 0)
            return false;
        fflush(stdout);
        dup2(ends[1], STDOUT_FILENO);
        put_inherited_state_right();
        printf("Polling mode enabled\nand then");
        char text[64] = {};
        return read(ends[0], text, sizeof(text)) > 0 &&
               std::string(text).starts_with("Polling mode enabled\n");
    }));
}

// A child finds SIGPIPE as every program expects it; its parent goes on ignoring it.
TEST(ChildProcess, ChildGetsSigpipeBack)
{
    EXPECT_TRUE(holds_in_a_child([] {
        signal(SIGPIPE, SIG_IGN);
        const pid_t child = fork_child();
        if (child == 0)
            _exit(has_action(SIGPIPE, SIG_DFL) ? 0 : 1);
        int status = -1;
        waitpid(child, &status, 0);
        return status == 0 && has_action(SIGPIPE, SIG_IGN);
    }));
}

// A child that cannot be made is told by the result.
TEST(ChildProcess, RefusalIsTold)
{
    MadeUpMachine machine;
    machine.Script(Call::FORK, {fails(EAGAIN)});
    EXPECT_EQ(fork_child(), -1);
    EXPECT_EQ(errno, EAGAIN);
}
