// The site's own programs for the beginning and the end of the daemon's work.
//
// Both settings name a program; one that is not an executable regular file is passed over silently.
#ifndef QUARRYD_CORE_SITE_SCRIPTS_H
#define QUARRYD_CORE_SITE_SCRIPTS_H

#include <array>
#include <initializer_list>

// A script's argument vector: at most three words, and null behind the last.
using ScriptArguments = std::array<const char *, 4>;

// The words as execv() takes them. More than there is room for are a bug, which stops the daemon.
ScriptArguments script_arguments(std::initializer_list<const char *> words);

// Starts the start script with the argument "-startup" and does not wait; its pid is in
// startup_child_pid until the main loop reaps it. Its alarm rings after 30 seconds.
void run_startup();

// Runs the stop script with the argument "-shutdown" and waits for its end. Its alarm rings after 5
// seconds.
void run_shutdown();

#endif
