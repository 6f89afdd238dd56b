// The rows of all listings, of drives and partitions whose names, labels, models and sizes are
// anything: each comes apart again into the fields that went into it. The texts come the ways that
// they have in life, for it is there that they are made fit for a row: models through sysfs or a
// partition map, labels and filesystems through the label probe's output.
#include <algorithm>

#include "base/words.h"
#include "harness.h"
#include "inspect/label_probe.h"
#include "inspect/raid_members.h"
#include "inspect/size_text.h"
#include "machine_in_memory.h"
#include "protocol/drive_listings.h"
#include "registry/block_device.h"
#include "registry/device_list.h"
#include "registry/sysfs_probe.h"
#include "volsniffer/output.h"

using Fields = std::vector<std::string>;

// A device as a listing shows it, taken from its record when that is not to change any more.
struct Shown {
    const BlockDevice *drive;
    const BlockDevice *device;
    std::string type;
    unsigned long long bytes;
};

static const char *const drive_types[] = {"Hard Drive", "CD-ROM", "Logical Volume", "Unknown", ""};

// What the label probe prints of a medium; "" when that has no filesystem.
static std::string probe_answer(Input &input)
{
    VolumeFacts facts = {};
    set_text(facts.label, input.Text());
    set_text(facts.filesystem, input.Text());
    char answer[longest_answer];
    const size_t length = answer_text(facts, false, answer);
    return facts.filesystem[0] ? std::string(answer, length) : "";
}

static void fill(BlockDevice &device, Input &input)
{
    const std::string answer = probe_answer(input);
    if (!answer.empty()) // otherwise to be learnt by the listing
        parse_probe_answer(answer, device.label, &device.filesystem);
    const unsigned flags = input.Byte();
    device.place = flags & 1 ? "Boot" : flags & 2 ? "Main" : "";
    if (flags & 4)
        raid_members[device.device] = flags & 8;
}

// Each kind has its model at another place.
static const struct {
    const char *prefix;
    const char *model;
} kinds[] = {{"sd", "/device/model"}, {"nvme0n", "/device/serial"}, {"mmcblk", "/device/name"},
             {"dm-", "/dm/name"},     {"sr", "/device/model"},      {"", "/device/model"}};

static const int map_size = 3;

// A partition map with any texts: what its first entry counts is one more than what is read of it.
static void write_map(MemoryMachine::Node &drive, Input &input)
{
    for (int number = 1; number <= map_size; number++) {
        std::string text = input.Text();
        text.resize(64);
        drive.pieces[512 * number] = std::string("PM\0\0\0\0\0\4\0\0\0\1\0\0\0\0", 16) + text;
    }
}

static BlockDevice *add_drive(MemoryMachine &machine, Input &input)
{
    const auto &kind = kinds[input.Byte() % std::size(kinds)];
    std::string name = kind.prefix + input.Text();
    std::replace(name.begin(), name.end(), '/', '!');
    if (name.empty() || find_drive(name))
        return nullptr;
    machine.Write("/sys/block/" + name + kind.model, input.Text());
    write_map(machine.Device("/dev/" + name, 512 * (map_size + 1)), input);
    BlockDevice *drive = new BlockDevice(name);
    blockdev_list[name] = drive;
    probe_drive(*drive);
    read_partition_table(*drive);
    fill(*drive, input);
    drive->type = drive_types[input.Byte() % 5];
    drive->capacity = input.Number(8);
    const unsigned row = input.Byte() % (CONNECTION_ROWS + 1);
    drive->set_connection(row < CONNECTION_ROWS ? &connection_types[row] : nullptr);
    return drive;
}

// The partition with this number in its drive's map.
static void add_partition(BlockDevice &drive, int number, Input &input)
{
    std::string name = drive.device + input.Text() + std::to_string(number);
    std::replace(name.begin(), name.end(), '/', '!');
    if (find_partition(name))
        return;
    PartitionDevice *partition = new PartitionDevice(name);
    partdev_list[name] = partition;
    partition->set_parent(&drive);
    probe_partition(*partition);
    fill(*partition, input);
    partition->partition_size = static_cast<long long>(input.Number(8));
}

// In the listings' order.
static std::vector<Shown> shown_devices()
{
    std::vector<Shown> devices;
    for (const auto &[name, drive] : blockdev_list) {
        devices.push_back({drive, drive, drive->type, drive->capacity});
        for (const auto &[partition_name, flag] : drive->partitions) {
            const PartitionDevice *partition = find_partition(partition_name);
            devices.push_back({drive, partition, "Partition",
                               static_cast<unsigned long long>(partition->partition_size)});
        }
    }
    return devices;
}

static std::string connection_of(const Shown &shown)
{
    return shown.drive->connection ? shown.drive->connection->name : "Unassigned";
}

