"""The main partition from power-on to the end: found by what is on it, published, given back."""
import os
import signal
import time

import pytest

import main_partition as main
from rig import GUEST, Disk, images

HERE = os.path.dirname(os.path.abspath(__file__))
BUSES = ("sata", "usb", "nvme", "virtio-scsi", "sd")


def drives(folder):
    """A drive on each bus; the signature and the label of its ext4 partition name the bus. Before
    that of the SATA drive is a FAT partition; the SCSI drive has no partition table."""
    disks = []
    for bus in BUSES:
        path = os.path.join(folder, bus)
        files = {".claimsig": bus + "\n", "swap.img": main.unformatted_swap()}
        if bus == "virtio-scsi":
            images.fs(path, "64M", "ext4", bus, files)
        else:
            others = [("10M", "c", "vfat", "PLAIN")] if bus == "sata" else []
            images.disk(path, "64M", others + [(None, "83", "ext4", bus, files)])
        disks.append(Disk(bus, path, id=bus))
    return disks


def candidate(vm, bus):
    """The device of a drive that may be the main partition."""
    return vm.node(bus) if bus == "virtio-scsi" else vm.parts(bus, 1 + (bus == "sata"))[-1]


def on_partition(vm, name, commands):
    """Runs commands in the root directory of a partition that is mounted for that alone."""
    vm.sh("set -e; mkdir -p /srv/hand; mount -o usrquota,grpquota /dev/%s /srv/hand; "
          "cd /srv/hand\n%s\ncd /; umount /srv/hand" % (name, commands))


def sysfs_path(vm, name):
    """A device's path as the kernel gives it with its events."""
    return vm.sh("readlink -f /sys/class/block/" + name).out.strip().removeprefix("/sys")


def hold(vm, name):
    """Starts a process with an open file and its working directory on the main partition."""
    return vm.background("cd /mnt/%s && exec sleep 1000 9>held" % name)


def alive(vm, pid):
    return vm.sh("[ -e /proc/%s ]" % pid, check=False).rc == 0


@pytest.fixture(autouse=True)
def everything_is_plugged_in(vm):
    """A test that failed leaves out the drive that it has pulled, which the next one wants."""
    yield
    if not vm.slots["usb"].plugged:
        vm.plug("usb")


def search_once(vm):
    """Returns when the daemon has examined every drive at least once."""
    assert vm.request("list").endswith("OK  eom\n")       # served behind a pass of the search


def is_sound(vm, name):
    return vm.sh("e2fsck -f -n /dev/" + name, check=False).rc == 0


@pytest.mark.parametrize("bus, by, quotas", [
    ("sata", "signature", 2), ("usb", "label", 2),
    pytest.param("nvme", "signature", 0, marks=pytest.mark.long),
    pytest.param("virtio-scsi", "signature", 0, marks=pytest.mark.long),
    pytest.param("sd", "label", 0, marks=pytest.mark.long)])
def test_from_start_to_end(fresh, bus, by, quotas):
    """Whichever of five drives it is on, the main partition is found by its signature or label and
    linked as /mnt/main; swap and quotas are on; then the start script runs, once. At the end the
    stop script finds all that still there; then swap is off, who is busy is driven out, and
    nothing is mounted."""
    vm, name, drive = fresh, candidate(fresh, bus), fresh.node(bus)
    path = "/mnt/" + name
    if quotas:
        on_partition(vm, name, "quotacheck -cug -F vfsv0 .")
    main.put_scripts(vm)
    daemon = vm.daemon(conf=main.conf(**{by: bus}))
    started = main.wait_for_start(vm)
    assert (started.argument, started.link, started.swaps, started.quotas) == (
        "-startup", name, [path + "/swap.img"], quotas)
    assert path in started.mounts
    assert "Found main partition on %s part %s\n" % (drive, name) in daemon.err()
    assert {"rw", "nosuid", "nodev"} <= main.options_of(vm, path)
    if quotas:
        vm.sh("setquota -u guest 0 100 0 0 %s; install -d -o guest %s/home" % (path, path))
        over = vm.sh("setpriv --reuid=%d --clear-groups dd if=/dev/zero of=%s/home/file bs=1K "
                     "count=200" % (GUEST, path), check=False)
        assert over.rc != 0 and "quota exceeded" in over.err
    holder = hold(vm, name)
    assert daemon.stop() == 0
    started_once, ended = main.runs(vm)
    assert started_once == started and ended.argument == "-shutdown"
    assert (ended.link, ended.swaps, ended.mounts, ended.quotas) == (
        started.link, started.swaps, started.mounts, started.quotas)
    assert not alive(vm, holder) and main.nothing_left(vm) and is_sound(vm, name)


