// Which command a request asks for, and the commands that are short.
#ifndef QUARRYD_PROTOCOL_COMMAND_TABLE_H
#define QUARRYD_PROTOCOL_COMMAND_TABLE_H

class SocketConnection;

// Runs the command that the connection's words name, to its end, and leaves the reply in the
// connection's output, ready to be sent. A command that leaves no reply is run again at the
// connection's next step. Always 1.
int dispatch_command(SocketConnection &connection);

#endif
