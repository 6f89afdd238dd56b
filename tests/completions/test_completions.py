"""What three shells offer for quarryctl, with a stand-in for it that lists a made-up machine."""
import os
import re
import subprocess

import pytest

from shells import Bash, Fish, Zsh

# The fields of "quarryctl list --plain".
ROWS = [line.split("|") for line in r"""
sda|-|Hard Drive|SATA|-|500107862016|DISK|Boot|-|-|-
sda1|sda|Partition|SATA|-|500106813440|#83 Linux|Boot|-|ext4|/
sdb|-|Hard Drive|USB|-|67108864|STICK|-|-|-|-
sdb1|sdb|Partition|USB|HOLIDAY|41943040|#0C DOS/Windows|-|-|fat|/mnt/sdb1
sdb2|sdb|Partition|USB|my disk|24117248|#83 Linux|-|-|ext3|-
sdc|-|Hard Drive|USB|it's "5\\6" $HOME|1000|STICK|-|-|ext4|-
sdd|-|Hard Drive|SATA|-|1000|DISK|-|Active RAID|-|-
sde|-|Hard Drive|SATA|zero\u200bwidth|1000|DISK|-|-|ext4|-
sdf|-|Hard Drive|SATA|a:b=c|1000|DISK|-|-|ext4|-
sr0|-|CD-ROM|SATA|DISC|372736|DVD-ROM|-|-|iso9660|-
""".strip().splitlines()]

COMPLAINT = "there is no daemon to ask"
STAND_IN = """#!/bin/sh
echo "$*" >>"$STAND_IN/asked"
cat "$STAND_IN/answer"
[ -s "$STAND_IN/answer" ] || { echo "quarryctl: %s" >&2; exit 3; }
""" % COMPLAINT

MOUNTABLE = ["^DISC", "^HOLIDAY", "^a:b=c", "^it's \"5\\6\" $HOME", "^my disk",
             "sdb1", "sdb2", "sdc", "sde", "sdf", "sr0"]


class StandIn:
    def __init__(self, folder):
        self.folder = folder
        self.environment = dict(os.environ, PATH="%s:%s" % (folder, os.environ["PATH"]),
                                STAND_IN=str(folder), TERM="xterm", LC_ALL="C.UTF-8", PS1="> ")
        program = folder / "quarryctl"
        program.write_text(STAND_IN)
        program.chmod(0o755)
        self.answer(ROWS)

    def answer(self, rows):
        """Without rows there is no daemon."""
        (self.folder / "asked").write_text("")
        (self.folder / "answer").write_text("".join("\t".join(row) + "\n" for row in rows))

    def asked(self):
        return (self.folder / "asked").read_text().splitlines()


@pytest.fixture(scope="module", name="machine")
def fixture_machine(tmp_path_factory):
    return StandIn(tmp_path_factory.mktemp("completions"))


@pytest.fixture(scope="module", params=[Bash, Zsh, Fish], ids=["bash", "zsh", "fish"], name="shell")
def fixture_shell(request, machine):
    shell = request.param(str(machine.folder), machine.environment)
    yield shell
    shell.close()


@pytest.fixture(scope="module", params=[Bash, Zsh], ids=["bash", "zsh"], name="typed_into")
def fixture_typed_into(request, machine):
    """Those that show the line. Fish tells words, and quotes them where it puts them in."""
    shell = request.param(str(machine.folder), machine.environment)
    yield shell
    shell.close()


@pytest.fixture(autouse=True)
def usual_answer(machine):
    machine.answer(ROWS)


