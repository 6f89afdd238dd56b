"""System calls that Python has no name for: namespaces, mounts, filters of calls, inotify."""

import ctypes
import os
import select
import struct

libc = ctypes.CDLL(None, use_errno=True)

CLONE_NEWNS = 0x00020000
CLONE_NEWUTS = 0x04000000
CLONE_NEWIPC = 0x08000000
CLONE_NEWUSER = 0x10000000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000

MS_RDONLY = 1
MS_NOSUID = 2
MS_NODEV = 4
MS_NOEXEC = 8
MS_REMOUNT = 32
MS_NOATIME = 1024
MS_NODIRATIME = 2048
MS_BIND = 4096
MS_REC = 16384
MS_PRIVATE = 1 << 18
MS_RELATIME = 1 << 21
MNT_DETACH = 2

PR_SET_PDEATHSIG = 1
PR_SET_DUMPABLE = 4
PR_CAPBSET_DROP = 24
PR_SET_NO_NEW_PRIVS = 38
PR_SET_SECCOMP = 22

CAP_DAC_OVERRIDE = 1
CAP_DAC_READ_SEARCH = 2


def checked(result, what):
    """Raises the kernel's reason when a libc call answered below 0."""
    if result < 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")
    return result


def unshare(flags):
    checked(libc.unshare(flags), "unshare")


def mount(source, target, fstype=None, flags=0, data=None):
    def text(value):
        return None if value is None else os.fsencode(value)

    checked(
        libc.mount(text(source), text(target), text(fstype), ctypes.c_ulong(flags), text(data)),
        f"mount {source} on {target}",
    )


def umount(target, flags=0):
    checked(libc.umount2(os.fsencode(target), flags), f"umount {target}")


def pivot_root(new_root, put_old):
    number = {"x86_64": 155, "aarch64": 41}[os.uname().machine]
    result = libc.syscall(number, os.fsencode(new_root), os.fsencode(put_old))
    checked(result, f"pivot_root {new_root}")


def bind(source, target, read_only=True):
    """Shows source at target; the flags that the mount below insists on are kept."""
    mount(source, target, None, MS_BIND | MS_REC)
    if not read_only:
        return
    have = os.statvfs(target).f_flag
    keep = 0
    for statvfs_bit, mount_bit in (
        (os.ST_NOSUID, MS_NOSUID),
        (os.ST_NODEV, MS_NODEV),
        (os.ST_NOEXEC, MS_NOEXEC),
        (os.ST_NOATIME, MS_NOATIME),
        (os.ST_NODIRATIME, MS_NODIRATIME),
        (os.ST_RELATIME, MS_RELATIME),
    ):
        if have & statvfs_bit:
            keep |= mount_bit
    mount(None, target, None, MS_REMOUNT | MS_BIND | MS_RDONLY | keep)


def die_with_parent():
    libc.prctl(PR_SET_PDEATHSIG, 9, 0, 0, 0)


def be_asked_about():
    """Who has changed his user may write to the files about himself below /proc again."""
    libc.prctl(PR_SET_DUMPABLE, 1, 0, 0, 0)


def drop_file_override():
    """The next program is root without the right to ignore permission bits."""
    for capability in (CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH):
        checked(libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0), "drop a capability")


# System call numbers of x86-64, the only machine whose calls are refused by number.
SYSCALLS = {
    "read": 0,
    "ioctl": 16,
    "pipe": 22,
    "socket": 41,
    "accept": 43,
    "bind": 49,
    "listen": 50,
    "getsockopt": 55,
    "clone": 56,
    "fork": 57,
    "vfork": 58,
    "execve": 59,
    "fcntl": 72,
    "chdir": 80,
    "mkdir": 83,
    "mount": 165,
    "umount2": 166,
    "swapon": 167,
    "swapoff": 168,
    "quotactl": 179,
    "openat": 257,
    "openat": 257,
    "accept4": 288,
    "pipe2": 293,
    "clone3": 435,
    "mount_setattr": 442,
}


def refuse(rules):
    """Refuses system calls of the next program.

    A rule is (call name, errno) or (call name, errno, argument number, mask, value): then the
    call is refused only where the low 32 bits of that argument, masked, are the value.
    """
    code = []

    def statement(op, k, jt=0, jf=0):
        code.append(struct.pack("=HBBI", op, jt, jf, k & 0xFFFFFFFF))

    load, jump_equal, and_mask, ret = 0x20, 0x15, 0x54, 0x06
    for rule in rules:
        name, number = rule[0], rule[1]
        statement(load, 0)
        if len(rule) == 2:
            statement(jump_equal, SYSCALLS[name], 0, 1)
        else:
            argument, mask, value = rule[2:]
            statement(jump_equal, SYSCALLS[name], 0, 4)
            statement(load, 16 + 8 * argument)
            statement(and_mask, mask)
            statement(jump_equal, value, 0, 1)
        statement(ret, 0x00050000 | number)
    statement(ret, 0x7FFF0000)
    program = b"".join(code)
    buffer = ctypes.create_string_buffer(program, len(program))
    filter_record = struct.pack("HxxxxxxQ", len(code), ctypes.addressof(buffer))
    record = ctypes.create_string_buffer(filter_record, len(filter_record))
    checked(libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges")
    checked(libc.prctl(PR_SET_SECCOMP, 2, record, 0, 0), "refuse system calls")


IN_ACCESS = 0x1
IN_OPEN = 0x20
IN_CREATE = 0x100
IN_DELETE = 0x200


class FileWatch:
    """Tells which of some paths were opened or read, and in which order (inotify)."""

    def __init__(self, *paths, events=IN_OPEN):
        self.fd = checked(libc.inotify_init1(0o4000 | 0o2000000), "inotify_init1")
        self.names = {}
        for path in paths:
            watch = libc.inotify_add_watch(self.fd, os.fsencode(path), events)
            self.names[checked(watch, f"watch {path}")] = path

    def seen(self, timeout=0.0):
        """The events since the last call, as paths; waits up to timeout for the first."""
        paths = []
        if not select.select([self.fd], [], [], timeout)[0]:
            return paths
        while True:
            try:
                data = os.read(self.fd, 65536)
            except BlockingIOError:
                return paths
            offset = 0
            while offset < len(data):
                watch, _mask, _cookie, length = struct.unpack_from("iIII", data, offset)
                if watch in self.names:
                    paths.append(self.names[watch])
                offset += 16 + length

    def close(self):
        os.close(self.fd)
