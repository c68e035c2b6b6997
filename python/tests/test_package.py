"""What the Debian package brings beside the Python package: a manual page, a completion, and nothing that stays."""

import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from ctessel import cli

CHECKOUT = Path(__file__).resolve().parents[2]


def made(kind):
    script = CHECKOUT / "tools" / "command_files.py"
    return subprocess.run([sys.executable, script, kind], capture_output=True, text=True, check=True).stdout


def test_the_manual_page_has_what_the_help_has(tmp_path):
    (page := tmp_path / "ctessel.1").write_text(made("man"))
    if not shutil.which("groff"):
        pytest.skip("needs groff")
    shown = subprocess.run(["groff", "-man", "-Tascii", "-ww", "-P-cbou", page], capture_output=True, text=True)
    assert (shown.returncode, shown.stderr) == (0, "")
    words = set(re.findall(r"--[a-z][a-z-]*", shown.stdout.replace("-\n", "-")))
    for name, each in cli._parser()._subparsers._group_actions[0].choices.items():
        assert f"ctessel {name}" in shown.stdout
        options = {s for a in each._actions for s in a.option_strings if s.startswith("--")} - {"--help"}
        assert options <= words, name
    assert "cancelled with Ctrl-C" in shown.stdout and "echoes" in shown.stdout


@pytest.mark.parametrize("typed, wanted", [("re", "recon"), ("phantom obl", "oblique"), ("recon --rep", "--report")])
def test_the_shell_completes(typed, wanted, tmp_path):
    (script := tmp_path / "completion").write_text(made("bash"))
    words = ["ctessel", *typed.split()]
    ask = f'. "{script}"; COMP_WORDS=({" ".join(words)}); COMP_CWORD={len(words) - 1}; _ctessel; echo "${{COMPREPLY[@]}}"'
    assert subprocess.run(["bash", "-c", ask], capture_output=True, text=True).stdout.split() == [wanted]


ABIDIFF = """Functions changes summary: 1 Removed, 1 Changed, 0 Added functions

1 Removed function:

  [D] 'function long int ctessel::count_nan(const ctessel::ConstSamples&)'    {_ZN7ctessel9count_nan}

1 function with some indirect sub-type change:

  [C] 'function void ctessel::sense(const ctessel::Samples&, const ctessel::SenseOptions&)' at sense.cpp:275:1 has some:
    parameter 4 of type 'const ctessel::SenseOptions&' has sub-type changes:
        in unqualified underlying type 'struct ctessel::SenseOptions' at ctessel.hpp:165:1:
          type size changed from 2112 to 2176 (in bits)
"""


def test_what_is_public_changes_only_with_a_line_in_the_changelog(monkeypatch):
    monkeypatch.syspath_prepend(CHECKOUT / "tools")
    import interface

    changes = interface.changed({"option recon --preview", "python ctessel.sos"}, {"python ctessel.sos", "key Seed"})
    assert interface.untold(changes, "- `recon --preview` is gone.") == ["key Seed: new"]
    assert interface.untold(changes, "- `--preview` makes room for `Seed`.") == []
    changes = list(interface.abi_changes(ABIDIFF))
    assert len(interface.untold(changes, "- `Samples` and `ctessel` are named.")) == 2
    assert interface.untold(changes, "- `SenseOptions::mask` is new; `count_nan` is gone.") == []


def test_the_package_is_whole():
    package = next(iter((CHECKOUT / "build" / "debs").glob("ctessel_*.deb")), None)
    if package is None or not shutil.which("dpkg-deb"):
        pytest.skip("needs the package, which tools/python_deb.sh makes")
    files = subprocess.run(["dpkg-deb", "-c", package], capture_output=True, text=True, check=True).stdout
    for name in ("bin/ctessel", "share/man/man1/ctessel.1.gz", "share/bash-completion/completions/ctessel",
                 "share/doc/ctessel/copyright", "dist-packages/ctessel/_raw.cpython"):  # fmt: skip
        assert f"./usr/{name}" in files or name in files, name
    assert "__pycache__" not in files
    control = subprocess.run(["dpkg-deb", "-I", package, "control"], capture_output=True, text=True, check=True).stdout
    for needed in ("scipy", "nibabel", "h5py", "tqdm"):
        assert re.search(rf"^Depends: .*python3-{needed}", control, re.MULTILINE)
