"""Loading modules and running driver programs: the commands to the letter, and what becomes of a
mount when they fail, die or cannot be started."""

import errno
import os
import time

import pytest

from machine import stand_ins
from machine.clients import wait_until
from machine.drives import write
from machine.machine import sleep
from machine.traces import own_calls, traced

MOUNTED = "OK mount succeeded\n\n"
FAILED = "ERR mount failed\n"
EXFAT = "/usr/sbin/mount.exfat"
NTFS = "/usr/bin/ntfs-3g"
LOCALE = "-o locale=en_EN.UTF-8,gid=99,uid=99"


def stick(machine, filesystem, types=()):
    """A stick, a made-up mount table, and a kernel that knows those types."""
    stand_ins.install(machine)
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)
    machine.probe_says("sdb1", "DATA", filesystem)
    write("/proc/filesystems", "nodev\tproc\n" + "".join(f"\t{name}\n" for name in types))


def ask(machine, request="mount rw sdb1"):
    with machine.connect(timeout=30) as client:
        return client.ask(request)


def timed(machine, request="mount rw sdb1"):
    start = time.monotonic()
    reply = ask(machine, request)
    return reply, time.monotonic() - start


def said(daemon, *beginnings):
    return [line for line in daemon.stderr_lines() if line.startswith(beginnings)]


def warning(name):
    return f"Warning: Don't know how to modprobe for '{name}'"


# Modules.

LOADABLE = {"hfs": "hfs", "hfs+": "hfsplus", "fat": "vfat", "xfs": "xfs", "btrfs": "btrfs"}


@pytest.mark.parametrize("known, name", LOADABLE.items())
def test_a_missing_type_is_loaded_and_waited_for(machine, known, name):
    """The module lists its type a while after the command: the wait is long enough for that."""
    stick(machine, known)
    daemon = machine.start("--hotplug", refuse=[("mount", errno.EINVAL)])
    stand_ins.stand_in(
        machine,
        "/usr/sbin/modprobe",
        f'(sleep 0.6; echo "\t{name}" >> /proc/filesystems) > /dev/null 2>&1 &\n',
    )
    reply, took = timed(machine, "mount ro sdb1")
    assert reply == FAILED
    assert 1.25 <= took < 6
    assert stand_ins.calls() == [f"/usr/sbin/modprobe {name}"]
    assert said(daemon, "Warning", "Trying") == [
        f"Trying kernel driver /dev/sdb1 -> {name} (known fs '{known}')"
    ]


def test_a_type_that_stays_missing_is_passed_over(machine):
    stick(machine, "xfs")
    daemon = machine.start("--hotplug")
    reply, took = timed(machine)
    assert reply == FAILED
    assert 1.25 <= took < 6
    assert stand_ins.calls() == ["/usr/sbin/modprobe xfs"]
    assert said(daemon, "Warning", "Trying", "Asked") == []


def test_the_loaders_exit_status_is_not_looked_at(machine):
    """What counts is whether the kernel knows the type afterwards."""
    stick(machine, "btrfs")
    daemon = machine.start("--hotplug", refuse=[("mount", errno.EINVAL)])
    stand_ins.stand_in(
        machine, "/usr/sbin/modprobe", 'echo "\tbtrfs" >> /proc/filesystems\nexit 1\n'
    )
    assert ask(machine) == FAILED
    assert said(daemon, "Trying") == ["Trying kernel driver /dev/sdb1 -> btrfs (known fs 'btrfs')"]


def test_without_a_loader_the_second_is_waited_all_the_same(machine):
    stick(machine, "xfs")
    daemon = machine.start("--hotplug")
    os.unlink("/usr/sbin/modprobe")
    reply, took = timed(machine)
    assert reply == FAILED
    assert took >= 1.25
    assert daemon.is_running()


@pytest.mark.parametrize(
    "known, names",
    [
        ("ext4", ["ext4", "ext3", "ext2"]),
        ("udf", ["udf"]),
        ("iso9660", ["iso9660"]),
        ("ntfs", ["ntfs"]),
    ],
)
def test_nobody_knows_how_to_load_the_others(machine, known, names):
    stick(machine, known)
    daemon = machine.start("--hotplug")
    assert ask(machine, "mount ro sdb1") == FAILED
    assert said(daemon, "Warning", "Trying") == [warning(name) for name in names]
    assert stand_ins.calls() == []


