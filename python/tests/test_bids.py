"""Names and sidecars of the BIDS standard, and the times of volumes."""

import json
import os
import subprocess

import foreign
import nibabel
import numpy as np
import pytest
from command import refused, run, sidecar

from ctessel import cli, phantom


def recon(scan, *options):
    assert run("recon", scan, *options) == 0


def files(folder):
    return sorted(str(p.relative_to(folder)) for p in folder.rglob("*") if p.is_file())


def paced(path, starts, **changes):
    """Repetitions of 16 lines that begin at `starts` by the scanner's clock."""
    lines = []
    for number, start in enumerate(starts):
        image = foreign.records(foreign.image(32, 16, seed=number), repetition=number)
        for y, line in enumerate(image):
            line["head"]["acquisition_time_stamp"] = start + 4 * y
        lines += image
    return foreign.write(path, lines, foreign.header(32, 16))


def test_each_echo_and_part_is_a_file_with_its_own_echo_time(tmp_path):
    phantom.write(scan := tmp_path / "s.h5", "echoes", size=32, coils=3, partial=(1.0, 0.75, 1.0), reduction=(2, 1),
                  calibration="embedded", calibration_lines=16)  # fmt: skip
    plain, folder = tmp_path / "plain.nii.gz", tmp_path / "new" / "study"
    recon(scan, "-o", plain, "--bids", folder, *"--subject 01 --session b --suffix MEGRE --combine phase".split())
    stem = "sub-01/ses-b/anat/sub-01_ses-b_echo-{}_part-{}_MEGRE"
    made = [stem.format(echo, part) for echo in (1, 2, 3) for part in ("mag", "phase")]
    images = [name + ending for name in made for ending in (".json", ".nii.gz")]
    assert files(folder) == sorted([*images, "README", "dataset_description.json", "participants.tsv"])
    for part, file, letter, unit in (("mag", plain, "M", "arbitrary"),
                                     ("phase", tmp_path / "plain_phase.nii.gz", "P", "rad")):  # fmt: skip
        whole = nibabel.load(file)
        for echo in (1, 2, 3):
            path = folder / f"{stem.format(echo, part)}.nii.gz"
            one, told = nibabel.load(path), sidecar(path)
            np.testing.assert_array_equal(one.get_fdata(), whole.get_fdata()[..., 0, echo - 1])
            assert one.header.get_dim_info() == (0, 1, 2)
            assert told["EchoTime"] == 0.005 * echo and told["Units"] == unit
            assert told["ImageType"] == ["ORIGINAL", "PRIMARY", letter, "ND"]
    told = sidecar(plain)
    assert told["EchoTime"] == [0.005, 0.01, 0.015] and told["ImageType"][2] == "M"
    want = {"MagneticFieldStrength": 1.5, "FlipAngle": 60, "MRAcquisitionType": "2D", "SliceThickness": 4,
            "ParallelAcquisitionTechnique": "SENSE", "ParallelReductionFactorInPlane": 2, "PartialFourier": 0.75,
            "PartialFourierDirection": "PHASE", "RepetitionTime": 0.5, "DwellTime": 5e-6}  # fmt: skip
    assert {name: told.get(name) for name in want} == want


@pytest.mark.parametrize("starts, want, step", [
    ([100, 300, 500], {"RepetitionTime": 0.5}, 0.5), ([0, 0, 0], {}, 0),
    ([100, 300, 700], {"VolumeTiming": [0, 0.5, 1.5], "AcquisitionDuration": 0.65}, 0),
])  # fmt: skip
def test_volumes_have_the_times_of_the_scanners_clock(tmp_path, starts, want, step):
    scan, whole, merged = paced(tmp_path / "s.h5", starts), tmp_path / "i.nii.gz", tmp_path / "m.nii.gz"
    recon(scan, "-o", whole)
    for first, last in ((0, 1), (2, 2)):
        recon(scan, "-o", tmp_path / f"{first}.nii", "--range", "repetition", first, last)
    assert run("merge", tmp_path / "0.nii", tmp_path / "2.nii", "-o", merged) == 0
    for file in (whole, merged):
        told = sidecar(file)
        assert told["RepetitionTimeExcitation"] == 0.5
        times = {name: told[name] for name in ("RepetitionTime", "VolumeTiming", "AcquisitionDuration") if name in told}
        assert times == pytest.approx(want)
        assert nibabel.load(file).header["pixdim"][4] == pytest.approx(step)


