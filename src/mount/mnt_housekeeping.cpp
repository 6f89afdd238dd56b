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
#include "base/words.h"
#include "mount/mount_tables.h"

static const char mnt[] = "/mnt";
static const time_t quiet_seconds = 15; // somebody may be about to mount on a fresh directory
static const int links_limit = 40;      // on one way; the kernel follows no more either

// Takes a status from what the kernel knows by itself.
static int status_without_waiting(int directory_fd, const char *name, struct statx &status)
{
    return statx(directory_fd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT,
                 STATX_TYPE | STATX_MTIME, &status);
}

static bool is_mounted(const std::string &name)
{
    return FindMount("device", "/dev/" + name) ||
           FindMount("mountpoint", as_in_kernel_table("/mnt/" + name));
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

// The mount that a path (without links in it) lies on, or null.
static const MountEntry *mount_of(const std::string &path)
{
    const std::string listed = as_in_kernel_table(path);
    const MountEntry *innermost = nullptr;
    for (const MountEntry &entry : mount_list) {
        const std::string &point = entry.mountpoint;
        const bool is_inside =
            listed.starts_with(point) &&
            (listed.size() == point.size() || point.ends_with('/') || listed[point.size()] == '/');
        if (is_inside && (!innermost || point.size() >= innermost->mountpoint.size()))
            innermost = &entry;
    }
    return innermost;
}

// Whether a path (without links in it) lies on a mount that may never answer: it is there, as far
// as anybody can tell without waiting. The mount that /mnt itself is on has just been asked.
static bool is_beyond_asking(const std::string &path)
{
    const MountEntry *mount = mount_of(path);
    return mount && may_never_answer(mount->fstype) && mount != mount_of(mnt);
}

// A way that is followed piece by piece.
struct Way {
    std::string resolved;     // what is behind, without links; empty at the root
    std::string rest;         // what is still ahead, from a slash on; a link puts its target here
    int links = 0;            // followed so far
    bool may_be_file = false; // resolved: nothing has been asked yet that only a directory has
};

static std::string take_piece(std::string &rest)
{
    const size_t end = std::min(rest.find('/', 1), rest.size());
    std::string piece = rest.substr(1, end - 1);
    rest.erase(0, end);
    return piece;
}

// Goes on to "." or to "..", or past a slash that nothing follows: each is there in a directory
// only.
static bool follow_dots(Way &way, const std::string &dots)
{
    struct statx status;
    if (way.may_be_file && status_without_waiting(AT_FDCWD, way.resolved.c_str(), status) == 0 &&
        !S_ISDIR(status.stx_mode))
        return false;
    way.may_be_file = false;
    if (dots == ".." && !way.resolved.empty())
        way.resolved.erase(way.resolved.rfind('/'));
    return true;
}

// Goes on to a name. False when it is not there.
static bool follow_name(Way &way, const std::string &next)
{
    errno = 0;
    const std::string target = read_link_at(AT_FDCWD, next.c_str(), PATH_MAX);
    way.may_be_file = target.empty();
    if (target.empty()) {
        way.resolved = next;
        return errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != ENAMETOOLONG;
    }
    const bool is_absolute = target.starts_with('/');
    if (is_absolute)
        way.resolved.clear();
    way.rest.insert(0, is_absolute ? target : "/" + target);
    return ++way.links <= links_limit;
}

// Whether a link of /mnt leads nowhere. Goes piece by piece, so as to stop before a filesystem that
// may not answer; in doubt the link leads somewhere.
static bool is_dangling(const char *name)
{
    Way way;
    way.rest = std::string(mnt) + "/" + name;
    while (!way.rest.empty()) {
        const std::string piece = take_piece(way.rest);
        if (piece.empty() || piece == "." || piece == "..") {
            if (!follow_dots(way, piece))
                return true;
            continue;
        }
        const std::string next = way.resolved + "/" + piece;
        if (is_beyond_asking(next))
            return false;
        if (!follow_name(way, next))
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
