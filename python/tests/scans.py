"""Scans of a phantom whose images are known."""

from dataclasses import replace

import numpy as np
from conftest import random_complex

from ctessel import _raw, phantom as phantoms, pipeline
from ctessel.acquisitions import HEADER
from ctessel.scan import Header, Limit, Placement, Scan

FIELD = 240.0


def axes(shape):
    """Coordinates from -1 to 1 along three axes."""
    return np.meshgrid(*[(np.arange(n) - n // 2) * (2 / n) for n in shape], indexing="ij")


def phantom(shape, steep=1.0):
    x, y, z = axes(shape)
    body = 1.0 * (x**2 / 0.6 + y**2 / 0.7 + z**2 / 0.8 < 1)
    body -= 0.5 * ((x - 0.2) ** 2 + (y + 0.3) ** 2 + z**2 < 0.08)
    return (body * np.exp(1j * (0.5 + steep * (0.8 * x - 0.5 * y + 0.3 * z)))).astype(np.complex64)


def coils(shape, count):
    x, y, z = axes(shape)
    turns = 2 * np.pi * np.arange(count) / count

    away = [(x - np.cos(a)) ** 2 + (y - np.sin(a)) ** 2 + (z - np.cos(2 * a) / 2) ** 2 for a in turns]
    return np.exp(-np.stack(away, -1) / 2 + 1j * turns).astype(np.complex64)


def lines(count, step=1, offset=0, calibration=0, first=None, last=None):
    """Mask of measured lines of one axis; `first` and `last` count from k = 0."""
    k = np.arange(count) - count // 2
    mask = ((k - offset) % step == 0) | ((k >= -calibration // 2) & (k < calibration // 2))
    return mask & (k >= (k[0] if first is None else first)) & (k <= (k[-1] if last is None else last))


def shifted(shape, step_y, step_z, shift, offset=(0, 0), block=12):
    """Mask of every `step_y`-th line of y, in which those of z move on from one to the next; calibration around k = 0."""
    y, z = (np.arange(n) - n // 2 for n in shape)
    turn, rest = np.divmod(y - offset[0], step_y)
    mask = (rest == 0)[:, None] & ((z - offset[1] - shift * turn[:, None]) % step_z == 0)
    return mask | np.outer(abs(y + 0.5) < block / 2, abs(z + 0.5) < block / 2)


def header(shape, oversampling=1, slices=1):
    encoded = (shape[0] * oversampling, *shape[1:])
    depth = FIELD if shape[2] > 1 else 5.0
    places = [Placement(np.array([0, 0, 6.0 * i]), *np.eye(3)) for i in range(slices)]
    limits = {a: Limit(0, n - 1, n // 2) for a, n in zip("xyz", encoded)}
    fields = (FIELD * oversampling, FIELD, depth), (FIELD, FIELD, depth)
    return Header(encoded, fields[0], tuple(shape), fields[1], limits, placements=places)


def scan(shape=(48, 48, 1), count=6, y=None, z=None, slices=1, repetitions=1, oversampling=1, noise=0.0, mask=None,
         growth=1 / 8, seed=0):  # fmt: skip
    """Root sum of squares of the coil images, and the scan; repetitions grow brighter."""
    images = coils(shape, count) * phantom(shape)[..., None]
    level = 1 + np.arange(slices)[:, None, None] / 4 + np.arange(repetitions) * growth
    truth = np.sqrt((np.abs(images) ** 2).sum(-1))[..., None, None, None] * level
    kspace = pipeline.to_kspace(pipeline.resize(images, (shape[0] * oversampling,)))
    kspace = kspace[..., None, None, None] * level
    sampled = np.outer(lines(shape[1]) if y is None else y, lines(shape[2]) if z is None else z)
    sampled = sampled if mask is None else mask
    kspace = (kspace + noise * random_complex(kspace.shape, seed)) * sampled[None, :, :, None, None, None, None]
    measured = noise * random_complex((4000, count), seed + 1) if noise else None
    kspace = np.asfortranarray(kspace, np.complex64)
    return truth, Scan.of(kspace, header(shape, oversampling, slices), sampled, noise=measured)


def scan_of(kspace, lines=None, noise=None):
    """A scan of one image, (x, y, z, coil)."""
    kspace = np.asfortranarray(kspace[..., None, None, None], np.complex64)
    return Scan.of(kspace, header(kspace.shape[:3]), lines, noise=noise)


def known(scan, kspace=None, **changes):
    """The scan with other k-space, or with other things known about it."""
    kspace = scan.kspace if kspace is None else kspace
    return Scan(replace(scan.layout, shape=kspace.shape, **changes), kspace, scan.calibration)


def error(image, truth):
    """Of magnitudes, relative."""
    return np.linalg.norm(np.abs(image) - truth) / np.linalg.norm(truth)


def level(image, truth):
    """Factor that brings the second image closest to the first."""
    return (image * truth).sum() / (truth**2).sum()


def acquired(**fields):
    """The header of a line that was measured along the scanner's axes."""
    head = np.zeros((), HEADER)
    for name, value in {"read_dir": (1, 0, 0), "phase_dir": (0, 1, 0), "slice_dir": (0, 0, 1), **fields}.items():
        head[name] = value
    return head


def write_lines(path, acquisitions, text):
    """A file of headers and samples, (sample, coil)."""
    writer = _raw.Writer(str(path), "dataset", text)
    for head, samples in acquisitions:
        writer.append(np.frombuffer(head.tobytes(), np.uint8), np.asfortranarray(samples, np.complex64))
    writer.close()
    return path


def write_broken(monkeypatch, path, kind, coil, **changes):
    """A phantom's raw data of which a coil measures zeros, but for its noise scan."""
    whole = phantoms._acquisitions

    def acquisitions(*arguments):
        for head, samples in whole(*arguments):
            if not int(head["flags"]) & 1 << 18:
                samples = samples.copy(order="F")
                samples[:, coil] = 0
            yield head, samples

    with monkeypatch.context() as patch:
        patch.setattr(phantoms, "_acquisitions", acquisitions)
        phantoms.write(path, kind, **changes)
