// What sysfs tells about drives and partitions.
#include "registry/sysfs_probe.h"

#include <fcntl.h>

#include "base/daemon_state.h"
#include "base/descriptor.h"
#include "inspect/raid_members.h"
#include "made_up_machine.h"

class SysfsProbe : public MadeUpMachineTest {
protected:
    // A probed drive of that name.
    BlockDevice &Probe(const std::string &name)
    {
        BlockDevice *&drive = blockdev_list[name];
        if (!drive)
            drive = new BlockDevice(name);
        probe_drive(*drive);
        return *drive;
    }

    // The name of the connection that the probe finds, or "none".
    std::string ConnectionOf(const std::string &name)
    {
        const ConnectionType *row = Probe(name).connection;
        return row ? row->name : "none";
    }

    // A SCSI-named drive whose place in the device tree is this, as today's kernels show it.
    void PlaceDrive(const std::string &name, const std::string &place)
    {
        machine.Remove("/sys/block/" + name);
        machine.Remove("/sys/class");
        machine.Write("/sys/block/" + name + "/size", "8\n");
        machine.Link("/sys/block/" + name + "/device", "../../scsi/0:0:0:0");
        machine.Link("/sys/class/scsi_disk/0:0:0:0", "../../" + place);
    }

    void SetDriver(const std::string &controller, const std::string &driver)
    {
        machine.Remove("/sys/devices");
        machine.Link("/sys/devices/" + controller + "/driver",
                     "../../../bus/pci/drivers/" + driver);
    }
};

// The name alone decides between buses; the first rule that fits wins.
TEST_F(SysfsProbe, ConnectionFollowsTheName)
{
    static const struct {
        const char *name;
        const char *connection;
    } cases[] = {
        {"hda", "IDE/PATA"},
        {"hdc", "IDE/PATA"},
        {"hdA", "IDE/PATA"},
        {"hd1", "none"},
        {"hd", "none"},
        {"sda", "SCSI"},
        {"sdaa", "SCSI"},
        {"sd", "none"},
        {"sd1", "none"},
        {"sr0", "SCSI"},
        {"sr10", "SCSI"},
        {"sra", "none"},
        {"sr", "none"},
        {"md0", "RAID"},
        {"md127", "RAID"},
        {"md_home", "none"},
        {"md", "none"},
        {"mmcblk0", "MMC/SD"},
        {"mmcblk0boot0", "MMC/SD"},
        {"mmcblk", "none"},
        {"mmcblka", "none"},
        {"nvme0n1", "NVME"},
        {"nvme10n12", "NVME"},
        {"nvme0", "none"}, // a controller, no namespace
        {"nvme0n", "none"},
        {"nvme0na", "none"},
        {"nvmen1", "none"},
        {"nvme0c0n1", "none"},
        {"nvme", "none"},
        {"dm-0", "LVM"},
        {"dm-10", "LVM"},
        {"dm-", "none"},
        {"dm-a", "none"},
        {"dm0", "none"},
        {"zram0", "none"},
        {"nbd0", "none"},
        {"fd0", "none"},
        {"", "none"},
        {"xsda", "none"},
        {"sd\xE9", "none"}, // a byte that is no letter anywhere
    };
    for (const auto &c : cases)
        EXPECT_EQ(ConnectionOf(c.name), c.connection) << c.name;
}

// Of a name of no known kind nothing is read: no connection, no type, and a size of all bits set.
TEST_F(SysfsProbe, UnknownKindIsNotRead)
{
    machine.Write("/sys/block/nvme0/size", "8\n");
    machine.Write("/sys/block/nvme0/device/model", "a model\n");
    machine.ForgetCalls();
    const BlockDevice &drive = Probe("nvme0");
    EXPECT_EQ(machine.SystemCalls(), 0);
    EXPECT_EQ(drive.connection, nullptr);
    EXPECT_EQ(drive.capacity, ~0ULL);
    EXPECT_EQ(drive.type, "");
    EXPECT_EQ(drive.model, "");
    EXPECT_EQ(drive.sysfs_path, "/sys/block/nvme0");
}

