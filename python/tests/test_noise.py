"""Maps of noise of whole scans: against the spread of repetitions, which differ in nothing but noise."""

import json

import nibabel
import numpy as np
import pytest

from ctessel import cli, noise, phantom, pipeline, raw

REPETITIONS = 60


@pytest.mark.parametrize("kind, changes, options", [
    ("noise", {}, {}),
    ("noise", {"reduction": (3, 1)}, {"matrix": (48, 60, 1), "ringing": 0.4}),
    ("noise", {"partial": (1.0, 0.75, 1.0), "calibration_lines": 16}, {"partial": "pocs"}),
    ("full", {"noise": 0.02, "noise_scan": True}, {}),
])
def test_repetitions_spread_as_the_map_says(tmp_path, kind, changes, options):
    phantom.write(tmp_path / "s.h5", kind, size=48, coils=6, repetitions=REPETITIONS, **changes)
    scan = raw.read(tmp_path / "s.h5")
    plan = pipeline.plan(scan, pipeline.Options(**options))
    image = pipeline.reconstruct(scan, plan=plan).image
    maps = noise.maps(plan, scan, noise.NAMES, image)
    spread = image.astype(complex).std(-1, ddof=1)[..., 0]
    bright = np.abs(image).mean(-1)[..., 0]
    inside = (bright > 0.2 * bright.max()) & (maps["sd"] > 0)
    assert inside.mean() > 0.1
    assert abs((spread[inside] / maps["sd"][inside]).mean() - 1) < 0.02  # the noise scan has few samples
    np.testing.assert_allclose(maps["snr"][inside][..., 0, 0] * maps["sd"][inside], np.abs(image)[inside][..., 0, 0], rtol=1e-5)
    if kind == "full":
        assert set(np.unique(maps["g"])) <= {0, 1} and (maps["condition"][inside] == 1).all()
    else:
        assert 0.7 < np.median(maps["g"][inside]) < 2.5 and maps["condition"][inside].max() > 1.5
    assert np.median(maps["residual"][inside]) < 0.05


def test_the_command_writes_maps_beside_the_image(tmp_path, capsys):
    phantom.write(tmp_path / "s.h5", "undersampled", size=48, coils=4, slices=2)
    recon = ["recon", str(tmp_path / "s.h5"), "-o", str(tmp_path / "i.nii.gz"), "--maps-out"]
    assert cli.main([*recon, "g,condition"]) == 0
    image = nibabel.load(tmp_path / "i.nii.gz")
    for name in ("g", "condition"):
        made = nibabel.load(tmp_path / f"i_{name}.nii.gz")
        assert made.shape == image.shape and (made.affine == image.affine).all()
        assert json.loads((tmp_path / f"i_{name}.json").read_text())["Map"] == noise.NAMES[name]
        assert np.isfinite(made.get_fdata()).all() and made.get_fdata().max() > 1
    assert cli.main([*recon, "g,sd"]) == cli.DEFECT
    assert "need the raw data's noise scan" in capsys.readouterr().err
    with pytest.raises(SystemExit):
        cli.main([*recon, "g,h"])
    assert "expected some of g, sd, snr, condition, residual" in capsys.readouterr().err
