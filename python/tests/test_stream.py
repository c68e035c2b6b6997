"""Streams of raw data: the protocol, images while the scan runs, and peers that are hostile or unlucky."""

import contextlib
import ctypes
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import h5py
import nibabel
import numpy as np
import pytest
import scans
from command import pixels, recon, run
from conftest import same_bits
from processes import children, memory, until

from ctessel import _raw, arrived, noise, phantom, pipeline, raw, send, serve, session, stream
from ctessel.acquisitions import HEADER, NOISE


class Server:
    """``ctessel serve`` in a process of its own, with what it logs."""

    def __init__(self, *arguments, timeout=20):
        command = [sys.executable, "-m", "ctessel", "serve", "--port", "0", "--timeout", str(timeout)]
        self._file = tempfile.NamedTemporaryFile("r", suffix=".log")
        with open(self._file.name, "w") as log:
            self.process = subprocess.Popen([*command, *map(str, arguments)], stderr=log, preexec_fn=end_with_parent)
        until(lambda: "listens on" in "".join(self.log))
        line = next(line for line in self.log if "listens on" in line)
        host, port = line.split()[-1].split(":")
        self.address = host, int(port)

    @property
    def log(self):
        return Path(self._file.name).read_text().splitlines()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        try:
            assert self.process.wait(30) == 143
        finally:
            self.process.kill()
            self._file.close()

    def resident(self):
        """Bytes of the server and its sessions, its descriptors, and the number of sessions."""
        size, sessions = memory("VmRSS", self.process.pid), children(self.process.pid)
        for number in sessions:
            with contextlib.suppress(OSError, TypeError):  # one may end meanwhile
                size += memory("VmRSS", number)
        return size, len(os.listdir(f"/proc/{self.process.pid}/fd")), len(sessions)

    def settled(self):
        """`resident` once no session is left."""
        until(lambda: self.resident()[2] == 0)
        return self.resident()

    def report(self):
        """The report of the latest session."""
        self.settled()
        line = [line for line in self.log if '"images"' in line][-1]
        return json.loads(line[line.index("{") :])


def end_with_parent():
    """Let the process end when that of the tests does, which may be killed."""
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)


@pytest.fixture(scope="module")
def server():
    with Server("--pixels", "float") as made:
        yield made


@pytest.fixture(scope="module")
def small(tmp_path_factory):
    """The stream of a small scan, as a list of its messages."""
    file = tmp_path_factory.mktemp("small") / "small.h5"
    phantom.write(file, "undersampled", size=32, coils=4)
    return split(send.Sender(file))


def split(sender, **options):
    """The messages of a stream, acquisitions one by one."""

    def size(block, at):
        head = np.frombuffer(block, HEADER, 1, at + 2)[0]
        return 342 + 8 * int(head["number_of_samples"]) * int(head["active_channels"])

    messages = []
    for block in map(bytes, sender.messages(**options)):
        at = 0
        while block[:2] == struct.pack("<H", stream.ACQUISITION) and at < len(block):
            messages.append(block[at : at + size(block, at)])
            at += len(messages[-1])
        messages += [block] if at == 0 else []
    return messages


class Peer:
    """A client that sends what it is told to."""

    def __init__(self, address):
        self.socket = socket.create_connection(address, 20)
        self.connection = stream.Connection(self.socket, stream.TO_CLIENT, 20)
        self.connection.acquisitions.allow(0, 1 << 30, 1 << 30)
        self.images, self.lines, self.closed = [], [], False

    def send(self, *messages):
        with contextlib.suppress(ConnectionError):  # the server may have had enough
            for message in messages:
                self.socket.sendall(message)
        return self

    def receive(self, images=None):
        """Take what comes up to the end, or to a number of images."""
        while not self.closed and (images is None or len(self.images) < images):
            for message in self.connection.receive():
                self.closed = message is None or message[0] == stream.CLOSE
                if message and message[0] == stream.TEXT:
                    self.lines.append(message[2].tobytes().decode())
                if message and message[0] == stream.IMAGE:
                    self.images.append(stream.parse_image(message[1], message[2]))
        return self

    def end(self):
        self.receive()
        self.socket.close()
        return self


