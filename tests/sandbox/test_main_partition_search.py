"""The search for the main partition: which devices are examined, how, how often, and what follows.

No drive can be mounted in here. Where the search has to mount one itself, the calls are answered in
the kernel's place and the directory below /mnt already holds what would be on the drive; where
somebody has mounted it before, a tmpfs calls itself by the drive's name.
"""

import os
import re
import signal
import socket
import time

import pytest

from machine import disk_formats, kernel
from machine.clients import wait_until
from machine.drives import write
from machine.machine import REAL_PROC, sleep

MIB = 1 << 20
TYPES = ["ext4", "ext3", "ext2", "udf", "xfs", "reiserfs", "btrfs"]
CALLS = "mount,umount2,chdir,symlink,symlinkat,rmdir,unlinkat,execve,swapon,swapoff,quotactl"
MOUNTS_REFUSED = ("-e", "trace=mount", "-e", "inject=mount:error=EINVAL")
MOUNTS_ANSWERED = ("-e", f"trace={CALLS}", "-e", "inject=mount,umount2:retval=0")


def wanted(machine, signature="SIG", label="", more=""):
    machine.configure(
        f"main partition signature={signature}\nmain partition label={label}\n{more}"
    )


def stick(machine, name="sdb", partitions=1):
    machine.plug("usb", name, MIB)
    for number in range(1, partitions + 1):
        machine.part(f"{name}{number}", 65536)


def on_drive(name, signature="SIG\n"):
    """What will be found in /mnt/NAME, as if it were on the drive."""
    write(f"/mnt/{name}/.claimsig", signature)


def mounted_before(machine, name, signature="SIG\n", flags=0):
    """Somebody has mounted the device at its own place; the kernel's table tells."""
    machine.real_mounts()
    os.makedirs(f"/mnt/{name}", exist_ok=True)
    kernel.mount(f"/dev/{name}", f"/mnt/{name}", "tmpfs", 0, "mode=755")
    if signature is not None:
        on_drive(name, signature)
    if flags:
        kernel.mount(None, f"/mnt/{name}", None, kernel.MS_REMOUNT | kernel.MS_BIND | flags)


def options_of(point):
    """What the kernel says about a mount, or None."""
    with open(f"{REAL_PROC}/self/mounts") as file:
        for line in file:
            fields = line.split()
            if fields[1] == point:
                return fields[3].split(",")
    return None


def said_by_search(daemon):
    """Its lines about the search, from the first to the last."""
    words = ("For startup", "mount failed", "Found main", "Warning", "Cannot chdir")
    return [line for line in daemon.stderr_lines() if line.startswith(words)]


def found(name, drive=None):
    return f"Found main partition on {drive or name.rstrip('0123456789')} part {name}\n"


def own_calls(daemon, pattern):
    own = [line for line in daemon.trace() if line.startswith(f"{daemon.pid} ")]
    calls = [re.sub(r" +", " ", line).split(" ", 1)[1] for line in own]
    return [call for call in calls if re.search(pattern, call)]


def mount_calls(daemon):
    """Device, directory, type and flags of the daemon's calls of mount."""
    pattern = r'mount\((?:"(.*?)"|NULL), "(.*?)", (?:"(.*?)"|NULL), (\S+), NULL\)'
    return [re.search(pattern, line).groups() for line in own_calls(daemon, r"\bmount\(")]


def is_never_found(machine, daemon):
    """Two more readings of the tables have passed and the search goes on."""
    machine.settle()
    machine.settle()
    assert "Found main" not in daemon.stderr()
    assert not os.path.lexists("/mnt/main")


# The conversation.


def test_a_partition_is_found_by_its_signature(machine):
    """Mounted read-only for a look, then remounted for writing and published."""
    stick(machine)
    on_drive("sdb1")
    machine.probe_says("sdb1", "DATA", "ext4")
    wanted(machine)
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    daemon.wait_for(found("sdb1"))
    assert said_by_search(daemon) == [
        "For startup search: attempting to mount /dev/sdb1",
        "For startup search: successfully mounted /dev/sdb1",
        "For startup search: /dev/sdb1 has sig SIG",
        "Found main partition on sdb part sdb1",
    ]
    assert os.readlink("/mnt/main") == "sdb1"
    assert os.readlink("/mnt/^DATA") == "sdb1"
    assert mount_calls(daemon)[0] == (
        "/dev/sdb1",
        "/mnt/sdb1",
        "ext4",
        "MS_RDONLY|MS_NOSUID|MS_NODEV",
    )
    assert mount_calls(daemon)[1] == (None, "/mnt/sdb1", None, "MS_REMOUNT")
    assert len(mount_calls(daemon)) == 2


