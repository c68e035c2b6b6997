"""Pages in a real browser. ./test.sh --all installs what it needs from npm."""

import json
import os
import shutil
import subprocess
from pathlib import Path

import nibabel
import numpy as np
import pytest

from ctessel import cli, page, phantom


def opened(*pages):
    """What browser.js tells of pages."""
    packages = os.environ.get("CTESSEL_NPM")
    if not packages or not shutil.which("chromium"):
        pytest.skip("needs chromium and packages of npm, which ./test.sh --all installs")
    program = ["node", Path(__file__).with_name("browser.js"), packages, *pages]
    run = subprocess.run(program, capture_output=True, text=True, timeout=400)
    assert run.returncode == 0, run.stderr
    return json.loads(run.stdout)


def test_pages_need_nothing_and_the_viewer_shows_what_is_asked_for(tmp_path, monkeypatch):
    phantom.write(scan := tmp_path / "s.h5", "noise", size=48, coils=4, slices=3)
    report = ["recon", str(scan), "-o", str(tmp_path / "i.nii"), "--maps-out", "g,snr", "--report"]
    assert cli.main([*report, str(tmp_path / "report.html")]) == 0
    image = nibabel.load(tmp_path / "i.nii")
    image.header["descrip"] = b"</script><!--"
    other = nibabel.Nifti1Image(np.roll(image.get_fdata(), 9, 0).astype(np.float32), image.affine, image.header)
    other.to_filename(hostile := tmp_path / ("</script>'&\"".replace("/", "_") + ".nii"))
    assert cli.main(["view", str(tmp_path / "i.nii"), str(hostile), "-o", str(tmp_path / "view.html")]) == 0
    monkeypatch.setattr(page, "LIBRARY", "none.js")
    assert cli.main([*report, str(tmp_path / ("long" * 50 + ".html"))]) == 0
    pages = sorted(tmp_path.glob("*.html"))
    told = dict(zip((p.stem[:6] for p in pages), opened(*pages)))
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
