"""What is to be seen of processes that were driven out of a mount."""


def ended(process):
    return process.poll() is not None


def kills(machine):
    """The eviction's lines of the system log."""
    return [line.removeprefix("quarryd: ") for line in machine.syslog() if "using mount" in line]


def terminating(process):
    return f"{process.pid}: /usr/bin/python3 is using mount points. terminating..."


def forcibly(process):
    return f"{process.pid}: /usr/bin/python3 is still using mount point. forcibly terminating..."
