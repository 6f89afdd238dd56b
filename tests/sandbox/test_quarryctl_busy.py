"""`quarryctl busy`: real processes that hold a mount in every way, and whom the daemon then ends."""

import os
import re
import shutil
import signal
import subprocess
import time

import pytest

from machine import namespaces
from machine.client import asked_for_json, quarryctl
from machine.clients import wait_until
from machine.drives import link, write
from machine.evictions import ended, kills
from test_dead_mount import dead_mount
from test_eviction import mounted_stick

GUEST = 1000


def in_namespace_of_its_own(machine, *arguments):
    """A holder whose mounts are copies of everybody's."""
    holder = f"{namespaces.TESTS}/troublemakers/holder.py"
    process = machine.program(
        "/usr/bin/unshare", "-m", "/usr/bin/python3", holder, *arguments,
        stdout=subprocess.PIPE, text=True,
    )
    assert process.stdout.readline() == "ready\n"
    return process


def holds(report, *processes):
    """(kind, process' place among processes or None, what, ended_by) of each holder."""
    pids = [process.pid for process in processes]
    return [
        (
            holder["kind"],
            pids.index(holder["pid"]) if holder["pid"] else None,
            holder["what"],
            holder["ended_by"],
        )
        for holder in report["holders"]
    ]


def test_everything_that_holds_a_mount_is_told(machine):
    """Working directory, root, files, program, mapping, nested mount, swap area, loop device,
    volume, another mount namespace, and a stranger whom the prefix rule would hit."""
    mounted_stick(machine, "sdb1", "sdb10", "sdb2")
    shutil.copy("/usr/bin/sleep", "/mnt/sdb1/sleep")
    os.mkdir("/mnt/sdb1/b\033[2J\n")
    write("/mnt/sdb1/sealed", "x" * 5000)
    os.chmod("/mnt/sdb1/sealed", 0o444)
    processes = [
        machine.troublemaker("holder", "--cwd", "/mnt/sdb1/folder"),
        machine.troublemaker("holder", "--cwd", "/mnt/sdb1/b\033[2J\n"),
        machine.troublemaker("holder", "--root", "/mnt/sdb1"),
        machine.troublemaker("holder", "--read", "/mnt/sdb1/file", "--read", "/mnt/sdb1/file"),
        machine.troublemaker("holder", "--read", "/mnt/sdb1/sealed"),
        machine.program("/mnt/sdb1/sleep", "60", cwd="/"),
        machine.troublemaker("holder", "--map", "/mnt/sdb1/sealed"),
        machine.troublemaker("holder", "--read", "/dev/sdb1"),
        machine.troublemaker("holder", "--cwd", "/mnt/sdb10"),
        in_namespace_of_its_own(machine, "--read", "/mnt/sdb1/file"),
        machine.troublemaker("holder", "--cwd", "/mnt/sdb2"),  # holds something else
    ]
    machine.mount_tmpfs("inner", "/mnt/sdb1/inner")
    write("/proc/swaps", "Filename Type Size Used Priority\n/mnt/sdb1/a\\040b file 1 0 -2\n"
                         "/mnt/sdb10/swap file 1 0 -3\n")
    write("/sys/block/loop3/loop/backing_file", "/mnt/sdb1/image\n")
    write("/sys/block/loop4/loop/backing_file", "/srv/image\n")
    machine.plug("dm", "dm-0", 4096, volume="vault")
    write("/sys/block/sdb/sdb1/holders/dm-0", "")

    report = asked_for_json("busy", "sdb1")
    off, both = ["rudeoff"], ["rudeoff", "rudero"]
    assert holds(report, *processes) == [
        ("directory", 0, "/mnt/sdb1/folder", off),
        ("directory", 1, "/mnt/sdb1/b\033[2J\n", off),
        ("root", 2, "/mnt/sdb1", off),
        # (chroot leaves the working directory where it was)
        ("file", 3, "/mnt/sdb1/file", both),
        ("file", 4, "/mnt/sdb1/sealed", off),
        ("program", 5, "/mnt/sdb1/sleep", off),
        ("mapping", 6, "/mnt/sdb1/sealed", []),
        ("device", 7, "/dev/sdb1", []),
        ("bystander", 8, "/mnt/sdb10", off),
        ("file", 9, "/mnt/sdb1/file", both),
        ("namespace", None, "/mnt/sdb1", []),
        ("mount", None, "/mnt/sdb1/inner", []),
        ("swap", None, "/mnt/sdb1/a b", []),
        ("loop", None, "loop3", []),
        ("stacked", None, "dm-0", []),
    ]
    assert report["devices"] == [
        {
            "name": "sdb1",
            "mounts": [{"mountpoint": "/mnt/sdb1", "fstype": "tmpfs", "read_only": False}],
            "cleared": "/mnt/sdb1",
            "active_unmounted": False,
        }
    ]
    assert {holder["command"] for holder in report["holders"] if holder["pid"]} == {
        "python3", "sleep",
    }
    more = {holder["kind"]: holder["more"] for holder in report["holders"]}
    assert re.fullmatch(rf"mnt:\[\d+\] of process {processes[9].pid}", more["namespace"])
    assert (more["mount"], more["loop"], more["stacked"]) == (
        "tmpfs", "/mnt/sdb1/image", "/dev/mapper/vault",
    )

    table, _ = quarryctl("busy", "sdb1")
    lines, _ = quarryctl("busy", "--plain", "sdb1")
    for text in (table, lines):
        assert "\033" not in text and "/mnt/sdb1/b\\x1b[2J\\x0a" in text
    assert len(lines.splitlines()) == 15
    assert len(lines.splitlines()[0].split("\t")) == 8
    assert table.startswith("sdb1 is mounted at /mnt/sdb1 (tmpfs, read-write).\n\nDEVICE  HOLDS ")


