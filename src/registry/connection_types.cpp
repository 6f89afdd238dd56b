// The table of connection types.
#include "registry/connection_types.h"

ConnectionType connection_types[CONNECTION_ROWS];

void init_connection_types()
{
    connection_types[CONNECTION_LVM] = {"LVM", "Device mapper/Logical Volume Manager"};
    connection_types[CONNECTION_IDE] = {"IDE/PATA", "IDE PATA disk and ATAPI CD-ROM devices"};
    connection_types[CONNECTION_USB] = {"USB", "USB storage devices"};
    connection_types[CONNECTION_MMC] = {"MMC/SD", "MMC/SD flash devices"};
    connection_types[CONNECTION_SCSI] = {"SCSI", "General SCSI devices"};
    connection_types[CONNECTION_SATA] = {"SATA", "Serial ATA devices"};
    connection_types[CONNECTION_RAID] = {"RAID", "RAID disk array devices"};
    connection_types[CONNECTION_NVME] = {"NVME", "Non-Volatile Memory flash devices"};
    connection_types[CONNECTION_FIREWIRE] = {"1394/Firewire", "Firewire SBP devices"};
}
