// The kernel's list of partitions.
#include "inspect/proc_partitions.h"

#include "made_up_machine.h"

using namespace std::string_literals;

using ProcPartitions = MadeUpMachineTest;

static std::string table_text()
{
    std::string text;
    for (const ProcPartition &row : proc_partitions)
        text += std::to_string(row.major) + ":" + std::to_string(row.minor) + " " +
                std::to_string(row.blocks) + " " + row.name + "\n";
    return text;
}

// The kernel's own format, with its header and the empty line below it.
TEST_F(ProcPartitions, ReadsTheKernelsTable)
{
    machine.Write("/proc/partitions", "major minor  #blocks  name\n"
                                      "\n"
                                      "   8        0  488386584 sda\n"
                                      "   8        1  488384512 sda1\n"
                                      " 259        0  250059096 nvme0n1\n"
                                      "  11        0    1048575 sr0\n");
    ReadProcPartitions();
    EXPECT_EQ(table_text(), "8:0 488386584 sda\n"
                            "8:1 488384512 sda1\n"
                            "259:0 250059096 nvme0n1\n"
                            "11:0 1048575 sr0\n");
}

// A row's number decides: major number 0 (which also text has) makes no row, nor does a "#" in
// front.
TEST_F(ProcPartitions, IgnoresWhatIsNoRow)
{
    static const struct {
        const char *line;
        const char *rows;
    } cases[] = {
        {"", ""},
        {"\n\n\n", ""},
        {"      \n", ""},
        {"   0        1  100 ram1\n", ""},
        {"#  8        1  100 sda1\n", ""},
        {"#8 1 100 sda1\n", ""},
        {" #8 1 100 sda1\n", ""}, // no number either
        {"sda1\n", ""},
        {"8 1 100 sda1", "8:1 100 sda1\n"}, // no line end
        {"8 1 100 sda1 and more\n", "8:1 100 sda1\n"},
        {"8 1 100 sda1   \n", "8:1 100 sda1\n"},
        {"8\n", "8:0 0 \n"}, // cut short: what is missing is 0 or empty
        {"8 1\n", "8:1 0 \n"},
        {"8 1 100\n", "8:1 100 \n"},
        {"8 1 0x10 sda1\n", "8:1 16 sda1\n"}, // the blocks alone are read in any notation of C
        {"8 1 010 sda1\n", "8:1 8 sda1\n"},
        {"8 010 8 sda1\n", "8:10 8 sda1\n"},
        {"8 1 large sda1\n", "8:1 0 large\n"}, // a number ends where its digits end
        {"-8 -1 100 sda1\n", "-8:-1 100 sda1\n"},
        {"8 1 18446744073709551615 sda1\n", "8:1 18446744073709551615 sda1\n"},
        {"8 1 99999999999999999999999 sda1\n", "8:1 18446744073709551615 sda1\n"},
    };
    for (const auto &c : cases) {
        machine.Write("/proc/partitions", c.line);
        ReadProcPartitions();
        EXPECT_EQ(table_text(), c.rows) << c.line;
    }
}

// The text ends at a NUL, as text does.
TEST_F(ProcPartitions, EndsAtANul)
{
    machine.Write("/proc/partitions", "8 0 1 sda\n8 1 2 sd\0a1\n8 2 3 sda2\n"s);
    ReadProcPartitions();
    EXPECT_EQ(table_text(), "8:0 1 sda\n8:1 2 sd\n");
}

// 16383 bytes are looked at, in one read: rows behind them are not there, and the one across the
// border is cut.
TEST_F(ProcPartitions, ReadsAtMost16383BytesInOneRead)
{
    static const struct {
        size_t before; // where the last row begins
        const char *last_row;
    } cases[] = {
        {16383 - 11, "8:9 1 sdz9\n"}, // all of it fits with its line end
        {16383 - 10, "8:9 1 sdz9\n"}, {16383 - 9, "8:9 1 sdz\n"},
        {16383 - 4, "8:9 0 \n"},      {16383 - 1, "8:0 0 \n"},
    };
    for (const auto &c : cases) {
        machine.Write("/proc/partitions", "8 0 1 sda" + std::string(c.before - 10, ' ') + "\n" +
                                              "8 9 1 sdz9\n" + "8 10 1 sdz10\n");
        machine.ForgetCalls();
        ReadProcPartitions();
        EXPECT_EQ(table_text(), std::string("8:0 1 sda\n") + c.last_row) << c.before;
        EXPECT_EQ(machine.Calls(Call::READ), 1);
    }
    machine.Write("/proc/partitions",
                  "8 0 1 sda" + std::string(16383 - 10, ' ') + "\n8 9 1 sdz9\n");
    ReadProcPartitions();
    EXPECT_EQ(table_text(), "8:0 1 sda\n");
}

