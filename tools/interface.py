#!/usr/bin/env python3
"""What is public, a line each: names of Python, C++ and Octave, commands, options, exit codes, keys of sidecars.

interface.py                     prints it
interface.py --check [LIBRARY]   what is gone or new since the last release has to be named in CHANGELOG.md;
                                 with libcTessel.so of a build with debug information, types and calls as well
interface.py --release LIBRARY   writes tools/interface.txt and tools/abi.xml, when a release is made
"""

import argparse
import ast
import importlib
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from ctessel import cli

ROOT = Path(__file__).resolve().parents[1]
DUMP, ABI = ROOT / "tools" / "interface.txt", ROOT / "tools" / "abi.xml"
HEADERS = [ROOT / "recon" / "cTessel.h", ROOT / "recon" / "ctessel.hpp"]
MODULES = ["ctessel", "ctessel.homodyne", "ctessel.pipeline", "ctessel.dask"]
#: Modules whose tables hold the keys of sidecars.
SIDECAR = ["bids", "job", "nifti", "report"]
#: Types of others in our calls. Compilers describe them in other ways, and the names of symbols have them.
OTHERS = """[suppress_type]
  name_regexp = ^(Eigen|std|__gnu_cxx)
  drop = yes
"""


def names():
    for module in MODULES:
        known = importlib.import_module(module)
        own = [n for n, value in vars(known).items() if getattr(value, "__module__", "") == module and n[0] != "_"]
        yield from (f"python {module}.{name}" for name in getattr(known, "__all__", own))
    subcommands = next(a for a in cli._parser()._actions if isinstance(a, argparse._SubParsersAction))
    for name, each in subcommands.choices.items():
        yield f"command {name}"
        yield from (f"option {name} {s}" for a in each._actions for s in a.option_strings)
    yield from (f"exit code {code}" for code in re.findall(r"^ +(\d+)", cli.EXIT_CODES, re.MULTILINE))
    yield from (f"key {name}" for module in SIDECAR for name in keys(ROOT / "python" / "ctessel" / f"{module}.py"))
    for name in re.findall(r"^ (\w+)$", (ROOT / "octave" / "INDEX").read_text(), re.MULTILINE):
        yield f"octave {name}"
    routines = subprocess.run(
        [ROOT / "tests" / "header_routines.sh", *HEADERS], capture_output=True, text=True, check=True
    )
    yield from (f"c++ {name}" for name in routines.stdout.split())


def keys(source):
    """Keys with a capital letter: those of the tables that a source writes down."""
    tables = [node for node in ast.walk(ast.parse(source.read_text())) if isinstance(node, ast.Dict)]
    words = [key.value for table in tables for key in table.keys if isinstance(key, ast.Constant)]
    return [word for word in words if re.fullmatch(r"[A-Z][A-Za-z]+", str(word))]


def changed(released, now):
    """Lines that are gone or new, with the word that a changelog names them by."""
    signs = {line: "gone" for line in released - now} | {line: "new" for line in now - released}
    return [(f"{line}: {sign}", {re.split("[ .:]", line)[-1]}) for line, sign in sorted(signs.items())]


def abi_changes(said):
    """The same of what abidiff says: a function is named, or a type of its arguments."""
    kinds = {"A": "new in the library", "C": "its types changed", "D": "gone from the library"}
    entry = r"^ *\[([ACD])\] '\w+ ([^']*)'(.*(?:\n(?! *\[[ACD]\]).*)*)"
    for kind, name, more in re.findall(entry, said, re.MULTILINE):
        types = re.findall(r"'(?:struct|class|enum) ([\w:]+)", more)
        own = re.search(r"([\w:]+)(\(|$)", name)[1]
        yield f"{name}: {kinds[kind]}", {each.split("::")[-1] for each in (own, *types)}


def untold(changes, changelog):
    """Changes that no code in the changelog names."""
    told = {word for code in re.findall(r"`([^`]+)`", changelog) for word in re.findall(r"[\w-]+", code)}
    return [what for what, named_by in changes if not named_by & told]


def since(release):
    """The changelog's part above a release."""
    return (ROOT / "CHANGELOG.md").read_text().split(f"\n## {release} ")[0]


def abi(program, *arguments):
    with tempfile.NamedTemporaryFile("w", suffix=".abignore") as others:
        others.write(OTHERS)
        others.flush()
        return subprocess.run([program, "--suppressions", others.name, *arguments], capture_output=True, text=True)


def compare(library):
    done = abi("abidiff", ABI, library)
    if done.returncode & 3:
        raise SystemExit(f"abidiff: {done.stderr or done.stdout}")
    found = list(abi_changes(done.stdout))
    return found or ([(f"{library}: {done.stdout}", set())] if done.returncode else [])


def check(library):
    release, *released = DUMP.read_text().splitlines()
    changes = changed(set(released), set(names())) + (compare(library) if library else [])
    missing = untold(changes, since(release.split()[-1]))
    for line in missing:
        print(f"{line} since {release}, and not named in CHANGELOG.md above it", file=sys.stderr)
    return 1 if missing else 0


def release(library):
    version = re.search(r"project\(cTessel VERSION ([0-9.]+)", (ROOT / "CMakeLists.txt").read_text())[1]
    DUMP.write_text("\n".join([f"version {version}", *sorted(set(names()))]) + "\n")
    with tempfile.TemporaryDirectory() as folder:
        for header in HEADERS:
            shutil.copy(header, folder)
        abi("abidw", "--exported-interfaces-only", "--drop-private-types", "--headers-dir", folder, "--no-corpus-path",
            "--no-comp-dir-path", "--no-show-locs", "--no-parameter-names", "--no-elf-needed", "--out-file", ABI,
            library).check_returncode()  # fmt: skip


def main(arguments):
    if arguments[:1] == ["--check"]:
        return check(*(arguments[1:] or [None]))
    if arguments[:1] == ["--release"]:
        return release(*arguments[1:])
    print(*sorted(set(names())), sep="\n")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
