"""The pages "start in five minutes" do what they say: their code runs, and the files that they promise are there."""

import os
import re
import shutil
import socket
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
PAGES = CHECKOUT / "docs" / "start"


def blocks(page, language):
    text = (PAGES / f"{page}.md").read_text()
    return "\n".join(re.findall(rf"^```{language}\n(.*?)^```$", text, re.DOTALL | re.MULTILINE))


def run(program, folder, **environment):
    path = f"{Path(sys.executable).parent}:{os.environ['PATH']}"
    done = subprocess.run(program, cwd=folder, env={**os.environ, "PATH": path, "MPLBACKEND": "Agg", **environment},
                          capture_output=True, text=True, timeout=120)  # fmt: skip
    assert done.returncode == 0, done.stdout + done.stderr


def check_promises(page, folder):
    promised = re.search(r"\*\*You have\*\*(.*?)[:.] ?\n?(\n|the )", (PAGES / f"{page}.md").read_text(), re.DOTALL)[1]
    for name in re.findall(r"`(\S+\.\w+)`", promised):
        assert (folder / name).stat().st_size > 100, name


def shell(page, folder, **environment):
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        port = free.getsockname()[1]
    script = blocks(page, "bash").replace("9002", str(port))
    # Whoever reads the page is slower than the start of a server; a script is not.
    wait = f"until (exec 3<>/dev/tcp/127.0.0.1/{port}) 2>/dev/null; do sleep 0.1; done\n"
    script = "trap 'kill $(jobs -p) 2>/dev/null || true' EXIT\n" + script.replace("ctessel send", wait + "ctessel send")
    run(["bash", "-ec", script], folder, **environment)


@pytest.mark.parametrize("page", ["command", "scanner"])
def test_commands(page, tmp_path):
    shell(page, tmp_path)
    check_promises(page, tmp_path)


def test_python(tmp_path):
    run([sys.executable, "-c", blocks("python", "python")], tmp_path)
    check_promises("python", tmp_path)


@pytest.mark.parametrize("kind", ["noise", "full"])
def test_steps_by_hand(kind, tmp_path, monkeypatch):
    from ctessel import phantom

    text = (PAGES.parent / "recon.md").read_text()
    code = re.search(r"^Each step is a function.*?\n\n((    .*\n|\n)+)", text, re.MULTILINE)[1]
    monkeypatch.chdir(tmp_path)
    phantom.write("scan.h5", kind, size=32, coils=2)
    done = {}
    exec(textwrap.dedent(code), done)
    assert done["image"].shape == done["result"].image.shape


def test_the_batch_script_says_what_it_needs():
    script = CHECKOUT / "python" / "examples" / "slurm_array.sh"
    for words in (["raw.h5"], ["raw.h5", "image.nii.gz", "all"]):
        run = subprocess.run(["bash", script, *words], capture_output=True, text=True)
        assert run.returncode == 2 and run.stderr.startswith("usage: slurm_array.sh RAW.h5 IMAGE.nii.gz COUNT")


def test_octave(tmp_path):
    package = CHECKOUT / "build" / "octave-package" / "installed"
    if not shutil.which("octave-cli") or not any(package.glob("ctessel-*")):
        pytest.skip("needs Octave and its package, which octave/test.sh builds")
    lists = "".join(f"pkg('{name}', '{package}/{name}'); " for name in ("local_list", "global_list"))
    code = f"{lists} pkg('load', 'ctessel');\n" + blocks("octave", "octave")
    run(["octave-cli", "--norc", "--no-history", "--quiet", "--eval", code], tmp_path)
    check_promises("octave", tmp_path)


def test_cpp(tmp_path):
    build = CHECKOUT / "build" / "default"
    if not (build / "recon" / "libcTessel.so").exists():
        pytest.skip("needs the library, which ./test.sh builds with the preset default")
    run(["cmake", "--install", build, "--prefix", tmp_path / "ctessel"], tmp_path)
    (tmp_path / "disc.cpp").write_text(blocks("cpp", "cpp"))
    shell("cpp", tmp_path, HOME=str(tmp_path))
    check_promises("cpp", tmp_path)
