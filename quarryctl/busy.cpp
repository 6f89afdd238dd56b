#include "busy.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "base/directory.h"
#include "base/small_files.h"
#include "base/words.h"
#include "busy_processes.h"
#include "busy_target.h"
#include "core/boot_drive.h"
#include "json_output.h"
#include "mount/mount_tables.h"
#include "mount/unmounting.h"
#include "mount_info.h"
#include "registry/device_list.h"

static bool has_word(const std::string &text, const std::string &word)
{
    std::vector<std::string> words;
    cut_at(text, ',', words);
    return std::find(words.begin(), words.end(), word) != words.end();
}

static BusyDevice describe(const BusyTarget &target, const MountInfoTable &table)
{
    BusyDevice device;
    device.name = target.name;
    for (const MountInfo &mount : table) {
        if (is_mount_of(mount, target))
            device.mounts.push_back(
                {mount.mountpoint, mount.fstype,
                 has_word(mount.options, "ro") || has_word(mount.filesystem_options, "ro")});
    }
    if (target.IsDevice() && is_followed(target.name.c_str()))
        device.cleared = forced_mountpoint(target.name);
    return device;
}

static void add_holder(BusyReport &report, const char *kind, const BusyTarget &target,
                       const std::string &what, const std::string &more)
{
    Holder holder;
    holder.kind = kind;
    holder.device = target.name;
    holder.what = what;
    holder.more = more;
    report.holders.push_back(holder);
}

// Mounts on directories of a target's filesystem, and on those, and so on.
static void find_nested_mounts(const BusyTarget &target, const MountInfoTable &table,
                               BusyReport &report)
{
    std::set<int> inside;
    for (const MountInfo &mount : table) {
        if (is_mount_of(mount, target))
            inside.insert(mount.id);
    }
    // Usually, but not always, a mount is listed after the one that it lies on.
    for (size_t before = 0; before != inside.size();) {
        before = inside.size();
        for (const MountInfo &mount : table) {
            if (inside.contains(mount.parent))
                inside.insert(mount.id);
        }
    }
    for (const MountInfo &mount : table) {
        if (inside.contains(mount.id) && !is_mount_of(mount, target))
            add_holder(report, "mount", target, mount.mountpoint, mount.fstype);
    }
}

static std::string without_mark(std::string path)
{
    const std::string_view mark = " (deleted)";
    if (path.ends_with(mark))
        path.resize(path.size() - mark.size());
    return path;
}

// Whether a path names the device itself or a file on it.
static bool leads_to(const std::string &path, const BusyTarget &target, const MountInfoTable &table)
{
    if (std::find(target.paths.begin(), target.paths.end(), path) != target.paths.end())
        return true;
    const MountInfo *mount = mount_of_path(table, path);
    return mount && is_mount_of(*mount, target);
}

static std::vector<std::string> swap_areas()
{
    std::vector<std::string> areas;
    std::string text;
    read_whole_file("/proc/swaps", text);
    LineReader lines(text);
    std::string_view line;
    lines.Next(line); // the head
    while (lines.Next(line))
        areas.push_back(without_mark(from_kernel_table(std::string(take_field(line, ' ')))));
    return areas;
}

static void find_swap_areas(const BusyTarget &target, const MountInfoTable &table,
                            BusyReport &report)
{
    for (const std::string &area : swap_areas()) {
        if (leads_to(area, target, table))
            add_holder(report, "swap", target, area, "");
    }
}

