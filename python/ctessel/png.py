"""Pictures of arrays: grey values and colours, mosaics, and PNG files of them.

Arrays are ``(x, y)``, x to the right and y downwards; pixels are ``(row, column)`` or with three colours.
"""

import struct
import zlib

import numpy as np

#: Colours of a map from its lowest to its highest value; they go from dark to bright, also in grey.
_COLOURS = np.array([
    (68, 1, 84), (72, 40, 120), (62, 74, 137), (49, 104, 142), (38, 130, 142), (31, 158, 137), (53, 183, 121),
    (110, 206, 88), (181, 222, 43), (253, 231, 37),
])  # fmt: skip


def encode(pixels):
    """A PNG file of uint8 pixels."""
    height, width, *colours = pixels.shape
    rows = np.zeros((height, 1 + pixels[0].size), np.uint8)  # a filter in front of each row: none
    rows[:, 1:] = pixels.reshape(height, -1)
    head = struct.pack(">2I5B", width, height, 8, 2 if colours else 0, 0, 0, 0)
    parts = ((b"IHDR", head), (b"IDAT", zlib.compress(rows.tobytes(), 9)), (b"IEND", b""))
    return b"\x89PNG\r\n\x1a\n" + b"".join(_chunk(*part) for part in parts)


def _chunk(name, data):
    return struct.pack(">I", len(data)) + name + data + struct.pack(">I", zlib.crc32(name + data))


def grey(values, low=0.0, high=None):
    """Grey pixels: `low` and less is black, `high` (by default nearly all are below it) white."""
    return _levels(values, low, high).astype(np.uint8).T


def colour(values, low=0.0, high=None):
    """Coloured pixels, from dark blue at `low` to yellow at `high`."""
    at = np.rint(_levels(values, low, high) / 8) / 32 * (len(_COLOURS) - 1)  # noise with more levels compresses badly
    places = np.arange(len(_COLOURS))
    return np.stack([np.interp(at, places, c) for c in _COLOURS.T], -1).astype(np.uint8).swapaxes(0, 1)


def phase(angles, weight):
    """Coloured pixels of angles in radians, as dark as `weight` (0 to 1) is small."""
    angles, weight = np.rint(angles * (18 / np.pi)) * (np.pi / 18), np.rint(weight * 8) / 8
    phases = np.stack([angles, angles - 2 * np.pi / 3, angles + 2 * np.pi / 3], -1)
    return (127.5 * (1 + np.cos(phases)) * weight[..., None]).astype(np.uint8).swapaxes(0, 1)


def usual_top(values):
    """A value that nearly all values are below; 1 if all are 0."""
    finite = values[np.isfinite(values)]
    return float(np.percentile(finite, 99.8)) or float(finite.max()) or 1.0 if finite.size else 1.0


def _levels(values, low, high):
    values = np.nan_to_num(np.asarray(values, np.float64))
    high = usual_top(values) if high is None else high
    return np.clip((values - low) / ((high - low) or 1.0), 0, 1) * 255


def mosaic(stack, most=36):
    """At most `most` of the pictures ``(x, y, number)`` as a mosaic: ``(x, y)``."""
    if stack.shape[2] > most:
        stack = stack[:, :, np.linspace(0, stack.shape[2] - 1, most).astype(int)]
    nx, ny, count = stack.shape
    columns = int(np.ceil(np.sqrt(count)))
    made = np.zeros((columns * nx, -(-count // columns) * ny), stack.dtype)
    for i in range(count):
        row, column = divmod(i, columns)
        made[column * nx : (column + 1) * nx, row * ny : (row + 1) * ny] = stack[:, :, i]
    return made


def square(values, field):
    """``(x, y)`` with rows repeated or left out so that voxels of a field (mm, x and y) look square."""
    nx, ny = values.shape[:2]
    height = max(1, round(nx * field[1] / field[0]))
    return values[:, (np.arange(height) * (ny / height)).astype(int)]


def fitted(values, least=160, most=360):
    """``(x, y)`` with values repeated, or blocks averaged, so that the longer side is about `least` to `most`."""
    longer = max(values.shape[:2])
    if longer < least:
        times = -(-least // longer)
        return values.repeat(times, 0).repeat(times, 1)
    block = -(-longer // most)
    if block == 1:
        return values
    nx, ny = (max(1, n // block) for n in values.shape[:2])
    step = [min(block, n) for n in values.shape[:2]]
    cut = values[: nx * step[0], : ny * step[1]]
    return cut.reshape(nx, step[0], ny, step[1], *values.shape[2:]).mean((1, 3))
