"""Lines that do not fit the others: named where something moved, and only there."""

import json

import numpy as np
import pytest
import scans
from conftest import random_complex

from ctessel import cli, consistency, phantom, pipeline
from ctessel.sampling import Lattice
from ctessel.scan import Scan


def scan_of(repetitions, mask):
    kspace = np.stack([each * mask[None, :, None, None] for each in repetitions], -1)[..., None, None, :]
    lines = np.broadcast_to(mask[:, None, None, None, None], (len(mask), 1, 1, 1, len(repetitions)))
    return Scan.of(np.asfortranarray(kspace), scans.header(kspace.shape[:3]), lines)


def moved(kspace, lines, dx=0.0, dy=0.0):
    """The object lies elsewhere, by voxels, while some lines are measured; the coils with it."""
    x, y = (np.arange(n) - n // 2 for n in kspace.shape[:2])
    out, which = kspace.copy(), np.isin(y, lines)
    turn = np.exp(-2j * np.pi * (x[:, None] * dx / len(x) + y * dy / len(y)))
    out[:, which] *= turn[:, which, None, None]
    return out


@pytest.mark.parametrize("name, step, calibration", [
    ("brain16_ksp", 2, 24), ("brain16_ksp", 3, 24), ("brain16_ksp", 4, 32),
    ("phantom32_ksp", 2, 24), ("phantom32_ksp", 3, 32),
])  # fmt: skip
def test_measured_scans_fit_and_moved_ones_are_named(measured, name, step, calibration):
    kspace = measured(name)
    n = kspace.shape[1]
    mask, late = scans.lines(n, step, calibration=calibration), np.arange(4, n // 2)
    at = np.arange(6, 7 if step == 2 else 7 + step)
    broken = kspace.copy()
    broken[:, n // 2 + 6] = 0.05 * np.abs(kspace).max() * random_complex(broken[:, 0].shape, 3)
    made = pipeline.reconstruct(scan_of(
        [kspace, moved(kspace, late, dx=2), moved(kspace, late, dy=2), kspace, broken, moved(kspace, at, dx=2)], mask
    ))  # fmt: skip
    told = {each["Repetition"]: each for each in made.parameters["inconsistent"]}
    assert set(told) == {1, 2, 4, 5}
    for repetition, first, last in ((1, 1, 8), (2, 1, 14), (4, 1, 16), (5, 2, 16)):
        lines, times = told[repetition]["Lines"], told[repetition]["Misfit"]
        assert first <= lines[int(np.argmax(times))] <= last, told
        assert min(times) > consistency.MISFIT
    lines = [text for text in made.warnings if "not fit" in text]
    assert len(lines) == 4 and lines[0].startswith("slice 0, repetition 1: line")


@pytest.mark.parametrize("kind, changes", [
    ("undersampled", {}), ("undersampled", {"noise": 0.02, "reduction": (3, 1)}), ("undersampled-3", {}),
    ("undersampled-3", {"calibration_lines": 12}), ("interleaved", {}), ("noise", {"partial": (1.0, 0.75, 1.0)}),
    ("undersampled", {"coils": 12, "noise": 0.01, "reduction": (4, 1), "calibration_lines": 32}),
])  # fmt: skip
def test_phantoms_that_hold_still_fit(tmp_path, capsys, kind, changes):
    phantom.write(tmp_path / "s.h5", kind, size=64, slices=2, **changes)
    assert cli.main(["recon", str(tmp_path / "s.h5"), "-o", str(tmp_path / "i.nii")]) == 0
    assert "not fit" not in capsys.readouterr().err
    assert "inconsistent" not in json.loads((tmp_path / "i.json").read_text())["Parameters"]


def test_scans_that_cannot_be_unfolded_are_not_judged(measured):
    kspace = measured("phantom32_ksp")
    made = pipeline.reconstruct(scan_of([kspace], scans.lines(64, 4, calibration=32)))
    assert made.parameters["condition"][0] > 100 and "inconsistent" not in made.parameters


def test_lines_are_compared_with_their_kind():
    at = consistency.lines(64)
    energies = np.where(at % 2, 30.0, 1.0) + np.abs(at) / 100
    lattice = Lattice(2, 0, 32, 64)
    assert consistency.odd(energies, lattice) == []
    energies[(at == 5) | (at == -8)] = 9, 90
    energies[np.abs(at) == 11] = 400  # on both sides: what maps do not explain
    found = consistency.odd(energies, lattice)
    assert [line for line, _ in found] == [-8, 5]
    assert consistency.odd(energies * 1e-9, lattice) == []
    assert consistency.odd(np.where(np.abs(at) < 5, energies, np.nan), lattice) == []


def test_the_report_and_the_sidecar_name_what_a_warning_leaves_out():
    entries = [consistency.entry(s, 0, [(3, 4.0), (5, 3.0)]) for s in range(12)]
    told = list(consistency.warnings(entries))
    assert len(told) == 9 and "lines +3, +5 from k = 0 do not fit the others, up to 4 times" in told[0]
    assert "4 more images" in told[-1] and "8, 9, 10, 11" in told[-1]
