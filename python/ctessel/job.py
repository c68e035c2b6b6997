"""One run of ``ctessel recon``: what is to be done, whether it fits, and the files it ends in."""

import contextlib
import os
from dataclasses import dataclass, replace

import numpy as np

from . import acquisitions, files, nifti, pipeline, raw, report, runtime, workers


@dataclass
class Job:
    """A reconstruction that has been found possible."""

    arguments: object
    found: raw.Contents
    plan: pipeline.Plan
    affine: np.ndarray
    known: bool

    def reconstruct(self, show):
        """The images. `show` gives a progress bar: a context manager of what and in which unit."""
        with self._client() as client:
            source = self._source(client, show)
            with show("reconstructing", "volumes") as progress:
                result = pipeline.reconstruct(source, None, progress, client, plan=self.plan)
        if not np.isfinite(result.image).all():
            raise raw.RawError(
                f"{self.found.path}: its image is not finite, its samples are too large; "
                "convert the scanner's data again"
            )
        return result

    def _source(self, client, show):
        """The file itself where all who work see it, or its samples."""
        scheduler = self.arguments.scheduler
        if self.by_part() or (scheduler and _seen_by(client, self.found.path)):
            return raw.Source(self.found, self.plan.options.threads)
        with show("reading", "acquisitions") as progress:
            scan = raw.read(
                self.found.path,
                found=self.found,
                scratch=self.arguments.scratch,
                progress=progress,
                threads=self.plan.options.threads,
            )
        scan.disposable = True
        return scan

    @property
    def needed(self):
        """Bytes of memory."""
        return self.plan.memory(self.arguments.workers or 1, self.by_part()) + report.INTERPRETER

    def by_part(self):
        """Whether workers here read what they work on; slabs are cut from a volume that is kept."""
        arguments = self.arguments
        return bool(arguments.workers) and not (self.plan.in_slabs and arguments.scratch)

    def _client(self):
        if self.arguments.scheduler:
            from . import dask  # which takes a second to load

            return dask.connect(scheduler=self.arguments.scheduler)
        if self.arguments.workers:
            return workers.Workers(self.arguments.workers)
        return contextlib.nullcontext()

    def write(self, result):
        with files.Staged() as staged:
            for name, volumes, kind in self._images(result.image):
                target = staged.path(name)
                nifti.write(
                    target,
                    volumes,
                    self.affine,
                    self.known,
                    report.repetition_time(self.found.header),
                    self._sidecar(result, kind),
                    staged.path(nifti.sidecar_path(name)),
                )
            if self.arguments.preview:
                report.save_preview(staged.path(self.arguments.preview), result.image, result.field)
            staged.commit()

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

    def outputs(self):
        """All files that are written."""
        sidecars = [nifti.sidecar_path(name) for name in self.names()]
        return [*self.names(), *sidecars, *([self.arguments.preview] if self.arguments.preview else [])]

    def _sidecar(self, result, kind):
        header, echoes = self.found.header, self.plan.kept[1]
        if len(header.te) == self.plan.shape[5]:
            header = replace(header, te=[header.te[i] for i in echoes])
        return report.sidecar(
            result,
            header,
            skipped=self.found.skipped,
            source=self.found.path,
            position=self.arguments.position,
            geometry=self.arguments.geometry,
            known=self.known,
            kind=kind,
        )

    def intentions(self):
        """What would be done, for people."""
        names = [f"{name} and {nifti.sidecar_path(name)}" for name in self.names()]
        names += [self.arguments.preview] if self.arguments.preview else []
        return report.intentions(self.found, self.plan, self.needed, names)


def _seen_by(client, path):
    """Whether the workers of a cluster see a file under the same name."""
    own = raw.state(path)
    return all(state == own for state in client.run(_state, os.path.abspath(path)).values())


def _state(path):
    try:
        return raw.state(path)
    except OSError:
        return None


def options(arguments):
    """The options of the steps that a command was given."""
    coefficients = arguments.geometry and pipeline.read_coefficients(
        arguments.geometry, radius=arguments.radius, axes=arguments.axes
    )
    return pipeline.Options(
        combine="pcsos" if arguments.combine == "phase" else "sos",
        ringing=arguments.ringing,
        matrix=arguments.pad and tuple(arguments.pad),
        partial="zero" if arguments.no_homodyne else arguments.partial,
        whiten=not arguments.no_noise,
        regularisation=arguments.regularise,
        coefficients=coefficients or None,
        position=arguments.position,
        dims=arguments.dims,
        threads=arguments.threads,
    )


def prepare(arguments, part):
    """A `Job` from the command's arguments; refuses what is not possible before any work."""
    choice = options(arguments)
    try:
        found, plan = _planned(arguments, part, choice)
        matrix, known = nifti.affine(*_geometry(found, plan))
    except raw.RawError:
        raise
    except ValueError as error:
        raise raw.RawError(f"{arguments.raw}: {error}") from None
    job = Job(arguments, found, plan, matrix, known)
    for name in job.outputs():
        files.check_output(name)
        if os.path.exists(name) and os.path.samefile(name, found.path):
            raise ValueError(f"{name}: is the raw data file; give the image another name")
    if not arguments.dry_run:
        _check_memory(job)
    return job


def _planned(arguments, part, options):
    """What the file holds, and the plan of what is wanted."""

    def alone(part):
        found = raw.contents(
            arguments.raw, group=arguments.group, range=part, skip=arguments.skip, cut=True
        )
        return found, pipeline.plan(raw.layout(found), options)

    # Slices do not depend on each other, other parts on the calibration of the whole.
    if part is None or part[0] == "slice":
        return alone(part)
    try:
        found, plan = alone(None)
    except ValueError:
        return alone(part)  # it may leave out just what the whole is refused for
    axis = part[0]
    kept = acquisitions.wanted(found.extents, part, arguments.skip)[axis]
    first, last = np.searchsorted(found.kept[axis], kept[[0, -1]]).tolist()
    return found, replace(pipeline.select(plan, axis, first, last), selection=part)


def _geometry(found, plan):
    """Header, extents and field of view of the image, for `nifti.affine`."""
    slices = plan.kept[0]
    header = replace(found.header, placements=list(plan.placements[slices.start : slices.stop]))
    return header, (*plan.matrix, len(slices)), plan.field


def _check_memory(job):
    """Refuse what does not fit before the work."""
    shape = (job.found.width, *job.found.scan.shape[1:])
    scratch = job.arguments.scratch and not job.by_part()
    on_disk = 8 * int(np.prod(shape, dtype=float)) if scratch else 0
    runtime.check(
        job.needed - on_disk, f"{job.found.path}: the reconstruction", raw.mend_memory(job.found)
    )


def information(path, group):
    """What is in a raw data file and what ``ctessel recon`` would do with it, for people."""
    found = raw.contents(path, group=group, cut=True)
    options = pipeline.Options(combine="sos")
    return report.information(found, lambda: pipeline.plan(raw.layout(found), options))
