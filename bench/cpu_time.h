// The clock of the measurements.
#ifndef QUARRYD_BENCH_CPU_TIME_H
#define QUARRYD_BENCH_CPU_TIME_H

#include <ctime>

// Microseconds on a clock: CLOCK_PROCESS_CPUTIME_ID for what this process has cost (its own and
// the kernel's part of it; what other programs do meanwhile does not count), CLOCK_MONOTONIC for
// what somebody who waits sees.
inline double microseconds(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

#endif