def test_repetitions_are_runs_of_anatomical_images_and_one_file_of_functional_ones(tmp_path):
    scan, folder = paced(tmp_path / "s.h5", [100, 300]), tmp_path / "study"
    recon(scan, "--bids", folder, "--subject", "7", "--suffix", "bold", "--task", "rest")
    (folder / "participants.tsv").write_text("participant_id\tage\nsub-7\t30\n")
    for _ in range(2):  # the second run finds all there
        recon(scan, "--bids", folder, "--subject", "8")
    bold = folder / "sub-7" / "func" / "sub-7_task-rest_bold.nii.gz"
    assert nibabel.load(bold).shape == (32, 16, 1, 2)
    assert sidecar(bold)["TaskName"] == "rest" and sidecar(bold)["RepetitionTime"] == 0.5
    runs = [folder / "sub-8" / "anat" / f"sub-8_run-{n}_T1w.nii.gz" for n in (1, 2)]
    assert [nibabel.load(run).shape for run in runs] == [(32, 16, 1)] * 2
    assert not np.array_equal(*(nibabel.load(run).get_fdata() for run in runs))
    assert (folder / "participants.tsv").read_text() == "participant_id\tage\nsub-7\t30\nsub-8\tn/a\n"


def test_what_has_no_place_there_is_refused_before_the_work(tmp_path, capsys, monkeypatch):
    scan = paced(tmp_path / "s.h5", [0, 0])
    one = foreign.write(tmp_path / "one.h5", foreign.records(foreign.image(32, 16)), foreign.header(32, 16))
    (tmp_path / "file").write_text("")
    folder = tmp_path / "new"
    for file, where, suffix, words in ((scan, folder, "bold", "no time stamps"), (one, folder, "bold", "use sbref"),
                                       (one, tmp_path / "file" / "in", "T1w", "cannot be written to")):  # fmt: skip
        refused(capsys, words, "recon", file, "--bids", where, "--subject", "1", "--suffix", suffix)
    for wrong in ([], ["--bids", folder], ["-o", "i.nii", "--subject", "1"], ["--bids", folder, "--subject", "a_b"],
                  ["--bids", folder, "--subject", "1", "--suffix", "dwi"]):  # fmt: skip
        assert run("recon", one, *wrong) == cli.USAGE
    monkeypatch.setattr(nibabel.Nifti1Image, "to_file_map", lambda *_: 1 / 0)
    assert run("recon", one, "--bids", folder / "deep", "--subject", "1") == cli.FAULT
    assert not folder.exists()


def test_the_standards_own_validator_finds_no_fault(tmp_path):
    packages = os.environ.get("CTESSEL_NPM")
    if not packages:
        pytest.skip("needs packages of npm, which ./test.sh --all installs")
    folder = tmp_path / "study"
    phantom.write(echoes := tmp_path / "e.h5", "echoes", size=32, coils=2)
    phantom.write(volume := tmp_path / "v.h5", "3d", size=16)
    steady, odd = paced(tmp_path / "s.h5", [0, 200, 400]), paced(tmp_path / "o.h5", [0, 200, 700])
    for number, (scan, *options) in enumerate((
        (echoes, "--suffix", "MEGRE", "--combine", "phase"), (echoes, "--suffix", "T2starw", "--session", "pre"),
        (volume, "--suffix", "FLAIR"), (steady, "--suffix", "bold"), (odd, "--suffix", "cbv", "--task", "tap"),
        (steady, "--combine", "phase"),
    )):  # fmt: skip
        recon(scan, "--bids", folder, "--subject", f"0{number}", *options)
    program = ["node", f"{packages}/node_modules/bids-validator/bin/bids-validator", "--json", folder]
    told = subprocess.run(program, capture_output=True, text=True).stdout
    assert json.loads(told)["issues"]["errors"] == []
