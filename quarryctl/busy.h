// `busy`: who holds a device or what is mounted from it, and whom the daemon would end for that.
//
// Asks no daemon. Reads /proc and /sys alone, and nothing there that waits for a filesystem: a
// mount whose server never answers holds it up no longer than one that does.
#ifndef QUARRYCTL_BUSY_H
#define QUARRYCTL_BUSY_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "connection.h"
#include "table.h"
#include "verbs.h"

// A device that is asked about.
struct BusyDevice {
    struct Mount {
        std::string mountpoint;
        std::string fstype;
        bool is_read_only = false;
    };

    std::string name;                 // "sdb1"; of a mount that is no device's, its source
    std::vector<Mount> mounts;        // in this mount namespace
    std::string cleared;              // the mount point that the daemon would clear, or ""
    bool is_active_unmounted = false; // its filesystem is in use, though no mount shows it
};

// Something that holds a device.
struct Holder {
    std::string kind; // see the verb's help
    std::string device;
    int pid = 0; // 0: no process
    uid_t uid = 0;
    std::string user;    // the name of uid, or its digits
    std::string command; // what the kernel calls the program, 15 characters at most
    std::string what;    // a path, or the name of a device
    std::string more;    // what else there is to say of it, for people
    bool is_ended_by_rudeoff = false;
    bool is_ended_by_rudero = false;
};

struct BusyReport {
    std::vector<BusyDevice> devices;
    std::vector<Holder> holders;    // processes by pid, then all others
    int unseen_processes = 0;       // what they hold is for others to see, root mostly
    std::vector<int> unread_memory; // processes whose mapped files could not be learnt in time
    bool is_list_partial = false;   // /proc hides other users' processes
};

// Finds out who holds a device: a name, a path, ^ and a label, or a mount point. 0, with a line on
// stderr, when there is no such thing.
int examine_holders(const std::string &word, BusyReport &report);

// The report for people and for scripts; and what it cannot tell, a line for each thing.
std::string busy_table(const BusyReport &report, Style style);
std::string busy_lines(const BusyReport &report);
std::vector<std::string> busy_gaps(const BusyReport &report);

// The verb.
ExitStatus run_busy(OutputForm form, const std::string &word);

#endif
