#!/usr/bin/python3
"""Times of the array routines beside NumPy, GNU Octave and BART, as a table of ratios.

    bench/peers.py [PROGRAM]      default build/bench/bench/bench_arrays

Same extents as the benchmarks, complex single precision, one thread, whole operations in memory, the
shortest of several runs. NumPy and Octave return new arrays, as they do for their users; ours work
in place or into an array that was touched before. BART works on files, here in memory: its time is that
of a process on the array less that of one on a single sample, so it includes mapping the files and
writing the result to a new one. What is missing is skipped.
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

os.environ["OMP_NUM_THREADS"] = "1"
PROGRAM = sys.argv[1] if len(sys.argv) > 1 else "build/bench/bench/bench_arrays"
SHIFT, PAD_FROM, PAD_TO, COILS = (256, 256, 64, 8), (192, 192, 32, 8), (256, 256, 64, 8), (256, 256, 32, 16)


def shortest(f, runs=5):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        f()
        times.append(time.perf_counter() - start)
    return min(times)


def ours():
    out = subprocess.run(
        [PROGRAM, "--benchmark_format=json", "--benchmark_filter=shift/dim:./n:256|zero_pad|sos_of_read"],
        check=True, capture_output=True, text=True).stdout
    names = {"shift/dim:1": "fftshift 1", "shift/dim:2": "fftshift 2", "shift/dim:3": "fftshift 3",
             "zero_pad": "zero_pad", "sos_of_read": "sum of squares"}
    return {label: b["real_time"] / 1e3 for b in json.loads(out)["benchmarks"]
            for start, label in names.items() if b["name"].startswith(start)}


def numpy_times():
    import numpy as np

    a = np.ones(SHIFT, np.complex64, order="F")
    times = {f"fftshift {d + 1}": shortest(lambda d=d: np.fft.fftshift(a, d)) for d in range(3)}
    a = np.ones(PAD_FROM, np.complex64, order="F")
    spare = [((m - n + 1) // 2, (m - n) // 2) for n, m in zip(PAD_FROM, PAD_TO)]
    times["zero_pad"] = shortest(lambda: np.pad(a, spare))
    a = np.ones(COILS, np.complex64, order="F")
    times["sum of squares"] = shortest(lambda: np.sqrt((a.real**2 + a.imag**2).sum(3)))
    return times


def octave_times():
    code = (f"a = complex(ones({list(SHIFT)}, 'single'), 1); for d = 1:3, t = Inf; for i = 1:5, tic; b = fftshift(a, d);"
            " t = min(t, toc); end, printf('%g\\n', t); end\n"
            f"a = complex(ones({list(COILS)}, 'single'), 1); t = Inf; for i = 1:5, tic;"
            " b = sqrt(sum(real(a) .^ 2 + imag(a) .^ 2, 4)); t = min(t, toc); end, printf('%g\\n', t);")
    out = subprocess.run(["octave-cli", "--norc", "--no-history", "--quiet", "--eval", code],
                         check=True, capture_output=True, text=True).stdout
    return dict(zip(["fftshift 1", "fftshift 2", "fftshift 3", "sum of squares"], map(float, out.split())))


def bart_times():
    import numpy as np

    with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        def run(*command):
            return shortest(lambda: subprocess.run(["bart", *command, "in", "out"], cwd=folder, check=True,
                                                   stdout=subprocess.DEVNULL))

        def array(extents):
            np.ones(int(np.prod(extents)), np.complex64).tofile(f"{folder}/in.cfl")
            with open(f"{folder}/in.hdr", "w") as header:
                header.write("# Dimensions\n" + " ".join(map(str, extents)) + "\n")

        array((1, 1, 1, 1))
        idle = run("fftshift", "1")
        array(SHIFT)
        times = {f"fftshift {d + 1}": run("fftshift", str(1 << d)) - idle for d in range(3)}
        array(PAD_FROM)
        times["zero_pad"] = run("resize", "-c", "0", "256", "1", "256", "2", "64") - idle
        array(COILS)
        times["sum of squares"] = run("rss", "8") - idle
    return times


def main():
    if not os.path.exists(PROGRAM):
        sys.exit(f"{PROGRAM} is not there; build it: cmake --preset bench && cmake --build --preset bench")
    mine = ours()
    peers = {}
    for name, program, f in [("NumPy", sys.executable, numpy_times), ("Octave", "octave-cli", octave_times),
                             ("BART", "bart", bart_times)]:
        try:
            if not shutil.which(program):
                raise ImportError(f"{program} is not installed")
            peers[name] = f()
        except ImportError as missing:
            print(f"{name} skipped: {missing}")
    print(f"{'peer time / ours':16}" + "".join(f"{name:>9}" for name in peers))
    for label in mine:
        ratios = (peers[p].get(label) for p in peers)
        print(f"{label:16}" + "".join(f"{r / mine[label]:9.1f}" if r else f"{'-':>9}" for r in ratios))


if __name__ == "__main__":
    main()
