"""Warps of gradients that are not linear: signs and axes, conventions of files, images."""

import json
import shutil
import subprocess

import nibabel
import numpy as np
import pytest
from command import pixels, refused, run, sidecar
from conftest import same_bits

from ctessel import cli, pipeline, warp
from ctessel.gradients import Coefficients, Term, read_coefficients
from ctessel.scan import Placement

LINEAR = (Term("x", "A", 1, 1, 1.0), Term("y", "B", 1, 1, 1.0), Term("z", "A", 1, 0, 1.0))
TERMS = (
    *LINEAR, Term("x", "A", 3, 1, 0.03), Term("y", "B", 3, 1, 0.02), Term("z", "A", 3, 0, -0.04),
    Term("z", "A", 2, 0, 0.02), Term("x", "B", 2, 1, 0.01), Term("y", "A", 4, 2, 1e-3),
)  # fmt: skip
FIELD = Coefficients(TERMS, 250.0, "LPS")

# Oblique and anisotropic, of either handedness.
TURN = np.array([[0.96, -0.28, 0], [0.28, 0.96, 0], [0, 0, 1]]) @ np.array([[1, 0, 0], [0, 0.8, -0.6], [0, 0.6, 0.8]])


def grid_of(steps, shape, turn=TURN):
    affine = np.eye(4)
    affine[:3, :3] = turn * steps
    affine[:3, 3] = -affine[:3, :3] @ (np.array(shape) - 1) / 2 + (3, -4, 5)
    return warp.Grid(affine.astype(np.float32).astype(float), shape)  # as a file holds it


GRIDS = [grid_of((side * 3.0, 4, 5), (20, 18, 14)) for side in (-1, 1)]
GRIDS.append(grid_of((-3, -4, 5.0), (9, 8, 7), np.eye(3)))


def world(grid):
    return np.moveaxis(np.indices(grid.shape), 0, -1) @ grid.affine[:3, :3].T + grid.affine[:3, 3]


# ---- Signs and axes ------------------------------------------------------------------------------

#: The scanner's axes: x to the left of a patient who lies head first on the back, y down, z towards the
#: head. Feet first is half a turn around y, prone half a turn around z.
FEET, PRONE = np.diag([-1.0, 1, -1]), np.diag([-1.0, -1, 1])
SCANNER_OF_LPS = {"HFS": np.eye(3), "HFP": PRONE, "FFS": FEET, "FFP": FEET @ PRONE}


def polynomial(axis, points):
    """What one gradient adds, of even order: its sign depends on where its axis points. With R = 250."""
    x, y, z = np.moveaxis(points, -1, 0)
    moved = np.zeros_like(points)
    moved[..., axis] = (12 * (x * x - y * y), 12 * (x * x - y * y), 7 * (2 * z * z - x * x - y * y))[axis] / 12500
    return moved


#: The same as coefficients: 3 (x^2 - y^2) and (2 z^2 - x^2 - y^2) / 2 over R^2, times R.
SECOND = [Term("x", "A", 2, 2, 0.08), Term("y", "A", 2, 2, 0.08), Term("z", "A", 2, 0, 0.28)]


def density(points):
    """An object without symmetry; patient axes, mm."""
    total = 0.0
    for centre, width in [((25, -20, 30), 18), ((-30, 10, -15), 24), ((5, 35, 10), 15)]:
        total = total + np.exp(-((points - centre) ** 2).sum(-1) / (2 * width**2))
    return total


