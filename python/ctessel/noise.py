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

from math import prod

import numpy as np

from . import reconstruct, slabs
from ._sense import sense_noise
from .fourier import central, resize, to_image
from .replicas import REPLICAS
from .sampling import alias_offsets
from .steps import calibration_residual, low_resolution

#: Kinds of maps, and what they show.
NAMES = {
    "g": "g-factor: noise over that of all lines measured, times the root of the reduction",
    "sd": "standard deviation of the complex value, at the level of the raw data; that of the real and "
    "of the imaginary part is 1 / sqrt(2) of it; after homodyne that of the real value, which is all",
    "snr": "magnitude of the image over sd",
    "condition": "largest over smallest eigenvalue of the equations of the voxels that alias",
    "residual": "share of the calibration image's energy that the sensitivities do not explain",
}


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
    if {"residual", "condition", "g"} & set(names) and not all(p.weighted for p in plan.patterns):
        raise ValueError(
            "maps of g, condition and residual need sensitivities: undersampled lines, or a noise scan of "
            "several coils"
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
        Its samples are those of the file: a scan that was reconstructed as a `disposable` one has none.
    names : sequence of str
        Some of `NAMES`.
    image : ndarray, ``(x, y, z, slice, echo, repetition)``, optional
        What `ctessel.pipeline.reconstruct` made, for "snr".
    replicas : int, optional
    seed : int, optional
        Of the noise: the same maps each time.
    progress : callable, optional
        Called with the number of slices or volumes that are done and that of all.

    Returns
    -------
    dict of str and ndarray of float32
        ``(x, y, z, slice)``, image domain, those of the first pattern of lines of a series; "snr"
        has the shape of `image`, each repetition with the noise of its own lines. "sd" is the standard
        deviation of the complex value at the level of the raw data (1 / sqrt(2) of it is that of the
        real and of the imaginary part; homodyne leaves a real value alone); "g" that over
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
    made, count = {name: [] for name in names}, len(plan.kept[0])
    snr = np.zeros(image.shape, np.float32) if "snr" in names else None
    for done, index in enumerate(plan.kept[0]):
        for number, pattern in enumerate(plan.patterns[: None if "snr" in names else 1]):
            at = np.flatnonzero(np.isin(plan.kept[2], pattern.repetitions))
            if number > 0 and not at.size:
                continue
            block = reconstruct.Block(index, pattern.repetitions[:1], number)
            found = _of_block(plan, block, source, names, replicas, seed)
            if snr is not None:
                snr[:, :, :, done, :, at] = _ratio(plan, image[:, :, :, done, :, at], found["snr"])
            for name in names if number == 0 else ():
                made[name].append(found[name])
        if progress:
            progress(done + 1, count)
    stacked = {name: np.stack(values, 3).astype(np.float32) for name, values in made.items()}
    return stacked if snr is None else {**stacked, "snr": snr}


def _ratio(plan, image, sd):
    """Magnitudes of images, ``(repetition, x, y, z, echo)``, over the noise of their voxels."""
    sd = sd[..., None]
    over = np.ones_like(sd) if plan.in_snr else sd
    return np.divide(np.abs(image), over, out=np.zeros(image.shape), where=sd > 0)


def _of_block(plan, block, source, names, replicas, seed):
    """Maps of a slice or volume; under "snr" its standard deviation."""
    look = _of_volume if plan.in_slabs else _of_slice
    made, sd, fills = look(plan, block, source, names, replicas, seed)
    pattern = plan.patterns[block.pattern]
    made = {name: _placed(plan, pattern, values) for name, values in made.items()}
    if {"g", "sd", "snr"} & set(names):
        if pattern.weighted:
            sd[made["alone"] == 0] = 0
        made |= {"sd": sd, "snr": sd}
    if "g" in names:
        made["g"] = _amplification(plan, pattern, sd, made["alone"], fills)
    return made


def _of_slice(plan, block, source, names, replicas, seed):
    """Maps on the unfolded grid, the standard deviation of the image, and whether POCS fills in lines."""
    pattern, basis = plan.patterns[block.pattern], reconstruct.prepare(plan, block, source)
    made = _unfolding(plan, pattern, basis.maps)
    if "residual" in names:
        calibration = reconstruct.calibration_lines(plan, block.slice, source)
        threads = plan.options.threads
        lines = low_resolution(reconstruct.cut_calibration(plan, calibration), threads=threads)
        lines = resize(lines, pattern.calibration_pixels)
        images = to_image(lines, threads=threads, overwrite=True)
        made["residual"] = _residual(basis.maps, resize(images, pattern.full))
    if not {"g", "sd", "snr"} & set(names):
        return made, None, basis.fills
    frame = reconstruct.lines(plan, block, source)[..., :1, :]
    return made, reconstruct.deviation(plan, block, basis, frame, replicas, seed), basis.fills


def _of_volume(plan, block, source, names, replicas, seed):
    """As `_of_slice`, of a volume that is worked on in slabs."""
    pattern = plan.patterns[block.pattern]
    calibration = reconstruct.slice_calibration(plan, block, source)
    sensitivities, levels = reconstruct.volume_sensitivities(plan, block, source, calibration)
    parts = []
    for x in slabs.edges(plan, pattern, plan.readout) if pattern.weighted else ():
        part = sensitivities.part(x)
        of_slab = part.maps(plan, pattern)[0]
        found = _unfolding(plan, pattern, of_slab)
        if "residual" in names:
            size = (len(of_slab), *pattern.calibration_pixels[1:])
            images = resize(part.images(plan, size), of_slab.shape[:3])
            found["residual"] = _residual(of_slab, images)
        parts.append(found)
    made = {name: np.concatenate([part[name] for part in parts]) for name in (parts or [{}])[0]}
    if not {"g", "sd", "snr"} & set(names):
        return made, None, False
    sd = reconstruct.volume_deviation(plan, block, source, sensitivities, levels, replicas, seed)
    return made, sd, False


def _unfolding(plan, pattern, maps):
    """Condition of the equations, and standard deviation of voxels without aliases ("alone")."""
    if maps is None:
        return {}
    full = (len(maps), *pattern.full[1:])
    sizes = {"full_size": full, "psi": plan.covariance, "threads": plan.options.threads}
    folded = (full[0], *(lattice.folded for lattice in pattern.lattices))
    _, alone, _ = sense_noise(maps, fold_size=full, **sizes)
    aliases = alias_offsets(pattern.lattices)
    _, _, condition = sense_noise(maps, fold_size=folded, aliases=aliases, **sizes)
    return {"alone": alone, "condition": np.nan_to_num(condition, posinf=2.0**52)}


def _amplification(plan, pattern, sd, alone, fills):
    """The g-factor: noise over that of all lines."""
    if not pattern.unfolds:
        return (sd > 0).astype(float)
    reduction = prod(float(lattice.reduction) for lattice in pattern.lattices) ** 0.5
    whole = alone * reduction * reconstruct.gain_of_noise(plan, pattern, fills)
    return np.divide(sd, whole, out=np.zeros(sd.shape), where=whole > 0)


def _residual(maps, images):
    """Share of the calibration image's energy off the sensitivities."""
    size = np.linalg.norm(maps, axis=3, keepdims=True)
    directions = np.divide(maps, size, out=np.zeros_like(maps), where=size > 0)
    return calibration_residual(directions, images)[0]


def _placed(plan, pattern, values):
    """A map of the unfolded grid at the image's voxels: those of the nearest ones."""
    at = [np.arange(m) * n // m for n, m in zip(pattern.full, plan.pixels)]
    values = values[np.ix_(*at)]
    return values[tuple(central(n, m) for n, m in zip(plan.pixels, plan.matrix))]
