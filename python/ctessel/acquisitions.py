"""Finds the place of each acquisition in k-space from the headers, without samples.

Readers of files and streams provide the headers for `survey`. Its steps take columns with one entry
per acquisition, and return new columns.
"""

from dataclasses import dataclass, replace

import numpy as np

from . import runtime
from .scan import Header, Limit, Placement

#: Axes along which parts of a scan can be read, in the order of its arrays.
RANGE_AXES = ("slice", "echo", "repetition")
#: Roles of an acquisition. SEPARATE belongs to a separate calibration.
IGNORED, IMAGING, SEPARATE, NOISE_SCAN = range(4)

#: Milliseconds of one unit of a scanner's time stamps.
TICK = 2.5

#: Header of one acquisition in the memory layout of libismrmrd, without gaps.
HEADER = np.dtype([
    ("version", "<u2"), ("flags", "<u8"), ("measurement_uid", "<u4"), ("scan_counter", "<u4"),
    ("acquisition_time_stamp", "<u4"), ("physiology_time_stamp", "<u4", 3),
    ("number_of_samples", "<u2"), ("available_channels", "<u2"), ("active_channels", "<u2"),
    ("channel_mask", "<u8", 16), ("discard_pre", "<u2"), ("discard_post", "<u2"),
    ("center_sample", "<u2"), ("encoding_space_ref", "<u2"), ("trajectory_dimensions", "<u2"),
    ("sample_time_us", "<f4"), ("position", "<f4", 3), ("read_dir", "<f4", 3),
    ("phase_dir", "<f4", 3), ("slice_dir", "<f4", 3), ("patient_table_position", "<f4", 3),
    ("kspace_encode_step_1", "<u2"), ("kspace_encode_step_2", "<u2"), ("average", "<u2"),
    ("slice", "<u2"), ("contrast", "<u2"), ("phase", "<u2"), ("repetition", "<u2"), ("set", "<u2"),
    ("segment", "<u2"), ("user", "<u2", 8), ("user_int", "<i4", 8), ("user_float", "<f4", 8),
])  # fmt: skip


def flag(number):
    """Bit of a flag. The format numbers flags from 1."""
    return np.uint64(1 << (number - 1))


LAST_IN_SLICE = flag(8)
LAST_IN_REPETITION = flag(14)
NOISE = flag(19)
CALIBRATION = flag(20)
CALIBRATION_AND_IMAGING = flag(21)
REVERSE = flag(22)
LAST_IN_MEASUREMENT = flag(25)
#: Kinds of acquisitions without image data, by the number of their flag.
NOT_IMAGING_NAMES = {
    23: "navigators", 24: "phase corrections", 26: "feedback", 27: "dummies", 28: "real-time feedback",
    29: "coil corrections", 30: "phase references", 31: "phase stabilisation",
}  # fmt: skip
NOT_IMAGING = np.bitwise_or.reduce([flag(n) for n in NOT_IMAGING_NAMES])


class DefectError(ValueError):
    """A file lacks something, or contradicts itself. The text says what, and how to fix it."""

    def __init__(self, what, advice="convert the scanner's data again"):
        super().__init__(f"{what}; {advice}")


