"""How much memory a process may still take, and the refusal to start what does not fit."""

import contextlib
import ctypes
from pathlib import Path

#: For glibc's malloc: up to this much that was freed stays with the process, in parts up to this large.
#: Blocks need the same memory again and again; given back after each, it is cleared for each anew, which
#: takes a quarter of a reconstruction.
KEPT = {"MALLOC_TRIM_THRESHOLD_": 1 << 29, "MALLOC_MMAP_THRESHOLD_": 1 << 28}
_OPTIONS = {"MALLOC_TRIM_THRESHOLD_": -1, "MALLOC_MMAP_THRESHOLD_": -3}  # of mallopt


class DoesNotFitError(Exception):
    """More memory is needed than there is. The message says what would mend it."""


def available():
    """Bytes that this process can still get: what is free, or what its control group leaves."""
    return min([_free(), *_group_rests()])


def keep_freed():
    """Let this process keep what it frees, as the variables `KEPT` do from its start."""
    with contextlib.suppress(AttributeError):  # other C libraries have no such choice
        for name, value in KEPT.items():
            ctypes.CDLL(None).mallopt(_OPTIONS[name], value)


def check(needed, what, mend):
    """Refuse `what`, which needs `needed` bytes, where they are not to be had."""
    rest = available()
    if needed > rest:
        raise DoesNotFitError(
            f"{what} needs {text(needed)} of memory, {text(rest)} are free; {mend}"
        )


def text(count):
    """A number of bytes for people: ``"1.5 GB"``."""
    for unit in ("bytes", "kB", "MB"):
        if count < 1000:
            return f"{count:.3g} {unit}"
        count /= 1000
    return f"{count:.3g} GB" if count < 1000 else f"{count:.0f} GB"


def _free():
    for line in Path("/proc/meminfo").read_text().splitlines():
        if line.startswith("MemAvailable:"):
            return int(line.split()[1]) * 1024
    raise OSError("/proc/meminfo: no MemAvailable")


def _group_rests(root=Path("/sys/fs/cgroup")):
    """Rests of the control groups (version 2) of the process: batch systems limit these."""
    try:
        name = next(
            n for n in Path("/proc/self/cgroup").read_text().splitlines() if n.startswith("0::")
        )
    except (OSError, StopIteration):
        return
    group = root / name[3:].lstrip("/")
    for folder in [group, *group.parents]:
        try:
            limit = (folder / "memory.max").read_text().strip()
            used = int((folder / "memory.current").read_text())
            cached = dict(x.split() for x in (folder / "memory.stat").read_text().splitlines())
        except OSError:
            continue
        if limit != "max":
            yield int(limit) - used + int(cached.get("inactive_file", 0))
