// Mount points by names that no user can change.
#include "mount/mount_points.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>

#include "base/small_files.h"

static std::string name_of_descriptor(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

HeldDirectory::HeldDirectory(const std::string &path)
    : path_(path), fd_(open(path.c_str(), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC)),
      error_(fd_.IsOpen() ? 0 : errno)
{
}

std::string HeldDirectory::Place() const
{
    return read_link_at(AT_FDCWD, name_of_descriptor(fd_.Get()).c_str(), PATH_MAX);
}

bool HeldDirectory::IsThere() const
{
    if (!fd_.IsOpen()) {
        errno = error_;
        return false;
    }
    const std::string place = Place();
    errno = ELOOP;
    return place.empty() || place == path_;
}

std::string HeldDirectory::Name() const
{
    return Place().empty() ? path_ : name_of_descriptor(fd_.Get());
}

bool is_in_roots_folder(const std::string &path)
{
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    return folder == "/" || folder == "/mnt/";
}
