// Finding the main partition by its signature file or its label.
#include "core/main_partition_search.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "base/descriptor.h"
#include "inspect/label_probe.h"
#include "inspect/raid_members.h"
#include "mount/kernel_tables.h"
#include "mount/mount_tables.h"
#include "mount/remounting.h"
#include "registry/block_device.h"
#include "registry/label_links.h"

static const char signature_file[] = ".claimsig";
static const char main_link[] = "/mnt/main";

// Only filesystems that can hold owners, quotas and a swap file.
static const char *const trial_types[] = {"ext4", "ext3",     "ext2", "udf",
                                          "xfs",  "reiserfs", "btrfs"};

enum Claim { CLAIM_BY_LABEL, CLAIM_BY_SIGNATURE };

// A candidate while it is being examined.
struct Trial {
    std::string name;
    std::string device_path;
    std::string directory;
    bool mounted_here = false; // by this search, and to be undone by it
};

// Tries to mount a candidate that nobody has mounted yet.
static bool mount_trial(Trial &trial, unsigned long flags)
{
    const char *directory = trial.directory.c_str();
    mkdir(directory, 0777);
    fprintf(stderr, "For startup search: attempting to mount %s\n", trial.device_path.c_str());
    for (const char *type : trial_types) {
        if (mount(trial.device_path.c_str(), directory, type, flags, nullptr) == 0) {
            trial.mounted_here = true;
            read_kernel_tables();
            fprintf(stderr, "For startup search: successfully mounted %s\n",
                    trial.device_path.c_str());
            return true;
        }
        if (errno != EINVAL && errno != ENOMEDIUM && errno != ENODEV)
            fprintf(stderr, "mount failed for %s, %s\n", directory, strerror(errno));
    }
    return false;
}

static void enter(const Trial &trial)
{
    if (chdir(trial.directory.c_str()) < 0)
        fprintf(stderr, "Cannot chdir to %s\n", trial.directory.c_str());
}

static void leave()
{
    if (chdir("/") < 0)
        fprintf(stderr, "Cannot chdir to /\n");
}

static bool is_regular_file(const char *path)
{
    struct stat status;
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

// The signature in the working directory; "" without one. A link could lead to anywhere, and a FIFO
// or a device would hold the daemon up, so only a regular file is opened, and without waiting.
static std::string read_signature()
{
    if (!is_regular_file(signature_file))
        return std::string();
    Descriptor file(open(signature_file, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    char text[signature_limit];
    const ssize_t got = file.Get() > 0 ? read(file.Get(), text, signature_limit) : 0;
    std::string signature(text, got < 0 ? 0 : static_cast<size_t>(got));
    signature.erase(signature.find_last_not_of('\n') + 1);
    return signature.substr(0, signature.find('\0'));
}

static bool has_signature(const Trial &trial)
{
    enter(trial);
    const std::string signature = read_signature();
    if (!signature.empty())
        fprintf(stderr, "For startup search: %s has sig %s\n", trial.device_path.c_str(),
                signature.c_str());
    leave();
    return signature == settings.main_partition_signature;
}

static void undo(const Trial &trial)
{
    if (!trial.mounted_here)
        return;
    if (umount(trial.directory.c_str()) < 0)
        fprintf(stderr, "Warning: cannot unmount %s\n", trial.directory.c_str());
    read_kernel_tables();
    rmdir(trial.directory.c_str());
    remove_label_link(trial.name);
}

// The mount keeps what protected the machine from the drive when it becomes writable.
static void make_writable(const Trial &trial)
{
    const HeldMount held(trial.device_path, in_mount_table(trial.directory));
    if (held.OnTop() == TOP_IS_ANOTHERS ||
        mount(nullptr, trial.directory.c_str(), nullptr, MS_REMOUNT, nullptr) < 0)
        fprintf(stderr, "Warning: cannot remount %s read/write\n", trial.directory.c_str());
    else
        held.GiveFlagsBack();
}

static void publish(const Trial &trial)
{
    read_kernel_tables();
    if (symlink(trial.name.c_str(), main_link) < 0)
        fprintf(stderr, "Warning: cannot create main symlink\n");
    make_label_link(trial.name);
}

// Examines a device and takes it when it is the one. The boot device never is.
static bool claim(const std::string &name, Claim by)
{
    if (name == boot_drive || name == boot_partition)
        return false;
    Trial trial = {name, "/dev/" + name, "/mnt/" + name};
    ReadProcMounts(); // somebody may have mounted it since the last reading, a second ago
    const unsigned long mode = by == CLAIM_BY_SIGNATURE ? MS_RDONLY : 0;
    if (!FindMount("device", trial.device_path) && !mount_trial(trial, mode | MS_NOSUID | MS_NODEV))
        return false;
    if (by == CLAIM_BY_SIGNATURE) {
        if (!has_signature(trial)) {
            undo(trial);
            return false;
        }
        make_writable(trial);
    } else {
        enter(trial); // a directory that cannot be entered is worth a line, and no more
        leave();
    }
    publish(trial);
    return true;
}

// Asks for a label that is not known yet. Not again where the probe has found none: the search
// comes by twenty times a second.
static void learn_label(BlockDevice &device)
{
    if (device.label.empty() && device.filesystem.empty())
        probe_label(device.device, device.label, &device.filesystem);
}

static bool is_main(const BlockDevice &device)
{
    const std::string &label = settings.main_partition_label;
    if (!label.empty() && label == device.label && claim(device.device, CLAIM_BY_LABEL))
        return true;
    return !settings.main_partition_signature.empty() && claim(device.device, CLAIM_BY_SIGNATURE);
}

// Examines a device unless that was done before. A device is a drive or a partition; each kind has
// a `scanned` of its own.
template <typename Device>
static bool examine(Device &device)
{
    if (device.scanned || is_raid_member(device.device))
        return false;
    if (is_main(device))
        return true;
    device.scanned = 1;
    return false;
}

static bool examine_partitions(const BlockDevice &drive)
{
    for (const auto &[name, flag] : drive.partitions) {
        PartitionDevice *partition = find_partition(name);
        if (!partition)
            continue;
        if (!partition->scanned)
            learn_label(*partition);
        if (examine(*partition)) {
            main_partition = name;
            return true;
        }
    }
    return false;
}

// Whether a drive has partitions and each of them was examined, or never will be. Its own label is
// then of no use to the search, however often hotplug mode forgets it.
static bool is_exhausted(const BlockDevice &drive)
{
    for (const auto &[name, flag] : drive.partitions) {
        const PartitionDevice *partition = find_partition(name);
        if (partition && !partition->scanned && !is_raid_member(name))
            return false;
    }
    return !drive.partitions.empty();
}

bool search_main_partition()
{
    for (auto &[name, drive] : blockdev_list) {
        if (drive->type != "Hard Drive") {
            drive->scanned = 1;
            continue;
        }
        if (!drive->scanned && !is_exhausted(*drive))
            learn_label(*drive);
        bool found = false;
        if (!drive->partitions.empty()) {
            found = examine_partitions(*drive);
        } else if (examine(*drive)) {
            main_partition = name;
            found = true;
        }
        if (found) {
            main_drive = name;
            return true;
        }
    }
    return false;
}
