"""The links /mnt/^LABEL: made and removed for one device, and never for a label with a slash."""

import os

import pytest

from machine.drives import write


def room_with_stick(machine, label="DATA", filesystem="ext3", **keys):
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 1 << 19)
    machine.plug("usb", "sdc", 1 << 20)
    machine.probe_says("sdb1", label, filesystem)
    return machine.room("tables", "update", **keys)


def links():
    """Every link of /mnt and where it leads."""
    found = {}
    for name in os.listdir("/mnt"):
        if os.path.islink(f"/mnt/{name}"):
            found[name] = os.readlink(f"/mnt/{name}")
    return found


@pytest.mark.parametrize("name", ["sdb1", "/dev/sdb1"])
def test_link_leads_to_the_directory_beside_it(machine, name):
    room = room_with_stick(machine)
    room.ask(f"make-link {name}")
    assert links() == {"^DATA": "sdb1"}
    assert machine.probe_calls() == ["/usr/bin/volsniffer /dev/sdb1 --fs"]
    room.ask(f"remove-link {name}")
    assert links() == {}
    assert len(machine.probe_calls()) == 1


def test_known_labels_are_not_asked_for_again(machine):
    """Only a record without a label or without a file system is probed."""
    room = room_with_stick(machine, "", "ext3")
    room.ask("make-link sdb1")
    room.ask("make-link sdb1")
    assert links() == {}
    assert len(machine.probe_calls()) == 2


def test_label_that_never_comes(machine):
    """A device that the probe knows nothing of has no link, and is asked about each time."""
    room = room_with_stick(machine)
    room.ask("make-link sdc")
    room.ask("remove-link sdc")
    assert links() == {}
    assert machine.probe_calls() == ["/usr/bin/volsniffer /dev/sdc --fs"] * 2


@pytest.mark.parametrize("name", ["sdx1", "/dev/sdx1", "/dev/", "", "dev/sdb1", "/mnt/sdb1"])
def test_unknown_devices_have_no_link(machine, name):
    room = room_with_stick(machine)
    os.symlink("sdb1", "/mnt/^DATA")
    room.ask(f"make-link {name}")
    room.ask(f"remove-link {name}")
    assert links() == {"^DATA": "sdb1"}
    assert machine.probe_calls() == []


@pytest.mark.parametrize("target", ["sdc", "sdb10", "/mnt/sdb1", "./sdb1", "sdb1/", "sdb"])
def test_foreign_links_stay(machine, target):
    """Neither replaced nor removed nor reported."""
    room = room_with_stick(machine)
    os.symlink(target, "/mnt/^DATA")
    before = room.stderr()
    room.ask("make-link sdb1")
    room.ask("remove-link sdb1")
    assert links() == {"^DATA": target}
    assert room.stderr()[len(before) :] == "Label: 'DATA'\n  'filesystem' = 'ext3'\n"


def test_own_link_may_dangle(machine):
    """There is no directory /mnt/sdb1 here; the link is the device's own all the same."""
    room = room_with_stick(machine)
    os.symlink("sdb1", "/mnt/^DATA")
    room.ask("remove-link sdb1")
    assert links() == {}


def test_empty_directory_in_the_place_of_a_link_goes(machine):
    room = room_with_stick(machine)
    os.mkdir("/mnt/^DATA")
    room.ask("make-link sdb1")
    assert os.path.isdir("/mnt/^DATA")
    room.ask("remove-link sdb1")
    assert os.listdir("/mnt") == []


def test_full_directory_and_file_in_the_place_of_a_link_stay(machine):
    room = room_with_stick(machine)
    write("/mnt/^DATA/inside", "")
    room.ask("remove-link sdb1")
    assert os.path.exists("/mnt/^DATA/inside")
    os.unlink("/mnt/^DATA/inside")
    os.rmdir("/mnt/^DATA")
    write("/mnt/^DATA", "")
    room.ask("remove-link sdb1")
    assert os.path.isfile("/mnt/^DATA")


def test_long_targets_are_not_this_device(machine):
    """127 bytes of a target are read; no device name is as long as that."""
    room = room_with_stick(machine)
    os.symlink("sdb1" + "/" * 200, "/mnt/^DATA")
    room.ask("remove-link sdb1")
    assert list(links()) == ["^DATA"]


def test_link_that_cannot_be_made_is_reported(machine):
    room = room_with_stick(machine)
    os.rmdir("/mnt")
    room.ask("make-link sdb1")
    assert room.stderr().endswith(
        "Cannot create drive label symlink /mnt/^DATA, No such file or directory\n"
    )


def test_label_too_long_for_a_name_is_reported(machine):
    label = "L" * 300
    room = room_with_stick(machine, label)
    room.ask("make-link sdb1")
    assert room.stderr().endswith(
        f"Cannot create drive label symlink /mnt/^{label}, File name too long\n"
    )
    room.ask("remove-link sdb1")


@pytest.mark.parametrize("label", ["A/../../run/x", "/", "A/B", "/run/x", "../run/x", "A/"])
def test_label_with_a_slash_makes_no_link_and_removes_none(machine, label):
    """A stick with such a label beside one labelled A, whose link would be the way out of /mnt."""
    room = room_with_stick(machine, label)
    machine.probe_says("sdc", "A", "ext3")
    os.mkdir("/mnt/sdc")
    room.ask("make-link sdc")
    assert links() == {"^A": "sdc"}
    before = sorted(os.listdir("/run"))
    room.ask("make-link sdb1")
    assert room.stderr().endswith(
        f"Cannot create drive label symlink /mnt/^{label}, No such file or directory\n"
    )
    assert sorted(os.listdir("/run")) == before
    assert links() == {"^A": "sdc"}
    # What a removal would hit: links to sdb1 in all places that the label might mean.
    os.symlink("sdb1", "/run/x")
    os.symlink("sdb1", "/mnt/sdc/B")
    room.ask("remove-link sdb1")
    assert os.readlink("/run/x") == "sdb1"
    assert os.readlink("/mnt/sdc/B") == "sdb1"
    assert links() == {"^A": "sdc"}


def test_other_strange_labels_are_names(machine):
    for label in (".", "..", " ", "a b", "%s", "^", "ä"):
        room = room_with_stick(machine, label)
        room.ask("make-link sdb1")
        assert links() == {f"^{label}": "sdb1"}
        room.ask("remove-link sdb1")
        assert links() == {}
        room.stop()
        machine.unplug("sdb")
        machine.unplug("sdc")


def test_raid_member_has_no_link(machine):
    """It is not probed by its bare name, so its label stays empty."""
    machine.plug("usb", "sdb", 1 << 20)
    machine.content("sdb", b"\xfc\x4e\x2b\xa9" + b"\0" * 8)
    machine.probe_says("sdb", "RAID", "linux_raid_member")
    room = machine.room("tables", "update", "make-link sdb", "make-link /dev/sdb")
    assert links() == {}
    assert machine.probe_calls() == []
    assert room.ask("exists sdb") == "yes"


# In the whole daemon the link goes when its device has gone.


@pytest.mark.parametrize("target, stays", [("sdb1", False), ("sdc", True)])
def test_link_of_a_vanished_device(machine, target, stays):
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 1 << 19)
    machine.probe_says("sdb1", "DATA", "ext3")
    machine.mount_tmpfs("sdb1", "/mnt/sdb1")
    os.makedirs("/mnt/sdc/inside")
    daemon = machine.start()
    machine.settle()
    os.symlink(target, "/mnt/^DATA")
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    assert os.path.islink("/mnt/^DATA") == stays
    assert not os.path.exists("/mnt/sdb1")
