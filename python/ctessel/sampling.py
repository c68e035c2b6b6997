"""Sampling patterns: partial Fourier, undersampling, ACS lines."""

from dataclasses import dataclass, replace
from fractions import Fraction
from itertools import product
from math import ceil, gcd, prod

import numpy as np

#: Share of an axis that may be missing on one side before the scan counts as partial.
TOLERANCE = 0.02
#: Largest acceleration of shifted patterns that are found.
MOST_SHIFTED = 16


@dataclass(frozen=True)
class Lattice:
    """Regularly measured lines of one axis, and the grids that they fold from and to.

    Lines ``step * j + offset`` are measured, counted from k = 0; j = 0 has index ``folded // 2`` among the
    `folded` lines. `full` is the extent after unfolding, ``full / folded`` the acceleration. In shifted
    patterns (CAIPIRINHA), line j of the other axis shifts the lines of this axis by ``shift * j``, modulo
    `step`.
    """

    step: int
    offset: int
    folded: int
    full: int
    shift: int = 0

    @property
    def reduction(self):
        return Fraction(self.full, self.folded)


def partial_ranges(layout, sampled=None, steps=None):
    """First and last measured line of every axis that reaches farther on one side of k = 0.

    Parameters
    ----------
    layout : Layout
        Gives the encoding limits of x and, without `sampled`, the measured lines of y and z.
    sampled : ndarray of bool, ``(y, z)``, optional
    steps : sequence of two int, optional
        Distances of the regular lines; by default the largest distances of measured lines.

    Returns
    -------
    list of 3 (tuple of two int, or None)
        Lines from k = 0. None if both sides reach equally far, within one step of the undersampling and
        `TOLERANCE` of the extent.
    """
    sampled = layout.sampled if sampled is None else sampled
    ranges = [_readout_range(layout.shape[0], layout.header.limits.get("x"))]
    for axis, (extent, lines) in enumerate(zip(sampled.shape, _measured(sampled))):
        step = steps[axis] if steps else int(np.diff(lines).max(initial=1))
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


def undersampling(sampled, field_ratio=(1, 1), stated=(1, 1)):
    """Regular undersampling along y and z.

    Parameters
    ----------
    sampled : ndarray of bool, ``(y, z)``
        Measured lines, k = 0 at ``N // 2``. In addition to the regular lines there may be a block of ACS
        lines. Corners of the plane may be missing, and a few lines inside.
    field_ratio : sequence of two numbers, optional
        Unfolded field of view, divided by the encoded one. If the encoded one is smaller than the
        object, the acceleration is this ratio times the distance of the lines, and may be fractional.
    stated : sequence of two int, optional
        Distances in the header, which are tried first.

    Returns
    -------
    tuple of two Lattice
        For y and for z.

    Raises
    ------
    ValueError
        The lines form no regular pattern.

    References
    ----------
    F. A. Breuer et al., "Controlled aliasing in volumetric parallel imaging (2D CAIPIRINHA)", Magn.
    Reson. Med. 55:549 (2006).
    """
    return regular(sampled, stated).lattices(field_ratio)


@dataclass(frozen=True, eq=False)
class Regular:
    """Distances of the regular lines along y and z, and their offsets from k = 0.

    One of `shifts` may be more than 0: the shift of the lines of y from one line of z to the next, or that
    of the lines of z from one line of y to the next. `expected`, ``(y, z)`` of bool, are all lines of the
    pattern, ACS lines included; those that were not measured were lost.
    """

    steps: tuple[int, int]
    offsets: tuple[int, int]
    expected: np.ndarray
    shifts: tuple[int, int] = (0, 0)

    def lattices(self, field_ratio=(1, 1)):
        """The `Lattice` of each axis; see `undersampling`."""
        ratios = [Fraction(ratio).limit_denominator(32) for ratio in field_ratio]
        if not any(self.shifts):
            return tuple(map(_lattice, self.expected.shape, self.steps, self.offsets, ratios))
        if max(ratios) > 1:
            raise ValueError(
                "sampled: shifted lines unfold to the encoded field of view, but the image's is wider; measure "
                "the whole field of view, or a pattern that is not shifted"
            )
        return _shifted_lattices(self)


