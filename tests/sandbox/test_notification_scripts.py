"""The scripts of a site: which are run and how, which can forbid a mount, and what becomes of those
that take too long."""

import errno
import os
import time

import pytest

from machine import stand_ins
from machine.clients import wait_until
from machine.drives import write
from machine.machine import sleep
from machine.traces import calls_during, traced

FOLDER = "/var/quarryd/mount-notify"
MOUNTED = "OK mount succeeded\n\n"
VETOED = "ERR mounting was vetoed by notification script\n"


def site(machine, **scripts):
    """A stick that can be mounted, and scripts by their names."""
    stand_ins.exfat_stick(machine)
    os.makedirs(FOLDER)
    for name, text in scripts.items():
        machine.script(f"{FOLDER}/{name}", text)
    return machine.start("--hotplug")


def ask(machine, request="mount rw sdb1", timeout=20):
    with machine.connect(timeout=timeout) as client:
        return client.ask(request)


def timed(machine, request="mount rw sdb1"):
    start = time.monotonic()
    reply = ask(machine, request)
    return reply, time.monotonic() - start


def noted(path):
    """The lines that scripts have written down."""
    if not os.path.exists(path):
        return []
    with open(path) as file:
        return file.read().splitlines()


# Veto.


def test_without_scripts_every_mount_is_allowed(machine):
    site(machine)
    assert ask(machine) == MOUNTED


def test_without_the_directory_every_mount_is_allowed(machine):
    site(machine)
    os.rmdir(FOLDER)
    assert ask(machine) == MOUNTED


def test_a_directory_that_cannot_be_read_allows_every_mount(machine):
    stand_ins.install(machine)
    machine.plug("usb", "sdb", 1 << 20)
    machine.probe_says("sdb", "DATA", "exfat")
    machine.script(f"{FOLDER}/veto", "exit 1")
    os.chmod(FOLDER, 0)
    stand_ins.driver_lists(machine)
    machine.start("--hotplug", drop_file_override=True)
    assert ask(machine, "mount rw sdb") == MOUNTED
    os.chmod(FOLDER, 0o700)


@pytest.mark.parametrize("status", [1, 3, 127, 255])
def test_an_exit_status_forbids_the_mount(machine, status):
    daemon = site(machine, no=f"echo NO; exit {status}")
    assert ask(machine) == VETOED
    assert not os.path.exists("/mnt/sdb1")
    assert "Trying" not in daemon.stderr() and "NO" not in daemon.stderr()
    assert stand_ins.calls() == []


def test_a_script_that_prints_and_exits_0_allows_the_mount(machine):
    daemon = site(machine, yes="echo certainly; echo YES >&2; exit 0")
    assert ask(machine) == MOUNTED
    assert "certainly" not in daemon.stdout() and "YES" not in daemon.stderr()


def test_one_veto_among_many_is_enough_and_all_are_run(machine):
    scripts = {f"s{n}": f"echo {n} >> /run/ran; exit {int(n == 2)}" for n in range(6)}
    site(machine, **scripts)
    assert ask(machine) == VETOED
    assert sorted(noted("/run/ran")) == [str(n) for n in range(6)]


def test_a_file_without_execute_bits_forbids_the_mount(machine):
    """A hook that does not work is to be noticed, not skipped."""
    site(machine, hook="exit 0")
    os.chmod(f"{FOLDER}/hook", 0o644)
    assert ask(machine) == VETOED


@pytest.mark.parametrize(
    "content", [b"#!/nowhere/interpreter\n", b"", b"no program\n", b"\x7fELF broken", bytes(100)]
)
def test_what_cannot_be_executed_forbids_the_mount(machine, content):
    site(machine)
    write(f"{FOLDER}/hook", content)
    os.chmod(f"{FOLDER}/hook", 0o755)
    assert ask(machine) == VETOED


@pytest.mark.parametrize("number", ["KILL", "TERM", "SEGV", "PIPE", "HUP"])
def test_a_script_that_a_signal_ended_forbids_nothing(machine, number):
    site(machine, hook=f"kill -{number} $$; exit 1")
    assert ask(machine) == MOUNTED


def test_hidden_files_and_directories_are_never_run(machine):
    site(machine)
    machine.script(f"{FOLDER}/.hidden", "touch /run/ran; exit 1")
    machine.script(f"{FOLDER}/folder/inside", "touch /run/ran; exit 1")
    os.symlink("folder", f"{FOLDER}/link-to-folder")
    os.symlink("nowhere", f"{FOLDER}/dangling")
    os.mkfifo(f"{FOLDER}/pipe")
    assert ask(machine) == MOUNTED
    assert not os.path.exists("/run/ran")


