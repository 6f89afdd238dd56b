// The listings, to the byte, and what is learnt while they are made.
#include "protocol/drive_listings.h"

#include <linux/cdrom.h>
#include <unistd.h>

#include "inspect/raid_members.h"
#include "made_up_machine.h"
#include "mount/process_eviction.h"
#include "registry/block_device.h"

using Words = std::vector<std::string>;

class DriveListings : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        SetAnswer("LEARNT\n  filesystem: learntfs\n");
    }

    // What the label probe program answers; its last argument but one is the device.
    void SetAnswer(const std::string &answer)
    {
        machine.on_exec = [=](char *const *) {
            if (write(STDOUT_FILENO, answer.data(), answer.size()) < 0)
                _exit(1);
        };
    }

    static BlockDevice &AddDrive(const std::string &name, const ConnectionType *connection)
    {
        BlockDevice *drive = blockdev_list[name] = new BlockDevice(name);
        drive->sysfs_path = "/sys/block/" + name;
        drive->connection = connection;
        drive->type = "Hard Drive";
        drive->filesystem = "known";
        return *drive;
    }

    static PartitionDevice &AddPartition(BlockDevice &drive, const std::string &name)
    {
        PartitionDevice *partition = partdev_list[name] = new PartitionDevice(name);
        partition->set_parent(&drive);
        partition->filesystem = "known";
        return *partition;
    }

    static std::string List(int human = 0)
    {
        std::string reply = "what was there before";
        list_drives(reply, human);
        return reply;
    }

    static std::string Enumerate()
    {
        std::string reply = "what was there before";
        enumerate_drives(reply);
        return reply;
    }

    // The devices that were probed since the last call, by the words that they were named with.
    Words Probed()
    {
        Words devices;
        for (const std::string &deed : machine.Deeds("execv")) {
            const size_t start = deed.find("/dev/");
            devices.push_back(deed.substr(start, deed.rfind(' ') - start));
        }
        devices.erase(devices.begin(), devices.begin() + static_cast<ptrdiff_t>(probes_));
        probes_ += devices.size();
        return devices;
    }

    // Drives of this type answer that they hold a disc, or that they do not.
    void SetDisc(bool is_there)
    {
        machine.Write("/dev/sr0", "");
        machine.on_ioctl = [=](unsigned long, void *) {
            return is_there ? CDS_DISC_OK : CDS_NO_DISC;
        };
    }

private:
    size_t probes_ = 0;
};

static const std::string head =
    "OK- v3 drive list follows (dev,type,connection,label,capacity,model,place,raid,filesystem)\n";
static const std::string human_head =
    "OK- v3 user-friendly drive list follows "
    "(dev,type,connection,label,capacity,model,place,filesystem)\n";
static const std::string enumerate_head = "OK- list follows\n";
static const std::string end = "OK  eom";

static const ConnectionType *const usb = &connection_types[CONNECTION_USB];
static const ConnectionType *const sata = &connection_types[CONNECTION_SATA];

// Text on the left, blanks behind it, and always the width that was asked for.
TEST(Lpadded, CutsAndPadsOnTheRight)
{
    static const struct {
        const char *text;
        int len;
        const char *result;
    } cases[] = {
        {"", 1, " "},      {"", 3, "   "},     {"a", 1, "a"},    {"a", 3, "a  "},
        {"abc", 3, "abc"}, {"abcd", 3, "abc"}, {"abcd", 1, "a"}, {" a", 3, " a "},
    };
    for (const auto &c : cases)
        EXPECT_EQ(lpadded(c.text, c.len), c.result) << c.text << c.len;
    EXPECT_EQ(lpadded("x", 100000), "x" + std::string(99999, ' '));
}

// A width below 1 is a bug; the text of the assertion tells which.
TEST(LpaddedDeathTest, WidthBelowOneIsABug)
{
    const char *const words =
        "std::string lpadded\\(std::string, int\\).*Assertion `len > 0' failed";
    EXPECT_DEATH(lpadded("text", 0), words);
    EXPECT_DEATH(lpadded("text", -1), words);
    EXPECT_DEATH(lpadded("", -2147483647 - 1), words);
}

// No drive at all: the first line and the last.
TEST_F(DriveListings, EmptyRegistry)
{
    EXPECT_EQ(List(), head + end);
    EXPECT_EQ(List(1), human_head + end);
    EXPECT_EQ(Enumerate(), enumerate_head + end);
}

