"""Debian's udisks2 in a guest, to compare with: what it needs there, and how it is started."""

import contextlib
import os

import programs

PACKAGES = "udisks2 dbus python3-jeepney"
PROCESSES = ("udisksd", "dbus-daemon")  # without the latter no client would reach it
UDEVD = "/lib/systemd/systemd-udevd --daemon"
START = """set -e
mkdir -p /run/dbus /run/udisks2 /var/lib/udisks2
dbus-daemon --system --fork
setsid /usr/libexec/udisks2/udisksd </dev/null >/run/udisksd.log 2>&1 &
for i in $(seq {timeout}); do udisksctl status >/dev/null 2>&1 && exit 0; sleep 0.1; done
cat /run/udisksd.log; exit 1"""


@contextlib.contextmanager
def in_the_guests():
    """Guests that are made meanwhile have the daemon installed, and udisks2's packages."""
    os.environ["QUARRYD_STAGE"] = programs.stage()
    os.environ["QUARRYD_GUEST_PACKAGES"] = PACKAGES
    try:
        yield
    finally:
        del os.environ["QUARRYD_GUEST_PACKAGES"]


def tell_udevd(vm, timeout=100):
    """Has udevd, which runs already, look at all devices: what it finds is what udisks2 knows."""
    vm.sh(f"udevadm trigger --action=add; udevadm settle --timeout={timeout}", timeout=timeout + 10)


def start(vm, timeout=100):
    """Starts it and waits until it answers."""
    vm.sh(START.format(timeout=timeout), timeout=timeout)