// A USB stick: the model of its own, blanks and all, and no serial number.
TEST_F(SysfsProbe, UsbStickHasNoSerialInItsModel)
{
    PlaceDrive("sda", "devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host6/target6:0:0/"
                      "6:0:0:0/scsi_disk/6:0:0:0");
    machine.Write("/sys/scsi/0:0:0:0/model", "Ultra Fit       \n");
    machine.Write("/sys/scsi/0:0:0:0/serial", "4711\n");
    machine.Write("/sys/block/sda/size", "60062500\n");
    const BlockDevice &drive = Probe("sda");
    EXPECT_EQ(drive.connection, &connection_types[CONNECTION_USB]);
    EXPECT_EQ(drive.type, "Hard Drive");
    EXPECT_EQ(drive.model, "Ultra Fit       ");
    EXPECT_EQ(drive.capacity, 60062500ULL * 512);
    EXPECT_EQ(drive.sysfs_path, "/sys/block/sda");
}

// Optical drives are told by their name.
TEST_F(SysfsProbe, OpticalDrive)
{
    machine.Write("/sys/block/sr0/device/model", "DVD-ROM\n");
    machine.Write("/sys/block/sr0/size", "2097151\n");
    const BlockDevice &drive = Probe("sr0");
    EXPECT_EQ(drive.connection, &connection_types[CONNECTION_SCSI]);
    EXPECT_EQ(drive.type, "CD-ROM");
    EXPECT_EQ(drive.model, "DVD-ROM");
    EXPECT_EQ(drive.capacity, 2097151ULL * 512);
}

// An IDE drive's medium tells its type; the blank between model and serial number stays even when
// one of them, or both, are missing.
TEST_F(SysfsProbe, IdeDrive)
{
    static const struct {
        const char *media, *type;
    } types[] = {{"disk\n", "Hard Drive"}, {"cdrom\n", "CD-ROM"},  {"tape\n", "Unknown"},
                 {"", "Unknown"},          {"disks\n", "Unknown"}, {"CDROM\n", "Unknown"}};
    for (const auto &c : types) {
        machine.Write("/sys/block/hdc/device/media", c.media);
        EXPECT_EQ(Probe("hdc").type, c.type) << c.media;
    }
    machine.Remove("/sys/block/hdc/device/media");
    EXPECT_EQ(Probe("hdc").type, "Unknown");

    EXPECT_EQ(Probe("hdc").model, " ");
    machine.Write("/sys/block/hdc/device/model", "DVD\n");
    EXPECT_EQ(Probe("hdc").model, "DVD ");
    machine.Write("/sys/block/hdc/device/serial", "4711\n");
    EXPECT_EQ(Probe("hdc").model, "DVD 4711");
    machine.Remove("/sys/block/hdc/device/model");
    EXPECT_EQ(Probe("hdc").model, " 4711");
    EXPECT_EQ(Probe("hdc").connection, &connection_types[CONNECTION_IDE]);
}

// A namespace's model is followed by its serial number.
TEST_F(SysfsProbe, NvmeNamespace)
{
    machine.Write("/sys/block/nvme0n1/device/model", "Fast One\n");
    machine.Write("/sys/block/nvme0n1/device/serial", "S123\n");
    machine.Write("/sys/block/nvme0n1/size", "1000\n");
    const BlockDevice &drive = Probe("nvme0n1");
    EXPECT_EQ(drive.connection, &connection_types[CONNECTION_NVME]);
    EXPECT_EQ(drive.type, "Hard Drive");
    EXPECT_EQ(drive.model, "Fast One S123");
    EXPECT_EQ(drive.capacity, 512000U);
}

// A card and a volume have their names elsewhere.
TEST_F(SysfsProbe, CardAndVolume)
{
    machine.Write("/sys/block/mmcblk0/device/name", "SD32G\n");
    machine.Write("/sys/block/mmcblk0/size", "100\n");
    const BlockDevice &card = Probe("mmcblk0");
    EXPECT_EQ(card.connection, &connection_types[CONNECTION_MMC]);
    EXPECT_EQ(card.type, "Hard Drive");
    EXPECT_EQ(card.model, "SD32G");
    EXPECT_EQ(card.capacity, 51200U);

    machine.Write("/sys/block/dm-0/dm/name", "group-home\n");
    machine.Write("/sys/block/dm-0/size", "200\n");
    const BlockDevice &volume = Probe("dm-0");
    EXPECT_EQ(volume.connection, &connection_types[CONNECTION_LVM]);
    EXPECT_EQ(volume.type, "Logical Volume");
    EXPECT_EQ(volume.model, "group-home");
    EXPECT_EQ(volume.capacity, 102400U);
}

