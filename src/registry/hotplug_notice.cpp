// Hotplug notices: from a device name to records.
#include "registry/hotplug_notice.h"

#include <cstdio>
#include <ctime>

#include "base/daemon_state.h"
#include "inspect/raid_members.h"
#include "registry/block_device.h"
#include "registry/device_list.h"
#include "registry/sysfs_probe.h"

static const time_t rescan_delay = 1; // second: a burst of events is answered by one rescan

static void rescan_soon()
{
    next_full_rescan = time(nullptr) + rescan_delay;
}

// The partition that the event is about, when it may be attached to its drive.
static PartitionDevice *meet_partition(const std::string &name, const std::string &parent,
                                       bool is_added)
{
    fprintf(stderr, "Parent device: %s\n", parent.c_str());
    PartitionDevice *partition = find_partition(name);
    if (!is_added) {
        rescan_soon();
        return nullptr;
    }
    if (partition)
        return partition;
    fprintf(stderr, "Device %s appeared (partition of %s, hotplug)\n", name.c_str(),
            parent.c_str());
    partition = new PartitionDevice(name);
    rescan_soon();
    check_raid_participation(name);
    partdev_list[name] = partition;
    return partition;
}

static BlockDevice *meet_drive(const std::string &name, bool is_added)
{
    // A number alone is nobody's partition, and a drive without a name is none.
    if (!is_added || name.empty()) {
        rescan_soon();
        return nullptr;
    }
    BlockDevice *drive = find_drive(name);
    if (drive)
        return drive;
    fprintf(stderr, "Device %s appeared (hotplug)\n", name.c_str());
    drive = new BlockDevice(name);
    rescan_soon();
    read_partition_table(*drive);
    probe_drive(*drive);
    blockdev_list[name] = drive;
    check_raid_participation(name);
    return drive;
}

void take_hotplug_notice(const std::string &action, const std::string &name)
{
    const std::string parent = parent_of_device(name);
    const bool is_added = action == "add";
    fprintf(stderr, "Notify %s %s%s%s\n", action.c_str(), name.c_str(),
            parent.empty() ? "" : " parent ", parent.c_str());
    // Numbered loop devices do enter the registry this way; the poll would pass them over.
    if (parent == "loop")
        return;
    PartitionDevice *partition = nullptr;
    if (name != parent)
        partition = meet_partition(name, parent, is_added);
    BlockDevice *drive = meet_drive(parent, is_added);
    if (!partition || !drive)
        return;
    fprintf(stderr, "Attach %s to %s\n", partition->device.c_str(), drive->device.c_str());
    partition->set_parent(drive);
    probe_partition(*partition);
}
