"""Trays: what an optical drive is asked, and what is forgotten of its disc. The drive's own answers
come from refused and invented calls; the order of the replies is a golden conversation."""

import errno
import os
import re

import pytest

from machine.machine import sleep


def optical(machine, *injections, mode="--polling", name="sr0", **keys):
    """A machine with one optical drive; only the calls on its node are traced and injected into."""
    machine.plug("scsi", name, 1 << 20, model="DVD")
    machine.probe_says(name, "OLD", "iso9660")
    trace = ["-P", f"/dev/{name}", "-e", "trace=ioctl,openat,close"]
    for injection in injections:
        trace += ["-e", f"inject={injection}"]
    daemon = machine.start(mode, trace=trace, **keys)
    machine.settle()
    return daemon


def calls_of(machine, request, user="root"):
    """The reply to a request, and the calls that it made on the drive's node."""
    daemon = machine.daemon
    before = len(daemon.trace())
    reply = machine.ask(request, user)
    machine.pass_of_loop()
    lines = [line.split(None, 1)[1] for line in daemon.trace()[before:]]
    return reply, [re.sub(r" +", " ", line) for line in lines]


def requests_in(lines):
    return re.findall(r"ioctl\(\d+, (\w+)", "\n".join(lines))


def listed(machine):
    fields = machine.ask("list").splitlines()[1].split("\t")
    return fields[4], fields[9]


@pytest.mark.parametrize("word", ["sr0", "/dev/sr0"])
@pytest.mark.parametrize("user", ["root", "guest", "nobody"])
def test_eject_stops_the_disc_and_opens_the_tray(machine, word, user):
    """By name or by path, for everybody but one; opened to the exclusion of others and closed."""
    optical(machine, "ioctl:retval=0")
    reply, lines = calls_of(machine, f"eject {word}", user)
    assert reply == "OK device ejected\n"
    assert requests_in(lines) == ["CDROMSTOP", "CDROMEJECT"]
    opened = re.search(r'openat\(AT_FDCWD, "/dev/sr0", (\S+)\) = (\d+)', lines[0])
    assert sorted(opened[1].split("|")) == ["O_CLOEXEC", "O_EXCL", "O_NONBLOCK", "O_RDONLY"]
    assert lines[-1].startswith(f"close({opened[2]})")


@pytest.mark.parametrize("word", ["sr0", "/dev/sr0"])
@pytest.mark.parametrize("user", ["root", "guest", "nobody"])
def test_retract_closes_the_tray_and_starts_the_disc(machine, word, user):
    optical(machine, "ioctl:retval=0")
    reply, lines = calls_of(machine, f"retract {word}", user)
    assert reply == "OK device retracted tray\n"
    assert requests_in(lines) == ["CDROMCLOSETRAY", "CDROMSTART"]
    assert "O_RDONLY" in lines[0] and "O_EXCL" in lines[0] and "O_NONBLOCK" in lines[0]
    assert lines[-1].startswith("close(")


def test_an_ide_drive_has_a_tray_as_well(machine):
    machine.plug("ide", "hdc", 1 << 20, media="cdrom")
    machine.start(trace=["-P", "/dev/hdc", "-e", "trace=ioctl", "-e", "inject=ioctl:retval=0"])
    assert machine.ask("eject hdc") == "OK device ejected\n"
    assert machine.ask("retract hdc") == "OK device retracted tray\n"


def test_a_disc_that_cannot_be_stopped_is_ejected_all_the_same(machine):
    optical(machine, "ioctl:retval=0:when=2")
    reply, lines = calls_of(machine, "eject sr0")
    assert re.search("CDROMSTOP.* = -1 ENOTTY", lines[1])
    assert reply == "OK device ejected\n"


def test_a_drive_may_refuse_to_eject(machine):
    optical(machine, "ioctl:error=EIO:when=2")
    reply, lines = calls_of(machine, "eject sr0")
    assert reply == "ERR device refused eject\n"
    assert requests_in(lines) == ["CDROMSTOP", "CDROMEJECT"]
    assert lines[-1].startswith("close(")


def test_a_drive_may_refuse_to_close_its_tray(machine):
    """The disc is then not started either."""
    optical(machine, "ioctl:error=ENOSYS")
    reply, lines = calls_of(machine, "retract sr0")
    assert reply == "ERR device refused close tray\n"
    assert requests_in(lines) == ["CDROMCLOSETRAY"]
    assert lines[-1].startswith("close(")


def test_a_closed_tray_without_a_disc_to_start_is_a_success(machine):
    optical(machine, "ioctl:retval=0:when=1")
    reply, lines = calls_of(machine, "retract sr0")
    assert re.search("CDROMSTART.* = -1 ENOTTY", lines[2])
    assert reply == "OK device retracted tray\n"


