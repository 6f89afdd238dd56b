"""What programs in a guest have cost so far, by the kernel's own accounts."""

import collections
import re

CALLS = "/sys/kernel/tracing/events/raw_syscalls/sys_enter"
Cost = collections.namedtuple("Cost", "cpu children wakeups")  # ms, ms, times


def pids(vm, *names):
    """The ids of all processes with one of these names."""
    found = vm.sh("pgrep -x '%s'" % "|".join(names)).out.split()
    if len(found) < len(names):
        raise RuntimeError(f"of {names} only {len(found)} run")
    return found


def of(vm, processes):
    """CPU time of the processes with all threads that they ever had, that of the children they have
    waited for (both in steps of ten milliseconds), and how often their threads have gone to sleep
    and been woken."""
    out = vm.sh("for pid in %s; do cat /proc/$pid/task/*/status | grep ^voluntary; "
                "sed 's/^.*)/stat/' /proc/$pid/stat; done" % " ".join(map(str, processes))).out
    cpu = children = wakeups = 0
    for line in out.splitlines():
        words = line.split()
        if words[0] == "stat":
            cpu += 10 * (int(words[12]) + int(words[13]))
            children += 10 * (int(words[14]) + int(words[15]))
        else:
            wakeups += int(words[1])
    return Cost(cpu, children, wakeups)


def difference(after, before):
    return Cost(*(a - b for a, b in zip(after, before, strict=True)))


def count_calls(vm):
    """From now on the kernel counts everybody's system calls."""
    vm.sh("mountpoint -q /sys/kernel/tracing || mount -t tracefs t /sys/kernel/tracing; "
          f"echo hist:keys=common_pid:size=4096 >{CALLS}/trigger")


def calls(vm):
    """{thread: how many calls of its have been counted}, of everybody."""
    return {int(thread): int(count) for thread, count in re.findall(
        r"common_pid: +(\d+) } hitcount: +(\d+)", vm.text(f"{CALLS}/hist"))}


def threads(vm, processes):
    return set(map(int, vm.sh("ls %s | grep '^[0-9]'" % " ".join(
        f"/proc/{pid}/task" for pid in processes)).out.split()))


def calls_between(before, after, of_threads):
    return sum(after.get(thread, 0) - before.get(thread, 0) for thread in of_threads)
