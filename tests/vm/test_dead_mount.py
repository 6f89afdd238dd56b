"""A filesystem whose server never answers: whoever asks it for anything waits for ever."""
import os
import time

import pytest

from rig import Disk, images

pytestmark = [pytest.mark.usefixtures("fresh"), pytest.mark.long]
HERE = os.path.dirname(os.path.abspath(__file__))


def drives(folder):
    return [Disk("usb", images.fs(os.path.join(folder, name), "32M", "ext4", name.upper()), id=name)
            for name in ("good", "dead")]


class DeadMount:
    """A silent FUSE server's mount at /mnt/NAME, with source /dev/NAME, and two processes that
    hold it: one its folder, one a file. Its label link and a folder in need of housekeeping lie
    beside it."""

    def __init__(self, vm, name, flush=""):
        self.vm, self.name = vm, name
        vm.put("/run/rig/silent_fuse.py",
               open(os.path.join(HERE, "troublemakers", "silent_fuse.py")).read())
        vm.sh("modprobe fuse; [ -e /dev/fuse ] || mknod /dev/fuse c 10 229; mkdir /mnt/" + name)
        self.server = vm.background("exec python3 /run/rig/silent_fuse.py /dev/%s /mnt/%s %s"
                                    % (name, name, flush), "/run/rig/fuse.log")
        self._wait_for("mounted")
        vm.sh("cat /mnt/%s/file >/dev/null" % name)       # the kernel learns if closes are told
        self.folder_holder = vm.background("cd /mnt/%s && exec sleep 1000" % name)
        self.file_holder = vm.background("exec sleep 1000 9</mnt/%s/file" % name)
        vm.sh("ln -s %s /mnt/^DEAD" % name)
        vm.sh("kill -USR1 " + self.server)
        self._wait_for("silent")
        # The proof that it is dead: nobody gets an answer out of it.
        assert vm.sh("timeout -s KILL 1 stat /mnt/%s" % name, check=False).rc == -9

    def _wait_for(self, word):
        self.vm.wait_until(
            lambda: word in self.vm.text("/run/rig/fuse.log"), 10,
            lambda: "%s: %s" % (word, self.vm.text("/run/rig/fuse.log")))


def mount_good(vm):
    name = vm.node("good")
    vm.sh("mkdir /mnt/%s && mount /dev/%s /mnt/%s && ln -s %s /mnt/^GOOD" % ((name,) * 4))
    return name


@pytest.mark.parametrize("name", ["dead", "stranger"])
def test_loop_and_housekeeping_go_on(vm, name):
    """Beside a dead mount, of a known device or of a stranger's, the housekeeping does its work on
    the other entries and every client is served at once, also in listings that look at every
    process's descriptors."""
    mount_good(vm)
    DeadMount(vm, vm.node("dead") if name == "dead" else name)
    vm.sh("cd /mnt && mkdir old1 old2 zzz && ln -s gone ^GONE && "
          "touch -d '20 sec ago' old1 old2 zzz")
    daemon = vm.daemon()
    began = time.monotonic()
    rounds = 0
    while time.monotonic() - began < 12:                 # two passes of the housekeeping at least
        for request in ("list", "refresh", "enumerate"):
            assert vm.request(request, timeout=10).startswith("OK")
            rounds += 1
        time.sleep(0.2)
    assert rounds >= 9
    left = set(vm.sh("ls -A /mnt").out.split())
    assert {"^GOOD", "^DEAD"} <= left
    assert not {"old1", "old2", "zzz", "^GONE"} & left
    assert daemon.alive() and vm.text("/proc/%d/status" % daemon.pid).count("\nState:\tS") == 1


def test_eviction_of_others_goes_on(vm):
    """While a stranger's dead mount is held by processes, the processes on a good mount are driven
    out at once, its holders stay, and the end comes in time."""
    good = mount_good(vm)
    dead = DeadMount(vm, "stranger")
    holder = vm.background("exec sleep 1000 9>/mnt/%s/file" % good)
    daemon = vm.daemon()
    vm.request("list")
    began = time.monotonic()
    assert daemon.stop(20) == 0
    assert time.monotonic() - began < 10
    assert vm.sh("[ -e /proc/%s ]" % holder, check=False).rc == 1
    for pid in (dead.folder_holder, dead.file_holder, dead.server):
        assert vm.sh("[ -e /proc/%s ]" % pid, check=False).rc == 0
    assert "/mnt/%s " % good not in vm.text("/proc/mounts")
    assert "/mnt/stranger " in vm.text("/proc/mounts")


def test_a_dead_mount_is_released_at_the_end(vm):
    """The dead mount of a drive of the daemon's own is released at the end like any other: its
    holders are driven out, it is unmounted, and its folder goes."""
    mount_good(vm)
    dead = DeadMount(vm, vm.node("dead"))
    daemon = vm.daemon()
    vm.request("list")
    began = time.monotonic()
    assert daemon.stop(20) == 0
    assert time.monotonic() - began < 15
    for pid in (dead.folder_holder, dead.file_holder):
        assert vm.sh("[ -e /proc/%s ]" % pid, check=False).rc == 1
    assert "/mnt" not in vm.text("/proc/mounts")
    assert vm.sh("ls -A /mnt").out == ""


def test_holders_that_cannot_die(vm):
    """A process that cannot die because its close is waited for keeps the dead mount; the daemon
    gives both up and ends in time, the other mounts released."""
    good = mount_good(vm)
    dead = DeadMount(vm, vm.node("dead"), "flush")
    daemon = vm.daemon()
    began = time.monotonic()
    assert daemon.stop(20) == 0
    assert time.monotonic() - began < 10
    assert "yep. cannot force unmount /mnt/%s\n" % dead.name in daemon.err()
    assert "/mnt/%s " % dead.name in vm.text("/proc/mounts")
    assert "/mnt/%s " % good not in vm.text("/proc/mounts")


def test_a_pulled_drive_with_a_dead_mount(vm):
    """A drive with a dead mount that is pulled is released without holding up the loop."""
    name = vm.node("dead")
    DeadMount(vm, name)
    daemon = vm.daemon()
    vm.request("list")
    vm.unplug("dead")
    daemon.wait_err("Device %s just disappeared (polling)\n" % name)
    vm.wait_until(lambda: "/mnt/%s " % name not in vm.text("/proc/mounts"), 10)
    assert vm.request("list", timeout=10).endswith("OK  eom\n")
    vm.plug("dead")
