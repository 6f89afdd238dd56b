#include "mount_info.h"

#include <charconv>
#include <system_error>

#include "base/small_files.h"
#include "base/words.h"

static int parse_number(std::string_view text, int &number)
{
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

static std::string take_path(std::string_view &rest)
{
    return from_kernel_table(std::string(take_field(rest, ' ')));
}

// 36 35 8:17 / /mnt/sdb1 rw,nosuid shared:1 master:2 - ext4 /dev/sdb1 rw,errors=continue
int parse_mount_info_line(std::string_view line, MountInfo &mount)
{
    std::string_view rest = line;
    if (!parse_number(take_field(rest, ' '), mount.id) ||
        !parse_number(take_field(rest, ' '), mount.parent))
        return 0;
    mount.number = take_field(rest, ' ');
    take_field(rest, ' '); // what of the filesystem is shown there
    mount.mountpoint = take_path(rest);
    mount.options = take_field(rest, ' ');
    while (!rest.empty() && take_field(rest, ' ') != "-") {
    }
    mount.fstype = take_field(rest, ' ');
    mount.source = take_path(rest);
    mount.filesystem_options = take_field(rest, ' ');
    return !mount.fstype.empty();
}

MountInfoTable read_mount_info(const std::string &process)
{
    MountInfoTable table;
    std::string text;
    read_whole_file(("/proc/" + process + "/mountinfo").c_str(), text);
    LineReader lines(text);
    for (std::string_view line; lines.Next(line);) {
        MountInfo mount;
        if (parse_mount_info_line(line, mount))
            table.push_back(std::move(mount));
    }
    return table;
}

static bool is_below(std::string_view path, std::string_view directory)
{
    return path.starts_with(directory) &&
           (path.size() == directory.size() || directory.ends_with('/') ||
            path[directory.size()] == '/');
}

const MountInfo *mount_of_path(const MountInfoTable &table, std::string_view path)
{
    const MountInfo *innermost = nullptr;
    for (const MountInfo &mount : table) {
        // Of two mounts at one place the later one hides the other.
        if (is_below(path, mount.mountpoint) &&
            (!innermost || mount.mountpoint.size() >= innermost->mountpoint.size()))
            innermost = &mount;
    }
    return innermost;
}
