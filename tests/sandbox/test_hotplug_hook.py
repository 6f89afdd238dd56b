"""The system's side of hotplug: the hook, and the program that it and udev run for each event."""

import itertools
import os
import re
import signal
import socket
import subprocess
import time

import pytest

from machine import kernel
from machine.clients import wait_until
from machine.machine import SANITIZER, sleep
from machine.namespaces import HOTPLUG_HOOK, HOTPLUG_NOTICE
from machine.sleeper import sleeper
from machine.stand_in_server import StandIn, everything, full_queue

LIMIT = 2.0  # seconds that an event may be held up, whatever the daemon does
GB = 1 << 30
STICK = "/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host1/target1:0:0/1:0:0:0/block/sdb"
REQUEST = f"notify add {STICK}\n"
TOO_LATE = "hotplug-notice: the daemon takes too long\n"
ODD_PATH = "hotplug-notice: this device path cannot be passed on\n"
NO_PATH = "hotplug-notice: an event without DEVPATH\n"

# Leaks are looked for with the help of /proc, where the made-up machine has no such process.
NO_LEAK_SEARCH = {"ASAN_OPTIONS": "detect_leaks=0:exitcode=99"}

# Ways to run it, each a command: as udev does, and as hotplug scripts do with what they find.
SOURCED = f'set -eu; for f in {HOTPLUG_HOOK}; do . "$f"; done; echo after'
WAYS = {
    "program": [HOTPLUG_NOTICE],
    "hook executed": [HOTPLUG_HOOK, "block"],
    "hook given to sh": ["/bin/sh", HOTPLUG_HOOK, "block"],
    "hook sourced by sh": ["/bin/sh", "-c", SOURCED],
    "hook sourced by dash": ["/bin/dash", "-c", SOURCED],
    "hook sourced by a POSIX bash": ["/bin/bash", "--posix", "-c", SOURCED],
}


@pytest.fixture(autouse=True)
def the_program_is_known():
    if not os.environ.get("HOTPLUG_NOTICE"):
        pytest.fail("HOTPLUG_NOTICE must name the sanitized build of hotplug-notice", pytrace=False)


def event(action="add", path=STICK, **more):
    """The environment of an event, as the kernel makes it."""
    variables = {"ACTION": action, "DEVPATH": path, "SUBSYSTEM": "block", "SEQNUM": "1234"}
    variables.update(more)
    return {name: value for name, value in variables.items() if value is not None}


