"""Writes numbered blocks: block_writer.py FILE ACKNOWLEDGED. Each is synced before its number goes,
as text, into the file ACKNOWLEDGED. Ends at the first error.

block_writer.py --check FILE prints how many blocks from the first on are there and right."""
import hashlib
import os
import sys

SIZE = 4096


def block(number):
    head = b"block %08d " % number
    body = (head * SIZE)[:SIZE - 64]
    return body + hashlib.sha256(body).hexdigest().encode()


def write(path, acknowledged):
    out = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    note = os.open(acknowledged, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    number = 0
    while True:
        if os.write(out, block(number)) != SIZE:
            sys.exit("short write")
        os.fsync(out)
        number += 1
        os.pwrite(note, b"%08d\n" % number, 0)


def check(path):
    count = 0
    with open(path, "rb") as f:
        while f.read(SIZE) == block(count):
            count += 1
    print(count)


if sys.argv[1] == "--check":
    check(sys.argv[2])
else:
    write(*sys.argv[1:])
