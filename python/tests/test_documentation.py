"""Examples of the documentation run, and a user's script passes strict type checks."""

import doctest
import importlib
import shutil
import site
import subprocess
import sys
from pathlib import Path

import pytest

import ctessel

MODULES = ["_arrays", "_coils", "_geometry", "_helpers", "_sense", "homodyne", "nifti", "phantom", "pipeline"]


USER = """
import numpy as np
from numpy.typing import NDArray

import ctessel
from ctessel import homodyne


def image_of(kspace: NDArray[np.complex64]) -> NDArray[np.complex64]:
    weighted, centre = homodyne.filter(kspace, ky=(-20, 63))
    low = ctessel.to_image(ctessel.zero_pad(centre, kspace.shape[:3]))
    low[low == 0] = 1
    image: NDArray[np.complex64] = homodyne.multiply(ctessel.to_image(weighted), low)
    return image


def unfolded(folded: NDArray[np.complex64], maps: NDArray[np.complex64]) -> NDArray[np.complex64]:
    coils = folded.shape[3]
    return ctessel.sense_recon(folded, maps, psi=np.eye(coils), threads=4)


combined = ctessel.sos(np.ones((4, 4, 1, 2)), 3)
partial = ctessel.homodyne_recon(np.ones((16, 16, 1, 1)), [None, (-3, 7), None])
"""


@pytest.mark.parametrize("name", MODULES)
def test_examples_in_the_documentation_run(name):
    assert doctest.testmod(importlib.import_module(f"ctessel.{name}")).failed == 0


def test_licences_of_others_are_installed():
    notice = (Path(ctessel.__file__).parent / "NOTICE").read_text()
    assert "Arm Limited" in notice and "niivue" in notice


def test_a_users_script_passes_strict_types(tmp_path):
    mypy = shutil.which("mypy")
    if not mypy:
        pytest.skip("mypy is not installed")
    (tmp_path / "user.py").write_text(USER)
    package = str(Path(ctessel.__file__).parents[1])
    # mypy finds what is installed by itself, and refuses to be told of it.
    path = {} if package in site.getsitepackages() else {"MYPYPATH": package}
    check = [mypy, "--strict", "--python-executable", sys.executable, "--follow-imports=silent", "user.py"]
    run = subprocess.run(check, capture_output=True, text=True, env={"PATH": "/usr/bin:/bin", **path}, cwd=tmp_path)
    assert run.returncode == 0, run.stdout + run.stderr
