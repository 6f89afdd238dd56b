"""The daemon in the guest, and its clients."""
import base64
import signal
import socket
import time

from .errors import ConnectionEnded, ReplyTimeout, RigError

DAEMON_PATH = "/usr/sbin/quarryd"


class DaemonControl:
    """The part of a VM that starts daemons and speaks to them."""

    def daemon(self, args=(), conf=None, ready=True, env=None, prefix=(), timeout=60, cwd="/",
               setup=None, pipe=False):
        """Starts the installed daemon: by process 1, with only PATH in its environment, stdin
        /dev/null, stdout and stderr to files. Returns a Daemon.

        conf: the text of /etc/quarryd.conf (None: no such file). ready: wait until it listens on
        its socket and has reached its loop (no connection is made). prefix: words before the
        daemon's path. setup: shell commands run just before it in a mount namespace of its
        own (to bind made-up files over /sys/block and the like; see sh(ns=...)). pipe: its
        streams are pipes instead."""
        if conf is None:
            self.call("remove", path="/etc/quarryd.conf")
        else:
            self.put("/etc/quarryd.conf", conf)
        base = self._next_daemon_base()
        argv = list(prefix) + [DAEMON_PATH] + list(args)
        if setup is not None:
            argv = ["/usr/bin/unshare", "-m", "/bin/bash", "-c",
                    'set -e\n%s\nexec "$@"' % setup, "setup"] + argv
        pid = self.call("start", argv=argv, base=base, env=env, cwd=cwd, pipe=pipe)["pid"]
        d = Daemon(self, pid, base)
        self.daemons.append(d)
        if ready:
            reply = self.call("wait_listening", _timeout=timeout + 30, pid=pid, timeout=timeout)
            if not reply["listening"]:
                raise RigError("the daemon does not listen (exit status %s)\nout: %s\nerr: %s"
                               % (reply["rc"], d.out(), d.err()))
            # The last line before the loop: signals end the daemon in order from here on.
            self.wait_until(lambda: "\nMain label: " in d.out() or not d.alive(), timeout,
                            lambda: "the daemon's loop; err: " + d.err(), step=0.03)
        return d

    def _next_daemon_base(self):
        self._daemon_count += 1
        return "/run/rig/daemon%d" % self._daemon_count

    def strace_daemon(self, trace="all", args=(), conf=None, inject=(), **more):
        """The daemon under `strace -f -e trace=...`; .trace() of the result gives the log's lines.
        The daemon is the direct child (strace -D), so .pid and .wait() are the daemon's own.
        inject: texts for `-e inject=` ("umount2:error=EBUSY:when=1")."""
        log = "/run/rig/strace%d" % (self._daemon_count + 1)
        prefix = ["/usr/bin/strace", "-D", "-f", "-tt", "-y", "-s", "400", "-o", log]
        for text in inject:
            prefix += ["-e", "inject=" + text]
        if trace != "all":
            prefix += ["-e", "trace=" + trace]
        d = self.daemon(args, conf, prefix=prefix, **more)
        d.trace_path = log
        return d

    def request(self, line, uid=0, gid=0, timeout=60):
        """One request on a connection of its own, as that user; the whole reply's text.
        ReplyTimeout, ConnectionEnded (both with .partial), or ConnectionRefusedError when nobody
        listens."""
        if isinstance(line, str):
            line = line.encode("utf-8", "surrogateescape")
        reply = self.call("request", _timeout=timeout + 30, uid=uid, gid=gid, timeout=timeout,
                          data=base64.b64encode(line + b"\n").decode())
        text = base64.b64decode(reply["data"]).decode("utf-8", "surrogateescape")
        if reply["problem"]:
            kind = ReplyTimeout if reply["problem"] == "timeout" else ConnectionEnded
            e = kind("no whole reply to %r: %s; got %r" % (line, reply["problem"], text))
            e.partial = text
            raise e
        return text

    def connect(self, uid=0, gid=0):
        """A raw connection to the daemon, made by a process of that user."""
        reply = self.call("connect", uid=uid, gid=gid)
        return Connection(self, reply["handle"], reply["pid"])


