"""Changing mounts and ending them: who is driven out of a busy one, what a refused call leaves
behind, and the flags that a remount must not lose. The mounts are real ones of tmpfs, or, where
the kernel is to answer oddly, lines of a made-up table."""

import errno
import os
import re
import signal
import time

import pytest

from machine import kernel, stand_ins
from machine.clients import wait_until
from machine.drives import write
from machine.evictions import ended, forcibly, kills, terminating
from machine.kernel import MS_BIND, MS_REMOUNT
from machine.machine import sleep
from machine.stand_ins import mount_options
from machine.traces import own_calls, own_lines, traced

BUSY = os.strerror(errno.EBUSY)
UNMOUNTED = "OK unmount succeeded\n"
NOT_UNMOUNTED = "ERR unmount failed\n"


def busy_stick(machine):
    """A stick that the command has yet to mount; what is on it is put there by fill()."""
    stand_ins.exfat_stick(machine)
    stand_ins.notes_events(machine)


def mounted(machine, mode="rw", **keys):
    """The daemon, with the stick mounted by the command and a few files on it."""
    daemon = machine.start("--hotplug", **keys)
    assert machine.ask(f"mount {mode} sdb1") == "OK mount succeeded\n\n"
    if mode == "rw":
        os.mkdir("/mnt/sdb1/folder")
        for name, rights in (("file", 0o644), ("sealed", 0o444)):
            write(f"/mnt/sdb1/{name}", "x")
            os.chmod(f"/mnt/sdb1/{name}", rights)
    os.unlink("/run/events")
    return daemon


def timed(machine, request, user="root"):
    client = machine.connect(user, timeout=20)
    start = time.monotonic()
    reply = client.ask(request)
    return reply, time.monotonic() - start


def is_served(machine):
    return machine.ask("nothing") == "ERR unknown command\n"


# Politely.


@pytest.mark.parametrize(
    "hold",
    [
        ["--cwd", "/mnt/sdb1"],
        ["--read", "/mnt/sdb1/sealed"],
        ["--write", "/mnt/sdb1/file"],
        ["--root", "/mnt/sdb1/folder"],
    ],
    ids=" ".join,
)
@pytest.mark.parametrize("request_line", ["umount sdb1", "mount off ^DATA"])
def test_a_polite_unmount_leaves_a_busy_mount_as_it_was(machine, hold, request_line):
    busy_stick(machine)
    daemon = mounted(machine)
    holder = machine.troublemaker("holder", *hold)
    options = mount_options("/mnt/sdb1")
    reply, took = timed(machine, request_line, user="guest")
    assert reply == NOT_UNMOUNTED
    assert 1.9 < took < 8
    assert f"wait: umount failed. {BUSY}\nyup, cannot unmount {BUSY}\n" in daemon.stderr()
    assert not ended(holder)
    assert kills(machine) == []
    assert mount_options("/mnt/sdb1") == options
    assert os.readlink("/mnt/^DATA") == "sdb1"
    assert sorted(os.listdir("/mnt/sdb1")) == ["file", "folder", "sealed"]
    assert stand_ins.events() == ["/dev/sdb1 umount"]  # announced before it is tried
    assert is_served(machine)


def test_the_second_attempt_may_succeed(machine):
    busy_stick(machine)
    daemon = mounted(machine)
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    client = machine.connect()
    client.send("umount sdb1\n")
    daemon.wait_for(f"wait: umount failed. {BUSY}\n")
    holder.send_signal(signal.SIGUSR1)
    assert client.reply() == UNMOUNTED
    assert "yup, cannot unmount" not in daemon.stderr()
    assert os.listdir("/mnt") == []


def test_a_polite_remount_fails_while_somebody_writes(machine):
    busy_stick(machine)
    daemon = mounted(machine)
    writer = machine.troublemaker("holder", "--write", "/mnt/sdb1/file")
    options = mount_options("/mnt/sdb1")
    reply, took = timed(machine, "mount ro sdb1")
    assert reply == "ERR cannot remount\n"
    assert took < 20
    assert f"Cannot remount sdb1 {BUSY}\n" in daemon.stderr()
    assert mount_options("/mnt/sdb1") == options
    assert not ended(writer)
    assert stand_ins.events() == ["sdb1 remount-ro"]


