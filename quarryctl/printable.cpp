#include "printable.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

// First and last code point. Sorted.
struct CodeRange {
    unsigned first;
    unsigned last;
};

// What a reader cannot see, or what changes how the rest is read.
static const CodeRange invisible[] = {
    {0x0000, 0x001F},   // controls
    {0x007F, 0x009F},   // delete, the second set of controls
    {0x00AD, 0x00AD},   // soft hyphen
    {0x061C, 0x061C},   // a direction mark
    {0x115F, 0x1160},   // fillers
    {0x17B4, 0x17B5},   // vowels without a shape
    {0x180B, 0x180F},   // selectors and separator of Mongolian
    {0x200B, 0x200F},   // spaces without width, joiners, direction marks
    {0x2028, 0x202E},   // separators of lines, changes of direction
    {0x2060, 0x206F},   // more of both
    {0x3164, 0x3164},   // filler
    {0xFDD0, 0xFDEF},   // no characters
    {0xFE00, 0xFE0F},   // selectors
    {0xFEFF, 0xFEFF},   // byte order mark
    {0xFFA0, 0xFFA0},   // filler
    {0xFFF0, 0xFFFB},   // annotations
    {0xFFFE, 0xFFFF},   // no characters
    {0x1D173, 0x1D17A}, // controls of musical notation
    {0xE0000, 0xE0FFF}, // tags, selectors
};

// Characters that stand above or below the one before them.
static const CodeRange combining[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A}, {0x064B, 0x065F},
    {0x093C, 0x093C}, {0x0941, 0x0948}, {0x094D, 0x094D}, {0x0E31, 0x0E31}, {0x0E34, 0x0E3A},
    {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x20D0, 0x20F0}, {0x302A, 0x302D},
    {0x3099, 0x309A}, {0xFE20, 0xFE2F},
};

// Characters of two columns: the scripts of East Asia, and pictures.
static const CodeRange wide[] = {
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x23E9, 0x23EC},   {0x2614, 0x2615},
    {0x2648, 0x2653},   {0x26A1, 0x26A1},   {0x26BD, 0x26BE},   {0x2705, 0x2705},
    {0x2728, 0x2728},   {0x274C, 0x274C},   {0x2753, 0x2755},   {0x2795, 0x2797},
    {0x2B1B, 0x2B1C},   {0x2B50, 0x2B50},   {0x2E80, 0x303E},   {0x3041, 0x33FF},
    {0x3400, 0x4DBF},   {0x4E00, 0xA4CF},   {0xA960, 0xA97F},   {0xAC00, 0xD7A3},
    {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF01, 0xFF60},   {0xFFE0, 0xFFE6},
    {0x16FE0, 0x18CFF}, {0x1B000, 0x1B2FF}, {0x1F004, 0x1F004}, {0x1F0CF, 0x1F0CF},
    {0x1F18E, 0x1F18E}, {0x1F191, 0x1F19A}, {0x1F200, 0x1F320}, {0x1F32D, 0x1F335},
    {0x1F337, 0x1F37C}, {0x1F37E, 0x1F393}, {0x1F3A0, 0x1F3CA}, {0x1F3CF, 0x1F3D3},
    {0x1F3E0, 0x1F3F0}, {0x1F3F4, 0x1F3F4}, {0x1F3F8, 0x1F43E}, {0x1F440, 0x1F440},
    {0x1F442, 0x1F4FC}, {0x1F4FF, 0x1F53D}, {0x1F54B, 0x1F567}, {0x1F5FB, 0x1F64F},
    {0x1F680, 0x1F6C5}, {0x1F6CC, 0x1F6CC}, {0x1F6D0, 0x1F6FF}, {0x1F7E0, 0x1F7F0},
    {0x1F90C, 0x1F9FF}, {0x1FA70, 0x1FAFF}, {0x20000, 0x3FFFD},
};

template <size_t N>
static bool is_among(unsigned code, const CodeRange (&ranges)[N])
{
    const auto after = std::upper_bound(
        std::begin(ranges), std::end(ranges), code,
        [](unsigned value, const CodeRange &range) { return value < range.first; });
    return after != std::begin(ranges) && code <= std::prev(after)->last;
}

struct Character {
    size_t size; // bytes; 0 when the bytes are no UTF-8
    unsigned code;
};

// The character at the start of a text that is not empty. No UTF-8 is: a stray or missing
// continuation byte, more bytes than needed, half of a surrogate pair, past the last code point.
static Character first_character(std::string_view text)
{
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80)
        return {1, lead};
    Character character = {0, 0};
    unsigned smallest = 0;
    if ((lead & 0xE0) == 0xC0) {
        character = {2, lead & 0x1F};
        smallest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        character = {3, lead & 0x0F};
        smallest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        character = {4, lead & 0x07};
        smallest = 0x10000;
    }
    if (character.size == 0 || character.size > text.size())
        return {0, 0};
    for (size_t i = 1; i < character.size; i++) {
        if ((byte(i) & 0xC0) != 0x80)
            return {0, 0};
        character.code = (character.code << 6) | (byte(i) & 0x3F);
    }
    const unsigned code = character.code;
    if (code < smallest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return {0, 0};
    return character;
}

std::string printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const Character character = first_character(text);
        const size_t size = character.size > 0 ? character.size : 1;
        char escape[16] = "";
        if (character.size == 0 || (character.size == 1 && is_among(character.code, invisible)))
            snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(text[0]));
        else if (is_among(character.code, invisible))
            snprintf(escape, sizeof(escape), character.code > 0xFFFF ? "\\U%08x" : "\\u%04x",
                     character.code);
        else if (character.code == '\\')
            snprintf(escape, sizeof(escape), "\\\\");
        if (escape[0])
            shown += escape;
        else
            shown += text.substr(0, size);
        text.remove_prefix(size);
    }
    return shown;
}

static size_t width_of(const Character &character)
{
    if (is_among(character.code, combining))
        return 0;
    return is_among(character.code, wide) ? 2 : 1;
}

size_t display_width(std::string_view text)
{
    size_t width = 0;
    while (!text.empty()) {
        const Character character = first_character(text);
        width += width_of(character);
        text.remove_prefix(std::max<size_t>(character.size, 1));
    }
    return width;
}

std::string_view fitting_part(std::string_view text, size_t width)
{
    size_t end = 0;
    while (end < text.size()) {
        const Character character = first_character(text.substr(end));
        const size_t needed = width_of(character);
        if (needed > width)
            break;
        width -= needed;
        end += std::max<size_t>(character.size, 1);
    }
    return text.substr(0, end);
}
