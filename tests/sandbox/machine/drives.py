"""Drives of the made-up machine: the sysfs tree, the nodes in /dev and the kernel's lists.

Every drive is a directory below /sys/devices with a link in /sys/block, as on a real machine; a
node in /dev is a sparse file of the drive's size.
"""

import os
import shutil

PCI = "/sys/devices/pci0000:00"

# How the path below the PCI root goes on for drives with SCSI names, up to the host number.
CONTROLLERS = {
    "sata": ("0000:00:1f.2", "ata{n}/host{n}", "ahci"),
    "usb": ("0000:00:14.0", "usb{n}/{n}-1/{n}-1:1.0/host{n}", "xhci_hcd"),
    "firewire": ("0000:00:0c.0", "fw-host{n}/00a0b800000{n}/00a0b800000{n}-0/host{n}", "ohci1394"),
    "firewire-behind-usb": ("0000:00:14.0", "usb{n}/{n}-1/fw-host{n}/host{n}", "xhci_hcd"),
    "scsi": ("0000:00:05.0", "host{n}", "mptspi"),
    "ide-in-scsi-clothes": ("0000:00:1f.1", "ata{n}/host{n}", "ata_piix"),
    "raid-controller-behind-bridge": ("0000:00:1c.0", "0000:03:00.0/host{n}", "pcieport"),
    "no-pci": (None, "platform/host{n}", None),
}

# Which links name the SCSI address of a drive: kernels of different ages had different ones.
CLASS_STYLES = ("scsi_disk", "scsi_device", "scsi_disk/device", "scsi_device/device", "none")


