"""The demo's machine: demo_machine.py shell|tour. Started by ../demo, which builds and stages."""
import os
import select
import shutil
import signal
import socket
import sys
import tempfile
import termios
import threading
import tty

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tests", "vm"))
import demo_tour  # noqa: E402
from rig import VM, RigError, host, sample_machine  # noqa: E402

# Asks the daemon one thing, as `q list human`.
Q = r'''#!/usr/bin/python3 -IS
import socket, sys
words = [w if w and not set(w) & set(' "') else '"%s"' % w for w in sys.argv[1:]]
s = socket.socket(socket.AF_UNIX)
try:
    s.connect("\0quarryd")
except OSError:
    sys.exit("q: the daemon is not running (start)")
s.sendall(" ".join(words).encode("utf-8", "surrogateescape") + b"\n")
last = b"OK-"
for last in s.makefile("rb"):
    sys.stdout.buffer.write(last)
    if not last.startswith(b"OK-"):
        break
sys.exit(not last.startswith(b"OK"))
'''

BASHRC = r'''
PS1='\[\e[1m\]\h:\w\$\[\e[0m\] '
alias ls='ls --color=auto' ll='ls -l'
log() { tail -n 20 -f /var/log/quarryd.log; }
start() {
    (setsid /usr/sbin/quarryd "$@" </dev/null >>/var/log/quarryd.log 2>&1 &)
    for _ in 1 2 3 4 5 6 7 8 9 10; do grep -q @quarryd /proc/net/unix && return; sleep 0.2; done
    tail -n 2 /var/log/quarryd.log; return 1
}
stop() {
    local pid; pid=$(pidof quarryd) || { echo "it is not running"; return 1; }
    kill -TERM $pid; while [ -e /proc/$pid ]; do sleep 0.1; done
}
sit() {
    local part; part=$(lsblk -rno NAME,TRAN | sed -n '/ usb$/{s/ .*/1/p;q}')
    mkdir -p /mnt/$part && mount /dev/$part /mnt/$part && (cd /mnt/$part && exec sleep 9999 &)
    grep /mnt/ /proc/mounts; ps -o pid,args -C sleep
}
wish() { echo "$*" >/run/demo/wishes && cat /run/demo/answers; }
pull() { wish pull "$@"; }
plug() { wish plug "$@"; }
'''

MOTD = """
  A throw-away machine with sample drives, and quarryd is running. Break what you like.

    quarryctl list           what is there              quarryctl --help   what else it can do
    quarryctl watch          the same, kept up to date  q help             the daemon's own requests
    pull stick, plug stick   take the USB stick out and put it back (or card, scsi, disk, dvd)
    sit, then pull stick     mount it, put a process on it, pull it: see who is driven out
    log                      what the daemon says; Ctrl-C ends the reading
    stop, start --hotplug    end the daemon in order; start it again, with options
"""


def prepare(vm):
    """Makes the sample machine complete and puts the demo's commands into the guest."""
    sample_machine.assemble(vm)
    vm.put("/usr/local/bin/q", Q, 0o755)
    vm.put("/root/.bashrc", BASHRC)
    vm.sh("mkdir -p /run/demo && mkfifo /run/demo/wishes /run/demo/answers")


class Wishes(threading.Thread):
    """Serves the guest's `pull` and `plug`."""

    def __init__(self, vm):
        super().__init__(daemon=True)
        self.vm = vm
        self.disc = vm.slots["dvd"].path
        self.start()

    def run(self):
        while True:
            try:
                words = self.vm.sh("head -n 1 /run/demo/wishes", timeout=1e6).out.split()
                self.vm.put("/run/demo/answer", self.fulfil(words) + "\n")
                self.vm.sh("cat /run/demo/answer >/run/demo/answers", timeout=20)
            except TimeoutError:
                continue
            except (RigError, OSError):
                return                     # the machine has gone

    def fulfil(self, words):
        if len(words) != 2 or words[1] not in ("stick", "card", "scsi", "disk", "dvd"):
            return "what? one of: stick card scsi disk dvd"
        pull, id = words[0] == "pull", words[1]
        there = self.vm.tray(id)["inserted"] if id == "dvd" else self.vm.present(id)
        if pull != there:
            return "it is %s already" % ("in" if there else "out")
        try:
            if id == "dvd":
                self.vm.remove_medium(id) if pull else self.vm.insert(id, self.disc)
            else:
                self.vm.unplug(id) if pull else self.vm.plug(id)
        except (RigError, TimeoutError, KeyError) as e:
            return str(e)
        return "the %s is %s" % ("disc" if id == "dvd" else id, "out" if pull else "in")


def fit_terminal(vm):
    """Tells the guest's console how large ours is."""
    columns, rows = shutil.get_terminal_size()
    vm.sh("stty -F /dev/hvc0 rows %d cols %d" % (rows, columns), check=False)


def shell(vm):
    """A shell on the guest's console until it ends. Returns the demo's status."""
    vm.sh("source /root/.bashrc; start; q refresh")
    Wishes(vm)
    fit_terminal(vm)
    vm.put("/run/motd", MOTD)
    console = socket.socket(socket.AF_UNIX)
    console.connect(vm.terminal_path)
    wake_read, wake_write = os.pipe()

    def on_resize(signo, frame):
        os.write(wake_write, b"r")
    signal.signal(signal.SIGWINCH, on_resize)
    before = termios.tcgetattr(0)
    tty.setraw(0)
    try:
        pid = vm.call("console", terminal="/dev/hvc0", argv=["/bin/bash", "-c",
                      "cat /run/motd; exec bash -i"],
                      env={"HOME": "/root", "LANG": "C.UTF-8",
                           "TERM": os.environ.get("TERM", "vt100")})["pid"]

        def wait_for_end():
            while vm.call("wait", pid=pid, timeout=3600, _timeout=3700)["rc"] is None:
                pass
            os.write(wake_write, b"e")
        threading.Thread(target=wait_for_end, daemon=True).start()
        relay(vm, console, wake_read)
    finally:
        termios.tcsetattr(0, termios.TCSADRAIN, before)
        console.close()
    print("\r\nThe machine is gone, and all it had.")
    return 0


def relay(vm, console, wake):
    """Carries bytes between our terminal and the guest's console."""
    while True:
        ready, _, _ = select.select([0, console, wake], [], [])
        if console in ready:
            data = console.recv(65536)
            if not data:
                return
            os.write(1, data)
        if 0 in ready:
            console.sendall(os.read(0, 1024))
        if wake in ready:
            if os.read(wake, 1) == b"e":
                while select.select([console], [], [], 0.2)[0] and (data := console.recv(65536)):
                    os.write(1, data)
                return
            fit_terminal(vm)


def main():
    mode = sys.argv[1]
    print("demo: making the guest ready (the first time it is built, half a minute)",
          file=sys.stderr)
    host.build_image()
    with tempfile.TemporaryDirectory(prefix="quarryd-demo-") as folder:
        drives = sample_machine.drives(folder)
        print("demo: booting (on %s)" % host.accelerator(), file=sys.stderr)
        with VM(drives, terminal=mode == "shell") as vm:
            prepare(vm)
            return shell(vm) if mode == "shell" else demo_tour.run(vm)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (RigError, TimeoutError) as e:
        sys.exit("demo: %s" % e)
