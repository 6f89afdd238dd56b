"""Start-up on a real system: what is said, what is refused, what is prepared."""
import re
import time

import pytest

from rig import Disk

DISKS = [Disk("sata", 32 << 20, id="disk")]
HOOK = "/etc/hotplug.d/block/quarryd.hotplug is present and executable\n"

USAGE = """quarryd [options]
Quarryd storage daemon v2.0

  --help            show this help
  --hotplug         rely on hotplug events to update device list
  --polling         rely on polling to update device list
  --nfsx            do not force shutdown on exit
"""


@pytest.mark.parametrize("argument, said", [
    ("--help", USAGE), ("-help", USAGE), ("---help", USAGE),
    ("-?", "Unknown switch ?\n"), ("--bogus", "Unknown switch bogus\n"),
    ("--", "Unknown switch \n"),
    ("foo", "Unknown parameter foo\n"), ("help", "Unknown parameter help\n"),
], ids=lambda text: text if text.startswith("-") or len(text) < 5 else "")
@pytest.mark.long
def test_options_refused(fresh, argument, said):
    """Help and unknown arguments are answered on standard error, with status 1, before anything
    is touched; the hook that was installed with the daemon is mentioned before all else."""
    daemon = fresh.daemon([argument], ready=False)
    assert daemon.wait(10) == 1
    assert (daemon.out(), daemon.err()) == (HOOK, said)
    assert fresh.syslog() == []
    assert fresh.sh("[ -e /var/quarryd ]", check=False).rc == 1


def test_all_lines_of_a_start(fresh):
    """A start says who it is, which users it found, which drive the machine was booted from and
    what drives there are; both script folders are made, the old link of the main partition goes."""
    fresh.sh("ln -s vda1 /mnt/main")
    daemon = fresh.daemon(["--polling"])
    out = fresh.wait_until(lambda: daemon.out() if "Main label" in daemon.out() else None)
    err = daemon.err()
    assert out == HOOK + "Polling mode enabled\nMain part sig: ''\nMain label: ''\n"
    disk = fresh.node("disk")
    lines = err.splitlines()
    assert lines[:7] == ["user nobody:   uid=65534 gid=65534", "user schedule: uid=901 gid=901",
                         "Unknown switch --polling",
                         "My EXE path: /usr/sbin/quarryd",
                         "Configuration file error, check /etc/quarryd.conf. "
                         "Continuing with defaults",
                         "boot drive:     vda", "boot partition: vda1"]
    assert sorted(lines[7:]) == sorted("Device %s just appeared (polling)" % name
                                       for name in ("vda", "vda1", disk))
    assert lines.index("Device vda just appeared (polling)") < lines.index(
        "Device vda1 just appeared (polling)")
    assert fresh.sh("stat -c '%a %F' /var/quarryd /var/quarryd/mount-notify "
                    "/var/quarryd/device-notify").out.splitlines() == [
        "755 directory", "700 directory", "700 directory"]
    assert fresh.sh("readlink /mnt/main", check=False).rc == 1
    [line] = fresh.syslog()
    assert re.fullmatch(r"<30>\w{3} [ \d]\d \d\d:\d\d:\d\d quarryd\[%d\]: "
                        "Quarryd disk tracker starting" % daemon.pid, line)


@pytest.mark.long
def test_second_instance_refused(fresh):
    """A second daemon of the same program ends with status 1 and one sentence, and leaves the
    first one alone."""
    first = fresh.daemon()
    log = fresh.syslog()
    second = fresh.daemon(ready=False)
    assert second.wait(10) == 1
    assert second.err().splitlines()[-3:] == [
        "My EXE path: /usr/sbin/quarryd", "Another instance of myself is running. Quitting",
        "Sorry, quarryd is already running"]
    assert fresh.syslog() == log
    assert first.alive() and fresh.request("list").endswith("OK  eom\n")


@pytest.mark.long
def test_another_program_is_no_instance(fresh):
    """Only the program's own path counts: a copy elsewhere is stopped by the socket it cannot
    bind, and a process that was merely named so does not matter."""
    fresh.background("cp /bin/sleep /run/rig/quarryd; "
                     "exec -a /usr/sbin/quarryd /run/rig/quarryd 1000")
    first = fresh.daemon()
    fresh.sh("cp /usr/sbin/quarryd /usr/local/sbin/quarryd")
    other = fresh.sh("/usr/local/sbin/quarryd", check=False)
    fresh.sh("rm /usr/local/sbin/quarryd")
    assert other.rc == 1
    assert other.err.splitlines()[-2:] == [
        "init_socket() cannot bind socket Address already in use", "Socket initialization failed"]
    assert sum("Quarryd disk tracker starting" in line for line in fresh.syslog()) == 2
    assert first.alive()


@pytest.mark.parametrize("pipe", [False, True], ids=["file", "pipe"])
@pytest.mark.long
def test_lines_show_when_they_happen(fresh, pipe):
    """In a log file and through a pipe, a line of either stream can be read as soon as it has
    happened, not when a buffer is full."""
    daemon = fresh.daemon(pipe=pipe)
    fresh.wait_until(lambda: daemon.out().endswith("Main label: ''\n"), 5)
    mark = len(daemon.err())
    fresh.request("hotplug")
    assert daemon.wait_err("Switching on Hotplug mode\n", timeout=1, since=mark)
    fresh.request("polling")
    assert daemon.wait_err("Switching on Polling mode\n", timeout=1, since=mark)


@pytest.mark.long
def test_users_that_are_missing(fresh):
    """Without the users "nobody" and "schedule" the daemon says so and starts all the same; the
    group of "schedule" reads 0 then."""
    daemon = fresh.daemon(setup="grep -v -e nobody -e schedule /etc/passwd >/run/rig/passwd\n"
                                "mount --bind /run/rig/passwd /etc/passwd")
    assert daemon.err().splitlines()[:4] == [
        "Cannot get credentials for nobody", "user nobody:   uid=-1 gid=-1",
        "Cannot get credentials for schedule", "user schedule: uid=-1 gid=0"]


@pytest.mark.long
def test_last_mode_option_wins(fresh):
    """Of --hotplug and --polling the last one counts, with any number of dashes."""
    for args, mode in ((["--hotplug", "--polling"], "Polling"),
                       (["-polling", "-hotplug"], "Hotplug")):
        daemon = fresh.daemon(args)
        assert daemon.out().startswith(HOOK + mode + " mode enabled\n")
        assert [line for line in daemon.err().splitlines() if line.startswith("Unknown")] == [
            "Unknown switch " + a for a in args]
        assert daemon.stop() == 0


@pytest.mark.long
def test_descriptors_and_environment(fresh):
    """An idle daemon has its three streams, the socket and the system log open, each but the
    streams closed on exec, and nothing grows over listings and polls."""
    daemon = fresh.daemon()
    fresh.request("list")
    time.sleep(1.2)

    def descriptors():
        return sorted(fresh.sh("cd /proc/%d/fd && for n in *; do echo $n $(readlink $n); done"
                               % daemon.pid).out.splitlines())
    before = descriptors()
    for _ in range(5):
        fresh.request("list")
        fresh.request("enumerate")
    time.sleep(1.2)
    assert descriptors() == before
    flags = fresh.sh("cd /proc/%d/fdinfo && grep -H flags *" % daemon.pid).out.splitlines()
    for line in flags:
        number, value = line.split(":")[0], int(line.split()[-1], 8)
        assert int(number) < 3 or value & 0o2000000, line
