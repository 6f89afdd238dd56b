"""A FUSE server that answers until SIGUSR1 and never again: mute_server.py SOURCE MOUNTPOINT.

Every name but "folder" in its root is a file that anybody may write; "folder" is a directory.
Prints "ready" when it is mounted, and "mute" when it has fallen silent.
"""

import ctypes
import errno
import os
import signal
import stat
import struct
import sys

LOOKUP, GETATTR, OPEN, RELEASE, INIT, OPENDIR, RELEASEDIR, ACCESS = 1, 3, 14, 18, 26, 27, 29, 34
ROOT, FILE, FOLDER = 1, 2, 3

mute = False


def fall_silent(*_arguments):
    global mute
    mute = True
    print("mute", flush=True)


def attributes(node):
    mode = stat.S_IFREG | 0o666 if node == FILE else stat.S_IFDIR | 0o755
    return struct.pack("<6Q10I", node, 0, 0, 0, 0, 0, 0, 0, 0, mode, 1, 0, 0, 0, 4096, 0)


def answer(opcode, node, body):
    """(error, bytes) for one request; attributes hold for no time at all."""
    if opcode == INIT:
        return 0, struct.pack("<4I2H2I2H8I", 7, 31, 0, 0, 8, 8, 4096, 1, 1, 0, *[0] * 8)
    if opcode == GETATTR:
        return 0, struct.pack("<QII", 0, 0, 0) + attributes(node)
    if opcode == LOOKUP:
        found = FOLDER if body.rstrip(b"\0") == b"folder" else FILE
        return 0, struct.pack("<4Q2I", found, 0, 0, 0, 0, 0) + attributes(found)
    if opcode in (OPEN, OPENDIR):
        return 0, struct.pack("<QII", 0, 0, 0)
    if opcode in (ACCESS, RELEASE, RELEASEDIR):
        return 0, b""
    return -errno.ENOSYS, b""


def main():
    source, mountpoint = sys.argv[1:]
    device = os.open("/dev/fuse", os.O_RDWR)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other"
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(source.encode(), mountpoint.encode(), b"fuse", 6, options.encode()) < 0:
        sys.exit(os.strerror(ctypes.get_errno()))
    signal.signal(signal.SIGUSR1, fall_silent)
    while True:
        request = os.read(device, 1 << 17)
        _length, opcode, unique, node = struct.unpack_from("<IIQQ", request)
        if mute:
            continue
        error, body = answer(opcode, node, request[40:])
        os.write(device, struct.pack("<IiQ", 16 + len(body), error, unique) + body)
        if opcode == INIT:
            print("ready", flush=True)


main()
