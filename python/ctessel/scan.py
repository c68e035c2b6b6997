"""One Cartesian scan in memory: what a raw file is read into and what the pipeline takes."""

from dataclasses import dataclass, field

import numpy as np

#: Axes of every k-space and image array of the pipeline.
AXES = ("x", "y", "z", "coil", "slice", "echo", "repetition")


def times_text(numbers):
    """Extents as people write them, 64 x 48 x 1."""
    return " x ".join(f"{n:g}" for n in numbers)


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


@dataclass
class Scan:
    """Samples of a scan and what is known about them.

    `kspace` is complex64, Fortran order, indexed by `AXES`, on the encoded grid (readout
    oversampling still in it), k = 0 at ``N // 2`` of each axis; lines that were not measured are 0.
    Averages are summed and divided by their number. `sampled`, ``(y, z)`` of bool, marks the
    measured lines. `calibration` is k-space of a separate calibration scan on its own grid, same
    axes, or None; calibration lines inside the scan are part of `kspace`. `noise` is
    ``(sample, coil)`` or None.
    `lines`, ``(y, z, slice, echo, repetition)`` of bool, is given where images differ in their
    lines (undersampling that moves from repetition to repetition); `sampled` marks the lines of any
    of them then. `readout` is the number of samples along x that were measured, where oversampling
    has been removed while they were read. A part of a scan has in `selection` its axis, first and
    last index, and in `levels` what regularisation needs to know of the whole.
    """

    kspace: np.ndarray
    sampled: np.ndarray
    header: Header
    calibration: np.ndarray | None = None
    noise: np.ndarray | None = None
    readout: int | None = None
    selection: tuple[str, int, int] | None = None
    levels: tuple[float, float] | None = None
    lines: np.ndarray | None = None
