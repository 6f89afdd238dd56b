// Which scripts an event runs, what they get, and what their end means.
#include "notify/notification_scripts.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "made_up_machine.h"

using Deeds = std::vector<std::string>;

static const char scripts[] = "/var/quarryd/mount-notify";

class NotificationScripts : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        machine.MakeDirectory(scripts);
    }

    void Add(const std::string &name, const std::string &content = "", mode_t mode = 0755)
    {
        machine.Write(std::string(scripts) + "/" + name, content);
        machine.SetMode(std::string(scripts) + "/" + name, mode);
    }

    // A script that ends with this status.
    void AddEnding(const std::string &name, int status)
    {
        Add(name, "#!/bin/sh\nexit " + std::to_string(status) + "\n");
    }

    static int Run()
    {
        return run_notification_scripts("sdb1", scripts, "about-to-mount");
    }

    // The names in the order in which the kernel lists the directory.
    std::vector<std::string> Listed()
    {
        std::vector<std::string> names;
        DIR *directory = opendir(machine.RealPath(scripts).c_str());
        while (const dirent *entry = readdir(directory)) {
            if (entry->d_name[0] != '.')
                names.emplace_back(entry->d_name);
        }
        closedir(directory);
        return names;
    }

    // The names of the scripts that were started, in their order.
    std::vector<std::string> Started()
    {
        std::vector<std::string> names;
        for (const std::string &deed : machine.Deeds("execv "))
            names.push_back(deed.substr(6, deed.find(' ', 6) - 6));
        return names;
    }

    // A text that a script leaves, which has no stream to say it.
    void Leave(const std::string &path, const std::string &text) const
    {
        std::ofstream(machine.RealPath(path)) << text;
    }

    std::string Left(const std::string &path) const
    {
        std::ifstream file(machine.RealPath(path));
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

// Without a directory, or without a script in it, nothing is run and nothing is vetoed.
TEST_F(NotificationScripts, WithoutScriptsNothingIsVetoed)
{
    EXPECT_EQ(Run(), 1); // an empty directory
    EXPECT_EQ(run_notification_scripts("sdb1", "/none", "mount"), 1);
    AddEnding("veto", 1);
    machine.Refuse(scripts, EACCES);
    EXPECT_EQ(Run(), 1); // one that cannot be read
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
    EXPECT_EQ(errors.Take(), "");
}

// A script that prints and ends well lets the mount happen; one that ends with 3 vetoes it.
TEST_F(NotificationScripts, ExitStatusVetoes)
{
    Add("talker", "#!/bin/sh\necho hello; echo trouble >&2\nexit 0\n");
    EXPECT_EQ(Run(), 1);
    AddEnding("refuser", 3);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(errors.Take(), "");
}

// One veto is enough, whatever comes before and after it, and stops no other script.
TEST_F(NotificationScripts, OneVetoIsEnough)
{
    for (const char *name : {"a", "b", "c", "d"})
        AddEnding(name, 0);
    EXPECT_EQ(Run(), 1);
    for (const char *name : {"a", "b", "c", "d"}) {
        const size_t before = Started().size();
        AddEnding(name, 1);
        EXPECT_EQ(Run(), 0) << name;
        EXPECT_EQ(Started().size(), before + 4) << name;
        AddEnding(name, 0);
    }
}

// A script that cannot be executed blocks the mount, so that somebody notices it.
TEST_F(NotificationScripts, BrokenScriptVetoes)
{
    static const struct {
        const char *what, *content;
        mode_t mode;
    } cases[] = {
        {"without execute bits", "#!/bin/sh\nexit 0\n", 0644},
        {"with a broken interpreter", "#!/none/interpreter\nexit 0\n", 0755},
        {"empty", "", 0755},
        {"no program", "\1\2\3", 0755},
    };
    for (const auto &c : cases) {
        Add("script", c.content, c.mode);
        EXPECT_EQ(Run(), 0) << c.what;
    }
    AddEnding("script", 0);
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(errors.Take(), "");
}

// A script that a signal ended has not said no.
TEST_F(NotificationScripts, SignalIsNoVeto)
{
    Add("dies", "#!/bin/sh\nkill -TERM $$\nexit 1\n");
    EXPECT_EQ(Run(), 1);
    Add("dies", "#!/bin/sh\nkill -KILL $$\nexit 1\n");
    EXPECT_EQ(Run(), 1);
}

// Regular files are scripts, also behind links; hidden ones and everything else are none.
TEST_F(NotificationScripts, OnlyVisibleRegularFilesAreScripts)
{
    const std::string place = scripts;
    Add("script");
    Add(".hidden", "", 0755);
    Add("script.bak~", "", 0644);
    machine.Write("/elsewhere", "");
    machine.Link(place + "/linked", "/elsewhere");
    machine.Link(place + "/.linked", "/elsewhere");
    machine.Link(place + "/dangling", "/none");
    machine.MakeDirectory(place + "/folder");
    machine.Write(place + "/folder/inner", "");
    machine.Link(place + "/to-folder", "folder");
    ASSERT_EQ(mkfifo(machine.RealPath(place + "/fifo").c_str(), 0755), 0);
    machine.on_exec = [](char *const *) {};
    EXPECT_EQ(Run(), 1);
    std::vector<std::string> started = Started();
    std::sort(started.begin(), started.end());
    EXPECT_EQ(started, Deeds({"linked", "script", "script.bak~"}));
}

// One after another, in the order of the directory listing.
TEST_F(NotificationScripts, RunOneAfterAnotherAsListed)
{
    const std::vector<std::string> names = {"m", "b", "z", "a", "k", "0", "Q", "_", "x", "c"};
    for (const std::string &name : names)
        Add(name);
    machine.on_exec = [&](char *const *) {
        if (machine.Exists("/running"))
            Leave("/together", "");
        Leave("/running", "");
        struct timespec moment = {0, 2000000};
        nanosleep(&moment, nullptr);
        unlink("/running");
    };
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(Started(), Listed());
    EXPECT_EQ(Started().size(), names.size());
    EXPECT_FALSE(machine.Exists("/together"));
    EXPECT_NE(names, Listed()); // so that sorting or the order of making would show
}

// Words, working directory, environment and signals of a script, and no descriptor at all.
TEST_F(NotificationScripts, ScriptsStartInTheirDirectoryWithoutDescriptors)
{
    Add("script");
    const std::string folder = machine.RealPath(scripts);
    setenv("QUARRYD_TEST_WORD", "from the daemon", 1);
    std::vector<int> extra;
    for (int count = 0; count < 20; count++)
        extra.push_back(dup(STDERR_FILENO)); // not close-on-exec
    const auto old = signal(SIGPIPE, SIG_IGN);
    machine.on_exec = [&](char *const *arguments) {
        std::string said;
        for (; *arguments; arguments++)
            said += "[" + std::string(*arguments) + "]";
        char directory[4096];
        said += getcwd(directory, sizeof(directory)) == folder ? " at home" : " lost";
        said += " " + std::to_string(open_descriptors().size()) + " descriptors";
        said += signal(SIGPIPE, SIG_IGN) == SIG_DFL ? "" : " with SIGPIPE ignored";
        Leave("/said", said + " " + getenv("QUARRYD_TEST_WORD"));
    };
    EXPECT_EQ(run_notification_scripts("/dev/sdb1", scripts, "umount"), 1);
    EXPECT_EQ(Left("/said"), "[script][/dev/sdb1][umount] at home 0 descriptors from the daemon");
    EXPECT_EQ(machine.Deeds(),
              Deeds({"close_range 0 4095 0", "execv script script /dev/sdb1 umount"}));
    signal(SIGPIPE, old);
    for (int fd : extra)
        close(fd);
    unsetenv("QUARRYD_TEST_WORD");
}

// A kernel without close_range() gets 4,096 calls instead.
TEST_F(NotificationScripts, OldKernelClosesOneByOne)
{
    Add("script");
    const int extra = dup(STDERR_FILENO);
    machine.Script(Call::CLOSE_RANGE, {fails(ENOSYS)});
    machine.on_exec = [&](char *const *) {
        const int calls = machine.Calls(Call::CLOSE);
        Leave("/said", std::to_string(open_descriptors().size()) + " left, " +
                           std::to_string(calls) + " closed");
    };
    machine.ForgetCalls();
    EXPECT_EQ(Run(), 1);
    const int before = machine.Calls(Call::CLOSE); // of the directory, which comes first
    EXPECT_EQ(Left("/said"), "0 left, " + std::to_string(4096 + before) + " closed");
    close(extra);
}

// A directory that cannot be entered vetoes: its scripts could not be asked.
TEST_F(NotificationScripts, DirectoryThatCannotBeEnteredVetoes)
{
    Add("script");
    machine.Script(Call::CHDIR, {fails(EACCES)});
    machine.on_exec = [](char *const *) {};
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(machine.Deeds(), Deeds());
}

// A script that cannot be forked is dropped without a word; the others run.
TEST_F(NotificationScripts, ScriptThatCannotBeForkedIsDropped)
{
    for (const char *name : {"a", "b", "c"})
        AddEnding(name, 1);
    machine.Script(Call::FORK, {really, fails(EAGAIN)});
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Started(), std::vector<std::string>({Listed()[0], Listed()[2]}));
    machine.Script(Call::FORK, {fails(EAGAIN), fails(EAGAIN), fails(EAGAIN)});
    EXPECT_EQ(Run(), 1); // nobody was asked
    EXPECT_EQ(errors.Take(), "");
}

