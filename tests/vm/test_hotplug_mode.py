"""Hotplug mode: no polling, a refresh every four seconds and a rescan every sixty."""
import re
import time

import pytest

from rig import GUEST, Disk, images

pytestmark = pytest.mark.long

PRESENCE_FILES = ("/sbin/hotplug", "/etc/hotplug.d/block/quarryd.hotplug")


def drives(folder):
    return [Disk("optical-sata", images.iso(folder + "/small", "SMALL"), id="dvd"),
            Disk("virtio-scsi", 32 << 20, id="a"), Disk("virtio-scsi", 32 << 20, id="b")]


def field(listing, name, number):
    return next(f[number] for f in (line.split("\t") for line in listing.splitlines())
                if len(f) > 1 and f[1] == name)


def test_presence_files_choose_the_mode(fresh):
    """Both files of the hotplug system, regular and executable, make hotplug mode the default;
    one of them that is missing or not executable leaves polling. The hook is there as installed."""
    def mode(*args):
        daemon = fresh.daemon(args)
        out = fresh.wait_until(lambda: daemon.out() if "Main label" in daemon.out() else None, 10)
        assert daemon.stop() == 0
        return out.splitlines()[:-2]
    said = ["/sbin/hotplug present and executable",
            "/etc/hotplug.d/block/quarryd.hotplug is present and executable"]
    assert mode() == said[1:] + ["Polling mode enabled"]
    for path in PRESENCE_FILES:
        fresh.put(path, "#!/bin/sh\n", 0o755)
    assert mode() == said + ["Hotplug mode enabled"]
    assert mode("--polling") == said + ["Polling mode enabled"]
    fresh.sh("chmod -x " + PRESENCE_FILES[1])
    assert mode() == said[:1] + ["Polling mode enabled"]
    assert mode("--hotplug") == said[:1] + ["Hotplug mode enabled"]
    hotplug, hook = PRESENCE_FILES
    fresh.sh("chmod 0010 %s; rm %s; mkdir %s" % (hook, hotplug, hotplug))
    assert mode() == said[1:] + ["Polling mode enabled"]
    fresh.sh("rm " + hook)
    assert mode() == ["Polling mode enabled"]


def test_nothing_is_polled(fresh):
    """A drive that is plugged in hotplug mode stays unknown until a rescan, which comes sixty
    seconds after the last one; "refresh" does it at once."""
    daemon = fresh.daemon(["--hotplug"])
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    time.sleep(1)                                   # the first pass of the loop rescans
    mark = len(daemon.err())
    first = fresh.plug(Disk("usb", 16 << 20, id="first"))
    time.sleep(5)
    assert first not in daemon.err()[mark:] and "\t%s\t" % first not in fresh.request("list")
    assert fresh.request("refresh") == "OK refreshed\n"
    assert "Device %s just appeared (polling)\n" % first in daemon.err()[mark:]
    assert "\t%s\tHard Drive\tUSB\t" % first in fresh.request("list")
    second = fresh.plug(Disk("usb", 16 << 20, id="second"))
    fresh.unplug("first")
    time.sleep(2)
    assert second not in daemon.err() and "disappeared" not in daemon.err()
    fresh.sh("date -s '+61 sec'")                   # the daemon goes by the clock
    daemon.wait_err("Device %s just appeared (polling)\n" % second, timeout=3)
    daemon.wait_err("Device %s just disappeared (polling)\n" % first, timeout=3)
    fresh.unplug("second")


def test_refresh_sees_capacity_arrive(fresh):
    """Within about four seconds the refresh sees a drive's capacity go from 0 to its size: here
    that of an array which was there but did not run, as a reader is without a card."""
    a, b = fresh.node("a"), fresh.node("b")
    fresh.sh("modprobe md_mod && echo md8 >/sys/module/md_mod/parameters/new_array")
    fresh.daemon(["--hotplug"])
    assert field(fresh.request("list"), "md8", 5) == "0"
    fresh.sh("mdadm -q --create /dev/md8 --run --level=1 --raid-devices=2 --metadata=1.2 "
             "--assume-clean /dev/%s /dev/%s 2>&1" % (a, b))
    size = int(fresh.text("/sys/block/md8/size")) * 512
    assert size > 1 << 20
    fresh.wait_until(lambda: field(fresh.request("list"), "md8", 5) == str(size), 6,
                     "the capacity in the list")
    fresh.sh("mdadm -q --stop /dev/md8 2>&1; mdadm -q --zero-superblock /dev/%s /dev/%s" % (a, b))


@pytest.mark.long
def test_refresh_sees_another_disc(fresh, tmp_path):
    """A disc that was changed shows its size after the refresh, its label in the next listing."""
    daemon = fresh.daemon(["--hotplug"])
    name = fresh.node("dvd")
    assert field(fresh.request("list"), name, 4) == "SMALL"
    large = images.iso(str(tmp_path / "large"), "LARGE", {"data": b"x" * 3000000})
    fresh.insert("dvd", large)
    listing = fresh.wait_until(
        lambda: (lambda l: l if field(l, name, 5) not in ("0", "") and int(field(l, name, 5)) >
                 3000000 else None)(fresh.request("list")), 8, "the new disc's size")
    assert field(listing, name, 4) == "LARGE" and field(listing, name, 9) == "iso9660"
    assert daemon.alive()


def test_refresh_marks_raid_members(fresh):
    """The refresh marks the members of an array as active when it runs, and as inactive when it
    has been stopped."""
    a, b = fresh.node("a"), fresh.node("b")
    fresh.sh("mdadm -q --create /dev/md7 --run --level=1 --raid-devices=2 --metadata=1.2 "
             "--assume-clean /dev/%s /dev/%s 2>&1" % (a, b))
    fresh.daemon(["--hotplug"])

    def states():
        listing = fresh.request("list")
        return [field(listing, name, 8) for name in (a, b)]
    fresh.wait_until(lambda: states() == ["Active RAID"] * 2, 6, "the members to be active")
    fresh.sh("mdadm -q --stop /dev/md7 2>&1")
    fresh.wait_until(lambda: states() == ["Inactive RAID"] * 2, 6, "the members to be inactive")
    fresh.sh("mdadm -q --zero-superblock /dev/%s /dev/%s" % (a, b))


@pytest.mark.long
def test_modes_switched_at_run_time(fresh):
    """"hotplug" stops the polling and "poll" starts it again; both are for root alone."""
    daemon = fresh.daemon()
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    for request in ("hotplug", "poll", "polling"):
        assert fresh.request(request, uid=GUEST) == "ERR authorization required\n"
    assert fresh.request("hotplug") == "OK hotplug mode enabled\n"
    time.sleep(1.5)       # the rescan that is due when the mode begins
    name = fresh.plug(Disk("virtio-scsi", 16 << 20, id="late"))
    time.sleep(3)
    assert "Device %s " % name not in daemon.err()
    assert fresh.request("polling") == "OK polling mode enabled\n"
    daemon.wait_err("Device %s just appeared (polling)\n" % name, timeout=2)
    fresh.unplug("late")
    daemon.wait_err("Device %s just disappeared (polling)\n" % name)
    assert re.findall("Switching on .*", daemon.err()) == [
        "Switching on Hotplug mode", "Switching on Polling mode"]
    assert fresh.request("poll") == "OK polling mode enabled\n"
