"""The command ``ctessel``: from raw data to images."""

import argparse
import contextlib
import os
import shlex
import signal
import sys
import tempfile
from pathlib import Path

from . import options, runtime

EXIT_CODES = """exit codes:
  0    done
  1    a file or its data cannot be used; the line on stderr says how to fix it
  2    wrong use of the command
  3    does not fit into memory
  4    an internal error of ctessel
  130  cancelled with Ctrl-C
  143  ended by SIGTERM, as batch systems do
"""
DONE, DEFECT, USAGE, MEMORY, FAULT = range(5)

#: The kinds of ctessel.phantom.KINDS, which is not loaded for the other commands.
PHANTOM_KINDS = {
    "full": "all lines",
    "partial": "65 % of the lines, those of negative ky missing",
    "partial-end": "65 % of the lines, those of positive ky missing",
    "partial-readout": "70 % of each readout: an asymmetric echo",
    "undersampled": "every second line, and 24 ACS lines",
    "undersampled-3": "every third line, and a separate calibration",
    "interleaved": "every second line, shifted by one from repetition to repetition, 4 repetitions",
    "noise": "every second line, ACS lines, noise, and a noise scan",
    "slices": "5 slices with gaps",
    "repetitions": "3 repetitions with noise",
    "echoes": "3 echoes",
    "averages": "4 averages with noise",
    "3d": "a volume of 16 partitions, 75 % of them measured",
    "3d-undersampled": "a volume with every second line along y and z, and ACS lines",
    "3d-caipi": "the same with a shifted sampling pattern; its aliases are farther from each other",
    "oblique": "3 oblique slices away from the isocentre",
}
PHANTOM_SIZES = {
    "size": ("voxels along x and y", "128; of volumes 64"),
    "coils": ("receive coils", "8"),
    "slices": ("slices", "1, or those of the kind"),
    "partitions": ("partitions of a volume", "1, or those of the kind"),
    "repetitions": ("repetitions", "1, or those of the kind"),
    "echoes": ("echoes", "1, or those of the kind"),
    "averages": ("averages of each line", "1, or those of the kind"),
}


class UsageError(Exception):
    """Wrong arguments that the parser does not find."""


def main(argv=None):
    """Run the command; returns its exit code.

    SIGINT and SIGTERM become exceptions in the main thread when the running kernel is done. They clean up
    what was begun.
    """
    signals = []

    def end(number, _):
        signals.append(number)
        raise SystemExit(143) if number == signal.SIGTERM else KeyboardInterrupt

    with runtime.handled(end):
        try:
            return _main(argv)
        except BaseException as error:  # libraries may turn the exception into one of theirs
            return _cancelled(signals[0], error) if signals else _failed(error)


def _main(argv):
    arguments, unknown = _parser().parse_known_args(argv)
    arguments.command_line = shlex.join(["ctessel", *(sys.argv[1:] if argv is None else argv)])
    try:
        if unknown:
            raise UsageError(_unknown(unknown[0], arguments.parser))
        return arguments.run(arguments) or DONE
    except UsageError as error:
        arguments.parser.error(str(error))


def _unknown(word, parser):
    import difflib

    near = difflib.get_close_matches(word.partition("=")[0], parser._option_string_actions, 1)
    return f"unknown argument {word}{f' (did you mean {near[0]}?)' if near else ''}"


def _cancelled(number, error):
    """Exit code of a run that a signal has ended. Further signals are ignored."""
    for other in runtime.SIGNALS:
        signal.signal(other, signal.SIG_IGN)
    what = "all had been" if getattr(error, "written", False) else "nothing was"
    said = getattr(error, "said", f"cancelled, {what} written")
    print(f"\nctessel: {said}", file=sys.stderr, flush=True)
    return 128 + number


def _failed(error):
    """Exit code of a run that ended with an exception, and one line about it."""
    if not isinstance(error, Exception):
        raise error
    code, text = _explain(error)
    print(f"ctessel: {text}", file=sys.stderr)
    if code == FAULT and os.environ.get("CTESSEL_TRACEBACK"):
        raise error
    return code


