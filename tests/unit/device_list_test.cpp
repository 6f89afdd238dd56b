// Keeping the registry in line with /sys/block.
#include "registry/device_list.h"

#include <algorithm>
#include <string_view>

#include "base/daemon_state.h"
#include "inspect/raid_members.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "registry/hotplug_notice.h"

using Words = std::vector<std::string>;

class DeviceList : public MadeUpMachineTest {
protected:
    static Words Drives()
    {
        Words names;
        for (const auto &[name, drive] : blockdev_list)
            names.push_back(name);
        return names;
    }

    static Words Partitions()
    {
        Words names;
        for (const auto &[name, partition] : partdev_list)
            names.push_back(name);
        return names;
    }

    // What was said, a line each; the order in which a directory names its entries is its own.
    Words Said()
    {
        Words lines;
        const std::string text = errors.Take();
        for (size_t start = 0; start < text.size();) {
            const size_t end = text.find('\n', start);
            lines.push_back(text.substr(start, end - start));
            start = end + 1;
        }
        return lines;
    }

    Words SaidInAnyOrder()
    {
        Words lines = Said();
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    // sdb with two partitions.
    void AddStick()
    {
        machine.AddDrive("sdb", "1000");
        machine.AddPartition("sdb", "sdb1", "100");
        machine.AddPartition("sdb", "sdb2", "200");
    }
};

// A new drive gets a record with everything that can be known of it, its partitions as well.
TEST_F(DeviceList, NewDriveIsMetAndProbed)
{
    AddStick();
    machine.WriteBootRecord("sdb", {'\x83'});
    machine.Write("/sys/block/sdb/device/model", "Ultra Fit\n");
    UpdateBlockDeviceList();
    EXPECT_EQ(Drives(), Words({"sdb"}));
    EXPECT_EQ(Partitions(), Words({"sdb1", "sdb2"}));
    const BlockDevice *drive = blockdev_list["sdb"];
    EXPECT_EQ(drive->model, "Ultra Fit");
    EXPECT_EQ(drive->capacity, 512000U);
    EXPECT_EQ(drive->connection, &connection_types[CONNECTION_SCSI]);
    EXPECT_EQ(drive->poll_mark, 0);
    EXPECT_EQ(drive->refcount, 3); // the map and two partitions
    EXPECT_EQ(drive->partitions, (std::map<std::string, bool>{{"sdb1", true}, {"sdb2", true}}));
    const PartitionDevice *partition = partdev_list["sdb1"];
    EXPECT_EQ(partition->parent, drive);
    EXPECT_EQ(partition->partition_size, 51200);
    EXPECT_EQ(partition->model, "#83 Linux");
    EXPECT_EQ(partition->refcount, 1);
    EXPECT_EQ(partition->poll_mark, 0);
    EXPECT_EQ(SaidInAnyOrder(),
              Words({"Device sdb just appeared (polling)", "Device sdb1 just appeared (polling)",
                     "Device sdb2 just appeared (polling)"}));
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words());
}

// Loop devices, RAM disks and hidden names never enter.
TEST_F(DeviceList, LoopAndRamNeverEnter)
{
    for (const char *name : {"loop0", "loop", "ram0", "ramzswap0", ".hidden", "lo", "zram0", "sda"})
        machine.AddDrive(name, "8");
    UpdateBlockDeviceList();
    EXPECT_EQ(Drives(), Words({"lo", "sda", "zram0"}));
}

// Whatever begins with its drive's name is a partition; the attributes beside them are none.
TEST_F(DeviceList, PartitionsBeginWithTheDrivesName)
{
    machine.AddDrive("nvme0n1", "8");
    machine.AddPartition("nvme0n1", "nvme0n1p1", "8");
    machine.AddDrive("sda", "8");
    for (const char *name : {"sda1", "sda10", "sdaX", "sdb1", "device", "1"})
        machine.MakeDirectory(std::string("/sys/block/sda/") + name);
    UpdateBlockDeviceList();
    EXPECT_EQ(Partitions(), Words({"nvme0n1p1", "sda1", "sda10", "sdaX"}));
}

