"""Which lines of k-space were measured: partial Fourier, undersampling, calibration lines."""

from dataclasses import dataclass
from fractions import Fraction
from math import ceil

import numpy as np

#: Share of an axis that may be missing on one side before the scan counts as partial.
TOLERANCE = 0.02


@dataclass(frozen=True)
class Lattice:
    """Regularly measured lines of one axis, and the grids that they fold from and to.

    Lines ``step * j + offset`` are measured, counted from k = 0; j = 0 has index ``folded // 2``
    among the `folded` lines. `full` is the extent after unfolding, ``full / folded`` the reduction.
    """

    step: int
    offset: int
    folded: int
    full: int

    @property
    def reduction(self):
        return Fraction(self.full, self.folded)


def partial_ranges(layout, sampled=None):
    """First and last measured line of every axis that is measured more to one side of k = 0.

    Parameters
    ----------
    layout : Layout
        Read are the encoding limits of x and, without `sampled`, the measured lines of y and z.
    sampled : ndarray of bool, ``(y, z)``, optional

    Returns
    -------
    list of 3 (tuple of two int, or None)
        Lines from k = 0. None: both sides reach equally far, but for one step of the undersampling
        and `TOLERANCE` of the extent.
    """
    sampled = layout.sampled if sampled is None else sampled
    ranges = [_readout_range(layout.shape[0], layout.header.limits.get("x"))]
    for extent, lines in zip(sampled.shape, _measured(sampled)):
        step = int(np.diff(lines).max()) if len(lines) > 1 else 1
        ranges.append(_asymmetric(int(lines[0]), int(lines[-1]), extent, step))
    return ranges


