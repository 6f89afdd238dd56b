"""Bytes that the daemon looks for on drives: partition tables and md superblocks."""

import struct

SECTOR = 512


def mbr(types, status=(0, 0, 0, 0), signature=b"\x55\xaa"):
    """A DOS master boot record with up to four partition types."""
    sector = bytearray(SECTOR)
    for slot, kind in enumerate(types):
        sector[446 + 16 * slot] = status[slot]
        sector[446 + 16 * slot + 4] = kind
    sector[510:] = signature
    return bytes(sector)


def apple_entry(count, start, name, kind):
    """One sector of an Apple partition map."""
    entry = struct.pack(">2sxxII4x32s32s", b"PM", count, start, name.encode(), kind.encode())
    return entry.ljust(SECTOR, b"\0")


def apple_map(entries, count=None, start=1):
    """Sectors 0 and up of a drive with an Apple map of (name, type) entries."""
    count = len(entries) if count is None else count
    sectors = [bytes(SECTOR)]
    for name, kind in entries:
        sectors.append(apple_entry(count, start, name, kind))
    return b"".join(sectors)


def md_superblock(major=1, minor=2, magic=0xA92B4EFC):
    """The head of an md superblock, in a block of 4096 bytes."""
    return struct.pack("<III", magic, major, minor).ljust(4096, b"\0")
