"""Non-linear gradients: their field, and the coefficient files that describe it."""

import re
from dataclasses import dataclass
from functools import cached_property
from math import factorial, sqrt
from pathlib import Path
from typing import NamedTuple

import numpy as np

from . import _core

__all__ = ["Coefficients", "GradientField", "Term", "read_coefficients"]

#: Signs of a patient's left, posterior and superior in each position, relative to head first on the back;
#: docs/geometry.md derives them.
POSITIONS = {"HFS": (1, 1, 1), "HFP": (-1, -1, 1), "FFS": (-1, 1, -1), "FFP": (1, -1, -1)}
_MOST_ORDER = 25


class Term(NamedTuple):
    """A solid harmonic ``value (r / radius)^n P_n^m(cos theta)`` times ``cos(m phi)`` or ``sin(m phi)``.

    P_n^m is not normalised and without the phase (-1)^m. theta starts at the z axis, phi at x
    towards y.
    """

    axis: str  # "x", "y" or "z": the gradient
    kind: str  # "A": cosine, "B": sine
    order: int
    degree: int
    value: float

    def __str__(self):
        return f"{self.axis} {self.kind}({self.order}, {self.degree})"


class GradientField:
    """Positions at which non-linear gradients encode points.

    Everything is analytic and in double precision. Each gradient is divided by its linear term: cosine
    (1, 1) of x, sine (1, 1) of y, (1, 0) of z. Linear gradients move nothing.

    Parameters
    ----------
    terms : sequence of Term
        Or tuples of the same; orders 1 to 25, each axis with its linear term.
    radius : float
        Reference radius of the expansion. Points are in its unit, usually mm. Beyond this radius the
        sums are still evaluated, but the coefficients are not meant for it.

    Raises
    ------
    ValueError
        A term that does not exist, a number that is not finite, an axis without a linear term.

    Notes
    -----
    Methods take `points`, array_like of float ``(..., 3)``: x, y, z from the isocentre along the axes of
    the gradients. Or they take a grid: `affine`, 3 or 4 rows of 4 numbers, and `shape`, 3 int; voxel
    (i, j, k) lies at ``affine @ (i, j, k, 1)``, and results are arrays ``(i, j, k, ...)`` of which i
    is the fastest axis. Points are in the image domain. `threads` share the points; every number of
    them gives the same bits.

    References
    ----------
    A. Janke et al., "Use of spherical harmonic deconvolution methods to compensate for nonlinear
    gradient effects on MRI images", Magn. Reson. Med. 52:115 (2004).
    """

    def __init__(self, terms, radius):
        self.terms, self.radius = tuple(Term(*t) for t in terms), float(radius)
        for t in self.terms:
            if t.axis not in ("x", "y", "z") or t.kind not in ("A", "B"):
                raise ValueError(f"terms: expected axes x, y, z and kinds A, B, got {tuple(t)!r}")
        plain = [("xyz".index(a), kind == "B", n, m, value) for a, kind, n, m, value in self.terms]
        self._field = _core.GradientField(plain, self.radius)

    def __reduce__(self):
        return GradientField, (self.terms, self.radius)

    def position(self, points=None, *, affine=None, shape=None, threads=None):
        """Encoded positions: ndarray of float64, ``(..., 3)``, in the unit of the radius."""
        return self._one(0, points, affine, shape, threads)

    def displacement(self, points=None, *, affine=None, shape=None, threads=None):
        """Encoded positions minus the points: ndarray of float64, ``(..., 3)``."""
        return self._one(1, points, affine, shape, threads)

    def jacobian(self, points=None, *, affine=None, shape=None, threads=None):
        """``d encoded_a / d point_b`` at ``[..., a, b]``: ndarray of float64, ``(..., 3, 3)``."""
        return self._one(2, points, affine, shape, threads)

    def determinant(self, points=None, *, affine=None, shape=None, threads=None):
        """Determinant of the Jacobian, with its sign: ndarray of float64, ``(...)``."""
        return self._one(3, points, affine, shape, threads)

    def evaluate(self, wanted, points=None, *, affine=None, shape=None, threads=None):
        """Several results at once, for little more than the time of the slowest.

        Parameters
        ----------
        wanted : sequence of {"position", "displacement", "jacobian", "determinant"}

        Returns
        -------
        tuple of ndarray
            In the order of `wanted`.
        """
        names = ("position", "displacement", "jacobian", "determinant")
        for name in wanted:
            if name not in names:
                raise ValueError(f"wanted: expected some of {', '.join(names)}, got {name!r}")
        values, grid = _places(points, affine, shape)
        found = self._field.evaluate(values, grid, [name in wanted for name in names], threads)
        return tuple(_indexed(found[names.index(name)], grid) for name in wanted)

    def inverse(self, points=None, *, affine=None, shape=None, threads=None):
        """Points that are encoded at given places, to 1e-5 mm for radii in mm.

        The iteration ``point = place - displacement(point)`` converges where the displacement changes
        by less than the point does.

        Returns
        -------
        points : ndarray of float64, ``(..., 3)``
            NaN where the iteration does not converge.
        lost : int
            Number of these points.
        """
        values, grid = _places(points, affine, shape)
        found, lost = self._field.inverse(values, grid, threads)
        return _indexed(found, grid), lost

    def _one(self, which, points, affine, shape, threads):
        values, grid = _places(points, affine, shape)
        wanted = [k == which for k in range(4)]
        return _indexed(self._field.evaluate(values, grid, wanted, threads)[which], grid)


