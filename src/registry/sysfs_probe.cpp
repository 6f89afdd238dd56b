// What sysfs tells about drives and partitions.
#include "registry/sysfs_probe.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

#include "base/daemon_state.h"
#include "base/directory.h"
#include "base/small_files.h"
#include "base/words.h"
#include "inspect/raid_members.h"

static const unsigned long long capacity_unknown = ~0ULL;

static std::string place_of(const std::string &name)
{
    if (name == boot_drive || name == boot_partition)
        return "Boot";
    if (name == main_drive || name == main_partition)
        return "Main";
    return std::string();
}

// Whether name is prefix followed by a character of a kind ("sd" and a letter).
static bool is_prefix_and(const std::string &name, const char *prefix, int (*is_kind)(int))
{
    const size_t length = strlen(prefix);
    return name.size() > length && name.compare(0, length, prefix) == 0 &&
           is_kind(static_cast<unsigned char>(name[length])) != 0;
}

// "nvme", digits, "n", a digit: a namespace. The controller itself ("nvme0") is no drive.
static bool is_nvme_namespace(const std::string &name)
{
    if (!is_prefix_and(name, "nvme", isdigit))
        return false;
    const size_t end = name.find_first_not_of("0123456789", 4);
    return end != std::string::npos && name[end] == 'n' && end + 1 < name.size() &&
           isdigit(static_cast<unsigned char>(name[end + 1])) != 0;
}

// Row of the connection that a drive's name alone tells, or CONNECTION_ROWS for a name of no known
// kind. The first rule that fits wins.
static ConnectionRow connection_by_name(const std::string &name)
{
    if (is_prefix_and(name, "hd", isalpha))
        return CONNECTION_IDE;
    if (is_prefix_and(name, "sd", isalpha))
        return CONNECTION_SCSI;
    if (is_prefix_and(name, "sr", isdigit))
        return CONNECTION_SCSI;
    if (is_prefix_and(name, "md", isdigit))
        return CONNECTION_RAID;
    if (is_prefix_and(name, "mmcblk", isdigit))
        return CONNECTION_MMC;
    if (is_nvme_namespace(name))
        return CONNECTION_NVME;
    if (is_prefix_and(name, "dm-", isdigit))
        return CONNECTION_LVM;
    return CONNECTION_ROWS;
}

static std::string after_last_slash(const std::string &text, const std::string &without_slash)
{
    size_t slash = text.rfind('/');
    return slash == std::string::npos ? without_slash : text.substr(slash + 1);
}

// The link that shows where in the device tree a SCSI-named drive hangs, such as
// "../../devices/pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/scsi_disk/0:0:0:0".
// Kernels differ in which of these links they keep.
static std::string transport_link(const std::string &sysfs_path)
{
    std::string target = read_sysfs_link(sysfs_path + "/device");
    const std::string address = after_last_slash(target, "");
    if (!address.empty())
        target = read_sysfs_link("/sys/class/scsi_disk/" + address);
    if (target.empty())
        target = read_sysfs_link("/sys/class/scsi_device/" + address);
    if (target.empty())
        target = read_sysfs_link("/sys/class/scsi_disk/" + address + "/device");
    if (target.empty())
        target = read_sysfs_link("/sys/class/scsi_device/" + address + "/device");
    return target;
}

// The driver of the PCI device that a path "devices/pci0000:00/0000:00:1f.2/..." goes through. The
// fixed widths are those of a root's name and of a device's address: the controller is taken to
// sit directly below the root bridge.
static std::string pci_driver(const std::string &path, size_t pci_start)
{
    const size_t root_width = 10;
    const size_t address_width = 12;
    size_t end = pci_start + root_width;
    if (end < path.size() && path[end] == '/')
        end++;
    end += address_width;
    const std::string driver = read_sysfs_link("/sys/" + path.substr(0, end) + "/driver");
    return after_last_slash(driver, driver);
}

// USB, Firewire, SATA or plain SCSI: "sd" and "sr" names are used for all of them.
static ConnectionRow connection_by_transport(const std::string &sysfs_path)
{
    std::string path = transport_link(sysfs_path);
    while (path.starts_with("../"))
        path.erase(0, 3);
    const size_t start = path.starts_with("devices/") ? strlen("devices/") : 0;
    // USB first: a Firewire bridge behind USB counts as USB.
    if (path.find("/usb", start) != std::string::npos)
        return CONNECTION_USB;
    if (path.find("/fw-host", start) != std::string::npos)
        return CONNECTION_FIREWIRE;
    if (path.compare(start, 3, "pci") != 0)
        return CONNECTION_SCSI;
    const std::string driver = pci_driver(path, start);
    if (driver.starts_with("sata_") || driver == "ahci")
        return CONNECTION_SATA;
    return CONNECTION_SCSI;
}

