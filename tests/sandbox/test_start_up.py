"""Start-up: options, users, the single instance, directories, the boot drive, every refusal."""

import errno
import os
import signal
import socket
import subprocess

import pytest

from machine.clients import ADDRESS, wait_until
from machine.drives import link, write
from machine.machine import REAL_PROC, USERS

HOTPLUG = "/sbin/hotplug"
HOTPLUG_HOOK = "/etc/hotplug.d/block/quarryd.hotplug"

USAGE = """quarryd [options]
Quarryd storage daemon v2.0

  --help            show this help
  --hotplug         rely on hotplug events to update device list
  --polling         rely on polling to update device list
  --nfsx            do not force shutdown on exit
"""

BEFORE_THE_CONFIGURATION = """user nobody:   uid=65534 gid=65534
user schedule: uid=500 gid=500
{noise}My EXE path: /usr/sbin/quarryd
"""

BARE_START = (
    BEFORE_THE_CONFIGURATION
    + """Configuration file error, check /etc/quarryd.conf. Continuing with defaults
WARNING: Cannot determine boot drive
"""
)

# Swap is switched off twice.
SWAP_AT_THE_END = 2 * """Shutting down any other swap files on the main drive
Shutting down any other swap files on other drives
"""


def refused(machine, *arguments, **keys):
    """Starts a daemon that must not come up; returns what it printed on standard error."""
    daemon = machine.start(*arguments, wait=False, **keys)
    daemon.check_end(1)
    return daemon.stderr()


@pytest.mark.parametrize(
    "arguments, text",
    [
        (["-?"], "Unknown switch ?\n"),
        (["--?"], "Unknown switch ?\n"),
        (["foo"], "Unknown parameter foo\n"),
        (["help"], "Unknown parameter help\n"),
        ([""], "Unknown parameter \n"),
        (["-"], "Unknown switch \n"),
        (["--"], "Unknown switch \n"),
        (["--bogus"], "Unknown switch bogus\n"),
        (["--Hotplug"], "Unknown switch Hotplug\n"),
        (["--hotplug=1"], "Unknown switch hotplug=1\n"),
        (["--hotplug", "foo"], "Unknown parameter foo\n"),
        (["--foo", "bar"], "Unknown switch foo\n"),
        (["-help"], USAGE),
        (["--help"], USAGE),
        (["-----help"], USAGE),
        (["--polling", "--help", "foo"], USAGE),
        (["foo", "--help"], "Unknown parameter foo\n"),
    ],
)
def test_refused_arguments(machine, arguments, text):
    """A word that is no switch, a switch that is none and the wish for help end in status 1."""
    assert refused(machine, *arguments) == text
    assert machine.daemon.stdout() == ""
    assert machine.syslog() == []
    assert not os.path.exists("/var/quarryd")


@pytest.mark.parametrize(
    "arguments, mode",
    [
        ([], "Polling"),
        (["--hotplug"], "Hotplug"),
        (["-hotplug"], "Hotplug"),
        (["---hotplug"], "Hotplug"),
        (["--hotplug", "--polling"], "Polling"),
        (["--polling", "--hotplug"], "Hotplug"),
        (["--nfsx"], "Polling"),
    ],
)
def test_the_last_mode_switch_wins(machine, arguments, mode):
    machine.start(*arguments)
    assert machine.daemon.stdout().splitlines()[0] == f"{mode} mode enabled"


def test_accepted_switches_are_called_unknown_all_the_same(machine):
    """The second look at the arguments complains about every switch, as it is written."""
    daemon = machine.start("--hotplug", "-nfsx", "---polling")
    noise = "Unknown switch --hotplug\nUnknown switch -nfsx\nUnknown switch ---polling\n"
    assert daemon.stderr().startswith(BEFORE_THE_CONFIGURATION.format(noise=noise))


def test_bare_start_says_exactly_this(machine):
    daemon = machine.start()
    assert daemon.stdout() == "Polling mode enabled\nMain part sig: ''\nMain label: ''\n"
    assert daemon.stderr() == BARE_START.format(noise="")
    assert machine.syslog() == ["quarryd: Quarryd disk tracker starting"]
    machine.stop()
    assert daemon.stdout() == "Polling mode enabled\nMain part sig: ''\nMain label: ''\n"
    assert daemon.stderr() == BARE_START.format(noise="") + SWAP_AT_THE_END
    assert machine.syslog() == [
        "quarryd: Quarryd disk tracker starting",
        "quarryd: Quarryd disk tracker terminating",
    ]


