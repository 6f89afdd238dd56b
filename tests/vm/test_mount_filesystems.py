"""Every kind of filesystem through the mount command, with the kernel's own drivers."""
import collections

import pytest

from mounts import (entries_of_mnt, is_protected, loaded_modules, mount_flags, mounted_as,
                    reply_to)
from rig import Disk, GuestError

DISKS = [Disk("virtio-scsi", 48 << 20, id="disk"), Disk("usb", 16 << 20, id="small")]

MOUNTED = "OK mount succeeded\n\n"
READ_ONLY_AFTER_ALL = ("OK- mount succeded\nOK warning: Despite your request, the drive is mounted "
                       "read only. There may be a problem with the disk\n")

# module: what the driver lies in. loads: whether the daemon loads it by itself.
Kind = collections.namedtuple("Kind", "made known type module loads")
KINDS = [
    Kind("ext2", "ext2", "ext4", None, False), Kind("ext3", "ext3", "ext4", None, False),
    Kind("ext4", "ext4", "ext4", None, False), Kind("xfs", "xfs", "xfs", "xfs", True),
    Kind("btrfs", "btrfs", "btrfs", "btrfs", True), Kind("vfat", "fat", "vfat", "vfat", True),
    Kind("hfs", "hfs", "hfs", "hfs", True), Kind("hfs+", "hfs+", "hfsplus", "hfsplus", True),
    Kind("udf", "udf", "udf", "udf", False),
]
FILESYSTEM_MODULES = "xfs btrfs vfat hfs hfsplus udf isofs reiserfs fuse".split()


@pytest.fixture
def bare(fresh):
    """The machine with no driver loaded but the one of its own root."""
    fresh.wait_until(lambda: fresh.sh("modprobe -r " + " ".join(FILESYSTEM_MODULES),
                                      check=False).rc == 0, 10, "nobody using the drivers")
    assert not loaded_modules(fresh) & set(FILESYSTEM_MODULES)
    return fresh


def attempts(lines):
    """What was tried, without the drivers' own words."""
    return [line for line in lines if line.startswith(("Trying", "Attempting", "Warning: Don't"))]


def kernel_attempt(name, driver, known):
    return "Trying kernel driver /dev/%s -> %s (known fs '%s')" % (name, driver, known)


def can_write(vm, name):
    """Whether a file can be made on the mount; a read-only filesystem is the only excuse."""
    path = "/mnt/%s/new" % name
    try:
        vm.put(path, "written")
    except GuestError as e:
        assert "Read-only file system" in str(e)
        return False
    vm.call("remove", path=path)
    return True


def check_mounted(vm, name, kind, mode):
    """The drive is mounted in this mode, and protected."""
    assert mounted_as(vm, name) == (kind, mode)
    assert is_protected(vm, name), mount_flags(vm, name)
    assert can_write(vm, name) == (mode == "rw")


def check_new_mount(vm, name, kind, mode):
    """Beyond that its folder and its link are in place."""
    check_mounted(vm, name, kind, mode)
    assert entries_of_mnt(vm) == {name: "", "^LAB": name}


def go_round(vm, daemon, name, kind):
    """From a read-only mount: made writable, written to, read-only again, unmounted, mounted
    read-write with what was written, unmounted."""
    check_new_mount(vm, name, kind, "ro")
    assert vm.request("mount rw " + name) == "OK remounted as r/w\n"
    check_mounted(vm, name, kind, "rw")
    vm.put("/mnt/%s/kept" % name, "content")
    assert vm.request("mount ro " + name) == "OK remounted as r/o\n"
    check_mounted(vm, name, kind, "ro")
    check_unmounts(vm, name)
    reply, lines = reply_to(vm, daemon, "mount rw ^LAB")
    assert reply == MOUNTED
    # These two drivers look at the option and know no such thing; the others know it or do not
    # look.
    assert ("Problem enabling ACLs, oh well" in lines) == (kind in ("xfs", "udf"))
    check_new_mount(vm, name, kind, "rw")
    assert vm.text("/mnt/%s/kept" % name) == "content"
    check_unmounts(vm, name)


def check_unmounts(vm, name):
    assert vm.request("umount /dev/" + name) == "OK unmount succeeded\n"
    assert mounted_as(vm, name) is None and entries_of_mnt(vm) == {}


@pytest.mark.parametrize("kind", [
    pytest.param(kind, marks=[pytest.mark.long] if kind.made in ("ext2", "ext3") else [])
    for kind in KINDS], ids=lambda kind: kind.made)
