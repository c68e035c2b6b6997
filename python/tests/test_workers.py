"""Workers read their own part of a file, give the bits of one process, and leave nothing behind."""

import contextlib
import os
import pickle
import signal
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pytest
from command import recon
from conftest import same_bits
from processes import children, deadly, until

from ctessel import phantom, pipeline, raw, reconstruct
from ctessel.pipeline import Options
from ctessel.workers import Workers


@pytest.fixture(scope="module")
def workers():
    with Workers(2) as started:
        yield started


@pytest.mark.parametrize("kind", "undersampled-3 interleaved averages partial-readout 3d-undersampled echoes".split())
def test_a_file_gives_the_samples_of_the_whole_block_by_block(tmp_path, kind):
    phantom.write(tmp_path / "p.h5", kind, size=32, coils=2, noise=0.01)
    found = raw.contents(tmp_path / "p.h5", cut=True)
    whole, source = raw.read(found.path, found=found), raw.Source(found)
    for index in range(whole.kspace.shape[4]):
        count = whole.kspace.shape[6]
        for repetitions in (slice(0, count), np.arange(count)[::2]):
            same_bits(source.frames(index, repetitions), whole.frames(index, repetitions))
        if whole.calibration is not None:
            same_bits(source.separate(index), whole.separate(index))


@pytest.mark.parametrize("options", [Options(combine="sos"), Options(regularisation=0.5)])
def test_workers_make_the_images_of_one_process(tmp_path, workers, monkeypatch, options):
    phantom.write(tmp_path / "p.h5", "noise", size=32, coils=4, slices=3, repetitions=3)
    monkeypatch.setattr(pipeline.plan.__globals__["Plan"], "group", 1)  # one repetition at a time
    found, seen = raw.contents(tmp_path / "p.h5"), []
    want = pipeline.reconstruct(raw.read(found.path, found=found), options).image
    for source in (raw.Source(found), raw.read(found.path, found=found)):
        seen.clear()
        got = pipeline.reconstruct(source, options, lambda *done: seen.append(done), workers)
        same_bits(got.image, want)
        assert seen == [(n, 9) for n in range(1, 10)]


def test_workers_make_the_sensitivities_of_a_slice_once_where_there_are_enough(tmp_path, monkeypatch):
    monkeypatch.setattr(pipeline.plan.__globals__["Plan"], "group", 2)
    phantom.write(tmp_path / "p.h5", "undersampled", size=32, coils=2, slices=3, repetitions=8)
    plan = pipeline.plan(raw.layout(raw.contents(tmp_path / "p.h5")))
    for workers, parts in ((1, [4] * 3), (2, [2] * 6), (3, [2] * 6), (6, [1] * 12), (64, [1] * 12)):
        made = list(reconstruct.groups(plan, workers))
        assert [len(group) for group in made] == parts
        together = [(b.slice, *b.repetitions.tolist()) for group in made for b in group]
        assert together == [(n, r, r + 1) for n in range(3) for r in range(0, 8, 2)]
        assert all(len({block.slice for block in group}) == 1 for group in made)


def test_the_command_gives_the_bits_of_one_process(tmp_path):
    for kind in ("slices", "3d-undersampled", "3d-caipi"):
        phantom.write(tmp_path / "p.h5", kind, size=32, coils=4)
        want = recon(tmp_path / "p.h5", tmp_path / "i.nii").get_fdata()
        for more in ([], ["--scratch", tmp_path]):
            got = recon(tmp_path / "p.h5", tmp_path / "i.nii", "--workers", 2, *more).get_fdata()
            np.testing.assert_array_equal(got, want)


@pytest.mark.parametrize("disposable", [True, False])
def test_workers_take_slabs_out_of_a_volume_that_they_share(tmp_path, workers, monkeypatch, disposable):
    phantom.write(tmp_path / "p.h5", "3d-undersampled", size=32, coils=8, repetitions=2, noise=0.01)
    monkeypatch.setattr(pipeline.plan.__globals__["Plan"], "slab", 8 * 8 * 32 * 24 * 5)
    found, run, sizes = raw.contents(tmp_path / "p.h5", cut=True), workers.run_tasks, []

    def noted(tasks):
        for place, arguments in tasks:
            sizes.append(len(pickle.dumps(arguments)))
            yield place, arguments

    want = pipeline.reconstruct(raw.read(found.path, found=found)).image
    monkeypatch.setattr(workers, "run_tasks", lambda function, tasks: run(function, noted(tasks)))
    source = raw.read(found.path, found=found, scratch=tmp_path)
    if disposable:
        source = raw.Source(found, shares=True)
    same_bits(pipeline.reconstruct(source, client=workers).image, want)
    assert len(sizes) == 2 * 7 and max(sizes) < 8 * 8 * 32 * 24 * 5 / 2


def test_a_file_that_changes_is_refused(tmp_path, workers):
    phantom.write(tmp_path / "p.h5", "full", size=32, coils=2)
    source = raw.Source(raw.contents(tmp_path / "p.h5"))
    os.utime(tmp_path / "p.h5", (0, 0))
    with pytest.raises(raw.RawError, match="has changed since the run began"):
        pipeline.reconstruct(source, client=workers)


def test_nothing_is_lost_with_a_worker(tmp_path):
    with Workers(2) as started:
        tasks = [(f"at {n}", (n, tmp_path / "died", n)) for n in range(12)]
        assert dict(started.run_tasks(deadly, tasks)) == {f"at {n}": n**2 for n in range(12)}
        with pytest.raises(MemoryError, match="start fewer"):
            list(started.run_tasks(deadly, [(0, (3, None, 1))]))


def runs(number):
    """Whether there is such a process that has not ended: a container's first one may not collect it."""
    with contextlib.suppress(OSError):
        return Path(f"/proc/{number}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    return False


def works(number):
    with contextlib.suppress(OSError):
        return "/_raw." in Path(f"/proc/{number}/maps").read_text()  # which comes with its first task
    return False


@pytest.mark.parametrize("how, busy", [("SIGINT", 0), ("SIGTERM", 0), ("SIGKILL", 0), ("SIGKILL", 2)])
def test_no_worker_outlives_a_run_that_is_cancelled(tmp_path, how, busy):
    file, how = tmp_path / "p.h5", signal.Signals[how]
    phantom.write(file, "undersampled", size=96, coils=8, slices=40)
    (tmp_path / "out").mkdir()
    command = [sys.executable, "-m", "ctessel", "recon", file, "-o", tmp_path / "out" / "i.nii", "--workers", "2"]
    run = subprocess.Popen(command, stderr=subprocess.PIPE, text=True, start_new_session=True)
    # The workers, and one that clears up behind them.
    while len(started := children(run.pid)) < 3 or sum(map(works, started)) < busy:
        assert run.poll() is None
        time.sleep(0.01)
    if how == signal.SIGINT:
        os.killpg(run.pid, how)  # as a terminal does
    else:
        run.send_signal(how)
    told = run.communicate(timeout=30)[1]
    if how == signal.SIGKILL:
        assert run.returncode == -how
    else:
        assert (run.returncode, told.strip()) == (128 + how, "ctessel: cancelled, nothing was written")
        assert not list((tmp_path / "out").iterdir())
    until(lambda: not any(map(runs, started)), seconds=10)
