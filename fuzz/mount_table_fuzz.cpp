// /proc/mounts, in both of its readings, and the boot drive that is found there.
#include <algorithm>
#include <cerrno>

#include "base/daemon_state.h"
#include "base/small_files.h"
#include "base/words.h"
#include "core/boot_drive.h"
#include "harness.h"
#include "machine_in_memory.h"
#include "mount/mount_tables.h"

static const size_t line_limit = 511;

static std::string joined(const std::vector<std::string> &pieces)
{
    std::string text;
    for (const std::string &piece : pieces)
        text += (&piece == pieces.data() ? "" : ",") + piece;
    return text;
}

// The fields of a line: any number of separators stands between two.
static std::vector<std::string> fields_of(const std::string &line, char separator)
{
    std::vector<std::string> fields(4);
    size_t start = 0;
    for (std::string &field : fields) {
        const size_t end = std::min(line.find(separator, start), line.size());
        field = line.substr(start, end - start);
        start = std::min(line.find_first_not_of(separator, end), line.size());
    }
    return fields;
}

// Whether these are the pieces of a list.
static bool is_cut_up(const std::string &list, const std::vector<std::string> &pieces)
{
    const auto commas = static_cast<size_t>(std::count(list.begin(), list.end(), ','));
    return joined(pieces) == list && pieces.size() == (list.empty() ? 0 : commas + 1);
}

// Whether of a line that was cut there is not so much left as "rw".
static bool is_cut_short(const std::string &line, const std::vector<std::string> &fields)
{
    size_t end = 0;
    for (int i = 0; i < 3; i++)
        end = line.find_first_not_of(' ', end + fields[static_cast<size_t>(i)].size());
    return end == std::string::npos || line.size() - end < 2;
}

// Both readings have one entry for each line that says something, and what the line says.
static void check_against_table(const std::string &table)
{
    auto entry = mount_list.begin();
    auto second = fstab_list.begin();
    std::vector<std::string> lines;
    cut_at(table, '\n', lines);
    for (std::string line : lines) {
        const bool is_cut = line.size() > line_limit;
        const bool is_empty = line.empty();
        line.resize(std::min(line.size(), line_limit));
        line.erase(0, line.find_first_not_of(' '));
        std::vector<std::string> fields = fields_of(line, ' ');
        if (!is_empty && !(is_cut && is_cut_short(line, fields))) {
            PROMISE(entry != mount_list.end());
            PROMISE(entry->device == fields[0] && entry->mountpoint == fields[1]);
            PROMISE(entry->fstype == fields[2] && is_cut_up(fields[3], entry->options));
            ++entry;
        }
        const char separator = line.find('\t') == std::string::npos ? ' ' : '\t';
        if (line.find(separator) == std::string::npos)
            continue;
        fields = fields_of(line, separator);
        PROMISE(second != fstab_list.end());
        PROMISE(second->device == fields[0] && second->mountpoint == fields[1]);
        PROMISE(is_cut_up(fields[2], second->fstypes) && is_cut_up(fields[3], second->options));
        ++second;
    }
    PROMISE(entry == mount_list.end() && second == fstab_list.end());
}

// What was read is what its own text says once more, and no field holds what ends one.
static void check_entries()
{
    for (const MountEntry &entry : mount_list) {
        const std::string options = joined(entry.options);
        const std::string line =
            entry.device + " " + entry.mountpoint + " " + entry.fstype + " " + options + " 0 0";
        PROMISE(line.find('\n') == std::string::npos);
        for (const std::string *field : {&entry.device, &entry.mountpoint, &entry.fstype, &options})
            PROMISE(field->find(' ') == std::string::npos);
        MountEntry again;
        const bool has_all = !entry.device.empty() && !entry.mountpoint.empty() &&
                             !entry.fstype.empty() && !options.empty();
        if (!has_all || line.size() > line_limit)
            continue;
        PROMISE(parse_mount_line(line.size() + 2 > line_limit ? line : "  " + line, again));
        PROMISE(again.device == entry.device && again.mountpoint == entry.mountpoint &&
                again.fstype == entry.fstype && again.options == entry.options);
    }
}

// Every entry is found, or one of the same name before it; and nothing else is.
static void check_search(const std::string &stranger)
{
    for (const MountEntry &entry : mount_list) {
        const MountEntry *found = FindMount("mountpoint", entry.mountpoint);
        PROMISE(found && found->mountpoint == entry.mountpoint);
        found = FindMount("device", entry.device);
        PROMISE(found ? found->device == entry.device
                      : entry.fstype.starts_with("fuse") && !has_option(entry, "user_id=0"));
        for (const std::string &option : entry.options)
            PROMISE(has_option(entry, option));
    }
    const bool is_listed =
        std::any_of(mount_list.begin(), mount_list.end(),
                    [&](const MountEntry &entry) { return entry.mountpoint == stranger; });
    PROMISE(is_listed == (FindMount("mountpoint", stranger) != nullptr));
    PROMISE(!FindMount(stranger + "x", stranger) && !FindFstab(stranger + "x", stranger));
}

static void check_second_table()
{
    for (const FstabEntry &entry : fstab_list) {
        const FstabEntry *found = FindFstab("device", entry.device);
        PROMISE(found && found->device == entry.device);
        for (const std::string &type : entry.fstypes)
            PROMISE(type.find(',') == std::string::npos);
    }
}

// The way of a mount point into the table and out of it again.
static void check_way_through_the_table(const std::string &device, const std::string &directory)
{
    const std::string line =
        as_in_kernel_table(device) + " " + as_in_kernel_table(directory) + " ext4 rw,noatime 0 0";
    MountEntry entry;
    if (device.empty() || directory.empty() || line.size() > line_limit)
        return;
    PROMISE(line.find('\n') == std::string::npos && parse_mount_line(line, entry));
    PROMISE(from_kernel_table(entry.device) == device);
    PROMISE(from_kernel_table(entry.mountpoint) == directory);
    PROMISE(entry.fstype == "ext4" && entry.options.size() == 2 && has_option(entry, "rw"));
}

void examine(Input &input)
{
    MemoryMachine machine;
    const std::string device = input.Text();
    const std::string directory = input.Text();
    const std::string table = input.Rest();
    machine.Write("/proc/mounts", table);
    ReadProcMounts();
    ReadFstab();
    const size_t lines = static_cast<size_t>(std::count(table.begin(), table.end(), '\n')) + 1;
    PROMISE(mount_list.size() <= lines && fstab_list.size() <= lines);
    check_against_table(table);
    check_entries();
    check_search(directory);
    check_second_table();
    check_way_through_the_table(device, directory);
    detect_boot_drive();
    PROMISE(boot_partition.starts_with(boot_drive) && boot_drive.size() <= 3);

    // One that cannot be read mounts nothing.
    machine.Find("/proc/mounts")->error = EACCES;
    ReadProcMounts();
    PROMISE(mount_list.empty());
}
