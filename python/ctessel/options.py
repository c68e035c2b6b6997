"""Options of the steps, for every command that reconstructs, and types of arguments."""

import argparse


# ---- Types ---------------------------------------------------------------------------------------


def _number(kind, accept, what):
    def convert(text):
        try:
            value = kind(text)
        except ValueError:
            value = None
        if value is None or not accept(value):
            raise argparse.ArgumentTypeError(f"expected {what}, got {text!r}")
        return value

    return convert


positive = _number(int, lambda n: n > 0, "a whole number of at least 1")
index = _number(int, lambda n: n >= 0, "a whole number of at least 0")
nonnegative = _number(float, lambda x: 0 <= x < float("inf"), "a number of at least 0")
size = _number(float, lambda x: 0 < x < float("inf"), "a number above 0")
seconds = _number(float, lambda x: 0 < x < 1e6, "a number of seconds")
port = _number(int, lambda n: 0 <= n < 65536, "0 to 65535")
share = _number(float, lambda x: 0 <= x <= 0.915, "0 to 0.915")


def checked(check):
    """A type of argument from a function that raises ValueError."""

    def convert(text):
        try:
            return check(text)
        except ValueError as error:
            raise argparse.ArgumentTypeError(str(error)) from None

    return convert


def patient_position(text):
    from .gradients import POSITIONS

    if text not in POSITIONS:
        raise argparse.ArgumentTypeError(f"expected one of {', '.join(POSITIONS)}, got {text!r}")
    return text


@checked
def gradient_axes(text):
    from .gradients import check_axes

    return check_axes(text)


@checked
def _coil_list(text):
    from .coil_choice import parse

    return parse(text)


@checked
def _map_sets(text):
    if text not in ("auto", "1", "2"):
        raise ValueError(f"expected auto, 1 or 2, got {text!r}")
    return text if text == "auto" else int(text)


# ---- Options -------------------------------------------------------------------------------------


def add_steps(command):
    steps = command.add_argument_group("steps")
    steps.add_argument(
        "--ringing",
        type=share,
        default=0.0,
        metavar="S",
        help="filter against ringing, strength 0 (none, the default) to 0.915",
    )
    steps.add_argument(
        "--pad",
        type=positive,
        nargs=3,
        metavar=("X", "Y", "Z"),
        help="matrix size of the image; zero filling interpolates to more voxels than were measured",
    )
    steps.add_argument(
        "--regularise",
        type=nonnegative,
        default=0.0,
        metavar="SCALE",
        help="regularise SENSE; 1 trusts the intensity of the calibration image, 0 (default) is off; needs a noise scan",
    )
    steps.add_argument("--geometry", metavar="FILE", help="correct the geometry with gradient coefficients")
    add_coefficients(steps, "that of the file")
    add_dims(steps)
    steps.add_argument(
        "--combine",
        choices=("sos", "phase"),
        default="sos",
        help="magnitude only (the default), or also IMAGE_phase.nii.gz in radians",
    )
    steps.add_argument(
        "--units",
        choices=("raw", "snr"),
        default="raw",
        help="units of the image: those of the raw data (the default), or the standard deviation of each "
        "voxel's noise (snr), which needs a noise scan",
    )
    steps.add_argument(
        "--partial",
        choices=("auto", "zero", "homodyne", "pocs"),
        default="auto",
        help="how the missing lines of a partial scan are filled: zeros, homodyne, POCS, or the better of "
        "zeros and POCS for each slice (auto, the default)",
    )
    steps.add_argument("--no-homodyne", action="store_true", help="the same as --partial zero")
    steps.add_argument(
        "--maps",
        metavar="FILE",
        help="coil sensitivities from a BART pair, NIfTI, MATLAB or HDF5 file; x, y, z, coil, slice",
    )
    steps.add_argument(
        "--map-sets",
        type=_map_sets,
        default="auto",
        metavar="N",
        help="sets of sensitivities: 1, 2 where the field of view is smaller than the object, or auto (the "
        "default), which takes the second one where the calibration asks for it",
    )
    steps.add_argument(
        "--coils",
        type=_coil_list,
        metavar="LIST",
        help="use these coils, counted from 0, for example 0,2-5; the default is all that are not defective",
    )
    steps.add_argument("--no-noise", action="store_true", help="ignore the noise scan")


def add_coefficients(command, said):
    command.add_argument(
        "--position",
        metavar="POSITION",
        type=patient_position,
        help=f"patient position, instead of {said}: HFS, HFP, FFS, FFP",
    )
    command.add_argument(
        "--radius", type=size, metavar="MM", help="reference radius of the coefficients, instead of that of their file"
    )
    command.add_argument(
        "--axes",
        metavar="LPS",
        type=gradient_axes,
        help="directions of the gradients' axes for a patient head first on the back, instead of those "
        "of the coefficient file",
    )


def add_dims(command):
    command.add_argument(
        "--dims",
        type=int,
        choices=(3, 2, 1),
        default=3,
        help="correct all dimensions (3, the default), only in the plane of the slices (2), or only across them (1)",
    )


def add_answers(command):
    """Options for the answer to a stream."""
    command.add_argument(
        "--pixels",
        choices=("int16", "float", "complex"),
        default="int16",
        help="int16 magnitudes with one scale for a series (the default), or images as they are",
    )
    command.add_argument(
        "--maps-out",
        type=_map_names,
        default=(),
        metavar="NAMES",
        help="also send maps of noise after all images: g, sd, snr, separated by commas",
    )


@checked
def _map_names(text):
    from .pictures import MAPS

    names = tuple(dict.fromkeys(text.split(",")))
    if not set(names) <= set(MAPS):
        raise ValueError(f"expected some of {', '.join(MAPS)} separated by commas, got {text!r}")
    return names
