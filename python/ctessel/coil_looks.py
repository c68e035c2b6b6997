"""Statistics of the coils from the first lines of a file or a stream, for `ctessel.coil_choice`."""

from math import prod

import numpy as np

from .acquisitions import CALIBRATION, CALIBRATION_AND_IMAGING, NOISE, NOT_IMAGING
from .coil_choice import looks, nearest_and_farthest


def of_acquisitions(headers, header, read, noise, received=None):
    """Looks at the first image of each slice, of a file or a stream.

    Parameters
    ----------
    headers : ndarray of `ctessel.acquisitions.HEADER`
    header : Header
        Of the images.
    read : callable
        Samples ``(sample, coil)`` of acquisitions, by their numbers.
    noise : ndarray of complex64, ``(sample, coil)``, or None
    received : int, optional
        How many acquisitions have arrived; by default all.

    Returns
    -------
    looks : tuple of Look
    complete : bool
        The lines of every slice have arrived.
    """
    received, missing = headers.size if received is None else received, []
    first = _first_images(headers)
    if not first.size or headers["active_channels"][first[0]] < 2:
        return (), True
    centre = [header.limits[axis].center for axis in "yz"]

    def slices():
        for index in np.unique(headers["slice"][first]):
            numbers = first[headers["slice"][first] == index]
            at = np.stack([headers[f"kspace_encode_step_{step}"][numbers] for step in (1, 2)], 1).astype(int)
            parts = [numbers[part] for part in nearest_and_farthest(at - centre)]
            if max(part.max() for part in parts) < received:
                yield [lambda part=part: _together(headers, part, read(part)) for part in parts]
            else:
                missing.append(index)

    return looks(slices(), noise, prod(header.encoded_matrix)), not missing


def _first_images(headers):
    """Acquisitions of the first echo and repetition."""
    flags = headers["flags"]
    alone = (flags & CALIBRATION != 0) & (flags & CALIBRATION_AND_IMAGING == 0)
    which = (flags & (NOISE | NOT_IMAGING) == 0) & ~alone
    for name in ("contrast", "repetition", "phase", "set", "average"):
        which &= headers[name] == headers[name][which].min() if which.any() else False
    return np.flatnonzero(which)


def _together(headers, numbers, lines):
    """Lines without the samples that are marked for discarding."""
    kept = [line[headers["discard_pre"][i] : len(line) - headers["discard_post"][i]] for i, line in zip(numbers, lines)]
    least = min(map(len, kept))
    return np.stack([line[:least] for line in kept])
