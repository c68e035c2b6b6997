"""k-space as an array in a file: its measured lines, and their samples.

The samples show which lines were measured. Every measured line gets the header of an acquisition, so that
`ctessel.acquisitions.survey` works as for ISMRMRD files.
"""

import math
from dataclasses import dataclass, field, replace

import numpy as np

from . import runtime
from .acquisitions import CALIBRATION, CALIBRATION_AND_IMAGING, HEADER, IMAGING, NOISE, NOT_IMAGING
from .acquisitions import DefectError, survey
from .fourier import to_kspace
from .scan import Header, Limit, times_text

#: Names of formats for options, and for texts.
NAMES = {
    "ismrmrd": "ISMRMRD",
    "fastmri": "fastMRI",
    "m4raw": "M4Raw",
    "calgary": "Calgary-Campinas",
    "skmtea": "SKM-TEA",
    "cfl": "BART cfl",
    "matlab": "MATLAB",
}
#: Names of the axes of an array; averages of a line are replaced by their mean.
AXES = ("x", "y", "z", "coil", "slice", "echo", "repetition", "average")
#: Bytes of a file that are read together, unless a single line of all coils has more.
UNIT = 32 << 20
#: Exceptions of h5py for files that HDF5 cannot read.
UNREADABLE = (OSError, KeyError, TypeError, ValueError, RuntimeError)
_COUNTERS = {"slice": "slice", "echo": "contrast", "repetition": "repetition", "average": "average"}


@dataclass
class Opened:
    """A file, ready for `survey`."""

    path: str
    format: str
    file: object  # reads lines, like `Lines`
    encodings: list[Header]
    headers: np.ndarray
    notes: tuple[str, ...] = ()  # warnings, one line each
    found: object = None
    stated: bool = True  # the file has a field of view


@dataclass
class Stored:
    """An array of a file, and its properties. The last one of `axes` varies fastest."""

    format: str
    data: object  # source of samples: a data set, a memory map, an array
    axes: tuple[str, ...]
    header: Header | None = None
    pairs: bool = False  # real and imaginary parts alternate along the last axis
    transformed: bool = False  # the readout is already an image
    mask: np.ndarray | None = None  # mask of measured lines along y in the file
    shifted: bool | None = False  # k = 0 of y and z is the first line; None: the samples decide
    text: bytes | None = None  # the complete header
    notes: list[str] = field(default_factory=list)

    def __post_init__(self):
        if len(self.data.shape) != len(self.axes):
            raise DefectError(
                f"its k-space has {len(self.data.shape)} axes ({times_text(self.data.shape)}), "
                f"{NAMES[self.format]} has {len(self.axes)} ({', '.join(self.axes)})",
                "is --format right?",
            )
        self.extents = {**dict.fromkeys(AXES, 1), **dict(zip(self.axes, map(int, self.data.shape)))}
        complex_numbers = self.data.dtype.kind == "c" or bool(self.data.dtype.names)
        if complex_numbers == self.pairs or self.data.dtype.kind in "iu" or (self.pairs and self.extents["coil"] % 2):
            raise DefectError(
                f"its k-space holds {times_text(self.data.shape)} of {self.data.dtype}, {NAMES[self.format]} has "
                f"{'pairs of real numbers' if self.pairs else 'complex numbers'}",
                "is --format right?",
            )
        if self.pairs:
            self.extents["coil"] //= 2
        odd = [f"{n} along {name}" for name, n in self.extents.items() if not 0 < n < 65536]
        if odd:
            raise DefectError(f"its k-space has an extent of {odd[0]}; expected 1 to 65535", "copy it again")


@dataclass(frozen=True)
class Found:
    """Facts from the samples of an array. Workers get them, so that they need not read all samples."""

    lines: bytes  # bits: measured lines, in the order of the file
    first: int  # sample of the readout that is not zero
    last: int
    shifted: bool  # k = 0 of y and z is the first line


def unreadable(error):
    """An error of h5py in one line; a `DefectError` does not change."""
    if isinstance(error, DefectError):
        return error
    return DefectError(f"its samples cannot be read ({' '.join(str(error).split())[:160]})", "copy it again")


