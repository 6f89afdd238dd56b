// What `check` finds: mistakes of the configuration file, and broken installations, one by one.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "quarryctl/check.h"
#include "quarryctl/json_output.h"

using std::string_literals::operator""s;

static std::string summary(const Finding &finding)
{
    return std::string(severity_word(finding.severity)) + " " + finding.code + " " + finding.place +
           (finding.line > 0 ? ":" + std::to_string(finding.line) : "");
}

static std::vector<std::string> summaries(const Findings &findings)
{
    std::vector<std::string> lines;
    for (const Finding &finding : findings)
        lines.push_back(summary(finding));
    return lines;
}

// Each mistake by itself, and what looks like one and is none.
TEST(CheckConfiguration, FindsEachMistake)
{
    static const struct {
        std::string text;
        const char *finding; // without the file's name; "" when there is none
    } cases[] = {
        {"main partition label = data\n", ""},
        {"main partition label=data", ""},
        {"main partition label   =   two words\n", ""},
        {"# comment = x\n\n   \n\t\n", ""},
        {"   # an indented comment = x\n", ""},
        {" main partition label = data\n", "error config-key-indented :1"},
        {"#\n\tmain partition label = data\n", "error config-key-indented :2"},
        {"main partition\tlabel = data\n", "error config-key-tab :1"},
        {"main partition label\t= data\n", "error config-key-tab :1"},
        {"main partition lable = data\n", "error config-key-misspelt :1"},
        {"Main Partition Label = data\n", "error config-key-misspelt :1"},
        {"main_partition_label = data\n", "error config-key-misspelt :1"},
        {"main  partition label = data\n", "error config-key-misspelt :1"},
        {"label = data\n", "error config-key-misspelt :1"},
        {"startscript = /x\n", "error config-key-misspelt :1"},
        {"colour = blue\n", "warning config-key-unknown :1"},
        {"main = x\n", "warning config-key-unknown :1"}, // that could be three
        {"= x\n", "warning config-key-unknown :1"},
        {"\xef\xbb\xbfmain partition label = data\n", "error config-byte-order-mark :1"},
        {"\xef\xbb\xbf# comment\n", "warning config-no-equals :1"},
        {"main partition label data\n", "warning config-no-equals :1"},
        {"main partition label = " + std::string(1000, 'x') + "\n", ""},
        {"main partition label = " + std::string(1001, 'x') + "\n",
         "error config-line-too-long :1"},
        {"main partition label = a\nmain partition label = b\n", "warning config-key-repeated :2"},
        {"main partition label = data \n", "warning config-value-trailing :1"},
        {"main partition label = data\t\n", "warning config-value-trailing :1"},
        {"main partition label =\tdata\n", "warning config-value-tab :1"},
        {"main partition label = \"data\"\n", "warning config-value-quoted :1"},
        {"main partition label = 'data'\n", "warning config-value-quoted :1"},
        {"main partition label = 'data\n", ""},
        {"main partition label = data # the disk\n", "warning config-value-comment :1"},
        {"main partition label = data#1\n", ""},
        {"main partition label =\n", "note config-value-empty :1"},
        {"main partition label = a\r\nmain partition signature = b\r\n",
         "error config-carriage-return :1"},
        {"main drive model = WD\n", "warning config-deprecated :1"},
        {"main partition signature = " + std::string(255, 's') + "\n", ""},
        {"main partition signature = " + std::string(256, 's') + "\n",
         "error config-signature-too-long :1"},
        {"main partition label = \0"s, "error config-not-text "},
        {"swap name = swap.img\n", "error config-swap-without-main :1"},
        {"main partition label = d\nswap name = swap.img\n", ""},
        {"main partition label = d\nswap name = folder/swap.img\n", ""},
        {"main partition label = d\nswap name = /swap.img\n", "warning config-swap-name-path :2"},
        {"main partition label = d\nswap name = a//b\n", "warning config-swap-name-path :2"},
        {"main partition label = d\nswap name = ../b\n", "warning config-swap-name-path :2"},
        {"main partition label = d\nswap name = $(x)\n", "warning config-swap-name-shell :2"},
    };
    for (const auto &c : cases) {
        Findings findings;
        check_configuration_text(c.text, findings);
        std::vector<std::string> expected;
        if (c.finding[0]) {
            const std::string text = c.finding;
            const size_t blank = text.rfind(' ');
            expected.push_back(text.substr(0, blank) + " /etc/quarryd.conf" +
                               text.substr(blank + 1));
        }
        EXPECT_EQ(summaries(findings), expected) << c.text.substr(0, 80);
    }
}

