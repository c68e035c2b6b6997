"""Measured lines that do not fit the others, because of motion, spikes or lost lines.

Unfolding explains the lines of all coils by one image. If the object moved, that image does not explain
a line, or its neighbours, which share sensitivities with it.
"""

from itertools import groupby

import numpy as np

#: Lines on each side of k = 0 that are checked: beyond them noise hides misfits.
REACH = 24
#: Lines on each side with which a line is compared.
NEAR = 5
#: A line is reported if its misfit is so many times that of its neighbours and the opposite lines. Heads and
#: phantoms (R = 2 to 4, condition up to 20) have up to 1.9; a head that moves by a voxel, 1.9 to 5.
MISFIT = 2.5
#: A misfit below this share of the energy of the checked lines is invisible: a two hundredth of the image.
#: Lines of noise-free phantoms have up to 7e-6, those of a moving head 1e-4 and more.
LEAST = 3e-5
#: Largest number of images in warnings; the sidecar has all.
NAMED = 8


def misfit(unfolded, measured, there):
    """Energy of the difference of each line and the unfolded image, over that of all checked lines.

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
    """Lines that are checked, from k = 0."""
    reach = min(REACH, (n - 1) // 2)
    return np.arange(-reach, reach + 1)


def odd(energies, lattice):
    """Lines that do not fit, from k = 0, and their misfit: pairs, of one column of `misfit`.

    Lines of the sampling pattern, which the unfolding fits, are compared with each other, and so are the
    calibration lines between them. What sensitivities cannot explain is the same on both sides of k = 0.
    """
    half, found = len(energies) // 2, []
    for own in (True, False):
        at = np.flatnonzero(np.isfinite(energies)) - half
        at = at[((at - lattice.offset) % lattice.step == 0) == own]
        if at.size > 2 * NEAR:
            found += _odd_ones(at, energies[at + half])
    return sorted(found)


def _odd_ones(at, values):
    for place, (line, value) in enumerate(zip(at.tolist(), values.tolist())):
        first = min(max(place - NEAR, 0), at.size - 2 * NEAR - 1)
        usual = np.median(values[first : first + 2 * NEAR + 1])
        distance = np.where(at == line, at.size + 2 * np.abs(at).max(), np.abs(at + line))
        usual = max(usual, values[np.argsort(distance, kind="stable")[:2]].max())
        if value > max(MISFIT * usual, LEAST):
            yield line, float(value / usual)


def entry(index, repetition, found):
    """Entry of the sidecar for an image with lines that do not fit."""
    at, times = zip(*found)
    return {"Slice": index, "Repetition": repetition, "Lines": list(at), "Misfit": [round(t, 2) for t in times]}


def warnings(entries):
    """Warnings, one line for each image; `entries` are in the order of slices."""
    for entry in entries[:NAMED]:
        one = len(entry["Lines"]) == 1
        yield (
            f"slice {entry['Slice']}, repetition {entry['Repetition']}: line{'s' * (not one)} "
            f"{', '.join(f'{line:+d}' for line in entry['Lines'])} from k = 0 {'does' if one else 'do'} not fit the "
            f"others, up to {max(entry['Misfit']):.2g} times their error; motion or spikes around them blur the image"
        )
    rest = entries[NAMED:]
    if rest:
        slices = [str(index) for index, _ in groupby(rest, lambda entry: entry["Slice"])]
        yield (
            f"lines of {len(rest)} more images do not fit the others, of slices {', '.join(slices)}; the sidecar "
            "names them"
        )
