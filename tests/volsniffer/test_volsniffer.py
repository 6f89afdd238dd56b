"""The label probe on images of every kind of content, and on what is no volume at all."""

import os
import random
import re
import socket
import subprocess

import pytest

import images

ANSWERED, MISUSED, UNREADABLE, NO_MEDIUM, AMBIGUOUS, RAID_MEMBER = 0, 2, 3, 4, 5, 6
FACT = re.compile(rb"  (filesystem|uuid|version|usage): [^\x00-\x1f\x7f]+")


@pytest.fixture(scope="session")
def made(tmp_path_factory):
    """made(kind) is the path of that kind's image, made once. Nobody writes to it."""
    folder = tmp_path_factory.mktemp("made")
    paths = {}

    def image(kind):
        if kind not in paths:
            path = folder / kind.replace(" ", "-")
            images.FILESYSTEMS[kind](path)
            paths[kind] = path
        return paths[kind]

    return image


def volsniffer(*arguments, under=(), **options):
    """Runs the probe as the daemon does, but for stderr. Three seconds are for ever; once more when
    they were over, for the machine itself may have stood still."""
    command = [*under, os.environ["VOLSNIFFER"], *(str(word) for word in arguments)]
    streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
    limit = 30 if under else 3
    try:
        done = subprocess.run(command, timeout=limit, **streams, **options)
    except subprocess.TimeoutExpired:
        done = subprocess.run(command, timeout=limit, **streams, **options)
    assert b"Sanitizer" not in done.stderr and b"runtime error" not in done.stderr, done.stderr
    return done


def facts_of(path):
    """The label, and a dictionary of the facts, of a volume that the probe answers for."""
    done = volsniffer(path, "--fs")
    assert (done.returncode, done.stderr) == (ANSWERED, b"")
    label, *lines, end = done.stdout.split(b"\n")
    assert end == b""
    facts = [line.decode().strip().split(": ", 1) for line in lines]
    return label.decode(), dict(facts)


def refusal_of(path, **options):
    """The status and the one line on stderr of a probe that has no answer."""
    done = volsniffer(path, "--fs", **options)
    assert done.stdout == b""
    assert done.stderr.count(b"\n") == 1 and str(path) in done.stderr.decode(), done.stderr
    return done.returncode, done.stderr.decode().rstrip("\n")


def blkid(path):
    """What `blkid -p` finds, as a dictionary of bytes, and its status: 0, 2 (nothing), or 8
    (signatures of several)."""
    done = subprocess.run(["/usr/sbin/blkid", "-p", "-o", "udev", path], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL)
    pairs = dict(line.split(b"=", 1) for line in done.stdout.splitlines())
    names = {"label": b"ID_FS_LABEL_ENC", "filesystem": b"ID_FS_TYPE", "uuid": b"ID_FS_UUID_ENC",
             "version": b"ID_FS_VERSION", "usage": b"ID_FS_USAGE"}
    return {key: re.sub(rb"\\x(..)", lambda code: bytes.fromhex(code[1].decode()), pairs[name])
            for key, name in names.items() if name in pairs}, done.returncode


DAEMON_NAMES = {b"vfat": b"fat", b"hfsplus": b"hfs+"}


def assert_agrees_with_blkid(path, done):
    """The answer is blkid's, but for three things: the daemon's names of the filesystems, members
    of arrays, which are refused, and texts in which something had to be replaced."""
    found, status = blkid(path)
    if status == 8:
        assert done.returncode == AMBIGUOUS, (found, done)
    elif found.get("usage") == b"raid":
        assert done.returncode == RAID_MEMBER, (found, done)
    elif done.returncode == NO_MEDIUM:
        assert path.stat().st_size == 0
    else:
        assert done.returncode == ANSWERED, (found, done)
        label, *lines, _end = done.stdout.split(b"\n")
        facts = dict(line.decode().strip().split(": ", 1) for line in lines)
        facts = {key: value.encode() for key, value in facts.items()} | {"label": label}
        name = found.get("filesystem", b"")
        found["filesystem"] = DAEMON_NAMES.get(name, name)
        for key in "label", "filesystem", "uuid", "version", "usage":
            said = facts.get(key, b"")
            pattern = re.escape(said).replace(b"_", b"(?:_|.{1,4})")
            assert re.fullmatch(pattern, found.get(key, b""), re.DOTALL), (key, found, done)