def few(count):
    """How many of `count` lines may be lost."""
    return max(min(2, count // 8), count // 20)


def regular(sampled, stated=(1, 1)):
    """The `Regular` lines among the measured ones; see `undersampling`."""
    sampled = np.asarray(sampled, bool)
    _measured(sampled)
    block = np.zeros_like(sampled)
    block[calibration_block(sampled)] = True
    outside = sampled & ~block
    if not outside.any():
        return Regular((1, 1), (0, 0), sampled)
    most = [min(16, int(np.diff(lines).max(initial=1))) for lines in _measured(outside)]
    every = product(*(range(1, m + 1) for m in most))
    for steps in [tuple(stated), *sorted(every, key=prod)]:
        offsets = [_offset(outside.any(1 - a), step) for a, step in enumerate(steps)]
        expected = _expected(sampled, block, _points(sampled.shape, steps, offsets))
        if expected is not None:
            return Regular(steps, tuple(offsets), expected)
    shifted = _shifted(sampled, block, outside, tuple(stated))
    if shifted is not None:
        return shifted
    if min(sampled.shape) == 1:
        name = "yz"[sampled.shape[0] == 1]
        raise ValueError(
            f"sampled: the lines along {name} have no regular distance (a random mask?) and "
            "cannot be unfolded; expected all lines, or every n-th line with ACS lines around the centre"
        )
    raise ValueError(
        "sampled: the lines form no regular pattern in y and z, rectangular or shifted (a random mask?), and "
        "cannot be unfolded; expected all lines, or every n-th line of both axes or a shifted pattern "
        "(CAIPIRINHA) with ACS lines around the centre"
    )


def _offset(lines, step):
    """The most frequent residue of the lines of an axis, from k = 0."""
    k = np.flatnonzero(lines) - len(lines) // 2
    return int(np.bincount(k % step, minlength=step).argmax())


def _points(shape, steps, offsets, shifts=(0, 0)):
    """Lattice as a mask."""
    y, z = np.ogrid[: shape[0], : shape[1]]
    y, z = y - shape[0] // 2 - offsets[0], z - shape[1] // 2 - offsets[1]
    on_y = (y - shifts[0] * (z // steps[1])) % steps[0] == 0
    return on_y & ((z - shifts[1] * (y // steps[0])) % steps[1] == 0)


def _shifted(sampled, block, outside, stated):
    """The `Regular` lines of a shifted lattice; None if they form none.

    Every lattice has one of the forms that are tried: a step of the columns of y, a step of the lines of z
    in them, and a shift from column to column.
    """
    if min(sampled.shape) == 1:
        return None
    y, z = (k - n // 2 for k, n in zip(np.nonzero(outside), sampled.shape))
    for steps, shift in _forms(prod(stated)):
        coset = y % steps[0] * steps[1] + (z - y // steps[0] * shift) % steps[1]
        found = np.bincount(coset)
        if 2 * found.max() < len(y):
            continue
        offsets = divmod(int(found.argmax()), steps[1])
        points = _points(sampled.shape, steps, offsets, (0, shift))
        expected = _expected(sampled, block, points, shifted=True)
        if expected is not None:
            steps, shifts = _form(steps, shift, stated)
            return Regular(steps, offsets, expected, shifts)
    return None


def _forms(stated):
    """Steps and shifts along z of all shifted lattices, beginning with the stated acceleration."""
    for number in sorted(range(2, MOST_SHIFTED + 1), key=lambda n: n != stated):
        for step in (n for n in range(1, number + 1) if number % n == 0):
            for shift in range(1, number // step):
                yield (step, number // step), shift


def _form(steps, shift, stated):
    """Steps and shifts with the header's steps, otherwise with steps that differ least.

    A lattice with a shift along z can also be described with a shift along y.
    """
    along_z = steps, (0, shift)
    across = gcd(shift, steps[1])
    columns = next(j for j in range(steps[1]) if (shift * j - across) % steps[1] == 0)
    step = steps[0] * steps[1] // across
    along_y = (step, across), (steps[0] * columns % step, 0)
    return min(along_z, along_y, key=lambda form: (form[0] != stated, max(form[0])))


def _expected(sampled, block, lattice, shifted=False):
    """Expected lines if `lattice` has the regular ones; None if the measured lines do not fit it.

    Outside of the ACS block the lattice may lack only a few lost lines, and there must be no other
    lines.
    """
    zone, everything = block, lattice.all()
    beside = sampled & ~lattice
    if beside.any():
        zone = _hull(beside | block)
        if np.count_nonzero(zone & sampled) < 0.9 * np.count_nonzero(zone):
            zone = block  # lines that are not on the lattice are scattered
        if np.count_nonzero(beside & ~zone) > 0.05 * np.count_nonzero(sampled & ~zone):
            return None
    skipped = _hull(sampled) & ~lattice & ~zone
    if not everything and np.count_nonzero(skipped) < 2:
        return None  # nearly all lines are ACS lines
    hull = _hull(sampled & lattice)
    if shifted:  # rows and columns lack lines between others
        hull = _hull(hull)
    hull &= lattice
    rest = hull & ~zone
    there, lost = np.count_nonzero(rest), np.count_nonzero(rest & ~sampled)
    if lost > max(2, 0.1 * there) or (2 * lost >= there and not everything):
        return None
    return hull | zone


def _hull(mask):
    """Everything between marked points of a row or of a column."""
    between = np.zeros_like(mask)
    for axis in (0, 1):
        before = np.maximum.accumulate(mask, axis)
        after = np.flip(np.maximum.accumulate(np.flip(mask, axis), axis), axis)
        between |= before & after
    return between


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


def _shifted_lattices(regular):
    """Grids of a shifted lattice. Offsets of aliases are whole voxels if the number of lines of the other
    axis is a multiple of the period of the shift. Slots without a line are 0."""
    own = int(regular.shifts[1] > 0)
    other, shift = 1 - own, regular.shifts[own]
    step, round_by = regular.steps[own], regular.steps[own] // gcd(regular.shifts[own], regular.steps[own])
    extents = regular.expected.shape
    folded = [0, 0]
    folded[own] = ceil(extents[own] / step)
    folded[other] = round_by * ceil(extents[other] / (regular.steps[other] * round_by))
    start = _centred_start(regular.offsets[other], regular.steps[other], folded[other])
    back = (regular.offsets[other] - start) // regular.steps[other]  # along the lattice
    first = _centred_start(regular.offsets[own] - back * shift, step, folded[own])
    made = [Lattice(n, 0, f, f * n) for n, f in zip(regular.steps, folded)]
    made[other] = replace(made[other], offset=start)
    made[own] = replace(made[own], offset=first, shift=shift)
    return tuple(made)


def _centred_start(offset, step, folded):
    """The offset with which `folded` lines cover an axis, j = 0 at ``folded // 2``."""
    low = -(step // 2) if folded % 2 else 0
    return (offset - low) % step + low


def _covers(n, step, offset, folded):
    first, last = ceil((-(n // 2) - offset) / step), ((n - 1) // 2 - offset) // step
    return first >= -(folded // 2) and last <= (folded - 1) // 2


def calibration_block(sampled):
    """Largest box of fully sampled lines around k = 0.

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


def shifted_axis(lattices):
    """Axis with shifted lines, 0 for y and 1 for z; None for products of y and z."""
    return next((axis for axis, lattice in enumerate(lattices) if lattice.shift), None)


def shifts(lattices):
    """Shift of the lines of the shifted axis relative to its offset, for each line of the other axis."""
    own = shifted_axis(lattices)
    lattice, other = lattices[own], lattices[1 - own]
    moved = lattice.offset + lattice.shift * (np.arange(other.folded) - other.folded // 2)
    return _centred_start(moved, lattice.step, lattice.folded) - lattice.offset


def alias_offsets(lattices):
    """Offsets of the voxels that alias, for `ctessel.sense_recon`.

    Parameters
    ----------
    lattices : sequence of two Lattice
        For y and z.

    Returns
    -------
    ndarray of int, ``(alias, 2)``, or None
        None if aliases are products of those along y and along z.
    """
    own = shifted_axis(lattices)
    if own is None:
        return None
    lattice, other = lattices[own], lattices[1 - own]
    own_copies, copies = np.indices((lattice.step, other.step)).reshape(2, -1)
    offsets = np.empty((len(own_copies), 2), int)
    offsets[:, own] = lattice.folded * own_copies
    offsets[:, 1 - own] = other.folded * copies - lattice.shift * own_copies * other.folded // lattice.step
    return offsets


def fold_lines(kspace, lattices):
    """Only the regular lines of k-space, on the folded grid.

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
    own, folded = shifted_axis(lattices), kspace
    for axis, lattice in enumerate(lattices, 1):
        if axis - 1 != own and (lattice.step, kspace.shape[axis]) != (1, lattice.folded):
            folded = _taken(folded, axis, lattice)
    if own is not None:
        return _taken_shifted(folded, own + 1, lattices)
    return np.array(folded, order="F") if folded is kspace else folded


def _taken(kspace, axis, lattice):
    slots, lines = _slots(lattice, kspace.shape[axis])
    out = _empty(kspace, axis, lattice)
    before = (slice(None),) * axis
    out[(*before, slots)] = kspace[(*before, lines)]
    return out


def _taken_shifted(kspace, axis, lattices):
    lattice, across = lattices[axis - 1], 3 - axis
    out = _empty(kspace, axis, lattice)
    for line, shift in enumerate(shifts(lattices)):
        slots, lines = _slots(replace(lattice, offset=lattice.offset + int(shift)), kspace.shape[axis])
        to, source = [slice(None)] * 3, [slice(None)] * 3
        to[across] = source[across] = line
        to[axis], source[axis] = slots, lines
        out[tuple(to)] = kspace[tuple(source)]
    return out


def _empty(kspace, axis, lattice):
    shape = kspace.shape[:axis] + (lattice.folded,) + kspace.shape[axis + 1 :]
    return np.zeros(shape, np.complex64, order="F")


def _slots(lattice, extent):
    """Slots of the folded axis that have lines, and these lines, as slices."""
    start = lattice.offset - lattice.folded // 2 * lattice.step + extent // 2
    skipped = max(0, -(start // lattice.step))  # slots before the first line
    start += skipped * lattice.step
    count = max(0, min(lattice.folded - skipped, -((start - extent) // lattice.step)))
    return slice(skipped, skipped + count), slice(start, start + count * lattice.step, lattice.step)
