// All of the kernel's tables at once.
#ifndef QUARRYD_MOUNT_KERNEL_TABLES_H
#define QUARRYD_MOUNT_KERNEL_TABLES_H

// Reads the mount tables, the filesystem types and the partition list again. What cannot be read is
// a line on stderr.
void read_kernel_tables();

#endif
