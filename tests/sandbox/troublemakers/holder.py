"""A process that holds on to something: --cwd DIR, --root DIR, --read FILE, --write FILE.

--ignore-term makes it deaf to SIGTERM, --stop puts it to sleep for good (SIGSTOP), --leave SECONDS
makes it end by itself. Prints "ready" when it holds everything.
"""

import os
import signal
import sys
import time

held = []
seconds = 60.0
stops = False
words = sys.argv[1:]
while words:
    option = words.pop(0)
    if option == "--ignore-term":
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
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
    elif option == "--leave":
        seconds = float(words.pop(0))
    else:
        sys.exit(f"what is {option}?")
print("ready", flush=True)
if stops:
    os.kill(os.getpid(), signal.SIGSTOP)
time.sleep(seconds)
