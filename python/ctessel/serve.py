"""The command ``ctessel serve``: images while the scan runs.

The server listens, and starts a process for each connection. Whatever a peer does affects only this
process, and its memory is released when it ends. See docs/live.md.
"""

import argparse
import contextlib
import json
import os
import select
import signal
import socket
import sys
import tempfile
import time
from dataclasses import dataclass, field, replace
from pathlib import Path

from . import job, options, runtime, stream
from .earlier import Shelf
from .session import Session

#: Number of refused connections that get time to read the reason.
REFUSED = 64
#: Seconds for that, and for a session to end after its signal.
GRACE = 5.0


# ---- Options -------------------------------------------------------------------------------------


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        raise ValueError(message)


def _steps():
    """A parser of only the steps' options."""
    parser = _Parser(add_help=False, allow_abbrev=False)
    options.add_steps(parser)
    options.add_answers(parser)
    return parser


@dataclass
class Settings:
    """Defaults of sessions; their stream may change them.

    `words` and the values of `configs` map long options of the steps, without dashes, to lists of words.
    """

    words: dict = field(default_factory=dict)
    configs: dict = field(default_factory=dict)
    save: Path | None = None
    threads: int | None = None
    timeout: float = 300.0
    bits: int = 12
    shelf: Shelf | None = None  # noise scans of earlier connections

    def changed(self, words, named, log, trusted=False):
        """`words`, changed by the options of a dict; `log` gets a line for each unusable option."""
        for name, value in named.items():
            try:
                option, texts = _words(name, value, trusted)
            except ValueError as error:
                log(f"{str(name)[:80]!r} is not used: {' '.join(str(error).split())[:200]}")
                continue
            words = {key: value for key, value in words.items() if key != option}
            words |= {} if texts is None else {option: texts}
        return words

    def options(self, words):
        """`Options`, kind of the pixels, and names of maps."""
        line = [word for name, texts in words.items() for word in (f"--{name}", *texts)]
        arguments = _steps().parse_args(line)
        arguments.threads = self.threads
        made = job.options(arguments)
        if arguments.pixels == "complex":
            made = replace(made, combine="pcsos")
        return made, arguments.pixels, arguments.maps_out


def _words(name, value, trusted):
    """An option and its words, None if a flag is off; ValueError if it is unusable."""
    option = str(name).lstrip("-").replace("_", "-")
    parser = _steps()
    action = parser._option_string_actions.get(f"--{option}")
    if action is None:
        raise ValueError("recon has no such option")
    if option in ("geometry", "maps") and not trusted:
        raise ValueError("only the server's command or a configuration can name files")
    if action.nargs == 0:
        if str(value).lower() not in ("true", "false", "1", "0", "yes", "no"):
            raise ValueError("expected true or false")
        return option, [] if str(value).lower() in ("true", "1", "yes") else None
    texts = [str(v) for v in (value if isinstance(value, list) else str(value).split())]
    parser.parse_args([f"--{option}", *texts])
    return option, texts


def _given(arguments):
    """Options of the steps from the arguments of a command, and their words."""
    given = {}
    for action in _steps()._actions:
        value = getattr(arguments, action.dest)
        if value != action.default:
            each = value if isinstance(value, list) else [] if value is True else [value]
            each = [",".join(map(str, value))] if isinstance(value, tuple) else each
            given[action.option_strings[0].lstrip("-")] = [str(v) for v in each]
    return given


def read_config(text, log):
    """Name and words of ``NAME=OPTIONS-FILE``, a JSON file with options of the steps."""
    name, _, file = text.partition("=")
    if not name or not file:
        raise ValueError(f"--config: expected NAME=OPTIONS-FILE, got {text}")
    try:
        found = json.loads(Path(file).read_text())
    except (OSError, ValueError) as error:
        raise ValueError(f"{file}: cannot be read ({error}); write options as JSON") from None
    if not isinstance(found, dict):
        raise ValueError(f'{file}: expected options as JSON, such as {{"ringing": 0.3}}')
    words = Settings().changed({}, found, lambda line: log(f"{file}: {line}"), trusted=True)
    return name, words


# ---- Sessions ------------------------------------------------------------------------------------


def log(text):
    """One line for the server's log."""
    print(f"ctessel serve: {' '.join(text.split())}", file=sys.stderr, flush=True)


def session(source, settings, name, target=None):
    """Serve one connection to its end."""
    log(f"{name}: begins")
    connection = stream.Connection(source, stream.TO_SERVER, settings.timeout, target, waveforms=bool(settings.save))
    made = Session(connection, settings, lambda text: log(f"{name}: {text}"), name)
    received = made.run()
    log(f"{name}: {made.report.text() if received else 'closed before a header was received'}")
    return made.report


