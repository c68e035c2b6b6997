"""One run of ``ctessel recon``: what is to be done, whether it fits, and the files it ends in."""

import contextlib
import os
from dataclasses import dataclass, replace

import numpy as np

from . import files, nifti, pipeline, raw, report, runtime


@dataclass
class Job:
    """A reconstruction that has been found possible."""

    arguments: object
    found: raw.Contents
    plan: pipeline.Plan
    needed: int  # bytes
    affine: np.ndarray
    known: bool

    def read(self, progress):
        return raw.read(
            self.found.path,
            found=self.found,
            scratch=self.arguments.scratch,
            progress=progress,
            threads=self.plan.options.threads,
        )

    def reconstruct(self, scan, progress):
        with self._client() as client:
            return pipeline.reconstruct(scan, None, progress, client, plan=self.plan)

    def _client(self):
        if not (self.arguments.workers or self.arguments.scheduler):
            return contextlib.nullcontext()  # Dask takes a second to load
        from . import dask

        # A cancelled run leaves its semaphores to a helper process, which would complain on stderr.
        os.environ.setdefault("PYTHONWARNINGS", "ignore:resource_tracker")
        return dask.connect(self.arguments.workers, self.arguments.scheduler)

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

    def _sidecar(self, result, kind):
        return report.sidecar(
            result,
            self.found.header,
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
    found, alone = _contents(arguments, part)
    try:
        plan = pipeline.plan(raw.layout(found), options)
        if part and not alone:
            plan = pipeline.select(plan, *part)
        matrix, known = nifti.affine(*_geometry(found, plan))
    except ValueError as error:
        raise raw.RawError(f"{found.path}: {error}") from None
    needed = plan.memory(arguments.workers or 1) + report.INTERPRETER
    job = Job(arguments, found, plan, needed, matrix, known)
    for name in [*job.names(), *([arguments.preview] if arguments.preview else [])]:
        files.check_output(name)
    if not arguments.dry_run:
        _check_memory(job)
    return job


def _contents(arguments, part):
    """What the file holds, and whether of the part alone."""
    # Slices do not depend on each other, other parts on the calibration of the whole.
    alone = part is not None and part[0] == "slice"

    def contents(part):
        return raw.contents(arguments.raw, group=arguments.group, range=part, cut=True)

    try:
        return contents(part if alone else None), alone
    except raw.RawError:
        if part is None or alone:
            raise
        return contents(part), True  # it may leave out just what the whole is refused for


def _geometry(found, plan):
    """Header, extents and field of view of the image, for `nifti.affine`."""
    slices = plan.kept[0]
    header = replace(found.header, placements=list(plan.placements[slices.start : slices.stop]))
    return header, (*plan.matrix, len(slices)), plan.field


def _check_memory(job):
    """Refuse what does not fit before the work."""
    shape = (job.found.width, *job.found.scan.shape[1:])
    on_disk = 8 * int(np.prod(shape, dtype=float)) if job.arguments.scratch else 0
    runtime.check(
        job.needed - on_disk, f"{job.found.path}: the reconstruction", raw.mend_memory(job.found)
    )


def information(path, group):
    """What is in a raw data file and what ``ctessel recon`` would do with it, for people."""
    found = raw.contents(path, group=group, cut=True)
    options = pipeline.Options(combine="sos")
    return report.information(found, lambda: pipeline.plan(raw.layout(found), options))
