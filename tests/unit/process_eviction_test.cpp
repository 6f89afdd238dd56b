// Who uses a path, and how they are driven out of it. The processes are made up: the signals that
// they would get are written down.
#include "mount/process_eviction.h"

#include <algorithm>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>

#include "made_up_machine.h"

using Deeds = std::vector<std::string>;

class ProcessEviction : public MadeUpMachineTest {
protected:
    // Adds a pause to the expected deeds, and a pass over all processes that sends nothing.
    static Deeds WithPauses(Deeds first, int pauses, const Deeds &last)
    {
        for (int i = 0; i < pauses; i++)
            first.push_back("usleep 100000");
        first.insert(first.end(), last.begin(), last.end());
        return first;
    }

    // Signals and pauses, without the log.
    Deeds Signals() const
    {
        Deeds deeds = machine.Deeds();
        std::erase_if(deeds, [](const std::string &deed) { return deed.starts_with("log "); });
        return deeds;
    }
};

// What counts as use: root, working directory, program, open files. With writers_only open files
// alone count, and of those only what carries a write-permission bit: the file's mode decides, not
// what it was opened for.
TEST_F(ProcessEviction, UseOfAPath)
{
    machine.Write("/mnt/sdb1/writable", "");
    machine.Write("/mnt/sdb1/fixed", "");
    machine.SetMode("/mnt/sdb1/fixed", 0555);
    machine.MakeDirectory("/mnt/sdb1/folder");
    static const struct {
        const char *link, *target;
        bool is_user, is_writer;
    } cases[] = {
        {"root", "/mnt/sdb1", true, false},
        {"cwd", "/mnt/sdb1/folder", true, false},
        {"exe", "/mnt/sdb1/program", true, false},
        {"exe", "/mnt/sdb1/program (deleted)", true, false},
        {"fd/0", "/mnt/sdb1/writable", true, true},
        {"fd/255", "/mnt/sdb1/writable", true, true},
        {"fd/0", "/mnt/sdb1/fixed", true, false},
        {"fd/0", "/mnt/sdb1/folder", true, true},
        {"fd/0", "/mnt/sdb1/gone (deleted)", true, false}, // its mode cannot be told
        {"fd/0", "/mnt/sdb10/file", true, false},          // a prefix, of text
        {"fd/0", "/mnt/sdb1", true, true},
        {"fd/0", "/mnt/sdb", false, false},
        {"fd/0", "/mnt/sdc1/file", false, false},
        {"fd/0", "/x/mnt/sdb1/file", false, false},
        {"fd/0", "pipe:[4711]", false, false},
        {"fd/name", "/mnt/sdb1/writable", true, true}, // whatever it is called
        {"fd/.hidden", "/mnt/sdb1/writable", false, false},
        {"task", "/mnt/sdb1", false, false},
        {"root", "/", false, false},
    };
    for (const auto &c : cases) {
        machine.Remove("/proc/12");
        machine.MakeDirectory("/proc/12/fd");
        machine.Link(std::string("/proc/12/") + c.link, c.target);
        EXPECT_EQ(process_uses_path(12, "sdb1", "/mnt/sdb1", false), c.is_user)
            << c.link << ' ' << c.target;
        EXPECT_EQ(process_uses_path(12, "sdb1", "/mnt/sdb1", true), c.is_writer)
            << c.link << ' ' << c.target;
    }
}

// The first link that leads under the path is named, with what it leads to: who asks beforehand
// whom an eviction would end is told why.
TEST_F(ProcessEviction, NamesTheLinkOfAUse)
{
    machine.MakeDirectory("/proc/12/fd");
    machine.Link("/proc/12/root", "/");
    machine.Link("/proc/12/cwd", "/mnt/sdb10/folder");
    machine.Link("/proc/12/fd/3", "/mnt/sdb1/file");
    std::string target;
    EXPECT_EQ(link_under_path(12, "/mnt/sdb1", false, &target), "cwd");
    EXPECT_EQ(target, "/mnt/sdb10/folder");
    EXPECT_EQ(link_under_path(12, "/mnt/sdb1/", false, &target), "fd/3");
    EXPECT_EQ(target, "/mnt/sdb1/file");
    EXPECT_EQ(link_under_path(12, "/mnt/sdb1", true), ""); // its mode cannot be told
    EXPECT_EQ(link_under_path(12, "/mnt/sdc1", false), "");
    EXPECT_EQ(errors.Take(), "");
}

