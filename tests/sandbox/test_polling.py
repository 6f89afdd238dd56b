"""Following /sys/block: what appears, what goes and in which order, and what must not hurt."""

import os
import re
import shutil
import time

import pytest

from machine.clients import wait_until
from machine.drives import write
from machine.machine import sleep


def appeared(daemon):
    return re.findall(r"^Device (\S+) just appeared \(polling\)$", daemon.stderr(), re.M)


def disappeared(daemon):
    return re.findall(r"^Device (\S+) just disappeared \(polling\)$", daemon.stderr(), re.M)


def rows(machine):
    """The names in the plain list, partitions behind a +."""
    lines = machine.ask("list").splitlines()[1:-1]
    found = []
    for line in lines:
        assert line.startswith("OK- \t"), line
        fields = line[5:].split("\t")
        found.append("+" + fields[1] if fields[0] == "" else fields[0])
    return found


def stick(machine, name, partitions=1):
    machine.plug("usb", name, 1 << 20)
    for number in range(1, partitions + 1):
        machine.part(f"{name}{number}", 4096)


def test_a_drive_appears_before_its_partitions(machine):
    stick(machine, "sdb", 3)
    daemon = machine.start()
    names = appeared(daemon)
    assert names[0] == "sdb"
    assert sorted(names[1:]) == ["sdb1", "sdb2", "sdb3"]


def test_partitions_vanish_before_their_drives(machine):
    """All partitions in the order of their names, then all drives."""
    for name in ("sdc", "sdb"):
        stick(machine, name, 2)
    daemon = machine.start()
    machine.settle()
    # Between two polls: the tables have just been read.
    for name in ("sdb", "sdc"):
        machine.unplug(name)
    daemon.wait_for("Device sdc just disappeared")
    names = disappeared(daemon)
    assert sorted(names) == ["sdb", "sdb1", "sdb2", "sdc", "sdc1", "sdc2"]
    assert names.index("sdb2") < names.index("sdb")
    assert names.index("sdc2") < names.index("sdc")
    assert rows(machine) == []


def test_everything_that_vanishes_in_one_poll_goes_partitions_first(machine):
    for name in ("sdb", "sdc", "sdd"):
        stick(machine, name, 2)
    daemon = machine.start()
    machine.settle()
    os.rename("/sys/block", "/sys/block.away")
    os.mkdir("/sys/block")
    daemon.wait_for("Device sdd just disappeared")
    partitions = [f"{name}{number}" for name in ("sdb", "sdc", "sdd") for number in (1, 2)]
    assert disappeared(daemon) == [*partitions, "sdb", "sdc", "sdd"]


def test_an_unreadable_list_of_drives_changes_nothing(machine):
    """No record is removed while /sys/block cannot be opened, nor when it is missing."""
    stick(machine, "sdb")
    daemon = machine.start(drop_file_override=True)
    machine.settle()
    os.chmod("/sys/block", 0)
    machine.settle()
    machine.settle()
    assert rows(machine) == ["sdb", "+sdb1"]
    os.chmod("/sys/block", 0o755)
    os.rename("/sys/block", "/sys/block.away")
    machine.settle()
    machine.settle()
    assert rows(machine) == ["sdb", "+sdb1"]
    os.rename("/sys/block.away", "/sys/block")
    machine.settle()
    assert rows(machine) == ["sdb", "+sdb1"]
    assert disappeared(daemon) == []


def test_a_drive_whose_directory_cannot_be_opened_loses_its_partitions(machine):
    stick(machine, "sdb", 2)
    daemon = machine.start(drop_file_override=True)
    machine.settle()
    os.chmod(machine.folders["sdb"], 0)
    daemon.wait_for("Device sdb2 just disappeared")
    machine.settle()
    assert rows(machine) == ["sdb"]
    os.chmod(machine.folders["sdb"], 0o755)
    machine.settle()
    assert rows(machine) == ["sdb", "+sdb1", "+sdb2"]
    assert disappeared(daemon) == ["sdb1", "sdb2"]


