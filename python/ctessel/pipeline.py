"""From k-space to image: the steps, and the whole way.

Every step takes arrays and returns arrays, so that a notebook can use it alone. `plan` says in
words what `reconstruct` does with a scan; `reconstruct` works through it slice by slice and a few
repetitions at a time, here or on the processes of a Dask cluster, with the same bits.

Arrays are indexed ``[x, y, z, coil, slice, echo, repetition]``, k = 0 and the centre of the field
of view lie at ``N // 2``, and transforms are unitary.

>>> import numpy as np
>>> from ctessel import pipeline
>>> kspace = pipeline.to_kspace(np.ones((64, 48, 1, 4), np.complex64))
>>> kspace[:, :18] = 0                                         # lines -24 to -7 were not measured
>>> image = pipeline.homodyne_recon(kspace, (None, (-6, 23), None))
>>> pipeline.combine(image, "sos").shape
(64, 48, 1)
"""

from dataclasses import asdict, dataclass, replace
from math import prod

import numpy as np

from . import __version__
from ._arrays import ringing_filter
from ._fourier import central, flip, remove_oversampling, resize, to_image, to_kspace
from ._gradients import (
    Coefficients,
    apply_warp,
    geometry,
    gradient_axes,
    read_coefficients,
    voxel_positions,
    warp,
)
from ._helpers import sa
from ._sampling import (
    Lattice,
    calibration_block,
    fold_lines,
    partial_ranges,
    undersampling,
)
from ._steps import (
    combine,
    homodyne_recon,
    noise_covariance,
    sense,
    sensitivity_maps,
    usable_ranges,
    whiten,
)
from .scan import AXES, times_text

__all__ = [
    "Coefficients", "Lattice", "Options", "Result", "calibration_block", "combine", "flip",
    "fold_lines", "geometry", "homodyne_recon", "memory_estimate", "merge", "noise_covariance",
    "partial_ranges", "plan", "read_coefficients", "reconstruct", "remove_oversampling", "resize",
    "ringing_filter", "select", "sense", "sensitivity_maps", "to_image", "to_kspace",
    "undersampling", "voxel_positions", "whiten",
]  # fmt: skip

#: k-space that is worked on at once, in bytes; at least one volume.
BLOCK = 64 * 2**20
#: Resident memory of a worker process that has imported all it needs, in bytes.
PROCESS = 128 * 2**20
#: Fewest calibration lines along an undersampled axis.
FEWEST_LINES = 8


@dataclass
class Options:
    """What `reconstruct` is to do where the scan leaves a choice.

    `matrix` is the extent of the image (x, y, z), by default that of the header; a larger one
    interpolates by zero filling, which keeps the level of the image. `ringing` is the strength of
    the filter, 0 to 0.915. `regularisation` is the strength of that of SENSE, 1 trusting the level
    of the calibration image; it needs a noise scan. `calibration_size` is the most calibration
    lines used along an axis, `mask` the threshold of `sensitivity_maps`. `coefficients` correct the
    geometry, with splines of `order`; `position` says how the patient lay ("HFS", "HFP", "FFS",
    "FFP") in place of the header. `combine` "pcsos" gives complex images, "sos" magnitudes.
    """

    combine: str = "pcsos"
    matrix: tuple[int, int, int] | None = None
    ringing: float = 0.0
    homodyne: bool = True
    whiten: bool = True
    regularisation: float = 0.0
    calibration_size: int = 48
    mask: float = 0.05
    coefficients: Coefficients | None = None
    order: int = 3
    intensity: bool = True
    position: str | None = None
    threads: int | None = None


@dataclass
class Result:
    """Images ``(x, y, z, slice, echo, repetition)``, complex64 or (magnitudes) float32.

    `field` is their field of view in mm, `steps` says what was done, `parameters` with which
    numbers. `selection` is the part of the scan: axis, first and last index.
    """

    image: np.ndarray
    steps: list[str]
    parameters: dict
    field: tuple[float, float, float]
    selection: tuple[str, int, int] | None = None


