"""Operations in chunks, on the threads, processes or machines of a Dask cluster.

These functions have the names of functions of `ctessel`. They take Dask or NumPy arrays and return Dask
arrays. Chunks are processed separately along the axes over which an operation is independent; the
other axes are merged into one chunk first. Results have the same bits as single calls. Regularised
SENSE uses the intensity of all data in its weight, and equals the single call up to rounding.

>>> import numpy as np, dask.array, ctessel.dask
>>> images = dask.array.ones((32, 32, 1, 8, 10), chunks=(32, 32, 1, 4, 2), dtype=np.complex64)
>>> magnitude = ctessel.dask.sos(images)
>>> magnitude.chunks[3], magnitude.compute().shape
((2, 2, 2, 2, 2), (32, 32, 1, 10))

Whole scans: `connect`, and ``pipeline.reconstruct(scan, options, client=client)``.
"""

import contextlib
import os
import tempfile
import uuid
import warnings
from dataclasses import dataclass

import dask
import dask.array as da
import numpy as np

import ctessel
from ctessel import files, runtime, steps


# ---- Operations on arrays ------------------------------------------------------------------------


def fftshift(data, axes=None, **keywords):
    """`ctessel.fftshift`, independent over all axes that are not shifted."""
    return _along(ctessel.fftshift, data, _axes(data, axes), axes=axes, **keywords)


def ifftshift(data, axes=None, **keywords):
    """`ctessel.ifftshift`, independent over all axes that are not shifted."""
    return _along(ctessel.ifftshift, data, _axes(data, axes), axes=axes, **keywords)


def zero_pad(data, shape, **keywords):
    """`ctessel.zero_pad`, independent over the axes behind those of `shape`."""
    return _along(
        ctessel.zero_pad,
        data,
        range(len(shape)),
        sizes=dict(enumerate(shape)),
        shape=tuple(shape),
        **keywords,
    )


def ringing_filter(data, strength, width=None, **keywords):
    """`ctessel.ringing_filter`, independent from the fourth axis on."""
    return _along(ctessel.ringing_filter, data, range(3), strength=strength, width=width, **keywords)


def sos(data, axis=3, **keywords):
    """`ctessel.sos`, independent over all axes but the coils'."""
    axis %= data.ndim
    return _along(ctessel.sos, data, (axis,), drop=axis, dtype=np.float32, axis=axis, **keywords)


def pcsos(data, axis=3, **keywords):
    """`ctessel.pcsos`, independent over all axes but the coils' and the tenth."""
    axis %= data.ndim
    return _along(ctessel.pcsos, data, (axis, 9), drop=axis, dtype=np.complex64, axis=axis, **keywords)


def homodyne_recon(kspace, ranges, **keywords):
    """`ctessel.pipeline.homodyne_recon`, independent from the fourth axis on."""
    sizes = dict(enumerate(keywords.get("field") or ()))
    return _along(
        steps.homodyne_recon,
        kspace,
        range(3),
        sizes=sizes,
        dtype=np.complex64,
        ranges=ranges,
        **keywords,
    )


def whiten(kspace, covariance):
    """`ctessel.pipeline.whiten`, independent from the fifth axis on."""
    return _along(steps.whiten, kspace, range(4), dtype=np.complex64, covariance=covariance)


def geometry_correction(x, y, z, coeff_x, coeff_y, coeff_z, r0, **keywords):
    """`ctessel.geometry_correction`, independent over all points; returns ``(3, ...)``."""
    points = [_chunked(a, ()) for a in (x, y, z)]
    labels, parts = tuple(range(points[0].ndim)), points[0].ndim
    pairs = [part for a in points for part in (a, labels)]
    return da.blockwise(
        _stacked_correction,
        (parts, *labels),
        *pairs,
        new_axes={parts: 3},
        tables=(coeff_x, coeff_y, coeff_z, r0),
        keywords=keywords,
        dtype=np.float32,
        meta=np.empty((0,) * (parts + 1), np.float32),
    )


def _stacked_correction(x, y, z, tables, keywords):
    return np.stack(ctessel.geometry_correction(x, y, z, *tables, **keywords))


