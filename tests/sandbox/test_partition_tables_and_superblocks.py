"""What is read from the first and last sectors of drives, however hostile they are."""

import errno
import os
import random
import time

import pytest

from machine.disk_formats import SECTOR, apple_entry, apple_map, mbr, md_superblock
from machine.machine import sleep


def models(machine, count, drive="sda"):
    """Starts the daemon and returns the models of sda1, sda2, ..., or of mmcblk0p1, ..."""
    machine.start()
    found = {}
    for line in machine.ask("list").splitlines():
        fields = line.split("\t")
        if line.startswith("OK- \t\t"):
            found[fields[2]] = fields[7]
    separator = "p" if drive[-1].isdigit() else ""
    return [found[f"{drive}{separator}{number}"] for number in range(1, count + 1)]


def drive(machine, content, partitions, size=64 << 20, name="sda"):
    machine.plug("mmc" if name.startswith("mmc") else "sata", name, size)
    machine.content(name, content)
    separator = "p" if name[-1].isdigit() else ""
    for number in range(1, partitions + 1):
        machine.part(f"{name}{separator}{number}", 1 << 20)


# DOS.


@pytest.mark.parametrize(
    "sector, expected",
    [
        (mbr([0x83, 0x07]), ["#83 Linux", "meh", "", ""]),
        (mbr([0x83, 0, 0, 0x0B], status=(0x80, 0, 0, 0)), ["#83 Linux", "", "", "#0B DOS/Windows"]),
        (mbr([0x83, 0x83], status=(0x80, 0x80, 0x80, 0x80)), ["#83 Linux", "#83 Linux", "", ""]),
        (mbr([0x83, 0x83], status=(1, 0, 0, 0)), ["", "", "", ""]),
        (mbr([0x83, 0x83, 0x83, 0], status=(0, 0, 0, 1)), ["", "", "", ""]),  # an empty slot, too
        (mbr([0x83, 0x83, 0, 0], status=(0, 0, 0, 0xFF)), ["", "", "", ""]),
        (mbr([0x83], signature=b"\xaa\x55"), ["", "", "", ""]),
        (mbr([0x83], signature=b"\0\0"), ["", "", "", ""]),
        (mbr([]), ["", "", "", ""]),
        (mbr([0x83])[:511], ["", "", "", ""]),
        (b"\xff" * SECTOR, ["", "", "", ""]),
    ],
    ids=range(11),
)
def test_master_boot_record(machine, sector, expected):
    size = SECTOR if len(sector) == SECTOR else len(sector)
    machine.plug("sata", "sda", 64 << 20)
    with open("/dev/sda", "wb") as file:
        file.write(sector)
    assert len(sector) == size
    for number in range(1, 5):
        machine.part(f"sda{number}", 1 << 20)
    assert models(machine, 4) == expected


def test_names_with_a_separator_get_their_model_from_the_partition_probe(machine):
    drive(machine, mbr([0x0C, 0x83]), 3, name="mmcblk0")
    assert models(machine, 3, "mmcblk0") == ["#0C DOS/Windows", "#83 Linux", ""]


def test_table_is_read_once_when_the_drive_appears(machine):
    """A new table is met when the drive comes back, not before."""
    drive(machine, mbr([0x83]), 1)
    assert models(machine, 1) == ["#83 Linux"]
    machine.content("sda", mbr([0x07]))
    machine.settle()
    machine.ask("refresh")
    assert "\t#83 Linux\t" in machine.ask("list")


# Apple.


def test_apple_map_tells_name_and_type_and_stops_before_the_last(machine):
    entries = [
        ("Apple", "Apple_partition_map"),
        ("Macintosh", "Apple_HFS"),
        ("", "Apple_Free"),
    ]
    drive(machine, apple_map(entries), 4)
    assert models(machine, 4) == [
        "Apple, Apple_partition_map",
        "Macintosh, Apple_HFS",
        "",
        "",
    ]


def test_apple_map_beats_the_boot_record(machine):
    sectors = mbr([0x83]) + apple_map([("A", "B"), ("C", "D")])[SECTOR:]
    drive(machine, sectors, 2)
    assert models(machine, 2) == ["A, B", ""]


def test_apple_names_may_fill_their_field(machine):
    drive(machine, apple_map([("N" * 32, "T" * 32), ("x", "y")]), 1)
    assert models(machine, 1) == ["N" * 32 + ", " + "T" * 32]


