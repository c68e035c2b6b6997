"""Files with k-space other than ISMRMRD: how each format is recognised, its axes, and its header.

`ctessel.stored` does everything that is the same for all formats.
"""

import contextlib
import math
import os
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, replace

import numpy as np

from . import _ismrmrd, runtime
from .acquisitions import DefectError
from .scan import Limit, times_text
from .stored import AXES, NAMES, UNREADABLE, Stored, lines, plain, plain_header, unreadable

_SHORT = {"calgarycampinas": "calgary", "bart": "cfl", "bartcfl": "cfl", "mat": "matlab"}
#: BART's sixteen axes; axes without a name must have an extent of 1.
BART_AXES = (
    "x", "y", "z", "coil", "", "echo", "", "", "", "", "repetition", "repetition again", "", "slice", "average", "",
)  # fmt: skip
MATLAB_AXES = ("x", "y", "coil", "slice", "repetition")
#: Largest ratio of an array's bytes to its bytes in the file.
PACKED = 2000


@dataclass(frozen=True)
class Given:
    """What the user states about a file, because the file lacks it.

    `format` is one of `ctessel.stored.NAMES`. `fov` is the field of view of the encoded matrix in mm (x, y,
    z; for slices z is their thickness). `lines` are extents of the encoded matrix. `centre` are the lines
    of the file that are k = 0, from 0. Both are given for y, for y and z, or for x, y and z. `axes` names
    the axes of a MATLAB array. `calibration` is the file of a separate calibration.
    """

    format: str | None = None
    fov: tuple[float, ...] | None = None
    lines: tuple[int, ...] | None = None
    centre: tuple[int, ...] | None = None
    axes: tuple[str, ...] | None = None
    calibration: str | None = None
    #: What the samples of this file and of the calibration file show, see `Found`.
    found: tuple = (None, None)

    def __post_init__(self):
        if self.format is not None:
            object.__setattr__(self, "format", known_format(self.format))
        if self.calibration is not None:
            object.__setattr__(self, "calibration", os.fspath(self.calibration))
        for name in ("fov", "lines", "centre", "axes"):
            value = getattr(self, name)
            if value is not None:
                object.__setattr__(self, name, tuple(value))
        if self.fov is not None and not (len(self.fov) == 3 and all(0 < n < 1e5 for n in self.fov)):
            raise ValueError(f"fov: expected three lengths above 0 mm, got {self.fov}")
        for name, least in (("lines", 1), ("centre", 0)):
            value = getattr(self, name)
            if value is not None and not (1 <= len(value) <= 3 and all(least <= n < 65536 for n in value)):
                raise ValueError(f"{name}: expected one to three numbers from {least}, got {value}")
        if self.axes is not None:
            check_axes(self.axes)


def known_format(name):
    """The key of `ctessel.stored.NAMES` for a name that the user gave."""
    key = "".join(c for c in name.lower() if c.isalnum())
    key = _SHORT.get(key, key)
    if key not in NAMES:
        raise ValueError(f"format: expected one of {', '.join(NAMES)}, got {name!r}")
    return key


def check_axes(axes):
    """The names of axes, unless they are wrong."""
    wrong = [name for name in axes if name not in AXES]
    if wrong or len(set(axes)) < len(axes) or not {"x", "y"} <= set(axes):
        raise ValueError(
            f"axes: expected some of {', '.join(AXES)}, each once, x and y among them, got {', '.join(axes)}"
        )
    return axes


# ---- Opening -------------------------------------------------------------------------------------


def opened(path, given):
    """A file of one of these formats, as `Opened`; None for other files, or if there is none.

    Raises
    ------
    DefectError
        The file contradicts itself, lacks something, or does not have the given format.
    """
    for find in (_pair, _hdf5, _matlab):
        found = find(path, given)
        if found is not None:
            return lines(*found, given)
    if given.format not in (None, "ismrmrd"):
        raise DefectError(f"is not a {NAMES[given.format]} file", "name the right --format, or none")
    return None


