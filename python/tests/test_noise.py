"""Maps of noise of whole scans: against the spread of repetitions, which differ in nothing but noise."""

from dataclasses import replace

import nibabel
import numpy as np
import pytest
from command import pixels, recon, refused, run, sidecar
from conftest import random_complex, same_bits
from scans import lines, scan, shifted

from ctessel import cli, noise, phantom, pipeline, steps
from ctessel.scan import Scan


def test_the_command_writes_maps_beside_the_image(tmp_path, capsys):
    phantom.write(tmp_path / "s.h5", "undersampled", size=48, coils=4, slices=2)
    image = recon(tmp_path / "s.h5", tmp_path / "i.nii.gz", "--maps-out", "g,condition")
    for name in ("g", "condition"):
        made = nibabel.load(tmp_path / f"i_{name}.nii.gz")
        assert made.shape == image.shape and (made.affine == image.affine).all()
        assert sidecar(tmp_path / f"i_{name}.nii.gz")["Map"] == noise.NAMES[name]
        assert np.isfinite(made.get_fdata()).all() and made.get_fdata().max() > 1
    again = ["recon", tmp_path / "s.h5", "-o", tmp_path / "i.nii.gz", "--maps-out"]
    refused(capsys, "need a noise scan in the raw data", *again, "g,sd")
    assert run(*again, "g,h") == cli.USAGE
    assert "expected some of g, sd, snr, condition, residual" in capsys.readouterr().err


def volumes(options, mask=None, y=None, z=None, shape=(12, 16, 16), count=4, echoes=120, level=0.02):
    """A plan whose noise is known, its scan of echoes that differ in nothing but noise, and their images."""
    _, one = scan(shape, count, y, z, mask=mask)
    sampled = one.layout.sampled
    noise_of = random_complex((*shape, count, 1, echoes, 1), 3) * sampled[None, :, :, None, None, None, None]
    kspace = np.asfortranarray(one.kspace + level * noise_of, np.complex64)
    measured = level * random_complex((400, count), 4)
    head = replace(one.layout.header, te=[1.0 + e for e in range(echoes)])
    made = Scan.of(kspace, head, sampled, noise=measured)
    known = (2 * level**2 * np.eye(count)).astype(np.complex64)
    plan = replace(pipeline.plan(made, pipeline.Options(**options)), covariance=known)
    return plan, made, pipeline.reconstruct(made, plan=plan).image


near = np.outer(lines(16, 16, calibration=8), lines(16, 16, calibration=8))


@pytest.mark.parametrize("scanned, options", [
    ({"mask": near | np.outer(lines(16, 2), lines(16, 2))}, {}),
    ({"mask": shifted((16, 16), 2, 2, 1, (1, 0), block=8)}, {}),
    ({"y": lines(16, 2, calibration=10)}, {"matrix": (15, 18, 20), "ringing": 0.4}),
    ({"y": lines(16, first=-4)}, {"partial": "homodyne", "combine": "sos"}),
    ({"y": lines(16, first=-4)}, {"partial": "pocs"}),
    ({"count": 1}, {"matrix": (15, 18, 20), "ringing": 0.4}),
    ({"shape": (48, 48, 1), "y": lines(48, 2, calibration=16, first=-10)}, {"partial": "homodyne", "combine": "sos"}),
])  # fmt: skip
def test_repetitions_spread_as_the_map_says(scanned, options):
    plan, source, image = volumes(options, **scanned)
    maps = noise.maps(plan, source, ["sd", "snr"] if scanned.get("count") == 1 else noise.NAMES, image)
    sd = maps["sd"][..., 0]
    mean = image.mean(4, keepdims=True)
    spread = np.sqrt((np.abs(image - mean) ** 2).sum(4) / (image.shape[4] - 1))[..., 0, 0]
    inside = (np.abs(mean[..., 0, 0, 0]) > 0.3 * np.abs(mean).max()) & (sd > 0)
    assert inside.mean() > 0.1
    bound = 0.03 if options.get("partial") == "pocs" else 0.005  # noise of the phase of POCS counts for none
    assert abs(np.sqrt((spread[inside] ** 2).mean() / (sd[inside] ** 2).mean()) - 1) < bound
    assert (spread[inside] / sd[inside]).std() < 0.12
    snr, magnitude = (values[inside][:, 0, :, 0].T for values in (maps["snr"], np.abs(image)))
    np.testing.assert_allclose(snr * sd[inside], magnitude, rtol=1e-5)
    if "g" in maps:
        g, condition, residual = (maps[name][inside] for name in ("g", "condition", "residual"))
        if plan.reduction == 1:
            assert (g == 1).all() and (condition == 1).all()
        else:
            assert 0.7 < np.median(g) < 2.5 and condition.max() > 1.5
        assert np.median(residual) < 0.05


