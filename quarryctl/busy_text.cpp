// What `busy` prints, as tables for people and as lines for scripts.
#include <algorithm>
#include <vector>

#include "busy.h"
#include "listing.h"
#include "printable.h"

static std::string ended_by(const Holder &holder, const char *separator)
{
    std::string text;
    if (holder.is_ended_by_rudeoff)
        text = "rudeoff";
    if (holder.is_ended_by_rudero)
        text += (text.empty() ? "" : separator) + std::string("rudero");
    return text;
}

static std::string pid_of(const Holder &holder)
{
    return holder.pid > 0 ? std::to_string(holder.pid) : std::string();
}

static Row row_of(const Holder &holder)
{
    const std::string more = holder.more.empty() ? "" : " (" + holder.more + ")";
    Row row;
    row.cells = {holder.device,     holder.kind,    pid_of(holder),
                 holder.user,       holder.command, ended_by(holder, ", "),
                 holder.what + more};
    return row;
}

static std::string heading(const BusyDevice &device)
{
    std::string text = printable(device.name);
    if (device.mounts.empty())
        return text + (device.is_active_unmounted
                           ? " is not mounted here, but its filesystem is in use: it was detached, "
                             "or is mounted in a namespace that cannot be seen.\n"
                           : " is not mounted.\n");
    text += " is mounted at ";
    for (const BusyDevice::Mount &mount : device.mounts) {
        if (&mount != &device.mounts.front())
            text += " and at ";
        text += printable(mount.mountpoint) + " (" + printable(mount.fstype) + ", " +
                (mount.is_read_only ? "read-only" : "read-write") + ")";
    }
    return text + ".\n";
}

static bool any_holder(const BusyReport &report, bool (*is_it)(const Holder &holder))
{
    return std::any_of(report.holders.begin(), report.holders.end(), is_it);
}

// What one has to know to read the table.
static std::string legend(const BusyReport &report)
{
    std::string text;
    if (any_holder(report, [](const Holder &holder) { return holder.is_ended_by_rudeoff; }))
        text +=
            "\nrudeoff: quarryd ends the process when it clears the mount: for `quarryctl "
            "umount --force`,\n  when the device is pulled, and at its own end (not in the last "
            "two cases with --nfsx).\n";
    if (any_holder(report, [](const Holder &holder) { return holder.is_ended_by_rudero; }))
        text += "rudero: also for `quarryctl remount --force ro`.\n";
    if (any_holder(report, [](const Holder &holder) { return holder.kind == "bystander"; }))
        text += "bystander: does not hold the device, but uses a path whose beginning is the mount "
                "point's;\n  quarryd looks at no more than that.\n";
    return text;
}

static std::string processes(size_t number)
{
    return std::to_string(number) + (number == 1 ? " process" : " processes");
}

std::vector<std::string> busy_gaps(const BusyReport &report)
{
    std::vector<std::string> lines;
    if (report.unseen_processes > 0)
        lines.push_back("the kernel does not let this user see what " +
                        processes(static_cast<size_t>(report.unseen_processes)) + " may hold");
    if (report.is_list_partial)
        lines.emplace_back("other users' processes are hidden here; root sees them");
    if (!report.unread_memory.empty())
        lines.push_back("mapped files are not known of " + processes(report.unread_memory.size()) +
                        ": the kernel did not tell in time");
    return lines;
}

std::string busy_table(const BusyReport &report, Style style)
{
    std::string text;
    for (const BusyDevice &device : report.devices)
        text += heading(device);
    if (report.holders.empty())
        return text + (busy_gaps(report).empty() ? "Nothing holds it.\n"
                                                 : "Nothing is seen to hold it.\n");
    const std::vector<Column> columns = {
        {"DEVICE"},
        {"HOLDS"},
        {"PID", true, 0, true},
        {"USER", false, 0, true},
        {"COMMAND", false, 0, true},
        {"ENDED BY", false, 0, true},
        {"WHAT"},
    };
    std::vector<Row> rows;
    for (const Holder &holder : report.holders)
        rows.push_back(row_of(holder));
    style.width = 0; // a path that was cut off would be of no use
    return text + "\n" + render_table(columns, rows, style) + legend(report);
}

std::string busy_lines(const BusyReport &report)
{
    std::string text;
    for (const Holder &holder : report.holders)
        text += join_plain({holder.kind, holder.device, pid_of(holder), holder.user, holder.command,
                            ended_by(holder, ","), holder.what, holder.more});
    return text;
}
