// Recognises the members of md RAID arrays by the superblock they carry.
#ifndef QUARRYD_INSPECT_MD_SUPERBLOCK_H
#define QUARRYD_INSPECT_MD_SUPERBLOCK_H

// The last block that ProbeMdSuperblock() read in full; null before the first of a probe. It points
// into one buffer shared by all probes.
extern const unsigned char *md_superblock;

// 1 when the device open (readable) as fd carries an md superblock, 0 when it does not or when a
// place that had to be looked at could not be read. Moves the file position; does not close fd.
// Prints nothing.
int ProbeMdSuperblock(int fd);

#endif
