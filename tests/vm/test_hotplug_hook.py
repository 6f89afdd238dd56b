"""The kernel's events on their way to the daemon: through udevd and the installed rule, and through
a hotplug program that runs the installed hook."""
import os
import re
import threading
import time

import pytest

from expected import SOON, difference, wait_for_agreement
from rig import Disk, images

_folder = None

# Where the kernel has no helper any more, somebody who listens to it runs the same program; one
# after the other, for a partition whose notice overtakes its drive's makes the daemon look round.
HOTPLUG_PROGRAM = """#!/bin/sh
for hook in /etc/hotplug.d/$1/*.hotplug; do
    [ ! -x "$hook" ] || "$hook" "$1"
done
"""
EVENT_LISTENER = """import socket, subprocess
kernel = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 15)
kernel.bind((0, 1))
print("ready", flush=True)
while True:
    fields = kernel.recv(65536).split(b"\\0")[1:]
    event = dict(field.split(b"=", 1) for field in fields if b"=" in field)
    event.update({b"HOME": b"/", b"PATH": b"/sbin:/bin:/usr/sbin:/usr/bin"})
    if event.get(b"SUBSYSTEM") == b"block":    # nobody has hooks for others here
        subprocess.run(["/sbin/hotplug", "block"], env=event)
"""
BUSES = ["usb", "nvme", "virtio-scsi", "sata", "sd"]
HOLD_UP = 2           # seconds that an event may be held up by the daemon
NOISE = 1             # by which two runs of the same thing differ: seconds, and as a share


def drives(folder):
    global _folder
    _folder = folder
    return [Disk("sata", _image("sata"), id="sata", attached=False), Disk("sd", id="sd")]


def _image(name):
    return images.two_partitions(os.path.join(_folder, name))


@pytest.fixture(autouse=True)
def nothing_left_in(vm):
    """A test that failed leaves its drives in the machine, which the next one wants to insert."""
    yield
    for bus in BUSES:
        if bus in vm.slots and vm.slots[bus].plugged:
            pull(vm, bus)


def insert(vm, bus, wait=True):
    """Puts a drive with two partitions in, whatever that means on that bus; its id is the bus."""
    if bus == "sata":
        vm.plug("sata")
    elif bus == "sd":
        vm.insert("sd", _image("sd"))
    else:
        vm.plug(Disk(bus, _image(bus), id=bus), wait=wait)


def pull(vm, bus):
    if bus == "sd":
        vm.remove_medium("sd")
    else:
        vm.unplug(bus)


def device_lines(text):
    return [line for line in text.splitlines() if line.startswith("Device ")]


def notices(daemon, word=r"\S+"):
    return re.findall(r"^Notify %s .*" % word, daemon.err(), re.M)


def wait_for_pass(vm):
    """Waits until the daemon's loop has gone round: in each pass it takes in one client, before it
    looks whether a rescan is due."""
    for _ in range(2):
        vm.request("help")


def started(vm, *args):
    """The daemon, when the rescan that begins its loop is over."""
    daemon = vm.daemon(args)
    wait_for_pass(vm)
    return daemon


def wait_for_notices(vm, daemon, mark):
    """Waits until the daemon was told of the drive and of its two partitions, and has looked round
    a second later: if it did so any later it might find the next drive before that drive's own
    notice."""
    vm.wait_until(lambda: len(re.findall("^Notify ", daemon.err()[mark:], re.M)) >= 3, SOON,
                  lambda: "three notices: " + daemon.err()[mark:])
    time.sleep(1.1)
    wait_for_pass(vm)


def come_and_go(vm, daemon, bus):
    """A drive's life as the daemon tells it: each line within a second or so of the event."""
    mark = len(daemon.err())
    insert(vm, bus)
    name, parts = vm.node(bus), vm.parts(bus, 2)
    for device in [name] + parts:
        vm.wait_until(lambda: re.search(r"^Device %s (just )?appeared \(" % device,
                                        daemon.err()[mark:], re.M), SOON, device)
    wait_for_agreement(vm)
    wait_for_notices(vm, daemon, mark)
    told = device_lines(daemon.err()[mark:])
    if bus == "nvme":         # a name that misleads the daemon: it learns of it by the rescan
        assert told[0] == "Device %s just appeared (polling)" % name
    else:
        assert "Device %s appeared (hotplug)" % name in told, daemon.err()[mark:]
    assert "disappeared" not in "".join(told) and len(told) == 3
    mark = len(daemon.err())
    pull(vm, bus)
    daemon.wait_err("Device %s just disappeared" % name, timeout=SOON, since=mark)
    wait_for_notices(vm, daemon, mark)
    assert device_lines(daemon.err()[mark:]) == [
        "Device %s just disappeared (polling)" % device for device in parts + [name]]
    assert not difference(vm) and "BUG" not in daemon.err()


@pytest.mark.parametrize("bus", BUSES[:1] + [
    pytest.param(bus, marks=pytest.mark.long) for bus in BUSES[1:]])
