"""k-space in other files than ISMRMRD's: whatever the format, a table of lines as that one has it.

Each format says how its array is indexed and what is known about it (`Stored`). The rest is the same
for all: which lines were measured is read from the samples, and every measured line gets a header of
an acquisition, from which `ctessel.acquisitions.survey` goes on.
"""

import contextlib
import math
import os
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field, replace

import numpy as np

from . import _ismrmrd, runtime
from .acquisitions import CALIBRATION, CALIBRATION_AND_IMAGING, HEAD, IMAGING, NOISE, NOT_IMAGING
from .acquisitions import DefectError, survey
from .fourier import to_kspace
from .scan import Header, Limit, times_text

#: What a user may call a format, and its name for people.
NAMES = {
    "ismrmrd": "ISMRMRD",
    "fastmri": "fastMRI",
    "m4raw": "M4Raw",
    "calgary": "Calgary-Campinas",
    "skmtea": "SKM-TEA",
    "cfl": "BART cfl",
    "matlab": "MATLAB",
}
_SHORT = {"calgarycampinas": "calgary", "bart": "cfl", "bartcfl": "cfl", "mat": "matlab"}
#: Names of the axes that an array can have; averages of a line become their mean.
AXES = ("x", "y", "z", "coil", "slice", "echo", "repetition", "average")
#: BART's sixteen axes; those without a name here must have an extent of 1.
BART_AXES = (
    "x", "y", "z", "coil", "", "echo", "", "", "", "", "repetition", "repetition again", "", "slice", "average", "",
)  # fmt: skip
MATLAB_AXES = ("x", "y", "coil", "slice", "repetition")
#: Bytes of a file that are read at once, unless a single line of all coils has more.
UNIT = 32 << 20
#: A packed array has no more bytes for each one in the file.
PACKED = 2000
#: What h5py raises for files that HDF5 cannot make sense of.
UNREADABLE = (OSError, KeyError, TypeError, ValueError, RuntimeError)
_COUNTERS = {"slice": "slice", "echo": "contrast", "repetition": "repetition", "average": "average"}


@dataclass(frozen=True)
class Given:
    """What a user says about a file that does not say it itself.

    `format` is one of `NAMES`. `fov` is the field of view of the encoded matrix in mm (x, y, z; of slices
    their thickness). `lines` are extents of the encoded matrix, and `centre` which of the file's lines are
    k = 0, from 0: of y, of y and z, or of x, y and z. `axes` names those of a MATLAB array. `calibration`
    is the file of a calibration scan.
    """

    format: str | None = None
    fov: tuple[float, ...] | None = None
    lines: tuple[int, ...] | None = None
    centre: tuple[int, ...] | None = None
    axes: tuple[str, ...] | None = None
    calibration: str | None = None
    #: What has been found in the samples of this file and of the calibration's, see `Found`.
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
    """The key of `NAMES` that a user means."""
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


@dataclass
class Opened:
    """A file, ready for `survey`."""

    path: str
    format: str
    file: object  # what reads lines: as `Lines`
    encodings: list[Header]
    heads: np.ndarray
    told: tuple[str, ...] = ()  # what the user may not expect, a line each
    found: object = None
    stated: bool = True  # the file says how large its field of view is


