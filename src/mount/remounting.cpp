// What a remount must not change.
#include "mount/remounting.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mount.h>

#include "base/words.h"

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

unsigned long protecting_flags_of(const std::string &directory)
{
    const MountEntry *entry = FindMount("mountpoint", as_in_kernel_table(directory));
    return entry ? protecting_flags(*entry) : 0;
}

void put_flags_back(const std::string &mountpoint, unsigned long flags, bool read_only)
{
    if (flags == 0)
        return;
    const unsigned long mode = read_only ? MS_RDONLY : 0;
    if (mount("", mountpoint.c_str(), "", MS_REMOUNT | MS_BIND | mode | flags, nullptr) < 0 &&
        errno != EINVAL) // nothing is mounted there
        fprintf(stderr, "Cannot protect %s again %s\n", mountpoint.c_str(), strerror(errno));
}
