// Who uses a path: the links below /proc, whatever they lead to.
#include <string>
#include <vector>

#include "harness.h"
#include "machine_in_memory.h"
#include "mount/process_eviction.h"

static bool is_writable(MemoryMachine &machine, const std::string &folder,
                        const std::string &target)
{
    const MemoryMachine::Node *node =
        machine.Find(target.starts_with('/') ? target : folder + target);
    return node && !node->is_write_protected;
}

// The first link of a process that leads under a path, read from the machine's files as they are.
static std::string link_by_hand(MemoryMachine &machine, int pid, const std::string &asked,
                                bool writers_only)
{
    const std::string process = "/proc/" + std::to_string(pid) + "/";
    const auto leads_there = [&](const MemoryMachine::Node &node) {
        return std::string_view(node.content).substr(0, 511).starts_with(asked);
    };
    if (!writers_only) {
        for (const char *link : {"root", "cwd", "exe"}) {
            const MemoryMachine::Node *node = machine.Find(process + link);
            if (node && leads_there(*node))
                return link;
        }
    }
    const std::string files = process + "fd/";
    for (auto file = machine.nodes.lower_bound(files);
         file != machine.nodes.end() && file->first.starts_with(files); ++file) {
        const auto &[path, node] = *file;
        if (leads_there(node) && (!writers_only || is_writable(machine, files, node.content)))
            return path.substr(process.size());
    }
    return "";
}

void examine(Input &input)
{
    MemoryMachine machine;
    const std::string asked = "/" + input.Text();
    std::vector<std::string> files; // what processes have open
    machine.Write("/proc/12/cmdline", "cat");
    while (!input.IsEmpty() && files.size() < 8) {
        const unsigned how = input.Byte();
        const std::string target = input.Text();
        if (target.empty())
            continue;
        const std::string process = how & 1 ? "/proc/12" : "/proc/345";
        const bool may_be_there = target.starts_with('/') && !target.starts_with("/proc");
        if ((how & 8) && may_be_there) {
            machine.Write(target, "");
            machine.Find(target)->is_write_protected = how & 16;
        }
        if (how & 2) {
            machine.Link(process + (how & 32 ? "/exe" : how & 4 ? "/cwd" : "/root"), target);
        } else {
            files.push_back(target);
            machine.Link(process + "/fd/" + std::to_string(files.size()), target);
        }
    }
    machine.Write("/proc/self!/fd/1", "");
    machine.Link("/proc/uptime/fd/1", asked); // no process

    bool is_open = false;
    for (const std::string &file : files)
        is_open = is_open || file.substr(0, 255).starts_with(asked);
    PROMISE(device_in_use(asked) == is_open);

    // One reading answers like many.
    OpenFileSnapshot snapshot("/dev/");
    for (const std::string &path : {"/dev" + asked, std::string("/dev/")})
        PROMISE(snapshot.IsInUse(path) == device_in_use(path));
    for (const std::string &file : files) {
        if (file.starts_with("/dev/"))
            PROMISE(snapshot.IsInUse(file) == device_in_use(file));
    }

    for (int pid : {12, 345, 999}) {
        for (bool writers_only : {false, true}) {
            const std::string link = link_by_hand(machine, pid, asked, writers_only);
            PROMISE(process_uses_path(pid, "", asked, writers_only) == !link.empty());
            PROMISE(link_under_path(pid, asked, writers_only) == link);
        }
    }
    PROMISE(said().empty() && machine.deeds.empty());
}
