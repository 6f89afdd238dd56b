// Whether an optical drive holds a disc, by everything that a drive may answer.
#include "inspect/optical_medium.h"

#include <cstring>
#include <fcntl.h>
#include <linux/cdrom.h>
#include <scsi/sg.h>

#include "made_up_machine.h"

class OpticalMedium : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        machine.Write("/dev/sr0", "");
    }
};

// Four answers are known; with any other the drive says that it does not know.
TEST(DiscFromStatus, KnowsFourAnswers)
{
    static const struct {
        int status;
        int disc;
    } cases[] = {{-1, -1}, {0, -1}, {1, 0}, {2, 0}, {3, 0}, {4, 1}, {5, -1}, {100, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(disc_from_status(c.status), c.disc) << c.status;
}

// A drive that knows is believed: nothing is read from the disc.
TEST_F(OpticalMedium, BelievesADriveThatKnows)
{
    static const struct {
        int status;
        int present;
    } cases[] = {{CDS_NO_DISC, 0}, {CDS_TRAY_OPEN, 0}, {CDS_DRIVE_NOT_READY, 0}, {CDS_DISC_OK, 1}};
    for (const auto &c : cases) {
        machine.on_ioctl = [&](unsigned long request, void *) {
            EXPECT_EQ(request, static_cast<unsigned long>(CDROM_DRIVE_STATUS));
            return c.status;
        };
        EXPECT_EQ(disc_present("/dev/sr0"), c.present) << c.status;
    }
}

// One that does not know is asked for one block, with a command that this describes to the byte.
TEST_F(OpticalMedium, AsksForBlock16)
{
    int reads = 0;
    machine.on_ioctl = [&](unsigned long request, void *argument) {
        if (request != SG_IO)
            return CDS_NO_INFO;
        reads++;
        const sg_io_hdr_t &read = *static_cast<sg_io_hdr_t *>(argument);
        static const unsigned char command[12] = {0xA8, 0, 0, 0, 0, 16, 0, 0, 0, 1, 0, 0};
        EXPECT_EQ(read.interface_id, 'S');
        EXPECT_EQ(read.cmd_len, 12);
        EXPECT_EQ(memcmp(read.cmdp, command, 12), 0);
        EXPECT_EQ(read.dxfer_direction, SG_DXFER_FROM_DEV);
        EXPECT_EQ(read.dxfer_len, 2048U);
        EXPECT_EQ(read.mx_sb_len, 40);
        EXPECT_EQ(read.timeout, 2500U);            // milliseconds
        memset(read.dxferp, 0xFF, read.dxfer_len); // there is room for all of it
        memset(read.sbp, 0xFF, read.mx_sb_len);
        return 0;
    };
    EXPECT_EQ(disc_present("/dev/sr0"), 1);
    EXPECT_EQ(reads, 1);
}

// How the reading ends decides: good or a check condition is a disc, anything else is none. A drive
// that refuses to tell its status is treated like one that does not know.
TEST_F(OpticalMedium, ReadsWhenTheDriveDoesNotKnow)
{
    static const struct {
        int status;
        int result;
        unsigned char masked_status;
        int present;
    } cases[] = {
        {CDS_NO_INFO, 0, 0, 1}, {CDS_NO_INFO, 0, 2, 1},  {CDS_NO_INFO, 0, 1, 0},
        {CDS_NO_INFO, 0, 4, 0}, {CDS_NO_INFO, 0, 12, 0}, {CDS_NO_INFO, -1, 0, 0},
        {-1, 0, 0, 1},          {-1, -1, 0, 0},          {5, 0, 2, 1},
    };
    for (const auto &c : cases) {
        machine.on_ioctl = [&](unsigned long request, void *argument) {
            if (request != SG_IO)
                return c.status;
            static_cast<sg_io_hdr_t *>(argument)->masked_status = c.masked_status;
            return c.result;
        };
        EXPECT_EQ(disc_present("/dev/sr0"), c.present)
            << c.status << ' ' << c.result << ' ' << static_cast<int>(c.masked_status);
    }
}

// A drive that is held exclusively, as a mounted one is, or that is not there counts as empty.
TEST_F(OpticalMedium, UnopenableDriveIsEmpty)
{
    EXPECT_EQ(disc_present("/dev/sr1"), 0);
    machine.Refuse("/dev/sr0", EBUSY);
    EXPECT_EQ(disc_present("/dev/sr0"), 0);
    EXPECT_EQ(machine.Calls(Call::IOCTL), 0);
    EXPECT_EQ(errors.Take(), "");
}

// Opening must neither wait for a disc nor share the drive with a mount.
TEST_F(OpticalMedium, OpensWithoutWaitingAndAlone)
{
    machine.on_ioctl = [](unsigned long, void *) { return CDS_DISC_OK; };
    disc_present("/dev/sr0");
    const int flags = machine.OpenFlags("/dev/sr0");
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_NE(flags & O_EXCL, 0);
    EXPECT_NE(flags & O_NONBLOCK, 0);
}