// A drive that is known is not probed again; its partitions are, at every poll.
TEST_F(DeviceList, KnownDriveIsNotProbedAgain)
{
    AddStick();
    UpdateBlockDeviceList();
    BlockDevice *drive = blockdev_list["sdb"];
    PartitionDevice *partition = partdev_list["sdb1"];
    drive->label = drive->filesystem = partition->label = partition->filesystem = "old";
    machine.Write("/sys/block/sdb/size", "5\n");
    machine.Write("/sys/block/sdb/sdb1/size", "7\n");
    machine.ForgetCalls();
    UpdateBlockDeviceList();
    EXPECT_EQ(blockdev_list["sdb"], drive);
    EXPECT_EQ(drive->capacity, 512000U);
    EXPECT_EQ(drive->filesystem, "old");
    EXPECT_EQ(partition->partition_size, 7 * 512);
    EXPECT_EQ(partition->filesystem, "");
    EXPECT_EQ(machine.Opened("/dev/sdb"), 0); // no medium is touched
    EXPECT_EQ(machine.Opened("/dev/sdb1"), 0);
}

// New devices are looked at for a superblock, whatever was known of the name.
TEST_F(DeviceList, NewDevicesAreCheckedForRaid)
{
    AddStick();
    machine.WriteMdSuperblock("sdb1");
    raid_members = {{"sdb", true}, {"sdb2", true}, {"sdc", true}};
    UpdateBlockDeviceList();
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdb1", false}, {"sdc", true}}));
    machine.WriteMdSuperblock("sdb2");
    UpdateBlockDeviceList(); // it is not new any more
    EXPECT_EQ(raid_text("sdb2"), "");
}

// A device whose node is missing is met all the same, with a line for each thing that was tried.
TEST_F(DeviceList, DeviceWithoutNodeIsMet)
{
    machine.AddDrive("sdb", "8");
    machine.Remove("/dev/sdb");
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words({"Device sdb just appeared (polling)",
                             "cannot open /dev/sdb No such file or directory",
                             "Unable to check sdb raid participation No such file or directory"}));
    EXPECT_EQ(Drives(), Words({"sdb"}));
}

// A stick that is pulled: its partitions go first, each unmounted, and then the drive. Nobody holds
// it any more by then.
TEST_F(DeviceList, PartitionsGoBeforeTheirDrive)
{
    AddStick();
    machine.AddDrive("sda", "8");
    UpdateBlockDeviceList();
    Said();
    machine.Remove("/sys/block/sdb");
    machine.Write("/proc/mounts", "/dev/sdb2 /mnt/sdb2 ext4 rw 0 0\n/dev/sdb /mnt/sdb ext4 rw\n");
    ReadProcMounts();
    raid_members = {{"sdb", false}, {"sdb1", true}, {"sda", true}};
    partdev_list["sdb2"]->label = blockdev_list["sdb"]->label = "";
    machine.on_exec = [](char *const *) {};
    UpdateBlockDeviceList();
    Words said = Said();
    std::erase(said, "Label: ''");
    EXPECT_EQ(
        said,
        Words({"Device sdb1 just disappeared (polling)", "Device sdb2 just disappeared (polling)",
               "killing processes using sdb2 on /mnt/sdb2", "Device sdb just disappeared (polling)",
               "killing processes using sdb on /mnt/sdb"}));
    EXPECT_EQ(machine.Deeds("umount"), Words({"umount /mnt/sdb2", "umount /mnt/sdb"}));
    EXPECT_EQ(Drives(), Words({"sda"}));
    EXPECT_EQ(Partitions(), Words());
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sda", true}}));
}

// What vanished is forgotten as a RAID member before it is unmounted.
TEST_F(DeviceList, RaidIsForgottenFirst)
{
    AddStick();
    UpdateBlockDeviceList();
    machine.Remove("/sys/block/sdb");
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n");
    ReadProcMounts();
    raid_members = {{"sdb1", true}};
    machine.on_deed = [&](const std::string &deed) {
        if (deed == "umount /mnt/sdb1") {
            EXPECT_FALSE(is_raid_member("sdb1"));
            EXPECT_TRUE(device_exists("sdb1")); // its record is still there to be asked
        }
    };
    UpdateBlockDeviceList();
    EXPECT_EQ(machine.Deeds("umount"), Words({"umount /mnt/sdb1"}));
}

// The boot device is not unmounted, though its record goes.
TEST_F(DeviceList, VanishedBootPartitionStaysMounted)
{
    AddStick();
    UpdateBlockDeviceList();
    boot_drive = "sdb";
    boot_partition = "sdb1";
    machine.Remove("/sys/block/sdb");
    machine.Write("/proc/mounts", "/dev/sdb1 /mnt/x ext4 rw 0 0\n/dev/sdb /mnt/y ext4 rw 0 0\n");
    ReadProcMounts();
    UpdateBlockDeviceList();
    EXPECT_EQ(machine.Deeds(), Words());
    EXPECT_EQ(Drives(), Words());
}

