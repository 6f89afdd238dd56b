// /etc/quarryd.conf.
#include "base/daemon_state.h"
#include "base/small_files.h"
#include "core/configuration.h"
#include "harness.h"
#include "machine_in_memory.h"

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

static std::string file_of(const Settings &values)
{
    std::string text = "# written from what was read\n";
    for (const auto &known : keys)
        text += std::string(known.key) + "=" + values.*known.field + "\n";
    return text;
}

// The last line that gives the key a value, found from the line's end and not from its front.
static std::string value_by_hand(const std::string &text, const std::string &key)
{
    std::string value;
    LineReader lines(text);
    for (std::string_view view; lines.Next(view);) {
        const std::string line(view);
        const size_t equals = line.find('=');
        if (line.size() > 1023 || equals == std::string::npos || !line.starts_with(key))
            continue;
        if (line.substr(key.size(), equals - key.size()).find_first_not_of(' ') !=
            std::string::npos)
            continue;
        if (equals < key.size())
            continue;
        const size_t start = line.find_first_not_of(' ', equals + 1);
        value = start == std::string::npos ? "" : line.substr(start);
    }
    return value;
}

void examine(Input &input)
{
    MemoryMachine machine;
    const std::string text = input.Rest();
    machine.Write("/etc/quarryd.conf", text);
    PROMISE(read_configuration());
    for (const auto &known : keys) {
        const std::string &value = settings.*known.field;
        PROMISE(value == value_by_hand(text, known.key));
        PROMISE(!value.starts_with(' ') && value.find('\n') == std::string::npos);
    }
    PROMISE(said().empty());

    const Settings first = settings;
    settings = Settings();
    machine.Write("/etc/quarryd.conf", file_of(first));
    PROMISE(read_configuration());
    PROMISE(file_of(settings) == file_of(first));
    machine.Remove("/etc/quarryd.conf");
    PROMISE(!read_configuration() && file_of(settings) == file_of(first));
}