def test_the_list_of_types_is_read_again_even_where_nothing_was_loaded(machine):
    """What has come since the last reading is found: here while the scripts ran."""
    stick(machine, "ext4", types=())
    machine.script("/var/quarryd/mount-notify/late", 'echo "\text3" >> /proc/filesystems')
    daemon = machine.start("--hotplug", refuse=[("mount", errno.EINVAL)])
    assert ask(machine) == FAILED
    assert said(daemon, "Warning", "Trying") == [
        warning("ext4"),
        "Trying kernel driver /dev/sdb1 -> ext3 (known fs 'ext4')",
        warning("ext2"),
    ]


def test_a_loader_for_reiserfs_is_not_known_and_the_list_is_read_again(machine):
    """The last candidates of an unknown file system: a type that came since then is tried."""
    kernel_types = "ext4 ext3 ext2 udf xfs hfsplus hfs iso9660 vfat ntfs btrfs".split()
    stick(machine, None, types=kernel_types)
    machine.script("/var/quarryd/mount-notify/late", 'echo "\treiserfs" >> /proc/filesystems')
    daemon = machine.start("--hotplug", refuse=[("mount", errno.EINVAL)])
    assert ask(machine, "mount ro sdb1") == FAILED
    lines = said(daemon, "Warning", "Trying")
    assert lines[-3:] == [
        warning("reiserfs"),
        "Trying kernel driver /dev/sdb1 -> reiserfs (known fs ' ')",
        "Trying kernel driver /dev/sdb1 -> btrfs (known fs ' ')",
    ]


@pytest.mark.seconds(60)
def test_an_unknown_filesystem_loads_everything_that_can_be_loaded(machine):
    """In the order of the candidates; the drivers that are programs load fuse, and wait for
    nothing."""
    stick(machine, None)
    daemon = machine.start("--hotplug")
    reply, took = timed(machine)
    assert reply == FAILED
    assert 5 * 1.25 <= took < 14
    names = ["xfs", "hfsplus", "hfs", "vfat", "fuse", "fuse", "btrfs"]
    assert stand_ins.calls() == [f"/usr/sbin/modprobe {name}" for name in names]
    assert said(daemon, "Warning") == [
        warning(name) for name in ("ext4", "ext3", "ext2", "udf", "iso9660", "ntfs", "reiserfs")
    ]


# Driver programs.


@pytest.mark.parametrize(
    "known, mode, path, called",
    [
        ("exfat", "rw", EXFAT, f"/sbin/mount.exfat {LOCALE} /dev/sdb1 /mnt/sdb1"),
        ("exfat", "ro", EXFAT, f"/sbin/mount.exfat -o ro {LOCALE} /dev/sdb1 /mnt/sdb1"),
        ("exfat", "rudero", EXFAT, f"/sbin/mount.exfat -o ro {LOCALE} /dev/sdb1 /mnt/sdb1"),
        ("ntfs", "rw", NTFS, f"/bin/ntfs-3g {LOCALE} /dev/sdb1 /mnt/sdb1"),
    ],
)
def test_what_a_driver_program_is_told(machine, known, mode, path, called):
    stick(machine, known)
    stand_ins.driver_lists(machine, options="rw" if mode == "rw" else "ro", path=path)
    daemon = machine.start("--hotplug")
    assert ask(machine, f"mount {mode} sdb1") == MOUNTED
    assert stand_ins.calls()[:2] == ["/usr/sbin/modprobe fuse", called]
    name = path.rsplit("/", 1)[1]
    assert said(daemon, "Trying", "Attempting") == [
        f"Trying FUSE driver *{name}",
        f"Attempting FUSE driver {name}",
    ]


