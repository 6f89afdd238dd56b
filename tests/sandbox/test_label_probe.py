"""The probe program: how it is run, and everything that it may do with its output and its end."""

import errno
import os
import subprocess
import time

import pytest

from machine.clients import wait_until
from machine.drives import write
from machine.machine import ANSWERS, PROBE, REAL_PROC
from machine.namespaces import REAL_PROBE


def drive(machine, name="sdb"):
    machine.plug("usb", name, 1 << 20)


def label_and_filesystem(machine, name="sdb"):
    """From the plain list; the drive has no partitions and is not probed twice."""
    for line in machine.ask("list").splitlines():
        fields = line.split("\t")
        if fields[0] == "OK- " and fields[1] == name:
            return fields[4], fields[9]
    raise AssertionError(f"{name} is not listed")


def test_how_the_program_is_run(machine):
    """Its path, the device and --fs; no input, no errors, the pipe and nothing else is open."""
    drive(machine)
    machine.probe_runs(
        "sdb",
        """#!/usr/bin/python3
import os, sys
links = {n: os.readlink(f"/proc/self/fd/{n}") for n in os.listdir("/proc/self/fd")
         if os.path.exists(f"/proc/self/fd/{n}")}
open("/root/seen", "w").write(repr((sys.argv, links, dict(os.environ))))
print("DATA")
""",
    )
    daemon = machine.start()
    other = machine.connect()
    other.send("half a request")
    assert label_and_filesystem(machine) == ("DATA", " ")
    with open("/root/seen") as file:
        arguments, links, environment = eval(file.read())
    assert arguments == [f"{ANSWERS}/sdb.run", "/dev/sdb", "--fs"]
    assert machine.probe_calls() == [f"{PROBE} /dev/sdb --fs"]
    assert links.pop("1").startswith("pipe:")
    assert links == {"0": "/dev/null", "2": "/dev/null"}
    with open(f"/.proc/{daemon.pid}/environ") as file:
        own = dict(pair.split("=", 1) for pair in file.read().split("\0") if pair)
    for name in ("PWD", "OLDPWD", "SHLVL", "_", "LC_CTYPE"):
        environment.pop(name, None)
        own.pop(name, None)
    assert environment == own


@pytest.mark.parametrize(
    "program, line",
    [
        ("exit 3\n", "volsniffer failed for /dev/sdb, return value 3"),
        ("echo DATA; exit 1\n", "volsniffer failed for /dev/sdb, return value 1"),
        ("echo DATA; exit 255\n", "volsniffer failed for /dev/sdb, return value 255"),
        ("echo DATA; kill -9 $$\n", "volsniffer failed for /dev/sdb, return value 0"),
        ("echo DATA; kill -TERM $$\n", "volsniffer failed for /dev/sdb, return value 0"),
        ("kill -SEGV $$\n", "volsniffer failed for /dev/sdb, return value 0"),
    ],
)
def test_failing_program(machine, program, line):
    """Its output does not count; the drive has a blank for a file system and is left alone."""
    drive(machine)
    machine.probe_runs("sdb", program)
    daemon = machine.start()
    assert label_and_filesystem(machine) == ("", " ")
    assert daemon.stderr_lines()[-1] == line
    assert label_and_filesystem(machine) == ("", " ")
    assert len(machine.probe_calls()) == 1


@pytest.mark.parametrize("what", ["missing", "not executable", "no program", "directory"])
def test_program_that_cannot_run(machine, what):
    drive(machine)
    os.unlink(PROBE)
    if what == "directory":
        os.mkdir(PROBE)
    elif what != "missing":
        write(PROBE, b"\x7fno ELF")
        os.chmod(PROBE, 0o755 if what == "no program" else 0o644)
    daemon = machine.start()
    assert label_and_filesystem(machine) == ("", " ")
    assert daemon.stderr_lines()[-1] == "volsniffer failed for /dev/sdb, return value 1"


def test_program_that_prints_nothing(machine):
    drive(machine)
    machine.probe_runs("sdb", "exit 0\n")
    machine.start()
    assert label_and_filesystem(machine) == ("", " ")
    assert len(machine.probe_calls()) == 1


def test_first_write_alone_counts(machine):
    """What comes in a second write is never read."""
    drive(machine)
    machine.probe_runs("sdb", "echo DATA; sleep 0.3; echo '  filesystem: ext3'\n")
    machine.start()
    assert label_and_filesystem(machine) == ("DATA", " ")


