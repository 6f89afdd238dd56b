// What the kernel's block events do to the registry.
#include "registry/hotplug_notice.h"

#include <sstream>

#include "base/daemon_state.h"
#include "inspect/raid_members.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "registry/block_device.h"
#include "registry/device_list.h"

class HotplugNotice : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        machine.now = 5000;
        next_full_rescan = 9999;
        machine.Write("/proc/mounts", "");
    }

    // The registry in one line: drives with their partitions, then partitions without a drive.
    static std::string Registry()
    {
        std::ostringstream text;
        for (const auto &[name, drive] : blockdev_list) {
            text << name << "(";
            for (const auto &[partition, flag] : drive->partitions)
                text << " " << partition;
            text << " ) ";
            EXPECT_EQ(drive->refcount, 1 + static_cast<int>(drive->partitions.size())) << name;
        }
        for (const auto &[name, partition] : partdev_list) {
            if (!partition->parent)
                text << name << " ";
        }
        return text.str();
    }

    // Whether a rescan was asked for, one second from now, since the last call.
    static bool TakeRescan()
    {
        const time_t asked = next_full_rescan;
        next_full_rescan = 9999;
        EXPECT_TRUE(asked == 9999 || asked == 5001) << asked;
        return asked == 5001;
    }

    // A stick with one partition in the machine.
    void AddStick()
    {
        machine.AddDrive("sdb", "1000");
        machine.AddPartition("sdb", "sdb1", "100");
    }
};

// The drive is the name without its number, except where the drive's own name ends in one.
TEST_F(HotplugNotice, ParentFollowsTheName)
{
    static const struct {
        const char *name, *parent;
    } cases[] = {
        {"sda", "sda"},
        {"sda1", "sda"},
        {"sda15", "sda"},
        {"sda01", "sda"},
        {"sdaa12", "sdaa"},
        {"hda3", "hda"},
        {"sr0", "sr0"},
        {"sr10", "sr10"},
        {"sr", "sr"},
        {"loop", "loop"},
        {"loop0", "loop0"},
        {"loop12", "loop12"},
        {"loop0p1", "loop0p"},
        {"md0", "md0"},
        {"md127", "md127"},
        {"md127p1", "md127p"},
        {"md_home", "md_home"},
        {"ram0", "ram0"},
        {"ram15", "ram15"},
        {"zram0", "zram"},
        {"dm-0", "dm-"},
        {"fd0", "fd"},
        {"mmcblk", "mmcblk"},
        {"mmcblk0", "mmcblk0"},
        {"mmcblk10", "mmcblk10"},
        {"mmcblk0p1", "mmcblk0"},
        {"mmcblk9p12", "mmcblk9"},
        {"mmcblk0p", "mmcblk0"},
        {"mmcblk0px", "mmcblk0p"},   // the last character goes, whatever it is
        {"mmcblk10p1", "mmcblk10p"}, // the place of the "p" is fixed
        {"mmcblkap1", "mmcblkap"},   // no number before it
        {"mmcblk0q1", "mmcblk0q"},   // no "p"
        {"mmcblk0boot0", "mmcblk0boot"},
        {"xmmcblk0p1", "xmmcblk0p"},
        {"mmcblk\xB2p1", "mmcblk\xB2p"}, // a byte that is no digit anywhere
        {"nvme0", "nvme"},
        {"nvme0n1", "nvme0n"},
        {"nvme0n1p1", "nvme0n1p"},
        {"", ""},
        {"1", ""},
        {"0123456789", ""},
        {"a", "a"},
        {"p", "p"},
        {"a1", "a"},
        {"1a", "1a"},
        {"1a1", "1a"},
        {"sda1 ", "sda1 "},
        {"sda\xC2\xB2", "sda\xC2\xB2"}, // a small two
    };
    for (const auto &c : cases)
        EXPECT_EQ(parent_of_device(c.name), c.parent) << c.name;
}

