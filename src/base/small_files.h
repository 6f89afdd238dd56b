// Reading small files and symbolic links whole: sysfs attributes, procfs tables, configuration.
#ifndef QUARRYD_BASE_SMALL_FILES_H
#define QUARRYD_BASE_SMALL_FILES_H

#include <cstddef>
#include <string>
#include <string_view>

// The text of a sysfs attribute: at most 1023 bytes in one read, every trailing line end removed,
// up to the first NUL byte. Empty when the file cannot be opened or read.
std::string read_sysfs_text(const std::string &path);

// The same for a path relative to the directory at_fd.
std::string read_sysfs_text_at(int at_fd, const char *path);

// The target of a symbolic link, at most 1023 bytes; empty when it cannot be read.
std::string read_sysfs_link(const std::string &path);

// The target of a symbolic link relative to at_fd, at most limit bytes (no more than PATH_MAX);
// empty when it cannot be read, with errno.
std::string read_link_at(int at_fd, const char *path, size_t limit);

// Whether path is a regular file with at least one execute bit.
bool is_executable_file(const char *path);

// Bytes in a sysfs "size" attribute, which counts sectors of 512 bytes. Text that is no number
// gives 0; "0x" means hexadecimal and a leading "0" octal.
unsigned long long sectors_to_bytes(const std::string &text);

// Fills content with the whole file. 1 when it was opened and read to its end, 0 otherwise
// (content then holds what was read before the failure). Never waits for a writer of a FIFO.
int read_whole_file(const char *path, std::string &content);

// Takes the lines of a text one after another. A last line without a line end counts; the empty
// rest after a final line end does not.
class LineReader {
public:
    explicit LineReader(std::string_view text) : rest_(text)
    {
    }

    // The next line without its line end. False when there is none left.
    bool Next(std::string_view &line);

private:
    std::string_view rest_;
};

#endif
