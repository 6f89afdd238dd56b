// Switching the swap file on and off, and every other swap area at the end.
#include "swap/swap_file.h"

#include <unistd.h>

#include "base/daemon_state.h"
#include "made_up_machine.h"

static const size_t least_size = 1048576;
static const char swap_image[] = "/mnt/sda2/swap.img";

using Areas = std::initializer_list<std::string>;

class SwapFile : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        settings.swap_name = "swap.img";
        main_partition = "sda2";
        machine.MakeDirectory("/mnt/sda2");
        ListAreas({});
        // What is done stands between what is said, in one story.
        machine.on_deed = [](const std::string &deed) { fprintf(stderr, "# %s\n", deed.c_str()); };
        machine.on_exec = [this](char *const *) { _exit(mkswap_status); };
    }

    // The kernel's table of swap areas.
    void ListAreas(Areas areas)
    {
        std::string table = "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n";
        for (const std::string &area : areas)
            table += area + "                      file\t\t1023996\t\t0\t\t-2\n";
        machine.Write("/proc/swaps", table);
    }

    void WriteSwapFile(size_t size = least_size)
    {
        machine.Write(swap_image, std::string(size, '\0'));
    }

    int mkswap_status = 0;
};

// The file is active when a line of the table names it, up to the first blank and no more.
TEST_F(SwapFile, IsActiveWhenTheTableNamesIt)
{
    static const struct {
        const char *table;
        int is_active;
    } cases[] = {
        {"", 0},
        {"Filename Type\n", 0},
        {"Filename Type\n/mnt/sda2/swap.img file 1 0 -2\n", 1},
        {"Filename Type\n/mnt/sda2/swap.img", 1},
        {"Filename Type\n/dev/sdb3 partition\n/mnt/sda2/swap.img file\n/dev/sdc3 partition\n", 1},
        {"/mnt/sda2/swap.img file 1 0 -2\n", 1}, // where the head should be
        {"Filename Type\n/mnt/sda2/swap.img\tfile\n", 0},
        {"Filename Type\n /mnt/sda2/swap.img file\n", 0},
        {"Filename Type\n/mnt/sda2/swap.img2 file\n", 0},
        {"Filename Type\n/mnt/sda2/swap.im file\n", 0},
        {"Filename Type\n/mnt/sda21/swap.img file\n", 0},
        {"Filename Type\n/x/mnt/sda2/swap.img file\n", 0},
        {"Filename Type\n/MNT/sda2/swap.img file\n", 0},
        {"Filename Type\n/mnt/sda2/swap.img\\040(deleted) file\n", 0}, // the new one is another
        {"Filename Type\n\n\n/mnt/sda2/swap.img file\n", 1},
    };
    for (const auto &c : cases) {
        machine.Write("/proc/swaps", c.table);
        EXPECT_EQ(SwapFileActive(), c.is_active) << c.table;
    }
    EXPECT_EQ(errors.Take(), "");
}

// Without a name there is no swap file, and nothing is asked.
TEST_F(SwapFile, IsNotActiveWithoutAName)
{
    settings.swap_name = "";
    ListAreas({"/mnt/sda2/", "/mnt/sda2"});
    machine.ForgetCalls();
    EXPECT_EQ(SwapFileActive(), 0);
    EXPECT_EQ(machine.SystemCalls(), 0);
    EXPECT_EQ(errors.Take(), "");
}

// A kernel without swap has no table: nothing more is asked then, nor said.
TEST_F(SwapFile, IsNotActiveWithoutATable)
{
    machine.Remove("/proc/swaps");
    machine.Remove("/mnt");
    machine.ForgetCalls();
    EXPECT_EQ(SwapFileActive(), 0);
    EXPECT_EQ(machine.Calls(Call::REALPATH) + machine.Calls(Call::STAT), 0);
    EXPECT_EQ(errors.Take(), "");
}

