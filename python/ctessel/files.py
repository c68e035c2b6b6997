"""Output files that appear under their names all together, once they are complete.

They are written in a hidden folder beside their final places. A lock in it tells that its run lives: the
next run that writes there removes what a killed one has left. Two runs that write the same names take
turns at the end, so that an image never lies beside the sidecar of another run.
"""

import contextlib
import fcntl
import os
import shutil
import tempfile
import time
from pathlib import Path

from . import runtime

__all__ = ["Staged", "check_folder", "check_output", "folder", "folders"]

PREFIX = ".ctessel-"
LOCK = f"{PREFIX}lock"
#: Seconds after which a folder without a lock is a left one: its run had no time to lock it.
LOCKED_BY_THEN = 600


class Staged(contextlib.AbstractContextManager):
    """Files of one run.

    >>> folder = Path(tempfile.mkdtemp())
    >>> with Staged() as files:
    ...     _ = files.path(folder / "a.txt").write_text("whole")
    ...     print((folder / "a.txt").exists())
    ...     files.commit()
    False
    >>> [p.name for p in folder.iterdir()]
    ['a.txt']
    """

    def __init__(self):
        self._names, self._folders, self._committed = {}, {}, False

    def path(self, final):
        """Where to write what is to become `final`, under the same name; ValueError where none can be."""
        final = Path(final).absolute()
        check_output(final)
        if final.parent not in self._folders:
            _clear(final.parent)
            with runtime.uninterrupted():
                self._folders[final.parent] = _Folder(final.parent)
        self._names[final] = self._folders[final.parent].path / final.name
        return self._names[final]

    def commit(self):
        """Give all files their names. A run that is cancelled meanwhile ends afterwards."""
        with contextlib.ExitStack() as stack:
            for folder in self._folders:
                stack.enter_context(_turn(folder))
            stack.enter_context(runtime.uninterrupted())
            # A process that is killed in between leaves an image alone, not one with another's sidecar.
            for final in list(self._names)[1:]:
                final.unlink(missing_ok=True)
            for final, written in self._names.items():
                os.replace(written, final)
            self._names.clear()
            self._committed = True

    def __exit__(self, _, error, __):
        if isinstance(error, OSError) and not error.filename and self._names:
            error.filename = str(next(reversed(self._names)).parent)  # of a full disk, say
        if isinstance(error, (KeyboardInterrupt, SystemExit)):
            error.written = self._committed
        with runtime.uninterrupted():
            while self._folders:
                self._folders.popitem()[1].remove()


@contextlib.contextmanager
def folder(parent):
    """Path of an empty folder in `parent`; a later run that asks for one there removes it if this is killed."""
    _clear(Path(parent))
    with runtime.uninterrupted():
        made = _Folder(parent)
    try:
        empty = made.path / "files"
        empty.mkdir()
        yield empty
    finally:
        with runtime.uninterrupted():
            made.remove()


class _Folder:
    """A hidden folder that is locked while it is used."""

    def __init__(self, parent):
        self.path = Path(tempfile.mkdtemp(prefix=PREFIX, dir=parent))
        self._lock = os.open(self.path / LOCK, os.O_CREAT | os.O_RDWR, 0o600)
        _try_lock(self._lock)

    def remove(self):
        shutil.rmtree(self.path, ignore_errors=True)
        os.close(self._lock)


def _try_lock(descriptor):
    """Whether the lock was free; file systems without locks have none that is."""
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        return False
    return True


def _clear(parent):
    """Remove folders of runs that were killed."""
    for folder in parent.glob(f"{PREFIX}*"):
        with contextlib.suppress(OSError), contextlib.ExitStack() as stack:
            try:
                lock = os.open(folder / LOCK, os.O_RDWR | os.O_NONBLOCK | os.O_NOFOLLOW)
            except FileNotFoundError:
                left = time.time() - folder.stat().st_mtime > LOCKED_BY_THEN
            else:
                stack.callback(os.close, lock)
                left = _try_lock(lock)
            if left:
                shutil.rmtree(folder, ignore_errors=True)


@contextlib.contextmanager
def _turn(folder):
    """Wait for other runs that give files their names there."""
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        with contextlib.suppress(OSError):  # some network file systems lock no folders
            fcntl.flock(descriptor, fcntl.LOCK_EX)
        yield
    finally:
        os.close(descriptor)


def check_output(path):
    """ValueError unless a file of this name can be made."""
    path = Path(path).absolute()
    if path.is_dir():
        raise ValueError(f"{path}: is a folder; name a file")
    if not path.parent.is_dir() or not os.access(path.parent, os.W_OK | os.X_OK):
        raise ValueError(f"{path.parent}: cannot be written to; name a folder that can")


@contextlib.contextmanager
def folders(paths):
    """Make folders where there are none; where that is left by an exception, they go again if empty."""
    made = []
    try:
        for path in map(Path, paths):
            lacking = [p for p in (path, *path.parents) if not p.exists()]
            for folder in reversed(lacking):
                folder.mkdir(exist_ok=True)
                made.append(folder)
        yield
    except BaseException:
        for folder in reversed(made):
            with contextlib.suppress(OSError):
                folder.rmdir()
        raise


def check_folder(path):
    """ValueError unless `path` is a folder that can be written to, or one can be made."""
    path = Path(path).absolute()
    there = next(p for p in (path, *path.parents) if p.exists())
    if not there.is_dir() or not os.access(there, os.W_OK | os.X_OK):
        raise ValueError(f"{there}: cannot be written to; name a folder that can")