@dataclass
class Stored:
    """An array of a file, and what is known about it. Of `axes` the last one varies fastest."""

    format: str
    data: object  # what is indexed for samples: a data set, a memory map, an array
    axes: tuple[str, ...]
    header: Header | None = None
    pairs: bool = False  # real and imaginary parts take turns along the last axis
    transformed: bool = False  # the readout is an image already
    mask: np.ndarray | None = None  # lines along y that the file calls measured
    shifted: bool | None = False  # k = 0 of y and z is the first line; None: the samples tell
    text: bytes | None = None  # the header in full
    told: list[str] = field(default_factory=list)

    def __post_init__(self):
        if len(self.data.shape) != len(self.axes):
            raise DefectError(
                f"its k-space has {len(self.data.shape)} axes ({times_text(self.data.shape)}), "
                f"{NAMES[self.format]} has {len(self.axes)} ({', '.join(self.axes)})", "is --format right?"
            )
        self.extents = {**dict.fromkeys(AXES, 1), **dict(zip(self.axes, map(int, self.data.shape)))}
        complex_numbers = self.data.dtype.kind == "c" or bool(self.data.dtype.names)
        if complex_numbers == self.pairs or self.data.dtype.kind in "iu" or (self.pairs and self.extents["coil"] % 2):
            raise DefectError(
                f"its k-space holds {times_text(self.data.shape)} of {self.data.dtype}, {NAMES[self.format]} has "
                f"{'pairs of real numbers' if self.pairs else 'complex numbers'}", "is --format right?"
            )
        if self.pairs:
            self.extents["coil"] //= 2
        odd = [f"{n} along {name}" for name, n in self.extents.items() if not 0 < n < 65536]
        if odd:
            raise DefectError(f"its k-space has an extent of {odd[0]}; expected 1 to 65535", "copy it again")


@dataclass(frozen=True)
class Found:
    """What the samples of an array tell. Workers get it, so that they need not read all of them."""

    lines: bytes  # bits: which ones were measured, in the order of the file
    first: int  # sample of the readout that is not zero
    last: int
    shifted: bool  # k = 0 of y and z is the first line


# ---- Opening -------------------------------------------------------------------------------------


def opened(path, given):
    """A file of these formats, as `Opened`; None where it is another one, or none at all.

    Raises
    ------
    DefectError
        It contradicts itself, lacks what is needed, or is no file of the format that was given.
    """
    for find in (_pair, _hdf5, _matlab):
        found = find(path, given)
        if found is not None:
            return _lines(*found, given)
    if given.format not in (None, "ismrmrd"):
        raise DefectError(f"is no {NAMES[given.format]} file", "name the right --format, or none")
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
            f"its axis {odd[0]} has an extent of {dims[odd[0]]}, and is none of k-space, coils, echoes, times, "
            "slices and averages", "take one of them with bart slice",
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
    """The header that `ctessel.convert` has written beside a pair, as `Header` and as text; or None twice."""
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
        raise DefectError(f"has no {name}, which says its extents", "copy both files") from None
    at = next((i for i, row in enumerate(rows[:-1]) if row.strip() == "# Dimensions"), None)
    words = rows[at + 1].split() if at is not None else []
    dims = [int(word) for word in words if word.isdecimal() and len(word) < 10]
    if not words or len(dims) != len(words) or len(dims) > 16 or 0 in dims:
        raise DefectError(f'its {name} has no up to 16 extents after "# Dimensions"', "copy both again")
    return dims + [1] * (16 - len(dims))


def read_pair(base, shape, dims):
    """Map of a BART pair's samples, the first axis fastest."""
    expected, size = 8 * math.prod(dims), os.path.getsize(base + ".cfl")
    if size != expected:
        raise DefectError(
            f"{'is cut short' if size < expected else 'is too long'}: it has {size} bytes, the "
            f"{times_text(_trimmed(dims))} samples of its .hdr {expected}", "copy both again",
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
        return None  # which `raw` says in a user's words
    try:
        return _of_hdf5(path, file, given)
    except UNREADABLE as error:
        raise _unreadable(error) from None


def _of_hdf5(path, file, given):
    kspace = _item(file, "kspace")
    kind = given.format or _kind(file, kspace)
    if kind in (None, "ismrmrd", "cfl"):
        return None
    if kspace is None:
        raise DefectError(f'has no array "kspace"{_others(file)}', "store it under this name")
    check_stored(kspace)
    return path, _STORED[kind](file, kspace, given)


def _unreadable(error):
    if isinstance(error, DefectError):
        return error
    return DefectError(f"its samples cannot be read ({' '.join(str(error).split())[:160]})", "copy it again")


def groups(path):
    """What is in a file of HDF5: raw data, images, and arrays of the root, with their extents."""
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
    """Which format the names and the shape of the array are those of."""
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
        f'its array "kspace", {times_text(kspace.shape)} of {kspace.dtype}, has the layout of no format that is known',
        "name one with --format, or convert it to ISMRMRD",
    )


