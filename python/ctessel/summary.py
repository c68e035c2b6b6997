"""The report of a reconstruction: what was done and why, with pictures of every step."""

import os
import time
from dataclasses import dataclass

import numpy as np

from . import __version__, methods, page, phantom, png, raw, report
from .scan import printable

#: Maps of a reconstruction: title, range of colours, what to look for.
_MAPS = {
    "g": ("g-factor", 1.0, None, "How much unfolding raises the noise: 1 is best, above 2 is much. High where sensitivities are similar."),
    "snr": ("SNR", 0.0, None, "Image divided by the standard deviation of its noise. Below 3, signal is lost in noise."),
    "sd": ("Standard deviation of the noise", 0.0, None, "In units of the image. It should be smooth."),
    "condition": ("Condition of the unfolding", 1.0, None, "How much errors can grow. It should be small inside the object."),
    "residual": ("Residual", 0.0, None, "What the sensitivities do not explain of the calibration. It should look like noise, without edges."),
}  # fmt: skip


@dataclass
class Run:
    """Content of a report."""

    found: raw.Contents
    plan: object
    result: object
    seen: object  # ctessel.inspection.Seen
    noise: dict  # maps of noise, of all slices or of the slice in the report
    lacking: str  # why the others are missing
    affine: np.ndarray
    command: str


def write(path, run):
    """Write the report of a `Run`."""
    name = printable(run.found.path)
    made = page.Page(f"Reconstruction of {name}")
    made.add(_lead(run))
    _warnings(made, run.result.warnings)
    made.section("What was done and why", page.listed(map(methods.reason, run.result.steps), "ol"))
    made.section("Images", page.figures(_images(made, run)))
    _volumes(made, run)
    made.section("k-space and coils", page.figures(_steps(made, run)))
    lacking = f"<p>Maps that are missing here: {page.escaped(run.lacking)}.</p>" if run.lacking else ""
    made.section("Noise", page.figures(_noise(made, run)), lacking)
    _figures(made, run.result.parameters)
    _methods(made, run)
    _provenance(made, run, name)
    path.write_text(made.text(), encoding="utf-8")


def _lead(run):
    protocol = f", protocol {run.found.header.protocol}" if run.found.header.protocol else ""
    size = " x ".join(map(str, run.result.image.shape[:4]))
    return f"<p>{page.escaped(f'{size} voxels{protocol}, by cTessel {__version__}.')}</p>"


def _warnings(made, warnings):
    if warnings:
        made.section("Warnings", page.listed(warnings), kind="warnings")
    else:
        made.add("<p>There are no warnings.</p>")


def _picture(made, values, field, words, caption, pixels=png.grey, **limits):
    """A figure of ``(x, y)`` with square voxels."""
    shown = png.fitted(png.square(values, field))
    return made.figure(pixels(shown, **limits), words, caption)


def _plane(run, volume):
    """The plane ``(x, y)`` of a volume ``(x, y, z, slice, ...)`` that the report shows."""
    first = volume.reshape((*volume.shape[:4], -1))[..., 0]
    if run.plan.matrix[2] > 1:
        return first[:, :, run.seen.plane, 0]
    return first[:, :, 0, run.seen.plane - run.plan.kept[0].start if first.shape[3] > 1 else 0]


# ---- Pictures ------------------------------------------------------------------------------------