def sense_recon(folded, sens, *, psi=None, full_size=None, ref=None, reg=None, scale=1.0, threads=None):
    """`ctessel.sense_recon`, independent from the fifth axis on; locations keep their own maps.

    The weight of regularised SENSE is that of the whole data: each chunk gets a `scale` that corrects
    for its own intensity.
    """
    folded = _chunked(folded, range(4))
    if not isinstance(sens, da.Array):
        sens = da.from_array(sens, chunks=-1)
    full = tuple(full_size or (folded.shape[0], *sens.shape[1:3]))
    labels = tuple(range(folded.ndim))
    arguments = [folded, labels, _by_location(sens, 4, folded), (20, 21, 22, 3, 7)[: sens.ndim]]
    if ref is not None and reg is not None:
        reg = reg if isinstance(reg, da.Array) else da.from_array(reg, chunks=-1)
        intensities = da.stack([_intensity(folded), _intensity(da.asarray(ref))])
        arguments += [_by_location(reg, 3, folded), (20, 21, 22, 7)[: reg.ndim], intensities, (23,)]
    return da.blockwise(
        _sense_block, labels[:3] + labels[4:], *arguments, psi=psi, full=full, scale=scale,
        threads=threads, concatenate=True, adjust_chunks=dict(zip(range(3), full)),
        dtype=np.complex64, meta=np.empty((0,) * (folded.ndim - 1), np.complex64),
    )  # fmt: skip


def _by_location(array, axis, folded):
    """One chunk, except along the location, which is cut like the data."""
    if array.ndim <= axis:
        return array.rechunk(-1)
    chunks = folded.chunks[7] if folded.ndim > 7 else -1
    return array.rechunk({a: chunks if a == axis else -1 for a in range(array.ndim)})


def _intensity(array):
    """Root mean square of all samples."""
    return da.sqrt((da.absolute(array).astype(np.float64) ** 2).mean())


def _sense_block(folded, sens, reg=None, intensities=None, *, psi, full, scale, threads):
    weight = {}
    intensity = 0 if reg is None else ctessel.sa(folded)
    if intensity > 0:
        reference = np.full((1, 1, 1), intensities[1], np.float32)
        weight = {"reg": reg, "ref": reference, "scale": scale * intensity / intensities[0]}
    return ctessel.sense_recon(folded, sens, psi=psi, full_size=full, threads=threads, **weight)


def _axes(data, axes):
    axes = range(min(3, data.ndim)) if axes is None else np.atleast_1d(axes)
    return [int(axis) % data.ndim for axis in axes]


def _chunked(data, whole):
    """A Dask array whose axes `whole` are in one piece."""
    chunks = {axis: -1 if axis in whole else "auto" for axis in range(data.ndim)}
    if not isinstance(data, da.Array):
        return da.from_array(data, chunks=chunks)
    return data.rechunk({axis: -1 for axis in whole if axis < data.ndim})


def _along(function, data, whole, *, drop=None, sizes=None, dtype=None, **keywords):
    data = _chunked(data, tuple(whole))
    labels = tuple(range(data.ndim))
    out = tuple(label for label in labels if label != drop)
    kind = dtype or data.dtype
    return da.blockwise(
        _call,
        out,
        data,
        labels,
        function=function,
        arguments=keywords,
        concatenate=True,
        adjust_chunks=sizes or None,
        dtype=kind,
        meta=np.empty((0,) * len(out), kind),
    )


def _call(data, function, arguments):
    return function(data, **arguments)


# ---- Clusters ------------------------------------------------------------------------------------


@contextlib.contextmanager
def connect(workers=None, scheduler=None, memory=None, shared=None, patience=10):
    """Client of a running scheduler, or of worker processes started here.

    Parameters
    ----------
    workers : int, optional
        Processes to start on this machine. They share its cores; each works on one block at a time.
    scheduler : str, optional
        Address of a running scheduler, such as ``tcp://node1:8786``, whose workers have ctessel
        installed.
    memory : int or str, optional
        Memory limit of each process that is started here, such as "2GiB". A process close to it is
        paused; one above it is restarted. By default there is no limit.
    shared : str or Path, optional
        Folder for sending blocks to the workers, several times as fast as messages. All workers must
        see it. By default, processes started here use shared memory, and others messages.
    patience : float, optional
        Seconds to wait for a scheduler, and for its first worker.

    Yields
    ------
    distributed.Client, or None without workers and scheduler
    """
    if scheduler is None and not workers:
        yield None
        return
    from distributed import Client, LocalCluster

    with contextlib.ExitStack() as stack:
        address = scheduler
        if scheduler is None:
            stack.enter_context(dask.config.set({SPAWNED: _environment(workers)}))
            address = stack.enter_context(
                LocalCluster(
                    n_workers=workers,
                    threads_per_worker=1,
                    processes=True,
                    dashboard_address=":0",
                    memory_limit=memory or 0,
                    local_directory=stack.enter_context(_folder(tempfile.gettempdir())),
                )
            )
            shared = shared or ("/dev/shm" if os.access("/dev/shm", os.W_OK) else tempfile.gettempdir())
        try:
            client = stack.enter_context(Client(address, timeout=patience))
        except (OSError, TimeoutError):
            raise ConnectionError(
                f"no Dask scheduler answers at {scheduler}; start one with "
                "'python3 -m distributed.cli.dask_scheduler', or use --workers"
            ) from None
        try:
            client.wait_for_workers(1, timeout=patience)
        except TimeoutError:
            raise ConnectionError(
                f"the Dask scheduler at {scheduler} has no workers; start one with "
                f"'python3 -m distributed.cli.dask_worker {scheduler}', or use --workers"
            ) from None
        if shared:
            client.ctessel_folder = stack.enter_context(_folder(shared))
        yield client


