#!/usr/bin/python3
"""Times of NumPy, SciPy, GNU Octave and BART over ours, in one run on the same data, as JSON.

    bench/peers.py build/bench > peers.json        BUILD holds recon/libcTessel.so, package/ctessel

A routine and a peer take turns; the median of the turns' ratios counts, in processor time, on one
thread. Before that their results are compared. Complex single precision, first axis fastest. What a
peer returns in new arrays costs it no fresh pages: freed memory is kept. NumPy may have several
formulations, of which the fastest counts. BART works on files, here in memory; what is taken off
its time is that of a `bart zeros` process, which maps and fills an output of the same size.
"""

import ctypes
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

KEEP = {"OMP_NUM_THREADS": "1", "OPENBLAS_NUM_THREADS": "1", "MALLOC_MMAP_MAX_": "0",
        "MALLOC_TRIM_THRESHOLD_": "100000000000", "MALLOC_TOP_PAD_": "268435456"}
if any(os.environ.get(name) != value for name, value in KEEP.items()):
    os.execve(sys.executable, [sys.executable, *sys.argv], os.environ | KEEP)

import numpy as np  # noqa: E402
from scipy import ndimage, special  # noqa: E402

BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/bench")
QUICK = "CTESSEL_QUICK" in os.environ
sys.path.insert(0, f"{BUILD}/package")
import ctessel  # noqa: E402
from ctessel import _core, homodyne  # noqa: E402

FOLDER = tempfile.TemporaryDirectory(dir="/dev/shm")
F = dict(order="F")


# ---- Ours: the plain functions of the library, on arrays of real and of imaginary parts ----


def kernel(prefix):
    """The routine whose mangled name starts so."""
    names = subprocess.run(["nm", "-D", "--defined-only", f"{BUILD}/recon/libcTessel.so"],
                           check=True, capture_output=True, text=True).stdout.split()
    return getattr(LIBRARY, next(name for name in names if name.startswith(prefix)))


LIBRARY = ctypes.CDLL(f"{BUILD}/recon/libcTessel.so")


def ints(*values):
    return (ctypes.c_int * len(values))(*values)


def at(array):
    return ctypes.c_void_p(array.ctypes.data)


def eigen(array):
    """An Eigen vector or matrix on the array's memory: a pointer and the extents."""
    return (ctypes.c_ssize_t * (1 + array.ndim))(array.ctypes.data, *array.shape)


def split(a):
    return np.array(a.real, **F), np.array(a.imag, **F)


def noise(*shape, seed=1):
    rng = np.random.default_rng(seed)
    a = np.empty(shape, np.complex64, **F)
    a.real, a.imag = rng.random(shape, np.float32) + 0.5, rng.random(shape, np.float32) + 0.5
    return a


# ---- Peers ----


