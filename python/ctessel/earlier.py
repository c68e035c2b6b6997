"""Noise scans that came in connections of their own, for the scans whose headers name them."""

import hashlib
import os
import struct
from pathlib import Path

import numpy as np

from . import stream
from .acquisitions import HEAD

#: Noise scans that are kept, and bytes of each at most.
KEPT, LARGEST = 16, 64 << 20


def named(root):
    """The measurement that a header is of, and the one that has its noise: ids, or None."""
    own = root.find("{*}measurementInformation")
    if own is None:
        return None, None
    needed = [
        one.findtext("{*}measurementID", "").strip()
        for one in own.findall("{*}measurementDependency")
        if one.findtext("{*}dependencyType", "").strip().lower() == "noise"
    ]
    return own.findtext("{*}measurementID", "").strip() or None, needed[0] if needed else None


class Shelf:
    """A folder with noise scans, as the messages that they came in."""

    def __init__(self, folder):
        self._folder = Path(folder)

    def keep(self, name, acquisitions, numbers):
        """Keep some acquisitions of a connection. ValueError where that cannot be."""
        if name is None:
            raise ValueError("its header has no measurementID, so no scan can name it")
        if acquisitions.held > LARGEST:
            raise ValueError(f"more than {LARGEST >> 20} MiB")
        path = self._path(name)
        with open(f"{path}.{os.getpid()}", "wb") as file:
            for number in numbers.tolist():
                for part in _message(*acquisitions.as_sent(number)):
                    file.write(part)
        os.replace(file.name, path)
        files = sorted(self._folder.iterdir(), key=lambda one: one.stat().st_mtime)
        for old in files[:-KEPT]:
            old.unlink(missing_ok=True)

    def open(self, name, coils):
        """The messages of a noise scan of at most these coils, a file. ValueError where none is."""
        try:
            file = open(self._path(name), "rb", buffering=0)
        except OSError:
            raise ValueError(f"the noise scan {name[:80]!r} has not come here") from None
        (head,) = np.frombuffer(file.read(2 + HEAD.itemsize), HEAD, 1, 2)
        file.seek(0)
        if head["active_channels"] <= coils:
            return file
        file.close()
        raise ValueError(f"the noise scan {name[:80]!r} has {head['active_channels']} coils")

    def _path(self, name):
        return self._folder / hashlib.sha256(name.encode()).hexdigest()[:32]


def _message(head, samples, trajectory):
    yield struct.pack("<H", stream.ACQUISITION)
    yield from (array.tobytes(order="F") for array in (head, trajectory, samples))
