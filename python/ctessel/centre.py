"""Finds k = 0 if the header disagrees with the energy of k-space and the calibration lines.

Some converters write the middle of the measured lines, which makes a partial scan look complete.
"""

import numpy as np

#: The strongest line is k = 0 if its energy is so many times that of the header's k = 0.
CLEAR = 10
#: Lines by which the middle of the calibration may differ.
NEAR = 2


def lines_through(found, axis):
    """Acquisitions of the first image along an axis (1 or 2), through the header's k = 0."""
    scan = found.scan
    first = scan.which & (scan.slice == 0) & (scan.echo == 0) & (scan.repetition == 0)
    if scan.shape[axis] == 1 or not first.any():
        return np.array([], int)
    other = np.abs((scan.z, scan.y)[axis - 1] - scan.shape[3 - axis] // 2)
    return np.flatnonzero(first & (other == other[first].min()))


def moved(found, axis, numbers, energies):
    """Lines by which k = 0 differs from the header; 0 without clear evidence.

    Parameters
    ----------
    found : Contents
    axis : int
        1 (y) or 2 (z).
    numbers : ndarray of int
        Acquisitions along this axis.
    energies : ndarray
        Of each of them.
    """
    n = found.scan.shape[axis]
    places = (found.scan.y if axis == 1 else found.scan.z)[numbers] - n // 2
    at = int(places[energies.argmax()])
    if abs(at) < max(4, n // 25):
        return 0
    near = energies[np.abs(places) <= 1]
    if near.size and energies.max() < CLEAR * near.max():
        return 0
    middle = _middle_of_calibration(found, axis)
    if middle is not None:
        if abs(middle - at) > NEAR:
            return 0  # the flags of the file disagree
        at = middle
    # The echo may be a line or two off k = 0; the extent of the grid corrects this.
    low, high = places.max() - (n - 1) // 2, places.min() + n // 2
    inside = min(max(at, low), high)
    return int(inside) if low <= high and abs(inside - at) <= NEAR else 0


def _middle_of_calibration(found, axis):
    flagged = np.flatnonzero(found.flagged.any(2 - axis))
    measured = np.flatnonzero((found.scan.times > 0).any((2, 3, 4)).any(2 - axis))
    if not 8 <= flagged.size < measured.size:
        return None
    return int(flagged[0] + (flagged[-1] - flagged[0] + 1) // 2 - found.scan.shape[axis] // 2)