def test_udev_tells_of_a_drive(fresh, bus):
    """With udevd and the rule, a drive with two partitions gets into the list soon after it was
    plugged, and out of it soon after it was pulled, without any polling."""
    fresh.udevd()
    daemon = started(fresh, "--hotplug")
    come_and_go(fresh, daemon, bus)
    assert notices(daemon, "add" if bus != "nvme" else "rescan") and notices(daemon, "remove")


def test_hook_tells_of_a_drive(fresh):
    """With a /sbin/hotplug that runs the installed hooks the daemon chooses hotplug mode by
    itself, and hears of a stick, a drive behind PCI Express and a card in a reader."""
    fresh.put("/sbin/hotplug", HOTPLUG_PROGRAM, 0o755)
    helper = "/proc/sys/kernel/hotplug"
    if fresh.sh("[ -e %s ]" % helper, check=False).rc == 0:
        fresh.write(helper, "/sbin/hotplug")
    else:
        fresh.put("/run/rig/listener.py", EVENT_LISTENER)
        fresh.background("exec python3 /run/rig/listener.py", "/run/rig/listener.out")
        fresh.wait_until(lambda: "ready" in fresh.text("/run/rig/listener.out"), 30)
    daemon = started(fresh)
    assert daemon.out().startswith("/sbin/hotplug present and executable\n"
                                   "/etc/hotplug.d/block/quarryd.hotplug is present and executable"
                                   "\nHotplug mode enabled\n")
    for bus in ("usb", "nvme", "sd"):
        come_and_go(fresh, daemon, bus)
    assert notices(daemon, "add") and notices(daemon, "remove")
    if fresh.sh("[ -e %s ]" % helper, check=False).rc == 0:
        fresh.write(helper, "\n")


def write_on(vm, part):
    """Mounts a partition and starts a process that writes to it; returns its pid."""
    vm.sh("mkdir -p /mnt/%s && mount /dev/%s /mnt/%s" % (part, part, part))
    return vm.sh("cd /mnt/%s && exec bash -c 'while :; do dd if=/dev/zero of=file bs=16k count=10 "
                 "conv=fsync; sleep 0.1; done' >/dev/null 2>&1 & echo $!" % part).out.strip()


@pytest.mark.parametrize("mode", [pytest.param("polling", marks=pytest.mark.long), "hotplug"])
def test_drives_all_at_once(fresh, mode):
    """A stick, an NVMe, a SCSI and a SATA drive and a card that come in the same moment, and go in
    the same moment while processes write to all of them: who wrote is driven out, every mount goes
    with its folder, and the list agrees with /sys/block. In polling mode their events are passed
    on as well, to no effect."""
    fresh.udevd()
    daemon = started(fresh, "--" + mode)
    before = fresh.request("list")
    mark = len(daemon.err())
    fresh.qmp("stop")                         # they are there when the machine goes on
    try:
        for bus in ("usb", "nvme", "virtio-scsi"):
            insert(fresh, bus, wait=False)
    finally:
        fresh.qmp("cont")
    for bus in ("sata", "sd"):
        insert(fresh, bus)
    parts = [fresh.parts(bus, 2) for bus in BUSES]
    names = [fresh.node(bus, 30) for bus in BUSES] + sum(parts, [])
    wait_for_agreement(fresh)
    told = device_lines(daemon.err()[mark:])
    assert len(told) == 15 and sorted(line.split()[1] for line in told) == sorted(names)
    writers = [write_on(fresh, first) for first, second in parts]
    for first, second in parts:
        fresh.wait_until(lambda: fresh.sh("[ -s /mnt/%s/file ]" % first, check=False).rc == 0, 30)
    mark = len(daemon.err())
    pulls = [threading.Thread(target=pull, args=(fresh, bus)) for bus in BUSES]
    for thread in pulls:
        thread.start()
    for thread in pulls:
        thread.join()
    wait_for_agreement(fresh)
    assert fresh.request("list") == before
    said = daemon.err()[mark:]
    assert sorted(device_lines(said)) == sorted(
        "Device %s just disappeared (polling)" % name for name in names)
    for first, second in parts:
        assert "killing processes using %s on /mnt/%s\n" % (first, first) in said
    fresh.wait_until(lambda: "/mnt/" not in fresh.text("/proc/mounts"), SOON)
    for pid in writers:                       # what is left of one that ended goes a moment later
        fresh.wait_until(lambda: fresh.sh("[ -e /proc/%s ]" % pid, check=False).rc == 1, SOON)
    fresh.wait_until(lambda: fresh.sh("ls -A /mnt").out == "", 8, "an empty /mnt")
    assert bool(notices(daemon)) == (mode == "hotplug")
    assert daemon.alive() and "BUG" not in daemon.err()