class Run:
    """One run for one event. ended() waits for its end, which must come within the limit."""

    def __init__(self, environment, way="program", user=0, refuse=(), prepare=None, **streams):
        def before():
            if user:
                os.setresgid(user, user, user)
                os.setresuid(user, user, user)
            if refuse:
                kernel.refuse(refuse)
            if prepare:
                prepare()

        keys = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **streams}
        self.sleeper = sleeper()
        self.begin = time.monotonic()
        self.process = subprocess.Popen(
            WAYS[way],
            env={**NO_LEAK_SEARCH, **environment},
            stdin=subprocess.DEVNULL,
            preexec_fn=before,
            cwd="/",
            **keys,
        )
        self.way = way

    def ended(self):
        """(status, stderr); what a script goes on to say comes after all that was said here."""
        try:
            out, err = self.process.communicate(timeout=20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            raise AssertionError("the event was held up") from None
        end = time.monotonic()
        self.seconds = end - self.begin
        # It did not hold up the event while the whole machine stood still.
        self.awake = self.sleeper.awake(self.begin, end) if self.seconds > 0.5 else self.seconds
        assert self.awake < LIMIT
        assert not SANITIZER.search(err or b""), err.decode()
        expected = b"after\n" if "sourced" in self.way else b""
        assert out in (expected, None)
        return self.process.returncode, (err or b"").decode()


def notice(environment, **keys):
    return Run(environment, **keys).ended()


def notices(daemon):
    return re.findall("^Notify .*", daemon.stderr(), re.M)


# The real daemon.


@pytest.mark.parametrize("way", WAYS)
def test_daemon_hears_of_a_drive_and_its_partition(machine, way):
    """However the events are passed on, the drive and its partition are in the list at once; when
    they have gone, the rescan that the events ask for takes them out."""
    daemon = machine.start("--hotplug")
    machine.pass_of_loop()
    machine.plug("usb", "sdb", 8 * GB)
    machine.part("sdb1", GB)
    assert notice(event(), way=way) == (0, "")
    assert notice(event(path=f"{STICK}/sdb1"), way=way) == (0, "")
    assert notices(daemon) == ["Notify add sdb parent sdb", "Notify add sdb1 parent sdb"]
    assert "Device sdb appeared (hotplug)\n" in daemon.stderr()
    # The rescan that the first event asks for can come before the second event does.
    assert re.search(r"^Device sdb1 (appeared|just appeared) \(", daemon.stderr(), re.M)
    assert "\t\tsdb1\tPartition\tUSB\t" in machine.ask("list")
    machine.unplug("sdb")
    assert notice(event("remove", f"{STICK}/sdb1"), way=way) == (0, "")
    assert notice(event("remove"), way=way) == (0, "")
    assert notices(daemon)[2:] == ["Notify remove sdb1 parent sdb", "Notify remove sdb parent sdb"]
    wait_until(lambda: "Device sdb just disappeared (polling)\n" in daemon.stderr())
    assert "\tsdb" not in machine.ask("list")


@pytest.mark.parametrize("way", WAYS)
def test_nobody_listens(machine, way):
    """Without a daemon an event is over at once: status 0, not a word."""
    for action in ("add", "remove", "change"):
        run = Run(event(action), way=way)
        assert run.ended() == (0, "")
        assert run.awake < 1


@pytest.mark.parametrize("way", WAYS)
def test_daemon_that_polls_is_not_disturbed(machine, way):
    """A daemon that polls wants no notices: status 0, not a word on either side."""
    daemon = machine.start("--polling")
    machine.settle()
    before = daemon.stderr()
    assert notice(event(), way=way) == (0, "")
    assert notice(event("remove"), way=way) == (0, "")
    assert daemon.stderr() == before


def test_daemon_answers_root_alone(machine):
    """Somebody else's notice is refused by the daemon; that is said, with status 1."""
    daemon = machine.start("--hotplug")
    assert notice(event(), user=1000) == (1, "hotplug-notice: ERR authorization required\n")
    assert notices(daemon) == []


@pytest.mark.seconds(90)
def test_burst_of_events(machine):
    """Sixty events at once are more than the daemon takes in before they give up: those that it
    does not hear of say so, and the list agrees with /sys/block after the rescan all the same."""
    daemon = machine.start("--hotplug")
    machine.pass_of_loop()
    names = [f"sd{letter}" for letter in "bcdefghijklmnopqrstu"]
    for name in names:
        machine.plug("usb", name, GB)
        machine.part(f"{name}1", GB)
    machine.unplug("sdu")
    paths = [f"/block/{n}" for n in names] + [f"/block/{n}/{n}1" for n in names]
    paths += ["/block/sdu", "/block/sdu/sdu1"] * 10
    actions = ["add"] * 40 + ["remove"] * 20
    runs = [Run(event(a, p)) for a, p in zip(actions, paths)]
    outcomes = []
    for run in runs:  # sixty sanitized programs start too slowly for a limit on each
        words = run.process.communicate(timeout=20)[1].decode()
        outcomes.append((run.process.returncode, words))
    assert set(outcomes) <= {(0, ""), (1, TOO_LATE)}
    assert len(notices(daemon)) >= outcomes.count((0, "")) > 0

    def listed():
        return sorted(re.findall(r"^OK- \t+(sd\w+)\t", machine.ask("list"), re.M))

    wait_until(lambda: listed() == sorted(names[:-1] + [f"{n}1" for n in names[:-1]]), 5)
    assert daemon.is_running()


# What is passed on.


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize(
    "action", ["change", "move", "online", "offline", "bind", "unbind", "", None, "ADD", " add"]
)
def test_other_events_are_kept_from_the_daemon(machine, action, way):
    """Nothing but "add" and "remove" gets as far as the socket: above all not "change", which the
    daemon's own look at a drive can bring about."""
    server = StandIn()
    assert notice(event(action), way=way) == (0, "")
    assert server.nobody_came()


@pytest.mark.parametrize(
    "path",
    [
        "/devices/a b/block/sdb",
        "/devices/tab\there/block/sdb",
        "/devices/it's $(touch /run/here) `x` *;&|<>\\n/block/sdb",
        '/devices/5"/block/sdb',
        "/devices/\udcff\udcfe/block/sdb",
        "/devices/%s%n/block/sdb",
        "-n",
        "sdb",
        "/devices/" + "long/" * 5000 + "sdb",
    ],
    ids=["blank", "tab", "shell", "quote", "bytes", "format", "switch", "no slash", "long"],
)
@pytest.mark.parametrize("way", ["program", "hook executed", "hook sourced by sh"])
def test_odd_paths_arrive_as_they_are(machine, path, way):
    """A device path is passed on byte by byte, whatever is in it; between quotes when it has a
    blank, which would end the word."""
    server = StandIn()
    run = Run(event(path=path), way=way)
    connection, request = server.request()
    connection.send(b"OK thank you\n")
    assert run.ended() == (0, "")
    word = f'"{path}"' if " " in path else path
    assert request == f"notify add {word}\n"
    assert not os.path.exists("/run/here")


def test_path_with_a_blank_reaches_the_registry(machine):
    daemon = machine.start("--hotplug")
    machine.plug("usb", "sdb", GB)
    assert notice(event(path="/devices/a stick/block/sdb")) == (0, "")
    assert notices(daemon) == ["Notify add sdb parent sdb"]


@pytest.mark.parametrize(
    "path, words",
    [
        ('"/block/sdb', ODD_PATH),
        ('/devices/5" disk/block/sdb', ODD_PATH),
        ("/block/sdb\n", ODD_PATH),
        ("/block/sdb\nnotify add /block/sdc", ODD_PATH),
        ("/block/sdb\r", ODD_PATH),
        ("", NO_PATH),
        (None, NO_PATH),
    ],
    ids=["quote in front", "quote and blank", "line end", "second request", "carriage return", "empty", "missing"],
)
def test_paths_that_are_no_words(machine, path, words):
    """What would not be one word of one request is refused before anybody is spoken to; the hook
    hides the status from whoever runs it."""
    server = StandIn()
    assert notice(event(path=path)) == (1, words)
    assert notice(event(path=path), way="hook executed") == (0, words)
    assert notice(event(path=path), way="hook sourced by sh") == (0, words)
    assert server.nobody_came()


@pytest.mark.parametrize("way", WAYS)
def test_no_environment_at_all(machine, way):
    server = StandIn()
    done = subprocess.run(
        WAYS[way],
        env={},
        capture_output=True,
        timeout=LIMIT,
        preexec_fn=lambda: machine.show_process(os.getpid()),
    )
    assert (done.returncode, done.stderr) == (0, b"")
    assert server.nobody_came()


def test_arguments_are_refused(machine):
    """It takes its orders from the environment alone."""
    server = StandIn()
    done = subprocess.run(
        [HOTPLUG_NOTICE, "add"],
        env={**NO_LEAK_SEARCH, **event()},
        capture_output=True,
        timeout=LIMIT,
    )
    assert done.returncode == 2
    assert done.stderr == b"usage: ACTION=add|remove DEVPATH=/devices/... hotplug-notice\n"
    assert server.nobody_came()


def test_hook_outlives_its_program(machine):
    """A hook that is left behind when the program is gone does no harm."""
    kernel.umount(HOTPLUG_NOTICE)
    os.unlink(HOTPLUG_NOTICE)
    for way in WAYS:
        if way != "program":
            assert notice(event(), way=way) == (0, "")


# Names that the daemon does not take apart, for it has nothing but the name to go by.

PCI = "/devices/pci0000:00/0000:00:1d.0"
VIRTUAL = "/devices/virtual/block"


@pytest.mark.parametrize(
    "path, word",
    [
        (f"{PCI}/block/sda", "add"),
        (f"{PCI}/block/sda/sda12", "add"),
        (f"{PCI}/block/sr0", "add"),
        (f"{PCI}/block/vda/vda1", "add"),
        (f"{PCI}/mmc0/mmc0:4567/block/mmcblk0", "add"),
        (f"{PCI}/mmc0/mmc0:4567/block/mmcblk0/mmcblk0p1", "add"),
        (f"{VIRTUAL}/md127", "add"),
        ("/block/sdb/sdb1", "add"),
        ("/block/hdc", "add"),
        ("/sdb", "add"),
        (f"{PCI}/nvme/nvme0/nvme0n1", "rescan"),
        (f"{PCI}/nvme/nvme0/nvme0n1/nvme0n1p1", "rescan"),
        (f"{PCI}/mmc0/mmc0:4567/block/mmcblk0/mmcblk0boot0", "rescan"),
        (f"{VIRTUAL}/dm-0", "rescan"),
        (f"{VIRTUAL}/md127/md127p1", "rescan"),
        (f"{VIRTUAL}/zram0", "rescan"),
        (f"{VIRTUAL}/nbd0/nbd0p1", "rescan"),
        ("/block/dm-3", "rescan"),
    ],
)
def test_names_that_would_be_misread(machine, path, word):
    """"add" is passed on only where the name alone tells the daemon what its place in /sys says;
    otherwise a rescan is asked for, which reads that place itself. "remove" is the same for all."""
    server = StandIn()
    for action, passed_on in (("add", word), ("remove", "remove")):
        run = Run(event(action, path))
        connection, request = server.request()
        connection.send(b"OK thank you\n")
        assert request == f"notify {passed_on} {path}\n"
        assert run.ended() == (0, "")


@pytest.mark.parametrize("name", ["loop0", "loop12", "loop0/loop0p1", "ram0", "ram15"])
@pytest.mark.parametrize("action", ["add", "remove"])
def test_loop_and_memory_disks_are_not_told(machine, name, action):
    server = StandIn()
    assert notice(event(action, f"{VIRTUAL}/{name}")) == (0, "")
    assert server.nobody_came()


def test_what_is_on_a_loop_device_stays(machine):
    """A rescan does not list loop devices and would take one that was told for one that has gone:
    unmount what is on it, and end who works there. Its events do no such thing."""
    machine.real_mounts()
    machine.plug("other", "loop0", GB)
    machine.mount_tmpfs("loop0", "/mnt/image")
    worker = machine.program("/bin/sleep", "100", cwd="/mnt/image")
    daemon = machine.start("--hotplug")
    machine.pass_of_loop()
    machine.plug("usb", "sdb", GB)
    for path in (f"{VIRTUAL}/loop0", STICK):
        assert notice(event(path=path)) == (0, "")
    sleep(2.5)
    assert worker.poll() is None and os.path.ismount("/mnt/image")
    assert "loop0" not in daemon.stderr() and "Device sdb appeared (hotplug)" in daemon.stderr()


@pytest.mark.parametrize(
    "kind, path",
    [("dm", f"{VIRTUAL}/dm-0"), ("nvme", f"{PCI}/nvme/nvme0/nvme0n1")],
)
def test_drive_that_is_mounted_at_once_stays(machine, kind, path):
    """A volume is often opened and mounted in one breath. The notice of it does not lead to a
    record of another kind, which the rescan would put out of use with all that is on it."""
    machine.real_mounts()
    daemon = machine.start("--hotplug")
    machine.pass_of_loop()
    name = os.path.basename(path)
    machine.plug(kind, name, GB)
    machine.mount_tmpfs(name, "/mnt/vault")
    worker = machine.program("/bin/sleep", "100", cwd="/mnt/vault")
    assert notice(event(path=path)) == (0, "")
    wait_until(lambda: f"Device {name} just appeared (polling)\n" in daemon.stderr())
    machine.settle()
    assert worker.poll() is None and os.path.ismount("/mnt/vault")
    assert re.findall("^Device .*", daemon.stderr(), re.M) == [
        f"Device {name} just appeared (polling)"
    ]


# Whom it speaks to.


NOT_ROOTS = (1, "hotplug-notice: the daemon's socket is not root's\n")


@pytest.mark.parametrize("user", [1000, 500, 65534])
def test_socket_that_is_not_roots(machine, user):
    """Anybody may take the name of the socket; who is not root is told nothing at all."""
    server = StandIn(user)
    run = Run(event())
    connection = server.accept()
    assert everything(connection) == b""
    assert run.ended() == NOT_ROOTS


@pytest.mark.parametrize("closed", [(2,), (0, 1, 2), (1, 2), (0, 2)], ids=str)
def test_complaint_never_gets_into_the_socket(machine, closed):
    """A descriptor of a stream that was closed is not taken for the socket: what is complained
    about does not end up with the stranger."""
    server = StandIn(1000)
    run = Run(event(), prepare=lambda: [os.close(fd) for fd in closed])
    connection = server.accept()
    assert everything(connection) == b""
    assert run.ended()[0] == 1


def test_peer_that_cannot_be_told(machine):
    """When the kernel does not say whose the socket is, nothing is sent."""
    server = StandIn()
    run = Run(event(), refuse=[("getsockopt", 92)])
    connection = server.accept()
    assert everything(connection) == b""
    assert run.ended() == NOT_ROOTS


def test_no_socket_to_be_had(machine):
    machine.start("--hotplug")
    assert notice(event(), refuse=[("socket", 24)]) == (
        1,
        "hotplug-notice: Too many open files\n",
    )


# Servers that do not do as the daemon does.


@pytest.mark.parametrize(
    "reply, status, words",
    [
        ("OK thank you\n", 0, ""),
        ("OK\n", 0, ""),
        ("ERR hotplug mode not enabled\n", 0, ""),
        ("ERR authorization required\n", 1, "hotplug-notice: ERR authorization required\n"),
        ("ERR invalid device string\n", 1, "hotplug-notice: ERR invalid device string\n"),
        ("ERR unknown command\n", 1, "hotplug-notice: ERR unknown command\n"),
        ("\n", 1, "hotplug-notice: \n"),
        ("OK thank you\nand more\n", 0, ""),
    ],
)
def test_replies(machine, reply, status, words):
    """The reply decides about the status: what is an error is said, but for a daemon that polls."""
    server = StandIn()
    run = Run(event())
    connection, request = server.request()
    assert request == REQUEST
    connection.send(reply.encode())
    assert run.ended() == (status, words)


def test_reply_in_pieces(machine):
    server = StandIn()
    run = Run(event())
    connection, _ = server.request()
    for piece in ("O", "K thank", " you", "\n"):
        connection.send(piece.encode())
        sleep(0.1)
    assert run.ended() == (0, "")


def test_server_that_never_answers(machine):
    """A daemon that is busy is waited for, but not for long."""
    server = StandIn()
    run = Run(event())
    _connection, request = server.request()
    assert request == REQUEST
    assert run.ended() == (1, TOO_LATE)
    assert run.seconds > 1


def test_server_that_never_accepts(machine):
    """One that is in the queue has said what there is to say: it waits, and goes."""
    server = StandIn()
    run = Run(event())
    assert run.ended() == (1, TOO_LATE)
    assert everything(server.accept()) == REQUEST.encode()


def test_full_queue(machine):
    """A queue that stays full is given up."""
    _server, waiting = full_queue()
    run = Run(event())
    assert run.ended() == (1, TOO_LATE)
    assert run.seconds > 1 and waiting


def test_queue_that_gets_shorter(machine):
    """A queue that is full for a while is waited for."""
    server, waiting = full_queue()
    run = Run(event())
    sleep(0.5)
    for _ in waiting:
        server.accept()
    connection, request = server.request()
    connection.send(b"OK thank you\n")
    assert request == REQUEST
    assert run.ended() == (0, "")


@pytest.mark.parametrize("ending", ["close", "reset"])
@pytest.mark.parametrize("words", [b"", b"OK thank"], ids=["nothing", "half a line"])
def test_server_that_hangs_up(machine, words, ending):
    """A connection that ends before the line does is no answer; it is not waited for."""
    server = StandIn()
    run = Run(event())
    if ending == "close":
        connection, _ = server.request()
    else:
        connection = server.accept()  # closed with the request unread, which the kernel tells
        wait_until(lambda: connection.recv(1, socket.MSG_PEEK))
    connection.send(words)
    connection.close()
    status, said = run.ended()
    assert status == 1
    assert re.fullmatch("hotplug-notice: the daemon does not answer\n", said)
    assert run.awake < 1


def test_half_a_line(machine):
    server = StandIn()
    run = Run(event())
    connection, _ = server.request()
    connection.send(b"OK thank you")
    assert run.ended() == (1, TOO_LATE)


@pytest.mark.parametrize("ends", [False, True], ids=["without an end", "a line in the end"])
def test_flood(machine, ends):
    """Megabytes instead of a line are not collected."""
    server = StandIn()
    run = Run(event())
    connection, _ = server.request()
    try:
        for _ in range(200):
            connection.sendall(b"OK" * 32768)
        connection.sendall(b"\n" if ends else b"")
    except (BrokenPipeError, ConnectionResetError):
        pass
    assert run.ended() == (1, "hotplug-notice: the daemon does not answer\n")


def test_trickle(machine):
    """A byte now and then does not keep it any longer."""
    server = StandIn()
    run = Run(event())
    connection, _ = server.request()
    while run.process.poll() is None and time.monotonic() < run.begin + LIMIT:
        try:
            connection.send(b"O")
        except BrokenPipeError:
            break
        sleep(0.001)
    assert run.ended() == (1, TOO_LATE)


# Where it is run from.


@pytest.mark.parametrize(
    "closed",
    [c for n in (1, 2, 3) for c in itertools.combinations((0, 1, 2), n)],
    ids=str,
)
def test_closed_streams(machine, closed):
    """Without some of its streams it says the same to the daemon."""
    server = StandIn()
    run = Run(event(), prepare=lambda: [os.close(fd) for fd in closed])
    connection, request = server.request()
    connection.send(b"ERR no\n")
    assert request == REQUEST
    assert everything(connection) == b""
    assert run.ended()[0] == 1


def test_stderr_that_nobody_reads(machine):
    """A complaint into a pipe without a reader does not end it by a signal."""
    server = StandIn()
    reader, writer = os.pipe()
    os.close(reader)
    run = Run(event(), stderr=writer)
    connection, _ = server.request()
    connection.send(b"ERR no\n")
    assert run.ended()[0] == 1


def test_stderr_that_is_full(machine):
    """A complaint into a pipe that nobody empties does not hold up the event: it ends by its own
    alarm, even where that was ignored and blocked before."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    try:
        while True:
            os.write(writer, b"x" * 4096)
    except BlockingIOError:
        pass
    os.set_blocking(writer, True)

    def without_alarms():
        signal.signal(signal.SIGALRM, signal.SIG_IGN)
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGALRM])

    server = StandIn(1000)
    for prepare in (None, without_alarms):
        run = Run(event(), stderr=writer, prepare=prepare)
        connection = server.accept()
        assert run.ended()[0] == -signal.SIGALRM
        assert everything(connection) == b""
    os.close(reader)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGALRM])
def test_signals_end_it(machine, number):
    server = StandIn()
    run = Run(event())
    _connection, _ = server.request()
    run.process.send_signal(number)
    status, _words = run.ended()
    assert status == -number and run.awake < 1


def test_stopped_for_a_while(machine):
    """It takes up its waiting where a stop interrupted it."""
    server = StandIn()
    run = Run(event())
    connection, _ = server.request()
    run.process.send_signal(signal.SIGSTOP)
    sleep(0.2)
    run.process.send_signal(signal.SIGCONT)
    sleep(0.2)
    connection.send(b"OK thank you\n")
    assert run.ended() == (0, "")


def test_no_descriptor_and_nothing_else_left_over(machine):
    """It starts nothing and opens nothing but its one socket."""
    machine.start("--hotplug")
    log = "/run/notice.trace"
    command = ["/usr/bin/strace", "-f", "-o", log, "-e", "trace=%process,socket,openat"]
    done = subprocess.run(
        [*command, HOTPLUG_NOTICE],
        env={**NO_LEAK_SEARCH, **event()},
        capture_output=True,
        timeout=10,
    )
    assert (done.returncode, done.stderr) == (0, b"")
    with open(log) as file:
        calls = [line.split(None, 1)[1] for line in file]
    assert not [c for c in calls if re.match("fork|vfork|clone", c)]
    sockets = [c for c in calls if c.startswith("socket(")]
    assert len(sockets) == 1 and "SOCK_CLOEXEC" in sockets[0]
