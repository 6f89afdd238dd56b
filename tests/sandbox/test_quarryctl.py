"""The command-line client against the daemon, and against somebody who sits in its place."""

import contextlib
import errno
import fcntl
import json
import os
import re
import select
import signal
import struct
import subprocess
import termios
import time

import pytest

from machine import kernel, stand_ins
from machine.clients import wait_until
from machine.machine import SANITIZER, sleep, state_of
from machine.namespaces import QUARRYCTL
from machine.stand_in_server import StandIn, everything, full_queue
from machine.stand_ins import mount_options

MB = 1_000_000
LIMIT = 20
HEAD = (
    "OK- v3 drive list follows "
    "(dev,type,connection,label,capacity,model,place,raid,filesystem)\n"
)
EMPTY_LIST = HEAD + "OK  eom\n"


@pytest.fixture(autouse=True)
def the_program_is_known():
    if not os.environ.get("QUARRYCTL"):
        pytest.fail("QUARRYCTL must name the sanitized build of quarryctl", pytrace=False)


class Run:
    """One run of the client. Its own /proc entry lets the sanitizer look for leaks."""

    def __init__(self, machine, *arguments, user=0, prepare=None, refuse=(), **keys):
        def before():
            machine.show_process(os.getpid())
            if prepare:
                prepare()
            if user:
                os.setresgid(user, user, user)
                os.setresuid(user, user, user)
            if refuse:
                kernel.refuse(refuse)

        environment = {"PATH": "/usr/bin", "TERM": "xterm", "ASAN_OPTIONS": "exitcode=99"}
        environment["ASAN_OPTIONS"] += f":detect_leaks={int(not user)}"
        environment.update(keys.pop("env", {}))
        streams = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **keys}
        self.begin = time.monotonic()
        self.process = subprocess.Popen(
            [QUARRYCTL, *arguments],
            env=environment,
            stdin=keys.get("stdin", subprocess.DEVNULL),
            preexec_fn=before,
            cwd="/",
            **{name: stream for name, stream in streams.items() if name != "stdin"},
        )
        machine.processes.append(self.process)

    def ended(self, limit=LIMIT):
        """(status, stdout, stderr)"""
        out, err = self.process.communicate(timeout=limit)
        self.seconds = time.monotonic() - self.begin
        assert not SANITIZER.search(err or b""), err.decode(errors="replace")
        text = [(stream or b"").decode("utf-8", "surrogateescape") for stream in (out, err)]
        return self.process.returncode, *text


def ctl(machine, *arguments, **keys):
    return Run(machine, *arguments, **keys).ended()


def said(machine, *arguments, **keys):
    """What a run that succeeds prints."""
    status, out, err = ctl(machine, *arguments, **keys)
    assert (status, err) == (0, ""), err
    return out


def complaint(text):
    return f"quarryctl: {text}\n"


def answers(machine, reply, *arguments, **keys):
    """What a run makes of a reply that somebody in the daemon's place gives."""
    server = StandIn()
    run = Run(machine, *arguments, **keys)
    connection, _ = server.request()
    with contextlib.suppress(BrokenPipeError, ConnectionResetError):
        connection.sendall(reply if isinstance(reply, bytes) else reply.encode())
    connection.close()
    server.socket.close()
    return run.ended()


# Listings.


def sample_machine(machine):
    machine.plug("usb", "sdb", 64 * MB, model="Stick")
    machine.part("sdb1", 32 * MB)
    machine.probe_says("sdb1", "MY \u202e\\写", "fat")
    machine.plug("sata", "sda", 512 * MB, model="Disk")
    machine.probe_says("sda", "", "")
    machine.mount_table(["/dev/sdb1 /mnt/sdb1 vfat"])


