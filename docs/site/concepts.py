#!/usr/bin/env python3
"""Pictures of the conventions (centre, folding, padding, patient axes) and of a stream.

concepts.py FOLDER
"""

import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import numpy as np
from matplotlib import pyplot
from matplotlib.patches import Ellipse, Rectangle

INK, CENTRE, PALE, ZERO = "#1f4e9e", "#c0392b", "#cfdcf0", "#ffffff"


def draw(folder):
    folder.mkdir(exist_ok=True)
    for picture in (centre, folding, padding, patient, stream):
        figure = picture()
        figure.savefig(folder / f"{picture.__name__}.png", dpi=80)
        pyplot.close(figure)


def canvas(width, height, across, up):
    figure, axes = pyplot.subplots(figsize=(width, height), layout="constrained")
    axes.set(xlim=across, ylim=up, aspect="equal")
    axes.axis("off")
    return figure, axes


def cells(axes, left, bottom, texts, colours):
    for i, (text, colour) in enumerate(zip(texts, colours)):
        axes.add_patch(Rectangle((left + i, bottom), 1, 1, facecolor=colour, edgecolor=INK))
        dark = colour == CENTRE
        axes.text(left + i + 0.5, bottom + 0.5, text, ha="center", va="center", color="white" if dark else "black")


def centre():
    """Lines and indices of an even and of an odd axis."""
    figure, axes = canvas(7, 3.6, (-3.4, 8.2), (-0.4, 5.4))
    for n, bottom in ((8, 3.4), (5, 0.4)):
        lines = [i - n // 2 for i in range(n)]
        colours = [CENTRE if k == 0 else PALE for k in lines]
        cells(axes, 0, bottom, lines, colours)
        axes.text(-0.3, bottom + 0.5, f"line, N = {n}", ha="right", va="center")
        axes.text(-0.3, bottom - 0.4, "index", ha="right", va="center", color="0.4")
        for i in range(n):
            axes.text(i + 0.5, bottom - 0.4, i, ha="center", va="center", color="0.4")
    axes.text(4.5, 4.8, "k = 0", ha="center", color=CENTRE)
    axes.text(2.5, 1.8, "k = 0", ha="center", color=CENTRE)
    return figure


def folding():
    """The full field of view, and the folded one that R = 2 leaves: its ends come in from the other side."""
    figure, (full, folded) = pyplot.subplots(1, 2, figsize=(7, 3.6), layout="constrained", sharey=True)
    for axes in (full, folded):
        axes.set(xlim=(-4.3, 4.3), ylim=(-4.3, 4.3), aspect="equal", xticks=[])
    full.set(title="full: y from -4 to 3", yticks=range(-4, 4), ylabel="y")
    folded.set(title="folded, R = 2: y from -2 to 1")
    full.add_patch(Ellipse((0, -0.5), 5, 6.6, facecolor=PALE, edgecolor=INK))
    full.add_patch(Rectangle((-4.2, -2.5), 8.4, 4, fill=False, edgecolor=CENTRE, lw=1.5))
    frame = Rectangle((-4.2, -2.5), 8.4, 4, fill=False, edgecolor=CENTRE, lw=1.5)
    folded.add_patch(frame)
    for shift, style in ((0, "-"), (4, "--"), (-4, "--")):
        copy = Ellipse((0, -0.5 + shift), 5, 6.6, facecolor=PALE, edgecolor=INK, alpha=0.7, ls=style)
        folded.add_patch(copy)
        copy.set_clip_path(frame)
    return figure


def padding():
    """Where samples go: an odd spare zero lies in front."""
    figure, axes = canvas(7, 3.4, (-3.6, 7), (-0.6, 5.2))
    rows = [("2 samples", 0, ["a", "b"], 4), ("padded to 5", 0, ["0", "0", "a", "b", "0"], 2.2),
            ("padded to 6", 0, ["0", "0", "a", "b", "0", "0"], 0.4)]  # fmt: skip
    for title, left, texts, bottom in rows:
        middle = len(texts) // 2
        colours = [CENTRE if i == middle else ZERO if t == "0" else PALE for i, t in enumerate(texts)]
        cells(axes, left, bottom, texts, colours)
        axes.text(-0.3, bottom + 0.5, title, ha="right", va="center")
    axes.text(3.2, 4.5, "red: index N // 2", va="center", color=CENTRE)
    return figure


def patient():
    """Patient axes of raw data and of NIfTI, which point apart in two of three directions."""
    figure, panels = pyplot.subplots(1, 2, figsize=(7, 3.4), layout="constrained")
    body = {"facecolor": "#eeeeee", "edgecolor": "#555555"}
    for axes, title in zip(panels, ("axial, seen from the feet", "sagittal, seen from the left")):
        axes.set(xlim=(-2.3, 2.3), ylim=(-2.3, 2), aspect="equal", title=title)
        axes.axis("off")
    panels[0].add_patch(Ellipse((0, 0), 2.4, 1.6, **body))
    panels[0].add_patch(Ellipse((0, 0.9), 0.3, 0.3, **body))
    panels[1].add_patch(Ellipse((0, 0), 1.6, 2.4, **body))
    panels[1].add_patch(Ellipse((-0.9, 0.1), 0.3, 0.3, **body))
    arrows(panels[0], {"L": (1, 0), "P": (0, -1)}, {"R": (-1, 0), "A": (0, 1)})
    arrows(panels[1], {"P": (1, 0), "S": (0, 1)}, {"A": (-1, 0)})
    panels[0].text(0, -2.25, "blue: raw data, DICOM (L, P, S)", ha="center", color=INK)
    panels[1].text(0, -2.25, "red: NIfTI (R, A, S)", ha="center", color=CENTRE)
    return figure


def stream():
    """Slices that are measured one after the other, and their images, each out before the next is complete."""
    figure, axes = canvas(7, 2.2, (-2.2, 7.4), (-0.6, 2.6))
    for row, text in ((1.5, "scanner"), (0, "ctessel serve")):
        axes.text(-0.3, row + 0.4, text, ha="right", va="center")
    for i in range(6):
        axes.add_patch(Rectangle((i * 1.1, 1.5), 1.04, 0.8, facecolor=PALE, edgecolor=INK))
        axes.text(i * 1.1 + 0.52, 1.9, f"slice {i}", ha="center", va="center", fontsize=9)
        place = i * 1.1 + 1.04
        axes.annotate("", (place, 0.85), (place, 1.5), arrowprops={"arrowstyle": "->", "color": INK})
        axes.add_patch(Rectangle((place, 0), 0.5, 0.8, facecolor=CENTRE))
        axes.text(place + 0.25, 0.4, i, ha="center", va="center", color="white")
    axes.annotate("time", (7.3, -0.4), (0, -0.4), arrowprops={"arrowstyle": "->", "color": "0.4"}, va="center")
    return figure


def arrows(axes, *groups):
    for colour, group in zip((INK, CENTRE), groups):
        for name, step in group.items():
            end = np.multiply(1.5, step)
            axes.annotate("", end, (0, 0), arrowprops={"arrowstyle": "->", "color": colour, "lw": 1.8})
            axes.text(*np.multiply(1.75, step), name, color=colour, ha="center", va="center")


if __name__ == "__main__":
    draw(Path(sys.argv[1]))
