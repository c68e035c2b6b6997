"""The measured lines and the peak of the echo, as text and as a picture."""

from dataclasses import dataclass

import numpy as np

from . import centre
from .acquisitions import IGNORED, NOT_IMAGING_NAMES, flag
from .coverage import samplings
from .sampling import calibration_block

#: Largest size of a drawing in characters, along and across.
WIDE, HIGH = 72, 24
#: Largest number of sampling patterns that are drawn.
MOST = 8
_MISSING, _SOME, _MEASURED, _CALIBRATION = tuple(".+#C")


@dataclass(frozen=True)
class Profiles:
    """Energy of the first image through k = 0, along each axis: places from k = 0, and energies."""

    along: dict[str, tuple[np.ndarray, np.ndarray]]
    outer: float  # standard deviation, of one part, of the ends of the readouts: noise at most

    def peak(self, axis):
        """Where the energy is largest, from k = 0."""
        places, energies = self.along[axis]
        return int(places[energies.argmax()])


def profiles(found):
    """`Profiles` of a file's contents; its lines through k = 0 are read."""
    along, readouts = {}, []
    for axis, name in ((1, "y"), (2, "z")):
        numbers = centre.lines_through(found, axis)
        if not numbers.size:
            continue
        block = found.file.read(numbers)
        power = [np.abs(block.samples(int(i)).astype(complex)) ** 2 for i in numbers]
        places = (found.scan.y if axis == 1 else found.scan.z)[numbers] - found.scan.shape[axis] // 2
        order = np.argsort(places, kind="stable")
        along[name] = places[order], np.array([p.sum() for p in power])[order]
        readouts = readouts or [(int(found.scan.x[i]), p) for i, p in zip(numbers, power)]
    if not readouts:
        return Profiles({}, 0.0)
    first, n = readouts[0][0], len(readouts[0][1])
    energy = np.sum([p.sum(1) for _, p in readouts], 0)
    ends = max(1, n // 16)
    mean = np.mean([np.concatenate([p[:ends], p[-ends:]]).mean() for _, p in readouts])
    along = {"x": (np.arange(first, first + n) - found.scan.shape[0] // 2, energy), **along}
    return Profiles(along, float(np.sqrt(mean / 2)))


# ---- Words ---------------------------------------------------------------------------------------


def facts(found, layout, energy):
    """Facts about what was measured, for people: a dict of texts."""
    texts = {f"lines along {axis}": words for axis, words in _lines(layout).items()}
    texts["echo peaks"] = ", ".join(f"{axis} {energy.peak(axis):+d}" for axis in energy.along) + " from k = 0"
    texts["noise level"] = _noise(layout, energy)
    texts["left out by kind"] = _left_out(found)
    return {name: text for name, text in texts.items() if text}


def _lines(layout):
    """First and last line, their distance and the block of calibration of each axis, from k = 0."""
    found, block, words = _regular(layout), _block(layout), {}
    for axis, name, n in ((0, "y", layout.shape[1]), (1, "z", layout.shape[2])):
        if n == 1:
            continue
        at = np.flatnonzero(layout.sampled.any(1 - axis)) - n // 2
        kinds = sorted({one.steps[axis] for one in found})
        step = f"in steps of {' or '.join(map(str, kinds))}" if kinds else "in no regular steps"
        if any(one.shifts[axis] for one in found):
            moved = max(one.shifts[axis] for one in found)
            step += f", shifted by {moved} from one line of {'zy'[axis]} to the next"
        own = np.flatnonzero(block.any(1 - axis)) - n // 2
        calibration = f"; calibration {own[0]} to {own[-1]}" if own.size else ""
        words[name] = f"{at[0]} to {at[-1]} of {-(n // 2)} to {(n - 1) // 2}, {step}{calibration}"
    return words


def _regular(layout):
    """The regular lines of each sampling pattern; none if they are irregular."""
    try:
        return [sampling.regular for sampling in samplings(layout)]
    except ValueError:
        return []


def _block(layout):
    """ACS lines of the scan, (y, z): those that the file flags, otherwise the full ones around k = 0 if
    lines beside them are missing."""
    if layout.flagged is not None and layout.flagged.any():
        return layout.flagged
    block = np.zeros(layout.shape[1:3], bool)
    moving = layout.sampled.all()  # lines of different repetitions calibrate each other
    if layout.calibration is None and not moving and not any(max(one.steps) == 1 for one in _regular(layout)):
        block[calibration_block(layout.sampled)] = True
    return block


def _noise(layout, energy):
    if layout.noise is not None and layout.noise.size:
        deviations = np.sqrt(np.mean(np.abs(layout.noise, dtype=float) ** 2, 0) / 2)
        return f"{np.median(deviations):.3g} per part, coils {deviations.min():.3g} to {deviations.max():.3g}"
    return f"at most {energy.outer:.3g} per part, by the ends of the readouts" if energy.outer > 0 else ""


def _left_out(found):
    left = found.headers["flags"][found.role == IGNORED]
    counts = {name: int((left & flag(number) != 0).sum()) for number, name in NOT_IMAGING_NAMES.items()}
    others = left.size - int(np.any([left & flag(n) != 0 for n in NOT_IMAGING_NAMES], 0).sum())
    counts["calibration or images that are not used"] = others
    return ", ".join(f"{count} {name}" for name, count in counts.items() if count)


# ---- In characters -------------------------------------------------------------------------------


def drawing(layout):
    """The sampling pattern, ky (to the right) and kz (downwards), as lines of text.

    Slices have a row for each of their patterns, volumes a drawing of the first one.
    """
    kinds, counts = _patterns(layout)
    block = _block(layout)
    step = [-(-n // most) for n, most in zip(block.shape, (WIDE, HIGH))]
    rows = []
    for kind, count in list(zip(kinds, counts))[: 1 if block.shape[1] > 1 else MOST]:
        drawn = ["".join(row) for row in _characters(kind, block, step).T]
        drawn[0] += f"  {count} repetitions" if len(kinds) > 1 else ""
        rows += drawn
    rows.append(" " * (block.shape[0] // 2 // step[0]) + "^ ky = 0")
    legend = f"{_MEASURED} measured  {_CALIBRATION} calibration  {_MISSING} not measured"
    if max(step) > 1:
        legend += f"  {_SOME} some of them; a character is {' x '.join(str(n) for n in step if n > 1)} lines"
    if len(kinds) > len(rows) - 1:
        legend += f"; {len(kinds)} sampling patterns"
    return [*rows, legend]


def _patterns(layout):
    """Lines (y, z) of each kind of repetition, in the order of their first ones, and their number."""
    masks = layout.lines.any((2, 3))
    flat = masks.reshape(-1, masks.shape[2])
    _, first, counts = np.unique(flat, axis=1, return_index=True, return_counts=True)
    order = np.argsort(first)
    return [masks[:, :, first[i]] for i in order], [int(counts[i]) for i in order]


def _characters(mask, block, step):
    def binned(a, combine):
        padded = np.full([-(-n // s) * s for n, s in zip(a.shape, step)], np.nan)
        padded[: a.shape[0], : a.shape[1]] = a
        shape = (padded.shape[0] // step[0], step[0], padded.shape[1] // step[1], step[1])
        return combine(padded.reshape(shape), (1, 3))

    share = binned(mask, np.nanmean)
    made = np.full(share.shape, _SOME)
    made[share == 0], made[share == 1] = _MISSING, _MEASURED
    made[(binned(block & mask, np.nanmean) > 0.5)] = _CALIBRATION
    return made


# ---- As a picture --------------------------------------------------------------------------------


def save(path, layout, energy, title):
    """A picture (PNG): the lines, and the energy along each axis through k = 0.

    Parameters
    ----------
    path : str or path
    layout : Layout
    energy : Profiles
    title : str
    """
    from matplotlib.backends.backend_agg import FigureCanvasAgg
    from matplotlib.figure import Figure

    names = list(energy.along)
    figure = Figure(figsize=(9, 3.4 + 1.8 * len(names)), layout="constrained")
    FigureCanvasAgg(figure)
    figure.suptitle(title, parse_math=False)
    heights = {"height_ratios": [2, *[1] * len(names)]}
    axes = figure.subplots(1 + len(names), 1, gridspec_kw=heights, squeeze=False)[:, 0]
    _draw_lines(axes[0], layout)
    for axis, name in zip(axes[1:], names):
        _draw_energy(axis, energy, name)
    figure.savefig(path, format="png", dpi=100)


def _draw_lines(axis, layout):
    from matplotlib.colors import ListedColormap

    kinds, counts = _patterns(layout)
    block, volume = _block(layout), layout.shape[2] > 1
    masks = kinds[0] if volume else np.concatenate(kinds, 1)
    drawn = masks.astype(int) + (masks & (block if volume else np.repeat(block, len(kinds), 1)))
    ny, rows = drawn.shape
    extent = (-(ny // 2) - 0.5, (ny + 1) // 2 - 0.5, *((rows + 1) // 2 - 0.5, -(rows // 2) - 0.5)) if volume else (
        -(ny // 2) - 0.5, (ny + 1) // 2 - 0.5, rows - 0.5, -0.5)  # fmt: skip
    colours = ListedColormap(["#f0f0f0", "#1f4e79", "#d97706"])
    axis.imshow(drawn.T, cmap=colours, vmin=0, vmax=2, aspect="auto", extent=extent, interpolation="nearest")
    axis.set(xlabel="ky", ylabel="kz" if volume else "kind of repetition")
    axis.set_title(f"measured (blue), calibration (orange); {int(layout.sampled.sum())} of {layout.sampled.size} lines")
    if not volume:
        axis.set_yticks(range(len(counts)), [f"{count} x" for count in counts])


def _draw_energy(axis, energy, name):
    places, power = energy.along[name]
    floor = max(power.max() * 1e-9, np.finfo(float).tiny)
    axis.semilogy(places, np.maximum(power, floor), ".-", color="#1f4e79", markersize=3, linewidth=0.8)
    axis.axvline(0, color="black", linewidth=0.8)
    axis.axvline(energy.peak(name), color="#d97706", linestyle="--", linewidth=1)
    axis.set(xlabel=f"k{name}", ylabel="energy")
    axis.set_title(f"the echo peaks at k{name} = {energy.peak(name):d} (dashed)", fontsize="medium")
