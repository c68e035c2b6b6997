"""Raw data files: their contents, and their samples as a `Scan`. `formats` reads formats other than ISMRMRD.

Headers of the acquisitions are read first. They give the extents, so that a file that is defective or does
not fit into memory is refused before any sample is read. Samples then go block by block to their places in
one array.
"""

import contextlib
import errno
import os
import stat
from collections import deque
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace
from functools import lru_cache

import numpy as np

from . import centre, coil_looks, formats, runtime, stored
from ._ismrmrd import parse
from .acquisitions import HEADER, IGNORED, NOISE_SCAN, RANGE_AXES, Contents, DefectError, survey
from .fourier import cut_unshifted
from .runtime import DoesNotFitError
from .scan import AXES, Layout, Limit, Scan, times_text

__all__ = [
    "Contents",
    "DoesNotFitError",
    "RawError",
    "Source",
    "contents",
    "describe",
    "facts",
    "layout",
    "read",
]

BLOCK_BYTES = 4 << 20
#: HDF5's message for a missing group.
NO_GROUP = ("component not found", "doesn't exist", "not a group", "no name", "empty string")


class RawError(ValueError):
    """A raw data file cannot be used. One line: the file, what is wrong, and how to fix it."""


def read(
    path,
    *,
    group="dataset",
    range=None,
    skip=(),
    scratch=None,
    cut=False,
    progress=None,
    found=None,
    threads=None,
    **given,
):
    """Samples of a Cartesian scan at their places in k-space.

    Parameters
    ----------
    path : str or path
        Raw data file.
    group : str, optional
        Group of the HDF5 file that holds the data set.
    range : tuple of str, int, int, optional
        Axis ("slice", "echo" or "repetition") and the first and last position to be read along it,
        from 0. Slices are numbered along the slice direction, not in the order of measurement.
    skip : sequence of (str, int), optional
        Axis and position of images that are left out, also from the calibration. The others are
        numbered without gaps.
    scratch : str or path, optional
        Folder for a file that holds k-space instead of memory. The file has no name when this function
        returns, so it vanishes with the scan.
    cut : bool, optional
        Remove readout oversampling line by line, which saves half of the memory. Partial readouts
        keep it.
    progress : callable, optional
        Called with the number of acquisitions done and their total.
    found : Contents, optional
        Result of `contents`, so that the headers are not read again.
    threads : int, optional
        Threads that remove oversampling.
    **given
        What the file does not say: `format`, `fov`, `lines`, `centre`, `axes` and `calibration` of
        `ctessel.formats.Given`. The format is found from the content by default.

    Returns
    -------
    Scan
        Cardiac phases and sets become repetitions; the phase varies faster than the repetition and
        the set faster than the phase.

    Raises
    ------
    RawError
        The file is missing, cut short, empty or not Cartesian, has no raw data, or contradicts itself.
    DoesNotFitError
        The samples need more memory than is free.
    """
    path = os.fspath(path)
    found = found or contents(path, group=group, range=range, skip=skip, cut=cut, **given)
    if scratch is None:
        runtime.check(found.nbytes, f"{path}: reading it", memory_advice(found))
    known, targets = layout(found), [(found.scan, _zeros(_kspace_shape(found), scratch))]
    if found.separate:
        targets.append((found.separate, _zeros(found.separate.shape, scratch)))
    _read_into(targets, found.file, found, progress, threads)
    return Scan(known, *(array for _, array in targets))


