"""The demo's tour: says what it does, shows what comes back, and checks it."""
import os
import sys
import time

from rig import images

from expected import enumerate_text, human_text, list_text, machine_rows


class Tour:
    """Prints captions, commands and their real output; counts what was not as it should be."""

    def __init__(self, vm):
        self.vm = vm
        self.daemon = vm.daemon()
        self.mark = 0
        vm.request("refresh")       # marks the mirror's members, whatever order they came in
        self.step = self.checks = self.failures = 0
        colour = sys.stdout.isatty() and not os.environ.get("NO_COLOR")
        self.strong, self.plain = ("\033[1m", "\033[0m") if colour else ("", "")

    def caption(self, text):
        self.step += 1
        print("\n%s%d. %s%s" % (self.strong, self.step, text, self.plain), flush=True)

    def show(self, command, user="root"):
        """Runs a command in the guest and prints both; returns its output."""
        print("%s%s" % ("quarry# " if user == "root" else "quarry$ ", command), flush=True)
        if user != "root":
            command = "setpriv --reuid=%s --regid=%s --clear-groups %s" % (user, user, command)
        result = self.vm.sh(command, check=False)
        self.output(result.out + result.err)
        return result.out

    def output(self, text):
        sys.stdout.write(text)
        sys.stdout.flush()

    def check(self, held, what):
        self.checks += 1
        if not held:
            self.failures += 1
        print("   -> %s%s" % (what, "" if held else "  ** NO, IT DID NOT HOLD **"), flush=True)

    def listen(self):
        """What the daemon says from now on is new."""
        self.mark = len(self.daemon.err())

    def new_lines(self, *until, timeout=10):
        """Waits until the daemon's log says certain things, and prints and returns what is new."""
        def all_said():
            text = self.daemon.err()[self.mark:]
            return all(words in text for words in until)
        try:
            self.vm.wait_until(all_said, timeout, step=0.2)
        except TimeoutError:
            pass
        text = self.daemon.err()[self.mark:]
        self.output("".join("quarryd: %s\n" % line for line in text.splitlines()
                            if not line.startswith(("Label:", "  '"))))
        return text

    def end_daemon(self):
        """Sends SIGTERM and shows the daemon's end; returns its exit status."""
        self.listen()
        print("quarry# kill -TERM %d" % self.daemon.pid, flush=True)
        try:
            status = self.daemon.stop(30)
        except TimeoutError:
            status = None
        self.new_lines()
        return status

    def syslog(self, word):
        """Prints the system log's lines that hold the word."""
        self.output("".join("syslog:  %s\n" % line.split(">", 1)[1] for line in self.vm.syslog()
                            if word in line))


def run(vm):
    """The whole tour; returns the demo's exit status."""
    tour = Tour(vm)
    name = vm.node("stick")
    first, second = vm.parts("stick")
    listings(tour)
    mounted(tour, first)
    evicted(tour, first)
    pulled(tour, name, first, second)
    plugged(tour)
    refusals(tour)
    shutdown(tour)
    main_partition(tour)
    disc_changed(tour)
    pulled_in_hotplug_mode(tour)
    shutdown_with_main_partition(tour)
    print("\nThe tour is over: %d checks, %s." % (
        tour.checks, "all held" if not tour.failures else "%d DID NOT HOLD" % tour.failures))
    return 1 if tour.failures else 0


def listings(tour):
    rows = machine_rows(tour.vm)
    tour.caption("Every drive and partition, for people")
    table = tour.show("quarryctl list")
    tour.check([line.split()[0] for line in table.splitlines()[1:]] == [row.dev for row in rows],
               "all that lsblk knows, too")
    tour.show("quarryctl mount rw ^HOLIDAY; quarryctl list | grep USB -A 2; quarryctl umount ^HOLIDAY")
    tour.caption("What the daemon itself says to that")
    tour.check(tour.show("q list human") == human_text(rows),
               "just what lsblk, blkid and sysfs say of this machine")
    tour.caption("For programs: fields between tabs, sizes in bytes, RAID state")
    tour.check(tour.show("q list") == list_text(rows), "again the same")
    tour.caption("By connection, with sysfs paths (the format leaves NVMe and volumes out)")
    tour.check(tour.show("q enumerate") == enumerate_text(rows), "and again")


