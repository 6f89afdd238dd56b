"""Holds a mount in one way: holder.py HOW FOLDER. Prints a line when it does, then waits.

    cwd            its working directory is in the folder
    file           a file in the folder is open for reading
    root           its root directory is in the folder
    stubborn       as cwd, and it ignores SIGTERM
    stopped        as file, and it stops itself
"""
import os
import signal
import sys
import time

how, folder = sys.argv[1:]
path = os.path.join(folder, "held-" + how)
if how in ("file", "stopped"):
    with open(path, "wb") as f:
        f.write(b"x" * 4096)
    os.open(path, os.O_RDONLY)
elif how == "root":
    os.chroot(folder)
else:
    os.chdir(folder)
if how == "stubborn":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
os.write(1, b"holding\n")
if how == "stopped":
    os.kill(os.getpid(), signal.SIGSTOP)
time.sleep(3600)
