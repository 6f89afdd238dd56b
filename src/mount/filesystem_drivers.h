// Help from outside for mounting: kernel modules that are not loaded, and drivers that are
// programs.
#ifndef QUARRYD_MOUNT_FILESYSTEM_DRIVERS_H
#define QUARRYD_MOUNT_FILESYSTEM_DRIVERS_H

#include <string>

// Loads the kernel's module for a filesystem type, which takes 1.25 seconds, and reads
// /proc/filesystems again. A type whose module has no known name is one line on stderr; whether the
// loading worked shows in the table.
void load_fs_module(const std::string &type);

// Mounts by a driver program and waits until it has gone to the background, however long it takes.
// candidate is "*ntfs-3g" or "*mount.exfat". 0 on success; -1 otherwise, with a line on stderr.
int mount_fuse(const std::string &device_path, const std::string &mountpoint,
               const std::string &candidate, bool read_only);

#endif
