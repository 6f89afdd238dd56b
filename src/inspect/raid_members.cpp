// The map of RAID members.
#include "inspect/raid_members.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "base/descriptor.h"
#include "inspect/md_superblock.h"

std::map<std::string, bool> raid_members;

bool is_raid_member(const std::string &name)
{
    return raid_members.contains(name);
}

std::string raid_text(const std::string &name)
{
    auto member = raid_members.find(name);
    if (member == raid_members.end())
        return std::string();
    return member->second ? "Active RAID" : "Inactive RAID";
}

void forget_raid(const std::string &name)
{
    raid_members.erase(name);
}

void check_raid_participation(const std::string &name)
{
    forget_raid(name);
    const std::string path = "/dev/" + name;
    Descriptor device(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!device.IsOpen()) {
        fprintf(stderr, "Unable to check %s raid participation %s\n", name.c_str(),
                strerror(errno));
        return;
    }
    // A scan of the running arrays' slaves may turn it into an active member later.
    if (ProbeMdSuperblock(device.Get()))
        raid_members[name] = false;
}
