"""Processes on this machine that share a reconstruction.

They get the names of files, read them, and send images back. If one ends, it is replaced, and its blocks are
processed again. None outlives the process that started it.
"""

import contextlib
import ctypes
import multiprocessing
import os
import signal
from collections import deque
from concurrent.futures import FIRST_COMPLETED, ProcessPoolExecutor, wait
from concurrent.futures.process import BrokenProcessPool
from itertools import islice

from . import runtime

#: Times that the processes may end without a result in between.
PATIENCE = 4
_DEATH_OF_PARENT = 1  # of prctl: the signal that comes with it


class Workers(contextlib.AbstractContextManager):
    """A number of processes.

    Parameters
    ----------
    count : int
        They share the cores that this process may use.
    """

    here = True  # they see the shared memory of this process

    def __init__(self, count):
        self.count, self._stack = count, contextlib.ExitStack()

    def __enter__(self):
        threads = max(1, len(os.sched_getaffinity(0)) // self.count)
        variables = {**runtime.KEPT, "OMP_NUM_THREADS": threads}
        self._stack.enter_context(_environment(variables))
        self._start()
        return self

    def __exit__(self, kind, *_):
        if kind is None:
            self._pool.shutdown()
        else:
            self._kill()
        self._stack.close()

    def _start(self):
        context = multiprocessing.get_context("spawn")
        self._others = multiprocessing.active_children()
        self._pool = ProcessPoolExecutor(self.count, context, _begin, (os.getpid(),))

    def _kill(self):
        for process in multiprocessing.active_children():
            if process not in self._others:
                process.kill()
        self._pool.shutdown(cancel_futures=True)

    def run_tasks(self, function, tasks):
        """Results of a function as they arrive: place and result.

        Parameters
        ----------
        function : callable
        tasks : iterable of (place, arguments)
        """
        tasks, running, lost, deaths = iter(tasks), {}, deque(), 0
        while True:
            try:
                lost.extend(islice(tasks, max(0, 2 * self.count - len(running) - len(lost))))
                while lost:
                    running[self._submit(function, lost[0][1])] = lost[0]
                    lost.popleft()
                if not running:
                    return
                for future in wait(running, return_when=FIRST_COMPLETED).done:
                    result = future.result()
                    yield running.pop(future)[0], result
                    deaths = 0
            except BrokenProcessPool:
                deaths += 1
                lost.extend(running.values())
                running.clear()
                self._replace(deaths)

    def _submit(self, function, arguments):
        with runtime.uninterrupted():  # a process that is ended while it starts would print an error
            # It inherits the blocked signals: only this process reacts to Ctrl-C.
            blocked = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})
            try:
                return self._pool.submit(function, *arguments)
            finally:
                signal.pthread_sigmask(signal.SIG_SETMASK, blocked)

    def _replace(self, deaths):
        self._kill()
        if deaths == PATIENCE:
            raise MemoryError("workers ended again and again, perhaps for lack of memory; start fewer")
        self._start()


def _begin(parent):
    """A worker dies with the process that started it, even if that process is killed."""
    with contextlib.suppress(AttributeError):  # other systems have no such choice
        ctypes.CDLL(None).prctl(_DEATH_OF_PARENT, signal.SIGKILL)
    if os.getppid() != parent:
        os.kill(os.getpid(), signal.SIGKILL)


@contextlib.contextmanager
def _environment(variables):
    """Environment variables for processes that are started in this context."""
    before = {name: os.environ.get(name) for name in variables}
    os.environ.update({name: str(value) for name, value in variables.items()})
    try:
        yield
    finally:
        for name, value in before.items():
            if value is None:
                del os.environ[name]
            else:
                os.environ[name] = value