def test_list_in_all_its_forms(machine):
    """What the daemon lists and where it is mounted: for people, for scripts, for programs."""
    sample_machine(machine)
    machine.start("--hotplug")
    assert said(machine, "list") == (
        "NAME    TYPE        CONNECTION      SIZE  FILESYSTEM  LABEL          MODEL  MOUNTED ON\n"
        "sda     Hard Drive  SATA        512.0 MB                             Disk\n"
        "sdb     Hard Drive  USB          64.0 MB                             Stick\n"
        "  sdb1  Partition                32.0 MB  fat         MY \\u202e\\\\写         /mnt/sdb1\n"
    )
    assert said(machine, "list", "--plain") == (
        "sda\t-\tHard Drive\tSATA\t-\t512000000\tDisk\t-\t-\t-\t-\n"
        "sdb\t-\tHard Drive\tUSB\t-\t64000000\tStick\t-\t-\t-\t-\n"
        "sdb1\tsdb\tPartition\tUSB\tMY \\u202e\\\\写\t32000000\t-\t-\t-\tfat\t/mnt/sdb1\n"
    )
    text = said(machine, "list", "--json")
    assert text.isascii()
    drives = json.loads(text)["blockdevices"]
    assert [drive["name"] for drive in drives] == ["sda", "sdb"]
    assert "children" not in drives[0] and drives[0]["mountpoints"] == []
    assert drives[1]["children"] == [
        {
            "name": "sdb1",
            "path": "/dev/sdb1",
            "type": "part",
            "kind": "Partition",
            "connection": "USB",
            "label": "MY \u202e\\写",
            "size": 32000000,
            "model": None,
            "place": None,
            "raid": None,
            "fstype": "fat",
            "mountpoints": ["/mnt/sdb1"],
        }
    ]


def test_enumerate_in_all_its_forms(machine):
    sample_machine(machine)
    machine.start("--hotplug")
    path = "/sys/block/sdb"
    table = said(machine, "enumerate").splitlines()
    assert table[0] == "USB: USB storage devices"
    assert re.fullmatch(rf"  sdb +Hard Drive +Stick +{path}", table[2])
    assert re.fullmatch(rf"    sdb1 +Partition .*{path}/sdb1", table[3])
    assert table[4:6] == ["", "SATA: Serial ATA devices"]
    plain = said(machine, "enumerate", "--plain").splitlines()
    assert plain[0] == f"sdb\t-\tHard Drive\tUSB\t-\tStick\t-\t{path}"
    [stick, disk] = json.loads(said(machine, "enumerate", "--json"))["blockdevices"]
    assert (stick["sysfs_path"], disk["name"]) == (path, "sda")
    assert stick["children"][0]["label"] == "MY \u202e\\写"


def test_list_of_an_empty_machine(machine):
    machine.start("--hotplug")
    for verb in ("list", "enumerate"):
        assert said(machine, verb, "--plain") == ""
        assert said(machine, verb, "--json") == '{\n  "blockdevices": []\n}\n'
    assert said(machine, "list").startswith("NAME  TYPE  CONNECTION")
    assert said(machine, "enumerate") == ""


def test_list_is_one_request(machine):
    server = StandIn()
    run = Run(machine, "list")
    connection, request = server.request()
    assert request == "list\n"
    connection.sendall(EMPTY_LIST.encode())
    assert everything(connection) == b""
    assert run.ended()[0] == 0
    assert server.nobody_came()


def test_a_long_list_in_pieces(machine):
    """However it arrives, and however long it is."""
    rows = "".join(f"OK- \tsd{i}\tHard Drive\tUSB\tL{i}\t512\tm\t\t\tfat\n" for i in range(5000))
    server = StandIn()
    run = Run(machine, "list", "--plain")
    connection, _ = server.request()
    text = (HEAD + rows + "OK  eom\n").encode()
    for start, end in ((0, 1), (1, 90), (90, 100), (100, 100000), (100000, len(text))):
        connection.sendall(text[start:end])
        sleep(0.03)
    status, out, err = run.ended()
    assert (status, out.count("\n"), err) == (0, 5000, "")


# Verbs.


