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

#include <blkid/blkid.h>

// Opens path for reading; fd is left at -1 and the reason printed where that fails. Looked at
// before it is opened: the mere opening rewinds a tape, starts a watchdog, or waits for the other
// end of a pipe. Non-blocking, because only then an optical drive opens at once without closing its
// tray.
static ProbeStatus open_volume(const char *path, int &fd)
{
    struct stat st = {};
    fd = -1;
    if (stat(path, &st) < 0) {
        fprintf(stderr, "Cannot examine %s: %s\n", path, strerror(errno));
        return PROBE_UNREADABLE;
    }
    if (!S_ISBLK(st.st_mode) && !S_ISREG(st.st_mode)) {
        fprintf(stderr, "Cannot examine %s: neither a block device nor an image file\n", path);
        return PROBE_UNREADABLE;
    }
    fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        const bool no_medium = errno == ENOMEDIUM;
        fprintf(stderr, "Cannot open %s: %s\n", path, strerror(errno));
        return no_medium ? PROBE_NO_MEDIUM : PROBE_UNREADABLE;
    }
    return PROBE_ANSWERED;
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

static std::string value_of(blkid_probe probe, const char *name)
{
    const char *value = nullptr;
    if (blkid_probe_lookup_value(probe, name, &value, nullptr) != 0 || value == nullptr)
        return "";
    return value;
}

// Identifies what fd holds. Every format is tried, not the first that fits: a stick that was once
// formatted for another system and still bears both superblocks is refused rather than guessed at.
// The exceptions are libblkid's own: a RAID member hides what it carries, and a disc may well be
// UDF and ISO 9660 at once. Such a disc is called UDF, the filesystem that has the full names and
// the one the mount command would try first.
static ProbeStatus identify(blkid_probe probe, int fd, const char *path, VolumeFacts &facts)
{
    errno = 0;
    if (blkid_probe_set_device(probe, fd, 0, 0) != 0) {
        const bool no_medium = errno == ENOMEDIUM;
        fprintf(stderr, "Cannot examine %s: %s\n", path, strerror(errno));
        return no_medium ? PROBE_NO_MEDIUM : PROBE_UNREADABLE;
    }
    blkid_probe_enable_superblocks(probe, 1);
    blkid_probe_set_superblocks_flags(probe, BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID |
                                                 BLKID_SUBLKS_TYPE | BLKID_SUBLKS_USAGE |
                                                 BLKID_SUBLKS_VERSION);
    errno = 0;
    switch (blkid_do_safeprobe(probe)) {
    case 0:
        break;
    case 1:
        return PROBE_ANSWERED; // nothing that is known
    case -2:
        fprintf(stderr, "Cannot identify %s: signatures of several filesystems\n", path);
        return PROBE_AMBIGUOUS;
    default:
        fprintf(stderr, "Cannot read %s: %s\n", path, strerror(errno));
        return PROBE_UNREADABLE;
    }
    const std::string usage = value_of(probe, "USAGE");
    if (usage == "raid") { // md and firmware arrays, and LVM's physical volumes
        fprintf(stderr, "Cannot examine %s: RAID member (%s)\n", path,
                value_of(probe, "TYPE").c_str());
        return PROBE_RAID_MEMBER;
    }
    facts.label = value_of(probe, "LABEL");
    facts.filesystem = value_of(probe, "TYPE");
    facts.uuid = value_of(probe, "UUID");
    facts.version = value_of(probe, "VERSION");
    facts.usage = usage;
    return PROBE_ANSWERED;
}

ProbeStatus probe_volume(const char *path, VolumeFacts &facts)
{
    facts = VolumeFacts();
    int fd = -1;
    ProbeStatus status = open_volume(path, fd);
    if (status != PROBE_ANSWERED)
        return status;
    if (!has_medium(fd)) {
        fprintf(stderr, "Cannot examine %s: %s\n", path, strerror(ENOMEDIUM));
        close(fd);
        return PROBE_NO_MEDIUM;
    }
    blkid_probe probe = blkid_new_probe();
    if (probe == nullptr) {
        fprintf(stderr, "Cannot examine %s: %s\n", path, strerror(ENOMEM));
        status = PROBE_UNREADABLE;
    } else {
        status = identify(probe, fd, path, facts);
    }
    blkid_free_probe(probe);
    close(fd);
    return status;
}
