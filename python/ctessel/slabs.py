"""3-D scans in slabs of x: once the readout is transformed, all steps are independent along it.

Held at once are k-space, the image, and a few slabs, whose size `ctessel.plan.BLOCK` gives.
"""

from dataclasses import dataclass

import numpy as np

from ._arrays import ringing_filter
from ._helpers import sa
from .fourier import central, remove_oversampling, resize, to_image
from .sampling import fold_lines
from .steps import combine, low_resolution, object_mask, relative_maps


def transformed(plan, pattern, frames, overwrite):
    """Lines of a volume with the readout transformed: ``(x, y, z, coil, echo, repetition)``.

    Regular lines alone where coils are weighted, with the grid of the unfolded image along x;
    else with that of the image. `frames` may be overwritten where that is allowed.
    """
    folded = tuple(lattice.folded for lattice in pattern.lattices)
    lines = folded if pattern.weighted else frames.shape[1:3]
    extent = plan.readout if pattern.weighted else plan.matrix[0]
    if overwrite and all(n <= m for n, m in zip((extent, *lines), frames.shape)):
        out = frames[:extent, : lines[0], : lines[1]]
    else:
        out = np.empty((extent, *lines, *frames.shape[3:]), np.complex64, order="F")
    for index in np.ndindex(frames.shape[3:]):  # a coil at a time
        at = (slice(None),) * 3 + index
        out[at] = _readout(plan, pattern, np.array(frames[at], order="F"))
    return out


def _readout(plan, pattern, lines):
    options, threads = plan.options, plan.options.threads
    if pattern.weighted:
        image = to_image(fold_lines(lines, pattern.lattices), (0,), threads, overwrite=True)
        return image[central(len(image), plan.readout)]
    lines = remove_oversampling(lines, plan.readout, threads=threads)
    if options.ringing > 0:
        lines = ringing_filter(lines, (options.ringing, 0, 0), pattern.window, threads=threads)
    lines = resize(lines, plan.pixels[:1], threads)
    image = to_image(lines, (0,), threads)
    return image[central(len(image), plan.matrix[0])]


def edges(plan, pattern, extent):
    """The slabs of a volume, as slices of x."""
    width = max(1, plan.slab // (8 * plan.shape[3] * int(np.prod(pattern.full[1:]))))
    return [slice(x, min(x + width, extent)) for x in range(0, extent, width)]


@dataclass
class Sensitivities:
    """What maps of a slab are made of: its low-resolution lines, and the object in its voxels."""

    lines: np.ndarray  # (x, y, z, coil): x transformed
    inside: np.ndarray | None  # (x, y, z) of bool; None: all voxels count

    def part(self, x):
        inside = None if self.inside is None else self.inside[x]
        return Sensitivities(np.array(self.lines[x], order="F"), inside)

    def maps(self, plan, pattern):
        """Sensitivities and low-resolution image on the grid of the unfolded image."""
        threads = plan.options.threads
        size = (len(self.lines), *pattern.calibration_pixels[1:])
        images = to_image(resize(self.lines, size, threads), (1, 2), threads, overwrite=True)
        made = relative_maps(images, self.inside, threads)
        return tuple(np.asfortranarray(resize(a, (size[0], *pattern.full[1:]))) for a in made)


def sensitivities(plan, pattern, calibration):
    """Those of a volume, and the root-mean-square level of its low-resolution image.

    `calibration` are its calibration lines, ``(x, y, z, coil)``, the readout cut to its field.
    """
    threads, mask = plan.options.threads, plan.mask(pattern)
    lines = resize(low_resolution(calibration, threads=threads), pattern.calibration_pixels[:1])
    made = Sensitivities(to_image(lines, (0,), threads), None)
    if not pattern.unfolds:
        return made, 0.0
    size = pattern.calibration_pixels
    magnitude = np.empty(size, np.float32, order="F")
    for x in edges(plan, pattern, size[0]):
        lines = resize(made.lines[x], (x.stop - x.start, *size[1:]), threads)
        magnitude[x] = combine(to_image(lines, (1, 2), threads), "sos", threads)
    made.inside = object_mask(magnitude, mask) if mask else None
    return made, sa(np.asfortranarray(resize(magnitude, pattern.full)))
