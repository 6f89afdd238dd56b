"""Programs that the daemon runs when it mounts something, replaced by scripts.

Each notes how it was called, a line for each call, and then does as it is told. No script can give
a drive a file system that the kernel mounts here, but the driver programs can mount a tmpfs in the
drive's name, which the kernel then lists, remounts, finds busy and unmounts as it does any other.
"""

import os

CALLS = "/run/stand-in-calls"
REAL_MOUNT = "/.usr/bin/mount"

# Without nosuid and nodev, as a driver program might.
MOUNT_TMPFS = f"""
for directory in "$@"; do device=$before before=$directory; done
case "$*" in "-o ro "*) mode=ro;; *) mode=rw;; esac
exec {REAL_MOUNT} -t tmpfs -o mode=755,$mode "$device" "$directory"
"""


def stand_in(machine, path, text="exit 0\n"):
    """Puts a script in a program's place."""
    if os.path.lexists(path):
        os.unlink(path)
    machine.script(path, f'echo "$0 $*" >> {CALLS}\n{text}')


def calls(program=""):
    """The calls so far of the stand-ins whose path ends in program."""
    if not os.path.exists(CALLS):
        return []
    with open(CALLS, errors="surrogateescape") as file:
        return [line for line in file.read().splitlines() if line.split()[0].endswith(program)]


def install(machine):
    """modprobe and mount do nothing and succeed; no driver program is there."""
    for name in ("ntfs-3g", "mount.exfat", "mount.exfat-fuse"):
        for folder in ("/usr/bin", "/usr/sbin"):
            if os.path.lexists(f"{folder}/{name}"):
                os.unlink(f"{folder}/{name}")
    stand_in(machine, "/usr/sbin/modprobe")
    stand_in(machine, "/usr/bin/mount")


def driver_mounts(machine, path="/usr/sbin/mount.exfat", text=""):
    """A driver program that really mounts, as it was asked, after some other commands."""
    stand_in(machine, path, text + MOUNT_TMPFS)


def driver_lists(machine, options="rw", fstype="exfat", path="/usr/sbin/mount.exfat", after=None):
    """A driver program that makes up a line of /proc/mounts instead of mounting: at once, or in
    the background after some seconds."""
    line = f'echo "$device $directory {fstype} {options} 0 0" >> /proc/mounts'
    if after is not None:
        line = f"(sleep {after}; {line}) > /dev/null 2>&1 &"
    stand_in(
        machine,
        path,
        'for directory in "$@"; do device=$before before=$directory; done\n' + line + "\n",
    )


def exfat_stick(machine, name="sdb1", label="DATA"):
    """A stick that mount.exfat really mounts; the kernel's own table is shown."""
    install(machine)
    machine.real_mounts()
    drive = name.rstrip("0123456789")
    if drive not in machine.folders:
        machine.plug("usb", drive, 1 << 20)
    if name != drive:
        machine.part(name, 4096)
    machine.probe_says(name, label, "exfat")
    driver_mounts(machine)


def mount_options(point):
    """The options of a real mount as the kernel lists them, or None."""
    with open("/.proc/self/mounts") as file:
        for line in file:
            fields = line.split()
            if fields[1] == point:
                return fields[3].split(",")
    return None


def shown_when_mounting(machine, *lines, script="show"):
    """A notification script that makes up lines of /proc/mounts when a mount is announced: what the
    kernel would list after a mount(2) that is only made to look successful."""
    text = "".join(f'echo "{line} 0 0" >> /proc/mounts\n' for line in lines)
    machine.script(
        f"/var/quarryd/mount-notify/{script}", f'[ "$2" = about-to-mount ] || exit 0\n{text}'
    )


def notes_events(machine, more=""):
    """A notification script that writes down what it was called with."""
    machine.script(
        "/var/quarryd/mount-notify/note", f'echo "$1 $2" >> /run/events\n{more}\n'
    )


def events():
    if not os.path.exists("/run/events"):
        return []
    with open("/run/events", errors="surrogateescape") as file:
        return file.read().splitlines()
