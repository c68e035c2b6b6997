"""Chunks give the bits of single calls, on worker processes as well, also when one of them ends."""

import os
import subprocess
import sys
from pathlib import Path

import dask.array as da
import distributed
import nibabel
import numpy as np
import pytest
from command import recon, run
from conftest import random_complex, same_bits
from processes import deadly, memory
from scans import lines, scan

import ctessel.dask
from ctessel import phantom, pipeline
from ctessel.pipeline import Options


@pytest.fixture(scope="module")
def client():
    with ctessel.dask.connect(workers=2) as connected:
        yield connected


DATA = random_complex((12, 8, 6, 4, 3, 2, 1, 2, 1, 3), 1)
CHUNKS = (5, 8, 3, 2, 2, 1, 1, 1, 1, 2)  # also along axes that are brought together first
SENS = random_complex((12, 12, 9, 4, 2), 2)
PSI = np.diag(np.float32([1, 2, 3, 4])).astype(np.complex64)
RANGES = (None, (-1, 3), None)


@pytest.mark.parametrize("name, arguments, keywords", [
    ("fftshift", (), {}), ("ifftshift", ([3, -1],), {}), ("zero_pad", ((13, 9),), {}),
    ("ringing_filter", (0.5,), {"width": [8, 8, 4]}), ("sos", (), {}), ("sos", (0,), {}), ("pcsos", (), {}),
    ("homodyne_recon", (RANGES,), {}), ("homodyne_recon", (RANGES,), {"field": (6, 8, 6)}),
    ("whiten", (PSI,), {}), ("sense_recon", (SENS,), {"psi": PSI}),
])  # fmt: skip
def test_chunks_have_the_bits_of_one_call(name, arguments, keywords):
    single = getattr(ctessel, name, None) or getattr(pipeline, name)
    chunked = getattr(ctessel.dask, name)(da.from_array(DATA, chunks=CHUNKS), *arguments, **keywords)
    assert chunked.npartitions > 1
    want = single(DATA, *arguments, **keywords)
    assert chunked.shape == want.shape and chunked.dtype == want.dtype
    same_bits(chunked.compute(), want)
    same_bits(getattr(ctessel.dask, name)(DATA, *arguments, **keywords).compute(), want)


def test_geometry_in_chunks():
    points = np.random.default_rng(0).uniform(-200, 200, (3, 7, 5)).astype(np.float32)
    tables = np.zeros((14, 12)), np.zeros((14, 12)), np.zeros(17)
    tables[0][1, 1] = tables[1][1, 1] = tables[2][1] = 1
    tables[0][3, 1] = 0.1
    got = ctessel.dask.geometry_correction(*(da.from_array(p, chunks=(2, 5)) for p in points), *tables, 250.0)
    same_bits(got.compute(), np.stack(ctessel.geometry_correction(*points, *tables, 250.0)))


def test_regularised_sense_in_chunks_weighs_as_the_whole():
    folded = DATA * np.arange(1, 4)[:, None, None, None, None, None]  # chunks of unequal level
    ref, reg = random_complex((6, 6, 2), 3), np.abs(random_complex((12, 12, 9, 2), 4))
    weight = {"ref": ref, "reg": reg.astype(np.float32), "scale": 2.0}
    want = ctessel.sense_recon(folded.astype(np.complex64), SENS, psi=PSI, **weight)
    got = ctessel.dask.sense_recon(da.from_array(folded.astype(np.complex64), chunks=CHUNKS), SENS, psi=PSI, **weight)
    np.testing.assert_allclose(got.compute(), want, rtol=1e-5, atol=1e-6 * np.abs(want).max())
    plain = ctessel.sense_recon(folded.astype(np.complex64), SENS, psi=PSI)
    assert np.abs(want - plain).max() > 0.1 * np.abs(want).max()


def test_workers_run_operations_and_whole_scans(client, monkeypatch):
    images = da.from_array(DATA, chunks=CHUNKS)
    same_bits(client.compute(ctessel.dask.sos(images)).result(), ctessel.sos(DATA))
    monkeypatch.setattr(ctessel.plan, "BLOCK", 1)  # one repetition at a time
    ctessel_folder = client.ctessel_folder
    for folder, options in ((ctessel_folder, Options()), (None, Options(regularisation=0.5))):
        monkeypatch.setattr(client, "ctessel_folder", folder)  # None: blocks are sent as messages
        _, under = scan((24, 32, 1), 4, lines(32, 2, 0, 16), slices=3, repetitions=3, noise=0.05)
        seen = []
        got = pipeline.reconstruct(under, options, lambda *done: seen.append(done), client)
        assert seen == [(n, 9) for n in range(1, 10)]
        same_bits(got.image, pipeline.reconstruct(under, options).image)
    assert os.listdir(ctessel_folder) == []


