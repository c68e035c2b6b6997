"""SENSE against dense least squares in NumPy, and on measured data."""

import itertools

import numpy as np
import pytest
from conftest import layouts, random_complex, same_bits

import ctessel


def fold(images, fold_y, fold_z):
    """Coil images (x, y, z, coil, ...) summed over the lines that land on each folded line."""
    nx, ny, nz = images.shape[:3]
    folded = np.zeros((nx, fold_y, fold_z) + images.shape[3:], complex)
    for y in range(ny):
        for z in range(nz):
            at = ctessel.folded_pos(y, ny, fold_y), ctessel.folded_pos(z, nz, fold_z)
            folded[:, at[0], at[1]] += images[:, y, z]
    return folded.astype(np.complex64)


def covariance(coils):
    a = random_complex((coils, 3 * coils), 5).astype(complex)
    return (a @ a.conj().T / (3 * coils)).astype(np.complex64)


def aliases_of(y, z, full, folded, aliases):
    """Lines that alias onto a folded one: products of y and z, or listed by their offsets."""
    if aliases is None:
        along = (ctessel.unfolded_positions(n, f, at) for n, f, at in zip(full, folded, (y, z)))
        return list(itertools.product(*along))
    first = [(n - f + 1) // 2 for n, f in zip(full, folded)]
    return [((y + first[0] + a) % full[0], (z + first[1] + b) % full[1]) for a, b in aliases]


def least_squares(folded, sens, psi, penalty=None, aliases=None):
    """`penalty` is the weight of each voxel's squared magnitude; `sens` may end in an axis of sets."""
    nx, ny, nz, coils, *sets = sens.shape
    sens = sens.reshape(nx, ny, nz, coils, -1)
    out = np.zeros((nx, ny, nz, sens.shape[4]), complex)
    inverse = np.linalg.inv(psi.astype(complex))
    for y in range(folded.shape[1]):
        for z in range(folded.shape[2]):
            lines = aliases_of(y, z, (ny, nz), folded.shape[1:3], aliases)
            for x in range(nx):
                S = np.concatenate([sens[x, a, b] for a, b in lines], 1).astype(complex)
                SP = S.conj().T @ inverse
                weights = np.repeat([0 if penalty is None else penalty[x, a, b] for a, b in lines], sens.shape[4])
                solved = np.linalg.solve(SP @ S + np.diag(weights), SP @ folded[x, y, z])
                for (a, b), u in zip(lines, solved.reshape(len(lines), -1)):
                    out[x, a, b] = u
    return out if sets else out[..., 0]


UNFOLDED = [
    ((3, 8, 1), (4, 1), 4, None), ((3, 8, 4), (4, 2), 8, None), ((2, 10, 1), (4, 1), 6, None), ((1, 6, 6), (6, 2), 5, None),
    ((3, 8, 4), (4, 2), 6, [(0, 0), (4, 0), (2, 2), (-2, 6)]),
    ((2, 6, 6), (6, 2), 6, np.array([(0, 0), (2, 2), (4, -2)])),
    ((12, 4, 4), (1, 4), 6, [[a, a + 1] for a in range(4)]),
]  # fmt: skip


@pytest.mark.parametrize("regularised", [False, True])
@pytest.mark.parametrize("full, folded_yz, coils, aliases", UNFOLDED)
def test_unfolding_is_noise_weighted_least_squares(full, folded_yz, coils, aliases, regularised):
    sens, psi = random_complex(full + (coils,), 2), covariance(coils)
    folded, extra, penalty = random_complex((full[0], *folded_yz, coils), 1), {}, None
    if regularised:
        extra = {"reg": np.random.default_rng(3).uniform(0.5, 1, full).astype(np.float32), "weight": 2.0}
        penalty = 1 / (extra["reg"] ** 2.0 * 2)
    want = least_squares(folded, sens, psi, penalty, aliases)
    first = ctessel.sense_recon(folded, sens, psi=psi, aliases=aliases, **extra)
    np.testing.assert_allclose(first, want, atol=2e-4 * np.abs(want).max())
    for (_, f), (_, s) in zip(layouts(folded), layouts(sens)):
        out = np.full(full, np.nan, np.complex64)
        assert ctessel.sense_recon(f, s, psi=psi, aliases=aliases, out=out, threads=2, **extra) is out
        same_bits(out, first)


@pytest.mark.parametrize("regularised", [False, True])
@pytest.mark.parametrize("full, folded_yz, coils, aliases", UNFOLDED)
def test_noise_is_that_of_the_factors(full, folded_yz, coils, aliases, regularised):
    sens, psi, mask = random_complex(full + (coils,), 2), covariance(coils), np.random.default_rng(4).random(full) < 0.8
    fold, extra = (full[0], *folded_yz), {"psi": psi, "aliases": aliases}
    if regularised:
        extra |= {"reg": np.full(full, 2.0, np.float32), "weight": 0.3}
    images = ctessel.sense_noise(sens, mask=mask, full_size=full, fold_size=fold, response=True, **extra)
    for (_, s), (_, m) in zip(layouts(sens), layouts(mask)):
        again = ctessel.sense_noise(s, mask=m, full_size=full, fold_size=fold, response=True, threads=2, **extra)
        for image, other in zip(images, again, strict=True):
            same_bits(image, other)
    impulses = np.zeros((*fold, coils, coils), np.complex64)  # of each coil: the image is its factors
    impulses[..., range(coils), range(coils)] = 1
    factors = ctessel.sense_recon(impulses, sens, mask=mask, **extra).astype(complex)
    g, sd, condition, response = images
    np.testing.assert_allclose(sd, np.einsum("xyzc,cd,xyzd->xyz", factors, psi, factors.conj()).real ** 0.5, rtol=1e-5)
    np.testing.assert_allclose(response, (factors * sens).sum(3).real, rtol=1e-5, atol=1e-6)
    np.testing.assert_array_equal(sd > 0, mask)
    assert (condition[mask] >= 1).all() and (regularised or (g[mask] > 0.9999).all())
    if not regularised:  # slices have maps of their own
        two = np.stack([sens[::-1], sens], -1), np.stack([mask[::-1], mask], -1)
        same_bits(ctessel.sense_noise(two[0], mask=two[1], full_size=full, fold_size=fold, **extra)[1][..., 1], sd)


@pytest.mark.parametrize("regularised", [False, True])
@pytest.mark.parametrize("full, folded_yz, aliases", [
    ((2, 8, 1), (4, 1), None), ((3, 4, 6), (2, 3), None), ((3, 8, 4), (4, 2), [(0, 0), (4, 0), (2, 2), (-2, 6)]),
])  # fmt: skip
def test_sets_of_maps_unfold_together(full, folded_yz, aliases, regularised):
    sens, psi = random_complex(full + (9, 1, 2), 2), covariance(9)
    folded, extra, penalty = random_complex((full[0], *folded_yz, 9, 2), 1), {"aliases": aliases, "psi": psi}, None
    if regularised:
        extra |= {"reg": np.random.default_rng(3).uniform(0.5, 1, full).astype(np.float32), "weight": 2.0}
        penalty = 1 / (extra["reg"] ** 2.0 * 2)
    alone = [least_squares(f, sens[:, :, :, :, 0], psi, penalty, aliases) for f in np.moveaxis(folded, 4, 0)]
    want = np.stack(alone, 4)
    image = ctessel.sense_recon(folded, sens, **extra)
    np.testing.assert_allclose(image, want, atol=2e-4 * np.abs(want).max())
    for _, s in layouts(sens):
        same_bits(ctessel.sense_recon(folded, s, threads=2, **extra), image)
    g, sd, _ = ctessel.sense_noise(sens, full_size=full, fold_size=folded.shape[:3], **extra)
    assert sd.shape == (*full, 1, 2) and (g[..., 0] != g[..., 1]).all()
    # A set that is 0 and left out by its mask leaves the other as it is alone.
    sens[..., 1] = 0
    alone = ctessel.sense_recon(folded, sens[..., 0], **extra)
    both = ctessel.sense_recon(folded, sens, mask=sens.any(3), **extra)
    np.testing.assert_array_equal(both[:, :, :, 0], alone)
    assert not both[:, :, :, 1].any()
    with pytest.raises(ValueError, match="full_size: expected multiples of the folded extents with sets of maps"):
        ctessel.sense_recon(np.zeros((full[0], full[1] - 1, full[2], 9), np.complex64), sens)


def test_further_axes_share_factors_and_locations_have_their_own():
    full, coils, shape = (2, 6, 1), 4, (2, 6, 1, 4, 2, 1, 1, 3, 2)
    truth = random_complex(full + shape[4:], 1)
    sens = random_complex(full + (coils, 3), 2)
    by_location = sens[:, :, :, :, None, None, None, :, None]
    folded = fold(by_location * truth[:, :, :, None], 3, 1)
    image = ctessel.sense_recon(folded, sens)
    assert image.shape == truth.shape
    np.testing.assert_allclose(image, truth, atol=1e-3)
    first = ctessel.sense_recon(folded[..., 1:2, :], sens[..., 1:2])
    same_bits(image[..., 1:2, :], first)


def test_a_real_covariance_and_real_folded_data_count_as_complex():
    folded, sens = random_complex((2, 4, 1, 3)), random_complex((2, 8, 1, 3), 1)
    unit = np.eye(3, dtype=np.float32)
    same_bits(ctessel.sense_recon(folded, sens, psi=unit), ctessel.sense_recon(folded, sens))
    want = ctessel.sense_recon(folded.real.astype(np.complex64), sens)
    same_bits(ctessel.sense_recon(folded.real, sens), want)


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
    wide = ctessel.sense_noise(sens, full_size=(3, 16, 1), fold_size=(3, 4, 1))[0]  # maps on a coarser grid
    assert wide.shape == (3, 16, 1)
    with pytest.raises(ValueError, match="^weight: expected None beside ref"):
        ctessel.sense_recon(folded, sens, reg=reg, ref=reg, weight=1)
    with pytest.raises(ValueError, match="^reg: expected an array beside weight"):
        ctessel.sense_recon(folded, sens, weight=1)
