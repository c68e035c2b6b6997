"""Plans of reconstructions: everything is decided once, before samples are read.

A `Plan` has everything that follows from the `Layout` of a scan and the options, and describes it in words.
`reconstruct` carries it out in this process, on workers, or while the scan still runs.
"""

from dataclasses import asdict, dataclass, replace
from math import prod

import numpy as np

from . import __version__, coil_choice, coverage, map_sets, maps
from .gradients import Coefficients
from .partial import clipped
from .replicas import REPLICAS
from .sampling import Lattice, calibration_block, partial_ranges, shifted_axis
from .scan import Placement, printable, times_text
from .steps import PLANE_KERNEL, noise_covariance, usable_ranges
from .warp import scan_grid, warnings_of

#: Bytes of k-space that are processed together; at least one volume.
BLOCK = 64 * 2**20
#: Resident memory of a worker process after its imports, in bytes.
PROCESS = 128 * 2**20
#: How missing lines of a partial scan are filled.
WAYS = ("auto", "zero", "homodyne", "pocs")
#: Units of images, for people.
UNITS = {
    "raw": "units of the raw data",
    "snr": "standard deviation of the noise of each voxel's complex value",
}
#: Smallest number of calibration lines along an undersampled axis.
FEWEST_LINES = 8


@dataclass(frozen=True)
class Options:
    """Options of a reconstruction.

    * `combine`: "pcsos" gives complex images, "sos" magnitudes.
    * `units`: "raw" keeps the units of the raw data, which are the same for all scans of an object. "snr"
      divides each voxel by the standard deviation of its complex value, so that the magnitude is the
      signal-to-noise ratio; it needs a noise scan.
    * `matrix`: matrix size of the image (x, y, z), by default that of the header. A larger one
      interpolates by zero filling; intensities stay.
    * `ringing`: strength of the filter, 0 to 0.915.
    * `partial`: how lines that are missing on one side are filled: "zero", "homodyne", "pocs", or "auto".
      "auto" uses POCS in slices where it predicts hidden measured lines, and zero filling elsewhere.
    * `whiten`: use the noise scan.
    * `regularisation`: strength of regularised SENSE with an expected image; 1 trusts the intensity of the
      calibration image. It needs a noise scan.
    * `calibration_size`: largest number of calibration lines along an axis. `mask`: threshold of
      `eigen_maps`.
    * `coefficients` correct the geometry, with `dims` 3 all of it, 2 in the plane of the slices, 1 across
      them; `order` is that of the splines. `intensity`: multiply by the Jacobian. `position`: patient
      position ("HFS", "HFP", "FFS", "FFP"), instead of that of the header.
    * `maps`: a file of sensitivities, used instead of the calibration. `keep_maps`: return the
      sensitivities with the image.
    * `map_sets`: sets of sensitivities: 1, 2 for fields of view that are smaller than the object, or "auto",
      two where one does not explain the calibration.
    * `coils`: numbers of the coils that are used, from 0; by default all that are not defective.
    """

    combine: str = "pcsos"
    units: str = "raw"
    matrix: tuple[int, int, int] | None = None
    ringing: float = 0.0
    partial: str = "auto"
    whiten: bool = True
    regularisation: float = 0.0
    calibration_size: int = 48
    mask: float = 0.05
    coefficients: Coefficients | None = None
    dims: int = 3
    order: int = 3
    intensity: bool = True
    position: str | None = None
    maps: str | None = None
    keep_maps: bool = False
    map_sets: int | str = "auto"
    coils: tuple[int, ...] | None = None
    threads: int | None = None


