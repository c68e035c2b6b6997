"""Centred Fourier transforms and changes of grid."""

from collections.abc import Sequence
from itertools import product

import numpy as np
from numpy.typing import ArrayLike, NDArray
from scipy import fft

from . import _core
from ._arrays import fftshift, ifftshift, zero_pad


def to_image(
    kspace: ArrayLike,
    axes: Sequence[int] = (0, 1, 2),
    threads: int | None = None,
    overwrite: bool = False,
) -> NDArray[np.complex64]:
    """Image of centred k-space: a unitary inverse transform.

    Parameters
    ----------
    kspace : array_like
        k-space, ``(x, y, z, ...)``, k = 0 at index ``N // 2`` of every transformed axis.
    axes : sequence of int, optional
        Axes to transform.
    threads : int, optional
        Threads of the transform and of the shifts, by default the OpenMP runtime's number.
    overwrite : bool, optional
        Allow `kspace` to be overwritten, which spares a copy.

    Returns
    -------
    ndarray of complex64
        Image in Fortran order, centre at ``N // 2``. Noise keeps its standard deviation.
    """
    return _transform(fft.ifftn, kspace, axes, threads, overwrite)


def to_kspace(
    image: ArrayLike,
    axes: Sequence[int] = (0, 1, 2),
    threads: int | None = None,
    overwrite: bool = False,
) -> NDArray[np.complex64]:
    """Centred k-space of an image: the inverse of `to_image`, with the same parameters."""
    return _transform(fft.fftn, image, axes, threads, overwrite)


def _transform(transform, data, axes, threads, overwrite):
    data = np.asanyarray(data)
    if data.dtype != np.complex64:
        data = data.astype(np.complex64)
    axes = tuple(axis for axis in axes if axis < data.ndim and data.shape[axis] > 1)
    if not axes:
        return np.array(data, np.complex64, order="F")
    out = _transposed(transform, _shifted(data, axes, threads, overwrite), axes, threads)
    return fftshift(out, axes, inplace=True, threads=threads)


def _shifted(data, axes, threads, overwrite):
    """Centres moved to the first samples, in an array that may be overwritten."""
    ordered = np.asfortranarray(data)
    free = (overwrite or not np.may_share_memory(ordered, data)) and ordered.flags.writeable
    return ifftshift(ordered, axes, inplace=free, threads=threads)


def _transposed(transform, data, axes, threads):
    # SciPy works and returns in C order.
    reversed_axes = tuple(data.ndim - 1 - axis for axis in axes if data.shape[axis] > 1)
    workers = threads or _core.max_threads()
    return transform(data.T, axes=reversed_axes, norm="ortho", overwrite_x=True, workers=workers).T


def unshifted_image(kspace, axes, threads=None):
    """`to_image` with k = 0 and the image's centre at the first samples; overwrites `kspace`."""
    return _transposed(fft.ifftn, kspace, axes, threads)


def unshifted_kspace(image, axes, threads=None):
    """The inverse of `unshifted_image`; overwrites `image`."""
    return _transposed(fft.fftn, image, axes, threads)


def moved(shape, axes):
    """Parts of an array with the centre at ``N // 2`` along some axes, and the place of each part when
    the centre is the first sample: pairs of indices."""
    ends = [[(slice(None),) * 2]] * len(shape)
    for axis in axes:
        centre, after = shape[axis] // 2, shape[axis] - shape[axis] // 2
        ends[axis] = [
            (slice(centre, None), slice(0, after)),
            (slice(0, centre), slice(after, None)),
        ]
    return [tuple(zip(*part)) for part in product(*ends)]


def central(n, kept):
    """Slice of the `kept` central samples of `n`: centre ``n // 2`` becomes ``kept // 2``."""
    first = n // 2 - kept // 2
    return slice(first, first + kept)


def resize(data, shape, threads=None):
    """Cut or zero-fill the leading axes around their centres ``N // 2``.

    On k-space this changes the pixel size, on images the field of view. Values are not scaled.

    Parameters
    ----------
    data : ndarray of complex64 or float32
        Any axes.
    shape : sequence of up to 3 int
        New extents of the first axes.
    threads : int, optional
        Threads of the padding.

    Returns
    -------
    ndarray
        `data` itself, or a view of it, if nothing is padded.
    """
    cut = tuple(central(n, min(n, m)) for n, m in zip(data.shape, shape))
    data = data[cut]
    if data.shape[: len(shape)] == tuple(shape):
        return data
    # The kernel puts an odd zero in front, which moves the centre from an even to an odd extent.
    odd = [axis for axis, m in enumerate(shape) if data.shape[axis] % 2 == 0 and m % 2]
    out = zero_pad(np.asfortranarray(data), shape, threads=threads)
    return np.roll(out, [-1] * len(odd), odd) if odd else out


def remove_oversampling(kspace, n, axis=0, threads=None, overwrite=False):
    """Cut the field of view along the readout to its central `n` samples.

    Parameters
    ----------
    kspace : ndarray of complex64
        Centred k-space, fully sampled along `axis`.
    n : int
        Samples that remain; the spacing of the lines grows by the ratio.
    overwrite : bool, optional
        Allow `kspace` to be overwritten.

    Returns
    -------
    ndarray of complex64
        k-space with `n` samples along `axis`. Both transforms are unitary: noise keeps its
        standard deviation.
    """
    length = kspace.shape[axis]
    if n > length:
        raise ValueError(f"n: expected at most the {length} samples along axis {axis}, got {n}")
    if n == length:
        return kspace
    lines = _shifted(kspace, (axis,), threads, overwrite)
    return fftshift(cut_unshifted(lines, n, axis, threads), (axis,), inplace=True, threads=threads)


def cut_unshifted(kspace, n, axis=0, threads=None):
    """`remove_oversampling` with the centre at the first sample; overwrites `kspace`."""
    image = unshifted_image(kspace, (axis,), threads)
    shape = kspace.shape[:axis] + (n,) + kspace.shape[axis + 1 :]
    cut = np.empty(shape, np.complex64, order="F")
    # The central samples are those at both ends.
    for part in (slice(0, n - n // 2), slice(-(n // 2), None)) if n > 1 else (slice(0, 1),):
        at = (slice(None),) * axis + (part,)
        cut[at] = image[at]
    return unshifted_kspace(cut, (axis,), threads)


def flip(data, axes):
    """Mirror axes at their centre ``N // 2``: line k becomes line -k.

    On an even axis line -N/2 has no mirror image and stays where it is.
    """
    for axis in axes:
        data = np.flip(data, axis)
        if data.shape[axis] % 2 == 0:
            data = np.roll(data, 1, axis)
    return data
