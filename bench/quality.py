#!/usr/bin/python3
"""Error of whole reconstructions against fully sampled data, `ctessel recon` beside BART.

    bench/quality.py BUILD OUTPUT [NAME.cfl...]

Fully sampled k-space, (x, y, 1, coil), comes from pairs NAME.cfl and NAME.hdr as BART writes them,
by default the measured data that the tests know. Volumes are BART's own phantom, with noise. Lines
are left out as a scanner would leave them out, the rest goes to both programs, and what they make
of it is compared with the image of all lines. Writes OUTPUT/quality.md, OUTPUT/quality.json and pictures of the errors. `bench/tables.py
OUTPUT/quality.json` puts the tables into the pages.

Error: root mean square of the difference over that of the image, inside the object, after the one
scale factor that makes it least. BART has the best of three regularisations for every row.
Processor time is that of the processes, start-up included: of a scan of SLICES slices for
`ctessel recon`, which takes them at once, and of one slice for BART, which takes one.

Shifted sampling patterns need two phase-encoded axes: the slice's readout stands for the second one. The volume is
then one plane across a readout of one sample, and every sample of it was measured.
"""

import itertools
import json
import os
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from scipy import ndimage
from tables import quality

REDUCTIONS = [(2, 24), (2, 32), (3, 24), (3, 32)]
SHARES = [0.5625, 0.625, 0.75]
PARTIAL = ["auto", "zero", "homodyne", "pocs"]
DATA = ["brain16_ksp", "phantom32_ksp", "brain1_t1sag_ksp"]  # by default
SLICES = 16
VOLUME, COILS, NOISE = 48, 8, 0.02  # BART's phantom: extent, coils, noise over the brightest voxel
LEVELS = ["0", "0.001", "0.01"]
LATTICES = [(2, 2, 0), (2, 2, 1), (1, 4, 2), (3, 2, 1)]  # steps along y and z, shift of z from y to y
if "CTESSEL_QUICK" in os.environ:
    REDUCTIONS, SHARES, SLICES, LATTICES, VOLUME = REDUCTIONS[:1], SHARES[:1], 1, LATTICES[1:2], 32
SCRATCH = tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None)
FOLDER = Path(SCRATCH.name)


@dataclass
class Outcome:
    image: np.ndarray
    seconds: float


# ---- Programs ----


def run(command, **changes):
    """Processor time of a process and of its threads, in seconds."""
    process = subprocess.Popen(
        list(map(str, command)),
        cwd=FOLDER,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        env={**os.environ, **changes},
    )
    complaint = process.stderr.read().decode()
    _, status, usage = os.wait4(process.pid, 0)
    if status:
        sys.exit(f"{' '.join(map(str, command))} failed: {complaint[-500:]}")
    return usage.ru_utime + usage.ru_stime


