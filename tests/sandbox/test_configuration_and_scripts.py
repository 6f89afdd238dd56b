"""The configuration file, and the start and stop scripts that it names."""

import os
import random
import time

import pytest

from machine.clients import wait_until
from machine.drives import write
from machine.machine import REAL_PROC, sleep

# Both scripts in Python: what is left on the alarm clock, and which files are open.
SHOW_ALARM = """#!/usr/bin/python3
import signal, sys
open("/root/alarm", "w").write(f"{signal.alarm(0)} {' '.join(sys.argv)}")
"""
SHOW_FILES = "ls -l /proc/self/fd | sed -n 's/.* \\([0-9]*\\) -> /\\1 /p' > /root/files\n"


def settings(machine):
    """The settings that the daemon shows at start: signature and label."""
    lines = machine.daemon.stdout().splitlines()
    return [line.split(": ", 1)[1].strip("'") for line in lines if line.startswith("Main ")]


@pytest.mark.parametrize(
    "text, signature, label",
    [
        ("main partition signature = ABC\nmain partition label=XYZ\n", "ABC", "XYZ"),
        ("main partition signature=ABC", "ABC", ""),  # no line end
        ("main partition signature   =   A B C  \n", "A B C  ", ""),  # trailing blanks stay
        ("main partition signature=a=b==\n", "a=b==", ""),  # the first = counts
        ("main partition signature=ABC # no comment\n", "ABC # no comment", ""),
        ("# main partition signature=ABC\n\n\n", "", ""),
        (" main partition signature=ABC\n", "", ""),  # an indented key is another key
        ("\tmain partition signature=ABC\n", "", ""),
        ("main partition signature\t=ABC\n", "", ""),  # a tab is no blank
        ("main partition signature=\tABC\n", "\tABC", ""),
        ("Main Partition Signature=ABC\n", "", ""),
        ("main  partition signature=ABC\n", "", ""),
        ("main partition signature=ABC\nmain partition signature=DEF\n", "DEF", ""),
        ("main partition signature=ABC\nmain partition signature=\n", "", ""),
        ("main partition signature\n=ABC\n   =\n=\n", "", ""),  # no key, no value
        ("unknown = 1\nmain partition label = L\nanother\n", "", "L"),
        ("main partition label = L\r\n", "", "L\r"),  # a CR is text
        ("main partition label = \xff\xfe\n", "", "\xff\xfe"),
    ],
)
def test_lines_of_the_file(machine, text, signature, label):
    machine.configure(text.encode("latin-1"))
    machine.start()
    assert "Configuration file error" not in machine.daemon.stderr()
    with open(machine.daemon.stdout_path, encoding="latin-1", newline="\n") as file:
        assert file.read().endswith(f"Main part sig: '{signature}'\nMain label: '{label}'\n")


@pytest.mark.parametrize("text", ["", "# nothing\n# at all\n", "\n\n"])
def test_a_file_that_says_nothing_is_no_error(machine, text):
    machine.configure(text)
    machine.start()
    assert "Configuration file error" not in machine.daemon.stderr()
    assert settings(machine) == ["", ""]


def test_unreadable_file_is_a_warning(machine):
    machine.configure("main partition label=L\n")
    os.chmod("/etc/quarryd.conf", 0)
    daemon = machine.start(drop_file_override=True)
    assert "Configuration file error, check /etc/quarryd.conf. Continuing with defaults\n" in (
        daemon.stderr()
    )
    assert settings(machine) == ["", ""]


@pytest.mark.parametrize("length", [1022, 1023, 1024, 1025, 5000, 1 << 20])
def test_long_lines_are_read_to_their_end(machine, length):
    """A line at and past the limit of 1023 characters never keeps the daemon from starting."""
    machine.configure("#".ljust(length, "x") + "\nmain partition label=L\n")
    machine.start()
    if length <= 1023:
        assert settings(machine) == ["", "L"]


def test_a_value_of_the_greatest_length_is_kept_whole(machine):
    key = "main partition label="
    value = "v" * (1023 - len(key))
    machine.configure(key + value + "\n")
    machine.start()
    assert settings(machine) == ["", value]


