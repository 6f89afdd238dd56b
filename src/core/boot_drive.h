// Which drive the machine was booted from: it is never unmounted by force nor made the main drive.
#ifndef QUARRYD_CORE_BOOT_DRIVE_H
#define QUARRYD_CORE_BOOT_DRIVE_H

// Sets boot_partition and boot_drive by what the mount table, as last read, has at "/"; both are
// empty when that is no device node. Says on stderr what it found.
void detect_boot_drive();

#endif
