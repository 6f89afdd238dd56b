"""Notices from the system's hotplug script: what they register, what they say, how many come at
once, and that the registry is right again after the next look at /sys/block, whatever came before.
Their refusals are golden conversations."""

import fcntl
import os
import random
import re
import struct
import termios
import threading
import time

import pytest

from machine import disk_formats, kernel
from machine.clients import Client, wait_until
from machine.drives import write
from machine.machine import sleep
from machine.sleeper import sleeper

MIB = 1 << 20
THANKS = "OK thank you\n"


def hotplug(machine, *arguments, **keys):
    """A daemon in hotplug mode that has looked at /sys/block for the last time in a minute."""
    daemon = machine.start("--hotplug", *arguments, **keys)
    machine.pass_of_loop()
    machine.pass_of_loop()
    return daemon


def notify(machine, action, path):
    """One notice; returns the lines that it made the daemon say."""
    daemon = machine.daemon
    before = len(daemon.stderr_lines())
    assert machine.ask(f"notify {action} {path}") == THANKS
    lines = daemon.stderr_lines()[before:]
    words = r"Notify |Parent device: |Device .*appeared \(.*hotplug\)$|Attach "
    return [line for line in lines if re.match(words, line)]


def known(machine):
    """Drives with their partitions, as any client sees them."""
    found = {}
    for line in machine.ask("list").splitlines()[1:-1]:
        fields = line[5:].split("\t")
        if fields[0]:
            found[fields[0]] = []
            last = fields[0]
        else:
            found[last].append(fields[1])
    return found


def in_sysfs():
    """The same as /sys/block has it."""
    found = {}
    for drive in sorted(os.listdir("/sys/block")):
        if not drive.startswith((".", "loop", "ram")):
            entries = os.listdir(f"/sys/block/{drive}")
            found[drive] = sorted(name for name in entries if name.startswith(drive))
    return found


def stick(machine, name="sdb", partitions=1):
    machine.plug("usb", name, MIB)
    for number in range(1, partitions + 1):
        machine.part(f"{name}{number}", 65536)


# One notice.


def test_a_partition_brings_its_drive_along(machine):
    """The partition is told before the drive, and attached when both are there."""
    daemon = hotplug(machine)
    stick(machine)
    assert notify(machine, "add", "/devices/pci0000:00/usb1/block/sdb/sdb1") == [
        "Notify add sdb1 parent sdb",
        "Parent device: sdb",
        "Device sdb1 appeared (partition of sdb, hotplug)",
        "Device sdb appeared (hotplug)",
        "Attach sdb1 to sdb",
    ]
    assert known(machine) == {"sdb": ["sdb1"]}
    machine.settle()
    machine.settle()
    assert "(polling)" not in daemon.stderr()


def test_a_drive_comes_alone_and_the_next_look_finds_its_partitions(machine):
    daemon = hotplug(machine)
    stick(machine, partitions=2)
    assert notify(machine, "add", "/block/sdb") == [
        "Notify add sdb parent sdb",
        "Device sdb appeared (hotplug)",
    ]
    daemon.wait_for("Device sdb2 just appeared (polling)\n")
    assert known(machine) == {"sdb": ["sdb1", "sdb2"]}


def test_a_known_drive_is_not_probed_again(machine):
    stick(machine)
    hotplug(machine)
    watch = kernel.FileWatch("/sys/block/sdb/device/model", "/dev/sdb")
    sleep(0.2)
    watch.seen()
    assert notify(machine, "add", "/block/sdb") == ["Notify add sdb parent sdb"]
    assert watch.seen() == []
    assert known(machine) == {"sdb": ["sdb1"]}


def test_a_known_drive_brings_no_look_at_all_drives(machine):
    """Nothing is new, so nothing is looked for; a removal is looked for within two seconds."""
    stick(machine)
    daemon = hotplug(machine)
    sleeper()
    stick(machine, "sdc")
    notify(machine, "add", "/block/sdb")
    notify(machine, "add", "/block/sdb/sdb1")
    sleep(2.5)
    assert "sdc" not in daemon.stderr()
    begun = time.monotonic()
    notify(machine, "remove", "/block/sdb")
    daemon.wait_for("Device sdc just appeared (polling)\n")
    assert time.monotonic() < begun + 2.5 or sleeper().awake(begun) < 2.5