def test_a_link_to_a_script_is_a_script(machine):
    site(machine)
    machine.script("/usr/lib-of-the-site/hook", "echo $0 > /run/name; exit 1")
    os.symlink("/usr/lib-of-the-site/hook", f"{FOLDER}/linked")
    assert ask(machine) == VETOED
    assert noted("/run/name") == ["linked"]


@pytest.mark.parametrize("event", ["mount", "remount-ro", "remount-rw", "umount"])
def test_only_about_to_mount_can_be_forbidden(machine, event):
    site(machine, hook=f"[ $2 != {event} ] || exit 1")
    assert ask(machine, "mount rw sdb1") == MOUNTED
    assert ask(machine, "mount ro sdb1") == "OK remounted as r/o\n"
    assert ask(machine, "mount rw sdb1") == "OK remounted as r/w\n"
    assert ask(machine, "umount sdb1") == "OK unmount succeeded\n"


def test_a_script_that_cannot_be_started_is_dropped_in_silence(machine):
    """No memory for a child: the event goes on without it."""
    machine.real_mounts()
    machine.plug("usb", "sdb", 1 << 20)
    machine.mount_tmpfs("sdb", "/mnt/sdb")
    machine.script(f"{FOLDER}/hook", "touch /run/ran")
    daemon = machine.start("--hotplug", refuse=[("clone", errno.EAGAIN, 0, 0xFF, 17)])
    said = daemon.stderr()
    assert ask(machine, "mount ro sdb") == "OK remounted as r/o\n"
    assert not os.path.exists("/run/ran")
    assert daemon.stderr() == said


# What a script is told.


def test_device_text_and_event_word_of_all_events(machine):
    """Before a mount and for a remount the name; with a mount in the table, the table's word."""
    stand_ins.exfat_stick(machine)
    stand_ins.notes_events(machine, "echo $# >> /run/counts")
    machine.start("--hotplug")
    for request in (
        "mount rw /dev/sdb1",
        "mount ro ^DATA",
        "mount rw /dev/sdb1",
        "mount rudero sdb1",
        "umount /dev/sdb1",
        "mount ro sdb1",
        "mount rudeoff sdb1",
    ):
        assert ask(machine, request).startswith("OK ")
    assert stand_ins.events() == [
        "sdb1 about-to-mount",
        "/dev/sdb1 mount",
        "sdb1 remount-ro",
        "sdb1 remount-rw",
        "sdb1 remount-ro",
        "/dev/sdb1 umount",
        "sdb1 about-to-mount",
        "/dev/sdb1 mount",
        "/dev/sdb1 umount",
    ]
    assert set(noted("/run/counts")) == {"2"}


def test_every_event_comes_before_what_it_announces_but_mount(machine):
    """What the kernel says of the stick while each script runs."""
    stand_ins.exfat_stick(machine)
    look = "while read a b c d e; do [ $b != /mnt/sdb1 ] || now=${d%%,*}; done < /.proc/self/mounts"
    machine.script(f"{FOLDER}/look", f"now=nothing\n{look}\necho $2 $now >> /run/looks")
    machine.start("--hotplug")
    for request in ("mount rw sdb1", "mount rudero sdb1", "mount rw sdb1", "mount rudeoff sdb1"):
        assert ask(machine, request).startswith("OK ")
    assert noted("/run/looks") == [
        "about-to-mount nothing",
        "mount rw",
        "remount-ro rw",
        "remount-rw ro",
        "umount rw",
    ]


def test_events_that_are_none_run_no_script(machine):
    stand_ins.exfat_stick(machine)
    stand_ins.notes_events(machine)
    machine.start("--hotplug")
    ask(machine, "umount sdb1")
    ask(machine, "mount nonsense sdb1")
    ask(machine, "mount ro ^NOWHERE")
    ask(machine, "mount ro sdx")
    assert stand_ins.events() == []
    ask(machine, "mount rw sdb1")
    ask(machine, "mount rw sdb1")
    assert stand_ins.events() == ["sdb1 about-to-mount", "/dev/sdb1 mount"]


