"""The command ``ctessel convert``: k-space between ISMRMRD and BART, images of ISMRMRD files to NIfTI.

A BART pair holds only samples. The ISMRMRD header goes to NAME.xml beside it, and is read from there. A note
names everything that is lost.
"""

import contextlib
import os
import xml.etree.ElementTree as ElementTree
from dataclasses import replace
from pathlib import Path

import numpy as np

from . import _ismrmrd, files, formats, nifti, raw, runtime, send, stored, stream
from .acquisitions import CALIBRATION, HEADER, IGNORED, IMAGING, DefectError
from .scan import Limit, Placement, printable

_NAMESPACE = "http://www.ismrm.org/ISMRMRD"
_IMAGE_COUNTERS = ("slice", "contrast", "repetition", "phase", "set", "average")


def convert(source, target, group="dataset", **given):
    """Write a file in another format.

    Parameters
    ----------
    source, target : str or path
        The ending of the target selects its format: .h5 or .mrd is ISMRMRD, .nii or .nii.gz are images as
        NIfTI, .cfl or no ending is a BART pair.
    group : str, optional
        Group of an HDF5 file that holds the data.
    **given
        What the source does not say, see `ctessel.raw.read`.

    Returns
    -------
    notes : list of str
        What was kept and what was lost, one line each.
    warnings : list of str

    Raises
    ------
    ValueError
        The source cannot be used, or has nothing that the target can hold.
    """
    source, target = os.fspath(source), os.fspath(target)
    if target.endswith((".nii", ".nii.gz")):
        return _images_to_nifti(source, Path(target), group), []
    found = raw.contents(source, group=group, **given)
    shape = found.scan.shape
    slab = 8 * int(np.prod(shape, dtype=float)) // shape[4]
    runtime.check(2 * slab, f"{source}: converting it", "use a machine with more memory")
    if target.endswith((".h5", ".hdf5", ".mrd")):
        if found.format == "ISMRMRD":
            raise ValueError(f"{source}: is an ISMRMRD file already; name a BART pair, NAME.cfl")
        notes = _to_ismrmrd(found, target, group)
    elif os.path.splitext(target)[1] in ("", ".cfl", ".hdr"):
        notes = _to_pair(found, os.path.splitext(target)[0])
    else:
        raise ValueError(f"{target}: expected a name that ends in .cfl, .h5, .mrd, .nii or .nii.gz")
    return [*notes, *_lost(found)], raw.layout(found).warnings


# ---- k-space -------------------------------------------------------------------------------------


def _to_pair(found, base):
    source, name = raw.Source(found), os.path.basename(base)
    if os.path.exists(f"{base}.cfl") and os.path.samefile(f"{base}.cfl", found.path):
        raise ValueError(f"{base}.cfl: is the file to convert; name another one")
    notes = [f"kept: the header, in {name}.xml"]
    with files.Staged() as staged:
        x, y, z, coils, slices, echoes, repetitions = source.layout.shape
        with _pair(staged, base, (x, y, z, coils, echoes, repetitions, slices)) as samples:
            for index in range(slices):
                samples[..., index] = source.frames(index, slice(0, repetitions))
        staged.path(f"{base}.xml").write_bytes(_pair_header(found))
        if source.layout.calibration:
            notes.append(f"kept: the calibration scan, in {name}_calibration.cfl; for --calibration")
            _write_calibration(staged, f"{base}_calibration", source)
        if source.layout.noise is not None:
            notes.append(f"kept: the noise scan, in {name}_noise.cfl, which ctessel recon does not read")
            noise = source.layout.noise
            with _pair(staged, f"{base}_noise", (noise.shape[0], 1, 1, noise.shape[1])) as samples:
                samples[:, 0, 0, :, 0, 0, 0] = noise
        staged.commit()
    return notes


def _write_calibration(staged, base, source):
    """The separate calibration as a pair with its own header."""
    extents, header = source.layout.calibration, source.layout.header
    slices = extents[4]
    with _pair(staged, base, (*extents[:4], 1, 1, slices)) as samples:
        for index in range(slices):
            samples[..., 0, 0, index] = source.separate(index)
    own = stored.plain_header(extents[:3], header.calibration_fov or header.encoded_fov)
    text = _ismrmrd.header_text(own, coils=extents[3], counts={"slice": slices})
    staged.path(f"{base}.xml").write_text(text)


@contextlib.contextmanager
def _pair(staged, base, shape):
    """A new BART pair: its samples as a memory map, (x, y, z, coil, echo, repetition, slice) or fewer."""
    shape = (*shape, *(1,) * (7 - len(shape)))
    dims = [1] * 16
    for axis, n in zip((0, 1, 2, 3, 5, 10, 13), shape):
        dims[axis] = n
    staged.path(f"{base}.hdr").write_text(f"# Dimensions\n{' '.join(map(str, dims))} \n")
    name = staged.path(f"{base}.cfl")
    with open(name, "wb") as file:  # if the disk is full, writing to a map of a sparse file would end the process
        os.posix_fallocate(file.fileno(), 0, 8 * int(np.prod(shape, dtype=float)))
    samples = np.memmap(name, "<c8", "r+", shape=shape, order="F")
    yield samples
    samples.flush()


