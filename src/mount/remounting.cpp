// What a remount must not change.
#include "mount/remounting.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/mount.h>
#include <vector>

#include "base/words.h"

#ifndef MS_NOSYMFOLLOW
#define MS_NOSYMFOLLOW 256
#endif
#ifndef MOUNT_ATTR_NOSYMFOLLOW
#define MOUNT_ATTR_NOSYMFOLLOW 0x00200000
#endif

static const struct {
    const char *option;
    unsigned long flag; // of mount(2)
    __u64 attribute;    // of mount_setattr(2)
} protections[] = {
    {"nosuid", MS_NOSUID, MOUNT_ATTR_NOSUID},
    {"nodev", MS_NODEV, MOUNT_ATTR_NODEV},
    {"noexec", MS_NOEXEC, MOUNT_ATTR_NOEXEC},
    {"nosymfollow", MS_NOSYMFOLLOW, MOUNT_ATTR_NOSYMFOLLOW},
};

static const unsigned long least_flags = MS_NOSUID | MS_NODEV;

unsigned long protecting_flags(const MountEntry &entry)
{
    unsigned long flags = 0;
    for (const auto &protection : protections) {
        if (has_option(entry, protection.option))
            flags |= protection.flag;
    }
    return flags;
}

std::string in_mount_table(const std::string &directory)
{
    char *resolved = realpath(directory.c_str(), nullptr);
    const std::string path = resolved ? resolved : directory;
    free(resolved);
    return as_in_kernel_table(path);
}

static bool is_mount_of(const MountEntry &entry, const std::string &device_path)
{
    return entry.device == device_path && !may_be_any_users(entry);
}

Top look_on_top(const std::string &device_path, const std::string &mountpoint, MountEntry &top)
{
    std::vector<MountEntry> mounts;
    if (!read_mounts_at(mountpoint, mounts))
        return TOP_IS_ANOTHERS;
    if (mounts.empty())
        return TOP_IS_NONE;
    if (!is_mount_of(mounts.back(), device_path))
        return TOP_IS_ANOTHERS;
    top = mounts.back();
    return TOP_IS_OWN;
}

// Gives flags to a mount by its root, whatever lies on it, and takes none away. False, with errno,
// when the kernel refuses: EINVAL for what is mounted nowhere any more.
static bool add_flags(const HeldDirectory &root, unsigned long flags)
{
    struct mount_attr attributes = {};
    for (const auto &protection : protections) {
        if (flags & protection.flag)
            attributes.attr_set |= protection.attribute;
    }
    return mount_setattr(root.Fd(), "", AT_EMPTY_PATH, &attributes, sizeof(attributes)) == 0;
}

// The same for what is seen at a directory, which the table lists as that entry. A bind remount
// touches the mount point alone, but all of its flags.
static bool add_flags_by_path(const std::string &directory, const MountEntry &entry,
                              unsigned long flags)
{
    const unsigned long mode = has_option(entry, "rw") ? 0 : MS_RDONLY;
    return mount("", directory.c_str(), "",
                 MS_REMOUNT | MS_BIND | mode | protecting_flags(entry) | flags, nullptr) == 0;
}

static void tell_unprotected(const std::string &directory, int error)
{
    fprintf(stderr, "Cannot protect %s again %s\n", directory.c_str(), strerror(error));
}

// What was opened has to be what was seen: something that has gone since then would be at no place
// any more. In a folder of root's, what cannot be opened can be named all the same.
HeldMount::HeldMount(const std::string &device_path, const std::string &mountpoint)
    : device_path_(device_path), mountpoint_(mountpoint), directory_(from_kernel_table(mountpoint)),
      top_(look_on_top(device_path, mountpoint, entry_))
{
    const bool is_nameable =
        directory_.IsThere() || (!directory_.IsOpen() && is_in_roots_folder(mountpoint));
    if (top_ == TOP_IS_OWN && !is_nameable)
        top_ = TOP_IS_ANOTHERS;
}

std::string HeldMount::Name() const
{
    const std::string directory = from_kernel_table(mountpoint_);
    return is_in_roots_folder(directory) ? directory : directory_.Name();
}

