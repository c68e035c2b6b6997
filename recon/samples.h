// What the kernels know of storage: rows of samples, loaded into parts and stored back, and the axes of
// a view in the order of memory. The one strided copy is ctessel::copy; all layouts end here.
#pragma once

#include <cstddef>
#include <vector>

#include "ctessel.hpp"

namespace ctessel {

/// Samples along one axis: sample i at re[i step] and im[i step].
template <class Float>
struct BasicRow {
  Float *re, *im;  // im may be null
  std::ptrdiff_t step, n;
};
using Row = BasicRow<float>;
using ConstRow = BasicRow<const float>;

/// The row of a view along axis d that begins `offset` floats from the view's first sample.
inline ConstRow row_of(const ConstSamples& s, Dim d, std::ptrdiff_t offset = 0) {
  return {s.re + offset, s.im ? s.im + offset : nullptr, s.stride(d), s.extent(d)};
}
inline Row row_of(const Samples& s, Dim d, std::ptrdiff_t offset = 0) {
  return {s.re + offset, s.im ? s.im + offset : nullptr, s.stride(d), s.extent(d)};
}

/// Row to parts without gaps. im may be null and gets zeros where the row has no imaginary parts.
void load_row(const ConstRow& from, float* re, float* im);

/// Parts without gaps to a row. im null counts as zeros.
void store_row(const float* re, const float* im, const Row& to);

/// Axes from the fastest to the slowest in memory, and a view with its axes in such an order.
std::vector<int> memory_order(const ConstSamples& s);
template <class Float>
BasicSamples<Float> permuted(BasicSamples<Float> s, const std::vector<int>& order) {
  const BasicSamples<Float> as = s;
  for (std::size_t k = 0; k < order.size(); ++k) {
    s.extents[k] = as.extent(Dim(order[k]));
    s.strides[k] = as.stride(Dim(order[k]));
  }
  return s;
}

/// Whether each imaginary part follows its real part.
inline bool in_pairs(const ConstSamples& s) { return s.im && s.im == s.re + 1; }

/// Whether the samples lie without gaps, first axis fastest: as parts, or as pairs.
bool is_packed(const ConstSamples& s);

/// Throws std::invalid_argument with one line unless both have the same extents.
void require_same_extents(const ConstSamples& a, const ConstSamples& b, const char* names);

}  // namespace ctessel
