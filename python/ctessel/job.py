"""One run of ``ctessel recon``: its plan, its memory, and its files."""

import contextlib
import os
from dataclasses import dataclass, field, replace
from functools import cached_property
from math import prod

import numpy as np

from . import acquisitions, bids, dicom, files, maps, nifti, noise, noise_images, pipeline, raw, report
from . import runtime
from . import workers
from .scan import printable


@dataclass
class Job:
    """A reconstruction that was checked and can be done."""

    arguments: object
    found: raw.Contents
    plan: pipeline.Plan
    affine: np.ndarray
    known: bool
    noise_maps: dict = field(default_factory=dict)  # by name
    noise_volumes: object = None

    def reconstruct(self, show):
        """The images. `show` gives a progress bar: a context manager of what and in which unit."""
        with self._client() as client:
            source = self._source(client, show)
            if self.arguments.report:
                from . import inspection

                self._seen = inspection.look(self.plan, source)
            if self.arguments.noise_images:  # before the samples may be overwritten
                with show("noise", "volumes") as progress:
                    self.noise_volumes = noise_images.volumes(
                        self.plan, source, self.arguments.noise_images, room=self._room, progress=progress
                    )
            with show("reconstructing", "volumes") as progress:
                result = pipeline.reconstruct(source, None, progress, client, plan=self.plan)
            self._check_finite(result.image)
            if self.arguments.maps_out:
                with show("maps", "slices") as progress:
                    self.noise_maps = noise.maps(
                        self.plan, source, self.arguments.maps_out, result.image, progress=progress
                    )
            if self.arguments.report:
                self._noise = inspection.noise_maps(self.plan, source, result.image, self.noise_maps)
        return result

    def _room(self, shape):
        """Where volumes of noise are kept."""
        if self.arguments.scratch:
            return runtime.shared_zeros(shape, self.arguments.scratch)
        return np.zeros(shape, np.complex64, order="F")

    def _check_finite(self, image):
        if not np.isfinite(image).all():
            raise raw.RawError(
                f"{self.found.path}: its image is not finite, because its samples are too large; "
                "convert the scanner's data again"
            )

    def _source(self, client, show):
        """The file itself if all workers see it, otherwise its samples."""
        scheduler = self.arguments.scheduler
        if self.by_part() or (scheduler and _seen_by(client, self.found.path)):
            shares = self.plan.in_slabs and not scheduler
            return raw.Source(self.found, self.plan.options.threads, shares)
        with show("reading", "acquisitions") as progress:
            scan = raw.read(
                self.found.path,
                found=self.found,
                scratch=self.arguments.scratch,
                progress=progress,
                threads=self.plan.options.threads,
            )
        scan.disposable = not self.arguments.maps_out  # the replicas need it after the image
        return scan

    @property
    def needed(self):
        """Bytes of memory."""
        looked = 40 * prod(self.plan.shape[:3]) if self.arguments.report else 0
        again = self.plan.replicas if self.arguments.maps_out else 0
        kept, work = noise_images.memory(self.plan, self.arguments.noise_images or 0)
        if self.arguments.scratch:
            kept = 0
        own = self.plan.memory(self.arguments.workers or 1, self.by_part())
        return own + looked + again + 2 * kept + work + report.INTERPRETER

    def by_part(self):
        """Whether workers on this machine read the file; slabs are cut from a volume in this process."""
        arguments = self.arguments
        return bool(arguments.workers) and not (self.plan.in_slabs and arguments.scratch)

    def _client(self):
        if self.arguments.scheduler:
            from . import dask  # takes a second to load

            return dask.connect(scheduler=self.arguments.scheduler)
        if self.arguments.workers:
            return workers.Workers(self.arguments.workers)
        return contextlib.nullcontext()

    def write(self, result):
        named = [*self.images, *self.noise_files]
        made = sorted({image.path.parent for image in named} | set(self._dicom()))
        with files.folders(made), files.Staged() as staged:
            notes = [dicom.Notes.of(self.plan, self.known) for _ in self._dicom()]
            for part in self._parts():
                volumes = _values(result.image, part)
                for image in self.images:
                    if image.part == part:
                        self._write(staged, result, image, volumes)
                for folder in self._dicom():
                    which = bids.Image(folder, part)
                    dicom.write(staged, folder, which, volumes, self.plan, self._header, self.affine, *notes)
            for image in self.noise_files:
                self._write_noise(staged, result, image)
            if self.arguments.save_maps:
                names = maps.files_of(self.arguments.save_maps)
                maps.write([staged.path(name) for name in names], result.maps)
            for name, values in self.noise_maps.items():
                self._write_map(staged, result, name, values)
            if self.arguments.preview:
                report.save_preview(staged.path(self.arguments.preview), result.image, result.field)
            if self.arguments.report:
                self._report(staged.path(self.arguments.report), result)
            if self._folder:
                self._folder.describe(staged, bool(self.noise_files))
            staged.commit()
        if self._folder:
            self._folder.enlist()

    def _report(self, path, result):
        from . import summary

        run = summary.Run(
            self.found,
            self.plan,
            result,
            self._seen,
            *self._noise,
            self.affine,
            self.arguments.command_line,
        )
        summary.write(path, run)

    def _write(self, staged, result, image, volumes):
        sidecar = self._sidecar(result, image)
        nifti.write(
            staged.path(image.path),
            volumes[..., image.echoes, image.repetitions],
            self.affine,
            self.known or image.code,
            sidecar.get("RepetitionTime", 0.0),
            sidecar,
            staged.path(nifti.sidecar_path(image.path)),
        )

    def _dicom(self):
        """The folder of DICOM files, or none."""
        return [self.arguments.output] if self.arguments.dicom else []

    def _write_map(self, staged, result, name, values):
        path = self._map_names()[name]
        sidecar = {**self._sidecar(result, self.images[0]), "Map": noise.NAMES[name]}
        nifti.write(
            staged.path(path),
            values.reshape((values.shape + (1, 1))[:6]),
            self.affine,
            self.known,
            0.0,
            sidecar,
            staged.path(nifti.sidecar_path(path)),
        )

    def _write_noise(self, staged, result, image):
        sidecar = {
            **self._sidecar(result, image),
            "Noise": "the scan's noise without its object, through the same reconstruction",
            "Seed": noise_images.SEED,
        }
        for timing in ("RepetitionTime", "VolumeTiming", "AcquisitionDuration"):  # of the scan's volumes
            sidecar.pop(timing, None)
        nifti.write(
            staged.path(image.path),
            _values(self.noise_volumes[..., image.echoes, :], image.part),
            self.affine,
            self.known or image.code,
            0.0,
            sidecar,
            staged.path(nifti.sidecar_path(image.path)),
        )

    @cached_property
    def noise_files(self):
        """The files of volumes of noise."""
        output, made = self.arguments.output, []
        if not self.arguments.noise_images:
            return made
        if output and not self._dicom():
            base = nifti.base_name(output)
            for part, name in (("magnitude", "noise"), ("phase", "noise_phase")):
                if part in self._parts():
                    made.append(bids.Image(output.with_name(f"{base}_{name}{output.name[len(base):]}"), part))
        if self._folder:
            made += self._folder.noise(self.plan, self._header, self._parts())
        return made

    def _map_names(self):
        """Files of the maps."""
        output, names = self.arguments.output, self.arguments.maps_out
        base = nifti.base_name(output) if names else ""
        return {name: output.with_name(f"{base}_{name}{output.name[len(base):]}") for name in names}

    def _parts(self):
        return ["magnitude", "phase"] if self.arguments.combine == "phase" else ["magnitude"]

    @cached_property
    def images(self):
        """The files of images that are written."""
        output, made = self.arguments.output, []
        if output and not self._dicom():
            base = nifti.base_name(output)
            phase = output.with_name(f"{base}_phase{output.name[len(base):]}")
            made = [bids.Image(path, part) for path, part in zip([output, phase], self._parts())]
        if self._folder:
            made += self._folder.images(self.plan, self._header, self._parts())
        return made

    @property
    def _folder(self):
        named = self.arguments
        if named.bids:
            return bids.Folder(named.bids, named.subject, named.session, named.suffix, named.task)

    def names(self):
        images = (image.path for image in [*self.images, *self.noise_files])
        return [*images, *self._map_names().values()]

    def _beside(self):
        """Files other than images."""
        named = self.arguments
        kept = maps.files_of(named.save_maps) if named.save_maps else []
        return [*(name for name in (named.preview, named.report) if name), *kept]

    def check_outputs(self):
        """Raise an error for names that cannot be written."""
        beside = self._beside()
        for folder in self._dicom():
            dicom.check(folder)
        for name in [*self.names(), *map(nifti.sidecar_path, self.names()), *beside]:
            if self._folder and self._folder.path in name.parents:
                files.check_folder(name.parent)
                if not name.parent.exists():
                    continue
            files.check_output(name)
            if os.path.exists(name) and os.path.samefile(name, self.found.path):
                raise ValueError(f"{name}: is the raw data file; give the image another name")

    @property
    def _header(self):
        """With the echo times of the plan's echoes."""
        header = self.found.header
        if len(header.te) != self.plan.shape[5]:
            return header
        return replace(header, te=[header.te[i] for i in self.plan.kept[1]])

    def _sidecar(self, result, image):
        return report.sidecar(
            result,
            bids.entries(self.plan, self._header, image),
            header=self.found.header,
            extents=self.found.extents,
            skipped=self.found.skipped,
            source=self.found.path,
            position=self.arguments.position,
            geometry=self.arguments.geometry,
            known=self.known,
        )

    def intentions(self):
        """What would be done, for people."""
        names = [f"{name} and {nifti.sidecar_path(name)}" for name in self.names()]
        names += [f"DICOM files in {folder}" for folder in self._dicom()]
        names += self._beside()
        return report.intentions(self.found, self.plan, self.needed, names)


