// The search for the main partition: what is examined, in which order, and what is left behind.
#include "core/main_partition_search.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "inspect/proc_partitions.h"
#include "inspect/raid_members.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "registry/block_device.h"

using namespace std::string_literals;

// What is on a device, for the kernel of these tests.
struct Medium {
    std::string type;      // the filesystem that mounts it, "" for none
    std::string signature; // its .claimsig; "" for none
    int refusal = EINVAL;  // of every other type
};

class MainPartitionSearch : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        settings.main_partition_signature = "claimed";
        for (const char *table : {"/proc/mounts", "/proc/filesystems", "/proc/partitions"})
            machine.Write(table, "");
        // What is done stands between what is said, in one story.
        machine.on_deed = [this](const std::string &deed) {
            if (deed.starts_with("mount") || deed.starts_with("umount ") ||
                deed.starts_with("execv "))
                fprintf(stderr, "# %s\n", deed.c_str());
            Do(deed);
        };
        machine.on_exec = [this](char *const *arguments) {
            const std::string answer = labels[arguments[1]] + "\n  filesystem: ext4\n";
            _exit(write(STDOUT_FILENO, answer.data(), answer.size()) < 0);
        };
    }

    // A kernel that mounts: a medium shows its files and its line in the table while it is mounted.
    void Do(const std::string &deed)
    {
        std::vector<std::string> words;
        for (size_t start = 0; start <= deed.size();) {
            const size_t end = std::min(deed.find(' ', start), deed.size());
            words.push_back(deed.substr(start, end - start));
            start = end + 1;
        }
        if (words[0] == "mount" && media.contains(words[1])) {
            const Medium &medium = media[words[1]];
            if (medium.type != words[3])
                machine.Script(Call::MOUNT, {fails(medium.refusal)});
            else
                Show(words[1], words[2], std::stoul(words[4]));
        } else if (words[0] == "mount" && words[1] == "(null)") {
            machine.Write("/proc/mounts", "/dev/sdb1 " + words[2] + " ext4 rw 0 0\n");
        } else if (words[0] == "umount") {
            machine.Remove(words[1] + "/.claimsig");
            machine.Write("/proc/mounts", "");
        }
    }

    void Show(const std::string &device, const std::string &directory, unsigned long flags)
    {
        const Medium &medium = media[device];
        if (!medium.signature.empty())
            machine.Write(directory + "/.claimsig", medium.signature);
        machine.Write("/proc/mounts", device + " " + directory + " " + medium.type + " " +
                                          (flags & MS_RDONLY ? "ro" : "rw") +
                                          (flags & MS_NOSUID ? ",nosuid" : "") +
                                          (flags & MS_NODEV ? ",nodev" : "") + " 0 0\n");
    }

    // A drive in the registry whose label is known to be of no use.
    BlockDevice *AddDrive(const std::string &name, const Medium &medium = {})
    {
        BlockDevice *drive = blockdev_list[name] = new BlockDevice(name);
        drive->type = "Hard Drive";
        Describe(drive, medium);
        return drive;
    }

    PartitionDevice *AddPartition(const std::string &name, const Medium &medium = {})
    {
        PartitionDevice *partition = partdev_list[name] = new PartitionDevice(name);
        partition->set_parent(blockdev_list.at(name.substr(0, name.size() - 1)));
        Describe(partition, medium);
        return partition;
    }

    void Describe(BlockDevice *device, const Medium &medium)
    {
        device->label = "label-of-" + device->device;
        device->filesystem = "ext4";
        media["/dev/" + device->device] = medium;
    }

    // sdb with the partition sdb1.
    PartitionDevice *AddStick(const Medium &medium = {})
    {
        AddDrive("sdb");
        return AddPartition("sdb1", medium);
    }

    // The devices that a pass tried to mount, in order.
    std::vector<std::string> Tried()
    {
        std::vector<std::string> devices;
        for (const std::string &deed : machine.Deeds("mount /dev/")) {
            const std::string device = deed.substr(11, deed.find(' ', 11) - 11);
            if (devices.empty() || devices.back() != device)
                devices.push_back(device);
        }
        return devices;
    }

    std::map<std::string, Medium> media;       // by device path
    std::map<std::string, std::string> labels; // what the probe program answers
};

static const std::string trial_flags = " " + std::to_string(MS_RDONLY | MS_NOSUID | MS_NODEV);
static const std::string label_flags = " " + std::to_string(MS_NOSUID | MS_NODEV);
static const std::string remount = " (null) " + std::to_string(MS_REMOUNT);
static const std::string protect = "mount_setattr /mnt/sdb1 6"; // nosuid and nodev

