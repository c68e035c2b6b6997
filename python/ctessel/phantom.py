"""Test data: a known object, measured by coils in every way that `ctessel recon` supports.

>>> import tempfile, os, ctessel.phantom, ctessel.raw
>>> file = os.path.join(tempfile.mkdtemp(), "scan.h5")
>>> truth = ctessel.phantom.write(file, "undersampled", size=64, coils=4)
>>> ctessel.raw.describe(file)["lines"]
'44 of 64'
"""

import json
import os
from dataclasses import asdict, dataclass, replace

import numpy as np

from . import _ismrmrd, acquisitions, raw, runtime
from .fourier import to_kspace
from .acquisitions import HEADER
from .files import Staged
from .scan import Header, Limit

__all__ = ["KINDS", "Phantom", "truth", "write"]


@dataclass(frozen=True)
class Phantom:
    """How the object is measured.

    `partial` gives the measured share of lines along x, y and z; negative if the end is missing
    instead of the beginning. `reduction` is for y and z. From each measured line of y to the next, the
    lines of z are shifted by `shift` (CAIPIRINHA). `calibration` is "embedded",
    "separate" or "". `interleaved` shifts the undersampled lines from repetition to repetition.
    `pace` is the time from one line to the next by the scanner's clock in ms, 0 without a clock.
    Rotations are by `tilt` degrees, first about the left-right, then about the head-foot axis.
    """

    size: int = 128
    coils: int = 8
    partitions: int = 1
    slices: int = 1
    gap: float = 0.0
    echoes: int = 1
    repetitions: int = 1
    averages: int = 1
    oversampling: int = 2
    partial: tuple[float, float, float] = (1.0, 1.0, 1.0)
    reduction: tuple[int, int] = (1, 1)
    shift: int = 0
    calibration: str = ""
    calibration_lines: int = 24
    interleaved: bool = False
    noise: float = 0.0
    noise_scan: bool = False
    tilt: tuple[float, float] = (0.0, 0.0)
    position: tuple[float, float, float] = (0.0, 0.0, 0.0)
    voxel: tuple[float, float, float] = (2.0, 2.0, 4.0)
    pace: float = 0.0
    seed: int = 0


KINDS = {
    "full": Phantom(),
    "partial": Phantom(partial=(1.0, 0.65, 1.0)),
    "partial-end": Phantom(partial=(1.0, -0.65, 1.0)),
    "partial-readout": Phantom(partial=(0.7, 1.0, 1.0)),
    "undersampled": Phantom(reduction=(2, 1), calibration="embedded"),
    "undersampled-3": Phantom(reduction=(3, 1), calibration="separate"),
    "interleaved": Phantom(reduction=(2, 1), repetitions=4, interleaved=True),
    "noise": Phantom(reduction=(2, 1), calibration="embedded", noise=0.02, noise_scan=True),
    "slices": Phantom(slices=5, gap=1.0),
    "repetitions": Phantom(repetitions=3, noise=0.02),
    "echoes": Phantom(echoes=3),
    "averages": Phantom(averages=4, noise=0.05),
    "3d": Phantom(partitions=16, size=64, partial=(1.0, 1.0, 0.75)),
    "3d-undersampled": Phantom(partitions=24, size=64, reduction=(2, 2), calibration="embedded", calibration_lines=16),
    "3d-caipi": Phantom(
        partitions=24, size=64, reduction=(2, 2), shift=1, calibration="embedded", calibration_lines=16
    ),
    "oblique": Phantom(slices=3, tilt=(30.0, 20.0), position=(12.0, -30.0, 45.0)),
}
#: Kinds that scripts may still call by another name.
OLDER_NAMES = {"turns": "interleaved"}


