"""The command: files in and out, exit codes, cancelling, and nothing half-written."""

import json
import os
import resource
import signal
import subprocess
import sys
import threading
import time

import foreign
import nibabel
import numpy as np
import pytest
from command import pixels, recon, refused, run, sidecar

from ctessel import cli, files, phantom, runtime


@pytest.fixture(scope="module")
def scan(tmp_path_factory):
    file = tmp_path_factory.mktemp("scan") / "scan.h5"
    phantom.write(file, "noise", size=48, coils=4, slices=3, repetitions=4, gap=1.0, tilt=(20.0, 10.0), pace=2.5)
    return file


def test_files_tell_place_time_and_what_was_done(scan, tmp_path):
    image = recon(scan, tmp_path / "i.nii.gz", "--preview", tmp_path / "i.png", "--combine", "phase", "--ringing", 0.2,
                  "--pad", 64, 64, 1, "--regularise", 1, "--position", "FFS")  # fmt: skip
    assert image.shape == (64, 64, 3, 4) and image.get_data_dtype() == np.float32
    np.testing.assert_allclose(image.header["pixdim"][1:5], (1.5, 1.5, 5, 0.27))  # 36 lines of 3 slices
    assert image.header.get_xyzt_units() == ("mm", "sec")
    np.testing.assert_allclose(image.get_qform(), image.get_sform(), atol=1e-4)
    assert image.header["qform_code"] == image.header["sform_code"] == 1
    told = sidecar(tmp_path / "i.nii.gz")
    assert told["RepetitionTime"] == 0.27 and told["RepetitionTimeExcitation"] == 0.5 and told["EchoTime"] == 0.005
    assert told["PatientPosition"] == "FFS" and told["SpacingBetweenSlices"] == pytest.approx(5)
    assert told["Parameters"]["options"]["regularisation"] == 1
    assert told["Versions"]["numpy"] == np.__version__
    for words in ("ringing", "SENSE: R = 2"):
        assert any(words in step for step in told["Steps"])
    assert 0 < np.abs(pixels(tmp_path / "i_phase.nii.gz")).max() <= np.float32(np.pi)
    assert {p.name for p in tmp_path.iterdir()} == {"i.nii.gz", "i.json", "i_phase.nii.gz", "i_phase.json", "i.png"}
    assert (tmp_path / "i.png").stat().st_size > 1000


@pytest.mark.parametrize("axis, cuts, scale", [
    ("slice", [0, 1, 3], 0), ("slice", [0, 2, 3], 1), ("repetition", [0, 3, 4], 1), ("echo", [0, 1, 3], 0),
])  # fmt: skip
def test_merged_parts_are_the_whole_to_the_bit(scan, tmp_path, capsys, axis, cuts, scale):
    if axis == "echo":
        phantom.write(scan := tmp_path / "echoes.h5", "echoes", size=16, coils=2)
    whole = recon(scan, tmp_path / "whole.nii.gz", "--regularise", scale)
    for first, after in zip(cuts, cuts[1:]):
        part = tmp_path / f"part{first}.nii.gz"
        recon(scan, part, "--range", axis, first, after - 1, "--regularise", scale)
    parts = [tmp_path / f"part{first}.nii.gz" for first in cuts[-2::-1]]
    assert run("merge", *parts, "-o", tmp_path / "merged.nii") == 0
    assert not capsys.readouterr().err
    assert run("merge", parts[-1], "-o", tmp_path / "ends.nii") == 0
    part, every = f"has {axis} 0 to {cuts[1] - 1}", f"has 0 to {cuts[-1] - 1}"
    assert capsys.readouterr().err == f"ctessel: warning: the image {part}, the scan {every}: is a part missing?\n"
    merged = nibabel.load(tmp_path / "merged.nii")
    np.testing.assert_array_equal(merged.get_fdata(), whole.get_fdata())
    np.testing.assert_allclose(merged.affine, whole.affine, atol=1e-4)
    names = ("merged", "whole", f"part{cuts[1]}")
    *times, last = (sidecar(tmp_path / name)["EchoTime"] for name in names)
    assert times[0] == times[1] and last == (times[0][1:] if axis == "echo" else times[0])
    assert run("merge", parts[0], parts[0], "-o", tmp_path / "twice.nii") == cli.DEFECT
    assert not (tmp_path / "twice.nii").exists()
    capsys.readouterr()
    last = nibabel.load(parts[0])
    nibabel.save(nibabel.Nifti1Image(last.get_fdata(), last.affine + [[0, 0, 0, 1], *[[0] * 4] * 3]), parts[0])
    words = f"{parts[0]}: does not start where {parts[-1]} ends"
    refused(capsys, words, "merge", *parts, "-o", tmp_path / "moved.nii")


