"""Partial Fourier: projection onto measured lines and a smooth phase (POCS), and the test whether a
scan benefits from it.

>>> import numpy as np
>>> from ctessel import pipeline
>>> y = np.arange(48) - 24
>>> object = np.exp(-(y**2) / 60 + 0.02j * y) * np.ones((8, 1))
>>> kspace = pipeline.to_kspace(object[:, :, None].astype(np.complex64))
>>> kspace[:, :16] = 0                                         # lines -24 to -9 were not measured
>>> image = pipeline.pocs(kspace, (None, (-8, 23), None))
>>> bool(np.abs(image[:, :, 0] - object).max() < 0.01)
True
"""

import numpy as np

from .fourier import central, to_image, to_kspace

#: Iterations of POCS. More do not change the image.
ROUNDS = 5


def clipped(shape, ranges):
    """Ranges clipped to a grid; None if one side of k = 0 has no lines, or no lines are missing."""
    made = []
    for n, lines in zip(shape, ranges):
        if lines is not None:
            lines = max(lines[0], -(n // 2)), min(lines[1], (n - 1) // 2)
            if not lines[0] < 0 < lines[1] or abs(sum(lines)) <= 1:
                lines = None
        made.append(lines)
    return made


def _box(shape, ranges):
    """Measured lines as slices of the three axes."""
    return tuple(
        slice(n // 2 + lines[0], n // 2 + lines[1] + 1) if lines else slice(None) for n, lines in zip(shape, ranges)
    )


def smooth_phase(kspace, ranges, threads=None):
    """Unit phase of the image of the lines that are measured on both sides; see `pocs`."""
    ranges = clipped(kspace.shape, ranges)
    low = kspace
    for axis, (n, lines) in enumerate(zip(kspace.shape, ranges)):
        if lines is None:
            continue
        reach = min(-lines[0], lines[1])
        k = np.arange(n) - n // 2
        window = (np.abs(k) <= reach) * np.cos(np.pi / 2 * k / (reach + 1)) ** 2
        low = low * window.astype(np.float32).reshape([-1 if a == axis else 1 for a in range(low.ndim)])
    low = to_image(low, threads=threads, overwrite=True)
    size = np.abs(low)
    return np.divide(low, size, out=np.ones_like(low), where=size > 0)


def pocs_kspace(kspace, ranges, threads=None, phase=None):
    """k-space with the missing lines filled in; see `pocs`."""
    if phase is None:
        phase = smooth_phase(kspace, ranges, threads)
    box = _box(kspace.shape, ranges)
    filled = kspace
    for _ in range(ROUNDS):
        image = np.abs(to_image(filled, threads=threads)) * phase
        filled = to_kspace(image, threads=threads, overwrite=True)
        filled[box] = kspace[box]
    return filled


def pocs(kspace, ranges, *, field=None, threads=None, phase=None):
    """Image of partial-Fourier k-space along up to three axes.

    The phase of the image comes from the lines that are measured on both sides of k = 0. Missing lines
    become those of an image with this phase. Measured lines do not change, so magnitude and phase are
    both right.

    Parameters
    ----------
    kspace : ndarray of complex64, ``(x, y, z, ...)``
        Centred k-space, 0 where nothing was measured.
    ranges : sequence of 3 (tuple of two int, or None)
        First and last measured line of each axis from k = 0; either side may be the short one.
    field : sequence of 3 int, optional
        Central extents of the image to keep.
    threads : int, optional
    phase : ndarray of complex64, optional
        Result of `smooth_phase` for other data, used instead of the phase of these data.

    Returns
    -------
    ndarray of complex64
        Axes with no line on one side of k = 0 are zero-filled.

    References
    ----------
    E. M. Haacke, E. D. Lindskog, W. Lin, "A fast, iterative, partial-Fourier technique capable of
    local phase recovery", J. Magn. Reson. 92:126 (1991).
    """
    ranges = clipped(kspace.shape, ranges)
    if any(ranges):
        kspace = pocs_kspace(kspace, ranges, threads, phase)
    image = to_image(kspace, threads=threads)
    shape = tuple(field or kspace.shape[:3])
    return np.asfortranarray(image[tuple(central(n, m) for n, m in zip(image.shape, shape))])


def prediction_error(kspace, ranges, threads=None):
    """How well POCS predicts lines that were measured.

    The outermost quarter of the lines on the short side is hidden and predicted from the others.

    Parameters
    ----------
    kspace, ranges, threads
        As for `pocs`.

    Returns
    -------
    float
        Root mean square of the difference, divided by that of the hidden lines. Below 1, POCS is closer
        to them than zeros. Infinite if too few lines are measured to hide any.
    """
    ranges = clipped(kspace.shape, ranges)
    fewer = [lines and _hidden(lines) for lines in ranges]
    if fewer == ranges:
        return float("inf")
    kept, known = _box(kspace.shape, fewer), _box(kspace.shape, ranges)
    shown = np.zeros_like(kspace)
    shown[kept] = kspace[kept]
    missed = pocs_kspace(shown, fewer, threads) - kspace
    hidden = kspace.copy()
    missed[kept] = hidden[kept] = 0
    energy = np.linalg.norm(hidden[known])
    return float(np.linalg.norm(missed[known]) / energy) if energy > 0 else float("inf")


def _hidden(lines):
    """A range without the outermost quarter of its short side."""
    first, last = lines
    if -first < last:
        return first + (-first) // 4, last
    return first, last - last // 4