def test_a_partition_is_found_by_its_label(machine):
    """Mounted for writing at once; the signature file is not looked at, nothing is remounted."""
    stick(machine)
    on_drive("sdb1", "SIG\n")
    machine.probe_says("sdb1", "MAIN", "ext4")
    wanted(machine, "SIG", "MAIN")
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    daemon.wait_for(found("sdb1"))
    assert said_by_search(daemon) == [
        "For startup search: attempting to mount /dev/sdb1",
        "For startup search: successfully mounted /dev/sdb1",
        "Found main partition on sdb part sdb1",
    ]
    assert os.readlink("/mnt/main") == "sdb1"
    assert os.readlink("/mnt/^MAIN") == "sdb1"
    assert mount_calls(daemon) == [("/dev/sdb1", "/mnt/sdb1", "ext4", "MS_NOSUID|MS_NODEV")]


def test_another_signature_is_told_and_the_trial_is_undone(machine):
    """Unmounted, its directory removed, the label's link too; nothing is examined again."""
    stick(machine)
    on_drive("sdb1", "OTHER\n")
    machine.probe_says("sdb1", "DATA", "ext4")
    os.symlink("sdb1", "/mnt/^DATA")
    wanted(machine)
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    daemon.wait_for("has sig OTHER\n")
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == [
        "For startup search: attempting to mount /dev/sdb1",
        "For startup search: successfully mounted /dev/sdb1",
        "For startup search: /dev/sdb1 has sig OTHER",
    ]
    assert not os.path.lexists("/mnt/^DATA")
    steps = own_calls(daemon, r"mount|sdb1|chdir\(\"/\"\)")
    undone = [step.split(" = ")[0] for step in steps if "MS_RDONLY" not in step]
    assert undone == [
        'chdir("/mnt/sdb1")',
        'chdir("/")',
        'umount2("/mnt/sdb1", 0)',
        'rmdir("/mnt/sdb1")',
    ]


def test_an_empty_trial_directory_goes_with_its_mount(machine):
    """Nothing on the drive: the directory that the search made is removed again."""
    stick(machine)
    wanted(machine)
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    daemon.wait_for("successfully mounted /dev/sdb1")
    machine.settle()
    assert not os.path.exists("/mnt/sdb1")
    assert "has sig" not in daemon.stderr()


def test_a_trial_that_cannot_be_unmounted_is_told(machine):
    stick(machine)
    on_drive("sdb1", "OTHER\n")
    wanted(machine)
    trace = ("-e", "trace=mount", "-e", "inject=mount:retval=0")
    daemon = machine.start(trace=trace, refuse=[("umount2", 16)])
    daemon.wait_for("Warning: cannot unmount /mnt/sdb1\n")
    is_never_found(machine, daemon)


def test_the_types_are_tried_in_their_order(machine):
    stick(machine)
    wanted(machine)
    daemon = machine.start(trace=MOUNTS_REFUSED)
    is_never_found(machine, daemon)
    flags = "MS_RDONLY|MS_NOSUID|MS_NODEV"
    assert mount_calls(daemon) == [("/dev/sdb1", "/mnt/sdb1", kind, flags) for kind in TYPES]


@pytest.mark.parametrize("error", ["EINVAL", "ENOMEDIUM", "ENODEV"])
def test_what_a_wrong_type_answers_is_not_worth_a_line(machine, error):
    stick(machine)
    wanted(machine)
    trace = ("-e", "trace=mount", "-e", f"inject=mount:error={error}")
    daemon = machine.start(trace=trace)
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == ["For startup search: attempting to mount /dev/sdb1"]


def test_every_other_reason_is_told_for_each_type(machine):
    stick(machine)
    wanted(machine)
    trace = ("-e", "trace=mount", "-e", "inject=mount:error=EIO")
    daemon = machine.start(trace=trace)
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == [
        "For startup search: attempting to mount /dev/sdb1",
        *["mount failed for /mnt/sdb1, Input/output error"] * len(TYPES),
    ]


def test_the_first_type_that_succeeds_is_the_last_that_is_tried(machine):
    stick(machine)
    on_drive("sdb1")
    wanted(machine)
    trace = ("-e", "trace=mount", "-e", "inject=mount:retval=0:when=5+")
    daemon = machine.start(trace=trace, refuse=[("mount", 22)])
    daemon.wait_for(found("sdb1"))
    assert [call[2] for call in mount_calls(daemon)] == [*TYPES[:5], None]