def test_a_mount_that_fails_is_announced_and_nothing_more(machine):
    stand_ins.exfat_stick(machine)
    stand_ins.notes_events(machine)
    stand_ins.stand_in(machine, "/usr/sbin/mount.exfat", "exit 1\n")
    machine.start("--hotplug")
    assert ask(machine) == "ERR mount failed\n"
    assert stand_ins.events() == ["sdb1 about-to-mount"]


def test_a_script_is_called_by_its_bare_name_in_the_events_directory(machine):
    stand_ins.exfat_stick(machine)
    text = "readlink /.proc/self/cwd > /run/cwd; tr '\\0' '\\n' < /.proc/$$/cmdline > /run/words"
    machine.script(f"{FOLDER}/a-hook", f"{text}; exit 1")
    daemon = machine.start("--hotplug", trace=traced(calls="execve,recvfrom,sendto"))
    assert ask(machine) == VETOED
    assert noted("/run/cwd") == [FOLDER]
    assert noted("/run/words") == ["/bin/sh", "a-hook", "sdb1", "about-to-mount"]
    assert any('execve("a-hook", ["a-hook", "sdb1", "about-to-mount"],' in line
               for line in daemon.trace())


def test_a_script_gets_the_daemons_environment(machine):
    site(machine, hook="cat /.proc/$$/environ > /run/environment; exit 1")
    assert ask(machine) == VETOED
    with open(f"/.proc/{machine.daemon.pid}/environ", "rb") as file:
        wanted = file.read()
    with open("/run/environment", "rb") as file:
        assert file.read() == wanted != b""


def test_no_descriptor_of_the_daemon_reaches_a_script(machine):
    """Not even the standard ones: the shell has opened its script and nothing else."""
    # The shell lists its own files before it opens another for what is written down.
    site(machine, hook="readlink /.proc/$$/fd/* > /run/open; exit 1")
    clients = [machine.connect() for _ in range(20)]
    machine.pass_of_loop()
    assert ask(machine) == VETOED
    assert noted("/run/open") == [f"{FOLDER}/hook"]
    assert clients[0].ask("nothing") == "ERR unknown command\n"


def test_descriptors_up_to_4095_are_closed_in_one_call(machine):
    stand_ins.exfat_stick(machine)
    machine.script(f"{FOLDER}/hook", "exit 1")
    daemon = machine.start("--hotplug", trace=traced(calls="close_range,close,execve"))
    assert ask(machine) == VETOED
    lines = daemon.trace()
    start = next(i for i, line in enumerate(lines) if 'execve("hook"' in line)
    pid = lines[start].split()[0]
    before = [line.split(None, 1)[1] for line in lines[:start] if line.split()[0] == pid]
    assert before[-1] == "close_range(0, 4095, 0)           = 0"
    assert len([line for line in before if line.startswith("close(")]) < 5


def test_a_script_meets_the_signals_as_every_program_does(machine):
    """The daemon ignores SIGPIPE; a script does not, and nothing is blocked."""
    site(machine, hook="grep -E 'Sig(Ign|Blk):' /.proc/self/status > /run/signals; exit 1")
    assert ask(machine) == VETOED
    assert [line.split() for line in noted("/run/signals")] == [
        ["SigBlk:", "0" * 16],
        ["SigIgn:", "0" * 16],
    ]


# One after another.


def test_twenty_scripts_run_one_after_another(machine):
    text = "echo begin $0 >> /run/ran; sleep 0.05; echo end $0 >> /run/ran"
    site(machine, **{f"s{n}": f"[ $2 = about-to-mount ] || exit 0\n{text}" for n in range(20)})
    assert ask(machine) == MOUNTED
    lines = noted("/run/ran")
    assert len(lines) == 40
    for begin, end in zip(lines[::2], lines[1::2]):
        assert begin.split()[0] == "begin" and end == "end " + begin.split()[1]
    assert len(set(lines)) == 40


def test_scripts_run_in_the_order_of_the_directory(machine):
    site(machine, **{name: "echo $0 >> /run/ran; exit 1" for name in ("b", "c", "a", "10", "9")})
    assert ask(machine) == VETOED
    assert noted("/run/ran") == [entry.name for entry in os.scandir(FOLDER)]


# Too slow. The first that runs decides; which one that is is the directory's affair.


def first_and_second(first, second):
    """One text for two scripts: whichever runs first does the one, the other the other."""
    return (
        "[ $2 = about-to-mount ] || exit 0\n"
        f"if mkdir /run/first 2> /run/noise; then {first}; else {second}; fi"
    )


