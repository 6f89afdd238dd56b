"""One life of the daemon, always the same: start, listings, mounting and unmounting, trays, swap,
notices, a stick that is pulled, and the end. What it said and what became of the machine is kept,
so that two lives can be compared of which one had a system call refused.

In here swap, quotas and trays are answered by a filter of calls, drives are files, and the one
stick that is really mounted holds a tmpfs in its name (see ../sandbox/README.md)."""

import os
import re
import signal
import time

from call_sites import END, START
from machine import kernel, stand_ins
from machine.drives import write
from machine.machine import Machine, REAL_PROC
from machine.namespaces import DAEMON

MIB = 1 << 20
STRACE = "/usr/bin/strace"
ANSWERED = [("swapon", 0), ("swapoff", 0), ("quotactl", 0), ("ioctl", 0)]
SWAPS = "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
SWAP_FILE = "/mnt/sdc1/swap.img"

# The requests of the life, in their order; a word in brackets is something that happens to the
# machine. Each is a step of its own, and so are the start and the end.
STEPS = [
    "list",
    "list human",
    "enumerate",
    "mount rw sdb1",
    "mount ro sdb1",
    "mount rw ^DATA",
    "mount rudeoff sdb1",
    "mount ro sdd1",
    "eject sr0",
    "retract sr0",
    "(swap is on)",
    "swapoff",
    "(swap is off)",
    "swapon",
    "(swap is on)",
    "mount ro sdc1",
    "mount rw sdc1",
    "hotplug",
    "(sde is plugged in)",
    "notify add /block/sde/sde1",
    "notify remove /block/sde/sde1",
    "polling",
    "mount rw sdb1",
    "(sdb is pulled)",
    "refresh",
    "help",
    "nonsense",
]

SETTLING = "(settling)"
A_POLL = 1.1  # seconds, in which the daemon looks at everything once
GIVEN_UP_AFTER = 20  # seconds: no laid-down wait for one request is longer


def furnish(machine):
    """The machine at its beginning."""
    stand_ins.exfat_stick(machine)  # sdb, sdb1
    stand_ins.notes_events(machine)
    machine.plug("sata", "sda", 4 * MIB, model="Disk")
    machine.part("sda1", MIB)
    machine.plug("usb", "sdc", 4 * MIB, model="Large")
    machine.part("sdc1", 65536)
    machine.plug("usb", "sdd", 4 * MIB, model="Old")
    machine.part("sdd1", 65536)
    machine.plug("md", "md0", 4 * MIB, slaves="sdd2")
    machine.plug("nvme", "nvme0n1", 4 * MIB, model="Fast", serial="1")
    machine.plug("scsi", "sr0", MIB, model="DVD")
    machine.probe_says("sdc1", "MAIN", "ext4")
    machine.probe_says("sdd1", "OLD", "ext4")
    machine.probe_says("sr0", "DISC", "iso9660")
    os.makedirs("/mnt/sdc1")
    kernel.mount("/dev/sdc1", "/mnt/sdc1", "tmpfs", 0, "mode=755")
    write("/mnt/sdc1/.claimsig", "SIG\n")
    write(SWAP_FILE, "")
    os.truncate(SWAP_FILE, 2 * MIB)
    os.symlink("nowhere", "/mnt/dangling")
    os.mkdir("/mnt/stale")
    os.utime("/mnt/stale", (1, 1))
    for name in ("starts", "stops"):
        machine.script(f"/etc/site/{name}", "exit 0\n")
    machine.configure(
        "main partition signature=SIG\nswap name=swap.img\n"
        "startup script=/etc/site/starts\nshutdown script=/etc/site/stops\n"
    )


def happens(machine, what):
    if what == "(swap is on)":
        write("/proc/swaps", SWAPS + f"{SWAP_FILE} file\t\t2048\t\t0\t\t-2\n")
    elif what == "(swap is off)":
        write("/proc/swaps", SWAPS)
    elif what == "(sde is plugged in)":
        machine.plug("usb", "sde", MIB)
        machine.part("sde1", 4096)
    elif what == "(sdb is pulled)":
        machine.unplug("sdb")
    else:
        raise ValueError(what)


def ask(machine, request):
    """The reply; a client that is hung up on asks once more."""
    for prefix in ("", "(hung up) "):
        try:
            with machine.connect(timeout=GIVEN_UP_AFTER) as client:
                return prefix + client.ask(request)
        except (EOFError, ConnectionResetError):
            pass
    return "(hung up twice)"


def mounted():
    """What is mounted in the name of a drive, as the kernel tells it."""
    with open(f"{REAL_PROC}/self/mounts") as file:
        lines = [line.split() for line in file]
    return sorted((f[0], f[1], f[3].split(",")[0]) for f in lines if f[0].startswith("/dev/sd"))


# Of a row of a plain listing.
FIELDS = "device type connection label capacity model place raid filesystem".split()