// One partition can go alone; the drive loses its hold and its name.
TEST_F(DeviceList, OnePartitionGoesAlone)
{
    AddStick();
    UpdateBlockDeviceList();
    Said();
    machine.Remove("/sys/block/sdb/sdb1");
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words({"Device sdb1 just disappeared (polling)"}));
    EXPECT_EQ(blockdev_list["sdb"]->refcount, 2);
    EXPECT_EQ(blockdev_list["sdb"]->partitions, (std::map<std::string, bool>{{"sdb2", true}}));
}

// A notice knows a drive by its name alone and may take it for a partition. When that record goes
// the drive is still there: nothing of it is unmounted, nobody is evicted, and its array keeps it.
TEST_F(DeviceList, DriveOutlivesAPartitionOfItsName)
{
    machine.AddDrive("nvme0n1", "1000");
    machine.Write("/proc/mounts", "/dev/nvme0n1 /mnt/nvme0n1 ext4 rw 0 0\n");
    ReadProcMounts();
    UpdateBlockDeviceList();
    raid_members["nvme0n1"] = true;
    take_hotplug_notice("add", "nvme0n1"); // as when all events are told again
    EXPECT_EQ(Partitions(), Words({"nvme0n1"}));
    raid_members["nvme0n1"] = true;
    Said();
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words({"Device nvme0n1 just disappeared (polling)",
                             "Device nvme0n just disappeared (polling)"}));
    EXPECT_EQ(Drives(), Words({"nvme0n1"}));
    EXPECT_EQ(Partitions(), Words());
    EXPECT_EQ(machine.Deeds(), Words());
    EXPECT_TRUE(is_raid_member("nvme0n1"));
    machine.Remove("/sys/block/nvme0n1");
    UpdateBlockDeviceList();
    EXPECT_EQ(machine.Deeds("umount"), Words({"umount /mnt/nvme0n1"}));
    EXPECT_FALSE(is_raid_member("nvme0n1"));
}

// Loop and RAM disks come by notices alone, and the next poll drops them without having looked for
// them: that is no reason to unmount what they hold.
TEST_F(DeviceList, LoopDeviceOfANoticeStaysMounted)
{
    for (const char *name : {"loop0", "ram1"}) {
        machine.AddDrive(name, "1000");
        machine.Write("/proc/mounts", std::string("/dev/") + name + " /mnt/image iso9660 ro 0 0\n");
        ReadProcMounts();
        take_hotplug_notice("add", name);
        EXPECT_EQ(Drives(), Words({name}));
        raid_members[name] = false;
        Said();
        UpdateBlockDeviceList();
        EXPECT_EQ(Said(), Words({std::string("Device ") + name + " just disappeared (polling)"}));
        EXPECT_EQ(Drives(), Words());
        EXPECT_FALSE(is_raid_member(name));
    }
    EXPECT_EQ(machine.Deeds(), Words());
}

// A record that somebody holds still is deleted, and told of.
TEST_F(DeviceList, HeldRecordIsDeletedAndTold)
{
    AddStick();
    UpdateBlockDeviceList();
    Said();
    blockdev_list["sdb"]->acquire();
    partdev_list["sdb2"]->acquire();
    partdev_list["sdb2"]->acquire();
    machine.Remove("/sys/block/sdb");
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words({"Device sdb1 just disappeared (polling)",
                             "Device sdb2 just disappeared (polling)",
                             "BUG: BlockDevice sdb2: I'm being deleted with refcount 2",
                             "Device sdb just disappeared (polling)",
                             "BUG: BlockDevice sdb: I'm being deleted with refcount 1"}));
    EXPECT_EQ(Drives(), Words());
}

// A partition that shows up below another drive is given to that one.
TEST_F(DeviceList, PartitionMovesToAnotherDrive)
{
    machine.AddDrive("sdb", "8");
    machine.AddDrive("sdb1x", "8"); // a name of which "sdb1x1" is a partition, too
    machine.AddPartition("sdb", "sdb1x1", "8");
    UpdateBlockDeviceList();
    PartitionDevice *partition = partdev_list["sdb1x1"];
    EXPECT_EQ(partition->parent, blockdev_list["sdb"]);
    machine.Remove("/sys/block/sdb/sdb1x1");
    machine.AddPartition("sdb1x", "sdb1x1", "9");
    UpdateBlockDeviceList();
    EXPECT_EQ(partdev_list["sdb1x1"], partition);
    EXPECT_EQ(partition->parent, blockdev_list["sdb1x"]);
    EXPECT_EQ(partition->partition_size, 9 * 512);
    EXPECT_EQ(blockdev_list["sdb"]->refcount, 1);
    EXPECT_EQ(blockdev_list["sdb"]->partitions.size(), 0U);
    EXPECT_EQ(blockdev_list["sdb1x"]->refcount, 2);
}

