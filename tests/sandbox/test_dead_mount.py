"""A file system whose server never answers: nothing that does not need its answer waits for it."""

import os
import signal
import time

import pytest

from machine.clients import wait_until
from machine.machine import sleep


def dead_mount(machine, source="/dev/sdb1", point="/mnt/sdb1", holders=()):
    """Mounts it, lets processes take hold of it, and makes its server fall silent."""
    assert os.path.exists("/dev/fuse"), "these tests need the kernel's fuse module"
    machine.real_mounts()
    os.makedirs(point, exist_ok=True)
    server = machine.troublemaker("mute_server", source, point)
    # The first closing of a file asks the server; its answer is that nobody need ask again, so that
    # processes can end later.
    os.close(os.open(f"{point}/file", os.O_RDONLY))
    processes = [machine.troublemaker("holder", *holder) for holder in holders]
    server.send_signal(signal.SIGUSR1)
    assert server.stdout.readline() == "mute\n"
    return server, processes


def stick(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)


def is_dead(machine, path):
    """Whether asking for the path's status takes for ever."""
    child = machine.program("/usr/bin/stat", path, show=False)
    sleep(0.5)
    return child.poll() is None


def test_the_server_is_as_mute_as_it_should_be(machine):
    """This test tests the test."""
    dead_mount(machine)
    assert is_dead(machine, "/mnt/sdb1")
    assert is_dead(machine, "/mnt/sdb1/file")


@pytest.mark.parametrize("when", ["before the start", "while it runs"])
@pytest.mark.parametrize(
    "source, point", [("/dev/sdb1", "/mnt/sdb1"), ("host:/export", "/mnt/share")]
)
def test_housekeeping_goes_round_it(machine, when, source, point):
    """Directory, label link, link to a file inside: the loop turns and clients are served."""
    stick(machine)
    if when == "while it runs":
        machine.start()
        machine.settle()
    dead_mount(machine, source, point)
    name = os.path.basename(point)
    os.symlink(name, "/mnt/^DATA")
    os.symlink(point, "/mnt/^ABSOLUTE")
    os.symlink(f"{name}/folder/file", "/mnt/^INSIDE")
    os.symlink("^DATA", "/mnt/^CHAIN")
    os.symlink("^DATA/file", "/mnt/^THROUGH")
    os.symlink("nowhere", "/mnt/^GONE")
    if when == "before the start":
        machine.start()
    start = time.monotonic()
    wait_until(lambda: not os.path.lexists("/mnt/^GONE"))
    machine.settle()
    machine.pass_of_loop()
    assert time.monotonic() - start < 30
    assert sorted(os.listdir("/mnt")) == sorted(
        [name, "^DATA", "^ABSOLUTE", "^INSIDE", "^CHAIN", "^THROUGH"]
    )
    assert is_dead(machine, point)


def test_listings_do_not_touch_open_files_on_it(machine):
    """Whether a drive is in use is asked of names alone."""
    stick(machine)
    machine.probe_says("sdb", "WHOLE", "ext3")
    holders = [["--read", "/mnt/sdb1/file"], ["--cwd", "/mnt/sdb1/folder"]]
    dead_mount(machine, holders=holders)
    machine.start()
    for request in ("list", "list human", "enumerate"):
        assert "WHOLE" in machine.ask(request)


def test_eviction_elsewhere_does_not_touch_open_files_on_it(machine):
    """Another drive is cleared while processes hold files of the dead one."""
    stick(machine)
    machine.plug("usb", "sdc", 1 << 20)
    machine.mount_tmpfs("sdc", "/mnt/sdc")
    _server, [holder] = dead_mount(
        machine, holders=[["--read", "/mnt/sdb1/file", "--cwd", "/mnt/sdb1/folder"]]
    )
    other = machine.troublemaker("holder", "--cwd", "/mnt/sdc")
    daemon = machine.start()
    machine.settle()
    machine.unplug("sdc")
    daemon.wait_for("Device sdc just disappeared")
    assert other.wait(20) == -signal.SIGTERM
    wait_until(lambda: not os.path.exists("/mnt/sdc"))
    assert holder.poll() is None


