"""The command-line client, run as it is installed."""

import json
import os
import subprocess

from .machine import SANITIZER
from .namespaces import QUARRYCTL


def quarryctl(*words, status=0, user=None, timeout=20):
    """Runs the client and returns what it printed: (stdout, stderr). Nobody reads its colours."""
    assert os.path.exists(QUARRYCTL), "QUARRYCTL must name the client's sanitized build"
    done = subprocess.run(
        [QUARRYCTL, *words],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=timeout,
        user=user,
        group=user,
        extra_groups=None if user is None else [],
        cwd="/",
        env={
            "PATH": "/usr/sbin:/usr/bin",
            "ASAN_OPTIONS": "detect_leaks=0:exitcode=99",
            "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1:exitcode=97",
        },
    )
    words = f"status {done.returncode}\n{done.stdout.decode()}\n{done.stderr.decode()}"
    assert not SANITIZER.search(done.stderr), words
    assert done.returncode == status, words
    return done.stdout.decode(), done.stderr.decode()


def asked_for_json(*words, **keys):
    """What it prints with --json, as objects."""
    return json.loads(quarryctl(*words, "--json", **keys)[0])
