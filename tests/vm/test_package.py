"""The Debian package on a machine that systemd runs: installed, used as its papers say, upgraded,
purged. The tests stand in the order of such a life; each installs the package if it is not there.
"""
import os
import re
import subprocess
import time

import pytest

from holders import alive, hold
from rig import Disk, host, images

SYSTEMD = True
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
DROP_IN = "/etc/systemd/system/quarryd.service.d/hardening.conf"
EXAMPLES = "/usr/share/doc/quarryd/examples"
HOOKS = "/var/quarryd/mount-notify"
# Where files come and go of themselves, or remember all packages there ever were.
NOBODYS = ["/dev", "/proc", "/run", "/sys", "/tmp", "/var/cache/apt", "/var/cache/debconf",
           "/var/lib/apt", "/var/lib/dpkg", "/var/log", "/var/lib/systemd/random-seed"]

_stick_image = None


def drives(folder):
    global _stick_image
    _stick_image = os.path.join(folder, "stick")
    images.fs(_stick_image, "24M", "ext4", "HOLIDAY")
    return [Disk("usb", _stick_image, id="stick"),
            Disk("sata", images.fs(os.path.join(folder, "disk"), "24M", "ntfs", "WINDOWS"),
                 id="disk")]


@pytest.fixture
def installed(vm):
    """The machine with the package installed and its daemon serving."""
    if vm.sh("dpkg-query -W -f '${db:Status-Abbrev}' quarryd", check=False).out != "ii ":
        install(vm, host.package(), "dpkg -i")
    serving(vm)
    return vm


def install(vm, package, program="apt-get install -y"):
    """As a user does it; nothing has to be fetched for it."""
    with open(package, "rb") as f:
        vm.put("/root/quarryd.deb", f.read())
    vm.sh("cd /root && DEBIAN_FRONTEND=noninteractive %s ./quarryd.deb" % program, timeout=180)


def serving(vm):
    """Waits until the daemon answers and has found all drives."""
    names = [vm.node("stick"), vm.node("disk")]

    def lists_all():
        out = vm.sh("quarryctl list --plain", check=False).out
        return all(re.search("^%s\t" % name, out, re.M) for name in names)
    vm.wait_until(lists_all, 60, lambda: vm.sh("journalctl -b -u quarryd | tail -n 30").out)


def main_pid(vm):
    return vm.sh("systemctl show -P MainPID quarryd").out.strip()


def mounts(vm):
    """What process 1 sees below /mnt: {"/mnt/sdb": "ext4"}."""
    rows = map(str.split, vm.text("/proc/1/mounts").splitlines())
    return {row[1]: row[2] for row in rows if row[1].startswith("/mnt/")}


def indented_block(text, behind):
    """The lines of the first indented block of a document behind these words, without remarks."""
    block = re.search(r"\n((?:    .*\n)+)", text[text.index(behind):]).group(1)
    return [re.sub(" +# .*", "", line.strip()) for line in block.splitlines()]


def document(name):
    with open(os.path.join(ROOT, name), encoding="utf-8") as f:
        return f.read()


def files_of(vm):
    """Every path of the root file system that packages or their daemons might have made."""
    skipped = " -o ".join("-path " + path for path in NOBODYS)
    return set(vm.sh(r"find / -xdev \( %s \) -prune -o -print" % skipped).out.splitlines())


def test_from_apt_to_a_hook_that_fires(vm):
    """What a newcomer is told to do works, command by command, as it stands in the guide and beside
    the examples: after apt install a stick with a label is mounted and unmounted, and an example
    hook, copied and fed, refuses it."""
    # What the machine itself makes at its start is there before.
    vm.wait_until(lambda: vm.sh("systemctl is-system-running", check=False).out.strip()
                  in ("running", "degraded"), 150, lambda: vm.sh("systemctl list-jobs").out)
    vm.files_before = files_of(vm)
    install(vm, host.package())
    serving(vm)
    name = vm.node("stick")
    mount, look, unmount = indented_block(document("docs/guide.md"), "**The first mount.**")
    vm.sh(mount)
    assert mounts(vm)["/mnt/" + name] == "ext4"
    listed = vm.sh(look).out
    assert re.search(r" %s$" % name, listed, re.M) and "^HOLIDAY -> %s\n" % name in listed
    vm.sh(unmount)
    assert mounts(vm) == {}

    beside = vm.text(EXAMPLES + "/hooks/README.md")
    for command in indented_block(beside, "Copy what you like"):
        vm.sh(command)
    vm.sh("mkdir /etc/quarryd && echo HOLIDAY >/etc/quarryd/denied-labels")
    refused = vm.sh(mount, check=False)
    assert refused.rc == 1 and "vetoed" in refused.err and mounts(vm) == {}
    vm.sh("rm -r /etc/quarryd")
    vm.sh(mount)
    vm.sh(unmount + "; rm %s/*" % HOOKS)
    contents = document("docs/guide.md").split("\n- ")[0]
    for page, section in re.findall(r"(\w+(?:[-.]\w+)?)\((\d)\)", contents):
        vm.sh("zcat /usr/share/man/man%s/%s.%s.gz >/dev/null" % (section, page, section))


