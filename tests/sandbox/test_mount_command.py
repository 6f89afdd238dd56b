"""The mount command from the request to the mount: what no conversation alone can show, with calls
refused, mounts that are listed late or never, and labels that mean harm."""

import errno
import os
import signal
import subprocess
import time

import pytest

from machine import disk_formats, stand_ins
from machine.clients import wait_until
from machine.drives import write
from machine.kernel import MS_NODEV, FileWatch
from machine.machine import sleep
from machine.namespaces import REAL_PROBE
from machine.traces import calls_during, own_calls, traced

MOUNTED = "OK mount succeeded\n\n"
NOT_SHOWN = "ERR mount succeeded but procfs doesn't show it\n"
FAILED = "ERR mount failed\n"


def stick(machine, filesystem, label="DATA", types=("ext4", "ext3", "ext2", "vfat", "ntfs")):
    """A stick with a made-up mount table; the kernel knows those types."""
    stand_ins.install(machine)
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)
    machine.probe_says("sdb1", label, filesystem)
    write("/proc/filesystems", "nodev\tproc\n" + "".join(f"\t{name}\n" for name in types))


def timed(client, request):
    start = time.monotonic()
    reply = client.ask(request)
    return reply, time.monotonic() - start


def lines_from(daemon, first):
    """The lines on standard error from the first that begins so."""
    lines = daemon.stderr_lines()
    start = next(i for i, line in enumerate(lines) if line.startswith(first))
    return lines[start:]


def is_served(machine):
    return machine.ask("nothing") == "ERR unknown command\n"


# Who asks.


def test_nobody_knows_who_asks(machine):
    """Unknown credentials: the label and the device are looked up, the rest is refused."""
    stick(machine, "ext4")
    machine.plug("sata", "sda", 1 << 20)
    machine.mount_table(["/dev/sda / ext4 rw"])
    unknown = "getsockopt:poke_exit=@arg4=01000000ffffffffffffffff"
    machine.start(trace=traced(unknown, calls="getsockopt"))
    client = machine.connect()
    assert client.ask("mount rw ^NOWHERE") == "ERR Label not found\n"
    assert client.ask("mount nonsense sdx").startswith("ERR device does not exist")
    for request in ("mount nonsense sdb1", "mount ro ^DATA", "umount sdb1", "mount ro sda"):
        assert client.ask(request) == "ERR authorization required\n"


def test_without_a_schedule_user_unknown_credentials_are_told_apart_from_it(machine):
    """Both are the number -1 then: the words are those for unknown credentials."""
    stick(machine, "ext4")
    machine.users(without=["schedule"])
    unknown = "getsockopt:poke_exit=@arg4=01000000ffffffffffffffff"
    machine.start(trace=traced(unknown, calls="getsockopt"))
    assert machine.ask("umount sdb1") == "ERR authorization required\n"


def test_without_a_schedule_user_its_number_is_anybody(machine):
    stick(machine, "ext4")
    machine.users(without=["schedule"])
    machine.start()
    assert machine.ask("umount sdb1", user="schedule") == "OK its not mounted anyway\n"


def main_with_swap(machine, mount_options="rw"):
    """A main partition sdb1 with a swap file that the kernel lists as active."""
    stick(machine, "ext4", label="MAIN")
    machine.configure("main partition label = MAIN\nswap name = swap.img\n")
    os.makedirs("/mnt/sdb1")
    machine.mount_table([f"/dev/sdb1 /mnt/sdb1 ext4 {mount_options}"])
    write("/proc/swaps", "Filename Type Size Used Priority\n/mnt/sdb1/swap.img file 8 0 -2\n")


SWAPPED_OFF = "SwapOff: switching off main drive swapfile /mnt/sdb1/swap.img\n"


@pytest.mark.parametrize(
    "user, request_line, reply, switched_off",
    [
        ("guest", "mount ro sdb1", "ERR authorization required\n", True),
        ("guest", "umount sdb1", "ERR authorization required\n", True),
        ("guest", "mount rudero ^MAIN", "ERR authorization required\n", True),
        ("guest", "mount rw sdb1", "ERR authorization required\n", False),
        ("guest", "mount nonsense sdb1", "ERR unknown mount mode\n", False),
        ("guest", "mount ro sdx", None, False),
        ("guest", "umount sdb", None, False),
        ("schedule", "umount sdb1", None, False),
        ("root", "mount rw sdb1", "OK already mounted read/write\n", False),
    ],
)
def test_swap_goes_off_before_the_rights_are_looked_at(
    machine, user, request_line, reply, switched_off
):
    """A refused request has released the swap file all the same, if it came that far."""
    main_with_swap(machine)
    daemon = machine.start(refuse=[("swapoff", errno.EINVAL)])
    found = machine.ask(request_line, user=user)
    assert found == reply if reply else found.startswith("ERR ")
    assert (SWAPPED_OFF in daemon.stderr()) == switched_off
    assert "Cannot remove swap" not in daemon.stderr()


