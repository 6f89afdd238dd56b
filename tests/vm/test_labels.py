"""Labels that would lead out of /mnt, into a shell or across the listings' columns."""
import os

import pytest

from mounts import entries_of_mnt, is_protected, mounted_as
from rig import Disk, images

HOSTILE = "A/../../run/x"
MOUNTED = "OK mount succeeded\n\n"

# Filesystem, the bytes of its label (about as long as can be), what is shown of it.
LABELS = [
    ("ext4", b"../../../tmp/out", ".._.._.._tmp_out"),
    ("ext3", b"a\nERR no\tb\rc\x1b[m", "a_ERR no_b_c_[m"),
    ("ext2", b"$(>/out)`>/out`", "$(>_out)`>_out`"),
    ("xfs", b";>/out;'\"\\\xff&", ";>_out;'\"\\_&"),
    ("btrfs", b"../" * 84 + b"..", ".._" * 84 + ".."),
    ("vfat", b"A\tB\tC/D..'\\", "A_B_C_D..'\\"),
    ("iso9660", b"/../out;reboot|'", "_.._out;reboot|'"),
    ("hfs", b"../../out\r\n`id`'\"..&", ".._.._out__`id`'\"..&"),
    ("udf", b"../../out|$(id)\n\t;", ".._.._out|$(id)__;"),
]


def hostile_image(path, kind, label):
    """An image with such a label. Where no program writes it, it takes the place of another one in
    the image's bytes."""
    if kind not in ("vfat", "iso9660", "hfs"):
        return images.fs(path, "40M" if kind == "btrfs" else "16M", kind, os.fsdecode(label))
    plain = ("STANDSINFOR" * 3)[:len(label)]
    images.fs(path, "4M", kind, plain)
    with open(path, "r+b") as f:
        data = f.read()
        for encoding in ("latin-1", "utf-16-be"):
            data = data.replace(plain.encode(encoding), label.decode("latin-1").encode(encoding))
        f.seek(0)
        f.write(data)
    return path


def drives(folder):
    def image(name, label):
        return images.fs(os.path.join(folder, name), "16M", "ext4", label)
    return [Disk("virtio-scsi", image("tame", "A"), id="tame"),
            Disk("virtio-scsi", image("hostile", HOSTILE), id="hostile"),
            Disk("virtio-scsi", image("twin", "TWIN"), id="twin"),
            Disk("virtio-scsi", image("other", "TWIN"), id="other")] + [
                Disk("virtio-scsi", hostile_image(os.path.join(folder, kind), kind, label), id=kind)
                for kind, label, shown in LABELS]


@pytest.fixture
def mounted(fresh):
    """Both sticks mounted as the daemon mounts them, the link of label A in place."""
    tame, hostile = fresh.node("tame"), fresh.node("hostile")
    for name in (tame, hostile):
        fresh.sh("mkdir /mnt/%s && mount /dev/%s /mnt/%s" % (name, name, name))
    fresh.sh("ln -s %s /mnt/^A" % tame)
    yield fresh
    fresh.sh("rm -rf /run/x", check=False)


# The path "/mnt/^A/../../run/x" leads through the mounted tame stick to /run/x. What lies there
# looks just like a label link of the hostile stick's, or like an empty folder left behind.
@pytest.mark.parametrize("bait", ["ln -s %s /run/x", "mkdir /run/x"])
@pytest.mark.parametrize("probe", ["volsniffer", "a probe that says anything"])
@pytest.mark.long
def test_label_with_slashes_leads_nowhere(mounted, bait, probe):
    """A stick labelled "A/../../run/x" beside one labelled "A" is released without touching
    anything outside /mnt, whatever the probe program makes of the label."""
    vm = mounted
    hostile = vm.node("hostile")
    if probe != "volsniffer":
        vm.put("/usr/bin/volsniffer", """#!/bin/sh
case $1 in *%s) echo '%s';; *%s) echo A;; *) echo;; esac
echo '  filesystem: ext4'
""" % (hostile, HOSTILE, vm.node("tame")), 0o755)
    vm.sh(bait % hostile if "%s" in bait else bait)
    before = vm.sh("ls -ld --time-style=full-iso /run/x").out
    daemon = vm.daemon()
    listing = vm.request("list")
    assert "\t%s\tHard Drive\tSCSI\tA\t" % vm.node("tame") in listing
    if probe != "volsniffer":
        assert HOSTILE in listing
    assert daemon.stop() == 0
    assert vm.sh("ls -A /mnt").out == ""
    assert "/mnt" not in vm.text("/proc/mounts")
    assert vm.sh("ls -ld --time-style=full-iso /run/x").out == before


