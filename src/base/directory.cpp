// Directory entries straight from getdents64(2).
#include "base/directory.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

static const size_t buffer_size = 32768;

static int open_directory(int at_fd, const char *path, int extra_flags)
{
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    int fd = openat(at_fd, path, flags | extra_flags);
    if (fd < 0 && errno == EPERM && (extra_flags & O_NOATIME))
        fd = openat(at_fd, path, flags | (extra_flags & ~O_NOATIME));
    return fd;
}

Directory::Directory(int at_fd, const char *path, int extra_flags)
    : fd_(open_directory(at_fd, path, extra_flags))
{
}

const char *Directory::NextName()
{
    if (!IsOpen())
        return nullptr;
    if (!buffer_)
        buffer_.reset(new char[buffer_size]);
    if (position_ >= filled_) {
        ssize_t got = getdents64(fd_.Get(), buffer_.get(), buffer_size);
        failed_ = got < 0 && errno != ENOENT; // removed meanwhile: no more names
        if (got <= 0)
            return nullptr;
        filled_ = static_cast<size_t>(got);
        position_ = 0;
    }
    // The kernel aligns its records for this structure.
    const dirent64 *entry = reinterpret_cast<const dirent64 *>(buffer_.get() + position_);
    position_ += entry->d_reclen;
    type_ = entry->d_type;
    return entry->d_name;
}

void Directory::Rewind()
{
    filled_ = position_ = 0;
    if (IsOpen())
        lseek(fd_.Get(), 0, SEEK_SET);
}
