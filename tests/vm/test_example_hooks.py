"""The example hooks, as they are installed, each laid into the daemon's folder."""
import os

import pytest

from mounts import mounted_as
from rig import Disk, images

EXAMPLES = "/usr/share/doc/quarryd/examples/hooks/"
FOLDER = "/var/quarryd/mount-notify/"
MOUNTED, VETOED = "OK mount succeeded\n\n", "ERR mounting was vetoed by notification script\n"
NASTY = "$(id) `id`'\\ x"


def drives(folder):
    def image(name, label):
        return images.fs(os.path.join(folder, name), "8M", "ext4", label)
    return [Disk("virtio-scsi", image("plain", "HOLIDAY"), id="plain"),
            Disk("virtio-scsi", image("nasty", NASTY), id="nasty"),
            Disk("virtio-scsi", 8 << 20, id="changing")]


@pytest.fixture
def clean(fresh):
    """The machine with nothing in /etc/quarryd; the daemon is yet to be started."""
    fresh.sh("rm -rf /etc/quarryd /run/rig/said")
    yield fresh
    fresh.sh("rm -rf /etc/quarryd")


@pytest.fixture
def ready(clean):
    """The same with the daemon running."""
    clean.daemon()
    return clean


def lay(vm, hook, folder=FOLDER, **edits):
    """Installs an example the way its README says; edits: lines of it that are set otherwise."""
    vm.sh("mkdir -p %s && install -m 755 %s %s" % (folder, EXAMPLES + hook, folder))
    for variable, value in edits.items():
        vm.sh("sed -i 's|^%s=.*|%s=%s|' %s" % (variable, variable, value, folder + hook))


def mount(vm, id):
    return vm.request("mount rw " + vm.node(id))


def messages(vm):
    return [line.split("quarryd-hook: ", 1)[1] for line in vm.syslog() if "quarryd-hook: " in line]


@pytest.mark.parametrize("kind, make, harm", [
    ("ext4", "mkfs.ext4 -q -F", "for value in 'free_blocks_count 1' 'state 0'; do "
     "debugfs -w -R \"set_super_value $value\" %s; done"),
    pytest.param("vfat", "mkfs.fat -F 12", "printf '\\001' | dd of=%s bs=1 seek=37 conv=notrunc "
                 "status=none", marks=pytest.mark.long)], ids=["ext4", "vfat"])
def test_fsck_before_mount(clean, kind, make, harm):
    """A volume that was not unmounted in order is mended and then mounted; one that cannot be
    mended without asking is not, and the log says so; one that cannot be written to is mounted as
    it is."""
    vm, name = clean, clean.node("changing")
    path = "/dev/" + name
    vm.sh("wipefs -qa %s; %s %s; %s" % (path, make, path, harm % path))
    vm.daemon()
    lay(vm, "fsck-before-mount")

    def complaint():
        said = vm.sh("fsck.%s -n %s 2>&1" % (kind, path), check=False).out
        return "not cleanly unmounted" in said or "Dirty bit is set" in said
    assert complaint()
    assert mount(vm, "changing") == MOUNTED
    assert vm.request("umount " + name) == "OK unmount succeeded\n"
    assert not complaint()
    # A checker that says that errors are left.
    checker = {"ext4": "e2fsck", "vfat": "fsck.fat"}[kind]
    vm.put("/usr/local/sbin/" + checker, "#!/bin/sh\nexit 4\n", 0o755)
    assert mount(vm, "changing") == VETOED and mounted_as(vm, name) is None
    assert messages(vm) == ["/dev/%s is not mounted: %s ended with status 4" % (name, checker)]
    vm.sh("blockdev --setro " + path)
    try:
        assert vm.request("mount ro " + name) == MOUNTED
        assert vm.request("umount " + name) == "OK unmount succeeded\n"
    finally:
        vm.sh("blockdev --setrw " + path)


def test_deny_labels(ready):
    """What the list names is vetoed, letter by letter, whatever is in its label; other volumes are
    mounted, those without a label too; so is everything when there is no list."""
    vm = ready
    lay(vm, "deny-labels")
    assert mount(vm, "nasty") == MOUNTED
    vm.request("umount " + vm.node("nasty"))
    vm.put("/etc/quarryd/denied-labels", "HOLI.*\nholiday\n%s\n" % NASTY)
    assert mount(vm, "nasty") == VETOED and mount(vm, "plain") == MOUNTED
    assert messages(vm) == ["/dev/%s is not mounted: its label is '%s'" % (vm.node("nasty"), NASTY)]
    vm.request("umount " + vm.node("plain"))
    vm.put("/etc/quarryd/denied-labels", "HOLIDAY\n")
    assert mount(vm, "plain") == VETOED and mount(vm, "nasty") == MOUNTED
    vm.sh("mkfs.ext4 -q -F /dev/" + vm.node("changing"))
    assert mount(vm, "changing") == MOUNTED