@dataclass(frozen=True, eq=False)
class Pattern:
    """Repetitions with the same lines, and how these are interpreted."""

    repetitions: np.ndarray
    mask: np.ndarray  # measured lines, (y, z)
    expected: np.ndarray  # with those that were lost
    lattices: tuple[Lattice, Lattice]
    full: tuple[int, int, int]  # grid of unfolded k-space, without oversampling
    partial: list  # first and last line of each axis if one side reaches farther, or None
    ranges: list  # those that homodyne or POCS uses, in lines of the field that is transformed
    window: tuple[int, int, int]  # lines of the fully sampled scan; the ringing filter spans them
    calibration_pixels: tuple[int, int, int]  # maps over the field of the calibration lines

    weighted: bool  # by sensitivities: unfolded scans, and coils with known noise

    @property
    def unfolds(self):
        return any(lattice.reduction > 1 for lattice in self.lattices)

    def folds(self, axis):
        """Whether voxels alias along an axis, 0 for y and 1 for z."""
        return self.lattices[axis].reduction > 1 or shifted_axis(self.lattices) is not None

    @property
    def checks_lines(self):
        """Whether lines are compared with each other, which shows motion: those of slices."""
        return self.keeps_lines and self.full[2] == 1

    @property
    def keeps_lines(self):
        """Whether measured lines are lines of the unfolded image, which has no wider field of view."""
        return all(lattice.full == lattice.folded * lattice.step for lattice in self.lattices)


@dataclass(frozen=True, eq=False)
class Calibration:
    """Lines for sensitivities: those of a separate calibration, or the mean of a few frames."""

    x: int  # largest number of samples along the readout

    y: slice
    z: slice
    lines: tuple[int, int]  # their numbers, (y, z)
    separate: bool
    frames: int  # number of first repetitions that together have all lines
    times: np.ndarray | None  # how often each line was measured in them, (y, z, slice)
    cut: float  # share of their field along x that is the image's