// The key that was meant is named where it can be guessed.
TEST(CheckConfiguration, SuggestsTheNearestKey)
{
    static const struct {
        const char *line, *key;
    } cases[] = {
        {"swapname = x", "swap name"},
        {"swap-name = x", "swap name"},
        {"SWAP NAME = x", "swap name"},
        {"swp nam = x", "swap name"},
        {"swap = x", "swap name"},
        {"start script = x", "startup script"},
        {"shutdown-script = x", "shutdown script"},
        {"shutdown = x", "shutdown script"},
        {"main label = x", "main partition label"},
        {"main partition signatur = x", "main partition signature"},
        {"signature = x", "main partition signature"},
    };
    for (const auto &c : cases) {
        Findings findings;
        check_configuration_text(c.line, findings);
        ASSERT_EQ(findings.size(), 1u) << c.line;
        EXPECT_EQ(findings[0].code, "config-key-misspelt") << c.line;
        EXPECT_NE(findings[0].remedy.find('"' + std::string(c.key) + '"'), std::string::npos)
            << c.line << ": " << findings[0].remedy;
    }
}

// A line can have more than one fault, and each is told; what the daemon would take over is known.
TEST(CheckConfiguration, TellsEverything)
{
    Findings findings;
    check_configuration_text("main partition label = \"a\" # x \n\nswap nam = y\n", findings);
    const std::vector<std::string> expected = {
        "warning config-value-trailing /etc/quarryd.conf:1",
        "warning config-value-comment /etc/quarryd.conf:1",
        "error config-key-misspelt /etc/quarryd.conf:3",
    };
    EXPECT_EQ(summaries(findings), expected);
    EXPECT_EQ(settings.main_partition_label, "\"a\" # x ");
    EXPECT_EQ(settings.swap_name, "");
}

// An installation below a folder of its own, in which nothing is wrong.
class CheckInstallation : public testing::Test {
protected:
    CheckInstallation()
    {
        char name[] = "/tmp/quarryctl-check-XXXXXX";
        root_ = mkdtemp(name);
        for (const char *program :
             {"/usr/sbin/quarryd", "/usr/bin/volsniffer", "/bin/sh", "/usr/sbin/modprobe",
              "/usr/bin/mount", "/usr/sbin/mkswap", "/bin/ntfs-3g", "/sbin/mount.exfat",
              "/usr/libexec/quarryd/hotplug-notice"})
            Write(program, "\177ELF", 0755);
        Write("/usr/lib/udev/rules.d/60-quarryd.rules", "# rule\n", 0644);
        Write("/etc/hotplug.d/block/quarryd.hotplug", "#!/bin/sh\n", 0755);
        Write("/usr/local/sbin/disks-ready", "#!/bin/sh\n", 0755);
        Write("/etc/quarryd.conf",
              "# of this house\nmain partition label = data\nswap name = swap.img\n"
              "startup script = /usr/local/sbin/disks-ready\n",
              0644);
        Write("/var/quarryd/mount-notify/log", "#!/bin/sh\nexit 0\n", 0755);
        Folder("/var/quarryd/device-notify");
        Folder("/mnt");
    }
    ~CheckInstallation() override
    {
        std::filesystem::remove_all(root_);
    }

    void Folder(const std::string &path) const
    {
        std::filesystem::create_directories(root_ + path);
    }

    void Write(const std::string &path, const std::string &text, mode_t mode) const
    {
        std::filesystem::create_directories(std::filesystem::path(root_ + path).parent_path());
        std::filesystem::remove(root_ + path);
        const int fd = open((root_ + path).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0) << path;
        ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
        SetMode(path, mode);
    }

    void SetMode(const std::string &path, mode_t mode) const
    {
        ASSERT_EQ(chmod((root_ + path).c_str(), mode), 0) << path;
    }

