"""Mounts in use: what is refused politely, and who has to go when the client is rude."""
import os
import time

import pytest

from holders import KILL, TERM, alive, has_ended, hold, said_of
from mounts import entries_of_mnt, mount_flags, mounted_as, reply_to
from rig import Disk, images

MOUNTED = "OK mount succeeded\n\n"


def drives(folder):
    def image(name, label):
        return images.fs(os.path.join(folder, name), "16M", "ext4", label)
    return [Disk("virtio-scsi", image("disk", "LAB"), id="disk"),
            Disk("virtio-scsi", 16 << 20, id="slow"),
            Disk("usb", image("stick", "STICK"), id="stick")]


@pytest.fixture
def mounted(fresh):
    """(machine, daemon, name of the drive it has mounted read-write)"""
    daemon, name = fresh.daemon(), fresh.node("disk")
    assert fresh.request("mount rw " + name) == MOUNTED
    return fresh, daemon, name


def run_from(vm, folder):
    """A program that lies in the folder, running; its pid."""
    return vm.background("cp /bin/sleep %s/napper; exec %s/napper 1000" % (folder, folder))


def test_polite_requests_change_nothing(mounted):
    """A mount in use is neither unmounted nor made read-only for who asks politely: the reply
    says so, an unmount after a second attempt, and everything is as it was."""
    vm, daemon, name = mounted
    pids = [hold(vm, how, "/mnt/" + name) for how in ("cwd", "writer")]
    before = mount_flags(vm, name), mounted_as(vm, name), entries_of_mnt(vm)
    began = time.monotonic()
    reply, lines = reply_to(vm, daemon, "umount " + name)
    assert reply == "ERR unmount failed\n" and 2 <= time.monotonic() - began < 20
    assert lines == ["wait: umount failed. Device or resource busy",
                     "yup, cannot unmount Device or resource busy"]
    reply, lines = reply_to(vm, daemon, "mount ro " + name)
    assert reply == "ERR cannot remount\n"
    assert lines == ["Cannot remount %s Device or resource busy" % name]
    assert (mount_flags(vm, name), mounted_as(vm, name), entries_of_mnt(vm)) == before
    assert before[2] == {name: "", "^LAB": name}
    for pid in pids:
        assert alive(vm, pid) and said_of(vm, pid) == []


def test_rude_unmount_drives_everybody_out(mounted):
    """"rudeoff" ends whoever has the working directory, the root, an open file or the program on
    the mount, the stubborn and the stopped by force a second later, and nobody else."""
    vm, daemon, name = mounted
    folder = "/mnt/" + name
    bystander = vm.background("cd /tmp; exec sleep 1000 9>/mnt/elsewhere")
    pids = {how: hold(vm, how, folder) for how in ("cwd", "root", "writer", "stubborn", "stopped")}
    program = run_from(vm, folder)
    began = time.monotonic()
    reply, lines = reply_to(vm, daemon, "mount rudeoff " + name)
    # Who is killed has a tenth of a second to let go, and two seconds more.
    assert reply == "OK unmount succeeded\n"
    assert lines in ([], ["wait: umount failed. Device or resource busy"])
    assert 1 < time.monotonic() - began < 20
    for how, pid in pids.items():
        said = [TERM, KILL] if how in ("stubborn", "stopped") else [TERM]
        assert said_of(vm, pid) == [text % pid for text in said]
        assert has_ended(vm, pid)
    assert has_ended(vm, program) and alive(vm, bystander)
    assert mounted_as(vm, name) is None and entries_of_mnt(vm) == {"elsewhere": ""}


def test_rude_remount_drives_writers_out(mounted):
    """"rudero" ends whoever has a file open that somebody may write to, and spares who has the
    working directory, the program, or a file that nobody may write to on the mount."""
    vm, daemon, name = mounted
    folder = "/mnt/" + name
    pids = {how: hold(vm, how, folder) for how in ("writer", "file", "cwd", "reader", "mapped")}
    pids["program"] = run_from(vm, folder)
    reply, lines = reply_to(vm, daemon, "mount rudero " + name)
    assert reply == "OK remounted as r/o\n" and lines == []
    assert has_ended(vm, pids["writer"]) and has_ended(vm, pids["file"])
    assert {how for how, pid in pids.items() if alive(vm, pid)} == {
        "cwd", "reader", "mapped", "program"}
    for how, pid in pids.items():
        assert said_of(vm, pid) == ([TERM % pid] if how in ("writer", "file") else [])
    assert mounted_as(vm, name) == ("ext4", "ro")
    assert vm.request("mount rudero " + name) == "OK already mounted read/only\n"


