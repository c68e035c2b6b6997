"""Files of other formats than ISMRMRD: the same bits as the same lines in that one, and what is refused."""

import os
import pickle
import sys

import foreign
import h5py
import lookalike
import nibabel
import numpy as np
import pytest
import scipy.io
from command import pixels, recon, refused, run, sidecar
from conftest import DATA, same_bits
from scans import lines

from ctessel import maps, pipeline, raw, runtime
from ctessel.formats import Given
from ctessel.scan import Limit

FOV = lookalike.FOV


def fastmri(path, samples, **more):
    shape = samples.shape[:3]
    return lookalike.fastmri(path, samples, lookalike.header(shape), **more), {}


def m4raw(path, samples):
    fov = "".join(f"<{axis}>{width}</{axis}>" for axis, width in zip("xyz", FOV))
    text = f"<ismrmrdHeader><encodedSpace><fieldOfView_mm>{fov}</fieldOfView_mm></encodedSpace></ismrmrdHeader>"
    return lookalike.fastmri(path, samples, text), {}


def cfl(path, samples):
    return lookalike.cfl(path, samples), {"fov": FOV}


def matlab_73(path, samples):
    return lookalike.matlab_73(path, samples[:, :, 0, :, :, 0]), {"fov": FOV}


def matlab_7(path, samples):
    return lookalike.matlab_7(path, samples[:, :, 0, :, :, 0]), {"fov": FOV}


WRITERS = [fastmri, m4raw, cfl, matlab_73, matlab_7]
R2 = lines(48, 2, calibration=16)
#: Slices, repetitions and lines.
KINDS = {"full": (3, 1, lines(48)), "undersampled": (2, 1, R2), "repetitions": (2, 3, R2)}
KINDS["partial"] = 2, 1, lines(48, first=-6)


def scan_of(kind):
    slices, repetitions, kept = KINDS[kind]
    return lookalike.keep(lookalike.kspace((40, 48, 1), slices, repetitions=repetitions), kept)


def assert_same(path, given, reference, options=None):
    """The same k-space, lines, plan in words, and image."""
    ours, theirs = raw.read(path, cut=True, **given), raw.read(reference, cut=True)
    same_bits(ours.kspace, theirs.kspace)
    np.testing.assert_array_equal(ours.layout.lines, theirs.layout.lines)
    plans = [pipeline.plan(scan, options) for scan in (ours, theirs)]
    assert plans[0].steps == plans[1].steps and plans[0].field == plans[1].field
    assert plans[0].warnings == plans[1].warnings
    made = [pipeline.reconstruct(scan, plan=plan) for scan, plan in zip((ours, theirs), plans)]
    same_bits(made[0].image, made[1].image)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("write", WRITERS, ids=lambda write: write.__name__)
def test_formats_give_the_bits_of_the_same_lines_in_ismrmrd(tmp_path, write, kind):
    if kind == "repetitions" and write in (fastmri, m4raw):
        pytest.skip("the format has one repetition a file")
    samples = scan_of(kind)
    path, given = write(tmp_path / "any.name", samples)
    assert_same(path, given, lookalike.ismrmrd(tmp_path / "r.h5", samples))


@pytest.mark.parametrize("write", WRITERS, ids=lambda write: write.__name__)
def test_parts_and_workers_read_what_is_theirs(tmp_path, write):
    samples = scan_of("undersampled")
    path, given = write(tmp_path / "any", samples)
    whole = raw.contents(path, cut=True, **given)
    source = pickle.loads(pickle.dumps(raw.Source(whole)))
    same_bits(source.frames(1, slice(0, 1)), np.asfortranarray(samples[:, :, :, :, 1]))
    part = raw.read(path, range=("slice", 1, 1), **given)
    same_bits(part.kspace, np.asfortranarray(samples[:, :, :, :, 1:]))
    same_bits(raw.read(path, skip=[("slice", 0)], **given).kspace, part.kspace)


