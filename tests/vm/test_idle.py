"""An idle daemon leaves the drives alone."""
import os
import time

import pytest

from rig import sample_machine

pytestmark = pytest.mark.long

# The short form is for every run; QUARRYD_IDLE_SECONDS=600 is the long one.
SECONDS = float(os.environ.get("QUARRYD_IDLE_SECONDS", "20"))

drives = sample_machine.drives


def io_counts(vm):
    """The kernel's counts of every drive and partition."""
    out = vm.sh("grep -H . /sys/block/*/stat /sys/block/*/*/stat | grep -v -e /loop -e /ram").out
    return {line.split(":")[0]: tuple(line.split(":")[1].split()) for line in out.splitlines()}


@pytest.fixture(scope="module")
def assembled(vm):
    sample_machine.assemble(vm)
    return vm


@pytest.mark.parametrize("mode", ["polling", "hotplug"])
@pytest.mark.parametrize("known", [False, pytest.param(True, marks=pytest.mark.long)],
                         ids=["filesystems unknown", "filesystems known"])
def test_not_one_io_while_idle(assembled, mode, known):
    """Polls, refreshes and rescans do not reach any drive, whether or not a listing has learnt the
    filesystems yet."""
    vm = assembled
    vm.reset(keep_volumes=True)
    daemon = vm.daemon(["--" + mode])
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    vm.request("list" if known else "help")
    io_counts(vm)                               # the programs used here are in memory after this
    vm.sh("date; sync")
    time.sleep(1.5)
    before = io_counts(vm)
    assert {path.split("/")[3][:2] for path in before} == {
        "sd", "sr", "md", "dm", "vd", "mm", "nv"} and len(before) > 15
    if mode == "hotplug":
        vm.sh("date -s '+61 sec'")              # a full rescan comes in the same window
    time.sleep(SECONDS if known else SECONDS / 2)  # unknown: the same polls with less to forget
    after = io_counts(vm)
    assert daemon.alive()
    assert {path: (before[path], after[path]) for path in before
            if before[path] != after.get(path)} == {}
    assert vm.request("list").endswith("OK  eom\n")
    if not known:                                  # the counts do count: this listing read
        assert io_counts(vm) != after