@pytest.mark.parametrize("position", ["HFS", "HFP", "FFS", "FFP"])
@pytest.mark.parametrize("axis", [0, 1, 2], ids=["left-right", "front-back", "head-foot"])
def test_an_object_is_found_where_it_is(position, axis):
    ras = np.diag([-1.0, -1, 1])
    to_scanner = SCANNER_OF_LPS[position]
    grid = grid_of((-4.0, 4, 4), (40, 40, 40))
    encoded = world(grid) @ ras @ to_scanner.T
    true, step = encoded, 1e-3
    for _ in range(60):
        true = encoded - polynomial(axis, true)
    along = step * np.eye(3)[axis]
    slope = (polynomial(axis, true + along) - polynomial(axis, true - along))[..., axis] / (2 * step)
    image = density(true @ to_scanner) / (1 + slope)  # to_scanner is its own inverse
    coefficients = Coefficients((*LINEAR, SECOND[axis]), 250.0, "LPS")
    correction = warp.Correction(coefficients, position)
    got = warp.unwarp(image.astype(np.float32), grid, correction)
    want = density(world(grid) @ ras)
    moved = np.abs(correction.evaluate(grid, ["displacement"])[0]).max()
    inner = (slice(4, -4),) * 3
    assert moved > 4
    assert np.abs(got - want)[inner].max() < 5e-4
    assert np.abs(image - want)[inner].max() > 0.05
    head, back = position[0], position[2]
    head, back = ("FH"["HF".index(head)], back) if axis == 2 else (head, "PS"["SP".index(back)])
    wrong = warp.unwarp(image.astype(np.float32), grid, warp.Correction(coefficients, f"{head}F{back}"))
    assert np.abs(wrong - want)[inner].max() > 0.05


@pytest.mark.parametrize("dims", [3, 2, 1])
@pytest.mark.parametrize("grid", GRIDS[:2], ids=["left-handed", "right-handed"])
def test_forward_and_inverse_are_the_identity(dims, grid):
    back = warp.Correction(FIELD, "FFS", dims, distort=True)
    there = warp.Correction(FIELD, "FFS", dims)
    moved, size = (values[::3, ::3, ::3] for values in back.evaluate(grid, ["displacement", "determinant"]))
    start = world(grid)[::3, ::3, ::3]
    normal = np.cross(grid.affine[:3, 0], grid.affine[:3, 1])
    for at in np.ndindex(size.shape):
        affine = grid.affine.copy()
        affine[:3, 3] = start[at] + moved[at]
        step, factor = there.evaluate(warp.Grid(affine, (1, 1, 1)), ["displacement", "determinant"])
        np.testing.assert_allclose(affine[:3, 3] + step[0, 0, 0], start[at], atol=1e-4)
        assert factor[0, 0, 0] * size[at] == pytest.approx(1, abs=1e-9)
        across = step[0, 0, 0] @ normal / np.linalg.norm(normal)
        if dims < 3:
            assert abs(across) == pytest.approx(0 if dims == 2 else np.linalg.norm(step), abs=1e-9)


@pytest.mark.parametrize("dims", [3, 2, 1])
def test_the_determinant_is_that_of_the_displacement(dims):
    correction = warp.Correction(FIELD, "HFP", dims)
    for grid in GRIDS:
        moved, got = correction.evaluate(grid, ["displacement", "determinant"])
        columns = []
        for d in range(3):
            ahead, behind = grid.affine.copy(), grid.affine.copy()
            ahead[d, 3] += 1e-3
            behind[d, 3] -= 1e-3
            pair = [correction.evaluate(warp.Grid(a, grid.shape), ["displacement"])[0] for a in (ahead, behind)]
            columns.append((pair[0] - pair[1]) / 2e-3)
        slopes = np.stack(columns, -1) + np.eye(3)
        np.testing.assert_allclose(got, np.abs(np.linalg.det(slopes)), atol=1e-7)
        if dims == 3:
            np.testing.assert_allclose(correction.evaluate(grid, ["jacobian"])[0], slopes, atol=1e-6)


# ---- Files ---------------------------------------------------------------------------------------


def save(path, data, grid, **sidecar):
    image = nibabel.Nifti1Image(data, grid.affine)
    image.set_sform(grid.affine, 1)
    image.set_qform(grid.affine, 1)
    image.to_filename(path)
    if sidecar:
        path.with_name(path.name.split(".")[0] + ".json").write_text(json.dumps(sidecar))
    return path


@pytest.fixture
def table(tmp_path):
    path, usual = tmp_path / "coil.txt", {"x": "A", "y": "B", "z": "A"}
    lines = [f"{t.axis} {t.order} {t.degree} {t.value}" for t in TERMS if t.kind == usual[t.axis]]
    path.write_text("\n".join(lines))
    return path


def smooth(grid, seed=0):
    points = np.moveaxis(np.indices(grid.shape), 0, -1) / np.array(grid.shape)
    rng = np.random.default_rng(seed)
    waves = sum(np.cos(2 * np.pi * (points @ rng.uniform(-1.5, 1.5, 3)) + k) for k in range(6))
    return (100 + 10 * waves).astype(np.float32)