// The partition of a drive that nobody knows brings its drive; the partition is met first.
TEST_F(HotplugNotice, PartitionOfAnUnknownDriveBringsIt)
{
    AddStick();
    machine.WriteBootRecord("sdb", {'\x83'});
    machine.Write("/sys/block/sdb/device/model", "Ultra Fit\n");
    take_hotplug_notice("add", "sdb1");
    EXPECT_EQ(errors.Take(), "Notify add sdb1 parent sdb\n"
                             "Parent device: sdb\n"
                             "Device sdb1 appeared (partition of sdb, hotplug)\n"
                             "Device sdb appeared (hotplug)\n"
                             "Attach sdb1 to sdb\n");
    EXPECT_EQ(Registry(), "sdb( sdb1 ) ");
    EXPECT_TRUE(TakeRescan());
    const BlockDevice *drive = blockdev_list["sdb"];
    EXPECT_EQ(drive->model, "Ultra Fit");
    EXPECT_EQ(drive->type, "Hard Drive");
    EXPECT_EQ(drive->capacity, 1000U * 512);
    ASSERT_NE(drive->partition_table, nullptr);
    const PartitionDevice *partition = partdev_list["sdb1"];
    EXPECT_EQ(partition->device, "sdb1");
    EXPECT_EQ(partition->parent, drive);
    EXPECT_EQ(partition->partition_size, 100 * 512);
    EXPECT_EQ(partition->model, drive->partition_table->entries.at(1));
    EXPECT_NE(partition->model, "");
}

// Each is looked at for a superblock as it is met, a drive after its partition table; what cannot
// be opened is registered all the same.
TEST_F(HotplugNotice, DeviceThatIsGoneAlreadyIsRegistered)
{
    take_hotplug_notice("add", "sdb1");
    EXPECT_EQ(errors.Take(), "Notify add sdb1 parent sdb\n"
                             "Parent device: sdb\n"
                             "Device sdb1 appeared (partition of sdb, hotplug)\n"
                             "Unable to check sdb1 raid participation No such file or directory\n"
                             "Device sdb appeared (hotplug)\n"
                             "cannot open /dev/sdb No such file or directory\n"
                             "Unable to check sdb raid participation No such file or directory\n"
                             "Attach sdb1 to sdb\n");
    EXPECT_EQ(Registry(), "sdb( sdb1 ) ");
    EXPECT_TRUE(TakeRescan());
    EXPECT_EQ(blockdev_list["sdb"]->capacity, 0U);
    EXPECT_EQ(partdev_list["sdb1"]->partition_size, 0);
    UpdateBlockDeviceList(); // which a second later sees that there is no such drive
    EXPECT_EQ(Registry(), "");
    EXPECT_EQ(errors.Take(), "Device sdb1 just disappeared (polling)\n"
                             "Device sdb just disappeared (polling)\n");
}

// A drive is no partition: nothing is said of a parent device, and nothing attached.
TEST_F(HotplugNotice, DriveIsMet)
{
    AddStick();
    take_hotplug_notice("add", "sdb");
    EXPECT_EQ(errors.Take(), "Notify add sdb parent sdb\nDevice sdb appeared (hotplug)\n");
    EXPECT_EQ(Registry(), "sdb( ) ");
    EXPECT_TRUE(TakeRescan());
}

// A drive that is known already stays as it is; not even a file is opened.
TEST_F(HotplugNotice, KnownDriveStaysAsItIs)
{
    AddStick();
    take_hotplug_notice("add", "sdb1");
    errors.Take();
    TakeRescan();
    BlockDevice *drive = blockdev_list["sdb"];
    drive->label = "DATA";
    drive->capacity = 7;
    raid_members["sdb"] = true;
    machine.ForgetCalls();
    take_hotplug_notice("add", "sdb");
    EXPECT_EQ(errors.Take(), "Notify add sdb parent sdb\n");
    EXPECT_EQ(machine.SystemCalls(), 0);
    EXPECT_FALSE(TakeRescan());
    EXPECT_EQ(Registry(), "sdb( sdb1 ) ");
    EXPECT_EQ(blockdev_list["sdb"], drive);
    EXPECT_EQ(drive->label, "DATA");
    EXPECT_EQ(drive->capacity, 7U);
    EXPECT_TRUE(is_raid_member("sdb"));
}

