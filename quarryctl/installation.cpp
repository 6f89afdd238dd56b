#include "installation.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/directory.h"
#include "base/small_files.h"

// Where the shell and the daemon look for programs that are called by their names alone.
static const char *const program_folders[] = {
    "/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin",
};

Installation::Installation(const std::string &root)
    : root_(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
{
    struct stat status;
    struct stat running;
    if (!IsOpen() || fstat(root_.Get(), &status) < 0 || stat("/", &running) < 0)
        return;
    is_running_ = status.st_dev == running.st_dev && status.st_ino == running.st_ino;
    if (!is_running_) {
        owner_ = status.st_uid;
        group_ = status.st_gid;
    }
}

int Installation::Open(const std::string &path, int flags) const
{
    open_how how = {};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_IN_ROOT;
    const long fd = syscall(SYS_openat2, root_.Get(), path.c_str(), &how, sizeof(how));
    return static_cast<int>(fd);
}

int Installation::Status(const std::string &path, struct stat &status) const
{
    Descriptor file(Open(path, O_PATH));
    return file.IsOpen() && fstat(file.Get(), &status) == 0;
}

int Installation::LinkStatus(const std::string &path, struct stat &status) const
{
    Descriptor file(Open(path, O_PATH | O_NOFOLLOW));
    return file.IsOpen() && fstat(file.Get(), &status) == 0;
}

std::string Installation::Beginning(const std::string &path, size_t limit) const
{
    struct stat status;
    std::string text;
    Descriptor file(Open(path, O_RDONLY | O_NONBLOCK));
    if (!file.IsOpen() || fstat(file.Get(), &status) < 0 || !S_ISREG(status.st_mode))
        return text;
    text.resize(limit);
    size_t length = 0;
    for (ssize_t got;
         length < limit && (got = read(file.Get(), text.data() + length, limit - length)) > 0;)
        length += static_cast<size_t>(got);
    text.resize(length);
    return text;
}

std::vector<std::string> Installation::Names(const std::string &path) const
{
    std::vector<std::string> names;
    Descriptor folder(Open(path, O_PATH | O_DIRECTORY));
    if (!folder.IsOpen())
        return names;
    Directory entries(folder.Get(), ".");
    while (const char *name = entries.NextName()) {
        if (std::string(name) != "." && std::string(name) != "..")
            names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string Installation::LinkTarget(const std::string &path) const
{
    Descriptor link(Open(path, O_PATH | O_NOFOLLOW));
    return link.IsOpen() ? read_link_at(link.Get(), "", PATH_MAX) : std::string();
}

bool Installation::IsProgram(const std::string &path) const
{
    struct stat status;
    return Status(path, status) && S_ISREG(status.st_mode) && (status.st_mode & 0111) != 0;
}

std::string Installation::FindProgram(const std::string &name) const
{
    for (const char *folder : program_folders) {
        std::string path = std::string(folder) + "/" + name;
        if (IsProgram(path))
            return path;
    }
    return std::string();
}

bool Installation::IsWritableByOthers(const struct stat &status) const
{
    const bool is_own = status.st_uid == 0 || status.st_uid == owner_;
    const bool is_own_group = status.st_gid == 0 || status.st_gid == group_;
    return !is_own || (status.st_mode & S_IWOTH) || (!is_own_group && (status.st_mode & S_IWGRP));
}
