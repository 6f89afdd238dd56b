"""The loop: what one pass does and in which order, its clock, children, modes."""

import os
import re
import signal
import time

import pytest

from machine import kernel
from machine.clients import wait_until
from machine.machine import REAL_PROC, sleep

# Each step of a pass, as it shows in a trace. The order of the list is the order of the steps.
STEPS_OF_A_PASS = [
    ("start script", r"\bv?fork\(|\bclone3?\("),
    ("clients", r"\baccept4?\("),
    ("sleep", r"nanosleep\("),
    ("kernel tables", r'open(at)?\(.*"/proc/filesystems"'),
    ("partition list", r'open(at)?\(.*"/proc/partitions"'),
    ("reaping", r"\bwait4\(-1"),
    ("/mnt", r'chdir\("/mnt"\)'),
]
TRACE = (
    "-e",
    "trace=fork,vfork,clone,clone3,accept,accept4,nanosleep,clock_nanosleep,open,openat,wait4,"
    "chdir,recvfrom,sendto",
)


def traced_lines(daemon, pattern=r""):
    """The daemon's own calls, without those of its children."""
    own = [line for line in daemon.trace() if line.startswith(f"{daemon.pid} ")]
    return [line for line in own if re.search(pattern, line)]


def test_order_of_one_pass(machine):
    """Start script, clients, sleep, tables, reaping, /mnt: the first pass does all of it."""
    machine.script("/root/start", "exit 0\n")
    machine.configure("startup script=/root/start\n")
    daemon = machine.start(trace=TRACE)
    machine.pass_of_loop()
    machine.stop()
    lines = traced_lines(daemon)
    first = next(i for i, line in enumerate(lines) if re.search(STEPS_OF_A_PASS[0][1], line))
    places = []
    for name, pattern in STEPS_OF_A_PASS:
        found = [i for i, line in enumerate(lines) if i >= first and re.search(pattern, line)]
        assert found, f"{name} is missing in\n" + "\n".join(lines)
        places.append(found[0])
    assert places == sorted(places), "\n".join(lines[first : max(places) + 1])


def test_idle_loop_sleeps_fifty_milliseconds_a_pass(machine):
    daemon = machine.start("--hotplug", trace=TRACE)
    machine.pass_of_loop()
    for _ in range(3):  # a machine that is busy gives it fewer passes
        before = len(traced_lines(daemon, "nanosleep"))
        start = time.monotonic()
        sleep(2)
        seconds = time.monotonic() - start
        passes = len(traced_lines(daemon, "nanosleep")) - before
        assert passes < 21 * seconds
        if passes > 12 * seconds:
            break
    machine.stop()
    assert all("tv_nsec=50000000" in line for line in traced_lines(daemon, "nanosleep"))
    assert passes > 12 * seconds


def test_a_pass_that_did_work_does_not_sleep(machine):
    """A request that comes in pieces is worked on without a pause between the pieces."""
    daemon = machine.start(trace=TRACE)
    client = machine.connect()
    client.ask("first")
    before = len(traced_lines(daemon, "nanosleep"))
    client.send(b"x" * 60000 + b"\n")
    client.reply()
    machine.stop()
    sleeps = traced_lines(daemon, "nanosleep")
    assert len(sleeps) - before < 20  # sixty reads of 1024 bytes, none of which waits


# The clock.


def readings(watch, seconds, path="/proc/partitions"):
    """When the file was opened, in seconds from now on."""
    start = time.monotonic()
    times = []
    while (passed := time.monotonic() - start) < seconds:
        times += [time.monotonic() - start] * watch.seen(min(0.2, seconds - passed)).count(path)
    return times


def test_tables_are_read_once_a_second(machine):
    machine.start()
    machine.settle()
    watch = kernel.FileWatch("/proc/partitions", "/proc/filesystems", "/proc/mounts")
    assert len(readings(watch, 3.9)) in (3, 4)


def test_tables_are_read_once_a_second_in_hotplug_mode_too(machine):
    machine.start("--hotplug")
    machine.settle()
    watch = kernel.FileWatch("/proc/partitions", "/proc/filesystems", "/proc/mounts")
    assert len(readings(watch, 2.9)) in (2, 3)


