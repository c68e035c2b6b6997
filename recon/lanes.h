// Vectors over the eight voxels of a batch: W of them at once, one to a lane.
#pragma once

#include <cstdint>

#include "simd.h"

namespace ctessel {

constexpr std::int64_t kVoxels = 8;

template <int W>
struct Vectors;
#define CTESSEL_VECTORS(W)                                                              \
  template <>                                                                           \
  struct Vectors<W> {                                                                   \
    typedef double Lanes __attribute__((vector_size(8 * (W)), may_alias));              \
    typedef std::int64_t Mask __attribute__((vector_size(8 * (W)), may_alias));         \
    typedef float Singles __attribute__((vector_size(4 * (W)), aligned(4), may_alias)); \
  };
CTESSEL_VECTORS(2)
CTESSEL_VECTORS(4)
CTESSEL_VECTORS(8)
#undef CTESSEL_VECTORS

template <int W>
using Lanes = typename Vectors<W>::Lanes;
template <int W>
using Mask = typename Vectors<W>::Mask;

/// Entry i of an array that holds all voxels' values of one entry side by side.
template <int W>
CTESSEL_INLINE Lanes<W>& lane(double* p, std::int64_t i) {
  return *reinterpret_cast<Lanes<W>*>(p + kVoxels * i);
}

/// Complex numbers, from and to arrays in which entry i has its real parts before its imaginary ones.
template <int W>
struct ComplexLanes {
  Lanes<W> re{}, im{};

  ComplexLanes() = default;
  CTESSEL_INLINE ComplexLanes(double* p, std::int64_t i)
      : re(lane<W>(p, 2 * i)), im(lane<W>(p, 2 * i + 1)) {}
  CTESSEL_INLINE void store(double* p, std::int64_t i) const {
    lane<W>(p, 2 * i) = re;
    lane<W>(p, 2 * i + 1) = im;
  }
  CTESSEL_INLINE void add_product(const ComplexLanes& a, const ComplexLanes& b) {
    re += a.re * b.re - a.im * b.im;
    im += a.re * b.im + a.im * b.re;
  }
};

}  // namespace ctessel