def test_first_write_may_end_anywhere(machine):
    drive(machine)
    machine.probe_runs("sdb", "printf 'DATA\\n filesystem: ex'; sleep 0.3; echo t3\n")
    machine.start()
    assert label_and_filesystem(machine) == ("DATA", "ex")


def test_program_that_hangs_up_early_is_waited_for(machine):
    """Its end decides, not the end of its output."""
    drive(machine)
    machine.probe_runs("sdb", "echo DATA; exec >&-; sleep 0.7; exit 4\n")
    daemon = machine.start()
    start = time.monotonic()
    assert label_and_filesystem(machine) == ("", " ")
    assert time.monotonic() - start > 0.6
    assert daemon.stderr_lines()[-1] == "volsniffer failed for /dev/sdb, return value 4"


def test_program_that_prints_nothing_for_a_while(machine):
    drive(machine)
    machine.probe_runs("sdb", "sleep 0.5; echo DATA\n")
    machine.start()
    assert label_and_filesystem(machine) == ("DATA", " ")


def test_program_that_leaves_a_child_with_its_output(machine):
    """The grandchild keeps the pipe open; one read and the program's end are enough."""
    drive(machine)
    machine.probe_runs("sdb", "echo DATA; sleep 30 &\nexit 0\n")
    machine.start()
    start = time.monotonic()
    assert label_and_filesystem(machine) == ("DATA", " ")
    assert time.monotonic() - start < 15


@pytest.mark.parametrize(
    "length, filesystem",
    [(4094, "ext3"), (4095, "ext3"), (4096, "ext"), (4098, "e"), (4099, ""), (60000, " ")],
)
def test_4095_bytes_of_output_count(machine, length, filesystem):
    """The line with the file system ends the output; what lies beyond byte 4095 is cut off."""
    drive(machine)
    tail = "filesystem:ext3"
    text = "DATA\n"
    text += "x" * (length - len(text) - len(tail) - 1) + "\n" + tail
    assert len(text) == length
    write(f"{ANSWERS}/sdb", text)
    machine.start()
    assert label_and_filesystem(machine) == ("DATA", filesystem)


def test_a_label_of_4095_bytes(machine):
    drive(machine)
    write(f"{ANSWERS}/sdb", "L" * 5000)
    machine.start()
    label, filesystem = label_and_filesystem(machine)
    assert (len(label), filesystem) == (4095, " ")
    assert "OK- sdb        Hard Drive         USB         " + "L" * 20 + " 1.048MB" in machine.ask(
        "list human"
    )


@pytest.mark.parametrize(
    "output",
    [
        b"\0\0\0\n",
        b"A\0B\nfilesystem: ext3\n",
        b"\xff\xfe\n filesystem: \xff\n",
        b":::::\n::\n:\n",
        b"\n" * 4095,
        b"%s%s%n\nfilesystem: %s%n\n",
        b" " * 4095,
        b"a:b\n" * 1000,
    ],
    ids=range(8),
)
def test_garbage_for_an_answer(machine, output):
    drive(machine)
    write(f"{ANSWERS}/sdb", output)
    machine.start()
    with machine.connect() as client:
        assert client.ask("list human").endswith("OK  eom\n")
        assert client.ask("enumerate").endswith("OK  eom\n")


def test_a_label_with_format_characters_is_text(machine):
    drive(machine)
    machine.probe_says("sdb", "%s%d%n", "%x")
    daemon = machine.start()
    assert label_and_filesystem(machine) == ("%s%d%n", "%x")
    assert "Label: '%s%d%n'\n  'filesystem' = '%x'\n" in daemon.stderr()


def test_what_the_probe_says_is_taken_as_it_comes(machine):
    """volsniffer itself says no control characters. One that was taken over by what it read could
    move the columns of its own device's rows, and that is all: a row ends where it did, and no
    other device's row changes."""
    drive(machine)
    drive(machine, "sdc")
    machine.probe_says("sdc", "DATA", "ext4")
    before = {}
    daemon = machine.start()
    for listing in ("list", "list human", "enumerate"):
        before[listing] = machine.ask(listing).split("\n")
    write(f"{ANSWERS}/sdd", "A\tB\r\x1b[2J\n  filesystem: x\ty\x1b[2J\n")
    drive(machine, "sdd")
    daemon.wait_for("Device sdd just appeared")
    rows = [row for row in machine.ask("list").split("\n") if row not in before["list"]]
    assert len(rows) == 1
    assert rows[0].startswith("OK- \tsdd\t") and rows[0].endswith("\tx\ty\x1b[2J")
    assert "\tA\tB\r\x1b[2J\t" in rows[0]
    for listing, lines in before.items():
        now = machine.ask(listing).split("\n")
        assert [row for row in now if "sdd" not in row] == lines


