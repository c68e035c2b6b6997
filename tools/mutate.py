#!/usr/bin/env python3
"""Puts small faults into the code, one at a time, and shows which of them no test notices.

  tools/mutate.py --seed 7 --count 20 octave python        20 drawn from each of these
  tools/mutate.py --seed 7 --count 60 --near kernels       without the dearest tests
  tools/mutate.py --count 5 recon/unfold.cpp               5 drawn from a file
  tools/mutate.py --fault recon/loops.h 'a < b' 'a <= b'   this one

Sets: octave (m-files), python, bindings, kernels (recon and gateway). Faults go into a clone of the last
commit below build/mutants, never into the checkout. A fault is caught when a test fails, crashes or does not
end: first those that bear the file's name, then the others until one fails. One that survives is shown with
its line: it lacks a test, or makes no difference. The same seed and commit give the same faults.
"""

import argparse
import filecmp
import itertools
import os
import random
import re
import shutil
import signal
import subprocess
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
TREE = SOURCE / "build/mutants/tree"
LOG = TREE.parent / "log"
SETS = {
    "octave": ["octave/inst/*.m", "octave/inst/private/*.m"],
    "python": ["python/ctessel/*.py"],
    "bindings": ["python/src/*"],
    "kernels": ["recon/*.cpp", "recon/*.h", "gateway/*.cpp", "gateway/host/classic.cpp"],
}

# What is no code: comments, texts, and lines that declare.
TEXTS = {
    ".m": r"(?<![\w\])}'.])'(?:''|[^'\n])*'|\"(?:\\.|[^\"\n])*\"|[%#].*",
    ".py": r"(?s:\"\"\".*?\"\"\")|\"(?:\\.|[^\"\n])*\"|'(?:\\.|[^'\n])*'|#.*|^(?:import|from) .*",
    "": r"//.*|\"(?:\\.|[^\"\n])*\"|(?<!\d)'(?:\\.|[^'\n])+'|^ *#.*|^ *(?:using|template|static_assert).*",
}
PAIRS = "< <= > >= == != && || and or + - * / += -= .* ./ min max floor ceil true false True False".split()
SWAPS = dict(zip(PAIRS, (b for k in range(0, len(PAIRS), 2) for b in (PAIRS[k + 1], PAIRS[k])))) | {"~=": "=="}
OPERATORS = [  # a name, where, and what is put there
    ("swapped", r"(?<= )(?:<=?|>=?|[=!~]=|&&|\|\||and|or|[-+]=?|\.?[*/])(?= )", lambda m: SWAPS[m[0]]),
    ("swapped", r"\b(?:min|max|floor|ceil|true|false|True|False)\b", lambda m: SWAPS[m[0]]),
    ("off by one", r"(?<![\w.])\d+(?![\w.])", lambda m: str(int(m[0]) + 1)),
    ("not dropped", r"(?<![\w!])(?:!|not |~)(?=[\w(])", lambda m: ""),
    ("never", r"\bif \((?=.*\) ?[{\w])", lambda m: "if (false && "),
    ("never", r"\b(?:el)?if (?!\()(?=.*:$)", lambda m: m[0] + "False and "),
    ("exchanged", r"(?<=[\[(])(\w+), (\w+)(?=[\]),])", lambda m: f"{m[2]}, {m[1]}"),
    (
        "removed",
        r"^( +)(?:(?:return|raise|continue|break)\b.*|\+\+\w+;|[\w.\[\]()>*{}:-]+(?:\(.*\)| [-+*/|&]?= .*);?)$",
        lambda m: m[1] + ("" if m[0][-1] == ";" else "pass"),
    ),
]


class Fault:
    def __init__(self, name, file, text, start, end, new):
        self.name, self.file = name, file
        self.text = text[:start] + new + text[end:]
        self.line = text.count("\n", 0, start) + 1
        self.before, self.after = (t.split("\n")[self.line - 1].strip() for t in (text, self.text))


def faults_of(file):
    """All faults of a file, by line."""
    text, suffix = (TREE / file).read_text(), Path(file).suffix
    code = re.sub(TEXTS.get(suffix, TEXTS[""]), lambda m: re.sub(r"[^\n]", "@", m[0]), text, flags=re.M)
    lines = {}
    for name, where, what in OPERATORS:
        for m in re.finditer(where, code, flags=re.M):
            fault = Fault(name, file, text, m.start(), m.end(), what(m))
            if fault.before != fault.after and (suffix == ".py" or fault.after != "pass"):
                lines.setdefault(fault.line, []).append(fault)
    return list(lines.values())


