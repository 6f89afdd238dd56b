"""What is done with a mount once it is there: quotas and ACLs are switched on by remounting. The
remounting program is a stand-in that notes its words and fails as it is told; the file system's
type is a word in a made-up table."""

import errno
import os

import pytest

from machine import stand_ins
from machine.drives import write
from machine.stand_ins import mount_options
from machine.traces import own_calls, traced

MOUNTED = "OK mount succeeded\n\n"
PROBLEM = "Problem enabling quotas"
NO_ACLS = "Problem enabling ACLs, oh well"
OPTIONS_FAILED = "ext3 journalled quota mount options failed"
QUOTA_FILES = {"user": "/mnt/sdb1/aquota.user", "group": "/mnt/sdb1/aquota.group"}

ACL_CALL = "mount -o remount,acl /mnt/sdb1"
BOTH = "rw,remount,usrquota,grpquota,jqfmt=vfsv0"
PLAIN_CALL = "mount -o rw,remount,usrquota,grpquota /mnt/sdb1"


def stick(machine, fstype="ext4", options="rw", user=0, group=0):
    """A stick that is listed with that type, with quota files of those sizes on it."""
    stand_ins.install(machine)
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)
    machine.probe_says("sdb1", "DATA", "exfat")
    stand_ins.driver_lists(machine, options=options, fstype=fstype)
    for kind, size in (("user", user), ("group", group)):
        if size:
            write(QUOTA_FILES[kind], bytes(size))


def mount_program(machine, text):
    stand_ins.stand_in(machine, "/usr/bin/mount", text)


def ask(machine, request="mount rw sdb1"):
    with machine.connect(timeout=20) as client:
        return client.ask(request)


def remounts():
    """The calls of the mount program, less its directory."""
    return [call.removeprefix("/usr/bin/") for call in stand_ins.calls("bin/mount")]


def said(daemon):
    """The lines after the driver's, less those of the label probe."""
    lines = daemon.stderr_lines()
    start = lines.index("Attempting FUSE driver mount.exfat")
    return [line for line in lines[start + 1 :] if not line.startswith(("Label:", "  '"))]


# ACLs.


@pytest.mark.parametrize("fstype", ["ext4", "vfat", "fuseblk", "btrfs"])
def test_acls_are_switched_on_for_every_type(machine, fstype):
    stick(machine, fstype)
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert remounts() == [ACL_CALL]
    assert said(daemon) == []


def test_acls_that_cannot_be_had_are_no_matter(machine):
    stick(machine)
    mount_program(machine, "echo noise; echo noise >&2; exit 32\n")
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert said(daemon) == [NO_ACLS]
    assert "noise" not in daemon.stdout()


@pytest.mark.parametrize("text", ["kill -KILL $$\n", None])
def test_a_mount_program_that_dies_or_is_missing(machine, text):
    stick(machine)
    if text:
        mount_program(machine, text)
    else:
        os.unlink("/usr/bin/mount")
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert said(daemon) == [NO_ACLS]


def test_a_mount_program_that_cannot_be_forked(machine):
    """The probe, the loader and the driver have had their children."""
    stick(machine)
    daemon = machine.start("--hotplug", trace=traced("clone:error=EAGAIN:when=4", calls="clone"))
    assert ask(machine) == MOUNTED
    assert said(daemon) == [NO_ACLS]
    assert remounts() == []


@pytest.mark.parametrize("options", ["ro", "ro,relatime", "noatime", "rwx", "ro,data=rw"])
def test_what_is_not_mounted_read_write_is_left_as_it_is(machine, options):
    stick(machine, options=options, user=300, group=300)
    daemon = machine.start("--hotplug")
    assert ask(machine, "mount ro sdb1") == MOUNTED
    assert remounts() == []
    assert said(daemon) == []


def test_a_remount_by_the_client_switches_nothing_on(machine):
    """Quotas and ACLs belong to a new mount."""
    stand_ins.exfat_stick(machine)
    machine.start("--hotplug")
    assert ask(machine, "mount ro sdb1") == MOUNTED
    assert ask(machine, "mount rw sdb1") == "OK remounted as r/w\n"
    assert remounts() == []


# Which quota files count.