// Each of the nine permission bits, and each of the three for writing.
TEST_F(ProcessEviction, AnyWritePermissionBitMakesAWriter)
{
    machine.Write("/mnt/sdb1/file", "");
    machine.AddProcess(12, "editor", {"/mnt/sdb1/file"});
    for (mode_t mode = 1; mode <= 0400; mode <<= 1) {
        machine.SetMode("/mnt/sdb1/file", mode);
        EXPECT_EQ(process_uses_path(12, "sdb1", "/mnt/sdb1", true), (mode & 0222) != 0) << mode;
    }
}

// A process that has gone, or whose files cannot be seen, uses nothing.
TEST_F(ProcessEviction, UnreadableProcessUsesNothing)
{
    EXPECT_FALSE(process_uses_path(12, "sdb1", "/mnt/sdb1", false));
    machine.Link("/proc/12/cwd", "/mnt/sdb1");
    EXPECT_TRUE(process_uses_path(12, "sdb1", "/mnt/sdb1", false));
    EXPECT_FALSE(process_uses_path(12, "sdb1", "/mnt/sdb1", true));
    EXPECT_EQ(errors.Take(), "");
}

// 511 bytes of a link are looked at.
TEST_F(ProcessEviction, LooksAt511BytesOfALink)
{
    const std::string path = "/mnt/" + std::string(506, 'm');
    machine.Link("/proc/12/cwd", path + "m");
    machine.MakeDirectory("/proc/12/fd");
    machine.Link("/proc/12/fd/0", path + "m");
    EXPECT_TRUE(process_uses_path(12, "sdb1", path, false));
    EXPECT_FALSE(process_uses_path(12, "sdb1", path + "m", false));
    EXPECT_TRUE(process_uses_path(12, "sdb1", "", false)); // an empty path is at the front of all
}

// The device is not consulted.
TEST_F(ProcessEviction, DeviceDoesNotMatter)
{
    machine.AddProcess(12, "dd", {"/dev/sdb1"});
    EXPECT_FALSE(process_uses_path(12, "sdb1", "/mnt/sdb1", false));
    EXPECT_TRUE(process_uses_path(12, "", "/dev/sdb1", false));
}

