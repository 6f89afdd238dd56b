"""Every folder below cases/ is a golden conversation; machine/golden.py says how to read one."""

import os

import pytest

from machine.golden import Case
from machine.namespaces import TESTS

FOLDERS = sorted(os.listdir(f"{TESTS}/cases"))


@pytest.mark.parametrize("folder", FOLDERS)
def test_conversation(machine, folder):
    Case(f"{TESTS}/cases/{folder}").play(machine)


@pytest.mark.parametrize("folder", FOLDERS)
def test_case_says_what_it_will_do(folder):
    about = Case(f"{TESTS}/cases/{folder}").read("about")
    assert about and about[0].islower() and about.rstrip("\n").endswith(".")
