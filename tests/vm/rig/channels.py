"""Two conversations in JSON lines over Unix sockets: with QEMU (QMP) and with the guest's agent."""
import errno
import json
import socket
import threading
import time

from .errors import GuestError, RigError


def connect_unix(path, deadline, process):
    """A connection to a socket that a process is about to make."""
    while True:
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            s.connect(path)
            return s
        except OSError:
            s.close()
        if process.poll() is not None:
            raise RigError("qemu ended with status %s" % process.returncode)
        if time.monotonic() > deadline:
            raise RigError("no connection to %s" % path)
        time.sleep(0.01)


class _Lines(threading.Thread):
    """Hands each JSON line of a socket to a function, and None at the end of the stream."""

    def __init__(self, sock, function):
        super().__init__(daemon=True)
        self.sock, self.function = sock, function
        self.start()

    def run(self):
        rest = b""
        while True:
            try:
                data = self.sock.recv(1 << 18)
            except OSError:
                data = b""
            if not data:
                self.function(None)
                return
            rest += data
            *lines, rest = rest.split(b"\n")
            for line in lines:
                try:
                    message = json.loads(line)
                except ValueError:
                    continue
                self.function(message)


class Qmp:
    """QEMU's control socket. One command at a time; events are kept in .events."""

    def __init__(self, sock):
        self.sock = sock
        self.events = []
        self._replies = []
        self._cond = threading.Condition()
        self._one = threading.Lock()
        _Lines(sock, self._on_message)
        self.command("qmp_capabilities")

    def _on_message(self, message):
        with self._cond:
            if message is None:
                self._replies.append({"error": {"desc": "qemu has ended"}})
            elif "event" in message:
                self.events.append(message)
            elif "return" in message or "error" in message:
                self._replies.append(message)
            self._cond.notify_all()

    def command(self, command, **arguments):
        """The "return" part of the reply. RigError when it is an error."""
        text = json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n"
        with self._one, self._cond:
            self._replies.clear()
            try:
                self.sock.sendall(text)
            except OSError as e:
                raise RigError("QMP %s: %s" % (command, e))
            if not self._cond.wait_for(lambda: self._replies, 60):
                raise RigError("no QMP reply to %s" % command)
            reply = self._replies.pop(0)
        if "error" in reply:
            raise RigError("QMP %s %s: %s" % (command, arguments, reply["error"].get("desc")))
        return reply["return"]


class Agent:
    """The guest's agent; several threads may call at once."""

    def __init__(self, sock):
        self.sock = sock
        self.gone = False
        self.hello = False
        self._next = 0
        self._waiting, self._replies = set(), {}
        self._cond = threading.Condition()
        _Lines(sock, self._on_message)

    def _on_message(self, message):
        with self._cond:
            if message is None:
                self.gone = True
            elif "hello" in message:
                self.hello = True
            elif message.get("n") in self._waiting:
                self._replies[message["n"]] = message
            self._cond.notify_all()

    def wait_hello(self, seconds):
        """True when the agent has reported; False when it cannot any more or after seconds."""
        with self._cond:
            self._cond.wait_for(lambda: self.hello or self.gone, seconds)
            return self.hello

    def call(self, op, timeout, arguments):
        with self._cond:
            self._next += 1
            n = self._next
            self._waiting.add(n)
            try:
                self.sock.sendall(json.dumps(dict(arguments, op=op, n=n)).encode() + b"\n")
            except OSError:
                self.gone = True
            self._cond.wait_for(lambda: n in self._replies or self.gone, timeout)
            self._waiting.discard(n)
            if n not in self._replies:
                raise RigError("no answer from the guest to %s%s"
                               % (op, " (the machine is gone)" if self.gone else ""))
            reply = self._replies.pop(n)
        if "error" not in reply:
            return reply
        if reply.get("errno") == errno.ECONNREFUSED:
            raise ConnectionRefusedError(reply["errno"], "nobody listens on the daemon's socket")
        if reply.get("errno"):
            raise GuestError(reply["errno"], "%s (guest, %s)" % (reply["error"], op))
        raise RigError("guest, %s: %s" % (op, reply["error"]))
