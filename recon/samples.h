// What the kernels know of storage: rows of samples, loaded into parts and stored back, and the axes of
// a view in the order of memory. The one strided copy is ctessel::copy; all layouts end here.
#pragma once

#include <cstddef>
#include <vector>

#include "ctessel.hpp"
#include "loops.h"

namespace ctessel {

/// Threads of a copy.
enum class Team { all, one };
void copy(const ConstSamples& from, const Samples& to, Team team);

/// Samples along one axis: sample i at re[i step] and im[i step].
template <class Float>
struct BasicRow {
  Float *re, *im;  // im may be null
  std::ptrdiff_t step, n;
};
using Row = BasicRow<float>;
using ConstRow = BasicRow<const float>;

/// The row of a view along axis d that begins `offset` floats from the view's first sample.
template <class Float>
BasicRow<Float> row_of(const BasicSamples<Float>& s, Dim d, std::ptrdiff_t offset = 0) {
  return {s.re + offset, s.im ? s.im + offset : nullptr, s.stride(d), s.extent(d)};
}

/// Offset of an entry that is counted over the axes from `first` on, the first of them fastest.
std::ptrdiff_t offset_of(const ConstSamples& s, int first, std::ptrdiff_t index);

/// An axis of two arrays, one read and one written: its extent and its steps in both.
struct Step {
  std::ptrdiff_t n, from, to;
};
struct Offsets {
  std::ptrdiff_t from = 0, to = 0;
};

/// Adds an axis, which becomes part of the last one where both sides run on without a gap.
void append(std::vector<Step>& axes, const Step& next);

std::ptrdiff_t count_of(const std::vector<Step>& axes);

/// Where entry `index` of the axes lies, the first of them fastest.
inline Offsets offsets_of(const std::vector<Step>& axes, std::ptrdiff_t index) {
  Offsets at;
  for (std::size_t d = 0; index > 0; index /= axes[d++].n) {
    const std::ptrdiff_t i = index % axes[d].n;
    at.from += i * axes[d].from, at.to += i * axes[d].to;
  }
  return at;
}

/// Rows through two views of the same extents, along the axis that is fastest in the first unless that
/// has but a few entries; axes on which both run on without a gap are one.
class JointRows {
 public:
  JointRows(const Samples& a, const ConstSamples& b);

  /// body(row of a, row of b) for the samples begin .. end - 1, in the order of the rows.
  template <class Body>
  void visit(std::ptrdiff_t begin, std::ptrdiff_t end, Body&& body) const {
    const Step& run = axes_.front();
    while (begin < end) {
      const std::ptrdiff_t n = std::min(run.n - begin % run.n, end - begin);
      const Offsets o = offsets_of(axes_, begin);
      body(Row{a_.re + o.to, a_.im ? a_.im + o.to : nullptr, run.to, n},
           ConstRow{b_.re ? b_.re + o.from : nullptr, b_.im ? b_.im + o.from : nullptr, run.from,
                    n});
      begin += n;
    }
  }

 private:
  const Samples& a_;
  const ConstSamples& b_;
  std::vector<Step> axes_;
};

/// Row to parts without gaps. im may be null and gets zeros where the row has no imaginary parts.
void load_row(const ConstRow& from, float* re, float* im);

/// Parts without gaps to a row. im null counts as zeros.
void store_row(const float* re, const float* im, const Row& to);

/// Axes from the fastest to the slowest in memory.
std::vector<int> memory_order(const ConstSamples& s);

/// Whether each imaginary part follows its real part.
inline bool in_pairs(const ConstSamples& s) { return s.im && s.im == s.re + 1; }

/// Whether the samples lie without gaps, first axis fastest: as parts, or as pairs.
bool is_packed(const ConstSamples& s);

/// The arrays of cTessel.h: parts without gaps as (x, y, z, all others).
template <class Float>
BasicSamples<Float> volumes(Float* re, Float* im, int ndims, const int* dims) {
  return BasicSamples<Float>::parts(re, im,
                                    {dims[0], dims[1], ndims > 2 ? dims[2] : 1,
                                     static_cast<std::ptrdiff_t>(merged_outer(ndims, dims))});
}

/// Throws std::invalid_argument with one line unless both are complex or both real.
void require_same_kind(const ConstSamples& a, const ConstSamples& b, const char* names);

/// The same unless both have the same extents.
void require_same_extents(const ConstSamples& a, const ConstSamples& b, const char* names);

}  // namespace ctessel
