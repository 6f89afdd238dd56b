// The swap file on the main partition, and every other swap area on the way out.
//
// The file is settings.swap_name below the root of the main partition. The administrator puts it
// there; the daemon never creates it. Everything reports on stderr.
#ifndef QUARRYD_SWAP_SWAP_FILE_H
#define QUARRYD_SWAP_SWAP_FILE_H

// Switches the swap file on; one that the kernel does not know for swap is formatted first. 1 on
// success, and when there is nothing to do: no name set, no such file, in use already. A file below
// 1 MiB is set aside as NAME.discard. 0 on failure, and when somebody else than root may write to
// the file or to a directory on the way to it from the main partition's root.
int SwapOn();

// Switches the swap file off. 1 on success and when it is not in use, 0 on failure.
int SwapOff();

// 1 when the kernel lists the swap file as in use, else 0.
int SwapFileActive();

// Switches off every swap area below /tmpfs/.mnt/ that lies on the main partition. Always 0.
int SwapOffMainDriveOthers();

// Switches off every swap area that the kernel lists, wherever it is. Always 0.
int SwapOffAll();

#endif
