#include "busy_processes.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/directory.h"
#include "base/small_files.h"
#include "base/words.h"
#include "mapped_files.h"
#include "mount/mount_tables.h"
#include "mount/process_eviction.h"

// A mount namespace other than this process's own.
struct MountNamespace {
    MountInfoTable table;
    int pid = 0; // whose table it is
    int processes = 0;
};

// What all processes are examined for.
struct Search {
    const std::vector<BusyTarget> &targets;
    const MountInfoTable &table;
    BusyReport &report;
    std::string own_namespace;
    std::map<std::string, MountNamespace> namespaces; // by the text of the link: "mnt:[4026531841]"
    std::map<int, size_t> mount_ids;                  // a mount's id to its target
    std::map<std::string, size_t> numbers;            // "8:17" to its target
    std::map<uid_t, std::string> user_names;
};

static std::string folder_of(int pid)
{
    return "/proc/" + std::to_string(pid) + "/";
}

// What a link below /proc leads to. Never more than the text is asked for.
static std::string link_of(int pid, const std::string &link)
{
    return read_link_at(AT_FDCWD, (folder_of(pid) + link).c_str(), PATH_MAX);
}

static std::vector<int> all_processes()
{
    std::vector<int> pids;
    Directory processes(AT_FDCWD, "/proc");
    while (const char *name = processes.NextName()) {
        const int pid = name[0] == '.' ? 0 : atoi(name);
        if (pid >= 1 && pid != getpid())
            pids.push_back(pid);
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

// The text behind a key of a file such as /proc/PID/status.
static std::string field_of(const std::string &path, const std::string &key)
{
    std::string text;
    read_whole_file(path.c_str(), text);
    LineReader lines(text);
    for (std::string_view line; lines.Next(line);) {
        if (!line.starts_with(key + ":"))
            continue;
        line.remove_prefix(key.size() + 1);
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        return std::string(line);
    }
    return std::string();
}

// A thread of the kernel, or a process that has ended: both hold nothing of their own.
static bool has_no_files(int pid)
{
    const unsigned long kernel_thread = 0x00200000;
    std::string text = read_sysfs_text(folder_of(pid) + "stat");
    const size_t name_end = text.rfind(") ");
    if (name_end == std::string::npos)
        return true;
    std::vector<std::string> fields;
    cut_at(std::string_view(text).substr(name_end + 2), ' ', fields);
    return fields.size() < 7 || fields[0] == "Z" || fields[0] == "X" ||
           (strtoul(fields[6].c_str(), nullptr, 10) & kernel_thread) != 0;
}

static void remember_mounts(Search &search, const MountInfoTable &table)
{
    for (const MountInfo &mount : table) {
        for (size_t i = 0; i < search.targets.size(); i++) {
            if (!is_mount_of(mount, search.targets[i]))
                continue;
            search.mount_ids.emplace(mount.id, i);
            search.numbers.emplace(mount.number, i);
        }
    }
}

// A namespace is seen best by a process whose root is the namespace's own.
static void remember_namespace(Search &search, int pid)
{
    const std::string link = link_of(pid, "ns/mnt");
    if (link.empty() || link == search.own_namespace)
        return;
    MountNamespace &other = search.namespaces[link];
    if (other.processes++ == 0 ||
        (link_of(other.pid, "root") != "/" && link_of(pid, "root") == "/")) {
        other.table = read_mount_info(std::to_string(pid));
        other.pid = pid;
    }
}

static const MountInfoTable &table_of(const Search &search, int pid)
{
    const auto other = search.namespaces.find(link_of(pid, "ns/mnt"));
    return other == search.namespaces.end() ? search.table : other->second.table;
}

static std::string user_name(Search &search, uid_t uid)
{
    auto [found, is_new] = search.user_names.emplace(uid, std::to_string(uid));
    if (is_new) {
        if (const passwd *user = getpwuid(uid))
            found->second = user->pw_name;
    }
    return found->second;
}

// One process and what it holds.
struct Process {
    int pid;
    std::vector<Holder> holders;
};

static void add_hold(const Search &search, Process &process, size_t target, const char *kind,
                     const std::string &what)
{
    Holder holder;
    holder.kind = kind;
    holder.device = search.targets[target].name;
    holder.pid = process.pid;
    holder.what = what;
    const bool is_known = // a file may be open more than once
        std::any_of(process.holders.begin(), process.holders.end(), [&](const Holder &other) {
            return other.kind == holder.kind && other.what == what;
        });
    if (!is_known)
        process.holders.push_back(holder);
}

// Root, working directory and program: where they lie is told by the table of mounts. False when
// this process must not be looked into.
static bool examine_links(const Search &search, Process &process)
{
    static const struct {
        const char *link;
        const char *kind;
    } links[] = {{"root", "root"}, {"cwd", "directory"}, {"exe", "program"}};
    const MountInfoTable &table = table_of(search, process.pid);
    for (const auto &[link, kind] : links) {
        errno = 0;
        const std::string target = link_of(process.pid, link);
        if (target.empty() && (errno == EACCES || errno == EPERM))
            return false;
        const MountInfo *mount = target.starts_with('/') ? mount_of_path(table, target) : nullptr;
        const auto found = mount ? search.mount_ids.find(mount->id) : search.mount_ids.end();
        if (found != search.mount_ids.end())
            add_hold(search, process, found->second, kind, target);
    }
    return true;
}

// Open files: the kernel tells on which mount each of them is.
static void examine_open_files(const Search &search, Process &process)
{
    const std::string folder = folder_of(process.pid);
    Directory files(AT_FDCWD, (folder + "fd").c_str());
    while (const char *file = files.NextName()) {
        const std::string target = read_link_at(files.Fd(), file, PATH_MAX);
        if (!target.starts_with('/'))
            continue;
        for (size_t i = 0; i < search.targets.size(); i++) {
            const auto &paths = search.targets[i].paths;
            if (std::find(paths.begin(), paths.end(), target) != paths.end())
                add_hold(search, process, i, "device", target);
        }
        const std::string id = field_of(folder + "fdinfo/" + file, "mnt_id");
        const auto found =
            id.empty() ? search.mount_ids.end() : search.mount_ids.find(atoi(id.c_str()));
        if (found != search.mount_ids.end())
            add_hold(search, process, found->second, "file", target);
    }
}

// Mapped files. A program has its own file mapped, of course.
static void examine_memory(Search &search, MappingReader &mappings, Process &process)
{
    std::vector<MappedFile> files;
    struct stat status;
    if (!mappings.Read(process.pid, files) &&
        stat(folder_of(process.pid).c_str(), &status) == 0) // otherwise it has gone
        search.report.unread_memory.push_back(process.pid);
    for (const MappedFile &file : files) {
        const bool is_program =
            std::any_of(process.holders.begin(), process.holders.end(), [&](const Holder &holder) {
                return holder.kind == "program" && holder.what == file.name;
            });
        const auto target = std::next(search.numbers.begin(), static_cast<long>(file.device));
        if (!is_program)
            add_hold(search, process, target->second, "mapping", file.name);
    }
}

// Whom the daemon would end is for the daemon's own rule to say, which goes by names.
static void ask_the_rule(const Search &search, Process &process)
{
    for (size_t i = 0; i < search.targets.size(); i++) {
        const std::string &cleared = search.report.devices[i].cleared;
        std::string what;
        if (cleared.empty() || link_under_path(process.pid, cleared, false, &what).empty())
            continue;
        // Nobody is in the way of a read-only mount that becomes one.
        const MountEntry *entry = FindMount("device", "/dev/" + search.targets[i].name);
        const bool by_rudero = entry && has_option(*entry, "rw") && !has_option(*entry, "ro") &&
                               !link_under_path(process.pid, cleared, true).empty();
        bool is_holder = false;
        for (Holder &holder : process.holders) {
            if (holder.device != search.targets[i].name)
                continue;
            is_holder = holder.is_ended_by_rudeoff = true;
            holder.is_ended_by_rudero = by_rudero;
        }
        if (is_holder)
            continue;
        add_hold(search, process, i, "bystander", what);
        process.holders.back().is_ended_by_rudeoff = true;
        process.holders.back().is_ended_by_rudero = by_rudero;
    }
}

static void examine_process(Search &search, MappingReader &mappings, int pid)
{
    Process process = {pid, {}};
    if (!examine_links(search, process)) {
        if (!has_no_files(pid))
            search.report.unseen_processes++;
        return;
    }
    examine_open_files(search, process);
    examine_memory(search, mappings, process);
    ask_the_rule(search, process);
    if (process.holders.empty() || has_no_files(pid))
        return;
    // "Uid:  real  effective  saved  filesystem"
    std::string ids = field_of(folder_of(pid) + "status", "Uid");
    if (ids.empty())
        return; // gone meanwhile
    ids.erase(0, ids.find('\t') + 1);
    for (Holder &holder : process.holders) {
        holder.uid = static_cast<uid_t>(strtoul(ids.c_str(), nullptr, 10));
        holder.user = user_name(search, holder.uid);
        holder.command = read_sysfs_text(folder_of(pid) + "comm");
        search.report.holders.push_back(holder);
    }
}

static void report_namespaces(Search &search)
{
    for (const auto &[link, other] : search.namespaces) {
        for (const MountInfo &mount : other.table) {
            for (const BusyTarget &target : search.targets) {
                if (!is_mount_of(mount, target))
                    continue;
                Holder holder;
                holder.kind = "namespace";
                holder.device = target.name;
                holder.what = mount.mountpoint;
                holder.more = link + " of process " + std::to_string(other.pid);
                if (other.processes > 1)
                    holder.more += " and " + std::to_string(other.processes - 1) + " more";
                search.report.holders.push_back(holder);
            }
        }
    }
}

void examine_processes(const std::vector<BusyTarget> &targets, const MountInfoTable &table,
                       BusyReport &report)
{
    const std::string own_namespace = read_link_at(AT_FDCWD, "/proc/self/ns/mnt", PATH_MAX);
    Search search = {targets, table, report, own_namespace, {}, {}, {}, {}};
    const std::vector<int> pids = all_processes();
    for (int pid : pids)
        remember_namespace(search, pid);
    // A device that is not mounted any more may have mapped files all the same.
    for (size_t i = 0; i < targets.size(); i++) {
        if (!targets[i].number.empty())
            search.numbers.emplace(targets[i].number, i);
    }
    remember_mounts(search, table);
    for (const auto &[link, other] : search.namespaces)
        remember_mounts(search, other.table);
    std::vector<std::string> numbers;
    for (const auto &[number, target] : search.numbers)
        numbers.push_back(number);
    MappingReader mappings(numbers);
    for (int pid : pids)
        examine_process(search, mappings, pid);
    report_namespaces(search);
}