def test_the_command_finds_the_format_and_writes_the_same_image(tmp_path):
    samples = scan_of("undersampled")
    lookalike.ismrmrd(tmp_path / "r.h5", samples)
    want = recon(tmp_path / "r.h5", tmp_path / "r.nii").get_fdata()
    for write in WRITERS:
        path, given = write(tmp_path / write.__name__, samples)
        fov = ["--fov", *FOV] if given else []
        for more in ([], ["--workers", 2]) if write in (fastmri, cfl) else ([],):
            got = recon(path, tmp_path / "i.nii", *fov, *more, "--strict").get_fdata()
            np.testing.assert_array_equal(got, want)


# ---- BART cfl ------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", ["scan", "scan.cfl", "scan.hdr"])
def test_a_pair_has_three_names_and_without_a_field_of_view_voxels_of_1_mm(tmp_path, capfd, name):
    lookalike.cfl(tmp_path / "scan", scan_of("full"))
    assert recon(tmp_path / name, tmp_path / "i.nii").header.get_zooms()[:3] == (1, 1, 1)
    assert "ctessel: warning: the file has no field of view; voxels of 1 mm are assumed" in capfd.readouterr().err
    assert sidecar(tmp_path / "i.nii")["Sources"] == ["scan.cfl"]


def test_measured_pairs_are_read_as_they_are(measured):
    for name in ("brain16_ksp", "phantom32_ksp"):
        samples = measured(name)
        same_bits(raw.read(DATA / name).kspace[..., 0, 0, 0], samples)


def test_lines_and_centre_place_what_a_pair_holds(tmp_path):
    whole = lookalike.kspace((40, 48, 1))
    reference = lookalike.ismrmrd(tmp_path / "r.h5", lookalike.keep(whole, lines(48, first=-6)))
    path = lookalike.cfl(tmp_path / "c", whole[:, 18:])
    assert_same(path, {"fov": FOV, "lines": [48], "centre": [6]}, reference)
    assert_same(path, {"fov": FOV, "centre": [6, 0]}, reference)  # the smallest matrix with it
    early = lookalike.cfl(tmp_path / "e", whole[8:])
    scan = raw.read(early, centre=(12, 24, 0), lines=(40, 48, 1))
    same_bits(scan.kspace[8:], np.asfortranarray(whole[8:]))
    assert scan.layout.header.limits["x"] == Limit(8, 39, 20)
    with pytest.raises(raw.RawError, match="reach beyond a matrix of 40; fix --lines or --centre"):
        raw.read(path, lines=[40], centre=[6])


def test_axes_of_times_echoes_averages_and_slices_of_a_pair(tmp_path):
    dims = [8, 12, 1, 2, 1, 3, 1, 1, 1, 1, 4, 5, 1, 2, 2, 1]
    rng = np.random.default_rng(1)
    samples = (rng.standard_normal((*dims, 2)) @ [1, 1j]).astype(np.complex64)
    scan = raw.read(lookalike.cfl(tmp_path / "c", samples, dims))
    merged = samples.reshape(8, 12, 1, 2, 3, 20, 2, 2, order="F")  # echo, both times, slice, average
    want = (merged[..., 0] + merged[..., 1]) / np.float32(2)
    same_bits(scan.kspace, np.asfortranarray(want.transpose(0, 1, 2, 3, 6, 4, 5)))


@pytest.mark.parametrize("text, message", [
    ("# Dimensions\n40 48 1 4 2\n", "its axis 4 has an extent of 2"),
    ("# Dimensions\n40 48 1 -4\n", 'not have 1 to 16 extents after "# Dimensions"'),
    ("# Dimensions\n", "not have 1 to 16 extents"),
    ("40 48 1 4\n", "not have 1 to 16 extents"),
    ("# Dimensions\n40 48 1 999999999 1 999999999\n", "is cut short"),
    ("# Dimensions\n40 48 1 5\n", "is cut short: it has 61440 bytes, the 40 x 48 x 1 x 5 samples of its .hdr 76800"),
    ("# Dimensions\n40 48 1 3\n", "is too long"),
    (None, "has no c.hdr"),
])  # fmt: skip
def test_defects_of_pairs(tmp_path, capfd, text, message):
    lookalike.cfl(tmp_path / "c", lookalike.kspace((40, 48, 1)), text=text)
    if text is None:
        os.remove(tmp_path / "c.hdr")
    refused(capfd, message, "recon", tmp_path / "c.cfl", "-o", tmp_path / "i.nii")
    assert not (tmp_path / "i.nii").exists()


