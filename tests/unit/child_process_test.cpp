// Commands and programs that are run and waited for.
#include "base/child_process.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

#include "made_up_machine.h"

using Deeds = std::vector<std::string>;
using ProgramRuns = MadeUpMachineTest;

static void say(int fd, const std::string &text)
{
    if (write(fd, text.data(), text.size()) < 0)
        _exit(77);
}

// The shell gets the command as it is, and its exit status decides.
TEST_F(ProgramRuns, ShellGetsTheCommandAsItIs)
{
    machine.on_exec = [](char *const *) {};
    EXPECT_EQ(run_shell("modprobe xfs; sleep 1.25"), 1);
    EXPECT_EQ(run_shell("a \"b  c\" 'd' $e"), 1);
    EXPECT_EQ(machine.Deeds(), Deeds({"execl /bin/sh sh -c modprobe xfs; sleep 1.25",
                                      "execl /bin/sh sh -c a \"b  c\" 'd' $e"}));
}

// Both ways of running something, of which all that follows holds.
static const struct {
    const char *name;
    int (*run)();
} ways[] = {
    {"run_shell", [] { return run_shell("true"); }},
    {"run_quietly", [] { return run_quietly({"true"}); }},
};

// Only an exit status of 0 is success.
TEST_F(ProgramRuns, OnlyStatusZeroIsSuccess)
{
    static const struct {
        void (*end)();
        int result;
    } cases[] = {
        {[] { _exit(0); }, 1},   {[] { _exit(1); }, 0},       {[] { _exit(127); }, 0},
        {[] { _exit(255); }, 0}, {[] { raise(SIGKILL); }, 0}, {[] { raise(SIGTERM); }, 0},
    };
    for (const auto &way : ways) {
        for (const auto &c : cases) {
            machine.on_exec = [&](char *const *) { c.end(); };
            EXPECT_EQ(way.run(), c.result) << way.name << " " << &c - cases;
        }
    }
}

// What cannot be run, forked or waited for has failed.
TEST_F(ProgramRuns, WhatCannotBeRunHasFailed)
{
    for (const auto &way : ways) {
        EXPECT_EQ(way.run(), 0) << way.name; // there is no such program
        machine.on_exec = [](char *const *) {};
        EXPECT_EQ(way.run(), 1) << way.name;
        machine.Script(Call::FORK, {fails(EAGAIN)});
        machine.ForgetCalls();
        EXPECT_EQ(way.run(), 0) << way.name;
        EXPECT_EQ(machine.Calls(Call::WAITPID), 0) << way.name; // it would be any other child
        machine.Script(Call::WAITPID, {fails(ECHILD)});
        EXPECT_EQ(way.run(), 0) << way.name;
        machine.on_exec = nullptr;
    }
}

// The daemon ignores SIGPIPE; programs get the usual way back.
TEST_F(ProgramRuns, ProgramsDieOfABrokenPipe)
{
    const auto old = signal(SIGPIPE, SIG_IGN);
    machine.on_exec = [](char *const *) {
        raise(SIGPIPE);
        _exit(0);
    };
    for (const auto &way : ways)
        EXPECT_EQ(way.run(), 0) << way.name;
    EXPECT_EQ(raise(SIGPIPE), 0); // and the daemon does not
    signal(SIGPIPE, old);
}

// A program found in PATH gets its words one by one, whatever is in them.
TEST_F(ProgramRuns, WordsStayWordsWithoutAShell)
{
    machine.on_exec = [](char *const *arguments) {
        const std::vector<std::string> expected = {"mount", "-o", "$(reboot) `x`", "", "a;b\n\"c"};
        size_t count = 0;
        for (; arguments[count]; count++) {
            if (count >= expected.size() || arguments[count] != expected[count])
                _exit(1);
        }
        _exit(count == expected.size() ? 0 : 2);
    };
    EXPECT_EQ(run_quietly({"mount", "-o", "$(reboot) `x`", "", "a;b\n\"c"}), 1);
    EXPECT_EQ(machine.Deeds("execvp mount mount -o ").size(), 1U);
}

// What a quiet program prints goes nowhere; a shell's command has the daemon's own streams.
TEST_F(ProgramRuns, OnlyAShellsOutputIsSeen)
{
    Printed output(stdout);
    machine.on_exec = [](char *const *) {
        say(STDOUT_FILENO, "said");
        say(STDERR_FILENO, "complained");
    };
    EXPECT_EQ(run_quietly({"mount"}), 1);
    EXPECT_EQ(output.Take(), "");
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(run_shell("mkswap"), 1);
    EXPECT_EQ(output.Take(), "said");
    EXPECT_EQ(errors.Take(), "complained");
}
