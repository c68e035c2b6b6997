"""One Cartesian scan in memory, the input of the pipeline."""

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
    """Centre of a slice (2-D) or slab (3-D), and its axes, in the patient (LPS, mm)."""

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
    #: Dwell time of the noise scan, divided by that of a line and by its averages.
    noise_bandwidth_ratio: float = 1.0
    #: Of a separate calibration; None if it is that of the image.
    calibration_fov: tuple[float, float, float] | None = None
    spacing: float = 0.0  # between the centres of neighbouring slices; 0 if unknown
    ti: list[float] = field(default_factory=list)
    flip_angle: list[float] = field(default_factory=list)  # degrees
    field_strength: float = 0.0  # T; 0 if unknown
    frequency: float = 0.0  # of hydrogen, Hz; 0 if unknown
    dwell: float = 0.0  # between samples of a readout, us; 0 if unknown
    scanner: dict[str, str] = field(default_factory=dict)  # "vendor", "model", "institution"
    phantom: str = ""  # parameters of the phantom that was measured, JSON
    #: Times of the first and last line of each repetition by the scanner's clock, in s; may be empty.
    volumes: list[tuple[float, float]] = field(default_factory=list)


@dataclass(frozen=True, eq=False)
class Layout:
    """Everything about a scan except its samples.

    `shape` are the extents of k-space by `AXES`, as it is read. If oversampling is removed while it is
    read, `readout` is the number of measured samples along x. `lines`, ``(y, z, slice, echo,
    repetition)`` of bool, marks measured lines, k = 0 at ``N // 2``. `flagged`, ``(y, z)`` of bool, marks
    lines with calibration flags, or is None. `noise` is ``(sample, coil)`` or None. `calibration` are the
    extents of a separate calibration, or None. For a part of a scan, `selection` has axis, first and last
    index, and `slices` the numbers of its slices in the whole scan if others are left out. `looks` are
    the statistics for `ctessel.coil_choice`; `looked` says that they have every slice. `warnings` are
    those of reading, one line each.
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
    Averages are summed and divided by their number. `calibration` is k-space of a separate calibration
    on its own grid with the same axes, or None. ACS lines are part of `kspace`.

    Any object with a layout, `frames` and `separate` can be reconstructed, for example a file or a stream.
    """

    layout: Layout
    kspace: np.ndarray
    calibration: np.ndarray | None = None
    #: Whether other processes can open it themselves, so that blocks need not be sent to them.
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
        extents = None if calibration is None else calibration.shape
        looks = coil_choice.of_arrays(kspace, lines, known.get("noise"))
        layout = Layout(kspace.shape, header, lines, calibration=extents, looks=looks, **known)
        return cls(layout, kspace, calibration)

    def frames(self, index, repetitions):
        """k-space of a slice, ``(x, y, z, coil, echo, repetition)``: a view for a slice of them."""
        return self.kspace[:, :, :, :, index][..., repetitions]

    def separate(self, index):
        """Separate calibration of a slice, ``(x, y, z, coil)``, the mean over its repetitions."""
        at = min(index, self.calibration.shape[4] - 1)
        return self.calibration[:, :, :, :, at, 0].mean(-1, dtype=np.complex64)
