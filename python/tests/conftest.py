"""What the tests share: random arrays in every kind of memory order, and measured data."""

import os
from pathlib import Path

import numpy as np
import pytest

DATA = Path(os.environ.get("CTESSEL_DATA", Path(__file__).resolve().parents[3] / "shared" / "data"))


def random_complex(shape, seed=0):
    rng = np.random.default_rng(seed)
    return (rng.standard_normal(shape) + 1j * rng.standard_normal(shape)).astype(np.complex64)


def layouts(a):
    """Copies in C order, Fortran order, reversed, with gaps, and with permuted axes."""
    reverse = (slice(None, None, -1),) * a.ndim
    yield "C", np.array(a, order="C")
    yield "F", np.array(a, order="F")
    yield "reversed", np.array(a[reverse], order="C")[reverse]
    yield "gaps", np.repeat(a, 2, axis=0)[::2]
    order = np.roll(np.arange(a.ndim), 1)
    yield "permuted", np.array(a.transpose(order), order="C").transpose(np.argsort(order))


def same_bits(a, b):
    assert a.dtype == b.dtype and a.shape == b.shape
    np.testing.assert_array_equal(np.ascontiguousarray(a).view(np.uint32), np.ascontiguousarray(b).view(np.uint32))


@pytest.fixture
def measured():
    """Loader of measured arrays, by name; the test is skipped where they are absent."""

    def load(name):
        if not (DATA / f"{name}.cfl").exists():
            pytest.skip(f"no {name}.cfl in {DATA}")
        extents = (DATA / f"{name}.hdr").read_text().splitlines()[1].split()
        shape = [int(n) for n in extents[:4]]
        return np.fromfile(DATA / f"{name}.cfl", "<c8").reshape(shape, order="F")

    return load
