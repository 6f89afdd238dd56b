"""Trays of optical drives: what moves, what does not, and what a changed disc is listed as."""
import re

import pytest

from rig import GUEST, SCHEDULE, Disk, images

_folder = None
UNKNOWN = "ERR device does not exist or is not maintained by this service\n"
DONE = {"eject": "OK device ejected\n", "retract": "OK device retracted tray\n"}
HOLD = """import os, sys, time
os.open(sys.argv[1], os.O_RDONLY | os.O_NONBLOCK | os.O_EXCL)
print("held", flush=True)
time.sleep(1000)
"""


def drives(folder):
    global _folder
    _folder = folder
    return [Disk("optical-sata", images.iso(folder + "/first", "FIRST_DISC"), id="dvd"),
            Disk("optical-scsi", id="empty"), Disk("sata", 16 << 20, id="disk")]


def row(vm, name):
    """The fields of a device in the list."""
    return next(fields for fields in (line.split("\t") for line in vm.request("list").splitlines())
                if len(fields) == 10 and fields[1] == name)


def hold(vm, name):
    """A process that holds a drive; returns its pid."""
    vm.put("/run/rig/hold.py", HOLD)
    pid = vm.background("exec python3 /run/rig/hold.py /dev/" + name, "/run/rig/held")
    vm.wait_until(lambda: vm.text("/run/rig/held") == "held\n", 30)
    return pid


def let_go(vm, pid):
    vm.sh("kill -9 %s; while [ -e /proc/%s ]; do sleep .05; done" % (pid, pid))


@pytest.mark.parametrize("mode", [pytest.param("polling", marks=pytest.mark.long), "hotplug"])
def test_eject_and_retract(fresh, mode):
    """The tray of a drive with a disc and that of an empty one open and close, by the name and by
    the path, for any user; what has moved already stays where it is, to the same reply."""
    daemon = fresh.daemon(["--" + mode])
    for id, prefix, user in (("dvd", "", 0), ("empty", "/dev/", GUEST)):
        name = prefix + fresh.node(id)
        for request, is_open in (("eject", True), ("eject", True), ("retract", False),
                                 ("retract", False)):
            assert fresh.request("%s %s" % (request, name), uid=user) == DONE[request]
            assert fresh.tray(id)["open"] == is_open
    assert fresh.tray("dvd")["inserted"] and daemon.alive()


@pytest.mark.long
def test_devices_without_a_tray(fresh):
    """Whoever is not known, is a partition or is no optical drive is refused, in this order; the
    user of the schedule is refused where there is such a device."""
    fresh.daemon()
    dvd, disk = fresh.node("dvd"), fresh.node("disk")
    for request in ("eject", "retract"):
        for word in ("", " nosuch", " /dev/nosuch", " /dev/", ' "%s x"' % dvd, " /dev//" + dvd):
            assert fresh.request(request + word) == UNKNOWN
        assert fresh.request(request + " nosuch", uid=SCHEDULE) == UNKNOWN
        for word in (dvd, disk, "vda1"):
            assert fresh.request("%s %s" % (request, word), uid=SCHEDULE) == (
                "ERR schedule items are not allowed to do this\n")
        assert fresh.request(request + " vda1") == "ERR no such device\n"
        assert fresh.request(request + " /dev/vda1") == "ERR no such device\n"
        assert fresh.request("%s %s" % (request, disk)) == (
            "ERR device is not the kind that ejects\n")
    assert not fresh.tray("dvd")["open"]


def test_mounted_disc_stays_in(fresh):
    """A drive whose disc is mounted is refused both ways, wherever it is mounted; unmounted, it
    opens."""
    name = fresh.node("dvd")
    fresh.daemon()
    for place in ("/mnt/" + name, "/srv/disc"):
        fresh.sh("mkdir -p %s && mount -r /dev/%s %s" % (place, name, place))
        for request in ("eject", "retract"):
            assert fresh.request("%s %s" % (request, name)) == (
                "ERR device is mounted, unmount first\n")
        assert not fresh.tray("dvd")["open"] and fresh.sh("ls " + place).out
        fresh.sh("umount " + place)
    for request in ("eject", "retract"):
        assert fresh.request("%s %s" % (request, name)) == DONE[request]


