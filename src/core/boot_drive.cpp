// Detection of the boot drive.
#include "core/boot_drive.h"

#include <cstdio>

#include "base/daemon_state.h"
#include "mount/mount_tables.h"

static std::string root_device()
{
    for (const MountEntry &entry : mount_list) {
        if (entry.mountpoint == "/" && entry.device.starts_with("/dev/"))
            return entry.device;
    }
    return std::string();
}

static const char useless_device[] = "/dev/root";

std::string find_boot_drive()
{
    std::string device = root_device();
    boot_partition = device.empty() || device == useless_device ? "" : device.substr(5);
    // Three characters, whatever the bus: "sda" for sda1, and "nvm" for nvme0n1p2, which names no
    // drive and so protects only the partition.
    boot_drive = boot_partition.substr(0, 3);
    return device;
}

void detect_boot_drive()
{
    const std::string device = find_boot_drive();
    if (device == useless_device)
        fprintf(stderr, "Ahahahah /dev/root. Good one. Completely useless.\n");
    if (device.empty() || device == useless_device) {
        fprintf(stderr, "WARNING: Cannot determine boot drive\n");
        return;
    }
    fprintf(stderr, "boot drive:     %s\n", boot_drive.c_str());
    fprintf(stderr, "boot partition: %s\n", boot_partition.c_str());
}
