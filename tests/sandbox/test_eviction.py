"""Driving real processes out of mounts: when a device vanishes, at the end, and room by room."""

import errno
import os
import signal
import time

import pytest

from machine import kernel
from machine.clients import wait_until
from machine.drives import write
from machine.evictions import ended, forcibly, kills, terminating
from machine.machine import sleep


def mounted_stick(machine, *partitions):
    """A stick sdb whose partitions are mounted, each with a file that anybody may write."""
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    for name in partitions or ("sdb1",):
        machine.part(name, 4096)
        machine.mount_tmpfs(name, f"/mnt/{name}")
        os.mkdir(f"/mnt/{name}/folder")
        write(f"/mnt/{name}/file", "x")
        os.chmod(f"/mnt/{name}/file", 0o644)


def pull(machine, daemon, name="sdb"):
    """Pulls the drive out and waits until the daemon has dealt with it; returns the seconds."""
    machine.settle()
    machine.unplug(name)
    daemon.wait_for(f"Device {name} just disappeared", timeout=20)
    start = time.monotonic()
    machine.pass_of_loop()
    return time.monotonic() - start


@pytest.mark.parametrize(
    "hold",
    [
        ["--cwd", "/mnt/sdb1"],
        ["--cwd", "/mnt/sdb1/folder"],
        ["--read", "/mnt/sdb1/file"],
        ["--write", "/mnt/sdb1/file"],
        ["--read", "/mnt/sdb1"],
        ["--root", "/mnt/sdb1"],
    ],
    ids=" ".join,
)
def test_who_holds_a_vanished_device_is_ended(machine, hold):
    mounted_stick(machine)
    daemon = machine.start()
    holder = machine.troublemaker("holder", *hold)
    bystander = machine.troublemaker("holder", "--cwd", "/mnt")
    pull(machine, daemon)
    assert holder.wait(20) == -signal.SIGTERM
    assert kills(machine) == [terminating(holder)]
    assert not ended(bystander)
    assert not os.path.exists("/mnt/sdb1")
    assert "killing processes using sdb1 on /mnt/sdb1\n" in daemon.stderr()
    assert "cannot unmount" not in daemon.stderr()


def test_program_on_the_mount_is_ended(machine):
    mounted_stick(machine)
    write("/mnt/sdb1/sleep", open("/usr/bin/sleep", "rb").read())
    os.chmod("/mnt/sdb1/sleep", 0o755)
    daemon = machine.start()
    holder = machine.program("/mnt/sdb1/sleep", "60", cwd="/")
    pull(machine, daemon)
    assert holder.wait(20) == -signal.SIGTERM
    assert kills(machine) == [
        f"{holder.pid}: /mnt/sdb1/sleep is using mount points. terminating..."
    ]


def test_who_ignores_sigterm_gets_sigkill_after_a_second(machine):
    mounted_stick(machine)
    daemon = machine.start()
    deaf = machine.troublemaker("holder", "--ignore-term", "--read", "/mnt/sdb1/file")
    machine.settle()
    start = time.monotonic()
    machine.unplug("sdb")
    wait_until(lambda: kills(machine), what="the first signal")
    first = time.monotonic() - start
    assert deaf.wait(20) == -signal.SIGKILL
    assert 0.9 < time.monotonic() - start - first < 2.5
    daemon.wait_for("Device sdb just disappeared")
    assert kills(machine) == [terminating(deaf), forcibly(deaf)]
    assert not os.path.exists("/mnt/sdb1")


def test_who_is_stopped_dies_too(machine):
    """SIGTERM waits for a stopped process to go on; SIGKILL does not."""
    mounted_stick(machine)
    daemon = machine.start()
    stopped = machine.troublemaker("holder", "--stop", "--cwd", "/mnt/sdb1")
    pull(machine, daemon)
    assert stopped.wait(20) == -signal.SIGKILL
    assert kills(machine) == [terminating(stopped), forcibly(stopped)]
    assert not os.path.exists("/mnt/sdb1")


