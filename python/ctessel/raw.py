"""Raw data files in ISMRMRD's format: what is in them, and their samples as a `Scan`.

Headers of the acquisitions are read first; they tell the extents, so that a file which is defective,
or does not fit into memory, is refused before any sample is read. Samples then go block by block to
their places in one array.
"""

import errno
import os

import numpy as np

from . import _memory
from ._ismrmrd import HEAD, REVERSE, DefectError, parse
from ._memory import DoesNotFitError
from ._survey import IGNORED, NOISE_SCAN, RANGE_AXES, Contents, survey
from .scan import AXES, Scan

__all__ = ["Contents", "DoesNotFitError", "RawError", "contents", "describe", "facts", "groups", "read"]

BLOCK_BYTES = 4 << 20


class RawError(ValueError):
    """A raw data file cannot be used. One line: the file, what is wrong, and what mends it."""


def read(path, *, group="dataset", range=None, progress=None, found=None):
    """Samples of a Cartesian scan at their places in k-space.

    Parameters
    ----------
    path : str or path
        Raw data file.
    group : str, optional
        Group of the HDF5 file that holds the data set.
    range : tuple of str, int, int, optional
        Axis ("slice", "echo" or "repetition") and the first and last position to be read along it,
        from 0. Slices count along the slice direction, whatever the order of their measurement.
    progress : callable, optional
        Called with the number of acquisitions done and their total.
    found : Contents, optional
        What `contents` has found, which saves finding it again.

    Returns
    -------
    Scan
        Cardiac phases and sets become repetitions; the phase varies faster than the repetition and
        the set faster than the phase.

    Raises
    ------
    RawError
        The file is missing, no raw data file, cut short, empty, not Cartesian, or contradicts itself.
    DoesNotFitError
        The samples need more memory than is free.
    """
    path = os.fspath(path)
    found = found or contents(path, group=group, range=range)
    _memory.check(found.nbytes, f"{path}: reading it", mend_memory(found))
    scan = _empty_scan(found)
    try:
        noise = _fill(_open(path, found.group), found, scan, progress)
    except (DefectError, RuntimeError) as error:
        raise _named(path, error) from None
    _divide(scan.kspace, found.scan.times)
    if scan.calibration is not None:
        _divide(scan.calibration, found.apart.times)
    if noise:
        scan.noise = np.concatenate(noise)
    return scan


def contents(path, *, group="dataset", range=None):
    """What a raw data file holds, without its samples. Arguments and errors are those of `read`.

    Returns
    -------
    Contents
    """
    path = os.fspath(path)
    reader = _open(path, group)
    try:
        return survey(path, group, parse(reader.header), _heads(reader), range)
    except (DefectError, RuntimeError) as error:
        raise _named(path, error) from None


def describe(path, *, group="dataset", range=None):
    """Facts about a raw data file, for people: a dict of texts.

    Arguments and errors are those of `read`.
    """
    return facts(contents(path, group=group, range=range))


def facts(found):
    """Facts about `Contents`, for people: a dict of texts."""
    header, extents = found.header, dict(zip(AXES, found.scan.shape))
    (nx, ny, nz), x = header.encoded_matrix, header.limits["x"]
    times = found.scan.times
    texts = {
        "protocol": header.protocol,
        "kind": "3-D" if nz > 1 else "2-D",
        "encoded": f"{_times(header.encoded_matrix)}, {_times(header.encoded_fov)} mm",
        "image": f"{_times(header.recon_matrix)}, {_times(header.recon_fov)} mm",
        "readout": f"samples {x.minimum} to {x.maximum} of {nx}",
        "lines": f"{int((times > 0).any((2, 3, 4)).sum())} of {ny * nz}",
        "coils": str(extents["coil"]),
        "slices": str(extents["slice"]),
        "echoes": str(extents["echo"]),
        "repetitions": str(extents["repetition"]),
        "averages": str(int(times.max())),
        "acceleration": _times(header.acceleration),
        "calibration": _calibration_text(found),
        "noise scan": f"{found.noise_samples} samples" if found.noise_samples else "none",
        "position": _position_text(header),
        "TR": ", ".join(f"{t:g} ms" for t in header.tr),
        "TE": ", ".join(f"{t:g} ms" for t in header.te),
        "left out": f"{int((found.role == IGNORED).sum())} of {found.heads.size} acquisitions",
        "k-space": _memory.text(found.nbytes),
    }
    return {name: text for name, text in texts.items() if text}


def groups(scan):
    """Scans of one sampling pattern each, with the positions of their repetitions.

    A scan whose lines are the same in all images is the only one of its group. Where they move from
    repetition to repetition, the mean over the repetitions, which has them all, is the calibration.
    """
    if scan.lines is None:
        return [(np.arange(scan.kspace.shape[-1]), scan)]
    patterns = scan.lines.reshape(-1, scan.lines.shape[-1])
    _, which = np.unique(patterns, axis=1, return_inverse=True)
    calibration = _mean_of_repetitions(scan)
    found = []
    for i in range(which.max() + 1):
        at = np.flatnonzero(which == i)
        sampled = scan.lines[..., at[0]].any((2, 3))
        kspace = np.asfortranarray(scan.kspace[..., at])
        found.append((at, Scan(kspace, sampled, scan.header, calibration=calibration, noise=scan.noise)))
    return found


