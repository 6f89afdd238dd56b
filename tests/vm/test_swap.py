"""The swap file of the main partition, on the filesystems that can hold it."""
import os
import signal

import pytest

import main_partition as main
from rig import Disk, images

HERE = os.path.dirname(os.path.abspath(__file__))
KINDS = ("ext4", "xfs", "btrfs")


def drives(folder):
    """A drive with a partition of each filesystem, labelled with its name, and a free one."""
    path = os.path.join(folder, "disk")
    images.disk(path, "208M", [("64M", "83", kind, kind) for kind in KINDS] + [(None, "82")])
    return [Disk("virtio-scsi", path, id="disk")]


def name_of(vm, kind):
    return vm.parts("disk", 4)[KINDS.index(kind)]


def on_partition(vm, name, commands):
    """Runs commands in the root directory of a partition that is mounted for that alone."""
    return vm.sh("set -e; mkdir -p /srv/hand; mount /dev/%s /srv/hand; cd /srv/hand\n%s\n"
                 "cd /; umount /srv/hand" % (name, commands)).out


def put_swap(vm, name, size="4M", format=False):
    """Puts a swap file on a partition, without holes and in place (also where the filesystem would
    copy what is written)."""
    on_partition(vm, name, "rm -rf swap.img* target; touch swap.img; chmod 600 swap.img\n"
                 "if [ $(stat -f -c %%T .) = btrfs ]; then chattr +C swap.img; fi\n"
                 "head -c %s /dev/zero >swap.img" % size + ("; mkswap -q swap.img" * format))


def started(vm, kind="ext4", **more):
    """The daemon, when it has found the main partition and run the start script."""
    main.put_scripts(vm)
    daemon = vm.daemon(conf=main.conf(label=kind), **more)
    daemon.run = main.wait_for_start(vm)
    return daemon


@pytest.mark.parametrize("kind", KINDS)
def test_file_without_signature_is_formatted(fresh, kind):
    """A swap file that is not formatted yet is formatted and used, on each filesystem; clients
    switch it off and on; at the end it is off and its filesystem unmounted."""
    vm, name = fresh, name_of(fresh, kind)
    put_swap(vm, name)
    daemon = started(vm, kind)
    path = "/mnt/%s/swap.img" % name
    assert daemon.run.swaps == [path]
    assert ("Setting up swapfile on main drive.\nSwap file exists (4MB)\nsetting up swap\n"
            in daemon.err())
    assert vm.request("swapoff") == "OK swap disabled\n" and main.swaps(vm) == []
    assert vm.request("swapoff") == "OK swap disabled\n"
    assert vm.request("swapon") == "OK swap enabled\n" and main.swaps(vm) == [path]
    assert vm.request("swapon") == "OK swap enabled\n" and main.swaps(vm) == [path]
    assert daemon.stop() == 0 and main.nothing_left(vm)
    assert "SWAPSPACE2" in on_partition(vm, name, "tail -c +4087 swap.img | head -c 10")


@pytest.mark.parametrize("kind, how", [
    ("ext4", "sparse"), pytest.param("xfs", "sparse", marks=pytest.mark.long),
    ("btrfs", "copied")])
def test_file_that_the_kernel_refuses(fresh, kind, how):
    """A file with holes, or one that btrfs copies on writing, is formatted and refused all the
    same: that is said, to the client too, and the daemon goes on."""
    vm, name = fresh, name_of(fresh, kind)
    on_partition(vm, name, "rm -rf swap.img*; " + (
        "truncate -s 4M swap.img" if how == "sparse" else "head -c 4M /dev/zero >swap.img"))
    daemon = started(vm, kind)
    assert daemon.run.swaps == [] and daemon.run.link == name
    assert ("Cannot set up swap Invalid argument\nWarning: cannot enable swap\n" in daemon.err()
            and "mkswap error" not in daemon.err())
    assert vm.request("swapon") == "ERR swap enable failed\n"
    assert vm.request("swapoff") == "OK swap disabled\n"
    assert daemon.stop() == 0 and main.nothing_left(vm)


@pytest.mark.long
def test_small_and_missing_files(fresh):
    """A file of 1,048,575 bytes is set aside under another name, with what it holds, and swap stays
    off; so it does without a file. Neither is an error. One byte more is enough."""
    vm, name = fresh, name_of(fresh, "ext4")
    put_swap(vm, name, "1048575")
    daemon = started(vm)
    assert daemon.run.swaps == []
    assert "Swap file exists (0MB)\nSwap file too small to be useful\n" in daemon.err()
    assert vm.sh("cd /mnt/%s; stat -c '%%n %%s' swap*" % name).out == "swap.img.discard 1048575\n"
    assert vm.request("swapon") == "OK swap enabled\n" and main.swaps(vm) == []
    vm.sh("head -c 1M /dev/zero >/mnt/%s/swap.img" % name)
    assert vm.request("swapon") == "OK swap enabled\n"
    assert main.swaps(vm) == ["/mnt/%s/swap.img" % name]
    assert "cannot enable swap" not in daemon.err()
    assert daemon.stop() == 0 and main.nothing_left(vm)


