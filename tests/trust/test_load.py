"""A crowd at the door: fifty clients inside, two hundred in front of it."""

import time

import pytest

from machine.clients import wait_until
from machine.machine import REAL_PROC

from crowd import PATIENT, WAYS, Crowd

MIB = 1 << 20
INSIDE, OUTSIDE = 50, 200


def memory(daemon):
    """Resident pages (statm) and bytes of the heap (maps)."""
    with open(f"{REAL_PROC}/{daemon.pid}/statm") as file:
        resident = int(file.read().split()[1])
    heap = 0
    with open(f"{REAL_PROC}/{daemon.pid}/maps") as file:
        for line in file:
            if "[heap]" in line:
                first, last = line.split()[0].split("-")
                heap += int(last, 16) - int(first, 16)
    return resident, heap


def crowded(machine, daemon, size, seconds, seed):
    """A crowd has come and gone."""
    crowd = Crowd(size, seed)
    crowd.run(seconds)
    wait_until(lambda: not clients_of(daemon), what=daemon.descriptors)
    machine.settle()
    wait_until(lambda: not clients_of(daemon), what=daemon.descriptors)
    return crowd


def clients_of(daemon):
    """Its sockets but the one that it listens on and the one to the log."""
    return [name for name in daemon.descriptors().values() if name.startswith("socket:")][2:]


def loaded(machine, warm_up, seconds):
    """Lets a crowd come to a daemon that has seen one before; what is left of it is looked for
    here. Returns the daemon's resident pages before and after."""
    for number, letter in enumerate("abcdefghij"):
        machine.plug("sata", f"sd{letter}", MIB, model=f"Disk {number}")
        machine.part(f"sd{letter}1", 65536)
    daemon = machine.start("--polling")
    machine.ask("list")
    crowded(machine, daemon, INSIDE + 10, warm_up, seed=1)  # it takes the memory that it needs
    before, descriptors = memory(daemon), daemon.descriptors()
    began = time.monotonic()
    crowd = crowded(machine, daemon, INSIDE + OUTSIDE, seconds, seed=2)
    took = time.monotonic() - began
    resident, heap = memory(daemon)
    print(
        f"{took:.1f} s, {len(crowd.visits)} replies, {crowd.others} other visits, longest wait "
        f"{crowd.longest():.1f} s, overtaken {crowd.most_overtaken()} times at most; pages "
        f"{before[0]} -> {resident}, heap {before[1]} -> {heap}"
    )
    assert not crowd.wrong, crowd.wrong[:10]
    replied = {index for index, *_ in crowd.visits}
    waiting = {i for i in range(crowd.size) if WAYS[i % len(WAYS)].__name__ in PATIENT}
    assert waiting <= replied
    # A pass takes in one client, and each has its step in every pass.
    assert crowd.most_overtaken() <= 2
    assert daemon.descriptors() == descriptors
    assert heap == before[1]
    return before[0], resident


# Pages that belonged to the daemon before and are touched by a larger crowd for the first time.
SLACK = 16


@pytest.mark.seconds(120)
def test_nobody_in_a_crowd_is_passed_over_and_nothing_is_left_of_it(machine, release):
    before, after = loaded(machine, warm_up=0, seconds=2)
    assert after <= before + SLACK


@pytest.mark.long
@pytest.mark.seconds(900)
def test_ten_minutes_of_a_crowd_leave_no_more_than_one(machine, release):
    before, after = loaded(machine, warm_up=60, seconds=540)
    assert after <= before + SLACK
