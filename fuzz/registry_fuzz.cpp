// /sys/block with drives and partitions of any name, attributes and links; polls, notices and
// refreshes in any order.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "base/daemon_state.h"
#include "harness.h"
#include "inspect/raid_members.h"
#include "machine_in_memory.h"
#include "mount/kernel_tables.h"
#include "mount/mount_tables.h"
#include "record_promises.h"
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

static void check_all()
{
    check_records();
    PROMISE(said().find("BUG: ") == std::string::npos);
}

// An attribute as it is shown: its first 1023 characters without the line ends behind them.
static std::string attribute(MemoryMachine &machine, const std::string &path)
{
    const MemoryMachine::Node *node = machine.Find(path);
    if (!node || node->kind != MemoryMachine::FILE_NODE)
        return "";
    const std::string text = node->content.substr(0, 1023);
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

static unsigned long long bytes_by_hand(MemoryMachine &machine, const std::string &folder)
{
    return strtoull(attribute(machine, folder + "/size").c_str(), nullptr, 0) * 512;
}

// Where drives of a kind, which is their name's beginning and what comes next, tell their model.
static const struct {
    const char *beginning;
    int (*is_next)(int);
    const char *model;
    const char *serial;
} kinds[] = {
    {"hd", isalpha, "device/model", "device/serial"},
    {"sd", isalpha, "device/model", nullptr},
    {"sr", isdigit, "device/model", nullptr},
    {"md", isdigit, nullptr, nullptr},
    {"mmcblk", isdigit, "device/name", nullptr},
    {"nvme", isdigit, "device/model", "device/serial"},
    {"dm-", isdigit, "dm/name", nullptr},
};

static bool is_nvme_controller(const std::string &name)
{
    size_t end = strlen("nvme");
    while (end < name.size() && isdigit(static_cast<unsigned char>(name[end])))
        end++;
    return name.size() < end + 2 || name[end] != 'n' ||
           !isdigit(static_cast<unsigned char>(name[end + 1]));
}

// A drive that was just probed is what its files say.
static void check_probed_drive(MemoryMachine &machine, const BlockDevice &drive)
{
    const std::string folder = "/sys/block/" + drive.device + "/";
    PROMISE(drive.sysfs_path + "/" == folder);
    for (const auto &kind : kinds) {
        const size_t length = strlen(kind.beginning);
        if (!drive.device.starts_with(kind.beginning) || drive.device.size() <= length ||
            !kind.is_next(static_cast<unsigned char>(drive.device[length])))
            continue;
        if (drive.device.starts_with("nvme") && is_nvme_controller(drive.device))
            break;
        std::string model = kind.model ? attribute(machine, folder + kind.model) : "";
        if (kind.serial)
            model += " " + attribute(machine, folder + kind.serial);
        PROMISE(drive.model == in_one_column(model) && drive.connection);
        PROMISE(drive.capacity == bytes_by_hand(machine, "/sys/block/" + drive.device));
        return;
    }
    PROMISE(drive.capacity == ~0ULL && drive.model.empty() && !drive.connection);
}

static void check_partition_size(MemoryMachine &machine, const PartitionDevice &partition)
{
    const std::string folder = "/sys/block/" + partition.parent->device + "/" + partition.device;
    PROMISE(static_cast<unsigned long long>(partition.partition_size) ==
            bytes_by_hand(machine, folder));
}

static bool is_listed(MemoryMachine &machine, const std::string &drive)
{
    return machine.Find("/sys/block/" + drive) && drive[0] != '.' && !drive.starts_with("loop") &&
           !drive.starts_with("ram");
}

// After a poll the registry is what /sys/block says, and a second one finds nothing new.
static void poll(MemoryMachine &machine)
{
    std::set<std::string> known;
    for (const auto &[name, drive] : blockdev_list)
        known.insert(name);
    UpdateBlockDeviceList();
    check_all();
    for (const auto &[name, drive] : blockdev_list) {
        PROMISE(drive->poll_mark == 0 && is_listed(machine, name));
        if (!known.contains(name))
            check_probed_drive(machine, *drive);
    }
    for (const auto &[name, partition] : partdev_list) {
        PROMISE(partition->poll_mark == 0 && partition->parent &&
                machine.Find("/sys/block/" + partition->parent->device + "/" + name));
        check_partition_size(machine, *partition);
    }
    const std::string said_before = said();
    const size_t drives = blockdev_list.size();
    UpdateBlockDeviceList();
    PROMISE(said() == said_before && blockdev_list.size() == drives);
}

// The drive that a notice is about: the name without its number, but for kinds that have a number
// in the drives' own names.
static std::string drive_by_hand(const std::string &name)
{
    size_t end = name.size();
    while (end > 0 && isdigit(static_cast<unsigned char>(name[end - 1])))
        end--;
    const std::string drive = name.substr(0, end);
    const std::set<std::string> numbered = {"sr", "loop", "md", "mmcblk", "ram"};
    if (numbered.contains(drive))
        return name;
    const bool is_card = drive.starts_with("mmcblk") && drive.size() > 7 && drive[7] == 'p' &&
                         isdigit(static_cast<unsigned char>(drive[6]));
    return is_card ? drive.substr(0, drive.size() - 1) : drive;
}

// A notice of something new makes its records at once; each that changes anything is followed by a
// look at everything.
static void check_notice(MemoryMachine &machine, const std::string &action, const std::string &name)
{
    const std::string drive = drive_by_hand(name);
    const bool is_added = action == "add" && drive != "loop";
    const bool is_new_drive = is_added && !drive.empty() && !find_drive(drive);
    const bool is_new_partition = is_added && name != drive && !find_partition(name);
    const size_t drives = blockdev_list.size() + (is_new_drive ? 1 : 0);
    const size_t partitions = partdev_list.size() + (is_new_partition ? 1 : 0);
    next_full_rescan = 0;
    take_hotplug_notice(action, name);
    PROMISE(blockdev_list.size() == drives && partdev_list.size() == partitions);
    const bool is_due = is_new_drive || is_new_partition || drive.empty() || action != "add";
    PROMISE(next_full_rescan == (is_due && drive != "loop" ? machine.now + 1 : 0));
    if (is_new_drive)
        check_probed_drive(machine, *find_drive(drive));
    if (!is_added || drive.empty() || name == drive)
        return;
    PROMISE(find_partition(name)->parent == find_drive(drive));
    check_partition_size(machine, *find_partition(name));
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
            check_notice(machine, input.Byte() & 1 ? "remove" : "add", name);
            break;
        }
        case 6:
            refresh_drives();
            for (const auto &[name, drive] : blockdev_list)
                check_probed_drive(machine, *drive);
            break;
        default:
            machine.Remove("/sys/block/" +
                           file_name(drive_prefixes[input.Byte() & 7] + input.Text()));
        }
        check_all();
    }
    poll(machine);
    const bool was_there = find_device("sdb1");

    // Everything is pulled out: nothing is left, and what was mounted is not, but for the root.
    machine.Remove("/sys/block");
    machine.Write("/sys/block/.", "");
    machine.Remove("/sys/block/.");
    UpdateBlockDeviceList();
    check_all();
    PROMISE(blockdev_list.empty() && partdev_list.empty());
    ReadProcMounts();
    PROMISE(FindMount("device", "/dev/sda1"));
    PROMISE(!was_there || !FindMount("device", "/dev/sdb1"));
}
