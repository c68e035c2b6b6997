"""Sensitivity maps from calibration lines."""

from functools import partial

import numpy as np
import pytest
from command import pixels, recon, refused, sidecar
from conftest import layouts, random_complex, same_bits
from scans import error, known, level, lines, scan, shifted

import ctessel
import ctessel.maps
from ctessel import noise as noise_maps, noise_images, phantom, pipeline


def test_maps_of_a_head_span_what_another_program_finds(measured):
    """`brain16_sens` comes from BART's ecalib on the same lines."""
    kspace, theirs = measured("brain16_ksp"), measured("brain16_sens")
    image = ctessel.sos(ctessel.to_image(kspace))
    inside = image > 0.1 * np.percentile(image, 99.5)
    near = np.asfortranarray(kspace[52:76, 52:76])
    ours, eigenvalue = ctessel.espirit(near, size=kspace.shape[:3], crop=0, eigenvalue=True)
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
        "size: expected 3 values": {"size": (4, 4)}, "kernel": {"kernel": 0}, "threshold": {"threshold": 1.5},
        "crop": {"crop": -1}, "calibration": {"calibration": lines[0]},
        "finite": {"calibration": np.full((8, 8, 1, 2), np.nan, np.complex64)},
    }.items():  # fmt: skip
        with pytest.raises(ValueError, match=match):
            ctessel.espirit(**{"calibration": lines, "size": (8, 8, 1)} | changes)


def test_sensitivities_go_to_files_and_come_back(tmp_path, capsys):
    """The same image from them; what they leave of the calibration is told."""
    raw, own, given, part = (tmp_path / name for name in ("raw.h5", "own.nii", "given.nii", "part.nii"))
    phantom.write(raw, "noise", size=48, slices=2)
    for name in ("maps.cfl", "maps.nii.gz"):
        recon(raw, own, "--save-maps", tmp_path / name)
        recon(raw, given, "--maps", tmp_path / name)
        assert own.read_bytes() == given.read_bytes()
    last = recon(raw, part, "--maps", tmp_path / "maps.cfl", "--range", "slice", 1, 1)  # the maps of all slices serve
    np.testing.assert_array_equal(last.get_fdata(), pixels(own)[:, :, 1:])
    told = sidecar(given)
    assert "sensitivity maps from maps.nii.gz" in told["Steps"]
    assert all(0 < figure < 0.02 for figure in told["Parameters"]["residual"])
    small = ctessel.maps.read(tmp_path / "maps.cfl", (0, 0, 1, 8, 2))[:-2]
    ctessel.maps.write([tmp_path / "small.nii"], small)
    words = "its maps have 46 x 48 x 1 voxels, the grid that is unfolded has 48 x 48 x 1"
    refused(capsys, words, "recon", raw, "-o", part, "--maps", tmp_path / "small.nii")


@pytest.mark.parametrize(
    "steps, more", [((2, 1, 0), {}), ((1, 2, 1), {}), ((2, 2, 1), {"regularisation": 0.5, "ringing": 0.2})]
)
def test_volumes_take_sensitivities_of_a_file(tmp_path, monkeypatch, steps, more):
    monkeypatch.setattr(pipeline.plan.__globals__["Plan"], "slab", 8 * 4 * 24 * 24 * 3)  # three planes
    truth, volume = scan((10, 24, 24), 4, mask=shifted((24, 24), *steps, block=10), noise=0.02)
    own = pipeline.reconstruct(volume, pipeline.Options(keep_maps=True, **more))
    assert error(own.image, truth) < 0.12
    ctessel.maps.write([tmp_path / "maps.nii"], own.maps)
    given = pipeline.Options(maps=tmp_path / "maps.nii", **more)
    same_bits(pipeline.reconstruct(volume, given).image, own.image)
    assert any(step.endswith("put back, lines not checked for motion") for step in own.steps)
    (figure,) = own.parameters["residual"]
    assert 0 < figure < 0.05
    with pytest.raises(ValueError, match="all lines were measured and no sensitivities are used"):
        pipeline.plan(scan((10, 24, 24), 4)[1], pipeline.Options(keep_maps=True))


