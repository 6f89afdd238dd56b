#include "listing.h"

#include "printable.h"

std::vector<ListedDevice> listed_devices(const std::vector<Drive> &drives, const MountTable &mounts)
{
    std::vector<ListedDevice> devices;
    for (const Drive &drive : drives) {
        const std::string &name = drive.device.name;
        devices.push_back({drive.device, "", mounts.PointsOf(name)});
        for (const Device &partition : drive.partitions)
            devices.push_back({partition, name, mounts.PointsOf(partition.name)});
    }
    return devices;
}

std::string name_of_label(const std::vector<Drive> &drives, const std::string &label)
{
    std::string partition_name;
    std::string drive_name;
    for (const Drive &drive : drives) {
        if (drive_name.empty() && drive.device.label == label)
            drive_name = drive.device.name;
        for (const Device &partition : drive.partitions) {
            const bool is_first = partition_name.empty() || partition.name < partition_name;
            if (partition.label == label && is_first)
                partition_name = partition.name;
        }
    }
    return partition_name.empty() ? drive_name : partition_name;
}

static const size_t partition_indent = 2;

std::vector<Column> device_columns()
{
    return {
        {.heading = "NAME"},
        {.heading = "TYPE", .least = 6},
        {.heading = "CONNECTION", .least = 4},
        {.heading = "SIZE", .is_right_aligned = true},
        {.heading = "FILESYSTEM", .least = 5},
        {.heading = "LABEL", .least = 8},
        {.heading = "MODEL", .least = 8},
        {.heading = "PLACE", .is_hidden_empty = true},
        {.heading = "RAID", .least = 6, .is_hidden_empty = true},
        {.heading = "MOUNTED ON", .least = 10, .is_hidden_empty = true},
    };
}

// Drives fill up what they say of themselves with blanks, to the length of a field of a standard's:
// that is of no use to people.
static std::string without_filling(const std::string &model)
{
    std::string text;
    for (char c : model) {
        if (c != ' ' || (!text.empty() && text.back() != ' '))
            text += c;
    }
    return text.ends_with(' ') ? text.substr(0, text.size() - 1) : text;
}

static std::string joined(const std::vector<std::string> &texts)
{
    std::string result;
    for (const std::string &text : texts)
        result += (result.empty() ? "" : ", ") + text;
    return result;
}

Row device_row(const ListedDevice &listed)
{
    const Device &device = listed.device;
    const bool is_partition = !listed.drive.empty();
    Row row;
    row.cells = {device.name,
                 device.type,
                 is_partition ? "" : device.connection, // what its drive's row says already
                 size_text(device.size),
                 device.filesystem,
                 device.label,
                 without_filling(device.model),
                 device.place,
                 device.raid,
                 joined(listed.mountpoints)};
    row.indent = is_partition ? partition_indent : 0;
    if (!listed.mountpoints.empty())
        row.paint = PAINT_GREEN;
    else if (!is_partition)
        row.paint = PAINT_BOLD;
    return row;
}

static std::string plain_field(const std::string &text)
{
    if (text.empty())
        return "-";
    return text == "-" ? "\\x2d" : printable(text);
}

std::string join_plain(const std::vector<std::string> &fields)
{
    std::string line;
    for (const std::string &field : fields) {
        if (!line.empty())
            line += '\t';
        line += plain_field(field);
    }
    return line + "\n";
}

std::string plain_line(const ListedDevice &listed)
{
    const Device &device = listed.device;
    return join_plain({device.name, listed.drive, device.type, device.connection, device.label,
                       device.size < 0 ? "" : std::to_string(device.size), device.model,
                       device.place, device.raid, device.filesystem,
                       listed.mountpoints.empty() ? "" : listed.mountpoints.front()});
}

static std::string plain_enumeration_line(const Device &device, const std::string &drive)
{
    return join_plain({device.name, drive, device.type, device.connection, device.label,
                       device.model, device.place, device.sysfs_path});
}

std::string plain_enumeration(const std::vector<ConnectionGroup> &groups)
{
    std::string text;
    for (const ConnectionGroup &group : groups) {
        for (const Drive &drive : group.drives) {
            text += plain_enumeration_line(drive.device, "");
            for (const Device &partition : drive.partitions)
                text += plain_enumeration_line(partition, drive.device.name);
        }
    }
    return text;
}

static Row enumeration_row(const Device &device, bool is_partition)
{
    Row row;
    row.cells = {device.name,  is_partition ? "Partition" : device.type,
                 device.label, without_filling(device.model),
                 device.place, device.sysfs_path};
    row.indent = partition_indent * (is_partition ? 2 : 1);
    row.paint = is_partition ? PAINT_NONE : PAINT_BOLD;
    return row;
}

std::string enumeration_text(const std::vector<ConnectionGroup> &groups, const Style &style)
{
    static const std::vector<Column> columns = {
        {.heading = "  NAME"},
        {.heading = "TYPE", .least = 6},
        {.heading = "LABEL", .least = 8},
        {.heading = "MODEL", .least = 8},
        {.heading = "PLACE", .is_hidden_empty = true},
        {.heading = "BELOW /sys", .least = 10},
    };
    std::string text;
    for (const ConnectionGroup &group : groups) {
        std::vector<Row> rows;
        for (const Drive &drive : group.drives) {
            rows.push_back(enumeration_row(drive.device, false));
            for (const Device &partition : drive.partitions)
                rows.push_back(enumeration_row(partition, true));
        }
        text += text.empty() ? "" : "\n";
        text += painted(printable(group.connection), PAINT_BOLD, style) + ": " +
                printable(group.description) + "\n";
        text += render_table(columns, std::move(rows), style);
    }
    return text;
}