@pytest.mark.parametrize("nfsx", [False, True], ids=["", "nfsx"])
def test_end_with_everything_in_use(fresh, nfsx):
    """A stop script that hangs gets its five seconds; a process that ignores SIGTERM and a child
    that the start script has left behind are driven out. With --nfsx nobody is; the mount in use
    stays, but swap is off and /mnt/main gone."""
    vm, name = fresh, candidate(fresh, "usb")
    main.put_scripts(vm, start="cd /mnt/main; sleep 1000 & echo $! >/run/rig/left\n",
                     stop="" if nfsx else "exec sleep 1000\n")
    daemon = vm.daemon(["--nfsx"] if nfsx else [], conf=main.conf("usb"))
    main.wait_for_start(vm)
    daemon.wait_err(" died\n")
    left = vm.text("/run/rig/left").strip()
    stubborn = vm.background("trap '' TERM; cd /mnt/%s && exec sleep 1000" % name)
    began = time.monotonic()
    assert daemon.stop(40) == 0
    took = time.monotonic() - began
    assert [run.argument for run in main.runs(vm)] == ["-startup", "-shutdown"]
    assert took < 25 and (nfsx or took > 4.5)
    if nfsx:
        assert alive(vm, left) and alive(vm, stubborn)
        assert main.options_of(vm, "/mnt/" + name) and main.swaps(vm) == []
        assert vm.sh("find /mnt -mindepth 1 -maxdepth 1 ! -type d").out == ""
    else:
        assert not alive(vm, left) and not alive(vm, stubborn)
        assert main.nothing_left(vm) and is_sound(vm, name)


@pytest.mark.parametrize("mode", [pytest.param("polling", marks=pytest.mark.long), "hotplug"])
def test_drive_that_arrives_later(fresh, mode):
    """Without the main partition the daemon searches on, its start script waits, and clients are
    served; when the drive comes, by polling or by notices, the main partition is taken."""
    vm = fresh
    vm.unplug("usb")
    main.put_scripts(vm)
    daemon = vm.daemon(["--" + mode], conf=main.conf("usb"))
    search_once(vm)
    assert daemon.err().count("has sig") == len(BUSES) - 1 and main.runs(vm) == []
    assert vm.sh("findmnt -n -o TARGET -l | grep ^/mnt", check=False).out == ""
    vm.plug("usb")
    name = candidate(vm, "usb")
    if mode == "hotplug":
        for device in (vm.node("usb"), name):
            assert vm.request("notify add " + sysfs_path(vm, device)).startswith("OK")
    started = main.wait_for_start(vm)
    assert (started.link, started.swaps) == (name, ["/mnt/%s/swap.img" % name])
    assert daemon.stop() == 0
    assert [run.argument for run in main.runs(vm)] == ["-startup", "-shutdown"]
    assert main.nothing_left(vm) and is_sound(vm, name)


@pytest.mark.parametrize("nfsx", [False, pytest.param(True, marks=pytest.mark.long)],
                         ids=["", "nfsx"])
def test_pulled_out_in_use(fresh, nfsx):
    """Pulled out with its swap on and processes on it, the main partition is let go: they are
    driven out, nothing of it stays below /mnt, and the daemon serves on; back in, it is not taken
    again. With --nfsx the processes stay, and the daemon serves on and ends all the same."""
    vm, name = fresh, candidate(fresh, "usb")
    main.put_scripts(vm)
    daemon = vm.daemon(["--nfsx"] if nfsx else [], conf=main.conf("usb"))
    main.wait_for_start(vm)
    holder = hold(vm, name)
    time.sleep(0.5)
    vm.unplug("usb")
    daemon.wait_err("Device %s just disappeared (polling)\n" % name)
    assert vm.request("list").endswith("OK  eom\n")
    if not nfsx:
        vm.wait_until(lambda: main.nothing_left(vm), 30,
                      lambda: daemon.err() + vm.sh("ls -lA /mnt; cat /proc/swaps /proc/mounts").out)
    assert alive(vm, holder) == nfsx
    vm.plug("usb")
    time.sleep(2)
    assert daemon.stop() == 0
    assert [run.argument for run in main.runs(vm)] == ["-startup", "-shutdown"]
    assert main.swaps(vm) == []
    if nfsx:
        vm.sh("kill %s; while [ -e /proc/%s ]; do sleep 0.1; done" % (holder, holder))
    else:
        assert main.nothing_left(vm)


