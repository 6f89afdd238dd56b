// The site's start and stop scripts.
#include "core/site_scripts.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "made_up_machine.h"

using Deeds = std::vector<std::string>;

class SiteScripts : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        for (const char *path : {"/etc/start", "/etc/stop"}) {
            machine.Write(path, "");
            machine.SetMode(path, 0755);
        }
        settings.startup_script = "/etc/start";
        settings.shutdown_script = "/etc/stop";
        machine.on_exec = [](char *const *) {};
    }

    static void WaitForStartScript()
    {
        waitpid(startup_child_pid, nullptr, 0);
    }
};

// The start script runs beside the daemon, with its argument and an alarm after thirty seconds.
TEST_F(SiteScripts, StartScriptIsNotWaitedFor)
{
    machine.on_exec = [](char *const *) { pause(); };
    run_startup();
    ASSERT_GT(startup_child_pid, 0);
    EXPECT_EQ(machine.Calls(Call::WAITPID), 0);
    kill(startup_child_pid, SIGKILL);
    WaitForStartScript();
}

// Its only argument is "-startup", and its alarm is set before it begins.
TEST_F(SiteScripts, StartScriptHasItsArgumentAndAlarm)
{
    run_startup();
    WaitForStartScript();
    EXPECT_EQ(machine.Deeds(), Deeds({"alarm 30", "execv /etc/start /etc/start -startup"}));
    EXPECT_EQ(errors.Take(), "");
}

// A start script that is known still is ended before the next one is begun.
TEST_F(SiteScripts, KnownStartScriptIsEnded)
{
    startup_child_pid = 4711;
    settings.startup_script.clear();
    run_startup();
    EXPECT_EQ(machine.Deeds(), Deeds({"kill 4711 9"}));
    EXPECT_EQ(startup_child_pid, -1);
    run_startup();
    EXPECT_EQ(machine.Deeds().size(), 1U);
    startup_child_pid = 0; // the first number that is one
    run_startup();
    EXPECT_EQ(machine.Deeds().back(), "kill 0 9");
}

// The stop script is waited for until it ends; its alarm rings after five seconds.
TEST_F(SiteScripts, StopScriptIsWaitedFor)
{
    run_shutdown();
    EXPECT_EQ(machine.Deeds(), Deeds({"alarm 5", "execv /etc/stop /etc/stop -shutdown"}));
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(startup_child_pid, -1);
}

// The wait is repeated until it is that child that has ended.
TEST_F(SiteScripts, StopScriptIsWaitedForAgain)
{
    machine.Script(Call::WAITPID, {fails(EINTR), returns(4711), fails(EINTR)});
    run_shutdown();
    EXPECT_EQ(machine.Calls(Call::WAITPID), 4);
}

// A start script that runs is not touched by the stop script.
TEST_F(SiteScripts, StopLeavesTheStartScriptAlone)
{
    startup_child_pid = 4711;
    run_shutdown();
    EXPECT_EQ(startup_child_pid, 4711);
    EXPECT_EQ(machine.Deeds("kill"), Deeds());
}

// What is no program is passed over without a word: none set, none there, a folder, no execute bit.
TEST_F(SiteScripts, WhatIsNoProgramIsPassedOver)
{
    machine.Write("/etc/plain", "");
    machine.SetMode("/etc/plain", 0644);
    machine.MakeDirectory("/etc/folder");
    for (const char *path : {"", "/etc/none", "/etc/plain", "/etc/folder", "start"}) {
        settings.startup_script = settings.shutdown_script = path;
        run_startup();
        run_shutdown();
        EXPECT_EQ(machine.Calls(Call::FORK), 0) << path;
        EXPECT_EQ(startup_child_pid, -1);
    }
    EXPECT_EQ(errors.Take(), "");
}

// One execute bit will do, whoever's.
TEST_F(SiteScripts, AnyExecuteBitWillDo)
{
    int runs = 0;
    for (mode_t mode : {0100U, 0010U, 0001U}) {
        machine.SetMode("/etc/stop", mode);
        run_shutdown();
        EXPECT_EQ(machine.Calls(Call::FORK), ++runs);
    }
}

// A program that cannot be executed ends with 1, which only the main loop will see.
TEST_F(SiteScripts, FailureToExecuteEndsTheChild)
{
    machine.on_exec = nullptr;
    machine.Write("/etc/start", "neither a script nor a program");
    run_startup();
    int status = 0;
    ASSERT_EQ(waitpid(startup_child_pid, &status, 0), startup_child_pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    run_shutdown();
    EXPECT_EQ(errors.Take(), "");
}

// Without a child there is nothing to wait for.
TEST_F(SiteScripts, RefusedForkIsSilent)
{
    machine.Script(Call::FORK, {fails(EAGAIN), fails(EAGAIN)});
    run_startup();
    EXPECT_EQ(startup_child_pid, -1);
    run_shutdown();
    EXPECT_EQ(machine.Calls(Call::WAITPID), 0);
    EXPECT_EQ(errors.Take(), "");
}

// A script's words, and null behind them.
TEST(ScriptArgumentVector, EndsInNull)
{
    EXPECT_EQ(script_arguments({}), ScriptArguments());
    EXPECT_EQ(script_arguments({"/etc/start", "-startup"}),
              (ScriptArguments{"/etc/start", "-startup", nullptr, nullptr}));
    EXPECT_EQ(script_arguments({"a", "b", "c"}), (ScriptArguments{"a", "b", "c", nullptr}));
}

// One word more would leave no room for the null: that is a bug, and told as one.
TEST(ScriptArgumentVectorDeathTest, FourWordsAreABug)
{
    EXPECT_DEATH(script_arguments({"a", "b", "c", "d"}),
                 "Assertion `words.size\\(\\) < arguments.size\\(\\)' failed");
}