// The kernel lists a file by its real path.
TEST_F(SwapFile, IsKnownByItsRealPath)
{
    machine.MakeDirectory("/data/drive");
    machine.Remove("/mnt/sda2");
    machine.Link("/mnt/sda2", "../data/drive");
    ListAreas({swap_image});
    EXPECT_EQ(SwapFileActive(), 0);
    ListAreas({"/data/drive/swap.img"});
    EXPECT_EQ(SwapFileActive(), 1);
    EXPECT_EQ(errors.Take(), "");
}

// A main partition that is not there is told of; the file is then looked for below the root.
TEST_F(SwapFile, PathThatCannotBeResolvedIsTold)
{
    machine.Remove("/mnt/sda2");
    ListAreas({swap_image});
    EXPECT_EQ(SwapFileActive(), 0);
    EXPECT_EQ(errors.Take(), "WARNING: Cannot resolve path /mnt/sda2\n");
    ListAreas({"/swap.img"});
    EXPECT_EQ(SwapFileActive(), 1);
    EXPECT_EQ(errors.Take(), "WARNING: Cannot resolve path /mnt/sda2\n");
}

// Where /mnt cannot be looked at the file does not count as active, whatever the table says.
TEST_F(SwapFile, IsNotActiveWhereMntCannotBeTold)
{
    ListAreas({swap_image, "/swap.img"});
    machine.Refuse("/mnt", EACCES);
    EXPECT_EQ(SwapFileActive(), 0);
    EXPECT_EQ(errors.Take(), "Cannot stat /mnt\n");
    machine.Script(Call::REALPATH, {fails(EACCES)});
    EXPECT_EQ(SwapFileActive(), 0);
    EXPECT_EQ(errors.Take(), "WARNING: Cannot resolve path /mnt/sda2\nCannot stat /mnt\n");
}

// With /mnt a link the kernel lists the file below the link's target.
TEST_F(SwapFile, IsFoundBelowTheTargetOfMnt)
{
    machine.Remove("/mnt");
    machine.MakeDirectory("/tmpfs/.mnt/sda2");
    machine.Link("/mnt", "/tmpfs/.mnt");
    ListAreas({swap_image});
    EXPECT_EQ(SwapFileActive(), 0);
    ListAreas({"/tmpfs/.mnt/sda2/swap.img"});
    EXPECT_EQ(SwapFileActive(), 1);
    EXPECT_EQ(errors.Take(), "");
}

// The link's target is taken as it is: it stands even where the path cannot be resolved.
TEST_F(SwapFile, TargetOfMntIsTakenAsItIs)
{
    machine.Remove("/mnt");
    machine.Link("/mnt", "/tmpfs/.mnt");
    ListAreas({"/tmpfs/.mnt/sda2/swap.img"});
    EXPECT_EQ(SwapFileActive(), 1);
    EXPECT_EQ(errors.Take(), "WARNING: Cannot resolve path /mnt/sda2\n");

    machine.Remove("/mnt");
    machine.Link("/mnt", "/second");
    machine.Link("/second", "/tmpfs/.mnt");
    machine.MakeDirectory("/tmpfs/.mnt/sda2");
    EXPECT_EQ(SwapFileActive(), 0);
    ListAreas({"/second/sda2/swap.img"});
    EXPECT_EQ(SwapFileActive(), 1);
    EXPECT_EQ(errors.Take(), "");
}

// 511 bytes of the link's target count.
TEST_F(SwapFile, LooksAt511BytesOfTheTargetOfMnt)
{
    machine.Remove("/mnt");
    machine.Link("/mnt", "/" + std::string(600, 'x'));
    machine.Script(Call::REALPATH, {returns(0), returns(0)});
    ListAreas({"/" + std::string(600, 'x') + "/sda2/swap.img"});
    EXPECT_EQ(SwapFileActive(), 0);
    ListAreas({"/" + std::string(510, 'x') + "/sda2/swap.img"});
    EXPECT_EQ(SwapFileActive(), 1);
}

