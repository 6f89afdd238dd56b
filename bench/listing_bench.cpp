// Times requests for listings, and asks which drives are in use. Runs in a made-up machine only.
//
//   listing_bench list ROUNDS      requests of each kind, with every filesystem known
//   listing_bench together NAME... which of the drives are in use, by one reading of /proc
//   listing_bench singly NAME...   the same, by a reading for each drive
//
// "list" prints a line for each request: its words, the reply's bytes and the daemon's CPU time in
// microseconds from the request's arrival to the last byte sent. The other two print the names of
// the drives in use, then "cpu" and the microseconds.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "cpu_time.h"
#include "made_up_machine.h"
#include "mount/process_eviction.h"
#include "protocol/socket_connection.h"
#include "registry/connection_types.h"
#include "registry/device_list.h"

// As if a listing had already asked the label probe about everything.
static void know_all_filesystems()
{
    for (auto &[name, drive] : blockdev_list)
        drive->filesystem = " ";
    for (auto &[name, partition] : partdev_list) {
        partition->filesystem = "ext4";
        partition->label = "volume-" + name;
    }
}

// Takes what has been sent; true when the reply's last line is among it.
static bool take_reply(int fd, std::string &reply)
{
    static char buffer[1 << 18];
    ssize_t got;
    while ((got = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
        reply.append(buffer, static_cast<size_t>(got));
    return reply.ends_with("OK  eom\n");
}

static void timed_request(SocketConnection &connection, int client_fd, const char *request)
{
    const std::string line = std::string(request) + "\n";
    if (send(client_fd, line.data(), line.size(), 0) < 0)
        return;
    std::string reply;
    double cpu = 0;
    do { // the client's half of the work does not count
        const double start = microseconds(CLOCK_PROCESS_CPUTIME_ID);
        connection.Step();
        cpu += microseconds(CLOCK_PROCESS_CPUTIME_ID) - start;
    } while (!take_reply(client_fd, reply));
    connection.Step(); // makes ready for the next request
    printf("%s\t%zu\t%.1f\n", request, reply.size(), cpu);
}

static int time_listings(int rounds)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
        perror("socketpair");
        return 1;
    }
    SocketConnection connection(ends[0], "", ucred{getpid(), getuid(), getgid()});
    UpdateBlockDeviceList();
    know_all_filesystems();
    for (int round = 0; round < rounds; round++) {
        for (const char *request : {"list", "list human", "enumerate"})
            timed_request(connection, ends[1], request);
    }
    close(ends[1]);
    return 0;
}

static int ask_for_use(bool together, int count, const char *const *name)
{
    const double start = microseconds(CLOCK_PROCESS_CPUTIME_ID);
    OpenFileSnapshot open_files("/dev/");
    for (int i = 0; i < count; i++) {
        const std::string path = std::string("/dev/") + name[i];
        if (together ? open_files.IsInUse(path) : device_in_use(path))
            printf("%s\n", name[i]);
    }
    printf("cpu %.1f\n", microseconds(CLOCK_PROCESS_CPUTIME_ID) - start);
    return 0;
}

int main(int argc, char **argv)
{
    insist_on_made_up_machine();
    init_connection_types();
    if (argc == 3 && strcmp(argv[1], "list") == 0)
        return time_listings(atoi(argv[2]));
    if (argc > 2 && strcmp(argv[1], "together") == 0)
        return ask_for_use(true, argc - 2, argv + 2);
    if (argc > 2 && strcmp(argv[1], "singly") == 0)
        return ask_for_use(false, argc - 2, argv + 2);
    fprintf(stderr, "listing_bench list ROUNDS | listing_bench together|singly NAME...\n");
    return 2;
}
