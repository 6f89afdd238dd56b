// The candidates for a mount, tried in their order.
#include "mount/mounting.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <sys/mount.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "base/words.h"
#include "mount/filesystem_drivers.h"
#include "mount/mount_tables.h"
#include "mount/remounting.h"

static const int looks_at_the_table = 11;

static const char *const candidates[] = {
    "ext4",    "ext3", "ext2",     "udf",          "xfs",  "hfsplus",  "hfs",
    "iso9660", "vfat", "*ntfs-3g", "*mount.exfat", "ntfs", "reiserfs", "btrfs",
};

std::span<const char *const> mount_candidates()
{
    return candidates;
}

// What the label probe calls a filesystem, and the candidates that can mount it. A filesystem that
// is not here may be anything.
static const struct {
    const char *filesystem;
    const char *kept[3];
} known_filesystems[] = {
    {"exfat", {"*mount.exfat"}},
    {"ext2", {"ext4", "ext3", "ext2"}},
    {"ext3", {"ext4", "ext3", "ext2"}},
    {"ext4", {"ext4", "ext3", "ext2"}},
    {"fat", {"vfat"}},
    {"iso9660", {"iso9660"}},
    {"ntfs", {"*ntfs-3g", "ntfs"}},
    {"udf", {"udf"}},
    {"hfs", {"hfs"}},
    {"hfs+", {"hfsplus"}},
    {"btrfs", {"btrfs"}},
    {"xfs", {"xfs"}},
};

static bool is_kept(const char *candidate, const std::string &known_filesystem)
{
    for (const auto &row : known_filesystems) {
        if (strcasecmp(row.filesystem, known_filesystem.c_str()) == 0)
            return std::any_of(std::begin(row.kept), std::end(row.kept), [&](const char *kept) {
                return kept && strcmp(kept, candidate) == 0;
            });
    }
    return true;
}

enum Attempt { ATTEMPT_MOUNTED, ATTEMPT_FAILED, ATTEMPT_WITHOUT_MEDIUM };

static Attempt try_kernel_driver(const std::string &name, const std::string &mountpoint,
                                 const char *type, const std::string &known_filesystem,
                                 bool read_only)
{
    if (!HaveFilesystem(type, 0))
        load_fs_module(type);
    if (!HaveFilesystem(type, 0))
        return ATTEMPT_FAILED;
    const std::string device_path = "/dev/" + name;
    fprintf(stderr, "Trying kernel driver %s -> %s (known fs '%s')\n", device_path.c_str(), type,
            known_filesystem.c_str());
    const unsigned long mode = read_only ? MS_RDONLY : 0;
    if (mount(device_path.c_str(), mountpoint.c_str(), type, MS_NOSUID | MS_NODEV | mode,
              nullptr) == 0)
        return ATTEMPT_MOUNTED;
    if (errno == EINVAL) // not its filesystem
        return ATTEMPT_FAILED;
    const int error = errno;
    fprintf(stderr, "Asked to mount %s at %s, as %s failed: %s\n", name.c_str(), mountpoint.c_str(),
            type, strerror(error));
    return error == ENOMEDIUM ? ATTEMPT_WITHOUT_MEDIUM : ATTEMPT_FAILED;
}

static Attempt try_fuse_driver(const std::string &name, const std::string &mountpoint,
                               const char *candidate, bool read_only, bool read_write)
{
    // The kernel's own driver reads ntfs well enough.
    if (strcmp(candidate, "*ntfs-3g") == 0 && !read_write)
        return ATTEMPT_FAILED;
    fprintf(stderr, "Trying FUSE driver %s\n", candidate);
    return mount_fuse("/dev/" + name, mountpoint, candidate, read_only) < 0 ? ATTEMPT_FAILED
                                                                            : ATTEMPT_MOUNTED;
}

bool try_drivers(const std::string &name, const std::string &mountpoint,
                 const std::string &known_filesystem, bool read_only, bool read_write,
                 std::string &candidate)
{
    for (const char *one : candidates) {
        if (!is_kept(one, known_filesystem))
            continue;
        const Attempt attempt =
            one[0] == '*' ? try_fuse_driver(name, mountpoint, one, read_only, read_write)
                          : try_kernel_driver(name, mountpoint, one, known_filesystem, read_only);
        if (attempt == ATTEMPT_MOUNTED) {
            candidate = one;
            return true;
        }
        if (attempt == ATTEMPT_WITHOUT_MEDIUM)
            return false;
    }
    return false;
}

static bool look_for_mount(const std::string &device_path)
{
    for (int look = 0; look < looks_at_the_table; look++) {
        ReadProcMounts();
        if (FindMount("device", device_path) || terminate_requested)
            return true;
        sleep(1);
    }
    return false;
}

// A driver program that root runs may mount without nosuid and nodev, and show the device nodes of
// the drive. What else it has decided, read-only or read-write too, is left to it.
static void protect_mount(const std::string &device_path)
{
    const MountEntry *entry = FindMount("device", device_path);
    if (entry)
        protect_fresh_mount(device_path, entry->mountpoint);
}

bool wait_for_mount(const std::string &name, const std::string &candidate)
{
    const std::string device_path = "/dev/" + name;
    const bool found = look_for_mount(device_path);
    if (candidate.starts_with('*'))
        protect_mount(device_path);
    ReadProcMounts();
    return found;
}