def _values(image, part):
    if part == "phase":
        return np.angle(image)
    return np.abs(image) if np.iscomplexobj(image) else image


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
    """The options of the steps from the arguments of a command."""
    coefficients = arguments.geometry and pipeline.read_coefficients(
        arguments.geometry, radius=arguments.radius, axes=arguments.axes
    )
    return pipeline.Options(
        combine="pcsos" if arguments.combine == "phase" else "sos",
        units=arguments.units,
        ringing=arguments.ringing,
        matrix=arguments.pad and tuple(arguments.pad),
        partial="zero" if arguments.no_homodyne else arguments.partial,
        whiten=not arguments.no_noise,
        maps=arguments.maps,
        map_sets=arguments.map_sets,
        coils=arguments.coils,
        keep_maps=getattr(arguments, "save_maps", None) is not None,
        regularisation=arguments.regularise,
        coefficients=coefficients or None,
        position=arguments.position,
        dims=arguments.dims,
        threads=arguments.threads,
    )


def prepare(arguments, part):
    """A `Job` from the command's arguments; raises errors before any work."""
    choice = options(arguments)
    try:
        found, plan = _planned(arguments, part, choice)
        if arguments.maps_out:
            noise.check(plan, arguments.maps_out)
        if arguments.noise_images:
            noise_images.check(plan)
        matrix, known = nifti.affine(*_geometry(found, plan))
    except raw.RawError:
        raise
    except ValueError as error:
        raise raw.RawError(f"{arguments.raw}: {error}") from None
    job = Job(arguments, found, plan, matrix, known)
    job.check_outputs()
    if not arguments.dry_run:
        _check_memory(job)
    return job


