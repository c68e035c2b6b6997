#!/usr/bin/python3
"""Times of NumPy, SciPy, GNU Octave and BART over ours, in one run on the same data, as JSON.

    bench/peers.py build/bench > peers.json        BUILD holds recon/libcTessel.so, package/ctessel

A routine and a peer take turns; the median of the turns' ratios counts, in processor time, on one
thread. Before that their results are compared. Complex single precision, first axis fastest. What a
peer returns in new arrays costs it no fresh pages: bench.sh has freed memory kept. NumPy may have
several formulations, of which the fastest counts. BART works on files, here in memory; taken off
its time is a `bart zeros` process, which maps and fills an output of the same size.
"""

import ctypes
import json
import sys

from beside import F, QUICK, Report, at, eigen, ints, kernel, noise, split

import numpy as np
from scipy import ndimage, special

import ctessel
from ctessel import homodyne


def shifts(report):
    for shape, inverse in [((192, 192, 16, 16), False), ((127, 127, 31, 16), True)]:
        if QUICK:
            shape = (33, 32, 9, 4)
        name = "TS_ifftshift" if inverse else "TS_fftshift"
        a, call = noise(*shape), kernel("_Z12TS_ifftshift" if inverse else "_Z11TS_fftshift")
        spare = np.empty_like(a)
        for d in range(3):
            re, im = split(a)
            by = (shape[d] + 1) // 2 if inverse else shape[d] // 2
            whole = getattr(np.fft, "ifftshift" if inverse else "fftshift")

            def pieces(d=d, by=by):
                t, f = np.swapaxes(spare, 0, d), np.swapaxes(a, 0, d)
                t[by:], t[:by] = f[:-by], f[-by:]
                return spare

            # An even number of turns of an odd axis is not the identity: the result is that of one.
            report.row(
                f"{name}, axis {d + 1}",
                "x".join(map(str, shape)),
                lambda: call(at(re), at(im), ints(*shape), 4, d + 1),
                lambda: re + 1j * im,
                {"a": a},
                numpy=[lambda: whole(a, d), pieces],
                octave=f"result = {name[3:]} (a, {d + 1})",
                bart=["fftshift", *(["-b"] if inverse else []), str(1 << d), "a"],
            )


