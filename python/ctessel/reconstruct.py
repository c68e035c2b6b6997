"""Carries out a `Plan`: images from samples, block by block, here or on workers, with the same bits.

A block is some repetitions of one slice. Its samples come from a source: any object with the methods
`frames` and `separate` of `ctessel.scan.Scan`. All decisions are made in the plan.
"""

import dataclasses
from dataclasses import dataclass, replace
from functools import partial
from itertools import groupby
from math import prod

import numpy as np

from . import conditioning, consistency, homodyne, map_sets, maps, runtime, slabs
from ._arrays import fftshift, ringing_filter
from ._helpers import sa
from .conditioning import Conditioning
from .fourier import (
    central,
    moved,
    remove_oversampling,
    resize,
    to_image,
    to_kspace,
    unshifted_image,
    unshifted_kspace,
)
from .plan import plan as make_plan
from .partial import pocs, prediction_error, smooth_phase
from .replicas import REPLICAS, in_units, spread
from .sampling import Lattice, fold_lines
from .steps import (
    by_set,
    calibration_residual,
    combine,
    damping,
    eigen_maps,
    folded_image,
    homodyne_images,
    low_resolution,
    reference_intensity,
    sensitivity_maps,
    unfold,
)
from .warp import geometry


#: Workers of a client that does not report their number.
WORKERS = 16


@dataclass
class Result:
    """Images ``(x, y, z, slice, echo, repetition)``, complex64 or (magnitudes) float32.

    `field` is their field of view in mm. `steps` says what was done, `parameters` with which numbers, and
    `warnings` why the image may surprise. `selection` is the part of the scan: axis,
    first and last index. `maps`, ``(x, y, z, coil, slice[, set])``, are the sensitivities with
    `Options.keep_maps`, on the unfolded grid; 0 for coils that are left out, and in a second set that
    only other slices have.
    """

    image: np.ndarray
    steps: list[str]
    parameters: dict
    field: tuple[float, float, float]
    selection: tuple[str, int, int] | None = None
    warnings: list[str] = dataclasses.field(default_factory=list)
    maps: np.ndarray | None = None


@dataclass(frozen=True, eq=False)
class Block:
    """Repetitions of one slice that are processed together: their numbers, and that of their pattern."""

    slice: int
    repetitions: np.ndarray
    pattern: int

    def along(self, start=0):
        """The repetitions as an index; consecutive ones need no copy."""
        numbers = self.repetitions - start
        evenly = numbers[-1] - numbers[0] == len(numbers) - 1
        return slice(int(numbers[0]), int(numbers[-1]) + 1) if evenly else numbers


@dataclass
class Basis:
    """What all blocks of a slice and a pattern share.

    Sensitivities, their low-resolution image, and the intensities of both kinds of data for
    regularisation; the variance of the noise divided by that of the image; whether missing lines of a
    partial scan are filled by POCS, and its error on hidden lines; what the sensitivities do not explain
    of the calibration, as sums for each x; how well the coils separate aliases; the fixed phase (that of
    POCS, or the low-resolution image of homodyne); the standard deviation of the image if it is the unit;
    the misfit of lines of the last unfolded block of a slice; how many sets of sensitivities there are.
    """

    maps: np.ndarray | None = None
    expected: np.ndarray | None = None
    intensities: tuple[float, float] | None = None
    damping: float = 0.0
    fills: bool = False
    prediction: float | None = None
    residual: np.ndarray | None = None
    conditioning: Conditioning | None = None
    phase: np.ndarray | None = None
    sd: np.ndarray | None = None
    misfit: np.ndarray | None = None
    choice: map_sets.Choice | None = None


def reconstruct(source, options=None, progress=None, client=None, *, plan=None):
    """Images of a scan.

    Parameters
    ----------
    source : Scan, or an object with its `layout`, `frames` and `separate`
        k-space may be a memory map; it is read block by block.
    options : Options, optional
    progress : callable, optional
        Called with the number of finished volumes and the number of all.
    client : ctessel.workers.Workers or distributed.Client, optional
        Processes on this machine, or those of `ctessel.dask.connect`. Results have the same bits.
    plan : Plan, optional
        Result of `ctessel.pipeline.plan` for this scan, or a part of it; used instead of `options`.

    Returns
    -------
    Result

    Raises
    ------
    ValueError
        The scan or an option does not allow a reconstruction; the message says how to fix it.

    Notes
    -----
    If a scan is both undersampled and partial, it is unfolded first. Then the k-space of the unfolded
    image goes through homodyne. This needs two transforms of one image instead of two of every coil. It
    assumes that sensitivities change little over the width to which the missing lines blur a point:
    unfolding works voxel by voxel, so the unfolded image lacks the same lines as its coils.

    References
    ----------
    M. Bydder, M. D. Robson, "Partial Fourier partially parallel imaging", Magn. Reson. Med. 53:1393
    (2005).
    """
    plan = plan or make_plan(source, options)
    total, gathered = prod(plan.image_shape[3:]), _Gathered(plan)
    for block, made in _run(plan, source, client):
        gathered.add(block, made)
        if progress:
            progress(gathered.done, total)
    return gathered.result()


