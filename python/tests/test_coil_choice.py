"""Coils that are left out: defective ones and no others, by every step alike."""

import numpy as np
import pytest
import scans
from command import pixels, recon, run, sidecar
from conftest import random_complex, same_bits

from ctessel import cli, phantom, pipeline, raw
from ctessel.scan import Scan

ARRAYS = ["brain16_ksp", "brain2_body_ksp", "phantom32_ksp", "phantom1_grid_ksp", "brain1_t1sag_ksp"]


def reasons(kspace, noise=None):
    made = pipeline.plan(scans.scan_of(kspace, noise=noise)).choice
    return made.reasons if made else {}


@pytest.mark.parametrize("name", ARRAYS)
def test_measured_arrays_keep_their_coils_whatever_their_gains(measured, name):
    kspace, rng = measured(name), np.random.default_rng(1)
    count = kspace.shape[3]
    floor = np.sqrt(np.mean(np.abs(kspace[:4, :8]) ** 2, (0, 1, 2)) / 2)
    noise = floor * random_complex((2000, count), 2)
    assert reasons(kspace) == reasons(kspace, noise) == {}
    for _ in range(4):
        gains = 10 ** rng.uniform(-1.5, 1.5, count)
        assert reasons(gains * kspace) == reasons(gains * kspace, gains * noise) == {}
    for coil in range(min(count, 4)):
        weak = kspace.copy()
        weak[..., coil] = 0.05 * kspace[..., coil] + floor[coil] * random_complex(kspace.shape[:3], coil)
        assert reasons(weak) == {}


@pytest.mark.parametrize("name", ["brain16_ksp", "brain2_body_ksp"])
def test_defective_coils_of_measured_arrays_are_found(measured, name):
    kspace = measured(name)
    floor = np.sqrt(np.mean(np.abs(kspace[:4, :8]) ** 2, (0, 1, 2)) / 2)
    for coil in range(kspace.shape[3]):
        hiss = floor[coil] * random_complex(kspace.shape[:3], coil)
        noise = floor * random_complex((2000, kspace.shape[3]), 2)
        loud, silent = kspace[..., coil] + 30 * hiss, "noise without signal"
        for samples, level, words in (
            (0 * hiss, 1, "zeros"), (hiss, 1, silent), (0.01 * hiss, 0.01, silent), (loud, 30, "times that of the other coils"),
        ):  # fmt: skip
            broken, heard = kspace.copy(), noise.copy()
            broken[..., coil], heard[:, coil] = samples, level * noise[:, coil]
            for known in (None, heard):
                found = reasons(broken, known)
                assert list(found) == [coil] and words in found[coil]
        if coil:
            copy, heard = kspace.copy(), noise.copy()
            copy[..., coil], heard[:, coil] = 2j * kspace[..., 0], 2j * noise[:, 0]
            assert reasons(copy, heard) == {coil: "it measures the same as coil 0"}
    heard = noise.copy()
    heard[:, 1] = 0
    assert "noise scan has only zeros" in reasons(kspace, heard)[1]


def test_one_slice_where_a_coil_does_its_part_keeps_it():
    _, found = scans.scan(slices=3, count=6, noise=1e-3)
    kspace = found.kspace.copy()
    kspace[..., 2, :2, 0, 0] = 1e-3 * random_complex(kspace.shape[:3] + (2,), 5)
    noise = found.layout.noise
    header = found.layout.header
    assert pipeline.plan(Scan.of(kspace, header, noise=noise)).choice is None
    kspace[..., 2, 2, 0, 0] = 1e-3 * random_complex(kspace.shape[:3], 6)
    assert list(pipeline.plan(Scan.of(kspace, header, noise=noise)).choice.reasons) == [2]


def made(path, output, *options):
    return recon(path, output, *options).get_fdata(dtype=np.float32), sidecar(output)


