"""Idle: the daemon's system calls a second beside the number that its work needs."""

import collections
import time
from concurrent import futures

import made_up
import system_calls

LIMIT = 1.25  # times the need
PASSES_A_SECOND = 20  # a pass that finds nothing to do ends in a sleep of 50 milliseconds
PASS = collections.Counter(accept4=1, clock_nanosleep=1, wait4=1)

# What reading something once takes: the last read() and getdents64() is the one that says that
# nothing follows.
TEXT = collections.Counter(openat=1, read=1, close=1)
WHOLE_FILE = collections.Counter(openat=1, read=2, close=1)
DIRECTORY = collections.Counter(openat=1, getdents64=2, close=1)
LINK = collections.Counter(readlinkat=1)

PARTITION = TEXT


def times(number, calls):
    return collections.Counter({name: count * number for name, count in calls.items()})


# Every second: the mount table twice (once with its time), the filesystem types, and the
# partition list, which is cut after one read.
TABLES = collections.Counter(newfstatat=1) + times(3, WHOLE_FILE) + TEXT
# Every five seconds: /mnt is gone through twice.
HOUSEKEEPING = collections.Counter(chdir=1, lseek=1, getdents64=2) + DIRECTORY

# Every four seconds in hotplug mode, by the kind of drive: its texts (size, model, serial number,
# name), and where its SCSI address, its bus and its controller's driver are read from links.
REFRESH = {
    "sata": times(2, TEXT) + times(3, LINK),
    "scsi": times(2, TEXT) + times(3, LINK),
    "usb": times(2, TEXT) + times(2, LINK),
    "nvme": times(3, TEXT),
    "mmc": times(2, TEXT),
    "md": TEXT + times(2, DIRECTORY),  # its members: for itself, and when all arrays are gone over
}
FULL_RESCAN_SECONDS = 60


def poll_need(drives):
    """One poll of /sys/block with those (kind, name, number of partitions)."""
    partitions = sum(count for _kind, _name, count in drives)
    return times(1 + len(drives), DIRECTORY) + times(partitions, PARTITION)


def refresh_need(drives):
    return sum((REFRESH[kind] for kind, _name, _count in drives), collections.Counter())


def need(mode, drives, seconds, passes, rescans):
    """The calls that the work of so many seconds needs, by name. Passes that a busy machine was too
    slow for are not needed, and more than there should be are not either."""
    total = times(min(passes, PASSES_A_SECOND * seconds), PASS)
    total += times(seconds, TABLES) + times(seconds / 5, HOUSEKEEPING)
    if mode == "polling":
        return total + times(seconds, poll_need(drives))
    return total + times(seconds / 4, refresh_need(drives)) + times(rescans, poll_need(drives))


def measure_mode(mode, seconds):
    """(calls, seconds, rescans in them, resident KiB) of an idle daemon; all drives are known to
    it, and it has answered a listing."""
    def body(machine):
        machine.grow(made_up.TEN_DRIVES)
        begin = time.time()
        daemon = machine.start("--" + mode)
        machine.ask("list")
        time.sleep(2)
        opened = time.time() - begin
        counts, elapsed = system_calls.of_window(daemon.pid, seconds)
        rescans = int((opened + elapsed) / FULL_RESCAN_SECONDS) - int(opened / FULL_RESCAN_SECONDS)
        return counts, elapsed, rescans
    return made_up.inside(body, timeout=seconds + 60)


def run(report, long):
    seconds = 600 if long else 25
    modes = ("polling", "hotplug")
    with futures.ProcessPoolExecutor(len(modes)) as pool:
        results = list(pool.map(measure_mode, modes, [seconds] * len(modes)))
    for mode, (counts, elapsed, rescans) in zip(modes, results, strict=True):
        needed = need(mode, made_up.TEN_DRIVES, elapsed, counts["clock_nanosleep"], rescans)
        rows = []
        for name in sorted(set(needed) | set(counts), key=lambda name: -counts[name]):
            rows.append((name, needed[name] / elapsed, counts[name] / elapsed,
                         (counts[name] - needed[name]) / elapsed))
        all_needed, made = sum(needed.values()), sum(counts.values())
        rows.append(("all", all_needed / elapsed, made / elapsed, (made - all_needed) / elapsed))
        report.table(f"Idle in {mode} mode: system calls a second ({elapsed:.0f} s, 10 drives, "
                     "20 partitions)", ("call", "needed", "made", "more"), rows)
        report.bound(f"system calls of an idle second, {mode} mode, against the need",
                     made / all_needed, LIMIT, "times")
