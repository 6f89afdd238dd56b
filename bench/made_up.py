"""Machines made up for measurements: a handful of drives of all kinds, or thousands."""

import os
import statistics
import struct
import subprocess
import sys
import time

import programs

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "sandbox"))
from machine import namespaces  # noqa: E402
from machine.disk_formats import mbr  # noqa: E402
from machine.machine import PROBE, Machine  # noqa: E402

PARTITION_SIZE = 1 << 26
MOUNTS = ["/dev/nvme9n9p2 / ext4", "proc /proc proc", "sysfs /sys sysfs", "udev /dev devtmpfs",
          "tmpfs /run tmpfs", "/dev/nvme9n9p1 /boot vfat", "tmpfs /tmp tmpfs"]


class BenchMachine(Machine):
    """A machine on which drives are plugged in by the thousand."""

    def __init__(self):
        self.is_growing = False
        super().__init__()
        self.mount_table(MOUNTS)
        self.next_minor = 0

    def write_proc_partitions(self):
        if not self.is_growing:
            super().write_proc_partitions()

    def grow(self, kinds):
        """Plugs in drives, given as (kind, name, number of partitions), with all that the
        kernel shows of them and a DOS partition table on those that have partitions."""
        self.is_growing = True
        for kind, name, count in kinds:
            self.plug(kind, name, 1 << 30)
            self._kernel_files(name, "")
            os.mkdir(f"{self.folders[name]}/holders")
            os.makedirs(f"{self.folders[name]}/slaves", exist_ok=True)
            if count:
                self.content(name, mbr([0x83] * count))
            for number in range(1, count + 1):
                self.add_partition(name, number)
        self.is_growing = False
        self.write_proc_partitions()

    def add_partition(self, drive, number):
        partition = f"{drive}{'p' if drive[-1].isdigit() else ''}{number}"
        self.part(partition, PARTITION_SIZE, drive=drive)
        self._kernel_files(drive, f"{partition}/")
        self.attribute(drive, f"{partition}/start", f"{number}\n")
        self.attribute(drive, f"{partition}/partition", f"{number}\n")
        os.mkdir(f"{self.folders[drive]}/{partition}/holders")

    def _kernel_files(self, drive, folder):
        """What other programs look for: the device number, and the link that goes by it."""
        number = f"259:{self.next_minor}"
        self.next_minor += 1
        self.attribute(drive, f"{folder}dev", number + "\n")
        os.makedirs("/sys/dev/block", exist_ok=True)
        os.symlink(f"{self.folders[drive]}/{folder}".rstrip("/"), f"/sys/dev/block/{number}")

    @staticmethod
    def use_real_probe():
        """The label probe of the project answers, and not the made-up one."""
        os.unlink(PROBE)
        os.symlink(namespaces.REAL_PROBE, PROBE)

    @staticmethod
    def show_subsets(sizes):
        """Beside /sys/block makes /sys/block.N with the first N drives, and the empty one."""
        drives = os.listdir("/sys/block")
        os.rename("/sys/block", "/sys/block.all")
        os.symlink("/sys/block.all", "/sys/block")
        for size in (0, *sizes):
            os.mkdir(f"/sys/block.{size}")
            for name in drives[:size]:
                os.symlink(os.readlink(f"/sys/block.all/{name}"), f"/sys/block.{size}/{name}")

    def ask_patiently(self, request):
        """One request whose answer may take its time."""
        with self.connect(timeout=60) as client:
            return client.ask(request)

    def install(self, program):
        """Puts one of the benchmark's programs into the machine; returns its path."""
        path = f"/run/{program}"
        with open(path, "wb") as file:
            file.write(programs.CONTENT[program])
        os.chmod(path, 0o755)
        return path


# Ten drives of the kinds that a desktop machine and its owner's drawers have, two partitions each.
TEN_DRIVES = [
    ("sata", "sda", 2), ("sata", "sdb", 2), ("sata", "sdc", 2), ("usb", "sdd", 2),
    ("usb", "sde", 2), ("scsi", "sdf", 2), ("nvme", "nvme0n1", 2), ("nvme", "nvme1n1", 2),
    ("mmc", "mmcblk0", 2), ("md", "md0", 2),
]


def swap_area(label):
    """The first blocks of a swap area with that label: the simplest content that has one."""
    page = bytearray(4096)
    struct.pack_into("<III16s16s", page, 1024, 1, 255, 0, b"quarryd measures", label.encode())
    page[-10:] = b"SWAPSPACE2"
    return bytes(page)


def drive_name(number):
    """sda, sdb, ... sdz, sdaa, ...: as the kernel counts."""
    letters = ""
    number += 1
    while number:
        number, letter = divmod(number - 1, 26)
        letters = chr(ord("a") + letter) + letters
    return "sd" + letters


def many_drives(drives, partitions_each):
    """SATA disks and USB sticks by turns."""
    return [(("sata", "usb")[number % 2], drive_name(number), partitions_each)
            for number in range(drives)]


def inside(function, timeout=300):
    """Runs function(machine) in a private machine of its own and returns its value."""
    def body():
        machine = BenchMachine()
        value = function(machine)
        machine.finish()
        return value

    os.environ["QUARRYD"] = programs.path("quarryd")
    os.environ["VOLSNIFFER"] = programs.path("volsniffer")
    outcome, value = namespaces.run(body, timeout)
    if outcome != "returned":
        raise RuntimeError(f"the made-up machine {outcome}: {value or ''}")
    return value


def output_of(*command):
    """What a program says on standard output; its standard error is dropped."""
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          check=True, text=True).stdout


def cost_of(command, lines):
    """Runs a program that is to print so many lines; they go to a file in memory. Its CPU and wall
    time in microseconds."""
    with open("/run/output", "w+") as output:
        begin = time.monotonic()
        child = subprocess.Popen(command, stdout=output, stderr=subprocess.DEVNULL)
        _pid, status, usage = os.wait4(child.pid, 0)
        wall = time.monotonic() - begin
        child.returncode = status
        output.seek(0)
        found = sum(1 for _line in output)
    if status or found != lines:
        raise RuntimeError(f"{command[0]}: status {status}, {found} lines instead of {lines}")
    return (usage.ru_utime + usage.ru_stime) * 1e6, wall * 1e6


median = statistics.median
