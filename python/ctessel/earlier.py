"""Noise scans of separate connections, for the scans that name them in their headers."""

import hashlib
import os
import struct
from pathlib import Path

import numpy as np

from . import stream
from .acquisitions import HEADER

#: Largest number of noise scans that are kept, and largest size of each in bytes.
KEPT, LARGEST = 16, 64 << 20


def named(root):
    """The id of a header's measurement, and the id of the one with its noise scan, or None."""
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
    """A folder with noise scans, stored as their messages."""

    def __init__(self, folder):
        self._folder = Path(folder)

    def keep(self, name, acquisitions, numbers):
        """Keep some acquisitions of a connection. ValueError if that is not possible."""
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
        """A file with the messages of a noise scan with at most these coils. ValueError if there is none."""
        try:
            file = open(self._path(name), "rb", buffering=0)
        except OSError:
            raise ValueError(f"the noise scan {name[:80]!r} was not received here") from None
        (header,) = np.frombuffer(file.read(2 + HEADER.itemsize), HEADER, 1, 2)
        file.seek(0)
        if header["active_channels"] <= coils:
            return file
        file.close()
        raise ValueError(f"the noise scan {name[:80]!r} has {header['active_channels']} coils")

    def _path(self, name):
        return self._folder / hashlib.sha256(name.encode()).hexdigest()[:32]


def _message(header, samples, trajectory):
    yield struct.pack("<H", stream.ACQUISITION)
    yield from (array.tobytes(order="F") for array in (header, trajectory, samples))
