// The links in /mnt that name devices by their label.
#include "registry/label_links.h"

#include <unistd.h>

#include "made_up_machine.h"
#include "registry/block_device.h"

class LabelLinks : public MadeUpMachineTest {
protected:
    BlockDevice *AddDrive(const std::string &name, const std::string &label)
    {
        BlockDevice *drive = blockdev_list[name] = new BlockDevice(name);
        drive->label = label;
        drive->filesystem = "ext4";
        return drive;
    }

    PartitionDevice *AddPartition(const std::string &name, const std::string &label)
    {
        PartitionDevice *partition = partdev_list[name] = new PartitionDevice(name);
        partition->label = label;
        partition->filesystem = "ext4";
        return partition;
    }
};

// The link's target is the bare name, so that it leads to the directory beside it.
TEST_F(LabelLinks, LinkNamesTheDirectoryBesideIt)
{
    AddPartition("sdb1", "DATA");
    AddDrive("sdc", "two words");
    make_label_link("sdb1");
    make_label_link("/dev/sdc");
    EXPECT_EQ(machine.LinkTarget("/mnt/^DATA"), "sdb1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^two words"), "sdc");
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(machine.Calls(Call::FORK), 0); // nothing had to be asked
    remove_label_link("/dev/sdb1");
    remove_label_link("sdc");
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
    EXPECT_FALSE(machine.Exists("/mnt/^two words"));
}

// Where two devices have one label, the first keeps the link, silently.
TEST_F(LabelLinks, LinkThatIsThereStays)
{
    AddPartition("sdb1", "DATA");
    AddPartition("sdc1", "DATA");
    make_label_link("sdb1");
    make_label_link("sdc1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^DATA"), "sdb1");
    make_label_link("sdb1");
    remove_label_link("sdc1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^DATA"), "sdb1");
    EXPECT_EQ(errors.Take(), "");
}

// A link goes only when its target is this very device's name.
TEST_F(LabelLinks, OnlyItsOwnLinkGoes)
{
    AddPartition("sdb1", "DATA");
    static const struct {
        std::string target;
        bool stays;
    } cases[] = {
        {"sdb1", false}, {"sdb", true},       {"sdb11", true},
        {"sdb1/", true}, {"/mnt/sdb1", true}, {"./sdb1", true},
        {"sdc1", true},  {"/dev/sdb1", true}, {std::string(500, 'x'), true},
    };
    for (const auto &c : cases) {
        for (const char *name : {"sdb1", "/dev/sdb1"}) {
            machine.Remove("/mnt/^DATA");
            machine.Link("/mnt/^DATA", c.target);
            remove_label_link(name);
            EXPECT_EQ(machine.Exists("/mnt/^DATA"), c.stays) << c.target;
        }
    }
}

// 127 bytes of a target are looked at: a longer name is met by its beginning.
TEST_F(LabelLinks, LooksAt127BytesOfATarget)
{
    const std::string name(127, 'n');
    AddDrive(name, "LONG");
    AddDrive(name + "n", "LONGER");
    machine.Link("/mnt/^LONG", name + "n");
    remove_label_link(name);
    EXPECT_FALSE(machine.Exists("/mnt/^LONG"));
    machine.Link("/mnt/^LONGER", name + "n");
    remove_label_link(name + "n");
    EXPECT_TRUE(machine.Exists("/mnt/^LONGER"));
}

// An empty directory in the link's place goes; a full one, and a file, stay, and nothing is said.
TEST_F(LabelLinks, EmptyDirectoryInItsPlaceGoes)
{
    AddPartition("sdb1", "EMPTY");
    AddPartition("sdb2", "FULL");
    AddPartition("sdb3", "FILE");
    AddPartition("sdb4", "NONE");
    machine.MakeDirectory("/mnt/^EMPTY");
    machine.Write("/mnt/^FULL/file", "");
    machine.Write("/mnt/^FILE", "");
    for (const char *name : {"sdb1", "sdb2", "sdb3", "sdb4"}) {
        make_label_link(name);
        if (std::string(name) != "sdb4")
            remove_label_link(name);
    }
    EXPECT_FALSE(machine.Exists("/mnt/^EMPTY"));
    EXPECT_TRUE(machine.Exists("/mnt/^FULL/file"));
    EXPECT_TRUE(machine.Exists("/mnt/^FILE"));
    EXPECT_EQ(machine.LinkTarget("/mnt/^NONE"), "sdb4");
    EXPECT_EQ(errors.Take(), "");
}

// A dangling link of this device is its link.
TEST_F(LabelLinks, DanglingLinkGoes)
{
    AddPartition("sdb1", "DATA");
    machine.Link("/mnt/^DATA", "sdb1");
    ASSERT_FALSE(machine.Exists("/mnt/sdb1"));
    remove_label_link("sdb1");
    EXPECT_FALSE(machine.Exists("/mnt/^DATA"));
}

// A device without a label, or one that nobody knows, has no link.
TEST_F(LabelLinks, NoLabelNoLink)
{
    BlockDevice *drive = AddDrive("sdb", "");
    machine.on_exec = [](char *const *) {}; // nothing is learnt
    make_label_link("sdb");
    remove_label_link("sdb");
    EXPECT_EQ(drive->filesystem, " ");
    machine.ForgetCalls();
    for (const char *name : {"sdz", "/dev/sdz", "", "/dev/"}) {
        make_label_link(name);
        remove_label_link(name);
    }
    EXPECT_EQ(machine.SystemCalls(), 0);
}

