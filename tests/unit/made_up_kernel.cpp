// The made-up kernel: every call of the daemon's into the C library that reaches the kernel.
#include "made_up_kernel.h"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

MadeUpMachine *machine;
Kernel kernel;
DeedLog *deed_log;
std::set<pid_t> children;

ssize_t really_read_link(int directory_fd, const char *path, std::string &target)
{
    char text[4096];
    const ssize_t length = __real_readlinkat(directory_fd, path, text, sizeof(text));
    target.assign(text, length > 0 ? static_cast<size_t>(length) : 0);
    return length;
}

sockaddr_un stand_in_address(socklen_t &length)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const int count = snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1,
                               "quarryd-unit-tests-%d", getpid());
    length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(count));
    return address;
}

static void note_deed(const std::string &deed)
{
    if (!deed_log)
        return;
    const size_t start = deed_log->length.fetch_add(deed.size() + 1);
    if (start + deed.size() + 1 > sizeof(deed_log->text)) {
        fputs("too many deeds for the made-up machine\n", stderr);
        abort();
    }
    memcpy(deed_log->text + start, deed.data(), deed.size());
    deed_log->text[start + deed.size()] = '\n';
    if (machine && machine->on_deed)
        machine->on_deed(deed);
}

// Counts a call. True when it does not reach the kernel: result and errno are set then.
template <typename Result>
static bool is_answered(Call call, Result &result)
{
    if (!machine)
        return false;
    kernel.calls[static_cast<size_t>(call)]++;
    std::deque<Answer> &script = kernel.scripts[static_cast<size_t>(call)];
    if (script.empty())
        return false;
    const Answer answer = script.front();
    script.pop_front();
    if (answer.is_real)
        return false;
    result = static_cast<Result>(answer.result);
    errno = answer.error;
    return true;
}

static std::deque<std::string> path_components(const std::string &path)
{
    std::deque<std::string> components;
    for (const std::filesystem::path &component : std::filesystem::path(path).relative_path()) {
        if (!component.empty() && component != ".")
            components.push_back(component);
    }
    return components;
}

// An absolute path of the machine without links. False, with errno set, when there is no such file.
static bool resolve(const char *path, std::string &resolved)
{
    resolved.clear();
    std::deque<std::string> pending = path_components(path);
    for (int hops = 0; !pending.empty();) {
        const std::string component = pending.front();
        pending.pop_front();
        if (component == "..") {
            resolved.resize(resolved.empty() ? 0 : resolved.rfind('/'));
            continue;
        }
        const std::string place = resolved + "/" + component;
        std::string target;
        if (really_read_link(AT_FDCWD, machine->RealPath(place).c_str(), target) < 0) {
            if (errno != EINVAL) // there, and no link
                return false;
            resolved = place;
            continue;
        }
        if (++hops > 40) {
            errno = ELOOP;
            return false;
        }
        if (target[0] == '/')
            resolved.clear();
        const std::deque<std::string> components = path_components(target);
        pending.insert(pending.begin(), components.begin(), components.end());
    }
    if (resolved.empty())
        resolved = "/";
    return true;
}

// Where a path leads: absolute ones into the machine's folder, through whatever links are above.
static std::string led(const char *path)
{
    if (!machine || path[0] != '/' || std::string_view(path).starts_with(machine->RealPath("")))
        return path;
    const std::string asked = path;
    const size_t slash = asked.rfind('/');
    std::string folder;
    if (!resolve(asked.substr(0, slash).c_str(), folder))
        return machine->RealPath(asked);
    return machine->RealPath((folder == "/" ? "" : folder) + asked.substr(slash));
}

// The same for calls that follow links, whose targets are paths of the machine too.
static std::string led_through_links(int directory_fd, const char *path)
{
    std::string place = led(path);
    std::string target;
    for (int hops = 0; machine && hops < 40; hops++) {
        if (really_read_link(directory_fd, place.c_str(), target) < 0 || target[0] != '/')
            break;
        if (target == "/dev/null")
            return target;
        place = led(target.c_str());
    }
    return place;
}

// A path as the machine knows it, also of one that is relative to an open directory.
static std::string machine_path(int directory_fd, const char *path)
{
    if (path[0] == '/')
        return path;
    std::string directory;
    if (directory_fd == AT_FDCWD)
        directory = std::filesystem::current_path();
    else
        really_read_link(AT_FDCWD, ("/proc/self/fd/" + std::to_string(directory_fd)).c_str(),
                         directory);
    const std::string root = machine->RealPath("");
    return (directory.starts_with(root) ? directory.substr(root.size()) : directory) + "/" + path;
}

