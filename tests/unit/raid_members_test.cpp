// Which devices belong to an md array.
#include "inspect/raid_members.h"

#include "made_up_machine.h"

using RaidMembers = MadeUpMachineTest;

// A name never seen has no text: it is not an inactive member.
TEST_F(RaidMembers, TextTellsThreeCases)
{
    raid_members["sdb"] = true;
    raid_members["sdc"] = false;
    EXPECT_EQ(raid_text("sda"), "");
    EXPECT_EQ(raid_text("sdb"), "Active RAID");
    EXPECT_EQ(raid_text("sdc"), "Inactive RAID");
    EXPECT_EQ(raid_text(""), "");
    EXPECT_EQ(raid_members.size(), 2U); // asking makes nobody a member
}

// An inactive member is a member; a path is never one.
TEST_F(RaidMembers, MembersAreKnownByTheirBareName)
{
    raid_members["sdb"] = false;
    EXPECT_TRUE(is_raid_member("sdb"));
    EXPECT_FALSE(is_raid_member("/dev/sdb"));
    EXPECT_FALSE(is_raid_member("sdb1"));
    EXPECT_FALSE(is_raid_member("sd"));
}

// A forgotten name is no member, and can be forgotten again.
TEST_F(RaidMembers, ForgettingIsFinalAndHarmless)
{
    raid_members["sdb"] = true;
    forget_raid("sdb");
    EXPECT_FALSE(is_raid_member("sdb"));
    forget_raid("sdb");
    EXPECT_EQ(raid_members.size(), 0U);
}

// A superblock makes an inactive member, whatever was known before: the array's slaves tell whether
// it is active.
TEST_F(RaidMembers, SuperblockMakesAnInactiveMember)
{
    machine.WriteMdSuperblock("sdb1");
    check_raid_participation("sdb1");
    EXPECT_EQ(raid_text("sdb1"), "Inactive RAID");
    raid_members["sdb1"] = true;
    check_raid_participation("sdb1");
    EXPECT_EQ(raid_text("sdb1"), "Inactive RAID");
    EXPECT_EQ(errors.Take(), "");
}

// A device without one is forgotten.
TEST_F(RaidMembers, DeviceWithoutSuperblockIsForgotten)
{
    machine.Write("/dev/sdb1", std::string(8192, '\0'));
    raid_members["sdb1"] = true;
    check_raid_participation("sdb1");
    EXPECT_FALSE(is_raid_member("sdb1"));
}

// A device that cannot be opened is forgotten too, with a line that says why.
TEST_F(RaidMembers, UnopenableDeviceIsForgottenWithALine)
{
    raid_members["sdb1"] = true;
    check_raid_participation("sdb1");
    EXPECT_FALSE(is_raid_member("sdb1"));
    EXPECT_EQ(errors.Take(), "Unable to check sdb1 raid participation No such file or directory\n");
    machine.Refuse("/dev/sr0", ENOMEDIUM);
    check_raid_participation("sr0");
    EXPECT_EQ(errors.Take(), "Unable to check sr0 raid participation No medium found\n");
}
