"""Processes that hold a mount, and what becomes of them."""
import os

HERE = os.path.dirname(os.path.abspath(__file__))


def hold(vm, how, folder):
    """Starts a process that holds the folder; returns its pid when it does."""
    vm.put("/run/rig/holder.py", open(os.path.join(HERE, "troublemakers", "holder.py")).read())
    log = "/run/rig/holder-" + how
    pid = vm.background("exec python3 -I -S /run/rig/holder.py %s %s" % (how, folder), log)
    vm.wait_until(lambda: "holding" in vm.text(log), 30, lambda: "the holder: " + vm.text(log))
    if how == "stopped":
        vm.wait_until(lambda: "\nState:\tT" in vm.text("/proc/%s/status" % pid), 30)
    return pid


def alive(vm, pid):
    return vm.sh("[ -e /proc/%s ]" % pid, check=False).rc == 0


def has_ended(vm, pid):
    """True when the process is gone: who let go of everything is on the list a moment longer."""
    return vm.wait_until(lambda: not alive(vm, pid), 10, "the end of %s" % pid)


def said_of(vm, pid):
    """What the system log says of a process."""
    return [text for line in vm.syslog() for text in [line.split("]: ", 1)[1]]
            if text.startswith(pid + ":")]


TERM = "%s: python3 is using mount points. terminating..."
KILL = "%s: python3 is still using mount point. forcibly terminating..."