def write(path, kind="full", *, group="dataset", progress=None, **changes):
    """Write raw data of a phantom.

    Parameters
    ----------
    path : str or path
        File, which appears once it is complete.
    kind : str, optional
        One of `KINDS`.
    group : str, optional
        Group of the HDF5 file.
    progress : callable, optional
        Called with the number of acquisitions done and their total.
    **changes
        Fields of `Phantom` that differ from the kind's.

    Returns
    -------
    ndarray of complex64, ``(x, y, z, slice, echo, repetition)``
        The object, as an image without artefacts and noise.
    """
    kind = OLDER_NAMES.get(kind, kind)
    if kind not in KINDS:
        raise ValueError(f"kind: expected one of {', '.join(KINDS)}, got {kind!r}")
    phantom = replace(KINDS[kind], **changes)
    _check(phantom)
    binding, lines, image = raw.binding(path), list(_measurements(phantom)), truth(phantom)
    with Staged() as files:
        target = files.path(path)
        try:
            writer = binding.Writer(os.fsencode(target), os.fsencode(group), _header_text(phantom))
            for done, (header, samples) in enumerate(_acquisitions(phantom, image, lines), 1):
                writer.append(np.frombuffer(header.tobytes(), np.uint8), samples)
                if progress:
                    progress(done, len(lines))
            writer.close()
        except RuntimeError as error:
            raise raw.RawError(f"{path}: cannot be written ({error}); check folder and free space") from None
        files.commit()
    return image


def _check(phantom):
    least = {
        "size": 16,
        "coils": 1,
        "partitions": 1,
        "slices": 1,
        "echoes": 1,
        "repetitions": 1,
        "averages": 1,
        "oversampling": 1,
    }
    for name, n in least.items():
        if getattr(phantom, name) < n:
            raise ValueError(f"{name}: expected at least {n}, got {getattr(phantom, name)}")
    if not 0 <= phantom.noise < np.inf:
        raise ValueError(f"noise: expected a standard deviation of at least 0, got {phantom.noise}")
    samples = phantom.size * phantom.oversampling
    if max(samples, phantom.coils) > 65535:
        raise ValueError(f"size: the format has up to 65535 samples and coils, got {samples} and {phantom.coils}")
    volume = 8 * samples * phantom.size * phantom.partitions * phantom.coils
    advice = "choose a smaller size, fewer coils or fewer slices"
    runtime.check((phantom.slices + 3) * volume, "the phantom", advice)


def truth(phantom):
    """The object of a `Phantom`: see `write`."""
    shape = (phantom.size, phantom.size, phantom.partitions)
    volumes = [_object(shape, s, phantom.slices) for s in range(phantom.slices)]
    stack = np.stack(volumes, -1)[..., None, None]
    decay = 0.8 ** np.arange(phantom.echoes)[:, None] * np.ones(phantom.repetitions)
    return np.asfortranarray(stack * decay, np.complex64)


def known_truth(header):
    """The object of a file that `write` has made; None for others."""
    try:
        return truth(Phantom(**json.loads(header.phantom)))
    except (TypeError, ValueError):
        return None


