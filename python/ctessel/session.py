"""One scan through a connection: raw data arrive, and images are sent while the scan runs.

A separate thread receives messages, so that the sender does not wait for reconstructions. Images are
reconstructed as soon as they are complete and no later data can change them, the others at the end. All
have the bits of the same data in a file.
"""

import contextlib
import json
import queue
import threading
import time
from dataclasses import dataclass, field

import numpy as np

from . import earlier, noise, raw, runtime, stream
from ._ismrmrd import parse
from .acquisitions import HEADER, NOISE, NOT_IMAGING
from .arrived import LAST, UNCLEAR, Arrived, Forecast, contents
from .files import Staged
from .pictures import Pictures
from .plan import plan as make_plan
from .reconstruct import Block, blocks, single, straightened
from .stream import StreamError

#: Bytes of samples that may be held in addition to twice those that the header announces.
SPARE = 256 << 20
#: If more bytes are held, samples of images that were sent are released.
KEPT = 256 << 20
#: Bytes that a reconstruction may use for each byte of samples.
PROPORTION = 64
#: Number of sensitivities that are kept for later repetitions.
BASES = 512 << 20
#: Errors that streams can cause; all others are internal errors.
CAUSED = (ValueError, RuntimeError, MemoryError, runtime.DoesNotFitError)
#: Number of coils if the header does not state it.
MOST_COILS = 1024


@dataclass
class Report:
    """What a session did, for the log."""

    acquisitions: int = 0
    images: int = 0
    early: int = 0  # of them, before the scan's end
    clipped: int = 0
    latencies: list = field(default_factory=list)  # seconds
    seconds: float = 0.0
    held: int = 0  # most bytes of samples
    saved: str = ""
    error: str = ""

    def text(self):
        """The report as JSON, times in milliseconds."""
        times = sorted(1000 * t for t in self.latencies)
        latency = {}
        if times:
            latency = {"median": round(float(np.median(times)), 1), "worst": round(times[-1], 1)}
        return json.dumps({
            "acquisitions": self.acquisitions, "images": self.images, "early": self.early,
            "clipped": self.clipped, "latency_ms": latency, "seconds": round(self.seconds, 3),
            "samples_bytes": self.held, "saved": self.saved, "error": self.error,
        })  # fmt: skip


