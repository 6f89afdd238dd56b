// Opening and closing the trays of optical drives.
#include "protocol/optical_tray.h"

#include <fcntl.h>
#include <linux/cdrom.h>
#include <sys/socket.h>

#include "base/daemon_state.h"
#include "made_up_machine.h"
#include "mount/mount_tables.h"
#include "protocol/socket_connection.h"
#include "registry/block_device.h"

using Requests = std::vector<unsigned long>;

static const char unknown[] = "ERR device does not exist or is not maintained by this service";
static const char refused[] = "ERR schedule items are not allowed to do this";
static const char no_drive[] = "ERR no such device";
static const char is_mounted[] = "ERR device is mounted, unmount first";
static const char wrong_kind[] = "ERR device is not the kind that ejects";
static const char cannot_open[] = "ERR cannot open device to perform operation";

static const unsigned schedule_user = 1000;

class OpticalTray : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        schedule_uid = static_cast<int>(schedule_user);
        machine.Write("/proc/mounts", "");
        AddDrive("sr0", "CD-ROM");
        AddDrive("sdb", "Hard Drive");
        PartitionDevice *partition = partdev_list["sdb1"] = new PartitionDevice("sdb1");
        partition->set_parent(blockdev_list["sdb"]);
        machine.on_ioctl = [this](unsigned long request, void *) {
            requests.push_back(request);
            return request == failing ? -1 : result;
        };
    }

    void TearDown() override
    {
        schedule_uid = 0;
        MadeUpMachineTest::TearDown();
    }

    BlockDevice *AddDrive(const std::string &name, const std::string &type)
    {
        machine.AddDrive(name, "8");
        BlockDevice *drive = blockdev_list[name] = new BlockDevice(name);
        drive->type = type;
        drive->label = "OLD";
        drive->filesystem = "iso9660";
        return drive;
    }

    static std::string Ask(void (*command)(SocketConnection &, const std::string &),
                           const std::string &device, uid_t uid)
    {
        SocketConnection connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "",
                                    ucred{1, uid, uid});
        command(connection, device);
        return connection.output;
    }

    static std::string Eject(const std::string &device, uid_t uid = 0)
    {
        return Ask(do_socket_command_eject, device, uid);
    }

    static std::string Retract(const std::string &device, uid_t uid = 0)
    {
        return Ask(do_socket_command_retract, device, uid);
    }

    Requests TakeRequests()
    {
        Requests taken;
        taken.swap(requests);
        return taken;
    }

    Requests requests;         // that came to the driver
    unsigned long failing = 0; // the request that it refuses
    int result = 0;            // of all others
};

// The disc is stopped before it is put out, and turned once the tray is in.
TEST_F(OpticalTray, TrayMovesOutAndIn)
{
    EXPECT_EQ(Eject("sr0"), "OK device ejected");
    EXPECT_EQ(TakeRequests(), Requests({CDROMSTOP, CDROMEJECT}));
    EXPECT_EQ(Retract("sr0"), "OK device retracted tray");
    EXPECT_EQ(TakeRequests(), Requests({CDROMCLOSETRAY, CDROMSTART}));
    EXPECT_EQ(errors.Take(), "");
}

// What is not negative is success.
TEST_F(OpticalTray, OnlyANegativeAnswerIsARefusal)
{
    result = 1;
    EXPECT_EQ(Eject("sr0"), "OK device ejected");
    EXPECT_EQ(Retract("sr0"), "OK device retracted tray");
}

// A drive that refuses to move its tray is told of; whether the disc turns does not matter.
TEST_F(OpticalTray, RefusingDriveIsTold)
{
    failing = CDROMSTOP;
    EXPECT_EQ(Eject("sr0"), "OK device ejected");
    EXPECT_EQ(TakeRequests(), Requests({CDROMSTOP, CDROMEJECT}));
    failing = CDROMEJECT;
    EXPECT_EQ(Eject("sr0"), "ERR device refused eject");
    EXPECT_EQ(TakeRequests(), Requests({CDROMSTOP, CDROMEJECT}));
    failing = CDROMCLOSETRAY;
    EXPECT_EQ(Retract("sr0"), "ERR device refused close tray");
    EXPECT_EQ(TakeRequests(), Requests({CDROMCLOSETRAY}));
    failing = CDROMSTART;
    EXPECT_EQ(Retract("sr0"), "OK device retracted tray");
    EXPECT_EQ(TakeRequests(), Requests({CDROMCLOSETRAY, CDROMSTART}));
}

// A drive is asked for by its name or its path; an empty name is nobody's.
TEST_F(OpticalTray, DeviceIsANameOrAPath)
{
    static const struct {
        const char *device;
        bool is_known;
    } cases[] = {
        {"sr0", true},  {"/dev/sr0", true}, {"/dev/", false},         {"/dev", false},
        {"", false},    {"sr", false},      {"sr01", false},          {"SR0", false},
        {"sr1", false}, {"dev/sr0", false}, {"/dev//dev/sr0", false}, {"/sr0", false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Eject(c.device), c.is_known ? "OK device ejected" : unknown) << c.device;
        EXPECT_EQ(Retract(c.device), c.is_known ? "OK device retracted tray" : unknown) << c.device;
    }
}