def _grid(shape):
    """Positions from -1 to 1 along each axis, 0 at ``n // 2``; 0 along an axis of one."""
    return np.meshgrid(*((np.arange(n) - n // 2) / max(1, n / 2) for n in shape), indexing="ij")


def _object(shape, index, slices):
    """Ellipses and bars with a smooth phase, smaller in the outer slices or partitions."""
    x, y, z = _grid(shape)
    away = (index - (slices - 1) / 2) / slices if slices > 1 else z * 1.2
    r = np.maximum(1 - away**2, 0)
    body = 1.0 * ((x / 0.75) ** 2 + (y / 0.85) ** 2 < r)
    body -= 0.5 * ((x - 0.2) ** 2 + (y + 0.25) ** 2 < 0.05 * r)
    body += 0.4 * (((x + 0.25) / 0.5) ** 2 + (y - 0.3) ** 2 < 0.06 * r)
    bars = (np.abs(x + 0.3) < 0.2) & (np.abs(y + 0.3) < 0.25) & (np.floor(y * shape[1] / 4) % 2 == 0)
    return (body + 0.3 * bars * (body > 0)) * np.exp(1j * (0.5 + 0.8 * x + 0.6 * y * y))


def _coil_maps(shape, coils):
    """Smooth sensitivities around the object, ``(x, y, z, coil)``; their squares sum to 1."""
    x, y, z = _grid(shape)
    maps = []
    for c in range(coils):
        angle = 2 * np.pi * c / coils
        height = 0.8 * (-1) ** c if shape[2] > 1 else 0.0
        away = (x - 1.2 * np.cos(angle)) ** 2 + (y - 1.2 * np.sin(angle)) ** 2 + (z - height) ** 2
        maps.append(np.exp(-away / 1.5 + 1j * (angle + 0.7 * x * np.sin(angle) - 0.7 * y * np.cos(angle))))
    maps = np.stack(maps, -1)
    return maps / np.sqrt((np.abs(maps) ** 2).sum(-1, keepdims=True))


def _lines(extent, share, step, offset=0):
    """Measured lines of an axis: every `step`-th of those that a partial scan has."""
    kept = max(extent // 2 + 1, min(extent, round(abs(share) * extent)))
    lines = np.arange(kept) + (extent - kept if share > 0 else 0)
    return lines[(lines - extent // 2 - offset) % step == 0]


def _lines_across(phantom, y):
    """Measured lines of z at one of y."""
    moved = (y - phantom.size // 2) // phantom.reduction[0] * phantom.shift
    return _lines(phantom.partitions, phantom.partial[2], phantom.reduction[1], moved)


def _line_zero(phantom, axis):
    """The line with number 0 in the file: the first measured line, as on scanners."""
    extent = (phantom.size, phantom.size, phantom.partitions)[axis]
    first = _lines(extent, phantom.partial[axis], 1)[0]
    return int(min(first, _block(extent, phantom.calibration_lines)[0]) if phantom.calibration else first)


def _block(extent, count):
    """Calibration lines around k = 0."""
    count = min(extent, count)
    return np.arange(extent // 2 - count // 2, extent // 2 - count // 2 + count)


def _measurements(phantom):
    """Every acquisition in its order: (flag, y, z, average, slice, echo, repetition)."""
    ny, nz = phantom.size, phantom.partitions
    if phantom.noise_scan:
        yield "noise", 0, 0, 0, 0, 0, 0
    block = [(y, z) for z in _block(nz, phantom.calibration_lines) for y in _block(ny, phantom.calibration_lines)]
    order = [
        *range(0, phantom.slices, 2),
        *range(1, phantom.slices, 2),
    ]  # interleaved, as scanners do
    if phantom.calibration == "separate":
        yield from (("separate", y, z, 0, s, 0, 0) for s in order for y, z in block)
    for repetition in range(phantom.repetitions):
        offset = repetition % phantom.reduction[0] if phantom.interleaved else 0
        y_lines = _lines(ny, phantom.partial[1], phantom.reduction[0], offset)
        lines = {(y, z): "" for y in y_lines for z in _lines_across(phantom, y)}
        if phantom.calibration == "embedded":
            lines |= {line: "both" if line in lines else "calibration" for line in block}
        for average in range(phantom.averages):
            for s in order:
                for (y, z), flag in sorted(lines.items()):
                    yield from ((flag, y, z, average, s, e, repetition) for e in range(phantom.echoes))


_FLAGS = {
    "": 0, "noise": acquisitions.NOISE, "separate": acquisitions.CALIBRATION, "calibration": acquisitions.CALIBRATION,
    "both": acquisitions.CALIBRATION_AND_IMAGING,
}  # fmt: skip


def _acquisitions(phantom, image, lines):
    rng = np.random.default_rng(phantom.seed)
    kspace = [_kspace(phantom, image[:, :, :, s, 0, 0]) for s in range(phantom.slices)]
    first = _first_sample(phantom)
    last = {line[4:]: number for number, line in enumerate(lines)}  # of a slice, echo and repetition
    for number, (flag, y, z, average, s, e, r) in enumerate(lines):
        header = _header(phantom, number, flag, y, z, average, s, e, r)
        header["flags"] |= acquisitions.LAST_IN_SLICE * (last[s, e, r] == number)
        if flag == "noise":
            samples = np.zeros((2048, phantom.coils), np.complex64)
        else:
            samples = kspace[s][first[0] : first[1], y, z] * np.float32(0.8**e)
        noise = rng.standard_normal((2, *samples.shape), np.float32) * np.float32(phantom.noise)
        yield header, np.asfortranarray(samples + noise[0] + 1j * noise[1], np.complex64)


def _first_sample(phantom):
    n = phantom.size * phantom.oversampling
    lines = _lines(n, phantom.partial[0], 1)
    return int(lines[0]), int(lines[-1]) + 1


def _kspace(phantom, image):
    """k-space of one slice or slab, the readout's field of view widened by the oversampling."""
    wide = phantom.size * phantom.oversampling
    coils = image[..., None] * _coil_maps(image.shape, phantom.coils)
    padded = np.zeros((wide, *coils.shape[1:]), np.complex64)
    start = wide // 2 - phantom.size // 2
    padded[start : start + phantom.size] = coils
    return to_kspace(padded)


def _header(phantom, number, flag, y, z, average, s, echo, repetition):
    header = np.zeros((), HEADER)
    first, _ = _first_sample(phantom)
    read, phase, normal = _axes(phantom.tilt)
    away = (s - (phantom.slices - 1) / 2) * (phantom.voxel[2] + phantom.gap)
    lines = [y - _line_zero(phantom, 1), z - _line_zero(phantom, 2)]
    if flag == "noise":
        lines = [0, 0]  # of no line
    values = {
        "version": 1, "scan_counter": number, "flags": _FLAGS[flag], "sample_time_us": 5.0,
        "center_sample": phantom.size * phantom.oversampling // 2 - first,
        "read_dir": read, "phase_dir": phase, "slice_dir": normal,
        "position": np.asarray(phantom.position) + away * normal,
        "kspace_encode_step_1": lines[0],
        "kspace_encode_step_2": lines[1],
        "acquisition_time_stamp": round(number * phantom.pace / acquisitions.TICK),
        "average": average, "slice": s, "contrast": echo, "repetition": repetition,
    }  # fmt: skip
    for name, value in values.items():
        header[name] = value
    return header


def _axes(tilt):
    """Read, phase and slice direction, towards left, posterior and superior without a tilt."""
    (ca, sa), (cb, sb) = ((np.cos(a), np.sin(a)) for a in np.radians(tilt))
    about_x = np.array([[1, 0, 0], [0, ca, -sa], [0, sa, ca]])
    about_z = np.array([[cb, -sb, 0], [sb, cb, 0], [0, 0, 1]])
    return (about_z @ about_x).T


def _header_text(phantom):
    matrix = (phantom.size, phantom.size, phantom.partitions)
    field = [n * v for n, v in zip(matrix, phantom.voxel)]
    mode = "interleaved" if phantom.interleaved else phantom.calibration
    limits = {"x": Limit(0, 0, 0)}
    for axis, name in ((1, "y"), (2, "z")):
        lines = _lines(matrix[axis], phantom.partial[axis], 1) - _line_zero(phantom, axis)
        centre = matrix[axis] // 2 - _line_zero(phantom, axis)
        limits[name] = Limit(int(lines[0]), int(lines[-1]), centre)
    header = Header(
        encoded_matrix=(matrix[0] * phantom.oversampling, *matrix[1:]),
        encoded_fov=(field[0] * phantom.oversampling, *field[1:]),
        recon_matrix=matrix, recon_fov=tuple(field), limits=limits, acceleration=phantom.reduction,
        calibration_mode=mode, tr=[500.0], te=[5.0 * (e + 1) for e in range(phantom.echoes)],
        flip_angle=[60.0], field_strength=1.5, phantom=json.dumps(asdict(phantom)), protocol="phantom", patient_position="HFS",
    )  # fmt: skip
    counts = {
        "average": phantom.averages,
        "slice": phantom.slices,
        "contrast": phantom.echoes,
        "repetition": phantom.repetitions,
    }
    return _ismrmrd.header_text(header, coils=phantom.coils, counts=counts)