SPAWNED = "distributed.nanny.pre-spawn-environ"


def _environment(workers):
    """Variables of the processes: their share of the cores, and memory that they keep."""
    threads = max(1, len(os.sched_getaffinity(0)) // workers)
    return {**dask.config.get(SPAWNED, {}), **runtime.KEPT, "OMP_NUM_THREADS": threads}


@contextlib.contextmanager
def _folder(parent):
    if not os.path.isdir(parent):
        raise ValueError(f"shared: {parent} is not a folder; name one that all workers see")
    with files.folder(parent) as made:
        yield str(made)


def run_tasks(client, function, tasks, ahead=2):
    """Run a function on the workers, and yield results as they arrive.

    Only a few blocks per worker are sent in advance, which limits the memory here and there. A block is
    kept until its result has arrived. If its worker ends, another one gets the block.

    Parameters
    ----------
    client : distributed.Client
        Of `connect`, or any.
    function : callable
    tasks : iterable of (place, arguments)
        Read as blocks are sent.
    ahead : int, optional
        Blocks sent per thread of the workers.

    Yields
    ------
    place, result
        In the order of completion.
    """
    from distributed import as_completed

    folder = getattr(client, "ctessel_folder", None)
    running, finished, spare = {}, as_completed(), []
    try:
        for place, arguments in tasks:
            stored = [_store(folder, spare, argument) for argument in arguments]
            future = _submit(client, function, stored)
            running[future] = place, stored
            finished.add(future)
            while len(running) >= ahead * max(1, sum(client.nthreads().values())):
                yield _next(finished, running, spare)
        while running:
            yield _next(finished, running, spare)
    finally:
        client.cancel(list(running))
        kept = [argument for _, stored in running.values() for argument in stored]
        for path in spare + [argument.path for argument in kept if isinstance(argument, _Stored)]:
            os.unlink(path)


@dataclass
class _Stored:
    """An array in a file of the folder that the workers see."""

    path: str
    shape: tuple
    dtype: str

    def load(self):
        return np.memmap(self.path, self.dtype, "r", shape=self.shape, order="F").view(np.ndarray)


def _store(folder, spare, argument):
    if folder is None or not isinstance(argument, np.ndarray) or argument.nbytes < 1 << 16:
        return argument
    # Files are used again: writing to existing memory costs a fraction of new memory.
    path = spare.pop() if spare else os.path.join(folder, uuid.uuid4().hex)
    with open(path, "r+b" if os.path.exists(path) else "wb") as file:
        np.asfortranarray(argument).T.tofile(file)
    return _Stored(path, argument.shape, argument.dtype.str)


def _submit(client, function, arguments):
    with warnings.catch_warnings():
        # Blocks scattered to a worker would be lost with it; blocks in a task are not.
        warnings.filterwarnings("ignore", "Large object")
        return client.submit(_run, function, arguments, pure=False)


def _run(function, arguments):
    return function(*(a.load() if isinstance(a, _Stored) else a for a in arguments))


def _next(finished, running, spare):
    from distributed import KilledWorker

    future = next(finished)
    place, stored = running.pop(future)
    try:
        return place, future.result()
    except KilledWorker:
        raise MemoryError(
            "a block has ended several workers, perhaps for lack of memory; give them more, "
            "or start fewer on each machine"
        ) from None
    finally:
        spare += [argument.path for argument in stored if isinstance(argument, _Stored)]