    void Link(const std::string &path, const std::string &target) const
    {
        std::filesystem::remove_all(root_ + path);
        std::filesystem::create_symlink(target, root_ + path);
    }

    void Remove(const std::string &path) const
    {
        std::filesystem::remove_all(root_ + path);
    }

    Findings Check() const
    {
        return check_everything(Installation(root_));
    }

    void Expect(const std::vector<std::string> &expected) const
    {
        EXPECT_EQ(summaries(Check()), expected);
    }

    std::string root_;
    const std::string hook_ = "/var/quarryd/mount-notify/";
};

TEST_F(CheckInstallation, ThatIsCleanHasNoFinding)
{
    Expect({});
}

TEST_F(CheckInstallation, WithoutConfigurationFile)
{
    Remove("/etc/quarryd.conf");
    Expect({"note config-missing /etc/quarryd.conf"});
}

TEST_F(CheckInstallation, WithAFolderAsConfigurationFile)
{
    Remove("/etc/quarryd.conf");
    Folder("/etc/quarryd.conf");
    Expect({"error config-not-a-file /etc/quarryd.conf"});
}

// The site scripts: each of these makes the daemon pass them over without a word.
TEST_F(CheckInstallation, WithAStartScriptThatDoesNotRun)
{
    const std::string path = "/usr/local/sbin/disks-ready";
    SetMode(path, 0644);
    Expect({"error script-not-executable " + path});
    Write(path, "#!/bin/zsh\n", 0755);
    Expect({"error script-interpreter-missing " + path});
    Remove(path);
    Expect({"error script-missing " + path});
    Folder(path);
    Expect({"error script-not-a-file " + path});
    Write("/etc/quarryd.conf", "shutdown script = disks-going\n", 0644);
    Expect({"error script-relative disks-going"});
}

// Each of these vetoes every mount.
TEST_F(CheckInstallation, WithABrokenHook)
{
    const std::string path = hook_ + "broken";
    static const struct {
        const char *text;
        mode_t mode;
        const char *code;
    } cases[] = {
        {"#!/bin/sh\n", 0755, nullptr},
        {"#! /bin/sh -e\n", 0700, nullptr},
        {"#!/bin/sh", 0111, nullptr},
        {"\177ELF", 0755, nullptr},
        {"#!/bin/sh\n", 0644, "script-not-executable"},
        {"#!/usr/bin/python3\n", 0755, "script-interpreter-missing"},
        {"#!\n", 0755, "script-interpreter-missing"},
        {"#!/bin\n", 0755, "script-interpreter-missing"}, // a folder
        {"#!/bin/sh\r\necho\r\n", 0755, "script-carriage-return"},
        {"#!/usr/bin/env sh\n", 0755, "script-interpreter-missing"}, // no env
        {"echo mounted\n", 0755, "script-no-interpreter"},
        {"", 0755, "script-no-interpreter"},
    };
    for (const auto &c : cases) {
        Write(path, c.text, c.mode);
        if (!c.code) {
            Expect({});
            continue;
        }
        Expect({"error " + std::string(c.code) + " " + path});
        EXPECT_TRUE(Check()[0].effect.starts_with("every mount is vetoed: ")) << c.text;
    }
}

// With env the program behind it counts.
TEST_F(CheckInstallation, WithAHookThatIsRunByEnv)
{
    const std::string path = hook_ + "script";
    Write("/usr/bin/env", "\177ELF", 0755);
    Write(path, "#!/usr/bin/env python3\n", 0755);
    Expect({"error script-interpreter-missing " + path});
    Write("/usr/local/bin/python3", "\177ELF", 0755);
    Expect({});
    Write(path, "#!/usr/bin/env -S LANG=C perl -w\n", 0755);
    Expect({"error script-interpreter-missing " + path});
}

TEST_F(CheckInstallation, WithThingsInTheHookFolderThatAreNeverRun)
{
    Write(hook_ + ".hidden", "#!/bin/sh\n", 0755);
    Write(hook_ + ".keep", "", 0644);
    Write(hook_ + "folder/script", "#!/bin/sh\n", 0755);
    Link(hook_ + "link", "/nowhere");
    ASSERT_EQ(mkfifo((root_ + hook_ + "pipe").c_str(), 0755), 0);
    Expect({
        "warning hook-hidden " + hook_ + ".hidden",
        "note hook-hidden " + hook_ + ".keep",
        "warning hook-folder " + hook_ + "folder",
        "warning hook-dangling " + hook_ + "link",
        "warning hook-not-a-file " + hook_ + "pipe",
    });
}

