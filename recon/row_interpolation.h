// Blends of neighbouring rows, with the rule at the end of a volume: stated here and nowhere else.
#pragma once

#include <algorithm>
#include <cstdint>

namespace ctessel {

/// Rows of a volume that a query between rows and planes blends, as linear offsets with weights.
///
/// Like the interpolation routines it judges rows by their offset against the volume's end alone.
/// Offsets ascend, so the rows inside are the first `count`.
struct Corners {
  std::int64_t offset[4];
  double weight[4];
  int count;
};

inline Corners corner_rows(std::int64_t row, std::int64_t nx, std::int64_t plane,
                           std::int64_t volume, double fa, double fc) {
  const double ga = 1 - fa, gc = 1 - fc;
  Corners corners{
      {row, row + nx, row + plane, row + nx + plane}, {ga * gc, fa * gc, ga * fc, fa * fc}, 0};
  while (corners.count < 4 && corners.offset[corners.count] < volume) ++corners.count;
  return corners;
}

/// Weighted sum of `count` rows, at most Rows, of n values each. Inline, for callers that come in
/// versions for wider vectors.
template <int Rows = 4, class Value>
[[gnu::always_inline]] inline void blend_rows(const Value* const* rows, const double* weight,
                                              int count, std::int64_t n, Value* __restrict out) {
  if constexpr (Rows == 0) {
    std::fill_n(out, n, Value(0));
    return;
  } else if (count != Rows) {
    return blend_rows<Rows - 1>(rows, weight, count, n, out);
  }
  const Value* from[Rows];
  double by[Rows];
  std::copy_n(rows, Rows, from);
  std::copy_n(weight, Rows, by);
  for (std::int64_t i = 0; i < n; ++i) {
    double sum = 0;
    for (int r = 0; r < Rows; ++r) sum += by[r] * from[r][i];
    out[i] = static_cast<Value>(sum);
  }
}

}  // namespace ctessel
