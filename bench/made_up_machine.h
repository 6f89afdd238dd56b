// A guard for programs that would do harm outside a made-up machine.
#ifndef QUARRYD_BENCH_MADE_UP_MACHINE_H
#define QUARRYD_BENCH_MADE_UP_MACHINE_H

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

// Ends the program where /sys is a kernel's own and that kernel is not a guest's to throw away:
// what vanishes from the registry is unmounted, and whoever uses it is ended.
inline void insist_on_made_up_machine()
{
    if (access("/sys/kernel", F_OK) != 0 || access("/run/rig/throw-away", F_OK) == 0)
        return;
    fprintf(stderr, "This runs in a made-up machine only: start ./bench/run\n");
    exit(2);
}

#endif
