"""Which mounts are refused; that what a drive brings along does no harm; and that what its owner
set up on it works."""
import os

import pytest

from mounts import entries_of_mnt, is_protected, mount_flags, mounted_as, reply_to
from rig import GUEST, NOBODY, SCHEDULE, Disk, images

MOUNTED = "OK mount succeeded\n\n"


def drives(folder):
    locked = images.fs(os.path.join(folder, "locked"), "16M", "ext4", "LOCKED")
    return [Disk("usb", 16 << 20, id="stick"), Disk("usb", locked, id="locked", readonly=True),
            Disk("virtio-scsi", 16 << 20, id="a"), Disk("virtio-scsi", 16 << 20, id="b"),
            Disk("optical-sata", id="dvd")]


def as_guest(vm, command):
    """Runs a command as the unprivileged user."""
    return vm.sh("exec setpriv --reuid=%d --regid=%d --clear-groups bash -c '%s'"
                 % (GUEST, GUEST, command), check=False)


def spoils(vm, name):
    """What an unprivileged user makes of the traps on a mount: (the user id that a set-user-id
    program runs with, the bytes read from the machine's own disk through a device node)."""
    out = as_guest(vm, "cd /mnt/%s; [ ! -e trap ] || ./trap -p -c \"echo \\$EUID\"; "
                       "head -c 4 disk 2>/dev/null | wc -c" % name).out.split()
    return out


def lay_traps(vm, kind):
    """Makes a drive with a set-user-id shell and a readable node of the machine's own disk on it,
    and checks that they would work on a mount without protection. Returns its name."""
    name = vm.fs("stick", kind, "LAB")
    own_disk = vm.sh("lsblk -n -o MAJ:MIN $(findmnt -n -o SOURCE /)").out.strip()
    how = "ntfs-3g -o dev,suid" if kind == "ntfs" else "mount -o dev,suid,usrquota"
    vm.sh("""set -e; modprobe -a fuse; mkdir /mnt/%s; %s /dev/%s /mnt/%s; cd /mnt/%s
[ %s = ntfs ] || { cp /bin/bash trap; chmod 4755 trap; quotacheck -cumf -F vfsv0 . ; }
mknod disk b %s; chmod 666 disk; sync""" % (name, how, name, name, name, kind,
                                            own_disk.replace(":", " ")))
    assert spoils(vm, name) == (["4"] if kind == "ntfs" else ["0", "4"])
    vm.sh("umount /mnt/%s && rmdir /mnt/%s" % (name, name))
    return name


def check_harmless(vm, name, mode):
    assert spoils(vm, name) in (["0"], [str(GUEST), "0"])
    assert mode in mount_flags(vm, name) and is_protected(vm, name), mount_flags(vm, name)


def test_nobody_becomes_root_by_a_stick(fresh):
    """A set-user-id shell and a device node on an ext4 stick are worth nothing to an unprivileged
    user, whichever way the stick was mounted or remounted, with its quotas and ACLs switched
    on."""
    vm, name = fresh, lay_traps(fresh, "ext4")
    daemon = vm.daemon()
    for word, reply, mode in (
            ("ro", MOUNTED, "ro"), ("rw", "OK remounted as r/w\n", "rw"),
            ("off", "OK unmount succeeded\n", None), ("rw", MOUNTED, "rw"),
            ("ro", "OK remounted as r/o\n", "ro"), ("rw", "OK remounted as r/w\n", "rw"),
            ("rudero", "OK remounted as r/o\n", "ro"), ("rw", "OK remounted as r/w\n", "rw"),
            ("rudeoff", "OK unmount succeeded\n", None)):
        assert vm.request("mount %s %s" % (word, name), uid=GUEST) == reply
        if mode:
            check_harmless(vm, name, mode)
    err = daemon.err()
    assert "%s has user quotas\n" % name in err
    assert "Problem" not in err and "Cannot protect" not in err


def test_nobody_reads_disks_by_an_ntfs_stick(fresh):
    """A device node on an NTFS stick is worth nothing either: its driver, which is a program and
    mounts without protection, is not the last to have a say."""
    vm, name = fresh, lay_traps(fresh, "ntfs")
    daemon = vm.daemon()
    for word, reply, mode in (
            ("rw", MOUNTED, "rw"), ("ro", "OK remounted as r/o\n", "ro"),
            ("rw", "OK remounted as r/w\n", "rw"), ("rudero", "OK remounted as r/o\n", "ro"),
            ("off", "OK unmount succeeded\n", None), ("rw", MOUNTED, "rw")):
        assert vm.request("mount %s %s" % (word, name), uid=GUEST) == reply
        if mode:
            check_harmless(vm, name, mode)
    assert "Cannot protect" not in daemon.err()