# Which devices, in which order.


def attempts(daemon):
    return re.findall(r"attempting to mount /dev/(\S+)", daemon.stderr())


def test_drives_and_partitions_are_examined_in_the_order_of_their_names(machine):
    """A drive with partitions is not examined itself."""
    stick(machine, "sdd", 0)
    stick(machine, "sdc", 2)
    machine.part("sdc10", 65536)
    machine.plug("mmc", "mmcblk0", MIB)
    machine.part("mmcblk0p1", 65536)
    stick(machine, "sda", 1)
    wanted(machine)
    daemon = machine.start(trace=MOUNTS_REFUSED)
    is_never_found(machine, daemon)
    assert attempts(daemon) == ["mmcblk0p1", "sda1", "sdc1", "sdc10", "sdc2", "sdd"]


def test_the_first_of_two_that_match_is_the_main_partition(machine):
    for name in ("sdc", "sdb"):
        stick(machine, name, 2)
    for name in ("sdb2", "sdc1"):
        on_drive(name)
    wanted(machine)
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    daemon.wait_for(found("sdb2"))
    assert attempts(daemon) == ["sdb1", "sdb2"]


def test_a_whole_drive_without_partitions_can_be_the_main_partition(machine):
    stick(machine, "sdb", 0)
    on_drive("sdb")
    wanted(machine)
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    daemon.wait_for("Found main partition on sdb part sdb\n")
    assert os.readlink("/mnt/main") == "sdb"


@pytest.mark.parametrize("by", ["signature", "label"])
def test_a_whole_drive_with_partitions_is_not_examined(machine, by):
    """Its partitions are, whatever the drive itself carries."""
    stick(machine, "sdb", 1)
    mounted_before(machine, "sdb")
    machine.probe_says("sdb", "MAIN", "ext4")
    wanted(machine, "SIG" if by == "signature" else "", "MAIN" if by == "label" else "")
    daemon = machine.start(trace=MOUNTS_REFUSED)
    is_never_found(machine, daemon)
    assert attempts(daemon) == (["sdb1"] if by == "signature" else [])
    assert "has sig" not in daemon.stderr()


@pytest.mark.parametrize("by", ["signature", "label"])
@pytest.mark.parametrize("boot", ["partition", "drive"])
def test_the_boot_device_is_never_the_main_partition(machine, by, boot):
    name = "sda1" if boot == "partition" else "sda"
    stick(machine, "sda", 1 if boot == "partition" else 0)
    on_drive(name)
    machine.probe_says(name, "MAIN", "ext4")
    machine.mount_table([f"/dev/{name} / ext4", f"/dev/{name} /mnt/{name} ext4"])
    wanted(machine, "SIG" if by == "signature" else "", "MAIN" if by == "label" else "")
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    assert f"boot partition: {name}\n" in daemon.stderr()
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == []
    assert mount_calls(daemon) == []


@pytest.mark.parametrize("by", ["signature", "label"])
@pytest.mark.parametrize("name", ["sdb1", "sdb"])
def test_a_raid_member_is_never_claimed(machine, by, name):
    stick(machine, "sdb", 1 if name == "sdb1" else 0)
    machine.content(name, disk_formats.md_superblock(), 0)
    on_drive(name)
    machine.probe_says(name, "MAIN", "ext4")
    machine.mount_table([f"/dev/{name} /mnt/{name} ext4"])
    wanted(machine, "SIG" if by == "signature" else "", "MAIN" if by == "label" else "")
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    is_never_found(machine, daemon)
    assert "Inactive RAID" in machine.ask("list")
    assert said_by_search(daemon) == []
    assert mount_calls(daemon) == []


def test_what_is_no_hard_drive_is_not_examined(machine):
    machine.plug("scsi", "sr0", MIB)
    machine.plug("dm", "dm-0", MIB, volume="vg-main")
    machine.plug("ide", "hdc", MIB, media="cdrom")
    machine.plug("other", "nbd0", MIB)
    for name in ("sr0", "dm-0", "hdc", "nbd0"):
        on_drive(name)
        machine.probe_says(name, "MAIN", "ext4")
    wanted(machine, "SIG", "MAIN")
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == []
    assert machine.probe_calls() == []


