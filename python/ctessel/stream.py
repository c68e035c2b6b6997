"""ISMRMRD's streaming protocol: messages, headers of images, and the two ends of a connection.

Every message is an id (uint16), a part with a length that follows from the id, and a part with a length
that is stored in the first part. All is little endian and packed. See https://ismrmrd.github.io.

>>> attributes({"DataRole": ["Image"], "WindowWidth": ["2047"]})[:38]
b'<ismrmrdMeta><meta><name>DataRole</nam'
>>> parse_attributes(attributes({"a": ["1", "2"]}))
{'a': ['1', '2']}
"""

import json
import os
import re
import socket
import struct
import threading
import xml.etree.ElementTree as ElementTree

import numpy as np

from . import raw

__all__ = [
    "Connection", "StreamError", "attributes", "config_file", "image", "parameters",
    "parse_attributes", "text",
]  # fmt: skip

PORT = 9002
CONFIG_FILE, CONFIG_TEXT, HEADER, CLOSE, TEXT, QUERY, RESPONSE, ERROR = range(1, 9)
ACQUISITION, IMAGE, WAVEFORM = 1008, 1022, 1026
#: Messages that each end accepts.
TO_SERVER = (CONFIG_FILE, CONFIG_TEXT, HEADER, CLOSE, TEXT, QUERY, ACQUISITION, WAVEFORM)
TO_CLIENT = (CLOSE, TEXT, QUERY, RESPONSE, ERROR, IMAGE)
#: Largest size of a text in bytes; headers of long scans with many waveforms have some hundred thousand.
LONGEST_TEXT = 4 << 20

#: Header of an image, without gaps.
IMAGE_HEADER = np.dtype([
    ("version", "<u2"), ("data_type", "<u2"), ("flags", "<u8"), ("measurement_uid", "<u4"),
    ("matrix_size", "<u2", 3), ("field_of_view", "<f4", 3), ("channels", "<u2"),
    ("position", "<f4", 3), ("read_dir", "<f4", 3), ("phase_dir", "<f4", 3),
    ("slice_dir", "<f4", 3), ("patient_table_position", "<f4", 3), ("average", "<u2"),
    ("slice", "<u2"), ("contrast", "<u2"), ("phase", "<u2"), ("repetition", "<u2"), ("set", "<u2"),
    ("acquisition_time_stamp", "<u4"), ("physiology_time_stamp", "<u4", 3), ("image_type", "<u2"),
    ("image_index", "<u2"), ("image_series_index", "<u2"), ("user_int", "<i4", 8),
    ("user_float", "<f4", 8), ("attribute_string_len", "<u4"),
])  # fmt: skip
#: Header of a waveform; unlike the others it is aligned.
WAVEFORM_HEADER = np.dtype({
    "names": ["version", "flags", "measurement_uid", "scan_counter", "time_stamp",
              "number_of_samples", "channels", "sample_time_us", "waveform_id"],
    "formats": ["<u2", "<u8", "<u4", "<u4", "<u4", "<u2", "<u2", "<f4", "<u2"],
    "offsets": [0, 8, 16, 20, 24, 28, 30, 32, 36], "itemsize": 40,
})  # fmt: skip
#: Types of pixels by their number.
PIXELS = dict(enumerate(("<u2", "<i2", "<u4", "<i4", "<f4", "<f8", "<c8", "<c16"), 1))
MAGNITUDE, PHASE, REAL, IMAGINARY, COMPLEX = range(1, 6)


class StreamError(ValueError):
    """A peer violates the protocol, or does not answer. One line."""


# ---- Messages ------------------------------------------------------------------------------------


def text(id, words):
    """A message that is a text: its bytes."""
    body = words if isinstance(words, bytes) else words.encode()
    return struct.pack("<HI", id, len(body)) + body


def line(severity, words):
    """A line for the log of the other end; the severity is ERROR, WARNING or INFO."""
    return text(TEXT, f"{severity:<8} ctessel: {' '.join(words.split())}")


def config_file(name):
    """The message that names a configuration, of at most 1023 bytes."""
    name = name.encode()
    if len(name) > 1023:
        raise ValueError(f"config: expected a name of at most 1023 bytes, got {len(name)}")
    return struct.pack("<H1024s", CONFIG_FILE, name)


def close():
    """The message that ends a stream."""
    return struct.pack("<H", CLOSE)


def response(query, words):
    """The answer to the header of a query."""
    body = words.encode()
    return struct.pack("<HQQ", RESPONSE, struct.unpack("<QQQ", query)[1], len(body)) + body


