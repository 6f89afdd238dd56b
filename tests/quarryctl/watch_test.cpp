// What `watch` makes of two lists.
#include <gtest/gtest.h>
#include <string>

#include "quarryctl/watch.h"

using Clock = std::chrono::steady_clock;

static const Clock::time_point start = Clock::time_point(std::chrono::hours(1));

static ListedDevice device(const std::string &name, const std::string &label = "")
{
    ListedDevice listed;
    listed.device.name = name;
    listed.device.label = label;
    return listed;
}

// "a +b -c *d": the names with their marks.
static std::string told(const std::vector<WatchedDevice> &devices)
{
    static const char *const marks[] = {"", "+", "-", "*"};
    std::string text;
    for (const WatchedDevice &watched : devices)
        text += (text.empty() ? "" : " ") + std::string(marks[watched.mark]) +
                watched.listed.device.name;
    return text;
}

static std::vector<WatchedDevice> unmarked(const std::vector<ListedDevice> &devices)
{
    std::vector<WatchedDevice> watched;
    for (const ListedDevice &listed : devices)
        watched.push_back({listed, MARK_NONE, {}});
    return watched;
}

TEST(Follow, MarksWhatDiffers)
{
    const auto before = unmarked({device("sda"), device("sdb"), device("sdb1"), device("sdd")});
    const auto now = follow(
        before, {device("sda", "NEW"), device("sda1"), device("sdc"), device("sdd"), device("sde")},
        start);
    EXPECT_EQ(told(now), "*sda -sdb -sdb1 +sda1 +sdc sdd +sde");
}

TEST(Follow, ToldOfNothingMarksNothing)
{
    const auto before = unmarked({device("sda"), device("sdb")});
    EXPECT_EQ(told(follow(before, {device("sda"), device("sdb")}, start)), "sda sdb");
    EXPECT_EQ(told(follow({}, {}, start)), "");
}

TEST(Follow, TakesAMountForAChange)
{
    ListedDevice mounted = device("sdb1");
    mounted.mountpoints = {"/mnt/sdb1"};
    EXPECT_EQ(told(follow(unmarked({device("sdb1")}), {mounted}, start)), "*sdb1");
}

// A mark stays for a while, however often the list is taken; what went leaves with its mark.
TEST(Follow, ForgetsMarksInTime)
{
    const std::vector<ListedDevice> devices = {device("sda", "NEW"), device("sdc")};
    auto now = follow(unmarked({device("sda"), device("sdb")}), devices, start);
    for (int i = 1; i < 10; i++) {
        now = follow(now, devices, start + std::chrono::seconds(i));
        EXPECT_EQ(told(now), "*sda -sdb +sdc") << i;
        EXPECT_EQ(now[0].marked, start);
    }
    EXPECT_EQ(told(follow(now, devices, start + mark_lifetime)), "sda sdc");
}

// A stick that is pulled and plugged again is the same row, and news.
TEST(Follow, WelcomesBackWhatWent)
{
    auto now = follow(unmarked({device("sda"), device("sdb")}), {device("sda")}, start);
    EXPECT_EQ(told(now), "sda -sdb");
    const auto later = start + std::chrono::seconds(1);
    now = follow(now, {device("sda"), device("sdb")}, later);
    EXPECT_EQ(told(now), "sda +sdb");
    EXPECT_EQ(now[1].marked, later);
}

// What has changed twice is marked by the last time.
TEST(Follow, MarksAgain)
{
    auto now = follow({}, {device("sda")}, start);
    EXPECT_EQ(told(now), "+sda");
    const auto later = start + std::chrono::seconds(9);
    now = follow(now, {device("sda", "NEW")}, later);
    EXPECT_EQ(told(now), "*sda");
    EXPECT_EQ(now[0].marked, later);
}

// The order is the daemon's even where it is not that of the names.
TEST(Follow, KeepsTheListsOrder)
{
    const auto before = unmarked({device("b"), device("a"), device("c")});
    EXPECT_EQ(told(follow(before, {device("c"), device("a"), device("d")}, start)), "-b c a +d");
}