def test_order_of_the_tables(machine):
    """The second mount table, the first, the file systems, the partitions; then the drives."""
    machine.start()
    machine.settle()
    watch = kernel.FileWatch("/proc/mounts", "/proc/filesystems", "/proc/partitions")
    sleep(0.3)
    watch.seen()
    events = []
    while len(set(events)) < 3:
        events += wait_until(lambda: watch.seen(2), what=f"more than {events}")
    # Both mount tables are one file.
    opened = [path for path, before in zip(events, [None, *events]) if path != before]
    assert opened[:3] == ["/proc/mounts", "/proc/filesystems", "/proc/partitions"]


def test_missed_seconds_are_caught_up_one_a_pass(machine):
    """After a stall of five seconds the tables are read again on pass after pass."""
    daemon = machine.start()
    machine.settle()
    watch = kernel.FileWatch("/proc/partitions", "/proc/filesystems", "/proc/mounts")
    daemon.send_signal(signal.SIGSTOP)
    sleep(5)
    watch.seen()
    daemon.send_signal(signal.SIGCONT)
    times = readings(watch, 0.85)
    assert len(times) in (5, 6), times
    assert times[-1] - times[0] >= 0.15, f"not one a pass: {times}"


def test_missed_refreshes_are_caught_up_and_missed_housekeeping_is_not(machine):
    """After a stall of thirteen seconds: three or four refreshes on pass after pass; /mnt once."""
    machine.plug("sata", "sda", 1 << 20)
    daemon = machine.start("--hotplug")
    machine.settle()
    letters = {"/proc/filesystems": "f", "/sys/block/sda/size": "r", "/mnt": "m"}
    watch = kernel.FileWatch(*letters)
    daemon.send_signal(signal.SIGSTOP)
    sleep(13)
    watch.seen()
    daemon.send_signal(signal.SIGCONT)
    events = ""
    deadline = time.monotonic() + 0.9
    while (left := deadline - time.monotonic()) > 0:
        events += "".join(letters[path] for path in watch.seen(left))
    # A letter f for each pass, while the missed seconds are caught up as well.
    assert re.match("frm(fr){2,3}ff", events), events
    assert events.count("m") == 1, events


def test_clients_are_served_while_the_seconds_are_caught_up(machine):
    daemon = machine.start(trace=TRACE)
    machine.settle()
    daemon.send_signal(signal.SIGSTOP)
    sleep(3)
    daemon.send_signal(signal.SIGCONT)
    sleep(0.7)
    machine.stop()
    calls = traced_lines(daemon, r'accept4?\(|"/proc/partitions"')
    kinds = "".join("a" if "accept" in call else "p" for call in calls)
    start = kinds.index("p", 2)
    assert "pp" not in kinds[start:], "two readings in one pass"
    assert "papapa" in kinds[start:], kinds


def test_mnt_is_tidied_on_the_first_pass_and_every_five_seconds(machine):
    daemon = machine.start(trace=("-e", "trace=chdir", "-ttt"))
    sleep(10.6)
    machine.stop()
    times = [float(line.split()[1]) for line in traced_lines(daemon, r'chdir\("/mnt"\)')]
    assert len(times) == 3
    for earlier, later in zip(times, times[1:]):
        assert 4.0 < later - earlier < 6.1


def test_mnt_that_is_not_there_stops_nothing(machine):
    os.rmdir("/mnt")
    machine.start()
    machine.settle()


# Modes.


def test_polling_sees_a_new_drive_within_a_second(machine):
    daemon = machine.start()
    machine.plug("usb", "sdb", 1 << 20)
    daemon.wait_for("Device sdb just appeared (polling)\n", timeout=2.5)
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared (polling)\n", timeout=2.5)


