// Reader of the configuration file.
#include "core/configuration.h"

#include "base/small_files.h"
#include "base/words.h"

static const ConfigurationKey keys[] = {
    {"main drive model", &Settings::main_drive_model},
    {"main partition signature", &Settings::main_partition_signature},
    {"main partition label", &Settings::main_partition_label},
    {"startup script", &Settings::startup_script},
    {"shutdown script", &Settings::shutdown_script},
    {"swap name", &Settings::swap_name},
};

std::span<const ConfigurationKey> configuration_keys()
{
    return keys;
}

bool split_configuration_line(std::string_view line, std::string_view &key, std::string_view &value)
{
    if (line.size() > configuration_line_limit || line.starts_with('#'))
        return false;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos)
        return false;
    key = line.substr(0, equals);
    key = key.substr(0, key.find_last_not_of(' ') + 1);
    value = line.substr(equals + 1);
    skip_run(value, ' ');
    return true;
}

void apply_configuration_line(std::string_view line)
{
    std::string_view key;
    std::string_view value;
    if (!split_configuration_line(line, key, value))
        return;
    for (const ConfigurationKey &known : keys) {
        if (key == known.name)
            settings.*known.field = std::string(value);
    }
}

bool read_configuration()
{
    std::string text;
    if (!read_whole_file(configuration_file, text))
        return false;
    LineReader lines(text);
    for (std::string_view line; lines.Next(line);)
        apply_configuration_line(line);
    return true;
}