@dataclass(frozen=True, eq=False)
class Places:
    """The place of each acquisition in an array of k-space, and the extents of that array."""

    shape: tuple[int, ...]  # indexed by AXES
    which: np.ndarray  # acquisitions that go there
    x: np.ndarray  # of the first sample that is kept
    y: np.ndarray
    z: np.ndarray
    slice: np.ndarray
    echo: np.ndarray
    repetition: np.ndarray
    times: np.ndarray  # each line was measured, (y, z, slice, echo, repetition)

    def offsets(self, array, numbers):
        """Where lines start in an array of this shape, in samples from its first one."""
        steps = np.array(array.strides, np.int64) // array.itemsize
        at = (self.y, self.z, None, self.slice, self.echo, self.repetition)  # None: any coil
        return sum(i[numbers] * step for i, step in zip(at, steps[1:]) if i is not None)

    def repeated(self, numbers):
        """Whether lines were measured several times."""
        at = (self.y, self.z, self.slice, self.echo, self.repetition)
        return self.times[tuple(i[numbers] for i in at)] > 1

    def part(self, index, repetitions):
        """Places of some repetitions of one slice, in an array for these repetitions."""
        among = np.full(self.shape[6], -1)
        among[repetitions] = np.arange(len(repetitions))
        which = self.which & (self.slice == index)
        which[which] = among[self.repetition[which]] >= 0
        return replace(
            self,
            shape=(*self.shape[:4], 1, self.shape[5], len(repetitions)),
            which=which,
            slice=np.zeros_like(self.slice),
            repetition=among[np.where(which, self.repetition, 0)],
            times=self.times[:, :, [index]][..., repetitions],
        )


@dataclass(frozen=True, eq=False)
class Contents:
    """What a scan holds, without the samples."""

    header: Header
    headers: np.ndarray
    role: np.ndarray
    scan: Places
    flagged: np.ndarray  # (y, z) of bool: lines that the file calls calibration
    separate: Places | None = None
    range: tuple[str, int, int] | None = None
    skipped: tuple[tuple[str, int], ...] = ()
    extents: dict | None = None  # of the whole scan, by RANGE_AXES
    kept: dict | None = None  # positions of the whole scan that are here
    cut: bool = False  # the readout to the field of the image, while it is read
    path: str = ""
    group: str = ""
    file: object = None  # what reads the samples
    notes: tuple[str, ...] = ()  # where samples and headers disagree, and what was assumed
    format: str = "ISMRMRD"  # its name for people
    given: object = None  # `ctessel.formats.Given`: what the user has said about the file

    @property
    def width(self):
        """Samples along x of the array that the scan is read into."""
        header, n = self.header, self.scan.shape[0]
        share = header.recon_fov[0] / header.encoded_fov[0] if header.encoded_fov[0] > 0 else 1.0
        x = header.limits["x"]
        # A partial readout is cut after homodyne, which needs to know where it ends.
        whole = x.minimum <= 0 and x.maximum >= n - 1
        return max(1, round(n * share)) if self.cut and whole and 0 < share < 0.999 else n

    @property
    def noise_samples(self):
        return int(self.headers["number_of_samples"][self.role == NOISE_SCAN].sum())

    @property
    def nbytes(self):
        """Memory of the arrays that the scan is read into."""
        arrays = [(self.width, *self.scan.shape[1:]), (self.noise_samples, self.scan.shape[3])]
        arrays += [self.separate.shape] if self.separate else []
        return sum(int(np.prod(shape, dtype=float)) for shape in arrays) * 8

    @property
    def warnings(self):
        """Warnings: why the image may differ from what the user expects, one line each."""
        measured = self.scan.times[self.scan.times > 0]
        often, counts = np.unique(measured, return_counts=True)
        if often.size < 2:
            return ()
        usual = int(often[counts.argmax()])
        odd = int(counts.sum() - counts.max())
        return (
            f"{odd} of {measured.size} lines were not measured {usual} time{'s' * (usual > 1)} like the others, "
            f"but {', '.join(str(n) for n in often if n != usual)} times; each line is the mean of its measurements",
        )


