"""Fixtures of the virtual-machine tests.

A test module may define
    DISKS = [Disk(...), ...]     the drives of its machine (default none), or instead
    def drives(folder): ...      which makes images in the folder and returns that list
    ROOT_BUS = "virtio"          or "sata", "nvme"
    MEM = 768   APPEND = ""
    SYSTEMD = True               systemd is process 1, and the daemon is not installed yet
and its tests ask for `vm` (one machine for the whole module), `fresh` (that machine, cleaned
before each test) or `vm_factory` (machines of their own).
"""
import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from rig import VM, host  # noqa: E402

_times = []


def pytest_configure(config):
    config.addinivalue_line("markers", "long: shows little that others do not; "
                                       "run by ./scripts/test --long")


@pytest.fixture(scope="session")
def image():
    """The guest image, built when it is not there, and the daemon to put into it."""
    host.build_image()
    host.staged_daemon()


@pytest.fixture(scope="module")
def vm(request, image, tmp_path_factory):
    """One machine for the module, with its drives."""
    module = request.module
    if hasattr(module, "drives"):
        disks = module.drives(str(tmp_path_factory.mktemp("images")))
    else:
        disks = getattr(module, "DISKS", [])
    systemd = getattr(module, "SYSTEMD", False)
    with VM(disks, root_bus=getattr(module, "ROOT_BUS", "virtio"),
            mem=getattr(module, "MEM", 768), append=getattr(module, "APPEND", ""),
            systemd=systemd, install=not systemd) as machine:
        _times.append((module.__name__, machine.boot_seconds))
        yield machine


@pytest.fixture
def fresh(vm):
    """The module's machine without what earlier tests left."""
    vm.reset()
    return vm


@pytest.fixture
def vm_factory(image):
    """Makes machines: vm_factory([Disk(...)], root_bus="sata"); they end with the test."""
    machines = []

    def make(disks=(), **options):
        machine = VM(disks, **options).__enter__()
        machines.append(machine)
        _times.append(("vm_factory", machine.boot_seconds))
        return machine

    yield make
    for machine in machines:
        machine.close()


def pytest_terminal_summary(terminalreporter):
    if _times:
        terminalreporter.write_line("guests run on %s; boot times: %s" % (
            host.accelerator(), ", ".join("%s %.1f s" % t for t in _times)))
