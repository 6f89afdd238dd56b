"""Idle I/O: what reaches the drives of a virtual machine while the daemon has nothing to do."""

import os
import sys
import tempfile
import time

import programs

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "vm"))

MODES = ("polling", "hotplug")
# Fields of /sys/block/*/stat that count requests: reads, writes, discards, flushes.
REQUESTS = (0, 4, 11, 15)


def run(report, long):
    os.environ["QUARRYD_STAGE"] = programs.stage()
    from rig import VM, sample_machine

    seconds = 600 if long else 20
    rows, touched, listing_requests = [], {}, 0
    with tempfile.TemporaryDirectory() as folder, VM(sample_machine.drives(folder)) as vm:
        sample_machine.assemble(vm)
        for mode in MODES:
            before, after = idle(vm, mode, seconds, rescan_now=not long)
            touched.update({f"{path}, {mode} mode": (old, after.get(path))
                            for path, old in before.items() if after.get(path) != old})
            vm.request("list")
            listing = requests(read_counts(vm)) - requests(after)
            listing_requests += listing
            drives = sum(path.count("/") == 4 for path in before)
            rows.append((mode, seconds, drives, len(before) - drives, requests(before),
                         requests(after), requests(after) - requests(before), listing))
            vm.daemons[-1].stop()
    report.table("Idle in a virtual machine: requests that reached any drive (/sys/block/*/stat)",
                 ("mode", "seconds", "drives", "partitions", "before", "after", "difference",
                  "then for one listing"), rows)
    for path, (old, new) in touched.items():
        report.note(f"{path}: {old} became {new}")
    report.bound("drives and partitions whose counts moved while idle", len(touched), 0)
    report.bound("1 when a listing moves no count either", int(listing_requests == 0), 0)


def idle(vm, mode, seconds, rescan_now):
    """The counts before and after so many idle seconds."""
    daemon = vm.daemon(["--" + mode])
    # The programs that are run in between come from a drive, too: from now on they are in memory.
    read_counts(vm)
    vm.sh("date; sync")
    time.sleep(2)
    before = read_counts(vm)
    if mode == "hotplug" and rescan_now:
        vm.sh("date -s '+61 sec'")  # a full rescan, which is due once a minute, comes along
    time.sleep(seconds)
    after = read_counts(vm)
    if not daemon.alive():
        raise RuntimeError(f"the daemon has ended:\n{daemon.err()}")
    return before, after


def read_counts(vm):
    """{"/sys/block/sda/stat": numbers, "/sys/block/sda/sda1/stat": numbers, ...}"""
    text = vm.sh("grep -H . /sys/block/*/stat /sys/block/*/*/stat | grep -v -e /loop -e /ram").out
    return {path: tuple(map(int, numbers.split()))
            for path, numbers in (line.split(":") for line in text.splitlines())}


def requests(counts):
    return sum(numbers[field] for path, numbers in counts.items() if path.count("/") == 4
               for field in REQUESTS if field < len(numbers))