@pytest.mark.parametrize("way", ["vanishes", "end of the daemon"])
def test_the_dead_mount_itself_is_cleared_and_unmounted(machine, way):
    """Links name its users, and unmounting needs no answer."""
    stick(machine)
    holders = [["--read", "/mnt/sdb1/file"], ["--cwd", "/mnt/sdb1/folder"]]
    _server, processes = dead_mount(machine, holders=holders)
    # The type of a drive's own FUSE mount, which the kernel makes for real drives alone.
    os.unlink("/proc/mounts")
    machine.mount_table(["/dev/sdb1 /mnt/sdb1 fuseblk rw"])
    daemon = machine.start()
    machine.settle()
    start = time.monotonic()
    if way == "vanishes":
        machine.unplug("sdb")
        daemon.wait_for("Device sdb just disappeared")
        machine.pass_of_loop()
    else:
        machine.stop()
    assert time.monotonic() - start < 20
    assert [process.wait(20) for process in processes] == [-signal.SIGTERM] * 2
    with open("/.proc/self/mounts") as file:
        assert "/mnt/sdb1" not in file.read()
    assert "cannot unmount" not in daemon.stderr()
    assert not os.path.exists("/mnt/sdb1")


@pytest.mark.parametrize("point", ["/mnt/sdb1", "/srv/dead"])
def test_the_dead_mount_is_remounted_and_unmounted_on_request(machine, point):
    """It is held for that, and in a folder elsewhere reached by it, without a word to its server."""
    stick(machine)
    dead_mount(machine, point=point)
    os.unlink("/proc/mounts")
    machine.mount_table([f"/dev/sdb1 {point} fuseblk rw,nosuid,nodev"])
    machine.start("--hotplug")
    start = time.monotonic()
    assert machine.ask("mount ro sdb1") == "OK remounted as r/o\n"
    machine.ask("umount sdb1")
    assert time.monotonic() - start < 8
    with open("/.proc/self/mounts") as file:
        assert point not in file.read()


def test_writers_are_told_from_readers_without_waiting(machine):
    """The mode that the kernel remembers is enough, and only files under the path are looked at."""
    stick(machine)
    _server, [holder] = dead_mount(machine, holders=[["--read", "/mnt/sdb1/file"]])
    room = machine.room("tables")
    assert room.ask(f"uses {holder.pid} /mnt/sdb1 writers") == "yes"
    assert room.ask(f"uses {holder.pid} /mnt/sdc1 writers") == "no"
    assert room.ask("in-use /dev/sdb") == "no"
    room.ask("evict sdb1 /mnt/sdb1 writers")
    assert holder.wait(20) == -signal.SIGTERM


def test_a_label_link_into_it_is_removed_by_its_text(machine):
    """The link itself is read, never what it leads to."""
    stick(machine)
    machine.probe_says("sdb1", "DATA", "ext3")
    dead_mount(machine)
    os.symlink("sdb1", "/mnt/^DATA")
    room = machine.room("tables", "update", "remove-link sdb1")
    assert not os.path.lexists("/mnt/^DATA")
    assert room.ask("exists sdb1") == "yes"


def test_a_dead_mount_in_the_place_of_a_label_link(machine):
    """Somebody mounted on /mnt/^DATA itself: it stays, and nobody waits."""
    stick(machine)
    machine.probe_says("sdb1", "DATA", "ext3")
    dead_mount(machine, "host:/x", "/mnt/^DATA")
    machine.room("tables", "update", "make-link sdb1", "remove-link sdb1", "tidy")
    assert is_dead(machine, "/mnt/^DATA")


def test_a_restart_does_not_wait_for_it_either(machine):
    """Killed and started again: the server of the dead mount runs on and holds nothing of it."""
    stick(machine)
    dead_mount(machine)
    machine.start().kill()
    machine.start()
    machine.settle()
    assert "\t\tsdb1\tPartition\tUSB\t" in machine.ask("list")