@pytest.mark.parametrize("mode", ["rudero", "rudeoff"])
def test_who_is_marked_is_who_is_ended(machine, mode):
    """The daemon then ends exactly these: the rule looks at paths alone, at no mapped files, and
    for rudero at what has write permission bits."""
    mounted_stick(machine, "sdb1", "sdb10", "sdb2")
    machine.mount_tmpfs("inner", "/mnt/sdb1/inner")
    write("/mnt/sdb1/sealed", "x" * 5000)
    os.chmod("/mnt/sdb1/sealed", 0o444)
    shutil.copy("/usr/bin/sleep", "/mnt/sdb1/sleep")
    processes = [
        machine.program("/mnt/sdb1/sleep", "60", cwd="/"),
        in_namespace_of_its_own(machine, "--read", "/mnt/sdb1"),
    ]
    for hold in (
        "--cwd /mnt/sdb1", "--cwd /mnt/sdb1/inner", "--read /mnt/sdb1/inner", "--root /mnt/sdb1",
        "--read /mnt/sdb1/file", "--write /mnt/sdb1/sealed", "--map /mnt/sdb1/sealed",
        "--cwd /mnt/sdb10", "--read /mnt/sdb10/file", "--cwd /mnt/sdb2", "--read /dev/sdb1",
        "--cwd /mnt", "--read /mnt/sdb2/file --map /mnt/sdb1/file",
    ):
        processes.append(machine.troublemaker("holder", *hold.split()))
    machine.start()
    machine.settle()
    report = asked_for_json("busy", "sdb1")
    marked = {holder["pid"] for holder in report["holders"] if mode in holder["ended_by"]}
    # Each process is marked in all of its lines or in none.
    assert not marked & {
        holder["pid"] for holder in report["holders"] if mode not in holder["ended_by"]
    }
    machine.ask(f"mount {mode} sdb1")
    terminated = {int(line.split(":")[0]) for line in kills(machine)}
    assert marked == terminated
    assert len(marked) == {"rudero": 4, "rudeoff": 10}[mode]
    wait_until(lambda: {p.pid for p in processes if ended(p)} == marked)


@pytest.mark.parametrize("word", ["sdb1", "/mnt/sdb1", "^DATA"])
def test_a_dead_mount_holds_nothing_up(machine, word):
    """Its server never answers; who holds it is told all the same."""
    machine.plug("usb", "sdb", 1 << 20)
    machine.part("sdb1", 4096)
    server, processes = dead_mount(
        machine, holders=[["--read", "/mnt/sdb1/file"], ["--cwd", "/mnt/sdb1/folder"]]
    )
    os.symlink("sdb1", "/mnt/^DATA")
    start = time.monotonic()
    report = asked_for_json("busy", word)
    assert time.monotonic() - start < 20
    assert holds(report, *processes) == [
        ("file", 0, "/mnt/sdb1/file", ["rudeoff", "rudero"]),
        ("directory", 1, "/mnt/sdb1/folder", ["rudeoff"]),
    ]
    assert not ended(server)


