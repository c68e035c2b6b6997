"""Homodyne operations against NumPy, their warnings, and measured data."""

import warnings

import numpy as np
import pytest
from conftest import layouts, random_complex, same_bits

import ctessel
from ctessel import homodyne


def ramp(n, first):
    """Weights of an axis sampled from line `first` on."""
    centre, a = n // 2, -first
    t = (np.arange(n) - centre) / a
    weights = np.where(t < 0, 1 - t**2, 1 + t**2)
    return np.where(t <= -1, 0, np.where(t >= 1, 2, weights))


@pytest.mark.parametrize("shape", [(16, 12), (16, 12, 6), (16, 12, 6, 3, 2), (64, 48, 7, 17)])
def test_filter_weighs_and_returns_the_centre(shape):
    data = random_complex(shape)
    nx, ny = shape[:2]
    kx, ky = (-3, nx // 2 - 1), (-2, ny // 2 - 1)
    weight = np.sqrt(ramp(nx, -3)[:, None] * ramp(ny, -2)[None])
    want = data * weight.reshape(weight.shape + (1,) * (len(shape) - 2))
    middle = data[nx // 2 - 3 : nx // 2 + 4, ny // 2 - 2 : ny // 2 + 3]
    weighted, centre = homodyne.filter(data, kx=kx, ky=ky)
    np.testing.assert_allclose(weighted, want, rtol=1e-6)
    same_bits(centre, middle)
    for name, a in layouts(data):
        for got in (homodyne.filter(a, kx=kx, ky=ky), homodyne.filter(a, kx=kx, ky=ky, threads=2)):
            same_bits(got.weighted, weighted)
            same_bits(got.centre, centre)
        same_bits(a, data)
        assert homodyne.filter(a, kx=kx, ky=ky, inplace=True).weighted is a
        same_bits(a, weighted)


def test_centre_of_real_data_and_its_place():
    data = random_complex((9, 16)).real
    weighted, centre = homodyne.filter(data, ky=(-3, 7))
    assert weighted.dtype == np.float32 and centre.dtype == np.complex64
    assert not centre.imag.any()
    padded = ctessel.zero_pad(centre, data.shape)
    same_bits(padded.real[:, 5:12], data[:, 5:12])
    assert not padded[:, :5].any() and not padded[:, 12:].any()


@pytest.mark.parametrize("name, range, message", [
    ("kx", (-40, 20), "kx: expected missing lines on the negative side"), ("ky", (-64, 70), "from -64 to 63, got"),
    ("ky", (-21.9, 20), "ky: .* whole numbers from -64 to 63"), ("kz", (-2, 63), "at least 0.55 of the extent"),
    ("ky", (30, -20), "ky: expected the first and the last"),
])  # fmt: skip
def test_ranges_that_cannot_be_used_are_refused(name, range, message):
    data = random_complex((128, 2, 1) if name == "kx" else (2, 128, 128))
    before = data.copy()
    with pytest.raises(ValueError, match=message):
        homodyne.filter(data, inplace=True, **{name: range})
    same_bits(data, before)
    homodyne.filter(data, **{name: (-64, 63)})


@pytest.mark.parametrize("shape", [(7, 5), (16, 12, 6, 3), (65, 47, 7, 17)])
def test_multiply_keeps_the_real_part_along_the_phase(shape):
    data, low = random_complex(shape, 1), random_complex(shape, 2)
    want = (data * low.conj() / np.abs(low)).real
    first = homodyne.multiply(data, low)
    np.testing.assert_allclose(first, want, atol=1e-5)
    for (name, a), (_, b) in zip(layouts(data), reversed(list(layouts(low)))):
        same_bits(homodyne.multiply(a, b), first)
        same_bits(a, data)
        out = np.empty(shape, np.complex64)
        same_bits(homodyne.multiply(a, b, out=out), first)
        assert homodyne.multiply(a, b, inplace=True) is a
        same_bits(a, first)


def test_multiply_resamples_a_smaller_image():
    data, low = random_complex((8, 9, 3, 2), 1), random_complex((3, 5, 3, 2), 2)
    x, y, z = np.meshgrid(*(np.linspace(0, m - 1, n) for m, n in zip(low.shape, data.shape[:3])), indexing="ij")
    phase = np.stack([ctessel.linear_interpolation(low[..., r], x, y, z) for r in range(2)], -1)
    want = (data * phase.conj() / np.abs(phase)).real
    for name, a in layouts(data):
        np.testing.assert_allclose(homodyne.multiply(a, low), want, atol=1e-4)
        np.testing.assert_allclose(homodyne.multiply(a, np.ascontiguousarray(low)), want, atol=1e-4)


def test_multiply_warns_of_zeros_in_the_low_resolution_image():
    data, low = random_complex((6, 5)), random_complex((6, 5), 1)
    data[0, 0] = np.nan  # not this one: it was lost before
    low[2:4, 1] = 0
    with pytest.warns(homodyne.HomodyneWarning, match="^low: .* at 2 samples"):
        result = homodyne.multiply(data, low)
    assert np.isnan(result[2:4, 1]).all()
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        homodyne.multiply(data, np.ones_like(data))


def test_weights_of_an_axis():
    weights, bounds = homodyne.calculate_filter(128, (-20, 63))
    assert bounds == (44, 84)
    np.testing.assert_allclose(weights, ramp(128, -20), atol=1e-6)
    assert homodyne.calculate_filter(128, (-40, 20)) is None