def check_stored(kspace):
    """Refuse samples that the file cannot hold, before anybody waits for them."""
    nbytes, held = kspace.dtype.itemsize * math.prod(kspace.shape), kspace.id.get_storage_size()
    if kspace.id.get_create_plist().get_external_count() or kspace.is_virtual:
        raise DefectError("its samples lie in other files", "put them into one")
    if nbytes > PACKED * held:
        raise DefectError(
            f"its k-space, {times_text(kspace.shape)}, has {runtime.text(nbytes)}, of which the file holds "
            f"{runtime.text(held)}", "copy it again",
        )
    if not _sound(kspace.id.get_type()):
        raise DefectError(f"its samples are {kspace.dtype}; expected real or complex numbers", "store it again")


def _sound(kind):
    """Whether a type of HDF5 is one of numbers, or a pair of them, that HDF5 converts without harm."""
    from h5py import h5t

    if isinstance(kind, h5t.TypeCompoundID):
        parts = range(kind.get_nmembers())
        names = sorted(kind.get_member_name(i) for i in parts)
        inside = all(kind.get_member_offset(i) + kind.get_member_type(i).get_size() <= kind.get_size() for i in parts)
        return names in ([b"imag", b"real"], [b"i", b"r"]) and inside and all(_sound(kind.get_member_type(i)) for i in parts)
    if isinstance(kind, h5t.TypeIntegerID):
        return 0 <= kind.get_offset() and kind.get_offset() + kind.get_precision() <= 8 * kind.get_size() <= 64
    return any(kind == known for known in (h5t.IEEE_F32LE, h5t.IEEE_F32BE, h5t.IEEE_F64LE, h5t.IEEE_F64BE))


def _fastmri(file, kspace, given):
    text = _header_text(file)
    header, told, kind = None, [], "m4raw"
    shape = (kspace.shape[-2], kspace.shape[-1]) if kspace.ndim > 1 else ()
    if given.format != "m4raw":
        header = _valid_header(text, shape)
        kind = "fastmri" if header or given.format else kind
    if header is None:
        header, told = _lenient_header(text, shape)
    axes = ("slice", "coil", "x", "y") if kspace.ndim == 4 else ("slice", "x", "y")
    mask = _mask(file, kspace)
    stated = _attribute(kspace.parent, "acceleration")
    if mask is not None and isinstance(stated, (int, np.integer)) and 0 < stated < 100 and header:
        header = replace(header, acceleration=(int(stated), 1))
    return Stored(kind, kspace, axes, header, mask=mask, told=told)


def _header_text(file):
    held = _item(file, "ismrmrd_header")
    if held is None or held.size != 1 or held.dtype.itemsize > 64 << 20:
        return b""
    with contextlib.suppress(*UNREADABLE):
        text = np.asarray(held[()]).item()
        return text if isinstance(text, bytes) else str(text).encode()
    return b""


