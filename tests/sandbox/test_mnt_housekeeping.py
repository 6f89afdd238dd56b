"""Every five seconds /mnt is tidied: stale empty directories and links that lead nowhere go."""

import os
import time

import pytest

from machine.clients import wait_until
from machine.drives import write
from machine.machine import REAL_PROC, sleep


def age(path, seconds):
    """Makes the last change of path that many seconds old."""
    then = time.time() - seconds
    os.utime(path, (then, then), follow_symlinks=False)


def tidied(machine):
    """Starts the daemon and waits until its first pass is over."""
    daemon = machine.start()
    machine.pass_of_loop()
    machine.pass_of_loop()
    return daemon


def old_directory(name, seconds=20):
    os.mkdir(f"/mnt/{name}")
    age(f"/mnt/{name}", seconds)


def test_stale_directories_go_on_the_first_pass(machine):
    for name in ("sdb1", "anything", "^LABEL"):
        old_directory(name)
    tidied(machine)
    assert os.listdir("/mnt") == []


def test_fresh_directories_stay_for_fifteen_seconds(machine):
    """The one that was changed ten seconds ago goes after five or ten more, not at once."""
    os.mkdir("/mnt/fresh")
    old_directory("ten", 10)
    tidied(machine)
    assert sorted(os.listdir("/mnt")) == ["fresh", "ten"]
    start = time.monotonic()
    wait_until(lambda: not os.path.exists("/mnt/ten"))
    assert time.monotonic() - start > 4
    assert os.listdir("/mnt") == ["fresh"]


@pytest.mark.seconds(70)
def test_an_empty_directory_lives_fifteen_seconds(machine):
    machine.start()
    os.mkdir("/mnt/fresh")
    start = time.monotonic()
    wait_until(lambda: not os.path.exists("/mnt/fresh"), timeout=25)
    assert 14.5 < time.monotonic() - start < 22


def test_what_is_no_empty_directory_stays(machine):
    os.makedirs("/mnt/full/inside")
    age("/mnt/full", 100)
    old_directory(".hidden")
    write("/mnt/file", "")
    age("/mnt/file", 100)
    os.symlink("full", "/mnt/^GOOD")
    age("/mnt/^GOOD", 100)
    os.symlink("file", "/mnt/^FILE")
    os.symlink("/nowhere", "/mnt/.link")
    os.mkfifo("/mnt/fifo")
    os.symlink("fifo", "/mnt/^FIFO")
    before = sorted(os.listdir("/mnt"))
    tidied(machine)
    assert sorted(os.listdir("/mnt")) == before


def test_the_directory_of_a_mounted_device_stays(machine):
    """The device's name counts, wherever it is mounted; and so does a mount point."""
    for name in ("sdb1", "sdc1", "share", "sdd1"):
        old_directory(name)
    machine.mount_table(
        ["/dev/sdb1 /mnt/sdb1 ext4", "/dev/sdc1 /somewhere/else ext4", "host:/x /mnt/share nfs"]
    )
    tidied(machine)
    assert sorted(os.listdir("/mnt")) == ["sdb1", "sdc1", "share"]


def test_a_future_date_is_no_reason_to_go(machine):
    old_directory("future", -3600)
    tidied(machine)
    assert os.listdir("/mnt") == ["future"]


def test_dangling_links_go_however_fresh(machine):
    for name, target in (
        ("^GONE", "sdb1"),
        ("^ABSOLUTE", "/mnt/nowhere"),
        ("^UP", "../nowhere"),
        ("^LOOP", "^LOOP"),
        ("^PING", "^PONG"),
        ("^PONG", "^PING"),
        ("^CHAIN", "^GONE2"),
        ("^GONE2", "nowhere"),
        ("^THROUGH", "file/inside"),
        ("main", "sdb1"),
    ):
        os.symlink(target, f"/mnt/{name}")
    write("/mnt/file", "")
    tidied(machine)
    assert os.listdir("/mnt") == ["file"]


def test_links_are_followed_as_the_kernel_does(machine):
    """A ".." behind a link leads up from where the link leads, not back."""
    os.makedirs("/var/deep/inside")
    write("/var/deep/file", "")
    os.symlink("/var/deep/inside", "/mnt/^A")
    os.symlink("^A/../file", "/mnt/^B")  # /var/deep/file is there
    write("/mnt/beside", "")
    os.symlink("nowhere/../beside", "/mnt/^C")  # the kernel does not come through nowhere
    tidied(machine)
    assert sorted(os.listdir("/mnt")) == ["^A", "^B", "beside"]


def test_a_link_goes_in_the_pass_that_removes_its_directory(machine):
    old_directory("sdb1")
    os.symlink("sdb1", "/mnt/^DATA")
    tidied(machine)
    assert os.listdir("/mnt") == []


def test_working_directory_is_mnt_afterwards(machine):
    daemon = tidied(machine)
    assert os.readlink(f"{REAL_PROC}/{daemon.pid}/cwd") == "/mnt"


def test_thousands_of_entries(machine):
    for number in range(1500):
        old_directory(f"old{number}")
        os.symlink("nowhere", f"/mnt/^{number}")
        os.mkdir(f"/mnt/new{number}")
    tidied(machine)
    machine.pass_of_loop()
    assert len(os.listdir("/mnt")) == 1500
    sleep(0.1)


def test_tidying_goes_by_the_table_as_last_read(machine):
    """A mount that the table does not show yet is no mount; its directory is busy all the same."""
    machine.mount_tmpfs("sdb1", "/mnt/sdb1")
    age("/mnt/sdb1", 100)
    tidied(machine)
    assert os.path.ismount("/mnt/sdb1")