@pytest.mark.parametrize("command", ["eject", "retract"])
def test_a_drive_that_somebody_holds_exclusively_is_left_alone(machine, command):
    optical(machine, "openat:error=EBUSY")
    reply, lines = calls_of(machine, f"{command} sr0")
    assert reply == "ERR cannot open device to perform operation\n"
    assert requests_in(lines) == []


@pytest.mark.parametrize("command", ["eject", "retract"])
def test_a_mounted_drive_is_not_even_opened(machine, command):
    """The kernel's table is read for each request: what was mounted just now counts."""
    optical(machine, "ioctl:retval=0")
    machine.add_mount_line("/dev/sr0 /mnt/sr0 iso9660 ro")
    reply, lines = calls_of(machine, f"{command} sr0")
    assert (reply, lines) == ("ERR device is mounted, unmount first\n", [])
    machine.drop_mount_line("/dev/sr0")
    reply, lines = calls_of(machine, f"{command} sr0")
    assert reply.startswith("OK ")


@pytest.mark.parametrize("command", ["eject", "retract"])
def test_the_schedule_user_moves_no_tray(machine, command):
    optical(machine, "ioctl:retval=0")
    assert calls_of(machine, f"{command} sr0", "schedule") == (
        "ERR schedule items are not allowed to do this\n",
        [],
    )


def test_without_a_schedule_user_nobody_is_taken_for_it(machine):
    machine.users(without=["schedule"])
    optical(machine, "ioctl:retval=0")
    for user in ("root", "guest", 500):
        assert machine.ask("eject sr0", user) == "OK device ejected\n"


# The disc.


# The status of a drive with a disc is 4; the same answer means success to every other request.


def test_a_disc_is_asked_for_once_until_the_tray_moves(machine):
    optical(machine, "ioctl:retval=4")
    assert listed(machine) == ("OLD", "iso9660")
    machine.probe_says("sr0", "NEW", "udf")
    sleep(1.2)
    assert listed(machine) == ("OLD", "iso9660")
    assert machine.ask("retract sr0") == "OK device retracted tray\n"
    assert listed(machine) == ("NEW", "udf")
    machine.probe_says("sr0", "NEWEST", "iso9660")
    assert machine.ask("eject sr0") == "OK device ejected\n"
    assert listed(machine) == ("NEWEST", "iso9660")


# The list asks for the status; then the tray moves, or does not, and the list asks again.
@pytest.mark.parametrize("command, when", [("eject", "1+3"), ("retract", "1+2")])
def test_a_tray_that_is_refused_makes_the_disc_forgotten_too(machine, command, when):
    optical(machine, f"ioctl:retval=4:when={when}")
    assert listed(machine) == ("OLD", "iso9660")
    machine.probe_says("sr0", "NEW", "udf")
    assert machine.ask(f"{command} sr0").startswith("ERR device refused ")
    assert listed(machine) == ("NEW", "udf")


@pytest.mark.parametrize("command", ["eject", "retract"])
def test_a_drive_that_is_held_makes_the_disc_forgotten_too(machine, command):
    """What opens it for reading alone is turned away; the list opens it for writing."""
    access_and_exclusion = os.O_ACCMODE | os.O_EXCL
    held = ("openat", errno.EBUSY, 2, access_and_exclusion, os.O_RDONLY | os.O_EXCL)
    optical(machine, "ioctl:retval=4", refuse=[held])
    assert listed(machine) == ("OLD", "iso9660")
    machine.probe_says("sr0", "NEW", "udf")
    reply = machine.ask(f"{command} sr0")
    assert reply == "ERR cannot open device to perform operation\n"
    assert listed(machine) == ("NEW", "udf")


@pytest.mark.parametrize("command", ["eject", "retract"])
def test_a_refusal_before_the_drive_is_touched_forgets_nothing(machine, command):
    optical(machine, "ioctl:retval=4")
    assert listed(machine) == ("OLD", "iso9660")
    machine.probe_says("sr0", "NEW", "udf")
    machine.add_mount_line("/dev/sr0 /mnt/sr0 iso9660 ro")
    assert machine.ask(f"{command} sr0") == "ERR device is mounted, unmount first\n"
    machine.drop_mount_line("/dev/sr0")
    assert machine.ask(f"{command} sr0", "schedule").startswith("ERR schedule items")
    assert listed(machine) == ("OLD", "iso9660")


@pytest.mark.parametrize("command", ["eject", "retract"])
def test_a_blank_disc_does_not_inherit_the_label_of_the_one_before(machine, command):
    optical(machine, "ioctl:retval=4")
    assert listed(machine) == ("OLD", "iso9660")
    machine.probe_runs("sr0", "exit 1\n")
    assert machine.ask(f"{command} sr0").startswith("OK ")
    assert listed(machine) == ("", " ")
