"""Fields of gradients, and the files that describe them."""

import pickle
import struct

import numpy as np
import pytest
from conftest import DATA
from scipy.special import lpmv

import ctessel
from ctessel.gradients import read_coefficients

LINEAR = [("x", "A", 1, 1, 1.0), ("y", "B", 1, 1, 1.0), ("z", "A", 1, 0, 1.0)]


def harmonics(terms, points, radius):
    """The sum over terms with SciPy's functions, which carry the phase."""
    x, y, z = np.moveaxis(np.asarray(points, float), -1, 0)
    r, phi = np.sqrt(x**2 + y**2 + z**2), np.arctan2(y, x)
    out = np.zeros(np.shape(points))
    for axis, kind, n, m, value in terms:
        part = (np.cos if kind == "A" else np.sin)(m * phi) * (-1) ** m * lpmv(m, n, z / r)
        out[..., "xyz".index(axis)] += radius * value * (r / radius) ** n * part
    return out


def test_methods_agree_with_harmonics_and_each_other():
    rng = np.random.default_rng(1)
    terms = LINEAR + [("x", "B", 2, 1, 0.02), ("y", "A", 4, 3, 1e-4), ("z", "A", 3, 0, -0.05), ("z", "B", 5, 5, 1e-5)]
    field = ctessel.GradientField(terms, 250)
    points = rng.uniform(-140, 140, (4, 5, 3))
    position = field.position(points)
    np.testing.assert_allclose(position, harmonics(terms, points, 250), atol=1e-10)
    np.testing.assert_allclose(field.displacement(points), position - points, atol=1e-12)
    step = 1e-3 * np.eye(3)[:, None, None]
    slopes = (field.position(points + step) - field.position(points - step)) / 2e-3
    jacobian = field.jacobian(points)
    np.testing.assert_allclose(jacobian, np.moveaxis(slopes, 0, -1), atol=1e-6)
    np.testing.assert_allclose(field.determinant(points), np.linalg.det(jacobian), atol=1e-12)
    back, lost = field.inverse(position)
    assert lost == 0 and np.abs(back - points).max() < 1e-5
    again = pickle.loads(pickle.dumps(field)).evaluate(["determinant", "position"], points, threads=2)
    np.testing.assert_array_equal(again[1], position)
    np.testing.assert_array_equal(again[0], field.determinant(points))
    assert field.position([0, 0, 0]).tolist() == [0, 0, 0]


def test_a_grid_is_its_voxels():
    field = ctessel.GradientField(LINEAR + [("x", "A", 3, 1, 0.1)], 250)
    affine = np.array([[-2.0, 0, 0.5, 10], [0, 3, 0, -20], [0.25, 0, 4, 5], [0, 0, 0, 1]])
    voxels = np.moveaxis(np.indices((4, 3, 2)), 0, -1)
    points = voxels @ affine[:3, :3].T + affine[:3, 3]
    for name in ("position", "jacobian", "determinant"):
        got = getattr(field, name)(affine=affine, shape=(4, 3, 2), threads=2)
        np.testing.assert_array_equal(got, getattr(field, name)(points))
    assert field.inverse(affine=affine, shape=(4, 3, 2))[0].shape == (4, 3, 2, 3)


@pytest.mark.parametrize("call, error, text", [
    (lambda f: f.position(), ValueError, "points: expected an array of points, or affine"),
    (lambda f: f.position([1, 2]), ValueError, r"points: expected shape \(..., 3\), got shape \(2,\)"),
    (lambda f: f.position(["a", "b", "c"]), TypeError, "points: expected real numbers, got list"),
    (lambda f: f.jacobian(affine=np.eye(3), shape=(1, 1, 1)), ValueError, r"affine: .* got shape \(3, 3\)"),
    (lambda f: f.jacobian(affine=np.eye(4), shape=(1, 1)), ValueError, "shape: expected three extents"),
    (lambda f: f.evaluate(["speed"], [0, 0, 0]), ValueError, "wanted: .* got 'speed'"),
    (lambda f: ctessel.GradientField(LINEAR[:2], 1), ValueError, "the z gradient has no linear term"),
    (lambda f: ctessel.GradientField([("w", "A", 1, 1, 1)], 1), ValueError, "terms: expected axes x, y, z"),
])  # fmt: skip
def test_what_cannot_be_is_refused(call, error, text):
    with pytest.raises(error, match=text):
        call(ctessel.GradientField(LINEAR, 1))