def test_system_log_lines_carry_ident_pid_facility_and_level(machine):
    daemon = machine.start()
    [line] = machine.raw_syslog()
    assert line.startswith("<30>")  # LOG_DAEMON and LOG_INFO
    assert line.endswith(f" quarryd[{daemon.pid}]: Quarryd disk tracker starting")


def test_both_streams_into_one_file_keep_their_order(machine):
    """Each line is out when it happens: a shared log file shows the true order."""
    with open("/run/both", "wb") as both:
        machine.start(wait=False, stdout=both, stderr=both)

    def text():
        with open("/run/both") as file:
            return file.read()

    wait_until(lambda: "Main label" in text())
    lines = BARE_START.format(noise="").splitlines()
    lines.insert(0, "Polling mode enabled")
    lines += ["Main part sig: ''", "Main label: ''"]
    assert text().splitlines() == lines


def test_a_pipe_shows_a_line_at_once(machine):
    """Standard output is no terminal here, and no line waits for a buffer to fill."""
    reader, writer = os.pipe()
    daemon = machine.start(wait=False, stdout=writer)
    os.close(writer)
    with os.fdopen(reader) as stream:
        wanted = ["Polling mode enabled\n", "Main part sig: ''\n", "Main label: ''\n"]
        assert [stream.readline() for _ in wanted] == wanted
        assert daemon.is_running()
        machine.stop()


def test_a_reader_of_its_errors_may_go(machine):
    """A log reader that ends takes the lines with it, and nothing else."""
    reader, writer = os.pipe()
    daemon = machine.start(stderr=writer)
    os.close(writer)
    os.close(reader)
    machine.plug("usb", "sdb", 1 << 20)  # which it tells
    wait_until(lambda: "\tsdb\t" in machine.ask("list"), what="the drive")
    machine.unplug("sdb")
    wait_until(lambda: "\tsdb\t" not in machine.ask("list"), what="the drive's end")
    daemon.stop()
    assert machine.syslog()[-1] == "quarryd: Quarryd disk tracker terminating"


def test_stays_in_the_foreground(machine):
    daemon = machine.start()
    machine.pass_of_loop()
    assert os.getsid(daemon.pid) == os.getsid(0)
    assert os.getpgid(daemon.pid) == os.getpgid(0)
    assert daemon.status_field("PPid") == str(os.getpid())
    assert daemon.children() == []


def test_does_not_ask_who_it_is(machine):
    """A daemon without root's rights starts: it fails where it must act, not before."""
    daemon = machine.start(user=1000)
    assert machine.ask("list").endswith("OK  eom\n")
    assert not os.path.exists("/var/quarryd")
    assert "Socket" not in daemon.stderr()


# The hotplug script and the kernel's hotplug program choose the mode.


def test_hotplug_files_choose_hotplug_mode(machine):
    machine.script(HOTPLUG, "exit 0\n")
    machine.script(HOTPLUG_HOOK, "exit 0\n")
    assert machine.start().stdout().splitlines()[:3] == [
        f"{HOTPLUG} present and executable",
        f"{HOTPLUG_HOOK} is present and executable",
        "Hotplug mode enabled",
    ]


def test_a_switch_beats_the_hotplug_files(machine):
    machine.script(HOTPLUG, "exit 0\n")
    machine.script(HOTPLUG_HOOK, "exit 0\n")
    assert machine.start("--polling").stdout().splitlines()[2] == "Polling mode enabled"


@pytest.mark.parametrize("present", [HOTPLUG, HOTPLUG_HOOK])
def test_one_hotplug_file_alone_means_polling(machine, present):
    machine.script(present, "exit 0\n")
    said = "present and executable" if present == HOTPLUG else "is present and executable"
    assert machine.start().stdout().splitlines()[:2] == [
        f"{present} {said}",
        "Polling mode enabled",
    ]


@pytest.mark.parametrize("mode", [0o100, 0o010, 0o001])
def test_any_execute_bit_makes_a_hotplug_file(machine, mode):
    for path in (HOTPLUG, HOTPLUG_HOOK):
        machine.script(path, "exit 0\n")
        os.chmod(path, mode)
    assert "Hotplug mode enabled\n" in machine.start().stdout()


