"""Reconstruction kernels for magnetic-resonance imaging, on NumPy arrays.

Arrays are indexed ``data[x, y, z, coil, ...]``. Their order in memory does not matter: C order,
Fortran order, slices and negative strides give the same numbers. Arrays of complex64 and float32 are
used without a copy. Other numbers (complex128, float64, integers, lists) are converted once. ``out=``
and ``inplace=`` need complex64 or float32. Masked arrays are refused. On a centred axis of N samples
the zero frequency is at index ``N // 2``.

Functions do not change their input unless ``inplace=True`` or ``out=`` is given. New arrays have the
memory order of the data. The result of SENSE has Fortran order (first axis fastest).

In addition to arguments, result and conversions, a call needs memory for a few percent of its data.
There are two exceptions. A shift in place of an array with gaps needs one entry of an axis that is not
shifted, or a copy if all axes are shifted. `homodyne.multiply` copies a low-resolution image with gaps.

``threads=`` limits the threads of a call. The default is the number of the OpenMP runtime. Small data
use one thread. Results have the same bits for every number of threads. The interpreter's lock is
released while kernels run. Processes may fork between calls. Waiting threads spin for about 50
microseconds and then sleep, unless OMP_WAIT_POLICY or GOMP_SPINCOUNT is set.

These submodules handle whole scans and need SciPy: `raw` reads ISMRMRD files, `pipeline` has the steps
from k-space to image, `nifti` writes images, `phantom` makes test data, and `dask` works on clusters.
The command ``ctessel`` combines them.

Wrong arguments raise ``ValueError`` or ``TypeError``. The message names the argument, what was
expected, and what it got.
"""

import importlib
import os
import sys
from typing import TYPE_CHECKING

if any(os.path.basename(word) == "ctessel" for word in sys.orig_argv):
    # The command multiplies only small matrices; the threads of BLAS would reserve 128 MiB.
    os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

from . import runtime

with runtime.short_waits():
    from . import _core
from . import homodyne
from ._arrays import fftshift, ifftshift, ringing_filter, zero_pad
from ._coils import pcsos, sos
from ._core import __version__, release_threads
from ._espirit import espirit
from ._geometry import (
    create_plgndr_lookup,
    func_yc,
    func_ys,
    geometry_correction,
    plgndr,
    radial_factor,
    radius_theta_phi,
    realign_corr_coeffs,
)
from ._helpers import find, linear_interpolation, linspace, pos2interpolate, round, sa, sub2ind
from ._sense import compartments, folded_pos, sense_noise, sense_recon, unfolded_positions
from .gradients import GradientField
from .homodyne import HomodyneWarning

if TYPE_CHECKING:
    from .fourier import to_image, to_kspace
    from .steps import homodyne_recon
else:
    _NEED_SCIPY = {"homodyne_recon": "steps", "to_image": "fourier", "to_kspace": "fourier"}

    def __getattr__(name):
        if name not in _NEED_SCIPY:
            raise AttributeError(f"module 'ctessel' has no attribute {name!r}")
        return getattr(importlib.import_module("." + _NEED_SCIPY[name], __name__), name)


# A forked child has no threads, and would wait for them.
os.register_at_fork(before=release_threads)

__all__ = [
    "GradientField",
    "HomodyneWarning",
    "compartments",
    "create_plgndr_lookup",
    "espirit",
    "fftshift",
    "find",
    "folded_pos",
    "func_yc",
    "func_ys",
    "geometry_correction",
    "homodyne",
    "homodyne_recon",
    "ifftshift",
    "linear_interpolation",
    "linspace",
    "pcsos",
    "plgndr",
    "pos2interpolate",
    "radial_factor",
    "radius_theta_phi",
    "realign_corr_coeffs",
    "ringing_filter",
    "sa",
    "sense_noise",
    "sense_recon",
    "sos",
    "sub2ind",
    "to_image",
    "to_kspace",
    "unfolded_positions",
    "zero_pad",
]  # without round: a star import must not hide the built-in function
