"""System calls that fail once: with which error, and what has to come of it."""

import re

import call_sites
import scripted_run
from call_sites import BEFORE_MAIN, END, SANITIZER, START

# What a call plausibly fails with on a running machine; the first is the most telling.
ERRORS = {
    "accept4": ["EMFILE", "ECONNABORTED"],
    "bind": ["EADDRINUSE"],
    "chdir": ["EACCES"],
    "clock_nanosleep": ["EINTR"],
    "clone": ["EAGAIN", "ENOMEM"],
    "clone3": ["EAGAIN", "ENOMEM"],
    "connect": ["ECONNREFUSED"],
    "fcntl": ["EPERM"],
    "getdents64": ["EIO", "ENOMEM"],  # ENOENT is no fault: the directory was removed
    "getsockopt": ["ENOBUFS"],
    "ioctl": ["EIO"],
    "kill": ["ESRCH"],
    "listen": ["EADDRINUSE"],
    "lseek": ["EIO"],
    "mkdir": ["EROFS"],
    "mount": ["EBUSY", "EIO"],
    "newfstatat": ["EACCES", "ENOENT"],
    "openat": ["EMFILE", "EACCES", "ENOENT"],
    "pipe2": ["EMFILE"],
    "quotactl": ["ESRCH"],
    "read": ["EIO"],
    "readlink": ["EACCES"],
    "readlinkat": ["EACCES", "ENOENT"],
    "recvfrom": ["ECONNRESET", "ENOMEM"],
    "rename": ["EROFS"],
    "rmdir": ["EBUSY"],
    "sendto": ["EPIPE", "ENOBUFS"],
    "socket": ["EMFILE"],
    "statx": ["EACCES"],
    "swapoff": ["ENOMEM"],
    "swapon": ["ENOMEM"],
    "symlink": ["EROFS"],
    "umount2": ["EBUSY"],
    "unlink": ["EROFS"],
    "unlinkat": ["EROFS"],
    "wait4": ["ECHILD", "EINTR"],
    "write": ["ENOSPC", "EIO"],
}

# Calls that are left alone, and why.
SPARED = {
    "close": "the kernel frees the descriptor whatever it answers, and a refused call does not",
    "exit_group": "does not return",
    "execve": "in the children alone; it has tests of its own",
    "getpid": "cannot fail",
    "rt_sigaction": "cannot fail as it is called",
    "rt_sigprocmask": "cannot fail as it is called",
    "rt_sigreturn": "does not return",
}
# The allocator's and the sanitizer's own; another build meets their failures.
OF_THE_RUNTIME = {
    "brk", "clock_gettime", "futex", "getuid", "getrandom", "gettid", "madvise", "mmap", "mprotect",
    "munmap", "open", "prctl", "prlimit64", "sched_getaffinity", "set_robust_list", "sigaltstack",
}


class Rule:
    """What is laid down for the failure of a site.

    says: a text that must appear on standard error or in a reply. replies: which replies may now
    begin with ERR where they did not before; None when no reply may differ at all. rows: any row of
    a listing may differ, not only those of the device that the call was about. mounts: something
    may be mounted in the end that should not, or the other way round. ends: the status with which
    the daemon refuses to start."""

    def __init__(
        self, call, about=".*", step=".*", says="", replies=None, rows=False, mounts=False, ends=0
    ):
        self.call, self.about, self.step = (re.compile(t) for t in (call, about, step))
        self.says = re.compile(says)
        self.replies = replies and re.compile(replies)
        self.rows, self.mounts, self.ends = rows, mounts, ends

    def fits(self, site):
        return (
            self.call.fullmatch(site.call)
            and self.about.fullmatch(site.about)
            and self.step.fullmatch(site.step)
        )


AT_START = re.escape(START)
AT_END = re.escape(END)
MOUNTING = r"\d+ mount .*"
NO_ERROR = "(?!)"
INIT = r"init_socket\(\) cannot"
NO_START = "Socket initialization failed\n"
SECOND = "Sorry, quarryd is already running\n"
NOT_OPENED = "ERR cannot open device to perform operation"
NOT_TO_BE_OPENED = "ERR I can't open the device, much less mount it"
NO_EJECT = "ERR device refused eject"
NO_CLOSING = "ERR device refused close tray"
BY_PROBE = "ERR Label not found|ERR mount failed"
DRIVE = r"/sys/block/[a-z0-9]+"

