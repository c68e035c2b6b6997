"""What `ctessel info` says and draws about a scan."""

import foreign
import lookalike
import numpy as np
from command import refused, run
from matplotlib import image
from scans import lines

from ctessel import phantom


def info(capsys, path, *more):
    """The facts that are printed, and the lines of the drawing."""
    assert run("info", path, *more) == 0
    facts, drawing, *_ = capsys.readouterr().out.split("\n\n")
    named = (line.split("  ", 1) for line in facts.splitlines())
    return {name.strip(): text.strip() for name, text in named}, drawing.splitlines()


def test_lines_noise_and_calibration_are_found_again(tmp_path, capsys):
    phantom.write(tmp_path / "p.h5", "noise", size=64, coils=4, noise=0.05)
    words, drawing = info(capsys, tmp_path / "p.h5")
    assert words["lines along y"] == "-32 to 30 of -32 to 31, in steps of 2; calibration -12 to 11"
    row = np.full(64, ".")
    row[::2], row[20:44] = "#", "C"
    assert drawing[0] == "".join(row) and drawing[1] == " " * 32 + "^ ky = 0"
    assert 0.045 < float(words["noise level"].split()[0]) < 0.055
    assert words["groups"] == "dataset (45 acquisitions)"


def test_volumes_and_turns_are_drawn(tmp_path, capsys):
    measured = np.outer(lines(48, 2, calibration=8), np.ones(60, bool))
    measured[:, 50:] = False
    samples = lookalike.keep(lookalike.kspace((16, 48, 60)), measured)
    facts, drawing = info(capsys, lookalike.cfl(tmp_path / "v", samples))
    assert len(drawing) == 20 + 2 and "a character is 3 lines" in drawing[-1]  # 3 lines along z in one
    assert set(drawing[16]) == {".", "+", "C"} and set(drawing[17]) == {"."}
    beside = [*range(20), *range(29, 48)]  # 28 joins the block
    assert [c for c in drawing[5] if c != "C"] == ["#" if i % 2 == 0 else "." for i in beside]
    phantom.write(tmp_path / "t.h5", "interleaved", size=32, coils=4)
    _, drawing = info(capsys, tmp_path / "t.h5")
    assert drawing[:2] == ["#." * 16 + "  2 repetitions", ".#" * 16 + "  2 repetitions"]
    phantom.write(tmp_path / "c.h5", "3d-caipi", size=32, coils=4)
    facts, drawing = info(capsys, tmp_path / "c.h5")
    assert drawing[:2] == ["#..." * 8, "..#." * 8]
    assert "in steps of 2, shifted by 1 from one line of y to the next" in "".join(facts.values())


def test_the_echo_peaks_where_its_energy_is(tmp_path, capsys):
    samples = lookalike.kspace((32, 64, 1))
    for centre, words in ((32, "x +0, y +0"), (30, "x +0, y +2"), (35, "x +0, y -3")):
        path = lookalike.cfl(tmp_path / "c", samples)
        assert info(capsys, path, "--centre", centre)[0]["echo peaks"] == f"{words} from k = 0"


def test_what_was_left_out_is_told_by_kind(tmp_path, capsys):
    kspace = foreign.image(16, 16)
    records = foreign.records(kspace)
    for number, count in ((23, 3), (27, 1), (30, 2)):
        records += [foreign.record(kspace[:, 0], 0, flags=1 << (number - 1))] * count
    foreign.write(tmp_path / "r.h5", records, foreign.header(16, 16))
    facts, _ = info(capsys, tmp_path / "r.h5")
    assert "3 navigators, 1 dummies, 2 phase references" in "".join(facts.values())


def test_the_picture_shows_this_scan(tmp_path, capsys):
    pictures = []
    for number, step in enumerate((1, 2, 2)):
        samples = lookalike.keep(lookalike.kspace((16, 48, 1)), lines(48, step, calibration=8 * (number == 2)))
        path = lookalike.cfl(tmp_path / "c$_{x}$", samples)
        info(capsys, path, "--plot", tmp_path / f"{number}.png")
        pictures.append((image.imread(tmp_path / f"{number}.png")[..., :3] * 255).round().astype(int))
    colour = {name: np.array(value) for name, value in (("line", (31, 78, 121)), ("calibration", (217, 119, 6)))}
    counts = [{name: (np.abs(p - value).max(2) < 3).sum() for name, value in colour.items()} for p in pictures]
    assert counts[0]["line"] > 1.7 * counts[1]["line"] > 1000
    assert counts[2]["calibration"] > 10 * counts[0]["calibration"]
    refused(capsys, "no such folder", "info", path, "--plot", tmp_path / "none" / "a.png")
    assert run("info", path, "--plot", "a.jpg") == 2
