"""The choice of coils: coils with zeros, only noise, or the samples of another coil are left out.

Coils of ordinary arrays differ by large factors in sensitivity, noise and distance from the object. So a
coil is compared with the others by its ratio of signal to noise, in the first image of every slice. A
coil that works in one slice is kept. Later repetitions are not used, so a scan that still runs, and a
part of a scan, give the same choice as the whole.
"""

from dataclasses import dataclass
from math import prod

import numpy as np

#: A coil whose energy around k = 0 over noise is below this has no signal: pure noise has 1 +- 0.13. Measured
#: heads and phantoms with 2 to 32 coils have at least 1400, coils of 5 % of their sensitivity 4.
SIGNAL = 2
#: The other coils must have at least this ratio, or no coil is judged.
CLEAR = 200
#: A coil is noisy if its noise and its share of the signal are off by this factor. Measured coils
#: have noise scans up to 1.7 times the others', ends of readouts up to 35 times; the share of the signal
#: is no more than 3.3 times below.
NOISY = 16
#: Two coils are the same if the correlations of their noise and signal exceed this; measured correlations
#: are up to 0.48 and 0.99.
ALIKE = 0.999
#: Lines, and samples of each, around k = 0; lines far from it.
REACH = 8


@dataclass(frozen=True, eq=False)
class Look:
    """Statistics of the coils in the first image of a slice.

    `signal` and `floor`, ``(coil,)``, are mean energies of samples: around k = 0, and at the ends of
    the outermost readouts. `alike`, ``(coil, coil)``, are correlations around k = 0.
    """

    signal: np.ndarray
    floor: np.ndarray
    alike: np.ndarray


@dataclass(frozen=True, eq=False)
class Choice:
    """The coils that are used, the number of all coils, and the reason for each coil that is left out."""

    kept: tuple[int, ...]
    count: int
    reasons: dict[int, str]

    def of(self, samples, axis=3):
        """The part of an array with the coils that are used."""
        return np.asfortranarray(np.take(samples, self.kept, axis))

    def text(self):
        """For people."""
        if self.reasons:
            return "leave out " + "; ".join(f"coil {coil}: {why}" for coil, why in self.reasons.items())
        return f"use coils {_ranges(self.kept)} of {self.count}"


# ---- From samples --------------------------------------------------------------------------------