def test_a_drive_that_is_no_directory(machine):
    write("/sys/block/sdb", "a plain file")
    os.symlink("/nowhere", "/sys/block/sdc")
    machine.start()
    machine.settle()
    assert rows(machine) == ["sdb", "sdc"]


def test_only_names_that_begin_like_the_drive_are_partitions(machine):
    """sda takes sda1, sda.x and sdab, wherever the kernel should put them; nothing else."""
    machine.plug("usb", "sda", 1 << 20)
    for name in ("sda1", "sda-boot", "queue", "sd", "sdb1", "holders", "size2"):
        write(f"{machine.folders['sda']}/{name}/size", "8\n")
    machine.start()
    machine.settle()
    assert rows(machine) == ["sda", "+sda-boot", "+sda1"]


def test_a_partition_moves_to_another_drive(machine):
    """It is attached anew with the next poll, and its size is read at the new place."""
    machine.plug("md", "md1", 1 << 20)
    machine.plug("md", "md12", 1 << 20)
    write(f"{machine.folders['md1']}/md12p1/size", "16\n")
    daemon = machine.start()
    machine.settle()
    assert rows(machine) == ["md1", "+md12p1", "md12"]
    shutil.move(f"{machine.folders['md1']}/md12p1", machine.folders["md12"])
    write(f"{machine.folders['md12']}/md12p1/size", "32\n")
    machine.settle()
    assert rows(machine) == ["md1", "md12", "+md12p1"]
    assert "\t\tmd12p1\tPartition\tRAID\t\t16384\t" in machine.ask("list")
    machine.unplug("md1")
    daemon.wait_for("Device md1 just disappeared")
    assert rows(machine) == ["md12", "+md12p1"]
    shutil.rmtree("/sys/devices/virtual/block/md12")
    os.unlink("/sys/block/md12")
    daemon.wait_for("Device md12 just disappeared")


def test_the_old_drive_goes_while_the_partition_moves(machine):
    """In one poll the partition changes drives and the drive that had it vanishes."""
    machine.plug("md", "md1", 1 << 20)
    machine.plug("md", "md12", 1 << 20)
    write(f"{machine.folders['md1']}/md12p1/size", "16\n")
    daemon = machine.start("--hotplug")
    machine.settle()
    shutil.move(f"{machine.folders['md1']}/md12p1", machine.folders["md12"])
    machine.unplug("md1")
    assert machine.ask("refresh") == "OK refreshed\n"
    assert rows(machine) == ["md12", "+md12p1"]
    assert disappeared(daemon) == ["md1"]


def test_known_partitions_are_read_again_with_every_poll(machine):
    """Their size follows; their label is empty again until a listing asks the probe program."""
    stick(machine, "sdb")
    machine.probe_says("sdb", "WHOLE", "ext3")
    machine.probe_says("sdb1", "PART", "ext3")
    machine.start()
    machine.settle()
    machine.ask("list")
    machine.attribute("sdb", "sdb1/size", "24\n")
    machine.attribute("sdb", "size", "24\n")
    machine.probe_says("sdb", "NEW", "ext3")
    machine.probe_says("sdb1", "NEW", "ext3")
    machine.settle()
    listing = machine.ask("list")
    assert "\tsdb\tHard Drive\tUSB\tWHOLE\t1048576\t" in listing
    assert "\t\tsdb1\tPartition\tUSB\tNEW\t12288\t" in listing


def test_the_same_name_can_come_back_as_another_drive(machine):
    machine.plug("usb", "sdb", 1 << 20, model="first")
    machine.content("sdb", b"\xfc\x4e\x2b\xa9" + b"\0" * 8)
    daemon = machine.start()
    assert "\tfirst\t\tInactive RAID\t" in machine.ask("list")
    machine.unplug("sdb")
    daemon.wait_for("Device sdb just disappeared")
    machine.plug("sata", "sdb", 2 << 20, model="second")
    daemon.wait_for("Device sdb just appeared", times=2)
    assert "\tsdb\tHard Drive\tSATA\t\t2097152\tsecond\t\t\t" in machine.ask("list")


