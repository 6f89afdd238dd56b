"""The made-up machine of the sandbox ring serves this ring too; and the ring's results are kept."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(__file__)), "sandbox"))

import pytest  # noqa: E402

import fault_table  # noqa: E402
from machine import in_a_machine  # noqa: E402
from machine.in_a_machine import *  # noqa: E402,F401,F403


def pytest_configure(config):
    in_a_machine.pytest_configure(config)
    config.addinivalue_line("markers", "long: for ./scripts/test --long")
    if not hasattr(config, "workerinput"):
        fault_table.forget()


def pytest_sessionfinish(session):
    if not hasattr(session.config, "workerinput"):
        fault_table.write()


@pytest.fixture
def release(monkeypatch):
    """The sandbox gets the package's build: the sanitizers' memory would hide the daemon's."""
    if not os.environ.get("QUARRYD_RELEASE"):
        pytest.fail("QUARRYD_RELEASE must name a daemon without sanitizers", pytrace=False)
    monkeypatch.setenv("QUARRYD", os.environ["QUARRYD_RELEASE"])
