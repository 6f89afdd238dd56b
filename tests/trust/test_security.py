"""What an attacker tries, and what happens: docs/security.md has the table, with the test that
shows each row. Most of them are in the sandbox's ring; here are the rest, and the table's own
check.

Where two must meet in the middle of what the daemon does, nothing is left to luck: strace stops the
daemon behind the call that looked, the other one acts, and then the daemon goes on."""

import ast
import contextlib
import errno
import itertools
import os
import re
import signal
import struct

import pytest

from machine import kernel, stand_ins
from machine.client import asked_for_json
from machine.clients import acting_as, wait_until
from machine.drives import write
from machine.evictions import kills, terminating
from machine.machine import USERS, state_of
from machine.traces import own_calls

MIB = 1 << 20
MOUNTED = "OK mount succeeded\n\n"
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


# A daemon that stops behind a call.


def stopping(call, path, when=1):
    """Keys for machine.start: the daemon stops when it has made that call about that path."""
    return {
        "trace": ["-P", path, "-e", f"trace={call}"]
        + ["-e", f"inject={call}:signal=SIGSTOP:when={when}"]
    }


def wait_for_the_stop(daemon):
    wait_until(
        lambda: any("stopped by SIGSTOP" in line for line in daemon.trace()),
        what=lambda: "\n".join(daemon.trace()),
    )


def go_on(daemon):
    os.kill(daemon.pid, signal.SIGCONT)


def denied_to(user, *attempts):
    """Each of the attempts of that user is refused by the kernel."""
    for attempt in attempts:
        with acting_as(USERS[user]), pytest.raises(PermissionError):
            attempt()


# Words of a client.

PATHS = ["../etc", "sdb/../sda", "/dev/../etc/passwd", "/dev/", "/dev//sdb1", ".", "..", "", "^.."]


@pytest.mark.parametrize("word", PATHS + ["sdb1\t", "%s%n", "\x1b[2Jsdb1", "*", "$(id)"])
def test_a_word_that_is_no_known_device_leads_nowhere(machine, word):
    """The registry is asked for the very word: no path is made of what it does not know."""
    stand_ins.exfat_stick(machine)
    daemon = machine.start("--hotplug")
    for user in ("guest", "root"):
        for request in ("mount rw", "mount rudeoff", "umount", "eject", "retract"):
            reply = machine.ask(f'{request} "{word}"', user)
            assert re.fullmatch(
                "ERR (Label not found|device does not exist or is not maintained by this service)",
                reply.strip(),
            )
    assert os.listdir("/mnt") == []
    assert daemon.is_running()


def test_a_zero_byte_behind_a_name_opens_no_door(machine):
    """The main partition's name with a zero byte is another name to the rules for it, and no name
    at all where something would be done."""
    machine.plug("usb", "sdb", MIB)
    machine.part("sdb1", 65536)
    machine.real_mounts()
    machine.mount_tmpfs("sdb1", "/mnt/sdb1")
    write("/mnt/sdb1/.claimsig", "SIG\n")
    machine.configure("main partition signature=SIG\n")
    daemon = machine.start("--hotplug")
    daemon.wait_for("Found main partition")
    before = stand_ins.mount_options("/mnt/sdb1")
    for request in ("mount off", "mount rudeoff", "mount ro", "mount rw", "umount"):
        reply = machine.ask(f"{request} sdb1\0", "guest")
        assert reply in ("OK its not mounted anyway\n", "ERR failed to lookup device\n")
    assert machine.ask("eject sdb\0", "guest") == "ERR no such device\n"
    assert stand_ins.mount_options("/mnt/sdb1") == before
    assert "Main" in machine.ask("list")


def test_the_boot_and_the_main_device_are_roots(machine):
    """However others ask, nothing is done: no mount is touched and nobody driven out. Then root
    asks."""
    stand_ins.install(machine)
    for drive in ("sda", "sdb"):
        machine.plug("sata", drive, MIB)
        machine.part(f"{drive}1", 4096)
    machine.mount_tmpfs("sdb1", "/mnt/sdb1")
    machine.mount_table(["/dev/sda1 / ext4 ro,relatime", "/dev/sdb1 /mnt/sdb1 ext4"])
    machine.probe_says("sda1", "BOOT", "ext4")
    machine.probe_says("sdb1", "MAIN", "ext4")
    machine.configure("main partition label = MAIN\n")
    daemon = machine.start("--hotplug", trace=["-e", "trace=mount,umount2"])
    daemon.wait_for("Found main partition on sdb part sdb1")
    machine.made_up_process(1000001, cwd="/mnt/sdb1")
    modes = ["mount ro", "mount rw", "mount off", "mount rudero", "mount rudeoff", "umount"]

    def deeds():
        return own_calls(daemon, "mount") + own_calls(daemon, "umount2")

    before = deeds()
    for user, mode in itertools.product(("guest", "nobody", "schedule"), modes):
        for device in ("sda1", "/dev/sda1", "^BOOT", "sdb1", "/dev/sdb1", "^MAIN", "sda", "sdb"):
            reply = machine.ask(f"{mode} {device}", user)
            if user == "schedule":
                assert reply == "ERR schedule items are not allowed to manipulate mount points\n"
            elif device in ("sda", "sdb"):
                assert reply.startswith("ERR please operate on ")
            else:
                assert reply == "ERR authorization required\n"
    assert deeds() == before
    assert kills(machine) == []
    machine.ask("mount rudeoff sdb1")
    assert 'umount2("/mnt/sdb1", 0)' in deeds()[len(before)]
    assert len(kills(machine)) == 2


def test_the_words_of_a_request_are_no_format(machine):
    daemon = machine.start("--hotplug")
    machine.plug("usb", "sdb", MIB)
    assert machine.ask('mount rw "^%n%s%999999d"', "guest") == "ERR Label not found\n"
    assert "Scanning devices to locate drive labelled '%n%s%999999d'\n" in daemon.stderr()
    assert machine.ask("notify %s%n /block/%n%s") == "OK thank you\n"
    assert "Notify %s%n %n%s parent %n%s\n" in daemon.stderr()


