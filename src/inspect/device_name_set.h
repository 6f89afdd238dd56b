// A set of device names. A forced unmount takes the device's name out of it.
#ifndef QUARRYD_INSPECT_DEVICE_NAME_SET_H
#define QUARRYD_INSPECT_DEVICE_NAME_SET_H

#include <map>
#include <string>

// Names without "/dev/"; the flag of a name that is there is always true. Nothing adds names at
// present.
extern std::map<std::string, bool> device_name_set;

bool device_name_set_contains(const std::string &name);
void device_name_set_insert(const std::string &name);
void device_name_set_remove(const std::string &name); // no error when it is not there

#endif