@pytest.mark.long
def test_remount_keeps_an_administrators_flags(fresh):
    """A remount changes ro and rw and leaves the other limits of a mount that somebody else made
    as they are; it adds none."""
    vm, name = fresh, fresh.fs("stick", "ext4")
    vm.sh("mkdir /mnt/%s; mount -o nodev,noexec,nosymfollow /dev/%s /mnt/%s" % (name, name, name))
    limits = {"nosuid", "nodev", "noexec", "nosymfollow"}
    daemon = vm.daemon()
    for word in ("ro", "rw"):
        assert vm.request("mount %s %s" % (word, name)).startswith("OK remounted")
        assert mount_flags(vm, name) & (limits | {word}) == {word, "nodev", "noexec", "nosymfollow"}
    assert "Cannot protect" not in daemon.err()


def test_quotas_count(fresh):
    """Quotas that are set up on an ext4 drive count once the daemon has mounted it read-write: a
    user over the limit is refused, another one is not; a group's likewise."""
    vm, name = fresh, fresh.fs("stick", "ext4")
    vm.sh("""set -e; mkdir /mnt/%s; cd /mnt/%s; mount -o usrquota,grpquota /dev/%s .
cd /mnt/%s; quotacheck -cugmf -F vfsv0 .; quotaon .
setquota -u %d 0 1000 0 0 .; setquota -g 4242 0 500 0 0 .; quotaoff .; mkdir -m 777 free
cd /; umount /mnt/%s""" % (name, name, name, name, GUEST, name))
    daemon = vm.daemon()
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == MOUNTED
    assert [line for line in lines if "quotas" in line or "Problem" in line] == [
        name + " has user quotas", name + " has group quotas"]

    def fill(user, group):
        return vm.sh("cd /mnt/%s/free; rm -f full; setpriv --reuid=%d --regid=%d --clear-groups "
                     "dd if=/dev/zero of=full bs=1K count=2000; stat -c %%s full"
                     % (name, user, group), check=False)
    over = fill(GUEST, GUEST)
    assert "Disk quota exceeded" in over.err and 900 << 10 < int(over.out) <= 1000 << 10
    over = fill(2000, 4242)
    assert "Disk quota exceeded" in over.err and 400 << 10 < int(over.out) <= 500 << 10
    assert int(fill(2000, 2000).out) == 2000 << 10
    assert vm.request("umount " + name) == "OK unmount succeeded\n"


def test_acls_apply(fresh):
    """On a drive that is mounted read-write ACLs let a user in and keep the others out."""
    vm, name = fresh, fresh.fs("stick", "ext4", "LAB")
    vm.daemon()
    assert vm.request("mount rw " + name) == MOUNTED
    vm.sh("cd /mnt/%s; echo secret >file; chmod 600 file; setfacl -m u:%d:r file" % (name, GUEST))
    assert as_guest(vm, "cat /mnt/%s/file" % name).out == "secret\n"
    vm.sh("setfacl -b /mnt/%s/file" % name)
    assert as_guest(vm, "cat /mnt/%s/file" % name).err.endswith("Permission denied\n")
    assert vm.request("umount " + name) == "OK unmount succeeded\n"


@pytest.mark.long
def test_quotas_elsewhere(fresh):
    """On another filesystem a quota file that is long enough is one line of complaint, and the
    drive is mounted as if it had not been."""
    vm, name = fresh, fresh.fs("stick", "vfat", "LAB")
    vm.sh("modprobe vfat; mkdir /mnt/%s; mount /dev/%s /mnt/%s; cd /mnt/%s; "
          "head -c 257 /dev/zero >aquota.user; head -c 256 /dev/zero >aquota.group; cd /; "
          "umount /mnt/%s" % ((name,) * 5))
    daemon = vm.daemon()
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == MOUNTED
    trying = next(n for n, line in enumerate(lines) if line.startswith("Trying"))
    assert lines[trying + 1:] == [name + " has user quotas", "Problem enabling quotas"]
    assert "rw" in mount_flags(vm, name) and is_protected(vm, name)
    assert entries_of_mnt(vm) == {name: "", "^LAB": name}