def test_processes_that_cannot_be_read_hold_nothing_up(machine):
    """One has gone meanwhile; the memory of others is locked for ever: these are told of."""
    mounted_stick(machine)
    os.symlink("/.proc/4000000", "/proc/4000000")
    for pid in range(1000001, 1000008):
        machine.made_up_process(pid)
        os.mkfifo(f"/proc/{pid}/maps")
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    start = time.monotonic()
    report = asked_for_json("busy", "sdb1")
    assert time.monotonic() - start < 15
    assert holds(report, holder) == [("directory", 0, "/mnt/sdb1", ["rudeoff"])]
    assert report["unread_memory"] == list(range(1000001, 1000008))
    assert "mapped files are not known of 7 processes" in quarryctl("busy", "sdb1")[1]


def test_an_ordinary_user_is_told_what_he_does_not_see(machine):
    mounted_stick(machine)
    machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    own = machine.troublemaker("holder", "--cwd", "/mnt/sdb1", user=GUEST, group=GUEST)
    report = asked_for_json("busy", "sdb1", user=GUEST)
    assert holds(report, own) == [("directory", 0, "/mnt/sdb1", ["rudeoff"])]
    assert report["holders"][0]["user"] == "guest"
    assert report["unseen_processes"] >= 1
    words = f"does not let this user see what {report['unseen_processes']} process"
    assert words in quarryctl("busy", "sdb1", user=GUEST)[1]


def test_a_device_has_many_names(machine):
    """Name, path, mount point, link of /mnt and label; a drive brings its partitions along; what
    is no device's mount can be asked about, too."""
    mounted_stick(machine, "sdb1", "sdb2")
    machine.mount_tmpfs("../share", "/srv/share")
    os.symlink("sdb1", "/mnt/^MY DATA")
    os.symlink("sdb1", "/mnt/main")
    link("/dev/disk/by-label/MY", "../../sdb1")
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb2", "--read", "/mnt/sdb1/file")
    for word in ("sdb1", "/dev/sdb1", "/mnt/sdb1", "/mnt/sdb1/", "/mnt/main", "^MY DATA",
                 "/dev/disk/by-label/MY", "disk/by-label/MY"):
        report = asked_for_json("busy", word)
        assert [device["name"] for device in report["devices"]] == ["sdb1"], word
        assert [hold[:3] for hold in holds(report, holder)] == [("file", 0, "/mnt/sdb1/file")], word
    report = asked_for_json("busy", "sdb")
    assert [device["name"] for device in report["devices"]] == ["sdb", "sdb1", "sdb2"]
    assert [(h["device"], h["kind"]) for h in report["holders"]] == [
        ("sdb2", "directory"), ("sdb1", "file"),
    ]
    report = asked_for_json("busy", "/srv/share")
    assert report["holders"] == [] and report["devices"][0]["cleared"] is None
    for word, complaint in (
        ("sdx1", "there is no device sdx1"),
        ("/dev/null/x", "there is no device /dev/null/x"),
        ("/srv", "nothing is mounted at /srv"),
        ("^NO\033", "no device with the label NO\\x1b is mounted"),
        ("^a/b", "no device with the label a/b is mounted"),
        ("..", "nothing"),
    ):
        _, said = quarryctl("busy", word, status=1)
        assert said.startswith("quarryctl: ") and (complaint in said or word == "..")


def test_the_boot_device_is_nobodys_to_clear(machine):
    """What is mounted at / costs nobody his life, and nothing that calls itself by its drive."""
    mounted_stick(machine)
    os.unlink("/proc/mounts")
    machine.mount_table(["/dev/sdb1 / ext4", "/dev/sdb1 /mnt/sdb1 tmpfs"])
    holder = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    report = asked_for_json("busy", "sdb1")
    assert report["devices"][0]["cleared"] is None
    assert holds(report, holder) == [("directory", 0, "/mnt/sdb1", [])]
    holder.send_signal(signal.SIGUSR1)