def test_who_only_reads_is_in_nobodys_way(machine):
    busy_stick(machine)
    mounted(machine)
    reader = machine.troublemaker("holder", "--read", "/mnt/sdb1/file", "--cwd", "/mnt/sdb1")
    assert machine.ask("mount ro sdb1") == "OK remounted as r/o\n"
    assert machine.ask("mount rw sdb1") == "OK remounted as r/w\n"
    assert not ended(reader)
    assert stand_ins.events() == ["sdb1 remount-ro", "sdb1 remount-rw"]


# Rudely.


@pytest.mark.parametrize(
    "hold",
    [
        ["--cwd", "/mnt/sdb1"],
        ["--cwd", "/mnt/sdb1/folder"],
        ["--read", "/mnt/sdb1/sealed"],
        ["--read", "/mnt/sdb1"],
        ["--write", "/mnt/sdb1/file"],
        ["--root", "/mnt/sdb1"],
    ],
    ids=" ".join,
)
def test_rudeoff_drives_everybody_out(machine, hold):
    """And spares who has nothing to do with the mount."""
    busy_stick(machine)
    daemon = mounted(machine)
    holder = machine.troublemaker("holder", *hold)
    spared = [
        machine.troublemaker("holder", "--cwd", "/mnt"),
        machine.troublemaker("holder", "--read", "/dev/sdb1"),
        machine.troublemaker("holder", "--cwd", "/tmp"),
    ]
    assert machine.ask("mount rudeoff sdb1") == UNMOUNTED
    assert holder.wait(20) == -signal.SIGTERM
    assert kills(machine) == [terminating(holder)]
    assert "umount failed" not in daemon.stderr()
    assert not any(ended(process) for process in spared)
    assert os.listdir("/mnt") == []
    assert stand_ins.events() == ["/dev/sdb1 umount"]


def test_rudeoff_ends_a_program_on_the_mount(machine):
    busy_stick(machine)
    mounted(machine)
    write("/mnt/sdb1/sleep", open("/usr/bin/sleep", "rb").read())
    os.chmod("/mnt/sdb1/sleep", 0o755)
    program = machine.program("/mnt/sdb1/sleep", "60", cwd="/")
    assert machine.ask("mount rudeoff ^DATA", user="guest") == UNMOUNTED
    assert program.wait(20) == -signal.SIGTERM


def test_rudeoff_reaches_the_neighbour_by_its_name(machine):
    """/mnt/sdb10 begins with /mnt/sdb1: who is inside goes, though its mount stays."""
    busy_stick(machine)
    stand_ins.exfat_stick(machine, "sdb10", "TEN")
    mounted(machine)
    assert machine.ask("mount rw sdb10") == "OK mount succeeded\n\n"
    neighbour = machine.troublemaker("holder", "--cwd", "/mnt/sdb10")
    assert machine.ask("mount rudeoff sdb1") == UNMOUNTED
    assert neighbour.wait(20) == -signal.SIGTERM
    assert mount_options("/mnt/sdb10") is not None
    assert machine.ask("umount sdb10") == UNMOUNTED


def test_rudero_drives_writers_out_and_spares_the_rest(machine):
    """Working directory, root and program do not count, nor files that nobody may write."""
    busy_stick(machine)
    mounted(machine)
    writer = machine.troublemaker("holder", "--write", "/mnt/sdb1/file")
    reader = machine.troublemaker("holder", "--read", "/mnt/sdb1/file")
    spared = [
        machine.troublemaker("holder", "--cwd", "/mnt/sdb1"),
        machine.troublemaker("holder", "--root", "/mnt/sdb1"),
        machine.troublemaker("holder", "--read", "/mnt/sdb1/sealed"),
    ]
    assert machine.ask("mount rudero sdb1") == "OK remounted as r/o\n"
    # The mode of the file decides, not how it was opened.
    assert writer.wait(20) == reader.wait(20) == -signal.SIGTERM
    assert sorted(kills(machine)) == sorted([terminating(writer), terminating(reader)])
    assert not any(ended(process) for process in spared)
    assert "ro" in mount_options("/mnt/sdb1")
    assert stand_ins.events() == ["sdb1 remount-ro"]