// By its signature: mounted read-only and with care, looked into, made writable, made known.
TEST_F(MainPartitionSearch, FindsASignature)
{
    AddStick({"ext3", "claimed\n"});
    machine.Write("/proc/filesystems", "\text4\n");
    machine.Write("/proc/partitions", "8 17 100 sdb1\n");
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(errors.Take(), "For startup search: attempting to mount /dev/sdb1\n"
                             "# mount /dev/sdb1 /mnt/sdb1 ext4" +
                                 trial_flags +
                                 "\n"
                                 "# mount /dev/sdb1 /mnt/sdb1 ext3" +
                                 trial_flags +
                                 "\n"
                                 "For startup search: successfully mounted /dev/sdb1\n"
                                 "For startup search: /dev/sdb1 has sig claimed\n"
                                 "# mount (null) /mnt/sdb1" +
                                 remount +
                                 "\n"
                                 "# " +
                                 protect + "\n");
    EXPECT_EQ(main_drive, "sdb");
    EXPECT_EQ(main_partition, "sdb1");
    EXPECT_EQ(machine.LinkTarget("/mnt/main"), "sdb1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^label-of-sdb1"), "sdb1");
    ASSERT_EQ(mount_list.size(), 1U); // read again when all was done
    EXPECT_EQ(mount_list.front().options, std::vector<std::string>({"rw"}));
    EXPECT_EQ(filesystems_list.size(), 1U);
    EXPECT_EQ(proc_partitions.size(), 1U);
    EXPECT_EQ(std::filesystem::current_path(), std::filesystem::path(machine.RealPath("")));
    EXPECT_EQ(partdev_list["sdb1"]->scanned, 0);
}

// By its label: writable at once, and what is on it is not looked at.
TEST_F(MainPartitionSearch, FindsALabel)
{
    settings.main_partition_label = "label-of-sdb1";
    AddStick({"xfs", "another text\n"});
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(errors.Take(), "For startup search: attempting to mount /dev/sdb1\n"
                             "# mount /dev/sdb1 /mnt/sdb1 ext4" +
                                 label_flags +
                                 "\n"
                                 "# mount /dev/sdb1 /mnt/sdb1 ext3" +
                                 label_flags +
                                 "\n"
                                 "# mount /dev/sdb1 /mnt/sdb1 ext2" +
                                 label_flags +
                                 "\n"
                                 "# mount /dev/sdb1 /mnt/sdb1 udf" +
                                 label_flags +
                                 "\n"
                                 "# mount /dev/sdb1 /mnt/sdb1 xfs" +
                                 label_flags +
                                 "\n"
                                 "For startup search: successfully mounted /dev/sdb1\n");
    EXPECT_EQ(main_drive, "sdb");
    EXPECT_EQ(main_partition, "sdb1");
    EXPECT_EQ(machine.LinkTarget("/mnt/main"), "sdb1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^label-of-sdb1"), "sdb1");
    EXPECT_EQ(mount_list.size(), 1U);
    EXPECT_EQ(machine.Opened(".claimsig"), 0);
    EXPECT_EQ(std::filesystem::current_path(), std::filesystem::path(machine.RealPath("")));
}

// A directory that cannot be entered is told of, and the label counts all the same.
TEST_F(MainPartitionSearch, LabelCountsWhereNobodyCanEnter)
{
    settings.main_partition_label = "label-of-sdb1";
    AddStick({"ext4", ""});
    machine.Script(Call::CHDIR, {fails(EACCES), fails(EACCES)});
    EXPECT_TRUE(search_main_partition());
    EXPECT_TRUE(errors.Take().ends_with("Cannot chdir to /mnt/sdb1\nCannot chdir to /\n"));
}

// Every type is tried once, in this order; whoever has one answered wrongly is told of.
TEST_F(MainPartitionSearch, TriesTheTypesInTheirOrder)
{
    static const struct {
        int refusal;
        const char *reason; // null: nothing is said
    } cases[] = {
        {EINVAL, nullptr}, // not such a filesystem
        {ENOMEDIUM, nullptr},
        {ENODEV, nullptr}, // a kernel without this type
        {EIO, "Input/output error"},
        {EBUSY, "Device or resource busy"},
        {EPERM, "Operation not permitted"},
    };
    PartitionDevice *partition = AddStick();
    for (const auto &c : cases) {
        media["/dev/sdb1"] = {"", "claimed", c.refusal};
        partition->scanned = 0;
        std::string story = "For startup search: attempting to mount /dev/sdb1\n";
        for (const char *type : {"ext4", "ext3", "ext2", "udf", "xfs", "reiserfs", "btrfs"}) {
            story += std::string("# mount /dev/sdb1 /mnt/sdb1 ") + type + trial_flags + "\n";
            if (c.reason)
                story += std::string("mount failed for /mnt/sdb1, ") + c.reason + "\n";
        }
        EXPECT_FALSE(search_main_partition());
        EXPECT_EQ(errors.Take(), story);
        EXPECT_EQ(partition->scanned, 1);
        EXPECT_TRUE(machine.Exists("/mnt/sdb1")); // the housekeeping's business
    }
    EXPECT_EQ(main_partition, "");
    EXPECT_FALSE(machine.Exists("/mnt/main"));
}