def test_refused_pipe_leaves_the_record_as_it_is(machine):
    """Nothing is learnt and nothing marked: the next listing tries again."""
    drive(machine)
    machine.probe_says("sdb", "DATA", "ext3")
    # Only a pipe that closes on exec: the sanitizers need another now and then.
    daemon = machine.start(refuse=[("pipe2", errno.EMFILE, 1, os.O_CLOEXEC, os.O_CLOEXEC)])
    assert label_and_filesystem(machine) == ("", "")
    assert label_and_filesystem(machine) == ("", "")
    assert machine.probe_calls() == []
    assert not any("pipe:" in name for name in daemon.descriptors().values())


def test_refused_fork_marks_the_file_system(machine):
    """The blank is there before the program runs, so that no drive is tried for ever."""
    drive(machine)
    machine.probe_says("sdb", "DATA", "ext3")
    sigchld = 17  # the low byte of clone's flags, for a child that is a process
    daemon = machine.start(
        refuse=[
            ("clone", errno.EAGAIN, 0, 0xFF, sigchld),
            ("fork", errno.EAGAIN),
            ("vfork", errno.EAGAIN),
        ]
    )
    assert label_and_filesystem(machine) == ("", " ")
    assert machine.probe_calls() == []
    assert not any("pipe:" in name for name in daemon.descriptors().values())


def test_no_descriptor_and_no_child_is_left(machine):
    hasty = "echo A; exec >&-; sleep 0.1"
    programs = ["exit 0", "exit 1", hasty, "kill -9 $$", "echo A; sleep 0.1"]
    for letter, program in zip("bcdef", programs):
        drive(machine, f"sd{letter}")
        machine.probe_runs(f"sd{letter}", program + "\n")
    daemon = machine.start()
    machine.ask("list")
    assert len(machine.probe_calls()) == 5
    assert not any("pipe:" in name for name in daemon.descriptors().values())
    assert daemon.children() == []


def test_a_mute_program_holds_up_the_daemon_until_it_ends(machine):
    """Accepted on purpose: the first output is waited for without a limit."""
    drive(machine)
    machine.probe_runs("sdb", "sleep 2; echo DATA\n")
    machine.start()
    first = machine.connect()
    first.send("list\n")
    wait_until(lambda: machine.probe_calls(), what="the probe")
    start = time.monotonic()
    machine.pass_of_loop()
    assert time.monotonic() - start > 1
    assert "\tDATA\t" in first.reply()


def test_restart_after_a_kill_beside_a_hanging_program(machine):
    """The program of the daemon that was killed still runs, and holds nothing of the socket."""
    drive(machine)
    machine.probe_runs("sdb", "echo $$ > /root/pid; exec sleep 50\n")
    daemon = machine.start()
    client = machine.connect()
    client.send("list\n")
    wait_until(lambda: os.path.exists("/root/pid") and os.path.getsize("/root/pid"))
    daemon.kill()
    assert client.line() == b""
    machine.start()
    assert machine.ask("bogus") == "ERR unknown command\n"
    with open("/root/pid") as file:
        assert os.path.exists(f"{REAL_PROC}/{int(file.read())}/exe"), "it does not hang"


# With the project's own probe program.


def use_the_real_program(machine):
    """Through a shell that lists itself in /proc, where its sanitizer looks it up."""
    machine.script(PROBE, f'ln -s /.proc/$$ /proc/$$; exec {REAL_PROBE} "$@"\n')


def test_own_probe_program_names_what_is_on_a_device(machine):
    assert os.path.exists(REAL_PROBE), "VOLSNIFFER must name the project's probe program"
    use_the_real_program(machine)
    for name in ("sdb", "sdc", "sdd"):
        machine.plug("usb", name, 64 << 20)
    machine.part("sdc1", 32 << 20)
    subprocess.run(
        ["/usr/sbin/mkfs.ext4", "-q", "-F", "-L", "My Disk", "/dev/sdc1"],
        check=True,
        stdin=subprocess.DEVNULL,
    )
    subprocess.run(["/usr/sbin/mkfs.ext2", "-q", "-F", "/dev/sdd"], check=True)
    machine.start()
    assert label_and_filesystem(machine, "sdb") == ("", " ")
    assert label_and_filesystem(machine, "sdd") == ("", "ext2")
    assert "\t\tsdc1\tPartition\tUSB\tMy Disk\t33554432\t\t\t\text4\n" in machine.ask("list")


