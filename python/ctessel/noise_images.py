"""Volumes of noise for denoisers: images of the scan without an object.

Noise with the covariance of the noise scan replaces the measured samples and goes through the plan of the
scan. Sensitivities, masks and phase are those of the scan, because noise cannot give them. Each volume has
the lines of one repetition, beginning with the first; after the last repetition the first one follows.
"""

from dataclasses import replace
from math import prod

import numpy as np

from . import reconstruct, slabs
from .replicas import drawn
from .steps import by_set

#: Of the noise: the same volumes each time.
SEED = 0


def check(plan):
    """Raise an error if a plan cannot have volumes of noise; the message says how to fix it."""
    if plan.covariance is None:
        raise ValueError(
            "volumes of noise need a noise scan with enough samples in the raw data; leave out --noise-images"
        )
    if plan.in_slabs and any(reconstruct.removes_phase(plan, pattern) for pattern in plan.patterns):
        raise ValueError(
            "volumes of noise of 3-D scans need zero filling or POCS; choose --partial pocs or zero, or "
            "leave out --noise-images"
        )


def memory(plan, count):
    """Bytes of the volumes, and bytes that their computation needs beyond that of images."""
    volumes = min(plan.group, count) * prod(plan.shape[:4]) * plan.shape[5]
    return 8 * prod(plan.image_shape[:5]) * count, 30 * volumes


def volumes(plan, source, count, *, room=None, progress=None):
    """Volumes of noise.

    Parameters
    ----------
    plan : Plan
    source : Scan, or an object with its `layout`, `frames` and `separate`
        Its samples are not overwritten.
    count : int
    room : callable, optional
        Makes the array that is returned, of zeros, from its shape.
    progress : callable, optional
        Called with the number of volumes of slices that are done and that of all.

    Returns
    -------
    ndarray of complex64, ``(x, y, z, slice, echo, volume)``
        Image domain, in the unit of the images.

    Raises
    ------
    ValueError
        The scan has none.
    """
    check(plan)
    plan = replace(plan, options=replace(plan.options, combine="pcsos", keep_maps=False))
    shape, echoes = (*plan.image_shape[:5], count), slice(plan.kept[1].start, plan.kept[1].stop)
    made = np.zeros(shape, np.complex64, order="F") if room is None else room(shape)
    done, total = 0, shape[3] * count
    for at, index in enumerate(plan.kept[0]):
        for numbers, images in _of_slice(plan, source, index, count):
            made[:, :, :, at][..., numbers] = images[:, :, :, echoes]
            done += len(numbers)
            if progress:
                progress(done, total)
    if plan.stack:
        for number in range(count):
            one = slice(number, number + 1)
            made[:, :, 0, ..., one] = reconstruct.straightened(plan, made[:, :, 0, ..., one])
    return made


def _of_slice(plan, source, index, count):
    """Numbers of volumes with their images of a slice, some at a time."""
    repetitions = np.array(plan.kept[2])[np.arange(count) % len(plan.kept[2])]
    for number, pattern in enumerate(plan.patterns):
        wanted = np.flatnonzero(np.isin(repetitions, pattern.repetitions))
        if not wanted.size:
            continue
        block = reconstruct.Block(index, pattern.repetitions[:1], number)
        frame = reconstruct.lines(plan, block, source)
        operator = (_of_volumes if plan.in_slabs else _of_lines)(plan, block, source, frame)
        there, together = frame != 0, max(1, plan.group)
        factor = np.linalg.cholesky(plan.covariance.astype(complex)).astype(np.complex64)
        for start in range(0, wanted.size, together):
            numbers = wanted[start : start + together]
            samples = [_samples(plan, factor, there, index, volume) for volume in numbers.tolist()]
            yield numbers, operator(np.asfortranarray(np.concatenate(samples, 5)))


def _of_lines(plan, block, source, frame):
    """The function that makes images of noise if whole slices are processed."""
    pattern, basis = plan.patterns[block.pattern], reconstruct.prepare(plan, block, source)

    def operator(samples):
        return reconstruct.reconstruct_block(plan, block, basis, samples)["image"]

    held = basis.fills or reconstruct.removes_phase(plan, pattern)
    if held:
        complete = reconstruct.complete_lines(plan, pattern, basis, frame)
        basis.phase = reconstruct.held_phase(plan, pattern, basis, complete)
    if not held and (basis.maps is None or by_set(basis.maps).shape[4] == 1):
        return operator
    return _beside(operator, frame)


def _beside(operator, frame):
    """What the noise does to an image: all steps are linear near it."""
    image = operator(np.array(frame, order="F"))
    return lambda samples: operator(np.asfortranarray(frame + samples)) - image


def _of_volumes(plan, block, source, frame):
    """The same if volumes are processed in slabs."""
    pattern = plan.patterns[block.pattern]
    shared = reconstruct.volume_basis(plan, block, source, reconstruct.slice_calibration(plan, block, source))
    every = replace(plan, choice=None)  # the noise has the coils that are used, no others

    def operator(samples):
        lines = slabs.transformed(every, pattern, samples, True)
        return reconstruct.volume_image(plan, block, lines, *shared, None)["image"]

    return operator if shared[0].sets == 1 else _beside(operator, frame)


def _samples(plan, factor, there, index, volume):
    """Noise that replaces the samples of a frame, ``(x, y, z, coil, echo, 1)``, with the covariance
    `factor factor^H`."""
    place = index if plan.slices is None else plan.slices[index]  # within the whole scan
    random = np.random.default_rng([SEED, place, volume])
    return drawn(random, there.shape, factor) * there
