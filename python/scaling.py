#!/usr/bin/env python3
"""Strong scaling over worker processes: measured on this machine, simulated beyond.

    python3 python/scaling.py [SLICES]

A 2-D file of 16 coils, 256 x 256, R = 2, is reconstructed here and by processes on one thread each; the
shortest of a few runs counts. Beyond the cores, time follows from processor time, which other programs
on the machine do not lengthen: that of each slice in a worker, which reads it, and that of this process
for a slice. The simulation hands each slice to the worker that is free first.
"""

import heapq
import os
import sys
import tempfile
import time
from functools import partial
from pathlib import Path

import numpy as np

import ctessel.dask
from ctessel import phantom, pipeline, raw, reconstruct
from ctessel.workers import Workers

OPTIONS = pipeline.Options(combine="sos", threads=1)
RUNS = 3


def lasts(clock, function):
    """Shortest of a few runs, in seconds."""
    times = []
    for _ in range(RUNS):
        start = clock()
        function()
        times.append(clock() - start)
    return min(times)


def timed(plan, group, source):
    return lasts(time.process_time, lambda: reconstruct.work(plan, group, source))


def image_alone(plan, *_):
    return {"image": np.ones((*plan.matrix, 1, 1), np.float32)}


def tasks(plan, source):
    return ((None, (plan, group, source)) for group in reconstruct.groups(plan, 1))


def simulated(work, hand, workers):
    """End of the last block: one process hands them out, each to the worker that is free first."""
    free, handed = [0.0] * workers, 0.0
    for duration in work:
        handed += hand
        heapq.heappush(free, max(heapq.heappop(free), handed) + duration)
    return max(free)


def here(run, function, made):
    """Processor time of this process for each of some tasks."""
    made = list(made())
    return lasts(time.process_time, lambda: list(run(function, iter(made)))) / len(made)


def sending(plan, found):
    """Processor time of this process for a slice that it reads and sends itself."""

    def all_of_it():
        return list(ctessel.dask.run_tasks(client, image_alone, reconstruct._tasks(plan, scan)))

    reading = lasts(time.process_time, lambda: raw.read(found.path, found=found))
    scan = raw.read(found.path, found=found)
    with ctessel.dask.connect(workers=1) as client:
        client.ctessel_folder = None
        return (reading + lasts(time.process_time, all_of_it)) / found.scan.shape[4]


def main(slices, path):
    phantom.write(path, "undersampled", size=256, coils=16, slices=slices, noise=0.01)
    found = raw.contents(path, cut=True)
    source, plan = raw.Source(found, 1), pipeline.plan(raw.layout(found), OPTIONS)

    def whole(client=None):
        if client is None:
            return pipeline.reconstruct(raw.read(path, found=found, threads=1), plan=plan)
        return pipeline.reconstruct(source, client=client, plan=plan)

    with Workers(1) as workers:
        work = [spent for _, spent in workers.run_tasks(timed, tasks(plan, source))]
        hand = here(workers.run_tasks, image_alone, partial(tasks, plan, source))
    cores, size = len(os.sched_getaffinity(0)), os.path.getsize(path) / slices
    print(
        f"{slices} slices of {size / 1e6:.1f} MB, {cores} cores, load {os.getloadavg()[0]:.1f}\n"
        f"processor time of a slice: {np.median(work) * 1e3:.0f} ms in a worker, reading included; "
        f"{hand * 1e3:.1f} ms here; {sending(plan, found) * 1e3:.0f} ms here where it is sent"
    )
    alone = lasts(time.process_time, whole)
    print(f"one process: {alone:.2f} s of processor time, {lasts(time.perf_counter, whole):.2f} s measured")
    for count in (1, 2, 3, 4):
        with Workers(count) as workers:
            whole(workers)  # they import what they need
            measured = lasts(time.perf_counter, lambda: whole(workers))
        print(f"{count} workers: {measured:.2f} s measured, {simulated(work, hand, count):.2f} s simulated")
    for count in (8, 16, 32, 64, 128):
        left = simulated(work * 8, hand, count) / 8
        print(f"{count} workers: {left:.3f} s simulated, {sum(work) / left:.1f} times one worker")


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as folder:
        main(int(sys.argv[1]) if len(sys.argv) > 1 else 32, Path(folder) / "scan.h5")
