"""System calls that fail once: with which error, and what has to come of it."""

import re
from collections import Counter

import call_sites
import scripted_run
from call_sites import BEFORE_MAIN, END, SANITIZER, START

NO_ERROR = "(?!)"

# What a call plausibly fails with on a running machine; the first is the most telling.
ERRORS = {
    "accept4": ["EMFILE", "ECONNABORTED", "EINTR"],
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
    "lgetxattr": ["EIO"],
    "listen": ["EADDRINUSE"],
    "lseek": ["EIO"],
    "mkdir": ["EROFS"],
    "mount": ["EBUSY", "EIO"],
    "mount_setattr": ["EPERM", "ENOSYS"],
    "newfstatat": ["EACCES", "ENOENT"],
    "openat": ["EMFILE", "EACCES", "ENOENT", "EINTR"],
    "pipe2": ["EMFILE"],
    "quotactl": ["ESRCH"],
    "read": ["EIO", "EINTR", "0"],
    "readlink": ["EACCES"],
    "readlinkat": ["EACCES", "ENOENT"],
    "recvfrom": ["ECONNRESET", "ENOMEM", "EINTR"],
    "rename": ["EROFS"],
    "rmdir": ["EBUSY"],
    "sendto": ["EPIPE", "ENOBUFS", "1"],
    "socket": ["EMFILE"],
    "statx": ["EACCES"],
    "swapoff": ["ENOMEM"],
    "swapon": ["ENOMEM"],
    "symlink": ["EROFS"],
    "umount2": ["EBUSY", "EINTR"],
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


# Lines on standard error of which a life has one more or less by chance alone, and why: a poll
# forgets the labels that it did not find, so that the next listing probes again, or not yet; a
# stick is pulled while the poll reads it, or before; a notice is faster than the poll, or slower.
BY_CHANCE = re.compile(
    r"volsniffer failed for /dev/\w+, return value 1|Label: '\w*'|  'filesystem' = '\w+'|"
    r"Unable to check (sdb1?|sde1?) raid participation No such file or directory|"
    r"Device sde1? (just appeared \(polling\)|appeared \(.*hotplug\))|Process N died"
)


class Rule:
    """What is laid down for the failure of a site.

    says: a text that must appear on standard error or in a reply, and more often than in an
    undisturbed life. replies: what the reply to the request that met the fault may begin with
    instead; None when it may not differ. then: {step: the same} for requests that come later.
    rows: any row of a listing may differ on the way, not only those of the device that the call was
    about. stays: fields that may differ in the device's row, and in those of its partitions, when
    all is over. mounts: at the end of the requests something may be mounted that should not, or the
    other way round. left: so may it after the end. lines: lines that may be said, or not be said,
    beside those of says. slow: how many seconds longer a step may take. ends: the status with which
    the daemon refuses to start."""

    def __init__(
        self,
        call,
        about=".*",
        step=".*",
        says="",
        replies=None,
        rows=False,
        mounts=False,
        ends=0,
        then=None,
        stays=(),
        left=False,
        lines=NO_ERROR,
        slow=0.0,
        errors=".*",
    ):
        self.call, self.about, self.step = (re.compile(t) for t in (call, about, step))
        self.errors = re.compile(errors)
        self.says = re.compile(says)
        self.replies = replies and re.compile(replies)
        self.rows, self.mounts, self.ends = rows, mounts, ends
        self.then = {step: re.compile(t) for step, t in (then or {}).items()}
        self.stays, self.left, self.slow = stays, left, slow
        parts = [part.strip("|") for part in re.split(r"\n|\\n", says) if part.strip("|")]
        self.lines = re.compile("|".join([rf"(?:{part}).*" for part in parts] + [lines]))

    def fits(self, site, error):
        return (
            self.errors.fullmatch(error)
            and self.call.fullmatch(site.call)
            and self.about.fullmatch(site.about)
            and self.step.fullmatch(site.step)
        )


AT_START = re.escape(START)
AT_END = re.escape(END)
MOUNTING = r"\d+ mount .*"
INIT = r"init_socket\(\) cannot"
NO_START = "Socket initialization failed\n"
SECOND = "Sorry, quarryd is already running\n"
NOT_OPENED = "ERR cannot open device to perform operation"
NOT_TO_BE_OPENED = "ERR I can't open the device, much less mount it"
NO_MOUNTPOINT = "ERR unable to create mountpoint"
NO_EJECT = "ERR device refused eject"
NO_CLOSING = "ERR device refused close tray"
BY_PROBE = "ERR Label not found|ERR mount failed"
DRIVE = r"/sys/block/[a-z0-9]+"
NO_TABLE = "Cannot access /(proc/mounts|etc/fstab)\n"
NO_DEVICE = "ERR device does not exist.*|ERR Label not found"
ALWAYS = ".*"

# Lines that come or stay away when something before them went another way.
DEVICES = r"Device \w+ just (dis)?appeared \(polling\)"
SWAP = (
    r"SwapOff: switching off .*|WARNING: Cannot resolve path .*|Swap file exists \(2MB\)|"
    r"Setting up swapfile on main drive\.|setting up swap| --> .*|Shutting down any other swap .*|"
    r"Swap file can be changed by others than root, it is not used|Warning: cannot enable swap"
)
DRIVERS = (
    r"(Trying kernel|Trying FUSE|Attempting FUSE) driver .*|Asked to mount .*|"
    r"[\w.-]+: failed status 1|"
    r"Warning: Don't know how to modprobe for .*|Problem enabling (ACLs|quotas), oh well"
)
SEARCH = (
    r"For startup search: .*|mount failed for /mnt/\w+, Operation not permitted|"
    r"Cannot enable swap: .*|Found main partition .*"
)
LABELS = r"/dev/\w+ -> .*|Label (not )?found.*|Scanning devices to locate drive .*"
EVICTION = "killing processes using .*"
MOUNTS = f"{DRIVERS}|{EVICTION}|{SWAP}"
# No main partition is looked for; swap has no place then.
WITHOUT_MAIN = {
    "then": {r"\d+ swap(on|off)": "ERR swap (en|dis)able failed"},
    "rows": True,
    "stays": ["place"],
    "mounts": True,
    "lines": f"{SEARCH}|{MOUNTS}",
}
# Without the table of mounts nobody can be sure of anything.
WITHOUT_MOUNTS = {
    "says": NO_TABLE,
    "replies": "ERR mount succeeded but procfs doesn't show it|ERR (un)?mount failed|"
    "OK its not mounted anyway|OK- mount succee?ded|ERR cannot remount",
    # Mounted twice, or still.
    "then": {
        r"6 mount rw \^DATA|14 mount rw sdc1": "OK already mounted read/write",
        "7 mount rudeoff sdb1": "ERR unmount failed",
        "19 mount rw sdb1": "OK already mounted read/write|OK remounted as r/w",
    },
    "rows": True,
    "mounts": True,
    # What nobody can be sure of is not remounted; of two mounts the lower, older one is told of.
    "lines": rf"{MOUNTS}|.*still there.*|Cannot remount \w+ .*|Warning: cannot remount .*|"
    r"Warning: client asked to mount .*|perhaps the driver senses a problem\?|"
    r"Cannot protect /mnt/\w+ again .*",
    "slow": 12,
}
NO_CHILD = (
    r"volsniffer failed for /dev/\w+, return value 255|Cannot fork! .*|Label: ''|"
    r"[\w.-]+: failure to fork|Cannot wait for child process to clear processes out .*"
)

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
    Rule(
        "readlinkat",
        "/proc/PID/exe",
        AT_START,
        says="Cannot read /proc entry on what my EXE is",
        lines="My EXE path: .*",
    ),
    Rule(
        "openat|read",
        "/etc/passwd",
        AT_START,
        says="Cannot get credentials for (nobody|schedule)\n",
        lines="user (nobody|schedule): .*",
    ),
    # The C library makes of some failures that there is no such user.
    Rule(
        "openat|read|newfstatat|lseek",
        r"/etc/(passwd|nsswitch\.conf)",
        AT_START,
        lines="Cannot get credentials for .*|user (nobody|schedule): .*",
    ),
    # The defaults name no main partition.
    Rule(
        "read",
        "/etc/quarryd.conf",
        errors="0",
        **WITHOUT_MAIN,
    ),
    Rule(
        "openat|read",
        "/etc/quarryd.conf",
        says="Configuration file error, check /etc/quarryd.conf. Continuing with defaults\n",
        **WITHOUT_MAIN,
    ),
    # The kernel's tables.
    Rule("newfstatat", "/proc/mounts", says="WaRNING: cannot stat /etc/fstab\n"),
    # Without the table nothing is mounted, as far as the daemon can tell: a stick that is pulled
    # just then stays where it is.
    Rule(
        "openat|read",
        "/proc/mounts",
        "20 refresh",
        says=NO_TABLE,
        rows=True,
        mounts=True,
        left=True,
        lines=MOUNTS,
    ),
    # And what the daemon does not know of at its end is left as it is.
    Rule("openat|read", "/proc/mounts", AT_END, says=NO_TABLE, left=True, lines=MOUNTS),
    # The last request before the stick is pulled.
    Rule("openat|read", "/proc/mounts", "19 .*", left=True, **WITHOUT_MOUNTS),
    Rule("openat|read", "/proc/mounts", **WITHOUT_MOUNTS),
    Rule("openat|read", "/proc/filesystems", says="Cannot read /proc/filesystems\n"),
    Rule("openat", "/proc/partitions", says="Cannot open /proc/partitions\n"),
    # Drives. A directory that cannot be opened is that of a drive without partitions.
    Rule(
        "openat",
        "/sys/block/sdb",
        replies=NO_DEVICE,
        then={r"\d+ mount .*(sdb1|\^DATA)": NO_DEVICE + "|OK mount succeeded|OK its not mounted.*"},
        rows=True,
        mounts=True,
        lines=f"{DEVICES}|{MOUNTS}|{LABELS}|{SEARCH}",
    ),
    Rule(
        "openat",
        "/sys/block/sdc",
        replies=NO_DEVICE,
        then={r"\d+ mount .* sdc1": NO_DEVICE},
        rows=True,
        mounts=True,
        lines=f"{DEVICES}|{MOUNTS}|{LABELS}|{SEARCH}",
    ),
    Rule(
        "openat",
        "/sys/block/sdd",
        replies=NO_DEVICE,
        then={"8 mount ro sdd1": NO_DEVICE},
        rows=True,
        lines=f"{DEVICES}|{DRIVERS}|{SEARCH}",
    ),
    Rule(
        "openat|getdents64",
        rf"/sys/block|{DRIVE}",
        replies=NO_DEVICE,
        rows=True,
        lines=f"{DEVICES}|{LABELS}|{SEARCH}",
    ),
    # While it polls, the daemon asks a drive that it knows nothing more: what could not be read
    # when the drive came is missing until it comes again.
    Rule(
        "readlinkat",
        "/sys/(class|devices)/.*|/sys/block/.*/device",
        rows=True,
        stays=["connection"],
    ),
    Rule("openat|read", "/sys/.*/size", stays=["capacity"]),
    Rule("openat|read", "/sys/.*/(model|vendor|name|serial|type)", stays=["model"]),
    Rule("openat", "/dev/sr0", r"\d+ (eject|retract) .*", NOT_OPENED, NOT_OPENED),
    # The last listing's is counted to the request behind it.
    Rule("openat", "/dev/sr0", r"\d+ (list|enumerate|nonsense).*", lines="Unable to check sr0 .*"),
    Rule(
        "openat",
        "/dev/sd.1",
        MOUNTING,
        says=NOT_TO_BE_OPENED,
        replies=NOT_TO_BE_OPENED,
        then={"5 mount ro sdb1": "OK mount succeeded"},
        mounts=True,
        lines=MOUNTS,
    ),
    Rule("openat", "/dev/null"),
    # Pulled, so that it cannot be opened anyway.
    Rule("openat", "/dev/sdb1?", "20 refresh", lines="Unable to check .*"),
    # In other lives this is said by chance, so that it does not count.
    Rule(
        "openat",
        "/dev/(sdb1?|sde1?)",
        errors="ENOENT",
        lines="Unable to check .*|cannot open /dev/.*",
    ),
    Rule("openat", "/dev/.*", says=r"cannot open /dev/\w+ |Unable to check \w+ raid participation"),
    Rule("ioctl", ".* CDROMEJECT", says=NO_EJECT, replies=NO_EJECT),
    Rule("ioctl", ".* CDROMCLOSETRAY", says=NO_CLOSING, replies=NO_CLOSING),
    # Probes, programs and scripts: a program that cannot be run, heard or waited for.
    # Without its answer all that the kernel knows is tried, and a module may be waited for: what
    # cannot be mounted as the type that it has can be as another one. And a drive is not probed a
    # second time.
    Rule(
        "pipe2|clone3?|kill|read|wait4",
        r"#\d+|pipe",
        replies=BY_PROBE,
        then={
            r"\d+ mount .*sdb1": BY_PROBE + "|OK .*",
            r"\d+ mount .*\^DATA": BY_PROBE + "|OK .*",
            "8 mount ro sdd1": "OK mount succeeded",
        },
        rows=True,
        mounts=True,
        stays=["label", "filesystem"],
        lines=f"{NO_CHILD}|{MOUNTS}|{LABELS}",
        slow=8,
    ),
    # Mounting.
    Rule(
        "mkdir|newfstatat",
        "/mnt/sd.1",
        MOUNTING,
        replies=NO_MOUNTPOINT,
        then={"5 mount ro sdb1": "OK mount succeeded"},
        mounts=True,
        lines=MOUNTS,
    ),
    Rule("mount", "/mnt/sdc1 MS_REMOUNT", AT_START, "Warning: cannot remount /mnt/sdc1 read/w"),
    Rule(
        "mount",
        ".* MS_REMOUNT",
        says=r"Cannot remount \w+ .*",
        replies="ERR cannot remount",
        then={r"6 mount rw \^DATA|14 mount rw sdc1": "OK already mounted read/write"},
        mounts=True,
    ),
    Rule("mkdir", r"/mnt/\w+", AT_START, lines="mount failed for .*"),
    # In here all of them fail, for another reason.
    Rule(
        "mount",
        ".*",
        AT_START,
        says=r"mount failed for /mnt/\w+, (?!Operation not permitted)",
        lines="mount failed for .*",
    ),
    Rule(
        "mount",
        ".*",
        MOUNTING,
        says=r"Asked to mount \w+ at /mnt/\w+, as \w+ failed: (?!Operation not permitted)",
        lines=MOUNTS,
    ),
    # What was pulled is unmounted by the poll behind the last reply.
    Rule("umount2", ".*", "19 mount .*", r"wait, cannot unmount /mnt/\w+ "),
    Rule("umount2", ".*", MOUNTING, r"wait: umount failed\. "),
    Rule("umount2", ".*", says=r"wait, cannot unmount /mnt/\w+ "),
    Rule("symlink", "/mnt/main", says="Warning: cannot create main symlink\n"),
    Rule("symlink", ".*", says=r"Cannot create drive label symlink /mnt/\^\w+, "),
    Rule("newfstatat", "/proc", ALWAYS, "Warning: Cannot stat /proc\n"),
    # The search for the main partition: one that cannot be read is not it.
    # A drive that was looked at is not looked at again.
    Rule(
        "chdir",
        "/mnt/sdc1",
        AT_START,
        "Cannot chdir to /mnt/sdc1\n",
        replies=NO_ERROR,
        rows=True,
        stays=["place"],
        lines=f"{SEARCH}|{SWAP}|{MOUNTS}",
    ),
    Rule("chdir", "/", says="Cannot chdir to /\n"),
    Rule(
        "newfstatat|openat|read",
        r"\.claimsig",
        replies=NO_ERROR,
        rows=True,
        stays=["place"],
        lines=f"{SEARCH}|{SWAP}|{MOUNTS}",
    ),
    # Swap.
    Rule("swapon", ".*", AT_START, "Cannot set up swap .*\nWarning: cannot enable swap\n"),
    Rule("swapon", ".*", says="Cannot set up swap ", replies="ERR swap enable failed"),
    Rule("swapoff", ".*", AT_END, "Cannot remove swap\n|      ! |Unable to remove swapfile "),
    Rule("swapoff", ".*", says="Cannot remove swap\n", replies="ERR swap disable failed"),
    Rule("newfstatat", "/mnt", says="Cannot stat /mnt\n", lines=SWAP),
    # What cannot be read is no active swap, and what cannot be found no swap file.
    Rule("openat|read", "/proc/swaps", lines=SWAP),
    # A swap file that cannot be looked at may be anybody's.
    Rule(
        "readlink|newfstatat",
        "/mnt(/sdc1.*)?",
        replies="ERR swap enable failed",
        lines=SWAP,
    ),
    # Clients.
    Rule("getsockopt", "client", says="Cannot accept connection: Cannot obtain peer credentials\n"),
    Rule("fcntl", "client F_GETFL", says=r"fcntl\(sock_fd\) == -1! "),
    Rule("fcntl", "client F_SETFL", says=r"fcntl\(sock_fd,F_SETFL\) "),
    Rule("recvfrom", "client", says=r"HandleInput: Error is not EWOULDBLOCK\? "),
    Rule("sendto", "client", errors="1"),
    Rule("sendto", "client", says=r"HandleResponse: some other error than EWOULDBLOCK\? "),
    # Everything else is to be borne without a word; a line that could not be written is lost.
    Rule(".*"),
]