def survey(encodings, headers, part=None, skip=()):
    """Find out what a scan holds.

    Parameters
    ----------
    encodings : sequence of Header
        One for each encoding of the scan.
    headers : ndarray of HEADER
        One for each acquisition, in the order of measurement.
    part : tuple of str, int, int, optional
        Axis and the first and last position that are wanted.
    skip : sequence of (str, int), optional
        Axis and position of images that are left out, also from the calibration.

    Returns
    -------
    Contents

    Raises
    ------
    DefectError
        They contradict each other, or there is nothing to reconstruct.
    """
    role, flagged = _roles(headers)
    space, header = _encoding(encodings, headers, role == IMAGING)
    index = {"slice": headers["slice"], "echo": headers["contrast"], "repetition": _repetitions(headers)}
    index = {name: _compact(values, role == IMAGING) for name, values in index.items()}
    # Calibration of slices without images is useless.
    role = np.where((role == SEPARATE) & (index["slice"] < 0), IGNORED, role)
    index["slice"], placed = _in_order(headers, role == IMAGING, index["slice"])
    header = replace(header, **placed)
    extents = {name: int(index[name][role == IMAGING].max()) + 1 for name in RANGE_AXES}
    kept = wanted(extents, part, skip)
    role = _restricted(headers, role, index, kept, skip)
    index = {name: _compacted(index[name], kept[name], extents[name]) for name in RANGE_AXES}
    header = _restricted_header(header, kept, extents)
    coils = _coils(headers, role)
    index["y"], index["z"] = _lines(headers, encodings, role)
    role = _joined(headers, role, header, space, index)
    scan, readout = _scan_places(headers, role, header, coils, index)
    role, separate, fov = _separate_places(headers, role, encodings, coils, index, scan.shape[4])
    averages = float(np.median(scan.times[scan.times > 0]))
    header = replace(
        header,
        limits={**header.limits, "x": readout},
        noise_bandwidth_ratio=_dwell_ratio(headers, role) / averages,
        calibration_fov=fov,
        dwell=_dwell(headers, role),
        volumes=_volumes(headers["acquisition_time_stamp"], scan),
    )
    marked = np.zeros(scan.times.shape[:2], bool)
    called = flagged & (role == IMAGING)
    marked[scan.y[called], scan.z[called]] = True
    return Contents(header, headers, role, scan, marked, separate, part, tuple(skip), extents, kept)


def _roles(headers):
    """Roles, with calibration as SEPARATE; and which acquisitions are flagged as calibration."""
    flags = headers["flags"]
    calibration = flags & CALIBRATION != 0
    both = flags & CALIBRATION_AND_IMAGING != 0
    role = np.full(headers.size, IMAGING)
    role[calibration & ~both] = SEPARATE
    role[flags & NOT_IMAGING != 0] = IGNORED
    role[flags & NOISE != 0] = NOISE_SCAN
    if not (role == IMAGING).any():
        raise DefectError("it holds no imaging acquisitions")
    return role, calibration | both


def _encoding(encodings, headers, imaging):
    spaces = np.unique(headers["encoding_space_ref"])
    if spaces.max() >= len(encodings):
        raise DefectError(f"an acquisition refers to encoding {spaces.max()}, its header has {len(encodings)}")
    spaces = np.unique(headers["encoding_space_ref"][imaging])
    if spaces.size > 1:
        raise DefectError(
            "its imaging acquisitions belong to several encodings",
            "write them to separate files",
        )
    return spaces[0], encodings[spaces[0]]


def _repetitions(headers):
    """Repetition, cardiac phase and set, the last one fastest."""
    sets, phases = (int(headers[name].max()) + 1 for name in ("set", "phase"))
    return (headers["repetition"].astype(int) * phases + headers["phase"]) * sets + headers["set"]


def _compact(values, imaging):
    """Position of each value among those that images have; -1 for others."""
    kinds = np.unique(values[imaging])
    at = np.minimum(np.searchsorted(kinds, values), kinds.size - 1)
    return np.where(kinds[at] == values, at, -1)


def _in_order(headers, imaging, index):
    """Slice numbers along the normal; and their positions, as fields of a header."""
    first = [int(np.flatnonzero(imaging & (index == i))[0]) for i in range(int(index.max()) + 1)]
    if not all(_has_directions(headers[i]) for i in first):
        return index, {}
    places = [_placement(headers[i]) for i in first]
    if len(places) > 1 and not np.ptp([np.hstack([*vars(p).values()]) for p in places], 0).any():
        return index, {}  # all slices have the same position in the file
    along = np.array([p.position @ places[0].slice for p in places])
    order = np.argsort(along, kind="stable")
    steps = np.diff(along[order])
    if not (steps.size and steps.min() > 1e-3):
        return index, {"placements": places}
    rank = np.append(np.argsort(order), -1)  # -1 stays -1
    places = [places[i] for i in order]
    positions = np.array([p.position for p in places])
    spacing = float(np.median(np.linalg.norm(np.diff(positions, axis=0), axis=1)))
    return rank[index], {"placements": places, "spacing": spacing}


