// The set of device names.
#include "inspect/device_name_set.h"

#include "made_up_machine.h"

using DeviceNameSet = MadeUpMachineTest;

// A set like any other; taking out what is not there is no error.
TEST_F(DeviceNameSet, HoldsNames)
{
    EXPECT_FALSE(device_name_set_contains("sdb"));
    device_name_set_insert("sdb");
    device_name_set_insert("sdb");
    device_name_set_insert("sdb1");
    EXPECT_TRUE(device_name_set_contains("sdb"));
    EXPECT_FALSE(device_name_set_contains("sd"));
    EXPECT_TRUE(device_name_set.at("sdb"));
    device_name_set_remove("sdb");
    EXPECT_FALSE(device_name_set_contains("sdb"));
    EXPECT_TRUE(device_name_set_contains("sdb1"));
    device_name_set_remove("sdb");
    EXPECT_EQ(device_name_set.size(), 1U);
}
