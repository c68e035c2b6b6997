"""From k-space to image: single steps, and the whole reconstruction.

Every step takes arrays and returns arrays, so a notebook can use each by itself. `plan` decides what
is done with a scan before samples are read, and describes it in words. `reconstruct` carries out the
plan slice by slice, a few repetitions at a time, in this process or on a Dask cluster, with the same
bits.

Arrays are indexed ``[x, y, z, coil, slice, echo, repetition]``. k = 0 and the centre of the field of
view are at ``N // 2``. Transforms are unitary.

>>> import numpy as np
>>> from ctessel import pipeline
>>> kspace = pipeline.to_kspace(np.ones((64, 48, 1, 4), np.complex64))
>>> kspace[:, :18] = 0                                         # lines -24 to -7 were not measured
>>> image = pipeline.homodyne_recon(kspace, (None, (-6, 23), None))
>>> pipeline.combine(image, "sos").shape
(64, 48, 1)
"""

from . import ringing_filter
from .fourier import flip, remove_oversampling, resize, to_image, to_kspace
from .gradients import Coefficients, read_coefficients
from .partial import pocs, prediction_error
from .parts import merge, select
from .plan import Options, Plan, plan
from .reconstruct import Result, reconstruct
from .sampling import Lattice, alias_offsets, calibration_block, fold_lines, partial_ranges, undersampling
from .steps import (
    calibration_residual,
    combine,
    eigen_maps,
    folded_image,
    homodyne_recon,
    noise_covariance,
    sensitivity_maps,
    unfold,
    whiten,
)
from .warp import geometry, voxel_positions

__all__ = [
    "Coefficients", "Lattice", "Options", "Plan", "Result", "alias_offsets", "calibration_block",
    "calibration_residual", "combine",
    "eigen_maps", "flip", "fold_lines", "folded_image", "geometry", "homodyne_recon", "merge", "noise_covariance",
    "partial_ranges", "plan", "pocs", "prediction_error", "read_coefficients", "reconstruct",
    "remove_oversampling", "resize", "ringing_filter", "select", "sensitivity_maps", "to_image",
    "to_kspace", "undersampling", "unfold", "voxel_positions", "whiten",
]  # fmt: skip
