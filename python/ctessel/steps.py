"""Steps from raw k-space to the image: noise, sensitivities, unfolding, homodyne, combination."""

from collections.abc import Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray
from scipy import ndimage, special

from . import homodyne
from ._arrays import ringing_filter, zero_pad
from ._coils import pcsos, sos
from .fourier import central, flip, resize, to_image
from ._espirit import espirit
from ._helpers import sa
from ._sense import sense_recon
from .sampling import alias_offsets, fold_lines, shifted_axis, shifts

#: Share of the voxels that count as pure noise.
DARK = 0.05
#: Readout samples of the calibration that sensitivities need, for any number of lines.
WINDOW_LINES = 24
#: A voxel is inside of the object if its eigenvalue is at least this.
CROP = 0.8
#: The same of the second set: what it shows less of is not worth the noise.
FURTHER = 0.7
#: Kernel of the maps of large slices. A larger one takes up to twice the time; errors of measured heads
#: stay within half a percent.
KERNEL = 5
#: Kernel of smaller slices, which take little time: for a 64 x 64 phantom, R = 3, the error is 3.1 % with 5
#: and 2.6 % with 6.
SMALL_KERNEL = 6
#: Along axes of at least this extent, maps of slices are computed at every other voxel and interpolated.
COARSE = 96
#: Kernel of the planes of volumes; with ACS lines along two axes a larger one gains nothing.
PLANE_KERNEL = 4
#: Strength of the window against ringing over calibration lines.
WINDOW = 0.9


def noise_covariance(noise, bandwidth_ratio=1.0):
    """Covariance of the coils' noise per k-space sample of the image.

    Parameters
    ----------
    noise : ndarray of complex64, ``(sample, coil)``
        Samples without signal.
    bandwidth_ratio : float, optional
        Dwell time of the noise scan, divided by that of the image and by its averages: variance is
        proportional to the bandwidth.

    Returns
    -------
    ndarray of complex64, ``(coil, coil)``
        Mean of ``n[i] conj(n[j])`` times `bandwidth_ratio`.

    Raises
    ------
    ValueError
        Too few samples, or a coil without noise.
    """
    samples = np.asarray(noise, np.complex128)
    if samples.ndim != 2 or len(samples) < 2 * samples.shape[1]:
        raise ValueError(
            f"noise: expected (sample, coil) with at least twice as many samples as "
            f"coils, got shape {samples.shape}; leave the noise scan out (--no-noise)"
        )
    covariance = (bandwidth_ratio * (samples.T @ samples.conj()) / len(samples)).astype(np.complex64)
    _cholesky(covariance)
    return covariance


def _cholesky(covariance):
    try:
        return np.linalg.cholesky(np.asarray(covariance, np.complex128))
    except np.linalg.LinAlgError:
        raise ValueError(
            "noise: the covariance of the coils is singular (a coil without signal?); "
            "leave the noise scan out (--no-noise)"
        ) from None


def whiten(kspace, covariance):
    """Make the noise of the coils independent, with unit variance.

    Parameters
    ----------
    kspace : ndarray of complex64, ``(x, y, z, coil, ...)``
    covariance : ndarray of complex64, ``(coil, coil)``

    Returns
    -------
    ndarray of complex64
        ``L^-1 d`` for every sample's coil values d, with ``L L^H`` the covariance; Fortran order.

    References
    ----------
    P. B. Roemer et al., "The NMR phased array", Magn. Reson. Med. 16:192 (1990).
    """
    inverse = np.linalg.inv(_cholesky(covariance)).astype(np.complex64)
    out = np.empty(kspace.shape, np.complex64, order="F")
    voxels = int(np.prod(kspace.shape[:3]))
    for index in np.ndindex(kspace.shape[4:]):
        volume = (slice(None),) * 4 + index
        coils = np.asfortranarray(kspace[volume]).reshape((voxels, -1), order="F")
        out[volume] = (inverse @ coils.T).T.reshape(kspace.shape[:4], order="F")
    return out


