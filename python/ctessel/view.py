"""A page for NIfTI images of any program: pictures, facts from headers and sidecars, and a viewer."""

from pathlib import Path

import numpy as np

from . import files, methods, page, png
from .scan import printable
from .warp import opened, sidecar


def write(paths, output, command):
    """Write a page of images.

    Parameters
    ----------
    paths : sequence of path
        NIfTI files. Only the first echo and repetition are shown.
    output : path
        The page.
    command : str
        Command line, for the page.

    Raises
    ------
    ValueError
        A file is not an image, or the page cannot be written.
    """
    files.check_output(output)
    images = [_load(Path(path)) for path in paths]
    made = page.Page(f"Images: {', '.join(image.name for image in images)}")
    warnings = [f"{image.name}: {text}" for image in images for text in image.warnings]
    if warnings:
        made.section("Warnings", page.listed(warnings), kind="warnings")
    for number, image in enumerate(images):
        made.volume(image.name, image.values, image.affine, role="map" if number else "image")
    made.viewer()
    for image in images:
        made.section(
            image.name, page.figures(_figures(made, image)), page.table(image.facts()), *_warning_section(image)
        )
    made.section("Command", f"<pre>{page.escaped(command)}</pre>")
    with files.Staged() as staged:
        staged.path(output).write_text(made.text(), encoding="utf-8")
        staged.commit()


class _Image:
    def __init__(self, path, file, values):
        self.name, self._file = printable(path), file
        self.values, self.affine, self.sidecar = values, file.affine, sidecar(path)
        self.size = np.linalg.norm(file.affine[:3, :3], axis=0)

    @property
    def warnings(self):
        warnings = self.sidecar.get("Warnings")
        return warnings if isinstance(warnings, list) else []

    def facts(self):
        header = self._file.header
        return {
            "extents": " x ".join(map(str, self._file.shape)),
            "voxel": " x ".join(f"{n:.4g}" for n in self.size) + " mm",
            "type": str(header.get_data_dtype()),
            "codes of qform and sform": f"{int(header['qform_code'])} and {int(header['sform_code'])}",
            "first voxel": ", ".join(f"{n:.4g}" for n in self.affine[:3, 3]) + " mm (right, anterior, superior)",
            "description": bytes(header["descrip"]).rstrip(b"\0").decode(errors="replace"),
        }


def _load(path):
    file, values = opened(path, lambda file: (file, _first(file)))
    if values.dtype.kind not in "fiucb" or not values.size:
        raise ValueError(f"{path}: does not have one number for each voxel; name another image")
    values = np.abs(values) if values.dtype.kind == "c" else values
    values = np.nan_to_num(values.astype(np.float32), posinf=0, neginf=0)
    if not np.isfinite(file.affine).all() or np.linalg.det(file.affine[:3, :3]) == 0:
        raise ValueError(f"{path}: has voxels without a volume; its affine is unusable")
    return _Image(path, file, values.reshape(values.shape + (1,) * (3 - values.ndim)))


def _first(file):
    """The first volume."""
    return np.asanyarray(file.dataobj[(..., *[0] * max(0, len(file.shape) - 3))])


def _figures(made, image):
    values, (dx, dy, dz) = image.values, image.size
    low, high = min(0.0, float(values.min())), png.usual_top(values)

    def picture(plane, sizes, name, caption):
        field = [n * size for n, size in zip(plane.shape, sizes)]
        shown = png.grey(png.fitted(png.square(plane, field)), low, high)
        return made.figure(shown, f"{image.name}, {name}", caption)

    nx, ny, nz = (n // 2 for n in values.shape)
    yield picture(
        png.mosaic(values), (dx, dy), "planes along the third axis", "Planes along the third axis, at most 36."
    )
    yield picture(values[:, :, nz], (dx, dy), f"plane {nz} of the third axis", f"Plane {nz} of the third axis.")
    if min(values.shape) > 1:
        yield picture(
            values[:, ny, ::-1], (dx, dz), f"plane {ny} of the second axis", f"Plane {ny} of the second axis."
        )
        yield picture(values[nx, :, ::-1], (dy, dz), f"plane {nx} of the first axis", f"Plane {nx} of the first axis.")
    yield page.histogram(values[values != 0], f"Histogram of {image.name}", "Values of the voxels that are not 0.")


def _warning_section(image):
    steps = image.sidecar.get("Steps")
    if isinstance(steps, list):
        yield "<h3>What was done</h3>" + page.listed([methods.reason(str(step)) for step in steps], "ol")
    others = {name: value for name, value in image.sidecar.items() if name not in ("Steps", "Warnings")}
    if others:
        yield "<h3>Sidecar</h3>" + page.table(others)
