#include "confinement.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// The user and the group that own nothing: the kernel itself takes this number where it has no
// other.
static constexpr unsigned nobody = 65534;

static bool become_nobody()
{
    return (getgroups(0, nullptr) == 0 || setgroups(0, nullptr) == 0) &&
           setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0;
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
    return (geteuid() != 0 || become_nobody()) && drop_capabilities() &&
           prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && limit_to_nothing(RLIMIT_NOFILE) &&
           limit_to_nothing(RLIMIT_NPROC) &&
           // Other processes of nobody may not look inside, and a crash leaves no copy of a drive's
           // content; some kernels would also end whoever shares the memory.
           prctl(PR_SET_DUMPABLE, 0) == 0;
}
