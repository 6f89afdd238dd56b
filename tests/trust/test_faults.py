"""Every system call of the daemon fails once, one after another: in each life of the scripted run
another one. Nothing may crash, hang or leak; what is laid down must be said; and when the fault is
over the registry agrees with the machine.

The short form takes a sample that is the same each time, the long one every site with every error.
fault_table.py sums up what was met."""

import hashlib
import re
from collections import Counter

import pytest

from machine import namespaces

import fault_table
import faults
import scripted_run

SAMPLE, SAMPLE_SHARES = 60, 4
SHARES = 40


def life(*injection):
    """A life with some arguments for strace."""
    outcome, value = namespaces.run(lambda: scripted_run.live(list(injection)), 120)
    assert outcome == "returned", value or outcome
    return value


def plan(base):
    """(call, error) for each site and each of its errors, by the names of the sites: every share
    has a base of its own, and they must agree about what is whose."""
    sites = sorted(faults.sites_to_try(base.trace), key=lambda call: str(call.site))
    return [(call, error) for call in sites for error in faults.ERRORS[call.site.call]]


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
        injected = life("-e", f"inject={call.site.call}:error={error}:when={call.number}")
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