static std::vector<std::string> sorted_names(const std::string &folder)
{
    std::vector<std::string> names;
    Directory entries(AT_FDCWD, folder.c_str());
    while (const char *name = entries.NextName()) {
        if (name[0] != '.')
            names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Where a device is mounted or that it is swapped to, for people.
static std::string use_of(const BusyTarget &target, const MountInfoTable &table)
{
    for (const MountInfo &mount : table) {
        if (is_mount_of(mount, target))
            return "mounted at " + mount.mountpoint;
    }
    for (const std::string &area : swap_areas()) {
        if (std::find(target.paths.begin(), target.paths.end(), area) != target.paths.end())
            return "a swap area";
    }
    return std::string();
}

static void find_loop_devices(const BusyTarget &target, const MountInfoTable &table,
                              BusyReport &report)
{
    for (const std::string &name : sorted_names("/sys/block")) {
        const std::string file =
            without_mark(read_sysfs_text("/sys/block/" + name + "/loop/backing_file"));
        if (file.empty() || !leads_to(file, target, table))
            continue;
        const std::string use = use_of(target_of(name), table);
        add_holder(report, "loop", target, name, file + (use.empty() ? "" : ", " + use));
    }
}

// Devices that are made of the target, and those that are made of them. seen: so that nothing is
// told twice.
static void find_stacked_devices(const BusyTarget &target, const BusyTarget &below,
                                 const MountInfoTable &table, std::set<std::string> &seen,
                                 BusyReport &report)
{
    if (below.folder.empty())
        return;
    for (const std::string &name : sorted_names(below.folder + "/holders")) {
        if (!seen.insert(name).second)
            continue;
        const BusyTarget above = target_of(name);
        std::string more = above.paths.size() > 1 ? above.paths[1] : std::string();
        const std::string use = use_of(above, table);
        more += !more.empty() && !use.empty() ? ", " + use : use;
        add_holder(report, "stacked", target, name, more);
        find_stacked_devices(target, above, table, seen, report);
    }
}

// Whether /proc shows this process no others: then nobody knows what is missing.
static bool is_list_partial(const MountInfoTable &table)
{
    const MountInfo *proc = mount_of_path(table, "/proc/self");
    return proc && proc->filesystem_options.find("hidepid=") != std::string::npos &&
           !has_word(proc->filesystem_options, "hidepid=off") &&
           !has_word(proc->filesystem_options, "hidepid=0");
}

// The kernel's filesystems have a folder for each device that they have in use, mounted or
// detached.
static bool is_filesystem_active(const BusyTarget &target)
{
    for (const char *type : {"ext4", "xfs", "f2fs"}) {
        struct stat status;
        if (target.IsDevice() &&
            stat(("/sys/fs/" + std::string(type) + "/" + target.name).c_str(), &status) == 0)
            return true;
    }
    return false;
}

int examine_holders(const std::string &word, BusyReport &report)
{
    const MountInfoTable table = read_mount_info("self");
    std::vector<BusyTarget> targets;
    if (!find_targets(word, table, targets))
        return 0;
    ReadProcMounts();
    find_boot_drive();
    for (const BusyTarget &target : targets)
        report.devices.push_back(describe(target, table));
    examine_processes(targets, table, report);
    for (size_t i = 0; i < targets.size(); i++) {
        const BusyTarget &target = targets[i];
        std::set<std::string> seen;
        find_nested_mounts(target, table, report);
        find_swap_areas(target, table, report);
        find_loop_devices(target, table, report);
        find_stacked_devices(target, target, table, seen, report);
        const bool is_seen_mounted =
            !report.devices[i].mounts.empty() ||
            std::any_of(report.holders.begin(), report.holders.end(), [&](const Holder &holder) {
                return holder.kind == "namespace" && holder.device == target.name;
            });
        if (!is_seen_mounted && is_filesystem_active(target))
            report.devices[i].is_active_unmounted = true;
    }
    report.is_list_partial = geteuid() != 0 && is_list_partial(table);
    return 1;
}

ExitStatus run_busy(OutputForm form, const std::string &word)
{
    BusyReport report;
    if (!examine_holders(word, report))
        return EXIT_REFUSED;
    if (form == FORM_JSON) {
        fputs(busy_json(report).c_str(), stdout);
        return EXIT_DONE;
    }
    fputs((form == FORM_PLAIN ? busy_lines(report) : busy_table(report, style_of_stdout())).c_str(),
          stdout);
    fflush(stdout);
    for (const std::string &gap : busy_gaps(report))
        complain(gap);
    return EXIT_DONE;
}
