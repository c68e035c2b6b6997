"""Circular shifts, zero padding and the ringing filter."""

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core


def fftshift(
    data: ArrayLike,
    axes: int | Sequence[int] | None = None,
    *,
    out: NDArray[Any] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[Any]:
    """Move the first sample of each axis to its centre, index ``N // 2``.

    Parameters
    ----------
    data : array_like, complex or real
        Any shape of one or more axes.
    axes : int or sequence of int, optional
        Axes to shift. By default the first three, x, y and z, as far as they exist.
    out : ndarray, optional
        Array of the same shape and type for the result; may be `data` itself.
    inplace : bool, optional
        Write the result into `data`.
    threads : int, optional
        Threads of this call; they share the lines beyond the shifted axis in memory.

    Returns
    -------
    ndarray
        Shifted array; a new one has the memory order of `data`. Bits of values do not change.

    See Also
    --------
    ifftshift : the inverse, for even and odd extents.

    Examples
    --------
    >>> import numpy as np, ctessel
    >>> ctessel.fftshift(np.arange(5, dtype=np.float32))
    array([3., 4., 0., 1., 2.], dtype=float32)
    """
    return _core.fftshift(data, axes, out, inplace, threads)


def ifftshift(
    data: ArrayLike,
    axes: int | Sequence[int] | None = None,
    *,
    out: NDArray[Any] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[Any]:
    """Move the centre of each axis, index ``N // 2``, to its first sample.

    The inverse of `fftshift`, with the same parameters and result.

    Examples
    --------
    >>> import numpy as np, ctessel
    >>> ctessel.ifftshift(np.arange(5, dtype=np.float32))
    array([2., 3., 4., 0., 1.], dtype=float32)
    """
    return _core.ifftshift(data, axes, out, inplace, threads)


def zero_pad(
    data: ArrayLike,
    shape: Sequence[int],
    *,
    out: NDArray[Any] | None = None,
    threads: int | None = None,
) -> NDArray[Any]:
    """Place an array in the centre of a larger one filled with zeros.

    Along an axis of d samples padded to n, sample i goes to ``i + ceil((n - d) / 2)``: index
    ``d // 2`` stays the centre for odd d or even n, and an odd spare zero goes in front.

    Parameters
    ----------
    data : array_like, complex or real
        k-space or image, ``(x, y, z, ...)``.
    shape : sequence of int
        New extents of the first one, two or three axes, none smaller than before.
    out : ndarray, optional
        Array of the padded shape for the result. It is overwritten, with zeros around the data. It must
        not overlap `data`.
    threads : int, optional
        Threads of this call.

    Returns
    -------
    ndarray
        Padded array, values copied and never scaled.

    Examples
    --------
    >>> import numpy as np, ctessel
    >>> ctessel.zero_pad(np.float32([7, 8]), [5])
    array([0., 0., 7., 8., 0.], dtype=float32)
    """
    return _core.zero_pad(data, shape, out, threads)


def ringing_filter(
    data: ArrayLike,
    strength: float | Sequence[float],
    width: Sequence[int] | None = None,
    *,
    out: NDArray[Any] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[Any]:
    """Multiply centred k-space by a cosine window against truncation (Gibbs) ringing.

    Along each of the first three axes the weight is ``0.54 + 0.46 cos(2 pi j / L)``, j counted
    from the centre ``N // 2``, with L such that the weight at ``j = width / 2`` is
    ``1 - strength``. Samples outside the central `width` become 0. An even window ends a sample earlier
    on the positive side. Strength 0.915 is close to a full Hamming window.

    Parameters
    ----------
    data : array_like, complex or real
        Centred k-space, ``(x, y, z, ...)``.
    strength : float or sequence of float
        Drop of the weight at the window's edge, 0 (none) to 0.915, for all axes or for each of
        them; values outside count as the nearer bound.
    width : sequence of int, optional
        Window widths in samples. By default the whole extents.
    out, inplace, threads
        As for `fftshift`.

    Returns
    -------
    ndarray
        Weighted k-space.

    Notes
    -----
    Beyond data and result a call takes 68 KiB per thread, or a row of weights where that is more.

    References
    ----------
    F. J. Harris, "On the use of windows for harmonic analysis with the discrete Fourier
    transform", Proc. IEEE 66:51 (1978).
    """
    return _core.ringing_filter(data, strength, width, out, inplace, threads)