def _places(points, affine, shape):
    if (points is None) == (affine is None) or (affine is None) != (shape is None):
        raise ValueError("points: expected an array of points, or affine and shape of a grid")
    name, given = ("points", points) if affine is None else ("affine", affine)
    try:
        values = np.ascontiguousarray(given, np.float64)
    except (TypeError, ValueError):
        raise TypeError(f"{name}: expected real numbers, got {type(given).__name__}") from None
    if affine is None:
        if values.ndim == 0 or values.shape[-1] != 3:
            raise ValueError(f"points: expected shape (..., 3), got shape {values.shape}")
        return values, None
    if values.shape not in ((3, 4), (4, 4)):
        raise ValueError(f"affine: expected shape (4, 4) or (3, 4), got shape {values.shape}")
    grid = tuple(int(n) for n in shape)
    if len(grid) != 3 or min(grid) < 0:
        raise ValueError(f"shape: expected three extents, got {tuple(shape)}")
    return np.ascontiguousarray(values[:3]), grid


def _indexed(found, grid):
    return found if grid is None else found.transpose(2, 1, 0, *range(3, found.ndim))


# ---- Files ---------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Coefficients:
    """Coefficients of the gradients from a file.

    Attributes
    ----------
    terms : tuple of Term
    radius : float
        mm.
    axes : str
        Where the gradients' x, y and z point with the patient head first on the back: "LPS" for left,
        posterior, superior, or other letters of the three pairs (R, A, I).
    stated : bool
        Whether the kind of file, or the caller, states these axes. Otherwise they are assumed, which
        matters if `symmetric` is false.
    """

    terms: tuple
    radius: float
    axes: str
    stated: bool = True

    @cached_property
    def field(self):
        """The `GradientField`."""
        return GradientField(self.terms, self.radius)

    @property
    def symmetric(self):
        """Whether the correction is the same for all directions of the axes."""
        return all(_is_symmetric(t) for t in self.terms if t.value)

    def signs(self, position="HFS"):
        """Axes of the gradients along the patient's left, posterior and superior: ndarray of +-1."""
        if position not in POSITIONS:
            raise ValueError(
                f"position: expected one of {', '.join(POSITIONS)}, got {position!r}; "
                "state the patient position, or leave out the geometry correction"
            )
        return np.multiply(POSITIONS[position], [1 if c in "LPS" else -1 for c in self.axes])


def _is_symmetric(t):
    # Reversing an axis multiplies a term by a sign, which must equal that of the gradient's own axis.
    even = t.degree % 2 == 0
    x = even if t.kind == "A" else not even
    y = t.kind == "A"
    z = (t.order + t.degree) % 2 == 0
    return (x, y, z) == tuple(axis != t.axis for axis in "xyz")


def check_axes(axes):
    """ValueError unless they are three letters, one of each pair, in this order."""
    if not re.fullmatch("[LR][PA][SI]", axes):
        raise ValueError(f"axes: expected three letters, L or R, P or A, S or I, such as LPS; got {axes!r}")
    return axes