def test_drive_goes_round(bare, kind):
    """A drive of each kind is mounted by its own driver alone, which is loaded for it, made
    writable, written to, made read-only, unmounted, and found again with what was written; it is
    protected at every step, and its folder and label link come and go with it."""
    vm, name = bare, bare.fs("disk", kind.made, "LAB")
    daemon = vm.daemon()
    lines_to_skip = set()
    if kind.module and not kind.loads:
        reply, lines = reply_to(vm, daemon, "mount ro " + name)
        unknown = "Warning: Don't know how to modprobe for '%s'" % kind.type
        assert reply == "ERR mount failed\n" and attempts(lines) == [unknown]
        assert entries_of_mnt(vm) == {name: ""}
        lines_to_skip.add(unknown)     # said again unless the list of drivers was read meanwhile
        vm.sh("modprobe " + kind.module)
    reply, lines = reply_to(vm, daemon, "mount ro " + name)
    assert reply == MOUNTED
    assert [line for line in attempts(lines) if line not in lines_to_skip] == [
        kernel_attempt(name, kind.type, kind.known)]
    assert kind.module is None or kind.module in loaded_modules(vm)
    go_round(vm, daemon, name, kind.type)


def grant_by_acl(vm, folder):
    return vm.sh("cd %s; echo secret >file; setfacl -m u:guest:r file" % folder, check=False)


def test_filesystem_nobody_knows_is_tried_with_every_driver(bare):
    """A filesystem that is not in the daemon's table (reiserfs) is tried with every driver in
    turn, each loaded first where the daemon knows how; when its own has been loaded by somebody
    it is found, and the drivers behind it are left alone. ACLs, which this one does not know
    unless it is asked to, are switched on."""
    vm, name = bare, bare.fs("disk", "reiserfs", "LAB")
    daemon = vm.daemon()
    before = ["ext4", "ext3", "ext2", "?udf", "xfs", "hfsplus", "hfs", "?iso9660", "vfat"]

    def texts(drivers):
        return ["Warning: Don't know how to modprobe for '%s'" % d[1:] if d[0] == "?" else
                kernel_attempt(name, d, "reiserfs") for d in drivers]
    exfat = ["Trying FUSE driver *mount.exfat", "Attempting FUSE driver mount.exfat"]
    ntfs = ["Trying FUSE driver *ntfs-3g", "Attempting FUSE driver ntfs-3g"]
    reply, lines = reply_to(vm, daemon, "mount ro " + name)
    assert reply == "ERR mount failed\n"
    assert attempts(lines) == texts(before) + exfat + texts(["?ntfs", "?reiserfs", "btrfs"])
    assert loaded_modules(vm) >= {"xfs", "hfsplus", "hfs", "vfat", "btrfs", "fuse"}
    assert not loaded_modules(vm) & {"udf", "isofs", "reiserfs"}
    assert "mount.exfat: failed status 1" in lines
    vm.sh("modprobe reiserfs; mount /dev/%s /srv" % name)
    assert "Operation not supported" in grant_by_acl(vm, "/srv").err
    vm.sh("umount /srv")
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == MOUNTED
    assert attempts(lines) == texts(before) + ntfs + exfat + texts(["?ntfs", "reiserfs"])
    check_new_mount(vm, name, "reiserfs", "rw")
    assert grant_by_acl(vm, "/mnt/" + name).rc == 0
    for mode, reply in (("ro", "r/o"), ("rw", "r/w")):
        assert vm.request("mount %s %s" % (mode, name)) == "OK remounted as %s\n" % reply
        check_mounted(vm, name, "reiserfs", mode)
    check_unmounts(vm, name)


@pytest.mark.long
def test_disk_with_nothing_on_it(fresh):
    """An empty drive is tried with every driver and mounted by none; its folder stays until the
    housekeeping comes by."""
    vm, name = fresh, fresh.node("small")
    vm.sh("modprobe -a " + " ".join(FILESYSTEM_MODULES) + "; wipefs -q -a /dev/" + name)
    daemon = vm.daemon()
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == "ERR mount failed\n" and mounted_as(vm, name) is None
    tried = [line.split(" -> ")[-1].split(" ")[0] for line in attempts(lines)
             if line.startswith("Trying kernel")]
    assert tried == ["ext4", "ext3", "ext2", "udf", "xfs", "hfsplus", "hfs", "iso9660", "vfat",
                     "reiserfs", "btrfs"]
    assert entries_of_mnt(vm) == {name: ""}


@pytest.mark.long
def test_compact_disc_filesystem_on_a_hard_drive(bare):
    """An ISO 9660 filesystem on a hard drive is mounted read-only and not for writing; its driver
    has to be loaded already."""
    vm, name = bare, bare.fs("disk", "iso9660", "LAB")
    daemon = vm.daemon()
    reply, lines = reply_to(vm, daemon, "mount ro " + name)
    assert reply == "ERR mount failed\n"
    assert attempts(lines) == ["Warning: Don't know how to modprobe for 'iso9660'"]
    vm.sh("modprobe isofs")
    reply, lines = reply_to(vm, daemon, "mount ro " + name)
    assert reply == MOUNTED
    assert attempts(lines)[-1] == kernel_attempt(name, "iso9660", "iso9660")
    check_new_mount(vm, name, "iso9660", "ro")
    assert vm.text("/mnt/%s/readme.txt" % name) == "quarry\n"
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == "ERR cannot remount\n"
    assert lines == ["Cannot remount %s Read-only file system" % name]
    check_mounted(vm, name, "iso9660", "ro")
    check_unmounts(vm, name)
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == "ERR mount failed\n" and mounted_as(vm, name) is None
    assert lines[-1] == ("Asked to mount %s at /mnt/%s, as iso9660 failed: Permission denied"
                         % (name, name))


