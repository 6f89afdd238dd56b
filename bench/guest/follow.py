#!/usr/bin/python3
"""Prints the lines of some files as they grow, each behind the time at which it was seen:
follow.py FILE... Ends when it is killed."""

import sys
import time

files = [open(path, "rb") for path in sys.argv[1:]]
rests = [b""] * len(files)
while True:
    for number, file in enumerate(files):
        *lines, rests[number] = (rests[number] + file.read()).split(b"\n")
        for line in lines:
            print(f"{time.time():.3f} {line.decode(errors='replace')}", flush=True)
    time.sleep(0.01)
