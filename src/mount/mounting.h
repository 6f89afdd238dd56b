// Mounting a device: which filesystem drivers are tried, and making sure that it is there.
#ifndef QUARRYD_MOUNT_MOUNTING_H
#define QUARRYD_MOUNT_MOUNTING_H

#include <span>
#include <string>

// All drivers in the order in which they are tried. A star marks one that is a program.
std::span<const char *const> mount_candidates();

// Tries the drivers for a device, one after another, until one mounts it; known_filesystem (of the
// label probe, "" or " " when unknown) leaves only its own. On success candidate is the driver's
// name in the list of candidates. Each try and each failure is a line on stderr. Takes 1.25 seconds
// for each module that must be loaded.
bool try_drivers(const std::string &name, const std::string &mountpoint,
                 const std::string &known_filesystem, bool read_only, bool read_write,
                 std::string &candidate);

// Waits until the mount table shows the device, for eleven seconds at most; the table is read again
// before each look and once more at the end. False when it never did. A daemon that is asked to
// stop waits no longer and gives true. What a driver program has mounted becomes nosuid and nodev.
bool wait_for_mount(const std::string &name, const std::string &candidate);

#endif