// A partition that is known already is attached and probed again, and no more.
TEST_F(HotplugNotice, KnownPartitionIsProbedAgain)
{
    AddStick();
    take_hotplug_notice("add", "sdb1");
    errors.Take();
    TakeRescan();
    PartitionDevice *partition = partdev_list["sdb1"];
    partition->label = "DATA";
    partition->partition_size = 7;
    raid_members["sdb1"] = true;
    take_hotplug_notice("add", "sdb1");
    EXPECT_EQ(errors.Take(), "Notify add sdb1 parent sdb\n"
                             "Parent device: sdb\n"
                             "Attach sdb1 to sdb\n");
    EXPECT_FALSE(TakeRescan());
    EXPECT_EQ(Registry(), "sdb( sdb1 ) ");
    EXPECT_EQ(partdev_list["sdb1"], partition);
    EXPECT_EQ(partition->label, "");
    EXPECT_EQ(partition->partition_size, 100 * 512);
    EXPECT_TRUE(is_raid_member("sdb1"));
}

// A new partition of a known drive, and the known partition of a drive that is new.
TEST_F(HotplugNotice, HalfOfItMayBeKnown)
{
    AddStick();
    machine.AddPartition("sdb", "sdb2", "200");
    take_hotplug_notice("add", "sdb");
    TakeRescan();
    errors.Take();
    take_hotplug_notice("add", "sdb2");
    EXPECT_EQ(errors.Take(), "Notify add sdb2 parent sdb\n"
                             "Parent device: sdb\n"
                             "Device sdb2 appeared (partition of sdb, hotplug)\n"
                             "Attach sdb2 to sdb\n");
    EXPECT_TRUE(TakeRescan());
    EXPECT_EQ(Registry(), "sdb( sdb2 ) ");

    machine.AddDrive("sdc", "1000");
    partdev_list["sdc1"] = new PartitionDevice("sdc1");
    partdev_list["sdc1"]->set_parent(blockdev_list["sdb"]); // held by another drive so far
    take_hotplug_notice("add", "sdc1");
    EXPECT_EQ(errors.Take(), "Notify add sdc1 parent sdc\n"
                             "Parent device: sdc\n"
                             "Device sdc appeared (hotplug)\n"
                             "Attach sdc1 to sdc\n");
    EXPECT_TRUE(TakeRescan());
    EXPECT_EQ(Registry(), "sdb( sdb2 ) sdc( sdc1 ) ");
}

// In whatever order the events come, and however often, the registry is the same.
TEST_F(HotplugNotice, OrderOfEventsDoesNotMatter)
{
    AddStick();
    machine.AddPartition("sdb", "sdb2", "200");
    static const std::vector<const char *> orders[] = {
        {"sdb", "sdb1", "sdb2"}, {"sdb", "sdb2", "sdb1"},         {"sdb1", "sdb", "sdb2"},
        {"sdb2", "sdb1", "sdb"}, {"sdb1", "sdb1", "sdb2", "sdb"}, {"sdb2", "sdb2", "sdb1"},
    };
    for (const auto &order : orders) {
        for (const char *name : order)
            take_hotplug_notice("add", name);
        EXPECT_EQ(Registry(), "sdb( sdb1 sdb2 ) ");
        errors.Take();
        UpdateBlockDeviceList();
        EXPECT_EQ(errors.Take(), ""); // as the rescan finds it
        FreeBlockDeviceList();
        EXPECT_EQ(errors.Take(), "");
    }
}

// Every word but "add" only brings the rescan forward: nothing is removed, made or looked at.
TEST_F(HotplugNotice, OtherWordsOnlyBringTheRescanForward)
{
    AddStick();
    take_hotplug_notice("add", "sdb1");
    errors.Take();
    TakeRescan();
    machine.ForgetCalls();
    for (const char *action :
         {"remove", "change", "move", "bind", "ADD", "add ", "adds", "ad", ""}) {
        const std::string line = std::string("Notify ") + action;
        take_hotplug_notice(action, "sdb1");
        EXPECT_EQ(errors.Take(), line + " sdb1 parent sdb\nParent device: sdb\n");
        EXPECT_TRUE(TakeRescan()) << action;
        take_hotplug_notice(action, "sdb");
        EXPECT_EQ(errors.Take(), line + " sdb parent sdb\n");
        EXPECT_TRUE(TakeRescan()) << action;
        take_hotplug_notice(action, "sdc1"); // of which nobody knows
        EXPECT_EQ(errors.Take(), line + " sdc1 parent sdc\nParent device: sdc\n");
        EXPECT_TRUE(TakeRescan()) << action;
    }
    EXPECT_EQ(Registry(), "sdb( sdb1 ) ");
    EXPECT_EQ(machine.SystemCalls(), 0);
}