def assert_well_formed(done):
    """Whatever was on the device: an answer in its form, or a refusal with a documented status."""
    if done.returncode != ANSWERED:
        assert done.returncode in (UNREADABLE, NO_MEDIUM, AMBIGUOUS, RAID_MEMBER), done
        assert done.stdout == b""
        return
    label, *lines, end = done.stdout.split(b"\n")
    assert len(done.stdout) <= 4095 and end == b""
    assert not re.search(rb"[\x00-\x1f\x7f/]", label), label
    label.decode()
    for line in lines:
        assert FACT.fullmatch(line), line


@pytest.mark.parametrize("kind, filesystem", [
    ("ext2", "ext2"),
    ("ext3", "ext3"),
    ("ext4", "ext4"),
    ("vfat", "fat"),
    ("vfat32", "fat"),
    ("ntfs", "ntfs"),
    ("exfat", "exfat"),
    ("xfs", "xfs"),
    ("btrfs", "btrfs"),
    ("udf", "udf"),
    ("hfs", "hfs"),
    ("hfsplus", "hfs+"),
    ("reiserfs", "reiserfs"),
    ("swap", "swap"),
    ("iso9660", "iso9660"),
    ("joliet", "iso9660"),
    ("udf bridge", "udf"),
    ("mac hybrid", "iso9660"),
])
def test_names_the_filesystem_and_its_label(made, kind, filesystem):
    """Each filesystem comes with the daemon's name for it, and with blkid's other facts."""
    path = made(kind)
    label, facts = facts_of(path)
    assert (label, facts["filesystem"]) == ("DATA", filesystem)
    assert facts["usage"] == ("other" if kind == "swap" else "filesystem")
    assert_agrees_with_blkid(path, volsniffer(path, "--fs"))


def test_the_answer_to_the_byte(made, tmp_path):
    """The label alone in its line, then one indented line for each fact."""
    path = tmp_path / "image"
    images.copy(made("vfat32"), path)
    images.write_at(path, 67, bytes.fromhex("78563412"))  # FAT32's serial number
    done = volsniffer(path, "--fs")
    assert done.stdout == (b"DATA\n"
                           b"  filesystem: fat\n"
                           b"  uuid: 1234-5678\n"
                           b"  version: FAT32\n"
                           b"  usage: filesystem\n")


def test_the_label_alone_without_fs(made):
    """Who does not ask for the facts gets one line."""
    done = volsniffer(made("ext4"))
    assert (done.returncode, done.stdout, done.stderr) == (ANSWERED, b"DATA\n", b"")


@pytest.mark.parametrize("kind, label", [
    ("ext4", " blanks  inside"),
    ("ext4", "Füße 写真"),
    ("ext4", "a:b\\c'd\"e$f"),
    ("ntfs", "Füße 写真 📷 of the summer holidays"),
    ("exfat", "Füße 写真"),
    ("hfsplus", "Füße 写真"),
    ("udf", "写真"),
    ("joliet", "two words"),
    ("btrfs", "x" * 128),
    ("ext4", ".."),
])
def test_ordinary_labels_stay_as_they_are(tmp_path, kind, label):
    """Blanks, punctuation and the scripts of the world come out as they were put in."""
    path = tmp_path / "image"
    images.FILESYSTEMS[kind](path, label)
    assert facts_of(path)[0] == label


@pytest.mark.parametrize("written, label", [
    (b"A/../../run/x", "A_.._.._run_x"),
    (b"a\n  filesystem:", "a_  filesystem:"),
    (b"a\tb\rc\x0bd", "a_b_c_d"),
    (b"\x1b[31mred", "_[31mred"),
    (b"\xc2\x9b31mred", "_31mred"),
    (b"del\x7f", "del_"),
    (b"M\xfcller", "M_ller"),
    (b"cut short\xc3", "cut short_"),
    (b"\xc0\xafetc", "__etc"),
    (b"\xe2\x80\xaegpj.exe", "_gpj.exe"),
])
def test_hostile_labels_are_disarmed(tmp_path, made, written, label):
    """What could leave /mnt, break a line or a column, or command a terminal becomes "_"."""
    path = tmp_path / "image"
    images.copy(made("ext2"), path)  # the one without a checksum over its superblock
    images.write_at(path, 1024 + 120, written.ljust(16, b"\0"))
    assert facts_of(path)[0] == label


