"""Labels that would lead out of /mnt."""
import os

import pytest

from rig import Disk, images

HOSTILE = "A/../../run/x"


def drives(folder):
    return [Disk("virtio-scsi", images.fs(os.path.join(folder, "tame"), "16M", "ext4", "A"),
                 id="tame"),
            Disk("virtio-scsi", images.fs(os.path.join(folder, "hostile"), "16M", "ext4", HOSTILE),
                 id="hostile")]


@pytest.fixture
def mounted(fresh):
    """Both sticks mounted as the daemon mounts them, the link of label A in place."""
    tame, hostile = fresh.node("tame"), fresh.node("hostile")
    for name in (tame, hostile):
        fresh.sh("mkdir /mnt/%s && mount /dev/%s /mnt/%s" % (name, name, name))
    fresh.sh("ln -s %s /mnt/^A" % tame)
    yield fresh
    fresh.sh("rm -rf /run/x", check=False)


# The path "/mnt/^A/../../run/x" leads through the mounted tame stick to /run/x. What lies there
# looks just like a label link of the hostile stick's, or like an empty folder left behind.
@pytest.mark.parametrize("bait", ["ln -s %s /run/x", "mkdir /run/x"])
@pytest.mark.parametrize("probe", ["volsniffer", "a probe that says anything"])
def test_label_with_slashes_leads_nowhere(mounted, bait, probe):
    """A stick labelled "A/../../run/x" beside one labelled "A" is released without touching
    anything outside /mnt, whatever the probe program makes of the label."""
    vm = mounted
    hostile = vm.node("hostile")
    if probe != "volsniffer":
        vm.put("/usr/bin/volsniffer", """#!/bin/sh
case $1 in *%s) echo '%s';; *%s) echo A;; *) echo;; esac
echo '  filesystem: ext4'
""" % (hostile, HOSTILE, vm.node("tame")), 0o755)
    vm.sh(bait % hostile if "%s" in bait else bait)
    before = vm.sh("ls -ld --time-style=full-iso /run/x").out
    daemon = vm.daemon()
    listing = vm.request("list")
    assert "\t%s\tHard Drive\tSCSI\tA\t" % vm.node("tame") in listing
    if probe != "volsniffer":
        assert HOSTILE in listing
    assert daemon.stop() == 0
    assert vm.sh("ls -A /mnt").out == ""
    assert "/mnt" not in vm.text("/proc/mounts")
    assert vm.sh("ls -ld --time-style=full-iso /run/x").out == before


def test_ordinary_label_link_goes(mounted):
    """Beside it, the link of an ordinary label goes with its stick and the link of a stranger
    stays."""
    vm = mounted
    vm.sh("ln -s /srv /mnt/^B")
    daemon = vm.daemon()
    vm.request("list")
    assert daemon.stop() == 0
    assert vm.sh("ls -A /mnt").out == "^B\n"