class Octave:
    """A running interpreter that takes a line at a time."""

    def __init__(self):
        self.process = subprocess.Popen(
            ["octave-cli", "--norc", "--no-history", "--quiet", "--eval",
             "while ischar (l = fgetl (stdin)) eval (l); fflush (stdout); end"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __call__(self, code):
        print(f"t = cputime; {code}; printf ('%.9g\\n', cputime - t);", file=self.process.stdin, flush=True)
        answer = self.process.stdout.readline()
        if not answer:
            sys.exit(f"Octave stopped at: {code}")
        return float(answer)

    def put(self, **arrays):
        for name, a in arrays.items():
            np.asarray(a, **F).ravel("F").tofile(f"{FOLDER.name}/octave")
            kind = "double" if a.dtype == np.float64 else "single"
            self(f"f = fopen ('{FOLDER.name}/octave'); x = fread (f, Inf, '{kind}=>{kind}'); fclose (f)")
            if a.dtype.kind == "c":
                self("x = complex (x(1:2:end), x(2:2:end))")
            self(f"{name} = reshape (x, {list(a.shape) + [1, 1]}); clear x")

    def get(self, name, like):
        self(f"f = fopen ('{FOLDER.name}/octave', 'w'); fwrite (f, real ({name})(:), 'double');"
             f" fwrite (f, imag ({name})(:), 'double'); fclose (f)")
        re, im = np.fromfile(f"{FOLDER.name}/octave").reshape(2, -1)
        return (re + 1j * im).reshape(like.shape, order="F")


class Bart:
    def put(self, **arrays):
        for name, a in arrays.items():
            np.asarray(a, np.complex64).ravel("F").tofile(f"{FOLDER.name}/{name}.cfl")
            with open(f"{FOLDER.name}/{name}.hdr", "w") as header:
                print("# Dimensions\n" + " ".join(map(str, a.shape)), file=header)

    def get(self, name, like):
        return np.fromfile(f"{FOLDER.name}/{name}.cfl", np.complex64).reshape(like.shape, order="F")

    def run(self, words):
        process = subprocess.Popen(["bart", *words], cwd=FOLDER.name, stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(process.pid, 0)
        if status:
            sys.exit(f"bart {' '.join(words)} failed")
        return usage.ru_utime + usage.ru_stime

    def __call__(self, words, shape):
        idle = self.run(["zeros", str(len(shape)), *map(str, shape), "idle"])
        return max(self.run([*words, "out"]) - idle, 0)


def seconds(call, repeats=1):
    start = time.thread_time()
    for _ in range(repeats):
        call()
    return (time.thread_time() - start) / repeats


def in_turns(ours, theirs, budget=2.5, least=3, most=15):
    """Median ratio of two functions that return seconds."""
    ratios, start = [], time.monotonic()
    while len(ratios) < (1 if QUICK else least) or (
            len(ratios) < most and time.monotonic() - start < (0 if QUICK else budget)):
        mine = ours()
        ratios.append(theirs() / mine)
    return statistics.median(ratios)


class Report:
    def __init__(self):
        self.rows = []
        self.octave = Octave() if shutil.which("octave-cli") else None
        self.bart = Bart() if shutil.which("bart") else None

    def check(self, who, routine, result, theirs, tolerance):
        error = np.max(np.abs(result - theirs)) / np.max(np.abs(result))
        if not error <= tolerance:
            sys.exit(f"{who} and {routine} differ by {error:.1e} of the largest value")

    def add(self, routine, data, peer, ratio):
        self.rows.append({"routine": routine, "data": data, "peer": peer, "ratio": ratio})
        print(f"{routine:32} {data:28} {peer:8} {ratio:8.2f}", file=sys.stderr)

    def row(self, routine, data, ours, result, arrays, tolerance=2e-6, numpy=(), octave=None, bart=None):
        """`result` makes an array of what `ours` left; peers find `arrays` under their names."""
        ours()
        expected = np.array(result(), **F)
        took = max(seconds(ours), 1e-7)
        repeats = max(1, int(1e-3 / took))
        mine = lambda: seconds(ours, repeats)  # noqa: E731
        if numpy:
            for f in numpy:
                self.check("NumPy", routine, expected, f(), tolerance)
            ratios = [in_turns(mine, lambda: seconds(f, repeats)) for f in numpy]
            self.add(routine, data, "NumPy", min(ratios))
        if octave and self.octave:
            self.octave.put(**arrays)
            self.octave(octave)
            self.check("Octave", routine, expected, self.octave.get("y", expected), tolerance)
            many = f"for k = 1:{repeats}; {octave}; end"
            self.add(routine, data, "Octave", in_turns(mine, lambda: self.octave(many) / repeats))
            self.octave("clear -all")
        if bart and self.bart:
            self.bart.put(**arrays)
            self.bart(bart, expected.shape)
            self.check("BART", routine, expected, self.bart.get("out", expected), tolerance)
            self.add(routine, data, "BART", in_turns(mine, lambda: self.bart(bart, expected.shape)))


# ---- Rows ----


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
            report.row(f"{name}, axis {d + 1}", "x".join(map(str, shape)),
                       lambda: call(at(re), at(im), ints(*shape), 4, d + 1), lambda: re + 1j * im, {"a": a},
                       numpy=[lambda: whole(a, d), pieces], octave=f"y = {name[3:]} (a, {d + 1})",
                       bart=["fftshift", *(["-b"] if inverse else []), str(1 << d), "a"])


def padding(report):
    shape, to = ((24, 24, 4, 2), (32, 32, 8)) if QUICK else ((192, 192, 16, 8), (256, 256, 32))
    a = noise(*shape)
    re, im = split(a)
    out_re, out_im = np.empty((2, *to[::-1], shape[3])[:1] + to + shape[3:], np.float32, **F)
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
    report.row("TS_zero_pad", "zeros included", ours, lambda: out_re + 1j * out_im, {"a": a},
               numpy=[assign, lambda: np.pad(a, spare)],
               octave=f"y = complex (zeros ({list(y.shape)}, 'single')); y({where}, :) = a",
               bart=["resize", "-c", *(str(w) for d in range(3) for w in (d, to[d])), "a"])


def window(n, strength):
    half = n * np.pi / np.arccos((1 - strength - 0.54) / 0.46)
    return (0.54 + 0.46 * np.cos(2 * np.pi * (np.arange(n) - n // 2) / half)).astype(np.float32)


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

    report.row("TS_perform_sos", data, sum_of_squares, lambda: out, {"a": a},
               numpy=[lambda: np.sqrt((a.real**2 + a.imag**2).sum(3)), lambda: np.linalg.norm(a, axis=3),
                      lambda: np.sqrt(np.einsum("xyzc,xyzc->xyz", a, a.conj()).real)],
               octave="y = sqrt (sum (real (a) .^ 2 + imag (a) .^ 2, 4))", bart=["rss", "8", "a"])

    def with_phase():
        s = (np.abs(a) * a).sum(3)
        return np.sqrt((a.real**2 + a.imag**2).sum(3)) * s / np.abs(s)

    report.row("TS_perform_pcsos", data,
               lambda: pcsos(at(re), at(im), 10, dims, 4, at(out), at(out_im), outdims),
               lambda: out + 1j * out_im, {"a": a}, numpy=[with_phase],
               octave="s = sum (abs (a) .* a, 4); y = sqrt (sum (real (a) .^ 2 + imag (a) .^ 2, 4)) .* s ./ abs (s)")

    weights = [window(n, 0.01).reshape([-1 if k == d else 1 for k in range(4)]) for d, n in enumerate(shape[:3])]
    w = np.asarray(weights[0] * weights[1] * weights[2], **F)
    pairs, wide = a.copy(order="F").ravel("K").view(np.float32).reshape(2 * shape[0], *shape[1:], **F), w.repeat(2, 0)
    strength, width, call = (ctypes.c_double * 3)(0.01, 0.01, 0.01), ints(*shape[:3]), kernel("_Z17TS_ringing_filter")
    same = [False]  # in place: compared once, then left to run

    def in_place():
        np.multiply(pairs, wide, out=pairs)
        if not same[0]:
            same[0] = True
            return pairs.ravel("K").view(np.complex64).reshape(shape, **F).copy()

    checked = in_place()
    report.row("TS_ringing_filter", data, lambda: call(at(re), at(im), 4, dims, strength, width),
               lambda: re + 1j * im, {"a": a, "w": w},
               numpy=[lambda: checked if in_place() is None else None, lambda: a * w],
               octave="y = a .* w", bart=["fmac", "a", "w"])


def gateway(report):
    shape = (32, 32, 2, 4) if QUICK else (192, 192, 8, 16)
    first, last = -shape[1] // 6, shape[1] // 2 - 1
    a, data = noise(*shape), "x".join(map(str, shape))
    weights, (low, high) = homodyne.calculate_filter(shape[1], (first, last))
    w = weights.reshape(1, -1, 1, 1)
    ours = a.copy(order="F")

    def restored():
        ours[...] = a
        return homodyne.filter(ours, ky=(first, last), inplace=True, threads=1)

    def multiplied():
        ours[...] = a
        centre = ours[:, low:high + 1].copy(order="F")
        np.multiply(ours, w, out=ours)
        return ours, centre

    report.row("homodyne filter", data + ", by the package", restored, lambda: ours, {"a": a, "w": w},
               numpy=[lambda: multiplied()[0]], octave=f"c = a(:, {low + 1}:{high + 1}, :, :); y = a .* w")
    b = noise(*shape, seed=2)

    def quotient():
        return (a * b.conj() / np.abs(b)).real.astype(np.complex64)

    def by_parts():
        return ((a.real * b.real + a.imag * b.imag) / np.hypot(b.real, b.imag)).astype(np.complex64)

    report.row("homodyne multiply", data + ", by the package", lambda: homodyne.multiply(a, b, threads=1),
               lambda: homodyne.multiply(a, b, threads=1), {"a": a, "b": b}, numpy=[quotient, by_parts],
               octave="y = complex (real (a .* conj (b) ./ abs (b)))")


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
    octave = (f"f = 0:{n // 2 - 1}; p = s(:, mod (f + {n // 4}, {n // 2}) + 1, 1, :);"
              f" q = s(:, mod (f + {n // 4}, {n // 2}) + {n // 2 + 1}, 1, :);"
              " A = sum (abs (p) .^ 2, 4); B = sum (abs (q) .^ 2, 4); C = sum (conj (p) .* q, 4);"
              " D = A .* B - abs (C) .^ 2; U = (B .* conj (p) - C .* conj (q)) ./ D;"
              " V = (A .* conj (q) - conj (C) .* conj (p)) ./ D;")
    unfold_lines = (f"y = complex (zeros ({n}, {n}, 1, 1, v)); for k = 1:v;"
                    f" y(:, mod (f + {n // 4}, {n // 2}) + 1, 1, 1, k) = sum (U .* g(:, :, :, :, k), 4);"
                    f" y(:, mod (f + {n // 4}, {n // 2}) + {n // 2 + 1}, 1, 1, k) = sum (V .* g(:, :, :, :, k), 4); end")
    recon, data = kernel("_Z14TS_sense_recon"), f"{n} x {n}, {coils} coils, R = 2"
    for volumes in (1, 3 if QUICK else 40):
        folded = noise(n, n // 2, 1, coils, volumes, seed=3)
        fold, out = split(folded), [np.zeros((n, n, 1, 1, volumes), np.float32, **F) for _ in range(2)]
        dims, outdims = ints(*folded.shape), ints(n, n, 1, 1, volumes)

        def ours():
            return recon(at(fold[0]), at(fold[1]), 5, dims, at(re), at(im), 4, ints(*maps.shape), None, None, 2,
                         ints(coils, coils), ints(n, n, 1), None, None, 0, None, None, None, 0, None,
                         ctypes.c_double(1), at(out[0]), at(out[1]), outdims)

        def numpy(apply):
            y, u = np.empty((n, n, 1, 1, volumes), np.complex64, **F), unfolding_matrices(maps, n)
            for v in range(volumes):
                y[:, lines, 0, 0, v] = apply(u, folded[:, :, 0, :, v]).transpose(0, 2, 1)
            return y

        report.row("TS_sense_recon", f"{data}, {volumes} volume{'s' * (volumes > 1)}", ours,
                   lambda: out[0] + 1j * out[1], {"s": maps, "g": folded}, tolerance=1e-3,
                   numpy=[lambda: numpy(lambda u, g: np.einsum("xfkc,xfc->xfk", u, g)),
                          lambda: numpy(lambda u, g: (u @ g[..., None])[..., 0])],
                   octave=f"v = {volumes}; {octave} {unfold_lines}")
    sense_steps(report, maps, folded[..., 0], octave, data)


def sense_steps(report, maps, folded, octave, data):
    """The two steps, called as C++ calls them: Eigen's arrays are pointers with extents."""
    n, coils = maps.shape[0], maps.shape[3]
    (re, im), (fold_re, fold_im), lines = split(maps), split(folded), aliases(n)
    factors = np.zeros(n * n * coils, np.complex128)
    grid, of_maps, of_fold, full = (np.array(v, np.int32) for v in (
        [n, n // 2, 1, 2 * coils], maps.shape, folded.shape, [n, n, 1]))
    psi, edges, out = np.eye(coils, dtype=np.complex128), ints(-1, -1), [np.zeros((n, n), np.float32, **F) for _ in "ri"]
    edges = (ctypes.c_float * 4)(-1, -1, -1, -1)
    edges_z = ctypes.byref(edges, 8)
    find, apply = kernel("_Z23get_combination_factors"), kernel("_Z6unfold")
    reduction, none = (ctypes.c_float * 3)(1, 2, 1), np.zeros(0, np.float32)

    def ours():
        find(at(re), at(im), eigen(of_maps), eigen(psi), reduction, ctypes.c_double(0), eigen(none),
             eigen(factors), eigen(of_fold), eigen(full), edges, edges_z)

    def result():
        return factors.reshape((n, n // 2, coils, 2) if False else (n, n // 2, 2, coils), **F)

    report.row("get_combination_factors", data, ours, result, {"s": maps}, tolerance=1e-3,
               numpy=[lambda: unfolding_matrices(maps, n)],
               octave=octave + " y = cat (3, U, V)")
    u = unfolding_matrices(maps, n)

    def numpy():
        y = np.empty((n, n), np.complex64, **F)
        y[:, lines] = np.einsum("xfkc,xfc->xfk", u, folded[:, :, 0]).transpose(0, 2, 1)
        return y

    report.row("unfold", data,
               lambda: apply(at(fold_re), at(fold_im), eigen(of_fold), eigen(factors), eigen(grid), eigen(of_maps),
                             eigen(full), edges, edges_z, at(out[0]), at(out[1])),
               lambda: out[0] + 1j * out[1], {"u": u, "g": folded}, tolerance=1e-3, numpy=[numpy],
               octave=f"f = mod ((0:{n // 2 - 1}) + {n // 4}, {n // 2}); g1 = permute (g, [1 2 3 4]);"
               f" y = complex (zeros ({n})); y(:, f + 1) = sum (u(:, :, 1, :) .* g1, 4);"
               f" y(:, f + {n // 2 + 1}) = sum (u(:, :, 2, :) .* g1, 4)")
