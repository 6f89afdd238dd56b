// What a device's name says about its drive. A file of its own, for the program that passes the
// kernel's events on needs this and nothing else of the daemon.
#include "registry/hotplug_notice.h"

#include <cctype>

std::string parent_of_device(const std::string &name)
{
    std::string parent = name.substr(0, name.find_last_not_of("0123456789") + 1);
    const bool is_card_partition = name.starts_with("mmcblk") && name.size() > 7 &&
                                   isdigit(static_cast<unsigned char>(name[6])) && name[7] == 'p';
    if (is_card_partition && !parent.empty())
        parent.pop_back();
    // What is left of the names of drives that end in a number.
    for (const char *drive : {"sr", "loop", "md", "mmcblk", "ram"}) {
        if (parent == drive)
            return name;
    }
    return parent;
}