class Source:
    """Samples of a raw data file, read on demand; `ctessel.scan.Scan` holds all of them in memory.

    Only names and numbers are sent to other processes, which open the file and read its headers
    themselves. With `shares`, samples are in `ctessel.runtime.shared_zeros`, so that workers see a volume
    with a readout that was transformed in this process.
    """

    shared = True
    disposable = True  # samples are read again each time

    def __init__(self, found, threads=None, shares=False):
        self._state, self._threads, self._shares = _states(found), threads, shares
        self.layout, self._found = layout(found), found
        self._file = found.file

    def __reduce__(self):
        f = self._found
        calibration = f.given.calibration and os.path.abspath(f.given.calibration)
        given = replace(f.given, calibration=calibration)
        what = (f.group, f.range, f.skipped, f.cut, self._threads, given)
        return _Elsewhere, (os.path.abspath(f.path), self._state, *what)

    def frames(self, index, repetitions):
        """k-space of a slice, ``(x, y, z, coil, echo, repetition)``."""
        numbers = np.arange(self.layout.shape[6])[repetitions]
        return self._read(self._found.scan.part(index, numbers), self._found.width)[:, :, :, :, 0]

    def separate(self, index):
        """Separate calibration of a slice, ``(x, y, z, coil)``."""
        places = self._found.separate
        at = min(index, places.shape[4] - 1)
        return self._read(places.part(at, np.array([0])), places.shape[0])[:, :, :, :, 0, 0, 0]

    def _read(self, places, width):
        shape = (width, *places.shape[1:])
        array = runtime.shared_zeros(shape) if self._shares else _zeros(shape, None)
        _read_into([(places, array)], self._file, self._found, None, self._threads)
        return array


class _Elsewhere:
    """The `Source` of another process, opened when samples are asked for."""

    shared = True

    def __init__(self, *names):
        self._names = names

    def frames(self, index, repetitions):
        return _source(*self._names).frames(index, repetitions)

    def separate(self, index):
        return _source(*self._names).separate(index)


@lru_cache(1)  # every block of a run has the same names
def _source(path, known, group, range, skip, cut, threads, given):
    found = _contents(path, group, range, skip, cut, given)
    if _states(found) != known:
        raise RawError(f"{path}: has changed since the run began; start the run again")
    return Source(found, threads)


def state(path):
    """Numbers that change when a file changes."""
    status = os.stat(path)
    return status.st_size, status.st_mtime_ns


def _states(found):
    paths = (found.path, found.given.calibration)
    return tuple(state(formats.samples_of(path)) for path in paths if path)


def contents(path, *, group="dataset", range=None, skip=(), cut=False, **given):
    """What a raw data file holds, without its samples. Arguments and errors are those of `read`.

    Returns
    -------
    Contents
    """
    return _contents(os.fspath(path), group, range, skip, cut, formats.Given(**given))


def _contents(path, group, range, skip, cut, given):
    try:
        opened = _opened(path, group, given, range, skip)
        encodings, headers, reader = opened.encodings, opened.headers, opened.file
        found = survey(encodings, headers, range, skip)
        encodings, notes = ([], ()) if given.centre else _recentred(reader, encodings, found)
        if notes:
            found = survey(encodings, headers, range, skip)
    except (DefectError, RuntimeError) as error:
        raise _named(path, error) from None
    given, notes = replace(given, found=opened.found), (*opened.notes, *notes)
    names = {"path": opened.path, "group": group, "format": opened.format, "given": given}
    return replace(found, cut=cut, file=reader, notes=notes, **names)


def _opened(path, group, given, part, skip):
    """The file as `stored.Opened`, with its separate calibration from another file, if there is one."""
    scan = _open_any(path, group, given)
    if given.calibration is None:
        return replace(scan, found=(scan.found, None))
    try:
        own = _open_any(given.calibration, group, formats.Given(found=(given.found[1], None)))
    except (DefectError, RuntimeError) as error:
        raise _named(given.calibration, error) from None
    return replace(stored.joined(scan, own, part, skip), found=(scan.found, own.found))


def _open_any(path, group, given):
    if formats.pair_base(path) is None:
        _check_file(path)
    if given.format not in (None, "ismrmrd"):
        return formats.opened(path, given)
    try:
        reader = open_reader(path, group)
    except RawError as error:
        try:
            other = formats.opened(path, given)
        except ModuleNotFoundError as missing:
            raise RawError(f"{error}; other formats need {runtime.installing(missing.name)}") from None
        if other is None:
            raise
        return other
    if given.fov or given.lines or given.centre:
        raise DefectError("has its own field of view, lines and centre", "leave out --fov, --lines, --centre")
    return stored.Opened(path, "ISMRMRD", reader, parse(reader.header), _headers(reader, path))


