"""Geometry correction and its harmonics against SciPy."""

import math

import numpy as np
import pytest
from conftest import layouts, same_bits
from scipy import special

import ctessel


def tables(seed=None):
    x, y, z = np.zeros((14, 12)), np.zeros((14, 12)), np.zeros(17)
    if seed is not None:
        rng = np.random.default_rng(seed)
        for table in (x, y):
            for n in range(1, 14):
                for m in range(1, min(n, 11) + 1):  # the size of P_n^m falls with its factorials
                    table[n, m] = rng.normal(0, 0.1) * math.factorial(n - m) / math.factorial(n + m)
        z[:] = rng.normal(0, 0.1, 17)
    x[1, 1] = y[1, 1] = z[1] = 1
    return x, y, z


def test_plgndr_is_scipys_lpmv():
    x = np.linspace(-1, 1, 41).astype(np.float32)
    for l in range(17):
        for m in range(l + 1):
            want = special.lpmv(m, l, x.astype(float))
            np.testing.assert_allclose(ctessel.plgndr(l, m, x), want, rtol=1e-5, atol=1e-6 * np.abs(want).max())
    assert ctessel.plgndr(1, 1, 0.0) == -1.0
    table = ctessel.create_plgndr_lookup(4, 3, 5)
    assert table.shape == (5, 3, 4) and not table[:, 2, 1].any()
    np.testing.assert_allclose(table[:, 1, 2], special.lpmv(1, 2, np.linspace(-1, 1, 5)), atol=1e-6)


def test_correction_is_the_sum_of_solid_harmonics():
    rng = np.random.default_rng(1)
    x, y, z = rng.uniform(-0.2, 0.2, (3, 4, 9, 5)).astype(np.float32)
    cx, cy, cz = tables(2)
    r0 = 0.25
    r, theta, phi = (v.astype(float) for v in ctessel.radius_theta_phi(x, y, z))
    np.testing.assert_allclose(r, np.sqrt(x**2.0 + y**2 + z**2), rtol=1e-6)
    np.testing.assert_allclose(np.mod(np.arctan2(y, x), 2 * np.pi), phi, atol=1e-5)
    cosine = np.cos(theta)
    step = 2 / 9999  # away from the poles the functions are read from a table, at or below the cosine
    cosine = np.where(np.abs(cosine) < 0.9, np.floor((cosine + 1) / step) * step - 1, cosine)
    want = np.zeros((3,) + x.shape)
    for n in range(1, 17):
        want[2] += cz[n] * (r / r0) ** n * special.lpmv(0, n, cosine)
        for m in range(1, min(n, 11) + 1 if n < 14 else 0):
            p = (-1) ** m * special.lpmv(m, n, cosine) * (r / r0) ** n
            want[0] += cx[n, m] * np.cos(m * phi) * p
            want[1] += cy[n, m] * np.sin(m * phi) * p
    first = ctessel.geometry_correction(x, y, z, cx, cy, cz, r0)
    np.testing.assert_allclose(first, r0 * want, atol=1e-5)
    for ways in zip(layouts(x), layouts(y), layouts(z)):
        got = ctessel.geometry_correction(*(a for _, a in ways), cx, cy, cz, r0, threads=2)
        for a, b in zip(got, first):
            same_bits(a, b)
    mixed = ctessel.geometry_correction(x, np.asfortranarray(y), z[::-1][::-1], cx, cy, cz, r0)
    same_bits(mixed[0], first[0])


def test_terms_and_packing():
    assert ctessel.radial_factor(0.0, 2.0, 0) == 1 and ctessel.radial_factor(3.0, 2.0, 2) == 2.25
    phi = np.linspace(0, 6, 7)
    np.testing.assert_allclose(ctessel.func_ys(2, 3, 1.0, phi, 2.0, 0.5), np.sin(3 * phi) / 8, atol=1e-6)
    np.testing.assert_allclose(ctessel.func_yc(2, 3, 1.0, phi, 2.0, 0.5), np.cos(3 * phi) / 8, atol=1e-6)
    cx, cy, cz = tables(3)
    a, b, zonal = ctessel.realign_corr_coeffs(cx, cy, cz)
    want = [cx[n, m] for m in range(1, 12) for n in range(m, 14)]
    np.testing.assert_array_equal(a, np.float32(want))
    assert b[0] == 1 and zonal.tolist() == np.float32(cz[1:]).tolist()


@pytest.mark.parametrize("l, m, x", [(1, 2, 0.1), (-1, 0, 0.1), (2, -1, 0.1), (2, 1, 1.5), (2, 1, [0, -2])])
def test_plgndr_outside_its_domain_raises(l, m, x):
    with pytest.raises(ValueError, match="^[lmx]: expected .* got"):
        ctessel.plgndr(l, m, x)
