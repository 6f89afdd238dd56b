// The poll of /sys/block and the life of the records.
#include "registry/device_list.h"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "base/directory.h"
#include "inspect/raid_members.h"
#include "mount/unmounting.h"
#include "registry/sysfs_probe.h"

bool is_followed(const char *name)
{
    return name[0] != '.' && strncmp(name, "loop", 4) != 0 && strncmp(name, "ram", 3) != 0;
}

static void say_appeared(const std::string &name)
{
    fprintf(stderr, "Device %s just appeared (polling)\n", name.c_str());
}

// The record of a drive that the poll has met; made when it is new. A drive that is known already
// is not probed again.
static BlockDevice *meet_drive(const std::string &name)
{
    auto li = blockdev_list.find(name);
    if (li != blockdev_list.end()) {
        li->second->poll_mark = 0;
        return li->second;
    }
    BlockDevice *drive = new BlockDevice(name);
    say_appeared(name);
    read_partition_table(*drive);
    probe_drive(*drive);
    check_raid_participation(name);
    blockdev_list[name] = drive;
    li = blockdev_list.find(name);
    assert(li != blockdev_list.end());
    return li->second;
}

static void meet_partition(const std::string &name, BlockDevice *drive, int drive_directory_fd)
{
    auto pi = partdev_list.find(name);
    if (pi == partdev_list.end()) {
        PartitionDevice *partition = new PartitionDevice(name);
        say_appeared(name);
        check_raid_participation(name);
        partdev_list[name] = partition;
        pi = partdev_list.find(name);
        assert(pi != partdev_list.end());
    }
    pi->second->set_parent(drive);
    pi->second->poll_mark = 0;
    probe_partition(*pi->second, drive_directory_fd);
}

// What a vanished record needs before it can be deleted, whatever its kind. A notice makes records
// by names alone: a drive such as nvme0n1 can have one as a partition too, and a loop device, which
// the poll does not follow, has one until the poll. Such a record goes, but the device itself may
// well be there and in use.
static void retire(BlockDevice *device)
{
    const std::string &name = device->device;
    const BlockDevice *drive = find_drive(name);
    const bool is_drive_still_there = drive && !drive->poll_mark;
    if (!is_drive_still_there)
        forget_raid(name);
    fprintf(stderr, "Device %s just disappeared (polling)\n", name.c_str());
    if (!is_drive_still_there && is_followed(name.c_str()))
        release_vanished_device(name);
}

static void drop(BlockDevice *device)
{
    device->set_connection(nullptr);
    device->release();
    delete device; // whatever its count: the destructor reports a holder
}

// Partitions first, so that a drive has lost its partitions' references when its own turn comes.
// Nothing that is called here adds or erases records, so one walk in name order reaches them all.
static void remove_vanished()
{
    for (auto pi = partdev_list.begin(); pi != partdev_list.end();) {
        PartitionDevice *partition = pi->second;
        if (!partition->poll_mark) {
            ++pi;
            continue;
        }
        retire(partition);
        partition->set_parent(nullptr);
        drop(partition);
        pi = partdev_list.erase(pi);
    }
    for (auto li = blockdev_list.begin(); li != blockdev_list.end();) {
        BlockDevice *drive = li->second;
        if (!drive->poll_mark) {
            ++li;
            continue;
        }
        retire(drive);
        drop(drive);
        li = blockdev_list.erase(li);
    }
}

void UpdateBlockDeviceList()
{
    Directory all_drives(AT_FDCWD, "/sys/block");
    if (!all_drives.IsOpen())
        return;
    for (auto &[name, drive] : blockdev_list)
        drive->poll_mark = 1;
    for (auto &[name, partition] : partdev_list)
        partition->poll_mark = 1;
    bool is_complete = true;
    while (const char *drive_name = all_drives.NextName()) {
        if (!is_followed(drive_name))
            continue;
        BlockDevice *drive = meet_drive(drive_name);
        // One walk of the path for a drive; its partitions are read relative to it.
        Directory drive_directory(all_drives.Fd(), drive_name);
        while (const char *name = drive_directory.NextName()) {
            if (strncmp(name, drive_name, strlen(drive_name)) == 0)
                meet_partition(name, drive, drive_directory.Fd());
        }
        is_complete = is_complete && !drive_directory.HasFailed();
    }
    // A list that broke off proves nothing about the devices that it did not name.
    if (is_complete && !all_drives.HasFailed())
        remove_vanished();
}

void refresh_drives()
{
    for (auto &[name, is_active] : raid_members)
        is_active = false;
    for (auto &[name, drive] : blockdev_list) {
        const unsigned long long old_capacity = drive->capacity;
        probe_drive(*drive);
        if (old_capacity == 0 && drive->capacity != 0)
            drive->scanned = 0; // a medium was put in: it may hold the main partition
    }
    scan_raid_slaves();
}

void read_partition_table(BlockDevice &drive)
{
    delete drive.partition_table;
    drive.partition_table = new PartitionTable("/dev/" + drive.device);
    drive.partition_table->Read();
    for (const auto &[number, description] : drive.partition_table->entries) {
        // Names with a separator, such as mmcblk0p1, are not met here; their partitions get the
        // description when they are probed.
        PartitionDevice *partition = find_partition(drive.device + std::to_string(number));
        if (partition)
            partition->model = description;
    }
}

// Gives up the registry's hold on a record and deletes it, unless somebody else holds it too.
static void let_go(BlockDevice *device)
{
    device->set_connection(nullptr);
    const int holders = device->release();
    if (holders != 0)
        fprintf(stderr, "BUG: FreeBlockDeviceList() device %s still has outstanding refcount %d\n",
                device->device.c_str(), holders);
    else
        delete device;
}

void FreeBlockDeviceList()
{
    while (!partdev_list.empty()) {
        auto first = partdev_list.begin();
        first->second->set_parent(nullptr);
        let_go(first->second);
        partdev_list.erase(first);
    }
    while (!blockdev_list.empty()) {
        auto first = blockdev_list.begin();
        let_go(first->second);
        blockdev_list.erase(first);
    }
}