@pytest.mark.long
def test_mapped_file_is_not_seen(mounted):
    """Who has nothing but a mapped file on the mount is not among those that are looked for: the
    rude unmount fails as the polite one, and succeeds when the process is gone."""
    vm, daemon, name = mounted
    pid = hold(vm, "mapped", "/mnt/" + name)
    assert vm.request("mount rudeoff " + name) == "ERR unmount failed\n"
    assert alive(vm, pid) and mounted_as(vm, name) == ("ext4", "rw")
    vm.sh("kill " + pid)
    assert vm.request("mount rudeoff " + name) == "OK unmount succeeded\n"


def test_process_that_cannot_be_killed(fresh):
    """A process that waits for a drive that does not answer cannot be killed: it is told to end,
    killed, given up, and the reply comes in time; it ends when the drive comes back."""
    vm = fresh
    vm.sh("""set -e; echo "0 $(blockdev --getsz /dev/%s) linear /dev/%s 0" |
    dmsetup --noudevsync create slow; dmsetup mknodes; mkfs.ext4 -q -L SLOW /dev/mapper/slow"""
          % (vm.node("slow"), vm.node("slow")))
    name = os.path.basename(vm.sh("readlink -f /dev/mapper/slow; ls /sys/block | grep ^dm-")
                            .out.split()[-1])
    daemon = vm.daemon()
    assert vm.request("mount rw " + name) == MOUNTED
    vm.sh("head -c 1M /dev/zero >/mnt/%s/file; sync; dmsetup suspend --noflush --nolockfs slow"
          % name)
    pid = vm.background("exec dd if=/mnt/%s/file of=/dev/null bs=4k iflag=direct" % name)
    vm.wait_until(lambda: "\nState:\tD" in vm.text("/proc/%s/status" % pid), 30)
    began = time.monotonic()
    reply, lines = reply_to(vm, daemon, "mount rudeoff " + name)
    assert reply == "ERR unmount failed\n" and 3 <= time.monotonic() - began < 20
    assert lines[-2:] == ["wait: umount failed. Device or resource busy",
                          "yup, cannot unmount Device or resource busy"]
    assert said_of(vm, pid) == [
        pid + ": dd is using mount points. terminating...",
        pid + ": dd is still using mount point. forcibly terminating..."]
    assert alive(vm, pid) and mounted_as(vm, name) == ("ext4", "rw")
    assert entries_of_mnt(vm) == {name: "", "^SLOW": name}
    assert vm.request("list").endswith("OK  eom\n")
    vm.sh("dmsetup resume slow")
    vm.wait_until(lambda: not alive(vm, pid), 30)
    assert vm.request("umount " + name) == "OK unmount succeeded\n"


@pytest.mark.long
def test_stick_is_pulled_while_it_is_written_to(fresh):
    """A stick that is pulled while it is mounted and written to is released: its users are ended,
    its mount, folder and link go, and it is mounted again when it comes back."""
    vm, name = fresh, fresh.node("stick")
    daemon = vm.daemon()
    assert vm.request("mount rw ^STICK") == MOUNTED
    vm.sh("echo content >/mnt/%s/kept; sync -f /mnt/%s" % (name, name))
    pids = [hold(vm, how, "/mnt/" + name) for how in ("writer", "cwd")]
    vm.unplug("stick")
    daemon.wait_err("Device %s just disappeared (polling)\n" % name)
    vm.wait_until(lambda: entries_of_mnt(vm) == {}, 15)
    assert mounted_as(vm, name) is None and not any(alive(vm, pid) for pid in pids)
    assert "\t%s\t" % name not in vm.request("list")
    name = vm.plug("stick")
    vm.wait_until(lambda: "\t%s\t" % name in vm.request("list"), 10)
    assert vm.request("mount rw ^STICK") == MOUNTED
    assert vm.text("/mnt/%s/kept" % name) == "content\n"
    assert vm.request("umount ^STICK") == "OK unmount succeeded\n"
