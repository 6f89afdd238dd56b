"""Counting a program's system calls, with strace inside the made-up machine."""

import collections
import re
import signal
import subprocess
import time

STRACE = "/usr/bin/strace"
TRACE = "/run/bench.trace"

# "12  openat(AT_FDCWD, "/sys/block", ..." and, of a call that another process interrupted in the
# log, only its first half.
CALL = re.compile(r'^(?:\d+ +)?(\w+)\((?:AT_FDCWD, )?("/[^"]*")?')


def of_window(pid, seconds):
    """The calls that a running process makes in so many seconds: (Counter, exact seconds)."""
    strace = subprocess.Popen([STRACE, "-c", "-f", "-p", str(pid)], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if "attached" not in strace.stderr.readline():
        raise RuntimeError("strace could not attach")
    begin = time.monotonic()
    time.sleep(seconds)
    elapsed = time.monotonic() - begin
    strace.send_signal(signal.SIGINT)
    counts = _summary(strace.communicate()[1])
    # The sleep that strace interrupts when it attaches goes on under this name.
    counts["clock_nanosleep"] += counts.pop("restart_syscall", 0)
    return counts, elapsed


def _summary(text):
    counts = collections.Counter()
    for line in text.splitlines():
        words = line.split()
        if len(words) in (5, 6) and words[3].isdigit() and words[-1] != "total":
            counts[words[-1]] = int(words[3])
    return counts


def of_run(*command, good=(0,)):
    """Runs a program to its end. Two Counters: calls by name, and opened absolute paths."""
    done = subprocess.run([STRACE, "-f", "-s", "256", "-o", TRACE, *command],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if done.returncode not in good:
        raise RuntimeError(f"{command[0]} ended with status {done.returncode}")
    calls, paths = collections.Counter(), collections.Counter()
    with open(TRACE, errors="surrogateescape") as file:
        for line in file:
            match = CALL.match(line)
            if not match:
                continue
            calls[match[1]] += 1
            if match[2] and match[1] == "openat":
                paths[match[2].strip('"')] += 1
    return calls, paths


class Watch:
    """Records chosen calls of one running process, not of its children, until stop()."""

    def __init__(self, pid, *names):
        self.strace = subprocess.Popen(
            [STRACE, "-y", "-s", "256", "-e", "trace=" + ",".join(names), "-o", TRACE, "-p",
             str(pid)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        if "attached" not in self.strace.stderr.readline():
            raise RuntimeError("strace could not attach")

    def stop(self):
        """The recorded lines."""
        self.strace.send_signal(signal.SIGINT)
        self.strace.communicate()
        with open(TRACE, errors="surrogateescape") as file:
            return file.read().splitlines()
