"""The examples run, and their pictures show what they should."""

import runpy
import sys
import tempfile
from pathlib import Path

import numpy as np
import pytest
from conftest import DATA

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"
sys.path.insert(0, str(EXAMPLES))


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


@pytest.mark.parametrize("name, pictures", [("raw_data", ["raw_data", "g_factor"]), ("measured", ["measured"])])
def test_scans_are_shown_and_nothing_is_written_elsewhere(name, pictures, tmp_path, monkeypatch, capsys):
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path / "temporary"))
    monkeypatch.setenv("CTESSEL_DATA", str(DATA))
    monkeypatch.setattr(sys, "argv", [name])
    (tmp_path / "temporary").mkdir()
    runpy.run_path(str(EXAMPLES / f"{name}.py"), run_name="__main__")
    said = capsys.readouterr().out
    if "nothing to show" in said:
        pytest.skip(said)
    folder = Path(said.splitlines()[-1].removeprefix("pictures are in "))
    assert all((folder / f"{picture}.png").stat().st_size > 10_000 for picture in pictures)
    assert list(tmp_path.iterdir()) == [tmp_path / "temporary"]
