"""What the daemon unmounts on its way out, and whom it drives out for that."""
import os
import time

import pytest

from holders import KILL, TERM, alive, has_ended, hold, said_of
from rig import Disk, images


def drives(folder):
    two = images.disk(os.path.join(folder, "two"), "64M",
                      [("24M", "83", "ext4", "ONE"), (None, "83", "ext4", "TWO")])
    return [Disk("virtio-scsi", two, id="two"),
            Disk("usb", images.fs(os.path.join(folder, "whole"), "32M", "ext4", "WHOLE"),
                 id="whole")]


@pytest.fixture
def mounted(fresh):
    """(machine, first partition, second partition, whole drive), all mounted below /mnt with
    their label links, as the daemon mounts them."""
    first, second = fresh.parts("two", 2)
    whole = fresh.node("whole")
    fresh.sh("set -e; cd /mnt; for n in %s %s %s; do mkdir $n; mount /dev/$n $n; done; "
             "ln -s %s ^ONE; ln -s %s ^TWO; ln -s %s ^WHOLE" % ((first, second, whole) * 2))
    return fresh, first, second, whole


def test_everything_is_unmounted_at_the_end(mounted):
    """At the end every drive and partition of the registry is unmounted, partitions in the order
    of their names, with its folder and label link; what is not the daemon's business stays."""
    vm, first, second, whole = mounted
    vm.sh("mkdir /mnt/folder && touch /mnt/file && ln -s /srv /mnt/^OTHER")
    daemon = vm.daemon()
    vm.request("list")
    assert daemon.stop() == 0
    assert "/mnt" not in vm.text("/proc/mounts")
    assert set(vm.sh("ls -A /mnt").out.split()) == {"file", "folder", "^OTHER"}
    killing = [line for line in daemon.err().splitlines() if line.startswith("killing")]
    assert killing == ["killing processes using %s on /mnt/%s" % (n, n)
                       for n in sorted((first, second, whole))]
    assert "BUG" not in daemon.err() and "cannot unmount" not in daemon.err()


@pytest.mark.parametrize("how, lines", [
    ("cwd", [TERM]), ("file", [TERM]), ("root", [TERM]),
    ("stubborn", [TERM, KILL]), ("stopped", [TERM, KILL])])
def test_holders_are_driven_out(mounted, how, lines):
    """A process with its working directory, an open file or its root on the mount gets SIGTERM;
    one that ignores it or is stopped gets SIGKILL a second later, and each step is logged."""
    vm, first, second, whole = mounted
    pid = hold(vm, how, "/mnt/" + second)
    bystander = vm.background("cd /tmp; exec sleep 1000")
    daemon = vm.daemon()
    began = time.monotonic()
    assert daemon.stop() == 0
    took = time.monotonic() - began
    assert has_ended(vm, pid) and alive(vm, bystander)
    assert said_of(vm, pid) == [line % pid for line in lines]
    assert "/mnt" not in vm.text("/proc/mounts")
    assert took < 20 and (took > 1 or KILL not in lines)
    # Who is killed has a tenth of a second to let go, and two seconds more.
    assert KILL in lines or "wait, cannot unmount" not in daemon.err()


@pytest.mark.long
def test_a_program_run_from_the_mount(mounted):
    """A process whose program lies on the mount is driven out too."""
    vm, first, second, whole = mounted
    vm.sh("cp /bin/sleep /mnt/%s/napper" % whole)
    pid = vm.background("exec /mnt/%s/napper 1000" % whole)
    assert vm.daemon().stop() == 0
    assert not alive(vm, pid)
    assert said_of(vm, pid) == ["%s: /mnt/%s/napper is using mount points. terminating..."
                                % (pid, whole)]
    assert "/mnt" not in vm.text("/proc/mounts")


@pytest.mark.long
def test_prefix_rule(mounted):
    """Paths are compared as text: who sits in /mnt/sdb10 is driven out with /mnt/sdb1."""
    vm, first, second, whole = mounted
    vm.sh("mkdir /mnt/%s0" % first)
    pid = hold(vm, "cwd", "/mnt/%s0" % first)
    assert vm.daemon().stop() == 0
    assert not alive(vm, pid)


@pytest.mark.long
def test_what_cannot_be_driven_out(mounted):
    """A mount that is busy without any process on it is tried twice, two seconds apart, and given
    up; the others are unmounted all the same."""
    vm, first, second, whole = mounted
    vm.sh("cd /mnt/%s && modprobe loop && truncate -s 8M image && mkfs.ext4 -q image && "
          "mkdir -p /srv/inner && mount -o loop image /srv/inner" % first)
    daemon = vm.daemon()
    began = time.monotonic()
    assert daemon.stop() == 0
    assert 2 <= time.monotonic() - began < 15
    assert ("wait, cannot unmount /mnt/%s Device or resource busy\n"
            "yep. cannot force unmount /mnt/%s\n" % (first, first)) in daemon.err()
    mounts = vm.text("/proc/mounts")
    assert "/mnt/%s " % first in mounts
    assert "/mnt/%s " % second not in mounts and "/mnt/%s " % whole not in mounts
    vm.sh("umount /srv/inner")


@pytest.mark.long
def test_nfsx_spares_them(mounted):
    """With --nfsx nobody is driven out: a mount in use gets one attempt and stays, one that is
    free is unmounted; the label link goes in any case."""
    vm, first, second, whole = mounted
    pid = hold(vm, "cwd", "/mnt/" + first)
    daemon = vm.daemon(["--nfsx"])
    vm.request("list")
    began = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - began < 10
    assert alive(vm, pid) and said_of(vm, pid) == []
    mounts = vm.text("/proc/mounts")
    assert "/mnt/%s " % first in mounts
    assert "/mnt/%s " % second not in mounts and "/mnt/%s " % whole not in mounts
    assert vm.sh("ls -A /mnt").out == first + "\n"
    assert "killing" not in daemon.err() and "cannot unmount" not in daemon.err()


@pytest.mark.long
def test_housekeeping_of_mnt(mounted):
    """Empty folders of /mnt that nothing is mounted on go 15 seconds after their last change,
    dangling links at once; folders with content, mounts and files stay."""
    vm, first, second, whole = mounted
    vm.sh("""cd /mnt && mkdir new old full .hidden sdz1 && touch full/x file && ln -s gone dangling
touch -d '20 sec ago' old full .hidden sdz1 file /mnt/%s""" % first)
    vm.daemon()
    vm.wait_until(lambda: vm.sh("[ -e /mnt/old ]", check=False).rc == 1, 10)
    left = set(vm.sh("ls -A /mnt").out.split())
    assert left == {"new", "full", ".hidden", "file", first, second, whole,
                    "^ONE", "^TWO", "^WHOLE"}
    vm.sh("date -s '+16 sec'")
    vm.wait_until(lambda: vm.sh("[ -e /mnt/new ]", check=False).rc == 1, 10)
    assert set(vm.sh("ls -A /mnt").out.split()) == left - {"new"}
