// Getting a device out of the mount table, whatever holds it there.
#ifndef QUARRYD_MOUNT_UNMOUNTING_H
#define QUARRYD_MOUNT_UNMOUNTING_H

#include <string>

// Where the device of that name is mounted, if force_unmount() would clear and unmount that; ""
// when it would leave it alone. By the mount table as last read.
std::string forced_mountpoint(const std::string &name);

// Unmounts the device of that name: ends the processes that use the mount (a second or so), tries
// again after two seconds when it is still busy, then removes its mount directory and its label
// link. After --nfsx it neither ends processes nor tries again. The boot device, and whatever is
// mounted at "/", is left alone. Each step and failure is a line on stderr.
void force_unmount(const std::string &name);

// For a device that is gone or is to be given up: force_unmount() when it is mounted according to
// the table as last read, unless it is the boot drive or the boot partition.
void release_vanished_device(const std::string &name);

#endif