def plain_header(matrix, fov, limits=None):
    """Header of a scan with known extents (x, y, z) and nothing else."""
    whole = {name: Limit(0, n - 1, n // 2) for name, n in zip("xyz", matrix)}
    return Header(tuple(matrix), tuple(fov), tuple(matrix), tuple(fov), {**whole, **(limits or {})})


def lines(path, stored, given):
    """The file as `survey` takes it; `given` is `ctessel.formats.Given`."""
    reader = Lines(stored)
    reader.found = given.found[0] or _look(reader)
    measured, notes = reader.measured(), list(stored.notes)
    if stored.mask is not None:
        measured, more = _masked(measured, stored)
        notes += more
    if not measured.any():
        raise DefectError("all its samples are zero", "copy it again")
    if stored.shifted is None:
        notes.append(_corner_words(reader, measured))
    header, more, stated = _header(reader, measured, given)
    headers = reader.number(measured, _start(given, stored.extents))
    return Opened(path, NAMES[stored.format], reader, [header], headers, (*notes, *more), reader.found, stated)


def _three(values, extents, default):
    """Values of x, y and z; y, y and z, or all three are given."""
    given = {1: ("y",), 2: ("y", "z"), 3: ("x", "y", "z")}[len(values or ())] if values else ()
    return [values[given.index(a)] if a in given else default(a, extents[a]) for a in "xyz"]


def _start(given, extents):
    """The sample along x that is k = 0."""
    return _three(given.centre, extents, lambda _, n: n // 2)[0]


def _header(reader, measured, given):
    """The header of the scan, notes about it, and whether the file has a field of view."""
    stored, extents = reader.stored, reader.stored.extents
    if stored.header is not None:
        if given.fov or given.lines or given.centre:
            raise DefectError("has its own field of view, lines and centre", "leave out --fov, --lines, --centre")
        return stored.header, [], True
    centre = _three(given.centre, extents, lambda _, n: n // 2)
    # The smallest even matrix that holds all lines, k = 0 at its n // 2.
    sizes = [extents[axis] for axis in "xyz"]
    least = [n if c == n // 2 else 2 * max(c, n - c) for n, c in zip(sizes, centre)]
    matrix = _three(given.lines, extents, lambda axis, _: least["xyz".index(axis)])
    _check_matrix(matrix, centre, extents)
    notes = []
    if given.fov is None:
        notes.append("the file has no field of view; voxels of 1 mm are assumed; state it with --fov X Y Z (mm)")
    header = plain_header(matrix, given.fov or [float(n) for n in matrix])
    for axis, name in ((1, "y"), (2, "z")):
        at = reader.places(name)[reader.index(measured, name)]
        header.limits[name] = Limit(int(at.min()), int(at.max()), centre[axis])
    return header, notes, given.fov is not None


def _check_matrix(matrix, centre, extents):
    for name, n, c in zip("xyz", matrix, centre):
        if c - n // 2 > 0 or extents[name] - 1 - c > (n - 1) // 2:
            raise DefectError(
                f"its {extents[name]} samples along {name} with k = 0 at {c} reach beyond a matrix of {n}",
                "fix --lines or --centre",
            )


def _masked(measured, stored):
    """Lines in the file's mask that have samples, and notes."""
    shape = [-1 if name == "y" else 1 for name in _line_axes(stored.axes)]
    mask = stored.mask.reshape(shape)
    beside = int((measured & ~mask).any(tuple(i for i, n in enumerate(shape) if n == 1)).sum())
    notes = [f"{beside} lines outside of the file's mask have samples; they are not used"] if beside else []
    return measured & mask, notes


def _corner_words(reader, measured):
    where = "in the corner" if reader.found.shifted else "in the middle"
    empty = np.flatnonzero(~np.isin(np.arange(reader.stored.extents["z"]), reader.index(measured, "z")))
    lines = f"lines {empty[0]} to {empty[-1]} along z are zero" if empty.size else "no line along z is zero"
    return f"k = 0 of y and z is {where} of the array by the energy of its lines; {lines}, and count as not measured"


def _line_axes(axes):
    return [name for name in axes if name not in ("x", "coil")]


def _look(reader):
    """`Found` of an array: reads all of its samples."""
    extents, axes = reader.stored.extents, reader.axes
    runtime.check(10 * math.prod(reader.shape), "the list of its lines", "are its extents right?")
    measured = np.zeros(reader.shape, bool)
    along = np.zeros(extents["x"], bool)
    energy = np.zeros((extents["y"], extents["z"]))
    for unit in range(reader.units):
        samples = reader.unit(unit)
        if not np.isfinite(samples).all():
            raise DefectError("it holds values that are not finite")
        there = samples != 0
        measured[reader.box(unit)] = there.any((0, 1))
        along |= there.any(tuple(range(1, there.ndim)))
        if reader.stored.shifted is None:
            power = np.einsum("xc...,xc...->...", samples, samples.conj()).real
            at = tuple(reader.box(unit)[axes.index(name)] for name in "yz")
            energy[at] += power
    first, last = (int(n) for n in np.flatnonzero(along)[[0, -1]]) if along.any() else (0, 0)
    if reader.stored.transformed:
        first, last = 0, extents["x"] - 1
    shifted = reader.stored.shifted
    return Found(np.packbits(measured).tobytes(), first, last, _in_corner(energy) if shifted is None else shifted)


def _in_corner(energy):
    """Whether the strongest line is nearer to the first one than to the middle, cyclically."""
    at = np.unravel_index(energy.argmax(), energy.shape)
    away = [min(i, n - i) / n for i, n in zip(at, energy.shape)]
    return sum(away) < 0.25 * len(away)


class Lines:
    """Reads lines of a stored array as `raw` reads acquisitions, a part of the array at a time."""

    def __init__(self, stored):
        self.stored, self.found, self.header = stored, None, stored.text
        self.axes = _line_axes(stored.axes)
        self.shape = tuple(stored.extents[name] for name in self.axes)
        self._split()
        self._kept = (None, None)

    def _split(self):
        """Parts that are contiguous in the file: one index of the outer axes, some of the next."""
        extents = self.stored.extents
        inner = 8 * extents["x"] * extents["coil"] * math.prod(self.shape)
        for outer, n in enumerate(self.shape):
            inner //= n
            if inner <= UNIT:
                break
        self._outer, self._step = outer, max(1, UNIT // inner)
        self._counts = [*self.shape[:outer], -(-self.shape[outer] // self._step)]
        self.units = math.prod(self._counts)

    def box(self, unit):
        """Slices of the axes of lines for a part."""
        at = np.unravel_index(unit, self._counts)
        box = [slice(int(i), int(i) + 1) for i in at]
        first = int(at[-1]) * self._step
        box[-1] = slice(first, min(first + self._step, self.shape[self._outer]))
        return (*box, *(slice(0, n) for n in self.shape[self._outer + 1 :]))

    def unit(self, unit):
        """Samples of a part as they are stored, (x, coil, axes of lines), complex64."""
        if self._kept[0] == unit:
            return self._kept[1]
        stored = self.stored
        box = dict(zip(self.axes, self.box(unit)))
        try:
            samples = stored.data[tuple(box.get(name, slice(None)) for name in stored.axes)]
        except UNREADABLE as error:
            raise unreadable(error) from None
        samples = plain(samples, stored.pairs)
        order = [stored.axes.index(name) for name in ("x", "coil", *self.axes) if name in stored.axes]
        samples = samples.transpose(order)
        if "coil" not in stored.axes:
            samples = samples[:, None]
        self._kept = unit, samples
        return samples

    def measured(self):
        """Lines with samples, by the axes of the file."""
        bits = np.frombuffer(self.found.lines, np.uint8)
        return np.unpackbits(bits, count=math.prod(self.shape)).astype(bool).reshape(self.shape)

    def index(self, measured, name):
        """Places of the measured lines along an axis."""
        if name not in self.axes:
            return np.zeros(np.count_nonzero(measured), int)
        return np.nonzero(measured)[self.axes.index(name)]

    def places(self, name):
        """Number of each line along y or z: its place, with k = 0 moved to the middle."""
        n = self.stored.extents[name]
        return (np.arange(n) + (n // 2 if self.found.shifted else 0)) % n

    def number(self, measured, centre):
        """Headers of the measured lines, in the order of the file."""
        runtime.check(3 * HEADER.itemsize * np.count_nonzero(measured), "the list of its lines", "is its matrix right?")
        headers = np.zeros(np.count_nonzero(measured), HEADER)
        found = self.found
        headers["number_of_samples"] = found.last - found.first + 1
        headers["center_sample"] = centre - found.first
        headers["active_channels"] = headers["available_channels"] = self.stored.extents["coil"]
        for step, name in ((1, "y"), (2, "z")):
            headers[f"kspace_encode_step_{step}"] = self.places(name)[self.index(measured, name)]
        for name, counter in _COUNTERS.items():
            headers[counter] = self.index(measured, name)
        self._at = np.nonzero(measured)
        count = [self._at[axis] for axis in range(self._outer)]
        self._of = np.ravel_multi_index([*count, self._at[self._outer] // self._step], self._counts)
        return headers

    def read(self, numbers):
        """Lines of these numbers, in ascending order."""
        extents = self.stored.extents
        block = np.empty((extents["x"], extents["coil"], len(numbers)), np.complex64, order="F")
        units = self._of[numbers]
        for unit in np.unique(units):
            at = np.flatnonzero(units == unit)
            box = self.box(unit)
            inside = tuple(i[numbers[at]] - b.start for i, b in zip(self._at, box))
            block[:, :, at] = self.unit(unit)[(slice(None), slice(None), *inside)]
        if self.stored.transformed and block.size:
            block = to_kspace(block, (0,), overwrite=True)
        measured = block[self.found.first : self.found.last + 1]
        return Block(np.asarray(numbers), np.asfortranarray(measured))


def plain(samples, pairs=False):
    """Samples of a file as complex64, from pairs of parts or fields; real numbers do not change."""
    samples = np.asarray(samples)
    if samples.dtype.kind in "biuf" and not pairs:
        return samples
    if not samples.dtype.names and not pairs:
        with np.errstate(over="ignore"):  # values that are too large become infinite, and are refused
            return samples.astype(np.complex64, copy=False)
    names = sorted(samples.dtype.names or (), reverse=True)
    real, imag = (samples[name] for name in names) if names else (samples[..., ::2], samples[..., 1::2])
    made = np.empty(real.shape, np.complex64)
    with np.errstate(over="ignore"):
        made.real, made.imag = real, imag
    return made


@dataclass
class Block:
    """Lines that have been read, (sample, coil, line)."""

    numbers: np.ndarray
    lines: np.ndarray

    def samples(self, number):
        """Those of one line, (sample, coil)."""
        return self.lines[:, :, np.searchsorted(self.numbers, number)]

    def put(self, numbers, *, x, array, offsets, coil_axis, shift, add):
        """Put lines into an array, from their offsets and from sample `x` on."""
        from ._raw import put

        at = np.searchsorted(self.numbers, numbers)
        lines = self.lines if at.size == self.numbers.size else np.asfortranarray(self.lines[:, :, at])
        if at.size:
            put(lines, array, offsets=offsets, coil_axis=coil_axis, shift=(shift + int(x[0])) % array.shape[0], add=add)


# ---- Separate calibration in a second file -------------------------------------------------------


def joined(scan, calibration, part=None, skip=()):
    """A scan and its separate calibration, as one `Opened`; `part` and `skip` are those of `survey`.

    ACS lines of the scan stay in its images; a separate calibration in the file of the scan is left out.
    """
    found = survey(scan.encodings, scan.headers, part, skip)
    first, second = scan.headers.copy(), calibration.headers.copy()
    flagged = first["flags"] & (CALIBRATION | CALIBRATION_AND_IMAGING) != 0
    first["flags"][flagged & (found.role == IMAGING)] &= ~CALIBRATION
    first["flags"][flagged & (found.role != IMAGING)] |= NOT_IMAGING
    kept = np.flatnonzero(second["flags"] & (NOT_IMAGING | NOISE) == 0)
    if not kept.size:
        raise DefectError("the file of its separate calibration has no lines of k-space", "name another one")
    second = second[kept]
    second["flags"] = CALIBRATION
    second["encoding_space_ref"] += len(scan.encodings)
    encodings, notes = list(calibration.encodings), calibration.notes
    if not calibration.stated:
        encodings = [replace(e, encoded_fov=scan.encodings[0].encoded_fov) for e in encodings]
        notes = ("it has no field of view; that of the scan is used",)
    return replace(
        scan,
        file=_Both(scan.file, calibration.file, len(first), kept),
        encodings=[*scan.encodings, *encodings],
        headers=np.concatenate([first, second]),
        notes=(*scan.notes, *(f"calibration: {text}" for text in notes)),
    )


class _Both:
    """Lines of two files; numbers of the second one follow those of the first."""

    def __init__(self, first, second, count, kept):
        self._files, self._count, self._kept = (first, second), count, kept
        self.header = first.header

    def read(self, numbers):
        numbers = np.asarray(numbers)
        at = np.searchsorted(numbers, self._count)
        of_second = self._kept[numbers[at:] - self._count]
        return _Blocks([file.read(n) for file, n in zip(self._files, (numbers[:at], of_second))], self)

    def own(self, numbers):
        """The file of a number, and the number in that file."""
        second = np.asarray(numbers) >= self._count
        return second, np.where(second, self._kept[(numbers - self._count) * second], numbers)


class _Blocks:
    def __init__(self, blocks, both):
        self._blocks, self._both = blocks, both

    def samples(self, number):
        second, own = self._both.own(np.array([number]))
        return self._blocks[int(second[0])].samples(int(own[0]))

    def put(self, numbers, *, x, array, offsets, coil_axis, shift, add):
        second, own = self._both.own(numbers)
        for block, at in zip(self._blocks, (~second, second)):
            if at.any():
                block.put(
                    own[at], x=x[at], array=array, offsets=offsets[at], coil_axis=coil_axis, shift=shift, add=add[at]
                )