// A drive whose own folder cannot be opened stays; its partitions are not seen, so they go.
TEST_F(DeviceList, PartitionsOfAnUnreadableDriveGo)
{
    AddStick();
    UpdateBlockDeviceList();
    Said();
    machine.Refuse("/sys/block/sdb", EACCES);
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words({"Device sdb1 just disappeared (polling)",
                             "Device sdb2 just disappeared (polling)"}));
    EXPECT_EQ(Drives(), Words({"sdb"}));
}

// Without /sys/block nothing is known to have gone: nothing is marked, nothing removed.
TEST_F(DeviceList, WithoutSysBlockNothingHappens)
{
    AddStick();
    UpdateBlockDeviceList();
    Said();
    machine.Refuse("/sys/block", EMFILE);
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words());
    EXPECT_EQ(Drives().size() + Partitions().size(), 3U);
    EXPECT_EQ(blockdev_list["sdb"]->poll_mark, 0);
    EXPECT_EQ(partdev_list["sdb1"]->poll_mark, 0);
}

// A record that cannot be found again right after it was put into its map stops the daemon, in
// words that tell which map.
using DeviceListDeathTest = DeviceList;
TEST_F(DeviceListDeathTest, RecordThatGetsLostStopsTheDaemon)
{
    AddStick();
    EXPECT_DEATH(
        {
            machine.LoseInsertions(blockdev_list);
            UpdateBlockDeviceList();
        },
        "Assertion `li != blockdev_list.end\\(\\)' failed");
    EXPECT_DEATH(
        {
            machine.LoseInsertions(partdev_list);
            UpdateBlockDeviceList();
        },
        "Assertion `pi != partdev_list.end\\(\\)' failed");
}

// A list of drives, or of partitions, that breaks off proves nothing about those behind the break.
TEST_F(DeviceList, ListThatBreaksOffRemovesNothing)
{
    AddStick();
    UpdateBlockDeviceList();
    Said();
    machine.Script(Call::GETDENTS, {fails(EIO)});
    UpdateBlockDeviceList();
    EXPECT_EQ(Drives().size() + Partitions().size(), 3U);
    machine.Script(Call::GETDENTS, {really, fails(EIO)});
    UpdateBlockDeviceList();
    EXPECT_EQ(Drives().size() + Partitions().size(), 3U);
    EXPECT_EQ(Said(), Words());
    UpdateBlockDeviceList();
    EXPECT_EQ(Drives().size() + Partitions().size(), 3U);
}

// A drive whose folder is removed while it is read keeps nobody from seeing that another has gone.
TEST_F(DeviceList, DriveThatGoesWhileItIsReadHidesNoOther)
{
    AddStick();
    machine.AddDrive("sdc", "8");
    UpdateBlockDeviceList();
    Said();
    machine.Remove("/sys/block/sdc");
    machine.Script(Call::GETDENTS, {really, fails(ENOENT)}); // the drives, then what is in sdb
    UpdateBlockDeviceList();
    EXPECT_EQ(Said(), Words({"Device sdb1 just disappeared (polling)",
                             "Device sdb2 just disappeared (polling)",
                             "Device sdc just disappeared (polling)"}));
    EXPECT_EQ(Drives(), Words({"sdb"})); // listed still; the next poll will see
}

// A poll costs at most six calls a drive and three a partition, however many there are.
TEST_F(DeviceList, PollCostsSixCallsADriveAndThreeAPartition)
{
    static const struct {
        int drives, partitions;
    } cases[] = {{1, 0}, {1, 1}, {10, 0}, {10, 4}, {50, 15}};
    for (const auto &c : cases) {
        for (int i = 0; i < c.drives; i++) {
            const std::string drive = "sda" + std::string(1, static_cast<char>('a' + i / 26)) +
                                      static_cast<char>('a' + i % 26);
            machine.AddDrive(drive, "8");
            for (int number = 1; number <= c.partitions; number++)
                machine.AddPartition(drive, drive + std::to_string(number), "8");
        }
        UpdateBlockDeviceList();
        machine.ForgetCalls();
        UpdateBlockDeviceList();
        const int fixed = 4; // the folder of all drives
        EXPECT_LE(machine.SystemCalls(), fixed + c.drives * (6 + 3 * c.partitions));
        EXPECT_GE(machine.SystemCalls(), c.drives * c.partitions); // they are counted
        FreeBlockDeviceList();
        machine.Remove("/sys/block");
        machine.MakeDirectory("/sys/block");
    }
}