@pytest.mark.parametrize(
    "user, group, lines",
    [
        (256, 256, []),
        (257, 0, ["sdb1 has user quotas"]),
        (0, 257, ["sdb1 has group quotas"]),
        (256, 257, ["sdb1 has group quotas"]),
        (257, 257, ["sdb1 has user quotas", "sdb1 has group quotas"]),
        (1 << 20, 1, ["sdb1 has user quotas"]),
    ],
)
def test_a_quota_file_needs_257_bytes(machine, user, group, lines):
    stick(machine, "vfat", user=user, group=group)
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert said(daemon) == lines + [PROBLEM] * bool(lines)


@pytest.mark.parametrize("kind", ["directory", "pipe", "dangling link"])
def test_what_is_no_regular_file_is_no_quota_file(machine, kind):
    stick(machine)
    os.makedirs("/mnt/sdb1")
    path = QUOTA_FILES["user"]
    if kind == "directory":
        os.mkdir(path)
    elif kind == "pipe":
        os.mkfifo(path)
    else:
        os.symlink("nowhere", path)
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert said(daemon) == []
    assert remounts() == [ACL_CALL]


def test_a_link_on_the_stick_names_no_quota_file_of_the_machine(machine):
    stick(machine)
    write("/etc/quota-of-the-machine", bytes(1000))
    os.makedirs("/mnt/sdb1")
    os.symlink("/etc/quota-of-the-machine", QUOTA_FILES["user"])
    daemon = machine.start("--hotplug", trace=traced(calls="quotactl"))
    assert ask(machine) == MOUNTED
    assert said(daemon) == []
    assert own_calls(daemon, "quotactl") == []


@pytest.mark.parametrize("fstype", ["vfat", "xfs", "btrfs", "ext2", "fuseblk", "tmpfs"])
def test_other_types_have_a_problem_at_once(machine, fstype):
    """No remount, no call of the kernel: two lines, and the mount is as good as any."""
    stick(machine, fstype, user=300)
    daemon = machine.start("--hotplug", trace=traced(calls="quotactl"))
    assert ask(machine) == MOUNTED
    assert said(daemon) == ["sdb1 has user quotas", PROBLEM]
    assert remounts() == [ACL_CALL]
    assert own_calls(daemon, "quotactl") == []


# Switching them on.


@pytest.mark.parametrize("fstype", ["ext3", "ext4"])
@pytest.mark.parametrize("user, group", [(300, 0), (0, 300), (300, 300)])
def test_quotas_are_switched_on(machine, fstype, user, group):
    """First the remount that names the files, then the kernel for each kind; ACLs come last."""
    stick(machine, fstype, user=user, group=group)
    daemon = machine.start("--hotplug", trace=traced("quotactl:retval=0", calls="quotactl"))
    assert ask(machine) == MOUNTED
    names = ",usrjquota=aquota.user" * bool(user) + ",grpjquota=aquota.group" * bool(group)
    assert remounts() == [f"mount -o {BOTH}{names} /mnt/sdb1", ACL_CALL]
    wanted = [
        f'quotactl(QCMD(Q_QUOTAON, {kind}), "/dev/sdb1", QFMT_VFS_V0, "{path}") = 0 (INJECTED)'
        for kind, path, size in (
            ("USRQUOTA", QUOTA_FILES["user"], user),
            ("GRPQUOTA", QUOTA_FILES["group"], group),
        )
        if size
    ]
    assert own_calls(daemon, "quotactl") == wanted
    assert PROBLEM not in daemon.stderr()


def test_a_second_plain_remount_is_tried_where_the_first_fails(machine):
    """File systems without a journal for quotas take the plain options."""
    stick(machine, user=300, group=300)
    mount_program(machine, 'case "$*" in *jqfmt*) exit 32;; esac\n')
    daemon = machine.start("--hotplug", trace=traced("quotactl:retval=0", calls="quotactl"))
    assert ask(machine) == MOUNTED
    names = ",usrjquota=aquota.user,grpjquota=aquota.group"
    assert remounts() == [f"mount -o {BOTH}{names} /mnt/sdb1", PLAIN_CALL, ACL_CALL]
    assert len(own_calls(daemon, "quotactl")) == 2
    assert said(daemon) == ["sdb1 has user quotas", "sdb1 has group quotas"]


