#!/usr/bin/env python3
"""Benchmarks of the Python package beside NumPy and memcpy, as ratios of one run.

    build/python/environment/bin/python python/bench.py [FILTER]

Two sides take turns in every round; a line is the ratio of their shortest times. `of memcpy` relates bytes read
and written per second to those of memcpy on the same number of bytes; `x NumPy` is NumPy's time over
ours. All on one thread, as NumPy runs. The call overhead is that of an 8 x 8 array.
"""

import ctypes
import sys
import time

import numpy as np

import ctessel
from ctessel import _core, homodyne

ROUNDS = 15


def seconds(call):
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


def ratio(ours, other):
    """The other's time over ours, and ours; each the shortest of the rounds, taken in turns."""
    ours(), other()
    pairs = [(seconds(ours), seconds(other)) for _ in range(ROUNDS)]
    mine, theirs = (min(times) for times in zip(*pairs))
    return theirs / mine, mine


def report(name, ours, other, unit):
    if len(sys.argv) > 1 and sys.argv[1] not in name:
        return
    value, took = ratio(ours, other)
    print(f"{name:44} {value:8.2f} {unit:10} {1e3 * took:9.2f} ms")


def split_and_join(order):
    shape = (256, 128, 32, 8)
    data = np.ones(shape, np.complex64, order=order)
    re, im = np.ones(data.size, np.float32), np.ones(data.size, np.float32)
    source, target = np.ones(data.nbytes, np.uint8), np.ones(data.nbytes, np.uint8)

    def memcpy():
        ctypes.memmove(target.ctypes.data, source.ctypes.data, data.nbytes)

    def numpy_split():
        re.reshape(shape, order="F")[...] = data.real
        im.reshape(shape, order="F")[...] = data.imag

    def numpy_join():
        data.real = re.reshape(shape, order="F")
        data.imag = im.reshape(shape, order="F")

    for name, ours, numpys in [
        ("split", lambda k: _core.split(data, re, im, k), numpy_split),
        ("join", lambda k: _core.join(re, im, data, k), numpy_join),
    ]:
        report(f"{name}, {order} order", lambda: ours(1), memcpy, "of memcpy")
        report(f"{name}, {order} order", lambda: ours(1), numpys, "x NumPy")


def operations(order):
    rng = np.random.default_rng(0)
    shape = (192, 160, 8, 8)
    data = np.empty(shape, np.complex64, order=order)
    data.real, data.imag = rng.standard_normal(shape), rng.standard_normal(shape)
    low = np.array(data[..., ::-1], order=order)
    windows = [np.hamming(n).astype(np.float32) for n in shape[:3]]
    window = windows[0][:, None, None, None] * windows[1][:, None, None] * windows[2][:, None]
    target, spare = (256, 240, 8), [(32, 32), (40, 40), (0, 0), (0, 0)]
    pairs = [
        ("fftshift, three axes", lambda: ctessel.fftshift(data, threads=1), lambda: np.fft.fftshift(data, (0, 1, 2))),
        ("zero_pad", lambda: ctessel.zero_pad(data, target, threads=1), lambda: np.pad(data, spare)),
        ("ringing_filter", lambda: ctessel.ringing_filter(data, 0.9, threads=1), lambda: data * window),
        ("sos", lambda: ctessel.sos(data, threads=1), lambda: np.sqrt((np.abs(data) ** 2).sum(3))),
        ("pcsos", lambda: ctessel.pcsos(data, threads=1), lambda: np.linalg.norm(data, axis=3)
         * np.exp(1j * np.angle((np.abs(data) * data).sum(3)))),
        ("homodyne.filter", lambda: homodyne.filter(data, ky=(-20, 79), threads=1), lambda: data * window),
        ("homodyne.multiply", lambda: homodyne.multiply(data, low, threads=1),
         lambda: (data * low.conj() / np.abs(low)).real.astype(np.complex64)),
    ]
    for name, ours, numpys in pairs:
        report(f"{name}, {order} order", ours, numpys, "x NumPy")


def numpy_sense(folded, sens):
    """R = 2 along y: lines y + R/4 and y + 3 R/4 of the full image share a folded line."""
    half = folded.shape[1]
    at = [ctessel.unfolded_positions(2 * half, half, y) for y in range(half)]
    S = sens[:, np.array(at), 0].transpose(0, 1, 3, 2)
    H = S.conj().swapaxes(-1, -2)
    u = np.linalg.solve(H @ S, H @ folded[:, :, 0, :, None])[..., 0]
    out = np.empty(sens.shape[:2], np.complex64)
    out[:, np.array(at)] = u
    return out


def larger_kernels():
    rng = np.random.default_rng(1)
    sens = (rng.standard_normal((128, 128, 1, 16)) + 1j * rng.standard_normal((128, 128, 1, 16))).astype(np.complex64)
    folded = np.array(sens[:, ::2])
    report("sense_recon, 128 x 128, 16 coils, R = 2", lambda: ctessel.sense_recon(folded, sens, threads=1),
           lambda: numpy_sense(folded, sens), "x NumPy")
    from scipy import special

    x = np.linspace(-1, 1, 20000).astype(np.float32)
    report("plgndr(13, 5)", lambda: ctessel.plgndr(13, 5, x), lambda: special.lpmv(5, 13, x), "x SciPy")


def call_overhead():
    small, coils = np.ones((8, 8), np.complex64), np.ones((8, 8, 1, 2), np.complex64)
    for name, call in [
        ("fftshift", lambda: ctessel.fftshift(small)),
        ("zero_pad", lambda: ctessel.zero_pad(small, (9, 9))),
        ("ringing_filter", lambda: ctessel.ringing_filter(small, 0.5)),
        ("sos", lambda: ctessel.sos(coils)),
        ("pcsos", lambda: ctessel.pcsos(coils)),
        ("homodyne.filter", lambda: homodyne.filter(small, ky=(-1, 3))),
        ("homodyne.multiply", lambda: homodyne.multiply(small, small)),
        ("folded_pos", lambda: ctessel.folded_pos(3, 8, 4)),
    ]:
        took = min(seconds(lambda: [call() for _ in range(500)]) for _ in range(ROUNDS)) / 500
        print(f"{'one small call, ' + name:44} {1e6 * took:8.2f} microseconds")


if __name__ == "__main__":
    call_overhead()
    for order in "FC":
        split_and_join(order)
        operations(order)
    larger_kernels()
