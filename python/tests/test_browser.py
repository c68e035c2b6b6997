"""Pages in a real browser. ./test.sh --all installs what it needs from npm; docs/build.sh makes the site."""

import json
import os
import shutil
import subprocess
from pathlib import Path

import nibabel
import numpy as np
import pytest
from command import recon, run

from ctessel import page, phantom


SITE = Path(__file__).resolve().parents[2] / "build" / "site" / "html"


def opened(script, *pages):
    """What a script tells of pages."""
    packages = os.environ.get("CTESSEL_NPM")
    if not packages or not shutil.which("chromium"):
        pytest.skip("needs chromium and packages of npm, which ./test.sh --all installs")
    program = ["node", Path(__file__).with_name(script), packages, *pages]
    told = subprocess.run(program, capture_output=True, text=True, timeout=400)
    assert told.returncode == 0, told.stderr
    return json.loads(told.stdout)


def test_every_page_of_the_site_fits_a_phone_and_asks_for_nothing():
    pages = sorted(SITE.rglob("*.html"))
    if not pages:
        pytest.skip("needs the site, which docs/build.sh makes")
    pages.insert(0, pages.pop(pages.index(SITE / "index.html")))
    told = opened("phone.js", *pages)
    assert told.pop("menu")
    wrong = {name: said for name, said in told.items() if said["width"] > 360 or said["errors"] or said["asked"]}
    assert not wrong


def test_pages_need_nothing_and_the_viewer_shows_what_is_asked_for(tmp_path, monkeypatch):
    phantom.write(scan := tmp_path / "s.h5", "noise", size=48, coils=4, slices=3)
    report = [scan, tmp_path / "i.nii", "--maps-out", "g,snr", "--report"]
    image = recon(*report, tmp_path / "report.html")
    image.header["descrip"] = b"</script><!--"
    other = nibabel.Nifti1Image(np.roll(image.get_fdata(), 9, 0).astype(np.float32), image.affine, image.header)
    other.to_filename(hostile := tmp_path / ("</script>'&\"".replace("/", "_") + ".nii"))
    assert run("view", tmp_path / "i.nii", hostile, "-o", tmp_path / "view.html") == 0
    monkeypatch.setattr(page, "LIBRARY", "none.js")
    recon(*report, tmp_path / ("long" * 50 + ".html"))
    pages = sorted(tmp_path.glob("*.html"))
    told = dict(zip((p.stem[:6] for p in pages), opened("browser.js", *pages)))
    for name, made in told.items():
        assert (made["requests"], made["console"], made["faults"]) == ([], [], []), name
        assert made["pictures"] >= 3 and made["width"] <= 1280
    assert "shots" not in told["longlo"]
    if not page.importlib.resources.files("ctessel").joinpath("niivue.umd.js").is_file():
        pytest.skip("ctessel was installed without the viewer")
    for name in ("view", "report"):
        first, slice_, overlay, faint, without, window = told[name]["shots"]
        assert len({first, slice_, overlay, faint, window}) == 5 and without == slice_
    before, after = told["report"]["beside"]
    assert before != after