// No path is walked twice: a drive's folder is opened relative to the one of all drives, and an
// attribute relative to that.
TEST_F(DeviceList, PollWalksNoPathTwice)
{
    AddStick();
    UpdateBlockDeviceList();
    machine.ForgetCalls();
    UpdateBlockDeviceList();
    EXPECT_EQ(machine.Opened("/sys/block"), 1);
    EXPECT_EQ(machine.Opened("sdb"), 1);
    EXPECT_EQ(machine.Opened("sdb1/size"), 1);
    EXPECT_EQ(machine.Opened("sdb2/size"), 1);
}

// Many devices vanish at once beside as many that stay: that costs a step for each, not for each
// pair of them.
TEST_F(DeviceList, VanishingCostsAStepForEachDevice)
{
    const int count = 500;
    machine.AddDrive("sda", "8");
    for (int i = 1; i <= count; i++)
        machine.MakeDirectory("/sys/block/sda/sda" + std::to_string(i));
    UpdateBlockDeviceList();
    for (int i = 1; i <= count; i++) {
        const std::string number = std::to_string(i);
        blockdev_list["sdb" + number] = new BlockDevice("sdb" + number);
        partdev_list["sdc" + number] = new PartitionDevice("sdc" + number);
        partdev_list["sdc" + number]->set_parent(blockdev_list["sdb" + number]);
    }
    machine.Write("/proc/mounts", "/dev/sda1 /mnt/sda1 ext4 rw 0 0\n");
    ReadProcMounts();
    machine.ForgetCalls();
    UpdateBlockDeviceList();
    EXPECT_EQ(Drives().size(), 1U);
    EXPECT_EQ(Partitions().size(), static_cast<size_t>(count));
    // Records: 1500 and one. Each is stepped over when it is marked and when it is looked for, and
    // once more around its removal.
    EXPECT_GT(machine.TreeSteps(), 3 * count); // they are counted
    EXPECT_LT(machine.TreeSteps(), 20 * count);
    EXPECT_LE(machine.SystemCalls(), 10 + 3 * count); // those that stay
}

// In hotplug mode the known drives are looked at: sizes follow the media, and nothing comes or
// goes.
TEST_F(DeviceList, RefreshLooksAtKnownDrives)
{
    AddStick();
    machine.AddDrive("sr0", "0");
    UpdateBlockDeviceList();
    Said();
    machine.Write("/sys/block/sr0/size", "100\n");
    machine.Write("/sys/block/sdb/sdb1/size", "7\n");
    machine.AddDrive("sdc", "8");
    machine.Remove("/sys/block/sdb/sdb2");
    partdev_list["sdb1"]->filesystem = blockdev_list["sdb"]->filesystem = "old";
    refresh_drives();
    EXPECT_EQ(blockdev_list["sr0"]->capacity, 51200U);
    EXPECT_EQ(blockdev_list["sdb"]->filesystem, "");
    EXPECT_EQ(partdev_list["sdb1"]->filesystem, "old"); // partitions are not touched
    EXPECT_EQ(partdev_list["sdb1"]->partition_size, 51200);
    EXPECT_EQ(Drives(), Words({"sdb", "sr0"}));
    EXPECT_EQ(Partitions(), Words({"sdb1", "sdb2"}));
    EXPECT_EQ(Said(), Words());
}

// A medium that was put in makes the search for the main partition look again; any other change of
// size does not.
TEST_F(DeviceList, PutInMediumIsSearchedAgain)
{
    static const struct {
        const char *before, *after;
        int scanned;
    } cases[] = {{"0", "100", 0}, {"100", "0", 1}, {"100", "200", 1}, {"0", "0", 1}};
    machine.AddDrive("sr0", "0");
    UpdateBlockDeviceList();
    for (const auto &c : cases) {
        machine.Write("/sys/block/sr0/size", c.before);
        refresh_drives();
        blockdev_list["sr0"]->scanned = 1;
        machine.Write("/sys/block/sr0/size", c.after);
        refresh_drives();
        EXPECT_EQ(blockdev_list["sr0"]->scanned, c.scanned) << c.before << ' ' << c.after;
    }
}

