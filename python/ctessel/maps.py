"""Sensitivity maps in files: BART pairs, NIfTI, MATLAB, and HDF5 with an array `maps`."""

import os
from functools import lru_cache
from pathlib import Path

import numpy as np

from . import formats, nifti, stored
from .acquisitions import DefectError
from .scan import times_text

__all__ = ["read"]


def read(path, shape, slices=None):
    """Sensitivity maps for a scan.

    Parameters
    ----------
    path : str or path
        A BART pair; a NIfTI file; a MATLAB file with a variable `maps`; HDF5 with an array `maps`,
        (x, y, z, coil, 1).
    shape : sequence of int
        Extents of the scan's k-space by `ctessel.scan.AXES`: where its slices are, and how many coils.
    slices : sequence of int, optional
        Numbers of its slices in the whole scan; maps of the whole scan are accepted too.

    Returns
    -------
    ndarray of complex64, ``(x, y, z, coil, slice)``, of a pair with several sets ``(x, y, z, coil, slice, set)``
        As the file has them, image domain; x and y may have any extents.

    Raises
    ------
    ValueError
        The file cannot be read, or has maps of another scan. One line.
    """
    path, coils = os.fspath(path), shape[3]
    try:
        data, named = _load(path)
        maps = data if named else _unnamed(data, coils)
        if shape[2] == 1 and maps.shape[4] == 1:  # the z axis of the file holds slices
            maps = maps.swapaxes(2, 4)
        if slices and maps.shape[4] != shape[4] and maps.shape[4] > max(slices):
            maps = maps[:, :, :, :, list(slices)]
        if maps.shape[3:5] != tuple(shape[3:5]) or (shape[2] == 1) != (maps.shape[2] == 1):
            raise DefectError(
                f"its maps, {times_text(data.shape)}, are not of {coils} coils and {shape[4]} slices",
                "use maps of this scan",
            )
        maps = stored.plain(maps).astype(np.complex64)
        if not np.isfinite(maps).all():
            raise DefectError("its maps are not finite", "make them again")
    except DefectError as error:
        raise ValueError(f"{path}: {error}") from None
    return np.asfortranarray(maps)


def _load(path):
    """The array of a file, and whether its axes are x, y, z, coil and slice."""
    base = formats.pair_base(path)
    if base is not None:
        return _of_pair(base), True
    if path.endswith((".nii", ".nii.gz")):
        return _of_nifti(path), False
    return formats.load(path, "maps")


def _of_pair(base):
    dims = formats.read_dimensions(base)
    if dims[4] > 2:
        raise DefectError(f"has {dims[4]} sets of maps", "take the first two with bart extract 4 0 2")
    if max(n for axis, n in enumerate(dims) if axis not in (0, 1, 2, 3, 4, 13)) > 1:
        raise DefectError(f"its maps, {times_text(dims)}, have other axes than k-space, coils and slices", "choose one")
    if dims[4] == 1:
        return formats.read_pair(base, [*dims[:4], dims[13]], dims)
    return np.moveaxis(formats.read_pair(base, [*dims[:5], dims[13]], dims), 4, 5)


def _of_nifti(path):
    import nibabel

    try:
        return np.asanyarray(nibabel.load(path).dataobj)
    except (OSError, EOFError, ValueError, nibabel.filebasedimages.ImageFileError) as error:
        raise DefectError(f"cannot be read ({' '.join(str(error).split())[:100]})", "write it again") from None


def _unnamed(data, coils):
    """The axes x, y, z, coil and slice of an array of which coils are one axis; what is z may be slices."""
    data = data.reshape([n for axis, n in enumerate(data.shape) if n > 1 or axis < 2])
    at = [axis for axis in range(2, data.ndim) if data.shape[axis] == coils]
    if coils > 1 and not at:
        raise DefectError(f"its maps, {times_text(data.shape)}, have no axis of {coils} coils", "use maps of this scan")
    data = np.moveaxis(data, at[-1], -1) if coils > 1 else data[..., None]
    data = data if data.ndim == 4 else data[:, :, None]
    if data.ndim != 4:
        raise DefectError(f"its maps have {data.ndim} axes; expected x, y, z or slices, and coils", "choose some")
    return data[..., None]


@lru_cache(1)
def _held(path, shape, slices):
    return read(path, shape, slices)


def of_slice(plan, index):
    """Sensitivities of a slice, ``(x, y, z, coil[, set])``, of the file that a plan names; the squares of the
    coils that are used sum to 1, or to 0. A process reads the file once.
    """
    held = _held(os.fspath(plan.options.maps), tuple(plan.measured_shape), plan.slices)[:, :, :, :, index]
    maps = np.array(plan.coils_of(held), order="F")
    size = np.sqrt((np.abs(maps) ** 2).sum(3))
    off = (size > 0) & (np.abs(size - 1) > 1e-3)  # maps by `write` keep their bits
    np.moveaxis(maps, 3, -1)[off] /= size[off][:, None]
    return maps


def check(path, shape, full, slices=None):
    """Raise an error unless sensitivities are on the unfolded grid `full`, ``(x, y, z)``."""
    found = _held(os.fspath(path), tuple(shape), slices).shape[:3]
    if found != tuple(full):
        raise ValueError(
            f"{path}: its maps have {times_text(found)} voxels, the grid that is unfolded has "
            f"{times_text(full)}; make them on that grid"
        )


def file_name(text):
    """The name of a file to write; ValueError unless its ending is one of the two kinds."""
    if not text.endswith((".cfl", ".nii", ".nii.gz")):
        raise ValueError(f"{text}: expected a name that ends in .cfl, .nii or .nii.gz")
    return Path(text)


def files_of(path):
    """The files that `write` makes."""
    return [path, path.with_suffix(".hdr")] if path.suffix == ".cfl" else [path]


def write(paths, maps):
    """Write sensitivities, ``(x, y, z, coil, slice[, set])``, to the names of `files_of`."""
    if len(paths) == 1:
        import nibabel

        return nifti.store(nibabel.Nifti1Image(maps, np.eye(4)), paths[0])
    sets = np.moveaxis(maps.reshape((*maps.shape[:5], -1)), 5, 4)
    dims = [*sets.shape[:5], *[1] * 8, sets.shape[5], 1, 1]
    np.asarray(sets, "<c8").ravel("F").tofile(paths[0])
    paths[1].write_text("# Dimensions\n" + " ".join(map(str, dims)) + "\n")


def together(parts):
    """Sensitivities of slices, ``(x, y, z, coil, slice[, set])``, one behind the other: those of one set have
    zeros where others have a second one."""
    parts = [part.reshape((*part.shape[:5], -1)) for part in parts]
    most = max(part.shape[5] for part in parts)
    filled = [np.pad(part, [(0, 0)] * 5 + [(0, most - part.shape[5])]) for part in parts]
    whole = np.asfortranarray(np.concatenate(filled, 4))
    return whole if most > 1 else whole[..., 0]