def test_swap_that_cannot_be_switched_off_changes_no_reply(machine):
    main_with_swap(machine)
    daemon = machine.start(refuse=[("swapoff", errno.EPERM)])
    assert machine.ask("umount sdb1", user="guest") == "ERR authorization required\n"
    assert SWAPPED_OFF + "Cannot remove swap\n" in daemon.stderr()
    # Root is not refused. Swap stays on, and the request goes on.
    assert machine.ask("umount sdb1") == "ERR unmount failed\n"
    assert daemon.stderr().count("Cannot remove swap\n") == 2


def test_off_for_a_boot_partition_that_is_mounted_read_write_unmounts_it(machine):
    """Root's ro is forced, off stays: who is not read-only yet is not saved by it."""
    stick(machine, "ext4")
    machine.mount_table(["/dev/sdb1 / ext4 rw"])
    daemon = machine.start(refuse=[("umount2", errno.EBUSY)])
    assert machine.ask("umount sdb1") == "ERR unmount failed\n"
    assert "wait: umount failed. Device or resource busy\n" in daemon.stderr()


def test_off_for_a_boot_partition_that_is_not_mounted_mounts_it_read_only(machine):
    stick(machine, "ext4")
    machine.mount_table(["/dev/sdb1 / ext4 rw"])
    daemon = machine.start(trace=traced("mount:retval=0"))
    machine.mount_table([])
    stand_ins.shown_when_mounting(machine, "/dev/sdb1 /mnt/sdb1 ext4 ro")
    assert machine.ask("umount sdb1") == MOUNTED
    assert own_calls(daemon, "mount") == [
        'mount("/dev/sdb1", "/mnt/sdb1", "ext4", MS_RDONLY|MS_NOSUID|MS_NODEV, NULL)'
        " = 0 (INJECTED)"
    ]


# Labels.


def test_of_two_devices_with_one_label_the_first_partition_is_taken(machine):
    """Partitions before drives, each in the order of the bytes of their names."""
    stick(machine, "exfat")
    machine.plug("sata", "sda", 1 << 20)
    machine.plug("usb", "sdc", 1 << 20)
    for name in ("sdc10", "sdc2", "sdb2"):
        machine.part(name, 4096)
    for name in ("sda", "sdc10", "sdc2"):
        machine.probe_says(name, "TWINS", "exfat")
    daemon = machine.start("--hotplug")
    assert machine.ask("umount ^TWINS") == "OK its not mounted anyway\n"
    assert lines_from(daemon, "Scanning devices") == [
        "Scanning devices to locate drive labelled 'TWINS'",
        "Label: 'DATA'",
        "  'filesystem' = 'exfat'",
        "/dev/sdb1 -> DATA",
        "volsniffer failed for /dev/sdb2, return value 1",
        "/dev/sdb2 -> ",
        "Label: 'TWINS'",
        "  'filesystem' = 'exfat'",
        "/dev/sdc10 -> TWINS",
        "Label found on /dev/sdc10",
    ]


def test_a_label_that_nobody_has_is_looked_for_everywhere(machine):
    stick(machine, "exfat")
    daemon = machine.start("--hotplug")
    assert machine.ask("mount rw ^data") == "ERR Label not found\n"
    assert lines_from(daemon, "Scanning devices") == [
        "Scanning devices to locate drive labelled 'data'",
        "Label: 'DATA'",
        "  'filesystem' = 'exfat'",
        "/dev/sdb1 -> DATA",
        "volsniffer failed for /dev/sdb, return value 1",
        "/dev/sdb -> ",
        "Label not found",
    ]
    # What was learned is not asked again; no answer is one, too.
    asked = len(machine.probe_calls())
    assert machine.ask("mount rw ^NOWHERE") == "ERR Label not found\n"
    assert len(machine.probe_calls()) == asked


HOSTILE_LABELS = {
    "slash": b"a/b",
    "way out": b"../../root/owned",
    "absolute": b"/root/owned",
    "dot": b".",
    "dots": b"..",
    "quote": b'a"b',
    "single quote": b"a'b'",
    "blanks": b"  two  words ",
    "option": b"-o suid",
    "tab": b"a\tb",
    "no utf-8": b"\xff\xfe\x80label\xc3",
    "escape": b"\x1b[2Jred",
    "format": b"%s%n%d",
    "substitution": b"$(touch /root/owned)",
    "backquotes": b"`touch /root/owned`",
    "semicolon": b";touch /root/owned;",
    "pipe": b"|touch /root/owned",
    "and": b"x && touch /root/owned #",
    "redirection": b">/root/owned",
    "backslash": b"a\\040b\\",
    "a mount": b"sdb1",
    "link of another": b"OTHER",
    "254 characters": b"x" * 254,
    "255 characters": b"y" * 255,
    "255 bytes no utf-8": b"\xe4" * 255,
}


def everything_outside_mnt():
    found = set()
    for folder in ("/root", "/tmp", "/etc", "/var", "/run", "/dev"):
        for path, folders, files in os.walk(os.fsencode(folder)):
            found |= {os.path.join(path, name) for name in folders + files}
    return found - {b"/run/stand-in-calls", b"/run/events"} | set(os.listdir(b"/"))


