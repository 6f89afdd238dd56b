"""The guest agent's processes: shell commands, the daemon, and the orphans of all of them."""
import os
import signal
import subprocess
import threading
import time

CLEAN_ENV = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}


def read_all(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError:
        return b""


class Reaper(threading.Thread):
    """Waits for every child (process 1 gets all orphans) and keeps the results."""

    def __init__(self):
        super().__init__(daemon=True)
        self.cond = threading.Condition()
        self.ours = {}            # pid -> None while running, status afterwards
        self.early = {}           # ended before register() was called

    def run(self):
        while True:
            try:
                pid, status = os.waitpid(-1, 0)
            except ChildProcessError:
                with self.cond:
                    self.cond.wait(0.05)
                continue
            with self.cond:
                if self.ours.get(pid, 0) is None:
                    self.ours[pid] = os.waitstatus_to_exitcode(status)
                else:
                    self.early[pid] = os.waitstatus_to_exitcode(status)
                self.cond.notify_all()

    def forget(self):
        """What ended so far was somebody else's: its number may be the next child's."""
        with self.cond:
            self.early.clear()

    def register(self, pid):
        with self.cond:
            self.ours[pid] = self.early.pop(pid, None)
            self.cond.notify_all()

    def wait(self, pid, timeout):
        """The exit status (negative: signal), or None after the timeout."""
        end = time.monotonic() + timeout
        with self.cond:
            while self.ours.get(pid, 0) is None:
                left = end - time.monotonic()
                if left <= 0:
                    return None
                self.cond.wait(left)
            return self.ours.get(pid)


reaper = Reaper()
fork_lock = threading.Lock()
_sessions = set()                 # of shell commands, for end_sessions()
_count_lock = threading.Lock()
_run_count = 0


def spawn(argv, **options):
    """Starts a program in a session of its own; the reaper does the waiting."""
    with fork_lock:
        reaper.forget()
        process = subprocess.Popen(argv, start_new_session=True, **options)
        reaper.register(process.pid)
        process.returncode = 0
    return process.pid


def op_sh(q):
    """Runs `bash -c cmd`; output through files, so that background children do not hold it up."""
    global _run_count
    with _count_lock:
        _run_count += 1
        base = "/run/rig/sh%d" % _run_count
    env = dict(CLEAN_ENV, HOME="/root", TERM="dumb", LANG="C.UTF-8", **q.get("env", {}))
    argv = ["/bin/bash", "-c", q["cmd"]]
    if q.get("ns"):
        argv = ["/usr/bin/nsenter", "-t", str(q["ns"]), "-m"] + argv
    with open(base + ".o", "wb") as o, open(base + ".e", "wb") as e, open("/dev/null", "rb") as n:
        pid = spawn(argv, stdin=n, stdout=o, stderr=e, env=env, cwd="/")
    _sessions.add(pid)
    rc = reaper.wait(pid, q.get("timeout", 60))
    timed_out = rc is None
    if timed_out:
        try:
            os.killpg(pid, signal.SIGKILL)
        except OSError:
            pass
        rc = reaper.wait(pid, 5)
    out, err = read_all(base + ".o"), read_all(base + ".e")
    os.unlink(base + ".o")
    os.unlink(base + ".e")
    return {"rc": rc, "out": out.decode("utf-8", "surrogateescape"),
            "err": err.decode("utf-8", "surrogateescape"), "timed_out": timed_out}


def end_sessions():
    """Kills what earlier shell commands left running, and waits until it has let go of what it
    held; not for ever, for somebody may wait for a drive that gives no answer."""
    killed = []
    for name in os.listdir("/proc"):
        if name.isdigit() and int(name) > 1:
            try:
                if os.getsid(int(name)) in _sessions:
                    os.kill(int(name), signal.SIGKILL)
                    killed.append("/proc/" + name)
            except OSError:
                pass
    _sessions.clear()
    end = time.monotonic() + 5
    while any(map(os.path.exists, killed)) and time.monotonic() < end:
        time.sleep(0.01)


def op_start(q):
    """Starts a program with a clean environment; output to base.out and base.err, straight into
    these files or (with "pipe") through pipes."""
    base = q["base"]
    outputs = [os.open(base + suffix, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
               for suffix in (".out", ".err")]
    if q.get("pipe"):
        for n, keep in enumerate(outputs):
            read_end, outputs[n] = os.pipe()
            threading.Thread(target=_relay, args=(read_end, keep), daemon=True).start()
    try:
        with open("/dev/null", "rb") as null:
            pid = spawn(q["argv"], stdin=null, stdout=outputs[0], stderr=outputs[1],
                        env=q.get("env") or CLEAN_ENV, cwd=q.get("cwd", "/"), umask=0o022)
    finally:
        for fd in outputs:
            os.close(fd)
    return {"pid": pid}


def _relay(read_end, keep):
    while True:
        data = os.read(read_end, 65536)
        if not data:
            break
        os.write(keep, data)
    os.close(read_end)
    os.close(keep)


def op_console(q):
    """Starts a program on a terminal device as a session of its own. Job control works there."""
    fd = os.open(q["terminal"], os.O_RDWR | os.O_NOCTTY)
    try:
        pid = spawn(["/usr/bin/setsid", "-c", "-w"] + q["argv"], stdin=fd, stdout=fd, stderr=fd,
                    env=dict(CLEAN_ENV, **q.get("env", {})), cwd="/root")
    finally:
        os.close(fd)
    return {"pid": pid}


def op_wait(q):
    return {"rc": reaper.wait(q["pid"], q.get("timeout", 10))}


def op_kill(q):
    try:
        os.kill(q["pid"], q["signo"])
    except ProcessLookupError:
        return {"found": False}
    return {"found": True}
