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

void detect_boot_drive()
{
    std::string device = root_device();
    if (device == "/dev/root") {
        fprintf(stderr, "Ahahahah /dev/root. Good one. Completely useless.\n");
        device.clear();
    }
    if (device.empty()) {
        boot_drive.clear();
        boot_partition.clear();
        fprintf(stderr, "WARNING: Cannot determine boot drive\n");
        return;
    }
    boot_partition = device.substr(5);
    // Three characters, whatever the bus: "sda" for sda1, and "nvm" for nvme0n1p2, which names no
    // drive and so protects only the partition.
    boot_drive = boot_partition.substr(0, 3);
    fprintf(stderr, "boot drive:     %s\n", boot_drive.c_str());
    fprintf(stderr, "boot partition: %s\n", boot_partition.c_str());
}
