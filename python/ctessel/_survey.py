"""What a raw data file holds, from the headers of its acquisitions."""

from dataclasses import dataclass, field

import numpy as np

from ._ismrmrd import (
    CALIBRATION,
    CALIBRATION_AND_IMAGING,
    NOISE,
    NOT_IMAGING,
    REVERSE,
    DefectError,
)
from .scan import Header, Limit, Placement

#: Axes that a scan can be read in parts along, in the order of its arrays.
RANGE_AXES = ("slice", "echo", "repetition")
#: Roles of an acquisition. APART belongs to a calibration scan that is kept by itself.
IGNORED, IMAGING, APART, NOISE_SCAN = range(4)


@dataclass
class Places:
    """Where lines of k-space go: per acquisition, and extents of the array that they go to."""

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


@dataclass
class Contents:
    """What a raw data file holds, without the samples."""

    path: str
    group: str
    header: Header
    heads: np.ndarray
    role: np.ndarray
    scan: Places
    flagged: np.ndarray  # (y, z) of bool: lines that the file calls calibration
    apart: Places | None = None
    range: tuple[str, int, int] | None = None
    extents: dict[str, int] = field(default_factory=dict)  # of RANGE_AXES in the whole file
    cut: bool = False  # the readout to the field of the image, while it is read

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
        return int(self.heads["number_of_samples"][self.role == NOISE_SCAN].sum())

    @property
    def nbytes(self):
        """Memory of the arrays that the file is read into."""
        arrays = [(self.width, *self.scan.shape[1:]), (self.noise_samples, self.scan.shape[3])]
        arrays += [self.apart.shape] if self.apart else []
        return sum(int(np.prod(shape, dtype=float)) for shape in arrays) * 8


def survey(path, group, encodings, heads, part=None):
    """`Contents` from header texts (one `Header` per encoding) and headers of acquisitions.

    Raises
    ------
    DefectError
        They contradict each other, or there is nothing to reconstruct.
    """
    role, flagged = _roles(heads)
    space, header = _encoding(encodings, heads, role == IMAGING)
    index = {"slice": heads["slice"], "echo": heads["contrast"], "repetition": _repetitions(heads)}
    index = {name: _compact(values, role == IMAGING) for name, values in index.items()}
    role[(role == APART) & (index["slice"] < 0)] = IGNORED  # calibrates slices that have no images
    _order_slices(heads, role == IMAGING, header, index["slice"])
    extents = {name: int(index[name][role == IMAGING].max()) + 1 for name in RANGE_AXES}
    _restrict(heads, role, header, index, extents, part)
    coils = _coils(heads, role)
    index["y"], index["z"] = _lines(heads, encodings, role)
    calibration_in_scan = _join_calibration(heads, role, flagged, header, space, index)
    scan = _scan_places(heads, role, header, coils, index)
    marked = np.zeros(scan.times.shape[:2], bool)
    marked[scan.y[calibration_in_scan], scan.z[calibration_in_scan]] = True
    apart = _apart_places(heads, role, encodings, header, coils, index, scan.shape[4])
    averages = float(np.median(scan.times[scan.times > 0]))
    header.noise_bandwidth_ratio = _dwell_ratio(heads, role) / averages
    return Contents(path, group, header, heads, role, scan, marked, apart, part, extents)


def _roles(heads):
    """Roles, calibration counted as apart; and which acquisitions are flagged as calibration."""
    flags = heads["flags"]
    calibration = flags & CALIBRATION != 0
    both = flags & CALIBRATION_AND_IMAGING != 0
    role = np.full(heads.size, IMAGING)
    role[calibration & ~both] = APART
    role[flags & NOT_IMAGING != 0] = IGNORED
    role[flags & NOISE != 0] = NOISE_SCAN
    if not (role == IMAGING).any():
        raise DefectError("it holds no imaging acquisitions")
    return role, calibration | both


def _encoding(encodings, heads, imaging):
    spaces = np.unique(heads["encoding_space_ref"])
    if spaces.max() >= len(encodings):
        raise DefectError(
            f"an acquisition refers to encoding {spaces.max()}, its header has {len(encodings)}"
        )
    spaces = np.unique(heads["encoding_space_ref"][imaging])
    if spaces.size > 1:
        raise DefectError(
            "its imaging acquisitions belong to several encodings",
            "write them to files of their own",
        )
    return spaces[0], encodings[spaces[0]]


def _repetitions(heads):
    """Repetition, cardiac phase and set, the last one fastest."""
    sets, phases = (int(heads[name].max()) + 1 for name in ("set", "phase"))
    return (heads["repetition"].astype(int) * phases + heads["phase"]) * sets + heads["set"]


