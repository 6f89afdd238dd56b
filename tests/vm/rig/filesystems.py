"""Partition tables and file systems, made in the guest."""
import os
import re

from . import host


class FileSystems:
    """The part of a VM that formats its drives."""

    def partition(self, id, table="dos", parts=()):
        """Writes a partition table. parts: (size, type) each; size in bytes, a text like "10M",
        or None for the rest; type as sfdisk takes it ("83", "c", a GUID or its short name) or
        None. table "apm": an Apple partition map, type = the entry's type text. Returns the
        partitions' kernel names."""
        name = self.node(id)
        if table == "apm":
            self._write_apple_map(name, parts)
            return self.parts(id, len(parts) + 1)
        lines = ["label: " + table]
        for size, kind in parts:
            fields = []
            if size is not None:
                fields.append("size=" + ("%dKiB" % (size >> 10) if isinstance(size, int) else size))
            if kind:
                fields.append("type=%s" % kind)
            lines.append(", ".join(fields) or ",")
        self.put("/run/rig/sfdisk", "\n".join(lines) + "\n")
        self.sh("sfdisk -q --wipe always --wipe-partitions always /dev/%s </run/rig/sfdisk" % name)
        return self.parts(id, len(parts))

    def parts(self, id, count=0, timeout=30):
        """The names of a disk's partitions, by number; waits until there are count of them."""
        name = self.node(id)

        def look():
            return next((row["parts"] for row in self._rows() if row["name"] == name), [])
        if not count:
            return look()
        return self.wait_until(lambda: (lambda rows: rows if len(rows) >= count else None)(look()),
                               timeout, "%d partitions of %s" % (count, name))

    def _write_apple_map(self, name, parts):
        sectors = int(self.text("/sys/block/%s/size" % name))
        entries = [(b"Apple", b"Apple_partition_map", 1, 63)]
        start = 64
        for n, (size, kind) in enumerate(parts):
            if isinstance(size, str):
                size = int(size[:-1]) << {"K": 10, "M": 20, "G": 30}[size[-1]]
            blocks = sectors - start if size is None else size // 512
            entries.append((b"part%d" % (n + 1), (kind or "Apple_HFS").encode(), start, blocks))
            start += blocks
        data = bytearray(512 * 64)
        data[0:8] = b"ER" + (512).to_bytes(2, "big") + sectors.to_bytes(4, "big")
        for n, (label, kind, first, blocks) in enumerate(entries):
            e = (b"PM\0\0" + len(entries).to_bytes(4, "big") + first.to_bytes(4, "big")
                 + blocks.to_bytes(4, "big") + label.ljust(32, b"\0") + kind.ljust(32, b"\0")
                 + bytes(4) + blocks.to_bytes(4, "big") + (0x37).to_bytes(4, "big"))
            data[512 * (n + 1):512 * (n + 1) + len(e)] = e
        self.write("/dev/" + name, bytes(data))
        self.sh("blockdev --flushbufs /dev/%s; blockdev --rereadpt /dev/%s" % (name, name))

    def fs(self, id, kind, label=None, part=None):
        """Makes a file system on a disk (or its partition number part). Returns the kernel name
        of what it is on."""
        name = self.node(id)
        if part is not None:
            name = next(p for p in self.parts(id)
                        if re.search(r"\D(\d+)$", p).group(1) == str(part))
        self.mkfs("/dev/" + name, kind, label)
        return name

    def mkfs(self, path, kind, label=None):
        """Makes a file system on a device node or file of the guest."""
        if kind == "hfs+":
            with open(os.path.join(host.HERE, "mkhfsplus.py"), "rb") as f:
                self.put("/run/rig/mkhfsplus.py", f.read())
        self.sh(mkfs_command(path, kind, label), timeout=120)


def mkfs_command(path, kind, label, folder=None):
    """The shell command that makes a file system (in the guest, or in the image's tree). hfs+
    wants mkhfsplus.py in /run/rig. folder: what an ext file system is to hold."""
    if folder and not kind.startswith("ext"):
        raise ValueError("only ext file systems are made with files")
    def quote(text):
        return "'" + text.replace("'", "'\\''") + "'"
    p = quote(path)
    wipe = "wipefs -q -a -f %s; " % p

    def with_label(option):
        return "%s%s" % (option, quote(label)) if label else ""
    if kind in ("ext2", "ext3", "ext4"):
        files = "-d %s " % quote(folder) if folder else ""
        return wipe + "mkfs.%s -q -F %s%s %s" % (kind, files, with_label("-L "), p)
    if kind == "xfs":      # the three settings let mkfs.xfs make file systems below 300 MB
        return "TEST_DIR=/x TEST_DEV=/x QA_CHECK_FS=1 mkfs.xfs -q -f %s %s" % (with_label("-L "), p)
    if kind == "btrfs":    # -M: file systems below 109 MB
        return "mkfs.btrfs -q -f -M %s %s" % (with_label("-L "), p)
    if kind == "vfat":
        return wipe + "mkfs.vfat -I %s %s" % (with_label("-n "), p)
    if kind == "udf":
        return wipe + "mkudffs -b 512 --media-type=hd --bootarea=erase %s %s" % (
            with_label("--label="), p)
    if kind == "iso9660":
        return (wipe + "d=$(mktemp -d) && echo quarry >$d/readme.txt && "
                "genisoimage -quiet -J -R %s -o $d.iso $d && "
                "dd if=$d.iso of=%s bs=1M conv=notrunc,fsync status=none && rm -rf $d $d.iso"
                % (with_label("-V "), p))
    if kind == "ntfs":
        return wipe + "mkntfs -q -Q -F %s %s" % (with_label("-L "), p)
    if kind == "exfat":
        return wipe + "mkfs.exfat %s %s" % (with_label("-L "), p)
    if kind == "reiserfs":
        return "mkreiserfs -q -f -f %s %s" % (with_label("-l "), p)
    if kind == "hfs":
        return wipe + "hformat -f %s %s" % (with_label("-l "), p)
    if kind == "hfs+":
        return wipe + "python3 /run/rig/mkhfsplus.py %s %s" % (p, quote(label or ""))
    if kind == "swap":
        return "mkswap -q %s %s" % (with_label("-L "), p)
    raise ValueError("unknown file system %r" % kind)
