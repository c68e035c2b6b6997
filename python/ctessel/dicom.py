"""Images as DICOM files: one MR image per slice, one series per part (magnitude, phase)."""

from dataclasses import dataclass
from math import pi

import numpy as np

from . import __version__, bids, files

#: Largest pixel value; programs that read only signed numbers can read it too.
MOST = 32767
_RAS_TO_LPS = np.diag([-1.0, -1.0, 1.0, 1.0])


def check(folder):
    """Raise an error before any work if the folder has other images, or pydicom is missing."""
    import pydicom  # noqa: F401  which is optional

    files.check_folder(folder)
    if folder.is_dir() and any(folder.glob("*.dcm")):
        raise ValueError(f"{folder}: has DICOM images already; name a new folder")


def write(staged, folder, image, values, plan, header, matrix, notes):
    """Write the images of one part.

    Parameters
    ----------
    staged : ctessel.files.Staged
    folder : Path
    image : ctessel.bids.Image
        Which part they are.
    values : ndarray of float32, ``(x, y, z, slice, echo, repetition)``
    plan : Plan
    header : Header
        With the echo times of the plan's echoes.
    matrix : ndarray, ``(4, 4)``
        Of `ctessel.nifti.affine`.
    notes : Notes
        What all images of the run share.
    """
    scale = _Scale.of(values, image.part)
    volumes = values.reshape((*values.shape[:2], -1, *values.shape[4:]), order="F")
    number = 0
    for repetition in range(volumes.shape[4]):
        for echo in range(volumes.shape[3]):
            made = _series(plan, header, image, echo, notes)
            _state(made, scale.attributes())
            if volumes.shape[4] > 1:
                made.TemporalPositionIdentifier = repetition + 1
                made.NumberOfTemporalPositions = volumes.shape[4]
            made.AcquisitionNumber = repetition + 1
            for index in range(volumes.shape[2]):
                number += 1
                _place(made, matrix, index)
                _name(made, number)
                made.PixelData = scale.pixels(volumes[:, :, index, echo, repetition]).T.tobytes()
                _save(made, staged.path(folder / f"{image.part}_{number:05}.dcm"))


@dataclass(frozen=True)
class Notes:
    """What all images of a run share: identifiers, patient position, and what was done."""

    study: str
    frame: str
    position: str
    steps: tuple[str, ...]
    known: bool

    @classmethod
    def of(cls, plan, known):
        from pydicom.uid import generate_uid

        return cls(generate_uid(None), generate_uid(None), plan.position, tuple(plan.steps), known)


@dataclass(frozen=True)
class _Scale:
    """Pixels ``(value - intercept) / slope`` of a series."""

    slope: float
    intercept: float
    unit: str
    top: float

    @classmethod
    def of(cls, values, part):
        if part == "phase":
            return cls(2 * pi / MOST, -pi, "rad", pi)
        top = float(values.max())
        return cls(top / MOST if top > 0 else 1.0, 0.0, "US", top)

    def pixels(self, values):
        return np.rint((values.astype(np.float64) - self.intercept) / self.slope).astype("<u2")

    def attributes(self):
        return {
            "RescaleIntercept": self.intercept,
            "RescaleSlope": self.slope,
            "RescaleType": self.unit,
            "WindowCenter": (self.top + self.intercept) / 2,
            "WindowWidth": (self.top - self.intercept) or 1.0,
        }


def _state(made, values):
    """Set attributes; numbers as decimal strings, which hold 16 characters."""
    from pydicom.valuerep import format_number_as_ds

    for name, value in values.items():
        numbers = np.atleast_1d(value)
        if numbers.dtype.kind == "f":
            value = [format_number_as_ds(float(n)) for n in numbers]
        setattr(made, name, value)


