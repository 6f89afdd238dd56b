"""A FUSE server that answers until SIGUSR1 and never again: mute_server.py SOURCE MOUNTPOINT.

Every name but "folder" in its root is a file that anybody may write; "folder" is a directory. The
files "dies-at-lookup", "dies-at-open", "dies-at-read" and "dies-at-close" are like a drive that
breaks there: they hold zeros, and that request is never answered.
Prints "ready" when it is mounted, and "mute" when it has fallen silent.
"""

import ctypes
import errno
import os
import select
import signal
import stat
import struct
import sys

LOOKUP, GETATTR, OPEN, READ, RELEASE, FLUSH, INIT = 1, 3, 14, 15, 18, 25, 26
OPENDIR, RELEASEDIR, ACCESS = 27, 29, 34
ROOT, FILE, FOLDER = 1, 2, 3
DYING_SIZE = 1 << 20
DYING = {"dies-at-lookup": (4, LOOKUP), "dies-at-open": (5, OPEN), "dies-at-read": (6, READ),
         "dies-at-close": (7, FLUSH)}

mute = False


def fall_silent(*_arguments):
    global mute
    mute = True
    print("mute", flush=True)


def attributes(node):
    mode = stat.S_IFDIR | 0o755 if node in (ROOT, FOLDER) else stat.S_IFREG | 0o666
    size = DYING_SIZE if node > FOLDER else 0
    return struct.pack("<6Q10I", node, size, 0, 0, 0, 0, 0, 0, 0, mode, 1, 0, 0, 0, 4096, 0)


def answer(opcode, node, body):
    """(error, bytes) for one request, or None; attributes hold for no time at all."""
    if (node, opcode) in DYING.values():
        return None
    if opcode == INIT:
        return 0, struct.pack("<4I2H2I2H8I", 7, 31, 0, 0, 8, 8, 4096, 1, 1, 0, *[0] * 8)
    if opcode == GETATTR:
        return 0, struct.pack("<QII", 0, 0, 0) + attributes(node)
    if opcode == LOOKUP:
        name = body.rstrip(b"\0").decode()
        found = FOLDER if name == "folder" else DYING.get(name, (FILE,))[0]
        if name == "dies-at-lookup":
            return None
        return 0, struct.pack("<4Q2I", found, 0, 0, 0, 0, 0) + attributes(found)
    if opcode in (OPEN, OPENDIR):
        return 0, struct.pack("<QII", 0, 0, 0)
    if opcode == READ:
        return 0, bytes(struct.unpack_from("<QQI", body)[2])
    if opcode in (ACCESS, RELEASE, RELEASEDIR):
        return 0, b""
    return -errno.ENOSYS, b""


def main():
    source, mountpoint = sys.argv[1:]
    device = os.open("/dev/fuse", os.O_RDWR | os.O_NONBLOCK)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other"
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(source.encode(), mountpoint.encode(), b"fuse", 6, options.encode()) < 0:
        sys.exit(os.strerror(ctypes.get_errno()))
    # A signal that comes just before a call that waits would not be seen before the call returns.
    waker, wakened = os.pipe2(os.O_NONBLOCK)[::-1]
    signal.set_wakeup_fd(waker)
    signal.signal(signal.SIGUSR1, fall_silent)
    while True:
        if wakened in select.select([device, wakened], [], [])[0]:
            os.read(wakened, 1)
        try:
            request = os.read(device, 1 << 17)
        except BlockingIOError:
            continue
        _length, opcode, unique, node = struct.unpack_from("<IIQQ", request)
        answered = None if mute else answer(opcode, node, request[40:])
        if answered is None:
            continue
        error, body = answered
        os.write(device, struct.pack("<IiQ", 16 + len(body), error, unique) + body)
        if opcode == INIT:
            print("ready", flush=True)


main()