def test_who_leaves_in_time_is_not_killed(machine):
    mounted_stick(machine)
    daemon = machine.start()
    deaf = machine.troublemaker("holder", "--ignore-term", "--read", "/mnt/sdb1/file")
    machine.settle()
    machine.unplug("sdb")
    wait_until(lambda: kills(machine), what="the first signal")
    deaf.send_signal(signal.SIGUSR1)
    daemon.wait_for("Device sdb just disappeared")
    assert deaf.wait(20) == 0
    assert kills(machine) == [terminating(deaf)]


def test_prefix_rule_reaches_the_neighbour(machine):
    """Clearing /mnt/sdb1 ends who is inside /mnt/sdb10, whose mount itself stays."""
    mounted_stick(machine, "sdb1", "sdb10", "sdb2")
    daemon = machine.start()
    neighbour = machine.troublemaker("holder", "--cwd", "/mnt/sdb10")
    other = machine.troublemaker("holder", "--cwd", "/mnt/sdb2")
    machine.settle()
    machine.unplug("sdb1")
    daemon.wait_for("Device sdb1 just disappeared")
    machine.pass_of_loop()
    assert neighbour.wait(20) == -signal.SIGTERM
    assert not ended(other)
    assert os.path.ismount("/mnt/sdb10") and os.path.ismount("/mnt/sdb2")
    assert not os.path.exists("/mnt/sdb1")
    other.kill()


def test_many_holders_go_together(machine):
    mounted_stick(machine)
    daemon = machine.start()
    holders = [machine.troublemaker("holder", "--cwd", "/mnt/sdb1") for _ in range(5)]
    holders += [machine.troublemaker("holder", "--ignore-term", "--cwd", "/mnt/sdb1")]
    pull(machine, daemon)
    assert [holder.wait(20) for holder in holders] == [-signal.SIGTERM] * 5 + [-signal.SIGKILL]
    assert len(kills(machine)) == 7


def test_process_without_a_command_line(machine):
    """It exists in /proc alone: it is spoken to in the first pass and the last, then given up."""
    mounted_stick(machine)
    machine.made_up_process(1000001, fds=["/mnt/sdb1/file"])
    os.unlink("/proc/1000001/cmdline")
    machine.made_up_process(1000002, fds=["/mnt/sdb1/file"], command="")
    machine.made_up_process(1000003, cwd="/mnt/sdb1", command="a) Z\0second")
    machine.made_up_process(1000004, exe="/mnt/sdb1/x", command="c" * 300)
    daemon = machine.start()
    machine.settle()
    start = time.monotonic()
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    assert time.monotonic() - start > 1
    names = {1000001: "(unknown)", 1000002: "", 1000003: "a) Z", 1000004: "c" * 255}
    lines = kills(machine)
    assert sorted(lines[:4]) == [
        f"{pid}: {name} is using mount points. terminating..." for pid, name in names.items()
    ]
    assert sorted(lines[4:]) == [
        f"{pid}: {name} is still using mount point. forcibly terminating..."
        for pid, name in names.items()
    ]
    assert not os.path.exists("/mnt/sdb1")


def test_a_command_line_forges_nothing_in_the_log(machine):
    """Who holds a mount has written his own command line: it is one line of the log, without a
    character that a terminal or a log would obey. What is not ASCII stays as it is."""
    mounted_stick(machine)
    command = "a\n<0>quarryd: forged\x1b[2J\r\t\x7fé"
    machine.made_up_process(1000001, cwd="/mnt/sdb1", command=command)
    daemon = machine.start()
    machine.settle()
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    told = "1000001: a_<0>quarryd: forged_[2J___é is "
    assert kills(machine) == [
        told + "using mount points. terminating...",
        told + "still using mount point. forcibly terminating...",
    ]


def test_who_cannot_be_asked_holds_nothing_up(machine):
    """The command line of a process whose memory is locked for ever, by a wait for some dead
    filesystem, is not to be had; it is signalled all the same, and the device let go of."""
    mounted_stick(machine)
    daemon = machine.start()
    machine.made_up_process(1000001, cwd="/mnt/sdb1")
    os.unlink("/proc/1000001/cmdline")
    os.mkfifo("/proc/1000001/cmdline")
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    start = time.monotonic()
    pull(machine, daemon)
    assert time.monotonic() - start < 20
    assert holder.wait(20) == -signal.SIGTERM
    said = "is using mount points. terminating..."
    assert sorted(kills(machine)[:2]) == sorted([terminating(holder), f"1000001: (unknown) {said}"])
    assert not os.path.exists("/mnt/sdb1")


