"""How many sets of sensitivities a calibration needs: a second one where the object folds onto itself.

In a field of view that is smaller than the object a voxel holds two places, which coils see differently.
One set of sensitivities is that of their mixture at the calibration's centre; lines farther out, which
show other details of both, do not fit it.
"""

from typing import NamedTuple

import numpy as np

from .steps import by_set, calibration_residual

#: What may be asked for.
KINDS = ("auto", 1, 2)
#: Residual of all calibration lines over that of the smoothed ones beyond which a second set is tried. Measured
#: heads have 0.9; with fields of view cut to three quarters and less 1.6 to 12.
SHARPER = 1.3
#: A second set is taken if it leaves less of the residual of all lines than this share of what any direction among
#: the coils leaves of noise. Noise alone leaves 0.88 and more, measured scans of whole fields of view as well, of
#: fields cut to three quarters and less 0.08 to 0.82.
LEFT = 0.85


class Residual(NamedTuple):
    """Shares of the calibration that sensitivities do not explain: of smoothed lines, by one set; of all
    lines as they are, by one set and by all that were made."""

    smooth: float
    one: float
    every: float


class Choice(NamedTuple):
    """How many sets are used, and the shares of the calibration that one and two do not explain; None where
    two were not tried."""

    sets: int
    one: float
    two: float | None

    def figures(self):
        """As an array, which workers send."""
        return np.array([self.sets, self.one, np.nan if self.two is None else self.two])


def sums(maps, smooth, sharp):
    """What `residual` adds up.

    Parameters
    ----------
    maps : ndarray of complex64, ``(x, y, z, coil)`` or ``(x, y, z, coil, set)``
    smooth, sharp : ndarray of complex64, ``(x, y, z, coil)``
        Images of the calibration lines under a window, and as they are.

    Returns
    -------
    ndarray of float64, ``(3, 2)``
        Energy that is not explained, and all energy, by the entries of `Residual`.
    """
    first = by_set(maps)[..., 0]
    pairs = ((first, smooth), (first, sharp), (maps, sharp))
    return np.stack([calibration_residual(*pair)[1].sum(0) for pair in pairs])


def residual(found):
    """The `Residual` of sums."""
    return Residual(*(float(lost / energy) if energy > 0 else 0.0 for lost, energy in found))


def choose(asked, look, coils):
    """How many sets are used.

    Parameters
    ----------
    asked : {"auto", 1, 2}
    look : callable
        Makes a number of sets and gives their `Residual`.
    coils : int

    Returns
    -------
    Choice or None
        None where one set is asked for.
    """
    if asked == 1:
        return None
    if asked == "auto":
        found = look(1)
        if found.one <= SHARPER * found.smooth:
            return Choice(1, found.one, None)
    found = look(2)
    of_noise = 1 - 1 / (coils - 1)
    helps = asked == 2 or found.every < LEFT * of_noise * found.one
    return Choice(1 + helps, found.one, found.every)


def check(asked, given, patterns, coils):
    """Refuse two sets where there can be none; the message says how to fix it."""
    if asked not in KINDS:
        raise ValueError(f'map_sets: expected "auto", 1 or 2, got {asked!r}')
    if asked == "auto":
        return
    if given is not None:
        raise ValueError("map_sets: the file of sensitivities says how many sets there are; leave --map-sets out")
    for pattern in patterns:
        if asked == 2 and pattern.unfolds and allowed(asked, pattern, coils) == 1:
            raise ValueError(
                f"map_sets: two sets need whole reductions along y and z, no more than half of the {coils} coils; "
                "choose --map-sets 1"
            )


def allowed(asked, pattern, coils):
    """What a pattern of lines allows of what is asked for."""
    steps = [lattice.reduction for lattice in pattern.lattices]
    whole = all(lattice.full % lattice.folded == 0 for lattice in pattern.lattices)
    return asked if whole and 2 * float(np.prod([float(step) for step in steps])) <= coils else 1


def warnings(asked, figures):
    """What a user is told who has not asked for two sets."""
    pairs = list(zip(figures.get("map_sets", []), figures.get("unexplained", [])))
    used = [shares for count, shares in pairs if count == 2]
    if asked != "auto" or not used:
        return
    one, two = max(used)
    yield (
        f"sensitivities: in {len(used)} of {len(pairs)} calibrated slices the object folds onto itself, as in a field of "
        f"view that is too small: one set leaves up to {100 * one:.2g} % of the calibration unexplained, two "
        f"{100 * two:.2g} %; two are used; measure a wider field, or take one with --map-sets 1"
    )
