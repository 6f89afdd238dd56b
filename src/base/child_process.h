// Making child processes.
#ifndef QUARRYD_BASE_CHILD_PROCESS_H
#define QUARRYD_BASE_CHILD_PROCESS_H

#include <sys/types.h>

// As fork(). The daemon itself ignores SIGPIPE, so that it outlives whoever reads its diagnostics;
// a child gets the default back, as every program expects it.
pid_t fork_child();

#endif