static bool is_refused(int directory_fd, const char *path)
{
    if (!machine || kernel.refused.empty())
        return false;
    auto refusal = kernel.refused.find(machine_path(directory_fd, path));
    if (refusal == kernel.refused.end())
        return false;
    errno = refusal->second;
    return true;
}

static int checked_at_exec(int fd, const char *what)
{
    if (machine && fd >= 0 && !(__real_fcntl(fd, F_GETFD) & FD_CLOEXEC))
        note_deed(std::string("left open at exec: ") + what);
    return fd;
}

static int open_anywhere(int directory_fd, const char *path, int flags, mode_t mode)
{
    int fd = -1;
    if (is_answered(Call::OPEN, fd) || is_refused(directory_fd, path))
        return fd;
    if (machine)
        kernel.opened[path].push_back(flags);
    const std::string place = led_through_links(directory_fd, path);
    return checked_at_exec(__real_openat(directory_fd, place.c_str(), flags, mode), path);
}

// Only programs of the made-up machine are ever run.
static int execute(const char *call, const char *name, const std::string &path,
                   char *const *arguments)
{
    std::string deed = std::string(call) + " " + name;
    for (char *const *argument = arguments; *argument; argument++)
        deed += std::string(" ") + *argument;
    note_deed(deed);
    if (!machine)
        _exit(127);
    if (machine->on_exec) {
        machine->on_exec(arguments);
        _exit(0);
    }
    return __real_execv(led(path.c_str()).c_str(), arguments);
}

// A text in a deed, where it is to be seen that there is nothing.
static std::string shown(const char *text)
{
    if (!text)
        return "(null)";
    return *text ? text : "''";
}

extern "C" {

int __wrap_open(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return open_anywhere(AT_FDCWD, path, flags, mode);
}

int __wrap_openat(int directory_fd, const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return open_anywhere(directory_fd, path, flags, mode);
}

int __wrap_close(int fd)
{
    int result;
    return is_answered(Call::CLOSE, result) ? result : __real_close(fd);
}

ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    ssize_t result;
    return is_answered(Call::READ, result) ? result : __real_read(fd, buffer, size);
}

off_t __wrap_lseek(int fd, off_t offset, int whence)
{
    off_t result;
    return is_answered(Call::LSEEK, result) ? result : __real_lseek(fd, offset, whence);
}

ssize_t __wrap_getdents64(int fd, void *buffer, size_t size)
{
    ssize_t result;
    return is_answered(Call::GETDENTS, result) ? result : __real_getdents64(fd, buffer, size);
}

ssize_t __wrap_readlinkat(int directory_fd, const char *path, char *buffer, size_t size)
{
    ssize_t result;
    if (is_answered(Call::READLINK, result))
        return result;
    return __real_readlinkat(directory_fd, led(path).c_str(), buffer, size);
}

ssize_t __wrap_readlink(const char *path, char *buffer, size_t size)
{
    return __wrap_readlinkat(AT_FDCWD, path, buffer, size);
}

int __wrap_stat(const char *path, struct stat *status)
{
    int result = -1;
    if (is_answered(Call::STAT, result) || is_refused(AT_FDCWD, path))
        return result;
    return __real_stat(led_through_links(AT_FDCWD, path).c_str(), status);
}

int __wrap_lstat(const char *path, struct stat *status)
{
    int result = -1;
    if (is_answered(Call::STAT, result) || is_refused(AT_FDCWD, path))
        return result;
    return __real_lstat(led(path).c_str(), status);
}

char *__wrap_realpath(const char *path, char *buffer)
{
    int result = -1;
    std::string resolved;
    if (!machine || path[0] != '/')
        return __real_realpath(path, buffer);
    if (is_answered(Call::REALPATH, result) || is_refused(AT_FDCWD, path) ||
        !resolve(path, resolved))
        return nullptr;
    return buffer ? strcpy(buffer, resolved.c_str()) : strdup(resolved.c_str());
}

