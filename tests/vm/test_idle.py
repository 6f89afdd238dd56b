"""An idle daemon leaves the drives alone."""
import os
import re
import time

import pytest

from rig import sample_machine

# The short form is for every run; QUARRYD_IDLE_SECONDS=600 is the long one.
SECONDS = float(os.environ.get("QUARRYD_IDLE_SECONDS", "20"))

drives = sample_machine.drives


def io_counts(vm):
    """The kernel's counts of every drive and partition."""
    out = vm.sh("grep -H . /sys/block/*/stat /sys/block/*/*/stat | grep -v -e /loop -e /ram").out
    return {line.split(":")[0]: tuple(line.split(":")[1].split()) for line in out.splitlines()}


@pytest.mark.parametrize("mode", ["polling", "hotplug"])
@pytest.mark.parametrize("known", [False, True], ids=["filesystems unknown", "filesystems known"])
def test_not_one_io_while_idle(fresh, mode, known):
    """Polls, refreshes and rescans do not reach any drive, whether or not a listing has learnt the
    filesystems yet."""
    sample_machine.assemble(fresh)
    daemon = fresh.daemon(["--" + mode])
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    fresh.request("list" if known else "help")
    io_counts(fresh)                               # what this reads is in memory from now on
    fresh.sh("sync")
    time.sleep(1.5)
    before = io_counts(fresh)
    assert {re.sub(r"\d+$", "", path.split("/")[3]) for path in before} >= {
        "sd", "sr", "md", "dm-", "vda"[:3], "mmcblk", "nvme0n"} and len(before) > 15
    if mode == "hotplug":
        fresh.sh("date -s '+61 sec'")              # a full rescan comes in the same window
    time.sleep(SECONDS)
    after = io_counts(fresh)
    assert daemon.alive()
    assert {path: (before[path], after[path]) for path in before
            if before[path] != after.get(path)} == {}
    assert fresh.request("list").endswith("OK  eom\n")
    if not known:                                  # the counts do count: this listing read
        assert io_counts(fresh) != after