def _recentred(reader, encodings, found):
    """Encodings with k = 0 where the samples show it, and notes about it."""
    notes = []
    for axis, name in ((1, "y"), (2, "z")):
        numbers = centre.lines_through(found, axis)
        if not numbers.size:
            continue
        block = reader.read(numbers)
        energies = [np.linalg.norm(block.samples(i)) ** 2 for i in numbers]
        away, limit = centre.moved(found, axis, numbers, np.array(energies)), found.header.limits[name]
        if away == 0:
            continue
        true = replace(limit, center=limit.center + away)
        encodings = [replace(e, limits={**e.limits, name: true}) if e.limits[name] == limit else e for e in encodings]
        notes.append(
            f"k = 0 along {name} is line {true.center} by the energy of k-space, but line "
            f"{limit.center} by the header; line {true.center} is used"
        )
    return encodings, notes


def layout(found):
    """Everything about the scan that `pipeline.plan` needs, without most of its samples.

    The noise scan and a few lines of each coil are read.

    Returns
    -------
    Layout
    """
    try:
        return layout_of(found, lambda numbers: _samples(found, numbers))
    except (DefectError, RuntimeError) as error:
        raise _named(found.path, error) from None


def _samples(found, numbers):
    block = found.file.read(np.sort(numbers))
    return [block.samples(int(i)) for i in numbers]


def describe(path, *, group="dataset", range=None, **given):
    """Facts about a raw data file, for people: a dict of texts.

    Arguments and errors are those of `read`.
    """
    return facts(contents(path, group=group, range=range, **given))


def facts(found):
    """Facts about `Contents`, for people: a dict of texts."""
    header, extents = found.header, dict(zip(AXES, found.scan.shape))
    (nx, ny, nz), x = header.encoded_matrix, header.limits["x"]
    times = found.scan.times
    texts = {
        "format": found.format,
        "protocol": header.protocol,
        "kind": "3-D" if nz > 1 else "2-D",
        "encoded": f"{times_text(header.encoded_matrix)}, {times_text(header.encoded_fov)} mm",
        "image": f"{times_text(header.recon_matrix)}, {times_text(header.recon_fov)} mm",
        "readout": f"samples {x.minimum} to {x.maximum} of {nx}",
        "lines": f"{int((times > 0).any((2, 3, 4)).sum())} of {ny * nz}",
        "coils": str(extents["coil"]),
        "slices": str(extents["slice"]),
        "echoes": str(extents["echo"]),
        "repetitions": str(extents["repetition"]),
        "averages": str(int(times.max())),
        "acceleration": times_text(header.acceleration),
        "calibration": _calibration_text(found),
        "noise scan": f"{found.noise_samples} samples" if found.noise_samples else "none",
        "position": _position_text(header),
        "TR": ", ".join(f"{t:g} ms" for t in header.tr),
        "TE": ", ".join(f"{t:g} ms" for t in header.te),
        "left out": f"{int((found.role == IGNORED).sum())} of {found.headers.size} acquisitions",
        "k-space": runtime.text(found.nbytes),
    }
    return {name: text for name, text in texts.items() if text}


def groups(found):
    """What is in a file of HDF5, group by group, for people; "" for others."""
    with contextlib.suppress(ModuleNotFoundError, *stored.UNREADABLE):
        return ", ".join(formats.groups(found.path))
    return ""


def memory_advice(found):
    """What to do about a scan that does not fit into memory."""
    extents = {name: found.scan.shape[AXES.index(name)] for name in RANGE_AXES}
    axis = max(extents, key=extents.get)
    if extents[axis] == 1:
        return "use a machine with more memory"
    first = found.range[1] if found.range and found.range[0] == axis else 0
    last = first + extents[axis] // 2 - 1
    return (
        f"keep k-space in a file with --scratch FOLDER, or reconstruct parts, the first one with "
        f"--range {axis} {first} {last}, and merge them"
    )


def binding(path):
    """The module that reads and writes raw data files; RawError where it was left out."""
    try:
        from . import _raw
    except ImportError:
        raise RawError(
            f"{path}: ctessel was built without raw data; apt-get install libismrmrd-dev "
            "libhdf5-dev, then install ctessel again"
        ) from None
    return _raw


