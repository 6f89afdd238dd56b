"""The kernel's tables with anything in them: too long, too short, missing, noise."""

import os
import random

import pytest

from machine.drives import write

NOISE = random.Random(7).randbytes(20000)

# Every text is put in the place of every table.
GARBAGE = {
    "empty": b"",
    "one byte": b"x",
    "line ends": b"\n" * 3000,
    "blanks": b"   \n \n\t\n",
    "nulls": b"\0" * 2000,
    "noise": NOISE,
    "noise without line ends": NOISE.replace(b"\n", b"x"),
    "no line end": b"/dev/sda1 / ext4 rw 0 0",
    "one field": b"/dev/sda1\n",
    "two fields": b"/dev/sda1 /\n",
    "three fields": b"/dev/sda1 / ext4\n",
    "four fields": b"/dev/sda1 / ext4 rw\n",
    "four fields and a blank": b"/dev/sda1 / ext4 rw \n",
    "leading blanks": b"    /dev/sda1    /    ext4    rw    0    0\n",
    "commas": b"/dev/sda1 / ,,, ,,,, 0 0\n",
    "tabs": b"/dev/sda1\t/\text4\trw\t0\t0\n\t\t\t\n",
    "line of 510": b"/dev/".ljust(510, b"x") + b"\n",
    "line of 511": b"/dev/".ljust(511, b"x") + b"\n",
    "line of 512": b"/dev/".ljust(512, b"x") + b"\n",
    "line of 513": b"/dev/".ljust(513, b"x") + b"\n",
    "line of 100000": b"/dev/".ljust(100000, b"x") + b"\n",
    "line of 127": b"nodev\t".ljust(127, b"x") + b"\n",
    "line of 128": b"nodev\t".ljust(128, b"x") + b"\n",
    "line of 129": b"nodev\t".ljust(129, b"x") + b"\n",
    "fifty thousand lines": b"/dev/sdx1 /mnt/sdx1 ext4 rw 0 0\n" * 50000,
    "one long list of options": b"/dev/sdb1 /mnt/sdb1 ext4 " + b"o," * 5000 + b" 0 0\n",
    "huge numbers": b" 99999999999999999999 -1 0xfffffffffffffffffff sda\n" * 400,
    "numbers that end": b"8\n8 \n8 0\n8 0 \n8 0 100\n8 0 100 \n   \n#\n # 8 0 1 x\n",
}

TABLES = ["/proc/mounts", "/proc/filesystems", "/proc/partitions"]


@pytest.mark.parametrize("name", GARBAGE)
def test_garbage_in_every_table(machine, name):
    """The daemon starts with it, reads it in the loop and on request, and ends with it."""
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)
    for table in TABLES:
        write(table, GARBAGE[name])
    machine.start()
    machine.pass_of_loop()  # the first pass reads the tables
    assert machine.ask("refresh") == "OK refreshed\n"
    assert machine.ask("list").count("\n") == 4


@pytest.mark.parametrize("length", [40, 510, 511])
def test_lines_up_to_511_bytes_are_read_whole(machine, length):
    """The boot partition's name shows how much of its line was read."""
    rest = " / ext4 rw 0 0"
    device = "/dev/sd" + "x" * (length - len(rest) - len("/dev/sd"))
    write("/proc/mounts", f"{device}{rest}\n")
    daemon = machine.start()
    assert f"boot partition: {device[5:]}\n" in daemon.stderr()


@pytest.mark.parametrize("length", [512, 1000, 5000])
def test_a_line_that_is_too_long_harms_no_other(machine, length):
    write("/proc/mounts", "tmpfs /" + "x" * length + " tmpfs rw 0 0\n/dev/sda1 / ext4 rw 0 0\n")
    assert "boot partition: sda1\n" in machine.start().stderr()


def test_a_short_line_harms_no_other(machine):
    short = "proc\nproc /proc\nproc /proc proc\nproc /proc proc rw\n"
    write("/proc/mounts", short + "/dev/sda1 / ext4 rw 0 0\n")
    assert "boot partition: sda1\n" in machine.start().stderr()


def test_the_last_line_needs_no_end(machine):
    write("/proc/mounts", "proc /proc proc rw 0 0\n/dev/sda1 / ext4 rw 0 0")
    assert "boot partition: sda1\n" in machine.start().stderr()


def test_escapes_stay_as_the_kernel_wrote_them(machine):
    write("/proc/mounts", "/dev/my\\040disk / ext4 rw 0 0\n")
    assert "boot partition: my\\040disk\n" in machine.start().stderr()


def test_a_tab_is_no_separator_of_the_mount_table(machine):
    write("/proc/mounts", "/dev/sda1\t/\text4\trw\t0\t0\n/dev/sdb1 / ext4 rw 0 0\n")
    assert "boot partition: sdb1\n" in machine.start().stderr()


