// Which command a request asks for, who may give it, and the short commands themselves.
#include "protocol/command_table.h"

#include <linux/cdrom.h>
#include <sys/socket.h>

#include "base/daemon_state.h"
#include "inspect/proc_partitions.h"
#include "inspect/raid_members.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "protocol/socket_connection.h"
#include "registry/block_device.h"
#include "registry/device_list.h"

class CommandTable : public MadeUpMachineTest {
protected:
    // The reply to a request of this user; the connection is ready to send it.
    static std::string Ask(const std::string &request, uid_t uid = 0)
    {
        SocketConnection connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "",
                                    ucred{1, uid, uid});
        connection.state = STATE_DISPATCHING;
        connection.argc = split_request(request, connection.args);
        EXPECT_EQ(dispatch_command(connection), 1);
        EXPECT_EQ(connection.state, STATE_SENDING);
        return connection.output;
    }

    void SetUp() override
    {
        for (const char *table : {"/proc/mounts", "/proc/filesystems", "/proc/partitions"})
            machine.Write(table, "");
    }
};

static const char plain_list[] =
    "OK- v3 drive list follows (dev,type,connection,label,capacity,model,place,raid,filesystem)\n"
    "OK  eom\n";
static const char human_list[] = "OK- v3 user-friendly drive list follows "
                                 "(dev,type,connection,label,capacity,model,place,filesystem)\n"
                                 "OK  eom\n";

