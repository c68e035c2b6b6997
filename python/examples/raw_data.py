#!/usr/bin/env python3
"""
From raw data to an image and its noise
=======================================

This example writes a phantom as an ISMRMRD file, like a scanner: every second line, 24 ACS lines and a
noise scan. `pipeline.plan` describes what will be done before samples are read, and
`pipeline.reconstruct` does it.
"""

import sys
import tempfile
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import numpy as np
from matplotlib import pyplot

import ctessel
from ctessel import phantom, pipeline, raw

pictures = Path(sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp(prefix="ctessel-"))

# %%
# The file, and the plan in words.
phantom.write(pictures / "scan.h5", "noise", size=128, coils=8)
scan = raw.read(pictures / "scan.h5")
plan = pipeline.plan(scan)
print(f"k-space has the shape {scan.kspace.shape}: x, y, z, coil, slice, echo, repetition")
print(*plan.steps, sep="\n")

# %%
# The image.
image = pipeline.reconstruct(scan, plan=plan).image.squeeze()

# %%
# The same by hand, without SENSE: coils are prewhitened with the noise scan, transformed, and combined.
# Lines that were not measured are zeros, so the image shows the object and its alias.
lines = pipeline.remove_oversampling(scan.kspace, scan.layout.header.recon_matrix[0])
white = pipeline.whiten(lines, pipeline.noise_covariance(scan.layout.noise))
aliased = pipeline.combine(pipeline.to_image(white), "sos").squeeze()

figure, axes = pyplot.subplots(1, 2, figsize=(8, 4.3), layout="constrained")
for axis, (title, shown) in zip(axes, [("zero-filled", aliased), ("SENSE", image)]):
    axis.imshow(np.abs(shown).T, origin="lower", cmap="gray")
    axis.set(title=title, xticks=[], yticks=[])
figure.savefig(pictures / "raw_data.png", dpi=80)

# %%
# The sensitivities determine how much noise an acceleration adds: the g-factor.
size = white.shape[:3]
middle = size[1] // 2
calibration = white[:, middle - 12 : middle + 12, :, :, 0, 0, 0]
maps, low_resolution = pipeline.sensitivity_maps(calibration, size)
figure, axes = pyplot.subplots(1, 3, figsize=(12, 3.8), layout="constrained")
for axis, folded in zip(axes, (64, 56, 48)):
    g, *_ = ctessel.sense_noise(maps, full_size=size, fold_size=(size[0], folded, 1))
    shown = axis.imshow(g.squeeze().T, origin="lower", vmin=1, vmax=3)
    axis.set(title=f"g-factor, R = {size[1] / folded:.3g}", xticks=[], yticks=[])
figure.colorbar(shown, ax=axes)
figure.savefig(pictures / "g_factor.png", dpi=80)
print(f"pictures are in {pictures}")
