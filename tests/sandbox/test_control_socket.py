"""The control socket: its name, its clients from the polite to the hostile, its framing."""

import errno
import os
import re
import signal
import socket
import subprocess

import pytest

from machine.clients import Client, acting_as, wait_until
from machine.drives import big_machine
from machine.machine import USERS, sleep

UNKNOWN = "ERR unknown command\n"
NOTHING = "ERR no command given\n"
EMPTY_LIST = (
    "OK- v3 drive list follows "
    "(dev,type,connection,label,capacity,model,place,raid,filesystem)\n"
    "OK  eom\n"
)
EMPTY_HUMAN_LIST = (
    "OK- v3 user-friendly drive list follows "
    "(dev,type,connection,label,capacity,model,place,filesystem)\n"
    "OK  eom\n"
)


def socket_count(daemon):
    return sum(name.startswith("socket:") for name in daemon.descriptors().values())


class Frozen:
    """Stops the daemon for a while, so that everything in between arrives at once."""

    def __init__(self, daemon):
        self.daemon = daemon

    def __enter__(self):
        self.daemon.send_signal(signal.SIGSTOP)
        wait_until(lambda: self.daemon.status_field("State") in "tT")

    def __exit__(self, *_exception):
        self.daemon.send_signal(signal.SIGCONT)


# The name.


def test_name_has_eight_bytes_in_the_abstract_namespace(machine):
    machine.start()
    with open("/.proc/net/unix") as file:
        names = [line.split()[-1] for line in file if "quarryd" in line]
    assert names == ["@quarryd"]
    machine.connect().ask("help")
    for other in ("\0quarryd\0", "\0quarry", "\0quarryd".ljust(108, "\0")):
        with pytest.raises(ConnectionRefusedError):
            socket.socket(socket.AF_UNIX).connect(other)


def test_nothing_is_made_in_the_file_system(machine):
    before = set(os.listdir("/")) | set(os.listdir("/run")) | set(os.listdir("/tmp"))
    machine.start()
    machine.ask("help")
    after = set(os.listdir("/")) | set(os.listdir("/run")) | set(os.listdir("/tmp"))
    assert {name for name in after - before if not name.startswith("std")} == set()


def test_name_is_free_again_after_the_end(machine):
    machine.start()
    client = machine.connect()
    client.ask("bogus")
    machine.stop()
    assert client.line() == b""
    with pytest.raises(ConnectionRefusedError):
        machine.connect()


# Lines.


@pytest.mark.parametrize(
    "sent, replies",
    [
        ("list\r\n", [EMPTY_LIST]),
        ("list\r", [EMPTY_LIST]),
        ("list\n\r", [EMPTY_LIST]),
        ("bogus\nlist\n", [UNKNOWN]),
        ("list\nbogus\n", [EMPTY_LIST]),
        ("bogus\rlist\rlist\n", [UNKNOWN]),
        ("\n", [NOTHING]),
        ("\r\n", [NOTHING]),
        ("\n\nlist\n", [NOTHING]),
        ("     \n", [NOTHING]),
        ("\t\n", [UNKNOWN]),
        ("\0\n", [UNKNOWN]),
        ("list\0\n", [UNKNOWN]),
        ("\xff\xfe\n", [UNKNOWN]),
    ],
)
def test_the_first_line_of_one_read_is_the_request(machine, sent, replies):
    """What follows the first line end in the same read is gone, and the next request is heard."""
    machine.start()
    client = machine.connect()
    client.send(sent.encode("latin-1"))
    assert [client.reply() for _ in replies] == replies
    assert client.is_silent()
    assert client.ask("list") == EMPTY_LIST


def test_a_line_feed_that_comes_late_is_a_request_of_its_own(machine):
    """CR LF is one line end only where one read brings both."""
    machine.start()
    client = machine.connect()
    client.send("list\r")
    assert client.reply() == EMPTY_LIST
    client.send("\n")
    assert client.reply() == NOTHING


