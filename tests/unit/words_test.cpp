// Cutting texts into pieces.
#include "base/words.h"

#include <gtest/gtest.h>

using Pieces = std::vector<std::string>;

// Every piece between separators counts, the empty ones too; only an empty text has none.
TEST(CutAt, KeepsEmptyPieces)
{
    static const struct {
        const char *text;
        Pieces pieces;
    } cases[] = {
        {"", {}},
        {"rw", {"rw"}},
        {"rw,noatime", {"rw", "noatime"}},
        {"rw,,noatime", {"rw", "", "noatime"}},
        {",", {"", ""}},
        {",,", {"", "", ""}},
        {",rw", {"", "rw"}},
        {"rw,", {"rw", ""}},
    };
    for (const auto &c : cases) {
        Pieces pieces;
        cut_at(c.text, ',', pieces);
        EXPECT_EQ(pieces, c.pieces) << c.text;
    }
}

// Pieces are added to those that are there already.
TEST(CutAt, Appends)
{
    Pieces pieces = {"first"};
    cut_at("a,b", ',', pieces);
    EXPECT_EQ(pieces, (Pieces{"first", "a", "b"}));
}

// A field ends at the separator, and the whole run behind it goes with it.
TEST(TakeField, TakesTheRunBehindTheField)
{
    static const struct {
        const char *text;
        char separator;
        const char *field;
        const char *rest;
    } cases[] = {
        {"", ' ', "", ""},
        {"one", ' ', "one", ""},
        {"one ", ' ', "one", ""},
        {"one   ", ' ', "one", ""},
        {"one   two three", ' ', "one", "two three"},
        {" one", ' ', "", "one"}, // an empty field stands before a leading separator
        {"one\ttwo", ' ', "one\ttwo", ""},
        {"one\t\t two", '\t', "one", " two"},
    };
    for (const auto &c : cases) {
        std::string_view rest = c.text;
        EXPECT_EQ(take_field(rest, c.separator), c.field) << c.text;
        EXPECT_EQ(rest, c.rest) << c.text;
    }
}

// Only leading separators are dropped.
TEST(SkipRun, DropsLeadingSeparatorsOnly)
{
    static const struct {
        const char *text;
        const char *rest;
    } cases[] = {
        {"", ""}, {"   ", ""}, {"a b ", "a b "}, {"  a b ", "a b "}, {"\t a", "\t a"},
    };
    for (const auto &c : cases) {
        std::string_view rest = c.text;
        skip_run(rest, ' ');
        EXPECT_EQ(rest, c.rest) << c.text;
    }
}

// "/dev/" goes from the front of a word, once, and from nowhere else.
TEST(StripDev, TakesTheFolderOffTheFront)
{
    static const struct {
        const char *word;
        const char *name;
    } cases[] = {
        {"", ""},
        {"sdb1", "sdb1"},
        {"/dev", "/dev"},
        {"/dev/", ""}, // five characters: long enough to be cut
        {"/dev/sdb1", "sdb1"},
        {"/dev//dev/sdb1", "/dev/sdb1"},
        {"/DEV/sdb1", "/DEV/sdb1"},
        {"dev/sdb1", "dev/sdb1"},
        {"x/dev/sdb1", "x/dev/sdb1"},
        {"/devices", "/devices"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(strip_dev(c.word), c.name) << c.word;
}

// The four characters that the kernel escapes in its tables, and no other.
TEST(KernelTable, EscapesFourCharactersAndNoOther)
{
    static const struct {
        const char *path;
        const char *text;
    } cases[] = {
        {"", ""},
        {"/mnt/sdb1", "/mnt/sdb1"},
        {"/mnt/^two words", "/mnt/^two\\040words"},
        {"a\tb\nc\\d", "a\\011b\\012c\\134d"},
        {"  ", "\\040\\040"},
        {"\\040", "\\134040"}, // a name that looks like an escape
        {"#,\xC3\xBC\x01", "#,\xC3\xBC\x01"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(as_in_kernel_table(c.path), c.text);
        EXPECT_EQ(from_kernel_table(c.text), c.path);
    }
}

// Any byte may stand there in octal digits; what is no escape stands for itself.
TEST(KernelTable, ReadsEveryEscapeAndLeavesTheRest)
{
    static const struct {
        const char *text;
        const char *path;
    } cases[] = {
        {"\\043\\303\\274", "#\xC3\xBC"},
        {"\\377\\001", "\xFF\x01"},
        {"\\", "\\"},
        {"a\\", "a\\"},
        {"\\04", "\\04"},
        {"\\04x", "\\04x"},
        {"\\048", "\\048"},
        {"\\08x", "\\08x"},
        {"\\400", "\\400"}, // more than a byte
        {"\\x20", "\\x20"},
        {"\\\\040", "\\ "},
        {"\\0401", " 1"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(from_kernel_table(c.text), c.path) << c.text;
}

// Control characters alone are masked.
TEST(MaskControls, LeavesEverythingElse)
{
    std::string text("\t\0\x1f \x7f~\xc3\xbc\n", 9);
    const std::string masked("___ _~\xc3\xbc_");
    EXPECT_EQ(without_controls(text), masked);
    mask_controls(text);
    EXPECT_EQ(text, masked);
}