// A size that was unknown is not one of 0.
TEST_F(DeviceList, UnknownSizeIsNoEmptyDrive)
{
    machine.AddDrive("sda", "8");
    BlockDevice *drive = blockdev_list["sda"] = new BlockDevice("sda");
    drive->scanned = 1;
    refresh_drives();
    EXPECT_EQ(drive->capacity, 4096U);
    EXPECT_EQ(drive->scanned, 1);
}

// The refresh makes every member inactive and then looks which arrays run.
TEST_F(DeviceList, RefreshTellsRunningArraysAnew)
{
    machine.AddDrive("md0", "8");
    machine.Link("/sys/block/md0/slaves/sdb1", "../../sdb/sdb1");
    UpdateBlockDeviceList();
    raid_members = {{"sdb1", false}, {"sdc1", true}};
    refresh_drives();
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdb1", true}, {"sdc1", false}}));
    machine.Remove("/sys/block/md0/slaves");
    refresh_drives();
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdb1", false}, {"sdc1", false}}));
}

// The table's texts go to the partitions that are the drive's name and a number; one with a "p"
// between them gets its text when it is probed, on purpose.
TEST_F(DeviceList, TableTextsReachPlainNamesOnly)
{
    for (const char *name : {"sda", "mmcblk0"}) {
        machine.WriteBootRecord(name, {'\x83', '\x07'});
        blockdev_list[name] = new BlockDevice(name);
    }
    for (const char *name : {"sda1", "sda2", "sda3", "sdb1", "mmcblk0p1", "mmcblk01"})
        partdev_list[name] = new PartitionDevice(name);
    for (const auto &[name, partition] : partdev_list)
        partition->model = "old";
    read_partition_table(*blockdev_list["sda"]);
    read_partition_table(*blockdev_list["mmcblk0"]);
    static const struct {
        const char *name, *model;
    } cases[] = {{"sda1", "#83 Linux"}, {"sda2", "meh"},      {"sda3", "old"},
                 {"sdb1", "old"},       {"mmcblk0p1", "old"}, {"mmcblk01", "#83 Linux"}};
    for (const auto &c : cases)
        EXPECT_EQ(partdev_list[c.name]->model, c.model) << c.name;

    // Read again it replaces the table; an unreadable drive leaves the models as they are.
    machine.Remove("/dev/sda");
    read_partition_table(*blockdev_list["sda"]);
    ASSERT_NE(blockdev_list["sda"]->partition_table, nullptr);
    EXPECT_EQ(blockdev_list["sda"]->partition_table->entries.size(), 0U);
    EXPECT_EQ(partdev_list["sda1"]->model, "#83 Linux");
}

// At exit everything goes, partitions first.
TEST_F(DeviceList, FreeingEmptiesTheRegistry)
{
    AddStick();
    machine.AddDrive("sda", "8");
    UpdateBlockDeviceList();
    Said();
    FreeBlockDeviceList();
    EXPECT_EQ(Drives().size() + Partitions().size(), 0U);
    EXPECT_EQ(Said(), Words());
    FreeBlockDeviceList(); // of an empty one nothing is left to do
}

// There, unlike at any other time, a record that is held is told of and left to its holder.
TEST_F(DeviceList, FreeingLeavesHeldRecordsOnPurpose)
{
    AddStick();
    UpdateBlockDeviceList();
    Said();
    BlockDevice *drive = blockdev_list["sdb"];
    PartitionDevice *partition = partdev_list["sdb1"];
    drive->acquire();
    drive->acquire();
    partition->acquire();
    FreeBlockDeviceList();
    EXPECT_EQ(Said(), Words({"BUG: FreeBlockDeviceList() device sdb1 still has outstanding "
                             "refcount 1",
                             "BUG: FreeBlockDeviceList() device sdb still has outstanding refcount "
                             "2"}));
    EXPECT_EQ(Drives().size() + Partitions().size(), 0U);
    EXPECT_EQ(drive->device, "sdb"); // the holder's pointer is good
    EXPECT_EQ(drive->connection, nullptr);
    EXPECT_EQ(partition->parent, nullptr);
    partition->release();
    delete partition;
    drive->release();
    drive->release();
    delete drive;
    EXPECT_EQ(Said(), Words());
}
