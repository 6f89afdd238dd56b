"""The guest agent's clients of the daemon: connections made by processes of any user."""
import array
import base64
import errno
import os
import signal
import socket
import struct
import threading
import time

from agent_children import fork_lock, read_all, reaper

SOCKET_NAME = b"\0quarryd"

_handles = {}                     # number -> (connected socket, control socket)
_handle_count = 0
_lock = threading.Lock()


def _connect_as(uid, gid, theirs):
    """In the forked peer: connects with those real, effective and saved ids and hands the socket
    over, then lives without it until its control socket is closed."""
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    os.setsid()
    # No other handle's socket may live on in this process: its close must be the last.
    keep = theirs.fileno()
    os.closerange(3, keep)
    os.closerange(keep + 1, 4096)
    if uid or gid:
        os.setgroups([])
        os.setresgid(gid, gid, gid)
        os.setresuid(uid, uid, uid)
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    # A full backlog blocks connect; a socket with a Python time-out would get EAGAIN instead.
    s.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", 30, 0))
    try:
        s.connect(SOCKET_NAME)
    except OSError as e:
        theirs.send(struct.pack("i", e.errno or errno.ETIMEDOUT))
        return
    s.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", 0, 0))
    theirs.sendmsg([struct.pack("i", 0)],
                   [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [s.fileno()]))])
    s.close()
    theirs.recv(1)


def _start_peer(uid, gid):
    """(connected socket, control socket, pid of the peer)"""
    ours, theirs = socket.socketpair()
    with fork_lock:
        reaper.forget()
        pid = os.fork()
        if pid == 0:
            try:
                _connect_as(uid, gid, theirs)
            finally:
                os._exit(0)
        reaper.register(pid)
    theirs.close()
    data, anc, _, _ = ours.recvmsg(4, socket.CMSG_LEN(4))
    number = struct.unpack("i", data)[0] if len(data) == 4 else errno.ECONNABORTED
    if number:
        ours.close()
        raise OSError(number, os.strerror(number))
    fd = array.array("i", anc[0][2][:4])[0]
    return socket.socket(fileno=fd), ours, pid


def op_connect(q):
    global _handle_count
    s, control, pid = _start_peer(q.get("uid", 0), q.get("gid", 0))
    with _lock:
        _handle_count += 1
        handle = _handle_count
        _handles[handle] = (s, control)
    return {"handle": handle, "pid": pid}


def op_send(q):
    s = _handles[q["handle"]][0]
    s.settimeout(q.get("timeout", 10))
    s.sendall(base64.b64decode(q["data"]))
    return {}


def op_shutdown(q):
    _handles[q["handle"]][0].shutdown(q.get("how", socket.SHUT_WR))
    return {}


def op_recv(q):
    """One recv; "data" is empty with "eof" at the end of the stream, with "timed_out" when
    nothing came."""
    s = _handles[q["handle"]][0]
    s.settimeout(max(q.get("timeout", 10), 0.001))
    try:
        data = s.recv(q.get("size", 65536))
    except (socket.timeout, BlockingIOError):
        return {"data": "", "eof": False, "timed_out": True}
    return {"data": base64.b64encode(data).decode(), "eof": not data, "timed_out": False}


def op_close(q):
    for s in _handles.pop(q["handle"]):
        s.close()
    return {}


def _complete(data):
    """True when the bytes hold a whole reply: a line that does not begin "OK-", with its end."""
    lines = data.split(b"\n")
    return any(not line.startswith(b"OK-") for line in lines[:-1])


def op_request(q):
    """One request on a connection of its own; "problem" is None when a whole reply came."""
    end = time.monotonic() + q.get("timeout", 60)
    s, control, _ = _start_peer(q.get("uid", 0), q.get("gid", 0))
    data, problem = b"", None
    try:
        s.sendall(base64.b64decode(q["data"]))
        while not _complete(data):
            s.settimeout(max(end - time.monotonic(), 0.001))
            try:
                more = s.recv(65536)
            except socket.timeout:
                problem = "timeout"
                break
            except ConnectionError as e:
                problem = str(e)
                break
            if not more:
                problem = "end of stream"
                break
            data += more
    finally:
        s.close()
        control.close()
    return {"data": base64.b64encode(data).decode(), "problem": problem}


def _listening():
    for line in read_all("/proc/net/unix").splitlines()[1:]:
        f = line.split()
        if len(f) >= 8 and f[7] == b"@quarryd" and int(f[3], 16) & 0x10000:
            return True
    return False


def op_wait_listening(q):
    """Waits until somebody listens on the daemon's socket (no connection is made) or pid ends."""
    end = time.monotonic() + q.get("timeout", 30)
    while True:
        if _listening():
            return {"listening": True, "rc": None}
        rc = reaper.wait(q["pid"], 0) if q.get("pid") else None
        if rc is not None or time.monotonic() > end:
            return {"listening": False, "rc": rc}
        time.sleep(0.02)
