#!/usr/bin/python3
"""Tables of measured figures: the stored results, and the pages that show them.

    bench/tables.py [FILE...]     stores what FILEs have, and writes the tables into the pages
    bench/tables.py --check       says which pages do not show the stored results

FILE is a quality.json of bench/quality.py, or a kernels.json or peers.json of ./bench.sh. What it has
replaces the same rows of bench/results.json. Others stay, so that one routine can be measured alone.
A table stands in its page between `<!-- table NAME -->` and `<!-- end -->`. Text around it is written by hand.
"""

import json
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
RESULTS = ROOT / "bench" / "results.json"
PAGES = [path for path in sorted((ROOT / "docs").glob("*.md")) if "<!-- table " in path.read_text()]
DATA = {"brain16_ksp": "head, axial", "phantom32_ksp": "phantom", "brain1_t1sag_ksp": "head, sagittal"}
#: Keys that say which row of its kind a row is.
IDENTITY = {"rows": ("routine", "data"), "peers": ("routine", "data", "peer"), "growth": ("axis", "routine")}
BESIDE = {"ctessel": "ctessel", "ecalib": "BART, `ecalib -m1`"}
TIME = {"time, ecalib's over ours": "processor time, BART's over ours"}
#: Of each table of errors, the keys of a row and the heads of their columns.
QUALITY = {
    "undersampled": {"data": "data", "R": "R", "lines": "ACS lines"}
    | BESIDE
    | {"caldir": "BART, `caldir`", "of ecalib": "ctessel over ecalib"}
    | TIME,
    "volumes": {"data": "data", "R": "R"} | BESIDE | {"of ecalib": "ctessel over ecalib"} | TIME,
    "shifted": {"data": "data", "pattern": "pattern"}
    | BESIDE
    | {"of ecalib": "ctessel over ecalib", "g, mean": "g, mean", "g, 99 %": "g, 99 %"},
    "partial": {"data": "data", "R": "R", "share": "share of the lines", "zero": "zero filling"}
    | {"homodyne": "homodyne", "pocs": "POCS", "prediction": "prediction", "auto": "auto"},
    "tight": {"data": "data", "field": "field", "unexplained by one": "unexplained by one set"}
    | {"unexplained by two": "by two", "one set": "error, one set", "ctessel": "default"}
    | {"BART, one set": "BART, one set", "BART, two sets": "BART, two sets", "of two": "default over BART's two"},
    "defective": {"data": "data", "defect": "coil 5", "intact": "intact"}
    | {"all coils": "all coils used", "without it": "left out"},
    "noise": {
        "data": "data",
        "volumes": "volumes",
        "mean of spread over map": "mean",
        "its deviation": "deviation of the voxels",
    }
    | {"expected": "expected of so many samples"},
    "motion": {"data": "data", "motion": "motion", "error": "error"}
    | {"lines in the warning": "lines in the warning (misfit over that of the others)"},
}
RATIOS = {"of ecalib", "g, mean", "g, 99 %", "prediction", "of two", *TIME}
LABELS = {"share", "field"}


def table(head, rows, names=2):
    """A table in Markdown; columns after the first `names` are aligned as numbers."""
    lines = [head, ["---"] * names + ["--:"] * (len(head) - names), *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)


def number(value):
    return "-" if value is None else f"{value:.2f}" if value < 9.95 else f"{value:.0f}"


def pivot(entries, keys, column, cell):
    """Rows of a table by `keys`, with one cell for every value of `column`."""
    columns = list(dict.fromkeys(e[column] for e in entries))
    cells = {}
    for e in entries:
        cells.setdefault(tuple(e[k] for k in keys), {})[e[column]] = cell(e)
    rows = [[*row, *(values.get(c, "-") for c in columns)] for row, values in cells.items()]
    return table([*keys, *columns], rows, len(keys))


