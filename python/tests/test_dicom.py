"""DICOM files: a checker of the standard, and a converter of others, which gives the image back."""

import json
import shutil
import subprocess
import sys

import foreign
import nibabel
import numpy as np
import pytest
from command import recon, refused, run

from ctessel import phantom, runtime

pydicom = pytest.importorskip("pydicom", reason="needs python3-pydicom")


def program(name, package):
    if not shutil.which(name):
        pytest.skip(f"needs {package}")
    return name


@pytest.mark.parametrize(
    "kind, changes",
    [("oblique", {"gap": 1.5, "repetitions": 2, "echoes": 2}), ("3d", {"size": 24, "tilt": (10.0, 25.0)})],
)
def test_images_come_back_with_the_same_place_and_pixels(tmp_path, kind, changes):
    program("dcm2niix", "dcm2niix")
    phantom.write(scan := tmp_path / "s.h5", kind, **{"size": 32, "coils": 2, **changes})
    recon(scan, tmp_path / "i.nii", "--combine", "phase")
    assert run("recon", scan, "-o", tmp_path / "dicom", "--dicom", "--combine", "phase") == 0
    files = [pydicom.dcmread(file) for file in (tmp_path / "dicom").iterdir()]
    assert {made.AcquisitionNumber for made in files} == set(range(1, 1 + changes.get("repetitions", 1)))
    (back := tmp_path / "back").mkdir()
    subprocess.run(["dcm2niix", "-f", "%s_%e", "-o", back, tmp_path / "dicom"], check=True, stdout=subprocess.DEVNULL)
    for series, ending, file, step in ((1, "", "i.nii", None), (2, "_ph", "i_phase.nii", 2 * np.pi / 32767)):
        want = nibabel.as_closest_canonical(nibabel.load(tmp_path / file))
        volumes = want.get_fdata()
        for echo in range(1, 1 + changes.get("echoes", 1)):
            got = nibabel.as_closest_canonical(nibabel.load(back / f"{series}_{echo}{ending}.nii"))
            np.testing.assert_allclose(got.affine, want.affine, atol=1e-3)
            one = volumes[..., echo - 1] if volumes.ndim == 5 else volumes
            rounding = 0.51 * (step or volumes.max() / 32767)
            np.testing.assert_allclose(got.get_fdata(), one, atol=rounding)
            told = json.loads((back / f"{series}_{echo}{ending}.json").read_text())
            assert told["EchoTime"] == pytest.approx(0.005 * echo) and told["RepetitionTime"] == 0.5


def test_the_standards_checker_finds_no_error(tmp_path):
    program("dciodvfy", "dicom3tools")
    lines = foreign.records(foreign.image(32, 16), **{
        "position": (10, 20, 30), "read_dir": (0, 1, 0), "phase_dir": (0, 0, -1), "slice_dir": (-1, 0, 0)})  # fmt: skip
    text = foreign.header(32, 16).replace("<experimentalConditions>",
        "<measurementInformation><protocolName>a\\b &amp; \u00e4</protocolName></measurementInformation>"
        "<acquisitionSystemInformation><systemVendor>any</systemVendor></acquisitionSystemInformation>"
        "<experimentalConditions>")  # fmt: skip
    scan = foreign.write(tmp_path / "s.h5", lines, text)
    assert run("recon", scan, "-o", tmp_path / "out", "--dicom", "--combine", "phase") == 0
    for part in ("magnitude", "phase"):
        file = tmp_path / "out" / f"{part}_00001.dcm"
        told = subprocess.run(["dciodvfy", file], capture_output=True, text=True).stderr
        assert "Error" not in told and "MRImage" in told
        made = pydicom.dcmread(file)
        assert made.ProtocolName == "a b & \u00e4" and made.Manufacturer == "any"


def test_folders_of_other_images_are_refused(tmp_path, capsys, monkeypatch):
    phantom.write(scan := tmp_path / "s.h5", size=16, coils=1)
    (out := tmp_path / "out").mkdir()
    (out / "older.dcm").write_text("")
    (tmp_path / "file").write_text("")
    for where, words in ((out, "name a new folder"), (tmp_path / "file", "cannot be written to")):
        refused(capsys, words, "recon", scan, "-o", where, "--dicom")
    monkeypatch.setitem(sys.modules, "pydicom", None)
    refused(capsys, runtime.installing("pydicom"), "recon", scan, "-o", tmp_path / "new", "--dicom")
    assert not (tmp_path / "new").exists()