def _valid_header(text, shape):
    """The header of k-space of this shape (x, y); None where it is none of ISMRMRD's, or of another readout.

    Lines get the numbers of their columns, which begin before those that were measured.
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
    """What can be used of a header, the matrix that of the data; and what is to be told."""
    try:
        root = ElementTree.fromstring(text)
    except (ElementTree.ParseError, ValueError):
        root = None
    fov = _lenient_numbers(root, "encodedSpace/fieldOfView_mm", "xyz") if root is not None else None
    told = []
    if fov is None:
        fov = (240.0, 240.0, 5.0)
        told.append(
            "the header has no field of view; 240 x 240 mm and slices of 5 mm, which this format's scans have, are taken"
        )
    header = plain_header((*shape, 1), fov)
    times = {name: _lenient_times(root, name.upper()) for name in ("tr", "te")}
    return replace(header, **times), told


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
        raise DefectError(f'its variable "kspace" is real or {kind}; expected complex single or double', "store k-space")
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
    """A MATLAB file of version 7, which is no HDF5."""
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
    except Exception as error:  # the reader trusts the file, and fails with whatever comes
        raise DefectError(f"cannot be read ({' '.join(str(error).split())[:100]})", "copy or store it again") from None
    if name not in known:
        names = ", ".join(sorted(known)[:20])
        raise DefectError(f'has no variable "{name}", but {names or "none"}', "store it under this name")
    if not isinstance(data, np.ndarray) or data.dtype.kind not in "fciub" or 0 in data.shape:
        raise DefectError(f'its variable "{name}" is no array of numbers', "store k-space")
    return data


def load(path, name):
    """An array of a file of HDF5 or MATLAB, and whether its axes are those of SKM-TEA's maps.

    The axes are as they are written there, those of MATLAB as MATLAB has them.
    """
    try:
        if _is_hdf5(path):
            return _load_hdf5(path, name)
        if _begins(path, b"MATLAB 5.0"):
            return load_matlab(path, name), False
        os.stat(path)
    except OSError as error:
        raise DefectError(error.strerror or "cannot be read", "name another file") from None
    raise DefectError("is no BART pair, NIfTI, MATLAB or HDF5 file", "convert it")


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
            raise _unreadable(error) from None
    return (data.T, False) if matlab else (data, data.ndim == 5)


# ---- Lines ---------------------------------------------------------------------------------------


def plain_header(matrix, fov, limits=None):
    """Header of a scan of which the extents (x, y, z) alone are known."""
    whole = {name: Limit(0, n - 1, n // 2) for name, n in zip("xyz", matrix)}
    return Header(tuple(matrix), tuple(fov), tuple(matrix), tuple(fov), {**whole, **(limits or {})})


def _lines(path, stored, given):
    """The file as `survey` takes it."""
    reader = Lines(stored)
    reader.found = given.found[0] or _look(reader)
    measured, told = reader.measured(), list(stored.told)
    if stored.mask is not None:
        measured, more = _masked(measured, stored)
        told += more
    if not measured.any():
        raise DefectError("all its samples are zero", "copy it again")
    if stored.shifted is None:
        told.append(_corner_words(reader, measured))
    header, more, stated = _header(reader, measured, given)
    heads = reader.number(measured, _start(given, stored.extents))
    return Opened(path, NAMES[stored.format], reader, [header], heads, (*told, *more), reader.found, stated)


def _three(values, extents, default):
    """Values of x, y and z, of which y alone, y and z, or all are given."""
    given = {1: ("y",), 2: ("y", "z"), 3: ("x", "y", "z")}[len(values or ())] if values else ()
    return [values[given.index(a)] if a in given else default(a, extents[a]) for a in "xyz"]


def _start(given, extents):
    """Which sample of x is k = 0."""
    return _three(given.centre, extents, lambda _, n: n // 2)[0]


def _header(reader, measured, given):
    """The header of the scan, what is to be told about it, and whether the file states the field of view."""
    stored, extents = reader.stored, reader.stored.extents
    if stored.header is not None:
        if given.fov or given.lines or given.centre:
            raise DefectError("says its field of view, lines and centre itself", "leave out --fov, --lines, --centre")
        return stored.header, [], True
    centre = _three(given.centre, extents, lambda _, n: n // 2)
    # The smallest even matrix that holds all lines, k = 0 at its n // 2.
    sizes = [extents[axis] for axis in "xyz"]
    least = [n if c == n // 2 else 2 * max(c, n - c) for n, c in zip(sizes, centre)]
    matrix = _three(given.lines, extents, lambda axis, _: least["xyz".index(axis)])
    _check_matrix(matrix, centre, extents)
    told = []
    if given.fov is None:
        told.append("the file has no field of view; voxels of 1 mm are taken; name it with --fov X Y Z (mm)")
    header = plain_header(matrix, given.fov or [float(n) for n in matrix])
    for axis, name in ((1, "y"), (2, "z")):
        at = reader.places(name)[reader.index(measured, name)]
        header.limits[name] = Limit(int(at.min()), int(at.max()), centre[axis])
    return header, told, given.fov is not None


def _check_matrix(matrix, centre, extents):
    for name, n, c in zip("xyz", matrix, centre):
        if c - n // 2 > 0 or extents[name] - 1 - c > (n - 1) // 2:
            raise DefectError(
                f"its {extents[name]} samples along {name} with k = 0 at {c} reach beyond a matrix of {n}",
                "mend --lines or --centre",
            )


def _masked(measured, stored):
    """Lines that the file's mask and its samples agree on, and what is to be told."""
    shape = [-1 if name == "y" else 1 for name in _line_axes(stored.axes)]
    mask = stored.mask.reshape(shape)
    beside = int((measured & ~mask).any(tuple(i for i, n in enumerate(shape) if n == 1)).sum())
    told = [f"{beside} lines that the file's mask leaves out have samples; they are not used"] if beside else []
    return measured & mask, told


