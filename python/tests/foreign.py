"""Raw data files as others write them: by h5py alone, with nothing of ours, or by the format's own tools."""

import shutil
import subprocess

import h5py
import numpy as np
import pytest

IDX = np.dtype([
    *((name, "<u2") for name in ("kspace_encode_step_1", "kspace_encode_step_2", "average", "slice", "contrast",
                                 "phase", "repetition", "set", "segment")), ("user", "<u2", 8),
])  # fmt: skip
HEAD = np.dtype([
    ("version", "<u2"), ("flags", "<u8"), ("measurement_uid", "<u4"), ("scan_counter", "<u4"),
    ("acquisition_time_stamp", "<u4"), ("physiology_time_stamp", "<u4", 3), ("number_of_samples", "<u2"),
    ("available_channels", "<u2"), ("active_channels", "<u2"), ("channel_mask", "<u8", 16), ("discard_pre", "<u2"),
    ("discard_post", "<u2"), ("center_sample", "<u2"), ("encoding_space_ref", "<u2"),
    ("trajectory_dimensions", "<u2"), ("sample_time_us", "<f4"), ("position", "<f4", 3), ("read_dir", "<f4", 3),
    ("phase_dir", "<f4", 3), ("slice_dir", "<f4", 3), ("patient_table_position", "<f4", 3), ("idx", IDX),
    ("user_int", "<i4", 8), ("user_float", "<f4", 8),
])  # fmt: skip
FLOATS = h5py.vlen_dtype(np.dtype("<f4"))
RECORD = np.dtype([("head", HEAD), ("traj", FLOATS), ("data", FLOATS)])

HEADER = """<?xml version="1.0"?><ismrmrdHeader xmlns="http://www.ismrm.org/ISMRMRD">
<experimentalConditions><H1resonanceFrequency_Hz>128000000</H1resonanceFrequency_Hz></experimentalConditions>
<encoding><trajectory>cartesian</trajectory>
<encodedSpace><matrixSize><x>{nx}</x><y>{ny}</y><z>1</z></matrixSize>
<fieldOfView_mm><x>{nx}</x><y>{ny}</y><z>5</z></fieldOfView_mm></encodedSpace>
<reconSpace><matrixSize><x>{nx}</x><y>{ny}</y><z>1</z></matrixSize>
<fieldOfView_mm><x>{nx}</x><y>{ny}</y><z>5</z></fieldOfView_mm></reconSpace>
<encodingLimits><kspace_encoding_step_1><minimum>0</minimum><maximum>{last}</maximum><center>{centre}</center>
</kspace_encoding_step_1></encodingLimits></encoding>
<sequenceParameters><TR>{tr}</TR><TE>{te}</TE></sequenceParameters></ismrmrdHeader>"""


def header(nx, ny, tr="500", te="5"):
    return HEADER.format(nx=nx, ny=ny, last=ny - 1, centre=ny // 2, tr=tr, te=te)


def record(samples, number, **fields):
    """One line; `samples` are (coil, sample), `number` is its place along y."""
    line = np.zeros(1, RECORD)
    coils, n = samples.shape
    fields = {"number_of_samples": n, "active_channels": coils, "available_channels": coils,
              "center_sample": n // 2, "kspace_encode_step_1": number, "version": 1, **fields}  # fmt: skip
    for name, value in fields.items():
        (line["head"] if name in HEAD.names else line["head"]["idx"])[name] = value
    line["traj"][0] = np.zeros(0, "<f4")
    line["data"][0] = np.ascontiguousarray(samples, "<c8").view("<f4").ravel()
    return line[0]


def image(nx, ny, coils=2, seed=0):
    """k-space (coil, y, x) of blocks, k = 0 at ``n // 2``."""
    rng = np.random.default_rng(seed)
    blocks = np.kron(rng.random((coils, 4, 4)), np.ones((1, -(-ny // 4), -(-nx // 4))))[:, :ny, :nx]
    return np.fft.fftshift(np.fft.fft2(np.fft.ifftshift(blocks, (1, 2))), (1, 2)).astype(np.complex64)


def records(kspace, **fields):
    return [record(kspace[:, y], y, **fields) for y in range(kspace.shape[1])]


def write(path, lines, text, group="dataset", kind=None):
    """`kind` is h5py's type of the header: by default a list of one byte string of variable length."""
    with h5py.File(path, "w") as file:
        kind = kind or h5py.string_dtype("ascii")
        file.create_dataset(f"{group}/xml", data=np.array([text.encode()], dtype=kind))
        count = len(lines)
        data = file.create_dataset(f"{group}/data", (count,), RECORD, maxshape=(None,), chunks=(max(1, count),))
        if lines:
            data[:] = np.array(lines, RECORD)
    return path


def reconstructed(path, options):
    """A phantom of the format's own tools, and the image that they make of it; (x, y)."""
    if not shutil.which("ismrmrd_recon_cartesian_2d"):
        pytest.skip("ismrmrd-tools is not installed")
    for command in (f"generate_cartesian_shepp_logan {options} -o {path.name}", f"recon_cartesian_2d {path.name}"):
        subprocess.run(f"ismrmrd_{command}".split(), cwd=path.parent, check=True, stdout=subprocess.DEVNULL)
    with h5py.File(path) as file:
        return file["dataset/cpp/data"][0, 0, 0].T