def _compact(values, imaging):
    """Position of each value among those that images have; -1 for others."""
    kinds = np.unique(values[imaging])
    at = np.minimum(np.searchsorted(kinds, values), kinds.size - 1)
    return np.where(kinds[at] == values, at, -1)


def _order_slices(heads, imaging, header, index):
    """Count slices along their normal, and note where they are. `index` is changed."""
    first = [int(np.flatnonzero(imaging & (index == i))[0]) for i in range(int(index.max()) + 1)]
    if not all(_has_directions(heads[i]) for i in first):
        return
    places = [_placement(heads[i]) for i in first]
    if len(places) > 1 and not np.ptp([np.hstack([*vars(p).values()]) for p in places], 0).any():
        return  # the file does not tell the slices apart
    along = np.array([p.position @ places[0].slice for p in places])
    order = np.argsort(along, kind="stable")
    steps = np.diff(along[order])
    if steps.size and steps.min() > 1e-3:
        rank = np.append(np.argsort(order), -1)  # -1 stays -1
        index[:] = rank[index]
        places = [places[i] for i in order]
        positions = np.array([p.position for p in places])
        header.spacing = float(np.median(np.linalg.norm(np.diff(positions, axis=0), axis=1)))
    header.placements = places


def _has_directions(head):
    return all(np.any(head[name]) for name in ("read_dir", "phase_dir"))


def _placement(head):
    position, read, phase, normal = (
        head[name].astype(float) for name in ("position", "read_dir", "phase_dir", "slice_dir")
    )
    normal = normal if normal.any() else np.cross(read, phase)
    axes = np.array([read, phase, normal])
    if not np.allclose(axes @ axes.T, np.eye(3), atol=0.02) or not np.isfinite(position).all():
        raise DefectError(
            "read, phase and slice directions of its acquisitions are not at right angles"
        )
    return Placement(position, read, phase, normal)


def _restrict(heads, role, header, index, extents, part):
    """Leave out what is not in `part`: (axis, first, last). Roles and indices are changed.

    Other echoes and repetitions still calibrate.
    """
    if part is None:
        return
    axis, first, last = part
    if axis not in RANGE_AXES:
        raise DefectError(
            f"it cannot be read along {axis}", f"--range takes {', '.join(RANGE_AXES)}"
        )
    if not 0 <= first <= last < extents[axis]:
        raise DefectError(
            f"{axis} {first} to {last} is not in it", f"it has {axis} 0 to {extents[axis] - 1}"
        )
    kinds = [IMAGING, APART] if axis == "slice" else [IMAGING]
    outside = np.isin(role, kinds) & ((index[axis] < first) | (index[axis] > last))
    both = heads["flags"] & CALIBRATION_AND_IMAGING != 0
    role[outside] = np.where(both[outside] & (axis != "slice"), APART, IGNORED)
    index[axis] -= first
    if axis == "slice":
        header.placements = header.placements[first : last + 1]
    if axis == "echo":
        header.te = header.te[first : last + 1]


def _coils(heads, role):
    used = np.flatnonzero(role != IGNORED)
    coils = heads["active_channels"][used]
    odd = used[coils != coils[0]]
    if odd.size:
        raise DefectError(
            f"acquisition {odd[0]} has {heads['active_channels'][odd[0]]} coils, "
            f"the first one {coils[0]}"
        )
    if coils[0] == 0:
        raise DefectError("its acquisitions have no coils")
    return int(coils[0])