def test_the_same_process_is_spared_by_rudero_and_driven_out_by_rudeoff(machine):
    busy_stick(machine)
    mounted(machine)
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1/folder")
    assert machine.ask("mount rudero sdb1") == "OK remounted as r/o\n"
    sleep(0.2)
    assert not ended(holder)
    assert machine.ask("mount rudeoff sdb1") == UNMOUNTED
    assert holder.wait(20) == -signal.SIGTERM


def test_rudero_spares_a_writer_of_a_sealed_file_and_fails(machine):
    """The kernel counts how it was opened, the eviction looks at the mode."""
    busy_stick(machine)
    daemon = mounted(machine)
    writer = machine.troublemaker("holder", "--write", "/mnt/sdb1/sealed")
    assert machine.ask("mount rudero sdb1") == "ERR cannot remount\n"
    assert not ended(writer)
    assert f"Cannot remount sdb1 {BUSY}\n" in daemon.stderr()
    assert "rw" in mount_options("/mnt/sdb1")


@pytest.mark.parametrize(
    "mode, hold, reply",
    [
        ("rudeoff", "--read", UNMOUNTED),
        ("rudero", "--write", "OK remounted as r/o\n"),
    ],
)
@pytest.mark.parametrize("habit", ["--ignore-term", "--stop"])
def test_who_does_not_listen_is_killed_after_a_second(machine, mode, hold, reply, habit):
    """One is deaf to SIGTERM, one is stopped and cannot hear it."""
    busy_stick(machine)
    mounted(machine)
    stubborn = machine.troublemaker("holder", habit, hold, "/mnt/sdb1/file")
    found, took = timed(machine, f"mount {mode} sdb1")
    assert found == reply
    assert 0.9 < took < 6
    assert stubborn.wait(20) == -signal.SIGKILL
    assert kills(machine) == [terminating(stubborn), forcibly(stubborn)]


def test_who_cannot_be_killed_is_given_up(machine):
    """It is spoken to in the first pass and the last; the unmount then fails as any other."""
    busy_stick(machine)
    daemon = mounted(machine)
    # Its entry in /proc stays whatever is sent, and a process that nobody sees holds the mount.
    machine.made_up_process(1000001, fds=["/mnt/sdb1/file"], command="stuck")
    machine.troublemaker("holder", "--read", "/mnt/sdb1/file", show=False)
    reply, took = timed(machine, "mount rudeoff sdb1")
    assert reply == NOT_UNMOUNTED
    assert 2.9 < took < 10
    assert kills(machine) == [
        "1000001: stuck is using mount points. terminating...",
        "1000001: stuck is still using mount point. forcibly terminating...",
    ]
    assert f"wait: umount failed. {BUSY}\nyup, cannot unmount {BUSY}\n" in daemon.stderr()
    assert "rw" in mount_options("/mnt/sdb1")
    assert os.readlink("/mnt/^DATA") == "sdb1"
    assert is_served(machine)


def test_who_cannot_be_killed_keeps_a_mount_writable(machine):
    busy_stick(machine)
    mounted(machine)
    machine.made_up_process(1000001, fds=["/mnt/sdb1/file"], command="stuck")
    machine.troublemaker("holder", "--write", "/mnt/sdb1/file", show=False)
    reply, took = timed(machine, "mount rudero sdb1")
    assert reply == "ERR cannot remount\n"
    assert 0.9 < took < 6
    assert "rw" in mount_options("/mnt/sdb1")


