// The command that mounts, remounts and unmounts a device for a client.
#ifndef QUARRYD_MOUNT_MOUNT_COMMAND_H
#define QUARRYD_MOUNT_MOUNT_COMMAND_H

#include <string>
#include <sys/types.h>

// Does what a client with the rights of uid asks for and leaves the answer in reply.
//
// how is "ro", "rw", "off", or the first and the last of them with "rude" before: then the
// processes that use the mount are ended. device is a name, a path below /dev, or "^" and a label;
// it becomes the bare name. Takes as long as scripts, drivers, evictions (a second), second
// attempts (two seconds) and the wait for the mount table (eleven seconds) take. Whatever fails on
// the way is a line on stderr; what was done until then stays done.
void run_mount_command(uid_t uid, const std::string &how, std::string &device, std::string &reply);

// The name of the first device with this label, partitions before drives, or null. Devices whose
// filesystem is not known yet are given to the label probe. Each device is a line on stderr.
const char *find_device_by_label(const std::string &label);

#endif