// The directory is for everybody, as far as the daemon's mask lets it be.
TEST_F(MainPartitionSearch, DirectoryIsForEverybody)
{
    AddStick({"ext4", "claimed"});
    const mode_t mask = umask(0);
    EXPECT_TRUE(search_main_partition());
    umask(mask);
    EXPECT_EQ(std::filesystem::status(machine.RealPath("/mnt/sdb1")).permissions(),
              std::filesystem::perms::all);
}

// A device without the signature is given back as it was.
TEST_F(MainPartitionSearch, TrialIsUndone)
{
    PartitionDevice *partition = AddStick({"ext4", "somebody else's"});
    machine.Link("/mnt/^label-of-sdb1", "sdb1");
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(errors.Take(), "For startup search: attempting to mount /dev/sdb1\n"
                             "# mount /dev/sdb1 /mnt/sdb1 ext4" +
                                 trial_flags +
                                 "\n"
                                 "For startup search: successfully mounted /dev/sdb1\n"
                                 "For startup search: /dev/sdb1 has sig somebody else's\n"
                                 "# umount /mnt/sdb1\n");
    EXPECT_EQ(partition->scanned, 1);
    EXPECT_FALSE(machine.Exists("/mnt/sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/^label-of-sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/main"));
    EXPECT_TRUE(mount_list.empty()); // read again after it
    EXPECT_EQ(main_drive + main_partition, "");
    EXPECT_EQ(std::filesystem::current_path(), std::filesystem::path(machine.RealPath("")));
}

// One that does not let itself be unmounted is told of, and everything else is given back.
TEST_F(MainPartitionSearch, FailedUnmountIsTold)
{
    AddStick({"ext4", ""});
    machine.Link("/mnt/^label-of-sdb1", "sdb1");
    machine.Script(Call::UMOUNT, {fails(EBUSY)});
    EXPECT_FALSE(search_main_partition());
    EXPECT_TRUE(errors.Take().ends_with("# umount /mnt/sdb1\nWarning: cannot unmount /mnt/sdb1\n"));
    EXPECT_FALSE(machine.Exists("/mnt/sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/^label-of-sdb1"));
}

// What a signature file may hold. Line ends at its end do not count; a carriage return does.
TEST_F(MainPartitionSearch, SignatureIsComparedWhole)
{
    const std::string long_text(300, 's');
    static const struct {
        std::string wanted, held, said;
        bool is_found;
    } cases[] = {
        {"claimed", "claimed", "claimed", true},
        {"claimed", "claimed\n", "claimed", true},
        {"claimed", "claimed\n\n\n\n", "claimed", true},
        {"claimed", "claimed\r\n", "claimed\r", false},
        {"claimed\r", "claimed\r\n", "claimed\r", true},
        {"claimed", "claimed \n", "claimed ", false},
        {"claimed", " claimed", " claimed", false},
        {"claimed", "\nclaimed", "\nclaimed", false},
        {"claimed", "claimed\nmore\n", "claimed\nmore", false},
        {"claimed\nmore", "claimed\nmore\n", "claimed\nmore", true},
        {"claimed", "Claimed", "Claimed", false},
        {"claimed", "claime", "claime", false},
        {"claimed", "claimed2", "claimed2", false},
        {"claimed", "claimed\0more"s, "claimed", true}, // a text ends at a NUL
        {"claimed", "claimed\n\0"s, "claimed\n", false},
        {"claimed", "\0claimed"s, "", false},
        {"claimed", "\n\n\n", "", false},
        {long_text.substr(0, 255), long_text.substr(0, 255), long_text.substr(0, 255), true},
        {long_text.substr(0, 255), long_text, long_text.substr(0, 255), true},
        {long_text.substr(0, 256), long_text, long_text.substr(0, 255), false},
        {long_text.substr(0, 254), long_text, long_text.substr(0, 255), false},
        {long_text.substr(0, 250), long_text.substr(0, 250) + std::string(20, '\n') + "x",
         long_text.substr(0, 250), true},
    };
    PartitionDevice *partition = AddStick();
    for (const auto &c : cases) {
        settings.main_partition_signature = c.wanted;
        media["/dev/sdb1"] = {"ext4", c.held};
        partition->scanned = 0;
        machine.Write("/proc/mounts", "");
        machine.Remove("/mnt/sdb1");
        machine.Remove("/mnt/main");
        EXPECT_EQ(search_main_partition(), c.is_found) << c.held;
        const std::string story = errors.Take();
        const std::string line = "For startup search: /dev/sdb1 has sig " + c.said + "\n";
        EXPECT_EQ(story.find(line) != std::string::npos, !c.said.empty()) << story;
        EXPECT_EQ(story.find("has sig") != std::string::npos, !c.said.empty()) << story;
        EXPECT_EQ(partition->scanned, !c.is_found);
    }
}

