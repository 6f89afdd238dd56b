"""Orderly ends, and what runs at the start and at the end."""
import re
import signal
import time

import pytest

from rig import Disk

DISKS = [Disk("sata", 32 << 20, id="disk")]

# Appends a line for each run: arguments, and the descriptors it was given beyond its script's.
SCRIPT = """#!/bin/bash
{ echo "$0 $# $*"; for n in /proc/$$/fd/*; do case $(readlink $n) in *socket*|*/mnt*|/dev/sd*|/sys*)
    echo "leaked $(readlink $n)";; esac; done; } >>/run/rig/ran
"""


@pytest.mark.parametrize("name", ["SIGTERM", "SIGINT", "SIGQUIT"])
def test_signals_end_it_in_order(fresh, name):
    """SIGTERM, SIGINT and SIGQUIT end the daemon with status 0: the stop script has run, its
    socket is gone, the link of the main partition too, and the system log has both lines."""
    fresh.put("/run/rig/stop", SCRIPT, 0o755)
    fresh.sh("rm -f /run/rig/ran")
    daemon = fresh.daemon(conf="shutdown script = /run/rig/stop\n")
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    time.sleep(0.5)
    fresh.sh("ln -s nowhere /mnt/main")
    began = time.monotonic()
    daemon.signal(getattr(signal, name))
    assert daemon.wait() == 0
    assert time.monotonic() - began < 20
    assert fresh.text("/run/rig/ran") == "/run/rig/stop 1 -shutdown\n"
    assert [line.split("]: ")[1] for line in fresh.syslog()] == [
        "Quarryd disk tracker starting", "Quarryd disk tracker terminating"]
    assert fresh.sh("readlink /mnt/main", check=False).rc == 1
    assert "BUG" not in daemon.err()
    with pytest.raises(ConnectionRefusedError):
        fresh.request("list")


@pytest.mark.long
def test_other_signals_do_not_end_it_in_order(fresh):
    """SIGHUP has its ordinary effect: there is no reload, and no orderly end by it."""
    daemon = fresh.daemon()
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    daemon.signal(signal.SIGHUP)
    assert daemon.wait(10) == -signal.SIGHUP
    assert len(fresh.syslog()) == 1


@pytest.mark.long
def test_signal_while_clients_are_connected(fresh):
    """Connected clients do not hold up the end; they see the connection close."""
    daemon = fresh.daemon()
    with fresh.connect() as idle, fresh.connect() as half:
        half.send("li")
        time.sleep(0.5)                    # what nobody has read would be answered with a reset
        assert daemon.stop(10) == 0
        assert idle.recv(5) == b"" and half.recv(5) == b""


def test_start_script(fresh):
    """The start script runs once, with -startup, beside the daemon, without any descriptor of
    the daemon's; its end is reported."""
    fresh.put("/run/rig/start", SCRIPT + "until [ -e /run/rig/go ]; do sleep 0.1; done\n", 0o755)
    fresh.sh("rm -f /run/rig/ran")
    daemon = fresh.daemon(conf="startup script = /run/rig/start\n")
    fresh.wait_until(lambda: fresh.sh("cat /run/rig/ran", check=False).out, 30)
    assert fresh.request("list").endswith("OK  eom\n")       # the loop goes on meanwhile
    assert " died\n" not in daemon.err()
    fresh.put("/run/rig/go", "")
    daemon.wait_err(" died\n")
    assert len(re.findall(r"^Process \d+ died$", daemon.err(), re.M)) == 1
    time.sleep(1)
    assert fresh.text("/run/rig/ran") == "/run/rig/start 1 -startup\n"


@pytest.mark.long
def test_script_without_execute_bits(fresh):
    """Scripts that are missing, no regular file or not executable are passed over in silence."""
    for path, mode in (("/run/rig/plain", 0o644), ("/run/rig/folder/x", 0o755)):
        fresh.put(path, SCRIPT, mode)
    fresh.sh("rm -f /run/rig/ran")
    for path in ("/run/rig/plain", "/run/rig/folder", "/run/rig/missing"):
        daemon = fresh.daemon(conf="startup script = %s\nshutdown script = %s\n" % (path, path))
        daemon.wait_err("Device vda1 just appeared (polling)\n")
        time.sleep(0.3)
        assert daemon.stop(10) == 0
        assert path not in daemon.err() and "died" not in daemon.err()
    assert fresh.sh("[ -e /run/rig/ran ]", check=False).rc == 1


@pytest.mark.long
def test_start_script_ends_after_thirty_seconds(fresh):
    """A start script that hangs is ended by its alarm after 30 seconds, while the daemon serves
    its clients."""
    fresh.put("/run/rig/start", "#!/bin/bash\necho $$ >/run/rig/pid\nexec sleep 1000\n", 0o755)
    fresh.sh("rm -f /run/rig/pid")
    daemon = fresh.daemon(conf="startup script = /run/rig/start\n")
    pid = fresh.wait_until(lambda: fresh.sh("cat /run/rig/pid", check=False).out, 5).strip()
    began = time.monotonic()
    time.sleep(25)
    assert fresh.sh("[ -e /proc/%s ]" % pid, check=False).rc == 0
    assert fresh.request("list", timeout=1).endswith("OK  eom\n")
    daemon.wait_err("Process %s died\n" % pid, timeout=10)
    assert 27 < time.monotonic() - began < 36


@pytest.mark.long
def test_stop_script_ends_after_five_seconds(fresh):
    """A stop script that hangs is waited for, and ended by its alarm after 5 seconds."""
    fresh.put("/run/rig/stop", "#!/bin/bash\nexec sleep 1000\n", 0o755)
    daemon = fresh.daemon(conf="shutdown script = /run/rig/stop\n")
    daemon.wait_err("Device vda1 just appeared (polling)\n")
    time.sleep(0.5)
    began = time.monotonic()
    assert daemon.stop(15) == 0
    assert 4.5 < time.monotonic() - began < 12


@pytest.mark.long
def test_restart_while_old_start_script_runs(fresh):
    """After SIGKILL a new daemon finds the socket's name free at once, though the start script of
    the old one is still running: nothing of the daemon's was left open in it."""
    fresh.put("/run/rig/start", "#!/bin/bash\necho $$ >>/run/rig/pids\nexec sleep 20\n", 0o755)
    fresh.sh("rm -f /run/rig/pids")
    conf = "startup script = /run/rig/start\n"
    old = fresh.daemon(conf=conf)
    script = fresh.wait_until(lambda: fresh.sh("cat /run/rig/pids", check=False).out, 5).strip()
    with fresh.connect() as client:
        client.send("half a requ")
        time.sleep(0.2)
        old.signal(signal.SIGKILL)
        old.wait(5)
        new = fresh.daemon(conf=conf)
        assert fresh.request("list").endswith("OK  eom\n")
        assert new.alive() and "already running" not in new.err()
    names = fresh.sh("for n in /proc/%s/fd/*; do readlink $n; done" % script).out.splitlines()
    assert names[0] == "/dev/null" and len(names) <= 3, names
    assert fresh.sh("readlink /proc/%s/exe" % script).out.strip().endswith("/sleep")