def drawn(files, count, rng):
    """One line is as likely as another, and so are its faults. Small files come first."""
    lines = [line for file in files for line in faults_of(file)]
    chosen = [rng.choice(line) for line in rng.sample(lines, min(count, len(lines)))]
    return sorted(chosen, key=lambda f: (len(f.text), f.file, f.line))


def run(*command, limit=1800):
    """Whether a command succeeds in time. Its output is in the log."""
    with open(LOG, "w") as log:
        job = subprocess.Popen(command, stdout=log, stderr=log, stdin=subprocess.DEVNULL, cwd=TREE, process_group=0)
        try:
            return job.wait(limit) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            try:
                os.killpg(job.pid, signal.SIGKILL)  # what it started ends with it
            except ProcessLookupError:
                pass


def must(*command):
    if not run(*command):
        sys.exit(f"{LOG.read_text()[-2000:]}\nfailed: {' '.join(map(str, command))}")


class NotBuilt(Exception):
    """A fault that the compiler refuses is none."""


def build(*command):
    if not run(*command):
        raise NotBuilt


def test(failed, *command):
    """What failed first, by a pattern of the log; None where nothing did."""
    if run(*command):
        return None
    found = re.search(failed, LOG.read_text(errors="replace"), flags=re.M)
    return next(filter(None, found.groups())) if found else "no end, or a crash"


def put(files, folder):
    for file in files:
        if not filecmp.cmp(file, folder / file.name, shallow=False):
            shutil.copy(file, folder)


def octave(file):
    folder = TREE / "build/octave-package/installed"
    if not folder.exists():
        must("octave/test.sh")
    package = next(folder.glob("ctessel-*"))
    put((TREE / "octave/inst").glob("*.m"), package)
    put((TREE / "octave/inst/private").glob("*.m"), package / "private")
    yield test(
        r"!!!!! (.*)|^error: (.*)",
        "octave-cli",
        "--norc",
        "--no-history",
        "--quiet",
        "--path",
        TREE / "octave",
        "--path",
        TREE / "demo",
        "--eval",
        f"test_package('', '{folder}')",
    )


def python(file):
    """In an environment of the tree's own. Tests that bear the file's name, then those that speak of it, then
    all others."""
    if file.endswith(".py"):
        build(sys.executable, "-m", "py_compile", file)
    environment, modules = TREE / "build/python/environment", TREE / "build/bindings"
    interpreter = environment / "bin/python"
    if not environment.exists():
        must("tools/python_environment.sh")
    if modules.exists() or not file.endswith(".py"):
        must(
            "cmake",
            "-S",
            ".",
            "-B",
            modules,
            "-G",
            "Ninja",
            "-DCTESSEL_PYTHON=ON",
            f"-DPYTHON_EXECUTABLE={interpreter}",
        )
        build("cmake", "--build", modules, "--target", "python_modules", "-j1")
    package = next(environment.glob("lib/python3*/site-packages/ctessel"))
    put([*(modules / "python").glob("_*.so"), *(TREE / "python/ctessel").glob("*.py")], package)
    stem = Path(file).stem.strip("_")
    others = sorted((TREE / "python/tests").glob("test_*.py"))
    own = [t for t in others if stem in t.stem]
    speak = [t for t in others if t not in own and re.search(rf"\b{stem}\b", t.read_text())]
    for tests in (own, speak, [t for t in others if t not in own + speak]):
        yield tests and test(
            r"^(?:FAILED|ERROR) \S*?(test_\S+)",
            interpreter,
            "-m",
            "pytest",
            "-p",
            "no:cacheprovider",
            "-q",
            "-x",
            "--timeout",
            "300",
            "-rfE",
            *tests,
        )


def ctest(preset, *which, targets=("all",)):
    build("cmake", "--preset", preset)  # with warnings as errors: others' objects come from the compiler cache
    build("cmake", "--build", "--preset", preset, "-j1", "--target", *targets)
    return test(
        r"^\s+\d+ - (\w+) \(",
        "ctest",
        "--preset",
        preset,
        "-j1",
        "--timeout",
        "180",  # ten times what the longest takes
        "--stop-on-failure",
        "-E",
        "^(install|package)$",
        *which,
    )  # of what is installed; minutes


