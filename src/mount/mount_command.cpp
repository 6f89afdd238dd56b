// From the client's words to the mount: guards, remounting, unmounting, mounting.
#include "mount/mount_command.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "base/descriptor.h"
#include "base/words.h"
#include "inspect/label_probe.h"
#include "inspect/md_superblock.h"
#include "inspect/optical_medium.h"
#include "inspect/raid_members.h"
#include "mount/mount_points.h"
#include "mount/mount_tables.h"
#include "mount/mounting.h"
#include "mount/process_eviction.h"
#include "mount/quotas_and_acls.h"
#include "mount/remounting.h"
#include "notify/notification_scripts.h"
#include "registry/block_device.h"
#include "registry/label_links.h"
#include "swap/swap_file.h"

// What a client's words amount to.
struct MountRequest {
    const std::string &how;
    std::string name; // of the device, without "/dev/"
    uid_t uid = 0;
    bool ro = false;
    bool rw = false;
    bool off = false;
    bool rude = false;
};

// Whether the command's last step, swap for a main partition that was asked for read-write, is due.
enum Ending { ENDS_HERE, ENDS_WITH_SWAP };

// Whether this device has the label, which is asked of the device itself when it is not known yet.
static bool has_label(const std::string &name, BlockDevice &device, const std::string &label)
{
    const std::string path = "/dev/" + name;
    if (device.filesystem.empty())
        probe_label(path, device.label, &device.filesystem);
    fprintf(stderr, "%s -> %s\n", path.c_str(), device.label.c_str());
    return device.label == label;
}

const char *find_device_by_label(const std::string &label)
{
    fprintf(stderr, "Scanning devices to locate drive labelled '%s'\n", label.c_str());
    for (const auto &[name, partition] : partdev_list) {
        if (has_label(name, *partition, label))
            return name.c_str();
    }
    for (const auto &[name, drive] : blockdev_list) {
        if (has_label(name, *drive, label))
            return name.c_str();
    }
    fprintf(stderr, "Label not found\n");
    return nullptr;
}

// Puts the device's name in place of the client's word for it.
static bool find_device_word(std::string &device, std::string &reply)
{
    if (device.starts_with('^')) {
        const char *name = find_device_by_label(device.substr(1));
        if (!name) {
            reply = "ERR Label not found";
            return false;
        }
        fprintf(stderr, "Label found on /dev/%s\n", name);
        device = name;
    }
    device = strip_dev(device);
    if (!device_exists(device.c_str())) {
        reply = "ERR device does not exist or is not maintained by this service";
        return false;
    }
    return true;
}

static bool read_mode(MountRequest &request)
{
    request.ro = request.how == "ro" || request.how == "rudero";
    request.rw = request.how == "rw";
    request.off = request.how == "off" || request.how == "rudeoff";
    request.rude = request.how.starts_with("rude");
    return request.ro || request.rw || request.off;
}

// The device is named and the mode read; may this client do that to this device?
static bool is_allowed(MountRequest &request, std::string &reply)
{
    const std::string &name = request.name;
    const bool is_boot = name == boot_drive || name == boot_partition;
    const bool is_main = name == main_drive || name == main_partition;
    if (request.uid != 0 && (is_boot || is_main)) {
        reply = "ERR authorization required";
        return false;
    }
    // A boot device that is mounted read-only stays mounted, whatever root asks for.
    if (request.uid == 0 && is_boot && !request.ro && !request.rw)
        request.ro = true;
    return true;
}

// The guards that stand before any look at the mount table.
static bool pass_guards(MountRequest &request, std::string &reply)
{
    const std::string &name = request.name;
    if (request.uid == static_cast<uid_t>(-1)) {
        reply = "ERR authorization required";
        return false;
    }
    if (request.uid == static_cast<uid_t>(schedule_uid)) {
        reply = "ERR schedule items are not allowed to manipulate mount points";
        return false;
    }
    if (!read_mode(request)) {
        reply = "ERR unknown mount mode";
        return false;
    }
    if (name == main_drive && !main_partition.empty()) {
        reply = "ERR please operate on main partition, not the surrounding main drive";
        return false;
    }
    if (name == boot_drive && !boot_partition.empty()) {
        reply = "ERR please operate on boot partition, not the surrounding boot drive";
        return false;
    }
    // Before the rights are looked at: a request that is refused has switched swap off all the
    // same.
    if (name == main_partition && !request.rw)
        SwapOff();
    return is_allowed(request, reply);
}

