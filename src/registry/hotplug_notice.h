// What the kernel's block events, passed on by a client, do to the registry in hotplug mode.
#ifndef QUARRYD_REGISTRY_HOTPLUG_NOTICE_H
#define QUARRYD_REGISTRY_HOTPLUG_NOTICE_H

#include <string>

// Takes in one event: action is the kernel's word, name the device's kernel name. "add" puts a new
// drive or partition (and the drive that it belongs to) into the registry at once; after every
// other word, and after something new, all of /sys/block is read again a second later. Nothing is
// removed here. What happened is said on stderr.
void take_hotplug_notice(const std::string &action, const std::string &name);

// The drive that a device belongs to, going by its name: "sda" for "sda1", "mmcblk0" for
// "mmcblk0p1", and the device itself when it is a drive. Other names with a "p" in them are not
// taken apart ("nvme0n1p" for "nvme0n1p1"): the rescan puts right what comes of that.
std::string parent_of_device(const std::string &name);

#endif
