"""Finding drives in the running guest; plugging them in and out; trays and media."""
import base64
import os
import re
import time

from .errors import RigError


class HotPlug:
    """The part of a VM that changes its hardware while it runs."""

    # ------------------------------------------------------------- finding disks in the guest

    def _rows(self):
        return self.call("blocks")["blocks"]

    def _find(self, slot, rows=None):
        for row in self._rows() if rows is None else rows:
            path = row["path"] + "/"
            if "/%s/" % slot.pci not in path:
                continue
            if slot.port is not None and row["port"] != str(slot.port):
                continue
            if slot.pattern and not re.search(slot.pattern, path):
                continue
            if slot.disk.bus == "sd" and "boot" in row["name"]:
                continue
            if slot.disk.bus == "nvme" and not re.fullmatch(r"nvme\d+n\d+", row["name"]):
                continue
            if not slot.disk.optical and row["size"] == 0:
                continue
            return row["name"]
        return None

    def node(self, id, timeout=0):
        """The kernel name of a disk (sdb); waits up to timeout seconds. KeyError when absent."""
        slot = self.slots[id]
        end = time.monotonic() + timeout
        while True:
            name = self._find(slot)
            if name:
                return name
            if time.monotonic() >= end:
                raise KeyError("the guest has no disk %r" % id)
            time.sleep(0.05)

    def present(self, id):
        """True when the guest has the disk now."""
        return id in self.slots and self._find(self.slots[id]) is not None

    # ------------------------------------------------------------- plugging

    def plug(self, disk, timeout=30, wait=True):
        """Adds a Disk to the running machine (or puts back one taken out by unplug, given as its
        Disk or its id) and waits for it. Returns its kernel name. wait=False: returns None at
        once, so that it works in a machine that stands still (qmp("stop"))."""
        if isinstance(disk, str):
            disk = self.slots[disk].disk
        old = self.slots.get(disk.id)
        if old is not None and old.plugged:
            raise RigError("the disk %r is plugged in" % disk.id)
        if old is not None and old.deleted_in_guest:
            # SATA and PATA have no hot plug in QEMU: the guest scans the controller's ports again.
            self.sh("for h in /sys/class/scsi_host/host*; do case $(readlink -f $h) in "
                    "*/%s/*) echo '- - -' >$h/scan;; esac; done" % old.pci)
            old.deleted_in_guest = False
            old.plugged = True
        elif old is not None and disk.bus == "sd":
            self._sd_insert(old)
        else:
            self.slots.pop(disk.id, None)
            self._add_devices(disk)
        return self.node(disk.id, timeout) if wait and self.slots[disk.id].has_node else None

    def _add_devices(self, disk):
        slot = self._place(disk, cold=False)
        if slot.path is not None:
            self.qmp("blockdev-add", **self._node(slot))
        if disk.bus == "optical-usb":
            bridge, cd = slot.devices
            self.qmp("device_add", **dict(bridge, attached=False))
            self.qmp("device_add", **cd)
            self.qmp("qom-set", path="/machine/peripheral/" + bridge["id"],
                     property="attached", value=True)
        else:
            for device in slot.devices:
                self.qmp("device_add", **device)
        slot.plugged = True
        self.slots[disk.id] = slot

    def unplug(self, id, timeout=30):
        """Takes a disk out (as a user pulling it) and waits until the guest has lost it."""
        slot = self.slots[id]
        if not slot.plugged:
            raise RigError("the disk %r is not plugged in" % id)
        if slot.disk.bus in ("sata", "ide", "optical-sata"):
            self.call("write", path="/sys/block/%s/device/delete" % self.node(id),
                      data=base64.b64encode(b"1").decode())
            slot.deleted_in_guest = True
            slot.plugged = False
        elif slot.disk.bus == "sd":
            self._sd_remove(slot)
        else:
            self._remove_devices(slot, timeout)
        self.wait_until(lambda: self._find(slot) is None, timeout, "the guest losing %s" % id)

    def _remove_devices(self, slot, timeout):
        first = slot.devices[0]["id"]
        mark = len(self.events)
        self.qmp("device_del", id=first)
        self.wait_until(
            lambda: any(e["event"] == "DEVICE_DELETED" and e["data"].get("device") == first
                        for e in self.events[mark:]),
            timeout, "the removal of %s" % first, step=0.02)
        if slot.node and slot.path is not None:
            self._drop_node(slot.node)
        if slot.root_port:
            self._ports_free.append(slot.root_port)
        if slot.usb_port:
            self._usb_ports.append(slot.usb_port)
        slot.plugged = False

    def _drop_node(self, node):
        """QEMU lets go of a node a moment after its device has gone."""
        for _ in range(50):
            try:
                self.qmp("blockdev-del", **{"node-name": node})
                return
            except RigError:
                time.sleep(0.02)

    # ------------------------------------------------------------- what happens of itself

    def udevd(self):
        """Starts Debian's udevd with all its rules, of which some are the installed daemon's.
        Ends with reset()."""
        self.sh("rm -rf /run/udev; /lib/systemd/systemd-udevd >/run/rig/udevd.log 2>&1 &")
        self.wait_until(lambda: self.sh("[ -e /run/udev/control ]", check=False).rc == 0, 30,
                        "udevd")

    # ------------------------------------------------------------- trays and media

    def _block(self, id):
        for row in self.qmp("query-block"):
            if row.get("qdev", "").split("/")[-1] == id or row.get("device") == "drive-" + id:
                return row
        raise KeyError(id)

    def tray(self, id):
        """{"open": bool, "inserted": bool, "locked": bool} of an optical drive."""
        row = self._block(id)
        return {"open": bool(row.get("tray_open", False)), "inserted": "inserted" in row,
                "locked": bool(row.get("locked", False))}

    def open_tray(self, id, force=False):
        self.qmp("blockdev-open-tray", id=id, force=force)

    def close_tray(self, id):
        self.qmp("blockdev-close-tray", id=id)

    def insert(self, id, image):
        """Puts a medium (path) into an optical drive or a card into an SD slot; the tray ends
        closed."""
        slot = self.slots[id]
        path = os.path.abspath(os.fspath(image))
        size = os.path.getsize(path)
        if slot.disk.bus == "sd":
            slot.path, slot.size = path, size
            self._sd_insert(slot)
            self.node(id, 30)
            return
        row = self._block(id)
        if "inserted" in row or not row.get("tray_open"):
            self.remove_medium(id)
        slot.path, slot.size = path, size
        self.qmp("blockdev-add", **self._node(slot))
        self.qmp("blockdev-insert-medium", id=id, **{"node-name": slot.node})
        self.qmp("blockdev-close-tray", id=id)

    def remove_medium(self, id, close=False):
        """Opens the tray (by force) and takes the medium out; close=True shuts the empty tray."""
        slot = self.slots[id]
        if slot.disk.bus == "sd":
            self._sd_remove(slot)
            self.wait_until(lambda: self._find(slot) is None, 30, "the guest losing %s" % id)
            return
        self.qmp("blockdev-open-tray", id=id, force=True)
        self.wait_until(lambda: self._block(id).get("tray_open", False), 30, "the tray opening")
        if "inserted" in self._block(id):
            self.qmp("blockdev-remove-medium", id=id)
        if slot.node:
            self._drop_node(slot.node)
            slot.node = None
        slot.path = None
        if close:
            self.qmp("blockdev-close-tray", id=id)

    def _sd_insert(self, slot):
        self.qmp("blockdev-add", **self._node(slot))
        self.qmp("blockdev-insert-medium", id=slot.disk.id, **{"node-name": slot.node})
        slot.plugged = True

    def _sd_remove(self, slot):
        self.qmp("blockdev-remove-medium", id=slot.disk.id)
        if slot.node.startswith("node-"):
            self._drop_node(slot.node)
        slot.plugged = False