@pytest.mark.filterwarnings("ignore")
def test_nothing_is_lost_with_a_worker(client, tmp_path, monkeypatch):
    blocks, mark = [np.full(1000, i, np.complex64) for i in range(12)], tmp_path / "died"
    results = dict(ctessel.dask.run_tasks(client, deadly, ((i, (i, mark, block)) for i, block in enumerate(blocks))))
    assert mark.exists() and sorted(results) == list(range(12))
    for i, result in results.items():
        np.testing.assert_array_equal(result, blocks[i] * i)
    monkeypatch.setattr(client.cluster.scheduler, "allowed_failures", 0)
    with pytest.raises(MemoryError, match="give them more"):
        list(ctessel.dask.run_tasks(client, deadly, [(0, (3, None, blocks[0]))]))


def test_memory_of_workers_does_not_grow_with_the_scan(client):
    _, first = scan((192, 192, 1), 8, slices=24)
    plan = pipeline.plan(first)
    part = pipeline.select(plan, "slice", 0, 1)
    pipeline.reconstruct(first, client=client, plan=part)  # workers import what they need
    client.run(lambda: open("/proc/self/clear_refs", "w").write("5"))
    before = max(client.run(memory, "VmHWM").values())
    pipeline.reconstruct(first, client=client)
    block = plan.memory() - plan.memory(workers=0)
    assert max(client.run(memory, "VmHWM").values()) - before < block + (8 << 20)


def test_no_scheduler_and_one_without_workers_are_one_line():
    with distributed.LocalCluster(n_workers=0, processes=False, dashboard_address=None) as cluster:
        for scheduler, words in (
            (cluster.scheduler_address, r"has no workers; start one with 'python3 -m .* (tcp|inproc)://"),
            ("tcp://127.0.0.1:1", "no Dask scheduler answers at tcp://127.0.0.1:1"),
        ):
            with pytest.raises(ConnectionError, match=words):
                ctessel.dask.connect(scheduler=scheduler, patience=0.3).__enter__()
    with ctessel.dask.connect() as nothing:
        assert nothing is None


def test_array_of_batch_jobs_makes_the_image_of_one_run(tmp_path):
    kind = {"size": 48, "coils": 4, "slices": 2, "repetitions": 2, "noise": 0.02}
    phantom.write(tmp_path / "raw.h5", "undersampled", **kind)
    want = recon(tmp_path / "raw.h5", tmp_path / "whole.nii.gz", "--ringing", 0.3)
    command = tmp_path / "ctessel"  # the module that is tested, under the command's name
    command.write_text(f'#!/bin/sh\nexec {sys.executable} -m ctessel "$@"\n')
    command.chmod(0o755)
    script = Path(__file__).resolve().parents[1] / "examples" / "slurm_array.sh"
    job = {
        "PATH": f"{tmp_path}:{os.environ['PATH']}", "PYTHONPATH": os.pathsep.join(sys.path),
        "OPTIONS": "--ringing 0.3", "AXIS": "repetition",
        "SLURM_ARRAY_TASK_MIN": "1", "SLURM_ARRAY_TASK_COUNT": "3",
    }  # fmt: skip
    for task in range(1, 4):  # three tasks that count from 1, for two repetitions: one has none
        env = {**os.environ, **job, "SLURM_ARRAY_TASK_ID": str(task)}
        subprocess.run(["bash", script, "raw.h5", "image.nii.gz", "2"], cwd=tmp_path, env=env, check=True)
    parts = sorted(tmp_path.glob("image.part-*.nii.gz"))
    assert len(parts) == 2 and run("merge", *parts, "-o", tmp_path / "image.nii.gz") == 0
    got = nibabel.load(tmp_path / "image.nii.gz")
    assert got.shape == want.shape == (48, 48, 2, 2)
    np.testing.assert_array_equal(got.get_fdata(), want.get_fdata())
    np.testing.assert_array_equal(got.affine, want.affine)