RECORDER = """#!/bin/sh
echo "${0##*/} $*" >>/run/rig/events
%s
"""


@pytest.fixture
def scripted(fresh):
    """(machine, drive's name, a function that puts a script, one that fetches what they wrote)"""
    name = fresh.fs("stick", "ext4", "LAB")
    fresh.daemon()

    def put(script, ending="exit 0", mode=0o755, text=None):
        fresh.put("/var/quarryd/mount-notify/" + script, text or RECORDER % ending, mode)

    def events():
        out = fresh.sh("cat /run/rig/events; rm /run/rig/events", check=False).out
        return out.splitlines()
    fresh.sh("rm -f /run/rig/events")
    return fresh, name, put, events


def test_scripts_hear_of_every_mount(scripted):
    """The administrator's scripts hear of every step with the event's word and the device, by its
    name before a mount and at a remount, by its path at a mount and an unmount."""
    vm, name, put, events = scripted
    put("note")
    put(".hidden")
    vm.sh("mkdir /var/quarryd/mount-notify/folder; ln -s folder /var/quarryd/mount-notify/link")
    for request, heard in (("mount rw ", ["%s about-to-mount", "/dev/%s mount"]),
                           ("mount rw ", []), ("mount ro ", ["%s remount-ro"]),
                           ("mount rw ", ["%s remount-rw"]), ("umount ", ["/dev/%s umount"]),
                           ("umount ", [])):
        assert vm.request(request + name).startswith("OK")
        assert events() == ["note " + text % name for text in heard]


@pytest.mark.long
def test_veto(scripted):
    """A script that ends with a status, or that cannot be run, forbids the mount; one that a
    signal ends does not. Nothing but a mount can be forbidden."""
    vm, name, put, events = scripted
    put("judge", "kill -9 $$")
    assert vm.request("mount ro " + name) == MOUNTED
    for script in (dict(ending="exit 3"), dict(mode=0o644), dict(text="#!/nowhere/sh\n")):
        put("judge", **script)
        assert vm.request("mount rw " + name) == "OK remounted as r/w\n"
        assert vm.request("umount " + name) == "OK unmount succeeded\n"
        assert vm.request("mount rw " + name) == (
            "ERR mounting was vetoed by notification script\n"), script
        assert mount_flags(vm, name) is None and entries_of_mnt(vm) == {}
        vm.sh("rm /var/quarryd/mount-notify/judge")
        assert vm.request("mount ro " + name) == MOUNTED


@pytest.mark.long
def test_boot_drive(fresh):
    """The boot partition belongs to root, the drive around it to nobody. For root "off" means
    read-only as well: of the root that is in use nothing comes of it but the attempts, and one
    that is read-only stays as it is."""
    vm = fresh
    daemon = vm.daemon()
    boot = vm.sh("findmnt -n -o SOURCE /").out.strip().removeprefix("/dev/")
    for mode in ("ro", "rw", "off", "rudeoff", "rudero"):
        assert vm.request("mount %s %s" % (mode, boot), uid=GUEST) == "ERR authorization required\n"
        for uid in (0, GUEST):
            assert vm.request("mount %s %s" % (mode, boot[:3]), uid=uid) == (
                "ERR please operate on boot partition, not the surrounding boot drive\n")
    assert vm.request("mount rw " + boot) == "OK already mounted read/write\n"
    writer = vm.background("exec sleep 1000 9>>/root/open")
    reply, lines = reply_to(vm, daemon, "umount " + boot)
    assert reply == "ERR unmount failed\n"
    assert lines == ["wait: umount failed. Device or resource busy",
                     "yup, cannot unmount Device or resource busy"]
    assert vm.request("mount ro " + boot) == "ERR cannot remount\n"
    # A writer keeps the root writable; without one the kernel makes it read-only.
    vm.sh("kill %s; while [ -e /proc/%s ]; do sleep 0.05; done" % (writer, writer))
    try:
        assert vm.request("mount ro " + boot) == "OK remounted as r/o\n"
        assert vm.request("umount " + boot) == "OK already mounted read/only\n"
        assert vm.request("mount rudeoff " + boot) == "OK already mounted read/only\n"
        assert vm.sh("touch /root/new", check=False).rc != 0
        assert vm.request("mount rw " + boot) == "OK remounted as r/w\n"
    finally:
        vm.sh("mount -o remount,rw /")


