// A machine for one run of a fuzz target: its files are texts in memory, and nothing that the
// daemon does there reaches the kernel.
//
// The linker leads the daemon's calls here (fuzz/CMakeLists.txt has the list). While a machine
// lives, each of them is answered from it alone; without one they are the C library's own, for the
// fuzzer needs some of them. What no daemon may do breaks a promise: a second close, a descriptor
// that is left open or that an exec would pass on, a signal to a stranger, a mount or a name
// outside of /mnt, a mount of the boot or the main device that a client without rights has moved.
#ifndef QUARRYD_FUZZ_MACHINE_IN_MEMORY_H
#define QUARRYD_FUZZ_MACHINE_IN_MEMORY_H

#include <csetjmp>
#include <ctime>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// A client's end of a connection.
struct Client {
    uid_t uid = 0;
    std::deque<std::string> unread{}; // each is what one read can give at most
    std::string heard{};              // what the daemon has sent
    // What the daemon has read, and how much it had sent then.
    std::vector<std::pair<std::string, size_t>> taken{};
    std::deque<int> read_errors{}; // the next reads fail with these; 0 is one that does not
    std::deque<int> send_errors{}; // the next sends likewise
    size_t send_limit = ~static_cast<size_t>(0); // bytes that one send takes at most
    bool has_left = false;
    bool is_accepted = false;
    bool is_closed = false; // by the daemon
};

class MemoryMachine {
public:
    enum Kind { FILE_NODE, DIRECTORY_NODE, LINK_NODE, DEVICE_NODE };

    // Bytes that are not there, between the pieces of a device, are zeros.
    struct Node {
        Kind kind = FILE_NODE;
        std::string content;                   // of a file; where a link leads
        std::map<off_t, std::string> pieces{}; // of a device, by their places; they do not overlap
        off_t size = 0;                        // of a device
        std::string filesystem{};              // on a device; the only one that mounts it
        int error = 0;                         // opening it fails, unless this is 0
        bool is_write_protected = false;       // its mode allows nobody to write
        std::string opened{}; // of a link of /proc: the file, when it is not where the link says
    };

    MemoryMachine(); // the daemon's state is then as it is right after the start
    ~MemoryMachine();
    MemoryMachine(const MemoryMachine &) = delete;
    MemoryMachine &operator=(const MemoryMachine &) = delete;

    // Directories above are made. A name that is there already is replaced.
    void Write(const std::string &path, const std::string &content);
    void Link(const std::string &path, const std::string &target);
    Node &Device(const std::string &path, off_t size);
    void Remove(const std::string &path); // with all that is below
    Node *Find(std::string_view path);

    // A mount that is there from the start. /proc/mounts then tells what is mounted.
    void Mounted(const std::string &device, const std::string &mountpoint, const std::string &type,
                 const std::string &options);

    // Whether every mount still has the flags that protected the machine from what it holds.
    bool AreMountsProtected() const;

    // A process that has a link below /proc/PID. A stubborn one does not end at SIGTERM.
    void Process(pid_t pid, const std::string &link, const std::string &target, bool is_stubborn);

    using Nodes = std::map<std::string, Node, std::less<>>;
    Nodes nodes;
    std::deque<Client *> waiting_clients; // to be accepted
    std::string probe_answer;             // what the label probe program prints
    int child_status = 0;                 // how every child ends
    bool can_fork = true;
    int disc_status = 4;              // what optical drives say of themselves
    time_t now = 1000000;             // moved on by each sleep
    std::vector<std::string> deeds{}; // "swapon PATH", "swapoff PATH", "mount PATH", "umount PATH"
    size_t evictions = 0;
    size_t reads = 0;      // calls of read()
    bool may_leak = false; // some descriptor may be left open

    // For the calls alone.
    struct OpenFile {
        enum { CLOSED, NODE, PIPE_READ, PIPE_WRITE, CLIENT, SOCKET } what = CLOSED;
        std::string path{};
        Node *node = nullptr;
        off_t position = 0;
        bool at_end = false;
        Client *client = nullptr;
    };
    int OpenAs(const OpenFile &file, bool close_on_exec);
    OpenFile &At(int fd);
    void WriteMounts();

    struct Mount {
        std::string device;
        std::string mountpoint; // as it is, not as the table has it
        std::string type;
        unsigned long flags = 0;      // as mount(2) has them
        unsigned long protection = 0; // those of them that must stay
    };
    enum ProcessState { OBEDIENT, STUBBORN, ENDED };

    bool Uses(pid_t pid) const; // what is evicted
    void End(pid_t pid);
    std::vector<Mount> mounts{};
    std::vector<OpenFile> open_files{};
    std::map<pid_t, bool> children{}; // the flag: not yet waited for
    pid_t next_child = 5000;
    std::map<pid_t, ProcessState> processes{};
    std::set<std::string> first_mountpoints{}; // of mounts that were there from the start
    const Client *served = nullptr;            // the daemon's last call on a socket was for it
    bool becomes_child = false;                // the next fork() is the child's
    bool is_child = false;
    jmp_buf end_of_child{};
    std::string evicted{}; // the mount point whose users the child ends
    bool evicts_writers_only = false;
};

#endif