class Session:
    """One connection.

    Parameters
    ----------
    connection : Connection
    settings : Settings
        Defaults for options that the stream does not state.
    log : callable
        Takes lines for the server's log.
    name : str
        What a file of the raw data is called.
    """

    def __init__(self, connection, settings, log, name):
        self.connection, self._settings, self._log, self._name = connection, settings, log, name
        self.report = Report()
        self._words = dict(settings.words)
        self._header = self._chosen = self._measurement = None

    def run(self):
        """Serve the connection to its end; returns whether a scan was received."""
        begun = time.monotonic()
        try:
            if not self._begin():
                return False
            self._scan()
            return True
        except Exception as error:
            self._complain(error)
            return True
        except SystemExit:
            self._complain(StreamError("the server ends"))
            raise
        finally:
            self.report.seconds = time.monotonic() - begun
            with contextlib.suppress(StreamError):
                self.connection.send(stream.close())

    def _complain(self, error):
        words = " ".join(str(error).split()) or type(error).__name__
        if not isinstance(error, CAUSED):
            words = f"internal error of ctessel, {type(error).__name__}: {words}"
        self.report.error = self.report.error or words
        self._log(f"error: {words}")
        with contextlib.suppress(StreamError):
            self.connection.send(stream.line("ERROR", words))

    def _warn(self, words):
        self._log(f"warning: {words}")
        self.connection.send(stream.line("WARNING", words))

    # ---- Before the first line -------------------------------------------------------------------

    def _begin(self):
        """Receive messages up to the header. Returns whether it was received."""
        while self._header is None:
            for message in self.connection.receive():
                if message is None or message[0] == stream.CLOSE:
                    return False
                if message[0] != stream.HEADER:
                    self._other(message)
                    continue
                self._header = message[2].tobytes().rstrip(b"\0")
                self._allow()
        return True

    def _allow(self):
        """Set the limit of memory from the header."""
        root, coils = allow(self._header, self.connection.acquisitions)
        self._measurement, noise = earlier.named(root)
        if noise:
            self._fetch_noise(noise, coils)
        for parameter in root.findall("{*}userParameters/{*}userParameterLong"):
            if parameter.findtext("{*}name") == "BitsStored":
                value = parameter.findtext("{*}value", "")
                self._settings.bits = int(value) if value.isdigit() else self._settings.bits

    def _other(self, message):
        """Handle a message that is neither header nor data."""
        number, header, body = message[0], message[1], message[2].tobytes()
        if number == stream.CONFIG_FILE:
            self._configure(header.rstrip(b"\0").decode(errors="replace"))
        elif number == stream.CONFIG_TEXT:
            self._log("a configuration as text is not used; the options of the command are used")
        elif number == stream.TEXT:
            self._parameters(stream.parameters(body))
        elif number == stream.QUERY:
            self.connection.send(stream.response(header, "Unknown query"))
        elif number == stream.HEADER:
            raise StreamError("a second header; a connection has one scan")

    def _configure(self, name):
        if name in self._settings.configs:
            self._words = {**self._settings.words, **self._settings.configs[name]}
        elif name not in ("", "ctessel"):  # the name that `ctessel send` gives
            self._log(f"no configuration is called {name[:80]!r}; the options of the command are used")

    def _parameters(self, found):
        if found is None:
            self._log("a TEXT without parameters")
            return
        if self._chosen:
            self._log("parameters after the first images are not used")
            return
        for name in ("config", "customconfig"):
            if isinstance(found.get(name), str):
                self._configure(found[name])
        named = {n: v for n, v in found.items() if n not in ("config", "customconfig")}
        self._words = self._settings.changed(self._words, named, self._log)

    # ---- The scan --------------------------------------------------------------------------------

    def _scan(self):
        with self._saving() as save:
            events = queue.SimpleQueue()
            receiver = threading.Thread(target=self._receive, args=(events, save), daemon=True)
            receiver.start()
            self._work(Scan(self), events)
            self.report.saved = save.commit()

    @contextlib.contextmanager
    def _saving(self):
        """The object that writes the raw data, or does nothing."""
        if not self._settings.save:
            yield _NoFile()
            return
        with Staged() as files:
            path = self._settings.save / f"{self._name}.h5"
            yield _File(files, path, self._header.decode(), self._warn)

    def _receive(self, events, save):
        """Pass on messages until the stream ends, and write the raw data."""
        try:
            known = fetched = len(self.connection.acquisitions)
            while True:
                messages = self.connection.receive()
                acquisitions = self.connection.acquisitions
                now, count = time.monotonic(), len(acquisitions)
                if count > known:
                    first = 0 if known == fetched else known
                    headers = acquisitions.headers(first, count - first).view(HEADER)[:, 0]
                    if known == fetched and not self._suits(headers[:fetched], headers[fetched]):
                        headers["flags"][:fetched] = NOT_IMAGING
                        first = fetched
                    save.append(acquisitions, first, count)
                    events.put(("lines", headers, now))
                    known = count
                for message in messages:
                    if message is None:
                        raise StreamError("the stream ended without CLOSE")
                    if message[0] == stream.WAVEFORM:
                        save.append_waveform(message)
                        continue
                    events.put(("message", message, now))
                    if message[0] == stream.CLOSE:
                        return
        except BaseException as error:
            events.put(("error", error, 0.0))

    def _fetch_noise(self, name, coils):
        """Add the noise scan of an earlier connection, if it has at most these coils."""
        try:
            if not self._settings.shelf:
                raise ValueError("noise scans of earlier connections are not kept here")
            with self._settings.shelf.open(name, coils) as file:
                self.connection.acquisitions.receive(file.fileno(), 0.0)
        except ValueError as error:
            self._warn(f"{error}; the scan is reconstructed without it, unless it has its own")

    def _suits(self, noise, line):
        """Whether the noise scan of an earlier connection suits a scan with this first line."""
        if not noise.size or line["flags"] & NOISE:  # of its own
            return False
        coils = noise["active_channels"][0], line["active_channels"]
        if coils[0] != coils[1]:
            self._warn(f"the noise scan has {coils[0]} coils, the scan {coils[1]}; it is left out")
        return coils[0] == coils[1]

    def keep_noise(self, numbers):
        """Keep the acquisitions of a noise scan for later connections."""
        try:
            if not self._settings.shelf:
                raise ValueError("no later connection can ask for it")
            self._settings.shelf.keep(self._measurement, self.connection.acquisitions, numbers)
        except (ValueError, OSError) as error:
            self._warn(f"the noise scan is not kept: {error}")
            return
        self.connection.send(stream.line("INFO", f"the noise scan {self._measurement[:80]!r} is kept"))

    def _work(self, scan, events):
        while True:
            kind, what, now = events.get()
            if kind == "error":
                raise what
            self.report.held = max(self.report.held, self.connection.acquisitions.held)
            if kind == "lines":
                self._attempt(scan.arrive, what, now)
            elif what[0] == stream.CLOSE:
                self._attempt(scan.finish, now)
                return
            else:
                self._other(what)

    def _attempt(self, step, *arguments):
        """A step of the reconstruction. If it fails, the rest of the scan is still received."""
        if self.report.error:
            return self.forget_all()
        try:
            step(*arguments)
        except StreamError:
            raise
        except Exception as error:
            self._complain(error)

    def forget_all(self):
        """Release the samples of a scan that will not be reconstructed."""
        if not self._settings.save:
            self.connection.acquisitions.forget(np.arange(len(self.connection.acquisitions)))

    # ---- Options of the scan ---------------------------------------------------------------------

    def options(self):
        """Options of the reconstruction, kind of pixels, maps, bits of pixels; later messages cannot change them."""
        self._chosen = self._chosen or (*self._settings.options(self._words), self._settings.bits)
        return self._chosen

    header = property(lambda self: self._header)
    warn, log = _warn, property(lambda self: self._log)


