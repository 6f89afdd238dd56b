// hotplug-notice: tells quarryd of one block event of the kernel. Run by the hotplug hook and by
// udev for every event, with ACTION and DEVPATH in the environment; gone within two seconds
// whatever the daemon does. Status 0: told, or nobody there who wants to know; 1: not told, the
// reason is on stderr; 2: called in a wrong way.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "registry/hotplug_notice.h"

using Clock = std::chrono::steady_clock;

static const std::chrono::milliseconds patience(1400);
static const timeval last_moment = {1, 800000}; // longer than patience, shorter than two seconds
static const std::chrono::milliseconds pause_between_attempts(20);
static const char socket_name[] = "quarryd";

enum Outcome { OUTCOME_TOLD, OUTCOME_NO_DAEMON, OUTCOME_FAILED };

static int complain(const char *what)
{
    fprintf(stderr, "hotplug-notice: %s\n", what);
    return 0;
}

static int milliseconds_until(Clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// However the waiting goes, a stderr that takes nothing can hold this up: then the alarm ends it.
static void limit_lifetime()
{
    sigset_t alarm_only;
    sigemptyset(&alarm_only);
    sigaddset(&alarm_only, SIGALRM);
    signal(SIGALRM, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &alarm_only, nullptr);
    const itimerval timer = {{0, 0}, last_moment};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// A socket whose number is none of the standard streams': what is complained about where stderr was
// closed must not go to whoever listens.
static int open_socket()
{
    const int any = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (any < 0 || any > STDERR_FILENO)
        return any;
    const int fd = fcntl(any, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(any);
    return fd;
}

// Waits until the socket is ready. 0, with a line on stderr, when time is up.
static int wait_for(int fd, short events, Clock::time_point deadline)
{
    pollfd request = {fd, events, 0};
    while (const int left = milliseconds_until(deadline)) {
        const int ready = poll(&request, 1, left);
        if (ready > 0)
            return 1;
        if (ready < 0 && errno != EINTR)
            return complain(strerror(errno));
    }
    return complain("the daemon takes too long");
}

// Connects. A daemon that is busy has a full queue: that is waited for.
static Outcome connect_to_daemon(int fd, Clock::time_point deadline)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, socket_name, strlen(socket_name)); // behind a zero byte: abstract
    const socklen_t length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(socket_name));
    while (connect(fd, reinterpret_cast<sockaddr *>(&address), length) < 0) {
        if (errno != EAGAIN && errno != EINTR)
            return OUTCOME_NO_DAEMON;
        if (milliseconds_until(deadline) == 0) {
            complain("the daemon takes too long");
            return OUTCOME_FAILED;
        }
        poll(nullptr, 0, static_cast<int>(pause_between_attempts.count()));
    }
    return OUTCOME_TOLD;
}

// Anybody may take an abstract name; only root's daemon is to know of the machine's events.
static int belongs_to_root(int fd)
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.uid == 0)
        return 1;
    return complain("the daemon's socket is not root's");
}

static int send_request(int fd, const std::string &request, Clock::time_point deadline)
{
    size_t sent = 0;
    while (sent < request.size()) {
        const ssize_t count = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<size_t>(count);
        else if (errno != EAGAIN)
            return complain(strerror(errno));
        else if (!wait_for(fd, POLLOUT, deadline))
            return 0;
    }
    return 1;
}

// Reads the one line of reply.
static int read_reply(int fd, std::string &reply, Clock::time_point deadline)
{
    const size_t reply_limit = 4096;
    while (reply.find('\n') == std::string::npos) {
        char chunk[256];
        if (!wait_for(fd, POLLIN, deadline))
            return 0;
        const ssize_t count = recv(fd, chunk, sizeof(chunk), 0);
        if (count < 0 && errno == EAGAIN)
            continue;
        if (count <= 0 || reply.size() > reply_limit)
            return complain("the daemon does not answer");
        reply.append(chunk, static_cast<size_t>(count));
    }
    reply.erase(reply.find('\n'));
    return 1;
}

// One word of a request: between quotes where a blank would end it. Empty when it cannot be one.
static std::string as_word(const std::string &text)
{
    const bool has_blank = text.find(' ') != std::string::npos;
    const bool has_quote = text.find('"') != std::string::npos;
    if (text.find_first_of("\r\n") != std::string::npos || text.starts_with('"') ||
        (has_blank && has_quote))
        return "";
    return has_blank ? '"' + text + '"' : text;
}

struct Device {
    std::string name;
    std::string drive; // the name itself when it is a drive
};

// The device of a path that ends .../block/sdb or .../sdb/sdb1.
static Device device_of(const std::string &device_path)
{
    const size_t slash = device_path.rfind('/');
    if (slash == std::string::npos)
        return {device_path, device_path};
    const std::string name = device_path.substr(slash + 1);
    const std::string folder = device_path.substr(0, slash);
    const std::string above = folder.substr(folder.rfind('/') + 1); // all of it without a slash
    const bool is_partition = !above.empty() && name.starts_with(above);
    return {name, is_partition ? above : name};
}

// The daemon has no business with these, and its rescans do not list them: one that it was told of
// would be gone for it a second later, with all that is mounted from it.
static int is_loop_or_memory_disk(const Device &device)
{
    return device.drive.starts_with("loop") || device.drive.starts_with("ram");
}

// The word for what happened. The daemon goes by the name alone, and takes a drive like dm-0 or
// nvme0n1 for a partition. It would make a record that the next rescan puts out of use, unmounting
// what is mounted by then; so it is told of such a device by that rescan only, which any word other
// than "add" leads to.
static std::string word_for(const std::string &action, const Device &device)
{
    const bool would_be_misread = parent_of_device(device.name) != device.drive;
    return action == "add" && would_be_misread ? "rescan" : action;
}

static Outcome tell(const std::string &request)
{
    const Clock::time_point deadline = Clock::now() + patience;
    const int fd = open_socket();
    if (fd < 0) {
        complain(strerror(errno));
        return OUTCOME_FAILED;
    }
    const Outcome connected = connect_to_daemon(fd, deadline);
    if (connected != OUTCOME_TOLD)
        return connected;
    std::string reply;
    if (!belongs_to_root(fd) || !send_request(fd, request, deadline) ||
        !read_reply(fd, reply, deadline))
        return OUTCOME_FAILED;
    // A daemon that polls wants no notices; that is no fault of anybody's.
    if (reply.starts_with("OK") || reply == "ERR hotplug mode not enabled")
        return OUTCOME_TOLD;
    complain(reply.c_str());
    return OUTCOME_FAILED;
}

static std::string environment(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

int main(int argc, char **)
{
    limit_lifetime();
    signal(SIGPIPE, SIG_IGN); // nobody may be reading what is complained about
    if (argc > 1) {
        fprintf(stderr, "usage: ACTION=add|remove DEVPATH=/devices/... hotplug-notice\n");
        return 2;
    }
    const std::string action = environment("ACTION");
    const std::string device_path = environment("DEVPATH");
    // Never "change": opening a drive for writing makes such an event, so that a program that looks
    // at what it is told of would be told again and again.
    if (action != "add" && action != "remove")
        return 0;
    if (device_path.empty()) {
        complain("an event without DEVPATH");
        return 1;
    }
    const std::string path_word = as_word(device_path);
    if (path_word.empty()) {
        complain("this device path cannot be passed on");
        return 1;
    }
    const Device device = device_of(device_path);
    if (is_loop_or_memory_disk(device))
        return 0;
    const std::string request = "notify " + word_for(action, device) + " " + path_word + "\n";
    return tell(request) == OUTCOME_FAILED ? 1 : 0;
}