def sensitivity_maps(calibration, size, *, window=WINDOW, mask=0.05, threads=None):
    """Coil sensitivities from low-resolution k-space, and their combined image.

    Each coil's low-resolution image is divided by the combination of all: their root sum of
    squares with the phase of the coils' weighted sum, so that the unfolded image keeps that phase.

    Parameters
    ----------
    calibration : ndarray of complex64, ``(x, y, z, coil)``
        Fully sampled lines around k = 0, which is at ``N // 2``.
    size : sequence of 3 int
        Extents of the maps, over the field of view of the calibration lines.
    window : float, optional
        Strength of the window against ringing, see `ctessel.ringing_filter`.
    mask : float, optional
        Voxels below this share of the brightest magnitude count as outside of the object. Their coil 0 has
        real part 0, as `ctessel.sense_recon` expects. The object is filled and grown by a few voxels.
        0 keeps every voxel.
    threads : int, optional

    Returns
    -------
    maps : ndarray of complex64, ``(x, y, z, coil)``
    combined : ndarray of complex64, ``(x, y, z)``
        Combined low-resolution image.

    References
    ----------
    K. P. Pruessmann et al., "SENSE: sensitivity encoding for fast MRI", Magn. Reson. Med. 42:952
    (1999).
    """
    lines = low_resolution(calibration, window, threads)
    images = to_image(resize(lines, size, threads), threads=threads, overwrite=True)
    combined = pcsos(images, threads=threads)
    inside = object_mask(np.abs(combined), mask) if mask > 0 else None
    return _relative(images, combined, inside), combined


def low_resolution(calibration, window=WINDOW, threads=None):
    """Calibration lines under a window against ringing; see `sensitivity_maps`."""
    return ringing_filter(np.asfortranarray(calibration), window, threads=threads)


def relative_maps(images, threads=None):
    """Sensitivities from low-resolution coil images, which are overwritten; see `sensitivity_maps`.

    All voxels count as inside of the object.
    """
    combined = pcsos(images, threads=threads)
    return _relative(images, combined, None), combined


def _relative(images, combined, inside):
    empty = combined == 0
    images *= (1 / np.where(empty, np.complex64(1), combined))[..., None]
    # A matrix of zeros would be singular.
    images[empty] = 1 / np.sqrt(np.float32(images.shape[3]))
    if inside is not None:
        # The kernel may still use such a voxel for other columns: the imaginary parts stay.
        images.real[..., 0][~inside] = 0
    return images


