"""What the Debian package brings beside the Python package: a manual page, a completion, and nothing that stays."""

import re
import shutil
import subprocess
import sys
from importlib.metadata import metadata
from pathlib import Path

import pytest

from ctessel import cli, runtime

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


def test_pages_name_the_options_that_there_are():
    commands = cli._parser()._subparsers._group_actions[0].choices
    options = {name: {s for a in each._actions for s in a.option_strings} for name, each in commands.items()}
    docs = CHECKOUT / "docs"
    table = (docs / "recon.md").read_text()
    assert not [s for s in options["recon"] - {"--help"} if s.startswith("--") and s not in table]
    for page in [CHECKOUT / "README.md", *docs.glob("*.md"), *docs.glob("start/*.md")]:
        for name, words in re.findall(r"ctessel (\w+) ([^`|\n]*)", page.read_text()):
            used = set(re.findall(r"(?<!\S)--[a-z-]+", words))
            assert name not in options or used <= options[name], (page.name, used - options[name])


#: Answers of the shells' own machinery to `typed`.
ASK = {
    "bash": '. "{script}"; COMP_WORDS=(ctessel {typed}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1)); _ctessel; echo "${{COMPREPLY[@]}}"',
    "fish": 'source "{script}"; complete -C "ctessel {typed}" | cut -f 1',
}


@pytest.mark.parametrize("typed, wanted", [("re", "recon"), ("phantom obl", "oblique"), ("recon --rep", "--report")])
@pytest.mark.parametrize("shell", ["bash", "fish"])
def test_the_shell_completes(shell, typed, wanted, tmp_path):
    if not shutil.which(shell):
        pytest.skip(f"needs {shell}")
    (script := tmp_path / "completion").write_text(made(shell))
    ask = ASK[shell].format(script=script, typed=typed)
    assert subprocess.run([shell, "-c", ask], capture_output=True, text=True).stdout.split() == [wanted]


def test_zsh_is_told_of_every_option(tmp_path):
    if not shutil.which("zsh"):
        pytest.skip("needs zsh")
    (script := tmp_path / "completion").write_text(made("zsh"))
    told = '_arguments() { print -r -- "$@"; line=(recon); state=rest }; _describe() { print "$@" }; . "$1"'
    said = subprocess.run(["zsh", "-f", "-c", told, "zsh", script], capture_output=True, text=True)
    assert said.stderr == "" and "--report[also" in said.stdout and ":(auto zero homodyne pocs)" in said.stdout


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


def test_the_wheel_names_what_each_use_needs():
    needed = {}
    for line in metadata("ctessel").get_all("Requires-Dist"):
        name, extra = re.match(r"([\w-]+)(?:.*extra == .(\w+))?", line).groups()
        needed.setdefault(extra, set()).add(name)
    assert needed[None] == {"numpy"} and needed["recon"] == set(runtime.SCANS)
    assert needed["dask"] == {"dask", "distributed"} and needed["view"] == {"nibabel", "matplotlib"}


def test_the_package_is_whole():
    package = next(iter((CHECKOUT / "build" / "debs").glob("ctessel_*.deb")), None)
    if package is None or not shutil.which("dpkg-deb"):
        pytest.skip("needs the package, which tools/python_deb.sh makes")
    files = subprocess.run(["dpkg-deb", "-c", package], capture_output=True, text=True, check=True).stdout
    for name in ("bin/ctessel", "share/man/man1/ctessel.1.gz", "share/bash-completion/completions/ctessel",
                 "share/zsh/vendor-completions/_ctessel", "share/fish/vendor_completions.d/ctessel.fish",
                 "share/doc/ctessel/copyright", "dist-packages/ctessel/_raw.cpython"):  # fmt: skip
        assert f"./usr/{name}" in files or name in files, name
    assert "__pycache__" not in files
    control = subprocess.run(["dpkg-deb", "-I", package, "control"], capture_output=True, text=True, check=True).stdout
    for needed in ("scipy", "nibabel", "h5py", "tqdm"):
        assert re.search(rf"^Depends: .*python3-{needed}", control, re.MULTILINE)
