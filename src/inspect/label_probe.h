// Asks the label probe program what filesystem a device carries and what it is called.
#ifndef QUARRYD_INSPECT_LABEL_PROBE_H
#define QUARRYD_INSPECT_LABEL_PROBE_H

#include <string>

inline constexpr char probe_program[] = "/usr/bin/volsniffer";

// Runs the probe program on a device ("sdb1" or "/dev/sdb1") and waits for it; there is no time
// limit on its answer. 1 when it ran and exited with status 0, else 0.
//
// label receives the first line of the answer. filesystem (may be null) receives the filesystem's
// name and is a single blank whenever none was learnt, so that a caller who probes only devices
// with an empty filesystem asks once in a record's life. After a failure the label stays as it was.
// A RAID member given by its bare name is not probed: label "", filesystem " ", result 0.
//
// Prints the label and every further key of the answer on stderr, or one line when the program
// failed.
int probe_label(std::string name, std::string &label, std::string *filesystem);

// Takes the label and the filesystem out of the program's answer, printing them on stderr.
void parse_probe_answer(const std::string &answer, std::string &label, std::string *filesystem);

#endif
