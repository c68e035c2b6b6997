"""Names of files, and keys of sidecars, of the BIDS standard (Brain Imaging Data Structure).

K. J. Gorgolewski et al., "The brain imaging data structure", Scientific Data 3:160044 (2016).
"""

import contextlib
import fcntl
import json
import os
import re
from dataclasses import dataclass, field
from math import prod
from pathlib import Path

import numpy as np

from . import __version__
from .acquisitions import TICK
from .plan import UNITS
from .scan import printable

#: Suffixes that a single scan can have, by folder. Others need files that one scan does not give.
SUFFIXES = {
    "anat": ("T1w", "T2w", "PDw", "T2starw", "FLAIR", "inplaneT1", "inplaneT2", "angio", "MEGRE", "MESE"),
    "func": ("bold", "cbv", "sbref"),
}  # fmt: skip
#: Those whose names always state the echo.
NUMBERED = ("MEGRE", "MESE")
#: Folder of computed images for which raw data have no suffix.
DERIVATIVES = "derivatives/ctessel"
VERSION = "1.9.0"
README = "Images that ctessel has reconstructed from raw data. The sidecar of each image says how.\n"


@dataclass(frozen=True)
class Image:
    """A file of images: some echoes and repetitions of one part, "magnitude" or "phase"."""

    path: Path
    part: str
    echoes: slice = field(default_factory=lambda: slice(None))
    repetitions: slice = field(default_factory=lambda: slice(None))
    code: int = 0  # of NIfTI for images that the file does not place
    entries: tuple = ()  # of the sidecar, beyond those of any file: pairs

    @property
    def alone(self):
        """Whether it is one volume of a repeated scan."""
        return self.repetitions != slice(None)


@dataclass(frozen=True)
class Folder:
    """Where in a BIDS folder a scan goes."""

    path: Path
    subject: str
    session: str | None = None
    suffix: str = "T1w"
    task: str | None = None

    @property
    def kind(self):
        return next(kind for kind, suffixes in SUFFIXES.items() if self.suffix in suffixes)

    def images(self, plan, header, parts):
        """The files of a scan: one for each echo and part, of anatomical images also each repetition."""
        self._check(plan, header)
        echoes, repetitions = plan.image_shape[4:]
        runs = range(repetitions) if self.kind == "anat" and repetitions > 1 else (None,)
        numbered = echoes > 1 or self.suffix in NUMBERED
        task = self._task(header)
        for run in runs:
            for echo in range(echoes):
                for part in parts:
                    entities = {
                        "task": task,
                        "run": run is not None and run + 1,
                        "echo": numbered and echo + 1,
                        "part": len(parts) > 1 and {"magnitude": "mag"}.get(part, part),
                    }
                    yield Image(
                        self._file(entities),
                        part,
                        slice(echo, echo + 1),
                        slice(None) if run is None else slice(run, run + 1),
                        2,  # BIDS tools refuse images without a position
                        (("TaskName", task),) if task else (),
                    )

    def noise(self, plan, header, parts):
        """The files of volumes of noise, which were computed: derivatives, one for each echo and part."""
        echoes = plan.image_shape[4]
        for echo in range(echoes):
            for part in parts:
                entities = {
                    "task": self._task(header),
                    "echo": (echoes > 1 or self.suffix in NUMBERED) and echo + 1,
                    "part": len(parts) > 1 and {"magnitude": "mag"}.get(part, part),
                    "desc": "noise",
                }
                yield Image(self._file(entities, self.derivatives), part, slice(echo, echo + 1), code=2)

    @property
    def derivatives(self):
        return self.path / DERIVATIVES

    def _check(self, plan, header):
        if self.suffix == "bold" and plan.image_shape[5] < 2:
            raise ValueError("--suffix bold: needs several repetitions, and the scan has one; use sbref")
        if self.kind == "func" and plan.image_shape[5] > 1 and not header.volumes:
            raise ValueError(
                f"--suffix {self.suffix}: needs the time of each volume, but the file has no time stamps; "
                "use -o, or a suffix of anatomical images"
            )

    def _task(self, header):
        if self.kind != "func":
            return None
        return self.task or re.sub("[^a-zA-Z0-9]", "", header.protocol) or "unnamed"

    def _file(self, entities, folder=None):
        names = [f"sub-{self.subject}", *([f"ses-{self.session}"] if self.session else [])]
        folder = (folder or self.path).joinpath(*names, self.kind)
        names += [f"{name}-{value}" for name, value in entities.items() if value]
        return folder / f"{'_'.join(names)}_{self.suffix}.nii.gz"

    def describe(self, staged, derived=False):
        """Write what a BIDS folder has beside its images, unless it is there."""
        texts = {
            "dataset_description.json": json.dumps(self._description("raw"), indent=2) + "\n",
            "README": README,
        }
        if derived:
            text = json.dumps(self._description("derivative"), indent=2) + "\n"
            texts[f"{DERIVATIVES}/dataset_description.json"] = text
        for name, text in texts.items():
            if not (self.path / name).exists():
                staged.path(self.path / name).write_text(text)

    def _description(self, kind):
        return {
            "Name": printable(self.path.absolute()) or "images",
            "BIDSVersion": VERSION,
            "DatasetType": kind,
            "GeneratedBy": [{"Name": "ctessel", "Version": __version__}],
        }

    def enlist(self):
        """Add the subject to the participants. Other runs wait meanwhile."""
        with open(self.path / "participants.tsv", "a+", encoding="utf-8") as file:
            with contextlib.suppress(OSError):  # some network file systems have no locks
                fcntl.flock(file, fcntl.LOCK_EX)
            file.seek(0)
            lines = file.read().splitlines() or ["participant_id"]
            columns = len(lines[0].split("\t"))
            name = f"sub-{self.subject}"
            if all(line.split("\t")[0] != name for line in lines):
                first = [] if os.fstat(file.fileno()).st_size else lines
                file.write("".join(line + "\n" for line in [*first, "\t".join([name, *["n/a"] * (columns - 1)])]))


