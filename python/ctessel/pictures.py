"""Images of a scan as messages of a stream: pixels, one scale for a series, positions.

Series 1 holds the images, series 2 their phase; each kind of map has its own series. An image is a slice
of a 2-D scan, or a volume of a 3-D scan.
"""

from dataclasses import replace

import numpy as np

from . import nifti, stream

#: Maps of noise (`ctessel.noise`): series and name of each.
MAPS = {"g": (10, "Gfactor"), "snr": (11, "SNR_MAP"), "sd": (12, "STD_MAP")}
#: From the axes of a NIfTI file (right, anterior, superior) to those of the stream (LPS).
_TO_LPS = np.diag([-1.0, -1.0, 1.0, 1.0])


class Places:
    """Positions of the images of a plan in the patient (LPS, mm)."""

    def __init__(self, plan, header):
        self._size = plan.matrix
        places, shape = list(plan.placements), (*plan.matrix, plan.shape[4])
        try:
            matrix, self.known = nifti.affine(replace(header, placements=places), shape, header.recon_fov)
            self._matrices, self._steps = [_TO_LPS @ matrix] * plan.shape[4], True
        except ValueError:  # slices that do not fit into one file; each has its own position
            alone = [replace(header, placements=[place], spacing=0.0) for place in places]
            made = [nifti.affine(one, (*plan.matrix, 1), header.recon_fov) for one in alone]
            self._matrices, self._steps = [_TO_LPS @ matrix for matrix, _ in made], False
            self.known = all(known for _, known in made)

    def fields(self, index):
        """Position of voxel ``n // 2`` of a slice or slab, and the directions of the axes."""
        matrix = self._matrices[index]
        nx, ny, nz = self._size
        depth = nz // 2 if nz > 1 else index * self._steps
        axes = matrix[:3, :3] / np.linalg.norm(matrix[:3, :3], axis=0)
        names = dict(zip(("read_dir", "phase_dir", "slice_dir"), axes.T))
        return {"position": (matrix @ (nx // 2, ny // 2, depth, 1))[:3], **names}


class Pictures:
    """Sends the images of a scan, each as soon as its scale is known.

    Parameters
    ----------
    connection : Connection
    plan : Plan
    header : Header
    kind : {"int16", "float", "complex"}
        Pixels: magnitudes as int16 with one scale for a series, magnitudes as they are, or complex.
    bits : int
        Pixels of int16 are below ``2 ** bits``, those of the first volume below half of it.
    sent : callable
        Called with the arguments of `add` after its images were sent.
    """

    def __init__(self, connection, plan, header, kind, bits, sent):
        self._connection, self._plan, self._header, self._kind = connection, plan, header, kind
        self._places, self._sent = Places(plan, header), sent
        self._most = 2 ** min(max(bits, 2), 15) - 1
        self._scale, self._waiting, self._first = None, [], {}
        self._numbers = {}
        #: Pixels that were above the largest number.
        self.clipped = 0
        self.count = 0

    def add(self, index, repetition, made, header, ticket=None):
        """Add the images of one slice and repetition, and the header of one of its lines."""
        self._waiting.append((index, repetition, made, header, ticket))
        waits = self._kind == "int16" and self._scale is None
        if waits and not self._volume(index, repetition, made):
            return
        waiting, self._waiting = self._waiting, []
        for each in waiting:
            self._send(*each)

    def finish(self):
        """Send images that wait for a first volume that was never complete."""
        if self._waiting:
            self._scale = self._scale_of(max(self._first.values(), default=0.0))
            for each in self._waiting:
                self._send(*each)
            self._waiting = []

    def _volume(self, index, repetition, made):
        """Fix the scale once the first volume is complete. Returns whether it is."""
        if repetition == self._plan.kept[2].start:
            self._first[index] = float(np.abs(made["image"][:, :, :, 0]).max())
        if len(self._first) < len(self._plan.kept[0]):
            return False
        self._scale = self._scale_of(max(self._first.values()))
        return True

    def _scale_of(self, peak):
        return (self._most // 2) / peak if 0 < peak < np.inf else 1.0

    def _send(self, index, repetition, made, header, ticket):
        for echo in range(made["image"].shape[3]):
            at = {"slice": index, "contrast": echo, "repetition": repetition}
            values = made["image"][:, :, :, echo, 0]
            for series, image_type, pixels, notes in self._series(values):
                self._one(series, image_type, pixels, notes, at, header)
        self._sent(ticket)

    def add_map(self, name, index, values, header):
        """Send a map of a slice, float32 ``(x, y, z)``, or ``(x, y, z, echo, repetition)``."""
        series, role = MAPS[name]
        for echo, repetition in np.ndindex(values.shape[3:] or (1, 1)):
            at = {"slice": index, "contrast": echo, "repetition": repetition}
            pixels = values[:, :, :, echo, repetition] if values.ndim == 5 else values
            self._one(series, stream.MAGNITUDE, pixels, {"DataRole": [role]}, at, header)

    def _series(self, values):
        """Series, type, pixels and attributes of each image that is sent for one."""
        magnitude = np.abs(values) if np.iscomplexobj(values) else values
        if self._kind == "complex":
            yield 1, stream.COMPLEX, values.astype(np.complex64), {}
        elif self._kind == "float":
            yield 1, stream.MAGNITUDE, magnitude, {}
        else:
            yield 1, stream.MAGNITUDE, self._scaled(magnitude), self._window(1 / self._scale)
        if np.iscomplexobj(values) and self._kind != "complex":
            yield 2, stream.PHASE, *self._phase(np.angle(values))

    def _scaled(self, magnitude):
        pixels = np.rint(magnitude * self._scale)
        self.clipped += int(np.count_nonzero(pixels > self._most))
        return np.minimum(pixels, self._most).astype(np.int16)

    def _phase(self, angles):
        if self._kind == "float":
            return angles, {}
        half = self._most // 2
        return np.rint(angles * (half / np.pi)).astype(np.int16), self._window(np.pi / half)

    def _window(self, slope):
        half = self._most // 2
        numbers = {"WindowCenter": half // 2, "WindowWidth": half, "RescaleSlope": float(slope)}
        return {name: [repr(n)] for name, n in {**numbers, "RescaleIntercept": 0}.items()}

    def _one(self, series, image_type, pixels, notes, at, header):
        self._numbers[series] = self._numbers.get(series, 0) + 1
        fields = self._places.fields(at["slice"])
        copied = ("measurement_uid", "patient_table_position", "acquisition_time_stamp",
                  "physiology_time_stamp", "user_int", "user_float")  # fmt: skip
        self._connection.send(*stream.image(
            pixels, {**self._attributes(at, fields, image_type), **notes},
            field_of_view=self._plan.field, image_type=image_type, image_series_index=series,
            image_index=self._numbers[series] & 0xFFFF, **at, **fields,
            **{name: header[name] for name in copied},
        ))  # fmt: skip
        self.count += 1

    def _attributes(self, at, fields, image_type):
        times, names = self._header.te, ("M", "P", "R", "I", "M")
        values = {
            "DataRole": ["Image"],
            "ImageType": ["DERIVED", "PRIMARY", names[image_type - 1]],
            "ImageProcessingHistory": ["ctessel", *self._plan.steps],
            "ImageComments": [self._header.protocol] if self._header.protocol else [],
            "SequenceDescriptionAdditional": ["ctessel"],
            "SeriesDescriptionAdditional": ["ctessel"],
            "ImageRowDir": [f"{n:.18f}" for n in fields["read_dir"]],
            "ImageColumnDir": [f"{n:.18f}" for n in fields["phase_dir"]],
            "EchoTime": [repr(times[at["contrast"]])] if at["contrast"] < len(times) else [],
        }
        return {name: value for name, value in values.items() if value}
