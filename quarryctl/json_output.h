// Listings as JSON, for programs.
//
// `quarryctl list --json` prints one object {"blockdevices": [...]} with an object for each drive:
//
//   name         "sdb"
//   path         "/dev/sdb"
//   type         "disk", "rom", "part" or "lvm"; what the daemon calls otherwise keeps its word
//   kind         the daemon's word: "Hard Drive", "CD-ROM", "Partition", "Logical Volume"; null
//   connection   "SATA", "USB", "SCSI", "NVME", "MMC/SD", "RAID", "LVM", "IDE/PATA",
//                "1394/Firewire"; null when it is not known
//   label        the file system's label; null when there is none
//   size         bytes, a number; null when it is not known
//   model        of a drive what its maker calls it, of a partition its type; null
//   place        "Boot" or "Main" for the drive that the machine was started from or that has its
//                data, and for the partition; otherwise null
//   raid         "Active RAID" or "Inactive RAID" for a member of an array; otherwise null
//   fstype       the daemon's name of the file system ("ext4", "fat"); null when it has none or
//                none is known
//   mountpoints  an array of paths, the oldest first; null when /proc/mounts cannot be read
//   children     the partitions, objects of the same form without "children"; left out where there
//                are none
//
// `quarryctl enumerate --json` prints the same form with the keys name, path, type, kind,
// connection, label, model, place, children, and sysfs_path, the drive's folder below /sys; what it
// has not got is what the daemon does not tell there. A partition's kind is its drive's.
//
// Keys stay; new ones may come. Text is that of the drive: characters that are not ASCII are
// written as \uXXXX, and bytes that are no UTF-8 are replaced by \ufffd.
#ifndef QUARRYCTL_JSON_OUTPUT_H
#define QUARRYCTL_JSON_OUTPUT_H

#include <string>
#include <vector>

#include "busy.h"
#include "check.h"
#include "mounts.h"
#include "reply.h"

std::string list_json(const std::vector<Drive> &drives, const MountTable &mounts);
std::string enumeration_json(const std::vector<ConnectionGroup> &groups);

// `quarryctl busy --json` prints one object:
//
//   devices           the device, and of a drive its partitions: name, mounts (mountpoint, fstype,
//                     read_only), cleared (the mount point whose users the daemon would end, or
//                     null), active_unmounted (a filesystem in use that no mount shows)
//   holders           kind, device, pid, uid, user, command (null where it is no process), what,
//                     more (null without), ended_by (an array of "rudeoff", "rudero")
//   unseen_processes  how many other users' processes could not be looked into
//   unread_memory     pids whose mapped files are not known
//   list_is_partial   whether other users' processes are hidden
std::string busy_json(const BusyReport &report);

// `quarryctl check --json` prints {"findings": [...], "errors": 0, "warnings": 0, "notes": 0}; a
// finding has severity ("error", "warning", "note"), code, place, line (null: no line), effect,
// remedy.
std::string findings_json(const Findings &findings);

#endif
