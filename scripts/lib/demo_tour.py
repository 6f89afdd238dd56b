"""The demo's tour: says what it does, shows what comes back, and checks it."""
import os
import sys
import time

from expected import enumerate_text, human_text, list_text, machine_rows


class Tour:
    """Prints captions, commands and their real output; counts what was not as it should be."""

    def __init__(self, vm):
        self.vm = vm
        self.daemon = vm.daemon()
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

    def new_lines(self, mark, until, timeout=10):
        """Waits until the daemon's log says something, and prints what is new in it."""
        try:
            self.vm.wait_until(lambda: until in self.daemon.err()[mark:], timeout, step=0.2)
        except TimeoutError:
            pass
        text = self.daemon.err()[mark:]
        self.output("".join("quarryd: %s\n" % line for line in text.splitlines()
                            if not line.startswith(("Label:", "  '"))))
        return text

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
    pulled(tour, name, first, second)
    plugged(tour)
    refusals(tour)
    shutdown(tour)
    print("\nThe tour is over: %d checks, %s." % (
        tour.checks, "all held" if not tour.failures else "%d DID NOT HOLD" % tour.failures))
    return 1 if tour.failures else 0


def listings(tour):
    rows = machine_rows(tour.vm)
    tour.caption("Every drive and partition, for people")
    tour.check(tour.show("q list human") == human_text(rows),
               "just what lsblk, blkid and sysfs say of this machine")
    tour.caption("The same for programs: fields between tabs, sizes in bytes, RAID state")
    tour.check(tour.show("q list") == list_text(rows), "again the same")
    tour.caption("By connection, with sysfs paths (the format leaves NVMe and volumes out)")
    tour.check(tour.show("q enumerate") == enumerate_text(rows), "and again")


def pulled(tour, name, first, second):
    vm = tour.vm
    tour.caption("Somebody mounts the USB stick, works on it, and it is pulled out")
    tour.show("mkdir /mnt/{0} && mount /dev/{0} /mnt/{0} && ls -d /mnt/*".format(first))
    pid = vm.sh("cd /mnt/%s && exec sleep 1000 & echo $!" % first).out.strip()
    vm.wait_until(lambda: "/mnt/" in vm.sh("readlink /proc/%s/cwd" % pid).out, 5)
    tour.show("ps -o pid,args -p %s; readlink /proc/%s/cwd" % (pid, pid))
    mark = len(tour.daemon.err())
    print("(the stick is pulled)", flush=True)
    vm.unplug("stick")
    last = "Device %s just disappeared (polling)\n" % name
    text = tour.new_lines(mark, last)
    said = [line for line in text.splitlines() if "disappeared" in line]
    tour.check([line.split()[1] for line in said] == [first, second, name],
               "both partitions went, then the drive")
    tour.syslog("mount point")
    tour.check(vm.sh("[ ! -e /proc/%s ] && ! grep /mnt/ /proc/mounts && [ ! -e /mnt/%s ]"
                     % (pid, first), check=False).rc == 0,
               "who used it was driven out, it is unmounted, and its folder is gone")


def plugged(tour):
    tour.caption("It is put back")
    mark = len(tour.daemon.err())
    print("(the stick is plugged)", flush=True)
    new = tour.vm.plug("stick")
    parts = tour.vm.parts("stick", 2)
    tour.new_lines(mark, "Device %s just appeared" % parts[1])
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
    tour.show("mkdir /mnt/{0} /mnt/md0; mount /dev/{0} /mnt/{0}; mount /dev/md0 /mnt/md0; "
              "grep /mnt/ /proc/mounts".format(part))
    mark = len(tour.daemon.err())
    print("quarry# kill -TERM %d" % tour.daemon.pid, flush=True)
    try:
        status = tour.daemon.stop(20)
    except TimeoutError:
        status = None
    tour.new_lines(mark, "")
    tour.syslog("tracker")
    tour.check(status == 0, "it ended with status %s" % status)
    tour.check(vm.sh("grep /mnt/ /proc/mounts; ls -A /mnt", check=False).out == "",
               "nothing is mounted below /mnt any more, and nothing was left there")
    tour.check("BUG" not in tour.daemon.err(), "no inconsistency was noticed on the way")
