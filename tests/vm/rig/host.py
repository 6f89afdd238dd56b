"""What this machine offers: the cache with the guest image, the staged daemon, the accelerator."""
import fcntl
import functools
import glob
import io
import os
import subprocess
import tarfile
import tempfile

from .errors import RigError

HERE = os.path.dirname(os.path.abspath(__file__))
GUEST_FILES = os.path.join(HERE, "guest")


def cache_folder():
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.environ.get("QUARRYD_CACHE") or os.path.join(base, "quarryd-tests")


def as_root(argv):
    """The command with root's rights, through sudo when somebody else runs this."""
    if os.geteuid() == 0:
        return argv
    return ["sudo", "--preserve-env=QUARRYD_CACHE,QUARRYD_GUEST_PACKAGES,XDG_CACHE_HOME,HOME,PATH,"
            "LC_ALL"] + argv


@functools.cache
def build_image():
    """The folder of the guest image, which is built when there is none of these inputs. It is not
    removed while this process lives."""
    done = subprocess.run(as_root([os.path.join(HERE, "build_image")]), stdout=subprocess.PIPE,
                          text=True, check=True)
    folder = done.stdout.splitlines()[-1]
    in_use = os.open(os.path.join(folder, "in-use"), os.O_RDONLY | os.O_CLOEXEC)
    fcntl.flock(in_use, fcntl.LOCK_SH)
    return folder


def image_file(name):
    """Path of a part of the guest image: "vmlinux", "initrd", "root.img", "tree"."""
    return os.path.join(build_image(), name)


@functools.cache
def staged_daemon():
    """A tar archive of the tree that `scripts/package folder` (or `DESTDIR=folder cmake --install`)
    made; the folder is named by QUARRYD_STAGE. Everything in it belongs to root, as after an
    installation."""
    stage = os.environ.get("QUARRYD_STAGE")
    if not stage:
        raise RigError("QUARRYD_STAGE is not set: it names the folder of the staged installation "
                       "(./scripts/package folder)")
    for name in ("usr/sbin/quarryd", "usr/bin/volsniffer"):
        if not os.access(os.path.join(stage, name), os.X_OK):
            raise RigError("QUARRYD_STAGE=%s holds no executable %s" % (stage, name))

    def as_root(entry):
        entry.uid = entry.gid = 0
        entry.uname = entry.gname = "root"
        if entry.isdir():
            entry.mode = 0o755
        return entry

    archive = io.BytesIO()
    with tarfile.open(fileobj=archive, mode="w") as tar:
        for name in sorted(os.listdir(stage)):
            tar.add(os.path.join(stage, name), arcname=name, filter=as_root)
    return archive.getvalue()


def package():
    """The path of the Debian package: QUARRYD_PACKAGE, or the one that ./scripts/package made."""
    made = glob.glob(os.path.join(HERE, "../../../build/package/quarryd_*.deb"))
    path = os.environ.get("QUARRYD_PACKAGE") or (made or [""])[0]
    if not os.path.isfile(path):
        raise RigError("there is no Debian package %s (./scripts/package makes one)" % path)
    return path


@functools.cache
def accelerator():
    """"kvm" when guests really run on it, "tcg" (software emulation) otherwise.

    A /dev/kvm that is there proves nothing: where it is emulated in turn, guests can hang on it.
    So a machine is booted on it with a short deadline, once for each boot of this machine; the
    verdict is kept in the cache. QUARRYD_ACCEL overrides it."""
    if os.environ.get("QUARRYD_ACCEL"):
        return os.environ["QUARRYD_ACCEL"]
    if not os.access("/dev/kvm", os.R_OK | os.W_OK):
        return "tcg"
    with open("/proc/sys/kernel/random/boot_id") as f:
        boot = f.read().strip()
    os.makedirs(cache_folder(), exist_ok=True)
    with open(os.path.join(cache_folder(), "accelerator"), "a+") as verdict:
        fcntl.flock(verdict, fcntl.LOCK_EX)
        verdict.seek(0)
        words = verdict.read().split()
        if len(words) == 2 and words[0] == boot:
            return words[1]
        found = "kvm" if _boots_on_kvm() else "tcg"
        verdict.truncate(0)
        verdict.write("%s %s\n" % (boot, found))
        return found


def _boots_on_kvm():
    from .vm import VM               # here, because a VM asks for the accelerator
    try:
        with VM(accel="kvm", boot_timeout=15, install=False) as vm:
            return vm.sh("python3 -c 'print(sum(range(100000)))'", timeout=10).out != ""
    except (RigError, TimeoutError):
        return False


def machine_folder():
    """A temporary folder for one machine. Folders of ended processes are removed first."""
    base = os.path.join(tempfile.gettempdir(), "quarryd-vms")
    os.makedirs(base, mode=0o700, exist_ok=True)
    if os.stat(base).st_uid != os.getuid():
        raise RigError("%s belongs to somebody else" % base)
    if not keep_machines():
        for name in os.listdir(base):
            owner = name.split("-")[0]
            if owner.isdigit() and not os.path.exists("/proc/" + owner):
                subprocess.run(["rm", "-rf", os.path.join(base, name)], check=False)
    return tempfile.mkdtemp(prefix="%d-" % os.getpid(), dir=base)


def keep_machines():
    """QUARRYD_KEEP: the machines' folders (console, qemu.err, disk images) stay for a look."""
    return bool(os.environ.get("QUARRYD_KEEP"))
