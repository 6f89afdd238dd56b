"""Listings: their CPU time on a machine with thousands of drives, and what the first one asks of
/proc."""

import collections
import re

import made_up
import system_calls

CPU_LIMIT_MS = 100
DRIVES, PARTITIONS_EACH = 4000, 4
ROUNDS = 9

UNPROBED = 1000
PROCESSES, FILES_EACH = 500, 50
FIRST_PID = 1_000_001
# Every hundredth process has one of these drives open, or a partition of it: the name of a drive
# that is the beginning of another's ("sda" of "sdab") makes both count as used.
HELD = [made_up.drive_name(number) for number in (2, 5, 29, 130, 131, 700, 701)]
# Asking singly is slow: in the short form every tenth drive is asked for, and those in use.
STEP_SINGLY = 10


def run(report, long):
    time_listings(report)
    count_first_listing(report, 1 if long else STEP_SINGLY)


def time_listings(report):
    def body(machine):
        machine.grow(made_up.many_drives(DRIVES, PARTITIONS_EACH))
        return made_up.output_of(machine.install("listing_bench"), "list", str(ROUNDS))

    sizes, costs = {}, collections.defaultdict(list)
    for line in made_up.inside(body).splitlines():
        request, size, cpu = line.split("\t")
        sizes[request] = int(size)
        costs[request].append(float(cpu) / 1e3)
    rows = [(request, sizes[request], made_up.median(values), max(values))
            for request, values in costs.items()]
    report.table(f"A listing of {DRIVES:,} drives and {DRIVES * PARTITIONS_EACH:,} partitions, "
                 f"all filesystems known: CPU milliseconds, {ROUNDS} requests",
                 ("request", "bytes", "median", "most"), rows)
    for request, _size, median, _most in rows:
        report.bound(f'CPU time of "{request}" with {DRIVES:,} drives', median, CPU_LIMIT_MS, "ms")


def make_processes(machine):
    for number in range(PROCESSES):
        files = [f"/var/lib/file.{n}" for n in range(FILES_EACH)]
        if number % 100 == 50:
            which = number // 100
            files[7] = f"/dev/{HELD[which]}"
            files[30] = f"/dev/{HELD[-1 - which % 2]}1"
        machine.made_up_process(FIRST_PID + number, files)


def count_first_listing(report, step_singly):
    names = [name for _kind, name, _count in made_up.many_drives(UNPROBED, 0)]
    asked = [name for number, name in enumerate(names)
             if number % step_singly == 0 or any(held.startswith(name) for held in HELD)]

    def body(machine):
        machine.grow(made_up.many_drives(UNPROBED, 0))
        make_processes(machine)
        machine.use_real_probe()
        for name in names:
            machine.content(name, made_up.swap_area(name))
        daemon = machine.start("--hotplug")
        watch = system_calls.Watch(daemon.pid, "openat", "readlinkat")
        listing = machine.ask_patiently("list")
        lines = watch.stop()
        listing_bench = machine.install("listing_bench")
        together = made_up.output_of(listing_bench, "together", *asked)
        singly = made_up.output_of(listing_bench, "singly", *asked)
        two, one = (system_calls.of_run(listing_bench, "singly", *names[:count])
                    for count in (2, 1))
        return listing, lines, together, singly, (two[1]["/proc"] - one[1]["/proc"],
                                                  two[0]["readlinkat"] - one[0]["readlinkat"])

    listing, lines, together, singly, one_more_drive = made_up.inside(body)
    readings = sum(bool(re.match(r'openat\([^,]*, "/proc",', line)) for line in lines)
    links = sum(bool(re.match(r"readlinkat\(\d+</\.?proc/", line)) for line in lines)
    used_together, cpu_together = parse_use(together)
    used_singly, cpu_singly = parse_use(singly)
    learnt = {line.split("\t")[1]: line.split("\t")[-1] for line in listing.splitlines()
              if line.startswith("OK- \t")}
    unprobed = {name for name in names if learnt[name] != "swap"}
    rows = [("one reading for the listing", readings, links, cpu_together / 1e3,
             len(used_together), len(unprobed)),
            ("one for each drive", *(count * UNPROBED for count in one_more_drive),
             cpu_singly / 1e3 * UNPROBED / len(asked), len(used_singly), "-")]
    report.table(f"The first listing of {UNPROBED:,} unprobed drives, {PROCESSES} processes with "
                 f"{FILES_EACH} open files each",
                 ("", "readings of /proc", "links read", "CPU for it, ms", "drives in use",
                  "left unprobed"), rows)
    report.note(f"The second row is counted for one drive and timed with {len(asked)} of them.")
    report.bound("readings of /proc for one listing", readings, 1)
    report.bound("links read for one listing, against the open files there are",
                 links / (PROCESSES * FILES_EACH), 1.01, "times")
    report.bound("drives about which one reading and many disagree",
                 len(used_together ^ used_singly), 0)
    report.bound("drives that the listing treats otherwise than that answer",
                 len(unprobed ^ used_singly), 0)
    report.bound("drives in use that the measurement did not meet", len(set(HELD) - unprobed), 0)


def parse_use(text):
    *names, last = text.splitlines()
    return set(names), float(last.split()[1])