def test_refresh_looks_at_once_in_either_mode(machine):
    for mode in ("--hotplug", "--polling"):
        daemon = machine.start(mode)
        machine.settle()
        machine.plug("usb", "sdb", 1 << 20)
        assert machine.ask("refresh") == "OK refreshed\n"
        assert rows(machine) == ["sdb"]
        machine.unplug("sdb")
        assert machine.ask("refresh") == "OK refreshed\n"
        assert rows(machine) == []
        daemon.stop()


def test_refresh_reads_superblocks_and_tables_again(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 1 << 19)
    machine.plug("usb", "sdc", 1 << 20)
    machine.content("sdc", b"\xfc\x4e\x2b\xa9" + b"\0" * 8)
    daemon = machine.start("--hotplug")
    machine.settle()
    machine.content("sdb1", b"\xfc\x4e\x2b\xa9" + b"\0" * 8)
    machine.content("sdc", b"\0" * 12)
    assert machine.ask("list").count("Inactive RAID") == 1
    assert machine.ask("refresh") == "OK refreshed\n"
    listing = machine.ask("list")
    assert "\t\tsdb1\tPartition\tUSB\t\t524288\t\t\tInactive RAID\t" in listing
    assert listing.count("Inactive RAID") == 1
    os.unlink("/proc/filesystems")
    machine.ask("refresh")
    assert "Cannot read /proc/filesystems\n" in daemon.stderr()


def test_nobody_else_can_refresh(machine):
    machine.start("--hotplug")
    machine.settle()
    machine.plug("usb", "sdb", 1 << 20)
    assert machine.ask("refresh", "guest") == "ERR you must be root to do that\n"
    assert rows(machine) == []


