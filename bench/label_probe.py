"""The label probe against `blkid -p` on the same image: what one run costs, from start to end."""

import os
import pathlib
import statistics
import sys
import tempfile
import time

import programs

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "volsniffer"))
import images  # noqa: E402

CONTENTS = {"nothing": images.blank, "ext4": images.FILESYSTEMS["ext4"], "vfat": images.vfat}
PROBES = {"blkid": lambda path: ("/usr/sbin/blkid", "-p", path),
          "volsniffer": lambda path: (programs.path("volsniffer"), path, "--fs")}
SHARE = 1.0


def run(report, long):
    rounds = 2000 if long else 400
    rows = []
    with tempfile.TemporaryDirectory() as folder:
        for content, make in CONTENTS.items():
            path = pathlib.Path(folder, content)
            make(path)
            costs = measure({name: probe(str(path)) for name, probe in PROBES.items()}, rounds)
            for name, (cpu, wall) in costs.items():
                ratios = (cpu / costs["blkid"][0], wall / costs["blkid"][1])
                rows.append(("blkid -p" if name == "blkid" else name, content, rounds, cpu, wall,
                             *ratios))
            for what, ratio in zip(("CPU", "wall"), ratios, strict=True):
                report.bound(f"{what} time of the label probe on {content}, against blkid -p",
                             ratio, SHARE, "times")
    report.table("The label probe: one run",
                 ("", "content", "runs", "CPU, µs", "wall, µs", "CPU ratio", "wall ratio"), rows)


def measure(commands, rounds):
    """{name: (CPU, wall)} in microseconds. The programs run in turn, so that whatever else the
    machine does meets them all alike; and what a tenth of the runs keep below is taken, for wall
    time on a busy machine is mostly other programs' time."""
    costs = {name: [] for name in commands}
    for number in range(rounds + 5):
        for name, command in commands.items():
            cost = one_run(command)
            if number >= 5:  # the first runs fill the caches
                costs[name].append(cost)
    return {name: tuple(statistics.quantiles(values, n=10)[0] for values in zip(*runs, strict=True))
            for name, runs in costs.items()}


def one_run(command):
    to_null = [(os.POSIX_SPAWN_OPEN, number, "/dev/null", os.O_RDWR, 0) for number in (0, 1, 2)]
    began = time.perf_counter()
    pid = os.posix_spawn(command[0], command, os.environ, file_actions=to_null)
    _pid, status, usage = os.wait4(pid, 0)
    wall = time.perf_counter() - began
    if os.waitstatus_to_exitcode(status) not in (0, 2):  # 2: blkid found nothing
        raise RuntimeError(f"{' '.join(command)}: status {status}")
    return (usage.ru_utime + usage.ru_stime) * 1e6, wall * 1e6
