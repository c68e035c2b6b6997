// Circular shifts between the first element of an axis and its centre, in place.
//
// Six routines over one rotation. An axis of N blocks of B contiguous floats is turned by
// m = floor(N / 2) blocks, or back. Its first m blocks and m later ones trade places in one pass
// that reads and writes every float once. On an odd axis one block is left over, the traded parts
// land one block apart from where they came from, and only that block needs scratch memory.

#include <cstring>
#include <vector>

#include "cTessel.h"
#include "dispatch.h"
#include "loops.h"

namespace {

/// Floats traded at once: all are loaded before any is stored, as the two sides may overlap. Held
/// as vectors, because the compiler would keep an array of floats in memory.
constexpr std::ptrdiff_t kTrade = 16;
using Quad [[gnu::vector_size(16)]] = float;
struct Quads {
  Quad q[kTrade / 4];
};

/// The values from `low` on go to `to`, those from `high` on take their place.
template <class Values>
[[gnu::always_inline]] inline void trade(float* low, const float* high, float* to) {
  Values from_low, from_high;
  std::memcpy(&from_low, low, sizeof from_low);
  std::memcpy(&from_high, high, sizeof from_high);
  std::memcpy(low, &from_high, sizeof from_high);
  std::memcpy(to, &from_low, sizeof from_low);
}

/// One line: `half` = m B floats trade places; `odd` floats, B or none, are left over.
struct Line {
  std::ptrdiff_t half, odd;
};

void copy_floats(float* to, const float* from, std::ptrdiff_t n) {
  for (std::ptrdiff_t i = 0; i < n; ++i) to[i] = from[i];
}

/// Element 0 to the centre. Upwards: what a step stores over was read `odd` floats before or is
/// held.
[[gnu::always_inline]] inline void turn_forward(float* line, Line l, float* held) {
  float *to = line + l.half, *high = to + l.odd;
  copy_floats(held, to, l.odd);
  std::ptrdiff_t i = 0;
  for (; i + kTrade <= l.half; i += kTrade) trade<Quads>(line + i, high + i, to + i);
  for (; i < l.half; ++i) trade<float>(line + i, high + i, to + i);
  copy_floats(high + l.half - l.odd, held, l.odd);
}

/// The centre to element 0: the same steps with the two ends exchanged, hence downwards.
[[gnu::always_inline]] inline void turn_back(float* line, Line l, float* held) {
  float *high = line + l.half, *to = high + l.odd;
  copy_floats(held, high + l.half, l.odd);
  std::ptrdiff_t i = l.half;
  for (; i >= kTrade; i -= kTrade) {
    trade<Quads>(line + i - kTrade, high + i - kTrade, to + i - kTrade);
  }
  for (; i > 0; --i) trade<float>(line + i - 1, high + i - 1, to + i - 1);
  copy_floats(high, held, l.odd);
}

/// The lines of one axis: blocks in a line, floats in a block, from line to line and in a volume.
struct Axis {
  std::ptrdiff_t N, block, step, volume;
  std::int64_t outer;
};

/// The axis length comes from the caller's own dimension number, all else from the axis.
Axis axis_of(const int* dims, int ndims, int axis, int dim) {
  const std::ptrdiff_t nx = dims[0], ny = dims[1], nz = ndims > 2 ? dims[2] : 1;
  const std::ptrdiff_t blocks[] = {1, nx, nx * ny, nx * ny * nz};
  return {dims[dim - 1], blocks[axis - 1], blocks[axis], blocks[3],
          ctessel::merged_outer(ndims, dims)};
}

constexpr std::ptrdiff_t kShort = 4096;

/// Asks for memory a few short lines ahead: their two halves lie so close that the processor's own
/// prefetching does not make out either.
void prefetch_ahead(const float* line, std::ptrdiff_t length, const float* end) {
  constexpr std::ptrdiff_t kAhead = 2048, kCacheLine = 16;
  if (end - line < length + kAhead) return;
  for (std::ptrdiff_t i = 0; i < length; i += kCacheLine) __builtin_prefetch(line + kAhead + i, 1);
}

template <bool Short>
[[gnu::always_inline]] inline void rotate_lines(float* volume, const Axis& a, bool forward,
                                                float* held) {
  const Line l{a.N / 2 * a.block, a.N % 2 * a.block};
  const float* end = volume + a.volume;
  for (float* line = volume; line < end; line += a.step) {
    if (Short) prefetch_ahead(line, a.step, end);
    if (forward) {
      turn_forward(line, l, held);
    } else {
      turn_back(line, l, held);
    }
  }
}

CTESSEL_CLONES void rotate_long_lines(float* volume, const Axis& a, bool forward, float* held) {
  rotate_lines<false>(volume, a, forward, held);
}

/// Wider vectors would cross a cache line with nearly every access to lines that begin anywhere,
/// and pay only where long runs make up for it.
void rotate_volume(float* volume, const Axis& a, bool forward, float* held) {
  if (a.step > kShort) return rotate_long_lines(volume, a, forward, held);
  rotate_lines<true>(volume, a, forward, held);
}

void rotate_part(float* part, const Axis& a, bool forward) {
  ctessel::for_each_chunk(a.outer, [&](std::int64_t begin, std::int64_t end) {
    std::vector<float> held(static_cast<std::size_t>(a.N % 2 * a.block));
    for (auto o = static_cast<std::ptrdiff_t>(begin); o < end; ++o) {
      rotate_volume(part + o * a.volume, a, forward, held.data());
    }
  });
}

void rotate(float* re, float* im, const int* dims, int ndims, int axis, int dim, bool forward) {
  const Axis a = axis_of(dims, ndims, axis, dim);
  if (a.N <= 1 || a.step <= 0) return;
  rotate_part(re, a, forward);
  if (im) rotate_part(im, a, forward);
}

}  // namespace

void TS_fftshift_dim1(float* re, float* im, int* dims, int ndims, int dim) {
  rotate(re, im, dims, ndims, 1, dim, true);
}
void TS_fftshift_dim2(float* re, float* im, int* dims, int ndims, int dim) {
  rotate(re, im, dims, ndims, 2, dim, true);
}
void TS_fftshift_dim3(float* re, float* im, int* dims, int ndims, int dim) {
  rotate(re, im, dims, ndims, 3, dim, true);
}
void TS_ifftshift_dim1(float* re, float* im, int* dims, int ndims, int dim) {
  rotate(re, im, dims, ndims, 1, dim, false);
}
void TS_ifftshift_dim2(float* re, float* im, int* dims, int ndims, int dim) {
  rotate(re, im, dims, ndims, 2, dim, false);
}
void TS_ifftshift_dim3(float* re, float* im, int* dims, int ndims, int dim) {
  rotate(re, im, dims, ndims, 3, dim, false);
}

void TS_fftshift(float* re, float* im, int* dims, int ndims, int dim) {
  if (dim == 1) TS_fftshift_dim1(re, im, dims, ndims, 1);
  if (dim == 2) TS_fftshift_dim2(re, im, dims, ndims, 2);
  if (dim == 3) TS_fftshift_dim3(re, im, dims, ndims, 3);
}

void TS_ifftshift(float* re, float* im, int* dims, int ndims, int dim) {
  if (dim == 1) TS_ifftshift_dim1(re, im, dims, ndims, 1);
  if (dim == 2) TS_ifftshift_dim2(re, im, dims, ndims, 2);
  if (dim == 3) TS_ifftshift_dim3(re, im, dims, ndims, 3);
}