// A card or a drive may call itself anything; what would end a row or a column of a listing, or
// command a terminal, is masked.
TEST_F(SysfsProbe, NoModelEndsItsRow)
{
    machine.Write("/sys/block/mmcblk0/device/name", "a\nOK  \n");
    machine.Write("/sys/block/nvme0n1/device/model", "\x1b[2J\tx\x7f\n");
    machine.Write("/sys/block/nvme0n1/device/serial", "\r\xc3\xa4\n");
    machine.Write("/sys/block/sda/device/model", "\x01 ~\n");
    machine.Write("/sys/block/hda/device/model", "\x1f\n");
    machine.Write("/sys/block/dm-0/dm/name", "group\nhome\n");
    EXPECT_EQ(Probe("mmcblk0").model, "a_OK  ");
    EXPECT_EQ(Probe("nvme0n1").model, "_[2J_x_ _\xc3\xa4");
    EXPECT_EQ(Probe("sda").model, "_ ~");
    EXPECT_EQ(Probe("hda").model, "_ ");
    EXPECT_EQ(Probe("dm-0").model, "group_home");
}

// An array has no model; its slaves become active members, whatever they were.
TEST_F(SysfsProbe, ArrayMakesItsSlavesActive)
{
    machine.Write("/sys/block/md0/size", "300\n");
    machine.Link("/sys/block/md0/slaves/sdb1", "../../sdb/sdb1");
    machine.Link("/sys/block/md0/slaves/sdc1", "../../sdc/sdc1");
    machine.Write("/sys/block/md0/slaves/.hidden", "");
    machine.Write("/sys/block/md0/device/model", "none of ours\n");
    raid_members["sdc1"] = false;
    raid_members["sdd1"] = false;
    const BlockDevice &array = Probe("md0");
    EXPECT_EQ(array.connection, &connection_types[CONNECTION_RAID]);
    EXPECT_EQ(array.type, "Hard Drive");
    EXPECT_EQ(array.model, "");
    EXPECT_EQ(array.capacity, 153600U);
    EXPECT_EQ(raid_members,
              (std::map<std::string, bool>{{"sdb1", true}, {"sdc1", true}, {"sdd1", false}}));
}

// Only arrays have members: the slaves of a volume are none.
TEST_F(SysfsProbe, SlavesOfAVolumeAreNoMembers)
{
    machine.Link("/sys/block/dm-0/slaves/sdb1", "../../sdb/sdb1");
    Probe("dm-0");
    EXPECT_EQ(raid_members.size(), 0U);
}

// What cannot be read is empty; an unreadable size is 0, not unknown.
TEST_F(SysfsProbe, UnreadableAttributesAreEmpty)
{
    for (const char *name : {"sda", "sr0", "md0", "mmcblk0", "dm-0"}) {
        const BlockDevice &drive = Probe(name);
        EXPECT_EQ(drive.capacity, 0U) << name;
        EXPECT_EQ(drive.model, "") << name;
        EXPECT_NE(drive.connection, nullptr) << name;
    }
    EXPECT_EQ(Probe("nvme0n1").model, " ");
    EXPECT_EQ(errors.Take(), "");
}

// A size in any notation, and in none.
TEST_F(SysfsProbe, ReadsASizeOfAnyNotation)
{
    static const struct {
        const char *text;
        unsigned long long bytes;
    } cases[] = {{"8", 4096}, {"0x8", 4096}, {"010", 4096}, {"", 0}, {"many", 0}, {"0", 0}};
    for (const auto &c : cases) {
        machine.Write("/sys/block/mmcblk0/size", c.text);
        EXPECT_EQ(Probe("mmcblk0").capacity, c.bytes) << c.text;
    }
}

// A probe forgets what the one before found: label and filesystem are asked for again, and a drive
// that has lost its kind has no connection.
TEST_F(SysfsProbe, StartsAfresh)
{
    BlockDevice &drive = Probe("sda");
    drive.label = "DATA";
    drive.filesystem = "ext4";
    drive.model = "old";
    drive.place = "Main";
    drive.scanned = 1;
    probe_drive(drive);
    EXPECT_EQ(drive.label + drive.filesystem + drive.model + drive.place, "");
    EXPECT_EQ(drive.scanned, 1); // the search for the main partition keeps its own mark

    BlockDevice *stranger = blockdev_list["x"] = new BlockDevice("x");
    stranger->set_connection(&connection_types[CONNECTION_USB]);
    stranger->capacity = 4096;
    stranger->type = "Hard Drive";
    probe_drive(*stranger);
    EXPECT_EQ(stranger->connection, nullptr);
    EXPECT_EQ(stranger->capacity, ~0ULL);
    EXPECT_EQ(stranger->type, "");
}

