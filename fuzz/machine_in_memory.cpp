// The machine in memory, and the calls that lead to it.
#include "machine_in_memory.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "base/daemon_state.h"
#include "base/words.h"
#include "harness.h"
#include "inspect/proc_partitions.h"
#include "inspect/raid_members.h"
#include "mount/mount_tables.h"
#include "protocol/control_socket.h"
#include "registry/device_list.h"

// evict_mount_users(), as the linker knows it.
#define EVICT(prefix)                                                                              \
    prefix##_Z17evict_mount_usersRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES6_b

// The fuzzer has a thread of its own, which must not get in here.
static thread_local MemoryMachine *machine;

// Far above what the test program itself has open.
static const int first_descriptor = 1000;

static void forget_the_daemons_state()
{
    close_control_socket();
    FreeBlockDeviceList();
    raid_members.clear();
    mount_list.clear();
    fstab_list.clear();
    filesystems_list.clear();
    filesystems_nodev_list.clear();
    proc_partitions.clear();
    terminate_requested = 0;
    hotplug_mode = no_force_shutdown = 0;
    schedule_uid = schedule_gid = 0;
    startup_child_pid = -1;
    next_full_rescan = 0;
    for (std::string *text :
         {&boot_drive, &boot_partition, &main_drive, &main_partition, &swap_path})
        text->clear();
    settings = Settings();
    init_connection_types();
}

MemoryMachine::MemoryMachine()
{
    machine = this;
    forget_the_daemons_state();
}

MemoryMachine::~MemoryMachine()
{
    forget_the_daemons_state();
    machine = nullptr;
    for (const OpenFile &file : open_files)
        PROMISE(file.what == OpenFile::CLOSED || may_leak);
}

static void make_directories_above(MemoryMachine::Nodes &nodes, const std::string &path)
{
    for (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0;
         slash = path.rfind('/', slash - 1)) {
        if (!nodes
                 .try_emplace(path.substr(0, slash),
                              MemoryMachine::Node{MemoryMachine::DIRECTORY_NODE, ""})
                 .second)
            return;
    }
}

void MemoryMachine::Write(const std::string &path, const std::string &content)
{
    make_directories_above(nodes, path);
    nodes[path] = Node{FILE_NODE, content};
}

void MemoryMachine::Link(const std::string &path, const std::string &target)
{
    make_directories_above(nodes, path);
    nodes[path] = Node{LINK_NODE, target};
}

MemoryMachine::Node &MemoryMachine::Device(const std::string &path, off_t size)
{
    make_directories_above(nodes, path);
    Node &node = nodes[path];
    node = Node{DEVICE_NODE, ""};
    node.size = size;
    return node;
}

// What is below a directory stands right behind its name with a slash.
static std::pair<MemoryMachine::Nodes::iterator, MemoryMachine::Nodes::iterator>
below(MemoryMachine::Nodes &nodes, std::string_view path)
{
    static_assert('/' + 1 == '0');
    std::string edge;
    edge.reserve(path.size() + 1);
    edge = path;
    edge += '/';
    const auto first = nodes.lower_bound(edge);
    if (first == nodes.end() || !first->first.starts_with(edge))
        return {first, first};
    edge.back() = '0';
    return {first, nodes.lower_bound(edge)};
}

void MemoryMachine::Remove(const std::string &path)
{
    const auto [first, last] = below(nodes, path);
    nodes.erase(first, last);
    nodes.erase(path);
}

MemoryMachine::Node *MemoryMachine::Find(std::string_view path)
{
    const auto found = nodes.find(path);
    return found == nodes.end() ? nullptr : &found->second;
}

// The flags of a mount that protect the machine from what it holds, as mount(2) and the table have
// them.
static const struct {
    unsigned long flag;
    const char *option;
} protections[] = {{MS_NOSUID, "nosuid"}, {MS_NODEV, "nodev"}, {MS_NOEXEC, "noexec"}};

static unsigned long protection_in(unsigned long flags)
{
    return flags & (MS_NOSUID | MS_NODEV | MS_NOEXEC);
}

static std::string options_text(const MemoryMachine::Mount &mount)
{
    std::string text = mount.flags & MS_RDONLY ? "ro" : "rw";
    for (const auto &[flag, option] : protections) {
        if (mount.flags & flag)
            text += std::string(",") + option;
    }
    return text;
}

