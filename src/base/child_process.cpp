// Making child processes.
#include "base/child_process.h"

#include <csignal>
#include <unistd.h>

pid_t fork_child()
{
    const pid_t child = fork();
    if (child == 0)
        signal(SIGPIPE, SIG_DFL);
    return child;
}
