#include "probe.h"

#include <cerrno>
#include <climits> // CDSL_CURRENT is made of it
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <linux/cdrom.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

void refuse(ProbeResult &result, ProbeStatus status, const char *attempt, const char *reason)
{
    result = ProbeResult();
    result.status = status;
    set_text(result.attempt, attempt);
    set_text(result.reason, reason);
}

// Opens path for reading; -1 where that is refused. Looked at before it is opened: the mere opening
// rewinds a tape, starts a watchdog, or waits for the other end of a pipe. Non-blocking, because
// only then an optical drive opens at once without closing its tray.
static int open_for_reading(const char *path, ProbeResult &result)
{
    struct stat st = {};
    if (stat(path, &st) < 0) {
        refuse(result, PROBE_UNREADABLE, "examine", strerror(errno));
        return -1;
    }
    if (!S_ISBLK(st.st_mode) && !S_ISREG(st.st_mode)) {
        refuse(result, PROBE_UNREADABLE, "examine", "neither a block device nor an image file");
        return -1;
    }
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        refuse(result, errno == ENOMEDIUM ? PROBE_NO_MEDIUM : PROBE_UNREADABLE, "open",
               strerror(errno));
    return fd;
}

// Whether there is something to read. A drive that still spins its disc up counts as empty, too: a
// read would wait for it, and the daemon asks for one drive after the other.
static bool has_medium(int fd)
{
    // Only optical drives know this request; all others refuse it.
    const int state = ioctl(fd, CDROM_DRIVE_STATUS, CDSL_CURRENT);
    if (state == CDS_NO_DISC || state == CDS_TRAY_OPEN || state == CDS_DRIVE_NOT_READY)
        return false;
    // A card reader without a card opens like a drive of no size.
    return lseek(fd, 0, SEEK_END) > 0;
}

static const char *value_of(blkid_probe probe, const char *name)
{
    const char *value = nullptr;
    if (blkid_probe_lookup_value(probe, name, &value, nullptr) != 0 || value == nullptr)
        return "";
    return value;
}

// libblkid's preparations, for which it opens files in /sys.
static bool prepare(blkid_probe probe, int fd, ProbeResult &result)
{
    errno = 0;
    if (blkid_probe_set_device(probe, fd, 0, 0) != 0) {
        refuse(result, errno == ENOMEDIUM ? PROBE_NO_MEDIUM : PROBE_UNREADABLE, "examine",
               strerror(errno));
        return false;
    }
    // Some arrays stand on whole drives only. What this answers is kept for when they are looked
    // for.
    blkid_probe_get_wholedisk_devno(probe);
    blkid_probe_enable_superblocks(probe, 1);
    blkid_probe_set_superblocks_flags(probe, BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID |
                                                 BLKID_SUBLKS_TYPE | BLKID_SUBLKS_USAGE |
                                                 BLKID_SUBLKS_VERSION);
    return true;
}

bool open_volume(const char *path, Volume &volume, ProbeResult &result)
{
    volume.fd = open_for_reading(path, result);
    if (volume.fd < 0)
        return false;
    if (!has_medium(volume.fd)) {
        refuse(result, PROBE_NO_MEDIUM, "examine", strerror(ENOMEDIUM));
        return false;
    }
    volume.probe = blkid_new_probe();
    if (volume.probe == nullptr) {
        refuse(result, PROBE_UNREADABLE, "examine", strerror(ENOMEM));
        return false;
    }
    return prepare(volume.probe, volume.fd, result);
}

// Every format is tried, not the first that fits: a stick that was once formatted for another
// system and still bears both superblocks is refused rather than guessed at. The exceptions are
// libblkid's own: a RAID member hides what it carries, and a disc may well be UDF and ISO 9660 at
// once. Such a disc is called UDF, the filesystem that has the full names and the one the mount
// command would try first.
void identify_volume(Volume &volume, ProbeResult &result)
{
    result = ProbeResult(); // PROBE_ANSWERED, with nothing known
    errno = 0;
    switch (blkid_do_safeprobe(volume.probe)) {
    case 0:
        break;
    case 1:
        return; // nothing that is known
    case -2:
        refuse(result, PROBE_AMBIGUOUS, "identify", "signatures of several filesystems");
        return;
    default:
        refuse(result, PROBE_UNREADABLE, "read", strerror(errno));
        return;
    }
    const char *usage = value_of(volume.probe, "USAGE");
    if (strcmp(usage, "raid") == 0) { // md and firmware arrays, and LVM's physical volumes
        char reason[sizeof result.reason];
        snprintf(reason, sizeof reason, "RAID member (%s)", value_of(volume.probe, "TYPE"));
        refuse(result, PROBE_RAID_MEMBER, "examine", reason);
        return;
    }
    set_text(result.facts.label, value_of(volume.probe, "LABEL"));
    set_text(result.facts.filesystem, value_of(volume.probe, "TYPE"));
    set_text(result.facts.uuid, value_of(volume.probe, "UUID"));
    set_text(result.facts.version, value_of(volume.probe, "VERSION"));
    set_text(result.facts.usage, usage);
}

void close_volume(Volume &volume)
{
    blkid_free_probe(volume.probe);
    if (volume.fd >= 0)
        close(volume.fd);
}
