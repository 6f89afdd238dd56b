// Forced unmounting, step by step; nothing is really unmounted.
#include "mount/unmounting.h"

#include "base/daemon_state.h"
#include "inspect/device_name_set.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "mount/unmount_all.h"
#include "registry/device_list.h"

using Deeds = std::vector<std::string>;

class Unmounting : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        SetMounts({{"sdb1", "/mnt/sdb1"}});
        machine.MakeDirectory("/mnt/sdb1");
    }

    void SetMounts(const std::vector<std::pair<std::string, std::string>> &mounts)
    {
        std::string table = "proc /proc proc rw 0 0\n";
        for (const auto &[name, mountpoint] : mounts)
            table += "/dev/" + name + " " + mountpoint + " ext4 rw 0 0\n";
        machine.Write("/proc/mounts", table);
        ReadProcMounts();
    }

    // A drive with this label, and the link of that label.
    void AddLabelled(const std::string &name, const std::string &label)
    {
        BlockDevice *drive = blockdev_list[name] = new BlockDevice(name);
        drive->label = label;
        drive->filesystem = "ext4";
        machine.Link("/mnt/^" + label, name);
    }
};

static const char killing[] = "killing processes using sdb1 on /mnt/sdb1\n";

// The kernel escapes blanks in its table; what is done is done to the real directory.
TEST_F(Unmounting, MountPointWithABlankGoes)
{
    machine.Write("/proc/mounts", "/dev/sdb1 /media/my\\040stick ext4 rw 0 0\n");
    machine.MakeDirectory("/media/my stick");
    ReadProcMounts();
    machine.AddProcess(12, "editor", {"/media/my stick/file"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed.starts_with("kill"))
            machine.Remove("/proc/12");
    };
    force_unmount("sdb1");
    EXPECT_EQ(errors.Take(), "killing processes using sdb1 on /media/my stick\n");
    EXPECT_EQ(machine.Deeds("umount"), Deeds({"umount /media/my stick 8"}));
    EXPECT_EQ(machine.Deeds("kill"), Deeds({"kill 12 15"}));
    EXPECT_FALSE(machine.Exists("/media/my stick"));
}

// Users are driven out, the mount goes, and its directory and label link go after it.
TEST_F(Unmounting, ClearsUnmountsAndTidiesUp)
{
    AddLabelled("sdb1", "DATA");
    machine.AddProcess(12, "editor", {"/mnt/sdb1/file"});
    machine.on_deed = [&](const std::string &deed) {
        if (deed.starts_with("kill"))
            machine.Remove("/proc/12");
        if (deed.starts_with("umount")) {
            EXPECT_TRUE(machine.Exists("/mnt/sdb1"));
            EXPECT_TRUE(machine.Exists("/mnt/^DATA"));
            SetMounts({});
        }
    };
    force_unmount("sdb1");
    EXPECT_EQ(errors.Take(), killing);
    EXPECT_EQ(machine.Deeds(), Deeds({"log 6 12: editor is using mount points. terminating...",
                                      "kill 12 15", "usleep 100000", "umount /mnt/sdb1"}));
    EXPECT_FALSE(machine.Exists("/mnt/sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
    EXPECT_EQ(FindMount("device", "/dev/sdb1"), nullptr); // the table was read again
}

// The boot drive and the boot partition are left alone, whatever is mounted of them.
TEST_F(Unmounting, BootDeviceIsLeftAlone)
{
    SetMounts({{"sda", "/mnt/sda"}, {"sda1", "/mnt/sda1"}, {"sda2", "/mnt/sda2"}});
    boot_drive = "sda";
    boot_partition = "sda1";
    device_name_set_insert("sda1");
    machine.ForgetCalls();
    for (const char *name : {"sda", "sda1"}) {
        force_unmount(name);
        release_vanished_device(name);
    }
    EXPECT_EQ(machine.SystemCalls(), 0);
    EXPECT_EQ(machine.Deeds(), Deeds());
    EXPECT_EQ(errors.Take(), "");
    EXPECT_TRUE(device_name_set_contains("sda1"));
    force_unmount("sda2"); // its neighbour is not
    EXPECT_EQ(machine.Deeds(), Deeds({"umount /mnt/sda2"}));
}

// What is not mounted, or is mounted at "/", is left alone; the table is read afresh for that.
TEST_F(Unmounting, OnlyWhatIsMountedGoes)
{
    force_unmount("sdc1");
    force_unmount("sdb");
    EXPECT_EQ(machine.Deeds(), Deeds());
    SetMounts({{"sdb1", "/"}});
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds());
    machine.Write("/proc/mounts", "/dev/sdb1\n"); // a line that is cut short
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds());
    EXPECT_EQ(errors.Take(), "");

    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/new ext4 rw 0 0\n");
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({"umount /mnt/new"}));
}