def open_reader(path, group):
    _raw = binding(path)
    _check_file(path)
    try:
        return _raw.Reader(os.fsencode(path), os.fsencode(group))
    except RuntimeError as error:
        raise RawError(f"{path}: {_reason(str(error), path, group)}") from None


def _check_file(path):
    """Raise an error for anything that is not a file; HDF5 would wait for it or give another reason."""
    try:
        status = os.stat(path)
    except OSError as error:
        raise RawError(f"{path}: {error.strerror}; name a raw data file") from None
    if stat.S_ISDIR(status.st_mode):
        raise RawError(f"{path}: {os.strerror(errno.EISDIR)}; name a raw data file")
    if not stat.S_ISREG(status.st_mode):
        kind = "a pipe" if stat.S_ISFIFO(status.st_mode) else "a device or a socket"
        raise RawError(f"{path}: is {kind}, not a file; name a raw data file")
    if status.st_size == 0:
        raise RawError(f"{path}: the file is empty; copy it again")


def _reason(text, path, group):
    """HDF5's errors in the user's terms, and how to fix them."""
    if "signature not found" in text:
        return "not an HDF5 file; convert the scanner's data to ISMRMRD first"
    if "truncated" in text:
        return f"the file is cut short ({text}); copy it again"
    if text.startswith("no acquisitions"):
        return f'{text.split(" in ")[0]} in its group "{group}"; copy or convert it again'
    if text.startswith("no header") or any(words in text for words in NO_GROUP):
        return f'no raw data in its group "{group}"; {_other_groups(path)}'
    # HDF5 1.14 does not name the file of a broken link; for the file itself it gives an errno.
    if "external" in text or text == "can't open file":
        return f'its group "{group}" is in another file, which cannot be opened; copy that file as well'
    if "errno = " in text:
        return f"{os.strerror(int(text.split('errno = ')[1].split(',')[0]))}; check its permissions"
    return f"cannot be read ({text}); copy or convert it again"


def _other_groups(path):
    try:
        groups = [os.fsdecode(name) for name in binding(path).list_groups(os.fsencode(path))]
    except RuntimeError:
        groups = []
    if not groups:
        return "no other group has raw data; convert the scanner's data again"
    return f"name the right one with --group: {', '.join(groups)}"


def _named(path, error):
    text = str(error) if isinstance(error, DefectError) else f"{error}; copy or convert it again"
    return RawError(f"{path}: {text}")


def _headers(reader, path):
    step = 1 << 14
    if 32 * len(reader) > os.path.getsize(path):  # do not read billions of acquisitions that are missing
        raise DefectError(f"it is too short for its {len(reader)} acquisitions", "copy it again")
    parts = [reader.headers(i, min(step, len(reader) - i)) for i in range(0, len(reader), step)]
    if not parts:
        raise DefectError("it holds no acquisitions")
    return np.concatenate(parts).view(HEADER)[:, 0]


def _kspace_shape(found):
    return (found.width, *found.scan.shape[1:])


def layout_of(found, read, received=None):
    """The layout; `read` gives samples of acquisitions; the first `received` ones have arrived."""
    at = np.flatnonzero(found.role == NOISE_SCAN)
    noise = np.concatenate(read(at)) if at.size else None
    looks, looked = coil_looks.of_acquisitions(found.headers, found.header, read, noise, received)
    whole = not found.kept or len(found.kept["slice"]) == found.extents["slice"]
    return Layout(
        _kspace_shape(found),
        _cut_header(found),
        found.scan.times > 0,
        noise,
        found.separate and found.separate.shape,
        found.flagged,
        found.scan.shape[0] if found.width < found.scan.shape[0] else None,
        found.range,
        (*found.warnings, *found.notes),
        looks,
        looked,
        None if whole else tuple(found.kept["slice"].tolist()),
    )