@contextlib.contextmanager
def served_here():
    """A peer whose session runs in this process."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        peer = Peer(listener.getsockname())
        connection = stream.Connection(listener.accept()[0], stream.TO_SERVER, 20)
    settings = serve.Settings({"pixels": ["float"]})
    made = session.Session(connection, settings, lambda text: None, "here")
    thread = threading.Thread(target=made.run)
    thread.start()
    yield peer
    peer.socket.close()
    thread.join(20)


def reconstructed(file, *options):
    return np.asarray(recon(file, file.with_name("recon.nii"), *options).dataobj)


def assembled(images):
    """The series as its image file has it, of slices and repetitions."""
    return send.assembled(images)[:, :, 0, :, 0]


def acquisition(samples, coils, **fields):
    head = scans.acquired(number_of_samples=samples, active_channels=coils, **fields)
    return struct.pack("<H", stream.ACQUISITION) + head.tobytes()


# ---- The protocol --------------------------------------------------------------------------------


def test_headers_are_laid_out_as_in_the_library(tmp_path):
    counters = HEADER.names[HEADER.names.index("kspace_encode_step_1") : HEADER.names.index("user_int")]
    theirs = [("AcquisitionHeader", HEADER, n, f"idx.{n}" if n in counters else n) for n in HEADER.names]
    for kind, table in (("ImageHeader", stream.IMAGE_HEADER), ("WaveformHeader", stream.WAVEFORM_HEADER)):
        theirs += [(kind, table, n, n) for n in table.names]
    row = 'std::printf("%zu %zu\\n", offsetof(ISMRMRD_{0}, {1}), sizeof(ISMRMRD_{0}));\n'
    rows = "".join(row.format(kind, name) for kind, _, _, name in theirs)
    files = ("cstddef", "cstdio", "ismrmrd/ismrmrd.h", "ismrmrd/waveform.h")
    included = "".join(f"#include <{file}>\n" for file in files)
    (tmp_path / "offsets.cpp").write_text(f"{included}using namespace ISMRMRD;\nint main() {{\n{rows}}}\n")
    subprocess.run(["g++", "-w", "offsets.cpp", "-o", "offsets"], cwd=tmp_path, check=True)
    printed = subprocess.run([tmp_path / "offsets"], capture_output=True, text=True, check=True).stdout
    for (_, table, name, _), line in zip(theirs, printed.splitlines()):
        assert [table.fields[name][1], table.itemsize] == [int(n) for n in line.split()], name


@pytest.mark.parametrize("kind", phantom.KINDS)
def test_images_of_a_stream_are_those_of_the_file(tmp_path, server, kind):
    phantom.write(tmp_path / "p.h5", kind, size=32, **({"slices": 2} if kind == "interleaved" else {}))
    want = recon(tmp_path / "p.h5", tmp_path / "recon.nii")
    assert run("send", tmp_path / "p.h5", "--to", "{}:{}".format(*server.address), "-o", tmp_path / "live.nii") == 0
    got = nibabel.load(tmp_path / "live.nii")
    same_bits(np.asarray(got.dataobj), np.asarray(want.dataobj))
    np.testing.assert_allclose(got.affine, want.affine, atol=1e-4)
    assert server.report()["images"] > 0


def test_an_image_tells_where_it_lies_and_what_it_is(tmp_path, server):
    phantom.write(tmp_path / "p.h5", "oblique", size=32, echoes=2)
    affine = np.diag([-1, -1, 1, 1]) @ recon(tmp_path / "p.h5", tmp_path / "recon.nii").affine
    images = send.Sender(tmp_path / "p.h5").exchange(server.address)
    for head, attributes, values in images:
        np.testing.assert_allclose(head["position"], (affine @ (16, 16, head["slice"], 1))[:3], atol=1e-3)
        for name, axis in (("read_dir", 0), ("phase_dir", 1), ("slice_dir", 2)):
            np.testing.assert_allclose(head[name], affine[:3, axis] / np.linalg.norm(affine[:3, axis]), atol=1e-6)
        np.testing.assert_allclose([float(v) for v in attributes["ImageRowDir"]], head["read_dir"])
        assert values.shape == (32, 32, 1, 1) and attributes["DataRole"] == ["Image"]
        assert float(attributes["EchoTime"][0]) == 5.0 * (head["contrast"] + 1)
    assert sorted(head["image_index"] for head, _, _ in images) == list(range(1, 7))


# ---- While the scan runs -------------------------------------------------------------------------


@pytest.mark.parametrize("kind, changes, early", [
    ("slices", {}, 4), ("undersampled-3", {"slices": 2, "repetitions": 4}, 7),
    ("undersampled", {"repetitions": 3}, 2), ("averages", {"slices": 2, "coils": 2}, 1),
    ("noise", {"slices": 2, "repetitions": 3}, 5), ("3d", {"repetitions": 3}, 2), ("interleaved", {}, 0),
    ("defective", {"slices": 2, "repetitions": 3}, 5),
])  # fmt: skip
def test_images_come_before_the_last_line_that_cannot_change_them(tmp_path, server, monkeypatch, kind, changes, early):
    """A coil is known to be defective once no slice can speak for it."""
    if kind == "defective":
        scans.write_broken(monkeypatch, tmp_path / "p.h5", "undersampled", 1, size=32, **changes)
    else:
        phantom.write(tmp_path / "p.h5", kind, size=32, **changes)
    messages = split(send.Sender(tmp_path / "p.h5"))
    peer = Peer(server.address).send(*messages[:-2]).receive(images=early).send(*messages[-2:]).end()
    send.write(tmp_path / "live.nii", peer.images)
    np.testing.assert_array_equal(pixels(tmp_path / "live.nii"), reconstructed(tmp_path / "p.h5"))
    assert server.report()["early"] >= early
    assert ["coil 1 of 0 to 7 is left out" in line for line in peer.lines] == [True] * (kind == "defective")


@pytest.mark.parametrize("oversampling", [1, 2])
def test_lines_find_their_places_while_others_come(tmp_path, monkeypatch, oversampling):
    class Watched(arrived.Forecast):
        made, ahead = [], []

        def __init__(self, *arguments):
            super().__init__(*arguments)
            self.made.append(self)

        def transformed(self, block):
            self.ahead.append(super().transformed(block))
            return self.ahead[-1]

    monkeypatch.setattr(session, "Forecast", Watched)
    changes = {"size": 32, "slices": 2, "repetitions": 3, "oversampling": oversampling}
    phantom.write(tmp_path / "p.h5", "undersampled", noise=0.01, **changes)
    messages = split(send.Sender(tmp_path / "p.h5"))
    with served_here() as peer:
        peer.send(*messages[:-9])
        until(lambda: Watched.made and Watched.made[-1]._ahead)  # lines of the last image
        peer.send(*messages[-9:]).end()
    assert Watched.ahead[-1] is not None and Watched.ahead[0] is None
    np.testing.assert_array_equal(assembled(peer.images), reconstructed(tmp_path / "p.h5"))


def test_noise_may_come_in_an_earlier_connection(tmp_path, server):
    def header(names):
        text = messages[1][6:].decode()
        start = "<measurementInformation>"
        return stream.text(stream.HEADER, text.replace(start, start + names))

    phantom.write(tmp_path / "p.h5", "noise", size=32, coils=4, slices=2)
    want, without = (reconstructed(tmp_path / "p.h5", *words) for words in ((), ("--no-noise",)))
    messages = split(send.Sender(tmp_path / "p.h5"))
    noise = [m for m in messages[2:-1] if np.frombuffer(m, HEADER, 1, 2)["flags"][0] & NOISE]
    scan = messages[2 + len(noise) : -1]
    needs = "<measurementDependency><dependencyType>Noise</dependencyType><measurementID>{}</measurementID></measurementDependency>"

    def images(needed, lines=scan):
        return Peer(server.address).send(messages[0], header(needed), *lines, messages[-1]).end()

    phantom.write(tmp_path / "q.h5", "noise", size=32, coils=2)
    images("<measurementID>n/3</measurementID>", split(send.Sender(tmp_path / "q.h5"))[2:3])
    kept = images("<measurementID>n/1</measurementID>", noise)
    assert not kept.images and kept.lines == ["INFO     ctessel: the noise scan 'n/1' is kept"]
    for needed, lines, expected, told in [
        ("n/1", scan, want, ""), ("n/2", scan, without, "'n/2' was not received here"),
        ("n/3", scan, without, "has 2 coils, the scan 4"), (None, scan, without, ""),
        ("n/1", noise + scan, want, ""),  # its own counts
    ]:  # fmt: skip
        peer = images(needs.format(needed) if needed else "", lines)
        np.testing.assert_array_equal(assembled(peer.images)[..., 0], expected.squeeze())
        assert told in "".join(peer.lines) and bool(peer.lines) == bool(told)


def test_lines_that_change_what_was_sent_have_it_sent_again(tmp_path, server):
    phantom.write(tmp_path / "p.h5", "slices", slices=2, size=32, noise=0.1)
    messages = split(send.Sender(tmp_path / "p.h5"))
    again = bytearray(messages[20])  # one of the first slice's once more, twice as strong
    again[342:] = (2 * np.frombuffer(again[342:], "f4")).tobytes()
    messages.insert(-1, bytes(again))
    heads = (np.frombuffer(message, HEADER, 1, 2)[0] for message in messages[2:-1])
    samples = (np.frombuffer(message, np.complex64, -1, 342).reshape(8, -1).T for message in messages[2:-1])
    scans.write_lines(tmp_path / "q.h5", zip(heads, samples), messages[1][6:].decode())
    peer = Peer(server.address).send(*messages[:-2]).receive(images=2).send(*messages[-2:]).end()
    assert len(peer.images) == 4 and "sent again" in "".join(peer.lines)
    np.testing.assert_array_equal(assembled(peer.images[2:])[..., 0], reconstructed(tmp_path / "q.h5"))


def test_a_centre_beyond_the_readout_is_that_of_a_longer_one(server, small):
    plain = Peer(server.address).send(*small).end().images[0][2]
    moved = [bytearray(message) for message in small]
    for message in moved[2:-1]:
        np.frombuffer(message, HEADER, 1, 2)["center_sample"] = 64  # of 64 samples, k = 0 is the 32nd
    np.testing.assert_array_equal(Peer(server.address).send(*moved).end().images[0][2], plain)


def test_lines_are_sent_at_the_times_of_their_measurement(tmp_path, monkeypatch):
    class Clock:
        now, sleep = 0.0, lambda self, seconds: setattr(self, "now", self.now + seconds)

        def monotonic(self):
            return self.now

    clock = Clock()
    monkeypatch.setattr(send, "time", clock)
    phantom.write(tmp_path / "p.h5", "full", size=16, coils=1)
    sender = send.Sender(tmp_path / "p.h5")
    stamps = np.arange(16, dtype="u4") * 4
    for given, step in ((stamps, 4 * 2.5e-3), (np.zeros(16), sender._found.header.tr[0] / 1000)):
        sender._found.headers["acquisition_time_stamp"] = given
        begun, times = clock.now, []
        for message in sender.messages(realtime=True):
            times += [clock.now - begun] * (bytes(message[:2]) == struct.pack("<H", 1008))
        np.testing.assert_allclose(times, np.arange(16) * step, atol=1e-6)


def test_one_scale_holds_for_a_series(tmp_path, server):
    phantom.write(tmp_path / "p.h5", "repetitions", size=32, slices=2, noise=0)
    messages = split(send.Sender(tmp_path / "p.h5"), parameters='{"parameters": {"pixels": "int16"}}')
    for at, message in enumerate(messages):
        head = np.frombuffer(message, HEADER, 1, 2)[0] if len(message) > 1400 else None
        if head is not None and message[:2] == b"\xf0\x03":
            level = np.float32((1, 1.5, 2.5)[head["repetition"]])
            messages[at] = message[:342] + (level * np.frombuffer(message[342:], "f4")).tobytes()
    peer = Peer(server.address).send(*messages).end()
    peaks = np.zeros((2, 3))
    for head, attributes, values in peer.images:
        assert values.dtype == np.int16 and attributes["RescaleSlope"] == peer.images[0][1]["RescaleSlope"]
        peaks[head["slice"], head["repetition"]] = values.max()
    assert peaks.max(0).tolist() == [2047, pytest.approx(3070, abs=1), 4095]
    clipped = server.report()["clipped"]
    assert clipped > 0 and f"{clipped} pixels" in peer.lines[-1]


def test_maps_of_noise_are_series_of_their_own(tmp_path, server):
    phantom.write(tmp_path / "p.h5", "noise", size=32, coils=4, slices=2, repetitions=2)
    images = send.Sender(tmp_path / "p.h5").exchange(server.address, "", '{"maps-out": "g,sd,snr"}')
    scan = raw.read(tmp_path / "p.h5", cut=True)
    plan = pipeline.plan(scan, pipeline.Options(combine="sos"))
    result = pipeline.reconstruct(scan, plan=plan)
    want = noise.maps(plan, scan, ("g", "sd", "snr"), result.image)
    for series, name, role in ((10, "g", "Gfactor"), (11, "snr", "SNR_MAP"), (12, "sd", "STD_MAP")):
        own = [image for image in images if image[0]["image_series_index"] == series]
        assert {tuple(attributes["DataRole"]) for _, attributes, _ in own} == {(role,)}
        got = send.assembled(own)
        np.testing.assert_array_equal(got.reshape(want[name].shape), want[name])


def test_options_come_from_command_config_and_text(tmp_path):
    phantom.write(tmp_path / "p.h5", "full", size=32)
    (tmp_path / "smooth.json").write_text('{"ringing": 0.5, "no_such": 1}')
    sender = send.Sender(tmp_path / "p.h5")
    cases = [
        ("", None, []),
        ("smooth", None, ["--ringing", "0.5"]),
        ("unknown", '{"ringing": 7, "geometry": "/etc/passwd", "maps": "/etc/passwd"}', []),
        ("unknown", '{"parameters": {"customconfig": "smooth", "pad": "64 64 1"}}',
         ["--ringing", "0.5", "--pad", "64", "64", "1"]),
    ]  # fmt: skip
    with Server("--pixels", "float", "--config", f"smooth={tmp_path}/smooth.json") as made:
        for config, parameters, words in cases:
            images = sender.exchange(made.address, config, parameters)
            want = reconstructed(tmp_path / "p.h5", *words)
            np.testing.assert_array_equal(images[0][2][..., 0].squeeze(), want.squeeze())
        told = "".join(made.log)
        for words in ("no_such", "'unknown'", "'ringing' is not used", "'geometry' is not used", "'maps' is not used"):
            assert words in told
        ((_, _, values),) = sender.exchange(made.address, "", '{"pixels": "complex"}')
        want = reconstructed(tmp_path / "p.h5", "--combine", "phase")
        np.testing.assert_array_equal(np.abs(values[..., 0]).squeeze(), want.squeeze())


def test_slices_that_gradients_bend_wait_for_their_volume(tmp_path):
    phantom.write(tmp_path / "p.h5", "slices", size=32, slices=3, repetitions=2)
    (tmp_path / "c.grad").write_text("0.25 m = R0\n 1 A( 3, 0) -0.5 z\n 2 A( 3, 1) -1 x\n")
    options = ["--geometry", tmp_path / "c.grad"]
    want, plain = (reconstructed(tmp_path / "p.h5", *words) for words in (options, ()))
    with Server("--pixels", "float", *options) as made:
        images = send.Sender(tmp_path / "p.h5").exchange(made.address)
    np.testing.assert_array_equal(assembled(images), want)
    assert np.abs(want - plain).max() > 0.01


# ---- Raw data ------------------------------------------------------------------------------------


def test_raw_data_are_kept_complete_or_not_at_all(tmp_path, small):
    def file():
        return [path for path in tmp_path.iterdir() if path.suffix == ".h5"]

    wave = np.zeros(1, stream.WAVEFORM_HEADER)
    wave["number_of_samples"], wave["channels"] = 3, 2
    extra = struct.pack("<H", stream.WAVEFORM) + wave.tobytes() + bytes(range(24))
    with Server("--save", tmp_path) as made:
        Peer(made.address).send(*small[:-1]).socket.close()
        until(lambda: re.search(r'"error": "\w', "".join(made.log)))
        assert not file()
        # Lines that no reconstruction can use are kept all the same.
        odd = acquisition(64, 4, kspace_encode_step_1=99) + struct.pack("<512f", *range(512))
        peer = Peer(made.address).send(*small[:2], odd, extra, small[-1]).end()
        assert peer.lines[-1].startswith("ERROR    ctessel: ")
        until(file)
    reader = _raw.Reader(str(file()[0]), "dataset")
    assert reader.header == small[1][6:] and len(reader) == 1
    np.testing.assert_array_equal(reader.headers(0, 1).view(HEADER)["kspace_encode_step_1"], 99)
    np.testing.assert_array_equal(reader.read([0]).samples(0).ravel(order="F").view("f4"), np.arange(512))
    with h5py.File(file()[0]) as saved:
        assert saved["dataset/waveforms"]["data"][0].tobytes() == bytes(range(24))
    assert not [path for path in tmp_path.iterdir() if path.name.startswith(".")]


def test_a_stream_comes_through_a_pipe(tmp_path, small):
    command = [sys.executable, "-m", "ctessel", "serve", "--stdio"]
    for messages, code in ((small[1:], 0), (small[1:-3], 1)):
        done = subprocess.run(command, input=b"".join(messages), capture_output=True, timeout=60)
        assert done.returncode == code
        (tmp_path / "out").write_bytes(done.stdout)
        with open(tmp_path / "out", "rb") as out:
            connection = stream.Connection(out.fileno(), stream.TO_CLIENT, 5)
            connection.acquisitions.allow(0, 1 << 30, 1 << 30)
            ids = []
            while ids[-1:] != [stream.CLOSE]:
                ids += [message[0] for message in connection.receive()]
        assert ids == [stream.IMAGE if code == 0 else stream.TEXT, stream.CLOSE]


def test_recon_takes_a_stream_from_stdin(tmp_path, small):
    def piped(messages):
        command = [sys.executable, "-m", "ctessel", "recon", "-", "-o", tmp_path / "piped.nii"]
        return subprocess.run(command, input=b"".join(messages), capture_output=True, timeout=60)

    cut = piped(small[1:-1])
    assert cut.returncode == 1 and cut.stderr.startswith(b"ctessel: stdin: the stream ended without")
    assert piped(small[1:]).returncode == 0
    phantom.write(tmp_path / "p.h5", "undersampled", size=32, coils=4)
    np.testing.assert_array_equal(pixels(tmp_path / "piped.nii"), reconstructed(tmp_path / "p.h5"))


# ---- Hostile and unlucky peers -------------------------------------------------------------------


def bomb():
    entities = "".join(f'<!ENTITY a{i} "{f"&a{i - 1};" * 10}">' for i in range(1, 9))
    return f'<!DOCTYPE a [<!ENTITY a0 "x">{entities}]><a>&a8;</a>'.encode()


def broken(small):
    """Streams that end in an error."""
    head, most = small[1], 0xFFFF
    huge = head.replace(b"<x>64</x><y>32</y>", b"<x>65535</x><y>65535</y>")
    huge = huge[:2] + struct.pack("<I", len(huge) - 6) + huge[6:]
    text = struct.Struct("<HI")
    nan = bytearray(small[4])
    nan[422:426] = struct.pack("<f", np.nan)
    return {
        "unknown id": [struct.pack("<H", 1019)],
        "an id that is none": [b"GET / HTTP/1.1\r\n\r\n"],
        "long text": [text.pack(stream.TEXT, 2**32 - 1)],
        "long header": [text.pack(stream.HEADER, 2**32 - 1)],
        "long query": [struct.pack("<HQQQ", stream.QUERY, 0, 1, 2**64 - 1)],
        "no XML": [stream.text(stream.HEADER, "<a>")],
        "no text": [stream.text(stream.HEADER, b"\xff\xfe\x00")],
        "bomb": [stream.text(stream.HEADER, bomb())],
        "deep": [stream.text(stream.HEADER, b"<a>" * 200_000)],
        "no encoding": [stream.text(stream.HEADER, "<ismrmrdHeader/>")],
        "data before the header": [small[4]],
        "overflow": [head, acquisition(most, most)],
        "channels": [head, acquisition(16, 5)],
        "trajectory": [head, acquisition(most, 4, trajectory_dimensions=most)],
        "nothing measured": [head, small[-1]],
        "two headers": [head, head],
        "image": [head, struct.pack("<H", stream.IMAGE)],
        "not finite": [head, *small[2:4], bytes(nan), *small[5:]],
        "huge matrix": [huge, *small[2:]],
        "counters": [head, acquisition(64, 4, slice=most, repetition=most, set=most, phase=most)
                     + bytes(2048), small[4], small[-1]],
        "directions": [head, acquisition(64, 4, read_dir=(np.nan,) * 3) + bytes(2048), small[-1]],
    }  # fmt: skip


def test_broken_streams_end_in_an_error_and_leave_nothing(server, small):
    cases = broken(small)
    before, most = server.settled(), 0
    for number in range(200):
        name = list(cases)[number % len(cases)]
        peer = Peer(server.address).send(*cases[name]).end()
        assert [line[:17] for line in peer.lines][-1:] == ["ERROR    ctessel:"], name
        assert "internal error" not in "".join(peer.lines + server.log), (name, peer.lines)
        most = max(most, server.resident()[0])
    after = server.settled()
    assert after[0] - before[0] < 60e6 and after[1] - before[1] <= 2 and most - before[0] < 600e6
    assert len(Peer(server.address).send(*small).end().images) == 1


@pytest.mark.parametrize("step", ["make_plan", "parse"])
def test_faults_of_the_system_are_told_as_such(small, monkeypatch, step):
    def fails(*_):
        raise TypeError("'NoneType' object")

    monkeypatch.setattr(session, step, fails)
    with served_here() as peer:
        peer.send(*small).end()
    assert peer.lines == ["ERROR    ctessel: internal error of ctessel, TypeError: 'NoneType' object"]


def test_a_stream_may_be_cut_anywhere(server, small):
    before = server.settled()
    for border in range(len(small)):
        for extra in (b"", small[border][: len(small[border]) // 2]):
            peer = Peer(server.address).send(*small[:border], extra)
            peer.socket.shutdown(socket.SHUT_WR)
            peer.end()
            failed = border > 1 or extra  # before the header an end is none too early
            assert bool(peer.lines) == bool(failed), (border, len(extra))
            assert len(peer.images) == (border == len(small) - 1)  # all but CLOSE
    assert server.settled()[1] <= before[1]


def test_silent_peers_are_closed(small, tmp_path):
    phantom.write(tmp_path / "p.h5", "repetitions", size=32, repetitions=8)
    images = split(send.Sender(tmp_path / "p.h5"), parameters='{"pad": [1024, 1024, 1]}')
    with Server("--pixels", "float", timeout=1) as made:
        begun = time.monotonic()
        silent = [Peer(made.address).send(*small[:n]) for n in (0, 1, 2, 5)]
        for peer in silent:
            assert "silence for 1 s" in peer.end().lines[-1]
        drop = Peer(made.address)  # a byte at a time keeps no message open
        while not select.select([drop.socket], [], [], 0.2)[0]:
            drop.send(b"\x01")
        deaf = Peer(made.address).send(*images)  # reads nothing
        until(lambda: "has read nothing for 1 s" in "".join(made.log))
        deaf.socket.close()
        assert time.monotonic() - begun < 30
        assert made.settled()[2] == 0


def test_a_server_that_refuses_ends_the_sender_in_one_line(tmp_path):
    phantom.write(file := tmp_path / "s.h5", "repetitions", size=128, coils=16)  # still on its way when the error comes
    with socket.create_server(("127.0.0.1", 0)) as refusing:

        def refuse():
            peer, _ = refusing.accept()
            with peer:
                peer.recv(1 << 16)
                peer.sendall(stream.text(stream.TEXT, "ERROR    ctessel: no room"))
                peer.shutdown(socket.SHUT_WR)
                while peer.recv(1 << 20):
                    pass

        threading.Thread(target=refuse, daemon=True).start()
        to = "{}:{}".format(*refusing.getsockname())
        command = [sys.executable, "-m", "ctessel", "send", file, "--to", to, "-o", tmp_path / "i.nii"]
        run = subprocess.run(command, capture_output=True, text=True, timeout=60)
    assert (run.returncode, run.stderr) == (1, "ctessel: the server: ctessel: no room\n")


def test_connections_are_limited_and_served_together(small):
    with Server("--connections", 4, "--pixels", "float") as made:
        for _ in range(3):
            assert len(Peer(made.address).send(*small).end().images) == 1
        made.settled()
        peers = [Peer(made.address).send(*small[:-1]) for _ in range(4)]
        until(lambda: made.resident()[2] == 4)
        refused = Peer(made.address).send(*small).end()
        assert "4 connections are open" in refused.lines[0] and not refused.images
        crowd = [socket.create_connection(made.address, 20) for _ in range(300)]
        for peer in peers:
            assert len(peer.send(small[-1]).end().images) == 1
        for _ in range(3):  # a refused one stays open for what it sends before it reads
            crowd[-1].sendall(b"x")
            time.sleep(0.2)
        for peer in crowd:
            peer.close()
        assert made.settled()[2] == 0


def test_sigterm_ends_sessions_cleanly(tmp_path, small):
    with Server("--save", tmp_path) as made:
        peer = Peer(made.address).send(*small[:10])
        until(lambda: made.resident()[2] == 1)
        time.sleep(0.3)
        made.process.send_signal(signal.SIGTERM)
        peer.end()
        assert peer.closed and "the server ends" in peer.lines[-1]
        assert made.process.wait(20) == 143
        assert made.log[-1] == "ctessel: the server has ended"
    assert not list(tmp_path.iterdir())


def test_short_sessions_leave_nothing(server, small):
    Peer(server.address).send(small[0], small[-1]).end()
    before = server.settled()
    for _ in range(1000):
        Peer(server.address).send(small[0], small[-1]).end()
    after = server.settled()
    assert after[0] - before[0] < 5e6 and after[1] <= before[1]