// Every field at its place.
TEST_F(DriveListings, RowsOfADriveAndItsPartition)
{
    BlockDevice &drive = AddDrive("sdb", usb);
    drive.label = "STICK";
    drive.capacity = 30752636928;
    drive.model = "Ultra Fit";
    drive.place = "Main";
    drive.filesystem = "fat";
    PartitionDevice &partition = AddPartition(drive, "sdb1");
    partition.label = "DATA";
    partition.partition_size = 1500;
    partition.model = "#83 Linux";
    partition.place = "Boot";
    partition.filesystem = "ext4";
    raid_members = {{"sdb", true}, {"sdb1", false}};
    EXPECT_EQ(
        List(),
        head +
            "OK- \tsdb\tHard Drive\tUSB\tSTICK\t30752636928\tUltra Fit\tMain\tActive "
            "RAID\tfat\n"
            "OK- \t\tsdb1\tPartition\tUSB\tDATA\t1500\t#83 Linux\tBoot\tInactive RAID\text4\n" +
            end);
    EXPECT_EQ(List(1),
              human_head +
                  "OK- sdb        Hard Drive         USB         STICK                30.752GB    "
                  "Ultra Fit            Main       fat       \n"
                  "OK- sdb1       Partition          USB         DATA                 1.500KB     "
                  "#83 Linux            Boot       ext4      \n" +
                  end);
    EXPECT_EQ(
        Enumerate(),
        enumerate_head +
            "OK-\tUSB\tUSB storage devices\n"
            "OK-\t\t/dev/sdb\t/sys/block/sdb\tUltra Fit\tHard Drive\tSTICK\tUSB\tMain\n"
            "OK-\t\t\t/dev/sdb1\t/sys/block/sdb/sdb1\t#83 Linux\tHard Drive\tDATA\tUSB\tBoot\n" +
            end);
    EXPECT_EQ(Probed(), Words());
}

// What is empty leaves its field, and what is unknown has a size of its own in each form.
TEST_F(DriveListings, EmptyAndUnknownFields)
{
    BlockDevice &drive = AddDrive("x", nullptr);
    drive.type = "";
    AddPartition(drive, "x1").filesystem = " ";
    EXPECT_EQ(List(), head +
                          "OK- \tx\t\tUnassigned\t\t-1\t\t\t\tknown\n"
                          "OK- \t\tx1\tPartition\tUnassigned\t\t-1\t\t\t\t \n" +
                          end);
    const std::string human = List(1);
    EXPECT_NE(human.find(" 18446.744PB "), std::string::npos);
    EXPECT_NE(human.find(" Unassigned  "), std::string::npos);
    EXPECT_EQ(Enumerate(), enumerate_head + end);
}

// A listing borrows the records: it takes no hold and lets none go. Letting the last one go, of a
// record that nobody holds any more, would make a drive forget how it is connected.
TEST_F(DriveListings, RecordsAreBorrowed)
{
    BlockDevice &drive = AddDrive("sdb", usb);
    PartitionDevice &partition = AddPartition(drive, "sdb1");
    for (int holders : {2, 1, 0}) {
        drive.refcount = partition.refcount = holders;
        drive.filesystem.clear();
        partition.filesystem.clear();
        for (const std::string &reply : {List(), List(1)}) {
            EXPECT_NE(reply.find("USB"), std::string::npos) << reply;
            EXPECT_EQ(reply.find("Unassigned"), std::string::npos) << reply;
        }
        EXPECT_NE(Enumerate().find("/dev/sdb1"), std::string::npos);
        EXPECT_EQ(drive.refcount, holders);
        EXPECT_EQ(partition.refcount, holders);
        EXPECT_EQ(drive.connection, usb);
        EXPECT_EQ(Probed(), Words({"/dev/sdb", "/dev/sdb1"})); // once, by the first listing
    }
}