def pair_base(path):
    """A BART pair without its endings, whether NAME, NAME.cfl or NAME.hdr is its name; or None."""
    base = path[:-4] if path.endswith((".cfl", ".hdr")) else path
    return base if os.path.isfile(base + ".cfl") and (base != path or not os.path.isfile(path)) else None


def samples_of(path):
    """The file that holds the samples of what is called `path`."""
    base = pair_base(path)
    return path if base is None else base + ".cfl"


def _pair(path, given):
    base = pair_base(path)
    if base is None or given.format not in (None, "cfl"):
        return None
    if given.format is None and not os.path.exists(base + ".hdr") and _begins(base + ".cfl", b"\x89HDF"):
        return None
    dims = read_dimensions(base)
    odd = [d for d, n in enumerate(dims) if n > 1 and not BART_AXES[d]]
    if odd:
        raise DefectError(
            f"its axis {odd[0]} has an extent of {dims[odd[0]]}, but is not one of k-space, coils, echoes, times, "
            "slices and averages",
            "take one of them with bart slice",
        )
    order = [axis for axis, name in enumerate(BART_AXES) if name]
    data = read_pair(base, [dims[axis] for axis in order], dims)
    axes = [BART_AXES[axis] for axis in order]
    times = axes.index("repetition again")
    data = data.reshape(*data.shape[: times - 1], -1, *data.shape[times + 1 :], order="F")
    header, text = _pair_header(base, dims) if not (given.fov or given.lines or given.centre) else (None, None)
    axes = tuple(name for name in axes[::-1] if name != "repetition again")
    return base + ".cfl", Stored("cfl", data.T, axes, header, text=text)


def _pair_header(base, dims):
    """The header that `ctessel.convert` wrote beside a pair, as `Header` and as text; or None and None."""
    with contextlib.suppress(OSError, DefectError), open(base + ".xml", "rb") as file:
        text = file.read(64 << 20)
        header = _ismrmrd.parse(text)[0]
        if header.encoded_matrix == tuple(dims[:3]):
            return header, text
    return None, None


def read_dimensions(base):
    """The sixteen extents of a BART pair."""
    name = os.path.basename(base) + ".hdr"
    try:
        with open(base + ".hdr", "rb") as file:
            rows = file.read(1 << 16).decode("latin-1").splitlines()
    except FileNotFoundError:
        raise DefectError(f"has no {name} with its extents", "copy both files") from None
    at = next((i for i, row in enumerate(rows[:-1]) if row.strip() == "# Dimensions"), None)
    words = rows[at + 1].split() if at is not None else []
    dims = [int(word) for word in words if word.isdecimal() and len(word) < 10]
    if not words or len(dims) != len(words) or len(dims) > 16 or 0 in dims:
        raise DefectError(f'its {name} does not have 1 to 16 extents after "# Dimensions"', "copy both again")
    return dims + [1] * (16 - len(dims))


def read_pair(base, shape, dims):
    """Map of a BART pair's samples, the first axis fastest."""
    expected, size = 8 * math.prod(dims), os.path.getsize(base + ".cfl")
    if size != expected:
        raise DefectError(
            f"{'is cut short' if size < expected else 'is too long'}: it has {size} bytes, the "
            f"{times_text(_trimmed(dims))} samples of its .hdr {expected}",
            "copy both again",
        )
    return np.memmap(base + ".cfl", "<c8", "r", shape=tuple(shape), order="F")


def _trimmed(dims):
    last = max((i for i, n in enumerate(dims) if n > 1), default=0)
    return dims[: max(4, last + 1)]


def _begins(path, word, at=(0,)):
    with contextlib.suppress(OSError), open(path, "rb") as file:
        for place in at:
            file.seek(place)
            if file.read(len(word)) == word:
                return True
    return False


# ---- HDF5 ----------------------------------------------------------------------------------------


def _hdf5(path, given):
    if not _is_hdf5(path):
        return None
    import h5py

    try:
        file = h5py.File(path, "r")
    except OSError:
        return None  # `raw` explains it to the user
    try:
        return _of_hdf5(path, file, given)
    except UNREADABLE as error:
        raise unreadable(error) from None


