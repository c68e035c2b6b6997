"""k-space between ISMRMRD and BART to the bit, and images of ISMRMRD files to NIfTI."""

import shutil
import subprocess

import foreign
import h5py
import lookalike
import nibabel
import numpy as np
import pytest
from command import pixels, refused, run
from conftest import same_bits

from ctessel import phantom, pipeline, raw
from ctessel.stream import IMAGE_HEADER


def convert(*words):
    return run("convert", *words)


@pytest.mark.parametrize("kind", "partial partial-readout interleaved echoes slices 3d undersampled-3".split())
def test_a_scan_comes_back_from_a_pair(tmp_path, capsys, kind):
    """Samples to the bit, the same image, and the header but for the numbers of its lines."""
    more = {"slices": 2} if kind == "undersampled-3" else {}
    phantom.write(tmp_path / "a.h5", kind, size=32, coils=4, **more)
    assert convert(tmp_path / "a.h5", tmp_path / "pair.cfl") == 0
    assert "kept: the header, in pair.xml\n" in capsys.readouterr().out
    assert convert(tmp_path / "pair", tmp_path / "b.h5") == 0
    first, second = (raw.read(tmp_path / name) for name in ("a.h5", "b.h5"))
    same_bits(first.kspace, second.kspace)
    np.testing.assert_array_equal(first.layout.lines, second.layout.lines)
    old, new = first.layout.header, second.layout.header
    for name in ("te", "tr", "protocol", "recon_fov", "encoded_fov"):
        assert getattr(old, name) == getattr(new, name)
    want = pipeline.reconstruct(first).image
    if kind == "undersampled-3":  # whose calibration is read from another file, or goes into the same one
        assert convert(tmp_path / "pair_calibration.cfl", tmp_path / "c.h5") == 0
        same_bits(pipeline.reconstruct(raw.read(tmp_path / "b.h5", calibration=tmp_path / "c.h5")).image, want)
        assert convert(tmp_path / "pair", tmp_path / "b.h5", "--calibration", tmp_path / "pair_calibration") == 0
        second = raw.read(tmp_path / "b.h5")
        same_bits(np.ascontiguousarray(first.calibration), np.ascontiguousarray(second.calibration))
    same_bits(pipeline.reconstruct(second).image, want)


def test_a_pair_comes_back_from_ismrmrd(tmp_path, capsys):
    samples = lookalike.kspace((20, 24, 1), slices=2, echoes=2, repetitions=3)
    lookalike.cfl(tmp_path / "a", samples)
    assert convert(tmp_path / "a", tmp_path / "m.h5", "--fov", 200, 180, 5) == 0
    assert convert(tmp_path / "m.h5", tmp_path / "b") == 0
    for ending in (".cfl", ".hdr"):
        first, second = ((tmp_path / f"{name}{ending}").read_bytes() for name in "ab")
        assert first.split(b"# Command")[0] == second
    assert raw.contents(tmp_path / "m.h5").header.encoded_fov == (200, 180, 5)
    assert convert(tmp_path / "a", tmp_path / "m.h5") == 0
    assert "voxels of 1 mm" in capsys.readouterr().err


def test_what_is_lost_is_told(tmp_path, capsys):
    phantom.write(tmp_path / "a.h5", "noise", size=32, coils=4, averages=2)
    assert convert(tmp_path / "a.h5", tmp_path / "p") == 0
    told = capsys.readouterr().out
    lost = (f"lost: {what}" for what in ("where slices lie", "averages", "which lines the file calls"))
    for words in ("kept: the noise scan", *lost):
        assert words in told
    noise = raw.contents(tmp_path / "a.h5").noise_samples
    assert (tmp_path / "p_noise.hdr").read_text().split()[2:6] == [str(noise), "1", "1", "4"]


@pytest.mark.parametrize("source, target, message", [
    ("a.h5", "b.h5", "is an ISMRMRD file already"), ("a.h5", "b.txt", "expected a name that ends in"),
    ("a.h5", "b.nii", "holds no images"), ("c.cfl", "c", "is the file to convert"), ("none.h5", "b", "No such file"), ("a.h5", "none/b", "no such folder"),
])  # fmt: skip
def test_what_cannot_be_converted(tmp_path, capsys, source, target, message):
    phantom.write(tmp_path / "a.h5", "full", size=16, coils=1)
    lookalike.cfl(tmp_path / "c", lookalike.kspace((16, 16, 1)))
    before = sorted(tmp_path.iterdir())
    refused(capsys, message, "convert", tmp_path / source, tmp_path / target)
    assert sorted(tmp_path.iterdir()) == before


def test_bart_reads_the_pair(tmp_path):
    if not shutil.which("bart"):
        pytest.skip("bart is not installed")
    phantom.write(tmp_path / "a.h5", "slices", size=32, coils=4)
    convert(tmp_path / "a.h5", tmp_path / "pair")
    show = ["bart", "show", "-m", "pair"]
    shown = subprocess.run(show, cwd=tmp_path, capture_output=True, text=True, check=True).stdout
    assert "64 32 1 4 1 1 1 1 1 1 1 1 1 5 1 1" in shown.replace("\t", " ")
    subprocess.run(["bart", "fft", "-iu", "7", "pair", "image"], cwd=tmp_path, check=True, stdout=subprocess.DEVNULL)
    theirs = np.fromfile(tmp_path / "image.cfl", "<c8").reshape((64, 32, 1, 4, 5), order="F")
    ours = pipeline.to_image(raw.read(tmp_path / "a.h5").kspace)[..., 0, 0]
    assert np.abs(ours - theirs).max() < 1e-6 * np.abs(ours).max()