int __wrap_statx(int directory_fd, const char *path, int flags, unsigned mask, struct statx *status)
{
    int result = -1;
    if (is_answered(Call::STAT, result) || is_refused(directory_fd, path))
        return result;
    const bool stays = flags & AT_SYMLINK_NOFOLLOW;
    const std::string place = stays ? led(path) : led_through_links(directory_fd, path);
    return __real_statx(directory_fd, place.c_str(), flags, mask, status);
}

int __wrap_symlink(const char *target, const char *path)
{
    int result;
    return is_answered(Call::SYMLINK, result) ? result : __real_symlink(target, led(path).c_str());
}

int __wrap_unlink(const char *path)
{
    int result;
    return is_answered(Call::UNLINK, result) ? result : __real_unlink(led(path).c_str());
}

int __wrap_unlinkat(int directory_fd, const char *path, int flags)
{
    int result;
    if (is_answered(flags & AT_REMOVEDIR ? Call::RMDIR : Call::UNLINK, result))
        return result;
    return __real_unlinkat(directory_fd, led(path).c_str(), flags);
}

int __wrap_rmdir(const char *path)
{
    int result;
    return is_answered(Call::RMDIR, result) ? result : __real_rmdir(led(path).c_str());
}

int __wrap_mkdir(const char *path, mode_t mode)
{
    int result;
    return is_answered(Call::MKDIR, result) ? result : __real_mkdir(led(path).c_str(), mode);
}

int __wrap_chdir(const char *path)
{
    int result;
    return is_answered(Call::CHDIR, result) ? result : __real_chdir(led(path).c_str());
}

int __wrap_rename(const char *old_path, const char *new_path)
{
    int result;
    if (is_answered(Call::RENAME, result))
        return result;
    return __real_rename(led(old_path).c_str(), led(new_path).c_str());
}

int __wrap_fsync(int fd)
{
    int result;
    note_deed("fsync");
    return is_answered(Call::FSYNC, result) ? result : __real_fsync(fd);
}

int __wrap_close_range(unsigned first, unsigned last, int flags)
{
    int result;
    note_deed("close_range " + std::to_string(first) + " " + std::to_string(last) + " " +
              std::to_string(flags));
    if (is_answered(Call::CLOSE_RANGE, result))
        return result;
    return __real_close_range(first, last, flags);
}

int __wrap_pipe2(int *ends, int flags)
{
    int result;
    if (is_answered(Call::PIPE, result))
        return result;
    result = __real_pipe2(ends, flags);
    if (result == 0) {
        checked_at_exec(ends[0], "pipe");
        checked_at_exec(ends[1], "pipe");
    }
    return result;
}

int __wrap_fcntl(int fd, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    int result;
    return is_answered(Call::FCNTL, result) ? result : __real_fcntl(fd, command, argument);
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list rest;
    va_start(rest, request);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    int result;
    if (is_answered(Call::IOCTL, result))
        return result;
    if (machine && machine->on_ioctl)
        return machine->on_ioctl(request, argument);
    return __real_ioctl(fd, request, argument);
}

pid_t __wrap_fork()
{
    pid_t child;
    if (is_answered(Call::FORK, child))
        return child;
    child = __real_fork();
    if (child > 0)
        children.insert(child);
    return child;
}

pid_t __wrap_waitpid(pid_t child, int *status, int options)
{
    pid_t result;
    if (is_answered(Call::WAITPID, result))
        return result;
    result = __real_waitpid(child, status, options);
    if (result > 0)
        children.erase(result);
    return result;
}

// A child that the test program forked itself is a real one; every other process is made up.
int __wrap_kill(pid_t pid, int number)
{
    const bool is_child = children.contains(pid);
    if (number != 0)
        note_deed("kill " + (is_child ? "child" : std::to_string(pid)) + " " +
                  std::to_string(number));
    if (is_child)
        return __real_kill(pid, number);
    if (machine && machine->Exists("/proc/" + std::to_string(pid)))
        return 0;
    errno = ESRCH;
    return -1;
}

int __wrap_execv(const char *path, char *const *arguments)
{
    return execute("execv", path, path, arguments);
}

int __wrap_execvp(const char *name, char *const *arguments)
{
    return execute("execvp", name, std::string("/usr/bin/") + name, arguments);
}

int __wrap_execl(const char *path, const char *first, ...)
{
    std::vector<char *> arguments;
    va_list rest;
    va_start(rest, first);
    for (const char *word = first; word; word = va_arg(rest, const char *))
        arguments.push_back(const_cast<char *>(word));
    va_end(rest);
    arguments.push_back(nullptr);
    return execute("execl", path, path, arguments.data());
}

