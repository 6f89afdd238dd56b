"""What the guest's kernel says of mounts, for the tests of the mount command."""


def mount_flags(vm, name):
    """The options of the mount of a device at /mnt/NAME, as the kernel lists them for the mount
    itself: {"rw", "nosuid", ...}. None when it is not mounted there."""
    for line in vm.text("/proc/self/mountinfo").splitlines():
        fields = line.split()
        if fields[4] == "/mnt/" + name:
            assert fields[fields.index("-") + 2] == "/dev/" + name, line
            return set(fields[5].split(","))
    return None


def is_protected(vm, name):
    """Whether neither set-user-id programs nor device nodes of the mount mean anything."""
    return {"nosuid", "nodev"} <= mount_flags(vm, name)


def mounted_as(vm, name):
    """(the filesystem's type, "ro" or "rw") of what is mounted at /mnt/NAME, or None. Without
    being told, a filesystem may be read-only below a mount that is not."""
    for line in vm.text("/proc/mounts").splitlines():
        fields = line.split()
        if fields[1] == "/mnt/" + name:
            return fields[2], fields[3].split(",")[0]
    return None


def entries_of_mnt(vm):
    """What is in /mnt: {"sda": "", "^LABEL": "sda"}, with the targets of links. The housekeeping may
    take something away just then."""
    out = vm.sh(r"find /mnt -ignore_readdir_race -mindepth 1 -maxdepth 1 -printf '%f\t%l\0'").out
    return dict(entry.rsplit("\t", 1) for entry in out.split("\0") if entry)


def loaded_modules(vm):
    return {line.split()[0] for line in vm.text("/proc/modules").splitlines()}


def reply_to(vm, daemon, request, **more):
    """The reply to a request and the lines that the daemon said meanwhile."""
    mark = len(daemon.err())
    reply = vm.request(request, **more)
    return reply, daemon.err()[mark:].splitlines()