# ---- fastMRI, M4Raw ------------------------------------------------------------------------------


def test_padded_columns_and_oversampled_rows_of_fastmri(tmp_path):
    """Rows have twice the field of the image; lines begin where the centre of the limits says."""
    samples = lookalike.keep(lookalike.kspace((80, 48, 1), slices=2), lines(48, first=-20))
    space = {"fov": (400.0, 180.0, 5.0), "recon": ((40, 48, 1), (200.0, 180.0, 5.0))}
    text = lookalike.header((80, 48, 1), **space, y=Limit(0, 43, 20), te=[5.0], tr=[100.0])
    path = lookalike.fastmri(tmp_path / "f", samples, text)
    reference = lookalike.ismrmrd(tmp_path / "r.h5", samples, lookalike.header((80, 48, 1), **space))
    assert_same(path, {}, reference)
    found = raw.contents(path)
    assert found.header.limits["y"] == Limit(4, 47, 24) and found.header.te == [5.0]
    assert raw.describe(path)["image"] == "40 x 48 x 1, 200 x 180 x 5 mm"


def test_masks_of_fastmri(tmp_path, capfd):
    samples = lookalike.kspace((40, 48, 1), slices=2)
    path, _ = fastmri(tmp_path / "f", samples, mask=R2, acceleration=2)  # samples beside it stay unused
    scan = raw.read(path)
    assert scan.layout.header.acceleration == (2, 1)
    same_bits(scan.kspace, lookalike.keep(samples, R2))
    assert scan.layout.warnings == ("16 lines outside of the file's mask have samples; they are not used",)
    random = lines(48, 99, calibration=8)
    random[np.random.default_rng(3).permutation(48)[:12]] = True
    path, _ = fastmri(tmp_path / "r", lookalike.keep(samples, random), mask=random)
    error = refused(capfd, "no regular distance", "recon", path, "-o", tmp_path / "i.nii")
    assert "random" in error and "every n-th line" in error
    path, _ = fastmri(tmp_path / "w", samples, mask=np.ones(40))
    with pytest.raises(raw.RawError, match="its mask has 40 entries .* 48 columns"):
        raw.read(path)


def test_one_coil_of_fastmri(tmp_path):
    samples = lookalike.kspace((40, 48, 1), slices=2, coils=1)
    path, _ = fastmri(tmp_path / "f", samples, single=True)
    assert_same(path, {}, lookalike.ismrmrd(tmp_path / "r.h5", samples))


