"""Golden conversations: a folder with a machine, what is said, and what must come back.

    about     one sentence that completes "This test will ..."
    machine   the machine before the daemon starts: one step a line, see STEPS
    talk      the conversation
    args      the daemon's arguments (optional)
    conf      /etc/quarryd.conf (optional)
    stdout, stderr, syslog   what must be there in the end, to the letter (each optional)

A talk has three kinds of lines. "guest> list" is said by the user guest on the one connection that
the guest has; the lines that follow are the reply to the last byte, in the notation of `cat -A`: a
tab is ^I and every line ends in $. ": unplug sdb" is a step, of the same kind as in the machine
file. A line that begins with # is for the reader.
"""

import difflib
import itertools
import os
import re
import shlex

from . import disk_formats, stand_ins
from .clients import wait_until
from .drives import CONTROLLERS, link, write

KINDS = (*CONTROLLERS, "ide", "mmc", "nvme", "md", "dm", "other")


def _text(word):
    return word.encode().decode("unicode_escape")


def _number(word):
    return int(word, 0)


def _process(machine, pid, fds="", **links):
    machine.made_up_process(pid, fds=[fd for fd in fds.split(",") if fd], **links)


def _says(machine, name, label, filesystem=None):
    machine.probe_says(name, _text(label), filesystem)


STEPS = {
    # drives
    "part": lambda m, name, size, **keys: m.part(name, _number(size), **keys),
    "unplug": lambda m, name: m.unplug(name),
    "resize": lambda m, name, size: m.resize(name, _number(size)),
    "attribute": lambda m, name, path, text: m.attribute(name, path, _text(text)),
    "mbr": lambda m, name, *types: m.content(name, disk_formats.mbr([int(t, 16) for t in types])),
    "superblock": lambda m, name, offset="0": m.content(
        name, disk_formats.md_superblock(), _number(offset)
    ),
    "probe": _says,  # probe sdb1 LABEL [filesystem]
    # lists and processes
    "mounted": lambda m, *fields: m.add_mount_line(" ".join(fields)),
    "unmounted": lambda m, device: m.drop_mount_line(device),
    "process": _process,  # process 1000001 fds=/dev/sda,/mnt/x cwd=/mnt/y
    # programs and scripts that a mount runs: see stand_ins
    "exfat-stick": lambda m, name, label: stand_ins.exfat_stick(m, name, _text(label)),
    "no-user": lambda m, *names: m.users(without=names),
    # files
    "file": lambda m, path, text="": write(path, _text(text)),
    "mode": lambda m, path, mode: os.chmod(path, int(mode, 8)),
    "link": lambda m, path, target: link(path, target),
    "dir": lambda m, path: os.makedirs(path),
    "remove": lambda m, path: os.unlink(path),
    "shell": lambda m, path, text: m.script(path, _text(text)),
    # time
    "settle": lambda m: m.settle(),
    "wait": lambda m, text: m.daemon.wait_for(text),
    "wait-file": lambda m, path: wait_until(lambda: os.path.exists(path), what=path),
    "start": lambda m, *arguments: m.start(*arguments),
    "stop": lambda m: m.stop(),
}


def step(machine, line):
    words = shlex.split(line)
    keys = dict(word.split("=", 1) for word in words[1:] if re.match(r"[a-z]+=", word))
    plain = [word for word in words[1:] if not re.match(r"[a-z]+=", word)]
    if words[0] in KINDS:
        name, size = plain
        machine.plug(words[0], name, _number(size), **keys)
    else:
        STEPS[words[0]](machine, *plain, **keys)


def show(reply):
    """A reply as `cat -A` shows it."""
    text = reply.replace("\t", "^I").replace("\n", "$\n")
    return "".join(c if c == "\n" or " " <= c <= "~" else ascii(c)[1:-1] for c in text)


def in_any_order(text):
    """Sorts runs of new devices: the kernel lists directories as it likes."""
    lines = text.splitlines()
    groups = itertools.groupby(lines, lambda line: line.endswith(" just appeared (polling)"))
    ordered = [sorted(run) if new else list(run) for new, run in groups]
    return "".join(line + "\n" for run in ordered for line in run)


class Difference(AssertionError):
    """What was said and what should have been said, as a unified diff."""


class Case:
    """One folder."""

    def __init__(self, folder):
        self.folder = folder

    def read(self, name):
        path = f"{self.folder}/{name}"
        if not os.path.exists(path):
            return None
        with open(path) as file:
            return file.read()

    def lines(self, name):
        text = self.read(name) or ""
        return [line for line in text.splitlines() if line and not line.startswith("#")]

    def play(self, machine):
        """Runs the case; raises Difference when something else came back."""
        for line in self.lines("machine"):
            step(machine, line)
        if self.read("conf") is not None:
            machine.configure(self.read("conf"))
        machine.start(*shlex.split(self.read("args") or ""))
        said = self._converse(machine)
        machine.finish()
        self._compare("talk", "\n".join(self.lines("talk")), "\n".join(said))
        found = {
            "stdout": machine.daemon.stdout(),
            "stderr": re.sub(r"Process \d+ died", "Process N died", machine.daemon.stderr()),
            "syslog": "".join(line + "\n" for line in machine.syslog()),
        }
        for name, text in found.items():
            if self.read(name) is not None:
                self._compare(name, self.read(name), text)

    def _converse(self, machine):
        """Holds the conversation; returns the talk as it went."""
        clients = {}
        said = []
        for line in self.lines("talk"):
            if line.startswith(": "):
                step(machine, line[2:])
                said.append(line)
                continue
            match = re.match(r"([a-z]+)> ?(.*)$", line)
            if not match:
                continue  # the reply of before, compared in the end
            user, request = match.groups()
            if user not in clients:
                clients[user] = machine.connect(user)
            said.append(line)
            said += show(clients[user].ask(request)).splitlines()
        return said

    def _compare(self, name, wanted, found):
        wanted, found = in_any_order(wanted), in_any_order(found)
        if wanted.rstrip("\n") == found.rstrip("\n"):
            return
        difference = difflib.unified_diff(
            wanted.splitlines(), found.splitlines(), f"{name} wanted", f"{name} found", lineterm=""
        )
        about = (self.read("about") or "").strip()
        raise Difference(f"This test will {about}\n" + "\n".join(difference))