# Races below /mnt.


def test_the_place_of_a_mount_is_no_users_to_change(machine):
    """Between the look at the mount point and the mount."""
    stand_ins.exfat_stick(machine)
    daemon = machine.start("--hotplug", **stopping("newfstatat", "/mnt/sdb1"))
    with machine.connect("guest") as client:
        client.send("mount rw sdb1\n")
        wait_for_the_stop(daemon)
        denied_to(
            "guest",
            lambda: os.rmdir("/mnt/sdb1"),
            lambda: os.rename("/mnt/sdb1", "/mnt/sdb2"),
            lambda: os.symlink("/etc", "/mnt/^DATA"),
            lambda: os.mkdir("/mnt/sdc1"),
        )
        go_on(daemon)
        assert client.reply() == MOUNTED
    assert {"nosuid", "nodev"} <= set(stand_ins.mount_options("/mnt/sdb1"))
    assert os.readlink("/mnt/^DATA") == "sdb1"


@pytest.mark.parametrize("instead", ["a link to elsewhere", "a full directory", "nothing"])
def test_a_label_link_that_is_swapped_takes_nothing_else_along(machine, instead):
    """Between the reading of the link and its removal."""
    stand_ins.exfat_stick(machine)
    write("/root/precious/file", "kept")
    daemon = machine.start("--hotplug", **stopping("readlink", "/mnt/^DATA"))
    assert machine.ask("mount rw sdb1") == MOUNTED
    with machine.connect() as client:
        client.send("umount sdb1\n")
        wait_for_the_stop(daemon)
        os.unlink("/mnt/^DATA")
        if instead == "a link to elsewhere":
            os.symlink("/root/precious/file", "/mnt/^DATA")
        elif instead == "a full directory":
            write("/mnt/^DATA/file", "kept")
        go_on(daemon)
        assert client.reply() == "OK unmount succeeded\n"
    with open("/root/precious/file") as file:
        assert file.read() == "kept"
    assert os.path.exists("/mnt/^DATA/file") == (instead == "a full directory")


@pytest.mark.parametrize("instead", ["a link to a directory", "a file", "a fresh mount"])
def test_a_stale_directory_that_is_swapped_takes_nothing_else_along(machine, instead):
    """Between the look at its age and its removal."""
    os.mkdir("/root/empty")
    os.mkdir("/mnt/stale")
    os.utime("/mnt/stale", (1, 1))
    machine.real_mounts()
    daemon = machine.start("--hotplug", **stopping("statx", "stale"))
    wait_for_the_stop(daemon)
    if instead == "a fresh mount":
        kernel.mount("tmpfs", "/mnt/stale", "tmpfs")
    else:
        os.rmdir("/mnt/stale")
        if instead == "a file":
            write("/mnt/stale", "kept")
        else:
            os.symlink("/root/empty", "/mnt/stale")
    go_on(daemon)
    machine.pass_of_loop()
    assert os.path.isdir("/root/empty")
    assert os.path.exists("/mnt/stale")


# Races on a mount.

OWN_FLAGS = kernel.MS_NOSUID | kernel.MS_NODEV


def users_stick(machine, flags=OWN_FLAGS):
    """A mounted drive whose root belongs to a user."""
    machine.plug("usb", "sdb", MIB)
    machine.part("sdb1", 65536)
    machine.real_mounts()
    os.mkdir("/mnt/sdb1")
    kernel.mount("/dev/sdb1", "/mnt/sdb1", "tmpfs", flags, "mode=755,uid=1000")


@contextlib.contextmanager
def strangers_mount(name="mine"):
    """What a user's fusermount puts on the root of his drive; it goes at the end."""
    fuse = os.open("/dev/fuse", os.O_RDWR)
    words = f"fd={fuse},rootmode=40000,user_id=1000,group_id=1000"
    kernel.mount(name, "/mnt/sdb1", "fuse", OWN_FLAGS, words)
    try:
        yield
    finally:
        if len(mounts_at("/mnt/sdb1")) > 1:
            kernel.umount("/mnt/sdb1", kernel.MNT_DETACH)
        os.close(fuse)


def mounts_at(point):
    """(type, options) of all that is mounted there, from below."""
    with open("/.proc/self/mounts") as file:
        rows = [line.split() for line in file]
    return [(fields[2], set(fields[3].split(","))) for fields in rows if fields[1] == point]


def changing(options):
    """What a remount may change."""
    return options & {"ro", "rw", "nosuid", "nodev"}


@pytest.mark.parametrize(
    "name", ["mine", "/dev/sdb1", "m" * 600], ids=["his", "the drive's", "long"]
)
@pytest.mark.parametrize("flags", [0, OWN_FLAGS], ids=["bare", "protected"])
def test_a_strangers_mount_on_a_drive_is_not_remounted_for_it(machine, name, flags):
    """A remount takes nosuid and nodev from whatever is on top."""
    users_stick(machine, flags)
    daemon = machine.start("--hotplug")
    with strangers_mount(name):
        before = mounts_at("/mnt/sdb1")
        assert machine.ask("mount ro sdb1", "guest") == "ERR cannot remount\n"
        assert mounts_at("/mnt/sdb1") == before
    assert "Cannot remount sdb1 Device or resource busy\n" in daemon.stderr()


@pytest.mark.parametrize("flags", [0, OWN_FLAGS], ids=["bare", "protected"])
def test_a_strangers_mount_that_comes_before_the_remount_gets_its_flags_back(machine, flags):
    """Between the look at the table and the remount, which then is his."""
    users_stick(machine, flags)
    delayed = ["-e", "trace=mount", "-e", "inject=mount:delay_enter=1500000:when=1"]
    daemon = machine.start("--hotplug", trace=delayed)
    with machine.connect("guest") as client:
        client.send("mount ro sdb1\n")
        wait_until(lambda: daemon.current_call() == kernel.SYSCALLS["mount"], what="the remount")
        with strangers_mount():
            client.reply()
            (_, own), (kind, his) = mounts_at("/mnt/sdb1")
    assert kind == "fuse" and {"nosuid", "nodev"} <= his
    assert changing(own) == {"rw"} | ({"nosuid", "nodev"} if flags else set())


