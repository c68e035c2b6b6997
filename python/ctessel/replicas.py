"""Standard deviation of images over replicas of their noise, and images in this unit."""

import numpy as np

#: Replicas of an image: each standard deviation has a relative error of 1 / sqrt(4 REPLICAS).
REPLICAS = 100
#: Noise relative to the lines if the covariance is unknown: so small that images change linearly.
FAINT = 1e-3


def spread(operator, frame, covariance=None, *, replicas=REPLICAS, together=1, seed=0):
    """Standard deviation of the image that an operator makes, over replicas of the lines' noise.

    Parameters
    ----------
    operator : callable
        Takes lines of several repetitions. Its image, ``(x, y, z, 1, repetition)``, has the same
        repetitions, and is linear near `frame`.
    frame : ndarray of complex64, ``(x, y, z, coil, 1, 1)``
        Lines; the noise is that of the samples that are not 0.
    covariance : ndarray of complex64, ``(coil, coil)``, optional
        Of the noise of a sample. By default the identity.
    replicas : int, optional
    together : int, optional
        Repetitions that the operator gets in one call.
    seed : int or sequence of int, optional
        Of the noise: the same result each time.

    Returns
    -------
    ndarray of float64, ``(x, y, z)``
        That of the complex value.
    """
    factor, unit = np.eye(frame.shape[3], dtype=np.complex64), 1.0
    if covariance is None:
        unit = FAINT * float(np.sqrt(np.mean(np.abs(frame) ** 2))) or 1.0
    else:
        factor = np.linalg.cholesky(covariance.astype(complex)).astype(np.complex64)
    random, image, power = np.random.default_rng(seed), operator(frame), 0.0
    for start in range(0, replicas, together):
        noise = drawn(random, (*frame.shape[:5], min(together, replicas - start)), factor, unit)
        made = operator(np.asfortranarray(frame + noise * (frame != 0), np.complex64))
        power = power + (np.abs(made - image, dtype=np.float64) ** 2).sum((3, 4))
    return np.sqrt(power / replicas) / unit


def drawn(random, shape, factor, unit=1.0):
    """Noise of lines, ``(x, y, z, coil, echo, repetition)``, with the covariance `factor factor^H`."""
    white = random.standard_normal((2, *shape), np.float32) * np.float32(0.5**0.5 * unit)
    return np.einsum("cd,xyzden->xyzcen", factor, white[0] + 1j * white[1], optimize=True)


def in_units(image, sd):
    """Images ``(x, y, z, ...)`` divided by the standard deviations of their voxels; 0 where these are 0."""
    scale = np.divide(1, sd, out=np.zeros(sd.shape), where=sd > 0).astype(np.float32)
    image *= scale.reshape(scale.shape + (1,) * (image.ndim - scale.ndim))
    return image
