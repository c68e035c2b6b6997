"""Volumes of noise: their spread is that of the image, whatever the plan, and the same each time."""

import json

import nibabel
import numpy as np
import pytest
from command import pixels, recon, refused, run, sidecar
from conftest import same_bits

from ctessel import cli, noise, noise_images, phantom, pipeline, raw

COUNT = 80


def written(path, kind, **changes):
    phantom.write(path, kind, **{"size": 32, "coils": 4, "noise": 0.02, "noise_scan": True, **changes})
    return raw.read(path)


def spread(volumes):
    """Of complex values about 0, over volumes."""
    return np.sqrt(np.mean(np.abs(volumes, dtype=np.float64) ** 2, -1))


@pytest.mark.parametrize("kind, changes, options", [
    ("noise", {}, {}),
    ("noise", {"reduction": (3, 1), "echoes": 2}, {"matrix": (32, 40, 1), "ringing": 0.4, "regularisation": 1.0}),
    ("noise", {"partial": (1.0, 0.75, 1.0), "calibration_lines": 16}, {"partial": "pocs"}),
    ("noise", {"partial": (1.0, 0.75, 1.0), "calibration_lines": 16}, {"partial": "homodyne", "units": "snr"}),
    ("averages", {}, {}),
    ("full", {"coils": 1}, {}),
    ("3d-undersampled", {"partitions": 12, "calibration_lines": 12}, {}),
    ("noise", {"slices": 2}, {}),
    ("turns", {}, {}),
])  # fmt: skip
def test_noise_spreads_as_the_map_of_the_image_says(tmp_path, kind, changes, options):
    scan = written(tmp_path / "s.h5", kind, **changes)
    plan = pipeline.plan(scan, pipeline.Options(**options))
    image = pipeline.reconstruct(scan, plan=plan).image
    made = noise_images.volumes(plan, scan, COUNT)
    same_bits(noise_images.volumes(plan, scan, 2), np.asfortranarray(made[..., :2]))
    assert made.shape == (*image.shape[:5], COUNT) and made.dtype == np.complex64
    bright = np.abs(image[..., 0, 0]) > 0.3 * np.abs(image).max()
    if changes.get("coils") == 1:
        want = np.full(image.shape[:4], np.sqrt(plan.covariance[0, 0].real))
    else:
        want = noise.maps(plan, scan, ["sd"], replicas=COUNT)["sd"]
    if plan.in_snr:
        want = np.ones_like(want)
    for echo in range(made.shape[4]):
        ratio = spread(made[..., echo, :])[bright] / want[bright]
        assert abs(ratio.mean() - 1) < 0.02
        # Both have so many samples, of which homodyne leaves the real part.
        assert 0.5 < ratio.std() * np.sqrt(2 * COUNT) < 1.6


def test_files_of_noise_lie_beside_the_image_and_among_derivatives(tmp_path):
    written(tmp_path / "s.h5", "noise", size=32, slices=3, echoes=2)
    folder, made = tmp_path / "study", tmp_path / "i_noise.nii.gz"
    options = "--noise-images 5 --combine phase --subject 01 --suffix MEGRE --maps-out sd --bids".split()
    image, got = recon(tmp_path / "s.h5", tmp_path / "i.nii.gz", *options, folder), nibabel.load(made)
    assert got.shape == (32, 32, 3, 5, 2) and (got.affine == image.affine).all()
    phase = pixels(tmp_path / "i_noise_phase.nii.gz")
    assert np.abs(phase).max() <= np.float32(np.pi) and phase.std() > 1.5
    told = sidecar(made)
    assert told["Seed"] == 0 and "without its object" in told["Noise"] and "RepetitionTime" not in told
    stem = folder / "derivatives/ctessel/sub-01/anat/sub-01_echo-2_part-mag_desc-noise_MEGRE.nii.gz"
    np.testing.assert_array_equal(pixels(stem), got.get_fdata()[..., 1])
    about = json.loads((folder / "derivatives/ctessel/dataset_description.json").read_text())
    assert about["DatasetType"] == "derivative" and about["GeneratedBy"][0]["Name"] == "ctessel"
    for number, options in enumerate((["--workers", 2], ["--scratch", tmp_path], ["--range", "slice", 1, 1])):
        recon(tmp_path / "s.h5", tmp_path / f"{number}.nii", "--noise-images", 2, *options)
        whole = got.get_fdata()[:, :, 1:2] if "--range" in options else got.get_fdata()
        np.testing.assert_array_equal(pixels(tmp_path / f"{number}_noise.nii"), whole[..., :2, :])


@pytest.mark.parametrize("kind, options, words", [
    ("undersampled", [], "need a noise scan"),
    ("noise", ["--no-noise"], "need a noise scan"),
    ("3d", ["--partial", "homodyne"], "choose --partial pocs or zero"),
])  # fmt: skip
def test_what_has_no_noise_is_refused_before_the_work(tmp_path, capsys, kind, options, words):
    known = {"noise": 0.02, "noise_scan": True, "partitions": 16} if kind == "3d" else {}
    phantom.write(tmp_path / "s.h5", kind, size=32, coils=4, **known)
    refused(capsys, words, "recon", tmp_path / "s.h5", "-o", tmp_path / "i.nii", "--noise-images", 2, *options)
    assert not (tmp_path / "i.nii").exists()
    assert run("recon", "s.h5", "-o", "folder", "--dicom", "--noise-images", 2) == cli.USAGE
    assert "--noise-images needs -o IMAGE.nii.gz or --bids" in capsys.readouterr().err
