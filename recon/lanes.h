// Vectors over the eight voxels of a batch: W of them at once, one to a lane.
#pragma once

#include <cstdint>

#include "simd.h"

namespace ctessel {

constexpr int kVoxels = 8;

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

}  // namespace ctessel