def _series(plan, header, image, echo, notes):
    """A data set with what does not change from slice to slice."""
    from pydicom.dataset import Dataset

    known = bids.entries(plan, header, image)
    made = Dataset()
    made.SpecificCharacterSet = "ISO_IR 192"
    for name in ("PatientName", "PatientID", "PatientBirthDate", "PatientSex", "StudyDate", "StudyTime",
                 "ReferringPhysicianName", "AccessionNumber", "PositionReferenceIndicator", "ContentDate",
                 "ContentTime", "Laterality", "EchoTrainLength", "ScanOptions", "Manufacturer"):  # fmt: skip
        setattr(made, name, "")
    number = 1 + (image.part == "phase")
    _state(made, {
        "SOPClassUID": "1.2.840.10008.5.1.4.1.1.4", "Modality": "MR", "StudyID": "1",
        "StudyInstanceUID": notes.study, "FrameOfReferenceUID": notes.frame,
        "SeriesInstanceUID": f"{notes.study}.{number}", "SeriesNumber": number,
        "SeriesDescription": _text(f"{header.protocol} {image.part}".strip()),
        "ProtocolName": _text(header.protocol), "PatientPosition": notes.position,
        "SoftwareVersions": f"ctessel {__version__}", "DerivationDescription": "; ".join(notes.steps)[:1024],
        "ImageComments": "" if notes.known else "position not in the file; axial at the isocentre assumed",
        "ImageType": known["ImageType"], "ScanningSequence": "RM", "SequenceVariant": "NONE",
        "MRAcquisitionType": known["MRAcquisitionType"], "InPlanePhaseEncodingDirection": "COL",
        "SamplesPerPixel": 1, "PhotometricInterpretation": "MONOCHROME2", "BitsAllocated": 16, "BitsStored": 16,
        "HighBit": 15, "PixelRepresentation": 0, "Rows": plan.matrix[1], "Columns": plan.matrix[0],
        "EchoNumbers": echo + 1, "SliceThickness": known["SliceThickness"],
    })  # fmt: skip
    _state(made, _measured(header, known, echo))
    return made


def _measured(header, known, echo):
    """Times in ms, and what the header says about the scanner."""
    values = {
        "RepetitionTime": header.tr[0] if header.tr else None,
        "EchoTime": header.te[echo] if echo < len(header.te) else None,
        "InversionTime": header.ti[0] if len(header.ti) == 1 else None,
        "FlipAngle": header.flip_angle[0] if header.flip_angle else None,
        "MagneticFieldStrength": known.get("MagneticFieldStrength"),
        "ImagingFrequency": known.get("ImagingFrequency"),
        "Manufacturer": _text(header.scanner.get("vendor", "")),
        "ManufacturerModelName": _text(header.scanner.get("model", "")),
        "InstitutionName": _text(header.scanner.get("institution", "")),
    }
    required = ("RepetitionTime", "EchoTime")
    return {n: value or "" for n, value in values.items() if value or n in required}


def _text(text):
    """Text of at most 64 characters, without the character that separates values."""
    return "".join(c if c.isprintable() and c != "\\" else " " for c in text)[:64]


def _place(made, matrix, index):
    """Position of a slice (LPS, mm): its first voxel, rows along the readout direction."""
    lps = _RAS_TO_LPS @ matrix
    size = np.linalg.norm(lps[:3, :3], axis=0)
    row, column, across = (lps[:3, :3] / size).T
    column = column - (column @ row) * row
    column /= np.linalg.norm(column)
    position = (lps @ (0, 0, index, 1))[:3]
    _state(made, {
        "ImageOrientationPatient": [*row, *column], "ImagePositionPatient": list(position),
        "PixelSpacing": [size[1], size[0]], "SpacingBetweenSlices": float(size[2]),
        "SliceLocation": float(position @ across),
    })  # fmt: skip


def _name(made, number):
    made.InstanceNumber = number
    made.SOPInstanceUID = f"{made.SeriesInstanceUID}.{number}"


def _save(made, path):
    from pydicom.dataset import FileDataset, FileMetaDataset
    from pydicom.uid import ExplicitVRLittleEndian

    meta = FileMetaDataset()
    meta.MediaStorageSOPClassUID = made.SOPClassUID
    meta.MediaStorageSOPInstanceUID = made.SOPInstanceUID
    meta.TransferSyntaxUID = ExplicitVRLittleEndian
    file = FileDataset(str(path), made, file_meta=meta, preamble=bytes(128))
    file.is_little_endian, file.is_implicit_VR = True, False
    file.save_as(path, write_like_original=False)