def test_a_request_may_come_byte_by_byte(machine):
    machine.start()
    client = machine.connect()
    for byte in "list user\n":
        client.send(byte)
        sleep(0.02)
    assert client.reply() == EMPTY_HUMAN_LIST


def test_one_read_takes_1024_bytes(machine):
    """A request that fills a read to its last byte loses nothing of what comes behind it."""
    machine.start()
    client = machine.connect()
    client.send("list".ljust(1023) + "\n" + "list user\n")
    assert client.reply() == EMPTY_LIST
    assert client.reply() == EMPTY_HUMAN_LIST


def test_a_line_end_in_the_middle_of_a_later_read_drops_the_rest(machine):
    daemon = machine.start()
    client = machine.connect()
    with Frozen(daemon):
        client.send("x" * 1500 + "\n" + "list\n")
    assert client.reply() == UNKNOWN
    assert client.is_silent()


@pytest.mark.parametrize("length", [1022, 1023, 1024, 1025, 2048, 100000])
def test_a_long_line_is_one_request(machine, length):
    machine.start()
    client = machine.connect()
    client.send(b"x" * length + b"\n")
    assert client.reply() == UNKNOWN
    assert client.is_silent()
    client.send(b"list" + b" " * length + b"user\n")
    assert client.reply() == EMPTY_HUMAN_LIST


# Words.


@pytest.mark.parametrize(
    "request_line, reply",
    [
        ("list user", EMPTY_HUMAN_LIST),
        ("list human", EMPTY_HUMAN_LIST),
        ("   list    human   ", EMPTY_HUMAN_LIST),
        ('"list" "human"', EMPTY_HUMAN_LIST),
        ('list "human', EMPTY_HUMAN_LIST),  # no closing quote: to the end of the line
        ('"list"human', EMPTY_HUMAN_LIST),  # the word begins right after the closing quote
        ('list ""', EMPTY_LIST),  # an empty word
        ('list "" human', EMPTY_LIST),
        ('list "human "', EMPTY_LIST),  # blanks in quotes stay
        ("list human more words", EMPTY_HUMAN_LIST),
        ("list all", EMPTY_LIST),
        ("list Human", EMPTY_LIST),
        ("list\thuman", UNKNOWN),  # only a blank parts words
        ('"list human"', UNKNOWN),
        ('li"st"', UNKNOWN),  # a quote inside a word is a letter
        ('list"human"', UNKNOWN),
        ('"" list', UNKNOWN),
        ('""', UNKNOWN),
        ('"', UNKNOWN),
        ("LIST", UNKNOWN),
        ("List", UNKNOWN),
        ("lis", UNKNOWN),
        ("listing", UNKNOWN),
    ],
)
def test_words_of_a_request(machine, request_line, reply):
    machine.start()
    assert machine.ask(request_line) == reply


# Many clients.


def test_fifty_clients_and_the_next_one_waits(machine):
    daemon = machine.start()
    base = socket_count(daemon)
    clients = [machine.connect() for _ in range(50)]
    assert [client.ask("list") for client in clients] == [EMPTY_LIST] * 50
    late = machine.connect()
    late.send("list\n")
    assert late.is_silent(0.5)
    assert socket_count(daemon) == base + 50
    assert clients[0].ask("list") == EMPTY_LIST
    clients[20].close()
    assert late.reply() == EMPTY_LIST


def test_everybody_in_the_queue_is_served_in_turn(machine):
    daemon = machine.start()
    base = socket_count(daemon)
    clients = [machine.connect() for _ in range(50)]
    assert clients[-1].ask("list") == EMPTY_LIST
    waiting = [machine.connect() for _ in range(16)]
    for client in waiting:
        client.send("list user\n")
    for client in clients:
        client.close()
    assert [client.reply() for client in waiting] == [EMPTY_HUMAN_LIST] * 16
    wait_until(lambda: socket_count(daemon) == base + 16)