@pytest.mark.long
def test_odd_things_in_the_signatures_place(fresh):
    """A FIFO, a device, a directory, or a link to a file with the right text is no signature, and
    none holds the daemon up: the partition behind them is found."""
    vm = fresh
    *odd, right = sorted((candidate(vm, bus) for bus in BUSES))
    bus = next(bus for bus in BUSES if candidate(vm, bus) == right)
    for name, command in zip(odd, ("mkfifo -m 0666 .claimsig", "mknod .claimsig c 5 1",
                                   "mkdir .claimsig", "echo %s >s; ln -s s .claimsig" % bus)):
        on_partition(vm, name, "mv .claimsig kept; " + command)
    main.put_scripts(vm)
    try:
        daemon = vm.daemon(conf=main.conf(bus))
        assert main.wait_for_start(vm).link == right
        err = daemon.err()
        assert all("successfully mounted /dev/%s\n" % name in err for name in odd)
        assert err.count("has sig") == 1
        assert not any("/mnt/" + name in vm.text("/proc/mounts") for name in odd)
        assert daemon.stop() == 0
    finally:
        vm.reset()
        for name in odd:
            on_partition(vm, name, "rm -rf .claimsig s; mv kept .claimsig")


@pytest.mark.long
def test_mounted_by_somebody(fresh):
    """A partition that is mounted below /mnt already is examined in place: the right one becomes
    writable and stays protected as it was, another one stays as it is. One that is mounted
    elsewhere is not examined."""
    vm = fresh
    right, other, elsewhere = (candidate(vm, bus) for bus in ("sata", "nvme", "usb"))
    vm.sh("mkdir -p /mnt/%s /mnt/%s /srv/elsewhere; mount -o ro,noexec,nodev /dev/%s /mnt/%s; "
          "mount -o ro /dev/%s /mnt/%s; mount /dev/%s /srv/elsewhere"
          % (right, other, right, right, other, other, elsewhere))
    main.put_scripts(vm)
    daemon = vm.daemon(conf=main.conf("sata"))
    assert main.wait_for_start(vm).link == right
    assert {"rw", "noexec", "nodev"} <= main.options_of(vm, "/mnt/" + right)
    assert "attempting to mount /dev/%s\n" % right not in daemon.err()
    assert "ro" in main.options_of(vm, "/mnt/" + other)
    daemon.stop()
    vm.sh("mkdir -p /srv/elsewhere; mount /dev/%s /srv/elsewhere" % elsewhere)
    daemon = vm.daemon(conf=main.conf("usb"))
    search_once(vm)
    assert "Cannot chdir to /mnt/%s\n" % elsewhere in daemon.err()
    assert "Found main partition" not in daemon.err()
    assert "/srv/elsewhere" in vm.text("/proc/mounts")
    assert daemon.stop() == 0 and "/srv/elsewhere" not in vm.text("/proc/mounts")


@pytest.mark.long
def test_raid_member_is_never_taken(fresh):
    """Half of a stopped mirror is passed over, although it could be mounted and has the right
    signature and label; the running mirror is taken, and not its half."""
    vm, name = fresh, candidate(fresh, "sata")
    vm.sh("set -e; e2fsck -fp /dev/%s || [ $? = 1 ]; resize2fs /dev/%s 40M 2>/dev/null\n"
          "mdadm -q --create /dev/md7 --run --level=1 --force --raid-devices=1 --metadata=0.90 "
          "--assume-clean /dev/%s 2>&1; mdadm -q --stop /dev/md7" % (name, name, name))
    main.put_scripts(vm)
    daemon = vm.daemon(conf=main.conf("sata", "sata"))
    search_once(vm)
    assert daemon.err().count("has sig") == len(BUSES) - 1
    assert "Found main" not in daemon.err() and "/dev/%s\n" % name not in daemon.err()
    assert daemon.stop() == 0
    vm.sh("mdadm -q --assemble --run /dev/md7 /dev/%s" % name)
    daemon = vm.daemon(conf=main.conf("sata", "sata"))
    assert main.wait_for_start(vm, 2).link == "md7"
    assert daemon.stop() == 0 and main.nothing_left(vm)
    vm.sh("mdadm -q --stop /dev/md7; mdadm -q --zero-superblock /dev/" + name)


