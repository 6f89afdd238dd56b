// Quotas and access control lists: what is remounted and switched on, and what is said about it.
#include "mount/quotas_and_acls.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>

#include "made_up_machine.h"
#include "mount/mount_tables.h"

using Deeds = std::vector<std::string>;

class QuotasAndAcls : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        SetMount("ext4", "rw,nosuid,nodev,relatime");
        machine.MakeDirectory("/mnt/sdb1");
        RemountsEnd({});
    }

    void SetMount(const std::string &type, const std::string &options,
                  const std::string &mountpoint = "/mnt/sdb1")
    {
        machine.Write("/proc/mounts", "proc /proc proc rw 0 0\n/dev/sdb1 " + mountpoint + " " +
                                          type + " " + options + " 0 0\n");
        ReadProcMounts();
    }

    // From now on mount(8) ends with 32 when its options contain one of these words.
    void RemountsEnd(const std::vector<std::string> &refused)
    {
        machine.on_exec = [=](char *const *arguments) {
            for (const std::string &word : refused) {
                if (std::string(arguments[2]).find(word) != std::string::npos)
                    _exit(32);
            }
        };
    }

    void AddQuotaFile(const std::string &kind, uintmax_t size = 7168)
    {
        const std::string path = "/mnt/sdb1/aquota." + kind;
        machine.Write(path, "");
        std::filesystem::resize_file(machine.RealPath(path), size);
    }

    // What is done to switch quotas on. The deeds are forgotten before.
    Deeds QuotaDeeds()
    {
        const size_t before = machine.Deeds().size();
        enable_quotas("sdb1", "/mnt/sdb1");
        const Deeds deeds = machine.Deeds();
        return {deeds.begin() + static_cast<std::ptrdiff_t>(before), deeds.end()};
    }
};

static const char user_line[] = "sdb1 has user quotas\n";
static const char group_line[] = "sdb1 has group quotas\n";
static const char problem_line[] = "Problem enabling quotas\n";
static const char protect[] = "mount_setattr /mnt/sdb1 6"; // nosuid and nodev
static const char user_call[] = "quotactl 80000200 /dev/sdb1 2 /mnt/sdb1/aquota.user";
static const char group_call[] = "quotactl 80000201 /dev/sdb1 2 /mnt/sdb1/aquota.group";

static std::string remount_deed(const std::string &options)
{
    return "execvp mount mount -o " + options + " /mnt/sdb1";
}

static const char quota_options[] = "rw,remount,usrquota,grpquota,jqfmt=vfsv0";