// Words are compared exactly; what a command does not use is ignored.
TEST_F(CommandTable, WordsAreComparedExactly)
{
    static const struct {
        const char *request, *reply;
    } cases[] = {
        {"", "ERR no command given\n"},
        {"    ", "ERR no command given\n"},
        {"\"\"", "ERR unknown command\n"}, // an empty word is a word
        {"LIST", "ERR unknown command\n"},
        {"List", "ERR unknown command\n"},
        {"lis", "ERR unknown command\n"},
        {"lists", "ERR unknown command\n"},
        {"\"list \"", "ERR unknown command\n"},
        {"\tlist", "ERR unknown command\n"},
        {"list", plain_list},
        {"\"list\"", plain_list},
        {"list human", human_list},
        {"list user", human_list},
        {"list human and more", human_list},
        {"list all", plain_list},
        {"list Human", plain_list},
        {"list humans", plain_list},
        {"list \"\"", plain_list},
        {"list all human", plain_list},
        {"enumerate", "OK- list follows\nOK  eom\n"},
        {"enumerate human", "OK- list follows\nOK  eom\n"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Ask(c.request), c.reply) << c.request;
}

// Everybody may ask for lists and help.
TEST_F(CommandTable, AnybodyMayLook)
{
    schedule_uid = 1000;
    for (uid_t uid : {0U, 1000U, 65534U, ~0U}) {
        EXPECT_EQ(Ask("list", uid), plain_list);
        EXPECT_EQ(Ask("enumerate", uid), "OK- list follows\nOK  eom\n");
        EXPECT_TRUE(Ask("help", uid).starts_with("OK-Valid commands are\n"));
    }
}

// The help is exact, and names neither notify, hotplug, poll nor polling, on purpose.
TEST_F(CommandTable, HelpLeavesOutWhatIsNotForPeople)
{
    EXPECT_EQ(
        Ask("help"),
        "OK-Valid commands are\n"
        "OK-\tlist - List all drives and partitions\n"
        "OK-\tlist human - List all drives and partitions in a human readable format\n"
        "OK-\tenumerate - List all drives and partitions according to how they are connected\n"
        "OK-\tswapoff - Turn off swap file\n"
        "OK-\tswapon - Turn on swap file\n"
        "OK-\teject - Eject optical drive\n"
        "OK-\tretract - Retract optical drive\n"
        "OK-\trefresh - Force refresh the list of drives and partitions\n"
        "OK-\tmount <how> <device> - Mount a device. 'how' = 'ro,rw,rudero' or to unmount "
        "'off,rudeoff', 'device' = device name or ^label\n"
        "OK-\tumount <device> - Unmount a device\n"
        "OK \thelp - Show this help\n");
    for (const char *word : {"notify", "hotplug", "poll"})
        EXPECT_EQ(Ask("help").find(word), std::string::npos) << word;
}

// Only root switches modes; the announcement is made, and nothing is read again at once.
TEST_F(CommandTable, RootSwitchesModes)
{
    static const struct {
        const char *request;
        int before, after;
        const char *reply, *announcement;
    } cases[] = {
        {"hotplug", 0, 1, "OK hotplug mode enabled\n", "Switching on Hotplug mode\n"},
        {"hotplug", 1, 1, "OK hotplug mode enabled\n", "Switching on Hotplug mode\n"},
        {"poll", 1, 0, "OK polling mode enabled\n", "Switching on Polling mode\n"},
        {"polling", 1, 0, "OK polling mode enabled\n", "Switching on Polling mode\n"},
        {"polling", 0, 0, "OK polling mode enabled\n", "Switching on Polling mode\n"},
    };
    for (const auto &c : cases) {
        hotplug_mode = c.before;
        EXPECT_EQ(Ask(c.request), c.reply);
        EXPECT_EQ(hotplug_mode, c.after);
        EXPECT_EQ(errors.Take(), c.announcement);
    }
    EXPECT_EQ(machine.Opened("/sys/block"), 0);
}

// Each command refuses in its own words, on purpose, whoever else asks; nothing happens then.
TEST_F(CommandTable, RefusalsHaveTheirOwnWords)
{
    schedule_uid = 1000;
    raid_members["sdb"] = true;
    static const struct {
        const char *request, *reply;
    } cases[] = {
        {"swapoff", "ERR auth required\n"},
        {"swapon", "ERR auth required\n"},
        {"notify add /block/sdb", "ERR authorization required\n"},
        {"refresh", "ERR you must be root to do that\n"},
        {"hotplug", "ERR authorization required\n"},
        {"poll", "ERR authorization required\n"},
        {"polling", "ERR authorization required\n"},
    };
    for (uid_t uid : {1U, 1000U, 65534U, ~0U}) {
        for (const auto &c : cases) {
            hotplug_mode = 7;
            EXPECT_EQ(Ask(c.request, uid), c.reply) << uid;
            EXPECT_EQ(hotplug_mode, 7);
        }
    }
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(machine.Opened("/sys/block"), 0);
    EXPECT_EQ(machine.Opened("/proc/swaps"), 0);
    EXPECT_TRUE(blockdev_list.empty());
    EXPECT_TRUE(is_raid_member("sdb"));
}

// A refresh reads every table and /sys/block again, in either mode, and tells the members of arrays
// anew.
TEST_F(CommandTable, RefreshReadsEverythingAgain)
{
    std::string member(8192, '\0');
    member.replace(0, 12, std::string("\xFC\x4E\x2B\xA9\x01\0\0\0\x02\0\0\0", 12));
    for (const char *name : {"sdb", "sdc", "md0"})
        machine.AddDrive(name, "8");
    machine.AddPartition("sdb", "sdb1", "8");
    UpdateBlockDeviceList();
    errors.Take();
    machine.Write("/dev/sdb1", member); // both have become members since
    machine.Write("/dev/sdc", member);
    machine.Link("/sys/block/md0/slaves/sdb1", "../../sdb/sdb1");
    machine.AddDrive("sdd", "8");
    machine.Write("/proc/mounts", "/dev/sda1 / ext4 rw 0 0\n");
    machine.Write("/proc/filesystems", "\text4\n");
    machine.Write("/proc/partitions", "8 0 1 sda\n");
    raid_members = {{"sdb", true}, {"gone", true}};
    for (int mode : {0, 1}) {
        hotplug_mode = mode;
        EXPECT_EQ(Ask("refresh"), "OK refreshed\n");
        EXPECT_EQ(raid_members, (std::map<std::string, bool>{{"sdb1", true}, {"sdc", false}}));
        EXPECT_TRUE(device_exists("sdd"));
        EXPECT_EQ(mount_list.size() + fstab_list.size() + filesystems_list.size() +
                      proc_partitions.size(),
                  4U);
        EXPECT_EQ(errors.Take(), mode == 0 ? "Device sdd just appeared (polling)\n" : "");
    }
}

// Root switches swap; the reply follows the result.
TEST_F(CommandTable, RootSwitchesSwap)
{
    settings.swap_name = "swap.img";
    main_partition = "sda2";
    machine.Write("/mnt/sda2/swap.img", std::string(1048576, '\0'));
    machine.Write("/proc/swaps", "Filename\n");
    machine.Script(Call::SWAPON, {fails(EPERM)});
    EXPECT_EQ(Ask("swapon"), "ERR swap enable failed\n");
    EXPECT_EQ(Ask("swapon now"), "OK swap enabled\n");
    EXPECT_EQ(Ask("swapoff"), "OK swap disabled\n"); // it was not on
    EXPECT_TRUE(machine.Deeds("swapoff").empty());
    machine.Write("/proc/swaps", "Filename\n/mnt/sda2/swap.img file 1 0 -2\n");
    machine.Script(Call::SWAPOFF, {fails(ENOMEM)});
    EXPECT_EQ(Ask("swapoff"), "ERR swap disable failed\n");
    EXPECT_EQ(Ask("swapoff now"), "OK swap disabled\n");
    EXPECT_EQ(machine.Deeds("swapoff"), std::vector<std::string>(2, "swapoff /mnt/sda2/swap.img"));
    EXPECT_EQ(Ask("swapon"), "OK swap enabled\n"); // on already: the kernel is not asked
    EXPECT_EQ(machine.Deeds("swapon").size(), 2U);
}

// The word after "eject" and "retract" is the drive; a missing one is no drive.
TEST_F(CommandTable, TraysMoveForTheDriveNamed)
{
    const std::string unknown = "ERR device does not exist or is not maintained by this service\n";
    std::vector<unsigned long> requests;
    machine.on_ioctl = [&](unsigned long request, void *) {
        requests.push_back(request);
        return 0;
    };
    machine.AddDrive("sr0", "8");
    blockdev_list["sr0"] = new BlockDevice("sr0");
    blockdev_list["sr0"]->type = "CD-ROM";
    EXPECT_EQ(Ask("eject sr0"), "OK device ejected\n");
    EXPECT_EQ(Ask("eject /dev/sr0 now", 65534), "OK device ejected\n");
    EXPECT_EQ(Ask("retract sr0", 65534), "OK device retracted tray\n");
    EXPECT_EQ(Ask("retract \"/dev/sr0\""), "OK device retracted tray\n");
    EXPECT_EQ(requests,
              std::vector<unsigned long>({CDROMSTOP, CDROMEJECT, CDROMSTOP, CDROMEJECT,
                                          CDROMCLOSETRAY, CDROMSTART, CDROMCLOSETRAY, CDROMSTART}));
    for (const char *request : {"eject", "retract", "eject x sr0", "retract /dev/", "eject \"\""})
        EXPECT_EQ(Ask(request), unknown) << request;
}

// A notice is refused for the first of three reasons, and otherwise thanked for, come what may.
TEST_F(CommandTable, NoticeIsCheckedInOrder)
{
    const std::string off = "ERR hotplug mode not enabled\n";
    const std::string stranger = "ERR authorization required\n";
    const std::string nonsense = "ERR invalid device string\n";
    const std::string thanks = "OK thank you\n";
    static const char *const notices[] = {
        "notify",
        "notify add",
        "notify add sdb1",
        "notify add \"\"",
        "notify add /",
        "notify add //",
        "notify add /block/",
        "notify /block/sdb",
        "notify add /block/sdb/ ",
    };
    for (const char *notice : notices) {
        for (uid_t uid : {0U, 1U}) {
            hotplug_mode = 0;
            EXPECT_EQ(Ask(notice, uid), off) << notice;
            hotplug_mode = 1;
            EXPECT_EQ(Ask(notice, uid), uid == 0 ? nonsense : stranger) << notice;
        }
    }
    hotplug_mode = 0;
    EXPECT_EQ(Ask("notify add /block/sdb"), off);
    EXPECT_EQ(errors.Take(), "");
    EXPECT_TRUE(blockdev_list.empty());
    hotplug_mode = 1;
    EXPECT_EQ(Ask("notify remove /block/sdb"), thanks);
    EXPECT_EQ(Ask("notify add /block/sdb/sdb1 more"), thanks);
    EXPECT_EQ(Ask("notify add /sr0"), thanks);
    EXPECT_TRUE(device_exists("sdb"));
    EXPECT_TRUE(device_exists("sdb1"));
    EXPECT_TRUE(device_exists("sr0"));
    EXPECT_TRUE(errors.Take().starts_with("Notify remove sdb parent sdb\n"
                                          "Notify add sdb1 parent sdb\n"));
}

// Every known device is looked at for a superblock, in the order of names, drives first.
TEST_F(CommandTable, RefreshLooksAtDrivesThenPartitions)
{
    for (const char *name : {"sdc", "sdb"})
        machine.AddDrive(name, "8");
    machine.AddPartition("sdb", "sdb1", "8");
    UpdateBlockDeviceList();
    errors.Take();
    for (const char *name : {"/dev/sdb", "/dev/sdb1", "/dev/sdc"})
        machine.Refuse(name, EIO);
    Ask("refresh");
    EXPECT_EQ(errors.Take(), "Unable to check sdb raid participation Input/output error\n"
                             "Unable to check sdc raid participation Input/output error\n"
                             "Unable to check sdb1 raid participation Input/output error\n");
}

// A command that leaves its reply empty is run again at each step until it has one.
TEST_F(CommandTable, CommandWithoutReplyIsRunAgain)
{
    int runs = 0;
    machine.on_list = [&](std::string &reply) {
        if (++runs == 3)
            reply = "OK at last";
    };
    SocketConnection connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "", ucred{1, 0, 0});
    connection.state = STATE_DISPATCHING;
    connection.argc = split_request("list", connection.args);
    for (int step = 1; step <= 2; step++) {
        EXPECT_EQ(connection.Step(), 1);
        EXPECT_EQ(connection.state, STATE_DISPATCHING);
        EXPECT_EQ(connection.output, ""); // no line end either
        EXPECT_EQ(runs, step);
    }
    EXPECT_EQ(connection.Step(), 1);
    EXPECT_EQ(connection.state, STATE_SENDING);
    EXPECT_EQ(connection.output, "OK at last\n");
}