def test_entries_of_proc_that_are_no_process_are_left_alone(machine):
    mounted_stick(machine)
    for name in ("0", "-5", "self2", ".1000001"):
        os.makedirs(f"/proc/{name}")
        os.symlink("/mnt/sdb1", f"/proc/{name}/cwd")
    daemon = machine.start()
    pull(machine, daemon)
    assert kills(machine) == []


def test_the_daemon_itself_is_no_exception(machine):
    """Its working directory is /mnt: a device that is mounted there takes the daemon along."""
    machine.plug("usb", "sdb", 1 << 20)
    machine.real_mounts()
    daemon = machine.start()
    machine.settle()
    machine.mount_tmpfs("sdb", "/mnt/outer")
    kernel.umount("/mnt/outer")
    kernel.mount("/dev/sdb", "/mnt", "tmpfs", 0, "mode=755")
    wait_until(lambda: os.readlink(f"/.proc/{daemon.pid}/cwd").startswith("/mnt"))
    daemon.given_up = True
    machine.settle()
    machine.unplug("sdb")
    assert daemon.process.wait(20) == -signal.SIGKILL
    assert f"{daemon.pid}: /usr/sbin/quarryd is using mount points. terminating..." in kills(
        machine
    )


# Mounts that are left alone.


def test_boot_partition_is_never_released(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)
    machine.part("sdb2", 4096)
    machine.mount_table(["/dev/sdb1 / ext4", "/dev/sdb /mnt/sdb ext4"])
    machine.made_up_process(1000001, cwd="/mnt/sdb")
    daemon = machine.start()
    pull(machine, daemon)
    assert "killing" not in daemon.stderr()
    assert kills(machine) == []


