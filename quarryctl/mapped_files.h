// The files that processes have mapped into their memory.
#ifndef QUARRYCTL_MAPPED_FILES_H
#define QUARRYCTL_MAPPED_FILES_H

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

struct MappedFile {
    size_t device = 0; // its place among the devices that were asked for
    std::string name;

    bool operator==(const MappedFile &) const = default;
};

// Those files in the text of a /proc/PID/maps that lie on one of the devices, which are given as
// "8:17" (or "", which is none); each once, without the kernel's escape of line ends.
std::vector<MappedFile> mapped_files(std::string_view maps,
                                     const std::vector<std::string> &devices);

// Reads the maps of one process after another. The kernel locks a process's memory meanwhile, and
// whoever waits for a filesystem may hold that lock for ever: so a child does the reading, and is
// left to itself when it takes too long.
class MappingReader {
public:
    explicit MappingReader(std::vector<std::string> devices) : devices_(std::move(devices))
    {
    }
    ~MappingReader();
    MappingReader(const MappingReader &) = delete;
    MappingReader &operator=(const MappingReader &) = delete;

    // The files on the devices that a process has mapped; none of one that is gone. False when they
    // could not be learnt in time: half a second, and after five such processes not at all.
    bool Read(int pid, std::vector<MappedFile> &files);

private:
    int StartChild();
    void DropChild();
    [[noreturn]] void ServeQuestions(int fd) const;

    std::vector<std::string> devices_;
    pid_t child_ = -1;
    int fd_ = -1;
    int too_late_ = 0;
};

#endif
