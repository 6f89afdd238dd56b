"""Which drive the machine was booted from, on three kinds of root disk."""
import pytest

from rig import Disk

pytestmark = pytest.mark.long


@pytest.mark.parametrize("bus, partition, drive, places", [
    pytest.param("virtio", "vda1", "vda", {"vda": "Boot", "vda1": "Boot"},
                 marks=pytest.mark.long),
    ("sata", "sda1", "sda", {"sda": "Boot", "sda1": "Boot"}),
    # The drive's name is cut to three letters, so that only the partition is found again.
    pytest.param("nvme", "nvme0n1p1", "nvm", {"nvme0n1": "", "nvme0n1p1": "Boot"},
                 marks=pytest.mark.long),
])
def test_boot_drive(vm_factory, bus, partition, drive, places):
    """The boot partition is the root's device and the boot drive its first three letters; the
    listings mark both, and neither is unmounted at the end. With the right signature and the right
    label it still is never the main partition."""
    vm = vm_factory([Disk("sata", 32 << 20, id="other")], root_bus=bus)
    daemon = vm.daemon()
    err = daemon.wait_err("Device %s just appeared (polling)\n" % partition)
    assert "boot drive:     %s\nboot partition: %s\n" % (drive, partition) in err
    fields = [line.split("\t") for line in vm.request("list").splitlines()]
    placed = {f[1] or f[2]: f[-3] for f in fields if len(f) > 8}
    assert {name: placed[name] for name in places} == places
    assert placed[vm.node("other")] == ""
    assert daemon.stop() == 0
    assert "/dev/%s / ext4 rw" % partition in vm.text("/proc/mounts")
    assert "killing" not in daemon.err()

    vm.put("/.claimsig", "booted\n")
    searching = vm.daemon(conf="main partition signature = booted\n"
                               "main partition label = rigroot\n")
    vm.request("list")                              # served behind a pass of the search
    assert "Found main partition" not in searching.err()
    assert searching.stop() == 0
    assert "/dev/%s / ext4 rw" % partition in vm.text("/proc/mounts")