// "mount" takes its mode and its device from its words, "umount" its device, and both go by whoever
// asks; words that are missing are empty, and what comes after them is ignored.
TEST_F(CommandTable, MountAndUnmountAreOneCommand)
{
    static const char no_device[] =
        "ERR device does not exist or is not maintained by this service\n";
    static const char schedule[] =
        "ERR schedule items are not allowed to manipulate mount points\n";
    static const struct {
        const char *request;
        uid_t uid;
        const char *reply;
    } cases[] = {
        {"mount", 0, no_device},
        {"umount", 0, no_device},
        {"mount off", 0, no_device},
        {"mount sdc1", 0, no_device},
        {"mount sdc1 ro", 0, no_device},
        {"mount \"\" sdc1", 0, "ERR unknown mount mode\n"},
        {"mount on sdc1", 0, "ERR unknown mount mode\n"},
        {"mount off sdc1", 0, "OK its not mounted anyway\n"},
        {"mount rudeoff /dev/sdc1 now please", 1001, "OK its not mounted anyway\n"},
        {"mount off ^DATA", 1001, "OK its not mounted anyway\n"},
        {"umount sdc1", 0, "OK its not mounted anyway\n"},
        {"umount /dev/sdc1", 1001, "OK its not mounted anyway\n"},
        {"umount ^DATA", 1001, "OK its not mounted anyway\n"},
        {"umount ^NONE", 1001, "ERR Label not found\n"},
        {"umount sdc1 ro", 0, "OK its not mounted anyway\n"},
        {"umount off sdc1", 0, no_device},
        {"mount off sdc1", 1000, schedule},
        {"umount sdc1", 1000, schedule},
        {"mount off sdc1", ~0U, "ERR authorization required\n"},
        {"umount sdc1", ~0U, "ERR authorization required\n"},
        {"mount off sda1", 1001, "ERR authorization required\n"},
        {"umount sda1", 1001, "ERR authorization required\n"},
    };
    schedule_uid = 1000;
    boot_partition = "sda1";
    for (const char *name : {"sda1", "sdc1"}) {
        partdev_list[name] = new PartitionDevice(name);
        partdev_list[name]->filesystem = "ext4";
    }
    partdev_list["sdc1"]->label = "DATA";
    for (const auto &c : cases)
        EXPECT_EQ(Ask(c.request, c.uid), c.reply) << c.request << " of " << c.uid;
}

