"""What the listings have to say of a machine, computed without the daemon: from how the rig
plugged the drives, from lsblk and blkid in the guest, and from sysfs."""
import json
import re

CONNECTIONS = {"usb": "USB", "optical-usb": "USB", "sata": "SATA", "optical-sata": "SATA",
               "virtio-scsi": "SCSI", "optical-scsi": "SCSI", "ide": "SCSI", "nvme": "NVME",
               "sd": "MMC/SD"}
DESCRIPTIONS = {  # of the groups of `enumerate`, in its order
    "IDE/PATA": "IDE PATA disk and ATAPI CD-ROM devices", "USB": "USB storage devices",
    "MMC/SD": "MMC/SD flash devices", "SCSI": "General SCSI devices",
    "SATA": "Serial ATA devices", "RAID": "RAID disk array devices",
    "1394/Firewire": "Firewire SBP devices"}
VOCABULARY = {"vfat": "fat", "hfsplus": "hfs+"}      # blkid's word: the daemon's, where they differ
PARTITION_TYPES = {"0x83": "#83 Linux", "0xc": "#0C DOS/Windows", "0xfd": "#FD RAID"}


class Row:
    """One line of a listing. parent is None for a drive."""

    def __init__(self, dev, type, connection, label, capacity, model, filesystem, parent=None):
        self.dev, self.type, self.connection, self.label = dev, type, connection, label
        self.capacity, self.model, self.filesystem = capacity, model, filesystem
        self.parent = parent
        self.place = self.raid = ""


def machine_rows(vm):
    """The rows of every drive and partition, in the listings' order."""
    out = vm.sh("lsblk -J -b -l -e 7,1 -o KNAME,PKNAME,TYPE,SIZE,TRAN").out
    entries = {e["kname"]: e for e in json.loads(out)["blockdevices"]}
    root = vm.sh("findmnt -n -o SOURCE /").out.strip().removeprefix("/dev/")
    members = set(re.findall(r"(\w+)\[\d+\]", vm.text("/proc/mdstat")))
    plugged = {vm.node(id): slot.disk for id, slot in vm.slots.items() if vm.present(id)}
    contents = _contents(vm, entries)
    drives, rows = {}, []
    for name, entry in sorted(entries.items(), key=lambda item: item[1]["type"] == "part"):
        content = contents.get(name, {})
        label, kind = content.get("LABEL", ""), content.get("TYPE", "")
        filesystem = VOCABULARY.get(kind, kind) or " "    # a blank: probed, and none found
        if name in members:
            label, filesystem = "", " "
        elif content.get("problem") == "No medium found":
            filesystem = ""                               # an empty drive is not probed
        if entry["type"] == "part":
            drive = drives[entry["pkname"]]
            row = Row(name, "Partition", drive.connection, label, entry["size"],
                      _partition_model(content), filesystem, drive)
        else:
            row = drives[name] = Row(name, *_drive(vm, entry, plugged.get(name), label), filesystem)
        row.raid = "Active RAID" if name in members else ""
        row.place = "Boot" if name in (root, root[:3]) else ""
        rows.append(row)
    return sorted(rows, key=lambda r: ((r.parent or r).dev, r.parent is not None, r.dev))


def _contents(vm, names):
    """What blkid finds on each device: {name: {"LABEL": ..., "TYPE": ...}}."""
    found = {}
    out = vm.sh("for n in %s; do blkid -p -o export /dev/$n; echo; done" % " ".join(names))
    for block in out.out.split("\n\n"):
        tags = dict(line.split("=", 1) for line in block.splitlines() if "=" in line)
        if tags:
            name = tags["DEVNAME"].removeprefix("/dev/")
            found[name] = {k: re.sub(r"\\(.)", r"\1", v) for k, v in tags.items()}
    for name, problem in re.findall(r"^blkid: error: /dev/(\w+): (.*)$", out.err, re.M):
        found[name] = {"problem": problem}
    return found