@dataclass
class Setup:
    """All that the reconstruction of one block needs besides its k-space and calibration lines."""

    options: Options
    lines: tuple[int, int, int]  # of k-space as it was measured
    readout: int  # samples along x once oversampling is removed
    ranges: list  # partial Fourier, in lines of the field that is transformed
    lattices: tuple[Lattice, Lattice]
    covariance: np.ndarray | None
    window: tuple[int, int, int]  # lines of the fully measured scan; the ringing filter spans them
    pixels: tuple[int, int, int]  # image over the whole encoded field
    matrix: tuple[int, int, int]  # image that is kept
    field: tuple[float, float, float]
    position: str
    calibration_pixels: tuple[int, int, int]  # maps over the field of the calibration lines
    calibration_cut: float = 1.0  # share of that field along x that is the image's
    levels: tuple[float, float] | None = None

    @property
    def unfolds(self):
        return any(lattice.reduction > 1 for lattice in self.lattices)

    @property
    def full(self):
        """Grid of the transformed k-space: unfolded, without oversampling."""
        return (self.readout, *(lattice.full for lattice in self.lattices))

    @property
    def gain(self):
        """Keeps the level of fully measured lines, which transforms to more pixels would lower."""
        return np.float32((prod(self.pixels) / prod(self.window)) ** 0.5)


def plan(scan, options=None):
    """What `reconstruct` would do, in words; k-space itself is not read.

    Parameters
    ----------
    scan : Scan
    options : Options, optional

    Returns
    -------
    list of str
    """
    options = options or Options()
    setups = [_setup(scan, options, mask) for mask, _ in _patterns(scan)]
    _check_calibration(scan, setups[0])
    return _words(scan, setups)


def reconstruct(scan, options=None, progress=None, client=None):
    """Images of a scan.

    Parameters
    ----------
    scan : Scan
        k-space may be a memory map; it is read block by block.
    options : Options, optional
    progress : callable, optional
        Called with the number of volumes that are done and that of all.
    client : distributed.Client, optional
        Processes to work on, see `ctessel.dask.cluster`. Results are the same bits.

    Returns
    -------
    Result

    Raises
    ------
    ValueError
        The scan or an option does not allow a reconstruction; the message says how to mend it.

    Notes
    -----
    Scans that are both undersampled and partial are unfolded first; the k-space of the unfolded
    image then goes through homodyne. That takes two transforms of one image instead of two of every
    coil. It holds as far as sensitivities change little over the width to which the missing lines
    blur a point: unfolding weighs voxel by voxel, so the unfolded image lacks the lines that its
    coils lack.

    References
    ----------
    M. Bydder, M. D. Robson, "Partial Fourier partially parallel imaging", Magn. Reson. Med. 53:1393
    (2005).
    """
    options = options or Options()
    patterns = _patterns(scan)
    setups = [_setup(scan, options, mask) for mask, _ in patterns]
    _check_calibration(scan, setups[0])
    if options.regularisation > 0 and setups[0].unfolds:
        levels = scan.levels or _levels(scan, setups, patterns, client)
        setups = [replace(setup, levels=levels) for setup in setups]
    image = np.zeros(_image_shape(scan, setups[0]), _image_type(options), order="F")
    total, done = prod(image.shape[3:]), 0
    tasks = _tasks(scan, setups, patterns)
    for (index, repetitions), volumes in _run(reconstruct_block, tasks, client):
        image[:, :, :, index][..., repetitions] = volumes
        done += prod(volumes.shape[3:])
        if progress:
            progress(done, total)
    return Result(
        image, _words(scan, setups), _parameters(scan, setups[0]), setups[0].field, scan.selection
    )


