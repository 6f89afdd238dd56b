"""Hours of a machine's life in minutes: drives are plugged, mounted, filled, fought for and pulled
at random, and after every step the daemon, the kernel and /mnt have to tell the same story."""
import os
import random
import re
import time

from expected import SOON, difference, wait_for_agreement
from holders import hold
from mounts import entries_of_mnt, mounted_as
from rig import Disk, images

# It goes on for so many steps at least, and for so many seconds.
STEPS = int(os.environ.get("QUARRYD_ENDURANCE_STEPS", 10))
SECONDS = float(os.environ.get("QUARRYD_ENDURANCE_SECONDS", 0))
SEED = int(os.environ.get("QUARRYD_ENDURANCE_SEED", 20))
STICKS = {"alpha": ("usb", "ext4"), "beta": ("usb", "vfat"), "gamma": ("virtio-scsi", "ext4"),
          "delta": ("nvme", "xfs")}
HOLDERS = ("cwd", "file", "writer", "stubborn", "stopped")


_disks = {}


def drives(folder):
    """None of them is in the machine when it starts."""
    for id, (bus, kind) in STICKS.items():
        image = images.fs(os.path.join(folder, id), "320M" if kind == "xfs" else "40M", kind,
                          id.upper())
        _disks[id] = Disk(bus, image, id=id)
    return []


class Stick:
    """What must be true of one drive. files: {name: checksum} of what was synced to it."""

    def __init__(self, vm, id):
        self.vm, self.id, self.label = vm, id, id.upper()
        self.bus, self.kind = STICKS[id]
        self.name = None                 # the kernel's name, while it is plugged
        self.mode = None                 # "ro" or "rw", while it is mounted
        self.files, self.written = {}, 0
        self.holders = {}                # pid: how

    def writers(self):
        return [pid for pid, how in self.holders.items() if how == "writer"]

    def folder(self):
        return "/mnt/" + self.name


