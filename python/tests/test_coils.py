"""Coil combination against NumPy."""

import numpy as np
import pytest
from conftest import layouts, random_complex, same_bits

import ctessel


@pytest.mark.parametrize("shape, axis", [
    ((7,), 0), ((5, 4), 1), ((5, 4, 3, 6), 3), ((5, 4, 3, 6), 0), ((3, 2, 2, 4, 3), -2), ((65, 47, 11, 7), 3),
])  # fmt: skip
def test_sos_is_the_root_of_the_summed_squares(shape, axis):
    data = random_complex(shape)
    want = np.sqrt((np.abs(data.astype(complex)) ** 2).sum(axis))
    first = ctessel.sos(data, axis)
    assert first.dtype == np.float32
    np.testing.assert_allclose(first, want, rtol=2e-6)
    for name, a in layouts(data):
        same_bits(ctessel.sos(a, axis), first)
        np.testing.assert_allclose(ctessel.sos(a.real, axis), np.linalg.norm(data.real, axis=axis), rtol=2e-6)
        out = np.full(want.shape, 7, np.float32)
        assert ctessel.sos(a, axis, out=out) is out
        same_bits(out, np.asarray(first))


@pytest.mark.parametrize("shape", [(5, 4, 3, 6), (4, 3, 1, 5, 2), (3, 2, 1, 4, 1, 1, 1, 1, 2, 3, 2)])
def test_pcsos_has_the_phase_of_the_sum_weighted_by_mean_magnitudes(shape):
    data = random_complex(shape)
    tenth = 9 if len(shape) > 9 else None
    weight = np.abs(data) if tenth is None else np.abs(data).mean(tenth, keepdims=True)
    want = np.linalg.norm(data, axis=3) * np.exp(1j * np.angle((weight * data).sum(3)))
    first = ctessel.pcsos(data)
    np.testing.assert_allclose(first, want, atol=2e-5)
    for name, a in layouts(data):
        same_bits(ctessel.pcsos(a), first)


def test_no_coils_and_no_voxels():
    assert not ctessel.sos(np.ones((3, 0), np.complex64), 1).any()
    assert ctessel.sos(np.ones((0, 3), np.complex64), 1).shape == (0,)
    assert ctessel.pcsos(np.zeros((2, 2, 1, 3), np.complex64)).tolist() == np.zeros((2, 2, 1)).tolist()