// Sizes at the borders of their type.
TEST_F(DriveListings, SizesArePrintedAsSignedNumbers)
{
    static const struct {
        unsigned long long capacity;
        const char *text;
    } cases[] = {{0, "0"},
                 {999, "999"},
                 {~0ULL >> 1, "9223372036854775807"},
                 {1ULL << 63, "-9223372036854775808"},
                 {~0ULL, "-1"}};
    BlockDevice &drive = AddDrive("sda", usb);
    PartitionDevice &partition = AddPartition(drive, "sda1");
    for (const auto &c : cases) {
        drive.capacity = c.capacity;
        partition.partition_size = static_cast<long long>(c.capacity);
        const std::string reply = List();
        EXPECT_NE(reply.find("sda\tHard Drive\tUSB\t\t" + std::string(c.text) + "\t"),
                  std::string::npos);
        EXPECT_NE(reply.find("sda1\tPartition\tUSB\t\t" + std::string(c.text) + "\t"),
                  std::string::npos);
    }
}

// Each of the eight columns is cut at its width; no row is longer than another.
TEST_F(DriveListings, HumanColumnsAreCut)
{
    const std::string text(50, 'x');
    BlockDevice &drive = AddDrive(text, usb);
    drive.type = drive.label = drive.model = drive.place = drive.filesystem = text;
    drive.capacity = 999999999999999999;
    BlockDevice &small = AddDrive("y", nullptr);
    small.type = small.label = "";
    PartitionDevice &partition = AddPartition(small, "y1");
    partition.label = "12345678901234567890"; // twenty, which is what fits
    const auto x = [](size_t width) { return std::string(width, 'x'); };
    const std::string reply = List(1);
    EXPECT_NE(reply.find("\nOK- " + x(10) + " " + x(18) + " USB         " + x(20) +
                         " 999.999PB   " + x(20) + " " + x(10) + " " + x(10) + "\n"),
              std::string::npos)
        << reply;
    EXPECT_NE(reply.find(" 12345678901234567890 "), std::string::npos);
    size_t rows = 0;
    for (size_t start = human_head.size(); reply.substr(start) != end; rows++) {
        const size_t line_end = reply.find('\n', start);
        EXPECT_EQ(line_end - start, 4U + 10 + 18 + 11 + 20 + 11 + 20 + 10 + 10 + 7);
        start = line_end + 1;
    }
    EXPECT_EQ(rows, 3U);
}

// The plain list cuts nothing.
TEST_F(DriveListings, PlainListCutsNothing)
{
    BlockDevice &drive = AddDrive("sda", usb);
    drive.label = drive.model = std::string(300, 'x');
    EXPECT_NE(List().find("\t" + drive.label + "\t"), std::string::npos);
    EXPECT_NE(Enumerate().find("\t" + drive.model + "\t"), std::string::npos);
}

// Names are sorted byte by byte: sda10 stands before sda2, and sdaa after sda.
TEST_F(DriveListings, SortsByteByByte)
{
    for (const char *name : {"sdb", "sda", "sdaa", "dm-0"})
        AddDrive(name, usb);
    for (const char *name : {"sda2", "sda10", "sda1"})
        AddPartition(*blockdev_list["sda"], name);
    Words names;
    const std::string reply = List();
    for (size_t start = head.size(); reply.substr(start) != end;) {
        const size_t line_end = reply.find('\n', start);
        size_t name = reply.find_first_not_of('\t', start + 4);
        names.push_back(reply.substr(name, reply.find('\t', name) - name));
        start = line_end + 1;
    }
    EXPECT_EQ(names, Words({"dm-0", "sda", "sda1", "sda10", "sda2", "sdaa", "sdb"}));
}

// A name that a drive lists but that has no record makes no row.
TEST_F(DriveListings, NameWithoutRecordHasNoRow)
{
    AddDrive("sdb", usb).partitions["sdb1"] = true;
    EXPECT_EQ(List().find("sdb1"), std::string::npos);
    EXPECT_EQ(List(1).find("sdb1"), std::string::npos);
    EXPECT_EQ(Enumerate().find("sdb1"), std::string::npos);
    EXPECT_EQ(partdev_list.size(), 0U);
    EXPECT_EQ(Probed(), Words());
}

