// The table of the ways to attach a drive.
#include "registry/connection_types.h"

#include <gtest/gtest.h>

// Nine rows, whose names stand in listings and whose descriptions head groups.
TEST(ConnectionTypes, HasNineRows)
{
    static const struct {
        ConnectionRow row;
        const char *name;
        const char *description;
    } cases[] = {
        {CONNECTION_LVM, "LVM", "Device mapper/Logical Volume Manager"},
        {CONNECTION_IDE, "IDE/PATA", "IDE PATA disk and ATAPI CD-ROM devices"},
        {CONNECTION_USB, "USB", "USB storage devices"},
        {CONNECTION_MMC, "MMC/SD", "MMC/SD flash devices"},
        {CONNECTION_SCSI, "SCSI", "General SCSI devices"},
        {CONNECTION_SATA, "SATA", "Serial ATA devices"},
        {CONNECTION_RAID, "RAID", "RAID disk array devices"},
        {CONNECTION_NVME, "NVME", "Non-Volatile Memory flash devices"},
        {CONNECTION_FIREWIRE, "1394/Firewire", "Firewire SBP devices"},
    };
    init_connection_types();
    EXPECT_EQ(sizeof(connection_types) / sizeof(connection_types[0]), 9U);
    for (const auto &c : cases) {
        EXPECT_EQ(connection_types[c.row].name, c.name);
        EXPECT_EQ(connection_types[c.row].description, c.description);
    }
}
