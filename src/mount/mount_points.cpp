// Mount points by names that no user can change.
#include "mount/mount_points.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

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

// The name of a mount point in a folder that is held; "", with errno, when that is not what the
// path says.
static std::string name_in(const HeldDirectory &folder, const std::string &mountpoint)
{
    return folder.IsThere() ? folder.Name() + mountpoint.substr(mountpoint.rfind('/')) : "";
}

// The folder of a mount point that is in none of root's.
static HeldDirectory folder_to_hold(const std::string &mountpoint)
{
    return HeldDirectory(mountpoint.substr(0, mountpoint.find_last_of('/')));
}

int unmount_at(const std::string &mountpoint)
{
    if (is_in_roots_folder(mountpoint))
        return umount(mountpoint.c_str());
    const HeldDirectory folder = folder_to_hold(mountpoint);
    const std::string name = name_in(folder, mountpoint);
    return name.empty() ? -1 : umount2(name.c_str(), UMOUNT_NOFOLLOW);
}

void remove_mountpoint(const std::string &mountpoint)
{
    if (is_in_roots_folder(mountpoint)) {
        rmdir(mountpoint.c_str());
        return;
    }
    const HeldDirectory folder = folder_to_hold(mountpoint);
    rmdir(name_in(folder, mountpoint).c_str()); // which follows no link for the last name
}