class Life:
    """The steps. Each does one thing to one stick and writes down what must be true now."""

    def __init__(self, vm, daemon, chance):
        self.vm, self.daemon, self.chance = vm, daemon, chance
        self.sticks = [Stick(vm, id) for id in STICKS]
        self.story = []

    def possible(self, stick):
        """The steps that make sense for a stick as it is, the frequent ones more than once."""
        if stick.name is None:
            return [self.plug]
        if stick.mode is None:
            return [self.mount, self.mount, self.mount, self.pull, self.unmount_again]
        steps = [self.remount, self.unmount, self.unmount_rudely, self.pull, self.remount_rudely,
                 self.read_again]
        if stick.mode == "rw":
            steps += [self.write, self.write, self.write, self.fill]
            if not stick.holders:
                steps += [self.be_held, self.be_held]
        return steps

    def step(self):
        stick = self.chance.choice(self.sticks)
        step = self.chance.choice(self.possible(stick) + [self.ask] * (self.chance.random() < .2))
        self.story.append("%s %s %s %s %s" % (step.__name__, stick.id, stick.name, stick.mode,
                                              sorted(stick.holders.values())))
        step(stick)
        self.check()

    def request(self, text, reply):
        answer = self.vm.request(text, timeout=40)
        assert re.fullmatch(reply, answer), (text, answer)

    def ask(self, stick):
        """Clients of every kind, and the modes in turn."""
        for text in ("list", "list human", "enumerate", "refresh"):
            self.request(text, r"(?s)OK.*")
        self.request(self.chance.choice(["polling", "hotplug"]), r"OK.*\n")
        self.request("mount rw nonsense", r"ERR device does not exist .*\n")

    def plug(self, stick):
        self.vm.plug(_disks[stick.id])
        wait_for_agreement(self.vm)
        stick.name = self.vm.node(stick.id)

    def pull(self, stick):
        self.vm.unplug(stick.id)
        wait_for_agreement(self.vm)
        self.is_released(stick)
        stick.name = None

    def is_released(self, stick):
        """It is not mounted any more, and nobody holds it."""
        stick.mode = None
        for pid in stick.holders:
            self.vm.wait_until(lambda: self.vm.sh("[ -e /proc/%s ]" % pid, check=False).rc, 5,
                               "the end of %s" % pid)
        stick.holders.clear()

    def mount(self, stick):
        stick.mode = self.chance.choice(["ro", "rw", "rw"])
        who = self.chance.choice([stick.name, "/dev/" + stick.name, "^" + stick.label])
        self.request("mount %s %s" % (stick.mode, who), r"OK mount succeeded\n\n")

    def remount(self, stick):
        mode = self.chance.choice(["ro", "rw"])
        if mode == stick.mode:
            self.request("mount %s %s" % (mode, stick.name), r"OK already mounted .*\n")
        elif mode == "ro" and stick.writers():
            self.request("mount ro " + stick.name, r"ERR cannot remount\n")
        else:
            self.request("mount %s %s" % (mode, stick.name), r"OK remounted as .*\n")
            stick.mode = mode

    def remount_rudely(self, stick):
        """Who could write is driven out; the others stay."""
        writable = [pid for pid, how in stick.holders.items()
                    if how in ("writer", "file", "stopped")]
        self.request("mount rudero " + stick.name,
                     r"OK already .*\n" if stick.mode == "ro" else r"OK remounted as r/o\n")
        if stick.mode == "rw":
            for pid in stick.writers():
                self.vm.wait_until(lambda: self.vm.sh("[ -e /proc/%s ]" % pid, check=False).rc, 5)
            for pid in writable:
                if self.vm.sh("[ -e /proc/%s ]" % pid, check=False).rc:
                    del stick.holders[pid]
        stick.mode = "ro"

    def unmount(self, stick):
        if stick.holders:
            self.request("umount " + stick.name, r"ERR unmount failed\n")
        else:
            self.request("umount ^" + stick.label, r"OK unmount succeeded\n")
            stick.mode = None

    def unmount_again(self, stick):
        self.request("umount " + stick.name, r"OK its not mounted anyway\n")

    def unmount_rudely(self, stick):
        self.request("mount rudeoff " + stick.name, r"OK unmount succeeded\n")
        self.is_released(stick)

    def write(self, stick):
        stick.written += 1
        file = "file%d" % (stick.written % 6)
        size = self.chance.choice([1, 4096, 100000, 1 << 20])
        out = self.vm.sh("cd %s && head -c %d /dev/urandom >%s && sync -f %s && sha1sum <%s"
                         % (stick.folder(), size, file, file, file)).out
        stick.files[file] = out.split()[0]

    def fill(self, stick):
        """Not a byte is free, then all are again."""
        self.vm.sh("cd %s; ! cat /dev/zero >filler; rm filler; sync -f ." % stick.folder())

    def be_held(self, stick):
        how = self.chance.choice(HOLDERS)
        stick.holders[hold(self.vm, how, stick.folder())] = how

    def read_again(self, stick):
        """What was synced is on the drive, not only in memory."""
        self.vm.sh("echo 3 >/proc/sys/vm/drop_caches")

    def check(self):
        assert self.daemon.alive() and "BUG" not in self.daemon.err()
        assert not difference(self.vm)
        links = {}
        for stick in self.sticks:
            if stick.name is None:
                continue
            mount = mounted_as(self.vm, stick.name)
            assert (mount and mount[1]) == stick.mode, (stick.id, mount)
            if stick.mode:
                assert mount[0] == stick.kind
                links.update({stick.name: "", "^" + stick.label: stick.name})
                if stick.files:
                    sums = self.vm.sh("cd %s && sha1sum %s" % (
                        stick.folder(), " ".join(stick.files))).out.split()
                    assert dict(zip(sums[1::2], sums[::2])) == stick.files
            for pid in stick.holders:
                assert self.vm.sh("[ -e /proc/%s ]" % pid, check=False).rc == 0, pid
        # What dangles after a drive was pulled goes with the next housekeeping.
        self.vm.wait_until(lambda: entries_of_mnt(self.vm) == links, SOON + 5,
                           lambda: "/mnt is %s, not %s" % (entries_of_mnt(self.vm), links))
        mounts = set(re.findall(r" /mnt/(\S+) ", self.vm.text("/proc/mounts")))
        assert mounts == {name for name, target in links.items() if not target}


def descriptors(daemon):
    return daemon.vm.sh("ls /proc/%d/fd | wc -l" % daemon.pid).out.strip()


def resident_kilobytes(daemon):
    return int(re.search(r"VmRSS:\s+(\d+)", daemon.vm.text("/proc/%d/status" % daemon.pid))[1])


def test_registry_mounts_and_files_stay_true(fresh):
    """Whatever happens to four drives, and in whatever order: the list is what /sys/block says,
    what is mounted is what was asked for, /mnt holds its folders and links and nothing else, who
    was driven out is gone and who was not is there, and every synced file has its bytes."""
    fresh.udevd()
    daemon = fresh.daemon(["--hotplug"])
    life = Life(fresh, daemon, random.Random(SEED))
    life.check()
    before = descriptors(daemon)
    began = time.monotonic()
    memory = None
    try:
        while len(life.story) < STEPS or time.monotonic() - began < SECONDS:
            life.step()
            if memory is None and len(life.story) == 20:
                memory = resident_kilobytes(daemon)
    except BaseException:
        print("\n".join(life.story[-40:]))
        raise
    steps = [line.split()[0] for line in life.story]
    print("%d steps: %s" % (len(steps), ", ".join(
        "%s %d" % (name, steps.count(name)) for name in sorted(set(steps)))))
    assert descriptors(daemon) == before
    assert memory is None or resident_kilobytes(daemon) < memory + 300
    assert daemon.stop(60) == 0
    assert "/mnt/" not in fresh.text("/proc/mounts") and entries_of_mnt(fresh) == {}
