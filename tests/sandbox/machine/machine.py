"""The made-up machine: its drives, its lists, its processes and the daemon that runs on it."""

import os
import re
import signal
import socket
import subprocess
import time

from . import kernel, namespaces
from .clients import Client, wait_until
from .drives import Drives, write
from .namespaces import DAEMON, REAL_PROC, ROOM

PROBE = "/usr/bin/volsniffer"
ANSWERS = "/run/probe"  # what the made-up probe program says, a file for each device
PROBE_LOG = "/run/probe.log"  # how it was called, a line for each call
SYSLOG = "/run/syslog"

PROBE_PROGRAM = f"""#!/bin/sh
echo "$0 $*" >> {PROBE_LOG}
name=${{1#/dev/}}
[ -x {ANSWERS}/$name.run ] && exec {ANSWERS}/$name.run "$@"
[ -f {ANSWERS}/$name ] && exec cat {ANSWERS}/$name
exit 1
"""

USERS = {"root": 0, "schedule": 500, "guest": 1000, "nobody": 65534}

# A sanitizer's words: none may ever appear, whatever the case is about.
SANITIZER = re.compile(
    rb"AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|runtime error:|"
    rb"terminate called|Assertion `"
)


class Machine(Drives):
    """Everything a case may do. Lives inside the sandbox."""

    def __init__(self):
        self.daemons = []
        self.clients = []
        self.processes = []
        self.mounts = []  # lines of the made-up mount table
        super().__init__()
        self.users()
        write("/proc/filesystems", "nodev\tproc\nnodev\ttmpfs\n\text4\n\tvfat\n")
        write("/proc/swaps", "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n")
        self.mount_table([])
        write(PROBE, PROBE_PROGRAM)
        os.chmod(PROBE, 0o755)
        os.makedirs(ANSWERS)
        write(PROBE_LOG, "")
        self._start_syslog()

    # What the machine is made of.

    def users(self, without=()):
        """The user list: root, schedule, guest and nobody, less those that are not wanted."""
        lines = []
        for name, uid in USERS.items():
            if name not in without:
                lines.append(f"{name}:x:{uid}:{uid}:{name}:/:/bin/sh\n")
        write("/etc/passwd", "".join(lines))

    def mount_table(self, lines):
        """Makes up /proc/mounts. A line is "device mountpoint type [options]"."""
        self.mounts = list(lines)
        self._write_mounts()

    def add_mount_line(self, line):
        self.mounts.append(line)
        self._write_mounts()

    def drop_mount_line(self, device):
        self.mounts = [line for line in self.mounts if line.split()[0] != device]
        self._write_mounts()

    def _write_mounts(self):
        text = ""
        for line in self.mounts:
            fields = line.split()
            options = fields[3] if len(fields) > 3 else "rw,relatime"
            text += f"{fields[0]} {fields[1]} {fields[2]} {options} 0 0\n"
        # In one step, so that no reader meets half a table.
        write("/proc/.mounts", text)
        os.rename("/proc/.mounts", "/proc/mounts")

    def real_mounts(self):
        """Lets /proc/mounts tell what the kernel has mounted in here."""
        os.unlink("/proc/mounts")
        os.symlink(f"{REAL_PROC}/self/mounts", "/proc/mounts")

    def mount_tmpfs(self, device, point, options="mode=755"):
        """A real mount that calls itself by a drive's name."""
        os.makedirs(point, exist_ok=True)
        kernel.mount(f"/dev/{device}", point, "tmpfs", 0, options)

    def configure(self, text):
        write("/etc/quarryd.conf", text)

    def script(self, path, text):
        """A program of the site; text without a first #! line is one for the shell."""
        write(path, text if text.startswith("#!") else "#!/bin/sh\n" + text)
        os.chmod(path, 0o755)

    def stand_in(self, name, text="exit 0\n"):
        """Puts a script in the place of a program of the system; calls() tells what it was told."""
        path = f"/usr/sbin/{name}"
        for folder in ("/usr/sbin", "/usr/bin"):
            if os.path.lexists(f"{folder}/{name}"):
                os.unlink(f"{folder}/{name}")
        self.script(path, f'echo "$*" >> /run/{name}.log\n{text}')
        write(f"/run/{name}.log", "")

    @staticmethod
    def calls(name):
        """The arguments of every call of a stand-in so far, a line each."""
        with open(f"/run/{name}.log") as file:
            return file.read().splitlines()

    def probe_says(self, name, label, filesystem=None, more=""):
        """What the probe program prints about a device."""
        text = f"{label}\n"
        if filesystem is not None:
            text += f"  filesystem: {filesystem}\n"
        write(f"{ANSWERS}/{name}", text + more)

    def probe_runs(self, name, text):
        """A script that runs in place of the probe program for one device."""
        self.script(f"{ANSWERS}/{name}.run", text)

    def probe_calls(self):
        """Every call of the probe program so far, as a line of its arguments from 0 on."""
        with open(PROBE_LOG) as file:
            return file.read().splitlines()

    def made_up_process(self, pid, fds=(), cwd=None, root=None, exe=None, command="made-up"):
        """A process that exists in /proc alone. Numbers above a million meet no real one."""
        os.makedirs(f"/proc/{pid}/fd")
        for number, target in enumerate(fds):
            os.symlink(target, f"/proc/{pid}/fd/{number}")
        for name, target in (("cwd", cwd), ("root", root), ("exe", exe)):
            if target:
                os.symlink(target, f"/proc/{pid}/{name}")
        write(f"/proc/{pid}/cmdline", command + "\0")

    def program(self, *arguments, show=True, **keys):
        """Starts a real process; show tells the daemon's /proc about it."""
        process = subprocess.Popen(list(arguments), **keys)
        self.processes.append(process)
        if show:
            self.show_process(process.pid)
        return process

    def troublemaker(self, name, *arguments, **keys):
        """Starts one of the troublemaker programs and waits until it is ready."""
        path = f"{namespaces.TESTS}/troublemakers/{name}.py"
        process = self.program(
            "/usr/bin/python3", path, *arguments, stdout=subprocess.PIPE, text=True, **keys
        )
        assert process.stdout.readline() == "ready\n", f"{name} did not come up"
        if "--stop" in arguments:
            wait_until(lambda: state_of(process.pid) == "T", what=f"the stop of {name}")
        return process

    @staticmethod
    def show_process(pid):
        os.symlink(f"{REAL_PROC}/{pid}", f"/proc/{pid}")

    # The daemon.

    def start(self, *arguments, wait=True, **keys):
        """Starts the daemon and waits until its loop is about to turn."""
        daemon = Daemon(arguments, **keys)
        self.daemons.append(daemon)
        if wait:
            daemon.wait_for_loop()
        return daemon

    def room(self, *commands, **keys):
        """Starts the daemon's rooms and runs some commands in them."""
        room = Room(**keys)
        self.daemons.append(room)
        for command in commands:
            room.ask(command)
        return room

    @property
    def daemon(self):
        return self.daemons[-1]

    def stop(self):
        """Ends the last daemon in good order."""
        self.daemon.stop()

    def connect(self, user="root", **keys):
        """A client of that user."""
        client = Client(USERS.get(user, user), **keys)
        self.clients.append(client)
        return client

    def ask(self, request, user="root"):
        """One request on a connection of its own; returns the reply."""
        with self.connect(user) as client:
            return client.ask(request)

    def settle(self):
        """Waits until a whole pass that re-read the kernel's tables has begun and ended."""
        watch = kernel.FileWatch("/proc/partitions", events=kernel.IN_OPEN | kernel.IN_ACCESS)
        try:
            assert watch.seen(timeout=20), "the tables were not read again"
        finally:
            watch.close()
        self.pass_of_loop()

    def pass_of_loop(self):
        """Waits until the pass that is under way is over: each takes in one client at most."""
        for _ in range(2):
            assert self.ask("a pass") == "ERR unknown command\n"

    def syslog(self):
        """The lines of the system log, without date and pid."""
        pattern = r"^<\d+>.{15} |(?<=quarryd)\[\d+\]"
        return [re.sub(pattern, "", line) for line in self.raw_syslog()]

    def raw_syslog(self):
        """The lines of the system log as they were sent, up to this moment."""
        mark = f"mark {time.monotonic_ns()}"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect("/dev/log")
            sender.send(mark.encode())
        lines = wait_until(lambda: self._log_up_to(mark), what="the system log")
        return [line for line in lines if not line.startswith("mark ")]

    @staticmethod
    def _log_up_to(mark):
        with open(SYSLOG, errors="surrogateescape") as file:
            lines = file.read().splitlines()
        return lines if mark in lines else None

    def _start_syslog(self):
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        listener.bind("/dev/log")
        write(SYSLOG, "")
        if os.fork() == 0:
            # A logger of its own, so that nobody waits for a case to read the log.
            log = os.open(SYSLOG, os.O_WRONLY | os.O_APPEND)
            while True:
                os.write(log, listener.recv(65536).rstrip(b"\0\n") + b"\n")
        listener.close()

    def finish(self):
        """The end of a case: clients go, and every daemon that still runs ends well."""
        for client in self.clients:
            client.close()
        for daemon in self.daemons:
            if daemon.is_running() and not daemon.given_up:
                daemon.stop()

    def kill_everything(self):
        for daemon in self.daemons:
            if daemon.is_running():
                daemon.process.kill()