@pytest.mark.parametrize("what", ["no execute bit", "directory", "dangling link"])
def test_a_hotplug_file_that_is_no_program_does_not_count(machine, what):
    machine.script(HOTPLUG_HOOK, "exit 0\n")
    if what == "directory":
        os.mkdir(HOTPLUG)
    elif what == "dangling link":
        link(HOTPLUG, "/nowhere")
    else:
        write(HOTPLUG, "#!/bin/sh\n")
        os.chmod(HOTPLUG, 0o666)
    assert machine.start().stdout().splitlines()[:2] == [
        f"{HOTPLUG_HOOK} is present and executable",
        "Polling mode enabled",
    ]


# Users.


def test_missing_nobody_is_a_warning(machine):
    machine.users(without=["nobody"])
    assert machine.start().stderr_lines()[:3] == [
        "Cannot get credentials for nobody",
        "user nobody:   uid=-1 gid=-1",
        "user schedule: uid=500 gid=500",
    ]


def test_missing_schedule_leaves_its_group_at_zero(machine):
    machine.users(without=["schedule"])
    assert machine.start().stderr_lines()[:3] == [
        "user nobody:   uid=65534 gid=65534",
        "Cannot get credentials for schedule",
        "user schedule: uid=-1 gid=0",
    ]


def test_no_user_list_at_all(machine):
    os.unlink("/etc/passwd")
    assert machine.start().stderr_lines()[:4] == [
        "Cannot get credentials for nobody",
        "user nobody:   uid=-1 gid=-1",
        "Cannot get credentials for schedule",
        "user schedule: uid=-1 gid=0",
    ]


# A single instance.


def test_second_instance_is_refused(machine):
    """The second one says so, touches nothing, and the first goes on."""
    first = machine.start()
    os.symlink("sdb1", "/mnt/main")
    os.mkdir("/mnt/sdb1")
    second = machine.start(wait=False)
    second.check_end(1)
    assert second.stderr() == (
        BEFORE_THE_CONFIGURATION.format(noise="")
        + "Another instance of myself is running. Quitting\n"
        + "Sorry, quarryd is already running\n"
    )
    assert second.stdout() == "Polling mode enabled\n"
    assert os.readlink("/mnt/main") == "sdb1"
    assert machine.syslog() == ["quarryd: Quarryd disk tracker starting"]
    assert machine.ask("list").endswith("OK  eom\n")
    first.stop()


@pytest.mark.parametrize(
    "exe", ["/usr/sbin/quarryd (deleted)", "/usr/sbin/quarry", "/sbin/quarryd", "usr/sbin/quarryd"]
)
def test_only_the_very_same_program_is_an_instance(machine, exe):
    machine.made_up_process(1000001, exe=exe)
    machine.start()


def test_entries_of_proc_that_are_no_process_are_no_instance(machine):
    for name in ("0", "quarryd", "-7", "x12"):
        link(f"/proc/{name}/exe", "/usr/sbin/quarryd")
    machine.made_up_process(1000001)  # a kernel thread has no program
    machine.start()


def test_a_made_up_twin_is_an_instance(machine):
    machine.made_up_process(1000001, exe="/usr/sbin/quarryd")
    assert refused(machine).endswith(
        "Another instance of myself is running. Quitting\nSorry, quarryd is already running\n"
    )


def test_a_users_process_of_that_name_is_an_instance_too(machine):
    """Nobody asks whose it is: who runs the daemon's program keeps root's start up, and is named by
    what `ps` says."""
    machine.made_up_process(1000001, exe="/usr/sbin/quarryd")
    os.chown("/proc/1000001", USERS["guest"], USERS["guest"])
    assert "Another instance of myself is running. Quitting\n" in refused(machine)


def test_own_program_unknown_is_a_warning(machine):
    """Without a link of its own in /proc no twin can be found, and start-up goes on."""
    machine.made_up_process(1000001, exe="/usr/sbin/quarryd")
    daemon = machine.start(show=False, leaks=False)
    lines = daemon.stderr_lines()
    assert lines[2] == (
        "Cannot read /proc entry on what my EXE is. "
        "There is nothing to prevent multiple instance of me from running!"
    )
    assert not any("My EXE path" in line for line in lines)


def test_proc_that_cannot_be_listed_means_the_worst(machine):
    os.chmod("/proc", 0o111)
    text = refused(machine, drop_file_override=True)
    assert text.endswith(
        "My EXE path: /usr/sbin/quarryd\n"
        "cannot opendir proc, assuming the worst...\n"
        "Sorry, quarryd is already running\n"
    )


# The socket.


def test_taken_socket_name_refuses_the_start(machine):
    """The log line stays: nothing is undone."""
    taken = socket.socket(socket.AF_UNIX)
    taken.bind(ADDRESS)
    text = refused(machine)
    assert text.endswith(
        "init_socket() cannot bind socket Address already in use\nSocket initialization failed\n"
    )
    assert machine.syslog() == ["quarryd: Quarryd disk tracker starting"]
    assert os.path.isdir("/var/quarryd")