@pytest.mark.seconds(120)
def test_hotplug_mode_looks_for_drives_once_a_minute(machine):
    """Once when the loop starts to turn, then after sixty seconds and not before."""
    machine.plug("usb", "sdb", 1 << 20)
    daemon = machine.start("--hotplug")
    start = time.monotonic()
    machine.pass_of_loop()
    machine.pass_of_loop()
    machine.plug("usb", "sdc", 1 << 20)
    machine.unplug("sdb")
    sleep(56 - (time.monotonic() - start))
    assert "sdc" not in daemon.stderr()
    assert "disappeared" not in daemon.stderr()
    daemon.wait_for("Device sdc just appeared (polling)\n", timeout=7)
    daemon.wait_for("Device sdb just disappeared (polling)\n", timeout=5)
    assert time.monotonic() - start > 58


@pytest.mark.parametrize("polled", [False, True])
def test_hotplug_mode_begins_with_a_look_at_all_drives(machine, polled):
    """The time of the first full rescan is long past then, and no polling has moved it."""
    daemon = machine.start("--polling")
    if polled:
        machine.settle()
    daemon.send_signal(signal.SIGSTOP)
    machine.plug("usb", "sdb", 1 << 20)
    client = machine.connect()
    client.send("hotplug\n")
    daemon.send_signal(signal.SIGCONT)
    assert client.reply() == "OK hotplug mode enabled\n"
    machine.pass_of_loop()
    assert "Device sdb just appeared (polling)\n" in daemon.stderr()


def test_switching_to_hotplug_mode_stops_the_polling(machine):
    daemon = machine.start()
    assert machine.ask("hotplug") == "OK hotplug mode enabled\n"
    machine.pass_of_loop()
    machine.pass_of_loop()
    machine.plug("usb", "sdb", 1 << 20)
    sleep(2.5)
    assert "sdb" not in daemon.stderr()
    assert machine.ask("poll") == "OK polling mode enabled\n"
    daemon.wait_for("Device sdb just appeared (polling)\n")


def test_hotplug_refresh_comes_every_four_seconds(machine):
    """Drives are asked again, partitions are not, and nothing is created or removed."""
    machine.plug("sata", "sda", 0, model="Slot")
    machine.part("sda1", 1 << 20)
    daemon = machine.start("--hotplug")
    machine.pass_of_loop()
    machine.pass_of_loop()
    machine.resize("sda", 1 << 30)
    machine.attribute("sda", "sda1/size", "1\n")
    machine.part("sda2", 1 << 20)
    wait_until(lambda: "\t1073741824\tSlot" in machine.ask("list"), timeout=5.5)
    listing = machine.ask("list")
    assert "\t\tsda1\tPartition\tSATA\t\t1048576\t" in listing
    assert "sda2" not in listing + daemon.stderr()


def test_hotplug_refresh_forgets_what_the_probe_said_of_a_drive(machine):
    """Every four seconds a drive's label is empty again, until the next listing asks."""
    machine.plug("usb", "sdb", 1 << 20)
    machine.plug("usb", "sdc", 1 << 20)
    machine.part("sdc1", 1 << 20)
    machine.probe_says("sdb", "OLD", "ext3")
    machine.probe_says("sdc1", "OLD", "ext3")
    machine.start("--hotplug")
    machine.pass_of_loop()
    machine.pass_of_loop()
    machine.ask("list")
    machine.probe_says("sdb", "NEW", "ext3")
    machine.probe_says("sdc1", "NEW", "ext3")
    wait_until(lambda: "\tNEW\t" in machine.ask("list"), timeout=5.5)
    listing = machine.ask("list")
    assert "\tsdb\tHard Drive\tUSB\tNEW\t" in listing
    assert "\t\tsdc1\tPartition\tUSB\tOLD\t" in listing


def test_polling_does_not_ask_a_known_drive_again(machine):
    """A new size of a drive is learnt in hotplug mode; polling keeps to what it knows."""
    machine.plug("mmc", "mmcblk0", 0, model="Slot")
    machine.start()
    machine.resize("mmcblk0", 1 << 30)
    machine.settle()
    assert "\tMMC/SD\t\t0\tSlot" in machine.ask("list")
    machine.ask("refresh")
    assert "\tMMC/SD\t\t0\tSlot" in machine.ask("list")