def test_a_known_partition_is_attached_and_asked_again(machine):
    stick(machine)
    hotplug(machine)
    machine.attribute("sdb", "sdb1/size", "1\n")
    assert notify(machine, "add", "/block/sdb/sdb1") == [
        "Notify add sdb1 parent sdb",
        "Parent device: sdb",
        "Attach sdb1 to sdb",
    ]
    assert "\t\tsdb1\tPartition\tUSB\t\t512\t" in machine.ask("list")


@pytest.mark.parametrize("action", ["remove", "change", "move", "ADD", "bogus"])
def test_any_other_action_only_brings_the_next_look_forward(machine, action):
    """The records stay until it finds that the devices are gone."""
    stick(machine)
    daemon = hotplug(machine)
    assert notify(machine, action, "/block/sdb/sdb1") == [
        f"Notify {action} sdb1 parent sdb",
        "Parent device: sdb",
    ]
    assert known(machine) == {"sdb": ["sdb1"]}
    machine.settle()
    machine.settle()
    assert "(polling)" not in daemon.stderr().split("Notify", 1)[1]
    machine.unplug("sdb")
    notify(machine, action, "/block/sdb/sdb1")
    daemon.wait_for("Device sdb just disappeared (polling)\n")
    assert known(machine) == {}


def test_a_removal_of_what_nobody_knows(machine):
    hotplug(machine)
    assert notify(machine, "remove", "/block/sdq/sdq1") == [
        "Notify remove sdq1 parent sdq",
        "Parent device: sdq",
    ]
    assert notify(machine, "remove", "/block/sdq") == ["Notify remove sdq parent sdq"]
    assert known(machine) == {}


def drive_lines(name):
    return [f"Notify add {name} parent {name}", f"Device {name} appeared (hotplug)"]


def partition_lines(name, drive):
    return [
        f"Notify add {name} parent {drive}",
        f"Parent device: {drive}",
        f"Device {name} appeared (partition of {drive}, hotplug)",
        f"Device {drive} appeared (hotplug)",
        f"Attach {name} to {drive}",
    ]


@pytest.mark.parametrize(
    "name, lines",
    [
        ("sdb", drive_lines("sdb")),
        ("sdaa15", partition_lines("sdaa15", "sdaa")),
        ("hdc", drive_lines("hdc")),
        ("sr0", drive_lines("sr0")),
        ("mmcblk0", drive_lines("mmcblk0")),
        ("mmcblk0p1", partition_lines("mmcblk0p1", "mmcblk0")),
        ("mmcblk1p12", partition_lines("mmcblk1p12", "mmcblk1")),
        ("mmcblk10p1", partition_lines("mmcblk10p1", "mmcblk10p")),  # eighth character: no p
        ("md0", drive_lines("md0")),
        ("md127", drive_lines("md127")),
        ("md127p1", partition_lines("md127p1", "md127p")),
        ("loop0", drive_lines("loop0")),
        ("loop", ["Notify add loop parent loop"]),
        ("loop0p1", partition_lines("loop0p1", "loop0p")),
        ("ram1", drive_lines("ram1")),
        ("nvme0n1", partition_lines("nvme0n1", "nvme0n")),
        ("nvme0n1p1", partition_lines("nvme0n1p1", "nvme0n1p")),
        ("dm-0", partition_lines("dm-0", "dm-")),
        ("zram0", partition_lines("zram0", "zram")),
        ("odd", drive_lines("odd")),
        ("%s%n", drive_lines("%s%n")),
        ("..", drive_lines("..")),
        ("sdb\ufffd1", partition_lines("sdb\ufffd1", "sdb\ufffd")),
        ("x" * 300, drive_lines("x" * 300)),
        ("sdb" + "9" * 40, partition_lines("sdb" + "9" * 40, "sdb")),
        (
            "123",  # nothing is left of it: a partition of nobody
            [
                "Notify add 123",
                "Parent device: ",
                "Device 123 appeared (partition of , hotplug)",
            ],
        ),
    ],
)
def test_names_of_devices_that_are_already_gone(machine, name, lines):
    """Whatever is said of a device that is not there, the next look removes it again."""
    daemon = hotplug(machine)
    assert notify(machine, "add", f"/block/{name}") == lines
    for line in lines:
        device = re.match(r"Device (.+?) appeared", line)
        if device:
            daemon.wait_for(f"Device {device[1]} just disappeared (polling)\n")
    assert known(machine) == {}
    assert daemon.stderr().count("just disappeared") == sum("appeared" in line for line in lines)


