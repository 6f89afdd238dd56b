// Making child processes.
#include "base/child_process.h"

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

pid_t fork_child()
{
    const pid_t child = fork();
    if (child == 0)
        signal(SIGPIPE, SIG_DFL);
    return child;
}

static int ends_well(pid_t child)
{
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

int run_shell(const std::string &command)
{
    const pid_t child = fork_child();
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return ends_well(child);
}

int run_quietly(const std::vector<std::string> &words)
{
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t child = fork_child();
    if (child == 0) {
        const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null_fd >= 0) {
            dup2(null_fd, STDOUT_FILENO);
            dup2(null_fd, STDERR_FILENO);
        }
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    return ends_well(child);
}