def mounted(tour, part):
    tour.caption("The USB stick is mounted by its label, written to, and made read-only")
    tour.check(tour.show("q mount rw ^HOLIDAY") == "OK mount succeeded\n", "it is mounted")
    tour.show("ls -l /mnt; grep %s /proc/mounts" % part)
    wrote = tour.show("echo 'wish you were here' >/mnt/^HOLIDAY/postcard; cat /mnt/%s/postcard" % part)
    tour.check(wrote == "wish you were here\n", "what was written there is there")
    tour.check(tour.show("q mount ro %s" % part) == "OK remounted as r/o\n", "now it is read-only")
    tour.show("echo more >>/mnt/%s/postcard" % part)
    options = tour.vm.sh("findmnt -n -o OPTIONS /mnt/" + part).out
    tour.check({"ro", "nosuid", "nodev"} <= set(options.strip().split(",")),
               "and as harmless as before: " + options.strip())
    tour.check(tour.show("q mount rw %s" % part) == "OK remounted as r/w\n", "and back")


def sit_on(tour, part):
    """Starts a process with its working directory on a mount; returns its pid."""
    pid = tour.vm.sh("cd /mnt/%s && exec sleep 1000 & echo $!" % part).out.strip()
    tour.vm.wait_until(lambda: "/mnt/" in tour.vm.sh("readlink /proc/%s/cwd" % pid).out, 5)
    tour.show("ps -o pid,args -p %s; readlink /proc/%s/cwd" % (pid, pid))
    return pid


def evicted(tour, part):
    vm = tour.vm
    tour.caption("Somebody works on it: unmounting politely fails, rudely it works")
    pid = sit_on(tour, part)
    tour.listen()
    tour.check(tour.show("q umount %s" % part) == "ERR unmount failed\n",
               "it is busy, and stays mounted")
    tour.new_lines()
    tour.check(tour.show("q mount rudeoff %s" % part) == "OK unmount succeeded\n", "now it is off")
    tour.syslog("mount point")
    tour.check(vm.sh("[ ! -e /proc/%s ] && ! grep /mnt/ /proc/mounts && [ -z \"$(ls /mnt)\" ]" % pid,
                     check=False).rc == 0,
               "who was in the way is gone, and so are the folder and the link")


def pulled(tour, name, first, second):
    vm = tour.vm
    tour.caption("Somebody mounts it, works on it, and it is pulled out")
    tour.show("q mount rw %s; ls -l /mnt" % first)
    pid = sit_on(tour, first)
    tour.listen()
    print("(the stick is pulled)", flush=True)
    vm.unplug("stick")
    text = tour.new_lines("Device %s just disappeared (polling)\n" % name)
    said = [line for line in text.splitlines() if "disappeared" in line]
    tour.check([line.split()[1] for line in said] == [first, second, name],
               "both partitions went, then the drive")
    tour.syslog("mount point")
    tour.check(vm.sh("[ ! -e /proc/%s ] && ! grep /mnt/ /proc/mounts && [ ! -e /mnt/%s ]"
                     % (pid, first), check=False).rc == 0,
               "who used it was driven out, it is unmounted, and its folder is gone")


def plugged(tour):
    tour.caption("It is put back")
    tour.listen()
    print("(the stick is plugged)", flush=True)
    new = tour.vm.plug("stick")
    parts = tour.vm.parts("stick", 2)
    tour.new_lines("Device %s just appeared" % parts[1])
    time.sleep(0.2)
    tour.show("q list human | grep -e USB -e follows")
    tour.check(tour.vm.request("list human") == human_text(machine_rows(tour.vm)),
               "%s is known again, its label read anew" % new)


def refusals(tour):
    tour.caption("Requests that are refused")
    tour.check(tour.show("q defragment") == "ERR unknown command\n", "one line, always")
    tour.check(tour.show("q refresh", user="guest") == "ERR you must be root to do that\n",
               "the socket itself tells the daemon who is asking")


def shutdown(tour):
    vm = tour.vm
    part = vm.parts("stick")[0]
    tour.caption("The daemon ends in order: what it knows is unmounted first")
    tour.show("q mount rw %s; q mount rw md0; grep /mnt/ /proc/mounts" % part)
    status = tour.end_daemon()
    tour.syslog("tracker")
    tour.check(status == 0, "it ended with status %s" % status)
    tour.check(nothing_is_left(vm), "nothing is mounted below /mnt, and nothing was left there")
    tour.check("BUG" not in tour.daemon.err(), "no inconsistency was noticed on the way")


def nothing_is_left(vm):
    return vm.sh("grep /mnt/ /proc/mounts; ls -A /mnt", check=False).out == ""


CONFIGURATION = """main partition signature = the data of this house
swap name = swap.img
startup script = /usr/local/sbin/disks-ready
shutdown script = /usr/local/sbin/disks-going
"""
SITE_SCRIPT = """#!/bin/sh
{ echo "$0 $*"; ls -l /mnt | grep main; tail -n +2 /proc/swaps; } >>/var/log/site
"""