@pytest.mark.parametrize("written, label", [
    (b"A/../../R/X", "A_.._.._R_X"),
    (b"M\x9aLLER     ", "M_LLER"),  # as written under code page 850
    (b"A\nB        ", "A_B"),
])
def test_hostile_fat_labels(tmp_path, made, written, label):
    """The sticks that people carry around have their labels as bare bytes."""
    path = tmp_path / "image"
    images.copy(made("vfat"), path)
    images.replace(path, b"DATA       ", written)
    assert facts_of(path)[0] == label


@pytest.mark.parametrize("kind", ["ext4", "vfat", "vfat32", "ntfs", "exfat", "xfs", "btrfs", "swap"])
def test_a_volume_without_a_label(tmp_path, kind):
    """No label, not even FAT's "NO NAME", is an empty first line before the facts."""
    path = tmp_path / "image"
    images.FILESYSTEMS[kind](path, "")
    label, facts = facts_of(path)
    assert label == "" and facts["filesystem"]


def test_blanks_at_a_labels_end_are_padding(tmp_path):
    """Many formats fill their field with them, so libblkid cuts them off for all."""
    path = tmp_path / "image"
    images.FILESYSTEMS["ext4"](path, "DATA  ")
    assert facts_of(path)[0] == "DATA"


def test_a_blank_device_is_answered_with_an_empty_label(tmp_path):
    """That nothing is there is no failure: the daemon would log one for every blank drive."""
    path = tmp_path / "image"
    images.blank(path)
    done = volsniffer(path, "--fs")
    assert (done.returncode, done.stdout, done.stderr) == (ANSWERED, b"\n", b"")


def test_a_partitioned_drive_is_answered_with_an_empty_label(tmp_path):
    """The daemon asks for whole drives as well as for their partitions."""
    path = tmp_path / "image"
    images.partitioned(path)
    done = volsniffer(path, "--fs")
    assert (done.returncode, done.stdout, done.stderr) == (ANSWERED, b"\n", b"")


def test_an_encrypted_volume_keeps_its_name(tmp_path):
    """A filesystem that the daemon has no name for comes with libblkid's."""
    path = tmp_path / "image"
    images.luks(path)
    label, facts = facts_of(path)
    assert (label, facts["filesystem"], facts["usage"]) == ("", "crypto_LUKS", "crypto")


@pytest.mark.parametrize("minor", [0, 1, 2])
def test_refuses_a_raid_member(tmp_path, minor):
    """Half of a mirror looks like a volume, and must not be taken for one."""
    path = tmp_path / "image"
    images.md_member(path, minor)
    assert refusal_of(path) == (
        RAID_MEMBER, f"Cannot examine {path}: RAID member (linux_raid_member)")


def test_refuses_a_physical_volume(tmp_path):
    """LVM's physical volumes are parts of something larger, too."""
    path = tmp_path / "image"
    images.lvm_volume(path)
    assert refusal_of(path) == (RAID_MEMBER, f"Cannot examine {path}: RAID member (LVM2_member)")


def test_refuses_ambiguous_content(tmp_path):
    """Two filesystems' superblocks on one device: to mount either may ruin the other."""
    path = tmp_path / "image"
    images.formatted_twice(path)
    assert refusal_of(path) == (
        AMBIGUOUS, f"Cannot identify {path}: signatures of several filesystems")


@pytest.mark.parametrize("arguments", [
    (), ("--fs",), ("",), ("image", "--FS"), ("image", "--fs", "more"), ("image", "image"),
    ("--help", "--fs"), ("-x",), ("image", ""),
])
def test_usage(arguments):
    """A call that makes no sense is explained on stderr and does nothing."""
    done = volsniffer(*arguments)
    if arguments == ("",):
        assert done.returncode == UNREADABLE  # a name like any other, though of no file
        return
    assert (done.returncode, done.stdout) == (MISUSED, b"")
    assert done.stderr.startswith(b"Usage: volsniffer DEVICE [--fs]\n")


def test_help():
    """Help that was asked for goes to stdout."""
    done = volsniffer("--help")
    assert (done.returncode, done.stderr) == (ANSWERED, b"")
    assert done.stdout.startswith(b"Usage: volsniffer DEVICE [--fs]\n")


