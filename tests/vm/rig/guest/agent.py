"""Process 1 of the guest (where systemd is that, one of its services): does what the host asks,
reaps orphans, keeps the system log (systemd keeps one of its own).

JSON lines over the virtio-serial port: {"n": number, "op": name, ...} in, {"n": number, ...} out.
Each request is served by a thread of its own, so answers may come in another order. Only what is
in the guest's standard library is used; agent_children.py and agent_peers.py lie beside this file.
"""
import base64
import ctypes
import json
import os
import shutil
import signal
import socket
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))  # -I leaves it out
import agent_children  # noqa: E402
import agent_peers  # noqa: E402
from agent_children import read_all  # noqa: E402

PORT = "/dev/vport0p1"
SYSLOG = "/run/rig/syslog"
MARK = b"so far"                  # is not kept
MNT_DETACH = 2
libc = ctypes.CDLL(None)


class Syslog(threading.Thread):
    """Listens on /dev/log and keeps one line a datagram."""

    def __init__(self):
        super().__init__(daemon=True)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind("/dev/log")
        os.chmod("/dev/log", 0o666)
        open(SYSLOG, "ab").close()
        self.marked, self.one = threading.Event(), threading.Lock()

    def catch_up(self):
        """Waits until all that was sent before is in the file."""
        with self.one, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
            self.marked.clear()
            s.sendto(MARK, "/dev/log")
            self.marked.wait(30)

    def run(self):
        while True:
            data = self.sock.recv(65536)
            if data == MARK:
                self.marked.set()
                continue
            with open(SYSLOG, "ab") as f:
                f.write(data.rstrip(b"\n\0").replace(b"\n", b"\\n") + b"\n")


_syslog = None        # where systemd is process 1


def op_syslog_catch_up(q):
    if _syslog:
        _syslog.catch_up()
    return {}


_before = {}          # path of a file that op_put made -> what was there before, or None


def op_put(q):
    """Makes or replaces a file, in pieces; the last one gives it its name."""
    path = q["path"]
    os.makedirs(os.path.dirname(path) or "/", exist_ok=True)
    if path not in _before:
        _before[path] = None
        if os.path.lexists(path):
            _before[path] = "/run/rig/before-%d" % len(_before)
            shutil.copy2(path, _before[path], follow_symlinks=False)
    new = path + ".rig-new"
    first = q.get("offset", 0) == 0
    fd = os.open(new, os.O_WRONLY | os.O_CREAT | (os.O_TRUNC if first else os.O_APPEND), 0o600)
    with os.fdopen(fd, "wb") as f:
        f.write(base64.b64decode(q["data"]))
    if q.get("last", True):
        os.chmod(new, q.get("mode", 0o644))
        os.rename(new, path)
    return {}


def remove(path):
    """Removes a file or a folder with all that is in it, if it is there."""
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.unlink(path)


def op_remove(q):
    remove(q["path"])
    return {}


def op_reset(q):
    """Ends what tests left: shell commands, mounts below /mnt, swap, the files they put and the
    daemon's own; with "volumes" md arrays and device-mapper volumes too."""
    agent_children.end_sessions()
    for line in reversed(read_all("/proc/mounts").splitlines()):
        place = os.fsdecode(line.split()[1]).encode().decode("unicode_escape")
        if place.startswith("/mnt/"):
            libc.umount2(place.encode("latin-1"), MNT_DETACH)
    for line in read_all("/proc/swaps").splitlines()[1:]:
        libc.swapoff(line.split()[0])
    for path, before in _before.items():
        remove(path)
        if before:
            shutil.move(before, path)
    _before.clear()
    for path in ["/var/quarryd"] + ["/mnt/" + name for name in os.listdir("/mnt")]:
        remove(path)
    op_syslog_catch_up({})
    open(SYSLOG, "wb").close()
    names = os.listdir("/sys/block") if q.get("volumes") else []
    if any(name.startswith("dm-") for name in names):
        agent_children.op_sh({"cmd": "dmsetup remove_all"})
    for name in names:
        if name.startswith("md"):
            agent_children.op_sh({"cmd": "mdadm -q --stop /dev/" + name})
    return {}


