"""Disk images made on the host in moments, before a machine runs or for hot plug and trays.

The programs are those of the image's tree, run in a chroot; no device is touched, and /proc is
mounted in a private namespace."""
import os
import shutil
import subprocess
import tempfile

from . import host
from .errors import RigError
from .filesystems import mkfs_command

_UNITS = {"K": 10, "M": 20, "G": 30}


def bytes_of(size):
    """10485760 for 10485760 or "10M"."""
    if isinstance(size, str):
        return int(size[:-1]) << _UNITS[size[-1].upper()] if size[-1].isalpha() else int(size)
    return size


class _Bench:
    """A temporary folder inside the image's tree."""

    def __enter__(self):
        host.build_image()
        self.tree = host.image_file("tree")
        self.dir = tempfile.mkdtemp(prefix="rig-", dir=os.path.join(self.tree, "tmp"))
        self.inside = "/tmp/" + os.path.basename(self.dir)
        return self

    def run(self, command):
        inner = ('mount -t proc proc "$0/proc" && mount -t tmpfs run "$0/run" && '
                 'mkdir "$0/run/rig" && cp "$2" "$0/run/rig/" && '
                 'exec chroot "$0" /bin/bash -c "$1"')
        done = subprocess.run(
            host.as_root(["unshare", "-m", "/bin/sh", "-c", inner, self.tree, command,
                          os.path.join(host.HERE, "mkhfsplus.py")]),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C"})
        if done.returncode:
            raise RigError("%s\n%s" % (command, done.stdout.decode(errors="replace")))

    def folder(self, files):
        """A folder with these files, as the tree knows it; None without any."""
        if not files:
            return None
        folder = tempfile.mkdtemp(dir=self.dir)
        _fill(folder, files)
        return self.inside + "/" + os.path.basename(folder)

    def __exit__(self, *exc):
        shutil.rmtree(self.dir, ignore_errors=True)


def _fill(folder, files):
    for name, data in files.items():
        path = os.path.join(folder, name.lstrip("/"))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data.encode() if isinstance(data, str) else data)


def iso(path, label="QUARRY", files=None):
    """An ISO 9660 image (for optical drives)."""
    with _Bench() as b:
        _fill(b.dir + "/d", files or {"readme.txt": "quarry\n"})
        b.run("genisoimage -quiet -J -R -V '%s' -o %s/o %s/d" % (label, b.inside, b.inside))
        shutil.move(b.dir + "/o", path)
    return path


def blank(path, size):
    with open(path, "wb") as f:
        f.truncate(bytes_of(size))
    return path


def fs(path, size, kind, label=None, files=None):
    """A file with one file system (no partition table). files, for ext: {path: data}."""
    with _Bench() as b:
        blank(b.dir + "/image", size)
        b.run(mkfs_command(b.inside + "/image", kind, label, b.folder(files)))
        shutil.move(b.dir + "/image", path)
    return path


def disk(path, size, parts, table="dos"):
    """A file with a partition table. parts: (size or None, type or None[, kind[, label[, files]]])
    each; kind names the file system made in it; files, for ext: {path: data}."""
    lines = ["label: " + table]
    for part in parts:
        fields = []
        if part[0] is not None:
            fields.append("size=%dKiB" % (bytes_of(part[0]) >> 10))
        if len(part) > 1 and part[1]:
            fields.append("type=" + part[1])
        lines.append(", ".join(fields) or ",")
    with _Bench() as b:
        image = blank(b.dir + "/image", size)
        with open(b.dir + "/script", "w") as f:
            f.write("\n".join(lines) + "\n")
        b.run("cd %s && sfdisk -q image <script && sfdisk -d image >dump" % b.inside)
        places = []
        with open(b.dir + "/dump") as f:
            for line in f:
                if "start=" in line:
                    fields = dict(x.strip().split("=", 1)
                                  for x in line.split(":", 1)[1].split(",") if "=" in x)
                    places.append((int(fields["start"]) * 512, int(fields["size"]) * 512))
        commands = []
        for n, (part, (start, length)) in enumerate(zip(parts, places)):
            if len(part) < 3:
                continue
            blank("%s/part%d" % (b.dir, n), length)
            label, files = (part[3:] + (None, None))[:2]
            commands.append(mkfs_command("%s/part%d" % (b.inside, n), part[2], label,
                                         b.folder(files)))
        if commands:
            b.run("set -e\n" + "\n".join(commands))
        for n, (start, _) in enumerate(places):
            if os.path.exists("%s/part%d" % (b.dir, n)):
                _copy_into(image, start, "%s/part%d" % (b.dir, n))
        shutil.move(image, path)
    return path


def two_partitions(path):
    """A disk with the partitions FIRST (ext4) and SECOND (vfat). One is made in each folder, the
    others are its copies."""
    made = os.path.join(os.path.dirname(path), "two-partitions")
    if not os.path.exists(made):
        disk(made, "64M", [("24M", "83", "ext4", "FIRST"), (None, "c", "vfat", "SECOND")])
    return shutil.copy(made, path)


def _copy_into(image, start, part):
    """Copies a file into an image at an offset and leaves holes where it is empty."""
    with open(image, "r+b") as out, open(part, "rb") as f:
        out.seek(start)
        while data := f.read(1 << 20):
            if data.count(0) == len(data):
                out.seek(len(data), 1)
            else:
                out.write(data)
