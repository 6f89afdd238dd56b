"""Hours of a machine's life in minutes: drives are plugged, mounted, filled, fought for and pulled
at random, and after every step the daemon, the kernel and /mnt have to tell the same story."""
import os
import random
import re
import time

from expected import SOON, VOCABULARY, difference, wait_for_agreement
from holders import hold
from mounts import entries_of_mnt, mounted_as
from rig import Disk, images

# It goes on until each kind of step was done, and for so many seconds.
SECONDS = float(os.environ.get("QUARRYD_ENDURANCE_SECONDS", 0))
SEED = int(os.environ.get("QUARRYD_ENDURANCE_SEED", 20))
# Bus, filesystem, and whether it is in a partition.
STICKS = {"alpha": ("usb", "ext4", False), "beta": ("usb", "vfat", False),
          "gamma": ("virtio-scsi", "ext4", True), "delta": ("nvme", "xfs", False)}
HOLDERS = ("cwd", "file", "writer", "stubborn", "stopped")


_disks = {}


def drives(folder):
    """None of them is in the machine when it starts."""
    for id, (bus, kind, in_partition) in STICKS.items():
        path, size = os.path.join(folder, id), "320M" if kind == "xfs" else "40M"
        image = (images.disk(path, "48M", [(size, "83", kind, id.upper())]) if in_partition else
                 images.fs(path, size, kind, id.upper()))
        _disks[id] = Disk(bus, image, id=id)
    return []


class Stick:
    """What must be true of one drive. files: {name: checksum} of what was synced to it."""

    def __init__(self, vm, id):
        self.vm, self.id, self.label = vm, id, id.upper()
        self.bus, self.kind, self.in_partition = STICKS[id]
        self.name = None                 # the kernel's, of what is mounted, while it is plugged
        self.mode = None                 # "ro" or "rw", while it is mounted
        self.files, self.written = {}, 0
        self.holders = {}                # pid: how

    def writers(self):
        return [pid for pid, how in self.holders.items() if how == "writer"]

    def folder(self):
        return "/mnt/" + self.name