// A link that cannot be read is told of, and the file does not count as active.
TEST_F(SwapFile, IsNotActiveWhereTheLinkCannotBeRead)
{
    machine.Remove("/mnt");
    machine.MakeDirectory("/tmpfs/.mnt/sda2");
    machine.Link("/mnt", "/tmpfs/.mnt");
    ListAreas({"/tmpfs/.mnt/sda2/swap.img"});
    machine.Script(Call::READLINK, {fails(EIO)});
    EXPECT_EQ(SwapFileActive(), 0);
    EXPECT_EQ(errors.Take(), "readlink failed\n");
}

// 1023 characters of a line of the table count.
TEST_F(SwapFile, LooksAt1023CharactersOfALine)
{
    const std::string folder = "/mnt/sda2/";
    settings.swap_name = std::string(1023 - folder.size(), 'n');
    ListAreas({folder + settings.swap_name});
    EXPECT_EQ(SwapFileActive(), 1);
    settings.swap_name += "n";
    ListAreas({folder + settings.swap_name});
    EXPECT_EQ(SwapFileActive(), 0);
}

// The kernel writes some characters of a path in its own way into the table.
TEST_F(SwapFile, IsKnownByItsEscapedName)
{
    static const struct {
        const char *name, *listed;
    } cases[] = {
        {"two words", "two\\040words"},
        {" ", "\\040"},
        {"a\tb", "a\\011b"},
        {"a\nb", "a\\012b"},
        {"a\\b", "a\\134b"},
        {"a\\040b", "a\\134040b"},
        {"#\xC3\xBC", "#\xC3\xBC"},
    };
    for (const auto &c : cases) {
        settings.swap_name = c.name;
        ListAreas({std::string("/mnt/sda2/") + c.listed});
        EXPECT_EQ(SwapFileActive(), 1) << c.name;
        ListAreas({std::string("/mnt/sda2/") + c.listed + "\\040(deleted)"});
        EXPECT_EQ(SwapFileActive(), 0) << c.name;
    }
    settings.swap_name = "two"; // what a blank in the name would leave of it
    ListAreas({"/mnt/sda2/two\\040words"});
    EXPECT_EQ(SwapFileActive(), 0);
}

// So is the directory that the file lies in.
TEST_F(SwapFile, IsKnownByItsEscapedDirectory)
{
    machine.Remove("/mnt");
    machine.MakeDirectory("/all mounts/sda2");
    machine.Link("/mnt", "/all mounts");
    ListAreas({"/all\\040mounts/sda2/swap.img"});
    EXPECT_EQ(SwapFileActive(), 1);
}

// A good file is switched on, and each step is told.
TEST_F(SwapFile, IsSwitchedOn)
{
    WriteSwapFile();
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Setting up swapfile on main drive.\n"
                             "Swap file exists (1MB)\n"
                             "setting up swap\n"
                             "# swapon /mnt/sda2/swap.img 0\n");
    EXPECT_EQ(swap_path, swap_image);
}

// One that is active already is left alone.
TEST_F(SwapFile, ActiveFileIsNotSwitchedOnAgain)
{
    WriteSwapFile();
    ListAreas({swap_image});
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "");
    EXPECT_EQ(swap_path, swap_image); // for the day when it is switched off
}

// Half of what it takes is told; with nothing at all nobody wanted swap.
TEST_F(SwapFile, HalfOfTheNamesIsTold)
{
    main_partition = settings.swap_name = "";
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "");

    main_partition = "sda2";
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Cannot enable swap: main_partition=sda2 name=\n");

    main_partition = "";
    settings.swap_name = "swap.img";
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Cannot enable swap: main_partition= name=swap.img\n"
                             "Setting up swapfile on main drive.\n");
    EXPECT_EQ(swap_path, "");
}