// The boot device comes before the main one; both names of each count, for drives and partitions.
TEST_F(SysfsProbe, PlaceIsBootBeforeMain)
{
    boot_drive = "sda";
    boot_partition = "sda1";
    main_drive = "sdb";
    main_partition = "sdb1";
    static const struct {
        const char *name, *place;
    } cases[] = {{"sda", "Boot"}, {"sda1", "Boot"}, {"sdb", "Main"}, {"sdb1", "Main"},
                 {"sdc", ""},     {"sd", ""},       {"", ""}};
    for (const auto &c : cases) {
        EXPECT_EQ(Probe(c.name).place, c.place) << c.name;
        PartitionDevice partition(c.name);
        probe_partition(partition);
        EXPECT_EQ(partition.place, c.place) << c.name;
        partition.release();
    }
    main_drive = "sda";
    main_partition = "sda1";
    EXPECT_EQ(Probe("sda").place, "Boot");
    EXPECT_EQ(Probe("sda1").place, "Boot");
}

// What the way to a drive says of its transport. USB comes before Firewire: a Firewire bridge
// behind USB counts as USB.
TEST_F(SysfsProbe, TransportIsSeenInTheDevicesPlace)
{
    static const struct {
        const char *place;
        const char *connection;
    } cases[] = {
        {"devices/pci0000:00/0000:00:14.0/usb1/1-2/host6/0:0:0:0", "USB"},
        {"devices/pci0000:00/0000:00:14.0/usb1/1-2/fw-host0/0:0:0:0", "USB"},
        {"devices/pci0000:00/0000:00:14.0/fw-host0/usb/0:0:0:0", "USB"},
        {"devices/pci0000:00/0000:00:14.0/fw-host0/1/0:0:0:0", "1394/Firewire"},
        {"devices/platform/usb/0:0:0:0", "USB"},
        {"devices/platform/soc/host0/0:0:0:0", "SCSI"},
        {"devices/usb1/0:0:0:0", "SCSI"}, // "/usb" is looked for behind "devices/"
        {"usb1/0:0:0:0", "SCSI"},
        {"devices/vmbus/0:0:0:0", "SCSI"},
        {"devices/", "SCSI"},
        {"devices", "SCSI"},
        {"pc", "SCSI"},
        {"devices/xpci0000:00/0000:00:1f.2/0:0:0:0", "SCSI"},
    };
    SetDriver("pci0000:00/0000:00:14.0", "ahci");
    for (const auto &c : cases) {
        PlaceDrive("sda", c.place);
        EXPECT_EQ(ConnectionOf("sda"), c.connection) << c.place;
    }
}

// The controller's driver tells SATA from other SCSI.
TEST_F(SysfsProbe, SataIsSeenInTheControllersDriver)
{
    static const struct {
        const char *driver;
        const char *connection;
    } cases[] = {
        {"ahci", "SATA"},   {"sata_nv", "SATA"}, {"sata_", "SATA"}, {"ata_piix", "SCSI"},
        {"ahci_x", "SCSI"}, {"xahci", "SCSI"},   {"sata", "SCSI"},  {"mpt3sas", "SCSI"},
        {"virtio", "SCSI"}, {"AHCI", "SCSI"},
    };
    PlaceDrive("sda", "devices/pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0");
    for (const auto &c : cases) {
        SetDriver("pci0000:00/0000:00:1f.2", c.driver);
        EXPECT_EQ(ConnectionOf("sda"), c.connection) << c.driver;
    }
    machine.Remove("/sys/devices");
    EXPECT_EQ(ConnectionOf("sda"), "SCSI");                              // no driver at all
    machine.Link("/sys/devices/pci0000:00/0000:00:1f.2/driver", "ahci"); // a name without a path
    EXPECT_EQ(ConnectionOf("sda"), "SATA");
}

// Optical drives are refined as well.
TEST_F(SysfsProbe, OpticalDriveOnSata)
{
    PlaceDrive("sr0", "devices/pci0000:00/0000:00:1f.2/ata2/host1/target1:0:0/0:0:0:0");
    SetDriver("pci0000:00/0000:00:1f.2", "ahci");
    EXPECT_EQ(ConnectionOf("sr0"), "SATA");
    EXPECT_EQ(Probe("sr0").type, "CD-ROM");
}

