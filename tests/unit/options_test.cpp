// The command line, and the mode that the machine suggests.
#include "core/options.h"

#include "base/daemon_state.h"
#include "made_up_machine.h"

class Options : public MadeUpMachineTest {
protected:
    static int Parse(std::vector<const char *> words)
    {
        words.insert(words.begin(), "quarryd");
        return parse_options(static_cast<int>(words.size()), words.data());
    }

    static int Comment(std::vector<const char *> words)
    {
        words.insert(words.begin(), "quarryd");
        return comment_on_options(static_cast<int>(words.size()), words.data());
    }
};

// Of "hotplug" and "polling" the last one wins, with any number of '-' before it.
TEST_F(Options, LastModeWins)
{
    static const struct {
        std::vector<const char *> words;
        int mode_before;
        int mode;
    } cases[] = {
        {{}, 0, 0},
        {{}, 1, 1}, // what the machine suggested
        {{"--hotplug"}, 0, 1},
        {{"-hotplug"}, 0, 1},
        {{"---hotplug"}, 0, 1},
        {{"--------hotplug"}, 0, 1},
        {{"--polling"}, 1, 0},
        {{"--hotplug", "--polling"}, 0, 0},
        {{"--polling", "--hotplug"}, 0, 1},
        {{"--nfsx"}, 1, 1},
    };
    for (const auto &c : cases) {
        hotplug_mode = c.mode_before;
        EXPECT_EQ(Parse(c.words), 0);
        EXPECT_EQ(hotplug_mode, c.mode);
    }
    EXPECT_EQ(errors.Take(), "");
}

// Force at exit is allowed unless it is forbidden.
TEST_F(Options, NfsxForbidsForce)
{
    Parse({"--hotplug"});
    EXPECT_EQ(no_force_shutdown, 0);
    Parse({"--nfsx"});
    EXPECT_EQ(no_force_shutdown, 1);
}

// The first thing that is no switch ends it, with a line that names it.
TEST_F(Options, UnknownWordsStop)
{
    static const struct {
        std::vector<const char *> words;
        const char *line;
    } cases[] = {
        {{"foo"}, "Unknown parameter foo\n"},
        {{""}, "Unknown parameter \n"},
        {{"hotplug"}, "Unknown parameter hotplug\n"},
        {{"-?"}, "Unknown switch ?\n"},
        {{"--foo"}, "Unknown switch foo\n"},
        {{"-"}, "Unknown switch \n"},
        {{"----"}, "Unknown switch \n"},
        {{"--Hotplug"}, "Unknown switch Hotplug\n"},
        {{"--hotplug=1"}, "Unknown switch hotplug=1\n"},
        {{"--hot-plug"}, "Unknown switch hot-plug\n"},
        {{"--hotplug", "foo", "--bar"}, "Unknown parameter foo\n"},
        {{"--foo", "--help"}, "Unknown switch foo\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Parse(c.words), 1);
        EXPECT_EQ(errors.Take(), c.line);
    }
}

// Help, behind any number of '-', is the usage on stderr and the end.
TEST_F(Options, HelpShowsTheUsage)
{
    for (const char *word : {"-help", "--help", "-----help"}) {
        EXPECT_EQ(Parse({word, "--foo"}), 1);
        EXPECT_EQ(errors.Take(),
                  "quarryd [options]\n"
                  "Quarryd storage daemon v2.0\n"
                  "\n"
                  "  --help            show this help\n"
                  "  --hotplug         rely on hotplug events to update device list\n"
                  "  --polling         rely on polling to update device list\n"
                  "  --nfsx            do not force shutdown on exit\n");
    }
}

// The second look calls every valid switch unknown, on purpose, and goes on.
TEST_F(Options, SecondLookCallsEverySwitchUnknown)
{
    EXPECT_EQ(Comment({"--hotplug", "-polling", "---nfsx"}), 0);
    EXPECT_EQ(errors.Take(), "Unknown switch --hotplug\n"
                             "Unknown switch -polling\n"
                             "Unknown switch ---nfsx\n");
    EXPECT_EQ(Comment({}), 0);
    EXPECT_EQ(errors.Take(), "");
}

// What the first look would never let through, the second knows how to answer.
TEST_F(Options, SecondLookAnswersWhatNeverReachesIt)
{
    EXPECT_EQ(Comment({"foo", "", "--help", "-?x"}), 0);
    EXPECT_EQ(errors.Take(), "Unknown non-switch argument foo\n"
                             "Unknown non-switch argument \n"
                             "Unknown switch --help\n"
                             "Unknown switch -?x\n");
    for (const char *word : {"-?", "-help"}) {
        EXPECT_EQ(Comment({"foo", word, "bar"}), 1);
        EXPECT_EQ(errors.Take(), "Unknown non-switch argument foo\n"
                                 "Quarryd disk management daemon\n");
    }
}

// Hotplug mode needs both files, each a program; those that are there are told.
TEST_F(Options, HotplugNeedsBothFiles)
{
    static const char tool[] = "/sbin/hotplug";
    static const char hook[] = "/etc/hotplug.d/block/quarryd.hotplug";
    static const std::string tool_line = "/sbin/hotplug present and executable\n";
    static const std::string hook_line =
        "/etc/hotplug.d/block/quarryd.hotplug is present and executable\n";
    static const struct {
        mode_t tool_mode, hook_mode; // 0: no such file
        int present;
        std::string words;
    } cases[] = {
        {0, 0, 0, ""},
        {0755, 0, 0, tool_line},
        {0, 0755, 0, hook_line},
        {0755, 0644, 0, tool_line},
        {0644, 0755, 0, hook_line},
        {0755, 0755, 1, tool_line + hook_line},
        {0611, 0610, 1, tool_line + hook_line},
        {0601, 0700, 1, tool_line + hook_line},
    };
    for (const auto &c : cases) {
        for (const char *path : {tool, hook}) {
            machine.Remove(path);
            const mode_t mode = path == tool ? c.tool_mode : c.hook_mode;
            if (mode != 0) {
                machine.Write(path, "");
                machine.SetMode(path, mode);
            }
        }
        Printed output(stdout);
        EXPECT_EQ(hotplug_present(), c.present);
        EXPECT_EQ(output.Take(), c.words);
    }
    machine.Remove(tool);
    machine.MakeDirectory(tool);
    Printed output(stdout);
    EXPECT_EQ(hotplug_present(), 0); // a folder has execute bits as well
}