@pytest.mark.parametrize("axis, field", [("repetition", "repetition"), ("echo", "contrast")])
def test_a_bad_image_in_the_middle_is_left_out_or_merged_around(tmp_path, capsys, axis, field):
    def files(where, bad=None):
        images = [foreign.records(foreign.image(32, 16, seed=i), **{field: i}) for i in range(4)]
        kept = [image[:5] if i == bad else image for i, image in enumerate(images)]
        return foreign.write(tmp_path / where, sum(kept, []), foreign.header(32, 16, te="</TE><TE>".join("2468")))

    whole, broken = files("whole.h5"), files("broken.h5", 2)
    want = recon(whole, tmp_path / "whole.nii").get_fdata()
    refused(capsys, f"--skip {axis} 2\n", "recon", broken, "-o", tmp_path / "no.nii")
    others = np.delete(want, 2, -1)
    skipped = recon(broken, tmp_path / "skipped.nii", "--skip", axis, 2)
    np.testing.assert_array_equal(skipped.get_fdata(), others)
    times = [0.002, 0.004, 0.008] if axis == "echo" else [0.002, 0.004, 0.006, 0.008]
    known = {"Skipped": [{"Axis": axis, "Position": 2}], "EchoTime": times}
    assert known.items() <= sidecar(tmp_path / "skipped.nii").items()
    parts = [tmp_path / "a.nii", tmp_path / "b.nii"]
    recon(broken, parts[0], "--range", axis, 0, 1)
    last = recon(broken, parts[1], "--range", axis, 2, 3, "--skip", axis, 2).get_fdata()
    np.testing.assert_array_equal(last[..., 0].squeeze(), want[..., 3].squeeze())
    recon(broken, parts[1], "--range", axis, 3, 3)
    merge = ["merge", *parts, "-o", tmp_path / "merged.nii"]
    refused(capsys, f"{axis} 2 is missing; give that part too, or leave them out with --gaps", *merge)
    assert run(*merge, "--gaps") == 0
    np.testing.assert_array_equal(pixels(tmp_path / "merged.nii"), others)
    assert known.items() <= sidecar(tmp_path / "merged.nii").items()
    for words in ("--skip {} 4", "--skip {0} 0 --range {0} 0 0", "--range {0} 3 4 --skip {0} 2"):
        refused(capsys, "", "recon", broken, "-o", tmp_path / "no.nii", *words.format(axis).split())
    assert not (tmp_path / "no.nii").exists()


