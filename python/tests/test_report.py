"""Reports and pages of images, as they are without JavaScript; test_browser.py has the rest."""

import base64
import io
import json
import warnings
import zlib
from html.parser import HTMLParser

import foreign
import nibabel
import numpy as np
import pytest
from command import recon, refused, run, sidecar
from PIL import Image

from ctessel import __version__, page, phantom, png

HOSTILE = "</script><b>\"'&--> " + "long" * 200


class Document(HTMLParser):
    """Tags that were opened and text, by tag; nothing may be left open or be closed twice."""

    def __init__(self, text):
        super().__init__()
        self.open, self.tags, self.words = [], [], {}
        self.feed(text)
        assert not self.open

    def handle_starttag(self, tag, attributes):
        self.tags.append((tag, dict(attributes)))
        if tag not in ("meta", "link", "img", "input", "rect", "!doctype"):
            self.open.append(tag)

    def handle_endtag(self, tag):
        if tag != "rect":
            assert self.open.pop() == tag

    def handle_data(self, data):
        if self.open:
            self.words.setdefault(self.open[-1], []).append(data)

    def all(self, tag):
        return [attributes for name, attributes in self.tags if name == tag]

    def picture(self, words):
        found = [i for i in self.all("img") if words in i["alt"]]
        assert len(found) == 1, [i["alt"] for i in self.all("img")]
        return decoded(base64.b64decode(found[0]["src"].split(",")[1]))


def decoded(file):
    return np.asarray(Image.open(io.BytesIO(file)))


def report(scan, folder, *options):
    recon(scan, folder / "i.nii", "--report", folder / "report.html", *options)
    return (folder / "report.html").read_text()


def blocks(path, coils=3, change=1.0, **fields):
    image = foreign.image(32, 16, coils=coils)
    image[-1] *= change
    return foreign.write(path, foreign.records(image), foreign.header(32, 16, **fields))


@pytest.mark.parametrize("kind, changes", [
    ("full", {"coils": 1, "size": 16}), ("noise", {"coils": 4, "size": 48, "slices": 3}),
    ("partial", {"coils": 2, "size": 32}), ("3d-undersampled", {"coils": 8, "size": 32}),
])  # fmt: skip
def test_a_report_says_what_was_done_without_javascript(tmp_path, kind, changes):
    phantom.write(scan := tmp_path / "scan.h5", kind, **changes)
    text = report(scan, tmp_path, "--ringing", 0.2)
    made, heads = Document(text), sidecar(tmp_path / "i.nii")["Steps"]
    assert len(made.all("h1")) == 1 and len(made.all("h2")) >= 3 and made.all("html")[0]["lang"] == "en"
    assert "Methods" in made.words["h2"] and any("1983" in words for words in made.words["li"])
    words = " ".join(sum(made.words.values(), []))
    command = f"ctessel recon {scan} -o {tmp_path / 'i.nii'} --report {tmp_path / 'report.html'} --ringing 0.2"
    for one in (*heads, command, "scan.h5", __version__, "This page has", "ringing [", np.__version__):
        assert one in words
    assert sum(int(i["width"]) > 60 and int(i["height"]) > 40 for i in made.all("img")) >= 3
    assert all(i["alt"] for i in made.all("img"))
    assert "http:" not in text and "https:" not in text
    assert made.picture("error of the image").max() > 0
    if kind == "noise":
        for map in ("g-factor", "SNR", "Residual"):
            assert made.picture(map).max() > 0
        assert any("SNR inside the object, one slice" in caption for caption in made.words["figcaption"])
    else:
        assert "Maps that are missing here" in text


