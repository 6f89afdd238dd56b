"""How cost grows with the number of drives: from one to thousands, each with one partition."""

import math
import os
import time

import made_up
from resident_memory import memory

SIZES = (1, 10, 100, 1000, 4000)
FROM = 100  # below it the cost of a daemon without drives hides the growth
GROWTH_LIMIT = 1.5  # quadratic growth would be 2
ROUNDS = 9
COLUMNS = ("first listing, wall ms", "first listing with its probes, CPU ms", "inventory, CPU ms",
           "poll, CPU ms", "list, CPU ms", "list, bytes", "resident, KiB")


def measure(size):
    """The columns for a machine with that many drives."""
    def body(machine):
        machine.grow(made_up.many_drives(size, 1))
        polls = made_up.output_of(machine.install("poll_bench"), "poll", str(ROUNDS))
        lists = made_up.output_of(machine.install("listing_bench"), "list", str(ROUNDS))
        # What a probe costs is the probe's; here it costs a fork, an exec and an end.
        os.unlink(made_up.PROBE)
        os.symlink("/usr/bin/true", made_up.PROBE)
        began = time.monotonic()
        daemon = machine.start("--hotplug")
        with machine.connect(timeout=200) as client:
            client.ask("list")
            first = (time.monotonic() - began) * 1e3
        cpu = cpu_with_children(daemon)
        machine.settle()
        return polls, lists, first, cpu, memory(daemon)[0]

    polls, lists, first, first_cpu, resident = made_up.inside(body)
    times = [line.split() for line in polls.splitlines()]
    inventory, *others = (float(words[2]) / 1e3 for words in times)
    listing = [line.split("\t") for line in lists.splitlines() if line.startswith("list\t")]
    return (first, first_cpu, inventory, made_up.median(others),
            made_up.median(float(cpu) / 1e3 for _, _, cpu in listing), int(listing[0][1]),
            resident)


def cpu_with_children(daemon):
    """Milliseconds of the daemon and of all programs that it has run."""
    with open(f"{made_up.namespaces.REAL_PROC}/{daemon.pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return sum(int(ticks) for ticks in fields[11:15]) * 1e3 / os.sysconf("SC_CLK_TCK")


def exponent(small, large, first, last):
    return math.log(last / first) / math.log(large / small)


def run(report, long):
    values = {size: measure(size) for size in SIZES}
    rows = [(f"{size:,}", *values[size]) for size in SIZES]
    last = SIZES[-1]
    base = values[SIZES[0]]
    for small, large in ((FROM, SIZES[-2]), (SIZES[-2], last), (FROM, last)):
        growth = [exponent(small, large, a, b) for a, b in zip(values[small], values[large])]
        # What a daemon with one drive takes is no growth.
        growth[-1] = exponent(small, large, values[small][-1] - base[-1],
                              values[large][-1] - base[-1])
        rows.append((f"exponent, {small:,} to {large:,}", *growth))
    report.table("Cost by the number of drives, with one partition each", ("drives", *COLUMNS),
                 rows)
    for column, value in zip(COLUMNS, rows[-1][1:]):
        what = column.split(",")[0]
        if column != "list, bytes":
            report.bound(f"growth of: {what}, from {FROM} to {last:,} drives", value, GROWTH_LIMIT)