def test_what_cannot_be_done_is_refused_before_the_work(scan, tmp_path, capsys, monkeypatch):
    target, folder = tmp_path / "i.nii", tmp_path / "folder.nii"
    for ending in (".nii", ".png", ".json"):
        folder.with_suffix(ending).mkdir()
    refused(capsys, "slice 0 to 2", "recon", scan, "-o", target, "--range", "slice", 1, 3)
    refused(capsys, "no.coef: No such file", "recon", scan, "-o", target, "--geometry", tmp_path / "no.coef")
    for rest in ([], ["--dry-run"]):
        for where, words in ((tmp_path / "none" / "i.nii", "none: no such folder; make it"), (folder, "is a folder")):
            for names in (["-o", where], ["-o", target, "--preview", where.with_suffix(".png")]):
                refused(capsys, words, "recon", scan, *names, *rest)
        refused(capsys, "folder.json: is a folder", "recon", scan, "-o", tmp_path / "folder.nii.gz", *rest)
    for ending in (".nii", ".png", ".json"):
        folder.with_suffix(ending).rmdir()
    (tmp_path / "i.json").symlink_to(scan)
    refused(capsys, "i.json: is the raw data file", "recon", tmp_path / "i.json", "-o", target)
    (tmp_path / "i.json").unlink()
    refused(capsys, "none: no such folder; make it", "phantom", "full", "-o", tmp_path / "none" / "p.h5")
    refused(capsys, "is missing", "merge", target, "-o", target)
    for wrong in (["recon", scan], ["recon", scan, "-o", "i.png"], ["recon", scan, "-o", target, "--preview", "i.gif"],
                  ["recon", scan, "-o", target, "--ringing", 2],
                  ["recon", scan, "-o", target, "--range", "x", 0, 1],
                  ["recon", scan, "-o", target, "--skip", "slice", -1], ["phantom", "cube"], [],
                  ["phantom", "full", "-o", target], ["recon", scan, "-o", target, "--scheduler", "node1"]):  # fmt: skip
        refused(capsys, "; see ctessel", *wrong, code=cli.USAGE)
    words = "ctessel recon: unknown argument --regularize (did you mean --regularise?); see ctessel recon --help"
    refused(capsys, words, "recon", scan, "-o", target, "--regularize", 1, code=cli.USAGE)
    most = resource.getrlimit(resource.RLIMIT_FSIZE)
    for where in ([], ["--scratch", tmp_path]):
        resource.setrlimit(resource.RLIMIT_FSIZE, (65536, most[1]))  # as little as a full disk takes
        try:
            refused(capsys, f"ctessel: {tmp_path}: File too large", "recon", scan, "-o", target, *where)
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, most)
    monkeypatch.setattr(runtime, "available", lambda: 1_000_000)
    told = refused(capsys, "needs", "recon", scan, "-o", target, code=cli.MEMORY)
    assert all(words in told for words in ("1 MB are free", "--scratch", "--range repetition 0 1"))
    told = refused(capsys, "the phantom needs", "phantom", "full", "-o", tmp_path / "p.h5", code=cli.MEMORY)
    assert "smaller size" in told
    assert run("recon", scan, "-o", target, "--dry-run", "--combine", "phase") == 0
    told = capsys.readouterr().out
    assert "SENSE" in told and "_phase.json" in told
    monkeypatch.delattr("ctessel._raw")
    monkeypatch.setitem(sys.modules, "ctessel._raw", None)
    refused(capsys, "apt-get install libismrmrd-dev", "info", scan)
    assert not list(tmp_path.iterdir())


def test_what_makes_another_image_than_expected_is_told(tmp_path, capsys):
    lines = foreign.records(foreign.image(32, 16))
    file = foreign.write(tmp_path / "twice.h5", [*lines, *lines[3:5]], foreign.header(32, 16))
    recon(file, tmp_path / "i.nii")
    told = capsys.readouterr().err
    assert told.startswith("ctessel: warning: 2 of 16 lines were not measured 1 time like the others, but 2 times")
    assert sidecar(tmp_path / "i.nii")["Warnings"] == [told[len("ctessel: warning: ") : -1]]


def test_info_tells_what_is_in_a_file_and_what_would_be_done(scan, capsys):
    assert run("info", scan) == 0
    told = " ".join(capsys.readouterr().out.split())
    for words in ("coils 4", "slices 3", "repetitions 4", "noise scan 2048 samples", "spacing 5 mm", "TR 500 ms",
                  "SENSE: R = 2 along y", "lines 36 of 48"):  # fmt: skip
        assert words in told