@pytest.mark.parametrize("line, offers", [
    ("quarryctl mount ", ["ro", "rw"]),
    ("quarryctl remount r", ["ro", "rw"]),
    ("quarryctl mount rw ", MOUNTABLE),
    ("quarryctl mount rw sd", ["sdb1", "sdb2", "sdc", "sde", "sdf"]),
    ("quarryctl mount ro ^", [word for word in MOUNTABLE if word[0] == "^"]),
    ("quarryctl --timeout 5 mount ro ^m", ["^my disk"]),
    ("quarryctl mount ro /dev/sdb", ["/dev/sdb1", "/dev/sdb2"]),
    ("quarryctl umount ", ["^HOLIDAY", "sdb1"]),
    ("quarryctl umount --force ", ["^HOLIDAY", "sdb1"]),
    ("quarryctl remount ro ", ["^HOLIDAY", "sdb1"]),
    ("quarryctl eject ", ["^DISC", "sr0"]),
    ("quarryctl retract /dev/", ["/dev/sr0"]),
    ("quarryctl busy sda", ["sda", "sda1"]),
    ("quarryctl notify ", ["add", "remove"]),
    ("quarryctl raw sw", ["swapoff", "swapon"]),
    ("quarryctl umount --f", ["--force"]),
    ("quarryctl check --root /et", ["/etc"]),
    ("quarryctl re", ["refresh", "remount", "retract"]),
])
def test_what_fits_the_verb_is_offered(shell, line, offers):
    """Devices that the verb can do something with, by name, path or label, in whatever place."""
    offered = [offer.rstrip("/") for offer in shell.offers(line)]  # of a folder
    assert offered == sorted(offers)


@pytest.mark.parametrize("typed, word", [
    ("^H", "^HOLIDAY"),
    ("^m", "^my disk"),
    ("^my\\ d", "^my disk"),
    ("'^my d", "^my disk"),
    ('"^my d', "^my disk"),
    ("^it", "^it's \"5\\6\" $HOME"),
    ("'^it", "^it's \"5\\6\" $HOME"),
    ('"^it', "^it's \"5\\6\" $HOME"),
    ("^a", "^a:b=c"),
])
def test_a_label_becomes_one_word(typed_into, typed, word):
    """Blanks, quotes, dollars and backslashes of a label mean nothing to the shell afterwards,
    whatever quote the user has begun with."""
    line = typed_into.line_after("quarryctl mount ro %s\t" % typed)
    said = subprocess.run(["sh", "-c", "printf '%s\\n' " + line], check=True, text=True,
                          capture_output=True).stdout
    assert said.splitlines() == ["quarryctl", "mount", "ro", word]


def test_without_a_daemon_nothing_is_offered_and_nothing_said(shell, machine):
    """Somebody who types must not find complaints in his line."""
    machine.answer([])
    shell.unread = b""
    assert shell.offers("quarryctl umount ") == []
    assert machine.asked() != []
    assert COMPLAINT not in shell.unread.decode(errors="replace")


def test_the_daemon_is_asked_once_and_not_waited_for(shell, machine):
    """One listing, given up after a second; none where no device is wanted."""
    shell.offers("quarryctl mount rw ^")
    assert set(machine.asked()) == {"--timeout 1 list --plain"}
    machine.answer(ROWS)
    for line in ("quarryctl ", "quarryctl mount ", "quarryctl list --", "quarryctl swapon "):
        shell.offers(line)
    assert machine.asked() == []


def help_of(*verb):
    """Verbs and options that the client's help tells of."""
    text = subprocess.run([os.environ["QUARRYCTL"], *verb, "--help"], check=True, text=True,
                          capture_output=True).stdout
    options = set(re.findall(r"^ +(?:-\w, ?)?(--[\w-]+)", text, re.MULTILINE))
    part = re.search(r"^(?:Verbs|Subcommands):\n((?:  .*\n)+)", text, re.MULTILINE)
    verbs = set(re.findall(r"^  (\w+)", part.group(1), re.MULTILINE)) if part else set()
    return verbs, options


def test_every_verb_and_option_of_the_client_is_offered_and_no_other(shell):
    """The completions know what the client's own help tells, of each of its verbs."""
    def options_behind(line):
        return {option.rstrip("=") for option in shell.offers(line + "--")}

    verbs, options = help_of()
    assert "list" in verbs and "--timeout" in options
    assert set(shell.offers("quarryctl ")) == verbs
    assert options_behind("quarryctl ") == options
    for verb in verbs:
        assert options_behind("quarryctl %s " % verb) == help_of(verb)[1] | {"--timeout"}, verb
