"""`quarryctl check` on a whole machine: what files alone do not tell, and the verb itself."""

import os
import socket

from machine import kernel
from machine.client import asked_for_json, quarryctl
from machine.clients import acting_as

GUEST = 1000


def codes(report):
    return [(found["severity"], found["code"], found["place"]) for found in report["findings"]]


def test_the_owner_of_the_socket(machine):
    """Nobody, the daemon, and a stranger, who keeps the daemon from starting."""
    place = "socket @quarryd"
    found = codes(asked_for_json("check"))
    assert ("note", "daemon-not-running", place) in found
    assert not [code for severity, code, _ in found if severity != "note"]

    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as stranger:
        stranger.bind("\0quarryd")
        with acting_as(GUEST):
            stranger.listen()
        found = codes(asked_for_json("check", status=1))
        assert ("error", "socket-not-roots", place) in found
    machine.start()
    assert not [code for _, code, at in codes(asked_for_json("check")) if at == place]


def test_hooks_on_a_filesystem_without_programs(machine):
    os.makedirs("/var/quarryd/mount-notify")
    kernel.mount("x", "/var/quarryd", "tmpfs", kernel.MS_NOEXEC, "mode=755")
    os.mkdir("/var/quarryd/mount-notify")
    machine.script("/var/quarryd/mount-notify/hook", "exit 0\n")
    found = codes(asked_for_json("check", status=1))
    assert ("error", "hooks-noexec", "/var/quarryd/mount-notify") in found


def test_the_kernel_is_asked(machine):
    """The made-up one knows ext4 and vfat, and has neither quotas nor, in the end, swap."""
    machine.configure("main partition label = x\nswap name = swap.img\n")
    os.unlink("/proc/swaps")
    report = asked_for_json("check", status=1)
    found = codes(report)
    assert ("note", "kernel-without-quota", "kernel") in found
    assert ("error", "kernel-without-swap", "kernel") in found
    texts = [f["effect"] for f in report["findings"] if f["code"] == "kernel-without-filesystem"]
    assert len(texts) == 1 and "udf" in texts[0] and "ext4" not in texts[0]


def test_the_verb(machine):
    """Status 1 with errors or warnings, and for a folder that is none; one line for each finding,
    and nothing that a terminal obeys."""
    os.makedirs("/srv/tree/etc")
    machine.script("/srv/tree/var/quarryd/mount-notify/\033[2Jhook", "#!/bin/none\n")
    text, _ = quarryctl("check", "--root", "/srv/tree", status=1)
    assert "\033" not in text
    line = "error: /var/quarryd/mount-notify/\\x1b[2Jhook: every mount is vetoed: its interpreter "
    assert [found for found in text.splitlines() if found.startswith(line)]
    assert "socket" not in text and "kernel:" not in text  # another machine's
    fields = [found.split("\t") for found in quarryctl(
        "check", "--plain", "--root", "/srv/tree", status=1)[0].splitlines()]
    assert {len(line) for line in fields} == {6}
    assert len(fields) == len(text.splitlines()) - 1
    _, said = quarryctl("check", "--root", "/srv/nowhere", status=1)
    assert said == "quarryctl: cannot look into /srv/nowhere: No such file or directory\n"