def test_a_queue_that_is_full_turns_nobody_away(machine):
    """Beyond fifty clients and the kernel's queue a connect waits; it is served in the end."""
    machine.start()
    clients = [machine.connect() for _ in range(50)]
    assert clients[-1].ask("list") == EMPTY_LIST
    children = [
        machine.program(
            "/usr/bin/python3",
            "-c",
            "import socket\n"
            "s = socket.socket(socket.AF_UNIX)\n"
            "s.connect('\\0quarryd')\n"
            "s.sendall(b'bogus\\n')\n"
            "print(s.recv(100).decode(), end='')\n",
            stdout=subprocess.PIPE,
            text=True,
            show=False,
        )
        for _ in range(30)
    ]
    sleep(0.5)
    for client in clients:
        client.close()
    assert [child.communicate(timeout=20)[0] for child in children] == [UNKNOWN] * 30


def test_clients_do_not_disturb_one_another(machine):
    machine.start()
    clients = [machine.connect() for _ in range(20)]
    for client in clients:
        client.send("li")
    for client in reversed(clients):
        client.send("st us")
    for number, client in enumerate(clients):
        client.send("er\n" if number % 2 else "er x y\n")
    assert [client.reply() for client in clients] == [EMPTY_HUMAN_LIST] * 20


def test_many_requests_on_one_connection(machine):
    machine.start()
    client = machine.connect()
    for _ in range(100):
        assert client.ask("bogus") == UNKNOWN


def passes(daemon, pattern=r"accept4?\(|recvfrom\(|sendto\("):
    """The traced calls of the daemon, cut into passes: each begins with an accept."""
    lines = [line.split(None, 1)[1] for line in daemon.trace() if re.search(pattern, line)]
    found = []
    for line in lines:
        if line.startswith("accept"):
            found.append([])
        if found:
            found[-1].append(line)
    return found


SOCKET_CALLS = ("-e", "trace=accept,accept4,recvfrom,sendto")


def test_a_new_client_has_a_head_start_of_a_hundred_steps(machine):
    """Four steps serve one request: twenty-five requests that wait are served at once."""
    daemon = machine.start(trace=SOCKET_CALLS)
    nobody = socket_count(daemon)
    machine.pass_of_loop()
    wait_until(lambda: socket_count(daemon) == nobody)
    with Frozen(daemon):
        client = machine.connect()
        client.send(("bogus".ljust(1023) + "\n") * 30)
    assert [client.reply() for _ in range(30)] == [UNKNOWN] * 30
    machine.stop()
    [calls] = [calls for calls in passes(daemon) if sum("unknown" in c for c in calls) > 1]
    assert sum("unknown" in call for call in calls) == 25
    # The hundredth step makes ready for the next request, which is read when all connections are
    # stepped, after the look whether the client is still there.
    look, step = calls[-2:]
    assert "MSG_PEEK" in look
    assert "MSG_PEEK" not in step and step.endswith(" = 1024")


def test_a_request_that_waits_is_answered_in_the_pass_that_accepts_it(machine):
    daemon = machine.start(trace=SOCKET_CALLS)
    with Frozen(daemon):
        client = machine.connect()
        client.send("bogus\n")
    assert client.reply() == UNKNOWN
    machine.stop()
    [calls] = [calls for calls in passes(daemon) if "= -1" not in calls[0]]
    assert any("unknown" in line for line in calls)


def test_one_client_is_accepted_a_pass(machine):
    daemon = machine.start(trace=SOCKET_CALLS)
    with Frozen(daemon):
        clients = [machine.connect() for _ in range(5)]
    for client in clients:
        assert client.ask("bogus") == UNKNOWN
    machine.stop()
    assert all(
        sum(line.startswith("accept") for line in calls) == 1 for calls in passes(daemon)
    )
    taken = [number for number, calls in enumerate(passes(daemon)) if "= -1" not in calls[0]]
    assert len(taken) == 5
    assert taken == list(range(taken[0], taken[0] + 5))


