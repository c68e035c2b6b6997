#!/usr/bin/env python3
"""The public names, a line each: Python, options of the command, Octave, C++.

interface.py               prints them; tools/interface.txt holds those of the last release
interface.py --check       names that are gone, or options, have to be named in CHANGELOG.md
"""

import argparse
import importlib
import re
import subprocess
import sys
from pathlib import Path

from ctessel import cli

ROOT = Path(__file__).resolve().parents[1]
MODULES = ["ctessel", "ctessel.homodyne", "ctessel.pipeline", "ctessel.dask"]


def names():
    for module in MODULES:
        known = importlib.import_module(module)
        own = [n for n, value in vars(known).items() if getattr(value, "__module__", "") == module and n[0] != "_"]
        yield from (f"python {module}.{name}" for name in getattr(known, "__all__", own))
    subcommands = next(a for a in cli._parser()._actions if isinstance(a, argparse._SubParsersAction))
    for name, each in subcommands.choices.items():
        yield f"command {name}"
        yield from (f"option {name} {s}" for a in each._actions for s in a.option_strings)
    for name in re.findall(r"^ (\w+)$", (ROOT / "octave" / "INDEX").read_text(), re.MULTILINE):
        yield f"octave {name}"
    headers = [ROOT / "recon" / "cTessel.h", ROOT / "recon" / "ctessel.hpp"]
    routines = subprocess.run([ROOT / "tests" / "header_routines.sh", *headers], capture_output=True, text=True, check=True)
    yield from (f"c++ {name}" for name in routines.stdout.split())


def gone(released, now, changes):
    """Names of the release that are there no more, and that the changelog does not name."""
    told = {word for code in re.findall(r"`([^`]+)`", changes) for word in re.findall(r"[\w-]+", code)}
    return [line for line in released if line not in now and re.split("[ .:]", line)[-1] not in told]


def main(arguments):
    now = sorted(set(names()))
    if arguments != ["--check"]:
        print(*now, sep="\n")
        return 0
    released = (ROOT / "tools" / "interface.txt").read_text().splitlines()
    lost = gone(released, set(now), (ROOT / "CHANGELOG.md").read_text())
    for line in lost:
        print(f"{line}: gone, and not in CHANGELOG.md", file=sys.stderr)
    return 1 if lost or not released else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