# The first that fits counts.
RULES = [
    # A start that is refused.
    Rule("socket", "socket", AT_START, rf"{INIT} create socket .*\n{NO_START}", ends=1),
    Rule("bind", "quarryd", AT_START, rf"{INIT} bind socket .*\n{NO_START}", ends=1),
    Rule("listen", ".*", AT_START, rf"listen\(\) cannot set up socket .*\n{NO_START}", ends=1),
    Rule("fcntl", "socket F_GETFL", AT_START, rf"fcntl\(F_GETFL\) failed .*\n{NO_START}", ends=1),
    Rule("fcntl", "socket F_SETFL", AT_START, rf"fcntl\(F_SETFL\) failed .*\n{NO_START}", ends=1),
    Rule("openat", "/proc", AT_START, rf"cannot opendir proc, .*\n{SECOND}", ends=1),
    # A start with a warning.
    Rule("readlinkat", "/proc/PID/exe", AT_START, "Cannot read /proc entry on what my EXE is"),
    Rule("openat|read", "/etc/passwd", AT_START, "Cannot get credentials for (nobody|schedule)\n"),
    Rule(
        "openat|read",
        "/etc/quarryd.conf",
        says="Configuration file error, check /etc/quarryd.conf. Continuing with defaults\n",
        replies=NO_ERROR,
        rows=True,
    ),
    # The kernel's tables.
    Rule("newfstatat", "/proc/mounts", says="WaRNING: cannot stat /etc/fstab\n"),
    # Without the table nothing is mounted, as far as the daemon can tell.
    Rule(
        "openat|read",
        "/proc/mounts",
        says="Cannot access /(proc/mounts|etc/fstab)\n",
        replies="ERR mount succeeded but procfs doesn't show it|ERR (un)?mount failed",
        rows=True,
        mounts=True,
    ),
    Rule("openat|read", "/proc/filesystems", says="Cannot read /proc/filesystems\n"),
    Rule("openat", "/proc/partitions", says="Cannot open /proc/partitions\n"),
    # Drives. A directory that cannot be opened is that of a drive without partitions.
    Rule(
        "openat",
        DRIVE,
        replies="ERR device does not exist.*|ERR Label not found",
        rows=True,
        mounts=True,
    ),
    Rule("openat|getdents64", rf"/sys/block|{DRIVE}", replies="ERR device does.*", rows=True),
    Rule("readlinkat", "/sys/(class|devices)/.*|/sys/block/.*/device", rows=True),
    Rule("openat", "/dev/sr0", r"\d+ (eject|retract) .*", NOT_OPENED, NOT_OPENED),
    Rule("openat", "/dev/sr0", r"\d+ (list|enumerate).*"),
    Rule("openat", "/dev/sd.1", MOUNTING, NOT_TO_BE_OPENED, NOT_TO_BE_OPENED),
    Rule("openat", "/dev/null"),
    Rule("openat", "/dev/.*", says=r"cannot open /dev/\w+ |Unable to check \w+ raid participation"),
    Rule("ioctl", ".* CDROMEJECT", says=NO_EJECT, replies=NO_EJECT),
    Rule("ioctl", ".* CDROMCLOSETRAY", says=NO_CLOSING, replies=NO_CLOSING),
    # Probes, programs and scripts: a program that cannot be run, heard or waited for.
    Rule("pipe2|clone3?|kill|read", r"#\d+|pipe", replies=BY_PROBE, rows=True, mounts=True),
    Rule("wait4", r"#\d+", replies=BY_PROBE, rows=True, mounts=True),
    # Mounting.
    Rule("mkdir|newfstatat", "/mnt/sd.1", MOUNTING, replies="ERR unable to create mountpoint"),
    Rule("mount", "/mnt/sdc1 MS_REMOUNT", AT_START, "Warning: cannot remount /mnt/sdc1 read/w"),
    Rule("mount", r".* MS_REMOUNT\|MS_BIND", says=r"Cannot protect /mnt/\w+ again "),
    Rule(
        "mount",
        ".* MS_REMOUNT",
        says=r"Cannot remount \w+ .*",
        replies="ERR cannot remount",
        mounts=True,
    ),
    Rule("mount", ".*", AT_START, r"mount failed for /mnt/\w+, "),
    Rule("mount", ".*", MOUNTING, r"Asked to mount \w+ at /mnt/\w+, as \w+ failed: "),
    Rule("umount2", ".*", MOUNTING, r"wait: umount failed\. "),
    Rule("umount2", ".*", says=r"wait, cannot unmount /mnt/\w+ "),
    Rule("symlink", "/mnt/main", says="Warning: cannot create main symlink\n"),
    Rule("symlink", ".*", says=r"Cannot create drive label symlink /mnt/\^\w+, "),
    Rule("newfstatat", "/proc", MOUNTING, "Warning: Cannot stat /proc\n"),
    # The search for the main partition: one that cannot be read is not it.
    Rule("chdir", "/mnt/sdc1", AT_START, "Cannot chdir to /mnt/sdc1\n", NO_ERROR, rows=True),
    Rule("chdir", "/", says="Cannot chdir to /\n"),
    Rule("newfstatat|openat|read", r"\.claimsig", replies=NO_ERROR, rows=True),
    # Swap.
    Rule("swapon", ".*", AT_START, "Cannot set up swap .*\nWarning: cannot enable swap\n"),
    Rule("swapon", ".*", says="Cannot set up swap ", replies="ERR swap enable failed"),
    Rule("swapoff", ".*", AT_END, "Cannot remove swap\n|      ! |Unable to remove swapfile "),
    Rule("swapoff", ".*", says="Cannot remove swap\n", replies="ERR swap disable failed"),
    Rule("newfstatat", "/mnt", says="Cannot stat /mnt\n"),
    # Clients.
    Rule("getsockopt", "client", says="Cannot accept connection: Cannot obtain peer credentials\n"),
    Rule("fcntl", "client F_GETFL", says=r"fcntl\(sock_fd\) == -1! "),
    Rule("fcntl", "client F_SETFL", says=r"fcntl\(sock_fd,F_SETFL\) "),
    Rule("recvfrom", "client", says=r"HandleInput: Error is not EWOULDBLOCK\? "),
    Rule("sendto", "client", says=r"HandleResponse: some other error than EWOULDBLOCK\? "),
    # Everything else is to be borne without a word; a line that could not be written is lost.
    Rule(".*"),
]