def test_the_unit(installed):
    """systemd has nothing to say against the unit, the daemon is started with the machine, keeps
    process 1's view of mounts, cannot easily be chosen for want of memory, and its children have
    no other limits than process 1's."""
    vm = installed
    assert vm.sh("systemd-analyze verify --man=no quarryd.service 2>&1").out == ""
    assert vm.sh("systemctl is-enabled quarryd").out == "enabled\n"
    pid = main_pid(vm)
    assert vm.sh("readlink /proc/%s/ns/mnt" % pid).out == vm.sh("readlink /proc/1/ns/mnt").out
    assert vm.text("/proc/%s/oom_score_adj" % pid) == "-200\n"
    # systemd's own defaults for every service: files (soft and hard) and signals.
    usual = re.compile("Max (open files|pending signals|locked memory|core file size).*")
    limits, init_limits = vm.text("/proc/%s/limits" % pid), vm.text("/proc/1/limits")
    assert usual.sub("", limits) == usual.sub("", init_limits)
    assert vm.sh("systemctl show -P TasksMax quarryd").out == "infinity\n"
    assert "Seccomp:\t0\n" in vm.text("/proc/%s/status" % pid)
    before = vm.sh("systemctl show -P Before quarryd").out.split()
    assert "basic.target" in before and "shutdown.target" in before


def test_a_crash(installed):
    """A daemon that crashes is started again; the driver of a mount lives on, and the new daemon
    manages that mount. One that is ended with a refusal is not started again and again."""
    vm = installed
    name = vm.node("disk")
    vm.sh("quarryctl mount rw " + name)
    driver = vm.sh("pidof ntfs-3g").out.strip()
    old = main_pid(vm)
    assert "quarryd.service" in vm.text("/proc/%s/cgroup" % driver)
    vm.sh("kill -SEGV " + old)
    vm.wait_until(lambda: main_pid(vm) not in (old, "0"), 60)
    serving(vm)
    assert vm.sh("pidof ntfs-3g").out.strip() == driver
    vm.sh("echo alive >/mnt/%s/file && quarryctl umount %s" % (name, name))
    vm.wait_until(lambda: not alive(vm, driver), 30)
    vm.put("/etc/default/quarryd", 'QUARRYD_OPTIONS="--bogus"\n')
    vm.sh("systemctl restart quarryd")
    vm.wait_until(lambda: vm.sh("systemctl is-failed quarryd", check=False).out == "failed\n", 60)
    assert vm.sh("systemctl show -P NRestarts -P ExecMainStatus quarryd").out.split() == ["0", "1"]
    vm.put("/etc/default/quarryd", 'QUARRYD_OPTIONS=""\n')
    vm.sh("systemctl reset-failed quarryd; systemctl start quarryd")
    serving(vm)


CURIOUS_HOOK = """#!/usr/bin/python3
import os, socket, subprocess
with open("/run/rig/hook", "w") as said:
    socket.socket(socket.AF_INET).close()
    open("/run/rig/tool", "w").close()
    os.chmod("/run/rig/tool", 0o4755)
    os.chown("/run/rig/tool", 1001, 1001)
    subprocess.run(["setpriv", "--reuid=1001", "--clear-groups", "true"], check=True,
                   stdin=subprocess.DEVNULL, stdout=said, stderr=said)
    said.write("unharmed\\n")
"""


@pytest.mark.long
def test_the_hardened_unit(installed):
    """With the example drop-in, which is in force then, everybody sees the mounts, drivers of
    either kind work, hooks may do what hooks do, and a stick that is pulled out while a process
    sits there is given up in order."""
    vm = installed
    vm.sh("mkdir -p %s && cp %s/systemd/hardening.conf %s && systemctl daemon-reload && "
          "systemctl restart quarryd" % (os.path.dirname(DROP_IN), EXAMPLES, DROP_IN))
    serving(vm)
    try:
        pid = main_pid(vm)
        status = vm.text("/proc/%s/status" % pid)
        bounding = int(re.search(r"CapBnd:\s+(\w+)", status).group(1), 16)
        assert "Seccomp:\t2\n" in status and not bounding & 1 << 25       # CAP_SYS_TIME
        assert "NoNewPrivs:\t0\n" in status
        vm.put(HOOKS + "/curious", CURIOUS_HOOK, 0o755)
        disk, stick = vm.node("disk"), vm.node("stick")
        vm.sh("quarryctl mount rw %s && quarryctl mount rw %s" % (disk, stick))
        assert mounts(vm) == {"/mnt/" + disk: "fuseblk", "/mnt/" + stick: "ext4"}
        assert vm.text("/run/rig/hook") == "unharmed\n"
        sitter = hold(vm, "cwd", "/mnt/" + stick)
        vm.unplug("stick")
        vm.wait_until(lambda: not alive(vm, sitter), 20)
        vm.wait_until(lambda: mounts(vm) == {"/mnt/" + disk: "fuseblk"}, 20)
        vm.sh("quarryctl umount " + disk)
    finally:
        vm.sh("rm -rf %s %s/*; systemctl daemon-reload; systemctl restart quarryd"
              % (os.path.dirname(DROP_IN), HOOKS))
        if not vm.present("stick"):
            vm.plug("stick")


