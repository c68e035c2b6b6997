// Factors of a strip of columns, formed line by line and applied to all volumes while they are in the
// cache.
#pragma once

#include <complex>
#include <cstdint>

#include "factor_lines.h"

namespace ctessel {

/// Places of one folded volume and of its image, in floats, and samples of the output from there on.
struct VolumePlace {
  std::int64_t in, out, room;
};

/// An image of noise and its steps; null where it is not wanted.
struct NoiseImage {
  float* re = nullptr;
  std::int64_t x = 0, y = 0, z = 0;
};

/// What noise becomes in the image of one location.
struct NoiseImages {
  NoiseImage g, sd, condition, response;
  const std::complex<double>* psi = nullptr;  // null for the identity
};

/// Folded volumes of one location and what becomes of them.
struct SenseProblem {
  const FactorProblem& factors;
  Volume folded;
  std::int64_t folded_coils, nx;
  std::int64_t full_x, full_y;
  float *out_re, *out_im;
  std::int64_t out_x, out_y, out_z;  // steps
  UnfoldAxis y, z;
  RowGrid x;
  std::int64_t volumes;
  VolumePlace (*place)(const void* context, std::int64_t volume);
  const void* context;
  NoiseImages noise;
};

/// Unfolds all volumes: the bits of get_combination_factors and unfold.
void unfold_volumes(const SenseProblem& problem);

}  // namespace ctessel