# A reply that tells of a failure is explained by a line, where one is laid down.
EXPLAINED = {
    "ERR mount failed": "failure to fork|failed status|Asked to mount|Trying kernel|Cannot access",
    "ERR unmount failed": r"still there\?!|yup, cannot unmount",
    "ERR cannot remount": "Cannot remount ",
    "ERR swap enable failed": "Cannot set up swap|mkswap error",
    "ERR swap disable failed": "Cannot remove swap",
    "ERR Label not found": "Label not found\n",
}


def rule_for(site):
    return next(rule for rule in RULES if rule.fits(site))


def sites_to_try(trace):
    """Each site of the daemon's own that may fail, in the order of the run."""
    calls = call_sites.calls_in(trace, scripted_run.STEPS)
    return [
        call
        for call in call_sites.sites_in(calls)
        if call.site.step != BEFORE_MAIN
        and call.site.call in ERRORS
        and call.site.about != SANITIZER
    ]


def unexplained(trace):
    """Calls after the beginning of main that nobody has thought of."""
    calls = call_sites.calls_in(trace, scripted_run.STEPS)
    names = {call.site.call for call in calls if call.site.step != BEFORE_MAIN}
    return sorted(names - set(ERRORS) - set(SPARED) - OF_THE_RUNTIME)


class Verdict:
    """What became of one life with a fault in it."""

    def __init__(self, site, error, outcome, problems):
        self.site = site  # None: the fault was never met
        self.error = error
        self.outcome = outcome
        self.problems = problems