def mend_memory(found):
    """What to do about a scan that does not fit into memory."""
    extents = {name: found.scan.shape[AXES.index(name)] for name in RANGE_AXES}
    axis = max(extents, key=extents.get)
    if extents[axis] == 1:
        return "use a machine with more memory"
    first = found.range[1] if found.range and found.range[0] == axis else 0
    last = first + extents[axis] // 2 - 1
    return f"reconstruct it in parts, the first with --range {axis} {first} {last}, then ctessel merge"


def _open(path, group):
    try:
        from . import _raw
    except ImportError:
        raise RawError(
            f"{path}: ctessel was built without raw data; apt-get install libismrmrd-dev libhdf5-dev, "
            "then install ctessel again"
        ) from None
    if not os.path.isfile(path):
        code = errno.EISDIR if os.path.isdir(path) else errno.ENOENT
        raise RawError(f"{path}: {os.strerror(code)}; name a raw data file")
    try:
        return _raw.Reader(path, group)
    except RuntimeError as error:
        raise RawError(f"{path}: {_reason(str(error), group)}") from None


def _reason(text, group):
    """HDF5's reasons in a user's words, with what mends them."""
    if "signature not found" in text:
        return "no HDF5 file; convert the scanner's data to ISMRMRD first"
    if "truncated" in text:
        return f"the file is cut short ({text}); copy it again"
    if text.startswith("no header") or text.startswith("no acquisitions"):
        return f'no raw data in its group "{group}"; name the right one with --group'
    if "errno = " in text:
        return f"{os.strerror(int(text.split('errno = ')[1].split(',')[0]))}; check its permissions"
    return f"cannot be read ({text}); copy or convert it again"


def _named(path, error):
    text = str(error) if isinstance(error, DefectError) else f"{error}; copy or convert it again"
    return RawError(f"{path}: {text}")


def _heads(reader):
    step = 1 << 14
    parts = [reader.heads(i, min(step, len(reader) - i)) for i in range(0, len(reader), step)]
    if not parts:
        raise DefectError("it holds no acquisitions")
    return np.concatenate(parts).view(HEAD)[:, 0]


def _empty_scan(found):
    measured = found.scan.times > 0
    sampled = measured.any((2, 3, 4))
    scan = Scan(np.zeros(found.scan.shape, np.complex64, order="F"), sampled, found.header)
    if (measured != sampled[:, :, None, None, None]).any():
        scan.lines = measured
    if found.flagged.any():
        scan.calibration_lines = found.flagged
    if found.apart:
        scan.calibration = np.zeros(found.apart.shape, np.complex64, order="F")
    return scan


def _fill(reader, found, scan, progress):
    """Put samples where they belong, several measurements of a line summed. Returns the noise."""
    noise, total = [], found.heads.size
    bytes_each = 8 * int(found.heads["number_of_samples"].max()) * found.scan.shape[3]
    step = max(1, min(256, BLOCK_BYTES // max(1, bytes_each)))
    for first in range(0, total, step):
        role = found.role[first : first + step]
        if (role != IGNORED).any():
            for i, samples in enumerate(reader.read(first, role.size)[1], first):
                _place(found, scan, noise, i, samples)
        if progress:
            progress(min(first + step, total), total)
    return noise


def _place(found, scan, noise, i, samples):
    role, head = found.role[i], found.heads[i]
    if role == IGNORED:
        return
    samples = samples[head["discard_pre"] : samples.shape[0] - head["discard_post"]]
    if not np.isfinite(samples).all():
        raise DefectError(f"acquisition {i} holds values that are not finite")
    if role == NOISE_SCAN:
        noise.append(samples)
        return
    if head["flags"] & REVERSE:
        samples = samples[::-1]
    for places, array in ((found.scan, scan.kspace), (found.apart, scan.calibration)):
        if places and places.which[i]:
            x = slice(places.x[i], places.x[i] + samples.shape[0])
            y, z, s, e, r = places[i]
            array[x, y, z, :, s, e, r] += samples


def _divide(array, times):
    """Turn sums of several measurements of a line into means."""
    for y, z, slice, echo, repetition in np.argwhere(times > 1):
        count = np.float32(times[y, z, slice, echo, repetition])
        array[:, y, z, :, slice, echo, repetition] /= count


def _mean_of_repetitions(scan):
    times = np.maximum(scan.lines.sum(-1, keepdims=True), 1).astype(np.float32)
    total = scan.kspace.sum(-1, keepdims=True)
    return np.asfortranarray(total / times[None, :, :, None])


def _times(numbers):
    return " x ".join(f"{n:g}" for n in numbers)


def _calibration_text(found):
    if found.apart:
        lines = int(found.apart.times.any((2, 3, 4)).sum())
        return f"a scan of its own, {lines} lines"
    return f"{int(found.flagged.sum())} lines of the scan" if found.flagged.any() else "none flagged"


def _position_text(header):
    if not header.placements:
        return "not in the file"
    x, y, z = header.placements[0].position
    gap = f", {header.spacing:g} mm apart" if len(header.placements) > 1 else ""
    return f"first slice at {x:g}, {y:g}, {z:g} mm (left, back, head){gap}"
