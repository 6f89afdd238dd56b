// Reads a volume in a process that can be given up on.
//
// A read of a dying drive may never return, and a process in it cannot be killed; but its parent
// can leave. The two share their memory, as after vfork(2): to copy it would take a fifth of a run.
// Both therefore give up their rights before the first byte of the content is looked at.
#ifndef VOLSNIFFER_READER_H
#define VOLSNIFFER_READER_H

#include "probe.h"

// Opens and identifies what is at path within five seconds, or the result is PROBE_TOO_SLOW. A
// reader that is stuck in the kernel stays behind, with nothing open but the device, and ends when
// the drive lets go of it. One that dies of what it reads makes the result PROBE_UNREADABLE.
//
// Afterwards the caller can open nothing, allocates no memory any more (the reader may have died
// in the midst of doing so), and leaves with _exit().
void read_volume(const char *path, ProbeResult &result);

#endif