// With half of the names the path of the last time is kept and used.
TEST_F(SwapFile, PathOfTheLastTimeIsKept)
{
    WriteSwapFile();
    ASSERT_EQ(SwapOn(), 1);
    errors.Take();
    main_partition = "";
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Cannot enable swap: main_partition= name=swap.img\n"
                             "Setting up swapfile on main drive.\n"
                             "Swap file exists (1MB)\n"
                             "setting up swap\n"
                             "# swapon /mnt/sda2/swap.img 0\n");
    main_partition = "sda2";
    settings.swap_name = "";
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(swap_path, swap_image);
    EXPECT_EQ(errors.Take(), "Cannot enable swap: main_partition=sda2 name=\n");
    main_partition = "sdb1";
    settings.swap_name = "other";
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(swap_path, "/mnt/sdb1/other");
}

// A missing file is no error and is not made.
TEST_F(SwapFile, MissingFileIsNoError)
{
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Setting up swapfile on main drive.\n");
    EXPECT_FALSE(machine.Exists(swap_image));
}

// One MiB is enough and one byte less is not; the size is cut to whole MiB.
TEST_F(SwapFile, OneMebibyteIsEnough)
{
    static const struct {
        size_t size;
        const char *text;
        bool is_used;
    } cases[] = {
        {0, "0MB", false},      {1048575, "0MB", false}, {1048576, "1MB", true},
        {2097151, "1MB", true}, {2097152, "2MB", true},
    };
    for (const auto &c : cases) {
        WriteSwapFile(c.size);
        EXPECT_EQ(SwapOn(), 1) << c.size;
        EXPECT_EQ(errors.Take(), std::string("Setting up swapfile on main drive.\n") +
                                     "Swap file exists (" + c.text + ")\n" +
                                     (c.is_used ? "setting up swap\n"
                                                  "# swapon /mnt/sda2/swap.img 0\n"
                                                : "Swap file too small to be useful\n"));
        EXPECT_EQ(machine.Exists(swap_image), c.is_used) << c.size;
        EXPECT_EQ(machine.Exists("/mnt/sda2/swap.img.discard"), !c.is_used) << c.size;
        machine.Remove("/mnt/sda2/swap.img.discard");
    }
}

// The file that is set aside keeps what it holds: the removal comes after the renaming, on purpose.
TEST_F(SwapFile, FileSetAsideIsKept)
{
    machine.Write(swap_image, "somebody's text");
    machine.Write("/mnt/sda2/swap.img.discard", "older");
    machine.ForgetCalls();
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(machine.Calls(Call::RENAME), 1);
    EXPECT_EQ(machine.Calls(Call::UNLINK), 1);
    EXPECT_FALSE(machine.Exists(swap_image));
    char text[32] = "";
    FILE *kept = fopen(machine.RealPath("/mnt/sda2/swap.img.discard").c_str(), "re");
    ASSERT_NE(kept, nullptr);
    EXPECT_NE(fgets(text, sizeof(text), kept), nullptr);
    fclose(kept);
    EXPECT_STREQ(text, "somebody's text");
}

// A small file that cannot be renamed goes; one that cannot go either is used after all.
TEST_F(SwapFile, SmallFileThatCannotBeRenamedGoes)
{
    WriteSwapFile(1000);
    machine.Script(Call::RENAME, {fails(EIO), fails(EIO)});
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_FALSE(machine.Exists(swap_image));
    EXPECT_TRUE(machine.Deeds().empty());

    WriteSwapFile(1000);
    machine.Script(Call::UNLINK, {fails(EIO)});
    errors.Take();
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Setting up swapfile on main drive.\n"
                             "Swap file exists (0MB)\n"
                             "Swap file too small to be useful\n"
                             "setting up swap\n"
                             "# swapon /mnt/sda2/swap.img 0\n");
}

// The file is looked at twice; each time what is seen then counts.
TEST_F(SwapFile, FileIsLookedAtTwice)
{
    WriteSwapFile();
    // /mnt comes first, then who may write to the root directory and to the file.
    machine.Script(Call::STAT, {really, really, really, really, fails(EIO)});
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Setting up swapfile on main drive.\nSwap file exists (1MB)\n");
    machine.Script(Call::STAT, {really, really, really, fails(EIO)});
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(errors.Take(), "Setting up swapfile on main drive.\n"
                             "setting up swap\n"
                             "# swapon /mnt/sda2/swap.img 0\n");
}

