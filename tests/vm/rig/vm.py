"""A virtual machine with emulated drives: its start and its end.

    with VM([Disk("usb", 64 << 20, id="stick")]) as vm:
        vm.daemon()
        print(vm.request("list"))
"""
import atexit
import ctypes
import os
import shutil
import signal
import subprocess
import threading
import time

from . import host
from .channels import Agent, Qmp, connect_unix
from .daemon import DaemonControl
from .errors import NotUp, RigError
from .filesystems import FileSystems
from .guest import Guest
from .hardware import ROOT_DISKS, Hardware
from .hotplug import HotPlug

BOOT_TIMEOUT = float(os.environ.get("QUARRYD_BOOT_TIMEOUT", "120"))

_alive = set()


@atexit.register
def _end_all():
    for vm in list(_alive):
        vm.close()


class VM(Hardware, HotPlug, Guest, DaemonControl, FileSystems):
    """disks: what is in the machine when it starts. root_bus: "virtio", "sata" or "nvme".
    append: more words for the kernel. hotplug_ports: how many NVMe and virtio-blk drives can be
    plugged in at once. terminal: give the guest a second console, /dev/hvc0, whose other end is
    the socket .terminal_path. install: put the daemon into the guest. systemd: let it be process 1,
    with the agent as one of its services. accel: None = what works."""

    def __init__(self, disks=(), root_bus="virtio", mem=768, append="", smp=2, hotplug_ports=3,
                 terminal=False, install=True, systemd=False, accel=None,
                 boot_timeout=BOOT_TIMEOUT):
        if root_bus not in ROOT_DISKS:
            raise ValueError("root_bus is one of " + ", ".join(ROOT_DISKS))
        self.root_bus, self.mem, self.append, self.smp = root_bus, mem, append, smp
        self.hotplug_ports, self.terminal, self.install = hotplug_ports, terminal, install
        self.systemd, self.accel, self.boot_timeout = systemd, accel, boot_timeout
        self._given = list(disks)
        self._init_hardware()
        self.dir = self.process = self.agent = self._qmp = None
        self.boot_seconds = None
        self.daemons = []
        self._daemon_count = 0
        self._console = ""

    def __enter__(self):
        host.build_image()
        try:
            self._boot()
        except NotUp:
            # An emulated processor sometimes misses its timer for good while the kernel starts. Who
            # has asked for an accelerator wants to know whether it works.
            if self.accel is not None:
                raise
            self._init_hardware()
            self._boot()
        return self

    def _boot(self):
        begin = time.monotonic()
        self.dir = host.machine_folder()
        try:
            self._start(begin + self.boot_timeout)
        except BaseException:
            self.close()
            raise
        self.boot_seconds = time.monotonic() - begin

    def __exit__(self, *exc):
        self.close()
        return False

    def _start(self, deadline):
        with open(os.path.join(self.dir, "qemu.err"), "wb") as err:
            self.process = subprocess.Popen(
                self._command_line(), stdin=subprocess.DEVNULL, stdout=err, stderr=err,
                env=dict(os.environ, TMPDIR=self.dir), preexec_fn=_die_with_us(),
                start_new_session=True)
        _alive.add(self)
        try:
            self._qmp = Qmp(connect_unix(os.path.join(self.dir, "qmp"), deadline, self.process))
            self.agent = Agent(
                connect_unix(os.path.join(self.dir, "agent"), deadline, self.process))
        except RigError as e:
            raise RigError("%s: %s" % (e, self._qemu_text()))
        if not self.agent.wait_hello(deadline - time.monotonic()):
            raise NotUp("the guest's agent did not start; qemu: %s\nconsole:\n%s"
                        % (self._qemu_text(), self.log()[-3000:]))
        # Every disk has to be there before the machine counts as ready.
        for slot in self.slots.values():
            slot.plugged = slot.has_node
        self.wait_until(lambda: not self._missing(), max(5, deadline - time.monotonic()),
                        lambda: "the disks %s" % self._missing(), step=0.05)
        for slot in self.slots.values():
            if not slot.disk.attached:
                self.unplug(slot.disk.id)

    def _missing(self):
        rows = self._rows()
        return [s.disk for s in self.slots.values() if s.has_node and not self._find(s, rows)]

    def close(self):
        """Ends the machine at once, as pulling the plug does."""
        if self.dir is None:
            return
        _alive.discard(self)
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for channel in (self._qmp, self.agent):
            if channel is not None:
                channel.sock.close()
        self._console = self.log()
        if not host.keep_machines():
            shutil.rmtree(self.dir, ignore_errors=True)
        self.dir = None

    def log(self):
        """The serial console's text."""
        if self.dir is None:
            return self._console
        return _text_of(os.path.join(self.dir, "console"))

    def _qemu_text(self):
        return _text_of(os.path.join(self.dir, "qemu.err")).strip()

    @property
    def terminal_path(self):
        return os.path.join(self.dir, "terminal")

    @property
    def events(self):
        """QEMU's events so far."""
        return self._qmp.events

    def qmp(self, command, **arguments):
        """One QMP command; the "return" part of the reply. RigError when it is an error."""
        return self._qmp.command(command, **arguments)


def _text_of(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except OSError:
        return ""


def _die_with_us():
    """Something to run in QEMU's process before it starts: its machine shall not outlive the test
    run. The kernel ties that to the thread that starts it, so only the main one will do."""
    if threading.current_thread() is not threading.main_thread():
        return None
    parent = os.getpid()

    def prepare():
        ctypes.CDLL(None).prctl(1, signal.SIGKILL)          # PR_SET_PDEATHSIG
        if os.getppid() != parent:
            os._exit(1)
    return prepare