def test_a_drive_that_looks_like_a_partition_is_put_right_by_the_next_look(machine):
    """The name nvme0n1 is taken for a partition of nvme0n, and nvme0n1p1 for one of nvme0n1p."""
    hotplug(machine)
    machine.plug("nvme", "nvme0n1", MIB)
    machine.part("nvme0n1p1", 65536)
    notify(machine, "add", "/block/nvme0n1")
    notify(machine, "add", "/block/nvme0n1/nvme0n1p1")
    wait_until(lambda: known(machine) == {"nvme0n1": ["nvme0n1p1"]})


@pytest.mark.parametrize(
    "kind, name",
    [
        ("nvme", "nvme0n1"),
        ("dm", "dm-0"),
        ("md", "md0"),
        ("other", "zram0"),
        ("other", "loop0"),  # the poll does not follow it: it is not vanished for that
        ("other", "ram0"),
    ],
)
def test_a_notice_about_a_mounted_drive_does_not_unmount_it(machine, kind, name):
    """A name that is taken for a partition's is dropped again: the drive is still there."""
    machine.plug(kind, name, MIB)
    machine.real_mounts()
    machine.mount_tmpfs(name, f"/mnt/{name}")
    write(f"/mnt/{name}/work", "")
    worker = machine.troublemaker("holder", "--write", f"/mnt/{name}/work")
    daemon = hotplug(machine)
    machine.settle()
    notify(machine, "add", f"/block/{name}")
    notify(machine, "remove", "/block/sdz")
    machine.settle()
    machine.settle()
    machine.settle()
    assert "killing" not in daemon.stderr()
    assert os.path.exists(f"/mnt/{name}/work")
    assert worker.poll() is None
    assert known(machine) == ({} if name in ("loop0", "ram0") else {name: []})


def test_a_notice_about_a_raid_member_does_not_unmark_it(machine):
    """The record that is dropped again takes nothing of the drive with it."""
    machine.plug("nvme", "nvme0n1", MIB)
    machine.content("nvme0n1", disk_formats.md_superblock())
    daemon = hotplug(machine)
    assert "Inactive RAID" in machine.ask("list")
    notify(machine, "add", "/block/nvme0n1")
    daemon.wait_for("Device nvme0n1 just disappeared (polling)\n")
    assert known(machine) == {"nvme0n1": []}
    assert "Inactive RAID" in machine.ask("list")


# Many notices.


def agrees(machine):
    return known(machine) == in_sysfs()


def test_events_in_the_wrong_order_and_twice(machine):
    hotplug(machine)
    stick(machine, "sdb", 2)
    for action, path in (
        ("remove", "/block/sdb"),
        ("add", "/block/sdb/sdb2"),
        ("add", "/block/sdb/sdb2"),
        ("remove", "/block/sdb/sdb1"),
        ("add", "/block/sdb"),
        ("add", "/block/sdb/sdb3"),  # gone again already
        ("add", "/block/sdb/sdb1"),
        ("add", "/block/sdb"),
    ):
        notify(machine, action, path)
    wait_until(lambda: agrees(machine))
    assert known(machine) == {"sdb": ["sdb1", "sdb2"]}


def some_notices(seed, count):
    """Right ones and wrong ones about a handful of devices."""
    choose = random.Random(seed)
    for _ in range(count):
        drive = choose.choice(["sdb", "sdc", "sr0", "mmcblk0", "nvme0n1", "md0"])
        part = choose.choice(["", "1", "2", "p1"])
        yield f"notify {choose.choice(['add', 'remove', 'change'])} /block/{drive}/{drive}{part}\n"


class Bystander(threading.Thread):
    """A client that asks for something all the time and notes how long it has to wait."""

    def __init__(self):
        super().__init__(daemon=True)
        self.client = Client()
        self.sleeper = sleeper()
        self.times = []
        self.enough = False

    def run(self):
        while not self.enough:
            start = time.monotonic()
            assert self.client.ask("swapoff") == "OK swap disabled\n"
            self.times.append((start, time.monotonic()))

    def finish(self):
        self.enough = True
        self.join(30)
        assert not self.is_alive()
        self.client.close()

    def longest(self):
        """Seconds, less those in which the machine stood still."""
        slow = [(begin, end) for begin, end in self.times if end - begin > 0.5]
        return max([self.sleeper.awake(begin, end) for begin, end in slow], default=0.5)


def deaf_client(machine):
    """A client that asks and asks and reads nothing. While its last reply waits for room the loop
    does not sleep, so that ten thousand notices do not take ten thousand times fifty milliseconds.
    """
    client = machine.connect()
    waiting = 0
    while True:
        client.send("help\n")
        begin = time.monotonic()
        while (now_waiting := unread(client)) == waiting:
            if time.monotonic() > begin + 2 and sleeper().awake(begin) > 2:
                return client
            time.sleep(0.001)
        waiting = now_waiting


