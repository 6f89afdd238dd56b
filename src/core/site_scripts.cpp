// Running the start and the stop script.
#include "core/site_scripts.h"

#include <algorithm>
#include <cassert>
#include <csignal>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "base/child_process.h"
#include "base/daemon_state.h"
#include "base/small_files.h"

// The alarm outlives exec: a script that doesn't catch SIGALRM is ended by it.
static const unsigned startup_seconds = 30;
static const unsigned shutdown_seconds = 5;

ScriptArguments script_arguments(std::initializer_list<const char *> words)
{
    ScriptArguments arguments = {};
    assert(words.size() < arguments.size());
    std::copy(words.begin(), words.end(), arguments.begin());
    return arguments;
}

// The child becomes the script. Returns what fork() returned.
static pid_t start_script(const std::string &path, const char *argument, unsigned seconds)
{
    const ScriptArguments arguments = script_arguments({path.c_str(), argument});
    const pid_t child = fork_child();
    if (child == 0) {
        alarm(seconds);
        execv(path.c_str(), const_cast<char *const *>(arguments.data()));
        _exit(1);
    }
    return child;
}

void run_startup()
{
    if (startup_child_pid >= 0) {
        kill(startup_child_pid, SIGKILL);
        startup_child_pid = -1;
    }
    if (is_executable_file(settings.startup_script.c_str()))
        startup_child_pid = start_script(settings.startup_script, "-startup", startup_seconds);
}

void run_shutdown()
{
    if (!is_executable_file(settings.shutdown_script.c_str()))
        return;
    const pid_t child = start_script(settings.shutdown_script, "-shutdown", shutdown_seconds);
    if (child < 0)
        return;
    while (waitpid(child, nullptr, 0) != child) {
    }
}