UNDISTURBED = Rule(".*")
UNHURRIED = 3.0  # seconds that a step may take longer than in another life on a busy machine

# A reply that tells of a failure is explained by a line, where one is laid down.
EXPLAINED = {
    "ERR mount failed": "failure to fork|failed status|Asked to mount|Trying kernel|Cannot access",
    "ERR unmount failed": r"still there\?!|yup, cannot unmount",
    "ERR cannot remount": "Cannot remount ",
    "ERR swap enable failed": "Cannot set up swap|mkswap error|Swap file can be changed",
    "ERR swap disable failed": "Cannot remove swap",
    "ERR Label not found": "Label not found\n",
}


def rule_for(site, error):
    return next(rule for rule in RULES if rule.fits(site, error))


def errors_of(site):
    """What it may fail with; a number is a result that the kernel only claims: a file that has
    ended, a reply of which it took one byte. The kernel's own tables do not end early."""
    return [
        error
        for error in ERRORS[site.call]
        if not (error == "0" and site.about.startswith("/proc/"))
    ]


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
        return Verdict(None, error, "not met", _life_problems(life, base, None, UNDISTURBED, error))
    site = met[0]
    if error not in errors_of(site):
        return Verdict(None, error, "not met", [])  # met elsewhere, where no kernel does that
    rule = rule_for(site, error)
    if rule.ends:
        return Verdict(site, error, "no start, told", _refusal_problems(life, rule))
    problems = _life_problems(life, base, site, rule, error)
    if any(reply.startswith("ERR") for _, reply in _differing_replies(life, base)):
        outcome = "request refused"
    elif rule.says.pattern and _times_said(rule, life) > _times_said(rule, base):
        outcome = "told"
    elif _differing_rows(life, base):
        outcome = "seen in a listing"
    else:
        outcome = "borne"
    return Verdict(site, error, outcome, problems)