def test_a_label_that_cannot_be_mounted_for_writing_leaves_the_signature_to_be_tried(machine):
    """The label's mounts are refused, the signature's read-only one is not."""
    stick(machine)
    on_drive("sdb1")
    machine.probe_says("sdb1", "MAIN", "ext4")
    wanted(machine, "SIG", "MAIN")
    trace = ("-e", "trace=mount", "-e", f"inject=mount:retval=0:when={len(TYPES) + 1}+")
    daemon = machine.start(trace=trace, refuse=[("mount", 13)])
    daemon.wait_for(found("sdb1"))
    attempt = "For startup search: attempting to mount /dev/sdb1"
    assert said_by_search(daemon) == [
        attempt,
        *["mount failed for /mnt/sdb1, Permission denied"] * len(TYPES),
        attempt,
        "For startup search: successfully mounted /dev/sdb1",
        "For startup search: /dev/sdb1 has sig SIG",
        "Found main partition on sdb part sdb1",
    ]


def test_another_label_is_no_reason_to_mount_anything(machine):
    stick(machine)
    machine.probe_says("sdb1", "MAINX", "ext4")
    wanted(machine, "", "MAIN")
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    is_never_found(machine, daemon)
    assert mount_calls(daemon) == []


def test_another_label_does_not_stand_in_the_way_of_the_signature(machine):
    stick(machine)
    on_drive("sdb1")
    machine.probe_says("sdb1", "DATA", "ext4")
    wanted(machine, "SIG", "MAIN")
    daemon = machine.start(trace=MOUNTS_ANSWERED)
    daemon.wait_for(found("sdb1"))


# The signature file.


@pytest.mark.parametrize(
    "text, setting, matches",
    [
        (b"SIG", "SIG", True),  # no line end
        (b"SIG\n\n\n\n", "SIG", True),
        (b"SIG" + b"\n" * 252, "SIG", True),
        (b"SIG" + b"\n" * 252 + b"more", "SIG", True),  # only the first 255 bytes count
        (b"SIG" + b"\n" * 251 + b"more", "SIG", False),
        (b"SIG\r\n", "SIG", False),
        (b"SIG\r\n", "SIG\r", True),  # a carriage return is text
        (b"SIG \n", "SIG", False),
        (b" SIG\n", "SIG", False),
        (b"\nSIG\n", "SIG", False),
        (b"SIG\nSIG\n", "SIG", False),
        (b"sig\n", "SIG", False),
        (b"SIGX\n", "SIG", False),
        (b"SI\n", "SIG", False),
        (b"SIG\n\0", "SIG", False),
        (b"SIG\0", "SIG", True),  # a text ends at a zero byte
        (b"\0SIG", "SIG", False),
        (b"", "SIG", False),
        (b"\n\n\n", "SIG", False),
        (b"x" * 255, "x" * 255, True),
        (b"x" * 256, "x" * 255, True),
        (b"x" * 100000, "x" * 255, True),
        (b"x" * 256, "x" * 256, False),  # longer than anything that is read
        (b"\xff\xfe\n", "\udcff\udcfe", True),
    ],
)
def test_the_text_of_the_signature_file(machine, text, setting, matches):
    stick(machine)
    mounted_before(machine, "sdb1", text)
    wanted(machine, setting)
    daemon = machine.start()
    if matches:
        daemon.wait_for(found("sdb1"))
    else:
        is_never_found(machine, daemon)
    shown = text[:255].rstrip(b"\n").split(b"\0")[0]
    with open(daemon.stderr_path, "rb") as file:
        said = re.findall(rb"(?s)/dev/sdb1 has sig (.*?)\n(?=Found|volsniffer|\Z)", file.read())
    assert said == ([shown] if shown else [])


@pytest.mark.parametrize("what", ["directory", "link", "link to nowhere", "FIFO", "socket"])
def test_only_a_regular_file_is_a_signature_file(machine, what):
    """Whatever else lies in its place neither matches nor holds the daemon up."""
    stick(machine)
    mounted_before(machine, "sdb1", None)
    path = "/mnt/sdb1/.claimsig"
    write("/mnt/sdb1/signature", "SIG\n")
    if what == "directory":
        os.mkdir(path)
    elif what == "link":
        os.symlink("signature", path)
    elif what == "link to nowhere":
        os.symlink("nowhere", path)
    elif what == "FIFO":
        os.mkfifo(path)
    else:
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
    wanted(machine)
    daemon = machine.start()
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == []


def test_a_signature_file_that_cannot_be_read_matches_nothing(machine):
    stick(machine)
    mounted_before(machine, "sdb1")
    os.chmod("/mnt/sdb1/.claimsig", 0)
    wanted(machine)
    daemon = machine.start(drop_file_override=True)
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == []


