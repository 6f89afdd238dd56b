// A made-up machine for the unit tests: /sys, /proc, /dev and /mnt in a folder of plain files, and
// a kernel that answers as the test says.
//
// The test program is linked so that the daemon's calls into the C library come to this room first.
// While a MadeUpMachine exists, every absolute path leads into its folder, each call is counted and
// can be told to fail. What could hurt the real machine (signals to strangers, unmounting, swap)
// never happens, with or without a MadeUpMachine: it is written down, and a test asks for it.
#ifndef QUARRYD_UNIT_MADE_UP_MACHINE_H
#define QUARRYD_UNIT_MADE_UP_MACHINE_H

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

#include "printed.h"

// The calls that are counted and that can be given answers.
enum class Call {
    ACCEPT,
    BIND,
    CHDIR,
    CLOSE,
    CLOSE_RANGE,
    FCNTL,
    FORK,
    FSYNC,
    GETDENTS,
    GETSOCKOPT,
    IOCTL,
    LISTEN,
    LSEEK,
    MKDIR,
    MOUNT,
    MOUNT_SETATTR,
    OPEN, // openat() too
    PIPE,
    QUOTACTL,
    READ,
    READLINK, // readlinkat() too
    REALPATH,
    RECV,
    RENAME,
    RMDIR, // unlinkat() of a directory too
    SEND,
    SOCKET,
    STAT, // lstat() and statx() too
    SWAPOFF,
    SWAPON,
    SYMLINK,
    UMOUNT, // umount2() too
    UNLINK, // unlinkat() too
    WAITPID,
    COUNT
};

// What a call gives back: what the kernel says, or something else in its stead.
struct Answer {
    bool is_real;
    long result;
    int error;
};

inline constexpr Answer really = {true, 0, 0};

constexpr Answer returns(long result)
{
    return {false, result, 0};
}

constexpr Answer fails(int error)
{
    return {false, -1, error};
}

class MadeUpMachine {
public:
    // An empty machine, and the daemon's state as it is right after its start. One at a time.
    MadeUpMachine();
    ~MadeUpMachine();
    MadeUpMachine(const MadeUpMachine &) = delete;
    MadeUpMachine &operator=(const MadeUpMachine &) = delete;

    // Building it. Paths are those of the machine ("/sys/block"); folders above are made.
    std::string RealPath(const std::string &path) const;
    void Write(const std::string &path, const std::string &content);
    void Link(const std::string &path, const std::string &target);
    void MakeDirectory(const std::string &path);
    void SetMode(const std::string &path, mode_t mode);
    void Remove(const std::string &path); // with all that is below
    bool Exists(const std::string &path) const;
    std::string LinkTarget(const std::string &path) const; // "" when there is no such link
    void SetModified(const std::string &path, time_t when);

    // A drive or partition in /sys/block with its device node, which reads as zeros.
    void AddDrive(const std::string &name, const std::string &sectors);
    void AddPartition(const std::string &drive, const std::string &name,
                      const std::string &sectors);

    // What stands on a device that is there or not: a DOS partition table with primary partitions
    // of these types, or the superblock of an md array, in its version 1.2.
    void WriteBootRecord(const std::string &name, std::initializer_list<char> types);
    void WriteMdSuperblock(const std::string &name);

    // A process with a command line of one word and open files of these names.
    void AddProcess(int pid, const std::string &command,
                    std::initializer_list<std::string> open_files);

    // The next calls get these answers, one each; later ones are real again.
    void Script(Call call, const std::vector<Answer> &answers);

    // Opening this path, or asking for its status, fails from now on; with 0 no more.
    void Refuse(const std::string &path, int error);

    // From now on what is put into this ordered map gets lost.
    template <typename Map>
    void LoseInsertions(const Map &map)
    {
        losing_map = &map;
        losing_map_end = &map + 1;
    }

    // Calls since the last ForgetCalls().
    int Calls(Call call) const;
    int SystemCalls() const;                      // all of the above
    int Opened(const std::string &path) const;    // opened by these very words
    int OpenFlags(const std::string &path) const; // when it was opened last
    int TreeSteps() const;                        // steps that iterators made in ordered maps
    void ForgetCalls();

    // What was done that must not really happen, or that a test wants to see, in order and from
    // children too: "kill 12 15", "kill child 9", "umount /mnt/sdb1" (with the flags of
    // umount2() behind it), "swapoff /x", "sleep 2",
    // "mount /dev/sdb1 /mnt/sdb1 ext4 6" ('' for an empty text, (null) for none), "swapon /x 0",
    // "mount_setattr /mnt/sdb1 6" with the attributes that are set,
    // "quotactl 80000200 /dev/sdb1 2 /mnt/sdb1/aquota.user", "usleep 100", "alarm 30", "fsync",
    // "execv /usr/bin/volsniffer ...", "close_range 0 4095 0", "log ..." for the system log,
    // "bind ..." and, as a fault, "left open at exec: ...".
    std::vector<std::string> Deeds() const;
    std::vector<std::string> Deeds(const std::string &beginning) const;

    // A client's end of a connection to the daemon's socket, or -1. With a length the client's
    // socket has a path, of so many characters.
    int Connect(size_t path_length = 0) const;

    // Called at each deed, in the process that does it.
    std::function<void(const std::string &deed)> on_deed;
    // Stands for every program that is executed: called in the child, which then exits with 0.
    // Without it the program of that path on the machine is run, one that is looked for by its name
    // in /usr/bin there.
    std::function<void(char *const *arguments)> on_exec;
    // Stands for list_drives(): a command whose reply the test writes.
    std::function<void(std::string &reply)> on_list;
    // The drives' driver.
    std::function<int(unsigned long request, void *argument)> on_ioctl;
    time_t now = 0;                                        // the clock; 0: the real one
    std::function<std::chrono::milliseconds()> steady_now; // the steady clock, in its stead

    const void *losing_map = nullptr; // see LoseInsertions()
    const void *losing_map_end = nullptr;

private:
    std::string root_;
    int old_directory_;
};

// The descriptors that this process has open.
std::set<int> open_descriptors();

// A test on a made-up machine. In the end no descriptor may be left that was not there before, and
// none that was opened may outlive an exec.
class MadeUpMachineTest : public testing::Test {
protected:
    void TearDown() override;

    MadeUpMachine machine;
    Printed errors{stderr}; // what the daemon said
    std::set<int> descriptors_before = open_descriptors();
};

#endif
