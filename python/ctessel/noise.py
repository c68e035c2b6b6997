"""Noise in the images of a scan: g-factor, standard deviation, SNR, condition, and the misfit of
calibration data and sensitivities.

If maps, masks and phases are fixed, the reconstruction of a block is a linear operator. Its standard
deviation is measured with replicas: noise with the scan's covariance is added to the measured lines, and
goes through all steps of the image.

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
from .steps import by_set, calibration_residual, low_resolution

#: Kinds of maps, and what they show.
NAMES = {
    "g": "g-factor: noise divided by that of a fully sampled scan and by the root of the acceleration",
    "sd": "standard deviation of the complex value in units of the raw data (real and imaginary part: "
    "1 / sqrt(2) of it); after homodyne that of the real value",
    "snr": "magnitude of the image divided by sd",
    "condition": "largest divided by smallest eigenvalue of the equations of the voxels that alias",
    "residual": "share of the calibration image's energy that the sensitivities do not explain",
}


def check_names(names):
    """Names of maps, each once; ValueError for unknown names."""
    for name in names:
        if name not in NAMES:
            known = ", ".join(NAMES)
            raise ValueError(f"expected some of {known} separated by commas, got {name!r}")
    return tuple(dict.fromkeys(names))


def check(plan, names):
    """Raise an error for maps that a plan cannot have; the message says how to fix it."""
    names = check_names(names)
    if plan.covariance is None and {"sd", "snr"} & set(names):
        raise ValueError("maps of sd and snr need a noise scan in the raw data; leave them out of --maps-out")
    if {"residual", "condition", "g"} & set(names) and not all(p.weighted for p in plan.patterns):
        raise ValueError(
            "maps of g, condition and residual need sensitivities: undersampled lines, or a noise scan of "
            "several coils"
        )
    if plan.options.coefficients is not None:
        raise ValueError("maps of noise describe the image before the geometry correction; leave out --geometry")


def maps(plan, source, names, image=None, *, replicas=REPLICAS, seed=0, progress=None):
    """Maps of the images of a scan.

    Parameters
    ----------
    plan : Plan
    source : Scan, or an object with its `layout`, `frames` and `separate`
        Its samples must be those of the file; a `disposable` scan loses them in its reconstruction.
    names : sequence of str
        Some of `NAMES`.
    image : ndarray, ``(x, y, z, slice, echo, repetition)``, optional
        Image by `ctessel.pipeline.reconstruct`, for "snr".
    replicas : int, optional
    seed : int, optional
        Of the noise: the same maps each time.
    progress : callable, optional
        Called with the number of slices or volumes that are done and that of all.

    Returns
    -------
    dict of str and ndarray of float32
        ``(x, y, z, slice)``, image domain, for the first sampling pattern of a series. 0 outside of the
        object.

        * "sd": standard deviation of the complex value in units of the raw data. Real and imaginary
          part each have 1 / sqrt(2) of it. After homodyne it is that of the real value.
        * "g": sd, divided by that of a fully sampled scan and by the root of the acceleration; 1 if
          nothing is undersampled.
        * "snr": in the shape of `image`; each repetition has the noise of its own lines.
        * "condition": that of the equations of the voxels that alias.
        * "residual": the share of the calibration image's energy that the sensitivities do not
          explain, ``1 - |S^H c|^2 / |c|^2``.

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
    """Magnitudes of images, ``(repetition, x, y, z, echo)``, divided by the noise of their voxels."""
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
    """Maps on the unfolded grid, the standard deviation of the image, and whether POCS fills lines."""
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
    """As `_of_slice`, for a volume that is processed in slabs."""
    pattern = plan.patterns[block.pattern]
    calibration = reconstruct.slice_calibration(plan, block, source)
    sensitivities, intensities = reconstruct.volume_sensitivities(plan, block, source, calibration)
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
    sd = reconstruct.volume_deviation(plan, block, source, sensitivities, intensities, replicas, seed)
    return made, sd, False


def _unfolding(plan, pattern, maps):
    """Condition of the equations, and standard deviation of voxels without aliases ("alone")."""
    if maps is None:
        return {}
    full = (len(maps), *pattern.full[1:])
    maps = by_set(maps)[:, :, :, :, None]  # one location
    sizes = {"full_size": full, "psi": plan.covariance, "threads": plan.options.threads}
    folded = (full[0], *(lattice.folded for lattice in pattern.lattices))
    _, alone, _ = sense_noise(maps, fold_size=full, **sizes)
    aliases = alias_offsets(pattern.lattices)
    _, _, condition = sense_noise(maps, fold_size=folded, aliases=aliases, **sizes)
    return {"alone": alone[..., 0, 0], "condition": np.nan_to_num(condition[..., 0, 0], posinf=2.0**52)}


def _amplification(plan, pattern, sd, alone, fills):
    """The g-factor: noise over that of all lines."""
    if not pattern.unfolds:
        return (sd > 0).astype(float)
    reduction = prod(float(lattice.reduction) for lattice in pattern.lattices) ** 0.5
    whole = alone * reduction * reconstruct.gain_of_noise(plan, pattern, fills)
    return np.divide(sd, whole, out=np.zeros(sd.shape), where=whole > 0)


def _residual(maps, images):
    """Share of the calibration image's energy that the sensitivities do not explain."""
    size = np.linalg.norm(maps, axis=3, keepdims=True)
    directions = np.divide(maps, size, out=np.zeros_like(maps), where=size > 0)
    return calibration_residual(directions, images)[0]


def _placed(plan, pattern, values):
    """A map of the unfolded grid at the voxels of the image, by nearest neighbour."""
    at = [np.arange(m) * n // m for n, m in zip(pattern.full, plan.pixels)]
    values = values[np.ix_(*at)]
    return values[tuple(central(n, m) for n, m in zip(plan.pixels, plan.matrix))]
