// Reader of the configuration file.
#include "core/configuration.h"

#include <string>

#include "base/daemon_state.h"
#include "base/small_files.h"
#include "base/words.h"

static const size_t line_limit = 1023;

static const struct {
    const char *key;
    std::string Settings::*field;
} keys[] = {
    {"main drive model", &Settings::main_drive_model},
    {"main partition signature", &Settings::main_partition_signature},
    {"main partition label", &Settings::main_partition_label},
    {"startup script", &Settings::startup_script},
    {"shutdown script", &Settings::shutdown_script},
    {"swap name", &Settings::swap_name},
};

void apply_configuration_line(std::string_view line)
{
    if (line.size() > line_limit || line.starts_with('#'))
        return;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos)
        return;
    // Blanks around the '=' do not count; those before the key and after the value do.
    std::string_view key = line.substr(0, equals);
    key = key.substr(0, key.find_last_not_of(' ') + 1);
    std::string_view value = line.substr(equals + 1);
    skip_run(value, ' ');
    for (const auto &known : keys) {
        if (key == known.key)
            settings.*known.field = std::string(value);
    }
}

bool read_configuration()
{
    std::string text;
    if (!read_whole_file("/etc/quarryd.conf", text))
        return false;
    LineReader lines(text);
    for (std::string_view line; lines.Next(line);)
        apply_configuration_line(line);
    return true;
}
