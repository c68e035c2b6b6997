from collections.abc import Sequence
from typing import NamedTuple, TypeVar

import numpy as np
from numpy.typing import NDArray

_Sample = TypeVar("_Sample", np.complex64, np.float32)
_Samples = NDArray[np.complex64] | NDArray[np.float32]

class HomodyneWarning(RuntimeWarning): ...

class Filtered(NamedTuple):
    weighted: _Samples
    centre: NDArray[np.complex64]

def filter(
    data: _Samples,
    *,
    kx: Sequence[float] | None = None,
    ky: Sequence[float] | None = None,
    kz: Sequence[float] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> Filtered: ...
def multiply(
    data: NDArray[_Sample],
    low: _Samples,
    *,
    out: NDArray[_Sample] | None = None,
    inplace: bool = False,
    threads: int | None = None,
) -> NDArray[_Sample]: ...
def calculate_filter(
    n: int, range: Sequence[float]
) -> tuple[NDArray[np.float32], tuple[int, int]] | None: ...