def test_a_directory_that_cannot_be_entered_is_told(machine):
    """The file is then looked for where the daemon is, in the root of everything."""
    stick(machine)
    mounted_before(machine, "sdb1")
    write("/.claimsig", "ELSEWHERE\n")
    os.chmod("/mnt/sdb1", 0)
    wanted(machine)
    daemon = machine.start(drop_file_override=True)
    is_never_found(machine, daemon)
    assert said_by_search(daemon) == [
        "Cannot chdir to /mnt/sdb1",
        "For startup search: /dev/sdb1 has sig ELSEWHERE",
    ]


def test_a_labelled_partition_that_cannot_be_entered_is_claimed_all_the_same(machine):
    stick(machine)
    mounted_before(machine, "sdb1", None)
    os.chmod("/mnt/sdb1", 0)
    machine.probe_says("sdb1", "MAIN", "ext4")
    wanted(machine, "", "MAIN")
    daemon = machine.start(drop_file_override=True)
    daemon.wait_for(found("sdb1"))
    assert said_by_search(daemon)[0] == "Cannot chdir to /mnt/sdb1"


# What somebody has mounted before.


def test_a_mounted_partition_without_the_signature_stays_as_it_is(machine):
    stick(machine)
    mounted_before(machine, "sdb1", "OTHER\n", flags=kernel.MS_RDONLY)
    machine.probe_says("sdb1", "DATA", "ext4")
    os.symlink("sdb1", "/mnt/^DATA")
    wanted(machine)
    daemon = machine.start(trace=("-e", "trace=mount,umount2"))
    daemon.wait_for("has sig OTHER")
    is_never_found(machine, daemon)
    assert own_calls(daemon, "mount") == []
    assert "ro" in options_of("/mnt/sdb1")
    assert os.path.lexists("/mnt/^DATA")
    assert said_by_search(daemon) == ["For startup search: /dev/sdb1 has sig OTHER"]


def test_a_mounted_partition_with_the_signature_becomes_writable_and_stays_protected(machine):
    """It was mounted read-only with nosuid, nodev and noexec: only the first changes."""
    stick(machine)
    flags = kernel.MS_NOSUID | kernel.MS_NODEV | kernel.MS_NOEXEC
    mounted_before(machine, "sdb1")
    kernel.mount(None, "/mnt/sdb1", None, kernel.MS_REMOUNT | kernel.MS_RDONLY | flags, "mode=755")
    assert {"ro", "nosuid", "nodev", "noexec"} <= set(options_of("/mnt/sdb1"))
    wanted(machine)
    daemon = machine.start()
    daemon.wait_for(found("sdb1"))
    assert {"rw", "nosuid", "nodev", "noexec"} <= set(options_of("/mnt/sdb1"))
    assert "attempting" not in daemon.stderr()


def test_a_mounted_partition_with_the_label_is_taken_as_it_is(machine):
    """A claim by label remounts nothing, not even what is read-only."""
    stick(machine)
    mounted_before(machine, "sdb1", "SIG\n", flags=kernel.MS_RDONLY | kernel.MS_NOSUID)
    machine.probe_says("sdb1", "MAIN", "ext4")
    wanted(machine, "SIG", "MAIN")
    daemon = machine.start()
    daemon.wait_for(found("sdb1"))
    assert {"ro", "nosuid"} <= set(options_of("/mnt/sdb1"))
    assert said_by_search(daemon) == ["Found main partition on sdb part sdb1"]


def test_a_remount_that_is_refused_is_told_and_the_partition_is_kept(machine):
    stick(machine)
    mounted_before(machine, "sdb1")
    wanted(machine)
    remount = ("mount", 30, 3, kernel.MS_REMOUNT, kernel.MS_REMOUNT)
    daemon = machine.start(refuse=[remount])
    daemon.wait_for(found("sdb1"))
    assert "Warning: cannot remount /mnt/sdb1 read/write\n" in daemon.stderr()
    assert os.readlink("/mnt/main") == "sdb1"


def test_a_main_link_that_cannot_be_made_is_told_and_the_partition_is_kept(machine):
    stick(machine)
    mounted_before(machine, "sdb1")
    write("/mnt/main/file", "in the way")
    wanted(machine)
    daemon = machine.start()
    daemon.wait_for(found("sdb1"))
    assert "Warning: cannot create main symlink\n" in daemon.stderr()
    assert os.path.isdir("/mnt/main")