@pytest.mark.parametrize("count", [0, 1])
def test_apple_map_without_entries(machine, count):
    """No entries: not recognised, and the boot record counts; one: its entry is the last."""
    sectors = mbr([0x83]) + apple_map([("A", "B"), ("C", "D")], count=count)[SECTOR:]
    drive(machine, sectors, 2)
    assert models(machine, 2) == (["#83 Linux", ""] if count == 0 else ["", ""])


def test_apple_map_with_a_hole(machine):
    sectors = bytearray(apple_map([("A", "1"), ("B", "2"), ("C", "3"), ("D", "4")]))
    sectors[2 * SECTOR : 2 * SECTOR + 2] = b"XX"
    drive(machine, bytes(sectors), 4)
    assert models(machine, 4) == ["A, 1", "", "C, 3", ""]


def test_apple_map_that_begins_elsewhere(machine):
    """The first entry says where the map starts."""
    sectors = bytearray(20 * SECTOR)
    sectors[SECTOR : 2 * SECTOR] = apple_entry(3, 10, "far", "away")
    for index in range(3):
        place = (10 + index) * SECTOR
        sectors[place : place + SECTOR] = apple_entry(3, 10, f"P{index}", "T")
    drive(machine, bytes(sectors), 3)
    assert models(machine, 3) == ["P0, T", "P1, T", ""]


