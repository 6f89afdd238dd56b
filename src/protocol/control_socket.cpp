// Listening, accepting, and the list of connections.
#include "protocol/control_socket.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "protocol/socket_connection.h"

static int listen_fd = -1;
static std::vector<SocketConnection *> connections; // in the order of their arrival; owned

static const int backlog = 16;
static const size_t connection_limit = 50;
static const int head_start_steps = 100;

bool init_socket()
{
    if (listen_fd != -1)
        close(listen_fd);
    listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, PF_UNIX);
    if (listen_fd < 0) {
        fprintf(stderr, "init_socket() cannot create socket %s\n", strerror(errno));
        return false;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // The first byte of the path stays 0: a name in the abstract namespace. Its length is counted
    // without a terminating zero, which would be part of the name.
    memcpy(address.sun_path + 1, socket_name, strlen(socket_name));
    const socklen_t length = static_cast<socklen_t>(strlen(socket_name) + 3);
    if (bind(listen_fd, reinterpret_cast<const sockaddr *>(&address), length) < 0) {
        fprintf(stderr, "init_socket() cannot bind socket %s\n", strerror(errno));
        return false;
    }
    if (listen(listen_fd, backlog) < 0) {
        fprintf(stderr, "listen() cannot set up socket %s\n", strerror(errno));
        return false;
    }
    const int flags = fcntl(listen_fd, F_GETFL);
    if (flags < 0) {
        fprintf(stderr, "fcntl(F_GETFL) failed %s\n", strerror(errno));
        return false;
    }
    if (fcntl(listen_fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        fprintf(stderr, "fcntl(F_SETFL) failed %s\n", strerror(errno));
        return false;
    }
    return true;
}

void close_control_socket()
{
    if (listen_fd != -1)
        close(listen_fd);
    listen_fd = -1;
    for (SocketConnection *connection : connections)
        delete connection;
    connections.clear();
}

// The path that a client's socket is bound to; "" when it is not bound, or to an abstract name.
static std::string peer_path(const sockaddr_un &address, socklen_t length)
{
    const size_t start = offsetof(sockaddr_un, sun_path);
    if (length <= start)
        return std::string();
    return std::string(address.sun_path, strnlen(address.sun_path, sizeof(address.sun_path)));
}

// Takes in one waiting client, or returns null when there is none.
static SocketConnection *accept_client()
{
    sockaddr_un address;
    address.sun_path[0] = '\0';
    socklen_t length = sizeof(address);
    const int fd =
        accept4(listen_fd, reinterpret_cast<sockaddr *>(&address), &length, SOCK_CLOEXEC);
    if (fd < 0)
        return nullptr;
    ucred credentials;
    socklen_t credentials_length = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &credentials_length) < 0) {
        fprintf(stderr, "Cannot accept connection: Cannot obtain peer credentials\n");
        close(fd);
        return nullptr;
    }
    return new SocketConnection(fd, peer_path(address, length), credentials);
}

// A client that has sent its request already gets its reply in the pass that meets it.
static void give_head_start(SocketConnection *connection)
{
    for (int step = 0; step < head_start_steps && !connection->closed; step++) {
        if (!connection->Step())
            return;
    }
}

static void take_in_one_client()
{
    if (connections.size() >= connection_limit)
        return; // further clients wait in the kernel's queue
    SocketConnection *connection = accept_client();
    if (!connection)
        return;
    give_head_start(connection);
    connections.push_back(connection);
}

bool serve_control_socket()
{
    take_in_one_client();
    bool was_busy = false;
    for (ptrdiff_t i = static_cast<ptrdiff_t>(connections.size()) - 1; i >= 0; i--) {
        SocketConnection *connection = connections[static_cast<size_t>(i)];
        if (connection->HasClosed()) {
            connections.erase(connections.begin() + i);
            delete connection;
            // Meant: the connection just below a removed one has its turn in the next pass.
            i--;
        } else if (connection->Step()) {
            was_busy = true;
        }
    }
    return was_busy;
}