def test_a_partition_mounted_in_another_place_is_looked_for_in_its_own(machine):
    """The directory below /mnt counts, wherever the device is mounted: it is empty here."""
    stick(machine)
    machine.real_mounts()
    machine.mount_tmpfs("sdb1", "/root/elsewhere")
    write("/root/elsewhere/.claimsig", "SIG\n")
    wanted(machine)
    daemon = machine.start(trace=("-e", "trace=mount,umount2"))
    daemon.wait_for("Cannot chdir to /mnt/sdb1\n")
    is_never_found(machine, daemon)
    assert own_calls(daemon, "mount") == []
    assert options_of("/root/elsewhere") is not None


# Nothing is examined twice.


def passes(daemon):
    """The daemon's calls from sleep to sleep, by name."""
    names = [line.split("(")[0] for line in own_calls(daemon, r"\w+\(")]
    result, current = [], []
    for name in names:
        current.append(name)
        if "nanosleep" in name:
            result.append(current)
            current = []
    return result


def calls_of_an_idle_pass(machine, trace):
    """The pass that is seen most often in two seconds of peace."""
    daemon = machine.start("--hotplug", trace=trace)
    machine.settle()
    machine.settle()
    before = len(passes(daemon))
    sleep(2)
    machine.stop()
    seen = passes(daemon)[before + 1 : before + 30]
    return max(seen, key=seen.count)


def test_an_idle_pass_of_the_search_makes_no_call_of_its_own(machine):
    """When everything has been looked at, searching costs what not searching costs."""
    stick(machine, "sdb", 2)
    stick(machine, "sdc", 0)
    machine.content("sdb2", disk_formats.md_superblock(), 0)
    machine.plug("scsi", "sr0", MIB)
    trace = ("-e", "trace=all", "-e", "inject=mount:error=EINVAL")
    without = calls_of_an_idle_pass(machine, trace)
    wanted(machine, "SIG", "MAIN")
    assert calls_of_an_idle_pass(machine, trace) == without


@pytest.mark.parametrize("mode", ["--polling", "--hotplug"])
@pytest.mark.parametrize("answer", ["none", "a label", "no label"])
def test_the_search_asks_for_each_label_once(machine, mode, answer):
    """Whatever the probe says, it does not run again for a device that was looked at."""
    stick(machine, "sdb", 2)
    stick(machine, "sdc", 0)
    for name in ("sdb", "sdb1", "sdb2", "sdc"):
        if answer != "none":
            machine.probe_says(name, "DATA" if answer == "a label" else "", "vfat")
    wanted(machine, "SIG", "MAIN")
    daemon = machine.start(mode, trace=MOUNTS_REFUSED)
    daemon.wait_for("attempting to mount /dev/sdc\n")
    machine.settle()
    sleep(9)  # two of the four-second looks at the drives
    asked = [line.split()[1] for line in machine.probe_calls()]
    assert sorted(asked) == ["/dev/sdb", "/dev/sdb1", "/dev/sdb2", "/dev/sdc"]
    assert attempts(daemon) == ["sdb1", "sdb2", "sdc"]


# What arrives later.


def test_a_drive_that_arrives_later_is_examined_in_polling_mode(machine):
    wanted(machine)
    daemon = machine.start("--polling")
    is_never_found(machine, daemon)
    mounted_before(machine, "sdb1")
    stick(machine)
    daemon.wait_for(found("sdb1"))


def test_a_drive_that_arrives_later_is_examined_in_hotplug_mode(machine):
    wanted(machine)
    daemon = machine.start("--hotplug")
    is_never_found(machine, daemon)
    mounted_before(machine, "sdb1")
    stick(machine)
    assert machine.ask("notify add /block/sdb") == "OK thank you\n"
    assert machine.ask("notify add /block/sdb/sdb1") == "OK thank you\n"
    daemon.wait_for(found("sdb1"))


def test_a_partition_that_arrives_on_a_known_drive_is_examined(machine):
    stick(machine, "sdb", 1)
    wanted(machine)
    daemon = machine.start("--polling", trace=MOUNTS_REFUSED)
    is_never_found(machine, daemon)
    machine.mount_table(["/dev/sdb2 /mnt/sdb2 ext4"])
    on_drive("sdb2")
    machine.part("sdb2", 65536)
    daemon.wait_for(found("sdb2"))
    assert attempts(daemon) == ["sdb1"]


def test_a_drive_that_was_examined_is_examined_again_when_it_comes_back(machine):
    stick(machine, "sdb", 1)
    wanted(machine)
    daemon = machine.start("--polling", trace=MOUNTS_REFUSED)
    is_never_found(machine, daemon)
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    stick(machine, "sdb", 1)
    daemon.wait_for("attempting to mount /dev/sdb1\n", times=2)
    assert attempts(daemon) == ["sdb1", "sdb1"]