def _of_hdf5(path, file, given):
    kspace = _item(file, "kspace")
    kind = given.format or _kind(file, kspace)
    if kind in (None, "ismrmrd", "cfl"):
        return None
    if kspace is None:
        raise DefectError(f'has no array "kspace"{_others(file)}', "store it under this name")
    check_stored(kspace)
    return path, _STORED[kind](file, kspace, given)


def groups(path):
    """The contents of an HDF5 file: raw data, images, and arrays of the root, with their extents."""
    if not _is_hdf5(path):
        return []
    import h5py

    found = []

    def note(name, item):
        if isinstance(item, h5py.Group):
            parts = {part: item.get(part) for part in ("data", "xml", "header")}
            sets = {part: held for part, held in parts.items() if isinstance(held, h5py.Dataset)}
            if {"data", "xml"} <= sets.keys():
                found.append(f"{name} ({sets['data'].size} acquisitions)")
            if {"data", "header"} <= sets.keys():
                found.append(f"{name} ({sets['header'].size} images)")
        elif isinstance(item, h5py.Dataset) and "/" not in name:
            found.append(f"{name} ({times_text(item.shape)})" if item.shape else name)
        return True if len(found) >= 20 else None

    with h5py.File(path, "r") as file:
        file.visititems(note)
    return found


def _is_hdf5(path):
    return os.path.isfile(path) and _begins(path, b"\x89HDF\r\n\x1a\n", (0, 512, 1024, 2048))


def _item(file, name):
    """A data set of the root, or None."""
    import h5py

    try:
        item = file.get(name)
        return item if isinstance(item, h5py.Dataset) and item.shape is not None else None
    except UNREADABLE:
        return None


def _others(file):
    names = [name for name in map(str, list(file)[:20]) if not name.startswith("#")]
    return f", but {', '.join(names)}" if names else ""


def _kind(file, kspace):
    """The format with these names and this shape of the array."""
    if kspace is None:
        matlab = _begins(file.filename, b"MATLAB ") and "dataset" not in file
        return "matlab" if matlab else None
    if "MATLAB_class" in kspace.attrs or _begins(file.filename, b"MATLAB "):
        return "matlab"
    if "ismrmrd_header" in file:
        return "fastmri"
    if kspace.ndim == 5 and kspace.dtype.kind == "c" and "maps" in file:
        return "skmtea"
    if kspace.ndim == 4 and kspace.dtype.kind == "f" and kspace.shape[3] % 2 == 0:
        return "calgary"
    raise DefectError(
        f'its array "kspace", {times_text(kspace.shape)} of {kspace.dtype}, has an unknown layout',
        "name one with --format, or convert it to ISMRMRD",
    )


def check_stored(kspace):
    """Raise an error at once if the file cannot hold the samples that it declares."""
    nbytes, held = kspace.dtype.itemsize * math.prod(kspace.shape), kspace.id.get_storage_size()
    if kspace.id.get_create_plist().get_external_count() or kspace.is_virtual:
        raise DefectError("its samples are in other files", "put them into one")
    if nbytes > PACKED * held:
        raise DefectError(
            f"its k-space, {times_text(kspace.shape)}, has {runtime.text(nbytes)}, but the file holds "
            f"{runtime.text(held)}",
            "copy it again",
        )
    if not _sound(kspace.id.get_type()):
        raise DefectError(f"its samples are {kspace.dtype}; expected real or complex numbers", "store it again")


def _sound(kind):
    """Whether an HDF5 type is a number, or a pair of numbers, that HDF5 converts safely."""
    from h5py import h5t

    if isinstance(kind, h5t.TypeCompoundID):
        parts = range(kind.get_nmembers())
        names = sorted(kind.get_member_name(i) for i in parts)
        inside = all(kind.get_member_offset(i) + kind.get_member_type(i).get_size() <= kind.get_size() for i in parts)
        named = names in ([b"imag", b"real"], [b"i", b"r"])
        return named and inside and all(_sound(kind.get_member_type(i)) for i in parts)
    if isinstance(kind, h5t.TypeIntegerID):
        return 0 <= kind.get_offset() and kind.get_offset() + kind.get_precision() <= 8 * kind.get_size() <= 64
    return any(kind == known for known in (h5t.IEEE_F32LE, h5t.IEEE_F32BE, h5t.IEEE_F64LE, h5t.IEEE_F64BE))