def test_the_words_of_a_driver_program_are_words(machine):
    """Six of them behind its own path, each as one argument."""
    stick(machine, "exfat")
    stand_ins.driver_lists(machine, options="ro")
    daemon = machine.start("--hotplug", trace=traced(calls="execve"))
    assert ask(machine, "mount ro sdb1") == MOUNTED
    assert any(
        'execve("/sbin/mount.exfat", ["/sbin/mount.exfat", "-o", "ro", "-o", '
        '"locale=en_EN.UTF-8,gid=99,uid=99", "/dev/sdb1", "/mnt/sdb1"],' in line
        for line in daemon.trace()
    )


def test_without_mount_exfat_its_other_name_is_run(machine):
    """mount.exfat-fuse, with the same words; mount.exfat is looked for first."""
    stick(machine, "exfat")
    stand_ins.driver_lists(machine, path="/usr/sbin/mount.exfat-fuse")
    daemon = machine.start("--hotplug", trace=traced(calls="execve"))
    assert ask(machine) == MOUNTED
    assert stand_ins.calls("mount.exfat-fuse") == [
        f"/sbin/mount.exfat-fuse {LOCALE} /dev/sdb1 /mnt/sdb1"
    ]
    tried = [line.split("execve(")[1] for line in daemon.trace() if "/sbin/mount.ex" in line]
    assert [call.split(",")[0] for call in tried] == [
        '"/sbin/mount.exfat"',
        '"/sbin/mount.exfat-fuse"',
    ]


def test_mount_exfat_that_cannot_be_executed_leaves_the_turn_to_the_other(machine):
    stick(machine, "exfat")
    stand_ins.driver_lists(machine)
    os.chmod(EXFAT, 0o644)
    stand_ins.driver_lists(machine, path="/usr/sbin/mount.exfat-fuse")
    machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert len(stand_ins.calls("mount.exfat")) == 0


def test_where_mount_exfat_fails_the_other_is_not_asked(machine):
    stick(machine, "exfat")
    stand_ins.stand_in(machine, EXFAT, "exit 1\n")
    stand_ins.driver_lists(machine, path="/usr/sbin/mount.exfat-fuse")
    machine.start("--hotplug")
    assert ask(machine) == FAILED
    assert stand_ins.calls("exfat-fuse") == []


def test_without_any_program_the_driver_has_failed(machine):
    stick(machine, "exfat")
    daemon = machine.start("--hotplug")
    assert ask(machine) == FAILED
    machine.probe_says("sdb", "NT", "ntfs")
    assert ask(machine, "mount rw sdb") == FAILED
    for name in ("mount.exfat", "ntfs-3g"):
        assert f"{name}: failed status 1\n" in daemon.stderr()
    assert daemon.children() == []


@pytest.mark.parametrize(
    "known, path, name", [("exfat", EXFAT, "mount.exfat"), ("ntfs", NTFS, "ntfs-3g")]
)
@pytest.mark.parametrize("status", [1, 14, 255])
def test_a_driver_program_that_fails(machine, known, path, name, status):
    """Its status is told, and it is gone; for ntfs the kernel's own driver is next."""
    stick(machine, known, types=("ntfs",))
    stand_ins.stand_in(machine, path, f"exit {status}\n")
    daemon = machine.start("--hotplug", refuse=[("mount", errno.EINVAL)])
    assert ask(machine) == FAILED
    assert said(daemon, name) == [f"{name}: failed status {status}"]
    trying = said(daemon, "Trying")
    assert len(trying) == (2 if known == "ntfs" else 1)
    assert daemon.children() == []


def test_a_driver_program_that_is_killed_has_failed(machine):
    """No mount is waited for that nobody will make."""
    stick(machine, "exfat")
    stand_ins.stand_in(machine, EXFAT, "kill -KILL $$\n")
    daemon = machine.start("--hotplug")
    reply, took = timed(machine)
    assert reply == FAILED
    assert took < 10  # eleven seconds would be the wait for it
    assert said(daemon, "mount.exfat:") == ["mount.exfat: failed status 137"]