def card_reader(machine, mode):
    """A reader without a card, examined in vain; then a card with the signature is put in."""
    machine.plug("usb", "sdb", 0)
    wanted(machine)
    trace = ("-e", "trace=mount", "-e", "inject=mount:error=ENOMEDIUM:when=1..7")
    daemon = machine.start(mode, trace=trace)
    is_never_found(machine, daemon)
    machine.settle()
    assert attempts(daemon) == ["sdb"]
    mounted_before(machine, "sdb")
    machine.resize("sdb", MIB)
    return daemon


def test_a_medium_that_arrives_in_hotplug_mode_is_found(machine):
    daemon = card_reader(machine, "--hotplug")
    daemon.wait_for("Found main partition on sdb part sdb\n")


def test_a_medium_that_arrives_in_polling_mode_is_not_looked_at(machine):
    """A drive that the poll knows is not asked again; hotplug mode finds it at once."""
    daemon = card_reader(machine, "--polling")
    sleep(5)
    assert "Found" not in daemon.stderr()
    machine.ask("hotplug")
    machine.resize("sdb", 0)
    sleep(5)
    machine.resize("sdb", MIB)
    daemon.wait_for("Found main partition on sdb part sdb\n")


def test_the_search_does_not_begin_again_when_the_main_partition_is_lost(machine):
    stick(machine)
    mounted_before(machine, "sdb1")
    wanted(machine)
    daemon = machine.start()
    daemon.wait_for(found("sdb1"))
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    assert options_of("/mnt/sdb1") is None
    stick(machine)
    mounted_before(machine, "sdb1")
    daemon.wait_for("Device sdb1 just appeared (polling)", times=2)
    machine.settle()
    assert daemon.stderr().count("Found main") == 1


# What follows.


def test_the_main_partition_has_its_place_in_the_list(machine):
    stick(machine)
    mounted_before(machine, "sdb1")
    wanted(machine)
    daemon = machine.start()
    daemon.wait_for(found("sdb1"))
    machine.settle()
    assert re.search(r"\t\tsdb1\tPartition\tUSB\t.*\tMain\t", machine.ask("list"))


def test_start_script_runs_once_and_after_everything_else(machine):
    """Swap, quotas, ACLs, and then the script, in a pass of its own."""
    stick(machine)
    on_drive("sdb1")
    for kind in ("user", "group"):
        write(f"/mnt/sdb1/aquota.{kind}", "q" * 257)
    with open("/mnt/sdb1/swap.img", "wb") as file:
        file.truncate(MIB)
    machine.mount_table(["/dev/sdb1 /mnt/sdb1 ext4 rw,nosuid,nodev"])
    machine.stand_in("mount")
    machine.script("/root/start", 'echo "$0 $*" >> /root/ran\n')
    wanted(machine, "SIG", "", "startup script=/root/start\nswap name=swap.img\n")
    inject = "inject=mount,umount2,swapon,swapoff,quotactl:retval=0"
    trace = ("-e", f"trace={CALLS},nanosleep,clock_nanosleep", "-e", inject)
    daemon = machine.start(trace=trace)
    daemon.wait_for(found("sdb1"))
    wait_until(lambda: os.path.exists("/root/ran"))
    daemon.wait_for(" died\n")
    machine.settle()
    machine.stop()
    with open("/root/ran") as file:
        assert file.read() == "/root/start -startup\n"
    files = "usrjquota=aquota.user,grpjquota=aquota.group"
    assert machine.calls("mount") == [
        f"-o rw,remount,usrquota,grpquota,jqfmt=vfsv0,{files} /mnt/sdb1",
        "-o remount,acl /mnt/sdb1",
    ]
    lines = daemon.trace()
    steps = [
        r"mount\(NULL.*MS_REMOUNT",
        r'symlink(at)?\("sdb1".*"/mnt/main"',
        r'swapon\("/mnt/sdb1/swap.img", 0\)',
        r'execve\("\S*/mount".*usrquota',
        r"quotactl\(Q.*USRQUOTA",
        r"quotactl\(Q.*GRPQUOTA",
        r'execve\("\S*/mount".*acl',
        r"nanosleep",
        r'execve\("/root/start"',
    ]
    place = 0
    for step in steps:
        place = next((i for i in range(place, len(lines)) if re.search(step, lines[i])), None)
        assert place is not None, f"{step} is missing or too early in\n" + "\n".join(lines)