def test_the_four_second_clock_runs_in_polling_mode_as_well(machine):
    """Turning hotplug mode on after nine seconds brings one refresh, not one for each missed."""
    machine.plug("sata", "sda", 1 << 20)
    machine.start()
    sleep(9)
    watch = kernel.FileWatch("/sys/block/sda/size", "/sys/class/scsi_disk")
    size = "/sys/block/sda/size"
    machine.ask("hotplug")
    seen = readings(watch, 1.5, size)
    assert len(seen) <= 1, seen


def test_hotplug_refresh_drops_the_raid_mark_of_a_former_slave(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.plug("md", "md0", 1 << 20, slaves="sdb")
    machine.start("--hotplug")
    machine.ask("refresh")
    assert "\tsdb\tHard Drive\tUSB\t\t1048576\t\t\tActive RAID\t \n" in machine.ask("list")
    os.unlink("/sys/block/md0/slaves/sdb")
    wait_until(lambda: "Inactive RAID" in machine.ask("list"), timeout=5.5)


# Children.


def test_start_script_is_reported_when_it_ends(machine):
    machine.script("/root/start", "echo $$ > /root/pid\n")
    machine.configure("startup script=/root/start\n")
    daemon = machine.start()
    daemon.wait_for(" died\n")
    with open("/root/pid") as file:
        assert f"Process {file.read().strip()} died\n" in daemon.stderr()
    assert daemon.children() == []


def test_one_child_is_reaped_a_pass(machine):
    """Five children that end together are reported one after the other, a pass apart."""
    machine.script(
        "/root/parent",
        "for i in 1 2 3 4 5; do sh -c 'until [ -e /root/go ]; do sleep 0.05; done' & done\n"
        "exec /usr/sbin/quarryd\n",
    )
    daemon = machine.start(program="/root/parent", trace=("-e", "trace=accept,accept4,wait4"))
    machine.settle()
    open("/root/go", "w").close()
    daemon.wait_for(" died\n", times=5)
    machine.stop()
    lines = traced_lines(daemon, r"accept4?\(|wait4\(-1.*\)\s+= [0-9]+$")
    kinds = "".join(
        "a" if "accept" in line else "r" if not line.endswith(" = 0") else "" for line in lines
    )
    assert kinds.count("r") == 5
    assert "rr" not in kinds, kinds
    reported = re.findall(r"^Process (\d+) died$", daemon.stderr(), re.M)
    assert len(set(reported)) == 5


def test_a_child_that_was_not_its_own_start_script_is_reaped_too(machine):
    machine.script("/root/parent", "sleep 0.5 &\nexec /usr/sbin/quarryd\n")
    daemon = machine.start(program="/root/parent")
    daemon.wait_for(" died\n")
    assert daemon.children() == []


# Descriptors.


def test_every_descriptor_closes_when_another_program_starts(machine):
    """Whatever the daemon holds between two passes, no child gets it."""
    machine.plug("usb", "sdb", 1 << 20)
    daemon = machine.start()
    clients = [machine.connect() for _ in range(3)]
    for client in clients:
        client.ask("list")
    descriptors = daemon.descriptors()
    assert len([name for name in descriptors.values() if name.startswith("socket:")]) >= 4
    for number in descriptors:
        if number > 2:
            with open(f"{REAL_PROC}/{daemon.pid}/fdinfo/{number}") as file:
                flags = int(re.search(r"flags:\s*(\d+)", file.read()).group(1), 8)
            assert flags & os.O_CLOEXEC, f"{number}: {descriptors[number]}"


def test_polling_leaves_no_descriptor_behind(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 1 << 20)
    daemon = machine.start()
    machine.ask("list")
    machine.settle()

    def kinds():
        return sorted(re.sub(r"\[\d+\]", "", name) for name in daemon.descriptors().values())

    # The last client is forgotten: the log and the listening socket are left.
    wait_until(lambda: kinds().count("socket:") == 2, what="nobody being connected")
    before = kinds()
    for _ in range(3):
        machine.plug("usb", "sdc", 1 << 20)
        machine.part("sdc1", 1 << 20)
        machine.settle()
        machine.ask("list")
        machine.ask("refresh")
        machine.unplug("sdc")
        machine.settle()
    wait_until(lambda: kinds() == before, what=f"{before} and no more")