@pytest.mark.parametrize("kind, changes", [
    ("noise", {"slices": 3}), ("full", {"noise": 0.02}), ("undersampled-3", {}), ("3d", {"partitions": 8}),
    ("3d-undersampled", {"partitions": 8, "noise": 0.02, "noise_scan": True}),
])  # fmt: skip
def test_the_image_is_that_of_the_other_coils(tmp_path, monkeypatch, capsys, kind, changes):
    path, output = tmp_path / "s.h5", tmp_path / "i.nii"
    scans.write_broken(monkeypatch, path, kind, 2, size=32, coils=5, **changes)
    image, told = made(path, output)
    words = "coil 2 of 0 to 4 is left out: it has only zeros; --coils 0-4 keeps all"
    assert told["Warnings"] == [words] and told["Steps"][0] == "leave out coil 2: it has only zeros"
    assert told["Parameters"]["left_out"] == [2] and told["Parameters"]["coils"] == 4
    assert capsys.readouterr().err == f"ctessel: warning: {words}\n"
    chosen, told = made(path, output, "--coils", "0,1,3-4")
    same_bits(chosen, image)
    assert "Warnings" not in told and told["Steps"][0] == "use coils 0-1,3-4 of 5"
    same_bits(made(path, output, "--workers", 2)[0], image)
    found = raw.read(path)
    arrays = found.kspace, found.calibration, found.layout.noise
    others = [None if a is None else np.asfortranarray(np.delete(a, 2, 1 if a.ndim == 2 else 3)) for a in arrays]
    kspace, calibration, noise = others
    alone = Scan.of(kspace, found.layout.header, found.layout.lines, calibration=calibration, noise=noise)
    want = pipeline.reconstruct(alone, pipeline.Options(combine="sos")).image
    np.testing.assert_allclose(image.ravel("F"), want.ravel("F"), atol=2e-6 * want.max())
    if changes.get("slices"):
        part, told = made(path, output, "--range", "slice", 1, 1)
        same_bits(part[:, :, 0], image[:, :, 1])
        assert told["Warnings"] == [words]


def test_maps_keep_the_numbers_of_the_coils(tmp_path, monkeypatch, capsys):
    path, output = tmp_path / "s.h5", tmp_path / "i.nii"
    scans.write_broken(monkeypatch, path, "undersampled", 1, size=32, coils=4)
    image, _ = made(path, output, "--save-maps", tmp_path / "m.nii", "--report", tmp_path / "r.html")
    maps = pixels(tmp_path / "m.nii")
    assert maps.shape[3] == 4 and not maps[:, :, :, 1].any() and maps[:, :, :, 0].any()
    same_bits(made(path, output, "--maps", tmp_path / "m.nii")[0], image)
    assert "Left out: 1, counted from 0" in (tmp_path / "r.html").read_text()
    capsys.readouterr()
    for command in (["info", path], ["recon", path, "-o", output, "--dry-run"]):
        assert run(*command) == 0
        assert "leave out coil 1: it has only zeros" in capsys.readouterr().out


@pytest.mark.parametrize("text, words", [
    ("", "expected numbers of coils from 0 such as 0,2-5, got ''"), ("2-", "expected numbers of coils"),
    ("3-1", "expected numbers of coils"), ("-1", "expected"), ("0,1,1", "expected numbers from 0, each once"),
    ("0,9", "coils: the scan has coils 0 to 3, got 9; choose from these"),
])  # fmt: skip
def test_lists_that_name_no_coils_are_refused(tmp_path, capsys, text, words):
    phantom.write(tmp_path / "s.h5", size=16, coils=4)
    code = run("recon", tmp_path / "s.h5", "-o", tmp_path / "i.nii", f"--coils={text}")
    assert code == (cli.DEFECT if text == "0,9" else cli.USAGE)
    assert words in capsys.readouterr().err.splitlines()[-1]
    assert not (tmp_path / "i.nii").exists()
    for coils in ((), (-1,), (0, 0)):
        with pytest.raises(ValueError, match="numbers from 0, each once"):
            pipeline.plan(scans.scan(count=4)[1], pipeline.Options(coils=coils))