def _corner_words(reader, measured):
    where = "in the corner" if reader.found.shifted else "in the middle"
    empty = np.flatnonzero(~np.isin(np.arange(reader.stored.extents["z"]), reader.index(measured, "z")))
    lines = f"lines {empty[0]} to {empty[-1]} along z are zero" if empty.size else "no line along z is zero"
    return f"k = 0 of y and z lies {where} of the array by the energy of its lines; {lines}, and count as not measured"


def _line_axes(axes):
    return [name for name in axes if name not in ("x", "coil")]


def _look(reader):
    """`Found` of an array: reads all of its samples."""
    extents, axes = reader.stored.extents, reader.axes
    runtime.check(10 * math.prod(reader.shape), "the list of its lines", "are its extents right?")
    measured = np.zeros(reader.shape, bool)
    along = np.zeros(extents["x"], bool)
    energy = np.zeros((extents["y"], extents["z"]))
    for unit in range(reader.units):
        samples = reader.unit(unit)
        if not np.isfinite(samples).all():
            raise DefectError("it holds values that are not finite")
        there = samples != 0
        measured[reader.box(unit)] = there.any((0, 1))
        along |= there.any(tuple(range(1, there.ndim)))
        if reader.stored.shifted is None:
            power = np.einsum("xc...,xc...->...", samples, samples.conj()).real
            at = tuple(reader.box(unit)[axes.index(name)] for name in "yz")
            energy[at] += power
    first, last = (int(n) for n in np.flatnonzero(along)[[0, -1]]) if along.any() else (0, 0)
    if reader.stored.transformed:
        first, last = 0, extents["x"] - 1
    shifted = reader.stored.shifted
    return Found(np.packbits(measured).tobytes(), first, last, _in_corner(energy) if shifted is None else shifted)


def _in_corner(energy):
    """Whether the strongest line is nearer to the first one than to the middle, both ways round."""
    at = np.unravel_index(energy.argmax(), energy.shape)
    away = [min(i, n - i) / n for i, n in zip(at, energy.shape)]
    return sum(away) < 0.25 * len(away)