def test_the_connection_below_a_removed_one_is_skipped_for_a_pass(machine):
    """Connections are stepped from the newest to the oldest; after a removal one is left out."""
    daemon = machine.start(trace=("-e", "trace=accept,accept4,recvfrom,sendto,close"))
    clients = []
    for _ in range(4):
        clients.append(machine.connect())
        clients[-1].ask("bogus")
    count = socket_count(daemon)
    sleep(0.2)
    clients[2].close()
    wait_until(lambda: socket_count(daemon) == count - 1)
    sleep(0.1)
    machine.stop()
    taken = []
    for calls in passes(daemon):
        match = re.search(r" = (\d+)$", calls[0])
        if match:
            taken.append(match.group(1))
    assert len(taken) == 4
    for calls in passes(daemon):
        if len(calls) > 1 and any(re.match(rf"recvfrom\({taken[2]}, .* = 0$", c) for c in calls):
            break
    else:
        raise AssertionError("nobody saw the third client leave")
    stepped = []
    for call in calls:
        match = re.match(r"recvfrom\((\d+),", call)
        if match and (not stepped or stepped[-1] != match.group(1)):
            stepped.append(match.group(1))
    assert stepped == [taken[3], taken[2], taken[0]]


def test_who_stands_below_clients_that_come_and_go_waits_for_all_of_them(machine):
    """Each is taken in, answered and removed in one pass, which leaves out the one below: a client
    whose request was there before all of theirs has his reply after them."""
    daemon = machine.start(trace=SOCKET_CALLS)
    nobody = socket_count(daemon)
    early = machine.connect()
    assert early.ask("bogus") == UNKNOWN
    machine.pass_of_loop()  # its head start is over
    wait_until(lambda: socket_count(daemon) == nobody + 1)
    with Frozen(daemon):
        early.send("bogus\n")
        for _ in range(16):
            visitor = machine.connect()
            visitor.send("refresh\n")
            visitor.socket.shutdown(socket.SHUT_WR)
    assert early.reply() == UNKNOWN
    machine.stop()
    replies = [call for calls in passes(daemon) for call in calls if '"OK' in call or '"ERR' in call]
    assert ["refreshed" in reply for reply in replies[-17:]] == [True] * 16 + [False]


# Rights come from the socket.


@pytest.mark.parametrize(
    "user, reply",
    [
        ("root", "OK refreshed\n"),
        ("guest", "ERR you must be root to do that\n"),
        ("schedule", "ERR you must be root to do that\n"),
        ("nobody", "ERR you must be root to do that\n"),
        (12345, "ERR you must be root to do that\n"),
    ],
)
def test_the_user_is_the_one_who_connected(machine, user, reply):
    machine.start()
    assert machine.ask("refresh", user) == reply


@pytest.mark.parametrize(
    "before, after, reply",
    [
        ("root", "guest", "OK refreshed\n"),
        ("guest", "root", "ERR you must be root to do that\n"),
    ],
)
def test_who_becomes_somebody_else_stays_who_connected(machine, before, after, reply):
    """Before he has spoken for the first time, and in a child that inherits the connection."""
    machine.start()
    client = machine.connect(before)
    with acting_as(USERS[after]):
        assert client.ask("refresh") == reply
    child = os.fork()
    if child == 0:
        os.setresgid(*[USERS[after]] * 3)
        os.setresuid(*[USERS[after]] * 3)
        client.send("refresh\n")
        os._exit(0)
    assert client.reply() == reply
    assert os.waitpid(child, 0) == (child, 0)


