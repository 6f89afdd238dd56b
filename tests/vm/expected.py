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
PARTITION_TYPES = {"83": "#83 Linux", "c": "#0C DOS/Windows", "fd": "#FD RAID", "5": "#05 extended"}


class Row:
    """One line of a listing. parent is None for a drive."""

    def __init__(self, dev, type, connection, label, capacity, model, filesystem, parent=None):
        self.dev, self.type, self.connection, self.label = dev, type, connection, label
        self.capacity, self.model, self.filesystem, self.parent = capacity, model, filesystem, parent
        self.place = self.raid = ""


def machine_rows(vm):
    """The rows of every drive and partition, in the listings' order."""
    out = vm.sh("lsblk -J -b -l -e 7,1 -o KNAME,PKNAME,TYPE,SIZE,TRAN").out
    entries = {e["kname"]: e for e in json.loads(out)["blockdevices"]}
    root = vm.sh("findmnt -n -o SOURCE /").out.strip().removeprefix("/dev/")
    members = set(re.findall(r"(\w+)\[\d+\]", vm.text("/proc/mdstat")))
    plugged = {vm.node(id): slot.disk for id, slot in vm.slots.items() if vm.present(id)}
    drives, rows = {}, []
    for name, entry in sorted(entries.items(), key=lambda item: item[1]["type"] == "part"):
        label, filesystem = ("", " ") if name in members else _label(vm, name)
        if entry["type"] == "part":
            drive = drives[entry["pkname"]]
            row = Row(name, "Partition", drive.connection, label, entry["size"],
                      _partition_model(vm, drive.dev, name), filesystem, drive)
        else:
            row = drives[name] = Row(name, *_drive(vm, entry, plugged.get(name), label), filesystem)
        row.raid = "Active RAID" if name in members else ""
        row.place = "Boot" if name in (root, root[:3]) else ""
        rows.append(row)
    return sorted(rows, key=lambda r: ((r.parent or r).dev, r.parent is not None, r.dev))


def _label(vm, name):
    """(label, filesystem) after a label probe; a blank stands for a probe that found none."""
    out = vm.sh("for tag in LABEL TYPE; do echo \"$(blkid -p -s $tag -o value /dev/%s)\"; done"
                % name)
    if "No medium" in out.err:
        return "", ""                   # an empty drive is not probed
    label, kind = out.out.splitlines()
    return label, VOCABULARY.get(kind, kind) or " "


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


def _partition_model(vm, drive, name):
    number = re.search(r"\d+$", name).group()
    table = json.loads(vm.sh("sfdisk -J /dev/" + drive).out)["partitiontable"]
    if table["label"] == "gpt":             # seen through its protective record, which has one slot
        return "meh" if number == "1" else ""
    for part in table["partitions"]:
        if part["node"] == "/dev/" + name:
            return PARTITION_TYPES.get(part["type"], "meh")
    raise AssertionError("sfdisk knows no " + name)


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
