// Changing a mount from read-only to read-write and back, and nothing else about it.
#ifndef QUARRYD_MOUNT_REMOUNTING_H
#define QUARRYD_MOUNT_REMOUNTING_H

#include <string>

#include "mount/mount_tables.h"

// The flags of an entry that protect the machine from what is on the drive (MS_NOSUID, MS_NODEV,
// MS_NOEXEC, MS_NOSYMFOLLOW), as the mount table lists them.
unsigned long protecting_flags(const MountEntry &entry);

// The same for what is mounted at a directory, according to the table as last read; 0 when nothing
// is.
unsigned long protecting_flags_of(const std::string &directory);

// A remount clears those flags of the mount; this gives them back, by a bind remount, which touches
// the mount point alone. Without any nothing is called, and where nothing is mounted nothing is
// changed. Says on stderr when the kernel refuses.
void put_flags_back(const std::string &mountpoint, unsigned long flags, bool read_only);

#endif
