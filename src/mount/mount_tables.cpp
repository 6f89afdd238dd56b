// Readers of the kernel's mount and filesystem tables.
#include "mount/mount_tables.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/small_files.h"
#include "base/words.h"

std::list<MountEntry> mount_list;
std::list<FstabEntry> fstab_list;
time_t fstab_mtime = 0;
std::list<std::string> filesystems_list;
std::list<std::string> filesystems_nodev_list;

// Longest lines that are looked at, in characters.
static const size_t mount_line_limit = 511;
static const size_t filesystem_line_limit = 127;

// Where the tables are read into: once a second for the life of the daemon, so the room is kept. A
// table whose reading broke off is as good as none.
static std::string table_text;

// What stands before the options; rest is what is left.
static void take_names(std::string_view &rest, MountEntry &entry)
{
    entry.options.clear();
    skip_run(rest, ' ');
    entry.device = std::string(take_field(rest, ' '));
    entry.mountpoint = std::string(take_field(rest, ' '));
    entry.fstype = std::string(take_field(rest, ' '));
}

bool parse_mount_line(std::string_view line, MountEntry &entry)
{
    const bool is_cut = line.size() > mount_line_limit;
    std::string_view rest = line.substr(0, mount_line_limit);
    take_names(rest, entry);
    // The first option is "rw" or "ro"; of a letter alone nobody could tell which.
    if (is_cut && rest.size() < 2)
        return false;
    cut_at(take_field(rest, ' '), ',', entry.options);
    return true;
}

static bool read_table_text()
{
    if (read_whole_file("/proc/mounts", table_text))
        return true;
    fprintf(stderr, "Cannot access /proc/mounts\n");
    return false;
}

void ReadProcMounts()
{
    mount_list.clear();
    if (!read_table_text())
        return;
    LineReader lines(table_text);
    for (std::string_view line; lines.Next(line);) {
        MountEntry entry;
        if (!line.empty() && parse_mount_line(line, entry))
            mount_list.push_back(std::move(entry));
    }
}

bool read_mounts_at(const std::string &mountpoint, std::vector<MountEntry> &mounts)
{
    mounts.clear();
    if (!read_table_text())
        return false;
    LineReader lines(table_text);
    for (std::string_view rest; lines.Next(rest);) {
        MountEntry entry;
        take_names(rest, entry);
        if (entry.mountpoint != mountpoint)
            continue;
        cut_at(take_field(rest, ' '), ',', entry.options);
        mounts.push_back(std::move(entry));
    }
    return true;
}

bool has_option(const MountEntry &entry, const std::string &option)
{
    return std::find(entry.options.begin(), entry.options.end(), option) != entry.options.end();
}

bool may_be_any_users(const MountEntry &entry)
{
    return (entry.fstype == "fuse" || entry.fstype.starts_with("fuse.")) &&
           !has_option(entry, "user_id=0");
}

MountEntry *FindMount(const std::string &category, const std::string &value)
{
    const bool by_device = category == "device";
    if (!by_device && category != "mountpoint") {
        fprintf(stderr, "unknown category %s val %s\n", category.c_str(), value.c_str());
        return nullptr;
    }
    for (MountEntry &entry : mount_list) {
        if (by_device ? entry.device == value && !may_be_any_users(entry)
                      : entry.mountpoint == value)
            return &entry;
    }
    return nullptr;
}

bool parse_fstab_line(std::string_view line, FstabEntry &entry)
{
    std::string_view rest = line.substr(0, mount_line_limit);
    skip_run(rest, ' ');
    if (rest.empty())
        return false;
    const char separator = rest.find('\t') != std::string_view::npos ? '\t' : ' ';
    if (rest.find(separator) == std::string_view::npos)
        return false;
    entry.fstypes.clear();
    entry.options.clear();
    entry.device = std::string(take_field(rest, separator));
    entry.mountpoint = std::string(take_field(rest, separator));
    cut_at(take_field(rest, separator), ',', entry.fstypes);
    cut_at(take_field(rest, separator), ',', entry.options);
    return true;
}

void ReadFstab()
{
    struct stat status;
    if (stat("/proc/mounts", &status) < 0) {
        fprintf(stderr, "WaRNING: cannot stat /etc/fstab\n");
        return;
    }
    fstab_mtime = status.st_mtime; // compared with nothing: the kernel's table has no useful time
    fstab_list.clear();
    if (!read_whole_file("/proc/mounts", table_text)) {
        fprintf(stderr, "Cannot access /etc/fstab\n");
        return;
    }
    LineReader lines(table_text);
    for (std::string_view line; lines.Next(line);) {
        FstabEntry entry;
        if (!line.empty() && parse_fstab_line(line, entry))
            fstab_list.push_back(std::move(entry));
    }
}

FstabEntry *FindFstab(const std::string &category, const std::string &value)
{
    const bool by_device = category == "device";
    if (!by_device && category != "mountpoint")
        return nullptr;
    for (FstabEntry &entry : fstab_list) {
        if ((by_device ? entry.device : entry.mountpoint) == value)
            return &entry;
    }
    return nullptr;
}

void ReadProcFilesystems()
{
    if (!read_whole_file("/proc/filesystems", table_text)) {
        fprintf(stderr, "Cannot read /proc/filesystems\n");
        return;
    }
    filesystems_list.clear();
    filesystems_nodev_list.clear();
    LineReader lines(table_text);
    for (std::string_view line; lines.Next(line);) {
        line = line.substr(0, filesystem_line_limit);
        const size_t tab = line.find('\t');
        if (tab == std::string_view::npos)
            continue;
        std::list<std::string> &list =
            line.substr(0, tab) == "nodev" ? filesystems_nodev_list : filesystems_list;
        list.emplace_back(line.substr(tab + 1));
    }
}

bool HaveFilesystem(const std::string &name, int nodev)
{
    const std::list<std::string> &list = nodev == 1 ? filesystems_nodev_list : filesystems_list;
    for (const std::string &type : list) {
        if (type == name)
            return true;
    }
    return false;
}

static void dump_list(FILE *stream, const char *title, const std::list<std::string> &list)
{
    fprintf(stream, "%s\n", title);
    fflush(stream);
    for (const std::string &type : list) {
        fprintf(stream, "  %s\n", type.c_str());
        fflush(stream);
    }
}

void DumpFilesystems(FILE *stream)
{
    dump_list(stream, "filesystems", filesystems_list);
    dump_list(stream, "filesystems (nodev)", filesystems_nodev_list);
}