def test_each_connection_has_its_own_user(machine):
    machine.start()
    root, guest = machine.connect("root"), machine.connect("guest")
    for _ in range(3):
        assert guest.ask("refresh") == "ERR you must be root to do that\n"
        assert root.ask("refresh") == "OK refreshed\n"


def test_a_client_with_a_name_of_its_own_is_served(machine):
    machine.start()
    for name in ("/run/client", "/run/" + "x" * 100, "\0client"):
        client = machine.connect(bind_to=name)
        assert client.ask("list") == EMPTY_LIST


def test_refused_credentials_drop_the_client(machine):
    daemon = machine.start(refuse=[("getsockopt", errno.EPERM)])
    client = machine.connect()
    assert client.line() == b""
    daemon.wait_for("Cannot accept connection: Cannot obtain peer credentials\n")
    wait_until(lambda: socket_count(daemon) == 2)  # the log and the listening socket


# Clients that behave badly. After each, others are served and nothing is left of it.


@pytest.fixture(params=["stalls", "vanishes in its reply"])
def reader(request):
    return request.param


@pytest.mark.seconds(100)
def test_a_client_that_does_not_read(machine, reader):
    """Others are served; when it reads at last it gets all; when it goes nothing is left."""
    big_machine(machine)
    daemon = machine.start("--hotplug")
    base = socket_count(daemon)
    other = machine.connect()
    whole = other.ask("list")
    assert len(whole) > 500000
    slow = machine.connect()
    slow.send("list\n")
    sleep(0.5)
    for _ in range(10):
        assert other.ask("bogus") == UNKNOWN
    if reader == "stalls":
        assert slow.reply() == whole
        assert slow.ask("bogus") == UNKNOWN
    slow.close()
    wait_until(lambda: socket_count(daemon) == base + 1)
    assert other.ask("bogus") == UNKNOWN


def test_a_flood_without_a_line_end(machine):
    """It grows for as long as it comes, others are served, and its memory goes with it."""
    daemon = machine.start(quarantine_mb=0)
    base = socket_count(daemon)
    other = machine.connect()
    other.ask("bogus")
    before = daemon.resident_kib()
    flood = machine.connect()
    for _ in range(64):
        flood.send(b"x" * (1 << 16))
    assert other.ask("bogus") == UNKNOWN
    wait_until(lambda: daemon.resident_kib() > before + 4000, what="4 MB of request")
    flood.close()
    wait_until(lambda: socket_count(daemon) == base + 1)
    assert other.ask("bogus") == UNKNOWN
    wait_until(lambda: daemon.resident_kib() < before + 3000, what="the memory to come back")


def test_a_flood_that_ends_in_a_line_is_a_request(machine):
    machine.start()
    flood = machine.connect(timeout=30)
    flood.send(b"x" * (1 << 20) + b"\n")
    assert flood.reply() == UNKNOWN
    assert flood.ask("list") == EMPTY_LIST


def test_a_million_words(machine):
    machine.start()
    client = machine.connect(timeout=30)
    client.send(b"x " * (1 << 18) + b"\n")
    assert client.reply() == UNKNOWN


def test_a_flood_of_requests_without_reading(machine):
    """The replies fill the socket, the requests behind them wait, and others are served."""
    daemon = machine.start()
    base = socket_count(daemon)
    flood = machine.connect()
    flood.socket.setblocking(False)
    block = ("help".ljust(1023) + "\n").encode()
    sent = 0
    for _ in range(5000):
        try:
            sent += flood.socket.send(block)
        except BlockingIOError:
            sleep(0.001)
    other = machine.connect()
    for _ in range(10):
        assert other.ask("bogus") == UNKNOWN
    assert sent > 100 * 1024
    flood.close()
    wait_until(lambda: socket_count(daemon) == base + 1)


def test_half_closed_after_its_request_it_gets_the_reply(machine):
    """The usual way of one-shot tools: send, shut down writing, read to the end."""
    daemon = machine.start()
    with Frozen(daemon):
        client = machine.connect()
        client.send("list\n")
        client.socket.shutdown(socket.SHUT_WR)
    assert client.reply() == EMPTY_LIST
    assert client.line() == b""