def figure(key, value):
    """A cell of a table of errors, which have no 0 before the point."""
    if value is None or key in RATIOS:
        return number(value)
    if not isinstance(value, float):
        return DATA.get(value, str(value))
    return f"{value:g}" if key in LABELS else f"{value:.{4 if value < 0.1 else 3}f}".removeprefix("0")


def quality(results):
    """Tables of errors, by their names."""
    return {
        name: table(list(columns.values()), [[figure(key, row.get(key)) for key in columns] for row in results[name]])
        for name, columns in QUALITY.items()
        if results.get(name)
    }


def growth_cell(entry):
    if entry["axis"] == "threads":
        return f"{number(entry['speed_up'])} on {entry['most']:.0f}"
    own, limit = (number(entry[k]) for k in ("exponent", "limit_exponent"))
    return own if limit == "-" else f"{own} ({limit})"


def benchmarks(results):
    """Tables of ratios, by their names."""
    rows = [
        [r["routine"], r["data"], f"{number(r.get('limit'))} {r['limit_kind']}".strip(), number(r["naive"])]
        for r in results["rows"]
    ]
    package = [p for p in results["peers"] if p["routine"].startswith("package: ")]
    peers = [p for p in results["peers"] if p not in package]
    package = [p | {"function": p["routine"].removeprefix("package: ")} for p in package]
    return {
        "limits": table(["routine", "data", "of limit", "x naive"], rows),
        "peers": pivot(peers, ("routine", "data"), "peer", lambda p: number(p["ratio"])),
        "growth": pivot([e for e in results["growth"] if e["axis"] != "threads"], ("routine",), "axis", growth_cell),
        "package": pivot(package, ("function",), "data", lambda p: number(p["ratio"])),
    }


def kinds(path):
    """Rows of a file, by their kind."""
    made = json.loads(Path(path).read_text())
    if isinstance(made, list):
        return {"peers": made}
    if "benchmarks" not in made:
        return made
    from report import growth, read_kernels  # needs more packages than the check has

    rows, sweeps, _ = read_kernels(path)
    return {
        "rows": [{k: r[k] for k in (*IDENTITY["rows"], "limit", "limit_kind", "naive") if k in r} for r in rows],
        "growth": [{k: v for k, v in e.items() if k != "points"} for e in growth(sweeps)],
    }


def store(results, kind, rows):
    if kind not in IDENTITY:
        results[kind] = rows or results.get(kind, [])
        return
    known = {tuple(row[k] for k in IDENTITY[kind]): row for row in results.get(kind, []) + rows}
    results[kind] = list(known.values())


def written(results):
    """Results as text, one row a line, of four digits."""

    def short(row):
        return {k: float(f"{v:.4g}") if isinstance(v, float) else v for k, v in row.items()}

    lines = {kind: ",\n  ".join(json.dumps(short(row)) for row in rows) for kind, rows in results.items()}
    return "{\n" + ",\n".join(f' "{kind}": [\n  {text}\n ]' for kind, text in lines.items()) + "\n}\n"


def shown(page, tables):
    """The page's text with the tables that it names."""
    return re.sub(
        r"(<!-- table (\w+) -->\n).*?(?=<!-- end -->)",
        lambda found: f"{found[1]}\n{tables[found[2]]}\n\n",
        page.read_text(),
        flags=re.DOTALL,
    )


def main():
    files = sys.argv[1:]
    results = json.loads(RESULTS.read_text())
    if files == ["--check"]:
        tables = quality(results) | benchmarks(results)
        stale = [page.name for page in PAGES if shown(page, tables) != page.read_text()]
        return f"{', '.join(stale)}: not the stored results; run bench/tables.py" if stale else 0
    for path in files:
        for kind, rows in kinds(path).items():
            store(results, kind, rows)
    RESULTS.write_text(written(results))
    results = json.loads(RESULTS.read_text())  # what --check reads
    tables = quality(results) | benchmarks(results)
    for page in PAGES:
        page.write_text(shown(page, tables))
    return 0


if __name__ == "__main__":
    sys.exit(main())
