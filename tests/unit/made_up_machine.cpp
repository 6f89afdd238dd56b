// Building a made-up machine, and asking it what happened.
#include "made_up_machine.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "inspect/device_name_set.h"
#include "inspect/proc_partitions.h"
#include "inspect/raid_members.h"
#include "made_up_kernel.h"
#include "mount/mount_tables.h"
#include "protocol/control_socket.h"
#include "registry/block_device.h"
#include "registry/connection_types.h"

namespace fs = std::filesystem;

// Hundreds of children are forked: the less memory there is that awaits reuse, the faster.
extern "C" const char *__asan_default_options()
{
    return "quarantine_size_mb=8";
}

static void forget_the_daemons_state()
{
    close_control_socket();
    for (const auto &[name, drive] : blockdev_list)
        drive->partitions.clear();
    for (const auto &[name, partition] : partdev_list) {
        partition->refcount = 0; // no complaint: whatever held it belonged to the test
        delete partition;
    }
    for (const auto &[name, drive] : blockdev_list) {
        drive->refcount = 0;
        delete drive;
    }
    partdev_list.clear();
    blockdev_list.clear();
    raid_members.clear();
    proc_partitions.clear();
    device_name_set.clear();
    mount_list.clear();
    fstab_list.clear();
    fstab_mtime = 0;
    filesystems_list.clear();
    filesystems_nodev_list.clear();
    terminate_requested = 0;
    hotplug_mode = no_force_shutdown = 0;
    nobody_uid = nobody_gid = schedule_gid = 0;
    schedule_uid = -1; // there is no such user
    next_full_rescan = 0;
    startup_child_pid = -1;
    for (std::string *text :
         {&boot_drive, &boot_partition, &main_drive, &main_partition, &swap_path})
        text->clear();
    settings = Settings();
    init_connection_types();
}

// A test that waits for what never comes ends the run, by name.
static void give_up_waiting(int)
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    printf("%s.%s takes too long\n", test ? test->test_suite_name() : "", test ? test->name() : "");
    fflush(stdout);
    abort();
}

static const unsigned test_seconds = 60;

// In memory where the system has a place for that: some machines have thousands of files.
static std::string place_for_machines()
{
    const char *const memory = "/dev/shm";
    return access(memory, W_OK | X_OK) == 0 ? std::string(memory) + "/" : testing::TempDir();
}