// What was removed is still there until the rescan, which comes a second later.
TEST_F(HotplugNotice, RescanRemovesWhatHasGone)
{
    AddStick();
    take_hotplug_notice("add", "sdb1");
    machine.Remove("/sys/block/sdb");
    take_hotplug_notice("remove", "sdb1");
    take_hotplug_notice("remove", "sdb");
    EXPECT_EQ(Registry(), "sdb( sdb1 ) ");
    EXPECT_TRUE(TakeRescan());
    errors.Take();
    UpdateBlockDeviceList();
    EXPECT_EQ(Registry(), "");
    EXPECT_EQ(errors.Take(), "Device sdb1 just disappeared (polling)\n"
                             "Device sdb just disappeared (polling)\n");
}

// What was known of a name's array is forgotten when a new device has it, and looked at anew.
TEST_F(HotplugNotice, ArrayMembershipIsLookedAtAnew)
{
    AddStick();
    raid_members = {{"sdb", true}, {"sdb1", true}};
    take_hotplug_notice("add", "sdb1");
    EXPECT_TRUE(raid_members.empty());

    machine.AddDrive("sdc", "1000");
    machine.AddPartition("sdc", "sdc1", "100");
    machine.WriteMdSuperblock("sdc");
    machine.WriteMdSuperblock("sdc1");
    raid_members["sdc1"] = true;
    take_hotplug_notice("add", "sdc1");
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdc", false}, {"sdc1", false}}));
}

// A running array's members are active from its first event on.
TEST_F(HotplugNotice, ArrayMakesItsMembersActive)
{
    machine.AddDrive("md127", "1000");
    machine.Link("/sys/block/md127/slaves/sdb1", "../../sdb/sdb1");
    take_hotplug_notice("add", "md127");
    EXPECT_EQ(errors.Take(), "Notify add md127 parent md127\nDevice md127 appeared (hotplug)\n");
    EXPECT_EQ(Registry(), "md127( ) ");
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdb1", true}}));
}

// Each kind of name, and what it brings into the registry.
TEST_F(HotplugNotice, EveryKindOfNameHasItsPlace)
{
    static const struct {
        const char *name, *log, *registry;
    } cases[] = {
        {"sr0", "Notify add sr0 parent sr0\nDevice sr0 appeared (hotplug)\n", "sr0( ) "},
        {"mmcblk0", "Notify add mmcblk0 parent mmcblk0\nDevice mmcblk0 appeared (hotplug)\n",
         "mmcblk0( ) "},
        {"mmcblk0p1",
         "Notify add mmcblk0p1 parent mmcblk0\n"
         "Parent device: mmcblk0\n"
         "Device mmcblk0p1 appeared (partition of mmcblk0, hotplug)\n"
         "Device mmcblk0 appeared (hotplug)\n"
         "Attach mmcblk0p1 to mmcblk0\n",
         "mmcblk0( mmcblk0p1 ) "},
        // The poll passes these over; a notice does not, on purpose.
        {"loop0", "Notify add loop0 parent loop0\nDevice loop0 appeared (hotplug)\n", "loop0( ) "},
        {"ram1", "Notify add ram1 parent ram1\nDevice ram1 appeared (hotplug)\n", "ram1( ) "},
        {"a", "Notify add a parent a\nDevice a appeared (hotplug)\n", "a( ) "},
        {"a1",
         "Notify add a1 parent a\n"
         "Parent device: a\n"
         "Device a1 appeared (partition of a, hotplug)\n"
         "Device a appeared (hotplug)\n"
         "Attach a1 to a\n",
         "a( a1 ) "},
    };
    for (const auto &c : cases) {
        for (const char *node : {c.name, "mmcblk0", "a"})
            machine.Write(std::string("/dev/") + node, std::string(8192, '\0'));
        take_hotplug_notice("add", c.name);
        EXPECT_EQ(errors.Take(), c.log);
        EXPECT_EQ(Registry(), c.registry);
        EXPECT_TRUE(TakeRescan()) << c.name;
        FreeBlockDeviceList();
    }
}

