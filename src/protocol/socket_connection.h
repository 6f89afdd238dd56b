// One client's connection: its request, its reply, and how far they have come.
//
// A client sends one line and reads one reply, again and again on the same connection. Nothing here
// waits: each step does what can be done at once.
#ifndef QUARRYD_PROTOCOL_SOCKET_CONNECTION_H
#define QUARRYD_PROTOCOL_SOCKET_CONNECTION_H

#include <map>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>

enum ConnectionState { STATE_READING = 0, STATE_DISPATCHING = 1, STATE_SENDING = 2 };

// Owned by the list of connections in control_socket.
class SocketConnection {
public:
    // Takes over the connected socket and puts it into non-blocking mode (a failure of that is one
    // line on stderr; the connection is kept).
    SocketConnection(int socket_fd, const std::string &peer_path, const ucred &credentials);
    ~SocketConnection(); // closes the socket
    SocketConnection(const SocketConnection &) = delete;
    SocketConnection &operator=(const SocketConnection &) = delete;

    // Reads, dispatches or sends, by state. Non-zero when something was done.
    int Step();

    // Whether the client has gone; looks for the end of the stream when that is not known yet.
    bool HasClosed();

    // The three steps. 0 means that there was nothing to do or that it failed.
    int HandleInput();
    int HandleResponse();

    // Runs the mount command for this client; see run_mount_command(). device becomes a bare name.
    void do_socket_command_mount(const std::string &how, std::string &device);

    // Makes ready for the next request, once a reply is sent.
    void Reset();

    std::string input;     // the request line so far, without its end
    std::string peer_name; // the client's socket path; "" for most clients
    std::string output;    // the reply; a command writes it without its last line end
    pid_t peer_pid;
    uid_t peer_uid;
    gid_t peer_gid;
    std::map<int, std::string> args; // the request's words; 0 is the command
    int argc = 0;                    // number of words
    int state = STATE_READING;
    int fd;          // -1 once closed
    size_t sent = 0; // bytes of output that are out
    bool closed = false;
    uid_t uid; // whose rights every command asks for; root is 0
};

// Splits a request line into words at blanks. A word in double quotes may hold blanks and may be
// empty; without a closing quote it runs to the end of the line. Returns the number of words.
int split_request(const std::string &line, std::map<int, std::string> &words);

#endif