# ---- Images --------------------------------------------------------------------------------------


def images(path, headers, values, group="dataset/image_0", mode="w"):
    """`values` are (image, channel, z, y, x)."""
    records = np.zeros(len(headers), IMAGE_HEADER)
    for record, head in zip(records, headers):
        for name, value in head.items():
            record[name] = value
    with h5py.File(path, mode) as file:
        file[f"{group}/header"], file[f"{group}/data"] = records, values
    return path


READ, PHASE, NORMAL = np.array([0, 0.6, 0.8]), np.array([1.0, 0, 0]), np.array([0, 0.8, -0.6])


def test_images_lie_where_their_headers_say(tmp_path):
    """Oblique slices, numbered in the order of their measurement; a voxel is found at its place."""
    numbers, away = [0, 2, 1], [6.0, 0.0, 3.0]
    headers = [
        {"matrix_size": (8, 6, 1), "field_of_view": (16, 18, 2.5), "slice": n, "image_series_index": 4, "channels": 1,
         "position": np.array([5.0, -7, 11]) + d * NORMAL, "read_dir": READ, "phase_dir": PHASE, "slice_dir": NORMAL}
        for n, d in zip(numbers, away)
    ]  # fmt: skip
    values = np.random.default_rng(0).random((3, 1, 1, 6, 8)).astype(np.float32)
    images(tmp_path / "i.h5", headers, values)
    assert convert(tmp_path / "i.h5", tmp_path / "o.nii.gz") == 0
    image = nibabel.load(tmp_path / "o.nii.gz")
    assert image.shape == (8, 6, 3) and image.header["sform_code"] == 1
    for i, d in enumerate(away):
        np.testing.assert_array_equal(image.get_fdata()[:, :, int(d / 3)], values[i, 0, 0].T)
        place = image.affine @ (6, 1, d / 3, 1)  # two voxels on along x, two back along y
        lps = headers[i]["position"] + 2 * 2 * READ - 2 * 3 * PHASE
        np.testing.assert_allclose(place[:3], lps * (-1, -1, 1), atol=1e-5)


def test_series_repetitions_and_complex_images(tmp_path, capsys):
    head = {"matrix_size": (8, 6, 1), "field_of_view": (8, 6, 1), "image_series_index": 1}
    values = (np.arange(96, dtype=np.float32) * (1 + 1j)).astype(np.complex64).reshape(2, 1, 1, 6, 8)
    images(tmp_path / "i.h5", [{**head, "repetition": r} for r in (0, 1)], values)
    assert convert(tmp_path / "i.h5", tmp_path / "o.nii") == 0
    told = capsys.readouterr().out
    assert "the file has no positions of slices" in told and "lost: the phase" in told
    np.testing.assert_allclose(pixels(tmp_path / "o.nii")[:, :, 0, 1], np.abs(values[1, 0, 0].T), rtol=1e-6)
    images(tmp_path / "i.h5", [head, head], values, "dataset/other", "a")
    words = "name one with --group: dataset/image_0, dataset/other"
    refused(capsys, words, "convert", tmp_path / "i.h5", tmp_path / "o.nii")
    assert convert(tmp_path / "i.h5", tmp_path / "o.nii", "--group", "dataset/other") == 0
    assert "do not distinguish the images" in capsys.readouterr().out
    assert pixels(tmp_path / "o.nii").shape == (8, 6, 1, 2)
    with h5py.File(tmp_path / "i.h5", "a") as file:
        del file["dataset/other"], file["dataset/image_0/data"]
        data = file.create_dataset("dataset/image_0/data", data=values, chunks=values.shape, compression="gzip")
        at = data.id.get_chunk_info(0).byte_offset
    with open(tmp_path / "i.h5", "r+b") as file:
        file.seek(at)
        file.write(bytes(20))
    refused(capsys, "i.h5: its images cannot be read (", "convert", tmp_path / "i.h5", tmp_path / "o.nii")


def test_images_of_foreign_tools(tmp_path):
    theirs = foreign.reconstructed(tmp_path / "raw.h5", "-m 32 -c 4")
    assert convert(tmp_path / "raw.h5", tmp_path / "o.nii") == 0
    np.testing.assert_array_equal(pixels(tmp_path / "o.nii")[..., 0], theirs)


def test_headers_of_foreign_files_are_kept_whole(tmp_path):
    """Elements that nothing here reads, and lines that are counted from the first one measured."""
    kspace = foreign.image(16, 16)
    text = foreign.header(16, 16).replace("<maximum>15</maximum><center>8<", "<maximum>11</maximum><center>4<")
    text = text.replace("<sequenceParameters>", "<userParameters><userParameterString><name>a</name><value>b ü</value>"
                        "</userParameterString></userParameters><sequenceParameters>")  # fmt: skip
    lines = [foreign.record(kspace[:, y], y - 4) for y in range(4, 16)]
    foreign.write(tmp_path / "a.h5", lines, text)
    assert convert(tmp_path / "a.h5", tmp_path / "p") == 0 and convert(tmp_path / "p", tmp_path / "b.h5") == 0
    with h5py.File(tmp_path / "b.h5") as file:
        kept = file["dataset/xml"][0].decode()
    assert "b ü" in kept and "<minimum>4</minimum><maximum>15</maximum><center>8</center>" in kept
    same_bits(raw.read(tmp_path / "a.h5").kspace, raw.read(tmp_path / "b.h5").kspace)
