"""A crowd at the door: fifty clients inside, two hundred in front of it."""

import os
import time

import pytest

from machine.clients import wait_until
from machine.drives import big_machine
from machine.machine import REAL_PROC
from machine.sleeper import sleeper

from crowd import LONGEST_HOLD, PATIENT, WAYS, Crowd

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


def crowded(machine, daemon, crowd, seconds, **keys):
    """A crowd has come and gone."""
    crowd.run(seconds, **keys)
    wait_until(lambda: not clients_of(daemon), what=daemon.descriptors)
    machine.settle()
    wait_until(lambda: not clients_of(daemon), what=daemon.descriptors)
    return crowd


def clients_of(daemon):
    """Its sockets but the one that it listens on and the one to the log."""
    return [name for name in daemon.descriptors().values() if name.startswith("socket:")][2:]


PASS = 0.05  # seconds: a pass takes in one client and sleeps
QUEUE = 17  # clients that the kernel keeps in order in front of the daemon
PATIENCE = 2  # times what all in front of a client take, if the daemon sleeps in every pass
SMALL = 60  # clients of a crowd whose memory is compared
MOST_CROWDS = 8  # until one needs not a page that the one before it did not
DRIVES = 2000


def fills_up(crowd, daemon):
    """What a crowd is to do so that at one moment fifty are inside and the others in front."""

    def inside():
        wait_until(lambda: len(clients_of(daemon)) == INSIDE, what="fifty clients inside")

    def full():
        wait_until(lambda: len(crowd.at_the_door) == INSIDE + OUTSIDE, what="all at the door")
        assert len(clients_of(daemon)) == INSIDE
        assert not crowd.visits  # some vanish unheard, and come again

    return {"first": INSIDE, "when_inside": inside, "when_full": full}


def loaded(machine, seconds):
    """Lets a crowd come to a daemon that has seen some before; what is left of them is looked for
    here. A listing is larger than what a socket holds."""
    big_machine(machine, DRIVES)
    daemon = machine.start("--hotplug")
    size = len(machine.ask("list"))
    began = time.monotonic()
    machine.ask("list")
    alone = time.monotonic() - began
    taken = []
    # Always the same: the first ones take the memory that is needed.
    while len(taken) < 3 or taken[-1] != taken[-2] and len(taken) < MOST_CROWDS:
        crowded(machine, daemon, Crowd(SMALL, seed=1), 0)
        taken.append(memory(daemon))
    descriptors = daemon.descriptors()
    asleep = sleeper()
    began = time.monotonic()
    crowd = Crowd(INSIDE + OUTSIDE, seed=2)
    crowded(machine, daemon, crowd, seconds, **fills_up(crowd, daemon))
    took = time.monotonic() - began
    stood_still = took - asleep.awake(began, began + took)
    after = memory(daemon)
    print(
        f"a list of {size} bytes in {alone * 1000:.1f} ms; {took:.1f} s, "
        f"{len(crowd.visits)} replies, {crowd.others} other visits, "
        f"longest wait {crowd.longest():.1f} s, in the queue {crowd.longest_in_queue():.1f} s, "
        f"overtaken {crowd.most_overtaken()} times at most; "
        f"{len(crowd.made_wait)} made the daemon wait, {crowd.served_meanwhile()} served "
        f"meanwhile; "
        f"(pages, heap) {taken} -> {after}"
    )
    assert not crowd.wrong, crowd.wrong[:10]
    replied = {index for index, *_ in crowd.visits}
    waiting = {i for i in range(crowd.size) if WAYS[i % len(WAYS)].__name__ in PATIENT}
    assert waiting <= replied
    # In front of a full queue it is the kernel that chooses, so that is another wait.
    in_front = (INSIDE + QUEUE) * (PASS + alone) + LONGEST_HOLD
    assert crowd.longest_in_queue() < PATIENCE * in_front + stood_still
    slow = [way.__name__ for way in WAYS].count("reads_slowly") * crowd.size // len(WAYS)
    assert len(crowd.made_wait) >= slow / 2
    assert crowd.served_meanwhile() > 0
    assert daemon.descriptors() == descriptors
    # What each crowd left behind would make each need more than the one before.
    assert taken[-1] == taken[-2]
    # At most fifty replies were there at once, each in a text that doubles when it grows, and what
    # the allocator keeps of them is all that is more than before.
    assert after[1] - taken[-1][1] <= INSIDE * 2 * size
    assert (after[0] - taken[-1][0]) * os.sysconf("SC_PAGESIZE") <= INSIDE * 2 * size
    return crowd, alone


@pytest.mark.seconds(120)
def test_nobody_in_a_crowd_is_passed_over_and_nothing_is_left_of_it(machine, release):
    crowd, alone = loaded(machine, seconds=2)
    # A pass takes in one client, and each has its step in every pass.
    assert crowd.most_overtaken() <= 2
    everybody = crowd.size * (PASS + alone) + LONGEST_HOLD
    assert crowd.longest() < PATIENCE * everybody


@pytest.mark.long
@pytest.mark.seconds(1000)
def test_ten_minutes_of_a_crowd_leave_no_more_than_one(machine, release):
    # Who stands below somebody that has gone has his step in the next pass, and again in the next
    # when somebody goes in every pass (test_control_socket.py drives that to sixteen): in so long a
    # time some are overtaken more often, and it is the bound of the wait in the queue that holds.
    loaded(machine, seconds=600)