def test_ordinary_label_link_goes(mounted):
    """Beside it, the link of an ordinary label goes with its stick and the link of a stranger
    stays."""
    vm = mounted
    vm.sh("ln -s /srv /mnt/^B")
    daemon = vm.daemon()
    vm.request("list")
    assert daemon.stop() == 0
    assert vm.sh("ls -A /mnt").out == "^B\n"


def rows(vm):
    """{drive: the columns of its row in the list}"""
    lines = vm.request("list").splitlines()
    assert lines[0].startswith("OK- v3 drive list follows") and lines[-1] == "OK  eom"
    return {row[1]: row[1:] for row in (line.split("\t") for line in lines[1:-1]) if row[1]}


def test_hostile_labels_on_real_filesystems(fresh):
    """Whatever a label says, on any filesystem, the list keeps its columns, the drive is mounted by
    its name and by its label, its link is made in /mnt and goes again, and nothing comes to be
    anywhere else."""
    vm = fresh
    names = {vm.node(kind): (kind, label, shown) for kind, label, shown in LABELS}
    vm.sh("modprobe -a xfs btrfs vfat hfs udf isofs")
    daemon = vm.daemon()
    assert len(rows(vm)) > len(LABELS)
    vm.sh("touch /run/rig/stamp; ls -A /tmp >/run/rig/tmp")
    for name, row in rows(vm).items():
        assert len(row) == 9
        if name in names:
            assert row[3] == names[name][2]
    links = {}
    for name, (kind, label, shown) in names.items():
        assert vm.request("mount ro " + name) == MOUNTED, kind
        assert is_protected(vm, name)
        links.update({name: "", "^" + shown: name})
        assert entries_of_mnt(vm) == links
    for name, (kind, label, shown) in names.items():
        assert vm.request("umount ^" + shown) == (
            "ERR Label not found\n" if " " in shown else "OK unmount succeeded\n")
        # As it stands on the drive it is no word that the daemon knows.
        own = "mount ro ^" + label.decode("utf-8", "surrogateescape").splitlines()[0]
        if own[len("mount ro ^"):] != shown:
            assert vm.request(own) == "ERR Label not found\n"
    [blank] = [name for name in names if mounted_as(vm, name)]
    assert entries_of_mnt(vm) == {blank: "", "^" + names[blank][2]: blank}
    assert vm.request("umount " + blank) == "OK unmount succeeded\n"
    assert entries_of_mnt(vm) == {}
    assert vm.sh("find / -xdev -newer /run/rig/stamp ! -path /mnt; ls -A /tmp | "
                 "diff /run/rig/tmp -").out == ""
    assert daemon.alive()


def test_two_drives_with_one_label(fresh):
    """Of two drives with one label the first by name is meant; the link is that of the one that
    was mounted first and goes with it and not with the other."""
    vm = fresh
    first, second = sorted([vm.node("twin"), vm.node("other")])
    daemon = vm.daemon()
    assert vm.request("mount rw ^TWIN") == MOUNTED
    assert "Label found on /dev/%s\n" % first in daemon.err()
    assert vm.request("mount rw ^TWIN") == "OK already mounted read/write\n"
    assert vm.request("mount rw " + second) == MOUNTED
    assert entries_of_mnt(vm) == {first: "", second: "", "^TWIN": first}
    assert vm.request("umount " + second) == "OK unmount succeeded\n"
    assert entries_of_mnt(vm) == {first: "", "^TWIN": first}
    assert vm.request("mount ro " + second) == MOUNTED
    assert vm.request("umount ^TWIN") == "OK unmount succeeded\n"
    assert entries_of_mnt(vm) == {second: ""} and mounted_as(vm, second) == ("ext4", "ro")
    assert vm.request("umount ^TWIN") == "OK its not mounted anyway\n"
    assert vm.request("umount " + second) == "OK unmount succeeded\n"