def _planned(arguments, part, options):
    """What the file holds, and the plan of what is wanted."""

    def alone(part):
        found = raw.contents(
            arguments.raw, group=arguments.group, range=part, skip=arguments.skip, cut=True, **arguments.given
        )
        return found, _plan_of(found, raw.layout(found), options)

    # Slices are independent; other parts need the calibration of the whole scan.
    if part is None or part[0] == "slice":
        return alone(part)
    try:
        found, plan = alone(None)
    except ValueError:
        return alone(part)  # the part may leave out the reason why the whole is refused
    axis = part[0]
    kept = acquisitions.wanted(found.extents, part, arguments.skip)[axis]
    first, last = np.searchsorted(found.kept[axis], kept[[0, -1]]).tolist()
    return found, replace(pipeline.select(plan, axis, first, last), selection=part)


def _plan_of(found, layout, options):
    """The plan of a file; if sensitivities are needed and the file has some, they are used."""
    plan = pipeline.plan(layout, options)
    own = found.format == "SKM-TEA" and options.maps is None and any(p.unfolds for p in plan.patterns)
    return pipeline.plan(layout, replace(options, maps=found.path)) if own else plan


def _geometry(found, plan):
    """Header, extents and field of view of the image, for `nifti.affine`."""
    slices = plan.kept[0]
    header = replace(found.header, placements=list(plan.placements[slices.start : slices.stop]))
    return header, (*plan.matrix, len(slices)), plan.field


def _check_memory(job):
    """Raise an error if the reconstruction does not fit into memory."""
    shape = (job.found.width, *job.found.scan.shape[1:])
    scratch = job.arguments.scratch and not job.by_part()
    on_disk = 8 * int(np.prod(shape, dtype=float)) if scratch else 0
    runtime.check(job.needed - on_disk, f"{job.found.path}: the reconstruction", raw.memory_advice(job.found))


def information(path, group, plot=None, **given):
    """What is in a raw data file and what ``ctessel recon`` would do with it, for people.

    `plot` is a file for a picture of the sampling.
    """
    from . import sampling_view

    if plot:
        files.check_output(plot)
    found = raw.contents(path, group=group, cut=True, **given)
    options = pipeline.Options(combine="sos")
    layout = raw.layout(found)
    energy = sampling_view.profiles(found)
    if plot:
        with files.Staged() as staged:
            sampling_view.save(staged.path(plot), layout, energy, printable(path))
            staged.commit()
    more = {"groups": raw.groups(found), **sampling_view.facts(found, layout, energy)}
    drawing = sampling_view.drawing(layout)
    return report.information(found, more, drawing, lambda: _plan_of(found, layout, options))
