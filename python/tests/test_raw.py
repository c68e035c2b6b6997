"""Raw data files: what others wrote, lines in every order, places in the patient, and defects."""

import os
import subprocess
import sys
import tracemalloc
from pathlib import Path

import foreign
import h5py
import nibabel
import numpy as np
import pytest
from command import recon, refused, run
from processes import memory
from scans import acquired, write_lines

from ctessel import _ismrmrd, _raw, nifti, phantom, pipeline, raw, runtime
from ctessel.acquisitions import flag
from ctessel.scan import Header, Limit, Placement

SIN, COS = np.sin(np.radians(30)), np.cos(np.radians(30))


def header(**changes):
    fields = {
        "encoded_matrix": (16, 8, 1), "encoded_fov": (32.0, 24.0, 5.0), "recon_matrix": (8, 8, 1),
        "recon_fov": (16.0, 24.0, 5.0), "limits": {"y": Limit(0, 7, 4), "z": Limit(0, 0, 0)},
    }  # fmt: skip
    return Header(**{**fields, **changes})


def acquisition(samples=16, coils=2, seed=0, **fields):
    values = np.random.default_rng(seed).standard_normal((samples, coils, 2)) @ [1, 1j]
    return acquired(**{"center_sample": samples // 2, **fields}), values.astype(np.complex64)


def write(path, acquisitions, text=None):
    return write_lines(path, acquisitions, text or _ismrmrd.header_text(header(), coils=2, counts={}))


def lines(ys=range(8), seed=0, **fields):
    return [acquisition(kspace_encode_step_1=y, seed=seed + y, **fields) for y in ys]


@pytest.mark.parametrize("options, more, bound", [
    ("-n 0.05", "", 1e-6),
    ("-n 0.05 -r 3", "", 1e-6),
    ("-n 0.05 -C -k", "--no-noise", 1e-6),
    ("-n 0.001 -C", "", 2e-2),
    ("-n 0.0005 -a 2 -w 16 -r 2 -C", "", 2e-2),
], ids=["full", "repetitions", "noise scan left out", "whitened", "undersampled"])  # fmt: skip
def test_images_of_foreign_files_agree_with_foreign_reconstructions(tmp_path, options, more, bound):
    theirs = foreign.reconstructed(tmp_path / "raw.h5", f"-m 64 -c 8 {options}")
    ours = recon(tmp_path / "raw.h5", tmp_path / "i.nii", *more.split()).get_fdata()
    last = ours.reshape(64, 64, -1)[..., -1]  # theirs keeps the line that was written last
    last *= np.vdot(last, theirs) / np.vdot(last, last)  # whitening and transforms scale
    assert np.linalg.norm(last - theirs) < bound * np.linalg.norm(theirs)


@pytest.mark.parametrize("kind, bound", [
    ("echoes", 1e-6), ("partial", 0.03), ("partial-end", 0.03), ("partial-readout", 0.03), ("undersampled", 0.02),
    ("undersampled-3", 0.03), ("turns", 0.01), ("3d-undersampled", 0.05), ("3d-caipi", 0.05),
])  # fmt: skip
def test_phantoms_come_back(tmp_path, kind, bound):
    truth = np.abs(phantom.write(tmp_path / "p.h5", kind, size=64))
    made = pipeline.reconstruct(raw.read(tmp_path / "p.h5"), pipeline.Options(combine="sos"))
    assert np.linalg.norm(made.image - truth) < bound * np.linalg.norm(truth)
    assert (made.parameters["reduction"] == ["3", "1"]) == (kind == "undersampled-3")


def test_lines_arrive_whatever_their_order_direction_and_number(tmp_path):
    plain = raw.read(write(tmp_path / "plain.h5", lines()))
    mixed = [acquisition(flags=flag(23), seed=99)]  # a navigator
    mixed += [acquisition(32, flags=flag(19), seed=50, sample_time_us=6)]
    for head, samples in lines(sample_time_us=4)[::-1]:
        turned, wide = head.copy(), head.copy()
        turned["flags"] = flag(22)
        wide["discard_pre"], wide["discard_post"], wide["center_sample"] = 3, 1, 11
        wide["average"] = 1
        padding = np.full((1, 2), 1e9, np.complex64)
        mixed += [(turned, samples[::-1]), (wide, np.concatenate([*[padding] * 3, 2 * samples, padding]))]
    scan = raw.read(write(tmp_path / "mixed.h5", mixed))
    np.testing.assert_array_equal(scan.kspace, np.float32(3) * plain.kspace / np.float32(2))  # once, and twice it
    for y, (_, samples) in enumerate(lines()):
        np.testing.assert_array_equal(plain.kspace[:, y, 0, :, 0, 0, 0], samples)
    assert scan.layout.noise.shape == (32, 2) and plain.layout.noise is None
    assert scan.layout.header.noise_bandwidth_ratio == 6 / 4 / 2  # of the mean of two


@pytest.mark.parametrize("n", [32, 31])
@pytest.mark.parametrize("which", [slice(3, None, 2), slice(None)], ids=["every second", "all"])
def test_reversed_readouts_count_their_centre_either_way(tmp_path, n, which):
    kspace = foreign.image(n, 16)
    for centre in (n - 1 - n // 2, n - n // 2):  # of the reversed line; of even lines, as in the others
        lines, turned = foreign.records(kspace), {"flags": 1 << 21, "center_sample": centre}
        lines[which] = [foreign.record(kspace[:, y, ::-1], y, **turned) for y in range(16)[which]]
        file = foreign.write(tmp_path / f"{centre}.h5", lines, foreign.header(n, 16))
        read = raw.read(file).kspace[:, :, 0, :, 0, 0, 0]
        np.testing.assert_array_equal(read, kspace.transpose(2, 1, 0))


@pytest.mark.parametrize("kind", [
    h5py.string_dtype("ascii"), h5py.string_dtype("utf-8"), h5py.string_dtype("ascii", 3000), h5py.string_dtype("utf-8", 3000),
])  # fmt: skip
def test_headers_of_every_kind_of_text_are_read(tmp_path, kind):
    text = foreign.header(32, 16).replace("<encoding>", "<measurementInformation><protocolName>T1 für É"
                                          "</protocolName></measurementInformation><encoding>", 1)  # fmt: skip
    file = foreign.write(tmp_path / "r.h5", foreign.records(foreign.image(32, 16)), text, "a/b", kind)
    assert raw.contents(file, group="a/b").header.protocol == "T1 für É"
    for wrong in ("dataset", "/a", "", "a/b/xml"):
        with pytest.raises(raw.RawError, match=r"no raw data in its group .*--group: a/b$"):
            raw.contents(file, group=wrong)


def test_a_file_stays_readable_when_others_close_it(tmp_path):
    file = str(write(tmp_path / "r.h5", lines()))
    first, second = (_raw.Reader(file, "dataset") for _ in range(2))
    del first
    for _ in range(20):
        _raw.Reader(file, "dataset")  # takes the memory of what was closed
    block, want = second.read([4, 5]), lines()[5][1]
    np.testing.assert_array_equal(block.samples(5), want)
    place = {"x": [0], "array": np.zeros_like(want, order="F"), "offsets": [0], "shift": 0}
    for odd in ({"x": [2**63 - 1]}, {"offsets": [2**63 - 1]}, {"array": np.zeros((0, 2), "c8")}):
        with pytest.raises((RuntimeError, ValueError)):
            block.put([5], coil_axis=1, add=[False], **{**place, **odd})


def test_calibration_completes_each_image_or_stays_apart(tmp_path):
    for repetitions, joined in ((1, True), (2, False)):
        scan = raw.read(write(tmp_path / f"{repetitions}.h5", [
            *lines([3, 5], flags=flag(20)), *lines([4], flags=flag(21)), *lines([0, 2, 6]),
            *(a for r in range(1, repetitions) for a in lines([0, 2, 4, 6], repetition=r)),
        ]))  # fmt: skip
        assert (scan.calibration is None) == joined
        assert scan.layout.sampled[:, 0].tolist() == [y in (0, 2, 4, 6) or joined and y in (3, 5) for y in range(8)]
        if not joined:  # its own grid has k = 0 in the middle
            assert scan.calibration.shape == (16, 3, 1, 2, 1, 1, 1)
            np.testing.assert_array_equal(scan.calibration[:, 1, 0, :, 0, 0, 0], acquisition(seed=4)[1])


@pytest.mark.parametrize("read, phase, normal, matrix", [
    ((1, 0, 0), (0, 1, 0), (0, 0, 1), [[-2, 0, 0, 54], [0, -3, 0, 28], [0, 0, 5, 30]]),
    ((0, 0, -1), (0, 1, 0), (1, 0, 0), [[0, 0, -5, -10], [0, -3, 0, 28], [-2, 0, 0, 94]]),
    ((1, 0, 0), (0, COS, SIN), (0, -SIN, COS),
     [[-2, 0, 0, 54], [0, -3 * COS, 2.5, -20 + 48 * COS], [0, 1.5, 5 * COS, 6]]),
], ids=["axial", "sagittal", "oblique"])  # fmt: skip
def test_affine_of_hand_worked_orientations(read, phase, normal, matrix):
    normal = np.array(normal, float)
    places = [Placement((10, 20, 30) + 5 * i * normal, np.array(read), np.array(phase), normal) for i in range(3)]
    found, known = nifti.affine(header(placements=places), (64, 32, 1, 3), (128, 96, 4))
    assert known
    np.testing.assert_allclose(found[:3], matrix, atol=1e-12)
    slab, _ = nifti.affine(header(placements=places[2:]), (64, 32, 5, 1), (128, 96, 25))
    np.testing.assert_allclose(slab[:3], matrix, atol=1e-12)  # its middle partition is slice 2
    single, _ = nifti.affine(header(placements=places[:1], spacing=5.0), (64, 32, 1, 1), (128, 96, 4))
    np.testing.assert_allclose(single[:3], matrix, atol=1e-12)  # the gap counts


def test_a_whole_calibration_readout_does_not_hide_a_partial_one_of_the_images(tmp_path):
    images = lines(range(0, 8, 2), samples=11, center_sample=3)
    text = _ismrmrd.header_text(header(calibration_mode="separate"), coils=2, counts={})
    scan = raw.read(write(tmp_path / "c.h5", [*lines(flags=flag(20)), *images], text))
    assert pipeline.partial_ranges(scan.layout)[0] == (-3, 7)


@pytest.mark.parametrize("name, calibrated, joined", [
    ("slice", (0, 1, 2, 3), True), ("slice", (0, 1, 2, 3), False), ("contrast", (3,), False), ("repetition", (0,), False),
])  # fmt: skip
def test_calibration_for_other_images_spoils_none(tmp_path, name, calibrated, joined):
    """Images have the numbers 1 and 2 of an axis."""
    repeated = [3, 5] if joined or name != "slice" else [3, 4, 5]
    scan = raw.read(write(tmp_path / "c.h5", [
        *(a for n in (1, 2) for a in lines([0, 2, 4, 6], 10 * n, **{name: n})),
        *(a for n in calibrated for a in lines(repeated, 10 * n, flags=flag(20), **{name: n})),
    ]))  # fmt: skip
    kspace = np.moveaxis(scan.kspace, {"slice": 4, "contrast": 5, "repetition": 6}[name], 0)
    want = {y: [acquisition(seed=10 * n + y)[1] for n in (1, 2)] for y in range(8)}
    for y in (0, 2, 3, 4, 5, 6) if joined else (0, 2, 4, 6):
        np.testing.assert_array_equal(kspace[:, :, y, 0].reshape(2, 16, 2), want[y])
    assert (scan.calibration is None) == joined
    if not joined:
        own = want[3] if name == "slice" else [acquisition(seed=10 * calibrated[0] + 3)[1]]
        np.testing.assert_array_equal(np.moveaxis(scan.calibration[:, 0, 0, :, :, 0, 0], 2, 0), own)


def test_calibration_of_the_first_repetition_serves_a_part(tmp_path):
    first = [*lines([3, 5], flags=flag(20)), *lines([4], flags=flag(21)), *lines([2, 6])]
    file = write(tmp_path / "c.h5", [*first, *lines([2, 4, 6], repetition=1)])
    scan = raw.read(file, range=("repetition", 1, 1))
    for i, y in enumerate((3, 4, 5)):
        np.testing.assert_array_equal(scan.calibration[:, i, 0, :, 0, 0, 0], acquisition(seed=y)[1])


def test_slices_are_put_in_the_order_of_their_places(tmp_path):
    where = [7.0, 1.0, 4.0]
    measured = [a for s, z in enumerate(where) for a in lines(slice=s, position=(0, 0, z), user_int=s)]
    file = write(tmp_path / "s.h5", measured)
    scan = raw.read(file)
    assert [p.position[2] for p in scan.layout.header.placements] == [1, 4, 7] and scan.layout.header.spacing == 3
    part = raw.read(file, range=("slice", 1, 2))
    np.testing.assert_array_equal(part.kspace, scan.kspace[:, :, :, :, 1:])
    first, *others = scan.layout.header.placements
    turned = [Placement(first.position, first.phase, first.read, first.slice), *others]
    uneven = [first, others[0], Placement(np.array([0, 0, 9.0]), *np.eye(3))]
    through_centre = [Placement(np.zeros(3), *np.roll(np.eye(3), i, 0)) for i in range(3)]
    for places, words in ((turned, "not parallel"), (through_centre, "not parallel"), (uneven, "unevenly")):
        with pytest.raises(ValueError, match=words):
            nifti.affine(header(placements=places), (8, 8, 1, 3), (16, 24, 3))


def test_slices_without_places_merge(tmp_path):
    file = write(tmp_path / "s.h5", [a for s in range(2) for a in lines(slice=s)])
    whole, parts = recon(file, tmp_path / "whole.nii"), [tmp_path / f"{n}.nii" for n in range(2)]
    for n, part in enumerate(parts):
        recon(file, part, "--range", "slice", n, n)
    assert run("merge", *parts, "-o", tmp_path / "merged.nii") == 0
    merged = nibabel.load(tmp_path / "merged.nii")
    np.testing.assert_array_equal(merged.get_fdata(), whole.get_fdata())
    np.testing.assert_array_equal(merged.affine, whole.affine)
    assert merged.header["sform_code"] == whole.header["sform_code"] == 0


def edit(change):
    def defect(path):
        write(path, lines())
        with h5py.File(path, "r+") as file:
            change(file)

    return defect


def change_head(name, value, at=(3,)):
    def change(file):
        for i in at:
            record = file["dataset/data"][i]
            head = record["head"]
            (head if name in head.dtype.names else head["idx"])[name] = value
            file["dataset/data"][i] = record

    return edit(change)


def change_text(old, new):
    def defect(path):
        text = _ismrmrd.header_text(header(), coils=2, counts={})
        assert old in text
        write(path, lines(), text.replace(old, new))

    return defect


def link_elsewhere(path):
    with h5py.File(path, "w") as file:
        file["dataset"] = h5py.ExternalLink("absent.h5", "/dataset")


def cut(path):
    write(path, lines())
    path.write_bytes(path.read_bytes()[:9000])


@pytest.mark.parametrize("make, words", [
    (lambda path: None, "No such file"),
    (lambda path: path.mkdir(), "Is a directory"),
    (lambda path: path.write_text("PK"), "not an HDF5 file"),
    (os.mkfifo, "is a pipe, not a file"),
    (lambda path: path.symlink_to("/dev/zero"), "is a device or a socket, not a file"),
    (lambda path: path.symlink_to(path), "Too many levels of symbolic links"),
    (link_elsewhere, "is in another file"),
    *((lambda path, time=time: foreign.write(path, foreign.records(foreign.image(32, 16)), foreign.header(32, 16, te=time)),
       f"TE of its header is {time or 'empty'}; expected milliseconds") for time in ("inf", "nan", "0", "-1", "soon", "")),
    (cut, "cut short"),
    (lambda path: h5py.File(path, "w").close(), "no raw data in its group"),
    (lambda path: write(path, []), "no acquisitions"),
    (lambda path: write(path, lines(flags=flag(19))), "no imaging acquisitions"),
    (change_text("cartesian", "spiral"), 'trajectory is "spiral"'),
    (change_text("<trajectory>", "<other>"), "not XML"),
    (change_text("<encodedSpace>", "<encodedSpace><matrixSize><x>no</x></matrixSize>"), "not a number"),
    (change_text("<maximum>7<", "<maximum>3<"), "limits 0 to 3 with centre 4"),
    (change_head("number_of_samples", 60000), "do not fit the 16 samples"),
    (change_head("number_of_samples", 14), "another part of k-space"),
    (change_head("number_of_samples", 14, range(8)), "has 32 values, its header says 14 samples of 2 coils"),
    (change_head("active_channels", 3), "has 3 coils"),
    (change_head("kspace_encode_step_1", 8), "outside the 8 encoded lines"),
    (change_head("encoding_space_ref", 1), "refers to encoding 1"),
    (change_head("read_dir", (0, 1, 0), [0]), "right angles"),
    (lambda path: write(path, [acquisition(12, kspace_encode_step_1=y, center_sample=4, contrast=e, flags=e * flag(22))
                               for e in (0, 1) for y in range(8)]), "--range echo 0 0"),
    *((lambda path, flags=flags, by=by: write(path, [*lines(), *((h, s * np.float32(by)) for h, s in lines(flags=flags))]),
       "acquisition 8 holds values that are not finite or above 1e15") for flags in (0, flag(19)) for by in (np.nan, 1e17)),
])  # fmt: skip
def test_defects_are_told_in_one_line_with_the_mend(tmp_path, capsys, make, words):
    path, image = tmp_path / "raw.h5", tmp_path / "i.nii"
    make(path)
    told = refused(capsys, "; ", "recon", path, "-o", image)
    assert told.startswith(f"ctessel: {path}: ")
    with pytest.raises(raw.RawError, match=words):
        raw.read(path)
    assert not image.exists()
    _, found, mend = told.partition("--range")
    if found:
        recon(path, image, found, *mend.split())


def test_reading_changes_no_file_and_locks_nobody_out(tmp_path):
    """Other processes read at the same time, and say one line about what they cannot read."""
    whole, empty, short = (tmp_path / name for name in ("whole.h5", "empty.h5", "short.h5"))
    write(whole, lines())
    empty.touch()
    cut(short)
    before = {path: (path.stat().st_mtime_ns, path.read_bytes()) for path in (whole, empty, short)}
    held = _raw.Reader(str(whole), "dataset")
    for path, words in ((whole, ""), (empty, "the file is empty"), (short, "cut short")):
        told = subprocess.run([sys.executable, "-m", "ctessel", "info", path], capture_output=True, text=True).stderr
        assert words in told and told.count("\n") == bool(words), told
    assert len(held) == 8
    assert before == {path: (path.stat().st_mtime_ns, path.read_bytes()) for path in before}


def test_free_memory_is_what_the_control_group_leaves(tmp_path):
    if "0::" not in Path("/proc/self/cgroup").read_text():
        pytest.skip("no control groups of version 2")
    for name, text in (("max", "9000"), ("current", "5000"), ("stat", "anon 1\ninactive_file 700")):
        (tmp_path / f"memory.{name}").write_text(text)
    assert 4700 in runtime._group_rests(tmp_path)


def test_samples_are_in_memory_once(tmp_path):
    phantom.write(tmp_path / "p.h5", "repetitions", repetitions=20, noise=0.0)
    found = raw.contents(tmp_path / "p.h5")
    Path("/proc/self/clear_refs").write_text("5")  # the peak starts anew
    before = memory("VmRSS")
    tracemalloc.start()
    scan = raw.read(tmp_path / "p.h5", found=found)
    peak = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    assert scan.kspace.nbytes > 40e6 and peak < scan.kspace.nbytes + 2 * raw.BLOCK_BYTES
    held = memory("VmHWM") - before  # the lines in the file, too, of which a few blocks are here at once
    assert held < scan.kspace.nbytes + 6 * raw.BLOCK_BYTES
    on_disk = raw.read(tmp_path / "p.h5", found=found, scratch=tmp_path)
    np.testing.assert_array_equal(on_disk.kspace, scan.kspace)
    cut = raw.read(tmp_path / "p.h5", cut=True)  # half of the memory, and the same numbers
    np.testing.assert_array_equal(cut.kspace, pipeline.remove_oversampling(scan.kspace, len(scan.kspace) // 2))
    assert pipeline.plan(cut).steps == pipeline.plan(scan).steps
    assert [p.name for p in tmp_path.iterdir()] == ["p.h5"]
