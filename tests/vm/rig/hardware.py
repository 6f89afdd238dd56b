"""The machine's hardware: its QEMU command line, and where each drive sits.

q35, two processors. Directly below the root bridge: 00:02.0 the agent's serial port, 00:03.0 the
root disk (virtio, nvme), 00:04.0 xhci, 00:05.0 virtio-scsi, 00:06.0 PATA (only with an "ide"
disk), 00:07.0 and up further controllers in the order of the disks, 00:18.0 and up PCI Express
ports for hot plug, 00:1f.2 AHCI. The root disk's controller is driven first, so that the root
disk is the first of its kind; a sata root has 00:1f.2 to itself.
"""
import json
import os
import re
import subprocess

from . import host
from .errors import RigError

BUSES = ("usb", "sata", "ide", "virtio-scsi", "virtio-blk", "nvme", "sd",
         "optical-sata", "optical-scsi", "optical-usb")

# Guest modules in the order they are loaded, after the root disk's controller.
MODULES = ("virtio_pci virtio_console sd_mod sr_mod sg virtio_scsi ahci ata_piix nvme virtio_blk "
           "sdhci_pci mmc_block usb_storage uas xhci_pci").split()

# root_bus: (kernel name of the root partition, PCI address of a controller to drive first)
ROOT_DISKS = {"virtio": ("vda1", ""), "sata": ("sda1", "0000:00:1f.2"),
              "nvme": ("nvme0n1p1", "0000:00:03.0")}


class Disk:
    """A drive of a virtual machine. bus: one of BUSES. image: a path (used in place, or with
    snapshot=True on a throw-away overlay), a size in bytes, or None (optical drive or SD slot
    without medium). attached=False: a SATA or PATA disk that is taken out before the tests."""

    def __init__(self, bus, image=None, id=None, serial=None, removable=False, readonly=False,
                 snapshot=False, attached=True):
        if bus not in BUSES:
            raise ValueError("unknown bus %r" % bus)
        if image is None and not (bus.startswith("optical-") or bus == "sd"):
            raise ValueError("a disk on %s needs an image or a size" % bus)
        if removable and bus not in ("usb", "virtio-scsi"):
            raise ValueError("QEMU can mark as removable only drives on usb and virtio-scsi")
        if readonly and bus in ("sata", "ide", "sd", "nvme"):
            raise ValueError("QEMU has no read-only drives on %s" % bus)
        self.bus, self.image, self.id, self.serial = bus, image, id, serial
        self.removable, self.readonly, self.snapshot = removable, readonly, snapshot
        self.attached = attached

    def __repr__(self):
        return "Disk(%r, %r, id=%r)" % (self.bus, self.image, self.id)

    @property
    def optical(self):
        return self.bus.startswith("optical-")


class Slot:
    """Where one disk of one machine sits. Disks are found in the guest by controller and port,
    never by an assumed letter."""

    def __init__(self, disk, path, size):
        self.disk, self.path, self.size = disk, path, size
        self.pci = None           # "0000:00:05.0": a part of the guest's sysfs path
        self.pattern = None       # regular expression on the sysfs path
        self.port = None          # ATA port number
        self.devices = []         # QEMU devices, in the order of device_add
        self.node = None          # block node's name
        self.root_port = None     # PCI Express port, of a hot-plugged drive
        self.usb_port = None
        self.plugged = False
        self.deleted_in_guest = False

    @property
    def has_node(self):
        """False for an empty SD slot: the kernel has no device for it."""
        return not (self.disk.bus == "sd" and self.path is None)


