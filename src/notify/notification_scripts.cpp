// Running the scripts of an event.
#include "notify/notification_scripts.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/child_process.h"
#include "base/directory.h"

static const size_t most_running = 8;
static const std::chrono::seconds time_for_all(3);
static const useconds_t pause_after_kill = 10000; // microseconds
static const unsigned last_closed_descriptor = 4095;

// The names of a directory's scripts, in its own order. No look at execute bits: a script that
// cannot be run is to be noticed, not passed over.
static std::deque<std::string> find_scripts(const std::string &directory)
{
    std::deque<std::string> names;
    Directory entries(AT_FDCWD, directory.c_str());
    while (const char *name = entries.NextName()) {
        struct stat status;
        if (name[0] != '.' && stat((directory + "/" + name).c_str(), &status) == 0 &&
            S_ISREG(status.st_mode))
            names.emplace_back(name);
    }
    return names;
}

static void close_all_descriptors()
{
    if (close_range(0, last_closed_descriptor, 0) == 0)
        return;
    for (unsigned fd = 0; fd <= last_closed_descriptor; fd++) // a kernel before 5.9
        close(static_cast<int>(fd));
}

// Starts one script. Returns what fork() returned.
static pid_t start_script(const std::string &directory, const std::string &name,
                          const std::string &device, const std::string &event)
{
    const pid_t child = fork_child();
    if (child != 0)
        return child;
    if (chdir(directory.c_str()) < 0)
        _exit(1);
    close_all_descriptors();
    const char *const arguments[] = {name.c_str(), device.c_str(), event.c_str(), nullptr};
    execv(name.c_str(), const_cast<char *const *>(arguments));
    _exit(1);
}

// Waits for the oldest script. False when it exited with a status other than 0.
static bool wait_for_oldest(std::deque<pid_t> &running)
{
    int status = 0;
    if (waitpid(running.front(), &status, 0) != running.front())
        return true;
    running.pop_front();
    return !WIFEXITED(status) || WEXITSTATUS(status) == 0;
}

int run_notification_scripts(const std::string &device, const std::string &directory,
                             const std::string &event)
{
    using clock = std::chrono::steady_clock; // the time of day may be set meanwhile
    int result = 1;
    std::deque<std::string> pending = find_scripts(directory);
    std::deque<pid_t> running;
    const clock::time_point deadline = clock::now() + time_for_all;
    while ((!pending.empty() || !running.empty()) && clock::now() < deadline) {
        if (!running.empty() && !wait_for_oldest(running))
            result = 0;
        if (running.size() < most_running && !pending.empty()) {
            const pid_t child = start_script(directory, pending.front(), device, event);
            pending.pop_front();
            if (child > 0)
                running.push_back(child);
        }
    }
    for (pid_t child : running) {
        fprintf(stderr, "notify timeout: pid %u\n", static_cast<unsigned>(child));
        kill(child, SIGKILL);
        usleep(pause_after_kill);
    }
    return result; // the main loop reaps the killed ones
}

int notify_about_to_mount(const std::string &device)
{
    return run_notification_scripts(device, mount_scripts, "about-to-mount");
}

int notify_remount(const std::string &device, const std::string &mode)
{
    return run_notification_scripts(device, mount_scripts, "remount-" + mode);
}

int notify_unmounted(const std::string &device)
{
    return run_notification_scripts(device, mount_scripts, "umount");
}

int notify_mounted(const std::string &device)
{
    return run_notification_scripts(device, mount_scripts, "mount");
}

int notify_device_appeared(const std::string &device)
{
    return run_notification_scripts(device, device_scripts, "appear");
}

int notify_device_disappeared(const std::string &device)
{
    return run_notification_scripts(device, device_scripts, "disappear");
}
