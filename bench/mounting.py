"""Mounting: what a mount and an unmount cost by the daemon, by bare system calls, by mount(8) and
by udisks2, on the same drives in one virtual machine; and where the daemon's time goes."""

import json
import os
import re
import statistics
import sys
import tempfile

import programs
import udisks2

sys.path.insert(0, os.path.join(programs.SOURCE, "tests", "vm"))

KINDS = ("ext4", "vfat")
WAYS = (("calls", "mount(2), umount2(2)"), ("mount8", "mount(8), umount(8)"),
        ("quarryd", "quarryd, as a client sees it"), ("udisks2", "udisks2 and udisksctl"))
# System calls by number, as x86-64 has them.
RECVFROM, SENDTO, CLONE, WAIT4, MOUNT, UMOUNT2 = 45, 44, 56, 61, 165, 166
# Where the time between a request and its reply can go.
KERNEL, OTHER_CALLS = "the kernel: mount and umount calls", "the kernel: all other calls"
PLACES = {"volsniffer": "the label probe", "mount": "mount(8), for ACLs"}


@udisks2.in_the_guests()
def run(report, long):
    from rig import VM, Disk, images

    count = 200 if long else 30
    here = os.path.dirname(os.path.abspath(__file__))
    with tempfile.TemporaryDirectory() as folder:
        image = images.disk(os.path.join(folder, "disk"), "256M",
                            [("128M", "83", "ext4", "EXT"), (None, "c", "vfat", "FAT")])
        with VM([Disk("virtio-scsi", image, id="disk")], mem=1024) as vm:
            parts = dict(zip(KINDS, vm.parts("disk", 2), strict=True))
            with open(os.path.join(here, "guest", "cycles.py"), encoding="utf-8") as script:
                vm.put("/run/cycles.py", script.read(), 0o755)
            compare(report, vm, parts, count)


def cycles(vm, way, part, kind, count):
    """Seconds of so many mounts, each with its unmount, after two that do not count."""
    out = vm.sh(f"/run/cycles.py {way} /dev/{part} {kind} {count + 2}", timeout=600).out
    return [mount + unmount for mount, unmount in json.loads(out)[2:]]


def compare(report, vm, parts, count):
    seconds = {}
    for way in ("calls", "mount8"):
        for kind, part in parts.items():
            seconds[way, kind] = cycles(vm, way, part, kind, count)
    daemon = vm.daemon()
    waits = cycles(vm, "help", "null", "none", count)
    shares = {}
    for kind, part in parts.items():
        seconds["quarryd", kind] = cycles(vm, "quarryd", part, kind, count)
        shares[kind] = traced(vm, daemon, part, kind, count)
    daemon.stop()
    vm.sh(udisks2.UDEVD)
    udisks2.tell_udevd(vm)
    udisks2.start(vm)
    for kind, part in parts.items():
        seconds["udisks2", kind] = cycles(vm, "udisks2", part, kind, max(count // 3, 10))
    print_times(report, seconds, waits)
    print_shares(report, seconds, shares)


def milliseconds(values):
    return 1000 * statistics.median(values)


def print_times(report, seconds, waits):
    rows = []
    for way, text in WAYS:
        for kind in KINDS:
            taken = milliseconds(seconds[way, kind])
            rows.append((text, kind, len(seconds[way, kind]), taken,
                         taken / milliseconds(seconds["calls", kind])))
    rows.append(("quarryd, two requests for help: the wait for its loop", "", len(waits),
                 milliseconds(waits), ""))
    report.table("A mount and its unmount in one guest: medians",
                 ("by", "filesystem", "times", "ms", "ratio to the calls"), rows)


def print_shares(report, seconds, shares):
    rows = []
    for kind, parts in shares.items():
        whole = statistics.median([sum(one.values()) for one in parts])
        for name in (KERNEL, OTHER_CALLS, *PLACES.values(), "the daemon itself"):
            taken = statistics.median([one.get(name, 0.0) for one in parts])
            rows.append((kind, name, 1000 * taken, 100 * taken / whole))
        rows.append((kind, "together", 1000 * whole, 100.0))
        calls = statistics.median(seconds["calls", kind])
        report.bound(f"{kind}: from request to reply, ratio to the bare calls", whole / calls, 2.5)
        own = statistics.median([one["the daemon itself"] / sum(one.values()) for one in parts])
        report.bound(f"{kind}: the daemon's own share", 100 * own, 10, "%")
    report.table("Where the daemon's time goes, from the request's arrival to the reply",
                 ("filesystem", "in", "ms", "%"), rows)


def traced(vm, daemon, part, kind, count):
    """For each mount with its unmount the seconds spent in each place, from the kernel's trace."""
    vm.sh(f"""set -e
mountpoint -q /sys/kernel/tracing || mount -t tracefs t /sys/kernel/tracing
cd /sys/kernel/tracing
echo 0 >tracing_on; echo >trace; echo 16384 >buffer_size_kb
echo 1 >options/event-fork; echo {daemon.pid} >set_event_pid
for e in sys_enter sys_exit; do
  echo 'common_pid == {daemon.pid}' >events/raw_syscalls/$e/filter
  echo 1 >events/raw_syscalls/$e/enable
done
echo 1 >events/sched/sched_process_exec/enable
echo 1 >tracing_on""")
    cycles(vm, "quarryd", part, kind, count)
    text = vm.sh("cd /sys/kernel/tracing; echo 0 >tracing_on; cat trace; "
                 "echo 0 >events/enable; echo >trace; echo >set_event_pid", timeout=120).out
    requests = list(read_trace(text, daemon.pid))
    if len(requests) != 2 * (count + 2):
        raise RuntimeError(f"{len(requests)} requests were traced, not {2 * (count + 2)}")
    pairs = zip(requests[4::2], requests[5::2], strict=True)
    return [{name: mount.get(name, 0) + unmount.get(name, 0) for name in mount | unmount}
            for mount, unmount in pairs]


EVENT = re.compile(r"-(\d+) +\[\d+\] \S+ +(\d+\.\d+): (\w+): (.*)")


def read_trace(text, daemon):
    """For each request of the trace: {place: seconds}."""
    begun = entered = forked = program = None
    places = {}
    for pid, moment, event, rest in EVENT.findall(text):
        moment = float(moment)
        if event == "sched_process_exec":
            program = os.path.basename(re.search(r"filename=(\S+)", rest)[1])
        if int(pid) != daemon or not rest.startswith("NR "):
            continue
        number = int(rest.split()[1])
        if event == "sys_enter":
            entered = moment
            if number == CLONE:                 # a child's time goes from its making to its end
                forked = moment
            elif number == SENDTO and begun is not None:
                places["the daemon itself"] = moment - begun - sum(places.values())
                yield places
                begun = None
            continue
        result = int(rest.split("=")[1])
        if number == RECVFROM and result > 1:
            begun, places = moment, {}
        elif begun is None:
            pass
        elif number == WAIT4 and result > 0:
            add(places, PLACES[program], moment - forked)
            forked = None
        elif forked is None:
            add(places, KERNEL if number in (MOUNT, UMOUNT2) else OTHER_CALLS, moment - entered)


def add(places, name, seconds):
    places[name] = places.get(name, 0.0) + seconds
