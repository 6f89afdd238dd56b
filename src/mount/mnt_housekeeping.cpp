// Housekeeping of /mnt, every five seconds.
#include "mount/mnt_housekeeping.h"

#include <algorithm>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "base/directory.h"
#include "base/small_files.h"
#include "mount/mount_tables.h"

static const char mnt[] = "/mnt";
static const time_t quiet_seconds = 15; // somebody may be about to mount on a fresh directory

// Takes a status from what the kernel knows by itself.
static int status_without_waiting(int directory_fd, const char *path, int flags,
                                  struct statx &status)
{
    return statx(directory_fd, path, flags | AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT,
                 STATX_TYPE | STATX_MTIME, &status);
}

static bool is_mounted(const std::string &name)
{
    return FindMount("device", "/dev/" + name) || FindMount("mountpoint", "/mnt/" + name);
}

static void remove_stale_directory(int mnt_fd, const char *name)
{
    struct statx status;
    if (is_mounted(name) || status_without_waiting(mnt_fd, name, AT_SYMLINK_NOFOLLOW, status) < 0 ||
        !S_ISDIR(status.stx_mode))
        return;
    if (time(nullptr) - static_cast<time_t>(status.stx_mtime.tv_sec) > quiet_seconds)
        unlinkat(mnt_fd, name, AT_REMOVEDIR); // one that is not empty stays
}

// An absolute path without "." and "..", by its text alone.
static std::string plain_path(const std::string &directory, const std::string &target)
{
    const std::string path = target.starts_with('/') ? target : directory + "/" + target;
    std::string result;
    for (size_t start = 0; start < path.size();) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        const std::string piece = path.substr(start, end - start);
        if (piece == "..")
            result.erase(result.empty() ? 0 : result.rfind('/'));
        else if (!piece.empty() && piece != ".")
            result += "/" + piece;
        start = end + 1;
    }
    return result;
}

// Filesystems that another machine or a user's program answers for, if it does.
static bool may_never_answer(const std::string &fstype)
{
    static const char *const beginnings[] = {"fuse", "nfs",  "cifs", "smb",   "9p",
                                             "afs",  "ceph", "coda", "autofs"};
    return std::any_of(std::begin(beginnings), std::end(beginnings),
                       [&](const char *beginning) { return fstype.starts_with(beginning); });
}

// Whether a path is a mount point, or lies on a mount that may never answer: such a target is
// there, as far as anybody can tell without waiting.
static bool is_beyond_asking(const std::string &path)
{
    const MountEntry *innermost = nullptr;
    for (const MountEntry &entry : mount_list) {
        const std::string &point = entry.mountpoint;
        if (point == path)
            return true;
        const bool is_inside =
            path.starts_with(point) && (point.ends_with('/') || path[point.size()] == '/');
        if (is_inside && (!innermost || point.size() >= innermost->mountpoint.size()))
            innermost = &entry;
    }
    return innermost && may_never_answer(innermost->fstype);
}

// Whether following the link ends at nothing.
static bool is_dangling(const char *name)
{
    std::string path = std::string(mnt) + "/" + name;
    for (int hops = 0; hops < 40; hops++) { // as many as the kernel follows
        const std::string target = read_link_at(AT_FDCWD, path.c_str(), PATH_MAX);
        if (target.empty())
            break;
        path = plain_path(path.substr(0, path.rfind('/')), target);
        if (is_beyond_asking(path))
            return false;
    }
    struct statx status;
    return status_without_waiting(AT_FDCWD, path.c_str(), 0, status) < 0;
}

static void remove_dangling_link(int mnt_fd, const char *name)
{
    char first_byte;
    if (readlinkat(mnt_fd, name, &first_byte, 1) >= 0 && is_dangling(name))
        unlinkat(mnt_fd, name, 0);
}

void tidy_mnt()
{
    if (chdir(mnt) < 0)
        return;
    // Reading the directory must not wake the drive that it is on for its access time's sake.
    Directory entries(AT_FDCWD, ".", O_NOATIME);
    while (const char *name = entries.NextName()) {
        if (name[0] != '.')
            remove_stale_directory(entries.Fd(), name);
    }
    entries.Rewind();
    while (const char *name = entries.NextName()) {
        if (name[0] != '.')
            remove_dangling_link(entries.Fd(), name);
    }
}
