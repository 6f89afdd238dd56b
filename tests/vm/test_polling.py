"""Drives that come and go while the daemon polls."""
import os
import re

import pytest

from holders import has_ended
from rig import Disk, images

_folder = None


def drives(folder):
    global _folder
    _folder = folder
    return [Disk("sata", _two_partitions("sata"), id="sata", attached=False),
            Disk("sd", id="card")]


def _two_partitions(name):
    return images.two_partitions(os.path.join(_folder, name))


def appeared(*names):
    return ["Device %s just appeared (polling)" % n for n in names]


def disappeared(*names):
    return ["Device %s just disappeared (polling)" % n for n in names]


def device_lines(text):
    return [line for line in text.splitlines() if line.startswith("Device ")]


@pytest.mark.parametrize("bus", ["usb", "nvme", "virtio-scsi", "sata", "sd"])
def test_plug_and_unplug(fresh, bus):
    """A drive with two partitions is noticed by the polls, its line before theirs; pulled, the
    partitions' lines come before the drive's, and nothing of it stays in the listings."""
    daemon = fresh.daemon()
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    before = fresh.request("list")
    mark = len(daemon.err())
    for _ in range(2):
        if bus == "sata":
            id, name = "sata", fresh.plug("sata")
        elif bus == "sd":
            id = "card"
            fresh.insert("card", _two_partitions("sd"))
            name = fresh.node("card")
        else:
            id = bus
            name = fresh.plug(Disk(bus, _two_partitions(bus), id=bus))
        parts = fresh.parts(id, 2)
        for part in parts:
            daemon.wait_err("Device %s just appeared" % part, since=mark)
        assert device_lines(daemon.err()[mark:])[0] == appeared(name)[0]
        assert sorted(device_lines(daemon.err()[mark:])) == sorted(appeared(name, *parts))
        listing = fresh.request("list")
        assert re.search(r"^OK- \t%s\tHard Drive\t" % name, listing, re.M)
        assert [m for m in re.findall(r"^OK- \t\t(\S+)\tPartition\t", listing, re.M)
                if m in parts] == parts
        assert "\t%s\tPartition\t" % parts[1] in listing and "\tSECOND\t" in listing
        mark = len(daemon.err())
        if bus == "sd":
            fresh.remove_medium("card")
        else:
            fresh.unplug(id)
        daemon.wait_err("Device %s just disappeared" % name, since=mark)
        assert device_lines(daemon.err()[mark:]) == disappeared(*parts, name)
        assert fresh.request("list") == before
        mark = len(daemon.err())
    assert "BUG" not in daemon.err()


@pytest.mark.long
def test_drives_noticed_within_two_seconds(fresh):
    """From the kernel's notice to the daemon's line pass at most two seconds."""
    daemon = fresh.daemon()
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    mark = len(daemon.err())
    name = fresh.plug(Disk("virtio-scsi", 16 << 20, id="quick"))
    daemon.wait_err("Device %s just appeared" % name, timeout=2, since=mark)
    mark = len(daemon.err())
    fresh.unplug("quick")
    daemon.wait_err("Device %s just disappeared" % name, timeout=2, since=mark)


@pytest.mark.long
def test_repartitioned_drive(fresh):
    """A drive that gets another partition table while plugged loses and gains its partitions."""
    name = fresh.plug(Disk("virtio-scsi", _two_partitions("table"), id="table"))
    daemon = fresh.daemon()
    first, second = fresh.parts("table", 2)
    daemon.wait_err("Device %s just appeared (polling)\n" % second)
    mark = len(daemon.err())
    fresh.partition("table", "dos", [(None, "83")])
    daemon.wait_err("Device %s just disappeared (polling)\n" % second, since=mark)
    assert name in fresh.request("list")
    assert "\t\t%s\t" % first in fresh.request("list")
    assert "\t\t%s\t" % second not in fresh.request("list")
    fresh.unplug("table")


@pytest.mark.long
def test_apple_partition_map(fresh):
    """The partitions of an Apple map carry its names and types; the map's last entry is not looked
    at, so that the last partition carries none."""
    fresh.plug(Disk("virtio-scsi", 16 << 20, id="apple"))
    daemon = fresh.daemon()
    parts = fresh.partition("apple", "apm", [("4M", "Apple_HFS"), (None, "Apple_UNIX_SVR2")])
    daemon.wait_err("Device %s just appeared (polling)\n" % parts[-1])
    daemon.stop()
    fresh.daemon()                         # reads the map as it finds the drive
    models = dict(re.findall(r"^OK- \t\t(\S+)\tPartition\tSCSI\t[^\t]*\t\d+\t([^\t]*)\t",
                             fresh.request("list"), re.M))
    assert [models[p] for p in parts] == ["Apple, Apple_partition_map", "part1, Apple_HFS", ""]
    fresh.unplug("apple")


def mount(vm, part, link=None):
    """Mounts a partition where the daemon would, with the link of its label."""
    vm.sh("mkdir -p /mnt/%s && mount /dev/%s /mnt/%s" % (part, part, part))
    if link:
        vm.sh("ln -s %s '/mnt/^%s'" % (part, link))


