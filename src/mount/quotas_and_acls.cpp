// Enabling quotas and ACLs by remounting.
#include "mount/quotas_and_acls.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/quota.h>
#include <sys/stat.h>

#include "base/child_process.h"
#include "mount/mount_tables.h"
#include "mount/remounting.h"

static const int vfs_v0_format = 2;             // QFMT_VFS_V0
static const off_t least_quota_file_size = 257; // below it there is only a header

// What the two kinds of quotas differ in.
struct QuotaKind {
    const char *word;   // in diagnostics
    const char *file;   // in the root directory
    const char *option; // names the file to a journalling filesystem
    int type;
};

static const QuotaKind user_quotas = {"user", "aquota.user", ",usrjquota=aquota.user", USRQUOTA};
static const QuotaKind group_quotas = {"group", "aquota.group", ",grpjquota=aquota.group",
                                       GRPQUOTA};

// The entry of a device that is mounted read-write, or null.
static const MountEntry *find_writable(const std::string &name)
{
    const MountEntry *entry = FindMount("device", "/dev/" + name);
    return entry && has_option(*entry, "rw") ? entry : nullptr;
}

// Runs mount(8) to change the options of "/mnt/" + name, which is mounted read-write. Where
// something lies on the drive it is not asked: it would have to do with a stranger's words.
static int remount_with(const std::string &name, const std::string &options)
{
    const std::string directory = "/mnt/" + name;
    const HeldMount held("/dev/" + name, in_mount_table(directory));
    if (held.OnTop() == TOP_IS_ANOTHERS)
        return 0;
    const int succeeded = run_quietly({"mount", "-o", options, directory});
    held.GiveFlagsBack();
    return succeeded;
}

// A link in its place would lead to a file that is not the drive's.
static bool are_present(const std::string &name, const QuotaKind &kind)
{
    struct stat status;
    return lstat(("/mnt/" + name + "/" + kind.file).c_str(), &status) == 0 &&
           S_ISREG(status.st_mode) && status.st_size >= least_quota_file_size;
}

static int switch_on(const std::string &name, const QuotaKind &kind)
{
    const std::string device = "/dev/" + name;
    std::string file = "/mnt/" + name + "/" + kind.file;
    if (quotactl(QCMD(Q_QUOTAON, kind.type), device.c_str(), vfs_v0_format, file.data()) == 0)
        return 1;
    fprintf(stderr, "Failed to enable %s quotas, %s\n", kind.word, strerror(errno));
    return 0;
}

static int switch_on_all(const std::string &name, const MountEntry &entry, bool of_users,
                         bool of_groups)
{
    if (entry.fstype != "ext3" && entry.fstype != "ext4")
        return 0;
    std::string options = "rw,remount,usrquota,grpquota,jqfmt=vfsv0";
    if (of_users)
        options += user_quotas.option;
    if (of_groups)
        options += group_quotas.option;
    if (!remount_with(name, options) && !remount_with(name, "rw,remount,usrquota,grpquota")) {
        fprintf(stderr, "ext3 journalled quota mount options failed\n");
        return 0;
    }
    // Both are tried, whatever becomes of the first.
    const int users_done = !of_users || switch_on(name, user_quotas);
    const int groups_done = !of_groups || switch_on(name, group_quotas);
    return users_done && groups_done;
}

void enable_quotas(const std::string &name, const std::string &)
{
    const MountEntry *entry = find_writable(name);
    if (!entry)
        return;
    const bool of_users = are_present(name, user_quotas);
    const bool of_groups = are_present(name, group_quotas);
    if (!of_users && !of_groups)
        return;
    if (of_users)
        fprintf(stderr, "%s has user quotas\n", name.c_str());
    if (of_groups)
        fprintf(stderr, "%s has group quotas\n", name.c_str());
    if (!switch_on_all(name, *entry, of_users, of_groups))
        fprintf(stderr, "Problem enabling quotas\n");
}

void enable_acls(const std::string &name, const std::string &)
{
    const MountEntry *entry = find_writable(name);
    if (entry && !remount_with(name, "remount,acl"))
        fprintf(stderr, "Problem enabling ACLs, oh well\n");
}