def test_slaves_count_when_the_array_is_seen_and_after_a_refresh(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.plug("usb", "sdc", 1 << 20)
    machine.plug("md", "md0", 1 << 20, slaves="sdb,sdc")
    write("/sys/block/md0/slaves/.hidden/x", "")
    daemon = machine.start()
    machine.ask("refresh")
    assert machine.ask("list").count("Active RAID") == 2
    machine.unplug("md0")
    daemon.wait_for("Device md0 just disappeared")
    machine.ask("refresh")
    assert "RAID" not in machine.ask("list").split("\n", 1)[1]


def test_plugging_in_and_out_all_the_time(machine):
    """Whatever a poll catches half done, nothing is lost or left in the end."""
    daemon = machine.start()
    deadline = time.monotonic() + 6
    count = 0
    while time.monotonic() < deadline:
        name = f"sd{'bcdef'[count % 5]}"
        stick(machine, name, count % 4)
        if count % 3 == 0:
            sleep(0.05)
        machine.unplug(name)
        count += 1
        if count % 20 == 0:
            machine.ask("refresh")
            machine.ask("list")
    stick(machine, "sdz", 2)
    machine.ask("refresh")
    assert rows(machine) == ["sdz", "+sdz1", "+sdz2"]
    assert sorted(appeared(daemon)) == sorted([*disappeared(daemon), "sdz", "sdz1", "sdz2"])


def dm_drive(name, partitions=()):
    """A drive made as cheaply as can be."""
    folder = f"/sys/block/{name}"
    os.makedirs(f"{folder}/dm")
    for path in ("size", *(f"{partition}/size" for partition in partitions)):
        write(f"{folder}/{path}", "2048\n")
    for node in (name, *partitions):
        open(f"/dev/{node}", "w").close()


@pytest.mark.seconds(100)
def test_four_thousand_drives_come_and_go(machine):
    """With four partitions each; they vanish all at once and the loop is not held up for long."""
    for number in range(4000):
        name = f"dm-{number}"
        dm_drive(name, [f"{name}p{part}" for part in range(1, 5)])
    daemon = machine.start()
    assert len(appeared(daemon)) == 20000
    start = time.monotonic()
    machine.settle()
    assert machine.ask("bogus") == "ERR unknown command\n"
    assert time.monotonic() - start < 10
    os.rename("/sys/block", "/sys/block.away")
    os.mkdir("/sys/block")
    start = time.monotonic()
    daemon.wait_for("Device dm-999 just disappeared", timeout=20)
    machine.pass_of_loop()
    assert time.monotonic() - start < 15
    assert len(disappeared(daemon)) == 20000
    assert rows(machine) == []


@pytest.mark.seconds(100)
def test_four_thousand_drives_are_freed_at_the_end(machine):
    for number in range(4000):
        dm_drive(f"dm-{number}", [f"dm-{number}p1"])
    machine.start("--hotplug")
    start = time.monotonic()
    machine.stop()
    assert time.monotonic() - start < 15


def test_a_listing_of_many_drives_in_use(machine):
    """Byte order and one row for each; none is probed."""
    names = [f"dm-{number}" for number in range(1500)]
    for name in names:
        dm_drive(name)
    machine.made_up_process(1000001, fds=[f"/dev/{name}" for name in names])
    machine.start("--hotplug")
    assert rows(machine) == sorted(names)
    assert machine.probe_calls() == []


def test_long_names(machine):
    """The kernel allows 255 bytes for a name in a directory."""
    name = "sdb" + "x" * 240
    machine.plug("other", name, 1 << 20)
    write(f"{machine.folders[name]}/{name}1/size", "8\n")
    machine.start()
    machine.settle()
    assert rows(machine) == [name, f"+{name}1"]
    assert ("OK- " + name[:10] + " ") in machine.ask("list human")


def test_names_with_strange_bytes(machine):
    for name in ("sdb\x01", "sdb %s%n", "sd\udcff", "sdb\n"):
        machine.plug("other", name, 1 << 20)
    machine.start()
    machine.settle()
    machine.ask("refresh")
    machine.pass_of_loop()


def test_sysfs_attributes_of_any_length(machine):
    """At most 1023 bytes of an attribute are taken."""
    for index, length in enumerate((1022, 1023, 1024, 5000)):
        machine.plug("mmc", f"mmcblk{index}", 1 << 20)
        machine.attribute(f"mmcblk{index}", "device/name", "m" * length)
        machine.attribute(f"mmcblk{index}", "size", "0" * 20 + "2000\n")
    machine.start()
    models = [line.split("\t")[6] for line in machine.ask("list").splitlines()[1:-1]]
    assert [len(model) for model in models] == [1022, 1023, 1023, 1023]


@pytest.mark.parametrize(
    "size", ["99999999999999999999999", "18446744073709551615", "-1", "0x", "0xfffffffffffffffff"]
)
def test_sizes_beyond_all_drives(machine, size):
    machine.plug("mmc", "mmcblk0", 1 << 20)
    machine.part("mmcblk0p1", 1 << 19)
    machine.attribute("mmcblk0", "size", size)
    machine.attribute("mmcblk0", "mmcblk0p1/size", size)
    machine.start()
    assert rows(machine) == ["mmcblk0", "+mmcblk0p1"]
    assert machine.ask("list human").endswith("OK  eom\n")


def test_attribute_that_is_a_directory(machine):
    """Opened, but never read: it counts as empty."""
    machine.plug("mmc", "mmcblk0", 1 << 20, model="x")
    os.unlink(f"{machine.folders['mmcblk0']}/device/name")
    os.unlink(f"{machine.folders['mmcblk0']}/size")
    os.makedirs(f"{machine.folders['mmcblk0']}/device/name")
    os.makedirs(f"{machine.folders['mmcblk0']}/size")
    machine.start()
    assert "\tmmcblk0\tHard Drive\tMMC/SD\t\t0\t\t\t\t" in machine.ask("list")


def test_the_first_listing_waits_for_no_poll(machine):
    """What is there when the daemon starts is in the very first list."""
    stick(machine, "sdb")
    machine.start()
    assert rows(machine) == ["sdb", "+sdb1"]
    wait_until(lambda: rows(machine) == ["sdb", "+sdb1"])
