from collections.abc import Sequence
from typing import Any, TypeVar, overload

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import homodyne as homodyne
from .gradients import GradientField as GradientField
from .homodyne import HomodyneWarning as HomodyneWarning

__version__: str

_Sample = TypeVar("_Sample", np.complex64, np.float32)
_Samples = NDArray[np.complex64] | NDArray[np.float32]

def fftshift(
    data: NDArray[_Sample],
    axes: int | Sequence[int] | None = None,
    *,
    out: NDArray[_Sample] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[_Sample]: ...
def ifftshift(
    data: NDArray[_Sample],
    axes: int | Sequence[int] | None = None,
    *,
    out: NDArray[_Sample] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[_Sample]: ...
def zero_pad(
    data: NDArray[_Sample],
    shape: Sequence[int],
    *,
    out: NDArray[_Sample] | None = None,
    threads: int | None = None,
) -> NDArray[_Sample]: ...
def ringing_filter(
    data: NDArray[_Sample],
    strength: float | Sequence[float],
    width: Sequence[int] | None = None,
    *,
    out: NDArray[_Sample] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[_Sample]: ...
def sos(
    data: _Samples,
    axis: int = 3,
    *,
    out: NDArray[np.float32] | None = None,
    threads: int | None = None,
) -> NDArray[np.float32]: ...
def pcsos(
    data: _Samples,
    axis: int = 3,
    *,
    out: NDArray[np.complex64] | None = None,
    threads: int | None = None,
) -> NDArray[np.complex64]: ...
def sense_recon(
    folded: _Samples,
    sens: NDArray[np.complex64],
    *,
    psi: _Samples | None = None,
    full_size: Sequence[int] | None = None,
    ref: _Samples | None = None,
    reg: _Samples | None = None,
    scale: float = 1.0,
    out: NDArray[np.complex64] | None = None,
    threads: int | None = None,
) -> NDArray[np.complex64]: ...
def folded_pos(pos: int, full_len: int, fold_len: int) -> int: ...
def unfolded_positions(full_len: int, fold_len: int, fold_pos: int) -> NDArray[np.int32]: ...
def compartments(full_len: int, fold_len: int) -> tuple[float, float]: ...
def geometry_correction(
    x: NDArray[np.float32],
    y: NDArray[np.float32],
    z: NDArray[np.float32],
    coeff_x: ArrayLike,
    coeff_y: ArrayLike,
    coeff_z: ArrayLike,
    r0: float,
    *,
    threads: int | None = None,
) -> tuple[NDArray[np.float32], NDArray[np.float32], NDArray[np.float32]]: ...
def realign_corr_coeffs(
    coeff_x: ArrayLike, coeff_y: ArrayLike, coeff_z: ArrayLike
) -> tuple[NDArray[np.float32], NDArray[np.float32], NDArray[np.float32]]: ...
@overload
def plgndr(l: int, m: int, x: float) -> float: ...
@overload
def plgndr(l: int, m: int, x: ArrayLike) -> NDArray[np.float64]: ...
def create_plgndr_lookup(nl: int, nm: int, npts: int) -> NDArray[np.float32]: ...
def radius_theta_phi(
    x: ArrayLike, y: ArrayLike, z: ArrayLike
) -> tuple[NDArray[np.float32], NDArray[np.float32], NDArray[np.float32]]: ...
def radial_factor(r: ArrayLike, r0: ArrayLike, n: ArrayLike) -> Any: ...
def func_ys(
    n: ArrayLike, m: ArrayLike, r: ArrayLike, phi: ArrayLike, r0: ArrayLike, p: ArrayLike
) -> Any: ...
def func_yc(
    n: ArrayLike, m: ArrayLike, r: ArrayLike, phi: ArrayLike, r0: ArrayLike, p: ArrayLike
) -> Any: ...
def linspace(start: float, stop: float, n: int) -> NDArray[np.float32]: ...
def linear_interpolation(
    volume: NDArray[_Sample], x: ArrayLike, y: ArrayLike, z: ArrayLike = 0.0
) -> NDArray[_Sample]: ...
def pos2interpolate(pos: float, idx: int, A: Sequence[float], B: Sequence[float]) -> float: ...
@overload
def round(x: float) -> int: ...
@overload
def round(x: ArrayLike) -> NDArray[np.int32]: ...
def sub2ind(dims: Sequence[int], sub: Sequence[int]) -> int: ...
def find(array: NDArray[np.integer[Any]], value: int) -> int: ...
def sa(data: _Samples) -> float: ...
