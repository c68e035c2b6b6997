// Centred placement of an array in a larger, zero-filled one.

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "cTessel.h"
#include "dispatch.h"
#include "loops.h"

namespace {

/// One dimension: input and output extent, and where the input starts in the output. An odd spare
/// sample goes in front.
struct Placement {
  std::ptrdiff_t from, to, offset;
};

Placement place(std::ptrdiff_t from, double to) {
  const auto whole = static_cast<std::ptrdiff_t>(to);
  return {from, whole, (whole - from + 1) / 2};
}

bool fits(std::ptrdiff_t from, double to) {
  return to >= static_cast<double>(from) && to == std::floor(to);
}

/// Written out: rows are too short for the price of calling memcpy.
CTESSEL_CLONES void copy_plane(const float* in, float* out, const Placement& x,
                               const Placement& y) {
  for (std::ptrdiff_t row = 0; row < y.from; ++row, in += x.from, out += x.to) {
#pragma omp simd
    for (std::ptrdiff_t i = 0; i < x.from; ++i) out[i] = in[i];
  }
}

#ifdef __SSE2__

constexpr std::ptrdiff_t kLine = 16;  // floats of a cache line

/// Whole lines go to memory without being read first.
void stream_row(const float* in, float* out, std::ptrdiff_t n) {
  const auto past =
      static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(out) / sizeof(float) % kLine);
  std::ptrdiff_t i = std::min((kLine - past) % kLine, n);
  std::copy_n(in, i, out);
  for (; i + kLine <= n; i += kLine) {
    for (std::ptrdiff_t j = i; j < i + kLine; j += 4) _mm_stream_ps(out + j, _mm_loadu_ps(in + j));
  }
  std::copy_n(in + i, n - i, out + i);
}

void stream_plane(const float* in, float* out, const Placement& x, const Placement& y) {
  for (std::ptrdiff_t row = 0; row < y.from; ++row) {
    stream_row(in + x.from * row, out + x.to * row, x.from);
  }
  _mm_sfence();  // such stores are not ordered by the threads' barrier
}

/// Pays where the outputs are larger than most caches and rows than a few lines.
bool pays_to_stream(double samples, std::ptrdiff_t row) {
  return samples * sizeof(float) >= 32 << 20 && row >= 4 * kLine;
}

#else

constexpr auto stream_plane = copy_plane;
bool pays_to_stream(double, std::ptrdiff_t) { return false; }

#endif

}  // namespace

void TS_zero_pad(float* re, float* im, int ndims, int* dims, double nx, double ny, double nz,
                 float* out_re, float* out_im) {
  const std::ptrdiff_t d0 = dims[0], d1 = dims[1], d2 = ndims > 2 ? dims[2] : 1;
  // No array has more samples, and below this the extents convert to integers on every word size.
  constexpr auto kAddressable = static_cast<double>(PTRDIFF_MAX / sizeof(float));
  if (d0 <= 0 || d1 <= 0 || d2 <= 0) return;
  if (!fits(d0, nx) || !fits(d1, ny) || !fits(d2, nz) || nx * ny * nz > kAddressable) return;
  const Placement x = place(d0, nx), y = place(d1, ny), z = place(d2, nz);
  const std::int64_t outer = ctessel::merged_outer(ndims, dims);
  const bool complex = im && out_im;
  const double samples = nx * ny * nz * static_cast<double>(outer) * (complex ? 2 : 1);
  const auto copy = pays_to_stream(samples, x.from) ? stream_plane : copy_plane;
  ctessel::for_each_chunk(outer, [&](std::int64_t begin, std::int64_t end) {
    for (auto o = static_cast<std::ptrdiff_t>(begin); o < end; ++o) {
      for (std::ptrdiff_t plane = 0; plane < z.from; ++plane) {
        const std::ptrdiff_t in = x.from * y.from * (z.from * o + plane);
        const std::ptrdiff_t out =
            x.offset + x.to * (y.offset + y.to * (z.to * o + z.offset + plane));
        copy(re + in, out_re + out, x, y);
        if (complex) copy(im + in, out_im + out, x, y);
      }
    }
  });
}