def judge(life, base, error):
    """Compares a life with an undisturbed one."""
    calls = call_sites.calls_in(life.trace, scripted_run.STEPS)
    met = [call.site for call in calls if call.injected]
    if not met or met[0].about == SANITIZER or met[0].step == BEFORE_MAIN:
        return Verdict(None, error, "not met", [])
    site = met[0]
    rule = rule_for(site)
    if rule.ends:
        return Verdict(site, error, "no start, told", _refusal_problems(life, rule))
    problems = list(life.faults)
    if life.status != 0:
        problems.append(f"status {life.status}")
    differing = _differing_replies(life, base)
    listings = _differing_rows(life, base)
    problems += _reply_problems(life, differing, rule)
    problems += _listing_problems(life, base, site, rule, listings)
    if life.descriptors != base.descriptors:
        problems.append(f"descriptors {life.descriptors} instead of {base.descriptors}")
    if not rule.mounts and (life.mounts, life.left) != (base.mounts, base.left):
        problems.append(f"mounts {life.mounts}, in the end {life.left}")
    said = life.stderr + "".join(reply for _, reply in life.replies)
    lost = site.call == "write"
    if not lost and not rule.says.search(said):
        problems.append(f"nobody said {rule.says.pattern!r}")
    if any(reply.startswith("ERR") for _, reply in differing):
        outcome = "request refused"
    elif rule.says.pattern:
        outcome = "told"
    elif listings:
        outcome = "seen in a listing"
    else:
        outcome = "borne"
    return Verdict(site, error, outcome, problems)


def _refusal_problems(life, rule):
    problems = list(life.faults)
    if life.status != rule.ends:
        problems.append(f"status {life.status} instead of {rule.ends}")
    if not rule.says.search(life.stderr):
        problems.append(f"nobody said {rule.says.pattern!r}")
    if life.replies:
        problems.append("it served clients")
    return problems


def _differing_replies(life, base):
    """(step, reply) where a reply that is no listing is not what it was; a client that was hung up
    on may have asked once more."""
    if len(life.replies) != len(base.replies):
        return [("the end", f"ERR {len(life.replies)} replies")]
    found = []
    for (step, reply), (_, expected) in zip(life.replies, base.replies):
        if not scripted_run.is_listing(step) and reply.removeprefix("(hung up) ") != expected:
            found.append((step, reply.removeprefix("(hung up) ")))
    return found


def _reply_problems(life, differing, rule):
    problems = []
    for step, reply in differing:
        first = reply.split("\n")[0]
        if rule.replies is None or not reply.startswith(("OK", "ERR")):
            problems.append(f"{step!r} was answered {reply!r}")
        elif reply.startswith("ERR") and not rule.replies.fullmatch(first):
            problems.append(f"{step!r} was answered {reply!r}")
        if first in EXPLAINED and not re.search(EXPLAINED[first], life.stderr):
            problems.append(f"nobody explained {first!r}")
    if life.stderr and "(hung up)" in "".join(r for _, r in life.replies):
        if "Cannot accept connection" not in life.stderr:
            problems.append("a client was hung up on")
    return problems


def _differing_rows(life, base):
    """Names of the devices whose rows differ in any of the listings."""
    pairs = [(life.listing, base.listing)]
    pairs += [
        (mine.removeprefix("(hung up) "), theirs)
        for (step, mine), (_, theirs) in zip(life.replies, base.replies)
        if scripted_run.is_listing(step)
    ]
    names = set()
    for mine, theirs in pairs:
        for line in scripted_run.lines(mine) ^ scripted_run.lines(theirs):
            words = line.split()
            names.add(words[1].removeprefix("/dev/") if len(words) > 1 else line)
    return names


def _listing_problems(life, base, site, rule, listings):
    problems = []
    if sorted(scripted_run.rows(life.listing)) != life.devices:
        problems.append(f"in the end it knows {sorted(scripted_run.rows(life.listing))}")
    mentioned = {word.rstrip("0123456789") for word in re.findall(r"\w+", site.about)}
    others = {name for name in listings if name.rstrip("0123456789") not in mentioned}
    if others and not rule.rows:
        problems.append(f"other rows differ: {sorted(others)}")
    return problems
