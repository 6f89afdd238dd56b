// Sizes as people read them.
#include "inspect/size_text.h"

#include <gtest/gtest.h>

// Sizes are cut, never rounded: a drive must not reach "1.000TB" one byte early.
TEST(CapacityText, CutsAndNeverRounds)
{
    static const struct {
        unsigned long long bytes;
        const char *text;
    } cases[] = {
        {0, "0"},
        {999, "999"}, // the last bare number
        {1000, "1.000KB"},
        {1500, "1.500KB"},
        {999999, "999.999KB"},
        {1000000, "1.000MB"},
        {1999999, "1.999MB"},
        {500107862016, "500.107GB"},
        {999999999999, "999.999GB"},
        {1000000000000, "1.000TB"},
        {1000000000000000, "1.000PB"},
        {999999999999999999, "999.999PB"},
        {1000000000000000000, "1000.000PB"}, // there is no further unit
    };
    for (const auto &c : cases)
        EXPECT_EQ(capacity_text(c.bytes), c.text) << c.bytes;
}

// Three decimals are the rest of the last division alone: a small rest keeps its zeros.
TEST(CapacityText, FillsItsDecimalsWithZeros)
{
    EXPECT_EQ(capacity_text(1001), "1.001KB");
    EXPECT_EQ(capacity_text(1010000), "1.010MB");
    EXPECT_EQ(capacity_text(1000999), "1.000MB");
}

// A size that nobody knows, all bits set, has a text of its own that people know by sight.
TEST(CapacityText, ShowsAnUnknownSizeAsTheLargest)
{
    EXPECT_EQ(capacity_text(~0ULL), "18446.744PB");
}

// Binary units, with the fraction in thousandths; a terabyte and more stays in "GB".
TEST(BinarySizeText, UsesBinaryUnitsUpToGigabytes)
{
    static const struct {
        unsigned long long bytes;
        const char *text;
    } cases[] = {
        {0, "0.000 bytes"}, // the only unit with a blank before it
        {1, "1.000 bytes"},
        {512, "512.000 bytes"},
        {1023, "1023.000 bytes"},
        {1024, "1.000KB"},
        {1025, "1.000KB"}, // a 1024th is less than a thousandth
        {1026, "1.001KB"},
        {1536, "1.500KB"},
        {(1ULL << 20) - 1, "1023.999KB"},
        {1ULL << 20, "1.000MB"},
        {3ULL << 19, "1.500MB"},
        {(1ULL << 30) - 1, "1023.999MB"},
        {1ULL << 30, "1.000GB"},
        {3ULL << 29, "1.500GB"},
        {1ULL << 40, "1024.000GB"},
        {~0ULL, "17179869183.999GB"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(binary_size_text(c.bytes), c.text) << c.bytes;
}
