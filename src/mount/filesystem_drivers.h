// Help from outside for mounting: kernel modules that are not loaded, and drivers that are
// programs.
#ifndef QUARRYD_MOUNT_FILESYSTEM_DRIVERS_H
#define QUARRYD_MOUNT_FILESYSTEM_DRIVERS_H

#include <span>
#include <string>

// A filesystem type whose module can be loaded, and the shell's command for it.
struct ModuleLoader {
    const char *type;
    const char *command;
};

std::span<const ModuleLoader> module_loaders();

// A driver that is a program. It is known by one or two paths; the first that can be executed is
// used.
struct FuseDriver {
    const char *candidate; // as mount_fuse() knows it
    const char *name;
    const char *paths[2]; // the second may be null
};

std::span<const FuseDriver> fuse_drivers();

// Loads the kernel's module for a filesystem type, which takes 1.25 seconds, and reads
// /proc/filesystems again. A type whose module has no known name is one line on stderr; whether the
// loading worked shows in the table.
void load_fs_module(const std::string &type);

// Mounts by a driver program and waits until it has gone to the background, however long it takes.
// candidate is "*ntfs-3g" or "*mount.exfat". 0 on success; -1 otherwise, with a line on stderr.
int mount_fuse(const std::string &device_path, const std::string &mountpoint,
               const std::string &candidate, bool read_only);

#endif