def rows(listing):
    """The rows of a plain listing by the device's name."""
    found = {}
    for line in listing.splitlines()[1:-1]:
        fields = line.split("\t")
        fields = fields[2:] if line.startswith("OK- \t\t") else fields[1:]
        found[fields[0]] = fields
    return found


def is_listing(step):
    return step.startswith("list") or step == "enumerate"


def lines(listing):
    """What can be compared of a listing on the way: not the main partition's place, which shows
    with the next poll."""
    return {" ".join(re.sub(r"\bMain\b", "", line).split()) for line in listing.splitlines()}


def start(machine, injection, more):
    command = [*more, DAEMON, "--polling"]
    if injection is not None:
        command = [STRACE, "-D", "-s", "64", "-o", "/run/trace", *injection, *command]
    return machine.start(
        *command[1:], program=command[0], refuse=ANSWERED, wait=False, leaks=injection is None
    )


class Life:
    """What is kept of one life: plain data, for it leaves the sandbox."""

    def __init__(self):
        self.replies = []  # (step, reply)
        self.status = None
        self.stderr = ""
        self.stdout = ""
        self.trace = ""
        self.faults = []  # what must never be seen, in words
        self.listing = ""  # the last one, when the fault is over
        self.devices = []  # that there are, in the end
        self.descriptors = None
        self.mounts = []  # at the end of the requests
        self.left = []  # after the end
        self.took = {}  # seconds, by the step
        self.said = []  # (step, what was written to standard error in it)


def live(injection=None, more=(), wanted=None):
    """Runs one life in this sandbox. injection: arguments for strace; None for no strace at all.
    more: another program, with its arguments, that runs the daemon. wanted: the listing that an
    undisturbed life ends with."""
    machine = Machine()
    life = Life()
    furnish(machine)
    daemon = start(machine, injection, more)
    try:
        _requests(machine, daemon, life, injection, wanted)
        _end(daemon, life)
    finally:
        machine.kill_everything()
    for client in machine.clients:
        client.close()
    _note_words(daemon, life, END)
    life.stderr, life.stdout = daemon.stderr(), daemon.stdout()
    if injection is not None:
        with open("/run/trace", errors="surrogateescape") as file:
            life.trace = file.read()
    life.left = mounted()
    try:
        daemon.check_words()
    except AssertionError as words:
        life.faults.append(str(words))
    return life


def _note_words(daemon, life, step):
    """Keeps what was said since the last time."""
    said = daemon.stderr()
    life.said.append((step, said[sum(len(text) for _, text in life.said) :]))


def _requests(machine, daemon, life, injection, wanted):
    began = time.monotonic()
    if not _comes_up(daemon, patience=1.5 if injection else 20):
        return
    life.took[START] = time.monotonic() - began
    _note_words(daemon, life, START)
    for step in STEPS:
        if step.startswith("("):
            happens(machine, step)
            continue
        began = time.monotonic()
        try:
            reply = ask(machine, step)
        except (TimeoutError, ConnectionRefusedError, BrokenPipeError) as problem:
            life.replies.append((step, f"({problem})"))
            if daemon.is_running():
                life.faults.append(f"no reply to {step!r}: {problem}")
            return
        life.took[f"{len(life.replies) + 1} {step}"] = time.monotonic() - began
        life.replies.append((step, reply))
        _note_words(daemon, life, step)
    # The fault is over, or a poll that goes on meets it still: what does the registry hold?
    for wait in (0, 0, A_POLL):
        time.sleep(wait)
        ask(machine, "refresh")
        life.listing = ask(machine, "list")
        if wanted is None or life.listing == wanted:
            break
    _note_words(daemon, life, SETTLING)
    life.devices = sorted(machine.sizes)
    deadline = time.monotonic() + 2
    while time.monotonic() < deadline:
        life.descriptors = sorted(
            re.sub(r"\[\d+\]", "", name) for name in daemon.descriptors().values()
        )
        if life.descriptors.count("socket:") <= 2:  # nobody is connected
            break
        time.sleep(0.02)
    life.mounts = mounted()


def _comes_up(daemon, patience):
    """Waits until the main partition is found, or for so many seconds from the loop's beginning;
    False when the daemon ends."""
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline and "Found main" not in daemon.stderr():
        if not daemon.is_running():
            return False
        if "Main label: '" in daemon.stdout():
            deadline = min(deadline, time.monotonic() + patience)
        time.sleep(0.01)
    return daemon.is_running()


def _end(daemon, life):
    daemon.given_up = True
    began = time.monotonic()
    if daemon.is_running():
        daemon.send_signal(signal.SIGTERM)
    try:
        life.status = daemon.process.wait(GIVEN_UP_AFTER)
    except Exception:  # the kind is subprocess's own
        life.faults.append("it did not end")
        daemon.process.kill()
        daemon.process.wait()
    life.took[END] = time.monotonic() - began