// Seven groups in an order of their own, each with its head once; LVM and NVME have none, on
// purpose, and neither have drives without connection.
TEST_F(DriveListings, EnumerateHasSevenGroups)
{
    static const struct {
        const char *name;
        int row; // -1: none
    } drives[] = {
        {"a", CONNECTION_FIREWIRE}, {"b", CONNECTION_RAID},
        {"c", CONNECTION_SATA},     {"d", CONNECTION_SCSI},
        {"e", CONNECTION_MMC},      {"f", CONNECTION_USB},
        {"g", CONNECTION_IDE},      {"h", CONNECTION_LVM},
        {"i", CONNECTION_NVME},     {"j", -1},
        {"k", CONNECTION_USB},
    };
    for (const auto &drive : drives)
        AddDrive(drive.name, drive.row < 0 ? nullptr : &connection_types[drive.row]).type = "";
    EXPECT_EQ(Enumerate(), enumerate_head +
                               "OK-\tIDE/PATA\tIDE PATA disk and ATAPI CD-ROM devices\n"
                               "OK-\t\t/dev/g\t/sys/block/g\t\t\t\tIDE/PATA\t\n"
                               "OK-\tUSB\tUSB storage devices\n"
                               "OK-\t\t/dev/f\t/sys/block/f\t\t\t\tUSB\t\n"
                               "OK-\t\t/dev/k\t/sys/block/k\t\t\t\tUSB\t\n"
                               "OK-\tMMC/SD\tMMC/SD flash devices\n"
                               "OK-\t\t/dev/e\t/sys/block/e\t\t\t\tMMC/SD\t\n"
                               "OK-\tSCSI\tGeneral SCSI devices\n"
                               "OK-\t\t/dev/d\t/sys/block/d\t\t\t\tSCSI\t\n"
                               "OK-\tSATA\tSerial ATA devices\n"
                               "OK-\t\t/dev/c\t/sys/block/c\t\t\t\tSATA\t\n"
                               "OK-\tRAID\tRAID disk array devices\n"
                               "OK-\t\t/dev/b\t/sys/block/b\t\t\t\tRAID\t\n"
                               "OK-\t1394/Firewire\tFirewire SBP devices\n"
                               "OK-\t\t/dev/a\t/sys/block/a\t\t\t\t1394/Firewire\t\n" +
                               end);
}

// A filesystem that is not known is asked for, once in the device's life, by the bare name; the row
// shows it already.
TEST_F(DriveListings, ListLearnsWhatIsUnknown)
{
    BlockDevice &drive = AddDrive("sdb", usb);
    PartitionDevice &partition = AddPartition(drive, "sdb1");
    drive.filesystem = partition.filesystem = "";
    drive.label = partition.label = "old";
    EXPECT_EQ(List(), head +
                          "OK- \tsdb\tHard Drive\tUSB\tLEARNT\t-1\t\t\t\tlearntfs\n"
                          "OK- \t\tsdb1\tPartition\tUSB\tLEARNT\t-1\t\t\t\tlearntfs\n" +
                          end);
    EXPECT_EQ(Probed(), Words({"/dev/sdb", "/dev/sdb1"}));
    List();
    List(1);
    Enumerate();
    EXPECT_EQ(Probed(), Words());
}

// So it is in the form for people,
TEST_F(DriveListings, HumanListLearnsToo)
{
    AddDrive("sdb", usb).filesystem = "";
    EXPECT_NE(List(1).find(" LEARNT               "), std::string::npos);
    EXPECT_EQ(Probed(), Words({"/dev/sdb"}));
}

// and in the list by groups.
TEST_F(DriveListings, EnumerateLearnsToo)
{
    BlockDevice &drive = AddDrive("sdb", usb);
    drive.filesystem = AddPartition(drive, "sdb1").filesystem = "";
    EXPECT_NE(Enumerate().find("\tLEARNT\tUSB\t\nOK-\t\t\t/dev/sdb1"), std::string::npos);
    EXPECT_EQ(Probed(), Words({"/dev/sdb", "/dev/sdb1"}));
}

// A probe that failed is not made again: the blank that it left is a filesystem.
TEST_F(DriveListings, FailedProbeIsNotRepeated)
{
    AddDrive("sdb", usb).filesystem = "";
    machine.on_exec = [](char *const *) { _exit(1); };
    List();
    EXPECT_EQ(blockdev_list["sdb"]->filesystem, " ");
    EXPECT_EQ(Probed().size(), 1U);
    List();
    Enumerate();
    EXPECT_EQ(Probed(), Words());
}

