// Reading what processes hold, and ending those that hold a mount.
#include "mount/process_eviction.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "base/child_process.h"
#include "base/descriptor.h"
#include "base/directory.h"
#include "base/small_files.h"
#include "base/words.h"

static const size_t used_link_limit = 511;
static const size_t open_link_limit = 255;

// Passes over /proc: SIGTERM in the first, SIGKILL in the last, a tenth of a second between two.
static const int first_pass = 0;
static const int last_pass = 10;
static const useconds_t pause_between_passes = 100000; // microseconds

// Whether a link below /proc (relative to directory_fd) leads to something under path.
static bool leads_under(int directory_fd, const char *link, const std::string &path,
                        std::string *target)
{
    const std::string found = read_link_at(directory_fd, link, used_link_limit);
    if (target)
        *target = found;
    return found.starts_with(path);
}

// Whether the target of a link has a write-permission bit. The kernel's own idea of the mode is
// enough; a server that is gone must not be waited for.
static bool target_is_writable(int directory_fd, const char *link)
{
    struct statx status;
    if (statx(directory_fd, link, AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT, STATX_MODE, &status) < 0)
        return false;
    return (status.stx_mode & 0222) != 0;
}

std::string link_under_path(int pid, const std::string &path, bool writers_only,
                            std::string *target)
{
    const std::string process = "/proc/" + std::to_string(pid) + "/";
    if (!writers_only) {
        for (const char *link : {"root", "cwd", "exe"}) {
            if (leads_under(AT_FDCWD, (process + link).c_str(), path, target))
                return link;
        }
    }
    Directory files(AT_FDCWD, (process + "fd").c_str());
    while (const char *file = files.NextName()) {
        // The name first: only a file that is under the path is worth a look at its mode.
        if (file[0] != '.' && leads_under(files.Fd(), file, path, target) &&
            (!writers_only || target_is_writable(files.Fd(), file)))
            return std::string("fd/") + file;
    }
    return std::string();
}

bool process_uses_path(int pid, const std::string &, const std::string &path, bool writers_only)
{
    return !link_under_path(pid, path, writers_only).empty();
}

static const size_t command_limit = 255;
static const int command_patience = 200; // milliseconds

// In a child: sends the beginning of a process's command line, with a NUL behind it. Nothing when
// there is none to be read.
[[noreturn]] static void tell_command(int pid, int answer)
{
    char text[command_limit + 1];
    const std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen())
        _exit(1);
    const ssize_t got = read(file.Get(), text, command_limit);
    const size_t length = got < 0 ? 0 : static_cast<size_t>(got);
    text[length] = '\0';
    _exit(write(answer, text, length + 1) < 0);
}

// The beginning of a process's command line, which is its first argument. Unknown without one.
// The kernel takes the lock of the process's memory for it, and that may be waited for for ever:
// one of the process's threads has a file in memory whose server is dead. So a child reads it, and
// is given up when it does not come back.
static std::string command_of(int pid)
{
    static const char unknown[] = "(unknown)";
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        return unknown;
    Descriptor answer(ends[0]);
    const pid_t child = fork_child();
    if (child == 0)
        tell_command(pid, ends[1]);
    close(ends[1]);
    if (child < 0)
        return unknown;
    char text[command_limit + 1] = "";
    pollfd arrival = {answer.Get(), POLLIN, 0};
    if (poll(&arrival, 1, command_patience) != 1) {
        kill(child, SIGKILL);
        return unknown;
    }
    const ssize_t got = read(answer.Get(), text, command_limit + 1);
    waitpid(child, nullptr, 0);
    return got < 1 ? unknown : std::string(text);
}

// A process writes its command line itself: a line end or an escape sequence in it would let it
// write lines of the log, and to the terminal of whoever reads them.
static void signal_user(int pid, int pass)
{
    if (pass == first_pass) {
        syslog(LOG_INFO, "%d: %s is using mount points. terminating...", pid,
               without_controls(command_of(pid)).c_str());
        kill(pid, SIGTERM);
    } else if (pass == last_pass) {
        syslog(LOG_INFO, "%d: %s is still using mount point. forcibly terminating...", pid,
               without_controls(command_of(pid)).c_str());
        kill(pid, SIGKILL);
        kill(pid, SIGCONT); // a stopped process dies too
    }
}

// One pass over all processes; the number of those that use the mount point.
static int signal_users(const std::string &device, const std::string &mountpoint, bool writers_only,
                        int pass)
{
    Directory processes(AT_FDCWD, "/proc");
    if (!processes.IsOpen()) {
        fprintf(stderr, "Cannot opendir /proc\n");
        return 0;
    }
    int users = 0;
    while (const char *name = processes.NextName()) {
        const int pid = name[0] == '.' ? 0 : atoi(name);
        if (pid >= 1 && process_uses_path(pid, device, mountpoint, writers_only)) {
            signal_user(pid, pass);
            users++;
        }
    }
    return users;
}

// The life of the child that clears the mount point. It looks at every process, the daemon too.
[[noreturn]] static void run_eviction(pid_t daemon, const std::string &device,
                                      const std::string &mountpoint, bool writers_only)
{
    // It holds the daemon's sockets: when the daemon is killed it must not keep their name taken.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != daemon)
        _exit(0);
    if (chdir("/proc") < 0) {
        fprintf(stderr, "Cannot chdir to /proc\n");
        _exit(0);
    }
    for (int pass = first_pass; pass <= last_pass; pass++) {
        if (signal_users(device, mountpoint, writers_only, pass) == 0)
            break;
        usleep(pause_between_passes);
    }
    _exit(0);
}

void evict_mount_users(const std::string &device, const std::string &mountpoint, bool writers_only)
{
    if (mountpoint == "/")
        return;
    struct stat status;
    if (stat("/proc", &status) < 0) {
        fprintf(stderr, "Warning: Cannot stat /proc\n");
        return;
    }
    const pid_t daemon = getpid();
    const pid_t child = fork_child();
    if (child < 0) {
        fprintf(stderr, "Cannot fork! %s\n", strerror(errno));
        return;
    }
    if (child == 0)
        run_eviction(daemon, device, mountpoint, writers_only);
    if (waitpid(child, nullptr, 0) < 0)
        fprintf(stderr, "Cannot wait for child process to clear processes out (%s)\n",
                strerror(errno));
}

// Hands the name of every open file of every process to visit, until that returns false.
static void visit_open_files(const std::function<bool(const std::string &)> &visit)
{
    Directory processes(AT_FDCWD, "/proc");
    while (const char *name = processes.NextName()) {
        if (atoi(name) < 1)
            continue;
        Directory files(processes.Fd(), (std::string(name) + "/fd").c_str());
        while (const char *file = files.NextName()) {
            if (!isdigit(static_cast<unsigned char>(file[0])))
                continue;
            const std::string target = read_link_at(files.Fd(), file, open_link_limit);
            if (!target.empty() && !visit(target))
                return;
        }
    }
}

bool device_in_use(const std::string &path)
{
    bool found = false;
    visit_open_files([&](const std::string &target) {
        found = target.starts_with(path);
        return !found;
    });
    return found;
}

bool OpenFileSnapshot::IsInUse(const std::string &path)
{
    if (!is_read_) {
        is_read_ = true;
        visit_open_files([&](const std::string &target) {
            if (target.starts_with(prefix_))
                names_.push_back(target);
            return true;
        });
        std::sort(names_.begin(), names_.end());
    }
    auto name = std::lower_bound(names_.begin(), names_.end(), path);
    return name != names_.end() && name->starts_with(path);
}