# ---- Keys ----------------------------------------------------------------------------------------


def entries(plan, header, image):
    """How the images of a file were measured, under the standard's keys.

    Parameters
    ----------
    plan : Plan
    header : Header
        With the echo times of the plan's echoes.
    image : Image

    Returns
    -------
    dict
        Without what is not known.
    """
    echoes = [time / 1000 for time in header.te[image.echoes]]
    flip = header.flip_angle
    known = {
        "MagneticFieldStrength": header.field_strength,
        "ImagingFrequency": header.frequency / 1e6,
        "Manufacturer": header.scanner.get("vendor"),
        "ManufacturersModelName": header.scanner.get("model"),
        "InstitutionName": header.scanner.get("institution"),
        "MRAcquisitionType": "3D" if plan.shape[2] > 1 else "2D",
        "FlipAngle": flip[0] if len(flip) == 1 else flip,
        "InversionTime": header.ti[0] / 1000 if len(header.ti) == 1 else None,
        "EchoTime": echoes[0] if len(echoes) == 1 else echoes,
        "DwellTime": header.dwell / 1e6,
        "SliceThickness": plan.field[2] / plan.matrix[2],
        "SpacingBetweenSlices": header.spacing,
        **timing(plan, header, image),
        **_undersampling(plan),
        **_partial(plan),
        "ImageType": _kind(plan, image.part),
        "Units": "rad" if image.part == "phase" else plan.in_snr and UNITS["snr"] or "arbitrary",
        **dict(image.entries),
    }
    return {name: value for name, value in known.items() if value}


def timing(plan, header, image):
    """When volumes were measured, in s.

    TR is the time from one excitation to the next. The time of a volume comes from the scanner's clock.
    """
    excitation = header.tr[0] / 1000 if header.tr else 0.0
    known = {"RepetitionTimeExcitation": excitation}
    if plan.shape[6] == 1 or image.alone:
        return {**known, "RepetitionTime": excitation}
    if len(header.volumes) != plan.shape[6]:
        return known
    first, last = np.array(header.volumes).T
    steps = np.diff(first)
    if np.abs(steps - steps.mean()).max() <= 2 * TICK / 1000:
        return {**known, "RepetitionTime": round(float(steps.mean()), 6)}
    duration = round(float(np.median(last - first)) + excitation, 6)
    return {**known, "VolumeTiming": first[list(plan.kept[2])].tolist(), "AcquisitionDuration": duration}


def _undersampling(plan):
    pattern = next((pattern for pattern in plan.patterns if pattern.unfolds), None)
    if pattern is None:
        return {}
    in_plane, across = (float(lattice.reduction) for lattice in pattern.lattices)
    return {
        "ParallelAcquisitionTechnique": "SENSE",
        "ParallelReductionFactorInPlane": in_plane,
        "ParallelReductionFactorOutOfPlane": across if plan.shape[2] > 1 else None,
    }


def _partial(plan):
    pattern = plan.patterns[0]
    steps = [1, *(lattice.step for lattice in pattern.lattices)]
    shares = [
        (lines[1] - lines[0] + step) / n if lines else 1.0 for lines, step, n in zip(pattern.partial, steps, plan.shape)
    ]
    names = [name for name, share in zip(("FREQUENCY", "PHASE", "SLICE_SELECT"), shares) if share < 1]
    return {
        "PartialFourier": round(prod(shares), 4) if names else None,
        "PartialFourierDirection": "COMBINATION" if len(names) > 1 else "".join(names),
    }


def _kind(plan, part):
    letter = {"magnitude": "M", "phase": "P"}.get(part, part.upper())
    corrected = plan.options.coefficients is not None
    whole = plan.options.dims != 2 and (plan.stack or plan.matrix[2] > 1)
    return ["ORIGINAL", "PRIMARY", letter, ("DIS3D" if whole else "DIS2D") if corrected else "ND"]