REQUESTS = [
    (["enumerate"], "enumerate"),
    (["mount", "rw", "sdb1"], "mount rw sdb1"),
    (["mount", "ro", "^my disk"], 'mount ro "^my disk"'),
    (["umount", "/dev/sdb1"], "umount /dev/sdb1"),
    (["umount", "--force", "^DATA"], "mount rudeoff ^DATA"),
    (["eject", "sr0"], "eject sr0"),
    (["retract", "/dev/sr0"], "retract /dev/sr0"),
    (["swapon"], "swapon"),
    (["swapoff"], "swapoff"),
    (["refresh"], "refresh"),
    (["hotplug"], "hotplug"),
    (["polling"], "polling"),
    (["notify", "add", "/block/sdb"], "notify add /block/sdb"),
    (["help"], "help"),
    (["raw", "list", "human"], "list human"),
    (["raw", 'mount  rw "a'], 'mount  rw "a'),
    (["raw", "--", "--odd"], "--odd"),
    (["raw", ""], ""),
]


def test_requests_of_the_verbs(machine):
    """Each verb says its line; a refusal is told on stderr, and stdout stays empty."""
    server = StandIn()
    for arguments, request_line in REQUESTS:
        run = Run(machine, *arguments)
        connection, request = server.request()
        assert request == request_line + "\n"
        connection.sendall(b"ERR not \x1b[31mtoday\n")
        assert run.ended() == (1, "", complaint("not \\x1b[31mtoday"))


def test_short_verbs_with_the_daemon(machine):
    machine.start("--hotplug")
    assert said(machine, "refresh") == "refreshed\n"
    assert said(machine, "notify", "add", "/block/sdb") == "thank you\n"
    assert said(machine, "polling") == "polling mode enabled\n"
    assert said(machine, "hotplug") == "hotplug mode enabled\n"
    assert said(machine, "swapoff") == "swap disabled\n"
    assert said(machine, "swapon") == "swap enabled\n"
    assert ctl(machine, "swapon", user=1000) == (1, "", complaint("auth required"))
    unknown = complaint("device does not exist or is not maintained by this service")
    for verb in ("eject", "retract", "umount"):
        assert ctl(machine, verb, "sr7") == (1, "", unknown)
    text = said(machine, "help").splitlines()
    assert text[0] == "Valid commands are"
    assert text[-1] == "  help - Show this help"


def test_raw_prints_the_reply_as_it_came(machine):
    machine.start("--hotplug")
    assert said(machine, "raw", "list") == EMPTY_LIST
    assert said(machine, "raw", "help") == machine.ask("help")
    assert ctl(machine, "raw", "nonsense") == (1, "", complaint("unknown command"))
    assert ctl(machine, "raw", "") == (1, "", complaint("no command given"))


# Mounting.


def test_mount_prints_the_mount_point(machine):
    """Nothing else on stdout, by name and by label, new or not; then to and fro, and off."""
    stand_ins.exfat_stick(machine, label="MY DATA")
    machine.start("--hotplug")
    assert ctl(machine, "remount", "ro", "sdb1") == (1, "", complaint("sdb1 is not mounted"))
    assert ctl(machine, "remount", "ro", "^NONE") == (1, "", complaint("^NONE is not mounted"))
    assert said(machine, "mount", "rw", "^MY DATA") == "/mnt/sdb1\n"
    again = ctl(machine, "mount", "rw", "/dev/sdb1", user=1000)
    assert again == (0, "/mnt/sdb1\n", complaint("already mounted read/write"))
    to = ctl(machine, "remount", "ro", "sdb1")
    assert to == (0, "/mnt/sdb1\n", complaint("remounted as r/o"))
    assert "ro" in mount_options("/mnt/sdb1")
    back = ctl(machine, "remount", "rw", "^MY DATA")
    assert back == (0, "/mnt/sdb1\n", complaint("remounted as r/w"))
    assert said(machine, "umount", "sdb1") == "unmount succeeded\n"
    assert mount_options("/mnt/sdb1") is None
    assert said(machine, "umount", "sdb1") == "its not mounted anyway\n"
    assert ctl(machine, "mount", "rw", "^NONE") == (1, "", complaint("Label not found"))


