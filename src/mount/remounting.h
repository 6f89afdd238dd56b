// Changing a mount from read-only to read-write and back, and nothing else about it.
//
// A remount acts on a path, and so on whatever is mounted there last. Who may write to the root of
// a drive can put a FUSE mount of his own on it: it must neither be remounted in the drive's place,
// which would take nosuid and nodev from it, nor keep the drive from getting them back.
#ifndef QUARRYD_MOUNT_REMOUNTING_H
#define QUARRYD_MOUNT_REMOUNTING_H

#include <string>

#include "mount/mount_tables.h"

// The flags of an entry that protect the machine from what is on the drive (MS_NOSUID, MS_NODEV,
// MS_NOEXEC, MS_NOSYMFOLLOW), as the mount table lists them.
unsigned long protecting_flags(const MountEntry &entry);

// The name that the mount table has for a directory: where its links lead, and escaped.
std::string in_mount_table(const std::string &directory);

// The mount of a device at a directory (named as in the table) when nothing lies on it, by the
// table as it is at this moment. False when something does, when it is not mounted there, or when
// nobody can tell.
bool find_on_top(const std::string &device_path, const std::string &mountpoint, MountEntry &entry);

// Whether something else than the device is mounted at that directory, and seen there.
bool is_covered(const std::string &device_path, const std::string &mountpoint);

// A remount clears those flags of the mount; this gives them back to the device's mount at that
// directory, by a bind remount, which touches the mount point alone, and makes sure of it. What
// somebody has put on it meanwhile becomes nosuid and nodev, and goes when it is in the way.
// Without flags, nothing is called for the device's own mount; where nothing is mounted, nothing is
// changed. Says on stderr when the flags cannot be given back.
void put_flags_back(const std::string &device_path, const std::string &mountpoint,
                    unsigned long flags, bool read_only);

#endif
