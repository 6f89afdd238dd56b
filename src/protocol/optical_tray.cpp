// Trays of optical drives.
#include "protocol/optical_tray.h"

#include <fcntl.h>
#include <linux/cdrom.h>
#include <sys/ioctl.h>

#include "base/daemon_state.h"
#include "base/descriptor.h"
#include "base/words.h"
#include "mount/mount_tables.h"
#include "protocol/socket_connection.h"
#include "registry/block_device.h"

static const char *open_tray(int fd)
{
    ioctl(fd, CDROMSTOP, 0);
    return ioctl(fd, CDROMEJECT, 0) < 0 ? "ERR device refused eject" : "OK device ejected";
}

static const char *close_tray(int fd)
{
    if (ioctl(fd, CDROMCLOSETRAY, 0) < 0)
        return "ERR device refused close tray";
    ioctl(fd, CDROMSTART, 0);
    return "OK device retracted tray";
}

// The reply to a request to move the tray of the drive with this name.
static const char *move_tray(uid_t uid, const std::string &name, const char *(*move)(int fd))
{
    if (!device_exists(name.c_str()))
        return "ERR device does not exist or is not maintained by this service";
    if (uid == static_cast<uid_t>(schedule_uid))
        return "ERR schedule items are not allowed to do this";
    const std::string path = "/dev/" + name;
    ReadProcMounts();
    const MountEntry *entry = FindMount("device", path);
    BlockDevice *drive = find_drive(name);
    if (!drive)
        return "ERR no such device";
    if (entry)
        return "ERR device is mounted, unmount first";
    if (drive->type != "CD-ROM")
        return "ERR device is not the kind that ejects";
    drive->label.clear();
    drive->filesystem.clear();
    Descriptor device(open(path.c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC));
    if (!device.IsOpen())
        return "ERR cannot open device to perform operation";
    return move(device.Get());
}

void do_socket_command_eject(SocketConnection &connection, const std::string &device)
{
    connection.output = move_tray(connection.uid, strip_dev(device), open_tray);
}

void do_socket_command_retract(SocketConnection &connection, const std::string &device)
{
    connection.output = move_tray(connection.uid, strip_dev(device), close_tray);
}