def _drive(vm, entry, disk, label):
    """type, connection, label, capacity and model of a drive; disk is what the rig plugged."""
    name = entry["kname"]

    def attribute(path):
        return vm.text("/sys/block/%s/%s" % (name, path)).rstrip("\n")
    if disk is not None and disk.bus in CONNECTIONS:
        connection = CONNECTIONS[disk.bus]
        said = {"sata": "SATA", "usb": "USB", "nvme": "NVME"}.get(entry["tran"], connection)
        assert said == connection, "lsblk says %s of %s" % (said, name)
        model = attribute("device/name" if disk.bus == "sd" else "device/model")
        if disk.bus == "nvme":
            model += " " + attribute("device/serial")
        return "CD-ROM" if disk.optical else "Hard Drive", connection, label, entry["size"], model
    if name.startswith("md"):
        return "Hard Drive", "RAID", label, entry["size"], ""
    if name.startswith("dm-"):
        return "Logical Volume", "LVM", label, entry["size"], attribute("dm/name")
    return "", "Unassigned", label, -1, ""      # virtio disks have no connection of their own


def _partition_model(content):
    if content["PART_ENTRY_SCHEME"] == "gpt":   # seen through its protective record of one slot
        return "meh" if content["PART_ENTRY_NUMBER"] == "1" else ""
    return PARTITION_TYPES.get(content["PART_ENTRY_TYPE"], "meh")


def list_text(rows):
    lines = ["OK- v3 drive list follows (dev,type,connection,label,capacity,model,place,raid,"
             "filesystem)"]
    for r in rows:
        lines.append(("OK- \t\t" if r.parent else "OK- \t") + "\t".join(
            [r.dev, r.type, r.connection, r.label, str(r.capacity), r.model, r.place, r.raid,
             r.filesystem]))
    return "\n".join(lines + ["OK  eom"]) + "\n"


def human_text(rows):
    lines = ["OK- v3 user-friendly drive list follows (dev,type,connection,label,capacity,model,"
             "place,filesystem)"]
    widths = (10, 18, 11, 20, 11, 20, 10, 10)
    for r in rows:
        columns = (r.dev, r.type, r.connection, r.label, capacity_text(r.capacity), r.model,
                   r.place, r.filesystem)
        lines.append("OK- " + " ".join(c[:w].ljust(w) for c, w in zip(columns, widths)))
    return "\n".join(lines + ["OK  eom"]) + "\n"


def enumerate_text(rows):
    lines = ["OK- list follows"]
    for connection, description in DESCRIPTIONS.items():
        group = [r for r in rows if r.connection == connection]
        if group:
            lines.append("OK-\t%s\t%s" % (connection, description))
        for r in group:
            path = "/sys/block/" + (r.parent.dev + "/" if r.parent else "") + r.dev
            lines.append(("OK-\t\t\t" if r.parent else "OK-\t\t") + "\t".join(
                ["/dev/" + r.dev, path, r.model, (r.parent or r).type, r.label, connection,
                 r.place]))
    return "\n".join(lines + ["OK  eom"]) + "\n"


def capacity_text(size):
    value, rest, unit = size % (1 << 64), None, ""
    for larger in ("KB", "MB", "GB", "TB", "PB"):
        if value > 999:
            value, rest, unit = value // 1000, value % 1000, larger
    return "%d" % value if rest is None else "%d.%03d%s" % (value, rest, unit)


def difference(vm):
    """What either the list or /sys/block names alone, less loop and memory disks."""
    listed = set(re.findall(r"^OK- \t+([^\t]+)\t", vm.request("list"), re.M))
    rows = [r for r in vm.call("blocks")["blocks"] if not re.match("loop|ram", r["name"])]
    return listed ^ set([r["name"] for r in rows] + sum((r["parts"] for r in rows), []))


# Seconds after which the daemon must have noticed what came or went. Mostly it takes one, but the
# guest's processors are emulated, and shared. Without notices or polling it would take a minute.
SOON = 20


def wait_for_agreement(vm):
    """Waits until the list agrees with /sys/block; the rescan of every minute comes too late."""
    vm.wait_until(lambda: not difference(vm), SOON, lambda: "agreement on %s" % difference(vm))
