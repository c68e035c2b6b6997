"""What noise becomes in the images of a scan: g-factor, standard deviation, SNR, condition, and how
far the calibration data lie off the sensitivities.

The reconstruction of a block is a linear operator once maps, masks and phases are held fixed. Its
standard deviation is that of replicas: noise with the scan's covariance, added to the measured
lines, through all that the image goes through.

References
----------
P. M. Robson et al., "Comprehensive quantification of signal-to-noise ratio and g-factor for
image-based and k-space-based parallel imaging reconstructions", Magn. Reson. Med. 60:895 (2008).
"""

from dataclasses import replace
from math import prod

import numpy as np

from . import reconstruct
from ._sense import sense_noise
from .fourier import central, resize, to_image, to_kspace
from .partial import pocs, smooth_phase
from .steps import calibration_residual, low_resolution

#: Kinds of maps, and what they show.
NAMES = {
    "g": "g-factor: noise over that of all lines measured, times the root of the reduction",
    "sd": "standard deviation of the complex value, in the unit of the image; that of the real and "
    "of the imaginary part is 1 / sqrt(2) of it",
    "snr": "magnitude of the image over sd",
    "condition": "largest over smallest eigenvalue of the equations of the voxels that alias",
    "residual": "share of the calibration image's energy that the sensitivities do not explain",
}
#: Replicas of a slice: each standard deviation has a relative error of 1 / sqrt(4 REPLICAS).
REPLICAS = 100


def check_names(names):
    """Names of maps, each once; ValueError where there is no such."""
    for name in names:
        if name not in NAMES:
            known = ", ".join(NAMES)
            raise ValueError(f"expected some of {known} with commas between, got {name!r}")
    return tuple(dict.fromkeys(names))


def check(plan, names):
    """Refuse maps that a plan cannot have; the message says how to mend it."""
    names = check_names(names)
    if plan.covariance is None and {"sd", "snr"} & set(names):
        raise ValueError(
            "maps of sd and snr need the raw data's noise scan; leave them out of --maps-out"
        )
    if plan.shape[2] > 1:
        raise ValueError("maps of noise are made of slices; leave --maps-out out for 3-D scans")
    if not all(pattern.weighted for pattern in plan.patterns):
        raise ValueError(
            "maps of noise need sensitivities: undersampled lines, or a noise scan of several coils"
        )
    if plan.options.partial == "homodyne" and any(any(p.ranges) for p in plan.patterns):
        raise ValueError(
            "maps of noise hold for zero filling and POCS; choose --partial pocs or zero"
        )
    if plan.options.coefficients is not None:
        raise ValueError(
            "maps of noise are those before the geometry is corrected; leave --geometry out"
        )


def maps(plan, source, names, image=None, *, replicas=REPLICAS, seed=0, progress=None):
    """Maps of the images of a scan.

    Parameters
    ----------
    plan : Plan
    source : Scan, or whatever has its `layout`, `frames` and `separate`
    names : sequence of str
        Some of `NAMES`.
    image : ndarray, ``(x, y, z, slice, echo, repetition)``, optional
        What `ctessel.pipeline.reconstruct` made, for "snr".
    replicas : int, optional
    seed : int, optional
        Of the noise: the same maps each time.
    progress : callable, optional
        Called with the number of slices that are done and that of all.

    Returns
    -------
    dict of str and ndarray of float32
        ``(x, y, z, slice)``, image domain, those of the first pattern of lines of a series; "snr"
        has the shape of `image`. "sd" is the standard deviation of the complex value in the unit of
        the image (1 / sqrt(2) of it is that of the real and of the imaginary part); "g" that over
        what all lines would leave times the root of the reduction, 1 where nothing is
        undersampled; "condition" that of the voxels' equations; "residual" the share of the
        calibration image's energy that the sensitivities do not explain,
        ``1 - |S^H c|^2 / |c|^2``. 0 outside of the object.

    Raises
    ------
    ValueError
        The scan has no such maps.
    """
    check(plan, names)
    made = {name: [] for name in names}
    for done, index in enumerate(plan.kept[0], 1):
        block = reconstruct.Block(index, plan.patterns[0].repetitions[:1], 0)
        for name, values in _of_slice(plan, block, source, names, replicas, seed + index).items():
            made[name].append(values)
        if progress:
            progress(done, len(plan.kept[0]))
    stacked = {name: np.stack(values, 3) for name, values in made.items()}
    if "snr" in names:
        sd = stacked["snr"][..., None, None]
        none = np.zeros(image.shape, np.float32)
        stacked["snr"] = np.divide(np.abs(image), sd, out=none, where=sd > 0)
    return stacked


def _of_slice(plan, block, source, names, replicas, seed):
    """Maps of a slice; under "snr" its standard deviation."""
    pattern, basis = plan.patterns[block.pattern], reconstruct.prepare(plan, block, source)
    alone, condition = _unfolding(plan, pattern, basis)
    made = {"condition": _placed(plan, pattern, condition)}
    if {"g", "sd", "snr"} & set(names):
        frame = reconstruct.lines(plan, block, source)[..., :1, :]
        sd = deviation(plan, block, basis, frame, replicas, seed)
        sd[_placed(plan, pattern, alone) == 0] = 0
        made |= {"sd": sd, "snr": sd, "g": _amplification(plan, pattern, sd, alone)}
    if "residual" in names:
        calibration = reconstruct.calibration_lines(plan, block.slice, source)
        made["residual"] = _placed(plan, pattern, _residual(plan, pattern, basis, calibration))
    return {name: made[name].astype(np.float32) for name in names}


