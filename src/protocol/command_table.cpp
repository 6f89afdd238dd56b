// The table of commands.
#include "protocol/command_table.h"

#include <cstdio>
#include <string>

#include "base/daemon_state.h"
#include "inspect/raid_members.h"
#include "mount/kernel_tables.h"
#include "protocol/drive_listings.h"
#include "protocol/optical_tray.h"
#include "protocol/socket_connection.h"
#include "registry/device_list.h"
#include "registry/hotplug_notice.h"
#include "registry/sysfs_probe.h"
#include "swap/swap_file.h"

// What anybody may read. "notify", "hotplug" and "poll" are not for people and are left out.
static const char help_text[] =
    "OK-Valid commands are\n"
    "OK-\tlist - List all drives and partitions\n"
    "OK-\tlist human - List all drives and partitions in a human readable format\n"
    "OK-\tenumerate - List all drives and partitions according to how they are connected\n"
    "OK-\tswapoff - Turn off swap file\n"
    "OK-\tswapon - Turn on swap file\n"
    "OK-\teject - Eject optical drive\n"
    "OK-\tretract - Retract optical drive\n"
    "OK-\trefresh - Force refresh the list of drives and partitions\n"
    "OK-\tmount <how> <device> - Mount a device. 'how' = 'ro,rw,rudero' or to unmount "
    "'off,rudeoff', 'device' = device name or ^label\n"
    "OK-\tumount <device> - Unmount a device\n"
    "OK \thelp - Show this help";

static bool is_root(const SocketConnection &connection)
{
    return connection.uid == 0;
}

static void command_list(SocketConnection &connection)
{
    const std::string &form = connection.args[1];
    list_drives(connection.output, form == "human" || form == "user");
}

static void command_enumerate(SocketConnection &connection)
{
    enumerate_drives(connection.output);
}

static void command_swapoff(SocketConnection &connection)
{
    if (!is_root(connection))
        connection.output = "ERR auth required";
    else
        connection.output = SwapOff() ? "OK swap disabled" : "ERR swap disable failed";
}

static void command_swapon(SocketConnection &connection)
{
    if (!is_root(connection))
        connection.output = "ERR auth required";
    else
        connection.output = SwapOn() ? "OK swap enabled" : "ERR swap enable failed";
}

static void command_eject(SocketConnection &connection)
{
    do_socket_command_eject(connection, connection.args[1]);
}

static void command_retract(SocketConnection &connection)
{
    do_socket_command_retract(connection, connection.args[1]);
}

static void command_mount(SocketConnection &connection)
{
    connection.do_socket_command_mount(connection.args[1], connection.args[2]);
}

static const std::string unmount_mode = "off";

static void command_umount(SocketConnection &connection)
{
    connection.do_socket_command_mount(unmount_mode, connection.args[1]);
}

static void command_notify(SocketConnection &connection)
{
    const std::string &path = connection.args[2];
    const size_t slash = path.rfind('/');
    if (!hotplug_mode) {
        connection.output = "ERR hotplug mode not enabled";
    } else if (!is_root(connection)) {
        connection.output = "ERR authorization required";
    } else if (slash == std::string::npos || slash + 1 == path.size()) {
        connection.output = "ERR invalid device string";
    } else {
        take_hotplug_notice(connection.args[1], path.substr(slash + 1));
        connection.output = "OK thank you";
    }
}

static void command_refresh(SocketConnection &connection)
{
    if (!is_root(connection)) {
        connection.output = "ERR you must be root to do that";
        return;
    }
    raid_members.clear();
    for (const auto &[name, drive] : blockdev_list)
        check_raid_participation(name);
    for (const auto &[name, partition] : partdev_list)
        check_raid_participation(name);
    read_kernel_tables();
    UpdateBlockDeviceList();
    scan_raid_slaves();
    connection.output = "OK refreshed";
}

// Only which periodic work the loop does changes; nothing is read again at once.
static void switch_mode(SocketConnection &connection, int to_hotplug, const char *announcement,
                        const char *reply)
{
    if (!is_root(connection)) {
        connection.output = "ERR authorization required";
        return;
    }
    fprintf(stderr, "%s\n", announcement);
    hotplug_mode = to_hotplug;
    connection.output = reply;
}

static void command_hotplug(SocketConnection &connection)
{
    switch_mode(connection, 1, "Switching on Hotplug mode", "OK hotplug mode enabled");
}

static void command_poll(SocketConnection &connection)
{
    switch_mode(connection, 0, "Switching on Polling mode", "OK polling mode enabled");
}

static void command_help(SocketConnection &connection)
{
    connection.output = help_text;
}

// Looked at from the top; the words are compared exactly. A refusal's wording belongs to its
// command: clients tell them apart.
static const struct {
    const char *word;
    void (*run)(SocketConnection &connection);
} commands[] = {
    {"list", command_list},       {"enumerate", command_enumerate}, {"swapoff", command_swapoff},
    {"swapon", command_swapon},   {"eject", command_eject},         {"retract", command_retract},
    {"refresh", command_refresh}, {"mount", command_mount},         {"umount", command_umount},
    {"notify", command_notify},   {"hotplug", command_hotplug},     {"poll", command_poll},
    {"polling", command_poll},    {"help", command_help},
};

static void run_command(SocketConnection &connection)
{
    if (connection.argc == 0) {
        connection.output = "ERR no command given";
        return;
    }
    for (const auto &command : commands) {
        if (connection.args[0] == command.word) {
            command.run(connection);
            return;
        }
    }
    connection.output = "ERR unknown command";
}

int dispatch_command(SocketConnection &connection)
{
    run_command(connection);
    if (!connection.output.empty()) {
        connection.output += "\n";
        connection.state = STATE_SENDING;
    }
    return 1;
}