def _has_directions(header):
    return all(np.any(header[name]) for name in ("read_dir", "phase_dir"))


def _placement(header):
    position, read, phase, normal = (
        header[name].astype(float) for name in ("position", "read_dir", "phase_dir", "slice_dir")
    )
    normal = normal if normal.any() else np.cross(read, phase)
    axes = np.array([read, phase, normal])
    if not np.allclose(axes @ axes.T, np.eye(3), atol=0.02) or not np.isfinite(position).all():
        raise DefectError("read, phase and slice directions of its acquisitions are not at right angles")
    return Placement(position, read, phase, normal)


def wanted(extents, part=None, skip=()):
    """Positions along each axis that are wanted, of the whole scan; arguments are those of `survey`."""
    for axis, first, last in [*([part] if part else []), *((axis, n, n) for axis, n in skip)]:
        if axis not in RANGE_AXES:
            raise DefectError(f"it cannot be read along {axis}", f"parts exist along {', '.join(RANGE_AXES)}")
        if not 0 <= first <= last < extents[axis]:
            where = f"{first} to {last}" if last > first else str(first)
            raise DefectError(f"{axis} {where} is not in it", f"it has {axis} 0 to {extents[axis] - 1}")
    kept = {axis: np.arange(n) for axis, n in extents.items()}
    if part:
        kept[part[0]] = np.arange(part[1], part[2] + 1)
    for axis, number in skip:
        kept[axis] = kept[axis][kept[axis] != number]
        if not kept[axis].size:
            raise DefectError(f"nothing is left along {axis}", "skip less with --skip")
    return kept


def _restricted(headers, role, index, kept, skip):
    """Roles of what is kept. Other echoes and repetitions still calibrate, unless they are skipped."""
    both = headers["flags"] & CALIBRATION_AND_IMAGING != 0
    for axis in RANGE_AXES:
        outside = ~np.isin(index[axis], kept[axis])
        left = [n for name, n in skip if name == axis]
        useless = np.isin(index[axis], left) | (outside & (axis == "slice"))
        role = np.where(useless & np.isin(role, (IMAGING, SEPARATE)), IGNORED, role)
        role = np.where(outside & (role == IMAGING), np.where(both, SEPARATE, IGNORED), role)
    return role


def _compacted(index, kept, extent):
    """Positions among those that are kept; -1 for others."""
    among = np.full(extent + 1, -1)  # the last one for -1
    among[kept] = np.arange(len(kept))
    return among[index]


def _restricted_header(header, kept, extents):
    def chosen(values, axis):
        return [values[i] for i in kept[axis]] if len(values) == extents[axis] else values

    return replace(header, placements=chosen(header.placements, "slice"), te=chosen(header.te, "echo"))


def _coils(headers, role):
    used = np.flatnonzero(role != IGNORED)
    coils = headers["active_channels"][used]
    odd = used[coils != coils[0]]
    if odd.size:
        raise DefectError(
            f"acquisition {odd[0]} has {headers['active_channels'][odd[0]]} coils, " f"the first one {coils[0]}"
        )
    if coils[0] == 0:
        raise DefectError("its acquisitions have no coils")
    return int(coils[0])


