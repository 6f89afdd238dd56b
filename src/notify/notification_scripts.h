// The administrator's scripts for events: every regular file of a directory is run when something
// happens, with the device and the event as its arguments.
//
// Scripts run one after another in the order of the directory listing. When three seconds have
// passed no further one is started, and one that has just been started is killed; a script that
// never ends holds the daemon. They run in their directory with the daemon's environment and
// without any open descriptor.
#ifndef QUARRYD_NOTIFY_NOTIFICATION_SCRIPTS_H
#define QUARRYD_NOTIFY_NOTIFICATION_SCRIPTS_H

#include <string>

// Where the scripts are, of mounting and of devices.
inline constexpr char mount_scripts[] = "/var/quarryd/mount-notify";
inline constexpr char device_scripts[] = "/var/quarryd/device-notify";

// Runs every script of a directory. 0 when one of them exited with a status other than 0 (as does
// one that cannot be executed), otherwise 1: also without scripts, and when a signal ended one.
// A line on stderr for each script that is killed.
int run_notification_scripts(const std::string &device, const std::string &directory,
                             const std::string &event);

// The events of mounting. about_to_mount gives 0 when a script vetoes the mount. Devices of the
// first two are named without "/dev/", those of the last two as the mount table names them.
int notify_about_to_mount(const std::string &device);
int notify_remount(const std::string &device, const std::string &mode); // "ro" or "rw"
int notify_unmounted(const std::string &device);
int notify_mounted(const std::string &device);

// The events of devices. Nothing raises them at present.
int notify_device_appeared(const std::string &device);
int notify_device_disappeared(const std::string &device);

#endif
