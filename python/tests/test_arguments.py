"""Wrong arguments: an error that names the argument, what was expected and what was got."""

import numpy as np
import pytest
from conftest import random_complex, same_bits
from kernels import CALLS
from kernels import DATA as LARGE

import ctessel
from ctessel import homodyne

DATA = random_complex((4, 6, 2, 3))
HUGE = np.lib.stride_tricks.as_strided(np.zeros(1, np.complex64), (2**31, 1, 1, 1), (0, 0, 0, 0))
FLAT = np.broadcast_to(np.complex64(1), (4, 6, 2, 3))  # read-only
FOLDED = random_complex((4, 6, 2))
ONES = np.ones((14, 12)), np.ones((14, 12)), np.ones(17)

COUNT = np.arange(LARGE.size).reshape(LARGE.shape)
SENSE = {"folded": DATA, "sens": DATA}
NOISE = {"sensitivities": DATA, "full_size": (4, 6, 2), "fold_size": (4, 3, 2)}
GEOMETRY = dict.fromkeys("xyz", np.ones(1, np.float32)) | dict(zip(("coeff_x", "coeff_y", "coeff_z"), ONES), r0=1)


@pytest.mark.parametrize("call, good", [*CALLS.values(), (ctessel.sa, {"data": DATA})], ids=[*CALLS, "sa"])
def test_every_array_argument_is_checked(call, good):
    call(**good)
    for name in (n for n in good if isinstance(good[n], np.ndarray)):
        for bad, error, got in [
            (["a"], TypeError, "got list"),
            (None, TypeError, "got None"),
            (np.array([{}]), TypeError, "got an array of object"),
            (np.ma.masked_array(DATA, DATA.real > 0), TypeError, "got a masked array"),
            (np.zeros((), np.complex64), ValueError, r"got shape \(\)"),
            (HUGE, ValueError, "got 2147483648 along axis 0"),
        ]:
            with pytest.raises(error, match=f"^{name}: expected .*{got}"):
                call(**{**good, name: bad})