DYING = "/root/dying"


def dying_drive(machine):
    """A folder with files that are like drives which break at some moment."""
    machine.real_mounts()
    os.mkdir(DYING)
    return machine.troublemaker("mute_server", "drive", DYING)


def status_of(pid):
    with open(f"{REAL_PROC}/{pid}/status") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)


def reader_of(process):
    """The child of the probe program, once there is one."""
    path = f"{REAL_PROC}/{process.pid}/task/{process.pid}/children"

    def children():
        with open(path) as file:
            return file.read().split()

    wait_until(children, what="the reader")
    return children()[0]


def run_on(name):
    return subprocess.Popen(
        [REAL_PROBE, f"{DYING}/{name}", "--fs"],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


def test_own_probe_program_gives_up_on_a_dying_drive(machine):
    """Wherever the drive stops answering, five seconds are all that it costs: whoever reads the
    answer is told that none comes, although the process in the read cannot be killed."""
    server = dying_drive(machine)
    began = time.monotonic()
    moments = ("lookup", "open", "read", "close")
    probes = {moment: run_on(f"dies-at-{moment}") for moment in moments}
    readers = {moment: reader_of(probe) for moment, probe in probes.items()}
    for moment, probe in probes.items():
        assert probe.communicate(timeout=8) == (
            "", f"Cannot read {DYING}/dies-at-{moment}: no answer within five seconds\n")
        assert (moment, probe.returncode) == (moment, 7)
        assert 4.9 < time.monotonic() - began < 6
    for moment, pid in readers.items():
        assert (moment, status_of(pid)["State"]) == (moment, "D (disk sleep)")
        for number in os.listdir(f"{REAL_PROC}/{pid}/fd"):
            assert os.readlink(f"{REAL_PROC}/{pid}/fd/{number}").startswith(DYING)
    server.kill()
    for pid in readers.values():
        wait_until(lambda pid=pid: not os.path.exists(f"{REAL_PROC}/{pid}/exe"), what="their end")


def test_own_probe_program_reads_without_rights(machine):
    """Whoever looks at what strangers wrote is nobody, with no right, no group, and no way to open
    anything or to become somebody; and so is the process that shares its memory."""
    dying_drive(machine)
    os.setgroups([5, 6])
    probe = run_on("dies-at-read")
    reader = reader_of(probe)
    wait_until(lambda: status_of(reader)["State"].startswith("D"), what="the read")
    for pid in (reader, probe.pid):
        status = status_of(pid)
        # These tests' namespace has no other numbers to give.
        assert status["Uid"].split() == status["Gid"].split() == ["65534"] * 4
        assert status["Groups"].split() == []
        for kind in ("Inh", "Prm", "Eff", "Amb"):
            assert int(status[f"Cap{kind}"], 16) == 0
        assert status["NoNewPrivs"] == "1"
        with open(f"{REAL_PROC}/{pid}/limits") as file:
            limits = {line[:25].rstrip(): line[25:].split()[:2] for line in file}
        assert limits["Max open files"] == limits["Max processes"] == ["0", "0"]
    assert [os.readlink(f"{REAL_PROC}/{reader}/fd/{number}")
            for number in os.listdir(f"{REAL_PROC}/{reader}/fd")] == [f"{DYING}/dies-at-read"]
    probe.kill()
    probe.communicate()


def test_a_dying_drive_costs_a_listing_five_seconds(machine):
    """The daemon learns nothing of it, does not ask again, and serves on; no process is its own."""
    drive(machine)
    server = dying_drive(machine)
    machine.probe_runs("sdb", f"exec {REAL_PROBE} {DYING}/dies-at-read --fs\n")
    daemon = machine.start()
    began = time.monotonic()
    assert label_and_filesystem(machine) == ("", " ")
    assert 4.9 < time.monotonic() - began < 7
    assert daemon.stderr_lines()[-1] == "volsniffer failed for /dev/sdb, return value 7"
    assert daemon.children() == []
    began = time.monotonic()
    assert label_and_filesystem(machine) == ("", " ")
    assert time.monotonic() - began < 2
    server.kill()
