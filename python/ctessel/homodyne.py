"""Homodyne reconstruction of partial-Fourier data.

There are three steps. `filter` weights k-space and returns its symmetric centre. The caller transforms
both to images. `multiply` removes the phase of the low-resolution image.

>>> import numpy as np, ctessel
>>> from ctessel import homodyne
>>> def image(k):
...     k = np.fft.ifft2(ctessel.ifftshift(k), axes=(0, 1)).astype(np.complex64)
...     return ctessel.fftshift(k)
>>> kspace = np.ones((128, 128, 1, 4), np.complex64)
>>> kspace[:, :44] = 0                                         # lines -64 to -21 were not measured
>>> weighted, centre = homodyne.filter(kspace, ky=(-20, 63))
>>> low = ctessel.zero_pad(centre, kspace.shape[:3])
>>> centre.shape, low.shape
((128, 41, 1, 4), (128, 128, 1, 4))

Method: D. C. Noll, D. G. Nishimura, A. Macovski, "Homodyne detection in magnetic resonance
imaging", IEEE Trans. Med. Imaging 10:154 (1991).
"""

import warnings
from collections.abc import Sequence
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core

__all__ = ["Filtered", "HomodyneWarning", "calculate_filter", "filter", "multiply"]


class HomodyneWarning(RuntimeWarning):
    """An operation succeeded, but part of its result is unusable for a reconstruction."""


class Filtered(NamedTuple):
    """Result of `filter`."""

    weighted: NDArray[Any]
    centre: NDArray[np.complex64]


def filter(
    data: ArrayLike,
    *,
    kx: Sequence[float] | None = None,
    ky: Sequence[float] | None = None,
    kz: Sequence[float] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> Filtered:
    """Weight partial-Fourier k-space and extract its symmetric centre.

    Parameters
    ----------
    data : array_like, complex or real
        Centred k-space, ``(kx, ky, kz, ...)``.
    kx, ky, kz : sequence of two float, optional
        First and last measured line along an axis, whole numbers counted from the centre (line 0
        is index ``N // 2``). None, or a range with ``|first + last| <= 1``, leaves the axis unchanged.
        The missing lines must be on the negative side, and at least 0.55 of the extent measured.
        `ctessel.homodyne_recon` mirrors an axis if the other side is missing.
    inplace : bool, optional
        Weight `data` itself.
    threads : int, optional
        Threads of this call; they share the axes beyond the third.

    Returns
    -------
    weighted : ndarray
        `data` times the F-th root of the product of the weightings of F axes: 0 on the missing
        side, a ramp across the centre, 2 beyond.
    centre : ndarray of complex64
        The unweighted symmetric centre. ``zero_pad(centre, data.shape[:3])`` restores its place.

    Raises
    ------
    ValueError
        A range is not on the axis, or the filter cannot use it.

    Notes
    -----
    Beyond data and result a call takes 68 KiB per thread, or a row of weights where that is more.
    """
    return Filtered(*_core.filter(data, kx, ky, kz, inplace, threads))


def multiply(
    data: ArrayLike,
    low: ArrayLike,
    *,
    out: NDArray[Any] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[Any]:
    """Remove the phase of a low-resolution image and keep the real part.

    Parameters
    ----------
    data : array_like, complex or real
        Image of the weighted k-space, ``(x, y, z, ...)``.
    low : array_like, complex or real
        Low-resolution image L with as many axes, equal from the fourth on; resampled trilinearly
        over the first three where any of those differs.
    out : ndarray, optional
        Array of the shape and type of `data` for the result; may be `data` itself.
    inplace : bool, optional
        Write the result into `data`.
    threads : int, optional
        Threads of this call; they share the axes beyond the third.

    Returns
    -------
    ndarray
        ``Re(data conj(L) / |L|)``; the imaginary parts are 0.

    Warns
    -----
    HomodyneWarning
        L is 0 or not finite at some samples; these became NaN.
    """
    result, lost = _core.multiply(data, low, out, inplace, threads)
    if lost > 0:
        warnings.warn(
            f"low: zero or not finite at {lost} samples, which became NaN",
            HomodyneWarning,
            stacklevel=2,
        )
    return result


def calculate_filter(
    n: int,
    range: Sequence[float],
) -> tuple[NDArray[np.float32], tuple[int, int]] | None:
    """Homodyne weighting of one axis.

    Parameters
    ----------
    n : int
        Samples of the axis.
    range : sequence of two float
        First and last measured line from the centre; truncated toward zero.

    Returns
    -------
    (weights, (first, last)) or None
        Weights as float32, and the positions that the symmetric centre keeps; None for a rejected range.
    """
    return _core.calculate_filter(n, range)
