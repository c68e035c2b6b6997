#!/usr/bin/env python3
"""Benchmarks of the Python package beside NumPy, SciPy and memcpy, as ratios of one run.

    build/python/environment/bin/python python/bench.py [--json FILE] [FILTER]

The figure of merit is the ratio: `of memcpy` relates bytes read and written per second to those of
memcpy on as many bytes, `x NumPy` (`x SciPy`) is their time over ours. Both sides are called in
turns, their shortest times count, and before that their results are compared. All on one thread, as
NumPy runs. Call overheads are microseconds per call on 8 x 8 samples. FILTER takes rows whose names
contain it; the file gets a list of {name, value, unit, ms}.
"""

import argparse
import ctypes
import json
import sys
import time

sys.path.pop(0)  # the installed package, not the sources beside this file

import numpy as np
from numpy.testing import assert_allclose, assert_array_equal
from scipy import ndimage, special

import ctessel
from ctessel import _core, homodyne

ROUNDS, ORDERS = 15, "CF"


def seconds(call, times):
    start = time.perf_counter()
    for _ in range(times):
        call()
    return (time.perf_counter() - start) / times


class Report:
    def __init__(self, wanted):
        self.wanted, self.rows = wanted, []

    def add(self, name, value, unit, took):
        self.rows.append({"name": name, "value": value, "unit": unit, "ms": 1e3 * took})
        print(f"{name:50} {value:8.2f} {unit:12} {1e3 * took:9.3f} ms", flush=True)

    def ratio(self, name, ours, other, unit="x NumPy", check=None, **tolerance):
        """`check` compares the two results unless it is False; a tolerance replaces equality."""
        if self.wanted not in name:
            return
        mine, theirs = ours(), other()
        if check is not False:
            (assert_allclose if tolerance else assert_array_equal)(mine, theirs, **tolerance)
        times = max(1, int(2e-3 / (seconds(ours, 1) + 1e-9)))
        pairs = [(seconds(ours, times), seconds(other, times)) for _ in range(ROUNDS)]
        own, others = (min(column) for column in zip(*pairs))
        self.add(name, others / own, unit, own)

    def overhead(self, name, call):
        if self.wanted in name:
            took = min(seconds(call, 500) for _ in range(ROUNDS))
            self.add(name, 1e6 * took, "microseconds", took)


def random_complex(shape, order="C"):
    rng = np.random.default_rng(0)
    data = np.empty(shape, np.complex64, order=order)
    data.real, data.imag = rng.standard_normal(shape), rng.standard_normal(shape)
    return data


def split_and_join(report):
    for shape in [(64, 32, 8, 4), (192, 160, 8, 8), (256, 128, 32, 8), (190, 150, 30, 10)]:
        for order in ORDERS:
            data = random_complex(shape, order)
            re, im = np.empty(data.size, np.float32), np.empty(data.size, np.float32)
            a, b = np.ones(data.nbytes, np.uint8), np.ones(data.nbytes, np.uint8)
            label = f"{order} order, {data.nbytes / 2**20:.3g} MiB"

            def memcpy(to=b.ctypes.data, of=a.ctypes.data, n=data.nbytes):
                ctypes.memmove(to, of, n)

            def numpy_split():
                re.reshape(shape, order="F")[...] = data.real
                im.reshape(shape, order="F")[...] = data.imag
                return re.copy(), im.copy()

            def numpy_join():
                data.real = re.reshape(shape, order="F")
                data.imag = im.reshape(shape, order="F")

            want, kept = numpy_split(), data.copy(order="K")
            re[...] = im[...] = 0
            _core.split(data, re, im, 1)
            assert_array_equal((re, im), want)
            data[...] = 0
            _core.join(re, im, data, 1)
            assert_array_equal(data, kept)
            for name, ours, numpys in [
                ("split", lambda: _core.split(data, re, im, 1), numpy_split),
                ("join", lambda: _core.join(re, im, data, 1), numpy_join),
            ]:
                report.ratio(f"{name}, {label}", ours, memcpy, "of memcpy", check=False)
                report.ratio(f"{name}, {label}", ours, numpys, check=False)


