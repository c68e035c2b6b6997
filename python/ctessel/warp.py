"""The correction for non-linear gradients, as a warp for images with a position in the scanner.

World coordinates are those of NIfTI (right, anterior, superior; mm) with the origin at the isocentre.
Everything is in the image domain. docs/geometry.md derives signs and axes.
"""

import itertools
import json
import zlib
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from scipy import ndimage

from . import _core, nifti, runtime
from .files import Staged, check_output
from .scan import printable
from .gradients import Coefficients

__all__ = [
    "Correction", "Grid", "geometry", "save_warp", "scan_grid", "scanner_grid", "unwarp", "unwarp_file",
    "voxel_positions",
]  # fmt: skip

#: The part of the displacement that a mode corrects: all, in the plane of the slices, across them.
MODES = {"3d": 3, "2d": 2, "through-plane": 1, "none": 0}
TYPES = ("itk", "fsl", "fsl-abs", "ras")
#: Orders of splines.
ORDERS = {"cubic": 3, "linear": 1}
_RAS = np.array([-1.0, -1.0, 1.0])  # along left, posterior, superior
_SLAB = 1 << 18  # voxels that are processed at a time
_STEPS = 200  # of an iteration


@dataclass(frozen=True)
class Grid:
    """Voxels in the world: voxel (i, j, k) lies at ``affine @ (i, j, k, 1)``."""

    affine: np.ndarray
    shape: tuple

    @property
    def normal(self):
        """Unit vector across the planes of the first two axes, in the world."""
        across = np.cross(self.affine[:3, 0], self.affine[:3, 1])
        return across / np.linalg.norm(across)

    @property
    def reach(self):
        """Distance of the farthest voxel from the isocentre in mm."""
        corners = itertools.product(*((0, n - 1) for n in self.shape))
        return max(np.linalg.norm(self.affine[:3] @ (*corner, 1)) for corner in corners)

    def slab(self, first, last):
        """Slices first to last - 1."""
        affine = self.affine.copy()
        affine[:3, 3] += first * affine[:3, 2]
        return Grid(affine, (*self.shape[:2], last - first))

    def slabs(self):
        """Ranges of slices that are processed at a time."""
        step = max(1, _SLAB // max(1, self.shape[0] * self.shape[1]))
        return [(k, min(k + step, self.shape[2])) for k in range(0, self.shape[2], step)]


def scanner_grid(extent, spacing):
    """Grid over at least a cube around the isocentre, along the axes of the world; mm."""
    count = 2 * int(np.ceil(extent / (2 * spacing) - 1e-9)) + 1
    affine = np.diag([spacing, spacing, spacing, 1.0])
    affine[:3, 3] = -spacing * (count // 2)
    return Grid(affine, (count,) * 3)


def scan_grid(placements, matrix, field):
    """Grid of a slab, or of parallel slices one after the other.

    Parameters
    ----------
    placements : sequence of Placement
        One for each slice.
    matrix : sequence of 3 int
        Voxels of one slice or slab; the voxel ``n // 2`` of each axis is at its placement.
    field : sequence of 3 float
        Its field of view in mm.

    Raises
    ------
    ValueError
        The slices are not parallel, or unevenly spaced.
    """
    shape = (*matrix[:2], matrix[2] * len(placements))
    return Grid(nifti.placed(placements, matrix, field), shape)


def voxel_positions(shape, placement, field):
    """Patient coordinates of all voxels.

    Parameters
    ----------
    shape, placement, field
        See `geometry`.

    Returns
    -------
    ndarray of float64, ``(3, x, y, z)``
        Left, posterior, superior, in mm from the isocentre.
    """
    grid = scan_grid([placement], shape[:3], field)
    return np.moveaxis(_voxels(grid.affine[:3], grid.shape) * _RAS, -1, 0)


def geometry(
    image,
    placement,
    field,
    coefficients,
    *,
    position="HFS",
    dims=3,
    order=3,
    intensity=True,
    threads=None,
):
    """Correct the distortion of non-linear gradients.

    Parameters
    ----------
    image : ndarray of complex64 or float32, ``(x, y, z, ...)``
        One slice or slab; real and imaginary parts are interpolated in the same way.
    placement : Placement, or sequence of them
        Its centre and axes; several placements are those of parallel slices along z.
    field : sequence of 3 float
        Field of view of a slice or of the slab, in mm.
    coefficients : Coefficients
    position : {"HFS", "HFP", "FFS", "FFP"}, optional
        Patient position.
    dims : {3, 2, 1}, optional
        All of the displacement, its part in the plane of the slices, or its part across them.
    order : {1, 3}, optional
        Order of the spline between voxels.
    intensity : bool, optional
        Multiply by the determinant of ``d encoded / d position``: voxels that were encoded closer to each
        other have more signal.
    threads : int, optional

    Returns
    -------
    ndarray
        In the shape and type of `image`; 0 where the object was encoded outside the image. A single
        slice is sampled within its plane only.
    """
    placements = placement if isinstance(placement, (list, tuple)) else [placement]
    matrix = (*image.shape[:2], image.shape[2] // len(placements))
    return unwarp(
        image,
        scan_grid(placements, matrix, field),
        Correction(coefficients, position, dims),
        intensity=intensity,
        interpolation="cubic" if order == 3 else "linear",
        threads=threads,
    )


@dataclass(frozen=True)
class Correction:
    """A displacement field in world coordinates.

    Attributes
    ----------
    coefficients : Coefficients
    position : {"HFS", "HFP", "FFS", "FFP"}
        Patient position.
    dims : {3, 2, 1}
        All of the displacement, its part in the plane of the slices, or its part across them.
    distort : bool
        False: from true to encoded positions; sampling an image there corrects its distortion. True: the
        inverse.
    """

    coefficients: Coefficients
    position: str = "HFS"
    dims: int = 3
    distort: bool = False

    def evaluate(self, grid, wanted, threads=None):
        """Results for the displacement of a grid's voxels.

        Parameters
        ----------
        grid : Grid
        wanted : sequence of {"displacement", "determinant", "jacobian"}
            The determinant of ``d encoded / d position`` is the factor of the intensity (its reciprocal for
            the inverse). The Jacobian is that of all three dimensions.
        threads : int, optional

        Returns
        -------
        list of ndarray of float64
            ``(x, y, z, 3)`` in mm, ``(x, y, z)``, ``(x, y, z, 3, 3)``, along the axes of the world;
            NaN where the inverse does not converge.
        """
        signs = self.coefficients.signs(self.position) * _RAS
        at = {"affine": signs[:, None] * grid.affine[:3], "shape": grid.shape}
        moved = None
        if self.distort:
            start = _voxels(at["affine"], grid.shape)
            moved = self._points(at, start, signs * grid.normal, threads) - start
            at = {"points": start + moved}
        names = set(wanted)
        if self.dims < 3 and "determinant" in names:
            names.add("jacobian")
        found = self._found(at, names, signs, threads)
        along = found.get("displacement")
        if moved is not None:
            along = signs * moved
        elif self.dims < 3 and along is not None:
            along = _projected(along, grid.normal, self.dims)
        if "determinant" in wanted and self.dims < 3:
            found["determinant"] = _partial_determinant(found["jacobian"], grid, self.dims)
        results = {"displacement": along, "jacobian": found.get("jacobian")}
        if "determinant" in wanted:
            size = np.abs(found["determinant"])
            results["determinant"] = 1 / size if self.distort else size
        return [results[name] for name in wanted]

    def _found(self, at, names, signs, threads):
        names = sorted(names)
        found = dict(
            zip(
                names,
                self.coefficients.field.evaluate(names, threads=threads, **at),
                strict=True,
            )
        )
        if "displacement" in found:
            found["displacement"] *= signs
        if "jacobian" in found:
            found["jacobian"] *= signs[:, None] * signs
        return found

    def _points(self, at, start, normal, threads):
        """Points, along the gradients' axes, that the part in `dims` moves to the points of the grid."""
        field = self.coefficients.field
        if self.dims == 3:
            return field.inverse(threads=threads, **at)[0]
        points = start.copy()
        for _ in range(_STEPS):
            moved = _projected(field.displacement(points, threads=threads), normal, self.dims)
            step = start - moved - points
            left = ~(np.abs(step).max(-1) <= 1e-9 * field.radius)
            points += step
            if not left.any():
                return points
        points[left] = np.nan
        return points


def _voxels(affine, shape):
    index = np.moveaxis(np.indices(shape, dtype=float), 0, -1)
    return index @ affine[:, :3].T + affine[:, 3]


def _projected(vectors, normal, dims):
    across = (vectors @ normal)[..., None] * normal
    return vectors - across if dims == 2 else across


def _partial_determinant(jacobian, grid, dims):
    """Determinant of the map that moves points only by the part in or across the plane."""
    n = grid.normal
    if dims == 1:
        return np.einsum("...ab,a,b", jacobian, n, n)
    u = grid.affine[:3, 0] / np.linalg.norm(grid.affine[:3, 0])
    v = np.cross(n, u)
    uu, uv, vu, vv = (np.einsum("...ab,a,b", jacobian, p, q) for p, q in itertools.product((u, v), repeat=2))
    return uu * vv - uv * vu


# ---- Images --------------------------------------------------------------------------------------


def unwarp(volumes, grid, correction, *, intensity=True, interpolation="cubic", threads=None, progress=None):
    """Images with voxels at the true positions of their signal.

    Parameters
    ----------
    volumes : ndarray of float32 or complex64, ``(x, y, z, ...)``
        Any number of volumes on the same grid.
    grid : Grid
    correction : Correction
        With any `dims`; with `distort`, the images are distorted instead.
    intensity : bool, optional
        Multiply by the determinant of ``d encoded / d position``: voxels that were encoded closer to each
        other have more signal.
    interpolation : {"cubic", "linear", "sinc"}, optional
        Splines, or a windowed sinc over six voxels along each axis, which takes several times as long.
    threads : int, optional
    progress : callable, optional
        Called with the number of finished steps and the number of all.

    Returns
    -------
    ndarray
        In the shape and type of `volumes`; 0 where an object was encoded more than half a voxel outside
        of the image. Along axes of one voxel nothing is sampled.
    """
    threads = threads or _core.max_threads()
    series = volumes.reshape(*grid.shape, -1, order="F")
    out = np.zeros(series.shape, series.dtype, order="F")
    parts = 2 if np.iscomplexobj(series) else 1
    steps = len(grid.slabs()) + parts * series.shape[3] * len(_pieces(grid.shape[2]))
    with ThreadPoolExecutor(threads) as pool:
        workers = _Workers(pool, steps, progress)
        places, factor = _places(grid, correction, intensity, workers)
        for n in range(series.shape[3]):
            sampled = _sampled(series[..., n].T, places, interpolation, workers)
            out[..., n] = (sampled if factor is None else sampled * factor).T
    return out.reshape(volumes.shape, order="F")


class _Workers:
    """Threads that report their progress."""

    def __init__(self, pool, steps, progress):
        self.pool, self._steps, self._progress, self._done = pool, steps, progress, 0

    def run(self, work, pieces):
        for _ in self.pool.map(work, pieces):
            self._done += 1
            if self._progress:
                self._progress(self._done, self._steps)


def _places(grid, correction, intensity, workers):
    """Sampling positions in voxels, ``(3, z, y, x)`` along z, y, x; and the factors ``(z, y, x)``."""
    to_voxels = np.linalg.inv(grid.affine[:3, :3])[::-1]
    backwards = grid.shape[::-1]
    places = np.empty((3, *backwards), np.float32)
    factor = np.empty(backwards, np.float32) if intensity else None
    wanted = ["displacement", "determinant"] if intensity else ["displacement"]

    def work(first, last):
        found = correction.evaluate(grid.slab(first, last), wanted, threads=1)
        moved = np.moveaxis(found[0], (2, 1, 0), (0, 1, 2))  # in its memory order
        for axis in range(3):
            # Added to the index, so that a voxel without displacement keeps its position to the last bit.
            index = np.arange(first, last) if axis == 0 else np.arange(backwards[axis])
            along = index.reshape([-1 if d == axis else 1 for d in range(3)])
            np.add(moved @ to_voxels[axis], along, out=places[axis, first:last], casting="unsafe")
        if intensity:
            factor[first:last] = found[1].T

    workers.run(lambda slab: work(*slab), grid.slabs())
    return places, factor


def _sampled(volume, places, interpolation, workers):
    if np.iscomplexobj(volume):
        parts = (_sampled(p, places, interpolation, workers) for p in (volume.real, volume.imag))
        return next(parts) + 1j * next(parts)
    axes = [d for d in range(3) if volume.shape[d] > 1]
    flat = np.ascontiguousarray(np.squeeze(volume, tuple({0, 1, 2} - set(axes))), np.float32)
    if interpolation == "cubic":
        flat = _spline_weights(flat, workers.pool)
    out = np.empty(volume.shape, np.float32)

    def work(part):
        at = [places[d][part] for d in axes]
        inside = np.ones(out[part].shape, bool)
        for place, d in zip(at, axes, strict=True):
            inside &= (place >= -0.5) & (place <= volume.shape[d] - 0.5)
        at = np.where(inside, at, 0)
        if interpolation == "sinc":
            sampled = _windowed_sinc(flat, at)
        else:
            order = ORDERS[interpolation]
            sampled = ndimage.map_coordinates(flat, at, np.float32, order, "mirror", prefilter=False)
        out[part] = np.where(inside, sampled, 0)

    workers.run(work, _pieces(volume.shape[0]))
    return out


def _windowed_sinc(data, at):
    """Six samples along each axis, weighted with a sinc under the main lobe of a wider one (Lanczos).

    Duchon, "Lanczos filtering in one and two dimensions", J. Appl. Meteor. 18:1016 (1979).
    """
    taps = []
    for place, n in zip(at, data.shape, strict=True):
        first = np.floor(place).astype(np.intp) - 2
        near = [first + k for k in range(6)]
        weights = [np.sinc(place - k) * np.sinc((place - k) / 3) for k in near]
        total = sum(weights)
        taps.append([(np.clip(k, 0, n - 1), w / total) for k, w in zip(near, weights, strict=True)])
    return _weighted(data.ravel(), 0, data.shape, taps)


def _weighted(data, row, shape, taps):
    if not taps:
        return data[row]
    row = row * shape[0]
    return sum(w * _weighted(data, row + k, shape[1:], taps[1:]) for k, w in taps[0])


def _pieces(count):
    """Slices along the first axis, for threads to take one after the other."""
    step = -(-count // 32)
    return [slice(k, k + step) for k in range(0, count, step)]


def _spline_weights(data, pool):
    """The prefilter of the spline, one axis after the other; threads share the lines."""
    out = np.array(data, np.float32, order="C")
    if out.ndim == 1:
        return ndimage.spline_filter(out, 3, np.float32, "mirror")
    for axis in range(out.ndim):
        shared = 1 if axis == 0 else 0

        def work(part, axis=axis, shared=shared):
            lines = out[(slice(None),) * shared + (part,)]
            ndimage.spline_filter1d(lines, 3, axis, lines, "mirror")

        list(pool.map(work, _pieces(out.shape[shared])))
    return out


# ---- Files ---------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Image:
    """An image of a NIfTI file, and its sidecar."""

    path: Path
    file: object
    grid: Grid
    sidecar: dict


def load(path):
    """An image with a position in the scanner; ValueError with one line for others."""
    path = Path(path)
    file = opened(path)
    header, shape = file.header, file.shape
    if not (header["sform_code"] > 0 or header["qform_code"] > 0):
        raise ValueError(f"{path}: has no position in the scanner (codes of sform and qform are 0)")
    size = abs(np.linalg.det(file.affine[:3, :3])) if np.isfinite(file.affine).all() else 0
    if not (size > 0 and len(shape) >= 3 and min(shape) > 0):
        raise ValueError(f"{path}: has voxels without a volume; its affine or extents are unusable")
    return Image(path, file, Grid(file.affine.astype(float), shape[:3]), sidecar(path))


def opened(path, read=lambda file: file):
    """The result of `read` for a NIfTI file; ValueError with one line if it cannot be read."""
    import nibabel

    nifti.base_name(path)
    try:
        return read(nibabel.load(path))
    except FileNotFoundError:
        raise ValueError(f"{path}: no such file; check the name") from None
    except (nibabel.filebasedimages.ImageFileError, *_BROKEN) as error:
        raise ValueError(f"{path}: cannot be read ({error}); is it a NIfTI image?") from None


_BROKEN = (EOFError, OSError, zlib.error)


def sidecar(path):
    beside = nifti.sidecar_path(path)
    if not beside.exists():
        return {}
    try:
        found = json.loads(beside.read_text())
    except ValueError as error:
        raise ValueError(f"{beside}: cannot be read ({error}); fix or remove it") from None
    if not isinstance(found, dict):
        raise ValueError(f"{beside}: has no keys and values; fix or remove it")
    return found


def _data(image):
    """Samples as float32, or complex64."""
    kind = np.complex64 if image.file.get_data_dtype().kind == "c" else np.float32
    try:
        return np.asarray(image.file.dataobj).astype(kind, copy=False)
    except (*_BROKEN, ValueError, TypeError) as error:
        raise ValueError(f"{image.path}: cannot be read ({error}); copy it again") from None


def patient_position(image, position=None):
    """Patient position: as stated, or from the sidecar."""
    position = position or image.sidecar.get("PatientPosition")
    if position is None:
        beside = nifti.sidecar_path(image.path).name
        raise ValueError(f"{image.path}: {beside} has no PatientPosition; state it with --position, for example HFS")
    return position


def _mode(image):
    """The correction that is left by the sidecar, and a warning if it does not say."""
    kinds = image.sidecar.get("ImageType", ())
    kinds = kinds.split("\\") if isinstance(kinds, str) else kinds
    corrected = image.sidecar.get("NonlinearGradientCorrection")
    if "GradientCorrection" in image.sidecar or "DIS3D" in kinds:
        return "none", f"{image.path}: was corrected before; it is copied as it is"
    if "DIS2D" in kinds:
        return "through-plane", None
    if corrected:
        return "none", f"{image.path}: was corrected on the scanner; it is copied as it is"
    if "ND" in kinds or corrected is not None:
        return "3d", None
    return "3d", (
        f"{image.path}: no sidecar says whether the scanner corrected it; all is corrected, "
        "unless --mode states otherwise"
    )


def warnings_of(grid, coefficients, name):
    """Warnings about a correction, one line each."""
    found = []
    if grid.reach > coefficients.radius:
        found.append(
            f"{name}: reaches {grid.reach:.0f} mm from the isocentre, but the coefficients are meant "
            f"for up to {coefficients.radius:g} mm"
        )
    if not coefficients.stated and not coefficients.symmetric:
        found.append(
            f"the coefficients' even orders depend on where the axes of the gradients point; "
            f"{coefficients.axes} is assumed; state it with --axes"
        )
    return found


def unwarp_file(
    path,
    coefficients,
    output,
    *,
    source="",
    mode="auto",
    position=None,
    intensity=True,
    interpolation="cubic",
    threads=None,
    progress=None,
):
    """Correct a NIfTI image; the JSON file beside it has the keys of the input's sidecar and what was done.

    Parameters
    ----------
    path, output : path
    coefficients : Coefficients
    source : str, optional
        Name of the coefficients' file, for the sidecar.
    mode : {"auto", "3d", "2d", "through-plane", "none"}, optional
        "auto" corrects what the scanner did not correct, by the sidecar.
    position : str, optional
        Patient position, instead of that of the sidecar.
    intensity, interpolation, threads, progress
        See `unwarp`.

    Returns
    -------
    list of str
        Warnings, a line each.
    """
    check_output(output)
    image, warnings = load(path), []
    if mode == "auto":
        mode, warning = _mode(image)
        warnings += [warning] if warning else []
    data, entries = _data(image), {**image.sidecar}
    if mode != "none":
        correction = Correction(coefficients, patient_position(image, position), MODES[mode])
        warnings += _check_image(image, correction)
        how = {"intensity": intensity, "interpolation": interpolation}
        data = unwarp(data, image.grid, correction, threads=threads, progress=progress, **how)
        entries |= _corrected_entries(correction, mode, source, how)
    if warnings:
        entries["Warnings"] = [*image.sidecar.get("Warnings", []), *warnings]
    _write(output, data, image, entries)
    return warnings


def _check_image(image, correction):
    """Raises an error if the correction is impossible; returns warnings otherwise."""
    coefficients, shape = correction.coefficients, image.grid.shape
    coefficients.signs(correction.position)
    needed = 8 * np.prod(image.file.shape, dtype=float) + 28 * np.prod(shape, dtype=float)
    runtime.check(needed, str(image.path), "correct the volumes of a series one by one")
    warnings = warnings_of(image.grid, coefficients, image.path)
    if min(shape) == 1:
        warnings.append(f"{image.path}: a single slice is sampled only within its plane")
    return warnings


def _corrected_entries(correction, mode, source, how):
    """The sidecar of a corrected image."""
    return {
        "NonlinearGradientCorrection": True,
        "GradientCorrection": {"Mode": mode, **_field_entries(correction, source)}
        | {name.capitalize(): value for name, value in how.items()},
    }


def _field_entries(correction, source):
    return {
        "Coefficients": printable(source),
        "PatientPosition": correction.position,
        "GradientAxes": correction.coefficients.axes,
    }


def _write(output, data, image, entries):
    header = image.file.header.copy()
    header.set_data_dtype(data.dtype)
    header.set_slope_inter(None, None)
    header["cal_min"] = header["cal_max"] = 0
    with Staged() as staged:
        nifti.store(type(image.file)(data, image.file.affine, header), staged.path(output))
        _write_entries(staged, output, entries)
        staged.commit()


def save_warp(output, grid, correction, *, kind="itk", jacobian=None, grad_dev=None, source="", threads=None):
    """Write a displacement field for tools that apply warps.

    Parameters
    ----------
    output : path
    grid : Grid
        Of the image that the warp is for.
    correction : Correction
    kind : {"itk", "fsl", "fsl-abs", "ras"}, optional
        "itk": displacement in mm, left, posterior, superior, ``(x, y, z, 1, 3)``. "fsl": displacement
        in mm along the voxels' axes, x reversed if the affine's determinant is positive. "fsl-abs": the
        position itself in these coordinates. "ras": the position in world coordinates, mm.
    jacobian : path, optional
        Also a file of the determinant of ``d encoded / d position``, for the intensity.
    grad_dev : path, optional
        Also a file of the Jacobian minus identity, ``(x, y, z, 9)``: volume 3 a + b, counted from 0, is
        ``d encoded_a / d position_b`` along the axes of b-vectors: those of the voxels, x reversed if
        the affine's determinant is positive.
    source : str, optional
        Name of the coefficients' file, for the sidecar.
    threads : int, optional

    Returns
    -------
    list of str
        Warnings, a line each.
    """
    files = {"displacement": output, "determinant": jacobian, "jacobian": grad_dev}
    files = {name: path for name, path in files.items() if path}
    for path in files.values():
        check_output(path)
    if len({*map(str, files.values())}) < len(files):
        raise ValueError(f"{output}: is named for two files; give each its own name")
    values = _warp_values(grid, correction, kind, tuple(files), threads)
    warnings = warnings_of(grid, correction.coefficients, "the field")
    if lost := int(np.isnan(values["displacement"][..., 0]).sum()):
        warnings.append(f"{lost} voxels have no position: the inverse does not converge there (NaN)")
    entries = {
        "WarpType": kind,
        "Direction": "distort" if correction.distort else "unwarp",
        "Dimensions": correction.dims,
        **_field_entries(correction, source),
    }
    if warnings:
        entries["Warnings"] = warnings
    with Staged() as staged:
        for name, path in files.items():
            vectors = name == "displacement" and kind == "itk"
            nifti.store(_image(values[name], grid, vectors), staged.path(path))
        _write_entries(staged, output, entries)
        staged.commit()
    return warnings


def _warp_values(grid, correction, kind, wanted, threads):
    """Values of the files, slab by slab."""
    sizes = {"displacement": (3,), "determinant": (), "jacobian": (9,)}
    values = {name: np.empty((*grid.shape, *sizes[name]), np.float32, order="F") for name in wanted}
    for first, last in grid.slabs():
        slab = grid.slab(first, last)
        found = dict(zip(wanted, correction.evaluate(slab, wanted, threads), strict=True))
        found["displacement"] = _converted(found["displacement"], slab, grid, first, kind)
        if "jacobian" in wanted:
            found["jacobian"] = _deviation(found["jacobian"], grid)
        for name in wanted:
            values[name][:, :, first:last] = found[name]
    return values


def _write_entries(staged, output, entries):
    text = json.dumps(entries, indent=2) + "\n"
    staged.path(nifti.sidecar_path(output)).write_text(text)


def _image(values, grid, vectors):
    import nibabel

    image = nibabel.Nifti1Image(values[:, :, :, None] if vectors else values, grid.affine)
    if vectors:
        image.header.set_intent("vector")
    nifti.place(image, grid.affine)
    return image


def _converted(moved, slab, grid, first, kind):
    """Displacements along world axes in the convention of a kind of warp."""
    if kind == "itk":
        return moved * _RAS
    if kind == "ras":
        return moved + _voxels(slab.affine[:3], slab.shape)
    along, sizes = _image_axes(grid)
    steps = moved @ np.linalg.inv(grid.affine[:3, :3]).T * sizes * along
    if kind == "fsl":
        return steps
    corner = np.array([grid.shape[0] - 1 if along[0] < 0 else 0, 0, -first])
    return steps + (np.moveaxis(np.indices(slab.shape), 0, -1) - corner) * sizes * along


def _image_axes(grid):
    """Signs of the axes that b-vectors and FSL's coordinates have, and the sizes of voxels."""
    along = np.array([-1.0 if np.linalg.det(grid.affine[:3, :3]) > 0 else 1.0, 1.0, 1.0])
    return along, np.linalg.norm(grid.affine[:3, :3], axis=0)


def _deviation(jacobian, grid):
    along, sizes = _image_axes(grid)
    axes = grid.affine[:3, :3] / sizes * along
    deviation = np.linalg.inv(axes) @ (jacobian - np.eye(3)) @ axes
    return deviation.reshape(*jacobian.shape[:3], 9)
