"""The examples run, and their pictures show what they should."""

import sys
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "examples"))


def test_pipeline_draws_and_reconstructs(tmp_path):
    import pipeline

    truth, zero_filled, result, image = pipeline.main(tmp_path)
    for name in ("homodyne.png", "sense.png", "geometry.png"):
        assert (tmp_path / name).stat().st_size > 10_000
    np.testing.assert_allclose(image, truth, atol=2e-2)

    def error(a):
        return np.linalg.norm(np.abs(a) - np.abs(truth)) / np.linalg.norm(truth)

    assert error(result) < 0.8 * error(zero_filled)


def test_geometry_draws_what_the_documentation_shows(tmp_path, monkeypatch):
    import geometry

    monkeypatch.setattr(sys, "argv", ["geometry.py", str(tmp_path)])
    geometry.main()
    shown = Path(__file__).resolve().parents[2] / "docs"
    for name in ("geometry_axes.png", "geometry_field.png", "geometry_grid.png"):
        assert (tmp_path / name).stat().st_size > 10_000 and (shown / name).exists()