// A link is followed inside the installation, wherever it seems to lead.
TEST_F(CheckInstallation, WithAHookThatIsALink)
{
    Write("/opt/hook", "#!/bin/sh\n", 0755);
    Link(hook_ + "absolute", "/opt/hook");
    Link(hook_ + "relative", "../../../../../../opt/hook");
    Expect({});
    SetMode("/opt/hook", 0777);
    Expect({"error writable-by-others " + hook_ + "absolute", "error writable-by-others /opt/hook",
            "error writable-by-others " + hook_ + "relative"});
}

TEST_F(CheckInstallation, WithAFileAsHookFolder)
{
    Remove("/var/quarryd/mount-notify");
    Write("/var/quarryd/mount-notify", "", 0644);
    Expect({"error hooks-not-a-folder /var/quarryd/mount-notify"});
    Remove("/var/quarryd");
    Expect({}); // the daemon makes the folders
}

TEST_F(CheckInstallation, WithAScriptForDevices)
{
    Write("/var/quarryd/device-notify/script", "#!/bin/sh\n", 0755);
    Expect({"warning hook-never-raised /var/quarryd/device-notify/script"});
}

TEST_F(CheckInstallation, ThatOthersMayWriteTo)
{
    for (const char *path : {"/etc/quarryd.conf", "/usr/local/sbin/disks-ready", "/usr/local",
                             "/var/quarryd", "/var/quarryd/mount-notify/log"}) {
        SetMode(path, 0777);
        Expect({"error writable-by-others "s + path});
        SetMode(path, 0755);
    }
    SetMode("/etc/quarryd.conf", 0664); // the group is the owner's
    Expect({});
}

TEST_F(CheckInstallation, OthersAreAllButRootAndTheTreesOwner)
{
    const Installation installation(root_);
    struct stat own;
    ASSERT_EQ(stat(root_.c_str(), &own), 0);
    static const struct {
        bool is_own_user, is_own_group;
        mode_t mode;
        bool is_writable;
    } cases[] = {
        {true, true, 0755, false},  {true, true, 0775, false}, {true, true, 0757, true},
        {true, false, 0755, false}, {true, false, 0775, true}, {false, true, 0755, true},
    };
    for (const auto &c : cases) {
        struct stat status = own;
        status.st_mode = S_IFREG | c.mode;
        status.st_uid += c.is_own_user ? 0 : 12345;
        status.st_gid += c.is_own_group ? 0 : 12345;
        EXPECT_EQ(installation.IsWritableByOthers(status), c.is_writable) << c.mode;
    }
    own.st_uid = 0;
    EXPECT_FALSE(installation.IsWritableByOthers(own));
}

TEST_F(CheckInstallation, WithoutAProgram)
{
    static const struct {
        const char *path, *finding;
    } cases[] = {
        {"/usr/sbin/quarryd", "error daemon-missing /usr/sbin/quarryd"},
        {"/usr/bin/volsniffer", "error probe-missing /usr/bin/volsniffer"},
        {"/usr/sbin/modprobe", "warning modprobe-missing modprobe"},
        {"/usr/bin/mount", "warning mount-missing mount"},
        {"/usr/sbin/mkswap", "warning mkswap-missing mkswap"},
        {"/bin/ntfs-3g", "note driver-missing /bin/ntfs-3g"},
        {"/sbin/mount.exfat", "note driver-missing /sbin/mount.exfat"},
    };
    for (const auto &c : cases) {
        SetMode(c.path, 0644);
        Expect({c.finding});
        SetMode(c.path, 0755);
    }
    Remove("/sbin/mount.exfat");
    Write("/sbin/mount.exfat-fuse", "\177ELF", 0755); // the other one will do
    Expect({});
    Write("/etc/quarryd.conf", "", 0644);
    Remove("/usr/sbin/mkswap"); // not needed without a swap file
    Expect({});
}