def made(tmp_path, table, grid, *options, kind="itk"):
    image = save(tmp_path / "a.nii.gz", smooth(grid), grid, PatientPosition="HFP", ImageType=["ND"])
    out = tmp_path / f"{kind}.nii.gz"
    assert run("warp", table, "--like", image, "-o", out, "--type", kind, *options) == 0
    return image, nibabel.load(out)


@pytest.mark.parametrize("grid", GRIDS, ids=["left-handed", "right-handed", "straight"])
@pytest.mark.parametrize("direction", ["unwarp", "distort"])
def test_conventions_of_warp_files(tmp_path, table, grid, direction):
    correction = warp.Correction(read_coefficients(table), "HFP", distort=direction == "distort")
    target = world(grid) + correction.evaluate(grid, ["displacement"])[0]
    options, kinds = (table, grid, "--direction", direction), ("itk", "fsl", "fsl-abs", "ras")
    itk, fsl, fsl_abs, ras = (made(tmp_path, *options, kind=kind)[1] for kind in kinds)
    assert itk.shape == (*grid.shape, 1, 3) and itk.header["intent_code"] == 1007
    assert itk.header["sform_code"] == itk.header["qform_code"] == 1
    moved = itk.get_fdata()[:, :, :, 0] * (-1, -1, 1)
    np.testing.assert_allclose(world(grid) + moved, target, atol=1e-5)
    np.testing.assert_allclose(ras.get_fdata(), target, atol=1e-5)

    def scaled(points):  # FSL's coordinates by their definition
        voxels = (points - grid.affine[:3, 3]) @ np.linalg.inv(grid.affine[:3, :3]).T
        if np.linalg.det(grid.affine[:3, :3]) > 0:
            voxels[..., 0] = grid.shape[0] - 1 - voxels[..., 0]
        return voxels * itk.header.get_zooms()[:3]

    np.testing.assert_allclose(fsl_abs.get_fdata(), scaled(target), atol=1e-4)
    np.testing.assert_allclose(fsl.get_fdata(), scaled(target) - scaled(world(grid)), atol=1e-5)


@pytest.mark.skipif(not shutil.which("mrtransform"), reason="no mrtransform")
@pytest.mark.parametrize("grid", GRIDS[:2], ids=["left-handed", "right-handed"])
def test_another_tool_with_our_warp_gives_our_image(tmp_path, table, grid):
    image, _ = made(tmp_path, table, grid, kind="itk")
    made(tmp_path, table, grid, kind="ras")
    assert run("unwarp", image, "--coefficients", table, "-o", tmp_path / "u.nii", "--no-intensity") == 0
    ours = pixels(tmp_path / "u.nii")
    command = ["mrtransform", image, "-warp", "ras.nii.gz", "-interp", "cubic", "m.nii", "-quiet", "-force"]
    subprocess.run(command, cwd=tmp_path, check=True)
    inner = (slice(4, -4),) * 3
    error = np.abs(ours - pixels(tmp_path / "m.nii"))[inner].max()
    assert error < 0.015 and np.abs(ours - smooth(grid))[inner].max() > 10 * error


@pytest.mark.parametrize("grid", GRIDS, ids=["left-handed", "right-handed", "straight"])
def test_deviations_turn_b_vectors_as_the_field_does(tmp_path, table, grid):
    files = [tmp_path / "g.nii.gz", tmp_path / "j.nii"]
    made(tmp_path, table, grid, "--grad-dev", files[0], "--jacobian", files[1])
    deviation, size = (pixels(f) for f in files)
    assert deviation.shape == (*grid.shape, 9)
    jacobian = warp.Correction(read_coefficients(table), "HFP").evaluate(grid, ["jacobian"])[0]
    np.testing.assert_allclose(size, np.abs(np.linalg.det(jacobian)), atol=1e-6)
    axes = grid.affine[:3, :3] / np.linalg.norm(grid.affine[:3, :3], axis=0)
    if np.linalg.det(axes) > 0:
        axes = axes * (-1, 1, 1)
    vector = np.array([0.6, -0.48, 0.64])
    for at in [(0, 0, 0), (3, 5, 2), (8, 7, 6)]:
        # The phase of a gradient g is g . encoded: its slope is the gradient that acts at this place.
        acting = axes.T @ jacobian[at].T @ (axes @ vector)
        matrix = np.eye(3) + deviation[at].reshape(3, 3, order="F")
        np.testing.assert_allclose(matrix @ vector, acting, atol=1e-6)