// The controller is taken to sit directly below the root bridge, whose name has ten characters: one
// behind a second bridge, or below a longer name, is not found.
TEST_F(SysfsProbe, ControllerSitsBelowTheRootBridgeOnPurpose)
{
    PlaceDrive("sda", "devices/pci0000:00/0000:00:1c.0/0000:02:00.0/ata1/0:0:0:0");
    SetDriver("pci0000:00/0000:00:1c.0/0000:02:00.0", "ahci");
    EXPECT_EQ(ConnectionOf("sda"), "SCSI");
    PlaceDrive("sda", "devices/pci10000:00/10000:00:1f.2/ata1/0:0:0:0");
    SetDriver("pci10000:00/10000:00:1f.2", "ahci");
    EXPECT_EQ(ConnectionOf("sda"), "SCSI");
    // Without the slash between the two, twelve characters are taken all the same.
    PlaceDrive("sda", "devices/pci0000:0000000:1f.2/ata1/0:0:0:0");
    machine.Remove("/sys/devices");
    machine.Link("/sys/devices/pci0000:0000000:1f.2/a/driver", "ahci");
    EXPECT_EQ(ConnectionOf("sda"), "SATA"); // "00000:1f.2/a"
    // A place that ends early is no trouble.
    for (const char *place : {"devices/pci", "devices/pci0000:00", "devices/pci0000:00/",
                              "devices/pci0000:00/0000", "pci", "pci0000:00/0000:00:1f.2"}) {
        PlaceDrive("sda", place);
        EXPECT_EQ(ConnectionOf("sda"), "SCSI") << place;
    }
}

// A place without the folder "devices" in front: the driver is looked for beside it.
TEST_F(SysfsProbe, PlaceWithoutItsFolder)
{
    PlaceDrive("sda", "pci0000:00/0000:00:1f.2/ata1/0:0:0:0");
    machine.Link("/sys/pci0000:00/0000:00:1f.2/driver", "../../drivers/ahci");
    EXPECT_EQ(ConnectionOf("sda"), "SATA");
}

// Kernels differ in the links that they keep: four are tried, in this order.
TEST_F(SysfsProbe, TransportLinkIsLookedForAtFourPlaces)
{
    static const char *const links[] = {
        "/sys/class/scsi_disk/0:0:0:0",
        "/sys/class/scsi_device/0:0:0:0",
        "/sys/class/scsi_disk/0:0:0:0/device",
        "/sys/class/scsi_device/0:0:0:0/device",
    };
    machine.Link("/sys/block/sda/device", "../../../0:0:0:0");
    EXPECT_EQ(ConnectionOf("sda"), "SCSI");
    for (const char *link : links) {
        machine.Remove("/sys/class");
        machine.Link(link, "../../devices/pci0000:00/0000:00:14.0/usb1/0:0:0:0");
        EXPECT_EQ(ConnectionOf("sda"), "USB") << link;
    }
    // The earlier one speaks.
    machine.Remove("/sys/class");
    machine.Link(links[1], "../../devices/platform/usb/0:0:0:0");
    machine.Link(links[2], "../../devices/platform/fw-host/0:0:0:0");
    EXPECT_EQ(ConnectionOf("sda"), "USB");
    machine.Remove("/sys/class/scsi_disk");
    machine.Link(links[0], "../../devices/platform/fw-host/0:0:0:0");
    EXPECT_EQ(ConnectionOf("sda"), "1394/Firewire");
}

// A device link without a slash has no address in it: it stands for itself.
TEST_F(SysfsProbe, DeviceLinkWithoutASlashStandsForItself)
{
    machine.Link("/sys/class/scsi_disk/device", "../../devices/x/usb1/0:0:0:0");
    machine.Link("/sys/block/sda/device", "device");
    EXPECT_EQ(ConnectionOf("sda"), "SCSI");
    machine.Remove("/sys/block/sda/device");
    machine.Link("/sys/block/sda/device", "../../x/usb1/"); // nothing behind the slash
    EXPECT_EQ(ConnectionOf("sda"), "USB");
}

