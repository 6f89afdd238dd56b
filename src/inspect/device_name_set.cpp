// The set of device names.
#include "inspect/device_name_set.h"

std::map<std::string, bool> device_name_set;

bool device_name_set_contains(const std::string &name)
{
    return device_name_set.contains(name);
}

void device_name_set_insert(const std::string &name)
{
    device_name_set[name] = true;
}

void device_name_set_remove(const std::string &name)
{
    device_name_set.erase(name);
}