def test_names_that_are_no_text_work(scan, tmp_path):
    name = os.fsdecode(b"\xff\n.h5")
    (tmp_path / name).write_bytes(scan.read_bytes())
    reconstruct = ["recon", name, "-o", f"{name}.nii"]
    for words in (["info", name], reconstruct, [*reconstruct, "--dry-run"]):
        done = subprocess.run([sys.executable, "-m", "ctessel", *words], cwd=tmp_path, capture_output=True)
        assert (done.returncode, done.stderr) == (0, b"")
    assert json.loads((tmp_path / f"{name}.json").read_text())["Sources"] == ["\ufffd\n.h5"]


def test_kinds_of_phantoms_are_described(capsys, monkeypatch):
    assert list(cli.PHANTOM_KINDS) == list(phantom.KINDS)
    assert run("phantom", "list") == 0
    assert capsys.readouterr().out.split("\n") == [*phantom.KINDS, ""]  # one name a line, for scripts
    monkeypatch.setattr(sys.stdout, "isatty", lambda: True)
    assert run("phantom", "list") == 0
    described = capsys.readouterr().out
    assert run("phantom", "--help") == 0
    assert "echoes           3 echoes\n" in described and described.rstrip() in capsys.readouterr().out


def test_help_says_what_each_argument_is_and_its_default():
    for name, command in cli._parser()._subparsers._group_actions[0].choices.items():
        for action in command._actions:
            assert action.help, (name, action.dest)
            silent = action.nargs == 0 or action.default in (None, (), [])
            assert silent or "default" in action.help, (name, action.dest)


def test_missing_packages_are_named_together_with_the_command_that_fits(monkeypatch):
    monkeypatch.setitem(sys.modules, "h5py", None)
    monkeypatch.setitem(sys.modules, "tqdm", None)
    debian = "apt-get install python3-nothing python3-tqdm python3-h5py"
    for prefix, words in ((sys.base_prefix, debian), ("/srv/environment", "pip install nothing tqdm h5py")):
        monkeypatch.setattr(sys, "prefix", prefix)
        monkeypatch.setattr(cli.runtime, "SCANS", ("tqdm", "h5py"))
        assert cli.runtime.installing("nothing") == words
    monkeypatch.setitem(sys.modules, "distributed", None)
    assert cli.runtime.installing("dask") == "pip install dask tqdm h5py distributed"


def test_readers_may_stop_reading(scan):
    for words in (f"info {scan}", "phantom list"):
        script = f"{sys.executable} -m ctessel {words} | true; exit ${{PIPESTATUS[0]}}"
        done = subprocess.run(["bash", "-c", script], stderr=subprocess.PIPE)
        assert (done.returncode, done.stderr) == (0, b"")


# Writing stops half-way, and says so.
HALF = """
import nibabel, sys, time
from ctessel import cli
def write(image, path):
    path.write_bytes(b"half")
    print("half", flush=True)
    for _ in range(600):
        time.sleep(0.1)
nibabel.Nifti1Image.to_filename = write
sys.exit(cli.main(sys.argv[1:]))
"""


def half_written(scan, folder):
    """A run that has begun to write its image."""
    command = [sys.executable, "-c", HALF, "recon", scan, "-o", folder / "i.nii"]
    begun = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert begun.stdout.readline() == "half\n"
    return begun


