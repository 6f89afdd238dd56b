// Switching swap on and off.
#include "swap/swap_file.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/swap.h>
#include <unistd.h>

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
    set_small_file_aside();
    struct stat status;
    if (stat(swap_path.c_str(), &status) < 0)
        return 1;
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