class _Gathered:
    """Collects the image of a plan, and other results of its blocks, in any order."""

    def __init__(self, plan):
        self.plan, self.figures, self.maps, self.done = plan, _Figures(plan), {}, 0
        self.image = np.zeros(plan.image_shape, plan.image_type, order="F")

    def add(self, block, made):
        slices, echoes, repetitions = self.plan.kept
        self.figures.add(block, made)
        if "maps" in made:
            self._keep(block.slice, made["maps"])
        volumes = made["image"][:, :, :, echoes.start : echoes.stop]
        self.image[:, :, :, block.slice - slices.start][..., block.along(repetitions.start)] = volumes
        self.done += prod(volumes.shape[3:])

    def _keep(self, index, own):
        kept = self.plan.choice.kept if self.plan.choice else slice(None)
        shape = (*own.shape[:3], self.plan.measured_shape[3], *own.shape[4:])
        self.maps[index] = np.zeros(shape, np.complex64, order="F")
        self.maps[index][:, :, :, kept] = own

    def result(self):
        plan, figures = self.plan, self.figures.entries()
        kept = [self.maps[index][:, :, :, :, None] for index in sorted(self.maps)]
        if plan.stack:
            self.image[:, :, 0] = straightened(plan, self.image[:, :, 0])
        return Result(
            self.image,
            list(plan.steps),
            plan.parameters | figures,
            plan.field,
            plan.selection,
            [
                *plan.warnings,
                *conditioning.warnings(figures, plan.reduction),
                *consistency.warnings(figures.get("inconsistent", [])),
                *map_sets.warnings(plan.options.map_sets, figures),
            ],
            maps.together(kept) if kept else None,
        )


class _Figures:
    """Figures of merit of slices, one for each slice and pattern."""

    def __init__(self, plan):
        self.found, self.odd, self.plan = {}, {}, plan

    def add(self, block, made):
        at = block.slice, block.pattern
        for repetition, energies in zip(block.repetitions.tolist(), made.get("misfit", np.zeros((0, 0))).T):
            odd_lines = consistency.odd(energies, self.plan.patterns[block.pattern].lattices[0])
            if odd_lines:
                self.odd[block.slice, repetition] = odd_lines
        if "prediction" in made:
            figure = float(made["prediction"][0])
            self._keep("prediction", at, figure if np.isfinite(figure) else None)
        if "residual" in made:
            lost, energy = made["residual"].sum(0)
            self._keep("residual", at, float(lost / energy) if energy > 0 else None)
        if "sets" in made:
            self._keep("map_sets", at, int(made["sets"][0]))
            self._keep("unexplained", at, [float(share) for share in made["sets"][1:] if np.isfinite(share)])
        for name in {"condition", "response"} & set(made):
            self._keep(name, at, float(made[name][0]))

    def _keep(self, name, at, figure):
        self.found.setdefault(name, {})[at] = figure

    def entries(self):
        made = {name: [found[at] for at in sorted(found)] for name, found in self.found.items()}
        slices = self.plan.slices or range(self.plan.shape[4])
        odd = [consistency.entry(slices[index], r, self.odd[index, r]) for index, r in sorted(self.odd)]
        return {**made, "inconsistent": odd} if odd else made


def blocks(plan):
    """The blocks of a plan, slice by slice."""
    for index in plan.kept[0]:
        for number, pattern in enumerate(plan.patterns):
            kept = pattern.repetitions[np.isin(pattern.repetitions, plan.kept[2])]
            for start in range(0, len(kept), plan.group):
                yield Block(index, kept[start : start + plan.group], number)