def test_pictures_are_of_this_runs_arrays(tmp_path):
    first, second = (Document(report(blocks(tmp_path / f"{change}.h5", change=change), tmp_path)) for change in (1, 0))
    tiles = [made.picture("Images of 3 coils") for made in (first, second)]
    ny, nx = (n // 2 for n in tiles[0].shape)
    assert tiles[0][ny:, :nx].any() and not tiles[1][ny:, :nx].any()  # the third of 2 x 2 tiles
    assert tiles[1][:ny].any()
    for words, same in (("Energy", False), ("Image of slice 0", False), ("Lines in the plane", True)):
        assert np.array_equal(*(made.picture(words) for made in (first, second))) == same
    lines = np.unique(first.picture("Lines in the plane").reshape(-1, 3), axis=0)
    assert len(lines) == 1  # all were measured


def test_warnings_come_first_and_lost_lines_are_shown(tmp_path):
    lines = foreign.records(foreign.image(32, 32))
    scan = foreign.write(tmp_path / "s.h5", [line for y, line in enumerate(lines) if y != 5], foreign.header(32, 32))
    made = Document(report(scan, tmp_path))
    assert made.words["h2"][0] == "Warnings"
    colours = made.picture("31 of 32 measured").reshape(-1, 3)
    assert (colours == (230, 80, 60)).all(1).sum() * 32 == len(colours)


def test_scans_without_signal_have_a_report(tmp_path):
    nothing = foreign.records(np.zeros((2, 16, 32), np.complex64))
    scan = foreign.write(tmp_path / "s.h5", nothing, foreign.header(32, 16))
    with warnings.catch_warnings():
        warnings.simplefilter("error", RuntimeWarning)
        assert not Document(report(scan, tmp_path)).picture("Image of slice 0").any()


def test_names_in_files_stay_text(tmp_path):
    text = foreign.header(32, 16).replace("<experimentalConditions>",
        "<measurementInformation><protocolName>&lt;/script&gt;&lt;b&gt;\"'&amp;</protocolName></measurementInformation>"
        "<experimentalConditions>", 1)  # fmt: skip
    scan = foreign.write(tmp_path / "a<b>'\".h5", foreign.records(foreign.image(32, 16)), text)
    made = Document(report(scan, tmp_path))
    assert not made.all("b") and made.words["h1"] == ["Reconstruction of a<b>'\".h5"]
    image = nibabel.Nifti1Image(np.random.default_rng(1).random((20, 18, 4), np.float32), np.eye(4))
    image.header["descrip"] = b"</script><b>"
    image.to_filename(tmp_path / "x<b>.nii.gz")
    (tmp_path / "x<b>.json").write_text(json.dumps({"Warnings": [HOSTILE], HOSTILE: HOSTILE, "Steps": [HOSTILE]}))
    assert run("view", tmp_path / "x<b>.nii.gz", "-o", tmp_path / "v.html") == 0
    made = Document((tmp_path / "v.html").read_text())
    assert not made.all("b") and made.words["h2"][0] == "Warnings" and len(made.all("img")) == 4
    assert HOSTILE in made.words["td"] and "</script><b>" in made.words["td"]
    volumes = [json.loads(t) for t in made.words.get("script", []) if t.startswith("[")]
    assert not volumes or volumes[0][0]["name"] == "x<b>.nii.gz"


def test_a_page_that_cannot_be_is_refused_before_reading(tmp_path, capsys, monkeypatch):
    scan = blocks(tmp_path / "s.h5")
    (tmp_path / "folder.html").mkdir()
    monkeypatch.setattr("ctessel.raw.read", lambda *_, **__: pytest.fail("was read"))
    for name in ("none/r.html", "folder.html"):
        refused(capsys, "", "recon", scan, "-o", tmp_path / "i.nii", "--report", tmp_path / name)
    (tmp_path / "no.nii").write_text("no image")
    for name, words in (("none.nii", "no such file"), ("no.nii", "is it a NIfTI image?"), ("s.h5", ".nii")):
        refused(capsys, words, "view", tmp_path / name, "-o", tmp_path / "v.html")
    assert not (tmp_path / "i.nii").exists() and not (tmp_path / "v.html").exists()


def test_pages_are_small_volumes_are_capped_and_a_missing_viewer_is_told(tmp_path, monkeypatch):
    packed = page.viewer_code()
    monkeypatch.setattr(page, "MOST_VOXELS", 1000)
    monkeypatch.setattr(page, "LIBRARY", "none.js")
    ramp = np.broadcast_to(np.arange(64.0)[:, None, None], (64, 48, 5))
    assert not page.viewer_code() and len(packed or b"") < 0.85e6
    made = page.Page("a")
    made.volume("b", ramp, np.diag([2.0, 2, 3, 1]))
    made.viewer()
    assert "64 x 48 x 5 voxels, embedded as means of 4 x 4" in made.text()
    assert "1,000 voxels" in made.text() and "viewer is missing" in made.text()
    file = nibabel.Nifti1Image.from_bytes(zlib.decompress(base64.b64decode(made._volumes[0]["base64"]), 31))
    np.testing.assert_allclose(file.get_fdata()[:, 0, 0], np.arange(1.5, 64, 4), atol=0.07)
    np.testing.assert_allclose(file.affine @ (0, 0, 1, 1), (3, 3, 3, 1))
    noise = np.random.default_rng(0).random((700, 700, 3)).astype(np.float32)
    file = png.encode(png.grey(png.fitted(png.mosaic(noise))))
    assert decoded(file).shape == (350, 350)
    noise = noise[:360, :360, 0]  # the largest pictures of a report, of what packs worst
    colours = png.encode(png.colour(noise)), png.encode(png.phase(noise * 7, noise))
    assert 4 / 3 * (8 * len(png.encode(png.grey(noise))) + 6 * len(colours[0]) + len(colours[1])) < 2.8e6
