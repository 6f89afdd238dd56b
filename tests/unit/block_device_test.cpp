// Records of drives and partitions: who holds them, and who is whose parent.
#include "registry/block_device.h"

#include "made_up_machine.h"

using BlockDeviceTest = MadeUpMachineTest;

using Names = std::map<std::string, bool>;

// Deletes a record without the word that somebody holds it still.
static void dispose(BlockDevice *device)
{
    device->release();
    delete device;
}

// A fresh drive is held once, by the map that it is going to be in, and knows nothing.
TEST_F(BlockDeviceTest, FreshDriveKnowsNothing)
{
    BlockDevice *drive = new BlockDevice("sda");
    EXPECT_EQ(drive->refcount, 1);
    EXPECT_EQ(drive->device, "sda");
    EXPECT_EQ(drive->sysfs_path + drive->model + drive->type + drive->label + drive->place +
                  drive->filesystem,
              "");
    EXPECT_EQ(drive->partition_table, nullptr);
    EXPECT_EQ(drive->connection, nullptr);
    EXPECT_EQ(drive->partitions, Names());
    EXPECT_EQ(drive->capacity, ~0ULL);
    EXPECT_EQ(drive->scanned, 0);
    EXPECT_EQ(drive->poll_mark, 0);
    EXPECT_FALSE(drive->is_unreferenced());
    dispose(drive);
    EXPECT_EQ(errors.Take(), "");
}

// A fresh partition has no parent, no size, and is in no drive's list.
TEST_F(BlockDeviceTest, FreshPartitionHasNoParent)
{
    BlockDevice *drive = new BlockDevice("sda");
    PartitionDevice *partition = new PartitionDevice("sda1");
    EXPECT_EQ(partition->refcount, 1);
    EXPECT_EQ(partition->device, "sda1");
    EXPECT_EQ(partition->parent, nullptr);
    EXPECT_EQ(partition->partition_size, -1);
    EXPECT_EQ(partition->scanned, 0);
    EXPECT_EQ(partition->BlockDevice::scanned, 0);
    EXPECT_EQ(drive->partitions, Names());
    dispose(partition);
    dispose(drive);
}

// acquire() and release() count; the last release() forgets the connection and deletes nothing.
TEST_F(BlockDeviceTest, ReleaseToZeroForgetsTheConnection)
{
    BlockDevice *drive = new BlockDevice("sda");
    drive->set_connection(&connection_types[CONNECTION_USB]);
    drive->acquire();
    EXPECT_EQ(drive->refcount, 2);
    EXPECT_EQ(drive->release(), 1);
    EXPECT_EQ(drive->connection, &connection_types[CONNECTION_USB]);
    EXPECT_FALSE(drive->is_unreferenced());
    EXPECT_EQ(drive->release(), 0);
    EXPECT_EQ(drive->connection, nullptr);
    EXPECT_TRUE(drive->is_unreferenced());
    EXPECT_EQ(drive->device, "sda"); // it is still there
    delete drive;
    EXPECT_EQ(errors.Take(), "");
}

// One release() too many counts below zero; the connection goes at zero only.
TEST_F(BlockDeviceTest, ReleaseCountsBelowZero)
{
    BlockDevice drive("sda");
    drive.release();
    drive.set_connection(&connection_types[CONNECTION_USB]);
    EXPECT_EQ(drive.release(), -1);
    EXPECT_EQ(drive.connection, &connection_types[CONNECTION_USB]);
    EXPECT_FALSE(drive.is_unreferenced());
    drive.acquire();
}

// Deleting a record that somebody holds is a bug that is told of, and done.
TEST_F(BlockDeviceTest, DeletingAHeldRecordIsABug)
{
    static const struct {
        int count;
        const char *words;
    } cases[] = {
        {1, "BUG: BlockDevice sda: I'm being deleted with refcount 1\n"},
        {3, "BUG: BlockDevice sda: I'm being deleted with refcount 3\n"},
        {-1, "BUG: BlockDevice sda: I'm being deleted with refcount -1\n"},
        {0, ""},
    };
    for (const auto &c : cases) {
        BlockDevice *drive = new BlockDevice("sda");
        drive->refcount = c.count;
        delete drive;
        EXPECT_EQ(errors.Take(), c.words);
    }
    BlockDevice *partition = new PartitionDevice("sda1"); // by its base, as the registry may
    delete partition;
    EXPECT_EQ(errors.Take(), "BUG: BlockDevice sda1: I'm being deleted with refcount 1\n");
}

// The partition table goes with its drive (the leak checker watches).
TEST_F(BlockDeviceTest, DeletesItsPartitionTable)
{
    BlockDevice *drive = new BlockDevice("sda");
    drive->partition_table = new PartitionTable("/dev/sda");
    drive->partition_table->entries[1] = "a text that is too long to be kept inside of the string";
    dispose(drive);
}