// The lines of a whole reply between its head and its end.
static Fields rows_of(const std::string &reply, const std::string &head)
{
    PROMISE(reply.starts_with(head + "\n") && reply.ends_with("\nOK  eom"));
    Fields lines;
    cut_at(reply, '\n', lines);
    lines.erase(lines.begin());
    lines.pop_back();
    for (const std::string &line : lines)
        PROMISE(line.starts_with("OK-"));
    return lines;
}

static void check_row(const std::string &row, const std::string &prefix, const Fields &fields)
{
    PROMISE(row.starts_with(prefix));
    Fields found;
    cut_at(row.substr(prefix.size()), '\t', found);
    PROMISE(found.size() == fields.size());
    for (size_t i = 0; i < fields.size(); i++)
        PROMISE(found[i] == in_one_column(fields[i]));
}

static void check_list()
{
    std::string reply = "an older reply";
    list_drives(reply, 0);
    const Fields rows = rows_of(reply, "OK- v3 drive list follows (dev,type,connection,label,"
                                       "capacity,model,place,raid,filesystem)");
    const std::vector<Shown> devices = shown_devices();
    PROMISE(rows.size() == devices.size());
    for (size_t i = 0; i < rows.size(); i++) {
        const Shown &shown = devices[i];
        const BlockDevice &device = *shown.device;
        check_row(rows[i], shown.device == shown.drive ? "OK- \t" : "OK- \t\t",
                  {device.device, shown.type, connection_of(shown), device.label,
                   std::to_string(static_cast<long long>(shown.bytes)), device.model, device.place,
                   raid_text(device.device), device.filesystem});
    }
}

static void check_human_list()
{
    std::string reply;
    list_drives(reply, 1);
    const Fields rows = rows_of(reply, "OK- v3 user-friendly drive list follows (dev,type,"
                                       "connection,label,capacity,model,place,filesystem)");
    const std::vector<Shown> devices = shown_devices();
    PROMISE(rows.size() == devices.size());
    for (size_t i = 0; i < rows.size(); i++) {
        const Shown &shown = devices[i];
        const BlockDevice &device = *shown.device;
        PROMISE(rows[i].size() == 4 + 10 + 18 + 11 + 20 + 11 + 20 + 10 + 10 + 7);
        PROMISE(rows[i] == in_one_column(rows[i]));
        size_t place = 4;
        const auto column = [&](const std::string &field, size_t width) {
            std::string text = in_one_column(field);
            text.resize(width, ' ');
            PROMISE(rows[i].substr(place, width) == text);
            place += width + 1;
        };
        column(device.device, 10);
        column(shown.type, 18);
        column(connection_of(shown), 11);
        column(device.label, 20);
        PROMISE(capacity_text(shown.bytes).size() <= 11);
        column(capacity_text(shown.bytes), 11);
        column(device.model, 20);
        column(device.place, 10);
        column(device.filesystem, 10);
    }
}

static void check_enumeration()
{
    static const ConnectionRow groups[] = {
        CONNECTION_IDE,  CONNECTION_USB,  CONNECTION_MMC,      CONNECTION_SCSI,
        CONNECTION_SATA, CONNECTION_RAID, CONNECTION_FIREWIRE,
    };
    std::string reply;
    enumerate_drives(reply);
    const Fields rows = rows_of(reply, "OK- list follows");
    const std::vector<Shown> devices = shown_devices();
    size_t next = 0;
    for (ConnectionRow group : groups) {
        const ConnectionType &type = connection_types[group];
        bool has_head = false;
        for (const Shown &shown : devices) {
            if (shown.drive->connection != &type)
                continue;
            const BlockDevice &device = *shown.device;
            if (!has_head) {
                PROMISE(next < rows.size());
                check_row(rows[next++], "OK-\t", {type.name, type.description});
            }
            has_head = true;
            const bool is_drive = shown.device == shown.drive;
            PROMISE(next < rows.size());
            check_row(rows[next++], is_drive ? "OK-\t\t" : "OK-\t\t\t",
                      {"/dev/" + device.device,
                       shown.drive->sysfs_path + (is_drive ? "" : "/" + device.device),
                       device.model, shown.drive->type, device.label, type.name, device.place});
        }
    }
    PROMISE(next == rows.size());
}

void examine(Input &input)
{
    MemoryMachine machine;
    machine.disc_status = static_cast<int>(input.Byte() % 6);
    machine.probe_answer = probe_answer(input);
    machine.Link("/proc/77/fd/3", "/dev/" + input.Text());
    while (!input.IsEmpty() && blockdev_list.size() < 3) {
        BlockDevice *drive = add_drive(machine, input);
        const int partitions = static_cast<int>(input.Byte() % (map_size + 1));
        for (int number = 1; drive && number <= partitions; number++)
            add_partition(*drive, number, input);
        if (drive && drive->type == "CD-ROM")
            machine.Device("/dev/" + drive->device, 2048);
    }
    check_enumeration();
    check_list();
    check_human_list();
}