def test_a_strangers_mount_that_comes_after_the_remount_keeps_no_flags_from_the_drive(machine):
    """Between the remount and the giving back of the flags: the drive's mount gets them below."""
    users_stick(machine)
    stopped = ["-e", "trace=mount,umount2", "-e", "inject=mount:signal=SIGSTOP:when=1"]
    daemon = machine.start("--hotplug", trace=stopped)
    with machine.connect("guest") as client:
        client.send("mount ro sdb1\n")
        wait_for_the_stop(daemon)
        assert changing(mounts_at("/mnt/sdb1")[0][1]) == {"ro"}
        with strangers_mount():
            go_on(daemon)
            assert client.reply() == "OK remounted as r/o\n"
            (_, own), (kind, his) = mounts_at("/mnt/sdb1")
            assert changing(own) == {"ro", "nosuid", "nodev"}
            assert kind == "fuse" and changing(his) == {"rw", "nosuid", "nodev"}
    assert own_calls(daemon, "umount2") == []
    assert "Cannot protect" not in daemon.stderr()


def test_a_mount_of_roots_that_comes_after_the_remount_is_left_alone(machine):
    """And keeps no flags from the drive's mount below it."""
    users_stick(machine)
    stopped = ["-e", "trace=mount", "-e", "inject=mount:signal=SIGSTOP:when=1"]
    daemon = machine.start("--hotplug", trace=stopped)
    with machine.connect("guest") as client:
        client.send("mount ro sdb1\n")
        wait_for_the_stop(daemon)
        kernel.mount("roots", "/mnt/sdb1", "tmpfs", kernel.MS_NOEXEC, "mode=755")
        roots = mounts_at("/mnt/sdb1")[1]
        go_on(daemon)
        assert client.reply() == "OK remounted as r/o\n"
    assert mounts_at("/mnt/sdb1")[1] == roots
    assert changing(mounts_at("/mnt/sdb1")[0][1]) == {"ro", "nosuid", "nodev"}
    kernel.umount("/mnt/sdb1")


def test_a_strangers_mount_that_is_gone_before_the_remount_is_not_held_for_the_drives(machine):
    """Between the opening of the mount point and the look at the table: the flags would be given
    back to his."""
    users_stick(machine)
    daemon = machine.start("--hotplug", **stopping("openat", "/mnt/sdb1"))
    before = mounts_at("/mnt/sdb1")
    with machine.connect("guest") as client, strangers_mount():
        client.send("mount ro sdb1\n")
        wait_for_the_stop(daemon)
        kernel.umount("/mnt/sdb1", kernel.MNT_DETACH)
        go_on(daemon)
        assert client.reply() == "ERR cannot remount\n"
    assert mounts_at("/mnt/sdb1") == before


@pytest.mark.parametrize("number", [errno.ENOSYS, errno.EPERM])
def test_a_kernel_without_mount_setattr_gives_the_flags_back_too(machine, number):
    """An older one, or one that is asked from a container: to the same mount, whatever lies on it
    by then."""
    users_stick(machine)
    stopped = ["-e", "trace=mount", "-e", "inject=mount:signal=SIGSTOP:when=3"]
    refusal = [("mount_setattr", number)]
    daemon = machine.start("--hotplug", trace=stopped, refuse=refusal)
    assert machine.ask("mount ro sdb1", "guest") == "OK remounted as r/o\n"
    assert changing(mounts_at("/mnt/sdb1")[0][1]) == {"ro", "nosuid", "nodev"}
    with machine.connect("guest") as client:
        client.send("mount rw sdb1\n")
        wait_for_the_stop(daemon)
        with strangers_mount():
            his = mounts_at("/mnt/sdb1")[1]
            go_on(daemon)
            assert client.reply() == "OK remounted as r/w\n"
            assert mounts_at("/mnt/sdb1")[1] == his
            assert changing(mounts_at("/mnt/sdb1")[0][1]) == {"rw", "nosuid", "nodev"}
    assert "Cannot protect" not in daemon.stderr()


def covered_stick(machine):
    """A stick whose driver program mounts it, and a user then something on it."""
    stand_ins.exfat_stick(machine)
    tmpfs = stand_ins.MOUNT_TMPFS.replace("exec ", "")
    words = "nosuid,nodev,fd=3,rootmode=40000,user_id=1000,group_id=1000"
    his = f'{stand_ins.REAL_MOUNT} -i -t fuse -o {words} mine "$directory" 3<>/dev/fuse\n'
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat", f"{tmpfs}\n{his}")


def test_a_strangers_mount_on_a_fresh_one_keeps_no_flags_from_the_drive(machine):
    """Between a driver program's mount and the look at it; mount(8), which asks what is on top, is
    not called with his."""
    covered_stick(machine)
    daemon = machine.start("--hotplug")
    assert machine.ask("mount rw sdb1", "guest") == MOUNTED
    ((kind, options),) = mounts_at("/mnt/sdb1")
    assert kind == "tmpfs" and {"nosuid", "nodev"} <= options
    assert "Cannot protect" not in daemon.stderr()


def test_the_drives_own_mount_is_never_taken_off_for_a_strangers(machine):
    """He takes his off himself, between the look at it and the call that is to do so."""
    covered_stick(machine)
    trace = ["-e", "trace=umount2", "-e", "inject=umount2:delay_enter=1500000:when=1"]
    daemon = machine.start("--hotplug", trace=trace)
    with machine.connect("guest", timeout=20) as client:
        client.send("mount rw sdb1\n")
        wait_until(lambda: daemon.current_call() == kernel.SYSCALLS["umount2"], what="umount2")
        kernel.umount("/mnt/sdb1", kernel.MNT_DETACH)
        assert client.reply() == MOUNTED
    ((kind, options),) = mounts_at("/mnt/sdb1")
    assert kind == "tmpfs" and {"nosuid", "nodev"} <= options
    assert "Cannot protect" not in daemon.stderr()


