"""Drives that fail: unreadable ones, ones that break while they are in use, ones that are slow or
give no answer at all, and more of them at once than anybody owns."""
import os
import threading
import time

import pytest

from expected import difference, wait_for_agreement
from mounts import entries_of_mnt, mounted_as, reply_to
from rig import Disk

DISKS = [Disk("virtio-scsi", 64 << 20, id="below"), Disk("virtio-scsi", 32 << 20, id="sound")]
MOUNTED = "OK mount succeeded\n\n"
UNMOUNTED = "OK unmount succeeded\n"
NO_ROW = None


class Volume:
    """A device-mapper volume over a drive, which a test lets fail. Its name is dm-N."""

    def __init__(self, vm, kind="ext4"):
        self.vm, self.below = vm, vm.node("below")
        self.sectors = int(vm.text("/sys/block/%s/size" % self.below))
        vm.sh("modprobe -a dm_mod dm_delay; mkfs.%s -q -L VOLUME /dev/%s" % (kind, self.below))
        vm.sh("dmsetup --noudevsync create volume --table '%s' && dmsetup mknodes" % self.linear())
        self.name = os.path.basename(vm.sh("readlink -f /dev/mapper/volume; ls -d /sys/block/dm-*")
                                     .out.split()[-1])

    def linear(self, first=0):
        return "%d %d linear /dev/%s %d" % (first, self.sectors - first, self.below, first)

    def becomes(self, *lines):
        """From now on it is what these lines of a table say. What was on its way gets there."""
        self.vm.sh("dmsetup suspend --nolockfs volume && dmsetup --noudevsync load volume <<E\n"
                   "%s\nE\ndmsetup --noudevsync resume volume" % "\n".join(lines))

    def stand_still(self):
        """Whoever reads or writes waits, until go_on."""
        self.vm.sh("dmsetup suspend --noflush --nolockfs volume")

    def go_on(self):
        self.vm.sh("dmsetup --noudevsync resume volume")


def row(vm, name):
    """The fields of a device in the list, or None."""
    return next((fields for fields in (line.split("\t") for line in
                                       vm.request("list", timeout=40).splitlines())
                 if name in fields[:3]), NO_ROW)


def test_unreadable_start(fresh):
    """Of a volume whose first megabyte cannot be read the list says that it is there, and no more;
    a mount is tried and refused, and nothing stays mounted or hangs."""
    volume = Volume(fresh)
    volume.becomes("0 2048 error", volume.linear(2048))
    daemon = fresh.daemon()
    assert row(fresh, volume.name)[4:5] + row(fresh, volume.name)[-1:] == ["", " "]
    reply, lines = reply_to(fresh, daemon, "mount rw " + volume.name, timeout=60)
    assert reply == "ERR mount failed\n" and any("failed: " in line for line in lines)
    assert mounted_as(fresh, volume.name) is None and not difference(fresh)
    # Its folder stays for the housekeeping, fifteen seconds or longer.
    assert daemon.stop() == 0 and set(entries_of_mnt(fresh)) <= {volume.name}


@pytest.mark.long
def test_drive_breaks_while_in_use(fresh):
    """A volume that breaks while it is written to stays in the list and can be unmounted; when it
    works again, it mounts again, and what had been synced is there."""
    volume, daemon = Volume(fresh), fresh.daemon()
    assert fresh.request("mount rw " + volume.name) == MOUNTED
    fresh.sh("cd /mnt/%s && echo kept >file && sync -f file" % volume.name)
    before = row(fresh, volume.name)
    volume.becomes("0 %d error" % volume.sectors)
    assert fresh.sh("echo lost >/mnt/%s/other && sync -f /mnt/%s" % (volume.name, volume.name),
                    check=False).rc != 0
    assert row(fresh, volume.name) == before
    assert fresh.request("mount rudeoff " + volume.name, timeout=40) == UNMOUNTED
    assert fresh.request("mount rw " + volume.name, timeout=60).startswith("ERR ")
    volume.becomes(volume.linear())
    assert fresh.request("mount rw " + volume.name, timeout=60) == MOUNTED
    assert fresh.text("/mnt/%s/file" % volume.name) == "kept\n"
    assert daemon.stop() == 0 and entries_of_mnt(fresh) == {}


@pytest.mark.long
def test_drive_breaks_before_the_end(fresh):
    """The daemon's end unmounts a volume that does not work any more like any other."""
    volume, daemon = Volume(fresh), fresh.daemon()
    assert fresh.request("mount rw " + volume.name) == MOUNTED
    fresh.sh("echo unsynced >/mnt/%s/file" % volume.name)
    volume.becomes("0 %d error" % volume.sectors)
    assert daemon.stop(60) == 0
    assert mounted_as(fresh, volume.name) is None and entries_of_mnt(fresh) == {}


def going_on_after(volume, seconds, request):
    """Makes a request of a volume that stands still and goes on so many seconds later, not before
    which there is an answer, which is returned."""
    volume.stand_still()
    waker = threading.Timer(seconds, volume.go_on)
    began = time.monotonic()
    waker.start()
    answer = request()
    assert time.monotonic() - began > seconds - 0.5
    waker.join()
    return answer


