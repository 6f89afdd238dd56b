// `check`: what the daemon would pass over silently, refuse, or do to an installation that nobody
// expects of it.
//
// Reads files and asks the kernel; asks no daemon and changes nothing.
#ifndef QUARRYCTL_CHECK_H
#define QUARRYCTL_CHECK_H

#include <string>
#include <string_view>
#include <vector>

#include "connection.h"
#include "installation.h"
#include "table.h"
#include "verbs.h"

enum Severity {
    SEVERITY_ERROR,   // something that is installed or asked for does not work, or is unsafe
    SEVERITY_WARNING, // something is probably not what was meant
    SEVERITY_NOTE,    // worth knowing
};

struct Finding {
    Severity severity = SEVERITY_NOTE;
    std::string code;   // "config-key-unknown": stays the same from version to version
    std::string place;  // a path, or the name of something
    int line = 0;       // of a file; 0: all of it
    std::string effect; // what will happen
    std::string remedy; // what to do
};

using Findings = std::vector<Finding>;

// The text of the configuration file. What the daemon would take over from it is in `settings`
// afterwards.
void check_configuration_text(std::string_view text, Findings &findings);

// The configuration file, with the scripts that it names.
void check_configuration(const Installation &installation, Findings &findings);

// The folders of notification scripts.
void check_hooks(const Installation &installation, Findings &findings);

// The programs that the daemon runs, and what each is needed for. Settings must have been read.
void check_programs(const Installation &installation, Findings &findings);

// /mnt and what is in it.
void check_mnt(const Installation &installation, Findings &findings);

// Whoever passes the kernel's events on to the daemon.
void check_hotplug(const Installation &installation, Findings &findings);

// The running kernel, and the owner of the daemon's socket.
void check_running_system(const Installation &installation, Findings &findings);

// All of these.
Findings check_everything(const Installation &installation);

// Findings for people and for scripts. A finding is one line.
std::string findings_text(const Findings &findings, const Style &style);
std::string findings_lines(const Findings &findings);

const char *severity_word(Severity severity);

// The verb. EXIT_REFUSED when there are errors or warnings, or root is no folder.
ExitStatus run_check(OutputForm form, const std::string &root);

#endif