class Daemon:
    """One run of the daemon. Its streams go into files, which show a line when it happens."""

    count = 0

    def __init__(
        self,
        arguments,
        program=DAEMON,
        stdin=subprocess.DEVNULL,
        stdout=None,
        stderr=None,
        refuse=(),
        drop_file_override=False,
        show=True,
        leaks=True,
        trace=(),
        user=None,
        quarantine_mb=8,
    ):
        """refuse: system calls, see kernel.refuse; trace: arguments for strace, under which no
        leak can be looked for; show=False: no entry of its own in /proc; quarantine_mb: how much
        freed memory the sanitizer keeps back."""
        namespaces.insist_on_sandbox()
        Daemon.count += 1
        self.stdout_path = f"/run/stdout.{Daemon.count}"
        self.stderr_path = f"/run/stderr.{Daemon.count}"
        self.trace_path = f"/run/trace.{Daemon.count}"
        self.given_up = False  # this run's end is not checked at the end of the case
        own_stdout = open(self.stdout_path, "wb") if stdout is None else stdout
        own_stderr = open(self.stderr_path, "wb") if stderr is None else stderr
        command = [program, *arguments]
        leaks = leaks and not trace
        if trace:
            command = ["/usr/bin/strace", "-f", "-s", "256", "-o", self.trace_path]
            command += [*trace, program, *arguments]

        def prepare():
            if show:
                Machine.show_process(os.getpid())
            if drop_file_override:
                kernel.drop_file_override()
            if user is not None:
                os.setresgid(user, user, user)
                os.setresuid(user, user, user)
            if refuse:
                kernel.refuse(refuse)

        self.process = subprocess.Popen(
            command,
            stdin=stdin,
            stdout=own_stdout,
            stderr=own_stderr,
            preexec_fn=prepare,
            cwd="/",
            env={
                "PATH": "/usr/sbin:/usr/bin",
                "ASAN_OPTIONS": f"detect_leaks={int(leaks)}:exitcode=99"
                f":quarantine_size_mb={quarantine_mb}:thread_local_quarantine_size_kb=64",
                "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1:exitcode=97",
            },
        )
        for stream, given in ((own_stdout, stdout), (own_stderr, stderr)):
            if given is None:
                stream.close()
        self.pid = self.process.pid
        if trace:
            self.pid = wait_until(self._traced_child, what="the traced daemon")

    def _traced_child(self):
        path = f"{REAL_PROC}/{self.process.pid}/task/{self.process.pid}/children"
        with open(path) as file:
            children = file.read().split()
        for child in children:
            try:
                if os.readlink(f"{REAL_PROC}/{child}/exe").endswith("quarryd"):
                    if not os.path.lexists(f"/proc/{child}"):
                        Machine.show_process(int(child))
                    return int(child)
            except OSError:
                pass
        return None

    # What it says.

    def stdout(self):
        with open(self.stdout_path, errors="surrogateescape") as file:
            return file.read()

    def stderr(self):
        with open(self.stderr_path, errors="surrogateescape") as file:
            return file.read()

    def stderr_lines(self):
        return self.stderr().splitlines()

    def trace(self):
        with open(self.trace_path, errors="surrogateescape") as file:
            return file.read().splitlines()

    def wait_for_loop(self, timeout=20):
        """The line about the main partition's label is the last one before the loop."""

        def looping():
            assert self.is_running(), self.last_words()
            return "Main label: '" in self.stdout()

        wait_until(looping, timeout, "the daemon's loop")

    def wait_for(self, text, timeout=20, times=1):
        """Waits for a text on standard error."""
        wait_until(
            lambda: self.stderr().count(text) >= times,
            timeout,
            lambda: f"{text!r} in\n{self.stderr()}",
        )

    def last_words(self):
        status = f"status {self.process.poll()}\n"
        return f"{status}--- stdout\n{self.stdout()}--- stderr\n{self.stderr()}"

    # What it is.

    def is_running(self):
        return self.process.poll() is None

    def descriptors(self):
        """Its open files: number and what the kernel calls them."""
        found = {}
        for name in os.listdir(f"{REAL_PROC}/{self.pid}/fd"):
            try:
                found[int(name)] = os.readlink(f"{REAL_PROC}/{self.pid}/fd/{name}")
            except FileNotFoundError:
                pass
        return found

    def children(self):
        with open(f"{REAL_PROC}/{self.pid}/task/{self.pid}/children") as file:
            return [int(word) for word in file.read().split()]

    def status_field(self, name):
        with open(f"{REAL_PROC}/{self.pid}/status") as file:
            for line in file:
                if line.startswith(name + ":"):
                    return line.split()[1]
        raise ValueError(name)

    def current_call(self):
        """The number of the system call that it is in, or None."""
        with open(f"{REAL_PROC}/{self.pid}/syscall") as file:
            word = file.read().split()[0]
        return None if word == "running" else int(word)

    def resident_kib(self):
        return int(self.status_field("VmRSS"))

    # Its end.

    def send_signal(self, number):
        os.kill(self.pid, number)

    def stop(self, number=signal.SIGTERM, timeout=20):
        """Asks it to end and checks that it did so in good order."""
        if self.is_running():
            self.send_signal(number)
        self.check_end(0, timeout)

    def check_end(self, status, timeout=20):
        """Waits for its end: the status, nothing from a sanitizer, no complaint about itself."""
        try:
            found = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            raise AssertionError(f"it did not end\n{self.last_words()}") from None
        self.check_words()
        assert found == status, self.last_words()

    def check_words(self):
        if not os.path.exists(self.stderr_path):
            return
        with open(self.stderr_path, "rb") as file:
            text = file.read()
        assert not SANITIZER.search(text), self.last_words()
        assert b"BUG: " not in text, self.last_words()

    def kill(self):
        """The end that leaves no time for anything."""
        self.given_up = True
        os.kill(self.pid, signal.SIGKILL)
        self.process.wait()
        self.check_words()


class Room(Daemon):
    """The daemon's operations one by one; what room/room.cpp knows can be asked."""

    def __init__(self, **keys):
        assert os.path.exists(ROOM), "build the target `room` beside the daemon"
        super().__init__((), program=ROOM, stdin=subprocess.PIPE, stdout=subprocess.PIPE, **keys)

    def ask(self, command):
        """Runs one command and returns its answer: yes, no or done."""
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        assert answer, f"no answer to {command!r}: {self.stderr()}"
        return answer.decode().strip()

    def stop(self, number=None, timeout=20):
        self.process.stdin.close()
        self.check_end(0, timeout)

    def last_words(self):
        return f"status {self.process.poll()}\n--- stderr\n{self.stderr()}"


def state_of(pid):
    """The kernel's letter for what a process does."""
    with open(f"{REAL_PROC}/{pid}/stat") as file:
        return file.read().rpartition(")")[2].split()[0]


def sleep(seconds):
    """Where a case must let time pass: said by name, so that it can be found."""
    time.sleep(seconds)