def test_force_ends_who_is_in_the_way(machine):
    """Writers for a remount, everybody for an unmount."""
    stand_ins.exfat_stick(machine)
    machine.start("--hotplug")
    assert said(machine, "mount", "rw", "sdb1") == "/mnt/sdb1\n"
    open("/mnt/sdb1/file", "w").close()
    writer = machine.troublemaker("holder", "--write", "/mnt/sdb1/file")
    sitter = machine.troublemaker("holder", "--cwd", "/mnt/sdb1")
    assert ctl(machine, "remount", "ro", "sdb1") == (1, "", complaint("cannot remount"))
    status, out, err = ctl(machine, "remount", "--force", "ro", "sdb1")
    assert (status, out, err) == (0, "/mnt/sdb1\n", complaint("remounted as r/o"))
    wait_until(lambda: writer.poll() is not None)
    assert sitter.poll() is None
    assert ctl(machine, "umount", "sdb1") == (1, "", complaint("unmount failed"))
    assert said(machine, "umount", "--force", "sdb1") == "unmount succeeded\n"
    wait_until(lambda: sitter.poll() is not None)


def test_mount_point_is_where_the_kernel_says(machine):
    """What somebody else has mounted elsewhere is told as it is, odd characters and all."""
    machine.plug("usb", "sdb", MB)
    machine.mount_table(["/dev/sdb /srv/my\\040files\\011 ext4"])
    machine.start("--hotplug")
    note = complaint("already mounted read/write")
    assert ctl(machine, "mount", "rw", "sdb") == (0, "/srv/my files\t\n", note)


@pytest.mark.parametrize(
    "reply, status, out, err",
    [
        ("OK mount succeeded\n\n", 0, "/mnt/sdz9\n", ""),
        ("OK- mount succeded\nOK warning: no\n", 0, "/mnt/sdz9\n", complaint("warning: no")),
        ("OK- mount succeeded\nOK warning: yes\n", 0, "/mnt/sdz9\n", complaint("warning: yes")),
        (
            "OK already mounted read/only\n",
            1,
            "",
            complaint("already mounted read/only")
            + complaint("it is mounted, but nothing here shows where"),
        ),
        ("ERR mount failed\n", 1, "", complaint("mount failed")),
    ],
)
def test_replies_to_mount(machine, reply, status, out, err):
    """A warning is passed on beside the mount point. Without a view of the daemon's mounts the
    client knows where new ones are, and owns up to knowing no others."""
    assert answers(machine, reply, "mount", "rw", "sdz9") == (status, out, err)


# Called in a wrong way.


WRONG = [
    [],
    ["nonsense"],
    ["--nonsense"],
    ["list", "sdb"],
    ["list", "--plain", "--json"],
    ["list", "--force"],
    ["mount"],
    ["mount", "rw"],
    ["mount", "sdb1", "rw"],
    ["mount", "off", "sdb1"],
    ["mount", "rw", "sdb1", "sdb2"],
    ["mount", "rw", "a\nrefresh"],
    ["umount", '"a'],
    ["remount", "rw", "sdb1", "--force"],
    ["notify", "add"],
    ["raw"],
    ["raw", "list\nrefresh"],
    ["--timeout", "soon", "list"],
    ["--timeout", "-1", "list"],
    ["--timeout", "nan", "list"],
    ["--timeout", "inf", "list"],
    ["--timeout"],
    ["watch", "--interval", "0"],
    ["watch", "--interval", "0e1"],
    ["watch", "--interval", "0.09"],
    ["umount", "sda", "\033[31mred"],
    ["mount", "\033[31mred", "sda"],
    ["--timeout", "\033[31mred", "list"],
    ["list", "--\033[31mred"],
    ["\033[31mred"],
    ["list", "refresh"],
]


def test_wrong_usage(machine):
    """Told on stderr, with status 2, before anybody is spoken to."""
    server = StandIn()
    for arguments in WRONG:
        status, out, err = ctl(machine, *arguments)
        assert (arguments, status, out) == (arguments, 2, "")
        assert err and "\033" not in err
    assert server.nobody_came()


def test_help_is_there_without_a_daemon(machine):
    text = said(machine, "--help")
    for verb in re.findall(r"^  (\w+)  ", text.split("Verbs:")[1].split("Exit")[0], re.M):
        assert f"Usage: quarryctl {verb}" in said(machine, verb, "--help")
    assert re.fullmatch(r"quarryctl \d+\.\d+(\.\d+)?\n", said(machine, "--version"))
    assert max(map(len, text.splitlines())) <= 100


