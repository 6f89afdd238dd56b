"""One life of the release build under memcheck: no error, and not one byte left over.

The sanitizers of the other rings see neither memory that is read before it is written nor what is
still held at the end. memcheck knows no swapon(2) and swapoff(2) and refuses them, so in here swap
fails; the children are not looked into."""

import os
import re

from machine import namespaces

import scripted_run

MEMCHECK = [
    "/usr/bin/valgrind",
    "--leak-check=full",
    "--show-leak-kinds=all",
    "--errors-for-leak-kinds=all",
    "--track-fds=yes",
    "--child-silent-after-fork=yes",
    "--error-exitcode=99",
    "--num-callers=20",
    "--log-file=/run/memcheck.%p",
    f"--suppressions={os.path.dirname(os.path.abspath(__file__))}/memcheck.supp",
]
SWAP_IS_REFUSED = {"swapoff": "ERR swap disable failed\n", "swapon": "ERR swap enable failed\n"}


def examined():
    """A life under memcheck and memcheck's report about the daemon."""
    life = scripted_run.live(more=MEMCHECK)
    (report,) = [name for name in os.listdir("/run") if name.startswith("memcheck.")]
    with open(f"/run/{report}") as file:
        return life, file.read()


def undisturbed():
    return scripted_run.live()


def lived(function):
    outcome, value = namespaces.run(function, 120)
    assert outcome == "returned", value
    return value


def test_a_whole_life_makes_no_error_and_leaves_nothing(release):
    life, report = lived(examined)
    assert not life.faults
    assert "ERROR SUMMARY: 0 errors" in report, report
    assert life.status == 0, report
    # The log stays open to the end, on purpose; the other one is memcheck's own.
    descriptors = re.findall(r"^==\d+== Open (.*?) \d+: ", report, re.M)
    assert sorted(descriptors) == ["AF_UNIX socket", "file descriptor"], report
    for (step, reply), (_, expected) in zip(life.replies, lived(undisturbed).replies, strict=True):
        if scripted_run.is_listing(step):
            assert scripted_run.lines(reply) == scripted_run.lines(expected)
        else:
            assert reply == SWAP_IS_REFUSED.get(step, expected)
