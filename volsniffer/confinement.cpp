#include "confinement.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// A user and a group for each process alone, of numbers that no system hands out: processes of one
// user may end and trace each other.
static constexpr unsigned first_user = 0x70000000;
// Where these mean nothing, in the container of a user who has only a few: who owns nothing there.
static constexpr unsigned nobody = 65534;

static bool become(unsigned user)
{
    return setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0;
}

static bool is_root()
{
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return getresuid(&real, &effective, &saved) < 0 || real == 0 || effective == 0 || saved == 0;
}

static bool become_a_stranger()
{
    return (getgroups(0, nullptr) == 0 || setgroups(0, nullptr) == 0) &&
           (become(first_user + static_cast<unsigned>(getpid())) || become(nobody));
}

static bool drop_capabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

// A filter of system calls would do more, and take a tenth of a run to be set up.
static bool limit_to_nothing(__rlimit_resource_t resource)
{
    const rlimit nothing = {0, 0};
    return setrlimit(resource, &nothing) == 0;
}

int give_up_rights()
{
    return (!is_root() || become_a_stranger()) && drop_capabilities() &&
           prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && limit_to_nothing(RLIMIT_NOFILE) &&
           limit_to_nothing(RLIMIT_NPROC) &&
           // A crash leaves no copy of a drive's content; some kernels would also end whoever
           // shares the memory.
           prctl(PR_SET_DUMPABLE, 0) == 0;
}