def test_where_both_remounts_fail_the_kernel_is_not_asked(machine):
    stick(machine, user=300)
    mount_program(machine, 'case "$*" in *quota*) exit 32;; esac\n')
    daemon = machine.start("--hotplug", trace=traced(calls="quotactl"))
    assert ask(machine) == MOUNTED
    assert said(daemon) == ["sdb1 has user quotas", OPTIONS_FAILED, PROBLEM]
    assert own_calls(daemon, "quotactl") == []
    assert remounts()[-1] == ACL_CALL


@pytest.mark.parametrize("number", [errno.EPERM, errno.EBUSY, errno.ESRCH, errno.ENOSYS])
def test_quotas_that_the_kernel_refuses(machine, number):
    """Both kinds are tried, each with a line; one problem is reported for all."""
    stick(machine, user=300, group=300)
    daemon = machine.start("--hotplug", refuse=[("quotactl", number)])
    assert ask(machine) == MOUNTED
    assert said(daemon) == [
        "sdb1 has user quotas",
        "sdb1 has group quotas",
        f"Failed to enable user quotas, {os.strerror(number)}",
        f"Failed to enable group quotas, {os.strerror(number)}",
        PROBLEM,
    ]


@pytest.mark.parametrize("kind, word", [(0, "user"), (1, "group")])
def test_one_kind_that_the_kernel_refuses_is_a_problem_too(machine, kind, word):
    """The other is switched on."""
    stick(machine, user=300, group=300)
    daemon = machine.start(
        "--hotplug",
        refuse=[("quotactl", errno.EIO, 0, 0xFF, kind)],
        trace=traced(f"quotactl:retval=0:when={2 - kind}", calls="quotactl"),
    )
    assert ask(machine) == MOUNTED
    results = [call.rsplit("= ", 1)[1] for call in own_calls(daemon, "quotactl")]
    refused, accepted = "-1 EIO (Input/output error)", "0 (INJECTED)"
    assert results == ([accepted, refused] if kind else [refused, accepted])
    assert said(daemon)[2:] == [f"Failed to enable {word} quotas, Input/output error", PROBLEM]


def test_the_kernel_itself_is_asked(machine):
    """Nothing made up: a plain file is no block device, and that is what is reported."""
    stick(machine, user=300)
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    no_block = os.strerror(errno.ENOTBLK)
    assert said(daemon) == [
        "sdb1 has user quotas",
        f"Failed to enable user quotas, {no_block}",
        PROBLEM,
    ]


# The remounts lose no protection.


def test_a_mount_program_that_drops_the_flags_does_not_have_the_last_word(machine):
    """nosuid and nodev are put back after each of its calls."""
    stand_ins.exfat_stick(machine)
    mount_program(
        machine, f"exec {stand_ins.REAL_MOUNT} -i -o remount,suid,dev,rw /mnt/sdb1\n"
    )
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert {"rw", "nosuid", "nodev"} <= set(mount_options("/mnt/sdb1"))
    assert NO_ACLS not in daemon.stderr()


def test_the_flags_are_put_back_even_after_a_remount_that_failed(machine):
    """It may have done half of its work."""
    stand_ins.exfat_stick(machine)
    mount_program(
        machine, f"{stand_ins.REAL_MOUNT} -i -o remount,suid,dev,rw /mnt/sdb1\nexit 32\n"
    )
    daemon = machine.start("--hotplug")
    assert ask(machine) == MOUNTED
    assert {"nosuid", "nodev"} <= set(mount_options("/mnt/sdb1"))
    assert NO_ACLS in daemon.stderr()


def test_quotas_and_acls_are_done_before_the_link_and_the_event(machine):
    stick(machine, user=300)
    note = "ls /mnt >> /run/order; echo $1 $2 >> /run/order\n"
    mount_program(machine, "ls /mnt >> /run/order; echo $2 >> /run/order\n")
    machine.script("/var/quarryd/mount-notify/note", f"[ $2 = mount ] || exit 0\n{note}")
    machine.start("--hotplug", trace=traced("quotactl:retval=0", calls="quotactl"))
    assert ask(machine) == MOUNTED
    with open("/run/order") as file:
        assert file.read().splitlines() == [
            "sdb1",
            f"{BOTH},usrjquota=aquota.user",
            "sdb1",
            "remount,acl",
            "^DATA",
            "sdb1",
            "/dev/sdb1 mount",
        ]
