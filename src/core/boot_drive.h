// Which drive the machine was booted from: it is never unmounted by force nor made the main drive.
#ifndef QUARRYD_CORE_BOOT_DRIVE_H
#define QUARRYD_CORE_BOOT_DRIVE_H

#include <string>

// Sets boot_partition and boot_drive by what the mount table, as last read, has at "/"; both are
// empty when that is no device node. Returns the node, also one that says nothing ("/dev/root").
std::string find_boot_drive();

// The same, and says on stderr what it found.
void detect_boot_drive();

#endif