def test_a_field_over_a_cube_of_the_scanner(tmp_path, table):
    out = tmp_path / "w.nii.gz"
    assert run("warp", table, "-o", out, "--extent", 100, "--spacing", 20, "--type", "ras") == 0
    image = nibabel.load(out)
    assert image.shape == (7, 7, 7, 3) and np.abs(image.get_fdata()[3, 3, 3]).max() == 0
    np.testing.assert_array_equal(image.affine[:3, 3], [-60, -60, -60])
    known = sidecar(out)
    assert known["WarpType"] == "ras" and known["PatientPosition"] == "HFS"


# x (1 - (x / 250)^2 / 2) has its highest value, 136, at 204: no point is encoded beyond.
def test_where_the_inverse_does_not_converge(tmp_path, capsys):
    table, out = tmp_path / "c.txt", tmp_path / "w.nii.gz"
    table.write_text(f"x 3 1 {1 / 3}\n")
    assert run("warp", table, "-o", out, "--direction", "distort", "--extent", 400, "--spacing", 100) == 0
    lost = np.isnan(pixels(out)[..., 0, 0])
    assert lost[0].any() and not lost[2].any()
    lines = capsys.readouterr().err.splitlines()
    nowhere = "voxels have no position: the inverse does not converge there (NaN)"
    assert lines[-1] == f"ctessel: warning: {lost.sum()} {nowhere}"
    assert lines[0].startswith("ctessel: warning: the field: reaches 346 mm from the isocentre")


# ---- Images --------------------------------------------------------------------------------------


def unwarped(tmp_path, data, grid, table, *options, **entries):
    image = save(tmp_path / "in.nii.gz", data, grid, **{"PatientPosition": "HFS", **entries})
    out = tmp_path / "out.nii.gz"
    assert run("unwarp", image, "--coefficients", table, "-o", out, *options) == 0
    return nibabel.load(out), sidecar(out)


def test_linear_gradients_change_no_bit(tmp_path):
    (tmp_path / "c.txt").write_text("x 1 1 3\n")
    data = smooth(GRIDS[0])
    for interpolation in ("linear", "sinc", "cubic"):
        got, _ = unwarped(tmp_path, data, GRIDS[0], tmp_path / "c.txt", "--interpolation", interpolation)
        np.testing.assert_allclose(got.get_fdata(), data, atol=2e-5)


def test_a_series_is_its_volumes_whatever_the_threads_and_the_type(tmp_path, table):
    grid = GRIDS[0]
    series = np.stack([smooth(grid, seed) for seed in range(3)], -1)
    got, known = unwarped(tmp_path, series, grid, table, "--mode", "3d", RepetitionTime=2.5)
    assert known["RepetitionTime"] == 2.5 and known["NonlinearGradientCorrection"] is True
    assert known["GradientCorrection"]["Mode"] == "3d"
    np.testing.assert_array_equal(got.affine, grid.affine)
    whole = got.get_fdata(dtype=np.float32)
    correction = warp.Correction(read_coefficients(table), "HFS")
    for n in range(3):
        for threads in (1, 3):
            alone = warp.unwarp(series[..., n], grid, correction, threads=threads)
            np.testing.assert_array_equal(alone, whole[..., n])
    told = []
    warp.unwarp(series, grid, correction, progress=lambda *at: told.append(at))
    assert [done for done, _ in told] == list(range(1, told[-1][1] + 1))
    for order in "CF":  # echoes and repetitions
        both = np.array(np.stack([series, series[..., ::-1]], -1), order=order)
        got_both = warp.unwarp(both, grid, correction)
        np.testing.assert_array_equal(got_both, np.stack([whole, whole[..., ::-1]], -1))
    pair = (series[..., 0] + 1j * series[..., 1]).astype(np.complex64)
    both = warp.unwarp(pair, grid, correction)
    np.testing.assert_array_equal(both.imag, whole[..., 1])
    counts, _ = unwarped(tmp_path, np.round(series[..., 0]).astype(np.int16), grid, table, "--mode", "3d")
    assert counts.get_data_dtype() == np.float32
    assert np.abs(counts.get_fdata() - whole[..., 0]).max() < 1.5


