// Small files and links, read in one go.
#include "base/small_files.h"

#include <cassert>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/descriptor.h"

static const size_t sysfs_text_limit = 1023;

std::string read_sysfs_text(const std::string &path)
{
    return read_sysfs_text_at(AT_FDCWD, path.c_str());
}

std::string read_sysfs_text_at(int at_fd, const char *path)
{
    char text[sysfs_text_limit + 1];
    Descriptor file(openat(at_fd, path, O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen())
        return std::string();
    ssize_t got = read(file.Get(), text, sysfs_text_limit);
    size_t length = got < 0 ? 0 : static_cast<size_t>(got);
    while (length > 0 && text[length - 1] == '\n')
        length--;
    text[length] = '\0';
    return std::string(text); // up to the first NUL byte
}

std::string read_sysfs_link(const std::string &path)
{
    return read_link_at(AT_FDCWD, path.c_str(), sysfs_text_limit);
}

std::string read_link_at(int at_fd, const char *path, size_t limit)
{
    char target[PATH_MAX];
    assert(limit <= sizeof(target));
    ssize_t got = readlinkat(at_fd, path, target, limit);
    return got > 0 ? std::string(target, static_cast<size_t>(got)) : std::string();
}

bool is_executable_file(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 0111) != 0;
}

unsigned long long sectors_to_bytes(const std::string &text)
{
    return strtoull(text.c_str(), nullptr, 0) << 9;
}

int read_whole_file(const char *path, std::string &content)
{
    content.clear();
    Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen())
        return 0;
    char chunk[16384];
    for (;;) {
        ssize_t got = read(file.Get(), chunk, sizeof(chunk));
        if (got < 0)
            return 0;
        if (got == 0)
            return 1;
        content.append(chunk, static_cast<size_t>(got));
    }
}

bool LineReader::Next(std::string_view &line)
{
    if (rest_.empty())
        return false;
    size_t end = rest_.find('\n');
    line = rest_.substr(0, end);
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    return true;
}
