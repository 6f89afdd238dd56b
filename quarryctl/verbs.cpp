#include "verbs.h"

#include <cstdio>
#include <unistd.h>

#include "json_output.h"
#include "listing.h"
#include "mounts.h"
#include "printable.h"
#include "table.h"

// Says what went wrong, if something did.
static ExitStatus report(const Answer &answer)
{
    if (answer.status != EXIT_DONE)
        complain(answer.complaint);
    return answer.status;
}

static ExitStatus report_garbled()
{
    complain("the daemon's answer cannot be understood");
    return EXIT_NO_DAEMON;
}

static void print(const std::string &text)
{
    fwrite(text.data(), 1, text.size(), stdout);
}

static ExitStatus ask_for_list(std::vector<Drive> &drives, double seconds)
{
    const Answer answer = ask_daemon("list", seconds);
    if (answer.status != EXIT_DONE)
        return report(answer);
    return parse_list(answer.reply, drives) ? EXIT_DONE : report_garbled();
}

ExitStatus run_list(OutputForm form, double seconds)
{
    std::vector<Drive> drives;
    const ExitStatus status = ask_for_list(drives, seconds);
    if (status != EXIT_DONE)
        return status;
    const MountTable mounts = read_mounts();
    if (form == FORM_JSON) {
        print(list_json(drives, mounts));
        return EXIT_DONE;
    }
    std::vector<Row> rows;
    for (const ListedDevice &listed : listed_devices(drives, mounts)) {
        if (form == FORM_PLAIN)
            print(plain_line(listed));
        else
            rows.push_back(device_row(listed));
    }
    if (form == FORM_TABLE)
        print(render_table(device_columns(), std::move(rows), style_of_stdout()));
    return EXIT_DONE;
}

ExitStatus run_enumerate(OutputForm form, double seconds)
{
    const Answer answer = ask_daemon("enumerate", seconds);
    if (answer.status != EXIT_DONE)
        return report(answer);
    std::vector<ConnectionGroup> groups;
    if (!parse_enumeration(answer.reply, groups))
        return report_garbled();
    if (form == FORM_JSON)
        print(enumeration_json(groups));
    else if (form == FORM_PLAIN)
        print(plain_enumeration(groups));
    else
        print(enumeration_text(groups, style_of_stdout()));
    return EXIT_DONE;
}

// The name of the device that a word of the user means; empty when a label has none.
static ExitStatus find_name(const std::string &device, std::string &name, double seconds)
{
    static const std::string folder = "/dev/";
    if (!device.starts_with('^')) {
        name = device.starts_with(folder) ? device.substr(folder.size()) : device;
        return EXIT_DONE;
    }
    std::vector<Drive> drives;
    const ExitStatus status = ask_for_list(drives, seconds);
    name = status == EXIT_DONE ? name_of_label(drives, device.substr(1)) : "";
    return status;
}

// A script goes on with the path as it is; a terminal gets it without what could harm it.
static void print_path(const std::string &path)
{
    print((isatty(STDOUT_FILENO) ? printable(path) : path) + "\n");
}

static ExitStatus print_mount_point(const std::string &device, bool is_new, double seconds)
{
    std::string name;
    const ExitStatus status = find_name(device, name, seconds);
    if (status != EXIT_DONE)
        return status;
    const MountTable mounts = read_mounts();
    const std::vector<std::string> &points = mounts.PointsOf(name);
    if (!points.empty()) {
        print_path(points.front());
        return EXIT_DONE;
    }
    // Where the client cannot see the daemon's mounts, as in a container, it knows where new ones
    // are made.
    if (is_new && !name.empty()) {
        print_path("/mnt/" + name);
        return EXIT_DONE;
    }
    complain("it is mounted, but nothing here shows where");
    return EXIT_REFUSED;
}

static ExitStatus refuse_word()
{
    complain("the daemon cannot be told this: it has a line end, or a quote beside a blank");
    return EXIT_USAGE;
}

ExitStatus run_mount(const std::string &mode, const std::string &device, double seconds)
{
    std::string request;
    if (!request_of({"mount", mode, device}, request))
        return refuse_word();
    const Answer answer = ask_daemon(request, seconds);
    if (answer.status != EXIT_DONE)
        return report(answer);
    // The two spellings are the daemon's.
    const std::string first =
        answer.reply.lines.empty() ? answer.reply.text : answer.reply.lines.front();
    const bool is_new =
        first == "mount succeeded" || first == " mount succeeded" || first == " mount succeded";
    if (!is_new || !answer.reply.lines.empty())
        complain(answer.reply.text);
    return print_mount_point(device, is_new, seconds);
}

ExitStatus run_remount(const std::string &mode, const std::string &device, double seconds)
{
    std::string name;
    const ExitStatus status = find_name(device, name, seconds);
    if (status != EXIT_DONE)
        return status;
    const MountTable mounts = read_mounts();
    if (mounts.is_known && mounts.PointsOf(name).empty()) {
        complain(device + " is not mounted");
        return EXIT_REFUSED;
    }
    return run_mount(mode, device, seconds);
}

// Lines of a reply begin with tabs where they are to be indented.
static std::string indented(const std::string &line)
{
    const size_t tabs = line.find_first_not_of('\t');
    const size_t count = tabs == std::string::npos ? line.size() : tabs;
    return std::string(2 * count, ' ') + printable(line.substr(count));
}

ExitStatus run_request(const std::vector<std::string> &words, double seconds)
{
    std::string request;
    if (!request_of(words, request))
        return refuse_word();
    const Answer answer = ask_daemon(request, seconds);
    if (answer.status != EXIT_DONE)
        return report(answer);
    for (const std::string &line : answer.reply.lines)
        print(indented(line) + "\n");
    print(indented(answer.reply.text) + "\n");
    return EXIT_DONE;
}

// Tabs part the fields of a reply and do a terminal no harm.
static std::string printable_with_tabs(const std::string &line)
{
    std::string result;
    size_t start = 0;
    for (;;) {
        const size_t tab = line.find('\t', start);
        result += printable(std::string_view(line).substr(start, tab - start));
        if (tab == std::string::npos)
            return result;
        result += '\t';
        start = tab + 1;
    }
}

ExitStatus run_raw(const std::string &line, double seconds)
{
    if (line.find_first_of("\r\n") != std::string::npos) {
        complain("a request is one line");
        return EXIT_USAGE;
    }
    const Answer answer = ask_daemon(line, seconds);
    if (answer.status != EXIT_DONE && answer.status != EXIT_REFUSED)
        return report(answer);
    const bool is_terminal = isatty(STDOUT_FILENO);
    const auto shown = [is_terminal](const std::string &text) {
        return is_terminal ? printable_with_tabs(text) : text;
    };
    for (const std::string &continuation : answer.reply.lines)
        print("OK-" + shown(continuation) + "\n");
    if (answer.status == EXIT_DONE)
        print("OK " + shown(answer.reply.text) + "\n");
    return report(answer);
}