// A partition's size, and its model out of its drive's table.
TEST_F(SysfsProbe, PartitionTakesItsModelFromTheTable)
{
    static const struct {
        const char *drive, *partition, *model;
    } cases[] = {
        {"sda", "sda1", "#83 Linux"},
        {"sda", "sda2", "meh"},
        {"sda", "sda3", ""}, // no entry
        {"mmcblk0", "mmcblk0p1", "#83 Linux"},
        {"nvme0n1", "nvme0n1p2", "meh"},
        {"sda", "sda01", "#83 Linux"}, // a decimal number
        {"sda", "sda", ""},            // no number is 0
        {"sda", "sda12", ""},
        {"sda", "12", ""},
        {"sda", "sda99999999999999999999", ""},
    };
    for (const auto &c : cases) {
        BlockDevice *&drive = blockdev_list[c.drive];
        if (!drive) {
            drive = new BlockDevice(c.drive);
            drive->partition_table = new PartitionTable("/dev/none");
            drive->partition_table->entries = {{1, "#83 Linux"}, {2, "meh"}};
        }
        machine.Write("/sys/block/" + std::string(c.drive) + "/" + c.partition + "/size", "63\n");
        PartitionDevice partition(c.partition);
        partition.set_parent(drive);
        partition.label = partition.filesystem = partition.model = "old";
        probe_partition(partition);
        EXPECT_EQ(partition.model, c.model) << c.partition;
        EXPECT_EQ(partition.partition_size, 63 * 512) << c.partition;
        EXPECT_EQ(partition.label + partition.filesystem, "") << c.partition;

        // Relative to the drive's open folder the answer is the same.
        partition.partition_size = 1;
        partition.label = partition.filesystem = partition.model = "old";
        Descriptor folder(open(("/sys/block/" + std::string(c.drive)).c_str(), O_PATH | O_CLOEXEC));
        probe_partition(partition, folder.Get());
        EXPECT_EQ(partition.model, c.model) << c.partition;
        EXPECT_EQ(partition.partition_size, 63 * 512) << c.partition;
        EXPECT_EQ(partition.label + partition.filesystem, "") << c.partition;
        partition.set_parent(nullptr);
        partition.release();
    }
}

// Without a parent nothing is read: the size stays unknown.
TEST_F(SysfsProbe, PartitionWithoutParentStaysUnknown)
{
    machine.AddPartition("sda", "sda1", "63");
    PartitionDevice partition("sda1");
    partition.partition_size = 5;
    partition.label = partition.filesystem = partition.model = "old";
    machine.ForgetCalls();
    probe_partition(partition);
    EXPECT_EQ(partition.partition_size, -1);
    EXPECT_EQ(partition.label + partition.filesystem + partition.model, "");
    EXPECT_EQ(machine.SystemCalls(), 0);
    partition.release();
}

// A parent without a table leaves the model empty; an unreadable size is 0.
TEST_F(SysfsProbe, PartitionOfADriveWithoutTable)
{
    BlockDevice drive("sda");
    PartitionDevice partition("sda1");
    partition.set_parent(&drive);
    probe_partition(partition);
    EXPECT_EQ(partition.partition_size, 0);
    EXPECT_EQ(partition.model, "");
    partition.set_parent(nullptr);
    partition.release();
    drive.release();
}

// The scan looks at the arrays of the registry, in one reading for each, and skips those that
// cannot be read.
TEST_F(SysfsProbe, ScanMarksTheSlavesOfArrays)
{
    machine.Write("/sys/block/md0/slaves/sdb1", "");
    machine.Write("/sys/block/md0/slaves/.", "");
    machine.Write("/sys/block/md2/slaves/sdc1", "");
    machine.Write("/sys/block/md3/slaves/sdd1", ""); // an array that the registry doesn't know
    machine.Write("/sys/block/dm-0/slaves/sde1", "");
    for (const char *name : {"md0", "md1", "md2", "dm-0"})
        Probe(name);
    raid_members = {{"sdb1", false}};
    scan_raid_slaves();
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdb1", true}, {"sdc1", true}}));
    blockdev_list["md2"]->set_connection(nullptr);
    raid_members.clear();
    scan_raid_slaves();
    EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdb1", true}}));
    EXPECT_EQ(errors.Take(), "");
}

// A hostile sysfs: endless texts and links.
TEST_F(SysfsProbe, TakesEndlessTexts)
{
    machine.Write("/sys/block/sda/size", std::string(5000, '9'));
    machine.Link("/sys/block/sda/device", std::string(2000, '/') + std::string(1500, 'x'));
    EXPECT_EQ(Probe("sda").capacity, ~0ULL << 9);
    machine.Remove("/sys/block/sda/device");
    std::string climbing;
    for (int i = 0; i < 300; i++)
        climbing += "../";
    machine.Link("/sys/block/sda/device", climbing + "x");
    machine.Link("/sys/class/scsi_disk/x", climbing + "devices/pci0000:00/a");
    EXPECT_EQ(ConnectionOf("sda"), "SCSI");
    machine.Write("/sys/block/sdb/device/model", std::string(3000, 'm'));
    EXPECT_EQ(Probe("sdb").model, std::string(1023, 'm'));
}