MadeUpMachine::MadeUpMachine() : old_directory_(__real_open(".", O_PATH | O_CLOEXEC))
{
    root_ = place_for_machines() + "quarryd-unit-XXXXXX";
    if (machine || !mkdtemp(root_.data())) {
        fputs("cannot make up a machine\n", stderr);
        abort();
    }
    if (!deed_log)
        deed_log = static_cast<DeedLog *>(mmap(nullptr, sizeof(DeedLog), PROT_READ | PROT_WRITE,
                                               MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    deed_log->length = 0;
    kernel = Kernel();
    forget_the_daemons_state();
    for (const char *folder : {"/dev", "/etc", "/mnt", "/proc", "/sys/block"})
        MakeDirectory(folder);
    Link("/dev/null", "/dev/null");
    machine = this;
    signal(SIGALRM, give_up_waiting);
    __real_alarm(test_seconds);
}

MadeUpMachine::~MadeUpMachine()
{
    __real_alarm(0);
    forget_the_daemons_state();
    machine = nullptr;
    for (pid_t child : children) {
        __real_kill(child, SIGKILL);
        __real_waitpid(child, nullptr, 0);
    }
    children.clear();
    if (fchdir(old_directory_) < 0)
        fputs("cannot leave the made-up machine\n", stderr);
    __real_close(old_directory_);
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string MadeUpMachine::RealPath(const std::string &path) const
{
    return path.starts_with(root_) ? path : root_ + path;
}

static void make_folders_above(const std::string &place)
{
    fs::create_directories(fs::path(place).parent_path());
}

void MadeUpMachine::Write(const std::string &path, const std::string &content)
{
    make_folders_above(RealPath(path));
    std::ofstream(RealPath(path), std::ios::binary) << content;
}

void MadeUpMachine::Link(const std::string &path, const std::string &target)
{
    make_folders_above(RealPath(path));
    fs::create_symlink(target, RealPath(path));
}

void MadeUpMachine::MakeDirectory(const std::string &path)
{
    fs::create_directories(RealPath(path));
}

void MadeUpMachine::SetMode(const std::string &path, mode_t mode)
{
    fs::permissions(RealPath(path), static_cast<fs::perms>(mode));
}

void MadeUpMachine::Remove(const std::string &path)
{
    fs::remove_all(RealPath(path));
}

bool MadeUpMachine::Exists(const std::string &path) const
{
    return fs::symlink_status(RealPath(path)).type() != fs::file_type::not_found;
}

std::string MadeUpMachine::LinkTarget(const std::string &path) const
{
    std::string target;
    really_read_link(AT_FDCWD, RealPath(path).c_str(), target);
    return target;
}

void MadeUpMachine::SetModified(const std::string &path, time_t when)
{
    const timespec times[] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, RealPath(path).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

void MadeUpMachine::AddDrive(const std::string &name, const std::string &sectors)
{
    Write("/sys/block/" + name + "/size", sectors + "\n");
    Write("/dev/" + name, std::string());
    fs::resize_file(RealPath("/dev/" + name), 1 << 20);
}

void MadeUpMachine::AddPartition(const std::string &drive, const std::string &name,
                                 const std::string &sectors)
{
    Write("/sys/block/" + drive + "/" + name + "/size", sectors + "\n");
    Write("/dev/" + name, std::string());
    fs::resize_file(RealPath("/dev/" + name), 1 << 20);
}

void MadeUpMachine::WriteBootRecord(const std::string &name, std::initializer_list<char> types)
{
    std::string sectors(1024, '\0');
    size_t entry = 446;
    for (const char type : types) {
        sectors[entry + 4] = type;
        entry += 16;
    }
    sectors.replace(510, 2, "\x55\xAA");
    Write("/dev/" + name, sectors);
}

void MadeUpMachine::WriteMdSuperblock(const std::string &name)
{
    std::string bytes(8192, '\0');
    bytes.replace(0, 12, std::string("\xFC\x4E\x2B\xA9\x01\0\0\0\x02\0\0\0", 12));
    Write("/dev/" + name, bytes);
}

void MadeUpMachine::AddProcess(int pid, const std::string &command,
                               std::initializer_list<std::string> open_files)
{
    const std::string process = "/proc/" + std::to_string(pid);
    Write(process + "/cmdline", command + std::string("\0--option\0", 10));
    MakeDirectory(process + "/fd");
    int number = 0;
    for (const std::string &file : open_files)
        Link(process + "/fd/" + std::to_string(number++), file);
}

void MadeUpMachine::Script(Call call, const std::vector<Answer> &answers)
{
    kernel.scripts[static_cast<size_t>(call)].assign(answers.begin(), answers.end());
}

void MadeUpMachine::Refuse(const std::string &path, int error)
{
    if (error != 0)
        kernel.refused[path] = error;
    else
        kernel.refused.erase(path);
}

int MadeUpMachine::Calls(Call call) const
{
    return kernel.calls[static_cast<size_t>(call)];
}

int MadeUpMachine::SystemCalls() const
{
    int sum = 0;
    for (int count : kernel.calls)
        sum += count;
    return sum;
}

int MadeUpMachine::Opened(const std::string &path) const
{
    auto found = kernel.opened.find(path);
    return found == kernel.opened.end() ? 0 : static_cast<int>(found->second.size());
}

int MadeUpMachine::OpenFlags(const std::string &path) const
{
    auto found = kernel.opened.find(path);
    return found == kernel.opened.end() ? -1 : found->second.back();
}

int MadeUpMachine::TreeSteps() const
{
    return kernel.tree_steps;
}

void MadeUpMachine::ForgetCalls()
{
    kernel.calls.fill(0);
    kernel.opened.clear();
    kernel.tree_steps = 0;
}

std::vector<std::string> MadeUpMachine::Deeds() const
{
    return Deeds("");
}

std::vector<std::string> MadeUpMachine::Deeds(const std::string &beginning) const
{
    std::vector<std::string> deeds;
    std::string_view rest(deed_log->text, deed_log->length);
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        if (rest.starts_with(beginning))
            deeds.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end + 1);
    }
    return deeds;
}

int MadeUpMachine::Connect(size_t path_length) const
{
    const int fd = __real_socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t length;
    if (path_length > 0) {
        sockaddr_un own = {};
        own.sun_family = AF_UNIX;
        std::string path = root_ + "/";
        path.resize(path_length, 'c');
        memcpy(own.sun_path, path.data(), path.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        EXPECT_EQ(__real_bind(fd, reinterpret_cast<const sockaddr *>(&own), length), 0);
    }
    const sockaddr_un address = stand_in_address(length);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), length) == 0)
        return fd;
    __real_close(fd);
    return -1;
}

std::set<int> open_descriptors()
{
    std::set<int> descriptors;
    DIR *directory = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(directory)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(directory))
            descriptors.insert(fd);
    }
    closedir(directory);
    return descriptors;
}

void MadeUpMachineTest::TearDown()
{
    close_control_socket();
    EXPECT_EQ(open_descriptors(), descriptors_before) << "descriptors are not closed";
    EXPECT_EQ(machine.Deeds("left open at exec"), std::vector<std::string>());
}