def test_the_driver_is_not_the_child_that_a_signal_after_its_end_could_meet(machine):
    """It is reaped before SIGTERM is sent to its number: nobody has that number then."""
    stick(machine, "exfat")
    stand_ins.stand_in(machine, EXFAT, "exit 3\n")
    daemon = machine.start("--hotplug", trace=traced(calls="kill,wait4"))
    assert ask(machine) == FAILED
    sent = [call for call in own_calls(daemon, "kill") if "SIGTERM" in call]
    assert len(sent) == 1
    assert "ESRCH" in sent[0]


def test_a_driver_that_cannot_be_forked(machine):
    """The probe and the loader have had their children; the driver gets none."""
    stick(machine, "exfat")
    stand_ins.driver_lists(machine)
    daemon = machine.start("--hotplug", trace=traced("clone:error=EAGAIN:when=3", calls="clone"))
    assert ask(machine) == FAILED
    assert said(daemon, "Attempting", "mount.exfat") == [
        "Attempting FUSE driver mount.exfat",
        "mount.exfat: failure to fork",
    ]
    assert stand_ins.calls() == ["/usr/sbin/modprobe fuse"]
    assert ask(machine) == MOUNTED


def test_ntfs_3g_that_cannot_be_forked_leaves_the_turn_to_the_kernel(machine):
    stick(machine, "ntfs", types=("ntfs",))
    stand_ins.driver_lists(machine, path=NTFS)
    daemon = machine.start(
        "--hotplug",
        trace=traced("clone:error=EAGAIN:when=3", "mount:error=EIO", calls="clone,mount"),
    )
    assert ask(machine) == FAILED
    assert said(daemon, "ntfs-3g", "Asked") == [
        "ntfs-3g: failure to fork",
        "Asked to mount sdb1 at /mnt/sdb1, as ntfs failed: Input/output error",
    ]


def test_a_loader_that_cannot_be_forked_is_no_matter(machine):
    stick(machine, "exfat")
    stand_ins.driver_lists(machine)
    machine.start("--hotplug", trace=traced("clone:error=EAGAIN:when=2", calls="clone"))
    assert ask(machine) == MOUNTED
    assert "/usr/sbin/modprobe fuse" not in stand_ins.calls()


def test_a_child_that_cannot_become_a_driver_lives_no_second_life_as_the_daemon(machine):
    """It ends with status 1 where the program is there and cannot be executed."""
    stick(machine, "exfat")
    stand_ins.driver_lists(machine)
    os.chmod(EXFAT, 0o644)
    daemon = machine.start("--hotplug")
    assert ask(machine) == FAILED
    assert said(daemon, "mount.exfat") == ["mount.exfat: failed status 1"]
    programs = [
        os.readlink(f"/.proc/{entry}/exe")
        for entry in os.listdir("/.proc")
        if entry.isdigit() and os.path.exists(f"/.proc/{entry}/exe")
    ]
    assert sum(program.endswith("quarryd") for program in programs) == 1


def test_a_driver_program_has_all_the_time_in_the_world(machine):
    """There is no limit: who waits for it waits."""
    stick(machine, "exfat")
    stand_ins.driver_lists(machine)
    with open(EXFAT) as file:
        text = file.read()
    machine.script(EXFAT, text.replace("#!/bin/sh\n", "#!/bin/sh\nsleep 4\n"))
    machine.start("--hotplug")
    reply, took = timed(machine)
    assert reply == MOUNTED
    assert took >= 4


@pytest.mark.parametrize("mode", ["ro", "rw"])
def test_what_a_driver_mounts_is_made_nosuid_and_nodev(machine, mode):
    """Whatever the program made of it: nobody becomes root by a stick."""
    stand_ins.exfat_stick(machine)
    daemon = machine.start("--hotplug", trace=traced(calls="mount,mount_setattr"))
    assert ask(machine, f"mount {mode} sdb1") == MOUNTED
    assert {mode, "nosuid", "nodev"} <= set(stand_ins.mount_options("/mnt/sdb1"))
    first = own_calls(daemon, "mount_setattr")[0]
    assert "attr_set=MOUNT_ATTR_NOSUID|MOUNT_ATTR_NODEV, attr_clr=0," in first
    assert own_calls(daemon, "mount") == []


