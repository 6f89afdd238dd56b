// Switching swap on and off.
#include "swap/swap_file.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/swap.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "base/child_process.h"
#include "base/daemon_state.h"
#include "base/small_files.h"
#include "base/words.h"

static const char swaps_table[] = "/proc/swaps";
static const char memory_mounts[] = "/tmpfs/.mnt/"; // where /mnt lies on systems without a disk
static const size_t line_limit = 1023;
static const size_t link_limit = 511;
static const off_t least_useful_size = 1048576;

// The path in a line of the table, escaped as the kernel does it: everything before the first
// blank.
static std::string area_in(std::string_view line)
{
    line = line.substr(0, line_limit);
    return std::string(line.substr(0, line.find(' ')));
}

// Where the kernel sees the main partition. False, with a line on stderr, when /mnt cannot be told.
static bool find_main_directory(std::string &directory)
{
    const std::string path = "/mnt/" + main_partition;
    char *resolved = realpath(path.c_str(), nullptr);
    if (resolved)
        directory = resolved;
    else
        fprintf(stderr, "WARNING: Cannot resolve path %s\n", path.c_str());
    free(resolved);

    struct stat status;
    if (lstat("/mnt", &status) < 0) {
        fprintf(stderr, "Cannot stat /mnt\n");
        return false;
    }
    if (!S_ISLNK(status.st_mode))
        return true;
    char target[link_limit];
    const ssize_t length = readlink("/mnt", target, link_limit);
    if (length < 0) {
        fprintf(stderr, "readlink failed\n");
        return false;
    }
    directory = std::string(target, static_cast<size_t>(length)) + "/" + main_partition;
    return true;
}

int SwapFileActive()
{
    if (settings.swap_name.empty())
        return 0;
    std::string table;
    if (!read_whole_file(swaps_table, table))
        return 0;
    std::string candidate;
    if (!find_main_directory(candidate))
        return 0;
    const std::string listed = as_in_kernel_table(candidate + "/" + settings.swap_name);
    LineReader lines(table);
    for (std::string_view line; lines.Next(line);) {
        if (area_in(line) == listed)
            return 1;
    }
    return 0;
}

static void set_swap_path()
{
    const std::string &name = settings.swap_name;
    if (!name.empty() && !main_partition.empty())
        swap_path = "/mnt/" + main_partition + "/" + name;
    else if (name.empty() != main_partition.empty())
        fprintf(stderr, "Cannot enable swap: main_partition=%s name=%s\n", main_partition.c_str(),
                name.c_str());
}

// Whether there is an access list: then the group's right is the most that any user in it has.
static bool has_access_list(const std::string &path)
{
    const ssize_t size = lgetxattr(path.c_str(), "system.posix_acl_access", nullptr, 0);
    return size > 0 || (size < 0 && errno != ENODATA && errno != ENOTSUP);
}

// Whether nobody but root (and who runs the daemon) can put something else in the place of what
// lies in this directory, or of what this file holds. A sticky directory leaves each his own.
static bool is_roots_alone(const std::string &path, const struct stat &status)
{
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return false;
    const bool is_sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if (S_ISLNK(status.st_mode) || is_sticky)
        return true;
    if ((status.st_mode & S_IWOTH) != 0)
        return false;
    return (status.st_mode & S_IWGRP) == 0 || (status.st_gid == 0 && !has_access_list(path));
}

// Follows the words of a path, link by link, and looks at everything on the way. What is not there
// can come to be there by anybody.
static bool is_out_of_others_reach(std::string current, const std::string &path)
{
    const size_t most_words = 256; // links that go round would never end
    std::vector<std::string> words;
    cut_at(path, '/', words);
    std::deque<std::string> rest(words.begin(), words.end());
    struct stat status;
    for (size_t count = 0; count < most_words; count++) {
        const std::string place = current.empty() ? "/" : current;
        if (lstat(place.c_str(), &status) < 0 || !is_roots_alone(place, status))
            return false;
        if (S_ISLNK(status.st_mode)) {
            const std::string target = read_link_at(AT_FDCWD, current.c_str(), PATH_MAX);
            words.clear();
            cut_at(target, '/', words);
            rest.insert(rest.begin(), words.begin(), words.end());
            current.resize(target.starts_with('/') ? 0 : current.rfind('/'));
        }
        while (!rest.empty() && (rest.front().empty() || rest.front() == "."))
            rest.pop_front();
        if (rest.empty())
            return true;
        if (rest.front() == "..")
            current.resize(current.empty() ? 0 : current.rfind('/'));
        else
            current += "/" + rest.front();
        rest.pop_front();
    }
    return false;
}

