// The files of an installation: those of this machine, or of one that lies below a folder.
#ifndef QUARRYCTL_INSTALLATION_H
#define QUARRYCTL_INSTALLATION_H

#include <string>
#include <sys/stat.h>
#include <vector>

#include "base/descriptor.h"

// Paths are those of the installation ("/etc/quarryd.conf"); links in it lead nowhere else, however
// many ".." they have. Nothing is printed.
class Installation {
public:
    explicit Installation(const std::string &root);

    // False when the folder cannot be opened.
    bool IsOpen() const
    {
        return root_.IsOpen();
    }

    // Whether it is this machine's, so that its kernel can be asked as well.
    bool IsRunning() const
    {
        return is_running_;
    }

    // A descriptor of what is there, following links; negative, with errno, when that cannot be
    // had.
    int Open(const std::string &path, int flags) const;

    // What is there: following links, or the link itself. 0 when there is nothing.
    int Status(const std::string &path, struct stat &status) const;
    int LinkStatus(const std::string &path, struct stat &status) const;

    // A regular file's beginning, at most limit bytes; "" when there is none.
    std::string Beginning(const std::string &path, size_t limit) const;

    // The names in a folder, sorted, less "." and "..".
    std::vector<std::string> Names(const std::string &path) const;

    // The text of a link; "" when it is none.
    std::string LinkTarget(const std::string &path) const;

    // Whether it is a regular file with an execute bit.
    bool IsProgram(const std::string &path) const;

    // The first folder of the system's programs that has one of this name: "/usr/sbin/mkswap"; "".
    std::string FindProgram(const std::string &name) const;

    // Whether somebody may write there whom the machine's security must not depend on. The owner of
    // the whole tree counts as root: he is preparing it.
    bool IsWritableByOthers(const struct stat &status) const;

private:
    Descriptor root_;
    bool is_running_ = false;
    uid_t owner_ = 0;
    gid_t group_ = 0;
};

#endif
