// Opening and closing the tray of an optical drive for a client.
#ifndef QUARRYD_PROTOCOL_OPTICAL_TRAY_H
#define QUARRYD_PROTOCOL_OPTICAL_TRAY_H

#include <string>

class SocketConnection;

// Both take a drive's name or its path below /dev and leave one line of reply in the connection's
// output. A drive that is mounted or that somebody holds is left alone. The next listing asks for
// label and filesystem again, since the disc may be another one. They wait as long as the drive
// moves its tray.
void do_socket_command_eject(SocketConnection &connection, const std::string &device);
void do_socket_command_retract(SocketConnection &connection, const std::string &device);

#endif