// A drive of which something is open, be it a partition, is left alone; its partitions are asked in
// "list" all the same, and in "enumerate" unless they are open themselves.
TEST_F(DriveListings, DriveInUseIsNotProbed)
{
    machine.AddProcess(12, "dd", {"/dev/sdb1"});
    BlockDevice &drive = AddDrive("sdb", usb);
    const auto forget = [&] {
        for (const char *name : {"sdb1", "sdb10", "sdb2"})
            partdev_list[name]->filesystem = "";
        drive.filesystem = "";
    };
    for (const char *name : {"sdb1", "sdb10", "sdb2"})
        AddPartition(drive, name);
    forget();
    List();
    EXPECT_EQ(Probed(), Words({"/dev/sdb1", "/dev/sdb10", "/dev/sdb2"}));
    EXPECT_EQ(drive.filesystem, "");
    forget();
    Enumerate();
    EXPECT_EQ(Probed(), Words({"/dev/sdb10", "/dev/sdb2"}));
    machine.Remove("/proc/12");
    List();
    EXPECT_EQ(Probed(), Words({"/dev/sdb", "/dev/sdb1"}));
}

// The neighbour sdba keeps sdb from being probed, too: names are compared as texts.
TEST_F(DriveListings, NeighbourInUseKeepsADriveFromBeingProbed)
{
    machine.AddProcess(12, "dd", {"/dev/sdba"});
    AddDrive("sdb", usb).filesystem = "";
    List();
    Enumerate();
    EXPECT_EQ(Probed(), Words());
}

// An empty optical drive is not asked, and forgets the disc that it had; in either form.
TEST_F(DriveListings, EmptyOpticalDriveForgetsItsDisc)
{
    BlockDevice &drive = AddDrive("sr0", sata);
    drive.type = "CD-ROM";
    SetDisc(false);
    for (const char *filesystem : {"", "iso9660", " "}) {
        for (int human : {0, 1}) {
            drive.label = "OLD";
            drive.filesystem = filesystem;
            EXPECT_EQ(List(human).find("OLD"), std::string::npos);
            EXPECT_EQ(drive.label + drive.filesystem, "");
        }
    }
    EXPECT_EQ(Probed(), Words());
}

// One that holds a disc is asked, unless it is known; a known one is looked at for its disc.
TEST_F(DriveListings, DiscIsLearntOnce)
{
    BlockDevice &drive = AddDrive("sr0", sata);
    drive.type = "CD-ROM";
    drive.filesystem = "";
    SetDisc(true);
    List();
    EXPECT_EQ(drive.filesystem, "learntfs");
    List();
    EXPECT_EQ(Probed(), Words({"/dev/sr0"}));
    SetDisc(false);
    List();
    EXPECT_EQ(drive.filesystem, "");
    SetDisc(true);
    List();
    EXPECT_EQ(Probed(), Words({"/dev/sr0"}));
}

// A disc that cannot be opened alone, since it is mounted, counts as none.
TEST_F(DriveListings, MountedDiscIsForgotten)
{
    BlockDevice &drive = AddDrive("sr0", sata);
    drive.type = "CD-ROM";
    drive.filesystem = "iso9660";
    SetDisc(true);
    machine.Refuse("/dev/sr0", EBUSY);
    List();
    EXPECT_EQ(drive.filesystem, "");
    EXPECT_EQ(Probed(), Words());
}

// One that somebody reads is not asked, though it holds a disc.
TEST_F(DriveListings, DiscInUseIsNotProbed)
{
    machine.AddProcess(12, "player", {"/dev/sr0"});
    BlockDevice &drive = AddDrive("sr0", sata);
    drive.type = "CD-ROM";
    drive.filesystem = "";
    SetDisc(true);
    List();
    Enumerate();
    EXPECT_EQ(Probed(), Words());
    EXPECT_EQ(drive.filesystem, "");
}

// In "enumerate" it is the other way round, on purpose: a drive with a disc is left unprobed, an
// empty one is probed, and nothing is forgotten.
TEST_F(DriveListings, EnumerateProbesEmptyOpticalDrivesOnPurpose)
{
    BlockDevice &drive = AddDrive("sr0", sata);
    drive.type = "CD-ROM";
    drive.filesystem = "";
    SetDisc(true);
    Enumerate();
    EXPECT_EQ(Probed(), Words());
    SetDisc(false);
    Enumerate();
    EXPECT_EQ(Probed(), Words({"/dev/sr0"}));
    EXPECT_EQ(drive.label, "LEARNT");
    Enumerate();
    EXPECT_EQ(drive.label, "LEARNT");
}

