// One question to the daemon: connecting to its socket, sending a request, reading the reply.
//
// Each question has a connection of its own, which the daemon sees closed as soon as the reply is
// there: a client that waits between questions takes none of the daemon's places, and one that asks
// again after the daemon was started anew finds the new one.
#ifndef QUARRYCTL_CONNECTION_H
#define QUARRYCTL_CONNECTION_H

#include <string>
#include <vector>

#include "reply.h"

// What quarryctl ends with. Scripts rely on the numbers.
enum ExitStatus {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,   // the daemon answered ERR
    EXIT_USAGE = 2,     // called in a wrong way
    EXIT_NO_DAEMON = 3, // none there, not root's, gone in the middle, or speaking gibberish
    EXIT_TIMEOUT = 4,   // no whole reply in time
};

struct Answer {
    ExitStatus status = EXIT_NO_DAEMON; // EXIT_DONE and EXIT_REFUSED: a whole reply came
    Reply reply;
    std::string complaint;       // a line for people, without line end, unless status is EXIT_DONE
    bool is_interrupted = false; // wake_fd became readable; the rest says nothing then
};

// Sends a request (a line without its end) and waits for the whole reply. Speaks to a daemon that
// runs as root alone. Prints nothing. seconds 0 waits for ever. When wake_fd, if it is not -1,
// becomes readable, the question is given up.
Answer ask_daemon(const std::string &request, double seconds, int wake_fd = -1);

// The words as one request, with quotes around those that need them. Non-zero on success; 0 when a
// word cannot be said in the daemon's language: it has a line end, or a quote where none can stand.
int request_of(const std::vector<std::string> &words, std::string &request);

// Prints "quarryctl: " and the text on stderr, as one line that no terminal takes for a command.
void complain(const std::string &text);

#endif
