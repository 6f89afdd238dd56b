"""For a conftest.py: every test that asks for a `machine` runs as process 1 of one of its own."""

import os

import pytest
from _pytest._code import Traceback

from . import namespaces
from .golden import Difference
from .machine import Machine


def pytest_configure(config):
    config.addinivalue_line("markers", "seconds(n): the longest time that the test may take")


def pytest_collection_modifyitems(items):
    """The tests that wait longest come first, so that nobody waits for them in the end."""

    def patience(item):
        mark = item.get_closest_marker("seconds")
        return -mark.args[0] if mark else 0

    items.sort(key=patience)


@pytest.fixture
def machine():
    """A Machine; the test's body runs inside it."""
    if not os.environ.get("QUARRYD"):
        pytest.fail("QUARRYD must name the daemon's sanitized build", pytrace=False)
    return Machine


def _describe_failure(exception):
    """What pytest would print, less the floors between the test's body and process 1."""
    if isinstance(exception, Difference):
        return str(exception)
    excinfo = pytest.ExceptionInfo.from_exc_info(
        (type(exception), exception, exception.__traceback__)
    )
    floors = (namespaces.__file__, __file__)
    own = [
        entry
        for entry in excinfo.traceback
        if str(entry.path).startswith(namespaces.ALL_TESTS) and str(entry.path) not in floors
    ]
    excinfo.traceback = Traceback(own or excinfo.traceback)
    return str(excinfo.getrepr(style="long"))


@pytest.hookimpl(tryfirst=True)
def pytest_pyfunc_call(pyfuncitem):
    arguments = {
        name: pyfuncitem.funcargs[name] for name in pyfuncitem._fixtureinfo.argnames
    }
    if arguments.get("machine") is not Machine:
        return None
    mark = pyfuncitem.get_closest_marker("seconds")
    namespaces.describe_failure = _describe_failure

    def inside():
        machine = Machine()
        try:
            pyfuncitem.obj(**{**arguments, "machine": machine})
            machine.finish()
        finally:
            machine.kill_everything()

    outcome, value = namespaces.run(inside, mark.args[0] if mark else 120)
    if outcome == "timeout":
        pytest.fail("the test took too long", pytrace=False)
    if outcome != "returned":
        pytest.fail(value, pytrace=False)
    return True