def _unfolding(plan, pattern, basis):
    """Standard deviation of voxels without aliases, and the condition of their equations."""
    sizes = {"full_size": pattern.full, "psi": plan.covariance, "threads": plan.options.threads}
    folded = (pattern.full[0], *(lattice.folded for lattice in pattern.lattices))
    _, alone, _ = sense_noise(basis.maps, fold_size=pattern.full, **sizes)
    _, _, condition = sense_noise(basis.maps, fold_size=folded, **sizes)
    return alone, np.nan_to_num(condition, posinf=2.0**52)


def deviation(plan, block, basis, frame, replicas=REPLICAS, seed=0):
    """Standard deviation of the image of a block over replicas of noise added to its lines.

    Parameters
    ----------
    plan, block, basis
        As for `ctessel.reconstruct.reconstruct_block`.
    frame : ndarray of complex64, ``(x, y, z, coil, 1, 1)``
    replicas, seed : int, optional

    Returns
    -------
    ndarray of float64, ``(x, y, z)``
    """
    covariance, unit = plan.covariance, 1.0
    if covariance is None:  # noise of unit variance, less in what is not linear far from the scan
        covariance = np.eye(frame.shape[3])
        unit = 1e-3 * float(np.sqrt(np.mean(np.abs(frame) ** 2))) or 1.0
    options = replace(plan.options, combine="pcsos")
    plan = replace(plan, options=options, covariance=covariance.astype(np.complex64))
    factor = unit * np.linalg.cholesky(covariance.astype(complex)).astype(np.complex64)
    operator = _frozen(plan, block, basis, frame)
    random, image, power = np.random.default_rng(seed), operator(frame), 0.0
    together = max(1, plan.group)
    for start in range(0, replicas, together):
        shape = (*frame.shape[:5], min(together, replicas - start))
        white = random.standard_normal((2, *shape), np.float32) * np.float32(0.5**0.5)
        noise = np.einsum("cd,xyzden->xyzcen", factor, white[0] + 1j * white[1], optimize=True)
        made = operator(np.asfortranarray(frame + noise * (frame != 0), np.complex64))
        power = power + (np.abs(made - image, dtype=np.float64) ** 2).sum((3, 4))
    return np.sqrt(power / replicas) / unit


def _frozen(plan, block, basis, frame):
    """The reconstruction of a block; what it takes from the data stays that of `frame`."""
    pattern, threads = plan.patterns[block.pattern], plan.options.threads
    if not basis.fills:
        return lambda samples: reconstruct.reconstruct_block(plan, block, basis, samples)["image"]

    def lines(samples):
        complete = reconstruct._complete(plan, pattern, basis, samples)
        return reconstruct._filtered(plan, pattern, complete)

    phase = smooth_phase(lines(frame), pattern.ranges, threads)

    def operator(samples):
        image = pocs(
            lines(samples), pattern.ranges, field=plan.matrix, phase=phase, threads=threads
        )
        return reconstruct._combined(plan, pattern, image)

    return operator


def _amplification(plan, pattern, sd, alone):
    """The g-factor: noise over that of all lines, which filter and interpolation weigh, too."""
    if not pattern.unfolds:
        return (sd > 0).astype(float)
    point = np.zeros((*pattern.full, 1), np.complex64, order="F")
    point[tuple(n // 2 for n in pattern.full)] = 1
    spread = to_image(reconstruct._filtered(plan, pattern, to_kspace(point)))
    gain = np.linalg.norm(spread) * (prod(pattern.full) / prod(plan.pixels)) ** 0.5
    reduction = prod(float(lattice.reduction) for lattice in pattern.lattices) ** 0.5
    whole = _placed(plan, pattern, alone) * gain * plan.gain(pattern) * reduction
    return np.divide(sd, whole, out=np.zeros(sd.shape), where=whole > 0)


def _residual(plan, pattern, basis, calibration):
    """Share of the calibration image's energy off the sensitivities."""
    threads = plan.options.threads
    lines = low_resolution(reconstruct._cut(plan, calibration), threads=threads)
    images = to_image(resize(lines, pattern.calibration_pixels), threads=threads, overwrite=True)
    size = np.linalg.norm(basis.maps, axis=3, keepdims=True)
    directions = np.divide(basis.maps, size, out=np.zeros_like(basis.maps), where=size > 0)
    return calibration_residual(directions, resize(images, pattern.full))[0]


def _placed(plan, pattern, values):
    """A map of the unfolded grid at the image's voxels: those of the nearest ones."""
    at = [np.arange(m) * n // m for n, m in zip(pattern.full, plan.pixels)]
    values = values[np.ix_(*at)]
    return values[tuple(central(n, m) for n, m in zip(plan.pixels, plan.matrix))]