def write(path, text):
    """Writes text to path, making the directories above it."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(text if isinstance(text, bytes) else os.fsencode(text))


def link(path, target):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    os.symlink(target, path)


def _relative(target, start):
    return os.path.relpath(target, start)


class Drives:
    """Plugs drives in and pulls them out. All of it is files; nothing is told to the daemon."""

    def __init__(self):
        self.folders = {}  # name of a drive: its directory below /sys/devices
        self.partitions = {}  # name of a drive: the names of its partitions
        self.sizes = {}  # bytes, of drives and partitions
        self.extra = {}  # name of a drive: other paths that go when it goes
        self.next_host = 1
        os.makedirs("/sys/block")
        self.write_proc_partitions()

    # Drives, by what they hang on. size is in bytes.

    def plug(self, kind, name, size, **keys):
        """plug("usb", "sdb", 8 << 30, model="Stick"): a kind with a method or a controller."""
        if kind in CONTROLLERS:
            self._scsi(kind, name, size, **keys)
        else:
            getattr(self, f"_{kind}")(name, size, **keys)
        # Last, so that no poll meets a drive that lacks something.
        link(f"/sys/block/{name}", _relative(self.folders[name], "/sys/block"))
        self.write_proc_partitions()

    def _scsi(self, kind, name, size, model="", driver=None, style=None, node=True):
        address, path, usual_driver = CONTROLLERS[kind]
        number = self.next_host
        self.next_host += 1
        top = f"{PCI}/{address}" if address else "/sys/devices"
        host = f"{top}/{path.format(n=number)}"
        scsi_id = f"{number}:0:0:0"
        device = f"{host}/target{number}:0:0/{scsi_id}"
        folder = f"{device}/block/{name}"
        self._drive(name, folder, size, node)
        write(f"{device}/model", model + "\n")
        link(f"{folder}/device", f"../../../{scsi_id}")
        if style is None:
            style = "scsi_device" if name.startswith("sr") else "scsi_disk"
        self._class_links(name, device, scsi_id, style)
        if address and not os.path.islink(f"{top}/driver"):
            link(f"{top}/driver", f"../../../bus/pci/drivers/{driver or usual_driver}")

    def _class_links(self, name, device, scsi_id, style):
        if style == "none":
            return
        kind = style.split("/")[0]
        entry = f"/sys/class/{kind}/{scsi_id}"
        target = f"{device}/{kind}/{scsi_id}"
        os.makedirs(target, exist_ok=True)
        if style.endswith("/device"):  # an old kernel: a directory with a link to the device
            link(f"{entry}/device", _relative(device, entry))
        else:
            link(entry, _relative(target, os.path.dirname(entry)))
        self.extra.setdefault(name, []).append(entry)

    def _ide(self, name, size, media="disk", model="", serial="", node=True):
        folder = f"{PCI}/0000:00:1f.1/ide1/1.0/block/{name}"
        self._drive(name, folder, size, node)
        device = f"/sys/devices/ide-{name}"
        for attribute, text in (("media", media), ("model", model), ("serial", serial)):
            if text is not None:
                write(f"{device}/{attribute}", text + "\n")
        os.makedirs(device, exist_ok=True)
        link(f"{folder}/device", _relative(device, folder))
        self.extra.setdefault(name, []).append(device)

    def _mmc(self, name, size, model="", node=True):
        folder = f"/sys/devices/platform/mmc_host/{name}/block/{name}"
        self._drive(name, folder, size, node)
        write(f"{folder}/device/name", model + "\n")

    def _nvme(self, name, size, model="", serial="", node=True):
        folder = f"{PCI}/0000:00:1d.0/nvme/{name}/block/{name}"
        self._drive(name, folder, size, node)
        write(f"{folder}/device/model", model + "\n")
        write(f"{folder}/device/serial", serial + "\n")

    def _md(self, name, size, slaves="", node=True):
        folder = f"/sys/devices/virtual/block/{name}"
        self._drive(name, folder, size, node)
        os.makedirs(f"{folder}/slaves")
        for slave in filter(None, slaves.split(",")):
            link(f"{folder}/slaves/{slave}", f"../../../../{slave}")

    def _dm(self, name, size, volume="", node=True):
        folder = f"/sys/devices/virtual/block/{name}"
        self._drive(name, folder, size, node)
        write(f"{folder}/dm/name", volume + "\n")

    def _other(self, name, size, node=True):
        self._drive(name, f"/sys/devices/virtual/block/{name}", size, node)

    def _drive(self, name, folder, size, node):
        write(f"{folder}/size", f"{size // 512}\n")
        self.folders[name] = folder
        self.partitions[name] = []
        self.sizes[name] = size
        if node:
            self.node(name, size)

    def part(self, name, size, drive=None, node=True):
        """A partition; its drive is the longest known name that it begins with."""
        if drive is None:
            drive = max((d for d in self.folders if name.startswith(d)), key=len)
        self.partitions[drive].append(name)
        self.sizes[name] = size
        if node:
            self.node(name, size)
        # In one step, and last, so that no poll meets a partition that lacks something.
        write(f"{self.folders[drive]}/.{name}/size", f"{size // 512}\n")
        os.rename(f"{self.folders[drive]}/.{name}", f"{self.folders[drive]}/{name}")
        self.write_proc_partitions()

    def unplug(self, name):
        """Takes a drive with its partitions, or one partition, out of /sys and /dev."""
        if name in self.folders:
            for partition in list(self.partitions[name]):
                self._forget(partition)
            os.unlink(f"/sys/block/{name}")
            shutil.rmtree(self.folders[name])
            for path in self.extra.pop(name, []):
                if os.path.islink(path):
                    os.unlink(path)
                else:
                    shutil.rmtree(path)
            del self.folders[name], self.partitions[name]
            self._forget(name)
        else:
            for drive, names in self.partitions.items():
                if name in names:
                    shutil.rmtree(f"{self.folders[drive]}/{name}")
                    names.remove(name)
                    break
            else:
                raise ValueError(f"no such device: {name}")
            self._forget(name)
        self.write_proc_partitions()

    def _forget(self, name):
        self.sizes.pop(name, None)
        if os.path.lexists(f"/dev/{name}"):
            os.unlink(f"/dev/{name}")

    def resize(self, name, size):
        """What /sys says about the size of a drive, as when a medium goes in or comes out."""
        write(f"{self.folders[name]}/size", f"{size // 512}\n")
        self.sizes[name] = size

    def attribute(self, name, path, text):
        """Writes one attribute below a drive's own directory."""
        write(f"{self.folders[name]}/{path}", text)

    @staticmethod
    def node(name, size):
        with open(f"/dev/{name}", "wb") as file:
            file.truncate(size)

    @staticmethod
    def content(name, data, offset=0):
        """Puts bytes onto a device."""
        with open(f"/dev/{name}", "r+b") as file:
            file.seek(offset)
            file.write(data)

    def write_proc_partitions(self):
        lines = ["major minor  #blocks  name\n", "\n"]
        for minor, (name, size) in enumerate(self.sizes.items()):
            lines.append(f" {8 + minor // 256:>3} {minor % 256:>8} {size // 1024:>10} {name}\n")
        write("/proc/partitions", "".join(lines))


def big_machine(machine, drives=3000):
    """A machine whose listing is larger than a socket holds; every drive is in use."""
    names = [f"dm-{number}" for number in range(drives)]
    for name in names:
        folder = f"/sys/block/{name}"
        os.makedirs(f"{folder}/dm")
        with open(f"{folder}/size", "w") as file:
            file.write("2048\n")
        with open(f"{folder}/dm/name", "w") as file:
            file.write(f"volume-of-some-length-{name}".ljust(150, "x") + "\n")
        machine.node(name, 0)
    machine.made_up_process(1000001, fds=[f"/dev/{name}" for name in names])
