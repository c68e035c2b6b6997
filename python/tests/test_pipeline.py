"""The pipeline on phantoms whose images are known."""

import os
import re
import resource
import subprocess
import sys
from collections import Counter
from dataclasses import replace
from fractions import Fraction

import command
import numpy as np
import pytest
from conftest import random_complex, same_bits
from scans import FIELD, acquired, coils, error, known, level, lines, phantom, scan, scan_of, write_lines

import ctessel
from ctessel import _ismrmrd, phantom as phantoms, pipeline
from ctessel.pipeline import Options
from ctessel.scan import Header, Limit, Placement, Scan

ROUNDING = 2e-6  # of single precision after transforms, relative to the largest value


def test_grids_keep_their_centre():
    for n in (7, 8):
        point = np.zeros((n, 1, 1), np.complex64)
        point[n // 2] = 1
        np.testing.assert_allclose(pipeline.to_kspace(point), np.full((n, 1, 1), n**-0.5), atol=ROUNDING)
        for m in range(3, 14):
            assert np.flatnonzero(pipeline.resize(point, (m,))) == [m // 2], (n, m)
        image = random_complex((n, 5, 1), n)
        mirrored = pipeline.flip(pipeline.to_kspace(image), (0,))
        np.testing.assert_allclose(pipeline.to_image(mirrored), pipeline.flip(image, (0,)), atol=1e-5)
        assert [int(pipeline.flip(np.arange(n) - n // 2, (0,))[n // 2 + k]) for k in (-2, 0, 2)] == [2, 0, -2]


def test_noise_is_white_after_whitening_and_cutting_the_readout():
    mixing = random_complex((4, 4), 1)
    noise = random_complex((20000, 4), 2) @ mixing.T
    want = 2 * mixing @ mixing.conj().T  # random_complex has variance 2
    covariance = pipeline.noise_covariance(noise, 0.5)
    spread = 6 / np.sqrt(len(noise))  # six standard deviations
    np.testing.assert_allclose(covariance, want / 2, atol=spread * np.abs(want).max())
    kspace = np.asfortranarray(noise.T.reshape(4, 100, 40, 5).transpose(1, 2, 3, 0))
    white = pipeline.whiten(pipeline.remove_oversampling(kspace, 50), covariance).reshape(-1, 4)
    np.testing.assert_allclose(white.T @ white.conj() / len(white), 2 * np.eye(4), atol=2 * spread * np.sqrt(2))
    with pytest.raises(ValueError, match="singular"):
        pipeline.noise_covariance(noise * [1, 0, 1, 1])


@pytest.mark.parametrize("shape, oversampling", [((32, 24, 1), 2), ((33, 25, 8), 1)])
def test_full_scan_is_the_phantom(shape, oversampling):
    truth, full = scan(shape, slices=2, repetitions=2, oversampling=oversampling)
    seen = []
    result = pipeline.reconstruct(full, progress=lambda *done: seen.append(done))
    np.testing.assert_allclose(np.abs(result.image[:, :, :, :, 0]), truth[:, :, :, :, 0], atol=4 * ROUNDING)
    assert seen[-1] == (4, 4)
    magnitude = pipeline.reconstruct(full, Options(combine="sos")).image
    assert magnitude.dtype == np.float32
    np.testing.assert_allclose(magnitude, truth, atol=4 * ROUNDING)
    larger = pipeline.reconstruct(full, Options(matrix=tuple(2 * n if n > 1 else 1 for n in shape))).image
    exact = larger[::2, ::2, :: 2 if shape[2] > 1 else 1]
    if shape[0] % 2 == 0:
        np.testing.assert_allclose(np.abs(exact), truth, atol=4 * ROUNDING)


def test_field_narrower_than_encoded_is_cut():
    truth, full = scan((32, 48, 1))
    full.layout.header.recon_fov = (FIELD, FIELD * 2 / 3, 5.0)
    full.layout.header.recon_matrix = (32, 32, 1)
    image = pipeline.reconstruct(full).image
    np.testing.assert_allclose(np.abs(image), truth[:, 8:40], atol=4 * ROUNDING)


@pytest.mark.parametrize("axis", range(3))
@pytest.mark.parametrize("side", (-1, 1))
@pytest.mark.parametrize("n", (32, 33))
def test_partial_fourier_is_exact_for_a_constant_phase_on_both_sides(axis, side, n):
    shape = [10, 9, 8]
    shape[axis] = n
    k = np.arange(n) - n // 2
    along = np.reshape(k, [-1 if a == axis else 1 for a in range(3)])
    full = pipeline.to_kspace(np.abs(phantom(shape)).astype(np.complex64))
    full *= np.abs(along) <= (n - 1) // 2  # the line without a mirror image
    truth = pipeline.to_image(full)
    first, last = sorted((-5 * side, (n - 1) // 2 * side))
    ranges = [(first, last) if a == axis else None for a in range(3)]
    partial = np.exp(1j * np.float32(1.2)) * full * ((along >= first) & (along <= last))
    image = pipeline.homodyne_recon(partial.astype(np.complex64), ranges)
    assert not image.imag.any()
    np.testing.assert_allclose(np.abs(image), np.abs(truth), atol=4 * ROUNDING)


def partial_scan(axis, side, shape):
    """A scan of which one side of an axis is missing, from line 6 on."""
    truth, partial = scan(shape, count=4, oversampling=2 if axis == 0 else 1)
    n = partial.kspace.shape[axis]
    first, last = sorted((-6 * side, (n // 2 if side < 0 else (n - 1) // 2) * side))
    kept = lines(n, first=first, last=last)
    partial.kspace *= kept.reshape([-1 if a == axis else 1 for a in range(7)])
    if axis == 0:
        partial.layout.header.limits["x"] = Limit(first + n // 2, last + n // 2, n // 2)
    else:
        kept = kept.reshape([-1 if a == axis else 1 for a in range(1, 6)])
        partial = known(partial, lines=partial.layout.lines & kept)
    return truth, partial


@pytest.mark.parametrize("axis, shape", [(0, (32, 32, 1)), (1, (32, 32, 1)), (1, (32, 33, 1)), (2, (24, 24, 32))])
@pytest.mark.parametrize("side", (-1, 1))
def test_partial_scans_are_closer_than_zero_filled_ones(axis, side, shape):
    truth, partial = partial_scan(axis, side, shape)
    words = "; ".join(pipeline.plan(partial, Options(partial="homodyne")).steps)
    assert f"homodyne along {'xyz'[axis]}" in words and ("mirrored" in words) == (side < 0)
    ways = (Options(partial=way) for way in ("auto", "zero", "homodyne", "pocs"))
    auto, zero, *images = (pipeline.reconstruct(partial, options).image for options in ways)
    assert max(error(image, truth) for image in images) < 0.65 * error(zero, truth)
    same_bits(auto, images[1])


def test_lines_are_recognised():
    several = (64, 2, 0, 24), (64, 2, 1, 24), (64, 3, 2, 20), (63, 4, 3, 16)
    for n, step, offset, calibration in (*several, (49, 5, 0, 0)):  # its slot of line -25 stays empty
        mask = lines(n, step, offset, calibration)[:, None]
        lattice, flat = pipeline.undersampling(mask)
        assert lattice.step == step and (lattice.offset - offset) % step == 0 and lattice.reduction == step
        assert flat.reduction == 1 and lattice.folded * step >= n
        if calibration:
            block = pipeline.calibration_block(mask)[0]
            assert block.start <= n // 2 - calibration // 2 and block.stop >= n // 2 + calibration // 2
        slots = step * (np.arange(lattice.folded) - lattice.folded // 2) + lattice.offset + n // 2
        inside = (slots >= 0) & (slots < n)
        assert np.count_nonzero(inside) == np.count_nonzero(lines(n, step, offset))  # none is lost
        numbers = np.arange(1, n + 1).reshape(1, n, 1)
        folded = pipeline.fold_lines(numbers.astype(np.complex64), (lattice, flat))
        np.testing.assert_array_equal(folded.ravel(), np.where(inside, slots + 1, 0))
    y, z = pipeline.undersampling(np.outer(lines(32), lines(12)), (1.5, Fraction(5, 4)))
    assert (y.folded, y.full, y.reduction) == (32, 48, Fraction(3, 2))
    assert (z.folded, z.full) == (16, 20)  # 15 lines of 12 would lie half a line off
    irregular = np.ones((32, 1), bool)
    irregular[[3, 8, 9, 17, 26]] = False
    with pytest.raises(ValueError, match="no regular distance"):
        pipeline.undersampling(irregular)


@pytest.mark.parametrize("first, step, partial", [
    (-31, 1, False), (-30, 1, False), (-29, 1, True), (-24, 1, True), (-24, 4, False), (-20, 4, True),
])  # fmt: skip
def test_an_axis_is_partial_beyond_a_step_and_two_percent(first, step, partial):
    _, some = scan((8, 64, 1), count=1, y=lines(64, step, first=first))
    last = 31 if step == 1 else 28
    assert pipeline.partial_ranges(some.layout) == [None, (first, last) if partial else None, None]


@pytest.mark.parametrize("shape, y, z", [
    ((16, 48, 1), (2, 0), (1, 0)), ((16, 48, 1), (2, 1), (1, 0)), ((16, 48, 1), (3, 1), (1, 0)), ((8, 24, 24), (2, 1), (2, 0)),
])  # fmt: skip
def test_sense_with_known_maps_is_the_phantom(shape, y, z):
    truth, full = scan(shape, 8)
    masks = lines(shape[1], *y), lines(shape[2], *z)
    lattices = pipeline.undersampling(np.outer(*masks))
    folded = pipeline.to_image(pipeline.fold_lines(full.kspace[..., 0, 0, 0], lattices))
    image = pipeline.unfold(folded, coils(shape, 8), lattices)
    np.testing.assert_allclose(image, phantom(shape), atol=2e-4)


def narrow_scan(ratio, shape=(48, 48, 1), count=8, beyond=0):
    """Encoded field narrower than the object by `ratio`; a calibration scan of the whole, `beyond` pixels wider."""
    truth, full = scan(shape, count)
    n = int(shape[1] / ratio)
    image = pipeline.to_image(full.kspace[..., 0, 0, 0])
    folded = np.zeros((shape[0], n, *image.shape[2:]), np.complex64)
    for line in range(shape[1]):
        folded[:, ctessel.folded_pos(line, shape[1], n)] += image[:, line]
    wide = shape[1] + 2 * beyond
    separate = pipeline.to_kspace(np.pad(image, [(0, 0), (beyond, beyond), (0, 0), (0, 0)]))
    lowres = separate[:, wide // 2 - 14 : wide // 2 + 14][..., None, None, None]
    limits = {**full.layout.header.limits, "y": Limit(0, n - 1, n // 2)}
    narrowed = replace(full.layout.header, encoded_matrix=(shape[0], n, 1), encoded_fov=(FIELD, FIELD / ratio, 5.0),
                       limits=limits, calibration_fov=(FIELD, FIELD * wide / shape[1], 5.0))  # fmt: skip
    kspace = pipeline.to_kspace(folded) / np.float32(ratio) ** 0.5  # as samples of the whole field
    narrow = Scan.of(kspace[..., None, None, None], narrowed, calibration=lowres)
    return truth, narrow


@pytest.mark.parametrize(
    "kind, bound",
    [(2, 0.02), (3, 0.04), (Fraction(3, 2), 0.02), ("moving", 0.02), ("3-D", 0.06), ("wide calibration", 0.02)],
)
def test_undersampled_scans(kind, bound):
    """The bound is that of maps from 24 to 28 lines; the phantom's edges are sharp."""
    if kind == "3-D":
        block = np.outer(*[np.abs(np.arange(32) - 15.5) < 10] * 2)
        truth, under = scan((16, 32, 32), 8, mask=block | np.outer(lines(32, 2), lines(32, 2, 1)))
    elif kind == "moving":
        truth, under = scan((48, 48, 1), 8, repetitions=4, growth=0)
        measured = np.stack([lines(48, 2, r % 2) for r in range(4)], -1)
        under = known(under, lines=measured[:, None, None, None, :])
        under.kspace *= measured[None, :, None, None, None, None, :]
    elif isinstance(kind, Fraction) or kind == "wide calibration":
        truth, under = narrow_scan(2, beyond=6) if kind == "wide calibration" else narrow_scan(kind)
    else:
        n = 46 + kind  # 49 lines are no multiple of 3
        truth, under = scan((48, n, 1), 8, lines(n, kind, 1, 24), slices=2, oversampling=2)
    words = "; ".join(pipeline.plan(under).steps)
    assert f"R = {kind if isinstance(kind, (int, Fraction)) else 2} along y" in words
    assert error(pipeline.reconstruct(under).image, truth) < bound


@pytest.mark.parametrize("side", (-1, 1))
def test_partial_and_undersampled(side):
    first, last = sorted((-16 * side, 47 * side))
    truth, both = scan((48, 96, 1), 8, lines(96, 2, 1, 24, first, last), oversampling=2)
    image = pipeline.reconstruct(both).image
    zero_filled = pipeline.reconstruct(both, Options(partial="zero")).image
    assert error(image, truth) < 0.04 and error(image, truth) < 0.6 * error(zero_filled, truth)


def test_regularised_sense_has_less_noise_and_a_weight_that_does_not_depend_on_the_number_of_coils():
    truth, noisy = scan((32, 48, 1), 6, lines(48, 3, 0, 24), noise=0.1)
    for r in (0, 1):
        assert error(pipeline.reconstruct(noisy, Options(regularisation=r)).image, truth) < 0.25
    lattices, covariance = pipeline.undersampling(noisy.layout.sampled), pipeline.noise_covariance(noisy.layout.noise)
    folded = pipeline.to_image(pipeline.fold_lines(noisy.kspace[..., 0, 0, 0], lattices))
    maps, expected = coils((32, 48, 1), 6), np.abs(phantom((32, 48, 1)))
    single = pipeline.unfold(folded, maps, lattices, covariance=covariance, expected=expected)
    plain = pipeline.unfold(folded, maps, lattices, covariance=covariance)
    truth = truth[:, :, :, 0, 0, 0]
    assert error(single, truth) < 0.8 * error(plain, truth)
    twice = (np.concatenate([a, a], 3) for a in (folded, maps / np.float32(2**0.5)))  # and twice the noise
    both = np.kron(2 * np.eye(2), covariance).astype(np.complex64)
    double = pipeline.unfold(*twice, lattices, covariance=both, expected=expected * np.float32(2**0.5))
    np.testing.assert_allclose(double, single * 2**0.5, atol=1e-4)
    with pytest.raises(ValueError, match="needs a noise scan"):
        pipeline.plan(known(noisy, noise=None), Options(regularisation=1))


def test_parts_merge_to_the_whole_or_are_refused():
    _, whole = scan((24, 32, 1), 4, lines(32, 2, 0, 16), slices=3, repetitions=2)
    plan = pipeline.plan(whole)
    last, first, middle = (pipeline.reconstruct(whole, plan=pipeline.select(plan, "slice", n, n)) for n in (2, 0, 1))
    last.parameters["inconsistent"], first.parameters["inconsistent"] = ["last"], ["first"]
    merged = pipeline.merge([last, first, middle])
    assert merged.selection == ("slice", 0, 2) and merged.steps == list(plan.steps)
    assert merged.parameters["inconsistent"] == ["first", "last"]
    with pytest.raises(ValueError, match="each index must be there once"):
        pipeline.merge([last, first, middle, last])
    with pytest.raises(ValueError, match="outside 0 to 2"):
        pipeline.select(plan, "slice", 1, 3)
    with pytest.raises(ValueError, match="slice 1, got slice 2 2"):
        pipeline.merge([last, first], gaps=True)


def test_all_scans_of_a_head_have_one_level_with_and_without_a_noise_scan(measured):
    brain, covariance = measured("brain16_ksp"), measured("brain16_ncov")[:, :, 0, 0]
    mixing = np.linalg.cholesky(covariance.astype(complex))
    noise = (random_complex((4096, 16), 3) / np.float32(2**0.5) @ mixing.T).astype(np.complex64)
    masks = {
        "full": lines(128), "R = 2": lines(128, 2, 0, 32), "R = 3": lines(128, 3, 0, 32),
        "partial": lines(128, first=-20), "R = 2, partial": lines(128, 2, 0, 24, first=-24),
    }  # fmt: skip
    images = {}
    for name, mask in masks.items():
        for measured_noise in (None, noise):
            kept = scan_of(brain * mask[None, :, None, None], mask[:, None], measured_noise)
            image = pipeline.reconstruct(kept, Options(combine="sos", partial="zero")).image
            images[name, measured_noise is None] = image
    truth = images["full", True]
    head = truth > 0.08 * np.percentile(truth, 99.5)
    zero_filled = level(images["partial", True][head], truth[head])  # less than all lines hold
    for (name, _), image in images.items():
        want = zero_filled if "partial" in name else 1
        assert abs(level(image[head], truth[head]) / want - 1) < 0.01, name


def test_a_field_wider_than_the_encoded_one_is_told_and_stretches_nothing():
    shape = (32, 48, 24)
    _, full = scan(shape)
    want = pipeline.reconstruct(full)
    for axis in range(3):
        wide = tuple(FIELD * (1.1 if a == axis else 1) for a in range(3))
        contrary = known(full, header=replace(full.layout.header, recon_fov=wide))
        result = pipeline.reconstruct(contrary)
        same_bits(result.image, want.image)
        assert result.field == want.field
        (told,) = result.warnings
        assert f"264 mm wide along {'xyz'[axis]}, the encoded field of view 240 mm" in told


@pytest.mark.parametrize("options", [
    Options(), Options(combine="sos", ringing=0.4), Options(matrix=(20, 40, 33)),
    Options(regularisation=0.8, matrix=(16, 32, 32), ringing=0.2), Options(whiten=False),
], ids=["plain", "ringing", "larger", "regularised", "not weighted"])  # fmt: skip
@pytest.mark.parametrize("kind", ["full", "partial", "undersampled"])
def test_slabs_of_any_width_have_the_bits_of_the_volume(monkeypatch, kind, options):
    block = np.outer(*[np.abs(np.arange(32) - 15.5) < 8] * 2)
    mask = {
        "full": np.ones((32, 32), bool), "partial": np.outer(lines(32), lines(32, first=-8)),
        "undersampled": block | np.outer(lines(32, 2), lines(32, 2)),
    }[kind]  # fmt: skip
    _, volumes = scan((16, 32, 32), 6, mask=mask, repetitions=2, oversampling=2, noise=0.05)
    want = pipeline.reconstruct(volumes, options)
    samples = volumes.kspace.copy()
    monkeypatch.setattr(ctessel.plan, "BLOCK", 1 << 18)  # a column or a few
    same_bits(pipeline.reconstruct(volumes, options).image, want.image)
    same_bits(volumes.kspace, samples)  # they are the caller's
    volumes.disposable = True
    same_bits(pipeline.reconstruct(volumes, options).image, want.image)


def test_volumes_have_maps_of_their_own_planes_and_keep_measured_lines():
    """Maps by division, and folded lines alone, are off by 0.119."""
    block = np.outer(*[np.abs(np.arange(32) - 15.5) < 8] * 2)
    under = block | np.outer(lines(32, 2), lines(32, 2))
    for whiten, bound in ((True, 0.1), (False, 0.105)):
        made = []
        for mask in (under, np.ones_like(under)):
            truth, volume = scan((16, 32, 32), 8, mask=mask, noise=0.02, oversampling=2)
            made.append(pipeline.reconstruct(volume, Options(combine="sos", whiten=whiten)).image)
        inside = truth > 0.2 * truth.max()
        assert error(made[0][inside], made[1][inside]) < bound


MOST = 850 << 20  # of 3-D scans with 453 MB of k-space: resident memory of the whole process
LEAST = 450 << 20  # with k-space in a file: all data of the process


def test_a_volume_needs_its_samples_once_and_none_of_the_memory_with_scratch(tmp_path):
    write_large_volume(tmp_path / "v.h5")
    seen = {}
    for name, limit, options in (("here", resource.RLIM_INFINITY, []), ("file", LEAST, ["--scratch", tmp_path])):
        words = f"-W ignore -m ctessel recon {tmp_path}/v.h5 -o {tmp_path}/{name}.nii".split()
        run = [sys.executable, *words, *options]
        process = subprocess.Popen(run, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_DATA, (limit, limit)))
        _, status, usage = os.wait4(process.pid, 0)
        assert status == 0, name
        seen[name] = 1024 * usage.ru_maxrss
    print(f"{seen['here'] >> 20} MiB resident")
    assert seen["here"] < MOST
    assert (tmp_path / "here.nii").read_bytes() == (tmp_path / "file.nii").read_bytes()


def write_large_volume(path):
    """192 x 192 x 96 voxels, 16 coils, R = 2 x 2; a narrow object along x, as maps take most of the time."""
    shape, field = (192, 192, 96), (192.0, 192.0, 96.0)
    limits = {name: Limit(0, n - 1, n // 2) for name, n in zip("xyz", shape)}
    text = Header(shape, field, shape, field, limits, (2, 2), "embedded")
    lines_y, lines_z = (lines(n, 2) for n in shape[1:])
    block = [np.abs(np.arange(n) - n // 2) < 12 for n in shape[1:]]
    samples = random_complex((1, 16), 1) * np.exp(-(((np.arange(192) - 96) / 20) ** 2))[:, None]
    measured = (
        (acquired(center_sample=96, kspace_encode_step_1=y, kspace_encode_step_2=z),
         samples * np.exp(-(abs(y - 96) + abs(z - 48)) / 20))
        for y, z in np.argwhere(np.outer(lines_y, lines_z) | np.outer(*block))
    )  # fmt: skip
    write_lines(path, measured, _ismrmrd.header_text(text, coils=16, counts={}))


# x y z against x: the slices are displaced within and across their planes.
def test_parallel_slices_are_corrected_as_one_volume(tmp_path):
    (tmp_path / "coil.txt").write_text("x 3 1 -0.2\ny 3 1 -0.2\nz 3 0 -0.6\nz 2 0 0.2\n")
    table = pipeline.read_coefficients(tmp_path / "coil.txt")
    _, made = scan((24, 24, 1), 1, slices=5, repetitions=2)
    turn = np.array([[1, 0, 0], [0, 0.8, 0.6], [0, -0.6, 0.8]])
    places = [Placement(np.array([20, 0, 60]) + 8.0 * n * turn[2], *turn) for n in range(5)]
    made = known(made, header=replace(made.layout.header, placements=places))
    plain = pipeline.reconstruct(made, Options(combine="sos"))
    for dims, words in ((3, ""), (2, " in the plane of the slices"), (1, " across the slices")):
        options = Options(combine="sos", coefficients=table, dims=dims)
        whole = pipeline.reconstruct(made, options)
        volume = pipeline.geometry(plain.image[:, :, 0, :, 0], places, plain.field, table, dims=dims)
        same_bits(np.asarray(whole.image[:, :, 0, :, 0]), np.asarray(volume))
        assert f"geometry correction{words}, splines of order 3, intensity by the Jacobian" in whole.steps
    alone = pipeline.reconstruct(made, plan=pipeline.select(pipeline.plan(made, options), "slice", 1, 2))
    one = pipeline.geometry(plain.image[:, :, :, 1, 0], places[1], plain.field, table, dims=1)
    same_bits(np.asarray(alone.image[:, :, :, 0, 0]), np.asarray(one))
    assert "only within their planes" in alone.warnings[-1]
    assert any("each slice by itself" in step for step in alone.steps)
    uneven = known(made, header=replace(made.layout.header, placements=[*places[:4], places[0]]))
    assert "only within their planes" in pipeline.plan(uneven, options).warnings[-1]


def test_plan_reads_no_samples_and_faults_name_their_mend():
    _, full = scan((32, 48, 1), 8, lines(48, 2, 0, 20), noise=1.0)
    options = Options(ringing=0.5, matrix=(64, 96, 1))
    plan = pipeline.plan(full.layout, options)
    assert list(plan.steps) == [
        "noise covariance of 4000 samples: weight the coils by its inverse",
        "sensitivity maps (ESPIRiT) from 20 x 1 ACS lines, two sets where one is not enough",
        "SENSE: R = 2 along y, damped by the variance of the noise, measured lines put back",
        "ringing filter of strength 0.5",
        "zero filling to 64 x 96 x 1",
        "image 64 x 96 x 1, field of view 240 x 240 x 5 mm",
    ]
    assert list(pipeline.plan(scan((16, 16, 1), 4)[1].layout).steps) == [
        "combine coils: root sum of squares with phase",
        "image 16 x 16 x 1, field of view 240 x 240 x 5 mm",
    ]
    assert plan.memory() > plan.memory(0) > full.kspace.nbytes
    result = pipeline.reconstruct(full, options)
    assert result.steps == list(plan.steps) and plan.parameters.items() <= result.parameters.items()
    few = scan((32, 48, 1), 8, lines(48, 2, 0, 4))[1]
    for faulty, options, message in (
        (few, Options(), "at least 8 are needed; add ACS lines"),
        (scan((16, 48, 1), 1, lines(48, 2, 0, 20))[1], Options(), "R = 2 is more than SENSE can unfold with 1 coil;"),
        (known(few, lines=few.layout.lines & False), Options(), "no line was measured"),
        (full, Options(matrix=(32, 48, 2)), "expected one voxel along z"),
        (full, Options(combine="mean"), 'expected "pcsos" or "sos"'),
        (full, Options(coefficients=pipeline.Coefficients((), 250.0, "LPS"), position="up"), "expected one of HFS"),
    ):
        with pytest.raises(ValueError, match=re.escape(message)):
            pipeline.plan(faulty, options)


def test_everything_is_decided_once(tmp_path, monkeypatch):
    calls = Counter()

    def counted(module, name):
        function = getattr(module, name)

        def call(*arguments, **keywords):
            calls[name] += 1
            return function(*arguments, **keywords)

        monkeypatch.setattr(module, name, call)

    for name in ("_grid", "_pattern", "_calibration", "noise_covariance", "_words"):
        counted(ctessel.plan, name)
    counted(ctessel.coverage, "samplings")
    counted(ctessel.raw, "open_reader")
    phantoms.write(tmp_path / "p.h5", "noise", size=48, coils=4, slices=2, repetitions=3)
    for part in ("", "--range repetition 1 2", "--range slice 0 0"):
        calls.clear()
        command.recon(tmp_path / "p.h5", tmp_path / "i.nii", *part.split())
        assert set(calls.values()) == {1} and len(calls) == 7, (part, calls)
