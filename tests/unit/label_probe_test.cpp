// Running the label probe program, and what it may answer.
#include "inspect/label_probe.h"

#include <algorithm>
#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "inspect/raid_members.h"
#include "made_up_machine.h"

using namespace std::string_literals;

// In the program's place: writes all of a text to its standard output.
static void say(const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (count < 0)
            _exit(77);
        done += static_cast<size_t>(count);
    }
}

class LabelProbe : public MadeUpMachineTest {
protected:
    // From now on the program answers this and ends with this status.
    void Answer(const std::string &text, int status = 0)
    {
        machine.on_exec = [=](char *const *) {
            say(text);
            _exit(status);
        };
    }

    int Probe(const std::string &name = "sdb1")
    {
        label = "old label";
        filesystem = "old filesystem";
        return probe_label(name, label, &filesystem);
    }

    std::string label;
    std::string filesystem;
};

// Label and filesystem, from every form of answer that the program may give.
TEST_F(LabelProbe, TakesLabelAndFilesystemOutOfTheAnswer)
{
    static const struct {
        const char *answer;
        const char *label;
        const char *filesystem;
    } cases[] = {
        {"DATA\n  filesystem: ext3\n", "DATA", "ext3"},
        {"DATA\nFilesystem:ext3\n", "DATA", "ext3"}, // any letter case, no blank
        {"DATA\nFILESYSTEM: ext3", "DATA", "ext3"},  // no line end
        {"DATA\n\t \tfilesystem: ext3\n", "DATA", "ext3"},
        {"\n  filesystem: ext3\n", "", "ext3"}, // no label
        {"DATA\n", "DATA", " "},
        {"DATA", "DATA", " "},
        {"", "", " "},
        {"\n", "", " "},
        {"\n\n\n", "", " "},
        {"  two words \n", "  two words ", " "}, // a label is taken as it is
        {"a:b\n", "a:b", " "},
        {"filesystem: ext3\n", "filesystem: ext3", " "},  // the first line is the label
        {"DATA\n  filesystem:  ext3\n", "DATA", " ext3"}, // one blank alone goes
        {"DATA\n  filesystem:\text3\n", "DATA", "\text3"},
        {"DATA\n  filesystem: ext3 \n", "DATA", "ext3 "},
        {"DATA\n  filesystem : ext3\n", "DATA", " "}, // the blank belongs to the key
        {"DATA\n  filesystem: a:b\n", "DATA", "a:b"},
        {"DATA\n  filesystem:\n", "DATA", ""},
        {"DATA\n  filesystem: ext3\n  filesystem: ext4\n", "DATA", "ext4"},
        {"DATA\n  filesystems: ext3\n", "DATA", " "},
        {"DATA\n  file: ext3\n", "DATA", " "},
        {"DATA\nfilesystem\n   \n\t\nno colon\n:\n: x\n  filesystem: xfs\n", "DATA", "xfs"},
        {"DATA\n  uuid: 1234-ABCD\n  filesystem: fat\n  version: FAT32\n", "DATA", "fat"},
        {"DATA\r\n  filesystem: fat\r\n", "DATA\r", "fat\r"},
    };
    for (const auto &c : cases) {
        label = "old label";
        filesystem = " ";
        parse_probe_answer(c.answer, label, &filesystem);
        EXPECT_EQ(label, c.label) << c.answer;
        EXPECT_EQ(filesystem, c.filesystem) << c.answer;
    }
}

// The same through the program, up to a NUL, at which a text ends.
TEST_F(LabelProbe, AsksTheProgramAndTakesItsAnswer)
{
    static const struct {
        std::string answer;
        const char *label;
        const char *filesystem;
    } cases[] = {
        {"DATA\n  filesystem: ext3\n", "DATA", "ext3"},
        {"DATA\n", "DATA", " "},
        {"", "", " "},
        {"DA\0TA\n  filesystem: fat\n"s, "DA", " "},
    };
    for (const auto &c : cases) {
        Answer(c.answer);
        EXPECT_EQ(Probe(), 1) << c.answer;
        EXPECT_EQ(label, c.label) << c.answer;
        EXPECT_EQ(filesystem, c.filesystem) << c.answer;
    }
}

