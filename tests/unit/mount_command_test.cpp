// The mount command: what it refuses, what it does and in which order, and what it answers.
#include "mount/mount_command.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/cdrom.h>
#include <linux/fs.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "inspect/raid_members.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "registry/block_device.h"

using Deeds = std::vector<std::string>;

static const uid_t somebody = 1001;
static const uid_t scheduler = 77;
static const uid_t unknown = static_cast<uid_t>(-1);

static const char hooks[] = "/var/quarryd/mount-notify";

// A machine with the drives sda, sdb and sdc, a partition on each, and an optical drive.
class MountCommand : public MadeUpMachineTest {
public:
    void SetUp() override
    {
        schedule_uid = scheduler;
        for (const char *name : {"sda", "sdb", "sdc"}) {
            const std::string drive = name;
            machine.AddDrive(drive, "2048");
            machine.AddPartition(drive, drive + "1", "1024");
            AddRecord(blockdev_list, drive)->type = "Hard Drive";
            AddRecord(partdev_list, drive + "1")->set_parent(blockdev_list[drive]);
        }
        machine.AddDrive("sr0", "2048");
        AddRecord(blockdev_list, "sr0")->type = "CD-ROM";
        machine.Write("/proc/filesystems",
                      "\text4\n\text3\n\text2\n\tudf\n\txfs\n\thfsplus\n\thfs\n"
                      "\tiso9660\n\tvfat\n\tntfs\n\treiserfs\n\tbtrfs\n");
        ReadProcFilesystems();
        SetTable("");
        machine.on_exec = [this](char *const *arguments) { RunProgram(arguments); };
        machine.on_deed = [this](const std::string &deed) { ActAsKernel(deed); };
        machine.on_ioctl = [this](unsigned long request, void *) {
            ioctls.push_back(request);
            return request == CDROM_DRIVE_STATUS ? disc_status : 0;
        };
    }

    template <typename Device>
    Device *AddRecord(std::map<std::string, Device *> &list, const std::string &name)
    {
        Device *record = list[name] = new Device(name);
        record->filesystem = "ext4";
        record->label = "of " + name; // so that nobody needs to ask for it
        return record;
    }

    void SetTable(const std::string &table)
    {
        machine.Write("/proc/mounts", table);
    }

    // Mounted as the daemon mounts it.
    void SetMounted(const std::string &name, const std::string &options)
    {
        machine.MakeDirectory("/mnt/" + name);
        SetTable("/dev/" + name + " /mnt/" + name + " ext4 " + options + " 0 0\n");
    }

    // Scripts run in the place of these programs: in a child.
    void RunProgram(char *const *arguments)
    {
        const std::string program = arguments[0];
        if (program == "/usr/bin/volsniffer") {
            const std::string answer = answers.contains(arguments[1]) ? answers[arguments[1]] : "";
            if (write(STDOUT_FILENO, answer.data(), answer.size()) < 0 || answer.empty())
                _exit(1);
        }
        if (failing_programs.contains(program))
            _exit(1);
        if (program == "/bin/ntfs-3g" && driver_mounts)
            Show("/dev/sdc1", "/mnt/sdc1", "fuseblk");
    }

    void Show(const std::string &source, const std::string &mountpoint, const std::string &type)
    {
        if (!is_shown)
            return;
        SetTable(source + " " + mountpoint + " " + type + " " + shown_options + " 0 0\n");
    }

    // Mounts what is of the accepted type, and unmounts.
    void ActAsKernel(const std::string &deed)
    {
        char name[32], mountpoint[64], type[32];
        if (sscanf(deed.c_str(), "mount /dev/%31s %63s %31s", name, mountpoint, type) == 3) {
            if (type == accepted_type)
                Show(std::string("/dev/") + name, mountpoint, type);
            else
                machine.Script(Call::MOUNT, {fails(EINVAL)});
        }
        if (deed.starts_with("umount ") && unmount_shows)
            SetTable("");
        if (also_on_deed)
            also_on_deed(deed);
    }

    std::string Ask(const std::string &how, const std::string &word, uid_t uid = 0)
    {
        std::string reply;
        device = word;
        TakeDeeds();
        errors.Take();
        run_mount_command(uid, how, device, reply);
        return reply;
    }

    // What was done since the last call.
    Deeds TakeDeeds()
    {
        Deeds deeds;
        const Deeds all = machine.Deeds();
        for (size_t index = deeds_seen_; index < all.size(); index++) {
            if (!all[index].starts_with("close_range"))
                deeds.push_back(all[index]);
        }
        deeds_seen_ = all.size();
        return deeds;
    }

    void AddHook()
    {
        machine.Write(std::string(hooks) + "/hook", "");
    }

    // This partition is the main one and its swap file is in use, or could be.
    void MakeMain(const std::string &partition, const std::string &drive, bool is_active)
    {
        main_partition = partition;
        main_drive = drive;
        settings.swap_name = "swap";
        swap_path = "/mnt/" + partition + "/swap";
        machine.MakeDirectory("/mnt/" + partition);
        machine.Write("/proc/swaps", std::string("Filename Type Size Used Priority\n") +
                                         (is_active ? swap_path + " file 1 0 -2\n" : ""));
    }

    // The answers of the label probe by the devices' paths.
    std::map<std::string, std::string> answers;
    std::set<std::string> failing_programs;
    std::string accepted_type = "ext4";
    std::string shown_options = "rw,nosuid,nodev";
    bool is_shown = true;      // a mount shows in the table
    bool unmount_shows = true; // an unmount, too
    bool driver_mounts = true;
    int disc_status = CDS_DISC_OK;
    std::vector<unsigned long> ioctls;
    std::function<void(const std::string &deed)> also_on_deed;
    std::string device; // the word of the last request, afterwards
    using MadeUpMachineTest::machine;

private:
    size_t deeds_seen_ = 0;
};

static const char acls[] = "execvp mount mount -o remount,acl /mnt/sdc1";
static const char protect[] = "mount_setattr /mnt/sdc1 6"; // nosuid and nodev come back
static const char swap_on_line[] = "Setting up swapfile on main drive.\n";

// The whole of a mount, in its order.
TEST_F(MountCommand, MountsStepByStep)
{
    partdev_list["sdc1"]->label = "DATA";
    AddHook();
    also_on_deed = [&](const std::string &deed) {
        if (deed.starts_with("mount /dev/")) {
            EXPECT_TRUE(machine.Exists("/mnt/sdc1"));
        }
        if (deed.starts_with("execv hook"))
            machine.Write(deed.ends_with(" mount") ? "/after" : "/before",
                          machine.Exists("/mnt/^DATA") ? "linked" : "no link");
    };
    EXPECT_EQ(Ask("rw", "sdc1", somebody), "OK mount succeeded\n");
    EXPECT_EQ(TakeDeeds(),
              Deeds({"execv hook hook sdc1 about-to-mount", "mount /dev/sdc1 /mnt/sdc1 ext4 6",
                     acls, protect, "execv hook hook /dev/sdc1 mount"}));
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sdc1 -> ext4 (known fs 'ext4')\n");
    EXPECT_EQ(machine.LinkTarget("/mnt/^DATA"), "sdc1");
    std::string text(8, ' ');
    EXPECT_TRUE(std::ifstream(machine.RealPath("/before")).read(text.data(), 7));
    EXPECT_EQ(text, "no link ");
    EXPECT_TRUE(std::ifstream(machine.RealPath("/after")).read(text.data(), 6));
    EXPECT_EQ(text.substr(0, 6), "linked");
}

