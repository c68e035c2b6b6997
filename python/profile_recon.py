#!/usr/bin/env python3
"""Where the processor time of `ctessel recon` goes: transforms, kernels, file, other steps, start.

    python3 python/profile_recon.py RAW.h5 [OPTIONS OF ctessel recon]

Time within a function counts for the first group that it belongs to.
"""

import cProfile
import pstats
import sys
import tempfile
import time

GROUPS = {
    "transforms": ("pypocketfft",),
    "kernels": ("_core",),
    "reading": ("ctessel._raw", "/ctessel/raw.py", "/ctessel/_survey.py", "/ctessel/_ismrmrd.py"),
    "writing": ("zlib", "gzip", "nibabel", "/ctessel/nifti.py", "_io."),
    "steps outside kernels": ("/ctessel/", "numpy", "ndimage"),
}


def group_of(function):
    text = " ".join(map(str, function))
    if "importlib" in text or "marshal" in text:
        return "start of Python and imports"
    return next(
        (group for group, parts in GROUPS.items() if any(part in text for part in parts)),
        "start of Python and imports",
    )


def main(raw, *options):
    profile = cProfile.Profile(time.process_time)
    started = time.process_time()  # of the interpreter, until here
    with tempfile.TemporaryDirectory() as folder:
        profile.enable()
        from ctessel import cli

        arguments = cli._parser().parse_args(
            ["recon", raw, "-o", f"{folder}/image.nii.gz", *options]
        )
        cli.recon(arguments)
        profile.disable()
    times = dict.fromkeys([*GROUPS, "start of Python and imports"], 0.0)
    times["start of Python and imports"] = started
    for function, (_, _, own, _, _) in pstats.Stats(profile).stats.items():
        times[group_of(function)] += own
    total = sum(times.values())
    for group, spent in times.items():
        print(f"{group:28} {spent:6.2f} s {100 * spent / total:3.0f} %")


if __name__ == "__main__":
    main(*sys.argv[1:])
