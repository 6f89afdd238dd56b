// The made-up kernel behind a MadeUpMachine: for made_up_machine.cpp and printed.cpp alone.
#ifndef QUARRYD_UNIT_MADE_UP_KERNEL_H
#define QUARRYD_UNIT_MADE_UP_KERNEL_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <vector>

#include "made_up_machine.h"

// The linker's option --wrap gives these names: a call of open() becomes one of __wrap_open(), and
// __real_open() is the C library's.
extern "C" {
unsigned __real_alarm(unsigned);
int __real_accept4(int, sockaddr *, socklen_t *, int);
int __real_bind(int, const sockaddr *, socklen_t);
int __real_chdir(const char *);
int __real_close(int);
int __real_close_range(unsigned, unsigned, int);
int __real_execv(const char *, char *const *);
int __real_fcntl(int, int, ...);
pid_t __real_fork();
int __real_fsync(int);
ssize_t __real_getdents64(int, void *, size_t);
int __real_getsockopt(int, int, int, void *, socklen_t *);
int __real_ioctl(int, unsigned long, ...);
int __real_kill(pid_t, int);
int __real_listen(int, int);
off_t __real_lseek(int, off_t, int);
int __real_lstat(const char *, struct stat *);
int __real_mkdir(const char *, mode_t);
int __real_open(const char *, int, ...);
int __real_openat(int, const char *, int, ...);
int __real_pipe2(int *, int);
ssize_t __real_read(int, void *, size_t);
ssize_t __real_readlink(const char *, char *, size_t);
ssize_t __real_readlinkat(int, const char *, char *, size_t);
char *__real_realpath(const char *, char *);
ssize_t __real_recv(int, void *, size_t, int);
int __real_rename(const char *, const char *);
int __real_rmdir(const char *);
ssize_t __real_send(int, const void *, size_t, int);
int __real_socket(int, int, int);
int __real_stat(const char *, struct stat *);
int __real_statx(int, const char *, int, unsigned, struct statx *);
int __real_symlink(const char *, const char *);
time_t __real_time(time_t *);
int __real_unlink(const char *);
int __real_unlinkat(int, const char *, int);
pid_t __real_waitpid(pid_t, int *, int);
int64_t __real__ZNSt6chrono3_V212steady_clock3nowEv();
std::_Rb_tree_node_base *
__real__ZSt18_Rb_tree_incrementPSt18_Rb_tree_node_base(std::_Rb_tree_node_base *);
const std::_Rb_tree_node_base *
__real__ZSt18_Rb_tree_incrementPKSt18_Rb_tree_node_base(const std::_Rb_tree_node_base *);
void __real__ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_(
    bool, std::_Rb_tree_node_base *, std::_Rb_tree_node_base *, std::_Rb_tree_node_base &);
void __real__Z11list_drivesRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi(std::string &,
                                                                                  int);
}

// What is kept of a machine's calls.
struct Kernel {
    std::array<int, static_cast<size_t>(Call::COUNT)> calls = {};
    std::array<std::deque<Answer>, static_cast<size_t>(Call::COUNT)> scripts;
    std::map<std::string, int> refused;
    std::map<std::string, std::vector<int>> opened; // with these flags
    int tree_steps = 0;
};

// Deeds of the process and its children: one text, a line each.
struct DeedLog {
    std::atomic<size_t> length;
    char text[1 << 20];
};

extern MadeUpMachine *machine; // null while there is none
extern Kernel kernel;
extern DeedLog *deed_log;        // shared with children; null before the first machine
extern std::set<pid_t> children; // of the test program, not waited for yet

// A link's target on the real machine. -1 when there is none.
ssize_t really_read_link(int directory_fd, const char *path, std::string &target);

// The socket's name that clients of the made-up machine find: a real daemon may have the real one.
sockaddr_un stand_in_address(socklen_t &length);

#endif
