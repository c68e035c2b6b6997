"""Reconstruction kernels for magnetic-resonance imaging, on NumPy arrays.

Arrays are indexed ``data[x, y, z, coil, ...]``, whatever their order in memory: C order, Fortran
order, slices and negative strides all give the same numbers. Samples are complex64 (or float32,
which counts as complex with imaginary parts of zero); other types raise ``TypeError`` instead of
being converted behind the caller's back. On a centred axis of N samples the zero frequency lies at
index ``N // 2``.

Nothing changes its input unless ``inplace=True`` or ``out=`` says so. Shifts, padding, coil
combination, `ringing_filter` and `homodyne` take data without gaps in the order in which they lie,
and results have the same order. The kernels of SENSE read Fortran order (first axis fastest);
data in another order are rearranged on the way, and the result is in Fortran order.

Beyond arguments and result a call needs less than one copy of its data: at most half a copy for
`ringing_filter` and `homodyne.filter` (weights of one volume) and for shifts in place, half of its
inputs for SENSE (see there), a few percent for the rest. The exception is `homodyne.multiply` with
resampling in place on data in C order, a copy of the volumes that are worked on.

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

import os
import sys

if "ctessel" in map(os.path.basename, sys.orig_argv):
    # The command multiplies small matrices alone; for the threads of BLAS 128 MiB would be set aside.
    os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

from . import runtime

with runtime.short_waits():
    from . import _core
from . import homodyne
from ._arrays import fftshift, ifftshift, ringing_filter, zero_pad
from ._coils import pcsos, sos
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
from ._sense import compartments, folded_pos, sense_recon, unfolded_positions
from .gradients import GradientField
from .homodyne import HomodyneWarning

__version__ = _core.__version__

# A forked child would wait for threads that it does not have.
os.register_at_fork(before=_core.release_threads)

__all__ = [
    "GradientField",
    "HomodyneWarning",
    "compartments",
    "create_plgndr_lookup",
    "fftshift",
    "find",
    "folded_pos",
    "func_yc",
    "func_ys",
    "geometry_correction",
    "homodyne",
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
    "sense_recon",
    "sos",
    "sub2ind",
    "unfolded_positions",
    "zero_pad",
]  # without round: a star import is not to hide the built-in function