@pytest.mark.parametrize("label", HOSTILE_LABELS.values(), ids=HOSTILE_LABELS.keys())
def test_a_hostile_label_stays_inside_mnt_and_away_from_every_shell(machine, label):
    """Mounted by its label, linked where it names a file of /mnt, unmounted, and all is gone."""
    stand_ins.exfat_stick(machine, label=os.fsdecode(label))
    stand_ins.notes_events(machine)
    os.mkdir("/mnt/other")  # too young to be tidied away
    os.symlink("other", "/mnt/^OTHER")
    daemon = machine.start("--hotplug")
    os.makedirs("/run/mount", exist_ok=True)  # mount(8) keeps its own records there
    before = everything_outside_mnt()
    word = b'"^' + label + b'"' if b" " in label else b"^" + label
    client = machine.connect(timeout=20)
    client.send(b"mount rw " + word + b"\n")
    assert client.reply() == MOUNTED
    link = b"/mnt/^" + label
    can_be_linked = b"/" not in label and len(label) < 255 and label != b"OTHER"
    links = [name for name in os.listdir(b"/mnt") if name.startswith(b"^")]
    assert (b"^" + label in links) == (can_be_linked or label == b"OTHER")
    assert len(links) == 1 + can_be_linked
    if can_be_linked:
        assert os.readlink(link) == b"sdb1"
    elif label != b"OTHER":
        reason = os.strerror(errno.ENOENT if b"/" in label else errno.ENAMETOOLONG)
        assert (
            f"Cannot create drive label symlink {os.fsdecode(link)}, {reason}\n"
            in daemon.stderr()
        )
    else:
        assert os.readlink(link) == b"other"
    client.send(b"umount " + word + b"\n")
    assert client.reply() == "OK unmount succeeded\n"
    assert sorted(os.listdir("/mnt")) == ["^OTHER", "other"]
    assert everything_outside_mnt() == before
    assert stand_ins.events() == ["sdb1 about-to-mount", "/dev/sdb1 mount", "/dev/sdb1 umount"]
    assert stand_ins.calls() == [
        "/usr/sbin/modprobe fuse",
        "/sbin/mount.exfat -o locale=en_EN.UTF-8,gid=99,uid=99 /dev/sdb1 /mnt/sdb1",
        "/usr/bin/mount -o remount,acl /mnt/sdb1",
    ]


def test_two_sticks_cannot_lead_out_of_mnt_together(machine):
    """One label's link would be the way that the other label needs: /mnt/^A/../../root/owned."""
    stand_ins.exfat_stick(machine, "sdb1", "A")
    stand_ins.exfat_stick(machine, "sdb2", "A/../../root/owned")
    daemon = machine.start("--hotplug")
    assert machine.ask("mount rw sdb1") == MOUNTED
    assert machine.ask("mount rw sdb2") == MOUNTED
    assert os.readlink("/mnt/^A") == "sdb1"
    assert os.listdir("/root") == []
    assert "Cannot create drive label symlink /mnt/^A/../../root/owned, " in daemon.stderr()
    # Nor is anything there removed that looks like the link.
    os.symlink("sdb2", "/root/owned")
    assert machine.ask("umount sdb2") == "OK unmount succeeded\n"
    assert os.readlink("/root/owned") == "sdb2"


@pytest.mark.parametrize(
    "raw, label",
    [
        (b"a\nb: c", None),
        (b"../../root/owned", None),
        (b"$(touch /owned)", None),
        (b"`touch\t/owned`", None),
        (b"\xff\xfelabel", None),
        (b"a; touch owned", "a; touch owned"),
        (b'"quoted"', '"quoted"'),
    ],
)
def test_a_hostile_label_on_a_real_superblock(machine, raw, label):
    """The project's own probe reads it. What it makes of the label is what the device is known by,
    what the link is called and what the label's client must say."""
    stand_ins.install(machine)
    machine.plug("usb", "sdb", 8 << 20)
    subprocess.run(["/usr/sbin/mkfs.ext4", "-q", "-F", "/dev/sdb"], check=True)
    machine.content("sdb", raw.ljust(16, b"\0"), 1024 + 120)
    machine.probe_runs("sdb", f'exec {REAL_PROBE} "$@"\n')
    stand_ins.shown_when_mounting(machine, "/dev/sdb /mnt/sdb ext4 rw")
    machine.start("--hotplug", trace=traced("mount:retval=0"))
    before = everything_outside_mnt()
    client = machine.connect(timeout=20)
    known_as = client.ask("list").splitlines()[1].split("\t")[4]
    assert label in (None, known_as)
    word = f'"^{known_as}"' if " " in known_as else f"^{known_as}"
    assert client.ask(f"mount rw {word}") == MOUNTED
    assert sorted(os.listdir("/mnt")) == sorted([f"^{known_as}", "sdb"])
    assert "/" not in known_as and "\n" not in known_as and "\t" not in known_as
    assert everything_outside_mnt() == before


