"""The installed client on a machine with drives to mount."""
import json
import os
import re

import pytest

from holders import alive, hold
from mounts import mounted_as
from rig import Disk, images


def drives(folder):
    image = images.fs(os.path.join(folder, "disk"), "16M", "ext4", "MY DISK")
    return [Disk("virtio-scsi", image, id="disk"), Disk("usb", 16 << 20, id="stick")]


@pytest.fixture
def machine(fresh):
    """(machine, name of the drive with a file system); the daemon runs."""
    fresh.daemon()
    return fresh, fresh.node("disk")


def test_list_in_two_forms(machine):
    """People see the table, programs the same with sizes in bytes; the root disk is mounted."""
    vm, name = machine
    row = r"^%s +Hard Drive +SCSI +16\.7 MB +ext4 +MY DISK +QEMU HARDDISK$" % name
    assert re.search(row, vm.sh("quarryctl list").out, re.M)
    found = {d["name"]: d for d in json.loads(vm.sh("quarryctl list --json").out)["blockdevices"]}
    assert found[name]["size"] == 16 << 20 and found[name]["fstype"] == "ext4"
    stick = found[vm.node("stick")]
    assert (stick["connection"], stick["label"], stick["mountpoints"]) == ("USB", None, [])
    root = [d for drive in found.values() for d in [drive, *drive.get("children", [])]
            if d["mountpoints"] and "/" in d["mountpoints"]]
    assert len(root) == 1 and root[0]["place"] == "Boot"


def test_mount_by_label_and_unmount_by_force(machine):
    """The mount point is all that is printed; whoever sits there goes when told to."""
    vm, name = machine
    assert vm.sh("quarryctl mount rw '^MY DISK'").out == "/mnt/%s\n" % name
    assert mounted_as(vm, name) == ("ext4", "rw")
    pid = hold(vm, "cwd", "/mnt/" + name)
    polite = vm.sh("quarryctl umount " + name, check=False)
    assert (polite.rc, polite.out, polite.err) == (1, "", "quarryctl: unmount failed\n")
    assert vm.sh("quarryctl umount --force " + name).out == "unmount succeeded\n"
    assert mounted_as(vm, name) is None
    vm.wait_until(lambda: not alive(vm, pid), 30)
