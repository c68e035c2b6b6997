"""The command ``ctessel send``: sends raw data like a scanner, and receives the images."""

import contextlib
import queue
import socket
import sys
import threading
import time

import numpy as np

from . import acquisitions, nifti, raw, runtime, stream
from .files import Staged
from .stream import StreamError

#: Acquisitions that are sent together.
BATCH = 64
#: Largest size of an image in bytes.
PIXELS = 1 << 31
#: Longest wait in seconds for the sending thread to end after its connection was closed.
STOPPING = 5


def send(arguments):
    """``ctessel send``"""
    host, _, port = arguments.to.rpartition(":")
    if not host or not port.isdigit():
        raise ValueError(f"--to: expected HOST:PORT, got {arguments.to}")
    if arguments.parameters and stream.parameters(arguments.parameters.encode()) is None:
        raise ValueError(f"--parameters: expected options as JSON, got {arguments.parameters}")
    found = Sender(arguments.raw, arguments.group)
    images = found.exchange(
        (host, int(port)),
        arguments.config,
        arguments.parameters,
        arguments.realtime,
        arguments.timeout,
    )
    print(f"{len(images)} images received")
    if arguments.output:
        write(arguments.output, images)


class Sender:
    """A raw data file that is sent.

    Parameters
    ----------
    path : str or path
    group : str, optional
        Group of the HDF5 file.
    """

    def __init__(self, path, group="dataset"):
        self._reader = raw.open_reader(path, group)
        self._found = raw.contents(path, group=group)

    def exchange(self, address, config="", parameters=None, realtime=False, timeout=300.0):
        """Send the file and return the received images: (header, attributes, pixels) each.

        Raises
        ------
        StreamError
            The server ends with an error, or does not answer.
        """
        try:
            peer = socket.create_connection(address, timeout)
        except OSError as error:
            raise StreamError(f"{address[0]}:{address[1]}: {error.strerror or error}; is the server running?") from None
        with peer:
            connection = stream.Connection(peer, stream.TO_CLIENT, timeout)
            connection.acquisitions.allow(0, PIXELS, runtime.available() // 2)
            failed = queue.SimpleQueue()
            sender = threading.Thread(
                target=self._send,
                args=(connection, config, parameters, realtime, failed),
                daemon=True,
            )
            sender.start()
            try:
                images = list(_images(connection))
            except BaseException:
                # A process that ends while its sending thread runs compiled code would be aborted.
                with contextlib.suppress(OSError):
                    peer.shutdown(socket.SHUT_RDWR)
                sender.join(STOPPING)
                raise
            sender.join(timeout)
        if not failed.empty():
            raise failed.get()
        return images

    def _send(self, connection, config, parameters, realtime, failed):
        try:
            for message in self.messages(config, parameters, realtime):
                connection.send(message)
        except StreamError as error:  # the message of the server, if there is one, says more
            failed.put(error)

    def messages(self, config="", parameters=None, realtime=False):
        """The stream, message by message or some at once."""
        yield stream.config_file(config)
        yield stream.text(stream.HEADER, self._reader.header)
        if parameters:
            yield stream.text(stream.TEXT, parameters)
        begun, due = time.monotonic(), self._times() if realtime else None
        step = 1 if realtime else BATCH
        for first in range(0, len(self._reader), step):
            if realtime:
                time.sleep(max(0.0, begun + due[first] - time.monotonic()))
            numbers = np.arange(first, min(first + step, len(self._reader)))
            yield self._reader.read(numbers).messages()
        yield stream.close()

    def _times(self):
        """Seconds from the first acquisition to each: their time stamps, or TR by TR."""
        headers, header = self._found.headers, self._found.header
        stamps = headers["acquisition_time_stamp"].astype(float)
        if np.ptp(stamps) > 0:
            return (stamps - stamps[0]) * acquisitions.TICK / 1000
        within = self._found.scan.shape[4] * self._found.scan.shape[5]  # lines of one TR
        return np.arange(headers.size) * (header.tr[0] if header.tr else 0.0) / 1000 / within


def _images(connection):
    """Images until the server's CLOSE; its messages go to stderr, an error ends it."""
    while True:
        for message in connection.receive():
            if message is None:
                raise StreamError("the server ended without CLOSE")
            number, header, body = message
            if number == stream.CLOSE:
                return
            if number == stream.IMAGE:
                yield stream.parse_image(header, body)
            elif number in (stream.TEXT, stream.ERROR):
                _tell(body.tobytes().rstrip(b"\0").decode(errors="replace"))


def _tell(words):
    severity, _, rest = words.partition(" ")
    if severity == "ERROR":
        raise StreamError(f"the server: {' '.join(rest.split())}")
    print(f"ctessel: {' '.join(words.split())}", file=sys.stderr)


# ---- The images as a file ------------------------------------------------------------------------


def write(path, images):
    """Write the first series as a NIfTI file; complex images become magnitudes."""
    series = [image for image in images if image[0]["image_series_index"] == 1]
    if not series:
        raise StreamError("no images were received")
    volumes = assembled(series)
    with Staged() as staged:
        target = staged.path(path)
        steps = series[0][1].get("ImageProcessingHistory", [])
        sidecar = {"Steps": steps, "ImageType": "magnitude"}
        beside = staged.path(nifti.sidecar_path(path))
        nifti.write(target, volumes, affine(series), True, 0.0, sidecar, beside)
        staged.commit()


def assembled(series):
    """Images of a series as ``(x, y, z, slice, echo, repetition)``, in their own units."""
    names = ("slice", "contrast", "repetition")
    extents = [1 + max(int(header[name]) for header, _, _ in series) for name in names]
    first = _values(*series[0][1:])
    volumes = np.zeros((*first.shape, *extents), first.dtype, order="F")
    for header, attributes, pixels in series:
        volumes[(..., *(int(header[name]) for name in names))] = _values(attributes, pixels)
    return volumes


def _values(attributes, pixels):
    """Magnitudes of an image, ``(x, y, z)``."""
    values = np.abs(pixels[..., 0]) if np.iscomplexobj(pixels) else pixels[..., 0]
    slope = float(attributes.get("RescaleSlope", ["1"])[0])
    return values if slope == 1 else np.float32(values * slope)


def affine(series):
    """Affine from voxel indices to mm (right, anterior, superior), from the headers."""
    ordered = {int(header["slice"]): header for header, _, _ in series}
    header, last = ordered[min(ordered)], ordered[max(ordered)]
    size = header["field_of_view"].astype(float) / header["matrix_size"]
    names = ("read_dir", "phase_dir", "slice_dir")
    columns = np.stack([header[name].astype(float) for name in names], 1)
    columns *= size
    position = header["position"].astype(float)
    if len(ordered) > 1:
        columns[:, 2] = (last["position"].astype(float) - position) / (max(ordered) - min(ordered))
    nx, ny, nz = (int(n) for n in header["matrix_size"])
    matrix = np.eye(4)
    matrix[:3, :3] = columns
    matrix[:3, 3] = position - columns @ (nx // 2, ny // 2, nz // 2)
    return np.diag([-1.0, -1.0, 1.0, 1.0]) @ matrix
