// The listening socket and the clients that are connected to it.
//
// An abstract Unix stream socket: its name is a zero byte and "quarryd", and nothing appears in the
// file system. Every call is non-blocking.
#ifndef QUARRYD_PROTOCOL_CONTROL_SOCKET_H
#define QUARRYD_PROTOCOL_CONTROL_SOCKET_H

inline constexpr char socket_name[] = "quarryd"; // behind the zero byte

// Makes the socket and listens on it. On failure one line on stderr and false; what was opened
// stays open, since the daemon does not start then.
bool init_socket();

// One pass: takes in at most one client, lets each client's connection do one step, and deletes the
// connections whose clients have gone. True when a connection that was there before had work.
bool serve_control_socket();

// Closes the listening socket. Connections that are left are closed and deleted too.
void close_control_socket();

#endif