def test_nobody_is_driven_out_of_what_is_not_mounted(machine):
    busy_stick(machine)
    machine.start("--hotplug")
    os.mkdir("/mnt/sdb1")
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    assert machine.ask("mount rudeoff sdb1") == "OK its not mounted anyway\n"
    assert not ended(holder)
    assert stand_ins.events() == []


def test_nobody_is_driven_out_of_what_is_read_only_already(machine):
    busy_stick(machine)
    mounted(machine, "ro")
    holder = machine.troublemaker("holder", "--read", "/mnt/sdb1")
    assert machine.ask("mount rudero sdb1") == "OK already mounted read/only\n"
    assert not ended(holder)
    assert stand_ins.events() == []


def test_the_whole_drives_mount_is_found_wherever_it_is(machine):
    """The device is looked up in the table; the mount point is the table's word."""
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/run/elsewhere")
    machine.start("--hotplug")
    holder = machine.troublemaker("holder", "--cwd", "/run/elsewhere")
    assert machine.ask("mount rudeoff sdb") == UNMOUNTED
    assert holder.wait(20) == -signal.SIGTERM
    assert not os.path.exists("/run/elsewhere")


def test_an_eviction_that_cannot_be_forked_ends_nobody(machine):
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/mnt/sdb")
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb")
    daemon = machine.start("--hotplug", refuse=[("clone", errno.EAGAIN, 0, 0xFF, 17)])
    assert machine.ask("mount rudeoff sdb") == NOT_UNMOUNTED
    assert f"Cannot fork! {os.strerror(errno.EAGAIN)}\n" in daemon.stderr()
    assert not ended(holder)
    assert mount_options("/mnt/sdb") is not None


# What a remount must not lose.


def test_a_remount_puts_the_protecting_flags_back(machine):
    """The kernel drops nosuid and nodev; they are given back to this very mount."""
    busy_stick(machine)
    daemon = mounted(machine, trace=traced(calls="mount,mount_setattr"))

    def calls():
        return [line for line in own_lines(daemon) if line.startswith("mount")]

    before = calls()
    for mode, word in (("ro", "r/o"), ("rw", "r/w")):
        assert machine.ask(f"mount {mode} sdb1") == f"OK remounted as {word}\n"
        options = mount_options("/mnt/sdb1")
        assert {mode, "nosuid", "nodev"} <= set(options)
    # The type means nothing to a remount, and strace shows where it stands in memory; a descriptor
    # may have any number.
    noise = r"(?<=, )0x[0-9a-f]+|(?<=setattr\()\d+| /\*.*?\*/"
    given = (
        'mount_setattr(, "", AT_EMPTY_PATH, {attr_set=MOUNT_ATTR_NOSUID|MOUNT_ATTR_NODEV, '
        "attr_clr=0, propagation=0, userns_fd=0}, 32) = 0"
    )
    assert [re.sub(noise, "", call) for call in calls()[len(before) :]] == [
        'mount("", "/mnt/sdb1", , MS_RDONLY|MS_REMOUNT, NULL) = 0',
        given,
        'mount("", "/mnt/sdb1", , MS_REMOUNT, NULL) = 0',
        given,
    ]


@pytest.mark.parametrize(
    "options, kept",
    [("nosuid", {"nosuid"}), ("nodev,noexec", {"nodev", "noexec"}), ("mode=755", set())],
)
def test_a_remount_adds_no_flag_that_was_not_there(machine, options, kept):
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    os.mkdir("/mnt/sdb")
    flags = {"nosuid": kernel.MS_NOSUID, "nodev": kernel.MS_NODEV, "noexec": kernel.MS_NOEXEC}
    chosen = sum(flags[word] for word in kept)
    kernel.mount("/dev/sdb", "/mnt/sdb", "tmpfs", chosen, "mode=755")
    daemon = machine.start("--hotplug", trace=traced(calls="mount,mount_setattr"))
    for mode in ("ro", "rw"):
        assert machine.ask(f"mount {mode} sdb").startswith("OK remounted")
        assert set(mount_options("/mnt/sdb")) & set(flags) == kept
    assert len(own_calls(daemon, "mount")) == 2
    assert len(own_calls(daemon, "mount_setattr")) == (2 if kept else 0)