# Says what it was told, and holds what is exported: an export is busy.
EXPORTFS = """#!/bin/sh
echo "$*" >>/run/rig/said
for last; do :; done
holder=/run/rig/holder-${last##*/}
case $1 in
-o) cd "${last#*:}" && { sleep 1000 & echo $! >"$holder"; } ;;
-u) [ ! -e "$holder" ] || { kill "$(cat "$holder")"; rm "$holder"; } ;;
esac
"""


def test_export_volume(ready):
    """A volume whose label is listed is exported when it is mounted, and not any more when it is
    unmounted, which would fail otherwise; as stop script it takes back all that is exported."""
    vm = ready
    lay(vm, "export-volume")
    vm.put("/usr/local/sbin/exportfs", EXPORTFS, 0o755)
    vm.put("/etc/quarryd/exported-labels", "HOLIDAY\t192.168.1.0/24\tro,no_subtree_check\n"
                                           "%s\thost\trw\n" % NASTY)
    plain, nasty = vm.node("plain"), vm.node("nasty")
    vm.sh("mkfs.ext4 -q -F /dev/" + vm.node("changing"))
    for id in ("plain", "changing"):
        assert mount(vm, id) == MOUNTED
    assert vm.text("/run/rig/said") == "-o ro,no_subtree_check 192.168.1.0/24:/mnt/%s\n" % plain
    assert vm.sh("umount /mnt/" + plain, check=False).rc != 0
    assert vm.request("umount " + plain) == "OK unmount succeeded\n"
    assert "-u 192.168.1.0/24:/mnt/%s\n" % plain in vm.text("/run/rig/said")
    vm.sh("rm /run/rig/said")
    assert mount(vm, "nasty") == MOUNTED
    assert vm.text("/run/rig/said") == "-o rw host:/mnt/%s\n" % nasty
    vm.sh(FOLDER + "export-volume -shutdown")
    assert "-u host:/mnt/%s\n" % nasty in vm.text("/run/rig/said")


def test_backup_on_arrival(clean):
    """The folder is saved to the volume with the label, and to no other, by a process that does not
    hold the daemon up and leaves no unfinished archive."""
    vm, name = clean, clean.node("changing")
    vm.sh("mkfs.ext4 -q -F -L SAVE /dev/%s; mkdir -p '/srv/two words'; "
          "echo kept >'/srv/two words/a'" % name)
    vm.daemon()
    lay(vm, "backup-on-arrival", label="SAVE")
    # A tar that takes until it is told to go on.
    vm.put("/usr/local/bin/tar", "#!/bin/sh\nuntil [ -e /run/rig/go ]; do sleep 0.1; done\n"
                                 "exec /bin/tar \"$@\"\n", 0o755)
    try:
        assert mount(vm, "changing") == MOUNTED and mount(vm, "plain") == MOUNTED
        assert vm.request("list").endswith("OK  eom\n") and not messages(vm)
    finally:
        vm.put("/run/rig/go", "")
    vm.wait_until(lambda: messages(vm), 60)
    archive = vm.sh("ls /mnt/%s | grep tar" % name).out.strip()
    assert messages(vm) == ["saved /srv as /mnt/%s/%s" % (name, archive)]
    assert vm.sh("tar -xOf /mnt/%s/%s './two words/a'" % (name, archive)).out == "kept\n"
    assert vm.sh("ls /mnt/%s" % vm.node("plain")).out == "lost+found\n"
    vm.wait_until(lambda: vm.request("umount " + name) == "OK unmount succeeded\n", 30)
    vm.sh("rm -r '/srv/two words'")


def test_in_order(ready):
    """The files of the other folder are run in the order of their names with the daemon's words;
    the first that fails vetoes and is the last, however long those before it took."""
    vm, name = ready, ready.node("plain")
    lay(vm, "in-order")
    said = "#!/bin/sh\necho \"${0##*/} $*\" >>/run/rig/said\n"
    vm.sh("mkdir -p /etc/quarryd/mount-notify.d")
    for hook, rest in (("20-second", ""), ("30-denied~", "exit 1\n"), ("40.dpkg-old", "exit 1\n"),
                       ("10-first", "[ $2 != about-to-mount ] || sleep 3.5\n")):
        vm.put("/etc/quarryd/mount-notify.d/" + hook, said + rest, 0o755)
    assert mount(vm, "plain") == MOUNTED
    assert vm.text("/run/rig/said").splitlines() == [
        "%s %s" % (hook, event) for event in (name + " about-to-mount", "/dev/%s mount" % name)
        for hook in ("10-first", "20-second")]
    vm.request("umount " + name)
    lay(vm, "deny-labels", "/etc/quarryd/mount-notify.d/", list="/run/rig/denied")
    vm.put("/run/rig/denied", "HOLIDAY\n")
    vm.put("/etc/quarryd/mount-notify.d/never", said, 0o755)
    vm.sh("rm /run/rig/said")
    assert mount(vm, "plain") == VETOED
    assert "never" not in vm.text("/run/rig/said")
