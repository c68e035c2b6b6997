"""Reconstruction kernels for magnetic-resonance imaging, on NumPy arrays.

Arrays are indexed ``data[x, y, z, coil, ...]``, whatever their order in memory: C order, Fortran
order, slices and negative strides all give the same numbers. Samples are complex64 or float32, used
where they lie. What else NumPy makes numbers of (complex128, float64, integers, lists) is converted
to them once; ``out=`` and ``inplace=`` need the types themselves, and masked arrays are refused. On
a centred axis of N samples the zero frequency lies at index ``N // 2``.

Nothing changes its input unless ``inplace=True`` or ``out=`` says so. New arrays lie in memory in the
order of the data; the result of SENSE is in Fortran order (first axis fastest).

Beyond arguments, result and a conversion a call needs a few percent of its data. The exceptions are
shifts in place of arrays with gaps (one entry of an axis that is not shifted, or a copy where there
is none) and `homodyne.multiply` with a low-resolution image that has gaps (a copy of that).

``threads=`` bounds the threads of one call, by default the OpenMP runtime's number; little data get
one. Results are the same bits for every number. The interpreter's lock is released while kernels
run. Processes may be forked between calls. Threads wait for each other awake for some 50 microseconds,
unless OMP_WAIT_POLICY or GOMP_SPINCOUNT say otherwise.

Submodules for whole scans, which need SciPy: `raw` reads ISMRMRD files, `pipeline` has the steps from
k-space to image, `nifti` writes images, `phantom` makes test data, `dask` works on clusters. The
command ``ctessel`` puts them together.

Wrong arguments raise ``ValueError`` or ``TypeError`` with a message that names the argument, what
was expected and what was got.
"""

import importlib
import os
import sys
from typing import TYPE_CHECKING

if any(os.path.basename(word) == "ctessel" for word in sys.orig_argv):
    # The command multiplies small matrices alone; for the threads of BLAS 128 MiB would be set aside.
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

# A forked child would wait for threads that it does not have.
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
]  # without round: a star import is not to hide the built-in function