# No daemon, or none that can be trusted.


@pytest.mark.parametrize("arguments", [["list"], ["watch"], ["mount", "rw", "sdb1"]], ids=" ".join)
def test_no_daemon(machine, arguments):
    assert ctl(machine, *arguments) == (3, "", complaint("the daemon is not running"))


@pytest.mark.parametrize("user", [0, 1000])
def test_a_server_that_is_not_roots_is_told_nothing(machine, user):
    server = StandIn(1000)
    run = Run(machine, "mount", "rw", "sdb1", user=user)
    assert everything(server.accept()) == b""
    text = "the daemon's socket belongs to user 1000, not to root: not speaking to it"
    assert run.ended() == (3, "", complaint(text))


def test_a_server_whose_user_cannot_be_seen_is_told_nothing(machine):
    server = StandIn()
    run = Run(machine, "list", refuse=[("getsockopt", errno.ENOPROTOOPT)])
    assert everything(server.accept()) == b""
    status, out, err = run.ended()
    assert (status, out) == (3, "")
    assert err.startswith("quarryctl: cannot see whose the daemon's socket is")


CUT_OFF = complaint("the daemon's answer is cut off")
GARBLED = complaint("the daemon's answer cannot be understood")


NO_REPLIES = [
    (b"", complaint("the daemon ended without an answer")),
    (b"O", CUT_OFF),
    (HEAD.encode() + b"OK- \tsdb\t", CUT_OFF),
    (EMPTY_LIST.encode()[:-1], CUT_OFF),
    (b"HTTP/1.1 400 Bad Request\r\n\r\n", GARBLED),
    (b"\x00\xff\n", GARBLED),
    (b"\n", GARBLED),
    (b"OK refreshed\n", GARBLED),
    (b"OK  eom\n", GARBLED),
    (HEAD.encode() + b"OK- \tsdb\tfour\tfields\n" + b"OK  eom\n", GARBLED),
    (HEAD.encode() + b"OK- \ta\tb\tc\td\tmany\tf\tg\th\ti\n" + b"OK  eom\n", GARBLED),
    (HEAD.encode() + b"a label's second line\n" + b"OK  eom\n", GARBLED),
    (HEAD.encode() + b"OK- x" * (4 << 20), GARBLED),
]


def test_a_reply_that_is_none(machine):
    """Cut off, garbled or without an end: an error, whichever form was asked for."""
    for number, (reply, err) in enumerate(NO_REPLIES):
        form = ("--plain", "--json")[number % 2]
        found = answers(machine, reply, "list", form)
        assert (number, *found) == (number, 3, "", err)
    assert answers(machine, EMPTY_LIST, "enumerate") == (3, "", GARBLED)


# In time.


@pytest.mark.parametrize("says", [b"", b"OK", HEAD.encode() + b"OK- "], ids=repr)
def test_a_server_that_never_finishes(machine, says):
    server = StandIn()
    run = Run(machine, "list", "--timeout", "0.7")
    connection, _ = server.request()
    with contextlib.suppress(BrokenPipeError):  # it may have lost patience already
        connection.sendall(says)
    late = complaint("the daemon gave no answer within 0.7 seconds")
    assert run.ended() == (4, "", late)
    assert run.seconds > 0.7


def test_a_server_that_never_accepts(machine):
    server = StandIn()
    assert ctl(machine, "--timeout", "0.3", "refresh")[0] == 4
    assert everything(server.accept()) == b"refresh\n"


def test_a_queue_that_is_full(machine):
    """It is waited for, as long as there is time."""
    server, waiting = full_queue()
    assert ctl(machine, "refresh", "--timeout", "0.3")[0] == 4
    run = Run(machine, "refresh")
    sleep(0.2)
    for _ in waiting:
        server.accept()
    connection, request = server.request()
    assert request == "refresh\n"
    connection.sendall(b"OK refreshed\n")
    assert run.ended() == (0, "refreshed\n", "")


