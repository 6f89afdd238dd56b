"""A machine with one drive of every kind, for the listings' tests and for the demo."""
import os

from . import images
from .hardware import Disk


def drives(folder):
    """The drives, with their images made in the folder. The md mirror and the device-mapper
    volume are made by assemble() when the machine runs."""
    def at(name):
        return os.path.join(folder, name)
    return [
        Disk("sata", images.disk(at("disk"), "192M", [("96M", "83", "ext4", "archive"),
                                                      ("40M", "fd")]), id="disk"),
        Disk("usb", images.disk(at("stick"), "64M", [("40M", "c", "vfat", "HOLIDAY"),
                                                     (None, "83", "ext3")]), id="stick"),
        Disk("nvme", images.disk(at("flash"), "64M", [(None, None, "xfs", "scratch")], "gpt"),
             id="flash"),
        Disk("sd", images.disk(at("card"), "64M", [(None, "c", "vfat", "CAMERA")]), id="card"),
        Disk("virtio-scsi", images.disk(at("scsi"), "128M", [("40M", "fd"), (None, "8e")]),
             id="scsi"),
        Disk("optical-sata", images.iso(at("disc"), "INSTALL_DISC"), id="dvd"),
        Disk("optical-scsi", id="tray"),
    ]


def assemble(vm):
    """Makes /dev/md0, a mirror labelled "mirror" on the SATA and the SCSI disk's first free
    partitions, and the device-mapper volume "vault" on the SCSI disk's second one."""
    half, other_half = vm.parts("disk", 2)[1], vm.parts("scsi", 2)[0]
    rest = vm.parts("scsi", 2)[1]
    # The volume begins 1 MB into its partition, so that the partition shows none of it.
    vm.sh("""set -e
mdadm -q --create /dev/md0 --run --level=1 --raid-devices=2 --metadata=1.2 --assume-clean \\
      /dev/%s /dev/%s 2>&1
mkfs.ext4 -q -L mirror /dev/md0
echo "0 $(( $(cat /sys/class/block/%s/size) - 2048 )) linear /dev/%s 2048" |
    dmsetup --noudevsync create vault
dmsetup mknodes
mkfs.ext4 -q -L vault /dev/mapper/vault
sync""" % (half, other_half, rest, rest))
