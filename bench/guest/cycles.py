#!/usr/bin/python3
"""In the guest: cycles.py WAY DEVICE TYPE COUNT mounts and unmounts so often and prints, as JSON, a
list of [seconds to mount, seconds to unmount]. WAY: calls, mount8, quarryd, udisks2, or help (asks
the daemon for its help twice instead)."""

import ctypes
import json
import os
import socket
import sys
import time

MS_NOSUID, MS_NODEV = 2, 4
POINT = "/run/bench-point"
libc = ctypes.CDLL(None, use_errno=True)


def checked(result):
    if result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def call_mount(device, kind):
    checked(libc.mount(device.encode(), POINT.encode(), kind.encode(), MS_NOSUID | MS_NODEV, None))


def call_umount(_device, _kind):
    checked(libc.umount2(POINT.encode(), 0))


def run(*words):
    pid = os.posix_spawn(words[0], words, os.environ,
                         file_actions=[(os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0)])
    status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    if status:
        raise SystemExit("%s: status %d" % (" ".join(words), status))


def ask(request):
    with socket.socket(socket.AF_UNIX) as s:
        s.connect("\0quarryd")
        s.sendall(request.encode() + b"\n")
        reply = b""
        while b"\nOK " not in b"\n" + reply and b"\nERR " not in b"\n" + reply:
            data = s.recv(65536)
            if not data:
                break
            reply += data
    if not reply.startswith((b"OK mount succeeded", b"OK unmount succeeded", b"OK-Valid")):
        raise SystemExit("%s: %r" % (request, reply))


WAYS = {
    "calls": (call_mount, call_umount),
    "mount8": (lambda device, kind: run("/bin/mount", "-t", kind, "-o", "nosuid,nodev", device, POINT),
               lambda device, kind: run("/bin/umount", POINT)),
    "quarryd": (lambda device, kind: ask("mount rw " + device),
                lambda device, kind: ask("umount " + device)),
    "udisks2": (lambda device, kind: run("/usr/bin/udisksctl", "mount", "-b", device),
                lambda device, kind: run("/usr/bin/udisksctl", "unmount", "-b", device)),
    "help": (lambda device, kind: ask("help"), lambda device, kind: ask("help")),
}


def main():
    way, device, kind, count = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
    os.makedirs(POINT, exist_ok=True)
    times = []
    for _ in range(count):
        marks = [time.perf_counter()]
        for step in WAYS[way]:
            step(device, kind)
            marks.append(time.perf_counter())
        times.append((marks[1] - marks[0], marks[2] - marks[1]))
    print(json.dumps(times))


main()
