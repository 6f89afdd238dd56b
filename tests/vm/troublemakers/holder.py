"""Holds a mount in one way: holder.py HOW FOLDER. Prints a line when it does, then waits.

    cwd            its working directory is in the folder
    file           a file in the folder is open for reading
    root           its root directory is in the folder
    stubborn       as cwd, and it ignores SIGTERM
    stopped        as file, and it stops itself
    writer         a file in the folder is written to all the time
    reader         a file in the folder that nobody may write to is open for reading
    mapped         a file in the folder is mapped into its memory, and closed
"""
import ctypes
import os
import signal
import sys
import time

how, folder = sys.argv[1:]
path = os.path.join(folder, "held-" + how)
if how in ("file", "stopped", "reader", "mapped"):
    with open(path, "wb") as f:
        f.write(b"x" * 4096)
    if how == "reader":
        os.chmod(path, 0o444)
    held = os.open(path, os.O_RDONLY)
    if how == "mapped":
        libc = ctypes.CDLL(None)       # Python's own mmap keeps a descriptor
        libc.mmap.restype = ctypes.c_void_p
        libc.mmap(None, ctypes.c_size_t(4096), 1, 1, held, ctypes.c_long(0))
        os.close(held)
elif how == "writer":
    held = os.open(path, os.O_WRONLY | os.O_CREAT)
elif how == "root":
    os.chroot(folder)
else:
    os.chdir(folder)
if how == "stubborn":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
os.write(1, b"holding\n")
if how == "stopped":
    os.kill(os.getpid(), signal.SIGSTOP)
while how == "writer":
    os.pwrite(held, b"x" * 4096, 0)
    time.sleep(0.05)
time.sleep(3600)
