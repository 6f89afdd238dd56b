// The kernel's tables of mounts and of filesystem types, as last read from procfs.
//
// The daemon has no opinion of its own about what is mounted: a caller reads again before it
// decides. A pointer from FindMount() dies at the next ReadProcMounts().
#ifndef QUARRYD_MOUNT_MOUNT_TABLES_H
#define QUARRYD_MOUNT_MOUNT_TABLES_H

#include <cstdio>
#include <ctime>
#include <list>
#include <string>
#include <string_view>
#include <vector>

// One line of /proc/mounts. Octal escapes stay as the kernel wrote them.
class MountEntry {
public:
    std::string device; // "/dev/sdb1", "/dev/root", "proc"
    std::string mountpoint;
    std::string fstype;
    std::vector<std::string> options; // "rw,,noatime" gives "rw", "", "noatime"
};

// One line of the second table.
class FstabEntry {
public:
    std::string device;
    std::string mountpoint;
    std::vector<std::string> fstypes;
    std::vector<std::string> options;
};

extern std::list<MountEntry> mount_list; // in the kernel's order; written by ReadProcMounts()
extern std::list<FstabEntry> fstab_list; // written by ReadFstab(); nothing asks it at present
extern time_t fstab_mtime;               // modification time of what ReadFstab() last read
extern std::list<std::string> filesystems_list;       // types that live on block devices
extern std::list<std::string> filesystems_nodev_list; // types that need no device

// Reads /proc/mounts again. When it cannot be opened, one line on stderr and an empty table: every
// device then counts as not mounted.
void ReadProcMounts();

// Every mount at a directory, the one on top last, by /proc/mounts as it is at this moment. Lines
// count at any length: nobody hides a mount by a long name. mount_list stays as it is. False,
// and told on stderr, when the table cannot be read.
bool read_mounts_at(const std::string &mountpoint, std::vector<MountEntry> &mounts);

// Whether a user other than root may have made this mount, with any name for a device: FUSE lets
// him.
bool may_be_any_users(const MountEntry &entry);

// First entry whose category ("device" or "mountpoint") equals value exactly, or null. Any other
// category is one line on stderr and null. The FUSE mount of a user other than root, who can give
// it any name, is no device's mount.
MountEntry *FindMount(const std::string &category, const std::string &value);

// Whether an option of the entry is exactly this word: "rw" is not an option of a mount that says
// "rwx".
bool has_option(const MountEntry &entry, const std::string &option);

// Reads the second table, which also comes from /proc/mounts though its messages name /etc/fstab.
void ReadFstab();

// As FindMount(), in the second table; an unknown category gives null silently.
FstabEntry *FindFstab(const std::string &category, const std::string &value);

// Reads /proc/filesystems again. When it cannot be opened, one line on stderr and the lists stay.
void ReadProcFilesystems();

// Whether the kernel has a filesystem of that type, among those that need no device (nodev 1) or
// among the others.
bool HaveFilesystem(const std::string &name, int nodev);

// Writes both lists for people, each line flushed.
void DumpFilesystems(FILE *stream);

// One line into an entry. False for a line that makes no entry. A line of more than 511 characters
// counts up to there; when its first three fields and "rw" or "ro" do not fit, it makes no entry,
// because half a mount point is the name of another directory.
bool parse_mount_line(std::string_view line, MountEntry &entry);

// The same for the second table, whose fields are cut at tabs when the line has any.
bool parse_fstab_line(std::string_view line, FstabEntry &entry);

#endif