// The file could be exchanged for a link under mkswap's hands, or what memory has put there be
// changed, by whoever may write to its directories or to itself. False when there is none.
static bool is_swap_file_safe()
{
    const size_t end_of_root = swap_path.find('/', strlen("/mnt/"));
    char *resolved = realpath(swap_path.substr(0, end_of_root).c_str(), nullptr);
    const std::string root = resolved ? resolved : "";
    free(resolved);
    return resolved && is_out_of_others_reach(root, swap_path.substr(end_of_root));
}

// Renamed first, so that what it holds is kept; the second step then finds nothing to remove.
static void set_small_file_aside()
{
    struct stat status;
    if (stat(swap_path.c_str(), &status) < 0)
        return;
    fprintf(stderr, "Swap file exists (%lldMB)\n", static_cast<long long>(status.st_size) >> 20);
    if (status.st_size >= least_useful_size)
        return;
    fprintf(stderr, "Swap file too small to be useful\n");
    rename(swap_path.c_str(), (swap_path + ".discard").c_str());
    unlink(swap_path.c_str());
}

// A device, or a link to one, in the file's place must not be written over.
static int format_swap_file()
{
    struct stat status;
    if (lstat(swap_path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        run_shell("mkswap \"" + swap_path + "\""))
        return 1;
    fprintf(stderr, "mkswap error\n");
    return 0;
}

int SwapOn()
{
    set_swap_path();
    if (SwapFileActive() || settings.swap_name.empty())
        return 1;
    fprintf(stderr, "Setting up swapfile on main drive.\n");
    const bool is_safe = is_swap_file_safe();
    if (is_safe)
        set_small_file_aside();
    struct stat status;
    if (stat(swap_path.c_str(), &status) < 0)
        return 1;
    if (!is_safe) {
        fprintf(stderr, "Swap file can be changed by others than root, it is not used\n");
        return 0;
    }
    fprintf(stderr, "setting up swap\n");
    if (swapon(swap_path.c_str(), 0) == 0)
        return 1;
    if (errno == EINVAL) { // no swap signature
        if (!format_swap_file())
            return 0;
        if (swapon(swap_path.c_str(), 0) == 0)
            return 1;
    }
    if (errno == EBUSY) // in use as swap already
        return 1;
    fprintf(stderr, "Cannot set up swap %s\n", strerror(errno));
    return 0;
}

int SwapOff()
{
    if (!SwapFileActive())
        return 1;
    fprintf(stderr, "SwapOff: switching off main drive swapfile %s\n", swap_path.c_str());
    if (swapoff(swap_path.c_str()) == 0 || errno == EINVAL || errno == ENOENT)
        return 1;
    fprintf(stderr, "Cannot remove swap\n");
    return 0;
}

static bool is_on_main_partition(const std::string &area)
{
    if (!area.starts_with(memory_mounts))
        return false;
    const std::string below = area.substr(strlen(memory_mounts));
    const size_t slash = below.find('/');
    return slash != std::string::npos && below.substr(0, slash) == main_partition;
}

// Switches off all areas in the table that are wanted.
static void switch_off(const char *announcement, bool (*is_wanted)(const std::string &area))
{
    std::string table;
    if (!read_whole_file(swaps_table, table))
        return;
    fprintf(stderr, "%s\n", announcement);
    LineReader lines(table);
    std::string_view line;
    lines.Next(line); // the table's head
    while (lines.Next(line)) {
        const std::string area = area_in(line);
        if (!is_wanted(area))
            continue;
        fprintf(stderr, " --> %s\n", area.c_str());
        if (swapoff(from_kernel_table(area).c_str()) < 0)
            fprintf(stderr, "      ! %s\n", strerror(errno));
    }
}

int SwapOffMainDriveOthers()
{
    switch_off("Shutting down any other swap files on the main drive", is_on_main_partition);
    return 0;
}

// All of them, in spite of the message: whatever is on swap now has to fit into memory before the
// drives go.
int SwapOffAll()
{
    switch_off("Shutting down any other swap files on other drives",
               [](const std::string &) { return true; });
    return 0;
}
