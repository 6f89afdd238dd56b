// Who uses a path, and driving them out of it.
//
// Paths are compared as texts: "/mnt/sdb1" is also met by "/mnt/sdb10/file". Nothing here waits for
// a filesystem: links of /proc are read, and a target's mode is taken from what the kernel has.
#ifndef QUARRYD_MOUNT_PROCESS_EVICTION_H
#define QUARRYD_MOUNT_PROCESS_EVICTION_H

#include <string>
#include <vector>

// The link below /proc/PID by which a process uses something under path: "root", "cwd", "exe" or,
// say, "fd/3", the first in that order; "" when it does not. With writers_only it counts only open
// files whose target has a write-permission bit set (whatever the file was opened for). target,
// unless null, gets what the link leads to. Prints nothing.
std::string link_under_path(int pid, const std::string &path, bool writers_only,
                            std::string *target = nullptr);

// Whether the process uses something under path: its root, working directory or program, or an
// open file, as link_under_path() finds it. device is not consulted. Prints nothing.
bool process_uses_path(int pid, const std::string &device, const std::string &path,
                       bool writers_only);

// Ends every process that uses mountpoint: SIGTERM at once, SIGKILL after a second to those that
// are still there. Returns when nobody is left or when even that did not help (after about a second
// and eleven readings of /proc). Runs in a child process, whose decisions go to the system log;
// failures are lines on stderr. "/" is never cleared.
void evict_mount_users(const std::string &device, const std::string &mountpoint, bool writers_only);

// Whether any process has an open file whose name begins with path.
bool device_in_use(const std::string &path);

// The files that all processes have open, as far as their names begin with a prefix: one reading
// of /proc, made at the first question, that answers many.
class OpenFileSnapshot {
public:
    // Questions must begin with prefix.
    explicit OpenFileSnapshot(const std::string &prefix) : prefix_(prefix)
    {
    }

    // As device_in_use(path), at the time of the first question.
    bool IsInUse(const std::string &path);

private:
    std::string prefix_;
    bool is_read_ = false;
    std::vector<std::string> names_; // sorted
};

#endif
