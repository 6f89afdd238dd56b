"""Has memory swapped out: swapped_out.py MEGABYTES. Prints "swapped" when the kernel has taken it;
on SIGUSR1 it looks whether all of it is right and prints "right" or "wrong"."""
import mmap
import os
import random
import signal
import sys
import time

PAGEOUT = 21

size = int(sys.argv[1]) << 20
random.seed(1)
text = random.randbytes(size)
memory = mmap.mmap(-1, size, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
memory[:] = text


def look(signo, frame):
    os.write(1, b"right\n" if memory[:] == text else b"wrong\n")


signal.signal(signal.SIGUSR1, look)
for _ in range(50):
    memory.madvise(PAGEOUT)
    with open("/proc/self/status") as f:
        swapped = int(f.read().split("VmSwap:")[1].split()[0])
    if swapped * 1024 >= size * 9 // 10:
        os.write(1, b"swapped\n")
        break
    time.sleep(0.1)
while True:
    time.sleep(100)
