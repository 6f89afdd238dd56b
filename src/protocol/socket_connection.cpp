// Reading requests and sending replies on one connection.
#include "protocol/socket_connection.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "mount/mount_command.h"
#include "protocol/command_table.h"

static void make_non_blocking(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        fprintf(stderr, "fcntl(sock_fd) == -1! %s\n", strerror(errno));
        return;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
        fprintf(stderr, "fcntl(sock_fd,F_SETFL) %s\n", strerror(errno));
}

SocketConnection::SocketConnection(int socket_fd, const std::string &peer_path,
                                   const ucred &credentials)
    : peer_name(peer_path), peer_pid(credentials.pid), peer_uid(credentials.uid),
      peer_gid(credentials.gid), fd(socket_fd), uid(credentials.uid)
{
    make_non_blocking(fd);
}

SocketConnection::~SocketConnection()
{
    if (fd != -1)
        close(fd);
    fd = -1;
}

int SocketConnection::Step()
{
    switch (state) {
    case STATE_READING:
        return HandleInput();
    case STATE_DISPATCHING:
        return dispatch_command(*this);
    case STATE_SENDING:
        return HandleResponse();
    default:
        return 0;
    }
}

bool SocketConnection::HasClosed()
{
    char byte;
    if (!closed && recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT | MSG_NOSIGNAL) == 0)
        closed = true;
    return closed;
}

int split_request(const std::string &line, std::map<int, std::string> &words)
{
    int count = 0;
    for (size_t position = 0; position < line.size();) {
        if (line[position] == ' ') {
            position++;
            continue;
        }
        const bool is_quoted = line[position] == '"';
        const size_t start = is_quoted ? position + 1 : position;
        size_t end = line.find(is_quoted ? '"' : ' ', start);
        if (end == std::string::npos)
            end = line.size();
        words[count++] = line.substr(start, end - start);
        position = end + 1; // past the closing quote or the blank
    }
    return count;
}

int SocketConnection::HandleInput()
{
    if (closed)
        return 0;
    char buffer[1024];
    const ssize_t got = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (got == 0) {
        closed = true;
        return 0;
    }
    if (got < 0) {
        if (errno != EAGAIN)
            fprintf(stderr, "HandleInput: Error is not EWOULDBLOCK? %s\n", strerror(errno));
        return 0;
    }
    const std::string_view bytes(buffer, static_cast<size_t>(got));
    const size_t line_end = bytes.find_first_of("\r\n");
    input.append(bytes.substr(0, line_end));
    if (line_end == std::string_view::npos)
        return 1; // the line goes on in a later read
    // What stands behind the line's end in this read is dropped: one request, then one reply. A
    // client that sends two lines at once loses the second.
    state = STATE_DISPATCHING;
    argc = split_request(input, args);
    return 1;
}

int SocketConnection::HandleResponse()
{
    if (sent >= output.size()) {
        Reset();
        return 1;
    }
    const ssize_t count =
        send(fd, output.data() + sent, output.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) {
        sent += static_cast<size_t>(count);
        return 1;
    }
    if (count == 0) {
        closed = true;
        return 1;
    }
    if (errno == EAGAIN)
        return 1; // counts as work, on purpose: no sleep while a reply waits to go out
    const bool is_deaf = errno == EPIPE || errno == ECONNRESET;
    fprintf(stderr, "HandleResponse: some other error than EWOULDBLOCK? %s\n", strerror(errno));
    // What a client sent before it went would hide the end of its stream for ever: nothing else
    // reads while a reply is being sent.
    char unread[16384];
    if (is_deaf && recv(fd, unread, sizeof(unread), MSG_DONTWAIT | MSG_NOSIGNAL) == 0)
        closed = true;
    return 0;
}

void SocketConnection::do_socket_command_mount(const std::string &how, std::string &device)
{
    run_mount_command(uid, how, device, output);
}

void SocketConnection::Reset()
{
    state = STATE_READING;
    sent = 0;
    std::string().swap(output); // a long listing's memory is given back
    std::string().swap(input);
    argc = 0;
    args.clear();
}
