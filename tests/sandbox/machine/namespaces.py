"""Runs a function as process 1 of a private machine.

run() forks. The child gets its own user, mount, pid, network, ipc and uts namespaces with the whole
range of user ids mapped, a root of tmpfs with the programs of the host bound into it read-only, and
nothing else of the host: no drive, no /mnt, no network, no process. When the function returns,
process 1 ends and the kernel ends whatever it has started.
"""

import ctypes
import os
import pickle
import select
import shutil
import signal
import subprocess
import sys
import time
import traceback

from . import kernel

# The namespaces of the machine that runs the tests, read before anything is unshared.
NAMESPACES = ("user", "mnt", "pid", "net", "ipc", "uts")
HOST = {name: os.readlink(f"/proc/self/ns/{name}") for name in NAMESPACES}

TESTS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ALL_TESTS = os.path.dirname(TESTS)  # other rings use the made-up machine as well
HOST_USR = "/.usr"  # the host's /usr, read-only
REAL_PROC = "/.proc"  # the kernel's own list of processes; /proc itself is made up
DAEMON = "/usr/sbin/quarryd"
ROOM = "/.room"  # single operations of the daemon, built beside it
HOTPLUG_NOTICE = "/usr/libexec/quarryd/hotplug-notice"
HOTPLUG_HOOK = "/.quarryd.hotplug"  # as built; where it belongs, it would choose the daemon's mode
QUARRYCTL = "/usr/bin/quarryctl"
REAL_PROBE = "/.volsniffer"  # the project's probe program; /usr/bin/volsniffer is made up


class SandboxError(Exception):
    """The private machine could not be made."""


def run(function, timeout):
    """Runs function inside and returns (outcome, value).

    The outcome is "returned" with the function's value, "raised" with what describe_failure made
    of the exception, "died" with a sentence, or "timeout".
    """
    answer_read, answer_write = os.pipe()
    ready_read, ready_write = os.pipe()
    go_read, go_write = os.pipe()
    sys.stdout.flush()
    sys.stderr.flush()
    outer = os.fork()
    if outer == 0:
        status = 1
        try:
            for descriptor in (answer_read, ready_read, go_write):
                os.close(descriptor)
            _outer_process(function, answer_write, ready_write, go_read)
            status = 0
        except BaseException:
            _answer(answer_write, "died", traceback.format_exc())
        finally:
            os._exit(status)
    for descriptor in (answer_write, ready_write, go_read):
        os.close(descriptor)
    try:
        if os.read(ready_read, 1):
            _map_all_users(outer)
            os.write(go_write, b"g")
        return _wait_for_answer(answer_read, time.monotonic() + timeout)
    finally:
        os.kill(outer, signal.SIGKILL)
        os.waitpid(outer, 0)
        for descriptor in (answer_read, ready_read, go_write):
            os.close(descriptor)


def _wait_for_answer(descriptor, deadline):
    data = b""
    while True:
        left = deadline - time.monotonic()
        if left <= 0 or not select.select([descriptor], [], [], left)[0]:
            return "timeout", None
        piece = os.read(descriptor, 1 << 16)
        if not piece:
            break
        data += piece
    if not data:
        return "died", "the sandbox ended without a word"
    return pickle.loads(data)


def _answer(descriptor, outcome, value):
    data = pickle.dumps((outcome, value))
    while data:
        data = data[os.write(descriptor, data) :]


def _map_all_users(pid):
    """Gives the namespace 65536 users. Root maps them one to one; others borrow theirs."""
    if os.geteuid() == 0:
        for kind in ("uid", "gid"):
            with open(f"/proc/{pid}/{kind}_map", "w") as file:
                file.write("0 0 65536")
        return
    for program, own in (("newuidmap", os.geteuid()), ("newgidmap", os.getegid())):
        if shutil.which(program) is None:
            raise SandboxError(f"run as root, or install {program} (Debian: uidmap)")
        first = _first_borrowed_id(f"/etc/sub{program[3:6]}")
        subprocess.run(
            [program, str(pid), "0", str(own), "1", "1", str(first), "65535"], check=True
        )


def _first_borrowed_id(path):
    import pwd

    user = pwd.getpwuid(os.geteuid()).pw_name
    with open(path) as file:
        for line in file:
            name, first, count = line.strip().split(":")
            if name in (user, str(os.geteuid())) and int(count) >= 65535:
                return int(first)
    raise SandboxError(f"{path} lends {user} no 65535 ids")


def _outer_process(function, answer, ready, go):
    kernel.die_with_parent()
    kernel.unshare(
        kernel.CLONE_NEWUSER
        | kernel.CLONE_NEWNS
        | kernel.CLONE_NEWPID
        | kernel.CLONE_NEWNET
        | kernel.CLONE_NEWIPC
        | kernel.CLONE_NEWUTS
    )
    os.write(ready, b"r")
    os.close(ready)
    if not os.read(go, 1):
        raise SandboxError("nobody mapped the users")
    os.setresgid(0, 0, 0)
    os.setgroups([])
    os.setresuid(0, 0, 0)
    inner = os.fork()
    if inner == 0:
        try:
            kernel.die_with_parent()
            # Behind nohup(1), or behind "&" in a script, the tests ignore what is met in here.
            for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
                signal.signal(number, signal.SIG_DFL)
            _make_root()
            try:
                _answer(answer, "returned", function())
            except BaseException as exception:
                _answer(answer, "raised", describe_failure(exception))
        except BaseException:
            _answer(answer, "died", traceback.format_exc())
        finally:
            sys.stdout.flush()
            sys.stderr.flush()
            os._exit(0)
    os.close(answer)
    os.waitpid(inner, 0)


