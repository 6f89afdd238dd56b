// The configuration file.
#include "core/configuration.h"

#include "base/daemon_state.h"
#include "made_up_machine.h"

using Configuration = MadeUpMachineTest;

// Each of the six keys has its own setting.
TEST_F(Configuration, HasSixKeys)
{
    machine.Write("/etc/quarryd.conf", "main drive model = model\n"
                                       "main partition signature = signature\n"
                                       "main partition label = label\n"
                                       "startup script = /start\n"
                                       "shutdown script = /stop\n"
                                       "swap name = swap.img\n"
                                       "no such key = value\n");
    EXPECT_TRUE(read_configuration());
    EXPECT_EQ(settings.main_drive_model, "model");
    EXPECT_EQ(settings.main_partition_signature, "signature");
    EXPECT_EQ(settings.main_partition_label, "label");
    EXPECT_EQ(settings.startup_script, "/start");
    EXPECT_EQ(settings.shutdown_script, "/stop");
    EXPECT_EQ(settings.swap_name, "swap.img");
    EXPECT_EQ(errors.Take(), "");
}

// Blanks around the "=" do not count; those before the key and behind the value do, and a tab is
// no blank.
TEST_F(Configuration, BlanksCountAtTheEndsOnly)
{
    static const struct {
        std::string line;
        const char *swap_name;
    } cases[] = {
        {"swap name = swap.img", "swap.img"},
        {"swap name=swap.img", "swap.img"},
        {"swap name   =   swap.img", "swap.img"},
        {" swap name = swap.img", "old"}, // an indented key is another key
        {"swap  name = swap.img", "old"},
        {"Swap Name = swap.img", "old"},
        {"swap name\t= swap.img", "old"},
        {"swap name =\tswap.img", "\tswap.img"},
        {"swap name = swap.img  ", "swap.img  "},
        {"swap name = two words", "two words"},
        {"swap name = a = b", "a = b"},
        {"swap name == b", "= b"},
        {"swap name = swap.img # a comment", "swap.img # a comment"},
        {"swap name = #", "#"},
        {"swap name =", ""},
        {"swap name =    ", ""},
        {"swap name = \"swap.img\"", "\"swap.img\""},
        {"swap name = swap.img\r", "swap.img\r"},
        {"#swap name = swap.img", "old"},
        {" #swap name = swap.img", "old"},
        {"swap name", "old"},
        {"swap name swap.img", "old"},
        {"=", "old"},
        {"= swap.img", "old"},
        {"    = swap.img", "old"},
        {"", "old"},
        {"swap", "old"},
        {"swap names = swap.img", "old"},
    };
    for (const auto &c : cases) {
        settings.swap_name = "old";
        apply_configuration_line(c.line);
        EXPECT_EQ(settings.swap_name, c.swap_name) << c.line;
    }
}

// A blank before a key makes another key of it.
TEST_F(Configuration, IndentedKeyIsAnotherKey)
{
    machine.Write("/etc/quarryd.conf", " swap name = swap.img\n");
    EXPECT_TRUE(read_configuration());
    EXPECT_EQ(settings.swap_name, "");
}

// What stands behind a value is a part of it: blanks,
TEST_F(Configuration, BlanksBehindAValueBelongToIt)
{
    machine.Write("/etc/quarryd.conf", "swap name = swap.img  \n");
    EXPECT_TRUE(read_configuration());
    EXPECT_EQ(settings.swap_name, "swap.img  ");
}

// and what looks like a comment.
TEST_F(Configuration, CommentBehindAValueBelongsToIt)
{
    machine.Write("/etc/quarryd.conf", "swap name = swap.img # a comment\n");
    EXPECT_TRUE(read_configuration());
    EXPECT_EQ(settings.swap_name, "swap.img # a comment");
}

// A key that comes twice has its last value.
TEST_F(Configuration, LastValueOfAKeyCounts)
{
    machine.Write("/etc/quarryd.conf", "swap name = first\nswap name = second\n");
    EXPECT_TRUE(read_configuration());
    EXPECT_EQ(settings.swap_name, "second");
}

// The last line needs no line end, and an empty file or one of comments is a good one.
TEST_F(Configuration, FileOfCommentsIsAGoodOne)
{
    for (const char *text : {"", "\n\n", "# nothing\n#swap name = x\n", "# no line end"}) {
        machine.Write("/etc/quarryd.conf", text);
        EXPECT_TRUE(read_configuration()) << text;
        EXPECT_EQ(settings.swap_name, "");
    }
    machine.Write("/etc/quarryd.conf", "\n\nswap name = swap.img");
    EXPECT_TRUE(read_configuration());
    EXPECT_EQ(settings.swap_name, "swap.img");
}

// 1023 characters fit; a longer line changes nothing, because half a path is another path. The
// lines behind it are read as ever.
TEST_F(Configuration, LineOfMoreThan1023CharactersChangesNothing)
{
    const std::string key = "swap name = ";
    for (size_t size : {1022U, 1023U, 1024U, 5000U, 100000U}) {
        settings.swap_name = "old";
        const std::string value(size - key.size(), 'x');
        machine.Write("/etc/quarryd.conf", key + value + "\nstartup script = /start\n");
        settings.startup_script.clear();
        EXPECT_TRUE(read_configuration());
        EXPECT_EQ(settings.swap_name, size <= 1023 ? value : "old") << size;
        EXPECT_EQ(settings.startup_script, "/start");
    }
}

// A file that is missing, or that cannot be read to its end, is told by the result and not a word.
TEST_F(Configuration, MissingFileIsTold)
{
    EXPECT_FALSE(read_configuration());
    machine.MakeDirectory("/etc/quarryd.conf");
    EXPECT_FALSE(read_configuration());
    machine.Remove("/etc/quarryd.conf");
    machine.Write("/etc/quarryd.conf", "swap name = swap.img\n");
    machine.Refuse("/etc/quarryd.conf", EACCES);
    EXPECT_FALSE(read_configuration());
    EXPECT_EQ(settings.swap_name, "");
    EXPECT_EQ(errors.Take(), "");
}
