// Putting right what a parent process left.
#include "core/inherited_state.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

void put_inherited_state_right()
{
    // A drive opened as descriptor 1 would receive what is printed.
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO)
        close(fd);
    // Ignored child signals would make the kernel reap children that somebody waits for; an ignored
    // alarm would outlive exec and take the site scripts' time limit away.
    signal(SIGCHLD, SIG_DFL);
    signal(SIGALRM, SIG_DFL);
    // Whoever reads the diagnostics may go: that must not end a daemon that has mounts to give
    // back.
    signal(SIGPIPE, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}
