"""Where the daemon calls the kernel, read off a trace by strace.

A site is a step of the scripted run, the call and what it is about: the path, or for a descriptor
what it was opened as."""

import re
from dataclasses import dataclass

# About no path: told apart by their order within the step.
COUNTED = ("clone", "clone3", "vfork", "wait4", "kill", "pipe2", "execve")
BEFORE_MAIN = "(before main)"
START = "(start)"
END = "(end)"
SANITIZER = "(sanitizer)"

# About what their descriptor was opened as, whatever texts they have.
OF_A_DESCRIPTOR = (
    "recvfrom", "sendto", "read", "write", "getsockopt", "fcntl", "getdents64", "mount_setattr"
)

# Of these the arguments after the first name what is meant.
PATH_ARGUMENT = {"mount": 1, "symlink": 1, "quotactl": 1}


@dataclass(frozen=True)
class Site:
    step: str
    call: str
    about: str

    def __str__(self):
        return f"{self.step}: {self.call} {self.about}".rstrip()


@dataclass(frozen=True)
class Call:
    number: int  # among the calls of that name, from 1
    site: Site
    text: str
    injected: bool


class _Descriptors:
    """What each descriptor was opened as."""

    def __init__(self):
        self.names = {0: "stdin", 1: "stdout", 2: "stderr"}

    def note(self, name, text, result, about):
        opened = re.match(r"(\d+)", result)
        if name == "pipe2":
            for end in re.findall(r"\d+", text.split("]")[0]):
                self.names[int(end)] = "pipe"
        elif opened and name in ("openat", "open"):
            self.names[int(opened[1])] = about
        elif opened and name == "socket":
            self.names[int(opened[1])] = about
        elif opened and name == "accept4":
            self.names[int(opened[1])] = "client"

    def of(self, text):
        first = re.match(r"(\d+)", text)
        return self.names.get(int(first[1]), "") if first else ""


def _about(name, text, descriptors):
    if name == "ioctl":
        return descriptors.of(text) + " " + (re.findall(r", (\w+)", text) or [""])[0]
    strings = re.findall(r'"((?:[^"\\]|\\.)*)"', text)
    if name in OF_A_DESCRIPTOR:
        about = descriptors.of(text)
        if name == "fcntl":
            about += " " + (re.findall(r"F_\w+", text) or [""])[0]
        if "MSG_PEEK" in text:
            about += " MSG_PEEK"
        return about
    if strings:
        about = strings[min(PATH_ARGUMENT.get(name, 0), len(strings) - 1)]
        if name in ("openat", "readlinkat", "newfstatat", "statx", "unlinkat"):
            folder = descriptors.of(text)
            about = f"{folder}/{about}" if folder and not about.startswith("/") else about
        if name == "mount":
            about += " " + "|".join(re.findall(r"MS_(?:REMOUNT|BIND)", text))
        return about.rstrip(" ")
    if name == "socket":
        control = "SOCK_STREAM|SOCK_CLOEXEC, 1)" in text
        return "log" if "SOCK_DGRAM" in text else "socket" if control else "name service"
    return descriptors.of(text)


def plain(about):
    """Without the numbers that differ from run to run."""
    about = re.sub(r"/proc/\d+", "/proc/PID", about)
    return re.sub(r"(/fd)/\d+|(?<=/proc)//\d+", r"\1/N", about)


def calls_in(trace, steps):
    """Every call of a trace in its order."""
    numbers, found = {}, []
    descriptors = _Descriptors()
    step, position = BEFORE_MAIN, -1
    in_step = {}  # of calls that are about nothing: how many there were
    requests = [s for s in steps if not s.startswith("(")]
    for line in trace.splitlines():
        if line.startswith("--- SIGTERM"):
            step = END
        match = re.match(r"(\w+)\((.*)", line)
        if not match:
            continue
        name, rest = match.groups()
        text, _, result = rest.rpartition(" = ")
        if step == BEFORE_MAIN and name == "openat" and '"/dev/null", O_RDWR' in text:
            step = START
        if name == "recvfrom" and position + 1 < len(requests):
            if f'"{requests[position + 1]}\\n"' in text:
                position += 1
                step = f"{position + 1} {requests[position]}"
        about = plain(_about(name, text, descriptors))
        # A sanitizer writes to a pipe of its own when it wants to know whether memory is there.
        if (name == "pipe2" and ", 0)" in text) or (name == "write" and about == "pipe"):
            about = SANITIZER
        elif text.startswith("-1, "):
            about = "any child"
        elif name in COUNTED:
            in_step[step, name] = in_step.get((step, name), 0) + 1
            about = f"#{in_step[step, name]}"
        numbers[name] = numbers.get(name, 0) + 1
        injected = "(INJECTED)" in result
        found.append(Call(numbers[name], Site(step, name, about), line, injected))
        descriptors.note(name, text, result, about)
    return found


def sites_in(calls):
    """The first call of each site, in the order of the run."""
    first = {}
    for call in calls:
        first.setdefault(call.site, call)
    return list(first.values())
