"""SENSE reconstruction and the geometry of folding."""

from collections.abc import Sequence
from typing import Any, Literal, overload

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core

_Offsets = Sequence[Sequence[int]] | NDArray[np.integer[Any]]


def sense_recon(
    folded: ArrayLike,
    sens: ArrayLike,
    *,
    psi: ArrayLike | None = None,
    full_size: Sequence[int] | None = None,
    ref: ArrayLike | None = None,
    reg: ArrayLike | None = None,
    scale: float = 1.0,
    weight: float | None = None,
    mask: ArrayLike | None = None,
    aliases: _Offsets | None = None,
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
        Sensitivities, ``(x, y, z, coil[, location[, set]])``, at the resolution of the unfolded image or a
        lower one. A coil-0 real part of exactly 0 marks a voxel as empty. Several sets, for voxels in
        which the object folds onto itself, are unfolded together (soft SENSE); they have the extents of
        the image along y and z, which are multiples of those of `folded`.
    psi : array_like, optional
        Noise covariance, ``(coil, coil)``, Hermitian, without an eigenvalue 0. By default the identity.
        Without regularisation its unit does not matter. With regularisation, ``psi[c, c]`` is the mean
        squared magnitude of the noise in `folded`: ``k * psi`` acts like ``1 / k`` of the weight.
    full_size : sequence of 3 int, optional
        Unfolded extents along x, y, z: that of `folded` along x, at least those of `folded` along
        y and z; the quotients need not be whole. By default the extents of `sens` along y and z.
    ref, reg : array_like, complex or real, optional
        Give both to switch on regularisation. `reg` is an image on the grid of `sens`,
        ``(x, y, z[, location[, set]])``; its squared magnitude is the expected signal power. The weight
        follows from the intensity of `folded` relative to that of the reference image `ref`.
    scale : float, optional
        Divisor of the folded intensity in that weight; not 0.
    weight : float, optional
        The weight itself, above 0, instead of `ref` and `scale`: ``R`` has ``1 / (|reg|^2 weight)`` on its
        diagonal, 0 where `reg` is 0.
    mask : array_like, real or bool, optional
        ``(x, y, z[, location[, set]])`` on the grid of `sens`: not 0 where a voxel is in the object. Each voxel
        counts by itself. By default, coil 0 marks the first voxel of a column along y, and all
        later voxels of that column count as well.
    aliases : sequence of two int each, optional
        Which voxels alias, for sampling patterns that are not a product of y and z (CAIPIRINHA): offsets
        along y and z in unfolded voxels, the same for every folded voxel and cyclic. Alias k of folded
        voxel (y, z) is voxel ``(y + (Y - y_folded + 1) // 2 + aliases[k][0]) % Y``, and so on along z.
        Every voxel must occur exactly once, and `sens` must have the extents of the image along y and z.
        By default the aliases are multiples of the folded extents away along y and along z.
    out : ndarray of complex64, optional
        Array of the result's shape, overwritten. It must not overlap the other arrays.
    threads : int, optional
        Threads of this call, 1 to 1024; they share the columns along x.

    Returns
    -------
    ndarray of complex64
        Unfolded image: ``full_size``, the set if `sens` has that axis, then the axes of `folded` after the
        coils. 0 where no sensitivity is known. The magnitude of several sets is the root of their sum of
        squares: `ctessel.sos` along axis 3.

    Raises
    ------
    ValueError
        Extents do not fit each other. The message names the argument.

    Notes
    -----
    Factors are formed line by line and applied to all volumes while they are in the cache: beyond inputs
    and result a call needs up to 13 MiB per thread, for up to 1400 pairs of a coil and an alias.

    References
    ----------
    K. P. Pruessmann et al., "SENSE: sensitivity encoding for fast MRI", Magn. Reson. Med. 42:952
    (1999).

    F. A. Breuer et al., "Controlled aliasing in volumetric parallel imaging (2D CAIPIRINHA)", Magn.
    Reson. Med. 55:549 (2006).
    """
    return _core.sense_recon(folded, sens, psi, full_size, ref, reg, scale, weight, mask, aliases, out, threads)


_Image = NDArray[np.float32]


@overload
def sense_noise(
    sensitivities: ArrayLike,
    *,
    psi: ArrayLike | None = None,
    full_size: Sequence[int],
    fold_size: Sequence[int],
    reg: ArrayLike | None = None,
    weight: float = 1.0,
    mask: ArrayLike | None = None,
    aliases: _Offsets | None = None,
    response: Literal[False] = False,
    threads: int | None = None,
) -> tuple[_Image, _Image, _Image]:
    ...


@overload
def sense_noise(
    sensitivities: ArrayLike,
    *,
    psi: ArrayLike | None = None,
    full_size: Sequence[int],
    fold_size: Sequence[int],
    reg: ArrayLike | None = None,
    weight: float = 1.0,
    mask: ArrayLike | None = None,
    aliases: _Offsets | None = None,
    response: Literal[True],
    threads: int | None = None,
) -> tuple[_Image, _Image, _Image, _Image]:
    ...


def sense_noise(
    sensitivities: ArrayLike,
    *,
    psi: ArrayLike | None = None,
    full_size: Sequence[int],
    fold_size: Sequence[int],
    reg: ArrayLike | None = None,
    weight: float = 1.0,
    mask: ArrayLike | None = None,
    aliases: _Offsets | None = None,
    response: bool = False,
    threads: int | None = None,
) -> tuple[_Image, ...]:
    """Noise after unfolding: g-factor, standard deviation and condition of each voxel.

    With the sensitivities S of the voxels that alias, ``A = S^H Psi^-1 S`` and the factors
    ``U = (A + R)^-1 S^H Psi^-1`` that `sense_recon` applies, ``sd = sqrt([U Psi U^H]_ii)`` and
    ``g = sd sqrt(A_ii)``. These formulas are evaluated; no random numbers are used.

    Parameters
    ----------
    sensitivities : array_like, complex
        ``(x, y, z, coil[, location[, set]])``, image domain, on any grid over the unfolded field of
        view; several sets on that of the image.
    psi : array_like, optional
        Noise covariance of the folded images, ``(coil, coil)``, ``psi[c, c]`` the mean squared
        magnitude. By default the identity.
    full_size, fold_size : sequence of 3 int
        Extents x, y, z of the unfolded and of the folded image: at least 1, the same along x, those
        of the unfolded one no smaller along y and z.
    reg, weight : array_like and float, optional
        Regularisation ``R = 1 / (|reg|^2 weight)``, as for `sense_recon`; the weight is above 0.
    mask : array_like, real or bool, optional
        Voxels in the object, as for `sense_recon`, which should be given the same. By default
        those that any coil sees.
    aliases : sequence of two int each, optional
        Offsets of the voxels that alias, as for `sense_recon`.
    response : bool, optional
        Also return the response.
    threads : int, optional
        Threads of this call; they share the columns along x.

    Returns
    -------
    g : ndarray of float32, ``(X, Y, Z[, location[, set]])``
        Noise of the voxel, divided by its noise without aliases; at least 1 without regularisation.
    sd : ndarray of float32
        Standard deviation of the complex value, in the unit of the folded images if `psi` has it. The
        real and the imaginary part each have ``1 / sqrt(2)`` of it.
    condition : ndarray of float32
        Largest over smallest eigenvalue of A, at most ``2**52``.
    response : ndarray of float32
        With `response`: ``Re [U S]_ii``, the part of the intensity that regularisation keeps; 1 without.

    All are 0 outside of the object and where no coil sees a voxel. They are NaN where the aliases
    cannot be separated.

    Raises
    ------
    ValueError, TypeError
        An argument does not fit; the message names it.

    References
    ----------
    K. P. Pruessmann et al., "SENSE: sensitivity encoding for fast MRI", Magn. Reson. Med. 42:952
    (1999).

    Examples
    --------
    Two coils see both halves with equal magnitude; one of them with opposite sign:

    >>> import numpy as np, ctessel
    >>> maps = np.ones((1, 2, 1, 2), complex)
    >>> maps[0, 1, 0, 1] = -1
    >>> g, sd, condition = ctessel.sense_noise(maps, full_size=(1, 2, 1), fold_size=(1, 1, 1))
    >>> g.ravel(), sd.ravel().round(4)
    (array([1., 1.], dtype=float32), array([0.7071, 0.7071], dtype=float32))
    """
    if mask is None:
        given = np.asarray(sensitivities)
        numbers = given.dtype.kind in "cfiub" and given.size > 0
        if numbers and given.ndim > 3 and max(given.shape) < 2**31:
            mask = given.any(axis=3)
    images: tuple[_Image, ...] = _core.sense_noise(
        sensitivities, psi, full_size, fold_size, reg, weight, mask, aliases, threads
    )
    return images if response else images[:3]


def folded_pos(pos: int, full_len: int, fold_len: int) -> int:
    """Folded line (0-based) of line `pos` of `full_len`, folded to `fold_len` lines.

    The full lines are centred on the folded ones: line ``ceil((full_len - fold_len) / 2)`` is
    folded line 0.
    """
    return _core.folded_pos(pos, full_len, fold_len)


def unfolded_positions(full_len: int, fold_len: int, fold_pos: int) -> NDArray[np.int32]:
    """Full lines that are folded to line `fold_pos`, in the kernels' order.

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
        Lower and upper boundary; -1 if there is none.
    """
    return _core.compartments(full_len, fold_len)