def _cut_header(found):
    """The header of the scan as it is read: with the remaining field of view along x."""
    header, n, width = found.header, found.scan.shape[0], found.width
    if width == n:
        return header
    x, y, z = header.encoded_fov
    field = (header.calibration_fov or header.encoded_fov) if found.separate else None
    return replace(
        header,
        encoded_matrix=(width, *header.encoded_matrix[1:]),
        encoded_fov=(x * width / n, y, z),
        limits={**header.limits, "x": Limit(0, width - 1, width // 2)},
        calibration_fov=field,
    )


def _read_into(targets, reader, found, progress, threads):
    """Read the lines of some places into arrays; repeated lines are averaged.

    `targets` are pairs of `Places` and arrays, which hold zeros.
    """
    try:
        _fill(targets, reader, found, progress, threads)
    except (DefectError, RuntimeError) as error:
        raise _named(found.path, error) from None
    for places, array in targets:
        _divide(array, places.times)


def _fill(targets, reader, found, progress, threads):
    numbers = np.flatnonzero(np.any([places.which for places, _ in targets], 0))
    samples, coils, done = int(found.headers["number_of_samples"].max()), found.scan.shape[3], 0
    step = max(1, min(256, BLOCK_BYTES // max(1, 8 * samples * coils)))
    whole = np.empty((found.scan.shape[0], coils, min(step, numbers.size)), np.complex64, order="F")
    parts = [numbers[first : first + step] for first in range(0, numbers.size, step)]
    for part, block in _read_ahead(reader, parts):
        for places, array in targets:
            _fill_part(block, places, array, part[places.which[part]], whole, threads)
        done += part.size
        if progress:
            progress(done, numbers.size)


def _read_ahead(reader, parts):
    """Acquisitions of each part, read while those of the previous part are put into place."""

    def read(part):
        return part, reader.read(part)

    with ThreadPoolExecutor(1) as thread:
        jobs = deque()  # alone holds them: an error in a variable here would keep the file open
        for part in parts:
            jobs.append(thread.submit(read, part))
            if len(jobs) > 1:
                yield jobs.popleft().result()
        while jobs:
            yield jobs.popleft().result()


def _fill_part(block, places, array, numbers, whole, threads):
    """Put lines of a block into place. `whole` is a buffer for their readouts."""
    if array.shape[0] == places.shape[0]:
        _place(block, places, array, numbers)
    elif numbers.size:
        _place_cut(block, places, array, numbers, whole[:, :, : numbers.size], threads)


def _place(block, places, array, numbers):
    block.put(
        numbers,
        x=places.x[numbers],
        array=array,
        offsets=places.offsets(array, numbers),
        coil_axis=3,
        shift=0,
        add=places.repeated(numbers),
    )


def _place_cut(block, places, array, numbers, whole, threads):
    """Put lines of a block into place without oversampling; `whole` is a buffer for them.

    The centres are moved to the first samples, and back, on the way.
    """
    n, coils, count = whole.shape
    block.put(
        numbers,
        x=places.x[numbers],
        array=whole,
        offsets=n * coils * np.arange(count),
        coil_axis=1,
        shift=n - n // 2,
        add=np.zeros(count, bool),
    )
    binding("raw data").put(
        cut_unshifted(whole, len(array), threads=threads),
        array,
        offsets=places.offsets(array, numbers),
        coil_axis=3,
        shift=len(array) // 2,
        add=places.repeated(numbers),
    )


def _zeros(shape, scratch):
    if scratch is None:
        return np.zeros(shape, np.complex64, order="F")
    return runtime.shared_zeros(shape, scratch)


def _divide(array, times):
    """Turn sums of several measurements of a line into means."""
    for y, z, slice, echo, repetition in np.argwhere(times > 1):
        count = np.float32(times[y, z, slice, echo, repetition])
        array[:, y, z, :, slice, echo, repetition] /= count


def _calibration_text(found):
    if found.separate:
        lines = int(found.separate.times.any((2, 3, 4)).sum())
        return f"separate, {lines} lines"
    return f"{int(found.flagged.sum())} lines of the scan" if found.flagged.any() else "none flagged"


def _position_text(header):
    if not header.placements:
        return "not in the file"
    x, y, z = header.placements[0].position
    gap = f", spacing {header.spacing:g} mm" if len(header.placements) > 1 else ""
    return f"first slice at {x:g}, {y:g}, {z:g} mm (left, back, head){gap}"