def test_mount_is_not_run_for_what_a_stranger_has_put_on_the_drive(machine):
    """Quotas and ACLs: mount(8) would remount the stranger's, and run a helper by its words."""
    stand_ins.exfat_stick(machine)
    cover = f"{stand_ins.REAL_MOUNT} -t tmpfs -o nosuid,nodev mine /mnt/sdb1\n"
    tmpfs = stand_ins.MOUNT_TMPFS.replace("exec ", "").replace("mode=755", "mode=755,nosuid,nodev")
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat", f"{tmpfs}\n{cover}")
    daemon = machine.start("--hotplug")
    assert machine.ask("mount rw sdb1") == MOUNTED
    assert stand_ins.calls("bin/mount") == []
    assert "Problem enabling ACLs, oh well\n" in daemon.stderr()
    kernel.umount("/mnt/sdb1")


# A mount point below a folder of a user's.


def users_way(machine):
    """A drive is mounted below a user's folder, and something of root's at /srv/stick."""
    machine.plug("usb", "sdb", MIB)
    machine.real_mounts()
    os.makedirs("/home/guest/way")
    os.chown("/home/guest", USERS["guest"], USERS["guest"])
    os.chown("/home/guest/way", USERS["guest"], USERS["guest"])
    machine.mount_tmpfs("sdb", "/home/guest/way/stick")
    os.makedirs("/srv/stick")
    kernel.mount("roots", "/srv/stick", "tmpfs", OWN_FLAGS, "mode=755")


def another_way():
    """He puts a link to /srv in the folder's place."""
    with acting_as(USERS["guest"]):
        os.rename("/home/guest/way", "/home/guest/other")
        os.symlink("/srv", "/home/guest/way")


def way_holder(machine, show=True):
    return machine.troublemaker(
        "holder", "--ignore-term", "--cwd", "/home/guest/way/stick", show=show
    )


@pytest.mark.parametrize("request_line", ["umount sdb", "mount rudeoff sdb"])
def test_an_unmount_follows_no_users_link(machine, request_line):
    """He puts it there while the daemon waits or drives him out."""
    users_way(machine)
    daemon = machine.start("--hotplug")
    is_rude = "rude" in request_line
    way_holder(machine, show=is_rude)
    roots = mounts_at("/srv/stick")
    with machine.connect("guest", timeout=20) as client:
        client.send(request_line + "\n")
        if is_rude:
            wait_until(lambda: kills(machine), what="the eviction")
        else:
            daemon.wait_for("wait: umount failed.")
        another_way()
        assert client.reply() == "ERR unmount failed\n"
    assert mounts_at("/srv/stick") == roots
    assert mounts_at("/home/guest/other/stick")


@pytest.mark.parametrize("is_mounted", [True, False])
def test_a_pulled_drives_unmount_follows_no_users_link(machine, is_mounted):
    """Neither is the directory removed that it leads to."""
    users_way(machine)
    if not is_mounted:
        kernel.umount("/srv/stick")
    machine.start()
    way_holder(machine)
    machine.unplug("sdb")
    wait_until(lambda: kills(machine), what="the eviction")
    another_way()
    machine.pass_of_loop()
    assert os.path.isdir("/srv/stick")
    assert bool(mounts_at("/srv/stick")) == is_mounted


@pytest.mark.parametrize(
    "call, request_line, reply",
    [
        ("umount2", "umount sdb", "OK unmount succeeded\n"),
        ("mount", "mount ro sdb", "OK remounted as r/o\n"),
    ],
)
def test_a_link_that_comes_before_the_call_itself_is_not_followed(
    machine, call, request_line, reply
):
    """Behind the last look at the way the call has another name for it: the mount is the one that
    was meant, wherever it is now."""
    users_way(machine)
    delayed = ["-e", f"trace={call}", "-e", f"inject={call}:delay_enter=1500000:when=1"]
    daemon = machine.start("--hotplug", trace=delayed)
    roots = mounts_at("/srv/stick")
    with machine.connect("guest", timeout=20) as client:
        client.send(request_line + "\n")
        wait_until(lambda: daemon.current_call() == kernel.SYSCALLS[call], what=call)
        another_way()
        assert client.reply() == reply
    assert mounts_at("/srv/stick") == roots
    moved = mounts_at("/home/guest/other/stick")
    assert not moved if call == "umount2" else "ro" in moved[0][1]


@pytest.mark.parametrize("request_line", ["mount ro sdb", "umount sdb"])
def test_what_covers_a_users_folder_leads_to_no_other_mount(machine, request_line):
    """A tmpfs stands for his FUSE mount with allow_other, which root may enter."""
    users_way(machine)
    kernel.mount("mine", "/home/guest/way", "tmpfs", OWN_FLAGS, "mode=755,uid=1000")
    os.symlink("/srv/stick", "/home/guest/way/stick")
    machine.start("--hotplug")
    roots = mounts_at("/srv/stick")
    assert machine.ask(request_line, "guest").startswith("ERR ")
    assert mounts_at("/srv/stick") == roots


# Races on a drive.


@pytest.mark.parametrize("instead", ["a link", "a FIFO", "a directory"])
def test_a_signature_file_that_is_swapped_is_not_read(machine, instead):
    """Between the look at the file and its opening: a user may own the root of a mounted drive."""
    machine.plug("usb", "sdb", MIB)
    machine.part("sdb1", 65536)
    machine.real_mounts()
    machine.mount_tmpfs("sdb1", "/mnt/sdb1", "mode=755,uid=1000")
    write("/mnt/sdb1/.claimsig", "no\n")
    write("/root/secret", "SIG\n")
    machine.configure("main partition signature=SIG\n")
    daemon = machine.start(**stopping("newfstatat", ".claimsig"))
    wait_for_the_stop(daemon)
    with acting_as(USERS["guest"]):
        os.unlink("/mnt/sdb1/.claimsig")
        if instead == "a link":
            os.symlink("/root/secret", "/mnt/sdb1/.claimsig")
        elif instead == "a FIFO":
            os.mkfifo("/mnt/sdb1/.claimsig")
        else:
            os.mkdir("/mnt/sdb1/.claimsig")
    go_on(daemon)
    machine.pass_of_loop()
    assert "has sig" not in daemon.stderr()
    assert "Found main partition" not in daemon.stderr()