def test_flags_that_cannot_be_put_back_are_reported(machine):
    """The remount has succeeded all the same."""
    busy_stick(machine)
    both = MS_REMOUNT | MS_BIND
    refusals = [("mount_setattr", errno.ENOSYS), ("mount", errno.EPERM, 3, both, both)]
    daemon = mounted(machine, refuse=refusals)
    assert machine.ask("mount ro sdb1") == "OK remounted as r/o\n"
    assert "Cannot protect /mnt/sdb1 again Operation not permitted\n" in daemon.stderr()


@pytest.mark.parametrize("mode, event", [("ro", "remount-ro"), ("rw", "remount-rw")])
def test_a_remount_that_the_kernel_refuses(machine, mode, event):
    busy_stick(machine)
    before = "ro" if mode == "rw" else "rw"
    refusal = ("mount", errno.EROFS, 3, MS_REMOUNT | MS_BIND, MS_REMOUNT)
    daemon = mounted(machine, before, refuse=[refusal])
    options = mount_options("/mnt/sdb1")
    assert machine.ask(f"mount {mode} sdb1") == "ERR cannot remount\n"
    assert f"Cannot remount sdb1 {os.strerror(errno.EROFS)}\n" in daemon.stderr()
    assert mount_options("/mnt/sdb1") == options
    assert stand_ins.events() == [f"sdb1 {event}"]


# The table after an unmounting.


def listed_stick(machine):
    """A stick that only the made-up table knows to be mounted."""
    stand_ins.install(machine)
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)
    machine.probe_says("sdb1", "DATA", "exfat")
    machine.mount_table(["/dev/sdb1 /mnt/sdb1 exfat rw"])
    os.mkdir("/mnt/sdb1")
    os.symlink("sdb1", "/mnt/^DATA")


@pytest.mark.parametrize("goes_meanwhile", [False, True])
def test_a_device_that_is_still_listed_is_not_unmounted(machine, goes_meanwhile):
    """The table is not read again after the second of patience, so that patience changes nothing.
    The directory and the label link are gone by then."""
    listed_stick(machine)
    daemon = machine.start("--hotplug", trace=traced("umount2:retval=0"))
    client = machine.connect()
    start = time.monotonic()
    client.send("umount sdb1\n")
    daemon.wait_for("For unmounting sdb1 it's still there in procfs?\n")
    if goes_meanwhile:
        machine.mount_table([])
    assert client.reply() == NOT_UNMOUNTED
    assert 0.9 < time.monotonic() - start < 6
    assert daemon.stderr().endswith(
        "For unmounting sdb1 it's still there in procfs?\nsdb1still there?!?!?\n"
        "Label: 'DATA'\n  'filesystem' = 'exfat'\n"
    )
    assert os.listdir("/mnt") == []
    assert is_served(machine)


def test_a_device_that_is_mounted_twice_is_unmounted_once(machine):
    """The first entry's mount point is unmounted; the second entry is still there."""
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/mnt/one")
    machine.mount_tmpfs("sdb", "/mnt/two")
    daemon = machine.start("--hotplug")
    assert machine.ask("umount sdb") == NOT_UNMOUNTED
    assert "sdbstill there?!?!?\n" in daemon.stderr()
    assert mount_options("/mnt/one") is None and mount_options("/mnt/two") is not None
    assert not os.path.exists("/mnt/one")
    assert machine.ask("umount sdb") == UNMOUNTED
    assert os.listdir("/mnt") == []


