"""Shifts, padding and the ringing filter against NumPy and the window's formula."""

import numpy as np
import pytest
from conftest import layouts, random_complex, same_bits

import ctessel

SHAPES = [(1,), (5,), (6, 1), (4, 7), (5, 4, 3), (3, 2, 5, 4), (2, 3, 2, 3, 2)]


@pytest.mark.parametrize("shape", SHAPES)
@pytest.mark.parametrize("real", [False, True])
def test_shifts_are_numpys_for_every_order_and_axis(shape, real):
    data = random_complex(shape)
    data = data.real if real else data
    everything = list(range(len(shape)))
    for name, a in layouts(data):
        for axes in [*everything, tuple(everything), (-1, 0), ()]:
            for ours, numpys in [(ctessel.fftshift, np.fft.fftshift), (ctessel.ifftshift, np.fft.ifftshift)]:
                want = numpys(data, axes=axes)
                same_bits(ours(a, axes), want)
                changed = a.copy(order="K") if name != "gaps" else np.repeat(data, 2, axis=0)[::2]
                assert ours(changed, axes, inplace=True) is changed
                same_bits(changed, want)
        same_bits(ctessel.fftshift(a), np.fft.fftshift(data, axes=everything[:3]))
        same_bits(a, data)


@pytest.mark.parametrize("shape, target", [
    ((2,), (5,)), ((2,), (6,)), ((3, 4), (3, 9)), ((5, 4, 3), (8, 7, 4)), ((5, 4, 3), (6,)), ((4, 3, 2, 3), (4, 4, 7)),
    ((64, 50, 24, 3), (64, 96, 31)),
])  # fmt: skip
def test_zero_pad_puts_an_odd_spare_zero_in_front(shape, target):
    data = random_complex(shape)
    full = list(target) + list(shape[len(target) :])
    spare = [n - d for n, d in zip(full, shape)]
    want = np.pad(data, [((s + 1) // 2, s // 2) for s in spare])
    for name, a in layouts(data):
        same_bits(ctessel.zero_pad(a, target), want)
        same_bits(ctessel.zero_pad(a.real, target), want.real)
        for order in "CF":
            out = np.full(full, np.nan, np.complex64, order=order)
            assert ctessel.zero_pad(a, target, out=out) is out
            same_bits(out, want)


def window(n, width, strength):
    s = 1 - np.clip(strength, 0, 0.915)
    j = np.arange(n) - n // 2
    inside = (j >= -(width // 2)) & (j <= (width + 1) // 2 - 1)
    period = np.pi * width / np.arccos((s - 0.54) / 0.46) if width else 1
    return np.where(inside, 0.54 + 0.46 * np.cos(2 * np.pi * j / period), 0)


@pytest.mark.parametrize("shape, strength, width", [
    ((9,), 0.4, None), ((8, 7), 0.915, (5, 7)), ((6, 5, 4), (0.1, 3, -1), (6, 4, 0)),
    ((6, 5, 4, 3), (0.2, 0.5, 0.9), (4, 5, 2)), ((65, 47, 7, 17), 0.6, None),
])  # fmt: skip
def test_ringing_filter_is_the_separable_window(shape, strength, width):
    data = random_complex(shape)
    axes = min(3, len(shape))
    r, w = np.broadcast_to(strength, axes), width or shape
    want = data.astype(complex)
    for d in range(axes):
        along = [-1 if k == d else 1 for k in range(len(shape))]
        want *= window(shape[d], w[d], r[d]).reshape(along)
    first = ctessel.ringing_filter(data, strength, width)
    np.testing.assert_allclose(first, want, atol=2e-6)
    for name, a in layouts(data):
        same_bits(ctessel.ringing_filter(a, strength, width), first)
        same_bits(ctessel.ringing_filter(a.real, strength, width), first.real)
        out = np.empty(shape, np.complex64)
        same_bits(ctessel.ringing_filter(a, strength, width, out=out), first)
        same_bits(a, data)
    assert ctessel.ringing_filter(data, strength, width, inplace=True) is data
    same_bits(data, first)
