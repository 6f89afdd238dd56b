// What quarryctl's verbs do, apart from `watch`, `busy` and `check`, which have files of their own.
//
// Each says on stdout what was asked for and on stderr what went wrong, and returns what the
// program ends with.
#ifndef QUARRYCTL_VERBS_H
#define QUARRYCTL_VERBS_H

#include <string>
#include <vector>

#include "connection.h"

enum OutputForm { FORM_TABLE, FORM_PLAIN, FORM_JSON };

// A mount may wait for label probes, scripts, a driver and the kernel's table, an unmount for
// processes that are driven out, both for what other clients asked before; none takes minutes. Swap
// is switched off as fast as what is in it comes back to memory.
constexpr double usual_patience = 120;
constexpr double swap_patience = 900;

// `list`: the drives, their partitions, and where they are mounted.
ExitStatus run_list(OutputForm form, double seconds);

// `enumerate`: the drives by how they are connected.
ExitStatus run_enumerate(OutputForm form, double seconds);

// `mount`: mode is "ro", "rw" or "rudero". The mount point is all that appears on
// stdout.
ExitStatus run_mount(const std::string &mode, const std::string &device, double seconds);

// The same for what is mounted already; anything else is refused.
ExitStatus run_remount(const std::string &mode, const std::string &device, double seconds);

// Every other verb: sends the words as one request and prints the reply's text.
ExitStatus run_request(const std::vector<std::string> &words, double seconds);

// `raw`: sends the line as it is and prints the reply as it came.
ExitStatus run_raw(const std::string &line, double seconds);

#endif
