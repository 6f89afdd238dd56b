// Changing a mount from read-only to read-write and back, and nothing else about it.
//
// A remount acts on a path, and so on whatever is mounted there last. Who may write to the root of
// a drive can put a FUSE mount of his own on it: it must neither be remounted in the drive's place,
// which would take nosuid and nodev from it, nor keep the drive from getting them back.
#ifndef QUARRYD_MOUNT_REMOUNTING_H
#define QUARRYD_MOUNT_REMOUNTING_H

#include <string>

#include "mount/mount_points.h"
#include "mount/mount_tables.h"

// The flags of an entry that protect the machine from what is on the drive (MS_NOSUID, MS_NODEV,
// MS_NOEXEC, MS_NOSYMFOLLOW), as the mount table lists them.
unsigned long protecting_flags(const MountEntry &entry);

// The name that the mount table has for a directory: where its links lead, and escaped.
std::string in_mount_table(const std::string &directory);

// Whose mount is seen at a directory. What nobody can tell is another's.
enum Top { TOP_IS_OWN, TOP_IS_NONE, TOP_IS_ANOTHERS };

// Looks by the table as it is at this moment; the directory is named as in there. Fills top with
// the device's mount when it is that one.
Top look_on_top(const std::string &device_path, const std::string &mountpoint, MountEntry &top);

// A device's mount that is about to be remounted. Who makes one looks first whose mount is on top,
// remounts, and then has the flags given back. The mount is held meanwhile, so that they go to this
// very one, whatever has been put on it.
class HeldMount {
public:
    // The directory is named as in the table.
    HeldMount(const std::string &device_path, const std::string &mountpoint);

    // What was seen there when this was made.
    Top OnTop() const
    {
        return top_;
    }

    // What a remount is to name: the directory, or a path that leads to this mount alone where a
    // user could put a link in the directory's place.
    std::string Name() const;

    // A remount clears the flags that protect the machine; this gives the mount those back that it
    // had, and these. A mount of another user's that lies on it becomes nosuid and nodev: the
    // remount may have been his. Without flags nothing is called for the device's own mount. Says
    // on stderr when flags cannot be given.
    void GiveFlagsBack(unsigned long more = 0) const;

private:
    void GiveByPath(unsigned long flags) const;

    std::string device_path_;
    std::string mountpoint_;
    HeldDirectory directory_;
    MountEntry entry_; // when it is on top
    Top top_;
};

// Makes a mount nosuid and nodev that a driver program has just made. What a user has put on it
// meanwhile goes. Says on stderr when that cannot be done.
void protect_fresh_mount(const std::string &device_path, const std::string &mountpoint);

#endif