class Hardware:
    """The part of a VM that knows QEMU's arguments. Uses self.dir, self.slots and the options."""

    def _init_hardware(self):
        self.slots = {}
        # The built-in AHCI controller has six ports; a sata root keeps it to itself.
        self._ahci_next = 6 if self.root_bus == "sata" else 0
        self._ahci_pci = None
        self._usb_ports = list(range(1, 16))
        self._scsi_next = 1
        self._pci_next = 7
        self._ide_next = 0
        self._id_next = 0
        self._ports_free = [(n, "0000:00:%02x.0" % (0x18 + n)) for n in range(self.hotplug_ports)]

    def _command_line(self):
        root, first = ROOT_DISKS[self.root_bus]
        accel = self.accel or host.accelerator()
        kernel_words = ("console=ttyS0 quiet loglevel=4 panic=-1 mitigations=off nokaslr audit=0 "
                        "random.trust_cpu=on usb_storage.delay_use=0 rig.root=%s rig.bus=%s "
                        "rig.first=%s %s %s" % (root, self.root_bus, first, self.append,
                                                "rig.systemd" if self.systemd else ""))
        inside = lambda name: os.path.join(self.dir, name)  # noqa: E731
        argv = ["qemu-system-x86_64", "-name", "quarry-rig", "-nodefaults", "-no-user-config",
                "-machine", "q35,usb=off,smbus=off,hpet=off",
                "-accel", "tcg,thread=multi" if accel == "tcg" else accel,
                "-cpu", "max", "-smp", str(self.smp), "-m", str(self.mem),
                "-display", "none", "-no-reboot", "-rtc", "base=utc",
                "-kernel", host.image_file("vmlinux"), "-initrd", self._initrd(),
                "-append", kernel_words.strip(),
                "-serial", "file:" + inside("console"),
                "-qmp", "unix:%s,server=on,wait=off" % inside("qmp"),
                "-device", "virtio-serial-pci,id=rigserial,addr=0x2,max_ports=2",
                "-chardev", "socket,id=agent,server=on,wait=off,path=" + inside("agent"),
                "-device", "virtserialport,bus=rigserial.0,nr=1,chardev=agent,name=rig.agent",
                "-drive", "file=%s,format=raw,if=none,id=rigroot,snapshot=on,cache=unsafe"
                % host.image_file("root.img")]
        if self.terminal:
            argv += ["-chardev", "socket,id=terminal,server=on,wait=off,path=" + inside("terminal"),
                     "-device", "virtconsole,bus=rigserial.0,nr=0,chardev=terminal"]
        argv += ["-device", {"virtio": "virtio-blk-pci,addr=0x3,drive=rigroot,serial=rigroot",
                             "nvme": "nvme,addr=0x3,drive=rigroot,serial=rigroot",
                             "sata": "ide-hd,bus=ide.0,drive=rigroot,serial=rigroot,model=RIGROOT",
                             }[self.root_bus],
                 "-device", "qemu-xhci,id=rigusb,addr=0x4,p2=15,p3=15",
                 "-device", "virtio-scsi-pci,id=rigscsi,addr=0x5"]
        if any(d.bus == "ide" for d in self._given):
            argv += ["-device", "piix3-ide,id=rigpata,addr=0x6"]
        for n in range(self.hotplug_ports):
            argv += ["-device", "pcie-root-port,id=rigport%d,chassis=%d,slot=%d,addr=0x%x"
                     % (n, n + 1, n + 1, 0x18 + n)]
        for disk in self._given:
            slot = self._place(disk, cold=True)
            if disk.bus == "sd":
                argv += ["-drive", self._sd_drive(slot)]
            elif slot.path is not None:
                argv += ["-blockdev", json.dumps(self._node(slot))]
            for device in slot.devices:
                argv += ["-device", json.dumps(device)]
            self.slots[disk.id] = slot
        return argv

    def _initrd(self):
        """The image's initrd with the files of this boot behind it; returns its path."""
        files = {"rig/modules": ((" ".join(MODULES) + "\n").encode(), 0o644)}
        for name in os.listdir(host.GUEST_FILES):
            if name.endswith(".py") or name == "guest-init":
                with open(os.path.join(host.GUEST_FILES, name), "rb") as f:
                    guest_name = "init" if name == "guest-init" else name
                    files["rig/" + guest_name] = (f.read(), 0o755)
        if self.install:
            files["rig/stage.tar"] = (host.staged_daemon(), 0o644)
        path = os.path.join(self.dir, "initrd")
        with open(host.image_file("initrd"), "rb") as f, open(path, "wb") as out:
            data = f.read()
            out.write(data + b"\0" * (-len(data) % 512) + _cpio(files))
        return path

    # ------------------------------------------------------------- block nodes

    def _image(self, disk):
        """(path, size) of a disk's image, made when a size was given."""
        if disk.image is None:
            return None, 0
        if isinstance(disk.image, int):
            size = -(-disk.image // 512) * 512
            if disk.bus == "sd":
                size = 1 << max(20, (size - 1).bit_length())     # SD cards: powers of two
            path = os.path.join(self.dir, "disk-%s.img" % disk.id)
            if not os.path.exists(path):
                with open(path, "wb") as f:
                    f.truncate(size)
            return path, size
        path = os.path.abspath(os.fspath(disk.image))
        return path, os.path.getsize(path)

    def _node(self, slot):
        """The -blockdev argument for a slot's image; names the slot's node."""
        disk = slot.disk
        readonly = disk.readonly or disk.optical
        slot.node = "node-%s-%d" % (disk.id, self._count())
        node = {"driver": "raw", "node-name": slot.node, "read-only": readonly,
                "cache": {"no-flush": True}, "discard": "unmap",
                "file": {"driver": "file", "filename": slot.path, "locking": "off",
                         "cache": {"no-flush": True}}}
        if disk.snapshot and not readonly:
            overlay = os.path.join(self.dir, "overlay-%s-%d.qcow2" % (disk.id, self._count()))
            subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw",
                            "-b", slot.path, overlay], check=True)
            node = {"driver": "qcow2", "node-name": slot.node, "cache": {"no-flush": True},
                    "file": {"driver": "file", "filename": overlay, "locking": "off"}}
        return node

    def _count(self):
        self._id_next += 1
        return self._id_next

    def _sd_drive(self, slot):
        slot.node = "drive-" + slot.disk.id
        text = "if=none,id=%s" % slot.node
        if slot.path is not None:
            text += ",cache=unsafe,format=raw,file.locking=off,file=" + slot.path.replace(",", ",,")
        return text

    # ------------------------------------------------------------- places

    def _cold_address(self):
        n = self._pci_next
        self._pci_next += 1
        if n >= 0x18:
            raise RigError("no PCI slot left")
        return "0x%x" % n, "0000:00:%02x.0" % n

    def _place(self, disk, cold):
        """Chooses a disk's place and its QEMU devices. cold: the machine does not run yet."""
        if disk.id is None:
            disk.id = "disk%d" % self._count()
        if disk.id in self.slots:
            raise RigError("there is a disk %r already" % disk.id)
        if not cold and disk.bus in ("sata", "optical-sata", "ide", "sd"):
            raise RigError("a drive on %s cannot be added to a running machine; declare it with "
                           "attached=False (or an empty slot) and plug it by its id" % disk.bus)
        slot = Slot(disk, *self._image(disk))
        serial = disk.serial if disk.serial is not None else re.sub(r"\W", "", disk.id)[:20]
        common = {"id": disk.id, "serial": serial}
        if slot.path is not None:
            common["drive"] = "node-%s-%d" % (disk.id, self._id_next + 1)  # what _node() will say
        place = {"sata": self._place_sata, "optical-sata": self._place_sata,
                 "ide": self._place_ide, "sd": self._place_sd,
                 "virtio-scsi": self._place_scsi, "optical-scsi": self._place_scsi,
                 "usb": self._place_usb, "optical-usb": self._place_usb_optical}
        if disk.bus in place:
            place[disk.bus](slot, common)
        else:
            self._place_pci(slot, common, cold)
        return slot

    def _place_sata(self, slot, common):
        n = self._ahci_next
        self._ahci_next += 1
        controller, port = divmod(n, 6)
        if controller == 0:
            bus, slot.pci, slot.port = "ide.%d" % n, "0000:00:1f.2", n + 1
        else:
            if port == 0 or self._ahci_pci is None:
                address, self._ahci_pci = self._cold_address()
                slot.devices.append({"driver": "ich9-ahci", "id": "rigahci%d" % controller,
                                     "addr": address})
            bus, slot.pci, slot.port = "rigahci%d.%d" % (controller, port), self._ahci_pci, port + 1
        kind = "ide-cd" if slot.disk.optical else "ide-hd"
        slot.devices.append({"driver": kind, "bus": bus, **common})

    def _place_ide(self, slot, common):
        n = self._ide_next
        self._ide_next += 1
        if n >= 4:
            raise RigError("the PATA controller holds four drives")
        slot.pci, slot.port = "0000:00:06.0", n // 2 + 1
        slot.pattern = r":0:%d:0/block/" % (n % 2)
        slot.devices.append({"driver": "ide-hd", "bus": "rigpata.%d" % (n // 2), "unit": n % 2,
                             **common})

    def _place_scsi(self, slot, common):
        n = self._scsi_next
        self._scsi_next += 1
        slot.pci, slot.pattern = "0000:00:05.0", r":0:%d:0/block/" % n
        device = {"driver": "scsi-cd" if slot.disk.optical else "scsi-hd", "bus": "rigscsi.0",
                  "scsi-id": n, "lun": 0, **common}
        if not slot.disk.optical:
            device["removable"] = slot.disk.removable
        slot.devices.append(device)

    def _usb_port(self, slot):
        if not self._usb_ports:
            raise RigError("no USB port left")
        slot.usb_port = self._usb_ports.pop(0)
        slot.pci, slot.pattern = "0000:00:04.0", r"/usb\d+/\d+-%d/" % slot.usb_port
        return str(slot.usb_port)

    def _place_usb(self, slot, common):
        slot.devices.append({"driver": "usb-storage", "bus": "rigusb.0",
                             "port": self._usb_port(slot), "removable": slot.disk.removable,
                             **common})

    def _place_usb_optical(self, slot, common):
        bridge = slot.disk.id + "-bot"
        slot.devices.append({"driver": "usb-bot", "id": bridge, "bus": "rigusb.0",
                             "port": self._usb_port(slot), "serial": common["serial"]})
        slot.devices.append({"driver": "scsi-cd", "bus": bridge + ".0", "scsi-id": 0, "lun": 0,
                             **common})

    def _place_pci(self, slot, common, cold):
        where = {}
        if cold:
            where["addr"], slot.pci = self._cold_address()
        else:
            if not self._ports_free:
                raise RigError("no PCI Express port left (VM(hotplug_ports=...))")
            slot.root_port = self._ports_free.pop(0)
            where["bus"], slot.pci = "rigport%d" % slot.root_port[0], slot.root_port[1]
        kind = "nvme" if slot.disk.bus == "nvme" else "virtio-blk-pci"
        slot.devices.append({"driver": kind, **where, **common})

    def _place_sd(self, slot, common):
        address, slot.pci = self._cold_address()
        slot.devices.append({"driver": "sdhci-pci", "id": slot.disk.id + "-slot", "addr": address})
        slot.devices.append({"driver": "sd-card", "id": slot.disk.id, "bus": "sd-bus",
                             "drive": "drive-" + slot.disk.id})


def _cpio(files):
    """A cpio archive (newc) of {name: (bytes, mode)}, which the kernel unpacks over the initrd."""
    out = bytearray()

    def add(name, mode, data, ino):
        encoded = name.encode() + b"\0"
        head = "070701" + "".join("%08X" % v for v in (
            ino, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(encoded), 0))
        out.extend(head.encode() + encoded)
        out.extend(b"\0" * (-len(out) % 4))
        out.extend(data)
        out.extend(b"\0" * (-len(out) % 4))

    add("rig", 0o040755, b"", 1)
    for n, (name, (data, mode)) in enumerate(files.items(), 2):
        add(name, 0o100000 | mode, data, n)
    add("TRAILER!!!", 0, b"", 0)
    return bytes(out)
