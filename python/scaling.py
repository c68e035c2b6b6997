#!/usr/bin/env python3
"""Strong scaling over worker processes: measured on this machine, simulated beyond.

    python3 python/scaling.py [SLICES]

A 2-D data set of 16 coils, 256 x 256, R = 2, is reconstructed here and by 1, 2, ... processes, as
many as there are cores, each on one thread; the shortest of a few runs counts. Beyond the cores,
time follows from processor time that other programs on the machine do not lengthen: that of each
slice in a worker, and that of this process for sending k-space and fetching the image, which it
does for all. The simulation hands each slice to the worker that is free first.
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
from ctessel import pipeline, reconstruct  # noqa: E402

OPTIONS = pipeline.Options(threads=1)
RUNS = 5


def lasts(clock, function):
    """Shortest of a few runs, in seconds."""
    times = []
    for _ in range(RUNS):
        start = clock()
        function()
        times.append(clock() - start)
    return min(times)


def timed_block(*arguments):
    return lasts(time.process_time, lambda: reconstruct._work(*arguments))


def image_alone(plan, *_):
    return np.ones((*plan.matrix, 1, 1), np.complex64)


def tasks(data):
    return reconstruct._tasks(pipeline.plan(data, OPTIONS), data)


def simulated(work, send, workers):
    """End of the last block: one sender, blocks to the worker that is free first."""
    free, sent = [0.0] * workers, 0.0
    for duration in work:
        sent += send
        heapq.heappush(free, max(heapq.heappop(free), sent) + duration)
    return max(free)


def processor_times(data):
    """Of each block in a worker, and of sending and fetching one in this process."""
    with ctessel.dask.connect(workers=1) as client:
        work = [spent for _, spent in ctessel.dask.run_tasks(client, timed_block, tasks(data))]

        def through():
            return list(ctessel.dask.run_tasks(client, image_alone, tasks(data)))

        return work, lasts(time.process_time, through) / len(work)


def whole(data, workers):
    with ctessel.dask.connect(workers=workers) as client:
        client.wait_for_workers(workers or 0) if client else None
        pipeline.reconstruct(data, OPTIONS, client=client)  # workers import what they need
        return lasts(time.perf_counter, lambda: pipeline.reconstruct(data, OPTIONS, client=client))


def main(slices):
    data = scan((256, 256, 1), 16, lines(256, 2, 0, 24), slices=slices, oversampling=2, noise=0.01)[
        1
    ]
    cores = len(os.sched_getaffinity(0))
    work, send = processor_times(data)
    print(
        f"{slices} slices, {data.kspace.nbytes / 2**20:.0f} MiB of k-space, {cores} cores, load "
        f"{os.getloadavg()[0]:.1f}\n"
        f"processor time of a slice {np.median(work) * 1e3:.0f} ms in a worker, "
        f"{send * 1e3:.1f} ms to send and fetch it"
    )
    alone = lasts(time.process_time, lambda: pipeline.reconstruct(data, OPTIONS))
    print(f"one process: {alone:.2f} s of processor time, {whole(data, None):.2f} s measured")
    for workers in range(1, cores + 1):
        print(
            f"{workers} workers: {whole(data, workers):.2f} s measured, "
            f"{max(simulated(work, send, workers), (sum(work) + slices * send) / cores):.2f} s "
            "simulated"
        )
    for workers in (4, 8, 16, 32, 64):
        time_left = simulated(work, send, workers)
        print(
            f"{workers} workers: {time_left:.2f} s simulated, "
            f"{alone / time_left:.1f} times one process"
        )


if __name__ == "__main__":
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 32)
