"""Correction of images for gradients that are not linear."""

import re
from dataclasses import dataclass
from math import factorial, sqrt
from pathlib import Path

import numpy as np
from scipy import ndimage

from ._geometry import geometry_correction

#: Patient axes (left, posterior, superior) along the gradient axes, for a patient on back or belly.
GRADIENT_AXES = {"HFS": (1, 1, 1), "HFP": (-1, -1, 1), "FFS": (-1, 1, -1), "FFP": (1, -1, -1)}


@dataclass
class Coefficients:
    """Spherical-harmonic tables of `ctessel.geometry_correction`, and their radius in mm."""

    x: np.ndarray
    y: np.ndarray
    z: np.ndarray
    radius: float


_NUMBER = r"([-+]?[\d.]+(?:[eE][-+]?\d+)?)"
_ROW = re.compile(rf"([xyz])\s+([AB]?)\s*(\d+)\s+(\d+)\s+{_NUMBER}\s*")
_LISTED = re.compile(rf"\s*\d+\s+([AB])\(\s*(\d+)\s*,\s*(\d+)\s*\)\s+{_NUMBER}\s+([xyz])\s*")
_RADIUS = re.compile(rf"r0\s+{_NUMBER}\s*")
_RADIUS_LISTED = re.compile(rf"{_NUMBER}\s*m\s*=\s*R0\b.*")


def read_coefficients(path):
    """Read a table of gradient coefficients.

    Parameters
    ----------
    path : str or Path
        Text with a term per line, ``axis n m value`` with order n and degree m, or ``axis A n m
        value`` (B for sine terms); ``r0 value`` gives the reference radius in mm, 250 without it; #
        starts a comment. A name ending in .grad is a listing with lines ``number A(n, m) value
        axis`` and ``value m = R0``. Linear terms are 1 unless given. Lettered terms belong to
        functions normalised for m > 0 by ``(-1)^m sqrt((2n + 1) (n - m)! / (2 (n + m)!))``, the
        others to unnormalised ones without the phase.

    Returns
    -------
    Coefficients
    """
    table = Coefficients(np.zeros((14, 12)), np.zeros((14, 12)), np.zeros(17), 250.0)
    table.x[1, 1] = table.y[1, 1] = table.z[1] = 1
    listed, terms = Path(path).suffix == ".grad", 0
    for number, line in enumerate(Path(path).read_text(errors="replace").splitlines(), 1):
        try:
            terms += _read_listed(line, table) if listed else _read_row(line, table)
        except ValueError as fault:
            raise ValueError(f"{path}: line {number}: {fault}") from None
    if not terms:
        raise ValueError(f"{path}: no coefficients; expected lines such as 'x 3 1 -0.018'")
    return table


def _read_row(line, table):
    line = line.split("#")[0].strip()
    if not line or line.startswith("axis"):
        return 0
    if radius := _RADIUS.fullmatch(line):
        table.radius = float(radius[1])
        return 0
    row = _ROW.fullmatch(line)
    if not row:
        raise ValueError(f"expected 'axis n m value' or 'r0 value', got {line!r}")
    return _set(table, row[1], row[2], int(row[3]), int(row[4]), float(row[5]))


def _read_listed(line, table):
    if radius := _RADIUS_LISTED.match(line):
        table.radius = 1000 * float(radius[1])
    row = _LISTED.fullmatch(line)
    return _set(table, row[5], row[1], int(row[2]), int(row[3]), float(row[4])) if row else 0


def _set(table, axis, letter, n, m, value):
    if letter and m > 0:
        value *= sqrt((2 * n + 1) / 2 * factorial(n - m) / factorial(n + m)) if n >= m else 0
    if axis == "z" and m == 0 and 1 <= n <= 16:
        table.z[n] = value
    elif axis != "z" and 1 <= m <= min(n, 11) and n <= 13:
        getattr(table, axis)[n, m] = value
    else:
        raise ValueError(f"{axis} has no term of order {n} and degree {m}")
    return 1