@pytest.mark.long
def test_drive_that_is_held(fresh):
    """Somebody who holds a drive for himself alone keeps the daemon from opening it."""
    name = fresh.node("dvd")
    fresh.daemon()
    holder = hold(fresh, name)
    for request in ("eject", "retract"):
        assert fresh.request("%s %s" % (request, name)) == (
            "ERR cannot open device to perform operation\n")
    assert not fresh.tray("dvd")["open"]
    let_go(fresh, holder)
    for request in ("eject", "retract"):
        assert fresh.request("%s %s" % (request, name)) == DONE[request]


@pytest.mark.long
def test_door_that_is_locked(fresh):
    """A locked door stays shut and its disc listed. For this kernel that is no error: it hands on
    the drive's own status, a number above zero, and so the request is answered as if done."""
    name = fresh.node("dvd")
    daemon = fresh.strace_daemon("ioctl")
    assert row(fresh, name)[4] == "FIRST_DISC"
    fresh.sh("eject -i on /dev/" + name)
    try:
        assert fresh.request("eject " + name) == DONE["eject"]
        assert not fresh.tray("dvd")["open"]
        assert row(fresh, name)[4::5] == ["FIRST_DISC", "iso9660"]
    finally:
        fresh.sh("eject -i off /dev/" + name)
    assert re.search(r"CDROMEJECT, 0\) += 2$", "\n".join(daemon.trace()), re.M)
    for request in ("eject", "retract"):
        assert fresh.request("%s %s" % (request, name)) == DONE[request]


@pytest.mark.long
def test_drive_that_refuses(fresh):
    """A drive that does not obey refuses to open and to close, and is not told to start then."""
    name = fresh.node("dvd")
    daemon = fresh.strace_daemon("ioctl", inject=["ioctl:error=EIO"])
    assert fresh.request("eject " + name) == "ERR device refused eject\n"
    assert fresh.request("retract " + name) == "ERR device refused close tray\n"
    calls = re.findall(r"ioctl\(\d+<[^>]*>, (CDROM(?:STOP|EJECT|CLOSETRAY|START)\b)",
                       "\n".join(daemon.trace()))
    assert calls == ["CDROMSTOP", "CDROMEJECT", "CDROMCLOSETRAY"]
    assert not fresh.tray("dvd")["open"]


@pytest.mark.long
def test_drive_that_was_pulled(fresh):
    """A drive that is still on record but gone cannot be opened."""
    fresh.plug(Disk("optical-usb", id="portable"))
    name = fresh.node("portable")
    fresh.daemon(["--hotplug"])
    assert fresh.request("eject " + name) == DONE["eject"]
    fresh.unplug("portable")
    for request in ("eject", "retract"):
        assert fresh.request("%s %s" % (request, name)) == (
            "ERR cannot open device to perform operation\n")
    assert fresh.request("refresh") == "OK refreshed\n"
    assert fresh.request("eject " + name) == UNKNOWN


@pytest.mark.parametrize("mode", [pytest.param("polling", marks=pytest.mark.long), "hotplug"])
def test_disc_changed(fresh, mode):
    """After a change of discs the next listing has the new one's label and file system, and
    neither after the disc was taken out."""
    name = fresh.node("dvd")
    first = images.iso("%s/%s-1" % (_folder, mode), "FIRST_DISC")
    second = images.fs("%s/%s-2" % (_folder, mode), "32M", "udf", "SECOND_DISC")
    fresh.insert("dvd", first)
    fresh.daemon(["--" + mode])
    fresh.wait_until(lambda: row(fresh, name)[4::5] == ["FIRST_DISC", "iso9660"], 30,
                     lambda: row(fresh, name))
    for image, found in ((second, ["SECOND_DISC", "udf"]), (first, ["FIRST_DISC", "iso9660"])):
        assert fresh.request("eject " + name) == DONE["eject"]
        assert row(fresh, name)[4::5] == ["", ""]
        fresh.insert("dvd", image)        # shuts the tray, for QEMU tells of a new disc only then
        assert fresh.request("retract " + name) == DONE["retract"]
        assert not fresh.tray("dvd")["open"]
        assert row(fresh, name)[4::5] == found
    assert fresh.request("eject " + name) == DONE["eject"]
    fresh.remove_medium("dvd")
    assert fresh.request("retract " + name) == DONE["retract"]
    assert row(fresh, name)[4::5] == ["", ""]
    fresh.insert("dvd", first)
