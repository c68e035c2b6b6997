"""The same arrays through this library and through NumPy: shifts and padding to the bit, combination
to rounding.

    crosscheck_numpy.py PATH/crosscheck_arrays
"""
import subprocess
import sys
import tempfile
from pathlib import Path

try:
    import numpy as np
except ImportError:
    print("SKIPPED: NumPy is not installed")
    sys.exit(77)


def read(name):
    extents = [int(n) for n in Path(name + ".hdr").read_text().splitlines()[1].split()]
    return np.fromfile(name + ".cfl", "<c8").reshape(extents, order="F")


def ours(folder, *task):
    """Result of one task of the driver on the array `folder`/in."""
    task = [str(word) for word in task]
    subprocess.run([sys.argv[1], *task, folder + "/in", folder + "/out"], check=True)
    return read(folder + "/out")


def padded(a, to):
    margins = [((n - have + 1) // 2, (n - have) // 2) for have, n in zip(a.shape, to)]
    return np.pad(a, margins + [(0, 0)] * (a.ndim - 3))


def combined(a, axis):
    """Root-sum-of-squares magnitude, phase of the sum weighted with mean magnitudes."""
    weights = np.abs(a).mean(axis=9, keepdims=True)
    phase = np.angle((a * weights).sum(axis=axis, keepdims=True))
    return np.sqrt((np.abs(a) ** 2).sum(axis=axis, keepdims=True)) * np.exp(1j * phase)


failed = 0
with tempfile.TemporaryDirectory() as folder:
    for shape in [(8, 6, 4, 3), (7, 5, 9, 4, 2), (5, 4, 1, 3, 1, 1, 1, 1, 1, 6)]:
        subprocess.run([sys.argv[1], "random", folder + "/in", *map(str, shape)], check=True)
        a = read(folder + "/in")
        to = (shape[0] + 3, shape[1] + 4, shape[2] + 1)
        results = {"pad": np.array_equal(ours(folder, "pad", *to), padded(a, to))}
        for dim in 1, 2, 3:
            results[f"fftshift {dim}"] = np.array_equal(
                ours(folder, "shift", dim), np.fft.fftshift(a, dim - 1))
            results[f"ifftshift {dim}"] = np.array_equal(
                ours(folder, "ishift", dim), np.fft.ifftshift(a, dim - 1))
        wide = a.astype(complex).reshape(shape + (1,) * (10 - len(shape)))
        for dim in 1, 4:
            want = combined(wide, dim - 1)
            results[f"sos {dim}"] = np.allclose(
                ours(folder, "sos", dim), np.abs(want), rtol=1e-6, atol=0)
            results[f"pcsos {dim}"] = np.allclose(
                ours(folder, "pcsos", dim), want, rtol=0, atol=2e-6 * np.abs(want).max())
        for what, same in results.items():
            print("agrees: " if same else "DIFFERS:", what, shape)
            failed += not same
sys.exit(failed != 0)