def voxel_positions(shape, placement, field):
    """Patient coordinates of all voxels.

    Parameters
    ----------
    shape : sequence of 3 int
        Voxels along read, phase and slice direction; the centre is voxel ``n // 2``.
    placement : Placement
        Centre and axes in the patient, LPS, mm from the isocentre.
    field : sequence of 3 float
        Field of view in mm.

    Returns
    -------
    ndarray of float64, ``(3, x, y, z)``
        mm.
    """
    offsets = [(np.arange(n) - n // 2) * (f / n) for n, f in zip(shape, field)]
    grid = np.meshgrid(*offsets, indexing="ij")
    axes = np.stack([placement.read, placement.phase, placement.slice]).astype(float)
    return np.tensordot(axes.T, np.stack(grid), 1) + np.reshape(placement.position, (3, 1, 1, 1))


def geometry(
    image, placement, field, coefficients, *, position="HFS", order=3, intensity=True, threads=None
):
    """Undo the distortion of gradients that are not linear.

    Parameters
    ----------
    image : ndarray of complex64 or float32, ``(x, y, z, ...)``
        One slice or slab.
    placement : Placement
        Where its centre and axes lie.
    field : sequence of 3 float
        Its field of view in mm.
    coefficients : Coefficients
    position : {"HFS", "HFP", "FFS", "FFP"}, optional
        How the patient lies. Head first on the back, the gradient axes are taken to point to the
        patient's left, posterior and superior.
    order : {1, 3}, optional
        Order of the spline between voxels; real and imaginary parts are interpolated alike.
    intensity : bool, optional
        Multiply with the determinant of the displacement's Jacobian, as voxels that were encoded
        closer together hold more signal.
    threads : int, optional

    Returns
    -------
    ndarray
        In the shape and type of `image`; 0 where the object was encoded outside the image. A single
        slice is corrected within its plane only.

    References
    ----------
    A. Janke et al., "Use of spherical harmonic deconvolution methods to compensate for nonlinear
    gradient effects on MRI images", Magn. Reson. Med. 52:115 (2004).
    """
    return apply_warp(
        image,
        warp(image.shape[:3], placement, field, coefficients, position, intensity, threads),
        order,
    )


def warp(shape, placement, field, coefficients, position="HFS", intensity=True, threads=None):
    """Where to sample an image that `geometry` corrects, and by what to multiply it.

    Returns
    -------
    places : ndarray of float32, ``(3, x, y, z)``
        Sample positions in voxels.
    factor : ndarray of float32, ``(x, y, z)``, or None
    """
    signs = np.reshape(gradient_axes(position), (3, 1, 1, 1))
    points = signs * voxel_positions(shape, placement, field)
    encoded = _encoded(points, coefficients, threads)
    axes = np.stack([placement.read, placement.phase, placement.slice]).astype(float)
    places = np.tensordot(axes, signs * encoded - np.reshape(placement.position, (3, 1, 1, 1)), 1)
    for place, n, f in zip(places, shape, field):
        place *= n / f
        place += n // 2
    factor = _jacobian(points, coefficients, threads) if intensity else None
    return places.astype(np.float32), factor


def gradient_axes(position):
    """Signs of `GRADIENT_AXES`; ValueError for other positions."""
    if position not in GRADIENT_AXES:
        raise ValueError(
            f"position: expected one of {', '.join(GRADIENT_AXES)}, got {position!r}; "
            "state how the patient lay, or reconstruct without geometry correction"
        )
    return GRADIENT_AXES[position]


def _encoded(points, table, threads):
    parts = [np.ascontiguousarray(p, np.float32) for p in points]
    return np.stack(
        geometry_correction(*parts, table.x, table.y, table.z, table.radius, threads=threads)
    ).astype(float)


def _jacobian(points, table, threads):
    # The kernel reads Legendre functions from a table: differences over a few voxels would show its
    # steps of up to 0.1 mm, those over a tenth of the radius do not.
    reach = table.radius / 20
    columns = []
    for axis in range(3):
        step = np.zeros((3, 1, 1, 1))
        step[axis] = reach
        ahead, behind = (_encoded(points + side * step, table, threads) for side in (1, -1))
        columns.append((ahead - behind) / (2 * reach))
    (a, d, g), (b, e, h), (c, f, i) = columns
    return np.abs(a * (e * i - f * h) - b * (d * i - f * g) + c * (d * h - e * g)).astype(
        np.float32
    )


def apply_warp(image, warped, order=3):
    """Resample an image at the places of `warp`, volume by volume."""
    places, factor = warped
    out = np.zeros(image.shape, image.dtype, order="F")
    used = [axis for axis in range(3) if image.shape[axis] > 1]
    flat = tuple(slice(None) if axis in used else 0 for axis in range(3))
    at = np.stack([places[axis][flat] for axis in used])
    for index in np.ndindex(image.shape[3:]):
        volume = image[(slice(None),) * 3 + index]
        parts = (volume.real, volume.imag) if np.iscomplexobj(image) else (volume,)
        new = [
            ndimage.map_coordinates(
                part[flat], at, order=order, mode="constant", prefilter=order > 1
            )
            for part in parts
        ]
        sampled = np.reshape(new[0] + 1j * new[1] if len(new) > 1 else new[0], volume.shape)
        out[(slice(None),) * 3 + index] = sampled if factor is None else sampled * factor
    return out