// Only a regular file that can be read is a signature; what stands in its place is never waited
// for, nor followed.
TEST_F(MainPartitionSearch, OnlyAPlainFileIsASignature)
{
    static const std::string name = "/mnt/sdb1/.claimsig";
    const struct {
        std::function<void()> put;
        bool is_opened;
    } obstacles[] = {
        {[] {}, false},
        {[this] { machine.MakeDirectory(name); }, false},
        {[this] {
             machine.Write("/mnt/sdb1/real", "claimed");
             machine.Link(name, "real");
         },
         false},
        {[this] { machine.Link(name, "nowhere"); }, false},
        {[this] { ASSERT_EQ(mkfifo(machine.RealPath(name).c_str(), 0644), 0); }, false},
        {[this] {
             machine.Write(name, "claimed");
             machine.Script(Call::OPEN, {really, fails(EACCES)}); // the table of mounts comes first
         },
         false},
        {[this] {
             machine.Write(name, "claimed");
             machine.Script(Call::READ, {really, really, fails(EIO)});
         },
         true},
        {[this] {
             machine.Write(name, "claimed");
             machine.Script(Call::STAT, {fails(EIO)});
         },
         false},
        {[this] { machine.Write("/mnt/sdb1/claimsig", "claimed"); }, false},
        {[this] { machine.Write("/mnt/sdb1/folder/.claimsig", "claimed"); }, false},
    };
    PartitionDevice *partition = AddStick({"ext4", ""});
    for (const auto &obstacle : obstacles) {
        // It is mounted already, so that only the table is read between the start and the file.
        machine.Remove("/mnt/sdb1");
        machine.MakeDirectory("/mnt/sdb1");
        machine.Write("/proc/mounts", "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n");
        obstacle.put();
        partition->scanned = 0;
        machine.ForgetCalls();
        EXPECT_FALSE(search_main_partition()) << &obstacle - obstacles;
        EXPECT_EQ(machine.Opened(".claimsig"), obstacle.is_opened) << &obstacle - obstacles;
        EXPECT_EQ(errors.Take(), "");
        EXPECT_EQ(partition->scanned, 1);
    }
}

