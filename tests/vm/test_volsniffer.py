"""The label probe on real filesystems and real drives."""
import os
import time

import pytest

from rig import Disk, images

pytestmark = pytest.mark.long

# (made as, label, the daemon's word for it, the label it shows)
KINDS = [("ext2", "two", "ext2", "two"), ("ext3", "three", "ext3", "three"),
         ("ext4", "With a blank", "ext4", "With a blank"), ("xfs", "xlabel", "xfs", "xlabel"),
         ("btrfs", "a btrfs", "btrfs", "a btrfs"), ("vfat", "FATLABEL", "fat", "FATLABEL"),
         ("udf", "udf label", "udf", "udf label"), ("iso9660", "ISO_LABEL", "iso9660", "ISO_LABEL"),
         ("ntfs", "nt label", "ntfs", "nt label"), ("exfat", "exlabel", "exfat", "exlabel"),
         ("hfs", "hlabel", "hfs", "hlabel"), ("hfs+", "Plus", "hfs+", "Plus"),
         ("reiserfs", "rlabel", "reiserfs", "rlabel"), ("ext4", None, "ext4", "")]


def drives(folder):
    parts = [("64M", None, kind, label) for kind, label, _, _ in KINDS] + [("64M", None)]
    return [Disk("virtio-scsi", images.disk(os.path.join(folder, "all"), "1100M", parts, "gpt"),
                 id="all"),
            Disk("optical-sata", id="sata-tray"), Disk("optical-scsi", id="scsi-tray"),
            Disk("optical-usb", id="usb-tray")]


def sniff(vm, path):
    return vm.sh("/usr/bin/volsniffer %s --fs </dev/null 2>/dev/null" % path, check=False)


def test_every_filesystem_by_the_daemons_word(fresh):
    """The probe names each filesystem in the daemon's vocabulary, with its label on the first
    line."""
    parts = fresh.parts("all")
    for part, (kind, _, word, label) in zip(parts, KINDS):
        result = sniff(fresh, "/dev/" + part)
        lines = result.out.splitlines()
        assert (kind, result.rc, lines[0]) == (kind, 0, label)
        values = [line.split(":", 1)[1].strip() for line in lines[1:]
                  if line.split(":")[0].strip().lower() == "filesystem"]
        assert (kind, values) == (kind, [word])


def test_every_filesystem_in_the_list(fresh):
    """What the probe says stands in the listing, label and filesystem."""
    fresh.daemon()
    rows = {f[2]: f for f in (line.split("\t") for line in fresh.request("list").splitlines())
            if len(f) == 11}
    parts = fresh.parts("all")
    assert [(rows[p][5], rows[p][10]) for p in parts[:len(KINDS)]] == [
        (label, word) for _, _, word, label in KINDS]
    assert (rows[parts[-1]][5], rows[parts[-1]][10]) == ("", " ")          # nothing on it


@pytest.mark.long
def test_one_write(fresh):
    """The whole answer goes out in one write: the daemon reads once."""
    part = fresh.parts("all")[0]
    fresh.sh("strace -f -o /run/rig/trace -e trace=write,writev /usr/bin/volsniffer /dev/%s --fs "
             ">/run/rig/answer" % part)
    writes = [line for line in fresh.text("/run/rig/trace").splitlines() if "write" in line]
    assert len(writes) == 1 and "(1, " in writes[0], writes


@pytest.mark.parametrize("id", ["sata-tray", "scsi-tray", "usb-tray"])
@pytest.mark.parametrize("open_tray", [False, True], ids=["closed", "open"])
def test_empty_optical_drive_is_not_waited_for(fresh, id, open_tray):
    """On an optical drive without a disc, its tray closed or open, the probe fails at once and says
    nothing."""
    if open_tray:
        fresh.open_tray(id, force=True)
    began = time.monotonic()
    result = sniff(fresh, "/dev/" + fresh.node(id))
    assert time.monotonic() - began < 4
    assert (result.rc != 0, result.out) == (True, "")
    assert fresh.tray(id)["open"] == open_tray           # and it left the tray as it was
    if open_tray:
        fresh.close_tray(id)


@pytest.mark.long
def test_listing_with_empty_trays(fresh):
    """Listings of a machine with three empty optical drives do not wait for them either; neither
    does `enumerate`, which is the one that does probe them."""
    fresh.daemon(["--hotplug"])
    fresh.request("list")                  # learns everything else; nothing forgets it again
    for request in ("list", "enumerate", "list human"):
        began = time.monotonic()
        assert fresh.request(request).endswith("OK  eom\n")
        assert time.monotonic() - began < 6


@pytest.mark.long
def test_nothing_there(fresh):
    """A node that does not exist is a failure without a word; an empty partition has neither a
    label nor a filesystem."""
    result = sniff(fresh, "/dev/nonexistent")
    assert (result.rc != 0, result.out) == (True, "")
    assert sniff(fresh, "/dev/" + fresh.parts("all")[-1]).out in ("", "\n")


def test_a_volume_that_never_answers(fresh):
    """A suspended volume holds back every read: five seconds later the probe has left, and nobody
    who reads its output waits for the process that it had to leave behind."""
    vm = fresh
    part = vm.parts("all")[0]
    vm.sh("echo 0 $(blockdev --getsz /dev/%s) linear /dev/%s 0 | "
          "dmsetup --noudevsync create dying; dmsetup mknodes; "
          "dmsetup suspend --noflush --nolockfs dying" % (part, part))
    began = time.monotonic()
    result = vm.sh("/usr/bin/volsniffer /dev/mapper/dying --fs 2>/run/rig/complaint | cat; "
                   "echo ${PIPESTATUS[0]}")
    assert result.out == "7\n" and 4.9 < time.monotonic() - began < 8
    assert vm.text("/run/rig/complaint") == (
        "Cannot read /dev/mapper/dying: no answer within five seconds\n")
    left = vm.sh("pgrep volsniffer; true").out.split()
    assert len(left) <= 1                       # a kernel that can take the read back leaves none
    vm.sh("dmsetup resume dying")
    vm.wait_until(lambda: vm.sh("pgrep volsniffer; true").out == "", 5)
    assert vm.sh("/usr/bin/volsniffer /dev/mapper/dying").out == KINDS[0][1] + "\n"
    vm.sh("dmsetup remove --noudevsync dying")


def test_block_devices_are_read_without_rights(fresh):
    """What libblkid asks /sys about a drive or a partition, it asks before it reads; afterwards
    nothing is opened, and nothing fails for want of rights."""
    for path in ("/dev/" + fresh.node("all"), "/dev/" + fresh.parts("all")[2]):
        fresh.sh("strace -f -qq -o /run/rig/trace /usr/bin/volsniffer %s --fs" % path)
        calls = fresh.text("/run/rig/trace").splitlines()
        reader = next(line.split()[0] for line in calls if "CDROM_DRIVE_STATUS" in line)
        own = [line.split(None, 1)[1] for line in calls if line.split()[0] == reader]
        limited = max(i for i, call in enumerate(own) if "RLIMIT_NOFILE" in call)
        assert any(call.startswith("openat") for call in own[:limited])
        assert {call.split("(")[0] for call in own[limited + 1:]} <= {
            "read", "lseek", "pread64", "brk", "mmap", "munmap", "madvise", "close", "exit", "ioctl",
            "prlimit64", "setrlimit", "prctl"}
        assert not any("EMFILE" in call or "EPERM" in call or "EACCES" in call for call in own)