// The device's mount at a directory, whatever lies on it; none when it is not there. False when
// nobody can tell.
static bool find_own(const std::string &device_path, const std::string &mountpoint,
                     std::optional<MountEntry> &own)
{
    std::vector<MountEntry> mounts;
    if (!read_mounts_at(mountpoint, mounts))
        return false;
    for (const MountEntry &entry : mounts) {
        if (is_mount_of(entry, device_path))
            own = entry;
    }
    return true;
}

// Whether that mount lacks one of the flags. Who cannot tell says yes.
static bool is_bare(const std::string &device_path, const std::string &mountpoint,
                    unsigned long flags)
{
    std::optional<MountEntry> own;
    return !find_own(device_path, mountpoint, own) ||
           (own && (protecting_flags(*own) & flags) != flags);
}

// Whether what is seen at a directory may be a mount that a user has made.
static bool is_strangers_on_top(const std::string &mountpoint, MountEntry &top)
{
    std::vector<MountEntry> mounts;
    if (!read_mounts_at(mountpoint, mounts) || mounts.empty() || !may_be_any_users(mounts.back()))
        return false;
    top = mounts.back();
    return true;
}

static void protect_strangers(const std::string &mountpoint)
{
    MountEntry top;
    if (!is_strangers_on_top(mountpoint, top))
        return;
    const HeldDirectory root(from_kernel_table(mountpoint));
    if (!root.IsThere() ||
        (!add_flags(root, least_flags) && !add_flags_by_path(root.Name(), top, least_flags)))
        tell_unprotected(from_kernel_table(mountpoint), errno);
}

// For a kernel that has no call for it, or a container that forbids it. A path by the descriptor
// leads to the mount that is held; the directory's own leads to what is on top.
void HeldMount::GiveByPath(unsigned long flags) const
{
    const std::string directory = from_kernel_table(mountpoint_);
    const std::string name = directory_.Name();
    std::optional<MountEntry> own;
    MountEntry top;
    int error = EBUSY;
    if (find_own(device_path_, mountpoint_, own) && own &&
        (name != directory || look_on_top(device_path_, mountpoint_, top) == TOP_IS_OWN))
        error = add_flags_by_path(name, *own, flags) ? 0 : errno;
    // EINVAL: nothing is mounted there any more. Somebody may have come between.
    if (error != EINVAL && is_bare(device_path_, mountpoint_, flags))
        tell_unprotected(directory, error != 0 ? error : EBUSY);
}

void HeldMount::GiveFlagsBack(unsigned long more) const
{
    const unsigned long flags = top_ == TOP_IS_OWN ? protecting_flags(entry_) | more : 0;
    if (flags != 0 && (!directory_.IsOpen() || !add_flags(directory_, flags)))
        GiveByPath(flags);
    protect_strangers(mountpoint_);
}

// Takes off what a user has put on a device's mount, and nothing else. False when it is not to be
// got off.
static bool uncover(const std::string &device_path, const std::string &mountpoint)
{
    const std::string directory = from_kernel_table(mountpoint);
    const HeldDirectory root(directory);
    MountEntry top;
    if (!root.IsThere() || root.Name() == directory || !is_strangers_on_top(mountpoint, top))
        return false;
    // If this is the device's mount it is bare no more. EINVAL: he has taken his off himself.
    const bool is_off =
        add_flags(root, least_flags) && (!is_bare(device_path, mountpoint, least_flags) ||
                                         umount2(root.Name().c_str(), MNT_DETACH) == 0);
    return is_off || errno == EINVAL;
}

void protect_fresh_mount(const std::string &device_path, const std::string &mountpoint)
{
    const int most_tries = 5;
    for (int tries = 0; tries < most_tries; tries++) {
        const HeldMount mount(device_path, mountpoint);
        if (mount.OnTop() != TOP_IS_ANOTHERS) {
            mount.GiveFlagsBack(least_flags);
            return;
        }
        if (!uncover(device_path, mountpoint))
            break;
    }
    if (is_bare(device_path, mountpoint, least_flags))
        tell_unprotected(from_kernel_table(mountpoint), EBUSY);
}
