// Acting on a mount point and on nothing else, whatever a user does on the way to it.
//
// The mount table's names have no links in them. But where something is mounted below a folder of a
// user's, he can put a link in that folder's place after the table was read. /mnt and the root are
// root's alone, so what is mounted there is called by its path.
#ifndef QUARRYD_MOUNT_MOUNT_POINTS_H
#define QUARRYD_MOUNT_MOUNT_POINTS_H

#include <string>

#include "base/descriptor.h"

// A directory that stays the same one as long as this lives, wherever it is moved and whatever is
// mounted on it. Opening it asks nothing of its file system, whose server may be dead.
class HeldDirectory {
public:
    explicit HeldDirectory(const std::string &path);

    // False when it could not be opened.
    bool IsOpen() const
    {
        return fd_.IsOpen();
    }
    int Fd() const
    {
        return fd_.Get();
    }

    // Whether it is at that path now, as far as /proc shows descriptors. False, with errno, when a
    // link was on the way, when it has been moved, or when it is the root of a mount that has gone.
    bool IsThere() const;

    // A path that leads to it and to nothing else; its own where /proc shows no descriptors.
    std::string Name() const;

private:
    // Where /proc has it now; "" when it does not tell.
    std::string Place() const;

    std::string path_;
    Descriptor fd_;
    int error_; // of the opening
};

// Whether nobody but root can change what this path leads to.
bool is_in_roots_folder(const std::string &path);

// umount(2) of what is mounted there, the uppermost. 0, or -1 with errno.
int unmount_at(const std::string &mountpoint);

// Removes the empty directory. That it cannot be removed is no failure.
void remove_mountpoint(const std::string &mountpoint);

#endif
