#!/usr/bin/python3
"""Report of a benchmark run: tables, plots, and what falls short.

    bench/report.py BUILD OUTPUT        reads BUILD/kernels.json and BUILD/peers.json

Writes OUTPUT/report.md, OUTPUT/report.json and a PNG plot for every sweep.
"""

import json
import os
import platform
import re
import subprocess
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
import scipy  # noqa: E402
from tables import growth_cell, number, pivot, table  # noqa: E402

HOW = """\
Times of others over ours: above 1, ours is faster. Both sides take turns, in processor time on
one thread; a ratio is the median of the turns' ratios, and results were compared before
(`bench/ratio.h`, `bench/peers.py`). Ratios alone are given: seconds on a shared machine mean
nothing elsewhere.

- **of limit**: the least that the routine must do, over its own time. memcpy: every byte that
  must be read and written, copied between two arrays; in-place pass: as many bytes read, changed
  and written where they are, for routines that work in place, as memcpy touches twice the memory
  and would flatter; read, memset: bytes read or written; multiply-add: the products and sums of
  the formulas at this processor's peak for single (f) or double (d) precision, products not fused
  into sums. Of several limits the slowest counts.
- **x naive**: the naive loops that the tests compare with.
- **scratch**: most memory held beyond inputs and outputs on one thread, measured in the
  allocator, and what the docstring in `recon/cTessel.h` makes of the same extents.
"""
NOISE = """\
Time that g-factor, standard deviation and condition add to unfolding in `ctessel::sense`, maps and
image on one grid, over that of the combination factors: at most a third.
"""
PEERS = """\
Complex single precision, one thread, first axis fastest. Ours are the library's functions called
from Python, or the Python package where it says so. NumPy (with SciPy) may have several
formulations, and the fastest counts. Memory that a peer has freed is kept, so that new results
cost it no fresh pages. BART: its process less a `bart zeros` process with the same output, which
takes away start-up and the writing of the result's pages; reading its input file, mapped from
memory, is left in. A dash: the peer has no single operation, or no short vectorised program, with
the same result.
"""
GROWTH = """\
Fitted exponent of cost against each parameter (slope of the upper half, both axes logarithmic),
and in brackets that of the limit on the same points: leaving a cache behind makes both steeper
than the work. Threads: cost on one over cost on all of them, by the shortest times on the clock;
on a machine with more load than cores this says nothing.
"""
PACKAGE = """\
Arrays in either order of memory, F (first axis fastest) or C; the small call is on 8 x 8 samples.
"""


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def machine():
    lscpu = dict(re.findall(r"^(.*?):\s+(.*)$", output_of("lscpu"), re.M))
    flags = lscpu["Flags"].split()
    return {
        "processor": f"{lscpu['Model name']}, {lscpu['CPU(s)']} cores, caches "
        + ", ".join(lscpu.get(f"{level} cache", "?") for level in ("L1d", "L2", "L3")),
        "instructions": "AVX-512" if "avx512f" in flags else "AVX2" if "avx2" in flags else "SSE2",
        "system": f"{platform.freedesktop_os_release()['PRETTY_NAME']}, Linux {platform.release()}",
        "compiler": output_of("c++", "--version").splitlines()[0] + ", -O3 -ffp-contract=off",
        "peers": f"NumPy {np.__version__}, SciPy {scipy.__version__}, "
        f"{output_of('octave-cli', '--version').splitlines()[0].replace(', version', '')}, "
        f"BART {output_of('bart', 'version')}",
        "load": f"{os.getloadavg()[2]:.1f} (average of the last 15 minutes)",
    }


def read_kernels(path):
    """Rows with their counters, and sweeps as {(axis, routine): [points by x]}."""
    rows, sweeps, failures = [], {}, []
    with open(path) as file:
        for b in json.load(file)["benchmarks"]:
            axis, routine, data = b["name"].removesuffix("/iterations:1").split("/", 2)
            if b.get("error_occurred"):
                failures.append(f"{routine}, {data}: {b['error_message']}")
            elif axis == "row":
                keys = ("limit", "naive", "scratch", "documented", "difference", "added")
                rows.append(
                    {"routine": routine, "data": data, "limit_kind": b.get("label", "")}
                    | {k: b[k] for k in keys if k in b}
                )
            else:
                point = {k: b[k] for k in ("x", "cost", "limit_cost") if k in b}
                sweeps.setdefault((axis, routine), []).append(point)
    for points in sweeps.values():
        points.sort(key=lambda p: p["x"])
    return rows, sweeps, failures


