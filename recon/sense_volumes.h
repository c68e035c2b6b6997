// Factors of a strip of columns, formed or read line by line and applied to all volumes while they are
// in the cache.
#pragma once

#include <complex>
#include <cstdint>
#include <functional>

#include "factor_lines.h"

namespace ctessel {

/// Places of one folded volume and of its image, in floats, and samples of the output from there on.
struct VolumePlace {
  std::int64_t in, out, room;
};

/// What noise becomes in the image of one location; null where it is not wanted.
struct NoiseImages {
  BasicVolume<float> g, sd, condition, response;
  const std::complex<double>* psi = nullptr;  // null for the identity
};

/// Folded volumes of one location and what becomes of them.
struct SenseProblem {
  const FactorProblem& factors;
  Volume folded;
  BasicVolume<float> out;
  std::int64_t volumes = 1;
  std::function<VolumePlace(std::int64_t volume)> place;
  NoiseImages noise = {};
  std::int64_t folded_coils = 0, nx = 0, full_x = 0, full_y = 0, full_z = 0;
  UnfoldAxis y = {}, z = {};
  RowGrid x = {};

  /// Sets extents, lines and columns.
  void lay_out(const Eigen::VectorXi& fold, const Eigen::VectorXi& full, const float* edges_y,
               const float* edges_z);
};

/// Unfolds all volumes, with the bits of get_combination_factors and unfold; false if a position fell
/// outside of its volume.
bool unfold_volumes(const SenseProblem& problem);

}  // namespace ctessel