def _say(text):
    """Print for people, or for a program that may stop reading."""
    encoding = getattr(sys.stdout, "encoding", None) or "utf-8"
    try:
        # Names of files need not be text.
        print(text.encode(encoding, "backslashreplace").decode(encoding), flush=True)
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # for Python's own last flush


def _explain(error):
    """Exit code and one line for an exception."""
    text = " ".join(str(error).split())
    if isinstance(error, runtime.DoesNotFitError):
        return MEMORY, text
    if isinstance(error, MemoryError):
        return (
            MEMORY,
            f"out of memory{f' ({text})' if text else ''}; use fewer --workers, --scratch or --range",
        )
    if isinstance(error, ModuleNotFoundError):
        package = error.name.split(".")[0]
        return DEFECT, f"needs the Python package {package}; {runtime.installing(package)}"
    if isinstance(error, OSError) and error.strerror:
        return (
            DEFECT,
            f"{error.filename or 'output'}: {error.strerror}; check name, permissions and free space",
        )
    if isinstance(error, (ValueError, ConnectionError)):
        return DEFECT, text
    return (
        FAULT,
        f"internal error of ctessel, {type(error).__name__}: {text}; CTESSEL_TRACEBACK=1 shows where",
    )


# ---- Arguments -----------------------------------------------------------------------------------


class _Parser(argparse.ArgumentParser):
    """Its errors are one line."""

    def error(self, message):
        self.exit(USAGE, f"{self.prog}: {message}; see {self.prog} --help\n")


def _parser():
    from . import __version__

    parser = _Parser(
        prog="ctessel",
        description="From MRI raw data to images.",
        epilog=EXIT_CODES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"ctessel {__version__}")
    commands = parser.add_subparsers(metavar="COMMAND", required=True)
    for add in (
        _add_recon,
        _add_info,
        _add_convert,
        _add_merge,
        _add_view,
        _add_phantom,
        _add_warp,
        _add_unwarp,
        _add_serve,
        _add_send,
    ):
        add(commands)
    return parser