def kernels(file):
    words = [w for w in re.split(r"[_.]", Path(file).stem) if len(w) > 3] or ["sense"]
    own = [t.stem for w in words for t in (TREE / "tests").glob(f"test_*{w}*.cpp")] or ["test_sense"]
    fuzz = [f"random_{name}" for name in ("gateway", "geometry", "kernels", "sense")]
    yield ctest(
        "default", "-R", "^({})$".format("|".join(t.removeprefix("test_") for t in own + fuzz)), targets=own + fuzz
    )
    yield ctest("default")
    if "gateway" in file or "homodyne" in file:
        yield ctest("mex32")


# Every step puts the tree as it is where its tests look, so that nothing is left of the fault before.
TESTS = {"octave": octave, "python": python, "bindings": python, "kernels": kernels}


def caught_by(name, file, near):
    try:
        return next((by for by in itertools.islice(TESTS[name](file), 2 if near else None) if by), None)
    except NotBuilt:
        return "not built"


def attempt(fault, name, near):
    path = TREE / fault.file
    before = path.read_text()
    path.write_text(fault.text)
    try:
        return caught_by(name, fault.file, near)
    finally:
        path.write_text(before)


def clone():
    """The last commit, in a folder of its own."""
    TREE.parent.mkdir(parents=True, exist_ok=True)
    if not TREE.exists():
        subprocess.run(["git", "clone", "-q", "--shared", SOURCE, TREE], check=True)
    commit = subprocess.check_output(["git", "rev-parse", "HEAD"], cwd=SOURCE, text=True).strip()
    must("git", "fetch", "-q", SOURCE, commit)
    must("git", "checkout", "-qf", commit)
    return commit


def require_passing(name, file, commit, near):
    """Only where all tests pass does a failure tell anything."""
    passed = TREE.parent / f"passed-{name}-{Path(file).stem if near else 'all'}-{commit}"
    if not passed.exists():
        by = caught_by(name, file, near)
        if by:
            sys.exit(f"without a fault: {by}; see {LOG}")
        passed.touch()


def set_of(file):
    return next(name for name, patterns in SETS.items() if any(Path(file).match(p) for p in patterns))


def files_of(name):
    if name not in SETS:
        return [name]
    return sorted(str(f.relative_to(TREE)) for pattern in SETS[name] for f in TREE.glob(pattern))


def given(file, before, after):
    text = (TREE / file).read_text()
    if text.count(before) != 1:
        sys.exit(f"{file} holds {before!r} {text.count(before)} times, not once")
    start = text.index(before)
    return Fault("given", file, text, start, start + len(before), after)


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", nargs="*", metavar="SET|FILE")
    parser.add_argument("--count", type=int, default=10, help="faults drawn from each set or file")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--from", type=int, default=1, dest="first", help="begin with this one of those drawn")
    parser.add_argument(
        "--near", action="store_true", help="leave out the last of three steps: Python's other tests, 32 bits"
    )
    parser.add_argument("--fault", nargs=3, metavar=("FILE", "OLD", "NEW"))
    return parser.parse_args()


def main():
    os.environ.setdefault("CTESSEL_DATA", str(SOURCE.parent / "shared/data"))
    os.environ |= {"OMP_WAIT_POLICY": "passive", "OPENBLAS_NUM_THREADS": "1"}  # other work may go on beside
    if shutil.which("ccache"):
        os.environ |= {"CMAKE_CXX_COMPILER_LAUNCHER": "ccache", "CCACHE_NOHASHDIR": "1", "CCACHE_BASEDIR": str(SOURCE)}
    options = arguments()
    commit = clone()
    if options.fault:
        faults = [given(*options.fault)]
    else:
        faults = [
            f
            for name in options.what or SETS
            for f in drawn(files_of(name), options.count, random.Random(f"{options.seed} {name}"))
        ]
    outcomes = []
    for number, fault in enumerate(faults[options.first - 1 :], options.first):
        name = set_of(fault.file)
        require_passing(name, fault.file, commit, options.near)
        by = attempt(fault, name, options.near)
        outcomes.append(by if by in (None, "not built") else "caught")
        print(
            f"{number:3} {fault.file}:{fault.line} {fault.name}: {by or 'SURVIVED'}\n"
            f"      - {fault.before}\n      + {fault.after}",
            flush=True,
        )
    print(
        f"{len(outcomes)} run, {outcomes.count('caught')} caught, {outcomes.count(None)} survived, "
        f"{outcomes.count('not built')} not built"
    )
    sys.exit(None in outcomes)


if __name__ == "__main__":
    main()