def groups(plan, workers):
    """Lists of blocks that share sensitivities; at least two for each worker if there are enough blocks."""
    shared = [list(own) for _, own in groupby(blocks(plan), lambda b: (b.slice, b.pattern))]
    pieces = -(-2 * workers // len(shared)) if workers > 1 else 1
    for own in shared:
        size = -(-len(own) // pieces)
        yield from (own[first : first + size] for first in range(0, len(own), size))


def _run(plan, source, client):
    """Blocks with their results, in any order."""
    if plan.in_slabs:
        return _run_volumes(plan, source, client)
    if client is None:
        return ((block, made) for group in groups(plan, 1) for block, made in _work(plan, group, source))
    if source.shared:
        count = getattr(client, "count", WORKERS)
        tasks = ((None, (plan, group, source)) for group in groups(plan, count))
        return (pair for _, made in _each(work, tasks, client) for pair in made)
    return _each(_work_on, _tasks(plan, source), client)


def _each(function, tasks, client):
    """Results of a function with their places, here or on a client with `run_tasks`."""
    if client is None:
        return ((place, function(*arguments)) for place, arguments in tasks)
    run = getattr(client, "run_tasks", None)
    if run is None:
        from .dask import run_tasks

        run = partial(run_tasks, client)
    return run(function, tasks)


def single(plan, block, source, shared=None):
    """The result of one block, for callers that process blocks while samples arrive.

    Returns
    -------
    made : dict of str and ndarray
        As `reconstruct_block` returns it.
    shared : tuple
        Pass it again for other blocks of the same slice and pattern.
    """
    if not plan.in_slabs:
        shared = shared or (prepare(plan, block, source),)
        ready = source.transformed(block)
        if ready is not None:
            return reconstruct_block(plan, block, *shared, plan.coils_of(ready), transformed=True), shared
        return reconstruct_block(plan, block, *shared, lines(plan, block, source)), shared
    shared = shared or volume_basis(plan, block, source, slice_calibration(plan, block, source))
    frames = source.frames(block.slice, block.along())
    volume = slabs.transformed(plan, plan.patterns[block.pattern], frames, source.disposable)
    return volume_image(plan, block, volume, *shared, None), shared


def straightened(plan, image):
    """Images of all slices, ``(x, y, slice, ...)``, with the geometry corrected across slices."""
    return _corrected(plan, plan.placements[plan.kept[0].start : plan.kept[0].stop], image)


def _tasks(plan, source):
    """Blocks with their samples, for workers that cannot read these themselves."""
    at = shared = None
    for block in blocks(plan):
        if at != (block.slice, block.pattern):
            at, shared = (block.slice, block.pattern), _calibration(plan, block, source)
        yield block, (plan, block, lines(plan, block, source), *shared)


def work(plan, group, source):
    """Blocks of a group with their images; this process reads their samples."""
    return list(_work(plan, group, source))


def _work(plan, group, source):
    basis = prepare(plan, group[0], source)
    for block in group:
        yield block, reconstruct_block(plan, block, basis, lines(plan, block, source))


def _work_on(plan, block, samples, calibration, first):
    return reconstruct_block(plan, block, _basis(plan, block, calibration, first), samples)


# ---- Samples -------------------------------------------------------------------------------------


def lines(plan, block, source):
    """k-space of a block, ``(x, y, z, coil, echo, repetition)``."""
    return plan.coils_of(source.frames(block.slice, block.along()))


def _calibration(plan, block, source):
    """Calibration lines of the block's slice, and the first frame of its lines if that is needed."""
    pattern = plan.patterns[block.pattern]
    decides = plan.options.partial == "auto" and any(pattern.ranges)
    first = None
    if decides or plan.in_snr or (plan.options.regularisation > 0 and pattern.unfolds):
        first = lines(plan, Block(block.slice, pattern.repetitions[:1], block.pattern), source)
    return calibration_lines(plan, block.slice, source) if pattern.weighted else None, first


def calibration_lines(plan, index, source):
    """Calibration lines of a slice, ``(x, y, z, coil)``."""
    region = plan.calibration
    if region.separate:
        return np.asfortranarray(plan.coils_of(source.separate(index)[:, region.y, region.z]))
    frames = plan.coils_of(source.frames(index, slice(0, region.frames))[:, region.y, region.z, :, 0])
    times = np.maximum(region.times[:, :, index], 1).astype(np.float32)
    return np.asfortranarray(frames.sum(-1) / times[None, :, :, None])


# ---- Blocks --------------------------------------------------------------------------------------


def prepare(plan, block, source):
    """The `Basis` of a block's slice and pattern."""
    return _basis(plan, block, *_calibration(plan, block, source))


def _basis(plan, block, calibration, first):
    options, pattern = plan.options, plan.patterns[block.pattern]
    basis = Basis() if calibration is None else _sensitivities(plan, block, calibration)
    if first is not None and options.regularisation > 0 and pattern.unfolds:
        folded = _folded(plan, fold_lines(first, pattern.lattices))
        basis.intensities = sa(folded), sa(basis.expected)
    if pattern.unfolds:
        shown = conditioning.planes(len(basis.maps))
        parts = [(basis.maps[shown], basis.expected[shown])]
        basis.conditioning = _conditioning(plan, pattern, basis, parts)
    if options.partial == "auto" and any(pattern.ranges):
        samples = _filtered(plan, pattern, complete_lines(plan, pattern, basis, first[..., :1, :1]))
        basis.prediction = prediction_error(samples, pattern.ranges, options.threads)
    chosen = basis.prediction is not None and basis.prediction < 1
    basis.fills = any(pattern.ranges) and (options.partial == "pocs" or chosen)
    if plan.in_snr:
        basis.sd = deviation(plan, block, basis, first[..., :1, :1])
    return basis


def _conditioning(plan, pattern, basis, parts):
    """The `Conditioning` of some planes of a slice or a volume: sensitivities and expected image."""
    reduction = prod(float(lattice.reduction) for lattice in pattern.lattices)

    def added(maps, expected):
        if not basis.intensities:
            return np.full(expected.shape, reduction * basis.damping)
        intensity = reference_intensity(*basis.intensities, plan.options.regularisation, maps.shape[3])
        power = np.abs(expected).astype(np.float64) ** 2
        return reduction * intensity**2 / np.maximum(power, 1e-12 * intensity**2)

    judged = ((maps, expected, added(maps, expected)) for maps, expected in parts)
    return conditioning.look(judged, pattern.lattices, plan.covariance)


def _sensitivities(plan, block, calibration):
    options, pattern = plan.options, plan.patterns[block.pattern]
    threads, samples, size = options.threads, cut_calibration(plan, calibration), pattern.calibration_pixels
    if not pattern.unfolds:  # coils that are only combined need maps outside of the object, too
        made = sensitivity_maps(samples, size, mask=0, threads=threads)
        return Basis(*(np.asfortranarray(resize(a, pattern.full)) for a in made))
    images = to_image(resize(low_resolution(samples, threads=threads), size), threads=threads)
    images = np.asfortranarray(resize(images, pattern.full))
    choice, own = None, maps.of_slice(plan, block.slice) if options.maps is not None else None
    if own is None:
        choice, own = _eigen_maps(plan, pattern, samples, images)
    expected = combine(images, threads=threads)
    inside = expected[by_set(own)[..., 0].any(3)]
    share = damping(samples, inside, plan.covariance is not None, threads)
    return Basis(own, expected, damping=share, residual=calibration_residual(own, images)[1], choice=choice)


def _eigen_maps(plan, pattern, samples, images):
    """How many sets of sensitivities a slice has, and these."""
    threads, size, made = plan.options.threads, pattern.calibration_pixels, {}

    def make(sets):
        found = eigen_maps(samples, size, mask=plan.options.mask, sets=sets, threads=threads)[0]
        made[sets] = np.asfortranarray(resize(found, pattern.full))

    def look(sets):
        make(sets)
        sharp = to_image(resize(samples, size, threads), threads=threads)
        return map_sets.residual(map_sets.sums(made[sets], images, resize(sharp, pattern.full)))

    choice = map_sets.choose(plan.map_sets(pattern), look, samples.shape[3])
    if choice is None:
        make(1)
    return choice, made[choice.sets if choice else 1]


def cut_calibration(plan, calibration):
    """Calibration lines over the image's field along x, the central samples of the readout."""
    n = round(len(calibration) * plan.calibration.cut)
    samples = remove_oversampling(calibration, n, threads=plan.options.threads)
    return samples[central(len(samples), min(len(samples), plan.calibration.x))]


def reconstruct_block(plan, block, basis, samples, transformed=False):
    """Images of a block.

    Parameters
    ----------
    plan : Plan
    block : Block
    basis : Basis
        Result of `prepare` for its slice and pattern.
    samples : ndarray of complex64, ``(x, y, z, coil, echo, repetition)``
        Result of `lines`.
    transformed : bool, optional
        The readout of the samples is transformed; `Plan.keeps_readout` must allow it.

    Returns
    -------
    dict of str and ndarray
        "image": complex64 or float32, ``(x, y, z, echo, repetition)``. "prediction", ``(repetition,)``:
        `ctessel.pipeline.prediction_error` of the slice, if the data decide how missing lines are
        filled. For slices that are unfolded also "residual", ``(x, 2)``, the sums of
        `ctessel.pipeline.calibration_residual`; "misfit", ``(line, repetition)``, by
        `ctessel.consistency.misfit`; and "maps", the sensitivities, if they are kept.
    """
    pattern = plan.patterns[block.pattern]
    image = _image(plan, pattern, basis, samples, transformed)
    if basis.sd is not None:
        image = in_units(image, basis.sd)
    made = {"image": _placed(plan, block, image), **_beside(plan, basis)}
    made |= _conditioned(basis.conditioning) | _counted(basis.choice)
    if basis.prediction is not None:
        made["prediction"] = np.full(samples.shape[5], basis.prediction)
    # If aliases cannot be separated, all lines fit badly; another warning says so.
    if basis.misfit is not None and basis.conditioning.explains:
        made["misfit"] = basis.misfit
    return made


def _beside(plan, basis):
    """Figures about the sensitivities of a slice or slab."""
    if basis.residual is None:
        return {}
    return {"residual": basis.residual} | ({"maps": basis.maps} if plan.options.keep_maps else {})


def _conditioned(found):
    if found is None:
        return {}
    return {"condition": np.array([found.condition]), "response": np.array([found.response])}


def _counted(choice):
    return {} if choice is None else {"sets": choice.figures()}


def _combined(plan, pattern, image):
    image = combine(image, plan.options.combine, plan.options.threads)
    if plan.gain(pattern) != 1:
        image *= plan.gain(pattern)
    return image


def complete_lines(plan, pattern, basis, samples):
    """k-space without gaps between its lines: of each coil, as measured or unfolded; or, if the noise is
    known, of the combined image."""
    threads = plan.options.threads
    if not pattern.weighted:
        return remove_oversampling(samples, plan.readout, threads=threads)
    lines = _completed(plan, pattern, basis, _readout(plan, samples))
    return to_kspace(lines, (0,), threads, overwrite=True)


def _readout(plan, samples):
    """k-space along y and z alone: the image along the readout, without oversampling."""
    image = to_image(samples, (0,), plan.options.threads)
    return np.asfortranarray(image[central(len(image), plan.readout)])


def _completed(plan, pattern, basis, lines):
    """`complete_lines` for weighted coils; the readout is transformed, before and after."""
    threads = plan.options.threads
    if pattern.unfolds:
        lines = fftshift(_unfolded(plan, pattern, basis, lines), (1, 2), inplace=True, threads=threads)
        if plan.covariance is None:
            return lines
        folded = to_image(lines, (1, 2), threads, overwrite=True)
    else:
        folded = folded_image(lines, pattern.lattices, threads)
    whole = [Lattice(1, 0, n, n) for n in pattern.full[1:]]
    lattices = whole if pattern.unfolds else pattern.lattices
    image = unfold(
        folded,
        basis.maps,
        lattices,
        covariance=plan.covariance,
        damping=1e-6 * basis.damping,  # for maps that are 0
        threads=threads,
    )
    return to_kspace(_image_by_set(image, basis.maps), (1, 2), threads, overwrite=True)


def _image_by_set(image, maps):
    """An unfolded image with an axis of sets."""
    return image if maps.ndim > 4 else image[:, :, :, None]


def _unfolded(plan, pattern, basis, lines):
    """Lines of the coils: measured ones as they are, the others from the unfolded image.

    The readout is transformed, before and after, because the other steps are independent along it. The
    result has k = 0 first along y and z, the order of the transforms: moving the centres of all coils
    takes longer than unfolding.
    """
    options, threads = plan.options, plan.options.threads
    unfolded = unfold(
        folded_image(lines, pattern.lattices, threads),
        basis.maps,
        pattern.lattices,
        covariance=plan.covariance,
        expected=basis.expected if basis.intensities else None,
        intensities=basis.intensities,
        strength=options.regularisation,
        damping=basis.damping,
        threads=threads,
    )
    image = _image_by_set(unfolded, basis.maps)
    if not pattern.keeps_lines:  # measured lines have the right intensity, and most of the energy
        image *= basis.conditioning.gain
    sets = by_set(basis.maps)
    sets = sets.reshape((*sets.shape, *(1,) * (image.ndim - 4)))
    coils = np.empty((*sets.shape[:4], *image.shape[4:]), np.complex64, order="F")
    for centred, first in moved(pattern.full, (1, 2)):
        np.multiply(image[centred][:, :, :, :1], sets[centred][:, :, :, :, 0], out=coils[first])
        for number in range(1, sets.shape[4]):
            coils[first] += image[centred][:, :, :, number : number + 1] * sets[centred][:, :, :, :, number]
    coils = unshifted_kspace(coils, (1, 2), threads)
    if pattern.keeps_lines:
        measured = resize(lines, (len(lines), *pattern.full[1:]), threads)
        there = _there(pattern, measured)
        if pattern.checks_lines:
            basis.misfit = consistency.misfit(coils, measured, there)
        for centred, first in moved(pattern.full, (1, 2)):
            np.copyto(coils[first], measured[centred], where=there[(slice(None), *centred[1:])])
    return coils


def _there(pattern, lines):
    """Lines that were measured, ``(1, y, z, 1, echo, repetition)``: those that are not 0 in all coils."""
    there = np.zeros((1, *lines.shape[1:3], 1, *lines.shape[4:]), bool)
    expected = np.count_nonzero(pattern.mask) * int(np.prod(lines.shape[4:]))
    for coil in range(lines.shape[3]):
        there |= lines[:, :, :, coil : coil + 1].any(0, keepdims=True)
        if np.count_nonzero(there) == expected:  # none was lost
            break
    return there


def _folded(plan, samples):
    threads = plan.options.threads
    image = to_image(samples, (0,), threads, overwrite=True)[central(len(samples), plan.readout)]
    return to_image(image, (1, 2), threads)


def _filtered(plan, pattern, samples, axes=(0, 1, 2)):
    """k-space with the extents of the image over the whole field, weighted by the ringing filter.

    The readout of slabs is transformed; `axes` are the other two.
    """
    strength, threads, n = plan.options.ringing, plan.options.threads, len(samples)
    window, pixels = pattern.window, plan.pixels
    if 0 not in axes:
        strength = (0, strength, strength)
        window, pixels = ((n, *size[1:]) for size in (window, pixels))
    if plan.options.ringing > 0:
        samples = ringing_filter(samples, strength, window, threads=threads)
    return resize(samples, pixels, threads)


def _image(plan, pattern, basis, samples, transformed):
    """Images of the samples of a block; missing lines of a partial scan are filled as decided."""
    removed = removes_phase(plan, pattern) and pattern.ranges[0]
    if pattern.weighted and plan.completes_slabs(pattern) and not (basis.fills or removed):
        lines = samples if transformed else _readout(plan, samples)
        image = _lines_image(plan, pattern, basis, lines)
        return np.asfortranarray(image[central(len(image), plan.matrix[0])])
    return _finished(plan, pattern, basis, complete_lines(plan, pattern, basis, samples))


def _lines_image(plan, pattern, basis, lines):
    """Images of weighted lines with a transformed readout, which does not change."""
    threads = plan.options.threads
    changed = plan.options.ringing > 0 or plan.pixels[1:] != pattern.full[1:]
    removed = removes_phase(plan, pattern)
    if changed or removed or not pattern.unfolds or plan.covariance is not None:
        lines = _completed(plan, pattern, basis, lines)
        return _finished(plan, pattern, basis, lines, (1, 2))
    coils = unshifted_image(_unfolded(plan, pattern, basis, lines), (1, 2), threads)
    image = fftshift(_combined(plan, pattern, coils), (1, 2), inplace=True, threads=threads)
    return resize(image, (len(image), *plan.matrix[1:]))


def removes_phase(plan, pattern):
    return plan.options.partial == "homodyne" and any(pattern.ranges)


def _finished(plan, pattern, basis, samples, axes=(0, 1, 2)):
    """Images of k-space over the whole field: filter, size, transform, partial Fourier, combination."""
    matrix, threads = plan.matrix if 0 in axes else (len(samples), *plan.matrix[1:]), plan.options.threads
    samples = _filtered(plan, pattern, samples, axes)
    if removes_phase(plan, pattern):
        return _without_phase(plan, pattern, basis, samples, matrix, axes)
    if basis.fills:
        image = pocs(samples, pattern.ranges, field=matrix, threads=threads, phase=basis.phase)
    else:
        image = homodyne_images(samples, [None] * 3, field=matrix, threads=threads, axes=axes)[0]
    return _combined(plan, pattern, image)


def _without_phase(plan, pattern, basis, samples, matrix, axes):
    """Images of homodyne; complex ones have the low-resolution phase."""
    threads = plan.options.threads
    image, low = homodyne_images(samples, pattern.ranges, field=matrix, threads=threads, axes=axes)
    fixed = basis.phase is not None
    if fixed:
        low = np.broadcast_to(basis.phase, image.shape)
    image = homodyne.multiply(image, low, inplace=True, threads=threads)
    image = _combined(plan, pattern, image)
    if fixed or plan.options.combine != "pcsos":
        return image
    phase = combine(low, threads=threads)
    size = np.abs(phase)
    return np.abs(image) * np.divide(phase, size, out=np.ones_like(phase), where=size > 0)


def deviation(plan, block, basis, frame, replicas=REPLICAS, seed=0):
    """Standard deviation of the image of a block over replicas of noise in its lines; everything that
    data decide is fixed.

    Parameters
    ----------
    plan, block, basis
        As for `reconstruct_block`.
    frame : ndarray of complex64, ``(x, y, z, coil, 1, 1)``
    replicas, seed : int, optional

    Returns
    -------
    ndarray of float64, ``(x, y, z)``
        That of the complex value; for real images (homodyne) that of the real value.
    """
    plan = _in_raw_units(plan)
    pattern = plan.patterns[block.pattern]
    basis = replace(basis, sd=None)
    if basis.fills or removes_phase(plan, pattern):
        basis.phase = held_phase(plan, pattern, basis, complete_lines(plan, pattern, basis, frame))

    def operator(samples):
        return _image(plan, pattern, basis, samples, False)

    how = {"replicas": replicas, "together": max(1, plan.group), "seed": [seed, block.slice]}
    return spread(operator, frame, plan.covariance, **how)


def gain_of_noise(plan, pattern, fills):
    """Gain of filter, interpolation and partial Fourier for white noise of an image without aliases: the
    root-mean-square standard deviation of voxels, divided by that of the samples.

    `fills` says whether POCS fills lines. The relative error is a thousandth.
    """
    plan, extents = _in_raw_units(plan), (plan.shape[0], *(each.folded * each.step for each in pattern.lattices))
    frame = np.zeros((*pattern.full, 1, 1, 1), np.complex64, order="F")
    frame[_measured_box(pattern, extents)] = 1
    frame[tuple(n // 2 for n in pattern.full)] = 1e6  # an even and real image: all steps are linear near it
    fixed = np.ones(plan.pixels if fills else plan.matrix, np.complex64, order="F")
    basis = Basis(fills=fills, phase=fixed[..., None, None, None])
    count = -(-200_000 // prod(plan.matrix))
    sd = spread(partial(_finished, plan, pattern, basis), frame, np.eye(1), replicas=count)
    return float(np.sqrt(np.mean(sd**2)))


def _measured_box(pattern, extents):
    """Lines between the first and the last one of a partial scan, on the unfolded grid."""
    box = []
    for n, lines, extent in zip(pattern.full, pattern.partial, extents):
        first, last = (int(line * n / extent) for line in lines) if lines else (-(n // 2), n)
        box.append(slice(max(0, n // 2 + first), n // 2 + last + 1))
    return tuple(box)


def _in_raw_units(plan):
    """A plan of complex images in units of the raw data."""
    return replace(plan, options=replace(plan.options, combine="pcsos", units="raw"))


def held_phase(plan, pattern, basis, lines, axes=(0, 1, 2)):
    """The fixed phase, or what determines it, from lines without gaps."""
    threads, lines = plan.options.threads, _filtered(plan, pattern, lines, axes)
    if basis.fills:
        return smooth_phase(lines, pattern.ranges, threads)
    matrix = plan.matrix if 0 in axes else (len(lines), *plan.matrix[1:])
    return homodyne_images(lines, pattern.ranges, field=matrix, threads=threads, axes=axes)[1]


def _placed(plan, block, image):
    """The image of a block, its geometry corrected unless that waits for all slices."""
    if plan.options.coefficients is None or plan.stack:
        return image
    return _corrected(plan, [plan.placements[block.slice]], image)


def _corrected(plan, places, image):
    """The image, corrected for non-linear gradients."""
    options = plan.options
    return geometry(
        image,
        list(places),
        plan.field,
        options.coefficients,
        position=plan.position,
        dims=options.dims,
        order=options.order,
        intensity=options.intensity,
        threads=options.threads,
    )


# ---- Slabs of 3-D scans --------------------------------------------------------------------------


def _run_volumes(plan, source, client):
    """Volumes, each assembled from its slabs."""
    calibration, shared = {}, {}
    for block in blocks(plan):
        pattern = plan.patterns[block.pattern]
        if block.slice not in calibration:  # its samples may be overwritten by the first volume
            calibration = {block.slice: slice_calibration(plan, block, source)}
        at = block.slice, block.pattern
        if at not in shared:
            shared = {at: volume_basis(plan, block, source, calibration[block.slice])}
        frames = source.frames(block.slice, block.along())
        volume = slabs.transformed(plan, pattern, frames, source.disposable, _here(client))
        frames = None
        yield block, volume_image(plan, block, volume, *shared[at], client)
        volume = None  # before the next one is read


def slice_calibration(plan, block, source):
    return plan.calibration and cut_calibration(plan, calibration_lines(plan, block.slice, source))


def volume_basis(plan, block, source, calibration):
    """The basis of the sensitivities of the volumes, and the intensities for regularisation or None."""
    made, intensities = volume_sensitivities(plan, block, source, calibration)
    if plan.in_snr:
        made.sd = volume_deviation(plan, block, source, made, intensities)
    return made, intensities


def volume_sensitivities(plan, block, source, calibration):
    pattern = plan.patterns[block.pattern]
    if not pattern.weighted:
        return slabs.Sensitivities(None), None
    made, expected = slabs.sensitivities(plan, pattern, calibration)
    if pattern.unfolds and plan.options.maps is not None:
        made.given = maps.of_slice(plan, block.slice)
    if not pattern.unfolds:
        return made, None
    intensities = _volume_intensities(plan, block, source, expected)
    shown = [made.part(slice(x, x + 1)) for x in conditioning.planes(len(made.lines))]

    def look(sets):
        return map_sets.residual(sum(part.sums(plan, pattern, sets) for part in shown))

    if made.given is None:
        made.choice = map_sets.choose(plan.map_sets(pattern), look, made.lines.shape[3])
        made.sets = made.choice.sets if made.choice else 1
        shown = [replace(part, sets=made.sets) for part in shown]
    parts = (part.maps(plan, pattern)[:2] for part in shown)
    basis = Basis(intensities=intensities, damping=made.damping)
    made.conditioning = _conditioning(plan, pattern, basis, parts)
    return made, intensities


def volume_deviation(plan, block, source, sensitivities, intensities, replicas=REPLICAS, seed=0):
    """As `deviation`, for a volume that is processed in slabs.

    Once the readout is transformed, noise is independent along x: each slab has its own, and later steps
    along x add variances.
    """
    plan, pattern = _in_raw_units(plan), plan.patterns[block.pattern]
    first = Block(block.slice, pattern.repetitions[:1], block.pattern).along()
    volume = slabs.transformed(plan, pattern, source.frames(block.slice, first)[..., :1, :], False)
    parts = []
    for x in slabs.edges(plan, pattern, len(volume)):
        part = sensitivities.part(x)
        frame = np.array(volume[x], order="F")
        operator = _slab_operator(plan, pattern, part, intensities, frame)
        seeds = [seed, block.slice, x.start]
        parts.append(spread(operator, frame, plan.covariance, replicas=replicas, seed=seeds))
    return np.sqrt(slabs.weights(plan, pattern).dot(np.concatenate(parts).transpose(1, 0, 2) ** 2))


def _slab_operator(plan, pattern, sensitivities, intensities, frame):
    """The operator from lines of a slab to its image, with the phase of `frame` fixed."""
    basis = _slab_basis(plan, pattern, sensitivities, intensities)
    if removes_phase(plan, pattern):
        complete = _completed(plan, pattern, basis, frame) if pattern.weighted else frame
        basis.phase = held_phase(plan, pattern, basis, complete, (1, 2))

    def operator(samples):
        if pattern.weighted:
            return _lines_image(plan, pattern, basis, samples)
        return _finished(plan, pattern, basis, samples, (1, 2))

    return operator


def _volume_intensities(plan, block, source, expected):
    if plan.options.regularisation == 0:
        return None
    pattern = plan.patterns[block.pattern]
    first = source.frames(block.slice, slice(pattern.repetitions[0], pattern.repetitions[0] + 1))
    volume = slabs.transformed(plan, pattern, first, False)
    return sa(fold_lines(volume, pattern.lattices)), expected


def volume_image(plan, block, volume, sensitivities, intensities, client):
    pattern = plan.patterns[block.pattern]

    place = runtime.shared(volume) if _here(client) else None

    def tasks():
        for x in slabs.edges(plan, pattern, len(volume)):
            part = sensitivities.part(x)
            samples = (place, x) if place else (np.array(volume[x], order="F"),)
            yield x, (plan, block, part, intensities, *samples)

    made = {}
    for x, parts in _each(_slab, tasks(), client):
        for name, part in parts.items():
            if name not in made:
                made[name] = np.empty((len(volume), *part.shape[1:]), part.dtype, order="F")
            made[name][x] = part
    if not plan.completes_slabs(pattern):
        lines = to_kspace(made["image"], threads=plan.options.threads, overwrite=True)
        made["image"] = _finished(plan, pattern, Basis(), lines)
    if sensitivities.sd is not None:
        made["image"] = in_units(made["image"], sensitivities.sd)
    made["image"] = _placed(plan, block, made["image"])
    return made | _conditioned(sensitivities.conditioning) | _counted(sensitivities.choice)


def _here(client):
    """Whether workers read slabs from the volume themselves, as those of this machine do."""
    return getattr(client, "here", False)


def _slab(plan, block, sensitivities, intensities, samples, x=None):
    samples = samples if x is None else samples.copy(x)
    return reconstruct_slab(plan, block, samples, sensitivities, intensities)


def _slab_basis(plan, pattern, sensitivities, intensities):
    if not pattern.weighted:
        return Basis()
    own, expected, residual = sensitivities.maps(plan, pattern)
    basis = Basis(own, expected, intensities, damping=sensitivities.damping, residual=residual)
    basis.conditioning = sensitivities.conditioning
    return basis


def reconstruct_slab(plan, block, samples, sensitivities, intensities):
    """Image of a slab with a transformed readout, as `reconstruct_block` for a block."""
    pattern, threads = plan.patterns[block.pattern], plan.options.threads
    if not pattern.weighted:
        return {"image": _finished(plan, pattern, Basis(), samples, (1, 2))}
    basis = _slab_basis(plan, pattern, sensitivities, intensities)
    made = _beside(plan, basis)
    if plan.completes_slabs(pattern):
        return made | {"image": _lines_image(plan, pattern, basis, samples)}
    # Steps along x follow after the combination: coils are not kept beyond their slab.
    lines = _completed(plan, pattern, basis, samples)
    image = combine(to_image(lines, (1, 2), threads, overwrite=True))
    return made | {"image": image[:, :, :, None]}
