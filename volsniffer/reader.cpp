#include "reader.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "confinement.h"

// The reader's alarm ends it, in the midst of anything but an uninterruptible wait; a moment later
// its parent is sure that it will not come back.
static constexpr timeval reader_patience = {4, 900000};
static constexpr int parent_patience = 5;

static constexpr size_t stack_size = 1 << 20;

enum ParentRights : int { STILL_HELD, GIVEN_UP, KEPT };

// What parent and reader have in common. A lock-free integer is what a futex is made of.
struct Task {
    const char *path = nullptr;
    std::atomic<int> parent_rights = STILL_HELD; // ParentRights
    std::atomic<bool> is_done = false;           // the result is complete
    ProbeResult result = {};
};

static long futex(std::atomic<int> &word, int operation, int value)
{
    return syscall(SYS_futex, &word, operation | FUTEX_PRIVATE_FLAG, value, nullptr);
}

static bool parent_gives_up_its_rights(Task &task)
{
    while (task.parent_rights == STILL_HELD)
        futex(task.parent_rights, FUTEX_WAIT, STILL_HELD);
    return task.parent_rights == GIVEN_UP;
}

// Ends the reader in time, without help: when it is still root, its parent may not kill it any
// more. Whatever was inherited, the alarm is heard.
static void set_alarm()
{
    const itimerval alarm = {{0, 0}, reader_patience};
    signal(SIGALRM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setitimer(ITIMER_REAL, &alarm, nullptr);
}

// The reader, from its beginning to its end. The caller's standard output above all must not stay
// open here: who reads from it would wait for a process that cannot end.
static int read_and_tell(void *argument)
{
    Task &task = *static_cast<Task *>(argument);
    set_alarm();
    if (close_range(0, ~0U, 0) < 0) // an old kernel
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
            close(fd);
    Volume volume;
    if (open_volume(task.path, volume, task.result)) {
        if (!parent_gives_up_its_rights(task))
            return 1;
        if (give_up_rights()) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // not before: a change of user undoes it
            identify_volume(volume, task.result);
        } else {
            refuse(task.result, PROBE_UNREADABLE, "drop rights for", strerror(errno));
        }
    }
    // Also a closing may hang. The caller may want the device for itself: the answer comes after.
    close_volume(volume);
    task.is_done = true;
    return 0;
}

// A stack for the reader, with a page below it that nothing may touch. Null on failure.
static char *make_stack()
{
    void *stack = mmap(nullptr, stack_size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED || mprotect(stack, 4096, PROT_NONE) < 0)
        return nullptr;
    return static_cast<char *>(stack) + stack_size;
}

static timespec time_until(const timespec &deadline)
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long left =
        (deadline.tv_sec - now.tv_sec) * 1000000000LL + deadline.tv_nsec - now.tv_nsec;
    if (left < 0)
        return {0, 0};
    return {static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
}

// Waits for the reader's end, of which SIGCHLD tells. False when it did not come in time; status is
// the reader's when it did.
static bool await_end(pid_t reader, const sigset_t &child_signal, int &status)
{
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += parent_patience;
    while (waitpid(reader, &status, WNOHANG) != reader) {
        const timespec left = time_until(deadline);
        if (left.tv_sec == 0 && left.tv_nsec == 0)
            return false;
        // Why it ends is of no account: errno is the reader's, too.
        sigtimedwait(&child_signal, nullptr, &left);
    }
    return true;
}

void read_volume(const char *path, ProbeResult &result)
{
    static Task task;
    task.path = path;
    // Inherited as ignored, SIGCHLD would have the reader reaped by the kernel.
    signal(SIGCHLD, SIG_DFL);
    sigset_t child_signal;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child_signal, nullptr);

    char *stack = make_stack();
    const pid_t reader =
        stack == nullptr ? -1 : clone(read_and_tell, stack, CLONE_VM | SIGCHLD, &task);
    if (reader < 0) {
        refuse(result, PROBE_UNREADABLE, "examine", strerror(errno));
        return;
    }
    const bool is_confined = give_up_rights();
    const int error = errno;
    task.parent_rights = is_confined ? GIVEN_UP : KEPT;
    futex(task.parent_rights, FUTEX_WAKE, 1);

    int status = 0;
    const bool has_ended = await_end(reader, child_signal, status);
    if (!is_confined)
        refuse(result, PROBE_UNREADABLE, "drop rights for", strerror(error));
    else if (task.is_done)
        result = task.result;
    else if (!has_ended || (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM))
        refuse(result, PROBE_TOO_SLOW, "read", "no answer within five seconds");
    else
        refuse(result, PROBE_UNREADABLE, "read", "what is on it has ended the reader");
}
