// What a remount must not change.
#include "mount/remounting.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mount.h>

#ifndef MS_NOSYMFOLLOW
#define MS_NOSYMFOLLOW 256
#endif

static const struct {
    const char *option;
    unsigned long flag;
} protections[] = {
    {"nosuid", MS_NOSUID},
    {"nodev", MS_NODEV},
    {"noexec", MS_NOEXEC},
    {"nosymfollow", MS_NOSYMFOLLOW},
};

unsigned long protecting_flags(const MountEntry &entry)
{
    unsigned long flags = 0;
    for (const auto &protection : protections) {
        if (has_option(entry, protection.option))
            flags |= protection.flag;
    }
    return flags;
}

void put_flags_back(const std::string &mountpoint, unsigned long flags, bool read_only)
{
    if (flags == 0)
        return;
    const unsigned long mode = read_only ? MS_RDONLY : 0;
    if (mount("", mountpoint.c_str(), "", MS_REMOUNT | MS_BIND | mode | flags, nullptr) < 0)
        fprintf(stderr, "Cannot protect %s again %s\n", mountpoint.c_str(), strerror(errno));
}