def exponent(points, key):
    upper = [p for p in points[len(points) // 2 - 1 :] if p.get(key, 0) > 0]
    if len(upper) < 2:
        return None
    return float(np.polyfit(np.log([p["x"] for p in upper]), np.log([p[key] for p in upper]), 1)[0])


def growth(sweeps):
    result = []
    for (axis, routine), points in sweeps.items():
        entry = {"axis": axis, "routine": routine, "points": points}
        if axis == "threads":
            entry["speed_up"], entry["most"] = points[0]["cost"] / points[-1]["cost"], points[-1]["x"]
        else:
            entry["exponent"] = exponent(points, "cost")
            entry["limit_exponent"] = exponent(points, "limit_cost")
        result.append(entry)
    return result


def plot(entries, axis, path):
    figure, axes = plt.subplots(figsize=(9, 6), constrained_layout=True)
    chosen = [e for e in entries if e["axis"] == axis]
    for i, entry in enumerate(chosen):
        first = entry["points"][0]["cost"]
        x, y = ([p[k] / scale for p in entry["points"]] for k, scale in (("x", 1), ("cost", first)))
        axes.loglog(x, y, marker="o.sv^"[i // 10 % 5], markersize=4, label=entry["routine"])
    every_x = [p["x"] for e in chosen for p in e["points"]]
    ends = np.array([min(every_x), max(every_x)])
    ideal = (ends / ends[0]) ** (-1 if axis == "threads" else 1)
    axes.loglog(ends, ideal, "k--", label="proportional")
    axes.set_xlabel(axis)
    axes.set_ylabel("cost, smallest = 1")
    axes.grid(True, which="major", alpha=0.3)
    axes.legend(fontsize=7, loc="center left", bbox_to_anchor=(1, 0.5))
    figure.savefig(path, dpi=110)
    plt.close(figure)


def size(count):
    for unit in ("B", "KiB", "MiB"):
        if count < 1024 or unit == "MiB":
            return f"{count:.0f} {unit}" if unit == "B" or count >= 100 else f"{count:.1f} {unit}"
        count /= 1024


def findings(rows, peers, curves):
    """What falls short, a line each."""
    memory = ("memcpy", "in-place pass", "read", "memset")
    for r in rows:
        if r["limit_kind"] in memory and r["limit"] < 0.85:
            yield f"{r['routine']}, {r['data']}: {r['limit']:.2f} of {r['limit_kind']}"
        if r["naive"] < 0.9:
            yield f"{r['routine']}, {r['data']}: {r['naive']:.2f} of the naive version's speed"
        if r["scratch"] > 1.1 * r["documented"] + 4096:
            yield f"{r['routine']}, {r['data']}: {size(r['scratch'])}, more than documented"
        if r.get("added", 0) > 1 / 3:
            yield f"{r['routine']}, {r['data']}: noise adds {r['added']:.2f} to the factors"
        if r["documented"] > 2 * r["scratch"] + 4096:
            yield f"{r['routine']}, {r['data']}: {size(r['scratch'])}, far below what is documented"
    for p in peers:
        if p["ratio"] < 1:
            yield f"{p['routine']}, {p['data']}: {p['ratio']:.2f} of the speed of {p['peer']}"
    for e in curves:
        if e.get("exponent") is None:
            continue
        allowed = max(1, e["limit_exponent"] or 1) + 0.2
        if e["exponent"] > allowed:
            yield f"{e['routine']}: cost grows with {e['axis']} to the power {e['exponent']:.2f}"


def sections(report):
    yield "# Benchmarks"
    yield "\n".join(f"- {key}: {value}" for key, value in report["machine"].items())
    if report["quick"]:
        yield "**A quick run: small data, few turns. It shows that everything runs, not how fast.**"
    yield from (HOW, "## Limits, naive versions, memory")
    yield table(
        ["routine", "data", "of limit", "x naive", "scratch", "documented"],
        [
            [
                r["routine"],
                r["data"],
                f"{number(r.get('limit'))} {r['limit_kind']}",
                number(r["naive"]),
                size(r["scratch"]),
                size(r["documented"]),
            ]
            for r in report["rows"]
        ],
    )
    yield from ("## Images of noise", NOISE)
    yield table(
        ["routine", "data", "added"],
        [[r["routine"], r["data"], number(r["added"])] for r in report["rows"] if "added" in r],
    )
    yield from ("## Peers", PEERS)
    yield pivot(report["peers"], ("routine", "data"), "peer", lambda p: number(p["ratio"]))
    yield from ("## Growth", GROWTH, pivot(report["growth"], ("routine",), "axis", growth_cell))
    for axis in dict.fromkeys(e["axis"] for e in report["growth"]):
        yield f"![Cost against {axis}](growth-{axis}.png)"
    yield from ("## The Python package", PACKAGE)
    yield pivot(report["package"], ("routine", "data"), "peer", lambda p: number(p["ratio"]))
    yield "## What falls short"
    yield "\n".join(f"- {line}" for line in report["short"]) or "Nothing."


def main():
    build, output = sys.argv[1:]
    rows, sweeps, failures = read_kernels(f"{build}/kernels.json")
    with open(f"{build}/peers.json") as file:
        others = json.load(file)
    package = [p for p in others if p["routine"].startswith("package: ")]
    peers, curves = [p for p in others if p not in package], growth(sweeps)
    report = {
        "machine": machine(),
        "quick": "CTESSEL_QUICK" in os.environ,
        "rows": rows,
        "peers": peers,
        "package": package,
        "growth": curves,
        "short": [*failures, *findings(rows, others, curves)],
    }
    with open(f"{output}/report.json", "w") as file:
        json.dump(report, file, indent=1)
    for axis in dict.fromkeys(e["axis"] for e in curves):
        plot(curves, axis, f"{output}/growth-{axis}.png")
    with open(f"{output}/report.md", "w") as file:
        print("\n\n".join(p.strip() for p in sections(report) if p), file=file)
    print(f"{len(rows)} rows, {len(peers)} peers' ratios, {len(curves)} curves: {output}/report.md")
    if failures:
        sys.exit("Results differ: " + "; ".join(failures))


if __name__ == "__main__":
    main()
