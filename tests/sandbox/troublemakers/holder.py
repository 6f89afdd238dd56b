"""A process that holds on to something: --cwd DIR, --root DIR, --read FILE, --write FILE, --map FILE.

--ignore-term makes it deaf to SIGTERM, --stop puts it to sleep for good (SIGSTOP). SIGUSR1 makes it
leave in peace. --heir has it leave a child in its place when it is told to end, who does the same.
Prints "ready" when it holds everything.
"""

import mmap
import os
import signal
import sys
import time


def leave_an_heir(*_arguments):
    child = os.fork()
    if child:
        os.symlink(f"/.proc/{child}", f"/proc/{child}")  # for the daemon to see
        os._exit(0)


held = []
stops = False
words = sys.argv[1:]
while words:
    option = words.pop(0)
    if option == "--ignore-term":
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    elif option == "--heir":
        signal.signal(signal.SIGTERM, leave_an_heir)
    elif option == "--stop":
        stops = True
    elif option == "--cwd":
        os.chdir(words.pop(0))
    elif option == "--root":
        os.chroot(words.pop(0))
    elif option == "--read":
        held.append(os.open(words.pop(0), os.O_RDONLY))
    elif option == "--write":
        held.append(os.open(words.pop(0), os.O_WRONLY))
    elif option == "--map":
        import ctypes  # Python's own mmap would keep the file open

        file = os.open(words.pop(0), os.O_RDONLY)
        libc = ctypes.CDLL(None)
        libc.mmap.restype = ctypes.c_void_p
        libc.mmap(None, ctypes.c_size_t(4096), mmap.PROT_READ, mmap.MAP_SHARED, file, 0)
        os.close(file)
    else:
        sys.exit(f"what is {option}?")
signal.signal(signal.SIGUSR1, lambda *_arguments: sys.exit(0))
print("ready", flush=True)
if stops:
    os.kill(os.getpid(), signal.SIGSTOP)
for _ in range(1200):  # a signal that comes just before a sleep is heard after it
    time.sleep(0.1)