def main_partition(tour):
    vm = tour.vm
    part = vm.parts("disk")[0]
    vm.sh("""set -e
mkdir /run/prepare && mount /dev/%s /run/prepare && cd /run/prepare
echo 'the data of this house' >.claimsig
dd if=/dev/zero of=swap.img bs=1M count=16 status=none; chmod 600 swap.img
cd / && umount /run/prepare""" % part)
    for script in ("ready", "going"):
        vm.put("/usr/local/sbin/disks-" + script, SITE_SCRIPT, 0o755)
    tour.caption("A partition of the SATA disk holds the machine's data; the daemon is to find it")
    vm.put("/etc/quarryd.conf", CONFIGURATION)
    tour.show("cat /etc/quarryd.conf")
    print("quarry# quarryd --hotplug &", flush=True)
    tour.daemon = vm.daemon(["--hotplug"], conf=CONFIGURATION)
    tour.mark = 0
    text = tour.new_lines("Found main partition", timeout=60)
    vm.wait_until(lambda: vm.sh("[ -s /var/log/site ]", check=False).rc == 0, 10)
    tour.check("Found main partition on %s part %s\n" % (vm.node("disk"), part) in text,
               "it was found by its signature")
    tour.show("ls -l /mnt; cat /proc/swaps; cat /var/log/site")
    tour.check(vm.sh("readlink /mnt/main", check=False).out == part + "\n" and
               "/mnt/%s/swap.img" % part in vm.text("/proc/swaps"),
               "it is published, and its swap file is on")
    tour.check("disks-ready -startup" in vm.text("/var/log/site"), "then the start script ran")
    tour.check(tour.show("q mount rw %s" % part, user="guest") == "ERR authorization required\n",
               "and only root may touch it")


def disc_changed(tour):
    vm = tour.vm
    drive = vm.node("dvd")
    tour.caption("A disc is changed")
    tour.show("q list human | grep %s" % drive)
    tour.check(tour.show("q eject %s" % drive) == "OK device ejected\n", "the tray is out")
    print("(another disc is put in)", flush=True)
    vm.insert("dvd", images.iso(os.path.join(os.path.dirname(vm.slots["dvd"].path), "other"),
                                "OTHER_DISC"))
    tour.show("q retract %s" % drive)
    tour.check("OTHER_DISC" in tour.show("q list human | grep %s" % drive),
               "the listing knows the new one")


def pulled_in_hotplug_mode(tour):
    vm = tour.vm
    part = vm.parts("stick")[0]
    tour.caption("In hotplug mode a stick is pulled while it is mounted")
    tour.check(tour.show("q mount rw ^HOLIDAY; grep %s /proc/mounts" % part).startswith(
        "OK mount succeeded\n"), "it is mounted")
    name = vm.node("stick")
    tour.show("cat /lib/udev/rules.d/60-quarryd.rules")
    vm.udevd()
    tour.listen()
    print("(udevd runs, and the stick is pulled)", flush=True)
    vm.unplug("stick")
    told = "Notify remove %s parent %s\n" % (name, name)
    text = tour.new_lines("Device %s just disappeared" % name, told)
    tour.check(told in text, "udev's rule told the daemon")
    tour.check(vm.sh("grep %s /proc/mounts; ls -d /mnt/%s" % (part, part), check=False).out == "",
               "a second later it is unmounted and forgotten")
    # What is left over in /mnt, the dangling link of its label and the folders where the search has
    # tried to mount, goes by and by: every five seconds, folders after fifteen.
    left_over = "find /mnt -mindepth 1 -maxdepth 1 '(' -type d -empty -o -xtype l ')'"
    vm.wait_until(lambda: vm.sh(left_over).out == "", 40, "a tidy /mnt")


def shutdown_with_main_partition(tour):
    vm = tour.vm
    part = vm.parts("disk")[0]
    tour.caption("At the end all is given back in order")
    pid = sit_on(tour, part)
    status = tour.end_daemon()
    tour.show("cat /var/log/site; cat /proc/swaps; ls -A /mnt")
    tour.check(status == 0, "it ended with status %s" % status)
    tour.check("disks-going -shutdown" in vm.text("/var/log/site"), "the stop script ran first")
    tour.check("swap.img" not in vm.text("/proc/swaps"), "swap is off")
    tour.check(vm.sh("[ ! -e /proc/%s ]" % pid, check=False).rc == 0 and nothing_is_left(vm),
               "who held the data is gone, it is unmounted, and /mnt is empty")
    tour.check("BUG" not in tour.daemon.err(), "no inconsistency was noticed on the way")