@pytest.mark.parametrize("shape", [(24, 48, 1), (10, 24, 24)])
def test_too_few_lines_for_the_coils_and_too_much_regularisation_are_told(shape):
    """The level of the image is that of full lines even so."""
    near = [np.abs(np.arange(n) - n // 2) < 6 for n in shape[1:]]
    every = lines(shape[2]) if shape[2] > 1 else np.ones(1, bool)
    for step, strength, want in ((2, 0, []), (2, 12, ["keeps"]), (3, 2, ["R = 3 is more than"])):
        mask = np.outer(lines(shape[1], step), every) | np.outer(*near)
        truth, under = scan(shape, 8, mask=mask, noise=0.02)
        options = pipeline.Options(combine="sos", regularisation=strength)
        result = pipeline.reconstruct(under, options)
        assert len(result.warnings) == len(want)
        assert all(part in text for part, text in zip(want, result.warnings))
        assert abs(level(result.image, truth) - 1) < 0.015


def test_the_residual_of_a_calibration_shows_what_maps_do_not_explain():
    maps = np.zeros((4, 3, 1, 2), np.complex64)
    maps[1:] = 0.6, 0.8
    images = maps * np.complex64(3 + 2j)
    residual, sums = pipeline.calibration_residual(maps, images)
    assert residual.max() < 1e-6 and sums[0].max() == 0
    images[2] = np.array([-0.8, 0.6])  # at right angles
    residual, sums = pipeline.calibration_residual(maps, images)
    np.testing.assert_allclose(residual[:, 0, 0], [0, 0, 1, 0], atol=1e-6)
    np.testing.assert_allclose(sums[2], 3, rtol=1e-6)


@pytest.mark.parametrize("shape", [(96, 97, 1), (40, 129, 1)])
def test_maps_of_large_slices_are_those_of_every_voxel(shape):
    """They are found at every other one, along axes that are long enough."""
    _, whole = scan(shape, 4, noise=0.001)
    near = np.asfortranarray(pipeline.resize(whole.kspace[..., 0, 0, 0], (24, 24)))
    maps, combined = pipeline.eigen_maps(near, shape)
    want = ctessel.espirit(near, size=shape, kernel=5, crop=0)
    bright = np.abs(combined) > 0.3 * np.abs(combined).max()
    along = np.abs((maps * want.conj()).sum(3)[bright])
    assert np.median(along) > 0.99999 and np.percentile(along, 1) > 0.999  # the same direction
    assert np.percentile(np.abs(maps - want)[bright], 99) < 0.02  # and phase
    np.testing.assert_allclose(np.linalg.norm(maps, axis=3)[bright], 1, rtol=1e-5)


def folded(shape, kept, noise=0.0):
    """A scan, R = 2, whose field of view is `kept` voxels wide along y, less than the object, and the image of all of
    its lines."""
    _, whole = scan(shape, 8, noise=noise)
    image = pipeline.to_image(whole.kspace, (1,))
    tight = np.zeros((shape[0], kept, *image.shape[2:]), np.complex64, order="F")
    for y in range(shape[1]):
        tight[:, (y - shape[1] // 2 + kept // 2) % kept] += image[:, y]
    kspace = pipeline.to_kspace(tight, (1,))
    mask = lines(kept, 2, calibration=20)
    under = scan((shape[0], kept, shape[2]), 8, y=mask, noise=noise)[1]
    truth = pipeline.combine(pipeline.to_image(kspace)[..., 0, 0, 0], "sos")
    return truth, known(under, kspace * mask[None, :, None, None, None, None, None])


@pytest.mark.parametrize("whiten", [False, True])
@pytest.mark.parametrize("shape, kept", [((32, 64, 1), 44), ((9, 48, 24), 32)])
def test_a_second_set_unfolds_an_object_that_lies_twice_in_a_voxel(tmp_path, monkeypatch, shape, kept, whiten):
    monkeypatch.setattr(pipeline.plan.__globals__["Plan"], "slab", 8 * 8 * kept * shape[2] * 4)  # four planes
    truth, under = folded(shape, kept, 0.001)
    options = partial(pipeline.Options, whiten=whiten)
    one, both = (pipeline.reconstruct(under, options(map_sets=sets, keep_maps=True)) for sets in (1, "auto"))
    wrong = [error(result.image[..., 0, 0, 0], truth) for result in (one, both)]
    assert wrong[1] < 0.6 * wrong[0]
    assert both.parameters["map_sets"] == [2] and "the object folds onto itself" in both.warnings[0]
    ((single, double),) = both.parameters["unexplained"]
    assert double < 0.8 * single
    same_bits(pipeline.reconstruct(under, options(map_sets=2)).image, both.image)
    names = ctessel.maps.files_of(tmp_path / "maps.cfl")
    ctessel.maps.write(names, both.maps)
    same_bits(pipeline.reconstruct(under, options(maps=names[0])).image, both.image)
    whole = scan((*shape[:1], 48, *shape[2:]), 8, y=lines(48, 2, calibration=20), noise=0.001)[1]
    alone = pipeline.reconstruct(whole, options(map_sets=1))
    own = pipeline.reconstruct(whole, options())
    same_bits(own.image, alone.image)  # the object lies within its field
    assert own.parameters["map_sets"] == [1] and not own.warnings
    if whiten:  # in units of the noise, regularised, and its maps
        scaled = pipeline.reconstruct(under, pipeline.Options(units="snr", regularisation=0.2, combine="sos"))
        maps = noise_maps.maps(pipeline.plan(under), under, ["g", "sd", "condition", "residual"], replicas=10)
        middle = truth > 0.5 * truth.max()
        ratio = (scaled.image[..., 0, 0, 0] * maps["sd"][..., 0] / truth)[middle]
        assert 0.7 < np.median(ratio) < 1.4 and all(np.isfinite(a).all() for a in maps.values())
        made = noise_images.volumes(pipeline.plan(under), under, 20)[..., 0, 0, :]
        spread = np.linalg.norm(made[middle], axis=1) / 20**0.5
        assert 0.8 < np.median(spread / maps["sd"][middle, 0]) < 1.2


def test_two_sets_are_refused_in_words():
    _, under = folded((32, 64, 1), 44)
    for options, words in {
        pipeline.Options(map_sets=3): 'expected "auto", 1 or 2, got 3',
        pipeline.Options(map_sets=2, maps="maps.cfl"): "leave --map-sets out",
        pipeline.Options(map_sets=2, coils=(0, 1, 2)): "no more than half of the 3 coils",
    }.items():
        with pytest.raises(ValueError, match=words):
            pipeline.plan(under, options)