def look(centre, outer):
    """A `Look` at lines of all coils, complex ``(line, sample, coil)``: nearest to k = 0, and farthest."""
    centre, outer = (np.asarray(lines, np.complex128) for lines in (centre, outer))
    ends = max(1, outer.shape[1] // 16)
    power = np.abs(outer) ** 2
    floor = np.minimum(power[:, :ends].mean((0, 1)), power[:, -ends:].mean((0, 1)))
    weights = np.where(floor > 0, 1 / np.where(floor > 0, floor, 1), 0)
    weights = weights if weights.any() else np.ones_like(floor)
    along = ((np.abs(centre) ** 2).sum(0) * weights).sum(1)
    width = min(REACH, len(along))
    first = int(np.convolve(along, np.ones(width), "valid").argmax())
    near = centre[:, first : first + width].reshape(-1, len(floor))
    return Look((np.abs(near) ** 2).mean(0), floor, correlation(near))


def correlation(samples):
    """Magnitudes of the correlations of coils, ``(coil, coil)``, of samples ``(sample, coil)``."""
    products = samples.T @ samples.conj()
    rms = np.sqrt(np.diagonal(products).real)
    return np.abs(products) / np.where(rms > 0, rms, 1) / np.where(rms > 0, rms, 1)[:, None]


@np.errstate(over="ignore", invalid="ignore")  # samples that are too large are refused later, with their image
def looks(slices, noise, voxels):
    """Looks at slices until no coil is suspect any more.

    Parameters
    ----------
    slices : iterable of tuple of two callables
        Each reads the lines of a slice: those nearest to k = 0, and those farthest from it.
    noise : ndarray of complex64, ``(sample, coil)``, or None
    voxels : int
        Samples of an image.
    """
    made = []
    for read in slices:
        made.append(look(*(lines() for lines in read)))
        if not any(suspects(made, known, voxels) for known in (noise, None)):
            break
    return tuple(made)


def of_arrays(kspace, lines, noise):
    """Looks at k-space in memory, by `ctessel.scan.AXES`; `lines` are those of a layout."""
    if kspace.shape[3] < 2:
        return ()

    def read(index, at):
        return lambda: kspace[..., index, 0, 0][:, at[:, 0], at[:, 1]].swapaxes(0, 1)

    def slices():
        for index in range(kspace.shape[4]):
            at = np.argwhere(lines[:, :, index, 0, 0])
            if len(at):
                yield [read(index, at[part]) for part in nearest_and_farthest(at - np.array(lines.shape[:2]) // 2)]

    return looks(slices(), noise, prod(kspace.shape[:3]))


def nearest_and_farthest(places):
    """Which of the lines at these places, ``(line, 2)`` from k = 0, are used."""
    order = np.argsort((places**2).sum(1), kind="stable")
    return order[:REACH], order[-REACH:]


# ---- Criteria ------------------------------------------------------------------------------------


def suspects(found, noise, voxels):
    """Coils that are defective in every look, and the reasons: a dict of texts."""
    findings = [_suspects(each, noise, voxels) for each in found]
    common = set(findings[0]).intersection(*findings) if findings else set()
    return {coil: findings[0][coil] for coil in sorted(common)}


def _suspects(seen, noise, voxels):
    powers = [seen.floor]
    if noise is not None:
        powers.append(np.mean(np.abs(noise, dtype=np.float64) ** 2, 0))
    return {**_copies(seen, noise), **_noisy(seen, powers, voxels), **_silent(seen, powers)}


def _silent(seen, powers):
    """Coils without signal, or without noise if the others have some."""
    share = _share(seen.signal, seen.floor)
    typical = _of_others(share, seen.signal > 0)
    findings = {}
    for coil in range(len(share)):
        if seen.signal[coil] == 0 and seen.signal.any():
            findings[coil] = "it has only zeros"
        elif share[coil] < SIGNAL and typical[coil] > CLEAR:
            findings[coil] = "it has noise without signal"
        elif powers[-1][coil] == 0 and powers[-1] is not seen.floor and powers[-1].any():
            findings[coil] = "the noise scan has only zeros for it"
    return findings


def _noisy(seen, powers, voxels):
    """Coils with much more noise than the others, if it is visible in their image."""
    findings = {}
    for power in powers:
        share = _share(seen.signal, power)
        there = (seen.signal > 0) & (power > 0)
        louder, less = _share(power, _of_others(power, there)), _share(_of_others(share, there), share)
        for coil in np.flatnonzero(there & (louder > NOISY) & (less > NOISY) & (share < voxels)).tolist():
            findings[coil] = f"its noise is {louder[coil] ** 0.5:.3g} times that of the other coils"
    return findings


def _copies(seen, noise):
    """Coils with the samples of a coil before them."""
    if noise is None:
        return {}
    both = np.minimum(seen.alike, correlation(np.asarray(noise, np.complex128))) > ALIKE
    pairs = np.argwhere(np.tril(both, -1)).tolist()
    return {coil: f"it measures the same as coil {other}" for coil, other in reversed(pairs)}


def _share(a, b):
    return np.divide(a, b, out=np.full(np.shape(a), np.inf), where=b > 0)


def _of_others(values, counted):
    """The median of the values of the other coils that count; 0 without others."""
    made = np.zeros(len(values))
    for coil in range(len(values)):
        others = counted & (np.arange(len(values)) != coil)
        made[coil] = np.median(values[others]) if others.any() else 0
    return made


# ---- The choice ----------------------------------------------------------------------------------


def choose(layout, options):
    """The coils of a scan that are used: a `Choice`, or None for all of them.

    Raises
    ------
    ValueError
        `options` names coils that the scan does not have; or the choice is not possible yet.
    """
    count = layout.shape[3]
    if options.coils is not None:
        kept = check(options.coils)
        if kept[-1] >= count:
            raise ValueError(f"coils: the scan has coils 0 to {count - 1}, got {kept[-1]}; choose from these")
        return Choice(kept, count, {}) if len(kept) < count else None
    noise = layout.noise if options.whiten else None
    with np.errstate(over="ignore", invalid="ignore"):
        reasons = suspects(layout.looks, noise, prod(layout.shape[:3]))
    if not 0 < len(reasons) < count:
        return None
    if not layout.looked:
        raise ValueError("defective coils can be found only once the first image of each slice has come")
    return Choice(tuple(coil for coil in range(count) if coil not in reasons), count, reasons)


def check(coils):
    """Numbers of coils in order; ValueError unless each is there once."""
    if not coils or min(coils) < 0 or len(set(coils)) < len(coils):
        raise ValueError(f"coils: expected numbers from 0, each once, got {', '.join(map(str, coils))}")
    return tuple(sorted(coils))


def parse(text):
    """Numbers of coils from a list such as 0,2-5."""
    coils = []
    for part in text.split(","):
        first, dash, last = part.strip().partition("-")
        ends = (first, last) if dash else (first, first)
        if not all(end.isascii() and end.isdigit() and len(end) < 6 for end in ends) or int(ends[0]) > int(ends[1]):
            raise ValueError(f"expected numbers of coils from 0 such as 0,2-5, got {text!r}")
        coils += range(int(ends[0]), int(ends[1]) + 1)
    return check(coils)


def warnings(choice):
    """Warnings about coils that are left out, one line each."""
    for coil, why in (choice.reasons if choice else {}).items():
        yield f"coil {coil} of 0 to {choice.count - 1} is left out: {why}; --coils 0-{choice.count - 1} keeps all"


def _ranges(numbers):
    """Numbers in order as 0,2-5."""
    runs = np.split(np.array(numbers), np.flatnonzero(np.diff(numbers) > 1) + 1)
    return ",".join(f"{run[0]}-{run[-1]}" if len(run) > 1 else str(run[0]) for run in runs)