def write_raw(path, kspace, sampled, block, slices=1, steps=None, noise=None):
    """A raw file: the measured lines, `block` of them flagged as calibration; the same slice as often
    as asked for. `sampled` and `block` are masks (y, z) of volumes, else that of y and lines of y.
    `noise`, (sample, coil), is a noise scan."""
    from ctessel import _ismrmrd, acquisitions, raw
    from ctessel.scan import Header, Limit

    matrix, coils = kspace.shape[:3], kspace.shape[3]
    nx, ny, nz = matrix
    if sampled.ndim == 1:
        sampled, block = sampled[:, None], np.isin(np.arange(ny), block)[:, None]
    steps = steps or (int(np.diff(np.flatnonzero(sampled[:, 0])).max()), 1)
    field = 2.0 * nx, 2.0 * ny, 2.0 * nz if nz > 1 else 5.0
    header = Header(
        encoded_matrix=matrix, encoded_fov=field, recon_matrix=matrix, recon_fov=field,
        limits={axis: Limit(0, n - 1, n // 2) for axis, n in zip("xyz", matrix)},
        acceleration=steps, calibration_mode="embedded" if block.any() else "", patient_position="HFS",
    )  # fmt: skip
    path.unlink(missing_ok=True)  # lines are appended to a file that is there
    text = _ismrmrd.header_text(header, coils=coils, counts={"slice": slices})
    writer = raw.binding(path).Writer(str(path), "dataset", text)
    if noise is not None:
        head = np.zeros((), acquisitions.HEADER)
        head["version"], head["sample_time_us"], head["flags"] = 1, 5, acquisitions.NOISE
        writer.append(np.frombuffer(head.tobytes(), np.uint8), np.asfortranarray(noise, np.complex64))
    for index, (y, z) in itertools.product(range(slices), np.argwhere(sampled | block)):
        head = np.zeros((), acquisitions.HEADER)
        head["version"], head["center_sample"], head["sample_time_us"] = 1, nx // 2, 5
        head["read_dir"], head["phase_dir"], head["slice_dir"] = np.eye(3)
        head["kspace_encode_step_1"], head["kspace_encode_step_2"], head["slice"] = y, z, index
        head["position"] = 0, 0, 5 * index
        if block[y, z]:
            head["flags"] = acquisitions.CALIBRATION_AND_IMAGING if sampled[y, z] else acquisitions.CALIBRATION
        writer.append(np.frombuffer(head.tobytes(), np.uint8), np.asfortranarray(kspace[:, y, z]))
    writer.close()


def ours(kspace, sampled, block=(), options=(), slices=1, steps=None, noise=None):
    path, image = FOLDER / "scan.h5", FOLDER / "image.nii"
    write_raw(path, kspace, sampled, block, slices, steps, noise)
    seconds = run(
        [sys.executable, "-m", "ctessel", "recon", path, "-o", image, *options],
        PYTHONPATH=os.pathsep.join(sys.path),
    )
    made = read_nifti(image).reshape(*kspace.shape[:3], -1)
    return Outcome(np.squeeze(made[..., 0]), seconds / slices)


def read_nifti(path):
    import nibabel

    return np.squeeze(np.asarray(nibabel.load(path).dataobj))


def read_parameters():
    """What the sidecar of the last image says."""
    return json.loads((FOLDER / "image.json").read_text())["Parameters"]


def write_cfl(name, a):
    np.asarray(a, np.complex64).ravel("F").tofile(FOLDER / f"{name}.cfl")
    (FOLDER / f"{name}.hdr").write_text("# Dimensions\n" + " ".join(map(str, a.shape)) + "\n")


def read_cfl(path):
    return read_all(path)[..., 0]  # of slices the first


def read_all(path):
    path = Path(path)
    extents = path.with_suffix(".hdr").read_text().splitlines()[1].split()[:4]
    samples = np.fromfile(path.with_suffix(".cfl"), "<c8")
    return samples.reshape([*map(int, extents), -1], order="F")


def bart(kspace, lines, calibrate, truth, inside):
    """The best of BART's regularisations."""
    write_cfl("kspace", kspace)
    maps = run(["bart", *calibrate, *([lines] if calibrate == ["caldir"] else []), "kspace", "maps"])
    outcomes = []
    for level in LEVELS:
        seconds = run(["bart", "pics", "-S", "-l2", "-r", level, "-i", 50, "kspace", "maps", "out"])
        sets = np.linalg.norm(read_all(FOLDER / "out.cfl"), axis=4)
        outcomes.append(Outcome(np.squeeze(sets), maps + seconds))
    return min(outcomes, key=lambda outcome: error(outcome.image, truth, inside))


# ---- What is measured ----


def sum_of_squares(kspace):
    from ctessel import pipeline

    return np.squeeze(pipeline.combine(pipeline.to_image(kspace), "sos"))


def object_of(image):
    """The inside of the object: bright enough, without specks, in one piece, without holes."""
    inside = image > 0.08 * np.percentile(image, 99.5)
    inside = ndimage.binary_opening(inside, iterations=2)
    inside = ndimage.binary_closing(inside, iterations=4)
    labels, n = ndimage.label(inside)
    sizes = ndimage.sum_labels(inside, labels, range(1, n + 1))
    return ndimage.binary_fill_holes(labels == 1 + np.argmax(sizes))


def error(image, truth, inside):
    a, b = image[inside].astype(float), truth[inside].astype(float)
    return np.linalg.norm(a * (a @ b / (a @ a)) - b) / np.linalg.norm(b)


def every(n, step):
    return (np.arange(n) - n // 2) % step == 0


def around(n, count):
    return range(n // 2 - count // 2, n // 2 - count // 2 + count)


def undersampled(name, kspace):
    """Rows of the table of undersampled scans, with the images they are about."""
    truth, n = sum_of_squares(kspace), kspace.shape[1]
    inside = object_of(truth)
    for step, lines in REDUCTIONS:
        sampled, block = every(n, step), around(n, lines)
        kept = kspace * (sampled | np.isin(np.arange(n), block))[None, :, None, None]
        mine = ours(kspace, sampled, block, ["--save-maps", FOLDER / "ours.cfl"], SLICES)
        ecalib = bart(kept, lines, ["ecalib", "-m1", "-r", lines], truth, inside)
        caldir = bart(kept, lines, ["caldir"], truth, inside)
        row = {"data": name, "R": step, "lines": lines}
        for key, outcome in (("ctessel", mine), ("ecalib", ecalib), ("caldir", caldir)):
            row[key] = error(outcome.image, truth, inside)
        row["of ecalib"] = row["ctessel"] / row["ecalib"]
        row["time, ecalib's over ours"] = ecalib.seconds / mine.seconds
        print(row, file=sys.stderr)
        images = {"ctessel": mine.image, "BART, ecalib": ecalib.image}
        yield row, (truth, inside, images, g_factor(read_cfl(FOLDER / "ours.cfl")[:, :, 0], step))


def volumes():
    """Rows of volumes: BART's phantom in three dimensions."""
    from ctessel import pipeline

    run(["bart", "phantom", "-3", "-x", VOLUME, "-s", COILS, "whole"])
    clean = pipeline.to_kspace(read_cfl(FOLDER / "whole.cfl"))
    truth, random = sum_of_squares(clean), np.random.default_rng(0).standard_normal((2, *clean.shape))
    kspace = (clean + NOISE * truth.max() / 2**0.5 * (random[0] + 1j * random[1])).astype(np.complex64)
    inside, near = object_of(truth), np.isin(np.arange(VOLUME), around(VOLUME, 20))
    for *steps, shift in ((2, 1, 0), (2, 2, 0), (2, 2, 1)):
        sampled, block = lattice((VOLUME, VOLUME), *steps, shift), np.outer(near, near)
        kept = kspace * (sampled | block)[None, :, :, None]
        mine, ecalib = ours(kspace, sampled, block, steps=tuple(steps)), bart(
            kept, 20, ["ecalib", "-m1", "-r", 20], truth, inside
        )
        row = {
            "data": f"phantom, {VOLUME}^3",
            "R": "{} x {}".format(*steps) + f", shifted by {shift}" * (shift > 0),
        }
        for key, outcome in (("ctessel", mine), ("ecalib", ecalib)):
            row[key] = error(outcome.image, truth, inside)
        row["of ecalib"] = row["ctessel"] / row["ecalib"]
        row["time, ecalib's over ours"] = ecalib.seconds / mine.seconds
        print(row, file=sys.stderr)
        yield row


def lattice(extents, step_y, step_z, shift):
    """Every `step_y`-th line of y, in which those of z move on by `shift` from one to the next."""
    y, z = (np.arange(n) - n // 2 for n in extents)
    turn, rest = np.divmod(y, step_y)
    return (rest == 0)[:, None] & ((z - shift * turn[:, None]) % step_z == 0)


def shifted(name, kspace):
    """Rows of the table of shifted sampling patterns, with the images they are about."""
    truth = sum_of_squares(kspace)
    inside, volume = object_of(truth), kspace[:, :, 0][None]
    extents = volume.shape[1:3]
    block = np.outer(*(np.isin(np.arange(n), around(n, 24)) for n in extents))
    for step_y, step_z, shift in LATTICES:
        sampled = lattice(extents, step_y, step_z, shift)
        maps = FOLDER / "ours.cfl"
        mine = ours(volume, sampled, block, ["--save-maps", maps], steps=(step_y, step_z))
        ecalib = bart(volume * (sampled | block)[..., None], 24, ["ecalib", "-m1", "-r", 24], truth, inside)
        row = {"data": name, "pattern": f"{step_y} x {step_z}" + f", shifted by {shift}" * (shift > 0)}
        for key, outcome in (("ctessel", mine), ("ecalib", ecalib)):
            row[key] = error(outcome.image, truth, inside)
        row["of ecalib"] = row["ctessel"] / row["ecalib"]
        g = g_of_lattice(read_cfl(maps), sampled, (step_y, step_z))
        g = g[tuple(np.ix_(*(np.arange(n) * m // n for n, m in zip(truth.shape, g.shape))))]
        row |= {"g, mean": float(g[inside].mean()), "g, 99 %": float(np.percentile(g[inside], 99))}
        print(row, file=sys.stderr)
        yield row, (truth, inside, {"ctessel": mine.image, "BART, ecalib": ecalib.image}, g)


def g_of_lattice(maps, sampled, steps):
    """As `g_factor`, of a lattice of y and z."""
    import ctessel
    from ctessel import pipeline

    lattices = pipeline.undersampling(sampled, stated=steps)
    folded = (1, *(lattice.folded for lattice in lattices))
    return ctessel.sense_noise(
        maps, full_size=maps.shape[:3], fold_size=folded, aliases=pipeline.alias_offsets(lattices)
    )[0][0]


def g_factor(maps, step):
    """Noise that unfolding adds, (x, y), before measured lines are put back: sqrt([A^-1]_ii A_ii)."""
    from ctessel import unfolded_positions

    full = maps.shape[1]
    g = np.zeros(maps.shape[:2])
    for position in range(full // step):
        lines = unfolded_positions(full, full // step, position)
        s = maps[:, lines]
        there = (s != 0).any(2)
        a = s.conj() @ s.transpose(0, 2, 1) + ~there[:, :, None] * np.eye(len(lines))
        inverse = np.linalg.inv(a.astype(np.complex128))
        own = np.einsum("xaa->xa", inverse) * np.einsum("xaa->xa", a)
        g[:, lines] = np.sqrt(np.abs(own)) * there
    return g


def partial(name, kspace):
    """Rows of the table of partial scans."""
    truth, n = sum_of_squares(kspace), kspace.shape[1]
    inside = object_of(truth)
    for step, share in itertools.product((1, 2) if kspace.shape[3] > 3 else (1,), SHARES):
        measured = np.arange(n) >= n - round(share * n)
        block = [line for line in around(n, 24) if step > 1 and measured[line]]
        row = {"data": name, "R": step, "share": share}
        for way in PARTIAL:
            outcome = ours(kspace, measured & every(n, step), block, ["--partial", way], steps=(step, 1))
            row[way] = error(outcome.image, truth, inside)
            if way == "auto":
                row["prediction"] = read_parameters()["prediction"][0]
        print(row, file=sys.stderr)
        yield row


DEFECTS = ["zeros", "noise only", "30 times its noise"]
DEFECTIVE = 5


def defective(name, kspace):
    """Rows of the table of a coil that is defective, R = 2, with images of all coils and of those left;
    the truth is that of the other coils."""
    n, count = kspace.shape[1], kspace.shape[3]
    truth = sum_of_squares(np.delete(kspace, DEFECTIVE, 3))
    inside = object_of(truth)
    corner = kspace[: len(kspace) // 16, : n // 16, 0, DEFECTIVE]
    random = np.random.default_rng(1).standard_normal((2, *kspace.shape[:3])).astype(np.float32)
    noise = np.sqrt(np.mean(np.abs(corner) ** 2) / 2) * (random[0] + 1j * random[1])
    sampled, block = every(n, 2), around(n, 24)
    intact = error(ours(kspace, sampled, block).image, sum_of_squares(kspace), inside)
    for what, samples in zip(DEFECTS, (0 * noise, noise, kspace[..., DEFECTIVE] + 30 * noise)):
        broken = kspace.copy()
        broken[..., DEFECTIVE] = samples
        images = {
            "all coils": ours(broken, sampled, block, ["--coils", f"0-{count - 1}"]).image,
            "without it": ours(broken, sampled, block).image,
        }
        row = {"data": name, "defect": what, "intact": intact}
        row |= {key: error(image, truth, inside) for key, image in images.items()}
        print(row, file=sys.stderr)
        yield row, (truth, inside, images, what)


FIELDS = [1, 0.75, 0.625, 0.5]
PROGRAMS = ["one set", "ctessel", "BART, one set", "BART, two sets"]


def tight(name, kspace):
    """Rows of the table of fields of view that are smaller than the object along y, R = 2, with images."""
    from ctessel import pipeline

    whole = pipeline.to_image(kspace, (1,))
    for share in FIELDS:
        n = round(share * kspace.shape[1] / 4) * 4
        image = np.zeros((len(whole), n, *whole.shape[2:]), np.complex64, order="F")
        for y in range(whole.shape[1]):  # lines farther apart fold the object onto itself
            image[:, (y - whole.shape[1] // 2 + n // 2) % n] += whole[:, y]
        folded = pipeline.to_kspace(image, (1,))
        truth, sampled, block = sum_of_squares(folded), every(n, 2), around(n, 24)
        inside = object_of(truth)
        kept = folded * (sampled | np.isin(np.arange(n), block))[None, :, None, None]
        made = [ours(folded, sampled, block, ["--map-sets", sets]).image for sets in ("1", "auto")]
        told = read_parameters()
        made += [bart(kept, 24, ["ecalib", f"-m{sets}", "-r", 24], truth, inside).image for sets in (1, 2)]
        row = {"data": name, "field": share, "sets": told["map_sets"][0]}
        row |= {f"unexplained by {count}": figure for count, figure in zip(("one", "two"), told["unexplained"][0])}
        row.setdefault("unexplained by two", "not tried")
        row |= {program: error(each, truth, inside) for program, each in zip(PROGRAMS, made)}
        row["of two"] = row["ctessel"] / row["BART, two sets"]
        print(row, file=sys.stderr)
        yield row, (truth, inside, dict(zip(PROGRAMS, made)), None)


NOISE_VOLUMES = 64


def noise_volumes(name, kspace):
    """Spread of volumes of noise over the map of it; the noise scan is drawn from the covariance of the
    samples beside the object."""
    n, edge = kspace.shape[1], kspace.shape[1] // 8
    images = np.fft.fftshift(np.fft.ifft2(np.fft.ifftshift(kspace, (0, 1)), axes=(0, 1), norm="ortho"), (0, 1))
    air = np.concatenate(
        [
            images[x, y, 0].reshape(-1, kspace.shape[3])
            for x in (slice(edge), slice(-edge, None))
            for y in (slice(edge), slice(-edge, None))
        ]
    )
    factor = np.linalg.cholesky(air.T @ air.conj() / len(air))
    white = np.random.default_rng(2).standard_normal((2, 4096, kspace.shape[3]))
    scan = (white[0] + 1j * white[1]) @ factor.T * 0.5**0.5
    image = ours(
        kspace, every(n, 2), around(n, 24), ["--noise-images", NOISE_VOLUMES, "--maps-out", "sd"], noise=scan
    ).image
    sd, volumes = (read_nifti(FOLDER / f"image_{what}.nii") for what in ("sd", "noise"))
    spread = np.sqrt(np.mean(volumes.astype(float) ** 2, -1))
    ratio = (spread / np.where(sd > 0, sd, 1))[object_of(image) & (sd > 0)]
    row = {
        "data": name,
        "volumes": NOISE_VOLUMES,
        "mean of spread over map": ratio.mean(),
        "its deviation": ratio.std(),
        "expected": np.sqrt(1 / 4 / NOISE_VOLUMES + 1 / 4 / 100),
    }
    print(row, file=sys.stderr)
    return row, (image, sd, volumes[..., 0], spread)


MOVES = [
    ("none", 4, 0.0),
    ("1 voxel from line +4", 4, 1.0),
    ("2 voxels from line +4", 4, 2.0),
    ("2 voxels from line +14", 14, 2.0),
]


def moved(name, kspace):
    """Rows of the table of an object that moves along the readout before a line is measured, R = 2."""
    truth, n = sum_of_squares(kspace), kspace.shape[1]
    inside, x = object_of(truth), np.arange(len(kspace)) - len(kspace) // 2
    for what, line, voxels in MOVES:
        broken = kspace.copy()
        turn = np.exp(-2j * np.pi * x * voxels / len(x)).astype(np.complex64)
        broken[:, n // 2 + line :] *= turn[:, None, None, None]
        image = ours(broken, every(n, 2), around(n, 32)).image
        found = read_parameters().get("inconsistent", [])
        lines = [f"{line:+d} ({times:.2g})" for each in found for line, times in zip(each["Lines"], each["Misfit"])]
        row = {
            "data": name,
            "motion": what,
            "error": error(image, truth, inside),
            "lines in the warning": ", ".join(lines) or "none",
        }
        print(row, file=sys.stderr)
        yield row, (truth, inside, {"moved": image}, what)


# ---- The report ----


def picture(name, shown):
    """Differences of all rows, ten times as bright as the image, and below them the g-factor."""
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from ctessel import png

    truth, _, programs, _ = shown[0][1]
    top = np.percentile(truth, 99.5)
    figure, axes = plt.subplots(
        len(programs) + 1,
        1 + len(shown),
        constrained_layout=True,
        figsize=(2 * (1 + len(shown)), 2.2 * (len(programs) + 1)),
        dpi=72,
    )
    for line, program in zip(axes, programs):
        line[0].set_ylabel(program)
        for place, (row, (_, inside, images, _)) in zip(line[1:], shown):
            image = images[program]
            scale = (image[inside] @ truth[inside]) / (image[inside] @ image[inside])
            place.imshow(10 * np.abs(image * scale - truth).T, cmap="gray", vmin=0, vmax=top)
            place.set_title(row.get("pattern") or f"R = {row['R']}, {row['lines']} lines", fontsize=8)
    for place, (_, (_, _, _, g)) in zip(axes[-1, 1:], shown):
        place.imshow(g.T, cmap="gray", vmin=0, vmax=3)
        place.set_title(f"g, at most {g.max():.1f}", fontsize=8)
    axes[-1, 0].set_ylabel("g-factor, 0 to 3")
    for place in axes.flat:
        place.set(xticks=[], yticks=[])
    for place in axes[:, 0]:
        place.imshow(truth.T, cmap="gray", vmin=0, vmax=top)
    figure.canvas.draw()
    grey = np.array(figure.canvas.buffer_rgba())[:, :, 0]
    Path(name).write_bytes(png.encode(grey // 16 * 17))  # noise of more levels packs badly
    plt.close(figure)


def noise_picture(name, shown):
    """The image; the map of its noise, a volume of noise, and the spread of all, of one brightness."""
    from ctessel import png

    top = 2.5 * np.percentile(shown[1], 99)
    line = [shown[0] / np.percentile(shown[0], 99.5), *(each / top for each in shown[1:])]
    Path(name).write_bytes(png.encode(png.grey(np.concatenate(line), low=0, high=1) // 16 * 17))


def tight_picture(name, shown):
    """Images of all lines, and for one set, two, and those of the other program the errors, ten times as bright."""
    from ctessel import png

    rows = []
    for truth, inside, images, _ in shown:
        line = [truth]
        for image in images.values():
            scale = (image[inside] @ truth[inside]) / (image[inside] @ image[inside])
            line.append(10 * np.abs(image * scale - truth))
        rows.append(np.concatenate([each / np.percentile(truth, 99.5) for each in line]))
    Path(name).write_bytes(png.encode(png.grey(np.concatenate(rows, 1), low=0, high=1) // 16 * 17))


def defects_picture(name, shown):
    """Images of a scan with a defective coil, all coils used above, and below what is left by itself."""
    from ctessel import png

    rows = []
    for key in shown[0][2]:
        line = [shown[0][0], *(images[key] for _, _, images, _ in shown)]
        rows.append(np.concatenate([image / np.percentile(image, 99.5) for image in line]))
    Path(name).write_bytes(png.encode(png.grey(np.concatenate(rows, 1), low=0, high=1) // 16 * 17))


def main():
    build, output, *paths = sys.argv[1:]
    sys.path.insert(0, str(Path(build).resolve() / "package"))
    folder = Path(os.environ.get("CTESSEL_DATA", Path(__file__).parents[2] / "shared" / "data"))
    paths = paths or [p for p in (folder / f"{name}.cfl" for name in DATA) if p.exists()]
    if not paths:
        print(f"no measured data in {folder}: quality is not measured", file=sys.stderr)
        return
    below, shifts, missing, broken, noisy, moves, folds = ([] for _ in range(7))
    solid = list(volumes())
    for path in paths:
        name, kspace = Path(path).stem, read_cfl(path)
        if kspace.shape[3] > 3:
            shown = list(undersampled(name, kspace))
            below += [row for row, _ in shown]
            picture(f"{output}/quality-{name}.png", shown)
            shown = list(shifted(name, kspace))
            shifts += [row for row, _ in shown]
            picture(f"{output}/shifted-{name}.png", shown)
            shown = list(tight(name, kspace))
            folds += [row for row, _ in shown]
            tight_picture(f"{output}/map_sets-{name}.png", [about for _, about in shown[1:]])
            shown = list(defective(name, kspace))
            broken += [row for row, _ in shown]
            defects_picture(f"{output}/coils-{name}.png", [about for _, about in shown])
            row, about = noise_volumes(name, kspace)
            noisy.append(row)
            noise_picture(f"{output}/noise_images-{name}.png", about)
            shown = list(moved(name, kspace))
            moves += [row for row, _ in shown]
            defects_picture(f"{output}/motion-{name}.png", [about for _, about in shown])
        missing += partial(name, kspace)
    results = {
        "undersampled": below,
        "volumes": solid,
        "shifted": shifts,
        "partial": missing,
        "tight": folds,
        "defective": broken,
        "noise": noisy,
        "motion": moves,
    }
    Path(output, "quality.json").write_text(json.dumps(results, indent=1) + "\n")
    shown = [f"## {name}\n\n{text}" for name, text in quality(results).items()]
    Path(output, "quality.md").write_text("\n\n".join(shown) + "\n")


if __name__ == "__main__":
    main()