def main_partition_of(machine, options, name="swap.img", has_file=True):
    """Keys of a main partition with a swap file of root's, whose own root is as options say."""
    machine.plug("usb", "sdb", MIB)
    machine.part("sdb1", 65536)
    machine.real_mounts()
    machine.mount_tmpfs("sdb1", "/mnt/sdb1", options)
    write("/mnt/sdb1/.claimsig", "SIG\n")
    if has_file:
        make_swap_file(name)
    machine.configure(f"main partition signature=SIG\nswap name={name}\n")
    machine.stand_in("mkswap", 'readlink -f "$1" >> /run/formatted\n')


def make_swap_file(name="swap.img"):
    os.makedirs(os.path.dirname(f"/mnt/sdb1/{name}"), exist_ok=True)
    write(f"/mnt/sdb1/{name}", "")
    os.truncate(f"/mnt/sdb1/{name}", MIB)


def test_a_swap_file_is_no_users_to_swap(machine):
    """Between the last look at the file and mkswap, which would write wherever a link leads."""
    main_partition_of(machine, "mode=755")
    keys = stopping("newfstatat", "/mnt/sdb1/swap.img", when=4)
    daemon = machine.start(refuse=[("swapon", 22)], wait=False, **keys)
    wait_for_the_stop(daemon)
    assert any("AT_SYMLINK_NOFOLLOW" in line for line in daemon.trace())
    denied_to(
        "guest",
        lambda: os.unlink("/mnt/sdb1/swap.img"),
        lambda: os.rename("/mnt/sdb1/swap.img", "/mnt/sdb1/away"),
        lambda: os.symlink("/dev/sdb", "/mnt/sdb1/another"),
    )
    go_on(daemon)
    daemon.wait_for("Found main partition")
    assert machine.calls("mkswap") == ["/mnt/sdb1/swap.img"]


def test_a_swap_file_in_a_users_directory_is_not_used(machine):
    """He could swap it after the last look at it: where the daemon comes to that look, he does."""
    main_partition_of(machine, "mode=755,uid=1000")
    write("/root/precious", "kept")
    keys = stopping("newfstatat", "/mnt/sdb1/swap.img", when=3)
    daemon = machine.start(refuse=[("swapon", 22)], wait=False, **keys)

    def stopped():
        return any("stopped by SIGSTOP" in line for line in daemon.trace())

    wait_until(lambda: stopped() or "Found main partition" in daemon.stderr(), what=daemon.stderr)
    if stopped():
        with acting_as(USERS["guest"]):
            os.unlink("/mnt/sdb1/swap.img")
            os.symlink("/root/precious", "/mnt/sdb1/swap.img")
        go_on(daemon)
    daemon.wait_for("Found main partition")
    assert not os.path.exists("/run/formatted")
    refusal = "Swap file can be changed by others than root, it is not used\n"
    assert f"{refusal}Warning: cannot enable swap\n" in daemon.stderr()
    assert machine.ask("swapon") == "ERR swap enable failed\n"


def test_a_swap_file_that_a_user_makes_behind_the_look_is_not_used(machine):
    """There was none when the daemon looked whose it is."""
    main_partition_of(machine, "mode=1777", has_file=False)
    keys = stopping("newfstatat", "/mnt/sdb1/swap.img", when=1)
    daemon = machine.start(refuse=[("swapon", errno.EPERM)], wait=False, **keys)
    wait_for_the_stop(daemon)
    with acting_as(USERS["guest"]):
        make_swap_file()
    go_on(daemon)
    daemon.wait_for("Found main partition")
    assert "setting up swap" not in daemon.stderr()


def acl_for(user):
    """user::rwx, user:USER:rwx, group::r-x, mask::rwx, other::r-x"""
    none = 0xFFFFFFFF
    rows = [(1, 7, none), (2, 7, user), (4, 5, none), (0x10, 7, none), (0x20, 5, none)]
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *row) for row in rows)


@pytest.mark.parametrize("what", ["folder", "folder/swap.img"])
def test_a_swap_file_that_an_access_list_opens_to_a_user_is_not_used(machine, what):
    """Its mask stands where the right of root's group would."""
    main_partition_of(machine, "mode=755", "folder/swap.img")
    os.setxattr(f"/mnt/sdb1/{what}", "system.posix_acl_access", acl_for(USERS["guest"]))
    assert os.stat(f"/mnt/sdb1/{what}").st_mode & 0o22 == 0o20
    with acting_as(USERS["guest"]):  # he can change it indeed
        if what == "folder":
            os.rename("/mnt/sdb1/folder/swap.img", "/mnt/sdb1/folder/his")
            os.rename("/mnt/sdb1/folder/his", "/mnt/sdb1/folder/swap.img")
        else:
            os.close(os.open("/mnt/sdb1/folder/swap.img", os.O_RDWR))
    daemon = machine.start(refuse=[("swapon", errno.EPERM)])
    daemon.wait_for("Found main partition")
    assert "it is not used" in daemon.stderr()


def test_a_device_that_is_replaced_before_its_mount_is_no_less_protected(machine):
    """Between the probe and the mount: another stick has the name now. It is mounted, as nosuid and
    nodev as any; the link has the label of the stick that was asked for."""
    stand_ins.exfat_stick(machine)
    daemon = machine.start("--hotplug", **stopping("newfstatat", "/mnt/sdb1"))
    assert "DATA" in machine.ask("list")
    with machine.connect() as client:
        client.send("mount rw sdb1\n")
        wait_for_the_stop(daemon)
        machine.unplug("sdb")
        stand_ins.exfat_stick(machine, label="../../root/owned")
        go_on(daemon)
        assert client.reply() == MOUNTED
    assert {"nosuid", "nodev"} <= set(stand_ins.mount_options("/mnt/sdb1"))
    assert sorted(os.listdir("/mnt")) == ["^DATA", "sdb1"]
    assert os.listdir("/root") == []
    assert machine.ask("umount sdb1") == "OK unmount succeeded\n"
    assert os.listdir("/mnt") == []


