// What the daemon finds around it: programs, /mnt, whoever tells it of events, the kernel.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "base/directory.h"
#include "base/small_files.h"
#include "check.h"
#include "check_scripts.h"
#include "core/options.h"
#include "inspect/label_probe.h"
#include "mount/filesystem_drivers.h"
#include "mount/mount_tables.h"
#include "mount/mounting.h"
#include "protocol/control_socket.h"

static void require(const Installation &installation, const char *path, const char *code,
                    const std::string &effect, const std::string &remedy, Findings &findings)
{
    if (!installation.IsProgram(path))
        findings.push_back({SEVERITY_ERROR, code, path, 0,
                            "it is not there, or not executable: " + effect, remedy});
}

static void check_drivers(const Installation &installation, Findings &findings)
{
    for (const FuseDriver &driver : fuse_drivers()) {
        const bool is_there =
            std::any_of(std::begin(driver.paths), std::end(driver.paths),
                        [&](const char *path) { return path && installation.IsProgram(path); });
        const bool is_ntfs = strcmp(driver.name, "ntfs-3g") == 0;
        if (!is_there)
            findings.push_back({SEVERITY_NOTE, "driver-missing", driver.paths[0], 0,
                                is_ntfs
                                    ? "NTFS is not mounted read-write without it, and read-only "
                                      "only by a kernel that has the driver \"ntfs\""
                                    : "exFAT is not mounted without it",
                                is_ntfs ? "install ntfs-3g, if it is wanted"
                                        : "install a driver program for exFAT, if it is wanted"});
    }
}

void check_programs(const Installation &installation, Findings &findings)
{
    require(installation, QUARRYD_DAEMON_PATH, "daemon-missing", "there is nothing to start",
            "install quarryd", findings);
    require(installation, probe_program, "probe-missing",
            "no label and no filesystem is known; devices are not found by their labels, and every "
            "driver is tried for each",
            "install volsniffer, which comes with quarryd", findings);
    require(installation, "/bin/sh", "shell-missing",
            "no kernel module is loaded and no swap file formatted", "install a shell", findings);
    std::string types;
    for (const ModuleLoader &loader : module_loaders())
        types += (types.empty() ? "" : ", ") + std::string(loader.type);
    if (installation.FindProgram("modprobe").empty())
        findings.push_back({SEVERITY_WARNING, "modprobe-missing", "modprobe", 0,
                            "kernel modules are not loaded on demand; not mounted then: " + types,
                            "install kmod, or have these modules loaded at boot"});
    if (installation.FindProgram("mount").empty())
        findings.push_back({SEVERITY_WARNING, "mount-missing", "mount", 0,
                            "neither quotas nor ACLs are switched on after a mount",
                            "install the system's mount program"});
    if (!settings.swap_name.empty() && installation.FindProgram("mkswap").empty())
        findings.push_back({SEVERITY_WARNING, "mkswap-missing", "mkswap", 0,
                            "a swap file that is not formatted yet is not used",
                            "install mkswap, or format the file by hand"});
    check_drivers(installation, findings);
}

// Where /mnt is a link, an active swap file is recognised only by the link's text: the kernel lists
// the file by the path that it has without links.
static void check_mnt_link(const Installation &installation, const std::string &target,
                           Findings &findings)
{
    struct stat status;
    const bool is_last = target.starts_with('/') && installation.LinkStatus(target, status) &&
                         S_ISDIR(status.st_mode);
    if (!settings.swap_name.empty() && !is_last)
        findings.push_back(
            {SEVERITY_WARNING, "mnt-link-hides-swap", "/mnt", 0,
             "the swap file is not recognised when it is in use, and not switched off "
             "on demand: /mnt is a link to " +
                 target + ", which is not the folder's whole path",
             "make it a link to the folder's whole path"});
    else
        findings.push_back(
            {SEVERITY_NOTE, "mnt-link", "/mnt", 0,
             "devices are mounted in " + target + ", and the kernel lists them there",
             "look for them there in /proc/mounts"});
}

// A folder's own names can be read without waiting, but not those of what is mounted on it.
static bool is_empty_folder(int mnt_fd, const char *name)
{
    struct statx status;
    if (statx(mnt_fd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT, STATX_TYPE,
              &status) < 0 ||
        !S_ISDIR(status.stx_mode) || (status.stx_attributes & STATX_ATTR_MOUNT_ROOT))
        return false;
    Directory folder(mnt_fd, name, O_NOFOLLOW);
    while (const char *inside = folder.NextName()) {
        if (strcmp(inside, ".") != 0 && strcmp(inside, "..") != 0)
            return false;
    }
    return folder.IsOpen();
}

void check_mnt(const Installation &installation, Findings &findings)
{
    struct stat status;
    const std::string target = installation.LinkTarget("/mnt");
    if (!installation.Status("/mnt", status)) {
        findings.push_back({SEVERITY_ERROR, "mnt-missing", "/mnt", 0,
                            "nothing can be mounted: it is not there", "make the folder"});
        return;
    }
    if (!S_ISDIR(status.st_mode)) {
        findings.push_back({SEVERITY_ERROR, "mnt-not-a-folder", "/mnt", 0,
                            "nothing can be mounted: it is not a folder", "make a folder of it"});
        return;
    }
    if (!target.empty())
        check_mnt_link(installation, target, findings);
    if (installation.IsWritableByOthers(status))
        findings.push_back({SEVERITY_ERROR, "mnt-writable", "/mnt", 0,
                            "others than root can put a link or a file in a mount's place",
                            "chown root:root /mnt and chmod 755 /mnt"});
    Descriptor folder(installation.Open("/mnt", O_RDONLY | O_DIRECTORY));
    if (!folder.IsOpen())
        return;
    for (const std::string &name : installation.Names("/mnt")) {
        if (!name.starts_with('.') && is_empty_folder(folder.Get(), name.c_str()))
            findings.push_back(
                {SEVERITY_NOTE, "mnt-empty-folder", "/mnt/" + name, 0,
                 "it is removed within seconds: the housekeeping takes empty folders "
                 "away",
                 "put it elsewhere, or a file into it"});
    }
}

