"""`quarryctl busy` on a real kernel: device numbers, swap, loop and volumes, a mount that hangs."""
import json
import os
import time

import pytest

from holders import hold
from rig import Disk, images
from test_dead_mount import DeadMount


def drives(folder):
    return [Disk("virtio-scsi", images.fs(os.path.join(folder, "good"), "48M", "ext4", "GOOD"),
                 id="good"),
            Disk("virtio-scsi", 32 << 20, id="plain"),
            Disk("virtio-scsi", images.fs(os.path.join(folder, "dead"), "32M", "ext4", "DEAD"),
                 id="dead")]


def busy(vm, word):
    """Who holds it, once nobody's memory took the client too long, as it may on a busy machine."""
    def complete():
        report = json.loads(vm.sh("timeout 15 quarryctl busy --json '%s'" % word).out)
        return not report["unread_memory"] and report
    report = vm.wait_until(complete, 30, "a report on everybody's memory")
    return report, {(holder["kind"], str(holder["pid"] or ""), holder["what"])
                    for holder in report["holders"]}


def test_everything_that_holds_a_device(fresh):
    """Processes, a nested mount, a swap file, a loop device, a swap area, a volume and another
    mount namespace are told; after a lazy unmount, that the filesystem is still in use."""
    vm = fresh
    good, plain = vm.node("good"), vm.node("plain")
    point = "/mnt/" + good
    vm.sh("""mkdir -p %(point)s /srv/volume && mount /dev/%(good)s %(point)s && cd %(point)s
cp /bin/sleep napper && mkdir inner && mount -t tmpfs inner inner
head -c 4M /dev/zero >swap && chmod 600 swap && mkswap -q swap && swapon swap
modprobe -a loop dm_mod && truncate -s 8M image && mkfs.ext4 -q image && losetup /dev/loop0 image
mkswap -q /dev/%(plain)s && swapon /dev/%(plain)s""" % locals())
    sitting, mapping = hold(vm, "cwd", point), hold(vm, "mapped", point)
    running = vm.background("exec %s/napper 1000" % point)
    apart = vm.background("exec unshare -m sleep 1000")
    # It has a namespace of its own as soon as the program has been replaced.
    vm.wait_until(lambda: "sleep" in vm.text("/proc/%s/comm" % apart), 30)
    report, holds = busy(vm, good)
    expected = {
        ("directory", sitting, point), ("mapping", mapping, point + "/held-mapped"),
        ("program", running, point + "/napper"), ("mount", "", point + "/inner"),
        ("swap", "", point + "/swap"), ("loop", "", "loop0"), ("namespace", "", point)}
    assert holds == expected
    assert report["devices"][0]["cleared"] == point
    assert {str(holder["pid"]) for holder in report["holders"] if holder["ended_by"]} == {
        sitting, running}
    assert busy(vm, "/dev/loop0")[1] == set()
    assert busy(vm, plain)[1] == {("swap", "", "/dev/" + plain)}

    vm.sh("swapoff /dev/%s && dmsetup --noudevsync create vault --table '0 40000 linear /dev/%s 0' "
          "&& dmsetup mknodes && mkfs.ext4 -q /dev/mapper/vault && mount /dev/mapper/vault "
          "/srv/volume" % (plain, plain))
    report, holds = busy(vm, plain)
    assert holds == {("stacked", "", "dm-0")}
    assert report["holders"][0]["more"] == "/dev/mapper/vault, mounted at /srv/volume"
    reader = hold(vm, "file", "/srv/volume")
    for word in ("dm-0", "/dev/mapper/vault", "/srv/volume"):
        report, holds = busy(vm, word)
        assert report["devices"][0]["name"] == "dm-0"
        assert holds == {("file", reader, "/srv/volume/held-file")}
        assert report["devices"][0]["cleared"] is None  # the daemon knows it by another name

    vm.sh("kill %s; swapoff %s/swap; losetup -d /dev/loop0; umount %s/inner; umount -l %s" % (
        apart, point, point, point))
    vm.wait_until(lambda: vm.sh("[ -e /proc/%s ]" % apart, check=False).rc == 1, 30)
    report, holds = busy(vm, good)
    assert report["devices"][0]["mounts"] == [] and report["devices"][0]["active_unmounted"]
    assert {(kind, pid) for kind, pid, _what in holds} == {
        ("mapping", mapping), ("mapping", running)}
    assert "its filesystem is in use" in vm.sh("quarryctl busy " + good).out


@pytest.mark.long
def test_a_mount_that_hangs(fresh):
    """Nobody waits for a server that never answers, though processes do, and its holders are told,
    by the device, the mount point and the label."""
    vm = fresh
    name = vm.node("dead")
    dead = DeadMount(vm, name)
    stuck = vm.background("exec cat /mnt/%s/file" % name)
    began = time.monotonic()
    for word in (name, "/mnt/" + name, "^DEAD"):
        report, holds = busy(vm, word)
        assert holds == {("directory", dead.folder_holder, "/mnt/" + name),
                         ("file", dead.file_holder, "/mnt/%s/file" % name)}
    assert time.monotonic() - began < 15
    assert vm.sh("[ -e /proc/%s ]" % stuck, check=False).rc == 0
