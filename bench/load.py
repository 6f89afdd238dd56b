"""Load: how many lists of drives a second the daemon and udisks2 hand out in one guest, to one
client and to fifty at once, how long each of them waits, and what a reply costs."""

import json
import os
import statistics
import sys
import tempfile

import guest_cost
import programs
import udisks2

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "vm"))

CROWDS = (1, 50)
ENOUGH = 1_000_000


@udisks2.in_the_guests()
def run(report, long):
    from rig import VM, sample_machine

    seconds = 60 if long else 10
    rows = []
    with tempfile.TemporaryDirectory() as folder, VM(sample_machine.drives(folder), mem=1024) as vm:
        sample_machine.assemble(vm)
        install(vm)
        vm.sh(udisks2.UDEVD)
        for mode in ("hotplug", "polling"):
            daemon = vm.daemon(["--" + mode])
            rows += rows_of(vm, f"quarryd, {mode}", "quarryd", [daemon.pid], seconds)
            daemon.stop()
        udisks2.tell_udevd(vm)
        udisks2.start(vm)
        rows += rows_of(vm, "udisks2", "udisks2", guest_cost.pids(vm, *udisks2.PROCESSES), seconds)
    report.table("The list of the drives of one guest, asked for again and again",
                 ("from", "clients", "replies", "bytes", "replies a second", "median, ms",
                  "99th percentile, ms", "CPU for one, ms", "its programs', ms"), rows)
    cost = {(row[0], row[1]): row[7] for row in rows}
    for clients in CROWDS:
        ratio = cost["quarryd, hotplug", clients] / cost["udisks2", clients]
        report.bound(f"the daemon's own CPU for a list against udisks2's, {clients} at once", ratio,
                     1, "times")


def install(vm):
    """Puts the clients into the guest."""
    here = os.path.dirname(os.path.abspath(__file__))
    for name in ("lists.py", "known_lists.py"):
        with open(os.path.join(here, "guest", name), encoding="utf-8") as script:
            vm.put(f"/run/{name}", script.read(), 0o755)


def ask(vm, way, clients, seconds, count=ENOUGH):
    """(seconds, each reply's seconds, bytes of one)"""
    elapsed, taken, size = json.loads(vm.sh(f"/run/lists.py {way} {clients} {seconds} {count}",
                                            timeout=seconds + 300).out)
    if not taken:
        raise TimeoutError(f"no reply within {seconds} seconds")
    return elapsed, taken, size


def rows_of(vm, name, way, processes, seconds):
    ask(vm, way, 1, 60, 1)  # what is learnt once is known now
    rows = []
    for clients in CROWDS:
        before = guest_cost.of(vm, processes)
        elapsed, taken, size = ask(vm, way, clients, seconds)
        cost = guest_cost.difference(guest_cost.of(vm, processes), before)
        percentile = statistics.quantiles(taken, n=100)[98]
        rows.append((name, clients, len(taken), size, len(taken) / elapsed,
                     1e3 * statistics.median(taken), 1e3 * percentile, cost.cpu / len(taken),
                     cost.children / len(taken)))
    return rows
