#!/usr/bin/env python3
"""Where the processor time of `ctessel recon` goes: transforms, kernels, file, other steps, start.

    python3 python/profile_recon.py RAW.h5 [OPTIONS OF ctessel recon]

Time within a function counts for the first group that it belongs to. Modules are imported before
functions are timed, which would take the imports twice as long. Kernels and transforms get one
thread, so that the only other one is that which reads ahead.
"""

import cProfile
import importlib
import os
import pstats
import sys
import tempfile
import time

GROUPS = {
    "transforms": ("scipy/fft", "scipy.fft"),
    "kernels": ("ctessel._core",),
    "reading": ("ctessel._raw", "/ctessel/raw.py", "/ctessel/acquisitions.py", "/ctessel/_ismrmrd.py", "fill"),
    "writing": ("zlib", "gzip", "nibabel", "/ctessel/nifti.py", "_io."),
    "steps outside kernels": ("",),
}
START = "start of Python and imports"


def group_of(function):
    text = " ".join(map(str, function))
    return next(group for group, parts in GROUPS.items() if any(part in text for part in parts))


def main(raw, *options):
    os.environ["OMP_NUM_THREADS"] = "1"
    for name in ("ctessel.pipeline", "ctessel.job", "nibabel", "tqdm", "scipy.ndimage"):
        importlib.import_module(name)
    from ctessel import cli

    profile = cProfile.Profile(time.thread_time)
    times = dict.fromkeys([*GROUPS, START], 0.0)
    times[START] = time.process_time()
    ahead = time.process_time() - time.thread_time()
    with tempfile.TemporaryDirectory() as folder:
        profile.enable()
        arguments = cli._parser().parse_args(["recon", raw, "-o", f"{folder}/image.nii.gz", *options])
        cli.recon(arguments)
        profile.disable()
    for function, (_, _, own, _, _) in pstats.Stats(profile).stats.items():
        times[group_of(function)] += own
    times["reading"] += time.process_time() - time.thread_time() - ahead
    total = sum(times.values())
    for group, spent in times.items():
        print(f"{group:28} {spent:6.2f} s {100 * spent / total:3.0f} %")


if __name__ == "__main__":
    main(*sys.argv[1:])