// Waiting that fails is repeated; meanwhile eight scripts run at most.
TEST_F(NotificationScripts, AtMostEightRunAtOnce)
{
    const int failures = 20;
    for (int number = 0; number < 12; number++)
        AddEnding("script" + std::to_string(number), number == 11);
    machine.Script(Call::WAITPID, std::vector<Answer>(failures, fails(EINTR)));
    int most = 0;
    machine.ForgetCalls();
    machine.steady_now = [&] {
        if (machine.Calls(Call::WAITPID) <= failures)
            most = std::max(most, machine.Calls(Call::FORK));
        return std::chrono::seconds(0);
    };
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(most, 8);
    EXPECT_EQ(Started().size(), 12U);
}

// Time for all of them, which passes as these tests say.
class ScriptsDeadline : public NotificationScripts {
protected:
    // The first script takes so long, as its wait shows; later ones stay until they are killed.
    void Start(std::chrono::milliseconds first_takes)
    {
        machine.ForgetCalls();
        machine.steady_now = [=, this] {
            return std::chrono::hours(1) +
                   (machine.Calls(Call::WAITPID) > 0 ? first_takes : std::chrono::milliseconds(0));
        };
        machine.on_exec = [first = Listed()[0]](char *const *arguments) {
            if (arguments[0] != first)
                pause();
        };
    }