// Quotas come before lists.
TEST_F(MountCommand, QuotasComeBeforeLists)
{
    machine.Write("/mnt/sdc1/aquota.user", std::string(1000, 'q'));
    EXPECT_EQ(Ask("rw", "sdc1"), "OK mount succeeded\n");
    EXPECT_EQ(TakeDeeds(), Deeds({"mount /dev/sdc1 /mnt/sdc1 ext4 6",
                                  "execvp mount mount -o rw,remount,usrquota,grpquota,jqfmt=vfsv0,"
                                  "usrjquota=aquota.user /mnt/sdc1",
                                  protect, "quotactl 80000200 /dev/sdc1 2 /mnt/sdc1/aquota.user",
                                  acls, protect}));
}

// A name and a path below /dev are the same device; the word becomes the name.
TEST_F(MountCommand, PathsAndNamesAreTheSame)
{
    shown_options = "ro,nosuid,nodev";
    EXPECT_EQ(Ask("ro", "sdc1"), "OK mount succeeded\n");
    const Deeds deeds = TakeDeeds();
    EXPECT_EQ(deeds, Deeds({"mount /dev/sdc1 /mnt/sdc1 ext4 7"}));
    EXPECT_EQ(device, "sdc1");
    SetTable("");
    EXPECT_EQ(Ask("ro", "/dev/sdc1"), "OK mount succeeded\n");
    EXPECT_EQ(TakeDeeds(), deeds);
    EXPECT_EQ(device, "sdc1");
    for (const char *word :
         {"/dev//dev/sdc1", "dev/sdc1", "/dev/", "/dev", "/mnt/sdc1", "sdc1 ", "", "SDC1", "sdc10"})
        EXPECT_EQ(Ask("ro", word), "ERR device does not exist or is not maintained by this service")
            << word;
}

// Every refusal before the mount table is looked at, in the order of precedence.
TEST_F(MountCommand, GuardsStandInTheirOrder)
{
    static const char no_label[] = "ERR Label not found";
    static const char no_device[] =
        "ERR device does not exist or is not maintained by this service";
    static const char no_rights[] = "ERR authorization required";
    static const char no_schedule[] =
        "ERR schedule items are not allowed to manipulate mount points";
    static const char no_mode[] = "ERR unknown mount mode";
    static const char main_wanted[] =
        "ERR please operate on main partition, not the surrounding main drive";
    static const char boot_wanted[] =
        "ERR please operate on boot partition, not the surrounding boot drive";
    static const struct {
        const char *how, *word;
        uid_t uid;
        const char *reply;
        bool switches_swap_off;
    } cases[] = {
        {"bad", "^NONE", unknown, no_label, false},
        {"bad", "^NONE", scheduler, no_label, false},
        {"bad", "none", unknown, no_device, false},
        {"bad", "none", scheduler, no_device, false},
        {"bad", "sdc1", unknown, no_rights, false},
        {"ro", "sda1", unknown, no_rights, false},
        {"ro", "sdb1", unknown, no_rights, false},
        {"bad", "sdc1", scheduler, no_schedule, false},
        {"ro", "sdb1", scheduler, no_schedule, false},
        {"off", "sdc1", scheduler, no_schedule, false},
        {"bad", "sdc1", 0, no_mode, false},
        {"bad", "sdb", 0, no_mode, false}, // before the drives are told apart
        {"bad", "sda", somebody, no_mode, false},
        {"bad", "sdb1", somebody, no_mode, false},
        {"", "sdc1", 0, no_mode, false},
        {"RO", "sdc1", 0, no_mode, false},
        {"ro ", "sdc1", 0, no_mode, false},
        {"rude", "sdc1", 0, no_mode, false},
        {"ruderw", "sdc1", 0, no_mode, false},
        {"rudeoffx", "sdc1", 0, no_mode, false},
        {"xro", "sdc1", 0, no_mode, false},
        {"xrw", "sdc1", 0, no_mode, false},
        {"xoff", "sdc1", 0, no_mode, false},
        {"umount", "sdc1", 0, no_mode, false},
        {"ro", "sdb", 0, main_wanted, false},
        {"off", "sdb", somebody, main_wanted, false}, // before rights
        {"rw", "sda", 0, boot_wanted, false},
        {"off", "sda", somebody, boot_wanted, false},
        {"ro", "sda1", somebody, no_rights, false},
        {"off", "sda1", somebody, no_rights, false},
        {"rw", "sdb1", somebody, no_rights, false},
        {"ro", "sdb1", somebody, no_rights, true}, // refused, and yet swap is off
        {"off", "sdb1", somebody, no_rights, true},
        {"rudeoff", "sdb1", somebody, no_rights, true},
        {"rudero", "sdb1", somebody, no_rights, true},
    };
    boot_drive = "sda";
    boot_partition = "sda1";
    MakeMain("sdb1", "sdb", true);
    for (const auto &c : cases) {
        machine.ForgetCalls();
        const std::string request = std::string(c.how) + " " + c.word + " " + std::to_string(c.uid);
        EXPECT_EQ(Ask(c.how, c.word, c.uid), c.reply) << request;
        EXPECT_EQ(TakeDeeds(), c.switches_swap_off ? Deeds({"swapoff /mnt/sdb1/swap"}) : Deeds())
            << request;
        EXPECT_EQ(machine.Opened("/proc/mounts"), 0) << request;
    }
    main_drive = "sda"; // both at once
    EXPECT_EQ(Ask("ro", "sda"), main_wanted);
}

// A drive whose partition is not known is guarded itself.
TEST_F(MountCommand, DrivesWithoutAPartitionAreGuardedThemselves)
{
    boot_drive = "sda";
    main_drive = "sdb";
    for (const char *name : {"sda", "sdb"}) {
        EXPECT_EQ(Ask("ro", name, somebody), "ERR authorization required") << name;
        EXPECT_EQ(Ask("rw", name, 0), "OK mount succeeded\n") << name;
        SetTable("");
    }
    EXPECT_EQ(Ask("rw", "sdc", somebody), "OK mount succeeded\n");
}