void MemoryMachine::WriteMounts()
{
    std::string table;
    for (const Mount &mount : mounts)
        table += as_in_kernel_table(mount.device) + " " + as_in_kernel_table(mount.mountpoint) +
                 " " + mount.type + " " + options_text(mount) + " 0 0\n";
    Write("/proc/mounts", table);
}

void MemoryMachine::Mounted(const std::string &device, const std::string &mountpoint,
                            const std::string &type, const std::string &options)
{
    unsigned long flags = options.starts_with("ro") ? MS_RDONLY : 0;
    for (const auto &[flag, option] : protections)
        flags |= options.find(option) == std::string::npos ? 0 : flag;
    mounts.push_back({device, mountpoint, type, flags, protection_in(flags)});
    first_mountpoints.insert(mountpoint);
    make_directories_above(nodes, mountpoint + "/");
    WriteMounts();
}

bool MemoryMachine::AreMountsProtected() const
{
    return std::all_of(mounts.begin(), mounts.end(), [](const Mount &mount) {
        return (mount.flags & mount.protection) == mount.protection;
    });
}

void MemoryMachine::Process(pid_t pid, const std::string &link, const std::string &target,
                            bool is_stubborn)
{
    Link("/proc/" + std::to_string(pid) + "/" + link, target);
    processes[pid] = is_stubborn ? STUBBORN : OBEDIENT;
}

void MemoryMachine::End(pid_t pid)
{
    Remove("/proc/" + std::to_string(pid));
    processes[pid] = ENDED;
}

// Paths are compared as texts, as the daemon does it; a program only reads.
bool MemoryMachine::Uses(pid_t pid) const
{
    const std::string folder = "/proc/" + std::to_string(pid) + "/";
    return std::any_of(nodes.lower_bound(folder), nodes.end(), [&](const auto &entry) {
        const auto &[path, link] = entry;
        if (!path.starts_with(folder) || !link.content.starts_with(evicted))
            return false;
        const auto file = nodes.find(link.opened);
        return !evicts_writers_only || (path.starts_with(folder + "fd/") && file != nodes.end() &&
                                        !file->second.is_write_protected);
    });
}

int MemoryMachine::OpenAs(const OpenFile &file, bool close_on_exec)
{
    PROMISE(close_on_exec);
    for (size_t i = 0; i < open_files.size(); i++) {
        if (open_files[i].what == OpenFile::CLOSED) {
            open_files[i] = file;
            return first_descriptor + static_cast<int>(i);
        }
    }
    open_files.push_back(file);
    return first_descriptor + static_cast<int>(open_files.size()) - 1;
}

MemoryMachine::OpenFile &MemoryMachine::At(int fd)
{
    PROMISE(fd >= first_descriptor);
    const size_t index = static_cast<size_t>(fd - first_descriptor);
    PROMISE(index < open_files.size() && open_files[index].what != OpenFile::CLOSED);
    return open_files[index];
}

static int fail(int error)
{
    errno = error;
    return -1;
}

static std::string absolute(int directory_fd, const char *path)
{
    if (path[0] == '/' || directory_fd == AT_FDCWD)
        return path;
    return machine->At(directory_fd).path + "/" + path;
}

// The node of a path; through one link, if its last part is one that is to be followed.
static MemoryMachine::Node *find_node(std::string &path, bool follow)
{
    MemoryMachine::Node *node = machine->Find(path);
    if (node && node->kind == MemoryMachine::LINK_NODE && follow) {
        const std::string &target = node->opened.empty() ? node->content : node->opened;
        path = target[0] == '/' ? target : path.substr(0, path.rfind('/') + 1) + target;
        node = machine->Find(path);
    }
    if (!node)
        errno = ENOENT;
    return node;
}

static int open_node(int directory_fd, const char *name, int flags)
{
    std::string path = absolute(directory_fd, name);
    MemoryMachine::Node *node = find_node(path, !(flags & O_NOFOLLOW));
    if (!node)
        return -1;
    if (node->kind == MemoryMachine::LINK_NODE)
        return fail(ELOOP);
    if (node->error)
        return fail(node->error);
    if ((flags & O_DIRECTORY) && node->kind != MemoryMachine::DIRECTORY_NODE)
        return fail(ENOTDIR);
    return machine->OpenAs({MemoryMachine::OpenFile::NODE, path, node}, flags & O_CLOEXEC);
}

