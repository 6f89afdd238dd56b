"""Clients of the control socket, as rude as the case wants them."""

import contextlib
import os
import socket
import struct
import time

ADDRESS = "\0quarryd"


@contextlib.contextmanager
def acting_as(uid):
    """What is connected inside belongs to that user: the kernel notes the effective uid."""
    os.seteuid(uid)
    try:
        yield
    finally:
        os.seteuid(0)


class Client:
    """One connection. Closed on leaving a with block or with the machine."""

    def __init__(self, uid=0, timeout=20.0, receive_buffer=None, bind_to=None):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        # A full queue makes connect wait, which a socket with a deadline of Python's would not.
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", 30, 0))
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        if bind_to:
            self.socket.bind(bind_to)
        with acting_as(uid):
            self.socket.connect(ADDRESS)
        self.timeout = timeout
        self.socket.settimeout(timeout)
        self.unread = b""

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode())

    def line(self):
        """The next line of the answer, with its end; b"" when the daemon has hung up."""
        while b"\n" not in self.unread:
            piece = self.socket.recv(1 << 16)
            if not piece:
                rest, self.unread = self.unread, b""
                return rest
            self.unread += piece
        line, end, self.unread = self.unread.partition(b"\n")
        return line + end

    def reply(self):
        """One whole reply: lines up to the first that does not begin with OK-, and the empty line
        that belongs to a mount that succeeded."""
        lines = []
        while not lines or lines[-1].startswith(b"OK-"):
            line = self.line()
            if not line:
                raise EOFError(f"the daemon hung up after {b''.join(lines)!r}")
            lines.append(line)
        if lines == [b"OK mount succeeded\n"]:
            lines.append(self.line())
        return b"".join(lines).decode("utf-8", "surrogateescape")

    def ask(self, request):
        """Sends one request line and returns the whole reply."""
        self.send(request + "\n")
        return self.reply()

    def is_silent(self, seconds=0.3):
        """True when nothing arrives for that long and the connection stands."""
        if self.unread:
            return False
        self.socket.settimeout(seconds)
        try:
            self.unread += self.socket.recv(1 << 16)
            return False
        except TimeoutError:
            return True
        finally:
            self.socket.settimeout(self.timeout)

    def close(self):
        self.socket.close()


def wait_until(condition, timeout=20.0, what=None):
    """Waits for a condition to come true and returns its value; what: a text, or what makes one."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            wanted = what() if callable(what) else what or condition
            raise AssertionError(f"waited {timeout} seconds in vain for {wanted}")
        time.sleep(0.01)
