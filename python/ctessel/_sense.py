"""SENSE reconstruction and the geometry of folding."""

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core


def sense_recon(
    folded: ArrayLike,
    sens: ArrayLike,
    *,
    psi: ArrayLike | None = None,
    full_size: Sequence[int] | None = None,
    ref: ArrayLike | None = None,
    reg: ArrayLike | None = None,
    scale: float = 1.0,
    out: NDArray[np.complex64] | None = None,
    threads: int | None = None,
) -> NDArray[np.complex64]:
    """Unfold undersampled multi-coil images with coil sensitivities (SENSE).

    Each unfolded voxel is the noise-weighted least-squares solution
    ``(S^H Psi^-1 S + R)^-1 S^H Psi^-1`` of the coils' folded values.

    Parameters
    ----------
    folded : array_like, complex or real
        Folded images, ``(x, y, z, coil, ...)`` with up to 13 axes. Axis 7 is the location: it picks
        the sensitivities; all other axes from the fifth on share them.
    sens : array_like, complex
        Sensitivities, ``(x, y, z, coil)`` or ``(x, y, z, coil, location)``, at the resolution of the
        unfolded image or a lower one. A coil-0 real part of exactly 0 marks a voxel as empty.
    psi : ndarray of complex64, optional
        Noise covariance, ``(coil, coil)``. By default the identity. Any unit without regularisation;
        with it, ``psi[c, c]`` is the mean squared magnitude of the noise in `folded`: ``k * psi``
        regularises as ``1 / k`` of the weight.
    full_size : sequence of 3 int, optional
        Unfolded extents along x, y, z: that of `folded` along x, at least those of `folded` along
        y and z; the quotients need not be whole. By default the extents of `sens` along y and z.
    ref, reg : array_like, complex or real, optional
        Both together switch on regularisation: `reg` is an image on the grid of `sens`,
        ``(x, y, z[, location])``, whose squared magnitude is the expected signal power; the weight
        follows from the level of `folded` against that of the reference image `ref`.
    scale : float, optional
        Divisor of the folded level in that weight.
    out : ndarray of complex64, optional
        Array of the result's shape, overwritten. It must not overlap the other arrays.
    threads : int, optional
        Threads of this call; they share the columns along x.

    Returns
    -------
    ndarray of complex64
        Unfolded image, ``full_size`` and then the axes of `folded` behind its coils; 0 where no
        sensitivity is known.

    Raises
    ------
    RuntimeError
        The kernel refused the extents.

    Notes
    -----
    Factors are formed line by line and applied to all volumes while they are in the cache: beyond inputs
    and result a call needs up to 13 MiB per thread, for up to 1400 pairs of a coil and an alias.

    References
    ----------
    K. P. Pruessmann et al., "SENSE: sensitivity encoding for fast MRI", Magn. Reson. Med. 42:952
    (1999).
    """
    return _core.sense_recon(folded, sens, psi, full_size, ref, reg, scale, out, threads)


def folded_pos(pos: int, full_len: int, fold_len: int) -> int:
    """Folded line (0-based) on which line `pos` of `full_len` lands, folded to `fold_len` lines.

    The full lines are centred on the folded ones: line ``ceil((full_len - fold_len) / 2)`` is
    folded line 0.
    """
    return _core.folded_pos(pos, full_len, fold_len)


def unfolded_positions(full_len: int, fold_len: int, fold_pos: int) -> NDArray[np.int32]:
    """Full lines that land on folded line `fold_pos`, in the kernels' order.

    Returns
    -------
    ndarray of int32
        Lines below the central copy, nearest first, then the central one and those above it.

    Examples
    --------
    >>> import ctessel
    >>> ctessel.unfolded_positions(256, 64, 40)
    array([ 72,   8, 136, 200], dtype=int32)
    """
    return _core.unfolded_positions(full_len, fold_len, fold_pos)


def compartments(full_len: int, fold_len: int) -> tuple[float, float]:
    """Folded lines after which the number of aliased lines changes.

    Returns
    -------
    tuple of two float
        Lower and upper boundary; -1 where there is none.
    """
    return _core.compartments(full_len, fold_len)