// Only optical drives are asked for a disc.
TEST_F(DriveListings, HardDriveIsNotAskedForADisc)
{
    machine.Write("/dev/sda", "");
    AddDrive("sda", sata).filesystem = "";
    AddDrive("sdb", sata);
    machine.on_ioctl = [](unsigned long, void *) { return CDS_NO_DISC; };
    List();
    Enumerate();
    EXPECT_EQ(machine.Calls(Call::IOCTL), 0);
}

// A RAID member is not probed by its bare name, which "list" uses; "enumerate" names it by its path
// and does probe it.
TEST_F(DriveListings, RaidMemberIsProbedByEnumerateAlone)
{
    BlockDevice &drive = AddDrive("sdb", usb);
    raid_members["sdb"] = true;
    drive.filesystem = "";
    drive.label = "old";
    List();
    EXPECT_EQ(Probed(), Words());
    EXPECT_EQ(drive.label + drive.filesystem, " ");
    drive.filesystem = "";
    Enumerate();
    EXPECT_EQ(Probed(), Words({"/dev/sdb"}));
}

// "enumerate" asks nothing of the drives that it does not show.
TEST_F(DriveListings, EnumerateLeavesHiddenDrivesAlone)
{
    AddDrive("dm-0", &connection_types[CONNECTION_LVM]).filesystem = "";
    AddDrive("nvme0n1", &connection_types[CONNECTION_NVME]).filesystem = "";
    AddDrive("x", nullptr).filesystem = "";
    Enumerate();
    EXPECT_EQ(Probed(), Words());
}

// One reading of /proc serves a whole listing; where all is known there is none at all.
TEST_F(DriveListings, OneReadingOfProcServesAListing)
{
    for (int pid = 1; pid <= 20; pid++)
        machine.AddProcess(pid, "dd", {"/dev/null", "/home/file"});
    for (int i = 0; i < 4; i++) {
        BlockDevice &drive = AddDrive("sd" + std::string(1, static_cast<char>('a' + i)), usb);
        AddPartition(drive, drive.device + "1");
    }
    machine.ForgetCalls();
    List();
    Enumerate();
    EXPECT_EQ(machine.Opened("/proc"), 0);
    EXPECT_EQ(machine.SystemCalls(), 0);
    for (bool is_list : {true, false}) {
        for (const auto &[name, drive] : blockdev_list)
            drive->filesystem = "";
        for (const auto &[name, partition] : partdev_list)
            partition->filesystem = "";
        machine.ForgetCalls();
        is_list ? List() : Enumerate();
        EXPECT_EQ(machine.Opened("/proc"), 1);
        EXPECT_EQ(machine.Opened("7/fd"), 1);
    }
    EXPECT_EQ(Probed().size(), 16U);
}

// A label with a tab or a line end goes through as it is: a label is the label probe's business.
TEST_F(DriveListings, LabelIsPrintedAsItIs)
{
    AddDrive("sdb", usb).label = "a\tb";
    EXPECT_NE(List().find("\ta\tb\t"), std::string::npos);
}

// What a notice calls a device may hold anything but a slash: no name ends a column or a row.
TEST_F(DriveListings, NameCannotForgeARow)
{
    BlockDevice &drive = AddDrive("sd\tb\nOK- \tsdx", usb);
    AddPartition(drive, "sd\tb\nOK- \tsdx1");
    EXPECT_EQ(List(), head +
                          "OK- \tsd_b_OK- _sdx\tHard Drive\tUSB\t\t-1\t\t\t\tknown\n"
                          "OK- \t\tsd_b_OK- _sdx1\tPartition\tUSB\t\t-1\t\t\t\tknown\n" +
                          end);
    EXPECT_EQ(List(1).find("sd\tb"), std::string::npos);
    EXPECT_NE(Enumerate().find("\n"
                               "OK-\t\t/dev/sd_b_OK- _sdx\t/sys/block/sd_b_OK- _sdx\t\tHard Drive"
                               "\t\tUSB\t\n"
                               "OK-\t\t\t/dev/sd_b_OK- _sdx1\t"
                               "/sys/block/sd_b_OK- _sdx/sd_b_OK- _sdx1\t\tHard Drive\t\tUSB\t\n"),
              std::string::npos);
}
