// The process-wide state of the daemon: everything that more than one floor reads, in one place.
#ifndef QUARRYD_BASE_DAEMON_STATE_H
#define QUARRYD_BASE_DAEMON_STATE_H

#include <csignal>
#include <ctime>
#include <string>
#include <sys/types.h>

extern volatile std::sig_atomic_t terminate_requested; // 1 after SIGTERM, SIGINT or SIGQUIT
extern int hotplug_mode;        // 1: notices and slow rescans; 0: /sys/block is read every second
extern int no_force_shutdown;   // 1 after --nfsx: a busy mount is neither evicted nor retried
extern int nobody_uid;          // printed at start; no rule asks for it
extern int nobody_gid;          // likewise
extern int schedule_uid;        // -1 when there is no such user; compared with a client's uid
extern int schedule_gid;        // stays 0 when there is no such user
extern pid_t startup_child_pid; // the running start script, or -1
extern time_t next_full_rescan; // hotplug mode reads /sys/block again at this time (seconds)
extern std::string boot_drive;  // three characters, such as "sda"; "" when unknown
extern std::string boot_partition; // such as "sda1"; "" when unknown
extern std::string main_drive;     // the drive of the main partition; "" until it is found
extern std::string main_partition; // the main partition itself; "" until it is found
extern std::string swap_path;      // full path of the swap file last asked for; "" before

// What /etc/quarryd.conf says. Written once at start by read_configuration(); "" means not set.
struct Settings {
    std::string main_drive_model; // only warns: drives are found by their content
    std::string main_partition_signature;
    std::string main_partition_label;
    std::string startup_script;
    std::string shutdown_script;
    std::string swap_name; // relative to the root of the main partition
};

extern Settings settings;

#endif