def test_swap_that_fails_is_a_warning(machine):
    """The partition is the main partition all the same, and the start script runs."""
    stick(machine)
    mounted_before(machine, "sdb1")
    with open("/mnt/sdb1/swap.img", "wb") as file:
        file.truncate(MIB)
    machine.script("/root/start", "touch /root/ran\n")
    wanted(machine, "SIG", "", "startup script=/root/start\nswap name=swap.img\n")
    daemon = machine.start(refuse=[("swapon", 1)])
    daemon.wait_for(found("sdb1"))
    lines = daemon.stderr_lines()
    start = lines.index("Cannot set up swap Operation not permitted")
    assert lines[start + 1] == "Warning: cannot enable swap"
    wait_until(lambda: os.path.exists("/root/ran"))


# The end.


def test_a_signal_during_the_search_ends_it_in_good_order(machine):
    """The pass that is under way is finished: what it finds is given back, no script starts."""
    stick(machine, "sda", 1)
    stick(machine, "sdb", 1)
    machine.probe_runs("sda1", "touch /root/asking; sleep 1; exit 1\n")
    mounted_before(machine, "sdb1")
    machine.script("/root/start", "touch /root/ran\n")
    wanted(machine, "SIG", "", "startup script=/root/start\n")
    daemon = machine.start()
    wait_until(lambda: os.path.exists("/root/asking"))
    daemon.stop()
    assert found("sdb1") in daemon.stderr()
    assert options_of("/mnt/sdb1") is None
    assert not os.path.exists("/mnt/sdb1")
    assert not os.path.lexists("/mnt/main")
    assert not os.path.exists("/root/ran")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_a_search_in_vain_is_ended_by_a_signal(machine, number):
    stick(machine)
    machine.script("/root/start", "touch /root/ran\n")
    wanted(machine, "SIG", "", "startup script=/root/start\n")
    daemon = machine.start(trace=MOUNTS_REFUSED)
    is_never_found(machine, daemon)
    start = time.monotonic()
    daemon.stop(number)
    assert time.monotonic() - start < 15
    assert not os.path.exists("/root/ran")


def test_everything_is_given_back_in_order(machine):
    """Stop script, swap twice over, unmounting, the socket, /mnt/main."""
    stick(machine)
    mounted_before(machine, "sdb1")
    with open("/mnt/sdb1/swap.img", "wb") as file:
        file.truncate(MIB)
    write("/proc/swaps", "Filename Type Size Used Priority\n/mnt/sdb1/swap.img file 1024 0 -2\n")
    machine.script("/root/stop", "exit 0\n")
    wanted(machine, "SIG", "", "shutdown script=/root/stop\nswap name=swap.img\n")
    calls = "swapoff,umount2,execve,close,unlink,unlinkat,socket"
    trace = ("-y", "-e", f"trace={calls}", "-e", "inject=swapoff:error=EBUSY")
    daemon = machine.start(trace=trace)
    daemon.wait_for(found("sdb1"))
    listener = next(
        line for line in reversed(daemon.trace()) if "socket(AF_UNIX, SOCK_STREAM" in line
    ).rsplit("= ", 1)[1].removesuffix(">")
    machine.settle()
    before = len(daemon.trace())
    machine.stop()
    seen = []
    for line in daemon.trace()[before:]:
        for word, pattern in (
            ("script", 'execve("/root/stop"'),
            ("swapoff", 'swapoff("/mnt/sdb1/swap.img")'),
            ("unmount", 'umount2("/mnt/sdb1"'),
            ("socket", f"{daemon.pid} close({listener}"),
            ("main", '"/mnt/main"'),
        ):
            if pattern in re.sub(r"\s+", " ", line) and "resumed" not in line:
                seen.append(word)
    # The swap file, then all areas, each twice; once more because its partition is unmounted.
    assert seen == ["script", *["swapoff"] * 5, "unmount", "socket", "main"]
    assert not os.path.lexists("/mnt/main")
    assert options_of("/mnt/sdb1") is None


def test_a_daemon_that_was_killed_takes_up_what_is_still_mounted(machine):
    stick(machine)
    mounted_before(machine, "sdb1")
    write("/mnt/sdb1/work", "kept")
    wanted(machine)
    first = machine.start()
    first.wait_for(found("sdb1"))
    first.kill()
    assert os.readlink("/mnt/main") == "sdb1"
    second = machine.start()
    second.wait_for(found("sdb1"))
    assert said_by_search(second) == [
        "For startup search: /dev/sdb1 has sig SIG",
        "Found main partition on sdb part sdb1",
    ]
    assert os.readlink("/mnt/main") == "sdb1"
    with open("/mnt/main/work") as file:
        assert file.read() == "kept"