@pytest.mark.long
def test_what_is_no_regular_file_is_never_formatted(fresh):
    """A link in the swap file's place is not followed for formatting: what it leads to stays as it
    is."""
    vm, name = fresh, name_of(fresh, "ext4")
    on_partition(vm, name, "rm -rf swap.img*; head -c 4M /dev/zero >target; "
                           "ln -s target swap.img")
    daemon = started(vm)
    assert daemon.run.swaps == []
    assert "mkswap error\nWarning: cannot enable swap\n" in daemon.err()
    assert vm.sh("tr -d '\\0' </mnt/%s/target | wc -c" % name).out == "0\n"
    assert daemon.stop() == 0 and main.nothing_left(vm)


@pytest.mark.long
def test_other_swap_at_the_end(fresh):
    """A swap file that is on under another path counts as on; at the end every swap area of the
    machine is off, so that all can be unmounted."""
    vm, name = fresh, name_of(fresh, "ext4")
    free = vm.parts("disk", 4)[3]
    put_swap(vm, name, format=True)
    vm.sh("set -e; mkdir -p /srv/a /mnt/%s; mount /dev/%s /srv/a; swapon /srv/a/swap.img\n"
          "mkswap -q /dev/%s; swapon /dev/%s; mount --bind /srv/a /mnt/%s; umount -l /srv/a"
          % (name, name, free, free, name))
    before = main.swaps(vm)
    assert len(before) == 2
    daemon = started(vm)
    assert daemon.run.swaps == before
    assert "setting up swap\n" in daemon.err() and "Cannot set up swap" not in daemon.err()
    assert daemon.stop() == 0
    for area in before:
        assert " --> %s\n" % area in daemon.err()
    assert main.nothing_left(vm)


@pytest.mark.long
def test_mnt_is_a_link_into_memory(fresh):
    """Where /mnt is a link to /tmpfs/.mnt, all goes the same way: the swap file is known by its
    path there, and it and others beside it on the main partition are switched off at the end."""
    vm, name = fresh, name_of(fresh, "ext4")
    put_swap(vm, name, format=True)
    vm.sh("set -e; mkdir -p /tmpfs; mount -t tmpfs none /tmpfs; mkdir /tmpfs/.mnt; "
          "rm -rf /mnt/*; rmdir /mnt; ln -s /tmpfs/.mnt /mnt")
    try:
        daemon = started(vm)
        path = "/tmpfs/.mnt/" + name
        assert daemon.run.swaps == [path + "/swap.img"] and daemon.run.link == name
        assert {"rw", "nosuid", "nodev"} <= main.options_of(vm, path)
        assert vm.request("swapon") == "OK swap enabled\n"
        vm.sh("head -c 2M /dev/zero >/mnt/%s/more; mkswap -q /mnt/%s/more; swapon /mnt/%s/more"
              % (name, name, name))
        assert daemon.stop() == 0
        err = daemon.err()
        assert "SwapOff: switching off main drive swapfile /mnt/%s/swap.img\n" % name in err
        assert ("any other swap files on the main drive\n --> %s/more\nShutting down" % path) in err
        assert main.swaps(vm) == [] and path not in vm.text("/proc/mounts")
        assert vm.sh("ls -A /mnt/").out == ""
    finally:
        vm.sh("swapoff -a; umount /tmpfs/.mnt/*; umount -l /tmpfs; rm -f /mnt; mkdir -p /mnt",
              check=False)


def test_what_was_swapped_out_comes_back(fresh):
    """A process whose memory is in the swap file keeps it when swap is switched off at the end."""
    vm, name = fresh, name_of(fresh, "ext4")
    put_swap(vm, name, "16M", format=True)
    daemon = started(vm)
    with open(os.path.join(HERE, "troublemakers", "swapped_out.py")) as f:
        vm.put("/run/rig/swapped_out.py", f.read())
    pid = vm.background("exec python3 /run/rig/swapped_out.py 4", "/run/rig/swapped")
    vm.wait_until(lambda: vm.text("/run/rig/swapped") == "swapped\n", 60,
                  lambda: vm.text("/run/rig/swapped"))
    assert daemon.stop() == 0 and main.nothing_left(vm)
    assert "VmSwap:\t       0 kB" in vm.text("/proc/%s/status" % pid)
    vm.sh("kill -USR1 " + pid)
    assert vm.wait_until(lambda: vm.text("/run/rig/swapped").splitlines()[1:], 30) == ["right"]


@pytest.mark.long
def test_swap_on_a_dead_xfs(fresh):
    """The kernel opens nothing on an xfs that it could not write to, not even to end swap there:
    that is said, the mount stays, and the daemon serves on and ends in time. (Nothing takes this
    swap file away again: no test can follow.)"""
    vm = fresh
    stick = os.path.join(vm.dir, "stick")
    name = vm.plug(Disk("usb", images.fs(stick, "64M", "xfs", "stick"), id="stick"))
    put_swap(vm, name)
    daemon = started(vm, "stick")
    assert daemon.run.swaps == ["/mnt/%s/swap.img" % name]
    daemon.signal(signal.SIGSTOP)                   # the kernel notices first
    vm.sh("touch /mnt/%s/unwritten" % name)
    vm.unplug("stick")
    assert vm.sh("sync -f /mnt/%s/unwritten" % name, check=False).rc != 0
    daemon.signal(signal.SIGCONT)
    daemon.wait_err("yep. cannot force unmount /mnt/%s\n" % name, 30)
    assert ("Unable to remove swapfile /mnt/%s/swap.img, Input/output error. this may hamper "
            "unmount!\n" % name) in daemon.err()
    assert vm.request("list", timeout=10).endswith("OK  eom\n")
    assert daemon.stop(20) == 0
    assert vm.sh("[ -L /mnt/main ]", check=False).rc == 1
