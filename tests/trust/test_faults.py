"""Every system call of the daemon fails once, one after another: in each life of the scripted run
another one. Nothing may crash, hang or leak; what is laid down must be said; and when the fault is
over the registry agrees with the machine.

The short form takes a sample that is the same each time, the long one every site with every error.
fault_table.py sums up what was met."""

import copy
import hashlib
import re
import time
from collections import Counter

import pytest

from machine import namespaces
from machine.sleeper import Sleeper

import fault_table
import faults
import scripted_run

SAMPLE, SAMPLE_SHARES = 60, 4
SHARES = 40


def life(*injection, wanted=None):
    """A life with some arguments for strace. One in which the machine stood still shows nothing:
    what was due meanwhile came too late. So there is another one."""
    for _ in range(3):
        sleeper, begin = Sleeper(), time.monotonic()
        outcome, value = namespaces.run(
            lambda: scripted_run.live(list(injection), wanted=wanted), 120
        )
        end = time.monotonic()
        stood_still = end - begin - sleeper.awake(begin, end)
        sleeper.stop()
        if stood_still < 1:
            break
    assert outcome == "returned", value or outcome
    return value


@pytest.fixture(scope="module")
def base_life():
    return life()


def plan(base):
    """(call, error) for each site and each of its errors, by the names of the sites: every share
    has a base of its own, and they must agree about what is whose."""
    sites = sorted(faults.sites_to_try(base.trace), key=lambda call: str(call.site))
    return [(call, error) for call in sites for error in faults.errors_of(call.site)]


def lot(item):
    """A number that depends on nothing but the names of the site and of the error."""
    name = f"1 {item[0].site} {item[1]}"
    return int.from_bytes(hashlib.sha256(name.encode()).digest()[:8], "big")


def sample(base):
    """Some of them: as many of each call as there is room for, told by their names, so that another
    order of the drives changes nothing."""
    ranks = Counter()
    ranked = []
    for item in sorted(plan(base), key=lot):
        call = item[0].site.call
        ranks[call] += 1
        ranked.append((ranks[call], lot(item), item))
    return [item for _, _, item in sorted(ranked, key=lambda row: row[:2])[:SAMPLE]]


def try_all(items, base, name):
    """Lives one life for each; fails with all that went wrong."""
    wrong, verdicts = [], []
    for call, error in items:
        how = f"retval={error}" if error.isdigit() else f"error={error}"
        injected = life(
            "-e",
            f"inject={call.site.call}:{how}:when={call.number}",
            wanted=base.listing,
        )
        verdict = faults.judge(injected, base, error)
        verdicts.append(verdict)
        if verdict.problems:
            wrong.append(f"{verdict.site} {error}: {'; '.join(verdict.problems)}")
    fault_table.keep(verdicts, name)
    met = [verdict for verdict in verdicts if verdict.site]
    assert len(met) >= len(verdicts) * 0.7, "hardly any fault was met"
    assert not wrong, "\n".join(wrong)


# What every child of the daemon meets between its birth and the program that it becomes: arguments
# for strace, what is laid down, and the replies that may be other ones.
IN_CHILDREN = {
    "no probe": (
        ["-P", "/usr/bin/volsniffer", "-e", "inject=execve:error=ENOEXEC"],
        "volsniffer failed for /dev/sdb1, return value 1\n",
        "ERR Label not found|ERR mount failed",
    ),
    "no shell": (["-P", "/bin/sh", "-e", "inject=execve:error=EAGAIN"], "", "(?!)"),
    "no driver": (
        ["-P", "/sbin/mount.exfat", "-e", "inject=execve:error=EACCES"],
        "mount.exfat: failed status 1\n",
        "ERR mount failed",
    ),
    "no way into the script directory": (
        ["-P", "/var/quarryd/mount-notify", "-e", "inject=chdir:error=EACCES"],
        "",
        "ERR mounting was vetoed by notification script",
    ),
    "an old kernel": (["-e", "inject=close_range:error=ENOSYS"], "", None),
    "no death with the parent": (["-e", "inject=prctl:error=EINVAL"], "", None),
}


@pytest.mark.seconds(60)
def test_children_may_fail_before_they_are_programs():
    base = life()
    for what, (injection, says, refusals) in IN_CHILDREN.items():
        call = injection[-1].split("=")[1].split(":")[0]
        injected = life("-f", "--seccomp-bpf", "-e", f"trace={call}", *injection)
        assert "(INJECTED)" in injected.trace, what
        assert injected.status == 0 and not injected.faults, (what, injected.faults)
        assert says in injected.stderr, (what, injected.stderr)
        assert injected.descriptors == base.descriptors, what
        assert sorted(scripted_run.rows(injected.listing)) == injected.devices, what
        assert injected.left == [], what
        for (step, reply), (_, expected) in zip(injected.replies, base.replies, strict=True):
            if reply == expected or step.startswith(("list", "enumerate")):
                continue
            assert refusals, (what, step, reply)
            assert re.fullmatch(rf"OK.*|{refusals}", reply.split("\n")[0]), (what, step, reply)


def test_every_call_of_the_run_has_its_errors():
    """Nobody adds a call without a thought for its failure."""
    base = life()
    assert faults.unexplained(base.trace) == []
    assert len(faults.sites_to_try(base.trace)) > 500
    assert base.status == 0 and not base.faults
    assert [reply for _, reply in base.replies if reply.startswith("ERR")] == [
        "ERR mount failed\n",
        "ERR unknown command\n",
    ]


def without_main(life):
    life.listing = life.listing.replace("\tMain\t", "\t\t")


def without_a_label(life):
    life.listing = life.listing.replace("\tDISC\t", "\t\t")


def with_a_reply(life):
    life.replies[3] = (life.replies[3][0], "OK already mounted read/write\n")


def with_a_line(life):
    life.stderr += "Cannot open /proc/partitions\n"


def with_a_line_less(life):
    life.stderr = life.stderr.replace("setting up swap\n", "", 1)


def with_a_mount(life):
    life.left = [("/dev/sdb1", "/mnt/sdb1", "rw")]


def with_a_wait(life):
    life.took["17 notify remove /block/sde/sde1"] += 4


def with_a_sanitizers_word(life):
    life.faults = ["runtime error: "]


def with_a_descriptor(life):
    life.descriptors = [*life.descriptors, "pipe:"]


@pytest.mark.parametrize(
    "change",
    [
        without_main,
        without_a_label,
        with_a_reply,
        with_a_line,
        with_a_line_less,
        with_a_mount,
        with_a_wait,
        with_a_sanitizers_word,
        with_a_descriptor,
    ],
)
def test_a_life_that_met_no_fault_is_judged_all_the_same(change, base_life):
    """And the judge notices each single thing that is not as it was."""
    assert faults.judge(base_life, base_life, "EIO").problems == []
    changed = copy.deepcopy(base_life)
    change(changed)
    verdict = faults.judge(changed, base_life, "EIO")
    assert verdict.outcome == "not met"
    assert len(verdict.problems) == 1, verdict.problems


@pytest.mark.seconds(60)
@pytest.mark.parametrize("share", range(SAMPLE_SHARES))
def test_a_sample_of_all_calls_fails_once(share):
    base = life()
    try_all(sample(base)[share::SAMPLE_SHARES], base, f"sample-{share}")


@pytest.mark.long
@pytest.mark.parametrize("share", range(SHARES))
def test_every_call_fails_once(share):
    base = life()
    mine = [item for item in plan(base) if lot(item) % SHARES == share]
    try_all(mine, base, f"all-{share}")
