"""What the daemon asks of the kernel, as strace sees it, and what strace makes the kernel answer."""

from .clients import wait_until


def traced(*injections, calls="mount,umount2"):
    """Arguments for strace; an injection is what stands behind inject=."""
    words = ["-e", f"trace={calls}"]
    for injection in injections:
        words += ["-e", f"inject={injection}"]
    return words


def own_lines(daemon):
    """Every call of the daemon itself so far, less those of its children."""
    lines = [line.split(None, 1) for line in daemon.trace()]
    return [text for pid, text in lines if int(pid) == daemon.pid]


def own_calls(daemon, name):
    """The daemon's own calls of that name."""
    return [text for text in own_lines(daemon) if text.startswith(name + "(")]


def calls_during(daemon, request):
    """The daemon's own calls between the arrival of a request and its reply; recvfrom and sendto
    must be traced."""
    wait_until(lambda: any(f'"{request}' in line for line in daemon.trace()))
    lines = own_lines(daemon)
    start = next(i for i, line in enumerate(lines) if f'"{request}' in line)
    end = next(i for i, line in enumerate(lines) if i > start and line.startswith("sendto"))
    return lines[start : end + 1]