static const char swapon_deed[] = "# swapon /mnt/sda2/swap.img 0\n";
static const char mkswap_deed[] = "# execl /bin/sh sh -c mkswap \"/mnt/sda2/swap.img\"\n";

// What the kernel answers decides: a file that it does not know for swap is formatted, once; one in
// use already is fine; everything else is a failure that is told.
TEST_F(SwapFile, KernelsAnswerDecides)
{
    const std::string on = swapon_deed;
    const std::string format = mkswap_deed;
    static const Answer works = returns(0);
    static const struct {
        std::vector<Answer> answers;
        int mkswap_status;
        int result;
        std::string story;
    } cases[] = {
        {{works}, 0, 1, on},
        {{fails(EBUSY)}, 0, 1, on},
        {{fails(EPERM)}, 0, 0, on + "Cannot set up swap Operation not permitted\n"},
        {{fails(ENOENT)}, 0, 0, on + "Cannot set up swap No such file or directory\n"},
        {{fails(EINVAL), works}, 0, 1, on + format + on},
        {{fails(EINVAL), works}, 1, 0, on + format + "mkswap error\n"},
        {{fails(EINVAL), works}, 127, 0, on + format + "mkswap error\n"},
        {{fails(EINVAL), fails(EBUSY)}, 0, 1, on + format + on},
        {{fails(EINVAL), fails(EINVAL)},
         0,
         0,
         on + format + on + "Cannot set up swap Invalid argument\n"},
        {{fails(EINVAL), fails(EPERM)},
         0,
         0,
         on + format + on + "Cannot set up swap Operation not permitted\n"},
    };
    WriteSwapFile();
    for (const auto &c : cases) {
        if (c.answers.size() == 1)
            machine.Script(Call::SWAPON, {c.answers[0]});
        else
            machine.Script(Call::SWAPON, {c.answers[0], c.answers[1]});
        mkswap_status = c.mkswap_status;
        EXPECT_EQ(SwapOn(), c.result) << c.story;
        EXPECT_EQ(errors.Take(), "Setting up swapfile on main drive.\n"
                                 "Swap file exists (1MB)\n"
                                 "setting up swap\n" +
                                     c.story);
    }
}

// Without a child there is no formatting.
TEST_F(SwapFile, FormattingNeedsAChild)
{
    WriteSwapFile();
    machine.Script(Call::SWAPON, {fails(EINVAL)});
    machine.Script(Call::FORK, {fails(EAGAIN)});
    errors.Take();
    EXPECT_EQ(SwapOn(), 0);
    EXPECT_TRUE(errors.Take().ends_with(std::string(swapon_deed) + "mkswap error\n"));
}

// What a link leads to may be anything, a drive even: it is used, but never formatted.
TEST_F(SwapFile, LinkIsNeverFormatted)
{
    machine.Write("/mnt/sda2/real", std::string(least_size, '\0'));
    machine.Link(swap_image, "real");
    EXPECT_EQ(SwapOn(), 1);
    errors.Take();
    machine.Script(Call::SWAPON, {fails(EINVAL)});
    machine.ForgetCalls();
    EXPECT_EQ(SwapOn(), 0);
    EXPECT_TRUE(errors.Take().ends_with(std::string(swapon_deed) + "mkswap error\n"));
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
}

// So it is with what only became something else since, and what has gone.
TEST_F(SwapFile, OnlyARegularFileIsFormatted)
{
    WriteSwapFile();
    machine.Script(Call::SWAPON, {fails(EINVAL), fails(EINVAL)});
    machine.on_deed = [this](const std::string &deed) {
        if (deed.starts_with("swapon")) {
            machine.Remove(swap_image);
            machine.MakeDirectory(swap_image);
        }
    };
    EXPECT_EQ(SwapOn(), 0);
    EXPECT_TRUE(errors.Take().ends_with("setting up swap\nmkswap error\n"));

    machine.Remove(swap_image);
    WriteSwapFile();
    machine.on_deed = [this](const std::string &) { machine.Remove(swap_image); };
    EXPECT_EQ(SwapOn(), 0);
    EXPECT_TRUE(errors.Take().ends_with("setting up swap\nmkswap error\n"));
    EXPECT_EQ(machine.Calls(Call::FORK), 0);
}

