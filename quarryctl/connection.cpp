#include "connection.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "printable.h"

using Clock = std::chrono::steady_clock;

static const char socket_name[] = "quarryd";
static const int pause_between_attempts = 20; // milliseconds

// Larger than the listing of any machine; whoever sends more does not speak the daemon's language.
static const size_t reply_limit = size_t{16} << 20;

// One question while it is asked.
struct Question {
    int fd;
    int wake_fd;
    double seconds;
    Clock::time_point deadline; // not looked at when seconds is 0
    Answer answer;
};

static int give_up(Question &question, ExitStatus status, const std::string &complaint)
{
    question.answer.status = status;
    question.answer.complaint = complaint;
    return 0;
}

static int give_up_in_time(Question &question)
{
    char text[128];
    snprintf(text, sizeof(text), "the daemon gave no answer within %g seconds", question.seconds);
    return give_up(question, EXIT_TIMEOUT, text);
}

// Milliseconds for poll(2) until the deadline, rounded up; -1 for ever.
static int time_left(const Question &question)
{
    if (question.seconds <= 0)
        return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(question.deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Waits until the socket is ready, but no longer than the limit in milliseconds if that is not -1.
// Non-zero when it is ready or the limit is over.
static int wait_for(Question &question, short events, int limit = -1)
{
    for (;;) {
        const int left = time_left(question);
        if (left == 0)
            return give_up_in_time(question);
        const bool is_limited = limit >= 0 && (left < 0 || limit < left);
        pollfd requests[] = {{question.fd, events, 0}, {question.wake_fd, POLLIN, 0}};
        const int ready = poll(requests, 2, is_limited ? limit : left);
        if (ready < 0 && errno != EINTR)
            return give_up(question, EXIT_NO_DAEMON, strerror(errno));
        if (ready > 0 && requests[1].revents) {
            question.answer.is_interrupted = true;
            return 0;
        }
        if (ready > 0 || (ready == 0 && is_limited))
            return 1;
    }
}

// Connects. A daemon that is busy has a full queue: that is waited for.
static int connect_to_daemon(Question &question)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, socket_name, strlen(socket_name)); // behind a zero byte: abstract
    const socklen_t length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(socket_name));
    while (connect(question.fd, reinterpret_cast<sockaddr *>(&address), length) < 0) {
        if (errno == ECONNREFUSED)
            return give_up(question, EXIT_NO_DAEMON, "the daemon is not running");
        if (errno != EAGAIN && errno != EINTR)
            return give_up(question, EXIT_NO_DAEMON,
                           std::string("cannot connect to the daemon: ") + strerror(errno));
        if (!wait_for(question, 0, pause_between_attempts))
            return 0;
    }
    return 1;
}

// Anybody may take an abstract name: what an ordinary user's program says of the machine's drives,
// or is told to do with them, is worth nothing.
static int check_that_it_is_root(Question &question)
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(question.fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) < 0)
        return give_up(question, EXIT_NO_DAEMON,
                       std::string("cannot see whose the daemon's socket is: ") + strerror(errno));
    if (peer.uid == 0)
        return 1;
    return give_up(question, EXIT_NO_DAEMON,
                   "the daemon's socket belongs to user " + std::to_string(peer.uid) +
                       ", not to root: not speaking to it");
}

static int send_line(Question &question, const std::string &line)
{
    size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t count =
            send(question.fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
        } else if (errno == EAGAIN) {
            if (!wait_for(question, POLLOUT))
                return 0;
        } else if (errno != EINTR) {
            return give_up(question, EXIT_NO_DAEMON,
                           std::string("cannot send to the daemon: ") + strerror(errno));
        }
    }
    return 1;
}

// A reply can only be complete with the end of a line: a long listing is not taken apart anew for
// each piece of a line that comes.
static ReplyState look_at(const std::string &bytes, size_t arrived, Reply &reply)
{
    const size_t before = bytes.size() - arrived;
    if (before > 0 && bytes.find('\n', before) == std::string::npos)
        return REPLY_UNFINISHED;
    return parse_reply(bytes, reply);
}

static int read_reply(Question &question)
{
    std::string bytes;
    for (;;) {
        if (!wait_for(question, POLLIN))
            return 0;
        char chunk[65536];
        const ssize_t count = recv(question.fd, chunk, sizeof(chunk), 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (count < 0)
            return give_up(question, EXIT_NO_DAEMON,
                           std::string("cannot read from the daemon: ") + strerror(errno));
        if (count == 0)
            return give_up(question, EXIT_NO_DAEMON,
                           bytes.empty() ? "the daemon ended without an answer"
                                         : "the daemon's answer is cut off");
        bytes.append(chunk, static_cast<size_t>(count));
        const ReplyState state = look_at(bytes, static_cast<size_t>(count), question.answer.reply);
        if (state == REPLY_COMPLETE)
            return 1;
        if (state == REPLY_GARBLED || bytes.size() > reply_limit)
            return give_up(question, EXIT_NO_DAEMON, "the daemon's answer cannot be understood");
    }
}

Answer ask_daemon(const std::string &request, double seconds, int wake_fd)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    Question question = {fd, wake_fd, seconds, Clock::now(), {}};
    if (seconds > 0)
        question.deadline +=
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    if (fd < 0) {
        give_up(question, EXIT_NO_DAEMON, std::string("cannot make a socket: ") + strerror(errno));
        return question.answer;
    }
    if (connect_to_daemon(question) && check_that_it_is_root(question) &&
        send_line(question, request + "\n") && read_reply(question)) {
        Answer &answer = question.answer;
        answer.status = answer.reply.is_ok ? EXIT_DONE : EXIT_REFUSED;
        if (!answer.reply.is_ok)
            answer.complaint = answer.reply.text;
    }
    close(fd);
    return question.answer;
}

int request_of(const std::vector<std::string> &words, std::string &request)
{
    request.clear();
    for (const std::string &word : words) {
        const bool needs_quotes = word.empty() || word.find(' ') != std::string::npos;
        const bool has_quote = word.find('"') != std::string::npos;
        if (word.find_first_of("\r\n") != std::string::npos || word.starts_with('"') ||
            (needs_quotes && has_quote))
            return 0;
        if (!request.empty())
            request += ' ';
        request += needs_quotes ? '"' + word + '"' : word;
    }
    return 1;
}

void complain(const std::string &text)
{
    fprintf(stderr, "quarryctl: %s\n", printable(text).c_str());
}