    // The process that a line says to be killed, or 0.
    static pid_t KilledBy(const std::string &line)
    {
        unsigned pid = 0;
        char end = 0;
        return sscanf(line.c_str(), "notify timeout: pid %u%c", &pid, &end) == 2 && end == '\n' &&
                       line.ends_with('\n') && line.find('\n') == line.size() - 1
                   ? static_cast<pid_t>(pid)
                   : 0;
    }
};

// Of two scripts the first takes five seconds: the second is started and killed at once, without a
// say; whoever reaps children finds it.
TEST_F(ScriptsDeadline, ScriptAfterTheDeadlineIsKilledAtOnce)
{
    Add("a");
    Add("b");
    Start(std::chrono::seconds(5));
    EXPECT_EQ(Run(), 1);
    const pid_t killed = KilledBy(errors.Take());
    ASSERT_GT(killed, 0);
    int status = 0;
    EXPECT_EQ(waitpid(killed, &status, 0), killed);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(machine.Deeds("kill"), Deeds({"kill child 9"}));
    EXPECT_EQ(machine.Deeds("usleep"), Deeds({"usleep 10000"}));
    EXPECT_EQ(machine.Deeds().back(), "usleep 10000");
}

// Those that have not been started by then are dropped without a line.
TEST_F(ScriptsDeadline, PendingScriptsAreDropped)
{
    for (const char *name : {"a", "b", "c", "d"})
        Add(name);
    Start(std::chrono::seconds(5));
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(machine.Calls(Call::FORK), 2);
    EXPECT_GT(KilledBy(errors.Take()), 0);
}