@pytest.mark.parametrize("number, code", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_cancel_leaves_nothing(scan, tmp_path, number, code):
    (tmp_path / "i.nii").write_text("older")
    begun = half_written(scan, tmp_path)
    assert len(list(tmp_path.iterdir())) == 2
    before = time.monotonic()
    for _ in range(3):  # as the impatient do
        begun.send_signal(number)
    told = begun.communicate()[1]
    assert (begun.returncode, told.strip()) == (code, "ctessel: cancelled, nothing was written")
    assert time.monotonic() - before < 5
    assert [p.name for p in tmp_path.iterdir()] == ["i.nii"]
    assert (tmp_path / "i.nii").read_text() == "older"


def test_a_later_run_clears_what_a_killed_one_left_and_nothing_else(scan, tmp_path):
    killed, alive = (half_written(scan, tmp_path) for _ in range(2))
    killed.kill()
    killed.communicate()
    assert len(list(tmp_path.iterdir())) == 2
    recon(scan, tmp_path / "other.nii")
    assert len(list(tmp_path.glob(".ctessel-*"))) == 1
    alive.terminate()
    alive.communicate()
    assert {p.name for p in tmp_path.iterdir()} == {"other.nii", "other.json"}


HOLD = "import sys, time; from ctessel import files\nwith files.folder(sys.argv[1]): print(flush=True); time.sleep(60)"


def test_folders_for_samples_of_killed_runs_go_and_those_in_use_stay(tmp_path):
    other = subprocess.Popen([sys.executable, "-c", HOLD, tmp_path], stdout=subprocess.PIPE)
    assert other.stdout.readline() == b"\n"
    with files.folder(tmp_path) as first:
        assert len(list(tmp_path.iterdir())) == 2
        other.kill()
        other.communicate()
        with files.folder(tmp_path) as second:
            assert set(tmp_path.iterdir()) == {first.parent, second.parent}
    assert not list(tmp_path.iterdir())


@pytest.fixture
def interruptible():
    """Processes that a shell starts in the background ignore the signal of the keyboard."""
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield
    signal.signal(signal.SIGINT, before)


def test_a_signal_waits_while_files_get_their_names(tmp_path, monkeypatch, interruptible):
    replace, came = os.replace, []

    def interrupted(old, new):
        signal.raise_signal(signal.SIGINT)
        came.append(new.name)
        replace(old, new)

    monkeypatch.setattr(os, "replace", interrupted)
    with pytest.raises(KeyboardInterrupt) as ended:
        with files.Staged() as staged:
            for name in "ab":
                staged.path(tmp_path / name).write_text(name)
            staged.commit()
    assert ended.value.written and came == ["a", "b"]
    assert sorted(p.name for p in tmp_path.iterdir()) == ["a", "b"]


def test_an_image_never_lies_beside_the_sidecar_of_another_run(tmp_path, monkeypatch):
    """Neither while two runs give their files the same names, nor where one is killed in between."""

    def write(text):
        with files.Staged() as staged:
            for name in ("i.nii", "i.json"):
                staged.path(tmp_path / name).write_text(text)
            staged.commit()

    write("first")
    replace, other = os.replace, threading.Thread(target=write, args=("third",))

    def meanwhile(old, new):
        if new.name == "i.nii" and threading.current_thread() is threading.main_thread():
            other.start()
            other.join(0.2)  # it waits
            assert other.is_alive() and not (tmp_path / "i.json").exists()
        replace(old, new)

    monkeypatch.setattr(os, "replace", meanwhile)
    write("second")
    other.join()
    assert {p.read_text() for p in tmp_path.iterdir()} == {"third"}


def test_progress_shows_the_time_left_on_a_terminal(scan, tmp_path):
    try:
        pty, side = os.openpty()
    except OSError:
        pytest.skip("no terminals here")
    command = [sys.executable, "-m", "ctessel", "recon", scan, "-o", tmp_path / "i.nii"]
    subprocess.run(command, stderr=side, check=True)
    os.close(side)
    told = os.read(pty, 1 << 16).decode()
    os.close(pty)
    assert "reconstructing" in told and "/12 " in told and "<" in told
    assert not subprocess.run(command, stderr=subprocess.PIPE, check=True).stderr


def test_an_option_that_cannot_help_or_that_harms_is_said(tmp_path):
    phantom.write(full := tmp_path / "full.h5", "full", size=32, coils=2)
    recon(full, tmp_path / "i.nii", "--regularise", 1, "--pad", 32, 24, 1)
    told = sidecar(tmp_path / "i.nii")
    assert told["Parameters"]["options"]["regularisation"] == 0
    unused, coarse = sorted(told["Warnings"], reverse=True)
    assert "strength 1 is not used" in unused
    assert "along y the image has 0.75 of the resolution that was measured; 32 voxels keep it" in coarse
    recon(full, tmp_path / "i.nii", "--pad", 64, 32, 1)
    assert "Warnings" not in sidecar(tmp_path / "i.nii")
