// /sys/block with drives and partitions of any name, attributes and links; polls, notices and
// refreshes in any order.
#include <algorithm>
#include <cerrno>

#include "base/daemon_state.h"
#include "harness.h"
#include "inspect/raid_members.h"
#include "machine_in_memory.h"
#include "mount/kernel_tables.h"
#include "mount/mount_tables.h"
#include "registry/block_device.h"
#include "registry/device_list.h"
#include "registry/hotplug_notice.h"
#include "registry/sysfs_probe.h"

static const char *const drive_prefixes[] = {"sd", "hd", "sr", "md", "mmcblk", "nvme0n", "dm-", ""};

static const char *const attributes[] = {"size",          "device/model", "device/serial",
                                         "device/media",  "device/name",  "dm/name",
                                         "device/vendor", "device"};

// A name that sysfs can have.
static std::string file_name(std::string text)
{
    std::replace(text.begin(), text.end(), '/', '!');
    return text == "." || text == ".." ? "x" : text.substr(0, 200);
}

static void add_drive(MemoryMachine &machine, Input &input)
{
    const unsigned how = input.Byte();
    const std::string name = file_name(drive_prefixes[how & 7] + input.Text());
    const std::string folder = "/sys/block/" + name;
    if (name.empty())
        return;
    machine.Write(folder + "/size", input.Text());
    machine.Device("/dev/" + name, 8192).error = how & 8 ? ENOMEDIUM : 0;
    const std::string value = input.Text();
    machine.Remove(folder + "/device");
    if (how & 16)
        machine.Link(folder + "/device", value);
    else
        machine.Write(folder + "/" + attributes[how >> 5], value);
    if (how & 32) {
        const std::string slave = file_name(input.Text());
        machine.Write(folder + "/slaves/" + (slave.empty() ? "sdz" : slave), "");
    }
}

// A file below a drive; most names of that kind are partitions.
static void add_partition(MemoryMachine &machine, Input &input)
{
    const std::string drive = file_name(drive_prefixes[input.Byte() & 7] + input.Text());
    const std::string name = file_name(drive + input.Text());
    if (machine.Find("/sys/block/" + drive) && name != drive)
        machine.Write("/sys/block/" + drive + "/" + name + "/size", input.Text());
}

// What holds between any two steps.
static void check_records()
{
    std::map<const BlockDevice *, int> holders;
    for (const auto &[name, partition] : partdev_list) {
        PROMISE(partition->device == name && partition->refcount == 1);
        const BlockDevice *drive = partition->parent;
        if (!drive)
            continue;
        PROMISE(find_drive(drive->device) == drive && drive->partitions.contains(name));
        holders[drive]++;
    }
    for (const auto &[name, drive] : blockdev_list) {
        PROMISE(drive->device == name && drive->refcount == 1 + holders[drive]);
        PROMISE(static_cast<int>(drive->partitions.size()) == holders[drive]);
        for (const auto &[partition, flag] : drive->partitions)
            PROMISE(find_partition(partition) && find_partition(partition)->parent == drive);
        PROMISE(!drive->connection || (drive->connection >= connection_types &&
                                       drive->connection < connection_types + CONNECTION_ROWS));
        PROMISE(drive->connection || drive->capacity == ~0ULL);
    }
    PROMISE(said().find("BUG") == std::string::npos);
}

static bool is_listed(MemoryMachine &machine, const std::string &drive)
{
    return machine.Find("/sys/block/" + drive) && drive[0] != '.' && !drive.starts_with("loop") &&
           !drive.starts_with("ram");
}

// After a poll the registry is what /sys/block says, and a second one finds nothing new.
static void poll(MemoryMachine &machine)
{
    UpdateBlockDeviceList();
    check_records();
    for (const auto &[name, drive] : blockdev_list)
        PROMISE(drive->poll_mark == 0 && is_listed(machine, name));
    for (const auto &[name, partition] : partdev_list)
        PROMISE(partition->poll_mark == 0 && partition->parent &&
                machine.Find("/sys/block/" + partition->parent->device + "/" + name));
    const std::string said_before = said();
    const size_t drives = blockdev_list.size();
    UpdateBlockDeviceList();
    PROMISE(said() == said_before && blockdev_list.size() == drives);
}

void examine(Input &input)
{
    MemoryMachine machine;
    machine.Write("/sys/block/.", "");
    machine.Remove("/sys/block/.");
    machine.Link("/sys/class/scsi_disk/0:0:0:0", "../../devices/pci0000:00/0000:00:1f.2/ata1");
    machine.Link("/sys/pci0000:00/0000:00:1f.2/driver", input.Text());
    boot_drive = "sda";
    boot_partition = "sda1";
    machine.Mounted("/dev/sda1", "/", "ext4", "rw");
    machine.Mounted("/dev/sdb1", "/mnt/sdb1", "vfat", "rw");
    read_kernel_tables();
    for (int steps = 0; !input.IsEmpty() && steps < 24; steps++) {
        switch (input.Byte() & 7) {
        case 0:
        case 1:
            add_drive(machine, input);
            break;
        case 2:
        case 3:
            add_partition(machine, input);
            break;
        case 4:
            poll(machine);
            break;
        case 5: {
            const std::string name = file_name(drive_prefixes[input.Byte() & 7] + input.Text());
            take_hotplug_notice(input.Byte() & 1 ? "remove" : "add", name);
            break;
        }
        case 6:
            refresh_drives();
            break;
        default:
            machine.Remove("/sys/block/" +
                           file_name(drive_prefixes[input.Byte() & 7] + input.Text()));
        }
        check_records();
    }
    poll(machine);
    const bool was_there = find_device("sdb1");

    // Everything is pulled out: nothing is left, and what was mounted is not, but for the root.
    machine.Remove("/sys/block");
    machine.Write("/sys/block/.", "");
    machine.Remove("/sys/block/.");
    UpdateBlockDeviceList();
    PROMISE(blockdev_list.empty() && partdev_list.empty());
    ReadProcMounts();
    PROMISE(FindMount("device", "/dev/sda1"));
    PROMISE(!was_there || !FindMount("device", "/dev/sdb1"));
    PROMISE(said().find("BUG") == std::string::npos);
}
