"""One run of ``ctessel recon``: what is to be done, whether it fits, and the files it ends in."""

import contextlib
import os
import platform
from dataclasses import dataclass, replace

import numpy as np
import scipy

from . import __version__, _memory, nifti, pipeline, raw

#: Python with its modules, blocks of the file, and freed memory that is kept.
INTERPRETER = 160_000_000


@dataclass
class Job:
    """A reconstruction that has been found possible."""

    arguments: object
    options: pipeline.Options
    found: raw.Contents
    part: tuple | None  # to be selected once all is read; other parts are read alone
    steps: list[str]
    needed: int  # bytes
    affine: np.ndarray
    known: bool

    def read(self, progress):
        scan = raw.read(
            self.found.path,
            found=self.found,
            scratch=self.arguments.scratch,
            progress=progress,
            threads=self.options.threads,
        )
        return pipeline.select(scan, *self.part, self.options) if self.part else scan

    def reconstruct(self, scan, progress):
        with self._client() as client:
            return pipeline.reconstruct(scan, self.options, progress, client)

    def _client(self):
        if not (self.arguments.workers or self.arguments.scheduler):
            return contextlib.nullcontext()  # Dask takes a second to load
        from . import dask

        # A cancelled run leaves its semaphores to a helper process, which would complain on stderr.
        os.environ.setdefault("PYTHONWARNINGS", "ignore:resource_tracker")
        return dask.connect(self.arguments.workers, self.arguments.scheduler)

    def write(self, result):
        with nifti.Staged() as files:
            for name, volumes, kind in self._images(result.image):
                target = files.path(name)
                sidecar = self._sidecar(result, kind)
                nifti.write(
                    target,
                    volumes,
                    self.affine,
                    self.known,
                    self._repetition_time(),
                    sidecar,
                    files.path(nifti.sidecar_path(name)),
                )
            if self.arguments.preview:
                save_preview(files.path(self.arguments.preview), result.image, result.field)
            files.commit()

    def _images(self, image):
        magnitude, *phase = self.names()
        yield magnitude, np.abs(image) if np.iscomplexobj(image) else image, "magnitude"
        for name in phase:
            yield name, np.angle(image), "phase, radians"

    def names(self):
        """The images that are written: magnitude, and phase where it was asked for."""
        output = self.arguments.output
        base = nifti.base_name(output)
        phase = output.with_name(f"{base}_phase{output.name[len(base):]}")
        return [output, phase] if self.arguments.combine == "phase" else [output]

    def _repetition_time(self):
        times = self.found.header.tr
        return times[0] / 1000 if times else 0.0

    def _sidecar(self, result, kind):
        header = self.found.header
        axis, first, last = result.selection or ("", 0, 0)
        times = header.te[first : last + 1] if axis == "echo" else header.te
        echoes = [time / 1000 for time in times]
        known = {
            "ProtocolName": header.protocol,
            "PatientPosition": self.arguments.position or header.patient_position,
            "RepetitionTime": self._repetition_time(),
            "EchoTime": echoes[0] if len(echoes) == 1 else echoes,
            "SpacingBetweenSlices": header.spacing,
            "ImageType": kind,
            "Sources": [_file_name(self.found.path)],
            "Position": "of the file"
            if self.known
            else "not in the file; axial at the isocentre assumed",
            "Range": result.selection and dict(zip(("Axis", "First", "Last"), result.selection)),
            "Steps": result.steps,
            "Parameters": {
                **result.parameters,
                "geometry": self.arguments.geometry and _file_name(self.arguments.geometry),
            },
            "ConversionSoftware": "ctessel",
            "ConversionSoftwareVersion": __version__,
            "Versions": versions(),
        }
        return {name: value for name, value in known.items() if value}


def prepare(arguments, part):
    """A `Job` from the command's arguments; refuses what is not possible before any work."""
    coefficients = arguments.geometry and pipeline.read_coefficients(arguments.geometry)
    options = pipeline.Options(
        combine="pcsos" if arguments.combine == "phase" else "sos",
        ringing=arguments.ringing,
        matrix=arguments.pad and tuple(arguments.pad),
        homodyne=not arguments.no_homodyne,
        whiten=not arguments.no_noise,
        regularisation=arguments.regularise,
        coefficients=coefficients or None,
        position=arguments.position,
        threads=arguments.threads,
    )
    found, alone = _contents(arguments, part, options)
    scan = raw.outline(found)
    try:
        steps = pipeline.plan(scan, options)
        if part and not alone:
            pipeline.select(scan, *part, replace(options, regularisation=0))
        matrix, known = nifti.affine(*_geometry(found, options, part if not alone else None))
        needed = pipeline.memory_estimate(scan, options, arguments.workers or 1) + INTERPRETER
    except ValueError as error:
        raise raw.RawError(f"{found.path}: {error}") from None
    job = Job(arguments, options, found, None if alone else part, steps, needed, matrix, known)
    for name in [*job.names(), *([arguments.preview] if arguments.preview else [])]:
        nifti.check_output(name)
    if not arguments.dry_run:
        _check_memory(job)
    return job


