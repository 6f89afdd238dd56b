#include "check_scripts.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/statvfs.h>

#include "base/words.h"
#include "core/configuration.h"
#include "notify/notification_scripts.h"

// Of a script's first line the kernel reads as much.
static const size_t first_line_limit = 256;

// Why the kernel would not run a file.
struct Obstacle {
    const char *code = nullptr; // null: it would
    std::string reason;
    std::string remedy;
};

static std::string last_piece(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

// The program that `env` is asked to run: the first word that is neither an option nor a setting.
static std::string program_of_env(std::string_view words)
{
    while (!words.empty()) {
        skip_run(words, ' ');
        const std::string_view word = take_field(words, ' ');
        if (!word.starts_with('-') && word.find('=') == std::string_view::npos)
            return std::string(word);
    }
    return std::string();
}

// "#!/usr/bin/env python3": the interpreter, and what it is told.
static Obstacle examine_first_line(const Installation &installation, std::string_view line)
{
    line.remove_prefix(2);
    line = line.substr(0, line.find('\n'));
    if (line.ends_with('\r'))
        return {"script-carriage-return",
                "its interpreter's name ends with a carriage return, and there is no such program",
                "save it with plain line ends (dos2unix)"};
    std::string words(line);
    std::replace(words.begin(), words.end(), '\t', ' ');
    std::string_view rest = words;
    skip_run(rest, ' ');
    const std::string interpreter(take_field(rest, ' '));
    if (!installation.IsProgram(interpreter))
        return {"script-interpreter-missing",
                interpreter.empty()
                    ? "its first line names no interpreter"
                    : "its interpreter " + interpreter + " is not there or cannot be executed",
                "install it, or name another one in the first line"};
    const std::string program =
        last_piece(interpreter) == "env" ? program_of_env(rest) : std::string();
    const bool is_there = program.find('/') != std::string::npos
                              ? installation.IsProgram(program)
                              : !installation.FindProgram(program).empty();
    if (!program.empty() && !is_there)
        return {"script-interpreter-missing",
                "its interpreter " + program + " is not among the system's programs",
                "install it, or name another one in the first line"};
    return {};
}

// For a regular file.
static Obstacle find_obstacle(const Installation &installation, const std::string &path,
                              const struct stat &status)
{
    if ((status.st_mode & 0111) == 0)
        return {"script-not-executable", "it has no execute bit", "chmod 755 " + path};
    Descriptor file(installation.Open(path, O_RDONLY | O_NONBLOCK));
    if (!file.IsOpen())
        return {}; // not for this user to read
    const std::string text = installation.Beginning(path, first_line_limit);
    if (text.starts_with("#!"))
        return examine_first_line(installation, text);
    if (text.starts_with("\x7f"
                         "ELF"))
        return {};
    return {"script-no-interpreter", "its first line names no interpreter",
            "begin it with a line like #!/bin/sh"};
}

static void add_once(Findings &findings, const Finding &finding)
{
    const bool is_there = std::any_of(findings.begin(), findings.end(), [&](const Finding &other) {
        return other.code == finding.code && other.place == finding.place;
    });
    if (!is_there)
        findings.push_back(finding);
}

void check_who_may_write(const Installation &installation, const std::string &path,
                         Findings &findings)
{
    struct stat status;
    if (installation.Status(path, status) && installation.IsWritableByOthers(status))
        add_once(findings, {SEVERITY_ERROR, "writable-by-others", path, 0,
                            "others than root may change what root's daemon reads or runs",
                            "chown root:root and chmod go-w"});
    for (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0;
         slash = path.rfind('/', slash - 1)) {
        const std::string folder = path.substr(0, slash);
        // In a sticky folder nobody replaces what is another's.
        if (installation.Status(folder, status) && installation.IsWritableByOthers(status) &&
            !(status.st_mode & S_ISVTX))
            add_once(findings, {SEVERITY_ERROR, "writable-by-others", folder, 0,
                                "others than root may replace what root's daemon reads or runs",
                                "chown root:root and chmod go-w"});
    }
}

void check_site_script(const Installation &installation, const char *key, const std::string &path,
                       Findings &findings)
{
    const std::string effect = "the " + std::string(key) + " does not run, and nobody is told: ";
    struct stat status;
    if (path.empty())
        return;
    if (!path.starts_with('/')) {
        findings.push_back({SEVERITY_ERROR, "script-relative", path, 0,
                            effect + "the daemon looks for it in its own working directory",
                            "give its whole path"});
        return;
    }
    if (!installation.Status(path, status)) {
        findings.push_back({SEVERITY_ERROR, "script-missing", path, 0, effect + "it is not there",
                            "make it, or remove the setting"});
        return;
    }
    if (!S_ISREG(status.st_mode)) {
        findings.push_back({SEVERITY_ERROR, "script-not-a-file", path, 0,
                            effect + "it is not a regular file", "name a program"});
        return;
    }
    const Obstacle obstacle = find_obstacle(installation, path, status);
    if (obstacle.code)
        findings.push_back(
            {SEVERITY_ERROR, obstacle.code, path, 0, effect + obstacle.reason, obstacle.remedy});
    check_who_may_write(installation, path, findings);
}

// A hidden file is passed over; that was hardly meant where it could be executed.
static void check_hidden(const std::string &path, const struct stat &status, Findings &findings)
{
    const bool looks_like_script = S_ISREG(status.st_mode) && (status.st_mode & 0111) != 0;
    findings.push_back({looks_like_script ? SEVERITY_WARNING : SEVERITY_NOTE, "hook-hidden", path,
                        0, "it is never run: its name begins with a dot",
                        looks_like_script ? "rename it, or remove its execute bits"
                                          : "remove it, if it is of no use"});
}

static void check_hook(const Installation &installation, const std::string &path, bool is_raised,
                       Findings &findings)
{
    struct stat status;
    const bool is_hidden = last_piece(path).starts_with('.');
    if (!installation.Status(path, status)) {
        if (!is_hidden)
            findings.push_back({SEVERITY_WARNING, "hook-dangling", path, 0,
                                "it is passed over: the link leads nowhere",
                                "remove the link, or put the script where it leads"});
        return;
    }
    if (is_hidden) {
        check_hidden(path, status, findings);
        return;
    }
    if (!S_ISREG(status.st_mode)) {
        const bool is_folder = S_ISDIR(status.st_mode);
        findings.push_back({SEVERITY_WARNING, is_folder ? "hook-folder" : "hook-not-a-file", path,
                            0,
                            is_folder ? "nothing in it is run: it is a folder"
                                      : "it is passed over: it is not a regular file",
                            is_folder ? "move its scripts one folder up" : "remove it"});
        return;
    }
    const std::string target = installation.LinkTarget(path);
    check_who_may_write(installation, path, findings);
    if (target.starts_with('/'))
        check_who_may_write(installation, target, findings);
    if (!is_raised) {
        findings.push_back({SEVERITY_WARNING, "hook-never-raised", path, 0,
                            "it never runs: nothing raises the events of devices at present",
                            "use " + std::string(mount_scripts) + " or udev"});
        return;
    }
    const Obstacle obstacle = find_obstacle(installation, path, status);
    if (obstacle.code)
        findings.push_back({SEVERITY_ERROR, obstacle.code, path, 0,
                            "every mount is vetoed: " + obstacle.reason, obstacle.remedy});
}

// A filesystem that runs no programs makes every script a broken one.
static bool is_noexec(const Installation &installation, const std::string &folder)
{
    struct statvfs status;
    Descriptor directory(installation.Open(folder, O_RDONLY | O_DIRECTORY));
    return installation.IsRunning() && directory.IsOpen() &&
           fstatvfs(directory.Get(), &status) == 0 && (status.f_flag & ST_NOEXEC);
}

static void check_hook_folder(const Installation &installation, const std::string &folder,
                              bool is_raised, Findings &findings)
{
    struct stat status;
    if (!installation.Status(folder, status))
        return; // the daemon makes it
    if (!S_ISDIR(status.st_mode)) {
        findings.push_back({SEVERITY_ERROR, "hooks-not-a-folder", folder, 0,
                            "no script is ever run: it is not a folder", "make a folder of it"});
        return;
    }
    check_who_may_write(installation, folder, findings);
    Descriptor directory(installation.Open(folder, O_RDONLY | O_DIRECTORY));
    if (!directory.IsOpen()) {
        findings.push_back({SEVERITY_NOTE, "hooks-unreadable", folder, 0,
                            "it was not examined: only root may look in", "run check as root"});
        return;
    }
    const std::vector<std::string> names = installation.Names(folder);
    if (is_raised && !names.empty() && is_noexec(installation, folder))
        findings.push_back({SEVERITY_ERROR, "hooks-noexec", folder, 0,
                            "every mount is vetoed: no program can be run from its filesystem",
                            "mount that filesystem without noexec"});
    for (const std::string &name : names)
        check_hook(installation, folder + "/" + name, is_raised, findings);
}

void check_hooks(const Installation &installation, Findings &findings)
{
    check_hook_folder(installation, mount_scripts, true, findings);
    check_hook_folder(installation, device_scripts, false, findings);
}