def image(pixels, values, **fields):
    """A message with one image.

    Parameters
    ----------
    pixels : ndarray, ``(x, y, z)``
        uint16, int16, uint32, int32, float32, float64, complex64 or complex128.
    values : dict of str to sequence of str
        Attributes.
    **fields
        Of `IMAGE_HEADER`, but for extents, type of the pixels and length of the attributes.

    Returns
    -------
    list of buffers
        To be sent one after the other.
    """
    header, meta = np.zeros((), IMAGE_HEADER), attributes(values)
    kind = next(number for number, name in PIXELS.items() if np.dtype(name) == pixels.dtype)
    own = {
        "version": 1, "data_type": kind, "matrix_size": pixels.shape, "channels": 1,
        "attribute_string_len": len(meta),
    }  # fmt: skip
    for name, value in {**own, **fields}.items():
        header[name] = value
    start = struct.pack("<H", IMAGE) + header.tobytes() + struct.pack("<Q", len(meta)) + meta
    return [start, np.asfortranarray(pixels).reshape(-1, order="F").view(np.uint8)]


def parse_image(start, body):
    """Header (a record of `IMAGE_HEADER`), attributes, and pixels ``(x, y, z, channel)``."""
    header = np.frombuffer(start, IMAGE_HEADER, 1)[0]
    (length,) = struct.unpack_from("<Q", start, IMAGE_HEADER.itemsize)
    pixels = body[length:].view(PIXELS[int(header["data_type"])])
    shape = (*header["matrix_size"], header["channels"])
    return header, parse_attributes(body[:length].tobytes()), pixels.reshape(shape, order="F")


def attributes(values):
    """Attributes of an image, each with one or several values, as XML."""
    root = ElementTree.Element("ismrmrdMeta")
    for name, each in values.items():
        meta = ElementTree.SubElement(root, "meta")
        ElementTree.SubElement(meta, "name").text = name
        for value in each:
            # Names that people typed at a scanner may have characters that XML does not allow.
            clean = re.sub("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]", " ", value)
            ElementTree.SubElement(meta, "value").text = clean
    return ElementTree.tostring(root)


def parse_attributes(xml):
    """The attributes of an image: a dict of lists of texts, empty where there are none."""
    if not xml.strip(b"\0 \n"):
        return {}
    root = parse_xml(xml)
    return {
        meta.findtext("name", ""): [value.text or "" for value in meta.findall("value")]
        for meta in root.findall("meta")
    }


def parse_xml(xml):
    """The root of an XML text; a document type is refused, because entities may expand without limit."""
    try:
        words = xml.rstrip(b"\0").decode()
        if "<!DOCTYPE" in words or "<!ENTITY" in words:
            raise StreamError("XML with a document type is not read; send it without one")
        return ElementTree.fromstring(words)
    except (UnicodeDecodeError, ElementTree.ParseError, ValueError) as error:
        if isinstance(error, StreamError):
            raise
        raise StreamError(f"XML that cannot be read ({error})") from None


def parameters(words):
    """The parameters in a TEXT: a dict, or None if it has none.

    >>> parameters(b'{"parameters": {"config": "default", "ringing": 0.5}}\\0')
    {'config': 'default', 'ringing': 0.5}
    """
    try:
        found = json.loads(words.rstrip(b"\0").decode())
    except (ValueError, RecursionError):
        return None
    if isinstance(found, dict) and isinstance(found.get("parameters"), dict):
        found = found["parameters"]
    return found if isinstance(found, dict) else None


# ---- Connections ---------------------------------------------------------------------------------


class Connection:
    """One end of a stream, on a socket or on a pair of files.

    Parameters
    ----------
    source : socket or int
        Source of messages; a socket is also their target.
    accepted : sequence of int
        Ids of accepted messages.
    timeout : float
        The connection ends after this time in seconds without a complete message, or without room to send.
    target : int, optional
        File descriptor for sending.
    waveforms : bool, optional
        Pass on waveforms as well; otherwise they are dropped.
    """

    def __init__(self, source, accepted, timeout, target=None, waveforms=False):
        self._socket = source if isinstance(source, socket.socket) else None
        self._source = source if self._socket is None else source.fileno()
        self._target, self._timeout = target, timeout
        self._lock = threading.Lock()  # a message stays in one piece
        #: The acquisitions that were received.
        self.acquisitions = raw.binding("stream").Stream(list(accepted), LONGEST_TEXT, waveforms)
        if self._socket:
            self._socket.settimeout(timeout)
            self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)

    def receive(self):
        """Received messages except acquisitions: (id, header, rest) of each, None at the end.

        Empty if only acquisitions were received.
        """
        try:
            return self.acquisitions.receive(self._source, self._timeout)
        except TimeoutError:
            raise StreamError(f"silence for {self._timeout:g} s") from None
        except RuntimeError as error:
            raise StreamError(str(error)) from None

    def send(self, *buffers):
        """Send buffers one after the other; other threads wait meanwhile."""
        with self._lock:
            for buffer in buffers:
                self._send(memoryview(buffer).cast("B"))

    def _send(self, buffer):
        try:
            if self._socket:
                self._socket.sendall(buffer)
            while self._socket is None and len(buffer):
                buffer = buffer[os.write(self._target, buffer) :]
        except TimeoutError:
            raise StreamError(f"it has read nothing for {self._timeout:g} s") from None
        except OSError as error:
            raise StreamError(f"it cannot be sent to ({error.strerror})") from None
