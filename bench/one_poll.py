"""One poll of /sys/block: its system calls, its time against lsblk, and all drives vanishing."""

import collections
import math

import made_up
import system_calls

CALLS_A_DRIVE = 6
CALLS_A_PARTITION = 3
LSBLK_SHARE = 0.5
# In proportion it is 1; searching the maps makes it a little more, and so do the processor's caches.
GROWTH_LIMIT = 1.3

# The smaller machine is there because lsblk's time grows with the square of the drives: what it
# says about the daemon must not rest on that.
SIZES = (400, 4000)
PARTITIONS_EACH = 4
SAMPLE, SAMPLE_PARTITIONS = 100, 4
VANISHING = (500, 1000, 2000, 4000)
ROUNDS = 11
LSBLK = ("/usr/bin/lsblk", "--sysroot", "/", "-o", "NAME,SIZE")
FEW, MORE = 2, 12  # polls in the two runs whose difference is counted


def run(report, long):
    count_calls(report)
    for drives in SIZES:
        time_polls(report, drives, lsblk_rounds=9 if long or drives < max(SIZES) else 1)
    time_vanishing(report)


def count_calls(report):
    def body(machine):
        poll_bench = machine.install("poll_bench")
        results = [(one_poll(poll_bench), lsblk_calls())]
        machine.grow(made_up.many_drives(SAMPLE, 0))
        results.append((one_poll(poll_bench), lsblk_calls()))
        for _kind, drive, _count in made_up.many_drives(SAMPLE, 0):
            for number in range(1, SAMPLE_PARTITIONS + 1):
                machine.add_partition(drive, number)
        results.append((one_poll(poll_bench), lsblk_calls()))
        return results

    empty, bare, full = made_up.inside(body)
    partitions = SAMPLE * SAMPLE_PARTITIONS
    rows = []
    for which, name in enumerate(("poll", "lsblk --sysroot")):
        calls = [sum(result[which][0].values()) for result in (empty, bare, full)]
        paths = [sum(result[which][1].values()) for result in (empty, bare, full)]
        per_drive, per_partition = ((calls[1] - calls[0]) / SAMPLE,
                                    (calls[2] - calls[1]) / partitions)
        rows.append((name, calls[0], per_drive, per_partition, paths[2]))
        if which == 0:
            report.bound("system calls of one poll for each drive", per_drive, CALLS_A_DRIVE)
            report.bound("system calls of one poll for each partition", per_partition,
                         CALLS_A_PARTITION)
            report.bound("paths that one poll walks from the root", paths[2], 1)
            by_name = [result[which][0] for result in (empty, bare, full)]
    report.table(f"One poll: system calls ({SAMPLE} drives, {partitions} partitions)",
                 ("", "no drives", "each drive", "each partition", "absolute paths opened"), rows)
    names = sorted(set().union(*by_name))
    report.table("One poll: which calls", ("call", "no drives", "each drive", "each partition"),
                 [(name, by_name[0][name], (by_name[1][name] - by_name[0][name]) / SAMPLE,
                   (by_name[2][name] - by_name[1][name]) / partitions) for name in names])


def one_poll(poll_bench):
    """Calls and absolute paths of one poll of the machine as it is, exactly."""
    few = system_calls.of_run(poll_bench, "poll", str(FEW))
    more = system_calls.of_run(poll_bench, "poll", str(MORE))
    few[0].pop("clock_gettime")  # the stop watch
    more[0].pop("clock_gettime")
    return tuple(collections.Counter({key: (b[key] - a[key]) / (MORE - FEW)
                                      for key in b if b[key] != a[key]})
                 for a, b in zip(few, more, strict=True))


def lsblk_calls():
    return system_calls.of_run(*LSBLK, good=(0, 1))  # 1: there is nothing to list


def time_polls(report, drives, lsblk_rounds):
    def body(machine):
        machine.grow(made_up.many_drives(drives, PARTITIONS_EACH))
        rows = 1 + drives * (1 + PARTITIONS_EACH)
        lsblk = [made_up.cost_of(LSBLK, rows) for _ in range(lsblk_rounds)]
        return lsblk, parse(made_up.output_of(machine.install("poll_bench"), "poll", str(ROUNDS)))

    lsblk, polls = made_up.inside(body)
    runs = {"lsblk": lsblk, "first poll": polls["inventory", "all"],
            "poll": polls["poll", str(drives)]}
    rows = []
    for what, costs in runs.items():
        cpu, wall = (made_up.median(values) / 1e3 for values in zip(*costs, strict=True))
        rows.append((what, len(costs), cpu, wall))
    rows = [(*row, row[2] / rows[0][2], row[3] / rows[0][3]) for row in rows]
    report.table(f"One poll of {drives:,} drives and {drives * PARTITIONS_EACH:,} partitions "
                 f"against lsblk {' '.join(LSBLK[1:])}",
                 ("", "runs", "CPU, ms", "wall, ms", "CPU ratio", "wall ratio"), rows)
    report.bound(f"CPU time of one poll of {drives:,} drives, against lsblk", rows[2][4],
                 LSBLK_SHARE, "times")


def time_vanishing(report):
    def body(machine):
        machine.grow(made_up.many_drives(max(VANISHING), PARTITIONS_EACH))
        machine.show_subsets(VANISHING)
        return parse(made_up.output_of(machine.install("poll_bench"), "vanish", "5",
                                       *map(str, VANISHING)))

    costs = made_up.inside(body)
    rows = []
    for size in VANISHING:
        appear, vanish = (made_up.median([cpu for cpu, _wall in costs[what, str(size)]])
                          for what in ("appear", "vanish"))
        rows.append((size, appear / 1e3, appear / size, vanish / 1e3, vanish / size))
    exponent = growth([row[0] for row in rows], [row[3] for row in rows])
    report.table(f"All drives ({PARTITIONS_EACH} partitions each) appear, then vanish at once: "
                 "CPU time, medians of 5",
                 ("drives", "appear, ms", "µs a drive", "vanish, ms", "µs a drive"), rows)
    report.note(f"Vanishing grows with the number of drives to the power of {exponent:.2f} "
                "(1: in proportion, 2: quadratically).")
    report.bound("growth of all drives vanishing, exponent", exponent, GROWTH_LIMIT)


def parse(text):
    """{(what, size): [(CPU, wall), ...]} of poll_bench's lines."""
    found = collections.defaultdict(list)
    for line in text.splitlines():
        what, size, cpu, wall = line.split()
        found[what, size].append((float(cpu), float(wall)))
    return found


def growth(sizes, costs):
    """The slope of the straight line through the logarithms."""
    x, y = [math.log(size) for size in sizes], [math.log(cost) for cost in costs]
    middle_x, middle_y = sum(x) / len(x), sum(y) / len(y)
    return (sum((a - middle_x) * (b - middle_y) for a, b in zip(x, y, strict=True))
            / sum((a - middle_x) ** 2 for a in x))
