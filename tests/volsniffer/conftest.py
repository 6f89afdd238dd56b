"""These tests ask one program: the label probe's sanitized build, named by VOLSNIFFER."""

import os

import pytest


def pytest_sessionstart(session):
    if not os.access(os.environ.get("VOLSNIFFER", ""), os.X_OK):
        pytest.exit("VOLSNIFFER must name the label probe to be tested", returncode=2)
