// The replies to "list", "list human" and "enumerate".
#include "protocol/drive_listings.h"

#include <cassert>
#include <initializer_list>
#include <string_view>

#include "base/words.h"
#include "inspect/label_probe.h"
#include "inspect/optical_medium.h"
#include "inspect/raid_members.h"
#include "inspect/size_text.h"
#include "mount/process_eviction.h"
#include "registry/block_device.h"

// The groups of "enumerate", in reply order. LVM and NVME have rows in connection_types but are
// left out on purpose: this set and this order are the format that its clients read. "list" shows
// every drive.
static const ConnectionRow enumerate_groups[] = {
    CONNECTION_IDE,  CONNECTION_USB,  CONNECTION_MMC,      CONNECTION_SCSI,
    CONNECTION_SATA, CONNECTION_RAID, CONNECTION_FIREWIRE,
};

static const std::string unassigned = "Unassigned";
static const std::string partition_type = "Partition";

// Column widths of "list human".
enum ColumnWidth {
    WIDTH_DEVICE = 10,
    WIDTH_TYPE = 18,
    WIDTH_CONNECTION = 11,
    WIDTH_LABEL = 20,
    WIDTH_CAPACITY = 11,
    WIDTH_MODEL = 20,
    WIDTH_PLACE = 10,
    WIDTH_FILESYSTEM = 10
};

std::string lpadded(std::string text, int len) // NOLINT(performance-unnecessary-value-param)
{
    assert(len > 0);
    text.resize(static_cast<size_t>(len), ' ');
    return text;
}

// One row of a listing, before it is put into one of its two forms.
struct ListingRow {
    const BlockDevice &device;
    const std::string &type;
    const std::string &connection;
    unsigned long long bytes; // all bits set when unknown
    bool is_partition;
};

static void append_fields(std::string &reply, const char *prefix,
                          std::initializer_list<std::string_view> fields)
{
    reply += prefix;
    const char *separator = "";
    for (std::string_view field : fields) {
        reply += separator;
        reply += field;
        separator = "\t";
    }
    reply += '\n';
}

// A notice may call a device anything that has no slash, a line end too.
static void append_plain_row(std::string &reply, const ListingRow &row)
{
    const BlockDevice &device = row.device;
    append_fields(reply, row.is_partition ? "OK- \t\t" : "OK- \t",
                  {without_controls(device.device), row.type, row.connection, device.label,
                   std::to_string(static_cast<long long>(row.bytes)), device.model, device.place,
                   raid_text(device.device), device.filesystem});
}

static void append_human_row(std::string &reply, const ListingRow &row)
{
    const BlockDevice &device = row.device;
    reply += "OK- ";
    reply += lpadded(without_controls(device.device), WIDTH_DEVICE) + ' ';
    reply += lpadded(row.type, WIDTH_TYPE) + ' ';
    reply += lpadded(row.connection, WIDTH_CONNECTION) + ' ';
    reply += lpadded(device.label, WIDTH_LABEL) + ' ';
    reply += lpadded(capacity_text(row.bytes), WIDTH_CAPACITY) + ' ';
    reply += lpadded(device.model, WIDTH_MODEL) + ' ';
    reply += lpadded(device.place, WIDTH_PLACE) + ' ';
    reply += lpadded(device.filesystem, WIDTH_FILESYSTEM) + '\n';
}

static bool is_empty_optical_drive(const BlockDevice &drive, const std::string &path)
{
    return drive.type == "CD-ROM" && !disc_present(path);
}

// Learns label and filesystem of a drive, if it may be asked, and forgets those of a disc that is
// no longer there.
static void learn_drive(BlockDevice &drive, OpenFileSnapshot &open_files)
{
    const std::string path = "/dev/" + drive.device;
    const bool is_unknown = drive.filesystem.empty() && !open_files.IsInUse(path);
    if (is_empty_optical_drive(drive, path)) {
        drive.label.clear();
        drive.filesystem.clear();
    } else if (is_unknown) {
        probe_label(drive.device, drive.label, &drive.filesystem);
    }
}

void list_drives(std::string &reply, int human)
{
    const auto append_row = human ? append_human_row : append_plain_row;
    OpenFileSnapshot open_files("/dev/");

    // Thousands of rows would have it grow, and be moved, again and again.
    reply.reserve((blockdev_list.size() + partdev_list.size()) * (human ? 128 : 96));
    reply = human ? "OK- v3 user-friendly drive list follows "
                    "(dev,type,connection,label,capacity,model,place,filesystem)\n"
                  : "OK- v3 drive list follows "
                    "(dev,type,connection,label,capacity,model,place,raid,filesystem)\n";
    for (const auto &[name, drive] : blockdev_list) {
        const std::string &connection = drive->connection ? drive->connection->name : unassigned;
        learn_drive(*drive, open_files);
        append_row(reply, {*drive, drive->type, connection, drive->capacity, false});
        for (const auto &[partition_name, flag] : drive->partitions) {
            PartitionDevice *partition = find_partition(partition_name);
            if (!partition)
                continue;
            // No in-use test: a mounted partition has a label too.
            if (partition->filesystem.empty())
                probe_label(partition_name, partition->label, &partition->filesystem);
            append_row(reply, {*partition, partition_type, connection,
                               static_cast<unsigned long long>(partition->partition_size), true});
        }
    }
    reply += "OK  eom";
}

// Unlike "list", this leaves an optical drive that holds a disc unprobed and probes an empty one,
// and it asks by path, which also reaches RAID members. Its clients know its answers.
static void learn_enumerated_drive(BlockDevice &drive, const std::string &path,
                                   OpenFileSnapshot &open_files)
{
    if (!drive.filesystem.empty() || open_files.IsInUse(path))
        return;
    if (drive.type == "CD-ROM" && disc_present(path))
        return;
    probe_label(path, drive.label, &drive.filesystem);
}

static void enumerate_partitions(std::string &reply, const BlockDevice &drive,
                                 OpenFileSnapshot &open_files)
{
    for (const auto &[name, flag] : drive.partitions) {
        PartitionDevice *partition = find_partition(name);
        if (!partition)
            continue;
        const std::string path = "/dev/" + name;
        if (partition->filesystem.empty() && !open_files.IsInUse(path))
            probe_label(path, partition->label, &partition->filesystem);
        append_fields(reply, "OK-\t\t\t",
                      {without_controls(path), without_controls(drive.sysfs_path + "/" + name),
                       partition->model, drive.type, partition->label, drive.connection->name,
                       partition->place});
    }
}

static void enumerate_group(std::string &reply, const ConnectionType *group,
                            OpenFileSnapshot &open_files)
{
    bool has_head = false;
    for (const auto &[name, drive] : blockdev_list) {
        if (drive->connection != group)
            continue;
        if (!has_head)
            append_fields(reply, "OK-\t", {group->name, group->description});
        has_head = true;
        const std::string path = "/dev/" + name;
        learn_enumerated_drive(*drive, path, open_files);
        append_fields(reply, "OK-\t\t",
                      {without_controls(path), without_controls(drive->sysfs_path), drive->model,
                       drive->type, drive->label, group->name, drive->place});
        enumerate_partitions(reply, *drive, open_files);
    }
}

void enumerate_drives(std::string &reply)
{
    OpenFileSnapshot open_files("/dev/");
    reply = "OK- list follows\n";
    for (ConnectionRow row : enumerate_groups)
        enumerate_group(reply, &connection_types[row], open_files);
    reply += "OK  eom";
}
