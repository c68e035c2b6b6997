"""One Cartesian scan in memory: what a raw file is read into and what the pipeline takes."""

import os
from dataclasses import dataclass, field

import numpy as np

from . import coil_choice

#: Axes of every k-space and image array of the pipeline.
AXES = ("x", "y", "z", "coil", "slice", "echo", "repetition")


def times_text(numbers):
    """Extents as people write them, 64 x 48 x 1."""
    return " x ".join(f"{n:g}" for n in numbers)


def printable(path):
    """Name of a file without its folder, as text that every program can read."""
    return os.fsencode(os.path.basename(path)).decode(errors="replace")


@dataclass
class Limit:
    """Encoded lines of one axis: first and last one measured, and the one that is k = 0."""

    minimum: int
    maximum: int
    center: int


@dataclass
class Placement:
    """Where the centre of a slice (2-D) or slab (3-D) and its axes lie in the patient (LPS, mm)."""

    position: np.ndarray
    read: np.ndarray
    phase: np.ndarray
    slice: np.ndarray


@dataclass
class Header:
    """Encoding and timing of a scan. Lengths in mm, times in ms."""

    encoded_matrix: tuple[int, int, int]
    encoded_fov: tuple[float, float, float]
    recon_matrix: tuple[int, int, int]
    recon_fov: tuple[float, float, float]
    limits: dict[str, Limit]  # "x", "y", "z"
    acceleration: tuple[int, int] = (1, 1)
    calibration_mode: str = ""
    placements: list[Placement] = field(default_factory=list)
    tr: list[float] = field(default_factory=list)
    te: list[float] = field(default_factory=list)
    protocol: str = ""
    patient_position: str = ""
    #: Receiver dwell time of the noise scan over that of a line, averages summed.
    noise_bandwidth_ratio: float = 1.0
    #: Of a separate calibration scan; None: the image's.
    calibration_fov: tuple[float, float, float] | None = None
    spacing: float = 0.0  # between the centres of neighbouring slices; 0 where it is not known
    ti: list[float] = field(default_factory=list)
    flip_angle: list[float] = field(default_factory=list)  # degrees
    field_strength: float = 0.0  # T; 0 where it is not known
    frequency: float = 0.0  # of hydrogen, Hz; 0 where it is not known
    dwell: float = 0.0  # between samples of a readout, us; 0 where it is not known
    scanner: dict[str, str] = field(default_factory=dict)  # "vendor", "model", "institution"
    phantom: str = ""  # parameters of the phantom that was measured, JSON
    #: First and last line of each repetition by the scanner's clock, in s; empty where it has none.
    volumes: list[tuple[float, float]] = field(default_factory=list)


@dataclass(frozen=True, eq=False)
class Layout:
    """What is known about a scan without its samples.

    `shape` are the extents of k-space by `AXES`, as it is read; `readout` is the number of samples
    along x that were measured, where oversampling is removed while they are read. `lines`,
    ``(y, z, slice, echo, repetition)`` of bool, marks what was measured, k = 0 at ``N // 2``.
    `flagged`, ``(y, z)`` of bool, marks the lines that the file calls calibration, or is None.
    `noise` is ``(sample, coil)`` or None; `calibration` are the extents of a calibration scan of
    its own, or None. A part of a scan has in `selection` its axis, first and last index, and in `slices`
    the places of its slices in the whole where others are left out.
    `looks` tell of the coils what `ctessel.coil_choice` needs, `looked` that no slice is missing
    there. `warnings` are those of the reading, a line each.
    """

    shape: tuple[int, ...]
    header: Header
    lines: np.ndarray
    noise: np.ndarray | None = None
    calibration: tuple[int, ...] | None = None
    flagged: np.ndarray | None = None
    readout: int | None = None
    selection: tuple[str, int, int] | None = None
    warnings: tuple[str, ...] = ()
    looks: tuple = ()
    looked: bool = True
    slices: tuple[int, ...] | None = None

    @property
    def sampled(self):
        """Lines of any image, ``(y, z)`` of bool."""
        return self.lines.any((2, 3, 4))


@dataclass(eq=False)
class Scan:
    """Samples of a scan in memory, and what is known about them.

    `kspace` is complex64, Fortran order, indexed by `AXES`, on the encoded grid (readout
    oversampling still in it), k = 0 at ``N // 2`` of each axis; lines that were not measured are 0.
    Averages are summed and divided by their number. `calibration` is k-space of a separate
    calibration scan on its own grid, same axes, or None; calibration lines inside the scan are part
    of `kspace`.

    Whatever has a layout, `frames` and `separate` can be reconstructed: a file or a stream as well.
    """

    layout: Layout
    kspace: np.ndarray
    calibration: np.ndarray | None = None
    #: Whether other processes can make their own of it, so that blocks need not be sent to them.
    shared = False
    #: Whether its samples may be overwritten: nobody needs them afterwards.
    disposable = False

    @classmethod
    def of(cls, kspace, header, sampled=None, *, calibration=None, **known):
        """A scan of arrays.

        `sampled` marks the measured lines, ``(y, z)`` or with slice, echo and repetition; by default
        all. Other names are those of `Layout`.
        """
        y, z, _, *images = kspace.shape[1:]
        lines = np.ones((y, z), bool) if sampled is None else np.asarray(sampled, bool)
        lines = lines.reshape(lines.shape + (1,) * (5 - lines.ndim))
        lines = np.broadcast_to(lines, (y, z, *images))
        apart = None if calibration is None else calibration.shape
        looks = coil_choice.of_arrays(kspace, lines, known.get("noise"))
        layout = Layout(kspace.shape, header, lines, calibration=apart, looks=looks, **known)
        return cls(layout, kspace, calibration)

    def frames(self, index, repetitions):
        """k-space of a slice, ``(x, y, z, coil, echo, repetition)``: a view for a slice of them."""
        return self.kspace[:, :, :, :, index][..., repetitions]

    def separate(self, index):
        """Calibration scan of a slice, ``(x, y, z, coil)``, the mean over its repetitions."""
        at = min(index, self.calibration.shape[4] - 1)
        return self.calibration[:, :, :, :, at, 0].mean(-1, dtype=np.complex64)
