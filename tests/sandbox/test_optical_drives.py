"""Discs: list asks for the disc that is there, enumerate for the one that is not. The drive's own
answers come from refused and invented ioctl calls."""

import pytest

EMPTY, PROBED = ("", ""), ("DISC", "iso9660")


def optical(machine, injection, name="sr0"):
    """A machine with one optical drive whose ioctl calls have the injected result. The node is a
    plain file: calls that nothing is injected into fail."""
    machine.plug("scsi", name, 1 << 20, model="DVD")
    machine.probe_says(name, "DISC", "iso9660")
    trace = ["-e", "trace=ioctl,openat", "-e", f"inject=ioctl:{injection}"]
    return machine.start("--hotplug", trace=trace)


def listed(machine):
    fields = machine.ask("list").splitlines()[1].split("\t")
    return fields[4], fields[9]


@pytest.mark.parametrize(
    "injection, expected",
    [
        ("retval=4:when=1+", PROBED),  # a disc
        ("retval=1:when=1+", EMPTY),  # no disc
        ("retval=2:when=1+", EMPTY),  # tray open
        ("retval=3:when=1+", EMPTY),  # not ready
        ("retval=0:when=1+", PROBED),  # no information: reading a block succeeds
        ("retval=5:when=1+", PROBED),  # no answer that anybody knows: likewise
        ("retval=0:when=2", PROBED),  # no status at all: likewise
        ("retval=0:when=1", EMPTY),  # no information, and the block cannot be read
        ("error=EIO:when=1+", EMPTY),
    ],
)
def test_list_probes_a_disc_and_forgets_an_absent_one(machine, injection, expected):
    optical(machine, injection)
    assert listed(machine) == expected


def test_how_the_disc_is_asked_for(machine):
    """Opened for writing, exclusively and without waiting; the status first, then one block."""
    daemon = optical(machine, "retval=0:when=1+")
    machine.settle()
    machine.ask("list")
    machine.stop()
    lines = [line.split(None, 1)[1] for line in daemon.trace()]
    opened = next(i for i, line in enumerate(lines) if "/dev/sr0" in line and "O_RDWR" in line)
    for flag in ("O_EXCL", "O_NONBLOCK", "O_CLOEXEC"):
        assert flag in lines[opened]
    calls = [line for line in lines[opened:] if line.startswith("ioctl")]
    assert "CDROM_DRIVE_STATUS" in calls[0]
    assert "SG_IO" in calls[1]
    assert r"\xa8" in calls[1]  # READ(12)
    assert "dxfer_len=2048" in calls[1]
    assert "timeout=2500" in calls[1]


def test_a_disc_that_was_taken_out_is_forgotten_by_list(machine):
    """The third status says that there is no disc: label and file system go."""
    optical(machine, "retval=4:when=1..2")
    machine.settle()
    assert listed(machine) == PROBED
    assert listed(machine) == PROBED
    assert listed(machine) == EMPTY


@pytest.mark.parametrize("disc", [True, False])
def test_enumerate_probes_the_empty_drive(machine, disc):
    """The reverse of list, on purpose: a disc is left alone, an empty drive is probed."""
    optical(machine, f"retval={4 if disc else 1}:when=1+")
    machine.settle()
    reply = machine.ask("enumerate")
    assert ("\tDISC\t" in reply) == (not disc)
    assert len(machine.probe_calls()) == (0 if disc else 1)


def test_a_drive_that_cannot_be_opened_holds_no_disc(machine):
    machine.plug("scsi", "sr0", 1 << 20, model="DVD", node=False)
    machine.probe_says("sr0", "DISC", "iso9660")
    machine.start("--hotplug")
    machine.settle()
    assert listed(machine) == EMPTY
    assert machine.probe_calls() == []


def test_a_disc_in_use_is_not_probed(machine):
    optical(machine, "retval=4:when=1+")
    machine.made_up_process(1000001, fds=["/dev/sr0"])
    machine.settle()
    assert listed(machine) == ("", "")
    assert machine.probe_calls() == []
