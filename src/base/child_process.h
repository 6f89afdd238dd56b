// Making child processes.
#ifndef QUARRYD_BASE_CHILD_PROCESS_H
#define QUARRYD_BASE_CHILD_PROCESS_H

#include <string>
#include <sys/types.h>
#include <vector>

// As fork(). The daemon itself ignores SIGPIPE, so that it outlives whoever reads its diagnostics;
// a child gets the default back, as every program expects it.
pid_t fork_child();

// Has the shell run a command and waits for its end. 1 when its exit status was 0. Unlike system()
// it does not shut out the signals that ask the daemon to stop.
int run_shell(const std::string &command);

// Runs a program found in PATH with these words (the first is its name) and waits for its end. What
// it prints goes nowhere, and no shell sees the words. 1 when its exit status was 0.
int run_quietly(const std::vector<std::string> &words);

#endif
