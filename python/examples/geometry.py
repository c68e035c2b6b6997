#!/usr/bin/env python3
"""
Non-linear gradients
====================

The axes of the scanner for four patient positions, the displacement over three planes through the
isocentre, and a straight grid, as the gradients encode it and corrected. The coefficients are invented;
their size is that of a short whole-body coil.
"""

import sys
import tempfile
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import numpy as np
from matplotlib import pyplot
from matplotlib.patches import Circle, Ellipse

import ctessel
from ctessel.gradients import POSITIONS

TERMS = [
    ("x", "A", 1, 1, 1), ("y", "B", 1, 1, 1), ("z", "A", 1, 0, 1),
    ("x", "A", 3, 1, -0.035), ("x", "A", 5, 1, -0.004), ("y", "B", 3, 1, -0.04), ("y", "B", 5, 1, -0.003),
    ("z", "A", 3, 0, -0.09), ("z", "A", 5, 0, -0.02),
]  # fmt: skip
RADIUS = 250
INK = {"x": "#c0392b", "y": "#2e7d32", "z": "#1f4e9e"}


def arrow(axes, start, step, colour, text):
    axes.annotate("", np.add(start, step), start, arrowprops={"arrowstyle": "->", "color": colour, "lw": 1.6})
    axes.text(*np.add(start, np.multiply(1.25, step)), text, color=colour, ha="center", va="center", fontsize=9)


def patient(axes, view, left, posterior, superior):
    """A patient seen along the bore (`view` "front") or from the side; directions in the picture."""
    if view == "front":
        axes.add_patch(Ellipse((0, 0), 1.7, 1, facecolor="#eeeeee", edgecolor="#555555"))
        axes.add_patch(Circle(np.multiply(-0.5, posterior), 0.12, facecolor="#555555"))  # nose
        arrow(axes, (0, 0), np.multiply(0.7, left), "#555555", "L")
    else:
        axes.add_patch(Ellipse(np.multiply(-0.25, superior), 1.7, 0.6, facecolor="#eeeeee", edgecolor="#555555"))
        head = np.multiply(0.85, superior)
        axes.add_patch(Circle(head, 0.26, facecolor="#eeeeee", edgecolor="#555555"))
        axes.add_patch(Circle(head - np.multiply(0.3, posterior), 0.09, facecolor="#555555"))
        arrow(axes, (0, 0), np.multiply(0.55, superior), "#555555", "S")
    arrow(axes, (0, 0), np.multiply(0.42, posterior), "#555555", "P")


def show_axes(path):
    figure, rows = pyplot.subplots(2, 4, figsize=(11, 5.2))
    for column, (position, (x, y, z)) in zip(rows.T, POSITIONS.items()):
        # Along the bore: x to the right, y downwards. From the side: z to the right, y downwards.
        patient(column[0], "front", (x, 0), (0, -y), (0, 0))
        patient(column[1], "side", (0, 0), (0, -y), (z, 0))
        column[0].set_title(f"{position}: x = {'+-'[x < 0]}L, y = {'+-'[y < 0]}P, z = {'+-'[z < 0]}S", fontsize=10)
        for axes, across in zip(column, "xz"):
            arrow(axes, (-1.25, 0.95), (0.4, 0), INK[across], across)
            arrow(axes, (-1.25, 0.95), (0, -0.4), INK["y"], "y")
            axes.set(xlim=(-1.5, 1.5), ylim=(-0.9, 1.15), aspect="equal")
            axes.axis("off")
    rows[0, 0].text(-1.45, -0.85, "from the end of the bore, z away", fontsize=8)
    rows[1, 0].text(-1.45, -0.85, "from the side, x towards the reader", fontsize=8)
    figure.savefig(path, dpi=80, bbox_inches="tight")


def plane(axis, places):
    """Points of a plane through the isocentre, and the two axes that it spans."""
    across, up = [d for d in range(3) if d != axis]
    points = np.zeros((len(places), len(places), 3))
    points[..., across], points[..., up] = np.meshgrid(places, places, indexing="ij")
    return points, across, up


def show_field(path, field):
    figure, panels = pyplot.subplots(1, 3, figsize=(12, 3.8), constrained_layout=True)
    places = np.linspace(-200, 200, 161)
    for axis, panel in enumerate(panels):
        points, across, up = plane(axis, places)
        size = np.linalg.norm(field.displacement(points), axis=-1)
        size[np.linalg.norm(points, axis=-1) > RADIUS] = np.nan
        shown = panel.contourf(places, places, size.T, np.arange(0, 25, 2), cmap="viridis", extend="max")
        few, *_ = plane(axis, np.linspace(-160, 160, 9))
        moved = field.displacement(few)
        panel.quiver(few[..., across], few[..., up], moved[..., across], moved[..., up],
                     color="white", angles="xy", scale_units="xy", scale=0.25)  # fmt: skip
        panel.set(xlabel=f"{'xyz'[across]} / mm", ylabel=f"{'xyz'[up]} / mm", aspect="equal")
        panel.set_title(f"{'xyz'[axis]} = 0; arrows four times as long")
    figure.colorbar(shown, ax=panels, label="displacement / mm")
    figure.savefig(path, dpi=80)


def show_grid(path, field):
    """A straight grid as it is seen, and what the correction makes of that image."""
    figure, panels = pyplot.subplots(1, 3, figsize=(11, 3.8), constrained_layout=True)
    fine = np.linspace(-180, 180, 181)
    true, *_ = plane(1, fine)
    seen = field.position(true)
    back, lost = field.inverse(seen)
    titles = "true", "as the gradients encode it", f"corrected: to {np.abs(back - true).max():.0e} mm"
    for panel, points, title in zip(panels, (true, seen, back), titles):
        for lines in (points[::20], points[:, ::20].transpose(1, 0, 2)):
            panel.plot(lines[..., 0].T, lines[..., 2].T, color="#1f4e9e", lw=0.9)
        panel.set(xlim=(-200, 200), ylim=(-200, 200), xlabel="x / mm", aspect="equal", title=title)
    assert lost == 0
    panels[0].set_ylabel("z / mm")
    figure.savefig(path, dpi=80)


def main():
    folder = Path(sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp(prefix="ctessel-"))
    field = ctessel.GradientField(TERMS, RADIUS)
    show_axes(folder / "geometry_axes.png")
    show_field(folder / "geometry_field.png", field)
    show_grid(folder / "geometry_grid.png", field)
    print(f"pictures are in {folder}")


if __name__ == "__main__":
    main()