// Swap is switched off before anything but read-write is done to the main partition; that it
// cannot be switched off stops nothing.
TEST_F(MountCommand, MainPartitionGoesWithoutItsSwap)
{
    MakeMain("sdb1", "sdb", true);
    EXPECT_EQ(Ask("off", "sdb1"), "OK its not mounted anyway");
    EXPECT_EQ(TakeDeeds(), Deeds({"swapoff /mnt/sdb1/swap"}));
    SetMounted("sdb1", "rw");
    machine.Script(Call::SWAPOFF, {fails(ENOMEM)});
    EXPECT_EQ(Ask("ro", "sdb1"), "OK remounted as r/o");
    EXPECT_EQ(TakeDeeds(), Deeds({"swapoff /mnt/sdb1/swap", "mount '' /mnt/sdb1 '' 33"}));
    EXPECT_EQ(Ask("rw", "sdb1"), "OK already mounted read/write");
    EXPECT_EQ(TakeDeeds(), Deeds());
    EXPECT_EQ(Ask("off", "sdc1"), "OK its not mounted anyway");
    EXPECT_EQ(TakeDeeds(), Deeds());
}

// Whatever root asks for, a boot device that is read-only stays, one that is not mounted is
// mounted read-only, and only one that is read-write goes.
TEST_F(MountCommand, BootDeviceIsMadeReadOnlyForRoot)
{
    boot_drive = "sda";
    boot_partition = "sda1";
    for (const char *how : {"off", "rudeoff"}) {
        SetMounted("sda1", "ro");
        EXPECT_EQ(Ask(how, "sda1"), "OK already mounted read/only");
        EXPECT_EQ(TakeDeeds(), Deeds());
        SetTable("");
        shown_options = "ro";
        EXPECT_EQ(Ask(how, "sda1"), "OK mount succeeded\n");
        EXPECT_EQ(TakeDeeds(), Deeds({"mount /dev/sda1 /mnt/sda1 ext4 7"}));
        SetMounted("sda1", "rw");
        EXPECT_EQ(Ask(how, "sda1"), "OK unmount succeeded");
        EXPECT_EQ(machine.Deeds("umount /mnt/sda1").size(), how[0] == 'o' ? 1U : 2U);
    }
    boot_partition.clear(); // a drive without partitions
    SetMounted("sda", "ro");
    EXPECT_EQ(Ask("off", "sda"), "OK already mounted read/only");
    shown_options = "rw";
    SetTable("");
    EXPECT_EQ(Ask("rw", "sda"), "OK mount succeeded\n"); // what is asked for is left as it is
    EXPECT_EQ(TakeDeeds().front(), "mount /dev/sda /mnt/sda ext4 6");
    SetMounted("sdb1", "ro"); // nobody else's
    EXPECT_EQ(Ask("off", "sdb1"), "OK unmount succeeded");
}

// What is not mounted cannot be unmounted, and that is no error.
TEST_F(MountCommand, UnmountedStaysUnmounted)
{
    AddHook();
    SetTable("/dev/sdc10 /mnt/sdc1 ext4 rw 0 0\n/dev/sdc /mnt/x ext4 rw 0 0\n");
    for (const char *how : {"off", "rudeoff"}) {
        EXPECT_EQ(Ask(how, "sdc1", somebody), "OK its not mounted anyway");
        EXPECT_EQ(TakeDeeds(), Deeds());
        EXPECT_EQ(errors.Take(), "");
    }
}

// The table is read afresh for every request.
TEST_F(MountCommand, TableIsReadForEveryRequest)
{
    SetMounted("sdc1", "rw");
    EXPECT_EQ(Ask("rw", "sdc1"), "OK already mounted read/write");
    SetMounted("sdc1", "ro");
    EXPECT_EQ(Ask("ro", "sdc1"), "OK already mounted read/only");
    EXPECT_EQ(Ask("rudero", "sdc1"), "OK already mounted read/only");
    EXPECT_EQ(TakeDeeds(), Deeds());
    EXPECT_EQ(errors.Take(), "");
}

// A remount changes one thing: the scripts hear of it, and what protected the machine comes back.
TEST_F(MountCommand, RemountsInBothDirections)
{
    AddHook();
    machine.MakeDirectory("/some/where");
    SetTable("/dev/sdc1 /some/where ext4 ro,nosuid,nodev,noexec 0 0\n");
    EXPECT_EQ(Ask("rw", "sdc1", somebody), "OK remounted as r/w");
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook sdc1 remount-rw", "mount '' /some/where '' 32",
                                  "mount_setattr /some/where 14"}));
    SetTable("/dev/sdc1 /some/where ext4 rw,nosuid,nodev 0 0\n");
    EXPECT_EQ(Ask("ro", "sdc1", somebody), "OK remounted as r/o");
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook sdc1 remount-ro", "mount '' /some/where '' 33",
                                  "mount_setattr /some/where 6"}));
    EXPECT_EQ(errors.Take(), "");
}

// Scripts have no say in a remount or an unmount.
TEST_F(MountCommand, OnlyAMountCanBeVetoed)
{
    AddHook();
    failing_programs = {"hook"};
    SetMounted("sdc1", "ro");
    EXPECT_EQ(Ask("rw", "sdc1"), "OK remounted as r/w");
    SetMounted("sdc1", "rw");
    EXPECT_EQ(Ask("ro", "sdc1"), "OK remounted as r/o");
    EXPECT_EQ(Ask("off", "sdc1"), "OK unmount succeeded");
    EXPECT_EQ(Ask("ro", "sdc1"), "ERR mounting was vetoed by notification script");
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook sdc1 about-to-mount"}));
    EXPECT_FALSE(machine.Exists("/mnt/sdc1")); // no directory was made
}

TEST_F(MountCommand, RemountThatFailsIsToldAndChangesNothing)
{
    for (const bool read_only : {true, false}) {
        SetMounted("sdc1", read_only ? "rw,nosuid" : "ro,nosuid");
        machine.Script(Call::MOUNT, {fails(EBUSY)});
        EXPECT_EQ(Ask(read_only ? "ro" : "rw", "sdc1"), "ERR cannot remount");
        EXPECT_EQ(errors.Take(), "Cannot remount sdc1 Device or resource busy\n");
        EXPECT_EQ(TakeDeeds(),
                  Deeds({read_only ? "mount '' /mnt/sdc1 '' 33" : "mount '' /mnt/sdc1 '' 32"}));
    }
}

// The rude way to read-only drives out those who could write, and spares the others.
TEST_F(MountCommand, RudeRemountDrivesOutWriters)
{
    SetMounted("sdc1", "rw");
    machine.Write("/mnt/sdc1/written", "");
    machine.Write("/mnt/sdc1/read", "");
    machine.SetMode("/mnt/sdc1/written", 0644);
    machine.SetMode("/mnt/sdc1/read", 0444);
    machine.AddProcess(12, "editor", {"/mnt/sdc1/written"});
    machine.AddProcess(13, "viewer", {"/mnt/sdc1/read"});
    also_on_deed = [&](const std::string &deed) {
        if (deed == "kill 12 15")
            machine.Remove("/proc/12");
    };
    AddHook();
    EXPECT_EQ(Ask("rudero", "sdc1"), "OK remounted as r/o");
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook sdc1 remount-ro",
                                  "log 6 12: editor is using mount points. terminating...",
                                  "kill 12 15", "usleep 100000", "mount '' /mnt/sdc1 '' 33"}));
    EXPECT_TRUE(machine.Exists("/proc/13"));
    SetMounted("sdc1", "rw");
    machine.AddProcess(12, "editor", {"/mnt/sdc1/written"});
    EXPECT_EQ(Ask("ro", "sdc1"), "OK remounted as r/o"); // politely
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook sdc1 remount-ro", "mount '' /mnt/sdc1 '' 33"}));
}

