"""Lines that were measured against those that a scan should have: lattices, lost lines, warnings."""

import re
from dataclasses import replace

import foreign
import numpy as np
import pytest
from command import recon, refused, run, sidecar
from conftest import random_complex
from scans import lines, scan, shifted

from ctessel import cli, pipeline


def layout(mask, acceleration=(1, 1), mode="", **known):
    """Of a scan whose images all have these lines."""
    mask = np.asarray(mask, bool).reshape(len(mask), -1)
    made = scan((16, *mask.shape), 6, mask=mask, **known)[1].layout
    header = replace(made.header, acceleration=acceleration, calibration_mode=mode)
    return replace(made, lines=made.lines.copy(), header=header)


def without(mask, *lost):
    mask = mask.copy()
    mask[list(lost)] = False
    return mask


def steps(mask, stated=(1, 1)):
    return [lattice.step for lattice in pipeline.undersampling(mask, stated=stated)]


def test_lost_lines_are_no_other_lattice():
    full = np.ones((128, 1), bool)
    for lost in ([1], [126], [64], [67], [40, 41], [40, 80, 90]):
        for stated in ((1, 1), (2, 1)):
            assert steps(without(full, *lost), stated) == [1, 1], (lost, stated)
    for step in (2, 3, 4):
        regular = lines(128, step, 0, 24)[:, None]
        for lost in ([64 + 10 * step], [64 - 5 * step], [67], [63], [64]):
            for stated in ((1, 1), (step, 1)):
                assert steps(without(regular, *lost), stated) == [step, 1], (step, lost, stated)
    assert steps(lines(64, 2, 0, 58)[:, None], (2, 1)) == [2, 1]  # three lines outside tell it