def _fastmri(file, kspace, given):
    text = _header_text(file)
    header, notes, kind = None, [], "m4raw"
    shape = (kspace.shape[-2], kspace.shape[-1]) if kspace.ndim > 1 else ()
    if given.format != "m4raw":
        header = _valid_header(text, shape)
        kind = "fastmri" if header or given.format else kind
    if header is None:
        header, notes = _lenient_header(text, shape)
        if notes and given.fov:
            header, notes = None, []
    axes = ("slice", "coil", "x", "y") if kspace.ndim == 4 else ("slice", "x", "y")
    mask = _mask(file, kspace)
    stated = _attribute(kspace.parent, "acceleration")
    if mask is not None and isinstance(stated, (int, np.integer)) and 0 < stated < 100 and header:
        header = replace(header, acceleration=(int(stated), 1))
    return Stored(kind, kspace, axes, header, mask=mask, notes=notes)


def _header_text(file):
    held = _item(file, "ismrmrd_header")
    if held is None or held.size != 1 or held.dtype.itemsize > 64 << 20:
        return b""
    with contextlib.suppress(*UNREADABLE):
        text = np.asarray(held[()]).item()
        return text if isinstance(text, bytes) else str(text).encode()
    return b""


def _valid_header(text, shape):
    """The header of k-space of this shape (x, y); None if it is not ISMRMRD, or has another readout.

    Lines are numbered by their columns, which begin before the first measured line.
    """
    try:
        header = _ismrmrd.parse(text)[0]
    except DefectError:
        return None
    x, y, z = header.encoded_matrix
    if x != shape[0] or z != 1:
        return None
    limit, middle = header.limits["y"], shape[1] // 2
    first = middle - limit.center
    stated = Limit(first + limit.minimum, first + limit.maximum, middle)
    whole = Limit(0, shape[1] - 1, middle)
    limits = {**header.limits, "y": stated if y == shape[1] else whole, "z": Limit(0, 0, 0)}
    return replace(header, encoded_matrix=(*shape, 1), limits=limits)


def _lenient_header(text, shape):
    """The usable part of a header, with the matrix size of the data; and notes."""
    try:
        root = ElementTree.fromstring(text)
    except (ElementTree.ParseError, ValueError):
        root = None
    fov = _lenient_numbers(root, "encodedSpace/fieldOfView_mm", "xyz") if root is not None else None
    notes = []
    if fov is None:
        fov = (240.0, 240.0, 5.0)
        notes.append(
            "the header has no field of view; 240 x 240 mm and slices of 5 mm, as in scans of this format, are assumed"
        )
    header = plain_header((*shape, 1), fov)
    times = {name: _lenient_times(root, name.upper()) for name in ("tr", "te")}
    return replace(header, **times), notes


def _lenient_numbers(root, path, names):
    found = root.find(".//" + "/".join("{*}" + part for part in path.split("/")))
    try:
        numbers = tuple(float(found.find("{*}" + name).text) for name in names)
    except (AttributeError, TypeError, ValueError):
        return None
    return numbers if all(0 < n < 1e4 for n in numbers) else None


def _lenient_times(root, name):
    times = []
    for found in root.iter() if root is not None else ():
        with contextlib.suppress(TypeError, ValueError, AttributeError):
            if found.tag.split("}")[-1] == name and 0 < float(found.text) < 1e6:
                times.append(float(found.text))
    return times[:1]


def _mask(file, kspace):
    held = _item(file, "mask")
    if held is None:
        return None
    if held.size != kspace.shape[-1] or held.dtype.kind not in "biuf":
        raise DefectError(
            f"its mask has {held.size} entries of {held.dtype}, its k-space {kspace.shape[-1]} columns", "copy it again"
        )
    return np.asarray(held[()]).ravel() != 0


def _attribute(item, name):
    with contextlib.suppress(*UNREADABLE):
        value = item.attrs[name]
        return value.item() if isinstance(value, np.ndarray) and value.size == 1 else value
    return None