def test_a_slow_answer_is_waited_for(machine):
    """Zero is for ever; stopped and continued in between, it goes on waiting."""
    server = StandIn()
    run = Run(machine, "--timeout", "0", "refresh")
    connection, _ = server.request()
    run.process.send_signal(signal.SIGSTOP)
    sleep(0.2)
    run.process.send_signal(signal.SIGCONT)
    sleep(0.2)
    for piece in (b"O", b"K refre", b"shed\n"):
        connection.sendall(piece)
        sleep(0.05)
    assert run.ended() == (0, "refreshed\n", "")


# Where its output goes.


def test_output_that_cannot_be_written(machine):
    machine.start("--hotplug")
    with open("/dev/full", "wb") as full:
        status, _, err = ctl(machine, "list", stdout=full)
    assert (status, err) == (1, complaint(f"cannot write: {os.strerror(errno.ENOSPC)}"))


@pytest.mark.parametrize("closed", [(1,), (2,), (0, 1, 2)], ids=str)
def test_closed_streams(machine, closed):
    """Nothing that is printed ends up in the socket."""
    server = StandIn()
    run = Run(machine, "list", prepare=lambda: [os.close(fd) for fd in closed])
    connection, request = server.request()
    connection.sendall(EMPTY_LIST.encode())
    assert everything(connection) == b""
    assert (request, run.ended()[0]) == ("list\n", 0 if 1 not in closed else 1)


# On a terminal.