@pytest.mark.parametrize(
    "text",
    [b"\0\0\0=\0\n\xff\n", random.Random(1).randbytes(5000), b"=" * 3000],
    ids=["nothing", "noise", "no key"],
)
def test_garbage_in_the_file_stops_nothing(machine, text):
    machine.configure(text)
    machine.start()


def test_directory_in_place_of_the_file(machine):
    """It opens and cannot be read: whatever is made of that, the daemon starts."""
    os.makedirs("/etc/quarryd.conf")
    machine.start()
    assert settings(machine) == ["", ""]


def test_drive_model_is_a_setting_of_the_past(machine):
    machine.configure("main drive model = Some Disk\n")
    assert machine.start().stderr_lines()[-1] == (
        "Warning: drive model specification feature deprecated. "
        "main drive search matches by signature now."
    )


# The start script.


def start_script(machine, text, more=""):
    machine.script("/root/start", text)
    machine.configure("startup script=/root/start\n" + more)


def test_start_script_runs_once_with_its_one_argument(machine):
    start_script(machine, 'echo "$0 $*" >> /root/ran\n')
    machine.start()
    wait_until(lambda: os.path.exists("/root/ran"))
    machine.settle()
    machine.stop()
    with open("/root/ran") as file:
        assert file.read() == "/root/start -startup\n"


def test_start_script_has_thirty_seconds(machine):
    """The alarm outlives the start of the script: the kernel ends a script that hangs."""
    start_script(machine, SHOW_ALARM)
    machine.start()
    wait_until(lambda: os.path.exists("/root/alarm") and os.path.getsize("/root/alarm"))
    with open("/root/alarm") as file:
        left, *words = file.read().split()
    assert 25 <= int(left) <= 30
    assert words == ["/root/start", "-startup"]


@pytest.mark.seconds(90)
def test_start_script_that_runs_too_long_is_ended_by_its_alarm(machine):
    """After thirty seconds, by SIGALRM; the daemon reports it and goes on as before."""
    start_script(machine, "exec sleep 60\n")
    daemon = machine.start(trace=("-e", "trace=execve", "-e", "signal=SIGALRM"))
    begun = time.monotonic()
    sleep(27)
    assert "died" not in daemon.stderr()
    daemon.wait_for(" died\n", timeout=8)
    assert 28.5 < time.monotonic() - begun < 33
    script = next(line.split()[0] for line in daemon.trace() if 'execve("/root/start"' in line)
    assert f"Process {script} died\n" in daemon.stderr()
    assert any(
        line.startswith(script + " ") and "killed by SIGALRM" in line for line in daemon.trace()
    )
    assert machine.ask("list").endswith("OK  eom\n")


def test_start_script_may_leave_processes_behind(machine):
    """It has ended when it has ended itself: what it started is nobody's child any more."""
    start_script(machine, "sleep 30 & echo $! > /root/pid\n")
    daemon = machine.start()
    daemon.wait_for(" died\n")
    with open("/root/pid") as file:
        left_behind = int(file.read())
    assert daemon.children() == []
    machine.settle()
    daemon.stop()
    assert daemon.stderr().count(" died\n") == 1
    assert os.readlink(f"{REAL_PROC}/{left_behind}/exe").endswith("/sleep")


def test_a_daemon_that_is_restarted_leaves_the_old_start_script_alone(machine):
    """The new daemon knows nothing of it and starts its own beside it."""
    start_script(machine, "echo $$ >> /root/pids; exec sleep 30\n")

    def pids():
        if not os.path.exists("/root/pids"):
            return []
        with open("/root/pids") as file:
            return [int(line) for line in file]

    machine.start()
    wait_until(pids)
    machine.stop()
    second = machine.start()
    first_script, second_script = wait_until(lambda: len(pids()) == 2 and pids())
    machine.settle()
    for script in (first_script, second_script):
        assert os.readlink(f"{REAL_PROC}/{script}/exe").endswith("/sleep")
    assert second.children() == [second_script]
    os.kill(first_script, 9)
    machine.settle()
    assert "died" not in second.stderr()