def _command(commands, name, run, text):
    command = commands.add_parser(
        name,
        help=text,
        description=text[0].upper() + text[1:] + ".",
        epilog=EXIT_CODES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    command.set_defaults(run=run, parser=command)
    return command


def _add_recon(commands):
    command = _command(commands, "recon", recon, "reconstruct images from a raw data file (ISMRMRD and others)")
    command.add_argument("raw", metavar="RAW", help="raw data file, or - for a stream from stdin")
    command.add_argument(
        "-o",
        "--output",
        metavar="IMAGE.nii.gz",
        type=Path,
        help="NIfTI file; IMAGE.json beside it says what was done",
    )
    command.add_argument("--dicom", action="store_true", help="write DICOM files; the output is a folder")
    command.add_argument("--preview", metavar="IMAGE.png", type=_png_name, help="also write a picture of the slices")
    command.add_argument(
        "--save-maps",
        metavar="FILE",
        type=_maps_name,
        help="also write the sensitivities that were used: x, y, z, coil, slice as a BART pair or NIfTI",
    )
    command.add_argument(
        "--report",
        metavar="REPORT.html",
        type=_html_name,
        help="also write a page with every step, pictures, and a viewer",
    )
    command.add_argument(
        "--maps-out",
        metavar="NAMES",
        type=_map_names,
        default=(),
        help="also write maps beside the image, IMAGE_g.nii.gz and so on: g, sd, snr, condition, "
        "residual, separated by commas",
    )
    command.add_argument(
        "--noise-images",
        metavar="N",
        type=options.positive,
        help="also write N volumes of noise for denoisers, IMAGE_noise.nii.gz; needs a noise scan",
    )
    command.add_argument("--dry-run", action="store_true", help="print what would be done, and do nothing")
    command.add_argument(
        "--strict", action="store_true", help="if there is a warning, end with code 1 and write nothing"
    )
    _add_bids(command)
    _add_input(command)
    options.add_steps(command)
    _add_resources(command)


def _add_bids(command):
    group = command.add_argument_group("names of the BIDS standard")
    group.add_argument("--bids", metavar="FOLDER", type=Path, help="write to this folder; -o may be left out")
    group.add_argument("--subject", metavar="01", type=_label, help="letters and digits")
    group.add_argument("--session", metavar="LABEL", type=_label, help="letters and digits")
    group.add_argument(
        "--suffix",
        default="T1w",
        metavar="T1w",
        type=_bids_suffix,
        help="what the images show: T1w (the default), T2w, FLAIR, MEGRE, bold and others",
    )
    group.add_argument("--task", metavar="NAME", type=_label, help="name of the task, for bold, cbv and sbref")


def _add_input(command):
    group = command.add_argument_group("input", "what RAW does not say; see docs/formats.md")
    # The names are those of ctessel.stored.NAMES, which is not loaded for the other commands.
    group.add_argument(
        "--format",
        type=_format,
        metavar="NAME",
        help="ismrmrd, fastmri, m4raw, calgary, skmtea, cfl or matlab; by default recognised by the content",
    )
    group.add_argument(
        "--fov",
        type=options.size,
        nargs=3,
        metavar=("X", "Y", "Z"),
        help="field of view in mm; Z is the thickness of slices",
    )
    group.add_argument(
        "--lines", type=options.positive, nargs="+", metavar="N", help="lines of the whole k-space: Y, Y Z, or X Y Z"
    )
    group.add_argument(
        "--centre",
        type=options.index,
        nargs="+",
        metavar="N",
        help="the line of the file that is k = 0, from 0: Y, Y Z, or X Y Z",
    )
    group.add_argument(
        "--array-axes",
        type=_axes,
        metavar="NAMES",
        help="axes of a MATLAB variable; the default is x,y,coil,slice,repetition",
    )
    group.add_argument("--calibration", metavar="FILE", help="separate calibration in this file, of any format")
    _add_group(group)


def _given(arguments):
    """What the user stated about the file, for `ctessel.raw.contents`."""
    names = ("format", "fov", "lines", "centre", "calibration")
    given = {**{name: getattr(arguments, name) for name in names}, "axes": arguments.array_axes}
    for name in ("lines", "centre"):
        if given[name] and len(given[name]) > 3:
            raise UsageError(f"argument --{name}: expected one to three numbers, got {len(given[name])}")
    return given


def _add_resources(command):
    resources = command.add_argument_group("resources")
    _add_threads(resources)
    resources.add_argument(
        "--range",
        nargs=3,
        metavar=("AXIS", "FIRST", "LAST"),
        help="reconstruct only a part along slice, echo or repetition, from 0; see ctessel merge",
    )
    resources.add_argument(
        "--skip",
        nargs=2,
        action="append",
        default=[],
        metavar=("AXIS", "N"),
        help="leave out a bad slice, echo or repetition, counted as for --range; can be repeated",
    )
    resources.add_argument("--scratch", metavar="FOLDER", help="keep k-space in a file in this folder, not in memory")
    resources.add_argument("--workers", type=options.positive, metavar="N", help="processes on this machine")
    resources.add_argument(
        "--scheduler", type=_address, metavar="ADDRESS", help="address of a Dask scheduler, such as tcp://node1:8786"
    )


def _add_threads(command):
    command.add_argument(
        "--threads", type=options.positive, metavar="N", help="threads of the kernels (default: all processors)"
    )


def _add_output(command, name, kind, text):
    command.add_argument("-o", "--output", required=True, metavar=name, type=kind, help=text)


def _add_group(command):
    command.add_argument("--group", default="dataset", help="group of the HDF5 file (default: dataset)")


def _add_info(commands):
    command = _command(commands, "info", info, "print what is in a raw data file and what would be done with it")
    command.add_argument("raw", metavar="RAW", help="raw data file of any format")
    command.add_argument(
        "--plot",
        metavar="FILE.png",
        type=_png_name,
        help="also write a picture of the lines and of the energy along each axis",
    )
    _add_input(command)


def _add_convert(commands):
    command = _command(
        commands, "convert", convert, "convert k-space between ISMRMRD and BART, images of ISMRMRD files to NIfTI"
    )
    command.add_argument("raw", metavar="IN", help="file of any format that recon reads")
    command.add_argument(
        "output", metavar="OUT", help="NAME.cfl is a BART pair, NAME.h5 ISMRMRD, NAME.nii or NAME.nii.gz images"
    )
    _add_input(command)


def _add_merge(commands):
    command = _command(commands, "merge", merge, "join images that were made with --range")
    command.add_argument("parts", nargs="+", metavar="PART.nii.gz", help="images of recon --range, in any order")
    _add_output(command, "IMAGE.nii.gz", _nifti_name, "the whole image; IMAGE.json appears beside it")
    command.add_argument("--gaps", action="store_true", help="allow missing echoes and repetitions between the parts")


def _add_view(commands):
    command = _command(commands, "view", view, "write a page with pictures and a viewer of images")
    command.add_argument("images", nargs="+", metavar="IMAGE.nii.gz", help="images of any program")
    _add_output(command, "PAGE.html", _html_name, "the page, which needs no other file")


def _add_phantom(commands):
    command = _command(commands, "phantom", phantom, "write raw data of a phantom")
    command.epilog = f"kinds:\n{_phantom_kinds()}\n\n{command.epilog}"
    command.add_argument("kind", metavar="KIND", help="kind of scan, see below; 'list' shows all")
    command.add_argument("-o", "--output", metavar="RAW.h5", type=_raw_name, help="ISMRMRD file")
    for name, (what, usual) in PHANTOM_SIZES.items():
        command.add_argument(f"--{name}", type=options.positive, metavar="N", help=f"{what} ({usual})")
    command.add_argument(
        "--noise", type=options.nonnegative, metavar="SD", help="standard deviation per sample and part (0)"
    )
    command.add_argument("--seed", type=int, metavar="N", help="of the noise (0)")


def _phantom_kinds():
    return "\n".join(f"  {name:16} {text}" for name, text in PHANTOM_KINDS.items())


def _add_warp(commands):
    command = _command(commands, "warp", warp, "write the displacement field of non-linear gradients")
    command.add_argument("coefficients", metavar="COEFFICIENTS", help="file of the gradients' coefficients")
    _add_output(command, "WARP.nii.gz", _nifti_name, "the field, in mm")
    command.add_argument("--like", metavar="IMAGE.nii.gz", help="image for which the field is written")
    command.add_argument("--extent", type=options.size, metavar="MM", help="side of a cube around the isocentre (500)")
    command.add_argument("--spacing", type=options.size, metavar="MM", help="distance of its voxels (5)")
    command.add_argument(
        "--type",
        choices=("itk", "fsl", "fsl-abs", "ras"),
        default="itk",
        help="convention: displacement (itk, the default; fsl) or position (fsl-abs; ras, world coordinates)",
    )
    command.add_argument(
        "--direction",
        choices=("unwarp", "distort"),
        default="unwarp",
        help="from true positions to encoded ones (unwarp, the default), or the inverse",
    )
    options.add_dims(command)
    command.add_argument(
        "--jacobian",
        metavar="J.nii.gz",
        type=_nifti_name,
        help="also write the intensity factors, |det d encoded / d position|",
    )
    command.add_argument(
        "--grad-dev",
        metavar="G.nii.gz",
        type=_nifti_name,
        help="also write d encoded_a / d position_b minus identity, volume 3 a + b, along the axes of b-vectors",
    )
    _add_field(command)


def _add_unwarp(commands):
    command = _command(commands, "unwarp", unwarp, "correct an image for non-linear gradients")
    command.add_argument("image", metavar="IMAGE.nii.gz", help="image of any program")
    command.add_argument("--coefficients", required=True, metavar="FILE", help="of the gradients")
    _add_output(command, "OUT.nii.gz", _nifti_name, "the corrected image")
    command.add_argument(
        "--mode",
        choices=("auto", "3d", "2d", "through-plane", "none"),
        default="auto",
        help="what to correct; auto (the default) reads the sidecar",
    )
    command.add_argument("--no-intensity", action="store_true", help="do not multiply by the Jacobian")
    command.add_argument(
        "--interpolation",
        choices=("cubic", "sinc", "linear"),
        default="cubic",
        help="cubic splines (the default), windowed sinc, or linear",
    )
    _add_field(command)


def _add_field(command):
    options.add_coefficients(command, "PatientPosition of the sidecar")
    _add_threads(command)


def _add_serve(commands):
    command = _command(commands, "serve", serve, "reconstruct ISMRMRD streams while they arrive")
    command.add_argument("--host", default="127.0.0.1", help="address to listen on (default: 127.0.0.1)")
    command.add_argument("--port", type=options.port, default=9002, help="port (default: 9002); 0 for any free port")
    command.add_argument("--stdio", action="store_true", help="handle one stream, from stdin to stdout")
    command.add_argument(
        "--config",
        action="append",
        default=[],
        metavar="NAME=OPTIONS-FILE",
        help="options of the steps, as JSON, for streams that name this configuration",
    )
    command.add_argument(
        "--save", type=Path, metavar="FOLDER", help="write the raw data of each scan to a file in this folder"
    )
    _add_threads(command)
    command.add_argument(
        "--connections", type=options.positive, default=8, metavar="N", help="at most so many at a time (default: 8)"
    )
    command.add_argument(
        "--timeout",
        type=options.seconds,
        default=300.0,
        metavar="SECONDS",
        help="end a connection after this time without a message (default: 300)",
    )
    options.add_steps(command)
    options.add_answers(command)


def _add_send(commands):
    command = _command(commands, "send", send, "send a raw data file to a server, as a scanner does")
    command.add_argument("raw", metavar="RAW.h5", help="ISMRMRD file")
    command.add_argument("--to", required=True, metavar="HOST:PORT", help="where the server listens")
    command.add_argument(
        "-o",
        "--output",
        metavar="IMAGES.nii.gz",
        type=_nifti_name,
        help="NIfTI file for the received images",
    )
    command.add_argument("--realtime", action="store_true", help="send lines at the times of their measurement")
    command.add_argument(
        "--config", default="ctessel", metavar="NAME", help="configuration of the server (default: ctessel)"
    )
    command.add_argument("--parameters", metavar="JSON", help='options of the steps, such as {"ringing": 0.3}')
    command.add_argument(
        "--timeout", type=options.seconds, default=300.0, metavar="SECONDS", help="longest silence (default: 300)"
    )
    _add_group(command)


@options.checked
def _format(text):
    from .formats import known_format

    return known_format(text)


@options.checked
def _axes(text):
    from .formats import check_axes

    return check_axes(tuple(text.replace(",", " ").split()))


def _html_name(text):
    if not text.endswith(".html"):
        raise argparse.ArgumentTypeError(f"{text}: expected the name of a page, ending in .html")
    return Path(text)


def _address(text):
    if not text.rpartition(":")[2].isdigit():
        raise argparse.ArgumentTypeError(f"expected an address such as tcp://node1:8786, got {text!r}")
    return text


def _raw_name(text):
    if not text.endswith((".h5", ".mrd")):
        raise argparse.ArgumentTypeError(f"{text}: expected the name of an ISMRMRD file, ending in .h5 or .mrd")
    return text


def _label(text):
    if not (text.isascii() and text.isalnum()):
        raise argparse.ArgumentTypeError(f"expected letters and digits, got {text!r}")
    return text


def _bids_suffix(text):
    from .bids import SUFFIXES

    known = sum(SUFFIXES.values(), ())
    if text not in known:
        raise argparse.ArgumentTypeError(f"expected one of {', '.join(known)}, got {text!r}")
    return text


@options.checked
def _maps_name(text):
    from .maps import file_name

    return file_name(text)


def _png_name(text):
    if not text.endswith(".png"):
        raise argparse.ArgumentTypeError(f"{text}: expected the name of a PNG file, ending in .png")
    return Path(text)


@options.checked
def _nifti_name(text):
    from .nifti import base_name

    base_name(text)
    return Path(text)


def _check_name(path):
    try:
        _nifti_name(path)
    except argparse.ArgumentTypeError as error:
        raise UsageError(f"argument -o/--output: {error}") from None


@options.checked
def _map_names(text):
    from .noise import check_names

    return check_names(text.split(","))


def _range(words):
    from .raw import RANGE_AXES

    if words is None:
        return None
    axis, first, last = words
    if axis not in RANGE_AXES or not (first.isdigit() and last.isdigit()) or int(first) > int(last):
        raise UsageError(
            f"argument --range: expected {', '.join(RANGE_AXES)} with the first and last position "
            f"from 0, got {' '.join(words)}"
        )
    return axis, int(first), int(last)


def _skip(pairs):
    from .raw import RANGE_AXES

    for axis, number in pairs:
        if axis not in RANGE_AXES or not number.isdigit():
            raise UsageError(
                f"argument --skip: expected {', '.join(RANGE_AXES)} with a position from 0, got {axis} {number}"
            )
    return tuple((axis, int(number)) for axis, number in pairs)


# ---- Commands ------------------------------------------------------------------------------------


def recon(arguments):
    """``ctessel recon``"""
    if not (arguments.output or arguments.bids):
        raise UsageError("the following arguments are required: -o/--output, or --bids")
    if arguments.dicom and not arguments.output:
        raise UsageError("--dicom: the folder is missing, -o FOLDER")
    if arguments.output and not arguments.dicom:
        _check_name(arguments.output)
    if arguments.maps_out and (arguments.dicom or not arguments.output):
        raise UsageError("--maps-out needs -o IMAGE.nii.gz: the names of the maps begin with it")
    if arguments.noise_images and arguments.dicom and not arguments.bids:
        raise UsageError("--noise-images needs -o IMAGE.nii.gz or --bids for the names of the volumes")
    if bool(arguments.bids) != bool(arguments.subject):
        raise UsageError("--bids and --subject belong together")
    if arguments.raw != "-":
        return _recon(arguments)
    from . import files
    from .session import received

    with files.folder(tempfile.gettempdir()) as folder:
        arguments.raw = f"{folder}/stdin.h5"
        try:
            received(sys.stdin.fileno(), arguments.raw, arguments.group)
        except ValueError as error:
            raise ValueError(f"stdin: {error}; send an ISMRMRD stream again") from None
        return _recon(arguments)


def _recon(arguments):
    from .job import prepare

    runtime.keep_freed()
    arguments.skip, arguments.given = _skip(arguments.skip), _given(arguments)
    job = prepare(arguments, _range(arguments.range))
    _warn(job.plan.warnings, arguments)
    if arguments.dry_run:
        _say(job.intentions())
        return
    result = job.reconstruct(_progress)
    _warn(result.warnings[len(job.plan.warnings) :], arguments)
    job.write(result)


def _warn(texts, arguments):
    """Print each on stderr; with --strict they end the run."""
    _tell(texts)
    if texts and arguments.strict:
        raise ValueError(
            f"{arguments.raw}: {len(texts)} warning{'s' * (len(texts) > 1)}, and --strict allows none; "
            "fix what they name, or leave out --strict"
        )


def _tell(texts):
    for text in texts:
        print(f"ctessel: warning: {text}", file=sys.stderr)


def info(arguments):
    """``ctessel info``"""
    from .job import information

    _say(information(arguments.raw, arguments.group, arguments.plot, **_given(arguments)))


def convert(arguments):
    """``ctessel convert``"""
    from . import convert as conversion

    notes, warnings = conversion.convert(arguments.raw, arguments.output, arguments.group, **_given(arguments))
    _tell(warnings)
    for line in notes:
        _say(line)


def serve(arguments):
    """``ctessel serve``"""
    from .serve import serve as run

    return run(arguments)


def send(arguments):
    """``ctessel send``"""
    from .send import send as run

    return run(arguments)


def merge(arguments):
    """``ctessel merge``"""
    from . import nifti

    _tell(nifti.merge(arguments.parts, arguments.output, arguments.gaps))


def view(arguments):
    """``ctessel view``"""
    from .view import write

    write(arguments.images, arguments.output, arguments.command_line)


def phantom(arguments):
    """``ctessel phantom``"""
    from . import phantom as phantoms

    if arguments.kind == "list":
        _say(_phantom_kinds() if sys.stdout.isatty() else "\n".join(phantoms.KINDS))
        return
    if arguments.kind not in phantoms.KINDS.keys() | phantoms.OLDER_NAMES.keys():
        raise UsageError(f"argument KIND: expected one of {', '.join(phantoms.KINDS)}, got {arguments.kind}")
    if arguments.output is None:
        raise UsageError("the following arguments are required: -o/--output")
    names = (
        "size",
        "coils",
        "slices",
        "partitions",
        "repetitions",
        "echoes",
        "averages",
        "noise",
        "seed",
    )
    changes = {name: getattr(arguments, name) for name in names if getattr(arguments, name) is not None}
    with _progress("writing", "acquisitions") as progress:
        phantoms.write(arguments.output, arguments.kind, progress=progress, **changes)


def warp(arguments):
    """``ctessel warp``"""
    from . import warp as warps
    from .gradients import read_coefficients

    if arguments.like and (arguments.extent or arguments.spacing):
        raise UsageError("argument --like: not allowed with --extent and --spacing")
    coefficients = read_coefficients(arguments.coefficients, radius=arguments.radius, axes=arguments.axes)
    if arguments.like:
        image = warps.load(arguments.like)
        grid, position = image.grid, warps.patient_position(image, arguments.position)
    else:
        grid = warps.scanner_grid(arguments.extent or 500, arguments.spacing or 5)
        position = arguments.position or "HFS"
    correction = warps.Correction(coefficients, position, arguments.dims, arguments.direction == "distort")
    warnings = warps.save_warp(
        arguments.output,
        grid,
        correction,
        kind=arguments.type,
        jacobian=arguments.jacobian,
        grad_dev=arguments.grad_dev,
        source=arguments.coefficients,
        threads=arguments.threads,
    )
    _tell(warnings)


def unwarp(arguments):
    """``ctessel unwarp``"""
    from . import warp as warps
    from .gradients import read_coefficients

    coefficients = read_coefficients(arguments.coefficients, radius=arguments.radius, axes=arguments.axes)
    with _progress("correcting", "steps") as progress:
        warnings = warps.unwarp_file(
            arguments.image,
            coefficients,
            arguments.output,
            source=arguments.coefficients,
            mode=arguments.mode,
            position=arguments.position,
            intensity=not arguments.no_intensity,
            interpolation=arguments.interpolation,
            threads=arguments.threads,
            progress=progress,
        )
    _tell(warnings)


@contextlib.contextmanager
def _progress(what, unit):
    """A bar with the time left if stderr is a terminal; otherwise None."""
    if sys.stderr is None or not sys.stderr.isatty():
        yield None
        return
    import tqdm

    with tqdm.tqdm(desc=what, unit=f" {unit}", leave=False) as bar:

        def show(done, total):
            bar.total = total
            bar.update(done - bar.n)
            if done == total:  # also if all was done before the bar's first step
                bar.refresh()

        yield show