F_GETFL, F_SETFL, O_NONBLOCK = 3, 4, 0o4000


@pytest.mark.parametrize(
    "rule, text",
    [
        (("socket", errno.EMFILE, 2, 0xFF, 1), "init_socket() cannot create socket {}"),
        (("bind", errno.EACCES), "init_socket() cannot bind socket {}"),
        (("listen", errno.ENOBUFS), "listen() cannot set up socket {}"),
        (("fcntl", errno.EBADF, 1, 0xFF, F_GETFL), "fcntl(F_GETFL) failed {}"),
        (("fcntl", errno.EPERM, 1, 0xFF, F_SETFL), "fcntl(F_SETFL) failed {}"),
    ],
)
def test_refused_socket_call_refuses_the_start(machine, rule, text):
    said = refused(machine, refuse=[rule])
    reason = text.format(os.strerror(rule[1]))
    assert said.endswith(f"{reason}\nSocket initialization failed\n")


# Directories, links, tables.


def test_script_directories_are_made(machine):
    machine.start()
    modes = {
        path: oct(os.stat(path).st_mode & 0o7777)
        for path in ("/var/quarryd", "/var/quarryd/mount-notify", "/var/quarryd/device-notify")
    }
    assert list(modes.values()) == ["0o755", "0o700", "0o700"], modes


def test_directories_that_exist_stay_as_they_are(machine):
    os.makedirs("/var/quarryd/mount-notify")
    os.chmod("/var/quarryd/mount-notify", 0o750)
    write("/var/quarryd/device-notify", "in the way")
    machine.start()
    assert os.stat("/var/quarryd/mount-notify").st_mode & 0o777 == 0o750
    assert os.path.isfile("/var/quarryd/device-notify")


def test_main_link_goes_at_start_and_at_the_end(machine):
    os.makedirs("/mnt/sdb1")
    os.symlink("sdb1", "/mnt/main")
    machine.start()
    assert not os.path.lexists("/mnt/main")
    os.makedirs("/mnt/sdb1", exist_ok=True)
    os.symlink("sdb1", "/mnt/main")
    machine.stop()
    assert not os.path.lexists("/mnt/main")


def test_kernel_tables_that_are_missing_are_named_in_order(machine):
    for name in ("mounts", "filesystems", "partitions"):
        os.unlink(f"/proc/{name}")
    lines = machine.start().stderr_lines()
    assert lines[4:9] == [
        "WaRNING: cannot stat /etc/fstab",
        "Cannot access /proc/mounts",
        "Cannot read /proc/filesystems",
        "Cannot open /proc/partitions",
        "WARNING: Cannot determine boot drive",
    ]


def test_a_second_mount_table_that_opens_not_is_named_too(machine):
    os.chmod("/proc/mounts", 0)
    lines = machine.start(drop_file_override=True).stderr_lines()
    assert lines[4:6] == ["Cannot access /etc/fstab", "Cannot access /proc/mounts"]


@pytest.mark.parametrize(
    "table, lines",
    [
        (["/dev/sda1 / ext4"], ["boot drive:     sda", "boot partition: sda1"]),
        (["/dev/nvme0n1p2 / ext4"], ["boot drive:     nvm", "boot partition: nvme0n1p2"]),
        (["/dev/md0 / ext4"], ["boot drive:     md0", "boot partition: md0"]),
        (["/dev/mapper/vg-root / xfs"], ["boot drive:     map", "boot partition: mapper/vg-root"]),
        (["/dev/ab / ext4"], ["boot drive:     ab", "boot partition: ab"]),
        (["/dev/ / ext4"], ["boot drive:     ", "boot partition: "]),
        (["rootfs / rootfs", "/dev/sdb2 / ext4"], ["boot drive:     sdb", "boot partition: sdb2"]),
        (["/dev/sdc1 /mnt/sdc1 ext4"], ["WARNING: Cannot determine boot drive"]),
        (["/dev/sdc1 // ext4"], ["WARNING: Cannot determine boot drive"]),
        (["overlay / overlay"], ["WARNING: Cannot determine boot drive"]),
        (
            ["/dev/sda1 / ext4", "/dev/sdb1 / ext4"],
            ["boot drive:     sda", "boot partition: sda1"],
        ),
        (
            ["/dev/root / ext4"],
            [
                "Ahahahah /dev/root. Good one. Completely useless.",
                "WARNING: Cannot determine boot drive",
            ],
        ),
        (
            ["/dev/root / ext4", "/dev/sda1 / ext4"],
            [
                "Ahahahah /dev/root. Good one. Completely useless.",
                "WARNING: Cannot determine boot drive",
            ],
        ),
        (["/dev/root1 / ext4"], ["boot drive:     roo", "boot partition: root1"]),
    ],
)
def test_boot_drive(machine, table, lines):
    """Three letters of the device at /, taken from the first line that has one."""
    machine.mount_table(table)
    assert machine.start().stderr_lines()[4:] == lines


