// Circular shifts between the first element of an axis and its centre, in place.
//
// Six routines over one rotation: an axis of N blocks of B contiguous floats is turned by
// floor(N / 2) blocks, or back. Every float is read once and written once: an even axis swaps its
// halves, an odd one follows the single cycle that its rotation consists of, a slice of a block at
// a time.

#include <algorithm>
#include <cstring>
#include <vector>

#include "cTessel.h"
#include "dispatch.h"
#include "loops.h"

namespace {

CTESSEL_CLONES void swap_halves(float* line, std::ptrdiff_t half) {
  float* upper = line + half;
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < half; ++i) {
    const float lower = line[i];
    line[i] = upper[i];
    upper[i] = lower;
  }
}

/// Floats of a block that move together on an odd axis. The slices stay in the L1 cache while the
/// pages that the cycle touches stay in the TLB.
constexpr std::ptrdiff_t kSlice = 1024;

/// Blocks too small to be moved one by one.
constexpr std::ptrdiff_t kSmallBlock = 16;

void copy_floats(float* to, const float* from, std::ptrdiff_t n) {
  std::memcpy(to, from, static_cast<std::size_t>(n) * sizeof(float));
}

/// Turns N blocks by `shift` where N and `shift` have no common factor: one cycle visits all
/// blocks.
void rotate_blocks(float* line, std::ptrdiff_t N, std::ptrdiff_t shift, std::ptrdiff_t B) {
  float held[kSlice];
  for (std::ptrdiff_t from = 0; from < B; from += kSlice) {
    const std::ptrdiff_t n = std::min(kSlice, B - from);
    copy_floats(held, line + from, n);
    std::ptrdiff_t to = 0;
    for (std::ptrdiff_t moved = 1; moved < N; ++moved) {
      const std::ptrdiff_t source = to < shift ? to + N - shift : to - shift;
      copy_floats(line + to * B + from, line + source * B + from, n);
      to = source;
    }
    copy_floats(line + to * B + from, held, n);
  }
}

/// Turns a line by way of a copy of its end. Plain loops: lines are too short for library calls.
CTESSEL_CLONES void rotate_floats(float* line, std::ptrdiff_t n, std::ptrdiff_t shift,
                                  float* scratch) {
  const float* end = line + n - shift;
  for (std::ptrdiff_t i = 0; i < shift; ++i) scratch[i] = end[i];
  std::memmove(line + shift, line, static_cast<std::size_t>(n - shift) * sizeof(float));
  for (std::ptrdiff_t i = 0; i < shift; ++i) line[i] = scratch[i];
}

/// The lines of one axis: how long, how far apart, how many in each outer volume.
struct Axis {
  std::ptrdiff_t N, block, step, lines, volume;
  std::int64_t outer;
};

/// The axis length comes from the caller's own dimension number, all else from the axis.
Axis axis_of(const int* dims, int ndims, int axis, int dim) {
  const std::ptrdiff_t nx = dims[0], ny = dims[1], nz = ndims > 2 ? dims[2] : 1;
  const std::ptrdiff_t blocks[] = {1, nx, nx * ny}, steps[] = {nx, nx * ny, nx * ny * nz},
                       lines[] = {ny * nz, nz, 1};
  return {dims[dim - 1],   blocks[axis - 1], steps[axis - 1],
          lines[axis - 1], nx * ny * nz,     ctessel::merged_outer(ndims, dims)};
}

void rotate_lines(float* first, const Axis& a, std::ptrdiff_t shift, float* scratch) {
  for (std::ptrdiff_t j = 0; j < a.lines; ++j) {
    float* line = first + a.step * j;
    if (a.N % 2 == 0) {
      swap_halves(line, a.N / 2 * a.block);
    } else if (a.block < kSmallBlock) {
      rotate_floats(line, a.N * a.block, shift * a.block, scratch);
    } else {
      rotate_blocks(line, a.N, shift, a.block);
    }
  }
}

void rotate_part(float* part, const Axis& a, std::ptrdiff_t shift) {
  const bool copies = a.N % 2 != 0 && a.block < kSmallBlock;
  ctessel::for_each_chunk(a.outer, [&](std::int64_t begin, std::int64_t end) {
    std::vector<float> scratch(copies ? static_cast<std::size_t>(shift * a.block) : 0);
    for (auto o = static_cast<std::ptrdiff_t>(begin); o < end; ++o) {
      rotate_lines(part + o * a.volume, a, shift, scratch.data());
    }
  });
}

void rotate(float* re, float* im, const int* dims, int ndims, int axis, int dim, bool forward) {
  const Axis a = axis_of(dims, ndims, axis, dim);
  const std::ptrdiff_t m = a.N / 2, shift = forward ? m : a.N - m;
  if (a.N <= 1) return;  // also keeps negative extents from anything below
  rotate_part(re, a, shift);
  if (im) rotate_part(im, a, shift);
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