class Writer:
    """A process that writes numbered blocks to the main partition, each synced before it counts."""

    def __init__(self, vm, name):
        self.vm, self.name = vm, name
        self.acknowledged_path = "/run/rig/acknowledged"
        with open(os.path.join(HERE, "troublemakers", "block_writer.py")) as f:
            vm.put("/run/rig/block_writer.py", f.read())
        vm.put(self.acknowledged_path, "0")
        vm.sh("rm -f /mnt/%s/blocks" % name)
        self.pid = vm.sh("python3 /run/rig/block_writer.py /mnt/%s/blocks %s >/dev/null 2>&1 & "
                         "echo $!" % (name, self.acknowledged_path)).out.strip()
        self.wait_for(50)

    def acknowledged(self):
        return int(self.vm.text(self.acknowledged_path) or 0)

    def wait_for(self, more):
        """Waits until so many more blocks are acknowledged."""
        goal = self.acknowledged() + more
        self.vm.wait_until(lambda: self.acknowledged() >= goal, 90, "the writer")

    def kept(self, name):
        """How many blocks are on the partition, which has a new name perhaps."""
        self.vm.sh("mkdir -p /srv/hand; mount /dev/%s /srv/hand" % name)
        count = int(self.vm.sh("python3 /run/rig/block_writer.py --check /srv/hand/blocks").out)
        self.vm.sh("rm /srv/hand/blocks; umount /srv/hand")
        return count


@pytest.mark.long
def test_no_data_lost_when_told_to_stop(fresh):
    """A writer is driven out when the daemon is told to stop; every block that was synced is
    there."""
    vm, name = fresh, candidate(fresh, "sata")
    main.put_scripts(vm)
    daemon = vm.daemon(conf=main.conf("sata"))
    main.wait_for_start(vm)
    writer = Writer(vm, name)
    assert daemon.stop() == 0
    assert not alive(vm, writer.pid) and main.nothing_left(vm)
    assert is_sound(vm, name)
    assert writer.kept(name) >= writer.acknowledged() > 50


@pytest.mark.long
def test_no_data_lost_when_the_drive_is_pulled(fresh):
    """A writer whose drive is pulled, here in hotplug mode, is told of it and goes; every block
    that was synced is on the drive, when that is back."""
    vm, name = fresh, candidate(fresh, "usb")
    main.put_scripts(vm)
    daemon = vm.daemon(["--hotplug"], conf=main.conf("usb"))
    main.wait_for_start(vm)
    writer = Writer(vm, name)
    path = sysfs_path(vm, name)
    vm.unplug("usb")
    assert vm.request("notify remove " + path).startswith("OK")
    vm.wait_until(lambda: not alive(vm, writer.pid) and main.nothing_left(vm), 60, daemon.err)
    assert daemon.stop() == 0
    vm.plug("usb")
    assert writer.kept(candidate(vm, "usb")) >= writer.acknowledged() > 50


def test_no_data_lost_when_the_daemon_is_killed(fresh):
    """Killed and started again, the daemon takes up its main partition as it is: a writer goes on
    undisturbed, swap and quotas stay on, the start script runs again beside the old one; at the end
    all of it is given back, with every synced block."""
    vm, name = fresh, candidate(fresh, "nvme")
    on_partition(vm, name, "quotacheck -cug -F vfsv0 .")
    main.put_scripts(vm, start="cd /mnt/main; echo $$ >>/run/rig/pids; exec sleep 1000\n")
    vm.sh("rm -f /run/rig/pids")
    daemon = vm.daemon(conf=main.conf("nvme"))
    first = main.wait_for_start(vm)
    assert (first.swaps, first.quotas) == (["/mnt/%s/swap.img" % name], 2)
    writer = Writer(vm, name)
    daemon.signal(signal.SIGKILL)
    daemon.wait()
    writer.wait_for(20)
    daemon = vm.daemon(conf=main.conf("nvme"))
    assert main.wait_for_start(vm, 2) == first
    assert {"rw", "nosuid", "nodev"} <= main.options_of(vm, "/mnt/" + name)
    assert "attempting to mount /dev/%s\n" % name not in daemon.err()
    writer.wait_for(20)
    old, new = vm.wait_until(lambda: (lambda pids: pids if len(pids) == 2 else None)(
        vm.text("/run/rig/pids").split()), 30)
    assert alive(vm, writer.pid) and alive(vm, old) and alive(vm, new)
    assert daemon.stop() == 0
    assert not any(alive(vm, pid) for pid in (writer.pid, old, new))
    assert main.nothing_left(vm) and is_sound(vm, name)
    assert writer.kept(name) >= writer.acknowledged() > 90
