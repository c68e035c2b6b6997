"""What unfolding makes of noise: against NumPy's matrices, and against replicas of noise."""

import numpy as np
import pytest
from conftest import layouts, random_complex, same_bits

import ctessel

REPLICAS = 400


def smooth_maps(shape, coils):
    """Coils around an object, an ellipsoid outside of which all maps are 0."""
    x, y, z = np.meshgrid(*(np.linspace(-1, 1, n, endpoint=False) + 1 / n for n in shape), indexing="ij")
    angle = 2.4 * np.arange(coils)
    far = (x[..., None] - np.cos(angle)) ** 2 + (y[..., None] - np.sin(angle)) ** 2
    far = far + (z[..., None] - np.cos(1.7 * angle)) ** 2 * (shape[2] > 1)
    maps = np.exp(-0.5 * far + 1j * (angle + 2 * x[..., None] * np.sin(angle) + y[..., None] * np.cos(angle)))
    maps[x**2 + y**2 + z**2 * (shape[2] > 1) > 0.9] = 0
    return maps.astype(np.complex64)


def covariance(coils, unit=1.0):
    a = random_complex((coils, 2 * coils), 5).astype(complex)
    return (unit * (a @ a.conj().T / (2 * coils) + 0.3 * np.eye(coils))).astype(np.complex64)


def replicas(signal, psi, seed=1):
    """Folded images with noise of a covariance, along a fifth axis."""
    r, factor = np.random.default_rng(seed), np.linalg.cholesky(psi.astype(complex))
    white = r.standard_normal((2, *signal.shape, REPLICAS)) / np.sqrt(2)
    noise = np.einsum("cd,xyzdn->xyzcn", factor, white[0] + 1j * white[1], optimize=True)
    return np.asfortranarray(signal[..., None] + noise, np.complex64)


@pytest.mark.parametrize(
    "maps, full, fold, unit, regularised",
    [
        ((24, 24, 8), (24, 24, 8), (24, 12, 4), 1.0, False),
        ((24, 24, 8), (24, 24, 8), (24, 12, 4), 1e-14, True),
        ((32, 20, 1), (32, 40, 1), (32, 16, 1), 1.0, False),  # 2.5, maps on a coarser grid
        ((20, 15, 1), (40, 30, 1), (40, 12, 1), 4.0, True),
        ((24, 24, 1), (24, 24, 1), (24, 24, 1), 1.0, False),
    ],
)
def test_replicas_of_noise_spread_as_predicted(maps, full, fold, unit, regularised):
    sens, psi = smooth_maps(maps, 12), covariance(12, unit)
    mask = sens.any(3)
    extra = {"mask": mask}
    if regularised:
        extra |= {"reg": np.full(maps, 2.0, np.float32), "weight": 0.3 * unit}  # as large as the coils' own share
    args = {"psi": psi, "full_size": full, "fold_size": fold, **extra}
    g, sd, condition, response = ctessel.sense_noise(sens, response=True, **args)
    for (_, s), (_, m) in zip(layouts(sens), layouts(mask)):
        for image, other in zip((g, sd, condition), ctessel.sense_noise(s, threads=2, **{**args, "mask": m})):
            same_bits(image, other)
    signal = np.sqrt(unit) * 10 * random_complex((*fold, 12), 3)
    images = ctessel.sense_recon(replicas(signal, psi), sens, psi=psi, full_size=full, **extra)
    measured = np.std(images.astype(complex), axis=-1, ddof=1)
    inside = sd > 0
    assert inside.any() and not measured[~inside].any()
    ratio = measured[inside] / sd[inside]
    assert abs(ratio.mean() - 1) < 0.005
    assert np.abs(ratio - 1).max() < 5 / np.sqrt(4 * REPLICAS)  # of the chi distribution
    assert (g[inside] > 0.9999).all() or regularised
    assert (condition[inside] >= 1).all()
    assert regularised == (np.median(response[inside]) < 0.9999)
    if not regularised:  # slices have maps of their own
        two = {**args, "mask": np.stack([mask[::-1], mask], -1)}
        same_bits(ctessel.sense_noise(np.stack([sens[::-1], sens], -1), **two)[1][..., 1], sd)


@pytest.mark.parametrize(
    "bad, message",
    [
        ({"sensitivities": np.ones(3)}, "sensitivities: expected from 4 to 6 dimensions"),
        ({"sensitivities": np.ones((2, 0, 1, 2))}, "sensitivities: expected at least one sample"),
        ({"fold_size": (4, 9, 1)}, r"full_size\[1\]: .* at least .* 9, got 8"),
        ({"fold_size": (4, 4)}, "fold_size: expected 3 values, got 2"),
        ({"fold_size": (4, 4, 0)}, r"fold_size\[2\]: .* got 0"),
        ({"psi": np.eye(2)}, "psi: expected extent 3"),
        ({"mask": np.ones((4, 4, 1))}, "mask: expected extent 8 along axis 1"),
        ({"reg": np.ones((4, 8, 1)), "weight": 0}, "weight: expected a number above 0, got 0"),
    ],
)
def test_wrong_arguments_are_named(bad, message):
    good = {"sensitivities": random_complex((4, 8, 1, 3)), "full_size": (4, 8, 1), "fold_size": (4, 4, 1)}
    with pytest.raises((TypeError, ValueError), match=f"^{message}"):
        ctessel.sense_noise(**{**good, **bad})


def test_a_mask_and_a_weight_of_its_own_serve_unfolding():
    sens, folded = random_complex((3, 8, 1, 4), 2), random_complex((3, 4, 1, 4), 1)
    reg, mask = np.full((3, 8, 1), 0.7, np.float32), np.ones((3, 8, 1), bool)
    level = np.mean(np.abs(folded.astype(complex)) ** 2) / 2
    want = ctessel.sense_recon(folded, sens, reg=reg, ref=np.ones((1, 1, 1)))
    np.testing.assert_allclose(ctessel.sense_recon(folded, sens, reg=reg, weight=level), want, rtol=1e-5)
    mask[:, 3] = False
    sens[:, 3] = 0  # no coil sees the line: without the mask its aliases could not be told
    image = ctessel.sense_recon(folded, sens, mask=mask)
    assert np.isfinite(image).all() and not image[:, 3].any() and image[:, 4:].all()
    with pytest.raises(ValueError, match="^weight: expected None beside ref"):
        ctessel.sense_recon(folded, sens, reg=reg, ref=reg, weight=1)
    with pytest.raises(ValueError, match="^reg: expected an array beside weight"):
        ctessel.sense_recon(folded, sens, weight=1)