@pytest.mark.long
def test_drive_that_stands_still(fresh):
    """A known volume that gives no answer costs the listings and the other drives nothing; who
    asks for that volume waits until it goes on, and then gets what he asked for."""
    volume, daemon = Volume(fresh), fresh.daemon()
    sound = fresh.node("sound")
    fresh.sh("mkfs.ext4 -q -L SOUND /dev/" + sound)
    assert fresh.request("mount rw " + volume.name) == MOUNTED
    fresh.sh("echo written >/mnt/%s/file" % volume.name)
    fresh.request("list")
    volume.stand_still()
    began = time.monotonic()
    for _ in range(3):
        assert row(fresh, volume.name)[4] == "VOLUME"
    assert fresh.request("mount rw " + sound) == MOUNTED
    assert fresh.request("umount " + sound) == UNMOUNTED
    assert time.monotonic() - began < 10
    assert going_on_after(volume, 3, lambda: fresh.request("umount " + volume.name,
                                                           timeout=40)) == UNMOUNTED
    assert daemon.alive() and not difference(fresh) and entries_of_mnt(fresh) == {}


@pytest.mark.long
def test_drive_that_stands_still_at_the_end(fresh):
    """The daemon's end waits for a volume that has something to write and gives no answer, and
    loses nothing of it."""
    volume, daemon = Volume(fresh), fresh.daemon()
    assert fresh.request("mount rw " + volume.name) == MOUNTED
    fresh.sh("echo written >/mnt/%s/file" % volume.name)
    assert going_on_after(volume, 4, lambda: daemon.stop(60)) == 0
    assert entries_of_mnt(fresh) == {}
    fresh.sh("mount /dev/%s /mnt" % volume.name)
    assert fresh.text("/mnt/file") == "written\n"
    fresh.sh("umount /mnt")


@pytest.mark.long
def test_mount_of_a_drive_that_stands_still(fresh):
    """Who wants a volume mounted that gives no answer waits until it does, and then has it."""
    volume, daemon = Volume(fresh), fresh.daemon()
    fresh.request("list")
    assert going_on_after(volume, 3, lambda: fresh.request("mount rw " + volume.name,
                                                           timeout=60)) == MOUNTED
    assert mounted_as(fresh, volume.name) == ("ext4", "rw")
    assert daemon.stop(60) == 0 and entries_of_mnt(fresh) == {}


@pytest.mark.long
def test_first_look_at_a_drive_that_stands_still(fresh):
    """The daemon's first look at a volume waits for it; then everything goes its way."""
    volume = Volume(fresh)
    daemon = going_on_after(volume, 3, lambda: fresh.daemon(timeout=60))
    fresh.wait_until(lambda: row(fresh, volume.name)[4] == "VOLUME", 20)
    assert daemon.alive() and not difference(fresh)


@pytest.mark.long
def test_slow_drive(fresh):
    """A volume that needs a tenth of a second for everything is listed, mounted, written to and
    unmounted, by request and at the end, like any other. (Of one that is slower by far nobody
    learns the label: the probe gives up after five seconds.)"""
    volume = Volume(fresh)
    volume.becomes("0 %d delay /dev/%s 0 100" % (volume.sectors, volume.below))
    daemon = fresh.daemon()
    assert row(fresh, volume.name)[4] == "VOLUME"
    assert fresh.request("mount rw " + volume.name, timeout=60) == MOUNTED
    assert mounted_as(fresh, volume.name) == ("ext4", "rw")
    began = time.monotonic()
    fresh.sh("echo written >/mnt/%s/file && sync -f /mnt/%s/file" % (volume.name, volume.name))
    assert time.monotonic() - began > 0.1              # it is slow
    assert fresh.request("umount " + volume.name, timeout=60) == UNMOUNTED
    assert fresh.request("mount rw " + volume.name, timeout=60) == MOUNTED
    assert fresh.text("/mnt/%s/file" % volume.name) == "written\n"
    fresh.sh("echo more >>/mnt/%s/file" % volume.name)
    assert daemon.stop(60) == 0 and entries_of_mnt(fresh) == {}
    volume.becomes(volume.linear())
    fresh.sh("mount /dev/mapper/volume /mnt")
    assert fresh.text("/mnt/file") == "written\nmore\n"
    fresh.sh("umount /mnt")


CONTROL = "/sys/bus/pseudo/drivers/scsi_debug/"


@pytest.fixture
def debug_drive(fresh):
    """The name of a SCSI drive that fails as its driver is told, with an ext4 labelled DEBUG."""
    before = set(fresh.sh("ls /sys/block").out.split())
    fresh.sh("modprobe scsi_debug dev_size_mb=48 && until [ $(ls /sys/block | wc -l) -gt %d ]; do "
             "sleep 0.1; done" % len(before))
    name = (set(fresh.sh("ls /sys/block").out.split()) - before).pop()
    fresh.sh("until [ -b /dev/%s ]; do sleep 0.1; done; mkfs.ext4 -q -N 128 -L DEBUG /dev/%s && "
             "echo 2 >/sys/block/%s/device/timeout" % (name, name, name))
    yield name
    fresh.sh("echo 0 >%sopts; echo 0 >%severy_nth; umount /mnt/%s; rmmod scsi_debug"
             % (CONTROL, CONTROL, name), check=False)