def test_another_device_at_the_root_is_left_alone(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_table(["/dev/sda1 / ext4", "/dev/sdb / ext4"])
    machine.made_up_process(1000001, cwd="/")
    daemon = machine.start()
    machine.settle()
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    machine.settle()
    assert "killing" not in daemon.stderr()
    assert kills(machine) == []


def test_device_that_is_not_mounted_is_just_forgotten(machine):
    machine.plug("usb", "sdb", 1 << 20)
    os.makedirs("/mnt/sdb")
    os.symlink("sdb", "/mnt/^DATA")
    machine.probe_says("sdb", "DATA", "ext3")
    daemon = machine.start()
    pull(machine, daemon)
    assert "killing" not in daemon.stderr()
    assert os.path.isdir("/mnt/sdb") and os.path.islink("/mnt/^DATA")


# A mount that stays busy.


def test_busy_mount_is_tried_again_after_two_seconds(machine):
    """Whoever holds it is not in the made-up /proc: nobody can be ended."""
    mounted_stick(machine)
    daemon = machine.start()
    machine.troublemaker("holder", "--cwd", "/mnt/sdb1", show=False)
    machine.settle()
    start = time.monotonic()
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    assert time.monotonic() - start > 1.9
    lines = daemon.stderr_lines()
    first = lines.index("killing processes using sdb1 on /mnt/sdb1")
    assert lines[first + 1 : first + 3] == [
        "wait, cannot unmount /mnt/sdb1 " + os.strerror(errno.EBUSY),
        "yep. cannot force unmount /mnt/sdb1",
    ]
    assert os.path.ismount("/mnt/sdb1")


def test_second_attempt_may_succeed(machine):
    mounted_stick(machine)
    daemon = machine.start()
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1", show=False)
    machine.settle()
    machine.unplug("sdb")
    daemon.wait_for("wait, cannot unmount /mnt/sdb1")
    holder.send_signal(signal.SIGUSR1)
    daemon.wait_for("Device sdb just disappeared")
    assert "yep. cannot force unmount" not in daemon.stderr()
    assert not os.path.exists("/mnt/sdb1")


def test_nfsx_neither_ends_processes_nor_tries_again(machine):
    """One attempt; then directory and label link go, as far as they can, regardless."""
    mounted_stick(machine)
    machine.probe_says("sdb1", "DATA", "ext3")
    daemon = machine.start("--nfsx")
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    os.symlink("sdb1", "/mnt/^DATA")
    machine.settle()
    machine.unplug("sdb")
    daemon.wait_for("Device sdb1 just disappeared")
    start = time.monotonic()
    daemon.wait_for("Device sdb just disappeared")
    assert time.monotonic() - start < 2
    assert not ended(holder)
    assert os.path.ismount("/mnt/sdb1")
    assert not os.path.lexists("/mnt/^DATA")
    for text in ("killing", "cannot unmount", "cannot force"):
        assert text not in daemon.stderr()
    assert kills(machine) == []


def test_nfsx_unmounts_what_is_free(machine):
    mounted_stick(machine)
    daemon = machine.start("--nfsx")
    pull(machine, daemon)
    assert not os.path.exists("/mnt/sdb1")


@pytest.mark.parametrize(
    "refuse, text",
    [
        (("clone", errno.EAGAIN, 0, 0xFF, 17), "Cannot fork! " + os.strerror(errno.EAGAIN)),
        (("chdir", errno.EACCES), "Cannot chdir to /proc"),
    ],
    ids=["fork", "chdir"],
)
def test_eviction_that_cannot_be_done(machine, refuse, text):
    """It is reported, and the unmounting goes on."""
    mounted_stick(machine)
    daemon = machine.start(refuse=[refuse])
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    machine.settle()
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    assert text + "\n" in daemon.stderr()
    assert "wait, cannot unmount /mnt/sdb1" in daemon.stderr()
    assert not ended(holder)


def test_proc_that_cannot_be_listed_ends_nobody(machine):
    mounted_stick(machine)
    daemon = machine.start(drop_file_override=True)
    machine.settle()
    os.chmod("/proc", 0o111)
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    assert "Cannot opendir /proc\n" in daemon.stderr()
    assert not os.path.exists("/mnt/sdb1")
    os.chmod("/proc", 0o755)


# The end of the daemon.


def test_everything_is_unmounted_at_the_end(machine):
    """Partitions and drives without partitions, whoever holds them."""
    mounted_stick(machine, "sdb1", "sdb2")
    machine.plug("usb", "sdc", 1 << 20)
    machine.mount_tmpfs("sdc", "/mnt/sdc")
    machine.plug("usb", "sdd", 1 << 20)
    machine.mount_tmpfs("sdd", "/mnt/elsewhere")
    daemon = machine.start()
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb2")
    stopped = machine.troublemaker("holder", "--stop", "--read", "/mnt/sdc")
    machine.stop()
    assert holder.wait(20) == -signal.SIGTERM
    assert stopped.wait(20) == -signal.SIGKILL
    assert os.listdir("/mnt") == []
    order = [line for line in daemon.stderr_lines() if line.startswith("killing")]
    assert order == [
        "killing processes using sdb1 on /mnt/sdb1",
        "killing processes using sdb2 on /mnt/sdb2",
        "killing processes using sdc on /mnt/sdc",
        "killing processes using sdd on /mnt/elsewhere",
    ]


def test_a_drive_with_partitions_is_not_unmounted_itself(machine):
    mounted_stick(machine)
    machine.mount_tmpfs("sdb", "/mnt/sdb")
    machine.start()
    machine.stop()
    assert os.listdir("/mnt") == ["sdb"]
    assert os.path.ismount("/mnt/sdb")


def test_what_was_mounted_in_the_last_moment_is_unmounted(machine):
    """Tables and drives are read once more at the end, in hotplug mode too."""
    machine.real_mounts()
    daemon = machine.start("--hotplug")
    machine.settle()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/mnt/sdb")
    machine.stop()
    assert "Device sdb just appeared (polling)\n" in daemon.stderr()
    assert os.listdir("/mnt") == []


def test_what_is_not_its_own_stays_mounted(machine):
    machine.real_mounts()
    machine.mount_tmpfs("sdx9", "/mnt/sdx9")
    kernel.mount("share", "/mnt", "tmpfs", 0, "mode=755")
    machine.start()
    machine.stop()
    with open("/.proc/self/mounts") as file:
        points = [line.split()[1] for line in file]
    assert points.count("/mnt/sdx9") == 1 and points.count("/mnt") == 1


def test_nfsx_leaves_the_busy_ones_at_the_end(machine):
    mounted_stick(machine, "sdb1", "sdb2")
    machine.start("--nfsx")
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    machine.stop()
    assert not ended(holder)
    assert os.listdir("/mnt") == ["sdb1"]


def test_killed_during_an_eviction_it_leaves_nothing_behind(machine):
    """The child that clears a mount goes with the daemon, and the socket's name is free."""
    mounted_stick(machine)
    daemon = machine.start()
    machine.troublemaker("holder", "--ignore-term", "--cwd", "/mnt/sdb1")
    machine.settle()
    machine.unplug("sdb")
    wait_until(lambda: kills(machine), what="the eviction")
    children = daemon.children()
    assert len(children) == 1
    daemon.kill()
    second = machine.start()
    machine.pass_of_loop()
    assert not os.path.exists(f"/.proc/{children[0]}/exe")
    second.stop()


# Rooms: what only the mount command will ask for, and the scan itself.


def write_modes(machine):
    """A mount with a file for everybody and one that nobody may write, whatever root can do."""
    mounted_stick(machine)
    write("/mnt/sdb1/sealed", "x")
    os.chmod("/mnt/sdb1/sealed", 0o444)
    return machine.room("tables")


@pytest.mark.parametrize(
    "hold, everybody, writers",
    [
        (["--read", "/mnt/sdb1/file"], "yes", "yes"),  # the mode decides, not how it was opened
        (["--write", "/mnt/sdb1/file"], "yes", "yes"),
        (["--read", "/mnt/sdb1/sealed"], "yes", "no"),
        (["--write", "/mnt/sdb1/sealed"], "yes", "no"),  # root writes it all the same
        (["--read", "/mnt/sdb1"], "yes", "yes"),  # a directory has write bits
        (["--cwd", "/mnt/sdb1"], "yes", "no"),
        (["--root", "/mnt/sdb1"], "yes", "no"),
        (["--cwd", "/mnt"], "no", "no"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else value,
)
def test_who_uses_a_path(machine, hold, everybody, writers):
    room = write_modes(machine)
    holder = machine.troublemaker("holder", *hold)
    assert room.ask(f"uses {holder.pid} /mnt/sdb1 all") == everybody
    assert room.ask(f"uses {holder.pid} /mnt/sdb1 writers") == writers
    assert room.ask(f"uses {holder.pid} /mnt/sdb10 all") == "no"
    assert room.ask(f"uses {holder.pid} /mnt/sdb all") == everybody
    assert room.ask("uses 999999 /mnt/sdb1 all") == "no"


def test_writers_alone_are_ended_when_writers_are_asked_for(machine):
    """Who reads a file with write bits goes; who writes one without them stays, and so does a
    working directory."""
    room = write_modes(machine)
    goes = machine.troublemaker("holder", "--read", "/mnt/sdb1/file")
    stays = machine.troublemaker("holder", "--write", "/mnt/sdb1/sealed", "--cwd", "/mnt/sdb1")
    room.ask("evict sdb1 /mnt/sdb1 writers")
    assert goes.wait(20) == -signal.SIGTERM
    sleep(0.2)
    assert not ended(stays)
    room.ask("evict sdb1 /mnt/sdb1 all")
    assert stays.wait(20) == -signal.SIGTERM


def test_the_root_is_never_cleared(machine):
    room = write_modes(machine)
    holder = machine.troublemaker("holder", "--cwd", "/")
    room.ask("evict sdb1 / all")
    sleep(0.2)
    assert not ended(holder)
    assert kills(machine) == []


@pytest.mark.parametrize(
    "made_up, path, answer",
    [
        ({"fds": ["/dev/sdb1"]}, "/dev/sdb", "yes"),
        ({"fds": ["/dev/sdb1"]}, "/dev/sdb1", "yes"),
        ({"fds": ["/dev/sdb1"]}, "/dev/sdb10", "no"),
        ({"fds": ["/dev/sdb (deleted)"]}, "/dev/sdb", "yes"),
        ({"fds": ["socket:[1]", "pipe:[2]", "/mnt/dev/sdb"]}, "/dev/sdb", "no"),
        ({"cwd": "/dev/sdb", "root": "/dev/sdb", "exe": "/dev/sdb"}, "/dev/sdb", "no"),
        ({}, "/dev/sdb", "no"),
    ],
    ids=range(7),
)
def test_whether_a_device_is_in_use(machine, made_up, path, answer):
    machine.made_up_process(1000001, **made_up)
    assert machine.room().ask(f"in-use {path}") == answer


def test_processes_without_readable_files_use_nothing(machine):
    machine.made_up_process(1000001, cwd="/mnt/sdb1")
    os.rmdir("/proc/1000001/fd")
    machine.made_up_process(1000002, fds=["/mnt/sdb1/x"])
    os.chmod("/proc/1000002/fd", 0)
    room = machine.room(drop_file_override=True)
    assert room.ask("uses 1000001 /mnt/sdb1 writers") == "no"
    assert room.ask("uses 1000001 /mnt/sdb1 all") == "yes"
    assert room.ask("uses 1000002 /mnt/sdb1 all") == "no"
    assert room.ask("in-use /mnt/sdb1") == "no"


def test_names_that_do_not_fit_are_compared_as_far_as_they_were_read(machine):
    """511 bytes of a link for the eviction, 255 for the question whether a device is in use."""
    long = "/mnt/" + "x" * 600
    machine.made_up_process(1000001, fds=[long])
    room = machine.room()
    assert room.ask(f"uses 1000001 {long[:511]} all") == "yes"
    assert room.ask(f"uses 1000001 {long[:512]} all") == "no"
    assert room.ask(f"in-use {long[:255]}") == "yes"
    assert room.ask(f"in-use {long[:256]}") == "no"


def test_forced_unmount_of_the_boot_device_does_nothing(machine):
    mounted_stick(machine, "sdb1", "sdb2")
    room = machine.room("tables", "set boot_partition sdb1", "set boot_drive sdb2")
    for name in ("sdb1", "sdb2", "sdb3", ""):
        room.ask(f"force-unmount {name}")
        room.ask(f"release {name}")
    assert sorted(os.listdir("/mnt")) == ["sdb1", "sdb2"]
    assert room.stderr() == ""


def test_forced_unmount_reads_the_table_again(machine):
    """The release goes by the table as last read, the unmounting itself by a new one."""
    mounted_stick(machine)
    room = machine.room("tables")
    kernel.umount("/mnt/sdb1")
    room.ask("release sdb1")
    assert room.stderr() == ""
    assert os.path.isdir("/mnt/sdb1")
    machine.mount_tmpfs("sdb1", "/mnt/sdb1")
    room.ask("release sdb1")  # not in the table that was read in between
    assert os.path.ismount("/mnt/sdb1")
    room.ask("force-unmount sdb1")
    assert not os.path.exists("/mnt/sdb1")


@pytest.mark.parametrize(
    "number, reported", [(errno.EINVAL, False), (errno.ENOENT, False), (errno.EPERM, True)]
)
def test_swap_file_on_the_main_partition_is_switched_off_first(machine, number, reported):
    mounted_stick(machine)
    room = machine.room(
        "tables",
        "set main_partition sdb1",
        "set swap_name swap.img",
        "set swap_path /mnt/sdb1/swap.img",
        refuse=[("swapoff", number)],
    )
    room.ask("force-unmount sdb1")
    line = (
        "Unable to remove swapfile /mnt/sdb1/swap.img, "
        f"{os.strerror(number)}. this may hamper unmount!\n"
    )
    assert (line in room.stderr()) == reported
    assert not os.path.exists("/mnt/sdb1")