// A file's mode may be a question to a server that is gone: it is asked only where the name fits
// and writers alone are wanted.
TEST_F(ProcessEviction, AsksForNoModeThatDoesNotMatter)
{
    machine.AddProcess(12, "editor", {"/mnt/dead/a", "/mnt/dead/b", "/mnt/sdb1/c"});
    machine.Refuse("/proc/12/fd/0", EIO);
    machine.ForgetCalls();
    process_uses_path(12, "sdb1", "/mnt/sdc1", false);
    process_uses_path(12, "sdb1", "/mnt/sdc1", true);
    process_uses_path(12, "sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(machine.Calls(Call::STAT), 0);
    process_uses_path(12, "sdb1", "/mnt/sdb1", true);
    EXPECT_EQ(machine.Calls(Call::STAT), 1);
}

// One that goes when it is asked to: SIGTERM, a tenth of a second, and nobody is left.
TEST_F(ProcessEviction, ProcessThatObeys)
{
    machine.AddProcess(12, "editor", {"/mnt/sdb1/file"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed == "kill 12 15")
            machine.Remove("/proc/12");
    };
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(machine.Deeds(), Deeds({"log 6 12: editor is using mount points. terminating...",
                                      "kill 12 15", "usleep 100000"}));
    EXPECT_EQ(errors.Take(), "");
}

// One that takes its time is not signalled again while it has its second of grace.
TEST_F(ProcessEviction, ProcessThatTakesItsTime)
{
    machine.AddProcess(12, "editor", {"/mnt/sdb1/file"});
    int pauses = 0;
    machine.on_deed = [&](const std::string &deed) {
        if (deed.starts_with("usleep") && ++pauses == 10)
            machine.Remove("/proc/12");
    };
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(Signals(), WithPauses({"kill 12 15"}, 10, {}));
}

// One that ignores SIGTERM is logged twice and gets SIGKILL after ten pauses, then SIGCONT, so that
// a stopped one dies too.
TEST_F(ProcessEviction, ProcessThatIgnoresSigterm)
{
    machine.AddProcess(12, "stubborn", {"/mnt/sdb1/file"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed == "kill 12 9")
            machine.Remove("/proc/12");
    };
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(machine.Deeds(),
              WithPauses({"log 6 12: stubborn is using mount points. terminating...", "kill 12 15"},
                         10,
                         {"log 6 12: stubborn is still using mount point. forcibly terminating...",
                          "kill 12 9", "kill 12 18", "usleep 100000"}));
}

// One that survives even that is given up after the eleventh pass.
TEST_F(ProcessEviction, ProcessThatCannotDie)
{
    machine.AddProcess(12, "stuck", {"/mnt/sdb1/file"});
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(Signals(),
              WithPauses({"kill 12 15"}, 10, {"kill 12 9", "kill 12 18", "usleep 100000"}));
}

// Whoever comes in between has no SIGTERM, but the SIGKILL of the end.
TEST_F(ProcessEviction, LatecomerIsOnlyKilled)
{
    machine.AddProcess(12, "first", {"/mnt/sdb1/file"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed == "kill 12 15") {
            machine.Remove("/proc/12");
            machine.AddProcess(13, "second", {"/mnt/sdb1/file"});
        }
        if (deed == "kill 13 9")
            machine.Remove("/proc/13");
    };
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(Signals(),
              WithPauses({"kill 12 15"}, 10, {"kill 13 9", "kill 13 18", "usleep 100000"}));
}

// A working directory inside keeps a mount busy; for writers alone it does not count.
TEST_F(ProcessEviction, WorkingDirectoryCountsUnlessWritersAloneAreAskedFor)
{
    machine.AddProcess(12, "shell", {});
    machine.Link("/proc/12/cwd", "/mnt/sdb1");
    evict_mount_users("sdb1", "/mnt/sdb1", true);
    EXPECT_EQ(machine.Deeds(), Deeds());
    machine.on_deed = [&](const std::string &deed) {
        if (deed.starts_with("kill"))
            machine.Remove("/proc/12");
    };
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(Signals(), Deeds({"kill 12 15", "usleep 100000"}));
}

// For writers alone, one that reads what may be written goes, and one that writes what may not be
// stays: the mode decides.
TEST_F(ProcessEviction, ModeDecidesAboutWriters)
{
    machine.Write("/mnt/sdb1/may-be-written", "");
    machine.Write("/mnt/sdb1/fixed", "");
    machine.SetMode("/mnt/sdb1/fixed", 0444);
    machine.AddProcess(12, "reader", {"/mnt/sdb1/may-be-written"});
    machine.AddProcess(13, "writer", {"/mnt/sdb1/fixed"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed == "kill 12 15")
            machine.Remove("/proc/12");
    };
    evict_mount_users("sdb1", "/mnt/sdb1", true);
    EXPECT_EQ(Signals(), Deeds({"kill 12 15", "usleep 100000"}));
}

// The comparison is one of text: /mnt/sdb10 is cleared together with /mnt/sdb1.
TEST_F(ProcessEviction, PrefixMeetsTheNeighbour)
{
    machine.AddProcess(12, "neighbour", {"/mnt/sdb10/file"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed.starts_with("kill"))
            machine.Remove("/proc/12");
    };
    evict_mount_users("sdb10", "/mnt/sdb10/file/deeper", false);
    EXPECT_EQ(Signals(), Deeds());
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(Signals(), Deeds({"kill 12 15", "usleep 100000"}));
}

// Several users, each once a pass; the daemon itself is none of the exceptions.
TEST_F(ProcessEviction, EveryUserIsSignalledTheDaemonToo)
{
    const std::string self = std::to_string(getpid());
    machine.AddProcess(getpid(), "quarryd", {"/mnt/sdb1/a"});
    machine.AddProcess(12, "editor", {"/mnt/sdb1/a", "/mnt/sdb1/b"});
    machine.AddProcess(13, "other", {"/mnt/sdc1/a"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed.starts_with("kill 12"))
            machine.Remove("/proc/12");
        if (deed.starts_with("kill " + self))
            machine.Remove("/proc/" + self);
    };
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    Deeds signals = Signals();
    std::sort(signals.begin(), signals.end());
    Deeds expected = {"kill 12 15", "kill " + self + " 15", "usleep 100000"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(signals, expected);
}

// What is no process in /proc is not asked.
TEST_F(ProcessEviction, OnlyNumbersAreProcesses)
{
    for (const char *name : {"self", "0", "-12", ".12", "net"}) {
        machine.MakeDirectory(std::string("/proc/") + name + "/fd");
        machine.Link(std::string("/proc/") + name + "/fd/0", "/mnt/sdb1/file");
    }
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(machine.Deeds(), Deeds());
    EXPECT_FALSE(device_in_use("/mnt/sdb1"));
}

// The log shows the first word of a command line, of which 255 bytes are looked at.
TEST_F(ProcessEviction, LogShowsTheCommand)
{
    static const struct {
        const char *what;
        std::string content;
        std::string shown;
    } cases[] = {
        {"arguments", std::string("a\0b\0", 4), "a"},
        {"nothing, as of a kernel thread", "", ""},
        {"blanks", "a) Z b", "a) Z b"},
        {"a long one", std::string(300, 'c'), std::string(255, 'c')},
        {"a format", "%s%n", "%s%n"},
    };
    for (const auto &c : cases) {
        machine.Remove("/proc/12");
        machine.Link("/proc/12/cwd", "/mnt/sdb1");
        machine.Write("/proc/12/cmdline", c.content);
        machine.on_deed = [&](const std::string &deed) {
            if (deed.starts_with("kill"))
                machine.Remove("/proc/12");
        };
        evict_mount_users("sdb1", "/mnt/sdb1", false);
        EXPECT_EQ(machine.Deeds("log").back(),
                  "log 6 12: " + c.shown + " is using mount points. terminating...")
            << c.what;
    }
    machine.Link("/proc/12/cwd", "/mnt/sdb1");
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(machine.Deeds("log").back(), // gone between two looks
              "log 6 12: (unknown) is using mount points. terminating...");
}

// "/" is never cleared: nothing is even looked at.
TEST_F(ProcessEviction, RootIsNeverCleared)
{
    machine.AddProcess(12, "init", {"/file"});
    machine.ForgetCalls();
    evict_mount_users("sda1", "/", false);
    evict_mount_users("sda1", "/", true);
    EXPECT_EQ(machine.SystemCalls(), 0);
    EXPECT_EQ(machine.Deeds(), Deeds());
}

// Without /proc nobody can be found.
TEST_F(ProcessEviction, WithoutProc)
{
    machine.Refuse("/proc", ENOENT);
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(errors.Take(), "Warning: Cannot stat /proc\n");
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
    EXPECT_FALSE(device_in_use("/dev/sdb1"));
    EXPECT_FALSE(OpenFileSnapshot("/dev/").IsInUse("/dev/sdb1"));
}

// Without a child nobody is driven out.
TEST_F(ProcessEviction, WithoutFork)
{
    machine.AddProcess(12, "editor", {"/mnt/sdb1/file"});
    machine.Script(Call::FORK, {fails(EAGAIN)});
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(errors.Take(), "Cannot fork! Resource temporarily unavailable\n");
    EXPECT_EQ(machine.Deeds(), Deeds());
}

// A child that cannot be waited for is told of.
TEST_F(ProcessEviction, WithoutWaiting)
{
    machine.Script(Call::WAITPID, {fails(ECHILD)});
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(errors.Take(), "Cannot wait for child process to clear processes out "
                             "(No child processes)\n");
}

// The child goes into /proc; when it cannot, or cannot read it, it says so and nobody is harmed.
TEST_F(ProcessEviction, ChildThatCannotSeeProc)
{
    machine.AddProcess(12, "editor", {"/mnt/sdb1/file"});
    machine.Script(Call::CHDIR, {fails(EACCES)});
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(errors.Take(), "Cannot chdir to /proc\n");
    machine.Script(Call::CHDIR, {});
    machine.Script(Call::OPEN, {fails(EACCES)});
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    EXPECT_EQ(errors.Take(), "Cannot opendir /proc\n");
    EXPECT_EQ(machine.Deeds(), Deeds());
}

// It is the child that goes to /proc.
TEST_F(ProcessEviction, LeavesTheDaemonWhereItWas)
{
    char before[PATH_MAX];
    char after[PATH_MAX];
    ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
    evict_mount_users("sdb1", "/mnt/sdb1", false);
    ASSERT_NE(getcwd(after, sizeof(after)), nullptr);
    EXPECT_STREQ(before, after);
}

// An open file is any whose name begins with the path: a drive is in use while its partition is.
TEST_F(ProcessEviction, OpenFilesAreFoundByPrefix)
{
    machine.AddProcess(12, "dd", {"/dev/sdb1", "/dev/null"});
    machine.AddProcess(13, "other", {"/home/file", "socket:[1]"});
    machine.Link("/proc/13/cwd", "/dev/sdc");
    machine.Link("/proc/13/fd/name", "/dev/sdd");
    machine.Link("/proc/13/fd/7x", "/dev/sde");
    static const struct {
        const char *path;
        bool in_use;
    } cases[] = {
        {"/dev/sdb1", true},  {"/dev/sdb", true},     {"/dev/sd", true}, {"/dev/sdb12", false},
        {"/dev/sda", false},  {"/dev/sdc", false}, // a working directory is no open file
        {"/dev/sdd", false},                       // no descriptor
        {"/dev/sde", true},                        // its name begins with a digit
        {"/home/file", true}, {"/home/file2", false}, {"socket:", true}, {"", true},
    };
    for (const auto &c : cases)
        EXPECT_EQ(device_in_use(c.path), c.in_use) << c.path;
    for (const auto &c : cases) {
        OpenFileSnapshot snapshot("");
        EXPECT_EQ(snapshot.IsInUse(c.path), c.in_use) << c.path;
    }
}

// 255 bytes of a link are looked at.
TEST_F(ProcessEviction, LooksAt255BytesOfAnOpenFile)
{
    const std::string path = "/dev/" + std::string(250, 'd');
    machine.AddProcess(12, "dd", {path + "d"});
    EXPECT_TRUE(device_in_use(path));
    EXPECT_FALSE(device_in_use(path + "d"));
    EXPECT_TRUE(OpenFileSnapshot("/dev/").IsInUse(path));
    EXPECT_FALSE(OpenFileSnapshot("/dev/").IsInUse(path + "d"));
}

// The first hit ends the search.
TEST_F(ProcessEviction, FirstHitEndsTheSearch)
{
    for (int pid = 1; pid <= 50; pid++)
        machine.AddProcess(pid, "dd", {"/dev/sdb"});
    machine.ForgetCalls();
    EXPECT_TRUE(device_in_use("/dev/sdb"));
    EXPECT_EQ(machine.Calls(Call::READLINK), 1);
}

// The snapshot answers as a search for each path would, and reads /proc once, at the first
// question.
TEST_F(ProcessEviction, OneReadingAnswersManyQuestions)
{
    for (int pid = 1; pid <= 40; pid++)
        machine.AddProcess(pid, "dd",
                           {"/dev/sd" + std::string(1, static_cast<char>('a' + pid % 7)) +
                                std::to_string(pid % 13),
                            "/dev/null", "/mnt/x", "/dev"});
    OpenFileSnapshot snapshot("/dev/");
    machine.ForgetCalls();
    int in_use = 0;
    for (char letter = 'a'; letter <= 'z'; letter++) {
        for (const char *number : {"", "0", "1", "11", "12", "13", "2"}) {
            const std::string path = std::string("/dev/sd") + letter + number;
            const int readings = machine.Opened("/proc");
            const bool expected = device_in_use(path);
            EXPECT_EQ(machine.Opened("/proc"), readings + 1);
            EXPECT_EQ(snapshot.IsInUse(path), expected) << path;
            in_use += expected ? 1 : 0;
        }
    }
    EXPECT_GT(in_use, 20);
    machine.ForgetCalls();
    OpenFileSnapshot other("/dev/");
    EXPECT_EQ(machine.Opened("/proc"), 0); // nobody has asked yet
    for (int i = 0; i < 100; i++)
        other.IsInUse("/dev/sda" + std::to_string(i));
    EXPECT_EQ(machine.Opened("/proc"), 1);
    // What is opened later is not seen: it is one look.
    machine.AddProcess(99, "dd", {"/dev/sdz"});
    EXPECT_FALSE(other.IsInUse("/dev/sdz"));
    EXPECT_TRUE(device_in_use("/dev/sdz"));
}