// The shell gets the name in double quotes, the kernel as it is.
TEST_F(SwapFile, NameWithABlankIsOneWordOfTheShell)
{
    settings.swap_name = "my swap";
    machine.Write("/mnt/sda2/my swap", std::string(least_size, '\0'));
    machine.Script(Call::SWAPON, {fails(EINVAL)});
    EXPECT_EQ(SwapOn(), 1);
    EXPECT_EQ(machine.Deeds(),
              std::vector<std::string>({"swapon /mnt/sda2/my swap 0",
                                        "execl /bin/sh sh -c mkswap \"/mnt/sda2/my swap\"",
                                        "swapon /mnt/sda2/my swap 0"}));
}

// An active file is switched off; that it is off already is as good.
TEST_F(SwapFile, IsSwitchedOff)
{
    static const struct {
        Answer answer;
        int result;
        const char *end;
    } cases[] = {
        {returns(0), 1, ""},
        {fails(EINVAL), 1, ""},
        {fails(ENOENT), 1, ""},
        {fails(EPERM), 0, "Cannot remove swap\n"},
        {fails(ENOMEM), 0, "Cannot remove swap\n"},
        {fails(EBUSY), 0, "Cannot remove swap\n"},
    };
    swap_path = swap_image;
    ListAreas({swap_image});
    for (const auto &c : cases) {
        machine.Script(Call::SWAPOFF, {c.answer});
        EXPECT_EQ(SwapOff(), c.result) << c.answer.error;
        EXPECT_EQ(errors.Take(),
                  std::string("SwapOff: switching off main drive swapfile /mnt/sda2/swap.img\n"
                              "# swapoff /mnt/sda2/swap.img\n") +
                      c.end);
    }
}

// One that is not active needs no switching off.
TEST_F(SwapFile, IsNotSwitchedOffWhenItIsNotActive)
{
    swap_path = swap_image;
    ListAreas({"/dev/sdb3"});
    EXPECT_EQ(SwapOff(), 1);
    settings.swap_name = "";
    EXPECT_EQ(SwapOff(), 1);
    machine.Remove("/proc/swaps");
    EXPECT_EQ(SwapOff(), 1);
    EXPECT_EQ(errors.Take(), "");
}

// The path that was switched on last is switched off, also when there was none.
TEST_F(SwapFile, PathOfTheLastTimeIsSwitchedOff)
{
    ListAreas({swap_image});
    EXPECT_EQ(SwapOff(), 1);
    EXPECT_EQ(errors.Take(), "SwapOff: switching off main drive swapfile \n# swapoff \n");

    machine.MakeDirectory("/mnt/sdb1");
    machine.Write("/mnt/sdb1/swap.img", std::string(least_size, '\0'));
    main_partition = "sdb1";
    machine.Script(Call::SWAPON, {fails(EPERM)});
    ASSERT_EQ(SwapOn(), 0);
    errors.Take();
    main_partition = "sda2";
    EXPECT_EQ(SwapOff(), 1);
    EXPECT_EQ(errors.Take(), "SwapOff: switching off main drive swapfile /mnt/sdb1/swap.img\n"
                             "# swapoff /mnt/sdb1/swap.img\n");
}