// Has a removable drive write out what it holds. The bare name is relative to the working
// directory, on purpose: only where the device nodes are at hand is there anything to flush.
static void flush_drive(const std::string &name)
{
    const BlockDevice *drive = find_drive(name);
    if (!drive || drive->type == "Hard Drive")
        return;
    fprintf(stderr, "Flushing %s before letting go\n", name.c_str());
    Descriptor device(open(name.c_str(), O_RDWR | O_EXCL | O_NONBLOCK | O_CLOEXEC));
    if (!device.IsOpen())
        return;
    fprintf(stderr, "Flushing device %s\n", name.c_str());
    for (int round = 0; round < 2; round++) {
        fsync(device.Get());
        if (ioctl(device.Get(), BLKFLSBUF, 0) < 0)
            fprintf(stderr, "BLKFLSBUF failed %s\n", strerror(errno));
    }
}

static bool is_optical(const BlockDevice *drive)
{
    return drive && drive->type == "CD-ROM";
}

// Makes a mount read-only or read-write.
static void remount(const MountRequest &request, const MountEntry &entry, bool read_only,
                    std::string &reply)
{
    const HeldMount held(entry.device, entry.mountpoint);
    const unsigned long mode = read_only ? MS_RDONLY : 0;
    int error = 0;
    if (held.OnTop() != TOP_IS_OWN)
        error = EBUSY;
    else if (mount("", held.Name().c_str(), "", MS_REMOUNT | mode, nullptr) < 0)
        error = errno;
    if (error != 0) {
        fprintf(stderr, "Cannot remount %s %s\n", request.name.c_str(), strerror(error));
        reply = "ERR cannot remount";
        return;
    }
    held.GiveFlagsBack();
    reply = read_only ? "OK remounted as r/o" : "OK remounted as r/w";
}

// Unmounts, with a second attempt after two seconds.
static bool unmount_twice(const std::string &mountpoint)
{
    if (unmount_at(mountpoint) == 0)
        return true;
    fprintf(stderr, "wait: umount failed. %s\n", strerror(errno));
    sleep(2);
    if (unmount_at(mountpoint) == 0)
        return true;
    fprintf(stderr, "yup, cannot unmount %s\n", strerror(errno));
    return false;
}

// Whether the kernel has let go of a device that was unmounted.
static bool is_gone_from_table(const std::string &name)
{
    const std::string path = "/dev/" + name;
    ReadProcMounts();
    if (!FindMount("device", path))
        return true;
    fprintf(stderr, "For unmounting %s it's still there in procfs?\n", name.c_str());
    sleep(1);
    // The table is not read again, on purpose: a device that was listed a moment after its
    // unmounting is mounted a second time, and that is no success.
    if (!FindMount("device", path))
        return true;
    fprintf(stderr, "%sstill there?!?!?\n", name.c_str());
    return false;
}

static void unmount(const MountRequest &request, const MountEntry &entry, std::string &reply)
{
    const std::string mountpoint = from_kernel_table(entry.mountpoint);
    const std::string device_path = entry.device;
    notify_unmounted(device_path);
    if (request.rude)
        evict_mount_users(request.name, mountpoint, false);
    bool is_done = unmount_twice(mountpoint);
    if (is_done) {
        remove_mountpoint(mountpoint);
        is_done = is_gone_from_table(request.name);
        remove_label_link(device_path);
    }
    reply = is_done ? "OK unmount succeeded" : "ERR unmount failed";
}

// For a device that is mounted.
static Ending change_mount(const MountRequest &request, const MountEntry &entry, std::string &reply)
{
    const bool has_rw = has_option(entry, "rw");
    const bool has_ro = has_option(entry, "ro");
    if (request.off || request.ro)
        flush_drive(request.name);
    if (has_rw && request.rw) {
        reply = "OK already mounted read/write";
    } else if (has_ro && request.ro) {
        reply = "OK already mounted read/only";
    } else if (request.off) {
        unmount(request, entry, reply);
    } else if (request.rw && !has_rw) {
        if (is_optical(find_drive(request.name))) {
            reply = "OK but CD-ROM drives are readonly";
            return ENDS_HERE;
        }
        notify_remount(request.name, "rw");
        remount(request, entry, false, reply);
    } else if (request.ro && has_rw) {
        notify_remount(request.name, "ro");
        if (request.rude)
            evict_mount_users(request.name, from_kernel_table(entry.mountpoint), true);
        remount(request, entry, true, reply);
    }
    return ENDS_WITH_SWAP;
}

