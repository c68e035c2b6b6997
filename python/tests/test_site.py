"""The documentation site on a phone. docs/build.sh makes the site, and ./test.sh --all runs it."""

import json
import os
import shutil
import subprocess
from pathlib import Path

import pytest

SITE = Path(__file__).resolve().parents[2] / "build" / "site" / "html"


def test_every_page_fits_a_phone_and_asks_for_nothing():
    packages = os.environ.get("CTESSEL_NPM")
    if not packages or not shutil.which("chromium"):
        pytest.skip("needs chromium and packages of npm, which ./test.sh --all installs")
    pages = sorted(SITE.rglob("*.html"))
    if not pages:
        pytest.skip("needs the site, which docs/build.sh makes")
    pages.insert(0, pages.pop(pages.index(SITE / "index.html")))
    program = ["node", Path(__file__).with_name("phone.js"), packages, *pages]
    run = subprocess.run(program, capture_output=True, text=True, timeout=400)
    assert run.returncode == 0, run.stderr
    told = json.loads(run.stdout)
    assert told.pop("menu")
    wrong = {name: said for name, said in told.items() if said["width"] > 360 or said["errors"] or said["asked"]}
    assert not wrong
