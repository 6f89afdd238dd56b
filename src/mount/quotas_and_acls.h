// Disk quotas and access control lists of a filesystem that has just been mounted.
//
// Both work on the directory "/mnt/" + name, whatever mountpoint says, by the mount table as last
// read, and only on a device that is mounted read-write there. They never stop a mount: failures
// are lines on stderr. What protects the machine from the drive (nosuid, nodev) stays as it was.
#ifndef QUARRYD_MOUNT_QUOTAS_AND_ACLS_H
#define QUARRYD_MOUNT_QUOTAS_AND_ACLS_H

#include <string>

// Switches on the quotas whose files, aquota.user and aquota.group, are in the root directory and
// hold anything. Works on ext3 and ext4.
void enable_quotas(const std::string &name, const std::string &mountpoint);

// Switches on POSIX access control lists.
void enable_acls(const std::string &name, const std::string &mountpoint);

#endif
