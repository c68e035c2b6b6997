"""Measured lines that do not fit the others: moved while they were measured, hit by a spike, or lost.

Unfolding explains the lines of all coils by one image. A line that was measured while the object lay
elsewhere is explained badly, or its neighbours are, which share sensitivities with it.
"""

from itertools import groupby

import numpy as np

#: Lines on each side of k = 0 that are judged: beyond them noise hides what does not fit.
REACH = 24
#: Lines on each side of a line that it is compared with.
NEAR = 5
#: Misfit of a line over those beside it and opposite of it from which on it is told. Measured heads and
#: phantoms (R = 2 to 4, condition up to 20) have up to 1.9; a head that moves by a voxel between two lines 1.9 to 5.
MISFIT = 2.5
#: Misfit over the energy of all lines that are judged below which nothing is to be seen: a two hundredth
#: of the image. Lines of noise-free phantoms have up to 7e-6, of a head that moves 1e-4 and more.
LEAST = 3e-5
#: Images that are named in warnings at most; the sidecar has all.
NAMED = 8


def misfit(unfolded, measured, there):
    """Energy of lines off what unfolding makes of them, over that of all lines that are judged.

    Parameters
    ----------
    unfolded, measured : ndarray of complex64, ``(x, y, 1, coil, echo, repetition)``
        k-space along y, the image along x: of the unfolded image with k = 0 first; of the
        measurement with k = 0 at ``N // 2``.
    there : ndarray of bool, ``(1, y, 1, 1, echo, repetition)``
        Lines that were measured.

    Returns
    -------
    ndarray of float64, ``(line, repetition)``
        Of the first echo, by `lines`; NaN for lines that were not measured.
    """
    n = measured.shape[1]
    at = lines(n)
    off, energy = np.zeros((2, at.size, measured.shape[5]))
    for coil in range(measured.shape[3]):  # which needs little memory
        own = measured[:, :, 0, coil, 0][:, at + n // 2]
        off += (np.abs(unfolded[:, :, 0, coil, 0][:, at % n] - own) ** 2).sum(0, dtype=np.float64)
        energy += (np.abs(own) ** 2).sum(0, dtype=np.float64)
    share = off / np.maximum(energy.sum(0), np.finfo(np.float64).tiny)
    return np.where(there[0, :, 0, 0, 0][at + n // 2], share, np.nan)


def lines(n):
    """Lines that are judged, from k = 0."""
    reach = min(REACH, (n - 1) // 2)
    return np.arange(-reach, reach + 1)


def odd(energies, lattice):
    """Lines that do not fit, from k = 0, and how much: pairs, of one column of `misfit`.

    Lines of the lattice, which the unfolding fits, are compared with such, calibration lines between them
    with theirs. What sensitivities cannot explain is the same on both sides of k = 0.
    """
    half, told = len(energies) // 2, []
    for own in (True, False):
        at = np.flatnonzero(np.isfinite(energies)) - half
        at = at[((at - lattice.offset) % lattice.step == 0) == own]
        if at.size > 2 * NEAR:
            told += _odd_ones(at, energies[at + half])
    return sorted(told)


def _odd_ones(at, values):
    for place, (line, value) in enumerate(zip(at.tolist(), values.tolist())):
        first = min(max(place - NEAR, 0), at.size - 2 * NEAR - 1)
        usual = np.median(values[first : first + 2 * NEAR + 1])
        distance = np.where(at == line, at.size + 2 * np.abs(at).max(), np.abs(at + line))
        usual = max(usual, values[np.argsort(distance, kind="stable")[:2]].max())
        if value > max(MISFIT * usual, LEAST):
            yield line, float(value / usual)


def entry(index, repetition, found):
    """What a sidecar says of an image with lines that do not fit."""
    at, times = zip(*found)
    return {"Slice": index, "Repetition": repetition, "Lines": list(at), "Misfit": [round(t, 2) for t in times]}


def warnings(entries):
    """What a user is told, a line for each image; `entries` are in the order of slices."""
    for told in entries[:NAMED]:
        one = len(told["Lines"]) == 1
        yield (
            f"slice {told['Slice']}, repetition {told['Repetition']}: line{'s' * (not one)} "
            f"{', '.join(f'{line:+d}' for line in told['Lines'])} from k = 0 {'does' if one else 'do'} not fit the "
            f"others, up to {max(told['Misfit']):.2g} times their error; motion or spikes around them blur the image"
        )
    rest = entries[NAMED:]
    if rest:
        slices = [str(index) for index, _ in groupby(rest, lambda told: told["Slice"])]
        yield (
            f"lines of {len(rest)} more images do not fit the others, of slices {', '.join(slices)}; the sidecar "
            "names them"
        )
