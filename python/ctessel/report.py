"""Texts about a run: facts of the file, the plan in words, the sidecar, a preview."""

import platform

import numpy as np
import scipy

from . import __version__, png, raw, runtime
from .scan import printable

#: Python with its modules, blocks of the file, and freed memory that is kept.
INTERPRETER = 160_000_000


def intentions(found, plan, needed, files):
    """What a run would do, for people.

    `needed` is its memory in bytes, `files` are the names that it would write.
    """
    lines = [
        *_aligned(raw.facts(found)),
        "",
        "would be done:",
        *(f"  {step}" for step in plan.steps),
        f"  memory {runtime.text(needed)}, free {runtime.text(runtime.available())}",
        *(f"  write {names}" for names in files),
    ]
    return "\n".join(lines)


def information(found, more, drawing, plan):
    """What is in a raw data file and what `ctessel recon` would do with it, for people.

    `more` are facts beyond the contents of the file, `drawing` lines of text. `plan` is a function; if it
    refuses the scan, the text has its error.
    """
    lines = [*_aligned({**raw.facts(found), **{name: text for name, text in more.items() if text}}), "", *drawing]
    try:
        made = plan()
        lines += [
            "",
            "ctessel recon would:",
            *(f"  {step}" for step in made.steps),
            f"  memory {runtime.text(made.memory() + INTERPRETER)}",
            *(f"  warn: {text}" for text in made.warnings),
        ]
    except ValueError as error:
        lines += ["", f"ctessel recon would refuse it: {error}"]
    return "\n".join(lines)


def _aligned(facts):
    width = max(map(len, facts))
    return [f"{name:{width}}  {text}" for name, text in facts.items()]


def sidecar(result, measured, *, header, extents, skipped, source, position, geometry, known):
    """The sidecar of an image, with keys of the BIDS standard if it has them.

    Parameters
    ----------
    result : Result
    measured : dict
        Entries by `ctessel.bids.entries`.
    header : Header
    extents : dict
        Slices, echoes and repetitions of the whole scan.
    skipped : sequence of (str, int)
        Axis and position of what was left out.
    source : str
        The raw data file.
    position : str or None
        Patient position, instead of that of the header.
    geometry : str or None
        The file of the coefficients.
    known : bool
        Whether the file has positions.
    """
    entries = {
        "ProtocolName": header.protocol,
        "PatientPosition": position or header.patient_position,
        **measured,
        "NonlinearGradientCorrection": bool(geometry),
        "GradientCorrection": geometry and {"Coefficients": printable(geometry)},
        "Sources": [printable(source)],
        "Position": "of the file" if known else "not in the file; axial at the isocentre assumed",
        "Range": result.selection and _range(*result.selection, extents),
        "Skipped": [{"Axis": axis, "Position": number} for axis, number in skipped],
        "Steps": result.steps,
        "Warnings": result.warnings,
        "Parameters": {**result.parameters, "geometry": geometry and printable(geometry)},
        "ConversionSoftware": "ctessel",
        "ConversionSoftwareVersion": __version__,
        "Versions": versions(),
    }
    return {name: value for name, value in entries.items() if value}


def _range(axis, first, last, extents):
    """The part of the scan that an image shows."""
    return {"Axis": axis, "First": first, "Last": last, "Count": extents[axis]}


def versions():
    """Versions that a result may depend on."""
    import nibabel

    return {
        "python": platform.python_version(),
        "numpy": np.__version__,
        "scipy": scipy.__version__,
        "nibabel": nibabel.__version__,
    }


def save_preview(path, image, field):
    """A picture of all slices of the first echo and repetition, x to the right and y downwards."""
    path.write_bytes(png.encode(png.grey(png.mosaic(png.square(planes(image), field)))))


def planes(image):
    """Magnitudes of all slices or partitions of the first echo and repetition, ``(x, y, number)``."""
    volume = np.abs(image[..., 0, 0]).astype(np.float32)
    return volume.reshape((*volume.shape[:2], -1), order="F")