def read_coefficients(path, *, radius=None, axes=None):
    """Read a table of gradient coefficients.

    Parameters
    ----------
    path : str or Path
        The ending of the name selects the kind of file.

        .grad
            Listing with lines ``number A(n, m) value axis``, or B, and ``value m = R0``.
        .coef
            Statements ``alpha_x n m value;`` and ``beta_x n m value;``, comments after #. The
            radius is not in the file.
        .dat
            Lines ``SCALEXn value``, n = 1 to 5: polynomials per cm; radius 250 mm.
        .gc
            Binary, little endian: int16 counts of terms of x, y and z; for each float32 values and
            int16 pairs of order and degree, negative for sines; float32 radius in mm, or 250 without.
        any other
            Text with a term per line, ``axis n m value``: not normalised, without the phase, sine on y
            and cosine on x and z. Or ``axis A n m value`` and ``axis B n m value``, normalised as
            in .grad. ``r0 value`` gives the radius in mm, 250 without it; # starts a comment.

        .grad and .coef belong to functions normalised for m > 0 by ``(-1)^m sqrt((2n + 1) (n - m)! /
        (2 (n + m)!))``, .dat and .gc to ``sqrt(2 (n - m)! / (n + m)!)`` without the phase.
        Missing linear terms are 1. The linear term divides the other terms of its axis.
    radius : float, optional
        Radius in mm, instead of that of the file.
    axes : str, optional
        Where the axes of the gradients point, see `Coefficients`, instead of the default for the kind of file:
        "LAI" for .grad and .coef, "LPS" for the others.

    Returns
    -------
    Coefficients

    Raises
    ------
    ValueError
        One line: the file is of another kind, or has terms that this kind does not allow.
    """
    path = Path(path)
    reader, usual, stated = _FORMS.get(path.suffix.lower(), (_read_table, "LPS", True))
    try:
        terms, own_radius = reader(path)
        radius = own_radius if radius is None else radius
        if radius is None:
            raise ValueError("this kind of file has no radius; state it with --radius in mm")
        if axes is not None:
            usual, stated = check_axes(axes), True
        found = Coefficients(tuple(_complete(terms)), float(radius), usual, stated)
        found.field  # noqa: B018  (refuses terms that do not exist)
    except ValueError as fault:
        raise ValueError(f"{path}: {fault}") from None
    return found


_LINEAR = {"x": ("A", 1, 1), "y": ("B", 1, 1), "z": ("A", 1, 0)}


def _complete(terms):
    """Terms, with a linear term of 1 if it is missing or 0."""
    given = {}
    for t in terms:
        if t[:4] in given:
            raise ValueError(f"{t} is given twice")
        given[t[:4]] = t
    for axis, linear in _LINEAR.items():
        if given.get((axis, *linear), Term(axis, *linear, 0.0)).value == 0:
            given[axis, *linear] = Term(axis, *linear, 1.0)
    return given.values()


def _normalised(axis, kind, n, m, value):
    if n > _MOST_ORDER or m > n:
        raise ValueError(f"{axis} {kind}({n}, {m}): orders go to {_MOST_ORDER}, degrees to the order")
    if m > 0:  # the phase (-1)^m is that of the functions as well
        value *= sqrt((2 * n + 1) / 2 * factorial(n - m) / factorial(n + m))
    return Term(axis, kind, n, m, value)


def _schmidt(axis, kind, n, m, value):
    if not 0 <= m <= n <= _MOST_ORDER:
        raise ValueError(f"{axis} {kind}({n}, {m}): orders go to {_MOST_ORDER}, degrees to the order")
    if m > 0:
        value *= sqrt(2 * factorial(n - m) / factorial(n + m))
    return Term(axis, kind, n, m, value)


def _lines(path, read):
    """What `read` makes of each line, without the lines for which it returns None."""
    if b"\0" in path.read_bytes():
        raise ValueError("is not text; the names of binary coefficient files end in .gc")
    found = []
    for number, line in enumerate(path.read_text(errors="replace").splitlines(), 1):
        try:
            item = read(line)
        except ValueError as fault:
            raise ValueError(f"line {number}: {fault}") from None
        if item is not None:
            found.append(item)
    return found


def _terms_and_radius(found, expected, radius=None):
    """Items of `_lines`: terms, and radii in mm as plain numbers."""
    terms = [item for item in found if isinstance(item, Term)]
    if not terms:
        raise ValueError(f"no coefficients; expected lines such as {expected!r}")
    return terms, next((item for item in found if not isinstance(item, Term)), radius)


_NUMBER = r"([-+]?(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d+)?)"
_ROW = re.compile(rf"([xyz])\s+(?:([A-Za-z]+)\s+)?(\d+)\s+(\d+)\s+{_NUMBER}")
_RADIUS = re.compile(rf"r0\s+{_NUMBER}")


def _read_table(path):
    return _terms_and_radius(_lines(path, _table_line), "x 3 1 -0.018", 250.0)


def _table_line(line):
    line = line.split("#")[0].strip()
    if not line or line.startswith("axis"):
        return None
    if radius := _RADIUS.fullmatch(line):
        return float(radius[1])
    row = _ROW.fullmatch(line)
    if not row:
        raise ValueError(f"expected 'axis n m value' or 'r0 value', got {line!r}")
    axis, kind, n, m, value = row[1], row[2], int(row[3]), int(row[4]), float(row[5])
    if kind is None:
        return Term(axis, "B" if axis == "y" else "A", n, m, value)
    return _normalised(axis, _kind(kind), n, m, value)


