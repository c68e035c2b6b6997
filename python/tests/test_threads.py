"""Any number of threads, inside one call and calling at once."""

import ctypes
import multiprocessing
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
from conftest import random_complex, same_bits
from kernels import CALLS, DATA

import ctessel

POINTS, TABLE = DATA.real[..., 0] * np.float32(0.05), np.full((14, 12), 1e-9)
GEOMETRY = {**dict.fromkeys("xyz", POINTS), "coeff_x": TABLE, "coeff_y": TABLE, "coeff_z": np.ones(17), "r0": 0.2}
KERNELS = {**CALLS, "geometry": (ctessel.geometry_correction, GEOMETRY)}


@pytest.mark.parametrize("kernel, arguments", KERNELS.values(), ids=KERNELS)
def test_same_bits_from_any_number_of_threads_and_callers(kernel, arguments):
    def call(threads):
        result = kernel(**arguments, threads=threads)
        return result[0] if isinstance(result, tuple) else result

    want = call(threads=1)
    for threads in (2, 3, 7, None):
        same_bits(call(threads=threads), want)
    with ThreadPoolExecutor(8) as pool:
        for got in pool.map(lambda k: call(threads=1 + k % 3), range(24)):
            same_bits(got, want)


def test_threads_of_one_call_do_not_outlast_it():
    omp = ctypes.CDLL("libgomp.so.1")
    omp.omp_set_num_threads(3)
    ctessel.sos(DATA, threads=2)
    with pytest.raises(ValueError):
        ctessel.sos(DATA, axis=9, threads=2)
    assert omp.omp_get_max_threads() == 3
    omp.omp_set_num_threads(2)


def test_other_python_threads_run_meanwhile():
    big = random_complex((192, 192, 16, 8))
    done, counted = threading.Event(), []

    def count():
        n = 0
        while not done.is_set():
            n += 1
            time.sleep(0.001)
        counted.append(n)

    other = threading.Thread(target=count)
    other.start()
    start = time.perf_counter()
    for _ in range(3):
        ctessel.pcsos(big, threads=1)
    took = time.perf_counter() - start
    done.set()
    other.join()
    assert counted[0] > 10 * took  # held by one call, it would get a few turns in all


def test_no_reference_is_counted_without_the_interpreters_lock():
    data = np.zeros((256, 256, 8, 8), np.complex64)
    caller = threading.Thread(target=lambda: ctessel.fftshift(data, inplace=True, threads=1))
    interval = sys.getswitchinterval()
    sys.setswitchinterval(60)  # this thread keeps the lock once it has it, until it waits
    try:
        caller.start()
        before = sys.getrefcount(data)
        ctypes.PyDLL(None).usleep(300_000)  # with the lock; the kernel ends meanwhile
        after = sys.getrefcount(data)
    finally:
        sys.setswitchinterval(interval)
    caller.join()
    assert after == before


def call_in_child(queue):
    queue.put(float(ctessel.sos(DATA, threads=2).sum()))


def test_a_forked_child_can_call():
    want = float(ctessel.sos(DATA, threads=2).sum())
    context = multiprocessing.get_context("fork")
    queue = context.Queue()
    child = context.Process(target=call_in_child, args=(queue,), daemon=True)
    child.start()
    assert queue.get(timeout=60) == want
    child.join()


@pytest.mark.parametrize("chosen", ({}, {"OMP_WAIT_POLICY": "active"}))
def test_waiting_threads_sleep_soon_unless_asked_otherwise(chosen):
    ask = [sys.executable, "-c", "import ctessel, os; print('GOMP_SPINCOUNT' in os.environ)"]
    told = subprocess.run(ask, env={"OMP_DISPLAY_ENV": "verbose", **chosen}, capture_output=True, text=True)
    assert ("GOMP_SPINCOUNT = '1000'" in told.stderr) is not bool(chosen), told.stderr
    assert told.stdout == "False\n"  # children and other libraries have their own choice