@pytest.mark.long
def test_sectors_that_cannot_be_read(fresh, debug_drive):
    """A drive some of whose sectors are worn out is listed, mounted and written to; who reads these
    sectors is told, and it can be let go of like any other."""
    name, daemon = debug_drive, fresh.daemon()
    assert fresh.request("mount rw " + name) == MOUNTED
    fresh.sh("cd /mnt/%s && head -c 30M /dev/zero >file && sync -f file && echo kept >other && "
             "sync -f other && echo 3 >/proc/sys/vm/drop_caches && echo 2 >%sopts"
             % (name, CONTROL))                        # from sector 0x1234 on, ten of them
    assert fresh.sh("cat /mnt/%s/file >/dev/null" % name, check=False, timeout=100).rc != 0
    assert row(fresh, name)[4] == "DEBUG"
    assert fresh.text("/mnt/%s/other" % name) == "kept\n"
    fresh.sh("echo more >>/mnt/%s/other && sync -f /mnt/%s/other" % (name, name))
    assert fresh.request("umount " + name, timeout=60) == UNMOUNTED
    assert fresh.request("mount ro " + name, timeout=60) == MOUNTED
    assert fresh.text("/mnt/%s/other" % name) == "kept\nmore\n"
    assert daemon.stop(60) == 0 and entries_of_mnt(fresh) == {}


@pytest.mark.long
def test_drive_whose_commands_time_out(fresh, debug_drive):
    """A mounted SCSI drive that lets every command time out makes the daemon wait as long as the
    kernel does, and comes back when it answers again."""
    name, control, daemon = debug_drive, CONTROL, fresh.daemon()
    assert fresh.request("mount rw " + name) == MOUNTED
    fresh.sh("echo kept >/mnt/%s/file && sync -f /mnt/%s && echo 3 >/proc/sys/vm/drop_caches && "
             "echo 1 >%severy_nth && echo 4 >%sopts" % (name, name, control, control))
    assert row(fresh, name)[4] == "DEBUG"
    began = time.monotonic()
    fresh.request("refresh", timeout=600)               # the kernel tries each read again and again
    assert fresh.request("umount " + name, timeout=600) == UNMOUNTED
    waited = time.monotonic() - began
    print("refreshed and unmounted after %.0f s" % waited)
    assert waited > 2                                   # at least one command has timed out
    fresh.sh("echo 0 >%sopts && echo 0 >%severy_nth && echo running >/sys/block/%s/device/state"
             % (control, control, name))
    assert fresh.request("mount ro " + name, timeout=60) == MOUNTED
    assert fresh.text("/mnt/%s/file" % name) == "kept\n"
    assert daemon.stop(60) == 0 and entries_of_mnt(fresh) == {}


@pytest.mark.long
def test_end_while_commands_time_out(fresh, debug_drive):
    """The end of the daemon lets go of a drive that lets every command time out."""
    name, daemon = debug_drive, fresh.daemon()
    assert fresh.request("mount rw " + name) == MOUNTED
    fresh.sh("echo unsynced >/mnt/%s/file && echo 1 >%severy_nth && echo 4 >%sopts"
             % (name, CONTROL, CONTROL))
    assert daemon.stop(300) == 0
    assert mounted_as(fresh, name) is None and entries_of_mnt(fresh) == {}


@pytest.mark.long
@pytest.mark.parametrize("mode", ["hotplug", "polling"])
def test_storm_of_events(fresh, mode):
    """Twenty-four drives that come at once and go at once, and hundreds of events that mean nothing
    between: clients are served meanwhile, and in the end the list agrees with /sys/block."""
    fresh.udevd()
    daemon = fresh.daemon(["--" + mode])
    before = fresh.request("list")
    slowest = 0
    for command in ("modprobe scsi_debug dev_size_mb=8 num_tgts=6 max_luns=4",
                    "for n in $(seq 5); do udevadm trigger --action=change -s block; "
                    "udevadm trigger --action=add -s block; done", "rmmod scsi_debug"):
        done = []
        worker = threading.Thread(target=lambda: done.append(fresh.sh(command, 200)))
        worker.start()
        while worker.is_alive():
            began = time.monotonic()
            assert fresh.request("help", timeout=60).startswith("OK")
            slowest = max(slowest, time.monotonic() - began)
        assert done, command
        fresh.sh("udevadm settle --timeout=100", 120)
        if command.startswith("modprobe"):
            fresh.wait_until(lambda: fresh.sh("ls /sys/block | grep -c ^sd", check=False).out
                             .strip() == "26", 60)
        fresh.wait_until(lambda: not difference(fresh), 90, lambda: difference(fresh))
    print("the longest answer took %.1f s" % slowest)
    assert slowest < 20
    wait_for_agreement(fresh)
    assert fresh.request("list") == before and daemon.alive() and "BUG" not in daemon.err()
