"""How cost grows with the number of drives in a real kernel: SCSI drives that the kernel makes up
in a guest, each with a partition; the daemon beside lsblk and udisks2."""

import math
import os
import re
import statistics
import sys
import time
import traceback

import guest_cost
import load
import programs
import udisks2

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "vm"))

# Drives: targets of the made-up host, and units of each.
SIZES = {1: (1, 1), 10: (1, 10), 100: (4, 25), 1000: (10, 100), 4000: (40, 100)}
SHORT = (1, 10, 100)
PATIENCE = 900  # seconds for one step; who takes longer does not stand it, nor more drives
ALL_PROBES = 3600  # for the daemon's first listing of all, which takes two probes a drive
FROM = 10       # below it the cost of the rest of the machine hides the growth
GROWTH_LIMIT = 1.5
ROUNDS, LSBLK_RUNS = 5, 3
STOOD = 1000    # so many drives the daemon has to stand here
COLUMNS = ("poll, CPU ms", "list, CPU ms", "first listing, s", "resident, KiB", "lsblk, CPU ms",
           "udisks2's start, s", "its list, ms", "its resident, KiB")
NOTHING = float("nan")


@udisks2.in_the_guests()
def run(report, long):
    values = {}
    for size in SIZES if long else SHORT:
        stood = not any(math.isnan(row[-1]) for row in values.values())
        try:
            values[size] = measure(size, udisks2_too=stood)
        except Exception:
            report.failed(f"guest-scale with {size:,} drives", traceback.format_exc())
            continue
        print(f"{size} drives:", *map(told, values[size]), file=sys.stderr, flush=True)
    sizes = sorted(values)
    rows = [(f"{size:,}", *map(told, values[size])) for size in sizes]
    for small, large in zip(sizes[1:], sizes[2:]):
        growth = [exponent(small, large, a, b)
                  for a, b in zip(values[small], values[large], strict=True)]
        rows.append((f"exponent, {small:,} to {large:,}", *map(told, growth)))
    report.table("SCSI drives of the kernel's own making in a guest, each with a partition",
                 ("drives", *COLUMNS), rows)
    last = min(max(sizes), STOOD)
    for number, column in enumerate(COLUMNS[:4]):  # what was not measured breaks its bound
        what = column.split(",")[0]
        report.bound(f"growth of: {what}, from {FROM} to {last:,} drives in a guest",
                     exponent(FROM, last, values[FROM][number], values[last][number]),
                     GROWTH_LIMIT)


def told(value):
    return "-" if math.isnan(value) else value


def exponent(small, large, first, last):
    if not (first > 0 and last > 0):  # not measured
        return NOTHING
    return math.log(last / first) / math.log(large / small)


def measure(size, udisks2_too=True):
    """The columns for that many drives; NOTHING for what was not done in time."""
    from rig import VM

    with VM([], mem=1024 if size <= 1000 else 6144) as vm:
        load.install(vm)
        for name in ("poll_bench", "listing_bench"):
            vm.put(f"/run/{name}", programs.CONTENT[name], 0o755)
        vm.put("/run/rig/throw-away", "")
        plug(vm, size)
        poll = mean_cpu(vm, "poll_bench poll", size, lambda line: line.startswith("poll "))
        listing = mean_cpu(vm, "listing_bench list", size, lambda line: line.startswith("list\t"))
        columns = (poll, listing, *daemon_columns(vm), lsblk_cpu(vm))
        return columns + (udisks2_columns(vm) if udisks2_too else (NOTHING,) * 3)


def mean_cpu(vm, command, size, counts):
    """CPU milliseconds of one round. The guest's clock of CPU time may be a coarse one, so that
    what is short has to be done often."""
    rounds = ROUNDS + 2000 // size
    out = vm.sh(f"/run/{command} {rounds} 2>/dev/null", timeout=PATIENCE).out
    return statistics.mean(float(line.split()[2]) / 1e3
                           for line in out.splitlines() if counts(line))


def plug(vm, size):
    """All share eight megabytes, which hold a partition with an empty filesystem."""
    targets, units = SIZES[size]
    before = len(vm.sh("ls /sys/block").out.split())
    vm.sh(f"modprobe scsi_debug dev_size_mb=8 num_parts=1 num_tgts={targets} max_luns={units}",
          timeout=PATIENCE)
    vm.sh(f"until [ $(ls /sys/block | wc -l) -ge {before + size} ] && "
          f"[ $(ls -d /sys/block/sd*/sd*1 | wc -l) -ge {size} ]; do sleep 1; done",
          timeout=PATIENCE)
    vm.sh("mkfs.ext4 -q -L SCALE /dev/sda1")


def daemon_columns(vm):
    """Seconds from the daemon's start to the last line of the first listing, and its KiB then."""
    began = time.monotonic()
    daemon = vm.daemon(["--hotplug"], ready=False)
    vm.wait_until(lambda: " @quarryd" in vm.text("/proc/net/unix"), PATIENCE, step=0.02)
    try:
        load.ask(vm, "quarryd", 1, ALL_PROBES, 1)
        took = time.monotonic() - began
    except TimeoutError:
        took = NOTHING
    resident = resident_kib(vm, [daemon.pid])
    daemon.stop(PATIENCE)
    return took, resident


def resident_kib(vm, processes):
    return sum(int(re.search(r"VmRSS:\s+(\d+)", vm.text(f"/proc/{pid}/status"))[1])
               for pid in processes)


def lsblk_cpu(vm):
    """CPU milliseconds, of bash's own account."""
    try:
        said = vm.sh("TIMEFORMAT='%%U %%S'; time for n in $(seq %d); do "
                     "lsblk -o NAME,SIZE; done >/run/lsblk.out" % LSBLK_RUNS, timeout=PATIENCE).err
    except TimeoutError:
        return NOTHING
    return sum(map(float, said.split())) * 1e3 / LSBLK_RUNS


def udisks2_columns(vm):
    """Seconds from its start to its first answer, its list's milliseconds, and its KiB; the time
    that udevd takes for the drives before does not count."""
    try:
        vm.sh(udisks2.UDEVD)
        udisks2.tell_udevd(vm, PATIENCE)
        began = time.monotonic()
        udisks2.start(vm, PATIENCE)
        load.ask(vm, "udisks2", 1, PATIENCE, 1)
        took = time.monotonic() - began
        taken = load.ask(vm, "udisks2", 1, PATIENCE, ROUNDS)[1]
    except Exception as reason:  # whatever stops it there, the others go on
        print(f"udisks2: {str(reason)[:500]}", file=sys.stderr, flush=True)
        return NOTHING, NOTHING, NOTHING
    return (took, 1e3 * statistics.median(taken),
            resident_kib(vm, guest_cost.pids(vm, udisks2.PROCESSES[0])))