@pytest.mark.parametrize("number", [errno.EBUSY, errno.EINVAL, errno.EPERM])
def test_an_unmount_that_the_kernel_refuses(machine, number):
    listed_stick(machine)
    daemon = machine.start("--hotplug", refuse=[("umount2", number)])
    reply, took = timed(machine, "umount sdb1")
    assert reply == NOT_UNMOUNTED
    assert 1.9 < took < 8
    reason = os.strerror(number)
    assert f"wait: umount failed. {reason}\nyup, cannot unmount {reason}\n" in daemon.stderr()
    assert sorted(os.listdir("/mnt")) == ["^DATA", "sdb1"]


def test_a_directory_that_is_not_empty_stays_after_an_unmounting(machine):
    """Something lay beneath the mount; the reply is that of any unmounting."""
    stand_ins.exfat_stick(machine)
    os.makedirs("/mnt/sdb1/beneath")
    mounted_daemon = machine.start("--hotplug")
    assert machine.ask("mount rw sdb1") == "OK mount succeeded\n\n"
    assert machine.ask("umount sdb1") == UNMOUNTED
    assert os.listdir("/mnt") == ["sdb1"] and os.listdir("/mnt/sdb1") == ["beneath"]
    assert mounted_daemon.is_running()


@pytest.mark.parametrize("name", ["a b", "tab\there", "back\\slash", "line\nend", "\\040"])
def test_a_mount_point_that_the_table_escapes_is_used_as_it_is(machine, name):
    """Remounted, cleared and unmounted under its own name, whatever the kernel writes."""
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", f"/mnt/{name}")
    machine.start("--hotplug")
    assert machine.ask("mount ro sdb") == "OK remounted as r/o\n"
    assert machine.ask("mount rw sdb") == "OK remounted as r/w\n"
    holder = machine.troublemaker("holder", "--cwd", f"/mnt/{name}")
    assert machine.ask("mount rudeoff sdb") == UNMOUNTED
    assert holder.wait(20) == -signal.SIGTERM
    assert os.listdir("/mnt") == []


@pytest.mark.parametrize("fstype, is_its_own", [("fuse", 0), ("fuse.sshfs", 0), ("fuseblk", 1)])
def test_a_mount_that_any_user_can_name_is_no_devices_mount(machine, fstype, is_its_own):
    """Who calls a FUSE mount of their own /dev/sdb does not get it unmounted as the drive."""
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_table([f"/dev/sdb /home/guest/fake {fstype} rw"])
    machine.start("--hotplug", refuse=[("umount2", errno.EBUSY)])
    reply = NOT_UNMOUNTED if is_its_own else "OK its not mounted anyway\n"
    assert machine.ask("umount sdb") == reply


def test_without_a_table_nothing_is_mounted(machine):
    stand_ins.install(machine)
    machine.plug("usb", "sdb", 1 << 20)
    daemon = machine.start("--hotplug")
    os.unlink("/proc/mounts")
    assert machine.ask("umount sdb") == "OK its not mounted anyway\n"
    assert "Cannot access /proc/mounts\n" in daemon.stderr()
    machine.mount_table([])


def test_many_mounts_leave_nothing_behind(machine):
    """No descriptor, no child, no directory, no link."""
    busy_stick(machine)
    daemon = machine.start("--hotplug")
    client = machine.connect(timeout=20)

    def once():
        assert client.ask("mount rw ^DATA") == "OK mount succeeded\n\n"
        assert client.ask("mount rudero sdb1") == "OK remounted as r/o\n"
        assert client.ask("mount rudeoff sdb1") == UNMOUNTED

    once()
    before = sorted(daemon.descriptors().values())
    for _ in range(15):
        once()
    assert sorted(daemon.descriptors().values()) == before
    assert daemon.children() == []
    assert os.listdir("/mnt") == []
    assert len(stand_ins.events()) == 16 * 4


# Flushing what can be taken out.


def flushing_lines(daemon):
    words = ("Flushing", "BLKFLSBUF")
    return [line for line in daemon.stderr_lines() if line.startswith(words)]


def disc(machine):
    machine.plug("scsi", "sr0", 1 << 20, model="DVD")
    machine.mount_table(["/dev/sr0 /media/disc iso9660 ro"])


