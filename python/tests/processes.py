"""Other processes: their memory and children, waiting for them, and one that dies at its work."""

import os
import re
import signal
import time
from pathlib import Path


def memory(field, number="self"):
    """Bytes of a field of a process's status: ``VmRSS`` now, ``VmHWM`` at the most."""
    return 1024 * int(re.search(rf"{field}:\s+(\d+)", Path(f"/proc/{number}/status").read_text())[1])


def children(number):
    return [int(word) for word in Path(f"/proc/{number}/task/{number}/children").read_text().split()]


def until(condition, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, "it did not happen in time"
        time.sleep(0.02)


def deadly(number, mark, data):
    """Data times their number; ends its own process at number 3, with a mark the first time only."""
    if number == 3 and not (mark and mark.exists()):
        if mark:
            mark.touch()
        os.kill(os.getpid(), signal.SIGKILL)
    return data * number
