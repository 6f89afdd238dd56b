"""A FUSE server that answers for a while and never again: silent_fuse.py SOURCE MOUNTPOINT [flush].

Serves a folder with one file, "file". SIGUSR1 makes it fall silent: from then on it reads no
request, so that whoever asks the filesystem for anything waits until the mount is gone. With
"flush" it wants to be told of every close, so that a process with an open file cannot even die:
the kernel waits for the answer. It prints "mounted" and "silent"."""
import ctypes
import errno
import os
import signal
import stat
import struct
import sys
import time

LOOKUP, FORGET, GETATTR, OPEN, READ, RELEASE, FLUSH = 1, 2, 3, 14, 15, 18, 25
INIT, OPENDIR, READDIR, RELEASEDIR, BATCH_FORGET, ACCESS = 26, 27, 28, 29, 42, 34
STATFS = 17

source, mountpoint = sys.argv[1:3]
flush = sys.argv[3:] == ["flush"]
silent = False


def fall_silent(signo, frame):
    global silent
    silent = True


def attributes(node):
    mode = stat.S_IFDIR | 0o755 if node == 1 else stat.S_IFREG | 0o644
    return struct.pack("<6Q10I", node, 4096 * (node != 1), 8, 0, 0, 0,
                       0, 0, 0, mode, 1, 0, 0, 0, 4096, 0)


def reply(opcode, node, body):
    """The reply's bytes, or a negative error number; None when there is none to send."""
    if opcode == INIT:
        return struct.pack("<4IHH3I28x", 7, 31, 0, 0, 12, 10, 65536, 1, 0)
    if opcode in (FORGET, BATCH_FORGET):
        return None
    if opcode == GETATTR:
        return struct.pack("<QII", 0, 0, 0) + attributes(node)     # valid for no time at all
    if opcode == LOOKUP:
        if body.rstrip(b"\0") != b"file":
            return -errno.ENOENT
        return struct.pack("<QQQQII", 2, 0, 0, 0, 0, 0) + attributes(2)
    if opcode in (OPEN, OPENDIR):
        return struct.pack("<QII", 1, 0, 0)
    if opcode == READ:
        return b"x" * 100
    if opcode == STATFS:
        return struct.pack("<5Q4I24x", 0, 0, 0, 0, 0, 4096, 255, 4096, 0)
    if opcode in (RELEASE, RELEASEDIR, ACCESS, READDIR) or opcode == FLUSH and flush:
        return b""
    return -errno.ENOSYS


def main():
    signal.signal(signal.SIGUSR1, fall_silent)
    signal.siginterrupt(signal.SIGUSR1, True)
    fuse = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
    options = "fd=%d,rootmode=40000,user_id=0,group_id=0,allow_other" % fuse
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(source.encode(), mountpoint.encode(), b"fuse", 0, options.encode()):
        sys.exit("mount: " + os.strerror(ctypes.get_errno()))
    os.write(1, b"mounted\n")
    os.set_blocking(fuse, False)
    while not silent:
        try:
            request = os.read(fuse, 1 << 17)
        except BlockingIOError:
            time.sleep(0.01)
            continue
        except OSError:                    # the mount is gone
            return
        _, opcode, unique, node = struct.unpack_from("<IIQQ", request)
        answer = reply(opcode, node, request[40:])
        if answer is None:
            continue
        error, data = (answer, b"") if isinstance(answer, int) else (0, answer)
        os.write(fuse, struct.pack("<IiQ", 16 + len(data), error, unique) + data)
    os.write(1, b"silent\n")
    time.sleep(3600)


main()