def _contents(arguments, part, options):
    """What the file holds, and whether of the part alone."""
    # Slices do not depend on each other, other parts on the calibration or the level of the whole.
    alone = part is not None and part[0] == "slice" and options.regularisation == 0

    def contents(part):
        return raw.contents(arguments.raw, group=arguments.group, range=part, cut=True)

    try:
        return contents(part if alone else None), alone
    except raw.RawError:
        if part is None or alone:
            raise
        return contents(part), True  # it may leave out just what the whole is refused for


def _geometry(found, options, part):
    """Header, extents and field of view of the image, for `nifti.affine`."""
    header, slices = found.header, found.scan.shape[4]
    if part and part[0] == "slice":
        header = replace(header, placements=header.placements[part[1] : part[2] + 1])
        slices = part[2] - part[1] + 1
    return header, (*(options.matrix or header.recon_matrix), slices), header.recon_fov


def _check_memory(job):
    """Refuse what does not fit before the work."""
    shape = (job.found.width, *job.found.scan.shape[1:])
    on_disk = 8 * int(np.prod(shape, dtype=float)) if job.arguments.scratch else 0
    _memory.check(
        job.needed - on_disk, f"{job.found.path}: the reconstruction", raw.mend_memory(job.found)
    )


def _file_name(path):
    """Without its folder, and as text that every program can read."""
    return os.fsencode(os.path.basename(path)).decode(errors="replace")


def report(job):
    """What a job would do, for people."""
    lines = [
        *_aligned(raw.facts(job.found)),
        "",
        "would be done:",
        *(f"  {step}" for step in job.steps),
        f"  memory {_memory.text(job.needed)}, free {_memory.text(_memory.available())}",
        *(f"  write {name} and {nifti.sidecar_path(name)}" for name in job.names()),
        *([f"  write {job.arguments.preview}"] if job.arguments.preview else []),
    ]
    return "\n".join(lines)


def information(path, group):
    """What is in a raw data file and what `ctessel recon` would do with it, for people."""
    found = raw.contents(path, group=group, cut=True)
    scan, options = raw.outline(found), pipeline.Options(combine="sos")
    lines = _aligned(raw.facts(found))
    try:
        lines += [
            "",
            "ctessel recon would:",
            *(f"  {step}" for step in pipeline.plan(scan, options)),
            f"  memory {_memory.text(pipeline.memory_estimate(scan, options) + INTERPRETER)}",
        ]
    except ValueError as error:
        lines += ["", f"ctessel recon would refuse it: {error}"]
    return "\n".join(lines)


def _aligned(facts):
    width = max(map(len, facts))
    return [f"{name:{width}}  {text}" for name, text in facts.items()]


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
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    volume = np.abs(image[..., 0, 0]).astype(np.float32)
    slices = volume.reshape((*volume.shape[:2], -1), order="F")
    if slices.shape[2] > 36:
        slices = slices[:, :, np.linspace(0, slices.shape[2] - 1, 36).astype(int)]
    columns = int(np.ceil(np.sqrt(slices.shape[2])))
    rows = -(-slices.shape[2] // columns)
    nx, ny = slices.shape[:2]
    mosaic = np.zeros((rows * ny, columns * nx), np.float32)
    for i in range(slices.shape[2]):
        row, column = divmod(i, columns)
        mosaic[row * ny : (row + 1) * ny, column * nx : (column + 1) * nx] = slices[:, :, i].T
    shape = field[1] * nx / (field[0] * ny)  # height of a pixel over its width
    height = max(1, round(mosaic.shape[0] * shape))
    mosaic = mosaic[(np.arange(height) / shape).astype(int).clip(max=mosaic.shape[0] - 1)]
    pyplot.imsave(path, mosaic, cmap="gray", vmin=0, vmax=np.percentile(mosaic, 99.8) or 1)
