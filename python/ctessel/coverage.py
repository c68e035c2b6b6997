"""Compares measured lines with the expected ones: lost lines, and repetitions that were stopped."""

from dataclasses import dataclass, replace

import numpy as np

from .sampling import Regular, few, regular
from .scan import AXES, times_text


@dataclass(frozen=True, eq=False)
class Sampling:
    """Repetitions with the same sampling pattern; `mask` has the lines of any of their images."""

    repetitions: np.ndarray
    mask: np.ndarray
    regular: Regular


def samplings(layout):
    """The sampling patterns of a scan, in the order of their first repetitions.

    Raises
    ------
    ValueError
        Images lack more than a few lines, or the lines form no pattern.
    """
    masks = layout.lines.any((2, 3))
    flat = masks.reshape(-1, masks.shape[2])
    _, first, which = np.unique(flat, axis=1, return_index=True, return_inverse=True)
    which = which.ravel()  # NumPy 2.0 gives it another shape
    kinds = [(masks[:, :, at], np.flatnonzero(which == n)) for n, at in enumerate(first)]
    kinds.sort(key=lambda kind: kind[1][0])
    found = [_found(mask, _stated(layout)) for mask, _ in kinds]
    bad = _unfinished(layout, kinds, found)
    if bad.size:
        _refuse(layout, np.isin(np.arange(masks.shape[2]), bad)[None, None])
    made = _joined(kinds, found)
    _check_images(layout, made)
    return made


def warnings(layout, made):
    """Warnings about lines, one for each kind of fault."""
    lost, notes = _lost(layout, made), []
    if lost:
        notes.append(
            f"{len(lost)} line{'s were' if len(lost) > 1 else ' was'} lost and zero-filled: "
            f"{', '.join(lost)} (counted from k = 0)"
        )
    sparsest = max((sampling.regular.steps for sampling in made), key=np.prod)
    stated = tuple(layout.header.acceleration)
    if (layout.header.calibration_mode or stated != (1, 1)) and not _agree(stated, made):
        notes.append(
            f"the header states an acceleration of {times_text(stated)}, the lines have "
            f"{times_text(sparsest)}; the acceleration of the lines is used"
        )
    return notes


def _agree(stated, made):
    return any(sampling.regular.steps == stated for sampling in made)


def _stated(layout):
    steps = zip(layout.header.acceleration, layout.shape[1:3])
    return tuple(int(step) if 1 < n else 1 for step, n in steps)


def _found(mask, stated):
    try:
        return regular(mask, stated)
    except ValueError as error:
        return error


def _unfinished(layout, kinds, found):
    """Repetitions that were not measured to the end.

    Their lines reach less far than those of others, form no pattern although others do, or are fewer
    than the header or most repetitions have.
    """
    good = [isinstance(one, Regular) for one in found]
    if not any(good):
        raise found[0]
    ends = np.array([_ends(mask) for mask, _ in kinds])  # (kind, first or last, axis)
    outer = np.stack([ends[:, 0].min(0), ends[:, 1].max(0)])
    densest = min(np.prod(one.steps) for one in found if isinstance(one, Regular))
    bad = []
    for one, end, (mask, repetitions) in zip(found, ends, kinds):
        if isinstance(one, Regular):
            allowed = [few(n) + step - 1 for n, step in zip(mask.shape, one.steps)]
            short = (np.abs(outer - end) > allowed).any()
            sparse = np.prod(one.steps) > densest and one.steps != _stated(layout)
            if not short and not (sparse and 2 * len(repetitions) < layout.shape[6]):
                continue
        bad.append(repetitions)
    return np.sort(np.concatenate(bad)) if bad else np.array([], int)


def _ends(mask):
    """First and last line with any sample of y and of z: ((y, z), (y, z))."""
    at = np.argwhere(mask)
    return at.min(0), at.max(0)


def _joined(kinds, found):
    """One pattern for repetitions that differ only in lost lines."""
    groups = {}
    for one, kind in zip(found, kinds):
        ends = tuple(np.ravel(_ends(one.expected)))
        groups.setdefault((one.steps, one.offsets, one.shifts, ends), []).append((one, *kind))
    return [_join(members) for members in groups.values()]