def test_a_device_that_does_not_exist(tmp_path):
    """A device may vanish between the daemon's look and the probe's."""
    path = tmp_path / "gone"
    assert refusal_of(path) == (
        UNREADABLE, f"Cannot examine {path}: No such file or directory")


@pytest.mark.parametrize("kind", ["fifo", "directory", "socket", "tty", "zero"])
def test_what_is_no_volume_is_never_opened(tmp_path, kind):
    """To open a pipe, a terminal or a tape may block, or do something to it."""
    path = tmp_path / kind
    listener = socket.socket(socket.AF_UNIX)
    if kind == "fifo":
        os.mkfifo(path)
    elif kind == "directory":
        path.mkdir()
    elif kind == "socket":
        listener.bind(str(path))
    else:
        path = f"/dev/{kind}"
    assert refusal_of(path) == (
        UNREADABLE, f"Cannot examine {path}: neither a block device nor an image file")
    listener.close()


def forged(path, tmp_path, injection):
    """The probe with a system call on path answered otherwise, and what it asked on path."""
    trace = tmp_path / "trace"
    strace = ["strace", "-f", "-qq", "-o", str(trace), "-P", str(path), "-e", f"inject={injection}"]
    # The leak check cannot run where somebody else already traces.
    environment = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")
    result = refusal_of(path, under=strace, env=environment)
    return (*result, trace.read_text())


@pytest.mark.parametrize("state", [1, 2, 3])
def test_an_optical_drive_without_a_readable_disc(made, tmp_path, state):
    """No disc, an open tray, a disc that still spins up: nothing is read, so nothing waits."""
    path = made("iso9660")
    status, line, trace = forged(path, tmp_path, f"ioctl:retval={state}:when=1")
    assert (status, line) == (NO_MEDIUM, f"Cannot examine {path}: No medium found")
    assert "CDROM_DRIVE_STATUS" in trace and "O_RDONLY" in trace and "O_NONBLOCK" in trace
    assert not re.search(r"\b(read|pread64|O_RDWR|O_WRONLY)\b", trace)


def test_a_drive_of_no_size(tmp_path):
    """A card reader without a card opens well but holds nothing."""
    path = tmp_path / "image"
    path.touch()
    assert refusal_of(path) == (NO_MEDIUM, f"Cannot examine {path}: No medium found")


@pytest.mark.parametrize("injection, status, line", [
    ("openat:error=EACCES", UNREADABLE, "Cannot open {}: Permission denied"),
    ("openat:error=ENXIO", UNREADABLE, "Cannot open {}: No such device or address"),
    ("openat:error=ENOMEDIUM", NO_MEDIUM, "Cannot open {}: No medium found"),
    ("read:error=EIO", UNREADABLE, "Cannot read {}: Input/output error"),
    ("read:error=EIO:when=5+", UNREADABLE, "Cannot read {}: Input/output error"),
])
def test_a_drive_that_fails(made, tmp_path, injection, status, line):
    """The status tells a drive that cannot be read from one without a medium."""
    path = made("ext4")
    assert forged(path, tmp_path, injection)[:2] == (status, line.format(path))


@pytest.mark.parametrize("signal", ["SEGV", "ABRT", "KILL"])
def test_content_that_ends_the_reader(made, tmp_path, signal):
    """A fault of the code that takes strangers' bytes apart is a drive that cannot be read."""
    path = made("ext4")
    assert forged(path, tmp_path, f"read:signal={signal}:when=3")[:2] == (
        UNREADABLE, f"Cannot read {path}: what is on it has ended the reader")


def test_opens_nothing_once_it_reads(made, tmp_path):
    """Everything that must be opened is open before the first byte of the content is looked at;
    without rights it could not be."""
    trace = tmp_path / "trace"
    volsniffer(made("ext4"), "--fs", env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0"),
               under=["strace", "-f", "-qq", "-y", "-o", str(trace)])
    calls = trace.read_text().splitlines()
    reader = next(line.split()[0] for line in calls if "CDROM_DRIVE_STATUS" in line)
    own = [line.split(None, 1)[1] for line in calls if line.split()[0] == reader]
    limited = next(i for i, call in enumerate(own) if "RLIMIT_NOFILE" in call)
    first_read = next(i for i, call in enumerate(own) if call.startswith(("read(", "pread64(")))
    assert limited < first_read
    after = {re.match(r"(?:<\.\.\. )?(\w+)", call)[1] for call in own[first_read:]}
    assert after <= {"read", "lseek", "pread64", "brk", "mmap", "munmap", "madvise", "close",
                     "exit", "ioctl"}, after


