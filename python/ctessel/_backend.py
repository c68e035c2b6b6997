"""Loads the kernels with threads that soon sleep while they wait for each other.

GNU's OpenMP runtime lets them spin for up to 14 milliseconds by default: beside other programs
`ctessel recon` then took five times as long. It reads its environment once, when it is loaded.
"""

import os

if not {"OMP_WAIT_POLICY", "GOMP_SPINCOUNT"} & os.environ.keys():
    os.environ["GOMP_SPINCOUNT"] = "1000"
    try:
        from . import _core  # noqa: F401
    finally:
        del os.environ["GOMP_SPINCOUNT"]
