// What the client makes of a reply, whoever sends it: the daemon's own listings it reads back
// without loss, and of anything else it says in one of three ways what it is.
#include <algorithm>

#include "harness.h"
#include "quarryctl/json_output.h"
#include "quarryctl/listing.h"
#include "quarryctl/printable.h"
#include "quarryctl/reply.h"

// A reply comes in pieces: what is known of its beginning must stay true.
static void check_beginnings(const std::string &bytes, ReplyState state)
{
    Reply ignored;
    const size_t step = 1 + bytes.size() / 32; // all of a long one would take most of the time
    for (size_t length = 0; length < bytes.size(); length += step) {
        const ReplyState earlier = parse_reply(std::string_view(bytes).substr(0, length), ignored);
        PROMISE(earlier == REPLY_UNFINISHED || earlier == state);
    }
}

// A reply is nothing but its lines, one behind the other.
static std::string written(const Reply &reply)
{
    std::string text;
    for (const std::string &line : reply.lines)
        text += "OK-" + line + "\n";
    return text + (reply.is_ok ? "OK " : "ERR ") + reply.text + "\n";
}

static std::string joined(const std::vector<std::string> &fields)
{
    std::string text;
    for (const std::string &field : fields)
        text += (&field == fields.data() ? "" : "\t") + field;
    return text;
}

static std::string row_of(const Device &device)
{
    return joined({device.name, device.type,
                   device.connection.empty() ? "Unassigned" : device.connection, device.label,
                   std::to_string(device.size), device.model, device.place, device.raid,
                   device.filesystem.empty() ? " " : device.filesystem});
}

// On a terminal a text may take a place, and do nothing else.
static void check_printable(const std::string &text)
{
    const std::string shown = printable(text);
    PROMISE(shown == in_one_column(shown));
    PROMISE((shown == text) == (printable(shown) == shown));
    for (size_t width : {0U, 1U, 8U}) {
        const std::string_view part = fitting_part(shown, width);
        PROMISE(shown.starts_with(part) && display_width(part) <= width);
        PROMISE(part.size() == shown.size() || display_width(shown) > width);
    }
}

// One line of JSON in ASCII, whatever the bytes were.
static void check_json(const std::string &json)
{
    PROMISE(std::all_of(json.begin(), json.end(),
                        [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7f); }));
    PROMISE(json.starts_with('{') && is_whole_lines(json));
}

// What was read from a list says the same when it is written as one and read again.
static void check_list(const Reply &reply)
{
    std::vector<Drive> drives;
    if (!parse_list(reply, drives))
        return;
    Reply again = reply;
    again.lines.resize(1);
    size_t rows = 1;
    for (const Drive &drive : drives) {
        PROMISE(!drive.device.name.empty() && drive.device.size >= size_unknown);
        again.lines.push_back(" \t" + row_of(drive.device));
        for (const Device &partition : drive.partitions)
            again.lines.push_back(" \t\t" + row_of(partition));
        rows += 1 + drive.partitions.size();
    }
    PROMISE(rows == reply.lines.size());
    std::vector<Drive> drives_again;
    PROMISE(parse_list(again, drives_again) && drives_again == drives);

    check_json(list_json(drives, MountTable()));

    // For a script each device is one line of eleven fields, none of them empty.
    for (const ListedDevice &listed : listed_devices(drives, MountTable())) {
        check_printable(listed.device.label);
        check_printable(listed.device.model);
        const std::string line = plain_line(listed);
        PROMISE(std::count(line.begin(), line.end(), '\t') == 10);
        PROMISE(line.find('\n') == line.size() - 1 && line[0] != '\t');
        PROMISE(line.find("\t\t") == std::string::npos && line[line.size() - 2] != '\t');
        for (char c : line)
            PROMISE(c == '\t' || c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f));
    }
}

static void check_enumeration(const Reply &reply)
{
    std::vector<ConnectionGroup> groups;
    if (!parse_enumeration(reply, groups))
        return;
    size_t rows = 1;
    for (const ConnectionGroup &group : groups) {
        rows++;
        for (const Drive &drive : group.drives) {
            PROMISE(!drive.device.name.empty());
            rows += 1 + drive.partitions.size();
        }
    }
    PROMISE(rows == reply.lines.size());
    check_json(enumeration_json(groups));
    const std::string lines = plain_enumeration(groups);
    PROMISE(is_whole_lines(lines) && lines.find("\t\t") == std::string::npos);
}

void examine(Input &input)
{
    const std::string bytes = input.Rest();
    Reply reply;
    const ReplyState state = parse_reply(bytes, reply);
    check_beginnings(bytes, state);
    if (state != REPLY_COMPLETE)
        return;
    PROMISE(bytes.starts_with(written(reply)));
    PROMISE(reply.text.find('\n') == std::string::npos);
    check_list(reply);
    check_enumeration(reply);
}
