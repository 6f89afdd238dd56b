"""A crowd of clients, each of which comes again and again and behaves in one of six ways."""

import array
import bisect
import fcntl
import math
import random
import socket
import struct
import termios
import threading
import time

ADDRESS = "\0quarryd"
LONGEST_HOLD = 0.5  # seconds that a client keeps its place without a request that is under way


class Crowd:
    """Clients that come for some seconds, each at least once and each in its own way; everything
    they do follows from the seed."""

    def __init__(self, size, seed):
        self.size = size
        self.seed = seed
        self.visits = []  # (client, when it knocked, was in the queue, had its reply; its way)
        self.others = 0  # visits that stayed for no reply
        self.made_wait = []  # (from, to): the daemon had no room for the rest of a slow one's reply
        self.wrong = []  # replies that are none, and other surprises
        self.at_the_door = set()  # clients that have knocked and were not answered yet
        self.end = 0.0

    def run(self, seconds, first=0, when_inside=None, when_full=None):
        """first: so many come before the others and say nothing until all are there. when_inside is
        called when they are connected, and when_full when everybody has knocked."""
        begin = threading.Event()
        threads = [
            threading.Thread(target=self._one, args=(i, begin if i < first else None))
            for i in range(self.size)
        ]
        for thread in threads[:first]:
            thread.start()
        if when_inside:
            when_inside()
        self.end = time.monotonic() + seconds
        for thread in threads[first:]:
            thread.start()
        try:
            if when_full:
                when_full()
        finally:
            begin.set()
        self.end = time.monotonic() + seconds
        for thread in threads:
            thread.join(seconds + 120)
        assert not any(thread.is_alive() for thread in threads), "somebody is never answered"

    def _one(self, index, begin):
        chance = random.Random(self.seed * 1000 + index)
        way = WAYS[index % len(WAYS)]
        while True:
            began = time.monotonic()
            self.at_the_door.add(index)
            try:
                with _connected() as peer:
                    inside = time.monotonic()
                    if begin:
                        begin.wait()
                        began = inside = time.monotonic()
                        begin = None
                    reply = way(peer, chance)
            except OSError as problem:
                self.wrong.append(f"{way.__name__}: {problem}")
                return
            self.at_the_door.discard(index)
            if way is reads_slowly:
                reply, waited = reply
                if waited:
                    self.made_wait.append(waited)
            if reply is None:
                self.others += 1
            else:
                self.visits.append((index, began, inside, time.monotonic(), way.__name__))
                if not _is_whole(reply):
                    self.wrong.append(f"{way.__name__}: {reply[:60]!r}...{reply[-60:]!r}")
                    return
            if time.monotonic() > self.end:
                return

    def longest(self):
        """The longest wait of a client that kept nobody waiting itself, in seconds."""
        return max(end - began for _, began, _, end, way in self.visits if way in PATIENT)

    def longest_in_queue(self):
        """The same from the moment on when the kernel had taken it into the queue."""
        return max(end - inside for _, _, inside, end, way in self.visits if way in PATIENT)

    def served_meanwhile(self):
        """How many replies others had while the daemon waited for one slow reader, at most."""
        ends = sorted(end for *_, end, way in self.visits if way in PATIENT)
        served = (bisect.bisect(ends, b) - bisect.bisect(ends, a) for a, b in self.made_wait)
        return max(served, default=0)

    def most_overtaken(self):
        """How often one client came after another and had its reply before it, at most: whole
        visits of the one within the stay of the other. In front of a full queue the kernel
        chooses, and somebody who comes just then may be luckier; that is not counted."""
        most = 0
        by_arrival = sorted((came, answered, other) for other, _, came, answered, _ in self.visits)
        for index, _, began, end, way in self.visits:
            if way not in PATIENT:
                continue
            within = {}
            first = bisect.bisect_right(by_arrival, (began, math.inf))
            last = bisect.bisect_left(by_arrival, (end,))
            for _, answered, other in by_arrival[first:last]:
                if other != index and answered < end:
                    within[other] = within.get(other, 0) + 1
            most = max([most, *within.values()])
        return most


def _connected():
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    # A full queue makes connect(2) wait, as long as it takes.
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", 60, 0))
    peer.connect(ADDRESS)
    return peer


def _is_whole(reply):
    lines = reply.split(b"\n")
    return (
        len(lines) >= 2
        and lines[-1] == b""
        and lines[-2].startswith((b"OK ", b"ERR "))
        and all(line.startswith(b"OK-") for line in lines[:-2])
    )


def _reply(peer, piece=1 << 16, pause=0.0):
    reply = bytearray()
    while not reply.endswith(b"\n") or reply[reply.rfind(b"\n", 0, -1) + 1 :].startswith(b"OK-"):
        got = peer.recv(piece)
        if not got:
            break
        reply += got
        time.sleep(pause)
    return bytes(reply)


def _unread(peer):
    """Bytes that the daemon has sent to it and nobody has read."""
    count = array.array("i", [0])
    fcntl.ioctl(peer, termios.FIONREAD, count)
    return count[0]


# The ways. Each returns the reply, or None when it does not stay for one.


def lists(peer, chance):
    peer.sendall(chance.choice([b"list\n", b"list human\n", b"enumerate\n", b"help\n"]))
    return _reply(peer)


def talks_rubbish(peer, chance):
    rubbish = bytes(b for b in chance.randbytes(chance.randrange(1000)) if b not in b"\r\n")
    peer.sendall(rubbish + b"\n")
    return _reply(peer)


def halves_a_line(peer, chance):
    peer.sendall(b"li")
    time.sleep(chance.uniform(0, LONGEST_HOLD))
    if chance.random() < 0.5:
        return None
    peer.sendall(b"st\n")
    return _reply(peer)


def reads_slowly(peer, chance):
    """The reply, and from when to when the daemon waited for room; None when it had enough. One
    send(2) takes all that there is room for, so what is lacking then has none."""
    peer.sendall(b"list\n")
    peer.recv(1, socket.MSG_PEEK)
    since = time.monotonic()
    time.sleep(chance.uniform(0.1, LONGEST_HOLD))
    sent, until = _unread(peer), time.monotonic()
    reply = _reply(peer, piece=1 << 14, pause=chance.uniform(0, 0.02))
    return reply, (since, until) if sent < len(reply) else None


def vanishes(peer, chance):
    peer.sendall(chance.choice([b"", b"list", b"list\n", b"enumerate\n"]))
    return None


WAYS = [lists, lists, talks_rubbish, halves_a_line, reads_slowly, vanishes]
PATIENT = ["lists", "talks_rubbish"]
