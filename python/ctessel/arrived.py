"""Samples of a stream as a source of k-space, and what can be reconstructed before a scan's end.

An image may be sent early only if no later measurement can change it. So the rest of the scan is
forecast from the counters in the header and from the lines of the first image. The plan is made as if
the whole scan had been measured. When all forecast lines of a slice have arrived, it is reconstructed
with the plan, and the bits, of the finished scan. If a different line arrives, no more images are sent
before the end.
"""

from dataclasses import fields, is_dataclass, replace

import numpy as np

from . import raw
from ._ismrmrd import parse
from .acquisitions import (
    CALIBRATION,
    CALIBRATION_AND_IMAGING,
    LAST_IN_MEASUREMENT,
    LAST_IN_REPETITION,
    LAST_IN_SLICE,
    NOISE,
    NOT_IMAGING,
    REVERSE,
    survey,
)
from .fourier import cut_unshifted, unshifted_image
from .plan import plan as make_plan
from .stream import parse_xml

#: Ends of a slice, of a repetition and of the measurement.
LAST = LAST_IN_SLICE | LAST_IN_REPETITION | LAST_IN_MEASUREMENT
#: Counters that distinguish the measurements of a line, and whether it is only calibration.
COUNTERS = (
    "kspace_encode_step_1", "kspace_encode_step_2", "average", "slice", "contrast", "phase",
    "repetition", "set",
)  # fmt: skip
#: Fields of a header that decide, with the counters, where the samples of a line belong.
ALIKE = (
    "number_of_samples", "active_channels", "discard_pre", "discard_post", "center_sample",
    "encoding_space_ref",
)  # fmt: skip
#: Lines that are put into place in one go.
BATCH = 256
#: An incomplete image needs at least this many new lines before they are put into place.
AHEAD = 8
#: Bytes of such images.
MOST_AHEAD = 128 << 20
#: No forecast is tried after this many acquisitions.
UNCLEAR = 50_000
#: Lines of all images that are counted, measured or not.
MOST_LINES = 40_000_000
#: Lines that are forecast.
MOST_FORECAST = 200_000
#: Counters that need limits in the header; without limits there is one phase and one set.
PROMISED = ("slice", "contrast", "repetition", "average")


def contents(header, headers):
    """`raw.Contents` of a stream: of the text of its header and the headers of its acquisitions."""
    matrices = [one.encoded_matrix for one in parse(header)]
    counters = np.stack([headers[name] for name in ("slice", "contrast", "repetition")])
    images = np.unique(counters, axis=1).shape[1]
    if max(y * z for _, y, z in matrices) * images > MOST_LINES:
        raise ValueError(f"it has more than {MOST_LINES} encoded lines; reconstruct it from a file")
    return replace(survey(parse(header), headers), cut=True)