def _lines(headers, encodings, role):
    """Places of lines along y and z on the grid of their own encoding, k = 0 at ``N // 2``."""
    y, z = np.zeros(headers.size, int), np.zeros(headers.size, int)
    for space, header in enumerate(encodings):
        ours = (headers["encoding_space_ref"] == space) & np.isin(role, (IMAGING, SEPARATE))
        for name, step, to in (("y", 1, y), ("z", 2, z)):
            extent = header.encoded_matrix["xyz".index(name)]
            number = headers[f"kspace_encode_step_{step}"].astype(int)
            to[ours] = (number - header.limits[name].center + extent // 2)[ours]
            odd = np.flatnonzero(ours & ((to < 0) | (to >= extent)))
            if odd.size:
                raise DefectError(
                    f"acquisition {odd[0]} has line {number[odd[0]]} along {name}, outside the "
                    f"{extent} encoded lines with centre {header.limits[name].center}"
                )
    return y, z


def _joined(headers, role, header, space, index):
    """Roles, where calibration lines that complete every image become part of the images (ACS).

    They stay a separate calibration in four cases: the file says so; they repeat lines of the images,
    whose contrast may differ; some images have fewer of them than others; they belong to echoes or
    repetitions without images.
    """
    candidates = role == SEPARATE
    separate = header.calibration_mode in ("separate", "external")
    separate |= bool((headers["encoding_space_ref"][candidates] != space).any())
    if separate or not candidates.any():
        return role
    shape = _image_shape(role == IMAGING, header, index)
    images, lines = (_times(which, index, shape) > 0 for which in (role == IMAGING, candidates))
    if not lines.any() or np.ptp(lines.sum((0, 1))) > 0 or (images & lines).any():
        return role
    here = _inside([index[name] for name in RANGE_AXES], shape[2:])
    return np.where(candidates, np.where(here, IMAGING, IGNORED), role)


def _image_shape(which, header, index):
    """Extents of y, z, slice, echo and repetition."""
    return (*header.encoded_matrix[1:], *(int(index[name][which].max()) + 1 for name in RANGE_AXES))


def _times(which, index, shape):
    """How often each line was measured, (y, z, slice, echo, repetition)."""
    runtime.check(
        10 * int(np.prod(shape, dtype=float)),
        "the list of its lines",
        "is the matrix size in its header right?",
    )
    at = [index[name][which] for name in ("y", "z", *RANGE_AXES)]
    inside = _inside(at, shape)
    flat = np.ravel_multi_index([a[inside] for a in at], shape)
    return np.bincount(flat, minlength=int(np.prod(shape))).reshape(shape)


def _inside(at, shape):
    return np.all([(a >= 0) & (a < n) for a, n in zip(at, shape)], axis=0)


def _scan_places(headers, role, header, coils, index):
    """Places of the images' lines, and the limits of their readouts."""
    which = role == IMAGING
    x, readout = _readouts(headers, header, which)
    shape = _image_shape(which, header, index)
    times = _times(which, index, shape)
    shape = (header.encoded_matrix[0], *shape[:2], coils, *shape[2:])
    places = (index[name] for name in ("y", "z", *RANGE_AXES))
    return Places(shape, which, x, *places, times), readout


def _readouts(headers, header, which):
    """Places of the first samples that are kept, k = 0 at ``N // 2``, the same for all; x limits."""
    extent = header.encoded_matrix[0]
    samples, pre, post, centre = (
        headers[field].astype(int) for field in ("number_of_samples", "discard_pre", "discard_post", "center_sample")
    )
    length = samples - pre - post
    # Senders that remove oversampling may keep the centre of the longer readout in the header.
    given, reverse = (centre > 0) & (centre < samples), headers["flags"] & REVERSE != 0
    centre = np.where(given, centre, samples // 2)
    mirrored = np.where(given, samples - 1 - centre, centre)
    first = extent // 2 + np.where(reverse, post - mirrored, pre - centre)
    first = _agreed(first, length, extent, which, reverse & given)
    odd = np.flatnonzero(which & ((first < 0) | (first + length > extent) | (length < 1)))
    if odd.size:
        i = odd[0]
        raise DefectError(
            f"acquisition {i} has {samples[i]} samples, k = 0 at {centre[i]}, "
            f"which do not fit the {extent} samples of the encoded matrix"
        )
    one = np.flatnonzero(which)[0]
    odd = np.flatnonzero(which & ((first != first[one]) | (length != length[one])))
    if odd.size:
        i = odd[0]
        another_echo = headers["contrast"][i] != headers["contrast"][one]
        raise DefectError(
            f"acquisition {i} has {samples[i]} samples, k = 0 at {centre[i]}, which cover "
            "another part of k-space than the first ones",
            *(["reconstruct one echo at a time, --range echo 0 0"] if another_echo else []),
        )
    return first, Limit(int(first[one]), int(first[one] + length[one]) - 1, extent // 2)


def _agreed(first, length, extent, which, reverse):
    """Places of first samples, with reversed readouts aligned with the others.

    Reversed readouts are reversed when they are read: sample c of n becomes sample n - 1 - c. Some writers
    mean n - c, so that the centre of even readouts is n // 2 in both directions.
    """
    forward = np.flatnonzero(which & ~reverse)
    if forward.size:
        return first - (reverse & (first - 1 == first[forward[0]]))
    return first - (reverse & (first + length > extent)[which].any())


def _separate_places(headers, role, encodings, coils, index, slices):
    """Places of a separate calibration, roles without its other echoes and repetitions, its field of view.

    Only its first echo and repetition are used. The grid is the smallest centred one.
    """
    which = role == SEPARATE
    if not which.any():
        return role, None, None
    space = headers["encoding_space_ref"]
    both = (role == IMAGING) & (headers["flags"] & CALIBRATION_AND_IMAGING != 0)
    which |= both & (space == space[which][0])
    for name in ("contrast", "repetition"):
        which &= headers[name] == headers[name][which].min()
    role = np.where((role == SEPARATE) & ~which, IGNORED, role)
    own = encodings[space[which][0]]
    x, _ = _readouts(headers, own, which)
    places = {name: index[name] for name in ("y", "z")}
    shape = []
    for name, extent in zip("yz", own.encoded_matrix[1:]):
        at = places[name] - extent // 2
        low, high = at[which].min(), at[which].max()
        shape.append(int(max(-2 * low, 2 * high + 1)))
        places[name] = at + shape[-1] // 2
    none = np.zeros_like(index["slice"])
    at = {**places, "slice": index["slice"], "echo": none, "repetition": none}
    times = _times(which, at, (*shape, slices, 1, 1))
    lacking = np.flatnonzero(~times.any((0, 1, 3, 4)))
    if lacking.size:
        raise DefectError(f"its calibration scan lacks slice {lacking[0]}")
    shape = (own.encoded_matrix[0], *shape, coils, slices, 1, 1)
    places = Places(shape, which, x, at["y"], at["z"], at["slice"], none, none, times)
    return role, places, own.encoded_fov


def _volumes(stamps, places):
    """Seconds from the first line of the scan to the first and last line of each repetition."""
    repetition, stamps = places.repetition[places.which], stamps[places.which] * (TICK / 1000)
    first, last = np.full((2, places.shape[6]), np.inf)
    last *= -1
    np.minimum.at(first, repetition, stamps)
    np.maximum.at(last, repetition, stamps)
    first, last = first - first.min(), last - first.min()
    timed = last.max() > 0 and np.isfinite(first).all() and np.all(np.diff(first) > 0)
    return [(round(a, 4), round(b, 4)) for a, b in zip(first.tolist(), last.tolist())] if timed else []


def _dwell(headers, role):
    """Microseconds between samples; 0 if the file does not say."""
    dwell = float(np.median(headers["sample_time_us"][role == IMAGING]))
    return dwell if 0 < dwell < np.inf else 0.0


def _dwell_ratio(headers, role):
    dwell = [headers["sample_time_us"][role == kind] for kind in (NOISE_SCAN, IMAGING)]
    if not all(times.size and 0 < np.median(times) < np.inf for times in dwell):
        return 1.0
    return float(np.median(dwell[0]) / np.median(dwell[1]))