def allow(header, acquisitions):
    """Set the limit of memory for a scan with this header; returns its root, and the largest number of coils."""
    root = stream.parse_xml(header)
    parse(header)
    coils = root.findtext("{*}acquisitionSystemInformation/{*}receiverChannels", "0")
    coils = int(coils) if coils.isdigit() and 0 < int(coils) <= MOST_COILS else MOST_COILS
    promised = sum(_lines(encoding) for encoding in root.findall("{*}encoding"))
    acquisitions.allow(coils, 0, min(2 * 8 * coils * promised + SPARE, runtime.available() // 2))
    return root, coils


def received(source, path, group="dataset"):
    """Write the stream that comes from a pipe to a raw data file.

    Parameters
    ----------
    source : int
        File that is read.
    path : path
    group : str, optional
        Group of the HDF5 file.

    Raises
    ------
    StreamError
        It is not a stream, or is incomplete.
    """
    connection = stream.Connection(source, stream.TO_SERVER, 1e6)
    acquisitions, writer, known, ended = connection.acquisitions, None, 0, False
    while not ended:
        messages, count = connection.receive(), len(acquisitions)
        for number in range(known, count):
            writer.append(*acquisitions.as_sent(number))
        acquisitions.forget(np.arange(known, count))
        known = count
        for message in messages:
            if message is None:
                raise StreamError("the stream ended without CLOSE")
            ended = message[0] == stream.CLOSE
            if message[0] == stream.HEADER:
                header = message[2].tobytes().rstrip(b"\0")
                allow(header, acquisitions)
                writer = raw.binding(path).Writer(str(path), group, header.decode())
    if not known:
        raise StreamError("the stream holds no acquisitions")
    writer.close()


def _lines(encoding):
    """Number of samples of one coil that an encoding announces."""
    count = 1
    for axis in "xyz":
        text = encoding.findtext(f"{{*}}encodedSpace/{{*}}matrixSize/{{*}}{axis}", "1")
        count *= max(1, int(text)) if text.isdigit() else 1
    for name in ("slice", "contrast", "phase", "repetition", "set", "average"):
        last = encoding.findtext(f"{{*}}encodingLimits/{{*}}{name}/{{*}}maximum", "0")
        count *= 1 + (min(int(last), 65535) if last.isdigit() else 0)
    return count


class Scan:
    """The images of a session, reconstructed early or at the end."""

    def __init__(self, session):
        self._session, self._acquisitions = session, session.connection.acquisitions
        self._headers, self._parts, self._room = np.zeros(0, HEADER), [], np.zeros(0, HEADER)
        self._forecast = self._pictures = None
        self._hopeless = False
        self._sent, self._waiting = {}, []
        self._shared, self._stacks, self._warned, self._made = {}, {}, set(), {}

    def arrive(self, headers, now):
        """Register new acquisitions; send images that they complete."""
        self._parts.append(headers)
        if self._hopeless or not self._worth():
            return
        self._join()
        try:
            if self._forecast is None:
                self._start()
            self._waiting += self._forecast.arrive(self._headers)
        except ValueError as error:
            self._give_up(error)
            return
        for image in list(self._waiting):
            if self._forecast.ready(*image):
                self._waiting.remove(image)
                self._early(*image, now)
        self._forecast.prepare(self._shared)

    def _worth(self):
        """Whether new headers may complete an image: they end a slice, or a forecast counts lines."""
        return self._forecast is not None or any(
            (part["flags"] & LAST).any() or part["repetition"].any() for part in self._parts
        )

    def _join(self):
        """Append new headers to an array that grows in larger steps."""
        first, count = self._headers.size, self._headers.size + sum(part.size for part in self._parts)
        if count > self._room.size:
            self._room = np.zeros(2 * count, HEADER)
            self._room[:first] = self._headers
        np.concatenate([*self._parts, np.zeros(0, HEADER)], out=self._room[first:count])
        self._headers, self._parts = self._room[:count], []

    def _start(self):
        options, kind, _, bits = self._session.options()
        self._forecast = Forecast(self._session.header, self._headers, self._acquisitions, options)
        self._check(self._forecast.plan)
        self._open(self._forecast.plan, self._forecast.header, kind, bits)

    def _check(self, plan):
        """Raise an error if the matrix size of the header is out of proportion to the received lines."""
        needed = plan.memory()
        if needed > SPARE + PROPORTION * self._acquisitions.received:
            raise ValueError(
                f"its images need {runtime.text(needed)} of memory, for few lines; "
                "is the matrix of its header right?"
            )
        runtime.check(needed, "the reconstruction", "use a machine with more memory")

    def _open(self, plan, header, kind, bits):
        self._tell(plan)
        connection = self._session.connection
        self._pictures = Pictures(connection, plan, header, kind, bits, self._note)

    def _tell(self, plan):
        """Send the warnings of a plan, each once."""
        for words in plan.warnings:
            if words not in self._warned:
                self._session.warn(words)
            self._warned.add(words)

    def _give_up(self, error):
        """Send no more images early; if there was no forecast yet, later lines may still allow one."""
        if self._forecast is None and self._headers.size < UNCLEAR:
            return
        self._hopeless = True
        self._session.log(f"images wait for the end of the scan: {error}")

    def _early(self, index, repetition, now):
        forecast = self._forecast
        block = Block(index, np.array([repetition]), forecast.pattern(repetition))
        self._sent[index, repetition] = forecast.image(index, repetition)[1]
        self._reconstruct(forecast, forecast.plan, block, self._headers, now)
        self._session.report.early += 1
        if self._acquisitions.held > KEPT and repetition > forecast.last_calibrating:
            self._acquisitions.forget(self._sent[index, repetition])

    def _reconstruct(self, source, plan, block, headers, now):
        key = (block.slice, block.pattern)
        while sum(map(_bytes, self._shared.values())) > BASES and key not in self._shared:
            del self._shared[next(iter(self._shared))]
        made, self._shared[key] = single(plan, block, source, self._shared.get(key))
        for at, repetition in enumerate(block.repetitions.tolist()):
            one = {"image": made["image"][..., at : at + 1]}
            if "snr" in self._session.options()[2]:
                self._made[block.slice, repetition] = np.abs(one["image"][..., 0])
            header = headers[source.image(block.slice, repetition)[1][0]]
            self._deliver(plan, block.slice, repetition, (one, header, now))

    def _deliver(self, plan, index, repetition, image):
        """Send an image; with a correction across slices, wait for all slices of its repetition."""
        if not plan.stack:
            self._pictures.add(index, repetition, *image)
            return
        stack = self._stacks.setdefault(repetition, {})
        stack[index] = image
        if len(stack) < len(plan.kept[0]):
            return
        order = sorted(self._stacks.pop(repetition))
        straight = straightened(plan, np.concatenate([stack[at][0]["image"][:, :, :1] for at in order], 2))
        for at, (one, header, now) in sorted(stack.items()):
            one["image"] = straight[:, :, at : at + 1]
            self._pictures.add(at, repetition, one, header, now)

    def _note(self, arrived):
        """Record that an image was sent, and when its last line was received."""
        if arrived is not None:
            self._session.report.latencies.append(time.monotonic() - arrived)

    # ---- The end ---------------------------------------------------------------------------------

    def finish(self, now):
        """Reconstruct images that were not sent yet."""
        self._join()
        report = self._session.report
        report.acquisitions = self._headers.size
        if not self._headers.size:
            raise StreamError("a scan without acquisitions")
        own = np.flatnonzero(self._headers["flags"] & NOT_IMAGING == 0)
        if own.size and (self._headers["flags"][own] & NOISE != 0).all():
            return self._session.keep_noise(own)
        found = contents(self._session.header, self._headers)
        options, kind, maps, bits = self._session.options()
        source = Arrived(self._acquisitions, found, options.threads)
        plan = make_plan(source.layout, options)
        self._check(plan)
        if not self._sent:
            self._open(plan, found.header, kind, bits)
        elif not self._holds(plan, source):
            self._session.warn("later lines changed images that were sent; all are sent again")
            self._sent, self._stacks = {}, {}
            self._open(plan, found.header, kind, bits)
        self._tell(plan)
        self._shared = {}  # patterns may have other numbers
        for block in blocks(plan):
            left = [r for r in block.repetitions.tolist() if (block.slice, r) not in self._sent]
            if left:
                part = Block(block.slice, np.array(left), block.pattern)
                self._reconstruct(source, plan, part, self._headers, now)
        self._pictures.finish()
        if maps:
            self._send_maps(plan, source, maps)
        report.images, report.clipped = self._pictures.count, self._pictures.clipped
        if report.clipped:
            self._session.warn(f"{report.clipped} pixels exceed the scale of the first volume " "and were clipped")

    def _send_maps(self, plan, source, names):
        try:
            made = noise.maps(plan, source, names, self._magnitudes(plan))
        except ValueError as error:
            self._session.warn(f"no maps are sent: {error}")
            return
        for name, values in made.items():
            for index in plan.kept[0]:
                header = self._headers[source.image(index, 0)[1][0]]
                self._pictures.add_map(name, index, values[:, :, :, index], header)

    def _magnitudes(self, plan):
        """The images of the session, if maps need them."""
        image = np.zeros(plan.image_shape, np.float32, order="F")
        for (index, repetition), values in self._made.items():
            image[:, :, :, index, :, repetition] = values
        return image

    def _holds(self, plan, source):
        """Whether the images that were sent early are those of the whole scan."""
        repetitions = {repetition for _, repetition in self._sent}
        return self._forecast.agrees(plan, repetitions) and all(
            np.array_equal(np.sort(source.image(*image)[1]), np.sort(numbers)) for image, numbers in self._sent.items()
        )


def _bytes(value):
    """Bytes of the arrays in a nested object."""
    if isinstance(value, np.ndarray):
        return value.nbytes
    parts = value if isinstance(value, (list, tuple)) else getattr(value, "__dict__", {}).values()
    return sum(map(_bytes, parts))


# ---- Raw data ------------------------------------------------------------------------------------


class _NoFile:
    def append(self, acquisitions, first, last):
        pass

    def append_waveform(self, message):
        pass

    def commit(self):
        return ""


class _File:
    """A file of the raw data, written while they arrive; it appears when it is complete."""

    def __init__(self, files, path, header, warn):
        self._files, self._path, self._warn = files, path, warn
        self._writer = raw.binding(path).Writer(str(files.path(path)), "dataset", header)

    def append(self, acquisitions, first, last):
        for number in range(first, last):
            self._write(self._writer.append, *acquisitions.as_sent(number))

    def _write(self, append, *arguments):
        """Writes the file; if it cannot be written, images are still made."""
        try:
            if self._writer:
                append(*arguments)
        except RuntimeError as error:
            self._writer = None
            self._warn(f"{self._path} cannot be written ({error}); the raw data are not kept")

    def append_waveform(self, message):
        header = np.frombuffer(message[1], np.uint8)
        fields = header.view(stream.WAVEFORM_HEADER)[0]
        shape = (int(fields["number_of_samples"]), int(fields["channels"]))
        samples = message[2].view("<u4").reshape(shape, order="F")
        self._write(self._writer.append_waveform, header, samples)

    def commit(self):
        if not self._writer:
            return ""
        self._writer.close()
        self._files.commit()
        return str(self._path)
