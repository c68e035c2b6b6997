// Circular shifts between the first element of an axis and its centre, in place.
//
// Six routines over one rotation. An axis of N blocks of B contiguous floats is turned by
// m = floor(N / 2) blocks, or back. Its first m blocks and m later ones trade places in one pass
// that reads and writes every float once. On an odd axis one block is left over, the traded parts
// land one block apart from where they came from, and only that block needs scratch memory.

#include <cstddef>
#include <vector>

#include "cTessel.h"
#include "loops.h"

namespace {

/// Floats traded at once: all are loaded before any is stored, as the two sides may overlap.
constexpr std::ptrdiff_t kTrade = 16;
using Quad [[gnu::vector_size(16), gnu::aligned(4), gnu::may_alias]] = float;

/// The values from `low` on go to `to`, those from `high` on take their place. All are held in
/// registers in between, each by a name of its own: the compiler keeps an array of them in memory.
void trade(float* low, const float* high, float* to) {
  const Quad *l = reinterpret_cast<const Quad*>(low), *h = reinterpret_cast<const Quad*>(high);
  const Quad l0 = l[0], l1 = l[1], l2 = l[2], l3 = l[3];
  const Quad h0 = h[0], h1 = h[1], h2 = h[2], h3 = h[3];
  Quad *upper = reinterpret_cast<Quad*>(to), *lower = reinterpret_cast<Quad*>(low);
  upper[0] = l0, upper[1] = l1, upper[2] = l2, upper[3] = l3;
  lower[0] = h0, lower[1] = h1, lower[2] = h2, lower[3] = h3;
}

void trade_one(float* low, const float* high, float* to) {
  const float from_low = *low, from_high = *high;
  *to = from_low;
  *low = from_high;
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
void turn_forward(float* line, Line l, float* held) {
  float *to = line + l.half, *high = to + l.odd;
  copy_floats(held, to, l.odd);
  std::ptrdiff_t i = 0;
  for (; i + kTrade <= l.half; i += kTrade) trade(line + i, high + i, to + i);
  for (; i < l.half; ++i) trade_one(line + i, high + i, to + i);
  copy_floats(high + l.half - l.odd, held, l.odd);
}

/// The centre to element 0: the same steps with the two ends exchanged, hence downwards.
void turn_back(float* line, Line l, float* held) {
  float *high = line + l.half, *to = high + l.odd;
  copy_floats(held, high + l.half, l.odd);
  std::ptrdiff_t i = l.half;
  for (; i >= kTrade; i -= kTrade) {
    trade(line + i - kTrade, high + i - kTrade, to + i - kTrade);
  }
  for (; i > 0; --i) trade_one(line + i - 1, high + i - 1, to + i - 1);
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

/// Asks for memory a few short lines ahead: their two halves lie so close that the processor's own
/// prefetching does not make out either.
void prefetch_ahead(const float* line, std::ptrdiff_t length, const float* end) {
  constexpr std::ptrdiff_t kShort = 4096, kAhead = 2048, kCacheLine = 16;
  if (length > kShort || end - line < length + kAhead) return;
  for (std::ptrdiff_t i = 0; i < length; i += kCacheLine) __builtin_prefetch(line + kAhead + i, 1);
}

void rotate_volume(float* volume, const Axis& a, bool forward, float* held) {
  const Line l{a.N / 2 * a.block, a.N % 2 * a.block};
  const float* end = volume + a.volume;
  for (float* line = volume; line < end; line += a.step) {
    prefetch_ahead(line, a.step, end);
    if (forward) {
      turn_forward(line, l, held);
    } else {
      turn_back(line, l, held);
    }
  }
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