def _life_problems(life, base, site, rule, error):
    problems = list(life.faults)
    if site and error == "1":
        problems += _restore_first_byte(life, base, site)
    if life.status != 0:
        problems.append(f"status {life.status}")
    problems += _reply_problems(life, base, site, rule)
    problems += _listing_problems(life, base, site, rule)
    if life.descriptors != base.descriptors:
        problems.append(f"descriptors {life.descriptors} instead of {base.descriptors}")
    if not rule.mounts and life.mounts != base.mounts:
        problems.append(f"mounted at the end of the requests: {life.mounts}")
    if not rule.left and life.left:
        problems.append(f"left behind: {life.left}")
    # A line that could not be written is lost.
    if not site or site.call != "write":
        if rule.says.pattern and _times_said(rule, life) <= _times_said(rule, base):
            problems.append(f"nobody said {rule.says.pattern!r}")
        problems += _word_problems(life, base, rule)
    for step, seconds in life.took.items():
        longest = base.took.get(step, 0) + rule.slow + UNHURRIED
        if seconds > longest:
            problems.append(f"{step!r} took {seconds:.1f} s instead of {longest:.1f} at most")
    return problems


def _restore_first_byte(life, base, site):
    """Of a reply whose first byte the kernel took and did not deliver."""
    for number, (step, expected) in enumerate(base.replies[: len(life.replies)]):
        if site.step == f"{number + 1} {step}":
            first = expected.split("\n")[0] + "\n"
            if life.replies[number][1] != first[1:]:
                return [f"of {expected!r} arrived {life.replies[number][1]!r}"]
            life.replies[number] = (step, expected)
    return []


