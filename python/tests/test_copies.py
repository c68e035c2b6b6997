"""Splitting into parts and joining them, in every order of the axes and through every kind of tile."""

import itertools

import numpy as np
import pytest
from conftest import random_complex

from ctessel import _core


def views(shape):
    """Arrays of one shape with axes in every order, forwards and backwards, without and with gaps."""
    for order in itertools.permutations(range(len(shape))):
        for step, space in [(1, 0), (-1, 0), (2, 1), (-3, 2)]:
            extents = [abs(step) * shape[d] + space for d in order]
            memory = np.zeros(extents, np.complex64)
            cut = tuple(slice(None, None, step) for _ in shape)
            first = tuple(slice(0, shape[d]) for d in order)
            yield memory, memory[cut][first].transpose(np.argsort(order))


@pytest.mark.parametrize("shape", [(1,), (150,), (67, 129), (5, 130, 3), (66, 3, 64), (17, 2, 3, 21)])
def test_split_and_join_in_every_order(shape):
    want = random_complex(shape)
    re, im = want.real.flatten(order="F"), want.imag.flatten(order="F")
    for threads, (memory, view) in itertools.product((1, 3), views(shape)):
        _core.join(re, im, view, threads)
        np.testing.assert_array_equal(view, want)
        assert np.count_nonzero(memory) == want.size              # nothing beside the view
        parts = np.zeros(re.size + 2, np.float32), np.zeros(im.size + 2, np.float32)
        _core.split(view, parts[0][1:-1], parts[1][1:-1], threads)
        for part, values in zip(parts, (re, im)):
            np.testing.assert_array_equal(part[1:-1], values)
            assert part[0] == part[-1] == 0


@pytest.mark.parametrize("shape, offset", [((190, 75, 10, 8), 0), ((192, 80, 8, 9), 2), ((129, 1, 67, 130), 3)])
def test_large_results_go_past_the_cache_line_by_line(shape, offset):
    def somewhere_in_a_line(kind, start):
        return np.zeros(np.prod(shape) + 16, kind)[start : start - 16]

    a, b = (somewhere_in_a_line(np.complex64, k).reshape(shape) for k in (offset, 7 - offset))
    a[...] = random_complex(shape)
    re, im = (somewhere_in_a_line(np.float32, k) for k in (offset, 1))
    _core.split(a, re, im, 2)
    np.testing.assert_array_equal(re, a.real.flatten(order="F"))
    np.testing.assert_array_equal(im, a.imag.flatten(order="F"))
    _core.join(re, im, b, 2)
    np.testing.assert_array_equal(b, a)
