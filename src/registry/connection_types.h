// The ways in which a drive can be attached to the machine.
#ifndef QUARRYD_REGISTRY_CONNECTION_TYPES_H
#define QUARRYD_REGISTRY_CONNECTION_TYPES_H

#include <string>

struct ConnectionType {
    std::string name;        // "USB": the connection column of the listings
    std::string description; // "USB storage devices": the head of a group
};

enum ConnectionRow {
    CONNECTION_LVM,
    CONNECTION_IDE,
    CONNECTION_USB,
    CONNECTION_MMC,
    CONNECTION_SCSI,
    CONNECTION_SATA,
    CONNECTION_RAID,
    CONNECTION_NVME,
    CONNECTION_FIREWIRE,
    CONNECTION_ROWS
};

// Filled once at start, before any device is looked at. Records point at rows and are compared by
// that address, so the table never moves.
extern ConnectionType connection_types[CONNECTION_ROWS];

void init_connection_types();

#endif