class Life:
    """The steps. Each does one thing to one stick and writes down what must be true now."""

    def __init__(self, vm, chance):
        self.vm, self.chance = vm, chance
        self.daemon, self.cpu = vm.daemon(["--hotplug"]), 0.0
        self.sticks = [Stick(vm, id) for id in STICKS]
        self.story = []
        self.missing = set(KINDS)

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
        """What was not done yet goes first, or what leads there; then it is all chance."""
        choices = [(step, stick) for stick in self.sticks for step in self.possible(stick)]
        if not any(stick.holders for stick in self.sticks):
            choices.append((self.restart, self.sticks[0]))
        choices.append((self.ask, self.sticks[0]))
        news = [choice for choice in choices if kind_of(*choice) in self.missing]
        if self.missing and not news:
            news = [choice for choice in choices
                    if choice[0] in (self.plug, self.mount, self.be_held)]
        step, stick = self.chance.choice(news or choices)
        self.missing.discard(kind_of(step, stick))
        self.story.append("%s %s %s %s %s" % (kind_of(step, stick), stick.id, stick.name,
                                              stick.mode, sorted(stick.holders.values())))
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
        # A drive that somebody has just opened is not looked into, and tells nothing.
        self.vm.wait_until(lambda: all(self.told_of(stick) == self.truth_of(stick)
                                       for stick in self.sticks if stick.name), SOON,
                           lambda: self.vm.request("list"))

    def told_of(self, stick):
        """Label, size and filesystem, as the list has them."""
        rows = [line.split("\t") for line in self.vm.request("list", timeout=40).splitlines()]
        row = next(fields for fields in rows if stick.name in fields[1:3])
        first = row.index(stick.name)
        return row[first + 3], row[first + 4], row[first + 8]

    def truth_of(self, stick):
        sectors = int(self.vm.text("/sys/class/block/%s/size" % stick.name))
        return stick.label, str(512 * sectors), VOCABULARY.get(stick.kind, stick.kind)

    def restart(self, _):
        """An orderly end lets go of everything, and the next daemon finds everything again."""
        self.cpu += cpu_seconds(self.daemon)
        assert self.daemon.stop(60) == 0
        assert "/mnt/" not in self.vm.text("/proc/mounts") and entries_of_mnt(self.vm) == {}
        for stick in self.sticks:
            stick.mode = None
        self.daemon = self.vm.daemon(["--hotplug"])
        wait_for_agreement(self.vm)

    def plug(self, stick):
        self.vm.plug(_disks[stick.id])
        stick.name = (self.vm.parts(stick.id, 1)[0] if stick.in_partition
                      else self.vm.node(stick.id))
        wait_for_agreement(self.vm)

    def pull(self, stick):
        self.vm.unplug(stick.id)
        wait_for_agreement(self.vm)
        self.is_released(stick)
        stick.name = None

    def is_released(self, stick):
        """It is not mounted any more, and nobody holds it."""
        stick.mode = None
        for pid in stick.holders:
            self.vm.wait_until(lambda: self.vm.sh("[ -e /proc/%s ]" % pid, check=False).rc, 30,
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
            for pid in writable:
                self.vm.wait_until(lambda: self.vm.sh("[ -e /proc/%s ]" % pid, check=False).rc, 30,
                                   "the end of %s" % pid)
                del stick.holders[pid]
        stick.mode = "ro"

    def unmount(self, stick):
        if stick.holders:
            self.request("umount " + stick.name, r"ERR unmount failed\n")
        else:
            self.request("umount ^" + stick.label, r"OK unmount succeeded\n")
            stick.mode = None
            self.is_sound(stick)

    def is_sound(self, stick):
        """What is not mounted any more is as it should be, without a repair."""
        checker = {"ext4": "e2fsck -fn", "xfs": "xfs_repair -n"}.get(stick.kind)
        if checker:
            self.vm.sh("%s /dev/%s >/run/rig/fsck 2>&1 || { cat /run/rig/fsck; false; }"
                       % (checker, stick.name))

    def unmount_again(self, stick):
        self.request("umount " + stick.name, r"OK its not mounted anyway\n")

    def unmount_rudely(self, stick):
        self.request("mount rudeoff " + stick.name, r"OK unmount succeeded\n")
        self.is_released(stick)
        self.is_sound(stick)

    def write(self, stick):
        stick.written += 1
        file = "file%d" % (stick.written % 6)
        size = self.chance.choice([1, 4096, 100000, 1 << 20])
        out = self.vm.sh("cd %s && head -c %d /dev/urandom >%s && sync -f %s && sha1sum <%s"
                         % (stick.folder(), size, file, file, file)).out
        stick.files[file] = out.split()[0]

    def fill(self, stick):
        """Not a byte is free, then all are again."""
        self.vm.sh("cd %s; ! cat /dev/zero >filler; rm filler; sync -f ." % stick.folder(),
                   timeout=200)

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
        # Each once, and nowhere else.
        mounts = re.findall(r"^(\S+) /mnt/(\S+) ", self.vm.text("/proc/mounts"), re.M)
        assert sorted(mounts) == sorted(("/dev/" + name, name)
                                        for name, target in links.items() if not target)


def kind_of(step, stick):
    """A step's name and what makes it another one: that the stick is mounted, or held."""
    state = (" held" if stick.holders else " mounted" if stick.mode else "")
    return step.__name__ + (state if step.__name__ in ("pull", "unmount_rudely") else "")


KINDS = ("plug", "mount", "remount", "remount_rudely", "unmount", "unmount_again", "write", "fill",
         "be_held", "read_again", "ask", "restart", "unmount_rudely held", "pull", "pull mounted",
         "pull held")


# Of a daemon without clients: its streams, the socket that it listens on, the system log.
DESCRIPTORS = ["/dev/null", "/run/rig/daemonN.err", "/run/rig/daemonN.out", "socket:[N]",
               "socket:[N]"]


def descriptors(daemon):
    """What is open, but for the numbers of sockets."""
    return sorted(re.sub(r"\d+", "N", line) for line in daemon.vm.sh(
        "for fd in /proc/%d/fd/*; do readlink $fd; done" % daemon.pid).out.splitlines())


def cpu_seconds(daemon):
    """Its own, without its children's."""
    fields = daemon.vm.text("/proc/%d/stat" % daemon.pid).rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / 100


def children(daemon):
    return daemon.vm.sh("cat /proc/%d/task/*/children" % daemon.pid).out.split()


# What the kernel says of a filesystem that was written wrongly, or of a task that waits for ever.
KERNEL_COMPLAINTS = re.compile(
    "blocked for more than|BUG:|Oops|[Cc]hecksum error|[Cc]orruption detected")


def resident_kilobytes(daemon):
    return int(re.search(r"VmRSS:\s+(\d+)", daemon.vm.text("/proc/%d/status" % daemon.pid))[1])


def test_registry_mounts_and_files_stay_true(fresh):
    """Whatever happens to four drives, and in whatever order: the list is what /sys/block says,
    what is mounted is what was asked for, /mnt holds its folders and links and nothing else, who
    was driven out is gone and who was not is there, and every synced file has its bytes."""
    fresh.udevd()
    life = Life(fresh, random.Random(SEED))
    life.check()
    began, memory = time.monotonic(), {}
    try:
        while life.missing or time.monotonic() - began < SECONDS:
            life.step()
            memory.setdefault(life.daemon.pid, []).append(resident_kilobytes(life.daemon))
            assert len(life.story) < 200 or not life.missing, life.missing
    except BaseException:
        print("%d steps, the last of them:\n%s" % (len(life.story), "\n".join(life.story[-40:])))
        raise
    steps = [line.split()[0] for line in life.story]
    cpu = life.cpu + cpu_seconds(life.daemon)
    print("%d steps in %.0f s: %s\nresident KiB of each daemon: %s; %.0f s of CPU time" % (
        len(steps), time.monotonic() - began, ", ".join(
            "%s %d" % (name, steps.count(name)) for name in sorted(set(steps))),
        ", ".join("%d to %d in %d steps" % (sizes[0], max(sizes), len(sizes))
                  for sizes in memory.values()), cpu))
    fresh.wait_until(lambda: descriptors(life.daemon) == DESCRIPTORS, SOON,     # the last client's
                     lambda: descriptors(life.daemon))
    fresh.wait_until(lambda: not children(life.daemon), SOON, "the end of its children")
    for sizes in memory.values():           # the first steps bring what it needs
        assert max(sizes[20:], default=0) < max(sizes[:20]) + 200
    assert cpu < 0.5 * (time.monotonic() - began)
    said = fresh.sh("dmesg").out
    assert not KERNEL_COMPLAINTS.search(said), said[-5000:]
    assert life.daemon.stop(60) == 0
    assert "/mnt/" not in fresh.text("/proc/mounts") and entries_of_mnt(fresh) == {}