# Who dodges an eviction.


def mounted_stick(machine, **keys):
    """The daemon, with a stick mounted that has a file and a folder of a user."""
    stand_ins.exfat_stick(machine)
    daemon = machine.start("--hotplug", **keys)
    assert machine.ask("mount rw sdb1") == MOUNTED
    write("/mnt/sdb1/file", "x" * 4096)
    os.mkdir("/mnt/sdb1/folder")
    os.chown("/mnt/sdb1/folder", USERS["guest"], USERS["guest"])
    return daemon


def go_on_with_the_eviction(daemon):
    """It is a child of the daemon's that was stopped."""
    pids = [line.split()[0] for line in daemon.trace() if "stopped by SIGSTOP" in line]
    assert pids != [str(daemon.pid)]
    os.kill(int(pids[0]), signal.SIGCONT)


def test_who_leaves_an_heir_is_outlived_by_a_second(machine):
    """Who forks is told to end once. His child, born behind the pass that told him, is killed in
    the last one, unwarned."""
    daemon = mounted_stick(machine, **stopping("openat", "/proc", when=2))
    holder = machine.troublemaker("holder", "--heir", "--cwd", "/mnt/sdb1")
    with machine.connect() as client:
        client.send("mount rudeoff sdb1\n")
        wait_for_the_stop(daemon)
        assert holder.wait(20) == 0
        go_on_with_the_eviction(daemon)
        assert client.reply() == "OK unmount succeeded\n"
    told, killed = kills(machine)
    assert told == terminating(holder)
    assert "is still using mount point. forcibly terminating..." in killed
    assert not killed.startswith(f"{holder.pid}:")


def test_who_is_seen_by_no_pass_keeps_the_mount(machine):
    """So does who forks fast enough to have a child there that was born behind the last pass: the
    unmount fails as a polite one would. The next one that sees him drives him out."""
    mounted_stick(machine)
    late = machine.troublemaker("holder", "--cwd", "/mnt/sdb1", show=False)
    assert machine.ask("mount rudeoff sdb1") == "ERR unmount failed\n"
    assert late.poll() is None
    machine.show_process(late.pid)
    assert machine.ask("mount rudeoff sdb1") == "OK unmount succeeded\n"
    assert late.wait(20) == -signal.SIGTERM


def test_who_has_mapped_a_file_is_not_seen(machine):
    """What is mapped into a memory and closed is no open file: nobody is ended, the unmount fails,
    whoever asks and however often."""
    mounted_stick(machine)
    holder = machine.troublemaker("holder", "--map", "/mnt/sdb1/file")
    for _ in range(2):
        assert machine.ask("mount rudeoff sdb1") == "ERR unmount failed\n"
    assert kills(machine) == [] and holder.poll() is None
    holder.kill()
    holder.wait()
    assert machine.ask("mount rudeoff sdb1") == "OK unmount succeeded\n"


def test_who_mounts_something_below_keeps_the_mount(machine):
    """A file system on a folder of the stick, and be its server dead: the unmount fails until root
    takes it away. Nobody waits for the server, and a remount goes on as ever."""
    mounted_stick(machine)
    server = machine.troublemaker("mute_server", "x", "/mnt/sdb1/folder")
    server.send_signal(signal.SIGUSR1)
    assert server.stdout.readline() == "mute\n"
    assert machine.ask("mount rudeoff sdb1") == "ERR unmount failed\n"
    assert kills(machine) == [] and server.poll() is None
    kernel.umount("/mnt/sdb1/folder", kernel.MNT_DETACH)
    assert machine.ask("mount rudeoff sdb1") == "OK unmount succeeded\n"


def hermit(machine, user, prepare):
    """A process of that user in namespaces of his own, which the daemon sees. prepare() is called
    in there, and what that returned, and returns bytes, when a byte is written to the second of two
    pipes; the first one has the bytes."""
    hears, speaks = os.pipe()
    told, tell = os.pipe()
    pid = os.fork()
    if pid == 0:
        try:
            os.setresgid(*[USERS[user]] * 3)
            os.setresuid(*[USERS[user]] * 3)
            kernel.be_asked_about()
            kernel.unshare(kernel.CLONE_NEWUSER | kernel.CLONE_NEWNS)
            write("/.proc/self/uid_map", f"0 {USERS[user]} 1\n")
            write("/.proc/self/setgroups", "deny")
            write("/.proc/self/gid_map", f"0 {USERS[user]} 1\n")
            kernel.mount(None, "/", None, kernel.MS_REC | kernel.MS_PRIVATE)
            finish = prepare()
            os.write(speaks, b"ready")
            os.read(told, 1)
            os.write(speaks, finish())
        finally:
            os._exit(0)
    os.close(speaks)
    assert os.read(hears, 100) == b"ready"
    machine.show_process(pid)
    return hears, tell


@pytest.mark.parametrize("where", ["/mnt/sdb1", "/srv/hidden"])
def test_a_copy_of_a_mount_in_a_namespace_of_its_own(machine, where):
    """Nobody here can unmount it, and it makes nothing busy. In the mount's own place it goes with
    the directory; elsewhere the file system goes on in there, though the unmount succeeds."""
    mounted_stick(machine)
    os.makedirs("/srv/hidden", exist_ok=True)
    write("/mnt/sdb1/file", "still there")

    def prepare():
        if where != "/mnt/sdb1":
            kernel.mount("mine", "/srv", "tmpfs")
            os.mkdir(where)
            kernel.mount("/mnt/sdb1", where, None, kernel.MS_BIND)
        return content

    def content():
        try:
            with open(f"{where}/file", "rb") as file:
                return file.read()
        except FileNotFoundError:
            return b"gone"

    hears, tell = hermit(machine, "guest", prepare)
    assert machine.ask("mount rudeoff sdb1") == "OK unmount succeeded\n"
    assert kills(machine) == []
    assert not os.path.exists("/mnt/sdb1")
    os.write(tell, b".")
    assert os.read(hears, 100) == (b"gone" if where == "/mnt/sdb1" else b"still there")


