"""NIfTI files: images, positions of voxels in the patient, and sidecars.

A placement uses ISMRMRD's patient axes (left, posterior, superior). NIfTI's axes point to right, anterior
and superior. Voxel (nx // 2, ny // 2), in 3-D also nz // 2, is at the position of the placement.
"""

import io
import json
import zlib
from pathlib import Path

import numpy as np

from .files import Staged

__all__ = ["affine", "merge", "sidecar_path", "write"]

#: Axis of the file's array for each axis of a scan; partitions of a slab use that of the slices.
FILE_AXES = {"slice": 2, "repetition": 3, "echo": 4}
_LPS_TO_RAS = np.diag([-1.0, -1.0, 1.0, 1.0])


def affine(header, shape, field):
    """Positions of the voxels of an image, as an affine matrix.

    Parameters
    ----------
    header : Header
        With the placement of each slice.
    shape : sequence of 4 int
        Voxels along x, y, z, and slices.
    field : sequence of 3 float
        Field of view in mm.

    Returns
    -------
    matrix : ndarray of float64, ``(4, 4)``
        From voxel indices to mm towards right, anterior and superior.
    known : bool
        Whether the file has positions; otherwise axial slices at the isocentre are assumed.

    Raises
    ------
    ValueError
        Slices are not parallel, or unevenly spaced; one matrix cannot describe them.
    """
    nx, ny, nz, slices = shape[:4]
    if nz > 1 and slices > 1:
        raise ValueError("several slabs do not fit into one file; reconstruct them one at a time, --range slice 0 0")
    size = np.array(field, float) / (nx, ny, nz)
    if len(header.placements) != slices:
        matrix = np.diag([*size, 1.0])
        matrix[:3, 3] = -size * (nx // 2, ny // 2, nz // 2)
        return _LPS_TO_RAS @ matrix, False
    return placed(header.placements, shape, field, header.spacing), True


def placed(placements, shape, field, spacing=0.0):
    """Affine of a slab, or of slices: from voxels to the patient's right, anterior and superior.

    `spacing` is the distance of a single slice to its neighbours, or 0 to use its thickness; see `affine`.
    """
    size = np.array(field, float) / shape[:3]
    columns = _in_patient(placements, size, spacing if shape[2] == 1 else 0)
    matrix = np.eye(4)
    matrix[:3, :3] = columns
    matrix[:3, 3] = placements[0].position - columns @ np.floor_divide(shape[:3], 2)
    return _LPS_TO_RAS @ matrix


def _in_patient(places, size, spacing):
    columns = np.stack([places[0].read, places[0].phase, places[0].slice], 1).astype(float) * size
    if len(places) > 1:
        columns[:, 2] = _step(places)
    elif spacing:
        columns[:, 2] *= spacing / size[2]
    return columns


def _step(places):
    """From one slice to the next."""
    positions = np.array([place.position for place in places], float)
    step = (positions[-1] - positions[0]) / (len(places) - 1)
    off = positions - (positions[0] + np.arange(len(places))[:, None] * step)
    angle = max(
        np.abs(getattr(p, name) - getattr(places[0], name)).max() for p in places for name in ("read", "phase", "slice")
    )
    if angle > 1e-3 or np.abs(off).max() >= 0.02 * np.linalg.norm(step):
        what = "not parallel" if angle > 1e-3 else "unevenly spaced"
        raise ValueError(
            f"slices are {what} and do not fit into one file; reconstruct them one at a time, " "--range slice 0 0"
        )
    return step


def write(path, volumes, matrix, known, repetition_time, sidecar, sidecar_file):
    """Write an image and its sidecar. The caller chooses the names, see `files.Staged`.

    Parameters
    ----------
    path : Path
        Ends in .nii or .nii.gz.
    volumes : ndarray
        ``(x, y, z, slice, echo, repetition)``, one slab or any number of slices.
    matrix, known
        What `affine` returns.
    repetition_time : float
        From one volume to the next in seconds; 0 if it is not known.
    sidecar : dict
        Goes to `sidecar_file`.
    """
    import nibabel

    x, y, z, slices, echoes, repetitions = volumes.shape
    data = np.swapaxes(volumes.reshape((x, y, z * slices, echoes, repetitions), order="F"), 3, 4)
    while data.ndim > 3 and data.shape[-1] == 1:
        data = data[..., 0]
    _save(nibabel.Nifti1Image(data, matrix), path, matrix, known, repetition_time)
    sidecar_file.write_text(json.dumps(sidecar, indent=2) + "\n")


def _save(image, path, matrix, known, repetition_time):
    place(image, matrix, known)
    image.header.set_xyzt_units("mm", "sec")
    image.header.set_dim_info(0, 1, 2)  # read, phase, slice
    image.header["pixdim"][4] = repetition_time
    store(image, path)


def place(image, matrix, known=True):
    """Set the affine of an image; if its axes are not perpendicular, only in the sform.

    `known` may also be NIfTI's code: 1 for scanner coordinates, 2 for aligned ones.
    """
    code = int(known)
    image.set_sform(matrix, code=code)
    axes = matrix[:3, :3] / np.linalg.norm(matrix[:3, :3], axis=0)
    upright = np.allclose(axes.T @ axes, np.eye(3), atol=1e-4)
    image.set_qform(matrix, code=code if upright else 0)


def store(image, path):
    """Write an image of nibabel, compressed if the name ends in .gz."""
    if path.suffix != ".gz":
        return image.to_filename(path)
    with open(path, "wb") as file, _Gzip(file) as packed:
        image.to_file_map({"image": type(image.file_map["image"])(fileobj=packed)})


class _Gzip(io.RawIOBase):
    """A gzip file that packs only runs of equal bytes.

    Images hold noise, with zeros around it. A search for other repetitions takes 2.4 times as long and
    saves less than a hundredth of the size.
    """

    def __init__(self, file):
        self._file, self._size = file, 0
        gzip = 16 + zlib.MAX_WBITS
        self._packer = zlib.compressobj(1, zlib.DEFLATED, gzip, zlib.DEF_MEM_LEVEL, zlib.Z_RLE)

    def writable(self):
        return True

    def tell(self):
        return self._size

    def seek(self, offset, whence=io.SEEK_SET):
        if whence != io.SEEK_SET or offset < self._size:
            raise io.UnsupportedOperation("what is packed stays")
        self.write(bytes(offset - self._size))
        return offset

    def write(self, data):
        data = memoryview(data)  # of items of any size
        self._file.write(self._packer.compress(data))
        self._size += data.nbytes
        return data.nbytes

    def close(self):
        if not self.closed:
            self._file.write(self._packer.flush())
        super().close()


def sidecar_path(path):
    """Name of the JSON file that belongs to an image: ``a.nii.gz`` has ``a.json``."""
    path = Path(path)
    return path.with_name(base_name(path) + ".json")


def base_name(path):
    """Name without folder and ending; ValueError unless the ending is that of NIfTI."""
    for ending in (".nii.gz", ".nii"):
        if Path(path).name.endswith(ending):
            return Path(path).name[: -len(ending)]
    raise ValueError(f"{path}: expected the name of a NIfTI file, ending in .nii or .nii.gz")


def merge(paths, output, gaps=False):
    """Join the parts of a scan that were reconstructed with ``--range``.

    Parameters
    ----------
    paths : sequence of path
        Images with their sidecars, in any order.
    output : path
        Joined image; its sidecar appears beside it.
    gaps : bool, optional
        Echoes or repetitions between the parts may be missing. The sidecar lists them as skipped.

    Returns
    -------
    list of str
        Warnings: what lies before the first part or behind the last one is missing.

    Raises
    ------
    ValueError
        Parts are missing, overlap, or belong to different scans.
    """
    import nibabel

    parts = sorted((_part(nibabel, Path(path)) for path in paths), key=lambda part: part.first)
    missing = _check_parts(parts, gaps)
    first, axis = parts[0], parts[0].axis
    data = [_with_axes(np.asanyarray(part.image.dataobj), FILE_AXES[axis] + 1) for part in parts]
    joined = np.concatenate(data, FILE_AXES[axis])
    sidecar = {
        **first.sidecar,
        "Range": {**first.sidecar["Range"], "Last": parts[-1].last},
    }
    for name, more in (("Skipped", [{"Axis": axis, "Position": n} for n in missing]), ("Warnings", [])):
        entries = [entry for part in parts for entry in part.listed(name)] + more
        sidecar.update({name: _once(entries)} if entries else {})
    if axis == "echo":
        sidecar["EchoTime"] = np.hstack([p.sidecar.get("EchoTime", []) for p in parts]).tolist()
    if "VolumeTiming" in sidecar and axis == "repetition":
        sidecar["VolumeTiming"] = sum((p.listed("VolumeTiming") for p in parts), [])
    if axis == "slice" and "prediction" in sidecar.get("Parameters", {}):  # one a slice
        figures = [f for p in parts for f in p.sidecar["Parameters"]["prediction"]]
        sidecar["Parameters"] = {**sidecar["Parameters"], "prediction": figures}
    known = bool(first.image.header["sform_code"])
    with Staged() as files:
        target = files.path(output)
        _save(
            nibabel.Nifti1Image(joined, first.image.affine),
            target,
            first.image.affine,
            known,
            float(first.image.header["pixdim"][4]),
        )
        files.path(sidecar_path(output)).write_text(json.dumps(sidecar, indent=2) + "\n")
        files.commit()
    return _ends(sidecar)


def _ends(sidecar):
    """A warning if the positions of a joined image are not those of the whole scan."""
    part = sidecar["Range"]
    axis = part["Axis"]
    left = set(range(part.get("Count", 0))) - set(range(part["First"], part["Last"] + 1))
    left -= {entry["Position"] for entry in sidecar.get("Skipped", []) if entry["Axis"] == axis}
    if not left:
        return []
    has = f"the image has {axis} {part['First']} to {part['Last']}"
    return [f"{has}, the scan has 0 to {part['Count'] - 1}: is a part missing?"]


class _Part:
    def __init__(self, path, image, sidecar):
        self.path, self.image, self.sidecar = path, image, sidecar
        try:
            part = sidecar["Range"]
            self.axis, self.first, self.last = part["Axis"], int(part["First"]), int(part["Last"])
        except (KeyError, TypeError, ValueError):
            raise ValueError(f"{path}: is not a part; only images made with --range can be merged") from None

    def listed(self, name):
        """An entry of the sidecar that is a list, or an empty one."""
        entries = self.sidecar.get(name)
        return entries if isinstance(entries, list) else []


def _part(nibabel, path):
    try:
        return _Part(path, nibabel.load(path), json.loads(sidecar_path(path).read_text()))
    except FileNotFoundError as error:
        raise ValueError(f"{error.filename or path}: is missing; a part consists of an image and its .json") from None
    except (nibabel.filebasedimages.ImageFileError, json.JSONDecodeError) as error:
        raise ValueError(f"{path}: cannot be read ({error}); reconstruct this part again") from None


def _once(entries):
    return [entry for i, entry in enumerate(entries) if entry not in entries[:i]]


def _check_parts(parts, gaps):
    """Raise an error unless the parts belong to one scan. Returns missing positions between them."""
    first, following, missing = parts[0], parts[0].first, []
    for part in parts:
        if part.axis != first.axis or part.sidecar.get("Steps") != first.sidecar.get("Steps"):
            raise ValueError(
                f"{part.path}: is part of another scan, or was reconstructed with other options than {first.path}"
            )
        missing += _gap(part, following, gaps)
        following = part.last + 1
        _check_place(part, first)
    return missing


def _gap(part, due, gaps):
    if part.first < due:
        raise ValueError(f"{part.path}: starts at {part.axis} {part.first}, but {due} is next; give every part once")
    if part.first > due and not (gaps and part.axis != "slice"):
        lacking = f"{due}" if part.first == due + 1 else f"{due} to {part.first - 1}"
        advice = "an image needs all slices" if part.axis == "slice" else "or leave them out with --gaps"
        raise ValueError(
            f"{part.path}: starts at {part.axis} {part.first}, but {part.axis} {lacking} is missing; "
            f"give that part too, {advice}"
        )
    return range(due, part.first)


def _check_place(part, first):
    moved = part.image.affine[:3] - first.image.affine[:3]
    if part.axis == "slice":
        moved[:, 3] -= first.image.affine[:3, 2] * (part.first - first.first)
    if part.image.header["sform_code"] and np.abs(moved).max() > 0.02:
        raise ValueError(f"{part.path}: does not start where {first.path} ends; is it part of another scan?")


def _with_axes(data, count):
    return data.reshape(data.shape + (1,) * (count - data.ndim))
