"""ISMRMRD's header text."""

import math
import xml.etree.ElementTree as ElementTree

from .acquisitions import DefectError
from .scan import Header, Limit

#: Name of the header's user parameter with the fields of a phantom.
PHANTOM = "ctessel_phantom"


def parse(text):
    """A `Header` for each encoding in the header text.

    Raises
    ------
    DefectError
        Naming the element that is missing or wrong.
    """
    try:
        root = ElementTree.fromstring(text)
    except ElementTree.ParseError as error:
        raise DefectError(f"its header is not XML ({error})") from None
    encodings = root.findall("{*}encoding")
    if not encodings:
        raise DefectError("its header has no encoding")
    return [_header(root, encoding) for encoding in encodings]


def _header(root, encoding):
    trajectory = _text(encoding, "trajectory", "cartesian").lower()
    if trajectory != "cartesian":
        raise DefectError(f'its trajectory is "{trajectory}"', "only Cartesian scans can be reconstructed")
    matrix = _triple(encoding, "encodedSpace/matrixSize", int)
    return Header(
        encoded_matrix=matrix,
        encoded_fov=_triple(encoding, "encodedSpace/fieldOfView_mm", float),
        recon_matrix=_triple(encoding, "reconSpace/matrixSize", int),
        recon_fov=_triple(encoding, "reconSpace/fieldOfView_mm", float),
        limits={
            "x": Limit(0, matrix[0] - 1, matrix[0] // 2),
            "y": _limit(encoding, "kspace_encoding_step_1", matrix[1]),
            "z": _limit(encoding, "kspace_encoding_step_2", matrix[2]),
        },
        acceleration=tuple(
            _number(encoding, f"parallelImaging/accelerationFactor/kspace_encoding_step_{i}", int, 1) for i in (1, 2)
        ),
        calibration_mode=_text(encoding, "parallelImaging/calibrationMode", "").lower(),
        tr=_times(root, "TR"),
        te=_times(root, "TE"),
        protocol=_text(root, "measurementInformation/protocolName", ""),
        patient_position=_text(root, "measurementInformation/patientPosition", ""),
        **_stated(root),
    )


def _stated(root):
    """Labels of images. They do not change the images, so wrong entries are ignored."""
    system = "acquisitionSystemInformation"
    scanner = {
        name: _text(root, f"{system}/{tag}", "")
        for name, tag in (("vendor", "systemVendor"), ("model", "systemModel"), ("institution", "institutionName"))
    }
    return {
        "ti": _figures(root, "sequenceParameters/TI"),
        "flip_angle": _figures(root, "sequenceParameters/flipAngle_deg"),
        "field_strength": sum(_figures(root, f"{system}/systemFieldStrength_T")[:1]),
        "frequency": sum(_figures(root, "experimentalConditions/H1resonanceFrequency_Hz")[:1]),
        "scanner": {name: text for name, text in scanner.items() if text},
        "phantom": _user_text(root, PHANTOM),
    }


def _user_text(root, name):
    for found in root.findall(_path("userParameters/userParameterString")):
        if _text(found, "name", "") == name:
            return _text(found, "value", "")
    return ""


def _figures(root, name):
    """Numbers above 0; an empty list if one is not."""
    try:
        figures = [float(found.text or "") for found in root.findall(_path(name))]
    except ValueError:
        return []
    return figures if all(0 < figure < math.inf for figure in figures) else []


def _path(name):
    return "/".join("{*}" + part for part in name.split("/"))


def _text(element, name, default):
    found = element.find(_path(name))
    return default if found is None or not found.text else found.text.strip()


def _number(element, name, kind, default=None):
    text = _text(element, name, None)
    if text is None:
        if default is None:
            raise DefectError(f"its header has no {name}")
        return default
    try:
        value = kind(text)
    except ValueError:
        raise DefectError(f'{name} of its header is "{text}", not a number') from None
    if not value > 0 or value > 65535:
        raise DefectError(f"{name} of its header is {text}; expected more than 0")
    return value


def _triple(element, name, kind):
    return tuple(_number(element, f"{name}/{axis}", kind) for axis in "xyz")


def _times(root, name):
    """Times in ms."""
    texts = [found.text or "" for found in root.findall(_path(f"sequenceParameters/{name}"))]
    try:
        times = [float(text) for text in texts]
    except ValueError:
        times = [math.nan]
    if not all(0 < time < math.inf for time in times):
        raise DefectError(f"{name} of its header is {', '.join(texts) or 'empty'}; expected milliseconds above 0")
    return times


def _limit(encoding, name, extent):
    """Limits of a phase-encoded axis; the whole axis if the header has none."""
    found = encoding.find(_path(f"encodingLimits/{name}"))
    if found is None:
        return Limit(0, extent - 1, extent // 2)
    try:
        limit = Limit(*(int(_text(found, part, "")) for part in ("minimum", "maximum", "center")))
    except ValueError:
        raise DefectError(f"the limits of {name} in its header are not numbers") from None
    # Lines outside the matrix are found later, so limits that are too wide do no harm.
    if not 0 <= limit.minimum <= limit.center <= limit.maximum:
        raise DefectError(
            f"{name} has the limits {limit.minimum} to {limit.maximum} with centre {limit.center} " "in its header"
        )
    return limit


def header_text(header, *, coils, counts):
    """Header text of a scan with one encoding; `counts` are the extents of the other counters."""
    limits = {
        "kspace_encoding_step_1": header.limits["y"],
        "kspace_encoding_step_2": header.limits["z"],
    }
    limits.update({name: Limit(0, n - 1, 0) for name, n in counts.items()})
    encoding = _encoding(header, limits)
    if header.calibration_mode:
        factors = {f"kspace_encoding_step_{i}": n for i, n in enumerate(header.acceleration, 1)}
        encoding["parallelImaging"] = {
            "accelerationFactor": factors,
            "calibrationMode": header.calibration_mode,
        }
    root = ElementTree.Element("ismrmrdHeader", xmlns="http://www.ismrm.org/ISMRMRD")
    _add(root, {
        "measurementInformation": {
            "patientPosition": header.patient_position, "protocolName": header.protocol},
        "acquisitionSystemInformation": {
            "systemFieldStrength_T": [b for b in [header.field_strength] if b], "receiverChannels": coils},
        "experimentalConditions": {"H1resonanceFrequency_Hz": 63870000},
        "encoding": encoding,
        "sequenceParameters": {
            "TR": header.tr, "TE": header.te, "TI": header.ti, "flipAngle_deg": header.flip_angle},
        "userParameters": [{"userParameterString": {"name": PHANTOM, "value": header.phantom}}] * bool(header.phantom),
    })  # fmt: skip
    return ElementTree.tostring(root, encoding="unicode", xml_declaration=True)


def _encoding(header, limits):
    return {
        "encodedSpace": _space(header.encoded_matrix, header.encoded_fov),
        "reconSpace": _space(header.recon_matrix, header.recon_fov),
        "encodingLimits": {name: vars(limit) for name, limit in limits.items()},
        "trajectory": "cartesian",
    }


def with_calibration(text, header):
    """Header text with one more encoding, that of a calibration scan."""
    root = ElementTree.fromstring(text)
    space = root.tag.rpartition("}")[0][1:]
    ElementTree.register_namespace("", space)
    extra = ElementTree.Element(f"{{{space}}}encoding")
    limits = {f"kspace_encoding_step_{i}": header.limits[name] for i, name in ((1, "y"), (2, "z"))}
    _add(extra, _encoding(header, limits), f"{{{space}}}")
    at = [i for i, child in enumerate(root) if child.tag.endswith("}encoding")][-1]
    root.insert(at + 1, extra)
    return ElementTree.tostring(root, encoding="unicode", xml_declaration=True)


def _space(matrix, fov):
    return {"matrixSize": dict(zip("xyz", matrix)), "fieldOfView_mm": dict(zip("xyz", fov))}


def _add(parent, values, prefix=""):
    for name, value in values.items():
        for each in value if isinstance(value, list) else [value]:
            element = ElementTree.SubElement(parent, prefix + name)
            if isinstance(each, dict):
                _add(element, each, prefix)
            else:
                element.text = str(each)