def reconstruct_block(setup, kspace, calibration, placement):
    """Images of some volumes of one slice.

    Parameters
    ----------
    setup : Setup
    kspace : ndarray of complex64, ``(x, y, z, coil, echo, repetition)``
        As measured; of undersampled scans the regular lines, as `fold_lines` returns them, which
        may be overwritten.
    calibration : ndarray of complex64, ``(x, y, z, coil)``, or None
    placement : Placement or None

    Returns
    -------
    ndarray of complex64 or float32, ``(x, y, z, echo, repetition)``
    """
    options, threads = setup.options, setup.options.threads
    if setup.unfolds:
        image = _unfold(setup, kspace, calibration)[:, :, :, None]
        if setup.options.ringing > 0 or any(setup.ranges) or setup.pixels != setup.full:
            image = _finish(setup, to_kspace(image, threads=threads))
        else:
            image = resize(image, setup.matrix)
    else:
        lines = remove_oversampling(kspace, setup.readout, threads=threads)
        if setup.covariance is not None:
            lines = whiten(lines, setup.covariance)
        image = _finish(setup, lines)
    image = combine(image, options.combine, threads)
    if setup.gain != 1:
        image *= setup.gain
    if options.coefficients is not None:
        image = apply_warp(
            image,
            warp(
                image.shape[:3],
                placement,
                setup.field,
                options.coefficients,
                setup.position,
                options.intensity,
                threads,
            ),
            options.order,
        )
    return image


def _finish(setup, lines):
    """Coil images of k-space over the whole field: filter, size, transform or homodyne."""
    options, threads = setup.options, setup.options.threads
    if options.ringing > 0:
        lines = ringing_filter(lines, options.ringing, setup.window, threads=threads)
    lines = resize(lines, setup.pixels, threads)
    return homodyne_recon(lines, setup.ranges, field=setup.matrix, threads=threads)


def _unfold(setup, kspace, calibration):
    threads = setup.options.threads
    maps, expected = _maps(setup, calibration)
    regularised = setup.levels is not None
    return sense(
        _folded(setup, kspace),
        maps,
        setup.lattices,
        covariance=setup.covariance,
        expected=expected if regularised else None,
        levels=setup.levels,
        strength=setup.options.regularisation,
        threads=threads,
    )


def _folded(setup, kspace):
    threads = setup.options.threads
    image = to_image(kspace, (0,), threads, overwrite=True)[central(len(kspace), setup.readout)]
    return to_image(image, (1, 2), threads)


def _maps(setup, calibration):
    """Sensitivities and low-resolution image on the grid of the unfolded image."""
    threads = setup.options.threads
    lines = remove_oversampling(
        calibration, round(len(calibration) * setup.calibration_cut), threads=threads
    )
    lines = lines[central(len(lines), min(len(lines), setup.options.calibration_size))]
    maps, combined = sensitivity_maps(
        lines, setup.calibration_pixels, mask=setup.options.mask, threads=threads
    )
    return tuple(np.asfortranarray(resize(a, setup.full)) for a in (maps, combined))


# ---- What the header and the lines say -----------------------------------------------------------


def _patterns(scan):
    """The masks of measured lines with the repetitions that have them."""
    if scan.lines is None:
        return [(scan.sampled, np.arange(scan.kspace.shape[6]))]
    lines = scan.lines.any((2, 3))
    _, first, which = np.unique(
        lines.reshape(-1, lines.shape[2]), axis=1, return_index=True, return_inverse=True
    )
    return [(lines[:, :, at], np.flatnonzero(which == n)) for n, at in enumerate(first)]