unsigned __wrap_alarm(unsigned seconds)
{
    note_deed("alarm " + std::to_string(seconds));
    return 0;
}

unsigned __wrap_sleep(unsigned seconds)
{
    note_deed("sleep " + std::to_string(seconds));
    return 0;
}

int __wrap_usleep(useconds_t microseconds)
{
    note_deed("usleep " + std::to_string(microseconds));
    return 0;
}

time_t __wrap_time(time_t *result)
{
    if (!machine || machine->now == 0)
        return __real_time(result);
    if (result)
        *result = machine->now;
    return machine->now;
}

// The clock that nobody sets.
int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv()
{
    if (machine && machine->steady_now)
        return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                   machine->steady_now())
            .count();
    return __real__ZNSt6chrono3_V212steady_clock3nowEv();
}

int __wrap_mount(const char *source, const char *target, const char *type, unsigned long flags,
                 const void *data)
{
    int result = 0;
    std::string deed = "mount " + shown(source) + " " + shown(target) + " " + shown(type) + " " +
                       std::to_string(flags);
    if (data)
        deed += " " + shown(static_cast<const char *>(data));
    note_deed(deed);
    is_answered(Call::MOUNT, result);
    return result;
}

int __wrap_quotactl(int command, const char *special, int id, char *file)
{
    int result = 0;
    char number[16];
    snprintf(number, sizeof(number), "%x", static_cast<unsigned>(command));
    note_deed(std::string("quotactl ") + number + " " + shown(special) + " " + std::to_string(id) +
              " " + shown(file));
    is_answered(Call::QUOTACTL, result);
    return result;
}

int __wrap_swapon(const char *path, int flags)
{
    int result = 0;
    note_deed(std::string("swapon ") + path + " " + std::to_string(flags));
    is_answered(Call::SWAPON, result);
    return result;
}

int __wrap_umount(const char *mountpoint)
{
    int result = 0;
    note_deed(std::string("umount ") + mountpoint);
    is_answered(Call::UMOUNT, result);
    return result;
}

int __wrap_umount2(const char *mountpoint, int flags)
{
    int result = 0;
    note_deed(std::string("umount ") + mountpoint + " " + std::to_string(flags));
    is_answered(Call::UMOUNT, result);
    return result;
}

int __wrap_mount_setattr(int directory_fd, const char *path, unsigned, mount_attr *attributes,
                         size_t)
{
    int result = 0;
    std::string place = machine_path(directory_fd, path);
    place.pop_back(); // the slash before an empty name
    note_deed("mount_setattr " + place + " " + std::to_string(attributes->attr_set));
    is_answered(Call::MOUNT_SETATTR, result);
    return result;
}

int __wrap_swapoff(const char *path)
{
    int result = 0;
    note_deed(std::string("swapoff ") + path);
    is_answered(Call::SWAPOFF, result);
    return result;
}

static void note_log_line(int priority, const char *format, va_list values)
{
    char text[2048];
    vsnprintf(text, sizeof(text), format, values);
    note_deed("log " + std::to_string(priority) + " " + text);
}

void __wrap_syslog(int priority, const char *format, ...)
{
    va_list rest;
    va_start(rest, format);
    note_log_line(priority, format, rest);
    va_end(rest);
}

int __wrap_socket(int family, int type, int protocol)
{
    int fd;
    if (is_answered(Call::SOCKET, fd))
        return fd;
    return checked_at_exec(__real_socket(family, type, protocol), "socket");
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t length)
{
    const sockaddr_un *asked = reinterpret_cast<const sockaddr_un *>(address);
    std::string name(asked->sun_path, length - offsetof(sockaddr_un, sun_path));
    for (char &c : name)
        c = c == '\0' ? '@' : c;
    note_deed("bind " + std::to_string(asked->sun_family) + " " + name);
    int result;
    if (is_answered(Call::BIND, result))
        return result;
    const sockaddr_un stand_in = stand_in_address(length);
    return __real_bind(fd, reinterpret_cast<const sockaddr *>(&stand_in), length);
}

int __wrap_listen(int fd, int backlog)
{
    int result;
    note_deed("listen " + std::to_string(backlog));
    return is_answered(Call::LISTEN, result) ? result : __real_listen(fd, backlog);
}