@pytest.mark.parametrize(
    "shape, options", [((32, 32, 1), {}), ((32, 32, 1), {"partial": "homodyne"}), ((8, 16, 16), {"ringing": 0.3})]
)
def test_units_of_noise_are_those_of_the_map(shape, options):
    """The phase stays; a part of the scan and another process make the same."""
    first = -5 if options.get("partial") else None
    y = lines(shape[1], 2 - bool(first), calibration=10, first=first)
    _, source = scan(shape, 4, y, repetitions=2, noise=0.02)
    plain, plan = (pipeline.plan(source, pipeline.Options(units=units, **options)) for units in ("raw", "snr"))
    raw_image, image = (pipeline.reconstruct(source, plan=each).image for each in (plain, plan))
    maps = noise.maps(plain, source, ["sd", "snr"], raw_image)
    inside = maps["sd"][..., 0] > 0
    want = raw_image[inside] / maps["sd"][inside][..., None, None]
    np.testing.assert_allclose(image[inside], want, rtol=1e-5, atol=1e-5)
    np.testing.assert_allclose(np.abs(image[inside]), maps["snr"][inside], rtol=1e-5, atol=1e-5)
    same_bits(noise.maps(plan, source, ["snr"], image)["snr"][inside], np.abs(image[inside]))
    same_bits(pipeline.reconstruct(source, plan=pipeline.select(plan, "repetition", 1, 1)).image, image[..., 1:])
    assert "unit: standard deviation of the noise" in "; ".join(plan.steps)


def test_units_that_a_scan_cannot_have():
    cases = (0, "snr", "need a noise scan; reconstruct in raw units"), (0.1, "dB", "units: expected one of raw, snr")
    for level, units, match in cases:
        with pytest.raises(ValueError, match=match):
            pipeline.plan(scan((16, 16, 1), 2, noise=level)[1], pipeline.Options(units=units))


def test_the_command_says_the_unit(tmp_path, capsys):
    phantom.write(tmp_path / "s.h5", "noise", size=32, coils=4)
    for units, told in ("raw", "arbitrary"), ("snr", "standard deviation of the noise of each voxel's complex value"):
        name = tmp_path / f"{units}.nii"
        recon(tmp_path / "s.h5", name, "--units", units, "--maps-out", "snr")
        side = sidecar(name)
        assert side["Units"] == told and side["Parameters"]["options"]["units"] == units
    image, snr = (pixels(tmp_path / name) for name in ("snr.nii", "raw_snr.nii"))
    np.testing.assert_allclose(image[snr > 0], snr[snr > 0], rtol=1e-5)
    words = "units: standard deviations of the noise need a noise scan"
    refused(capsys, words, "recon", tmp_path / "s.h5", "-o", name, "--units", "snr", "--no-noise")


@pytest.mark.parametrize("coils", [1, 4, 16])
def test_noise_is_found_in_the_calibration(coils):
    image = random_complex((64, 64, 1, coils))  # of variance 2
    image[28:36, 28:36] += 100
    assert steps.damping(pipeline.to_kspace(image), np.full(9, 10)) == pytest.approx(2 / 100, rel=0.2)