def object_mask(magnitude, threshold):
    """Voxels above a share of the brightest one, filled and grown by a few."""
    inside = magnitude > threshold * magnitude.max()
    inside = ndimage.binary_fill_holes(inside)
    reach = [min(3, n // 32) for n in inside.shape]
    return ndimage.maximum_filter(inside, [2 * r + 1 for r in reach])


def eigen_maps(calibration, size, *, mask=0.05, sets=1, threads=None):
    """Coil sensitivities as eigenvectors of the calibration data, and their combined image.

    Maps are those of `ctessel.espirit`. In volumes each plane across the fully sampled readout has its own
    maps. A voxel is inside of the object if its eigenvalue is large, or if the low-resolution image is
    bright.

    Parameters
    ----------
    calibration : ndarray of complex64, ``(x, y, z, coil)``
        Fully sampled lines around k = 0, which is at ``N // 2``.
    size : sequence of 3 int
        Extents of the maps, over the field of view of the calibration lines.
    mask : float, optional
        Voxels above this share of the brightest magnitude count as inside.
    sets : int, optional
        Sets of maps; further ones are 0 where their eigenvalue is small.
    threads : int, optional

    Returns
    -------
    maps : ndarray of complex64, ``(x, y, z, coil)``, of several sets ``(x, y, z, coil, set)``
        0 outside of the object.
    combined : ndarray of complex64, ``(x, y, z)``
        Combined low-resolution image.
    """
    combined = sensitivity_maps(calibration, size, mask=0, threads=threads)[1]
    if calibration.shape[2] == 1:
        across = min(len(calibration), max(calibration.shape[1], WINDOW_LINES))
        lines = np.asfortranarray(calibration[central(len(calibration), across)])
        maps, values = _slice_maps(lines, size, sets, threads)
    else:
        maps, values = _planes(calibration, size, sets, threads)
    bright = np.abs(combined)
    # Planes beside the object are noise, of which every voxel is an eigenvector's.
    dark = bright < mask / 5 * bright.max()
    return without(maps, values, lambda value: ((value <= CROP) | dark) & ~object_mask(bright, mask)), combined


def without(maps, values, outside):
    """Maps that are 0 where `outside`, a function of the first set's eigenvalues, says so, and those of further
    sets also where their own eigenvalues do. They are changed."""
    sets, values = by_set(maps), values.reshape((*values.shape[:3], -1))  # views
    sets[outside(values[..., 0])] = 0
    sets[..., 1:] *= (values[..., 1:] > FURTHER)[:, :, :, None]
    return maps


def by_set(maps):
    """A view of maps that has an axis of sets, the fifth one, even if there is one set."""
    return maps.reshape((*maps.shape[:4], -1))


def _slice_maps(lines, size, sets, threads):
    """Maps and eigenvalues of a slice."""
    if sets > 1:  # the further ones have no phase that is smooth between voxels
        return espirit(lines, size=size, kernel=SMALL_KERNEL, crop=0, sets=sets, eigenvalue=True, threads=threads)
    coarse = [n if n < COARSE else -(-n // 2) for n in size]
    kernel = SMALL_KERNEL if coarse == list(size) else KERNEL
    made = espirit(lines, size=coarse, kernel=kernel, crop=0, eigenvalue=True, threads=threads)
    for axis, n in enumerate(size):
        made = tuple(_finer(a, n, axis) for a in made)
    maps, values = made
    if coarse != list(size):
        length = np.sqrt((maps.real**2 + maps.imag**2).sum(3, keepdims=True))
        np.divide(maps, length, out=maps, where=length > 0)
    return maps, values


def _finer(a, n, axis):
    """Values at `n` places of an axis, interpolated from a coarser grid over the same periodic field."""
    m = a.shape[axis]
    if m == n:
        return a
    places = (np.arange(n) - n // 2) * (m / n) + m // 2
    first = np.floor(places).astype(int)
    share = (places - first).astype(np.float32).reshape([-1 if d == axis else 1 for d in range(a.ndim)])
    return (1 - share) * a.take(first % m, axis) + share * a.take((first + 1) % m, axis)


def _planes(calibration, size, sets, threads):
    lines = to_image(resize(calibration, (size[0],), threads), (0,), threads)
    return plane_maps(lines, size, sets=sets, threads=threads)


def plane_maps(lines, size, planes=None, sets=1, threads=None):
    """Maps and eigenvalues of planes across the readout, which is transformed."""
    number = (sets,) if sets > 1 else ()
    maps = np.zeros((*size, lines.shape[3], *number), np.complex64, order="F")
    values = np.zeros((*size, *number), np.float32, order="F")
    for x in range(size[0]) if planes is None else planes:
        made = espirit(
            np.asfortranarray(lines[x][:, :, None]),
            size=(*size[1:], 1),
            kernel=PLANE_KERNEL,
            crop=0,
            sets=sets if sets > 1 else None,
            eigenvalue=True,
            threads=threads,
        )
        maps[x], values[x] = (a[:, :, 0] for a in made)
    return maps, values


def calibration_residual(maps, images):
    """The part of the calibration data that the maps do not explain; it shows motion, and fields of view
    that are too small.

    Parameters
    ----------
    maps : ndarray of complex64, ``(x, y, z, coil)`` or ``(x, y, z, coil, set)``
        The squares of all coils of a set sum to 1, or to 0.
    images : ndarray of complex64, ``(x, y, z, coil)``
        Of the calibration lines.

    Returns
    -------
    residual : ndarray of float32, ``(x, y, z)``
        ``1 - |S^H c|^2 / |c|^2``, 0 where all maps are.
    sums : ndarray of float64, ``(x, 2)``
        For each x the sum of ``|c|^2 - |S^H c|^2`` and that of ``|c|^2`` over the voxels with maps.
    """
    sets = np.moveaxis(by_set(maps), 4, 0)
    energy = np.where((sets[0] != 0).any(3), (np.abs(images) ** 2).sum(3), 0)
    lost = energy
    for each in sets:
        lost = np.maximum(lost - np.abs((each.conj() * images).sum(3)) ** 2, 0)
    lost[energy == 0] = 0
    residual = np.divide(lost, energy, out=np.zeros_like(energy), where=energy > 0)
    return residual, np.stack([a.sum((1, 2), dtype=np.float64) for a in (lost, energy)], 1)


def damping(calibration, inside, weighted=False, threads=None):
    """Variance of the noise divided by that of the image, for `unfold`.

    Parameters
    ----------
    calibration : ndarray of complex64, ``(x, y, z, coil)``
        Its lines. Without a noise scan, two estimates limit the noise from above: the ends of their
        readouts, and the darkest voxels, where the mean power of the coils is the lower tail of its
        distribution.
    inside : ndarray
        Values of the image in the object.
    weighted : bool, optional
        The equations are weighted with the inverse of the noise, so that its variance is 1.
    threads : int, optional
    """
    power = np.mean(np.abs(inside, dtype=np.float64) ** 2) if inside.size else 0.0
    if weighted:
        noise = 1.0
    else:
        ends = max(1, len(calibration) // 16)
        outer = np.mean(np.abs(np.concatenate([calibration[:ends], calibration[-ends:]])) ** 2)
        image = to_image(calibration, threads=threads)
        coils = calibration.shape[3]
        tail = special.gammaincinv(coils, DARK) / coils
        noise = min(outer, np.quantile(np.mean(np.abs(image) ** 2, 3), DARK) / tail)
    return float(noise / power) if power > 0 else 0.0


def folded_image(lines, lattices, threads=None):
    """Image of only the regular lines, the input of `unfold`.

    Parameters
    ----------
    lines : ndarray of complex64, ``(x, y, z, ...)``
        k-space along y and z, k = 0 at ``N // 2``.
    lattices : sequence of two Lattice
        For y and z.
    threads : int, optional

    Returns
    -------
    ndarray of complex64, ``(x, folded y, folded z, ...)``
    """
    folded, own = fold_lines(lines, lattices), shifted_axis(lattices)
    if own is None:
        return to_image(folded, (1, 2), threads, overwrite=True)
    # Between the transforms, phases move the lines along the shifted axis to their measured places, which the
    # grid ignores. Offsets of aliases are then whole voxels.
    folded = to_image(folded, (1 + own,), threads, overwrite=True)
    lattice = lattices[own]
    places = np.arange(lattice.folded) - lattice.folded // 2
    cycles = np.multiply.outer(places, shifts(lattices)) / (lattice.folded * lattice.step)
    ramp = np.exp(2j * np.pi * (cycles if own == 0 else cycles.T)).astype(np.complex64)
    folded *= ramp.reshape(1, *ramp.shape, *[1] * (folded.ndim - 3))
    return to_image(folded, (2 - own,), threads, overwrite=True)


def unfold(
    folded,
    maps,
    lattices,
    *,
    covariance=None,
    expected=None,
    strength=1.0,
    intensities=None,
    damping=0.0,
    threads=None,
):
    """Unfold images of regularly undersampled k-space.

    Parameters
    ----------
    folded : ndarray of complex64, ``(x, folded y, folded z, coil, ...)``
        Result of `folded_image`; one location.
    maps : ndarray of complex64, ``(x, y, z, coil)`` or ``(x, y, z, coil, set)``
    lattices : sequence of two Lattice
        For y and z.
    covariance : ndarray of complex64, ``(coil, coil)``, optional
        Of the noise; by default the identity.
    expected : ndarray of complex64 or float32, ``(x, y, z)``, optional
        Image with the expected signal as magnitude; it switches on the regularisation.
    strength : float, optional
        Of the regularisation: divides the expected signal intensity.
    intensities : tuple of two float, optional
        Root-mean-square intensities of the folded data and of the expected image of the whole scan, if
        `folded` is a part of it. By default those of the arguments.
    damping : float, optional
        Without `expected`: added to the diagonal of every voxel's equations. If the squares of the maps
        sum to 1, it is the variance of the noise divided by that of the image. If it is above 0, maps
        may be 0 in all coils.
    threads : int, optional

    Returns
    -------
    ndarray of complex64, ``(x, y, z, ...)``, of sets of maps ``(x, y, z, set, ...)``
        Unfolded image, scaled like the image of a fully sampled scan.

    Notes
    -----
    The weight in the kernel depends on the intensity of its input. This intensity is divided out, so that
    a part of a scan gets the weight of the whole.

    References
    ----------
    K. P. Pruessmann et al., "SENSE: sensitivity encoding for fast MRI", Magn. Reson. Med. 42:952
    (1999).
    """
    full = (folded.shape[0], *(lattice.full for lattice in lattices))
    weight = _weight(folded, maps, expected, strength, intensities, damping)
    if maps.ndim > 4:  # every set is judged by itself
        maps = maps[:, :, :, :, None]
        weight["mask"] = (maps != 0).any(3)
    image = sense_recon(
        folded,
        maps,
        psi=covariance,
        full_size=full,
        aliases=alias_offsets(lattices),
        threads=threads,
        **weight,
    )
    np.copyto(image, 0, where=~np.isfinite(image))  # aliases without any sensitivity
    image *= np.float32(np.sqrt(np.prod([float(lattice.reduction) for lattice in lattices])))
    return _restore_phase(image, lattices)


def _weight(folded, maps, expected, strength, intensities, damping):
    """Arguments of the kernel that switch on the regularisation, if it is used."""
    intensity = sa(folded)
    if not intensity > 0 or (expected is None and not damping > 0):
        return {}
    if expected is None:
        reference, expected = damping**0.5, np.ones(maps.shape[:3], np.float32, order="F")
    else:
        reference = reference_intensity(*(intensities or (intensity, sa(expected))), strength, folded.shape[3])
    # With the intensity as scale, the weight is the same for every part of a scan.
    return {"reg": expected, "ref": np.full((1, 1, 1), reference, np.float32), "scale": intensity}


def reference_intensity(whole, expected, strength, coils):
    """Intensity of the expected image in one coil, divided by that of the data, times the strength."""
    return strength * expected / whole / np.sqrt(coils)


def _restore_phase(image, lattices):
    """Remove the linear phase of lines with an offset from k = 0."""
    for axis, lattice in enumerate(lattices, 1):
        if lattice.offset:
            place = np.arange(lattice.full) - lattice.full // 2
            cycles = place * lattice.offset / (lattice.folded * lattice.step)
            phase = np.exp(2j * np.pi * cycles).astype(np.complex64)
            image *= phase.reshape((-1,) + (1,) * (image.ndim - axis - 1))
    return image


def homodyne_recon(
    kspace: ArrayLike,
    ranges: Sequence[tuple[int, int] | None],
    *,
    field: Sequence[int] | None = None,
    threads: int | None = None,
    axes: Sequence[int] = (0, 1, 2),
) -> NDArray[np.complex64]:
    """Image of partial-Fourier k-space along up to three axes.

    Parameters
    ----------
    kspace : ndarray of complex64, ``(x, y, z, ...)``
        Centred k-space, 0 where nothing was measured.
    ranges : sequence of 3 (tuple of two int, or None)
        First and last measured line of each axis from k = 0. Either side may be missing. The filter rejects
        a missing positive side, so the axis is mirrored, and the image is mirrored back.
    field : sequence of 3 int, optional
        Central extents of the image to keep.
    threads : int, optional
    axes : sequence of int, optional
        Axes that are not transformed yet; `ranges` of the others are None.

    Returns
    -------
    ndarray of complex64
        Real image, imaginary parts 0. Axes with less than 0.55 of the extent are zero-filled.

    References
    ----------
    D. C. Noll, D. G. Nishimura, A. Macovski, "Homodyne detection in magnetic resonance imaging",
    IEEE Trans. Med. Imaging 10:154 (1991).
    """
    image, low = homodyne_images(kspace, ranges, field=field, threads=threads, axes=axes)
    if low is None:
        return image
    return homodyne.multiply(image, low, inplace=True, threads=threads)


def homodyne_images(kspace, ranges, *, field=None, threads=None, axes=(0, 1, 2)):
    """The two images of homodyne: that of the weighted lines, and the low-resolution one with the phase to
    remove. The latter is None if no axis can be used. See `homodyne_recon`.
    """
    kspace = np.asanyarray(kspace)
    usable = usable_ranges(kspace.shape, ranges)
    field = tuple(field or kspace.shape[:3])
    if not any(usable):
        return _cut(to_image(kspace, axes, threads), field), None
    mirrored = [axis for axis, r in enumerate(usable) if r and sum(r) < 0]
    for axis in mirrored:
        usable[axis] = _mirror(usable[axis])
    data = flip(kspace, mirrored) if mirrored else kspace
    weighted, centre = homodyne.filter(
        np.asfortranarray(data), threads=threads, **dict(zip(("kx", "ky", "kz"), usable))
    )
    low = to_image(zero_pad(centre, kspace.shape[:3], threads=threads), axes, threads, True)
    image = to_image(weighted, axes, threads, True)
    if mirrored:
        low, image = flip(low, mirrored), flip(image, mirrored)
    low, image = _cut(low, field), _cut(image, field)
    low[low == 0] = 1  # no phase to remove
    return image, low


def _cut(image, field):
    return np.asfortranarray(image[tuple(central(n, m) for n, m in zip(image.shape, field))])


def _mirror(lines):
    return -lines[1], -lines[0]


def usable_ranges(shape, ranges):
    """The ranges that homodyne can use on a grid, clipped to it; None if too little was measured."""
    usable = []
    for n, lines in zip(shape, ranges):
        if lines is not None:
            reach = (n - 1) // 2  # line -N/2 of an even axis has no mirror image
            lines = max(lines[0], -reach), min(lines[1], reach)
            positive = lines if sum(lines) > 0 else _mirror(lines)
            if abs(sum(lines)) <= 1 or homodyne.calculate_filter(n, positive) is None:
                lines = None
        usable.append(lines)
    return usable


def combine(images, method="pcsos", threads=None):
    """Combine coil images.

    Parameters
    ----------
    images : ndarray of complex64, ``(x, y, z, coil, ...)``
    method : {"pcsos", "sos"}, optional
        Root sum of squares with the phase of the coils' weighted sum, or as a magnitude.
    threads : int, optional

    Returns
    -------
    ndarray of complex64 ("pcsos") or float32 ("sos"), ``(x, y, z, ...)``
    """
    if method == "sos":
        return sos(np.asfortranarray(images), threads=threads)
    if method != "pcsos":
        raise ValueError(f'combine: expected "pcsos" or "sos", got {method!r}')
    if images.shape[3] == 1:
        return np.asfortranarray(images[:, :, :, 0])
    return pcsos(np.asfortranarray(images), threads=threads)