def test_start_script_keeps_nobody_waiting(machine):
    start_script(machine, "echo $$ > /root/pid; exec sleep 20\n")
    daemon = machine.start()
    wait_until(lambda: os.path.exists("/root/pid") and os.path.getsize("/root/pid"))
    start = time.monotonic()
    assert machine.ask("list").endswith("OK  eom\n")
    machine.settle()
    assert time.monotonic() - start < 15
    daemon.stop()


def test_stop_leaves_a_running_start_script_alone(machine):
    start_script(machine, "echo $$ > /root/pid; exec sleep 20\n")
    machine.start()
    wait_until(lambda: os.path.exists("/root/pid") and os.path.getsize("/root/pid"))
    machine.stop()
    with open("/root/pid") as file:
        assert os.path.exists(f"{REAL_PROC}/{int(file.read())}/exe")


@pytest.mark.parametrize("setting", ["signature", "label"])
def test_start_script_waits_for_the_main_partition(machine, setting):
    """While a main partition is wanted and none is found the script never runs."""
    start_script(machine, "touch /root/ran\n", f"main partition {setting}=NOWHERE\n")
    machine.plug("usb", "sdb", 1 << 20)
    machine.start()
    machine.settle()
    machine.settle()
    machine.stop()
    assert not os.path.exists("/root/ran")


@pytest.mark.parametrize("bits", [0o100, 0o010, 0o001])
def test_any_execute_bit_makes_a_script(machine, bits):
    """The bit need not be the daemon's own: root may run what anybody may run."""
    start_script(machine, "touch /root/ran\n")
    os.chmod("/root/start", 0o600 | bits)
    machine.start()
    wait_until(lambda: os.path.exists("/root/ran"))


@pytest.mark.parametrize("what", ["no execute bit", "directory", "missing", "empty name"])
def test_what_is_no_script_is_skipped_without_a_word(machine, what):
    machine.configure("startup script=/root/x\nshutdown script=/root/x\n")
    if what == "directory":
        os.makedirs("/root/x")
    elif what == "no execute bit":
        write("/root/x", "#!/bin/sh\ntouch /root/ran\n")
        os.chmod("/root/x", 0o644)
    elif what == "empty name":
        machine.configure("startup script=\nshutdown script=\n")
    daemon = machine.start()
    machine.settle()
    assert daemon.stderr_lines()[-1] == "WARNING: Cannot determine boot drive"
    machine.stop()
    assert daemon.stderr_lines()[-5] == "WARNING: Cannot determine boot drive"  # then swap, twice
    assert not os.path.exists("/root/ran")


def test_script_that_is_no_program_ends_its_child_alone(machine):
    """The child leaves without a trace of the daemon's own end; the daemon reports a child."""
    write("/root/start", b"\x7fNOT AN ELF\n")
    os.chmod("/root/start", 0o755)
    machine.configure("startup script=/root/start\nshutdown script=/root/start\n")
    daemon = machine.start()
    daemon.wait_for(" died\n")
    machine.settle()
    machine.stop()
    assert daemon.stderr().count("died") == 1
    assert machine.syslog()[1:] == ["quarryd: Quarryd disk tracker terminating"]


def test_relative_script_names_are_found_from_where_the_daemon_started(machine):
    machine.script("/start", "touch /root/ran\n")
    machine.configure("startup script=start\n")
    machine.start()
    wait_until(lambda: os.path.exists("/root/ran"))


# The stop script.


def stop_script(machine, text):
    machine.script("/root/stop", text)
    machine.configure("shutdown script=/root/stop\n")


def test_stop_script_is_waited_for(machine):
    stop_script(machine, 'sleep 0.7; echo "$0 $*" >> /root/ran\n')
    machine.start()
    machine.stop()
    with open("/root/ran") as file:
        assert file.read() == "/root/stop -shutdown\n"


def test_stop_script_has_five_seconds(machine):
    stop_script(machine, SHOW_ALARM)
    machine.start()
    machine.stop()
    with open("/root/alarm") as file:
        left, *words = file.read().split()
    assert 3 <= int(left) <= 5
    assert words == ["/root/stop", "-shutdown"]


