"""Settings of a whole process, the memory that it may use, and signals that can wait.

Times below are processor time of `ctessel recon` for 12 slices of 256 x 256, 16 coils, R = 2, medians of
three runs on two busy cores: 2.4 s with all settings.
"""

import contextlib
import ctypes
import importlib.util
import mmap
import os
import signal
import sys
import tempfile
import threading
from dataclasses import dataclass
from pathlib import Path

import numpy as np

#: For glibc's malloc: limits below which freed memory stays with the process. Blocks need the same
#: memory again and again; if it were given back after each, it would have to be cleared each time.
KEPT = {"MALLOC_TRIM_THRESHOLD_": 1 << 29, "MALLOC_MMAP_THRESHOLD_": 1 << 28}
_OPTIONS = {"MALLOC_TRIM_THRESHOLD_": -1, "MALLOC_MMAP_THRESHOLD_": -3}  # of mallopt


#: Packages that whole scans need beside NumPy.
SCANS = ("scipy", "nibabel", "tqdm", "matplotlib", "h5py")


def installing(package):
    """The command that installs a missing package, and what else of `SCANS` is missing.

    In a virtual environment pip installs what its Python sees, and needs no root.
    """
    others = (*SCANS, "distributed") if package == "dask" else SCANS
    names = [package, *(name for name in others if name != package and _missing(name))]
    if sys.prefix == sys.base_prefix:
        return " ".join(["apt-get install", *(f"python3-{name}" for name in names)])
    return " ".join(["pip install", *names])


def _missing(name):
    return sys.modules[name] is None if name in sys.modules else importlib.util.find_spec(name) is None


# ---- Settings of the process ---------------------------------------------------------------------


def keep_freed():
    """Let this process keep what it frees, as the variables `KEPT` do from its start.

    Without: 2.5 s.
    """
    with contextlib.suppress(AttributeError):  # other C libraries lack it
        for name, value in KEPT.items():
            ctypes.CDLL(None).mallopt(_OPTIONS[name], value)


@contextlib.contextmanager
def short_waits():
    """Kernels that are loaded in this context have threads that soon sleep while they wait.

    By default, GNU's OpenMP runtime lets them spin for up to 14 milliseconds. It reads its environment
    once, when it is loaded. With threads that never sleep: 6.8 s.
    """
    if {"OMP_WAIT_POLICY", "GOMP_SPINCOUNT"} & os.environ.keys():
        yield
        return
    os.environ["GOMP_SPINCOUNT"] = "1000"
    try:
        yield
    finally:
        del os.environ["GOMP_SPINCOUNT"]


class _Shared(mmap.mmap):
    """Memory that other processes of this machine can map while it is used here."""


def shared_zeros(shape, folder=None):
    """complex64 of zeros in Fortran order, in memory that `shared` describes to other processes.

    In memory, or in a file without a name if a folder is given.
    """
    size = 8 * int(np.prod(shape, dtype=float))
    if folder is None:
        file = os.fdopen(os.memfd_create("ctessel"), "r+b")
        file.truncate(size)
    else:
        file = tempfile.TemporaryFile(dir=folder)
        try:  # if the disk is full, writing to a map of a sparse file would end the process
            os.posix_fallocate(file.fileno(), 0, size)
        except OSError as error:
            file.close()
            error.filename = folder
            raise
    mapping = _Shared(file.fileno(), size)
    mapping.file = file
    return np.frombuffer(mapping, np.complex64).reshape(shape, order="F")


@dataclass(frozen=True)
class Place:
    """The place of an array in the memory of another process of this machine."""

    file: str
    offset: int
    shape: tuple[int, ...]
    strides: tuple[int, ...]

    def copy(self, index):
        """A part of the array, complex64 in Fortran order."""
        with open(self.file, "rb") as file:
            with contextlib.closing(mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)) as bytes_:
                array = np.ndarray(self.shape, np.complex64, bytes_, self.offset, self.strides)
                part = np.array(array[index], order="F")
                del array  # it would keep the map open
        return part


def shared(array):
    """The `Place` of an array that is (part of) one of `shared_zeros`; None for others."""
    base = array
    while isinstance(base, (np.ndarray, memoryview)):
        base = base.base if isinstance(base, np.ndarray) else base.obj
    if not isinstance(base, _Shared):
        return None
    start = np.frombuffer(base, np.uint8).ctypes.data
    name = f"/proc/{os.getpid()}/fd/{base.file.fileno()}"
    return Place(name, array.ctypes.data - start, array.shape, array.strides)


# ---- Signals -------------------------------------------------------------------------------------

SIGNALS = (signal.SIGINT, signal.SIGTERM)


@contextlib.contextmanager
def handled(handler):
    """Send signals that end a run to `handler`; works only in the main thread."""
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    before = {number: signal.signal(number, handler) for number in SIGNALS}
    try:
        yield
    finally:
        for number, earlier in before.items():
            if signal.getsignal(number) is handler:
                signal.signal(number, signal.SIG_DFL if earlier is None else earlier)


@contextlib.contextmanager
def uninterrupted():
    """Signals that end a run wait until the end of the block."""
    signals = []
    with handled(lambda number, _: signals.append(number)):
        yield
    if signals:
        signal.raise_signal(signals[0])


# ---- Memory --------------------------------------------------------------------------------------


class DoesNotFitError(Exception):
    """More memory is needed than there is. The message says what to do."""


def available():
    """Bytes that this process can still get: free memory, or the rest of its control group's limit."""
    return min([_free(), *_group_rests()])


def check(needed, what, advice):
    """Raise an error if `what` needs more bytes than there are."""
    rest = available()
    if needed > rest:
        raise DoesNotFitError(f"{what} needs {text(needed)} of memory, {text(rest)} are free; {advice}")


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
    """Remaining bytes of the process's control groups (version 2), which batch systems limit."""
    try:
        name = next(n for n in Path("/proc/self/cgroup").read_text().splitlines() if n.startswith("0::"))
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
