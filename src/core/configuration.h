// The configuration file, /etc/quarryd.conf.
#ifndef QUARRYD_CORE_CONFIGURATION_H
#define QUARRYD_CORE_CONFIGURATION_H

#include <string_view>

// Reads the file into settings. False when it cannot be opened or read to its end; nothing is
// printed.
bool read_configuration();

// Takes over one line, "key = value". Comments, unknown keys and lines of more than 1023 characters
// (half a path is another path) change nothing.
void apply_configuration_line(std::string_view line);

#endif
