"""Bytes that a call takes beyond its arguments and its result: no binding copies samples, least of all into parts."""

import subprocess
import sys

import pytest

MEASURE = """
import ctypes, resource, sys
import numpy as np, ctessel
from ctessel import homodyne
ctypes.CDLL(None).mallopt(-3, 1 << 16)  # large blocks go back to the system at once
def status(field):
    for line in open("/proc/self/status"):
        if line.startswith(field):
            return 1024 * int(line.split()[1])
shape = {shape}
data = np.ones(shape, np.complex64, order={order!r})
other = np.ones(shape, np.complex64, order={order!r})
padded = np.ones([n + n // 2 for n in shape[:3]] + [*shape[3:]], np.complex64, order={order!r})
small = np.ones((2, 2, 2, 2), np.complex64)
def call(data, other, padded):
    return {call}
call(small, small.copy(), np.ones((3, 3, 3, 2), np.complex64))
open("/proc/self/clear_refs", "w").write("5")  # the peak starts anew
before = status("VmRSS")
result = call(data, other, padded)
peak = status("VmHWM")
results = result if isinstance(result, tuple) else (result,)
own = sum(getattr(r, "nbytes", 0) for r in results if r is not data and r is not padded)
print((peak - before - own) / data.nbytes)
"""

VOLUME, COILS = (192, 160, 96), (128, 96, 16, 16)
GAPS = "data[::2, ::-1]"  # a view with gaps, whose first axis is not the fastest
CALLS = [
    ("ctessel.fftshift(data)", VOLUME),
    ("ctessel.ifftshift(data, inplace=True)", VOLUME),
    (f"ctessel.fftshift({GAPS})", VOLUME),
    ("ctessel.zero_pad(data, padded.shape[:3], out=padded)", VOLUME),
    (f"ctessel.zero_pad({GAPS}, padded.shape[:3], out=padded)", VOLUME),
    ("ctessel.ringing_filter(data, 0.5)", VOLUME),
    ("ctessel.ringing_filter(data, 0.5, inplace=True)", COILS),
    ("ctessel.sos(data)", COILS),
    (f"ctessel.sos({GAPS})", COILS),
    ("ctessel.pcsos(data)", COILS),
    ("homodyne.filter(data, ky=(-data.shape[1] // 5, data.shape[1] // 2 - 1))", VOLUME),
    ("homodyne.filter(data, ky=(-data.shape[1] // 5, data.shape[1] // 2 - 1), inplace=True)", VOLUME),
    ("homodyne.multiply(data, other)", VOLUME),
    ("homodyne.multiply(data, other, inplace=True)", COILS),
    ("ctessel.sense_recon(data[:, ::2], other)", COILS),
    ("ctessel.sense_recon(data[:, ::2], other, ref=data[0], reg=np.abs(other[..., 0]))", COILS),
    ("ctessel.sa(data)", VOLUME),
]


@pytest.mark.parametrize("order", ["C", "F"])
@pytest.mark.parametrize("call, shape", CALLS, ids=[c[0] for c in CALLS])
def test_no_call_copies_its_samples(call, shape, order):
    script = MEASURE.format(call=call, shape=shape, order=order)
    run = subprocess.run([sys.executable, "-W", "ignore", "-c", script], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    share = float(run.stdout)
    print(f"{call} {order}: {share:.2f} of a copy")
    assert share < 0.15  # SENSE: its working memory on two threads; a copy would be half or more