// A rude unmount drives everybody out, after the scripts were told and before the unmount.
TEST_F(MountCommand, RudeUnmountDrivesEverybodyOut)
{
    SetMounted("sdc1", "rw");
    machine.Write("/mnt/sdc1/read", "");
    machine.SetMode("/mnt/sdc1/read", 0444);
    machine.AddProcess(13, "viewer", {"/mnt/sdc1/read"});
    also_on_deed = [&](const std::string &deed) {
        if (deed == "kill 13 15")
            machine.Remove("/proc/13");
        if (deed.starts_with("umount"))
            machine.Remove("/mnt/sdc1/read");
    };
    AddHook();
    EXPECT_EQ(Ask("rudeoff", "sdc1", somebody), "OK unmount succeeded");
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook /dev/sdc1 umount",
                                  "log 6 13: viewer is using mount points. terminating...",
                                  "kill 13 15", "usleep 100000", "umount /mnt/sdc1"}));
    EXPECT_FALSE(machine.Exists("/mnt/sdc1"));
}

// The whole of an unmount: directory and label link go after it.
TEST_F(MountCommand, UnmountsStepByStep)
{
    partdev_list["sdc1"]->label = "DATA";
    machine.Link("/mnt/^DATA", "sdc1");
    SetMounted("sdc1", "rw");
    AddHook();
    also_on_deed = [&](const std::string &deed) {
        if (deed.starts_with("umount")) {
            EXPECT_TRUE(machine.Exists("/mnt/sdc1"));
            EXPECT_TRUE(machine.Exists("/mnt/^DATA"));
        }
    };
    EXPECT_EQ(Ask("off", "sdc1", somebody), "OK unmount succeeded");
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook /dev/sdc1 umount", "umount /mnt/sdc1"}));
    EXPECT_EQ(errors.Take(), "");
    EXPECT_FALSE(machine.Exists("/mnt/sdc1"));
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
}

// A directory that cannot be removed is left without a word.
TEST_F(MountCommand, DirectoryInUseStays)
{
    SetMounted("sdc1", "rw");
    machine.Write("/mnt/sdc1/hidden below the mount", "");
    EXPECT_EQ(Ask("off", "sdc1"), "OK unmount succeeded");
    EXPECT_TRUE(machine.Exists("/mnt/sdc1"));
    EXPECT_EQ(errors.Take(), "");
}

// A polite request fails where somebody is busy, and does nobody any harm.
TEST_F(MountCommand, PoliteUnmountSparesEverybody)
{
    SetMounted("sdc1", "rw");
    machine.AddProcess(13, "viewer", {"/mnt/sdc1/read"});
    unmount_shows = false;
    machine.Script(Call::UMOUNT, {fails(EBUSY), fails(EBUSY)});
    EXPECT_EQ(Ask("off", "sdc1"), "ERR unmount failed");
    EXPECT_EQ(TakeDeeds(), Deeds({"umount /mnt/sdc1", "sleep 2", "umount /mnt/sdc1"}));
}

// A busy device gets a second try after two seconds, and then is left as it was.
TEST_F(MountCommand, BusyUnmountIsTriedTwice)
{
    partdev_list["sdc1"]->label = "DATA";
    machine.Link("/mnt/^DATA", "sdc1");
    SetMounted("sdc1", "rw");
    unmount_shows = false;
    machine.Script(Call::UMOUNT, {fails(EBUSY), fails(EPERM)});
    EXPECT_EQ(Ask("off", "sdc1"), "ERR unmount failed");
    EXPECT_EQ(TakeDeeds(), Deeds({"umount /mnt/sdc1", "sleep 2", "umount /mnt/sdc1"}));
    EXPECT_EQ(errors.Take(), "wait: umount failed. Device or resource busy\n"
                             "yup, cannot unmount Operation not permitted\n");
    EXPECT_TRUE(machine.Exists("/mnt/sdc1"));
    EXPECT_TRUE(machine.Exists("/mnt/^DATA"));

    unmount_shows = true;
    machine.Script(Call::UMOUNT, {fails(EBUSY)});
    EXPECT_EQ(Ask("off", "sdc1"), "OK unmount succeeded");
    EXPECT_EQ(TakeDeeds(), Deeds({"umount /mnt/sdc1", "sleep 2", "umount /mnt/sdc1"}));
    EXPECT_EQ(errors.Take(), "wait: umount failed. Device or resource busy\n");
    EXPECT_FALSE(machine.Exists("/mnt/sdc1"));
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
}

// A device that is still listed counts as not unmounted, even when the kernel lets go of it during
// the second that is waited; its directory and label link are gone.
TEST_F(MountCommand, StillListedDeviceCountsAsMounted)
{
    for (const bool lets_go : {false, true}) {
        partdev_list["sdc1"]->label = "DATA";
        machine.Remove("/mnt/^DATA");
        machine.Link("/mnt/^DATA", "sdc1");
        SetMounted("sdc1", "rw");
        unmount_shows = false;
        also_on_deed = [&](const std::string &deed) {
            if (lets_go && deed == "sleep 1")
                SetTable("");
        };
        machine.ForgetCalls();
        EXPECT_EQ(Ask("off", "sdc1"), "ERR unmount failed");
        EXPECT_EQ(TakeDeeds(), Deeds({"umount /mnt/sdc1", "sleep 1"}));
        EXPECT_EQ(errors.Take(), "For unmounting sdc1 it's still there in procfs?\n"
                                 "sdc1still there?!?!?\n");
        EXPECT_EQ(machine.Opened("/proc/mounts"), 2);
        EXPECT_FALSE(machine.Exists("/mnt/sdc1"));
        EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
    }
}

// The table's escapes are no part of a path.
TEST_F(MountCommand, MountPointsAreUsedWithoutEscapes)
{
    const std::string table = "/dev/sdc1 /mnt/my\\040disk ext4 ";
    SetTable(table + "ro,nosuid 0 0\n");
    machine.MakeDirectory("/mnt/my disk");
    EXPECT_EQ(Ask("rw", "sdc1"), "OK remounted as r/w");
    EXPECT_EQ(TakeDeeds(), Deeds({"mount '' /mnt/my disk '' 32", "mount_setattr /mnt/my disk 2"}));
    machine.Write("/mnt/my disk/file", "");
    machine.AddProcess(12, "editor", {"/mnt/my disk/file"});
    also_on_deed = [&](const std::string &deed) {
        if (deed == "kill 12 15")
            machine.Remove("/proc/12");
    };
    SetTable(table + "rw,nosuid 0 0\n");
    EXPECT_EQ(Ask("rudero", "sdc1"), "OK remounted as r/o");
    EXPECT_EQ(TakeDeeds(), Deeds({"log 6 12: editor is using mount points. terminating...",
                                  "kill 12 15", "usleep 100000", "mount '' /mnt/my disk '' 33",
                                  "mount_setattr /mnt/my disk 2"}));
    machine.Remove("/mnt/my disk/file");
    EXPECT_EQ(Ask("off", "sdc1"), "OK unmount succeeded");
    EXPECT_EQ(TakeDeeds(), Deeds({"umount /mnt/my disk"}));
    EXPECT_FALSE(machine.Exists("/mnt/my disk"));
}