class Connection:
    """A raw connection to the daemon."""

    def __init__(self, vm, handle, pid):
        self.vm, self.handle, self.pid = vm, handle, pid
        self._rest = b""

    def send(self, data, timeout=10):
        if isinstance(data, str):
            data = data.encode()
        self.vm.call("send", handle=self.handle, data=base64.b64encode(data).decode(),
                     timeout=timeout, _timeout=timeout + 30)

    def recv(self, timeout=10, size=65536):
        """What comes next; b"" when the daemon has closed. ReplyTimeout when nothing comes."""
        if self._rest:
            data, self._rest = self._rest, b""
            return data
        reply = self.vm.call("recv", handle=self.handle, timeout=timeout, size=size,
                             _timeout=timeout + 30)
        if reply["timed_out"]:
            raise ReplyTimeout("nothing received within %g seconds" % timeout)
        return base64.b64decode(reply["data"])

    def recv_reply(self, timeout=60):
        """A whole reply: lines up to and with the first that does not begin "OK-"."""
        end = time.monotonic() + timeout
        data = b""
        while True:
            start = 0
            while (stop := data.find(b"\n", start)) >= 0:
                if not data.startswith(b"OK-", start):
                    self._rest = data[stop + 1:]
                    return data[:stop + 1].decode("utf-8", "surrogateescape")
                start = stop + 1
            more = self.recv(max(0.05, end - time.monotonic()))
            if not more:
                raise ConnectionEnded("the daemon closed the connection; got %r" % data)
            data += more

    def request(self, line, timeout=60):
        self.send(line + "\n")
        return self.recv_reply(timeout)

    def shutdown(self, how=socket.SHUT_WR):
        self.vm.call("shutdown", handle=self.handle, how=int(how))

    def close(self):
        if self.handle is not None:
            self.vm.call("close", handle=self.handle)
            self.handle = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class Daemon:
    """A daemon started in the guest."""

    def __init__(self, vm, pid, base):
        self.vm, self.pid, self.base = vm, pid, base
        self.trace_path = None
        self._rc = None

    def out(self):
        """What it has written to its standard output so far."""
        return self.vm.text(self.base + ".out")

    def err(self):
        return self.vm.text(self.base + ".err")

    def trace(self):
        """The strace log's lines so far."""
        return self.vm.text(self.trace_path).splitlines()

    def wait_err(self, text, timeout=30, since=0):
        """Waits until its standard error holds the text behind the first `since` characters;
        returns all of it."""
        return self.vm.wait_until(
            lambda: (lambda err: err if text in err[since:] else None)(self.err()), timeout,
            lambda: "%r on the daemon's stderr, which is\n%s" % (text, self.err()[since:][-3000:]))

    def status(self):
        """None while it runs, else the exit status (negative: signal)."""
        if self._rc is None:
            self._rc = self.vm.call("wait", pid=self.pid, timeout=0)["rc"]
        return self._rc

    def alive(self):
        return self.status() is None

    def signal(self, signo):
        return self.vm.call("kill", pid=self.pid, signo=int(signo))["found"]

    def wait(self, timeout=30):
        """Waits for its end; the exit status."""
        if self._rc is None:
            self._rc = self.vm.call("wait", pid=self.pid, timeout=timeout,
                                    _timeout=timeout + 30)["rc"]
            if self._rc is None:
                raise TimeoutError("the daemon runs on after %g seconds\nerr: %s"
                                   % (timeout, self.err()[-2000:]))
        return self._rc

    def stop(self, timeout=60):
        """SIGTERM and wait; the exit status."""
        if self.alive():
            self.signal(signal.SIGTERM)
        return self.wait(timeout)

    def end(self):
        """Ends it in any case."""
        if self.alive():
            self.signal(signal.SIGTERM)
            try:
                self.wait(10)
            except TimeoutError:
                self.signal(signal.SIGKILL)
                self.wait(30)
