// Loading modules and running driver programs.
#include "mount/filesystem_drivers.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/child_process.h"
#include "mount/mount_tables.h"

// The kernel needs a moment until a loaded type is registered.
static const ModuleLoader known_loaders[] = {
    {"hfs", "modprobe hfs; sleep 1.25"},     {"hfsplus", "modprobe hfsplus; sleep 1.25"},
    {"vfat", "modprobe vfat; sleep 1.25"},   {"xfs", "modprobe xfs; sleep 1.25"},
    {"btrfs", "modprobe btrfs; sleep 1.25"},
};

std::span<const ModuleLoader> module_loaders()
{
    return known_loaders;
}

void load_fs_module(const std::string &type)
{
    const char *command = nullptr;
    for (const ModuleLoader &loader : known_loaders) {
        if (type == loader.type)
            command = loader.command;
    }
    if (command)
        run_shell(command);
    else
        fprintf(stderr, "Warning: Don't know how to modprobe for '%s'\n", type.c_str());
    ReadProcFilesystems();
}

static const FuseDriver known_drivers[] = {
    {"*ntfs-3g", "ntfs-3g", {"/bin/ntfs-3g", nullptr}},
    {"*mount.exfat", "mount.exfat", {"/sbin/mount.exfat", "/sbin/mount.exfat-fuse"}},
};

std::span<const FuseDriver> fuse_drivers()
{
    return known_drivers;
}

// In the child: never returns.
[[noreturn]] static void become_driver(const char *const (&paths)[2],
                                       const std::string &device_path,
                                       const std::string &mountpoint, bool read_only)
{
    std::vector<const char *> arguments = {"/usr/bin/true"};
    if (read_only)
        arguments.insert(arguments.end(), {"-o", "ro"});
    // Files of filesystems without owners belong to the user and the group 99.
    arguments.insert(arguments.end(), {"-o", "locale=en_EN.UTF-8,gid=99,uid=99",
                                       device_path.c_str(), mountpoint.c_str(), nullptr});
    for (const char *path : paths) {
        if (!path)
            continue;
        arguments[0] = path;
        execv(path, const_cast<char *const *>(arguments.data()));
    }
    _exit(1);
}

// A driver that a signal ended has failed too; it counts as a shell would tell it.
static int exit_status(int wait_status)
{
    return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

int mount_fuse(const std::string &device_path, const std::string &mountpoint,
               const std::string &candidate, bool read_only)
{
    for (const FuseDriver &driver : known_drivers) {
        if (candidate != driver.candidate)
            continue;
        run_shell("modprobe fuse");
        fprintf(stderr, "Attempting FUSE driver %s\n", driver.name);
        const pid_t child = fork_child();
        if (child < 0) {
            fprintf(stderr, "%s: failure to fork\n", driver.name);
            return -1;
        }
        if (child == 0)
            become_driver(driver.paths, device_path, mountpoint, read_only);
        int wait_status = 0;
        while (waitpid(child, &wait_status, 0) != child)
            usleep(1000);
        const int status = exit_status(wait_status);
        if (status == 0)
            return 0;
        kill(child, SIGTERM);
        fprintf(stderr, "%s: failed status %u\n", driver.name, static_cast<unsigned>(status));
        return -1;
    }
    return -1;
}