// Whole drives that are no hard drives are flushed by their bare names, twice, whatever becomes of
// the request.
TEST_F(MountCommand, RemovableDrivesAreFlushed)
{
    ASSERT_EQ(chdir("/dev"), 0);
    blockdev_list["sdc"]->type = "Unknown";
    std::vector<std::string> order;
    also_on_deed = [&](const std::string &deed) {
        if (deed == "fsync")
            order.push_back("fsync");
    };
    machine.on_ioctl = [&](unsigned long request, void *) {
        order.push_back(request == BLKFLSBUF ? "flush" : "?");
        return 0;
    };
    static const struct {
        const char *how, *options, *reply;
        bool flushes;
    } cases[] = {
        {"ro", "rw", "OK remounted as r/o", true},
        {"ro", "ro", "OK already mounted read/only", true},
        {"rudero", "rw", "OK remounted as r/o", true},
        {"rw", "ro", "OK remounted as r/w", false},
        {"rw", "rw", "OK already mounted read/write", false},
        {"off", "rw", "OK unmount succeeded", true},
        {"rudeoff", "ro", "OK unmount succeeded", true},
    };
    for (const auto &c : cases) {
        SetMounted("sdc", c.options);
        order.clear();
        machine.ForgetCalls();
        EXPECT_EQ(Ask(c.how, "sdc"), c.reply);
        EXPECT_EQ(errors.Take(),
                  c.flushes ? "Flushing sdc before letting go\nFlushing device sdc\n" : "")
            << c.how;
        EXPECT_EQ(order, c.flushes ? Deeds({"fsync", "flush", "fsync", "flush"}) : Deeds());
        EXPECT_EQ(machine.OpenFlags("sdc"),
                  c.flushes ? O_RDWR | O_EXCL | O_NONBLOCK | O_CLOEXEC : -1);
    }
}

// Hard drives and partitions have nothing to flush, and neither has what is not mounted.
TEST_F(MountCommand, OnlyRemovableDrivesAreFlushed)
{
    ASSERT_EQ(chdir("/dev"), 0);
    SetMounted("sdc", "ro");
    EXPECT_EQ(Ask("ro", "sdc"), "OK already mounted read/only");
    blockdev_list["sdc"]->type = "Unknown";
    SetMounted("sdc1", "ro");
    EXPECT_EQ(Ask("ro", "sdc1"), "OK already mounted read/only");
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(Ask("off", "sdc"), "OK its not mounted anyway");
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(machine.Calls(Call::FSYNC), 0);
}

// Where the device nodes are not at hand nothing is flushed; a flush that fails is a line each.
TEST_F(MountCommand, FlushThatFailsStopsNothing)
{
    blockdev_list["sdc"]->type = "";
    ASSERT_EQ(chdir("/mnt"), 0);
    SetMounted("sdc", "ro");
    machine.Remove("/mnt/sdc");
    EXPECT_EQ(Ask("ro", "sdc"), "OK already mounted read/only");
    EXPECT_EQ(errors.Take(), "Flushing sdc before letting go\n");

    ASSERT_EQ(chdir("/dev"), 0);
    machine.Script(Call::IOCTL, {fails(EIO), fails(ENOTTY)});
    machine.Script(Call::FSYNC, {fails(EIO)});
    EXPECT_EQ(Ask("ro", "sdc"), "OK already mounted read/only");
    EXPECT_EQ(errors.Take(), "Flushing sdc before letting go\nFlushing device sdc\n"
                             "BLKFLSBUF failed Input/output error\n"
                             "BLKFLSBUF failed Inappropriate ioctl for device\n");
}

// A disc is mounted read-only, whatever is asked for, and never becomes writable.
TEST_F(MountCommand, DiscsAreReadOnly)
{
    shown_options = "ro,nosuid,nodev";
    accepted_type = "iso9660";
    blockdev_list["sr0"]->filesystem = "iso9660";
    EXPECT_EQ(Ask("rw", "sr0"), "OK mount succeeded\n");
    EXPECT_EQ(TakeDeeds(), Deeds({"mount /dev/sr0 /mnt/sr0 iso9660 7"}));
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sr0 -> iso9660 (known fs 'iso9660')\n");

    AddHook();
    EXPECT_EQ(Ask("rw", "sr0"), "OK but CD-ROM drives are readonly");
    EXPECT_EQ(TakeDeeds(), Deeds());
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(Ask("ro", "sr0"), "OK already mounted read/only");
    shown_options = "rw"; // of a driver that writes all the same
    SetTable("");
    EXPECT_EQ(Ask("rw", "sr0"), "OK- mount succeeded\nOK warning: for some bizarre reason your "
                                "mount r/o request has been granted as r/w");
}

// An empty drive is asked, not tried.
TEST_F(MountCommand, EmptyOpticalDriveIsRefused)
{
    AddHook();
    for (int status : {CDS_NO_DISC, CDS_TRAY_OPEN, CDS_DRIVE_NOT_READY}) {
        disc_status = status;
        EXPECT_EQ(Ask("ro", "sr0", somebody), "ERR CD-ROM drive without media");
        EXPECT_EQ(TakeDeeds(), Deeds());
    }
    EXPECT_EQ(ioctls.size(), 3U);
    blockdev_list["sr0"]->type = "Hard Drive"; // nobody else is asked
    EXPECT_EQ(Ask("ro", "sr0"), "OK- mount succeeded\nOK warning: for some bizarre reason your "
                                "mount r/o request has been granted as r/w");
    EXPECT_EQ(ioctls.size(), 3U);
}

// Parts of an array are not mounted: neither those that are known, in use or not, nor those whose
// superblock tells.
TEST_F(MountCommand, RaidMembersAreRefused)
{
    AddHook();
    for (const bool is_active : {true, false}) {
        raid_members["sdc1"] = is_active;
        EXPECT_EQ(Ask("ro", "sdc1"), "ERR device is part of a RAID array");
    }
    SetTable("/dev/sdc1 /somewhere ext4 rw 0 0\n");
    EXPECT_EQ(Ask("rw", "sdc1"), "OK already mounted read/write"); // one that is mounted, is
    SetTable("");
    raid_members.clear();
    raid_members["sdc"] = true; // not the partition
    const std::string place = machine.RealPath("/dev/sdc1");
    std::fstream(place, std::ios::in | std::ios::out | std::ios::binary)
        .seekp(4096)
        .write("\xFC\x4E\x2B\xA9\x01\0\0\0\0\0\0\0", 12);
    EXPECT_EQ(Ask("ro", "sdc1"), "ERR device appears to be RAID array participant");
    EXPECT_EQ(TakeDeeds(), Deeds());
    EXPECT_FALSE(machine.Exists("/mnt/sdc1"));
}