def test_a_name_in_a_foreign_namespace_makes_a_drive_look_used(machine):
    """Open files go by their names, and in a namespace of his own a user may call one /dev/sdb. As
    long as he has it open, listings learn no label of that drive; whoever asks for the label finds
    it all the same."""
    machine.plug("usb", "sdb", MIB)
    machine.probe_says("sdb", "DATA", "ext4")

    def prepare():
        kernel.mount("mine", "/dev", "tmpfs")
        file = os.open("/dev/sdb", os.O_RDWR | os.O_CREAT)
        return lambda: os.pread(file, 1, 0)

    hears, tell = hermit(machine, "guest", prepare)
    machine.start("--hotplug")
    assert machine.probe_calls() == []
    for listing in ("list", "list human", "enumerate"):
        assert "DATA" not in machine.ask(listing)
    assert machine.probe_calls() == []
    assert machine.ask("umount ^DATA") == "OK its not mounted anyway\n"
    assert len(machine.probe_calls()) == 1
    assert "DATA" in machine.ask("list")
    os.write(tell, b".")


# Script directories.

NAMES = ["a b", "$(touch owned)", "new\nline", "é", "%s%n", "'", "\x1b[2J", ";id"]


def test_a_scripts_name_is_no_command(machine):
    """Whatever it is called, it is run by that name with its two words, without a shell."""
    stand_ins.exfat_stick(machine)
    for name in NAMES:
        machine.script(
            f"/var/quarryd/mount-notify/{name}", 'echo "$# $1 $2" >> /run/heard; exit 0\n'
        )
    machine.start("--hotplug")
    assert machine.connect(timeout=20).ask("mount rw sdb1") == MOUNTED
    with open("/run/heard") as file:
        heard = file.read().splitlines()
    assert heard == ["2 sdb1 about-to-mount"] * len(NAMES) + ["2 /dev/sdb1 mount"] * len(NAMES)
    assert sorted(os.listdir("/var/quarryd/mount-notify")) == sorted(NAMES)


def test_nobody_else_looks_into_the_script_directories(machine):
    machine.start("--hotplug")
    for name in ("mount-notify", "device-notify"):
        folder = f"/var/quarryd/{name}"
        denied_to(
            "guest",
            lambda folder=folder: os.listdir(folder),
            lambda folder=folder: write(f"{folder}/mine", ""),
            lambda folder=folder: os.rename(folder, "/var/quarryd/away"),
        )


HOOKS = "/var/quarryd/mount-notify"
VETOED = "ERR mounting was vetoed by notification script\n"


@pytest.mark.parametrize("mode, owner", [(0o777, 0), (0o700, 1000), (0o1777, 0)])
def test_a_script_directory_that_is_not_roots_is_used_as_it_is(machine, mode, owner):
    """The daemon neither mends it nor warns of it: what a user puts there runs as root. That there
    is such a directory, `quarryctl check` says, before there is anything in it."""
    stand_ins.exfat_stick(machine)
    os.makedirs(HOOKS)
    os.chmod(HOOKS, mode)
    os.chown(HOOKS, owner, owner)
    found = asked_for_json("check", status=1)["findings"]
    assert ("writable-by-others", HOOKS) in [(one["code"], one["place"]) for one in found]
    with acting_as(USERS["guest"]):
        machine.script(f"{HOOKS}/mine", "id -u > /run/heard; exit 0\n")
    machine.start("--hotplug")
    assert machine.ask("mount rw sdb1") == MOUNTED
    with open("/run/heard") as file:
        assert file.read() == "0\n"
    status = os.stat(HOOKS)
    assert (status.st_mode & 0o7777, status.st_uid) == (mode, owner)


@pytest.mark.parametrize("instead", ["nothing", "another", "no program"])
def test_a_script_that_changes_while_it_runs_ends_as_it_began(machine, instead):
    """It stops in its middle, and what has its name meanwhile is asked about the next mount."""
    stand_ins.exfat_stick(machine)
    hook = f"{HOOKS}/hook"
    machine.script(hook, "echo $$ > /run/.pid; mv /run/.pid /run/pid; kill -STOP $$; exit 1\n")
    machine.start("--hotplug")
    with machine.connect() as client:
        client.send("mount rw sdb1\n")
        wait_until(lambda: os.path.exists("/run/pid"), what="the script")
        with open("/run/pid") as file:
            pid = int(file.read())
        wait_until(lambda: state_of(pid) == "T", what="the script's stop")
        os.unlink(hook)
        if instead == "another":
            machine.script(hook, "exit 0\n")
        elif instead == "no program":
            write(hook, "")
        os.kill(pid, signal.SIGCONT)
        assert client.reply() == VETOED
    assert machine.ask("mount rw sdb1") == (VETOED if instead == "no program" else MOUNTED)


@pytest.mark.parametrize("instead", ["nothing", "another"])
def test_a_script_that_changes_before_it_runs(machine, instead):
    """Between the look at it and its start: one that is gone is one that cannot be run, and what
    has its name is run, for nobody but root can have put it there."""
    stand_ins.exfat_stick(machine)
    machine.script(f"{HOOKS}/hook", "exit 1\n")
    daemon = machine.start("--hotplug", **stopping("newfstatat", f"{HOOKS}/hook"))
    with machine.connect() as client:
        client.send("mount rw sdb1\n")
        wait_for_the_stop(daemon)
        os.unlink(f"{HOOKS}/hook")
        if instead == "another":
            machine.script(f"{HOOKS}/hook", "exit 0\n")
        go_on(daemon)
        assert client.reply() == (VETOED if instead == "nothing" else MOUNTED)


ASKING = """#!/usr/bin/python3
import os, socket, sys
if sys.argv[2] != "about-to-mount":
    sys.exit(0)
daemon = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
daemon.connect("\\0quarryd")
daemon.send(b"list\\n")
with open("/run/.pid", "w") as file:
    print(os.getpid(), file=file)
os.rename("/run/.pid", "/run/pid")
daemon.recv(1)
open("/run/answered", "w")
"""


