// What the steps of the SENSE reconstruction share: layout of the factors, grids, alias order.
//
// Alias order. Along one axis the lines that share a folded line are listed as
// TS_get_unfolded_positions lists them: below the central copy downward, then the central line and
// upward. Over both axes y is outer and z inner, k = ky nz + kz of n = ny nz aliases.
// Listed aliases (SenseOptions::aliases) have their own order: alias k is entry k of both axes.
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

/// Entries of both axes that alias k is made of; nz is what the line has along z.
struct AliasEntries {
  std::int64_t y, z;
};
inline AliasEntries alias_entries(bool listed, std::int64_t k, std::int64_t nz) {
  return listed ? AliasEntries{k, k} : AliasEntries{k / nz, k % nz};
}

/// Number of aliases of a line that has ny and nz along the axes.
inline std::int64_t alias_count(bool listed, std::int64_t ny, std::int64_t nz) {
  return listed ? ny : ny * nz;
}

inline std::int64_t factor_slot(std::int64_t c, std::int64_t n, std::int64_t k) {
  return c * n + k;
}

/// n values from 0 to high: i (high / (n - 1)) in single precision; `single` if there is but one.
inline Eigen::VectorXf even_grid(int n, int high, int single) {
  Eigen::VectorXf grid(n > 0 ? n : 0);
  const float step = static_cast<float>(high) / static_cast<float>(std::int64_t{n} - 1);
  for (int i = 0; i < n; ++i) grid[i] = static_cast<float>(i) * step;
  if (n == 1) grid[0] = static_cast<float>(single);
  return grid;
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

/// Full lines of every folded line along one axis, and its coordinate on the factor grid.
struct UnfoldAxis {
  int lines, room;
  std::vector<int> count, full;
  std::vector<float> coord;
};

/// Full lines of the listed aliases of a folded line along an axis.
std::vector<int> listed_lines(int folded_line, int folded_len, int full_len,
                              const std::vector<int>& offsets);

/// Where the pixels of a row lie along the factor grid's x.
struct RowGrid {
  std::vector<int> index, nearest;
  std::vector<double> fraction;
  bool regular;  // one factor sample per pixel
};

/// Hands out the columns of a folded line's n aliases that `mask`, by alias and column, has in the
/// object: put(alias, position, column, count) for runs of them. Position k begins at sample first(k) of
/// an image of `room`. Where a position is out of range, the next one takes its place in the walk
/// through mask and results: the mask numbers the aliases that are delivered, not the positions. False
/// if one was.
template <class First, class Put>
bool deliver(std::int64_t n, std::int64_t width, std::int64_t room, const unsigned char* mask,
             const First& first, const Put& put) {
  bool inside = true;
  for (std::int64_t k = 0; k < n; ++k) inside &= first(k) + width <= room;
  for (std::int64_t k = 0; inside && k < n; ++k) {
    const unsigned char *row = mask + k * width, *last = row + width, *at = row;
    while ((at = std::find(at, last, 1)) != last) {
      const unsigned char* end = std::find(at, last, 0);
      put(k, k, at - row, end - at);
      at = end;
    }
  }
  bool all = true;
  for (std::int64_t i = 0; !inside && i < width; ++i) {
    for (std::int64_t k = 0, position = 0; position < n; ++position) {
      const bool there = mask[k * width + i], fits = first(position) + i < room;
      all &= fits || !there;
      if (there && fits) put(k, position, i, std::int64_t{1});
      if (!there || fits) ++k;
    }
  }
  return all;
}

}  // namespace ctessel