def test_stop_script_that_hangs_is_ended_by_its_alarm(machine):
    stop_script(machine, "exec sleep 60\n")
    machine.start()
    start = time.monotonic()
    machine.stop()
    assert 4.5 < time.monotonic() - start < 8


def test_stop_script_that_does_not_heed_the_alarm_is_waited_for(machine):
    """The alarm is the only limit, and a script may set it aside."""
    stop_script(machine, "trap '' ALRM; sleep 6.5; touch /root/ran\n")
    machine.start()
    machine.stop()
    assert os.path.exists("/root/ran")


def test_stop_script_that_fails_changes_nothing(machine):
    stop_script(machine, "kill -9 $$\n")
    machine.start()
    machine.stop()


def test_stop_script_comes_first(machine):
    """When it runs, drives are still mounted; when the daemon has ended, they are not."""
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/mnt/sdb")
    stop_script(machine, "grep ' /mnt/sdb ' /proc/mounts > /root/mounted\n")
    machine.start()
    machine.stop()
    assert os.path.getsize("/root/mounted") > 0
    assert not os.path.exists("/mnt/sdb")


def test_order_of_the_end(machine):
    """Log line, stop script, unmounting, the socket, /mnt/main."""
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/mnt/sdb")
    stop_script(machine, "exit 0\n")
    calls = "sendto,execve,umount,umount2,close,unlink,unlinkat,socket"
    daemon = machine.start(trace=("-y", "-e", f"trace={calls}"))
    machine.stop()
    lines = daemon.trace()
    # The last stream socket: before it, the user lookup may have made one.
    socket = [line for line in lines if "socket(AF_UNIX, SOCK_STREAM" in line][-1]
    descriptor = socket.rsplit("= ", 1)[1].removesuffix(">")  # such as 4<socket:[123]
    steps = [
        "disk tracker terminating",
        'execve("/root/stop"',
        'umount2("/mnt/sdb"',
        f"close({descriptor}",
        'unlink("/mnt/main")',
    ]
    places = []
    for step in steps:
        own = [i for i, line in enumerate(lines) if step in line]
        if "close" in step:
            own = [i for i in own if lines[i].startswith(f"{daemon.pid} ")]
        assert own, f"{step} is missing in\n" + "\n".join(lines[-40:])
        places.append(own[-1])
    assert places == sorted(places), "\n".join(lines[places[0] :])


# What scripts inherit.


def inherited(path="/root/files"):
    """Descriptor numbers and targets that a script had, without that of its own listing."""
    with open(path) as file:
        pairs = [line.split(None, 1) for line in file]
    found = {int(number): target.strip() for number, target in pairs}
    return {number: name for number, name in found.items() if "/fd" not in name}


def test_start_script_inherits_the_three_streams_alone(machine):
    start_script(machine, SHOW_FILES)
    machine.start().wait_for(" died\n")
    assert sorted(inherited()) == [0, 1, 2]


def test_stop_script_inherits_the_three_streams_alone(machine):
    """Clients are connected and one of them is in the middle of a request."""
    stop_script(machine, SHOW_FILES)
    machine.start()
    clients = [machine.connect() for _ in range(3)]
    clients[0].ask("list")
    clients[1].send("half a req")
    machine.settle()
    machine.stop()
    assert sorted(inherited()) == [0, 1, 2]


def test_restart_after_a_kill_finds_the_socket_name_free(machine):
    """The start script of the daemon that was killed still runs and holds nothing of it."""
    start_script(machine, "echo $$ >> /root/pids; exec sleep 30\n")
    daemon = machine.start()
    wait_until(lambda: os.path.exists("/root/pids") and os.path.getsize("/root/pids"))
    daemon.kill()
    second = machine.start()
    assert machine.ask("list").endswith("OK  eom\n")
    with open("/root/pids") as file:
        assert os.path.exists(f"{REAL_PROC}/{int(file.readline())}/exe")
    second.stop()