@pytest.mark.parametrize("mode", ["ro", "off"])
def test_a_drive_that_is_not_at_hand_is_not_flushed(machine, mode):
    """The bare name is looked for in the working directory, where there is no node: silence."""
    disc(machine)
    daemon = machine.start("--hotplug", refuse=[("umount2", errno.EBUSY)])
    machine.pass_of_loop()
    machine.ask(f"mount {mode} sr0")
    assert flushing_lines(daemon) == ["Flushing sr0 before letting go"]


def test_a_drive_that_is_at_hand_is_flushed_twice(machine):
    """A plain file of that name stands in for the node: it takes no ioctl."""
    disc(machine)
    daemon = machine.start("--hotplug", trace=traced(calls="openat,fsync,ioctl"))
    wait_until(lambda: os.readlink(f"/.proc/{daemon.pid}/cwd") == "/mnt")
    write("/mnt/sr0", "")
    assert machine.ask("mount ro sr0") == "OK already mounted read/only\n"
    failed = "BLKFLSBUF failed Inappropriate ioctl for device"
    assert flushing_lines(daemon) == [
        "Flushing sr0 before letting go",
        "Flushing device sr0",
        failed,
        failed,
    ]
    lines = own_lines(daemon)
    start = next(i for i, line in enumerate(lines) if 'AT_FDCWD, "sr0"' in line)
    for flag in ("O_RDWR", "O_EXCL", "O_NONBLOCK", "O_CLOEXEC"):
        assert flag in lines[start]
    names = [line.split("(")[0] for line in lines[start + 1 :]]
    assert names[:4] == ["fsync", "ioctl", "fsync", "ioctl"]


@pytest.mark.parametrize("request_line", ["mount rw sr0", "mount ro sda", "mount ro sr0p1"])
def test_writing_hard_drives_and_partitions_flush_nothing(machine, request_line):
    disc(machine)
    machine.plug("sata", "sda", 1 << 20)
    machine.part("sr0p1", 4096)
    machine.add_mount_line("/dev/sda /mnt/sda ext4 ro")
    machine.add_mount_line("/dev/sr0p1 /mnt/sr0p1 ext4 ro")
    daemon = machine.start("--hotplug")
    machine.ask(request_line)
    assert flushing_lines(daemon) == []


# The daemon is asked to end meanwhile.


def test_sigterm_ends_the_patience_of_an_unmounting(machine):
    """The second attempt comes at once; at the end the holder is driven out as always."""
    busy_stick(machine)
    daemon = mounted(machine)
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    client = machine.connect()
    client.send("umount sdb1\n")
    daemon.wait_for("wait: umount failed.")
    daemon.send_signal(signal.SIGTERM)
    daemon.wait_for("yup, cannot unmount", timeout=1.5)
    daemon.check_end(0)
    assert holder.wait(20) == -signal.SIGTERM
    assert mount_options("/mnt/sdb1") is None
    assert os.listdir("/mnt") == []


def test_sigterm_during_an_eviction_lets_it_end(machine):
    busy_stick(machine)
    daemon = mounted(machine)
    deaf = machine.troublemaker("holder", "--ignore-term", "--cwd", "/mnt/sdb1")
    client = machine.connect()
    client.send("mount rudeoff sdb1\n")
    wait_until(lambda: kills(machine), what="the eviction")
    daemon.send_signal(signal.SIGTERM)
    daemon.check_end(0)
    assert deaf.wait(20) == -signal.SIGKILL
    assert mount_options("/mnt/sdb1") is None
    assert os.listdir("/mnt") == []


def test_others_are_served_after_an_unmounting_that_took_its_time(machine):
    busy_stick(machine)
    daemon = mounted(machine)
    machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    client = machine.connect()
    client.send("umount sdb1\n")
    daemon.wait_for("wait: umount failed.")
    other = machine.connect("guest")
    other.send("mount rw sdb1\n")
    assert other.is_silent(0.5)
    assert client.reply() == NOT_UNMOUNTED
    assert other.reply() == "OK already mounted read/write\n"