// A device may go between two checks.
TEST_F(MountCommand, DeviceMayGoBetweenTheChecks)
{
    AddHook();
    machine.ForgetCalls();
    machine.Remove("/dev/sdc1");
    EXPECT_EQ(Ask("ro", "sdc1"), "ERR I can't open the device, much less mount it");
    EXPECT_EQ(TakeDeeds(), Deeds());
    EXPECT_EQ(machine.OpenFlags("/dev/sdc1"), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC);
    machine.Refuse("/dev/sdc", EBUSY);
    EXPECT_EQ(Ask("rw", "sdc"), "ERR I can't open the device, much less mount it");
    machine.Remove("/dev/sr0");
    EXPECT_EQ(Ask("rw", "sr0"), "ERR CD-ROM drive without media");

    MakeMain("sdb1", "sdb", true);
    also_on_deed = [](const std::string &deed) {
        if (!deed.starts_with("swapoff"))
            return;
        PartitionDevice *partition = partdev_list["sdb1"];
        partition->set_parent(nullptr);
        partdev_list.erase("sdb1");
        partition->release();
        delete partition;
    };
    EXPECT_EQ(Ask("ro", "sdb1"), "ERR failed to lookup device");
}

// The probe is asked once, by the path, for the record of the partition or else of the drive.
TEST_F(MountCommand, UnknownFilesystemIsProbed)
{
    const std::string probe = "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/";
    answers = {{"/dev/sdc", "WHOLE\nfilesystem: xfs\n"}, {"/dev/sdc1", "PART\nfilesystem: ext2\n"}};
    blockdev_list["sdc"]->filesystem = "";
    partdev_list["sdc1"]->filesystem = "";
    EXPECT_EQ(Ask("rw", "sdc1"), "OK mount succeeded\n");
    Deeds deeds = TakeDeeds();
    EXPECT_EQ(deeds[0], probe + "sdc1 --fs");
    EXPECT_EQ(deeds[1], "mount /dev/sdc1 /mnt/sdc1 ext4 6");
    EXPECT_EQ(partdev_list["sdc1"]->filesystem, "ext2");
    EXPECT_EQ(partdev_list["sdc1"]->label, "PART");
    EXPECT_EQ(machine.LinkTarget("/mnt/^PART"), "sdc1");
    EXPECT_NE(errors.Take().find("(known fs 'ext2')"), std::string::npos);
    EXPECT_EQ(blockdev_list["sdc"]->filesystem, "");
    SetTable("");
    accepted_type = "xfs";
    EXPECT_EQ(Ask("rw", "sdc"), "OK mount succeeded\n");
    deeds = TakeDeeds();
    EXPECT_EQ(deeds[0], probe + "sdc --fs");
    EXPECT_EQ(deeds[1], "mount /dev/sdc /mnt/sdc xfs 6");
    EXPECT_EQ(blockdev_list["sdc"]->label, "WHOLE");
    SetTable("");
    EXPECT_EQ(Ask("rw", "sdc"), "OK mount succeeded\n"); // known now
    EXPECT_EQ(TakeDeeds().front(), "mount /dev/sdc /mnt/sdc xfs 6");
}

// A probe that finds nothing leaves all candidates, and is asked before the scripts are.
TEST_F(MountCommand, ProbeInVainLeavesAllCandidates)
{
    AddHook();
    partdev_list["sdc1"]->filesystem = "";
    accepted_type = "udf";
    EXPECT_EQ(Ask("rw", "sdc1"), "OK mount succeeded\n");
    const Deeds deeds = TakeDeeds();
    EXPECT_EQ(deeds[0], "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdc1 --fs");
    EXPECT_EQ(deeds[1], "execv hook hook sdc1 about-to-mount");
    EXPECT_EQ(deeds[5], "mount /dev/sdc1 /mnt/sdc1 udf 6");
    EXPECT_EQ(partdev_list["sdc1"]->filesystem, " ");
    EXPECT_NE(errors.Take().find("-> udf (known fs ' ')\n"), std::string::npos);
}

// Of a partition and a drive of one name it is the partition whose filesystem counts.
TEST_F(MountCommand, PartitionsRecordComesFirst)
{
    AddRecord(partdev_list, "sdc")->filesystem = "xfs";
    accepted_type = "xfs";
    EXPECT_EQ(Ask("rw", "sdc"), "OK mount succeeded\n");
    EXPECT_EQ(TakeDeeds().front(), "mount /dev/sdc /mnt/sdc xfs 6");
}

// The directory is made for everybody, or is there; without one nothing is mounted.
TEST_F(MountCommand, MountNeedsItsDirectory)
{
    const mode_t old = umask(0);
    EXPECT_EQ(Ask("rw", "sdc1"), "OK mount succeeded\n");
    umask(old);
    struct stat status;
    ASSERT_EQ(stat("/mnt/sdc1", &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0777));
    SetTable("");
    machine.Script(Call::MKDIR, {fails(EEXIST)});
    EXPECT_EQ(Ask("rw", "sdc1"), "OK mount succeeded\n");
    SetTable("");
    machine.Remove("/mnt/sdc1");
    machine.Script(Call::MKDIR, {fails(EROFS)});
    EXPECT_EQ(Ask("rw", "sdc1"), "ERR unable to create mountpoint");
    machine.Refuse("/mnt/sdc1", EIO);
    EXPECT_EQ(Ask("rw", "sdc1"), "ERR unable to create mountpoint");
    EXPECT_EQ(TakeDeeds(), Deeds());
}

// When no driver mounts, the directory stays and nothing else is done.
TEST_F(MountCommand, MountThatFailsLeavesItsDirectory)
{
    AddHook();
    accepted_type = "none";
    EXPECT_EQ(Ask("rw", "sdc1"), "ERR mount failed");
    EXPECT_EQ(TakeDeeds(),
              Deeds({"execv hook hook sdc1 about-to-mount", "mount /dev/sdc1 /mnt/sdc1 ext4 6",
                     "mount /dev/sdc1 /mnt/sdc1 ext3 6", "mount /dev/sdc1 /mnt/sdc1 ext2 6"}));
    EXPECT_TRUE(machine.Exists("/mnt/sdc1"));
}

// A missing medium ends the search at its first candidate.
TEST_F(MountCommand, MissingMediumIsAFailedMount)
{
    machine.Script(Call::MOUNT, {fails(ENOMEDIUM)});
    is_shown = false;
    EXPECT_EQ(Ask("rw", "sdc1"), "ERR mount failed");
    EXPECT_EQ(TakeDeeds(), Deeds({"mount /dev/sdc1 /mnt/sdc1 ext4 6"}));
}