// A link that cannot be made is told of, with the path and the reason.
TEST_F(LabelLinks, FailureIsTold)
{
    AddPartition("sdb1", "DATA");
    machine.Script(Call::SYMLINK, {fails(EROFS)});
    make_label_link("sdb1");
    EXPECT_EQ(errors.Take(),
              "Cannot create drive label symlink /mnt/^DATA, Read-only file system\n");
    machine.Remove("/mnt");
    make_label_link("sdb1");
    EXPECT_EQ(errors.Take(),
              "Cannot create drive label symlink /mnt/^DATA, No such file or directory\n");
    AddPartition("sdb2", std::string(300, 'l'));
    machine.MakeDirectory("/mnt");
    make_label_link("sdb2");
    EXPECT_NE(errors.Take().find(", File name too long\n"), std::string::npos);
}

// A label with a slash leads nowhere: no link is made, none is removed, nothing outside of /mnt is
// touched, though the way there exists.
TEST_F(LabelLinks, LabelWithASlashTouchesNothing)
{
    machine.MakeDirectory("/run/x");
    machine.MakeDirectory("/mnt/^A");
    for (const char *label : {"A/../../run/y", "A/../../run/x", "/", "A/", "A/b"}) {
        AddPartition("sdb1", label);
        machine.ForgetCalls();
        make_label_link("sdb1");
        EXPECT_EQ(errors.Take(), "Cannot create drive label symlink /mnt/^" + std::string(label) +
                                     ", No such file or directory\n");
        remove_label_link("sdb1");
        EXPECT_EQ(machine.SystemCalls(), 0) << label;
        EXPECT_EQ(errors.Take(), "");
        delete partdev_list["sdb1"];
        errors.Take();
    }
    partdev_list.clear();
    EXPECT_FALSE(machine.Exists("/run/y"));
    EXPECT_TRUE(machine.Exists("/run/x"));
}

// The label "A" beside the hostile "A/../../run/x" has its own link and loses only that.
TEST_F(LabelLinks, LabelBesideAHostileOneIsSafe)
{
    machine.MakeDirectory("/run/x");
    AddPartition("sdb1", "A");
    AddPartition("sdc1", "A/../../run/x");
    make_label_link("sdb1");
    machine.MakeDirectory("/mnt/sdb1");
    make_label_link("sdc1");
    remove_label_link("sdc1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^A"), "sdb1");
    remove_label_link("sdb1");
    EXPECT_FALSE(machine.Exists("/mnt/^A"));
    EXPECT_TRUE(machine.Exists("/run/x"));
}

// Dots are ordinary characters behind the "^".
TEST_F(LabelLinks, DotsAreNames)
{
    for (const char *label : {".", "..", "..."}) {
        AddPartition("sdb1", label);
        make_label_link("sdb1");
        EXPECT_EQ(machine.LinkTarget(std::string("/mnt/^") + label), "sdb1");
        remove_label_link("sdb1");
        EXPECT_FALSE(machine.Exists(std::string("/mnt/^") + label));
        partdev_list["sdb1"]->release();
        delete partdev_list["sdb1"];
    }
    partdev_list.clear();
}

// A label or filesystem that is not known yet is asked for, by the bare name, and remembered.
TEST_F(LabelLinks, AsksForAnUnknownLabel)
{
    machine.on_exec = [](char *const *) {
        const char answer[] = "DATA\n  filesystem: ext4\n";
        if (write(STDOUT_FILENO, answer, sizeof(answer) - 1) < 0)
            _exit(1);
    };
    static const struct {
        const char *label, *filesystem;
        int probes;
    } cases[] = {{"", "", 1}, {"OLD", "", 1}, {"", "ext4", 1}, {"", " ", 1}, {"DATA", "ext4", 0}};
    for (const auto &c : cases) {
        for (auto *change : {make_label_link, remove_label_link}) {
            PartitionDevice *partition = AddPartition("sdb1", c.label);
            partition->filesystem = c.filesystem;
            machine.ForgetCalls();
            change("/dev/sdb1");
            EXPECT_EQ(machine.Calls(Call::FORK), c.probes) << c.label << c.filesystem;
            EXPECT_EQ(partition->label, "DATA");
            EXPECT_EQ(partition->filesystem, "ext4");
            EXPECT_EQ(machine.Exists("/mnt/^DATA"), change == make_label_link);
            partition->release();
            delete partition;
        }
    }
    partdev_list.clear();
    EXPECT_EQ(machine.Deeds("execv").front(),
              "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb1 --fs");
}

// A drive comes before a partition of the same name.
TEST_F(LabelLinks, DriveComesFirst)
{
    AddDrive("sdb1", "DRIVE");
    AddPartition("sdb1", "PARTITION");
    make_label_link("sdb1");
    EXPECT_TRUE(machine.Exists("/mnt/^DRIVE"));
    EXPECT_FALSE(machine.Exists("/mnt/^PARTITION"));
}
