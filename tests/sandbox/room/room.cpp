// Calls single operations of the daemon, for tests of what no client's request reaches. It is as
// dangerous as the daemon itself and is started in the sandbox only.
//
// Reads commands from standard input, one a line, its words parted by single blanks; answers each
// with a line on standard output: "yes", "no", "done" or what was asked for. What the operations
// print goes to standard error, as in the daemon.
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <syslog.h>
#include <vector>

#include "base/daemon_state.h"
#include "inspect/proc_partitions.h"
#include "mount/mnt_housekeeping.h"
#include "mount/mount_tables.h"
#include "mount/process_eviction.h"
#include "mount/unmount_all.h"
#include "mount/unmounting.h"
#include "registry/block_device.h"
#include "registry/connection_types.h"
#include "registry/device_list.h"
#include "registry/hotplug_notice.h"
#include "registry/label_links.h"

using Words = std::vector<std::string>;

static const char *answer(bool value)
{
    return value ? "yes" : "no";
}

static const char *read_tables(const Words &)
{
    ReadFstab();
    ReadProcMounts();
    ReadProcFilesystems();
    ReadProcPartitions();
    return "done";
}

// set NAME VALUE
static const char *set_state(const Words &words)
{
    if (words[1] == "boot_drive")
        boot_drive = words[2];
    else if (words[1] == "boot_partition")
        boot_partition = words[2];
    else if (words[1] == "main_partition")
        main_partition = words[2];
    else if (words[1] == "swap_name")
        settings.swap_name = words[2];
    else if (words[1] == "swap_path")
        swap_path = words[2];
    else if (words[1] == "no_force_shutdown")
        no_force_shutdown = atoi(words[2].c_str());
    else
        return "no";
    return "done";
}

// Each drive with the names of its partitions, then each partition with its drive and its size:
// "sda[sda1,sda2,] sdb[] sda1@sda:4096 sda2@sda:4096 ".
static const char *show_registry(const Words &)
{
    static std::string text;
    text = "registry: ";
    for (const auto &[name, drive] : blockdev_list) {
        text += name + "[";
        for (const auto &[partition_name, flag] : drive->partitions)
            text += partition_name + ",";
        text += "] ";
    }
    for (const auto &[name, partition] : partdev_list) {
        text += name + "@" + (partition->parent ? partition->parent->device : "") + ":" +
                std::to_string(partition->partition_size) + " ";
    }
    return text.c_str();
}

static const std::map<std::string, std::function<const char *(const Words &)>> commands = {
    {"tables", read_tables},
    {"set", set_state},
    {"update", [](const Words &) { return UpdateBlockDeviceList(), "done"; }},
    // notify ACTION NAME
    {"notify", [](const Words &words) { return take_hotplug_notice(words[1], words[2]), "done"; }},
    {"registry", show_registry},
    {"refresh", [](const Words &) { return refresh_drives(), "done"; }},
    {"make-link", [](const Words &words) { return make_label_link(words[1]), "done"; }},
    {"remove-link", [](const Words &words) { return remove_label_link(words[1]), "done"; }},
    {"exists", [](const Words &words) { return answer(device_exists(words[1].c_str())); }},
    // uses PID PATH all|writers
    {"uses",
     [](const Words &words) {
         return answer(
             process_uses_path(atoi(words[1].c_str()), "", words[2], words[3] == "writers"));
     }},
    // evict DEVICE PATH all|writers
    {"evict",
     [](const Words &words) {
         return evict_mount_users(words[1], words[2], words[3] == "writers"), "done";
     }},
    {"in-use", [](const Words &words) { return answer(device_in_use(words[1])); }},
    {"force-unmount", [](const Words &words) { return force_unmount(words[1]), "done"; }},
    {"release", [](const Words &words) { return release_vanished_device(words[1]), "done"; }},
    {"unmount-all", [](const Words &) { return unmount_all(), "done"; }},
    {"tidy", [](const Words &) { return tidy_mnt(), "done"; }},
    // find CATEGORY VALUE
    {"find", [](const Words &words) { return answer(FindMount(words[1], words[2]) != nullptr); }},
    // have TYPE nodev|drive
    {"have",
     [](const Words &words) { return answer(HaveFilesystem(words[1], words[2] == "nodev")); }},
};

static Words split(const std::string &line)
{
    Words words;
    for (size_t start = 0; start <= line.size();) {
        size_t end = line.find(' ', start);
        if (end == std::string::npos)
            end = line.size();
        words.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    words.resize(words.size() + 4); // missing words are empty
    return words;
}

int main()
{
    openlog("quarryd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    init_connection_types();
    std::string line;
    while (std::getline(std::cin, line)) {
        const Words words = split(line);
        auto command = commands.find(words[0]);
        if (command == commands.end()) {
            std::cerr << "no such command: " << line << std::endl;
            return 2;
        }
        std::cout << command->second(words) << std::endl;
    }
    FreeBlockDeviceList();
    return 0;
}