def cosine_window(shape, strength):
    window = np.float32(1)
    for d, n in enumerate(shape):
        period = np.pi * n / np.arccos((1 - strength - 0.54) / 0.46)
        along = 0.54 + 0.46 * np.cos(2 * np.pi * (np.arange(n) - n // 2) / period)
        window = window * along.astype(np.float32).reshape([-1 if k == d else 1 for k in range(4)])
    return window


def arrays(report, order):
    shape = (192, 160, 8, 8)
    data, low = random_complex(shape, order), random_complex(shape, order)[..., ::-1].copy(order="K")
    target, spare = (256, 240, 8), [(32, 32), (40, 40), (0, 0), (0, 0)]
    window = cosine_window(shape[:3], 0.9)
    ramp = homodyne.calculate_filter(160, (-20, 79))[0][:, None, None]
    near = {"rtol": 1e-4, "atol": 1e-5}
    rows = [
        ("fftshift", lambda: ctessel.fftshift(data, threads=1), lambda: np.fft.fftshift(data, (0, 1, 2)), {}),
        ("ifftshift", lambda: ctessel.ifftshift(data, threads=1), lambda: np.fft.ifftshift(data, (0, 1, 2)), {}),
        ("zero_pad", lambda: ctessel.zero_pad(data, target, threads=1), lambda: np.pad(data, spare), {}),
        ("ringing_filter", lambda: ctessel.ringing_filter(data, 0.9, threads=1), lambda: data * window, near),
        ("sos", lambda: ctessel.sos(data, threads=1), lambda: np.sqrt((np.abs(data) ** 2).sum(3)), near),
        ("pcsos", lambda: ctessel.pcsos(data, threads=1), lambda: np.linalg.norm(data, axis=3)
         * np.exp(1j * np.angle((np.abs(data) * data).sum(3))), {"rtol": 1e-2, "atol": 1e-4}),
        ("homodyne.filter", lambda: homodyne.filter(data, ky=(-20, 79), threads=1)[0], lambda: data * ramp, {}),
        ("homodyne.multiply", lambda: homodyne.multiply(data, low, threads=1),
         lambda: (data * low.conj() / np.abs(low)).real.astype(np.complex64), near),
        ("sa", lambda: ctessel.sa(data), lambda: np.sqrt((np.abs(data) ** 2).mean(dtype=float)), near),
    ]
    for name, ours, numpys, tolerance in rows:
        report.ratio(f"{name}, {order} order", ours, numpys, **tolerance)


def numpy_sense(folded, sens):
    """R = 2 along y: two lines of the full image share a folded line."""
    half = folded.shape[1]
    at = np.array([ctessel.unfolded_positions(2 * half, half, y) for y in range(half)])
    S = sens[:, at, 0].transpose(0, 1, 3, 2)
    H = S.conj().swapaxes(-1, -2)
    out = np.empty((*sens.shape[:2], 1), np.complex64)
    out[:, at, 0] = np.linalg.solve(H @ S, H @ folded[:, :, 0, :, None])[..., 0]
    return out


def sense(report, order):
    sens = random_complex((128, 128, 1, 16), order)
    folded = np.array(sens[:, ::2], order=order)
    report.ratio(f"sense_recon, {order} order", lambda: ctessel.sense_recon(folded, sens, threads=1),
                 lambda: numpy_sense(folded, sens), rtol=1e-2, atol=1e-3)


def spherical(x, y, z):
    r = np.sqrt(x * x + y * y + z * z)
    return r, np.arccos(z / r), np.arctan2(y, x) % np.float32(2 * np.pi)


def scipy_correction(x, y, z, table, zonal, r0):
    r, theta, phi = spherical(*(v.astype(float) for v in (x, y, z)))
    xd, yd, zd = np.zeros_like(r), np.zeros_like(r), np.zeros_like(r)
    for n in range(1, 17):
        radial = (r / r0) ** n
        zd += zonal[n] * radial * special.lpmv(0, n, np.cos(theta))
        for m in range(1, min(n, 11) + 1 if n < 14 else 1):
            h = table[n, m] * (-1) ** m * radial * special.lpmv(m, n, np.cos(theta))
            xd, yd = xd + h * np.cos(m * phi), yd + h * np.sin(m * phi)
    return r0 / table[1, 1] * xd, r0 / table[1, 1] * yd, r0 / zonal[1] * zd


def numbers(report):
    rng = np.random.default_rng(1)
    x, y, z = rng.uniform(-100, 100, (3, 20000)).astype(np.float32)
    c = np.linspace(-1, 1, 20000).astype(np.float32)
    table, zonal = np.zeros((14, 12)), np.zeros(17)
    table[1, 1] = zonal[1] = 1
    table[3, 1], table[5, 5], zonal[3] = 0.01, 1e-6, 0.01
    near = {"rtol": 1e-4, "atol": 1e-4}
    report.ratio("geometry_correction", lambda: ctessel.geometry_correction(x, y, z, table, table, zonal, 250, threads=1),
                 lambda: scipy_correction(x, y, z, table, zonal, 250), "x SciPy", atol=0.1)
    report.ratio("radius_theta_phi", lambda: ctessel.radius_theta_phi(x, y, z), lambda: spherical(x, y, z), **near)
    report.ratio("radial_factor", lambda: ctessel.radial_factor(x, 100.0, 5), lambda: (x / np.float32(100)) ** 5, **near)
    report.ratio("func_yc", lambda: ctessel.func_yc(4, 3, x, c, 100.0, 1.0),
                 lambda: np.cos(3 * c) * (x / np.float32(100)) ** 4, **near)
    report.ratio("func_ys", lambda: ctessel.func_ys(4, 3, x, c, 100.0, 1.0),
                 lambda: np.sin(3 * c) * (x / np.float32(100)) ** 4, **near)
    report.ratio("plgndr(13, 5)", lambda: ctessel.plgndr(13, 5, c), lambda: special.lpmv(5, 13, c), "x SciPy",
                 rtol=1e-2, atol=100)
    report.ratio("create_plgndr_lookup", lambda: ctessel.create_plgndr_lookup(8, 6, 500), lambda: special.lpmv(
        np.arange(6)[:, None], np.arange(8), np.linspace(-1, 1, 500)[:, None, None]), "x SciPy", rtol=1e-2, atol=1)
    volume = random_complex((64, 64, 32)).real.copy(order="F")
    at = [np.abs(v) / 100 * (n - 1.001) for v, n in zip((x, y, z), volume.shape)]
    report.ratio("linear_interpolation", lambda: ctessel.linear_interpolation(volume, *at),
                 lambda: ndimage.map_coordinates(volume, at, order=1), "x SciPy", **near)
    p = np.abs(x)
    report.ratio("round", lambda: ctessel.round(p), lambda: np.floor(p + np.float32(0.5)).astype(np.int32))
    report.ratio("linspace", lambda: ctessel.linspace(0, 9, 20000), lambda: np.linspace(0, 9, 20000, dtype=np.float32), **near)
    many = np.arange(20000, dtype=np.int32)
    report.ratio("find", lambda: ctessel.find(many, 19999), lambda: np.argmax(many == 19999))
    report.ratio("sub2ind", lambda: ctessel.sub2ind((8, 7, 6), (1, 2, 3)),
                 lambda: np.ravel_multi_index((1, 2, 3), (8, 7, 6), order="F"))


def call_overhead(report):
    small, coils, flat = np.ones((8, 8), np.complex64), np.ones((8, 8, 1, 2), np.complex64), np.ones(8, np.float32)
    folded, ints = np.ones((8, 4, 1, 2), np.complex64), np.arange(8, dtype=np.int32)
    table, zonal = np.ones((14, 12)), np.ones(17)
    for name, call in [
        ("fftshift", lambda: ctessel.fftshift(small)),
        ("ifftshift", lambda: ctessel.ifftshift(small)),
        ("zero_pad", lambda: ctessel.zero_pad(small, (9, 9))),
        ("ringing_filter", lambda: ctessel.ringing_filter(small, 0.5)),
        ("sos", lambda: ctessel.sos(coils)),
        ("pcsos", lambda: ctessel.pcsos(coils)),
        ("homodyne.filter", lambda: homodyne.filter(small, ky=(-1, 3))),
        ("homodyne.multiply", lambda: homodyne.multiply(small, small)),
        ("homodyne.calculate_filter", lambda: homodyne.calculate_filter(8, (-1, 3))),
        ("sense_recon", lambda: ctessel.sense_recon(folded, coils)),
        ("folded_pos", lambda: ctessel.folded_pos(3, 8, 4)),
        ("unfolded_positions", lambda: ctessel.unfolded_positions(8, 4, 3)),
        ("compartments", lambda: ctessel.compartments(8, 3)),
        ("realign_corr_coeffs", lambda: ctessel.realign_corr_coeffs(table, table, zonal)),
        ("plgndr", lambda: ctessel.plgndr(2, 1, flat)),
        ("create_plgndr_lookup", lambda: ctessel.create_plgndr_lookup(2, 2, 8)),
        ("radius_theta_phi", lambda: ctessel.radius_theta_phi(flat, flat, flat)),
        ("radial_factor", lambda: ctessel.radial_factor(flat, 2.0, 3)),
        ("func_ys", lambda: ctessel.func_ys(2, 1, flat, flat, 2.0, 1.0)),
        ("func_yc", lambda: ctessel.func_yc(2, 1, flat, flat, 2.0, 1.0)),
        ("linspace", lambda: ctessel.linspace(0, 1, 8)),
        ("linear_interpolation", lambda: ctessel.linear_interpolation(small, flat, flat)),
        ("pos2interpolate", lambda: ctessel.pos2interpolate(1.5, 1, (-1, -1), (-1, -1))),
        ("round", lambda: ctessel.round(flat)),
        ("sub2ind", lambda: ctessel.sub2ind((8, 8), (1, 2))),
        ("find", lambda: ctessel.find(ints, 3)),
        ("sa", lambda: ctessel.sa(small)),
    ]:
        report.overhead(f"one small call, {name}", call)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--json", metavar="FILE", help="write the rows there")
    parser.add_argument("filter", nargs="?", default="", help="rows whose names contain this")
    wanted = parser.parse_args()
    report = Report(wanted.filter)
    call_overhead(report)
    split_and_join(report)
    for order in ORDERS:
        arrays(report, order)
        sense(report, order)
    numbers(report)
    if wanted.json:
        with open(wanted.json, "w") as file:
            json.dump(report.rows, file, indent=1)


if __name__ == "__main__":
    main()
