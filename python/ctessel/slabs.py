"""3-D scans in slabs of x: once the readout is transformed, all steps are independent along it.

Memory holds k-space, the image, and a few slabs; `ctessel.plan.BLOCK` sets their size.
"""

from dataclasses import dataclass, replace

import numpy as np

from . import map_sets, runtime
from ._arrays import ringing_filter
from ._coils import pcsos
from ._helpers import sa
from .conditioning import Conditioning
from .fourier import central, remove_oversampling, resize, to_image, to_kspace
from .steps import (
    CROP,
    WINDOW,
    calibration_residual,
    combine,
    damping,
    low_resolution,
    object_mask,
    plane_maps,
    relative_maps,
    without,
)


def transformed(plan, pattern, frames, overwrite, shared=False):
    """Lines of a volume with the readout transformed: ``(x, y, z, coil, echo, repetition)``.

    If coils are weighted, x has the grid of the unfolded image, otherwise that of the image. `frames` may
    be overwritten if that is allowed; a new array is `shared` with workers.
    """
    extent = plan.readout if pattern.weighted else plan.matrix[0]
    kept = plan.choice.kept if plan.choice else range(frames.shape[3])
    shape = (extent, *frames.shape[1:3], len(kept), *frames.shape[4:])
    if overwrite and extent <= len(frames):
        out = frames[:extent, :, :, : len(kept)]
    elif shared:
        out = runtime.shared_zeros(shape)
    else:
        out = np.empty(shape, np.complex64, order="F")
    for coil, *others in np.ndindex(shape[3:]):  # one coil at a time; each moves forward or stays
        line = np.array(frames[(..., kept[coil], *others)], order="F")
        out[(..., coil, *others)] = _readout(plan, pattern, line)
    return out


def _readout(plan, pattern, lines):
    options, threads = plan.options, plan.options.threads
    if pattern.weighted:
        image = to_image(lines, (0,), threads, overwrite=True)
        return image[central(len(image), plan.readout)]
    lines = remove_oversampling(lines, plan.readout, threads=threads)
    if options.ringing > 0:
        lines = ringing_filter(lines, (options.ringing, 0, 0), pattern.window, threads=threads)
    lines = resize(lines, plan.pixels[:1], threads)
    image = to_image(lines, (0,), threads)
    return image[central(len(image), plan.matrix[0])]


def weights(plan, pattern):
    """Contributions of the variance of each plane across the readout to those of the image, for noise
    that is independent along x: ``(image's x, x)``."""
    n = plan.readout if pattern.weighted else plan.matrix[0]
    if pattern.weighted and plan.completes_slabs(pattern):
        return np.eye(n)
    if not pattern.weighted:  # filter and padding come later
        each = _readout(plan, pattern, np.eye(plan.shape[0], dtype=np.complex64)[:, :, None])
        return np.diag((np.abs(each[:, :, 0]) ** 2).sum(1))
    lines = to_kspace(np.eye(n, dtype=np.complex64)[:, :, None], (0,))
    if plan.options.ringing > 0:
        lines = ringing_filter(lines, (plan.options.ringing, 0, 0), (pattern.window[0], n, 1))
    image = to_image(resize(lines, plan.pixels[:1]), (0,))
    return np.abs(image[central(len(image), plan.matrix[0]), :, 0]) ** 2


def edges(plan, pattern, extent):
    """The slabs of a volume, as slices of x."""
    width = max(1, plan.slab // (8 * plan.shape[3] * int(np.prod(pattern.full[1:]))))
    return [slice(x, min(x + width, extent)) for x in range(0, extent, width)]


#: Kinds of voxels of a volume for sensitivities: outside of the object, inside if the eigenvalue says so,
#: and inside.
EMPTY, DIM, BRIGHT = range(3)


@dataclass
class Sensitivities:
    """Input for the maps of a slab: its low-resolution lines, and the kinds of its voxels."""

    lines: np.ndarray | None  # (x, y, z, coil): x transformed, under a window; None: not weighted
    voxels: np.ndarray | None = None  # (x, y, z) of int8; None: all count
    given: np.ndarray | None = None  # maps of a file, (x, y, z, coil)
    damping: float = 0.0
    conditioning: Conditioning | None = None
    sd: np.ndarray | None = None  # of the image, (x, y, z), where that is its unit
    sets: int = 1  # of maps
    choice: map_sets.Choice | None = None

    def part(self, x):
        if self.lines is None:
            return self
        voxels, given = (None if a is None else a[x] for a in (self.voxels, self.given))
        return replace(self, lines=np.array(self.lines[x], order="F"), voxels=voxels, given=given, sd=None)

    def maps(self, plan, pattern):
        """Sensitivities and low-resolution image on the grid of the unfolded image; sums of the
        calibration's residual or None."""
        full = (len(self.lines), *pattern.full[1:])
        images = self.images(plan, (full[0], *pattern.calibration_pixels[1:]))
        if self.voxels is None:
            made = relative_maps(images, threads=plan.options.threads)
            return (*(np.asfortranarray(resize(a, full)) for a in made), None)
        maps = self._eigen_maps(plan, images.shape[:3]) if self.given is None else self.given
        images, maps = (np.asfortranarray(resize(a, full)) for a in (images, maps))
        residual = calibration_residual(maps, images)[1]
        return maps, pcsos(images, threads=plan.options.threads), residual

    def images(self, plan, size, x=slice(None), window=WINDOW):
        """Low-resolution images of the coils."""
        lines = low_resolution(self.lines[x], (0, window, window), threads=plan.options.threads)
        lines = resize(lines, size, plan.options.threads)
        return to_image(lines, (1, 2), plan.options.threads, overwrite=True)

    def _eigen_maps(self, plan, size):
        planes = np.flatnonzero(self.voxels.any((1, 2)))
        maps, values = plane_maps(self.lines, size, planes, self.sets, plan.options.threads)
        empty, dim = self.voxels == EMPTY, self.voxels == DIM
        return without(maps, values, lambda value: empty | (dim & (value <= CROP)))

    def sums(self, plan, pattern, sets):
        """What `ctessel.map_sets.residual` adds up, with so many sets."""
        full = (len(self.lines), *pattern.full[1:])
        size = (full[0], *pattern.calibration_pixels[1:])
        both = (resize(self.images(plan, size, window=window), full) for window in (WINDOW, 0))
        return map_sets.sums(replace(self, sets=sets).maps(plan, pattern)[0], *both)


def sensitivities(plan, pattern, calibration):
    """Sensitivities of a volume, and the root-mean-square intensity of its low-resolution image.

    `calibration` are its calibration lines, ``(x, y, z, coil)``, with the readout cut to its field.
    """
    threads, mask = plan.options.threads, plan.options.mask
    lines = low_resolution(calibration, (WINDOW, 0, 0), threads=threads)
    made = Sensitivities(to_image(resize(lines, pattern.calibration_pixels[:1]), (0,), threads))
    if not pattern.unfolds:
        return made, 0.0
    size = pattern.calibration_pixels
    magnitude = np.empty(size, np.float32, order="F")
    for x in edges(plan, pattern, size[0]):
        images = made.images(plan, (x.stop - x.start, *size[1:]), x)
        magnitude[x] = combine(images, "sos", threads)
    inside = object_mask(magnitude, mask)
    made.voxels = np.where(inside, BRIGHT, magnitude >= mask / 5 * magnitude.max()).astype(np.int8)
    made.damping = damping(calibration, magnitude[inside], plan.covariance is not None, threads)
    return made, sa(np.asfortranarray(resize(magnitude, pattern.full)))
