"""Lines that a partial scan lacks: POCS, and whether it is used."""

import numpy as np
import pytest
from conftest import same_bits
from scans import error, known, level, lines, scan

from ctessel import pipeline
from ctessel.pipeline import Options


def smooth(n, rough):
    """k-space of an object whose phase is smooth, or changes from voxel to voxel."""
    x, y = np.meshgrid(*[np.arange(n) - n // 2] * 2, indexing="ij")
    body = ((np.abs(x) < n // 3) & (np.abs(y) < n // 4)) * (1 + 0.3 * (y > 3))
    phase = 0.4 + 0.05 * y + 0.002 * x * y + rough * np.random.default_rng(1).uniform(-3, 3, (n, n))
    truth = (body * np.exp(1j * phase)).astype(np.complex64)[:, :, None]
    return truth, pipeline.to_kspace(truth)


@pytest.mark.parametrize("axis", (0, 1))
@pytest.mark.parametrize("first, last", [(-6, 23), (-24, 6)])
def test_pocs_keeps_measured_lines_and_finds_magnitude_and_phase(axis, first, last):
    truth, full = smooth(48, 0)
    k = np.arange(48) - 24
    kept = ((k >= first) & (k <= last)).reshape((-1, 1, 1) if axis == 0 else (1, -1, 1))
    ranges = [(first, last) if a == axis else None for a in range(3)]
    image = pipeline.pocs(full * kept, ranges)
    again = pipeline.to_kspace(image)
    np.testing.assert_allclose(again * kept, full * kept, atol=1e-4)
    zeros = pipeline.to_image(full * kept)
    off = [np.linalg.norm(each - truth) for each in (image, zeros)]
    assert off[0] < 0.6 * off[1]  # complex values: magnitude and phase
    assert pipeline.prediction_error(full * kept, ranges) < 0.8


def test_a_phase_without_a_pattern_is_left_to_zero_filling():
    _, full = smooth(48, 1)
    full[:, :18] = 0
    assert pipeline.prediction_error(full, (None, (-6, 23), None)) > 0.95
    assert pipeline.prediction_error(full, (None, (-2, 23), None)) == np.inf  # none to hide


def test_the_choice_is_that_of_the_slice_for_every_part_and_stands_with_the_result():
    mask = lines(48, first=-9)
    _, whole = scan((40, 48, 1), 4, mask, slices=3, repetitions=2, noise=0.02)
    want = pipeline.reconstruct(whole)
    figures = want.parameters["prediction"]
    assert len(figures) == 3 and all(figure > 0 for figure in figures)
    plan = pipeline.plan(whole)
    for axis, first, last in (("slice", 1, 2), ("repetition", 1, 1)):
        part = pipeline.reconstruct(whole, plan=pipeline.select(plan, axis, first, last))
        kept = slice(first, last + 1)
        same_bits(part.image, want.image[:, :, :, kept] if axis == "slice" else want.image[..., kept])
        assert part.parameters["prediction"] == (figures[kept] if axis == "slice" else figures)
    with pytest.raises(ValueError, match="partial: expected one of auto, zero, homodyne, pocs"):
        pipeline.plan(whole, Options(partial="half"))


def test_measured_lines_stay_what_they_were_after_sense():
    truth, under = scan((40, 48, 1), 8, lines(48, 2, 0, 16), noise=0.01)
    bare = known(under, noise=None)
    image = pipeline.reconstruct(bare, Options(combine="sos")).image[..., 0, 0, 0]
    assert error(image, truth[..., 0, 0, 0]) < 0.1
    full = scan((40, 48, 1), 8, noise=0.01)[1]
    alike = pipeline.reconstruct(known(full, noise=None), Options(combine="sos")).image[..., 0, 0, 0]
    assert abs(level(image, alike) - 1) < 0.01


@pytest.mark.parametrize(
    "shape, count, noise", [((40, 48, 1), 1, 0), ((40, 48, 1), 4, 0), ((40, 48, 1), 4, 0.01), ((8, 48, 16), 4, 0.01)]
)
def test_homodyne_hands_out_the_phase_that_it_removes(shape, count, noise):
    """That of the lines on both sides of k = 0; magnitudes are those of images without it, bit for bit."""
    mask = lines(48, first=-9)
    _, part = scan(shape, count, mask, noise=noise)
    both = (Options(partial="homodyne", combine=combine) for combine in ("sos", "pcsos"))
    magnitude, image = (pipeline.reconstruct(part, options).image for options in both)
    np.testing.assert_allclose(np.abs(image), magnitude, rtol=1e-5, atol=1e-6 * magnitude.max())
    near = np.abs(np.arange(48) - 24)[None, :, None, None, None, None, None] <= 9
    centre = pipeline.reconstruct(known(part, part.kspace * near), Options(partial="zero"))
    bright = magnitude > 0.5 * magnitude.max()
    off = np.abs(np.angle(image[bright] * centre.image[bright].conj()))
    assert np.median(off) < 0.02 and np.percentile(off, 95) < 0.15  # the window is another
    assert np.abs(np.angle(image[bright])).std() > 0.1
