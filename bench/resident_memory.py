"""Resident memory: with ten drives, and for each further drive or partition."""

import made_up

BASE_LIMIT_KIB = 4 * 1024
SLOPE_LIMIT_BYTES = 1.5 * 1024
DRIVES, PARTITIONS_EACH = 4000, 4
LISTED_DRIVES = 1000
LISTINGS = ("list", "list human", "enumerate")


def memory(daemon):
    """Resident KiB of the daemon: all of it, its share of it, the most that there ever was."""
    path = f"{made_up.namespaces.REAL_PROC}/{daemon.pid}/smaps_rollup"
    with open(path) as file:
        sizes = {line.split(":")[0]: int(line.split()[1]) for line in file if ":  " in line}
    return sizes["Rss"], sizes["Pss"], int(daemon.status_field("VmHWM"))


def measure(drives, with_listings):
    """Sizes in polling mode, in hotplug mode, and there after one listing of each kind."""
    def body(machine):
        machine.grow(drives)
        machine.use_real_probe()
        sizes = []
        for mode in ("--polling", "--hotplug"):
            daemon = machine.start(mode)
            for _ in range(3):
                machine.settle()
            sizes.append(memory(daemon))
            if mode == "--polling":
                daemon.stop()
        if with_listings:
            for request in LISTINGS:
                machine.ask_patiently(request)
            machine.settle()
            sizes.append(memory(daemon))
        return sizes
    return made_up.inside(body)


def run(report, long):
    many = made_up.many_drives(DRIVES, PARTITIONS_EACH)
    few = measure(made_up.TEN_DRIVES, with_listings=True)
    large = measure(many, with_listings=long)
    compare(report, "polling mode", few[0], many, large[0])
    compare(report, "hotplug mode", few[1], many, large[1])
    # A probe for each device takes its time: fewer drives in the short form.
    listed = many if long else made_up.many_drives(LISTED_DRIVES, PARTITIONS_EACH)
    after = large[2] if long else measure(listed, with_listings=True)[2]
    compare(report, "hotplug mode, after a listing of each kind", few[2], listed, after)


def compare(report, when, few_size, large, large_size):
    counts = [sum(1 + count for _kind, _name, count in drives)
              for drives in (made_up.TEN_DRIVES, large)]
    slopes = [(b - a) * 1024 / (counts[1] - counts[0])
              for a, b in zip(few_size, large_size, strict=True)]
    rows = [(f"{len(drives):,} drives, {count - len(drives):,} partitions", *size)
            for drives, count, size in zip((made_up.TEN_DRIVES, large), counts,
                                           (few_size, large_size), strict=True)]
    rows.append(("bytes for each one more", *slopes))
    report.table(f"Resident memory, {when} (KiB)",
                 ("", "resident (Rss)", "own share (Pss)", "peak"), rows)
    report.bound(f"memory with 10 drives, {when}", few_size[0], BASE_LIMIT_KIB, "KiB")
    report.bound(f"memory for one more, {when}", slopes[0], SLOPE_LIMIT_BYTES, "bytes")