// Of the areas below /tmpfs/.mnt/ those of the main partition go, in the table's order.
TEST_F(SwapFile, OthersOfTheMainPartitionAreSwitchedOff)
{
    ListAreas({
        "/dev/sdb3",
        "/tmpfs/.mnt/sda2/first",
        "/tmpfs/.mnt/sda2", // a file in the partition's place
        "/tmpfs/.mnt/sda21/file",
        "/tmpfs/.mnt/sda/file",
        "/tmpfs/.mnt//sda2/file",
        "/tmpfs/.mnt2/sda2/file",
        "/tmpfs/sda2/file",
        "/x/tmpfs/.mnt/sda2/file",
        "/0123456789/sda2/tmpfs/.mnt/file",
        "/mnt/sda2/file",
        "/tmpfs/.mnt/sda2/folder/second",
    });
    machine.Script(Call::SWAPOFF, {fails(EPERM)});
    EXPECT_EQ(SwapOffMainDriveOthers(), 0);
    EXPECT_EQ(errors.Take(), "Shutting down any other swap files on the main drive\n"
                             " --> /tmpfs/.mnt/sda2/first\n"
                             "# swapoff /tmpfs/.mnt/sda2/first\n"
                             "      ! Operation not permitted\n"
                             " --> /tmpfs/.mnt/sda2/folder/second\n"
                             "# swapoff /tmpfs/.mnt/sda2/folder/second\n");
}

// Every area goes at the end, whatever drive it is on and in spite of the announcement.
TEST_F(SwapFile, AllAreasAreSwitchedOff)
{
    ListAreas({"/dev/sdb3", swap_image, "/tmpfs/.mnt/sda2/file"});
    machine.Script(Call::SWAPOFF, {really, fails(ENOMEM)});
    EXPECT_EQ(SwapOffAll(), 0);
    EXPECT_EQ(errors.Take(), "Shutting down any other swap files on other drives\n"
                             " --> /dev/sdb3\n"
                             "# swapoff /dev/sdb3\n"
                             " --> /mnt/sda2/swap.img\n"
                             "# swapoff /mnt/sda2/swap.img\n"
                             "      ! Cannot allocate memory\n"
                             " --> /tmpfs/.mnt/sda2/file\n"
                             "# swapoff /tmpfs/.mnt/sda2/file\n");
}

// The table's head is no area, even if it looks like one.
TEST_F(SwapFile, HeadOfTheTableIsNoArea)
{
    machine.Write("/proc/swaps", "/tmpfs/.mnt/sda2/head file 1 0 -2\n");
    EXPECT_EQ(SwapOffMainDriveOthers(), 0);
    EXPECT_EQ(SwapOffAll(), 0);
    machine.Write("/proc/swaps", "");
    EXPECT_EQ(SwapOffMainDriveOthers(), 0);
    EXPECT_EQ(SwapOffAll(), 0);
    EXPECT_TRUE(machine.Deeds().empty());
    EXPECT_EQ(errors.Take(), "Shutting down any other swap files on the main drive\n"
                             "Shutting down any other swap files on other drives\n"
                             "Shutting down any other swap files on the main drive\n"
                             "Shutting down any other swap files on other drives\n");
}

// Without a table there is nothing to say.
TEST_F(SwapFile, NothingIsSaidWithoutATable)
{
    machine.Remove("/proc/swaps");
    EXPECT_EQ(SwapOffMainDriveOthers(), 0);
    EXPECT_EQ(SwapOffAll(), 0);
    EXPECT_EQ(errors.Take(), "");
}

// The kernel wants an area's path as it is, not as it stands in the table. Told it is as it stands
// there, on one line.
TEST_F(SwapFile, AreasAreSwitchedOffByTheirRealNames)
{
    ListAreas({"/tmpfs/.mnt/sda2/two\\040words", "/tmpfs/.mnt/sda2/a\\011b\\134c\\012d"});
    for (int (*switch_off)() : {SwapOffMainDriveOthers, SwapOffAll}) {
        switch_off();
        const std::string story = errors.Take();
        EXPECT_EQ(story.substr(story.find('\n') + 1), " --> /tmpfs/.mnt/sda2/two\\040words\n"
                                                      "# swapoff /tmpfs/.mnt/sda2/two words\n"
                                                      " --> /tmpfs/.mnt/sda2/a\\011b\\134c\\012d\n"
                                                      "# swapoff /tmpfs/.mnt/sda2/a\tb\\c\nd\n");
    }
}
