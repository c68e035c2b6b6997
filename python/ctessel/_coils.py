"""Coil combination."""

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core


def sos(
    data: ArrayLike,
    axis: int = 3,
    *,
    out: NDArray[np.float32] | None = None,
    threads: int | None = None,
) -> NDArray[np.float32]:
    """Combine coil images by the root of their sum of squares.

    Parameters
    ----------
    data : array_like, complex or real
        Coil images, ``(x, y, z, coil, ...)``.
    axis : int, optional
        The coils' axis.
    out : ndarray of float32, optional
        Array of the result's shape, overwritten. It must not overlap `data`.
    threads : int, optional
        Threads of this call; they share the voxels.

    Returns
    -------
    ndarray of float32
        Magnitude, in the shape of `data` without the coils' axis. The sum runs over the coils in order and
        is rounded to single precision at every step. If it exceeds 3.4e38, the range of float32, the
        magnitude is infinite. Scale samples above 1e18 down first.

    References
    ----------
    P. B. Roemer et al., "The NMR phased array", Magn. Reson. Med. 16:192 (1990).
    """
    return _core.sos(data, axis, out, threads)


def pcsos(
    data: ArrayLike,
    axis: int = 3,
    *,
    out: NDArray[np.complex64] | None = None,
    threads: int | None = None,
) -> NDArray[np.complex64]:
    """Combine coil images by the root of their sum of squares, with a phase.

    The phase is that of the sum of the coil images, each weighted with its magnitude averaged over
    the tenth axis (for example repetitions), so that all images along that axis get the same weights.

    Parameters
    ----------
    data : array_like, complex or real
        Coil images, ``(x, y, z, coil, ...)``; axes up to the tenth that are missing count as 1.
    axis : int, optional
        The coils' axis.
    out : ndarray of complex64, optional
        Array of the result's shape, overwritten. It must not overlap `data`.
    threads : int, optional
        Threads of this call; they share the voxels.

    Returns
    -------
    ndarray of complex64
        Combined image, in the shape of `data` without the coils' axis; 0 where all coils are 0.
        The range is that of `sos`.
    """
    return _core.pcsos(data, axis, out, threads)
