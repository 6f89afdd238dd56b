// Which devices belong to an md RAID array: such a device is never probed nor mounted by itself.
#ifndef QUARRYD_INSPECT_RAID_MEMBERS_H
#define QUARRYD_INSPECT_RAID_MEMBERS_H

#include <map>
#include <string>

// Device name to flag: true for a member of a running array, false for a device that only carries
// a superblock. A name that is absent is no member. Written here and by the drive probe.
extern std::map<std::string, bool> raid_members;

// Whether the bare device name is a member. A name with "/dev/" before it is never one.
bool is_raid_member(const std::string &name);

// "", "Active RAID" or "Inactive RAID": the raid column of the listing.
std::string raid_text(const std::string &name);

// Forgets what was known of the name.
void forget_raid(const std::string &name);

// Forgets what was known of the name, looks for a superblock on "/dev/" + name, and remembers an
// inactive member when there is one. Says so on stderr when the device cannot be opened.
void check_raid_participation(const std::string &name);

#endif