def _pair_header(found):
    """ISMRMRD header of a scan, with the line numbers of the pair."""
    text = getattr(found.file, "header", None)
    if not text:
        counts = dict(zip(("slice", "contrast", "repetition"), found.scan.shape[4:]))
        return _ismrmrd.header_text(found.header, coils=found.scan.shape[3], counts=counts).encode()
    ElementTree.register_namespace("", _NAMESPACE)
    root = ElementTree.fromstring(text)
    encodings = root.findall("{*}encoding")
    space = int(found.headers["encoding_space_ref"][found.role == IMAGING][0])
    for number, encoding in enumerate(encodings):
        if number != space:
            root.remove(encoding)
    for axis, name in ((1, "y"), (2, "z")):
        _renumber(encodings[space], f"kspace_encoding_step_{axis}", found.header.limits[name], found.scan.shape[axis])
    return ElementTree.tostring(root, encoding="utf-8", xml_declaration=True)


def _renumber(encoding, name, limit, extent):
    """Move the limits of an axis so that k = 0 is line ``extent // 2``."""
    limits = encoding.find("{*}encodingLimits")
    if limits is None:
        limits = ElementTree.SubElement(encoding, f"{{{_NAMESPACE}}}encodingLimits")
    found = limits.find("{*}" + name)
    if found is None:
        found = ElementTree.SubElement(limits, f"{{{_NAMESPACE}}}{name}")
    found.clear()
    away = extent // 2 - limit.center
    for part, number in vars(limit).items():
        ElementTree.SubElement(found, f"{{{_NAMESPACE}}}{part}").text = str(max(0, number + away))


def _to_ismrmrd(found, target, group):
    source, layout = raw.Source(found), raw.layout(found)
    text = getattr(found.file, "header", None) or _pair_header(replace(found, header=_renumbered(found)))
    separate = layout.calibration and stored.plain_header(
        layout.calibration[:3], layout.header.calibration_fov or layout.header.encoded_fov
    )
    if separate:
        text = _ismrmrd.with_calibration(text, separate)
    notes = [f"kept: the header, in {os.path.basename(target)}"]
    with files.Staged() as staged:
        name = os.fsencode(staged.path(target))
        try:
            writer = raw.binding(target).Writer(name, os.fsencode(group), text)
            for header, samples in _acquisitions(source, found.header.limits["x"]):
                writer.append(np.frombuffer(header.tobytes(), np.uint8), np.asfortranarray(samples))
            writer.close()
        except RuntimeError as error:
            raise ValueError(f"{target}: cannot be written ({error}); check folder and free space") from None
        staged.commit()
    return notes


