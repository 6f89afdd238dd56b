// Housekeeping of /mnt, every five seconds.
#include "mount/mnt_housekeeping.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <dirent.h>
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
static const int pieces_limit = 4096;   // of a path that goes round in links

// Takes a status from what the kernel knows by itself.
static int status_without_waiting(int directory_fd, const char *name, struct statx &status)
{
    return statx(directory_fd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT,
                 STATX_TYPE | STATX_MTIME, &status);
}

static bool is_mounted(const std::string &name)
{
    return FindMount("device", "/dev/" + name) ||
           FindMount("mountpoint", as_in_mount_table("/mnt/" + name));
}

static void remove_stale_directory(int mnt_fd, const char *name)
{
    struct statx status;
    if (is_mounted(name) || status_without_waiting(mnt_fd, name, status) < 0 ||
        !S_ISDIR(status.stx_mode))
        return;
    if (time(nullptr) - static_cast<time_t>(status.stx_mtime.tv_sec) > quiet_seconds)
        unlinkat(mnt_fd, name, AT_REMOVEDIR); // one that is not empty stays
}

// Filesystems that another machine, the host, or a user's program answers for, if it does.
static bool may_never_answer(const std::string &fstype)
{
    static const char *const beginnings[] = {
        "fuse", "nfs",   "cifs",   "smb",    "9p",       "afs",    "ceph",     "coda",
        "gfs2", "ocfs2", "autofs", "lustre", "orangefs", "vboxsf", "virtiofs",
    };
    return std::any_of(std::begin(beginnings), std::end(beginnings),
                       [&](const char *beginning) { return fstype.starts_with(beginning); });
}

// Whether a path (without links in it) lies on a mount that may never answer: it is there, as far
// as anybody can tell without waiting.
static bool is_beyond_asking(const std::string &path)
{
    const std::string listed = as_in_mount_table(path);
    const MountEntry *innermost = nullptr;
    for (const MountEntry &entry : mount_list) {
        const std::string &point = entry.mountpoint;
        const bool is_inside =
            listed.starts_with(point) &&
            (listed.size() == point.size() || point.ends_with('/') || listed[point.size()] == '/');
        if (is_inside && (!innermost || point.size() >= innermost->mountpoint.size()))
            innermost = &entry;
    }
    return innermost && may_never_answer(innermost->fstype);
}

// Follows one piece of a path: resolved is the way so far, without links; rest is what is to be
// followed still, and receives the target of a link. False when the piece is not there.
static bool follow(std::string &resolved, const std::string &piece, std::string &rest)
{
    const std::string next = resolved + "/" + piece;
    errno = 0;
    const std::string target = read_link_at(AT_FDCWD, next.c_str(), PATH_MAX);
    if (!target.empty()) {
        if (target.starts_with('/'))
            resolved.clear();
        rest = target + "/" + rest;
        return true;
    }
    resolved = next;
    return errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != ENAMETOOLONG;
}

// Whether a link of /mnt leads nowhere. Goes piece by piece, so as to stop before a filesystem that
// may not answer; in doubt the link leads somewhere.
static bool is_dangling(const char *name)
{
    std::string resolved;
    std::string rest = std::string(mnt) + "/" + name;
    int pieces = 0;
    while (!rest.empty()) {
        const size_t slash = rest.find('/');
        const std::string piece = rest.substr(0, slash);
        rest.erase(0, slash == std::string::npos ? slash : slash + 1);
        if (piece.empty() || piece == ".")
            continue;
        if (piece == "..") {
            resolved.erase(resolved.empty() ? 0 : resolved.rfind('/'));
            continue;
        }
        if (is_beyond_asking(resolved + "/" + piece))
            return false;
        if (!follow(resolved, piece, rest) || ++pieces > pieces_limit)
            return true;
    }
    return false;
}

// Whether an entry may be of a type, going by what the directory says of it, which asks nobody.
static bool may_be(const Directory &entries, unsigned char type)
{
    return entries.Type() == type || entries.Type() == DT_UNKNOWN;
}

void tidy_mnt()
{
    if (chdir(mnt) < 0)
        return;
    // Reading the directory must not wake the drive that it is on for its access time's sake.
    Directory entries(AT_FDCWD, ".", O_NOATIME);
    while (const char *name = entries.NextName()) {
        if (name[0] != '.' && may_be(entries, DT_DIR))
            remove_stale_directory(entries.Fd(), name);
    }
    entries.Rewind();
    while (const char *name = entries.NextName()) {
        if (name[0] != '.' && may_be(entries, DT_LNK) && is_dangling(name))
            unlinkat(entries.Fd(), name, 0);
    }
}
