// Whether an optical drive holds a disc.
#ifndef QUARRYD_INSPECT_OPTICAL_MEDIUM_H
#define QUARRYD_INSPECT_OPTICAL_MEDIUM_H

#include <string>

// 1 when the drive at path ("/dev/sr0") holds a readable disc, else 0; also 0 while somebody holds
// the drive exclusively, as a mount does. Never waits for an empty drive; a drive that gives no
// status is asked to read one block, which it may take 2.5 seconds to refuse. Prints nothing.
int disc_present(const std::string &path);

// What a status answer says about the disc: 1 present, 0 absent, -1 the drive doesn't know.
int disc_from_status(int status);

#endif