def _lines(heads, encodings, role):
    """Places of lines along y and z on the grid of their own encoding, k = 0 at ``N // 2``."""
    y, z = np.zeros(heads.size, int), np.zeros(heads.size, int)
    for space, header in enumerate(encodings):
        ours = (heads["encoding_space_ref"] == space) & np.isin(role, (IMAGING, APART))
        for name, step, to in (("y", 1, y), ("z", 2, z)):
            extent = header.encoded_matrix["xyz".index(name)]
            number = heads[f"kspace_encode_step_{step}"].astype(int)
            to[ours] = (number - header.limits[name].center + extent // 2)[ours]
            odd = np.flatnonzero(ours & ((to < 0) | (to >= extent)))
            if odd.size:
                raise DefectError(
                    f"acquisition {odd[0]} has line {number[odd[0]]} along {name}, outside the "
                    f"{extent} encoded lines with centre {header.limits[name].center}"
                )
    return y, z


def _join_calibration(heads, role, flagged, header, space, index):
    """Calibration lines join the images where they complete each of them. `role` is changed.

    They stay apart where the file says so, where they repeat lines of the images, which need not
    have the same contrast, where some images have fewer of them than others, and where they belong
    to echoes or repetitions without images.
    """
    candidates = role == APART
    apart = header.calibration_mode in ("separate", "external")
    apart |= bool((heads["encoding_space_ref"][candidates] != space).any())
    if not apart and candidates.any():
        shape = _image_shape(role == IMAGING, header, index)
        images, lines = (_times(which, index, shape) > 0 for which in (role == IMAGING, candidates))
        if lines.any() and np.ptp(lines.sum((0, 1))) == 0 and not (images & lines).any():
            here = _inside([index[name][candidates] for name in RANGE_AXES], shape[2:])
            role[candidates] = np.where(here, IMAGING, IGNORED)
    return flagged & (role == IMAGING)


def _image_shape(which, header, index):
    """Extents of y, z, slice, echo and repetition."""
    return (*header.encoded_matrix[1:], *(int(index[name][which].max()) + 1 for name in RANGE_AXES))


def _times(which, index, shape):
    """How often each line was measured, (y, z, slice, echo, repetition)."""
    at = [index[name][which] for name in ("y", "z", *RANGE_AXES)]
    inside = _inside(at, shape)
    flat = np.ravel_multi_index([a[inside] for a in at], shape)
    return np.bincount(flat, minlength=int(np.prod(shape))).reshape(shape)


def _inside(at, shape):
    return np.all([(a >= 0) & (a < n) for a, n in zip(at, shape)], axis=0)


def _scan_places(heads, role, header, coils, index):
    which = role == IMAGING
    x, header.limits["x"] = _readouts(heads, header, which)
    shape = _image_shape(which, header, index)
    times = _times(which, index, shape)
    shape = (header.encoded_matrix[0], *shape[:2], coils, *shape[2:])
    return Places(
        shape, which, x, index["y"], index["z"], *(index[name] for name in RANGE_AXES), times
    )


def _readouts(heads, header, which):
    """Places of the first samples that are kept, k = 0 at ``N // 2``, the same for all; x limits."""
    extent = header.encoded_matrix[0]
    samples, pre, post, centre = (
        heads[field].astype(int)
        for field in ("number_of_samples", "discard_pre", "discard_post", "center_sample")
    )
    length = samples - pre - post
    given, reverse = centre > 0, heads["flags"] & REVERSE != 0
    centre = np.where(given, centre, samples // 2)
    turned = np.where(given, samples - 1 - centre, centre)
    first = extent // 2 + np.where(reverse, post - turned, pre - centre)
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
        apart = heads["contrast"][i] != heads["contrast"][one]
        raise DefectError(
            f"acquisition {i} has {samples[i]} samples, k = 0 at {centre[i]}, which cover "
            "another part of k-space than the first ones",
            *(["reconstruct one echo at a time, --range echo 0 0"] if apart else []),
        )
    return first, Limit(int(first[one]), int(first[one] + length[one]) - 1, extent // 2)


def _agreed(first, length, extent, which, reverse):
    """Places of first samples, where reversed readouts lie as the others do.

    They are turned round when they are read: sample c of n is then sample n - 1 - c. Some writers mean
    n - c, so that the centre of even readouts is n // 2 in both directions.
    """
    forward = np.flatnonzero(which & ~reverse)
    if forward.size:
        return first - (reverse & (first - 1 == first[forward[0]]))
    return first - (reverse & (first + length > extent)[which].any())


def _apart_places(heads, role, encodings, header, coils, index, slices):
    """Places of a separate calibration scan: first echo and repetition, smallest centred grid."""
    which = role == APART
    if not which.any():
        return None
    space = heads["encoding_space_ref"]
    both = (role == IMAGING) & (heads["flags"] & CALIBRATION_AND_IMAGING != 0)
    which |= both & (space == space[which][0])
    for name in ("contrast", "repetition"):
        which &= heads[name] == heads[name][which].min()
    role[(role == APART) & ~which] = IGNORED
    own = encodings[space[which][0]]
    header.calibration_fov = own.encoded_fov
    x, _ = _readouts(heads, own, which)
    places = {name: index[name].copy() for name in ("y", "z")}
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
    return Places(shape, which, x, at["y"], at["z"], at["slice"], none, none, times)


def _dwell_ratio(heads, role):
    dwell = [heads["sample_time_us"][role == kind] for kind in (NOISE_SCAN, IMAGING)]
    if not all(times.size and np.median(times) > 0 for times in dwell):
        return 1.0
    return float(np.median(dwell[0]) / np.median(dwell[1]))
