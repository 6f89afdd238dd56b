// volsniffer: says which filesystem and label a device holds. The daemon runs it, at every listing
// once for each device that it does not know yet.

#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "output.h"
#include "reader.h"

static const char usage[] = "Usage: volsniffer DEVICE [--fs]\n"
                            "Prints the label of the filesystem on DEVICE, a block device or an "
                            "image file; with --fs also\n"
                            "what is known of the filesystem, one \"key: value\" a line.\n"
                            "Exit status: 0 looked at, 2 usage, 3 cannot be read, 4 no medium, 5 "
                            "ambiguous, 6 RAID member,\n"
                            "7 no answer within five seconds.\n";

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
    ProbeResult result = {};
    read_volume(argv[1], result);
    if (result.status != PROBE_ANSWERED) {
        fprintf(stderr, "Cannot %s %s: %s\n", result.attempt, argv[1], result.reason);
        _exit(result.status);
    }
    char answer[longest_answer];
    const size_t length = answer_text(result.facts, !with_facts, answer);
    _exit(write_answer(STDOUT_FILENO, std::string_view(answer, length)) ? PROBE_ANSWERED
                                                                        : PROBE_UNREADABLE);
}
