// Times the poll of /sys/block. Runs in a made-up machine only: what has vanished is unmounted.
//
//   poll_bench poll COUNT               an inventory, then COUNT polls of an unchanged machine
//   poll_bench vanish ROUNDS SIZE...    all drives of /sys/block.SIZE appear, then vanish
//
// Each poll is one line on stdout: what happened, the number of drives in the registry afterwards
// or before, CPU time and wall time in microseconds.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "cpu_time.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "registry/connection_types.h"
#include "registry/device_list.h"

static const char block_directory[] = "/sys/block";

static void timed_poll(const char *what, const char *size)
{
    const double cpu = microseconds(CLOCK_PROCESS_CPUTIME_ID);
    const double wall = microseconds(CLOCK_MONOTONIC);
    UpdateBlockDeviceList();
    printf("%s %s %.1f %.1f\n", what, size, microseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu,
           microseconds(CLOCK_MONOTONIC) - wall);
}

static int poll_repeatedly(int count)
{
    timed_poll("inventory", "all");
    const std::string known = std::to_string(blockdev_list.size());
    for (int i = 0; i < count; i++)
        timed_poll("poll", known.c_str());
    return 0;
}

// Lets /sys/block, a link, lead to another directory.
static int show_drives(const std::string &directory)
{
    unlink(block_directory);
    if (symlink(directory.c_str(), block_directory) == 0)
        return 0;
    perror(block_directory);
    return 1;
}

static int make_all_vanish(int rounds, int sizes, const char *const *size)
{
    for (int round = 0; round < rounds; round++) {
        for (int i = 0; i < sizes; i++) {
            if (show_drives(std::string(block_directory) + "." + size[i]))
                return 1;
            timed_poll("appear", size[i]);
            if (blockdev_list.size() != strtoul(size[i], nullptr, 10)) {
                fprintf(stdout, "%zu drives instead of %s\n", blockdev_list.size(), size[i]);
                return 1;
            }
            if (show_drives(std::string(block_directory) + ".0"))
                return 1;
            timed_poll("vanish", size[i]);
            if (!blockdev_list.empty() || !partdev_list.empty()) {
                fprintf(stdout, "records are left\n");
                return 1;
            }
        }
    }
    return 0;
}

int main(int argc, char **argv)
{
    insist_on_made_up_machine();
    init_connection_types();
    ReadProcMounts();
    if (argc == 3 && strcmp(argv[1], "poll") == 0)
        return poll_repeatedly(atoi(argv[2]));
    if (argc > 3 && strcmp(argv[1], "vanish") == 0)
        return make_all_vanish(atoi(argv[2]), argc - 3, argv + 3);
    fprintf(stderr, "poll_bench poll COUNT | poll_bench vanish ROUNDS SIZE...\n");
    return 2;
}
