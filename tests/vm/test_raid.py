"""Members of md arrays, told by what lies on them and by the kernel."""
import pytest

from rig import Disk

pytestmark = pytest.mark.long

DISKS = [Disk("virtio-scsi", 32 << 20, id="a"), Disk("virtio-scsi", 32 << 20, id="b")]


def states(vm):
    rows = {f[1]: f[8] for f in (line.split("\t") for line in vm.request("list").splitlines())
            if len(f) == 10}
    return [rows[vm.node(id)] for id in ("a", "b")]


@pytest.mark.parametrize("metadata, found", [("0.90", True), ("1.0", False), ("1.1", True),
                                             ("1.2", True)])
def test_members_by_their_superblock(fresh, metadata, found):
    """A member of a stopped array is known by its superblock, "Inactive RAID"; of the four kinds
    the one in the last sectors (1.0) is looked for in the wrong place and not seen. Running, the
    members of each are "Active RAID", because the kernel names them."""
    a, b = fresh.node("a"), fresh.node("b")
    fresh.sh("mdadm -q --create /dev/md7 --run --level=1 --raid-devices=2 --metadata=%s "
             "--assume-clean /dev/%s /dev/%s 2>&1" % (metadata, a, b))
    fresh.daemon()
    assert fresh.request("refresh") == "OK refreshed\n"
    assert states(fresh) == ["Active RAID"] * 2
    fresh.sh("mdadm -q --stop /dev/md7 2>&1")
    fresh.request("refresh")
    assert states(fresh) == ["Inactive RAID" if found else ""] * 2
    fresh.sh("mdadm -q --zero-superblock /dev/%s /dev/%s" % (a, b))
    fresh.request("refresh")
    assert states(fresh) == ["", ""]


def test_member_is_not_probed(fresh):
    """A member is never given to the label probe by `list`: the filesystem of the array, which
    begins at the member's first sector with some kinds, is not its own."""
    a, b = fresh.node("a"), fresh.node("b")
    fresh.sh("mdadm -q --create /dev/md7 --run --level=1 --raid-devices=2 --metadata=0.90 "
             "--assume-clean /dev/%s /dev/%s 2>&1 && mkfs.ext4 -q -L ARRAY /dev/md7" % (a, b))
    daemon = fresh.daemon()
    fresh.request("refresh")
    listing = fresh.request("list")
    assert listing.count("\tARRAY\t") == 1
    assert "\tmd7\tHard Drive\tRAID\tARRAY\t" in listing
    assert daemon.err().count("Label: 'ARRAY'") == 1
    fresh.sh("mdadm -q --stop /dev/md7 2>&1; mdadm -q --zero-superblock /dev/%s /dev/%s; "
             "wipefs -q -a /dev/%s /dev/%s" % (a, b, a, b))


def test_mirror_unmounted_at_the_end(fresh):
    """A mounted array is unmounted at the end like a drive; the array itself is left running."""
    a, b = fresh.node("a"), fresh.node("b")
    fresh.sh("mdadm -q --create /dev/md7 --run --level=1 --raid-devices=2 --metadata=1.2 "
             "--assume-clean /dev/%s /dev/%s 2>&1 && mkfs.ext4 -q -L ARRAY /dev/md7 && "
             "mkdir /mnt/md7 && mount /dev/md7 /mnt/md7" % (a, b))
    assert fresh.daemon().stop() == 0
    assert "/mnt" not in fresh.text("/proc/mounts")
    assert "md7 : active" in fresh.text("/proc/mdstat")
    fresh.sh("mdadm -q --stop /dev/md7 2>&1; mdadm -q --zero-superblock /dev/%s /dev/%s" % (a, b))