def read(path, content, **options):
    (path.write_bytes if isinstance(content, bytes) else path.write_text)(content)
    return read_coefficients(path, **options)


# Worked by hand. sqrt((2n + 1) (n - m)! / (2 (n + m)!)) of (3, 1): sqrt(7 * 2 / 48); of (4, 2): sqrt(9 * 2 / 1440);
# sqrt(2 (n - m)! / (n + m)!) of (3, 1): sqrt(4 / 24).
FORMS = [
    ("t.txt", "r0 300  # mm\nx 3 1 0.5\ny 2 2 0.25\n", 300, "LPS", [("x", "A", 3, 1, 0.5), ("y", "B", 2, 2, 0.25)]),
    ("t.txt", "axis n m value\ny A 4 2 2\nz B 3 1 1\n", 250, "LPS",
     [("y", "A", 4, 2, 2 * 0.1118033988749895), ("z", "B", 3, 1, 0.5400617248673217)]),
    ("t.grad", "0.25 m = R0, lnorm = 4? A(1,1) = 0;\nNO. TYPE AXIS\n 1 A( 3, 0) -0.5 z\n12 B( 3, 1) 2 x\n", 250, "LAI",
     [("z", "A", 3, 0, -0.5), ("x", "B", 3, 1, 1.0801234497346435)]),
    ("t.coef", "# c\nalpha_x 3 1 2;\nbeta_z 4 2 1; # d\nalpha_y 2 0 3;\n", 200, "LAI",
     [("x", "A", 3, 1, 1.0801234497346435), ("z", "B", 4, 2, 0.1118033988749895), ("y", "A", 2, 0, 3)]),
    ("t.gc", struct.pack("<3h", 1, 2, 1) + struct.pack("<f2h", 6, 3, 1) + struct.pack("<2f4h", 6, 1, 3, -1, 1, -1)
     + struct.pack("<f2h", 4, 3, 0) + struct.pack("<f", 225), 225, "LPS",
     [("x", "A", 3, 1, 6 / 6**0.5), ("y", "B", 3, 1, 6 / 6**0.5), ("z", "A", 3, 0, 4)]),
]  # fmt: skip


@pytest.mark.parametrize("name, content, radius, axes, terms", FORMS)
def test_forms_of_files(tmp_path, name, content, radius, axes, terms):
    found = read(tmp_path / name, content, **({"radius": 200} if name == "t.coef" else {}))
    assert (found.radius, found.axes) == (radius, axes)
    got = {t[:4]: t.value for t in found.terms}
    want = {t[:4]: t[4] for t in [*LINEAR, *terms]}
    assert got.keys() == want.keys()
    assert all(got[key] == pytest.approx(want[key], rel=1e-14) for key in want)


# Per cm: at (2, 3, 5) cm, r^2 = 38.
def test_scaled_text_is_polynomials_per_cm(tmp_path):
    for name, polynomial in {
        "X2": 2 * 5, "X3": 2 * (5 * 25 - 38), "X5": 2 * (21 * 625 - 14 * 25 * 38 + 38**2),
        "Y2": 3 * 5, "Y4": 3 * (7 * 125 - 3 * 5 * 38),
        "Z2": 3 * 25 - 38, "Z3": 5 * 125 - 3 * 5 * 38, "Z4": 35 * 625 - 30 * 25 * 38 + 3 * 38**2,
        "Z5": 63 * 3125 - 70 * 125 * 38 + 15 * 5 * 38**2,
    }.items():  # fmt: skip
        found = read(tmp_path / "c.dat", f"COMMENT\nSCALEX1 0\nSCALE{name} 1e-3\nSCALEX9 0\n")
        want = 10 * 1e-3 * polynomial * np.eye(3)["XYZ".index(name[0])]
        moved = found.field.displacement([20, 30, 50])
        np.testing.assert_allclose(moved, want, rtol=1e-12, atol=1e-15, err_msg=name)


