#!/usr/bin/env python3
"""Strong scaling of a reconstruction over worker processes: measured on this machine, simulated beyond.

    python3 python/scaling.py [SLICES]

A 2-D data set of 16 coils, 256 x 256, R = 2, is reconstructed here and by 1, 2, ... processes, as many
as there are cores, each on one thread. Beyond that, time follows from three measured ones: the time
of each slice in a worker, and those of sending a slice's k-space and of fetching its image, which one
process does for all. The simulation hands each slice to the worker that is free first.
"""

import heapq
import os
import sys
import time
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent / "tests"))

from scans import lines, scan  # noqa: E402

import ctessel.dask  # noqa: E402
from ctessel import pipeline  # noqa: E402

OPTIONS = pipeline.Options(threads=1)


def timed_block(*arguments):
    start = time.perf_counter()
    pipeline.reconstruct_block(*arguments)
    return time.perf_counter() - start


def sent_only(setup, kspace, calibration, placement):
    return np.ones((*setup.matrix, 1, 1), np.complex64)


def tasks(data):
    setup = pipeline._setup(data, OPTIONS, data.sampled)
    return list(pipeline._tasks(data, [setup], pipeline._patterns(data)))


def lasts(function, repeat=3):
    """Shortest of a few runs, in seconds."""
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        function()
        times.append(time.perf_counter() - start)
    return min(times)


def simulated(work, send, workers):
    """End of the last block: one sender, blocks to the worker that is free first."""
    free, sent = [0.0] * workers, 0.0
    for duration in work:
        sent += send
        heapq.heappush(free, max(heapq.heappop(free), sent) + duration)
    return max(free)


def measured(data, workers):
    """Time of the whole, of each block, and of sending and fetching one alone, in seconds."""
    with ctessel.dask.connect(workers=workers) as client:
        client.wait_for_workers(workers)
        pipeline.reconstruct(data, OPTIONS, client=client)  # imports
        whole = lasts(lambda: pipeline.reconstruct(data, OPTIONS, client=client))
        work = [t for _, t in ctessel.dask.run_tasks(client, timed_block, tasks(data))]
        sending = lasts(lambda: list(ctessel.dask.run_tasks(client, sent_only, tasks(data))))
    return whole, work, sending / len(work)


def main(slices):
    data = scan((256, 256, 1), 16, lines(256, 2, 0, 24), slices=slices, oversampling=2, noise=0.01)[1]
    single = lasts(lambda: pipeline.reconstruct(data, OPTIONS))
    print(f"{slices} slices, {data.kspace.nbytes / 2**20:.0f} MiB of k-space; one process: {single:.2f} s")
    cores = len(os.sched_getaffinity(0))
    for workers in range(1, cores + 1):
        whole, work, send = measured(data, workers)
        print(f"{workers} workers: measured {whole:.2f} s, simulated {simulated(work, send, workers):.2f} s "
              f"(block {np.median(work) * 1e3:.0f} ms, sending and fetching {send * 1e3:.0f} ms)")
        if workers == 1:
            base, alone = work, send
    for workers in (4, 8, 16, 32, 64):
        whole = simulated(base, alone, workers)
        print(f"{workers} workers: simulated {whole:.2f} s, {single / whole:.1f} times as fast as one process")


if __name__ == "__main__":
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 32)