def test_a_hook_that_asks_the_daemon_stops_both(machine):
    """The three seconds that hooks have do not help: nobody is served until somebody ends the hook,
    which then forbids nothing."""
    stand_ins.exfat_stick(machine)
    machine.script(f"{HOOKS}/asks", ASKING)
    machine.start("--hotplug")
    with machine.connect() as client, machine.connect() as another:
        client.send("mount rw sdb1\n")
        wait_until(lambda: os.path.exists("/run/pid"), what="the hook's question")
        another.send("a pass\n")
        assert another.is_silent(3.5) and client.is_silent(0.1)
        with open("/run/pid") as file:
            os.kill(int(file.read()), signal.SIGKILL)
        assert client.reply() == MOUNTED
        assert another.reply() == "ERR unknown command\n"
    assert not os.path.exists("/run/answered")


# The table.

ROWS = 56  # of docs/security.md; there may be more


def rows_of_the_table():
    """(what is tried, what happens, tests) of docs/security.md."""
    with open(f"{ROOT}/docs/security.md") as file:
        text = file.read()
    section = text.split("## What is tried, and what shows what happens\n")[1].split("\n## ")[0]
    rows = [line.strip("| ").split(" | ") for line in section.splitlines() if line[:2] == "| "]
    assert rows[0][0] == "tried" and {len(row) for row in rows} == {3}
    return rows[1:]


def marks_of(nodes):
    """The marks among expressions, with their arguments: {"skip": [], "long": []}."""
    marks = {}
    for node in nodes:
        called = isinstance(node, ast.Call)
        name = ast.unparse(node.func if called else node)
        if name.startswith("pytest.mark."):
            marks[name.removeprefix("pytest.mark.")] = node.args if called else []
    return marks


def own_marks(module):
    """The expressions that a module gives to all of its tests."""
    for node in module.body:
        if isinstance(node, ast.Assign) and ast.unparse(node.targets[0]) == "pytestmark":
            yield from node.value.elts if isinstance(node.value, ast.List) else [node.value]


def gives_up(statements):
    """Whether one of them, as a whole, is pytest.skip() or its like."""
    return any(
        isinstance(node, (ast.Expr, ast.Raise, ast.Return)) and re.match(
            r"(raise )?(pytest|unittest)\.(skip|xfail|SkipTest)\b|return$", ast.unparse(node)
        )
        for node in statements
    )


def why_it_shows_nothing(source, test):
    """What is wrong with a test that a row names, as it stands in its file; "" when it runs."""
    module = ast.parse(source)
    functions = [node for node in module.body if getattr(node, "name", "") == test]
    if len(functions) != 1 or not test.startswith("test_"):
        return "there is not one of that name"
    function = functions[0]
    for marks in (marks_of(own_marks(module)), marks_of(function.decorator_list)):
        if "skip" in marks or "xfail" in marks:
            return "it is marked as one that is not run, or may fail"
        if any(isinstance(argument, ast.Constant) for argument in marks.get("skipif", [])[:1]):
            return "it is never run, or always"
    if gives_up(module.body) or gives_up(function.body):
        return "it gives up"
    if not any(isinstance(node, (ast.Assert, ast.With, ast.Call)) for node in ast.walk(function)):
        return "it does nothing"
    return ""


@pytest.mark.parametrize(
    "text, shows",
    [
        ("def test_it(machine):\n    assert machine\n", True),
        ("@pytest.mark.long\ndef test_it():\n    assert 1\n", True),
        ("@pytest.mark.skipif(os.getuid() > 0, reason='x')\ndef test_it():\n    call()\n", True),
        ("def test_it():\n    if never():\n        pytest.skip()\n    call()\n", True),
        ("def test_other():\n    assert 1\n", False),
        ("# def test_it(machine):\n", False),
        ("class TestIt:\n    def test_it(self):\n        assert 1\n", False),
        ("def test_it():\n    assert 1\ndef test_it():\n    assert 2\n", False),
        ("@pytest.mark.skip\ndef test_it():\n    assert 1\n", False),
        ("@pytest.mark.skip(reason='x')\n@pytest.mark.long\ndef test_it():\n    call()\n", False),
        ("@pytest.mark.xfail\ndef test_it():\n    assert 1\n", False),
        ("@pytest.mark.skipif(True, reason='x')\ndef test_it():\n    assert 1\n", False),
        ("pytestmark = pytest.mark.skip\ndef test_it():\n    assert 1\n", False),
        ("pytestmark = [pytest.mark.skip(), other]\ndef test_it():\n    call()\n", False),
        ("pytest.skip('x', allow_module_level=True)\ndef test_it():\n    assert 1\n", False),
        ("def test_it():\n    pytest.skip('x')\n    assert 1\n", False),
        ("def test_it():\n    call()\n    return\n    assert 1\n", False),
        ("def test_it():\n    pass\n", False),
    ],
)
def test_a_test_that_is_not_run_shows_nothing(text, shows):
    """This test tests the next one."""
    assert (why_it_shows_nothing(text, "test_it") == "") == shows


def test_every_row_of_the_table_names_tests_that_show_it():
    """No row is lost: whoever takes one out lowers the number, and says why."""
    rows = rows_of_the_table()
    assert len(rows) >= ROWS
    assert len({tried for tried, _happens, _proofs in rows}) == len(rows)
    for _tried, _happens, proofs in rows:
        names = re.findall(r"`([^`]+)`", proofs)
        assert names, proofs
        for name in names:
            file, _, test = name.partition("::")
            path = f"{ROOT}/tests/{file}"
            if test:
                assert re.fullmatch(r"test_\w+\.py", os.path.basename(path)), name
                with open(path) as source:
                    assert why_it_shows_nothing(source.read(), test) == "", name
            else:
                assert file.startswith("sandbox/cases/"), name
                assert os.path.getsize(f"{path}/talk") > 0, name