@pytest.mark.parametrize(
    "known", ["ext4;touch /root/owned", "../../root/owned", "$(touch /root/owned)", "x" * 3000]
)
def test_a_hostile_filesystem_name_reaches_no_shell(machine, known):
    """What the probe calls the file system is compared and printed, and nothing else."""
    stick(machine, known, types=("ext4",))
    daemon = machine.start(refuse=[("mount", errno.EINVAL)])
    assert machine.connect(timeout=30).ask("mount ro sdb1") == FAILED
    assert f"-> ext4 (known fs '{known}')\n" in daemon.stderr()
    assert os.listdir("/root") == []
    assert all("owned" not in call for call in stand_ins.calls())


# Candidates.

ALL_TYPES = "ext4 ext3 ext2 udf xfs hfsplus hfs iso9660 vfat ntfs reiserfs btrfs".split()
ALL_CANDIDATES = ALL_TYPES[:9] + ["*ntfs-3g", "*mount.exfat"] + ALL_TYPES[9:]


def tried(daemon):
    """The candidates that were tried, in their order."""
    found = []
    for line in daemon.stderr_lines():
        if line.startswith("Trying kernel driver "):
            found.append(line.split()[5])
        elif line.startswith("Trying FUSE driver "):
            found.append(line.split()[3])
    return found


@pytest.mark.parametrize("mode", ["ro", "rw", "rudero"])
def test_an_unknown_filesystem_walks_all_candidates(machine, mode):
    """In their order, in silence where the kernel says that it is not its file system; ntfs-3g
    for writing only."""
    stick(machine, None, types=ALL_TYPES)
    daemon = machine.start(refuse=[("mount", errno.EINVAL)])
    assert machine.ask(f"mount {mode} sdb1") == FAILED
    wanted = [name for name in ALL_CANDIDATES if mode == "rw" or name != "*ntfs-3g"]
    assert tried(daemon) == wanted
    assert "Trying kernel driver /dev/sdb1 -> ext4 (known fs ' ')\n" in daemon.stderr()
    assert "Asked to mount" not in daemon.stderr()
    assert os.path.isdir("/mnt/sdb1")  # nothing is rolled back


@pytest.mark.parametrize(
    "known, kept",
    [
        ("exfat", ["*mount.exfat"]),
        ("ext2", ["ext4", "ext3", "ext2"]),
        ("ext3", ["ext4", "ext3", "ext2"]),
        ("ext4", ["ext4", "ext3", "ext2"]),
        ("fat", ["vfat"]),
        ("iso9660", ["iso9660"]),
        ("ntfs", ["*ntfs-3g", "ntfs"]),
        ("udf", ["udf"]),
        ("hfs", ["hfs"]),
        ("hfs+", ["hfsplus"]),
        ("btrfs", ["btrfs"]),
        ("xfs", ["xfs"]),
        ("HFS+", ["hfsplus"]),
        ("ExFAT", ["*mount.exfat"]),
        ("vfat", ALL_CANDIDATES),
        ("reiserfs", ALL_CANDIDATES),
        ("ext", ALL_CANDIDATES),
    ],
)
def test_a_known_filesystem_tries_its_own_candidates_alone(machine, known, kept):
    stick(machine, known, types=ALL_TYPES)
    daemon = machine.start(refuse=[("mount", errno.EINVAL)])
    assert machine.ask("mount rw sdb1") == FAILED
    assert tried(daemon) == kept


def test_ntfs_for_reading_is_left_to_the_kernel(machine):
    stick(machine, "ntfs")
    stand_ins.driver_lists(machine, path="/usr/bin/ntfs-3g")
    daemon = machine.start(refuse=[("mount", errno.EINVAL)])
    assert machine.ask("mount ro sdb1") == FAILED
    assert tried(daemon) == ["ntfs"]
    assert stand_ins.calls("ntfs-3g") == []


def test_a_type_that_the_kernel_lists_without_a_device_is_none(machine):
    """A nodev entry of that name is no driver for a drive."""
    stick(machine, "ext4", types=())
    write("/proc/filesystems", "nodev\text4\n\text2\n")
    daemon = machine.start(refuse=[("mount", errno.EINVAL)])
    assert machine.ask("mount ro sdb1") == FAILED
    assert tried(daemon) == ["ext2"]


def test_mount_errors_are_told_and_the_next_candidate_is_tried(machine):
    stick(machine, "ext4")
    daemon = machine.start(refuse=[("mount", errno.EACCES)])
    assert machine.ask("mount ro sdb1") == FAILED
    assert lines_from(daemon, "Trying kernel") == [
        line
        for name in ("ext4", "ext3", "ext2")
        for line in (
            f"Trying kernel driver /dev/sdb1 -> {name} (known fs 'ext4')",
            f"Asked to mount sdb1 at /mnt/sdb1, as {name} failed: Permission denied",
        )
    ]


def test_no_medium_ends_the_search(machine):
    stick(machine, None, types=ALL_TYPES)
    daemon = machine.start(refuse=[("mount", errno.ENOMEDIUM)])
    assert machine.ask("mount rw sdb1") == FAILED
    assert lines_from(daemon, "Trying kernel") == [
        "Trying kernel driver /dev/sdb1 -> ext4 (known fs ' ')",
        "Asked to mount sdb1 at /mnt/sdb1, as ext4 failed: No medium found",
    ]
    assert is_served(machine)


