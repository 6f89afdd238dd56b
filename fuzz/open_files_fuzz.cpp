// Who uses a path: the links below /proc, whatever they lead to.
#include <string>
#include <vector>

#include "harness.h"
#include "machine_in_memory.h"
#include "mount/process_eviction.h"

void examine(Input &input)
{
    MemoryMachine machine;
    const std::string asked = "/" + input.Text();
    std::vector<std::string> files; // what processes have open
    std::string used;               // and what else process 12 uses
    machine.Write("/proc/12/cmdline", "cat");
    while (!input.IsEmpty() && files.size() < 8) {
        const unsigned how = input.Byte();
        const std::string target = input.Text();
        if (target.empty())
            continue;
        const std::string process = how & 1 ? "/proc/12" : "/proc/345";
        if (how & 2) {
            machine.Link(process + (how & 4 ? "/cwd" : "/root"), target);
            used = how & 1 ? target : used;
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

    if (!used.empty() && machine.Find("/proc/12/cwd") && !machine.Find("/proc/12/root"))
        PROMISE(process_uses_path(12, "", used.substr(0, 511), false));
    const bool writes = process_uses_path(12, "", asked, true);
    PROMISE(!writes || process_uses_path(12, "", asked, false));
    PROMISE(!process_uses_path(999, "", asked, false));
    PROMISE(said().empty() && machine.deeds.empty());
}