@pytest.mark.long
def test_change_events_are_kept_from_the_daemon(fresh):
    """A drive that is opened for writing makes "change" events: udevd has them, the daemon hears of
    none of them, nor do its own looks at the drive make any. So there is no loop."""
    fresh.udevd()
    daemon = started(fresh, "--hotplug")
    name = fresh.plug(Disk("virtio-scsi", 16 << 20, id="written"))
    wait_for_agreement(fresh)
    fresh.sh("udevadm settle")
    fresh.background("exec udevadm monitor --udev --subsystem-match=block", "/run/rig/events")
    fresh.wait_until(lambda: "UDEV" in fresh.text("/run/rig/events"), 10)

    def events():
        return re.findall(r"^UDEV +\[.*\] (\w+) +\S+/%s " % name, fresh.text("/run/rig/events"),
                          re.M)
    told = notices(daemon)
    fresh.sh("for n in 1 2 3; do : <>/dev/%s; udevadm settle; done" % name)
    fresh.wait_until(lambda: len(events()) >= 3, SOON, lambda: fresh.text("/run/rig/events"))
    assert set(events()) == {"change"}
    seen = len(events())
    for _ in range(2):
        fresh.request("refresh")
        fresh.request("list")
        time.sleep(1)
    assert len(events()) == seen
    assert notices(daemon) == told == ["Notify add %s parent %s" % (name, name)]
    fresh.unplug("written")


@pytest.mark.long
def test_events_are_never_held_up(fresh):
    """udevd is through with an event as soon as ever when there is no daemon and when it polls, and
    two seconds later at most when it was stopped; then it learns of the drive as it goes on."""
    def seconds():
        begin = time.monotonic()
        name = fresh.plug(Disk("virtio-scsi", 16 << 20, id="plain"))
        fresh.sh("udevadm settle")
        return name, time.monotonic() - begin

    def gone():
        begin = time.monotonic()
        fresh.unplug("plain")
        fresh.sh("udevadm settle")
        return time.monotonic() - begin

    fresh.udevd()
    _, usual = seconds()
    usual_end = gone()
    daemon = started(fresh, "--polling")
    _, polling = seconds()
    assert polling < usual * (1 + NOISE) + NOISE
    assert gone() < usual_end * (1 + NOISE) + NOISE
    assert notices(daemon) == [] and daemon.stop() == 0
    daemon = started(fresh, "--hotplug")
    daemon.signal(19)
    name, stopped = seconds()
    stopped_end = gone()
    print("udevd was done with a drive after %.1f s, %.1f s with a daemon that polls, %.1f s with "
          "one that was stopped; pulled: %.1f s, %.1f s" % (usual, polling, stopped, usual_end,
                                                            stopped_end))
    for seconds_then, without in ((stopped, usual), (stopped_end, usual_end)):
        assert 1 < seconds_then < without * (1 + NOISE) + HOLD_UP + NOISE
    daemon.signal(18)
    daemon.wait_err("Notify remove %s parent %s\n" % (name, name), timeout=SOON)
    assert notices(daemon) == ["Notify %s %s parent %s" % (action, name, name)
                               for action in ("add", "remove")]
    wait_for_agreement(fresh)


@pytest.mark.long
def test_volume_mounted_at_once_stays(fresh):
    """A device-mapper volume that is made and mounted in one breath, and a loop mount beside it,
    stay as they are when their events have been passed on."""
    fresh.udevd()
    fresh.plug(Disk("virtio-scsi", 32 << 20, id="lower"))
    lower = fresh.node("lower")
    fresh.sh("mkfs.ext4 -q /dev/%s && truncate -s 16M /run/rig/image && mkfs.ext4 -q "
             "/run/rig/image && modprobe -a loop dm_mod && mkdir -p /srv/volume /srv/image" % lower)
    daemon = started(fresh, "--hotplug")
    fresh.sh("dmsetup create vault --table '0 65536 linear /dev/%s 0' && mount /dev/dm-0 "
             "/srv/volume && losetup /dev/loop0 /run/rig/image && mount /dev/loop0 /srv/image; "
             "udevadm trigger --action=add --subsystem-match=block; udevadm settle" % lower)
    workers = [fresh.background("cd /srv/%s && exec sleep 1000" % place)
               for place in ("volume", "image")]
    daemon.wait_err("Device dm-0 just appeared (polling)\n", timeout=SOON)
    time.sleep(2)
    assert "disappeared" not in daemon.err() and "loop" not in daemon.err()
    for worker, device in zip(workers, ("dm-0", "loop0")):
        mounts = fresh.text("/proc/mounts").replace("/mapper/vault ", "/dm-0 ")
        assert "/dev/%s /srv/" % device in mounts
        assert fresh.sh("[ -e /proc/%s ]" % worker, check=False).rc == 0
    fresh.sh("kill %s; umount /srv/volume /srv/image; losetup -d /dev/loop0; dmsetup remove vault; "
             "rmmod loop" % " ".join(workers), check=False)
    fresh.unplug("lower")