@pytest.mark.long
def test_schedule_user_and_others(fresh):
    """The user of scheduled jobs may not touch a mount, anybody else may."""
    vm, name = fresh, fresh.node("locked")
    vm.daemon()
    for request in ("mount ro ", "umount "):
        assert vm.request(request + name, uid=SCHEDULE) == (
            "ERR schedule items are not allowed to manipulate mount points\n")
    assert vm.request("mount ro " + name, uid=NOBODY) == MOUNTED
    assert vm.request("umount " + name, uid=GUEST) == "OK unmount succeeded\n"


@pytest.mark.long
def test_write_protected_stick(fresh):
    """A stick that is locked against writing is mounted read-only by who asks for that; asking to
    write fails, at the mount and at a remount, and changes nothing."""
    vm, name = fresh, fresh.node("locked")
    daemon = vm.daemon()
    reply, lines = reply_to(vm, daemon, "mount rw " + name)
    assert reply == "ERR mount failed\n" and mounted_as(vm, name) is None
    assert [line for line in lines if line.startswith("Asked")] == [
        "Asked to mount %s at /mnt/%s, as %s failed: Read-only file system" % (name, name, driver)
        for driver in ("ext4", "ext3", "ext2")]
    assert vm.request("mount ro " + name) == MOUNTED
    assert vm.request("mount rw " + name) == "ERR cannot remount\n"
    assert mounted_as(vm, name) == ("ext4", "ro") and is_protected(vm, name)


@pytest.mark.long
def test_optical_drive(fresh, tmp_path):
    """An optical drive without a disc is refused; a disc is mounted read-only, whatever was asked,
    and cannot be made writable."""
    vm, name = fresh, fresh.node("dvd")
    vm.sh("modprobe isofs")
    vm.daemon()
    for mode in ("ro", "rw"):
        assert vm.request("mount %s %s" % (mode, name)) == "ERR CD-ROM drive without media\n"
    vm.insert("dvd", images.iso(str(tmp_path / "disc"), "DISC"))
    vm.wait_until(lambda: vm.request("mount rw " + name) == MOUNTED, 10)
    assert mounted_as(vm, name) == ("iso9660", "ro") and is_protected(vm, name)
    assert vm.text("/mnt/%s/readme.txt" % name) == "quarry\n"
    assert entries_of_mnt(vm) == {name: "", "^DISC": name}
    assert vm.request("mount rw " + name) == "OK but CD-ROM drives are readonly\n"
    assert vm.request("mount ro " + name) == "OK already mounted read/only\n"
    assert vm.request("umount ^DISC") == "OK unmount succeeded\n"
    assert entries_of_mnt(vm) == {}
    vm.remove_medium("dvd", close=True)


@pytest.mark.long
def test_drives_in_other_hands(fresh):
    """A member of an array that the daemon has not heard of yet is refused by its superblock, of
    one that it knows, stopped or running, by its list of members, and a drive that a
    device-mapper volume lies on because it cannot be opened."""
    vm, a, b = fresh, fresh.node("a"), fresh.node("b")
    vm.daemon(["--hotplug"])
    vm.request("refresh")
    vm.sh("mdadm -q --create /dev/md7 --run --level=1 --raid-devices=2 --metadata=1.2 "
          "--assume-clean /dev/%s /dev/%s 2>&1; mdadm -q --stop /dev/md7 2>&1" % (a, b))
    assert vm.request("mount ro " + a) == "ERR device appears to be RAID array participant\n"
    vm.request("refresh")
    assert vm.request("mount ro " + a) == "ERR device is part of a RAID array\n"
    vm.sh("mdadm -q --assemble /dev/md7 /dev/%s /dev/%s 2>&1" % (a, b))
    vm.request("refresh")
    assert vm.request("mount ro " + a) == "ERR device is part of a RAID array\n"
    vm.sh("mdadm -q --stop /dev/md7 2>&1; mdadm -q --zero-superblock /dev/%s /dev/%s; "
          "mkfs.ext4 -q -F /dev/%s; echo 0 100 linear /dev/%s 0 | "
          "dmsetup --noudevsync create over" % (a, b, a, a))
    vm.request("refresh")
    assert vm.request("mount ro " + a) == "ERR I can't open the device, much less mount it\n"
    vm.sh("dmsetup --noudevsync remove over")
    assert vm.request("mount ro " + a) == MOUNTED
    assert vm.request("umount " + a) == "OK unmount succeeded\n"
