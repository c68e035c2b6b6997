#!/usr/bin/env python3
"""
Homodyne, SENSE and geometry correction on a phantom
====================================================

The kernels on NumPy arrays, with transforms by NumPy. The phantom is an ellipse with bars and a smooth
phase, measured with eight coils.

1. Homodyne: 84 of 128 lines. The error is that of the magnitude.
2. SENSE from every second line, and the standard deviation of unfolded noise.
3. A straight grid (grey), and the positions at which non-linear gradients encode it (blue).
"""

import sys
import tempfile
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

import ctessel
from ctessel import homodyne

N, COILS = 128, 8


def image_of(kspace):
    image = np.fft.ifft2(ctessel.ifftshift(kspace, (0, 1)), axes=(0, 1), norm="ortho")
    return ctessel.fftshift(image.astype(np.complex64), (0, 1))


def kspace_of(image):
    kspace = np.fft.fft2(ctessel.ifftshift(image, (0, 1)), axes=(0, 1), norm="ortho")
    return ctessel.fftshift(kspace.astype(np.complex64), (0, 1))


def phantom():
    """Ellipses and bars with a smooth phase."""
    x, y = np.meshgrid(np.linspace(-1, 1, N), np.linspace(-1, 1, N), indexing="ij")
    body = 1.0 * (x**2 / 0.7 + y**2 / 0.5 < 1) - 0.4 * ((x - 0.2) ** 2 + y**2 < 0.09)
    bars = (np.abs(x + 0.45) < 0.2) & (np.abs(y) < 0.35) & (np.floor(y * 32) % 2 == 0)
    return ((body + 0.5 * bars) * np.exp(1j * (1 + x + 0.7 * y**2))).astype(np.complex64)


def coil_maps():
    x, y = np.meshgrid(np.linspace(-1, 1, N), np.linspace(-1, 1, N), indexing="ij")
    angles = 2 * np.pi * np.arange(COILS) / COILS
    maps = [np.exp(-((x - np.cos(a)) ** 2 + (y - np.sin(a)) ** 2) / 0.8 + 1j * a) for a in angles]
    return np.stack(maps, -1)[:, :, None].astype(np.complex64)  # (x, y, z, coil)


def show(path, pictures):
    figure, axes = plt.subplots(1, len(pictures), figsize=(4 * len(pictures), 4.3), layout="constrained")
    for axis, (title, picture, scale) in zip(axes, pictures):
        shown = axis.imshow(picture.T, origin="lower", cmap="gray" if scale is None else "viridis", vmax=scale)
        axis.set(title=title, xticks=[], yticks=[])
        if scale is not None:
            figure.colorbar(shown, ax=axis, shrink=0.8)
    figure.savefig(path, dpi=80)


def homodyne_reconstruction(truth):
    kspace = kspace_of(truth)[:, :, None]
    kspace[:, : N // 2 - 20] = 0  # ky lines -64 to -21 are missing
    weighted, centre = homodyne.filter(kspace, ky=(-20, N // 2 - 1))
    low = image_of(ctessel.zero_pad(centre, kspace.shape))
    low[low == 0] = 1  # an empty voxel has no phase to remove
    return image_of(kspace), homodyne.multiply(image_of(weighted), low)


def sense_with_noise(truth, reduction=2):
    """Unfolded image, and the standard deviation of 64 unfolded images of noise."""
    sens = coil_maps()
    kspace = kspace_of(sens[:, :, 0] * truth[..., None])[:, ::reduction]
    folded = np.float32(np.sqrt(reduction)) * image_of(kspace)[:, :, None]
    image = ctessel.sense_recon(folded, sens)
    rng = np.random.default_rng(0)
    shape = folded.shape + (64,)
    noise = (rng.standard_normal(shape) + 1j * rng.standard_normal(shape)).astype(np.complex64)
    return image, ctessel.sense_recon(noise, sens).std(-1)


def corrected_grid():
    """Lines of a straight grid as gradients with a cubic and a quintic term encode them."""
    coeff_x, coeff_y, coeff_z = np.zeros((14, 12)), np.zeros((14, 12)), np.zeros(17)
    coeff_x[1, 1] = coeff_y[1, 1] = coeff_z[1] = 1
    coeff_x[3, 1] = coeff_y[3, 1] = -0.05
    coeff_x[5, 1] = coeff_y[5, 1] = -0.01
    x, y = np.meshgrid(np.linspace(-0.2, 0.2, 17), np.linspace(-0.2, 0.2, 17), indexing="ij")
    x, y = x.astype(np.float32), y.astype(np.float32)
    z = np.full_like(x, 0.02)
    xd, yd, _ = ctessel.geometry_correction(x, y, z, coeff_x, coeff_y, coeff_z, 0.25)
    return (x, y), (xd, yd)


def show_grids(path, straight, bent):
    figure, axis = plt.subplots(figsize=(5, 5), layout="constrained")
    for (x, y), style in ((straight, "0.8"), (bent, "C0")):
        axis.plot(100 * x, 100 * y, style)
        axis.plot(100 * x.T, 100 * y.T, style)
    axis.set(aspect="equal", xlabel="x / cm", ylabel="y / cm", title="Points, and where they are encoded")
    figure.savefig(path, dpi=80)


def main(folder):
    truth = phantom()
    zero_filled, result = homodyne_reconstruction(truth)
    error = np.abs(np.abs(result[..., 0]) - np.abs(truth))
    show(
        folder / "homodyne.png",
        [
            ("zero-filled", np.abs(zero_filled[..., 0]), None),
            ("homodyne", np.abs(result[..., 0]), None),
            ("error", error, 0.1),
        ],
    )
    image, noise = sense_with_noise(truth)
    show(
        folder / "sense.png",
        [("SENSE, R = 2", np.abs(image[..., 0]), None), ("noise map", noise[..., 0], float(np.percentile(noise, 99)))],
    )
    show_grids(folder / "geometry.png", *corrected_grid())
    return truth, zero_filled[..., 0], result[..., 0], image[..., 0]


if __name__ == "__main__":
    pictures = Path(sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp(prefix="ctessel-"))
    main(pictures)
    print(f"pictures are in {pictures}")