// A device that is unmounted by either word goes the same way.
TEST_F(CommandTable, UmountIsMountOff)
{
    partdev_list["sdc1"] = new PartitionDevice("sdc1");
    partdev_list["sdc1"]->filesystem = "ext4";
    partdev_list["sdc1"]->label = "DATA";
    for (const char *request : {"umount sdc1", "mount off sdc1", "umount /dev/sdc1"}) {
        machine.Write("/proc/mounts", "/dev/sdc1 /mnt/sdc1 ext4 rw 0 0\n");
        machine.on_deed = [&](const std::string &deed) {
            if (deed == "umount /mnt/sdc1")
                machine.Write("/proc/mounts", "");
        };
        EXPECT_EQ(Ask(request, 1001), "OK unmount succeeded\n") << request;
    }
    EXPECT_EQ(machine.Deeds(), std::vector<std::string>(3, "umount /mnt/sdc1"));
}

// A mount's plain reply ends in a line end of its own, and gets the dispatcher's after that.
TEST_F(CommandTable, MountsReplyHasAnEmptyLineAfterIt)
{
    machine.AddDrive("sdc", "2048");
    blockdev_list["sdc"] = new BlockDevice("sdc");
    blockdev_list["sdc"]->filesystem = "xfs";
    machine.Write("/proc/filesystems", "\txfs\n");
    machine.on_deed = [&](const std::string &deed) {
        if (deed == "mount /dev/sdc /mnt/sdc xfs 7")
            machine.Write("/proc/mounts", "/dev/sdc /mnt/sdc xfs ro 0 0\n");
    };
    ReadProcFilesystems();
    EXPECT_EQ(Ask("mount ro /dev/sdc", 1001), "OK mount succeeded\n\n");
}
