"""Output files that appear together, once all of them are complete.

They are written to a hidden folder beside their destination. A lock in it shows that its run is alive; the
next run that writes there removes the folder of a killed run. Two runs that write the same names wait for
each other at the end, so that an image and the sidecar of another run never mix.
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
#: Seconds after which a folder without a lock is abandoned; a new run needs time to lock its folder.
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
        """Where to write the file that becomes `final`, under the same name; ValueError if that is not possible."""
        final = Path(final).absolute()
        check_output(final)
        if final.parent not in self._folders:
            _clear(final.parent)
            with runtime.uninterrupted():
                self._folders[final.parent] = _Folder(final.parent)
        self._names[final] = self._folders[final.parent].path / final.name
        return self._names[final]

    def commit(self):
        """Give all files their names. If the run is cancelled meanwhile, it ends afterwards."""
        with contextlib.ExitStack() as stack:
            for folder in self._folders:
                stack.enter_context(_exclusive(folder))
            stack.enter_context(runtime.uninterrupted())
            # If the process is killed in between, the image has no sidecar, and never a wrong one.
            for final in list(self._names)[1:]:
                final.unlink(missing_ok=True)
            for final, written in self._names.items():
                os.replace(written, final)
            self._names.clear()
            self._committed = True

    def __exit__(self, _, error, __):
        if isinstance(error, OSError) and not error.filename and self._names:
            error.filename = str(next(reversed(self._names)).parent)  # for example of a full disk
        if isinstance(error, (KeyboardInterrupt, SystemExit)):
            error.written = self._committed
        with runtime.uninterrupted():
            while self._folders:
                self._folders.popitem()[1].remove()


@contextlib.contextmanager
def folder(parent):
    """Path of an empty folder in `parent`; if this process is killed, a later run removes it."""
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
    """Whether the lock was free; False on file systems without locks."""
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
def _exclusive(folder):
    """Wait until no other run gives files their names there."""
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        with contextlib.suppress(OSError):  # some network file systems cannot lock folders
            fcntl.flock(descriptor, fcntl.LOCK_EX)
        yield
    finally:
        os.close(descriptor)


def check_output(path):
    """ValueError unless a file of this name can be written."""
    path = Path(path).absolute()
    if path.is_dir():
        raise ValueError(f"{path}: is a folder; name a file")
    if not path.parent.exists():
        raise ValueError(f"{path.parent}: no such folder; make it first, or name another")
    if not path.parent.is_dir() or not os.access(path.parent, os.W_OK | os.X_OK):
        raise ValueError(f"{path.parent}: cannot be written to; name a writable folder")


@contextlib.contextmanager
def folders(paths):
    """Make missing folders; after an exception, remove those that are empty."""
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
    """ValueError unless `path` is a writable folder or can be made."""
    path = Path(path).absolute()
    there = next(p for p in (path, *path.parents) if p.exists())
    if not there.is_dir() or not os.access(there, os.W_OK | os.X_OK):
        raise ValueError(f"{there}: cannot be written to; name a writable folder")
