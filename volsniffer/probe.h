// Looks at the content of one device, through libblkid's low-level probing.
//
// Nothing here writes to a device, and nothing waits for a medium that is not there. But a drive
// that is dying keeps whoever opens or reads it waiting for ever, out of a signal's reach.
#ifndef VOLSNIFFER_PROBE_H
#define VOLSNIFFER_PROBE_H

#include <blkid/blkid.h>

#include "output.h"

// The exit status of the program, too. Whoever runs it in the background throws stderr away and
// logs the status, so each reason has its own. 1 is left out on purpose: it is what the daemon's
// child reports when this program is not installed.
enum ProbeStatus {
    PROBE_ANSWERED = 0, // looked at, though perhaps nothing known was found
    PROBE_MISUSED = 2,
    PROBE_UNREADABLE = 3,
    PROBE_NO_MEDIUM = 4,
    PROBE_AMBIGUOUS = 5,
    PROBE_RAID_MEMBER = 6,
    PROBE_TOO_SLOW = 7,
};

// What became of it. Without an answer the facts are empty and there is a complaint instead:
// "Cannot ATTEMPT the device: REASON".
struct ProbeResult {
    ProbeStatus status;
    char attempt[32];
    char reason[300];
    VolumeFacts facts;
};

// Makes the result a complaint.
void refuse(ProbeResult &result, ProbeStatus status, const char *attempt, const char *reason);

struct Volume {
    int fd = -1;
    blkid_probe probe = nullptr;
};

// Opens the block device or image file at path and learns what the kernel knows of it; no content
// is looked at. When that fails, false, and the result says why. To be closed either way.
bool open_volume(const char *path, Volume &volume, ProbeResult &result);

// Looks at the content; nothing needs to be opened for it. A blank, unformatted or partitioned
// device is answered like any other, with all facts empty: that nothing is there is knowledge, and
// a drive that carries partitions is no failure to be logged.
void identify_volume(Volume &volume, ProbeResult &result);

void close_volume(Volume &volume);

#endif
