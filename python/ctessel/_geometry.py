"""Geometry correction and the spherical harmonics behind it."""

from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core
from ._helpers import _broadcast, _real


def geometry_correction(
    x: ArrayLike,
    y: ArrayLike,
    z: ArrayLike,
    coeff_x: ArrayLike,
    coeff_y: ArrayLike,
    coeff_z: ArrayLike,
    r0: float,
    *,
    threads: int | None = None,
) -> tuple[NDArray[np.float32], NDArray[np.float32], NDArray[np.float32]]:
    """Positions at which non-linear gradients encode points.

    The field of each gradient axis is a sum of solid spherical harmonics, normalised by its linear
    term. Linear gradients return the points unchanged.

    Parameters
    ----------
    x, y, z : array_like, real
        Coordinates of the points from the gradients' isocentre, all of one shape, in the unit of
        `r0`.
    coeff_x, coeff_y : array_like, up to shape (14, 12)
        Cosine terms of the x gradient and sine terms of the y gradient: row n is the order, column
        m the degree; rows 1 to 13 and columns 1 to 11 are read.
    coeff_z : array_like, up to shape (17,) or (17, 1)
        Zonal terms of the z gradient; rows 1 to 16 are read. Terms that a shorter table does not
        have are 0.
    r0 : float
        Reference radius of the expansion.
    threads : int, optional
        Threads of this call; they share the points.

    Returns
    -------
    xd, yd, zd : ndarray of float32
        Encoded positions, in the shape and unit of the points.

    Notes
    -----
    From 20000 points on a call builds a table of Legendre functions, 3.6 MiB: pass many at once.

    References
    ----------
    A. Janke et al., "Use of spherical harmonic deconvolution methods to compensate for nonlinear
    gradient effects on MRI images", Magn. Reson. Med. 52:115 (2004).
    """
    return _core.geometry_correction(x, y, z, coeff_x, coeff_y, coeff_z, r0, threads)


def realign_corr_coeffs(
    coeff_x: ArrayLike,
    coeff_y: ArrayLike,
    coeff_z: ArrayLike,
) -> tuple[NDArray[np.float32], NDArray[np.float32], NDArray[np.float32]]:
    """Coefficient tables packed one degree after another, as the correction reads them.

    Parameters are those of `geometry_correction`.

    Returns
    -------
    a, b, zonal : ndarray of float32, shapes (88,), (88,) and (16,)
        Orders m to 13 of degrees m = 1 to 11 (from `coeff_x` and `coeff_y`); orders 1 to 16.
    """
    return _core.realign_corr_coeffs(coeff_x, coeff_y, coeff_z)


def plgndr(l: int, m: int, x: ArrayLike) -> Any:
    """Associated Legendre function P_l^m(x), with the phase (-1)^m and not normalised.

    Parameters
    ----------
    l, m : int
        Order and degree, ``0 <= m <= l``.
    x : float or array_like
        Cosines, -1 to 1; taken in single precision.

    Returns
    -------
    float or ndarray of float64

    Raises
    ------
    ValueError
        An order, degree or cosine outside its range.

    References
    ----------
    NIST Digital Library of Mathematical Functions, 14.10.3.
    """
    return _core.plgndr(l, m, _real(x, "x"))


def create_plgndr_lookup(nl: int, nm: int, npts: int) -> NDArray[np.float32]:
    """Table of P_l^m at `npts` cosines from -1 to 1.

    Returns
    -------
    ndarray of float32, shape (npts, nm, nl)
        Entry (i, m, l) is P_l^m(i * 2 / (npts - 1) - 1), and 0 where m > l.
    """
    return _core.create_plgndr_lookup(nl, nm, npts)


def radius_theta_phi(
    x: ArrayLike,
    y: ArrayLike,
    z: ArrayLike,
) -> tuple[NDArray[np.float32], NDArray[np.float32], NDArray[np.float32]]:
    """Spherical coordinates of points, in radians.

    Parameters
    ----------
    x, y, z : float or array_like
        Coordinates, broadcast against each other; taken in single precision.

    Returns
    -------
    r, theta, phi : ndarray of float32
        Radius, angle from +z (0 to pi) and angle from +x towards +y (0 to 2 pi).
    """
    at = _broadcast(_real(x, "x"), _real(y, "y"), _real(z, "z"))
    r, theta, phi = (np.empty(at[0].shape, np.float32) for _ in range(3))
    _core.radius_theta_phi(*at, r, theta, phi)
    return r, theta, phi


def radial_factor(r: ArrayLike, r0: ArrayLike, n: ArrayLike) -> Any:
    """(r / r0)^n in single precision, by repeated multiplication; 1 for n = 0."""
    return _core.radial_factor(_real(r, "r"), _real(r0, "r0"), _whole(n, "n"))


def func_ys(
    n: ArrayLike,
    m: ArrayLike,
    r: ArrayLike,
    phi: ArrayLike,
    r0: ArrayLike,
    p: ArrayLike,
) -> Any:
    """Sine term of the expansion: sin(m phi) (r / r0)^n p, all in single precision.

    n is the order, m the degree, r and r0 radii of one unit, phi an angle in radians and p the value
    of the Legendre function. Arrays are broadcast.
    """
    return _core.func_ys(_whole(n, "n"), _whole(m, "m"), *_term(r, phi, r0, p))


def func_yc(
    n: ArrayLike,
    m: ArrayLike,
    r: ArrayLike,
    phi: ArrayLike,
    r0: ArrayLike,
    p: ArrayLike,
) -> Any:
    """Cosine term of the expansion: cos(m phi) (r / r0)^n p. Arguments are those of `func_ys`."""
    return _core.func_yc(_whole(n, "n"), _whole(m, "m"), *_term(r, phi, r0, p))


def _term(r, phi, r0, p):
    return _real(r, "r"), _real(phi, "phi"), _real(r0, "r0"), _real(p, "p")


def _whole(value, name):
    values = np.asarray(value)
    if values.dtype.kind not in "iu":
        raise TypeError(f"{name}: expected whole numbers, got {values.dtype}")
    if values.size and (values.min() < -(2**31) or values.max() >= 2**31):
        raise ValueError(f"{name}: expected numbers that fit 32 bits, got {value}")
    return values.astype(np.int32)