def op_write(q):
    """Writes in place (device nodes, sysfs files)."""
    fd = os.open(q["path"], os.O_WRONLY)
    try:
        data = base64.b64decode(q["data"])
        if q.get("offset"):
            os.lseek(fd, q["offset"], os.SEEK_SET)
        while data:
            data = data[os.write(fd, data):]
    finally:
        os.close(fd)
    return {}


def op_get(q):
    with open(q["path"], "rb") as f:
        if q.get("offset"):
            f.seek(q["offset"])
        data = f.read(q.get("length", 1 << 19))
    return {"data": base64.b64encode(data).decode()}


def op_blocks(q):
    """Every whole block device: name, sysfs path, size, ATA port, and its partitions by number.
    Reads nothing from the drives."""
    rows = []
    for name in sorted(os.listdir("/sys/block")):
        try:
            rows.append(_block_row(name))
        except FileNotFoundError:
            pass                                  # pulled at this very moment
    return {"blocks": rows}


def _block_row(name):
    real = os.path.realpath("/sys/block/" + name)
    parts = [(int(read_all(real + "/" + part + "/partition") or b"0"), part)
             for part in os.listdir(real) if part.startswith(name)]
    row = {"name": name, "path": real, "port": "", "parts": [p for n, p in sorted(parts) if n],
           "size": int(read_all(real + "/size") or b"0") * 512}
    ata = [p for p in real.split("/") if p.startswith("ata") and p[3:].isdigit()]
    if ata:
        up = real[:real.index("/" + ata[0] + "/")] + "/" + ata[0]
        row["port"] = read_all("%s/ata_port/%s/port_no" % (up, ata[0])).decode().strip()
    return row


def op_poweroff(q):
    os.sync()
    libc.reboot(0x4321FEDC)
    return {}


OPERATIONS = {name[3:]: function
              for module in (sys.modules[__name__], agent_children, agent_peers)
              for name, function in vars(module).items() if name.startswith("op_")}


def serve(fd):
    """Reads requests from the port for ever."""
    out_lock = threading.Lock()

    def answer(message):
        data = json.dumps(message).encode() + b"\n"
        with out_lock:
            view = memoryview(data)
            while view:
                try:
                    n = os.write(fd, view[:32768])
                except BlockingIOError:
                    time.sleep(0.001)
                    continue
                view = view[n:]

    def work(q):
        n = q.pop("n", None)
        try:
            reply = OPERATIONS[q.pop("op")](q)
        except OSError as e:
            reply = {"error": "%s: %s" % (type(e).__name__, e), "errno": e.errno}
        except Exception as e:
            reply = {"error": "%s: %s" % (type(e).__name__, e)}
        reply["n"] = n
        answer(reply)

    answer({"n": 0, "hello": read_all("/proc/uptime").split()[0].decode()})
    rest = b""
    while True:
        try:
            data = os.read(fd, 1 << 17)
        except InterruptedError:
            continue
        if not data:                      # the host side is not connected
            time.sleep(0.01)
            continue
        rest += data
        while b"\n" in rest:
            line, rest = rest.split(b"\n", 1)
            try:
                q = json.loads(line)
            except ValueError:
                continue
            threading.Thread(target=work, args=(q,), daemon=True).start()


def main():
    global _syslog
    os.makedirs("/run/rig", exist_ok=True)
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
    agent_children.reaper.start()
    if os.getpid() == 1:
        _syslog = Syslog()
        _syslog.start()
    end = time.monotonic() + 100
    for path in ("/run/rig/modules-loaded", PORT):
        while not os.path.exists(path):
            if time.monotonic() > end:
                sys.exit("agent: there is no " + path)
            time.sleep(0.005)
    serve(os.open(PORT, os.O_RDWR))


if __name__ == "__main__":
    main()