@pytest.mark.parametrize(
    "table, lines",
    [
        ("mounts", ["WaRNING: cannot stat /etc/fstab", "Cannot access /proc/mounts"]),
        ("filesystems", ["Cannot read /proc/filesystems"]),
        ("partitions", ["Cannot open /proc/partitions"]),
    ],
)
def test_a_table_that_vanishes_is_missed_every_second(machine, table, lines):
    daemon = machine.start()
    machine.settle()
    os.rename(f"/proc/{table}", f"/proc/{table}.away")
    for line in lines:
        daemon.wait_for(line + "\n", times=2)
    os.rename(f"/proc/{table}.away", f"/proc/{table}")
    machine.settle()
    machine.pass_of_loop()


@pytest.mark.parametrize("table", TABLES)
def test_a_table_that_is_a_directory(machine, table):
    os.unlink(table)
    os.mkdir(table)
    machine.start()
    machine.pass_of_loop()
    assert machine.ask("refresh") == "OK refreshed\n"


def test_an_unreadable_mount_table_means_that_nothing_is_mounted(machine):
    """A drive that vanishes then is not unmounted: nobody knows of its mount."""
    machine.real_mounts()
    machine.mount_tmpfs("sdb", "/mnt/sdb")
    machine.plug("usb", "sdb", 1 << 20)
    daemon = machine.start()
    os.unlink("/proc/mounts")
    machine.settle()
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    machine.settle()
    assert os.path.ismount("/mnt/sdb")
    assert "killing processes" not in daemon.stderr()


def test_the_first_of_two_mounts_of_a_device_counts(machine):
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/mnt/first")
    machine.mount_tmpfs("sdb", "/mnt/second")
    daemon = machine.start()
    machine.settle()
    machine.unplug("sdb")
    daemon.wait_for("killing processes using sdb on /mnt/first\n")
    machine.settle()
    assert not os.path.exists("/mnt/first")
    assert os.path.ismount("/mnt/second")
    assert "/mnt/second" not in daemon.stderr()


# Lookups.


@pytest.mark.parametrize(
    "words, answer",
    [
        ("device /dev/sdb1", "yes"),
        ("device /dev/sdb", "no"),
        ("device sdb1", "no"),
        ("mountpoint /mnt/sdb1", "yes"),
        ("mountpoint /mnt/sdb1/", "no"),  # compared byte by byte
        ("mountpoint /mnt/my\\040disk", "yes"),
        ("device", "no"),
    ],
)
def test_lookup_in_the_mount_table(machine, words, answer):
    machine.mount_table(["/dev/sdb1 /mnt/sdb1 ext4", "/dev/sdc1 /mnt/my\\040disk vfat"])
    assert machine.room("tables").ask(f"find {words}") == answer


def test_unknown_category_is_reported(machine):
    room = machine.room("tables")
    assert room.ask("find dev x") == "no"
    assert room.stderr() == "unknown category dev val x\n"


def test_known_file_systems(machine):
    write("/proc/filesystems", "nodev\tfuse\n\text4\n\text4 more\nNODEV\todd\nno tab\nnodev\t\n")
    room = machine.room("tables")
    for words, answer in (
        ("fuse nodev", "yes"),
        ("fuse drive", "no"),
        ("ext4 drive", "yes"),
        ("ext4 nodev", "no"),
        ("odd drive", "yes"),  # any first column but "nodev"
        ("tab drive", "no"),
        ("no drive", "no"),
        ("ext drive", "no"),
    ):
        assert room.ask(f"have {words}") == answer, words


def test_file_systems_stay_known_when_the_list_vanishes(machine):
    room = machine.room("tables")
    os.unlink("/proc/filesystems")
    room.ask("tables")
    assert room.ask("have ext4 drive") == "yes"
    assert room.stderr() == "Cannot read /proc/filesystems\n"


@pytest.mark.parametrize("length, known", [(126, "yes"), (127, "yes"), (128, None), (5000, None)])
def test_lines_of_the_file_system_list_up_to_127_bytes(machine, length, known):
    """A longer line harms no other."""
    name = "x" * (length - len("nodev\t"))
    write("/proc/filesystems", f"nodev\t{name}\n\text4\n")
    room = machine.room("tables")
    assert room.ask("have ext4 drive") == "yes"
    if known:
        assert room.ask(f"have {name} nodev") == known


def test_mounts_are_unknown_when_the_table_vanishes(machine):
    machine.mount_table(["/dev/sdb1 /mnt/sdb1 ext4"])
    room = machine.room("tables")
    assert room.ask("find device /dev/sdb1") == "yes"
    os.unlink("/proc/mounts")
    room.ask("tables")
    assert room.ask("find device /dev/sdb1") == "no"