@pytest.mark.parametrize("text", [b"", b"\xff\x00", b"<ismrmrdHeader/>", lookalike.header((256, 256, 1))])
def test_headers_that_are_none_leave_the_matrix_to_the_data(tmp_path, text):
    """Lines 30 to 224 of 256 are measured, and the field of view is that of the format's scans."""
    samples = lookalike.keep(lookalike.kspace((40, 256, 1), coils=2), np.arange(256) // 1 % 225 >= 30)
    scan = raw.read(lookalike.fastmri(tmp_path / "m", samples, np.bytes_(text) if isinstance(text, bytes) else text))
    assert scan.layout.header.encoded_matrix == (40, 256, 1)
    if isinstance(text, bytes):
        assert scan.layout.header.encoded_fov == (240, 240, 5)
        assert "240 x 240 mm and slices of 5 mm" in scan.layout.warnings[0]
        given = raw.contents(tmp_path / "m", fov=FOV)
        assert given.header.encoded_fov == FOV and given.notes == ()
    same_bits(scan.kspace, samples)


# ---- All of them ---------------------------------------------------------------------------------


def test_a_format_that_was_given_is_used_or_refused(tmp_path, capfd):
    samples = scan_of("full")
    path, _ = fastmri(tmp_path / "f.h5", samples)
    assert raw.contents(path, format="fastMRI").format == "fastMRI"
    command = ["recon", path, "-o", tmp_path / "i.nii", "--format"]
    wrong = {"cfl": "is not a BART cfl file", "skm-tea": "SKM-TEA has 5", "ismrmrd": "no raw data in"}
    for name, message in wrong.items():
        refused(capfd, message, *command, name)
    assert run(*command, "dicom") == 2
    with pytest.raises(raw.RawError, match="leave out --fov"):
        raw.read(path, fov=FOV)
    with pytest.raises(ValueError, match="fov: expected three lengths"):
        Given(fov=(1, 2))


def test_without_h5py_ismrmrd_is_read_and_the_package_is_named(tmp_path, capfd, monkeypatch):
    samples = scan_of("full")
    lookalike.ismrmrd(tmp_path / "r.h5", samples)
    fastmri(tmp_path / "f.h5", samples)
    monkeypatch.setitem(sys.modules, "h5py", None)
    assert recon(tmp_path / "r.h5", tmp_path / "i.nii") and run("info", tmp_path / "r.h5") == 0
    capfd.readouterr()
    refused(capfd, runtime.installing("h5py"), "recon", tmp_path / "f.h5", "-o", tmp_path / "i.nii")


def _truncated(path):
    fastmri(path, scan_of("full"))
    os.truncate(path, os.path.getsize(path) // 2)


def _holding(kspace, **more):
    def write(path):
        with h5py.File(path, "w") as file:
            for name, value in {"kspace": kspace, **more}.items():
                file[name] = value

    return write


def _absurd(path):
    with h5py.File(path, "w") as file:
        file.create_dataset("kspace", (60000, 60000, 60000, 4), "<c8", chunks=(1, 1, 100, 4))
        file["ismrmrd_header"] = b""


def _not_finite(path):
    samples = scan_of("full")
    samples[3, 4] = np.nan
    fastmri(path, samples)


def _elsewhere(path):
    with h5py.File(path, "w") as file:
        file.create_dataset("kspace", (4, 4, 4, 4), "<f4", external=[(str(path) + "2", 0, h5py.h5f.UNLIMITED)])


def _part_outside_its_pair(path):
    """HDF5 reads beyond its memory where a type says so."""
    fastmri(path, scan_of("full"))
    second = b"i" + 7 * b"\0"
    data = path.read_bytes()
    assert second + b"\4\0\0\0" in data
    path.write_bytes(data.replace(second + b"\4\0\0\0", second + b"\4\0\xd8\0"))


def _name_that_is_no_text(path):
    with h5py.File(path, "w") as file:
        file[b"\xff\xfe"] = 1
    path.write_bytes(b"MATLAB 7.3 MAT-file".ljust(512) + path.read_bytes())


def _matlab_rubbish(path):
    path.write_bytes(b"MATLAB 5.0 MAT-file".ljust(124) + b"\0\1IM" + bytes(range(256)) * 20)


@pytest.mark.parametrize("write, message", [
    (_truncated, "cut short"), (_absurd, "but the file holds"), (_not_finite, "not finite"),
    (_holding(np.array([b"text"]), ismrmrd_header=5), ""), (_elsewhere, "in other files"),
    (lambda path: fastmri(path, 0 * scan_of("full")), "all its samples are zero"),
    (_holding(np.zeros((4, 4, 3), np.complex64)), "unknown layout"),
    (_holding(np.ones((4, 4, 4, 4), np.int16), ismrmrd_header=b""), "complex numbers"),
    (_matlab_rubbish, "cannot be read"), (_name_that_is_no_text, 'no array "kspace"'),
    (_part_outside_its_pair, ""),  # HDF5 1.14 does not open it at all
])  # fmt: skip
def test_hostile_files_end_in_one_line(tmp_path, capfd, write, message):
    write(tmp_path / "bad")
    for more in (["info"], ["recon", "-o", tmp_path / "i.nii"]):
        assert "internal error" not in refused(capfd, message, *more, tmp_path / "bad")


# ---- Calgary-Campinas, SKM-TEA: the readout is an image already ----------------------------------


def volume(**more):
    """A volume with the readout transformed, and the k-space that it has as lines."""
    transformed = lookalike.hybrid(lookalike.kspace((32, 24, 20), **more))
    return transformed, pipeline.to_kspace(transformed, (0,))


@pytest.mark.parametrize("corner", [True, False], ids=["corner", "middle"])
@pytest.mark.parametrize("partial", [False, True], ids=["full", "partial"])
def test_volumes_of_calgary(tmp_path, corner, partial):
    """Zeros from 85 % of z on are lines at the edge if k = 0 lies in the middle of the array."""
    transformed, samples = volume()
    if partial:
        transformed[:, :, 17:], samples[:, :, 17:] = 0, 0
    path = lookalike.calgary(tmp_path / "c", transformed[..., 0, 0, 0], corner)
    scan = raw.read(path, fov=FOV)
    same_bits(scan.kspace, np.asfortranarray(samples))
    (told,) = scan.layout.warnings
    where = "in the corner" if corner else "in the middle"
    empty = "no line along z is zero" if not partial else f"lines {'7 to 9' if corner else '17 to 19'} along z are zero"
    assert where in told and empty in told
    reference = raw.read(lookalike.ismrmrd(tmp_path / "r.h5", samples))
    images = [pipeline.reconstruct(each).image for each in (scan, reference)]
    same_bits(*images)


def test_pairs_need_an_even_number(tmp_path):
    transformed, _ = volume()
    path = lookalike.calgary(tmp_path / "c", transformed[..., 0, 0, 0])
    with h5py.File(path) as file:
        samples = file["kspace"][..., :7]
    _holding(samples)(path)
    for more in ({}, {"format": "calgary"}):
        with pytest.raises(raw.RawError, match="unknown layout|has pairs of real numbers"):
            raw.read(path, **more)


def test_lines_that_were_cleared_beside_k_0_count_as_not_measured(tmp_path):
    """A reader clears the last of z where k = 0 is in the corner: those are lines beside the centre."""
    transformed, _ = volume()
    stored = np.fft.ifftshift(transformed[..., 0, 0, 0], (1, 2))
    stored[:, :, 17:] = 0
    path = lookalike.calgary(tmp_path / "c", stored, corner=False)
    scan = raw.read(path, fov=FOV)
    assert "in the corner" in scan.layout.warnings[0] and "17 to 19 along z are zero" in scan.layout.warnings[0]
    assert not scan.layout.sampled[:, 7:10].any() and scan.layout.sampled[:, 10:].all()


def test_volumes_of_skm_tea_with_elliptic_support(tmp_path):
    transformed, samples = volume(echoes=2)
    y, z = np.meshgrid((np.arange(24) - 12) / 12, (np.arange(20) - 10) / 10, indexing="ij")
    outside = y**2 + z**2 > 1.05
    transformed[:, outside], samples[:, outside] = 0, 0
    path = lookalike.skmtea(tmp_path / "s", transformed[:, :, :, :, 0, :, 0])
    reference = lookalike.ismrmrd(tmp_path / "r.h5", samples)
    assert_same(path, {"fov": FOV}, reference)
    with h5py.File(path, "r+") as file:
        del file["maps"]
    with pytest.raises(raw.RawError, match="unknown layout; name one with --format"):
        raw.read(path)
    same_bits(raw.read(path, format="skm-tea").kspace, raw.read(reference).kspace)


def test_maps_of_skm_tea_are_used_as_they_are(tmp_path):
    """They unfold what was undersampled, as the same maps in another file do."""
    own = lookalike.maps((32, 24, 20)).astype(np.complex64)
    transformed = volume()[0]
    transformed[:, ~lines(24, 2, calibration=12)] = 0
    path = lookalike.skmtea(tmp_path / "s", transformed[..., 0, :, 0], own[..., None])
    nibabel.save(nibabel.Nifti1Image(own, np.eye(4)), tmp_path / "own.nii")
    images = []
    for more in ([], ["--maps", tmp_path / "own.nii"]):
        images.append(recon(path, tmp_path / "i.nii", "--fov", *FOV, *more).get_fdata())
        assert f"sensitivity maps from {more[1].name if more else 's'}" in sidecar(tmp_path / "i.nii")["Steps"]
    np.testing.assert_array_equal(*images)


# ---- MATLAB --------------------------------------------------------------------------------------


@pytest.mark.parametrize("write", [lookalike.matlab_73, lookalike.matlab_7])
def test_axes_of_matlab_variables(tmp_path, write):
    """The last axes of one are not there; others than the usual axes have names."""
    flat = lookalike.kspace((40, 48, 1))
    scan = raw.read(write(tmp_path / "m", flat[:, :, 0, :, 0, 0, 0]))
    same_bits(scan.kspace, flat)
    whole = lookalike.kspace((16, 24, 12), repetitions=2)
    path = write(tmp_path / "v", whole[:, :, :, :, 0, 0])
    scan = raw.read(path, axes=("x", "y", "z", "coil", "repetition"))
    same_bits(scan.kspace, whole)
    with pytest.raises(raw.RawError, match="has 5 axes, more than x, y, coil; name all with --array-axes"):
        raw.read(path, axes=("x", "y", "coil"))
    with pytest.raises(ValueError, match="axes: expected some of x, y"):
        raw.read(path, axes=("x", "coil"))


def test_variables_that_are_no_kspace(tmp_path):
    samples = lookalike.kspace((16, 16, 1))[:, :, 0, :, 0, 0, 0]
    for kind, name, message in ((b"logical", "kspace", "is real or logical"), (b"single", "data", "but data, mask")):
        with pytest.raises(raw.RawError, match=message):
            raw.read(lookalike.matlab_73(tmp_path / "m", samples, name, kind))
    with pytest.raises(raw.RawError, match='its variable "kspace" is float64'):
        raw.read(lookalike.matlab_7(tmp_path / "7", samples.real.astype(float)))
    wide = lookalike.matlab_7(tmp_path / "w", samples.astype(complex))
    same_bits(raw.read(wide).kspace[:, :, 0, :, 0, 0, 0], np.asfortranarray(samples))


# ---- Separate calibration in a second file -------------------------------------------------------


def test_calibration_of_another_file_is_that_of_the_same_file(tmp_path):
    """A scan of every second line, and 16 x 16 samples that calibrate it, in one file and in two."""
    whole = lookalike.kspace((40, 48, 1), slices=2)
    samples, small = lookalike.keep(whole, lines(48, 2)), np.asfortranarray(0.9 * whole[12:28, 16:32])
    text = lookalike.header((40, 48, 1))
    own = lookalike.header((16, 16, 1)).split("<encoding>")[1].split("</encoding>")[0]
    both = text.replace("</encoding>", f"</encoding><encoding>{own}</encoding>")
    reference = lookalike.ismrmrd(tmp_path / "b.h5", samples, both, separate=small)
    scan = cfl(tmp_path / "scan", samples)[0]
    lookalike.ismrmrd(tmp_path / "scan.h5", samples)
    lookalike.ismrmrd(tmp_path / "small.h5", small, lookalike.header((16, 16, 1)))
    cfl(tmp_path / "small", small)
    pairs = [(scan, "small.h5"), (tmp_path / "scan.h5", "small.cfl"), (scan, "small")]
    sos = pipeline.Options(combine="sos")
    want = pipeline.reconstruct(raw.read(reference), sos).image
    for path, calibration in pairs:
        given = {"calibration": str(tmp_path / calibration), **({"fov": FOV} if path == scan else {})}
        same_bits(pipeline.reconstruct(raw.read(path, **given), sos).image, want)
        source = pickle.loads(pickle.dumps(raw.Source(raw.contents(path, **given))))
        same_bits(source.separate(1), np.asfortranarray(small[:, :, :, :, 1, 0, 0]))
    recon(scan, tmp_path / "i.nii", "--fov", *FOV, "--calibration", tmp_path / "small", "--workers", 2)
    np.testing.assert_array_equal(pixels(tmp_path / "i.nii"), want[:, :, 0, :, 0, 0])


def test_volumes_calibrate_whether_their_readout_is_transformed_or_not(tmp_path):
    transformed, samples = volume()
    scan = cfl(tmp_path / "scan", lookalike.keep(samples, lines(24, 2)))[0]
    whole = [cfl(tmp_path / "whole", samples)[0], lookalike.calgary(tmp_path / "c", transformed[..., 0, 0, 0])]
    read = [raw.read(scan, fov=FOV, calibration=path) for path in whole]
    same_bits(*[each.calibration for each in read])
    same_bits(*[pipeline.reconstruct(each).image for each in read])
    turned = lookalike.calgary(tmp_path / "t", lookalike.hybrid(lookalike.keep(samples, lines(24, 2)))[..., 0, 0, 0])
    source = raw.Source(raw.contents(turned, fov=FOV, calibration=whole[1]))
    same_bits(source.separate(0), read[1].calibration[:, :, :, :, 0, 0, 0])


def test_calibration_files_that_do_not_fit(tmp_path, capfd):
    samples = scan_of("undersampled")
    lookalike.ismrmrd(tmp_path / "r.h5", samples)
    cfl(tmp_path / "one", samples[:, :, :, :, :1])
    cfl(tmp_path / "coils", samples[:, :, :, :2])
    noise = [foreign.record(samples[:, 0, 0, :, 0, 0, 0].T, 0, flags=1 << 18)]
    foreign.write(tmp_path / "noise", noise, foreign.header(40, 48))
    wrong = {"one": "lacks slice 1", "coils": "has 2 coils", "none": "No such file", "noise": "has no lines"}
    for name, message in wrong.items():
        refused(capfd, message, "recon", tmp_path / "r.h5", "-o", tmp_path / "i.nii", "--calibration", tmp_path / name)


# ---- Sensitivity maps ----------------------------------------------------------------------------


def test_maps_of_every_kind_of_file(tmp_path):
    """(x, y, z, coil, slice), whether the third axis of the file counts slices or z."""
    slices = lookalike.kspace((12, 10, 1), slices=3)[..., 0, 0]
    volume = lookalike.kspace((12, 10, 6))[..., 0, 0]
    nibabel.save(nibabel.Nifti1Image(slices[:, :, 0].transpose(0, 1, 3, 2), np.eye(4)), tmp_path / "s.nii.gz")
    nibabel.save(nibabel.Nifti1Image(volume[..., 0], np.eye(4)), tmp_path / "v.nii")
    lookalike.cfl(tmp_path / "s", slices[..., None, None])
    lookalike.cfl(tmp_path / "v", volume[..., None, None])
    lookalike.matlab_73(tmp_path / "s73", slices[:, :, 0], "maps")
    scipy.io.savemat(tmp_path / "v7", {"maps": volume[..., 0]}, appendmat=False)
    lookalike.skmtea(tmp_path / "skm", volume)
    for name in ("s.nii.gz", "s", "s73"):
        same_bits(maps.read(tmp_path / name, (12, 10, 1, 4, 3, 1, 1)), slices)
    for name in ("v.nii", "v.cfl", "v7", "skm"):
        same_bits(maps.read(tmp_path / name, (12, 10, 6, 4, 1, 1, 1)), volume)
    wrong = ("v", 5, "not of 5 coils"), ("v7", 5, "no axis of 5 coils"), ("none", 4, "No such file")
    for name, coils, message in wrong:
        with pytest.raises(ValueError, match=message):
            maps.read(tmp_path / name, (12, 10, 6, coils, 1, 1, 1))