def _renumbered(found):
    """The header, lines numbered from the first one of the matrix."""
    limits = {**found.header.limits}
    for axis, name in ((1, "y"), (2, "z")):
        limit, n = limits[name], found.scan.shape[axis]
        away = n // 2 - limit.center
        limits[name] = Limit(max(0, limit.minimum + away), limit.maximum + away, n // 2)
    return replace(found.header, limits=limits)


def _acquisitions(source, readout):
    """Headers and samples of all measured lines, slice by slice."""
    layout = source.layout
    measured = slice(readout.minimum, readout.maximum + 1)
    for index in range(layout.shape[4]):
        if layout.calibration:
            samples = source.separate(min(index, layout.calibration[4] - 1))
            for y, z in np.argwhere((samples != 0).any((0, 3))):
                at = {"slice": index, "flags": CALIBRATION, "encoding_space_ref": 1}
                yield _header(y, z, len(samples) // 2, **at), samples[:, y, z]
        frames = source.frames(index, slice(0, layout.shape[6]))
        for repetition, echo, z, y in np.argwhere(layout.lines[:, :, index].transpose(3, 2, 1, 0)):
            centre = layout.shape[0] // 2 - readout.minimum
            header = _header(y, z, centre, slice=index, contrast=echo, repetition=repetition)
            yield header, frames[measured, y, z, :, echo, repetition]


def _header(y, z, centre, **fields):
    header = np.zeros((), HEADER)
    fields = {"version": 1, "kspace_encode_step_1": y, "kspace_encode_step_2": z, "center_sample": centre, **fields}
    for name, value in fields.items():
        header[name] = value
    return header


def _lost(found):
    """What the other file cannot hold."""
    headers, times = found.headers, found.scan.times
    lost = {
        "where slices lie": bool(found.header.placements),
        "times of measurement": bool(headers["acquisition_time_stamp"].any()),
        "averages: the mean was written": bool((times > 1).any()),
        "which lines the file calls calibration": bool(found.flagged.any()),
        f"{int((found.role == IGNORED).sum())} acquisitions without images": bool((found.role == IGNORED).any()),
    }
    return [f"lost: {what}" for what, is_lost in lost.items() if is_lost]


# ---- Images --------------------------------------------------------------------------------------


def _images_to_nifti(source, target, group):
    try:
        series, name = _series(source, group)
    except DefectError as error:
        raise ValueError(f"{source}: {error}") from None
    except (*stored.UNREADABLE, IndexError) as error:
        text = " ".join(str(error).split())[:160]
        raise ValueError(f"{source}: its images cannot be read ({text}); write them again") from None
    notes = [f"the images of the group {name}"]
    pixels = series[0][2]
    if np.iscomplexobj(pixels):
        notes.append("lost: the phase of complex images")
    if pixels.shape[3] > 1:
        notes.append(f"lost: all of {pixels.shape[3]} channels but the first")
    series, more = _counted(series)
    volumes = send.assembled(series)
    try:
        matrix, known = _affine(series, volumes.shape)
    except ValueError as error:
        raise ValueError(f"{source}: {error}") from None
    with files.Staged() as staged:
        sidecar = {"Sources": [printable(source)], "ImageType": "magnitude"}
        path = staged.path(target)
        nifti.write(path, volumes, matrix, known, 0.0, sidecar, staged.path(nifti.sidecar_path(target)))
        staged.commit()
    lost = [] if known else ["the file has no positions of slices: axial slices at the isocentre are assumed"]
    return [*notes, *more, *lost]


def _series(path, group):
    """Images of a group: (header, attributes, pixels ``(x, y, z, channel)``) each; and the group's name."""
    import h5py

    with h5py.File(path, "r") as file:
        groups = []
        file.visititems(lambda name, item: groups.append(name) if _holds_images(item) else None)
        if not groups:
            raise DefectError("holds no images", "ctessel recon makes them from k-space")
        chosen = [name for name in groups if name == group.strip("/")] or groups
        if len(chosen) > 1:
            raise DefectError("holds images in several groups", f"name one with --group: {', '.join(groups)}")
        found = file[chosen[0]]
        headers, data = found["header"][()], found["data"]
        if data.ndim != 5 or len(headers) != len(data) or not len(headers):
            raise DefectError("its images are not (image, channel, z, y, x) with a header each", "write them again")
        formats.check_stored(data)
        pixels = [stored.plain(data[i]).transpose(3, 2, 1, 0) for i in range(len(headers))]
        return [
            (header, _attributes(found, i), image) for i, (header, image) in enumerate(zip(headers, pixels))
        ], chosen[0]


def _holds_images(item):
    import h5py

    names = ("header", "data")
    if not isinstance(item, h5py.Group) or not all(isinstance(item.get(name), h5py.Dataset) for name in names):
        return False
    return "matrix_size" in (item["header"].dtype.names or ())


def _attributes(group, index):
    with contextlib.suppress(KeyError, IndexError, OSError, TypeError, ValueError):
        text = group["attributes"][index]
        return stream.parse_attributes(text if isinstance(text, bytes) else str(text).encode()) or {}
    return {}


def _counted(series):
    """Images with unique counters, slices in the order of their positions; and notes."""
    headers = [header.copy() for header, _, _ in series]
    counters = np.array([[int(header[name]) for name in _IMAGE_COUNTERS] for header in headers])
    counters = np.stack([np.unique(column, return_inverse=True)[1] for column in counters.T], 1)
    notes = []
    if len(np.unique(counters, axis=0)) < len(counters):
        notes = ["the counters do not distinguish the images: they become repetitions"]
        counters[:] = 0
        counters[:, 2] = np.arange(len(counters))
    for name, extent in (("phase", 3), ("set", 4), ("average", 5)):
        counters[:, 2] = counters[:, 2] * (counters[:, extent].max() + 1) + counters[:, extent]
    along = [float(header["position"] @ headers[0]["slice_dir"]) for header in headers]
    slices = counters[:, 0]
    first = [along[int(np.flatnonzero(slices == s)[0])] for s in range(slices.max() + 1)]
    rank = np.argsort(np.argsort(first, kind="stable"))
    for header, numbers in zip(headers, counters):
        header["slice"], header["contrast"], header["repetition"] = rank[numbers[0]], numbers[1], numbers[2]
    return [(header, *rest) for header, (_, *rest) in zip(headers, series)], notes


def _affine(series, shape):
    """Affine of the images, and whether the file has their positions."""
    by_slice = {int(header["slice"]): header for header, _, _ in series}
    headers = [by_slice[index] for index in sorted(by_slice)]
    field = [float(n) for n in headers[0]["field_of_view"]]
    field = [f if 0 < f < np.inf else float(n) for f, n in zip(field, shape)]
    directions = ("read_dir", "phase_dir", "slice_dir")
    known = all(np.any(header[name]) for header in headers for name in directions)
    places = [Placement(*(header[name].astype(float) for name in ("position", *directions))) for header in headers]
    header = stored.plain_header(shape[:3], field)
    return nifti.affine(replace(header, placements=places if known else []), shape[:4], field)
