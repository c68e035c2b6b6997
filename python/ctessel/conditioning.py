"""How well the coils separate aliases, and how regularisation changes the intensity of an image."""

from dataclasses import dataclass
from itertools import product

import numpy as np

from ._sense import unfolded_positions
from .sampling import alias_offsets
from .steps import by_set

#: If the condition of the equations is higher in half of the object, the coils hardly separate aliases:
#: measured heads with 16 coils have 2, 4 and 16 for R = 2, 3 and 4, and 1100 for R = 6.
MOST = 100
#: Below this response the intensity is corrected, if no measured lines keep it.
KEPT = 0.99
#: Below this response there is a warning.
LEAST = 0.9
#: Largest number of planes across the readout that are evaluated.
PLANES = 8


@dataclass(frozen=True)
class Conditioning:
    """Median condition of the equations in the object, and the part of the unfolded intensity that
    regularisation keeps."""

    condition: float
    response: float

    @property
    def gain(self):
        """The factor that corrects the intensity for the regularisation."""
        return np.float32(1 / self.response if 0 < self.response < KEPT else 1)

    @property
    def explains(self):
        """Whether the unfolded image explains the lines: aliases can be separated, and regularisation
        keeps the intensity."""
        return self.condition <= MOST and self.response >= LEAST


def planes(extent):
    """Planes that are evaluated, spread over the extent of the readout."""
    count = min(extent, PLANES)
    return (np.arange(count) * extent + extent // 2) // count


def look(parts, lattices, covariance=None):
    """The `Conditioning` of some planes.

    Parameters
    ----------
    parts : iterable of tuple of three ndarray
        Of each plane or of several, ``(x, y, z, coil[, set])`` and ``(x, y, z)``: sensitivities; an image,
        whose energy is the weight of each voxel; what regularisation adds to the equations.
    lattices : sequence of two Lattice
    covariance : ndarray of complex64, ``(coil, coil)``, optional
        Of the noise; by default the identity.
    """
    inverse = None
    if covariance is not None:
        inverse = np.linalg.inv(np.linalg.cholesky(covariance.astype(np.complex128))).T
    conditions, left, whole = [np.ones(0)], 0.0, 0.0
    for maps, expected, diagonal in parts:
        maps = np.moveaxis(by_set(maps), 4, 3)  # (x, y, z, set, coil)
        white = maps.astype(np.complex128) if inverse is None else maps @ inverse
        condition, response = _planes(white, diagonal, lattices)
        inside = (maps[:, :, :, 0] != 0).any(3)
        energy = np.where(inside, np.abs(expected).astype(np.float64) ** 2, 0)
        conditions.append(condition[inside])
        left, whole = left + (response * energy).sum(), whole + energy.sum()
    found = np.concatenate(conditions)
    return Conditioning(float(np.median(found)) if found.size else 1.0, float(left / whole) if whole > 0 else 1.0)


def _planes(white, diagonal, lattices):
    """Condition and response of every voxel."""
    condition, response = np.zeros((2, *white.shape[:3]))
    for at in _together(lattices):
        condition[at], response[at] = _equations(white[at], diagonal[at])
    return condition, response


def _together(lattices):
    """Indices of voxels that alias together, ``(x, group y, group z, y, z)``."""
    offsets = alias_offsets(lattices)
    if offsets is None:
        for y, z in product(*map(_groups, lattices)):
            yield slice(None), y[:, None, :, None], z[:, None, :]
        return
    first = np.indices([lattice.folded for lattice in lattices])[..., None, None]
    y, z = ((at + offset[:, None]) % lattice.full for at, offset, lattice in zip(first, offsets.T, lattices))
    yield slice(None), y, z


def _groups(lattice):
    """Lines that alias together, ``(group, line)``, for each number of them."""
    groups = {}
    for at in range(lattice.folded):
        together = unfolded_positions(lattice.full, lattice.folded, at)
        groups.setdefault(len(together), []).append(together)
    return map(np.array, groups.values())


def _equations(white, diagonal):
    """Condition of the equations of each group of aliases, and the response of every alias."""
    voxels, sets = white.shape[3] * white.shape[4], white.shape[-2]
    aliases = voxels * sets
    white = white.reshape(-1, aliases, white.shape[-1])
    there, unit = (white != 0).any(2), np.eye(aliases)
    matrix = white.conj() @ white.transpose(0, 2, 1)
    scale = np.abs(matrix).max((1, 2), keepdims=True)
    scale[scale == 0] = 1
    matrix = matrix / scale + ~there[:, :, None] * unit  # voxels outside of the object have no weight
    values = np.linalg.eigvalsh(matrix)
    added = (
        np.repeat(diagonal.reshape(-1, voxels, 1), sets, 1) / scale + np.finfo(np.float64).eps * values[:, -1:, None]
    )
    unfolding = np.linalg.solve(matrix + added * unit, matrix)
    condition = values[:, -1:] / np.maximum(values[:, :1], 1e-12 * values[:, -1:])
    own = np.einsum("gaa->ga", unfolding).real[:, ::sets]  # that of the first set
    return (a.reshape(diagonal.shape) for a in (np.broadcast_to(condition, own.shape), own))


def warnings(figures, reduction):
    """Warnings about `condition` and `response` of the slices, one line each."""
    worst = max(figures.get("condition", []), default=1.0)
    if worst > MOST:
        yield (
            f"SENSE: R = {reduction} is more than the coils can unfold: the condition of the equations is "
            f"{worst:.0f}; expect noise and aliases, and measure more lines"
        )
    least = min(figures.get("response", []), default=1.0)
    if least < LEAST:
        yield (
            f"regularisation: keeps {100 * least:.0f} % of the intensity of the unfolded image; use less of it, or "
            "measure more lines"
        )