class Terminal:
    """A pseudo terminal and what appears on it."""

    def __init__(self, columns=120, rows=20):
        if not os.path.isdir("/dev/pts"):
            os.mkdir("/dev/pts")
            kernel.mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666")
            os.symlink("pts/ptmx", "/dev/ptmx")
        self.ours, self.theirs = os.openpty()
        self.resize(columns, rows)
        self.text = ""

    def resize(self, columns, rows):
        fcntl.ioctl(self.theirs, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def run(self, machine, *arguments, **keys):
        """The client with this as its terminal, on which Ctrl-C and the like work."""

        def take_over():
            os.setsid()
            fcntl.ioctl(self.theirs, termios.TIOCSCTTY, 0)

        streams = {"stdin": self.theirs, "stdout": self.theirs, "stderr": subprocess.PIPE}
        return Run(machine, *arguments, prepare=take_over, **streams, **keys)

    def read(self):
        """All that has appeared so far."""
        while select.select([self.ours], [], [], 0.05)[0]:
            self.text += os.read(self.ours, 1 << 16).decode("utf-8", "surrogateescape")
        return self.text

    def wait_for(self, text):
        wait_until(lambda: text in self.read(), what=lambda: f"{text!r} in {self.text!r}")

    def shown(self):
        """What has appeared, as text, less escape sequences; and the rest forgotten."""
        text, self.text = re.sub(r"\033\[[?0-9]*[a-zA-Z]", "", self.read()), ""
        return text.replace("\r", "")

    def type(self, keys):
        os.write(self.ours, keys)

    def mode(self):
        return termios.tcgetattr(self.theirs)


ENTERED = "\033[?1049h\033[?25l"  # the other screen, no cursor
LEFT = "\033[?25h\033[?1049l"


def test_colour_is_for_terminals_alone(machine):
    sample_machine(machine)
    machine.start("--hotplug")
    for env, has_colour in (
        ({}, True),
        ({"NO_COLOR": "1"}, False),
        ({"NO_COLOR": ""}, True),
        ({"TERM": "dumb"}, False),
    ):
        terminal = Terminal()
        assert terminal.run(machine, "list", env=env).ended() == (0, "", "")
        text = terminal.read()
        assert "MY \\u202e" in text
        assert (env, "\033[" in text) == (env, has_colour)
    assert "\033" not in said(machine, "list")


def test_table_fits_the_terminal(machine):
    """The terminal's size comes before COLUMNS, which counts where there is none."""
    sample_machine(machine)
    machine.start("--hotplug")
    terminal = Terminal(columns=66)
    assert terminal.run(machine, "list", env={"COLUMNS": "200"}).ended()[0] == 0
    text = terminal.shown()
    assert "…" in text and max(map(len, text.splitlines())) <= 66
    text = said(machine, "list", env={"COLUMNS": "66"})
    assert "…" in text and max(map(len, text.splitlines())) <= 66
    assert "…" not in said(machine, "list", env={"COLUMNS": "many"})


def test_listings_do_the_terminal_no_harm(machine):
    """Whoever is asked, and whatever a drive calls itself."""
    rows = "OK- \tsdb\tA\033[2J\tUSB\t\033[31mx\t1\t\u202e\b\t\t\t\033\n"
    for arguments in (["list"], ["list", "--plain"], ["list", "--json"], ["raw", "list"]):
        server = StandIn()
        terminal = Terminal()
        run = terminal.run(machine, *arguments, env={"NO_COLOR": "1"})
        server.request()[0].sendall((HEAD + rows + "OK  eom\n").encode())
        assert run.ended() == (0, "", "")
        text = terminal.read()
        assert "31mx" in text
        assert re.search("[^\t\r\n -~]", text) is None
        server.socket.close()


def test_raw_and_mount_do_the_terminal_no_harm(machine):
    machine.plug("usb", "sdb", MB)
    machine.mount_table(["/dev/sdb /srv/\\033[2J ext4"])
    machine.start("--hotplug")
    terminal = Terminal()
    assert terminal.run(machine, "raw", "list").ended()[0] == 0
    assert "OK- \tsdb\tHard Drive" in terminal.read()
    assert terminal.run(machine, "mount", "rw", "sdb").ended()[0] == 0
    assert "/srv/\\x1b[2J\r\n" in terminal.read()
    assert "\033" not in terminal.text


def watched(machine, terminal, *arguments, **keys):
    """`watch` on a terminal, with its first picture drawn."""
    run = terminal.run(machine, "watch", "--interval", "0.2", *arguments, **keys)
    terminal.wait_for("q quits")
    assert terminal.text.startswith(ENTERED)
    return run


def test_watch_shows_what_comes_and_goes(machine):
    sample_machine(machine)
    machine.start("--polling")
    terminal = Terminal()
    run = watched(machine, terminal, env={"NO_COLOR": "1"})
    terminal.wait_for("  sda     Hard Drive")
    terminal.wait_for("    sdb1  Partition")
    machine.plug("usb", "sdc", 8 * MB, model="Another")
    terminal.wait_for("+ sdc     Hard Drive")
    machine.unplug("sdb")
    terminal.wait_for("-   sdb1  Partition")
    machine.mount_table(["/dev/sdc /mnt/x vfat"])
    terminal.wait_for("* sdc     Hard Drive")
    terminal.shown()
    terminal.resize(40, 4)
    run.process.send_signal(signal.SIGWINCH)
    terminal.wait_for("…")
    terminal.shown()
    picture = terminal.shown() or wait_until(terminal.shown)
    assert max(map(len, picture.split("\n"))) <= 40
    terminal.type(b"q")
    assert run.ended() == (0, "", "")


@pytest.mark.parametrize(
    "ending",
    [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, b"\x03", b"q"],
    ids=["SIGINT", "SIGTERM", "SIGHUP", "SIGQUIT", "Ctrl-C", "q"],
)
def test_watch_leaves_the_terminal_as_it_was(machine, ending):
    machine.start("--hotplug")
    terminal = Terminal()
    before = terminal.mode()
    run = watched(machine, terminal)
    assert terminal.mode() != before
    if isinstance(ending, bytes):
        terminal.type(ending)
    else:
        run.process.send_signal(ending)
    assert run.ended() == (0, "", "")
    assert terminal.mode() == before
    assert terminal.read().endswith(LEFT)
    assert (terminal.text.count(ENTERED), terminal.text.count(LEFT)) == (1, 1)


def test_watch_ends_while_the_daemon_says_nothing(machine):
    """Ctrl-C is heard in the middle of a request, and the terminal is given back."""
    server = StandIn()
    terminal = Terminal()
    before = terminal.mode()
    run = terminal.run(machine, "watch", "--interval", "0.1")
    connection, _ = server.request()
    connection.sendall(EMPTY_LIST.encode())
    terminal.wait_for("q quits")
    server.request()
    terminal.type(b"\x03")
    assert run.ended() == (0, "", "")
    assert terminal.mode() == before and terminal.read().endswith(LEFT)


def test_watch_gives_the_terminal_back_while_it_is_stopped(machine):
    machine.start("--hotplug")
    terminal = Terminal()
    before = terminal.mode()

    def shell():
        """Keeps the client from being alone in its session, where nobody could continue it."""
        os.setsid()
        fcntl.ioctl(terminal.theirs, termios.TIOCSCTTY, 0)
        if os.fork():
            os.closerange(3, 1024)  # among them the one that tells that the program was started
            while True:
                _, status = os.waitpid(-1, os.WUNTRACED)
                if not os.WIFSTOPPED(status):
                    os._exit(os.waitstatus_to_exitcode(status))
        machine.show_process(os.getpid())
        os.setpgid(0, 0)
        signal.signal(signal.SIGTTOU, signal.SIG_IGN)
        os.tcsetpgrp(terminal.theirs, os.getpid())
        signal.signal(signal.SIGTTOU, signal.SIG_DFL)

    streams = {"stdin": terminal.theirs, "stdout": terminal.theirs}
    run = Run(machine, "watch", "--interval", "0.2", prepare=shell, **streams)
    terminal.wait_for("q quits")
    terminal.type(b"\x1a")
    terminal.wait_for(LEFT)
    wait_until(lambda: terminal.mode() == before)
    client = os.tcgetpgrp(terminal.ours)
    wait_until(lambda: state_of(client) == "T")
    os.kill(client, signal.SIGCONT)
    wait_until(lambda: terminal.read().count(ENTERED) == 2)
    wait_until(lambda: terminal.mode() != before)
    terminal.type(b"q")
    assert run.ended()[0] == 0
    assert terminal.mode() == before


def test_watch_waits_for_a_daemon_that_is_gone(machine):
    machine.start("--polling")
    terminal = Terminal()
    run = watched(machine, terminal)
    machine.stop()
    terminal.wait_for("the daemon is not running; waiting")
    machine.plug("usb", "sdc", 8 * MB)
    machine.start("--polling")
    terminal.wait_for("+ sdc")
    terminal.type(b"q")
    assert run.ended()[0] == 0


def test_watch_without_a_terminal_prints_a_line_for_each_change(machine):
    sample_machine(machine)
    machine.start("--polling")
    reader, writer = os.pipe()
    run = Run(machine, "watch", "--interval", "0.2", stdout=writer)
    os.close(writer)
    with os.fdopen(reader, errors="surrogateescape") as lines:
        def words():
            return lines.readline().rstrip("\n").split("\t")[:3]

        assert [words() for _ in range(3)] == [
            ["present", "sda", "-"],
            ["present", "sdb", "-"],
            ["present", "sdb1", "sdb"],
        ]
        machine.plug("usb", "sdc", 8 * MB)
        assert words() == ["added", "sdc", "-"]
        machine.mount_table(["/dev/sdc /mnt/x vfat"])
        assert words() == ["changed", "sdb1", "sdb"]
        assert words() == ["changed", "sdc", "-"]
        machine.unplug("sdb")
        assert words() == ["removed", "sdb", "-"]
        assert words() == ["removed", "sdb1", "sdb"]
        run.process.send_signal(signal.SIGTERM)
        status, _, err = run.ended()
        assert (status, err, lines.read()) == (0, "", "")


def test_watch_ends_with_its_reader(machine):
    """As in `quarryctl watch | head -n 1`."""
    machine.plug("usb", "sdb", MB)
    machine.start("--polling")
    reader, writer = os.pipe()
    run = Run(machine, "watch", "--interval", "0.1", stdout=writer)
    os.close(writer)
    with os.fdopen(reader) as lines:
        assert lines.readline().startswith("present\tsdb")
    assert run.ended()[0] == 0  # though nothing has changed that could have been written
