"""The listings of a machine with one drive of every kind."""
import pytest

from expected import enumerate_text, human_text, list_text, machine_rows
from rig import GUEST, images, sample_machine

drives = sample_machine.drives


@pytest.fixture(scope="module")
def assembled(vm):
    sample_machine.assemble(vm)
    return vm


@pytest.fixture
def sample(assembled):
    """The sample machine with its mirror, its device-mapper volume, and a daemon that has marked
    the mirror's members. Its first inventory meets members before or behind their array, as the
    directory's order has it; "refresh" sets every mark anew."""
    assembled.reset(keep_volumes=True)
    assembled.daemon()
    assert assembled.request("refresh") == "OK refreshed\n"
    return assembled


def test_list_shows_every_kind_of_drive(sample):
    """Every drive and partition stands in `list` with its type, connection, label, size, model,
    place, RAID state and filesystem."""
    rows = machine_rows(sample)
    # The machine itself is the one that was meant: nothing is compared with an empty table.
    found = {(r.connection, r.type) for r in rows}
    assert found == {("SATA", "Hard Drive"), ("USB", "Hard Drive"), ("NVME", "Hard Drive"),
                     ("MMC/SD", "Hard Drive"), ("SCSI", "Hard Drive"), ("SATA", "CD-ROM"),
                     ("SCSI", "CD-ROM"), ("RAID", "Hard Drive"), ("LVM", "Logical Volume"),
                     ("Unassigned", "")} | {(c, "Partition") for c in (
                         "SATA", "USB", "NVME", "MMC/SD", "SCSI", "Unassigned")}
    assert {(r.label, r.filesystem) for r in rows if r.label} == {
        ("archive", "ext4"), ("HOLIDAY", "fat"), ("scratch", "xfs"), ("CAMERA", "fat"),
        ("INSTALL_DISC", "iso9660"), ("mirror", "ext4"), ("vault", "ext4"), ("rigroot", "ext4")}
    assert [r.raid for r in rows].count("Active RAID") == 2
    assert sample.request("list") == list_text(rows)


def test_list_human_shows_the_same_in_columns(sample):
    """`list human` and `list user` show the same rows in columns of fixed width."""
    rows = machine_rows(sample)
    assert sample.request("list human") == human_text(rows)
    assert sample.request("list user") == human_text(rows)


def test_enumerate_groups_by_connection(sample):
    """`enumerate` of a fresh daemon groups the drives by their connection, leaves NVMe and
    device-mapper out, and does not look at a disc that is in its drive."""
    rows = machine_rows(sample)
    for r in rows:
        if r.type == "CD-ROM":
            r.label = ""
    assert sample.request("enumerate") == enumerate_text(rows)


@pytest.mark.long
def test_enumerate_after_list_knows_the_disc(sample):
    """What `list` has learnt of a disc stands in `enumerate` too."""
    sample.request("list")
    assert sample.request("enumerate") == enumerate_text(machine_rows(sample))


@pytest.mark.long
def test_everybody_may_list(sample):
    """A user without rights gets the same listings as root."""
    sample.request("hotplug")              # in this mode what is learnt once is not asked again
    for request in ("list", "list human", "enumerate", "help"):
        assert sample.request(request, uid=GUEST, gid=GUEST) == sample.request(request)


@pytest.mark.long
def test_disc_changed(sample, tmp_path):
    """A disc taken out leaves the next listing with its label and filesystem; another one shows
    its own."""
    name, disc = sample.node("dvd"), sample.slots["dvd"].path

    def row():
        lines = sample.request("list").splitlines()
        return next(line.split("\t")[1:] for line in lines if line.startswith("OK- \t%s\t" % name))
    assert (row()[3], row()[8]) == ("INSTALL_DISC", "iso9660")
    sample.remove_medium("dvd")
    assert (row()[3], row()[8]) == ("", "")
    sample.insert("dvd", images.iso(str(tmp_path / "other"), "OTHER_DISC"))
    assert (row()[3], row()[8]) == ("OTHER_DISC", "iso9660")
    sample.insert("dvd", disc)


@pytest.mark.long
def test_a_mounted_drive_is_listed_as_known(sample):
    """Mounted devices keep their label and filesystem in the listings, and being mounted does not
    keep the probe off: only an open descriptor does."""
    part = sample.parts("disk")[0]
    sample.sh("mkdir /mnt/%s && mount /dev/%s /mnt/%s" % (part, part, part))
    assert "\t%s\tPartition\tSATA\tarchive\t" % part in sample.request("list")


@pytest.mark.long
def test_a_drive_in_use_is_not_probed(sample):
    """A whole drive is not probed while any process has a descriptor open on it or on one of its
    partitions; its partitions are probed all the same."""
    name = sample.node("disk")
    part = sample.parts("disk")[0]
    sample.sh("exec 9</dev/%s; sleep 1000 & " % part)
    text = sample.request("list")
    drive = next(line for line in text.splitlines() if line.startswith("OK- \t%s\t" % name))
    assert drive.endswith("\t"), drive            # the filesystem stays unknown, not " "
    assert "\t%s\tPartition\tSATA\tarchive\t" % part in text
