// What the steps of the SENSE reconstruction share: layout of the factors, grids, alias order.
//
// Alias order. Along one axis the lines that share a folded line are listed as
// TS_get_unfolded_positions lists them: below the central copy downward, then the central line and
// upward. Over both axes y is outer and z inner, k = ky nz + kz of n = ny nz aliases.
//
// Factor layout. A factor grid has (nx, ny, nz) voxels, x fastest, and as slowest index the slot
// c n + k of coil c and alias k. n is the voxel's own alias count, so with a fractional reduction
// the same slot means different things in neighbouring compartments.
#pragma once

#include <Eigen/Core>
#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

namespace ctessel {

inline std::int64_t factor_slot(std::int64_t c, std::int64_t n, std::int64_t k) {
  return c * n + k;
}

/// n values from 0 to high: i (high / (n - 1)) in single precision; `single` if there is but one.
inline Eigen::VectorXf even_grid(int n, int high, int single) {
  Eigen::VectorXf grid(n > 0 ? n : 0);
  const float step = static_cast<float>(high) / static_cast<float>(n - 1);
  for (int i = 0; i < n; ++i) grid[i] = static_cast<float>(i) * step;
  if (n == 1) grid[0] = static_cast<float>(single);
  return grid;
}

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

template <int Rows, int Parts, class Value>
__attribute__((always_inline)) inline void sum_rows(const Value* volume, const Corners& corners,
                                                    std::int64_t n, Value* __restrict out) {
  for (std::int64_t i = 0; i < n; ++i) {
    double sum = 0;
    for (int r = 0; r < Rows; ++r) sum += corners.weight[r] * volume[Parts * corners.offset[r] + i];
    out[i] = static_cast<Value>(sum);
  }
}

/// Weighted sum of the rows inside, `length` samples of `Parts` values each. Inline, for callers
/// that come in versions for wider vectors.
template <int Parts, class Value>
__attribute__((always_inline)) inline void blend_rows(const Value* volume, const Corners& corners,
                                                      std::int64_t length, Value* out) {
  const std::int64_t n = Parts * length;
  switch (corners.count) {
    case 4:
      return sum_rows<4, Parts>(volume, corners, n, out);
    case 3:
      return sum_rows<3, Parts>(volume, corners, n, out);
    case 2:
      return sum_rows<2, Parts>(volume, corners, n, out);
    case 1:
      return sum_rows<1, Parts>(volume, corners, n, out);
    default:
      std::fill_n(out, n, Value(0));
  }
}

/// Arrays that begin with a cache line: of vectors that long, every second access would cross into
/// the next one elsewhere.
template <class T>
struct LineAllocator {
  using value_type = T;
  static constexpr std::align_val_t kLine{64};
  LineAllocator() = default;
  template <class U>
  explicit LineAllocator(const LineAllocator<U>&) {}
  T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T), kLine)); }
  void deallocate(T* p, std::size_t) { ::operator delete(p, kLine); }
  bool operator==(const LineAllocator&) const = default;
};
template <class T>
using LineVector = std::vector<T, LineAllocator<T>>;

/// unfold for an output of out_size samples, which may be fewer than the full size has.
int unfold_within(const float* fold_re, const float* fold_im, const Eigen::VectorXi& fold4,
                  const Eigen::VectorXcd& factors, const Eigen::VectorXi& factor_dims,
                  const Eigen::VectorXi& full_size, const float* edges_y, const float* edges_z,
                  float* out_re, float* out_im, std::int64_t out_size);

}  // namespace ctessel