def test_mounted_stick_pulled(fresh):
    """A mounted stick that is pulled is unmounted by force: the processes on it are driven out and
    its folders go. Its label is not to be had any more, so that the link is left to the
    housekeeping, which takes what dangles; a stranger's link of that kind stays."""
    name = fresh.plug(Disk("usb", _two_partitions("stick"), id="stick"))
    first, second = fresh.parts("stick", 2)
    daemon = fresh.daemon()
    daemon.wait_err("Device %s just appeared (polling)\n" % second)
    fresh.request("list")                               # learns the labels
    mount(fresh, first, "FIRST")
    mount(fresh, second)
    fresh.sh("ln -s /srv '/mnt/^SECOND'")
    holder = fresh.background("cd /mnt/%s && exec sleep 1000 9>file" % first)
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    mark = len(daemon.err())
    fresh.unplug("stick")
    err = daemon.wait_err("Device %s just disappeared (polling)\n" % name, since=mark)[mark:]
    assert "killing processes using %s on /mnt/%s\n" % (first, first) in err
    assert "killing processes using %s on /mnt/%s\n" % (second, second) in err
    assert device_lines(err) == disappeared(first, second, name)
    assert "/mnt/" not in fresh.text("/proc/mounts")
    assert has_ended(fresh, holder)
    assert any("%s: sleep is using mount points. terminating..." % holder in line
               for line in fresh.syslog())
    assert fresh.sh("ls -A /mnt").out.split() in (["^FIRST", "^SECOND"], ["^SECOND"])
    fresh.wait_until(lambda: fresh.sh("ls -A /mnt").out == "^SECOND\n", 20, "the label link's end")
    assert fresh.sh("readlink '/mnt/^SECOND'").out == "/srv\n"
    assert "wait, cannot unmount" not in err and "BUG" not in err


@pytest.mark.long
def test_mounted_stick_without_partitions_pulled(fresh):
    """A stick without partitions keeps its label from the last listing on: when it is pulled, its
    label link goes with its mount."""
    name = fresh.plug(Disk("usb", images.fs(os.path.join(_folder, "plain"), "16M", "ext4", "PLAIN"),
                           id="plain"))
    daemon = fresh.daemon()
    daemon.wait_err("Device %s just appeared (polling)\n" % name)
    assert "\t%s\tHard Drive\tUSB\tPLAIN\t" % name in fresh.request("list")
    mount(fresh, name, "PLAIN")
    fresh.unplug("plain")
    fresh.wait_until(lambda: "/mnt/" not in fresh.text("/proc/mounts"), 5)
    fresh.request("help")                               # the pass that unmounted it is over
    assert fresh.sh("ls -A /mnt").out == ""
    assert device_lines(daemon.err())[-1:] == disappeared(name)


@pytest.mark.long
def test_stick_mounted_elsewhere_pulled(fresh):
    """A stick that somebody mounted outside /mnt is unmounted as well when it is pulled."""
    fresh.plug(Disk("usb", _two_partitions("guest"), id="guest"))
    first, second = fresh.parts("guest", 2)
    fresh.sh("mkdir -p /srv/stick && mount /dev/%s /srv/stick" % first)
    daemon = fresh.daemon()
    daemon.wait_err("Device %s just appeared (polling)\n" % second)
    mark = len(daemon.err())
    fresh.unplug("guest")
    daemon.wait_err("Device %s just disappeared (polling)\n" % first, since=mark)
    fresh.wait_until(lambda: "/srv/stick" not in fresh.text("/proc/mounts"), 10)
    fresh.wait_until(lambda: fresh.sh("[ -e /srv/stick ]", check=False).rc == 1, 5,
                     "the mount point's removal")


@pytest.mark.long
def test_md_array_comes_and_goes(fresh):
    """An md array that is assembled and stopped appears and disappears as a drive, and its
    members are marked."""
    fresh.plug(Disk("virtio-scsi", 32 << 20, id="a"))
    fresh.plug(Disk("virtio-scsi", 32 << 20, id="b"))
    a, b = fresh.node("a"), fresh.node("b")
    daemon = fresh.daemon()
    daemon.wait_err("Device %s just appeared (polling)\n" % b)
    mark = len(daemon.err())
    fresh.sh("mdadm -q --create /dev/md7 --run --level=1 --raid-devices=2 --metadata=1.2 "
             "--assume-clean /dev/%s /dev/%s 2>&1" % (a, b))
    daemon.wait_err("Device md7 just appeared (polling)\n", since=mark)
    assert raid_states(fresh.request("list"), a, b) == ["Active RAID"] * 2
    mark = len(daemon.err())
    fresh.sh("mdadm -q --stop /dev/md7 2>&1")
    daemon.wait_err("Device md7 just disappeared (polling)\n", since=mark)
    assert fresh.request("refresh") == "OK refreshed\n"
    assert raid_states(fresh.request("list"), a, b) == ["Inactive RAID"] * 2
    fresh.unplug("a")
    fresh.unplug("b")


def raid_states(listing, *names):
    rows = {f[1]: f[8] for f in (line.split("\t") for line in listing.splitlines()) if len(f) == 10}
    return [rows[name] for name in names]