def padding(report):
    shape, to = ((24, 24, 4, 2), (32, 32, 8)) if QUICK else ((192, 192, 16, 8), (256, 256, 32))
    a = noise(*shape)
    re, im = split(a)
    out_re, out_im = (np.zeros((*to, shape[3]), np.float32, **F) for _ in range(2))
    call, target = kernel("_Z11TS_zero_pad"), [ctypes.c_double(n) for n in to]
    first = [(m - n + 1) // 2 for n, m in zip(shape, to)]
    inside = tuple(slice(f, f + n) for f, n in zip(first, shape))
    spare = [(f, m - n - f) for f, n, m in zip(first, shape, to)] + [(0, 0)]
    y = np.empty((*to, shape[3]), np.complex64, **F)

    def ours():
        out_re.fill(0), out_im.fill(0)
        call(at(re), at(im), 4, ints(*shape), *target, at(out_re), at(out_im))

    def assign():
        y.fill(0)
        y[inside] = a
        return y

    where = ", ".join(f"{s.start + 1}:{s.stop}" for s in inside)
    report.row(
        "TS_zero_pad",
        "zeros included",
        ours,
        lambda: out_re + 1j * out_im,
        {"a": a},
        numpy=[assign, lambda: np.pad(a, spare)],
        octave=f"result = complex (zeros ({list(y.shape)}, 'single'));" f" result({where}, :) = a",
        bart=["resize", "-c", *(str(w) for d in range(3) for w in (d, to[d])), "a"],
    )


def windows(shape, strength):
    """Product of the ringing filter's windows along the first three axes."""
    w = np.ones((1, 1, 1, 1), np.float32)
    for d, n in enumerate(shape[:3]):
        half = n * np.pi / np.arccos((1 - strength - 0.54) / 0.46)
        line = 0.54 + 0.46 * np.cos(2 * np.pi * (np.arange(n) - n // 2) / half)
        w = w * line.astype(np.float32).reshape([-1 if k == d else 1 for k in range(4)])
    return w


def combinations(report):
    shape = (32, 32, 2, 4) if QUICK else (192, 192, 16, 16)
    a, dims, data = noise(*shape), ints(*shape, *[1] * 6), "x".join(map(str, shape))
    re, im = split(a)
    out, out_im = (np.zeros(shape[:3], np.float32, **F) for _ in range(2))
    outdims = ints(*shape[:3], *[1] * 7)
    sos, pcsos = kernel("_Z14TS_perform_sos"), kernel("_Z16TS_perform_pcsos")

    def sum_of_squares():
        out.fill(0)
        sos(at(re), at(im), 4, dims, 4, at(out), outdims)

    report.row(
        "TS_perform_sos",
        data,
        sum_of_squares,
        lambda: out,
        {"a": a},
        numpy=[
            lambda: np.sqrt((a.real**2 + a.imag**2).sum(3)),
            lambda: np.linalg.norm(a, axis=3),
            lambda: np.sqrt(np.einsum("xyzc,xyzc->xyz", a, a.conj()).real),
        ],
        octave="result = sqrt (sum (real (a) .^ 2 + imag (a) .^ 2, 4))",
        bart=["rss", "8", "a"],
    )

    def with_phase():
        s = (np.abs(a) * a).sum(3)
        return np.sqrt((a.real**2 + a.imag**2).sum(3)) * s / np.abs(s)

    report.row(
        "TS_perform_pcsos",
        data,
        lambda: pcsos(at(re), at(im), 10, dims, 4, at(out), at(out_im), outdims),
        lambda: out + 1j * out_im,
        {"a": a},
        numpy=[with_phase],
        octave="s = sum (abs (a) .* a, 4);" " result = sqrt (sum (real (a) .^ 2 + imag (a) .^ 2, 4)) .* s ./ abs (s)",
    )

    w = np.asarray(windows(shape, 0.01), **F)
    weighted, wide = a.copy(order="F"), w.repeat(2, 0)
    pairs = weighted.ravel("K").view(np.float32).reshape(2 * shape[0], *shape[1:], order="F")
    strength, width = (ctypes.c_double * 3)(0.01, 0.01, 0.01), ints(*shape[:3])
    call = kernel("_Z17TS_ringing_filter")

    def in_place():
        np.multiply(pairs, wide, out=pairs)
        return weighted

    report.row(
        "TS_ringing_filter",
        data,
        lambda: call(at(re), at(im), 4, dims, strength, width),
        lambda: re + 1j * im,
        {"a": a, "w": w},
        numpy=[in_place, lambda: a * w],
        octave="result = a .* w",
        bart=["fmac", "a", "w"],
    )


def gateway(report):
    shape = (32, 32, 2, 4) if QUICK else (192, 192, 8, 16)
    first, last = -(shape[1] // 6), shape[1] // 2 - 1
    a, data = noise(*shape), "x".join(map(str, shape)) + ", by the package"
    weights, (low, high) = homodyne.calculate_filter(shape[1], (first, last))
    w = weights.reshape(1, -1, 1, 1)
    ours = a.copy(order="F")

    def restored():
        ours[...] = a
        return homodyne.filter(ours, ky=(first, last), inplace=True, threads=1)

    def multiplied():
        ours[...] = a
        centre = ours[:, low : high + 1].copy(order="F")
        np.multiply(ours, w, out=ours)
        return ours, centre

    report.row(
        "homodyne filter",
        data,
        restored,
        lambda: ours,
        {"a": a, "w": w},
        numpy=[lambda: multiplied()[0]],
        octave=f"c = a(:, {low + 1}:{high + 1}, :, :); result = a .* w",
    )
    b = noise(*shape, seed=2)

    def quotient():
        return (a * b.conj() / np.abs(b)).real.astype(np.complex64)

    def by_parts():
        along = a.real * b.real + a.imag * b.imag
        return (along / np.hypot(b.real, b.imag)).astype(np.complex64)

    def package():
        return homodyne.multiply(a, b, threads=1)

    report.row(
        "homodyne multiply",
        data,
        package,
        package,
        {"a": a, "b": b},
        numpy=[quotient, by_parts],
        octave="result = complex (real (a .* conj (b) ./ abs (b)))",
    )


def aliases(n):
    """The two full lines of each folded line at R = 2, in our order."""
    f = np.arange(n // 2)
    up = f + n // 4
    return np.where(up >= n // 2, up - n // 2, up), np.where(up >= n // 2, up, up + n // 2)


def unfolding_matrices(maps, n):
    """Closed form for two aliases, without noise correlation: (x, folded line, alias, coil)."""
    p, q = (maps[:, lines, 0] for lines in aliases(n))
    a, b = (np.einsum("xyc,xyc->xy", s.conj(), s).real[..., None] for s in (p, q))
    c = np.einsum("xyc,xyc->xy", p.conj(), q)[..., None]
    det = a * b - np.abs(c) ** 2
    return np.stack([(b * p.conj() - c * q.conj()) / det, (a * q.conj() - c.conj() * p.conj()) / det], 2)


def sense(report):
    n, coils = (32, 4) if QUICK else (192, 16)
    maps, lines = noise(n, n, 1, coils), aliases(n)
    maps.imag = np.random.default_rng(7).random(maps.shape) - 0.5
    re, im = split(maps)
    octave = (
        f"f = mod ((0:{n // 2 - 1}) + {n // 4}, {n // 2}) + 1; g_ = f + {n // 2};"
        " p = s(:, f, 1, :); q = s(:, g_, 1, :);"
        " A = sum (abs (p) .^ 2, 4); B = sum (abs (q) .^ 2, 4); C = sum (conj (p) .* q, 4);"
        " D = A .* B - abs (C) .^ 2; U = (B .* conj (p) - C .* conj (q)) ./ D;"
        " V = (A .* conj (q) - conj (C) .* conj (p)) ./ D;"
    )
    unfold_lines = (
        f"result = complex (zeros ({n}, {n}, 1, 1, v, 'single')); for k = 1:v;"
        " result(:, f, 1, 1, k) = sum (U .* g(:, :, :, :, k), 4);"
        " result(:, g_, 1, 1, k) = sum (V .* g(:, :, :, :, k), 4); end"
    )
    recon, data = kernel("_Z14TS_sense_recon"), f"{n} x {n}, {coils} coils, R = 2"
    for volumes in (1, 3 if QUICK else 40):
        folded = noise(n, n // 2, 1, coils, volumes, seed=3)
        fold = split(folded)
        out = [np.zeros((n, n, 1, 1, volumes), np.float32, **F) for _ in range(2)]
        dims, outdims = ints(*folded.shape), ints(n, n, 1, 1, volumes)

        def ours():
            return recon(
                at(fold[0]),
                at(fold[1]),
                5,
                dims,
                at(re),
                at(im),
                4,
                ints(*maps.shape),
                None,
                None,
                2,
                ints(coils, coils),
                ints(n, n, 1),
                None,
                None,
                0,
                None,
                None,
                None,
                0,
                None,
                ctypes.c_double(1),
                at(out[0]),
                at(out[1]),
                outdims,
            )

        def numpy(apply):
            y, u = np.empty((n, n, 1, 1, volumes), np.complex64, **F), unfolding_matrices(maps, n)
            for v in range(volumes):
                y[:, lines, 0, 0, v] = apply(u, folded[:, :, 0, :, v]).transpose(0, 2, 1)
            return y

        report.row(
            "TS_sense_recon",
            f"{data}, {volumes} volume{'s' * (volumes > 1)}",
            ours,
            lambda: out[0] + 1j * out[1],
            {"s": maps, "g": folded},
            tolerance=1e-3,
            numpy=[
                lambda: numpy(lambda u, g: np.einsum("xfkc,xfc->xfk", u, g)),
                lambda: numpy(lambda u, g: (u @ g[..., None])[..., 0]),
            ],
            octave=f"v = {volumes}; {octave} {unfold_lines}",
        )
    sense_steps(report, maps, folded[..., 0], octave, data)


def sense_steps(report, maps, folded, octave, data):
    """The two steps, called as C++ calls them: Eigen's arrays are pointers with extents."""
    n, coils = maps.shape[0], maps.shape[3]
    (re, im), (fold_re, fold_im), lines = split(maps), split(folded), aliases(n)
    factors = np.zeros(n * n * coils, np.complex128)
    grid, of_maps, of_fold, full = (
        np.array(v, np.int32) for v in ([n, n // 2, 1, 2 * coils], maps.shape, folded.shape, [n, n, 1])
    )
    psi, out = np.eye(coils, dtype=np.complex128), [np.zeros((n, n), np.float32, **F) for _ in "ri"]
    edges, edges_z = ((ctypes.c_float * 2)(-1, -1) for _ in "yz")
    find, apply = kernel("_Z23get_combination_factors"), kernel("_Z6unfold")
    reduction, none = (ctypes.c_float * 3)(1, 2, 1), np.zeros(0, np.float32)

    def ours():
        find(
            at(re),
            at(im),
            eigen(of_maps),
            eigen(psi),
            reduction,
            ctypes.c_double(0),
            eigen(none),
            eigen(factors),
            eigen(of_fold),
            eigen(full),
            edges,
            edges_z,
        )

    def result():
        return factors.reshape((n, n // 2, 2, coils), **F)

    report.row(
        "get_combination_factors",
        data,
        ours,
        result,
        {"s": maps},
        tolerance=1e-3,
        numpy=[lambda: unfolding_matrices(maps, n)],
        octave=octave + " result = cat (3, U, V)",
    )
    u = unfolding_matrices(maps, n)

    def numpy():
        y = np.empty((n, n), np.complex64, **F)
        y[:, lines] = np.einsum("xfkc,xfc->xfk", u, folded[:, :, 0]).transpose(0, 2, 1)
        return y

    report.row(
        "unfold",
        data,
        lambda: apply(
            at(fold_re),
            at(fold_im),
            *map(eigen, (of_fold, factors, grid, of_maps, full)),
            edges,
            edges_z,
            at(out[0]),
            at(out[1]),
        ),
        lambda: out[0] + 1j * out[1],
        {"u": u, "g": folded},
        tolerance=1e-3,
        numpy=[numpy],
        octave=f"f = mod ((0:{n // 2 - 1}) + {n // 4}, {n // 2}) + 1;"
        f" result = complex (zeros ({n}, 'single'));"
        " result(:, f) = sum (u(:, :, 1, :) .* g, 4);"
        f" result(:, f + {n // 2}) = sum (u(:, :, 2, :) .* g, 4)",
    )


def geometry(report):
    rng, n = np.random.default_rng(5), 2000 if QUICK else 100000
    x, y, z = (rng.uniform(-250, 250, n).astype(np.float32) for _ in range(3))
    cy, cx, cz = (rng.uniform(-1e-3, 1e-3, shape).astype(np.float32) for shape in ((14, 12), (14, 12), (17, 1)))
    cy[1, 1] = cx[1, 1] = cz[1, 0] = 1
    degree = np.array([m for m in range(1, 12) for _ in range(m, 14)] + [0] * 16)
    order = np.array([k for m in range(1, 12) for k in range(m, 14)] + list(range(1, 17)))
    sign = np.where(degree % 2, -1, 1).astype(np.float32)
    table = np.zeros((10000, 12, 17), np.float32)
    fill = kernel("_Z20create_plgndr_lookup")
    fill(17, 12, 10000, at(table))
    packed = np.ascontiguousarray(table[:, degree, order] * sign)
    weights = np.zeros((3, 104), np.float32)
    weights[0, :88], weights[1, :88], weights[2, 88:] = (
        c[order[s], degree[s]] for c, s in ((cx, slice(88)), (cy, slice(88)), (cz, slice(88, 104)))
    )
    out, call = [np.zeros(n, np.float32) for _ in range(3)], kernel("_Z22TS_geometry_correction")

    def numpy():
        r = np.sqrt(x * x + y * y + z * z)
        c, phi = z / r, np.arctan2(y, x)
        terms = packed[((c + 1) * np.float32(9999 / 2)).astype(int)]
        pole = np.abs(c) >= 0.9
        terms[pole] = special.lpmv(degree, order, c[pole, None]) * sign
        terms *= ((r / 250)[:, None] ** np.arange(17))[:, order]
        angle = phi[:, None] * np.arange(12)
        return 250 * np.stack(
            [
                (terms * np.cos(angle).astype(np.float32)[:, degree]) @ weights[0],
                (terms * np.sin(angle).astype(np.float32)[:, degree]) @ weights[1],
                terms @ weights[2],
            ],
            1,
        )

    octave = (
        "r = sqrt (x .^ 2 + y .^ 2 + z .^ 2); c = z ./ r; phi = atan2 (y, x);"
        " t = T(floor ((c + 1) * (9999 / 2)) + 1, :); e = abs (c) >= 0.9;"
        " for n = 1:16; L = legendre (n, c(e))'; k = o == n;"
        " t(e, k) = L(:, d(k) + 1) .* s(k); end;"
        " t .*= ((r / 250) .^ (0:16))(:, o + 1); a = phi .* (0:11);"
        " result = 250 * [(t .* cos(a)(:, d + 1)) * w(1, :)',"
        " (t .* sin(a)(:, d + 1)) * w(2, :)', t * w(3, :)']"
    )
    # Cosines that round to the other side of a sample of the table take the neighbouring row.
    report.row(
        "TS_geometry_correction",
        f"{n} points, random",
        lambda: call(*map(at, (x, y, z, *out)), n, *map(at, (cy, cx, cz)), ctypes.c_float(250)),
        lambda: np.stack(out, 1),
        {
            "x": x[:, None],
            "y": y[:, None],
            "z": z[:, None],
            "T": packed,
            "w": weights,
            "o": order[None].astype(np.float32),
            "d": degree[None].astype(np.float32),
            "s": sign[None],
        },
        tolerance=2e-3,
        numpy=[numpy],
        octave=octave,
    )
    orders, degrees = np.arange(17), np.arange(12)[:, None]
    xs = np.clip(np.arange(10000) * np.float32(2 / 9999) - 1, -1, 1).astype(np.float32)
    report.row(
        "create_plgndr_lookup",
        "17 x 12, 10^4 samples",
        lambda: fill(17, 12, 10000, at(table)),
        lambda: table,
        {},
        tolerance=1e-4,
        numpy=[lambda: special.lpmv(degrees, orders, xs[:, None, None]).astype(np.float32)],
    )


def helpers(report):
    """The routines for single numbers, by the package, which calls them in a loop."""
    n = 1000 if QUICK else 100000
    rng = np.random.default_rng(6)
    x, y, z = (rng.uniform(-1, 1, n).astype(np.float32) for _ in range(3))
    volume = np.asfortranarray(rng.random((32, 32, 32), np.float32))
    places = rng.uniform(0, 30, (3, n)).astype(np.float32)
    whole, a = np.arange(n, dtype=np.int32), noise(n)
    v = (x + 1) * 3 + np.float32(0.1)
    arrays = {
        "x": x[:, None],
        "y": y[:, None],
        "z": z[:, None],
        "v": v[:, None],
        "volume": volume,
        "p": places.T,
        "i": whole[:, None].astype(np.float64),
        "c": a[:, None],
    }

    def polar():
        r = np.sqrt(x.astype(float) ** 2 + y.astype(float) ** 2 + z.astype(float) ** 2)
        r = r.astype(np.float32)
        return np.stack([r, np.arccos(z / r), np.mod(np.arctan2(y, x), 2 * np.pi)], -1)

    def power():
        return (v / np.float32(1.5)) ** np.float32(13)

    rows = {
        "plgndr": (lambda: ctessel.plgndr(13, 5, x), [lambda: special.lpmv(5, 13, x)], "legendre (13, x)(6, :)'", 1e-3),
        "getRadiusThetaPhi": (
            lambda: np.stack(ctessel.radius_theta_phi(x, y, z), -1),
            [polar],
            "[sqrt(x .^ 2 + y .^ 2 + z .^ 2), acos(z ./ sqrt (x .^ 2 + y .^ 2 + "
            "z .^ 2)), mod(atan2 (y, x), 2 * pi)]",
            1e-5,
        ),
        "radialFactor": (lambda: ctessel.radial_factor(v, 1.5, 13), [power], "(v / 1.5) .^ 13", 1e-5),
        "funcYS": (
            lambda: ctessel.func_ys(13, 5, v, x, 1.5, y),
            [lambda: np.sin(5 * x) * power() * y],
            "sin (5 * x) .* (v / 1.5) .^ 13 .* y",
            1e-5,
        ),
        "funcYC": (
            lambda: ctessel.func_yc(13, 5, v, x, 1.5, y),
            [lambda: np.cos(5 * x) * power() * y],
            "cos (5 * x) .* (v / 1.5) .^ 13 .* y",
            1e-5,
        ),
        "TS_linspace": (
            lambda: ctessel.linspace(-1, 2, n),
            [lambda: np.linspace(-1, 2, n, dtype=np.float32)],
            f"linspace (single (-1), single (2), {n})'",
            1e-5,
        ),
        "TS_linear_interpolation, real": (
            lambda: ctessel.linear_interpolation(volume, *places),
            [lambda: ndimage.map_coordinates(volume, places, order=1)],
            "interp3 (volume, p(:, 2) + 1, p(:, 1) + 1, p(:, 3) + 1)",
            1e-5,
        ),
        "TS_round": (
            lambda: ctessel.round(v),
            [lambda: np.floor(v + np.float32(0.5)).astype(np.int32)],
            "int32 (floor (v + 0.5))",
            0,
        ),
        "TS_find, int": (
            lambda: np.array([ctessel.find(whole, n - 1)]),
            [lambda: np.flatnonzero(whole == n - 1)[:1], lambda: np.array([np.argmax(whole == n - 1)])],
            f"find (i == {n - 1}, 1) - 1",
            0,
        ),
        "TS_SA": (
            lambda: np.array([ctessel.sa(a)]),
            [lambda: np.array([np.linalg.norm(a) / np.sqrt(n)])],
            f"norm (c) / sqrt ({n})",
            1e-5,
        ),
    }
    for name, (ours, numpy, octave, tolerance) in rows.items():
        report.row(name, f"{n} values, by the package", ours, ours, arrays, tolerance, numpy, f"result = {octave}")


# ---- The Python package ----


def operations(report, shape, order, label):
    data, low = (np.array(noise(*shape, seed=s), order=order) for s in (1, 2))
    target = [n * 3 // 2 for n in shape[:3]]
    spare = [((m - n + 1) // 2, (m - n) // 2) for n, m in zip(shape, target)]
    w = windows(shape, 0.9)
    ky = (-(shape[1] // 6), shape[1] // 2 - 1)
    v, (low_line, high_line) = homodyne.calculate_filter(shape[1], ky)
    v = v.reshape(1, -1, 1, 1)
    for name, ours, numpy, tolerance in [
        (
            "fftshift, three axes",
            lambda: ctessel.fftshift(data, threads=1),
            lambda: np.fft.fftshift(data, (0, 1, 2)),
            0,
        ),
        ("zero_pad", lambda: ctessel.zero_pad(data, target, threads=1), lambda: np.pad(data, [*spare, (0, 0)]), 0),
        ("ringing_filter", lambda: ctessel.ringing_filter(data, 0.9, threads=1), lambda: data * w, 1e-5),
        ("sos", lambda: ctessel.sos(data, threads=1), lambda: np.sqrt((data.real**2 + data.imag**2).sum(3)), 1e-5),
        (
            "pcsos",
            lambda: ctessel.pcsos(data, threads=1),
            lambda: np.linalg.norm(data, axis=3) * np.exp(1j * np.angle((np.abs(data) * data).sum(3))),
            1e-5,
        ),
        (
            "homodyne.filter",
            lambda: homodyne.filter(data, ky=ky, threads=1)[0],
            lambda: (data * v, data[:, low_line : high_line + 1].copy())[0],
            1e-5,
        ),
        (
            "homodyne.multiply",
            lambda: homodyne.multiply(data, low, threads=1),
            lambda: (data * low.conj() / np.abs(low)).real.astype(np.complex64),
            1e-5,
        ),
    ]:
        report.row(f"package: {name}", label, ours, ours, {}, tolerance, [numpy])


def package(report):
    for order in "FC":
        operations(report, (32, 32, 2, 2) if QUICK else (192, 160, 8, 8), order, f"{order} order")
    operations(report, (8, 8, 1, 2), "F", "one small call")


if __name__ == "__main__":
    REPORT = Report()
    for section in (shifts, padding, combinations, gateway, sense, geometry, helpers, package):
        section(REPORT)
    json.dump(REPORT.rows, sys.stdout, indent=1)
