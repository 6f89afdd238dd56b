// Cutting texts into pieces.
#include "base/words.h"

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

std::string strip_dev(const std::string &word)
{
    return word.size() > 4 && word.starts_with("/dev/") ? word.substr(5) : word;
}
