"""Somebody who sits on the daemon's socket and does as the case wants."""

import socket

from .clients import ADDRESS, acting_as


class StandIn:
    """A listener in the daemon's place. limit: how long it waits for a client and its words."""

    def __init__(self, user=0, backlog=16, limit=10.0):
        self.limit = limit
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.bind(ADDRESS)
        with acting_as(user):  # whom the kernel notes here is whom a client sees
            self.socket.listen(backlog)
        self.socket.settimeout(limit)

    def accept(self):
        connection = self.socket.accept()[0]
        connection.settimeout(self.limit)
        return connection

    def request(self):
        """(connection, the request that came on it)"""
        connection = self.accept()
        text = b""
        while not text.endswith(b"\n"):
            piece = connection.recv(4096)
            assert piece, f"hung up after {text!r}"
            text += piece
        return connection, text.decode("utf-8", "surrogateescape")

    def nobody_came(self):
        self.socket.settimeout(0)
        try:
            self.socket.accept()
            return False
        except BlockingIOError:
            return True


def everything(connection):
    """All that comes on a connection until its other end closes."""
    text = b""
    while piece := connection.recv(4096):
        text += piece
    return text


def full_queue():
    """A server whose queue is full, and those who fill it."""
    server = StandIn(backlog=1)
    waiting = []
    while True:
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.setblocking(False)
        try:
            client.connect(ADDRESS)
        except BlockingIOError:
            return server, waiting
        waiting.append(client)