def test_root_becomes_a_user_whom_nobody_else_is(made, tmp_path):
    """Processes of one user may end and trace each other: both take users of their own, for good.
    Who is not root stays who he is."""
    trace = tmp_path / "trace"
    volsniffer(made("ext4"), "--fs", env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0"),
               under=["strace", "-f", "-qq", "-o", str(trace), "-e", "trace=/setres[ug]id"])
    became = [re.match(r"(\d+) +setres([ug])id\((\d+), (\d+), (\d+)\) += 0$", line).groups()
              for line in trace.read_text().splitlines()]
    if os.geteuid() != 0:
        assert became == []
        return
    assert len(became) == 4 and len(set(pid for pid, *_ in became)) == 2
    for pid, _kind, *users in became:
        assert users == [str(0x70000000 + int(pid))] * 3


def test_answers_in_one_write(made, tmp_path):
    """The daemon reads once: what comes with a second write is lost."""
    trace = tmp_path / "trace"
    done = volsniffer(made("ext4"), "--fs",
                      under=["strace", "-f", "-qq", "-o", str(trace), "-e", "trace=write"],
                      env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0"))
    assert done.stdout.count(b"\n") == 5
    writes = [line for line in trace.read_text().splitlines() if "write(1," in line]
    assert len(writes) == 1, writes


def test_an_answer_that_cannot_be_written_is_a_failure(made):
    """Success with half an answer would be believed."""
    with open("/dev/full", "wb") as full:
        done = subprocess.run([os.environ["VOLSNIFFER"], made("ext4"), "--fs"], stdout=full,
                              stderr=subprocess.PIPE, timeout=20)
    assert done.returncode == UNREADABLE
    assert done.stderr == b"Cannot write the answer: No space left on device\n"


def test_leaves_the_volume_as_it_was(made, tmp_path):
    """Looking changes nothing."""
    path = tmp_path / "image"
    images.copy(made("ext4"), path)
    before = path.read_bytes(), path.stat().st_mtime_ns
    facts_of(path)
    assert (path.read_bytes(), path.stat().st_mtime_ns) == before


@pytest.mark.parametrize("kind", list(images.FILESYSTEMS))
def test_truncated_images(made, tmp_path, kind):
    """A copy that broke off is answered for or refused, in form, and soon."""
    path = tmp_path / "image"
    whole = made(kind).stat().st_size
    with open(made(kind), "rb") as source:
        head = source.read(2 * images.MIB)
    sizes = (1, 511, 512, 1023, 1024, 1025, 1100, 2047, 2048, 4096, 32768, 33000, 34000, 65536,
             65600, 69632, 131072, len(head) // 2, len(head) - 1)
    for number, size in enumerate(sizes):
        if size < whole:
            path.write_bytes(head[:size])
            done = volsniffer(path, "--fs")
            assert_well_formed(done)
            if number % 4 == 0:
                assert_agrees_with_blkid(path, done)


@pytest.mark.parametrize("kind", list(images.FILESYSTEMS))
def test_corrupted_images(made, tmp_path, kind):
    """Bytes that have turned, where the superblocks are and where they point to."""
    path = tmp_path / "image"
    images.copy(made(kind), path)
    chance = random.Random(kind)
    with open(path, "r+b", buffering=0) as image:
        whole = image.seek(0, os.SEEK_END)
        for number in range(15):
            for _ in range(40):
                image.seek(chance.randrange(min(whole, chance.choice((2048, 70000, whole)))))
                image.write(bytes([chance.choice((0, 1, 0x7F, 0x80, 0xFF, chance.randrange(256)))]))
            done = volsniffer(path, "--fs")
            assert_well_formed(done)
            if number % 4 == 0:
                assert_agrees_with_blkid(path, done)


def test_random_bytes(tmp_path):
    """Sixty devices full of noise."""
    path = tmp_path / "image"
    for seed in range(60):
        chance = random.Random(seed)
        path.write_bytes(chance.randbytes(chance.choice((512, 4096, 70000, 300000))))
        assert_well_formed(volsniffer(path, "--fs"))
