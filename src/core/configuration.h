// The configuration file, /etc/quarryd.conf.
#ifndef QUARRYD_CORE_CONFIGURATION_H
#define QUARRYD_CORE_CONFIGURATION_H

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "base/daemon_state.h"

// A key of the file and the setting that it names.
struct ConfigurationKey {
    const char *name;
    std::string Settings::*field;
};

// All keys.
std::span<const ConfigurationKey> configuration_keys();

// The longest line that counts, in characters.
inline constexpr size_t configuration_line_limit = 1023;

inline constexpr char configuration_file[] = "/etc/quarryd.conf";

// Reads the file into settings. False when it cannot be opened or read to its end; nothing is
// printed.
bool read_configuration();

// Cuts a line into key and value. Blanks around the "=" are dropped; those before the key and
// behind the value stay. False for a comment, for a line without "=", and for one that is too long.
bool split_configuration_line(std::string_view line, std::string_view &key,
                              std::string_view &value);

// Takes over one line, "key = value". Comments, unknown keys and lines of more than 1023 characters
// (half a path is another path) change nothing.
void apply_configuration_line(std::string_view line);

#endif
