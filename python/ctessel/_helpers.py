"""Grids, interpolation, rounding, indices and search."""

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core


def linspace(start: float, stop: float, n: int) -> NDArray[np.float32]:
    """Grid of `n` float32 values from `start` on, about evenly spaced up to `stop`.

    The step is added up in double precision, so the last value approximates `stop` without being
    forced to it; for n = 1 the grid is `start`.
    """
    return _core.linspace(start, stop, n)


def linear_interpolation(
    volume: ArrayLike,
    x: ArrayLike,
    y: ArrayLike,
    z: ArrayLike = 0.0,
) -> NDArray[Any]:
    """Trilinear interpolation of a volume.

    Parameters
    ----------
    volume : array_like, complex or real
        Up to three axes, ``(x, y, z)``.
    x, y, z : float or array_like
        Positions in samples from the first one, broadcast against each other; taken in single
        precision.

    Returns
    -------
    ndarray
        Values in the type of `volume` and the shape of the positions. Samples past the end of the
        volume's memory count as 0, and a step past the end of a row reads the first sample of the
        next row: stay within the extents, or on them, for values without surprises.
    """
    at = _broadcast(_real(x, "x"), _real(y, "y"), _real(z, "z"))
    out = np.empty(at[0].shape, np.complex64 if np.iscomplexobj(volume) else np.float32)
    _core.linear_interpolation(volume, *at, out)
    return out


def pos2interpolate(pos: float, idx: int, A: Sequence[float], B: Sequence[float]) -> float:
    """Coordinate at which to interpolate for sample `idx`, whose plain coordinate is `pos`.

    `A` holds the last samples before two jumps of a folding pattern and `B` their coordinates on the
    other grid, -1 marking a missing one. Samples next to a jump are snapped to it, and a coordinate
    that has crossed it is pulled back.
    """
    return _core.pos2interpolate(pos, idx, A, B)


def round(x: ArrayLike) -> Any:
    """Nearest integer with halves up for x >= 0; negative values round toward zero.

    NaN and values outside 32 bits give -2147483648.

    Examples
    --------
    >>> import ctessel
    >>> ctessel.round(2.5), ctessel.round(-2.7)
    (3, -2)
    """
    values = np.asarray(x)
    if values.dtype == np.float32:
        return _core.round_float(values)
    if values.dtype.kind not in "fiu":
        raise TypeError(f"x: expected real numbers, got {values.dtype}")
    return _core.round(values)


def sub2ind(dims: Sequence[int], sub: Sequence[int]) -> int:
    """Linear index of the 0-based subscript `sub` in an array of extents `dims`, first axis fastest."""
    return _core.sub2ind(dims, sub)


def find(array: NDArray[np.integer[Any]], value: int) -> int:
    """Index of the first entry of `array` that equals `value`, or -1.

    `array` has one axis and is of type int16, uint16, int32 or uint32.
    """
    return _core.find(array, value)


def sa(data: ArrayLike) -> float:
    """Root-mean-square magnitude of an array of complex64 or float32, summed in 80 bits on x86."""
    return _core.sa(data)


def _broadcast(*arrays):
    """As np.broadcast_arrays, without its overhead for arrays of one shape and for numbers."""
    shape = np.broadcast(*arrays).shape
    return [a if a.shape == shape else np.broadcast_to(a, shape) if a.ndim else np.full(shape, a) for a in arrays]


def _real(value, name):
    values = np.asarray(value)
    if values.dtype.kind not in "fiu":
        raise TypeError(f"{name}: expected real numbers, got {values.dtype}")
    return values.astype(np.float32, copy=False)
