"""Peers run beside our routines: NumPy here, GNU Octave and BART as processes of their own."""

import ctypes
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/bench")
QUICK = "CTESSEL_QUICK" in os.environ
sys.path.insert(0, f"{BUILD}/package")

FOLDER = tempfile.TemporaryDirectory(dir="/dev/shm")
F = dict(order="F")


# ---- Ours: the plain functions of the library, on arrays of real and of imaginary parts ----


def kernel(prefix):
    """The routine whose mangled name starts so."""
    names = subprocess.run(
        ["nm", "-D", "--defined-only", f"{BUILD}/recon/libcTessel.so"], check=True, capture_output=True, text=True
    ).stdout.split()
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
            [
                "octave-cli",
                "--norc",
                "--no-history",
                "--quiet",
                "--eval",
                "crash_dumps_octave_core (false);" " while ischar (l = fgetl (stdin)) eval (l); fflush (stdout); end",
            ],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )

    def __call__(self, code):
        # An empty line after it: reading a line looks one character ahead.
        timed = f"t_ = cputime; {code}; printf ('%.9g\\n', cputime - t_);\n"
        print(timed, file=self.process.stdin, flush=True)
        answer = self.process.stdout.readline()
        if not answer:
            sys.exit(f"Octave stopped at: {code}")
        return float(answer)

    def put(self, **arrays):
        for name, a in arrays.items():
            np.asarray(a, **F).ravel("F").tofile(f"{FOLDER.name}/octave")
            kind = "double" if a.dtype == np.float64 else "single"
            self(f"f_ = fopen ('{FOLDER.name}/octave');" f" x_ = fread (f_, Inf, '{kind}=>{kind}'); fclose (f_)")
            if a.dtype.kind == "c":
                self("x_ = complex (x_(1:2:end), x_(2:2:end))")
            self(f"{name} = reshape (x_, {list(a.shape) + [1, 1]}); clear x_")

    def get(self, name, like):
        self(
            f"f_ = fopen ('{FOLDER.name}/octave', 'w'); fwrite (f_, real ({name})(:), 'double');"
            f" fwrite (f_, imag ({name})(:), 'double'); fclose (f_)"
        )
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
        len(ratios) < most and time.monotonic() - start < (0 if QUICK else budget)
    ):
        mine = ours()
        ratios.append(theirs() / mine)
    return statistics.median(ratios)


class Report:
    def __init__(self):
        self.rows = []
        self.octave, self.bart = Octave(), Bart()

    def check(self, who, routine, result, theirs, tolerance):
        error = np.max(np.abs(result - theirs)) / np.max(np.abs(result))
        if not error <= tolerance:
            sys.exit(f"{who} and {routine} differ by {error:.1e} of the largest value")

    def add(self, routine, data, peer, ratio):
        self.rows.append({"routine": routine, "data": data, "peer": peer, "ratio": ratio})
        print(f"{routine:32} {data:28} {peer:8} {ratio:8.2f}", file=sys.stderr)

    def row(self, routine, data, ours, result, arrays, tolerance=2e-6, numpy=(), octave=None, bart=None):
        """Compare, then time. `result` makes an array of what `ours` left behind.

        Octave finds `arrays` under their names and is to leave its answer in `result`; BART gets
        the words of a command that lacks its last one, the output.
        """
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
        if octave:
            self.octave.put(**arrays)
            self.octave(octave)
            self.check("Octave", routine, expected, self.octave.get("result", expected), tolerance)
            many = f"for k = 1:{repeats}; {octave}; end"
            self.add(routine, data, "Octave", in_turns(mine, lambda: self.octave(many) / repeats))
            self.octave("clear -x t_")
        if bart:
            self.bart.put(**arrays)
            self.bart(bart, expected.shape)
            self.check("BART", routine, expected, self.bart.get("out", expected), tolerance)
            self.add(routine, data, "BART", in_turns(mine, lambda: self.bart(bart, expected.shape)))
