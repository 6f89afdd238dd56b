#include "mounts.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

static const std::string_view device_folder = "/dev/";

const std::vector<std::string> &MountTable::PointsOf(const std::string &name) const
{
    static const std::vector<std::string> none;
    const auto found = points.find(name);
    return found == points.end() ? none : found->second;
}

static bool is_octal(char c)
{
    return c >= '0' && c <= '7';
}

// "\040" is how the kernel writes what would end a word or a line.
static std::string without_escapes(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        const bool is_escape = text[i] == '\\' && i + 3 < text.size() && text[i + 1] <= '3' &&
                               is_octal(text[i + 1]) && is_octal(text[i + 2]) &&
                               is_octal(text[i + 3]);
        if (!is_escape) {
            result += text[i];
            continue;
        }
        result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                    (text[i + 3] - '0'));
        i += 3;
    }
    return result;
}

static std::string_view take_word(std::string_view &line)
{
    const size_t blank = line.find(' ');
    const std::string_view word = line.substr(0, blank);
    line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
    return word;
}

// The name of a device, given by what is behind "/dev/": only names with a folder are other names.
static std::string own_name(const std::string &name)
{
    if (name.find('/') == std::string::npos)
        return name;
    char *const path = realpath((std::string(device_folder) + name).c_str(), nullptr);
    if (!path)
        return name;
    const std::string found = path;
    free(path);
    return found.starts_with(device_folder) ? found.substr(device_folder.size()) : name;
}

MountTable parse_mounts(std::string_view text)
{
    MountTable table;
    table.is_known = true;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const std::string_view device = take_word(line);
        const std::string_view point = take_word(line);
        if (!device.starts_with(device_folder) || point.empty())
            continue;
        const std::string name = without_escapes(device.substr(device_folder.size()));
        table.points[own_name(name)].push_back(without_escapes(point));
    }
    return table;
}

MountTable read_mounts()
{
    const int fd = open("/proc/mounts", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    std::string text;
    char chunk[16384];
    ssize_t got = 0;
    while ((got = read(fd, chunk, sizeof(chunk))) > 0)
        text.append(chunk, static_cast<size_t>(got));
    close(fd);
    return got < 0 ? MountTable() : parse_mounts(text);
}
