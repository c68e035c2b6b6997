// Products of samples with weights that depend on x, y and z alone.
#pragma once

#include <functional>

#include "samples.h"

namespace ctessel {

/// Entries of x, y and z whose weights are wanted: `rows` rows of all n entries of axis `run`, for the
/// entries first[next] .. first[next] + rows - 1 of axis `next`, at entry first[...] of the third axis.
struct WeightRows {
  int run, next;
  std::ptrdiff_t first[3], rows, n;
};

struct Weighting {
  /// Writes the weights row by row.
  std::function<void(const WeightRows&, float* out)> fill;
  /// Samples of exactly 0 stay as they are even where the weight is not a number.
  bool keeps_zeros = false;
};

/// How threads share the work: over the merged axes from the fourth on alone, or also over planes.
enum class Share { volumes, planes };

/// to = from times the weights; `to` may be `from`. Both have the same extents.
/// Memory: weights of up to 64 KiB, or of one row, on each thread.
void apply_weights(const ConstSamples& from, const Samples& to, const Weighting& weighting,
                   Share share);

}  // namespace ctessel
