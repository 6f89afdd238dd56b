// Asking an optical drive for its disc.
#include "inspect/optical_medium.h"

#include <climits>
#include <fcntl.h>
#include <linux/cdrom.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include "base/descriptor.h"

int disc_from_status(int status)
{
    switch (status) {
    case CDS_NO_DISC:
    case CDS_TRAY_OPEN:
    case CDS_DRIVE_NOT_READY:
        return 0;
    case CDS_DISC_OK:
        return 1;
    default:
        return -1;
    }
}

// A drive that cannot tell shows it by reading: logical block 16 is where a disc's volume
// descriptors begin.
static int can_read_a_block(int fd)
{
    unsigned char command[12] = {0xA8, 0, 0, 0, 0, 16, 0, 0, 0, 1, 0, 0}; // READ(12)
    unsigned char data[2048] = {};
    unsigned char sense[40] = {};
    sg_io_hdr_t request = {};
    request.interface_id = 'S';
    request.dxfer_direction = SG_DXFER_FROM_DEV;
    request.cmd_len = sizeof(command);
    request.cmdp = command;
    request.dxferp = data;
    request.dxfer_len = sizeof(data);
    request.sbp = sense;
    request.mx_sb_len = sizeof(sense);
    request.timeout = 2500; // milliseconds
    if (ioctl(fd, SG_IO, &request) < 0)
        return 0;
    return request.masked_status == 0 || request.masked_status == 2;
}

int disc_present(const std::string &path)
{
    Descriptor drive(open(path.c_str(), O_RDWR | O_EXCL | O_NONBLOCK | O_CLOEXEC));
    if (!drive.IsOpen())
        return 0;
    int present = disc_from_status(ioctl(drive.Get(), CDROM_DRIVE_STATUS, CDSL_CURRENT));
    return present < 0 ? can_read_a_block(drive.Get()) : present;
}