@pytest.mark.parametrize("call, good, bad, message", [
    (ctessel.fftshift, {"data": DATA}, {"axes": 4}, "axes: .* -4 to 3, got 4"),
    (ctessel.fftshift, {"data": DATA}, {"axes": 1.0}, "axes: .* got float 1.0"),
    (ctessel.fftshift, {"data": DATA}, {"axes": (0, "x")}, "axes: .* got str 'x'"),
    (ctessel.fftshift, {"data": DATA}, {"threads": 0}, "threads: .* got 0"),
    (ctessel.fftshift, {"data": DATA}, {"threads": 2.5}, "threads: .* got float 2.5"),
    (ctessel.fftshift, {"data": FLAT}, {"inplace": True}, "data: .* writable .* read-only"),
    (ctessel.fftshift, {"data": DATA}, {"out": DATA[1:]}, r"out: expected shape \(4, 6, 2, 3\), got"),
    (ctessel.fftshift, {"data": DATA}, {"out": DATA, "inplace": True}, "out: expected None"),
    (ctessel.fftshift, {"data": DATA}, {"out": DATA.real.copy()}, "out: .* complex64, got"),
    (ctessel.ifftshift, {"data": DATA[:2]}, {"out": DATA[1:3]}, "out: .* shares memory"),
    (ctessel.zero_pad, {"data": DATA}, {"shape": (8, 5)}, r"shape\[1\]: .* from 6 .* got 5"),
    (ctessel.zero_pad, {"data": DATA}, {"shape": (2**31,)}, r"shape\[0\]: .* got 2147483648"),
    (ctessel.zero_pad, {"data": DATA}, {"shape": (8, 8, 8, 8)}, "shape: expected 1 to 3 .* got 4"),
    (ctessel.zero_pad, {"data": DATA}, {"shape": (2**29,) * 3}, r"shape: expected at most 10\^18 samples"),
    (ctessel.zero_pad, {"data": DATA}, {"shape": (8.5,)}, r"shape\[0\]: .* got float 8.5"),
    (ctessel.ringing_filter, {"data": DATA}, {"strength": (0.1, 0.2)}, "strength: expected 3 values, got 2"),
    (ctessel.ringing_filter, {"data": DATA}, {"strength": np.nan}, "strength: .* finite .* got nan"),
    (ctessel.ringing_filter, {"data": DATA, "strength": 0}, {"width": (4, -6, 2)}, r"width\[1\]: .* got -6"),
    (ctessel.sos, {"data": DATA}, {"axis": -5}, "axis: .* got -5"),
    (ctessel.sense_recon, SENSE, {"sens": DATA[..., :2]}, "sens: expected extent 3 along axis 3"),
    (ctessel.sense_recon, SENSE, {"psi": np.eye(2, dtype=np.complex64)}, "psi: expected extent 3"),
    (ctessel.sense_recon, SENSE, {"full_size": (4, 5, 2)}, r"full_size\[1\]: .* at least .* 6, got 5"),
    (ctessel.sense_recon, SENSE, {"full_size": (8, 6, 2)}, r"full_size\[0\]: .* 4, got 8"),
    (ctessel.sense_recon, SENSE, {"reg": DATA[..., 0]}, "ref: expected an array beside reg"),
    (ctessel.sense_recon, SENSE, {"ref": DATA, "reg": FOLDED, "out": FOLDED}, "out: .* shares memory"),
    (ctessel.sense_recon, SENSE, {"folded": DATA[:, :0]}, "folded: expected at least one sample"),
    (ctessel.sense_recon, SENSE, {"aliases": [(0, 0), (0, 1)]}, r"aliases: .* every voxel .* once, got 2 that do not"),
    (ctessel.sense_recon, SENSE, {"aliases": [(0, 0), (0.5, 1)]}, r"aliases\[1\]\[0\]: .* got float 0.5"),
    (ctessel.sense_recon, SENSE, {"aliases": []}, "aliases: expected 1 to .* got 0"),
    (ctessel.sense_recon, SENSE, {"aliases": [(0, 0)] * 2, "full_size": (4, 12, 2)}, "sens: expected extent 12 along axis 1"),
    (ctessel.sense_noise, NOISE, {"sensitivities": np.ones(3)}, "sensitivities: expected from 4 to 6 dimensions"),
    (ctessel.sense_noise, NOISE, {"sensitivities": np.ones((2, 0, 1, 2))}, "sensitivities: expected at least one sample"),
    (ctessel.sense_noise, NOISE, {"fold_size": (4, 9, 2)}, r"full_size\[1\]: .* at least .* 9, got 6"),
    (ctessel.sense_noise, NOISE, {"fold_size": (4, 4)}, "fold_size: expected 3 values, got 2"),
    (ctessel.sense_noise, NOISE, {"fold_size": (4, 4, 0)}, r"fold_size\[2\]: .* got 0"),
    (ctessel.sense_noise, NOISE, {"psi": np.eye(2)}, "psi: expected extent 3"),
    (ctessel.sense_noise, NOISE, {"mask": np.ones((4, 4, 2))}, "mask: expected extent 6 along axis 1"),
    (ctessel.sense_noise, NOISE, {"reg": np.ones((4, 6, 2)), "weight": 0}, "weight: expected a number above 0, got 0"),
    (homodyne.filter, {"data": DATA}, {"kx": 3}, "kx: .* got int 3"),
    (homodyne.filter, {"data": DATA}, {"ky": (1, 2, 3)}, "ky: expected 2 values, got 3"),
    (homodyne.filter, {"data": DATA}, {"kz": (1, 2j)}, r"kz\[1\]: .* real number, got complex"),
    (homodyne.filter, {"data": DATA}, {"data": DATA[..., :0]}, "data: expected at least one sample"),
    (homodyne.multiply, {"data": DATA}, {"low": DATA[..., :2]}, "low: expected extent 3 along axis 3"),
    (homodyne.multiply, {"data": DATA}, {"low": DATA[0]}, "low: expected 4 dimensions"),
    (homodyne.multiply, {"data": DATA}, {"low": DATA[:, :, ::-1], "inplace": True}, "low: .* shares memory"),
    (ctessel.geometry_correction, GEOMETRY, {"y": np.zeros((5, 2), np.float32)}, "y: expected the shape of x"),
    (ctessel.geometry_correction, GEOMETRY, {"r0": 0}, "r0: expected a radius above 0"),
    (ctessel.geometry_correction, GEOMETRY, {"coeff_y": ONES[2]}, r"coeff_y: .* at most \(14, 12\), got shape \(17,\)"),
    (ctessel.find, {"array": np.arange(3)}, {"value": 1}, "array: .* got an array of int64"),
    (ctessel.sub2ind, {"dims": (2, 3)}, {"sub": (1,)}, "sub: expected 2 entries, got 1"),
    (ctessel.sub2ind, {"dims": (2**20, 2**20, 2**20)}, {"sub": (0, 0, 1)}, "dims: .* at most 2147483647"),
    (ctessel.unfolded_positions, {"full_len": 8}, {"fold_len": 9, "fold_pos": 0}, "full_len: .* from 9 .* got 8"),
    (ctessel.func_ys, dict(n=1.5, m=1, r=1, phi=1), {"r0": 1, "p": 1}, "n: expected whole numbers"),
])  # fmt: skip
def test_a_wrong_argument_is_named(call, good, bad, message):
    before = DATA.copy()
    with pytest.raises((TypeError, ValueError), match=f"^{message}"):
        call(**{**good, **bad})
    same_bits(DATA, before)