def test_interpolations_of_fine_detail(table):
    grid = grid_of((-4.0, 4, 4), (40, 36, 32))

    def waves(points):  # four voxels long
        return np.cos(points @ np.eye(3) * np.pi / 2).sum(-1)

    voxels = np.moveaxis(np.indices(grid.shape, float), 0, -1)
    correction = warp.Correction(read_coefficients(table), "HFS")
    steps = correction.evaluate(grid, ["displacement"])[0] @ np.linalg.inv(grid.affine[:3, :3]).T
    want, error = waves(voxels + steps), {}
    for name in ("cubic", "sinc", "linear"):
        got = warp.unwarp(waves(voxels).astype(np.float32), grid, correction, intensity=False, interpolation=name)
        error[name] = np.abs(got - want)[5:-5, 5:-5, 5:-5].max()
    assert error["cubic"] < 0.02 and error["sinc"] < 0.02 and error["linear"] > 0.1, error


@pytest.mark.parametrize("order, interpolation, dims", [(3, "cubic", 3), (1, "linear", 2)])
def test_a_slab_of_a_scan_is_corrected_where_it_lies(order, interpolation, dims):
    image, field, centre = smooth(GRIDS[2]) * np.complex64(np.exp(0.3j)), (60.0, 72.0, 70.0), np.array([10.0, 0, 5])
    along = [(np.arange(n) - n // 2) * f / n for n, f in zip(image.shape, field)]
    points = centre + np.stack(np.meshgrid(*along, indexing="ij"), -1) @ TURN.T
    placement = Placement(centre, *TURN.T)
    grid = warp.scan_grid([placement], image.shape, field)
    voxels = np.moveaxis(pipeline.voxel_positions(image.shape, placement, field), 0, -1)
    for found in (world(grid) * (-1, -1, 1), voxels):
        np.testing.assert_allclose(found, points, atol=1e-9)
    want = warp.unwarp(image, grid, warp.Correction(FIELD, "FFS", dims), interpolation=interpolation)
    same_bits(pipeline.geometry(image, placement, field, FIELD, position="FFS", dims=dims, order=order), want)


def test_a_slice_is_corrected_in_its_plane(tmp_path, table, capsys):
    thick = grid_of((-4.0, 4, 5), (32, 30, 3))
    column = np.repeat(smooth(thick)[:, :, 1:2], 3, axis=2)
    correction = warp.Correction(read_coefficients(table), "HFS")
    want = warp.unwarp(column, thick, correction)[:, :, 1]
    got, _ = unwarped(tmp_path, column[:, :, 1:2], thick.slab(1, 2), table, "--mode", "3d")
    inner = (slice(3, -3),) * 2
    np.testing.assert_allclose(got.get_fdata()[..., 0][inner], want[inner], atol=1e-3)
    assert "a single slice is sampled only within its plane" in capsys.readouterr().err


@pytest.mark.parametrize("entries, mode, warns", [
    ({}, "3d", "no sidecar says whether the scanner corrected it"),
    ({"ImageType": ["M", "ND"]}, "3d", ""),
    ({"ImageType": "ORIGINAL\\M\\ND"}, "3d", ""),
    ({"ImageType": ["M", "DIS2D"], "NonlinearGradientCorrection": True}, "through-plane", ""),
    ({"ImageType": ["M", "DIS3D"]}, "none", "was corrected before"),
    ({"NonlinearGradientCorrection": True}, "none", "was corrected on the scanner"),
    ({"NonlinearGradientCorrection": False}, "3d", ""),
    ({"ImageType": ["ND"], "GradientCorrection": {"Mode": "3d"}}, "none", "was corrected before"),
])  # fmt: skip
def test_auto_corrects_what_is_left(tmp_path, table, capsys, entries, mode, warns):
    grid = GRIDS[1]
    got, known = unwarped(tmp_path, smooth(grid), grid, table, **entries)
    stderr = capsys.readouterr().err
    assert (warns in stderr) if warns else stderr == ""
    if mode == "none":
        np.testing.assert_array_equal(got.get_fdata(dtype=np.float32), smooth(grid))
        assert known.get("GradientCorrection") == entries.get("GradientCorrection")
        return
    assert known["GradientCorrection"]["Mode"] == mode
    correction = warp.Correction(read_coefficients(table), "HFS", warp.MODES[mode])
    np.testing.assert_array_equal(got.get_fdata(dtype=np.float32), warp.unwarp(smooth(grid), grid, correction))


def bad(tmp_path, name):
    """An image that cannot be used."""
    path, data = tmp_path / "bad.nii", smooth(GRIDS[2])
    if name == "flat":
        nibabel.Nifti1Image(data[..., 0], GRIDS[2].affine).to_filename(path)
    elif name == "nowhere":
        nibabel.Nifti1Image(data, None).to_filename(path)
    elif name == "text":
        path.write_text("no image")
    elif name != "absent":
        known = {"HFDR": {"PatientPosition": "HFDR"}, "cut": {"PatientPosition": "HFS", "ImageType": ["ND"]}}
        save(path, data, GRIDS[2], **known.get(name, {"ImageType": ["ND"]}))
    if name == "cut":
        path.write_bytes(path.read_bytes()[:1000])
    if name == "sidecar":
        (tmp_path / "bad.json").write_text("{")
    return path


@pytest.mark.parametrize("name, text", [
    ("absent", "bad.nii: no such file; check the name"),
    ("flat", "bad.nii: has voxels without a volume; its affine or extents are unusable"),
    ("nowhere", "bad.nii: has no position in the scanner (codes of sform and qform are 0)"),
    ("text", "bad.nii: cannot be read"), ("cut", "bad.nii: cannot be read"),
    ("unknown", "bad.nii: bad.json has no PatientPosition; state it with --position, for example HFS"),
    ("HFDR", "position: expected one of HFS, HFP, FFS, FFP, got 'HFDR'"), ("sidecar", "bad.json: cannot be read"),
])  # fmt: skip
def test_images_that_cannot_be_used_leave_one_line_and_no_file(tmp_path, table, capsys, name, text):
    image, out = bad(tmp_path, name), tmp_path / "o.nii.gz"
    before = sorted(tmp_path.iterdir())
    told = refused(capsys, text, "unwarp", image, "--coefficients", table, "-o", out, "--mode", "3d")
    assert told.startswith("ctessel: ")
    if name != "cut":
        assert run("warp", table, "--like", image, "-o", out) == cli.DEFECT
    assert sorted(tmp_path.iterdir()) == before


def test_wrong_use(tmp_path, table, capsys):
    image, out = save(tmp_path / "a.nii", smooth(GRIDS[2]), GRIDS[2], PatientPosition="HFS"), tmp_path / "w.nii"
    for words in (
        ["warp", table, "-o", tmp_path / "w.txt"],
        ["warp", table, "-o", out, "--like", image, "--extent", 100],
        *(["warp", table, "-o", out, *option] for option in (["--dims", 4], ["--spacing", 0])),
        ["unwarp", image, "--coefficients", table, "-o", out, "--axes", "xyz"],
        ["unwarp", image, "-o", out],
    ):
        assert run(*words) == cli.USAGE
    capsys.readouterr()
    refused(capsys, "a.nii: is not text", "unwarp", image, "--coefficients", image, "-o", out)
    refused(capsys, "w.nii: is named for two files", "warp", table, "-o", out, "--jacobian", out)
    elsewhere = tmp_path / "none" / "w.nii"
    refused(capsys, "none: no such folder", "unwarp", image, "--coefficients", table, "-o", elsewhere)
    assert not out.exists()


def test_a_guess_of_axes_is_told(tmp_path, capsys):
    coil = tmp_path / "c.dat"
    told = "LPS is assumed; state it with --axes"
    for text, axes, words in (("SCALEZ3", [], ""), ("SCALEZ2", [], told), ("SCALEZ2", ["--axes", "RAS"], "")):
        coil.write_text(f"{text} 1e-4\n")
        assert run("warp", coil, "-o", tmp_path / "w.nii", "--extent", 100, "--spacing", 50, *axes) == 0
        error = capsys.readouterr().err
        assert words in error and bool(error) == bool(words)