class Arrived:
    """Source of samples for `reconstruct`: the acquisitions of a complete stream."""

    shared = disposable = False

    def __init__(self, acquisitions, found, threads=None, received=None):
        self._acquisitions, self._found, self._threads = acquisitions, found, threads
        self.layout = raw.layout_of(found, lambda at: [acquisitions.samples(int(i)) for i in at], received)
        self._images = _by_image(found.scan)
        self._latest = None  # frames are asked for twice where they calibrate

    def frames(self, index, repetitions):
        """k-space of a slice, ``(x, y, z, coil, echo, repetition)``."""
        if isinstance(repetitions, slice):
            repetitions = range(repetitions.start, repetitions.stop)
        wanted = (index, *repetitions)
        if self._latest is None or self._latest[0] != wanted:
            self._latest = wanted, self._filled(index, repetitions)
        return self._latest[1]

    def separate(self, index):
        """Separate calibration of a slice, ``(x, y, z, coil)``."""
        places = self._found.separate
        array = np.zeros((*places.shape[:4], 1, 1), np.complex64, order="F")
        rows = np.flatnonzero(places.which & (places.slice == min(index, places.shape[4] - 1)))
        self._put(places, rows, self.numbers(rows), array)
        return array[..., 0, 0]

    def transformed(self, block):
        """Lines of an image with the readout transformed, if that was done in advance; otherwise None."""
        return None

    def numbers(self, rows):
        """Which acquisitions of the stream those of the survey are."""
        return rows

    def image(self, index, repetition):
        """Acquisitions that make an image: those of the survey, and the stream's."""
        rows = self._images.get((index, repetition), np.zeros(0, int))
        return rows, rows

    def _filled(self, index, repetitions):
        places = self._found.scan
        shape = (*self.layout.shape[:4], self.layout.shape[5], len(repetitions))
        array = np.zeros(shape, np.complex64, order="F")
        for at, repetition in enumerate(repetitions):
            self._put(places, *self.image(index, repetition), array[..., at : at + 1])
        return array

    def _put(self, places, rows, numbers, array, transformed=False):
        """Put lines of one image into place; several measurements of a line are averaged.

        transformed: the readout of the array is.
        """
        steps = np.array(array.strides, np.int64) // array.itemsize
        at = (places.y, places.z, None, places.echo)
        offsets = sum(i[rows] * step for i, step in zip(at, steps[1:]) if i is not None)
        for first in range(0, len(rows), BATCH):
            part = slice(first, first + BATCH)
            self._put_some(places, rows[part], numbers[part], array, offsets[part], transformed)
        where, times = np.unique(offsets, return_counts=True)
        for offset, count in zip(where[times > 1], times[times > 1]):
            _, y, z, _, echo, _ = np.unravel_index(offset, array.shape, order="F")
            array[:, y, z, :, echo] /= np.float32(count)

    def _put_some(self, places, rows, numbers, array, offsets, transformed):
        n, add = places.shape[0], places.repeated(rows)
        if len(array) == n and not transformed:
            self._acquisitions.put(numbers, places.x[rows], array, offsets, coil_axis=3, shift=0, add=add)
            return
        # The centres are moved to the first samples, and back, on the way.
        whole = np.zeros((n, array.shape[3], len(rows)), np.complex64, order="F")
        self._acquisitions.put(
            numbers, places.x[rows], whole, n * array.shape[3] * np.arange(len(rows)),
            coil_axis=1, shift=n - n // 2, add=np.zeros(len(rows), bool),
        )  # fmt: skip
        cut = whole
        if len(array) < n:
            cut = cut_unshifted(whole, len(array), threads=self._threads)
        if transformed:
            cut = unshifted_image(cut, (0,), self._threads)
        raw.binding("stream").put(cut, array, offsets, coil_axis=3, shift=len(array) // 2, add=add)


def _by_image(places):
    """Acquisitions of each image, by its slice and repetition."""
    rows = np.flatnonzero(places.which)
    at = np.stack([places.slice[rows], places.repetition[rows]], 1)
    images, which = np.unique(at, axis=0, return_inverse=True)
    order = np.argsort(which.ravel(), kind="stable")
    ends = np.cumsum(np.bincount(which.ravel()))
    return {tuple(image): np.sort(rows[part]) for image, part in zip(images.tolist(), np.split(order, ends[:-1]))}


# ---- Forecast ------------------------------------------------------------------------------------


class Forecast(Arrived):
    """Source of samples for a scan that still runs, and the plan of the whole scan.

    It spans two repetitions: all later ones are like the second one.

    Parameters
    ----------
    header : bytes
    headers : ndarray of `HEADER`
        Those that have arrived.
    acquisitions : Stream
    options : Options

    Raises
    ------
    ValueError
        The rest of the scan is not known yet, or cannot be reconstructed.
    """

    def __init__(self, header, headers, acquisitions, options):
        counts = _promised(header, headers)
        beyond = np.flatnonzero(headers["repetition"] > counts["repetition"][0] + 1)
        headers = headers[: beyond[0]] if beyond.size else headers
        expected = _expected(header, headers, counts)
        super().__init__(acquisitions, contents(header, expected), options.threads, headers.size)
        self.plan = make_plan(self.layout, options)
        self._expected, self._second = expected, counts["repetition"][0] + 1
        self._phases_and_sets = (len(counts["phase"]), len(counts["set"]))
        self._separate = np.full(expected.size, -1)
        self._arrivals, self._within = {}, np.zeros(expected.size, int)
        self._begun, self._ahead = set(), {}
        for rows in self._images.values():
            self._within[rows] = np.arange(len(rows))
        lines = np.flatnonzero(expected["flags"] & (NOISE | NOT_IMAGING) == 0)
        self._rows = dict(zip(_keys(expected[lines]), lines.tolist()))
        if len(self._rows) < lines.size:
            raise ValueError("lines that cannot be distinguished")
        self._known = 0
        self._noise = np.count_nonzero(headers["flags"] & NOISE)

    def numbers(self, rows):
        return self._separate[rows]

    def image(self, index, repetition):
        rows = self._images[index, self._like(repetition)]
        numbers = self._arrivals[index, repetition]
        order = np.argsort(numbers)  # several measurements of a line are added in the order of their arrival
        return rows[order], numbers[order]

    def pattern(self, repetition):
        """Number of the pattern of a repetition."""
        like = self._like(repetition)
        return next(n for n, p in enumerate(self.plan.patterns) if like in p.repetitions)

    @property
    def header(self):
        return self._found.header

    @property
    def last_calibrating(self):
        """The last repetition whose lines later ones need."""
        region = self.plan.calibration
        firsts = [int(pattern.repetitions[0]) for pattern in self.plan.patterns]
        return max([*firsts, 0 if region is None or region.separate else region.frames - 1])

    def agrees(self, plan, repetitions):
        """Whether a plan makes the same images of some repetitions."""
        others = ("shape", "kept", "patterns", "steps", "warnings")
        ours = (f.name for f in fields(plan) if f.name not in others)
        if any(not _same(getattr(self.plan, name), getattr(plan, name)) for name in ours):
            return False
        for repetition in repetitions:
            forecast = self.plan.patterns[self.pattern(repetition)]
            pattern = next(p for p in plan.patterns if repetition in p.repetitions)
            if not _same(replace(forecast, repetitions=None), replace(pattern, repetitions=None)):
                return False
        return self.plan.shape[:6] == plan.shape[:6]

    def arrive(self, headers):
        """Take note of all headers so far. Returns the images that the new ones complete.

        ValueError if an acquisition differs from the forecast.
        """
        numbers = np.arange(self._known, headers.size)
        self._known = headers.size
        numbers = numbers[headers["flags"][numbers] & NOT_IMAGING == 0]
        noise = headers["flags"][numbers] & NOISE != 0
        self._noise -= np.count_nonzero(noise)
        if self._noise < 0:
            raise ValueError("a noise scan after lines of images")
        numbers = numbers[~noise]
        new = headers[numbers]
        new["repetition"] = np.minimum(new["repetition"], self._second)
        rows = np.array([self._rows.get(key, -1) for key in _keys(new)], int)
        odd = np.flatnonzero((rows < 0) | ~_same_readout(self._expected[rows], new))
        if odd.size:
            raise ValueError(f"acquisition {numbers[odd[0]]} was not expected")
        later = headers["repetition"][numbers].astype(int) - new["repetition"]
        later *= int(np.prod(self._phases_and_sets))
        complete = [self._note(*each) for each in zip(rows, numbers, later)]
        return [image for image in complete if image]

    def _note(self, row, number, later):
        scan, separate = self._found.scan, self._found.separate
        if separate and separate.which[row] and later == 0:
            self._separate[row] = number
        if not scan.which[row]:
            return None
        like = (int(scan.slice[row]), int(scan.repetition[row]))
        image = (like[0], like[1] + int(later))
        arrivals = self._arrivals.setdefault(image, np.full(len(self._images[like]), -1))
        if arrivals[self._within[row]] >= 0:
            raise ValueError(f"acquisition {number} was received before")
        arrivals[self._within[row]] = number
        complete = (arrivals >= 0).all()
        (self._begun.discard if complete else self._begun.add)(image)
        return image if complete else None

    def ready(self, index, repetition):
        """Whether all acquisitions of an image have arrived."""
        pattern, region = self.plan.patterns[self.pattern(repetition)], self.plan.calibration
        frames = {repetition}
        if region is not None:
            frames |= {int(pattern.repetitions[0])}
            frames |= set() if region.separate else set(range(region.frames))
            if region.separate:
                places = self._found.separate
                rows = places.which & (places.slice == min(index, places.shape[4] - 1))
                if (self._separate[rows] < 0).any():
                    return False
        return all((self._arrivals.get((index, frame), self._none) >= 0).all() for frame in frames)

    _none = np.full(1, -1)

    def prepare(self, known):
        """Put lines of incomplete images into place, while there is time.

        known : container of (slice, pattern)
            Those whose images will ask for `transformed`.
        """
        for index, repetition in self._begun:
            if (index, self.pattern(repetition)) in known and self._opened(index, repetition):
                self._advance(index, repetition, AHEAD)

    def transformed(self, block):
        """As `frames`, with the readout transformed, of an image that was begun; otherwise None."""
        (repetition,) = block.repetitions.tolist()
        if (block.slice, repetition) not in self._ahead:
            return None
        self._advance(block.slice, repetition, 1)
        return self._ahead.pop((block.slice, repetition))[0]

    def _opened(self, index, repetition):
        """Whether there is an array for lines of an image, or can be one."""
        if (index, repetition) in self._ahead:
            return True
        shape, places = (*self.layout.shape[:4], self.layout.shape[5], 1), self._found.scan
        rows = self._images[index, self._like(repetition)]
        room = MOST_AHEAD // (8 * int(np.prod(shape))) > len(self._ahead)
        pattern = self.plan.patterns[self.pattern(repetition)]
        if not (room and self.plan.keeps_readout(pattern)) or places.repeated(rows).any():
            return False
        array = np.zeros(shape, np.complex64, order="F")
        self._ahead[index, repetition] = array, np.zeros(len(rows), bool)
        return True

    def _advance(self, index, repetition, least):
        array, done = self._ahead[index, repetition]
        arrivals = self._arrivals[index, repetition]
        fresh = np.flatnonzero((arrivals >= 0) & ~done)
        if len(fresh) >= least:
            rows = self._images[index, self._like(repetition)][fresh]
            self._put(self._found.scan, rows, arrivals[fresh], array, transformed=True)
            done[fresh] = True

    def _like(self, repetition):
        merged = int(np.prod(self._phases_and_sets))
        return repetition if repetition < merged else merged + repetition % merged


def _same(a, b):
    """Whether two values have the same content, arrays and records of them included."""
    if is_dataclass(a) and not isinstance(a, type):
        values = ((getattr(a, f.name), getattr(b, f.name)) for f in fields(a))
        return type(a) is type(b) and all(_same(*pair) for pair in values)
    if isinstance(a, (list, tuple)):
        return type(a) is type(b) and len(a) == len(b) and all(map(_same, a, b))
    if isinstance(a, np.ndarray) or isinstance(b, np.ndarray):
        return a is not None and b is not None and np.array_equal(a, b)
    return a == b


def _promised(header, headers):
    """The values of each counter that the header promises."""
    space = int(headers["encoding_space_ref"][_imaging(headers)][0])
    limits = parse_xml(header).findall("{*}encoding")[space].find("{*}encodingLimits")
    counts = {"phase": range(1), "set": range(1)}
    for name in (*PROMISED, *counts):
        limit = None if limits is None else limits.find("{*}" + name)
        if limit is not None:
            first, last = (limit.findtext("{*}" + end, "") for end in ("minimum", "maximum"))
            counts[name] = range(int(first), min(int(last), 65535) + 1)
        if not counts.get(name):
            raise ValueError(f"the header has no limits for {name}")
    return counts


def _imaging(headers):
    """Lines that are part of images: not noise, only calibration, or ignored."""
    flags = headers["flags"]
    alone = (flags & CALIBRATION != 0) & (flags & CALIBRATION_AND_IMAGING == 0)
    return (flags & (NOISE | NOT_IMAGING) == 0) & ~alone


def _expected(header, headers, counts):
    """Headers that have arrived and forecast ones: two repetitions of every slice.

    ValueError where the lines of an image, or the places of the slices, are not known yet.
    """
    first = _template(headers, counts, 0)
    lines = [first]
    if len(counts["repetition"]) > 1:
        lines.append(_second(header, headers, counts, first))
    measured = headers[headers["flags"] & (NOISE | NOT_IMAGING) == 0]
    seen = {int(header["slice"]): header for header in measured[::-1]}
    if set(seen) != set(counts["slice"]):
        raise ValueError("the positions of some slices are not known yet")
    if len(seen) * sum(template.size for template in lines) > MOST_FORECAST:
        raise ValueError("there are too many lines to forecast")
    made = [headers]
    for repetition, template in zip(counts["repetition"], lines):
        for index in counts["slice"]:
            made.append(_moved(template, seen[index], repetition))
    made = np.concatenate(made)
    # Headers that have arrived stay; the forecast adds the others.
    keys = _keys(made)
    have, fresh = set(keys[: headers.size]), np.ones(made.size, bool)
    fresh[headers.size :] = [key not in have for key in keys[headers.size :]]
    return made[fresh]


def _template(headers, counts, number):
    """The lines of one image that is complete, of the first repetition or the second."""
    repetition = counts["repetition"][number]
    measured = headers["flags"] & (NOISE | NOT_IMAGING) == 0
    ours = headers[measured & (headers["repetition"] == repetition)]
    for index in counts["slice"]:
        lines = ours[ours["slice"] == index]
        if _complete(lines[_imaging(lines)], headers, counts):
            return lines
    raise ValueError("no image is complete yet")


def _complete(lines, headers, counts):
    """Whether these are all lines of a slice: the last says so, or the next repetition began."""
    if not lines.size:
        return False
    names = ("contrast", "phase", "set", "average")
    groups, each = np.unique(np.stack([lines[name] for name in names]), axis=1, return_counts=True)
    if groups.shape[1] != np.prod([len(counts[name]) for name in names]) or np.ptp(each):
        return False
    same = headers[headers["slice"] == lines["slice"][0]]
    return bool(lines["flags"][-1] & LAST or (same["repetition"] > lines["repetition"][0]).any())


def _second(header, headers, counts, first):
    """The lines of a slice in the second repetition, whose calibration may be that of the first."""
    try:
        return _template(headers, counts, 1)
    except ValueError:
        imaging = first[_imaging(first)]
        mode = parse(header)[int(imaging["encoding_space_ref"][0])].calibration_mode
        if imaging.size < first.size and mode not in ("separate", "external"):
            raise
        if mode == "interleaved":
            raise ValueError("lines that change from repetition to repetition") from None
        return imaging


def _moved(template, to, repetition):
    """Lines of another slice and repetition."""
    lines = template.copy()
    lines["repetition"] = repetition
    for name in ("slice", "position", "read_dir", "phase_dir", "slice_dir"):
        lines[name] = to[name]
    return lines


def _keys(headers):
    """A key for each header; different measurements of a line have different keys."""
    alone = ~_imaging(headers) & (headers["flags"] & NOT_IMAGING == 0)
    table = np.stack([*(headers[name].astype("<u2") for name in COUNTERS), alone.astype("<u2")], 1)
    return np.ascontiguousarray(table).view(f"V{2 * table.shape[1]}").ravel().tolist()


def _same_readout(expected, headers):
    """Whether the samples of lines belong where those of the expected ones do."""
    same = expected["flags"] & REVERSE == headers["flags"] & REVERSE
    for name in ALIKE:
        same &= expected[name] == headers[name]
    return same