// The label and each line with a colon are told, the daemon's wishes or not.
TEST_F(LabelProbe, TellsWhatItLearnt)
{
    Answer("DATA\n  filesystem: ext3\nnothing\n  UUID:1234\n  x:  y\n");
    Probe();
    EXPECT_EQ(errors.Take(), "Label: 'DATA'\n"
                             "  'filesystem' = 'ext3'\n"
                             "  'UUID' = '1234'\n"
                             "  'x' = ' y'\n");
    Answer("");
    Probe();
    EXPECT_EQ(errors.Take(), "Label: ''\n");
}

// The program is run by its path, with the device's path and "--fs".
TEST_F(LabelProbe, RunsTheProgramOnTheDevice)
{
    Answer("");
    Probe("sdb1");
    Probe("/dev/sdb1");
    Probe("/other/place");
    EXPECT_EQ(machine.Deeds("execv"),
              (std::vector<std::string>{
                  "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb1 --fs",
                  "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb1 --fs",
                  "execv /usr/bin/volsniffer /usr/bin/volsniffer /other/place --fs"}));
}

// It reads from and complains to /dev/null, answers into a pipe, and holds nothing of the daemon's.
TEST_F(LabelProbe, GivesTheProgramItsStandardStreamsAndNoOthers)
{
    const std::set<int> inherited = open_descriptors(); // what the runner of the tests left open
    machine.on_exec = [&](char *const *) {
        std::string facts;
        for (int fd : {STDIN_FILENO, STDERR_FILENO}) {
            struct stat status;
            fstat(fd, &status);
            const bool is_null = S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
            const bool is_read_write = (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR;
            facts += is_null && is_read_write ? "null " : "other ";
        }
        struct stat status;
        fstat(STDOUT_FILENO, &status);
        facts += S_ISFIFO(status.st_mode) ? "pipe" : "other";
        for (int fd : open_descriptors()) {
            if (fd > STDERR_FILENO && !inherited.contains(fd) && !(fcntl(fd, F_GETFD) & FD_CLOEXEC))
                facts += " " + std::to_string(fd);
        }
        say(facts);
    };
    EXPECT_EQ(Probe(), 1);
    EXPECT_EQ(label, "null null pipe");
}

// One read, of at most 4095 bytes: what is behind that is not there.
TEST_F(LabelProbe, ReadsAtMost4095Bytes)
{
    for (size_t size : {4094U, 4095U, 4096U, 60000U}) {
        Answer(std::string(size, 'x'));
        machine.ForgetCalls();
        EXPECT_EQ(Probe(), 1);
        EXPECT_EQ(label, std::string(std::min<size_t>(size, 4095), 'x')) << size;
        EXPECT_EQ(machine.Calls(Call::READ), 1);
    }
    // A fact that stands across the border is cut, one behind it is not seen.
    const std::string line = "  filesystem: ext3\n";
    static const struct {
        size_t label_size;
        const char *filesystem;
    } cases[] = {
        {4095 - 19, "ext3"}, {4095 - 18, "ext"}, {4095 - 14, ""}, {4095 - 13, " "}, {4095, " "}};
    for (const auto &c : cases) {
        Answer(std::string(c.label_size, 'x') + "\n" + line);
        EXPECT_EQ(Probe(), 1);
        EXPECT_EQ(filesystem, c.filesystem) << c.label_size;
    }
}

// An answer in two writes: only what was there at the first read counts.
TEST_F(LabelProbe, ReadsOnceThoughTheAnswerComesInTwoWrites)
{
    machine.on_exec = [](char *const *) {
        say("DATA\n");
        for (int unread = 1; unread > 0;)
            ioctl(STDOUT_FILENO, FIONREAD, &unread);
        say("  filesystem: ext3\n");
    };
    EXPECT_EQ(Probe(), 1);
    EXPECT_EQ(label, "DATA");
    EXPECT_EQ(filesystem, " ");
}

// A program that hangs up and then takes its time has answered nothing.
TEST_F(LabelProbe, WaitsForAProgramThatHangsUpEarly)
{
    machine.on_exec = [](char *const *) {
        close(STDOUT_FILENO);
        for (int i = 0; i < 1000; i++)
            sched_yield();
        _exit(3);
    };
    EXPECT_EQ(Probe(), 0);
    EXPECT_EQ(errors.Take(), "volsniffer failed for /dev/sdb1, return value 3\n");
}

// A failure leaves the label as it was, and a filesystem that keeps anybody from asking again,
// whatever was printed before.
TEST_F(LabelProbe, FailureLeavesTheLabelAndABlankFilesystem)
{
    for (int status : {1, 2, 127, 255}) {
        Answer("DATA\n  filesystem: ext3\n", status);
        EXPECT_EQ(Probe(), 0);
        EXPECT_EQ(label, "old label");
        EXPECT_EQ(filesystem, " ");
        EXPECT_EQ(errors.Take(),
                  "volsniffer failed for /dev/sdb1, return value " + std::to_string(status) + "\n");
    }
}

// A program that dies by a signal has failed, though its exit code is 0.
TEST_F(LabelProbe, DeathByASignalIsAFailure)
{
    for (int number : {SIGKILL, SIGTERM, SIGPIPE}) {
        machine.on_exec = [=](char *const *) {
            say("DATA\n  filesystem: ext3\n");
            signal(number, SIG_DFL);
            raise(number);
        };
        EXPECT_EQ(Probe(), 0);
        EXPECT_EQ(label, "old label");
        EXPECT_EQ(filesystem, " ");
        EXPECT_EQ(errors.Take(), "volsniffer failed for /dev/sdb1, return value 0\n");
    }
}

// A program that is not there, or that cannot be run, fails with 1.
TEST_F(LabelProbe, MissingProgramIsAFailure)
{
    EXPECT_EQ(Probe(), 0);
    EXPECT_EQ(label, "old label");
    EXPECT_EQ(filesystem, " ");
    EXPECT_EQ(errors.Take(), "volsniffer failed for /dev/sdb1, return value 1\n");
    machine.Write("/usr/bin/volsniffer", "no program");
    EXPECT_EQ(Probe(), 0);
    EXPECT_EQ(errors.Take(), "volsniffer failed for /dev/sdb1, return value 1\n");
}

// A pipe that breaks counts as an empty answer; the exit status still decides.
TEST_F(LabelProbe, ReadErrorIsAnEmptyAnswer)
{
    Answer("");
    machine.Script(Call::READ, {fails(EIO)});
    EXPECT_EQ(Probe(), 1);
    EXPECT_EQ(label, "");
    EXPECT_EQ(filesystem, " ");
}

// A RAID member is not asked: probing one would give the array's own label.
TEST_F(LabelProbe, RaidMemberIsNotProbed)
{
    Answer("DATA\n  filesystem: ext3\n");
    for (bool is_active : {false, true}) {
        raid_members["sdb1"] = is_active;
        EXPECT_EQ(Probe("sdb1"), 0);
        EXPECT_EQ(label, "");
        EXPECT_EQ(filesystem, " ");
    }
    EXPECT_EQ(machine.Calls(Call::PIPE), 0);
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(probe_label("sdb1", label, nullptr), 0);
}

// Named by its path it is not recognised, on purpose, and probed like any other device.
TEST_F(LabelProbe, RaidMemberByItsPathIsProbed)
{
    Answer("DATA\n  filesystem: ext3\n");
    raid_members["sdb1"] = true;
    EXPECT_EQ(Probe("/dev/sdb1"), 1);
    EXPECT_EQ(label, "DATA");
    EXPECT_EQ(filesystem, "ext3");
}

// An empty name is a caller's bug: nothing changes, and the pipe that was made for it stays open.
TEST_F(LabelProbe, EmptyNameLeavesItsPipeOpen)
{
    const std::set<int> before = open_descriptors();
    EXPECT_EQ(Probe(""), 0);
    EXPECT_EQ(label, "old label");
    EXPECT_EQ(filesystem, "old filesystem");
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
    std::set<int> left = open_descriptors();
    for (int fd : before)
        left.erase(fd);
    EXPECT_EQ(left.size(), 2U);
    for (int fd : left)
        close(fd);
}

// Without a pipe nothing happens and nothing changes.
TEST_F(LabelProbe, RefusedPipeChangesNothing)
{
    machine.Script(Call::PIPE, {fails(EMFILE), fails(EMFILE)});
    EXPECT_EQ(Probe(), 0);
    EXPECT_EQ(label, "old label");
    EXPECT_EQ(filesystem, "old filesystem");
    EXPECT_EQ(Probe(""), 0);
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
    EXPECT_EQ(errors.Take(), "");
}

// Without a child the device counts as asked, and the pipe is given back.
TEST_F(LabelProbe, RefusedForkBlanksTheFilesystem)
{
    machine.Script(Call::FORK, {fails(EAGAIN)});
    const std::set<int> before = open_descriptors();
    EXPECT_EQ(Probe(), 0);
    EXPECT_EQ(label, "old label");
    EXPECT_EQ(filesystem, " ");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(errors.Take(), "");
}

// A caller may want the label alone, whatever happens.
TEST_F(LabelProbe, WorksWithoutAFilesystem)
{
    Answer("DATA\n  filesystem: ext3\n");
    EXPECT_EQ(probe_label("sdb1", label, nullptr), 1);
    EXPECT_EQ(label, "DATA");
    EXPECT_EQ(errors.Take(), "Label: 'DATA'\n  'filesystem' = 'ext3'\n");
    Answer("", 1);
    EXPECT_EQ(probe_label("sdb1", label, nullptr), 0);
    machine.Script(Call::FORK, {fails(EAGAIN)});
    EXPECT_EQ(probe_label("sdb1", label, nullptr), 0);
    EXPECT_EQ(label, "DATA");
}

// The name may be the very string that is filled.
TEST_F(LabelProbe, NameMayBeTheLabelItself)
{
    Answer("DATA\n  filesystem: ext3\n");
    std::string text = "sdb1";
    EXPECT_EQ(probe_label(text, text, &filesystem), 1);
    EXPECT_EQ(text, "DATA");
    EXPECT_EQ(machine.Deeds("execv").back(),
              "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb1 --fs");
}

// A child that cannot be waited for gets fifteen looks, a thousandth of a second apart, and is
// killed at the last.
TEST_F(LabelProbe, KillsAChildThatCannotBeReaped)
{
    machine.on_exec = [](char *const *) {
        close(STDOUT_FILENO);
        pause();
    };
    const ::Answer failure = fails(EINTR);
    machine.Script(Call::WAITPID, {failure, failure, failure, failure, failure, failure, failure,
                                   failure, failure, failure, failure, failure, failure, failure});
    EXPECT_EQ(Probe(), 0);
    std::vector<std::string> expected(14, "usleep 1000");
    expected.push_back("kill child 9");
    std::vector<std::string> deeds = machine.Deeds();
    std::erase(deeds, "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb1 --fs");
    EXPECT_EQ(deeds, expected);
    EXPECT_EQ(errors.Take(), "volsniffer failed for /dev/sdb1, return value 0\n");
}

// When the kernel reaps children by itself, nobody learns the status: that is no success.
TEST_F(LabelProbe, LostStatusIsAFailure)
{
    Answer("DATA\n");
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(Probe(), 0);
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(label, "old label");
    EXPECT_EQ(errors.Take(), "volsniffer failed for /dev/sdb1, return value 255\n");
}

// The program finds the signals as every program expects them, though the daemon ignores SIGPIPE.
TEST_F(LabelProbe, ProgramIsEndedByABrokenPipe)
{
    signal(SIGPIPE, SIG_IGN);
    machine.on_exec = [](char *const *) { raise(SIGPIPE); };
    EXPECT_EQ(Probe(), 0);
    signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(errors.Take(), "volsniffer failed for /dev/sdb1, return value 0\n");
}

// Nothing of many probes stays behind: no descriptor, no child.
TEST_F(LabelProbe, LeavesNothingBehind)
{
    Answer("DATA\n");
    for (int i = 0; i < 10; i++)
        Probe();
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}