def test_half_closed_after_a_later_request_it_gets_no_reply(machine):
    """Without a head start the end of file is seen before the request is carried out."""
    daemon = machine.start()
    base = socket_count(daemon)
    client = machine.connect()
    client.ask("bogus")
    machine.pass_of_loop()
    wait_until(lambda: socket_count(daemon) == base + 1)
    with Frozen(daemon):
        client.send("list\n")
        client.socket.shutdown(socket.SHUT_WR)
    assert client.line() == b""
    wait_until(lambda: socket_count(daemon) == base)
    assert machine.ask("list") == EMPTY_LIST


@pytest.mark.parametrize("said", [b"", b"li", b"list\n", b"list\nlist\n", b"x" * 5000, b"\n"])
def test_vanishing_clients_leave_nothing(machine, said):
    """They leave before, in the middle of and after a request, read or unread."""
    daemon = machine.start()
    base = socket_count(daemon)
    other = machine.connect()
    for round_number in range(30):
        client = Client()
        if said:
            client.send(said)
        if round_number % 3 == 1:
            sleep(0.06)
        client.close()
        if round_number % 10 == 0:
            assert other.ask("bogus") == UNKNOWN
    assert other.ask("bogus") == UNKNOWN
    wait_until(lambda: socket_count(daemon) == base + 1)


def test_fifty_clients_vanish_at_once(machine):
    daemon = machine.start()
    base = socket_count(daemon)
    clients = [machine.connect() for _ in range(50)]
    for number, client in enumerate(clients):
        client.send("list\n" if number % 2 else "li")
    with Frozen(daemon):
        for client in clients:
            client.close()
    wait_until(lambda: socket_count(daemon) == base)
    assert machine.ask("list") == EMPTY_LIST


def test_a_killed_client_is_like_one_that_vanished(machine):
    daemon = machine.start()
    base = socket_count(daemon)
    client = machine.program(
        "/usr/bin/python3",
        "-c",
        "import socket, time\n"
        "s = socket.socket(socket.AF_UNIX)\n"
        "s.connect('\\0quarryd')\n"
        "s.sendall(b'li')\n"
        "time.sleep(60)\n",
        show=False,
    )
    wait_until(lambda: socket_count(daemon) == base + 1)
    client.kill()
    wait_until(lambda: socket_count(daemon) == base)


def test_a_receive_error_leaves_the_client_where_it_is(machine):
    daemon = machine.start(
        trace=("-e", "trace=recvfrom", "-e", "inject=recvfrom:error=EIO:when=1..3")
    )
    client = machine.connect()
    assert client.ask("list") == EMPTY_LIST
    assert (
        "HandleInput: Error is not EWOULDBLOCK? Input/output error\n" in daemon.stderr()
    )


def test_a_send_error_leaves_the_client_where_it_is(machine):
    """The first send of all is the line for the system log."""
    daemon = machine.start(
        trace=("-e", "trace=sendto", "-e", "inject=sendto:error=EIO:when=2..3")
    )
    client = machine.connect()
    assert client.ask("list") == EMPTY_LIST
    text = "HandleResponse: some other error than EWOULDBLOCK? Input/output error\n"
    assert daemon.stderr().count(text) == 2
    assert client.ask("list") == EMPTY_LIST


def test_a_send_of_no_bytes_ends_the_connection(machine):
    """It means that the client has gone; the first send of all is a line of the log."""
    machine.start(trace=("-e", "trace=sendto", "-e", "inject=sendto:retval=0:when=50"))
    first = machine.connect()
    for _ in range(48):
        assert first.ask("bogus") == UNKNOWN
    first.send("bogus\n")
    assert first.line() == b""
    assert machine.ask("list") == EMPTY_LIST