def _images(made, run):
    image, field, where = run.result.image, run.result.field, _where(run)
    all_planes = report.planes(image)
    if all_planes.shape[2] > 1:
        yield _picture(made, png.mosaic(all_planes), field, f"Images of {all_planes.shape[2]} planes, magnitude",
                       f"Planes (at most 36 of {all_planes.shape[2]}), first echo and repetition. Look for planes "
                       "with a different brightness.")  # fmt: skip
    yield _picture(made, np.abs(_plane(run, image)), field, f"Image of {where}, magnitude",
                   f"Image, {where}, first echo and repetition. Look for ghosts and folded edges.")  # fmt: skip
    phase = _plane(run, image) if np.iscomplexobj(image) else run.seen.phase
    if phase is not None:
        weight = np.clip(np.abs(phase) / png.usual_top(np.abs(phase)), 0, 1) ** 0.5
        angles = png.fitted(png.square(np.angle(phase), field), most=10**6)
        shown = png.phase(angles, png.fitted(png.square(weight, field), most=10**6))
        block = -(-max(shown.shape[:2]) // 360)
        yield made.figure(shown[::block, ::block], f"Phase of {where} in colours, dark where the image is dark",
                          "Phase of the combined image; the colours repeat every 2 pi. It should be smooth within tissue.")  # fmt: skip
    yield from _errors(made, run)


def _where(run):
    return f"{'partition' if run.plan.matrix[2] > 1 else 'slice'} {run.seen.plane}"


def _errors(made, run):
    """The error of the image of a phantom, which is known."""
    truth = phantom.known_truth(run.found.header)
    if truth is None or truth.shape[:3] != run.result.image.shape[:3]:
        return
    index = run.found.kept["slice"][run.plan.kept[0]] if run.plan.matrix[2] == 1 else [0]
    truth = np.abs(truth[:, :, :, index])
    got, want = np.abs(_plane(run, run.result.image)), _plane(run, truth)
    got = got * (np.vdot(got, want) / (np.vdot(got, got) or 1.0))
    error = np.linalg.norm(got - want) / np.linalg.norm(want)
    yield _picture(made, np.abs(got - want), run.result.field, "Magnitude of the error of the image",
                   f"Difference from the known image of the phantom, five times as bright: {100 * error:.2g} % of it. Look for "
                   "edges (ringing), folded copies, and noise.", high=png.usual_top(want) / 5)  # fmt: skip


def _steps(made, run):
    seen, field = run.seen, run.plan.field
    energy = np.log10(np.maximum(seen.energy, float(seen.energy.max()) * 1e-8 or 1.0))
    yield made.figure(png.grey(png.fitted(energy), low=energy.min(), high=energy.max()),
                      "Energy of k-space on a logarithmic scale, readout to the right",
                      "Energy of k-space: kx to the right, ky downwards; sum over the coils, eight decades. It should "
                      "peak in the middle; isolated bright lines or points are spikes.")  # fmt: skip
    yield _sampling(made, run)
    coils = seen.coils.shape[2]
    yield _picture(made, png.mosaic(seen.coils), field, f"Images of {coils} coils, magnitude",
                   f"Images of {coils} of {run.plan.measured_shape[3]} coil{'s' * (coils > 1)}, zero-filled, {_where(run)}. A black "
                   f"or noisy one is a defective coil. {_left_out(run.plan)}".rstrip())  # fmt: skip
    if seen.maps is not None:
        yield _picture(made, png.mosaic(seen.maps), field, f"Sensitivity maps of {seen.maps.shape[2]} coils, magnitude",
                       "Sensitivity maps. They should be smooth; holes inside of the object are voxels without a map.")  # fmt: skip
    left_out = run.plan.parameters.get("left_out", [])
    used = [coil for coil in range(coils) if coil not in left_out]
    plain = np.sqrt((seen.coils[..., used] ** 2).sum(-1)) if seen.zero is None else _plane_of_zero(run)
    yield _picture(made, plain, field, "Zero-filled image of the measured lines",
                   "The same plane before unfolding and prediction: measured lines, zeros for the others, root sum "
                   "of squares. The image above should not have its folding.")  # fmt: skip


def _left_out(plan):
    numbers = plan.parameters.get("left_out", [])
    return f"Left out: {', '.join(map(str, numbers))}, counted from 0." if numbers else ""


def _plane_of_zero(run):
    at = run.seen.plane if run.plan.matrix[2] > 1 else run.seen.plane - run.plan.kept[0].start
    return run.seen.zero[:, :, at]


def _sampling(made, run):
    """ky to the right, kz (of slices a band) downwards."""
    pattern, layout = run.plan.patterns[0], run.seen.layout
    colours = np.array([(40, 40, 40), (235, 235, 235), (86, 180, 233), (230, 80, 60)], np.uint8)
    kind = pattern.mask.astype(int)
    kind[pattern.expected & ~pattern.mask] = 3
    region = run.plan.calibration
    if layout.flagged is not None:
        kind[(layout.flagged > 0) & pattern.mask] = 2
    elif region is not None and not region.separate:
        kind[region.y, region.z] = np.where(pattern.mask[region.y, region.z], 2, kind[region.y, region.z])
    if kind.shape[1] == 1:
        kind = kind.repeat(max(8, kind.shape[0] // 4), 1)
    times = max(1, 320 // kind.shape[0])
    shown = colours[kind.repeat(times, 0).repeat(times, 1)].swapaxes(0, 1)
    counts = [int(n) for n in (pattern.mask.sum(), pattern.mask.size, (pattern.expected & ~pattern.mask).sum())]
    return made.figure(shown, f"Lines in the plane of ky and kz: {counts[0]} of {counts[1]} measured",
                       f"Lines of the first repetition, ky to the right, kz downwards: {counts[0]} of {counts[1]} "
                       f"measured (white), calibration (blue), left out on purpose (dark), {counts[2]} lost (red).")  # fmt: skip


def _noise(made, run):
    shown = []
    if run.plan.covariance is not None:
        covariance = np.asarray(run.plan.covariance)
        deviation = np.sqrt(np.abs(np.diagonal(covariance)))
        deviation = np.maximum(deviation, 1e-6 * deviation.max() or 1.0)  # no division by 0 for coils without noise
        correlation = np.abs(covariance) / np.outer(deviation, deviation)
        shown.append(made.figure(png.colour(png.fitted(correlation), high=1.0), "Correlation of the noise of the coils",
                                 f"Noise correlation of the coils, 0 (dark) to 1 (yellow). Their amplitudes differ by a factor "
                                 f"of {deviation.max() / deviation.min():.2g}; a coil far off is defective."))  # fmt: skip
    for name, values in run.noise.items():
        title, low, high, caption = _MAPS[name]
        plane = np.nan_to_num(_plane(run, values))
        shown.append(_picture(made, plane, run.result.field, f"{title} of {_where(run)}", f"{title}, {_where(run)}. {caption}",
                              png.colour, low=low, high=high))  # fmt: skip
        if name in ("g", "snr"):
            inside = values[values > 0]
            middle = f"{np.median(inside):.3g}" if inside.size else "unknown"
            shown.append(page.histogram(inside, f"Histogram of the {title}",
                                        f"{title} inside the object, {_planes(values)}: median {middle}."))  # fmt: skip
    return shown


def _planes(values):
    return "all slices" if values.shape[3] > 1 else "one slice"


#: Figures of a run, one for each slice and sampling pattern: their names, and what they mean.
_FIGURES = {
    "prediction": ("Roughness of the phase: partial Fourier", "The outermost quarter of the lines on the short side of "
                   "k = 0 was hidden and predicted. This is the error of the prediction, divided by the lines: below 1 the "
                   "missing lines are predicted (POCS), otherwise they stay zero."),
    "map_sets": ("Sets of sensitivities", "Two where the field of view is smaller than the object, which folds onto itself."),
    "residual": ("Fit of the sensitivities", "Share of the energy of the calibration data that the sensitivities do not "
                 "explain. Noise explains a part of it; more indicates motion, or maps of another scan."),
}  # fmt: skip


def _figures(made, parameters):
    for name, (title, words) in _FIGURES.items():
        figures = parameters.get(name)
        if figures:
            rows = {str(i): "unknown" if f is None else f"{f:.3g}" for i, f in enumerate(figures)}
            made.section(title, f"<p>{page.escaped(words)}</p>", page.table(rows))
    _inconsistent(made, parameters.get("inconsistent", []))


def _inconsistent(made, entries):
    if not entries:
        return
    words = (
        "Lines, counted from k = 0, that fit one image of all coils worse than the lines beside them, and "
        "the ratio of their errors. The causes are motion, spikes and lost lines. The "
        "image uses them as they were measured."
    )
    rows = {
        f"slice {entry['Slice']}, repetition {entry['Repetition']}": ", ".join(
            f"{line:+d} ({times:.2g})" for line, times in zip(entry["Lines"], entry["Misfit"])
        )
        for entry in entries
    }
    made.section("Lines that do not fit", f"<p>{page.escaped(words)}</p>", page.table(rows))


# ---- Texts ---------------------------------------------------------------------------------------


def _methods(made, run):
    sentences, works = methods.text(run.plan)
    made.section(
        "Methods",
        "<p>To copy into a paper:</p>",
        f'<p id="methods">{page.escaped(sentences)}</p>',
        page.listed(works, "ol"),
    )


def _provenance(made, run, name):
    status = os.stat(run.found.path)
    changed = time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime(status.st_mtime))
    file = {"file": name, "bytes": f"{status.st_size:,}", "last changed": changed, **raw.facts(run.found)}
    written = time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())
    versions = {"ctessel": __version__, **report.versions(), "report written": written}
    made.section("Command, versions and provenance", f"<pre>{page.escaped(run.command)}</pre>", "<h3>Raw data</h3>",
                 page.table(file), "<h3>Versions</h3>", page.table(versions))  # fmt: skip


def _volumes(made, run):
    image = np.abs(run.result.image[..., 0, 0])
    shape = (*image.shape[:2], -1)
    made.volume("image", image.reshape(shape, order="F"), run.affine)
    if run.seen.zero is not None and run.seen.zero.shape == image.reshape(shape, order="F").shape:
        made.volume("zero-filled", run.seen.zero, run.affine)
    if np.iscomplexobj(run.result.image):
        angle = np.angle(run.result.image[..., 0, 0]).reshape(shape, order="F")
        made.volume("phase", angle, run.affine, -np.pi, np.pi)
    for name, values in run.noise.items():
        title, low, high, _ = _MAPS[name]
        if values.shape[3] == run.result.image.shape[3]:
            first = values.reshape((*values.shape[:4], -1))[..., 0].reshape(shape, order="F")
            made.volume(title, first, run.affine, low, high, role="map")
    made.viewer()
