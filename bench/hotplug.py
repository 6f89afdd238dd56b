"""Hot plug: from QEMU's plugging or pulling of a drive to the line that tells of it, by the daemon
in both modes and by udisks2, in one guest with udevd. The kernel's own time is in all of them."""

import os
import re
import statistics
import sys
import time

import programs
import udisks2

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "vm"))

BUSES = ("usb", "nvme", "virtio-scsi")
RULE = "/usr/lib/udev/rules.d/60-quarryd.rules"
MONITOR = "/run/rig/monitor"
FOLLOWED = "/run/rig/followed"
# Patterns of the lines that tell that a drive is there and that it has gone.
DAEMON_LINES = (r"Device {} (just )?appeared \(", r"Device {} just disappeared \(")
UDISKS2_LINES = (r"Added /\S*/block_devices/{}$", r"Removed /\S*/block_devices/{}$")


@udisks2.in_the_guests()
def run(report, long):
    from rig import VM

    count = 20 if long else 5
    here = os.path.dirname(os.path.abspath(__file__))
    times = {}
    with VM([], mem=1024) as vm:
        with open(os.path.join(here, "guest", "follow.py"), encoding="utf-8") as script:
            vm.put("/run/follow.py", script.read(), 0o755)
        vm.sh(udisks2.UDEVD)
        for mode in ("polling", "hotplug"):
            daemon = vm.daemon(["--" + mode])
            daemon.wait_err("Device vda1 just appeared")
            times["quarryd, " + mode] = lives(vm, daemon.base + ".err", DAEMON_LINES, count)
            daemon.stop()
        vm.sh(f"rm {RULE}; udevadm control --reload; udevadm settle")
        udisks2.tell_udevd(vm)
        udisks2.start(vm)
        vm.sh(f"setsid udisksctl monitor </dev/null >{MONITOR} 2>&1 &")
        vm.wait_until(lambda: "Monitoring" in vm.text(MONITOR), 20)
        times["udisks2"] = lives(vm, MONITOR, UDISKS2_LINES, count)
    print_times(report, times)


def lives(vm, path, patterns, count):
    """{(bus, event): seconds of each} for drives that come and go."""
    from rig import Disk

    vm.sh(f"setsid /run/follow.py {path} </dev/null >{FOLLOWED} 2>&1 & echo $! >/run/rig/pid")
    seconds = {}
    for bus in BUSES:
        for _ in range(count):
            mark, ahead = len(vm.text(FOLLOWED)), clock_ahead(vm)
            begin = time.time()
            name = vm.plug(Disk(bus, 16 << 20, id="plugged"))
            told = told_at(vm, patterns[0].format(name), mark) - ahead
            seconds.setdefault((bus, "appeared"), []).append(told - begin)
            vm.sh("udevadm settle")
            time.sleep(1.3)                     # so that the rescan of the plugging is over
            mark, begin = len(vm.text(FOLLOWED)), time.time()
            vm.unplug("plugged")
            told = told_at(vm, patterns[1].format(name), mark) - ahead
            seconds.setdefault((bus, "disappeared"), []).append(told - begin)
            vm.sh("udevadm settle")
            time.sleep(1.3)
    vm.sh("kill $(cat /run/rig/pid)")
    return seconds


def clock_ahead(vm):
    """By how many seconds the guest's clock is ahead: the best of some questions."""
    answers = []
    for _ in range(5):
        before = time.time()
        guest = float(vm.sh("echo $EPOCHREALTIME").out)
        after = time.time()
        answers.append((after - before, guest - (before + after) / 2))
    return min(answers)[1]


def told_at(vm, pattern, mark):
    line = re.compile(r"^(\d+\.\d+) .*" + pattern, re.M)
    found = vm.wait_until(lambda: line.search(vm.text(FOLLOWED)[mark:]), 60, pattern)
    return float(found[1])


def print_times(report, times):
    rows = []
    for event in ("appeared", "disappeared"):
        for bus in BUSES:
            for way, seconds in times.items():
                values = seconds[bus, event]
                rows.append((event, bus, way, len(values), 1000 * min(values),
                             1000 * statistics.median(values), 1000 * max(values)))
    report.table("From QEMU's plug or pull to the line that tells of it, ms",
                 ("event", "bus", "told by", "times", "least", "median", "most"), rows)
