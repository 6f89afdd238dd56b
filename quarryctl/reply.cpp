#include "reply.h"

#include <charconv>
#include <cstddef>
#include <system_error>

ReplyState parse_reply(std::string_view bytes, Reply &reply)
{
    static const std::string_view continuation = "OK-";
    static const std::string_view success = "OK ";
    static const std::string_view refusal = "ERR ";

    Reply result;
    for (;;) {
        const size_t end = bytes.find('\n');
        const std::string_view line = bytes.substr(0, end);
        const bool may_be_reply = line.starts_with(continuation) || line.starts_with(success) ||
                                  line.starts_with(refusal);
        if (end == std::string_view::npos) {
            const bool may_become_reply = continuation.starts_with(line) ||
                                          success.starts_with(line) || refusal.starts_with(line);
            return may_be_reply || may_become_reply ? REPLY_UNFINISHED : REPLY_GARBLED;
        }
        if (!may_be_reply)
            return REPLY_GARBLED;
        if (!line.starts_with(continuation)) {
            result.is_ok = line.starts_with(success);
            result.text = line.substr(result.is_ok ? success.size() : refusal.size());
            reply = std::move(result);
            return REPLY_COMPLETE;
        }
        result.lines.emplace_back(line.substr(continuation.size()));
        bytes.remove_prefix(end + 1);
    }
}

static std::vector<std::string_view> split_at_tabs(std::string_view text)
{
    std::vector<std::string_view> fields;
    for (;;) {
        const size_t tab = text.find('\t');
        fields.push_back(text.substr(0, tab));
        if (tab == std::string_view::npos)
            return fields;
        text.remove_prefix(tab + 1);
    }
}

// The model is the one text of a row that its maker wrote into the hardware: a tab in it must not
// hide the machine's other drives. Joins what is too much for a row of so many fields to the field
// of the model. 0 when there are too few.
static int rejoin_model(std::string_view text, std::vector<std::string_view> &fields, size_t count,
                        size_t model)
{
    fields = split_at_tabs(text);
    if (fields.size() < count)
        return 0;
    const auto first = fields.begin() + static_cast<std::ptrdiff_t>(model);
    const auto last = first + static_cast<std::ptrdiff_t>(fields.size() - count);
    const char *const start = first->data();
    *first = std::string_view(start, static_cast<size_t>(last->data() + last->size() - start));
    fields.erase(first + 1, last + 1);
    return 1;
}

static int parse_size(std::string_view text, long long &size)
{
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, size);
    return result.ec == std::errc() && result.ptr == end;
}

// A filesystem that nobody could find out is a single blank in the listing.
static std::string known_filesystem(std::string_view text)
{
    return text == " " ? std::string() : std::string(text);
}

static std::string known_connection(std::string_view text)
{
    return text == "Unassigned" ? std::string() : std::string(text);
}

static int parse_list_row(std::string_view row, Device &device)
{
    std::vector<std::string_view> fields;
    if (!rejoin_model(row, fields, 9, 5) || fields[0].empty() ||
        !parse_size(fields[4], device.size))
        return 0;
    device.name = fields[0];
    device.type = fields[1];
    device.connection = known_connection(fields[2]);
    device.label = fields[3];
    device.model = fields[5];
    device.place = fields[6];
    device.raid = fields[7];
    device.filesystem = known_filesystem(fields[8]);
    if (device.size < 0)
        device.size = size_unknown;
    return 1;
}

// Every listing ends in "OK  eom".
static bool is_listing(const Reply &reply, std::string_view head)
{
    return reply.is_ok && reply.text == " eom" && !reply.lines.empty() &&
           reply.lines[0].starts_with(head);
}

int parse_list(const Reply &reply, std::vector<Drive> &drives)
{
    static const std::string_view drive_mark = " \t";
    static const std::string_view partition_mark = " \t\t";

    drives.clear();
    if (!is_listing(reply, " v3 drive list follows "))
        return 0;
    for (size_t i = 1; i < reply.lines.size(); i++) {
        const std::string_view line = reply.lines[i];
        Device device;
        if (line.starts_with(partition_mark)) {
            if (drives.empty() || !parse_list_row(line.substr(partition_mark.size()), device))
                return 0;
            drives.back().partitions.push_back(std::move(device));
        } else {
            if (!line.starts_with(drive_mark) ||
                !parse_list_row(line.substr(drive_mark.size()), device))
                return 0;
            drives.push_back({std::move(device), {}});
        }
    }
    return 1;
}

static int parse_enumeration_row(std::string_view row, Device &device)
{
    static const std::string_view folder = "/dev/";

    std::vector<std::string_view> fields;
    if (!rejoin_model(row, fields, 7, 2) || !fields[0].starts_with(folder))
        return 0;
    device.name = fields[0].substr(folder.size());
    device.sysfs_path = fields[1];
    device.model = fields[2];
    device.type = fields[3];
    device.label = fields[4];
    device.connection = fields[5];
    device.place = fields[6];
    return !device.name.empty();
}

static int parse_enumeration_line(std::string_view line, std::vector<ConnectionGroup> &groups)
{
    const size_t depth = line.find_first_not_of('\t');
    if (depth == std::string_view::npos)
        return 0;
    line.remove_prefix(depth);
    if (depth == 1) {
        const size_t tab = line.find('\t');
        if (tab == std::string_view::npos)
            return 0;
        groups.push_back({std::string(line.substr(0, tab)), std::string(line.substr(tab + 1)), {}});
        return 1;
    }
    Device device;
    if (depth > 3 || groups.empty() || !parse_enumeration_row(line, device))
        return 0;
    std::vector<Drive> &drives = groups.back().drives;
    if (depth == 2)
        drives.push_back({std::move(device), {}});
    else if (drives.empty())
        return 0;
    else
        drives.back().partitions.push_back(std::move(device));
    return 1;
}

int parse_enumeration(const Reply &reply, std::vector<ConnectionGroup> &groups)
{
    groups.clear();
    if (!is_listing(reply, " list follows"))
        return 0;
    for (size_t i = 1; i < reply.lines.size(); i++)
        if (!parse_enumeration_line(reply.lines[i], groups))
            return 0;
    return 1;
}