// The guards of a device that is to be mounted. An optical drive is never asked for writing.
static bool pass_mount_guards(MountRequest &request, const BlockDevice *drive,
                              const PartitionDevice *partition, std::string &reply)
{
    const std::string path = "/dev/" + request.name;
    if (raid_members.contains(request.name)) {
        reply = "ERR device is part of a RAID array";
        return false;
    }
    if (!drive && !partition) {
        reply = "ERR failed to lookup device";
        return false;
    }
    if (is_optical(drive)) {
        if (request.rw) {
            request.rw = false;
            request.ro = true;
        }
        if (!disc_present(path)) {
            reply = "ERR CD-ROM drive without media";
            return false;
        }
    }
    Descriptor device(open(path.c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC));
    if (!device.IsOpen()) {
        reply = "ERR I can't open the device, much less mount it";
        return false;
    }
    if (ProbeMdSuperblock(device.Get())) {
        reply = "ERR device appears to be RAID array participant";
        return false;
    }
    return true;
}

// What the client is told of a mount that succeeded.
static std::string reply_to_success(const MountRequest &request, const std::string &candidate,
                                    bool has_rw)
{
    if (request.rw && !has_rw) {
        if (candidate == "ntfs")
            return "OK- mount succeded\nOK warning: You're asking the NTFS driver to mount "
                   "read-write which is not supported, and of course it ignored you";
        fprintf(stderr,
                "Warning: client asked to mount %s %s, but driver mounted read-only.\n"
                "perhaps the driver senses a problem?\n",
                request.name.c_str(), request.how.c_str());
        return "OK- mount succeded\nOK warning: Despite your request, the drive is mounted read "
               "only. There may be a problem with the disk";
    }
    if (request.ro && has_rw)
        return "OK- mount succeeded\nOK warning: for some bizarre reason your mount r/o request "
               "has been granted as r/w";
    return "OK mount succeeded\n"; // with a line end of its own: an empty line follows it
}

// What belongs to a mount once it is there.
static void finish_mount(const std::string &device_path, const std::string &mountpoint)
{
    const std::string name = device_path.substr(5);
    enable_quotas(name, mountpoint);
    enable_acls(name, mountpoint);
    make_label_link(device_path);
    notify_mounted(device_path);
}

// Mounts a device that has passed its guards.
static void mount_device(const MountRequest &request, const std::string &known_filesystem,
                         std::string &reply)
{
    const std::string path = "/dev/" + request.name;
    const std::string mountpoint = "/mnt/" + request.name;
    struct stat status;
    mkdir(mountpoint.c_str(), 0777);
    if (stat(mountpoint.c_str(), &status) < 0) {
        reply = "ERR unable to create mountpoint";
        return;
    }
    std::string candidate;
    if (!try_drivers(request.name, mountpoint, known_filesystem, request.ro, request.rw,
                     candidate) ||
        !wait_for_mount(request.name, candidate)) {
        reply = "ERR mount failed";
        return;
    }
    const MountEntry *pe = FindMount("device", path);
    if (!pe) {
        reply = "ERR mount succeeded but procfs doesn't show it";
        return;
    }
    const bool has_rw = has_option(*pe, "rw");
    reply = reply_to_success(request, candidate, has_rw);
    if (candidate == "ntfs" && has_rw)
        fprintf(stderr,
                "Whoah! Your Linux kernel NTFS driver supports writing! This is dangerous!\n");
    assert(pe->device.length() > 5);
    finish_mount(pe->device, mountpoint);
}

// For a device that is not mounted.
static Ending mount_new(MountRequest &request, std::string &reply)
{
    BlockDevice *drive = find_drive(request.name);
    PartitionDevice *partition = find_partition(request.name);
    if (!pass_mount_guards(request, drive, partition, reply))
        return ENDS_HERE;
    BlockDevice *device = partition ? partition : drive;
    if (device->filesystem.empty())
        probe_label("/dev/" + request.name, device->label, &device->filesystem);
    if (!notify_about_to_mount(request.name)) {
        reply = "ERR mounting was vetoed by notification script";
        return ENDS_HERE;
    }
    mount_device(request, device->filesystem, reply);
    return ENDS_WITH_SWAP;
}

static Ending act_on_device(MountRequest &request, std::string &reply)
{
    ReadProcMounts();
    const MountEntry *entry = FindMount("device", "/dev/" + request.name);
    if (entry)
        return change_mount(request, *entry, reply);
    if (request.ro || request.rw)
        return mount_new(request, reply);
    reply = "OK its not mounted anyway";
    return ENDS_WITH_SWAP;
}

void run_mount_command(uid_t uid, const std::string &how, std::string &device, std::string &reply)
{
    if (!find_device_word(device, reply))
        return;
    MountRequest request{how, device, uid};
    if (!pass_guards(request, reply))
        return;
    if (act_on_device(request, reply) == ENDS_WITH_SWAP) {
        if (request.rw && request.name == main_partition)
            SwapOn();
        assert(!reply.empty());
    }
}