@pytest.mark.parametrize("given", [
    LARGE.astype(complex), LARGE.astype(">c8"), LARGE.real.astype(float), COUNT % 2 == 0, (COUNT % 999).astype(np.int16),
    LARGE.tolist(), np.asfortranarray(LARGE.real, ">f4"),
])  # fmt: skip
def test_other_numbers_are_converted_once(given):
    samples = np.asarray(given)
    samples = samples.astype(np.complex64 if np.iscomplexobj(samples) else np.float32)
    for call, good in CALLS.values():
        name = next(iter(good))
        same_bits(np.asarray(call(**{**good, name: given})[0]), np.asarray(call(**{**good, name: samples})[0]))
    with pytest.raises(TypeError, match="^data: expected an array of"):
        ctessel.fftshift(given, inplace=True)


def test_memory_that_there_is_not_is_named_and_other_errors_stay():
    with pytest.raises(MemoryError, match="^zero_pad: not enough memory; its arrays take [0-9]{8,} MB"):
        ctessel.zero_pad(np.ones((1, 1, 1), np.complex64), (2**20, 2**20, 2**18))

    class Broken:
        def __index__(self):
            raise LookupError("own")

    with pytest.raises(LookupError, match="own"):
        ctessel.zero_pad(DATA, (Broken(),))


@pytest.mark.parametrize("shape", [(0,), (3, 0), (0, 2, 2), (2, 2, 2, 0)])
def test_empty_arrays_stay_empty(shape):
    empty = np.zeros(shape, np.complex64)
    assert ctessel.fftshift(empty).shape == shape
    assert ctessel.ringing_filter(empty, 0.5).shape == shape
    assert ctessel.zero_pad(empty, (4,)).shape == (4,) + shape[1:]
    assert not ctessel.zero_pad(empty, (4,)).any()


def test_samples_that_are_not_aligned_are_read():
    raw = np.zeros(8 * 6 + 1, np.uint8)
    odd = raw[1:].view(np.complex64)
    odd[:] = np.arange(6)
    assert ctessel.fftshift(odd).tolist() == [3, 4, 5, 0, 1, 2]
    with pytest.raises(ValueError, match="^data: expected aligned"):
        ctessel.fftshift(odd, inplace=True)