def unread(client):
    return struct.unpack("i", fcntl.ioctl(client.socket, termios.FIONREAD, b"\0" * 4))[0]


@pytest.mark.seconds(120)
def test_ten_thousand_events_from_one_client_that_does_not_wait(machine):
    """It speaks on and on and takes the replies as they come. What it says too fast is lost, as
    with every client that does not wait; nobody else is kept waiting, and the registry is right in
    the end."""
    stick(machine, "sdb", 2)
    hotplug(machine)
    deaf_client(machine)
    stick(machine, "sdc", 1)
    bystander = Bystander()
    bystander.start()
    replies = b""
    with machine.connect() as client:
        for notice in some_notices(1, 10_000):
            client.send(notice)
            if unread(client):
                replies += client.socket.recv(1 << 16)
        while not client.is_silent():
            replies += client.unread
            client.unread = b""
        assert client.ask("notify remove /block/sdz") == THANKS
    bystander.finish()
    lines = replies.decode().splitlines(keepends=True)
    assert 300 < len(lines) <= 10_000  # thirty or so are read at once, in the worst case
    # What is lost may be the beginning of a line: the rest of it means nothing.
    assert all(line == THANKS or line.startswith("ERR ") for line in lines), set(lines)
    assert lines.count(THANKS) > 100  # a line whose beginning is lost is none
    assert len(bystander.times) > 100
    assert bystander.longest() < 2
    wait_until(lambda: agrees(machine))


@pytest.mark.seconds(180)
def test_ten_thousand_events_on_a_connection_each(machine):
    """Twenty at a time, as many scripts would send them: each event counts, none is lost."""
    stick(machine, "sdb", 2)
    daemon = hotplug(machine)
    deaf_client(machine)
    stick(machine, "sdc", 1)
    bystander = Bystander()
    bystander.start()
    notices = some_notices(2, 10_000)
    for batch in range(500):
        clients = [Client() for _ in range(20)]
        for client in clients:
            client.send(next(notices))
        for client in clients:
            assert client.reply() == THANKS
            client.close()
        if batch == 50:
            memory = daemon.resident_kib()
    assert machine.ask("notify remove /block/sdz") == THANKS
    bystander.finish()
    assert daemon.stderr().count("Notify ") == 10_001
    assert len(bystander.times) > 100
    assert bystander.longest() < 2
    assert daemon.resident_kib() - memory < 16 * 1024
    wait_until(lambda: agrees(machine))
    wait_until(lambda: len(daemon.descriptors()) < 10, what="the last clients' descriptors")


@pytest.mark.seconds(120)
def test_scripts_that_hang_up_at_once(machine):
    """A client that is gone before its request was read is forgotten with it, as any client is. The
    registry is right in the end all the same, and nothing of them stays behind."""
    stick(machine, "sdb", 2)
    daemon = hotplug(machine)
    deaf_client(machine)
    deaf_client(machine)  # a client that goes away takes the turn of the one before it
    stick(machine, "sdc", 1)
    for notice in some_notices(4, 5000):
        with Client() as client:
            client.send(notice)
    assert machine.ask("notify remove /block/sdz") == THANKS
    assert daemon.stderr().count("Notify ") > 100
    wait_until(lambda: agrees(machine))
    wait_until(lambda: len(daemon.descriptors()) < 10, what="the last clients' descriptors")


def test_a_burst_of_events_on_a_connection_each_while_nobody_else_is_there(machine):
    """The loop takes in twenty clients a second then, and still takes each of them."""
    daemon = hotplug(machine)
    stick(machine, "sdb", 2)
    for notice in some_notices(3, 100):
        with Client() as client:
            client.send(notice)
    assert machine.ask("notify remove /block/sdz") == THANKS
    assert daemon.stderr().count("Notify ") == 101
    wait_until(lambda: agrees(machine))


# Histories.

# How a drive of that name is plugged, and what its first partition is called.
KINDS = {
    "sda": ("sata", "sda1"),
    "sdb": ("usb", "sdb1"),
    "sdaa": ("usb", "sdaa1"),
    "sr0": ("scsi", "sr0p1"),
    "hdc": ("ide", "hdc1"),
    "mmcblk0": ("mmc", "mmcblk0p1"),
    "mmcblk10": ("mmc", "mmcblk10p1"),
    "nvme0n1": ("nvme", "nvme0n1p1"),
    "nvme0n12": ("nvme", "nvme0n12p1"),
    "md0": ("md", "md0p1"),
    "md127": ("md", "md127p1"),
    "dm-0": ("dm", "dm-0p1"),
    "nbd0": ("other", "nbd0p1"),
    "loop0": ("other", "loop0p1"),
    "ram1": ("other", "ram1p1"),
}
ODD_NAMES = ["123", "..", "sd", "mmcblk", "mmcblk0p", "nvme0n", "loop", "sda99", "p1", "-", "md"]