def describe_failure(exception):
    """What is told about an exception; the test runner puts its own better text here."""
    return "".join(traceback.format_exception(exception))


def _make_root():
    """Builds the root in a tmpfs, moves into it and lets the host's root go."""
    kernel.mount(None, "/", None, kernel.MS_REC | kernel.MS_PRIVATE)
    root = "/sys"  # nothing of it is needed, and it is covered inside this namespace only
    kernel.mount("tmpfs", root, "tmpfs", kernel.MS_NOSUID, "mode=755")
    _bind_programs(root)
    for name in ("dev", "etc", "mnt", "proc", "run", "sys", "var", "tmp", "root", ".old"):
        os.mkdir(f"{root}/{name}")
    os.chmod(f"{root}/tmp", 0o1777)
    os.mkdir(root + REAL_PROC)
    kernel.mount("proc", root + REAL_PROC, "proc", kernel.MS_NOSUID | kernel.MS_NODEV)
    for name in ("null", "zero", "full", "random", "urandom", "fuse"):
        if os.path.exists(f"/dev/{name}"):
            open(f"{root}/dev/{name}", "w").close()
            kernel.bind(f"/dev/{name}", f"{root}/dev/{name}", read_only=False)
    _bind_at(root, ALL_TESTS, ALL_TESTS)
    daemon, probe = os.environ.get("QUARRYD", ""), os.environ.get("VOLSNIFFER", "")
    room = os.path.join(os.path.dirname(daemon), "../tests/sandbox/room/room")
    notice = os.environ.get("HOTPLUG_NOTICE", "")
    hook = os.path.join(os.path.dirname(notice), "quarryd.hotplug")
    for program, path in (
        (daemon, DAEMON),
        (probe, REAL_PROBE),
        (room, ROOM),
        (notice, HOTPLUG_NOTICE),
        (hook, HOTPLUG_HOOK),
        (os.environ.get("QUARRYCTL", ""), QUARRYCTL),
    ):
        if os.path.isfile(program):
            _bind_at(root, program, path)
    kernel.pivot_root(root, f"{root}/.old")
    os.chdir("/")
    kernel.umount("/.old", kernel.MNT_DETACH)
    os.rmdir("/.old")
    # Python looks at /proc/self for its own needs, and so do the sanitizers.
    os.symlink(f"{REAL_PROC}/self", "/proc/self")


def _bind_programs(root):
    """The host's /usr, with folders of programs that are links and that more can be added to."""
    os.mkdir(root + HOST_USR)
    kernel.bind("/usr", root + HOST_USR)
    os.mkdir(f"{root}/usr")
    for name in os.listdir("/usr"):
        if name not in ("bin", "sbin", "libexec"):
            os.symlink(f"{HOST_USR}/{name}", f"{root}/usr/{name}")
    for folder in ("bin", "sbin", "libexec"):
        os.mkdir(f"{root}/usr/{folder}")
        for name in os.listdir(f"/usr/{folder}"):
            if name not in ("volsniffer", "quarryd", "quarryctl"):
                os.symlink(f"{HOST_USR}/{folder}/{name}", f"{root}/usr/{folder}/{name}")
    for name in os.listdir("/"):
        if name in ("bin", "sbin") or name.startswith("lib"):
            if os.path.islink(f"/{name}"):
                os.symlink(os.readlink(f"/{name}"), f"{root}/{name}")
            else:
                os.mkdir(f"{root}/{name}")
                kernel.bind(f"/{name}", f"{root}/{name}")


def _bind_at(root, source, path):
    target = root + os.path.abspath(path)
    if os.path.isdir(source):
        os.makedirs(target)
    else:
        os.makedirs(os.path.dirname(target), exist_ok=True)
        open(target, "w").close()
    kernel.bind(source, target)


def insist_on_sandbox():
    """Raises unless this process lives in the private machine: asked before each daemon start."""
    for name in NAMESPACES:
        if os.readlink(f"{REAL_PROC}/self/ns/{name}") == HOST[name]:
            raise SandboxError(f"not in a private {name} namespace")
    if os.getpid() != 1:
        raise SandboxError("not process 1 of its namespace")
    if os.path.exists("/.old") or not _is_tmpfs("/"):
        raise SandboxError("the root is not the made-up one")
    with open(f"{REAL_PROC}/self/mounts") as file:
        for line in file:
            point = line.split()[1]
            if point.startswith("/mnt") and line.split()[2] not in ("tmpfs", "fuse"):
                raise SandboxError(f"a file system of the host is visible at {point}")


def _is_tmpfs(path):
    buffer = ctypes.create_string_buffer(256)
    kernel.checked(kernel.libc.statfs(os.fsencode(path), buffer), f"statfs {path}")
    return int.from_bytes(buffer.raw[:4], "little") == 0x01021994