# Signals.


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_three_signals_end_it_in_good_order(machine, number):
    daemon = machine.start()
    daemon.stop(number)
    assert machine.syslog()[-1] == "quarryd: Quarryd disk tracker terminating"


def test_no_other_signal_is_taken(machine):
    """SIGHUP has its usual effect: there is nothing to load again."""
    daemon = machine.start()
    caught = int(daemon.status_field("SigCgt"), 16)
    taken = {number for number in (1, 2, 3, 10, 12, 13, 14, 15, 17) if caught >> (number - 1) & 1}
    assert taken == {2, 3, 15}
    daemon.stop()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_a_signal_during_start_up_ends_it_at_once(machine, number):
    """Before there is a loop that could notice a flag, a signal has its usual effect."""
    signal.signal(number, signal.SIG_DFL)  # what the daemon inherits
    machine.plug("usb", "sdb", 1 << 20, node=False)
    os.mkfifo("/dev/sdb")  # opening it waits for a writer
    daemon = machine.start(wait=False)
    daemon.wait_for("Device sdb just appeared (polling)\n")
    assert "Main label" not in daemon.stdout()
    daemon.send_signal(number)
    daemon.check_end(-number)
    assert machine.syslog() == ["quarryd: Quarryd disk tracker starting"]


def test_impatience_during_the_stop_changes_nothing(machine):
    """A second and a third signal while the stop script runs only set the flag again."""
    machine.script("/root/stop", "sleep 1\n")
    machine.configure("shutdown script=/root/stop\n")
    daemon = machine.start()
    for number in (signal.SIGTERM, signal.SIGTERM, signal.SIGINT, signal.SIGQUIT):
        daemon.send_signal(number)
        subprocess.run(["sleep", "0.1"], check=True)
    daemon.check_end(0)
    assert machine.syslog().count("quarryd: Quarryd disk tracker terminating") == 1


def test_finds_no_twin_among_real_processes(machine):
    """The daemon's own entry carries its own program and is no other instance."""
    for pid in [name for name in os.listdir(REAL_PROC) if name.isdigit()]:
        machine.show_process(int(pid))
    machine.start()


# What a careless parent leaves.


def test_closed_streams_never_become_something_else(machine):
    """Started without descriptors 0 to 2, no socket takes their numbers."""
    machine.script("/root/parent", "exec /usr/sbin/quarryd <&- >&- 2>&-\n")
    daemon = machine.start(program="/root/parent", wait=False)
    client = wait_until(lambda: connected(machine), what="the socket")
    assert client.ask("list").endswith("OK  eom\n")
    descriptors = daemon.descriptors()
    assert [descriptors[number] for number in (0, 1, 2)] == ["/dev/null"] * 3


def connected(machine):
    try:
        return machine.connect()
    except ConnectionRefusedError:
        return None


@pytest.mark.parametrize("trouble", ["ignored", "blocked"])
def test_signals_of_the_parent_do_not_bind_the_daemon(machine, trouble):
    """Signals that the parent ignored or blocked reach it all the same, and children are seen."""
    action = {
        "ignored": "for s in (15, 17): signal.signal(s, signal.SIG_IGN)",
        "blocked": "signal.pthread_sigmask(signal.SIG_BLOCK, range(1, 32))",
    }[trouble]
    machine.script(
        "/root/parent",
        f"#!/usr/bin/python3\nimport os, signal\n{action}\nos.execv('/usr/sbin/quarryd', ['x'])\n",
    )
    machine.plug("usb", "sdb", 1 << 20)
    machine.probe_says("sdb", "DATA", "ext3")
    machine.configure("shutdown script=/root/stop\n")
    machine.script("/root/stop", "sleep 0.2; touch /root/ran\n")
    machine.start(program="/root/parent")
    assert "\tDATA\t" in machine.ask("list")
    machine.stop()
    assert os.path.exists("/root/ran")