// Lists are switched on by one remount, which is silent and keeps what protects the machine.
TEST_F(QuotasAndAcls, ListsTakeOneRemount)
{
    enable_acls("sdb1", "/mnt/sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({remount_deed("remount,acl"), protect}));
    EXPECT_EQ(errors.Take(), "");
}

TEST_F(QuotasAndAcls, FailureOfTheListsIsALine)
{
    RemountsEnd({"acl"});
    enable_acls("sdb1", "/mnt/sdb1");
    EXPECT_EQ(errors.Take(), "Problem enabling ACLs, oh well\n");
    EXPECT_EQ(machine.Deeds(), Deeds({remount_deed("remount,acl"), protect}));
    machine.Script(Call::FORK, {fails(EAGAIN)});
    enable_acls("sdb1", "/mnt/sdb1");
    EXPECT_EQ(errors.Take(), "Problem enabling ACLs, oh well\n");
}

// What is mounted read-only, or not at all, is left as it is.
TEST_F(QuotasAndAcls, OnlyWritableMountsAreTouched)
{
    AddQuotaFile("user");
    AddQuotaFile("group");
    machine.ForgetCalls();
    for (const char *options : {"ro,nosuid,nodev", "rwx", "nodev", "errors=rw"}) {
        SetMount("ext4", options);
        machine.ForgetCalls();
        enable_quotas("sdb1", "/mnt/sdb1");
        enable_acls("sdb1", "/mnt/sdb1");
        EXPECT_EQ(machine.SystemCalls(), 0) << options;
    }
    SetMount("ext4", "rw");
    for (const char *name : {"sdb", "sdb2", "/dev/sdb1", ""}) {
        enable_quotas(name, "/mnt/sdb1");
        enable_acls(name, "/mnt/sdb1");
    }
    EXPECT_EQ(machine.Deeds(), Deeds());
    EXPECT_EQ(errors.Take(), "");
}

// Whether it is mounted is taken from the table as last read: whoever mounts has read it again.
// What is on top is looked for at this moment.
TEST_F(QuotasAndAcls, TableIsAsLastRead)
{
    machine.Write("/proc/mounts", "");
    enable_acls("sdb1", "/mnt/sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({remount_deed("remount,acl")}));
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\nx /mnt/sdb1 tmpfs rw 0 0\n");
    enable_acls("sdb1", "/mnt/sdb1");
    EXPECT_EQ(machine.Deeds().size(), 1U);
    EXPECT_EQ(errors.Take(), "Problem enabling ACLs, oh well\n");
}

// The directory is the one below /mnt, whatever the caller says and wherever the device is mounted;
// flags are given back only to the mount that they come from.
TEST_F(QuotasAndAcls, DirectoryIsTheOneBelowMnt)
{
    SetMount("ext4", "rw,nosuid,nodev", "/elsewhere");
    AddQuotaFile("user");
    enable_quotas("sdb1", "/other");
    enable_acls("sdb1", "/other");
    EXPECT_EQ(machine.Deeds(),
              Deeds({remount_deed(std::string(quota_options) + ",usrjquota=aquota.user"), user_call,
                     remount_deed("remount,acl")}));
}

// A mount without protecting flags gets none.
TEST_F(QuotasAndAcls, WithoutFlagsNothingIsGivenBack)
{
    SetMount("ext4", "rw,relatime");
    enable_acls("sdb1", "/mnt/sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({remount_deed("remount,acl")}));
}

// Everything that quota files may be: of exactly 256 bytes there is only a header, 257 count.
TEST_F(QuotasAndAcls, QuotaFilesAreRegularAndHold257Bytes)
{
    for (const char *kind : {"user", "group"}) {
        AddQuotaFile(kind, 0);
        EXPECT_EQ(QuotaDeeds(), Deeds()) << kind;
        AddQuotaFile(kind, 256);
        EXPECT_EQ(QuotaDeeds(), Deeds()) << kind;
        EXPECT_EQ(errors.Take(), "") << kind;
        AddQuotaFile(kind, 257);
        EXPECT_EQ(QuotaDeeds().size(), 3U) << kind;
        EXPECT_EQ(errors.Take(), std::string("sdb1 has ") + kind + " quotas\n");

        const std::string path = std::string("/mnt/sdb1/aquota.") + kind;
        machine.Remove(path);
        machine.MakeDirectory(path);
        EXPECT_EQ(QuotaDeeds(), Deeds()) << kind;
        machine.Remove(path);
        machine.Write("/etc/shadow", std::string(1000, 'x')); // a drive's link leads anywhere
        machine.Link(path, "/etc/shadow");
        EXPECT_EQ(QuotaDeeds(), Deeds()) << kind;
        machine.Remove(path);
    }
    EXPECT_EQ(errors.Take(), "");
}

// The options, calls and lines of each set of quota files, on both types that have them.
TEST_F(QuotasAndAcls, OptionsNameTheFilesThatArePresent)
{
    const std::string user_option = ",usrjquota=aquota.user";
    const std::string group_option = ",grpjquota=aquota.group";
    for (const char *type : {"ext3", "ext4"}) {
        SetMount(type, "rw,nosuid,nodev");
        machine.Remove("/mnt/sdb1/aquota.group");
        AddQuotaFile("user");
        EXPECT_EQ(QuotaDeeds(),
                  Deeds({remount_deed(quota_options + user_option), protect, user_call}));
        EXPECT_EQ(errors.Take(), user_line);

        AddQuotaFile("group");
        EXPECT_EQ(QuotaDeeds(), Deeds({remount_deed(quota_options + user_option + group_option),
                                       protect, user_call, group_call}));
        EXPECT_EQ(errors.Take(), std::string(user_line) + group_line);

        machine.Remove("/mnt/sdb1/aquota.user");
        EXPECT_EQ(QuotaDeeds(),
                  Deeds({remount_deed(quota_options + group_option), protect, group_call}));
        EXPECT_EQ(errors.Take(), group_line);
    }
}

// On every other type the files are told, and that nothing comes of it; nothing is remounted.
TEST_F(QuotasAndAcls, OtherTypesHaveNoQuotas)
{
    AddQuotaFile("user");
    for (const char *type : {"vfat", "ext2", "xfs", "btrfs", "ext34", "EXT4", "ext"}) {
        SetMount(type, "rw");
        EXPECT_EQ(QuotaDeeds(), Deeds()) << type;
        EXPECT_EQ(errors.Take(), std::string(user_line) + problem_line) << type;
    }
}

// A kernel that takes no journalled quotas gets plain ones.
TEST_F(QuotasAndAcls, PlainQuotasStandIn)
{
    AddQuotaFile("user");
    AddQuotaFile("group");
    RemountsEnd({"jqfmt"});
    EXPECT_EQ(QuotaDeeds(), Deeds({remount_deed(std::string(quota_options) +
                                                ",usrjquota=aquota.user,grpjquota=aquota.group"),
                                   protect, remount_deed("rw,remount,usrquota,grpquota"), protect,
                                   user_call, group_call}));
    EXPECT_EQ(errors.Take(), std::string(user_line) + group_line);
}

TEST_F(QuotasAndAcls, WithoutOptionsNothingIsSwitchedOn)
{
    AddQuotaFile("user");
    RemountsEnd({"usrquota"});
    EXPECT_EQ(QuotaDeeds(),
              Deeds({remount_deed(std::string(quota_options) + ",usrjquota=aquota.user"), protect,
                     remount_deed("rw,remount,usrquota,grpquota"), protect}));
    EXPECT_EQ(errors.Take(), std::string(user_line) +
                                 "ext3 journalled quota mount options failed\n" + problem_line);
}

// Each kind fails with its line, and both are tried whatever becomes of the first.
TEST_F(QuotasAndAcls, KindsFailByThemselves)
{
    AddQuotaFile("user");
    AddQuotaFile("group");
    static const struct {
        std::vector<Answer> answers;
        const char *lines;
    } cases[] = {
        {{returns(0), returns(0)}, ""},
        {{fails(ESRCH)}, "Failed to enable user quotas, No such process\n"},
        {{returns(0), fails(EBUSY)}, "Failed to enable group quotas, Device or resource busy\n"},
        {{fails(EPERM), fails(ENOSYS)},
         "Failed to enable user quotas, Operation not permitted\n"
         "Failed to enable group quotas, Function not implemented\n"},
    };
    for (const auto &c : cases) {
        machine.Script(Call::QUOTACTL, c.answers);
        const Deeds deeds = QuotaDeeds();
        EXPECT_EQ(std::count(deeds.begin(), deeds.end(), user_call), 1);
        EXPECT_EQ(std::count(deeds.begin(), deeds.end(), group_call), 1);
        EXPECT_EQ(errors.Take(),
                  std::string(user_line) + group_line + c.lines + (*c.lines ? problem_line : ""));
    }
}