// The file is opened without following a link, even one that came to its place a moment ago, and
// without waiting for anybody.
TEST_F(MainPartitionSearch, SignatureIsOpenedWithCare)
{
    AddStick({"ext4", "claimed"});
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(machine.Opened(".claimsig"), 1);
    EXPECT_EQ(machine.OpenFlags(".claimsig"), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

// Where the directory cannot be entered the file in the working directory counts, on purpose.
TEST_F(MainPartitionSearch, DirectoryThatCannotBeEnteredIsTold)
{
    AddStick({"ext4", "claimed"});
    AddPartition("sdb2", {"ext4", "claimed"});
    ASSERT_EQ(chdir("/"), 0);
    machine.Script(Call::CHDIR, {fails(EACCES)});
    EXPECT_TRUE(search_main_partition());
    const std::string story = errors.Take();
    EXPECT_NE(story.find("successfully mounted /dev/sdb1\n"
                         "Cannot chdir to /mnt/sdb1\n"
                         "# umount /mnt/sdb1\n"),
              std::string::npos)
        << story;
    EXPECT_EQ(main_partition, "sdb2");

    main_partition = main_drive = "";
    machine.Write("/.claimsig", "claimed");
    partdev_list["sdb1"]->scanned = 0;
    machine.Script(Call::CHDIR, {fails(EACCES)});
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(main_partition, "sdb1");
}

// Without a working directory to go back to, the search goes on.
TEST_F(MainPartitionSearch, WayBackThatFailsIsTold)
{
    AddStick({"ext4", "claimed"});
    machine.Script(Call::CHDIR, {really, fails(EIO)});
    EXPECT_TRUE(search_main_partition());
    EXPECT_NE(errors.Take().find("has sig claimed\nCannot chdir to /\n"), std::string::npos);
}

// What fails after the match is told; the partition is found all the same.
TEST_F(MainPartitionSearch, FailuresAfterTheMatchAreTold)
{
    AddStick({"ext4", "claimed"});
    machine.on_deed = [this](const std::string &deed) {
        Do(deed);
        if (deed.starts_with("mount (null)"))
            machine.Script(Call::MOUNT, {fails(EROFS)});
    };
    machine.Script(Call::SYMLINK, {fails(EEXIST)});
    EXPECT_TRUE(search_main_partition());
    EXPECT_TRUE(errors.Take().ends_with("has sig claimed\n"
                                        "Warning: cannot remount /mnt/sdb1 read/write\n"
                                        "Warning: cannot create main symlink\n"));
    EXPECT_EQ(machine.Deeds("mount_setattr").size(), 0U); // nothing was taken from it
    EXPECT_EQ(main_partition, "sdb1");
    EXPECT_EQ(machine.LinkTarget("/mnt/^label-of-sdb1"), "sdb1");
}

// The remount takes away what protected the machine from the drive; a failure to give it back is
// told.
TEST_F(MainPartitionSearch, ProtectionThatIsNotGivenBackIsTold)
{
    AddStick({"ext4", "claimed"});
    machine.on_deed = [this](const std::string &deed) {
        Do(deed);
        if (deed.starts_with("mount_setattr"))
            machine.Script(Call::MOUNT_SETATTR, {fails(EPERM)});
        else if (deed.starts_with("mount ''"))
            machine.Script(Call::MOUNT, {fails(EPERM)});
    };
    EXPECT_TRUE(search_main_partition());
    EXPECT_TRUE(
        errors.Take().ends_with("Cannot protect /mnt/sdb1 again Operation not permitted\n"));
    EXPECT_EQ(machine.LinkTarget("/mnt/main"), "sdb1");
}

// A partition that somebody has mounted is examined where it is, made writable when it matches,
// with the protection that it had, and otherwise left mounted.
TEST_F(MainPartitionSearch, MountedPartitionIsExaminedInPlace)
{
    PartitionDevice *partition = AddStick({"ext4", "claimed"});
    machine.Link("/mnt/^label-of-sdb1", "sdb1");
    Show("/dev/sdb1", "/mnt/sdb1", MS_RDONLY | MS_NODEV);
    machine.Write("/mnt/sdb1/.claimsig", "somebody else's\n");
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(errors.Take(), "For startup search: /dev/sdb1 has sig somebody else's\n");
    EXPECT_EQ(partition->scanned, 1);
    EXPECT_TRUE(machine.Exists("/mnt/sdb1"));
    EXPECT_TRUE(machine.Exists("/mnt/^label-of-sdb1"));
    EXPECT_FALSE(machine.Exists("/mnt/main"));

    partition->scanned = 0;
    machine.Write("/mnt/sdb1/.claimsig", "claimed\n");
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(errors.Take(), "For startup search: /dev/sdb1 has sig claimed\n"
                             "# mount (null) /mnt/sdb1" +
                                 remount +
                                 "\n"
                                 "# mount_setattr /mnt/sdb1 4\n");
    EXPECT_EQ(machine.LinkTarget("/mnt/main"), "sdb1");
}

// The main partition lies below /mnt by its own name: where else it may be mounted nobody looks.
TEST_F(MainPartitionSearch, MountInAnotherPlaceIsNotLookedInto)
{
    PartitionDevice *partition = AddStick({"ext4", "claimed"});
    Show("/dev/sdb1", "/media/stick", 0);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(errors.Take(), "Cannot chdir to /mnt/sdb1\n");
    EXPECT_TRUE(machine.Deeds().empty());
    EXPECT_EQ(partition->scanned, 1);
}

// A mount without protection gets none.
TEST_F(MainPartitionSearch, NothingIsGivenBackThatWasNotThere)
{
    AddStick({"ext4", "claimed"});
    Show("/dev/sdb1", "/mnt/sdb1", 0);
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(machine.Deeds("mount"),
              std::vector<std::string>({"mount (null) /mnt/sdb1" + remount}));
}

// By its label a mounted partition is taken as it is.
TEST_F(MainPartitionSearch, MountedPartitionIsTakenByItsLabel)
{
    settings.main_partition_label = "label-of-sdb1";
    AddStick({"ext4", ""});
    Show("/dev/sdb1", "/mnt/sdb1", MS_RDONLY);
    machine.MakeDirectory("/mnt/sdb1");
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(machine.LinkTarget("/mnt/main"), "sdb1");
}

// The label comes first; when it cannot be mounted so, the signature has its turn.
TEST_F(MainPartitionSearch, LabelComesBeforeTheSignature)
{
    settings.main_partition_label = "label-of-sdb1";
    PartitionDevice *partition = AddStick({"ext4", "claimed"});
    machine.on_deed = [this](const std::string &deed) {
        if (deed.ends_with(label_flags)) // a drive that lets nobody write
            machine.Script(Call::MOUNT, {fails(EROFS)});
        else
            Do(deed);
    };
    EXPECT_TRUE(search_main_partition());
    std::vector<std::string> expected;
    for (const char *type : {"ext4", "ext3", "ext2", "udf", "xfs", "reiserfs", "btrfs"})
        expected.push_back(std::string("mount /dev/sdb1 /mnt/sdb1 ") + type + label_flags);
    expected.push_back("mount /dev/sdb1 /mnt/sdb1 ext4" + trial_flags);
    expected.push_back("mount (null) /mnt/sdb1" + remount);
    expected.push_back(protect);
    EXPECT_EQ(machine.Deeds("mount"), expected);
    EXPECT_EQ(main_partition, "sdb1");

    // Without a signature to look for, that was all.
    settings.main_partition_signature = main_partition = "";
    machine.Write("/proc/mounts", "");
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(machine.Deeds("mount").size(), expected.size() + 7);
    EXPECT_EQ(partition->scanned, 1);
}

// A label that is not the one wanted is nothing; neither is an empty one.
TEST_F(MainPartitionSearch, OtherLabelsAreNotMounted)
{
    settings.main_partition_signature = "";
    PartitionDevice *partition = AddStick({"ext4", ""});
    static const struct {
        const char *wanted, *label;
    } cases[] = {{"", ""}, {"", "DATA"}, {"DATA", "data"}, {"DATA", "DATA2"}, {"DATA", "DAT"}};
    for (const auto &c : cases) {
        settings.main_partition_label = c.wanted;
        partition->label = c.label;
        partition->scanned = 0;
        EXPECT_FALSE(search_main_partition()) << c.wanted << " " << c.label;
        EXPECT_EQ(partition->scanned, 1);
    }
    EXPECT_TRUE(machine.Deeds().empty());
    EXPECT_EQ(errors.Take(), "");
}

// An empty setting claims nothing, not even a file without a text.
TEST_F(MainPartitionSearch, EmptySignatureClaimsNothing)
{
    settings.main_partition_signature = "";
    PartitionDevice *partition = AddStick({"ext4", "\n"});
    EXPECT_FALSE(search_main_partition());
    EXPECT_TRUE(machine.Deeds().empty());
    EXPECT_EQ(partition->scanned, 1);
}

// Drives are examined by name, each with its partitions by name, and the first match ends it.
TEST_F(MainPartitionSearch, GoesByNames)
{
    for (const char *name : {"sdc", "sda", "mmcblk0", "sdb"})
        AddDrive(name);
    for (const char *name : {"sdb2", "sda3", "sdb1", "sda1"})
        AddPartition(name);
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(Tried(),
              std::vector<std::string>({"mmcblk0", "sda1", "sda3", "sdb1", "sdb2", "sdc"}));
    for (const auto &[name, partition] : partdev_list)
        EXPECT_EQ(partition->scanned, 1) << name;
    EXPECT_EQ(blockdev_list["mmcblk0"]->scanned, 1);
    EXPECT_EQ(blockdev_list["sdc"]->scanned, 1);
    EXPECT_EQ(blockdev_list["sdb"]->scanned, 0); // was not examined itself
}

// The first match ends the search: what comes after it is not examined.
TEST_F(MainPartitionSearch, FirstMatchEndsIt)
{
    AddDrive("sdb");
    AddPartition("sdb1");
    AddPartition("sdb2", {"btrfs", "claimed"});
    AddPartition("sdb3", {"ext4", "claimed"});
    AddDrive("sdc", {"ext4", "claimed"});
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(Tried(), std::vector<std::string>({"sdb1", "sdb2"}));
    EXPECT_EQ(main_drive, "sdb");
    EXPECT_EQ(main_partition, "sdb2");
    EXPECT_EQ(partdev_list["sdb1"]->scanned, 1);
    EXPECT_EQ(partdev_list["sdb2"]->scanned, 0);
    EXPECT_EQ(partdev_list["sdb3"]->scanned, 0);
    EXPECT_EQ(blockdev_list["sdc"]->scanned, 0);
}

// A drive without partitions is its own.
TEST_F(MainPartitionSearch, WholeDriveIsItsOwnPartition)
{
    AddDrive("sdb", {"ext4", "claimed"});
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(main_drive, "sdb");
    EXPECT_EQ(main_partition, "sdb");
    EXPECT_EQ(machine.LinkTarget("/mnt/main"), "sdb");
}

// The same by its label.
TEST_F(MainPartitionSearch, WholeDriveIsFoundByItsLabel)
{
    settings.main_partition_label = "label-of-sdb";
    AddDrive("sdb", {"ext4", ""});
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(main_partition, "sdb");
}

// Of a drive with partitions only these are examined, whatever is on the drive as a whole.
TEST_F(MainPartitionSearch, DriveWithPartitionsIsNotExaminedItself)
{
    settings.main_partition_label = "label-of-sdb";
    AddDrive("sdb", {"ext4", "claimed"});
    AddPartition("sdb1", {"ext4", ""});
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(Tried(), std::vector<std::string>({"sdb1"}));

    // Also when the registry does not know them.
    AddDrive("sdc", {"ext4", "claimed"})->partitions["sdc1"] = true;
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(Tried(), std::vector<std::string>({"sdb1"}));
}

// Only hard drives hold a main partition; the others are done with.
TEST_F(MainPartitionSearch, OnlyHardDrivesAreExamined)
{
    static const char *const types[] = {"CD-ROM", "Logical Volume", "Unknown", "", "hard drive"};
    settings.main_partition_label = "label-of-sdb1";
    BlockDevice *drive = AddDrive("sdb", {"ext4", "claimed"});
    BlockDevice *with_partition = AddDrive("sdc");
    PartitionDevice *partition = AddPartition("sdc1", {"ext4", "claimed"});
    for (const char *type : types) {
        drive->type = with_partition->type = type;
        drive->scanned = with_partition->scanned = 0;
        drive->label = drive->filesystem = "";
        machine.ForgetCalls();
        EXPECT_FALSE(search_main_partition());
        EXPECT_EQ(machine.SystemCalls(), 0) << type;
        EXPECT_EQ(drive->scanned, 1);
        EXPECT_EQ(with_partition->scanned, 1);
        EXPECT_EQ(partition->scanned, 0);
    }
    EXPECT_TRUE(machine.Deeds().empty());
}

// A member of an array is never claimed, running or not, drive or partition.
TEST_F(MainPartitionSearch, ArrayMemberIsNeverClaimed)
{
    settings.main_partition_label = "label-of-sdb1";
    BlockDevice *drive = AddDrive("sdc", {"ext4", "claimed"});
    PartitionDevice *partition = AddStick({"ext4", "claimed"});
    for (bool is_active : {false, true}) {
        raid_members = {{"sdb1", is_active}, {"sdc", is_active}};
        EXPECT_FALSE(search_main_partition());
        EXPECT_EQ(partition->scanned, 0); // it may leave its array
        EXPECT_EQ(drive->scanned, 0);
    }
    EXPECT_TRUE(machine.Deeds().empty());
    raid_members.clear();
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(main_partition, "sdb1");
}

// The boot device is never claimed, by whichever of its names and by neither means; it is not even
// mounted.
TEST_F(MainPartitionSearch, BootDeviceIsNeverClaimed)
{
    settings.main_partition_label = "label-of-sdb1";
    PartitionDevice *partition = AddStick({"ext4", "claimed"});
    boot_partition = "sdb1";
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(partition->scanned, 1);
    settings.main_partition_label = "label-of-sdc";
    boot_drive = "sdc";
    BlockDevice *drive = AddDrive("sdc", {"ext4", "claimed"});
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(drive->scanned, 1);
    EXPECT_TRUE(machine.Deeds().empty());
    EXPECT_FALSE(machine.Exists("/mnt/sdb1"));
    EXPECT_EQ(errors.Take(), "");

    // Another partition of the boot drive may be the one.
    boot_drive = "sdb";
    AddPartition("sdb2", {"ext4", "claimed"});
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(main_partition, "sdb2");
}

// A pass without anything new costs no system call at all.
TEST_F(MainPartitionSearch, PassWithoutAnythingNewCostsNothing)
{
    AddStick({"ext4", ""});
    AddPartition("sdb2"); // cannot be mounted
    AddPartition("sdb3");
    raid_members["sdb3"] = false;
    AddDrive("sdc");
    AddDrive("sr0")->type = "CD-ROM";
    AddDrive("sda");
    boot_drive = "sda";
    AddDrive("sdd")->partitions["sdd1"] = true; // which nobody knows
    for (const auto &[name, drive] : blockdev_list)
        drive->label = drive->filesystem = "";
    for (const auto &[name, partition] : partdev_list)
        partition->label = partition->filesystem = "";
    EXPECT_FALSE(search_main_partition());
    errors.Take();
    machine.ForgetCalls();
    for (int pass = 0; pass < 20; pass++)
        EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(machine.SystemCalls(), 0);
    EXPECT_EQ(errors.Take(), "");
}

// A device whose `scanned` is taken back, as when a medium arrives, is examined again.
TEST_F(MainPartitionSearch, ScannedDeviceIsExaminedAgainWhenAsked)
{
    BlockDevice *drive = AddDrive("sdb");
    EXPECT_FALSE(search_main_partition());
    media["/dev/sdb"] = {"ext4", "claimed"};
    EXPECT_FALSE(search_main_partition());
    drive->scanned = 0;
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(main_partition, "sdb");
}

// A label that is not known yet is asked for: of the drive, then of its partitions.
TEST_F(MainPartitionSearch, UnknownLabelsAreAskedFor)
{
    settings.main_partition_label = "DATA";
    AddDrive("sdb");
    AddPartition("sdb1", {"ext4", ""});
    AddPartition("sdb2", {"ext4", ""});
    labels = {{"/dev/sdb", "WHOLE"}, {"/dev/sdb1", "OTHER"}, {"/dev/sdb2", "DATA"}};
    for (BlockDevice *device : {blockdev_list["sdb"], find_device("sdb1"), find_device("sdb2")})
        device->label = device->filesystem = "";
    settings.main_partition_signature = "";
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(
        machine.Deeds("execv"),
        std::vector<std::string>({"execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb --fs",
                                  "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb1 --fs",
                                  "execv /usr/bin/volsniffer /usr/bin/volsniffer /dev/sdb2 --fs"}));
    EXPECT_EQ(blockdev_list["sdb"]->label, "WHOLE");
    EXPECT_EQ(partdev_list["sdb2"]->filesystem, "ext4");
    EXPECT_EQ(main_partition, "sdb2");
    EXPECT_EQ(machine.LinkTarget("/mnt/^DATA"), "sdb2");
}

// A drive without partitions is asked itself.
TEST_F(MainPartitionSearch, WholeDriveIsAskedForItsLabel)
{
    settings.main_partition_label = "DATA";
    BlockDevice *drive = AddDrive("sdb", {"ext4", ""});
    drive->label = drive->filesystem = "";
    labels["/dev/sdb"] = "DATA";
    EXPECT_TRUE(search_main_partition());
    EXPECT_EQ(main_partition, "sdb");
    EXPECT_EQ(machine.Deeds("execv").size(), 1U);
}

// Hotplug mode forgets a drive's label time and again. One whose partitions are all examined, or
// belong to arrays, or are unknown, is not asked again for what helps nobody.
TEST_F(MainPartitionSearch, ExhaustedDriveIsNotAskedAgain)
{
    BlockDevice *drive = AddDrive("sdb");
    AddPartition("sdb1")->scanned = 1;
    AddPartition("sdb2");
    raid_members["sdb2"] = true;
    drive->partitions["sdb3"] = true;
    drive->label = drive->filesystem = "";
    EXPECT_FALSE(search_main_partition());
    EXPECT_TRUE(machine.Deeds().empty());
    AddPartition("sdb3")->scanned = 0;
    EXPECT_FALSE(search_main_partition());
    EXPECT_EQ(machine.Deeds("execv"), std::vector<std::string>({"execv /usr/bin/volsniffer "
                                                                "/usr/bin/volsniffer /dev/sdb "
                                                                "--fs"}));
}

// It is not asked for where it is known, where there is none, and of what was examined before.
TEST_F(MainPartitionSearch, KnownLabelsAreNotAskedFor)
{
    settings.main_partition_signature = "";
    BlockDevice *drive = AddDrive("sdb");
    BlockDevice *other = AddDrive("sdc");
    PartitionDevice *partition = AddPartition("sdb1");
    PartitionDevice *second = AddPartition("sdb2");
    drive->label = "";
    partition->label = "";
    partition->filesystem = " "; // the probe found none
    second->label = second->filesystem = "";
    second->scanned = 1;
    other->label = other->filesystem = "";
    other->scanned = 1;
    EXPECT_FALSE(search_main_partition());
    EXPECT_TRUE(machine.Deeds().empty());
}