def test_what_a_driver_mounts_late_is_made_nosuid_and_nodev_too(machine):
    """A moment after its own end, when the table shows it; the remount for ACLs included."""
    stand_ins.exfat_stick(machine)
    real = f"{stand_ins.REAL_MOUNT} -t tmpfs -o mode=755 /dev/sdb1 /mnt/sdb1"
    stand_ins.stand_in(machine, EXFAT, f"(sleep 0.5; {real}) > /dev/null 2>&1 &\n")
    stand_ins.stand_in(
        machine,
        "/usr/bin/mount",
        f"exec {stand_ins.REAL_MOUNT} -i -o remount,suid,dev,rw /mnt/sdb1\n",
    )
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert {"rw", "nosuid", "nodev"} <= set(stand_ins.mount_options("/mnt/sdb1"))
    assert "Cannot protect" not in daemon.stderr()


def test_a_driver_that_mounts_read_write_against_its_orders_is_told_of(machine):
    """Only the protecting flags are added: the reply tells what the driver did, and it stays so.
    What the driver forbids beyond them stays forbidden."""
    stand_ins.exfat_stick(machine)
    real = f"{stand_ins.REAL_MOUNT} -t tmpfs -o mode=755,rw,noexec /dev/sdb1 /mnt/sdb1"
    stand_ins.stand_in(machine, EXFAT, f"exec {real}\n")
    machine.start("--hotplug")
    assert ask(machine, "mount ro sdb1") == (
        "OK- mount succeeded\nOK warning: for some bizarre reason your mount r/o request has been "
        "granted as r/w\n"
    )
    options = set(stand_ins.mount_options("/mnt/sdb1"))
    assert {"rw", "nosuid", "nodev", "noexec"} <= options


def test_a_driver_that_stays_in_the_background_is_no_child_of_the_daemon(machine):
    """As a real one does: the foreground ends when the mount is there."""
    stand_ins.exfat_stick(machine)
    stand_ins.driver_mounts(machine, text="(sleep 5) > /dev/null 2>&1 &\n")
    daemon = machine.start("--hotplug")
    reply, took = timed(machine)
    assert reply == MOUNTED
    assert took < 4
    sleep(0.2)
    assert daemon.children() == []
    assert ask(machine, "umount sdb1") == "OK unmount succeeded\n"


def test_a_driver_gets_the_daemons_environment_and_none_of_its_sockets(machine):
    stick(machine, "exfat")
    stand_ins.driver_lists(machine)
    with open(EXFAT) as file:
        text = file.read()
    notes = (
        "readlink /.proc/$$/fd/* > /run/open\n"
        "cat /.proc/$$/environ > /run/environment\n"
        "grep -E 'Sig(Ign|Blk):' /.proc/self/status > /run/signals\n"
    )
    machine.script(EXFAT, text.replace("#!/bin/sh\n", "#!/bin/sh\n" + notes))
    daemon = machine.start("--hotplug")
    clients = [machine.connect() for _ in range(5)]
    machine.pass_of_loop()
    assert ask(machine) == MOUNTED
    with open("/run/open") as file:
        opened = file.read().splitlines()
    # The standard streams are the daemon's own, for its words; the rest is the shell's script.
    assert "/dev/null" in opened and not [name for name in opened if "socket" in name]
    with open(f"/.proc/{daemon.pid}/environ", "rb") as file, open("/run/environment", "rb") as own:
        assert own.read() == file.read()
    with open("/run/signals") as file:
        assert {line.split()[1] for line in file} == {"0" * 16}
    assert len(clients) == 5


def test_sigterm_while_a_module_is_loaded_waits_for_the_loader(machine):
    """Then the command comes to its end, and the daemon to its own."""
    stick(machine, "xfs")
    daemon = machine.start("--hotplug")
    stand_ins.stand_in(machine, "/usr/sbin/modprobe", "sleep 1; touch /run/loaded\n")
    client = machine.connect()
    client.send("mount rw sdb1\n")
    wait_until(lambda: stand_ins.calls("modprobe"))
    daemon.stop()
    assert os.path.exists("/run/loaded")
