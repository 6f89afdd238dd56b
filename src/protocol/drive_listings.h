// The listings of drives and partitions that clients read.
//
// Making a listing is not passive: a device whose filesystem is not known yet is given to the label
// probe program first, so the first listing after a drive has come is when its label is learnt.
// Each such device costs one run of that program; a drive that somebody has open is left alone.
#ifndef QUARRYD_PROTOCOL_DRIVE_LISTINGS_H
#define QUARRYD_PROTOCOL_DRIVE_LISTINGS_H

#include <string>

// Replaces reply by the list of all drives, each followed by its partitions: for programs (fields
// between tabs) or, with human not 0, for people (columns of fixed width). No last line end.
void list_drives(std::string &reply, int human);

// Replaces reply by the drives in groups, one for each way of being connected. No last line end.
void enumerate_drives(std::string &reply);

// The first len characters of text, with blanks behind a shorter one: exactly len characters. In
// spite of its name the text stands on the left. len must be at least 1.
std::string lpadded(std::string text, int len);

#endif