// The name "loop" alone is no device at all: not even a rescan follows.
TEST_F(HotplugNotice, LoopWithoutANumberIsPassedOver)
{
    for (const char *action : {"add", "remove"}) {
        take_hotplug_notice(action, "loop");
        EXPECT_EQ(errors.Take(), std::string("Notify ") + action + " loop parent loop\n");
        EXPECT_FALSE(TakeRescan());
    }
    EXPECT_EQ(Registry(), "");
}

// A number alone belongs to no drive: only its rescan, which forgets it again, is worth anything.
TEST_F(HotplugNotice, NumberAloneBelongsToNoDrive)
{
    machine.Write("/dev/123", std::string(8192, '\0'));
    take_hotplug_notice("add", "123");
    EXPECT_EQ(errors.Take(), "Notify add 123\n"
                             "Parent device: \n"
                             "Device 123 appeared (partition of , hotplug)\n");
    EXPECT_EQ(Registry(), "123 ");
    EXPECT_TRUE(TakeRescan());
    take_hotplug_notice("remove", "123");
    EXPECT_EQ(errors.Take(), "Notify remove 123\nParent device: \n");
    EXPECT_TRUE(TakeRescan());
    UpdateBlockDeviceList();
    EXPECT_EQ(Registry(), "");
    EXPECT_EQ(errors.Take(), "Device 123 just disappeared (polling)\n");
}

// Names with a "p" of their own are not taken apart: until the rescan, which knows better, they
// hang from a drive that is not there.
TEST_F(HotplugNotice, RescanKnowsNvmeBetterThanTheName)
{
    machine.AddDrive("nvme0n1", "1000");
    machine.AddPartition("nvme0n1", "nvme0n1p1", "100");
    for (const char *name : {"nvme0n1", "nvme0n1p1"})
        take_hotplug_notice("add", name);
    EXPECT_EQ(Registry(), "nvme0n( nvme0n1 ) nvme0n1p( nvme0n1p1 ) ");
    EXPECT_TRUE(TakeRescan());
    UpdateBlockDeviceList();
    EXPECT_EQ(Registry(), "nvme0n1( nvme0n1p1 ) ");
    EXPECT_EQ(errors.Take().find("BUG"), std::string::npos);
}

// A notice may make a record that the rescan does not meet, of a device that is there: what is
// mounted from it stays, and nobody is driven out.
TEST_F(HotplugNotice, RescanUnmountsNothingThatIsThere)
{
    machine.AddDrive("nvme0n1", "1000");
    for (const char *name : {"loop0", "nvme0n1"}) {
        machine.MakeDirectory(std::string("/sys/class/block/") + name);
        machine.MakeDirectory(std::string("/mnt/") + name);
    }
    machine.Write("/proc/mounts", "/dev/loop0 /mnt/loop0 ext4 rw 0 0\n"
                                  "/dev/nvme0n1 /mnt/nvme0n1 ext4 rw 0 0\n");
    machine.AddProcess(12, "editor", {"/mnt/loop0/file", "/mnt/nvme0n1/file"});
    ReadProcMounts();
    UpdateBlockDeviceList();
    for (const char *name : {"loop0", "nvme0n1"})
        take_hotplug_notice("add", name);
    EXPECT_EQ(Registry(), "loop0( ) nvme0n( nvme0n1 ) nvme0n1( ) ");
    errors.Take();
    UpdateBlockDeviceList();
    EXPECT_EQ(Registry(), "nvme0n1( ) ");
    EXPECT_EQ(errors.Take(), "Device nvme0n1 just disappeared (polling)\n"
                             "Device loop0 just disappeared (polling)\n"
                             "Device nvme0n just disappeared (polling)\n");
    EXPECT_EQ(machine.Deeds("umount"), std::vector<std::string>());
    EXPECT_EQ(machine.Deeds("kill"), std::vector<std::string>());
}

// Such a record's end does not make the real drive forget that it is a member of an array.
TEST_F(HotplugNotice, NamesakeKeepsTheArrayMembership)
{
    machine.AddDrive("nvme0n1", "1000");
    machine.WriteMdSuperblock("nvme0n1");
    UpdateBlockDeviceList();
    take_hotplug_notice("add", "nvme0n1");
    UpdateBlockDeviceList();
    EXPECT_EQ(Registry(), "nvme0n1( ) ");
    EXPECT_TRUE(is_raid_member("nvme0n1"));
}