// A million rows of garbage are no trouble.
TEST_F(ProcPartitions, SurvivesAHugeTable)
{
    machine.Write("/proc/partitions", std::string(1 << 20, '8'));
    ReadProcPartitions();
    EXPECT_LE(proc_partitions.size(), 1U);
    std::string ones;
    for (int i = 0; i < 100000; i++)
        ones += "1\n";
    machine.Write("/proc/partitions", ones);
    ReadProcPartitions();
    EXPECT_EQ(proc_partitions.size(), 8192U); // 16383 bytes of "1\n"
}

// A table that cannot be opened stays as it was.
TEST_F(ProcPartitions, KeepsTheTableWhenItCannotBeOpened)
{
    machine.Write("/proc/partitions", "8 0 1 sda\n");
    ReadProcPartitions();
    machine.Refuse("/proc/partitions", EACCES);
    ReadProcPartitions();
    EXPECT_EQ(errors.Take(), "Cannot open /proc/partitions\n");
    EXPECT_EQ(table_text(), "8:0 1 sda\n");
}

// One that is opened and then cannot be read is empty.
TEST_F(ProcPartitions, IsEmptyWhenItCannotBeRead)
{
    machine.Write("/proc/partitions", "8 0 1 sda\n");
    ReadProcPartitions();
    machine.Script(Call::READ, {fails(EIO)});
    ReadProcPartitions();
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(table_text(), "");
}

// Each reading replaces the one before.
TEST_F(ProcPartitions, ReplacesTheTable)
{
    machine.Write("/proc/partitions", "8 0 1 sda\n8 16 1 sdb\n");
    ReadProcPartitions();
    machine.Write("/proc/partitions", "8 16 1 sdb\n");
    ReadProcPartitions();
    EXPECT_EQ(table_text(), "8:16 1 sdb\n");
}

// A look-up is exact and takes the first of two.
TEST_F(ProcPartitions, FindsTheFirstRowOfAName)
{
    machine.Write("/proc/partitions", "8 0 1 sda\n8 1 2 sda1\n8 2 3 sda1\n");
    ReadProcPartitions();
    ASSERT_NE(FindProcPartition("sda1"), nullptr);
    EXPECT_EQ(FindProcPartition("sda1"), &proc_partitions[1]);
    EXPECT_EQ(FindProcPartition("sda"), &proc_partitions[0]);
    EXPECT_EQ(FindProcPartition("sd"), nullptr);
    EXPECT_EQ(FindProcPartition("sda12"), nullptr);
    EXPECT_EQ(FindProcPartition(""), nullptr);
}

// A fresh row knows nothing.
TEST(ProcPartition, StartsUnknown)
{
    const ProcPartition row;
    EXPECT_EQ(row.major, -1);
    EXPECT_EQ(row.minor, -1);
    EXPECT_EQ(row.blocks, 0U);
    EXPECT_EQ(row.name, "");
}

// The table for people, numbered from 1.
TEST_F(ProcPartitions, DumpsTheTableForPeople)
{
    Printed output(stdout);
    DumpProcPartitions(stdout);
    EXPECT_EQ(output.Take(), "Partitions:\n");
    machine.Write("/proc/partitions", "8 0 488386584 sda\n259 7 18446744073709551615 nvme0n1p7\n");
    ReadProcPartitions();
    DumpProcPartitions(stdout);
    EXPECT_EQ(output.Take(), "Partitions:\n"
                             "  #1: (8,0) 488386584 blocks on sda\n"
                             "  #2: (259,7) 18446744073709551615 blocks on nvme0n1p7\n");
}