TEST_F(CheckInstallation, WithoutAShell)
{
    Remove("/bin/sh");
    const std::vector<std::string> found = summaries(Check());
    EXPECT_EQ(std::count(found.begin(), found.end(), "error shell-missing /bin/sh"), 1);
    EXPECT_EQ(std::count(found.begin(), found.end(), // and so every script is broken
                         "error script-interpreter-missing " + hook_ + "log"),
              1);
}

TEST_F(CheckInstallation, WithAStrangeMnt)
{
    Folder("/tmpfs/.mnt");
    Link("/mnt", "/tmpfs/.mnt");
    Expect({"note mnt-link /mnt"});
    Link("/mnt", "tmpfs/.mnt");
    Expect({"warning mnt-link-hides-swap /mnt"});
    Link("/other", "/tmpfs/.mnt");
    Link("/mnt", "/other");
    Expect({"warning mnt-link-hides-swap /mnt"});
    Link("/mnt", "/nowhere");
    Expect({"error mnt-missing /mnt"});
    Remove("/mnt");
    Expect({"error mnt-missing /mnt"});
    Write("/mnt", "", 0644);
    Expect({"error mnt-not-a-folder /mnt"});
}

TEST_F(CheckInstallation, WithAMntThatOthersMayWriteTo)
{
    SetMode("/mnt", 01777);
    Expect({"error mnt-writable /mnt"});
}

// The housekeeping takes empty folders away, unless their names begin with a dot.
TEST_F(CheckInstallation, WithEmptyFoldersInMnt)
{
    Folder("/mnt/backup");
    Folder("/mnt/.hidden");
    Folder("/mnt/full/inside");
    Write("/mnt/file", "", 0644);
    Expect({"note mnt-empty-folder /mnt/backup"});
}

TEST_F(CheckInstallation, WithHalfOfHotplug)
{
    const std::string hook = "/etc/hotplug.d/block/quarryd.hotplug";
    const std::string rule = "/usr/lib/udev/rules.d/60-quarryd.rules";
    Write("/sbin/hotplug", "#!/bin/sh\n", 0755);
    Expect({});
    SetMode(hook, 0644);
    Expect({"warning hotplug-hook-not-executable " + hook});
    SetMode(hook, 0755);
    Remove("/usr/libexec/quarryd/hotplug-notice");
    Expect({"error hotplug-helper-missing " + hook, "error hotplug-helper-missing " + rule});
    Remove("/sbin/hotplug"); // nobody runs the hook, and the daemon polls
    Expect({"error hotplug-helper-missing " + rule});
    Remove(rule);
    Expect({});
}

static Findings hostile_findings()
{
    return {
        {SEVERITY_ERROR, "a-code", "/etc/\033[2J", 3, "it\tfails", "mend it"},
        {SEVERITY_NOTE, "b-code", "kernel", 0, "well", "nothing"},
    };
}

TEST(CheckText, IsALineForEachFinding)
{
    EXPECT_EQ(findings_text(hostile_findings(), Style()),
              "error: /etc/\\x1b[2J:3: it\\x09fails; mend it\n"
              "note: kernel: well; nothing\n"
              "1 error, 0 warnings, 1 note\n");
    EXPECT_EQ(findings_text({}, Style()), "Nothing to report.\n");
    EXPECT_EQ(findings_lines(hostile_findings()),
              "error\ta-code\t/etc/\\x1b[2J\t3\tit\\x09fails\tmend it\n"
              "note\tb-code\tkernel\t-\twell\tnothing\n");
    EXPECT_EQ(findings_lines({}), "");
}

TEST(CheckJson, HasItsKeys)
{
    EXPECT_EQ(findings_json(hostile_findings()), R"({
  "findings": [
    {
      "severity": "error",
      "code": "a-code",
      "place": "/etc/\u001b[2J",
      "line": 3,
      "effect": "it\tfails",
      "remedy": "mend it"
    },
    {
      "severity": "note",
      "code": "b-code",
      "place": "kernel",
      "line": null,
      "effect": "well",
      "remedy": "nothing"
    }
  ],
  "errors": 1,
  "warnings": 0,
  "notes": 1
}
)");
}