def test_exfat_by_its_program(bare):
    """exFAT is mounted by its driver program and by nothing else, found by its second name, and
    its files belong to the user and the group 99."""
    vm, name = bare, bare.fs("disk", "exfat", "LAB")
    assert vm.sh("ls /sbin/mount.exfat", check=False).rc != 0
    daemon = vm.daemon()
    own = ["Trying FUSE driver *mount.exfat", "Attempting FUSE driver mount.exfat"]
    reply, lines = reply_to(vm, daemon, "mount ro " + name)
    assert reply == MOUNTED and attempts(lines) == own
    check_mounted(vm, name, "fuseblk", "ro")
    assert vm.sh("pgrep -ax mount.exfat-fus").out.split(" ", 1)[1] == (
        "/sbin/mount.exfat-fuse -o ro -o locale=en_EN.UTF-8,gid=99,uid=99 /dev/%s /mnt/%s\n"
        % (name, name))
    check_unmounts(vm, name)
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == MOUNTED and attempts(lines) == own
    vm.put("/mnt/%s/kept" % name, "content")
    assert vm.sh("stat -c %%u:%%g /mnt/%s/kept" % name).out == "99:99\n"
    for mode, reply in (("ro", "r/o"), ("rw", "r/w")):
        assert vm.request("mount %s %s" % (mode, name)) == "OK remounted as %s\n" % reply
        check_mounted(vm, name, "fuseblk", mode)
    check_unmounts(vm, name)
    vm.wait_until(lambda: vm.sh("pgrep -x mount.exfat-fus", check=False).rc == 1, 30)


def test_ntfs_by_its_program(bare):
    """NTFS is written to through its driver program, which is not asked to read: that is left to
    the kernel's own "ntfs", which this kernel has not."""
    vm, name = bare, bare.fs("disk", "ntfs", "LAB")
    daemon = vm.daemon()
    reply, lines = reply_to(vm, daemon, "mount ro " + name)
    assert reply == "ERR mount failed\n"
    assert attempts(lines) == ["Warning: Don't know how to modprobe for 'ntfs'"]
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == MOUNTED
    assert attempts(lines) == ["Trying FUSE driver *ntfs-3g", "Attempting FUSE driver ntfs-3g"]
    vm.put("/mnt/%s/kept" % name, "content")
    assert vm.sh("stat -c %%u:%%g /mnt/%s/kept" % name).out == "99:99\n"
    for mode, reply in (("ro", "r/o"), ("rw", "r/w")):
        assert vm.request("mount %s %s" % (mode, name)) == "OK remounted as %s\n" % reply
        check_mounted(vm, name, "fuseblk", mode)
    check_unmounts(vm, name)
    assert vm.request("mount rw " + name) == MOUNTED
    assert vm.text("/mnt/%s/kept" % name) == "content"
    check_unmounts(vm, name)
    vm.wait_until(lambda: vm.sh("pgrep -x ntfs-3g", check=False).rc == 1, 30)


@pytest.mark.long
def test_unclean_volume_is_mounted_read_only(bare):
    """A volume that its driver does not dare to write to (HFS+, not unmounted cleanly) is mounted
    read-only for who asks to write, who is told."""
    vm, name = bare, bare.fs("disk", "hfs+", "LAB")
    vm.write("/dev/" + name, b"\0\0\0\0", offset=1024 + 4)          # the volume's attributes
    daemon = vm.daemon()
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == READ_ONLY_AFTER_ALL
    assert lines[-2:] == [
        "Warning: client asked to mount %s rw, but driver mounted read-only." % name,
        "perhaps the driver senses a problem?"]
    check_mounted(vm, name, "hfsplus", "ro")
    check_unmounts(vm, name)


@pytest.mark.parametrize("made, start, drivers", [
    ("ext4", 4096, ["ext4", "ext3", "ext2"]),
    pytest.param("xfs", 4096, ["xfs"], marks=pytest.mark.long),
    pytest.param("btrfs", 1 << 20, ["btrfs"], marks=pytest.mark.long)])
@pytest.mark.long
def test_damaged_volume(fresh, made, start, drivers):
    """A volume whose innards are gone behind a superblock that looks well is tried with its own
    drivers and not mounted, and the daemon goes on."""
    vm, name = fresh, fresh.fs("disk", made, "LAB")
    vm.sh("modprobe -a xfs btrfs; blkdiscard -f -z -o %d -l 24M /dev/%s; "
          "blockdev --flushbufs /dev/%s" % (start, name, name))
    daemon = vm.daemon()
    for mode in ("rw", "ro"):
        reply, lines = reply_to(vm, daemon, "mount %s %s" % (mode, name))
        assert reply == "ERR mount failed\n" and mounted_as(vm, name) is None
        assert attempts(lines) == [kernel_attempt(name, driver, made) for driver in drivers]
    assert vm.request("list").endswith("OK  eom\n") and daemon.alive()