def repacked(package, version, folder):
    """The same package with another version."""
    tree = os.path.join(folder, "tree")
    subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
    control = os.path.join(tree, "DEBIAN", "control")
    with open(control, encoding="utf-8") as f:
        text = re.sub("(?m)^Version: .*", "Version: " + version, f.read())
    with open(control, "w", encoding="utf-8") as f:
        f.write(text)
    result = os.path.join(folder, "upgrade.deb")
    subprocess.run(["dpkg-deb", "--root-owner-group", "-Zgzip", "-b", tree, result], check=True,
                   stdout=subprocess.DEVNULL)
    return result


def test_an_upgrade(installed, tmp_path):
    """An upgrade leaves the daemon running, the mounts as they are, who works there undisturbed,
    and the settings as they were changed; the new daemon begins with the next start."""
    vm = installed
    name = vm.node("stick")
    vm.sh("quarryctl mount rw %s; echo '# ours' >>/etc/quarryd.conf" % name)
    pid, worker = main_pid(vm), hold(vm, "writer", "/mnt/" + name)
    install(vm, repacked(host.package(), "9:9", str(tmp_path)), "dpkg -i")
    assert vm.sh("dpkg-query -W -f '${Version}' quarryd").out == "9:9"
    assert main_pid(vm) == pid and alive(vm, worker) and "/mnt/" + name in mounts(vm)
    assert vm.sh("readlink /proc/%s/exe" % pid).out == "/usr/sbin/quarryd (deleted)\n"
    assert "# ours" in vm.text("/etc/quarryd.conf")
    vm.sh("kill %s; quarryctl list && systemctl restart quarryd" % worker)
    serving(vm)
    assert vm.sh("readlink /proc/%s/exe" % main_pid(vm)).out == "/usr/sbin/quarryd\n"
    assert mounts(vm) == {}


@pytest.mark.long
def test_the_packages_own_test(installed):
    """What the package brings for distributions to test it with passes."""
    vm = installed
    vm.put("/tmp/installed-daemon", document("debian/tests/installed-daemon"), 0o755)
    vm.sh("/tmp/installed-daemon", timeout=120)
    vm.sh("systemctl start quarryd")


def test_the_purge(installed):
    """Removing the package ends the daemon in order, and purging it leaves no file behind that was
    not there before."""
    vm = installed
    vm.sh("quarryctl mount rw %s" % vm.node("stick"))
    pid = main_pid(vm)
    vm.sh("dpkg --purge quarryd", timeout=180)
    assert not alive(vm, pid) and mounts(vm) == {}
    assert files_of(vm) - {"/root/quarryd.deb"} == vm.files_before


WORKER = """[Service]
ExecStart=/bin/sleep infinity
ExecStop=/bin/sh -c 'echo farewell >/mnt/%s/farewell'
[Install]
WantedBy=multi-user.target
"""


@pytest.mark.long
def test_the_machines_end(installed):
    """When the machine goes down, the daemon ends after the services that use its volumes, and its
    volumes are clean."""
    vm = installed
    name = vm.node("stick")
    vm.sh("quarryctl mount rw " + name)
    vm.put("/etc/systemd/system/worker.service", WORKER % name)
    vm.sh("systemctl daemon-reload; systemctl start worker; systemctl poweroff")
    deadline = time.monotonic() + 90
    while vm.process.poll() is None:
        assert time.monotonic() < deadline, vm.log()[-2000:]
        time.sleep(0.2)
    said = subprocess.run(["/sbin/debugfs", "-R", "cat /farewell", _stick_image],
                          capture_output=True, text=True, check=True)
    assert said.stdout == "farewell\n"
    state = subprocess.run(["/sbin/dumpe2fs", "-h", _stick_image], capture_output=True, text=True,
                           check=True).stdout
    assert re.search(r"Filesystem state: +clean\n", state) and "needs_recovery" not in state
