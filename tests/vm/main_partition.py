"""A main partition in the guest: its scripts, what they see, what is left at the end."""
import os

START, STOP, RAN = "/run/rig/start", "/run/rig/stop", "/run/rig/ran"

# Notes what the machine looks like when it runs.
SCRIPT = """#!/bin/bash
{ echo "== $*"
  echo "link $(readlink /mnt/main)"
  while read path rest; do echo "swap $path"; done </proc/swaps
  while read line; do echo "mount $line"; done </proc/self/mountinfo
  quotaon -pa 2>&1
  echo end
} >>/run/rig/ran
"""


def put_scripts(vm, start="", stop=""):
    """Puts a start and a stop script in place, which note what they see; start and stop: more
    lines for each."""
    vm.put(RAN, "")
    vm.put(START, SCRIPT + start, 0o755)
    vm.put(STOP, SCRIPT + stop, 0o755)


def conf(signature=None, label=None, swap="swap.img"):
    """A configuration with both scripts."""
    settings = {"main partition signature": signature, "main partition label": label,
                "swap name": swap, "startup script": START, "shutdown script": STOP}
    return "".join("%s = %s\n" % setting for setting in settings.items() if setting[1])


class Run:
    """What a script saw: its argument, the target of /mnt/main, the swap areas, the mount points
    and how many kinds of quotas were on."""

    def __init__(self, lines):
        def after(word):
            return [line.split(" ", 1)[1] for line in lines if line.startswith(word + " ")]
        self.argument = after("==")[0]
        self.link = after("link")[0]
        self.swaps = after("swap")[1:]
        self.mounts = [line.split()[4] for line in after("mount")]
        self.quotas = sum(line.endswith(" is on") for line in lines)

    def __eq__(self, other):
        return vars(self) == vars(other)

    def __repr__(self):
        return repr(vars(self))


def runs(vm):
    """The runs of the scripts that have noted everything."""
    complete, lines = [], []
    for line in vm.text(RAN).splitlines():
        if line == "end":
            complete.append(Run(lines))
            lines = []
        else:
            lines.append(line)
    return complete


def wait_for_start(vm, count=1, timeout=60):
    """Waits until scripts have run that often; the last of these runs."""
    return vm.wait_until(lambda: runs(vm)[count - 1:], timeout,
                         lambda: "the script; err: " + vm.daemons[-1].err()[-3000:])[0]


def swaps(vm):
    """The paths of the active swap areas."""
    return [line.split()[0] for line in vm.text("/proc/swaps").splitlines()[1:]]


def options_of(vm, mountpoint):
    """The options that a mount itself has (its filesystem may have others); None without one."""
    for line in vm.text("/proc/self/mountinfo").splitlines():
        fields = line.split()
        if fields[4] == mountpoint:
            return set(fields[5].split(","))
    return None


def nothing_left(vm):
    """True when no swap is on, nothing is mounted below /mnt, and no link is there. The folders of
    trial mounts that failed may be: the housekeeping comes later."""
    return (swaps(vm) == [] and "/mnt" not in vm.text("/proc/mounts")
            and vm.sh("find /mnt -mindepth 1 ! -type d -o -mindepth 2").out == "")


def unformatted_swap(size=4 << 20):
    """A swap file's contents without a signature, and without the zeros that would become
    holes."""
    return os.urandom(4096) * (size // 4096)
