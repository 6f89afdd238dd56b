"""Images of every kind of content, made by Debian's own tools where there is one."""

import importlib.util
import os
import pathlib
import struct
import subprocess
import zlib

MIB = 1 << 20
LABEL = "DATA"

# The tools live in /usr/sbin, which an ordinary user's path leaves out.
_environment = dict(os.environ, PATH=os.environ["PATH"] + ":/usr/sbin:/sbin", LC_ALL="C.UTF-8")


def _run(*command, **environment):
    subprocess.run([str(word) for word in command], check=True, env={**_environment, **environment},
                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def blank(path, size=4 * MIB):
    with open(path, "wb") as image:
        image.truncate(size)


def write_at(path, offset, data):
    with open(path, "r+b") as image:
        image.seek(offset)
        image.write(data)


def copy(source, path):
    """The larger images are mostly holes, and stay so."""
    _run("cp", "--sparse=always", source, path)


def replace(path, old, new):
    """Puts new in place of every old, of which there must be one, of the same length."""
    data = path.read_bytes()
    assert len(old) == len(new) and old in data, old
    path.write_bytes(data.replace(old, new))


def _ext(kind):
    def make(path, label=LABEL):
        blank(path)
        _run("mke2fs", "-q", "-F", "-t", kind, "-L", label, path)

    return make


def vfat(path, label=LABEL, bits=16):
    blank(path, 64 * MIB if bits == 32 else 16 * MIB)
    _run("mkfs.vfat", "-F", bits, "-n", label, path)


def vfat32(path, label=LABEL):
    vfat(path, label, bits=32)


def ntfs(path, label=LABEL):
    blank(path)
    _run("mkntfs", "-q", "-F", "-Q", "-L", label, path)


def exfat(path, label=LABEL):
    blank(path)
    _run("mkfs.exfat", "-L", label, path)


def xfs(path, label=LABEL):
    blank(path, 320 * MIB)
    _run("mkfs.xfs", "-q", "-L", label, path)


def btrfs(path, label=LABEL):
    blank(path, 128 * MIB)
    _run("mkfs.btrfs", "-q", "-L", label, path)


def udf(path, label=LABEL):
    blank(path)
    _run("mkudffs", "-l", label, path)


def reiserfs(path, label=LABEL):
    blank(path, 48 * MIB)
    _run("mkreiserfs", "-q", "-f", "-f", "-l", label, path)


def swap(path, label=LABEL):
    blank(path)
    path.chmod(0o600)
    _run("mkswap", "-L", label, path)


def hfs(path, label=LABEL):
    blank(path)
    _run("hformat", "-l", label, path, HOME=str(path.parent))  # where it notes its volume


def hfsplus(path, label=LABEL):
    """Debian has no maker of these: the virtual machines' own is used."""
    maker = pathlib.Path(__file__).parents[1] / "vm/rig/mkhfsplus.py"
    spec = importlib.util.spec_from_file_location("mkhfsplus", maker)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    blank(path)
    module.make(str(path), label)


def _disc(*options):
    def make(path, label=LABEL):
        content = path.parent / "content"
        content.mkdir(exist_ok=True)
        (content / "a file").write_text("content\n")
        _run("genisoimage", "-quiet", *options, "-V", label, "-o", path, content)

    return make


def md_member(path, minor):
    """An ext4 filesystem inside the first half of an array of mirrors, metadata 1.0, 1.1 or 1.2."""
    FILESYSTEMS["ext4"](path)
    offset = {0: (path.stat().st_size // 512 - 16) // 8 * 8 * 512, 1: 0, 2: 4096}[minor]
    sectors = path.stat().st_size // 512
    block = bytearray(1024)
    struct.pack_into("<IIII", block, 0, 0xA92B4EFC, 1, 0, 0)
    block[16:32] = bytes(range(1, 17))  # the array's uuid
    block[32:64] = b"any:0".ljust(32, b"\0")
    struct.pack_into("<QIIQIIII", block, 64, 0, 1, 0, sectors - 2048, 0, 2, 0, 0)
    struct.pack_into("<QQQ", block, 128, 2048, sectors - 2048, offset // 512)
    struct.pack_into("<I", block, 220, 0)  # room for no device roles: they need no checksum
    total = sum(struct.unpack("<64I", block[:256]))
    struct.pack_into("<I", block, 216, ((total & 0xFFFFFFFF) + (total >> 32)) & 0xFFFFFFFF)
    write_at(path, offset, block)


def lvm_volume(path):
    """A physical volume's label, in the second sector."""
    blank(path)
    sector = bytearray(512)
    struct.pack_into("<8sQII8s", sector, 0, b"LABELONE", 1, 0, 32, b"LVM2 001")
    sector[32:64] = b"0123456789abcdefghijklmnopqrstuv"
    # LVM begins its checksum with a number of its own and does not complement the end.
    checksum = zlib.crc32(bytes(sector[20:]), 0xF597A6CF ^ 0xFFFFFFFF) ^ 0xFFFFFFFF
    struct.pack_into("<I", sector, 16, checksum)
    write_at(path, 512, sector)


def luks(path):
    blank(path)
    header = struct.pack(">6sH32s32s32sII20s32sI40s", b"LUKS\xba\xbe", 1, b"aes", b"xts-plain64",
                         b"sha256", 4096, 64, bytes(20), bytes(32), 1000,
                         b"12345678-1234-1234-1234-123456789abc")
    write_at(path, 0, header)


def partitioned(path):
    """A drive with a DOS table of one partition."""
    blank(path)
    sector = bytearray(512)
    sector[446:462] = struct.pack("<B3sB3sII", 0, b"\0\2\0", 0x83, b"\0\2\0", 2048, 2048)
    sector[510:] = b"\x55\xaa"
    write_at(path, 0, sector)


def formatted_twice(path):
    """A volume that bears the superblocks of XFS and of ext4 at the same time."""
    xfs(path)
    other = path.with_suffix(".other")
    FILESYSTEMS["ext4"](other)
    write_at(path, 1024, other.read_bytes()[1024:2048])


# Each takes a path and a label.
FILESYSTEMS = {
    "ext2": _ext("ext2"),
    "ext3": _ext("ext3"),
    "ext4": _ext("ext4"),
    "vfat": vfat,
    "vfat32": vfat32,
    "ntfs": ntfs,
    "exfat": exfat,
    "xfs": xfs,
    "btrfs": btrfs,
    "udf": udf,
    "hfs": hfs,
    "hfsplus": hfsplus,
    "reiserfs": reiserfs,
    "swap": swap,
    "iso9660": _disc(),
    "joliet": _disc("-J", "-R"),
    "udf bridge": _disc("-J", "-R", "-udf"),
    "mac hybrid": _disc("-J", "-R", "-hfs"),
}
