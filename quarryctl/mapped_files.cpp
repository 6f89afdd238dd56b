#include "mapped_files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/small_files.h"
#include "base/words.h"

using Clock = std::chrono::steady_clock;

static const std::chrono::milliseconds patience(500);
static const int most_too_late = 5;

// The table of mounts counts devices in decimal digits, the maps in hexadecimal ones.
static std::string as_in_maps(const std::string &device)
{
    const size_t colon = device.find(':');
    if (colon == std::string::npos)
        return std::string();
    char text[32];
    snprintf(text, sizeof(text), "%02lx:%02lx", strtoul(device.c_str(), nullptr, 10),
             strtoul(device.c_str() + colon + 1, nullptr, 10));
    return text;
}

// 7f3b12a000-7f3b12b000 r--p 00000000 08:11 131 /mnt/sdb1/data
std::vector<MappedFile> mapped_files(std::string_view maps, const std::vector<std::string> &devices)
{
    std::map<std::string, size_t> numbers;
    for (size_t i = 0; i < devices.size(); i++)
        numbers.emplace(as_in_maps(devices[i]), i);
    std::vector<MappedFile> files;
    LineReader lines(maps);
    for (std::string_view line; lines.Next(line);) {
        for (int field = 0; field < 3; field++)
            take_field(line, ' ');
        const std::string number(take_field(line, ' '));
        take_field(line, ' ');
        const auto device = numbers.find(number);
        if (line.empty() || device == numbers.end())
            continue;
        // Of all bytes the kernel escapes the line end alone, and not the backslash.
        MappedFile file = {device->second, std::string(line)};
        for (size_t at; (at = file.name.find("\\012")) != std::string::npos;)
            file.name.replace(at, 4, 1, '\n');
        if (std::find(files.begin(), files.end(), file) == files.end())
            files.push_back(file);
    }
    return files;
}

MappingReader::~MappingReader()
{
    DropChild();
}

static int send_all(int fd, const void *data, size_t size)
{
    const char *rest = static_cast<const char *>(data);
    while (size > 0) {
        const ssize_t count = send(fd, rest, size, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return 0;
        rest += count;
        size -= static_cast<size_t>(count);
    }
    return 1;
}

static int receive_all(int fd, void *data, size_t size, Clock::time_point deadline)
{
    char *rest = static_cast<char *>(data);
    while (size > 0) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd request = {fd, POLLIN, 0};
        if (left <= 0 || poll(&request, 1, static_cast<int>(left)) == 0)
            return 0;
        const ssize_t count = recv(fd, rest, size, MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (count <= 0)
            return 0;
        rest += count;
        size -= static_cast<size_t>(count);
    }
    return 1;
}

// In the child: a pid comes, the devices and names go back ("0 /mnt/sdb1/data" and a zero byte
// each) behind their length.
void MappingReader::ServeQuestions(int fd) const
{
    int pid = 0;
    while (recv(fd, &pid, sizeof(pid), MSG_WAITALL) == sizeof(pid)) {
        const std::string path = "/proc/" + std::to_string(pid) + "/maps";
        Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        std::string maps;
        char chunk[65536];
        for (ssize_t count; file.IsOpen() && (count = read(file.Get(), chunk, sizeof(chunk))) > 0;)
            maps.append(chunk, static_cast<size_t>(count));
        std::string names;
        for (const MappedFile &mapped : mapped_files(maps, devices_))
            names += std::to_string(mapped.device) + ' ' + mapped.name + '\0';
        const size_t length = names.size();
        if (!send_all(fd, &length, sizeof(length)) || !send_all(fd, names.data(), length))
            break;
    }
    _exit(0);
}

int MappingReader::StartChild()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0)
        return 0;
    const pid_t parent = getpid();
    child_ = fork();
    if (child_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(0);
        close(ends[0]);
        ServeQuestions(ends[1]);
    }
    close(ends[1]);
    fd_ = ends[0];
    if (child_ > 0)
        return 1;
    DropChild();
    return 0;
}

// Not waited for when it is stuck: it dies as soon as the kernel lets it, and init reaps it.
void MappingReader::DropChild()
{
    if (fd_ >= 0)
        close(fd_);
    if (child_ > 0) {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, WNOHANG);
    }
    fd_ = child_ = -1;
}

bool MappingReader::Read(int pid, std::vector<MappedFile> &files)
{
    files.clear();
    if (too_late_ >= most_too_late || (child_ < 0 && !StartChild()))
        return false;
    const Clock::time_point deadline = Clock::now() + patience;
    size_t length = 0;
    std::string names;
    bool is_read =
        send_all(fd_, &pid, sizeof(pid)) && receive_all(fd_, &length, sizeof(length), deadline);
    if (is_read) {
        names.resize(length);
        is_read = receive_all(fd_, names.data(), length, deadline);
    }
    if (!is_read) {
        too_late_++;
        DropChild();
        return false;
    }
    for (size_t at = 0; at < names.size(); at = names.find('\0', at) + 1)
        files.push_back(
            {strtoul(names.c_str() + at, nullptr, 10), names.c_str() + names.find(' ', at) + 1});
    return true;
}
