// volsniffer: says which filesystem and label a device holds. The daemon runs it, at every listing
// once for each device that it does not know yet.

#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "output.h"
#include "probe.h"

static const char usage[] = "Usage: volsniffer DEVICE [--fs]\n"
                            "Prints the label of the filesystem on DEVICE, a block device or an "
                            "image file; with --fs also\n"
                            "what is known of the filesystem, one \"key: value\" a line.\n"
                            "Exit status: 0 looked at, 2 usage, 3 cannot be read, 4 no medium, 5 "
                            "ambiguous, 6 RAID member.\n";

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        fputs(usage, stdout);
        return PROBE_ANSWERED;
    }
    const bool with_facts = argc == 3 && strcmp(argv[2], "--fs") == 0;
    if ((argc != 2 && !with_facts) || argv[1][0] == '-') {
        fputs(usage, stderr);
        return PROBE_MISUSED;
    }
    VolumeFacts facts;
    const ProbeStatus status = probe_volume(argv[1], facts);
    if (status != PROBE_ANSWERED)
        return status;
    return write_answer(STDOUT_FILENO, answer_text(facts, !with_facts)) ? PROBE_ANSWERED
                                                                        : PROBE_UNREADABLE;
}