def test_a_later_candidate_may_mount(machine):
    stick(machine, "ext4")
    stand_ins.shown_when_mounting(machine, "/dev/sdb1 /mnt/sdb1 ext2 rw")
    daemon = machine.start(
        refuse=[("mount", errno.EINVAL)], trace=traced("mount:retval=0:when=3")
    )
    assert machine.ask("mount rw sdb1") == MOUNTED
    assert tried(daemon) == ["ext4", "ext3", "ext2"]
    assert "Asked to mount" not in daemon.stderr()
    assert own_calls(daemon, "mount")[-1] == (
        'mount("/dev/sdb1", "/mnt/sdb1", "ext2", MS_NOSUID|MS_NODEV, NULL) = 0 (INJECTED)'
    )


def test_every_mount_keeps_set_user_id_programs_and_device_nodes_out(machine):
    stick(machine, None, types=ALL_TYPES)
    # A mount(2) without MS_NODEV would be refused with a word; none is.
    daemon = machine.start(
        refuse=[("mount", errno.EPERM, 3, MS_NODEV, 0), ("mount", errno.EINVAL)]
    )
    assert machine.ask("mount rw sdb1") == FAILED
    assert "Asked to mount" not in daemon.stderr()


# What the reply says of the mount.

WARNINGS = {
    "driver refuses": "OK- mount succeded\nOK warning: Despite your request, the drive is mounted "
    "read only. There may be a problem with the disk\n",
    "ntfs refuses": "OK- mount succeded\nOK warning: You're asking the NTFS driver to mount "
    "read-write which is not supported, and of course it ignored you\n",
    "too much": "OK- mount succeeded\nOK warning: for some bizarre reason your mount r/o request "
    "has been granted as r/w\n",
}
SENSES = (
    "Warning: client asked to mount sdb1 rw, but driver mounted read-only.\n"
    "perhaps the driver senses a problem?\n"
)
DANGEROUS = "Whoah! Your Linux kernel NTFS driver supports writing! This is dangerous!\n"


@pytest.mark.parametrize(
    "known, mode, options, reply, line",
    [
        ("ext4", "rw", "rw", MOUNTED, None),
        ("ext4", "ro", "ro", MOUNTED, None),
        ("ext4", "rudero", "ro", MOUNTED, None),
        ("ext4", "rw", "ro", WARNINGS["driver refuses"], SENSES),
        ("ext4", "ro", "rw", WARNINGS["too much"], None),
        ("ext4", "rudero", "rw", WARNINGS["too much"], None),
        ("ext4", "rw", "noatime,rwx,arw", WARNINGS["driver refuses"], SENSES),
        ("ntfs", "rw", "ro", WARNINGS["ntfs refuses"], None),
        ("ntfs", "rw", "rw", MOUNTED, DANGEROUS),
        ("ntfs", "ro", "rw", WARNINGS["too much"], DANGEROUS),
        ("ntfs", "ro", "ro", MOUNTED, None),
    ],
)
def test_the_reply_tells_what_the_kernel_lists(machine, known, mode, options, reply, line):
    stick(machine, known)
    stand_ins.shown_when_mounting(machine, f"/dev/sdb1 /mnt/sdb1 {known} {options}")
    daemon = machine.start(trace=traced("mount:retval=0"))
    client = machine.connect()
    assert client.ask(f"mount {mode} sdb1") == reply
    assert client.is_silent()
    for text in (SENSES, DANGEROUS):
        assert (text in daemon.stderr()) == (text == line)


def test_a_driver_program_that_mounts_read_only_is_suspected(machine):
    """ntfs-3g is not the kernel's ntfs: the words are those of any driver."""
    stick(machine, "ntfs")
    stand_ins.driver_lists(machine, options="ro", path="/usr/bin/ntfs-3g")
    daemon = machine.start()
    assert machine.ask("mount rw sdb1") == WARNINGS["driver refuses"]
    assert SENSES in daemon.stderr()


# Discs.


def test_a_disc_is_mounted_read_only_whatever_was_asked(machine):
    stand_ins.install(machine)
    machine.plug("scsi", "sr0", 1 << 20, model="DVD")
    machine.probe_says("sr0", "DISC", "iso9660")
    write("/proc/filesystems", "\tiso9660\n")
    stand_ins.shown_when_mounting(machine, "/dev/sr0 /mnt/sr0 iso9660 ro")
    stand_ins.notes_events(machine)
    daemon = machine.start(
        trace=traced("ioctl:retval=4", "mount:retval=0", calls="mount,ioctl")
    )
    client = machine.connect("guest")
    assert client.ask("mount rw sr0") == MOUNTED
    assert own_calls(daemon, "mount") == [
        'mount("/dev/sr0", "/mnt/sr0", "iso9660", MS_RDONLY|MS_NOSUID|MS_NODEV, NULL)'
        " = 0 (INJECTED)"
    ]
    assert "client asked" not in daemon.stderr()
    assert client.ask("mount rw sr0") == "OK but CD-ROM drives are readonly\n"
    assert stand_ins.events() == ["sr0 about-to-mount", "/dev/sr0 mount"]


# A device that goes while it is dealt with.