// What would be cleared can be asked beforehand; the question touches nothing.
TEST_F(Unmounting, TellsWhatItWouldClear)
{
    SetMounts(
        {{"sdb1", "/mnt/my\\040disk"}, {"sdb1", "/srv"}, {"sda1", "/mnt/sda1"}, {"sdc", "/"}});
    boot_partition = "sda1";
    EXPECT_EQ(forced_mountpoint("sdb1"), "/mnt/my disk");
    EXPECT_EQ(forced_mountpoint("sda1"), "");
    EXPECT_EQ(forced_mountpoint("sdc"), "");
    EXPECT_EQ(forced_mountpoint("sdd"), "");
    EXPECT_EQ(machine.Deeds(), Deeds());
    EXPECT_EQ(errors.Take(), "");
}

// A device that is mounted twice loses the first mount.
TEST_F(Unmounting, FirstOfTwoMountsGoes)
{
    SetMounts({{"sdb1", "/mnt/sdb1"}, {"sdb1", "/other"}});
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({"umount /mnt/sdb1"}));
}

// A busy mount gets a second try after two seconds.
TEST_F(Unmounting, BusyMountGetsASecondTry)
{
    machine.Script(Call::UMOUNT, {fails(EBUSY)});
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({"umount /mnt/sdb1", "sleep 2", "umount /mnt/sdb1"}));
    EXPECT_EQ(errors.Take(),
              std::string(killing) + "wait, cannot unmount /mnt/sdb1 Device or resource busy\n");
}

// When that fails too it is told; directory and link are tried all the same.
TEST_F(Unmounting, SecondFailureIsTold)
{
    AddLabelled("sdb1", "DATA");
    machine.Write("/mnt/sdb1/file", "");
    machine.Script(Call::UMOUNT, {fails(EBUSY), fails(EBUSY)});
    force_unmount("sdb1");
    EXPECT_EQ(errors.Take(), std::string(killing) +
                                 "wait, cannot unmount /mnt/sdb1 Device or resource busy\n"
                                 "yep. cannot force unmount /mnt/sdb1\n");
    EXPECT_TRUE(machine.Exists("/mnt/sdb1/file"));
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
}

// After --nfsx there is one try, nobody is driven out, and nothing is said; the directory and the
// link go regardless.
TEST_F(Unmounting, WithoutForceThereIsOneTry)
{
    AddLabelled("sdb1", "DATA");
    machine.AddProcess(12, "editor", {"/mnt/sdb1/file"});
    no_force_shutdown = 1;
    machine.Script(Call::UMOUNT, {fails(EBUSY), fails(EBUSY)});
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds(), Deeds({"umount /mnt/sdb1"}));
    EXPECT_EQ(errors.Take(), "");
    EXPECT_FALSE(machine.Exists("/mnt/sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
}

// The main partition's swap file would keep it busy: it is switched off first, unless nobody has
// set one.
TEST_F(Unmounting, SwapFileOfTheMainPartitionGoesFirst)
{
    swap_path = "/mnt/sdb1/swap.img";
    force_unmount("sdb1");
    main_partition = "sdb1";
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds("swapoff"), Deeds());
    settings.swap_name = "swap.img";
    main_partition = "sdc1";
    force_unmount("sdb1");
    EXPECT_EQ(machine.Deeds("swapoff"), Deeds());
    main_partition = "sdb1";
    errors.Take();
    force_unmount("sdb1");
    Deeds deeds = machine.Deeds();
    deeds.erase(deeds.begin(), deeds.end() - 2);
    EXPECT_EQ(deeds, Deeds({"swapoff /mnt/sdb1/swap.img", "umount /mnt/sdb1"}));
    EXPECT_EQ(errors.Take(), killing);
}

