"""Sensitivity maps from calibration lines."""

import numpy as np
import pytest
from conftest import layouts, random_complex, same_bits

import ctessel


def test_maps_of_a_head_span_what_another_program_finds(measured):
    """`brain16_sens` comes from BART's ecalib on the same lines."""
    kspace, theirs = measured("brain16_ksp"), measured("brain16_sens")
    image = ctessel.sos(ctessel.fftshift(np.fft.ifft2(ctessel.ifftshift(kspace, (0, 1)), axes=(0, 1))
                                         .astype(np.complex64), (0, 1)))  # fmt: skip
    inside = image > 0.1 * np.percentile(image, 99.5)
    ours, eigenvalue = ctessel.espirit(
        np.asfortranarray(kspace[52:76, 52:76]), size=kspace.shape[:3], crop=0, eigenvalue=True
    )
    together = np.abs((ours.conj() * theirs).sum(3))[inside]
    assert np.median(together) >= 0.999 and np.percentile(together, 1) >= 0.99
    assert np.median(eigenvalue[inside]) > 0.99


def test_arguments_and_layouts():
    lines = random_complex((10, 9, 1, 3), 1)
    want = ctessel.espirit(lines, size=(12, 14, 1), kernel=4, crop=0)
    np.testing.assert_allclose((np.abs(want) ** 2).sum(3), 1, atol=1e-5)
    for _, a in layouts(lines):
        same_bits(ctessel.espirit(a, size=(12, 14, 1), kernel=4, crop=0, threads=3), want)
    for match, changes in {
        "size: expected 3 values": {"size": (4, 4)},
        "kernel": {"kernel": 0},
        "threshold": {"threshold": 1.5},
        "crop": {"crop": -1},
        "calibration": {"calibration": lines[0]},
        "finite": {"calibration": np.full((8, 8, 1, 2), np.nan, np.complex64)},
    }.items():
        with pytest.raises(ValueError, match=match):
            ctessel.espirit(**{"calibration": lines, "size": (8, 8, 1)} | changes)
