"""A crowd of clients, each of which comes again and again and behaves in one of six ways."""

import random
import socket
import struct
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
        self.visits = []  # (client, when it knocked, had its place in the queue, its reply; its way)
        self.others = 0  # visits that stayed for no reply
        self.wrong = []  # replies that are none, and other surprises
        self.end = 0.0

    def run(self, seconds):
        self.end = time.monotonic() + seconds
        threads = [threading.Thread(target=self._one, args=(i,)) for i in range(self.size)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(seconds + 120)
        assert not any(thread.is_alive() for thread in threads), "somebody is never answered"

    def _one(self, index):
        chance = random.Random(self.seed * 1000 + index)
        way = WAYS[index % len(WAYS)]
        while True:
            began = time.monotonic()
            try:
                with _connected(way) as peer:
                    inside = time.monotonic()
                    reply = way(peer, chance)
            except OSError as problem:
                self.wrong.append(f"{way.__name__}: {problem}")
                return
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

    def most_overtaken(self):
        """How often one client came after another and had its reply before it, at most: whole visits
        of the one within the stay of the other. In front of a full queue it is the kernel that
        chooses, and somebody who comes just then may be luckier; that is not counted."""
        most = 0
        for index, _, began, end, way in self.visits:
            if way not in PATIENT:
                continue
            within = {}
            for other, _, came, answered, _ in self.visits:
                if other != index and began < came and answered < end:
                    within[other] = within.get(other, 0) + 1
            most = max([most, *within.values()])
        return most


def _connected(way):
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    # A full queue makes connect(2) wait, as long as it takes.
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", 60, 0))
    if way is reads_slowly:
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
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
    reply = b""
    while not reply.endswith(b"\n") or reply.split(b"\n")[-2].startswith(b"OK-"):
        got = peer.recv(piece)
        if not got:
            break
        reply += got
        time.sleep(pause)
    return reply


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
    peer.sendall(b"list\n")
    return _reply(peer, piece=512, pause=chance.uniform(0, 0.02))


def vanishes(peer, chance):
    peer.sendall(chance.choice([b"", b"list", b"list\n", b"enumerate\n"]))
    return None


WAYS = [lists, lists, talks_rubbish, halves_a_line, reads_slowly, vanishes]
PATIENT = ["lists", "talks_rubbish"]
