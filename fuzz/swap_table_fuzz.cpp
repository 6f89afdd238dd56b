// /proc/swaps: which areas are switched off, and whether the swap file is known for one.
#include <cstdio>

#include "base/daemon_state.h"
#include "base/small_files.h"
#include "base/words.h"
#include "harness.h"
#include "machine_in_memory.h"
#include "swap/swap_file.h"

static const size_t line_limit = 1023;

// The areas of a table, as the kernel knows them. False when a line is too long to tell.
static bool read_areas(const std::string &table, std::vector<std::string> &areas)
{
    LineReader lines(table);
    std::string_view line;
    lines.Next(line); // the head
    while (lines.Next(line)) {
        if (line.size() > line_limit)
            return false;
        areas.push_back(from_kernel_table(std::string(line.substr(0, line.find(' ')))));
    }
    return true;
}

// The daemon switches off these and no others, in the table's order.
static void check_deeds(MemoryMachine &machine, const std::vector<std::string> &areas,
                        const std::string &beginning)
{
    size_t deed = 0;
    for (const std::string &area : areas) {
        if (!area.starts_with(beginning))
            continue;
        // A NUL ends the path for the kernel.
        PROMISE(deed < machine.deeds.size() &&
                machine.deeds[deed] == "swapoff " + area.substr(0, area.find('\0')));
        deed++;
    }
    PROMISE(deed == machine.deeds.size());
    machine.deeds.clear();
}

// The word of the kernel for a path leads back to it, and is one word.
static void check_word(const std::string &path)
{
    const std::string word = as_in_kernel_table(path);
    PROMISE(word.find_first_of(" \t\n") == std::string::npos);
    PROMISE(from_kernel_table(word) == path);
    std::string escaped; // every byte may be
    for (char c : path) {
        char digits[5];
        snprintf(digits, sizeof(digits), "\\%03o", static_cast<unsigned char>(c));
        escaped += digits;
    }
    PROMISE(from_kernel_table(escaped) == path);
}

void examine(Input &input)
{
    MemoryMachine machine;
    main_partition = "sda2";
    settings.swap_name = input.Text();
    const std::string directory = input.Text();
    const std::string table = input.Rest();
    check_word(settings.swap_name);
    check_word(directory);
    machine.Write("/proc/swaps", table);
    if (directory.empty()) // /mnt as it usually is
        machine.Write("/mnt/sda2/data", "");
    else
        machine.Link("/mnt", directory);

    std::vector<std::string> areas;
    const bool can_tell = read_areas(table, areas);
    SwapOffAll();
    if (can_tell)
        check_deeds(machine, areas, "");
    machine.deeds.clear();
    SwapOffMainDriveOthers();
    for (const std::string &deed : machine.deeds)
        PROMISE(deed.starts_with("swapoff /tmpfs/.mnt/sda2/"));
    machine.deeds.clear();

    const std::string base = directory.empty() ? "/mnt" : directory.substr(0, 511);
    const std::string own = base + "/sda2/" + settings.swap_name;
    bool is_active = false;
    const std::string own_word = as_in_kernel_table(own);
    LineReader lines(table);
    for (std::string_view line; lines.Next(line);)
        is_active = is_active || line.substr(0, line_limit).substr(0, line.find(' ')) == own_word;
    PROMISE(SwapFileActive() == (is_active && !settings.swap_name.empty()));

    // Its own line makes it active.
    machine.Write("/proc/swaps", table + "\n" + own_word + " file 1024 0 -2\n");
    PROMISE(SwapFileActive() == !settings.swap_name.empty() || own_word.size() > line_limit);
    PROMISE(machine.deeds.empty());
}