def test_a_device_without_a_node_cannot_be_opened(machine):
    stick(machine, "ext4")
    machine.start("--hotplug")
    os.unlink("/dev/sdb1")
    assert machine.ask("mount ro sdb1") == "ERR I can't open the device, much less mount it\n"
    assert not os.path.exists("/mnt/sdb1")


def test_a_device_that_somebody_else_holds_cannot_be_opened(machine):
    """Another holder of a block device makes the exclusive opening fail."""
    stick(machine, "ext4")
    machine.start(refuse=[("openat", errno.EBUSY, 2, os.O_EXCL | os.O_CREAT, os.O_EXCL)])
    assert machine.ask("mount ro sdb1") == "ERR I can't open the device, much less mount it\n"


def test_a_device_that_vanishes_before_it_is_mounted(machine):
    """It goes while the scripts run; the kernel has the last word."""
    stick(machine, "ext4")
    machine.script("/var/quarryd/mount-notify/pull", "rm -f /dev/sdb1")
    daemon = machine.start("--hotplug", refuse=[("mount", errno.ENOENT)])
    assert machine.ask("mount ro sdb1") == FAILED
    text = "Asked to mount sdb1 at /mnt/sdb1, as ext4 failed: No such file or directory\n"
    assert text in daemon.stderr()
    assert is_served(machine)


def test_a_device_that_vanishes_after_its_mount_is_released(machine):
    """Mounted, and pulled before the reply was read: unmounted like any other."""
    stand_ins.exfat_stick(machine)
    machine.start()
    machine.script("/var/quarryd/mount-notify/pull", "[ $2 != mount ] || rm -f /dev/sdb1")
    client = machine.connect()
    client.send("mount rw sdb1\n")
    assert client.reply() == MOUNTED
    machine.unplug("sdb")
    wait_until(lambda: os.listdir("/mnt") == [], what="an empty /mnt")
    assert stand_ins.mount_options("/mnt/sdb1") is None


def test_a_superblock_stops_a_mount_before_any_script_runs(machine):
    stick(machine, "ext4")
    stand_ins.notes_events(machine)
    machine.start("--hotplug")
    machine.content("sdb1", disk_formats.md_superblock() + bytes(4096))
    reply = machine.ask("mount ro sdb1")
    assert reply == "ERR device appears to be RAID array participant\n"
    assert stand_ins.events() == []


# Directories.


@pytest.mark.parametrize("number", [errno.EACCES, errno.EROFS, errno.ENOSPC])
def test_a_mount_point_that_cannot_be_made(machine, number):
    stick(machine, "ext4")
    machine.start(refuse=[("mkdir", number)])
    assert machine.ask("mount ro sdb1") == "ERR unable to create mountpoint\n"
    assert is_served(machine)


def test_a_mount_point_that_is_there_already_is_used(machine):
    """The kernel refuses to make it again; that it is there is enough."""
    stick(machine, "ext4")
    stand_ins.shown_when_mounting(machine, "/dev/sdb1 /mnt/sdb1 ext4 ro")
    os.makedirs("/mnt/sdb1/left/over")
    machine.start(trace=traced("mount:retval=0"))
    assert machine.ask("mount ro sdb1") == MOUNTED


@pytest.mark.parametrize("umask, mode", [(0, 0o777), (0o22, 0o755)])
def test_the_mount_point_is_made_for_everybody(machine, umask, mode):
    """As far as the umask goes that the daemon was started with."""
    stick(machine, "ext4")
    os.umask(umask)
    machine.start(refuse=[("mount", errno.EINVAL)])
    assert machine.ask("mount ro sdb1") == FAILED
    assert os.stat("/mnt/sdb1").st_mode & 0o777 == mode


# The kernel's table, late or never.


@pytest.mark.parametrize("seconds", [0.5, 2.3])
def test_a_mount_that_is_listed_late_is_waited_for(machine, seconds):
    stick(machine, "exfat")
    stand_ins.driver_lists(machine, after=seconds)
    machine.start()
    reply, took = timed(machine.connect(), "mount rw sdb1")
    assert reply == MOUNTED
    assert seconds < took < seconds + 5
    assert os.readlink("/mnt/^DATA") == "sdb1"
    assert is_served(machine)


def list_after_looks(daemon, client, looks):
    """Asks for a mount that gets its line in the table when that many looks have missed it;
    returns the reply and the seconds."""
    start = time.monotonic()
    client.send("mount rw sdb1\n")
    daemon.wait_for("Attempting FUSE")
    watch = FileWatch("/proc/mounts")
    seen = 0
    while seen < looks:
        seen += len(watch.seen(timeout=20))
    watch.close()
    sleep(0.3)
    with open("/proc/mounts", "a") as file:
        file.write("/dev/sdb1 /mnt/sdb1 exfat rw 0 0\n")
    return client.reply(), time.monotonic() - start


