"""Files with the layouts of public k-space, from k-space ``[x, y, z, coil, slice, echo, repetition]``."""

import foreign
import h5py
import numpy as np
import scipy.io
from scans import axes

from ctessel import _ismrmrd, pipeline
from ctessel.scan import Header, Limit

FOV = (200.0, 180.0, 40.0)


def kspace(shape, slices=1, echoes=1, repetitions=1, coils=4, seed=0):
    """Of an object that fills half of the field, brighter from image to image; with a little noise."""
    rng = np.random.default_rng(seed)
    x, y, z = axes(shape)
    inside = x**2 / 0.4 + y**2 / 0.5 + z**2 / 0.6 < 1
    body = inside * (1 + 0.5 * (x > 0.1) * (y < 0.2)) * np.exp(0.6j * x - 0.4j * y)
    level = 1 + np.arange(slices)[:, None, None] / 4 + np.arange(echoes)[:, None] / 8 + np.arange(repetitions) / 16
    made = pipeline.to_kspace(body[..., None] * maps(shape, coils))[..., None, None, None] * level
    noise = rng.standard_normal((2, *made.shape)) * 1e-3
    return np.asfortranarray(made + noise[0] + 1j * noise[1], np.complex64)


def maps(shape, coils=4):
    """Sensitivities ``(x, y, z, coil)``."""
    x, y, z = axes(shape)
    centres = [(np.cos(2 * np.pi * c / coils), np.sin(2 * np.pi * c / coils)) for c in range(coils)]
    away = [(x - a) ** 2 + (y - b) ** 2 + (z - a * b) ** 2 for a, b in centres]
    return np.stack([np.exp(-d / 1.5 + 0.3j * c) for c, d in enumerate(away)], -1)


def keep(samples, lines):
    """k-space with zeros where lines, ``(y,)`` or ``(y, z)``, were not measured."""
    lines = np.broadcast_to(np.asarray(lines, bool).reshape(len(lines), -1), samples.shape[1:3])
    kept = samples.copy(order="F")
    kept[:, ~lines] = 0
    return kept


def header(shape, fov=FOV, recon=None, y=None, **more):
    """A header of the format ISMRMRD: as text. `recon` are voxels and field of view of the image."""
    matrix, image = recon or (shape, fov)
    limits = {name: Limit(0, n - 1, n // 2) for name, n in zip("xyz", shape)}
    made = Header(tuple(shape), fov, tuple(matrix), tuple(image), {**limits, **({"y": y} if y else {})}, **more)
    return _ismrmrd.header_text(made, coils=4, counts={})


def ismrmrd(path, samples, text=None, separate=None):
    """The reference: every line that is not zero as an acquisition; a calibration scan has the next encoding."""
    records = _records(samples)
    if separate is not None:
        records += _records(separate, encoding_space_ref=1, flags=1 << 19)
    return foreign.write(path, records, text or header(samples.shape[:3]))


def _records(samples, **fields):
    lines, measured = [], (samples != 0).any((0, 3))
    for y, z, s, e, r in np.argwhere(measured):
        at = {"kspace_encode_step_2": z, "slice": s, "contrast": e, "repetition": r}
        lines.append(foreign.record(samples[:, y, z, :, s, e, r].T, y, **at, **fields))
    return lines


def fastmri(path, samples, text, mask=None, single=False, **attributes):
    with h5py.File(path, "w") as file:
        images = samples[:, :, 0, :, :, 0, 0].transpose(3, 2, 0, 1)
        file["kspace"] = images[:, 0] if single else images
        file["ismrmrd_header"] = text.encode() if isinstance(text, str) else text
        file["reconstruction_rss"] = np.zeros((samples.shape[4], 320, 320), np.float32)
        file.attrs.update({"acquisition": "AXT2", "max": 1.0, "norm": 1.0, "patient_id": "0", **attributes})
        if mask is not None:
            file["mask"] = np.asarray(mask)
    return path


def hybrid(samples):
    """The readout transformed, as float32 formats of volumes keep it: (x, y, z, coil, slice, ...)."""
    return pipeline.to_image(samples, (0,))


def calgary(path, transformed, corner=True):
    """`transformed` is (x, y, z, coil), k = 0 of y and z in the middle."""
    stored = np.fft.ifftshift(transformed, (1, 2)) if corner else transformed
    pairs = np.stack([stored.real, stored.imag], -1).reshape(*stored.shape[:3], -1)
    with h5py.File(path, "w") as file:
        file["kspace"] = pairs.astype(np.float32)
    return path


def skmtea(path, transformed, maps=None):
    """`transformed` is (x, y, z, coil, echo), `maps` (x, y, z, coil, 1)."""
    with h5py.File(path, "w") as file:
        file["kspace"] = transformed.transpose(0, 1, 2, 4, 3)
        file["maps"] = transformed[:, :, :, :, :1] if maps is None else maps
        file["target"] = transformed[:, :, :, :1].transpose(0, 1, 2, 4, 3)
    return path


def matlab_73(path, samples, name="kspace", kind=b"single"):
    """`samples` are as MATLAB has them, of any number of axes."""
    parts = np.zeros(samples.T.shape, [("real", "<f4"), ("imag", "<f4")])
    parts["real"], parts["imag"] = samples.T.real, samples.T.imag
    with h5py.File(path, "w", userblock_size=512) as file:
        file[name] = parts
        file[name].attrs["MATLAB_class"] = np.bytes_(kind)
        file["#refs#/a"] = np.zeros(2, np.uint64)
        file["mask"] = np.ones(samples.T.shape[-2:], np.uint8)
        file["mask"].attrs["MATLAB_class"] = np.bytes_(b"logical")
    with open(path, "r+b") as file:
        file.write(b"MATLAB 7.3 MAT-file, Platform: GLNXA64".ljust(128))
    return path


def matlab_7(path, samples):
    scipy.io.savemat(path, {"kspace": samples, "notes": "none"}, do_compression=True)
    return path


def cfl(path, samples, dims=None, text=None):
    """`path` without its ending; `samples` by the axes of a scan, or with the extents `dims`."""
    if dims is None:
        x, y, z, coil, slices, echo, repetition = samples.shape
        dims = [x, y, z, coil, 1, echo, 1, 1, 1, 1, repetition, 1, 1, slices, 1, 1]
        samples = samples.transpose(0, 1, 2, 3, 5, 6, 4)
    hdr = text or f"# Dimensions\n{' '.join(map(str, dims))} \n# Command\nsomething 3 4\n"
    path.with_name(path.name + ".hdr").write_text(hdr)
    samples.astype("<c8").ravel(order="F").tofile(path.with_name(path.name + ".cfl"))
    return path