static off_t size_of(const MemoryMachine::Node &node)
{
    return node.kind == MemoryMachine::DEVICE_NODE ? node.size
                                                   : static_cast<off_t>(node.content.size());
}

static ssize_t read_node(MemoryMachine::OpenFile &file, char *buffer, size_t size)
{
    const MemoryMachine::Node &node = *file.node;
    if (node.kind == MemoryMachine::DIRECTORY_NODE)
        return fail(EISDIR);
    const off_t left = size_of(node) - file.position;
    if (left <= 0)
        return 0;
    const size_t count = std::min(size, static_cast<size_t>(left));
    if (node.kind == MemoryMachine::FILE_NODE)
        memcpy(buffer, node.content.data() + file.position, count);
    else
        memset(buffer, 0, count);
    for (const auto &[place, bytes] : node.pieces) {
        const off_t first = std::max(place, file.position);
        const off_t last = std::min(place + static_cast<off_t>(bytes.size()),
                                    file.position + static_cast<off_t>(count));
        if (first < last)
            memcpy(buffer + (first - file.position), bytes.data() + (first - place),
                   static_cast<size_t>(last - first));
    }
    file.position += static_cast<off_t>(count);
    return static_cast<ssize_t>(count);
}

static void append_entry(std::string &records, std::string_view name, unsigned char type)
{
    dirent64 entry = {};
    const size_t unpadded = offsetof(dirent64, d_name) + name.size() + 1;
    entry.d_reclen = static_cast<unsigned short>((unpadded + 7) / 8 * 8);
    entry.d_type = type;
    const size_t start = records.size();
    records.resize(start + entry.d_reclen, '\0');
    memcpy(records.data() + start, &entry, offsetof(dirent64, d_name));
    memcpy(records.data() + start + offsetof(dirent64, d_name), name.data(), name.size());
}

// All of a directory's records: none of those that the targets make up fills the daemon's buffer.
static std::string directory_records(const std::string &path)
{
    std::string records;
    records.reserve(1024);
    append_entry(records, ".", DT_DIR);
    append_entry(records, "..", DT_DIR);
    const auto [first, last] = below(machine->nodes, path);
    for (auto node = first; node != last;) {
        const std::string_view name = std::string_view(node->first).substr(path.size() + 1);
        const size_t slash = name.find('/');
        if (slash != std::string_view::npos) { // not in this directory but further below
            node = below(machine->nodes,
                         std::string_view(node->first).substr(0, path.size() + 1 + slash))
                       .second;
            continue;
        }
        static const unsigned char types[] = {DT_REG, DT_DIR, DT_LNK, DT_BLK};
        append_entry(records, name, types[node->second.kind]);
        ++node;
    }
    return records;
}

static int tell_status(std::string path, bool follow, mode_t &mode, off_t &size)
{
    const MemoryMachine::Node *node = find_node(path, follow);
    if (!node)
        return -1;
    static const mode_t modes[] = {S_IFREG | 0755, S_IFDIR | 0755, S_IFLNK | 0777, S_IFBLK | 0660};
    mode = modes[node->kind] & ~(node->is_write_protected ? 0222U : 0U);
    size = size_of(*node);
    return 0;
}

static int fill_status(const char *path, bool follow, struct stat *status)
{
    mode_t mode = 0;
    off_t size = 0;
    if (tell_status(path, follow, mode, size) < 0)
        return -1;
    *status = {};
    status->st_mode = mode;
    status->st_size = size;
    return 0;
}

// The uppermost mount at a directory, or null.
static MemoryMachine::Mount *mount_at(const std::string &directory)
{
    for (size_t i = machine->mounts.size(); i > 0; i--) {
        if (machine->mounts[i - 1].mountpoint == directory)
            return &machine->mounts[i - 1];
    }
    return nullptr;
}

// Whether a path is an entry of /mnt.
static bool is_in_mnt(std::string_view path)
{
    return path.starts_with("/mnt/") && path.size() > 5 && path.rfind('/') == 4 &&
           path != "/mnt/." && path != "/mnt/..";
}