@pytest.mark.parametrize(
    "count, start",
    [
        (0xFFFFFFFF, 1),
        (0xFFFFFFFF, 0),
        (0xFFFFFFFF, 0xFFFFFFFF),
        (0x80000000, 1),
        (2, 0xFFFFFFFF),
        (0x7FFFFFFF, 0x7FFFFFFF),
        (0xFFFFFFFF, (64 << 20) // SECTOR - 1),
    ],
)
def test_apple_map_that_claims_the_impossible(machine, count, start):
    """Four billion entries on 64 MB: what cannot be on the drive takes no time."""
    sectors = bytearray(4 * SECTOR)
    sectors[SECTOR : 2 * SECTOR] = apple_entry(count, start, "first", "entry")
    sectors[2 * SECTOR : 3 * SECTOR] = apple_entry(count, start, "second", "entry")
    drive(machine, bytes(sectors), 2)
    begin = time.monotonic()
    found = models(machine, 2)
    assert time.monotonic() - begin < 10
    if start == 1:
        assert found == ["first, entry", "second, entry"]
    elif start == 0:
        assert found == ["", "first, entry"]
    else:
        assert found == ["", ""]


def test_apple_map_of_a_large_drive_is_read_in_bounded_time(machine):
    """The same claim on a drive of half a terabyte must not keep the daemon from starting."""
    sectors = bytearray(3 * SECTOR)
    sectors[SECTOR : 2 * SECTOR] = apple_entry(0xFFFFFFFF, 1, "first", "entry")
    sectors[2 * SECTOR : 3 * SECTOR] = apple_entry(0xFFFFFFFF, 1, "second", "entry")
    drive(machine, bytes(sectors), 2, size=500 << 30)
    begin = time.monotonic()
    assert models(machine, 2) == ["first, entry", "second, entry"]
    assert time.monotonic() - begin < 15


@pytest.mark.parametrize("size", [0, 1, 511, 512, 513, 1023, 1024])
def test_drives_too_small_for_a_table(machine, size):
    sectors = (mbr([0x83]) + apple_entry(2, 1, "A", "B"))[:size]
    machine.plug("sata", "sda", size)
    with open("/dev/sda", "wb") as file:
        file.write(sectors)
    machine.part("sda1", 512)
    expected = "A, B" if size >= 1024 else "#83 Linux" if size >= 512 else ""
    assert models(machine, 1) == [expected]


@pytest.mark.parametrize("seed", range(4))
def test_noise_on_drives(machine, seed):
    """Signatures in front of noise: every parser is entered, and none of them falls."""
    noise = random.Random(seed)
    for letter in "abcdefgh":
        sectors = bytearray(noise.randbytes(256 * SECTOR))
        if letter in "abcd":
            sectors[510:512] = b"\x55\xaa"
            for slot in range(4):
                sectors[446 + 16 * slot] = noise.choice([0, 0x80])
        if letter in "cdef":
            for sector in range(1, 200):
                sectors[sector * SECTOR : sector * SECTOR + 2] = b"PM"
        sectors[4096:4100] = b"\xfc\x4e\x2b\xa9"
        machine.plug("sata", f"sd{letter}", len(sectors))
        machine.content(f"sd{letter}", bytes(sectors))
        for number in (1, 2, 3, 4, 199):
            machine.part(f"sd{letter}{number}", 4096)
    machine.start()
    with machine.connect() as client:
        for request in ("list", "list human", "enumerate", "refresh"):
            client.send(request + "\n")
            sleep(0.3)
    assert machine.ask("refresh") == "OK refreshed\n"


def test_drive_without_medium_is_no_error(machine):
    """A reader without a card says ENOMEDIUM: no word about its table."""
    machine.plug("usb", "sdb", 0)
    machine.plug("usb", "sdc", 0)
    trace = ["-P", "/dev/sdb", "-e", "inject=openat:error=ENOMEDIUM"]
    daemon = machine.start(trace=trace)
    assert "cannot open /dev/sdb" not in daemon.stderr()
    assert "Unable to check sdb raid participation No medium found\n" in daemon.stderr()


def test_drive_that_cannot_be_opened_is_named(machine):
    machine.plug("usb", "sdb", 1 << 20)
    os.chmod("/dev/sdb", 0)
    daemon = machine.start(drop_file_override=True)
    reason = os.strerror(errno.EACCES)
    assert f"cannot open /dev/sdb {reason}\n" in daemon.stderr()
    assert f"Unable to check sdb raid participation {reason}\n" in daemon.stderr()


def test_drive_that_cannot_be_read_has_no_entries(machine):
    machine.plug("usb", "sdb", 1 << 20)
    os.unlink("/dev/sdb")
    os.mkdir("/dev/sdb")
    machine.part("sdb1", 4096)
    machine.start()
    assert "\t\tsdb1\tPartition\tUSB\t\t4096\t\t\t\t" in machine.ask("list")


# md superblocks.


@pytest.mark.parametrize(
    "size, offset, found",
    [
        (0, None, False),
        (511, None, False),
        (512, 0, False),  # a block of 4096 bytes does not fit
        (4095, 0, False),
        (4096, 0, True),
        (8191, 0, True),
        (8191, 4096, False),
        (8192, 4096, True),
        (16383, 0, True),
        (16383, 4096, True),
        (16384, 0, True),
        (16384, 16, True),  # sector 16 for a byte offset: meant
        (16384, 8192, False),  # where a superblock of version 1.0 really lies
        (20480, 24, True),
        (131071, 0, True),
        (131071, 65536, False),
        (131072, 0, True),
        (131072, 65536, True),
        (131072, 240, True),
        (131072, 4096, True),
        (131072, 8192, False),
        (1 << 20, (1 << 20) - 65536, True),
        ((1 << 20) + 65535, (1 << 20) - 65536, True),
        ((1 << 20) + 4096, (1 << 20), False),
    ],
)
def test_places_of_a_superblock(machine, size, offset, found):
    machine.plug("usb", "sdb", size)
    if offset is not None:
        with open("/dev/sdb", "r+b") as file:
            file.seek(offset)
            file.write(md_superblock()[:12])
            file.truncate(size)
    machine.start()
    assert ("Inactive RAID" in machine.ask("list")) == found


@pytest.mark.parametrize(
    "major, minor, magic, found",
    [
        (0, 0, 0xA92B4EFC, True),
        (0, 90, 0xA92B4EFC, True),
        (1, 99, 0xA92B4EFC, True),
        (1, 100, 0xA92B4EFC, False),
        (2, 0, 0xA92B4EFC, False),
        (0xFFFFFFFF, 0, 0xA92B4EFC, False),
        (0, 0xFFFFFFFF, 0xA92B4EFC, False),
        (0, 0, 0xFC4E2BA9, False),
        (0, 0, 0, False),
    ],
)
def test_versions_of_a_superblock(machine, major, minor, magic, found):
    machine.plug("usb", "sdb", 1 << 20)
    machine.content("sdb", md_superblock(major, minor, magic), 4096)
    machine.start()
    assert ("Inactive RAID" in machine.ask("list")) == found


def test_superblocks_of_partitions(machine):
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 1 << 19)
    machine.content("sdb1", md_superblock(0, 90), (1 << 19) - 65536)
    machine.start()
    assert "\t\tsdb1\tPartition\tUSB\t\t524288\t\t\tInactive RAID\t \n" in machine.ask("list")
