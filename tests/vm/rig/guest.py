"""What the host does inside the guest: commands, files, the system log, tidying up."""
import base64
import shlex
import time

from .errors import CommandError, RigError


class Guest:
    """The part of a VM that talks to its agent. Uses self.agent."""

    def call(self, op, _timeout=60, **arguments):
        """One request to the agent; safe from several threads at once."""
        try:
            return self.agent.call(op, _timeout, arguments)
        except RigError as e:
            if self.agent.gone:
                raise RigError("%s; console:\n%s" % (e, self.log()[-1500:])) from e
            raise

    def wait_until(self, function, timeout=30, what=None, step=0.1):
        """Calls the function until it returns something true, which is returned. TimeoutError
        with the text `what` (or what it returns when called) otherwise."""
        end = time.monotonic() + timeout
        while True:
            value = function()
            if value:
                return value
            if time.monotonic() > end:
                text = what() if callable(what) else what
                raise TimeoutError("not within %g seconds: %s" % (
                    timeout, text or getattr(function, "__name__", function)))
            time.sleep(step)

    def sh(self, cmd, timeout=60, check=True, ns=None, **env):
        """Runs `bash -c cmd` as root in the guest. Result with .rc .out .err; with check a status
        other than 0 raises CommandError. rc is negative for a signal. What runs on in the
        background does not hold it up; reset() ends it. ns: a pid (or Daemon) whose mount
        namespace the command is to run in."""
        reply = self.call("sh", _timeout=timeout + 30, cmd=cmd, timeout=timeout, env=env,
                          ns=getattr(ns, "pid", ns))
        result = Result(reply["rc"], reply["out"], reply["err"])
        if reply["timed_out"]:
            raise TimeoutError("in the guest, after %g s: %s\n%s%s"
                               % (timeout, cmd, result.out, result.err))
        if check and result.rc != 0:
            raise CommandError("in the guest, status %s: %s\n%s%s"
                               % (result.rc, cmd, result.out, result.err))
        return result

    def background(self, cmd, output="/dev/null"):
        """Starts `bash -c cmd`, which ends with a program that stays, in the guest; returns its
        pid, as text, when it has become that program: what the command opens and where it goes to
        is done then. output: the file for what it prints, which is there at once; reset() ends
        the program."""
        return self.sh(
            ": >%s; bash -c %s >>%s 2>&1 & pid=$!\n"
            "while [ \"$(cat /proc/$pid/comm)\" = bash ]; do sleep 0.02; done\n"
            "[ -e /proc/$pid ] && echo $pid" % (output, shlex.quote(cmd), output)).out.strip()

    def put(self, path, data, mode=0o644):
        """Makes a file in the guest (its folders too), replacing one that is there."""
        if isinstance(data, str):
            data = data.encode("utf-8", "surrogateescape")
        step = 1 << 20
        for offset in range(0, max(len(data), 1), step):
            self.call("put", path=path, mode=mode, offset=offset, last=offset + step >= len(data),
                      data=base64.b64encode(data[offset:offset + step]).decode())

    def write(self, path, data, offset=0):
        """Writes into an existing file or device node in place."""
        if isinstance(data, str):
            data = data.encode()
        step = 1 << 20
        for start in range(0, max(len(data), 1), step):
            self.call("write", path=path, offset=offset + start,
                      data=base64.b64encode(data[start:start + step]).decode())

    def get(self, path):
        """A file's bytes."""
        data, step = b"", 1 << 19
        while True:
            piece = base64.b64decode(
                self.call("get", path=path, offset=len(data), length=step)["data"])
            data += piece
            if len(piece) < step:
                return data

    def text(self, path):
        return self.get(path).decode("utf-8", "replace")

    def syslog(self):
        """The datagrams sent to /dev/log, as lines ("<30>Jan  1 00:00:00 quarryd[12]: text")."""
        self.call("syslog_catch_up")
        return self.text("/run/rig/syslog").splitlines()

    def reset(self, keep_volumes=False):
        """Ends what tests left: daemons, background commands, mounts, swap, the files they put
        (what was there before is put back). For a machine shared by tests. It does not restore
        contents of disks, disks plugged or unplugged, trays, loaded modules, the clock, or files
        that commands changed. keep_volumes: md arrays and device-mapper volumes stay."""
        for daemon in self.daemons:
            daemon.end()
        self.daemons.clear()
        self.call("reset", volumes=not keep_volumes)


class Result:
    def __init__(self, rc, out, err):
        self.rc, self.out, self.err = rc, out, err

    def __repr__(self):
        return "Result(rc=%r, out=%r, err=%r)" % (self.rc, self.out, self.err)
