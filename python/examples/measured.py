#!/usr/bin/env python3
"""
A measured head
===============

A fully sampled scan of a head with 16 coils; the example leaves out lines. The scan is not part of the
package: set ``CTESSEL_DATA`` to a folder with ``brain16_ksp.cfl`` and its header, or give the name
of any fully sampled BART pair of one slice.
"""

import os
import sys
import tempfile
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import numpy as np
from matplotlib import pyplot

import ctessel
from ctessel import pipeline


def read(name):
    """k-space (x, y, z, coil) of a BART pair."""
    extents = Path(f"{name}.hdr").read_text().splitlines()[1].split()
    return np.fromfile(f"{name}.cfl", "<c8").reshape([int(n) for n in extents[:4]], order="F")


def magnitude(kspace):
    return ctessel.sos(pipeline.to_image(kspace)).squeeze()


def error(image, full):
    scale = np.vdot(image, full) / np.vdot(image, image)
    return np.linalg.norm(scale * image - full) / np.linalg.norm(full)


def homodyne(kspace):
    """84 of 128 lines, and the same share of any other extent."""
    lines = np.arange(kspace.shape[1]) - kspace.shape[1] // 2
    first = -round(kspace.shape[1] * 20 / 128)
    partial = np.where((lines >= first)[:, None, None], kspace, 0)
    image = pipeline.homodyne_recon(partial, (None, (first, int(lines[-1])), None))
    return magnitude(partial), ctessel.sos(image).squeeze()


def sense(kspace):
    """Every second line, with maps from the 24 lines in the middle."""
    middle = kspace.shape[1] // 2
    maps, _ = pipeline.sensitivity_maps(kspace[:, middle - 12 : middle + 12], kspace.shape[:3], mask=0)
    folded = np.sqrt(np.float32(2)) * pipeline.to_image(np.ascontiguousarray(kspace[:, middle % 2 :: 2]))
    return np.abs(ctessel.sense_recon(folded, maps)).squeeze()


def main():
    folder = Path(sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp(prefix="ctessel-"))
    name = sys.argv[2] if len(sys.argv) > 2 else Path(os.environ.get("CTESSEL_DATA", "")) / "brain16_ksp"
    if not Path(f"{name}.cfl").exists():
        print(f"no {name}.cfl: nothing to show")
        return
    kspace = read(name)
    full = magnitude(kspace)
    zero_filled, sharp = homodyne(kspace)
    shown = {"all lines": full, "84 of 128 lines, zero-filled": zero_filled, "homodyne": sharp,
             "SENSE, R = 2": sense(kspace)}  # fmt: skip
    figure, axes = pyplot.subplots(1, 4, figsize=(14, 4), layout="constrained")
    for axis, (title, image) in zip(axes, shown.items()):
        axis.imshow(image.T, origin="lower", cmap="gray", vmin=0, vmax=np.percentile(image, 99.5))
        axis.set(title=f"{title}\nerror {error(image, full):.3f}", xticks=[], yticks=[])
    figure.savefig(folder / "measured.png", dpi=80)
    print(f"pictures are in {folder}")


if __name__ == "__main__":
    main()