def _join(members):
    found, masks, repetitions = zip(*members)
    expected = np.logical_or.reduce([one.expected for one in found])
    return Sampling(
        np.sort(np.concatenate(repetitions)),
        np.logical_or.reduce(masks),
        replace(found[0], expected=expected),
    )


def _missing(layout, sampling):
    """Expected lines that images of a pattern lack, ``(y, z, slice, echo, repetition)``."""
    there = layout.lines[..., sampling.repetitions]
    return sampling.regular.expected[:, :, None, None, None] & ~there


def _check_images(layout, made):
    """Refuse images that lack more than a few lines."""
    short = np.zeros(layout.shape[4:], bool)
    for sampling in made:
        most = few(np.count_nonzero(sampling.regular.expected))
        short[..., sampling.repetitions] = _missing(layout, sampling).sum((0, 1)) > most
    if short.any():
        _refuse(layout, short)


def _refuse(layout, short):
    """Raise an error that names an image of `short` (slice, echo, repetition) and what to do."""
    short = np.broadcast_to(short, layout.shape[4:])
    counts = layout.lines.sum((0, 1))
    for s, e, r in np.argwhere(short):
        if (layout.lines[:, :, s, e, r] & ~layout.lines[:, :, 0, 0, r]).any():
            raise ValueError(
                f"slice {s}, echo {e}, repetition {r} has other lines than slice 0, echo 0; "
                "reconstruct slices and echoes one at a time with --range"
            )
    s, e, r = np.argwhere(short)[0]
    raise ValueError(
        f"slice {s}, echo {e}, repetition {r} has {counts[s, e, r]} "
        f"line{'s' if counts[s, e, r] != 1 else ''}, others {counts.max()}; {_way_out(short)}"
    )


def _way_out(short):
    for axis, name in ((2, "repetition"), (0, "slice"), (1, "echo")):
        others = tuple(a for a in range(3) if a != axis)
        bad = np.flatnonzero(short.any(others))
        whole = np.flatnonzero(~short.any(others))
        if not whole.size:
            continue
        if (np.diff(whole) == 1).all():
            return f"leave it out with --range {name} {whole[0]} {whole[-1]}"
        return f"leave it out with {' '.join(f'--skip {name} {n}' for n in bad)}"
    return "convert the scanner's data again"


def _lost(layout, made):
    """Every lost line in words, with the images that lack it if others have it."""
    lost = {}
    for sampling in made:
        missing = _missing(layout, sampling)
        missing[_beyond(layout, sampling)] = True
        for y, z in np.argwhere(missing.any((2, 3, 4))):
            images = np.argwhere(missing[y, z])
            images[:, 2] = sampling.repetitions[images[:, 2]]
            everywhere = missing[y, z].all()
            lost.setdefault((int(y), int(z)), []).append((everywhere, images))
    return [_line_words(layout, at, found) for at, found in sorted(lost.items())]


def _beyond(layout, sampling):
    """Outermost lines in the header's limits that no image has, ``(y, z)`` of bool: a few, in slices."""
    beyond = np.zeros(layout.shape[1:3], bool)
    limit, step = layout.header.limits.get("y"), sampling.regular.steps[0]
    if limit is None or layout.shape[2] > 1:
        return beyond
    (first, _), (last, _) = _ends(sampling.regular.expected)
    middle = layout.shape[1] // 2
    low, high = (limit.minimum - limit.center + middle, limit.maximum - limit.center + middle)
    lines = [*range(first - step, low - 1, -step), *range(last + step, high + 1, step)]
    inside = [y for y in lines if 0 <= y < layout.shape[1]]
    if len(inside) <= few(np.count_nonzero(sampling.regular.expected)):
        beyond[inside] = True
    return beyond


def _line_words(layout, at, found):
    extents = layout.shape[1:3]
    place = " ".join(f"k{axis} {i - n // 2}" for axis, i, n in zip("yz", at, extents) if n > 1)
    if all(everywhere for everywhere, _ in found):
        return place
    images = np.concatenate([images for _, images in found])
    names = [
        f"{name} {', '.join(map(str, np.unique(column)))}"
        for name, column, n in zip(AXES[4:], images.T, layout.shape[4:])
        if n > 1
    ]
    return f"{place} of {', '.join(names)}"