def _setup(scan, options, mask):
    header, lines = scan.header, scan.kspace.shape[:3]
    ratio = [max(1.0, _ratio(header, axis)) if lines[axis] > 1 else 1.0 for axis in (1, 2)]
    lattices = undersampling(mask, ratio)
    ranges = partial_ranges(replace(scan, sampled=mask)) if options.homodyne else [None] * 3
    widening = [1.0, *(lattice.full / (lattice.folded * lattice.step) for lattice in lattices)]
    ranges = [r and tuple(int(line * w) for line in r) for r, w in zip(ranges, widening)]
    # Cutting the field needs the whole readout; a partial one is cut after homodyne.
    readout = lines[0] if ranges[0] else max(1, round(lines[0] * min(1.0, _ratio(header, 0))))
    matrix = tuple(options.matrix or header.recon_matrix)
    full = (readout, *(lattice.full for lattice in lattices))
    kept = [1.0, *(min(1.0, _ratio(header, axis)) if lines[axis] > 1 else 1.0 for axis in (1, 2))]
    if ranges[0]:
        kept[0] = min(1.0, _ratio(header, 0))
    pixels = tuple(max(1, round(m / k)) for m, k in zip(matrix, kept))
    field = tuple(f if f > 0 else float(m) for f, m in zip(header.recon_fov, matrix))
    window = tuple(min(f, round(n * w)) for f, n, w in zip(full, (readout, *lines[1:]), widening))
    setup = Setup(
        options,
        lines,
        readout,
        ranges,
        lattices,
        _covariance(scan, options),
        window,
        pixels,
        matrix,
        field,
        options.position or header.patient_position or "HFS",
        full,
    )
    _check(scan, setup)
    usable = usable_ranges(pixels, ranges)
    return replace(setup, ranges=usable, **_calibration_grid(scan, setup, ratio))


def _ratio(header, axis):
    """Field of view of the image over the encoded one."""
    image, encoded = header.recon_fov[axis], header.encoded_fov[axis]
    ratio = image / encoded if image > 0 and encoded > 0 else 1.0
    return 1.0 if abs(ratio - 1) < 1e-3 else ratio


def _covariance(scan, options):
    if scan.noise is None or not options.whiten:
        return None
    return noise_covariance(scan.noise, scan.header.noise_bandwidth_ratio)


def _check(scan, setup):
    options = setup.options
    if min(setup.matrix) < 1:
        raise ValueError(f"matrix: expected extents of at least 1, got {setup.matrix}")
    if setup.lines[2] == 1 and setup.matrix[2] != 1:
        raise ValueError(f"matrix: expected one voxel along z for slices, got {setup.matrix[2]}")
    if options.combine not in ("pcsos", "sos"):
        raise ValueError(f'combine: expected "pcsos" or "sos", got {options.combine!r}')
    if options.regularisation > 0 and setup.unfolds and setup.covariance is None:
        raise ValueError(
            "regularisation: needs a noise scan, which says how far data are to be "
            "trusted; reconstruct without it"
        )
    if options.coefficients is None:
        return
    gradient_axes(setup.position)
    if len(scan.header.placements) < scan.kspace.shape[4]:
        raise ValueError(
            "coefficients: the positions of the slices are unknown; reconstruct without "
            "geometry correction"
        )


def _calibration_grid(scan, setup, ratio):
    """Grid over the field of the calibration lines with the pixels of the unfolded image."""
    header = scan.header
    full = [n * w for n, w in zip(header.encoded_fov, (1.0, *ratio))]
    own = header.encoded_fov if scan.calibration is None else header.calibration_fov or full
    wider = [o / f if f > 0 and o > 0 else 1.0 for o, f in zip(own, full)]
    pixels = (setup.readout, *(round(n * w) for n, w in zip(setup.full[1:], wider[1:])))
    return {
        "calibration_pixels": pixels,
        "calibration_cut": setup.readout / setup.lines[0] / wider[0],
    }


def _check_calibration(scan, setup):
    if not setup.unfolds:
        return
    if any(p < n for p, n in zip(setup.calibration_pixels, setup.full)):
        raise ValueError(
            "calibration: its field of view is smaller than the image's; expected a "
            "calibration scan over the whole field"
        )
    reduction, coils = prod(lattice.reduction for lattice in setup.lattices), scan.kspace.shape[3]
    if reduction > coils:
        raise ValueError(
            f"sampled: R = {reduction} is more than SENSE can unfold with {coils} "
            f"coil{'s' * (coils > 1)}; measure more lines, or with more coils"
        )
    shape = _calibration_region(scan, setup.options.calibration_size)[1]
    for axis, lattice, n in zip("yz", setup.lattices, shape):
        if lattice.reduction > 1 and n < FEWEST_LINES:
            raise ValueError(
                f"calibration: {n} lines around k = 0 along {axis}, at least {FEWEST_LINES} "
                "are needed; add calibration lines or a calibration scan"
            )


