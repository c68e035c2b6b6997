"""Peak memory of a call beyond its arguments and its result, as a share of the largest argument."""

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
small = np.ones((2, 2, 2, 2), np.complex64)
def call(data, other):
    return {call}
call(small, small.copy())
open("/proc/self/clear_refs", "w").write("5")  # the peak starts anew
before = status("VmRSS")
result = call(data, other)
peak = status("VmHWM")
results = result if isinstance(result, tuple) else (result,)
own = sum(r.nbytes for r in results if r is not data)
print((peak - before - own) / data.nbytes)
"""

VOLUME, COILS = (192, 160, 96), (128, 96, 16, 16)
CALLS = [
    ("ctessel.fftshift(data)", VOLUME, 0.05),
    ("ctessel.fftshift(data, inplace=True)", VOLUME, 0.55),
    ("ctessel.zero_pad(data, [n + n // 2 for n in data.shape[:3]])", VOLUME, 0.05),
    ("ctessel.ringing_filter(data, 0.5)", VOLUME, 0.55),
    ("ctessel.ringing_filter(data, 0.5)", COILS, 0.1),
    ("ctessel.sos(data)", COILS, 0.1),
    ("ctessel.pcsos(data)", COILS, 0.1),
    ("homodyne.filter(data, ky=(-data.shape[1] // 5, data.shape[1] // 2 - 1))", VOLUME, 0.05),
    ("homodyne.filter(data, ky=(-data.shape[1] // 5, data.shape[1] // 2 - 1), inplace=True)", VOLUME, 0.05),
    ("homodyne.multiply(data, other)", VOLUME, 0.1),
    ("homodyne.multiply(data, other, inplace=True)", COILS, 0.1),
    # Slabs of half the inputs, which are 1.5 copies here.
    ("ctessel.sense_recon(data[:, ::2], other)", COILS, 0.9),
    ("ctessel.sense_recon(data[:, ::2], other, ref=data[0], reg=np.abs(other[..., 0]))", COILS, 0.9),
]


@pytest.mark.parametrize("order", ["C", "F"])
@pytest.mark.parametrize("call, shape, most", CALLS, ids=[c[0] for c in CALLS])
def test_peak_memory(call, shape, most, order):
    script = MEASURE.format(call=call, shape=shape, order=order)
    run = subprocess.run([sys.executable, "-W", "ignore", "-c", script], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    share = float(run.stdout)
    print(f"{call} {order}: {share:.2f} of a copy")
    assert share < most
