// Reading the names in a directory with as few system calls as there can be.
#ifndef QUARRYD_BASE_DIRECTORY_H
#define QUARRYD_BASE_DIRECTORY_H

#include <cstddef>
#include <memory>

#include "base/descriptor.h"

// An open directory. The kernel is asked for 32 KiB of names at a time, so that an ordinary
// directory costs four calls: open, two reads (the second says that there is no more), close.
class Directory {
public:
    // Opens path, relative to the directory at_fd (or AT_FDCWD). extra_flags go to openat() besides
    // O_RDONLY, O_DIRECTORY and O_CLOEXEC; O_NOATIME, which only the owner and root may ask for, is
    // given up when it is refused. After a failure IsOpen() is false and errno tells why.
    Directory(int at_fd, const char *path, int extra_flags = 0);

    bool IsOpen() const
    {
        return fd_.IsOpen();
    }

    // For reading files relative to this directory; valid as long as the object lives.
    int Fd() const
    {
        return fd_.Get();
    }

    // The next name ("." and ".." included), or null at the end or when the kernel cannot go on.
    // The text lives until the next call.
    const char *NextName();

    // What the directory says of the name that NextName() gave last: DT_DIR, DT_LNK, ... or
    // DT_UNKNOWN on filesystems that do not say.
    unsigned char Type() const
    {
        return type_;
    }

    // Whether the last NextName() returned null because of an error and not at the end.
    bool HasFailed() const
    {
        return failed_;
    }

    // The next NextName() gives the first name again, from a fresh reading.
    void Rewind();

private:
    Descriptor fd_;
    std::unique_ptr<char[]> buffer_;
    size_t filled_ = 0;
    size_t position_ = 0;
    unsigned char type_ = 0;
    bool failed_ = false;
};

#endif