class Server:
    """Listens, and makes a process for each connection."""

    def __init__(self, host, port, settings, connections):
        self._settings, self._most = settings, connections
        self._folder = tempfile.TemporaryDirectory(prefix="ctessel-noise-")
        settings.shelf = Shelf(self._folder.name)
        family = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)[0][0]
        self._listener = socket.create_server((host, port), family=family, backlog=128)
        self._children, self._refused = set(), {}
        self._number = 0
        self.address = self._listener.getsockname()[:2]

    def run(self):
        """Serve until a signal ends it."""
        # A signal between two polls wakes the loop up through this pipe.
        wake, waker = os.pipe()
        os.set_blocking(wake, False)
        os.set_blocking(waker, False)
        signal.set_wakeup_fd(waker)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        self._listener.setblocking(False)
        try:
            while True:
                self._wait(wake)
                self._reap()
                self._accept()
                self._let_go()
        finally:
            signal.set_wakeup_fd(-1)
            self._end()
            os.close(wake)
            os.close(waker)

    def _wait(self, wake):
        poll = select.poll()
        for file in (self._listener, wake, *self._refused):
            poll.register(file, select.POLLIN)
        poll.poll(1000)
        with contextlib.suppress(BlockingIOError):
            os.read(wake, 4096)

    def _reap(self):
        for child in list(self._children):
            if os.waitpid(child, os.WNOHANG)[0]:
                self._children.remove(child)

    def _accept(self):
        try:
            peer, address = self._listener.accept()
        except BlockingIOError:
            return
        except OSError as error:  # out of descriptors, or the peer has gone
            log(f"a connection was lost: {error.strerror}")
            time.sleep(0.1)
            return
        self._number += 1
        name = f"{time.strftime('%Y%m%dT%H%M%S')}-{self._number:04d}"
        if len(self._children) >= self._most:
            self._refuse(peer, address)
            return
        child = os.fork()
        if child == 0:
            self._serve(peer, name)
        self._children.add(child)
        peer.close()

    def _refuse(self, peer, address):
        log(f"{address[0]} refused: {self._most} connections are open")
        peer.setblocking(False)
        words = f"{self._most} connections are open, which is the limit; try again later"
        with contextlib.suppress(OSError):
            peer.send(stream.line("ERROR", words) + stream.close())
            peer.shutdown(socket.SHUT_WR)
        while len(self._refused) >= REFUSED:
            old = next(iter(self._refused))
            del self._refused[old]
            old.close()
        self._refused[peer] = time.monotonic() + GRACE

    def _let_go(self):
        """Close refused connections after they have read the reason: closing with unread data discards it."""
        for peer, deadline in list(self._refused.items()):
            try:
                left = peer.recv(1 << 16) and time.monotonic() < deadline
            except BlockingIOError:
                left = time.monotonic() < deadline
            except OSError:
                left = False
            if not left:
                del self._refused[peer]
                peer.close()

    def _serve(self, peer, name):
        """The process of one connection; it ends with this function."""
        code = 1
        try:
            signal.set_wakeup_fd(-1)
            signal.signal(signal.SIGCHLD, signal.SIG_DFL)
            signal.signal(signal.SIGTERM, _end_session)
            signal.signal(signal.SIGINT, signal.SIG_IGN)  # the handlers of the server, which end its sessions
            self._listener.close()
            for other in self._refused:
                other.close()
            session(peer, self._settings, name)
            _close(peer)
            code = 0
        except SystemExit as end:
            code = end.code
        except BaseException as error:
            log(f"{name}: internal error of ctessel, {type(error).__name__}: {error}")
        finally:
            os._exit(code)

    def _end(self):
        """End all sessions, and wait for them."""
        self._listener.close()
        for number in (signal.SIGTERM, signal.SIGKILL):
            for child in self._children:
                os.kill(child, number)
            deadline = time.monotonic() + GRACE
            while self._children and time.monotonic() < deadline:
                self._reap()
                time.sleep(0.02)
        self._folder.cleanup()


def _end_session(*_):
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    raise SystemExit(143)


def _close(peer):
    """Close a connection after the peer, or after a while: unread data would be lost."""
    with contextlib.suppress(OSError):
        peer.shutdown(socket.SHUT_WR)
        peer.settimeout(GRACE)
        deadline = time.monotonic() + GRACE
        while peer.recv(1 << 16) and time.monotonic() < deadline:
            pass
    peer.close()


def serve(arguments):
    """``ctessel serve``"""
    runtime.keep_freed()
    settings = Settings(
        _given(arguments), dict(read_config(text, log) for text in arguments.config),
        arguments.save, arguments.threads, arguments.timeout,
    )  # fmt: skip
    settings.options(settings.words)  # raises errors that would affect every scan
    if arguments.stdio:
        return int(bool(session(0, settings, time.strftime("%Y%m%dT%H%M%S"), target=1).error))
    server = Server(arguments.host, arguments.port, settings, arguments.connections)
    log(f"listens on {server.address[0]}:{server.address[1]}")
    try:
        server.run()
    except (KeyboardInterrupt, SystemExit) as error:
        error.said = "the server has ended"
        raise
