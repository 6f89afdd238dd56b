// Keeping /mnt free of what mounts have left behind.
#ifndef QUARRYD_MOUNT_MNT_HOUSEKEEPING_H
#define QUARRYD_MOUNT_MNT_HOUSEKEEPING_H

// Removes empty directories of /mnt that belong to no mounted device and have not changed for 15
// seconds, then links that lead nowhere (label links whose device went away). Names that begin with
// a dot stay. Goes by the mount table as last read, and asks nothing of a filesystem that may never
// answer. The working directory is /mnt afterwards. Prints nothing.
void tidy_mnt();

#endif
