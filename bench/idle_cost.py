"""Idle: what the daemon in both modes and udisks2 take from a virtual machine in which nothing
happens, and whether a hundred listings reach a drive once every filesystem is known."""

import json
import os
import sys
import tempfile
import time

import guest_cost
import idle_io
import load
import programs
import udisks2

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "vm"))

SUBJECTS = ("quarryd, polling", "quarryd, hotplug", "udisks2")
WAKEUPS = 20  # a second, from a pass every fifty milliseconds
LISTINGS = 100


@udisks2.in_the_guests()
def run(report, long):
    seconds = 600 if long else 20
    results = []
    for subject in SUBJECTS:
        results.append(measure(subject, seconds))
        print(subject, results[-1], file=sys.stderr, flush=True)
    rows = [row for windows, _listings in results for row in windows]
    report.table(f"{seconds} idle seconds of a virtual machine",
                 ("of", "CPU, ms", "CPU, ‰", "wake-ups a second", "system calls a second",
                  "requests to any drive"), rows)
    for name, _cpu, _share, wakeups, _calls, requests in rows:
        if name in SUBJECTS[:2]:
            report.bound(f"wake-ups of an idle second, {name}", wakeups, 1.05 * WAKEUPS)
            report.bound(f"requests to idle drives, {name}", requests, 0)
    listings = results[1][1]
    if not listings:
        report.failed("the listings with all filesystems known", "a probe was run for too many")
        return
    count, elapsed, requests, left_out = listings
    report.note(f"{count} listings in {elapsed:.1f} s with all filesystems known: {requests} "
                f"requests to any drive ({left_out} more for which a probe was run do not count).")
    report.bound(f"requests to drives by {LISTINGS} listings with all known", requests, 0)


def measure(subject, seconds):
    """([row of each program's cost], row of the listings or None)"""
    from rig import VM, sample_machine

    with tempfile.TemporaryDirectory() as folder, VM(sample_machine.drives(folder), mem=1024) as vm:
        sample_machine.assemble(vm)
        load.install(vm)
        vm.sh(udisks2.UDEVD)
        if subject == "udisks2":
            udisks2.tell_udevd(vm)
            udisks2.start(vm)
            processes = {name: guest_cost.pids(vm, name) for name in udisks2.PROCESSES}
            load.ask(vm, "udisks2", 1, 60, 1)
            return idle(vm, processes, seconds), None
        daemon = vm.daemon(["--" + subject.split(", ")[1]])
        load.ask(vm, "quarryd", 1, 60, 1)
        windows = idle(vm, {subject: [daemon.pid]}, seconds)
        return windows, (list_known_drives(vm, daemon) if subject == SUBJECTS[1] else None)


def idle(vm, processes, seconds):
    """A row for each of the programs."""
    guest_cost.count_calls(vm)
    vm.sh("udevadm settle; sync")
    time.sleep(5)

    def account():  # the programs that look are in memory after the first time
        return ({name: (guest_cost.of(vm, pids), guest_cost.threads(vm, pids))
                 for name, pids in processes.items()},
                guest_cost.calls(vm), idle_io.requests(idle_io.read_counts(vm)), time.monotonic())

    account()
    before, calls_before, requests_before, began = account()
    time.sleep(seconds)
    after, calls_after, requests_after, ended = account()
    elapsed = ended - began
    rows = []
    for name in processes:
        cost = guest_cost.difference(after[name][0], before[name][0])
        threads = before[name][1] | after[name][1]
        calls = guest_cost.calls_between(calls_before, calls_after, threads)
        cpu = cost.cpu + cost.children
        rows.append((name, cpu, cpu / elapsed, cost.wakeups / elapsed, calls / elapsed,
                     requests_after - requests_before))
    return rows


def list_known_drives(vm, daemon):
    """[listings for which the daemon ran no probe, their seconds, requests to any drive meanwhile,
    listings that do not count because it did]; None when that takes for ever."""
    command = f"timeout 300 /run/known_lists.py {daemon.pid} {LISTINGS}"
    done = vm.sh(command, timeout=400, check=False)
    return json.loads(done.out) if done.rc == 0 else None
