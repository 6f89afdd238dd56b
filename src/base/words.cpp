// Cutting texts into pieces.
#include "base/words.h"

#include <algorithm>

void cut_at(std::string_view text, char separator, std::vector<std::string> &pieces)
{
    if (text.empty())
        return;
    for (;;) {
        size_t end = text.find(separator);
        pieces.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos)
            return;
        text.remove_prefix(end + 1);
    }
}

std::string_view take_field(std::string_view &rest, char separator)
{
    size_t end = rest.find(separator);
    std::string_view field = rest.substr(0, end);
    rest.remove_prefix(field.size());
    skip_run(rest, separator);
    return field;
}

void skip_run(std::string_view &rest, char separator)
{
    size_t start = rest.find_first_not_of(separator);
    rest.remove_prefix(start == std::string_view::npos ? rest.size() : start);
}

void mask_controls(std::string &text)
{
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '_');
}

std::string without_controls(std::string text)
{
    mask_controls(text);
    return text;
}

std::string strip_dev(const std::string &word)
{
    return word.size() > 4 && word.starts_with("/dev/") ? word.substr(5) : word;
}

std::string as_in_kernel_table(const std::string &path)
{
    std::string text;
    for (char c : path) {
        switch (c) {
        case ' ':
            text += "\\040";
            break;
        case '\t':
            text += "\\011";
            break;
        case '\n':
            text += "\\012";
            break;
        case '\\':
            text += "\\134";
            break;
        default:
            text += c;
        }
    }
    return text;
}

// Whether three octal digits of one byte stand there.
static bool is_octal_byte(std::string_view digits)
{
    return digits.size() == 3 && digits[0] <= '3' &&
           digits.find_first_not_of("01234567") == std::string_view::npos;
}

std::string from_kernel_table(const std::string &text)
{
    std::string path;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view digits = rest.substr(1, 3);
        if (rest[0] == '\\' && is_octal_byte(digits)) {
            path += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 +
                                      (digits[2] - '0'));
            rest.remove_prefix(4);
        } else {
            path += rest[0];
            rest.remove_prefix(1);
        }
    }
    return path;
}
