// The unmounting of everything that the daemon manages, on its way out.
#ifndef QUARRYD_MOUNT_UNMOUNT_ALL_H
#define QUARRYD_MOUNT_UNMOUNT_ALL_H

// Reads every table and /sys/block once more and releases each mounted partition, and each mounted
// drive that has no partitions, as release_vanished_device() does.
void unmount_all();

#endif