// Remembers the entries of an array's "slaves" directory as active members.
static void note_slaves(const std::string &sysfs_path)
{
    Directory slaves(AT_FDCWD, (sysfs_path + "/slaves").c_str());
    while (const char *name = slaves.NextName()) {
        if (name[0] != '.')
            raid_members[name] = true;
    }
}

static std::string ide_type(const std::string &media)
{
    if (media == "disk")
        return "Hard Drive";
    if (media == "cdrom")
        return "CD-ROM";
    return "Unknown";
}

// What a drive calls itself: the kernel hands it on as the device tells it, and the card that has a
// line end in its name must not end a row of a listing.
static std::string read_name(const std::string &path)
{
    return without_controls(read_sysfs_text(path));
}

// Model and serial number, with the blank between them even when one of the two is missing.
static std::string model_and_serial(const std::string &device_path)
{
    const std::string model = read_name(device_path + "/model");
    return model + " " + read_name(device_path + "/serial");
}

void probe_drive(BlockDevice &drive)
{
    drive.capacity = capacity_unknown;
    drive.type.clear();
    drive.model.clear();
    drive.label.clear();
    drive.filesystem.clear();
    drive.sysfs_path = "/sys/block/" + drive.device;
    drive.place = place_of(drive.device);

    ConnectionRow row = connection_by_name(drive.device);
    if (row == CONNECTION_ROWS) {
        drive.set_connection(nullptr);
        return;
    }
    const std::string device_path = drive.sysfs_path + "/device";
    switch (row) {
    case CONNECTION_IDE:
        drive.type = ide_type(read_sysfs_text(device_path + "/media"));
        drive.model = model_and_serial(device_path);
        break;
    case CONNECTION_SCSI:
        drive.type = drive.device.starts_with("sr") ? "CD-ROM" : "Hard Drive";
        drive.model = read_name(device_path + "/model");
        break;
    case CONNECTION_MMC:
        drive.type = "Hard Drive";
        drive.model = read_name(device_path + "/name");
        break;
    case CONNECTION_NVME:
        drive.type = "Hard Drive";
        drive.model = model_and_serial(device_path);
        break;
    case CONNECTION_LVM:
        drive.type = "Logical Volume";
        drive.model = read_name(drive.sysfs_path + "/dm/name");
        break;
    default: // md: it has no model
        drive.type = "Hard Drive";
        break;
    }
    drive.capacity = sectors_to_bytes(read_sysfs_text(drive.sysfs_path + "/size"));
    if (row == CONNECTION_RAID)
        note_slaves(drive.sysfs_path);
    if (row == CONNECTION_SCSI)
        row = connection_by_transport(drive.sysfs_path);
    drive.set_connection(&connection_types[row]);
}

// The number at the end of a partition's name: 1 for "sda1" and for "mmcblk0p1".
static int partition_number(const std::string &name)
{
    const size_t last_other = name.find_last_not_of("0123456789");
    return atoi(name.c_str() + (last_other == std::string::npos ? 0 : last_other + 1));
}

// All but the size, which is read in one of two ways.
static void probe_partition_but_size(PartitionDevice &partition)
{
    partition.filesystem.clear();
    partition.partition_size = -1;
    partition.label.clear();
    partition.model.clear();
    partition.place = place_of(partition.device);
    if (!partition.parent || !partition.parent->partition_table)
        return;
    const std::map<int, std::string> &entries = partition.parent->partition_table->entries;
    auto entry = entries.find(partition_number(partition.device));
    if (entry != entries.end())
        partition.model = entry->second;
}

void probe_partition(PartitionDevice &partition)
{
    probe_partition_but_size(partition);
    if (!partition.parent)
        return;
    const std::string path =
        "/sys/block/" + partition.parent->device + "/" + partition.device + "/size";
    partition.partition_size = static_cast<long long>(sectors_to_bytes(read_sysfs_text(path)));
}

void probe_partition(PartitionDevice &partition, int drive_directory_fd)
{
    probe_partition_but_size(partition);
    const std::string path = partition.device + "/size";
    partition.partition_size = static_cast<long long>(
        sectors_to_bytes(read_sysfs_text_at(drive_directory_fd, path.c_str())));
}

void scan_raid_slaves()
{
    for (const auto &[name, drive] : blockdev_list) {
        if (drive->connection == &connection_types[CONNECTION_RAID])
            note_slaves("/sys/block/" + name);
    }
}
