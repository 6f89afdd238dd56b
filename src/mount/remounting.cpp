// What a remount must not change.
#include "mount/remounting.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mount.h>
#include <vector>

#include "base/words.h"

#ifndef MS_NOSYMFOLLOW
#define MS_NOSYMFOLLOW 256
#endif

static const struct {
    const char *option;
    unsigned long flag;
} protections[] = {
    {"nosuid", MS_NOSUID},
    {"nodev", MS_NODEV},
    {"noexec", MS_NOEXEC},
    {"nosymfollow", MS_NOSYMFOLLOW},
};

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

bool find_on_top(const std::string &device_path, const std::string &mountpoint, MountEntry &entry)
{
    std::vector<MountEntry> mounts;
    if (!read_mounts_at(mountpoint, mounts) || mounts.empty() ||
        !is_mount_of(mounts.back(), device_path))
        return false;
    entry = mounts.back();
    return true;
}

bool is_covered(const std::string &device_path, const std::string &mountpoint)
{
    std::vector<MountEntry> mounts;
    if (!read_mounts_at(mountpoint, mounts))
        return true;
    return !mounts.empty() && !is_mount_of(mounts.back(), device_path);
}

// Gives flags to what is on top at a directory. False when the kernel refuses.
static bool give_flags(const std::string &directory, unsigned long flags, bool read_only)
{
    const unsigned long mode = read_only ? MS_RDONLY : 0;
    return flags == 0 ||
           mount("", directory.c_str(), "", MS_REMOUNT | MS_BIND | mode | flags, nullptr) == 0;
}

enum Look { LOOK_IS_WELL, LOOK_IS_BARE, LOOK_IS_COVERED };

// Looks whether the device's mount has its flags. A stranger's mount on it is protected here: the
// remount may have been his.
static Look look_at(const std::string &device_path, const std::string &mountpoint,
                    unsigned long flags)
{
    std::vector<MountEntry> mounts;
    if (!read_mounts_at(mountpoint, mounts) || mounts.empty())
        return LOOK_IS_WELL;
    const MountEntry &top = mounts.back();
    const bool is_own = is_mount_of(top, device_path);
    if (!is_own)
        give_flags(from_kernel_table(mountpoint), protecting_flags(top) | MS_NOSUID | MS_NODEV,
                   !has_option(top, "rw"));
    for (auto entry = mounts.rbegin(); entry != mounts.rend(); ++entry) {
        if (is_mount_of(*entry, device_path)) {
            if ((protecting_flags(*entry) & flags) == flags)
                return LOOK_IS_WELL;
            return is_own || !may_be_any_users(top) ? LOOK_IS_BARE : LOOK_IS_COVERED;
        }
    }
    return LOOK_IS_WELL; // unmounted meanwhile
}

void put_flags_back(const std::string &device_path, const std::string &mountpoint,
                    unsigned long flags, bool read_only)
{
    const int most_tries = 5;
    const std::string directory = from_kernel_table(mountpoint);
    bool was_covered = false;
    int error = 0;
    for (int tries = 0; tries < most_tries; tries++) {
        error = give_flags(directory, flags, read_only) ? 0 : errno;
        // Somebody may have come between, so that the flags went to a mount of his.
        const Look look = look_at(device_path, mountpoint, flags);
        was_covered = was_covered || look == LOOK_IS_COVERED;
        if (look == LOOK_IS_COVERED)
            umount2(directory.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
        else if (look == LOOK_IS_WELL || !was_covered || error != 0)
            break;
        error = EBUSY; // what is to be said when this was the last try
    }
    if (error != 0 && error != EINVAL) // nothing is mounted there
        fprintf(stderr, "Cannot protect %s again %s\n", directory.c_str(), strerror(error));
}