@pytest.mark.seconds(70)
@pytest.mark.parametrize("looks, reply", [(10, MOUNTED), (11, FAILED)])
def test_the_eleventh_look_at_the_table_is_the_last(machine, looks, reply):
    """What is listed only after it has failed, although it is there: no link and no event."""
    stick(machine, "exfat")
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat", "sleep 0.5\n")
    stand_ins.notes_events(machine)
    daemon = machine.start()
    found, took = list_after_looks(daemon, machine.connect(timeout=30), looks)
    assert found == reply
    assert looks <= took < looks + 5
    assert ("/dev/sdb1 mount" in stand_ins.events()) == (reply == MOUNTED)
    assert os.path.lexists("/mnt/^DATA") == (reply == MOUNTED)
    assert len(stand_ins.calls("/mount")) == (reply == MOUNTED)
    assert is_served(machine)


def test_a_mount_that_is_never_listed_has_failed_after_eleven_looks(machine):
    """Time is taken out of it: eleven sleeps of one second, and a last reading of the table."""
    stick(machine, "exfat")
    stand_ins.driver_lists(machine, fstype="other", options="rw")
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat")
    daemon = machine.start(
        "--hotplug",
        trace=traced(
            "clock_nanosleep:retval=0:when=1+", calls="openat,clock_nanosleep,recvfrom,sendto"
        ),
    )
    # The client comes with its request, so that one pass serves it: no other reading falls in there.
    daemon.send_signal(signal.SIGSTOP)
    client = machine.connect(timeout=30)
    client.send("mount rw sdb1\n")
    daemon.send_signal(signal.SIGCONT)
    assert client.reply() == FAILED
    during = calls_during(daemon, "mount rw")
    seconds = [line for line in during if "tv_sec=1," in line]
    looks = [line for line in during if '"/proc/mounts"' in line]
    assert len(seconds) == 11
    assert len(looks) == 1 + 11 + 1
    assert is_served(machine)


def test_a_mount_that_is_gone_again_is_not_shown(machine):
    """Listed when it was waited for, gone at the last reading: no success."""
    stick(machine, "exfat")
    # A pipe gives its line to the first reader, and to the next one nothing.
    os.mkfifo("/proc/once")
    keeps_the_line = os.open("/proc/once", os.O_RDONLY | os.O_NONBLOCK)
    write("/proc/once", "/dev/sdb1 /mnt/sdb1 exfat rw 0 0\n")
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat", "mv /proc/once /proc/mounts\n")
    stand_ins.notes_events(machine)
    machine.start("--hotplug")
    assert machine.ask("mount rw sdb1") == NOT_SHOWN
    assert stand_ins.events() == ["sdb1 about-to-mount"]
    assert is_served(machine)
    os.close(keeps_the_line)


# The daemon is asked to end while it waits.


def end_during(machine, daemon, text, client, request, wait=0.0):
    """Sends SIGTERM when the text has been said; returns the seconds until the daemon's end."""
    client.send(request + "\n")
    daemon.wait_for(text)
    sleep(wait)
    daemon.send_signal(signal.SIGTERM)
    start = time.monotonic()
    daemon.check_end(0)
    return time.monotonic() - start


def test_sigterm_ends_the_wait_for_the_table(machine):
    stick(machine, "exfat")
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat")
    daemon = machine.start()
    client = machine.connect()
    took = end_during(machine, daemon, "Attempting FUSE", client, "mount rw sdb1", wait=1.5)
    assert took < 6
    assert client.line() in (b"", NOT_SHOWN.encode())
    assert "Shutting down any other swap files" in daemon.stderr()
    assert "mount failed" not in daemon.stderr()


def test_a_wait_that_was_cut_short_is_told_to_the_client(machine):
    """The client came with its request, so that its reply goes out in the pass that is the
    daemon's last."""
    stick(machine, "exfat")
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat")
    daemon = machine.start()
    daemon.send_signal(signal.SIGSTOP)
    client = machine.connect()
    client.send("mount rw sdb1\n")
    daemon.send_signal(signal.SIGCONT)
    daemon.wait_for("Attempting FUSE")
    sleep(0.5)
    daemon.send_signal(signal.SIGTERM)
    assert client.reply() == NOT_SHOWN
    daemon.check_end(0)


def test_sigterm_during_a_driver_waits_for_its_end_and_unmounts(machine):
    stand_ins.exfat_stick(machine)
    stand_ins.driver_mounts(machine, text="sleep 1.5\n")
    daemon = machine.start()
    client = machine.connect()
    end_during(machine, daemon, "Attempting FUSE", client, "mount rw sdb1", wait=0.3)
    assert stand_ins.mount_options("/mnt/sdb1") is None
    assert os.listdir("/mnt") == []


def test_sigterm_during_a_script_waits_for_its_end_and_unmounts(machine):
    stand_ins.exfat_stick(machine)
    stand_ins.notes_events(machine, more="[ $2 != mount ] || sleep 1.5")
    daemon = machine.start()
    client = machine.connect()
    client.send("mount rw sdb1\n")
    wait_until(lambda: "/dev/sdb1 mount" in stand_ins.events())
    daemon.send_signal(signal.SIGTERM)
    daemon.check_end(0)
    assert stand_ins.mount_options("/mnt/sdb1") is None
    assert os.listdir("/mnt") == []


