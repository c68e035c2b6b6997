"""Grids, interpolation, rounding, indices and search."""

import numpy as np
import pytest
from conftest import layouts, random_complex
from scipy import interpolate

import ctessel


def test_linspace_accumulates_its_step():
    np.testing.assert_allclose(ctessel.linspace(0, 1, 4), [0, 1 / 3, 2 / 3, 1], rtol=1e-7)
    assert ctessel.linspace(0, 5, 0).size == 0 and ctessel.linspace(3, 5, 1).tolist() == [3]


def test_interpolation_is_scipys_inside_the_volume():
    volume = random_complex((6, 5, 4))
    rng = np.random.default_rng(1)
    at = [rng.uniform(0, n - 1.01, (7, 3)).astype(np.float32) for n in volume.shape]
    want = interpolate.interpn([np.arange(n) for n in volume.shape], volume.astype(complex), np.stack(at, -1))
    for name, v in layouts(volume):
        np.testing.assert_allclose(ctessel.linear_interpolation(v, *at), want, atol=2e-6)
    assert ctessel.linear_interpolation(np.float32([[1, 3], [2, 4]]), 0.5, 0) == 1.5
    with pytest.raises(ValueError, match="^y: expected positions"):
        ctessel.linear_interpolation(volume, 0, 7, 0)


def test_small_helpers():
    assert [ctessel.round(v) for v in (0.5, 2.49, -2.7, -0.6, float("nan"))] == [1, 2, -2, 0, -(2**31)]
    assert ctessel.round(np.float32([1.5, -1.5])).tolist() == [2, -1]
    assert ctessel.sub2ind([4, 5, 6], [1, 2, 3]) == 69 and ctessel.sub2ind([], []) == 0
    for kind in (np.int16, np.uint16, np.int32, np.uint32):
        assert ctessel.find(np.arange(9).astype(kind)[::-2], 4) == 2
        assert ctessel.find(np.arange(9).astype(kind), 70000) == -1
    data = random_complex((7, 6, 5))
    assert ctessel.sa(data) == pytest.approx(np.sqrt(np.mean(np.abs(data.astype(complex)) ** 2)))
    assert ctessel.compartments(200, 80) == (19, 59)
    assert ctessel.pos2interpolate(4.0, 10, (10, 20), (3.5, 7.5)) == 3.5