def _kind(name):
    if name not in ("A", "B"):
        raise ValueError(f"unknown kind of term {name!r}; A is cosine, B is sine")
    return name


_LISTED = re.compile(rf"\s*\d+\s+([A-Za-z]+)\(\s*(\d+)\s*,\s*(\d+)\s*\)\s+{_NUMBER}\s+(\w+)\s*")
_RADIUS_LISTED = re.compile(rf"\s*{_NUMBER}\s*m\s*=\s*R0\b.*")


def _read_listing(path):
    return _terms_and_radius(_lines(path, _listing_line), "1 A(3, 0) -0.01 z")


def _listing_line(line):
    if radius := _RADIUS_LISTED.match(line):
        return 1000 * float(radius[1])
    row = _LISTED.fullmatch(line)
    if not row:
        if re.match(r"\s*\d+\s+\w+\s*\(", line):
            raise ValueError(f"expected 'number A(n, m) value axis', got {line.strip()!r}")
        return None
    if row[5] not in ("x", "y", "z"):
        raise ValueError(f"unknown axis {row[5]!r}")
    return _normalised(row[5], _kind(row[1]), int(row[2]), int(row[3]), float(row[4]))


_STATEMENT = re.compile(rf"\s*(\w+)_([xyz])\s+(\d+)\s+(\d+)\s+{_NUMBER}\s*;\s*")


def _read_statements(path):
    return _terms_and_radius(_lines(path, _statement_line), "alpha_x 3 1 -0.01;")


def _statement_line(line):
    line = line.split("#")[0].strip()
    if not line:
        return None
    row = _STATEMENT.fullmatch(line)
    if not row:
        raise ValueError(f"expected 'alpha_x n m value;', got {line!r}")
    if row[1] not in ("alpha", "beta"):
        raise ValueError(f"unknown kind of term {row[1]!r}; alpha is cosine, beta is sine")
    kind = "A" if row[1] == "alpha" else "B"
    return _normalised(row[2], kind, int(row[3]), int(row[4]), float(row[5]))


_SCALE_RADIUS = 250.0
#: Factors of the polynomials x, xz, x(5z^2 - r^2), ... and z, 3z^2 - r^2, ..., by order.
_SCALE = {
    "x": (1, 1 / sqrt(3), sqrt(8 / 3), sqrt(8 / 5), sqrt(64 / 15)),
    "z": (1, 2, 2, 8, 8),
}
_SCALED = re.compile(rf"\s*SCALE([XYZ])(\d+)\s+{_NUMBER}\s*")


def _read_scaled(path):
    return _terms_and_radius(_lines(path, _scaled_line), "SCALEX3 -0.0001", _SCALE_RADIUS)


def _scaled_line(line):
    row = _SCALED.fullmatch(line)
    if not row:
        if line.lstrip().upper().startswith("SCALE"):
            raise ValueError(f"expected 'SCALEXn value', got {line.strip()!r}")
        return None
    axis, n, value = row[1].lower(), int(row[2]), float(row[3])
    if not 1 <= n <= 5:
        if value and n <= 10 or n > 10 or n < 1:
            raise ValueError(f"SCALE{row[1]}{n}: orders above 5 must be 0")
        return None
    value *= (_SCALE_RADIUS / 10) ** (n - 1)
    if axis == "z":
        return Term("z", "A", n, 0, value * _SCALE["z"][n - 1])
    return _schmidt(axis, "A" if axis == "x" else "B", n, 1, value * _SCALE["x"][n - 1])


def _read_binary(path):
    data = path.read_bytes()
    counts = np.frombuffer(data, "<i2", 3) if len(data) >= 6 else np.full(3, -1)
    size = 6 + 8 * int(counts.sum())
    if counts.min() < 0 or counts.sum() == 0 or len(data) not in (size, size + 4):
        raise ValueError("is not a binary coefficient file: its length is not the one that it states")
    terms, at = [], 6
    for axis, count in zip("xyz", counts.tolist(), strict=True):
        values = np.frombuffer(data, "<f4", count, at)
        keys = np.frombuffer(data, "<i2", 2 * count, at + 4 * count).reshape(count, 2)
        at += 8 * count
        terms += [
            _schmidt(axis, "B" if m < 0 else "A", n, abs(m), value)
            for value, (n, m) in zip(values.tolist(), keys.tolist(), strict=True)
        ]
    radius = float(np.frombuffer(data, "<f4", 1, at)[0]) if len(data) > size else 250.0
    return terms, radius


#: For each ending: reader, directions of the axes, and whether the kind of file states them.
_FORMS = {
    ".grad": (_read_listing, "LAI", True),
    ".coef": (_read_statements, "LAI", True),
    ".dat": (_read_scaled, "LPS", False),
    ".gc": (_read_binary, "LPS", False),
}
