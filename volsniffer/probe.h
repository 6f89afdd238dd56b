// Looks at the content of one device, through libblkid's low-level probing.
//
// Nothing here writes to a device, and nothing waits for a medium that is not there.
#ifndef VOLSNIFFER_PROBE_H
#define VOLSNIFFER_PROBE_H

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
};

// Fills facts from the block device or image file at path. A blank, unformatted or partitioned
// device is answered like any other, with all facts empty: that nothing is there is knowledge, and
// a drive that carries partitions is no failure to be logged. On any other status one line on
// stderr has said why, and facts are empty.
ProbeStatus probe_volume(const char *path, VolumeFacts &facts);

#endif
