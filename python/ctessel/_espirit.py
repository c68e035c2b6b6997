"""Sensitivity maps from calibration lines."""

from . import _core


def espirit(
    calibration,
    *,
    size,
    kernel=6,
    threshold=0.001,
    crop=0.8,
    sets=None,
    eigenvalue=False,
    threads=None,
):
    """Coil sensitivities from fully sampled k-space around its centre (ESPIRiT).

    Parameters
    ----------
    calibration : ndarray of complex64 or float32, ``(x, y, z, coil)``
        k-space without gaps, finite, at least one sample, k = 0 at ``n // 2`` of each axis.
    size : sequence of 3 int
        Extents of the maps, each at least 1, over the field of view of the calibration.
    kernel : int, optional
        Samples of the window that slides over the calibration, along each axis that has as many; at
        least 1.
    threshold : float, optional
        Eigenvalue of the calibration matrix from which on it is signal, of the largest one; above 0 and
        below 1.
    crop : float, optional
        Eigenvalue of a voxel, 1 at best, up to which it counts as outside of the object; from 0, which
        keeps all, to 1.
    sets : int, optional
        Sets of maps, 1 to the number of coils. A second one holds what the first does not explain, where
        the object folds onto itself: in fields of view that are smaller than it. By default one, without
        an axis.
    eigenvalue : bool, optional
        Also return the voxels' eigenvalues.
    threads : int, optional
        Threads of this call, 1 to 1024; they share the rows of the matrix and those of the maps.

    Returns
    -------
    maps : ndarray of complex64, ``(x, y, z, coil[, set])``
        In the image domain, Fortran order. The coils' squared magnitudes sum to 1, outside of the
        object to 0; sets are orthogonal to each other. An image that they unfold has the phase of the coils' sum weighted with their
        magnitudes, at the resolution of the calibration.
    eigenvalues : ndarray of float32, ``(x, y, z[, set])``
        If asked for.

    Raises
    ------
    ValueError
        Extents or parameters out of range.

    Notes
    -----
    The calibration matrix has ``(n - kernel + 1)`` rows along each axis and ``kernel`` columns along
    each axis for every coil. Time grows with rows times the square of the columns, memory with five
    times that square in double complex.

    References
    ----------
    M. Uecker et al., "ESPIRiT - an eigenvalue approach to autocalibrating parallel MRI", Magn.
    Reson. Med. 71:990 (2014).
    """
    maps, values = _core.espirit(calibration, size, kernel, threshold, crop, sets, threads)
    return (maps, values) if eigenvalue else maps