// The time is up after three seconds, not a moment earlier.
TEST_F(ScriptsDeadline, ThreeSecondsForAll)
{
    for (const char *name : {"a", "b"})
        AddEnding(name, 0);
    for (int milliseconds : {2999, 3000, 3001}) {
        Start(std::chrono::milliseconds(milliseconds));
        machine.on_exec = nullptr;
        EXPECT_EQ(Run(), 1) << milliseconds;
        EXPECT_EQ(KilledBy(errors.Take()) > 0, milliseconds >= 3000) << milliseconds;
    }
}

// A script that was never forked is nobody to wait for and nobody to kill.
TEST_F(ScriptsDeadline, ScriptThatWasNotForkedIsNotKilled)
{
    Add("a");
    Add("b");
    Start(std::chrono::seconds(5));
    machine.Script(Call::FORK, {really, fails(EAGAIN)});
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(machine.Deeds("kill"), Deeds());
    EXPECT_EQ(machine.Calls(Call::WAITPID), 1);
}

// A veto said in time stays one.
TEST_F(ScriptsDeadline, VetoInTimeStays)
{
    Add("a");
    Add("b");
    Start(std::chrono::seconds(5));
    machine.on_exec = [first = Listed()[0]](char *const *arguments) {
        _exit(arguments[0] == first ? 2 : 0);
    };
    EXPECT_EQ(Run(), 0);
    EXPECT_GT(KilledBy(errors.Take()), 0);
}

// Children that somebody else has reaped hold the run until its time is up, no longer.
TEST_F(ScriptsDeadline, WaitThatAlwaysFailsEndsWithTheTime)
{
    Add("a");
    machine.on_exec = [](char *const *) { pause(); };
    int looks = 0;
    machine.steady_now = [&] { return std::chrono::milliseconds(100 * looks++); };
    machine.Script(Call::WAITPID, std::vector<Answer>(100, fails(ECHILD)));
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(machine.Calls(Call::FORK), 1);
    EXPECT_GT(KilledBy(errors.Take()), 0);
}

// Directory, device text and word of every event, and what its scripts may say to it.
TEST_F(NotificationScripts, EventsHaveTheirDirectoriesAndWords)
{
    static const struct {
        int (*notify)();
        const char *directory;
        const char *words;
    } cases[] = {
        {[] { return notify_about_to_mount("sdb1"); }, scripts, "sdb1 about-to-mount"},
        {[] { return notify_remount("sdb1", "ro"); }, scripts, "sdb1 remount-ro"},
        {[] { return notify_remount("sdb1", "rw"); }, scripts, "sdb1 remount-rw"},
        {[] { return notify_unmounted("/dev/sdb1"); }, scripts, "/dev/sdb1 umount"},
        {[] { return notify_mounted("/dev/sdb1"); }, scripts, "/dev/sdb1 mount"},
        {[] { return notify_device_appeared("sdb"); }, "/var/quarryd/device-notify", "sdb appear"},
        {[] { return notify_device_disappeared("sdb"); }, "/var/quarryd/device-notify",
         "sdb disappear"},
    };
    machine.Write(std::string(scripts) + "/script", "");
    machine.Write("/var/quarryd/device-notify/script", "");
    Deeds expected;
    for (const auto &c : cases) {
        const std::string folder = machine.RealPath(c.directory);
        machine.on_exec = [&](char *const *) {
            char directory[4096];
            _exit(getcwd(directory, sizeof(directory)) == folder ? 0 : 9);
        };
        EXPECT_EQ(c.notify(), 1) << c.words;
        machine.on_exec = [](char *const *) { _exit(1); };
        EXPECT_EQ(c.notify(), 0) << c.words;
        expected.insert(expected.end(), 2, std::string("execv script script ") + c.words);
    }
    EXPECT_EQ(machine.Deeds("execv"), expected);
}
