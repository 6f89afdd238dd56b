// Size texts in decimal and in binary units.
#include "inspect/size_text.h"

#include <cstdio>

std::string capacity_text(unsigned long long bytes)
{
    static const char *const units[] = {"KB", "MB", "GB", "TB", "PB"};
    unsigned long long value = bytes;
    unsigned remainder = 0;
    const char *unit = "";
    for (const char *next_unit : units) {
        if (value > 999) {
            remainder = static_cast<unsigned>(value % 1000);
            value /= 1000;
            unit = next_unit;
        }
    }
    char text[32];
    if (*unit)
        snprintf(text, sizeof(text), "%u.%03u%s", static_cast<unsigned>(value), remainder, unit);
    else
        snprintf(text, sizeof(text), "%u", static_cast<unsigned>(value));
    return text;
}

std::string binary_size_text(unsigned long long bytes)
{
    // The fraction is the next lower unit, scaled from 1024ths to thousandths.
    unsigned fraction = 0;
    unsigned long long value = bytes;
    const char *unit = " bytes";
    if (bytes >= 1ULL << 30) {
        fraction = static_cast<unsigned>(((bytes >> 20) & 1023) * 1000 >> 10);
        value = bytes >> 30;
        unit = "GB";
    } else if (bytes >= 1ULL << 20) {
        fraction = static_cast<unsigned>(((bytes >> 10) & 1023) * 1000 >> 10);
        value = bytes >> 20;
        unit = "MB";
    } else if (bytes > 1023) {
        fraction = static_cast<unsigned>((bytes & 1023) * 1000 >> 10);
        value = bytes >> 10;
        unit = "KB";
    }
    char text[48];
    snprintf(text, sizeof(text), "%llu.%03u%s", value, fraction, unit);
    return text;
}