// A mount that the table never shows has failed after eleven seconds; one that shows late, not.
TEST_F(MountCommand, MountMustShowInTheTable)
{
    is_shown = false;
    EXPECT_EQ(Ask("rw", "sdc1"), "ERR mount failed");
    Deeds expected(11, "sleep 1");
    expected.insert(expected.begin(), "mount /dev/sdc1 /mnt/sdc1 ext4 6");
    EXPECT_EQ(TakeDeeds(), expected);

    also_on_deed = [&, slept = 0](const std::string &deed) mutable {
        slept += deed == "sleep 1";
        if (slept == 4)
            SetTable("/dev/sdc1 /mnt/sdc1 ext4 rw 0 0\n");
    };
    EXPECT_EQ(Ask("rw", "sdc1"), "OK mount succeeded\n");
    EXPECT_EQ(TakeDeeds(), Deeds({"mount /dev/sdc1 /mnt/sdc1 ext4 6", "sleep 1", "sleep 1",
                                  "sleep 1", "sleep 1", acls}));
}

// A wait that the daemon's stop cuts short has its own reply.
TEST_F(MountCommand, StopDuringTheWaitHasItsReply)
{
    AddHook();
    is_shown = false;
    also_on_deed = [](const std::string &deed) { terminate_requested = deed == "sleep 1"; };
    EXPECT_EQ(Ask("rw", "sdc1"), "ERR mount succeeded but procfs doesn't show it");
    EXPECT_EQ(TakeDeeds(), Deeds({"execv hook hook sdc1 about-to-mount",
                                  "mount /dev/sdc1 /mnt/sdc1 ext4 6", "sleep 1"}));
}

// What the client is told, by what was asked for, what came of it, and which driver it was.
TEST_F(MountCommand, SuccessHasFourReplies)
{
    static const char plain[] = "OK mount succeeded\n";
    static const char problem[] = "OK- mount succeded\nOK warning: Despite your request, the drive "
                                  "is mounted read only. There may be a problem with the disk";
    static const char ignored[] =
        "OK- mount succeded\nOK warning: You're asking the NTFS driver to "
        "mount read-write which is not supported, and of course it "
        "ignored you";
    static const char bizarre[] = "OK- mount succeeded\nOK warning: for some bizarre reason your "
                                  "mount r/o request has been granted as r/w";
    static const char senses[] =
        "Warning: client asked to mount sdc1 rw, but driver mounted read-only.\n"
        "perhaps the driver senses a problem?\n";
    static const char whoah[] =
        "Whoah! Your Linux kernel NTFS driver supports writing! This is dangerous!\n";
    static const struct {
        const char *how, *type, *options;
        bool by_driver_program;
        const char *reply, *lines;
    } cases[] = {
        {"rw", "ext4", "rw", false, plain, ""},
        {"ro", "ext4", "ro", false, plain, ""},
        {"rudero", "ext4", "ro", false, plain, ""},
        {"rw", "ext4", "ro", false, problem, senses},
        {"rw", "ext4", "rwx,relatime", false, problem, senses}, // no "rw" among the options
        {"ro", "ext4", "rw", false, bizarre, ""},
        {"rudero", "ext4", "rw", false, bizarre, ""},
        {"rw", "ntfs", "ro", false, ignored, ""},
        {"rw", "ntfs", "rw", false, plain, whoah},
        {"ro", "ntfs", "ro", false, plain, ""},
        {"ro", "ntfs", "rw", false, bizarre, whoah},
        {"rw", "ntfs", "ro", true, problem, senses},
        {"rw", "ntfs", "rw", true, plain, ""},
    };
    for (const auto &c : cases) {
        const std::string what = std::string(c.how) + " " + c.type + " " + c.options;
        accepted_type = c.type;
        partdev_list["sdc1"]->filesystem = c.type;
        shown_options = c.options;
        failing_programs =
            c.by_driver_program ? std::set<std::string>() : std::set<std::string>({"/bin/ntfs-3g"});
        SetTable("");
        EXPECT_EQ(Ask(c.how, "sdc1", somebody), c.reply) << what;
        std::string lines = errors.Take();
        for (const char *start : {"Trying ", "Attempting ", "ntfs-3g: failed "}) {
            for (size_t at = lines.find(start); at != std::string::npos; at = lines.find(start))
                lines.erase(at, lines.find('\n', at) + 1 - at);
        }
        EXPECT_EQ(lines, c.lines) << what;
    }
}

// Neither quotas nor lists nor links nor scripts change a reply.
TEST_F(MountCommand, WhatFollowsAMountDoesNotChangeItsReply)
{
    AddHook();
    failing_programs = {"mount"};
    partdev_list["sdc1"]->label = "a/b";
    machine.Write("/mnt/sdc1/aquota.user", std::string(1000, 'q'));
    also_on_deed = [&](const std::string &deed) {
        if (deed == "execv hook hook sdc1 about-to-mount")
            _exit(0);
        if (deed.starts_with("execv hook"))
            _exit(1);
    };
    EXPECT_EQ(Ask("rw", "sdc1"), "OK mount succeeded\n");
    EXPECT_EQ(errors.Take(), "Trying kernel driver /dev/sdc1 -> ext4 (known fs 'ext4')\n"
                             "sdc1 has user quotas\n"
                             "ext3 journalled quota mount options failed\n"
                             "Problem enabling quotas\n"
                             "Problem enabling ACLs, oh well\n"
                             "Cannot create drive label symlink /mnt/^a/b, No such file or "
                             "directory\n");
    EXPECT_EQ(TakeDeeds().back(), "execv hook hook /dev/sdc1 mount");
}