@pytest.mark.parametrize("ny, nz, cy, cz", [(60, 24, 20, 24), (60, 24, 24, 20), (60, 16, 16, 16), (24, 24, 20, 24)])
def test_the_lattice_is_found_outside_of_the_calibration_block(ny, nz, cy, cz):
    mask = np.outer(lines(ny, 2, 1), lines(nz, 2))
    mask[ny // 2 - cy // 2 : ny // 2 + cy // 2, nz // 2 - cz // 2 : nz // 2 + cz // 2] = True
    assert steps(mask) == [2, 2]
    made = pipeline.plan(layout(mask, (2, 2), "embedded"))
    assert any(s.startswith("SENSE: R = 2 along y, 2 along z,") for s in made.steps) and not made.warnings
    if ny > 24:  # an elliptical plane has corners without lines, no holes
        y, z = np.ogrid[:ny, :nz]
        assert steps(mask & ((2 * y / ny - 1) ** 2 + (2 * z / nz - 1) ** 2 < 1.05)) == [2, 2]
    mask[:, 2::4] &= np.abs(np.arange(ny) - ny // 2 + 0.5)[:, None] < cy / 2  # holes in the lattice
    assert steps(mask) != [2, 2]


SHIFTED = [
    ((32, 32), 1, 2, 1, (0, 0), (1, 1), (1, 2), (0, 1)),
    ((48, 40), 2, 2, 1, (0, 0), (2, 2), (2, 2), (0, 1)),
    ((45, 31), 2, 2, 1, (1, 0), (1, 1), (2, 2), (0, 1)),
    ((60, 48), 1, 4, 2, (0, 3), (1, 1), (2, 2), (1, 0)),  # every second line of z, in which y moves on
    ((60, 48), 1, 4, 2, (0, 3), (1, 4), (1, 4), (0, 2)),
    ((54, 36), 3, 3, 2, (2, 1), (3, 3), (3, 3), (0, 2)),
    ((64, 60), 1, 6, 4, (0, 5), (2, 2), (3, 2), (2, 0)),
    ((40, 36), 1, 5, 2, (0, 1), (5, 1), (5, 1), (3, 0)),
]


@pytest.mark.parametrize("lattice", SHIFTED)
def test_a_shifted_lattice_is_found_and_folds_to_whole_voxels(lattice):
    shape, step_y, step_z, shift, offset, stated, steps, shifts = lattice
    mask = shifted(shape, step_y, step_z, shift, offset)
    lost = np.argwhere(mask & (np.indices(shape)[0] % 17 == 5))[:2]
    y, z = np.ogrid[: shape[0], : shape[1]]
    corners = (2 * y / shape[0] - 1) ** 2 + (2 * z / shape[1] - 1) ** 2 > 1.2
    for left_out in ([], corners, tuple(lost.T)):
        kept = mask.copy()
        kept[left_out] = False
        lattices = pipeline.undersampling(kept, stated=stated)
        assert tuple(lattice.step for lattice in lattices) == steps
        assert tuple(lattice.shift for lattice in lattices) == shifts
    full = [lattice.full for lattice in lattices]
    kspace = pipeline.resize(pipeline.to_kspace(random_complex((2, *full, 3), 1), (1, 2)), (2, *shape))
    image = pipeline.to_image(pipeline.resize(kspace, (2, *full)), (1, 2))
    folded = pipeline.folded_image(kspace, lattices)
    y, z = np.ogrid[: full[0], : full[1]]  # lattices that miss k = 0 leave a phase
    turns = [(at - n // 2) * lattice.offset / n for at, n, lattice in zip((y, z), full, lattices)]
    image = image * np.exp(-2j * np.pi * (turns[0] + turns[1]))[..., None]
    y, z = np.indices(folded.shape[1:3])
    want, met = 0, np.zeros(full, int)
    for offset in pipeline.alias_offsets(lattices):
        at = [(a + (n - f + 1) // 2 + o) % n for a, n, f, o in zip((y, z), full, folded.shape[1:], offset)]
        want = want + image[:, at[0], at[1]]
        met[tuple(at)] += 1
    assert (met == 1).all()
    np.testing.assert_allclose(folded, want / np.sqrt(step_y * step_z), atol=1e-5 * np.abs(want).max())


def test_the_plan_says_a_shifted_lattice_in_words():
    made = pipeline.plan(layout(shifted((48, 40), 2, 2, 1), (2, 2), "embedded"))
    assert any(s.startswith("SENSE: R = 2 x 2 along y and z, shifted by 1 along z,") for s in made.steps)
    assert not made.warnings and (made.reduction, made.parameters["shift"]) == (4, [0, 1])
    with pytest.raises(ValueError, match="calibration: 1 lines around k = 0 along y, at least 8"):  # as both fold
        pipeline.plan(layout(shifted((48, 40), 1, 4, 2, block=1), (1, 4), "embedded"))
    with pytest.raises(ValueError, match="shifted lines unfold to the encoded field of view"):
        pipeline.undersampling(shifted((48, 40), 2, 2, 1), (1.5, 1))


def test_random_patterns_are_refused():
    mask = np.random.default_rng(0).random((64, 64)) < 0.5
    mask[27:37, 27:37] = True
    with pytest.raises(ValueError, match="no regular pattern in y and z"):
        pipeline.undersampling(mask)


def stopped(some, repetition, first=50, slices=slice(None)):
    some.lines[first:, :, slices, :, repetition] = False
    return some


def mixed(acceleration=(2, 1), mode="embedded"):
    """A full first frame, then every second line."""
    some = layout(np.ones((128, 1)), acceleration, mode, repetitions=4)
    some.lines[1::2, ..., 1:] = False
    return some


def in_one_image():
    some = layout(np.ones((128, 1)), slices=3, repetitions=3)
    some.lines[30, 0, 1, 0, 1] = some.lines[31, 0, 1, 0, 2] = False
    return some


FULL, HALF = np.ones((128, 1), bool), lines(128, 2, 0, 24)[:, None]


@pytest.mark.parametrize("some, words", [
    (layout(FULL), []),
    (layout(without(FULL, 40, 41)), ["2 lines were lost and zero-filled: ky -24, ky -23 (counted from k = 0)"]),
    (layout(without(FULL, 0, 127)), ["2 lines were lost and zero-filled: ky -64, ky 63"]),
    (layout(without(HALF, 0), (2, 1), "embedded"), ["1 line was lost and zero-filled: ky -64"]),
    (layout(without(FULL, *range(40))), []),  # partial Fourier, whatever the limits promise
    (in_one_image(), ["ky -34 of slice 1, repetition 1, ky -33 of slice 1, repetition 2"]),
    (layout(without(HALF, 10, 67), (2, 1), "embedded"), ["2 lines were lost and zero-filled: ky -54, ky 3"]),
    (layout(HALF, (3, 1), "embedded"), ["acceleration of 3 x 1, the lines have 2 x 1"]),
    (mixed(), []),
    (mixed((1, 1), ""), []),
])  # fmt: skip
def test_lost_lines_and_contradictions_are_named_and_reconstructed(some, words):
    made = pipeline.plan(some)
    assert len(made.warnings) == len(words)
    for told, part in zip(made.warnings, words):
        assert part in told
    assert pipeline.plan(replace(some, warnings=("read",))).warnings == ("read", *made.warnings)


@pytest.mark.parametrize("some, words", [
    (stopped(layout(FULL, repetitions=3), 2), "repetition 2 has 50 lines, others 128; leave it out with --range repetition 0 1"),
    (stopped(layout(FULL, repetitions=3), 1), "has 50 lines, others 128; leave it out with --skip repetition 1"),
    (stopped(layout(HALF, (2, 1), "embedded", repetitions=3), 2, 90), "leave it out with --range repetition 0 1"),
    (stopped(layout(FULL, repetitions=2), 1, 1), "repetition 1 has 1 line, others 128; leave it out with --range repetition 0 0"),
    (stopped(layout(FULL[:8], repetitions=2), 1, 5), "--range repetition 0 0"),
    (stopped(layout(FULL, slices=2), 0, 60, 1), "slice 1, echo 0, repetition 0 has 60 lines, others 128; leave it out with --range slice 0 0"),
])  # fmt: skip
def test_what_was_not_measured_to_its_end_is_refused_with_the_way_out(some, words):
    with pytest.raises(ValueError, match=re.escape(words)):
        pipeline.plan(some)


def test_a_stop_between_interleaved_lines_is_no_undersampling():
    some = layout(FULL, repetitions=4)
    some.lines[1::2, ..., 3] = False
    with pytest.raises(ValueError, match="repetition 3 has 64 lines, others 128; .*--range repetition 0 2"):
        pipeline.plan(some)


def test_slices_with_other_lines_are_refused():
    some = layout(FULL, slices=2)
    some.lines[::2, 0, 0] = some.lines[1::2, 0, 1] = False
    with pytest.raises(ValueError, match="slice 1, echo 0, repetition 0 has other lines than slice 0"):
        pipeline.plan(some)


def levelled(brain):
    """One slice as (coil, y, x), of the size of a scanner's numbers."""
    return 1e7 * brain[:, :, 0].transpose(2, 1, 0)


@pytest.mark.parametrize("lost", [[4], [30, 31]])
def test_a_lost_line_of_a_measured_head_costs_a_line(tmp_path, measured, capsys, lost):
    """Magnitudes differ by no more than what the lines hold: transforms are unitary."""
    kspace, images = levelled(measured("brain16_ksp")), []
    for name, gone in (("whole", []), ("lost", lost)):
        kept = [foreign.record(kspace[:, y], y) for y in range(128) if y not in gone]
        file = foreign.write(tmp_path / f"{name}.h5", kept, foreign.header(128, 128))
        images.append(recon(file, tmp_path / f"{name}.nii").get_fdata())
    whole, other = images
    assert 0 < np.linalg.norm(other - whole) <= 1.001 * np.linalg.norm(kspace[:, lost])
    told = capsys.readouterr().err.splitlines()
    assert len(told) == 1 and told[0].startswith("ctessel: warning: ")
    assert all(f"ky {y - 64}" in told[0] for y in lost)
    assert sidecar(tmp_path / "lost.nii")["Warnings"] == [told[0][len("ctessel: warning: ") :]]
    assert "Warnings" not in sidecar(tmp_path / "whole.nii")
    for more in ([], ["--dry-run"]):
        assert run("recon", file, "-o", tmp_path / "strict.nii", "--strict", *more) == cli.DEFECT
        warning, end = capsys.readouterr().err.splitlines()
        assert warning == told[0] and "--strict" in end
    assert not list(tmp_path.glob("strict*"))


def test_a_full_first_frame_calibrates_the_frames_after_it(tmp_path, measured):
    kspace = levelled(measured("brain16_ksp"))
    ready = foreign.records(kspace)
    ready += [foreign.record(kspace[:, y], y, repetition=1) for y in range(0, 128, 2)]
    file = foreign.write(tmp_path / "mixed.h5", ready, foreign.header(128, 128))
    full, half = np.moveaxis(recon(file, tmp_path / "i.nii").get_fdata()[:, :, 0], -1, 0)
    head = full > 0.1 * np.percentile(full, 99.5)
    assert np.linalg.norm((half - full)[head]) < 0.05 * np.linalg.norm(full[head])


def test_info_and_recon_agree_on_a_line_of_a_wrong_repetition(tmp_path, capsys):
    kspace = foreign.image(32, 16)
    ready = [foreign.record(kspace[:, y], y, repetition=9 * (y == 3)) for y in range(16)]
    file = foreign.write(tmp_path / "stray.h5", ready, foreign.header(32, 16))
    assert run("info", file) == 0
    words = "repetition 1 has 1 line, others 15; leave it out with --range repetition 0 0"
    assert words in capsys.readouterr().out
    refused(capsys, words, "recon", file, "-o", tmp_path / "i.nii")
    recon(file, tmp_path / "i.nii", "--range", "repetition", 0, 0)
    assert "1 line was lost and zero-filled: ky -5" in capsys.readouterr().err


CALIBRATION_AND_IMAGING = 1 << 20


def partial_file(path, kspace, first, centre, flagged=()):
    """Lines from `first` (counted from k = 0) on, numbered from 0; `centre` is what the header says."""
    n = kspace.shape[1]
    kept, flags = range(n // 2 + first, n), {y + n // 2: CALIBRATION_AND_IMAGING for y in flagged}
    ready = [foreign.record(kspace[:, y], y - kept[0], flags=flags.get(y, 0)) for y in kept]
    text = foreign.header(kspace.shape[2], n)
    text = text.replace(f"<center>{n // 2}</center>", f"<center>{centre}</center>")
    return foreign.write(path, ready, text)


@pytest.mark.parametrize("flagged", [range(-8, 8), ()])
def test_a_wrong_centre_is_seen_in_the_samples(tmp_path, measured, capsys, flagged):
    """The middle of the measured lines in place of k = 0 makes a partial scan look complete."""
    kspace, images = levelled(measured("brain16_ksp")), []
    for name, centre in (("right", 20), ("wrong", 42)):
        file = partial_file(tmp_path / f"{name}.h5", kspace, -20, centre, flagged)
        images.append(recon(file, tmp_path / f"{name}.nii", "--no-homodyne").get_fdata())
        words = "k = 0 along y is line 20 by the energy of k-space, but line 42 by the header; line 20 is used"
        assert capsys.readouterr().err == ("" if name == "right" else f"ctessel: warning: {words}\n")
    steps = sidecar(tmp_path / "wrong.nii")["Steps"]
    assert any("partial Fourier along y, lines -20 to 63" in step for step in steps)
    np.testing.assert_allclose(*images, atol=1e-4 * images[0].max())


@pytest.mark.parametrize("name", ["brain16_ksp", "brain1_t1sag_ksp", "phantom1_grid_ksp", "phantom32_ksp"])
def test_measured_scans_keep_the_centre_of_their_header(tmp_path, measured, capsys, name):
    kspace = measured(name)[:, :, 0].transpose(2, 1, 0)
    for first in (-kspace.shape[1] // 2, -20):
        recon(partial_file(tmp_path / "p.h5", kspace, first, -first), tmp_path / "i.nii")
        assert capsys.readouterr().err == ""
