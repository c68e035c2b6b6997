"""Arrays of a run for its report, computed before the samples may be overwritten.

They show the first repetition and, except for the zero-filled volume, one plane: the middle slice, or the
middle partition of a 3-D scan.
"""

from dataclasses import dataclass, replace

import numpy as np

from . import noise, reconstruct, slabs
from .fourier import remove_oversampling, resize
from .scan import Layout
from .steps import homodyne_recon

#: Replicas for maps of noise: a relative error of a tenth is enough for a picture.
REPLICAS = 25
#: Largest number of coils that are shown.
MOST_COILS = 16


@dataclass
class Seen:
    """`energy` (kx, ky): sum over the coils of ``|k|^2``; `coils` and `maps` (x, y, coil) are magnitudes;
    `zero` (x, y, z or slice) is the root sum of squares of what was measured, or None where its field is
    not the image's; `phase` is a complex image (x, y), or None."""

    plane: int
    energy: np.ndarray
    coils: np.ndarray
    zero: np.ndarray | None
    maps: np.ndarray | None
    phase: np.ndarray | None
    layout: Layout


@np.errstate(over="ignore", invalid="ignore")  # samples that are too large are refused later, with their image
def look(plan, source):
    """Arrays of the first repetition of a source.

    Parameters
    ----------
    plan : Plan
    source : Scan, or an object with its `layout`, `frames` and `separate`

    Returns
    -------
    Seen
    """
    whole = plan.matrix[2] > 1
    index = plan.kept[0][len(plan.kept[0]) // 2]
    plane = plan.matrix[2] // 2 if whole else index
    block = next(b for b in reconstruct.blocks(plan) if b.slice == index)
    first = reconstruct.Block(index, block.repetitions[:1], block.pattern)
    frames = _frames(source, index, first)
    energy = (np.abs(plan.coils_of(frames[:, :, frames.shape[2] // 2], 2)) ** 2).sum(-1)
    coils, zero = _unfilled(plan, frames, plane if whole else 0)
    maps, phase = _of_volume(plan, first, source, plane) if plan.in_slabs else _of_slice(plan, first, source, plane)
    pattern = plan.patterns[block.pattern]
    same_grid = all(lattice.full == lattice.folded * lattice.step for lattice in pattern.lattices)
    volume = None
    if same_grid:
        volume = zero if whole else _stack(plan, source, first)
    return Seen(plane, energy, coils, volume, maps, phase, source.layout)


def noise_maps(plan, source, image, made):
    """Maps of noise: those that the run has `made` for all slices, otherwise only of the middle slice.

    Returns
    -------
    dict of str and ndarray
        As `ctessel.noise.maps` returns it; fewer if the scan cannot have all.
    str
        Why the others are missing.
    """
    if plan.shape[2] > 1:
        return made, "" if made else "maps of noise of a 3-D scan need the whole volume; --maps-out makes them"
    middle, reason = len(plan.kept[0]) // 2, ""
    part = replace(plan, kept=(plan.kept[0][middle : middle + 1], *plan.kept[1:]))
    for left_out in ((), ("sd", "snr")):
        names = [name for name in noise.NAMES if name not in (*made, *left_out)]
        try:
            more = noise.maps(part, source, names, image[:, :, :, middle : middle + 1], replicas=REPLICAS)
        except ValueError as error:
            reason = str(error).split(";")[0]
        else:
            return {**made, **more}, reason
    return made, reason


def _frames(source, index, block):
    """k-space (x, y, z, coil) of the first echo and repetition."""
    return source.frames(index, block.along())[..., 0, 0]


def _unfilled(plan, frames, plane):
    """Magnitudes of a plane (x, y, coil), and the root sum of squares of all (x, y, z), coil by coil."""
    shown, power = [], 0.0
    kept = plan.choice.kept if plan.choice else range(frames.shape[3])
    for coil in range(frames.shape[3]):
        lines = np.array(frames[..., coil : coil + 1], order="F")
        lines = resize(remove_oversampling(lines, plan.readout), plan.pixels)
        image = np.abs(homodyne_recon(lines, [None] * 3, field=plan.matrix)[..., 0])
        power = power + image**2 * (coil in kept)
        if coil < MOST_COILS:
            shown.append(image[:, :, plane].copy())
    return np.stack(shown, -1), np.sqrt(power)


def _stack(plan, source, first):
    """Root sums of squares of all slices."""
    made = []
    for index in plan.kept[0]:
        frames = _frames(source, index, replace(first, slice=index))
        made.append(_unfilled(plan, frames, 0)[1])
    return np.concatenate(made, 2)


def _of_slice(plan, block, source, plane):
    """Maps of the plane, and its complex image."""
    basis = reconstruct.prepare(plan, block, source)
    options = replace(plan.options, combine="pcsos", coefficients=None)
    lines = reconstruct.lines(plan, block, source)[..., :1, :]
    made = reconstruct.reconstruct_block(replace(plan, options=options), block, basis, lines)
    at = plane if plan.matrix[2] > 1 else 0
    maps = None if basis.maps is None else _shown(basis.maps)
    return maps, made["image"][:, :, at, 0, 0]


def _of_volume(plan, block, source, plane):
    """Maps of the middle partition, as they are made slab by slab."""
    pattern = plan.patterns[block.pattern]
    if not pattern.weighted:
        return None, None
    calibration = reconstruct.slice_calibration(plan, block, source)
    plain = replace(plan, options=replace(plan.options, regularisation=0.0))
    made, _ = reconstruct.volume_sensitivities(plain, block, source, calibration)
    parts = [made.part(x).maps(plan, pattern)[0] for x in slabs.edges(plan, pattern, len(made.lines))]
    return np.concatenate([_shown(part) for part in parts]), None


def _shown(maps):
    """Magnitudes of the first set in the middle plane."""
    return np.abs(maps.reshape((*maps.shape[:4], -1))[:, :, maps.shape[2] // 2, :MOST_COILS, 0])
