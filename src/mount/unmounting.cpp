// Forced unmounting.
#include "mount/unmounting.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/swap.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "base/words.h"
#include "inspect/device_name_set.h"
#include "mount/mount_points.h"
#include "mount/mount_tables.h"
#include "mount/process_eviction.h"
#include "registry/label_links.h"

static bool is_boot_device(const std::string &name)
{
    return name == boot_drive || name == boot_partition;
}

// A swap file on the device would keep it busy for ever.
static void remove_swap_file(const std::string &name)
{
    if (name != main_partition || settings.swap_name.empty())
        return;
    if (swapoff(swap_path.c_str()) < 0 && errno != EINVAL && errno != ENOENT)
        fprintf(stderr, "Unable to remove swapfile %s, %s. this may hamper unmount!\n",
                swap_path.c_str(), strerror(errno));
}

static void unmount_with_patience(const std::string &mountpoint)
{
    if (unmount_at(mountpoint) == 0 || no_force_shutdown)
        return;
    fprintf(stderr, "wait, cannot unmount %s %s\n", mountpoint.c_str(), strerror(errno));
    sleep(2);
    if (unmount_at(mountpoint) < 0)
        fprintf(stderr, "yep. cannot force unmount %s\n", mountpoint.c_str());
}

std::string forced_mountpoint(const std::string &name)
{
    const MountEntry *entry = is_boot_device(name) ? nullptr : FindMount("device", "/dev/" + name);
    const std::string mountpoint = entry ? from_kernel_table(entry->mountpoint) : std::string();
    return mountpoint == "/" ? std::string() : mountpoint;
}

void force_unmount(const std::string &name)
{
    if (is_boot_device(name))
        return;
    device_name_set_remove(name);
    ReadProcMounts();
    const std::string mountpoint = forced_mountpoint(name);
    if (mountpoint.empty())
        return;
    if (!no_force_shutdown) {
        fprintf(stderr, "killing processes using %s on %s\n", name.c_str(), mountpoint.c_str());
        evict_mount_users(name, mountpoint, false);
    }
    remove_swap_file(name);
    unmount_with_patience(mountpoint);
    ReadProcMounts();
    remove_mountpoint(mountpoint);
    remove_label_link(name);
}

void release_vanished_device(const std::string &name)
{
    if (FindMount("device", "/dev/" + name) && !is_boot_device(name))
        force_unmount(name);
}