// Everybody may move a tray but the schedule user.
TEST_F(OpticalTray, EverybodyMayButTheScheduleUser)
{
    for (uid_t uid : {0U, 1U, 65534U}) {
        EXPECT_EQ(Eject("sr0", uid), "OK device ejected");
        EXPECT_EQ(Retract("sr0", uid), "OK device retracted tray");
    }
    TakeRequests();
    EXPECT_EQ(Eject("sr0", schedule_user), refused);
    EXPECT_EQ(Retract("sr0", schedule_user), refused);
    EXPECT_EQ(TakeRequests(), Requests());
    schedule_uid = -1; // no such user
    EXPECT_EQ(Eject("sr0", schedule_user), "OK device ejected");
}

// Of several reasons to refuse the first in this order is told, for both commands.
TEST_F(OpticalTray, FirstReasonIsTold)
{
    AddDrive("sdc", "Hard Drive"); // mounted below, of the wrong kind and not to be opened
    machine.Write("/proc/mounts", "/dev/sdx /mnt/sdx iso9660 ro 0 0\n"
                                  "/dev/sdb1 /mnt/sdb1 ext4 rw 0 0\n"
                                  "/dev/sdc /mnt/sdc ext4 rw 0 0\n");
    machine.Refuse("/dev/sdb", EBUSY);
    machine.Refuse("/dev/sdc", EBUSY);
    static const struct {
        const char *device;
        uid_t uid;
        const char *reply;
    } cases[] = {
        {"sdx", schedule_user, unknown}, {"sdb1", schedule_user, refused},
        {"sdc", schedule_user, refused}, {"sdb1", 0, no_drive},
        {"sdc", 0, is_mounted},          {"sdb", 0, wrong_kind},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Eject(c.device, c.uid), c.reply) << c.device;
        EXPECT_EQ(Retract(c.device, c.uid), c.reply) << c.device;
    }
    EXPECT_EQ(TakeRequests(), Requests());
    EXPECT_EQ(machine.Opened("/dev/sdb") + machine.Opened("/dev/sdc"), 0);
    EXPECT_EQ(blockdev_list["sdb"]->label, "OLD");
    EXPECT_EQ(blockdev_list["sdc"]->filesystem, "iso9660");
}

// Types that are no optical drive's.
TEST_F(OpticalTray, OnlyOpticalDrivesHaveATray)
{
    for (const char *type : {"Hard Drive", "Logical Volume", "Unknown", "", "CD-ROM ", "cd-rom"}) {
        blockdev_list["sr0"]->type = type;
        EXPECT_EQ(Eject("sr0"), wrong_kind) << type;
        EXPECT_EQ(Retract("sr0"), wrong_kind) << type;
    }
    EXPECT_EQ(blockdev_list["sr0"]->label, "OLD");
}

// The mount table is read again for each request, and the whole device name counts.
TEST_F(OpticalTray, MountTableIsReadAgain)
{
    machine.Write("/proc/mounts", "/dev/sr0 /mnt/sr0 iso9660 ro 0 0\n");
    EXPECT_EQ(Eject("sr0"), is_mounted);
    EXPECT_EQ(Retract("/dev/sr0"), is_mounted);
    EXPECT_EQ(blockdev_list["sr0"]->label, "OLD");
    machine.Write("/proc/mounts", "/dev/sr00 /mnt/sr0 iso9660 ro 0 0\nsr0 /dev/sr0 tmpfs rw 0 0\n");
    EXPECT_EQ(Eject("sr0"), "OK device ejected");
    machine.Write("/proc/mounts", "/dev/sr0 /somewhere iso9660 ro 0 0\n");
    EXPECT_EQ(Retract("sr0"), is_mounted);
}

// It is not read for those who get no further.
TEST_F(OpticalTray, MountTableIsNotReadForTheRefused)
{
    EXPECT_EQ(Eject("sdx"), unknown);
    EXPECT_EQ(Retract("sr0", schedule_user), refused);
    EXPECT_EQ(machine.Opened("/proc/mounts"), 0);
    EXPECT_EQ(Eject("sdb1"), no_drive);
    EXPECT_EQ(machine.Opened("/proc/mounts"), 1);
}

// The drive is opened without waiting for a disc, and only when nobody else holds it.
TEST_F(OpticalTray, DriveIsOpenedExclusively)
{
    for (auto *command : {Eject, Retract}) {
        machine.ForgetCalls();
        command("sr0", 0);
        EXPECT_EQ(machine.Opened("/dev/sr0"), 1);
        EXPECT_EQ(machine.OpenFlags("/dev/sr0"), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC);
        TakeRequests();
        for (int error : {EBUSY, ENOENT, ENOMEDIUM}) {
            machine.Script(Call::OPEN, {really, fails(error)}); // the mount table comes first
            EXPECT_EQ(command("sr0", 0), cannot_open);
        }
        EXPECT_EQ(TakeRequests(), Requests());
    }
}

// The next listing asks for the disc's label and filesystem again, whether the tray moved or not.
TEST_F(OpticalTray, DiscIsAskedForAgain)
{
    BlockDevice *drive = blockdev_list["sr0"];
    static const struct {
        bool is_busy;
        unsigned long failing;
    } cases[] = {{false, 0}, {false, CDROMEJECT}, {false, CDROMCLOSETRAY}, {true, 0}};
    for (const auto &c : cases) {
        failing = c.failing;
        if (c.is_busy)
            machine.Refuse("/dev/sr0", EBUSY);
        for (auto *command : {Eject, Retract}) {
            drive->label = "OLD";
            drive->filesystem = "iso9660";
            command("sr0", 0);
            EXPECT_EQ(drive->label, "");
            EXPECT_EQ(drive->filesystem, "");
        }
    }
}