// The last step, swap for the main partition, follows some replies and others not.
TEST_F(MountCommand, SwapFollowsSomeReplies)
{
    static const struct {
        const char *how, *word, *reply;
        void (*prepare)(MountCommand &test);
        bool switches_swap_on;
    } cases[] = {
        {"rw", "sdc1", "OK mount succeeded\n", [](MountCommand &) {}, true},
        {"ro", "sdc1", "OK mount succeeded\n",
         [](MountCommand &test) { test.shown_options = "ro"; }, false},
        {"rw", "sdc1", "OK already mounted read/write",
         [](MountCommand &test) { test.SetMounted("sdc1", "rw"); }, true},
        {"rw", "sdc1", "OK remounted as r/w",
         [](MountCommand &test) { test.SetMounted("sdc1", "ro"); }, true},
        {"rw", "sdc1", "ERR cannot remount",
         [](MountCommand &test) {
             test.SetMounted("sdc1", "ro");
             test.machine.Script(Call::MOUNT, {fails(EIO)});
         },
         true},
        {"ro", "sdc1", "OK remounted as r/o",
         [](MountCommand &test) { test.SetMounted("sdc1", "rw"); }, false},
        {"off", "sdc1", "OK unmount succeeded",
         [](MountCommand &test) { test.SetMounted("sdc1", "rw"); }, false},
        {"off", "sdc1", "OK its not mounted anyway", [](MountCommand &) {}, false},
        {"rw", "sdc1", "ERR mount failed", [](MountCommand &test) { test.accepted_type = "none"; },
         true},
        {"rw", "sdc1", "ERR unable to create mountpoint",
         [](MountCommand &test) { test.machine.Refuse("/mnt/sdc1", EIO); }, true},
        {"rw", "sdc1", "ERR mount succeeded but procfs doesn't show it",
         [](MountCommand &test) {
             test.is_shown = false;
             terminate_requested = 1;
         },
         true},
        {"rw", "sdc1", "ERR device is part of a RAID array",
         [](MountCommand &) { raid_members["sdc1"] = true; }, false},
        {"rw", "sdc1", "ERR I can't open the device, much less mount it",
         [](MountCommand &test) { test.machine.Refuse("/dev/sdc1", EIO); }, false},
        {"rw", "sdc1", "ERR mounting was vetoed by notification script",
         [](MountCommand &test) {
             test.AddHook();
             test.failing_programs = {"hook"};
         },
         false},
        {"rw", "sr0", "OK but CD-ROM drives are readonly",
         [](MountCommand &test) {
             main_partition = "sr0";
             test.SetMounted("sr0", "ro");
         },
         false},
        {"rw", "sr0", "OK mount succeeded\n", // it became read-only
         [](MountCommand &test) {
             main_partition = "sr0";
             test.shown_options = "ro";
         },
         false},
        {"rw", "sdb1", "OK mount succeeded\n", [](MountCommand &) {}, false}, // another one
    };
    for (const auto &c : cases) {
        accepted_type = "ext4";
        shown_options = "rw";
        is_shown = true;
        failing_programs.clear();
        terminate_requested = 0;
        raid_members.clear();
        SetTable("");
        machine.Remove(hooks);
        machine.Script(Call::MOUNT, {});
        machine.Refuse("/mnt/sdc1", 0);
        machine.Refuse("/dev/sdc1", 0);
        MakeMain("sdc1", "sdc", false);
        c.prepare(*this);
        EXPECT_EQ(Ask(c.how, c.word), c.reply);
        EXPECT_EQ(errors.Take().find(swap_on_line) != std::string::npos, c.switches_swap_on)
            << c.how << " " << c.word << ": " << c.reply;
    }
}

// A table without "rw" and "ro" cannot be; a command without a reply would leave its client waiting
// for ever.
TEST_F(MountCommand, ReplyIsNeverEmpty)
{
    SetMounted("sdc1", "relatime");
    EXPECT_DEATH(Ask("ro", "sdc1"), "reply.empty\\(\\)");
    EXPECT_EQ(Ask("rw", "sdc1"), "OK remounted as r/w");
    EXPECT_EQ(Ask("off", "sdc1"), "OK unmount succeeded");
}

// Labels: partitions before drives, each in the order of names, each a line; only what is not known
// is probed.
TEST_F(MountCommand, LabelsAreLookedUpInOrder)
{
    answers = {{"/dev/sdb1", "SECOND\nfilesystem: ext4\n"},
               {"/dev/sdc", "DISK\nfilesystem: xfs\n"}};
    partdev_list["sda1"]->label = "FIRST";
    partdev_list["sdb1"]->filesystem = "";
    partdev_list["sdc1"]->filesystem = " ";
    blockdev_list["sdc"]->filesystem = "";
    EXPECT_STREQ(find_device_by_label("DISK"), "sdc");
    EXPECT_EQ(errors.Take(), "Scanning devices to locate drive labelled 'DISK'\n"
                             "/dev/sda1 -> FIRST\n"
                             "Label: 'SECOND'\n"
                             "  'filesystem' = 'ext4'\n"
                             "/dev/sdb1 -> SECOND\n"
                             "/dev/sdc1 -> of sdc1\n"
                             "/dev/sda -> of sda\n"
                             "/dev/sdb -> of sdb\n"
                             "Label: 'DISK'\n"
                             "  'filesystem' = 'xfs'\n"
                             "/dev/sdc -> DISK\n");
    EXPECT_EQ(partdev_list["sdb1"]->filesystem, "ext4");
    EXPECT_STREQ(find_device_by_label("SECOND"), "sdb1");
    EXPECT_EQ(TakeDeeds().size(), 2U); // nothing was probed again
    EXPECT_EQ(errors.Take(), "Scanning devices to locate drive labelled 'SECOND'\n"
                             "/dev/sda1 -> FIRST\n/dev/sdb1 -> SECOND\n");
}

// Of two devices with one label it is the first; a label is equal or it is not.
TEST_F(MountCommand, FirstEqualLabelIsTheOne)
{
    blockdev_list["sda"]->label = "DATA";
    partdev_list["sdb1"]->label = "DATA";
    partdev_list["sdc1"]->label = "DATA";
    partdev_list["sda1"]->label = "DATA2";
    blockdev_list["sdb"]->label = "../../etc/x \"%s\" \xFF\n";
    EXPECT_STREQ(find_device_by_label("DATA"), "sdb1");
    EXPECT_STREQ(find_device_by_label("../../etc/x \"%s\" \xFF\n"), "sdb");
    blockdev_list["sdc"]->label = "";
    EXPECT_STREQ(find_device_by_label(""), "sdc"); // the first without one
    errors.Take();
    for (const char *label : {"data", "DAT", "DATA ", "^DATA", "DATA22"})
        EXPECT_EQ(find_device_by_label(label), nullptr) << label;
    EXPECT_TRUE(errors.Take().ends_with("/dev/sr0 -> of sr0\nLabel not found\n"));
}

// A request for a label works on the device that has it, under its name.
TEST_F(MountCommand, RequestsMayNameALabel)
{
    partdev_list["sdc1"]->label = "MY DATA";
    EXPECT_EQ(Ask("rw", "^MY DATA", somebody), "OK mount succeeded\n");
    EXPECT_EQ(device, "sdc1");
    EXPECT_EQ(TakeDeeds().front(), "mount /dev/sdc1 /mnt/sdc1 ext4 6");
    EXPECT_EQ(errors.Take(), "Scanning devices to locate drive labelled 'MY DATA'\n"
                             "/dev/sda1 -> of sda1\n/dev/sdb1 -> of sdb1\n/dev/sdc1 -> MY DATA\n"
                             "Label found on /dev/sdc1\n"
                             "Trying kernel driver /dev/sdc1 -> ext4 (known fs 'ext4')\n");
    boot_partition = "sda1"; // the rights are those of the device
    partdev_list["sda1"]->label = "BOOT";
    EXPECT_EQ(Ask("ro", "^BOOT", somebody), "ERR authorization required");
    EXPECT_EQ(device, "sda1");
    EXPECT_EQ(Ask("ro", "^NONE"), "ERR Label not found");
    EXPECT_TRUE(errors.Take().ends_with("Label not found\n"));
    EXPECT_EQ(device, "^NONE");
}