class History:
    """Plugs and pulls, with notices that tell of them: right, wrong, missing or doubled."""

    def __init__(self, machine, seed, tell):
        self.machine = machine
        self.choose = random.Random(seed)
        self.tell = tell  # tells the daemon: tell(action, name)

    def run(self, steps):
        for _ in range(self.choose.randint(1, steps)):
            self.event()

    def event(self):
        machine, choose = self.machine, self.choose
        name = choose.choice(list(KINDS))
        kind, first_partition = KINDS[name]
        stem = first_partition[:-1]
        if name not in machine.folders:
            machine.plug(kind, name, choose.randint(0, 1) * MIB, node=choose.random() < 0.7)
            names = [name]
            for number in range(1, choose.randint(1, 4)):
                machine.part(f"{stem}{number}", 512 * choose.randint(0, 99), drive=name)
                names.append(f"{stem}{number}")
            action = "add"
        elif choose.random() < 0.4:
            partitions = machine.partitions[name]
            if partitions and choose.random() < 0.5:
                names = [choose.choice(partitions)]
                machine.unplug(names[0])
                action = "remove"
            else:
                free = [n for n in range(1, 20) if f"{stem}{n}" not in partitions]
                names = [f"{stem}{choose.choice(free)}"]
                machine.part(names[0], 512 * choose.randint(0, 99), drive=name)
                action = "add"
        else:
            names = [*machine.partitions[name], name]
            machine.unplug(name)
            action = "remove"
        self.notices(action, names)

    def notices(self, action, names):
        """Tells of the event in one of many wrong ways, or in the right one."""
        choose = self.choose
        names = list(names)
        way = choose.random()
        if way < 0.15:
            return  # nobody tells
        if way < 0.3:
            names += names  # twice
        if way < 0.45:
            choose.shuffle(names)
        if way < 0.55:
            names = names[: len(names) // 2]
        for name in names:
            if choose.random() < 0.1:
                self.tell(choose.choice(["add", "remove", "change"]), self.some_name())
            wrong = choose.random() < 0.1
            self.tell(choose.choice(["add", "remove", "change"]) if wrong else action, name)

    def some_name(self):
        drive = self.choose.choice(list(KINDS))
        partition = KINDS[drive][1]
        return self.choose.choice([drive, partition, *ODD_NAMES])


def registry_text():
    """What the rooms should say of the registry: drives, then partitions with drive and size."""
    drives = in_sysfs()
    text = "registry: "
    for drive, partitions in sorted(drives.items()):
        text += f"{drive}[{''.join(name + ',' for name in partitions)}] "
    owners = {name: drive for drive, names in drives.items() for name in names}
    for name, drive in sorted(owners.items()):
        with open(f"/sys/block/{drive}/{name}/size") as file:
            text += f"{name}@{drive}:{int(file.read()) * 512} "
    return text.strip()


@pytest.mark.seconds(150)
def test_a_thousand_histories_end_in_agreement_with_sysfs(machine):
    """After each, one look at /sys/block makes the registry right, whatever it held before."""
    room = machine.room()
    told = []

    def tell(action, name):
        told.append((action, name))
        assert room.ask(f"notify {action} {name}") == "done"

    for seed in range(1000):
        told.clear()
        History(machine, seed, tell).run(10)
        room.ask("update")
        assert room.ask("registry") == registry_text(), f"history {seed}: {told}"
    assert room.stderr().count("Notify ") > 5000
    assert room.stderr().count("just disappeared") > 1000


@pytest.mark.seconds(120)
def test_a_daemon_agrees_with_sysfs_after_each_of_many_histories(machine):
    """The same through the socket and the loop: a last notice of a removal, then two seconds."""
    hotplug(machine)
    client = machine.connect()

    def tell(action, name):
        assert client.ask(f"notify {action} /devices/x/block/{name}") == THANKS

    for seed in range(2000, 2016):
        History(machine, seed, tell).run(12)
        tell("remove", "sdz")
        wait_until(lambda: agrees(machine), what=f"agreement after history {seed}")