def _readout_range(n, limit):
    if limit is None:
        return None
    first = max(limit.minimum - limit.center, -(n // 2))
    last = min(limit.maximum - limit.center, (n - 1) // 2)
    return _asymmetric(first, last, n, 1)


def _asymmetric(first, last, extent, step):
    return (first, last) if abs(first + last) > max(step, TOLERANCE * extent) else None


def _measured(sampled):
    """Lines with any sample, from k = 0, of y and of z."""
    sampled = np.asarray(sampled, bool)
    if not sampled.any():
        raise ValueError("sampled: no line was measured; is the file complete?")
    return [np.flatnonzero(sampled.any(1 - axis)) - sampled.shape[axis] // 2 for axis in (0, 1)]


def undersampling(sampled, field_ratio=(1, 1)):
    """Regular undersampling along y and z.

    Parameters
    ----------
    sampled : ndarray of bool, ``(y, z)``
        Measured lines, k = 0 at ``N // 2``. Beside the regular ones a block of calibration lines
        may be there, and corners of the plane may be missing.
    field_ratio : sequence of two numbers, optional
        Field of view to unfold to, over the encoded one. Where the encoded field is smaller than
        the object, the reduction is this ratio times the distance of the lines, and need not be
        whole.

    Returns
    -------
    tuple of two Lattice
        For y and for z.

    Raises
    ------
    ValueError
        The lines form no regular pattern.
    """
    sampled = np.asarray(sampled, bool)
    regular = [_regular(lines, name) for lines, name in zip(_measured(sampled), "yz")]
    _check_pattern(sampled, regular)
    return tuple(
        _lattice(n, step, offset, Fraction(ratio).limit_denominator(32))
        for n, (step, offset), ratio in zip(sampled.shape, regular, field_ratio)
    )


def _regular(lines, name):
    """Distance of the regular lines and the line nearest to k = 0 among them."""
    if len(lines) == 1:
        return 1, 0
    step = int(np.diff(lines).max())
    residues = np.bincount(lines % step, minlength=step)
    offset = int(residues.argmax())
    found = lines[lines % step == offset]
    whole = len(found) == (found[-1] - found[0]) // step + 1
    run = np.cumsum(np.diff(lines, prepend=lines[0]) > 1)  # numbers lines that follow each other
    extra = np.count_nonzero((lines % step != offset) & (run != run[np.abs(lines).argmin()]))
    if not whole or len(found) < 2 or extra > 0.1 * len(lines):
        raise ValueError(
            f"sampled: the lines along {name} have no regular distance; "
            "expected every n-th line, with calibration lines around the centre"
        )
    return step, offset


def _check_pattern(sampled, regular):
    """Most of the lattice must be there; a shifted or random pattern fills a part of it alone."""
    on = [
        (np.arange(n) - n // 2) % step == offset
        for n, (step, offset) in zip(sampled.shape, regular)
    ]
    lattice = _bounding(sampled, np.outer(*on))
    if np.count_nonzero(lattice & ~sampled) > 0.3 * np.count_nonzero(lattice):
        raise ValueError(
            "sampled: the lines form no rectangular grid in y and z; shifted or random "
            "patterns cannot be unfolded"
        )


def _bounding(sampled, lattice):
    """Lattice points within the bounding box of the measured ones."""
    box = np.zeros_like(sampled)
    rows, columns = np.nonzero(sampled & lattice)
    box[rows.min() : rows.max() + 1, columns.min() : columns.max() + 1] = True
    return lattice & box


def _lattice(n, step, offset, ratio):
    if ratio <= 1:
        ratio = Fraction(1)
    if step == 1 and ratio == 1:
        return Lattice(1, 0, n, n)
    reduction, folded = step * ratio, ceil(n / step)
    while True:
        full = folded * reduction
        # An odd extent folded to an even one would be half a sample off.
        if full.denominator == 1 and (folded % 2 or full % 2 == 0):
            for start in (offset, offset - step):
                if _covers(n, step, start, folded):
                    return Lattice(step, start, folded, int(full))
        folded += 1


def _covers(n, step, offset, folded):
    first, last = ceil((-(n // 2) - offset) / step), ((n - 1) // 2 - offset) // step
    return first >= -(folded // 2) and last <= (folded - 1) // 2


def calibration_block(sampled):
    """Largest box of fully measured lines around k = 0.

    Parameters
    ----------
    sampled : ndarray of bool, ``(y, z)``

    Returns
    -------
    tuple of two slice
        Along y and z; empty if the central line itself is missing.
    """
    sampled = np.asarray(sampled, bool)
    centre = [n // 2 for n in sampled.shape]
    low, high = list(centre), list(centre)
    if not sampled[centre[0], centre[1]]:
        return slice(centre[0], centre[0]), slice(centre[1], centre[1])
    growing = True
    while growing:
        growing = False
        for axis in (0, 1):
            for side, change in ((low, -1), (high, 1)):
                side[axis] += change
                inside = 0 <= side[axis] < sampled.shape[axis]
                if inside and sampled[low[0] : high[0] + 1, low[1] : high[1] + 1].all():
                    growing = True
                else:
                    side[axis] -= change
    return slice(low[0], high[0] + 1), slice(low[1], high[1] + 1)


def fold_lines(kspace, lattices):
    """The regular lines of k-space alone, on the folded grid.

    Parameters
    ----------
    kspace : ndarray of complex64
        ``(x, y, z, ...)``, k = 0 at ``N // 2``.
    lattices : sequence of two Lattice
        For y and z.

    Returns
    -------
    ndarray of complex64
        ``(x, folded y, folded z, ...)`` in Fortran order, never a view; slots without a line are 0.
    """
    given = kspace
    for axis, lattice in enumerate(lattices, 1):
        if (lattice.step, kspace.shape[axis]) == (1, lattice.folded):
            continue
        start = lattice.offset - lattice.folded // 2 * lattice.step + kspace.shape[axis] // 2
        skipped = max(0, -(start // lattice.step))  # slots before the first line
        start += skipped * lattice.step
        count = max(
            0, min(lattice.folded - skipped, -((start - kspace.shape[axis]) // lattice.step))
        )
        shape = kspace.shape[:axis] + (lattice.folded,) + kspace.shape[axis + 1 :]
        out = np.zeros(shape, np.complex64, order="F")
        before = (slice(None),) * axis
        source = before + (slice(start, start + count * lattice.step, lattice.step),)
        out[before + (slice(skipped, skipped + count),)] = kspace[source]
        kspace = out
    return np.array(kspace, order="F") if kspace is given else kspace
