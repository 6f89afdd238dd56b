#include "busy_target.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "base/directory.h"
#include "base/small_files.h"
#include "base/words.h"
#include "connection.h"
#include "mount/mount_tables.h"

static const int links_limit = 8; // nobody needs more to name a device

static bool exists(const std::string &path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

static std::string link_target(const std::string &path)
{
    return read_link_at(AT_FDCWD, path.c_str(), PATH_MAX);
}

std::string plain_path(const std::string &path)
{
    std::string plain;
    std::vector<std::string> pieces;
    cut_at(path, '/', pieces);
    for (const std::string &piece : pieces) {
        if (piece == "..")
            plain.erase(std::min(plain.rfind('/'), plain.size()));
        else if (!piece.empty() && piece != ".")
            plain += "/" + piece;
    }
    return plain.empty() ? "/" : plain;
}

// Follows links as long as they are in the folder, which must be one that asks no server.
static std::string follow_links(std::string path, const std::string &folder)
{
    for (int links = 0; links < links_limit && path.starts_with(folder); links++) {
        const std::string target = link_target(path);
        if (target.empty())
            break;
        path = plain_path(target.starts_with('/') ? target
                                                  : path.substr(0, path.rfind('/') + 1) + target);
    }
    return path;
}

// The name that the kernel gives to a device by its number: "sdb1" for "8:17". "" without one.
static std::string name_of_number(const std::string &number)
{
    const std::string folder = link_target("/sys/dev/block/" + number);
    std::string name = folder.substr(folder.rfind('/') + 1);
    std::replace(name.begin(), name.end(), '!', '/');
    return name;
}

// The name of the device of a node. A node may be called otherwise, and yet be no link: there is
// not always a udev.
static std::string name_of_node(const std::string &word)
{
    const std::string path =
        follow_links(plain_path(word.starts_with('/') ? word : "/dev/" + word), "/dev/");
    struct stat status;
    std::string name;
    if (path.starts_with("/dev/") && stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode))
        name = name_of_number(std::to_string(major(status.st_rdev)) + ":" +
                              std::to_string(minor(status.st_rdev)));
    return name.empty() ? strip_dev(path) : name;
}

// In sysfs a slash of a name is a "!".
static std::string name_in_sysfs(std::string name)
{
    std::replace(name.begin(), name.end(), '/', '!');
    return name;
}

static std::string folder_of(const std::string &name)
{
    const std::string block = "/sys/block/";
    const std::string entry = name_in_sysfs(name);
    if (entry.empty() || entry.starts_with('.'))
        return std::string();
    if (exists(block + entry))
        return block + entry;
    Directory drives(AT_FDCWD, block.c_str());
    while (const char *drive = drives.NextName()) {
        if (drive[0] == '.' || !entry.starts_with(drive))
            continue;
        std::string folder = block + drive + "/" + entry;
        if (exists(folder))
            return folder;
    }
    return std::string();
}

BusyTarget target_of(const std::string &name)
{
    BusyTarget target = {name, {"/dev/" + name}, "", folder_of(name)};
    if (target.folder.empty())
        return target;
    target.number = read_sysfs_text(target.folder + "/dev");
    const std::string volume = read_sysfs_text(target.folder + "/dm/name");
    if (!volume.empty())
        target.paths.push_back("/dev/mapper/" + volume);
    return target;
}

bool is_mount_of(const MountInfo &mount, const BusyTarget &target)
{
    if (!target.number.empty() && mount.number == target.number)
        return true;
    // Some filesystems (btrfs) have a number of their own, and a drive that was pulled has lost
    // its: then the name that was mounted tells.
    if (!target.number.empty() && !mount.number.starts_with("0:"))
        return false;
    MountEntry entry = {mount.source, mount.mountpoint, mount.fstype, {}};
    cut_at(mount.filesystem_options, ',', entry.options);
    return std::find(target.paths.begin(), target.paths.end(), mount.source) !=
               target.paths.end() &&
           !may_be_any_users(entry);
}

static void add_partitions(std::vector<BusyTarget> &targets)
{
    const BusyTarget drive = targets.front();
    const std::string entry = name_in_sysfs(drive.name);
    std::vector<std::string> names;
    if (!drive.folder.empty()) {
        Directory folder(AT_FDCWD, drive.folder.c_str());
        while (const char *name = folder.NextName()) {
            if (std::string(name).starts_with(entry))
                names.emplace_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    for (std::string name : names) {
        std::replace(name.begin(), name.end(), '!', '/');
        targets.push_back(target_of(name));
    }
}

static const MountInfo *mount_at(const MountInfoTable &table, const std::string &path)
{
    const auto last = std::find_if(table.rbegin(), table.rend(), [&](const MountInfo &mount) {
        return mount.mountpoint == path;
    });
    return last == table.rend() ? nullptr : &*last;
}

static int find_mount(const std::string &word, const MountInfoTable &table, BusyTarget &target)
{
    const MountInfo *mount = mount_at(table, plain_path(word));
    // Links of /mnt alone are followed: elsewhere a name may lie on a filesystem that never
    // answers.
    if (!mount && plain_path(word).rfind('/') == 4)
        mount = mount_at(table, follow_links(plain_path(word), "/mnt/"));
    if (!mount) {
        complain("nothing is mounted at " + word);
        return 0;
    }
    const std::string name = name_of_number(mount->number);
    if (!name.empty())
        target = target_of(name);
    else if (mount->source.starts_with("/dev/"))
        target = target_of(name_of_node(mount->source));
    else
        target = {mount->source, {}, mount->number, ""};
    return 1;
}

static int find_label(const std::string &label, std::string &name)
{
    std::string link = label.find('/') == std::string::npos ? link_target("/mnt/^" + label) : "";
    if (link.empty()) {
        complain("no device with the label " + label + " is mounted");
        return 0;
    }
    name = link.substr(link.rfind('/') + 1);
    return 1;
}

int find_targets(const std::string &word, const MountInfoTable &table,
                 std::vector<BusyTarget> &targets)
{
    BusyTarget target;
    if (word.starts_with('/') && !word.starts_with("/dev/")) {
        if (!find_mount(word, table, target))
            return 0;
    } else {
        std::string name = word;
        if (word.starts_with('^') && !find_label(word.substr(1), name))
            return 0;
        target = target_of(name_of_node(name));
        const bool is_mounted = std::any_of(
            table.begin(), table.end(), [&](const MountInfo &m) { return is_mount_of(m, target); });
        if (target.folder.empty() && !is_mounted) {
            complain("there is no device " + word);
            return 0;
        }
    }
    targets.push_back(target);
    add_partitions(targets);
    return 1;
}