def _calibration_region(scan, size):
    """Slices of y and z that hold the calibration lines, k = 0 at ``n // 2``; their extents."""
    if scan.calibration is not None:
        extents = scan.calibration.shape[1:3]
        block = [slice(0, n) for n in extents]
    else:
        extents = scan.sampled.shape
        block = calibration_block(scan.sampled)
    region = []
    for n, lines in zip(extents, block):
        reach = min(n // 2 - lines.start, lines.stop - n // 2, size // 2)
        region.append(slice(n // 2 - reach, n // 2 + reach) if reach else slice(n // 2, n // 2 + 1))
    return region, [r.stop - r.start if b.stop > b.start else 0 for r, b in zip(region, block)]


def _calibration(scan, index, size):
    """Calibration lines of a slice, ``(x, y, z, coil)``: the mean over the repetitions."""
    y, z = _calibration_region(scan, size)[0]
    source = scan.kspace if scan.calibration is None else scan.calibration
    at = min(index, source.shape[4] - 1)
    lines = source[:, y, z, :, at, 0, :]
    if scan.calibration is None and scan.lines is not None:
        count = np.maximum(scan.lines[y, z, at, 0].sum(-1), 1).astype(np.float32)
        return np.asfortranarray(lines.sum(-1) / count[None, :, :, None])
    return np.asfortranarray(lines.mean(-1, dtype=np.complex64))


# ---- Blocks and their order ----------------------------------------------------------------------


def _tasks(scan, setups, patterns):
    """Arguments of `reconstruct_block`, each with its place in the image."""
    for index in range(scan.kspace.shape[4]):
        placement = scan.header.placements[index] if index < len(scan.header.placements) else None
        calibration = None
        if setups[0].unfolds:
            calibration = _calibration(scan, index, setups[0].options.calibration_size)
        for setup, (_, repetitions) in zip(setups, patterns):
            for part in _groups(scan, repetitions):
                kspace = scan.kspace[:, :, :, :, index][..., part]
                if setup.unfolds:
                    kspace = fold_lines(kspace, setup.lattices)
                yield (index, part), (setup, kspace, calibration, placement)


def _groups(scan, repetitions):
    """Repetitions that are worked on at once, as slices where they follow each other."""
    size = max(1, BLOCK // (8 * prod(scan.kspace.shape[:4]) * scan.kspace.shape[5]))
    for start in range(0, len(repetitions), size):
        part = repetitions[start : start + size]
        evenly = part[-1] - part[0] == len(part) - 1
        yield slice(int(part[0]), int(part[-1]) + 1) if evenly else part


def _run(function, tasks, client):
    if client is None:
        return ((place, function(*arguments)) for place, arguments in tasks)
    from .dask import run_tasks

    return run_tasks(client, function, tasks)


def _levels(scan, setups, patterns, client=None):
    """Root-mean-square levels of all folded images and of all calibration images."""
    sums = np.zeros(4)
    for _, part in _run(_energies, _tasks(scan, setups, patterns), client):
        sums += part
    return float(np.sqrt(sums[0] / sums[1])), float(np.sqrt(sums[2] / sums[3]))


def _energies(setup, kspace, calibration, _):
    out = []
    for image in (_folded(setup, kspace), _maps(setup, calibration)[1]):
        out += [sa(image) ** 2 * image.size, image.size]
    return np.array(out)


def _image_shape(scan, setup):
    return (*setup.matrix, *scan.kspace.shape[4:])


def _image_type(options):
    return np.float32 if options.combine == "sos" else np.complex64


def memory_estimate(scan, options=None, workers=1):
    """Bytes that `reconstruct` needs, the scan itself included.

    Parameters
    ----------
    scan : Scan
        Only shapes and lines are read.
    options : Options, optional
    workers : int, optional
        Blocks that are worked on at once.

    Returns
    -------
    int
    """
    options = options or Options()
    setup = _setup(scan, options, _patterns(scan)[0][0])
    shape = scan.kspace.shape
    group = max(1, BLOCK // (8 * prod(shape[:4]) * shape[5]))
    sent, block = _block_memory(setup, shape[3], min(group, shape[6]) * shape[5])
    image = prod(_image_shape(scan, setup)) * np.dtype(_image_type(options)).itemsize
    calibration = scan.calibration.size * 8 if scan.calibration is not None else 0
    others = (2 * sent + PROCESS) * workers if workers > 1 else 0
    return int(8 * prod(shape) + calibration + image + workers * block + others)


def _block_memory(setup, coils, volumes):
    """Bytes of a block as it is sent, and the most that is held while it is worked on.

    Counted are the arrays alive at once in the step that holds most; measured peaks were 55 to 98 %
    of it.
    """
    size = 8 * volumes
    pixels = size * prod(setup.pixels)
    if setup.unfolds:
        slots = size * coils * prod(lattice.folded for lattice in setup.lattices)
        lines, cut = slots * setup.lines[0], slots * setup.readout
        maps = 8 * coils * prod(setup.calibration_pixels)
        return lines, lines + 1.3 * cut + 2.2 * maps + 3 * max(pixels, size * prod(setup.full))
    lines, cut = size * coils * prod(setup.lines), size * coils * prod(setup.full)
    return lines, max(2 * lines, cut + (5 if any(setup.ranges) else 2.2) * coils * pixels)


# ---- Words and numbers for the sidecar -----------------------------------------------------------


def _words(scan, setups):
    setup, options = setups[0], setups[0].options
    steps = [_noise_words(scan, setup)]
    measured = scan.readout or setup.lines[0]
    if setup.readout < measured:
        steps.append(f"remove readout oversampling: {measured} to {setup.readout} samples")
    if setup.unfolds:
        steps += _sense_words(scan, setups)
    if options.ringing > 0:
        steps.append(f"ringing filter of strength {options.ringing:g}")
    if any(p > n for p, n in zip(setup.pixels, setup.full)):
        steps.append(f"zero filling to {times_text(setup.pixels)}")
    steps += _partial_words(scan, setup)
    if not setup.unfolds and scan.kspace.shape[3] > 1:
        steps.append(
            "combine coils: root sum of squares"
            + (" with phase" if options.combine == "pcsos" else "")
        )
    if options.coefficients is not None:
        steps.append(
            f"geometry correction, splines of order {options.order}"
            + (", intensity by the Jacobian" if options.intensity else "")
        )
    steps.append(f"image {times_text(setup.matrix)}, field of view {times_text(setup.field)} mm")
    return [step for step in steps if step]


def _noise_words(scan, setup):
    if setup.covariance is None:
        return "noise scan not used" if scan.noise is not None else ""
    use = "weigh the coils in SENSE" if setup.unfolds else "whiten the coils"
    return f"noise covariance of {len(scan.noise)} samples: {use}"


def _sense_words(scan, setups):
    setup, options = setups[0], setups[0].options
    lines = _calibration_region(scan, options.calibration_size)[1]
    words = f"sensitivity maps from {times_text(lines)} calibration lines"
    factors = ", ".join(
        f"R = {lattice.reduction} along {axis}"
        for axis, lattice in zip("yz", setup.lattices)
        if lattice.reduction > 1
    )
    regularised = (
        f", regularised with strength {options.regularisation:g}" if options.regularisation else ""
    )
    turns = f", lines in {len(setups)} turns" if len(setups) > 1 else ""
    return [words, f"SENSE: {factors}{turns}{regularised}"]


def _partial_words(scan, setup):
    measured = partial_ranges(replace(scan, sampled=_patterns(scan)[0][0]))
    words = []
    for axis, lines, used in zip("xyz", measured, setup.ranges):
        if lines is None:
            continue
        if used is None:
            why = "switched off" if not setup.options.homodyne else "too few lines for homodyne"
            words.append(
                f"partial Fourier along {axis}, lines {lines[0]} to {lines[1]}: zero-filled ({why})"
            )
        else:
            mirrored = " (mirrored)" if sum(used) < 0 else ""
            words.append(f"homodyne along {axis}, lines {used[0]} to {used[1]}{mirrored}")
    return words


def _parameters(scan, setup):
    options = {
        name: value
        for name, value in asdict(replace(setup.options, coefficients=None)).items()
        if name != "coefficients"
    }
    return {
        "version": __version__,
        "options": options,
        "geometry": setup.options.coefficients is not None,
        "ranges": setup.ranges,
        "reduction": [str(lattice.reduction) for lattice in setup.lattices],
        "coils": scan.kspace.shape[3],
        "levels": setup.levels,
    }


# ---- Parts of a scan -----------------------------------------------------------------------------


def select(scan, axis, first, last, options=None):
    """Part of a scan that reconstructs to the same bits as within the whole.

    Calibration lines are those of the whole scan, and so are the levels of regularised SENSE, for
    which all of it is read once.

    Parameters
    ----------
    scan : Scan
    axis : {"slice", "echo", "repetition"}
    first, last : int
        Indices from 0, both included.
    options : Options, optional
        What the part will be reconstructed with.

    Returns
    -------
    Scan
    """
    if axis not in AXES[4:]:
        raise ValueError(f"axis: expected one of {', '.join(AXES[4:])}, got {axis!r}")
    at = AXES.index(axis)
    if not 0 <= first <= last < scan.kspace.shape[at]:
        raise ValueError(
            f"range: {axis} {first} to {last} is outside 0 to {scan.kspace.shape[at] - 1}"
        )
    options = options or Options()
    patterns = _patterns(scan)
    setups = [_setup(scan, options, mask) for mask, _ in patterns]
    _check_calibration(scan, setups[0])
    kept = slice(first, last + 1)
    changes = {
        "kspace": scan.kspace[(slice(None),) * at + (kept,)],
        "selection": (axis, first, last),
    }
    if setups[0].unfolds:
        if options.regularisation > 0:
            changes["levels"] = _levels(scan, setups, patterns)
        changes |= _whole_calibration(scan, setups[0], kept if axis == "slice" else slice(None))
    if axis == "slice":
        changes["header"] = replace(scan.header, placements=scan.header.placements[kept])
    if scan.lines is not None:
        changes["lines"] = scan.lines[(slice(None),) * (at - 2) + (kept,)]
    return replace(scan, **changes)


def _whole_calibration(scan, setup, slices):
    size = setup.options.calibration_size
    lines = [_calibration(scan, i, size) for i in range(scan.kspace.shape[4])[slices]]
    return {"calibration": np.stack(lines, -1)[..., None, None]}


def merge(results):
    """One result of parts that `select` made of a scan.

    Parameters
    ----------
    results : sequence of Result
        In any order, without gaps or overlaps.

    Returns
    -------
    Result
    """
    results = sorted(results, key=lambda result: result.selection[1])
    axis = results[0].selection[0]
    following = results[0].selection[1]
    for result in results:
        if result.selection[:2] != (axis, following):
            raise ValueError(
                f"parts: expected {axis} {following}, got {' '.join(map(str, result.selection))}; "
                "each index must be there once"
            )
        following = result.selection[2] + 1
    image = np.concatenate([result.image for result in results], AXES.index(axis) - 1)
    return replace(
        results[0], image=image, selection=(axis, results[0].selection[1], following - 1)
    )