void check_hotplug(const Installation &installation, Findings &findings)
{
    struct stat status;
    const bool has_program = installation.IsProgram(hotplug_program);
    const bool has_helper = installation.IsProgram(QUARRYD_NOTICE_PATH);
    if (has_program && installation.Status(hotplug_hook, status)) {
        if (!installation.IsProgram(hotplug_hook))
            findings.push_back({SEVERITY_WARNING, "hotplug-hook-not-executable", hotplug_hook, 0,
                                "drives are polled every second, though " +
                                    std::string(hotplug_program) + " could tell of them",
                                "chmod 755 " + std::string(hotplug_hook)});
        else if (!has_helper)
            findings.push_back(
                {SEVERITY_ERROR, "hotplug-helper-missing", hotplug_hook, 0,
                 "the daemon starts in hotplug mode, but " QUARRYD_NOTICE_PATH
                 " is missing and nobody tells it of drives: new ones are seen after a minute",
                 "install the program, which comes with quarryd, or remove the hook"});
        check_who_may_write(installation, hotplug_hook, findings);
    }
    if (!has_helper && installation.Status(QUARRYD_RULE_PATH, status))
        findings.push_back({SEVERITY_ERROR, "hotplug-helper-missing", QUARRYD_RULE_PATH, 0,
                            "udev fails to run " QUARRYD_NOTICE_PATH
                            " at each event: it is missing, and hotplug mode is of no use",
                            "install the program, which comes with quarryd, or remove the rule"});
}

// Whether the running kernel's modules have one for a filesystem type.
static bool is_module_there(const std::string &aliases, const std::string &type)
{
    return aliases.find("alias fs-" + type + " ") != std::string::npos;
}

// A type that is in no list is not tried, and of the modules the daemon loads some only.
static void check_filesystems(const Installation &installation, Findings &findings)
{
    utsname kernel;
    uname(&kernel);
    const std::string modules = "/lib/modules/" + std::string(kernel.release) + "/modules.alias";
    const std::string aliases = installation.Beginning(modules, size_t{16} << 20);
    std::string missing;
    std::string not_loaded;
    ReadProcFilesystems();
    for (const char *type : mount_candidates()) {
        const auto loaders = module_loaders();
        const bool is_loaded_on_demand =
            std::any_of(loaders.begin(), loaders.end(),
                        [&](const ModuleLoader &loader) { return strcmp(loader.type, type) == 0; });
        if (type[0] == '*' || HaveFilesystem(type, 0))
            continue;
        if (!is_module_there(aliases, type))
            missing += (missing.empty() ? "" : ", ") + std::string(type);
        else if (!is_loaded_on_demand)
            not_loaded += (not_loaded.empty() ? "" : ", ") + std::string(type);
    }
    if (!missing.empty())
        findings.push_back({SEVERITY_NOTE, "kernel-without-filesystem", "kernel", 0,
                            "it has no driver for " + missing + ": these are not mounted",
                            "install the modules, if these are wanted"});
    if (!not_loaded.empty())
        findings.push_back({SEVERITY_NOTE, "kernel-module-not-loaded", "kernel", 0,
                            "the daemon does not load the modules of " + not_loaded +
                                ": these are not mounted until somebody does",
                            "name the modules in /etc/modules, if these are wanted"});
}

static void check_kernel(const Installation &installation, Findings &findings)
{
    struct stat status;
    check_filesystems(installation, findings);
    if (!installation.Status("/proc/sys/fs/quota", status))
        findings.push_back({SEVERITY_NOTE, "kernel-without-quota", "kernel", 0,
                            "it has no disk quotas: those of a drive are not switched on",
                            "use a kernel with quotas, if they are wanted"});
    if (!settings.swap_name.empty() && !installation.Status("/proc/swaps", status))
        findings.push_back({SEVERITY_ERROR, "kernel-without-swap", "kernel", 0,
                            "it has no swap: the swap file is not used", "remove \"swap name\""});
}

static void check_socket(Findings &findings)
{
    const std::string place = "socket @" + std::string(socket_name);
    Descriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, socket_name, strlen(socket_name)); // behind a zero byte: abstract
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(socket_name));
    ucred peer = {};
    socklen_t peer_length = sizeof(peer);
    if (connect(connection.Get(), reinterpret_cast<sockaddr *>(&address), length) < 0) {
        if (errno == ECONNREFUSED)
            findings.push_back({SEVERITY_NOTE, "daemon-not-running", place, 0,
                                "nobody answers clients: the daemon does not run",
                                "start quarryd"});
        return; // a queue that is full is a daemon that is busy
    }
    if (getsockopt(connection.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &peer_length) < 0 ||
        peer.uid == 0)
        return;
    findings.push_back({SEVERITY_ERROR, "socket-not-roots", place, 0,
                        "clients speak to a program of user " + std::to_string(peer.uid) +
                            " (process " + std::to_string(peer.pid) +
                            "), and the daemon cannot start while it has the name",
                        "end that process"});
}

void check_running_system(const Installation &installation, Findings &findings)
{
    if (!installation.IsRunning())
        return;
    check_kernel(installation, findings);
    check_socket(findings);
}
