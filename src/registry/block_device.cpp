// Records of drives and partitions: reference counts, parents, look-ups.
#include "registry/block_device.h"

#include <cstdio>

std::map<std::string, BlockDevice *> blockdev_list;
std::map<std::string, PartitionDevice *> partdev_list;

BlockDevice::BlockDevice(const std::string &name) : device(name)
{
}

BlockDevice::~BlockDevice()
{
    delete partition_table;
    partition_table = nullptr;
    if (refcount != 0)
        fprintf(stderr, "BUG: BlockDevice %s: I'm being deleted with refcount %d\n", device.c_str(),
                refcount);
}

void BlockDevice::acquire()
{
    refcount++;
}

int BlockDevice::release()
{
    refcount--;
    if (refcount == 0)
        connection = nullptr;
    return refcount;
}

bool BlockDevice::is_unreferenced() const
{
    return refcount == 0;
}

void BlockDevice::set_connection(const ConnectionType *row)
{
    if (connection != row)
        connection = row;
}

PartitionDevice::PartitionDevice(const std::string &name) : BlockDevice(name)
{
}

void PartitionDevice::set_parent(BlockDevice *drive)
{
    if (drive == parent)
        return;
    if (parent) {
        parent->partitions.erase(device);
        parent->release();
    }
    parent = drive;
    if (drive) {
        drive->acquire();
        drive->partitions[device] = true;
    }
}

bool device_exists(const char *name)
{
    return find_device(name) != nullptr;
}

BlockDevice *find_drive(const std::string &name)
{
    auto found = blockdev_list.find(name);
    return found == blockdev_list.end() ? nullptr : found->second;
}

PartitionDevice *find_partition(const std::string &name)
{
    auto found = partdev_list.find(name);
    return found == partdev_list.end() ? nullptr : found->second;
}

BlockDevice *find_device(const std::string &name)
{
    BlockDevice *drive = find_drive(name);
    return drive ? drive : find_partition(name);
}