def test_others_wait_while_a_driver_runs_and_are_served_afterwards(machine):
    """One thread: nobody is served meanwhile, and nobody is forgotten."""
    stand_ins.exfat_stick(machine)
    stand_ins.driver_mounts(machine, text="sleep 1.5\n")
    daemon = machine.start()
    client = machine.connect()
    client.send("mount rw sdb1\n")
    daemon.wait_for("Attempting FUSE")
    others = [machine.connect("guest") for _ in range(10)]
    for other in others:
        other.send("mount rw sdb1\n")
    assert others[0].is_silent(0.5)
    assert client.reply() == MOUNTED
    for other in others:
        assert other.reply() == "OK already mounted read/write\n"


def test_a_client_that_leaves_during_its_mount_gets_it_all_the_same(machine):
    stand_ins.exfat_stick(machine)
    stand_ins.driver_mounts(machine, text="sleep 0.5\n")
    daemon = machine.start()
    client = machine.connect()
    client.send("mount rw sdb1\n")
    daemon.wait_for("Attempting FUSE")
    client.close()
    assert is_served(machine)
    assert "rw" in stand_ins.mount_options("/mnt/sdb1")
    assert os.readlink("/mnt/^DATA") == "sdb1"


# Success takes no nap.


def test_no_path_that_succeeds_sleeps(machine):
    """Mounting, remounting both ways, driving nobody out, unmounting."""
    stand_ins.exfat_stick(machine)
    stand_ins.notes_events(machine)
    daemon = machine.start(
        "--hotplug", trace=traced(calls="recvfrom,sendto,nanosleep,clock_nanosleep,poll,select")
    )
    client = machine.connect(timeout=30)
    requests = {
        "mount rw ^DATA": MOUNTED,
        "mount ro sdb1": "OK remounted as r/o\n",
        "mount rw sdb1": "OK remounted as r/w\n",
        "mount rudero sdb1": "OK remounted as r/o\n",
        "mount rudeoff sdb1": "OK unmount succeeded\n",
    }
    for request, reply in requests.items():
        assert client.ask(request) == reply
        calls = calls_during(daemon, request)
        assert not [call for call in calls if "sleep" in call], request


# The last step.


SWAPPED_ON = "Setting up swapfile on main drive.\n"


@pytest.mark.parametrize(
    "change, reply, reached",
    [
        (None, "OK already mounted read/write\n", True),
        ("read-only", "ERR cannot remount\n", True),
        ("mount fails", FAILED, True),
        ("no mount point", "ERR unable to create mountpoint\n", True),
        ("array", "ERR device appears to be RAID array participant\n", False),
        ("no node", "ERR I can't open the device, much less mount it\n", False),
        ("veto", "ERR mounting was vetoed by notification script\n", False),
        ("guest", "ERR authorization required\n", False),
    ],
)
def test_swap_goes_on_after_some_replies_and_not_after_others(machine, change, reply, reached):
    """Whatever became of a mount that was tried; not where no mount was tried at all."""
    main_with_swap(machine)
    write("/proc/swaps", "Filename Type Size Used Priority\n")
    refuse = [("mount", errno.EINVAL)] + [("mkdir", errno.EROFS)] * (change == "no mount point")
    daemon = machine.start("--hotplug", refuse=refuse)
    daemon.wait_for("Found main partition")  # swap was switched on then
    if change == "read-only":
        machine.mount_table(["/dev/sdb1 /mnt/sdb1 ext4 ro"])
    elif change not in (None, "guest"):
        machine.mount_table([])
    if change == "no mount point":
        os.rmdir("/mnt/sdb1")
    elif change == "array":
        machine.content("sdb1", disk_formats.md_superblock() + bytes(4096))
    elif change == "no node":
        os.unlink("/dev/sdb1")
    elif change == "veto":
        machine.script("/var/quarryd/mount-notify/veto", "exit 1")
    assert machine.ask("mount rw sdb1", user="guest" if change == "guest" else "root") == reply
    assert daemon.stderr().count(SWAPPED_ON) == 1 + reached


@pytest.mark.parametrize("mode", ["ro", "off", "rudero", "rudeoff"])
def test_swap_stays_off_when_the_main_partition_is_not_asked_for_writing(machine, mode):
    main_with_swap(machine, "ro")
    write("/proc/swaps", "Filename Type Size Used Priority\n")
    daemon = machine.start("--hotplug", refuse=[("umount2", errno.EBUSY)])
    daemon.wait_for("Found main partition")
    machine.ask(f"mount {mode} sdb1")
    assert daemon.stderr().count(SWAPPED_ON) == 1


def test_swap_is_no_matter_of_other_devices(machine):
    main_with_swap(machine)
    machine.part("sdb2", 4096)
    machine.add_mount_line("/dev/sdb2 /mnt/sdb2 ext4 rw")
    daemon = machine.start("--hotplug")
    daemon.wait_for("Found main partition")
    assert machine.ask("mount ro sdb2") == "ERR cannot remount\n"
    assert SWAPPED_OFF not in daemon.stderr()
    write("/proc/swaps", "")
    assert machine.ask("mount rw sdb2") == "OK already mounted read/write\n"
    assert SWAPPED_ON not in daemon.stderr()