// Any row can follow any other, and none.
TEST_F(BlockDeviceTest, SetConnectionStoresTheRow)
{
    BlockDevice drive("sda");
    for (const ConnectionType *row :
         {&connection_types[CONNECTION_USB], &connection_types[CONNECTION_USB],
          &connection_types[CONNECTION_SATA], static_cast<ConnectionType *>(nullptr)}) {
        drive.set_connection(row);
        EXPECT_EQ(drive.connection, row);
    }
    EXPECT_EQ(drive.release(), 0);
}

// A parent is held once and lists the partition.
TEST_F(BlockDeviceTest, ParentIsHeldAndListsThePartition)
{
    BlockDevice drive("sda");
    PartitionDevice partition("sda1");
    partition.set_parent(&drive);
    EXPECT_EQ(partition.parent, &drive);
    EXPECT_EQ(drive.refcount, 2);
    EXPECT_EQ(drive.partitions, Names({{"sda1", true}}));
    partition.set_parent(nullptr);
    EXPECT_EQ(partition.parent, nullptr);
    EXPECT_EQ(drive.refcount, 1);
    EXPECT_EQ(drive.partitions, Names());
    partition.set_parent(nullptr);
    EXPECT_EQ(drive.refcount, 1);
    drive.release();
    partition.release();
}

// The same parent again changes nothing: no second hold.
TEST_F(BlockDeviceTest, SameParentAgainChangesNothing)
{
    BlockDevice drive("sda");
    PartitionDevice partition("sda1");
    partition.set_parent(&drive);
    drive.partitions["sda1"] = false; // would be true after a second listing
    partition.set_parent(&drive);
    EXPECT_EQ(drive.refcount, 2);
    EXPECT_EQ(drive.partitions, Names({{"sda1", false}}));
    partition.set_parent(nullptr);
    drive.release();
    partition.release();
}

// Moving from one drive to another takes hold and name along; others stay.
TEST_F(BlockDeviceTest, MovesToAnotherParent)
{
    BlockDevice first("sda");
    BlockDevice second("sdb");
    PartitionDevice partition("sda1");
    PartitionDevice staying("sda2");
    partition.set_parent(&first);
    staying.set_parent(&first);
    partition.set_parent(&second);
    EXPECT_EQ(first.refcount, 2);
    EXPECT_EQ(first.partitions, Names({{"sda2", true}}));
    EXPECT_EQ(second.refcount, 2);
    EXPECT_EQ(second.partitions, Names({{"sda1", true}}));
    partition.set_parent(nullptr);
    staying.set_parent(nullptr);
    for (BlockDevice *device : {&first, &second, static_cast<BlockDevice *>(&partition),
                                static_cast<BlockDevice *>(&staying)})
        EXPECT_EQ(device->release(), 0);
}

// A parent that has lost the name already is released all the same.
TEST_F(BlockDeviceTest, ReleasesAParentThatLostTheName)
{
    BlockDevice drive("sda");
    PartitionDevice partition("sda1");
    partition.set_parent(&drive);
    drive.partitions.clear();
    partition.set_parent(nullptr);
    EXPECT_EQ(drive.refcount, 1);
    drive.release();
    partition.release();
}

// A drive whose last holder is a partition forgets its connection when that one goes.
TEST_F(BlockDeviceTest, ReparentingReleasesLikeAnyHolder)
{
    BlockDevice drive("sda");
    PartitionDevice partition("sda1");
    drive.set_connection(&connection_types[CONNECTION_USB]);
    partition.set_parent(&drive);
    drive.release();
    EXPECT_NE(drive.connection, nullptr);
    partition.set_parent(nullptr);
    EXPECT_EQ(drive.refcount, 0);
    EXPECT_EQ(drive.connection, nullptr);
    partition.release();
}

// Look-ups know drives and partitions by their exact names, drives first.
TEST_F(BlockDeviceTest, FindsByExactName)
{
    BlockDevice *drive = blockdev_list["sda"] = new BlockDevice("sda");
    PartitionDevice *partition = partdev_list["sda1"] = new PartitionDevice("sda1");
    EXPECT_EQ(find_drive("sda"), drive);
    EXPECT_EQ(find_drive("sda1"), nullptr);
    EXPECT_EQ(find_partition("sda1"), partition);
    EXPECT_EQ(find_partition("sda"), nullptr);
    EXPECT_EQ(find_device("sda"), drive);
    EXPECT_EQ(find_device("sda1"), partition);

    static const struct {
        const char *name;
        bool exists;
    } cases[] = {{"sda", true},       {"sda1", true}, {"sd", false}, {"sda2", false},
                 {"/dev/sda", false}, {"SDA", false}, {"", false},   {"sda ", false}};
    for (const auto &c : cases) {
        EXPECT_EQ(device_exists(c.name), c.exists) << c.name;
        EXPECT_EQ(find_device(c.name) != nullptr, c.exists) << c.name;
    }
    EXPECT_EQ(blockdev_list.size(), 1U); // asking adds nothing
    EXPECT_EQ(partdev_list.size(), 1U);

    partdev_list["sda"] = new PartitionDevice("sda");
    EXPECT_EQ(find_device("sda"), drive);
}