@dataclass(frozen=True, eq=False)
class Plan:
    """All decisions about a reconstruction. Made by `plan`.

    `steps` describe it in words; `warnings` say why the image may surprise the user, one line each. `kept`
    are the slices, echoes and repetitions that are reconstructed, `selection` their part of the whole scan
    (axis, first and last index).
    """

    options: Options
    shape: tuple[int, ...]  # of k-space, by AXES
    patterns: tuple[Pattern, ...]
    calibration: Calibration | None
    covariance: np.ndarray | None
    readout: int  # samples along x without oversampling
    pixels: tuple[int, int, int]  # image over the whole encoded field
    matrix: tuple[int, int, int]  # image that is kept
    field: tuple[float, float, float]  # of that image, in mm
    position: str
    placements: tuple[Placement, ...]
    separate: tuple[int, ...] | None  # extents of a separate calibration
    kept: tuple[range, range, range]
    steps: tuple[str, ...]
    warnings: tuple[str, ...]
    selection: tuple[str, int, int] | None = None
    choice: coil_choice.Choice | None = None  # if some coils are left out; `shape` has the others
    slices: tuple[int, ...] | None = None  # numbers of a part's slices in the whole scan

    def coils_of(self, samples, axis=3):
        """The samples of the coils that are used."""
        return self.choice.of(samples, axis) if self.choice else samples

    @property
    def measured_shape(self):
        """Extents of k-space with all coils."""
        return (*self.shape[:3], self.choice.count if self.choice else self.shape[3], *self.shape[4:])

    @property
    def image_shape(self):
        """Extents (x, y, z, slice, echo, repetition)."""
        return (*self.matrix, *(len(kept) for kept in self.kept))

    @property
    def image_type(self):
        return np.float32 if self.options.combine == "sos" else np.complex64

    @property
    def reduction(self):
        """Acceleration; the largest one of several patterns."""
        return max(prod(lattice.reduction for lattice in p.lattices) for p in self.patterns)

    def map_sets(self, pattern):
        """Sets of sensitivities of a pattern of lines: 1, 2, or "auto", which the data decide."""
        return map_sets.allowed(self.options.map_sets, pattern, self.shape[3])

    @property
    def in_snr(self):
        """Whether images are in units of the standard deviation of their noise."""
        return self.options.units == "snr"

    @property
    def stack(self):
        """Whether the geometry of all slices is corrected as one volume, after their blocks."""
        part = self.selection is not None and self.selection[0] == "slice"
        several = self.matrix[2] == 1 and len(self.kept[0]) > 1 and not part
        return self.options.coefficients is not None and several and self.grid() is not None

    def grid(self, index=None):
        """Positions of the voxels of a slice, or of all; None if slices are not parallel."""
        kept = self.placements[self.kept[0].start : self.kept[0].stop]
        places = kept if index is None else [self.placements[index]]
        try:
            return scan_grid(places, self.matrix, self.field)
        except ValueError:
            return None

    @property
    def in_slabs(self):
        """Whether volumes are processed in slabs of x: 3-D scans, unless the readout is partial, or the
        whole volume decides whether missing lines are filled."""
        whole = slice(1 if self.options.partial == "homodyne" else 3)
        return self.shape[2] > 1 and not any(any(p.ranges[whole]) for p in self.patterns)

    @property
    def slab(self):
        """Bytes of the coil images of a slab."""
        return BLOCK // 4

    @property
    def group(self):
        """Number of repetitions that are processed together."""
        if self.in_slabs:
            return 1
        return max(1, BLOCK // (8 * prod(self.shape[:4]) * self.shape[5]))

    def completes_slabs(self, pattern):
        """Whether no step along x is left; coils that are combined without sensitivities have none."""
        untouched = self.options.ringing == 0 and self.pixels[0] == pattern.full[0]
        return untouched or not pattern.weighted

    def keeps_readout(self, pattern):
        """Whether slices of a pattern need only the image along x, not k-space."""
        one = self.shape[2] == 1 and self.readout == self.shape[0]
        return one and pattern.weighted and self.completes_slabs(pattern) and not any(pattern.ranges)

    def gain(self, pattern):
        """Factor that keeps intensities, which transforms to more pixels would lower."""
        return np.float32((prod(self.pixels) / prod(pattern.window)) ** 0.5)

    @property
    def parameters(self):
        """Numbers that determine the result, for a sidecar."""
        first = self.patterns[0]
        options = asdict(replace(self.options, coefficients=None))
        del options["coefficients"], options["keep_maps"]
        options["maps"] = self.options.maps and printable(self.options.maps)
        if not any(pattern.unfolds for pattern in self.patterns):
            options["regularisation"] = 0.0
        return {
            "version": __version__,
            "options": options,
            "geometry": self.options.coefficients is not None,
            "ranges": first.ranges,
            "reduction": [str(lattice.reduction) for lattice in first.lattices],
            "shift": [lattice.shift for lattice in first.lattices],
            "coils": self.shape[3],
            **({"left_out": sorted({*range(self.choice.count)} - {*self.choice.kept})} if self.choice else {}),
        }

    def memory(self, workers=1, shared=False):
        """Bytes that the reconstruction needs, the scan itself included.

        `workers` is the number of blocks that are processed at the same time. If they read their blocks
        from a `shared` file, no process holds the whole scan. k-space of a 3-D scan counts once: the
        transformed readouts replace it if the source allows that.
        """
        volumes = min(self.group, self.shape[6]) * self.shape[5]
        sent, block = np.max([self._block(pattern, volumes) for pattern in self.patterns], 0)
        block += self.replicas if self.in_snr else 0
        image = prod(self.image_shape) * np.dtype(self.image_type).itemsize
        if shared and not self.in_slabs:
            read = 8 * prod(self.measured_shape[:4]) * volumes
            return int(image + workers * (read + block + PROCESS))
        others = (2 * sent + PROCESS) * workers if workers > 1 else 0
        scan = 8 * (prod(self.measured_shape) + prod(self.separate or (0,)))
        stack = 48 * prod(self.image_shape[:4]) if self.stack else 0
        return int(scan + image + max(workers * block + others, stack))

    @property
    def replicas(self):
        """Bytes of replicas of noise, without those of their images."""
        return 40 * prod(self.shape[:4]) * min(self.group, REPLICAS)

    def _block(self, pattern, volumes):
        """Bytes of a block as it is sent, and the largest number of bytes while it is processed.

        This counts the arrays in the step with the largest sum; measured peaks were 55 to 98 % of it.
        """
        size, coils = 8 * volumes, self.shape[3]
        if self.in_slabs:
            return self._slab(pattern, size)
        pixels = size * prod(self.pixels)
        if pattern.weighted:
            slots = size * coils * prod(lattice.folded for lattice in pattern.lattices)
            lines, cut = slots * self.shape[0], slots * self.readout
            sets = 1 if self.map_sets(pattern) == 1 or not pattern.unfolds else 2
            maps = 8 * sets * coils * prod(pattern.calibration_pixels)
            volume = max(pixels, size * prod(pattern.full))
            if pattern.unfolds:  # coil by coil, so that measured lines can be put back
                frames = size * coils * prod(self.shape[:3])
                return frames, frames + 1.3 * cut + 2.2 * maps + 2 * coils * volume
            return lines, lines + 1.3 * cut + 2.2 * maps + 3 * volume
        lines, cut = (size * coils * prod(n) for n in (self.shape[:3], pattern.full))
        return lines, max(2 * lines, cut + (5 if any(pattern.ranges) else 2.2) * coils * pixels)

    def _slab(self, pattern, size):
        """As `_block`, for a volume that is assembled from its slabs."""
        volume = size * max(prod(self.pixels), prod(pattern.full))
        finished = self.completes_slabs(pattern)
        calibration = 8 * self.shape[3] * self.readout * prod(self.calibration.lines if pattern.weighted else (0,))
        sent = self.slab * size // 8 + calibration
        matrix = 80 * (PLANE_KERNEL**2 * self.shape[3]) ** 2 if pattern.unfolds else 0
        return sent, matrix + (7 if pattern.unfolds else 5) * sent + (1.5 if finished else 5) * volume


def plan(scan, options=None):
    """Decide how a scan is reconstructed.

    Parameters
    ----------
    scan : Layout, or an object with a `layout`
        Samples are not read.
    options : Options, optional

    Returns
    -------
    Plan

    Raises
    ------
    ValueError
        The scan or an option does not allow a reconstruction; the message says how to fix it.
    """
    layout, options = getattr(scan, "layout", scan), options or Options()
    choice, measured = coil_choice.choose(layout, options), layout.shape
    layout = _chosen(layout, choice)
    grid = _grid(layout, options)
    _check(layout, options, grid)
    samplings = coverage.samplings(layout)
    covariance = _covariance(layout, options)
    noisy = covariance is not None and layout.shape[3] > 1
    patterns = tuple(_pattern(layout, options, grid, sampling, noisy) for sampling in samplings)
    _check_regularisation(options, covariance, patterns)
    map_sets.check(options.map_sets, options.maps, patterns, layout.shape[3])
    _check_maps(measured, options, patterns, layout.slices)
    _check_units(options, covariance)
    made = Plan(
        options,
        layout.shape,
        patterns,
        _calibration(layout, options, grid, patterns),
        covariance,
        grid.readout,
        grid.pixels,
        grid.matrix,
        grid.field,
        options.position or layout.header.patient_position or "HFS",
        tuple(layout.header.placements),
        layout.calibration,
        tuple(range(n) for n in layout.shape[4:]),
        (),
        (
            *layout.warnings,
            *coil_choice.warnings(choice),
            *coverage.warnings(layout, samplings),
            *grid.warnings,
            *_coarser(options, grid, patterns[0]),
            *_unused(options, patterns),
        ),
        layout.selection,
        choice,
        layout.slices,
    )
    made = replace(made, warnings=(*made.warnings, *geometry_warnings(made)))
    return replace(made, steps=tuple(_words(layout, made)))


def _chosen(layout, choice):
    """The layout with the coils that are used."""
    if choice is None:
        return layout
    shape = (*layout.shape[:3], len(choice.kept), *layout.shape[4:])
    return replace(layout, shape=shape, noise=None if layout.noise is None else choice.of(layout.noise, 1))


# ---- Grids ---------------------------------------------------------------------------------------


@dataclass
class _Grid:
    readout: int
    pixels: tuple[int, int, int]
    matrix: tuple[int, int, int]
    field: tuple[float, float, float]
    ratio: list[float]  # field of view to unfold to over the encoded one, y and z
    warnings: list[str]


def _grid(layout, options):
    header, lines = layout.header, layout.shape[:3]
    share = [_ratio(header, axis) if axis == 0 or lines[axis] > 1 else 1.0 for axis in range(3)]
    wide = [axis for axis in range(3) if share[axis] > 1 and not _unfoldable(layout, axis)]
    for axis in wide:
        share[axis] = 1.0
    kept = [min(1.0, s) for s in share]
    # Cutting the field of view needs the whole readout; a partial one is cut at the end.
    partial = options.partial != "zero" and partial_ranges(layout)[0]
    readout = lines[0] if partial else max(1, round(lines[0] * kept[0]))
    matrix = tuple(options.matrix or header.recon_matrix)
    cut = (kept[0] if partial else 1.0, *kept[1:])
    return _Grid(
        readout,
        tuple(max(1, round(m / k)) for m, k in zip(matrix, cut)),
        matrix,
        _field(header, matrix, wide),
        [max(1.0, s) for s in share[1:]],
        [_wide_words(header, axis) for axis in wide],
    )


def _unfoldable(layout, axis):
    """Whether the calibration covers a field of view that is wider than the encoded one."""
    own = layout.header.calibration_fov
    wanted = layout.header.recon_fov[axis]
    return axis > 0 and layout.calibration is not None and (not own or own[axis] > 0.99 * wanted)


def _field(header, matrix, wide):
    """Field of view of the image; along the axes `wide` that of the encoding."""
    image = [f if f > 0 else float(m) for f, m in zip(header.recon_fov, matrix)]
    return tuple(header.encoded_fov[axis] if axis in wide else f for axis, f in enumerate(image))


def _wide_words(header, axis):
    return (
        f"the header's image is {header.recon_fov[axis]:g} mm wide along {'xyz'[axis]}, the encoded "
        f"field of view {header.encoded_fov[axis]:g} mm; the image has the encoded one"
    )


def _ratio(header, axis):
    """Field of view of the image, divided by the encoded one."""
    image, encoded = header.recon_fov[axis], header.encoded_fov[axis]
    ratio = image / encoded if image > 0 and encoded > 0 else 1.0
    return 1.0 if abs(ratio - 1) < 1e-3 else ratio


def _check(layout, options, grid):
    if min(grid.matrix) < 1:
        raise ValueError(f"matrix: expected extents of at least 1, got {grid.matrix}")
    if layout.shape[2] == 1 and grid.matrix[2] != 1:
        raise ValueError(
            f"matrix: expected one voxel along z for slices, got {grid.matrix[2]}; name the "
            "extents of the image (--pad X Y 1)"
        )
    if options.combine not in ("pcsos", "sos"):
        raise ValueError(f'combine: expected "pcsos" or "sos", got {options.combine!r}')
    if options.units not in UNITS:
        raise ValueError(f"units: expected one of {', '.join(UNITS)}, got {options.units!r}")
    if options.partial not in WAYS:
        raise ValueError(f"partial: expected one of {', '.join(WAYS)}, got {options.partial!r}")
    if options.coefficients is None:
        return
    options.coefficients.signs(options.position or layout.header.patient_position or "HFS")
    if len(layout.header.placements) < layout.shape[4]:
        raise ValueError(
            "coefficients: the positions of the slices are unknown; reconstruct without " "geometry correction"
        )


# ---- Lines ---------------------------------------------------------------------------------------


def _pattern(layout, options, grid, sampling, noisy):
    lattices = sampling.regular.lattices(grid.ratio)
    full = (grid.readout, *(lattice.full for lattice in lattices))
    widening = [1.0, *(lattice.full / (lattice.folded * lattice.step) for lattice in lattices)]
    measured = (grid.readout, *layout.shape[1:3])
    partial = partial_ranges(layout, sampling.mask, sampling.regular.steps)
    ranges = [r and tuple(int(line * w) for line in r) for r, w in zip(partial, widening)]
    return Pattern(
        sampling.repetitions,
        sampling.mask,
        sampling.regular.expected,
        lattices,
        full,
        partial,
        _usable(grid, ranges, options.partial),
        tuple(min(f, round(n * w)) for f, n, w in zip(full, measured, widening)),
        _calibration_grid(layout, grid, full),
        noisy or any(lattice.reduction > 1 for lattice in lattices),
    )


def _covariance(layout, options):
    if layout.noise is None or not options.whiten:
        return None
    return noise_covariance(layout.noise, layout.header.noise_bandwidth_ratio)


def _check_regularisation(options, covariance, patterns):
    unfolds = any(pattern.unfolds for pattern in patterns)
    if options.regularisation > 0 and covariance is None and unfolds:
        raise ValueError(
            "regularisation: needs a noise scan, which says how far to trust the data; "
            "reconstruct without regularisation"
        )


def _check_units(options, covariance):
    if options.units == "raw":
        return
    if covariance is None:
        raise ValueError("units: standard deviations of the noise need a noise scan; reconstruct in raw units")
    if options.coefficients is not None:
        raise ValueError(
            "units: the standard deviation of the noise is known only before the geometry correction; "
            "reconstruct in raw units, or without geometry correction"
        )


def _check_maps(shape, options, patterns, slices):
    unfolding = [pattern for pattern in patterns if pattern.unfolds]
    if options.maps is not None:
        for pattern in unfolding:
            maps.check(options.maps, shape, pattern.full, slices)
    if options.keep_maps and not unfolding:
        raise ValueError("maps: all lines were measured and no sensitivities are used; leave out --save-maps")


def _coarser(options, grid, pattern):
    for name, voxels, lines in zip("xyz", grid.pixels, pattern.window):
        if options.matrix is not None and voxels < lines:
            yield (
                f"matrix: along {name} the image has {voxels / lines:.2g} of the resolution that was measured; "
                f"{round(grid.matrix['xyz'.index(name)] * lines / voxels)} voxels keep it"
            )


def _unused(options, patterns):
    if any(pattern.unfolds for pattern in patterns):
        return
    if options.maps is not None:
        yield f"maps: all lines were measured, {printable(options.maps)} is not used"
    if options.regularisation > 0:
        yield f"regularisation: all lines were measured, strength {options.regularisation:g} is not used"


# ---- Calibration ---------------------------------------------------------------------------------


def _wider(layout, grid):
    """Field of view of the calibration lines, divided by that of the image."""
    header = layout.header
    full = [n * w for n, w in zip(header.encoded_fov, (1.0, *grid.ratio))]
    own = header.encoded_fov if layout.calibration is None else header.calibration_fov or full
    return [o / f if f > 0 and o > 0 else 1.0 for o, f in zip(own, full)]


def _usable(grid, ranges, partial):
    if partial == "zero":
        return [None] * 3
    return (usable_ranges if partial == "homodyne" else clipped)(grid.pixels, ranges)


def _calibration_grid(layout, grid, full):
    """Extents over the field of the calibration lines with the pixels of the unfolded image."""
    wider = _wider(layout, grid)
    return (grid.readout, *(round(n * w) for n, w in zip(full[1:], wider[1:])))


def _calibration(layout, options, grid, patterns):
    if not any(pattern.weighted for pattern in patterns):
        return None
    unfolding = [pattern for pattern in patterns if pattern.unfolds]
    for pattern in unfolding:
        _check_reduction(layout, pattern)
    separate = layout.calibration is not None and bool(unfolding)
    y, z, counts = _region(layout, options.calibration_size, unfolding, separate)
    made = Calibration(
        _readout_samples(layout, options.calibration_size),
        y,
        z,
        counts,
        separate,
        *((0, None) if separate else _calibrating_frames(layout, y, z)),
        grid.readout / layout.shape[0] / _wider(layout, grid)[0],
    )
    if options.maps is None or options.regularisation > 0:
        for pattern in unfolding:
            _check_calibration(pattern, made)
    return made


def _readout_samples(layout, size):
    """Samples along x that were measured on both sides of k = 0, at most `size`."""
    partial = partial_ranges(layout)[0]
    return min(size, 2 * min(-partial[0], partial[1] + 1)) if partial else size


def _check_reduction(layout, pattern):
    reduction, coils = prod(lattice.reduction for lattice in pattern.lattices), layout.shape[3]
    if any(p < n for p, n in zip(pattern.calibration_pixels, pattern.full)):
        raise ValueError(
            "calibration: its field of view is smaller than the image's; expected a "
            "separate calibration over the whole field of view"
        )
    if reduction > coils:
        raise ValueError(
            f"sampled: R = {reduction} is more than SENSE can unfold with {coils} "
            f"coil{'s' * (coils > 1)}; measure more lines, or with more coils"
        )


def _check_calibration(pattern, calibration):
    for axis, n in enumerate(calibration.lines):
        if pattern.folds(axis) and n < FEWEST_LINES:
            raise ValueError(
                f"calibration: {n} lines around k = 0 along {'yz'[axis]}, at least {FEWEST_LINES} "
                "are needed; add ACS lines or a separate calibration"
            )


def _region(layout, size, unfolding, separate):
    """Slices of y and z that hold the calibration lines, k = 0 at ``n // 2``; their numbers."""
    if separate:
        extents = layout.calibration[1:3]
        return _centred(extents, [slice(0, n) for n in extents], size)
    extents, sampled = layout.shape[1:3], layout.sampled
    found = _centred(extents, calibration_block(sampled), size)
    reduced = [any(p.folds(axis) for p in unfolding) for axis in (0, 1)]
    if all(n >= FEWEST_LINES for n, unfolds in zip(found[2], reduced) if unfolds):
        return found
    expected = np.logical_or.reduce([sampled, *(p.expected for p in unfolding)])
    return _centred(extents, calibration_block(expected), size)  # lost lines count as 0


def _centred(extents, block, size):
    region = []
    for n, lines in zip(extents, block):
        reach = min(n // 2 - lines.start, lines.stop - n // 2, size // 2)
        region.append(slice(n // 2 - reach, n // 2 + reach) if reach else slice(n // 2, n // 2 + 1))
    counts = [r.stop - r.start if b.stop > b.start else 0 for r, b in zip(region, block)]
    return *region, tuple(counts)


def _calibrating_frames(layout, y, z):
    """The fewest first repetitions that have all calibration lines, and how often they have each.

    A scan that still runs can use them as soon as they are measured.
    """
    times = np.cumsum(layout.lines[y, z, :, 0], -1)
    whole = ((times > 0) == (times[..., -1:] > 0)).all((0, 1, 2))
    frames = int(whole.argmax()) + 1
    return frames, times[..., frames - 1]


# ---- Words ---------------------------------------------------------------------------------------


def _words(layout, made):
    first, options = made.patterns[0], made.options
    steps = [made.choice.text() if made.choice else "", _noise_words(layout, made)]
    measured = layout.readout or layout.shape[0]
    if made.readout < measured:
        steps.append(f"remove readout oversampling: {measured} to {made.readout} samples")
    if any(pattern.unfolds for pattern in made.patterns):
        steps += _sense_words(made)
    if options.ringing > 0:
        steps.append(f"ringing filter of strength {options.ringing:g}")
    if any(p > n for p, n in zip(made.pixels, first.full)):
        steps.append(f"zero filling to {times_text(made.pixels)}")
    steps += _partial_words(made, first)
    if not first.unfolds and layout.shape[3] > 1:
        steps.append(_combine_words(made, first))
    if options.coefficients is not None:
        steps.append(geometry_words(made))
    if made.in_snr:
        steps.append(f"unit: {UNITS['snr']}")
    steps.append(f"image {times_text(made.matrix)}, field of view {times_text(made.field)} mm")
    return [step for step in steps if step]


def geometry_words(made):
    """The step of the correction, for people."""
    options = made.options
    what = {3: "", 2: " in the plane of the slices", 1: " across the slices"}[options.dims]
    if made.matrix[2] == 1 and not made.stack:
        what += ", each slice by itself"
    how = ", intensity by the Jacobian" if options.intensity else ""
    return f"geometry correction{what}, splines of order {options.order}{how}"


def geometry_warnings(made):
    """Warnings about the correction, one line each."""
    options = made.options
    if options.coefficients is None:
        return
    grids = [made.grid(index) for index in made.kept[0]]
    yield from warnings_of(max(grids, key=lambda grid: grid.reach), options.coefficients, "the image")
    part = made.selection is not None and made.selection[0] == "slice"
    if made.matrix[2] == 1 and not made.stack and (len(grids) > 1 or part):
        yield (
            "geometry: the slices are corrected only within their planes; the whole correction needs all "
            "slices of a scan, parallel and evenly spaced"
        )


def _noise_words(layout, made):
    if made.covariance is None or layout.shape[3] == 1:
        return "noise scan not used" if layout.noise is not None else ""
    return f"noise covariance of {len(layout.noise)} samples: weight the coils by its inverse"


def _combine_words(made, pattern):
    if pattern.weighted:
        lines = times_text(made.calibration.lines)
        return f"combine coils: weighted by sensitivities from {lines} lines and by their noise"
    phase = " with phase" if made.options.combine == "pcsos" else ""
    return f"combine coils: root sum of squares{phase}"


def _sense_words(made):
    options = made.options
    unfolding = next(pattern for pattern in made.patterns if pattern.unfolds)
    kind = "calibration" if made.calibration.separate else "ACS"
    words = f"sensitivity maps (ESPIRiT) from {times_text(made.calibration.lines)} {kind} lines"
    if made.map_sets(unfolding) != 1:
        words += {2: ", two sets", "auto": ", two sets where one is not enough"}[options.map_sets]
    if options.maps is not None:
        words = f"sensitivity maps from {printable(options.maps)}"
    factors = _factor_words(unfolding.lattices)
    regularised = ", damped by the variance of the noise"
    if options.regularisation:
        regularised = f", regularised with strength {options.regularisation:g}"
    count = sum(pattern.unfolds for pattern in made.patterns)
    alternating = f", {count} alternating sampling patterns" if count > 1 else ""
    whole = [str(n) for p in made.patterns if not p.unfolds for n in p.repetitions]
    full = f", repetition {', '.join(whole)} fully sampled" if whole else ""
    put_back = ", measured lines put back" if unfolding.keeps_lines else ""
    if not unfolding.checks_lines:
        put_back += ", lines not checked for motion"
    return [words, f"SENSE: R = {factors}{alternating}{full}{regularised}{put_back}"]


def _factor_words(lattices):
    own = shifted_axis(lattices)
    if own is not None:
        factors = times_text([lattice.step for lattice in lattices])
        return f"{factors} along y and z, shifted by {lattices[own].shift} along {'yz'[own]}"
    return ", ".join(
        f"{lattice.reduction} along {axis}" for axis, lattice in zip("yz", lattices) if lattice.reduction > 1
    )


_METHOD = {"auto": "POCS", "pocs": "POCS", "homodyne": "homodyne"}


def _why(options):
    if options.partial == "zero":
        return "switched off"
    return f"too few lines for {_METHOD[options.partial]}"


def _partial_words(made, pattern):
    words = []
    for axis, lines, used in zip("xyz", pattern.partial, pattern.ranges):
        if lines is None:
            continue
        where = f"along {axis}, lines {(used or lines)[0]} to {(used or lines)[1]}"
        if used is None:
            words.append(f"partial Fourier {where}: zero-filled ({_why(made.options)})")
        elif made.options.partial == "homodyne":
            words.append(f"homodyne {where}" + (" (mirrored)" if sum(used) < 0 else ""))
        else:
            chosen = " if it predicts hidden lines, otherwise zero filling"
            words.append(f"POCS {where}" + (chosen if made.options.partial == "auto" else ""))
    return words