def timeouts(daemon):
    """The processes that were given up, by their numbers."""
    prefix = "notify timeout: pid "
    lines = [line for line in daemon.stderr_lines() if line.startswith(prefix)]
    return [int(line.removeprefix(prefix)) for line in lines]


def test_what_comes_after_the_deadline_is_killed_at_once_and_forbids_nothing(machine):
    """The first exits 0 after 5 seconds; the second is started in the same pass and killed."""
    text = first_and_second("sleep 5; exit 0", "sleep 0.3; touch /run/second-went-on; exit 1")
    daemon = site(machine, a=text, b=text)
    reply, took = timed(machine)
    assert reply == MOUNTED
    assert 4.9 < took < 12
    assert len(timeouts(daemon)) == 1
    sleep(0.5)
    assert not os.path.exists("/run/second-went-on")
    daemon.wait_for(f"Process {timeouts(daemon)[0]} died")
    assert daemon.children() == []


def test_a_veto_before_the_deadline_counts_whatever_comes_after_it(machine):
    text = first_and_second("sleep 4; exit 1", "sleep 60")
    daemon = site(machine, a=text, b=text)
    assert ask(machine) == VETOED
    assert len(timeouts(daemon)) == 1


def test_the_deadline_is_looked_at_between_scripts_alone(machine):
    """One slow script holds the daemon until it ends, and it may still forbid the mount."""
    daemon = site(machine, slow="sleep 4.5; exit 1")
    reply, took = timed(machine)
    assert reply == VETOED
    assert 4.4 < took < 12
    assert timeouts(daemon) == []


def test_what_has_not_been_started_by_the_deadline_is_dropped(machine):
    """Of twenty, those behind the slow one: one is started and killed, of the others no word."""
    text = first_and_second("sleep 3.2", "echo $0 >> /run/ran")
    daemon = site(machine, **{f"s{n}": text for n in range(20)})
    reply, took = timed(machine)
    assert reply == MOUNTED
    assert took < 12
    assert len(timeouts(daemon)) == 1
    assert len(noted("/run/ran")) <= 1  # the killed one may have come that far


def test_three_seconds_are_for_all_scripts_together(machine):
    """Twenty of 0.4 seconds each: about eight come to their end."""
    text = "[ $2 = about-to-mount ] || exit 0\nsleep 0.4; echo $0 >> /run/ran"
    daemon = site(machine, **{f"s{n}": text for n in range(20)})
    reply, took = timed(machine)
    assert reply == MOUNTED
    assert 3 < took < 10
    assert 2 <= len(noted("/run/ran")) <= 9
    assert len(timeouts(daemon)) == 1


def test_killed_scripts_are_reaped_one_a_pass(machine):
    """After a few requests whose scripts were killed nothing of them is left."""
    text = "if mkdir /run/first.$2; then sleep 3.2; else sleep 60; fi"
    daemon = site(machine)
    assert ask(machine) == MOUNTED
    for name in ("a", "b"):
        machine.script(f"{FOLDER}/{name}", text)
    for mode in ("ro", "rw"):
        assert ask(machine, f"mount {mode} sdb1").startswith("OK remounted")
    killed = timeouts(daemon)
    assert len(killed) == 2
    for pid in killed:
        daemon.wait_for(f"Process {pid} died")
    wait_until(lambda: daemon.children() == [], what="no child left")


def test_children_of_a_killed_script_are_not_the_daemons(machine):
    """What a script has left behind in the background runs on and is nobody's zombie here."""
    daemon = site(machine, hook="sleep 30 & exit 0")
    reply, took = timed(machine)
    assert reply == MOUNTED
    assert took < 15
    assert daemon.children() == []


def test_nobody_naps_while_scripts_run_in_time(machine):
    stand_ins.exfat_stick(machine)
    machine.script(f"{FOLDER}/hook", "exit 0")
    daemon = machine.start(
        "--hotplug", trace=traced(calls="recvfrom,sendto,nanosleep,clock_nanosleep")
    )
    assert ask(machine) == MOUNTED
    assert not [call for call in calls_during(daemon, "mount rw") if "sleep" in call]


def test_devices_that_come_and_go_run_no_script(machine):
    """Two more events have a directory; nothing raises them."""
    for folder in (FOLDER, "/var/quarryd/device-notify"):
        machine.script(f"{folder}/hook", "touch /run/ran")
    machine.start()
    machine.plug("usb", "sdb", 1 << 20)
    machine.settle()
    machine.settle()
    machine.unplug("sdb")
    machine.settle()
    assert not os.path.exists("/run/ran")