def _calgary(file, kspace, given):
    return Stored("calgary", kspace, ("x", "y", "z", "coil"), pairs=True, transformed=True, shifted=None)


def _skmtea(file, kspace, given):
    return Stored("skmtea", kspace, ("x", "y", "z", "echo", "coil"), transformed=True)


def _matlab_73(file, kspace, given):
    name = _attribute(kspace, "MATLAB_class")
    complex_parts = kspace.dtype.kind == "c" or bool(kspace.dtype.names)
    if name not in (None, b"single", b"double", "single", "double") or not complex_parts:
        kind = name.decode("ascii", "replace") if isinstance(name, bytes) else name or kspace.dtype
        raise DefectError(
            f'its variable "kspace" is real or {kind}; expected complex single or double', "store k-space"
        )
    axes = _matlab_axes(given, kspace.ndim)
    return Stored("matlab", kspace, axes[::-1])


def _matlab_axes(given, count):
    """Names of the axes; MATLAB leaves out the last ones of one."""
    axes = given.axes or MATLAB_AXES
    if count > len(axes):
        raise DefectError(
            f'its variable "kspace" has {count} axes, more than {", ".join(axes)}', "name all with --array-axes"
        )
    return axes[:count]


_STORED = {
    "fastmri": _fastmri, "m4raw": _fastmri, "calgary": _calgary, "skmtea": _skmtea, "matlab": _matlab_73,
}  # fmt: skip


def _matlab(path, given):
    """A MATLAB file of version 7, which is not HDF5."""
    if not os.path.isfile(path) or not _begins(path, b"MATLAB 5.0"):
        return None
    if given.format not in (None, "matlab"):
        return None
    data = load_matlab(path, "kspace")
    if data.dtype.kind != "c":
        raise DefectError(f'its variable "kspace" is {data.dtype}; expected complex numbers', "store k-space")
    return path, Stored("matlab", data.T, _matlab_axes(given, data.ndim)[::-1])


def load_matlab(path, name):
    """A numeric variable of a MATLAB file of version 7, its axes as MATLAB has them."""
    from scipy import io

    try:
        known = {entry[0]: entry[1] for entry in io.whosmat(path)}
        if name in known:
            runtime.check(16 * math.prod(known[name]), f'the variable "{name}"', "store it as version 7.3")
            data = io.loadmat(path, variable_names=[name])[name]
    except (runtime.DoesNotFitError, MemoryError):
        raise
    except Exception as error:  # the reader trusts the file, and can fail with any exception
        raise DefectError(f"cannot be read ({' '.join(str(error).split())[:100]})", "copy or store it again") from None
    if name not in known:
        names = ", ".join(sorted(known)[:20])
        raise DefectError(f'has no variable "{name}"; it has {names or "none"}', "store it under this name")
    if not isinstance(data, np.ndarray) or data.dtype.kind not in "fciub" or 0 in data.shape:
        raise DefectError(f'its variable "{name}" is not an array of numbers', "store k-space")
    return data


def load(path, name):
    """An array of an HDF5 or MATLAB file, and whether its axes are those of SKM-TEA's maps.

    The order of the axes is that of the file, for MATLAB files that of MATLAB.
    """
    try:
        if _is_hdf5(path):
            return _load_hdf5(path, name)
        if _begins(path, b"MATLAB 5.0"):
            return load_matlab(path, name), False
        os.stat(path)
    except OSError as error:
        raise DefectError(error.strerror or "cannot be read", "name another file") from None
    raise DefectError("is not a BART pair, NIfTI, MATLAB or HDF5 file", "convert it")


def _load_hdf5(path, name):
    import h5py

    with h5py.File(path, "r") as file:
        held = _item(file, name)
        if held is None:
            raise DefectError(f'has no array "{name}"{_others(file)}', "store it under this name")
        try:
            check_stored(held)
            runtime.check(3 * held.dtype.itemsize * held.size, f'the array "{name}"', "use a machine with more memory")
            matlab = "MATLAB_class" in held.attrs
            data = plain(held[()])
        except UNREADABLE as error:
            raise unreadable(error) from None
    return (data.T, False) if matlab else (data, data.ndim == 5)
