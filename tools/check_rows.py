#!/usr/bin/env python3
"""Whether the tables of docs/quality.md and docs/benchmarks.md have the rows that the scripts measure.

Nothing is measured: names of data, patterns and routines are compared.
"""

import ast
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
#: What the page calls the routines that have rows in bench/bench_*.cpp. The rest are helpers of these.
ROUTINES = {
    "TS_fftshift": "fftshift",
    "TS_ifftshift": "ifftshift",
    "TS_zero_pad": "zero padding",
    "TS_ringing_filter": "ringing filter",
    "TS_perform_sos": "sum of squares",
    "TS_perform_pcsos": "with phase",
    "get_combination_factors": "SENSE factors",
    "unfold": "unfolding",
    "TS_sense_recon": "SENSE",
    "TS_geometry_correction": "geometry correction",
    "GradientField": "field of gradients",
    "homodyne filter": "homodyne filter",
    "homodyne multiply": "homodyne multiply",
}


def tables(page):
    """Rows of each table of a page, by the names in its head."""
    found = []
    for text in re.findall(r"(?:^\|.*\n)+", (ROOT / "docs" / page).read_text(), re.MULTILINE):
        head, _, *rows = [[cell.strip() for cell in line[1:-1].split("|")] for line in text.splitlines()]
        found.append((head, rows))
    return found


def constants(script):
    """Lists that a script writes down at its top."""
    known = {}
    for node in ast.parse((ROOT / script).read_text()).body:
        if isinstance(node, ast.Assign) and isinstance(node.targets[0], ast.Name):
            try:
                known[node.targets[0].id] = ast.literal_eval(node.value)
            except ValueError:
                continue
    return known


def quality():
    """Pairs of what the page has and what the script measures."""
    measured = constants("bench/quality.py")
    for head, rows in tables("quality.md"):
        if head[:2] == ["R", "ACS lines"]:
            yield "undersampling", {(row[0], row[1]) for row in rows}, {
                tuple(map(str, r)) for r in measured["REDUCTIONS"]
            }
        elif head[1] == "pattern":
            names = {f"{y} x {z}" + f", shifted by {shift}" * bool(shift) for y, z, shift in measured["LATTICES"]}
            yield "patterns", {row[1] for row in rows}, names
        elif head[1] == "share of the lines":
            yield "shares", {row[1] for row in rows}, set(map(str, measured["SHARES"]))
        elif head[1].startswith("coil "):
            yield "defective coils", {row[1] for row in rows}, set(measured["DEFECTS"])
        elif head[1] == "motion":
            yield "motion", {row[1].removesuffix(" on") for row in rows}, {name for name, *_ in measured["MOVES"]}


def benchmarks():
    sources = "".join(path.read_text() for path in sorted((ROOT / "bench").glob("bench_*.cpp")))
    measured = {name for name in ROUTINES if f'"{name}"' in sources}
    rows = next(rows for head, rows in tables("benchmarks.md") if head[0].startswith("Routine"))
    named = {name for name, words in ROUTINES.items() if any(row[0].startswith(words) for row in rows)}
    yield "routines", named, measured
    unknown = {row[0] for row in rows if not row[0].startswith(tuple(ROUTINES.values()))}
    yield "routines of the page", unknown, set()


def main():
    wrong = 0
    for page, pairs in (("quality.md", quality()), ("benchmarks.md", benchmarks())):
        for what, shown, measured in pairs:
            for row in sorted(shown ^ measured, key=str):
                side = "measured, and not in the table" if row in measured else "in the table, and not measured"
                print(f"docs/{page}: {what}: {row} is {side}", file=sys.stderr)
                wrong += 1
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