def _times_said(rule, life):
    lines = [line for line in life.stderr.splitlines(True) if not BY_CHANCE.fullmatch(line[:-1])]
    return len(rule.says.findall("".join(lines + [reply for _, reply in life.replies])))


def _words(life):
    """The lines on standard error, without numbers that differ from life to life."""
    return Counter(re.sub(r"(?<=^Process )\d+", "N", line) for line in life.stderr.splitlines())


def _word_problems(life, base, rule):
    mine, theirs = _words(life), _words(base)
    problems = []
    for what, lines in (("said", mine - theirs), ("did not say", theirs - mine)):
        problems += [
            f"it {what} {line!r}"
            for line in lines
            if not BY_CHANCE.fullmatch(line) and not rule.lines.fullmatch(line)
        ]
    return problems


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
    on may have asked once more. Steps have their number in front."""
    if len(life.replies) != len(base.replies):
        return [("the end", f"ERR {len(life.replies)} replies")]
    found = []
    for number, ((step, reply), (_, expected)) in enumerate(zip(life.replies, base.replies)):
        reply = reply.removeprefix("(hung up) ")
        if not scripted_run.is_listing(step) and reply != expected:
            found.append((f"{number + 1} {step}", reply))
    return found


def _reply_problems(life, base, site, rule):
    problems = []
    for step, reply in _differing_replies(life, base):
        first = reply.split("\n")[0]
        allowed = [text for later, text in rule.then.items() if re.fullmatch(later, step)]
        if rule.replies and step in (site.step, _next_step(site.step)):
            allowed.append(rule.replies)
        if not any(text.fullmatch(first) for text in allowed):
            problems.append(f"{step!r} was answered {reply!r}")
        if first in EXPLAINED and not re.search(EXPLAINED[first], life.stderr):
            problems.append(f"nobody explained {first!r}")
    if "(hung up)" in "".join(reply for _, reply in life.replies):
        if "Cannot accept connection" not in life.stderr:
            problems.append("a client was hung up on")
    return problems


def _next_step(step):
    """What a trace tells of a poll behind a reply belongs to the request that comes next."""
    requests = [request for request in scripted_run.STEPS if not request.startswith("(")]
    number = int(step.split()[0]) if step[0].isdigit() else 0
    return f"{number + 1} {requests[number]}" if number < len(requests) else ""


def _differing_rows(life, base):
    """Names of the devices whose rows differ in any of the listings on the way."""
    names = set()
    for (step, mine), (_, theirs) in zip(life.replies, base.replies):
        if not scripted_run.is_listing(step):
            continue
        mine = mine.removeprefix("(hung up) ")
        for line in scripted_run.lines(mine) ^ scripted_run.lines(theirs):
            words = line.split()
            names.add(words[1].removeprefix("/dev/") if len(words) > 1 else line)
    return names


def _drive(name):
    return name.rstrip("0123456789")


def _mentioned(site):
    if not site:
        return set()
    if site.about in (".claimsig", "/etc/quarryd.conf"):  # that lead to the main partition
        return {"sdc"}
    return {_drive(word) for word in re.findall(r"\w+", site.about)}


# These do not name their drive: the path has a number, the child is that drive's probe.
NAMELESS = ("/sys/class/", "/sys/devices/", "#", "pipe")
PLACE = scripted_run.FIELDS.index("place")


def _listing_problems(life, base, site, rule):
    problems = []
    if sorted(scripted_run.rows(life.listing)) != life.devices:
        problems.append(f"in the end it knows {sorted(scripted_run.rows(life.listing))}")
    mine, theirs = scripted_run.rows(life.listing), scripted_run.rows(base.listing)
    differing = {}
    for name in sorted(set(mine) & set(theirs)):
        fields = zip(scripted_run.FIELDS, mine[name], theirs[name], strict=True)
        differing[name] = {field for field, one, other in fields if one != other}
        # Every four seconds hotplug mode looks at its drives anew: by chance in this life, or not.
        if name == "sdc" and mine[name][PLACE] in ("", "Main"):
            differing[name].discard("place")
    drives = {_drive(name) for name, fields in differing.items() if fields}
    excused = _mentioned(site)
    if site and site.about.startswith(NAMELESS) and len(drives) == 1:
        excused = drives
    for name, fields in differing.items():
        if fields - (set(rule.stays) if _drive(name) in excused else set()):
            problems.append(f"in the end it says of {name}: {mine[name]}")
    others = {name for name in _differing_rows(life, base) if _drive(name) not in _mentioned(site)}
    if others and not rule.rows:
        problems.append(f"other rows differ: {sorted(others)}")
    return problems
