"""Every test of this ring that asks for a `machine` runs as process 1 of one of its own."""

from machine.in_a_machine import *  # noqa: F401,F403