int __wrap_accept4(int fd, sockaddr *address, socklen_t *length, int flags)
{
    int result;
    if (is_answered(Call::ACCEPT, result))
        return result;
    return checked_at_exec(__real_accept4(fd, address, length, flags), "accept4");
}

int __wrap_getsockopt(int fd, int level, int name, void *value, socklen_t *length)
{
    int result;
    if (is_answered(Call::GETSOCKOPT, result))
        return result;
    return __real_getsockopt(fd, level, name, value, length);
}

ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags)
{
    ssize_t result;
    return is_answered(Call::RECV, result) ? result : __real_recv(fd, buffer, size, flags);
}

ssize_t __wrap_send(int fd, const void *data, size_t size, int flags)
{
    ssize_t result;
    return is_answered(Call::SEND, result) ? result : __real_send(fd, data, size, flags);
}

// The same calls as a compiler makes them that checks the sizes of buffers (_FORTIFY_SOURCE). The
// checks themselves are the sanitizer's business here.

int __wrap___open_2(const char *path, int flags)
{
    return open_anywhere(AT_FDCWD, path, flags, 0);
}

int __wrap___openat_2(int directory_fd, const char *path, int flags)
{
    return open_anywhere(directory_fd, path, flags, 0);
}

ssize_t __wrap___read_chk(int fd, void *buffer, size_t size, size_t)
{
    return __wrap_read(fd, buffer, size);
}

ssize_t __wrap___readlink_chk(const char *path, char *buffer, size_t size, size_t)
{
    return __wrap_readlink(path, buffer, size);
}

char *__wrap___realpath_chk(const char *path, char *buffer, size_t)
{
    return __wrap_realpath(path, buffer);
}

ssize_t __wrap___readlinkat_chk(int directory_fd, const char *path, char *buffer, size_t size,
                                size_t)
{
    return __wrap_readlinkat(directory_fd, path, buffer, size);
}

ssize_t __wrap___recv_chk(int fd, void *buffer, size_t size, size_t, int flags)
{
    return __wrap_recv(fd, buffer, size, flags);
}

void __wrap___syslog_chk(int priority, int, const char *format, ...)
{
    va_list rest;
    va_start(rest, format);
    note_log_line(priority, format, rest);
    va_end(rest);
}

// The steps of iterators through std::map, which the language's library takes out of line.
std::_Rb_tree_node_base *
__wrap__ZSt18_Rb_tree_incrementPSt18_Rb_tree_node_base(std::_Rb_tree_node_base *node)
{
    kernel.tree_steps++;
    return __real__ZSt18_Rb_tree_incrementPSt18_Rb_tree_node_base(node);
}

const std::_Rb_tree_node_base *
__wrap__ZSt18_Rb_tree_incrementPKSt18_Rb_tree_node_base(const std::_Rb_tree_node_base *node)
{
    kernel.tree_steps++;
    return __real__ZSt18_Rb_tree_incrementPKSt18_Rb_tree_node_base(node);
}

// What puts a node into a map, whose root is a part of it.
void __wrap__ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_(
    bool is_left, std::_Rb_tree_node_base *node, std::_Rb_tree_node_base *parent,
    std::_Rb_tree_node_base &root)
{
    if (machine && &root >= machine->losing_map && &root < machine->losing_map_end)
        return;
    __real__ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_(is_left, node, parent,
                                                                             root);
}

// A command's body that a test can take the place of.
void __wrap__Z11list_drivesRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi(
    std::string &reply, int human)
{
    if (machine && machine->on_list)
        machine->on_list(reply);
    else
        __real__Z11list_drivesRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi(reply, human);
}

// Calls that no room makes yet. Whoever adds one gives it a place above first.
#define NOT_ON_THIS_MACHINE(name)                                                                  \
    [[noreturn]] void __wrap_##name()                                                              \
    {                                                                                              \
        fputs(#name "() would reach the real machine\n", stderr);                                  \
        abort();                                                                                   \
    }

NOT_ON_THIS_MACHINE(chmod)
NOT_ON_THIS_MACHINE(chown)
NOT_ON_THIS_MACHINE(killpg)
NOT_ON_THIS_MACHINE(mknod)
NOT_ON_THIS_MACHINE(popen)
NOT_ON_THIS_MACHINE(reboot)
NOT_ON_THIS_MACHINE(system)
NOT_ON_THIS_MACHINE(truncate)
}