@pytest.mark.parametrize("name, content, text", [
    ("a.txt", "hello\n", "line 1: expected 'axis n m value' or 'r0 value', got 'hello'"),
    ("a.txt", "# nothing\n", "no coefficients; expected lines such as 'x 3 1 -0.018'"),
    ("a.txt", "x C 3 1 1\n", "line 1: unknown kind of term 'C'; A is cosine, B is sine"),
    ("a.txt", "x 26 1 1\n", "x A(26, 1): orders go from 1 to 25"),
    ("a.txt", "x A 26 1 1\n", "line 1: x A(26, 1): orders go to 25"),
    ("a.txt", "x 3 1 1\nx 3 1 2\n", "x A(3, 1) is given twice"),
    ("a.txt", "r0 -1\nx 3 1 1\n", "radius: expected a number above 0"),
    ("a.txt", b"\x01\x00\x02", "is not text; the names of binary coefficient files end in .gc"),
    ("a.grad", "1 C( 3, 0) 1 z\n", "line 1: unknown kind of term 'C'"),
    ("a.grad", "1 A( 3, 0) 1 w\n", "line 1: unknown axis 'w'"),
    ("a.grad", "1 A( 3, 0) one z\n", "line 1: expected 'number A(n, m) value axis'"),
    ("a.coef", "gamma_x 3 1 1;", "line 1: unknown kind of term 'gamma'"),
    ("a.coef", "alpha_x 3 1", "line 1: expected 'alpha_x n m value;', got 'alpha_x 3 1'"),
    ("a.coef", "alpha_x 3 1 1;", "this kind of file has no radius; state it with --radius in mm"),
    ("a.dat", "SCALEX6 1", "line 1: SCALEX6: orders above 5 must be 0"),
    ("a.dat", "SCALEQ1 1", "line 1: expected 'SCALEXn value'"),
    *(("a.gc", content, "is not a binary coefficient file") for content in (b"\x01\x00\x00\x00\x00\x00", b"text")),
    ("a.gc", struct.pack("<3h f2h", 1, 0, 0, 1, 2, 3), "x A(2, 3): orders go to 25, degrees to the order"),
])  # fmt: skip
def test_files_of_another_kind_are_refused_by_name(tmp_path, name, content, text):
    with pytest.raises(ValueError) as error:
        read(tmp_path / name, content)
    assert str(error.value).startswith(f"{tmp_path / name}: {text}")


# Even orders tell which way round the axes point: those of listings to left, anterior and inferior.
def test_axes_of_a_form(tmp_path):
    terms = "1 A(2, 0) 1 x\n2 A(2, 0) 1 y\n3 A(2, 0) 1 z\n"
    listed = read(tmp_path / "a.grad", "0.25 m = R0\n" + terms)
    own = read(tmp_path / "a.txt", "x A 2 0 1\ny A 2 0 1\nz 2 0 1\n")
    along = np.array([0, 0, 100.0])
    for found, signs in [(listed, (1, -1, -1)), (own, (1, 1, 1))]:
        assert found.signs("HFS").tolist() == list(signs)
        moved = found.signs() * found.field.displacement(found.signs() * along)
        np.testing.assert_allclose(moved, 40.0 * np.array(signs))  # 250 (100 / 250)^2 P_2(1)
        assert not found.symmetric
    assert read(tmp_path / "b.grad", "1 A(3, 0) 1 z\n1 A(3, 1) 1 x\n1 B(5, 3) 1 y\n", radius=250).symmetric
    assert read(tmp_path / "b.txt", "x 3 1 1", axes="RAS").signs("FFP").tolist() == [-1, 1, -1]
    with pytest.raises(ValueError, match="position: expected one of HFS, HFP, FFS, FFP, got 'HFDR'"):
        own.signs("HFDR")
    with pytest.raises(ValueError, match="axes: expected three letters"):
        read(tmp_path / "a.txt", "x 3 1 1", axes="LPX")


def test_a_listing_of_another_project():
    path = DATA / "gradunwarp_coeffs.grad"
    if not path.exists():
        pytest.skip(f"no {path}")
    found = read_coefficients(path)
    assert found.radius == 250 and len(found.terms) == 15 and found.symmetric
    rng = np.random.default_rng(3)
    points = rng.uniform(-140, 140, (200, 3))
    np.testing.assert_allclose(found.field.position(points), harmonics(found.terms, points, 250), atol=1e-10)