class Lines:
    """Reads lines of a stored array as `raw` reads acquisitions, a part of the array at a time."""

    def __init__(self, stored):
        self.stored, self.found, self.header = stored, None, stored.text
        self.axes = _line_axes(stored.axes)
        self.shape = tuple(stored.extents[name] for name in self.axes)
        self._split()
        self._kept = (None, None)

    def _split(self):
        """Parts that lie side by side in the file: one index of the outer axes, some of the next."""
        extents = self.stored.extents
        inner = 8 * extents["x"] * extents["coil"] * math.prod(self.shape)
        for outer, n in enumerate(self.shape):
            inner //= n
            if inner <= UNIT:
                break
        self._outer, self._step = outer, max(1, UNIT // inner)
        self._counts = [*self.shape[:outer], -(-self.shape[outer] // self._step)]
        self.units = math.prod(self._counts)

    def box(self, unit):
        """Slices of the axes of lines that a part has."""
        at = np.unravel_index(unit, self._counts)
        box = [slice(int(i), int(i) + 1) for i in at]
        first = int(at[-1]) * self._step
        box[-1] = slice(first, min(first + self._step, self.shape[self._outer]))
        return (*box, *(slice(0, n) for n in self.shape[self._outer + 1 :]))

    def unit(self, unit):
        """Samples of a part as they are stored, (x, coil, axes of lines), complex64."""
        if self._kept[0] == unit:
            return self._kept[1]
        stored = self.stored
        box = dict(zip(self.axes, self.box(unit)))
        try:
            samples = stored.data[tuple(box.get(name, slice(None)) for name in stored.axes)]
        except UNREADABLE as error:
            raise _unreadable(error) from None
        samples = plain(samples, stored.pairs)
        order = [stored.axes.index(name) for name in ("x", "coil", *self.axes) if name in stored.axes]
        samples = samples.transpose(order)
        if "coil" not in stored.axes:
            samples = samples[:, None]
        self._kept = unit, samples
        return samples

    def measured(self):
        """Which lines have samples, by the axes of the file."""
        bits = np.frombuffer(self.found.lines, np.uint8)
        return np.unpackbits(bits, count=math.prod(self.shape)).astype(bool).reshape(self.shape)

    def index(self, measured, name):
        """Places of the measured lines along an axis."""
        if name not in self.axes:
            return np.zeros(np.count_nonzero(measured), int)
        return np.nonzero(measured)[self.axes.index(name)]

    def places(self, name):
        """Number of each line along y or z: its place, k = 0 moved to the middle where it is not there."""
        n = self.stored.extents[name]
        return (np.arange(n) + (n // 2 if self.found.shifted else 0)) % n

    def number(self, measured, centre):
        """Headers of the measured lines, in the order of the file."""
        runtime.check(3 * HEAD.itemsize * np.count_nonzero(measured), "the list of its lines", "is its matrix right?")
        heads = np.zeros(np.count_nonzero(measured), HEAD)
        found = self.found
        heads["number_of_samples"] = found.last - found.first + 1
        heads["center_sample"] = centre - found.first
        heads["active_channels"] = heads["available_channels"] = self.stored.extents["coil"]
        for step, name in ((1, "y"), (2, "z")):
            heads[f"kspace_encode_step_{step}"] = self.places(name)[self.index(measured, name)]
        for name, counter in _COUNTERS.items():
            heads[counter] = self.index(measured, name)
        self._at = np.nonzero(measured)
        count = [self._at[axis] for axis in range(self._outer)]
        self._of = np.ravel_multi_index([*count, self._at[self._outer] // self._step], self._counts)
        return heads

    def read(self, numbers):
        """Lines of these numbers, which grow."""
        extents = self.stored.extents
        block = np.empty((extents["x"], extents["coil"], len(numbers)), np.complex64, order="F")
        units = self._of[numbers]
        for unit in np.unique(units):
            at = np.flatnonzero(units == unit)
            box = self.box(unit)
            inside = tuple(i[numbers[at]] - b.start for i, b in zip(self._at, box))
            block[:, :, at] = self.unit(unit)[(slice(None), slice(None), *inside)]
        if self.stored.transformed:
            block = to_kspace(block, (0,), overwrite=True)
        measured = block[self.found.first : self.found.last + 1]
        return Block(np.asarray(numbers), np.asfortranarray(measured))


def plain(samples, pairs=False):
    """complex64 of what a file holds, parts side by side or as fields; real numbers stay as they are."""
    samples = np.asarray(samples)
    if samples.dtype.kind in "biuf" and not pairs:
        return samples
    if not samples.dtype.names and not pairs:
        with np.errstate(over="ignore"):  # what is too large is not finite then, and refused
            return samples.astype(np.complex64, copy=False)
    names = sorted(samples.dtype.names or (), reverse=True)
    real, imag = (samples[name] for name in names) if names else (samples[..., ::2], samples[..., 1::2])
    made = np.empty(real.shape, np.complex64)
    with np.errstate(over="ignore"):
        made.real, made.imag = real, imag
    return made


@dataclass
class Block:
    """Lines that have been read, (sample, coil, line)."""

    numbers: np.ndarray
    lines: np.ndarray

    def samples(self, number):
        """Those of one line, (sample, coil)."""
        return self.lines[:, :, np.searchsorted(self.numbers, number)]

    def put(self, numbers, *, x, array, offsets, coil_axis, turn, add):
        """Put lines to where they start in an array, from sample `x` on."""
        from ._raw import put

        at = np.searchsorted(self.numbers, numbers)
        lines = self.lines if at.size == self.numbers.size else np.asfortranarray(self.lines[:, :, at])
        if at.size:
            put(lines, array, offsets=offsets, coil_axis=coil_axis, turn=(turn + int(x[0])) % array.shape[0], add=add)


# ---- Calibration in a file of its own ------------------------------------------------------------


def joined(scan, calibration, part=None, skip=()):
    """A scan and what calibrates it, as one `Opened`; `part` and `skip` are those of `survey`.

    Calibration lines of the scan itself that complete its images stay, a calibration scan in it is left out.
    """
    found = survey(scan.encodings, scan.heads, part, skip)
    first, second = scan.heads.copy(), calibration.heads.copy()
    flagged = first["flags"] & (CALIBRATION | CALIBRATION_AND_IMAGING) != 0
    first["flags"][flagged & (found.role == IMAGING)] &= ~CALIBRATION
    first["flags"][flagged & (found.role != IMAGING)] |= NOT_IMAGING
    second = second[second["flags"] & (NOT_IMAGING | NOISE) == 0]
    kept = np.flatnonzero(calibration.heads["flags"] & (NOT_IMAGING | NOISE) == 0)
    second["flags"] = CALIBRATION
    second["encoding_space_ref"] += len(scan.encodings)
    encodings, told = list(calibration.encodings), calibration.told
    if not calibration.stated:
        encodings = [replace(e, encoded_fov=scan.encodings[0].encoded_fov) for e in encodings]
        told = ("it has no field of view; that of the scan is taken",)
    return replace(
        scan,
        file=_Both(scan.file, calibration.file, len(first), kept),
        encodings=[*scan.encodings, *encodings],
        heads=np.concatenate([first, second]),
        told=(*scan.told, *(f"calibration: {text}" for text in told)),
    )


class _Both:
    """Lines of two files, those of the second one counted on."""

    def __init__(self, first, second, count, kept):
        self._files, self._count, self._kept = (first, second), count, kept
        self.header = first.header

    def read(self, numbers):
        numbers = np.asarray(numbers)
        at = np.searchsorted(numbers, self._count)
        of_second = self._kept[numbers[at:] - self._count]
        return _Blocks([file.read(n) for file, n in zip(self._files, (numbers[:at], of_second))], self)

    def own(self, numbers):
        """Which file a number is of, and its number there."""
        second = np.asarray(numbers) >= self._count
        return second, np.where(second, self._kept[(numbers - self._count) * second], numbers)


class _Blocks:
    def __init__(self, blocks, both):
        self._blocks, self._both = blocks, both

    def samples(self, number):
        second, own = self._both.own(np.array([number]))
        return self._blocks[int(second[0])].samples(int(own[0]))

    def put(self, numbers, *, x, array, offsets, coil_axis, turn, add):
        second, own = self._both.own(numbers)
        for block, at in zip(self._blocks, (~second, second)):
            if at.any():
                block.put(
                    own[at], x=x[at], array=array, offsets=offsets[at], coil_axis=coil_axis, turn=turn, add=add[at]
                )