// A swap file that was not in use, or is not there, is no trouble; any other failure is told.
TEST_F(Unmounting, SwapFailuresAreTold)
{
    static const struct {
        int error;
        const char *line;
    } cases[] = {
        {EINVAL, ""},
        {ENOENT, ""},
        {ENOMEM, "Unable to remove swapfile /mnt/sdb1/swap.img, Cannot allocate memory. this may "
                 "hamper unmount!\n"},
        {EPERM, "Unable to remove swapfile /mnt/sdb1/swap.img, Operation not permitted. this may "
                "hamper unmount!\n"},
    };
    settings.swap_name = "swap.img";
    swap_path = "/mnt/sdb1/swap.img";
    main_partition = "sdb1";
    for (const auto &c : cases) {
        machine.Script(Call::SWAPOFF, {fails(c.error)});
        force_unmount("sdb1");
        EXPECT_EQ(errors.Take(), std::string(killing) + c.line);
        EXPECT_EQ(machine.Deeds().back(), "umount /mnt/sdb1");
    }
}

// The name leaves the set of device names, mounted or not.
TEST_F(Unmounting, LeavesTheSetOfDeviceNames)
{
    for (const char *name : {"sdb1", "sdc1", "sdd1"})
        device_name_set_insert(name);
    force_unmount("sdb1");
    force_unmount("sdc1");
    EXPECT_FALSE(device_name_set_contains("sdb1"));
    EXPECT_FALSE(device_name_set_contains("sdc1"));
    EXPECT_TRUE(device_name_set_contains("sdd1"));
}

// Another device's label link stays.
TEST_F(Unmounting, ForeignLabelLinkStays)
{
    AddLabelled("sdb1", "DATA");
    machine.Remove("/mnt/^DATA");
    machine.Link("/mnt/^DATA", "sdc1");
    force_unmount("sdb1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^DATA"), "sdc1");
}

// A vanished device is unmounted when the table, as last read, has it.
TEST_F(Unmounting, VanishedDeviceIsLookedUpInTheTableAsLastRead)
{
    release_vanished_device("sdc1");
    EXPECT_EQ(machine.Deeds(), Deeds());
    machine.Write("/proc/mounts", "/dev/sdc1 /mnt/sdc1 ext4 rw 0 0\n");
    release_vanished_device("sdc1"); // not known yet
    EXPECT_EQ(machine.Deeds(), Deeds());
    release_vanished_device("sdb1"); // not mounted any more, as a new reading tells
    EXPECT_EQ(machine.Deeds(), Deeds());
    release_vanished_device("sdc1");
    EXPECT_EQ(machine.Deeds(), Deeds({"umount /mnt/sdc1"}));
}

// At exit every mounted partition goes, and a drive itself only when it has no partitions.
TEST_F(Unmounting, AllThatIsManagedGoesAtExit)
{
    for (const char *drive : {"sdb", "sdc", "sdd", "sde"})
        machine.AddDrive(drive, "8");
    for (const char *partition : {"sdb1", "sdb2"})
        machine.AddPartition("sdb", partition, "8");
    machine.AddPartition("sdd", "sdd1", "8");
    SetMounts({{"sdb", "/whole"},
               {"sdb2", "/mnt/sdb2"},
               {"sdb1", "/mnt/sdb1"},
               {"sdc", "/mnt/sdc"},
               {"sdx1", "/mnt/sdx1"},
               {"sdd1", "/"}});
    mount_list.clear(); // it reads everything itself
    unmount_all();
    EXPECT_EQ(machine.Deeds("umount"),
              Deeds({"umount /mnt/sdb1", "umount /mnt/sdb2", "umount /mnt/sdc"}));
    EXPECT_EQ(machine.Opened("/proc/filesystems"), 1);
    EXPECT_EQ(machine.Opened("/proc/partitions"), 1);
    EXPECT_EQ(fstab_list.size(), 7U);
}

// A partition that only its drive's list still names is passed over.
TEST_F(Unmounting, NameWithoutRecordIsPassedOverAtExit)
{
    machine.AddDrive("sdb", "8");
    UpdateBlockDeviceList();
    blockdev_list["sdb"]->partitions["sdb1"] = true;
    unmount_all();
    EXPECT_EQ(machine.Deeds(), Deeds());
}