static bool may_be_mountpoint(const std::string &path)
{
    return is_in_mnt(path) || machine->first_mountpoints.contains(path);
}

// Whether a device may be moved for the client that is being served. Without one, nobody asked.
static bool may_move(const std::string &device)
{
    if (!machine->served || machine->served->uid == 0)
        return true;
    const std::string name = strip_dev(device);
    return machine->served->uid != static_cast<uid_t>(schedule_uid) && name != boot_drive &&
           name != boot_partition && name != main_drive && name != main_partition;
}

static bool may_move_mount(const std::string &mountpoint)
{
    const MemoryMachine::Mount *mounted = mount_at(mountpoint);
    return !mounted || may_move(mounted->device);
}

static std::string swap_file()
{
    return "/mnt/" + main_partition + "/" + settings.swap_name;
}

// For what only a child does, or a part of the daemon that no target runs.
#define NEVER(what) break_promise("never: " what, __FILE__, __LINE__)

#define REAL_IF_NONE(name, ...)                                                                    \
    if (!machine)                                                                                  \
    return __real_##name(__VA_ARGS__)

extern "C" {

int __real_open(const char *path, int flags, ...);
int __real_openat(int directory_fd, const char *path, int flags, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void *buffer, size_t size);
off_t __real_lseek(int fd, off_t offset, int whence);
ssize_t __real_getdents64(int fd, void *buffer, size_t size);
ssize_t __real_readlink(const char *path, char *buffer, size_t size);
ssize_t __real_readlinkat(int directory_fd, const char *path, char *buffer, size_t size);
char *__real_realpath(const char *path, char *buffer);
int __real_stat(const char *path, struct stat *status);
int __real_lstat(const char *path, struct stat *status);
int __real_mkdir(const char *path, mode_t mode);
int __real_rmdir(const char *path);
int __real_unlink(const char *path);
int __real_rename(const char *old_path, const char *new_path);
int __real_fcntl(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
pid_t __real_fork();
pid_t __real_waitpid(pid_t child, int *status, int options);
int __real_kill(pid_t pid, int number);
unsigned __real_sleep(unsigned seconds);
int __real_usleep(useconds_t microseconds);
unsigned __real_alarm(unsigned seconds);
time_t __real_time(time_t *result);
int __real_dup2(int from, int to);
ssize_t __real_write(int fd, const void *bytes, size_t size);
[[noreturn]] void __real__exit(int status);
pid_t __real_getppid();
int __real_prctl(int option, ...);
int __real_chdir(const char *path);
int __real_poll(pollfd *files, nfds_t count, int timeout);
void EVICT(__real_)(const std::string &device, const std::string &mountpoint, bool writers_only);

int __wrap_open(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const unsigned mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(rest, unsigned) : 0;
    va_end(rest);
    REAL_IF_NONE(open, path, flags, mode);
    return open_node(AT_FDCWD, path, flags);
}

int __wrap_openat(int directory_fd, const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const unsigned mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(rest, unsigned) : 0;
    va_end(rest);
    REAL_IF_NONE(openat, directory_fd, path, flags, mode);
    return open_node(directory_fd, path, flags);
}

int __wrap_close(int fd)
{
    REAL_IF_NONE(close, fd);
    MemoryMachine::OpenFile &file = machine->At(fd);
    if (file.client)
        file.client->is_closed = true;
    file = {};
    return 0;
}

ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    REAL_IF_NONE(read, fd, buffer, size);
    machine->reads++;
    MemoryMachine::OpenFile &file = machine->At(fd);
    if (file.what == MemoryMachine::OpenFile::NODE)
        return read_node(file, static_cast<char *>(buffer), size);
    PROMISE(file.what == MemoryMachine::OpenFile::PIPE_READ);
    static const std::string program("cat\0", 4);
    const std::string &answer = machine->is_child ? program : machine->probe_answer;
    const size_t count = std::min(size, answer.size());
    memcpy(buffer, answer.data(), count);
    return static_cast<ssize_t>(count);
}

off_t __wrap_lseek(int fd, off_t offset, int whence)
{
    REAL_IF_NONE(lseek, fd, offset, whence);
    MemoryMachine::OpenFile &file = machine->At(fd);
    PROMISE(file.what == MemoryMachine::OpenFile::NODE && whence != SEEK_CUR);
    file.at_end = false;
    const off_t position = whence == SEEK_END ? size_of(*file.node) + offset : offset;
    if (position < 0)
        return fail(EINVAL);
    return file.position = position;
}

ssize_t __wrap_getdents64(int fd, void *buffer, size_t size)
{
    REAL_IF_NONE(getdents64, fd, buffer, size);
    MemoryMachine::OpenFile &file = machine->At(fd);
    if (file.at_end)
        return 0;
    const std::string records = directory_records(file.path);
    PROMISE(records.size() <= size);
    file.at_end = true;
    memcpy(buffer, records.data(), records.size());
    return static_cast<ssize_t>(records.size());
}

ssize_t __wrap_readlinkat(int directory_fd, const char *name, char *buffer, size_t size)
{
    REAL_IF_NONE(readlinkat, directory_fd, name, buffer, size);
    const MemoryMachine::Node *node = machine->Find(absolute(directory_fd, name));
    if (!node)
        return fail(ENOENT);
    if (node->kind != MemoryMachine::LINK_NODE)
        return fail(EINVAL);
    const size_t count = std::min(size, node->content.size());
    memcpy(buffer, node->content.data(), count);
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_readlink(const char *path, char *buffer, size_t size)
{
    REAL_IF_NONE(readlink, path, buffer, size);
    return __wrap_readlinkat(AT_FDCWD, path, buffer, size);
}

char *__wrap_realpath(const char *asked, char *buffer)
{
    REAL_IF_NONE(realpath, asked, buffer);
    PROMISE(!buffer);
    std::string path = asked;
    return find_node(path, true) ? strdup(path.c_str()) : nullptr;
}

int __wrap_stat(const char *path, struct stat *status)
{
    REAL_IF_NONE(stat, path, status);
    return fill_status(path, true, status);
}

int __wrap_lstat(const char *path, struct stat *status)
{
    REAL_IF_NONE(lstat, path, status);
    return fill_status(path, false, status);
}

ssize_t __wrap_lgetxattr(const char *path, const char *, void *, size_t)
{
    PROMISE(machine);
    std::string place = path;
    return find_node(place, false) ? fail(ENODATA) : -1;
}

int __wrap_statx(int directory_fd, const char *path, int flags, unsigned, struct statx *status)
{
    PROMISE(machine);
    mode_t mode = 0;
    off_t size = 0;
    if (tell_status(absolute(directory_fd, path), !(flags & AT_SYMLINK_NOFOLLOW), mode, size) < 0)
        return -1;
    *status = {};
    status->stx_mode = static_cast<uint16_t>(mode);
    return 0;
}

int __wrap_mkdir(const char *path, mode_t mode)
{
    REAL_IF_NONE(mkdir, path, mode);
    PROMISE(is_in_mnt(path));
    const bool is_new =
        machine->nodes.try_emplace(path, MemoryMachine::Node{MemoryMachine::DIRECTORY_NODE, ""})
            .second;
    return is_new ? 0 : fail(EEXIST);
}

int __wrap_rmdir(const char *path)
{
    REAL_IF_NONE(rmdir, path);
    PROMISE(may_be_mountpoint(path));
    const MemoryMachine::Node *node = machine->Find(path);
    if (!node)
        return fail(ENOENT);
    if (node->kind != MemoryMachine::DIRECTORY_NODE)
        return fail(ENOTDIR);
    const auto [first, last] = below(machine->nodes, path);
    if (first != last)
        return fail(ENOTEMPTY);
    if (mount_at(path))
        return fail(EBUSY);
    machine->nodes.erase(path);
    return 0;
}

int __wrap_unlink(const char *path)
{
    REAL_IF_NONE(unlink, path);
    PROMISE(path == swap_file() || (is_in_mnt(path) && path[5] == '^'));
    const MemoryMachine::Node *node = machine->Find(path);
    if (!node || node->kind == MemoryMachine::DIRECTORY_NODE)
        return fail(node ? EISDIR : ENOENT);
    machine->nodes.erase(path);
    return 0;
}

int __wrap_symlink(const char *target, const char *path)
{
    PROMISE(machine);
    // It leads to the directory beside it.
    PROMISE(is_in_mnt(path) && path[5] == '^' && !strchr(target, '/'));
    const bool is_new =
        machine->nodes.try_emplace(path, MemoryMachine::Node{MemoryMachine::LINK_NODE, target})
            .second;
    return is_new ? 0 : fail(EEXIST);
}

int __wrap_rename(const char *old_path, const char *new_path)
{
    REAL_IF_NONE(rename, old_path, new_path);
    PROMISE(old_path == swap_file() && new_path == swap_file() + ".discard");
    auto node = machine->nodes.extract(old_path);
    if (!node)
        return fail(ENOENT);
    machine->nodes.erase(new_path);
    node.key() = new_path;
    machine->nodes.insert(std::move(node));
    return 0;
}

int __wrap_fsync(int fd)
{
    PROMISE(machine);
    machine->At(fd);
    return 0;
}

int __wrap_fcntl(int fd, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    REAL_IF_NONE(fcntl, fd, command, argument);
    machine->At(fd);
    return 0;
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list rest;
    va_start(rest, request);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    REAL_IF_NONE(ioctl, fd, request, argument);
    machine->At(fd);
    const unsigned long drive_status = 0x5326; // CDROM_DRIVE_STATUS
    return request == drive_status ? machine->disc_status : fail(ENOTTY);
}

int __wrap_mount(const char *device, const char *directory, const char *type, unsigned long flags,
                 const void *)
{
    PROMISE(machine);
    machine->deeds.push_back(std::string("mount ") + directory);
    if (flags & MS_REMOUNT) {
        PROMISE(may_be_mountpoint(directory) && may_move_mount(directory));
        MemoryMachine::Mount *mounted = mount_at(directory);
        if (!mounted)
            return fail(EINVAL);
        mounted->flags = flags; // what is not said is taken away
    } else {
        // Nothing that a drive holds may gain the rights of root.
        PROMISE((flags & MS_NOSUID) && (flags & MS_NODEV));
        PROMISE(is_in_mnt(directory) && may_move(device));
        PROMISE(std::string("/dev/") + (directory + strlen("/mnt/")) == device);
        const MemoryMachine::Node *node = machine->Find(device);
        if (!node || node->filesystem != type)
            return fail(EINVAL);
        machine->mounts.push_back({device, directory, type, flags, protection_in(flags)});
    }
    machine->WriteMounts();
    return 0;
}

// Flags are given to a mount by its root, and none is taken away.
int __wrap_mount_setattr(int directory_fd, const char *path, unsigned flags,
                         struct mount_attr *attributes, size_t)
{
    PROMISE(machine && !*path && flags == AT_EMPTY_PATH && attributes->attr_clr == 0);
    const std::string directory = machine->At(directory_fd).path;
    machine->deeds.push_back("mount " + directory);
    PROMISE(may_be_mountpoint(directory) && may_move_mount(directory));
    MemoryMachine::Mount *mounted = mount_at(directory);
    if (!mounted)
        return fail(EINVAL);
    mounted->flags |= attributes->attr_set; // these have the same numbers as those of mount(2)
    machine->WriteMounts();
    return 0;
}

int __wrap_umount(const char *directory)
{
    PROMISE(machine);
    machine->deeds.push_back(std::string("umount ") + directory);
    PROMISE(may_be_mountpoint(directory) && may_move_mount(directory));
    if (strcmp(directory, "/") == 0)
        return fail(EBUSY);
    MemoryMachine::Mount *mounted = mount_at(directory);
    if (!mounted)
        return fail(EINVAL);
    machine->mounts.erase(machine->mounts.begin() + (mounted - machine->mounts.data()));
    machine->WriteMounts();
    return 0;
}

int __wrap_umount2(const char *directory, int)
{
    return __wrap_umount(directory);
}

int __wrap_swapon(const char *path, int)
{
    PROMISE(machine);
    machine->deeds.push_back(std::string("swapon ") + path);
    PROMISE(path == swap_file() && (!machine->served || machine->served->uid == 0));
    return 0;
}

int __wrap_swapoff(const char *path)
{
    PROMISE(machine);
    machine->deeds.push_back(std::string("swapoff ") + path);
    return 0;
}

int __wrap_quotactl(int, const char *, int, char *)
{
    PROMISE(machine);
    return fail(ENOSYS);
}

int __wrap_pipe2(int *ends, int flags)
{
    PROMISE(machine);
    ends[0] = machine->OpenAs({MemoryMachine::OpenFile::PIPE_READ}, flags & O_CLOEXEC);
    ends[1] = machine->OpenAs({MemoryMachine::OpenFile::PIPE_WRITE}, flags & O_CLOEXEC);
    return 0;
}

// The child is never there: what it would print and how it would end is the machine's to say.
pid_t __wrap_fork()
{
    REAL_IF_NONE(fork);
    if (!machine->can_fork)
        return fail(EAGAIN);
    if (machine->becomes_child) {
        machine->becomes_child = false;
        machine->is_child = true;
        return 0;
    }
    machine->children[machine->next_child] = true;
    return machine->next_child++;
}

pid_t __wrap_waitpid(pid_t child, int *status, int options)
{
    REAL_IF_NONE(waitpid, child, status, options);
    const auto found = machine->children.find(child);
    if (found == machine->children.end() || !found->second)
        return fail(ECHILD);
    found->second = false;
    if (status)
        *status = machine->child_status;
    return child;
}

int __wrap_kill(pid_t pid, int number)
{
    REAL_IF_NONE(kill, pid, number);
    const auto process = machine->processes.find(pid);
    if (process != machine->processes.end()) {
        if (process->second == MemoryMachine::ENDED)
            return fail(ESRCH);
        PROMISE(machine->is_child && machine->Uses(pid));
        PROMISE(number == SIGTERM || number == SIGKILL);
        if (number == SIGKILL || process->second == MemoryMachine::OBEDIENT)
            machine->End(pid);
        return 0;
    }
    const auto found = machine->children.find(pid);
    PROMISE(found != machine->children.end());
    // A driver program that failed gets SIGTERM though it was waited for: that is the daemon's way.
    PROMISE(number == 0 || found->second || (number == SIGTERM && machine->child_status != 0));
    return found->second ? 0 : fail(ESRCH);
}

unsigned __wrap_sleep(unsigned seconds)
{
    REAL_IF_NONE(sleep, seconds);
    machine->now += seconds;
    return 0;
}

int __wrap_usleep(useconds_t microseconds)
{
    REAL_IF_NONE(usleep, microseconds);
    return 0;
}

time_t __wrap_time(time_t *result)
{
    REAL_IF_NONE(time, result);
    if (result)
        *result = machine->now;
    return machine->now;
}

int __wrap_socket(int, int type, int)
{
    PROMISE(machine);
    return machine->OpenAs({MemoryMachine::OpenFile::SOCKET}, type & SOCK_CLOEXEC);
}

int __wrap_bind(int fd, const sockaddr *, socklen_t)
{
    PROMISE(machine);
    machine->At(fd);
    return 0;
}

int __wrap_listen(int fd, int)
{
    PROMISE(machine);
    machine->At(fd);
    return 0;
}

int __wrap_accept4(int fd, sockaddr *, socklen_t *length, int flags)
{
    PROMISE(machine);
    machine->At(fd);
    if (machine->waiting_clients.empty())
        return fail(EAGAIN);
    MemoryMachine::OpenFile file{MemoryMachine::OpenFile::CLIENT};
    file.client = machine->waiting_clients.front();
    file.client->is_accepted = true;
    machine->waiting_clients.pop_front();
    *length = sizeof(sa_family_t); // bound to no path
    machine->served = file.client;
    return machine->OpenAs(file, flags & SOCK_CLOEXEC);
}

int __wrap_getsockopt(int fd, int, int, void *value, socklen_t *length)
{
    PROMISE(machine && *length == sizeof(ucred));
    const ucred credentials = {4711, machine->At(fd).client->uid, 0};
    memcpy(value, &credentials, sizeof(credentials));
    return 0;
}

// Takes the next scripted error of a client. False when the call does not fail.
static bool take_error(std::deque<int> &errors)
{
    if (errors.empty())
        return false;
    errno = errors.front();
    errors.pop_front();
    return errno != 0;
}

ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags)
{
    PROMISE(machine && (flags & MSG_DONTWAIT) && (flags & MSG_NOSIGNAL));
    Client &client = *machine->At(fd).client;
    machine->served = &client;
    const bool takes = !(flags & MSG_PEEK);
    if (takes && take_error(client.read_errors))
        return -1;
    if (client.unread.empty())
        return client.has_left ? 0 : fail(EAGAIN);
    if (client.has_left && client.unread.size() > 1) { // nothing more is on its way
        std::string all;
        for (const std::string &chunk : client.unread)
            all += chunk;
        client.unread.assign(1, all);
    }
    std::string &next = client.unread.front();
    const size_t count = std::min(size, next.size());
    memcpy(buffer, next.data(), count);
    if (!takes)
        return static_cast<ssize_t>(count);
    client.taken.emplace_back(next.substr(0, count), client.heard.size());
    next.erase(0, count);
    if (next.empty())
        client.unread.pop_front();
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_send(int fd, const void *buffer, size_t size, int flags)
{
    PROMISE(machine && (flags & MSG_DONTWAIT) && (flags & MSG_NOSIGNAL));
    Client &client = *machine->At(fd).client;
    if (take_error(client.send_errors))
        return -1;
    if (client.has_left)
        return fail(EPIPE);
    const size_t count = std::min(size, client.send_limit);
    client.heard.append(static_cast<const char *>(buffer), count);
    return static_cast<ssize_t>(count);
}

void __wrap_syslog(int, const char *, ...)
{
    PROMISE(machine);
}

int __wrap_execl(const char *, const char *, ...)
{
    NEVER("no program is run");
}

int __wrap_execv(const char *, char *const *)
{
    NEVER("no program is run");
}

int __wrap_execvp(const char *, char *const *)
{
    NEVER("no program is run");
}

int __wrap_chdir(const char *path)
{
    REAL_IF_NONE(chdir, path);
    PROMISE(machine->is_child && strcmp(path, "/proc") == 0);
    return 0;
}

pid_t __wrap_getppid()
{
    REAL_IF_NONE(getppid);
    return getpid();
}

int __wrap_unlinkat(int, const char *, int)
{
    NEVER("nothing is removed this way");
}

int __wrap_close_range(unsigned, unsigned, int)
{
    NEVER("all is closed");
}

int __wrap_prctl(int option, ...)
{
    REAL_IF_NONE(prctl, option);
    PROMISE(machine->is_child);
    return 0;
}

// One of three does not answer in time.
int __wrap_poll(pollfd *files, nfds_t count, int timeout)
{
    REAL_IF_NONE(poll, files, count, timeout);
    PROMISE(machine->is_child && count == 1 && timeout >= 0);
    return machine->next_child % 3 == 0 ? 0 : 1;
}

ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    REAL_IF_NONE(write, fd, bytes, size);
    NEVER("something is written");
}

int __wrap_dup2(int from, int to)
{
    REAL_IF_NONE(dup2, from, to);
    NEVER("a descriptor is replaced");
}

unsigned __wrap_alarm(unsigned seconds)
{
    REAL_IF_NONE(alarm, seconds);
    NEVER("an alarm is set");
}

void __wrap__exit(int status)
{
    if (!machine)
        __real__exit(status);
    if (machine->is_child)
        longjmp(machine->end_of_child, 1);
    NEVER("the daemon ends");
}

// The child lives first, and ends in _exit(); then the daemon goes on as if it had waited for it.
// Nothing that has a destructor may stand on the way between.
void EVICT(__wrap_)(const std::string &device, const std::string &mountpoint, bool writers_only)
{
    PROMISE(machine && may_move_mount(mountpoint));
    machine->evictions++;
    machine->evicted = mountpoint;
    machine->evicts_writers_only = writers_only;
    if (setjmp(machine->end_of_child) == 0) {
        machine->becomes_child = true;
        EVICT(__real_)(device, mountpoint, writers_only);
        machine->becomes_child = false; // there was no child
        return;
    }
    machine->is_child = false;
    for (const auto &[pid, state] : machine->processes)
        PROMISE(state == MemoryMachine::ENDED || !machine->Uses(pid));
    EVICT(__real_)(device, mountpoint, writers_only);
}
}
